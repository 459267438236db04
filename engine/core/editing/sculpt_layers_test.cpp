#include <gtest/gtest.h>

#include <cmath>

#include "base/document.h"
#include "base/test/expect_message.h"
#include "editing/guide_curves.h"
#include "editing/sculpt_layers.h"

namespace velmorin {
namespace {

using test::expectMessage;

CorrectiveLayer timedLayer(double time, double fadeIn, double fadeOut, double holdBefore,
                           double holdAfter) {
    CorrectiveLayer layer;
    layer.name = "fix";
    layer.time = time;
    layer.fadeIn = fadeIn;
    layer.fadeOut = fadeOut;
    layer.holdBefore = holdBefore;
    layer.holdAfter = holdAfter;
    return layer;
}

Guide straightGuide(std::uint64_t id, Vec3f root, std::size_t count) {
    Guide guide;
    guide.id = id;
    for (std::size_t i = 0; i < count; ++i)
        guide.points.push_back(root + Vec3f{0.0f, 0.5f * float(i), 0.0f});
    guide.frameUp = {1.0f, 0.0f, 0.0f};
    return guide;
}

TEST(CorrectiveLayer, RampHoldsAndFadesAlongTheSmoothstepAndStepsWithoutFades) {
    // Layer at frame 10, held 2 frames before and 1 after, fading in over 4 and out over 2; and a
    // layer at frame 5, held 1 frame before, without fades.
    const CorrectiveLayer layer = timedLayer(10.0, 4.0, 2.0, 2.0, 1.0);
    const CorrectiveLayer step = timedLayer(5.0, 0.0, 0.0, 1.0, 0.0);
    const struct {
        const CorrectiveLayer& layer;
        double frame;
        double ramp;
    } table[] = {
        {layer, 3.0, 0.0},     {layer, 4.0, 0.0},   // before the fade in
        {layer, 6.0, 0.5},                          // half way through the fade in
        {layer, 5.0, 0.15625},                      // a quarter: s(0.25) = 2.5 * 0.0625
        {layer, 8.0, 1.0},     {layer, 10.0, 1.0},  // the hold before and the layer's own frame
        {layer, 11.0, 1.0},                         // the end of the hold after
        {layer, 12.0, 0.5},                         // half way through the fade out
        {layer, 13.0, 0.0},    {layer, 40.0, 0.0},  // after it
        {step, 3.999, 0.0},    {step, 4.0, 1.0},    // the start of the hold
        {step, 5.0, 1.0},      {step, 5.001, 0.0},
    };
    for (const auto& row : table)
        EXPECT_DOUBLE_EQ(correctiveRamp(row.layer, row.frame), row.ramp) << "frame " << row.frame;
}

TEST(CorrectiveLayer, WeightTakesCurveHostOrGainAndIsZeroWhenDisabled) {
    CorrectiveLayer layer = timedLayer(0.0, 0.0, 0.0, 100.0, 100.0);
    layer.weight = 0.75f;
    EXPECT_EQ(correctiveWeight(layer, 3.0), 0.75);
    EXPECT_EQ(correctiveWeight(layer, 3.0, 0.5), 0.5);  // the host's keyed weight wins
    layer.weightCurve = {{0.0, 0.0f}, {4.0, 1.0f}, {8.0, 0.5f}};
    EXPECT_EQ(correctiveWeight(layer, -5.0, 0.5), 0.0);  // held before the first key
    EXPECT_EQ(correctiveWeight(layer, 2.0, 0.5), 0.5);   // linear between keys
    EXPECT_EQ(correctiveWeight(layer, 6.0), 0.75);
    EXPECT_EQ(correctiveWeight(layer, 50.0), 0.5);  // held after the last
    // The ramp multiplies the gain.
    layer.holdAfter = 0.0;
    layer.fadeOut = 2.0;
    EXPECT_EQ(correctiveWeight(layer, 1.0), 0.25 * 0.5);
    layer.enabled = false;
    EXPECT_EQ(correctiveWeight(layer, 4.0), 0.0);
}

TEST(CorrectiveLayer, JsonRoundTripsEveryField) {
    CorrectiveLayer layer = timedLayer(12.0, 3.0, 4.5, 1.0, 2.0);
    layer.name = "shot 12 collar";
    layer.weight = 0.25f;
    layer.enabled = false;
    layer.slot = 3;
    layer.weightCurve = {{10.0, 0.0f}, {14.0, 1.0f}};
    layer.offsets[18446744073709551615ull] = {{0.1f, 0.2f, 0.3f}, {-1.0f, 0.0f, 2.5f}};
    layer.offsets[7] = {};
    const CorrectiveLayer other = timedLayer(1.0, 0.0, 0.0, 0.0, 0.0);
    const std::vector<CorrectiveLayer> layers{layer, other};
    const std::string text = correctiveLayersToJson(layers);
    EXPECT_EQ(correctiveLayersFromJson(text), layers);
    EXPECT_EQ(correctiveLayersToJson(correctiveLayersFromJson(text)), text);
    EXPECT_NE(layer.contentHash(), other.contentHash());
    EXPECT_TRUE(correctiveLayersFromJson("  ").empty());

    // Absent fields take their defaults.
    const auto read = correctiveLayersFromJson(R"({"layers":[{"name":"a"}]})");
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0].weight, 1.0f);
    EXPECT_TRUE(read[0].enabled);
    EXPECT_EQ(read[0].slot, -1);
}

