#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>

#include "base/test/expect_message.h"
#include "editing/parts.h"
#include "graph/errors.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "ops/clump.h"
#include "ops/test/shape_checks.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

using test::expectPointsNear;
using test::handStrands;
using test::ShapeRun;

std::vector<Vec3f> upFrom(Vec3f root, std::size_t points = 3, float step = 1.0f) {
    std::vector<Vec3f> line;
    for (std::size_t k = 0; k < points; ++k)
        line.push_back(root + Vec3f{0.0f, step * static_cast<float>(k), 0.0f});
    return line;
}

// Center curves as guides, one per curve.
Value centerGuides(const std::vector<std::vector<Vec3f>>& curves) {
    auto guides = std::make_shared<GuideSet>();
    for (std::size_t g = 0; g < curves.size(); ++g) {
        Guide guide;
        guide.id = 900 + g;
        guide.points = curves[g];
        guides->guides.push_back(guide);
    }
    return Value(std::shared_ptr<const GuideSet>(guides));
}

// A grid of strands with the coarse share every preview holds marked in `_preview`.
std::shared_ptr<StrandSet> markedGrid(std::size_t count, std::size_t points, std::uint64_t seed) {
    auto strands = std::make_shared<StrandSet>(*test::gridStrands(count, points, seed));
    std::vector<float>& preview = strands->addStrandChannel(std::string(channels::kPreview), 0.0f);
    for (std::size_t s = 0; s < count; ++s)
        preview[s] = unitFloat(strands->ids()[s]) < 0.3f ? 1.0f : 0.0f;
    return strands;
}

TEST(Clump, CenterAlongReadsThe32SamplesLinearly) {
    ClumpAxisTable axes;
    axes.centers = 1;
    for (std::size_t k = 0; k < ClumpAxisTable::kSamples; ++k)
        axes.points.push_back({0.0f, static_cast<float>(k * k), 0.0f});
    const struct {
        float t, y;
    } cases[] = {{0.0f, 0.0f},           {-1.0f, 0.0f},  {1.0f, 961.0f},
                 {2.0f, 961.0f},         {0.5f, 240.5f},  // x = 15.5: between 225 and 256
                 {30.0f / 31.0f, 900.0f}};
    for (const auto& c : cases)
        EXPECT_NEAR(centerAlong(axes, 0, c.t).y, c.y, 1e-3f) << "t " << c.t;
}

TEST(Clump, StrengthOnePullsOntoTheAxisAtTheSameArcAndZeroChangesNothing) {
    const auto strands = handStrands({upFrom({1, 0, 0}), upFrom({0, 0, 1}), upFrom({0, 0, 0}, 1)});
    const Value axis = centerGuides({upFrom({0, 0, 0})});
    const auto pulled =
        ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")}, {"strength", 1.0}})
            .run(strands, {axis});
    expectPointsNear(pulled->strandPoints(0), {{1, 0, 0}, {0, 1, 0}, {0, 2, 0}});
    expectPointsNear(pulled->strandPoints(1), {{0, 0, 1}, {0, 1, 0}, {0, 2, 0}});
    // Strength 0.5 goes half way.
    const auto half =
        ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")}, {"strength", 0.5}})
            .run(strands, {axis});
    expectPointsNear(half->strandPoints(0), {{1, 0, 0}, {0.5f, 1, 0}, {0.5f, 2, 0}});

    // Strength 0 everywhere leaves every point as it came, bit for bit, picked centers or not.
    const auto grid = test::gridStrands(3000, 9, 5);
    const auto still =
        ShapeRun("Clump", {{"strength", 0.0}, {"count", std::int64_t{20}}}).run(grid);
    EXPECT_TRUE(std::equal(still->points().begin(), still->points().end(), grid->points().begin(),
                           [](const Vec3f& a, const Vec3f& b) { return a == b; }));
    // And strength 1 puts every point of every clumped strand on its center's axis.
    const auto tight =
        ShapeRun("Clump", {{"strength", 1.0}, {"count", std::int64_t{20}}}).run(grid);
    const std::vector<float>& numbers = *tight->strandChannel("clumpId");
    std::map<float, Vec3f> tipOf;
    for (std::size_t s = 0; s < grid->strandCount(); ++s) {
        ASSERT_GE(numbers[s], 0.0f);
        const Vec3f tip = tight->strandPoints(s).back();
        const auto [at, fresh] = tipOf.emplace(numbers[s], tip);
        if (!fresh) {
            EXPECT_NEAR(length(at->second - tip), 0.0f, 1e-5f) << "strand " << s;
        }
    }
    EXPECT_GE(tipOf.size(), 15u);
    EXPECT_LE(tipOf.size(), 20u);
}

