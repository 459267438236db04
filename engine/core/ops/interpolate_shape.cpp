#include "ops/interpolate_shape.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <type_traits>
#include <utility>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define VELMORIN_INTERPOLATE_SSE2 1
#endif
// Where the compiler can build a function for AVX alone, the blend and the segment lengths also
// come eight lanes wide, chosen at run time on processors that have AVX. AVX's operations round
// as SSE2's do, and there is no fused multiply-add, so both give the same bits.
#if VELMORIN_INTERPOLATE_SSE2 && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define VELMORIN_INTERPOLATE_AVX 1
#endif

#include "base/fast_trig_lanes.h"
#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "ops/interpolate_shape_lanes.h"

namespace velmorin {
namespace {

using interpolate_lanes::kFourLanes;
using interpolate_lanes::kGroupLanes;
using interpolate_lanes::kMaxSamples;
using interpolate_lanes::kPaddedSamples;
using interpolate_lanes::kWideLanes;
using interpolate_lanes::kWidestLanes;
using interpolate_lanes::LaneGroup;
using interpolate_lanes::LaneGroups;
using interpolate_lanes::LaneScratch;

// A 3 x 3 matrix by rows.
struct Turn {
    Vec3f r0{1, 0, 0}, r1{0, 1, 0}, r2{0, 0, 1};
    Vec3f apply(const Vec3f& o) const { return {dot(r0, o), dot(r1, o), dot(r2, o)}; }
};
static_assert(sizeof(Turn) == 9 * sizeof(float) && std::is_trivially_copyable_v<Turn>);

// The turn that takes a guide's root normal onto the strand's: none when they agree, a half turn
// about a perpendicular when they oppose, else the shortest rotation.
Turn turnBetween(const Vec3f& from, const Vec3f& to) {
    Turn turn;
    const float c = dot(from, to);
    if (c > 0.999999f) return turn;
    if (c < -0.999999f) {
        const Vec3f k = normalized(
            cross(from, std::fabs(from.x) < 0.9f ? Vec3f{1, 0, 0} : Vec3f{0, 1, 0}), {0, 0, 1});
        // o goes to k * 2 (k . o) - o.
        turn.r0 = Vec3f{2 * k.x * k.x - 1, 2 * k.x * k.y, 2 * k.x * k.z};
        turn.r1 = Vec3f{2 * k.y * k.x, 2 * k.y * k.y - 1, 2 * k.y * k.z};
        turn.r2 = Vec3f{2 * k.z * k.x, 2 * k.z * k.y, 2 * k.z * k.z - 1};
        return turn;
    }
    // o goes to o c + k x o + k (k . o) / (1 + c), with k = from x to.
    const Vec3f k = cross(from, to);
    const float f = 1.0f / (1.0f + c);
    turn.r0 = Vec3f{c + k.x * k.x * f, -k.z + k.x * k.y * f, k.y + k.x * k.z * f};
    turn.r1 = Vec3f{k.z + k.y * k.x * f, c + k.y * k.y * f, -k.x + k.y * k.z * f};
    turn.r2 = Vec3f{-k.y + k.z * k.x * f, k.x + k.z * k.y * f, c + k.z * k.z * f};
    return turn;
}

float polylineLength(std::span<const Vec3f> points) {
    float total = 0.0f;
    for (std::size_t i = 1; i < points.size(); ++i)
        total += length(points[i] - points[i - 1]);
    return total;
}

// Places `out.size()` points at equal arc steps along `samples`, whose running arc lengths are
// `arc`; past the end a point continues along the last segment.
void placeAlong(std::span<const Vec3f> samples, std::span<const float> arc, float total,
                std::span<Vec3f> out) {
    const std::size_t n = out.size();
    const std::size_t last = samples.size() - 1;
    // The points' arc positions only grow, so one walk along the table finds each one's segment
    // (the first entry past it, as a binary search would) without starting over.
    std::size_t past = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const float at = n > 1 ? total * static_cast<float>(i) / static_cast<float>(n - 1) : 0.0f;
        while (past < arc.size() && arc[past] <= at)
            ++past;
        const std::size_t hi = std::clamp<std::size_t>(past, 1, last);
        const std::size_t lo = hi - 1;
        const float span = arc[hi] - arc[lo];
        const float f = span > 0.0f ? (at - arc[lo]) / span : 0.0f;
        out[i] = samples[lo] + (samples[hi] - samples[lo]) * f;
    }
}

void runningArc(std::span<const Vec3f> samples, std::span<float> arc) {
    arc[0] = 0.0f;
    for (std::size_t j = 1; j < samples.size(); ++j)
        arc[j] = arc[j - 1] + length(samples[j] - samples[j - 1]);
}

// Resamples `points` to `count` samples at equal arc steps, as offsets from the first point.
void resampleOffsets(std::span<const Vec3f> points, std::span<Vec3f> out) {
    std::vector<float> arc(points.size());
    runningArc(points, arc);
    placeAlong(points, arc, arc.back(), out);
    const Vec3f root = points[0];
    for (Vec3f& p : out)
        p -= root;
    out[0] = Vec3f{};
}

// Sample loops run four lanes at a time; arrays are padded so that a loop may read and write up
// to a whole group of four past its last sample.
constexpr std::size_t kLanes = 4;

// Rows and scratch curves are padded to whole groups of eight, which both widths cover.
std::size_t planarStrideOf(std::size_t samples) {
    return (samples + kWideLanes - 1) / kWideLanes * kWideLanes;
}

// Lays `offsets` (S per guide) out as `planar` rows: x, y, z runs of `stride` floats per guide.
void layOutPlanar(std::span<const Vec3f> offsets, std::size_t samples, std::size_t stride,
                  std::vector<float>& planar) {
    const std::size_t count = samples > 0 ? offsets.size() / samples : 0;
    planar.assign(count * 3 * stride, 0.0f);
    for (std::size_t g = 0; g < count; ++g) {
        float* row = planar.data() + g * 3 * stride;
        for (std::size_t j = 0; j < samples; ++j) {
            const Vec3f& o = offsets[g * samples + j];
            row[j] = o.x;
            row[stride + j] = o.y;
            row[2 * stride + j] = o.z;
        }
    }
}

// One record of a strand's blend: its guide's planar row, its weight and, where the guide turns
// with the surface, the turn into the strand's frame.
struct BlendTerm {
    const float* row = nullptr;
    float weight = 0.0f;
    bool turns = false;
    Turn turn;
};

#if VELMORIN_INTERPOLATE_SSE2
// turnBetween(*from[l], to) into terms[l].turn for l below `count` (at most four; `from` has four
// entries, those past the count any normal). Each lane makes the operations of turnBetween's
// general case in its order (IEEE sums and products round alike in any lane), so the bits are
// the same; a lane whose normals agree or oppose takes turnBetween itself.
void turnsFour(const Vec3f* const* from, const Vec3f& to, BlendTerm* terms, std::size_t count) {
    const __m128 ax = _mm_setr_ps(from[0]->x, from[1]->x, from[2]->x, from[3]->x);
    const __m128 ay = _mm_setr_ps(from[0]->y, from[1]->y, from[2]->y, from[3]->y);
    const __m128 az = _mm_setr_ps(from[0]->z, from[1]->z, from[2]->z, from[3]->z);
    const __m128 bx = _mm_set1_ps(to.x), by = _mm_set1_ps(to.y), bz = _mm_set1_ps(to.z);
    const __m128 c =
        _mm_add_ps(_mm_add_ps(_mm_mul_ps(ax, bx), _mm_mul_ps(ay, by)), _mm_mul_ps(az, bz));
    const __m128 kx = _mm_sub_ps(_mm_mul_ps(ay, bz), _mm_mul_ps(az, by));
    const __m128 ky = _mm_sub_ps(_mm_mul_ps(az, bx), _mm_mul_ps(ax, bz));
    const __m128 kz = _mm_sub_ps(_mm_mul_ps(ax, by), _mm_mul_ps(ay, bx));
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 f = _mm_div_ps(one, _mm_add_ps(one, c));
    const __m128 sign = _mm_set1_ps(-0.0f);
    // entry = base + a * b * f, the product taken first as turnBetween takes it.
    const auto entry = [&](__m128 base, __m128 a, __m128 b) {
        return _mm_add_ps(base, _mm_mul_ps(_mm_mul_ps(a, b), f));
    };
    // The nine entries by rows, turned into four per lane: entries 0-3, 4-7, then 8.
    __m128 e0 = entry(c, kx, kx), e1 = entry(_mm_xor_ps(kz, sign), kx, ky);
    __m128 e2 = entry(ky, kx, kz), e3 = entry(kz, ky, kx);
    __m128 e4 = entry(c, ky, ky), e5 = entry(_mm_xor_ps(kx, sign), ky, kz);
    __m128 e6 = entry(_mm_xor_ps(ky, sign), kz, kx), e7 = entry(kx, kz, ky);
    alignas(16) float e8[4];
    _mm_store_ps(e8, entry(c, kz, kz));
    _MM_TRANSPOSE4_PS(e0, e1, e2, e3);
    _MM_TRANSPOSE4_PS(e4, e5, e6, e7);
    const __m128 front[4] = {e0, e1, e2, e3};
    const __m128 back[4] = {e4, e5, e6, e7};
    const int apart = _mm_movemask_ps(_mm_or_ps(_mm_cmpgt_ps(c, _mm_set1_ps(0.999999f)),
                                                _mm_cmplt_ps(c, _mm_set1_ps(-0.999999f))));
    for (std::size_t l = 0; l < count; ++l) {
        Turn& turn = terms[l].turn;
        if (apart >> l & 1) {
            turn = turnBetween(*from[l], to);
            continue;
        }
        // A turn is nine floats in a row (trivially copyable), written as 4 + 4 + 1.
        auto* bytes = reinterpret_cast<unsigned char*>(&turn);
        std::memcpy(bytes, &front[l], sizeof(__m128));
        std::memcpy(bytes + sizeof(__m128), &back[l], sizeof(__m128));
        std::memcpy(bytes + 2 * sizeof(__m128), &e8[l], sizeof(float));
    }
}
#endif

// The turns of a strand's terms, from the normal of each one's guide (`guides`, one per term)
// onto the strand's, `to`. A strand has about seven records, and their turns, made one by one,
// cost more than the blend they feed: they are made four at a time. Terms whose guide does not
// turn get a turn too, which the blend never reads.
void turnTerms(std::span<BlendTerm> terms, const std::uint32_t* guides,
               std::span<const Vec3f> normals, const Vec3f& to) {
    std::size_t i = 0;
#if VELMORIN_INTERPOLATE_SSE2
    for (; i + 4 <= terms.size(); i += 4) {
        const Vec3f* from[4] = {&normals[guides[i]], &normals[guides[i + 1]],
                                &normals[guides[i + 2]], &normals[guides[i + 3]]};
        turnsFour(from, to, terms.data() + i, 4);
    }
    if (i < terms.size()) {
        // Lanes past the last term turn the strand's normal onto itself, and are not stored.
        const Vec3f* from[4] = {&to, &to, &to, &to};
        for (std::size_t l = 0; i + l < terms.size(); ++l)
            from[l] = &normals[guides[i + l]];
        turnsFour(from, to, terms.data() + i, terms.size() - i);
    }
#else
    for (; i < terms.size(); ++i)
        terms[i].turn = turnBetween(normals[guides[i]], to);
#endif
}

// What the shape of one strand works in, set up once per chunk: a curve of samples as three
// planar runs, and per sample its segment's length and running arc length.
struct ShapeScratch {
    alignas(32) float x[kPaddedSamples];
    alignas(32) float y[kPaddedSamples];
    alignas(32) float z[kPaddedSamples];
    alignas(32) float segment[kPaddedSamples];
    float arc[kPaddedSamples];
    std::vector<BlendTerm> terms;  // grows to the most records a strand has, then stays
};

// The curve = root + the sum of the terms' weighted (turned) offsets, over `lanes` samples (whole
// groups of four) of rows `stride` floats apart. Each sample adds the terms in their order, with
// the operations of Turn::apply and Vec3f's operators, so the bits equal a sample-by-sample sum.
void blendRows(std::span<const BlendTerm> terms, std::size_t stride, std::size_t lanes,
               const Vec3f& root, float* x, float* y, float* z) {
#if VELMORIN_INTERPOLATE_SSE2
    for (std::size_t j = 0; j < lanes; j += kLanes) {
        __m128 ax = _mm_setzero_ps(), ay = _mm_setzero_ps(), az = _mm_setzero_ps();
        for (const BlendTerm& term : terms) {
            const __m128 ox = _mm_loadu_ps(term.row + j);
            const __m128 oy = _mm_loadu_ps(term.row + stride + j);
            const __m128 oz = _mm_loadu_ps(term.row + 2 * stride + j);
            const __m128 w = _mm_set1_ps(term.weight);
            if (term.turns) {
                const Turn& t = term.turn;
                const auto row = [&](const Vec3f& r) {
                    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_set1_ps(r.x), ox),
                                                 _mm_mul_ps(_mm_set1_ps(r.y), oy)),
                                      _mm_mul_ps(_mm_set1_ps(r.z), oz));
                };
                ax = _mm_add_ps(ax, _mm_mul_ps(row(t.r0), w));
                ay = _mm_add_ps(ay, _mm_mul_ps(row(t.r1), w));
                az = _mm_add_ps(az, _mm_mul_ps(row(t.r2), w));
            } else {
                ax = _mm_add_ps(ax, _mm_mul_ps(ox, w));
                ay = _mm_add_ps(ay, _mm_mul_ps(oy, w));
                az = _mm_add_ps(az, _mm_mul_ps(oz, w));
            }
        }
        _mm_store_ps(x + j, _mm_add_ps(ax, _mm_set1_ps(root.x)));
        _mm_store_ps(y + j, _mm_add_ps(ay, _mm_set1_ps(root.y)));
        _mm_store_ps(z + j, _mm_add_ps(az, _mm_set1_ps(root.z)));
    }