TEST(CorrectiveLayer, RefusesBadDataWithItsWords) {
    const struct {
        const char* text;
        const char* message;
    } table[] = {
        {"[1]", "corrective data: not an object"},
        {R"({"layers":3})", "corrective data: \"layers\" is not a list of layers"},
        {R"({"layers":[{"name":"a","time":"x"}]})",
         "corrective data: layer 'a': \"time\" is not a number"},
        {R"({"layers":[{"fadeIn":-1}]})",
         "corrective data: layer 1: fades and holds are frames, 0 or more"},
        {R"({"layers":[{"name":"a","enabled":1}]})",
         "corrective data: layer 'a': \"enabled\" is not true or false"},
        {R"({"layers":[{"name":"a","weightCurve":[[2,1],[1,0]]}]})",
         "corrective data: layer 'a': the keys of \"weightCurve\" are not in frame order"},
        {R"({"layers":[{"name":"a","offsets":{"5":[1,2]}}]})",
         "corrective data: layer 'a' offsets: guide 5 needs a list of x, y, z numbers"},
        {R"({"layers":[{"offsets":{"five":[1,2,3]}}]})", "stoull"},
        {R"({"layers":[],"version":9})",
         "corrective data is of version 9, newer than this Velmorin reads: update Velmorin"},
    };
    for (const auto& row : table)
        expectMessage<SchemaError>([&] { correctiveLayersFromJson(row.text); }, row.message);
    try {
        correctiveLayersFromJson("{");
        ADD_FAILURE() << "no error";
    } catch (const SchemaError& error) {
        EXPECT_EQ(std::string(error.what()).rfind("invalid corrective data: ", 0), 0u)
            << error.what();
    }
}

TEST(SculptEdits, JsonRoundTripsAndRefusesOtherShapes) {
    SculptEdits edits;
    edits.guides[42] = {{1.0f, 2.0f, 3.0f}, {0.5f, -0.25f, 0.0f}};
    const std::string text = edits.toJson();
    EXPECT_EQ(text, R"({"guides":{"42":[1.0,2.0,3.0,0.5,-0.25,0.0]},"version":1})");
    EXPECT_EQ(SculptEdits::fromJson(text), edits);
    EXPECT_TRUE(SculptEdits::fromJson("").empty());
    for (const char* bad : {"[]", "3", R"({"guides":[]})", R"({"guides":{"1":[1,2]}})"})
        expectMessage<SchemaError>([&] { SculptEdits::fromJson(bad); }, "not an object");
    expectMessage<SchemaError>([&] { SculptEdits::fromJson(R"({"guides":{"x":[]}})"); }, "stoull");
}

TEST(GuideOffsets, ApplyMovesInTheGuidesFramesByWeight) {
    std::vector<Guide> guides{straightGuide(1, {0, 0, 0}, 3), straightGuide(2, {5, 0, 0}, 3),
                              straightGuide(3, {9, 0, 0}, 3)};
    const std::vector<Guide> input = guides;
    GuideOffsets offsets;
    offsets[1] = {{0, 0, 0}, {0.2f, 0.4f, 1.0f}, {0, 0, 2.0f}};
    offsets[3] = {{1, 1, 1}};  // another point count: skipped
    applyGuideOffsets(guides, offsets, 0.5f);
    // A straight guide up +Y with up +X: side = up x tangent = -Z, tangent = +Y.
    std::vector<CurveFrame> frames;
    transportFrames(input[0].points, input[0].frameUp, frames);
    for (std::size_t i = 0; i < 3; ++i) {
        const Vec3f o = offsets[1][i] * 0.5f;
        const Vec3f expected = input[0].points[i] + frames[i].side * o.x + frames[i].up * o.y +
                               frames[i].tangent * o.z;
        EXPECT_EQ(guides[0].points[i], expected) << i;
    }
    EXPECT_FLOAT_EQ(guides[0].points[2].y, 1.0f + 1.0f);  // 2 along the tangent at weight 0.5
    EXPECT_EQ(guides[1].points, input[1].points);         // no offsets: unchanged
    EXPECT_EQ(guides[2].points, input[2].points);
    std::vector<Guide> zero = input;
    applyGuideOffsets(zero, offsets, 0.0f);
    EXPECT_EQ(zero[0].points, input[0].points);
}

TEST(GuideOffsets, SculptOffsetsInvertApplyAndCheckTheirInput) {
    const Guide input = straightGuide(4, {1, 2, 3}, 4);
    std::vector<Vec3f> sculpted = input.points;
    sculpted[2] = sculpted[2] + Vec3f{0.3f, -0.1f, 0.2f};
    sculpted[3] = sculpted[3] + Vec3f{-0.5f, 0.25f, 0.0f};
    const float strength = 0.5f;
    GuideOffsets offsets;
    offsets[4] = sculptOffsets(input, sculpted, strength);
    std::vector<Guide> applied{input};
    applyGuideOffsets(applied, offsets, strength);
    for (std::size_t i = 0; i < sculpted.size(); ++i) {
        EXPECT_NEAR(applied[0].points[i].x, sculpted[i].x, 1e-6f);
        EXPECT_NEAR(applied[0].points[i].y, sculpted[i].y, 1e-6f);
        EXPECT_NEAR(applied[0].points[i].z, sculpted[i].z, 1e-6f);
    }
    expectMessage([&] { sculptOffsets(input, sculpted, 0.001f); },
                  "the Sculpt node's strength is 0: raise it to sculpt");
    expectMessage([&] { sculptOffsets(input, sculpted, -0.0005f); },
                  "the Sculpt node's strength is 0: raise it to sculpt");
    sculpted.pop_back();
    expectMessage([&] { sculptOffsets(input, sculpted, 1.0f); },
                  "a sculpted guide has another point count than its input");
}

}  // namespace
}  // namespace velmorin