TEST(Clump, GivenCenterPointsTakeTheNearestGatheredStrandAsTheirAxis) {
    // The center curve bends away; as points, only its root counts, and the strand nearest it is
    // the axis.
    const Value bent = centerGuides({{{0, 0, 0}, {3, 1, 0}, {6, 2, 0}}});
    const auto strands = handStrands({upFrom({0.5f, 0, 0}), upFrom({0.1f, 0, 0})});
    const auto out =
        ShapeRun("Clump", {{"centersFrom", std::string("inputPoints")}, {"strength", 1.0}})
            .run(strands, {bent});
    expectPointsNear(out->strandPoints(0), {{0.5f, 0, 0}, {0.1f, 1, 0}, {0.1f, 2, 0}});
    expectPointsNear(out->strandPoints(1), upFrom({0.1f, 0, 0}));
    // As curves, the same center is the bending curve itself.
    const auto curved =
        ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")}, {"strength", 1.0}})
            .run(strands, {bent});
    EXPECT_GT(curved->strandPoints(0)[2].x, 1.0f);
}

TEST(Clump, PastTipGathersAtTheAxisTipOrExtendsAlongIt) {
    const auto strands = handStrands({upFrom({1, 0, 0}, 5)});
    const Value axis = centerGuides({upFrom({0, 0, 0})});
    const auto run = [&](const char* pastTip) {
        return ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                  {"strength", 1.0},
                                  {"pastTip", std::string(pastTip)}})
            .run(strands, {axis});
    };
    expectPointsNear(run("gather")->strandPoints(0),
                     {{1, 0, 0}, {0, 1, 0}, {0, 2, 0}, {0, 2, 0}, {0, 2, 0}});
    expectPointsNear(run("extend")->strandPoints(0),
                     {{1, 0, 0}, {0, 1, 0}, {0, 2, 0}, {0, 3, 0}, {0, 4, 0}});
}

TEST(Clump, LockRadiusHoldsStrandsOnARingAroundTheAxis) {
    std::vector<std::vector<Vec3f>> many;
    for (int i = 0; i < 40; ++i)
        many.push_back(upFrom({std::cos(0.3f * i), 0, std::sin(0.3f * i)}));
    const auto out = ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                        {"strength", 1.0},
                                        {"lockRadius", 0.2}})
                         .run(handStrands(many), {centerGuides({upFrom({0, 0, 0})})});
    float widest = 0.0f;
    for (std::size_t s = 0; s < many.size(); ++s) {
        const auto points = out->strandPoints(s);
        // One offset in the frame all along a straight axis: the same distance at every point.
        const float r = std::hypot(points[1].x, points[1].z);
        EXPECT_LE(r, 0.2f + 1e-5f);
        EXPECT_NEAR(std::hypot(points[2].x, points[2].z), r, 1e-5f);
        EXPECT_NEAR(points[2].y, 2.0f, 1e-5f);
        widest = std::max(widest, r);
    }
    EXPECT_GT(widest, 0.15f);
}

TEST(Clump, RandomStrengthScalesThePullDownPerClumpOrPerStrand) {
    // Two clumps of strands all one unit off their axes, pulled at strength 1.
    std::vector<std::vector<Vec3f>> lines;
    for (int i = 0; i < 20; ++i)
        lines.push_back(upFrom({i < 10 ? 1.0f : 21.0f, 0, 0.001f * static_cast<float>(i)}));
    const auto strands = handStrands(lines);
    const Value axes = centerGuides({upFrom({0, 0, 0}), upFrom({20, 0, 0})});
    // How far each strand's tip came toward its axis, 0 to 1.
    const auto pulled = [&](const char* param) {
        const auto out =
            ShapeRun("Clump",
                     {{"centersFrom", std::string("inputCurves")}, {"strength", 1.0}, {param, 0.8}})
                .run(strands, {axes});
        std::vector<float> shares;
        for (std::size_t s = 0; s < lines.size(); ++s)
            shares.push_back(1.0f - (out->strandPoints(s)[2].x - (s < 10 ? 0.0f : 20.0f)));
        return shares;
    };
    for (const char* param : {"strengthRandom", "strandStrengthRandom"}) {
        SCOPED_TRACE(param);
        const std::vector<float> shares = pulled(param);
        std::set<float> distinct;
        for (const float share : shares) {
            EXPECT_GE(share, 0.2f - 1e-5f);
            EXPECT_LE(share, 1.0f + 1e-5f);
            distinct.insert(std::round(share * 1e4f));
        }
        // Per clump: one share for each clump's strands; per strand: one each.
        EXPECT_EQ(distinct.size(), std::string(param) == "strengthRandom" ? 2u : 20u);
    }
}

