#include "mesh/scalp_mirror.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <list>
#include <mutex>
#include <tuple>

#include "base/hash.h"

namespace velmorin {
namespace {

constexpr std::size_t kKeptMirrors = 8;
// Partners may be this far (as a share of the mesh's diagonal) from each other's mirror image: a
// modelled head is symmetric to about this, and no two distinct points of a scalp are this close.
constexpr float kRelativeTolerance = 1e-3f;

const std::vector<Vec3f>& pairedPositions(const ScalpMesh& mesh) {
    return mesh.restPoints().empty() ? mesh.points() : mesh.restPoints();
}

bool isFinite(const Vec3f& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

std::uint64_t cellKey(std::int64_t x, std::int64_t y, std::int64_t z) {
    return hashCombine(
        hashCombine(mix64(static_cast<std::uint64_t>(x)), static_cast<std::uint64_t>(y)),
        static_cast<std::uint64_t>(z));
}

// The closest point of triangle abc to p, as barycentric (u, v) on b and c, and its squared
// distance: the corner, edge or face region that p projects into.
std::pair<StrandRoot, float> closestOnTriangle(const Vec3f& p, const Vec3f& a, const Vec3f& b,
                                               const Vec3f& c) {
    const Vec3f ab = b - a, ac = c - a, ap = p - a;
    const float d1 = dot(ab, ap), d2 = dot(ac, ap);
    float u = 0.0f, v = 0.0f;
    const Vec3f bp = p - b, cp = p - c;
    const float d3 = dot(ab, bp), d4 = dot(ac, bp), d5 = dot(ab, cp), d6 = dot(ac, cp);
    const float va = d3 * d6 - d5 * d4, vb = d5 * d2 - d1 * d6, vc = d1 * d4 - d3 * d2;
    if (d1 <= 0.0f && d2 <= 0.0f) {
    } else if (d3 >= 0.0f && d4 <= d3) {
        u = 1.0f;
    } else if (d6 >= 0.0f && d5 <= d6) {
        v = 1.0f;
    } else if (vc <= 0.0f && d1 >= 0.0f && d3 <= 0.0f) {
        u = d1 / (d1 - d3);
    } else if (vb <= 0.0f && d2 >= 0.0f && d6 <= 0.0f) {
        v = d2 / (d2 - d6);
    } else if (va <= 0.0f && d4 - d3 >= 0.0f && d5 - d6 >= 0.0f) {
        v = (d4 - d3) / ((d4 - d3) + (d5 - d6));
        u = 1.0f - v;
    } else {
        const float sum = va + vb + vc;
        if (sum > 0.0f) {
            u = vb / sum;
            v = vc / sum;
        }
    }
    const Vec3f q = a * (1.0f - u - v) + b * u + c * v;
    return {StrandRoot{0, u, v}, lengthSquared(p - q)};
}

}  // namespace

// Pairing rule: every two points (or a point and itself) within the tolerance of each other's
// mirror image are candidates; candidates are taken closest first, ties by lower indices, and a
// point joins only the first pair it is offered. So pairs are mutual, points lying on top of each
// other pair one to one, and the answer does not depend on the order of the search.
ScalpMirror::ScalpMirror(const ScalpMesh& mesh)
    : positions_(pairedPositions(mesh)), corners_(mesh.triangles()) {
    const std::vector<Vec3f>& positions = positions_;
    const std::size_t count = positions.size();
    partners_.assign(count, -1);
    triangles_.assign(mesh.triangleCount(), -1);
    cornerOrder_.assign(mesh.triangleCount(), {0, 1, 2});

    Vec3f lo{}, hi{};
    bool any = false;
    for (const Vec3f& p : positions) {
        if (!isFinite(p)) continue;
        lo = any ? minPerAxis(lo, p) : p;
        hi = any ? maxPerAxis(hi, p) : p;
        any = true;
    }
    tolerance_ = std::max(kRelativeTolerance * length(hi - lo), 1e-7f);

    // Points hashed by cell of the tolerance's size: a partner lies in one of 27 cells.
    const float inverseCell = 1.0f / tolerance_;
    const auto cellOf = [&](float c) {
        return static_cast<std::int64_t>(std::floor(c * inverseCell));
    };
    std::vector<std::pair<std::uint64_t, std::uint32_t>> cells;
    cells.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Vec3f& p = positions[i];
        // Far from the origin the cell numbers could leave the integers: such points stay unpaired.
        if (!isFinite(p) || std::fabs(p.x) * inverseCell > 1e15f ||
            std::fabs(p.y) * inverseCell > 1e15f || std::fabs(p.z) * inverseCell > 1e15f)
            continue;
        cells.emplace_back(cellKey(cellOf(p.x), cellOf(p.y), cellOf(p.z)), i);
    }
    std::sort(cells.begin(), cells.end());