#else
    for (std::size_t j = 0; j < lanes; ++j) {
        Vec3f sum{};
        for (const BlendTerm& term : terms) {
            const Vec3f o{term.row[j], term.row[stride + j], term.row[2 * stride + j]};
            sum += (term.turns ? term.turn.apply(o) : o) * term.weight;
        }
        x[j] = sum.x + root.x;
        y[j] = sum.y + root.y;
        z[j] = sum.z + root.z;
    }
#endif
}

// segment[j] = the length of the curve's step from sample j - 1 to j, for j in 1 .. lanes - 1,
// as length() gives it: the square root of dx * dx + dy * dy + dz * dz, rounded alike.
// segment[0] means nothing.
void segmentLengths(const ShapeScratch& c, std::size_t lanes, float* segment) {
#if VELMORIN_INTERPOLATE_SSE2
    // Each group of four takes its samples before from itself shifted by one and the last of the
    // group before: aligned loads only, none reading across what was just stored.
    const auto shiftIn = [](__m128 before, __m128 now) {
        return _mm_castsi128_ps(_mm_or_si128(_mm_slli_si128(_mm_castps_si128(now), 4),
                                             _mm_srli_si128(_mm_castps_si128(before), 12)));
    };
    __m128 bx = _mm_setzero_ps(), by = _mm_setzero_ps(), bz = _mm_setzero_ps();
    for (std::size_t j = 0; j < lanes; j += kLanes) {
        const __m128 nx = _mm_load_ps(c.x + j), ny = _mm_load_ps(c.y + j),
                     nz = _mm_load_ps(c.z + j);
        const __m128 dx = _mm_sub_ps(nx, shiftIn(bx, nx));
        const __m128 dy = _mm_sub_ps(ny, shiftIn(by, ny));
        const __m128 dz = _mm_sub_ps(nz, shiftIn(bz, nz));
        const __m128 d2 =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        _mm_store_ps(segment + j, _mm_sqrt_ps(d2));
        bx = nx;
        by = ny;
        bz = nz;
    }
#else
    for (std::size_t j = 1; j < lanes; ++j) {
        const float dx = c.x[j] - c.x[j - 1], dy = c.y[j] - c.y[j - 1], dz = c.z[j] - c.z[j - 1];
        segment[j] = std::sqrt(dx * dx + dy * dy + dz * dz);
    }
#endif
}

