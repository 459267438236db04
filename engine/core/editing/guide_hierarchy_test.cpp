#include "editing/guide_hierarchy.h"

#include <gtest/gtest.h>

#include <functional>

#include "base/hash.h"
#include "editing/guide_curves.h"
#include "editing/test/guide_checks.h"
#include "editing/test/guide_fixtures.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

using test::curve;
using test::expectNear;
using test::messageOf;

constexpr Vec3f kUp{0, 1, 0};

std::vector<Vec3f> moved(std::vector<Vec3f> points, const Vec3f& by) {
    for (Vec3f& p : points)
        p += by;
    return points;
}

// Children only follow when posed; a scalp without faces poses nothing else.
void follow(GuideHierarchy& h) {
    h.pose(ScalpMesh());
}

// Root group "main" with primaries a (x = 1) and b (x = -1), child group "kids" with child c of a
// and grandchild group "tips" with d under c.
struct Family {
    GuideHierarchy h;
    std::uint32_t main = 0, kids = 0, tips = 0;
    std::uint64_t a = 0, b = 0, c = 0, d = 0;

    Family() {
        main = h.addGroup("main", 0);
        kids = h.addGroup("kids", main);
        tips = h.addGroup("tips", kids);
        a = h.addGuide(main, curve({1, 0, 0}, kUp, 2, 5));
        b = h.addGuide(main, curve({-1, 0, 0}, kUp, 2, 5));
        c = h.addChildGuide(kids, a, curve({1.1f, 0, 0}, kUp, 2, 5));
        d = h.addChildGuide(tips, c, curve({1.1f, 0, 0.1f}, kUp, 2, 5));
    }
};

TEST(GuideCurves, AxisRuleTransportAndResampling) {
    const struct {
        Vec3f direction, perpendicular;
    } axes[] = {
        {{0, 1, 0}, {0, 0, -1}},
        {{1, 0, 0}, {0, 0, 1}},
        {{0, 0, 1}, {0, 1, 0}},
        {normalized(Vec3f{1, 1, 1}), normalized(Vec3f{0, 1, -1})},
        {normalized(Vec3f{0.2f, -1, 0.5f}), normalized(Vec3f{0, 0.5f, 1})},
    };
    for (const auto& axis : axes)
        expectNear(axisPerpendicular(axis.direction), axis.perpendicular);

    const std::vector<Vec3f> bent = curve({0, 0, 0}, kUp, 3, 9, {1, 0, 0.5f}, 0.8f);
    std::vector<CurveFrame> frames;
    transportFrames(bent, {0, 0, 1}, frames);
    ASSERT_EQ(frames.size(), bent.size());
    for (const CurveFrame& f : frames) {
        EXPECT_NEAR(length(f.up), 1.0f, 1e-5f);
        EXPECT_NEAR(dot(f.up, f.tangent), 0.0f, 1e-5f);
        expectNear(f.side, cross(f.up, f.tangent));
    }
    expectNear(frames[0].up, perpendicularUp({0, 0, 1}, frames[0].tangent));
    EXPECT_GT(frames[0].up.z, 0.99f);

    std::vector<Vec3f> even;
    resampleByArcLength(bent, 17, even);
    ASSERT_EQ(even.size(), 17u);
    EXPECT_EQ(even.front(), bent.front());
    EXPECT_EQ(even.back(), bent.back());
    const float step = polylineLength(bent) / 16;
    for (std::size_t i = 1; i < even.size(); ++i)
        EXPECT_NEAR(length(even[i] - even[i - 1]), step, 0.02f * step);
}

