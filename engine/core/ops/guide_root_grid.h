#pragma once
// A uniform grid over guide roots, for the many nearest-guide questions of Interpolate's binding:
// one per strand, up to 67 guides each, which is more than the k-d tree of the editing tools
// answers. Answers equal those of a scan of the points in index order: among equal distances the
// lower index wins, so a binding never depends on how the grid was cut.

#include <cstdint>
#include <span>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

class GuideRootGrid {
  public:
    static constexpr int kMaxNearest = 72;

    GuideRootGrid() = default;
    // `points` must be finite; `indices` (one per point, ascending) are what queries report.
    // `typicalK` is how many nearest points most queries will ask for: it sizes the cells so
    // that such a query usually ends after the cells next to its own. Answers do not depend on it.
    GuideRootGrid(std::span<const Vec3f> points, std::span<const std::uint32_t> indices,
                  int typicalK = 1);

    std::size_t size() const { return points_.size(); }

    // The up to `k` (at most kMaxNearest) nearest points to `p`, nearest first, with their
    // squared distances; equal distances in index order. Returns how many were found. Reads only.
    // `within2`, when the caller knows k points no farther than that squared distance (the
    // answer of a query nearby), lets the search skip every cell beyond it from the start; the
    // answer is the same.
    int nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                float within2 = 3.4e38f) const;

  private:
    Vec3f min_;
    float cell_ = 1.0f;
    int dims_[3] = {1, 1, 1};
    std::vector<std::uint32_t> cellStart_;  // cells + 1 entries
    std::vector<Vec3f> points_;             // in cell order
    std::vector<std::uint32_t> indices_;    // in cell order, ascending within a cell
};

}  // namespace velmorin
