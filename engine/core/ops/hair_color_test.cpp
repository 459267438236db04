#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "base/test/expect_message.h"
#include "graph/errors.h"
#include "mesh/sample_meshes.h"
#include "ops/color_ops.h"
#include "ops/test/shape_checks.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

using test::pointColor;
using test::ShapeRun;
using test::strandColor;

void expectColorNear(const Vec3f& got, const Vec3f& want, float tolerance = 1e-6f) {
    EXPECT_NEAR(got.x, want.x, tolerance);
    EXPECT_NEAR(got.y, want.y, tolerance);
    EXPECT_NEAR(got.z, want.z, tolerance);
}

float luminance(const Vec3f& c) {
    return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z;
}

// The hue turn from `from` to `to`, in turns, within half a turn either way.
float hueTurn(const Vec3f& from, const Vec3f& to) {
    float turn = toHueChromaLightness(to).hue - toHueChromaLightness(from).hue;
    return turn - std::round(turn);
}

TEST(PigmentColor, FromWhiteThroughRedToBlackWithTheDocumentedAbsorption) {
    expectColorNear(pigmentColor(0.0f, 0.0f), {1, 1, 1});
    expectColorNear(pigmentColor(0.0f, 1.0f), {1, 1, 1});
    // Black at 1 (pheomelanin alone stays the darkest red).
    EXPECT_LT(luminance(pigmentColor(1.0f, 0.0f)), 1e-3f);
    const Vec3f darkRed = pigmentColor(1.0f, 1.0f);
    EXPECT_GT(darkRed.x, 10.0f * darkRed.z);
    // Concentration 8 * 0.5^2 = 2, three quarters eumelanin, over twice the diameter.
    const Vec3f sigma = Vec3f{0.419f, 0.697f, 1.37f} * 1.5f + Vec3f{0.187f, 0.4f, 1.05f} * 0.5f;
    expectColorNear(
        pigmentColor(0.5f, 0.25f),
        {std::exp(-2.0f * sigma.x), std::exp(-2.0f * sigma.y), std::exp(-2.0f * sigma.z)});
    // Darker with every step of melanin; lighter and warmer (a hue nearer orange) with redness,
    // since pheomelanin absorbs less than eumelanin.
    for (float m = 0.0f; m < 0.95f; m += 0.1f)
        EXPECT_GT(luminance(pigmentColor(m, 0.3f)), luminance(pigmentColor(m + 0.1f, 0.3f))) << m;
    const Vec3f brown = pigmentColor(0.4f, 0.0f), red = pigmentColor(0.4f, 1.0f);
    EXPECT_GT(luminance(red), luminance(brown));
    EXPECT_GT(toHueChromaLightness(red).hue, toHueChromaLightness(brown).hue);
    EXPECT_LT(toHueChromaLightness(red).hue, 1.0f / 6.0f);
}

TEST(HueChromaLightness, RoundTripsAndVariesInHsl) {
    for (const Vec3f c : {Vec3f{0.8f, 0.2f, 0.1f}, Vec3f{0.1f, 0.7f, 0.3f}, Vec3f{0.2f, 0.3f, 0.9f},
                          Vec3f{0.5f, 0.5f, 0.5f}, Vec3f{1.5f, 0.5f, 1.2f}})
        expectColorNear(fromHueChromaLightness(toHueChromaLightness(c)), c, 1e-5f);
    // A neutral stays neutral through any turn or saturation; value scales it.
    expectColorNear(varyColor({0.4f, 0.4f, 0.4f}, 0.5f, 0.3f, 1.0f), {0.6f, 0.6f, 0.6f}, 1e-6f);
    // Red turned a third of a turn is green, of the same chroma and lightness.
    expectColorNear(varyColor({0.9f, 0.1f, 0.1f}, 0.0f, 1.0f / 3.0f, 0.0f), {0.1f, 0.9f, 0.1f},
                    1e-5f);
    // Saturation -1 takes the colour to its grey; nothing goes below 0 at +1.
    expectColorNear(varyColor({0.9f, 0.1f, 0.1f}, 0.0f, 0.0f, -1.0f), {0.5f, 0.5f, 0.5f}, 1e-6f);
    const Vec3f saturated = varyColor({0.3f, 0.05f, 0.05f}, 0.0f, 0.0f, 1.0f);
    EXPECT_GE(std::min({saturated.x, saturated.y, saturated.z}), 0.0f);
}

