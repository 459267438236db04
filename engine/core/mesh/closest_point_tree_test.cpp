// The closest-point tree at sizes that leave spare lanes in a leaf and nodes with fewer than four
// children, against exhaustive search over triangle soups.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "base/hash.h"
#include "mesh/scalp_mesh.h"
#include "mesh/test/mesh_checks.h"

namespace velmorin {
namespace {

using test::hashedPoint;
using test::referenceDistance;

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
            const float nearest = referenceDistance(mesh, q);
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
