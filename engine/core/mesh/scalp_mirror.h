#pragma once
// Left-right symmetry of a scalp: for each point, its partner across the plane x = 0 of the mesh's
// own space, which is where a modelled head is mirrored. Symmetric brushes, guides and parts use it
// to carry an edit to the other side.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "mesh/scalp_mesh.h"

namespace velmorin {

class ScalpMirror {
  public:
    // Pairs the points of `mesh` (its rest points where it has them, so that a posed scalp keeps
    // its pairs). Prefer `of`, which shares the answer.
    explicit ScalpMirror(const ScalpMesh& mesh);

    // The shared mirror of a mesh, from a process-wide list of recently used ones keyed by the
    // topology and the positions that were paired. Thread safe.
    static std::shared_ptr<const ScalpMirror> of(const ScalpMesh& mesh);

    // The partner of each point, -1 for a point with none. Pairs are mutual: partner(partner(i))
    // is i. A point on the plane is its own partner.
    std::int32_t partner(std::uint32_t point) const { return partners_[point]; }
    std::span<const std::int32_t> partners() const { return partners_; }
    std::size_t pairedCount() const { return pairedCount_; }
    // How far a point may be from the mirror image of its partner.
    float tolerance() const { return tolerance_; }

    // The triangle made of the partners of a triangle's corners, -1 where there is none.
    std::int32_t partnerTriangle(std::uint32_t triangle) const { return triangles_[triangle]; }
    // A surface location moved to the other side: the same barycentric weights on the partner
    // triangle where there is one; where the other side is cut along another diagonal, the
    // nearest location to the mirror image on the triangles around the partner corners. A location
    // whose corners lack partners comes back unbound (face -1).
    StrandRoot mirror(const StrandRoot& root) const;

  private:
    std::vector<Vec3f> positions_;  // the paired positions
    std::vector<Triangle> corners_;
    std::shared_ptr<const SurfaceTopology> topology_;
    std::vector<std::int32_t> partners_;
    std::vector<std::int32_t> triangles_;
    // For each triangle with a partner, which partner corner carries each of its corners' weight.
    std::vector<std::array<std::uint8_t, 3>> cornerOrder_;
    std::size_t pairedCount_ = 0;
    float tolerance_ = 0.0f;
};

}  // namespace velmorin
