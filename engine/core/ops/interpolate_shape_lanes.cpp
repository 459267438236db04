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
}  // namespace
#endif

bool sideBySideAvailable() {
    return VELMORIN_FLOAT_LANES != 0;
}

bool shapeLanes([[maybe_unused]] std::size_t width, [[maybe_unused]] LaneScratch& g,
                [[maybe_unused]] std::size_t samples, [[maybe_unused]] std::size_t points,
                [[maybe_unused]] bool directions, [[maybe_unused]] bool preserveLength,
                [[maybe_unused]] Vec3f* const* out) {
#if VELMORIN_FLOAT_LANES
    if (width == kGroupLanes)
        return wide_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
    return narrow_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
#else
    return false;
#endif
}

}  // namespace velmorin::interpolate_lanes
