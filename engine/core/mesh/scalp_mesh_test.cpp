#include "mesh/scalp_mesh.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "mesh/sample_meshes.h"
#include "mesh/test/mesh_checks.h"

namespace velmorin {
namespace {

using test::hashedPoint;

std::shared_ptr<const ScalpMesh> degenerateMesh() {
    // A proper triangle, a sliver along a line, a triangle collapsed to a point, and one that
    // names the same corner twice.
    return std::make_shared<ScalpMesh>(
        std::vector<Vec3f>{
            {0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0}, {1, 1, 1}},
        std::vector<Triangle>{{0, 1, 2}, {3, 4, 5}, {6, 6, 6}, {1, 3, 3}});
}

TEST(ScalpMesh, SettersCheckTheirRulesAndLeaveTheMeshAsItWas) {
    ScalpMesh mesh({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {1, 0, 1}}, {{0, 2, 1}, {1, 2, 3}});
    const std::uint64_t before = mesh.contentSignature();
    const auto refused = [&](const std::function<void()>& call, const std::string& message) {
        test::expectMessage(call, "ScalpMesh: " + message);
        EXPECT_EQ(mesh.contentSignature(), before) << message;
        EXPECT_EQ(mesh.points().size(), 4u);
    };
    refused([&] { mesh.setGeometry({{0, 0, 0}}, {{0, 0, 1}}); }, "triangle index out of range");
    refused([&] { mesh.setPolygons({1, -1, 2}); }, "a polygon with a negative triangle count");
    refused(
        [&] {
            mesh.setPolygons({1, 2});
        },
        "the polygons' triangles (3) are not the mesh's (2)");
    refused(
        [&] {
            mesh.setScalps({{"left", 0, 1, 0, 3}, {"right", 2, 1, 3, 1}});
        },
        "the scalp 'right' does not follow the one before it");
    refused(
        [&] {
            mesh.setScalps({{"left", 0, 1, 0, 3}});
        },
        "the scalps' triangles and points are not the mesh's");
    refused([&] { mesh.setUvs(std::vector<Uv>(5)); }, "expected one UV per triangle corner");
    refused([&] { mesh.setColorSet("tint", std::vector<Rgba>(3)); },
            "expected one color per triangle corner");
    refused([&] { mesh.setRestPoints(std::vector<Vec3f>(3)); },
            "rest points must match the mesh's point count");
    refused([&] { mesh.setPoints(std::vector<Vec3f>(3)); },
            "new points must match the mesh's point count");
    // A polygon of no triangles is legal, and ranges that cover the mesh are accepted.
    mesh.setPolygons({0, 2, 0});
    mesh.setScalps({{"left", 0, 1, 0, 3}, {"right", 1, 1, 3, 1}});
    EXPECT_NE(mesh.contentSignature(), before);
}

TEST(ScalpMesh, ClosestPointAgreesWithExhaustiveSearch) {
    const std::vector<std::pair<const char*, std::shared_ptr<const ScalpMesh>>> meshes = {
        {"sphere", makeSphere(2.0f, 12, 16)},
        {"head", makeHeadScalp(1)},
        {"plane", makeUvPlane(4.0f, 10)},
        {"degenerate", degenerateMesh()},
    };
    for (const auto& [name, mesh] : meshes) {
        for (std::uint64_t i = 0; i < 300; ++i) {
            // Near points within a tenth of the size, far ones up to fifty times it.
            const float spread = i % 3 == 0 ? 100.0f : i % 3 == 1 ? 6.0f : 0.3f;
            Vec3f p = hashedPoint(i, spread);
            if (i % 3 == 2) p += mesh->points()[i % mesh->pointCount()];
            const ClosestPoint hit = mesh->closestPoint(p);
            ASSERT_TRUE(hit.found()) << name;
            const float expected = test::referenceDistance(*mesh, p);
            const float tolerance = 1e-4f * std::max(1.0f, expected);
            EXPECT_NEAR(hit.distance, expected, tolerance) << name << " point " << i;
            EXPECT_NEAR(length(hit.point - p), hit.distance, tolerance) << name;
            EXPECT_NEAR(length(mesh->pointAt(hit.root) - hit.point), 0.0f, tolerance) << name;
        }
    }
}

TEST(ScalpMesh, ClosestPointRespectsItsBoundAndAnEmptyMesh) {
    const ScalpMesh empty;
    EXPECT_FALSE(empty.closestPoint({0, 0, 0}).found());
    EXPECT_FALSE(empty.raycast({0, 0, 0}, {0, 1, 0}).found());
    const auto plane = makeUvPlane(2.0f, 2);
    EXPECT_FALSE(plane->closestPoint({0, 3, 0}, 2.5f).found());
    const ClosestPoint hit = plane->closestPoint({0.25f, 3, 0.25f}, 3.0f);
    ASSERT_TRUE(hit.found());
    EXPECT_FLOAT_EQ(hit.distance, 3.0f);
    // The default bound squared stays finite.
    EXPECT_TRUE(std::isfinite(ScalpMesh::kUnbounded * ScalpMesh::kUnbounded));
    EXPECT_TRUE(plane->closestPoint({1e18f, 0, 0}).found());
}

TEST(ScalpMesh, ConcurrentFirstQueriesBuildOneTreeAndAgree) {
    // Two separately made meshes: the second's tree is built by whichever query comes first.
    const auto head = makeHeadScalp(2);
    const auto fresh = makeHeadScalp(2);
    std::vector<ClosestPoint> serial(2000);
    for (std::size_t i = 0; i < serial.size(); ++i) {
        serial[i] = head->closestPoint(hashedPoint(i, 12.0f));
    }
    std::vector<ClosestPoint> parallel(serial.size());
    parallelRange(0, parallel.size(), 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            parallel[i] = fresh->closestPoint(hashedPoint(i, 12.0f));
        }
    });
    for (std::size_t i = 0; i < serial.size(); ++i) {
        EXPECT_EQ(serial[i].root, parallel[i].root);
    }
}