TEST(GuideHierarchy, GroupsAndTheirRules) {
    Family f;
    GuideHierarchy& h = f.h;
    EXPECT_EQ(h.groupLevel(f.main), 0);
    EXPECT_EQ(h.groupLevel(f.tips), 2);
    EXPECT_EQ(messageOf([&] { h.addGroup("tips", f.main); }), "addGroup: group 'tips' exists");
    EXPECT_EQ(messageOf([&] { h.addGroup("", f.main); }), "a guide group needs a name");
    EXPECT_EQ(messageOf([&] { h.addGroup("x", 99); }), "addGroup: unknown parent group");

    h.renameGroup(f.kids, "hairs");
    EXPECT_EQ(h.findGroup(f.kids)->name, "hairs");
    EXPECT_EQ(messageOf([&] { h.renameGroup(f.kids, "main"); }),
              "a guide group named 'main' exists");
    EXPECT_EQ(messageOf([&] { h.renameGroup(77, "x"); }), "no such guide group");

    // A change of name or colour changes the content only when it is a change.
    const std::uint64_t before = h.contentHash();
    h.renameGroup(f.kids, "hairs");
    h.setGroupSegments(f.kids, 0);
    EXPECT_EQ(h.contentHash(), before);
    h.setGroupColor(f.kids, {1, 0, 0});
    EXPECT_TRUE(h.findGroup(f.kids)->colorSet);

    h.removeGroup(f.kids);
    EXPECT_EQ(h.groups().size(), 1u);
    EXPECT_EQ(h.guides().size(), 2u);
    EXPECT_EQ(h.addGroup("new", f.main), 4u);  // ids are never handed out twice
}

TEST(GuideHierarchy, FailingOperationsChangeNothing) {
    Family f;
    GuideHierarchy& h = f.h;
    h.addAttribute("stiff", 0.5f);
    h.setGuideAttribute(std::vector{f.a}, "soft", 1.0f);
    h.addTubeShape(
        makeCustomTubeShape("flat", {{-1, -0.2f}, {1, -0.2f}, {1, 0.2f}, {-1, 0.2f}}, false));
    h.addTubeShape(makeCustomTubeShape("drop", {{-1, -1}, {1, -1}, {0, 1}}, false));
    const std::uint32_t empty = h.addGroup("empty", f.main);
    const std::uint64_t ids[] = {f.c, 999};
    ChildOptions options;
    const std::uint64_t before = h.contentHash();

    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { h.addGuide(77, curve({}, kUp, 1, 3)); }, "addGuide: unknown group"},
        {[&] { h.addGuide(f.kids, curve({}, kUp, 1, 3)); },
         "addGuide: primary guides belong in root groups"},
        {[&] { h.addGuide(f.main, curve({}, kUp, 1, 3), {}, f.b); },
         "addGuide: duplicate guide id"},
        {[&] { h.addChildGuide(f.main, f.a, curve({}, kUp, 1, 3)); },
         "addChildGuide: not a child group"},
        {[&] { h.addChildGuide(f.tips, f.a, curve({}, kUp, 1, 3)); },
         "addChildGuide: the parent must be in the group's parent group"},
        {[&] { h.addChildGuide(f.kids, f.a, curve({}, kUp, 1, 1)); },
         "addChildGuide: a guide needs at least 2 points"},
        {[&] { h.generateChildren(77, "x", std::vector{f.a}, options); },
         "generateChildren: unknown parent group"},
        {[&] {
             h.generateChildren(f.main, "x", std::vector{f.a, f.c}, options);
         },
         "generateChildren: guide " + std::to_string(f.c) + " is not in the parent group"},
        {[&] { h.generateChildren(f.main, "tips", std::vector{f.a}, options); },
         "generateChildren: group 'tips' belongs to another parent group"},
        {[&] { h.reparent(std::vector{f.c}, 999); }, "reparent: unknown parent guide"},
        {[&] { h.reparent(ids, f.b); }, "reparent: unknown guide"},
        {[&] { h.reparent(std::vector{f.d}, f.b); },
         "reparent: the new parent must be in the guide's parent group"},
        {[&] { h.promoteGroup(77); }, "promoteGroup: unknown group"},
        {[&] { h.promoteGroup(f.main); }, "promoteGroup: 'main' is already a root group"},
        {[&] { h.demoteGroup(77, f.main); }, "demoteGroup: unknown group"},
        {[&] { h.demoteGroup(f.kids, f.tips); },
         "demoteGroup: the new parent group must be a sibling of 'kids'"},
        {[&] { h.demoteGroup(f.kids, empty); }, "demoteGroup: 'empty' has no guides to follow"},
        {[&] { h.mirrorGroup(77, 0, 0, true); }, "mirrorGroup: unknown group"},
        {[&] { h.mirrorGroup(f.main, 3, 0, true); }, "mirrorGroup: axis must be 0, 1 or 2"},
        {[&] { h.mirrorGroup(f.kids, 0, 0, true); },
         "mirrorGroup: mirror root groups (then regenerate children)"},
        {[&] { h.mirrorAll(-1, 0, true); }, "mirrorAll: axis must be 0, 1 or 2"},
        {[&] { h.resample(std::vector{f.a}, 257, false); }, "resample: segments are 1 to 256"},
        {[&] { h.resample(ids, 4, false); }, "resample: no guide 999"},
        {[&] { h.setGroupSegments(f.main, -1); }, "setGroupSegments: segments are 0 to 256"},
        {[&] { h.setGroupSegments(77, 3); }, "setGroupSegments: unknown group"},
        {[&] { h.resetGroupSegments(77); }, "resetGroupSegments: unknown group"},
        {[&] { h.setGroupColor(77, {}); }, "setGroupColor: unknown group"},
        {[&] { h.setPoints(999, {}); }, "setPoints: unknown guide"},
        {[&] { h.removeGroup(77); }, "no such guide group"},
        {[&] { h.addAttribute("stiff", 1); }, "a guide attribute named 'stiff' already exists"},
        {[&] { h.renameAttribute("soft", "stiff"); },
         "a guide attribute named 'stiff' already exists"},
        {[&] {
             h.addTubeShape(makeCustomTubeShape("flat", {{-1, -1}, {1, -1}, {0, 1}}, false));
         },
         "a tube shape named 'flat' exists"},
        {[&] { h.renameTubeShape("oval", "egg"); }, "no tube shape named 'oval'"},
        {[&] { h.renameTubeShape("flat", "drop"); }, "a tube shape named 'drop' exists"},
        {[&] { h.renameTubeShape("flat", "blade"); },
         "'blade' is a built-in tube shape: pick another name"},
        {[&] { h.removeTubeShape("oval"); }, "no tube shape named 'oval'"},
    };
    for (const auto& [call, message] : cases) {
        EXPECT_EQ(messageOf(call), message);
        EXPECT_EQ(h.contentHash(), before) << message;
    }
    EXPECT_EQ(h.groups().size(), 4u);
}