#if VELMORIN_INTERPOLATE_AVX
// blendRows for the eight samples from j.
__attribute__((target("avx"), always_inline)) inline void blendEight(
    std::span<const BlendTerm> terms, std::size_t stride, std::size_t j, const Vec3f& root,
    float* x, float* y, float* z) {
    __m256 ax = _mm256_setzero_ps(), ay = _mm256_setzero_ps(), az = _mm256_setzero_ps();
    for (const BlendTerm& term : terms) {
        const __m256 ox = _mm256_loadu_ps(term.row + j);
        const __m256 oy = _mm256_loadu_ps(term.row + stride + j);
        const __m256 oz = _mm256_loadu_ps(term.row + 2 * stride + j);
        const __m256 w = _mm256_set1_ps(term.weight);
        if (term.turns) {
            const Turn& t = term.turn;
            // As Turn::apply, row by row; lambdas would not be built for AVX.
            const __m256 tx =
                _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(t.r0.x), ox),
                                            _mm256_mul_ps(_mm256_set1_ps(t.r0.y), oy)),
                              _mm256_mul_ps(_mm256_set1_ps(t.r0.z), oz));
            const __m256 ty =
                _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(t.r1.x), ox),
                                            _mm256_mul_ps(_mm256_set1_ps(t.r1.y), oy)),
                              _mm256_mul_ps(_mm256_set1_ps(t.r1.z), oz));
            const __m256 tz =
                _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(t.r2.x), ox),
                                            _mm256_mul_ps(_mm256_set1_ps(t.r2.y), oy)),
                              _mm256_mul_ps(_mm256_set1_ps(t.r2.z), oz));
            ax = _mm256_add_ps(ax, _mm256_mul_ps(tx, w));
            ay = _mm256_add_ps(ay, _mm256_mul_ps(ty, w));
            az = _mm256_add_ps(az, _mm256_mul_ps(tz, w));
        } else {
            ax = _mm256_add_ps(ax, _mm256_mul_ps(ox, w));
            ay = _mm256_add_ps(ay, _mm256_mul_ps(oy, w));
            az = _mm256_add_ps(az, _mm256_mul_ps(oz, w));
        }
    }
    _mm256_store_ps(x + j, _mm256_add_ps(ax, _mm256_set1_ps(root.x)));
    _mm256_store_ps(y + j, _mm256_add_ps(ay, _mm256_set1_ps(root.y)));
    _mm256_store_ps(z + j, _mm256_add_ps(az, _mm256_set1_ps(root.z)));
}

