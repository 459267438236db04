#include <gtest/gtest.h>

#include "graph/graph.h"
#include "graph/test/eval_operators.h"
#include "strands/guide.h"

namespace velmorin {
namespace {

using test::addChain;
using test::addTestNode;
using test::moved;
using test::operatorAs;
using test::strandsOf;

// Restores the process-wide switches whatever a test did with them.
struct SwitchesRestored {
    ~SwitchesRestored() {
        setIncrementalEvaluation(true);
        setStrandDiffing(true);
        setIncrementalCheck(false);
    }
};

// scene -> liftA -> liftB over a scene input "groom" of 64 strands.
struct SceneChain {
    Graph graph;
    SceneInputs scene;
    EvalContext ctx;
    std::uint32_t source, liftA, liftB;

    SceneChain() {
        std::tie(source, liftA, liftB) = std::tuple_cat(addChain(
            graph, {{"EvalScene", "scene"}, {"EvalLift", "liftA"}, {"EvalLift", "liftB"}}));
        setGroom(test::gridStrands(64, 5, 3), 1);
        ctx.sceneInputs = &scene;
    }
    void setGroom(std::shared_ptr<const StrandSet> strands, std::uint64_t key) {
        scene["groom"] = SceneInput{Value(std::move(strands)), key};
    }
    std::shared_ptr<const StrandSet> groom() const {
        return scene.at("groom").value.get<StrandSet>();
    }
    std::shared_ptr<const StrandSet> run() { return strandsOf(graph.evaluate(liftB, ctx)); }
};

// The message of the GraphError that `work` throws, or "no error".
template <class Work>
std::string graphError(Work&& work) {
    try {
        work();
    } catch (const GraphError& error) {
        return error.what();
    }
    return "no error";
}

std::uint64_t keyOf(const Graph& graph, std::uint32_t id, const EvalContext& ctx) {
    std::unordered_map<std::uint32_t, std::uint64_t> keys, localKeys;
    return graph.nodeKey(id, ctx, keys, localKeys);
}

TEST(GraphEval, NothingChangedRunsNothingAndATailChangeRunsTheTail) {
    SceneChain chain;
    const auto first = chain.run();
    EXPECT_EQ(chain.graph.runs.size(), 3u);
    chain.graph.runs.clear();
    EXPECT_EQ(chain.run(), first);
    EXPECT_TRUE(chain.graph.runs.empty());
    EXPECT_EQ(operatorAs<test::SceneOp>(chain.graph, chain.source).fullRuns, 1);
    EXPECT_EQ(chain.graph.evaluations, 2u);
    for (std::uint32_t id : chain.graph.nodeIds())
        EXPECT_EQ(chain.graph.node(id).runtime.lastUsed, 2u);

    const std::uint64_t stampA = chain.graph.node(chain.liftA).runtime.stamp;
    chain.graph.operatorOf(chain.liftB).paramSet.set("amount", 2.0);
    const auto result = chain.run();
    // Its inputs are known unchanged, so its new result is compared with its old one.
    EXPECT_EQ(chain.graph.runs, (std::map<std::uint32_t, std::string>{{chain.liftB, "full 64"}}));
    EXPECT_EQ(chain.graph.node(chain.liftA).runtime.stamp, stampA);
    EXPECT_EQ(operatorAs<test::LiftOp>(chain.graph, chain.liftA).fullRuns, 1);
    EXPECT_FLOAT_EQ(result->points()[0].y, 2.5f);  // 0.5 from liftA, 2 from liftB
}

TEST(GraphEval, ChangedStrandsRunIncrementallyDownstream) {
    SwitchesRestored restore;
    SceneChain chain;
    chain.graph.operatorOf(chain.liftA).paramSet.set("warn", true);
    chain.run();
    const auto firstTimes = chain.graph.times;
    chain.setGroom(moved(*chain.groom(), {3, 17, 40}, 1.0f), 2);
    const auto result = chain.run();
    EXPECT_EQ(chain.graph.runs[chain.source], "full 3");
    EXPECT_EQ(chain.graph.runs[chain.liftA], "incremental 3");
    EXPECT_EQ(chain.graph.runs[chain.liftB], "incremental 3");
    EXPECT_EQ(chain.graph.incrementalRuns, 2u);
    EXPECT_EQ(chain.graph.lastTimes, firstTimes);
    EXPECT_EQ(operatorAs<test::LiftOp>(chain.graph, chain.liftB).incrementalRuns, 1);
    // An incremental run that says nothing leaves the note of the full run before it.
    EXPECT_EQ(chain.graph.notes[chain.liftA], "lift warns");

    // The same bits as a graph that never ran before.
    SceneChain fresh;
    fresh.setGroom(chain.groom(), 2);
    EXPECT_EQ(result->contentHash(), fresh.run()->contentHash());

    // Without diffing the source can't say what changed, and everything runs in full.
    setStrandDiffing(false);
    chain.setGroom(moved(*chain.groom(), {5}, 1.0f), 3);
    chain.run();
    EXPECT_EQ(chain.graph.runs[chain.source], "full");
    EXPECT_EQ(chain.graph.runs[chain.liftA], "full");
    EXPECT_EQ(chain.graph.incrementalRuns, 2u);

    // With the switch off, nothing runs incrementally even when the changes are known.
    setStrandDiffing(true);
    setIncrementalEvaluation(false);
    chain.setGroom(moved(*chain.groom(), {6}, 1.0f), 4);
    chain.run();
    EXPECT_EQ(chain.graph.runs[chain.liftA], "full 1");
    EXPECT_EQ(chain.graph.incrementalRuns, 2u);
}

// An incremental run updates a last result that nothing outside the graph holds where it lies,
// and never writes into one that a caller still holds.
TEST(GraphEval, AnIncrementalRunTakesOverOnlyAResultNobodyElseHolds) {
    SceneChain chain;
    chain.run();
    const auto pointsOf = [&](std::uint32_t id) {
        return chain.graph.node(id).runtime.results[0].get<StrandSet>()->points().data();
    };
    const Vec3f* const unheldA = pointsOf(chain.liftA);
    const Vec3f* const unheldB = pointsOf(chain.liftB);
    chain.setGroom(moved(*chain.groom(), {3, 17}, 1.0f), 2);
    const auto held = chain.run();
    ASSERT_EQ(chain.graph.runs[chain.liftB], "incremental 2");
    EXPECT_EQ(pointsOf(chain.liftA), unheldA);
    EXPECT_EQ(held->points().data(), unheldB);

    const std::vector<Vec3f> heldPoints(held->points().begin(), held->points().end());
    chain.setGroom(moved(*chain.groom(), {5}, 1.0f), 3);
    const auto next = chain.run();
    ASSERT_EQ(chain.graph.runs[chain.liftB], "incremental 1");
    EXPECT_NE(next->points().data(), held->points().data());
    EXPECT_TRUE(std::equal(heldPoints.begin(), heldPoints.end(), held->points().begin()));
    SceneChain fresh;
    fresh.setGroom(chain.groom(), 3);
    EXPECT_EQ(next->contentHash(), fresh.run()->contentHash());
}

TEST(GraphEval, IncrementalCheckNamesWhatAnIncrementalRunGotWrong) {
    SwitchesRestored restore;
    setIncrementalCheck(true);
    const auto failure = [](std::int64_t fault, float dy, bool fork) -> std::string {
        SceneChain chain;
        if (fork) {
            chain.liftB = addTestNode(chain.graph, "EvalFork", "fork");
            chain.graph.connect(chain.liftA, chain.liftB, 0);
        }
        chain.graph.operatorOf(chain.liftB).paramSet.set("fault", fault);
        chain.run();  // the first frame runs in full
        chain.setGroom(moved(*chain.groom(), {2, 9, 33}, dy), 2);
        return graphError([&] { chain.run(); });
    };
    EXPECT_EQ(failure(0, 1.0f, false), "no error");
    EXPECT_EQ(failure(1, 1.0f, false),
              "EvalLift evaluated incrementally: strand 33 changed but is not listed as changed");
    EXPECT_EQ(failure(2, 1.0f, false),
              "EvalLift evaluated incrementally: its strands differ from a full evaluation's");
    EXPECT_EQ(failure(3, 1.0f, false),
              "EvalLift evaluated incrementally: it lists a strand past the set's end");
    EXPECT_EQ(failure(4, 500.0f, false),
              "EvalLift evaluated incrementally: it says only some strands changed, but the set's "
              "layout did");
    EXPECT_EQ(failure(1, 1.0f, true),
              "EvalFork evaluated incrementally: output 'lifted' strand 33 changed but is not "
              "listed as changed");

    // A type the registry doesn't know is checked on the node's own operator.
    SceneChain local;
    local.liftB = addTestNode(local.graph, std::make_unique<test::LocalLiftOp>(), "local");
    local.graph.connect(local.liftA, local.liftB, 0);
    local.graph.operatorOf(local.liftB).paramSet.set("fault", std::int64_t{1});
    local.run();
    local.setGroom(moved(*local.groom(), {4, 8}, 1.0f), 2);
    EXPECT_EQ(graphError([&] { local.run(); }),
              "EvalLocalLift evaluated incrementally: strand 8 changed but is not listed as "
              "changed");
}

TEST(GraphEval, SilentNodesAreKeyedAndRunLikeAPassThrough) {
    SceneChain chain;
    chain.graph.setBypass(chain.liftA, true);
    chain.run();
    EXPECT_EQ(chain.graph.runs[chain.liftA], "bypass");
    EXPECT_EQ(operatorAs<test::LiftOp>(chain.graph, chain.liftA).fullRuns, 0);
    EXPECT_EQ(strandsOf(chain.graph.cachedResults(chain.liftA)), chain.groom());

    // A bypassed node's params are not part of its key: nothing downstream runs again.
    chain.graph.runs.clear();
    chain.graph.operatorOf(chain.liftA).paramSet.set("amount", 3.0);
    chain.run();
    EXPECT_TRUE(chain.graph.runs.empty());

    // renderOnly in the viewport is keyed like the bypass; a render runs it.
    chain.graph.setBypass(chain.liftA, false);
    chain.graph.setEvaluation(chain.liftA, EvaluationMode::RenderOnly);
    chain.graph.runs.clear();
    chain.run();
    EXPECT_TRUE(chain.graph.runs.empty());
    chain.ctx.viewport = false;
    const auto rendered = chain.run();
    EXPECT_EQ(chain.graph.runs[chain.liftA], "full 64");
    EXPECT_FLOAT_EQ(rendered->points()[0].y, 3.5f);
    chain.graph.setEvaluation(chain.liftA, EvaluationMode::ViewportOnly);
    chain.run();
    EXPECT_EQ(chain.graph.runs[chain.liftA], "bypass");

    // With nothing to hand on, a bypassed node runs nothing and yields nothing.
    Graph alone;
    const std::uint32_t lift = addTestNode(alone, "EvalLift", "lift");
    alone.setBypass(lift, true);
    const std::vector<Value> results = alone.evaluate(lift, {});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_TRUE(results[0].empty());
    EXPECT_EQ(operatorAs<test::LiftOp>(alone, lift).fullRuns, 0);
}

TEST(GraphEval, SwitchRunsOnlyItsSelectedInputKeysBothAndAnUnchangedResultKeepsItsStamp) {
    Graph graph;
    const auto [a, choose, lift] =
        addChain(graph, {{"EvalGrow", "a"}, {"EvalSwitch", "choose"}, {"EvalLift", "lift"}});
    const std::uint32_t b = addTestNode(graph, "EvalGrow", "b");
    graph.connect(b, choose, 1);
    graph.evaluate(lift, {});
    EXPECT_EQ(operatorAs<test::GrowOp>(graph, b).fullRuns, 0);

    // A new label changes the key, not the result: the stamp stays and downstream updates nothing.
    const std::uint64_t stamp = graph.node(choose).runtime.stamp;
    graph.operatorOf(choose).paramSet.set("label", std::string("renamed"));
    graph.evaluate(lift, {});
    EXPECT_EQ(graph.runs[choose], "full 0");
    EXPECT_EQ(graph.node(choose).runtime.stamp, stamp);
    EXPECT_EQ(graph.runs[lift], "incremental 0");
    EXPECT_EQ(operatorAs<test::LiftOp>(graph, lift).fullRuns, 1);

    graph.operatorOf(b).paramSet.set("count", std::int64_t{5});
    const std::uint64_t before = graph.node(choose).runtime.key;
    graph.evaluate(lift, {});
    EXPECT_NE(graph.node(choose).runtime.key, before);
    EXPECT_EQ(operatorAs<test::GrowOp>(graph, b).fullRuns, 0);

    graph.operatorOf(choose).paramSet.set("select", std::int64_t{1});
    EXPECT_EQ(strandsOf(graph.evaluate(lift, {}))->strandCount(), 5u);
    EXPECT_EQ(operatorAs<test::GrowOp>(graph, b).fullRuns, 1);
}

TEST(GraphEval, KeysFollowWhatAResultDependsOn) {
    SceneChain chain;
    const EvalContext& ctx = chain.ctx;
    const std::uint64_t key = keyOf(chain.graph, chain.liftB, ctx);
    EXPECT_EQ(keyOf(chain.graph, chain.liftB, ctx), key);

    EvalContext preview = ctx;
    preview.previewDensity = 0.5;
    EXPECT_NE(keyOf(chain.graph, chain.liftB, preview), key);

    // An upstream change moves the key but not the node's own part of it.
    std::unordered_map<std::uint32_t, std::uint64_t> keys, localKeys;
    chain.graph.nodeKey(chain.liftB, ctx, keys, localKeys);
    chain.setGroom(chain.groom(), 99);
    std::unordered_map<std::uint32_t, std::uint64_t> keys2, localKeys2;
    chain.graph.nodeKey(chain.liftB, ctx, keys2, localKeys2);
    EXPECT_NE(keys2[chain.liftB], keys[chain.liftB]);
    EXPECT_EQ(localKeys2[chain.liftB], localKeys[chain.liftB]);
    EXPECT_NE(localKeys2[chain.source], localKeys[chain.source]);  // the scene input is its own

    // A saved version counts only when it differs from the operator's own.
    Operator& op = chain.graph.operatorOf(chain.liftB);
    const std::uint64_t current = keyOf(chain.graph, chain.liftB, ctx);
    op.savedVersion = op.version();
    EXPECT_EQ(keyOf(chain.graph, chain.liftB, ctx), current);
    op.savedVersion = op.version() + 1;
    EXPECT_NE(keyOf(chain.graph, chain.liftB, ctx), current);
    op.savedVersion = 0;

    // A keyed param follows its control's value, which the host hands in as a scene input.
    chain.graph.keyParam(chain.liftB, "amount", {"height"});
    const std::uint64_t unset = keyOf(chain.graph, chain.liftB, ctx);
    chain.scene["control:height"] = SceneInput{Value(), 5};
    const std::uint64_t five = keyOf(chain.graph, chain.liftB, ctx);
    EXPECT_NE(five, unset);
    chain.scene["control:height"].key = 6;
    EXPECT_NE(keyOf(chain.graph, chain.liftB, ctx), five);
}

TEST(GraphEval, ParamInputsDeliverValuesAndRefuseWhatTheyCantTake) {
    Graph graph;
    const auto [grow, lift] = addChain(graph, {{"EvalGrow", "grow"}, {"EvalLift", "lift"}});
    const std::uint32_t value = addTestNode(graph, "EvalValue", "value");
    graph.exposeParam(lift, "amount");
    graph.connect(value, lift, 1);
    graph.operatorOf(value).paramSet.set("number", 2.0);
    EXPECT_FLOAT_EQ(strandsOf(graph.evaluate(lift, {}))->points()[0].y, 2.0f);
    graph.operatorOf(value).paramSet.set("number", 3.0);
    EXPECT_FLOAT_EQ(strandsOf(graph.evaluate(lift, {}))->points()[0].y, 3.0f);

    // A keyed param takes its control's value, not what the connection brings.
    graph.keyParam(lift, "amount", {"height"});
    graph.operatorOf(value).paramSet.set("number", 7.0);
    EXPECT_FLOAT_EQ(strandsOf(graph.evaluate(lift, {}))->points()[0].y, 3.0f);
    graph.unkeyParam(lift, "amount");

    // `every` sets which strands there are to lift: it takes one value, fixed over time.
    graph.exposeParam(lift, "every");
    const std::uint32_t liar = addTestNode(graph, "EvalLiar", "liar");
    graph.connect(liar, lift, 2);
    EXPECT_EQ(graphError([&] { graph.evaluate(lift, {}); }),
              "lift param 'every' takes one value for the whole node, not a value per "
              "strand or a curve");
    const std::uint32_t timed = addTestNode(graph, "EvalValue", "timed");
    graph.operatorOf(timed).paramSet.set("timed", true);
    graph.connect(timed, lift, 2);
    EXPECT_EQ(graphError([&] { graph.evaluate(lift, {}); }),
              "lift param 'every' cannot take a value that changes over time (an "
              "expression of the frame, a keyed value): it sets how many strands, "
              "points or cards there are, or where they go, which must stay the same on "
              "every frame");
    // `amount` may change over time.
    graph.disconnect(lift, 2);
    graph.connect(timed, lift, 1);
    EXPECT_NO_THROW(graph.evaluate(lift, {}));
}

TEST(GraphEval, OneValueIntoAFieldPortBecomesAConstantField) {
    const auto probe = [](const std::string& kind, double number) {
        Graph graph;
        const auto [grow, probe] = addChain(graph, {{"EvalGrow", "grow"}, {"EvalProbe", "probe"}});
        const std::uint32_t value = addTestNode(graph, "EvalValue", "value");
        graph.operatorOf(value).paramSet.set("kind", kind);
        graph.operatorOf(value).paramSet.set("number", number);
        graph.connect(value, probe, 1);
        const auto strands = strandsOf(graph.evaluate(probe, {}));
        return std::vector<float>{(*strands->strandChannel("probe"))[0],
                                  (*strands->strandChannel("probeColor"))[0],
                                  (*strands->strandChannel("probeEmpty"))[0]};
    };
    EXPECT_EQ(probe("bool", 1.0), (std::vector<float>{1, 0, 0}));
    EXPECT_EQ(probe("bool", 0.0), (std::vector<float>{0, 0, 0}));
    EXPECT_EQ(probe("integer", 3.0), (std::vector<float>{3, 0, 0}));
    EXPECT_EQ(probe("number", 0.25), (std::vector<float>{0.25f, 0, 0}));
    EXPECT_EQ(probe("vec3", 1.0)[1], 1.0f);
    EXPECT_EQ(probe("text", 1.0), (std::vector<float>{0, 0, 1}));
}

TEST(GraphEval, GuidesOnACurvesStream) {
    Graph graph;
    const auto [guides, curves] =
        addChain(graph, {{"EvalGuides", "guides"}, {"EvalCurves", "curves"}});
    const auto made = graph.evaluate(curves, {})[0].get<GuideSet>();
    ASSERT_TRUE(made);
    ASSERT_EQ(made->guides.size(), 3u);
    for (std::size_t g = 0; g < 3; ++g) {
        EXPECT_EQ(made->guides[g].id, 1000 + g);
        EXPECT_FLOAT_EQ(made->guides[g].points[1].y, 2.0f);
        EXPECT_TRUE(made->guides[g].attributes.empty());  // no "_preview"
    }
    graph.setBypass(curves, true);
    EXPECT_EQ(graph.evaluate(curves, {})[0], graph.cachedResults(guides)[0]);
    graph.setBypass(curves, false);

    // Guides into a Strands input are refused with the names of both ends.
    const std::uint32_t lift = addTestNode(graph, "EvalLift", "lift");
    graph.connect(curves, lift, 0);
    EXPECT_EQ(graphError([&] { graph.evaluate(lift, {}); }),
              "node 'lift': EvalLift input 'strands' takes strands but gets guides "
              "from the node before it");
}

TEST(GraphEval, AffectBypassesMixesOrLeavesTheResult) {
    Graph graph;
    const auto [grow, lift] = addChain(graph, {{"EvalGrow", "grow"}, {"EvalLift", "lift"}});
    ParamSet& params = graph.operatorOf(lift).paramSet;
    params.set("amount", 1.0);

    params.set("affect", 0.0);
    const auto none = graph.evaluate(lift, {});
    EXPECT_EQ(graph.runs[lift], "bypass");
    EXPECT_EQ(none[0], graph.cachedResults(grow)[0]);

    params.set("affect", 0.25);
    const auto quarter = strandsOf(graph.evaluate(lift, {}));
    EXPECT_FLOAT_EQ(quarter->points()[1].y, 0.1f + 0.25f);

    // A field weighs each point: here 0, 0.25, 0.5, 0.75 along every strand.
    graph.exposeParam(lift, "affect");
    const std::uint32_t field = addTestNode(graph, "EvalField", "field");
    graph.operatorOf(field).paramSet.set("step", 0.25);
    graph.connect(field, lift, 1);
    const auto mapped = strandsOf(graph.evaluate(lift, {}));
    for (std::size_t p = 0; p < 4; ++p)
        EXPECT_FLOAT_EQ(mapped->points()[p].y, 0.1f * static_cast<float>(p) + 0.25f * p) << p;

    // A node that changes the strand count keeps its whole result, and says so.
    const std::uint32_t thin = addTestNode(graph, "EvalThin", "thin");
    graph.connect(grow, thin, 0);
    graph.operatorOf(thin).paramSet.set("affect", 0.5);
    graph.operatorOf(thin).paramSet.set("warn", true);
    EXPECT_EQ(strandsOf(graph.evaluate(thin, {}))->strandCount(), 8u);
    EXPECT_EQ(graph.notes[thin],
              "thin warns\naffect is not applied: this node changes how many strands or points "
              "there are");
    graph.operatorOf(thin).paramSet.set("affect", 1.0);
    graph.operatorOf(thin).paramSet.set("warn", false);
    graph.evaluate(thin, {});
    EXPECT_EQ(graph.notes.count(thin), 0u);
}

TEST(GraphEval, NotesFromParallelLoopsWrongOutputsAndUnknownNodes) {
    Graph graph;
    const auto [grow, lift] = addChain(graph, {{"EvalGrow", "grow"}, {"EvalLift", "lift"}});
    graph.operatorOf(grow).paramSet.set("count", std::int64_t{2000});
    graph.operatorOf(lift).paramSet.set("warn", true);
    runWithThreads(2, [&] { graph.evaluate(lift, {}); });
    EXPECT_EQ(graph.notes[lift], "lift warns");

    const std::uint32_t broken = addTestNode(graph, "EvalBroken", "broken");
    graph.connect(lift, broken, 0);
    const std::uint64_t liftStamp = graph.node(lift).runtime.stamp;
    EXPECT_EQ(graphError([&] { graph.evaluate(broken, {}); }),
              "EvalBroken made 1 values for 2 outputs");
    // The nodes that finished keep their state; the failing one has nothing.
    EXPECT_TRUE(graph.node(lift).runtime.valid);
    EXPECT_EQ(graph.node(lift).runtime.stamp, liftStamp);
    EXPECT_FALSE(graph.node(broken).runtime.valid);
    EXPECT_EQ(graph.runs.count(broken), 0u);

    EXPECT_EQ(graph.outputSlot(broken, "same"), 1u);
    EXPECT_EQ(graphError([&] { graph.outputSlot(broken, "tips"); }),
              "broken has no output 'tips' (lifted, same)");
    EXPECT_EQ(graphError([&] { graph.evaluate(99, {}); }), "unknown node 99");
    EXPECT_EQ(graphError([&] { graph.evaluateOutput({}); }), "the graph has no output node");
}

TEST(GraphEval, PreviewMarksLeaveTheOutputAndTheCopyIsReused) {
    Graph graph;
    const std::uint32_t grow = addTestNode(graph, "EvalGrow", "grow");
    graph.operatorOf(grow).paramSet.set("preview", true);
    const auto first = strandsOf(graph.evaluate(grow, {}));
    EXPECT_EQ(first->strandChannel("_preview"), nullptr);
    EXPECT_NE(strandsOf(graph.cachedResults(grow))->strandChannel("_preview"), nullptr);
    EXPECT_EQ(strandsOf(graph.evaluate(grow, {})), first);
    EvalContext keep;
    keep.keepPreviewMarks = true;
    EXPECT_NE(strandsOf(graph.evaluate(grow, keep))->strandChannel("_preview"), nullptr);
}

TEST(GraphEval, AdoptedAndAlwaysFreshResults) {
    SceneChain chain;
    chain.run();
    // A result adopted under a node's new key is installed without running the node.
    chain.graph.operatorOf(chain.liftB).paramSet.set("amount", 4.0);
    const std::uint64_t key = keyOf(chain.graph, chain.liftB, chain.ctx);
    const auto offered = test::gridStrands(2, 2, 11);
    chain.graph.adopted[key] = {Value(offered)};
    chain.graph.runs.clear();
    EXPECT_EQ(chain.run(), offered);
    EXPECT_TRUE(chain.graph.runs.empty());
    EXPECT_TRUE(chain.graph.adopted.empty());

    Graph graph;
    SceneInputs scene{{"groom", {Value(test::gridStrands(3, 2, 1)), 1}}};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    const std::uint32_t fresh = addTestNode(graph, "EvalFresh", "fresh");
    graph.evaluate(fresh, ctx);
    const std::uint64_t stamp = graph.node(fresh).runtime.stamp;
    graph.evaluate(fresh, ctx);
    EXPECT_EQ(operatorAs<test::FreshOp>(graph, fresh).fullRuns, 2);
    EXPECT_EQ(graph.node(fresh).runtime.stamp, stamp);  // it made the same set again
}

TEST(GraphEval, WithoutTheCacheNothingIsStored) {
    Graph graph;
    const auto [grow, liftA, merge] =
        addChain(graph, {{"EvalGrow", "grow"}, {"EvalLift", "liftA"}, {"EvalMerge", "merge"}});
    const std::uint32_t liftB = addTestNode(graph, "EvalLift", "liftB");
    graph.connect(grow, liftB, 0);
    graph.connect(liftB, merge, 1);
    const std::uint64_t cached = strandsOf(graph.evaluate(merge, {}))->contentHash();

    graph.setCachingEnabled(false);
    graph.adopted[1] = {};
    const auto uncached = strandsOf(graph.evaluate(merge, {}));
    EXPECT_EQ(uncached->contentHash(), cached);
    EXPECT_EQ(uncached->strandCount(), 32u);
    for (std::uint32_t id : graph.nodeIds())
        EXPECT_FALSE(graph.node(id).runtime.valid);
    EXPECT_TRUE(graph.adopted.empty());
    // The diamond's shared source ran once.
    EXPECT_EQ(operatorAs<test::GrowOp>(graph, grow).fullRuns, 2);
}

}  // namespace
}  // namespace velmorin