TEST(GuideHierarchy, ChildrenFollowTheirParent) {
    GuideHierarchy h;
    h.setScale(2.0f);
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    TubeFields tube;
    tube.width = {0.5f, 0.2f};
    tube.aspect = {2.0f};
    tube.twist = {0.0f, 90.0f};
    const std::vector<Vec3f> parentPoints = curve({0, 0, 0}, kUp, 4, 9, {1, 0, 0}, 0.5f);
    const std::uint64_t parent = h.addGuide(main, parentPoints, tube);
    // Its own point count (5) differs from the parent's (9); the other shares it.
    const std::vector<Vec3f> ownCount = curve({0.3f, 0, 0.1f}, kUp, 4, 5, {1, 0, 0.2f}, 0.4f);
    const std::vector<Vec3f> shared = curve({-0.2f, 0, 0}, kUp, 4, 9, {1, 0, 0}, 0.5f);
    const std::uint64_t a = h.addChildGuide(kids, parent, ownCount);
    const std::uint64_t b = h.addChildGuide(kids, parent, shared, tube);
    EXPECT_EQ(h.findGuide(a)->pointCount, 5);
    EXPECT_EQ(h.findGuide(b)->pointCount, 0);
    EXPECT_EQ(h.findGuide(a)->tube.width, tube.width);  // no tube given: the parent's

    // Posing gives back the points the children were made from...
    follow(h);
    expectNear(h.findGuide(a)->points, ownCount, 2e-5f);
    expectNear(h.findGuide(b)->points, shared, 2e-5f);
    // ...and a parent moved and turned carries them rigidly (a turn about z, in the plane of its
    // first direction, so that transport turns its up alike).
    auto turn = [](const Vec3f& p) { return Vec3f{-p.y, p.x, p.z} + Vec3f{5, 1, 0}; };
    std::vector<Vec3f> turned;
    for (const Vec3f& p : parentPoints)
        turned.push_back(turn(p));
    h.setFrameTo(parent, turned);
    follow(h);
    for (std::size_t i = 0; i < ownCount.size(); ++i)
        expectNear(h.findGuide(a)->points[i], turn(ownCount[i]), 5e-5f);
}