// blendRows eight samples at a time.
__attribute__((target("avx"))) void blendRowsWide(std::span<const BlendTerm> terms,
                                                  std::size_t stride, std::size_t lanes,
                                                  const Vec3f& root, float* x, float* y, float* z) {
    for (std::size_t j = 0; j < lanes; j += kWideLanes)
        blendEight(terms, stride, j, root, x, y, z);
}

// blendRows sixteen samples at a time, and the eight left of a row of 8 + 16k with AVX: a guide
// row of 16 samples (the common guide) is then one group, whose turn entries each strand
// broadcasts once instead of twice. Rows are not padded to sixteen, so a group never reads past
// its row's last eight.
__attribute__((target("avx512f"))) void blendRowsWidest(std::span<const BlendTerm> terms,
                                                        std::size_t stride, std::size_t lanes,
                                                        const Vec3f& root, float* x, float* y,
                                                        float* z) {
    constexpr std::size_t kWidest = 16;
    std::size_t j = 0;
    for (; j + kWidest <= lanes; j += kWidest) {
        __m512 ax = _mm512_setzero_ps(), ay = _mm512_setzero_ps(), az = _mm512_setzero_ps();
        for (const BlendTerm& term : terms) {
            const __m512 ox = _mm512_loadu_ps(term.row + j);
            const __m512 oy = _mm512_loadu_ps(term.row + stride + j);
            const __m512 oz = _mm512_loadu_ps(term.row + 2 * stride + j);
            const __m512 w = _mm512_set1_ps(term.weight);
            if (term.turns) {
                const Turn& t = term.turn;
                const __m512 tx =
                    _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(_mm512_set1_ps(t.r0.x), ox),
                                                _mm512_mul_ps(_mm512_set1_ps(t.r0.y), oy)),
                                  _mm512_mul_ps(_mm512_set1_ps(t.r0.z), oz));
                const __m512 ty =
                    _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(_mm512_set1_ps(t.r1.x), ox),
                                                _mm512_mul_ps(_mm512_set1_ps(t.r1.y), oy)),
                                  _mm512_mul_ps(_mm512_set1_ps(t.r1.z), oz));
                const __m512 tz =
                    _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(_mm512_set1_ps(t.r2.x), ox),
                                                _mm512_mul_ps(_mm512_set1_ps(t.r2.y), oy)),
                                  _mm512_mul_ps(_mm512_set1_ps(t.r2.z), oz));
                ax = _mm512_add_ps(ax, _mm512_mul_ps(tx, w));
                ay = _mm512_add_ps(ay, _mm512_mul_ps(ty, w));
                az = _mm512_add_ps(az, _mm512_mul_ps(tz, w));
            } else {
                ax = _mm512_add_ps(ax, _mm512_mul_ps(ox, w));
                ay = _mm512_add_ps(ay, _mm512_mul_ps(oy, w));
                az = _mm512_add_ps(az, _mm512_mul_ps(oz, w));
            }
        }
        _mm512_storeu_ps(x + j, _mm512_add_ps(ax, _mm512_set1_ps(root.x)));
        _mm512_storeu_ps(y + j, _mm512_add_ps(ay, _mm512_set1_ps(root.y)));
        _mm512_storeu_ps(z + j, _mm512_add_ps(az, _mm512_set1_ps(root.z)));
    }
    if (j < lanes) blendEight(terms, stride, j, root, x, y, z);
}

