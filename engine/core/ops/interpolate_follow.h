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

// Per scalp point its nearest guides along the surface (any region), nearest first: a strand's
// nearest are then read off the three corners of its triangle instead of walked from its root,
// which gives the same guides (a guide nearest by way of a corner is among that corner's nearest).
// Built for one scalp and one set of guide roots; immutable once shared.
struct SurfaceTable {
    std::size_t perPoint = 0;  // how many each point keeps (fewer where its piece has fewer)
    std::vector<std::uint32_t> start;  // per point its entries, points + 1
    std::vector<std::uint32_t> guides;
    std::vector<float> distances;
};

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
    std::shared_ptr<const SurfaceTable> table;
};

// The walk data for `guides` (the usable guides, in binding order) over `scalp`, with a table of
// the `nearestCount` nearest guides of every scalp point (none when 0). The table is kept for the
// last scalp, guide roots and count asked for, process-wide, and shared while they stay.
std::shared_ptr<const SurfaceGuides> makeSurfaceGuides(
    const std::shared_ptr<const ScalpMesh>& scalp, std::span<const Guide* const> guides,
    std::span<const StrandRoot> strandLocations, std::size_t nearestCount = 0);

// The up to `k` guides nearest to strand `s` along the scalp, nearest first (ties to the lower
// index), into `guides` and their squared distances into `d2`, in place of the `straightCount`
// straight-line answers they hold; returns how many. Only guides of region `label` count
// (-1: any). Guides rooted off the scalp keep their straight-line distance. A strand rooted off
// the scalp keeps the straight-line answer. A strand on a piece of the scalp that no guide is
// rooted on gets none. Any region and k up to the table's count read the table; otherwise each
// strand walks. Thread safe; each thread keeps its own walk.
int nearestOnSurface(const SurfaceGuides& surface, const BindingInputs& inputs, std::size_t s,
                     std::int32_t label, int k, std::uint32_t* guides, float* d2,
                     int straightCount);

}  // namespace velmorin