    std::vector<std::tuple<float, std::uint32_t, std::uint32_t>> candidates;
    for (const auto& [key, i] : cells) {
        const Vec3f image{-positions[i].x, positions[i].y, positions[i].z};
        const std::int64_t cx = cellOf(image.x), cy = cellOf(image.y), cz = cellOf(image.z);
        for (std::int64_t dx = -1; dx <= 1; ++dx)
            for (std::int64_t dy = -1; dy <= 1; ++dy)
                for (std::int64_t dz = -1; dz <= 1; ++dz) {
                    const std::uint64_t near = cellKey(cx + dx, cy + dy, cz + dz);
                    auto it = std::lower_bound(cells.begin(), cells.end(),
                                               std::pair<std::uint64_t, std::uint32_t>{near, 0});
                    for (; it != cells.end() && it->first == near; ++it) {
                        const std::uint32_t j = it->second;
                        const float d = length(positions[j] - image);
                        if (j >= i && d <= tolerance_) candidates.emplace_back(d, i, j);
                    }
                }
    }
    std::sort(candidates.begin(), candidates.end());
    for (const auto& [d, i, j] : candidates) {
        if (partners_[i] >= 0 || partners_[j] >= 0) continue;
        partners_[i] = static_cast<std::int32_t>(j);
        partners_[j] = static_cast<std::int32_t>(i);
        pairedCount_ += i == j ? 1 : 2;
    }

    if (mesh.triangleCount() == 0) return;
    topology_ = mesh.topology();
    const SurfaceTopology* topology = topology_.get();
    const std::vector<Triangle>& corners = corners_;
    for (std::uint32_t t = 0; t < corners.size(); ++t) {
        std::int32_t image[3];
        for (int k = 0; k < 3; ++k)
            image[k] = partners_[corners[t][k]];
        if (image[0] < 0 || image[1] < 0 || image[2] < 0) continue;
        for (std::uint32_t candidate :
             topology->vertexTriangles(static_cast<std::uint32_t>(image[0]))) {
            std::array<std::uint8_t, 3> order{};
            bool matches = true;
            for (int k = 0; k < 3 && matches; ++k) {
                const auto& c = corners[candidate];
                const auto at = std::find(c.begin(), c.end(), static_cast<std::uint32_t>(image[k]));
                matches = at != c.end();
                if (matches) order[k] = static_cast<std::uint8_t>(at - c.begin());
            }
            if (!matches || order[0] == order[1] || order[1] == order[2] || order[0] == order[2])
                continue;
            triangles_[t] = static_cast<std::int32_t>(candidate);
            cornerOrder_[t] = order;
            break;
        }
    }
}

StrandRoot ScalpMirror::mirror(const StrandRoot& root) const {
    if (root.face < 0 || static_cast<std::size_t>(root.face) >= triangles_.size()) return {};
    const std::int32_t target = triangles_[root.face];
    const float weights[3] = {1.0f - root.u - root.v, root.u, root.v};
    if (target >= 0) {
        float moved[3] = {0.0f, 0.0f, 0.0f};
        for (int k = 0; k < 3; ++k)
            moved[cornerOrder_[root.face][k]] = weights[k];
        return {target, moved[1], moved[2]};
    }
    const Triangle& t = corners_[static_cast<std::size_t>(root.face)];
    Vec3f image{};
    for (int k = 0; k < 3; ++k) {
        if (partners_[t[k]] < 0) return {};
        image += positions_[t[k]] * weights[k];
    }
    image.x = -image.x;
    StrandRoot best;
    float bestDistance = std::numeric_limits<float>::infinity();
    for (std::uint32_t corner : t) {
        const auto partner = static_cast<std::uint32_t>(partners_[corner]);
        for (std::uint32_t candidate : topology_->vertexTriangles(partner)) {
            const Triangle& c = corners_[candidate];
            auto [at, distance] =
                closestOnTriangle(image, positions_[c[0]], positions_[c[1]], positions_[c[2]]);
            // Ties go to the lower triangle, whatever order the corners are searched in.
            if (distance < bestDistance ||
                (distance == bestDistance && static_cast<std::int32_t>(candidate) < best.face)) {
                bestDistance = distance;
                best = {static_cast<std::int32_t>(candidate), at.u, at.v};
            }
        }
    }
    return best;
}

std::shared_ptr<const ScalpMirror> ScalpMirror::of(const ScalpMesh& mesh) {
    std::uint64_t key = mesh.topologySignature();
    for (const Vec3f& p : pairedPositions(mesh)) {
        key = hashCombine(key, floatBits(p.x));
        key = hashCombine(key, floatBits(p.y));
        key = hashCombine(key, floatBits(p.z));
    }
    static std::mutex mutex;
    static std::list<std::pair<std::uint64_t, std::shared_ptr<const ScalpMirror>>> kept;
    std::lock_guard lock(mutex);
    for (auto it = kept.begin(); it != kept.end(); ++it) {
        if (it->first != key) continue;
        kept.splice(kept.begin(), kept, it);
        return it->second;
    }
    kept.emplace_front(key, std::make_shared<const ScalpMirror>(mesh));
    if (kept.size() > kKeptMirrors) kept.pop_back();
    return kept.front().second;
}

}  // namespace velmorin