// segmentLengths eight samples at a time.
__attribute__((target("avx"))) void segmentLengthsWide(const ShapeScratch& c, std::size_t lanes,
                                                       float* segment) {
    // Each group's samples before: its own shifted up by one, the first taking the last of the
    // group before, made by two shuffles within halves after swapping halves.
    __m256 bx = _mm256_setzero_ps(), by = _mm256_setzero_ps(), bz = _mm256_setzero_ps();
    for (std::size_t j = 0; j < lanes; j += kWideLanes) {
        const __m256 nx = _mm256_load_ps(c.x + j), ny = _mm256_load_ps(c.y + j),
                     nz = _mm256_load_ps(c.z + j);
        const __m256 hx = _mm256_permute2f128_ps(bx, nx, 0x21);
        const __m256 hy = _mm256_permute2f128_ps(by, ny, 0x21);
        const __m256 hz = _mm256_permute2f128_ps(bz, nz, 0x21);
        const __m256 px = _mm256_shuffle_ps(_mm256_shuffle_ps(hx, nx, _MM_SHUFFLE(0, 0, 3, 3)), nx,
                                            _MM_SHUFFLE(2, 1, 2, 0));
        const __m256 py = _mm256_shuffle_ps(_mm256_shuffle_ps(hy, ny, _MM_SHUFFLE(0, 0, 3, 3)), ny,
                                            _MM_SHUFFLE(2, 1, 2, 0));
        const __m256 pz = _mm256_shuffle_ps(_mm256_shuffle_ps(hz, nz, _MM_SHUFFLE(0, 0, 3, 3)), nz,
                                            _MM_SHUFFLE(2, 1, 2, 0));
        const __m256 dx = _mm256_sub_ps(nx, px);
        const __m256 dy = _mm256_sub_ps(ny, py);
        const __m256 dz = _mm256_sub_ps(nz, pz);
        const __m256 d2 = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                                        _mm256_mul_ps(dz, dz));
        _mm256_store_ps(segment + j, _mm256_sqrt_ps(d2));
        bx = nx;
        by = ny;
        bz = nz;
    }
}

bool wideLanesUsable() {
    return avxLanesUsable();
}
bool widestBlendUsable() {
    static const bool usable = __builtin_cpu_supports("avx512f");
    return usable;
}
#else
bool wideLanesUsable() {
    return false;
}
bool widestBlendUsable() {
    return false;
}
#endif

// The running arc lengths of the segments, summed in order as polylineLength does.
void runningArc(const float* segment, std::size_t count, float* arc) {
    arc[0] = 0.0f;
    for (std::size_t j = 1; j < count; ++j)
        arc[j] = arc[j - 1] + segment[j];
}

// placeAlong for a planar curve of `count` samples.
void placeAlong(const ShapeScratch& c, std::size_t count, float total, std::span<Vec3f> out) {
    const std::size_t n = out.size();
    const std::size_t last = count - 1;
    std::size_t past = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const float at = n > 1 ? total * static_cast<float>(i) / static_cast<float>(n - 1) : 0.0f;
        while (past < count && c.arc[past] <= at)
            ++past;
        const std::size_t hi = std::clamp<std::size_t>(past, 1, last);
        const std::size_t lo = hi - 1;
        const float span = c.arc[hi] - c.arc[lo];
        const float f = span > 0.0f ? (at - c.arc[lo]) / span : 0.0f;
        out[i] = Vec3f{c.x[lo] + (c.x[hi] - c.x[lo]) * f, c.y[lo] + (c.y[hi] - c.y[lo]) * f,
                       c.z[lo] + (c.z[hi] - c.z[lo]) * f};
    }
}

// Calls body(chunk, k, strand) for every strand of the binding, or of `only`, in parallel by 256.
template <class Body>
void forStrands(const Binding& binding, std::span<const std::uint64_t> only, const Body& body) {
    if (only.empty()) {
        parallelRange(0, binding.chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                const BindingChunk& chunk = *binding.chunks[c];
                for (std::size_t k = 0; k < chunk.strandCount(); ++k)
                    body(chunk, k, chunk.firstStrand + k);
            }
        });
        return;
    }
    parallelRange(0, only.size(), kBindingChunkStrands, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = only[i];
            const BindingChunk& chunk = *binding.chunks[s / kBindingChunkStrands];
            body(chunk, s - chunk.firstStrand, s);
        }
    });
}

}  // namespace

bool isUsableGuide(const Guide& guide) {
    if (guide.points.size() < 2) return false;
    for (const Vec3f& p : guide.points)
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) return false;
    return true;
}

InterpolateGuideRows makeGuideRows(std::span<const Guide* const> guides, const ScalpMesh* scalp) {
    InterpolateGuideRows rows;
    std::size_t samples = 2;
    for (const Guide* guide : guides)
        samples = std::max(samples, guide->points.size());
    samples = std::min(samples, kMaxSamples);
    rows.sampleCount = samples;
    const std::size_t count = guides.size();
    rows.offsets.assign(count * samples, Vec3f{});
    rows.lengths.assign(count, 0.0f);
    rows.normals.assign(count, Vec3f{});
    rows.turns.assign(count, 0);
    rows.hashes.assign(count, 0);
    std::set<std::string> names;
    for (const Guide* guide : guides) {
        for (const auto& entry : guide->attributes)
            names.insert(entry.first);
        for (const auto& entry : guide->pointAttributes)
            if (!entry.second.empty()) names.insert(entry.first);
    }
    rows.layerNames.assign(names.begin(), names.end());
    rows.layers.assign(rows.layerNames.size(), std::vector<float>(count, 0.0f));
    parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            const Guide& guide = *guides[g];
            const std::span<Vec3f> out(rows.offsets.data() + g * samples, samples);
            if (guide.points.size() == samples) {
                for (std::size_t j = 0; j < samples; ++j)
                    out[j] = guide.points[j] - guide.points[0];
            } else {
                resampleOffsets(guide.points, out);
            }
            rows.lengths[g] = polylineLength(guide.points);
            if (scalp && scalp->isOnSurface(guide.root)) {
                rows.normals[g] = scalp->normalAt(guide.root);
                rows.turns[g] = 1;
            }
            std::uint64_t h = hashCombine(0x726f7773ull, guide.id);
            h = hashCombine(h, guide.points.size());
            for (const Vec3f& p : guide.points)
                for (const float f : {p.x, p.y, p.z})
                    h = hashCombine(h, floatBits(f));
            h = hashCombine(
                h, static_cast<std::uint64_t>(static_cast<std::uint32_t>(guide.root.face)));
            h = hashCombine(h, floatBits(guide.root.u));
            h = hashCombine(h, floatBits(guide.root.v));
            for (std::size_t l = 0; l < rows.layerNames.size(); ++l) {
                const std::string& name = rows.layerNames[l];
                float value = 0.0f;
                if (const auto found = guide.attributes.find(name); found != guide.attributes.end())
                    value = found->second;
                else if (const auto layer = guide.pointAttributes.find(name);
                         layer != guide.pointAttributes.end() && !layer->second.empty())
                    value = layer->second.front();
                rows.layers[l][g] = value;
                h = hashCombine(h, floatBits(value));
            }
            rows.hashes[g] = h;
        }
    });
    rows.planarStride = planarStrideOf(samples);
    layOutPlanar(rows.offsets, samples, rows.planarStride, rows.planar);
    return rows;
}

