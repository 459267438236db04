#pragma once
// Procedural meshes that tests, benchmarks and the command-line host share. They are built from
// formulas only, so every run gets the same points bit for bit.

#include <memory>

#include "mesh/scalp_mesh.h"

namespace velmorin {

// A UV sphere of `rings` bands and `segments` slices around the origin, with UVs.
std::shared_ptr<const ScalpMesh> makeSphere(float radius, int rings, int segments);

// A head-like scalp: the upper back of a slightly long skull, open along a hairline above the
// forehead, around the ears and across the nape, in quads, with UVs unwrapped from above.
// `detail` scales the quad count roughly by its square (detail 1 is about 1,000 quads).
std::shared_ptr<const ScalpMesh> makeHeadScalp(int detail = 1);

// A square in the XZ plane of side `size` centred on the origin, facing +Y, split into
// `divisions` x `divisions` quads, with UVs over 0..1.
std::shared_ptr<const ScalpMesh> makeUvPlane(float size, int divisions);

}  // namespace velmorin
