#include "common/starter_guides.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <queue>
#include <stdexcept>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

// Candidates per guide: enough that the farthest-point picks leave no visible gaps, few enough
// that ten thousand guides take a moment.
constexpr std::size_t kCandidatesPerGuide = 8;
constexpr std::size_t kMinCandidates = 256;

// Candidate roots spread over the surface by area, each drawn from hashes of the seed and its
// index.
std::vector<StrandRoot> candidateRoots(const ScalpMesh& scalp, std::size_t count,
                                       std::uint64_t seed) {
    const auto& points = scalp.points();
    std::vector<double> cumulative;
    cumulative.reserve(scalp.triangleCount());
    double total = 0.0;
    for (const Triangle& t : scalp.triangles()) {
        total += 0.5 * length(cross(points[t[1]] - points[t[0]], points[t[2]] - points[t[0]]));
        cumulative.push_back(total);
    }
    if (!(total > 0.0)) throw std::invalid_argument("starter guides: the scalp has no area");
    std::vector<StrandRoot> roots(count);
    const std::uint64_t base = mix64(seed ^ 0x7374617274ull);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t h = hashCombine(base, i);
        const double at = unitFloat(h) * total;
        const auto found = std::upper_bound(cumulative.begin(), cumulative.end(), at);
        const auto face = static_cast<std::int32_t>(std::min<std::ptrdiff_t>(
            found - cumulative.begin(), static_cast<std::ptrdiff_t>(cumulative.size()) - 1));
        // Uniform over the triangle: fold the unit square's far half back onto it.
        float u = unitFloat(hashCombine(h, 1));
        float v = unitFloat(hashCombine(h, 2));
        if (u + v > 1.0f) {
            u = 1.0f - u;
            v = 1.0f - v;
        }
        roots[i] = StrandRoot{face, u, v};
    }
    return roots;
}

// Candidates in a uniform grid of about one per cell, for the updates of spreadRoots: only the
// candidates within a radius of the newest pick can come closer to the picks.
class CandidateGrid {
  public:
    explicit CandidateGrid(const std::vector<Vec3f>& points) {
        low_ = high_ = points.front();
        for (const Vec3f& p : points) {
            low_ = minPerAxis(low_, p);
            high_ = maxPerAxis(high_, p);
        }
        const Vec3f extent = high_ - low_;
        const float largest = std::max({extent.x, extent.y, extent.z, 1e-6f});
        // A flat scalp still gets a volume, so the cell size stays finite.
        double volume = 1.0;
        for (int axis = 0; axis < 3; ++axis)
            volume *= std::max(extent[axis], 1e-3f * largest);
        cell_ = static_cast<float>(std::cbrt(volume / static_cast<double>(points.size())));
        cell_ = std::max(cell_, largest / 1024.0f);
        for (int axis = 0; axis < 3; ++axis)
            dims_[axis] = std::max(1, static_cast<int>(extent[axis] / cell_) + 1);
        const std::size_t cells = static_cast<std::size_t>(dims_[0]) * dims_[1] * dims_[2];
        std::vector<std::uint32_t> cellOf(points.size());
        start_.assign(cells + 1, 0);
        for (std::size_t i = 0; i < points.size(); ++i) {
            cellOf[i] = static_cast<std::uint32_t>(index(coordinates(points[i])));
            ++start_[cellOf[i] + 1];
        }
        for (std::size_t c = 0; c < cells; ++c)
            start_[c + 1] += start_[c];
        members_.resize(points.size());
        std::vector<std::uint32_t> fill(start_.begin(), start_.end() - 1);
        for (std::size_t i = 0; i < points.size(); ++i)
            members_[fill[cellOf[i]]++] = static_cast<std::uint32_t>(i);
    }

    // Calls visit(index) for every candidate in the cells that a ball of `radius` about `center`
    // touches (and some beyond it).
    template <class Visit>
    void forEachNear(const Vec3f& center, float radius, Visit visit) const {
        std::array<int, 3> from{}, to{};
        for (int axis = 0; axis < 3; ++axis) {
            const float low = (center[axis] - radius - low_[axis]) / cell_;
            const float high = (center[axis] + radius - low_[axis]) / cell_;
            from[axis] = low <= 0.0f ? 0 : static_cast<int>(std::min(low, 1e9f));
            to[axis] = high >= static_cast<float>(dims_[axis] - 1)
                           ? dims_[axis] - 1
                           : std::max(0, static_cast<int>(high));
        }
        for (int z = from[2]; z <= to[2]; ++z)
            for (int y = from[1]; y <= to[1]; ++y)
                for (int x = from[0]; x <= to[0]; ++x) {
                    const std::size_t c = index({x, y, z});
                    for (std::uint32_t k = start_[c]; k < start_[c + 1]; ++k)
                        visit(members_[k]);
                }
    }

  private:
    std::array<int, 3> coordinates(const Vec3f& p) const {
        std::array<int, 3> at{};
        for (int axis = 0; axis < 3; ++axis)
            at[axis] =
                std::clamp(static_cast<int>((p[axis] - low_[axis]) / cell_), 0, dims_[axis] - 1);
        return at;
    }
    std::size_t index(const std::array<int, 3>& at) const {
        return (static_cast<std::size_t>(at[2]) * dims_[1] + at[1]) * dims_[0] + at[0];
    }

    Vec3f low_, high_;
    float cell_ = 1.0f;
    std::array<int, 3> dims_{1, 1, 1};
    std::vector<std::uint32_t> start_;
    std::vector<std::uint32_t> members_;
};

