#include <gtest/gtest.h>

#include <cmath>

#include "base/parallel.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_follow.h"
#include "ops/test/shape_checks.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// A strip folded back over itself: a lower sheet at y = 0 from z = 0 to 5, a fold up to y = 0.3,
// and an upper sheet back from z = 5 to 0, a thin shell whose two sides are 0.3 apart in a
// straight line and over 8 apart along the surface.
std::shared_ptr<const ScalpMesh> foldedStrip() {
    std::vector<float> steps;
    for (int j = 0; j <= 10; ++j)
        steps.push_back(0.5f * static_cast<float>(j));
    steps.push_back(5.3f);
    for (int j = 1; j <= 10; ++j)
        steps.push_back(5.3f + 0.5f * static_cast<float>(j));
    std::vector<Vec3f> points;
    for (const float w : steps)
        for (int i = 0; i <= 4; ++i) {
            const float x = static_cast<float>(i) - 2.0f;
            if (w <= 5.0f)
                points.push_back({x, 0.0f, w});
            else if (w <= 5.3f)
                points.push_back({x, w - 5.0f, 5.0f});
            else
                points.push_back({x, 0.3f, 10.3f - w});
        }
    std::vector<Triangle> triangles;
    for (std::uint32_t j = 0; j + 1 < steps.size(); ++j)
        for (std::uint32_t i = 0; i < 4; ++i) {
            const std::uint32_t a = j * 5 + i, b = a + 1, c = a + 5, d = c + 1;
            // Both sheets face +y, so that guides on either turn alike onto a strand.
            if (steps[j] < 5.0f) {
                triangles.push_back({a, c, b});
                triangles.push_back({b, c, d});
            } else {
                triangles.push_back({a, b, c});
                triangles.push_back({b, d, c});
            }
        }
    return std::make_shared<ScalpMesh>(std::move(points), std::move(triangles));
}

Guide guideOn(const ScalpMesh& mesh, std::uint64_t id, const Vec3f& root, const Vec3f& way) {
    Guide guide;
    guide.id = id;
    guide.root = mesh.closestPoint(root).root;
    for (int k = 0; k < 5; ++k)
        guide.points.push_back(root + way * (0.5f * static_cast<float>(k)));
    return guide;
}

TEST(InterpolateFollow, TheSurfaceDoesNotReachAcrossAThinShellWhereAStraightLineWould) {
    const auto strip = foldedStrip();
    auto guides = std::make_shared<GuideSet>();
    // Beside the strand along the lower sheet, leaning +x; right over it on the upper sheet,
    // leaning -x.
    guides->guides.push_back(guideOn(*strip, 1, {0.5f, 0.0f, 3.5f}, normalized(Vec3f{1, 1, 0})));
    guides->guides.push_back(guideOn(*strip, 2, {0.0f, 0.3f, 1.2f}, normalized(Vec3f{-1, 1, 0})));
    guides->guides.push_back(guideOn(*strip, 3, {-1.5f, 0.3f, 2.0f}, normalized(Vec3f{-1, 1, 0})));
    auto strands = std::make_shared<StrandSet>();
    const Vec3f root{0.1f, 0.0f, 1.0f};
    strands->addStrand(1, strip->closestPoint(root).root,
                       std::vector<Vec3f>{root, root + Vec3f{0, 1, 0}, root + Vec3f{0, 2, 0}});

    for (const std::int64_t neighbors : {1, 3}) {
        for (const bool follow : {false, true}) {
            auto op = OperatorRegistry::instance().create("Interpolate");
            op->paramSet.set("neighbors", neighbors);
            op->paramSet.set("followSurface", follow);
            const auto out = op->evaluate(EvalContext{}, {strands, guides, strip}).get<StrandSet>();
            const float tipX = out->strandPoints(0).back().x;
            // Straight, the guide over the shell wins; along the surface, the one beside it.
            if (follow)
                EXPECT_GT(tipX, root.x + 0.5f) << neighbors;
            else
                EXPECT_LT(tipX, root.x - 0.5f) << neighbors;
        }
    }

    // The walk's answer, by hand: the guide beside it straight across the sheet, the upper ones
    // round the fold; a strand rooted off the scalp keeps the straight-line answer.
    std::vector<const Guide*> pointers;
    std::vector<Vec3f> guideRoots;
    for (const Guide& guide : guides->guides) {
        pointers.push_back(&guide);
        guideRoots.push_back(guide.points[0]);
    }
    const std::vector<StrandRoot> locations = {strip->closestPoint(root).root, StrandRoot{}};
    const auto surface = makeSurfaceGuides(strip, pointers, locations);
    BindingInputs inputs;
    inputs.guideRoots = guideRoots;
    std::uint32_t found[4] = {2, 1, 0, 0};
    float d2[4] = {0.1f, 0.2f, 0.3f, 0.0f};
    ASSERT_EQ(nearestOnSurface(*surface, inputs, 0, -1, 3, found, d2, 3), 3);
    // Along the mesh's edges a path runs longer than straight across the sheet, by less than
    // the edges' zigzag.
    EXPECT_EQ(found[0], 0u);
    EXPECT_GE(std::sqrt(d2[0]), length(guideRoots[0] - root));
    EXPECT_LT(std::sqrt(d2[0]), 1.3f * length(guideRoots[0] - root));
    // The two over the shell only round the fold: 4 + 0.3 + 3 and more.
    EXPECT_EQ(found[1] + found[2], 3u);
    EXPECT_GT(std::sqrt(d2[1]), 7.3f);
    EXPECT_LT(std::sqrt(d2[2]), 1.3f * 8.1f);
    std::uint32_t offScalp[2] = {1, 0};
    float offD2[2] = {0.5f, 0.7f};
    EXPECT_EQ(nearestOnSurface(*surface, inputs, 1, -1, 3, offScalp, offD2, 2), 2);
    EXPECT_EQ(offScalp[0], 1u);
    EXPECT_EQ(offD2[1], 0.7f);
    // Only the guides of the region asked for count.
    const std::vector<std::int32_t> labels = {5, 7, 7};
    inputs.guideLabels = labels;
    ASSERT_EQ(nearestOnSurface(*surface, inputs, 0, 7, 3, found, d2, 3), 2);
    EXPECT_EQ(found[0] + found[1], 3u);
    EXPECT_NE(found[0], 0u);
}

