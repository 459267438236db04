#include "ops/arc_walk_lanes.h"

#include <algorithm>
#include <cassert>

#include "base/float_lanes.h"

namespace velmorin {

#if VELMORIN_FLOAT_LANES

bool arcWalkLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx2");
    return usable;
}

namespace {

#define VELMORIN_ARC_LANES __attribute__((target("avx2")))

constexpr std::size_t kW = kArcWalkLanes;

// Eight strands' columns, point by point: row k holds point k of every lane.
struct LaneColumns {
    alignas(32) float x[kArcWalkMostPoints * kW];
    alignas(32) float y[kArcWalkMostPoints * kW];
    alignas(32) float z[kArcWalkMostPoints * kW];
    alignas(32) float arcs[kArcWalkMostPoints * kW];
};

// std::min(a, b) and std::max(a, b) lane by lane, NaN and signed zeros included: std::max(a, b)
// is (a < b ? b : a), which maxps gives with its operands the other way round.
VELMORIN_ARC_LANES inline __m256 minOf(__m256 a, __m256 b) {
    return _mm256_min_ps(b, a);
}
VELMORIN_ARC_LANES inline __m256 maxOf(__m256 a, __m256 b) {
    return _mm256_max_ps(b, a);
}
// std::clamp(v, lo, hi) is std::min(std::max(v, lo), hi).
VELMORIN_ARC_LANES inline __m256 clampOf(__m256 v, __m256 lo, __m256 hi) {
    return minOf(maxOf(v, lo), hi);
}

// Reads the eight strands' points into rows and sums their arcs as arcLengths does, returning each
// lane's whole length.
VELMORIN_ARC_LANES __m256 readLanes(const Vec3f* const* points, std::size_t pointCount,
                                    LaneColumns& c) {
    for (std::size_t k = 0; k < pointCount; ++k)
        float_lanes::wide::transposePoints(points, k, k + 1 == pointCount, c.x + k * kW,
                                           c.y + k * kW, c.z + k * kW);
    __m256 total = _mm256_setzero_ps();
    _mm256_store_ps(c.arcs, total);
    for (std::size_t k = 1; k < pointCount; ++k) {
        const __m256 dx =
            _mm256_sub_ps(_mm256_load_ps(c.x + k * kW), _mm256_load_ps(c.x + (k - 1) * kW));
        const __m256 dy =
            _mm256_sub_ps(_mm256_load_ps(c.y + k * kW), _mm256_load_ps(c.y + (k - 1) * kW));
        const __m256 dz =
            _mm256_sub_ps(_mm256_load_ps(c.z + k * kW), _mm256_load_ps(c.z + (k - 1) * kW));
        // length(v): sqrt of v.x * v.x + v.y * v.y + v.z * v.z, summed left to right.
        const __m256 squared = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)), _mm256_mul_ps(dz, dz));
        total = _mm256_add_ps(total, _mm256_sqrt_ps(squared));
        _mm256_store_ps(c.arcs + k * kW, total);
    }
    return total;
}

// Each lane's place in the forward walk. The one-strand walk moves on while the arc at its
// segment's upper end lies below the arc asked for, up to the last segment. Arcs only rise along
// a strand (sums of square roots; the not-a-number ones all come last, and stop the walk), and the
// arcs asked for only rise from one point to the next, so the walk's segment is the count of the
// arcs 1 to last that lie below the one asked for. The count is made row by row, from the first
// row that some lane's last arc did not lie above, up to the first row that lies above every
// lane's arc; each lane's segment ends are then picked from the few rows the lanes stand on. No
// load waits on a gathered value, as in a walk that gathers each segment's end to learn whether
// to move on.
struct Walker {
    std::size_t from = 1;  // rows below it lie below every lane's last arc
    std::size_t last = 0;  // the last segment, which no lane moves past
};

