// The closest-point tree at sizes that leave spare lanes in a leaf and nodes with fewer than four
// children, against exhaustive search over triangle soups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/hash.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

Vec3f hashedPoint(std::uint64_t id, float spread) {
    return Vec3f{unitFloat(hashCombine(id, 1)) - 0.5f, unitFloat(hashCombine(id, 2)) - 0.5f,
                 unitFloat(hashCombine(id, 3)) - 0.5f} *
           (2.0f * spread);
}

// Distance from p to triangle abc: to the plane where p projects inside, else to the nearest edge.
float referenceDistance(const Vec3f& p, const Vec3f& a, const Vec3f& b, const Vec3f& c) {
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

ScalpMesh soup(std::uint32_t triangleCount, std::uint64_t seed) {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    for (std::uint32_t t = 0; t < triangleCount; ++t) {
        const Vec3f centre = hashedPoint(hashCombine(seed, t), 5.0f);
        for (std::uint32_t k = 0; k < 3; ++k)
            points.push_back(centre + hashedPoint(hashCombine(seed, t * 3 + k + 1000), 0.6f));
        triangles.push_back({3 * t, 3 * t + 1, 3 * t + 2});
    }
    return ScalpMesh(points, triangles);
}

TEST(ScalpMeshTree, AgreesWithExhaustiveSearchAtEverySize) {
    for (std::uint32_t count : {1u, 3u, 5u, 6u, 7u, 9u, 13u, 18u, 37u, 211u, 1001u}) {
        const ScalpMesh mesh = soup(count, count);
        const auto& p = mesh.points();
        for (std::uint64_t i = 0; i < 60; ++i) {
            const Vec3f q = hashedPoint(hashCombine(count, i), 7.0f);
            float nearest = std::numeric_limits<float>::infinity();
            for (const Triangle& t : mesh.triangles())
                nearest = std::min(nearest, referenceDistance(q, p[t[0]], p[t[1]], p[t[2]]));
            const ClosestPoint hit = mesh.closestPoint(q);
            ASSERT_TRUE(hit.found()) << count;
            EXPECT_NEAR(hit.distance, nearest, 1e-4f * std::max(1.0f, nearest)) << count;

            // A ray towards a triangle's centre hits it or something before it.
            const Triangle& aim = mesh.triangles()[i % count];
            const Vec3f centre = (p[aim[0]] + p[aim[1]] + p[aim[2]]) * (1.0f / 3.0f);
            const RayHit ray = mesh.raycast(q, normalized(centre - q));
            ASSERT_TRUE(ray.found()) << count;
            EXPECT_LE(ray.distance, length(centre - q) * (1.0f + 1e-4f)) << count;

            // trianglesNear lists exactly the triangles whose boxes come within the radius.
            const float radius = 1.5f;
            std::vector<std::uint32_t> near, expected;
            mesh.trianglesNear(q, radius, near);
            for (std::uint32_t t = 0; t < count; ++t) {
                const auto& c = mesh.triangles()[t];
                const Vec3f lo = minPerAxis(minPerAxis(p[c[0]], p[c[1]]), p[c[2]]);
                const Vec3f hi = maxPerAxis(maxPerAxis(p[c[0]], p[c[1]]), p[c[2]]);
                const Vec3f outside = maxPerAxis(maxPerAxis(lo - q, q - hi), Vec3f{});
                if (lengthSquared(outside) <= radius * radius) expected.push_back(t);
            }
            std::sort(near.begin(), near.end());
            EXPECT_EQ(near, expected) << count;
        }
    }
}

}  // namespace
}  // namespace velmorin
