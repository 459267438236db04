#pragma once
// What the mesh tests share: reproducible points without a generator, an exhaustive distance to
// compare the closest-point tree against, and quad cages cut into triangles.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "base/hash.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::test {

// A point in the cube of half side `spread` around the origin, hashed from `id`.
inline Vec3f hashedPoint(std::uint64_t id, float spread) {
    return Vec3f{unitFloat(hashCombine(id, 1)) - 0.5f, unitFloat(hashCombine(id, 2)) - 0.5f,
                 unitFloat(hashCombine(id, 3)) - 0.5f} *
           (2.0f * spread);
}

// Distance from p to triangle abc, worked out independently of the mesh code: to the plane where
// p projects inside the triangle, else to the nearest of its three edges.
inline float referenceDistance(const Vec3f& p, const Vec3f& a, const Vec3f& b, const Vec3f& c) {
    const auto segment = [&](const Vec3f& s0, const Vec3f& s1) {
        const Vec3f d = s1 - s0;
        const float t =
            dot(d, d) > 0.0f ? std::clamp(dot(p - s0, d) / dot(d, d), 0.0f, 1.0f) : 0.0f;
        return length(p - (s0 + d * t));
    };
    float best = std::min({segment(a, b), segment(b, c), segment(c, a)});
    const Vec3f n = cross(b - a, c - a);
    if (lengthSquared(n) > 1e-20f) {
        const Vec3f q = p - n * (dot(p - a, n) / dot(n, n));
        if (dot(cross(b - a, q - a), n) >= 0 && dot(cross(c - b, q - b), n) >= 0 &&
            dot(cross(a - c, q - c), n) >= 0)
            best = std::min(best, std::fabs(dot(p - a, n)) / length(n));
    }
    return best;
}

// The exhaustive distance from p to the mesh.
inline float referenceDistance(const ScalpMesh& mesh, const Vec3f& p) {
    float best = std::numeric_limits<float>::infinity();
    for (const Triangle& t : mesh.triangles()) {
        best = std::min(best, referenceDistance(p, mesh.points()[t[0]], mesh.points()[t[1]],
                                                mesh.points()[t[2]]));
    }
    return best;
}

using Quad = std::array<std::uint32_t, 4>;

// Quads as two triangles each, split along the diagonal from corner `split` (0 or 1), so that
// the polygons' loops must be recovered from differently cut triangles.
inline ScalpMesh quadMesh(std::vector<Vec3f> points, const std::vector<Quad>& quads, int split) {
    std::vector<Triangle> triangles;
    for (const Quad& q : quads) {
        const auto at = [&](int k) { return q[(k + split) % 4]; };
        triangles.push_back({at(0), at(1), at(2)});
        triangles.push_back({at(0), at(2), at(3)});
    }
    ScalpMesh mesh(std::move(points), std::move(triangles));
    mesh.setPolygons(std::vector<std::int32_t>(quads.size(), 2));
    return mesh;
}

// The box [-1, 1]^3 as six quads, counter-clockwise seen from outside.
inline ScalpMesh quadCube(int split) {
    std::vector<Vec3f> points;
    for (int i = 0; i < 8; ++i)
        points.push_back({i & 1 ? 1.0f : -1.0f, i & 2 ? 1.0f : -1.0f, i & 4 ? 1.0f : -1.0f});
    return quadMesh(
        points,
        {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}},
        split);
}

}  // namespace velmorin::test
