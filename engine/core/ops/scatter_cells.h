#pragma once
// What the relaxation of scatter candidates and its neighbour search share: the grain, the
// cells of their grids, and whether the processor offers the wide lanes chosen at run time.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/parallel.h"
#include "base/vec3.h"
#include "ops/scatter_placement.h"

// The block search measures four squared distances at once with SSE where the target has it (every
// x86-64 target does) and with plain floats elsewhere; both give the same bits.
#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <emmintrin.h>
#define VELMORIN_RELAX_SSE 1
#else
#define VELMORIN_RELAX_SSE 0
#endif
// The push also runs eight candidates at a time with AVX where the processor has it, chosen at run
// time: the build targets every x86-64, and most have AVX. GCC and clang only.
#if VELMORIN_RELAX_SSE && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_RELAX_AVX 1
#else
#define VELMORIN_RELAX_AVX 0
#endif

// The attributes of a function with AVX-512 lanes: the foundation, and the 32-bit masks of the
// byte and word instructions. The build never fuses a product and a sum, so a squared distance
// rounds as in the narrower lanes.
#if VELMORIN_RELAX_AVX
#define VELMORIN_AVX512_LANES __attribute__((target("avx512f,avx512bw")))
#endif

namespace velmorin::scatter {

inline constexpr std::size_t kGrain = 256;

#if VELMORIN_RELAX_AVX
inline bool wideLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx");
    return usable;
}
inline bool wideIntegerLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx2");
    return usable;
}
// Sixteen lanes (AVX-512 foundation and byte and word instructions), for the neighbour search's
// measuring and ranking.
inline bool widestLanesUsable() {
    static const bool usable =
        __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw");
    return usable;
}
#else
inline bool wideLanesUsable() {
    return false;
}
inline bool wideIntegerLanesUsable() {
    return false;
}
inline bool widestLanesUsable() {
    return false;
}
#endif

inline void forEach(std::size_t count, const RangeBody& body) {
    if (count <= kGrain) {
        if (count > 0) body(0, count);
        return;
    }
    parallelRange(0, count, kGrain, body);
}

// Cell coordinates packed 21 bits each; the offset keeps negative coordinates apart.
inline std::uint64_t cellKey(std::int64_t x, std::int64_t y, std::int64_t z) {
    constexpr std::int64_t kBias = 1 << 20;
    constexpr std::uint64_t kMask = (1u << 21) - 1;
    return (static_cast<std::uint64_t>(x + kBias) & kMask) |
           ((static_cast<std::uint64_t>(y + kBias) & kMask) << 21) |
           ((static_cast<std::uint64_t>(z + kBias) & kMask) << 42);
}

struct CellCoord {
    std::int64_t x, y, z;
};

inline CellCoord cellOf(const Vec3f& p, float inverseCell) {
    return {static_cast<std::int64_t>(std::floor(p.x * inverseCell)),
            static_cast<std::int64_t>(std::floor(p.y * inverseCell)),
            static_cast<std::int64_t>(std::floor(p.z * inverseCell))};
}

// nearestNeighbors as an object that keeps its working arrays (some tens of megabytes for a
// million candidates) from one search to the next, instead of having fresh pages cleared each time.
class NeighborSearch {
  public:
    NeighborSearch();
    ~NeighborSearch();
    NeighborSearch(const NeighborSearch&) = delete;
    NeighborSearch& operator=(const NeighborSearch&) = delete;

    void find(std::span<const Vec3f> positions, float cell, float range,
              std::span<std::uint32_t> lists, RelaxLanes lanes,
              std::span<const std::uint32_t> ranks);

    // The indices of `positions` in the order of a grid of `cell`-sized cells: cells in key order
    // (x fastest), a cell's positions in index order. Candidates kept in this order lie near their
    // neighbours in memory too. The grid is built in the working arrays the searches then reuse.
    // `lanes` changes the speed, never the order.
    std::vector<std::uint32_t> gridOrder(std::span<const Vec3f> positions, float cell,
                                         RelaxLanes lanes = RelaxLanes::widest);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace velmorin::scatter
