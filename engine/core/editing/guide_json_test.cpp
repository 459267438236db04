#include <gtest/gtest.h>

#include <functional>

#include "base/document.h"
#include "base/parallel.h"
#include "editing/guide_hierarchy.h"
#include "editing/test/guide_fixtures.h"
#include "mesh/sample_meshes.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

using test::curve;

constexpr Vec3f kUp{0, 1, 0};

// Both ways of reading agree, on the hierarchy and on its text; returns the hierarchy.
GuideHierarchy readBothWays(const std::string& text, bool expectSplit) {
    bool split = !expectSplit;
    GuideHierarchy fast = GuideHierarchy::fromJson(text, GuideReadMode::Automatic, &split);
    const GuideHierarchy whole = GuideHierarchy::fromJson(text, GuideReadMode::WholeParse);
    EXPECT_EQ(split, expectSplit) << text;
    EXPECT_EQ(fast.contentHash(), whole.contentHash()) << text;
    EXPECT_EQ(fast.toJson(), whole.toJson()) << text;
    return fast;
}

std::string readError(const std::string& text, GuideReadMode mode) {
    try {
        GuideHierarchy::fromJson(text, mode);
    } catch (const SchemaError& error) {
        return error.what();
    }
    return "no error";
}

// Every kind of guide and record the format holds.
GuideHierarchy everything() {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main \"top\" {x}", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    h.setGroupSegments(kids, 4);
    TubeFields tube;
    tube.custom =
        makeCustomTubeShape("flat", {{-1, -0.3f}, {1, -0.3f}, {1, 0.3f}, {-1, 0.3f}}, true);
    tube.width = {0.3f, 0.1f};
    tube.twist = {0, 45};
    const std::uint64_t a = h.addGuide(main, curve({0, 0, 0}, kUp, 2, 5), tube);
    TubeFields teardrop;
    teardrop.shape = TubeShape::Teardrop;
    const std::uint64_t b =
        h.addGuide(main, curve({1, 0, 0}, kUp, 2, 5, {0, 0, 1}, 0.3f), teardrop);
    h.setGuideAttribute(std::vector{a, b}, "stiff", 0.1f);
    h.setPointAttribute(b, "curl", {0, 0.25f, 0.5f, 0.75f, 1});
    ChildOptions options;
    options.count = 3;
    options.twist = 30;
    h.generateChildren(main, "kids", std::vector{a, b}, options);
    const std::uint64_t own = h.addChildGuide(kids, a, curve({0.1f, 0, 0}, kUp, 2, 7));
    const std::uint64_t locked = h.addChildGuide(kids, b, curve({1.1f, 0, 0}, kUp, 2, 5));
    h.setLocked(std::vector{locked}, true);
    h.resample(std::vector{own}, 6, false);
    h.pose(*makeUvPlane(4, 4));  // binds the primaries and the locked child
    return h;
}

