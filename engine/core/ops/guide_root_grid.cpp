#include "ops/guide_root_grid.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>

#include "base/float_lanes.h"

namespace velmorin {
namespace {

constexpr float kNoBound = 3.4e38f;

// The shortlist's columns, as the lane query reads them.
struct ShortlistColumns {
    const float* x;
    const float* y;
    const float* z;
    const float* fromCenter;
    const std::uint32_t* indices;
    std::size_t count;
};

// The most roots the lane query measures before it has k with a distance at all (beyond that, with
// roots so far off that their distances overflow, it leaves the query to the plain one), and the
// most a gather orders in lanes rather than by sorting.
constexpr std::size_t kLaneCandidates = 256;
// Columns are padded to a multiple of this, the widest lanes.
constexpr std::size_t kColumnPad = 16;

// How many lanes a mask's bits set, for up to eight lanes.
constexpr auto kLaneCount = [] {
    std::array<std::uint8_t, 256> count{};
    for (std::size_t bits = 0; bits < 256; ++bits)
        for (std::size_t b = bits; b != 0; b &= b - 1)
            ++count[bits];
    return count;
}();

// A root's distance and index as one key: squared distances are never negative, so their bits
// order as the numbers do, and the index below breaks ties toward the lower index.
// The squared distance a key holds.
inline float distanceOf(std::uint64_t key) {
    const auto bits = static_cast<std::uint32_t>(key >> 32);
    float distance2;
    std::memcpy(&distance2, &bits, sizeof distance2);
    return distance2;
}

inline std::uint64_t rankKey(float distance2, std::uint32_t index) {
    std::uint32_t bits;
    std::memcpy(&bits, &distance2, sizeof bits);
    return std::uint64_t{bits} << 32 | index;
}

// Keeps the best k keys, ascending. The place is found by counting rather than by a search
// that stops early: a query inserts dozens of keys at places no branch predictor can guess.
inline void insertBest(int k, int& count, std::uint64_t* keys, std::uint64_t key) {
    if (count == k && key >= keys[k - 1]) return;
    int at = 0;
    for (int i = 0; i < count; ++i)
        at += keys[i] < key ? 1 : 0;
    if (count < k) ++count;
    std::memmove(keys + at + 1, keys + at,
                 sizeof(std::uint64_t) * static_cast<std::size_t>(count - 1 - at));
    keys[at] = key;
}

// Puts `key` into its place among the `count` ascending keys, whose last is dropped: each slot
// takes the lesser of what it held and the greater of the key and the slot before. Without a
// branch on where the key goes: the roots of a shortlist come nearly in order, but only nearly,
// and a search that stops early mispredicted about once a root.
inline void insertSorted(int count, std::uint64_t* keys, std::uint64_t key) {
    for (int j = count - 1; j > 0; --j)
        keys[j] = std::min(keys[j], std::max(keys[j - 1], key));
    keys[0] = std::min(keys[0], key);
}

#if VELMORIN_FLOAT_LANES
// The lane query once for each width: four SSE2 lanes, and eight AVX lanes built for AVX alone.
namespace narrow_shortlist {
using namespace float_lanes::narrow;
#define VELMORIN_LANES_TARGET
#include "ops/guide_shortlist_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace narrow_shortlist
namespace wide_shortlist {
using namespace float_lanes::wide;
#define VELMORIN_LANES_TARGET __attribute__((target("avx")))
#include "ops/guide_shortlist_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace wide_shortlist
#endif

#if VELMORIN_FLOAT_LANES
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// The query for up to sixteen nearest with AVX-512: a root's distance and index travel as one
// 64-bit key (rankKey), so that the tie rule is a plain unsigned comparison, and the best sixteen
// keys stay sorted in two registers. The first sixteen roots are measured and sorted at once by a
// sorting network; each later root within the k-th distance is put in its place by one
// compare-and-shift across both registers. Distances are the plain query's operations in its
// order, so the answer is the plain query's bit for bit.
namespace sixteen_lanes {

#define VELMORIN_LANES_512 __attribute__((target("avx512f,avx2")))

bool usable() {
    static const bool ok = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx2");
    return ok;
}

// Lane i meets lane partner[i]; the lanes of `upper` keep the greater key, the others the lesser.
VELMORIN_LANES_512 inline __m512i exchange(__m512i keys, __m512i partner, __mmask8 upper) {
    const __m512i other = _mm512_permutexvar_epi64(partner, keys);
    return _mm512_mask_blend_epi64(upper, _mm512_min_epu64(keys, other),
                                   _mm512_max_epu64(keys, other));
}

// Partners i ^ 1, i ^ 2, i ^ 3, i ^ 4 and i ^ 7 of lane i.
VELMORIN_LANES_512 inline __m512i partnerXor1() {
    return _mm512_set_epi64(6, 7, 4, 5, 2, 3, 0, 1);
}
VELMORIN_LANES_512 inline __m512i partnerXor2() {
    return _mm512_set_epi64(5, 4, 7, 6, 1, 0, 3, 2);
}
VELMORIN_LANES_512 inline __m512i partnerXor3() {
    return _mm512_set_epi64(4, 5, 6, 7, 0, 1, 2, 3);
}
VELMORIN_LANES_512 inline __m512i partnerXor4() {
    return _mm512_set_epi64(3, 2, 1, 0, 7, 6, 5, 4);
}
VELMORIN_LANES_512 inline __m512i reversed() {
    return _mm512_set_epi64(0, 1, 2, 3, 4, 5, 6, 7);
}

// Sorts sixteen distinct-or-equal keys ascending, a (lanes 0-7) before b (lanes 8-15): a bitonic
// network in which every merge starts by folding a block onto its mirror, so that every step sorts
// the same way.
VELMORIN_LANES_512 inline void sortSixteen(__m512i& a, __m512i& b) {
    const __m512i x1 = partnerXor1(), x2 = partnerXor2(), x3 = partnerXor3();
    const __m512i x4 = partnerXor4(), x7 = reversed();
    a = exchange(a, x1, 0xAA);
    b = exchange(b, x1, 0xAA);
    a = exchange(a, x3, 0xCC);
    b = exchange(b, x3, 0xCC);
    a = exchange(a, x1, 0xAA);
    b = exchange(b, x1, 0xAA);
    a = exchange(a, x7, 0xF0);
    b = exchange(b, x7, 0xF0);
    a = exchange(a, x2, 0xCC);
    b = exchange(b, x2, 0xCC);
    a = exchange(a, x1, 0xAA);
    b = exchange(b, x1, 0xAA);
    const __m512i mirror = _mm512_permutexvar_epi64(x7, b);
    const __m512i high = _mm512_max_epu64(a, mirror);
    a = _mm512_min_epu64(a, mirror);
    b = _mm512_permutexvar_epi64(x7, high);
    a = exchange(a, x4, 0xF0);
    b = exchange(b, x4, 0xF0);
    a = exchange(a, x2, 0xCC);
    b = exchange(b, x2, 0xCC);
    a = exchange(a, x1, 0xAA);
    b = exchange(b, x1, 0xAA);
}

// Puts `key` into its place among the sixteen sorted keys, the last dropped: insertSorted's rule,
// every slot at once.
VELMORIN_LANES_512 inline void insertKey(__m512i& a, __m512i& b, std::uint64_t key) {
    const __m512i k = _mm512_set1_epi64(static_cast<long long>(key));
    const __m512i aBefore = _mm512_alignr_epi64(a, _mm512_setzero_si512(), 7);
    const __m512i bBefore = _mm512_alignr_epi64(b, a, 7);
    a = _mm512_min_epu64(a, _mm512_max_epu64(aBefore, k));
    b = _mm512_min_epu64(b, _mm512_max_epu64(bBefore, k));
}

// The key in place `at` (0 to 15).
VELMORIN_LANES_512 inline std::uint64_t keyAt(__m512i a, __m512i b, int at) {
    const __m512i lane = _mm512_set1_epi64(at & 7);
    return static_cast<std::uint64_t>(
        _mm_cvtsi128_si64(_mm512_castsi512_si128(_mm512_permutexvar_epi64(lane, at < 8 ? a : b))));
}

// The squared distances of the sixteen roots from `at` to (px, py, pz).
VELMORIN_LANES_512 inline __m512 distancesAt(const ShortlistColumns& c, std::size_t at, __m512 px,
                                             __m512 py, __m512 pz) {
    const __m512 dx = _mm512_sub_ps(_mm512_loadu_ps(c.x + at), px);
    const __m512 dy = _mm512_sub_ps(_mm512_loadu_ps(c.y + at), py);
    const __m512 dz = _mm512_sub_ps(_mm512_loadu_ps(c.z + at), pz);
    return _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(dx, dx), _mm512_mul_ps(dy, dy)),
                         _mm512_mul_ps(dz, dz));
}

// The up to sixteen nearest, as the plain query finds them; -1 where fewer than k of the first
// sixteen roots have a distance at all (roots so far off that their distances overflow: the
// caller asks a narrower query).
VELMORIN_LANES_512 int nearest(const ShortlistColumns& c, const Vec3f& p, int k, float offCenter,
                               std::uint32_t* indices, float* distances2, bool* increasing) {
    const __m512 px = _mm512_set1_ps(p.x), py = _mm512_set1_ps(p.y), pz = _mm512_set1_ps(p.z);
    const __m512 d = distancesAt(c, 0, px, py, pz);
    // Roots beyond any distance, and the padding (not a number), rank after every other.
    const __mmask16 measurable = _mm512_cmp_ps_mask(d, _mm512_set1_ps(kNoBound), _CMP_LE_OQ);
    if (__builtin_popcount(measurable) < k) return -1;
    const __m512i bits = _mm512_castps_si512(d);
    const __m512i index = _mm512_loadu_si512(c.indices);
    const __m512i none = _mm512_set1_epi64(-1);
    __m512i a =
        _mm512_or_si512(_mm512_slli_epi64(_mm512_cvtepu32_epi64(_mm512_castsi512_si256(bits)), 32),
                        _mm512_cvtepu32_epi64(_mm512_castsi512_si256(index)));
    __m512i b = _mm512_or_si512(
        _mm512_slli_epi64(_mm512_cvtepu32_epi64(_mm512_extracti64x4_epi64(bits, 1)), 32),
        _mm512_cvtepu32_epi64(_mm512_extracti64x4_epi64(index, 1)));
    a = _mm512_mask_mov_epi64(none, static_cast<__mmask8>(measurable), a);
    b = _mm512_mask_mov_epi64(none, static_cast<__mmask8>(measurable >> 8), b);
    sortSixteen(a, b);
    float worst2 = distanceOf(keyAt(a, b, k - 1));
    for (std::size_t i = 16; i < c.count; i += 16) {
        // The plain query's stop, checked a block at a time.
        const float slack = c.fromCenter[i] - offCenter;
        if (slack > 0.0f && slack * slack > worst2 * 1.0002f) break;
        const __m512 near = distancesAt(c, i, px, py, pz);
        auto within =
            static_cast<unsigned>(_mm512_cmp_ps_mask(near, _mm512_set1_ps(worst2), _CMP_LE_OQ));
        if (within == 0) continue;
        alignas(64) float lanes[16];
        _mm512_store_ps(lanes, near);
        // A key past the k-th lands past the k-th place and changes none before it, so every
        // root within the distance so far goes in without a test.
        for (; within != 0; within &= within - 1) {
            const auto lane = static_cast<std::size_t>(__builtin_ctz(within));
            insertKey(a, b, rankKey(lanes[lane], c.indices[i + lane]));
        }
        worst2 = distanceOf(keyAt(a, b, k - 1));
    }
    const __m512i low = _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvtepi64_epi32(a)),
                                           _mm512_cvtepi64_epi32(b), 1);
    const __m512i high =
        _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvtepi64_epi32(_mm512_srli_epi64(a, 32))),
                           _mm512_cvtepi64_epi32(_mm512_srli_epi64(b, 32)), 1);
    const auto kept = static_cast<__mmask16>((1u << k) - 1u);
    _mm512_mask_storeu_epi32(indices, kept, low);
    _mm512_mask_storeu_epi32(distances2, kept, high);
    if (increasing) {
        // Each distance against the one before it: their bits order as they do.
        const __m512i highA = _mm512_srli_epi64(a, 32), highB = _mm512_srli_epi64(b, 32);
        const unsigned rises =
            _mm512_cmpgt_epu64_mask(highA, _mm512_alignr_epi64(highA, highA, 7)) |
            unsigned{_mm512_cmpgt_epu64_mask(highB, _mm512_alignr_epi64(highB, highA, 7))} << 8;
        *increasing = ((rises | 1u) & kept) == kept;
    }
    return k;
}

