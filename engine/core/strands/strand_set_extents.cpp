#include "strands/strand_set.h"

#include <cassert>
#include <cmath>

#include "base/parallel.h"

// The extent kernels use SSE where the target has it (every x86-64 target does) and plain floats
// elsewhere; both give the same bits.
#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <xmmintrin.h>
#define VELMORIN_STRANDS_SSE 1
#else
#define VELMORIN_STRANDS_SSE 0
#endif

namespace velmorin {
namespace {

using Extent = StrandSet::Extent;

static_assert(StrandSet::kBlockStrands == std::size_t{1} << 11, "a strand's block is strand >> 11");

std::size_t blockCountFor(std::size_t strands) {
    return (strands + StrandSet::kBlockStrands - 1) >> 11;
}

// Comparisons with a NaN are false, so these keep the old value when `value` is NaN.
float lesser(float value, float current) {
    return value < current ? value : current;
}
float greater(float value, float current) {
    return value > current ? value : current;
}

void include(Extent& into, const Extent& block) {
    into.min = {lesser(block.min.x, into.min.x), lesser(block.min.y, into.min.y),
                lesser(block.min.z, into.min.z)};
    into.max = {greater(block.max.x, into.max.x), greater(block.max.y, into.max.y),
                greater(block.max.z, into.max.z)};
    into.longest = greater(block.longest, into.longest);
    into.finite = into.finite && block.finite;
}

Extent mergeBlocks(const std::vector<Extent>& blocks) {
    Extent whole;
    for (const Extent& block : blocks)
        include(whole, block);
    return whole;
}

// Smallest and largest coordinates of points [begin, end) and the sum of x - x + y - y + z - z
// over them, which is exactly 0 unless a coordinate is NaN or infinite. The results go into
// twelve lanes, lane j holding axis j % 3, so that four points are taken at a time.
struct PointScan {
    float lo[12];
    float hi[12];
    float check[12];
};

PointScan scanPoints(const Vec3f* points, std::size_t begin, std::size_t end) {
    PointScan scan;
    const Extent initial;
    std::size_t p = begin;
#if VELMORIN_STRANDS_SSE
    // Four points are three registers: x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3. minps and maxps
    // return their second operand when either is NaN, so a NaN never enters the running values.
    __m128 lo[3], hi[3], check[3];
    for (int j = 0; j < 3; ++j) {
        lo[j] = _mm_set1_ps(initial.min.x);
        hi[j] = _mm_set1_ps(initial.max.x);
        check[j] = _mm_setzero_ps();
    }
    for (; p + 4 <= end; p += 4) {
        const __m128 v[3] = {_mm_loadu_ps(&points[p].x), _mm_loadu_ps(&points[p + 1].y),
                             _mm_loadu_ps(&points[p + 2].z)};
        for (int j = 0; j < 3; ++j) {
            lo[j] = _mm_min_ps(v[j], lo[j]);
            hi[j] = _mm_max_ps(v[j], hi[j]);
            check[j] = _mm_add_ps(check[j], _mm_sub_ps(v[j], v[j]));
        }
    }
    for (int j = 0; j < 3; ++j) {
        _mm_storeu_ps(scan.lo + 4 * j, lo[j]);
        _mm_storeu_ps(scan.hi + 4 * j, hi[j]);
        _mm_storeu_ps(scan.check + 4 * j, check[j]);
    }
#else
    for (int j = 0; j < 12; ++j) {
        scan.lo[j] = initial.min.x;
        scan.hi[j] = initial.max.x;
        scan.check[j] = 0.0f;
    }
#endif
    for (; p < end; ++p) {
        const float f[3] = {points[p].x, points[p].y, points[p].z};
        for (int j = 0; j < 3; ++j) {
            scan.lo[j] = lesser(f[j], scan.lo[j]);
            scan.hi[j] = greater(f[j], scan.hi[j]);
            scan.check[j] += f[j] - f[j];
        }
    }
    return scan;
}

#if VELMORIN_STRANDS_SSE
// Four consecutive points starting at `p` as x0..x3, y0..y3, z0..z3.
void loadTransposed(const Vec3f* points, std::size_t p, __m128& x, __m128& y, __m128& z) {
    const __m128 a = _mm_loadu_ps(&points[p].x);                      // x0 y0 z0 x1
    const __m128 b = _mm_loadu_ps(&points[p + 1].y);                  // y1 z1 x2 y2
    const __m128 c = _mm_loadu_ps(&points[p + 2].z);                  // z2 x3 y3 z3
    const __m128 xy = _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 1, 3, 2));  // x2 y2 x3 y3
    const __m128 yz = _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
    x = _mm_shuffle_ps(a, xy, _MM_SHUFFLE(2, 0, 3, 0));
    y = _mm_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));
    z = _mm_shuffle_ps(yz, c, _MM_SHUFFLE(3, 0, 3, 1));
}
#endif

// out[k - begin] = |points[k + 1] - points[k]| for k in [begin, end), computed as
// sqrt(dot(d, d)) in float with the same operations in the same order on every path.
void segmentLengths(const Vec3f* points, std::size_t begin, std::size_t end, float* out) {
    std::size_t k = begin;
#if VELMORIN_STRANDS_SSE
    for (; k + 4 <= end; k += 4) {
        __m128 x0, y0, z0, x1, y1, z1;
        loadTransposed(points, k, x0, y0, z0);
        loadTransposed(points, k + 1, x1, y1, z1);
        const __m128 dx = _mm_sub_ps(x1, x0);
        const __m128 dy = _mm_sub_ps(y1, y0);
        const __m128 dz = _mm_sub_ps(z1, z0);
        const __m128 squared =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        _mm_storeu_ps(out + (k - begin), _mm_sqrt_ps(squared));
    }
#endif
    for (; k < end; ++k) {
        const Vec3f d = points[k + 1] - points[k];
        out[k - begin] = std::sqrt(dot(d, d));
    }
}