TEST(Clump, FlatnessSquashesALockIntoARibbonAndVolumizeSpreadsIt) {
    std::vector<std::vector<Vec3f>> ring;
    for (int i = 0; i < 12; ++i)
        ring.push_back(upFrom({std::cos(0.5f * i), 0, std::sin(0.5f * i)}));
    const auto strands = handStrands(ring);
    const Value axis = centerGuides({upFrom({0, 0, 0})});
    // Width along x: the thin way is the axis (y) crossed with x, so z is squashed out.
    const auto ribbon = ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                           {"strength", 1.0},
                                           {"lockRadius", 0.3},
                                           {"flatness", 1.0},
                                           {"flatAlong", std::string("direction")},
                                           {"flatDirection", Vec3f{1, 0, 0}}})
                            .run(strands, {axis});
    float widest = 0.0f;
    for (std::size_t s = 0; s < ring.size(); ++s)
        for (std::size_t k = 1; k < 3; ++k) {
            EXPECT_NEAR(ribbon->strandPoints(s)[k].z, 0.0f, 1e-5f) << s;
            widest = std::max(widest, std::abs(ribbon->strandPoints(s)[k].x));
        }
    EXPECT_GT(widest, 0.1f);
    // With no pull, volumize 1 doubles every point's distance across the axis.
    const auto spread = ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                           {"strength", 0.0},
                                           {"volumize", 1.0}})
                            .run(handStrands({upFrom({1, 0, 0})}), {axis});
    expectPointsNear(spread->strandPoints(0), {{1, 0, 0}, {2, 1, 0}, {2, 2, 0}});
}

TEST(Clump, CopyAmountGivesEachAxisItsNeighboursShape) {
    // Two center curves: one straight, one bending along x.
    const std::vector<Vec3f> bending = {{5, 0, 0}, {5.5f, 1, 0}, {6.5f, 2, 0}};
    GuideSet guides;
    for (const auto& curve : {upFrom({0, 0, 0}), bending}) {
        Guide guide;
        guide.id = 1 + guides.guides.size();
        guide.points = curve;
        guides.guides.push_back(guide);
    }
    const CenterCurves curves = centerCurvesOf(guides, "");
    const auto strands = handStrands({upFrom({0.1f, 0, 0}), upFrom({5.1f, 0, 0})});
    CenterPickSettings settings;
    settings.source = CenterSource::InputCurves;
    settings.centers = &curves;
    const auto plan = buildCenterPlan(*strands, settings);
    ASSERT_EQ(plan->size(), 2u);
    for (const float amount : {0.0f, 0.5f, 1.0f}) {
        const ClumpAxisTable axes = clumpAxisTable(*plan, *strands, &curves, amount, false);
        // The straight axis's tip moves toward the bending one's shape, from its own root.
        EXPECT_NEAR(centerAlong(axes, 0, 1.0f).x, 1.5f * amount, 1e-5f) << amount;
        EXPECT_NEAR(centerAlong(axes, 1, 1.0f).x, 6.5f - 1.5f * amount, 1e-5f) << amount;
    }
}