TEST(ScalpMesh, RaysHitTheNearSideWithinTheirReach) {
    const auto sphere = makeSphere(2.0f, 24, 32);
    const RayHit hit = sphere->raycast({0.1f, 0.2f, -10.0f}, {0, 0, 1});
    ASSERT_TRUE(hit.found());
    EXPECT_NEAR(hit.point.z, -std::sqrt(4.0f - 0.05f), 0.02f);
    EXPECT_NEAR(length(sphere->pointAt(hit.root) - hit.point), 0.0f, 1e-4f);
    EXPECT_FALSE(sphere->raycast({0, 0, -10}, {0, 0, 1}, 7.0f).found());
    EXPECT_FALSE(sphere->raycast({0, 5, -10}, {0, 0, 1}).found());
}

TEST(ScalpMesh, SampleMeshesFaceOutwardWithUvsAndQuads) {
    const auto sphere = makeSphere(1.0f, 8, 12);
    const auto head = makeHeadScalp(1);
    const auto plane = makeUvPlane(2.0f, 4);
    auto centroid = [](const ScalpMesh& m, std::uint32_t t) {
        const Triangle& tri = m.triangles()[t];
        return (m.points()[tri[0]] + m.points()[tri[1]] + m.points()[tri[2]]) * (1.0f / 3.0f);
    };
    for (std::uint32_t t = 0; t < sphere->triangleCount(); ++t) {
        EXPECT_GT(dot(sphere->faceNormal(t), centroid(*sphere, t)), 0.5f) << t;
    }
    for (std::uint32_t t = 0; t < head->triangleCount(); ++t) {
        EXPECT_GT(dot(head->faceNormal(t), centroid(*head, t) - Vec3f{0, 0, -0.6f}), 0.0f) << t;
    }
    for (std::uint32_t t = 0; t < plane->triangleCount(); ++t) {
        EXPECT_FLOAT_EQ(plane->faceNormal(t).y, 1.0f);
    }
    EXPECT_EQ(head->polygons().size(), 1024u);
    EXPECT_EQ(head->triangleCount(), 2048u);
    const auto [lo, hi] = head->bounds();
    EXPECT_GT(hi.y, 8.5f);   // the crown
    EXPECT_GT(lo.y, -6.0f);  // open above the neck
    EXPECT_LT(lo.z, -9.0f);  // down the back of the head
    EXPECT_GT(hi.z, 5.0f);   // stops at the hairline above the forehead
    EXPECT_LT(hi.z, 9.0f);
    for (const auto* mesh : {sphere.get(), head.get(), plane.get()}) {
        ASSERT_EQ(mesh->uvs().size(), mesh->triangleCount() * 3);
        for (const Uv& uv : mesh->uvs()) {
            EXPECT_TRUE(uv.u >= 0.0f && uv.u <= 1.0f && uv.v >= 0.0f && uv.v <= 1.0f);
        }
        EXPECT_EQ(mesh->pieces()->size(), 1u);
    }
}