// One pass of selectNth's partition over keys[lo, hi), eight keys at a time: the keys below
// `pivot` packed down in place in their order, the others into `spare` in theirs, as the plain
// pass leaves them. Returns how many are below.
VELMORIN_LANES_512 std::size_t partition(std::uint64_t* keys, std::size_t lo, std::size_t hi,
                                         std::uint64_t pivot, std::uint64_t* spare,
                                         std::size_t& above) {
    const __m512i split = _mm512_set1_epi64(static_cast<long long>(pivot));
    std::size_t below = 0;
    above = 0;
    for (std::size_t i = lo; i < hi; i += 8) {
        const auto valid = static_cast<__mmask8>(hi - i >= 8 ? 0xFF : (1u << (hi - i)) - 1u);
        const __m512i key = _mm512_maskz_loadu_epi64(valid, keys + i);
        const __mmask8 less = _mm512_mask_cmplt_epu64_mask(valid, key, split);
        const auto more = static_cast<__mmask8>(valid & ~less);
        const int lessCount = __builtin_popcount(less), moreCount = __builtin_popcount(more);
        // Below lo + below lie only keys already read: the block just loaded is the farthest a
        // store can reach.
        _mm512_mask_storeu_epi64(keys + lo + below, static_cast<__mmask8>((1u << lessCount) - 1u),
                                 _mm512_maskz_compress_epi64(less, key));
        _mm512_mask_storeu_epi64(spare + above, static_cast<__mmask8>((1u << moreCount) - 1u),
                                 _mm512_maskz_compress_epi64(more, key));
        below += static_cast<std::size_t>(lessCount);
        above += static_cast<std::size_t>(moreCount);
    }
    return below;
}