TEST(Clump, NegativeStrengthPartsStrandsAroundTheCentersKeepingLengths) {
    // On the axis, near it, and far away from it.
    const auto strands =
        handStrands({upFrom({0, 0, 0}, 5), upFrom({0.2f, 0, 0}, 5), upFrom({3, 0, 0}, 5)});
    const auto out = ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                        {"strength", -1.0},
                                        {"repelRadius", 0.5}})
                         .run(strands, {centerGuides({upFrom({0, 0, 0}, 5)})});
    for (std::size_t s = 0; s < 3; ++s) {
        const auto points = out->strandPoints(s);
        EXPECT_EQ(points[0], strands->strandPoints(s)[0]);
        for (std::size_t k = 1; k < points.size(); ++k)
            EXPECT_NEAR(length(points[k] - points[k - 1]), 1.0f, 1e-5f) << s << " " << k;
    }
    // The strand on the axis leaves it by its own side angle, not in no direction at all.
    EXPECT_GT(std::hypot(out->strandPoints(0)[4].x, out->strandPoints(0)[4].z), 0.3f);
    // The near one moves out, away from the axis; the far one stays as it was.
    EXPECT_GT(out->strandPoints(1)[4].x, 0.5f);
    expectPointsNear(out->strandPoints(2), upFrom({3, 0, 0}, 5), 0.0f);
}

TEST(Clump, AwkwardStrandsComeOutFiniteWithRootsInPlace) {
    // Empty strands, strands of one point, strands of no length, among ordinary ones.
    const auto strands = test::mixedStrands(600, 3);
    const std::vector<std::map<std::string, ParamValue>> settings = {
        {{"count", std::int64_t{30}}},
        {{"count", std::int64_t{5000}}, {"randomness", 0.0}},
        {{"lockRadius", 0.2}, {"flatness", 0.5}, {"volumize", 0.4}, {"copyAmount", 0.5}},
        {{"strength", -1.0}, {"repelRadius", 2.0}},
        {{"clumpBy", std::string("size")}, {"size", 0.3}, {"pastTip", std::string("extend")}},
    };
    for (const auto& params : settings) {
        const auto out = ShapeRun("Clump", params).run(strands);
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const auto before = strands->strandPoints(s), after = out->strandPoints(s);
            ASSERT_EQ(after.size(), before.size());
            if (before.empty()) continue;
            EXPECT_EQ(after[0], before[0]) << "strand " << s;
            for (const Vec3f& p : after)
                ASSERT_TRUE(std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z))
                    << "strand " << s;
            if (before.size() < 2) {
                EXPECT_TRUE(std::equal(after.begin(), after.end(), before.begin()));
            }
        }
    }
}

TEST(ClumpPlan, EveryStrandHasAtMostOneCenterTheNearestOfItsRegion) {
    auto strands = std::make_shared<StrandSet>(*test::gridStrands(4000, 3, 11));
    std::vector<float>& region = strands->addStrandChannel("region", 0.0f);
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const Vec3f root = strands->strandPoints(s)[0];
        region[s] = root.x < 4.0f ? 0.0f : root.x < 8.0f ? 1.0f : 2.0f;
    }
    // Picked centers fall in every region; given ones only where given (none in region 2).
    const auto given = handStrands({upFrom({1, 0, 1}), upFrom({3, 0, 8}), upFrom({5, 0, 5})});
    auto givenWithRegions = std::make_shared<StrandSet>(*given);
    givenWithRegions->addStrandChannel("region", 0.0f) = {0.0f, 0.0f, 1.0f};
    const CenterCurves curves = centerCurvesOf(*givenWithRegions, "region");
    for (const CenterSource source : {CenterSource::Pick, CenterSource::InputPoints}) {
        CenterPickSettings settings;
        settings.source = source;
        settings.count = 30;
        settings.centers = &curves;
        const auto plan = buildCenterPlan(*strands, settings);
        ASSERT_GT(plan->size(), 0u);
        std::vector<int> listed(strands->strandCount(), 0);
        for (std::size_t c = 0; c < plan->size(); ++c)
            for (const std::uint32_t s : plan->membersOf(c)) {
                ++listed[s];
                EXPECT_EQ(plan->centerOf[s], static_cast<std::int32_t>(c));
            }
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const std::int32_t c = plan->centerOf[s];
            EXPECT_EQ(listed[s], c >= 0 ? 1 : 0);
            // Unclumped only in a region without a center.
            bool regionHasCenter = false;
            float nearest = INFINITY;
            const Vec3f root = strands->strandPoints(s)[0];
            for (std::size_t k = 0; k < plan->size(); ++k) {
                if (plan->regions[k] != region[s]) continue;
                regionHasCenter = true;
                nearest = std::min(nearest, lengthSquared(plan->roots[k] - root));
            }
            ASSERT_EQ(c >= 0, regionHasCenter) << "strand " << s;
            if (c < 0) continue;
            EXPECT_EQ(plan->regions[static_cast<std::size_t>(c)], region[s]);
            EXPECT_EQ(lengthSquared(plan->roots[static_cast<std::size_t>(c)] - root), nearest);
        }
    }
}