// The extent of block `block`: one flat pass over its points for min, max and the finite check,
// then the polyline lengths strand by strand from segment lengths computed a window at a time
// (the block's points are still in cache by then).
Extent blockExtent(std::span<const std::uint64_t> offsets, std::span<const Vec3f> points,
                   std::size_t block) {
    const std::size_t strandCount = offsets.size() - 1;
    const std::size_t first = block * StrandSet::kBlockStrands;
    const std::size_t end = std::min(first + StrandSet::kBlockStrands, strandCount);
    const std::size_t pointBegin = offsets[first];
    const std::size_t pointEnd = offsets[end];
    assert(pointBegin <= pointEnd && pointEnd <= points.size());

    const PointScan scan = scanPoints(points.data(), pointBegin, pointEnd);
    Extent extent;
    float sum = 0.0f;
    for (int j = 0; j < 12; ++j) {
        float* axisMin = j % 3 == 0 ? &extent.min.x : j % 3 == 1 ? &extent.min.y : &extent.min.z;
        float* axisMax = j % 3 == 0 ? &extent.max.x : j % 3 == 1 ? &extent.max.y : &extent.max.z;
        *axisMin = lesser(scan.lo[j], *axisMin);
        *axisMax = greater(scan.hi[j], *axisMax);
        sum += scan.check[j];
    }
    extent.finite = sum == 0.0f;

    // Segments that cross from one strand to the next are computed with the rest and never used.
    constexpr std::size_t kWindow = 256;
    float segments[kWindow];
    std::size_t windowBegin = pointBegin;
    std::size_t windowEnd = pointBegin;
    const std::size_t lastSegmentEnd = pointEnd > pointBegin ? pointEnd - 1 : pointBegin;
    for (std::size_t s = first; s < end; ++s) {
        float length = 0.0f;
        const std::size_t stop = offsets[s + 1];
        for (std::size_t k = offsets[s]; k + 1 < stop; ++k) {
            if (k >= windowEnd) {
                windowBegin = k;
                windowEnd = std::min(k + kWindow, lastSegmentEnd);
                segmentLengths(points.data(), windowBegin, windowEnd, segments);
            }
            length += segments[k - windowBegin];
        }
        extent.longest = greater(length, extent.longest);
    }
    return extent;
}

}  // namespace

// ---- Extents

void StrandSet::storeExtents(const Extent& whole,
                             std::shared_ptr<const std::vector<Extent>> blocks) const {
    auto wholeCopy = std::make_shared<const Extent>(whole);
    std::lock_guard guard(extentLock_);
    if (cacheValid_) return;
    boundsCache_ = std::move(wholeCopy);
    blockExtentsCache_ = std::move(blocks);
    cacheValid_ = true;
}

StrandSet::Extent StrandSet::bounds() const {
    {
        std::lock_guard guard(extentLock_);
        if (cacheValid_) return *boundsCache_;
    }
    // Computed outside the lock: while the loop waits for its chunks, this thread may run other
    // tasks, and one of them may ask for these same bounds. Two threads that both compute them
    // get the same values, and the first to finish stores them.
    const std::size_t blockCount = blockCountFor(strandCount());
    auto blocks = std::make_shared<std::vector<Extent>>(blockCount);
    const std::span<const std::uint64_t> offsetsFrom = offsets();
    const std::span<const Vec3f> pointsFrom = points();
    parallelRange(0, blockCount, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b)
            (*blocks)[b] = blockExtent(offsetsFrom, pointsFrom, b);
    });
    const Extent whole = mergeBlocks(*blocks);
    storeExtents(whole, std::move(blocks));
    return whole;
}

StrandSet::Extent StrandSet::boundsAfter(const StrandSet& previous,
                                         std::span<const std::uint64_t> changedStrands) const {
    {
        std::lock_guard guard(extentLock_);
        if (cacheValid_) return *boundsCache_;
    }
    std::shared_ptr<const std::vector<Extent>> reused;
    {
        std::lock_guard guard(previous.extentLock_);
        if (previous.cacheValid_) reused = previous.blockExtentsCache_;
    }
    const std::size_t blockCount = blockCountFor(strandCount());
    if (!reused || reused->size() != blockCount || previous.strandCount() != strandCount() ||
        previous.pointCount() != pointCount())
        return bounds();

    std::vector<unsigned char> dirty(blockCount);
    std::vector<std::size_t> recompute;
    for (std::uint64_t strand : changedStrands) {
        const std::uint64_t block = strand >> 11;
        if (block < blockCount && !dirty[block]) {
            dirty[block] = 1;
            recompute.push_back(block);
        }
    }
    auto blocks = std::make_shared<std::vector<Extent>>(*reused);
    const std::span<const std::uint64_t> offsetsFrom = offsets();
    const std::span<const Vec3f> pointsFrom = points();
    parallelRange(0, recompute.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k)
            (*blocks)[recompute[k]] = blockExtent(offsetsFrom, pointsFrom, recompute[k]);
    });
    const Extent whole = mergeBlocks(*blocks);
    storeExtents(whole, std::move(blocks));
    return whole;
}

}  // namespace velmorin