#undef VELMORIN_LANES_512

}  // namespace sixteen_lanes
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

}  // namespace

void selectNth(std::uint64_t* keys, std::size_t n, std::size_t nth, std::uint64_t* spare) {
    std::size_t lo = 0, hi = n;
    // Partitions in lanes pay off down to a few keys; the plain ones hand over to nth_element
    // sooner.
#if VELMORIN_FLOAT_LANES
    const std::size_t few = sixteen_lanes::usable() ? 8 : 24;
#else
    const std::size_t few = 24;
#endif
    while (hi - lo > few) {
        // The median of three distinct keys leaves at least one key on either side.
        const std::uint64_t a = keys[lo], b = keys[lo + (hi - lo) / 2], c = keys[hi - 1];
        const std::uint64_t pivot = std::max(std::min(a, b), std::min(std::max(a, b), c));
        std::size_t below = 0, above = 0;
#if VELMORIN_FLOAT_LANES
        if (sixteen_lanes::usable()) {
            below = sixteen_lanes::partition(keys, lo, hi, pivot, spare, above);
        } else
#endif
        {
            for (std::size_t i = lo; i < hi; ++i) {
                const std::uint64_t key = keys[i];
                const std::size_t less = key < pivot ? 1 : 0;
                // Each key is written to both sides and counted on one. The lesser ones move
                // down in place: lo + below never passes i.
                keys[lo + below] = key;
                spare[above] = key;
                below += less;
                above += 1 - less;
            }
        }
        std::copy(spare, spare + above, keys + lo + below);
        if (nth < lo + below)
            hi = lo + below;
        else
            lo += below;
    }
    std::nth_element(keys + lo, keys + nth, keys + hi);
}