TEST(ClumpPlan, FollowingTubesKeepsEveryClumpInsideOneTube) {
    // Two tubes whose strands lie mixed together across the patch.
    auto strands = std::make_shared<StrandSet>(*test::gridStrands(3000, 3, 21));
    std::vector<float>& tube = strands->addStrandChannel(std::string(channels::kTubeId), -1.0f);
    for (std::size_t s = 0; s < strands->strandCount(); ++s)
        tube[s] = s % 3 == 0 ? -1.0f : static_cast<float>(s % 3);
    for (const bool follow : {false, true}) {
        CenterPickSettings settings;
        settings.count = 20;
        settings.followTubes = follow;
        const auto plan = buildCenterPlan(*strands, settings);
        std::size_t across = 0, unclumped = 0;
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const std::int32_t c = plan->centerOf[s];
            if (c < 0) {
                ++unclumped;
                continue;
            }
            across += tube[plan->chosen[static_cast<std::size_t>(c)]] != tube[s];
        }
        EXPECT_EQ(unclumped, 0u);
        // Strands in no tube clump as ever, among themselves or not at all.
        if (follow) {
            EXPECT_EQ(across, 0u);
        } else {
            EXPECT_GT(across, 1000u);
        }
    }
}

TEST(Clump, RespectsPartsAndMappedStrengthPerPoint) {
    const auto plane = makeUvPlane(10.0f, 10);
    const auto rooted = [&](Vec3f at) { return StrandRoot(plane->closestPoint(at).root); };
    auto strands = std::make_shared<StrandSet>();
    for (const float x : {0.2f, -0.2f}) {
        const std::vector<Vec3f> points = upFrom({x, 0, 0});
        strands->addStrand(7 + strands->strandCount(), rooted({x, 0, 0}), points,
                           std::vector<float>(3, 0.01f));
    }
    auto lines = std::make_shared<PartLines>();
    lines->name = "middle";
    lines->points = {rooted({0, 0, -4}), rooted({0, 0, 4})};
    SceneInputs scene;
    scene["scalp"] = SceneInput{Value(plane), 1};
    scene["parts"] = SceneInput{Value(std::shared_ptr<const PartLines>(lines)), 2};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    const Value centers = centerGuides({upFrom({-0.6f, 0, 0}), upFrom({3, 0, 0})});
    for (const bool respect : {false, true}) {
        auto op = ShapeRun("Clump", {{"centersFrom", std::string("inputCurves")},
                                     {"respectParts", respect},
                                     {"strength", 1.0}})
                      .make();
        const auto out = op->evaluate(ctx, {Value(strands), centers}).get<StrandSet>();
        // The strand right of the part takes the far center on its own side.
        EXPECT_NEAR(out->strandPoints(0)[2].x, respect ? 3.0f : -0.6f, 1e-4f) << respect;
        EXPECT_NEAR(out->strandPoints(1)[2].x, -0.6f, 1e-4f) << respect;
    }
    // A per-point strength pulls each point by its own share.
    ShapeRun mapped("Clump", {{"centersFrom", std::string("inputCurves")}});
    mapped.fields["strength"] = std::make_shared<test::ListField>(
        std::vector<float>{0.0f}, std::vector<std::vector<float>>{{0.0f, 0.25f, 1.0f}});
    const auto out =
        mapped.run(test::handStrands({upFrom({1, 0, 0})}), {centerGuides({upFrom({0, 0, 0})})});
    expectPointsNear(out->strandPoints(0), {{1, 0, 0}, {0.75f, 1, 0}, {0, 2, 0}});
}

