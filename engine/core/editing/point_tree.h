#pragma once
// A k-d tree over a fixed list of points, for the nearest-neighbour questions of flow pins and
// guide roots. Its answers equal those of a scan of the points in index order: among equal
// distances the lower index wins, so a result never depends on how the tree split.

#include <cstdint>
#include <span>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

class PointTree {
  public:
    PointTree() = default;
    explicit PointTree(std::span<const Vec3f> points);

    std::size_t size() const { return points_.size(); }

    // The up to `k` (at most 16) nearest points to `p`, nearest first, with their squared
    // distances; equal distances in index order. Returns how many were found.
    int nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2) const;

    // Appends the indices of the points within `radius` of `p` (distance at most radius), in no
    // particular order.
    void within(const Vec3f& p, float radius, std::vector<std::uint32_t>& out) const;

    static constexpr int kMaxNearest = 16;

  private:
    struct Node {
        // A leaf when `axis` is -1: the points order_[begin, end). Otherwise two children, whose
        // points lie at or below `split` (left) and at or above it (right) on the axis.
        int axis = -1;
        float split = 0.0f;
        std::uint32_t begin = 0;
        std::uint32_t end = 0;
        std::uint32_t left = 0;
        std::uint32_t right = 0;
    };
    std::uint32_t build(std::uint32_t begin, std::uint32_t end);

    std::vector<Vec3f> points_;
    std::vector<std::uint32_t> order_;
    std::vector<Node> nodes_;
};

}  // namespace velmorin