void shapeStrands(const InterpolateState& state, const InterpolateGuideRows& rows,
                  const ShapeSettings& settings, const StrandSet& in, std::span<Vec3f> outPoints,
                  std::span<float> influence, std::span<const std::uint64_t> only,
                  ShapeLanes lanesWanted) {
    const std::size_t samples = rows.sampleCount;
    const std::span<const Vec3f> points = in.points();
    const std::span<const std::uint64_t> offsets = in.offsets();
    const bool hasNormals = !state.strandNormals.empty();
    const float limit = settings.limitDistance;
    const bool writesAll = only.empty();
    // The roots the binding was made from are the strands' first points: read from its list, in
    // order, rather than a cache line of the points apart each.
    const bool boundRoots = state.strandRoots.size() == in.strandCount();
    const auto rootOf = [&](std::size_t s) {
        return boundRoots ? state.strandRoots[s] : points[offsets[s]];
    };
    // Every sample loop covers whole groups of eight; the padding reads zeros or what the
    // strand before left there, and nothing past `samples` is ever used.
    const std::size_t lanes = planarStrideOf(samples);
    // The guides' rows as planar runs, laid out here where the rows were made by hand.
    std::vector<float> laidOut;
    std::size_t stride = rows.planarStride;
    const float* planar = rows.planar.data();
    if (samples >= 2 && (stride < lanes || rows.planar.size() < rows.guideCount() * 3 * stride)) {
        stride = lanes;
        layOutPlanar(rows.offsets, samples, stride, laidOut);
        planar = laidOut.data();
    }
    // The blend's width follows the lanes asked for, so that tests can set each against the
    // four-sample blend of the one-by-one path: sixteen samples (with eight for the rest of a row)
    // where the processor has AVX-512, eight with AVX, else four.
    const bool wide = wideLanesUsable();
    const bool widestBlend = lanesWanted == ShapeLanes::widest && widestBlendUsable();
    const bool wideBlend =
        wide && (lanesWanted == ShapeLanes::widest || lanesWanted == ShapeLanes::eight);
    const auto blend = [&](std::span<const BlendTerm> terms, const Vec3f& root, float* x, float* y,
                           float* z) {
#if VELMORIN_INTERPOLATE_AVX
        if (widestBlend) return blendRowsWidest(terms, stride, lanes, root, x, y, z);
        if (wideBlend) return blendRowsWide(terms, stride, lanes, root, x, y, z);
#endif
        blendRows(terms, stride, lanes, root, x, y, z);
    };
    (void)widestBlend;
    (void)wideBlend;
    const auto measure = [&](ShapeScratch& c) {
#if VELMORIN_INTERPOLATE_AVX
        if (wide) return segmentLengthsWide(c, lanes, c.segment);
#endif
        segmentLengths(c, lanes, c.segment);
    };
    (void)wide;
    const auto influenceOf = [&](const BindingChunk& chunk, std::size_t k) {
        if (!(limit > 0.0f)) return 1.0f;
        const float t = std::sqrt(chunk.nearest2[k]) / limit;
        return t >= 1.0f || !(t == t) ? 0.0f
                                      : std::clamp(settings.falloff.at(t), 0.0f, 1.0f) *
                                            std::min((1.0f - t) * 20.0f, 1.0f);
    };
    // 3-4 begin here: each record's weight, guide row and turn are read once, in the same pass
    // that sums the guides' blended length, which it returns (take length needs the length
    // alone).
    const auto setUpTerms = [&](const BindingChunk& chunk, std::size_t k, std::size_t s,
                                std::vector<BlendTerm>& terms) {
        const std::uint32_t first = chunk.recordStart[k], end = chunk.recordStart[k + 1];
        const Vec3f normal = hasNormals ? state.strandNormals[s] : Vec3f{};
        const bool strandTurns = lengthSquared(normal) > 0.0f;
        if (terms.size() < end - first) terms.resize(end - first);
        float guideLength = 0.0f;
        for (std::uint32_t r = first; r < end; ++r) {
            const std::uint32_t g = chunk.guides[r];
            BlendTerm& term = terms[r - first];
            term.weight = (static_cast<float>(chunk.weights[r]) + 1.0f) / 65536.0f;
            guideLength += term.weight * rows.lengths[g];
            if (settings.takeLength) continue;  // its own shape: no blend, no turns
            term.row = planar + static_cast<std::size_t>(g) * 3 * stride;
            term.turns = strandTurns && rows.turns[g];
        }
        if (strandTurns && !settings.takeLength)
            turnTerms(std::span<BlendTerm>(terms.data(), end - first), chunk.guides.data() + first,
                      rows.normals, normal);
        return guideLength;
    };
    const auto body = [&](const BindingChunk& chunk, std::size_t k, std::size_t s,
                          ShapeScratch& c) {
        const std::size_t begin = offsets[s];
        const std::size_t n = offsets[s + 1] - begin;
        const std::uint32_t first = chunk.recordStart[k], end = chunk.recordStart[k + 1];
        const std::span<const Vec3f> incoming = points.subspan(begin, n);
        const std::span<Vec3f> out = outPoints.subspan(begin, n);
        const auto keep = [&] {
            if (writesAll) std::copy(incoming.begin(), incoming.end(), out.begin());
        };
        // 1. Influence.
        const float amount = influenceOf(chunk, k);
        if (!influence.empty()) influence[s] = first == end ? 0.0f : amount;
        // 2. Strands nothing shapes keep their points.
        if (first == end || amount <= 0.0f || n < 2 || samples < 2) return keep();

        const Vec3f root = rootOf(s);
        const float guideLength = setUpTerms(chunk, k, s, c.terms);
        const std::size_t termCount = end - first;

        if (settings.takeLength) {
            // The strand's own shape, drawn out or cut back along its arc to the guides' length.
            float arcLength = 0.0f;
            for (std::size_t i = 1; i < n; ++i)
                arcLength += length(incoming[i] - incoming[i - 1]);
            if (!(arcLength > 0.0f)) return keep();
            std::size_t segment = 1;
            float segmentStart = 0.0f;
            for (std::size_t i = 0; i < n; ++i) {
                const float at = guideLength * static_cast<float>(i) / static_cast<float>(n - 1);
                while (segment + 1 < n &&
                       segmentStart + length(incoming[segment] - incoming[segment - 1]) < at) {
                    segmentStart += length(incoming[segment] - incoming[segment - 1]);
                    ++segment;
                }
                const Vec3f a = incoming[segment - 1], b = incoming[segment];
                const float span = length(b - a);
                const float f = span > 0.0f ? (at - segmentStart) / span : 0.0f;
                const Vec3f p = a + (b - a) * f;
                out[i] = amount < 1.0f ? incoming[i] + (p - incoming[i]) * amount : p;
            }
            out[0] = root;
            return;
        }

        // 3-4. The guides' offsets turned into the strand's frame and blended. Sample 0 of
        // every row is zero, so the blend's sample 0 is the root.
        blend(std::span<const BlendTerm>(c.terms.data(), termCount), root, c.x, c.y, c.z);
        float* const x = c.x;
        float* const y = c.y;
        float* const z = c.z;

        measure(c);
        if (settings.blendDirections) {
            // 5. Each step along the blended way at the blended length, easing out only where
            // that way nearly vanishes. The walk is done in place: each step reads the blended
            // sample it replaces and the one before, kept from the step before.
            const float h = guideLength / static_cast<float>(samples - 1);
            Vec3f previous{x[0], y[0], z[0]};
            Vec3f walked = root;
            for (std::size_t j = 1; j < samples; ++j) {
                const Vec3f raw{x[j], y[j], z[j]};
                const Vec3f d = raw - previous;
                const float l = c.segment[j];
                if (l > 0.0f && h > 0.0f) {
                    const float e = std::min(l / (0.5f * h), 1.0f);
                    walked += d * (h * e * (2.0f - e) / l);
                }
                previous = raw;
                x[j] = walked.x;
                y[j] = walked.y;
                z[j] = walked.z;
            }
            x[0] = root.x;
            y[0] = root.y;
            z[0] = root.z;
            measure(c);
        } else if (settings.preserveLength) {
            // 6. Guides that point apart shorten their blend: scale it back about the root.
            float total = 0.0f;
            for (std::size_t j = 1; j < samples; ++j)
                total += c.segment[j];
            if (total > 1e-8f && guideLength > 0.0f) {
                const float scale = std::min(guideLength / total, 2.0f);
                // Sample 0 is the root (or +0 for a root of -0), which this leaves as it is.
                for (std::size_t j = 0; j < lanes; ++j) {
                    x[j] = root.x + (x[j] - root.x) * scale;
                    y[j] = root.y + (y[j] - root.y) * scale;
                    z[j] = root.z + (z[j] - root.z) * scale;
                }
                measure(c);
            }
        }

        // 7. The strand's points at equal arc steps along the blend.
        runningArc(c.segment, samples, c.arc);
        placeAlong(c, samples, c.arc[samples - 1], out);
        // 8. Mixed with the incoming strand where the guides reach only partly.
        if (amount < 1.0f)
            for (std::size_t i = 1; i < n; ++i)
                out[i] = incoming[i] + (out[i] - incoming[i]) * amount;
        out[0] = root;
    };
    // Strands that run side by side: shaped from a blend, with a binding and at least 2 points.
    // The rest (and any left over from a group) take the one-strand path.
    // How many strands run side by side: sixteen with AVX-512, eight with AVX, four with SSE, or
    // none.
#if VELMORIN_INTERPOLATE_SSE2
    const std::size_t width =
        lanesWanted == ShapeLanes::oneByOne || samples < 2 || settings.takeLength     ? 0
        : lanesWanted == ShapeLanes::widest && interpolate_lanes::widestLanesUsable() ? kWidestLanes
        : lanesWanted != ShapeLanes::four && wide                                     ? kWideLanes
                                                                                      : kFourLanes;
#else
    const std::size_t width = 0;
    (void)lanesWanted;
#endif
    // The strand's chunk of the binding and its index there.
    const auto bindingOf = [&](std::size_t s) -> std::pair<const BindingChunk&, std::size_t> {
        const BindingChunk& chunk = *state.binding.chunks[s / kBindingChunkStrands];
        return {chunk, s - chunk.firstStrand};
    };
    const auto oneByOne = [&](std::size_t s, ShapeScratch& c) {
        const auto [chunk, k] = bindingOf(s);
        body(chunk, k, s, c);
    };
#if VELMORIN_INTERPOLATE_SSE2
    const auto strandPoints = [&](std::size_t s) { return offsets[s + 1] - offsets[s]; };
    const auto runsSideBySide = [&](std::size_t s) {
        const auto [chunk, k] = bindingOf(s);
        return chunk.recordStart[k] != chunk.recordStart[k + 1] && strandPoints(s) >= 2 &&
               influenceOf(chunk, k) > 0.0f;
    };
    const auto runGroup = [&](const std::size_t* group, LaneScratch& g, ShapeScratch& c) {
        const std::size_t n = strandPoints(group[0]);
        Vec3f* outs[kGroupLanes];
        float amounts[kGroupLanes];
        for (std::size_t l = 0; l < width; ++l) {
            const std::size_t s = group[l];
            const auto [chunk, k] = bindingOf(s);
            const std::uint32_t first = chunk.recordStart[k], end = chunk.recordStart[k + 1];
            const Vec3f root = rootOf(s);
            g.rootX[l] = root.x;
            g.rootY[l] = root.y;
            g.rootZ[l] = root.z;
            g.guideLength[l] = setUpTerms(chunk, k, s, c.terms);
            blend(std::span<const BlendTerm>(c.terms.data(), end - first), root, g.x[l], g.y[l],
                  g.z[l]);
            outs[l] = outPoints.data() + offsets[s];
            amounts[l] = influenceOf(chunk, k);
        }
        if (!interpolate_lanes::shapeLanes(width, g, samples, n, settings.blendDirections,
                                           settings.preserveLength, outs)) {
            for (std::size_t l = 0; l < width; ++l)
                oneByOne(group[l], c);
            return;
        }
        for (std::size_t l = 0; l < width; ++l) {
            const std::size_t s = group[l];
            const Vec3f* incoming = points.data() + offsets[s];
            Vec3f* out = outs[l];
            // 8. Mixed with the incoming strand where the guides reach only partly.
            if (amounts[l] < 1.0f)
                for (std::size_t i = 1; i < n; ++i)
                    out[i] = incoming[i] + (out[i] - incoming[i]) * amounts[l];
            out[0] = Vec3f{g.rootX[l], g.rootY[l], g.rootZ[l]};
            if (!influence.empty()) influence[s] = amounts[l];
        }
    };
#endif
    // Runs a range of strands (`strandAt` gives each one's index): strands that can run side by
    // side wait in a group of their point count until it has one per lane; a strand whose point
    // count finds no group open, while all are taken, sends the oldest group one by one.
    const auto runRange = [&](auto&& strandAt, std::size_t begin, std::size_t end, ShapeScratch& c,
                              LaneScratch& lanesScratch) {
        (void)lanesScratch;
        if (width == 0) {
            for (std::size_t i = begin; i < end; ++i)
                oneByOne(strandAt(i), c);
            return;
        }
#if VELMORIN_INTERPOLATE_SSE2
        LaneGroups groups;
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = strandAt(i);
            if (!runsSideBySide(s)) {
                oneByOne(s, c);
                continue;
            }
            LaneGroup& group = groups.groupFor(strandPoints(s), [&](LaneGroup& oldest) {
                for (std::size_t l = 0; l < oldest.count; ++l)
                    oneByOne(oldest.strands[l], c);
            });
            group.strands[group.count++] = s;
            if (group.count == width) {
                runGroup(group.strands, lanesScratch, c);
                group.count = 0;
            }
        }
        for (const LaneGroup& group : groups.open())
            for (std::size_t l = 0; l < group.count; ++l)
                oneByOne(group.strands[l], c);
#endif
    };
    if (only.empty()) {
        parallelRange(0, state.binding.chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
            ShapeScratch c;
            LaneScratch lanesScratch;
            for (std::size_t ci = begin; ci < end; ++ci) {
                const BindingChunk& chunk = *state.binding.chunks[ci];
                runRange([&](std::size_t k) { return chunk.firstStrand + k; }, 0,
                         chunk.strandCount(), c, lanesScratch);
            }
        });
        return;
    }
    parallelRange(0, only.size(), kBindingChunkStrands, [&](std::size_t begin, std::size_t end) {
        ShapeScratch c;
        LaneScratch lanesScratch;
        runRange([&](std::size_t i) { return static_cast<std::size_t>(only[i]); }, begin, end, c,
                 lanesScratch);
    });
}