// The forward walk of one output point: finds each lane's segment for the arc `s`, takes the
// share along it (0 for a segment of no length) and blends each row between the segment's ends
// into out[r].
template <std::size_t kRows>
VELMORIN_ARC_LANES inline void walkTo(Walker& walk, const float* const (&rows)[kRows],
                                      const LaneColumns& c, __m256 s, __m256 (&out)[kRows]) {
    const std::size_t start = walk.from;
    __m256i segment = _mm256_set1_epi32(static_cast<int>(start - 1));
    // The highest segment a lane stands on.
    std::size_t top = start - 1;
    for (std::size_t j = start; j <= walk.last; ++j) {
        const __m256 below = _mm256_cmp_ps(_mm256_load_ps(c.arcs + j * kW), s, _CMP_LT_OQ);
        const int bits = _mm256_movemask_ps(below);
        if (bits == 0) break;
        segment = _mm256_sub_epi32(segment, _mm256_castps_si256(below));
        top = j;
        if (bits == 0xFF && j == walk.from) ++walk.from;
    }
    // The ends of each lane's segment, picked row by row from those the lanes stand on.
    const std::size_t low = start - 1;
    __m256 lower = _mm256_load_ps(c.arcs + low * kW);
    __m256 upper = _mm256_load_ps(c.arcs + (low + 1) * kW);
    __m256 a[kRows], b[kRows];
    for (std::size_t r = 0; r < kRows; ++r) {
        a[r] = _mm256_load_ps(rows[r] + low * kW);
        b[r] = _mm256_load_ps(rows[r] + (low + 1) * kW);
    }
    for (std::size_t j = start; j <= top; ++j) {
        const __m256 on = _mm256_castsi256_ps(
            _mm256_cmpeq_epi32(segment, _mm256_set1_epi32(static_cast<int>(j))));
        lower = _mm256_blendv_ps(lower, _mm256_load_ps(c.arcs + j * kW), on);
        upper = _mm256_blendv_ps(upper, _mm256_load_ps(c.arcs + (j + 1) * kW), on);
        for (std::size_t r = 0; r < kRows; ++r) {
            a[r] = _mm256_blendv_ps(a[r], _mm256_load_ps(rows[r] + j * kW), on);
            b[r] = _mm256_blendv_ps(b[r], _mm256_load_ps(rows[r] + (j + 1) * kW), on);
        }
    }
    const __m256 span = _mm256_sub_ps(upper, lower);
    const __m256 f = _mm256_div_ps(_mm256_sub_ps(s, lower), span);
    const __m256 clamped = clampOf(f, _mm256_setzero_ps(), _mm256_set1_ps(1.0f));
    // span > 0 ? clamped : 0, bitwise (the lanes of no length divided by 0 are dropped here).
    const __m256 t = _mm256_and_ps(_mm256_cmp_ps(span, _mm256_setzero_ps(), _CMP_GT_OQ), clamped);
    // lerp(a, b, t) per lane: a + (b - a) * t.
    for (std::size_t r = 0; r < kRows; ++r)
        out[r] = _mm256_add_ps(a[r], _mm256_mul_ps(_mm256_sub_ps(b[r], a[r]), t));
}

// Callers hand the lanes strands that mostly lie one after another in their columns, and a group
// of eight is done before the memory for the next one has come in, so the reads and writes wait on
// memory unless it is asked for ahead: this asks for what the group after next would read (from
// the end of `points`' last strand, `pointCount` points each) and write (`outCount` each). Asking
// for memory nobody reads costs nothing but the asking, and faults on nothing.
inline void fetchAhead(const Vec3f* const* points, std::size_t pointCount, Vec3f* const* out,
                       std::size_t outCount) {
    constexpr std::size_t kLine = 64;
    // The addresses are reckoned as numbers: they may lie past the end of the columns.
    const std::size_t readBytes = kW * pointCount * sizeof(Vec3f);
    const std::uintptr_t read =
        reinterpret_cast<std::uintptr_t>(points[kW - 1]) + pointCount * sizeof(Vec3f) + readBytes;
    for (std::size_t b = 0; b < readBytes; b += kLine)
        __builtin_prefetch(reinterpret_cast<const void*>(read + b), 0, 3);
    const std::size_t writeBytes = kW * outCount * sizeof(Vec3f);
    const std::uintptr_t write =
        reinterpret_cast<std::uintptr_t>(out[kW - 1]) + outCount * sizeof(Vec3f) + writeBytes;
    for (std::size_t b = 0; b < writeBytes; b += kLine)
        __builtin_prefetch(reinterpret_cast<const void*>(write + b), 1, 3);
}

VELMORIN_ARC_LANES void trimWide(const Vec3f* const* points, const float* keep,
                                 std::size_t pointCount, Vec3f* const* out) {
    LaneColumns c;
    alignas(32) float ox[kArcWalkMostPoints * kW];
    alignas(32) float oy[kArcWalkMostPoints * kW];
    alignas(32) float oz[kArcWalkMostPoints * kW];
    fetchAhead(points, pointCount, out, pointCount);
    const __m256 total = readLanes(points, pointCount, c);
    // keep * length / (n - 1), as the one-strand trim makes it.
    const __m256 step = _mm256_div_ps(_mm256_mul_ps(_mm256_loadu_ps(keep), total),
                                      _mm256_set1_ps(static_cast<float>(pointCount - 1)));
    const float* const rows[3] = {c.x, c.y, c.z};
    Walker walk;
    walk.last = pointCount - 2;
    _mm256_store_ps(ox, _mm256_load_ps(c.x));
    _mm256_store_ps(oy, _mm256_load_ps(c.y));
    _mm256_store_ps(oz, _mm256_load_ps(c.z));
    for (std::size_t k = 1; k < pointCount; ++k) {
        const __m256 s = _mm256_mul_ps(step, _mm256_set1_ps(static_cast<float>(k)));
        __m256 blended[3];
        walkTo(walk, rows, c, s, blended);
        _mm256_store_ps(ox + k * kW, blended[0]);
        _mm256_store_ps(oy + k * kW, blended[1]);
        _mm256_store_ps(oz + k * kW, blended[2]);
    }
    for (std::size_t k = 0; k < pointCount; ++k)
        float_lanes::wide::untransposePoints(ox + k * kW, oy + k * kW, oz + k * kW, out, k,
                                             k + 1 == pointCount);
}

