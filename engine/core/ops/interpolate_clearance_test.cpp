#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "base/parallel.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_clearance.h"
#include "ops/shape_support.h"
#include "ops/test/shape_strands.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

std::shared_ptr<const ScalpMesh> bump() {
    static const auto mesh = test::bumpedPlane();
    return mesh;
}

// Guides either side of the bump lying along +x just over the flat skin, and strands of `points`
// points between them that would run straight through it.
struct OverTheBump {
    std::shared_ptr<GuideSet> guides = std::make_shared<GuideSet>();
    std::shared_ptr<StrandSet> strands = std::make_shared<StrandSet>();

    explicit OverTheBump(int points) {
        for (const float z : {-2.5f, 2.5f}) {
            Guide guide;
            guide.id = guides->guides.size() + 1;
            guide.root = bump()->closestPoint({-3.0f, 0.0f, z}).root;
            guide.points.push_back({-3.0f, 0.0f, z});
            for (int k = 1; k < 40; ++k)
                guide.points.push_back({-3.0f + 6.0f * static_cast<float>(k) / 39.0f, 0.15f, z});
            guides->guides.push_back(std::move(guide));
        }
        for (int i = 0; i < 5; ++i)
            for (int j = 0; j < 9; ++j) {
                const Vec3f root{-3.5f + 0.25f * static_cast<float>(i), 0.0f,
                                 -1.0f + 0.25f * static_cast<float>(j)};
                std::vector<Vec3f> line;
                for (int k = 0; k < points; ++k)
                    line.push_back(root + Vec3f{0, 0.05f * static_cast<float>(k), 0});
                strands->addStrand(strands->strandCount() + 1, bump()->closestPoint(root).root,
                                   line);
            }
    }

    std::shared_ptr<const StrandSet> run(bool keepClearance) const {
        auto op = OperatorRegistry::instance().create("Interpolate");
        op->paramSet.set("keepClearance", keepClearance);
        return op->evaluate(EvalContext{}, {strands, guides, bump()}).get<StrandSet>();
    }
};

TEST(InterpolateClearance, LongStrandsInCoarseStepsStayOnTheSkinWithTheirLength) {
    const auto field = clearanceField(bump());
    ASSERT_NE(field, nullptr);
    const float epsilon = 0.5f * field->voxelSize();
    // 8 points walks point by point, 18 is the shortest strand that steps coarsely, 60 takes
    // several points a step.
    for (const int points : {8, 18, 60}) {
        const OverTheBump scene(points);
        const auto sunken = scene.run(false);
        const auto lifted = scene.run(true);
        std::size_t raised = 0;
        for (std::size_t s = 0; s < lifted->strandCount(); ++s) {
            const auto walked = lifted->strandPoints(s);
            const auto groomed = sunken->strandPoints(s);
            EXPECT_EQ(walked[0], groomed[0]) << s;
            for (std::size_t k = 0; k < walked.size(); ++k)
                EXPECT_GE(field->distance(walked[k]), -epsilon) << points << " " << s << " " << k;
            EXPECT_NEAR(strandLength(walked), strandLength(groomed), 0.02f * strandLength(groomed))
                << s;
            // Each segment keeps about its length, whether walked one by one or in a step.
            for (std::size_t k = 1; k < walked.size(); ++k)
                EXPECT_NEAR(length(walked[k] - walked[k - 1]), length(groomed[k] - groomed[k - 1]),
                            0.25f * length(groomed[k] - groomed[k - 1]))
                    << s << " " << k;
            float highest = 0.0f;
            for (const Vec3f& p : walked)
                highest = std::max(highest, p.y);
            if (highest > 0.4f) {
                ++raised;
                EXPECT_LT(walked.back().y, highest - 0.2f) << s;
            }
        }
        EXPECT_GT(raised, 5u) << points;

        std::vector<Vec3f> bits[2];
        for (const int threads : {1, 2})
            runWithThreads(threads, [&] {
                const auto walked = scene.run(true);
                bits[threads - 1].assign(walked->points().begin(), walked->points().end());
            });
        ASSERT_EQ(bits[0].size(), bits[1].size());
        EXPECT_EQ(0, std::memcmp(bits[0].data(), bits[1].data(), bits[0].size() * sizeof(Vec3f)));
    }
    // Without a scalp there is no skin to keep clear of, and the setting changes nothing.
    const OverTheBump scene(8);
    const auto withoutScalp = [&](bool keepClearance) {
        auto op = OperatorRegistry::instance().create("Interpolate");
        op->paramSet.set("keepClearance", keepClearance);
        const auto out = op->evaluate(EvalContext{}, {scene.strands, scene.guides, Value()});
        const auto points = out.get<StrandSet>()->points();
        return std::vector<Vec3f>(points.begin(), points.end());
    };
    const std::vector<Vec3f> kept = withoutScalp(true), plain = withoutScalp(false);
    EXPECT_EQ(0, std::memcmp(kept.data(), plain.data(), kept.size() * sizeof(Vec3f)));
}

TEST(InterpolateClearance, ADeformedScalpIsWalkedOverItsRestPosesField) {
    // The bump turned a third of a right angle about z and moved, its rest points where they
    // were; the guides and strands go with it.
    const float c = std::cos(0.5236f), s = std::sin(0.5236f);
    const auto move = [&](const Vec3f& p) {
        return Vec3f{c * p.x - s * p.y + 1.0f, s * p.x + c * p.y + 2.0f, p.z + 0.5f};
    };
    auto deformed = std::make_shared<ScalpMesh>(*bump());
    std::vector<Vec3f> points = bump()->points();
    for (Vec3f& p : points)
        p = move(p);
    deformed->setPoints(std::move(points));
    deformed->setRestPoints(bump()->points());
    ASSERT_NE(restScalp(*deformed), nullptr);
    EXPECT_EQ(restScalp(*bump()), nullptr);

    const OverTheBump scene(30);
    OverTheBump moved(30);
    for (Guide& guide : moved.guides->guides)
        for (Vec3f& p : guide.points)
            p = move(p);
    auto strands = std::make_shared<StrandSet>(*scene.strands);
    for (Vec3f& p : strands->writePoints())
        p = move(p);
    moved.strands = strands;
    auto op = OperatorRegistry::instance().create("Interpolate");
    op->paramSet.set("keepClearance", true);
    const auto atRest = scene.run(true);
    const auto walked = op->evaluate(EvalContext{}, {moved.strands, moved.guides,
                                                     std::shared_ptr<const ScalpMesh>(deformed)})
                            .get<StrandSet>();
    // The same walk as at rest, moved along; so it lies on the moved skin, not in it.
    auto plain = std::make_shared<ScalpMesh>(*deformed);
    plain->setRestPoints({});
    const auto field = clearanceField(plain);
    ASSERT_NE(field, nullptr);
    for (std::size_t k = 0; k < walked->points().size(); ++k) {
        EXPECT_LT(length(walked->points()[k] - move(atRest->points()[k])), 2e-3f) << k;
        EXPECT_GE(field->distance(walked->points()[k]), -0.5f * field->voxelSize()) << k;
    }
}

}  // namespace
}  // namespace velmorin