TEST(GuideHierarchy, HandEditsOfAChildKeepItsRootInPlace) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    const std::uint64_t plain = h.addGuide(main, curve({0, 0, 0}, kUp, 4, 5));
    TubeFields ribbon;
    ribbon.shape = TubeShape::Ribbon;
    ribbon.width = {0.2f};
    const std::uint64_t wide = h.addGuide(main, curve({3, 0, 0}, kUp, 4, 5), ribbon);
    const std::uint64_t c1 = h.addChildGuide(kids, plain, curve({0.1f, 0, 0}, kUp, 4, 5));
    const std::uint64_t c2 = h.addChildGuide(kids, wide, curve({3.1f, 0, 0}, kUp, 4, 5));
    const std::vector<Vec3f> before1 = h.findGuide(c1)->points;
    const std::vector<Vec3f> before2 = h.findGuide(c2)->points;

    const Vec3f shift{0, 0, 1};
    h.setPoints(c1, moved(before1, shift));
    h.setPoints(c2, moved(before2, shift));
    follow(h);
    // Plain parent tube: the shift eases in along the whole child, (1 - (1 - t)^2) of it.
    for (std::size_t i = 0; i < 5; ++i) {
        const float t = float(i) / 4;
        expectNear(h.findGuide(c1)->points[i], before1[i] + shift * (1 - (1 - t) * (1 - t)));
    }
    // A tube reaches 3 * 0.2 / 4 of the parent: only the root keeps its place.
    expectNear(h.findGuide(c2)->points[0], before2[0]);
    for (std::size_t i = 1; i < 5; ++i)
        expectNear(h.findGuide(c2)->points[i], before2[i] + shift);
}

TEST(GuideHierarchy, GeneratedChildrenAreStableBySeed) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    TubeFields ribbon;
    ribbon.shape = TubeShape::Ribbon;
    ribbon.width = {0.5f};
    const std::vector<std::uint64_t> parents = {
        h.addGuide(main, curve({0, 0, 0}, kUp, 3, 6), ribbon),
        h.addGuide(main, curve({2, 0, 0}, kUp, 3, 6, {0, 0, 1}, 0.3f)),
        h.addGuide(main, curve({4, 0, 0}, kUp, 3, 1)),  // too short to have children
    };
    ChildOptions options;
    options.count = 7;
    options.rootSpread = 0.5f;
    options.tipSpread = 0.8f;
    options.twist = 90.0f;
    options.seed = 11;
    bool existed = true;
    const std::uint32_t kids = h.generateChildren(main, "kids", parents, options, &existed);
    EXPECT_FALSE(existed);
    ASSERT_EQ(h.guides().size(), 3u + 14u);
    // The first child's id comes straight from its parent's and the seed.
    EXPECT_EQ(h.guides()[3].id, hashCombine(hashCombine(mix64(parents[0]), 11), 0));

    auto children = [&] {
        std::vector<Guide> out;
        for (const Guide& g : h.guides())
            if (g.group == kids) out.push_back(g);
        return out;
    };
    const std::vector<Guide> first = children();
    for (const Guide& child : first) {
        ASSERT_EQ(child.offsets.size(), 6u);
        const Vec3f root = child.offsets.front(), tip = child.offsets.back();
        // The twist turns the tip a quarter turn from the root's direction.
        EXPECT_NEAR(dot(root, tip), 0.0f, 1e-5f);
        EXPECT_NEAR(length(tip) / length(root), 0.8f / 0.5f, 1e-4f);
        if (child.parent == parents[0]) {
            // Drawn inside the ribbon's section, scaled by the spread.
            TubeFields section;
            section.shape = TubeShape::Ribbon;
            EXPECT_LE(tubeSectionDistance(section, {root.x / 0.5f, root.y / 0.5f}), 0.0f);
        }
    }

    h.generateChildren(main, "kids", parents, options, &existed);
    EXPECT_TRUE(existed);
    const std::vector<Guide> again = children();
    ASSERT_EQ(again.size(), first.size());
    for (std::size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(again[i].id, first[i].id);
        EXPECT_EQ(again[i].points, first[i].points);
    }
    options.seed = 12;
    options.twist = 0.0f;
    h.generateChildren(main, "kids", std::vector{parents[1]}, options);
    const std::vector<Guide> reseeded = children();
    ASSERT_EQ(reseeded.size(), first.size());
    for (const Guide& child : reseeded) {
        if (child.parent != parents[1]) continue;
        for (const Guide& old : first)
            EXPECT_NE(child.id, old.id);
        EXPECT_EQ(child.offsets.size(), 2u);  // no twist: a straight blend root to tip
    }

    // A group default of segments resamples new children.
    h.setGroupSegments(kids, 3);
    h.generateChildren(main, "kids", std::vector{parents[0]}, options);
    for (const Guide& child : children()) {
        if (child.parent != parents[0]) continue;
        EXPECT_EQ(child.points.size(), 4u);
        EXPECT_EQ(child.pointCount, 4);
    }
}

