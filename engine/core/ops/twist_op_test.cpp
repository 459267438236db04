#include <gtest/gtest.h>

#include "base/fast_trig.h"
#include "base/hash.h"
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

TEST(Twist, ClumpsTwistAboutTheMeanOfTheirCoreStrands) {
    auto strands =
        test::withClumps(*handStrands({upFrom({1, 0, 0}), upFrom({-1, 0, 0}), upFrom({5, 0, 0}),
                                       upFrom({21, 0, 0}), upFrom({19, 0, 0})}),
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

TEST(Twist, KeepsItsClumpAxesWhileItsInputSharesThePointsAndClumps) {
    const std::shared_ptr<const StrandSet> strands = test::clumpedGrid(3000, 6, 5, 30);
    auto op = ShapeRun("Twist", {{"turns", 0.4}}).make();
    EvalContext ctx;
    op->evaluate(ctx, {Value(strands)});
    const auto first = twistAxesOf(*op);
    ASSERT_TRUE(first);
    const auto runOn = [&](const std::shared_ptr<const StrandSet>& input) {
        return op->evaluate(ctx, {Value(input)}).get<StrandSet>()->contentHash();
    };
    // A drag of turns, and a channel added beside the clumps, keep them; the result is a fresh
    // node's.
    op->paramSet.set("turns", 0.8);
    const ShapeRun fresh("Twist", {{"turns", 0.8}});
    EXPECT_EQ(runOn(strands), fresh.run(strands)->contentHash());
    EXPECT_EQ(twistAxesOf(*op), first);
    auto colored = std::make_shared<StrandSet>(*strands);
    colored->addStrandChannel("colorR", 0.5f);
    runOn(colored);
    EXPECT_EQ(twistAxesOf(*op), first);
    // A node put in its place takes them over.
    auto replacing = ShapeRun("Twist").make();
    replacing->copyStateFrom(*op);
    EXPECT_EQ(twistAxesOf(*replacing), first);
    // Moved points, other clumps or another preview make them again, as a fresh node would.
    auto moved = std::make_shared<StrandSet>(*strands);
    moved->writePoints()[40].x += 0.5f;
    auto regrouped = std::make_shared<StrandSet>(*strands);
    regrouped->addStrandChannel("clumpId", 0.0f)[7] = 99.0f;
    auto previewed = std::make_shared<StrandSet>(*strands);
    previewed->addStrandChannel("_preview", 1.0f)[3] = 0.0f;
    for (const std::shared_ptr<const StrandSet>& changed :
         std::vector<std::shared_ptr<const StrandSet>>{moved, regrouped, previewed}) {
        const auto before = twistAxesOf(*op);
        EXPECT_EQ(runOn(changed), fresh.run(changed)->contentHash());
        EXPECT_NE(twistAxesOf(*op), before);
    }
}

TEST(Twist, PointsKeepTheirPinnedBitsAtAnyThreadCount) {
    // Strands of 1 to 30 points (the kernels take eight points or four strands at a time), some
    // with repeated points and some of no length, about clump axes and about guide curves of 1 to
    // 24 points, with a flat profile and a rising one.
    StrandSet strands = test::bentStrands(2000, 30, 41);
    std::vector<float>& ids = strands.addStrandChannel("clumpId", 0.0f);
    for (std::size_t s = 0; s < ids.size(); ++s)
        ids[s] = static_cast<float>(s / 9);
    const ClumpAxes clumps = clumpAxes(strands, ids);
    GuideSet guides;
    for (std::size_t g = 0; g < 40; ++g) {
        Guide guide;
        guide.id = g + 1;
        const std::uint64_t h = hashCombine(43, g);
        Vec3f at{unitFloat(h) * 4, 0, unitFloat(h + 1) * 4};
        for (std::size_t k = 0; k < 1 + g % 24; ++k) {
            guide.points.push_back(at);
            at += Vec3f{0.3f * (unitFloat(h + k) - 0.5f), 0.5f, 0.1f};
        }
        guides.guides.push_back(guide);
    }
    Ramp rising;
    rising.linear = true;
    rising.keys = {{0.0f, 0.3f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    // Taken while every point still matched a plain evaluation of the steps, one point at a time:
    // its share of its strand's length times the axis's length finds the centre and the segment
    // whose tangent it turns about, by turns * profile * place. By axes (clumps, guides), then
    // profile (flat, rising).
    const std::uint64_t pinned[2][2] = {{0x19feeef96092f5bcull, 0x219f5d1659103266ull},
                                        {0xdde32f43f5e1f7aeull, 0x246a2dda97e3dcf5ull}};
    for (const bool byGuides : {false, true}) {
        for (const Ramp& profile : {Ramp{}, rising}) {
            TwistSettings settings;
            settings.turns = FieldSampler(0.9f);
            settings.profile = profile;
            settings.clumps = byGuides ? nullptr : &clumps;
            settings.axes = byGuides ? &guides : nullptr;
            for (const int threads : {1, 2}) {
                std::vector<Vec3f> out(strands.pointCount());
                runWithThreads(threads, [&] {
                    twistStrands(strands, settings, StrandSelection::every(), out);
                });
                EXPECT_EQ(test::pointsHash(out), pinned[byGuides][profile.keys.size() / 2])
                    << (byGuides ? "guides, " : "clumps, ") << profile.keys.size()
                    << " profile keys, " << threads << " threads";
            }
        }
    }
}

}  // namespace
}  // namespace velmorin
