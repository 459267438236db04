#include "ops/interpolate_shape.h"

#include <algorithm>
#include <cmath>
#include <set>
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

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

constexpr std::size_t kMaxSamples = 64;

// A 3 x 3 matrix by rows.
struct Turn {
    Vec3f r0{1, 0, 0}, r1{0, 1, 0}, r2{0, 0, 1};
    Vec3f apply(const Vec3f& o) const { return {dot(r0, o), dot(r1, o), dot(r2, o)}; }
};

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
constexpr std::size_t kWideLanes = 8;
constexpr std::size_t kPaddedSamples = kMaxSamples + 2 * kWideLanes;

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
// blendRows eight samples at a time.
__attribute__((target("avx"))) void blendRowsWide(std::span<const BlendTerm> terms,
                                                  std::size_t stride, std::size_t lanes,
                                                  const Vec3f& root, float* x, float* y, float* z) {
    for (std::size_t j = 0; j < lanes; j += kWideLanes) {
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
    static const bool usable = __builtin_cpu_supports("avx");
    return usable;
}
#else
bool wideLanesUsable() {
    return false;
}
#endif

// Strands side by side: strands of one point count, one per lane (eight with AVX, four with
// SSE), so that the steps each strand takes one after another (its arc lengths summed in order,
// its length restored, its points placed along the table) overlap across the group. Every lane
// does the operations of the one-strand path in the same order, so the bits are the same.
// Each strand's blend is still made alone, over its samples, then turned into lanes.
constexpr std::size_t kGroupLanes = kWideLanes;

// A group's curves: per strand its blended samples as planar runs, then the same turned into
// lanes, sample j of every strand side by side at j * kGroupLanes (j * 4 for four lanes).
struct LaneScratch {
    alignas(32) float x[kGroupLanes][kPaddedSamples];
    alignas(32) float y[kGroupLanes][kPaddedSamples];
    alignas(32) float z[kGroupLanes][kPaddedSamples];
    alignas(32) float lx[kPaddedSamples * kGroupLanes];
    alignas(32) float ly[kPaddedSamples * kGroupLanes];
    alignas(32) float lz[kPaddedSamples * kGroupLanes];
    alignas(32) float segment[kPaddedSamples * kGroupLanes];
    alignas(32) float arc[kPaddedSamples * kGroupLanes];
    alignas(32) float rootX[kGroupLanes], rootY[kGroupLanes], rootZ[kGroupLanes];
    alignas(32) float guideLength[kGroupLanes];
};

// Strands waiting for a group of their point count to fill. Mixed point counts are rare, so a
// few groups stay open at once; a count that finds none open when all are taken closes the one
// opened first, whose strands then run one by one.
struct LaneGroup {
    std::size_t points = 0;
    std::size_t count = 0;
    std::size_t strands[kGroupLanes];
};

class LaneGroups {
  public:
    template <class Close>
    LaneGroup& groupFor(std::size_t points, const Close& close) {
        for (std::size_t i = 0; i < used_; ++i)
            if (groups_[i].points == points) return groups_[i];
        LaneGroup* group = nullptr;
        if (used_ < kOpen) {
            group = &groups_[used_++];
        } else {
            group = &groups_[oldest_];
            close(*group);
            oldest_ = (oldest_ + 1) % kOpen;
        }
        group->points = points;
        group->count = 0;
        return *group;
    }
    std::span<const LaneGroup> open() const { return {groups_, used_}; }

  private:
    static constexpr std::size_t kOpen = 4;
    LaneGroup groups_[kOpen];
    std::size_t used_ = 0;
    std::size_t oldest_ = 0;
};

#if VELMORIN_INTERPOLATE_SSE2
// The same four strands at a time with SSE, where the processor lacks AVX (or a test asks):
// lanes four floats apart in the same scratch, and the same operations in the same order.
constexpr std::size_t kFourLanes = kLanes;

inline __m128 pickFour(__m128 a, __m128 b, __m128 mask) {
    return _mm_or_ps(_mm_and_ps(mask, b), _mm_andnot_ps(mask, a));
}

void laneSegmentsFour(LaneScratch& g, std::size_t samples) {
    __m128 px = _mm_load_ps(g.lx), py = _mm_load_ps(g.ly), pz = _mm_load_ps(g.lz);
    for (std::size_t j = 1; j < samples; ++j) {
        const __m128 nx = _mm_load_ps(g.lx + j * kFourLanes),
                     ny = _mm_load_ps(g.ly + j * kFourLanes),
                     nz = _mm_load_ps(g.lz + j * kFourLanes);
        const __m128 dx = _mm_sub_ps(nx, px), dy = _mm_sub_ps(ny, py), dz = _mm_sub_ps(nz, pz);
        const __m128 d2 =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        _mm_store_ps(g.segment + j * kFourLanes, _mm_sqrt_ps(d2));
        px = nx;
        py = ny;
        pz = nz;
    }
}

bool shapeLanesFour(LaneScratch& g, std::size_t samples, std::size_t points, bool directions,
                    bool preserveLength, Vec3f* const* out) {
    for (std::size_t j = 0; j < samples; j += kFourLanes) {
        float* const columns[3] = {g.lx + j * kFourLanes, g.ly + j * kFourLanes,
                                   g.lz + j * kFourLanes};
        float(*const rows[3])[kPaddedSamples] = {g.x, g.y, g.z};
        for (std::size_t axis = 0; axis < 3; ++axis) {
            __m128 r0 = _mm_load_ps(&rows[axis][0][j]), r1 = _mm_load_ps(&rows[axis][1][j]),
                   r2 = _mm_load_ps(&rows[axis][2][j]), r3 = _mm_load_ps(&rows[axis][3][j]);
            _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
            _mm_store_ps(columns[axis], r0);
            _mm_store_ps(columns[axis] + 4, r1);
            _mm_store_ps(columns[axis] + 8, r2);
            _mm_store_ps(columns[axis] + 12, r3);
        }
    }
    const __m128 rootX = _mm_load_ps(g.rootX), rootY = _mm_load_ps(g.rootY),
                 rootZ = _mm_load_ps(g.rootZ);
    const __m128 guideLength = _mm_load_ps(g.guideLength);
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    laneSegmentsFour(g, samples);
    if (directions) {
        const __m128 h = _mm_div_ps(guideLength, _mm_set1_ps(static_cast<float>(samples - 1)));
        const __m128 halfH = _mm_mul_ps(_mm_set1_ps(0.5f), h);
        const __m128 two = _mm_set1_ps(2.0f);
        const __m128 stepping = _mm_cmpgt_ps(h, zero);
        __m128 previousX = _mm_load_ps(g.lx), previousY = _mm_load_ps(g.ly),
               previousZ = _mm_load_ps(g.lz);
        __m128 walkedX = rootX, walkedY = rootY, walkedZ = rootZ;
        for (std::size_t j = 1; j < samples; ++j) {
            float* const x = g.lx + j * kFourLanes;
            float* const y = g.ly + j * kFourLanes;
            float* const z = g.lz + j * kFourLanes;
            const __m128 rawX = _mm_load_ps(x), rawY = _mm_load_ps(y), rawZ = _mm_load_ps(z);
            const __m128 l = _mm_load_ps(g.segment + j * kFourLanes);
            const __m128 moves = _mm_and_ps(_mm_cmpgt_ps(l, zero), stepping);
            const __m128 e = _mm_min_ps(one, _mm_div_ps(l, halfH));
            const __m128 step = _mm_div_ps(_mm_mul_ps(_mm_mul_ps(h, e), _mm_sub_ps(two, e)), l);
            walkedX = pickFour(
                walkedX, _mm_add_ps(walkedX, _mm_mul_ps(_mm_sub_ps(rawX, previousX), step)), moves);
            walkedY = pickFour(
                walkedY, _mm_add_ps(walkedY, _mm_mul_ps(_mm_sub_ps(rawY, previousY), step)), moves);
            walkedZ = pickFour(
                walkedZ, _mm_add_ps(walkedZ, _mm_mul_ps(_mm_sub_ps(rawZ, previousZ), step)), moves);
            previousX = rawX;
            previousY = rawY;
            previousZ = rawZ;
            _mm_store_ps(x, walkedX);
            _mm_store_ps(y, walkedY);
            _mm_store_ps(z, walkedZ);
        }
        _mm_store_ps(g.lx, rootX);
        _mm_store_ps(g.ly, rootY);
        _mm_store_ps(g.lz, rootZ);
        laneSegmentsFour(g, samples);
    } else if (preserveLength) {
        __m128 total = zero;
        for (std::size_t j = 1; j < samples; ++j)
            total = _mm_add_ps(total, _mm_load_ps(g.segment + j * kFourLanes));
        const __m128 scales =
            _mm_and_ps(_mm_cmpgt_ps(total, _mm_set1_ps(1e-8f)), _mm_cmpgt_ps(guideLength, zero));
        if (_mm_movemask_ps(scales) != 0) {
            const __m128 scale = _mm_min_ps(_mm_set1_ps(2.0f), _mm_div_ps(guideLength, total));
            for (std::size_t j = 0; j < samples; ++j) {
                float* const x = g.lx + j * kFourLanes;
                float* const y = g.ly + j * kFourLanes;
                float* const z = g.lz + j * kFourLanes;
                const __m128 sx = _mm_load_ps(x), sy = _mm_load_ps(y), sz = _mm_load_ps(z);
                _mm_store_ps(
                    x, pickFour(sx, _mm_add_ps(rootX, _mm_mul_ps(_mm_sub_ps(sx, rootX), scale)),
                                scales));
                _mm_store_ps(
                    y, pickFour(sy, _mm_add_ps(rootY, _mm_mul_ps(_mm_sub_ps(sy, rootY), scale)),
                                scales));
                _mm_store_ps(
                    z, pickFour(sz, _mm_add_ps(rootZ, _mm_mul_ps(_mm_sub_ps(sz, rootZ), scale)),
                                scales));
            }
            laneSegmentsFour(g, samples);
        }
    }
    __m128 total = zero;
    _mm_store_ps(g.arc, zero);
    for (std::size_t j = 1; j < samples; ++j) {
        total = _mm_add_ps(total, _mm_load_ps(g.segment + j * kFourLanes));
        _mm_store_ps(g.arc + j * kFourLanes, total);
    }
    if (_mm_movemask_ps(_mm_cmpeq_ps(_mm_sub_ps(total, total), zero)) != 0xF) return false;
    const __m128 count = _mm_set1_ps(static_cast<float>(points - 1));
    std::size_t passed = 0;
    for (std::size_t i = 1; i < points; ++i) {
        const __m128 at = _mm_div_ps(_mm_mul_ps(total, _mm_set1_ps(static_cast<float>(i))), count);
        std::size_t j = passed;
        __m128 arcLo = _mm_load_ps(g.arc + j * kFourLanes);
        __m128 arcHi = _mm_load_ps(g.arc + (j + 1) * kFourLanes);
        __m128 xLo = _mm_load_ps(g.lx + j * kFourLanes);
        __m128 xHi = _mm_load_ps(g.lx + (j + 1) * kFourLanes);
        __m128 yLo = _mm_load_ps(g.ly + j * kFourLanes);
        __m128 yHi = _mm_load_ps(g.ly + (j + 1) * kFourLanes);
        __m128 zLo = _mm_load_ps(g.lz + j * kFourLanes);
        __m128 zHi = _mm_load_ps(g.lz + (j + 1) * kFourLanes);
        for (++j; j + 1 < samples; ++j) {
            const __m128 past = _mm_cmple_ps(_mm_load_ps(g.arc + j * kFourLanes), at);
            const int lanes = _mm_movemask_ps(past);
            if (lanes == 0) break;
            if (lanes == 0xF) passed = j;
            const std::size_t lo = j * kFourLanes, hi = (j + 1) * kFourLanes;
            arcLo = pickFour(arcLo, _mm_load_ps(g.arc + lo), past);
            arcHi = pickFour(arcHi, _mm_load_ps(g.arc + hi), past);
            xLo = pickFour(xLo, _mm_load_ps(g.lx + lo), past);
            xHi = pickFour(xHi, _mm_load_ps(g.lx + hi), past);
            yLo = pickFour(yLo, _mm_load_ps(g.ly + lo), past);
            yHi = pickFour(yHi, _mm_load_ps(g.ly + hi), past);
            zLo = pickFour(zLo, _mm_load_ps(g.lz + lo), past);
            zHi = pickFour(zHi, _mm_load_ps(g.lz + hi), past);
        }
        const __m128 span = _mm_sub_ps(arcHi, arcLo);
        const __m128 f =
            _mm_and_ps(_mm_cmpgt_ps(span, zero), _mm_div_ps(_mm_sub_ps(at, arcLo), span));
        __m128 p0 = _mm_add_ps(xLo, _mm_mul_ps(_mm_sub_ps(xHi, xLo), f));
        __m128 p1 = _mm_add_ps(yLo, _mm_mul_ps(_mm_sub_ps(yHi, yLo), f));
        __m128 p2 = _mm_add_ps(zLo, _mm_mul_ps(_mm_sub_ps(zHi, zLo), f));
        __m128 p3 = zero;
        _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
        const __m128 p[4] = {p0, p1, p2, p3};
        for (std::size_t l = 0; l < kFourLanes; ++l) {
            if (i + 1 < points) {
                _mm_storeu_ps(&out[l][i].x, p[l]);
            } else {
                _mm_storel_pi(reinterpret_cast<__m64*>(&out[l][i].x), p[l]);
                _mm_store_ss(&out[l][i].z, _mm_movehl_ps(p[l], p[l]));
            }
        }
    }
    return true;
}
#endif

#if VELMORIN_INTERPOLATE_AVX
// b in the lanes where `mask` is set, else a. Bitwise, where GCC 12 takes a blend of a mask it
// can see for a test per lane and rebuilds the mask lane by lane.
__attribute__((target("avx"), always_inline)) inline __m256 pick(__m256 a, __m256 b, __m256 mask) {
    return _mm256_or_ps(_mm256_and_ps(mask, b), _mm256_andnot_ps(mask, a));
}

// Turns eight rows of eight floats (row l at rows + l * rowStride) into eight columns: column j
// holds element j of every row, stored at columns + j * kGroupLanes.
__attribute__((target("avx"))) void transposeEight(const float* rows, std::size_t rowStride,
                                                   float* columns) {
    const __m256 r0 = _mm256_load_ps(rows), r1 = _mm256_load_ps(rows + rowStride),
                 r2 = _mm256_load_ps(rows + 2 * rowStride),
                 r3 = _mm256_load_ps(rows + 3 * rowStride),
                 r4 = _mm256_load_ps(rows + 4 * rowStride),
                 r5 = _mm256_load_ps(rows + 5 * rowStride),
                 r6 = _mm256_load_ps(rows + 6 * rowStride),
                 r7 = _mm256_load_ps(rows + 7 * rowStride);
    const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
    const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
    const __m256 t4 = _mm256_unpacklo_ps(r4, r5), t5 = _mm256_unpackhi_ps(r4, r5);
    const __m256 t6 = _mm256_unpacklo_ps(r6, r7), t7 = _mm256_unpackhi_ps(r6, r7);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    _mm256_store_ps(columns, _mm256_permute2f128_ps(u0, u4, 0x20));
    _mm256_store_ps(columns + 8, _mm256_permute2f128_ps(u1, u5, 0x20));
    _mm256_store_ps(columns + 16, _mm256_permute2f128_ps(u2, u6, 0x20));
    _mm256_store_ps(columns + 24, _mm256_permute2f128_ps(u3, u7, 0x20));
    _mm256_store_ps(columns + 32, _mm256_permute2f128_ps(u0, u4, 0x31));
    _mm256_store_ps(columns + 40, _mm256_permute2f128_ps(u1, u5, 0x31));
    _mm256_store_ps(columns + 48, _mm256_permute2f128_ps(u2, u6, 0x31));
    _mm256_store_ps(columns + 56, _mm256_permute2f128_ps(u3, u7, 0x31));
}

// segment[j] = the length of every lane's step from sample j - 1 to j, for j in 1 .. samples - 1,
// as segmentLengths gives it.
__attribute__((target("avx"))) void laneSegmentsWide(LaneScratch& g, std::size_t samples) {
    __m256 px = _mm256_load_ps(g.lx), py = _mm256_load_ps(g.ly), pz = _mm256_load_ps(g.lz);
    for (std::size_t j = 1; j < samples; ++j) {
        const __m256 nx = _mm256_load_ps(g.lx + j * kGroupLanes),
                     ny = _mm256_load_ps(g.ly + j * kGroupLanes),
                     nz = _mm256_load_ps(g.lz + j * kGroupLanes);
        const __m256 dx = _mm256_sub_ps(nx, px), dy = _mm256_sub_ps(ny, py),
                     dz = _mm256_sub_ps(nz, pz);
        const __m256 d2 = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                                        _mm256_mul_ps(dz, dz));
        _mm256_store_ps(g.segment + j * kGroupLanes, _mm256_sqrt_ps(d2));
        px = nx;
        py = ny;
        pz = nz;
    }
}

