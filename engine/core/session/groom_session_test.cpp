#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <set>

#include <nlohmann/json.hpp>

#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "fields/field_scene.h"
#include "graph/graph_tools.h"
#include "mesh/sample_meshes.h"
#include "session/groom_session.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;
using test::expectMessage;

// A 2 x 2 plane at y = 0 facing +Y, of 32 triangles.
std::shared_ptr<const ScalpMesh> plane(float size = 2.0f) {
    return makeUvPlane(size, 4);
}

// Two straight primaries standing up from the plane: guide 1 at (0.1, 0.1), guide 2 at (-0.4,
// -0.3), three points each, a unit long.
GuideHierarchy twoGuides(const ScalpMesh& scalp) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    for (const Vec3f root : {Vec3f{0.1f, 0.0f, 0.1f}, Vec3f{-0.4f, 0.0f, -0.3f}})
        h.addGuide(main, {root, root + Vec3f{0, 0.5f, 0}, root + Vec3f{0, 1.0f, 0}});
    h.pose(scalp);
    return h;
}

// Guides fed through a Sculpt node, which is the output; and a Sculpt node fed nothing.
std::string sculptGraph() {
    return R"({"version":1,"nodes":[{"name":"scalp","type":"Scalp"},{"name":"guides","type":"Guides"},
        {"name":"sculpt","type":"Sculpt"},{"name":"lonely","type":"Sculpt"}],
        "connections":[{"from":"guides","to":"sculpt","input":"guides"}],"output":"sculpt"})";
}

// A session grooming the plane with the two guides and `graph`.
void groom(GroomSession& session, const std::string& graph) {
    const auto scalp = plane();
    session.setScalp(scalp);
    session.setGuideData(twoGuides(*scalp).toJson());
    session.setGraph(graph);
}

// The keys of a JSON object, in their order, between spaces.
std::string keyList(const Json& object) {
    std::string keys;
    for (const auto& [key, value] : object.items())
        keys += (keys.empty() ? "" : " ") + key;
    return keys;
}

std::map<std::uint32_t, std::uint64_t> stamps(const Graph& graph) {
    std::map<std::uint32_t, std::uint64_t> out;
    for (const auto& [id, node] : graph.nodes())
        out[id] = node.runtime.stamp;
    return out;
}

std::vector<Vec3f> guidePoints(const GroomFrame& frame, std::uint64_t id) {
    if (!frame.guides) return {};
    for (const Guide& guide : frame.guides->guides)
        if (guide.id == id) return guide.points;
    return {};
}

TEST(GroomSession, EmptySessionAnswersEmptyAndRefusesSculpting) {
    GroomSession session;
    EXPECT_EQ(session.evaluate(), nullptr);
    EXPECT_EQ(session.frame(), nullptr);
    EXPECT_FALSE(session.hasCardsNode());
    EXPECT_FALSE(session.hasStrandMeshNode());
    EXPECT_FALSE(session.viewRefinesStrands());
    expectMessage([&] { session.sculptInput("sculpt"); }, "the groom has no graph");
    // Setters store their values without a graph.
    session.setCorrectiveData(R"({"layers":[{"name":"a"}]})");
    EXPECT_EQ(session.correctiveLayers().size(), 1u);
    EXPECT_EQ(keyList(session.statsJson()),
              "view strands points guides cards cardStrands cardTriangles cardTextures "
              "cardFeathers cardsBaked cardsStale triangles textures feathers stale cardNodes "
              "hairColor renderData colorNodes colorBlends times runs channels notes frames reads "
              "scalpHistory instances restEvaluations distanceFieldsMade cacheBytes "
              "cacheEvictions strokeDocument live baked bakeStale bakedFirst bakedLast bakedFile "
              "stepMs simulations");
}

