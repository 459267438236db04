#include "editing/flow.h"

#include <cmath>
#include <functional>

#include <gtest/gtest.h>

#include "base/document.h"
#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "editing/test/guide_checks.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

using test::expectMessage;
using test::expectNear;

// A flat scalp facing +Y, 10 wide, around the origin.
const ScalpMesh& plane() {
    static const auto mesh = makeUvPlane(10.0f, 10);
    return *mesh;
}

FlowPin pinAt(const Vec3f& position, const Vec3f& direction) {
    return pinFromSurface(plane(), plane().closestPoint(position).root, direction);
}

FlowSink sinkAt(const Vec3f& position, std::string_view kind, float radius) {
    const SurfacePoint at = plane().closestPoint(position).root;
    return {at.face, at.u, at.v, flowSinkAngle(kind), radius};
}

Vec3f flowAt(const FlowSet& set, const Vec3f& p) {
    return FlowSources(set, plane()).directionAt(p, {0, 1, 0});
}

TEST(FlowLaw, PinsGiveTheHandComputedDirections) {
    EXPECT_EQ(flowAt({}, {1, 0, 1}), (Vec3f{}));
    const FlowSet one{{pinAt({0, 0, 0}, {1, 0, 0})}, {}};
    expectNear(flowAt(one, {3, 0, 2}), {1, 0, 0});

    // At (0.5, 0, 0): r2 = 0.25; weights 0.25 / (0.25 + 0.0625) = 0.8 and 0.25 / (2.25 + 0.0625)
    // = 0.108108, squared 0.64 and 0.0116873.
    const FlowSet two{{pinAt({0, 0, 0}, {1, 0, 0}), pinAt({2, 0, 0}, {0, 0, 1})}, {}};
    expectNear(flowAt(two, {0.5f, 0, 0}),
               Vec3f{0.64f, 0, 0.0116873f} / std::hypot(0.64f, 0.0116873f));

    // Only the six nearest count: a seventh pin farther off changes nothing.
    FlowSet seven;
    for (int k = 0; k < 6; ++k) {
        const float a = static_cast<float>(k) * 1.0471976f;
        seven.pins.push_back(pinAt({std::cos(a), 0, std::sin(a)}, {1, 0, 0}));
    }
    seven.pins.push_back(pinAt({1.5f, 0, 0}, {0, 0, 1}));
    expectNear(flowAt(seven, {0, 0, 0}), {1, 0, 0});
}

TEST(FlowLaw, EachSinkKindTurnsTheOutwardDirectionByItsAngle) {
    const float c = std::cos(70.0f * 3.14159265f / 180.0f);
    const float s = std::sin(70.0f * 3.14159265f / 180.0f);
    const struct {
        const char* kind;
        Vec3f expected;
    } cases[] = {{"whorl", {c, 0, -s}},
                 {"whorlcw", {c, 0, s}},
                 {"converge", {-1, 0, 0}},
                 {"part", {1, 0, 0}}};
    for (const auto& k : cases) {
        // Out from the centre along +x, inside the full-weight core: the sink alone decides.
        const FlowSet set{{pinAt({3, 0, 3}, {0, 0, 1})}, {sinkAt({0, 0, 0}, k.kind, 2.0f)}};
        SCOPED_TRACE(k.kind);
        expectNear(flowAt(set, {0.5f, 0, 0}), k.expected);
    }
    // In the fade, at 0.675 of the radius, the weight is 0.5: half the pins' +z stays. The blend
    // (c / 2, 0, (1 - s) / 2) is 10 degrees off +x.
    const FlowSet fading{{pinAt({3, 0, 3}, {0, 0, 1})}, {sinkAt({0, 0, 0}, "whorl", 2.0f)}};
    expectNear(flowAt(fading, {1.35f, 0, 0}), {0.9848078f, 0, 0.1736482f});
    // Out of reach, and at the centre itself, the pins decide.
    expectNear(flowAt(fading, {2.5f, 0, 0}), {0, 0, 1});
    expectNear(flowAt(fading, {0, 0, 0}), {0, 0, 1});

    expectMessage([] { flowSinkAngle("spiral"); },
                  "flow sink: unknown kind 'spiral' (whorl, whorlcw, converge, part)");
}

TEST(FlowLaw, WhorlAndWhorlcwMirrorEachOther) {
    const FlowSet pins{{pinAt({-4, 0, -4}, {1, 0, 0}), pinAt({4, 0, 4}, {0, 0, -1})}, {}};
    FlowSet whorl = pins, whorlcw = pins;
    whorl.sinks.push_back(sinkAt({0.5f, 0, 0.2f}, "whorl", 3.0f));
    whorlcw.sinks.push_back(sinkAt({0.5f, 0, 0.2f}, "whorlcw", 3.0f));
    EXPECT_EQ(whorl.sinks[0].angle, -whorlcw.sinks[0].angle);
    // Without pins in the way (total weight 1), each is the other reflected across the line out of
    // the centre.
    for (int k = 0; k < 20; ++k) {
        const Vec3f p{0.5f + 2.0f * std::cos(k * 0.7f) * (0.1f + 0.04f * k), 0,
                      0.2f + 2.0f * std::sin(k * 0.7f) * (0.1f + 0.04f * k)};
        const Vec3f out = normalized(p - Vec3f{0.5f, 0, 0.2f});
        const Vec3f a = flowAt({{}, whorl.sinks}, p);
        const Vec3f b = flowAt({{}, whorlcw.sinks}, p);
        expectNear(b, out * (2.0f * dot(a, out)) - a);
    }
}

