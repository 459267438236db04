#include "ops/interpolate_shape_lanes.h"

#include "base/fast_trig_lanes.h"
#include "base/float_lanes.h"

namespace velmorin::interpolate_lanes {

#if VELMORIN_FLOAT_LANES
// The steps once for each lane width: the same text over four SSE2 lanes and over eight AVX
// lanes, the latter built for AVX alone.
namespace {
namespace narrow_shape {
using namespace float_lanes::narrow;
#define VELMORIN_LANES_TARGET
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace narrow_shape
namespace wide_shape {
using namespace float_lanes::wide;
#define VELMORIN_LANES_TARGET __attribute__((target("avx")))
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace wide_shape

#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Sixteen lanes of AVX-512: the shared ones, with the block transpose this text needs.
namespace widest_lanes {
using namespace float_lanes::widest;

#define VELMORIN_WIDEST __attribute__((target("avx512f"), always_inline)) inline

// transposeBlock for sixteen rows of sixteen floats: columns[j * 16 + l] = rows[l * rowStride +
// j], made as four blocks of eight.
VELMORIN_WIDEST void transposeBlock(const float* rows, std::size_t rowStride, float* columns) {
    alignas(32) float block[kWideLanes * kWideLanes];
    for (std::size_t half = 0; half < 2; ++half)        // lanes 0-7, then 8-15
        for (std::size_t part = 0; part < 2; ++part) {  // samples 0-7, then 8-15
            float_lanes::wide::transposeBlock(
                rows + half * kWideLanes * rowStride + part * kWideLanes, rowStride, block);
            for (std::size_t j = 0; j < kWideLanes; ++j)
                _mm256_storeu_ps(columns + (part * kWideLanes + j) * kWidth + half * kWideLanes,
                                 _mm256_load_ps(block + j * kWideLanes));
        }
}

#undef VELMORIN_WIDEST

}  // namespace widest_lanes

namespace widest_shape {
using namespace widest_lanes;
#define VELMORIN_LANES_TARGET __attribute__((target("avx512f")))
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace widest_shape
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
}  // namespace
#endif

bool sideBySideAvailable() {
    return VELMORIN_FLOAT_LANES != 0;
}

bool widestLanesUsable() {
#if VELMORIN_FLOAT_LANES
    static const bool usable = __builtin_cpu_supports("avx512f");
    return usable;
#else
    return false;
#endif
}

bool shapeLanes([[maybe_unused]] std::size_t width, [[maybe_unused]] LaneScratch& g,
                [[maybe_unused]] std::size_t samples, [[maybe_unused]] std::size_t points,
                [[maybe_unused]] bool directions, [[maybe_unused]] bool preserveLength,
                [[maybe_unused]] Vec3f* const* out) {
#if VELMORIN_FLOAT_LANES
    if (width == kWidestLanes)
        return widest_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
    if (width == kWideLanes)
        return wide_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
    return narrow_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
#else
    return false;
#endif
}

}  // namespace velmorin::interpolate_lanes