GuideRootGrid::GuideRootGrid(std::span<const Vec3f> points, std::span<const std::uint32_t> indices,
                             int typicalK) {
    assert(points.size() == indices.size());
    if (points.empty()) return;
    Vec3f lo = points[0], hi = points[0];
    for (const Vec3f& p : points) {
        lo = minPerAxis(lo, p);
        hi = maxPerAxis(hi, p);
    }
    const Vec3f extent = hi - lo;
    // Roots lie on a surface, so the cell follows the spacing over the box's face areas rather
    // than its volume. A query for k points reaches about sqrt(k / pi) spacings; a cell that wide
    // lets most queries stop after the ring round their own cell instead of walking out through
    // many nearly empty rings.
    const double area = static_cast<double>(extent.x) * extent.y +
                        static_cast<double>(extent.y) * extent.z +
                        static_cast<double>(extent.z) * extent.x;
    const double largest = std::max({extent.x, extent.y, extent.z});
    const double reach = std::sqrt(std::max(1.0, static_cast<double>(typicalK) / 3.14159265));
    const double spacing = std::sqrt(area / static_cast<double>(points.size()));
    if (points.size() > 1 && std::isfinite(spacing)) spacing_ = static_cast<float>(spacing);
    double cell = spacing * 1.2 * reach;
    if (!(cell > largest * 1e-4)) cell = largest > 0.0 ? largest / 64.0 : 1.0;
    // No more than about eight cells a root, nor 512 along an axis.
    for (;;) {
        std::size_t total = 1;
        for (int a = 0; a < 3; ++a) {
            dims_[a] = std::clamp(static_cast<int>(extent[a] / cell) + 1, 1, 512);
            total *= static_cast<std::size_t>(dims_[a]);
        }
        if (total <= points.size() * 8 + 64) break;
        cell *= 1.25;
    }
    min_ = lo;
    cell_ = static_cast<float>(cell);
    const std::size_t cells =
        static_cast<std::size_t>(dims_[0]) * static_cast<std::size_t>(dims_[1]) * dims_[2];
    std::vector<std::uint32_t> cellOf(points.size());
    cellStart_.assign(cells + 1, 0);
    for (std::size_t i = 0; i < points.size(); ++i) {
        int c[3];
        for (int a = 0; a < 3; ++a)
            c[a] = std::clamp(static_cast<int>((points[i][a] - min_[a]) / cell_), 0, dims_[a] - 1);
        cellOf[i] = static_cast<std::uint32_t>((c[2] * dims_[1] + c[1]) * dims_[0] + c[0]);
        ++cellStart_[cellOf[i] + 1];
    }
    for (std::size_t c = 0; c < cells; ++c)
        cellStart_[c + 1] += cellStart_[c];
    points_.resize(points.size());
    indices_.resize(points.size());
    std::vector<std::uint32_t> fill(cellStart_.begin(), cellStart_.end() - 1);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const std::uint32_t at = fill[cellOf[i]]++;
        points_[at] = points[i];
        indices_[at] = indices[i];
    }
}