TEST(GuideHierarchy, RemovalAndLevelMoves) {
    {
        Family f;
        EXPECT_EQ(f.h.removeGuides(std::vector<std::uint64_t>{f.c, 12345}), 2u);  // c and d
        EXPECT_EQ(f.h.guides().size(), 2u);
    }
    {
        // Reparenting keeps the child where it is, now following the other guide.
        Family f;
        follow(f.h);
        const std::vector<Vec3f> points = f.h.findGuide(f.c)->points;
        f.h.reparent(std::vector{f.c}, f.b);
        EXPECT_EQ(f.h.findGuide(f.c)->parent, f.b);
        follow(f.h);
        expectNear(f.h.findGuide(f.c)->points, points);
    }
    {
        // Promoting "tips" makes d follow a; promoting "kids" makes c a primary.
        Family f;
        follow(f.h);
        const std::vector<Vec3f> points = f.h.findGuide(f.d)->points;
        f.h.promoteGroup(f.tips);
        EXPECT_EQ(f.h.findGroup(f.tips)->parent, f.main);
        EXPECT_EQ(f.h.findGuide(f.d)->parent, f.a);
        follow(f.h);
        expectNear(f.h.findGuide(f.d)->points, points);
        f.h.promoteGroup(f.kids);
        const Guide& c = *f.h.findGuide(f.c);
        EXPECT_EQ(f.h.findGroup(f.kids)->parent, 0u);
        EXPECT_EQ(c.parent, 0u);
        EXPECT_TRUE(c.offsets.empty());
        EXPECT_EQ(c.points.size(), 5u);
    }
    {
        // Demoting: each guide follows the sibling group's guide with the nearest first point;
        // of two at the same distance the first found.
        GuideHierarchy h;
        const std::uint32_t main = h.addGroup("main", 0);
        const std::uint32_t side = h.addGroup("side", 0);
        const std::uint64_t left = h.addGuide(main, curve({-1, 0, 0}, kUp, 1, 3));
        const std::uint64_t right = h.addGuide(main, curve({1, 0, 0}, kUp, 1, 3));
        const std::uint64_t nearRight = h.addGuide(side, curve({0.8f, 0, 0}, kUp, 1, 3));
        const std::uint64_t between = h.addGuide(side, curve({0, 0, 0}, kUp, 1, 3));
        h.demoteGroup(side, main);
        EXPECT_EQ(h.findGroup(side)->parent, main);
        EXPECT_EQ(h.findGuide(nearRight)->parent, right);
        EXPECT_EQ(h.findGuide(between)->parent, left);
        EXPECT_FALSE(h.findGuide(between)->locked);
        EXPECT_EQ(h.findGuide(between)->offsets.size(), 3u);
    }
}