void writeGuideLayers(const InterpolateState& state, const InterpolateGuideRows& rows,
                      StrandSet& out, std::span<const std::uint64_t> only) {
    for (std::size_t l = 0; l < rows.layerNames.size(); ++l) {
        const std::vector<float>& values = rows.layers[l];
        std::vector<float>& channel = out.addStrandChannel(rows.layerNames[l], 0.0f);
        forStrands(
            state.binding, only, [&](const BindingChunk& chunk, std::size_t k, std::size_t s) {
                const std::uint32_t first = chunk.recordStart[k], end = chunk.recordStart[k + 1];
                if (first == end) return;
                float value = 0.0f;
                for (std::uint32_t r = first; r < end; ++r)
                    value += (static_cast<float>(chunk.weights[r]) + 1.0f) / 65536.0f *
                             values[chunk.guides[r]];
                channel[s] = value;
            });
    }
}

std::vector<std::uint64_t> strandsBoundTo(const Binding& binding,
                                          std::span<const std::uint8_t> changed) {
    std::vector<std::vector<std::uint64_t>> found(binding.chunks.size());
    parallelRange(0, binding.chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            const BindingChunk& chunk = *binding.chunks[c];
            if (chunk.strandCount() == 0) continue;
            // One run over the chunk's records, which lie in strand order: a loop per strand
            // would guess its few records' end wrong about once a strand. Only a hit looks up
            // its strand, and skips the rest of that strand's records.
            const std::uint32_t* guides = chunk.guides.data();
            const std::uint32_t records = chunk.recordStart[chunk.strandCount()];
            std::size_t k = 0;
            for (std::uint32_t r = chunk.recordStart[0]; r < records; ++r) {
                if (!changed[guides[r]]) continue;
                while (chunk.recordStart[k + 1] <= r)
                    ++k;
                found[c].push_back(chunk.firstStrand + k);
                r = chunk.recordStart[k + 1] - 1;
            }
        }
    });
    std::vector<std::uint64_t> strands;
    for (const auto& list : found)
        strands.insert(strands.end(), list.begin(), list.end());
    return strands;
}

}  // namespace velmorin
