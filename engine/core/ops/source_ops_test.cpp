#include <gtest/gtest.h>

#include <unordered_map>

#include "base/test/expect_message.h"
#include "editing/guide_hierarchy.h"
#include "graph/errors.h"
#include "graph/graph.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "mesh/subdivision.h"
#include "ops/guide_selection.h"

namespace velmorin {
namespace {

using test::expectMessage;

// Two families: "head" (level 0) with children "fine" (level 1) and, below those, "wisps"
// (level 2); "brows" (level 0) without children.
struct Family {
    GuideHierarchy hierarchy;
    std::uint32_t head = 0, fine = 0, wisps = 0, brows = 0;
    std::uint64_t primary = 0, child = 0, wisp = 0, brow = 0;

    Family() {
        head = hierarchy.addGroup("head", 0);
        fine = hierarchy.addGroup("fine", head);
        wisps = hierarchy.addGroup("wisps", fine);
        brows = hierarchy.addGroup("brows", 0);
        primary = hierarchy.addGuide(head, {{0, 0, 0}, {0, 1, 0}});
        child = hierarchy.addChildGuide(fine, primary, {{0.1f, 0, 0}, {0.1f, 1, 0}});
        wisp = hierarchy.addChildGuide(wisps, child, {{0.2f, 0, 0}, {0.2f, 1, 0}});
        brow = hierarchy.addGuide(brows, {{5, 0, 0}, {5, 1, 0}});
    }
};

std::vector<std::uint64_t> idsOf(const GuideSet& set) {
    std::vector<std::uint64_t> ids;
    for (const Guide& guide : set.guides)
        ids.push_back(guide.id);
    return ids;
}

TEST(GuideSelection, LevelsGroupsAndExclusions) {
    const Family f;
    struct Case {
        int level;
        std::string groups, excluded;
        std::vector<std::uint64_t> ids;
    };
    const std::vector<Case> cases = {
        {-1, "", "", {f.wisp, f.brow}},             // each family's deepest groups
        {0, "", "", {f.primary, f.brow}},           //
        {1, "", "", {f.child}},                     //
        {4, "", "", {}},                            // no group that deep
        {0, "fine, brows", "", {f.child, f.brow}},  // groups replace the level
        {0, "head wisps", "", {f.primary, f.wisp}},
        {-1, "", "fine", {f.brow}},  // wisps lie below an excluded group
        {0, "", "brows", {f.primary}},
        {0, "head,fine", "head", {}},
    };
    for (const Case& c : cases) {
        const GuideSet set = selectGuides(&f.hierarchy, nullptr, {c.level, c.groups, c.excluded});
        EXPECT_EQ(idsOf(set), c.ids) << c.level << " '" << c.groups << "' - '" << c.excluded << "'";
    }
    EXPECT_EQ(splitGroupNames(" a,b  c,,"), (std::vector<std::string>{"a", "b", "c"}));
}

TEST(GuideSelection, UnknownGroupsAndTheFlatList) {
    const Family f;
    expectMessage<GraphError>(
        [&] {
            selectGuides(&f.hierarchy, nullptr, {-1, "head beard", ""});
        },
        "Guides: no guide group named 'beard'");
    expectMessage<GraphError>(
        [&] {
            selectGuides(&f.hierarchy, nullptr, {-1, "", "fine,cape"});
        },
        "Guides: no guide group named 'cape' to exclude");
    // Without a hierarchy the flat guides pass as they are.
    GuideSet flat;
    flat.guides.resize(3);
    flat.guides[1].id = 9;
    EXPECT_EQ(idsOf(selectGuides(nullptr, &flat, {})), (std::vector<std::uint64_t>{0, 9, 0}));
    EXPECT_TRUE(selectGuides(nullptr, nullptr, {}).guides.empty());
    expectMessage<GraphError>(
        [&] {
            selectGuides(nullptr, &flat, {-1, "head", ""});
        },
        "Guides: no guide group named 'head'");
    // The excluded test walks up the groups.
    const auto excluded = excludedTest(f.hierarchy, "head");
    EXPECT_TRUE(excluded(f.wisp));
    EXPECT_TRUE(excluded(f.primary));
    EXPECT_FALSE(excluded(f.brow));
    EXPECT_FALSE(excluded(12345));
}

TEST(SourceOperators, RegisteredWithTheirMenuData) {
    const OperatorRegistry& registry = OperatorRegistry::instance();
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> expected = {
        {"Scalp", "source", "The mesh the hair grows on.", "mesh skin body surface"},
        {"ColliderMesh", "source",
         "Another mesh (a body, a collar) for Collide to keep strands out of.",
         "body collar obstacle mesh"},
        {"Guides", "source",
         "The groom's guides, by group: what Interpolate, Clump and friends follow.",
         "guide curves groups"},
        {"Scatter", "grow", "Roots over the scalp: how many hairs, and where.",
         "density count roots number hairs"},
    };
    for (const auto& [type, category, description, keywords] : expected) {
        const OperatorInfo* info = registry.info(type);
        ASSERT_NE(info, nullptr) << type;
        EXPECT_EQ(info->category, category);
        EXPECT_EQ(info->description, description);
        EXPECT_EQ(info->keywords, keywords);
    }
}

TEST(SourceOperators, ScalpByName) {
    const auto op = OperatorRegistry::instance().create("Scalp");
    auto whole = std::make_shared<ScalpMesh>(*makeUvPlane(2.0f, 2));
    whole->setScalps({{"scalp", 0, 4, 0, 3}, {"beard", 4, 4, 3, 6}});
    SceneInputs scene;
    scene["scalp"] = SceneInput{Value(std::shared_ptr<const ScalpMesh>(whole)), 1};
    NoteList notes;
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    ctx.notes = &notes;
    EXPECT_EQ(op->evaluate(ctx, {}).get<ScalpMesh>(), whole);

    op->paramSet.set("input", std::string("beard"));
    const auto beard = op->evaluate(ctx, {}).get<ScalpMesh>();
    ASSERT_NE(beard, nullptr);
    EXPECT_EQ(beard->triangleCount(), 4u);
    EXPECT_EQ(beard->pointCount(), 6u);
    EXPECT_TRUE(beard->hasUvs());
    EXPECT_EQ(beard->points()[0], whole->points()[3]);
    EXPECT_TRUE(notes.take().empty());

    op->paramSet.set("input", std::string("cape"));
    const auto none = op->evaluate(ctx, {}).get<ScalpMesh>();
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->triangleCount(), 0u);
    EXPECT_EQ(
        notes.take(),
        (std::vector<std::string>{"No scalp named 'cape' on this groom: nothing to grow on"}));
}

// Two planes of 9 and 4 quads merged into one scalp of the ranges "left" and "right".
ScalpMesh twoPlanes() {
    const auto left = makeUvPlane(2.0f, 3), right = makeUvPlane(1.0f, 2);
    std::vector<Vec3f> points = left->points();
    std::vector<Triangle> triangles = left->triangles();
    const auto shift = static_cast<std::uint32_t>(points.size());
    for (const Vec3f& p : right->points())
        points.push_back(p + Vec3f{5.0f, 0.0f, 0.0f});
    for (const Triangle& t : right->triangles())
        triangles.push_back({t[0] + shift, t[1] + shift, t[2] + shift});
    ScalpMesh mesh(points, triangles);
    mesh.setPolygons(std::vector<std::int32_t>(13, 2));
    mesh.setScalps({{"left", 0, 18, 0, 16}, {"right", 18, 8, 16, 9}});
    return mesh;
}

TEST(SourceOperators, ScalpStatusTellsTheSubdivisionInForce) {
    const auto head = makeHeadScalp(1);  // 1,024 quads
    const ScalpMesh planes = twoPlanes();
    struct Case {
        ScalpMesh scalp;
        std::string input, status;
    };
    const std::vector<Case> cases = {
        {*head, "scalp", "Subdivision off (2048 triangles from 1024 faces)"},
        {subdivideScalp(*head, 2), "scalp",
         "Catmull-Clark x2: 32768 triangles from 1024 faces (match render)"},
        {subdivideScalp(*head, 1, "Arnold catclark, 1 iteration"), "scalp",
         "Catmull-Clark x1: 8192 triangles from 1024 faces (match render: Arnold catclark, 1 "
         "iteration)"},
        {planes, "right", "Subdivision off (8 triangles from 4 faces)"},
        {subdivideScalp(planes, 3, "smooth mesh preview, level 3"), "left",
         "Catmull-Clark x3: 1152 triangles from 9 faces (match render: smooth mesh preview, level "
         "3)"},
        {subdivideScalp(planes, 2), "right",
         "Catmull-Clark x2: 128 triangles from 4 faces (match render)"},
        {planes, "cape", ""},  // the run's own warning says there is nothing to grow on
    };
    for (const Case& c : cases) {
        // Through a graph: the status is the node's note after each run.
        Graph graph;
        const std::uint32_t id = graph.addNode("Scalp", "scalp");
        graph.operatorOf(id).paramSet.set("input", c.input);
        SceneInputs scene;
        scene["scalp"] = SceneInput{Value(std::make_shared<const ScalpMesh>(c.scalp)), 7};
        EvalContext ctx;
        ctx.sceneInputs = &scene;
        graph.evaluate(id, ctx);
        const std::string note = graph.notes.count(id) ? graph.notes.at(id) : std::string();
        if (c.input == "cape") {
            EXPECT_EQ(note, "No scalp named 'cape' on this groom: nothing to grow on");
        } else {
            EXPECT_EQ(note, c.status) << c.input;
        }
        EXPECT_EQ(graph.operatorOf(id).evaluationNote(ctx), c.status) << c.input;
    }
}

TEST(SourceOperators, GuidesKeyFollowsTheNamedGuideInputsOnly) {
    GuideSet flat;
    flat.guides.resize(2);
    const auto guides = std::make_shared<const GuideSet>(flat);
    const auto hierarchy = std::make_shared<const GuideHierarchy>();
    const auto scalp = makeUvPlane(1.0f, 1);
    Graph graph;
    const std::uint32_t id = graph.addNode("Guides", "guides");
    const auto keyWith = [&](const std::string& input, const std::string& hierarchyName,
                             std::uint64_t guidesKey, std::uint64_t hierarchyKey,
                             std::uint64_t scalpKey) {
        graph.operatorOf(id).paramSet.set("input", input);
        graph.operatorOf(id).paramSet.set("hierarchy", hierarchyName);
        SceneInputs scene;
        scene["guides"] = SceneInput{Value(guides), guidesKey};
        scene["hierarchy"] = SceneInput{Value(hierarchy), hierarchyKey};
        scene["scalp"] = SceneInput{Value(scalp), scalpKey};
        EvalContext ctx;
        ctx.sceneInputs = &scene;
        std::unordered_map<std::uint32_t, std::uint64_t> keys, localKeys;
        return graph.nodeKey(id, ctx, keys, localKeys);
    };
    const std::uint64_t base = keyWith("guides", "hierarchy", 1, 2, 3);
    // Either named guide input changing changes the key; nothing else does.
    EXPECT_NE(keyWith("guides", "hierarchy", 11, 2, 3), base);
    EXPECT_NE(keyWith("guides", "hierarchy", 1, 12, 3), base);
    EXPECT_EQ(keyWith("guides", "hierarchy", 1, 2, 13), base);
    // Names that point at other kinds of value read as no guides: their keys do not count.
    const std::uint64_t atScalp = keyWith("scalp", "guides", 1, 2, 3);
    EXPECT_EQ(keyWith("scalp", "guides", 21, 22, 23), atScalp);
    // The same input under both names counts for the role it fills.
    const std::uint64_t both = keyWith("guides", "guides", 1, 2, 3);
    EXPECT_NE(keyWith("guides", "guides", 31, 2, 3), both);
    EXPECT_NE(both, base);
}

}  // namespace
}  // namespace velmorin