int GuideRootGrid::nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                           float within2) const {
    assert(std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z));
    k = std::min({k, kMaxNearest, static_cast<int>(points_.size())});
    if (k <= 0) return 0;
    int center[3];
    for (int a = 0; a < 3; ++a) {
        const float at = (p[a] - min_[a]) / cell_;
        center[a] = at <= 0.0f ? 0 : std::min(static_cast<int>(at), dims_[a] - 1);
    }
    int count = 0;
    std::uint64_t keys[kMaxNearest];
    const auto visit = [&](int x, int y, int z) {
        // A cell that lies wholly beyond the farthest entry of a full list, or beyond `within2`,
        // holds no root of the answer and is skipped. The cell is
        // widened by a thousandth of its size against rounding where roots were sorted into
        // cells, and the grid's outer cells hold everything beyond them, so no root that could
        // tie or win is ever skipped.
        const float worst2 = count == k ? distanceOf(keys[k - 1]) : within2;
        if (worst2 < kNoBound) {
            const int at[3] = {x, y, z};
            float gap2 = 0.0f;
            for (int a = 0; a < 3; ++a) {
                const float lo = min_[a] + static_cast<float>(at[a]) * cell_ - cell_ * 1e-3f;
                const float hi = lo + cell_ * 1.002f;
                float gap = 0.0f;
                if (at[a] > 0 && p[a] < lo) gap = lo - p[a];
                if (at[a] < dims_[a] - 1 && p[a] > hi) gap = p[a] - hi;
                gap2 += gap * gap;
            }
            if (gap2 > worst2) return;
        }
        const std::size_t cell = (static_cast<std::size_t>(z) * dims_[1] + y) * dims_[0] + x;
        for (std::uint32_t i = cellStart_[cell]; i < cellStart_[cell + 1]; ++i) {
            const Vec3f d = points_[i] - p;
            const float distance2 = dot(d, d);
            // Beyond `within2` a root can't be among the k nearest: don't let it fill the list.
            if (distance2 > within2) continue;
            insertBest(k, count, keys, rankKey(distance2, indices_[i]));
        }
    };
    for (int ring = 0;; ++ring) {
        int lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::max(center[a] - ring, 0);
            hi[a] = std::min(center[a] + ring, dims_[a] - 1);
        }
        for (int z = lo[2]; z <= hi[2]; ++z) {
            const bool zEdge = z == center[2] - ring || z == center[2] + ring;
            for (int y = lo[1]; y <= hi[1]; ++y) {
                const bool yzEdge = zEdge || y == center[1] - ring || y == center[1] + ring;
                if (yzEdge) {
                    for (int x = lo[0]; x <= hi[0]; ++x)
                        visit(x, y, z);
                } else {
                    if (center[0] - ring >= 0) visit(center[0] - ring, y, z);
                    if (ring > 0 && center[0] + ring < dims_[0]) visit(center[0] + ring, y, z);
                }
            }
        }
        // Every cell not visited lies beyond a face of this box that is not the grid's edge.
        float bound = kNoBound;
        for (int a = 0; a < 3; ++a) {
            if (lo[a] > 0) bound = std::min(bound, p[a] - (min_[a] + lo[a] * cell_));
            if (hi[a] < dims_[a] - 1) bound = std::min(bound, min_[a] + (hi[a] + 1) * cell_ - p[a]);
        }
        if (bound == kNoBound) break;
        if (count == k && bound > 0.0f && distanceOf(keys[k - 1]) <= bound * bound) break;
        // Every root within `within2` has been seen, and there are k of them.
        if (bound > 0.0f && within2 * 1.001f < bound * bound) break;
    }
    for (int i = 0; i < count; ++i) {
        indices[i] = static_cast<std::uint32_t>(keys[i]);
        distances2[i] = distanceOf(keys[i]);
    }
    return count;
}