TEST(HairColor, MelaninModeMixesPigmentDyeAndWritesItsChannelsPerStrand) {
    const auto strands = test::gridStrands(50, 5, 1);
    const Vec3f dye{1.0f, 0.5f, 0.25f};
    const auto out = ShapeRun("HairColor", {{"melanin", 0.4},
                                            {"redness", 0.3},
                                            {"dye", dye},
                                            {"melaninRandom", 0.0},
                                            {"specular", 0.5},
                                            {"roughness", 0.4},
                                            {"tilt", 2.5}})
                         .run(strands);
    const Vec3f pigment = pigmentColor(0.4f, 0.3f);
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        expectColorNear(strandColor(*out, s), tinted(pigment, dye));
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kMelanin))[s], 0.4f);
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kRedness))[s], 0.3f);
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kDye[1]))[s], 0.5f);
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kSpecular))[s], 0.5f);
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kRoughness))[s], 0.4f);
        EXPECT_FLOAT_EQ((*out->strandChannel(channels::kTilt))[s], 2.5f);
    }
    EXPECT_FALSE(out->pointChannel(channels::kColor[0]));
    // Nothing moves.
    EXPECT_EQ(out->columnData(ColumnId::kPoints), strands->columnData(ColumnId::kPoints));

    // Colour mode shows the colour picked and leaves no pigment behind it.
    const auto picked = ShapeRun("HairColor", {{"mode", std::string("color")},
                                               {"color", Vec3f{0.2f, 0.4f, 0.6f}},
                                               {"valueRandom", 0.0}})
                            .run(out);
    expectColorNear(strandColor(*picked, 7), {0.2f, 0.4f, 0.6f});
    EXPECT_FALSE(picked->strandChannel(channels::kMelanin));
    EXPECT_FALSE(picked->strandChannel(channels::kDye[0]));
}

TEST(HairColor, GreysTakeAlmostNoPigmentByFractionAndStayGreyAsTheyRise) {
    const auto strands = test::gridStrands(4000, 2, 2);
    std::map<double, std::vector<bool>> greyAt;
    for (const double greys : {0.0, 0.3, 0.6}) {
        const auto out = ShapeRun("HairColor", {{"melanin", 0.8}, {"greys", greys}}).run(strands);
        const std::vector<float>& melanin = *out->strandChannel(channels::kMelanin);
        std::vector<bool>& grey = greyAt[greys];
        for (const float m : melanin)
            grey.push_back(m < 0.2f);
        const double share =
            static_cast<double>(std::count(grey.begin(), grey.end(), true)) / grey.size();
        EXPECT_NEAR(share, greys, 0.03) << greys;
    }
    // greys 0 leaves every strand pigmented; a strand grey at 0.3 is still grey at 0.6.
    EXPECT_EQ(std::count(greyAt[0.0].begin(), greyAt[0.0].end(), true), 0);
    for (std::size_t s = 0; s < strands->strandCount(); ++s)
        if (greyAt[0.3][s]) {
            EXPECT_TRUE(greyAt[0.6][s]) << s;
        }

    // In colour mode a grey strand is a light neutral, untouched by hue and saturation.
    const auto picked = ShapeRun("HairColor", {{"mode", std::string("color")},
                                               {"color", Vec3f{0.6f, 0.2f, 0.1f}},
                                               {"greys", 1.0},
                                               {"valueRandom", 0.0},
                                               {"hueRandom", 1.0},
                                               {"saturationRandom", 1.0}})
                            .run(strands);
    expectColorNear(strandColor(*picked, 11), {0.8f, 0.8f, 0.8f});
}

