#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "common/starter_guides.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

float curveLength(const std::vector<Vec3f>& points) {
    float total = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k)
        total += length(points[k] - points[k - 1]);
    return total;
}

double scalpArea(const ScalpMesh& scalp) {
    double area = 0.0;
    for (const Triangle& t : scalp.triangles())
        area += 0.5 * length(cross(scalp.points()[t[1]] - scalp.points()[t[0]],
                                   scalp.points()[t[2]] - scalp.points()[t[0]]));
    return area;
}

TEST(StarterGuides, GrownFromSpreadRootsAlongTheNormals) {
    const auto scalp = makeHeadScalp();
    StarterGuideOptions options;
    options.count = 80;
    options.length = 0.5f;
    options.segments = 6;
    const GuideHierarchy guides = makeStarterGuides(*scalp, options);
    ASSERT_EQ(guides.groups().size(), 1u);
    EXPECT_EQ(guides.groups()[0].name, "guides");
    EXPECT_EQ(guides.groups()[0].segments, 6);
    ASSERT_EQ(guides.guides().size(), 80u);

    float nearest = std::numeric_limits<float>::max();
    for (const Guide& guide : guides.guides()) {
        ASSERT_EQ(guide.points.size(), 7u);
        EXPECT_TRUE(scalp->isOnSurface(guide.root)) << guide.id;
        EXPECT_LT(length(scalp->pointAt(guide.root) - guide.points[0]), 1e-4f) << guide.id;
        EXPECT_NEAR(curveLength(guide.points), 0.5f, 1e-3f) << guide.id;
        // The first segment leaves the surface.
        EXPECT_GT(dot(guide.points[1] - guide.points[0], scalp->normalAt(guide.root)), 0.0f);
        for (const Guide& other : guides.guides())
            if (other.id != guide.id)
                nearest = std::min(nearest, length(other.points[0] - guide.points[0]));
    }
    // Evenly spread: no two roots much closer than the spacing that 80 equal cells would have
    // (random roots would put some pair at a small fraction of it).
    const auto spacing = static_cast<float>(std::sqrt(scalpArea(*scalp) / 80.0));
    EXPECT_GT(nearest, 0.5f * spacing);
}

TEST(StarterGuides, SameOptionsSameBitsAndSeedsDiffer) {
    const auto scalp = makeHeadScalp();
    StarterGuideOptions options;
    options.count = 30;
    const std::string first = makeStarterGuides(*scalp, options).toJson();
    EXPECT_EQ(makeStarterGuides(*scalp, options).toJson(), first);
    options.seed = 9;
    EXPECT_NE(makeStarterGuides(*scalp, options).toJson(), first);
    // What the guide data format reads back.
    EXPECT_EQ(GuideHierarchy::fromJson(first).guides().size(), 30u);
}

TEST(StarterGuides, GravityCombsTipsDown) {
    const auto scalp = makeHeadScalp();
    const auto meanTipDrop = [&](float gravity) {
        StarterGuideOptions options;
        options.count = 50;
        options.gravity = gravity;
        const GuideHierarchy guides = makeStarterGuides(*scalp, options);
        double drop = 0.0;
        for (const Guide& guide : guides.guides())
            drop += guide.points.front().y - guide.points.back().y;
        return drop / 50.0;
    };
    const double none = meanTipDrop(0.0f), some = meanTipDrop(0.5f), full = meanTipDrop(1.0f);
    EXPECT_LT(none, some);
    EXPECT_LT(some, full);
    EXPECT_GT(full, 0.0);
}

TEST(StarterGuides, MeasuredLengthAndRefusals) {
    const auto plane = makeUvPlane(2.0f, 4);
    StarterGuideOptions options;
    options.count = 3;
    options.gravity = 0.0f;
    const GuideHierarchy guides = makeStarterGuides(*plane, options);
    // A fifth of the bounding box's diagonal; straight up from a plane facing +Y.
    const float diagonal = length(plane->bounds().second - plane->bounds().first);
    for (const Guide& guide : guides.guides()) {
        EXPECT_NEAR(curveLength(guide.points), 0.2f * diagonal, 1e-4f);
        EXPECT_NEAR(guide.points.back().x, guide.points.front().x, 1e-5f);
    }

    const std::vector<std::pair<StarterGuideOptions, std::string>> refused = {
        {{.count = 0}, "starter guides: the count must be 1 to 10000"},
        {{.count = 10001}, "starter guides: the count must be 1 to 10000"},
        {{.segments = 0}, "starter guides: the segments must be 1 to 64"},
        {{.length = -1.0f}, "starter guides: the length must be 0 (measured) or more"},
        {{.length = NAN}, "starter guides: the length must be 0 (measured) or more"},
        {{.gravity = 1.5f}, "starter guides: gravity must be 0 to 1"},
    };
    for (const auto& [bad, message] : refused) {
        try {
            makeStarterGuides(*plane, bad);
            ADD_FAILURE() << message;
        } catch (const std::invalid_argument& error) {
            EXPECT_EQ(std::string(error.what()), message);
        }
    }
    try {
        makeStarterGuides(ScalpMesh(), {});
        ADD_FAILURE() << "an empty scalp";
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(std::string(error.what()), "starter guides: the scalp has no triangles");
    }
}

}  // namespace
}  // namespace velmorin