TEST(GuideJson, WritesItsLayout) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    h.setGroupSegments(main, 4);
    const std::uint64_t a = h.addGuide(main, {{0, 0, 0}, {0, 1, 0}});
    h.setGuideAttribute(std::vector{a}, "stiff", 0.5f);
    h.addChildGuide(kids, a, {{0.5f, 0, 0}, {0.5f, 1, 0}});
    h.addChildGuide(kids, a, {{-0.5f, 0, 0}, {-0.5f, 0.5f, 0}, {-0.5f, 1, 0}});
    EXPECT_EQ(
        h.toJson(),
        R"({"groups":[{"id":1,"name":"main","parent":0,"segments":4},{"id":2,"name":"kids","parent":1}],)"
        R"("guides":[{"id":1,"group":1,"root":[-1,0,0],"frameUp":[0,0,-1],)"
        R"("tube":{"shape":"round","width":[1],"aspect":[1],"twist":[0]},"attributes":{"stiff":0.5},)"
        R"("points":[0,0,0,0,1,0]},)"
        R"({"id":2,"group":2,"root":[-1,0,0],"frameUp":[0,0,-1],)"
        R"("tube":{"shape":"round","width":[1],"aspect":[1],"twist":[0]},"parent":1,)"
        R"("offsets":[0.5,0,0,0.5,0,0]},)"
        R"({"id":3,"group":2,"root":[-1,0,0],"frameUp":[0,0,-1],)"
        R"("tube":{"shape":"round","width":[1],"aspect":[1],"twist":[0]},"parent":1,)"
        R"("offsets":[-0.5,0,0,-0.5,0,0,-0.5,0,0],"pointCount":3}],"version":1})");

    const std::string text = everything().toJson();
    EXPECT_NE(text.find(R"(,"scalpTopology":)"), std::string::npos);
    EXPECT_NE(text.find(R"(,"tubeShapes":[{"name":"flat","points":[-1,)"), std::string::npos);
    EXPECT_NE(text.find(R"("locked":true)"), std::string::npos);
    EXPECT_NE(text.find(R"("rootLocal":[)"), std::string::npos);
    EXPECT_EQ(text.find(' ', text.find("\"guides\"")), std::string::npos);  // no spaces written
}

TEST(GuideJson, ReadsBackWhatItWrites) {
    std::vector<GuideHierarchy> cases;
    cases.push_back(GuideHierarchy());
    cases.push_back(everything());
    cases.push_back(test::scalpHierarchy(*makeSphere(1, 8, 12), 40, 6, 4, 9));
    for (const GuideHierarchy& h : cases) {
        const std::string text = h.toJson();
        bool split = false;
        const GuideHierarchy read =
            GuideHierarchy::fromJson(text, GuideReadMode::SplitOnly, &split);
        EXPECT_TRUE(split);
        EXPECT_EQ(read.toJson(), text);
        readBothWays(text, true);
        EXPECT_EQ(read.nextGroupId(), h.groups().size() + 1);
        for (const Guide& guide : read.guides()) {
            EXPECT_TRUE(guide.needsUpRefresh);
            EXPECT_LT(guide.id, read.nextGuideId());
        }
    }
    // A child that shares its parent's point count writes none.
    const GuideHierarchy h = everything();
    for (const Guide& guide : h.guides())
        if (guide.parent != 0 && !guide.locked && guide.offsets.size() == 5) {
            EXPECT_EQ(guide.pointCount, 0);
        }
}

TEST(GuideJson, CraftedTextsReadAlikeBothWays) {
    const std::string a =
        R"({"id":5,"group":1,"root":[-1,0,0],"frameUp":[0,0,1],"attributes":{"x]},[{":1}})";
    const std::string b = R"({"id":6,"group":1,"root":[3,0.5,0.25],"frameUp":[1,0,0]})";
    const std::string groups = R"("groups":[{"id":1,"name":"a]}[{,\"guides\":[","parent":0}])";
    const struct {
        std::string text;
        bool split;
        std::vector<std::uint64_t> ids;
    } cases[] = {
        {R"({"guides":[]})", true, {}},
        {"{\n  \"guides\" : [ " + a + " ,\n " + b + " ] ,\n " + groups + " }", true, {5, 6}},
        // "guides" as a value, and as a key deeper down, are not the guide array.
        {R"({"note":"guides",)" + groups + R"(,"guides":[)" + a + R"(],"x":{"guides":[1]}})",
         true,
         {5}},
        // Escapes inside an element: the element reader leaves it to the whole parse.
        {R"({)" + groups +
             R"(,"guides":[{"id":7,"group":1,"root":[-1,0,0],"frameUp":[0,0,1],)"
             R"("attributes":{"a\"]":2}}]})",
         false,
         {7}},
        // A second "guides" key: the whole parse, where the last one counts.
        {R"({)" + groups + R"(,"guides":[)" + a + R"(],"guides":[)" + b + "]}", false, {6}},
        {R"({)" + groups + R"(,"guides":[)" + a + R"(],"guid\u0065s":[)" + b + "]}", false, {6}},
        {R"({)" + groups + R"(,"guid\u0065s":[)" + b + R"(],"guides":[)" + a + "]}", true, {5}},
    };
    for (const auto& c : cases) {
        const GuideHierarchy h = readBothWays(c.text, c.split);
        std::vector<std::uint64_t> ids;
        for (const Guide& guide : h.guides())
            ids.push_back(guide.id);
        EXPECT_EQ(ids, c.ids) << c.text;
    }
    EXPECT_EQ(GuideHierarchy::fromJson(" \t\r\n").guides().size(), 0u);
}

