#include "mesh/subdivision.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "base/memory_report.h"
#include "base/test/expect_message.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_range.h"
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

// Points spread over a mesh's triangles: every corner, and hashed places inside each triangle.
std::vector<StrandRoot> placesOn(const ScalpMesh& mesh, int insidePerTriangle) {
    std::vector<StrandRoot> places;
    for (std::size_t t = 0; t < mesh.triangleCount(); ++t) {
        const auto face = static_cast<std::int32_t>(t);
        places.insert(places.end(), {{face, 0.0f, 0.0f}, {face, 1.0f, 0.0f}, {face, 0.0f, 1.0f}});
        for (int k = 0; k < insidePerTriangle; ++k) {
            const float a = unitFloat(hashCombine(t, 2 * k)),
                        b = unitFloat(hashCombine(t, 2 * k + 1));
            places.push_back(a + b < 1.0f ? StrandRoot{face, a, b}
                                          : StrandRoot{face, 1.0f - a, 1.0f - b});
        }
    }
    return places;
}

// The largest difference between the UV that the subdivided mesh gives a place and the cage's UV
// at the cage's closest point to it.
float largestUvDrift(const ScalpMesh& cage, const ScalpMesh& subdivided) {
    float drift = 0.0f;
    for (const StrandRoot& place : placesOn(subdivided, 2)) {
        const ClosestPoint onCage = cage.closestPoint(subdivided.pointAt(place));
        const Uv expected = cage.uvAt(onCage.root), actual = subdivided.uvAt(place);
        drift = std::max({drift, std::abs(expected.u - actual.u), std::abs(expected.v - actual.v)});
    }
    return drift;
}

TEST(SubdivideScalp, TexturesReadTheCagesUvsAtTheSameSurfacePoint) {
    // A flat even grid subdivides onto itself (Catmull-Clark reproduces linear functions, the
    // border curve too), so there every place must read exactly the cage's UV.
    const auto plane = makeUvPlane(2.0f, 5);
    for (int levels : {1, 2, 3}) {
        const ScalpMesh flat = subdivideScalp(*plane, levels);
        ASSERT_TRUE(flat.hasUvs());
        EXPECT_LT(largestUvDrift(*plane, flat), 2e-6f) << levels;
    }
    // On the head the smoothed surface moves off the cage, along the normal and, where the grid is
    // squeezed, a little along the surface: a place reads the cage's UV where it lies over the
    // cage to within a third of a UV cell (1/32). A corner given the wrong cage triangle or its
    // coordinates swapped would be a cell off.
    const auto head = makeHeadScalp(1);
    for (int levels : {1, 3}) {
        const ScalpMesh smooth = subdivideScalp(*head, levels);
        EXPECT_EQ(smooth.triangleCount(), head->triangleCount() * (1u << (2 * levels)));
        EXPECT_LT(largestUvDrift(*head, smooth), 0.3f / 32.0f) << levels;
    }
}

TEST(SubdivideScalp, UvSeamsStayWhereTheyAre) {
    // The sphere's UVs are cut along the meridian at x > 0, z = 0: corners there read u = 0 on one
    // side and u = 1 on the other (away from the poles, whose fans give each triangle a u of its
    // own at the pole).
    const auto sphere = makeSphere(1.0f, 6, 8);
    const ScalpMesh smooth = subdivideScalp(*sphere, 2);
    std::map<std::uint32_t, std::set<float>> seamUs;
    for (std::size_t t = 0; t < smooth.triangleCount(); ++t) {
        const Uv* uv = smooth.uvs().data() + t * 3;
        // No subdivided triangle stretches across the texture, and none turns over.
        const float across =
            std::max({uv[0].u, uv[1].u, uv[2].u}) - std::min({uv[0].u, uv[1].u, uv[2].u});
        EXPECT_LT(across, 0.2f) << t;
        const float area =
            (uv[1].u - uv[0].u) * (uv[2].v - uv[0].v) - (uv[2].u - uv[0].u) * (uv[1].v - uv[0].v);
        EXPECT_LT(area, 0.0f) << t;  // the sphere's UVs run clockwise seen from outside
        for (int c = 0; c < 3; ++c) {
            const Vec3f& p = smooth.points()[smooth.triangles()[t][c]];
            if (std::abs(p.z) < 1e-6f && p.x > 1e-3f && std::abs(p.y) < 0.8f)
                seamUs[smooth.triangles()[t][c]].insert(uv[c].u);
        }
    }
    EXPECT_GE(seamUs.size(), 10u);
    for (const auto& [vertex, us] : seamUs)
        EXPECT_EQ(us, (std::set<float>{0.0f, 1.0f})) << vertex;
}