TEST(ClumpPlan, PicksAboutCountCentersEvenlyAtRandomnessZero) {
    const auto strands = test::gridStrands(20000, 2, 4);
    // The closest pair of centers: blue noise keeps them apart, random picks don't.
    const auto closest = [&](float randomness) {
        CenterPickSettings settings;
        settings.count = 100;
        settings.randomness = randomness;
        const auto plan = buildCenterPlan(*strands, settings);
        EXPECT_GE(plan->size(), 90u);
        EXPECT_LE(plan->size(), 100u);
        float nearest = INFINITY;
        for (std::size_t a = 0; a < plan->size(); ++a)
            for (std::size_t b = a + 1; b < plan->size(); ++b)
                nearest = std::min(nearest, length(plan->roots[a] - plan->roots[b]));
        return nearest;
    };
    // 100 centers on a 10 x 10 patch: about 1 apart.
    EXPECT_GT(closest(0.0f), 0.6f);
    EXPECT_LT(closest(1.0f), 0.3f);
}

TEST(Clump, SameBitsAtAnyThreadCountAndForTheStrandsAPreviewKeeps) {
    const auto full = markedGrid(30000, 9, 3);
    const ShapeRun clump("Clump", {{"count", std::int64_t{60}}, {"strandStrengthRandom", 0.5}});
    const auto [one, two] =
        test::onOneAndTwoThreads([&] { return clump.run(full)->contentHash(); });
    EXPECT_EQ(one, two);
    // Enough centers that their relaxation and the lists of near centers run in parallel too.
    const ShapeRun many("Clump", {{"count", std::int64_t{700}}, {"randomness", 0.6}});
    const auto [manyOne, manyTwo] =
        test::onOneAndTwoThreads([&] { return many.run(full)->contentHash(); });
    EXPECT_EQ(manyOne, manyTwo);

    // A preview keeps a subset by id that holds every marked strand, and with them the centers.
    EXPECT_EQ(test::differingInPreview(clump, full, 0.5), 0u);
}

TEST(Clump, KeepsItsPlanUntilTheChoiceOfCentersChanges) {
    const auto strands = test::gridStrands(5000, 5, 8);
    const ShapeRun base("Clump", {{"count", std::int64_t{30}}});
    auto op = base.make();
    EvalContext ctx;
    op->evaluate(ctx, {Value(strands)});
    const auto first = clumpPlanOf(*op);
    ASSERT_TRUE(first);
    op->paramSet.set("strength", 0.3);
    op->paramSet.set("lockRadius", 0.1);
    op->evaluate(ctx, {Value(strands)});
    EXPECT_EQ(clumpPlanOf(*op), first);
    // A new node in its place takes the plan over.
    auto replacing = base.make();
    replacing->copyStateFrom(*op);
    EXPECT_EQ(clumpPlanOf(*replacing), first);
    op->paramSet.set("seed", std::int64_t{4});
    op->evaluate(ctx, {Value(strands)});
    EXPECT_NE(clumpPlanOf(*op), first);
    EXPECT_NE(clumpPlanOf(*op)->key, first->key);
}

TEST(Clump, RefitsItsCountToTheScalpOnlyWhenTheAreaChangesByMoreThanOnePercent) {
    const auto strands = test::gridStrands(2000, 3, 14);
    auto op = ShapeRun("Clump", {{"count", std::int64_t{10}}}).make();
    const auto areaOn = [&](float side, std::uint64_t key) {
        SceneInputs scene;
        scene["scalp"] = SceneInput{Value(makeUvPlane(side, 4)), key};
        EvalContext ctx;
        ctx.sceneInputs = &scene;
        op->evaluate(ctx, {Value(strands)});
        return clumpPlanOf(*op)->area;
    };
    const float first = areaOn(10.0f, 1);
    EXPECT_NEAR(first, 100.0f, 1e-3f);
    EXPECT_EQ(areaOn(10.04f, 2), first);  // 0.8% more
    EXPECT_NEAR(areaOn(10.2f, 3), 104.04f, 1e-3f);
}

TEST(Clump, WritesTheClumpNumbersTwistFollows) {
    const auto strands = test::gridStrands(3000, 5, 2);
    const ShapeRun clump("Clump",
                         {{"count", std::int64_t{12}}, {"clumpChannel", std::string("lockId")}});
    auto op = clump.make();
    EvalContext ctx;
    const auto out = op->evaluate(ctx, {Value(strands)}).get<StrandSet>();
    const auto plan = clumpPlanOf(*op);
    const std::vector<float>& numbers = *out->strandChannel("lockId");
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const auto c = static_cast<std::size_t>(plan->centerOf[s]);
        ASSERT_EQ(numbers[s], clumpNumber(plan->ids[c])) << "strand " << s;
    }
    EXPECT_EQ(clumpNumber(plan->ids[0]), std::floor(clumpNumber(plan->ids[0])));
    EXPECT_LT(clumpNumber(~std::uint64_t{0}), 16777216.0f);
    // Twist finds the clumps by that channel.
    EXPECT_NO_THROW(ShapeRun("Twist", {{"clumpChannel", std::string("lockId")}}).run(out));
}

