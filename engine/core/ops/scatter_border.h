#pragma once
// The scalp's border edges as the blue-noise relaxation sees them: at each neighbour refresh every
// candidate finds its nearest border edge close by, and at each step a candidate near one is
// pushed back inside.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/vec3.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::scatter {

struct BorderEdge;
class EdgeGrid;
struct ClearBox;

class BorderEdges {
  public:
    // A candidate with no border edge near it.
    static constexpr std::uint32_t kNone = 0xffffffffu;

    // The scalp's border edges in a grid of `cell`-wide cells: a candidate finds every edge
    // within `cell` of it.
    BorderEdges(const ScalpMesh& scalp, float cell);
    ~BorderEdges();
    BorderEdges(const BorderEdges&) = delete;
    BorderEdges& operator=(const BorderEdges&) = delete;

    // For each candidate, standing on or near the triangle of its root, the nearest border edge
    // listed in its cell, or kNone.
    void nearest(std::span<const Vec3f> positions, std::span<const StrandRoot> roots,
                 std::uint32_t* nearest) const;

    // Adds to `force` the push of border edge `edge` on a candidate of radius r at p: inward,
    // weighed by (1 - e / r) squared at a distance e below r. Beyond, nothing is added (not even
    // a zero, which would turn a -0 into +0).
    void addPush(Vec3f& force, const Vec3f& p, float r, std::uint32_t edge) const;

  private:
    std::vector<BorderEdge> edges_;
    std::unique_ptr<const EdgeGrid> grid_;
    std::vector<ClearBox> clear_;
};

}  // namespace velmorin::scatter
