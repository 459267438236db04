#include "common/starter_guides.h"

#include <algorithm>
#include <cmath>
#include <limits>
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

// Farthest-point picks: each next root is the candidate farthest from every root taken so far
// (the lowest index among equals), which spreads roots evenly whatever the mesh's tessellation.
std::vector<StrandRoot> spreadRoots(const ScalpMesh& scalp, const std::vector<StrandRoot>& pool,
                                    std::size_t count) {
    std::vector<Vec3f> at(pool.size());
    for (std::size_t i = 0; i < pool.size(); ++i)
        at[i] = scalp.pointAt(pool[i]);
    std::vector<float> nearest(pool.size(), std::numeric_limits<float>::max());
    std::vector<StrandRoot> picked;
    picked.reserve(count);
    std::size_t next = 0;
    while (picked.size() < count) {
        picked.push_back(pool[next]);
        const Vec3f p = at[next];
        for (std::size_t i = 0; i < pool.size(); ++i)
            nearest[i] = std::min(nearest[i], lengthSquared(at[i] - p));
        next = static_cast<std::size_t>(std::max_element(nearest.begin(), nearest.end()) -
                                        nearest.begin());
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
