#include <gtest/gtest.h>

#include "base/parallel.h"
#include "editing/guide_hierarchy.h"
#include "editing/test/guide_checks.h"
#include "editing/test/guide_fixtures.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

using test::curve;
using test::expectNear;

// The sphere with its points pushed out along x and bent up with their height: the same topology
// on another surface.
ScalpMesh deformed(const ScalpMesh& mesh) {
    ScalpMesh copy = mesh;
    std::vector<Vec3f> points = mesh.points();
    for (Vec3f& p : points)
        p = {p.x * 1.4f + 0.3f * p.y * p.y, p.y, p.z * 0.8f};
    copy.setPoints(std::move(points));
    return copy;
}

TEST(GuidePose, CurvesDrawnTipFirstComeOutRootFirst) {
    const auto plane = makeUvPlane(4, 8);
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    std::vector<Vec3f> drawn = curve({0.3f, 2, 0.2f}, {0, -1, 0}, 2, 5);
    const std::uint64_t id = h.addGuide(main, drawn);
    h.setPointAttribute(id, "curl", {4, 3, 2, 1, 0});
    h.pose(*plane);
    const Guide& guide = *h.findGuide(id);
    EXPECT_EQ(guide.points.front(), drawn.back());
    EXPECT_EQ(guide.points.back(), drawn.front());
    EXPECT_EQ(guide.pointAttributes.at("curl"), (std::vector<float>{0, 1, 2, 3, 4}));
    ASSERT_TRUE(plane->isOnSurface(guide.root));
    expectNear(plane->pointAt(guide.root), guide.points.front());
    EXPECT_EQ(h.scalpTopology(), plane->topologySignature());
    EXPECT_FALSE(guide.needsUpRefresh);
    ASSERT_EQ(guide.rootLocal.size(), 5u);
}

TEST(GuidePose, SameTopologyMovesWithTheSurface) {
    const auto sphere = makeSphere(1, 10, 16);
    GuideHierarchy h = test::scalpHierarchy(*sphere, 30, 6, 3, 2);
    h.setScale(1.5f);
    const GuideHierarchy before = h;
    const ScalpMesh moved = deformed(*sphere);
    h.pose(moved);
    for (std::size_t i = 0; i < h.guides().size(); ++i) {
        const Guide& now = h.guides()[i];
        const Guide& was = before.guides()[i];
        if (now.parent != 0) continue;
        // Still bound where it was, its points carried by the surface frame there.
        EXPECT_EQ(now.root, was.root);
        const SurfaceFrame frame = moved.frameAt(now.root);
        for (std::size_t k = 0; k < now.points.size(); ++k)
            expectNear(now.points[k], frame.toWorld(was.rootLocal[k] * 1.5f));
        expectNear(now.points[0], moved.pointAt(now.root), 1e-4f);
        // The surface bent under it, not the guide: its segments keep their lengths, scaled.
        EXPECT_NEAR(length(now.points[3] - now.points[2]),
                    1.5f * length(was.points[3] - was.points[2]), 1e-4f);
    }
    // Children follow their moved parents.
    const Guide& child = h.guides().back();
    const Guide& parent = *h.findGuide(child.parent);
    EXPECT_LT(length(child.points[0] - parent.points[0]), 0.2f);
    EXPECT_GT(length(child.points[0] - before.findGuide(child.id)->points[0]), 1e-3f);
}

TEST(GuidePose, NewTopologyRebindsByPosition) {
    const auto coarse = makeSphere(1, 10, 16);
    const auto fine = makeSphere(1, 14, 20);
    GuideHierarchy h = test::scalpHierarchy(*coarse, 20, 4, 0, 3);
    const GuideHierarchy before = h;
    h.pose(*fine);
    EXPECT_EQ(h.scalpTopology(), fine->topologySignature());
    for (std::size_t i = 0; i < h.guides().size(); ++i) {
        const Guide& now = h.guides()[i];
        EXPECT_EQ(now.points, before.guides()[i].points);  // rebinding moves no point
        ASSERT_TRUE(fine->isOnSurface(now.root));
        const ClosestPoint nearest = fine->closestPoint(now.points[0]);
        expectNear(fine->pointAt(now.root), nearest.point);
    }
}

TEST(GuidePose, ParallelLevelsMatchOneThread) {
    const auto sphere = makeSphere(1, 10, 16);
    const GuideHierarchy start = test::scalpHierarchy(*sphere, 200, 8, 5, 6);
    const ScalpMesh moved = deformed(*sphere);
    GuideHierarchy one = start, two = start;
    runWithThreads(1, [&] { one.pose(moved); });
    runWithThreads(2, [&] { two.pose(moved); });
    EXPECT_EQ(one.contentHash(), two.contentHash());
    EXPECT_NE(one.contentHash(), start.contentHash());
}

TEST(GuidePose, TubeClearanceAgainstTheSkin) {
    const auto plane = makeUvPlane(4, 8);
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    // Guides lying along the skin 0.02 above it; a ribbon of half-height 0.25 * 0.2 lies flat on
    // the skin (its up taken from the surface) and sinks in by 0.03.
    TubeFields ribbon;
    ribbon.shape = TubeShape::Ribbon;
    ribbon.width = {0.2f};
    TubeFields flatRound;
    flatRound.width = {0.2f};
    flatRound.aspect = {0.5f};
    TubeFields plain;
    plain.width = {0.2f};
    const std::uint64_t a = h.addGuide(main, curve({-1, 0.02f, 0}, {1, 0, 0}, 1, 4), ribbon);
    const std::uint64_t b = h.addGuide(main, curve({-1, 0.02f, 1}, {1, 0, 0}, 1, 4), flatRound);
    const std::uint64_t c = h.addGuide(main, curve({-1, 0.02f, -1}, {1, 0, 0}, 1, 4), plain);
    const std::uint64_t d = h.addGuide(main, curve({0, 0.5f, 0}, {1, 0, 0}, 1, 4), ribbon);
    h.pose(*plane);
    for (const float value : h.findGuide(a)->tubeClearance)
        EXPECT_NEAR(value, 0.03f, 1e-5f);
    for (const float value : h.findGuide(b)->tubeClearance)
        EXPECT_NEAR(value, 0.08f, 1e-5f);
    EXPECT_TRUE(h.findGuide(c)->tubeClearance.empty());
    EXPECT_EQ(h.findGuide(d)->tubeClearance, std::vector<float>(4, 0.0f));
}

}  // namespace
}  // namespace velmorin