void GuideRootGrid::within(const Vec3f& p, float radius2, std::vector<std::uint32_t>& indices,
                           std::vector<Vec3f>& points) const {
    if (points_.empty()) return;
    int lo[3] = {0, 0, 0}, hi[3] = {dims_[0] - 1, dims_[1] - 1, dims_[2] - 1};
    if (radius2 < kNoBound) {
        // The cells the sphere's box touches, a thousandth of a cell wider against the rounding
        // of the sort into cells; the outer cells hold everything beyond them.
        const float radius = std::sqrt(std::max(radius2, 0.0f)) + cell_ * 1e-3f;
        for (int a = 0; a < 3; ++a) {
            const float top = static_cast<float>(dims_[a] - 1);
            lo[a] = static_cast<int>(std::clamp((p[a] - radius - min_[a]) / cell_, 0.0f, top));
            hi[a] = static_cast<int>(std::clamp((p[a] + radius - min_[a]) / cell_, 0.0f, top));
        }
    }
    // Every point of a row of cells is written at the end and kept there only if it lies within
    // the ball: about as many lie outside as inside, and a branch on it mispredicts.
    std::size_t count = indices.size();
    for (int z = lo[2]; z <= hi[2]; ++z)
        for (int y = lo[1]; y <= hi[1]; ++y) {
            const std::size_t row = (static_cast<std::size_t>(z) * dims_[1] + y) * dims_[0];
            const std::uint32_t begin = cellStart_[row + lo[0]], end = cellStart_[row + hi[0] + 1];
            indices.resize(count + (end - begin));
            points.resize(count + (end - begin));
            for (std::uint32_t i = begin; i < end; ++i) {
                const Vec3f d = points_[i] - p;
                indices[count] = indices_[i];
                points[count] = points_[i];
                count += dot(d, d) > radius2 ? 0 : 1;
            }
        }
    indices.resize(count);
    points.resize(count);
}

void GuideShortlist::orderKept(std::size_t count) {
    const auto begin = kept_.begin(), end = kept_.begin() + static_cast<std::ptrdiff_t>(count);
#if VELMORIN_FLOAT_LANES
    // A shortlist's few dozen roots lie in no order that a sort's branches could guess; counting
    // in lanes the roots that come before each one places them without a branch.
    if (count <= kLaneCandidates && foundIndices_.size() < (1u << 24)) {
        alignas(32) float d2[kLaneCandidates + kColumnPad];
        alignas(32) float tie[kLaneCandidates + kColumnPad];
        alignas(32) float rank[kLaneCandidates + kColumnPad];
        const std::size_t padded = (count + kColumnPad - 1) / kColumnPad * kColumnPad;
        for (std::size_t i = 0; i < padded; ++i) {
            const std::uint64_t key = i < count ? kept_[i] : 0;
            d2[i] = distanceOf(key);
            tie[i] = static_cast<float>(static_cast<std::uint32_t>(key));
        }
        if (avxLanesUsable())
            wide_shortlist::rankByDistance(d2, tie, count, rank);
        else
            narrow_shortlist::rankByDistance(d2, tie, count, rank);
        order_.resize(count);
        for (std::size_t i = 0; i < count; ++i)
            order_[static_cast<std::size_t>(rank[i])] = kept_[i];
        std::copy(order_.begin(), order_.end(), begin);
        return;
    }
#endif
    std::sort(begin, end);
}

