#include "mesh/subdivision.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "base/memory_report.h"
#include "base/test/expect_message.h"
#include "mesh/sample_meshes.h"
#include "mesh/test/mesh_checks.h"

namespace velmorin {
namespace {

using test::expectMessage;
using test::quadCube;
using test::quadMesh;

std::vector<Vec3f> sorted(std::vector<Vec3f> points) {
    std::sort(points.begin(), points.end(), [](const Vec3f& a, const Vec3f& b) {
        return std::tie(a.x, a.y, a.z) < std::tie(b.x, b.y, b.z);
    });
    return points;
}

void expectNear(const Vec3f& actual, const Vec3f& expected, const std::string& what) {
    EXPECT_NEAR(actual.x, expected.x, 1e-5f) << what;
    EXPECT_NEAR(actual.y, expected.y, 1e-5f) << what;
    EXPECT_NEAR(actual.z, expected.z, 1e-5f) << what;
}

TEST(SubdivisionPlan, OneLevelOfACubeMovesCornersAndAddsEdgeAndFacePoints) {
    // By hand: a face point is its face's centre, (1, 0, 0) and the like. The edge from (1, 1, 1)
    // to (1, 1, -1) averages its ends and the centres (1, 0, 0) and (0, 1, 0): (0.75, 0.75, 0).
    // A corner of valence 3 goes to (Q + 2R + 0 V) / 3, with Q the mean of its faces' centres,
    // (1/3, 1/3, 1/3), and R the mean of its edges' midpoints, (2/3, 2/3, 2/3): 5/9 on each axis.
    std::vector<Vec3f> expected;
    for (int i = 0; i < 8; ++i) {
        const float s = 5.0f / 9.0f;
        expected.push_back({i & 1 ? s : -s, i & 2 ? s : -s, i & 4 ? s : -s});
    }
    std::vector<Vec3f> added;
    for (int axis = 0; axis < 3; ++axis)
        for (float a : {-0.75f, 0.75f})
            for (float b : {-0.75f, 0.75f}) {
                Vec3f edge;
                float* c = &edge.x;
                c[(axis + 1) % 3] = a;
                c[(axis + 2) % 3] = b;
                added.push_back(edge);
            }
    for (int axis = 0; axis < 3; ++axis)
        for (float a : {-1.0f, 1.0f}) {
            Vec3f face;
            (&face.x)[axis] = a;
            added.push_back(face);
        }
    added = sorted(added);

    for (int split : {0, 1}) {
        const ScalpMesh cage = quadCube(split);
        const SubdivisionPlan plan(cage, 1);
        ASSERT_EQ(plan.pointCount(), 26u);
        EXPECT_EQ(plan.triangles().size(), 48u);
        EXPECT_EQ(plan.polygons(), std::vector<std::int32_t>(24, 2));
        const std::vector<Vec3f> points = plan.apply(cage.points());
        for (int i = 0; i < 8; ++i)
            expectNear(points[i], expected[i], "corner " + std::to_string(i));
        const auto rest = sorted(std::vector<Vec3f>(points.begin() + 8, points.end()));
        for (std::size_t i = 0; i < added.size(); ++i)
            expectNear(rest[i], added[i], "split " + std::to_string(split));
        // The result is closed and every new face keeps the cage's outward winding.
        const ScalpMesh result(points, plan.triangles());
        for (std::uint32_t t = 0; t < result.triangleCount(); ++t) {
            const Vec3f centre = result.pointAt({static_cast<std::int32_t>(t), 1.0f / 3, 1.0f / 3});
            EXPECT_GT(dot(result.faceNormal(t), centre), 0.0f) << "triangle " << t;
        }
    }
}

TEST(SubdivisionPlan, DeeperLevelsKeepTheCubeClosed) {
    // A closed surface keeps V - E + F = 2 at every level; F is 6 * 4^levels quads.
    const ScalpMesh cage = quadCube(0);
    for (int levels : {2, 3}) {
        const SubdivisionPlan plan(cage, levels);
        const std::size_t faces = 6u << (2 * levels);
        EXPECT_EQ(plan.triangles().size(), 2 * faces);
        EXPECT_EQ(plan.pointCount(), 2 + faces) << levels;  // E = 2F for quads
    }
}

TEST(SubdivisionPlan, BordersFollowTheCreaseRule) {
    // Two quads joined at the edge 1-2, the border bending at point 1 from (0,0,0) to (2,0,1).
    const ScalpMesh cage =
        quadMesh({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {2, 0, 1}, {2, 1, 1}},
                 {{0, 1, 2, 3}, {1, 4, 5, 2}}, 0);
    const SubdivisionPlan plan(cage, 1);
    const std::vector<Vec3f> points = plan.apply(cage.points());
    // A border point with two faces: 3/4 of itself and 1/8 of each border neighbour.
    expectNear(points[1], {1.0f, 0.0f, 0.125f}, "border point");
    // A corner of a single face stays.
    expectNear(points[0], {0.0f, 0.0f, 0.0f}, "corner");
    const auto has = [&](const Vec3f& p) {
        return std::any_of(points.begin(), points.end(),
                           [&](const Vec3f& q) { return length(q - p) < 1e-6f; });
    };
    // The shared edge averages its ends and both face centres; a border edge takes its midpoint.
    EXPECT_TRUE(has({1.0f, 0.5f, 0.125f}));
    EXPECT_TRUE(has({0.5f, 0.0f, 0.0f}));
    EXPECT_TRUE(has({1.5f, 0.5f, 0.5f}));
}

TEST(SubdivisionPlan, AppliesToAnyPoseAndValuesOfItsTopology) {
    const auto head = makeHeadScalp(1);
    const SubdivisionPlan plan(*head, 2);
    ScalpMesh posed = *head;
    std::vector<Vec3f> moved = head->points();
    for (std::size_t i = 0; i < moved.size(); ++i)
        moved[i] +=
            Vec3f{0.1f * static_cast<float>(i % 7), 0.0f, -0.05f * static_cast<float>(i % 3)};
    posed.setPoints(moved);

    const std::vector<Vec3f> fromShared = plan.apply(moved);
    const std::vector<Vec3f> fromFresh = SubdivisionPlan(posed, 2).apply(moved);
    ASSERT_EQ(fromShared.size(), fromFresh.size());
    for (std::size_t i = 0; i < fromShared.size(); ++i)
        ASSERT_EQ(fromShared[i], fromFresh[i]) << i;

    // A value list follows the same weights: the x coordinates come out as the points' x.
    std::vector<float> xs;
    for (const Vec3f& p : moved)
        xs.push_back(p.x);
    const std::vector<float> smoothed = plan.applyValues(xs);
    for (std::size_t i = 0; i < smoothed.size(); ++i)
        ASSERT_FLOAT_EQ(smoothed[i], fromShared[i].x);
}

TEST(SubdivisionPlan, SharesPlansByTopologyAndGrouping) {
    const auto plane = makeUvPlane(2.0f, 6);
    const auto first = SubdivisionPlan::of(*plane, 1);
    ScalpMesh moved = *plane;
    moved.setPoints(std::vector<Vec3f>(plane->pointCount(), Vec3f{1, 2, 3}));
    EXPECT_EQ(SubdivisionPlan::of(moved, 1), first);
    EXPECT_NE(SubdivisionPlan::of(*plane, 2), first);
    // The same triangles, each its own polygon, subdivide as triangles.
    ScalpMesh triangles = *plane;
    triangles.setPolygons(std::vector<std::int32_t>(plane->triangleCount(), 1));
    const auto split = SubdivisionPlan::of(triangles, 1);
    EXPECT_NE(split, first);
    EXPECT_EQ(split->triangles().size(), 2 * 3 * plane->triangleCount());

    const auto report = memoryReport();
    const auto line = std::find_if(report.begin(), report.end(),
                                   [](const auto& l) { return l.name == "subdivision plans"; });
    ASSERT_NE(line, report.end());
    EXPECT_GE(line->use.entries, 3u);
    EXPECT_GE(line->use.bytes, first->byteSize() + split->byteSize());
}

TEST(SubdivisionPlan, RejectsWrongLevelsAndListsWithTheirMessages) {
    const auto plane = makeUvPlane(1.0f, 2);
    const SubdivisionPlan plan(*plane, 1);
    expectMessage([&] { SubdivisionPlan(*plane, 0); }, "SubdivisionPlan: levels must be 1 to 3");
    expectMessage([&] { SubdivisionPlan::of(*plane, 4); },
                  "SubdivisionPlan: levels must be 1 to 3");
    expectMessage([&] { plan.apply(std::vector<Vec3f>(8)); },
                  "SubdivisionPlan: the points are not the cage's");
    expectMessage([&] { plan.applyValues(std::vector<float>(10)); },
                  "SubdivisionPlan: the values are not the cage's vertices'");
    expectMessage([&] { plan.applyValues(std::vector<Vec3f>(0)); },
                  "SubdivisionPlan: the values are not the cage's vertices'");
}

}  // namespace
}  // namespace velmorin
