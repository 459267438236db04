#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "graph/errors.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::expectPointsNear;
using test::handStrands;
using test::ShapeRun;
using test::straight;

std::vector<Vec3f> upFrom(Vec3f root) {
    return {root, root + Vec3f{0, 1, 0}, root + Vec3f{0, 2, 0}};
}

TEST(Twist, TurnsEachPointAboutItsAxisByTurnsPerUnitOfAxis) {
    // A quarter turn per unit: half a turn at the tip of an axis 2 long.
    auto axes = std::make_shared<GuideSet>();
    for (const float x : {0.0f, 10.0f}) {
        Guide guide;
        guide.id = 1 + static_cast<std::uint64_t>(x);
        guide.points = upFrom({x, 0, 0});
        axes->guides.push_back(guide);
    }
    const auto strands = handStrands({upFrom({1, 0, 0}), upFrom({9, 0, 0}), straight(1)});
    const auto out = ShapeRun("Twist", {{"turns", 0.25}}).run(strands, {Value(axes)});
    expectPointsNear(out->strandPoints(0), {{1, 0, 0}, {0, 1, -1}, {-1, 2, 0}});
    // The second strand follows the nearer axis, at x = 10.
    expectPointsNear(out->strandPoints(1), {{9, 0, 0}, {10, 1, 1}, {11, 2, 0}});
    EXPECT_EQ(out->strandPoints(2)[0], Vec3f{});
    // The profile scales the angle along the length: nothing at the root, all at the tip.
    Ramp rising;
    rising.linear = true;
    rising.keys = {{0.0f, 0.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    const auto profiled =
        ShapeRun("Twist", {{"turns", 0.5}, {"profile", rising}}).run(strands, {Value(axes)});
    expectPointsNear(profiled->strandPoints(0), {{1, 0, 0}, {0, 1, -1}, {1, 2, 0}});
}

std::shared_ptr<StrandSet> clumped(const std::vector<std::vector<Vec3f>>& strands,
                                   const std::vector<float>& clumpIds) {
    auto set = std::make_shared<StrandSet>(*handStrands(strands));
    set->addStrandChannel("clumpId", -1.0f) = clumpIds;
    return set;
}

TEST(Twist, ClumpsTwistAboutTheMeanOfTheirCoreStrands) {
    auto strands = clumped({upFrom({1, 0, 0}), upFrom({-1, 0, 0}), upFrom({5, 0, 0}),
                            upFrom({21, 0, 0}), upFrom({19, 0, 0})},
                           {3, 3, 3, 8, 8});
    // The third strand is not in every preview: it turns with its clump but doesn't move the axis.
    strands->addStrandChannel("_preview", 1.0f)[2] = 0.0f;
    const auto out = ShapeRun("Twist", {{"turns", 0.25}}).run(strands);
    expectPointsNear(out->strandPoints(0), {{1, 0, 0}, {0, 1, -1}, {-1, 2, 0}});
    expectPointsNear(out->strandPoints(2), {{5, 0, 0}, {0, 1, -5}, {-5, 2, 0}});
    expectPointsNear(out->strandPoints(3), {{21, 0, 0}, {20, 1, -1}, {19, 2, 0}});
}

TEST(Twist, NeedsAxesOrClumps) {
    const auto strands = handStrands({straight(3)});
    test::expectMessage<GraphError>(
        [&] { ShapeRun("Twist").run(strands); },
        "Twist: connect axes (guides), or put a Clump before it (no 'clumpId' channel to find the "
        "clumps)");
    test::expectMessage<GraphError>(
        [&] {
            ShapeRun("Twist", {{"clumpChannel", std::string("lock")}}).run(strands);
        },
        "Twist: connect axes (guides), or put a Clump before it (no 'lock' channel to find the "
        "clumps)");
}

TEST(Twist, ClumpRunsMatchAtAnyThreadCountAndRedoOnlyTheChangedClumps) {
    const auto grid = test::gridStrands(2000, 9, 4);
    std::vector<float> ids(2000);
    for (std::size_t s = 0; s < ids.size(); ++s)
        ids[s] = static_cast<float>(s / 100);
    auto strands = std::make_shared<StrandSet>(*grid);
    strands->addStrandChannel("clumpId", 0.0f) = ids;
    const ShapeRun twist("Twist", {{"turns", 0.7}});
    const auto [one, two] =
        test::onOneAndTwoThreads([&] { return twist.run(strands)->contentHash(); });
    EXPECT_EQ(one, two);
    // Strand 150 moves the axis of clump 1, strands 100 to 199.
    const auto outcome = test::incrementalAfterMove(twist, strands, {150});
    EXPECT_EQ(outcome.run, "incremental 100");
    EXPECT_TRUE(outcome.sameAsFull);
}

}  // namespace
}  // namespace velmorin