TEST(Clump, TellsWhyNothingClumped) {
    const auto strands = test::gridStrands(200, 3, 1);
    const Value guides = centerGuides({upFrom({1, 0, 1})});
    const struct {
        std::map<std::string, ParamValue> params;
        bool connected;
        std::string note;
        bool unchanged;
    } cases[] = {
        {{{"count", std::int64_t{0}}},
         false,
         "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers "
         "connected); the strands pass through",
         true},
        {{{"clumpBy", std::string("size")}, {"size", 0.0}},
         false,
         "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers "
         "connected); the strands pass through",
         true},
        {{{"centersFrom", std::string("inputPoints")}},
         false,
         "no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands "
         "pass through",
         true},
        {{{"count", std::int64_t{5}}},
         true,
         "centers are connected but centersFrom is pick (it picks its own): set centersFrom to "
         "inputPoints or inputCurves to clump by them",
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.note);
        NoteList notes;
        const auto out =
            ShapeRun("Clump", c.params).run(strands, {c.connected ? guides : Value()}, &notes);
        EXPECT_EQ(notes.take(), std::vector<std::string>{c.note});
        EXPECT_EQ(out == strands, c.unchanged);
    }
    auto op = ShapeRun("Clump").make();
    op->paramSet.values["centersFrom"] = std::string("middle");
    test::expectMessage<GraphError>(
        [&] { op->evaluate(EvalContext{}, {Value(strands)}); },
        "Clump: unknown centersFrom 'middle' (pick, inputPoints or inputCurves)");
    // Parting by picked centers says what parts around what.
    op->paramSet.set("centersFrom", std::string("pick"));
    EXPECT_EQ(op->evaluationNote(EvalContext{}), "");
    op->paramSet.set("strength", -0.5);
    EXPECT_EQ(op->evaluationNote(EvalContext{}),
              "parts the strands around the strands nearest its centers (centersFrom "
              "inputPoints); inputCurves parts them around the center curves themselves "
              "(whiskers, horns)");
    op->paramSet.set("centersFrom", std::string("inputCurves"));
    EXPECT_EQ(op->evaluationNote(EvalContext{}), "");
}

// Clump run, then run again after the listed strands bent (roots kept). Gives the second run's
// text; the graph checks the incremental result against a full one.
std::string rerunAfterBending(const ShapeRun& shape, std::shared_ptr<const StrandSet> strands,
                              std::vector<std::uint64_t> bent, bool& sameAsFull) {
    auto after = std::make_shared<StrandSet>(*strands);
    std::vector<Vec3f>& points = after->writePoints();
    for (const std::uint64_t s : bent) {
        const StrandSet::PointRange range = strands->pointRange(s);
        for (std::size_t k = 1; k < range.count; ++k)
            points[range.begin + k].x += 0.05f * static_cast<float>(k);
    }
    const test::IncrementalOutcome outcome = test::incrementalAfterChange(shape, strands, after);
    sameAsFull = outcome.sameAsFull;
    return outcome.run;
}

TEST(Clump, IncrementalRunsRedoTheBentStrandsAndTheClumpsOfBentAxes) {
    const auto strands = test::gridStrands(5000, 9, 6);
    const ShapeRun clump("Clump", {{"count", std::int64_t{25}}, {"lockRadius", 0.05}});
    bool same = false;
    EXPECT_EQ(rerunAfterBending(clump, strands, {10, 20, 4000}, same), "incremental 3");
    EXPECT_TRUE(same);
    // Bending a center's own strand moves its axis: its whole clump is redone.
    auto op = clump.make();
    op->evaluate(EvalContext{}, {Value(strands)});
    const auto plan = clumpPlanOf(*op);
    const std::uint32_t axis = plan->axisStrand[0];
    EXPECT_EQ(rerunAfterBending(clump, strands, {axis}, same),
              "incremental " + std::to_string(plan->membersOf(0).size()));
    EXPECT_TRUE(same);
    // A moved root may move the centers: that runs in full.
    const auto moved = test::incrementalAfterMove(clump, strands, {10});
    EXPECT_EQ(moved.run.rfind("full", 0), 0u) << moved.run;
    EXPECT_TRUE(moved.sameAsFull);
}