TEST(GroomSession, SettersRaiseEditsOnlyOnARealChange) {
    GroomSession session;
    const auto scalp = plane();
    const std::string guides = twoGuides(*scalp).toJson();
    const auto other = plane(3.0f);
    const std::vector<std::pair<const char*, std::function<void()>>> setters = {
        {"graph", [&] { session.setGraph(defaultGraphJson()); }},
        {"scalp", [&] { session.setScalp(plane()); }},  // a new pointer, the same content
        {"rest scalp", [&] { session.setRestScalp(plane()); }},
        {"scalp history", [&] { session.setScalpAt(3.0, other); }},
        {"collider", [&] { session.setCollider("body", other); }},
        {"guide data", [&] { session.setGuideData(guides); }},
        {"maps", [&] { session.setScalpMaps(R"({"mask":{"kind":"texture","texture":"m.png"}})"); }},
        {"parts", [&] { session.setPartData(R"({"parts":[{"name":"p","points":[]}]})"); }},
        {"flow", [&] { session.setFlowData(R"({"pins":[]})"); }},
        {"sculpt", [&] { session.setSculptData(R"({"guides":{"1":[0,0,0]}})"); }},
        {"correctives", [&] { session.setCorrectiveData(R"({"layers":[]})"); }},
        {"corrective weights", [&] { session.setCorrectiveWeights({0.5f}); }},
        {"time", [&] { session.setTime(12.0); }},
        {"viewport", [&] { session.setViewport(false); }},
        {"preview density", [&] { session.setPreviewDensity(0.25); }},
        {"point budget", [&] { session.setPreviewPointBudget(1e6); }},
        {"control", [&] { session.setControl("wind", 2.0); }},
        {"view node", [&] { session.setViewNode("length"); }},
        {"follow", [&] { session.setFollowScalp(true); }},
        {"scale mode", [&] { session.setScaleMode(ScaleMode::Off); }},
        {"scale reference", [&] { session.setScaleReference(4.0); }},
        {"scale measure", [&] { session.setScaleMeasure(1.5); }},
    };
    for (const auto& [name, set] : setters) {
        const std::uint64_t before = session.edits();
        set();
        EXPECT_EQ(session.edits(), before + 1) << name;
        set();
        EXPECT_EQ(session.edits(), before + 1) << name << ", again";
    }
    // An equal mesh leaves the stored one in place.
    const auto held = session.scalp();
    session.setScalp(plane());
    EXPECT_EQ(session.scalp(), held);
}

TEST(GroomSession, EqualScalpOrGuidesOrAnotherFrameEvaluateNothingAgain) {
    GroomSession session;
    groom(session, defaultGraphJson());
    const auto first = session.evaluate({1.0, true, {}});
    ASSERT_NE(first, nullptr);
    ASSERT_NE(first->strands, nullptr);
    EXPECT_GT(first->strands->strandCount(), 0u);
    const auto before = stamps(*session.graph());
    // The Scalp node's status goes out with the first frame only.
    const std::vector<SessionMessage> told = session.takeMessages();
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].node, "scalp");
    EXPECT_EQ(told[0].text, "Subdivision off (32 triangles from 16 faces)");
    EXPECT_FALSE(session.stats().stale);

    const std::uint64_t edits = session.edits();
    session.setScalp(plane());
    session.setGuideData(session.guideData());
    EXPECT_EQ(session.edits(), edits);
    const auto again = session.evaluate({1.0, true, {}});
    EXPECT_EQ(stamps(*session.graph()), before);
    EXPECT_EQ(again->strands, first->strands);

    // The graph reads no time: a new frame costs its keys only.
    const auto next = session.evaluate({2.0, true, {}});
    EXPECT_EQ(stamps(*session.graph()), before);
    EXPECT_EQ(next->strands, first->strands);
    EXPECT_EQ(next->time, 2.0);
    EXPECT_EQ(session.time(), 2.0);
    EXPECT_TRUE(session.takeMessages().empty());
    session.setTime(3.0);
    EXPECT_TRUE(session.stats().stale);

    // A real change of the guides runs the nodes that read them.
    GuideHierarchy moved = *session.hierarchy();
    moved.setPoints(1, {{0.1f, 0, 0.1f}, {0.3f, 0.5f, 0.1f}, {0.5f, 1, 0.1f}});
    session.setGuideData(moved.toJson());
    const auto changed = session.evaluate({2.0, true, {}});
    EXPECT_NE(changed->strands, first->strands);
    const Graph& graph = *session.graph();
    EXPECT_EQ(stamps(graph).at(graph.nodeId("scatter")), before.at(graph.nodeId("scatter")));
    EXPECT_NE(stamps(graph).at(graph.nodeId("guides")), before.at(graph.nodeId("guides")));
}