TEST(HairColor, RandomnessHangsOnIdsAtAnyThreadCountAndPreviewDensity) {
    const auto strands = test::gridStrands(3000, 6, 3);
    const std::map<std::string, ParamValue> melanin = {
        {"melaninRandom", 0.3},   {"greys", 0.2},       {"specularRandom", 0.5},
        {"roughnessRandom", 0.5}, {"tipStrength", 0.7}, {"tipOffsetRandom", 0.3},
        {"seed", std::int64_t{4}}};
    std::map<std::string, ParamValue> color = melanin;
    color["mode"] = std::string("color");
    color["color"] = Vec3f{0.7f, 0.3f, 0.2f};
    color["valueRandom"] = 0.3;
    color["hueRandom"] = 0.4;
    color["saturationRandom"] = 0.5;
    for (const auto& params : {melanin, color}) {
        const ShapeRun run("HairColor", params);
        std::shared_ptr<const StrandSet> outs[2];
        for (const int threads : {1, 2})
            runWithThreads(threads, [&] { outs[threads - 1] = run.run(strands); });
        EXPECT_EQ(outs[0]->contentHash(), outs[1]->contentHash());

        // A preview keeps a subset of the strands, and each keeps its colours.
        EXPECT_EQ(test::differingInPreview(run, strands, 0.3), 0u);
    }
}

TEST(HairColor, HueRandomTurnsUpToHalfATurnEitherWay) {
    const auto strands = test::gridStrands(3000, 2, 5);
    const Vec3f base{0.8f, 0.3f, 0.2f};
    for (const double hueRandom : {1.0, 0.2}) {
        const auto out = ShapeRun("HairColor", {{"mode", std::string("color")},
                                                {"color", base},
                                                {"valueRandom", 0.0},
                                                {"hueRandom", hueRandom}})
                             .run(strands);
        float least = 0.0f, most = 0.0f;
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const Vec3f shown = strandColor(*out, s);
            const float turn = hueTurn(base, shown);
            least = std::min(least, turn);
            most = std::max(most, turn);
            // Only the hue turns: chroma and lightness stay.
            EXPECT_NEAR(toHueChromaLightness(shown).chroma, 0.6f, 1e-5f);
            EXPECT_NEAR(toHueChromaLightness(shown).lightness, 0.5f, 1e-5f);
        }
        const float reach = 0.5f * static_cast<float>(hueRandom);
        EXPECT_LE(most, reach + 1e-5f);
        EXPECT_GE(least, -reach - 1e-5f);
        EXPECT_GT(most, 0.95f * reach);
        EXPECT_LT(least, -0.95f * reach);
    }
}

TEST(HairColor, ClumpShareMixesEachDrawWithItsClumps) {
    auto strands = std::make_shared<StrandSet>(*test::gridStrands(400, 2, 6));
    const std::map<std::string, ParamValue> random = {{"melaninRandom", 0.4},
                                                      {"specularRandom", 0.5}};
    const auto own = ShapeRun("HairColor", random).run(strands);
    std::map<std::string, ParamValue> shared = random;
    shared["clumpShare"] = 1.0;
    // With no clump channel a share of 1 is a share of nothing.
    EXPECT_EQ(ShapeRun("HairColor", shared).run(strands)->contentHash(), own->contentHash());

    std::vector<float>& clumps = strands->addStrandChannel("clumpId", 0.0f);
    for (std::size_t s = 0; s < clumps.size(); ++s)
        clumps[s] = static_cast<float>(s % 7);
    const auto alike = ShapeRun("HairColor", shared).run(strands);
    for (std::size_t s = 7; s < clumps.size(); ++s) {
        EXPECT_EQ(strandColor(*alike, s), strandColor(*alike, s % 7)) << s;
        EXPECT_EQ((*alike->strandChannel(channels::kSpecular))[s],
                  (*alike->strandChannel(channels::kSpecular))[s % 7]);
    }
    // Half shared: each melanin draw lies halfway between the strand's own and its clump's.
    shared["clumpShare"] = 0.5;
    const auto half = ShapeRun("HairColor", shared).run(strands);
    const std::vector<float>& mixed = *half->strandChannel(channels::kMelanin);
    for (std::size_t s = 0; s < 20; ++s) {
        const float ownMelanin = (*own->strandChannel(channels::kMelanin))[s];
        const float clumpMelanin = (*alike->strandChannel(channels::kMelanin))[s];
        EXPECT_NEAR(mixed[s], 0.5f * (ownMelanin + clumpMelanin), 1e-5f) << s;
    }
}