TEST(GuideHierarchy, MirrorReplacesTheFarSide) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    const std::uint64_t source = h.addGuide(main, curve({1, 0, 0}, kUp, 2, 4, {1, 0, 0}, 0.3f));
    const std::uint64_t far = h.addGuide(main, curve({-3, 0, 0}, kUp, 2, 4));
    const std::uint64_t onPlane = h.addGuide(main, curve({0, 0, 0.5f}, kUp, 2, 4));
    h.addChildGuide(kids, far, curve({-3.1f, 0, 0}, kUp, 2, 4));
    const std::uint64_t child = h.addChildGuide(kids, source, curve({1.1f, 0, 0.1f}, kUp, 2, 4));
    h.setGuideAttribute(std::vector{source}, "stiff", 0.25f);

    const std::vector<std::uint64_t> made = h.mirrorAll(0, 0.0f, true);
    ASSERT_EQ(made.size(), 2u);  // the mirrored source, then its mirrored child
    EXPECT_FALSE(h.findGuide(far));
    EXPECT_TRUE(h.findGuide(onPlane));
    const Guide& copy = *h.findGuide(made[0]);
    const Guide& original = *h.findGuide(source);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(copy.points[i].x, -original.points[i].x);
        EXPECT_EQ(copy.points[i].y, original.points[i].y);
    }
    EXPECT_EQ(copy.frameUp.x, -original.frameUp.x);
    EXPECT_EQ(copy.frameUp.z, original.frameUp.z);
    EXPECT_EQ(copy.attributes.at("stiff"), 0.25f);
    EXPECT_EQ(h.findGuide(made[1])->parent, made[0]);
    // The mirrored child follows the mirrored source onto the reflection of the child.
    follow(h);
    const Guide& sourceChild = *h.findGuide(child);
    const Guide& copyChild = *h.findGuide(made[1]);
    for (std::size_t i = 0; i < 4; ++i) {
        const Vec3f p = sourceChild.points[i];
        expectNear(copyChild.points[i], {-p.x, p.y, p.z});
    }
    EXPECT_EQ(h.guides().size(), 5u);

    // Mirroring a group alone copies no children; guides on the plane stay as they are.
    const std::vector<std::uint64_t> again = h.mirrorGroup(main, 0, 0.0f, false);
    EXPECT_EQ(again.size(), 1u);
    EXPECT_FALSE(h.findGuide(source));
    EXPECT_TRUE(h.findGuide(onPlane));
}

TEST(GuideHierarchy, SegmentsAndFreezing) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint32_t kids = h.addGroup("kids", main);
    const std::uint64_t a = h.addGuide(main, curve({0, 0, 0}, kUp, 2, 5));
    const std::uint64_t b = h.addGuide(main, curve({1, 0, 0}, kUp, 2, 5));
    const std::uint64_t c = h.addGuide(main, curve({2, 0, 0}, kUp, 2, 8));
    const std::uint64_t child = h.addChildGuide(kids, a, curve({0.1f, 0, 0}, kUp, 2, 5));

    EXPECT_EQ(h.resample(std::vector{a}, 256, false), 1);
    EXPECT_EQ(h.findGuide(a)->points.size(), 257u);
    EXPECT_TRUE(h.findGuide(a)->ownSegments);  // the group has no default
    h.setGroupSegments(main, 6);
    h.resample(std::vector{b}, 6, false);
    EXPECT_FALSE(h.findGuide(b)->ownSegments);
    EXPECT_EQ(h.resample(std::vector{a, b}, 3, true), 1);  // a keeps its own count
    EXPECT_EQ(h.findGuide(a)->points.size(), 257u);

    // Freezing a parent freezes its children.
    h.setGuideAttribute(std::vector{a}, "freeze", 1.0f);
    EXPECT_TRUE(h.isFrozen(child));
    EXPECT_EQ(h.resample(std::vector{a, child}, 9, false), 0);

    // Reset: the group's own count when it has one; every unfrozen guide takes it.
    EXPECT_EQ(h.resetGroupSegments(main), 6);
    EXPECT_EQ(h.findGuide(b)->points.size(), 7u);
    EXPECT_EQ(h.findGuide(c)->points.size(), 7u);
    EXPECT_EQ(h.findGuide(a)->points.size(), 257u);
    EXPECT_TRUE(h.findGuide(a)->ownSegments);  // frozen: left as it was

    // Without one, the most common count among guides not set by hand, the smaller on a tie.
    GuideHierarchy g;
    const std::uint32_t group = g.addGroup("g", 0);
    EXPECT_EQ(g.resetGroupSegments(group), 0);
    g.addGuide(group, curve({0, 0, 0}, kUp, 1, 5));
    g.addGuide(group, curve({1, 0, 0}, kUp, 1, 3));
    const std::uint64_t own = g.addGuide(group, curve({2, 0, 0}, kUp, 1, 9));
    g.resample(std::vector{own}, 8, false);
    EXPECT_EQ(g.resetGroupSegments(group), 2);
    EXPECT_EQ(g.findGroup(group)->segments, 2);
    EXPECT_EQ(g.findGuide(own)->points.size(), 3u);  // its flag was cleared first
}