std::shared_ptr<GuideSet> headGuides(const ScalpMesh& head) {
    auto guides = std::make_shared<GuideSet>();
    for (std::size_t p = 0; p < head.pointCount(); p += 29) {
        const ClosestPoint at = head.closestPoint(head.points()[p]);
        const Vec3f normal = head.normalAt(at.root);
        Guide guide;
        guide.id = guides->guides.size() + 1;
        guide.root = at.root;
        const Vec3f lean{static_cast<float>(p % 7) * 0.1f - 0.3f, 0.0f, 0.2f};
        for (int k = 0; k < 5; ++k)
            guide.points.push_back(head.pointAt(at.root) +
                                   (normal + lean * static_cast<float>(k)) * static_cast<float>(k));
        guides->guides.push_back(std::move(guide));
    }
    return guides;
}

TEST(InterpolateFollow, FollowingTheSurfaceMakesTheSameBitsOnThreadsAndAfterAMovedGuide) {
    const auto head = makeHeadScalp(1);
    const auto strands = test::scatterOn(head, 6.0);
    const auto guides = headGuides(*head);
    const auto follow = [] {
        auto op = OperatorRegistry::instance().create("Interpolate");
        op->paramSet.set("followSurface", true);
        return op;
    };
    const auto evaluate = [&](const Operator& op, const std::shared_ptr<GuideSet>& set) {
        return op.evaluate(EvalContext{}, {strands, set, head}).get<StrandSet>();
    };
    std::uint64_t hashes[2] = {0, 0};
    for (const int threads : {1, 2})
        runWithThreads(threads,
                       [&] { hashes[threads - 1] = evaluate(*follow(), guides)->contentHash(); });
    EXPECT_EQ(hashes[0], hashes[1]);
    EXPECT_NE(hashes[0],
              evaluate(*OperatorRegistry::instance().create("Interpolate"), guides)->contentHash());

    // A guide moved along the scalp rebinds the strands near it from the state before, and that
    // equals a binding from scratch.
    const auto op = follow();
    evaluate(*op, guides);
    auto moved = std::make_shared<GuideSet>(*guides);
    Guide& guide = moved->guides[moved->guides.size() / 2];
    const Vec3f shift =
        head->pointAt(head->closestPoint(guide.points[0] + Vec3f{0.3f, 0, 0}).root) -
        guide.points[0];
    guide.root = head->closestPoint(guide.points[0] + shift).root;
    for (Vec3f& p : guide.points)
        p += shift;
    EXPECT_EQ(evaluate(*op, moved)->contentHash(), evaluate(*follow(), moved)->contentHash());
}

TEST(InterpolateFollow, TheTableOfEachPointsNearestAnswersAsAWalkFromEveryRoot) {
    const auto head = makeHeadScalp(1);
    const auto strands = test::scatterOn(head, 6.0);
    const auto guides = headGuides(*head);
    std::vector<const Guide*> pointers;
    std::vector<Vec3f> guideRoots;
    for (const Guide& guide : guides->guides) {
        pointers.push_back(&guide);
        guideRoots.push_back(guide.points[0]);
    }
    constexpr int k = 9;
    const auto walked = makeSurfaceGuides(head, pointers, strands->roots());
    const auto tabled = makeSurfaceGuides(head, pointers, strands->roots(), k);
    ASSERT_NE(tabled->table, nullptr);
    BindingInputs inputs;
    inputs.guideRoots = guideRoots;
    std::size_t differ = 0;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        std::uint32_t a[k], b[k];
        float da[k], db[k];
        const int na = nearestOnSurface(*walked, inputs, s, -1, k, a, da, 0);
        const int nb = nearestOnSurface(*tabled, inputs, s, -1, k, b, db, 0);
        ASSERT_EQ(na, k);
        ASSERT_EQ(nb, k);
        for (int i = 0; i < k; ++i) {
            // The same distances but for the order of their sums; guides swap only at a near tie.
            EXPECT_NEAR(std::sqrt(da[i]), std::sqrt(db[i]), 1e-4f * (1.0f + std::sqrt(da[i])));
            differ += a[i] != b[i] ? 1 : 0;
        }
    }
    EXPECT_LE(differ, strands->strandCount() / 100);
}

}  // namespace
}  // namespace velmorin