VELMORIN_ARC_LANES unsigned resampleWide(const Vec3f* const* points, const float* const* widths,
                                         std::size_t pointCount, std::uint32_t segments,
                                         Vec3f* const* out, float* const* widthsOut) {
    LaneColumns c;
    alignas(32) float w[kArcWalkMostPoints * kW];
    alignas(32) float ox[kArcWalkMostPoints * kW];
    alignas(32) float oy[kArcWalkMostPoints * kW];
    alignas(32) float oz[kArcWalkMostPoints * kW];
    alignas(32) float ow[kArcWalkMostPoints * kW];
    const std::size_t count = std::size_t{segments} + 1;
    fetchAhead(points, pointCount, out, count);
    const __m256 total = readLanes(points, pointCount, c);
    if (widths) {
        for (std::size_t l = 0; l < kW; ++l)
            for (std::size_t k = 0; k < pointCount; ++k)
                w[k * kW + l] = widths[l][k];
    }
    const __m256 zero = _mm256_setzero_ps();
    const __m256 perSegment = _mm256_set1_ps(static_cast<float>(segments));
    // The even arcs total * k / segments, held to the strand.
    const auto placedAt = [&](std::size_t k) VELMORIN_ARC_LANES {
        const __m256 placed =
            _mm256_div_ps(_mm256_mul_ps(total, _mm256_set1_ps(static_cast<float>(k))), perSegment);
        return clampOf(placed, zero, total);
    };
    Walker walk;
    walk.last = pointCount - 2;
    if (widths) {
        const float* const rows[4] = {c.x, c.y, c.z, w};
        for (std::size_t k = 0; k < count; ++k) {
            __m256 blended[4];
            walkTo(walk, rows, c, placedAt(k), blended);
            _mm256_store_ps(ox + k * kW, blended[0]);
            _mm256_store_ps(oy + k * kW, blended[1]);
            _mm256_store_ps(oz + k * kW, blended[2]);
            _mm256_store_ps(ow + k * kW, blended[3]);
        }
    } else {
        const float* const rows[3] = {c.x, c.y, c.z};
        for (std::size_t k = 0; k < count; ++k) {
            __m256 blended[3];
            walkTo(walk, rows, c, placedAt(k), blended);
            _mm256_store_ps(ox + k * kW, blended[0]);
            _mm256_store_ps(oy + k * kW, blended[1]);
            _mm256_store_ps(oz + k * kW, blended[2]);
        }
        if (widthsOut) std::fill_n(ow, count * kW, 1.0f);
    }
    // The root and the tip exactly, whatever the rounding of the walk.
    const std::size_t tip = (pointCount - 1) * kW;
    const std::size_t lastOut = (count - 1) * kW;
    _mm256_store_ps(ox, _mm256_load_ps(c.x));
    _mm256_store_ps(oy, _mm256_load_ps(c.y));
    _mm256_store_ps(oz, _mm256_load_ps(c.z));
    _mm256_store_ps(ox + lastOut, _mm256_load_ps(c.x + tip));
    _mm256_store_ps(oy + lastOut, _mm256_load_ps(c.y + tip));
    _mm256_store_ps(oz + lastOut, _mm256_load_ps(c.z + tip));
    for (std::size_t k = 0; k < count; ++k)
        float_lanes::wide::untransposePoints(ox + k * kW, oy + k * kW, oz + k * kW, out, k,
                                             k + 1 == count);
    if (widthsOut)
        for (std::size_t l = 0; l < kW; ++l)
            for (std::size_t k = 0; k < count; ++k)
                widthsOut[l][k] = ow[k * kW + l];
    // Lanes whose length is not above 0 (none, or not a number).
    return static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(total, zero, _CMP_NGT_UQ)));
}

#undef VELMORIN_ARC_LANES

}  // namespace

void trimLanes(const Vec3f* const* points, const float* keep, std::size_t pointCount,
               Vec3f* const* out) {
    assert(arcWalkLanesUsable() && pointCount >= 2 && pointCount <= kArcWalkMostPoints);
    trimWide(points, keep, pointCount, out);
}

unsigned resampleLanes(const Vec3f* const* points, const float* const* widths,
                       std::size_t pointCount, std::uint32_t segments, Vec3f* const* out,
                       float* const* widthsOut) {
    assert(arcWalkLanesUsable() && pointCount >= 2 && pointCount <= kArcWalkMostPoints &&
           segments >= 1 && segments < kArcWalkMostPoints);
    return resampleWide(points, widths, pointCount, segments, out, widthsOut);
}

#else

bool arcWalkLanesUsable() {
    return false;
}

void trimLanes(const Vec3f* const*, const float*, std::size_t, Vec3f* const*) {
    assert(false && "trimLanes without lanes");
}

unsigned resampleLanes(const Vec3f* const*, const float* const*, std::size_t, std::uint32_t,
                       Vec3f* const*, float* const*) {
    assert(false && "resampleLanes without lanes");
    return 0xFF;
}

#endif

}  // namespace velmorin
