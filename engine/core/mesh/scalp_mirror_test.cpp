#include "mesh/scalp_mirror.h"

#include <gtest/gtest.h>

#include "base/hash.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

Vec3f mirrored(const Vec3f& p) {
    return {-p.x, p.y, p.z};
}

TEST(ScalpMirror, PairsASymmetricScalpAndCarriesLocationsAcross) {
    const auto head = makeHeadScalp(1);
    const ScalpMirror mirror(*head);
    const auto& points = head->points();
    EXPECT_EQ(mirror.pairedCount(), points.size());
    std::size_t onThePlane = 0;
    for (std::uint32_t i = 0; i < points.size(); ++i) {
        const std::int32_t j = mirror.partner(i);
        ASSERT_GE(j, 0) << i;
        EXPECT_EQ(mirror.partner(static_cast<std::uint32_t>(j)), static_cast<std::int32_t>(i));
        EXPECT_LE(length(points[j] - mirrored(points[i])), mirror.tolerance());
        onThePlane += j == static_cast<std::int32_t>(i);
    }
    EXPECT_EQ(onThePlane, 33u);  // the middle column of the 32 x 32 grid

    for (std::uint64_t id = 0; id < 200; ++id) {
        const float u = unitFloat(hashCombine(id, 1)), v = unitFloat(hashCombine(id, 2));
        const StrandRoot root{static_cast<std::int32_t>(mix64(id) % head->triangleCount()),
                              u * 0.5f, v * 0.5f};
        const StrandRoot across = mirror.mirror(root);
        ASSERT_TRUE(head->isOnSurface(across));
        // Quads are cut along the same diagonal on both sides, so the image of a location lies
        // off the surface by the quad's bend: the answer is the surface's nearest point to it.
        const Vec3f image = mirrored(head->pointAt(root));
        EXPECT_NEAR(length(head->pointAt(across) - image), head->closestPoint(image).distance,
                    1e-4f);
    }
    EXPECT_EQ(mirror.mirror(StrandRoot{}).face, -1);

    // Where the other side has the same triangle, the weights carry over corner by corner.
    const ScalpMesh pair({{1, 0, 0}, {2, 0, 0}, {1, 1, 0}, {-1, 0, 0}, {-1, 1, 0}, {-2, 0, 0}},
                         {{0, 1, 2}, {3, 4, 5}});
    const ScalpMirror pairMirror(pair);
    EXPECT_EQ(pairMirror.partnerTriangle(0), 1);
    EXPECT_EQ(pairMirror.mirror({0, 0.2f, 0.3f}), (StrandRoot{1, 0.3f, 0.2f}));
}

TEST(ScalpMirror, LeavesUnmatchedPointsAloneAndPairsCoincidentPointsOneToOne) {
    // Two points on top of each other at x = 1, two more at x = -1, a point with no image, and
    // one on the plane.
    ScalpMesh mesh({{1, 0, 0}, {1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}, {0.5f, 2, 0}, {0, 3, 0}}, {});
    const ScalpMirror mirror(mesh);
    EXPECT_EQ(std::vector<std::int32_t>(mirror.partners().begin(), mirror.partners().end()),
              (std::vector<std::int32_t>{2, 3, 0, 1, -1, 5}));
    EXPECT_EQ(mirror.pairedCount(), 5u);

    // Pairs come from the rest pose where there is one, so a posed scalp keeps them.
    ScalpMesh posed = mesh;
    posed.setRestPoints(mesh.points());
    posed.setPoints({{7, 1, 0}, {1, 0, 9}, {-1, 0, 0}, {-1, 0, 0}, {-0.5f, 2, 0}, {0, 3, 0}});
    EXPECT_EQ(ScalpMirror::of(posed)->pairedCount(), 5u);
    EXPECT_EQ(ScalpMirror::of(posed), ScalpMirror::of(posed));
    // Paired by its posed points instead, only the point on the plane finds its image.
    EXPECT_EQ(ScalpMirror(ScalpMesh(posed.points(), {})).pairedCount(), 1u);
}

}  // namespace
}  // namespace velmorin