TEST(GuideJson, LargeArraysSplitInPiecesAsInOne) {
    // Over 4 MiB of guides: the array is scanned in pieces that start at element boundaries.
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    for (int i = 0; i < 12000; ++i) {
        const std::uint64_t id = h.addGuide(main, curve({0.001f * i, 0, 0}, kUp, 1, 8));
        h.setPointAttribute(id, "curl", std::vector<float>(8, 0.1f * float(i % 7)));
    }
    const std::string text = h.toJson();
    ASSERT_GT(text.size(), std::size_t(5) << 20);
    bool split = false;
    EXPECT_EQ(GuideHierarchy::fromJson(text, GuideReadMode::SplitOnly, &split).toJson(), text);
    EXPECT_TRUE(split);

    // Boundaries written with a space, and what looks like one nested inside elements: the
    // pieces' assumed starts are wrong and the text is read as one.
    std::string spaced;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t boundary = text.find("},{\"id\":", at);
        if (boundary == std::string::npos) {
            spaced += text.substr(at);
            break;
        }
        spaced += text.substr(at, boundary - at) + R"(,"x":[{"a":1},{"id":2}]}, {"id":)";
        at = boundary + 8;
    }
    const GuideHierarchy read = readBothWays(spaced, false);
    EXPECT_EQ(read.guides().size(), 12000u);
}

