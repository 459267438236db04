#include "editing/tube_shapes.h"

#include <gtest/gtest.h>

#include "editing/test/guide_checks.h"

#include <cmath>
#include <limits>

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;
using test::messageOf;

std::vector<TubePoint> square(float low, float high) {
    return {{low, low}, {high, low}, {high, high}, {low, high}};
}

TEST(TubeShapes, NamesAreCheckedInOrder) {
    const std::string longest(64, 'a');
    const struct {
        std::string name;
        std::string message;
    } cases[] = {
        {"", "a tube shape needs a name"},
        {longest + "a", "tube shape names: 64 characters at most"},
        {" a/b", "tube shape ' a/b': letters, digits, spaces, '_', '-' and '.' only"},
        {"wide ", "tube shape 'wide ': no spaces at the ends"},
        {"round", "'round' is a built-in tube shape: pick another name"},
        {longest, "no error"},
        {"Round", "no error"},
        {"flat v2_x-1.b", "no error"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(messageOf([&] { validateTubeShapeName(c.name); }), c.message) << c.name;

    ASSERT_EQ(builtInTubeShapes().size(), 4u);
    for (std::size_t i = 0; i < 4; ++i) {
        TubeShape shape = TubeShape::Round;
        EXPECT_TRUE(tubeShapeFromName(builtInTubeShapes()[i], shape));
        EXPECT_EQ(static_cast<std::size_t>(shape), i);
        EXPECT_EQ(tubeShapeName(shape), builtInTubeShapes()[i]);
    }
    TubeShape untouched = TubeShape::Blade;
    EXPECT_FALSE(tubeShapeFromName("crescent", untouched));
    EXPECT_EQ(untouched, TubeShape::Blade);
}

TEST(TubeShapes, OutlinesAreChecked) {
    std::vector<TubePoint> tooMany;
    for (int i = 0; i < 65; ++i) {
        const float a = float(i) * 6.2831853f / 65;
        tooMany.push_back({std::cos(a), std::sin(a)});
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        std::vector<TubePoint> points;
        std::string message;
    } cases[] = {
        {tooMany, "tube shape 's': 64 points at most"},
        {{{0, 0}, {1, nan}, {1, 1}}, "tube shape 's': points must be numbers"},
        {{{-1, -1}, {1, -1}, {1.00005f, -1}}, "tube shape 's': at least 3 points, apart"},
        {{{-1, -1}, {0, 0}, {1, 1}, {0.5f, 0.5f}},
         "tube shape 's': the points lie on a line; give the outline width and height"},
        {{{-1, -1}, {1, -1}, {-1, 1}, {0.5f, 1}},
         "tube shape 's': the outline crosses itself; move the points so its edges don't cross"},
        {square(0.1f, 1.0f),
         "tube shape 's': the outline must enclose its center (the guide runs through it); keep "
         "the middle of the square inside the shape"},
        {square(-0.5f, 0.5f), "no error"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(messageOf([&] { makeCustomTubeShape("s", c.points, false); }), c.message);
    EXPECT_EQ(messageOf([&] { makeCustomTubeShape("ribbon", square(-1, 1), false); }),
              "'ribbon' is a built-in tube shape: pick another name");

    const auto sharp = makeCustomTubeShape("box", square(-0.5f, 0.5f), false);
    const auto smooth = makeCustomTubeShape("pebble", square(-0.5f, 0.5f), true);
    EXPECT_NEAR(sharp->area, 1.0f, 1e-6f);
    // The smooth curve runs through the drawn corners and bulges out between them, inside the
    // circle through the corners.
    EXPECT_GT(smooth->area, 1.0f);
    EXPECT_LT(smooth->area, 1.5708f);
    EXPECT_EQ(smooth->points, square(-0.5f, 0.5f));
}

TEST(TubeShapes, LibraryJsonReadsBack) {
    const auto shape = makeCustomTubeShape("leaf", {{-1, 0}, {0, -0.3f}, {1, 0}, {0, 0.3f}}, true);
    const Json json = customTubeShapeJson(*shape);
    EXPECT_EQ(json.dump(),
              "{\"name\":\"leaf\",\"points\":[-1.0,0.0,0.0,-0.30000001192092896,1.0,"
              "0.0,0.0,0.30000001192092896],\"smooth\":true}");
    const auto again = parseCustomTubeShape("leaf", json);
    EXPECT_EQ(again->points, shape->points);
    EXPECT_TRUE(again->smooth);

    const struct {
        const char* json;
        const char* message;
    } cases[] = {
        {R"({"points":[1,2,3]})", "tube shape 'x': points come as x, y pairs"},
        {R"({"points":[1,"2"]})", "tube shape 'x': points must be numbers"},
        {R"({"points":[-1,-1,1,-1,0,1],"smooth":1})", "tube shape 'x': smooth is true or false"},
        {"[]", "tube shape 'x': a JSON object"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(messageOf([&] { parseCustomTubeShape("x", Json::parse(c.json)); }), c.message);
}

TEST(TubeShapes, TubeFieldsMessages) {
    TubeShapeLibrary library;
    library.emplace("leaf", makeCustomTubeShape("leaf", square(-1, 1), false));
    const struct {
        const char* json;
        const char* message;
    } cases[] = {
        {"[1]", "tube: a JSON object"},
        {R"({"shape":"oval"})", "tube shape 'oval': one of round, ribbon, teardrop, blade, leaf"},
        {R"({"shape":3})", "tube: shape is a name"},
        {R"({"width":[1,-0.5]})", "tube width: 0 or more"},
        {R"({"aspect":0})", "tube aspect: above 0"},
        {R"({"twist":[]})", "tube twist: an empty list"},
        {R"({"width":"2"})", "tube width: not a number"},
        {R"({"width":1e39})", "tube width: not a number"},
        {R"({"aspect":[1,true]})", "tube aspect: numbers only"},
        {R"({"twist":{"a":1}})", "tube twist: a number or a list of numbers"},
        {R"({"scaleWidth":-1})", "tube scaleWidth: a number, 0 or more"},
        {R"({"scaleWidth":"2"})", "tube scaleWidth: a number, 0 or more"},
        {R"({"samples":1})", "tube samples: 2 to 1024"},
        {R"({"samples":2.5})", "tube samples: 2 to 1024"},
        {R"({"smooth":"tips"})", "tube smooth: width, aspect, twist or all"},
        {R"({"smooth":"all","passes":101})", "tube passes: 1 to 100"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(messageOf([&] { parseTubeFields(Json::parse(c.json), library); }), c.message)
            << c.json;
}

TEST(TubeShapes, TubeFieldsEditKeys) {
    TubeShapeLibrary library;
    library.emplace("leaf", makeCustomTubeShape("leaf", square(-1, 1), false));
    TubeFields base;
    base.shape = TubeShape::Blade;
    base.twist = {10.0f};

    TubeFields tube =
        parseTubeFields(Json::parse(R"({"width":[2,4],"scaleWidth":0.5})"), library, base);
    EXPECT_EQ(tube.shape, TubeShape::Blade);  // kept from the base
    EXPECT_EQ(tube.width, (std::vector<float>{1, 2}));
    EXPECT_EQ(tube.twist, (std::vector<float>{10}));

    tube = parseTubeFields(Json::parse(R"({"shape":"leaf","width":[0,1],"samples":3})"), library);
    ASSERT_TRUE(tube.custom);
    EXPECT_EQ(tube.custom->name, "leaf");
    EXPECT_EQ(tube.width, (std::vector<float>{0, 0.5f, 1}));
    EXPECT_EQ(tube.aspect, (std::vector<float>{1, 1, 1}));
    EXPECT_EQ(tube.twist, (std::vector<float>{0, 0, 0}));

    // Each pass moves inner values halfway to their neighbours' mean; the ends stay.
    tube =
        parseTubeFields(Json::parse(R"({"width":[0,1,0,1],"smooth":"width","passes":2})"), library);
    EXPECT_EQ(tube.width, (std::vector<float>{0, 0.375f, 0.625f, 1}));
    tube = parseTubeFields(Json::parse(R"({"shape":"round"})"), library, tube);
    EXPECT_FALSE(tube.custom);
}

TEST(TubeShapes, ValuesAlongTheGuideAndPlainness) {
    TubeFields tube;
    TubeValues values = tubeValuesAt(tube, 0.3f);
    EXPECT_EQ(values.width, 1.0f);
    EXPECT_EQ(values.aspect, 1.0f);
    EXPECT_EQ(values.twist, 0.0f);

    tube.width = {1, 3};
    tube.aspect = {0.001f, 500.0f, 2.0f};
    tube.twist = {90};
    values = tubeValuesAt(tube, 0.25f);
    EXPECT_FLOAT_EQ(values.width, 1.5f);
    EXPECT_FLOAT_EQ(values.aspect, 100.0f);  // 250 clamped
    EXPECT_EQ(values.twist, 90.0f);
    EXPECT_EQ(tubeValuesAt(tube, 0.0f).aspect, 0.01f);
    EXPECT_EQ(tubeValuesAt(tube, 2.0f).width, 3.0f);

    TubeFields listed;
    listed.aspect = {1, 1, 1};
    listed.twist = {0, -0.0f};
    EXPECT_TRUE(isPlainTube(listed));
    TubeFields flat = listed;
    flat.aspect[1] = 1.0001f;
    TubeFields turned = listed;
    turned.twist = {std::numeric_limits<float>::quiet_NaN()};
    TubeFields shaped = listed;
    shaped.shape = TubeShape::Teardrop;
    TubeFields custom;
    custom.custom = makeCustomTubeShape("box", square(-1, 1), false);
    for (const TubeFields* notPlain : {&flat, &turned, &shaped, &custom})
        EXPECT_FALSE(isPlainTube(*notPlain));
}

TEST(TubeShapes, BuiltInOutlinesLookLikeTheirNames) {
    auto box = [](TubeShape shape) {
        TubeFields tube;
        tube.shape = shape;
        TubePoint low{1e9f, 1e9f}, high{-1e9f, -1e9f};
        for (const TubePoint& p : tubeOutline(tube)) {
            low = {std::min(low.x, p.x), std::min(low.y, p.y)};
            high = {std::max(high.x, p.x), std::max(high.y, p.y)};
        }
        EXPECT_LT(tubeSectionDistance(tube, {0, 0}), 0.0f);  // the guide runs inside
        return std::pair{low, high};
    };
    const auto [roundLow, roundHigh] = box(TubeShape::Round);
    EXPECT_NEAR(roundHigh.x - roundLow.x, 2.0f, 1e-3f);
    EXPECT_NEAR(roundHigh.y - roundLow.y, 2.0f, 1e-2f);
    const auto [ribbonLow, ribbonHigh] = box(TubeShape::Ribbon);
    EXPECT_GT(ribbonHigh.x - ribbonLow.x, 3.0f * (ribbonHigh.y - ribbonLow.y));  // flat
    const auto [dropLow, dropHigh] = box(TubeShape::Teardrop);
    EXPECT_NEAR(dropHigh.y, 1.0f, 1e-6f);  // the point is up...
    TubeFields drop;
    drop.shape = TubeShape::Teardrop;
    EXPECT_GT(tubeSectionDistance(drop, {0.3f, 0.9f}), 0.0f);  // ...and narrow there
    EXPECT_LT(tubeSectionDistance(drop, {0.3f, -0.4f}), 0.0f);
    TubeFields blade;
    blade.shape = TubeShape::Blade;
    // Thick at the back, thin toward the edge.
    EXPECT_LT(tubeSectionDistance(blade, {-0.7f, 0.25f}), 0.0f);
    EXPECT_GT(tubeSectionDistance(blade, {0.7f, 0.1f}), 0.0f);
}

TEST(TubeShapes, SamplesLieInsideAndRepeatBySeed) {
    std::vector<TubeFields> tubes(5);
    tubes[1].shape = TubeShape::Ribbon;
    tubes[2].shape = TubeShape::Teardrop;
    tubes[3].shape = TubeShape::Blade;
    tubes[4].custom =
        makeCustomTubeShape("notch", {{-1, -1}, {1, -1}, {1, 1}, {0, 0.1f}, {-1, 1}}, false);
    for (const TubeFields& tube : tubes) {
        float farthest = 0.0f;
        for (std::uint64_t seed = 0; seed < 400; ++seed) {
            const TubePoint p = sampleInside(tube, 0.5f, seed);
            EXPECT_LE(tubeSectionDistance(tube, p), 0.0f) << tubeShapeNameOf(tube) << seed;
            farthest = std::max(farthest, std::hypot(p.x, p.y));
            EXPECT_EQ(sampleInside(tube, 0.5f, seed), p);
        }
        EXPECT_GT(farthest, 0.7f) << tubeShapeNameOf(tube);  // samples reach out, not one spot
    }
    // A sliver the square's draws cannot hit gives its inner point.
    TubeFields sliver;
    sliver.custom =
        makeCustomTubeShape("sliver", {{-0.01f, -0.01f}, {0.01f, -0.01f}, {0, 0.01f}}, false);
    EXPECT_EQ(sampleInside(sliver, 0.0f, 7), (TubePoint{0, 0}));
}

}  // namespace
}  // namespace velmorin