TEST(Wet, DryPassesThroughAndEachLevelWritesItsOwnChannel) {
    const auto strands = test::gridStrands(4000, 9, 9);
    EXPECT_EQ(ShapeRun("Wet", {{"wetness", 0.0}}).run(strands), strands);
    const struct {
        std::string channel;
        std::vector<std::string> written;
    } cases[] = {{"clumpId", {"clumpId", "clumpId1", "clumpId2"}},
                 {"", {"__wetClump", "__wetClump1", "__wetClump2"}}};
    for (const auto& c : cases) {
        const auto out =
            ShapeRun("Wet", {{"clumpSize", 4.0}, {"clumpChannel", c.channel}}).run(strands);
        for (const std::string& name : c.written)
            EXPECT_TRUE(out->strandChannel(name)) << name;
        EXPECT_FALSE(out->strandChannel(c.written[0] + "3"));
        // The bigger level's clumps hold more strands than the smaller's.
        std::map<float, int> biggest, smallest;
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            ++biggest[(*out->strandChannel(c.written[0]))[s]];
            ++smallest[(*out->strandChannel(c.written[2]))[s]];
        }
        EXPECT_LT(biggest.size() * 4, smallest.size());
    }
}

TEST(Wet, SameBitsAtAnyThreadCountAndForTheStrandsAPreviewKeeps) {
    const auto full = markedGrid(20000, 9, 13);
    const ShapeRun wet("Wet", {{"clumpSize", 3.0}});
    const auto [one, two] = test::onOneAndTwoThreads([&] { return wet.run(full)->contentHash(); });
    EXPECT_EQ(one, two);
    EXPECT_EQ(test::differingInPreview(wet, full, 0.4), 0u);
}

TEST(Wet, OneLevelIsOneClumpOfClumpSize) {
    const auto strands = test::gridStrands(3000, 9, 12);
    const WetLevel level = wetLevels(0.6f, 2.0f, 1, 7)[0];
    EXPECT_EQ(level.size, 2.0f);
    const auto wet = ShapeRun("Wet", {{"wetness", 0.6},
                                      {"clumpSize", 2.0},
                                      {"levels", std::int64_t{1}},
                                      {"seed", std::int64_t{7}}})
                         .run(strands);
    const auto clump = ShapeRun("Clump", {{"clumpBy", std::string("size")},
                                          {"size", 2.0},
                                          {"pastTip", std::string("extend")},
                                          {"strength", static_cast<double>(level.strength)},
                                          {"profile", level.profile},
                                          {"seed", level.seed}})
                           .run(strands);
    EXPECT_EQ(wet->contentHash(), clump->contentHash());
}

TEST(Wet, WetterStartsEveryLevelNearerTheRootAndPullsTighter) {
    const auto start = [](const WetLevel& level) {
        float at = 0.0f;
        while (at < 1.0f && level.profile.at(at) == 0.0f)
            at += 1.0f / 256.0f;
        return at;
    };
    std::vector<WetLevel> drier = wetLevels(0.05f, 1.5f, 4, 0);
    for (const float wetness : {0.2f, 0.5f, 0.8f, 1.0f}) {
        const std::vector<WetLevel> wetter = wetLevels(wetness, 1.5f, 4, 0);
        for (std::size_t l = 0; l < wetter.size(); ++l) {
            SCOPED_TRACE(std::to_string(wetness) + " level " + std::to_string(l));
            EXPECT_EQ(wetter[l].size, 1.5f / static_cast<float>(1 << (3 - l)));
            EXPECT_GT(wetter[l].strength, drier[l].strength);
            EXPECT_LE(start(wetter[l]), start(drier[l]));
            if (l > 0) {
                EXPECT_GT(start(wetter[l]), start(wetter[l - 1]));
            }
        }
        drier = wetter;
    }
    EXPECT_EQ(wetLevels(0.0f, 1.5f, 3, 0)[2].strength, 0.0f);
}

}  // namespace
}  // namespace velmorin
