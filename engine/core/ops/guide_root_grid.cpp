#include "ops/guide_root_grid.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace velmorin {
namespace {

constexpr float kNoBound = 3.4e38f;

// Keeps the best k of (distance, index) pairs, sorted, lower index first among equals.
inline void insertBest(int k, int& count, std::uint32_t* indices, float* d2, std::uint32_t index,
                       float distance2) {
    if (count == k && (distance2 > d2[k - 1] || (distance2 == d2[k - 1] && index > indices[k - 1])))
        return;
    int at = count < k ? count++ : k - 1;
    while (at > 0 &&
           (d2[at - 1] > distance2 || (d2[at - 1] == distance2 && indices[at - 1] > index))) {
        d2[at] = d2[at - 1];
        indices[at] = indices[at - 1];
        --at;
    }
    d2[at] = distance2;
    indices[at] = index;
}

}  // namespace

GuideRootGrid::GuideRootGrid(std::span<const Vec3f> points,
                             std::span<const std::uint32_t> indices) {
    assert(points.size() == indices.size());
    if (points.empty()) return;
    Vec3f lo = points[0], hi = points[0];
    for (const Vec3f& p : points) {
        lo = minPerAxis(lo, p);
        hi = maxPerAxis(hi, p);
    }
    const Vec3f extent = hi - lo;
    // Roots lie on a surface, so the cell follows the spacing over the box's face areas rather
    // than its volume: about one or two roots a cell.
    const double area = static_cast<double>(extent.x) * extent.y +
                        static_cast<double>(extent.y) * extent.z +
                        static_cast<double>(extent.z) * extent.x;
    const double largest = std::max({extent.x, extent.y, extent.z});
    double cell = std::sqrt(area / static_cast<double>(points.size())) * 1.2;
    if (!(cell > largest * 1e-4)) cell = largest > 0.0 ? largest / 64.0 : 1.0;
    // No more than about eight cells a root, nor 512 along an axis.
    for (;;) {
        std::size_t total = 1;
        for (int a = 0; a < 3; ++a) {
            dims_[a] = std::clamp(static_cast<int>(extent[a] / cell) + 1, 1, 512);
            total *= static_cast<std::size_t>(dims_[a]);
        }
        if (total <= points.size() * 8 + 64) break;
        cell *= 1.25;
    }
    min_ = lo;
    cell_ = static_cast<float>(cell);
    const std::size_t cells =
        static_cast<std::size_t>(dims_[0]) * static_cast<std::size_t>(dims_[1]) * dims_[2];
    std::vector<std::uint32_t> cellOf(points.size());
    cellStart_.assign(cells + 1, 0);
    for (std::size_t i = 0; i < points.size(); ++i) {
        int c[3];
        for (int a = 0; a < 3; ++a)
            c[a] = std::clamp(static_cast<int>((points[i][a] - min_[a]) / cell_), 0, dims_[a] - 1);
        cellOf[i] = static_cast<std::uint32_t>((c[2] * dims_[1] + c[1]) * dims_[0] + c[0]);
        ++cellStart_[cellOf[i] + 1];
    }
    for (std::size_t c = 0; c < cells; ++c)
        cellStart_[c + 1] += cellStart_[c];
    points_.resize(points.size());
    indices_.resize(points.size());
    std::vector<std::uint32_t> fill(cellStart_.begin(), cellStart_.end() - 1);
    for (std::size_t i = 0; i < points.size(); ++i) {
        const std::uint32_t at = fill[cellOf[i]]++;
        points_[at] = points[i];
        indices_[at] = indices[i];
    }
}

int GuideRootGrid::nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2) const {
    assert(std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z));
    k = std::min({k, kMaxNearest, static_cast<int>(points_.size())});
    if (k <= 0) return 0;
    int center[3];
    for (int a = 0; a < 3; ++a) {
        const float at = (p[a] - min_[a]) / cell_;
        center[a] = at <= 0.0f ? 0 : std::min(static_cast<int>(at), dims_[a] - 1);
    }
    int count = 0;
    const auto visit = [&](int x, int y, int z) {
        const std::size_t cell = (static_cast<std::size_t>(z) * dims_[1] + y) * dims_[0] + x;
        for (std::uint32_t i = cellStart_[cell]; i < cellStart_[cell + 1]; ++i) {
            const Vec3f d = points_[i] - p;
            insertBest(k, count, indices, distances2, indices_[i], dot(d, d));
        }
    };
    for (int ring = 0;; ++ring) {
        int lo[3], hi[3];
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::max(center[a] - ring, 0);
            hi[a] = std::min(center[a] + ring, dims_[a] - 1);
        }
        for (int z = lo[2]; z <= hi[2]; ++z) {
            const bool zEdge = z == center[2] - ring || z == center[2] + ring;
            for (int y = lo[1]; y <= hi[1]; ++y) {
                const bool yzEdge = zEdge || y == center[1] - ring || y == center[1] + ring;
                if (yzEdge) {
                    for (int x = lo[0]; x <= hi[0]; ++x)
                        visit(x, y, z);
                } else {
                    if (center[0] - ring >= 0) visit(center[0] - ring, y, z);
                    if (ring > 0 && center[0] + ring < dims_[0]) visit(center[0] + ring, y, z);
                }
            }
        }
        // Every cell not visited lies beyond a face of this box that is not the grid's edge.
        float bound = kNoBound;
        for (int a = 0; a < 3; ++a) {
            if (lo[a] > 0) bound = std::min(bound, p[a] - (min_[a] + lo[a] * cell_));
            if (hi[a] < dims_[a] - 1) bound = std::min(bound, min_[a] + (hi[a] + 1) * cell_ - p[a]);
        }
        if (bound == kNoBound) break;
        if (count == k && bound > 0.0f && distances2[k - 1] <= bound * bound) break;
    }
    return count;
}

}  // namespace velmorin