TEST(SubdivideScalp, ColourSetsPerCornerStayCrispAndPerVertexOnesSmooth) {
    ScalpMesh cage = *makeHeadScalp(1);
    // "regions": one colour per face, so the corners of a vertex differ between faces.
    std::vector<Rgba> regions;
    for (std::size_t t = 0; t < cage.triangleCount(); ++t) {
        const float region = static_cast<float>((t / 2) % 5);
        regions.insert(regions.end(), 3, Rgba{region, 0.0f, 1.0f, 0.5f});
    }
    // "height": a per-vertex colour linear in the position, which Catmull-Clark, an affine
    // combination of the points, carries to the smoothed points unchanged.
    const auto heightOf = [](const Vec3f& p) {
        return Rgba{0.1f * p.y, 0.2f * p.x - 0.05f * p.z, 1.0f, 0.25f + 0.01f * p.z};
    };
    std::vector<Rgba> height;
    for (const Triangle& t : cage.triangles())
        for (std::uint32_t v : t)
            height.push_back(heightOf(cage.points()[v]));
    cage.setColorSet("regions", regions);
    cage.setColorSet("height", height);

    const ScalpMesh smooth = subdivideScalp(cage, 2);
    ASSERT_EQ(smooth.colorSets().size(), 2u);
    const auto plan = SubdivisionPlan::of(cage, 2);
    const std::vector<Rgba>& smoothRegions = smooth.colorSets().at("regions");
    const std::vector<Rgba>& smoothHeight = smooth.colorSets().at("height");
    for (std::size_t corner = 0; corner < smoothRegions.size(); ++corner) {
        // Each subdivided face lies in one cage quad and takes its colour as it was.
        const auto cageTriangle = static_cast<std::size_t>(plan->cornerLocations()[corner].face);
        ASSERT_EQ(smoothRegions[corner], regions[cageTriangle * 3]) << corner;
        const Rgba expected = heightOf(smooth.points()[smooth.triangles()[corner / 3][corner % 3]]);
        ASSERT_NEAR(smoothHeight[corner].r, expected.r, 1e-4f) << corner;
        ASSERT_NEAR(smoothHeight[corner].g, expected.g, 1e-4f) << corner;
        ASSERT_NEAR(smoothHeight[corner].a, expected.a, 1e-4f) << corner;
    }
    const auto wrong = std::vector<Rgba>(5);
    expectMessage([&] { plan->applyCorners(wrong); },
                  "SubdivisionPlan: the values are not the cage's corners'");
}

TEST(SubdivideScalp, ScalpRangesAndRestPointsFollow) {
    // Two planes merged into one scalp of two ranges, with a rest pose a step below.
    const auto left = makeUvPlane(2.0f, 3), right = makeUvPlane(1.0f, 2);
    std::vector<Vec3f> points = left->points();
    std::vector<Triangle> triangles = left->triangles();
    std::vector<Uv> uvs = left->uvs();
    const auto shift = static_cast<std::uint32_t>(points.size());
    for (const Vec3f& p : right->points())
        points.push_back(p + Vec3f{5.0f, 0.0f, 0.0f});
    for (const Triangle& t : right->triangles())
        triangles.push_back({t[0] + shift, t[1] + shift, t[2] + shift});
    uvs.insert(uvs.end(), right->uvs().begin(), right->uvs().end());
    std::vector<std::int32_t> polygons(13, 2);
    ScalpMesh cage(points, triangles);
    cage.setPolygons(polygons);
    cage.setUvs(uvs);
    std::vector<Vec3f> rest = points;
    for (Vec3f& p : rest)
        p.y -= 1.0f;
    cage.setRestPoints(rest);
    cage.setScalps({{"left", 0, 18, 0, 16}, {"right", 18, 8, 16, 9}});

    const ScalpMesh smooth = subdivideScalp(cage, 2, "smooth mesh preview, level 2");
    ASSERT_EQ(smooth.scalps().size(), 2u);
    EXPECT_EQ(smooth.scalps()[0], (ScalpRange{"left", 0, 18 * 16, 0, 13 * 13}));
    EXPECT_EQ(smooth.scalps()[1], (ScalpRange{"right", 18 * 16, 8 * 16, 13 * 13, 9 * 9}));
    EXPECT_EQ(smooth.subdivision(),
              (ScalpSubdivision{2, 13, {9, 4}, "smooth mesh preview, level 2"}));
    for (std::size_t p = 0; p < smooth.pointCount(); ++p) {
        expectNear(smooth.restPoints()[p], smooth.points()[p] - Vec3f{0.0f, 1.0f, 0.0f},
                   "rest point " + std::to_string(p));
        // Each range's points are its own: left of x = 2 the left plane, right of it the other.
        ASSERT_EQ(smooth.points()[p].x > 2.0f, p >= 13 * 13) << p;
    }
    // A range cut from the subdivided scalp is that range subdivided alone, and says so.
    const ScalpMesh piece = cutScalpRange(smooth, smooth.scalps()[1]);
    const ScalpMesh alone = subdivideScalp(cutScalpRange(cage, cage.scalps()[1]), 2);
    EXPECT_EQ(piece.triangles(), alone.triangles());
    EXPECT_EQ(piece.uvs(), alone.uvs());
    EXPECT_EQ(piece.subdivision(), (ScalpSubdivision{2, 4, {4}, "smooth mesh preview, level 2"}));
    EXPECT_EQ(ScalpMesh(smooth).subdivision().levels, 2);
    ScalpMesh reset = smooth;
    reset.setGeometry(points, triangles);
    EXPECT_EQ(reset.subdivision(), ScalpSubdivision{});
}

}  // namespace
}  // namespace velmorin