TEST(GroomSession, MisuseGetsItsMessageAndKeepsTheLastGoodStateAndFrame) {
    GroomSession session;
    groom(session, defaultGraphJson());
    const auto good = session.evaluate({1.0, true, {}});
    ASSERT_NE(good, nullptr);
    const auto scalp = session.scalp();
    const std::string graph = session.graphJson();
    const std::uint64_t edits = session.edits();

    std::vector<Vec3f> points = scalp->points();
    points[3].y = std::numeric_limits<float>::quiet_NaN();
    auto broken = std::make_shared<ScalpMesh>(*scalp);
    broken->setPoints(points);
    expectMessage([&] { session.setScalp(broken); },
                  "scalp: point 3 is not a finite number (NaN or infinity): clean up the mesh and "
                  "hand it in again");
    expectMessage([&] { session.updateScalpPoints(points); },
                  "updateScalpPoints: point 3 is not a finite number (NaN or infinity): clean up "
                  "the mesh and hand it in again");
    expectMessage([&] { session.setCollider("body", broken); },
                  "collider 'body': point 3 is not a finite number (NaN or infinity): clean up "
                  "the mesh and hand it in again");
    expectMessage(
        [&] {
            session.updateScalpPoints({{0, 0, 0}});
        },
        "updateScalpPoints: 1 points for a scalp of 25");

    // Guides that say they are bound to a face past the scalp's last.
    Json guides = Json::parse(session.guideData());
    guides["guides"][1]["root"][0] = 40;
    guides.erase("scalpTopology");
    expectMessage([&] { session.setGuideData(guides.dump()); },
                  "guideData: guide 2 is bound to face 40, but the scalp has only 32 triangles: "
                  "load the scalp these guides were made on, or transfer the groom to this scalp");

    expectMessage<SchemaError>([&] { session.setCorrectiveData("[]"); },
                               "correctiveData: corrective data: not an object");
    expectMessage<SchemaError>([&] { session.setSculptData("7"); }, "sculptData: not an object");
    try {
        session.setGraph(R"({"version":1,"nodes":[{"name":"a","type":"NoSuchType"}]})");
        ADD_FAILURE() << "the graph loaded";
    } catch (const std::exception& error) {
        EXPECT_EQ(std::string(error.what()).rfind("graph: ", 0), 0u) << error.what();
    }

    EXPECT_EQ(session.edits(), edits);
    EXPECT_EQ(session.scalp(), scalp);
    EXPECT_EQ(session.graphJson(), graph);
    EXPECT_TRUE(session.correctiveLayers().empty());
    EXPECT_EQ(session.frame(), good);
    const auto after = session.evaluate({1.0, true, {}});
    EXPECT_EQ(after->strands, good->strands);
}

TEST(GroomSession, UpdateScalpPointsKeepsTheKeysOfNodesThatDoNotReadTheScalp) {
    GroomSession session;
    expectMessage([&] { session.updateScalpPoints({}); },
                  "updateScalpPoints: the session has no scalp");
    session.setScalp(plane());
    // Live guides, which no pose puts on the scalp.
    auto guides = std::make_shared<GuideSet>();
    guides->guides = twoGuides(*session.scalp()).guides();
    session.setGuides(guides);
    session.setGraph(defaultGraphJson());
    session.evaluate();
    const Graph& graph = *session.graph();
    const auto before = stamps(graph);

    std::uint64_t edits = session.edits();
    session.updateScalpPoints(session.scalp()->points());  // the same points: no change
    EXPECT_EQ(session.edits(), edits);
    std::vector<Vec3f> points = session.scalp()->points();
    for (Vec3f& p : points)
        p.y += 0.25f;
    const auto held = session.scalp();
    session.updateScalpPoints(points);
    EXPECT_EQ(session.edits(), edits + 1);
    EXPECT_NE(session.scalp(), held);
    EXPECT_EQ(session.scalp()->topologySignature(), held->topologySignature());
    EXPECT_EQ(held->points()[0].y, 0.0f);  // the old mesh, which results may hold, is untouched
    session.evaluate();
    const auto after = stamps(graph);
    EXPECT_EQ(after.at(graph.nodeId("guides")), before.at(graph.nodeId("guides")));
    EXPECT_NE(after.at(graph.nodeId("scatter")), before.at(graph.nodeId("scatter")));
}