// Farthest-point picks: each next root is the candidate farthest from every root taken so far
// (the lowest index among equals), which spreads roots evenly whatever the mesh's tessellation.
// A candidate's distance only shrinks, and only the candidates nearer the newest pick than the
// distance it was picked at can shrink, so each pick updates a neighbourhood through the grid and
// a heap with stale entries skipped finds the next.
std::vector<StrandRoot> spreadRoots(const ScalpMesh& scalp, const std::vector<StrandRoot>& pool,
                                    std::size_t count) {
    std::vector<Vec3f> at(pool.size());
    for (std::size_t i = 0; i < pool.size(); ++i)
        at[i] = scalp.pointAt(pool[i]);
    const CandidateGrid grid(at);
    struct Entry {
        float distance2;
        std::uint32_t index;
        // Lower priority: nearer, or as near with a higher index.
        bool operator<(const Entry& o) const {
            return distance2 < o.distance2 || (distance2 == o.distance2 && index > o.index);
        }
    };
    std::priority_queue<Entry> heap;
    std::vector<float> nearest(pool.size(), std::numeric_limits<float>::infinity());
    std::vector<StrandRoot> picked;
    picked.reserve(count);
    std::uint32_t next = 0;
    float reach2 = std::numeric_limits<float>::infinity();
    while (true) {
        picked.push_back(pool[next]);
        // Below any distance: no entry is current for it again, and nothing updates it.
        nearest[next] = -1.0f;
        if (picked.size() == count) break;
        const Vec3f p = at[next];
        const auto update = [&](std::uint32_t i) {
            const float d2 = lengthSquared(at[i] - p);
            if (d2 < nearest[i]) {
                nearest[i] = d2;
                heap.push({d2, i});
            }
        };
        if (std::isinf(reach2)) {
            for (std::uint32_t i = 0; i < pool.size(); ++i)
                update(i);
        } else {
            grid.forEachNear(p, std::sqrt(reach2), update);
        }
        // The farthest candidate whose entry is current; an entry left behind by a later update
        // is stale.
        while (heap.top().distance2 != nearest[heap.top().index])
            heap.pop();
        next = heap.top().index;
        reach2 = heap.top().distance2;
        heap.pop();
    }
    return picked;
}

// A guide grown from `root`: out along the normal, leaning toward where gravity will comb it, then
// bent a little more toward the pull at every segment.
std::vector<Vec3f> growGuide(const ScalpMesh& scalp, const StrandRoot& root, float length,
                             int segments, float gravity) {
    const Vec3f down{0.0f, -1.0f, 0.0f};
    const Vec3f normal = normalized(scalp.normalAt(root), Vec3f{0.0f, 1.0f, 0.0f});
    // Where the pull lies along the surface; on a crown facing straight up it has none, and the
    // guide is combed toward the back (-Z) instead, as hair parts from the crown.
    const Vec3f back{0.0f, 0.0f, -1.0f};
    const Vec3f comb =
        normalized(down - normal * dot(down, normal),
                   normalized(back - normal * dot(back, normal), {1.0f, 0.0f, 0.0f}));
    Vec3f direction = normalized(normal + comb * (0.5f * gravity), normal);
    const float step = length / static_cast<float>(segments);
    const float pull = 2.5f * gravity / static_cast<float>(segments);
    std::vector<Vec3f> points;
    points.reserve(static_cast<std::size_t>(segments) + 1);
    points.push_back(scalp.pointAt(root));
    for (int k = 0; k < segments; ++k) {
        points.push_back(points.back() + direction * step);
        direction = normalized(direction + (down + comb * 0.25f) * pull, direction);
    }
    return points;
}

}  // namespace

GuideHierarchy makeStarterGuides(const ScalpMesh& scalp, const StarterGuideOptions& options) {
    if (scalp.triangleCount() == 0)
        throw std::invalid_argument("starter guides: the scalp has no triangles");
    if (options.count < 1 || options.count > kMaxStarterGuides)
        throw std::invalid_argument("starter guides: the count must be 1 to 10000");
    if (options.segments < 1 || options.segments > 64)
        throw std::invalid_argument("starter guides: the segments must be 1 to 64");
    if (!(options.length >= 0.0f) || !std::isfinite(options.length))
        throw std::invalid_argument("starter guides: the length must be 0 (measured) or more");
    if (!(options.gravity >= 0.0f && options.gravity <= 1.0f))
        throw std::invalid_argument("starter guides: gravity must be 0 to 1");

    float length = options.length;
    if (length == 0.0f) {
        const auto [low, high] = scalp.bounds();
        length = 0.2f * velmorin::length(high - low);
    }
    const auto count = static_cast<std::size_t>(options.count);
    const auto pool =
        candidateRoots(scalp, std::max(kMinCandidates, kCandidatesPerGuide * count), options.seed);
    const auto roots = spreadRoots(scalp, pool, count);

    std::vector<std::vector<Vec3f>> curves(count);
    parallelRange(0, count, 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            curves[i] = growGuide(scalp, roots[i], length, options.segments, options.gravity);
    });

    GuideHierarchy hierarchy;
    const std::uint32_t group = hierarchy.addGroup(kStarterGuideGroup, 0);
    hierarchy.setGroupSegments(group, options.segments);
    for (auto& curve : curves)
        hierarchy.addGuide(group, std::move(curve));
    hierarchy.pose(scalp);
    return hierarchy;
}

}  // namespace velmorin
