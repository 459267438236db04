#pragma once
// One of the meshes a groom's scalp was merged from, as a mesh of its own: what a Scalp node hands
// on when it names one of the groom's scalps, so that a Scatter grows hair on that piece alone.
// The piece remembers its name as its one scalp range, which is how a consumer finds where its
// faces sit in the whole scalp again.

#include <cstdint>
#include <optional>
#include <string_view>

#include "mesh/scalp_mesh.h"

namespace velmorin {

// The range of `scalp` named `name`, or null.
const ScalpRange* findScalpRange(const ScalpMesh& scalp, std::string_view name);

// The triangles and points of `range` with their UVs, colour sets, rest points and subdivision
// record (with the range's own count of coarse faces), the points renumbered from 0, as a mesh
// whose one scalp range carries the range's name. Polygons are kept where the range starts and
// ends on polygon boundaries, else each triangle is its own polygon.
ScalpMesh cutScalpRange(const ScalpMesh& scalp, const ScalpRange& range);

// Where a piece cut by cutScalpRange starts in `whole`: the first triangle of the range of the
// same name and size. Nothing when `piece` is `whole` itself or is no piece of it.
std::optional<std::uint32_t> pieceFaceOffset(const ScalpMesh& piece, const ScalpMesh* whole);

}  // namespace velmorin