TEST(HairColor, TipColorBlendsAlongTheStrandPerPoint) {
    // Points at t = 0, 1/4, 1/2, 3/4, 1.
    const auto strands = test::handStrands({test::straight(5), test::straight(5, 0.5f)});
    Ramp rising;
    rising.linear = true;
    rising.keys = {{0.0f, 0.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    const Vec3f blue{0, 0, 1}, red{1, 0, 0};
    std::map<std::string, ParamValue> params = {
        {"mode", std::string("color")}, {"color", blue},
        {"valueRandom", 0.0},           {"tipColor", red},
        {"tipStrength", 0.8},           {"tipProfile", rising}};
    const auto out = ShapeRun("HairColor", params).run(strands);
    EXPECT_FALSE(out->strandChannel(channels::kColor[0]));
    for (std::size_t p = 0; p < 10; ++p) {
        const float t = static_cast<float>(p % 5) / 4.0f;
        expectColorNear(pointColor(*out, p), lerp(blue, red, 0.8f * t));
    }

    // tipOffsetRandom moves each strand's whole profile by one amount within the share.
    params["tipStrength"] = 1.0;
    params["tipOffsetRandom"] = 0.2;
    const auto shifted = ShapeRun("HairColor", params).run(test::gridStrands(200, 11, 8));
    for (std::size_t s = 0; s < 200; ++s) {
        // Red is the share at each point; t is k / 10 on these straight strands.
        const float offset = pointColor(*shifted, s * 11 + 5).x - 0.5f;
        EXPECT_LE(std::fabs(offset), 0.2f + 1e-5f);
        for (std::size_t k = 3; k <= 7; ++k)
            EXPECT_NEAR(pointColor(*shifted, s * 11 + k).x, 0.1f * k + offset, 1e-5f);
    }
}

TEST(HairColor, IncrementalRunsMatchAFullRun) {
    const auto strands = test::gridStrands(600, 6, 9);
    for (const bool tipped : {false, true}) {
        SCOPED_TRACE(tipped);
        const ShapeRun run(
            "HairColor",
            {{"melaninRandom", 0.3}, {"greys", 0.2}, {"tipStrength", tipped ? 0.5 : 0.0}});
        const test::IncrementalOutcome outcome =
            test::incrementalAfterMove(run, strands, {3, 40, 599});
        EXPECT_EQ(outcome.run, "incremental 3");
        EXPECT_TRUE(outcome.sameAsFull);
    }
}

TEST(HairColor, AParamChangeRewritesOnlyTheChannelsItReaches) {
    const auto strands = test::gridStrands(500, 3, 10);
    std::map<std::string, ParamValue> params = {
        {"melaninRandom", 0.2}, {"specularRandom", 0.3}, {"clumpShare", 0.5}};
    const ShapeRun run("HairColor", params);
    const auto op = run.make();
    const auto evaluate = [&](std::shared_ptr<const StrandSet> input) {
        return op->evaluate(EvalContext{}, {Value(std::move(input))}).get<StrandSet>();
    };
    // Each run gives the bits a new node gives, whatever it keeps from the run before.
    const auto expectFresh = [&](const std::shared_ptr<const StrandSet>& got,
                                 std::shared_ptr<const StrandSet> input) {
        EXPECT_EQ(got->contentHash(),
                  ShapeRun("HairColor", params).run(std::move(input))->contentHash());
    };
    const auto shared = [](const StrandSet& a, const StrandSet& b, std::string_view name) {
        return a.strandChannel(name) == b.strandChannel(name);
    };
    const auto first = evaluate(strands);

    params["melanin"] = 0.7;
    op->paramSet.set("melanin", 0.7);
    const auto darker = evaluate(strands);
    expectFresh(darker, strands);
    for (const std::string_view kept : {channels::kSpecular, channels::kRoughness, channels::kTilt,
                                        channels::kDye[0], channels::kDye[2], channels::kRedness})
        EXPECT_TRUE(shared(*darker, *first, kept)) << kept;
    for (const std::string_view redone : {channels::kMelanin, channels::kColor[1]})
        EXPECT_FALSE(shared(*darker, *first, redone)) << redone;

    params["specular"] = 0.6;
    op->paramSet.set("specular", 0.6);
    const auto brighter = evaluate(strands);
    expectFresh(brighter, strands);
    EXPECT_FALSE(shared(*brighter, *darker, channels::kSpecular));
    EXPECT_TRUE(shared(*brighter, *darker, channels::kDye[1]));

    // Other strands of the same count draw anew; so do the same strands in other clumps.
    const auto others = test::gridStrands(500, 3, 11);
    const auto onOthers = evaluate(others);
    expectFresh(onOthers, others);
    EXPECT_TRUE(shared(*onOthers, *brighter, channels::kDye[1]));
    auto clumped = std::make_shared<StrandSet>(*others);
    std::vector<float>& clumps = clumped->addStrandChannel("clumpId", 0.0f);
    for (std::size_t s = 0; s < clumps.size(); ++s)
        clumps[s] = static_cast<float>(s % 5);
    expectFresh(evaluate(clumped), clumped);
}

TEST(HairColor, AMapReadAtEachRootByName) {
    // A plane whose colour set is red on its first half of triangles and green on the rest.
    auto plane = std::make_shared<ScalpMesh>(*makeUvPlane(10.0f, 10));
    std::vector<Rgba> corners(plane->triangleCount() * 3);
    for (std::size_t corner = 0; corner < corners.size(); ++corner)
        corners[corner] = corner < corners.size() / 2 ? Rgba{1, 0, 0, 1} : Rgba{0, 1, 0, 1};
    plane->setColorSet("tint", corners);
    const auto strands = test::gridStrands(300, 2, 4);

    test::registerEvalTestOperators();
    Graph graph;
    const std::uint32_t source = graph.addNode("EvalScene", "scene");
    const std::uint32_t node = graph.addNode("HairColor", "color");
    graph.connect(source, node, 0);
    Operator& op = graph.operatorOf(node);
    op.paramSet.set("mode", std::string("color"));
    op.paramSet.set("color", Vec3f{0.5f, 0.5f, 1.0f});
    op.paramSet.set("valueRandom", 0.0);
    op.paramSet.set("map", std::string("tint"));
    SceneInputs scene;
    scene["groom"] = SceneInput{Value(strands), 1};
    scene["scalp"] = SceneInput{Value(std::shared_ptr<const ScalpMesh>(plane)), 2};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    const auto out = test::strandsOf(graph.evaluate(node, ctx));
    const std::size_t half = plane->triangleCount() / 2;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const bool red = static_cast<std::size_t>(strands->roots()[s].face) < half;
        EXPECT_EQ(strandColor(*out, s), red ? Vec3f(0.5f, 0, 0) : Vec3f(0, 0.5f, 0)) << s;
    }

    op.paramSet.set("map", std::string("nothing"));
    test::expectMessage<GraphError>(
        [&] { graph.evaluate(node, ctx); },
        "HairColor: no map, color set or image named 'nothing' (Groom Tools > Paint > New... "
        "makes a map)");
}

}  // namespace
}  // namespace velmorin
