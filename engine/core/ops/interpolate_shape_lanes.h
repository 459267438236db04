#pragma once
// Interpolate's shape stage for strands side by side: strands of one point count, one per lane
// (sixteen with AVX-512, eight with AVX, four with SSE), so that the steps each strand takes one
// after another (its arc lengths summed in order, its length restored, its points placed along the
// table) overlap across the group. Every lane does the operations of the one-strand path in the
// same order, so the bits are the same. Each strand's blend is still made alone, over its samples,
// then turned into lanes.

#include <cstddef>
#include <span>

#include "base/vec3.h"

namespace velmorin::interpolate_lanes {

// The most samples a guide row has, and the padding of a row: loops over samples cover whole
// groups of eight (sixteen in the widest lanes), and may read and write up to a whole group of
// eight past the last sample.
inline constexpr std::size_t kMaxSamples = 64;
inline constexpr std::size_t kWideLanes = 8;
inline constexpr std::size_t kPaddedSamples = kMaxSamples + 2 * kWideLanes;
// Strands per group: sixteen with AVX-512, eight with AVX, or four.
inline constexpr std::size_t kWidestLanes = 16;
inline constexpr std::size_t kGroupLanes = kWidestLanes;
inline constexpr std::size_t kFourLanes = 4;

// A group's curves: per strand its blended samples as planar runs, then the same turned into
// lanes, sample j of every strand side by side at j * width.
struct LaneScratch {
    alignas(64) float x[kGroupLanes][kPaddedSamples];
    alignas(64) float y[kGroupLanes][kPaddedSamples];
    alignas(64) float z[kGroupLanes][kPaddedSamples];
    alignas(64) float lx[kPaddedSamples * kGroupLanes];
    alignas(64) float ly[kPaddedSamples * kGroupLanes];
    alignas(64) float lz[kPaddedSamples * kGroupLanes];
    alignas(64) float segment[kPaddedSamples * kGroupLanes];
    alignas(64) float arc[kPaddedSamples * kGroupLanes];
    alignas(64) float rootX[kGroupLanes], rootY[kGroupLanes], rootZ[kGroupLanes];
    alignas(64) float guideLength[kGroupLanes];
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

// Whether the lanes are there: SSE2 and GCC or clang.
bool sideBySideAvailable();
// Whether the processor runs sixteen lanes (AVX-512).
bool widestLanesUsable();

// Steps 5 to 7 of the shape of `width` strands (kWidestLanes, only where widestLanesUsable;
// kWideLanes, only where the processor has AVX; or kFourLanes) of `points` points, whose blended
// curves are in g.x, g.y, g.z (`samples` samples each), with their roots and guide lengths in g:
// points 1 onward are written to out[l] (point 0 is the root, for the caller). Returns false,
// having written nothing, where a lane's curve has a length that is not a number or infinite: the
// one-strand path's walk along the table then decides.
bool shapeLanes(std::size_t width, LaneScratch& g, std::size_t samples, std::size_t points,
                bool directions, bool preserveLength, Vec3f* const* out);

}  // namespace velmorin::interpolate_lanes