// One point of every lane for each of 8 strands (x, y and z of lanes 0 to 7) stored at `at`
// within each strand: 16 bytes, the last 4 falling on the next point, unless `last`.
__attribute__((target("avx"))) void storeLanePoints(__m256 px, __m256 py, __m256 pz,
                                                    Vec3f* const* out, std::size_t at, bool last) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 xyLow = _mm256_unpacklo_ps(px, py), xyHigh = _mm256_unpackhi_ps(px, py);
    const __m256 zLow = _mm256_unpacklo_ps(pz, zero), zHigh = _mm256_unpackhi_ps(pz, zero);
    // Lanes 0, 4 / 1, 5 / 2, 6 / 3, 7 as (x, y, z, 0) in each half.
    const __m256 p04 = _mm256_shuffle_ps(xyLow, zLow, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 p15 = _mm256_shuffle_ps(xyLow, zLow, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 p26 = _mm256_shuffle_ps(xyHigh, zHigh, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 p37 = _mm256_shuffle_ps(xyHigh, zHigh, _MM_SHUFFLE(3, 2, 3, 2));
    const __m128 p[8] = {_mm256_castps256_ps128(p04),   _mm256_castps256_ps128(p15),
                         _mm256_castps256_ps128(p26),   _mm256_castps256_ps128(p37),
                         _mm256_extractf128_ps(p04, 1), _mm256_extractf128_ps(p15, 1),
                         _mm256_extractf128_ps(p26, 1), _mm256_extractf128_ps(p37, 1)};
    if (!last) {
        for (std::size_t l = 0; l < kGroupLanes; ++l)
            _mm_storeu_ps(&out[l][at].x, p[l]);
        return;
    }
    for (std::size_t l = 0; l < kGroupLanes; ++l) {
        _mm_storel_pi(reinterpret_cast<__m64*>(&out[l][at].x), p[l]);
        _mm_store_ss(&out[l][at].z, _mm_movehl_ps(p[l], p[l]));
    }
}

// Steps 5 to 7 of the shape of eight strands of `points` points, whose blended curves are in
// g.x, g.y, g.z (`samples` samples each): points 1 onward are written to out[l] (point 0 is the
// root, for the caller). Returns false, having written nothing, where a lane's curve has a length
// that is not a number or infinite: the one-strand path's walk along the table then decides.
__attribute__((target("avx"))) bool shapeLanesWide(LaneScratch& g, std::size_t samples,
                                                   std::size_t points, bool directions,
                                                   bool preserveLength, Vec3f* const* out) {
    const std::size_t blocks = (samples + kGroupLanes - 1) / kGroupLanes;
    for (std::size_t b = 0; b < blocks; ++b) {
        const std::size_t j = b * kGroupLanes;
        transposeEight(&g.x[0][j], kPaddedSamples, g.lx + j * kGroupLanes);
        transposeEight(&g.y[0][j], kPaddedSamples, g.ly + j * kGroupLanes);
        transposeEight(&g.z[0][j], kPaddedSamples, g.lz + j * kGroupLanes);
    }
    const __m256 rootX = _mm256_load_ps(g.rootX), rootY = _mm256_load_ps(g.rootY),
                 rootZ = _mm256_load_ps(g.rootZ);
    const __m256 guideLength = _mm256_load_ps(g.guideLength);
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    laneSegmentsWide(g, samples);
    if (directions) {
        // 5., lane by lane as the one-strand walk.
        const __m256 h =
            _mm256_div_ps(guideLength, _mm256_set1_ps(static_cast<float>(samples - 1)));
        const __m256 halfH = _mm256_mul_ps(_mm256_set1_ps(0.5f), h);
        const __m256 two = _mm256_set1_ps(2.0f);
        const __m256 stepping = _mm256_cmp_ps(h, zero, _CMP_GT_OQ);
        __m256 previousX = _mm256_load_ps(g.lx), previousY = _mm256_load_ps(g.ly),
               previousZ = _mm256_load_ps(g.lz);
        __m256 walkedX = rootX, walkedY = rootY, walkedZ = rootZ;
        for (std::size_t j = 1; j < samples; ++j) {
            float* const x = g.lx + j * kGroupLanes;
            float* const y = g.ly + j * kGroupLanes;
            float* const z = g.lz + j * kGroupLanes;
            const __m256 rawX = _mm256_load_ps(x), rawY = _mm256_load_ps(y),
                         rawZ = _mm256_load_ps(z);
            const __m256 l = _mm256_load_ps(g.segment + j * kGroupLanes);
            const __m256 moves = _mm256_and_ps(_mm256_cmp_ps(l, zero, _CMP_GT_OQ), stepping);
            // std::min(l / (0.5 h), 1): 1 where 1 < it, else it.
            const __m256 e = _mm256_min_ps(one, _mm256_div_ps(l, halfH));
            const __m256 step =
                _mm256_div_ps(_mm256_mul_ps(_mm256_mul_ps(h, e), _mm256_sub_ps(two, e)), l);
            walkedX = pick(
                walkedX,
                _mm256_add_ps(walkedX, _mm256_mul_ps(_mm256_sub_ps(rawX, previousX), step)), moves);
            walkedY = pick(
                walkedY,
                _mm256_add_ps(walkedY, _mm256_mul_ps(_mm256_sub_ps(rawY, previousY), step)), moves);
            walkedZ = pick(
                walkedZ,
                _mm256_add_ps(walkedZ, _mm256_mul_ps(_mm256_sub_ps(rawZ, previousZ), step)), moves);
            previousX = rawX;
            previousY = rawY;
            previousZ = rawZ;
            _mm256_store_ps(x, walkedX);
            _mm256_store_ps(y, walkedY);
            _mm256_store_ps(z, walkedZ);
        }
        _mm256_store_ps(g.lx, rootX);
        _mm256_store_ps(g.ly, rootY);
        _mm256_store_ps(g.lz, rootZ);
        laneSegmentsWide(g, samples);
    } else if (preserveLength) {
        // 6., the curve's length summed in order, then scaled about the root where it may be.
        __m256 total = zero;
        for (std::size_t j = 1; j < samples; ++j)
            total = _mm256_add_ps(total, _mm256_load_ps(g.segment + j * kGroupLanes));
        const __m256 scales = _mm256_and_ps(_mm256_cmp_ps(total, _mm256_set1_ps(1e-8f), _CMP_GT_OQ),
                                            _mm256_cmp_ps(guideLength, zero, _CMP_GT_OQ));
        if (_mm256_movemask_ps(scales) != 0) {
            // std::min(G / T, 2): 2 where 2 < it, else it.
            const __m256 scale =
                _mm256_min_ps(_mm256_set1_ps(2.0f), _mm256_div_ps(guideLength, total));
            for (std::size_t j = 0; j < samples; ++j) {
                float* const x = g.lx + j * kGroupLanes;
                float* const y = g.ly + j * kGroupLanes;
                float* const z = g.lz + j * kGroupLanes;
                const __m256 sx = _mm256_load_ps(x), sy = _mm256_load_ps(y), sz = _mm256_load_ps(z);
                _mm256_store_ps(
                    x,
                    pick(sx, _mm256_add_ps(rootX, _mm256_mul_ps(_mm256_sub_ps(sx, rootX), scale)),
                         scales));
                _mm256_store_ps(
                    y,
                    pick(sy, _mm256_add_ps(rootY, _mm256_mul_ps(_mm256_sub_ps(sy, rootY), scale)),
                         scales));
                _mm256_store_ps(
                    z,
                    pick(sz, _mm256_add_ps(rootZ, _mm256_mul_ps(_mm256_sub_ps(sz, rootZ), scale)),
                         scales));
            }
            laneSegmentsWide(g, samples);
        }
    }

    // 7. The running arc lengths, summed in order.
    __m256 total = zero;
    _mm256_store_ps(g.arc, zero);
    for (std::size_t j = 1; j < samples; ++j) {
        total = _mm256_add_ps(total, _mm256_load_ps(g.segment + j * kGroupLanes));
        _mm256_store_ps(g.arc + j * kGroupLanes, total);
    }
    // A table of numbers only grows, so the walk's segment for a point is the last sample at or
    // before it, which the scan below finds; with infinities or NaN in it, the walk decides.
    if (_mm256_movemask_ps(_mm256_cmp_ps(_mm256_sub_ps(total, total), zero, _CMP_EQ_OQ)) != 0xFF)
        return false;
    // The points' arc positions only grow too: each scan starts at the last sample that every
    // lane had passed for the point before, and stops where no lane passes the next one.
    const __m256 count = _mm256_set1_ps(static_cast<float>(points - 1));
    std::size_t passed = 0;
    for (std::size_t i = 1; i < points; ++i) {
        const __m256 at =
            _mm256_div_ps(_mm256_mul_ps(total, _mm256_set1_ps(static_cast<float>(i))), count);
        std::size_t j = passed;
        __m256 arcLo = _mm256_load_ps(g.arc + j * kGroupLanes);
        __m256 arcHi = _mm256_load_ps(g.arc + (j + 1) * kGroupLanes);
        __m256 xLo = _mm256_load_ps(g.lx + j * kGroupLanes);
        __m256 xHi = _mm256_load_ps(g.lx + (j + 1) * kGroupLanes);
        __m256 yLo = _mm256_load_ps(g.ly + j * kGroupLanes);
        __m256 yHi = _mm256_load_ps(g.ly + (j + 1) * kGroupLanes);
        __m256 zLo = _mm256_load_ps(g.lz + j * kGroupLanes);
        __m256 zHi = _mm256_load_ps(g.lz + (j + 1) * kGroupLanes);
        for (++j; j + 1 < samples; ++j) {
            const __m256 passes =
                _mm256_cmp_ps(_mm256_load_ps(g.arc + j * kGroupLanes), at, _CMP_LE_OQ);
            const __m256 past = passes;
            const int lanes = _mm256_movemask_ps(past);
            if (lanes == 0) break;
            if (lanes == 0xFF) passed = j;
            const std::size_t lo = j * kGroupLanes, hi = (j + 1) * kGroupLanes;
            arcLo = pick(arcLo, _mm256_load_ps(g.arc + lo), past);
            arcHi = pick(arcHi, _mm256_load_ps(g.arc + hi), past);
            xLo = pick(xLo, _mm256_load_ps(g.lx + lo), past);
            xHi = pick(xHi, _mm256_load_ps(g.lx + hi), past);
            yLo = pick(yLo, _mm256_load_ps(g.ly + lo), past);
            yHi = pick(yHi, _mm256_load_ps(g.ly + hi), past);
            zLo = pick(zLo, _mm256_load_ps(g.lz + lo), past);
            zHi = pick(zHi, _mm256_load_ps(g.lz + hi), past);
        }
        const __m256 span = _mm256_sub_ps(arcHi, arcLo);
        const __m256 f = _mm256_and_ps(_mm256_cmp_ps(span, zero, _CMP_GT_OQ),
                                       _mm256_div_ps(_mm256_sub_ps(at, arcLo), span));
        storeLanePoints(_mm256_add_ps(xLo, _mm256_mul_ps(_mm256_sub_ps(xHi, xLo), f)),
                        _mm256_add_ps(yLo, _mm256_mul_ps(_mm256_sub_ps(yHi, yLo), f)),
                        _mm256_add_ps(zLo, _mm256_mul_ps(_mm256_sub_ps(zHi, zLo), f)), out, i,
                        i + 1 == points);
    }
    return true;
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
    const bool wide = wideLanesUsable();
    const auto blend = [&](std::span<const BlendTerm> terms, const Vec3f& root, float* x, float* y,
                           float* z) {
#if VELMORIN_INTERPOLATE_AVX
        if (wide) return blendRowsWide(terms, stride, lanes, root, x, y, z);
#endif
        blendRows(terms, stride, lanes, root, x, y, z);
    };
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
            if (term.turns) term.turn = turnBetween(rows.normals[g], normal);
        }
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

        const Vec3f root = incoming[0];
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
    // How many strands run side by side: eight with AVX, four with SSE, or none.
#if VELMORIN_INTERPOLATE_SSE2
    const std::size_t width =
        lanesWanted == ShapeLanes::oneByOne || samples < 2 || settings.takeLength ? 0
        : lanesWanted == ShapeLanes::widest && wide                               ? kGroupLanes
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
            const Vec3f root = points[offsets[s]];
            g.rootX[l] = root.x;
            g.rootY[l] = root.y;
            g.rootZ[l] = root.z;
            g.guideLength[l] = setUpTerms(chunk, k, s, c.terms);
            blend(std::span<const BlendTerm>(c.terms.data(), end - first), root, g.x[l], g.y[l],
                  g.z[l]);
            outs[l] = outPoints.data() + offsets[s];
            amounts[l] = influenceOf(chunk, k);
        }
        const auto shape = [&] {
#if VELMORIN_INTERPOLATE_AVX
            if (width == kGroupLanes)
                return shapeLanesWide(g, samples, n, settings.blendDirections,
                                      settings.preserveLength, outs);
#endif
            return shapeLanesFour(g, samples, n, settings.blendDirections, settings.preserveLength,
                                  outs);
        };
        if (!shape()) {
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
            out[0] = incoming[0];
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
            for (std::size_t k = 0; k < chunk.strandCount(); ++k)
                for (std::uint32_t r = chunk.recordStart[k]; r < chunk.recordStart[k + 1]; ++r)
                    if (changed[chunk.guides[r]]) {
                        found[c].push_back(chunk.firstStrand + k);
                        break;
                    }
        }
    });
    std::vector<std::uint64_t> strands;
    for (const auto& list : found)
        strands.insert(strands.end(), list.begin(), list.end());
    return strands;
}

}  // namespace velmorin