TEST(GroomSession, GuideLayersJoinThePaintedMapsInTheCatalog) {
    GroomSession session;
    groom(session, defaultGraphJson());
    GuideHierarchy painted = *session.hierarchy();
    painted.setPointAttribute(1, "curl", {0.0f, 0.5f, 1.0f});
    session.setGuideData(painted.toJson());
    session.setScalpMaps(R"({"mask":{"kind":"texture","texture":"mask.png"}})");
    const auto frame = session.evaluate();
    const auto catalog = frame->sceneInputs->at("maps").value.get<MapCatalogValue>();
    ASSERT_NE(catalog, nullptr);
    EXPECT_NE(catalog->maps.find("mask"), nullptr);
    const std::map<std::string, std::string, std::less<>> layers{{"curl", "hierarchy"}};
    EXPECT_EQ(catalog->guideLayers, layers);
    // Other guides with the same layers leave the catalog as it was.
    GuideHierarchy moved = painted;
    moved.setPoints(2, {{-0.4f, 0, -0.3f}, {-0.2f, 0.5f, -0.3f}, {0, 1, -0.3f}});
    session.setGuideData(moved.toJson());
    EXPECT_EQ(session.evaluate()->sceneInputs->at("maps").value.get<MapCatalogValue>(), catalog);
}

// One frame of the three-frame run: the posed guides, and the strands' content.
struct FrameBits {
    std::vector<Vec3f> guide1, guide2;
    std::uint64_t strands = 0;
};

std::vector<FrameBits> threeFrames(const std::string& correctives) {
    GroomSession session;
    groom(session, defaultGraphJson());
    session.setCorrectiveData(correctives);
    std::vector<FrameBits> frames;
    for (const double time : {1.0, 2.0, 3.0}) {
        const auto frame = session.evaluate({time, true, {}});
        frames.push_back({guidePoints(*frame, 1), guidePoints(*frame, 2),
                          frame->strands ? frame->strands->contentHash() : 0});
    }
    return frames;
}

TEST(GroomSession, CorrectiveAppliesOnItsFrameAndFadesAroundIt) {
    // Sculpted at frame 2, fading in over 2 frames and out over 1: weights 0.5, 1 and 0 on frames
    // 1, 2 and 3. Guide 1 keeps its root and gets 0.5 along its tangent and 0.25 along its up at
    // its other points.
    const std::string layer =
        R"({"layers":[{"name":"fix","time":2,"fadeIn":2,"fadeOut":1,"offsets":
            {"1":[0,0,0, 0,0.25,0.5, 0,0.25,0.5]}}]})";
    std::vector<FrameBits> one, two;
    runWithThreads(1, [&] { one = threeFrames(layer); });
    runWithThreads(2, [&] { two = threeFrames(layer); });
    ASSERT_EQ(one.size(), 3u);
    for (std::size_t f = 0; f < 3; ++f) {
        EXPECT_EQ(one[f].guide1, two[f].guide1) << "frame " << f + 1;
        EXPECT_EQ(one[f].strands, two[f].strands) << "frame " << f + 1;
    }
    const std::vector<Vec3f> rest{{0.1f, 0, 0.1f}, {0.1f, 0.5f, 0.1f}, {0.1f, 1, 0.1f}};
    const double weights[] = {0.5, 1.0, 0.0};
    for (std::size_t f = 0; f < 3; ++f) {
        const std::vector<Vec3f>& points = one[f].guide1;
        ASSERT_EQ(points.size(), 3u) << "frame " << f + 1;
        const auto w = static_cast<float>(weights[f]);
        // The pose on the scalp rounds the root by an ulp at most.
        EXPECT_NEAR(length(points[0] - rest[0]), 0.0f, 1e-6f) << "frame " << f + 1;
        for (std::size_t i = 1; i < 3; ++i) {
            const Vec3f d = points[i] - rest[i];
            // Along the tangent (+Y) by 0.5 w, across it by 0.25 w.
            EXPECT_NEAR(d.y, 0.5f * w, 1e-5f) << "frame " << f + 1 << " point " << i;
            EXPECT_NEAR(std::hypot(d.x, d.z), 0.25f * w, 1e-5f) << "frame " << f + 1;
        }
        // Guide 2 has no offsets and stands as drawn.
        ASSERT_EQ(one[f].guide2.size(), 3u);
        EXPECT_NEAR(one[f].guide2[2].y, 1.0f, 1e-6f);
        EXPECT_NEAR(one[f].guide2[2].x, -0.4f, 1e-6f);
    }
    // Off its frames the layer changes nothing: frame 3 grows what no correctives grow.
    const std::vector<FrameBits> plain = threeFrames("");
    EXPECT_EQ(one[2].guide1, plain[2].guide1);
    EXPECT_EQ(one[2].strands, plain[2].strands);
    EXPECT_NE(one[1].strands, plain[1].strands);
}