void GuideShortlist::gather(const GuideRootGrid& grid, const Vec3f& center, float spread, int k) {
    k_ = std::clamp(k, 0, GuideRootGrid::kMaxNearest);
    center_ = center;
    count_ = 0;
    x_.clear();
    y_.clear();
    z_.clear();
    fromCenter_.clear();
    indices_.clear();
    if (k_ == 0 || grid.size() == 0) return;
    // A point within `spread` of the centre has k points within the centre's k-th distance plus
    // `spread`, so none of its k nearest lies farther than that plus `spread` from the centre.
    // The margin covers the rounding of the distances, relative to the coordinates' magnitude as
    // well as to the distances themselves.
    const float scale = std::fabs(center.x) + std::fabs(center.y) + std::fabs(center.z);
    const auto radiusFor = [&](float nearestK) {
        const float reach = nearestK + 2.0f * spread;
        return reach * 1.001f + (scale + reach) * 1e-5f;
    };
    // The k-th distance is found among what is gathered: the last group's, a little wider, is a
    // first guess, widened until k points lie within it. With fewer than k points, all of them.
    const bool all = grid.size() <= static_cast<std::size_t>(k_);
    float guess = guess_ > 0.0f ? guess_ * 1.25f : 0.0f;
    if (!all && !(guess > 0.0f)) {
        std::uint32_t nearestIndices[GuideRootGrid::kMaxNearest];
        float nearest2[GuideRootGrid::kMaxNearest];
        grid.nearest(center, k_, nearestIndices, nearest2);
        guess = std::sqrt(nearest2[k_ - 1]);
    }
    float nearestK = 0.0f;
    bool searchedAll = all;
    for (;;) {
        foundIndices_.clear();
        foundPoints_.clear();
        const float radius = radiusFor(guess);
        // Past 1e18 the ball takes in every root whose squared distance is a float at all; roots
        // so far apart that it overflows are never found, so widening further would not end.
        searchedAll = all || !(radius < 1e18f);
        grid.within(center, searchedAll ? 3.4e38f : radius * radius, foundIndices_, foundPoints_);
        order_.clear();
        for (std::size_t i = 0; i < foundIndices_.size(); ++i) {
            const Vec3f d = foundPoints_[i] - center;
            order_.push_back(rankKey(dot(d, d), static_cast<std::uint32_t>(i)));
        }
        if (searchedAll || order_.size() == grid.size()) break;
        if (order_.size() >= static_cast<std::size_t>(k_)) {
            const auto kth = static_cast<std::size_t>(k_ - 1);
            kept_.resize(order_.size());
            selectNth(order_.data(), order_.size(), kth, kept_.data());
            nearestK = std::sqrt(distanceOf(order_[kth]));
            if (nearestK <= guess) break;
        }
        guess = guess > 0.0f ? guess * 2.0f : 1e-6f + scale * 1e-5f;
    }
    guess_ = nearestK;
    const float radius = radiusFor(nearestK);
    const float radius2 = searchedAll || order_.size() == grid.size() ? 3.4e38f : radius * radius;
    margin_ = (scale + radius) * 1e-5f;
    // Those within the radius, nearest the centre first (equal distances in the order found).
    kept_.resize(order_.size());
    std::size_t kept = 0;
    for (const std::uint64_t key : order_) {
        kept_[kept] = key;
        kept += distanceOf(key) <= radius2 ? 1 : 0;
    }
    orderKept(kept);
    for (std::size_t i = 0; i < kept; ++i) {
        const std::uint64_t key = kept_[i];
        const float distance2 = distanceOf(key);
        const auto from = static_cast<std::uint32_t>(key);
        const Vec3f& point = foundPoints_[from];
        x_.push_back(point.x);
        y_.push_back(point.y);
        z_.push_back(point.z);
        fromCenter_.push_back(std::sqrt(distance2));
        indices_.push_back(foundIndices_[from]);
    }
    count_ = indices_.size();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::size_t padded = (count_ + kColumnPad - 1) / kColumnPad * kColumnPad;
    x_.resize(padded, nan);
    y_.resize(padded, nan);
    z_.resize(padded, nan);
    fromCenter_.resize(padded, kNoBound);
    indices_.resize(padded, 0);
}

