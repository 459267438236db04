#pragma once
// followSurface of Interpolate: which guides are nearest to a strand, measured along the scalp
// rather than through the air, so that a guide behind an ear, across a fold or on the other side
// of a thin shell does not pull strands it is near only in a straight line. Distances go from the
// strand's root over the scalp's edges (mesh/surface_graph.h) to a corner of the guide's triangle
// and across it to the guide's root; a root that lies off the scalp keeps the straight-line answer.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "mesh/surface_graph.h"
#include "ops/interpolate_binding.h"
#include "strands/guide.h"

namespace velmorin {

// What the walk reads of one run's scalp and guides. Holds `strandLocations` by reference: the
// strands' set must outlive the binding that uses it.
struct SurfaceGuides {
    std::shared_ptr<const ScalpMesh> scalp;
    std::shared_ptr<const SurfaceGraph> graph;
    std::span<const StrandRoot> strandLocations;  // one per strand
    std::vector<std::int32_t> guideFaces;         // per guide its triangle, -1 off the scalp
    std::vector<Vec3f> guidePoints;               // per guide its root on the scalp
    // Per scalp point the guides rooted on a triangle it is a corner of.
    std::vector<std::uint32_t> cornerStart;
    std::vector<std::uint32_t> cornerGuides;
    std::vector<std::uint32_t> pieceSizes;  // per piece of the scalp, its points
    float greatestRadius = 0.0f;            // past this every piece has been walked whole
};

// The walk data for `guides` (the usable guides, in binding order) over `scalp`.
std::shared_ptr<const SurfaceGuides> makeSurfaceGuides(
    const std::shared_ptr<const ScalpMesh>& scalp, std::span<const Guide* const> guides,
    std::span<const StrandRoot> strandLocations);

// The up to `k` guides nearest to strand `s` along the scalp, nearest first (ties to the lower
// index), into `guides` and their squared distances into `d2`, in place of the `straightCount`
// straight-line answers they hold; returns how many. Only guides of region `label` count
// (-1: any). Guides rooted off the scalp keep their straight-line distance. A strand rooted off
// the scalp keeps the straight-line answer. A strand on a piece of the scalp that no guide is
// rooted on gets none. Thread safe; each thread keeps its own walk.
int nearestOnSurface(const SurfaceGuides& surface, const BindingInputs& inputs, std::size_t s,
                     std::int32_t label, int k, std::uint32_t* guides, float* d2,
                     int straightCount);

}  // namespace velmorin