TEST(FlowPin, IsFlattenedIntoTheSurfaceOrRefused) {
    const SurfacePoint at = plane().closestPoint({1.2f, 0, -0.7f}).root;
    const FlowPin pin = pinFromSurface(plane(), at, {3, 4, 0});
    expectNear(plane().frameAt(at).directionToWorld(pin.direction), {1, 0, 0});
    EXPECT_EQ(pin.line, -1);
    expectMessage(
        [&] {
            pinFromSurface(plane(), at, {0, 2, 0});
        },
        "flow pin: the direction is along the surface normal");
    for (const SurfacePoint off :
         {SurfacePoint{-1, 0, 0}, SurfacePoint{200, 0, 0}, SurfacePoint{0, 2.0f, 0}}) {
        expectMessage(
            [&] {
                pinFromSurface(plane(), off, {1, 0, 0});
            },
            "flow pin: not a point on the scalp");
    }
}

TEST(FlowField, HoldsTheLawAtVerticesAndFallsBackWhereTheyDisagree) {
    // Left of x = 0 the hair runs +x, right of it -x: the vertices on either side disagree.
    const FlowSet set{{pinAt({-3, 0, 0}, {1, 0, 0}), pinAt({3, 0, 0}, {-1, 0, 0})}, {}};
    const auto field = FlowField::build(set, plane());
    const auto normals = plane().vertexNormals();
    for (std::size_t v = 0; v < plane().pointCount(); v += 7) {
        EXPECT_EQ(field->directions()[v],
                  field->sources().directionAt(plane().points()[v], normals[v]));
    }
    // A root between vertices that agree reads their blend...
    const SurfacePoint agree = plane().closestPoint({-3.4f, 0, 1.3f}).root;
    expectNear(field->at(plane(), agree), {1, 0, 0});
    // ...one on a triangle across the divide runs the law where it is.
    const SurfacePoint across = plane().closestPoint({0.3f, 0, 1.3f}).root;
    const Vec3f atRoot = field->sources().directionAt(plane().pointAt(across), {0, 1, 0});
    EXPECT_EQ(field->at(plane(), across), atRoot);
    EXPECT_LT(atRoot.x, 0.0f);

    EXPECT_EQ(FlowField::build({}, plane())->directions()[5], (Vec3f{}));
    EXPECT_EQ(field->key(), FlowField::keyOf(set, plane()));
    EXPECT_NE(field->key(), FlowField::keyOf({}, plane()));
}

TEST(FlowField, EvaluatesRootsAlikeOnOneThreadAndTwo) {
    FlowSet set;
    for (int k = 0; k < 40; ++k) {
        const std::uint64_t h = hashCombine(11, k);
        set.pins.push_back(pinAt({unitFloat(h) * 10 - 5, 0, unitFloat(h + 1) * 10 - 5},
                                 {unitFloat(h + 2) - 0.5f, 0, unitFloat(h + 3) - 0.5f}));
    }
    set.sinks.push_back(sinkAt({1, 0, 1}, "converge", 2.5f));
    const auto field = FlowField::build(set, plane());
    std::vector<SurfacePoint> roots;
    for (int k = 0; k < 5000; ++k) {
        const std::uint64_t h = hashCombine(12, k);
        roots.push_back(
            plane().closestPoint({unitFloat(h) * 10 - 5, 0, unitFloat(h + 1) * 10 - 5}).root);
    }
    std::vector<Vec3f> one(roots.size()), two(roots.size());
    runWithThreads(1, [&] { field->evaluate(plane(), roots, one); });
    runWithThreads(2, [&] { field->evaluate(plane(), roots, two); });
    EXPECT_EQ(one, two);
    EXPECT_EQ(one[17], field->at(plane(), roots[17]));
    expectMessage([&] { field->evaluate(plane(), roots, std::span(two).first(3)); },
                  "FlowField: one result per root");
    expectMessage([&] { field->evaluate(*makeUvPlane(1.0f, 2), roots, two); },
                  "FlowField: built on another scalp");
}

