#include "editing/parts.h"

#include <functional>

#include <gtest/gtest.h>

#include "base/document.h"
#include "base/test/expect_message.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

using test::expectMessage;

const ScalpMesh& plane() {
    static const auto mesh = makeUvPlane(10.0f, 20);
    return *mesh;
}

// Guides on a 15 x 15 grid over the plane, each leaning along the scalp by `lean` at its root and
// rising a little.
GuideSet leaningGuides(const std::function<Vec3f(const Vec3f&)>& lean) {
    GuideSet guides;
    for (int j = 0; j < 15; ++j) {
        for (int i = 0; i < 15; ++i) {
            const Vec3f root{-4.2f + 0.6f * i, 0.0f, -4.2f + 0.6f * j};
            Guide guide;
            guide.id = static_cast<std::uint64_t>(j * 15 + i);
            guide.root = plane().closestPoint(root).root;
            const Vec3f step = lean(root) * 0.3f + Vec3f{0, 0.1f, 0};
            for (int k = 0; k < 5; ++k)
                guide.points.push_back(root + step * static_cast<float>(k));
            guides.guides.push_back(guide);
        }
    }
    return guides;
}

TEST(Parts, StrokesBecomePartsOnTheScalpWithNamesOfTheirOwn) {
    PartSet parts;
    const std::vector<Vec3f> stroke = {{-1, 0.5f, 0}, {0, 0.2f, 0}, {30, 0, 0}, {1, -0.1f, 0}};
    const PartLines& first = parts.addPart("", stroke, plane());
    EXPECT_EQ(first.name, "part1");
    ASSERT_EQ(first.points.size(), 4u);
    EXPECT_NEAR(plane().pointAt(first.points[0]).x, -1.0f, 1e-5f);
    EXPECT_NEAR(plane().pointAt(first.points[2]).x, 5.0f, 1e-5f);  // the scalp's edge

    // Farther than the reach, a point finds no face and is dropped.
    EXPECT_EQ(parts.addPart("", stroke, plane(), {1.0f}).points.size(), 3u);
    EXPECT_EQ(parts.parts()[1].name, "part2");
    parts.remove("part1");
    EXPECT_EQ(parts.nextName(), "part1");
    // A name in use is redrawn in its place.
    parts.addPart("crown", stroke, plane());
    parts.addPart("part2", {stroke.data(), 2}, plane());
    EXPECT_EQ(parts.parts()[0].points.size(), 2u);
    EXPECT_EQ(parts.parts()[1].name, "crown");

    expectMessage(
        [&] {
            parts.addPart("x", {stroke.data(), 1}, plane());
        },
        "a part needs a longer stroke");
    const std::vector<Vec3f> away = {{0, 50, 0}, {1, 50, 0}, {0, 0, 0}};
    expectMessage([&] { parts.addPart("x", away, plane(), {2.0f}); },
                  "a part needs at least two points on the scalp");
    EXPECT_EQ(parts.find("x"), nullptr);
}

TEST(Parts, AutoPartsFallWhereNeighbouringGuidesLeanApart) {
    PartSet parts;
    parts.addPart("drawn", std::vector<Vec3f>{{3, 0, 3}, {4, 0, 4}}, plane());
    // Left of x = 0.3 the hair leans to -x, right of it to +x, all of it a little backward.
    const GuideSet split = leaningGuides([](const Vec3f& p) {
        return normalized(Vec3f{p.x < 0.3f ? -1.0f : 1.0f, 0.0f, 0.3f});
    });
    EXPECT_EQ(parts.autoParts(plane(), split), 1u);
    ASSERT_EQ(parts.parts().size(), 2u);
    const PartLines& found = parts.parts()[1];
    EXPECT_TRUE(found.isAuto);
    EXPECT_EQ(found.name, "part1");
    float low = 1e9f, high = -1e9f;
    for (const SurfacePoint& point : found.points) {
        const Vec3f p = plane().pointAt(point);
        EXPECT_NEAR(p.x, 0.3f, 0.31f);  // between the two columns of roots it splits
        low = std::min(low, p.z);
        high = std::max(high, p.z);
    }
    EXPECT_GT(high - low, 7.0f);  // along the whole line

    // A second run replaces what the first found and leaves drawn parts be.
    EXPECT_EQ(parts.autoParts(plane(), split), 1u);
    EXPECT_EQ(parts.parts().size(), 2u);
    // Hair that lies one way, or that meets along a line instead of parting, has no part.
    EXPECT_EQ(parts.autoParts(plane(), leaningGuides([](const Vec3f&) {
                                  return Vec3f{0, 0, 1};
                              })),
              0u);
    EXPECT_EQ(parts.autoParts(plane(), leaningGuides([](const Vec3f& p) {
                                  return Vec3f{p.x < 0.3f ? 1.0f : -1.0f, 0.0f, 0.0f};
                              })),
              0u);
    EXPECT_EQ(parts.parts().size(), 1u);
}

TEST(PartData, ReadsAndWritesPartsAndRefusesWhatItCannotRead) {
    PartSet parts;
    parts.add({"crown", {{3, 0.25f, 0.5f}, {4, 0, 1}}, false});
    parts.add({"", {{1, 0.5f, 0.25f}}, true});
    const std::string text = parts.toJson();
    EXPECT_EQ(text, R"({"parts":[{"name":"crown","points":[[3,0.25,0.5],[4,0.0,1.0]]},)"
                    R"({"name":"part1","points":[[1,0.5,0.25]],"auto":true}],"version":1})");
    EXPECT_EQ(PartSet::fromJson(text), parts);
    EXPECT_TRUE(PartSet::fromJson("").empty());

    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        // Part data has its own words for a newer version.
        {R"({"parts":[],"version":2})", "part data version is newer than this Velmorin supports"},
        {"[]", "part data: expected an object with parts"},
        {R"({"parts":{}})", "part data: \"parts\" is not a list of parts"},
        {R"({"parts":[{"points":[]}]})", "part data: part 1 needs a name"},
        {R"({"parts":[{"name":"a"},{"name":"a"}]})", "part data: two parts are named 'a'"},
        {R"({"parts":[{"name":"a","points":[[1,2]]}]})",
         "part data: part 'a' has points that are not [face, u, v]"},
        {R"({"parts":[{"name":"a","auto":1}]})",
         "part data: part 'a' has an \"auto\" that is not true or false"},
    };
    for (const auto& c : cases)
        expectMessage<SchemaError>([&] { PartSet::fromJson(c.text); }, c.message);
    try {
        PartSet::fromJson("{\"parts\":");
        ADD_FAILURE();
    } catch (const SchemaError& e) {
        EXPECT_EQ(std::string(e.what()).rfind("invalid part data: ", 0), 0u);
    }
}

TEST(PartData, MovesToANewScalp) {
    PartSet parts;
    parts.addPart("a", std::vector<Vec3f>{{-1, 0, 1}, {2, 0, 1}}, plane());
    const auto smaller = makeUvPlane(2.0f, 4);
    const PartSet moved =
        parts.transferred(plane(), *smaller, [](const Vec3f& p) { return p * 0.2f; });
    ASSERT_EQ(moved.parts()[0].points.size(), 2u);
    const Vec3f end = smaller->pointAt(moved.parts()[0].points[1]);
    EXPECT_NEAR(end.x, 0.4f, 1e-5f);
    EXPECT_NEAR(end.z, 0.2f, 1e-5f);
    expectMessage([&] { parts.transferred(plane(), ScalpMesh()); },
                  "transfer: the new scalp has no faces");
}

}  // namespace
}  // namespace velmorin