TEST(GroomSession, CorrectiveLayersStackInOrder) {
    // A bend, then a push along the tip: the push follows the bent tip only when it comes second.
    const std::string bend =
        R"({"name":"bend","holdBefore":9,"holdAfter":9,"offsets":{"1":[0,0,0, 0.2,0,0, 0.6,0,0]}})";
    const std::string push =
        R"({"name":"push","holdBefore":9,"holdAfter":9,"offsets":{"1":[0,0,0, 0,0,0, 0,0,0.4]}})";
    const auto run = [](const std::string& first, const std::string& second) {
        return threeFrames(R"({"layers":[)" + first + "," + second + "]}")[0].guide1;
    };
    const std::vector<Vec3f> bendThenPush = run(bend, push);
    const std::vector<Vec3f> pushThenBend = run(push, bend);
    ASSERT_EQ(bendThenPush.size(), 3u);
    EXPECT_NE(bendThenPush[2], pushThenBend[2]);
    // The same as applying the two in turn by hand.
    GroomSession session;
    groom(session, defaultGraphJson());
    session.evaluate({1.0, true, {}});
    std::vector<Guide> guides{*session.activeHierarchy()->findGuide(1)};
    for (const std::string& text : {bend, push}) {
        const auto layers = correctiveLayersFromJson(R"({"layers":[)" + text + "]}");
        applyGuideOffsets(guides, layers[0].offsets, 1.0f);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(bendThenPush[i].x, guides[0].points[i].x, 1e-5f) << i;
        EXPECT_NEAR(bendThenPush[i].y, guides[0].points[i].y, 1e-5f) << i;
        EXPECT_NEAR(bendThenPush[i].z, guides[0].points[i].z, 1e-5f) << i;
    }
}

TEST(GroomSession, SculptNodeRecordsOffsetsAndAppliesThem) {
    GroomSession session;
    groom(session, sculptGraph());
    expectMessage([&] { session.sculptInput("nope"); }, "the graph has no node named 'nope'");
    expectMessage([&] { session.sculptInput("guides"); },
                  "node 'guides' is a Guides, not a Sculpt node");
    expectMessage([&] { session.sculptInput("lonely"); }, "Sculpt node 'lonely' is fed no guides");

    // With nothing sculpted the node hands on its input itself.
    const auto unsculpted = session.evaluate();
    const Graph& graph = *session.graph();
    EXPECT_EQ(unsculpted->outputs.at(0), graph.cachedResults(graph.nodeId("guides")).at(0));

    const auto input = session.sculptInput("sculpt");
    ASSERT_EQ(input->guides.size(), 2u);
    GuideSet sculpted;
    sculpted.guides.push_back(input->guides[0]);
    sculpted.guides[0].points[2] = sculpted.guides[0].points[2] + Vec3f{0.3f, -0.1f, 0.0f};
    expectMessage([&] { session.sculpt("sculpt", sculpted, 0.0f); },
                  "the Sculpt node's strength is 0: raise it to sculpt");
    GuideSet shorter = sculpted;
    shorter.guides[0].points.pop_back();
    expectMessage([&] { session.sculpt("sculpt", shorter); },
                  "a sculpted guide has another point count than its input");
    EXPECT_EQ(session.sculptData(), "");

    const std::uint64_t edits = session.edits();
    session.sculpt("sculpt", sculpted);
    EXPECT_EQ(session.edits(), edits + 1);
    EXPECT_NE(session.sculptData(), "");
    const auto frame = session.evaluate({1.0, true, {}});
    const auto out = frame->outputs.at(0).get<GuideSet>();
    ASSERT_NE(out, nullptr);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_NEAR(out->guides[0].points[i].x, sculpted.guides[0].points[i].x, 1e-5f) << i;
        EXPECT_NEAR(out->guides[0].points[i].y, sculpted.guides[0].points[i].y, 1e-5f) << i;
    }
    EXPECT_EQ(out->guides[1].points, input->guides[1].points);  // not sculpted: unchanged
}