TEST(ScalpMesh, TopologyAndSignatures) {
    const auto plane = makeUvPlane(2.0f, 2);  // 3 x 3 points, point 4 in the middle
    const auto topology = plane->topology();
    const auto middle = topology->vertexNeighbors(4);
    EXPECT_EQ(std::vector<std::uint32_t>(middle.begin(), middle.end()),
              (std::vector<std::uint32_t>{0, 1, 3, 5, 7, 8}));
    EXPECT_EQ(topology->vertexTriangles(4).size(), 6u);
    int borders = 0;
    for (std::uint32_t t = 0; t < plane->triangleCount(); ++t) {
        for (int e = 0; e < 3; ++e) {
            const std::int32_t other = topology->neighborAcross(t, e);
            if (other < 0) {
                ++borders;
                continue;
            }
            bool back = false;
            for (int f = 0; f < 3; ++f)
                back |= topology->neighborAcross(other, f) == int(t);
            EXPECT_TRUE(back);
        }
    }
    EXPECT_EQ(borders, 8);  // two edges on each side of the square

    // Moving points keeps the topology (the same object) and its signature, and changes the
    // content; another triangulation changes both.
    ScalpMesh moved = *plane;
    std::vector<Vec3f> points = moved.points();
    for (Vec3f& p : points)
        p.y += 0.5f * p.x;
    moved.setPoints(points);
    EXPECT_EQ(moved.topology(), topology);
    EXPECT_EQ(moved.topologySignature(), plane->topologySignature());
    EXPECT_NE(moved.contentSignature(), plane->contentSignature());
    EXPECT_NEAR(moved.closestPoint({1, 0.5f, 0}).distance, 0.0f, 1e-5f);  // tree rebuilt
    EXPECT_NE(makeUvPlane(2.0f, 3)->topologySignature(), plane->topologySignature());
    EXPECT_EQ(makeUvPlane(2.0f, 2)->contentSignature(), plane->contentSignature());

    // Two disjoint triangles are two pieces; a shared corner joins them.
    const ScalpMesh apart({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 0, 0}, {6, 0, 0}, {5, 1, 0}},
                          {{0, 1, 2}, {3, 4, 5}});
    EXPECT_EQ(apart.pieces()->size(), 2u);
    EXPECT_EQ(apart.pieces()->at(1).points, (std::vector<std::uint32_t>{3, 4, 5}));
}

TEST(ScalpMesh, FramesAreOrthonormalAndTurnWithTheSurface) {
    const auto sphere = makeSphere(1.0f, 10, 12);
    const StrandRoot root{37, 0.2f, 0.3f};
    const SurfaceFrame frame = sphere->frameAt(root);
    EXPECT_NEAR(length(frame.tangent), 1.0f, 1e-5f);
    EXPECT_NEAR(dot(frame.tangent, frame.normal), 0.0f, 1e-5f);
    EXPECT_NEAR(dot(frame.bitangent, frame.normal), 0.0f, 1e-5f);
    EXPECT_GT(dot(frame.normal, frame.origin), 0.95f);  // outward on a unit sphere
    const Vec3f local{0.3f, 1.0f, -0.2f};
    const Vec3f world = frame.toWorld(local);
    const Vec3f back = frame.toLocal(world);
    EXPECT_NEAR(length(back - local), 0.0f, 1e-5f);

    // Rotate the sphere a quarter turn about Y: the frame rotates with it.
    ScalpMesh turned = *sphere;
    std::vector<Vec3f> points = turned.points();
    for (Vec3f& p : points)
        p = {p.z, p.y, -p.x};
    turned.setPoints(points);
    const SurfaceFrame after = turned.frameAt(root);
    const Vec3f expected = {world.z, world.y, -world.x};
    EXPECT_NEAR(length(after.toWorld(local) - expected), 0.0f, 1e-5f);
    // UVs blend by the same weights as points.
    EXPECT_EQ(makeUvPlane(1.0f, 1)->uvAt({0, 0.5f, 0.5f}), (Uv{1.0f, 0.5f}));
    EXPECT_EQ(ScalpMesh({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{0, 1, 2}}).uvAt({0, 0.5f, 0.5f}),
              Uv{});
}

}  // namespace
}  // namespace velmorin
