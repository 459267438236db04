#pragma once
// A groom to look at without a graph: strands grown straight from a scalp, lifted along the normal
// and combed down by gravity, cut shorter towards the face (+Z), with a brown colour that lightens
// towards the tips. The preview
// renderer's tests, its benchmark and the sample pictures draw it.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/vec3.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;

struct SampleGroomOptions {
    std::size_t count = 20000;
    int points = 9;       // per strand, 2 or more
    float length = 0.0f;  // 0: the height of the scalp's bounding box
    float rootWidth = 0.012f;
    float tipWidth = 0.004f;
    float gravity = 0.9f;                // 0 straight along the normal, 1 combed flat along -Y
    Vec3f color{0.06f, 0.028f, 0.013f};  // linear RGB at the root
    // Push points that sink into the scalp back out to its surface (a closest-point query per
    // point: slower, but no hair through the skull).
    bool keepOutOfScalp = true;
    std::uint64_t seed = 1;
};

// Strands spread over the scalp by area, ids hashed from the seed and the strand's number, roots
// bound to the scalp, widths tapering to the tip, colour in the point channels of
// channels::kColor. The same scalp and options give the same strands at any thread count. Throws
// std::invalid_argument "sample groom: the scalp has no triangles" and "sample groom: a strand
// needs 2 points or more".
StrandSet growSampleGroom(const ScalpMesh& scalp, const SampleGroomOptions& options = {});

// The head-like sample scalp (makeHeadScalp) with the rest of a head under it, for pictures only:
// the sample scalp stops at the hairline, and hair over an empty face reads as a hat. The head is
// the skull's ellipsoid the sample scalp is laid on, a little inside it, stretched down for the
// face. Other scalps get the same ellipsoid, which fits only the sample.
std::shared_ptr<const ScalpMesh> withSampleHead(const ScalpMesh& scalp);

}  // namespace velmorin
