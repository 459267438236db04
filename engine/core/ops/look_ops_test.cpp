#include <gtest/gtest.h>

#include <cmath>

#include <filesystem>
#include <set>

#include "graph/registry.h"
#include "io/png.h"
#include "ops/color_ops.h"
#include "ops/test/shape_checks.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

using test::pointColor;
using test::ShapeRun;

// A set whose strands show `color`, per strand, as HairColor in colour mode leaves them.
std::shared_ptr<const StrandSet> colored(std::shared_ptr<const StrandSet> strands, Vec3f color) {
    auto set = std::make_shared<StrandSet>(*strands);
    for (int c = 0; c < 3; ++c)
        set->addStrandChannel(std::string(channels::kColor[static_cast<std::size_t>(c)]), color[c]);
    return set;
}

Ramp stepAtHalf() {
    Ramp ramp;
    ramp.linear = true;
    ramp.keys = {{0.0f, 0.0f, 0.0f}, {0.5f, 0.0f, 0.0f}, {0.5f, 1.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    return ramp;
}

TEST(Operators, EveryBuiltInParamIsDescribedAndItsDefaultLiesInItsRange) {
    // What the editor shows for each param: a description, a default the slider or menu can hold.
    OperatorRegistry builtIn;
    registerBuiltinOperators(builtIn);
    EXPECT_GT(builtIn.types().size(), 30u);
    for (const std::string& type : builtIn.types()) {
        const auto op = builtIn.create(type);
        std::set<std::string> names;
        for (const ParamSpec& spec : op->params()) {
            SCOPED_TRACE(type + "." + spec.name);
            EXPECT_TRUE(names.insert(spec.name).second) << "named twice";
            EXPECT_FALSE(spec.description.empty());
            double value = 0.0;
            if (const auto* d = std::get_if<double>(&spec.defaultValue)) value = *d;
            if (const auto* i = std::get_if<std::int64_t>(&spec.defaultValue))
                value = static_cast<double>(*i);
            EXPECT_GE(value, spec.min.value_or(value));
            EXPECT_LE(value, spec.max.value_or(value));
            EXPECT_LE(spec.min.value_or(-INFINITY), spec.softMin.value_or(INFINITY));
            EXPECT_GE(spec.max.value_or(INFINITY), spec.softMax.value_or(-INFINITY));
            if (!spec.choices.empty()) {
                const auto* chosen = std::get_if<std::string>(&spec.defaultValue);
                ASSERT_NE(chosen, nullptr);
                EXPECT_NE(std::find(spec.choices.begin(), spec.choices.end(), *chosen),
                          spec.choices.end());
            }
        }
    }
}

TEST(Operators, TheLookOperatorsAreRegisteredWithTheirMenuData) {
    const OperatorRegistry& registry = OperatorRegistry::instance();
    struct Row {
        const char* type;
        const char* category;
        const char* keywords;
        int version;
    };
    for (const Row& row :
         {Row{"HairColor", "color", "melanin pigment dye shading specular roughness", 1},
          Row{"Bands", "color", "agouti ticked stripes", 1},
          Row{"FeatherColor", "color", "pattern bars spots iridescence", 2},
          Row{"RenderData", "color", "opacity shader", 1},
          Row{"Output", "utility", "result render final", 1}}) {
        SCOPED_TRACE(row.type);
        ASSERT_TRUE(registry.contains(row.type));
        EXPECT_EQ(registry.info(row.type)->category, row.category);
        EXPECT_EQ(registry.info(row.type)->keywords, row.keywords);
        EXPECT_EQ(registry.create(row.type)->version(), row.version);
    }
    EXPECT_EQ(registry.info("Output")->description, "What the groom shows and renders.");
}

TEST(Operators, TheLookOperatorsListTheChannelsTheyWriteAndRead) {
    const auto names = [](const Operator& op, ChannelRole role) {
        std::string list;
        for (const ChannelUse& use : op.fixedChannels())
            if (use.role == role) list += use.name + (use.optional ? "? " : " ");
        return list;
    };
    auto hair = OperatorRegistry::instance().create("HairColor");
    EXPECT_EQ(names(*hair, ChannelRole::Writes),
              "colorR colorG colorB melanin redness dyeR dyeG dyeB specular roughness tilt ");
    EXPECT_EQ(names(*hair, ChannelRole::Reads), "");
    hair->paramSet.set("mode", std::string("color"));
    hair->paramSet.set("clumpShare", 0.5);
    hair->paramSet.set("clumpChannel", std::string("lockId"));
    EXPECT_EQ(names(*hair, ChannelRole::Writes), "colorR colorG colorB specular roughness tilt ");
    EXPECT_EQ(names(*hair, ChannelRole::Reads), "lockId? ");
    EXPECT_EQ(names(*OperatorRegistry::instance().create("RenderData"), ChannelRole::Writes),
              "opacity ");
    EXPECT_EQ(names(*OperatorRegistry::instance().create("FeatherColor"), ChannelRole::Reads),
              "featherAlong? featherAcross? featherDown? featherId? ");
}

TEST(Bands, PlacedByTheProfileAtEachPointsRepeatedShareOfTheLength) {
    // Nine points at t = k / 8; count 2 repeats the profile twice: band where frac(2t) >= 0.5.
    const auto strands = colored(test::handStrands({test::straight(9)}), {0, 0, 1});
    const auto out =
        ShapeRun(
            "Bands",
            {{"profile", stepAtHalf()}, {"count", 2.0}, {"melanin", 0.0}, {"dye", Vec3f{1, 0, 0}}})
            .run(strands);
    const bool band[9] = {false, false, true, true, false, false, true, true, false};
    for (std::size_t k = 0; k < 9; ++k)
        EXPECT_EQ(pointColor(*out, k), band[k] ? Vec3f(1, 0, 0) : Vec3f(0, 0, 1)) << k;
    EXPECT_FALSE(out->strandChannel(channels::kColor[0]));

    // The band's colour is its pigment under its dye; strength scales the share.
    const auto faint = ShapeRun("Bands", {{"profile", stepAtHalf()},
                                          {"count", 2.0},
                                          {"strength", 0.5},
                                          {"melanin", 0.5},
                                          {"redness", 0.25}})
                           .run(strands);
    EXPECT_EQ(pointColor(*faint, 0), Vec3f(0, 0, 1));
    const Vec3f want = lerp({0, 0, 1}, pigmentColor(0.5f, 0.25f), 0.5f);
    EXPECT_NEAR(pointColor(*faint, 2).x, want.x, 1e-6f);
    EXPECT_NEAR(pointColor(*faint, 2).z, want.z, 1e-6f);
}

TEST(Bands, GuardHairsAtRandomOrTheLongestAndTheRestUndercoat) {
    const auto grid = colored(test::gridStrands(2000, 5, 3), {0.2f, 0.4f, 0.8f});
    // guards 0: only undercoat, in the plain colour under its dye.
    const auto undercoat =
        ShapeRun("Bands", {{"guards", 0.0}, {"undercoatDye", Vec3f{0.5f, 0.5f, 0.5f}}}).run(grid);
    for (std::size_t p = 0; p < undercoat->pointCount(); p += 7)
        EXPECT_EQ(pointColor(*undercoat, p), Vec3f(0.1f, 0.2f, 0.4f)) << p;

    BandsSettings settings;
    settings.guards = 0.25f;
    const std::vector<std::uint8_t> random = guardHairs(*grid, settings);
    EXPECT_NEAR(std::count(random.begin(), random.end(), 1) / 2000.0, 0.25, 0.03);

    // The longest: strands of lengths 1 to 4, half of them guards.
    const auto lengths = test::handStrands({test::straight(3, 0.5f), test::straight(3, 2.0f),
                                            test::straight(3, 1.5f), test::straight(3, 1.0f)});
    settings.guardsBy = GuardsBy::Longest;
    settings.guards = 0.5f;
    EXPECT_EQ(guardHairs(*lengths, settings), (std::vector<std::uint8_t>{0, 1, 1, 0}));
}

TEST(Bands, KeepsPigmentChannelsInStepWithTheColor) {
    const auto hair = ShapeRun("HairColor", {{"melanin", 0.7}, {"melaninRandom", 0.0}})
                          .run(test::handStrands({test::straight(9)}));
    const auto out =
        ShapeRun("Bands",
                 {{"profile", stepAtHalf()}, {"count", 1.0}, {"melanin", 0.2}, {"redness", 0.9}})
            .run(hair);
    const std::vector<float>& melanin = *out->pointChannel(channels::kMelanin);
    EXPECT_FALSE(out->strandChannel(channels::kMelanin));
    EXPECT_FLOAT_EQ(melanin[0], 0.7f);
    EXPECT_FLOAT_EQ(melanin[6], 0.2f);
    EXPECT_FLOAT_EQ((*out->pointChannel(channels::kRedness))[6], 0.9f);
    EXPECT_EQ(pointColor(*out, 6), pigmentColor(0.2f, 0.9f));
}

// Barbs of one point each at the listed flat positions (along, across).
std::shared_ptr<const StrandSet> barbs(const std::vector<std::pair<float, float>>& at,
                                       bool down = false) {
    std::vector<std::vector<Vec3f>> strands(at.size(), test::straight(1));
    auto set = std::make_shared<StrandSet>(*test::handStrands(strands));
    std::vector<float>& along = set->addPointChannel(std::string(channels::kFeatherAlong), 0.0f);
    std::vector<float>& across = set->addPointChannel(std::string(channels::kFeatherAcross), 0.0f);
    for (std::size_t i = 0; i < at.size(); ++i) {
        along[i] = at[i].first;
        across[i] = at[i].second;
    }
    if (down) set->addStrandChannel(std::string(channels::kFeatherDown), 1.0f);
    return set;
}

TEST(FeatherColor, PatternShapesInTheFeathersFlatSpace) {
    struct Case {
        FeatherPattern pattern;
        float along, across;
        float covered;
    };
    FeatherColorSettings settings;
    settings.count = 4.0f;
    settings.width = 0.5f;
    settings.sharpness = 1.0f;
    settings.offset = 0.0f;
    const Case cases[] = {
        // Bars: a period of 1/4, the bar the middle half of it.
        {FeatherPattern::Bars, 0.125f, 0.7f, 1.0f},
        {FeatherPattern::Bars, 0.2f, 0.0f, 0.0f},
        {FeatherPattern::Bars, 0.01f, -0.3f, 0.0f},
        // Spots: the middle of a cell along and across.
        {FeatherPattern::Spots, 0.125f, 0.125f, 1.0f},
        {FeatherPattern::Spots, 0.125f, 0.24f, 0.0f},
        // Fringe: the outer half of each barb.
        {FeatherPattern::Fringe, 0.3f, -0.9f, 1.0f},
        {FeatherPattern::Fringe, 0.3f, 0.3f, 0.0f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << static_cast<int>(c.pattern) << " at " << c.along << ", " << c.across);
        settings.pattern = c.pattern;
        Vec3f color;
        EXPECT_NEAR(featherCoverage(settings, {}, c.along, c.across, color), c.covered, 1e-4f);
    }
    // An eye of diameter 0.4 at mid-feather, a quarter longer than wide.
    settings.pattern = FeatherPattern::Eye;
    settings.width = 0.4f;
    settings.offset = 0.5f;
    Vec3f color;
    EXPECT_EQ(featherCoverage(settings, {}, 0.5f, 0.0f, color), 1.0f);
    EXPECT_EQ(featherCoverage(settings, {}, 0.72f, 0.0f, color), 1.0f);
    EXPECT_EQ(featherCoverage(settings, {}, 0.5f, 0.22f, color), 0.0f);
    // Turned a quarter, it is wider than long.
    settings.angle = 89.0f;
    EXPECT_EQ(featherCoverage(settings, {}, 0.72f, 0.0f, color), 0.0f);
    // Chevrons tilt the same way on both vanes; bars tilt across the shaft.
    settings.angle = 30.0f;
    settings.width = 0.5f;
    settings.offset = 0.0f;
    for (const FeatherPattern pattern : {FeatherPattern::Bars, FeatherPattern::Chevrons}) {
        settings.pattern = pattern;
        const float left = featherCoverage(settings, {}, 0.17f, -0.05f, color);
        const float right = featherCoverage(settings, {}, 0.17f, 0.05f, color);
        EXPECT_EQ(left == right, pattern == FeatherPattern::Chevrons);
    }
    // One vane only.
    settings.pattern = FeatherPattern::Fringe;
    settings.vanes = FeatherVanes::Left;
    EXPECT_EQ(featherCoverage(settings, {}, 0.3f, 0.9f, color), 0.0f);
    EXPECT_EQ(featherCoverage(settings, {}, 0.3f, -0.9f, color), 1.0f);
}

TEST(FeatherColor, PatternColorDownColorAndIridescence) {
    const auto feather = colored(barbs({{0.125f, 0.5f}, {0.2f, -0.5f}}), {1, 1, 1});
    const auto out = ShapeRun("FeatherColor", {{"pattern", std::string("bars")},
                                               {"count", 4.0},
                                               {"sharpness", 1.0},
                                               {"offset", 0.0},
                                               {"melanin", 0.6},
                                               {"strength", 0.5},
                                               {"iridescence", 0.8},
                                               {"iridescenceOn", std::string("leftVane")}})
                         .run(feather);
    const Vec3f want = lerp({1, 1, 1}, pigmentColor(0.6f, 0.2f), 0.5f);
    EXPECT_NEAR(pointColor(*out, 0).y, want.y, 1e-6f);
    EXPECT_EQ(pointColor(*out, 1), Vec3f(1, 1, 1));
    EXPECT_EQ(*out->pointChannel(channels::kIridescence), (std::vector<float>{0.0f, 0.8f}));
    // The groom-wide iridescence colour, set by the first FeatherColor with iridescence only.
    EXPECT_FLOAT_EQ((*out->strandChannel(channels::kIridescenceColor[1]))[0], 0.6f);
    const auto second =
        ShapeRun("FeatherColor", {{"iridescence", 1.0}, {"iridescenceColor", Vec3f{1, 0, 0}}})
            .run(out);
    EXPECT_FLOAT_EQ((*second->strandChannel(channels::kIridescenceColor[1]))[0], 0.6f);

    // Without flat coordinates only the down colour and iridescence apply.
    auto plain =
        std::make_shared<StrandSet>(*colored(test::handStrands({test::straight(3)}), {0, 0, 1}));
    plain->addStrandChannel(std::string(channels::kFeatherDown), 1.0f);
    const auto downed = ShapeRun("FeatherColor", {{"pattern", std::string("eye")},
                                                  {"downColor", Vec3f{1, 1, 0}},
                                                  {"downStrength", 0.5},
                                                  {"iridescence", 0.3},
                                                  {"iridescenceOn", std::string("notPattern")}})
                            .run(plain);
    EXPECT_EQ(pointColor(*downed, 2), Vec3f(0.5f, 0.5f, 0.5f));
    EXPECT_EQ(*downed->pointChannel(channels::kIridescence),
              (std::vector<float>{0.3f, 0.3f, 0.3f}));
}

TEST(FeatherColor, ATexturePatternIsTheImageWhereItsAlphaCovers) {
    // Two pixels: opaque red on the left vane's side, see-through green on the right's.
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / "velmorin_feather_pattern_test.png";
    const std::uint8_t pixels[] = {255, 0, 0, 255, 0, 255, 0, 0};
    writePng(path, ImageView{2, 1, 4, pixels});
    const auto out =
        ShapeRun("FeatherColor", {{"pattern", std::string("texture")}, {"texture", path.string()}})
            .run(colored(barbs({{0.5f, -0.9f}, {0.5f, 0.9f}}), {1, 1, 1}));
    std::filesystem::remove(path);
    EXPECT_EQ(pointColor(*out, 0), Vec3f(1, 0, 0));
    EXPECT_EQ(pointColor(*out, 1), Vec3f(1, 1, 1));

    // Without an image the node says so and applies the rest.
    NoteList notes;
    ShapeRun("FeatherColor", {{"pattern", std::string("texture")}})
        .run(barbs({{0.5f, 0.0f}}), {}, &notes);
    EXPECT_EQ(notes.take(),
              (std::vector<std::string>{"FeatherColor: the texture pattern needs an image of the "
                                        "feather (set texture): only the down color and "
                                        "iridescence apply"}));
}

TEST(RenderData, OpacityTimesProfileTimesEachStrandsDraw) {
    Ramp falling;
    falling.linear = true;
    falling.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
    const auto strands = test::handStrands({test::straight(5), test::straight(3)});
    const auto out = ShapeRun("RenderData", {{"opacity", 0.8},
                                             {"opacityProfile", falling},
                                             {"opacityRandom", 0.5},
                                             {"seed", std::int64_t{2}}})
                         .run(strands);
    const std::vector<float>& opacity = *out->pointChannel(channels::kOpacity);
    ASSERT_EQ(opacity.size(), 8u);
    for (std::size_t s = 0; s < 2; ++s) {
        const float kept = 1.0f - 0.5f * unitFloat(hashCombine(strands->ids()[s], 2));
        const std::size_t n = s == 0 ? 5 : 3, begin = s == 0 ? 0 : 5;
        for (std::size_t k = 0; k < n; ++k) {
            const float t = static_cast<float>(k) / static_cast<float>(n - 1);
            EXPECT_NEAR(opacity[begin + k], 0.8f * (1.0f - t) * kept, 1e-6f) << s << " " << k;
        }
    }
    const test::IncrementalOutcome outcome = test::incrementalAfterMove(
        ShapeRun("RenderData", {{"opacityRandom", 0.5}}), test::gridStrands(300, 4, 2), {1, 2});
    EXPECT_EQ(outcome.run, "incremental 2");
    EXPECT_TRUE(outcome.sameAsFull);
}

}  // namespace
}  // namespace velmorin