int GuideShortlist::nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                            bool* increasing) const {
#if VELMORIN_FLOAT_LANES
    const Lanes lanes = sixteen_lanes::usable() ? Lanes::sixteen
                        : avxLanesUsable()      ? Lanes::eight
                                                : Lanes::four;
    return nearest(lanes, p, k, indices, distances2, increasing);
#else
    return nearest(Lanes::plain, p, k, indices, distances2, increasing);
#endif
}

int GuideShortlist::nearest(Lanes lanes, const Vec3f& p, int k, std::uint32_t* indices,
                            float* distances2, bool* increasing) const {
    if (increasing) *increasing = true;
#if VELMORIN_FLOAT_LANES
    const int asked = std::min({k, k_, static_cast<int>(size())});
    if (lanes == Lanes::sixteen && asked > 0 && asked <= 16 && sixteen_lanes::usable()) {
        const ShortlistColumns columns{x_.data(),          y_.data(),       z_.data(),
                                       fromCenter_.data(), indices_.data(), size()};
        const int found = sixteen_lanes::nearest(columns, p, asked, length(p - center_) + margin_,
                                                 indices, distances2, increasing);
        if (found >= 0) return found;
    }
#endif
    const int found = nearestOtherwise(lanes, p, k, indices, distances2);
    if (increasing)
        for (int i = 1; i < found; ++i)
            if (!(distances2[i] > distances2[i - 1])) *increasing = false;
    return found;
}

int GuideShortlist::nearestOtherwise(Lanes lanes, const Vec3f& p, int k, std::uint32_t* indices,
                                     float* distances2) const {
    assert(k <= k_ || size() < static_cast<std::size_t>(k_));
    const std::size_t count = size();
    k = std::min({k, k_, static_cast<int>(count)});
    if (k <= 0) return 0;
    const float offCenter = length(p - center_) + margin_;
#if VELMORIN_FLOAT_LANES
    if (lanes != Lanes::plain) {
        const ShortlistColumns columns{x_.data(),          y_.data(),       z_.data(),
                                       fromCenter_.data(), indices_.data(), count};
        const int found =
            lanes != Lanes::four && avxLanesUsable()
                ? wide_shortlist::nearestInLanes(columns, p, k, offCenter, indices, distances2)
                : narrow_shortlist::nearestInLanes(columns, p, k, offCenter, indices, distances2);
        if (found >= 0) return found;
    }
#else
    (void)lanes;
#endif
    std::uint64_t keys[GuideRootGrid::kMaxNearest];
    // The first k roots (of a distance at all) are all kept: each is put in its place by counting
    // the keys below it, a fixed number of comparisons without a branch, where putting them in
    // one after another would shift them about as they come.
    std::uint64_t first[GuideRootGrid::kMaxNearest];
    int found = 0;
    std::size_t i = 0;
    for (; i < count && found < k; ++i) {
        const Vec3f d = Vec3f{x_[i], y_[i], z_[i]} - p;
        const float distance2 = dot(d, d);
        if (distance2 > kNoBound) continue;
        first[found++] = rankKey(distance2, indices_[i]);
    }
    for (int a = 0; a < found; ++a) {
        int below = 0;
        for (int b = 0; b < found; ++b)
            below += first[b] < first[a] ? 1 : 0;
        keys[below] = first[a];
    }
    float worst2 = found == k ? distanceOf(keys[k - 1]) : kNoBound;
    for (; i < count; ++i) {
        // Points lie no nearer to `p` than their distance from the centre less p's, and the
        // rest lie farther from the centre than this one.
        const float slack = fromCenter_[i] - offCenter;
        if (found == k && slack > 0.0f && slack * slack > worst2 * 1.0002f) break;
        // The same operations as the grid's, so the same bits.
        const Vec3f d = Vec3f{x_[i], y_[i], z_[i]} - p;
        const float distance2 = dot(d, d);
        if (distance2 > worst2) continue;
        const std::uint64_t key = rankKey(distance2, indices_[i]);
        if (found == k) {
            if (key >= keys[k - 1]) continue;
        } else {
            // The slot past the kept ones holds no key yet: every key sorts before it.
            keys[found++] = ~std::uint64_t{0};
        }
        insertSorted(found, keys, key);
        if (found == k) worst2 = distanceOf(keys[k - 1]);
    }
    for (int i = 0; i < found; ++i) {
        indices[i] = static_cast<std::uint32_t>(keys[i]);
        distances2[i] = distanceOf(keys[i]);
    }
    return found;
}

}  // namespace velmorin