TEST(FlowData, ReadsAndWritesPinsAndSinks) {
    FlowSet set;
    set.pins.push_back({3, 0.25f, 0.5f, {0.1f, 0, -1}, -1, -1});
    set.pins.push_back({4, 0.0f, 1.0f, {1, 0, 0}, 2, 7});
    EXPECT_EQ(set.toJson(),
              R"({"pins":[{"face":[3,0.25,0.5],"dir":[0.1,0.0,-1.0]},)"
              R"({"face":[4,0.0,1.0],"dir":[1.0,0.0,0.0],"line":2,"seq":7}],"version":1})");
    set.sinks.push_back({9, 0.1f, 0.2f, -70.0f, 1.5f});
    EXPECT_EQ(FlowSet::fromJson(set.toJson()), set);
    EXPECT_EQ(FlowSet::fromJson(""), FlowSet{});
    EXPECT_NE(set.contentHash(), FlowSet{}.contentHash());

    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[]", "flow data: expected an object with pins and sinks"},
        {R"({"pins":{}})", "flow data: \"pins\" is not a list of pins"},
        {R"({"pins":[{"face":[1,0],"dir":[1,0,0]}]})",
         "flow data: pin 1 needs \"face\": [face, u, v]"},
        {R"({"pins":[{"face":[1.5,0,0],"dir":[1,0,0]}]})",
         "flow data: pin 1 needs \"face\": [face, u, v]"},
        {R"({"pins":[{"face":[1,0,0]}]})", "flow data: pin 1 needs \"dir\": [x, y, z]"},
        {R"({"pins":[{"face":[1,0,0],"dir":[1,0,0],"line":"a"}]})",
         "flow data: pin 1 has a line that is not a whole number"},
        {R"({"sinks":[{"face":[1,0,0],"radius":1}]})",
         "flow data: sink 1 needs an \"angle\" in degrees"},
        {R"({"sinks":[{"face":[1,0,0],"angle":1}]})", "flow data: sink 1 needs a \"radius\""},
        // The format's name in the shared version words.
        {R"({"version":2})",
         "flow data is of version 2, newer than this Velmorin reads: update Velmorin"},
    };
    for (const auto& c : cases)
        expectMessage<SchemaError>([&] { FlowSet::fromJson(c.text); }, c.message);
}

TEST(FlowData, MovesToANewScalpThroughTheMap) {
    const FlowSet set{{pinAt({1.2f, 0, 0.3f}, {1, 0, 1})}, {sinkAt({-2, 0, 1}, "whorl", 1.5f)}};
    const FlowSet same = set.transferred(plane(), plane());
    ASSERT_EQ(same.pins.size(), 1u);
    expectNear(plane().pointAt(same.pins[0].location()), {1.2f, 0, 0.3f});
    expectNear(plane().frameAt(same.pins[0].location()).directionToWorld(same.pins[0].direction),
               normalized(Vec3f{1, 0, 1}));

    // Mirrored in x and grown twice as large about the origin: directions and radii follow.
    const auto mirror = [](const Vec3f& p) { return Vec3f{-2 * p.x, p.y, 2 * p.z}; };
    const FlowSet moved = set.transferred(plane(), plane(), mirror);
    expectNear(plane().pointAt(moved.pins[0].location()), {-2.4f, 0, 0.6f});
    expectNear(plane().frameAt(moved.pins[0].location()).directionToWorld(moved.pins[0].direction),
               normalized(Vec3f{-1, 0, 1}));
    EXPECT_NEAR(moved.sinks[0].radius, 3.0f, 1e-4f);

    expectMessage([&] { set.transferred(plane(), ScalpMesh()); },
                  "transfer: the new scalp has no faces");
    expectMessage([&] { set.transferred(ScalpMesh(), plane()); },
                  "transfer: the old scalp has no faces");
}

TEST(PointTree, AnswersAsAScanInIndexOrder) {
    // Points on a coarse grid, so that many distances tie exactly.
    std::vector<Vec3f> points;
    for (int k = 0; k < 3000; ++k) {
        const std::uint64_t h = mix64(k);
        points.push_back({float(h % 9), float((h >> 8) % 5), float((h >> 16) % 9)});
    }
    const PointTree tree(points);
    for (int q = 0; q < 200; ++q) {
        const std::uint64_t h = mix64(1000 + q);
        const Vec3f p{float(h % 17) * 0.5f, float((h >> 8) % 9) * 0.5f,
                      float((h >> 16) % 17) * 0.5f};
        std::vector<std::pair<float, std::uint32_t>> scan;
        for (std::uint32_t i = 0; i < points.size(); ++i)
            scan.emplace_back(lengthSquared(points[i] - p), i);
        std::sort(scan.begin(), scan.end());
        std::uint32_t found[6];
        float d2[6];
        ASSERT_EQ(tree.nearest(p, 6, found, d2), 6);
        for (int k = 0; k < 6; ++k)
            EXPECT_EQ(found[k], scan[k].second);

        std::vector<std::uint32_t> within;
        tree.within(p, 1.0f, within);
        std::sort(within.begin(), within.end());
        std::vector<std::uint32_t> expected;
        for (const auto& [distance2, i] : scan) {
            if (distance2 <= 1.0f) expected.push_back(i);
        }
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(within, expected);
    }
    std::uint32_t found[6];
    float d2[6];
    EXPECT_EQ(PointTree().nearest({}, 6, found, d2), 0);
}

}  // namespace
}  // namespace velmorin