TEST(GroomSession, NamedInputsReachTheNodesThatNameThem) {
    GroomSession session;
    groom(session, R"({"version":1,"nodes":[{"name":"guides","type":"Guides"},
        {"name":"shot","type":"Sculpt","params":{"layer":"shot12","strength":0.5}},
        {"name":"body","type":"ColliderMesh","params":{"name":"body"}}],
        "connections":[{"from":"guides","to":"shot","input":"guides"}],"output":"shot"})");
    const auto body = plane(5.0f);
    session.setCollider("body", body);
    session.setSculptData("shot12", R"({"guides":{"2":[0,0,0, 0,0,0, 0,0,1]}})");
    EXPECT_EQ(session.sculptData(), "");  // the groom's own layer is another
    EXPECT_EQ(session.sculptLayers().count("shot12"), 1u);

    const auto collider = session.evaluate({1.0, true, "body"});
    EXPECT_EQ(collider->outputs.at(0).get<ScalpMesh>(), body);
    // The layer's offset of 1 along guide 2's tip, at the node's strength of 0.5.
    const auto sculpted = session.evaluate({1.0, true, {}});
    const auto guides = sculpted->outputs.at(0).get<GuideSet>();
    ASSERT_NE(guides, nullptr);
    EXPECT_NEAR(guides->guides[1].points[2].y, 1.5f, 1e-5f);
    EXPECT_NEAR(guides->guides[1].points[1].y, 0.5f, 1e-6f);

    // Taking the layer away hands the guides on untouched.
    session.setSculptData("shot12", "");
    EXPECT_TRUE(session.sculptLayers().empty());
    const auto plain = session.evaluate({1.0, true, {}});
    EXPECT_NEAR(plain->outputs.at(0).get<GuideSet>()->guides[1].points[2].y, 1.0f, 1e-6f);
}

// The plane lifted by `lift` along +Y: the same topology, moved.
std::shared_ptr<const ScalpMesh> liftedPlane(float lift) {
    auto mesh = std::make_shared<ScalpMesh>(*plane());
    std::vector<Vec3f> points = mesh->points();
    for (Vec3f& p : points)
        p.y += lift;
    mesh->setPoints(std::move(points));
    return mesh;
}

TEST(GroomSession, FollowingAScalpCarriesTheGroomInsteadOfGrowingItAgain) {
    GroomSession still;
    groom(still, defaultGraphJson());
    const auto atRest = still.evaluate();

    GroomSession session;
    groom(session, defaultGraphJson());
    session.setRestScalp(plane());
    session.setFollowScalp(true);
    session.evaluate();
    const auto before = stamps(*session.graph());
    session.setScalp(liftedPlane(1.0f));
    const auto lifted = session.evaluate();
    // Nothing grew again: the graph still works on the rest scalp.
    EXPECT_EQ(stamps(*session.graph()), before);
    ASSERT_EQ(lifted->strands->pointCount(), atRest->strands->pointCount());
    const auto in = atRest->strands->points();
    const auto out = lifted->strands->points();
    for (std::size_t i = 0; i < in.size(); i += 97) {
        EXPECT_NEAR(out[i].x, in[i].x, 1e-5f) << i;
        EXPECT_NEAR(out[i].y, in[i].y + 1.0f, 1e-5f) << i;
        EXPECT_NEAR(out[i].z, in[i].z, 1e-5f) << i;
    }
    EXPECT_NEAR(guidePoints(*lifted, 2)[2].y, 2.0f, 1e-5f);
    // The same frame again costs nothing: the carried strands are the same value.
    EXPECT_EQ(session.evaluate()->strands, lifted->strands);

    // The carry gives the same bits at any thread count.
    const auto carriedWith = [&](int threads) {
        std::uint64_t hash = 0;
        runWithThreads(threads, [&] {
            FollowCarry carry;
            carry.prepare(plane(), liftedPlane(0.5f));
            hash = carry.carry(atRest->strands).get<StrandSet>()->contentHash();
        });
        return hash;
    };
    EXPECT_EQ(carriedWith(1), carriedWith(2));
    EXPECT_NE(carriedWith(1), atRest->strands->contentHash());

    // Off: the groom grows on the lifted scalp itself.
    session.setFollowScalp(false);
    session.evaluate();
    EXPECT_NE(stamps(*session.graph()), before);
}

TEST(GroomSession, SculptingAFollowingGroomRecordsWhereTheGraphWorks) {
    GroomSession session;
    groom(session, sculptGraph());
    session.setRestScalp(plane());
    session.setFollowScalp(true);
    session.setScalp(liftedPlane(2.0f));
    const auto input = session.sculptInput("sculpt");
    EXPECT_NEAR(input->guides[0].points[0].y, 2.0f, 1e-5f);  // shown on the lifted scalp
    GuideSet sculpted;
    sculpted.guides.push_back(input->guides[0]);
    sculpted.guides[0].points[2] = sculpted.guides[0].points[2] + Vec3f{0.25f, 0.0f, 0.0f};
    session.sculpt("sculpt", sculpted);
    const auto shown = session.evaluate()->outputs.at(0).get<GuideSet>();
    EXPECT_NEAR(shown->guides[0].points[2].x, sculpted.guides[0].points[2].x, 1e-5f);
    EXPECT_NEAR(shown->guides[0].points[2].y, sculpted.guides[0].points[2].y, 1e-5f);
    // Recorded against the rest pose: on the rest scalp the offset shows at rest height.
    session.setScalp(plane());
    const auto rest = session.evaluate()->outputs.at(0).get<GuideSet>();
    EXPECT_NEAR(rest->guides[0].points[2].y, 1.0f, 1e-5f);
    EXPECT_NEAR(rest->guides[0].points[2].x, 0.35f, 1e-5f);
}