TEST(GuideHierarchy, PointEditsAndAttributes) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    const std::uint64_t a = h.addGuide(main, curve({0, 0, 0}, kUp, 2, 3));
    const std::uint64_t b = h.addGuide(main, curve({1, 0, 0}, kUp, 2, 3));
    h.addAttribute("stiff", 0.5f);
    EXPECT_EQ(h.renameAttribute("stiff", "hard"), 2u);
    EXPECT_EQ(h.findGuide(a)->attributes.at("hard"), 0.5f);
    EXPECT_EQ(h.setAttribute("hard", 0.75f), 2u);
    EXPECT_EQ(h.removeAttribute("hard"), 2u);
    EXPECT_EQ(h.setAttribute("hard", 1.0f), 0u);

    // Point layers follow the point count.
    h.setPointAttribute(b, "curl", {0, 1, 2});
    h.setPoints(b, curve({1, 0, 0}, kUp, 2, 5));
    EXPECT_EQ(h.findGuide(b)->pointAttributes.at("curl"),
              (std::vector<float>{0, 0.5f, 1, 1.5f, 2}));

    // setFrameTo carries the up vector along a turn of the first direction; it is quiet.
    const Vec3f up = h.findGuide(a)->frameUp;
    h.setFrameTo(a, curve({0, 0, 0}, {1, 0, 0}, 2, 3));
    const Vec3f turned = h.findGuide(a)->frameUp;
    EXPECT_NEAR(dot(turned, Vec3f{1, 0, 0}), 0.0f, 1e-6f);
    EXPECT_NEAR(dot(turned, cross(kUp, Vec3f{1, 0, 0})), dot(up, cross(kUp, Vec3f{1, 0, 0})),
                1e-6f);
    const std::uint64_t hash = h.contentHash();
    h.setFrameTo(a, {{0, 0, 0}});
    h.setFrameTo(999, curve({}, kUp, 1, 3));
    EXPECT_EQ(h.contentHash(), hash);
}

TEST(GuideHierarchy, TubeShapeLibrary) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    TubeFields tube;
    tube.custom =
        makeCustomTubeShape("flat", {{-1, -0.2f}, {1, -0.2f}, {1, 0.2f}, {-1, 0.2f}}, false);
    const std::uint64_t a = h.addGuide(main, curve({}, kUp, 1, 3), tube);
    ASSERT_EQ(h.tubeShapes().count("flat"), 1u);  // registered by the guide
    // A guide brought with another shape of a known name takes the library's.
    TubeFields other;
    other.custom = makeCustomTubeShape("flat", {{-1, -1}, {1, -1}, {0, 1}}, false);
    const std::uint64_t b = h.addGuide(main, curve({1, 0, 0}, kUp, 1, 3), other);
    EXPECT_EQ(h.findGuide(b)->tube.custom, h.findGuide(a)->tube.custom);

    h.renameTubeShape("flat", "band");
    EXPECT_EQ(h.findGuide(a)->tube.custom->name, "band");
    EXPECT_EQ(h.tubeShapes().count("flat"), 0u);
    h.setTubeShape(makeCustomTubeShape("band", {{-1, -1}, {1, -1}, {0, 1}}, true));
    EXPECT_TRUE(h.findGuide(b)->tube.custom->smooth);
    h.removeTubeShape("band");
    EXPECT_FALSE(h.findGuide(a)->tube.custom);
    EXPECT_EQ(h.findGuide(a)->tube.shape, TubeShape::Round);
}

}  // namespace
}  // namespace velmorin