TEST(GuideJson, ErrorsAreWorded) {
    const std::string group = R"("groups":[{"id":1,"name":"g"}])";
    auto guide = [&](const std::string& extra) {
        return "{" + group + R"(,"guides":[{"id":1,"group":1,"root":[-1,0,0],"frameUp":[0,0,1])" +
               extra + "}]}";
    };
    auto one = [](int id) {
        return R"({"id":)" + std::to_string(id) +
               R"(,"group":1,"root":[-1,0,0],"frameUp":[0,0,1]})";
    };
    const struct {
        std::string text;
        std::string message;
    } cases[] = {
        // Both paths name the format in the shared version words.
        {R"({"guides":[],"version":1.5})", "guide data: version 1.5 is not a whole number from 1"},
        {"[1]", "invalid guide data: guide data must be a JSON object"},
        {guide(R"(,"points":[1,2,3,4])"),
         "invalid guide data: point array length is not a multiple of 3"},
        {guide(R"(,"tube":{"width":-1})"), "invalid guide data: tube width: 0 or more"},
        {guide(R"(,"tube":{"shape":2})"), "invalid guide data: tube: shape is a name"},
        {guide(R"(,"group":9)"),
         "invalid guide data: guide 1 is in group 9, which the data does "
         "not hold"},
        {guide(R"(,"parent":1)"), "invalid guide data: guide 1 follows itself"},
        {guide(R"(,"rootLocal":[0,0,0])"),
         "invalid guide data: guide 1 has \"rootLocal\" without \"frameUpLocal\""},
        {"{" + group + R"(,"guides":[{"id":1,"group":1,"root":[-1,0,0]}]})",
         "invalid guide data: guide 1 has no \"frameUp\""},
        {"{" + group + R"(,"guides":[)" + one(2) + "," + one(1) + "," + one(2) + "," + one(1) +
             "]}",
         "invalid guide data: guide 2 appears twice"},
        {"{" + group + R"(,"guides":[{"id":0}]})",
         "invalid guide data: guide ids are whole numbers from 1; found 0"},
        {R"({"groups":[{"id":1,"name":"g"},{"id":2,"name":"g"}]})",
         "invalid guide data: a guide group named 'g' exists"},
        {R"({"tubeShapes":[{"name":"x","points":[0.5,0,1,1,1,0]}]})",
         "invalid guide data: tube shape 'x': the outline must enclose its center (the guide runs "
         "through it); keep the middle of the square inside the shape"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(readError(c.text, GuideReadMode::Automatic), c.message) << c.text;
        EXPECT_EQ(readError(c.text, GuideReadMode::WholeParse), c.message) << c.text;
    }
    // The library's own words follow the prefix.
    const std::string broken = readError(R"({"guides":[)", GuideReadMode::Automatic);
    EXPECT_EQ(broken.rfind("invalid guide data: [json.exception.parse_error.101]", 0), 0u)
        << broken;
    EXPECT_EQ(broken, readError(R"({"guides":[)", GuideReadMode::WholeParse));
}

TEST(GuideJson, ReadingRules) {
    const std::string text =
        R"({"groups":[{"id":3,"name":"a","segments":300},{"id":5,"name":"b","segments":-1},)"
        R"({"id":7,"name":"c","parent":3}],"guides":[)"
        R"({"id":40,"group":3,"root":[-1,0,0],"frameUp":[0,0,1],"tube":{"shape":"oval"}},)"
        R"({"id":41,"group":3,"root":[-1,0,0],"frameUp":[0,0,1],"tube":{"shape":"oval"}},)"
        R"({"id":42,"group":3,"root":[-1,0,0],"frameUp":[0,0,1],"tube":{"shape":"crescent"}},)"
        R"({"id":43,"group":5,"root":[-1,0,0],"frameUp":[0,0,1],"tube":{"shape":"leaf","width":2}},)"
        R"({"id":44,"group":7,"parent":40,"root":[-1,0,0],"frameUp":[0,0,1],"pointCount":999,)"
        R"("offsets":[],"rootLocal":[1,2,3],"frameUpLocal":[0,1,0]}]})";
    const GuideHierarchy h = readBothWays(text, true);
    EXPECT_EQ(h.findGroup(3)->segments, 256);
    EXPECT_EQ(h.findGroup(5)->segments, 0);
    EXPECT_EQ(h.nextGroupId(), 8u);
    EXPECT_EQ(h.nextGuideId(), 45u);
    EXPECT_EQ(h.findGuide(43)->tube.shape, TubeShape::Round);
    EXPECT_EQ(h.findGuide(43)->tube.width, (std::vector<float>{2}));
    EXPECT_EQ(h.findGuide(44)->pointCount, 257);
    EXPECT_TRUE(h.findGuide(44)->rootLocal.empty());  // an unlocked child carries none
    EXPECT_EQ(h.loadWarnings(),
              (std::vector<std::string>{
                  "tube shape 'leaf' is not in the groom's shape library: 1 guide taking it "
                  "loaded round",
                  "tube shape 'oval' is not in the groom's shape library: 2 guides taking it "
                  "loaded round"}));
    // A group without a default writes none, so it stays without one.
    EXPECT_EQ(h.toJson().find(R"("name":"b","parent":0,"segments")"), std::string::npos);
}

TEST(GuideJson, ThreadCountChangesNothing) {
    const GuideHierarchy h = test::scalpHierarchy(*makeSphere(1, 8, 12), 120, 5, 3, 4);
    // The text written, and the hash of the hierarchy read back from it.
    const auto [one, two] = test::onOneAndTwoThreads([&] {
        const std::string text = h.toJson();
        return std::pair{text, GuideHierarchy::fromJson(text).contentHash()};
    });
    EXPECT_EQ(one, two);
}

}  // namespace
}  // namespace velmorin
