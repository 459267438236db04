#pragma once
// keepClearance of Interpolate: after the shape stage each strand walks from root to tip over a
// signed distance field of the scalp; where it would sink below its target height over the skin
// the point is pushed out along the field with the segment's length kept, and past the lifted
// stretch the carried offset eases off so that the strand regains its groomed path.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "mesh/distance_field.h"
#include "ops/interpolate_binding.h"
#include "strands/guide.h"

namespace velmorin {

// The field of one scalp and what the walk reads of the guides. Immutable once shared.
struct InterpolateClearance {
    std::shared_ptr<const MeshDistanceField> field;
    // Per guide the lowest height over the skin of its points past the root, never above 0: a
    // strand may sink as deep as its guides do, and is lifted no higher than onto the skin.
    std::vector<float> guideHeights;
    // How far past a lifted stretch the carried offset halves.
    float ease = 0.0f;
    // On a deformed scalp (points away from its rest points) the field is the rest pose's, so
    // that one field serves every frame: each strand is carried to the rest pose by the frames
    // of its root on the two surfaces, walked there, and its pushes carried back. Null at rest.
    std::shared_ptr<const ScalpMesh> deformed;
    std::shared_ptr<const ScalpMesh> rest;
};

// The scalp's clearance field from the shared cache: cells of a 128th of the bounding diagonal
// (at most 256 along an axis), exact within 4 cells of the skin. Null for a scalp with no size.
std::shared_ptr<const MeshDistanceField> clearanceField(
    const std::shared_ptr<const ScalpMesh>& scalp);

// The scalp in its rest pose where it is deformed (rest points given, one per point, and some
// point away from its rest point); null where it rests as it is.
std::shared_ptr<const ScalpMesh> restScalp(const ScalpMesh& scalp);

// The clearance of `guides` over `field`. With a `deformed` scalp and its `rest` pose, `field` is
// the rest pose's and the guides are carried to it by their roots' frames; guides rooted off the
// scalp then count as lying on the skin.
InterpolateClearance makeClearance(std::shared_ptr<const MeshDistanceField> field,
                                   std::span<const Guide* const> guides,
                                   std::shared_ptr<const ScalpMesh> deformed = nullptr,
                                   std::shared_ptr<const ScalpMesh> rest = nullptr);

// Walks the listed strands (all when `only` is empty) of a set with `offsets`, whose shaped
// points are `points`, lifting them out of the skin. Strands with no binding record stay as they
// are; so do, on a deformed scalp, strands whose `roots` (one per strand there) lie off it.
// Parallel by 256 strands; the same bits at any thread count.
void keepClearance(const InterpolateState& state, const InterpolateClearance& clearance,
                   std::span<const std::uint64_t> offsets, std::span<Vec3f> points,
                   std::span<const std::uint64_t> only = {},
                   std::span<const StrandRoot> roots = {});

}  // namespace velmorin
