#include "graph/detached_evaluation.h"

#include <gtest/gtest.h>

#include "graph/test/eval_operators.h"

namespace velmorin {
namespace {

using test::addTestNode;
using test::operatorAs;
using test::strandsOf;

// grow -> state -> liftA -> wave -> liftB over 20000 strands: enough for several chunks of a
// parallel loop, with a node that reads time and one with run-time state.
struct Groom {
    Graph graph;
    std::uint32_t grow, state, liftA, wave, liftB;
    Groom() {
        std::tie(grow, state, liftA, wave, liftB) =
            std::tuple_cat(test::addChain(graph, {{"EvalGrow", "grow"},
                                                  {"EvalState", "state"},
                                                  {"EvalLift", "liftA"},
                                                  {"EvalWave", "wave"},
                                                  {"EvalLift", "liftB"}}));
        graph.operatorOf(grow).paramSet.set("count", std::int64_t{20000});
        graph.operatorOf(liftA).paramSet.set("every", std::int64_t{3});
        dynamic_cast<test::StateOp&>(graph.operatorOf(state)).setOffset(0.25f);
        graph.setOutput(liftB);
    }
};

EvalContext atTime(double time) {
    EvalContext ctx;
    ctx.time = time;
    return ctx;
}

TEST(DetachedEvaluation, SameBitsAtAnyThreadCountWithOrWithoutTheCache) {
    std::vector<std::uint64_t> hashes;
    for (int threads : {1, 2}) {
        for (bool caching : {true, false}) {
            Groom groom;
            groom.graph.setCachingEnabled(caching);
            runWithThreads(threads, [&] {
                hashes.push_back(strandsOf(groom.graph.evaluateOutput(atTime(2)))->contentHash());
            });
        }
    }
    Groom groom;
    auto detached = DetachedEvaluation::start(groom.graph, groom.liftB, atTime(2));
    hashes.push_back(strandsOf(detached->results())->contentHash());
    for (std::uint64_t hash : hashes)
        EXPECT_EQ(hash, hashes.front());
    // The clone took over the operator's run-time state: an offset of 0.25 along z.
    EXPECT_FLOAT_EQ(strandsOf(detached->results())->points()[0].z,
                    test::gridStrands(20000, 4, 1)->points()[0].z + 0.25f);
}

TEST(DetachedEvaluation, ItsResultsAreAdoptedBackIntoTheGraph) {
    Groom groom;
    groom.graph.evaluateOutput(atTime(1));
    auto detached = DetachedEvaluation::start(groom.graph, groom.liftB, atTime(2));
    // The host goes on with the graph while the clone runs: they share only immutable values.
    groom.graph.evaluateOutput(atTime(3));
    const std::vector<Value> results = detached->results();
    EXPECT_TRUE(detached->done());
    EXPECT_EQ(detached->counters().evaluations, 1u);
    // The original ran none of it: only the nodes after the time-reading one are new to it.
    EXPECT_EQ(operatorAs<test::WaveOp>(groom.graph, groom.wave).fullRuns, 2);
    EXPECT_EQ(detached->adoptInto(groom.graph), 2u);
    groom.graph.runs.clear();
    const std::vector<Value> adopted = groom.graph.evaluateOutput(atTime(2));
    EXPECT_EQ(adopted[0], results[0]);
    EXPECT_TRUE(groom.graph.runs.empty());
    EXPECT_TRUE(groom.graph.adopted.empty());
    EXPECT_EQ(operatorAs<test::WaveOp>(groom.graph, groom.wave).fullRuns, 2);
}

TEST(DetachedEvaluation, AFollowerContinuesFromTheOneBeforeOrFailsWithIt) {
    Groom groom;
    auto first = DetachedEvaluation::start(groom.graph, groom.liftB, atTime(1));
    auto second = DetachedEvaluation::start(groom.graph, groom.liftB, atTime(2), std::move(first));
    const Graph& clone = second->graph();
    // Only the nodes that read time ran in the follower: the rest came from the first run.
    EXPECT_EQ(operatorAs<test::GrowOp>(clone, groom.grow).fullRuns, 0);
    EXPECT_EQ(clone.runs.size(), 2u);
    EXPECT_EQ(second->counters().evaluations, 2u);
    Groom reference;
    EXPECT_EQ(strandsOf(second->results())->contentHash(),
              strandsOf(reference.graph.evaluateOutput(atTime(2)))->contentHash());

    // A failure of the first run is the follower's too.
    const std::uint32_t broken = addTestNode(groom.graph, "EvalBroken", "broken");
    groom.graph.connect(groom.liftB, broken, 0);
    auto failing = DetachedEvaluation::start(groom.graph, broken, atTime(3));
    auto follower =
        DetachedEvaluation::start(groom.graph, groom.liftB, atTime(3), std::move(failing));
    EXPECT_TRUE(follower->failure());
    try {
        follower->results();
        ADD_FAILURE() << "the follower did not fail";
    } catch (const GraphError& error) {
        EXPECT_STREQ(error.what(), "EvalBroken made 1 values for 2 outputs");
    }
    EXPECT_THROW(DetachedEvaluation::start(groom.graph, 77, {}), GraphError);
}

}  // namespace
}  // namespace velmorin