TEST(GroomSession, SculptingACorrectiveNeedsItsWeightOnTheFrame) {
    GroomSession session;
    groom(session, defaultGraphJson());
    session.setCorrectiveData(
        R"({"layers":[{"name":"off","enabled":false},{"name":"fix","time":2,"fadeIn":2}]})");
    session.setTime(1.0);  // "fix" weighs 0.5 here
    GuideSet sculpted;
    sculpted.guides.push_back(*session.hierarchy()->findGuide(1));
    sculpted.guides[0].points[2] = {0.4f, 0.9f, 0.1f};
    expectMessage([&] { session.sculptCorrective("off", sculpted); },
                  "corrective layer 'off' has no weight on this frame: raise its weight (and key "
                  "it) to sculpt here");
    expectMessage([&] { session.sculptCorrective("gone", sculpted); },
                  "no corrective layer named 'gone'");
    session.sculptCorrective("fix", sculpted);
    const auto frame = session.evaluate();
    const std::vector<Vec3f> points = guidePoints(*frame, 1);
    ASSERT_EQ(points.size(), 3u);
    EXPECT_NEAR(points[2].x, 0.4f, 1e-5f);
    EXPECT_NEAR(points[2].y, 0.9f, 1e-5f);
    // At its own frame the layer weighs twice as much as where it was sculpted.
    const auto full = session.evaluate({2.0, true, {}});
    EXPECT_NEAR(guidePoints(*full, 1)[2].x, 0.1f + 2.0f * 0.3f, 1e-4f);
}

TEST(GroomSession, ScaleFollowsTheScalpArea) {
    GroomSession session;
    groom(session, defaultGraphJson());
    session.evaluate();
    EXPECT_DOUBLE_EQ(session.scaleReference(), 4.0);  // taken from the first measure
    EXPECT_EQ(session.scaleFactor(), 1.0);
    session.takeMessages();

    // Grown by 1.00005 in linear size: within the tolerance, no scale and no word of it.
    session.setScalp(makeUvPlane(2.0f * 1.00005f, 4));
    session.evaluate();
    EXPECT_EQ(session.scaleFactor(), 1.0);
    for (const SessionMessage& message : session.takeMessages())
        EXPECT_EQ(message.text.find("area changed"), std::string::npos) << message.text;

    session.setScalp(makeUvPlane(4.0f, 4));
    session.setGuideData(twoGuides(*session.scalp()).toJson());
    session.evaluate();
    EXPECT_NEAR(session.scaleFactor(), 2.0, 1e-6);
    bool told = false;
    for (const SessionMessage& message : session.takeMessages())
        told |= message.text ==
                "Velmorin: the scalp's area changed 300%: the groom scaled x2.00. Set Scale "
                "Reference to keep its sizes.";
    EXPECT_TRUE(told);

    session.setScaleMode(ScaleMode::Off);
    session.evaluate();
    EXPECT_EQ(session.scaleFactor(), 1.0);

    // Measured: the host's measure against the first one, as a plain ratio and without a word.
    session.setScaleMode(ScaleMode::Measured);
    session.setScaleReference(0.0);
    session.evaluate();
    EXPECT_EQ(session.scaleFactor(), 1.0);  // no measure yet
    session.setScaleMeasure(2.0);
    session.evaluate();
    EXPECT_EQ(session.scaleReference(), 2.0);
    EXPECT_EQ(session.scaleFactor(), 1.0);
    session.setScaleMeasure(3.0);
    session.takeMessages();
    session.evaluate();
    EXPECT_DOUBLE_EQ(session.scaleFactor(), 1.5);
    EXPECT_TRUE(session.takeMessages().empty());
    // The guides follow: guide 2's tip stands 1.5 above the scalp.
    EXPECT_NEAR(guidePoints(*session.frame(), 2)[2].y, 1.5f, 1e-5f);
}

TEST(GroomSession, DetachedEvaluationHandsOverItsResultsAndItsFailureOnce) {
    GroomSession session;
    groom(session, defaultGraphJson());
    session.startDetached({1.0, true, {}});
    EXPECT_TRUE(session.detachedRunning());
    const auto frame = session.evaluate({1.0, true, {}});
    EXPECT_FALSE(session.detachedRunning());
    ASSERT_NE(frame->strands, nullptr);
    // Taken over from the detached run: the live graph never ran its Scatter.
    const Graph& graph = *session.graph();
    EXPECT_EQ(graph.runs.count(graph.nodeId("scatter")), 0u);

    // A node that fails: the failure comes with the next evaluate, once.
    Json doc = Json::parse(session.graphJson());
    doc["nodes"].push_back(
        {{"name", "picky"}, {"type", "Guides"}, {"params", {{"group", "nope"}}}});
    session.setGraph(doc.dump());
    session.startDetached({1.0, true, "picky"});
    EXPECT_THROW(session.evaluate({1.0, true, {}}), GraphError);
    EXPECT_NE(session.evaluate({1.0, true, {}}), nullptr);
    // An evaluation for another time leaves the live session as it was.
    const std::uint64_t edits = session.edits();
    EXPECT_FALSE(session.evaluateDetached({7.0, true, {}}).empty());
    EXPECT_EQ(session.time(), 1.0);
    EXPECT_EQ(session.edits(), edits);
}

TEST(GroomSession, HairLookReadsTheColourNodesThatReachTheOutput) {
    GroomSession session;
    // Without a graph, or without colour nodes, the look is HairColor's defaults.
    Json bare = session.hairLookJson();
    EXPECT_EQ(keyList(bare),
              "melanin specular roughness specularRandom roughnessRandom tilt colorsByRgb "
              "colorBlends iridescent iridescenceColor iridescenceShift lobes specularTint "
              "azimuthalRoughness shift hairColorParams renderDataParams colorNodes");
    EXPECT_TRUE(bare["hairColorParams"].is_null());
    EXPECT_FLOAT_EQ(bare["specularTint"].get<float>(), 1.0f);

    // A chain of colour nodes; "unused" does not reach the output and is not read.
    session.setGraph(R"({"version":1,"nodes":[{"name":"scalp","type":"Scalp"},
        {"name":"scatter","type":"Scatter"},
        {"name":"hair","type":"HairColor","params":{"mode":"color","specular":0.15,
            "roughness":0.5,"tilt":4}},
        {"name":"bands","type":"Bands"},
        {"name":"feathers","type":"FeatherColor","params":{"iridescence":0.5,
            "iridescenceColor":[0.2,0.3,0.4],"iridescenceShift":0.1}},
        {"name":"opacity","type":"RenderData"},
        {"name":"unused","type":"FeatherColor","params":{"iridescence":1}},
        {"name":"output","type":"Output"}],
        "connections":[{"from":"scalp","to":"scatter","input":"scalp"},
            {"from":"scatter","to":"hair","input":"strands"},
            {"from":"hair","to":"bands","input":"strands"},
            {"from":"bands","to":"feathers","input":"strands"},
            {"from":"feathers","to":"opacity","input":"strands"},
            {"from":"opacity","to":"output","input":"strands"}],
        "output":"output"})");
    const HairLook look = session.hairLook();
    EXPECT_TRUE(look.colorsByRgb);
    EXPECT_FLOAT_EQ(look.specularTint, 0.5f);
    EXPECT_FLOAT_EQ(look.roughness, 0.5f);
    EXPECT_EQ(look.colorBlends, 2u);
    EXPECT_TRUE(look.iridescent);
    EXPECT_FLOAT_EQ(look.iridescenceColor.z, 0.4f);
    EXPECT_FLOAT_EQ(look.iridescenceShift, 0.1f);
    const float tilt = 4.0f * 3.14159265f / 180.0f;
    EXPECT_NEAR(look.lobes[2], tilt, 1e-6f);
    EXPECT_NEAR(look.shift, 2.0f * tilt, 1e-6f);
    // A broader highlight is a wider lobe.
    EXPECT_GT(look.lobes[0], 0.0f);
    EXPECT_FLOAT_EQ(look.lobes[3], 1.55f);
    EXPECT_EQ(look.colorNodes, (std::vector<std::string>{"feathers", "bands", "hair"}));
    EXPECT_TRUE(look.renderDataParams.is_object());
    EXPECT_EQ(session.stats().colorBlends, 2u);
}
}  // namespace
}  // namespace velmorin
