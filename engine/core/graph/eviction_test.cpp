#include <gtest/gtest.h>

#include "graph/graph.h"
#include "graph/test/eval_operators.h"

namespace velmorin {
namespace {

using test::addChain;

TEST(CacheLimit, ParsesMegabytesAndFallsBackOnTheDefault) {
    EXPECT_EQ(parseCacheLimit("0"), 0u);
    EXPECT_EQ(parseCacheLimit("1"), 1048576u);
    EXPECT_EQ(parseCacheLimit("1.5"), 1572864u);
    EXPECT_EQ(parseCacheLimit("2e1"), 20971520u);
    EXPECT_EQ(parseCacheLimit("4096"), 4294967296u);
    for (const char* bad : {"", "-1", "abc", "12MB", " 5", "5 ", "0x10", "inf", "nan", "1e400"})
        EXPECT_EQ(parseCacheLimit(bad), kDefaultCacheLimit) << '"' << bad << '"';
    EXPECT_EQ(parseCacheLimit(nullptr), kDefaultCacheLimit);
    EXPECT_EQ(Graph().cacheLimit, cacheLimitFromEnvironment());
}

// grow -> lift (-> lift...) over 1000 strands of 4 points: each lift owns its points and shares
// every other column with grow.
template <std::size_t N>
std::array<std::uint32_t, N> liftChain(Graph& graph, const test::NodeSpec (&nodes)[N]) {
    const auto ids = addChain(graph, nodes);
    graph.operatorOf(ids[0]).paramSet.set("count", std::int64_t{1000});
    return ids;
}

TEST(Eviction, FreesWhatANodeAloneHoldsOldestFirstButNeverTheNodeEvaluated) {
    Graph chain;
    const auto [grow, lift] = liftChain(chain, {{"EvalGrow", "grow"}, {"EvalLift", "lift"}});
    chain.cacheLimit = 1;
    chain.evaluate(lift, {});
    EXPECT_FALSE(chain.node(grow).runtime.valid);
    EXPECT_TRUE(chain.node(lift).runtime.valid);
    EXPECT_EQ(chain.cacheEvictions, 1u);

    // Two branches of 1000 strands of 4 points. A grow holds ids, roots, offsets and widths
    // (8000 + 12000 + 8008 + 16000 bytes), which its lift shares, and points (48000 bytes); the
    // lift holds points of its own.
    const std::uint64_t shared = 44008, points = 48000, total = 2 * (shared + 2 * points);
    for (const std::uint64_t limit : {total - points, total - points - 1}) {
        Graph graph;
        const auto [growA, liftA] =
            liftChain(graph, {{"EvalGrow", "growA"}, {"EvalLift", "liftA"}});
        const auto [growB, liftB] =
            liftChain(graph, {{"EvalGrow", "growB"}, {"EvalLift", "liftB"}});
        graph.cacheLimit = 0;
        graph.evaluate(liftA, {});
        graph.evaluate(liftB, {});
        graph.cacheLimit = limit;
        graph.evaluate(liftB, {});  // branch A was used longest ago
        EXPECT_FALSE(graph.node(growA).runtime.valid);
        // Once growA is gone, liftA alone holds the shared columns too, and frees them all.
        EXPECT_EQ(graph.node(liftA).runtime.valid, limit == total - points);
        EXPECT_TRUE(graph.node(growB).runtime.valid);
        EXPECT_TRUE(graph.node(liftB).runtime.valid);
        EXPECT_EQ(graph.cacheEvictions, limit == total - points ? 1u : 2u);
    }
}

TEST(Eviction, SkipsNodesWhoseArraysAreAllShared) {
    Graph graph;
    const auto [grow, choose, lift] =
        addChain(graph, {{"EvalGrow", "grow"}, {"EvalSwitch", "choose"}, {"EvalLift", "lift"}});
    graph.cacheLimit = 1;
    graph.evaluate(lift, {});
    // grow and choose hold the very same set: dropping either would free nothing.
    EXPECT_TRUE(graph.node(grow).runtime.valid);
    EXPECT_TRUE(graph.node(choose).runtime.valid);
    EXPECT_EQ(graph.cacheEvictions, 0u);
}

TEST(Eviction, ZeroKeepsEverythingAndAnEvictedNodeRunsAgain) {
    Graph chain;
    const auto [grow, liftA, liftB] =
        liftChain(chain, {{"EvalGrow", "grow"}, {"EvalLift", "liftA"}, {"EvalLift", "liftB"}});
    chain.cacheLimit = 0;
    chain.evaluate(liftB, {});
    for (std::uint32_t id : chain.nodeIds())
        EXPECT_TRUE(chain.node(id).runtime.valid);
    chain.evictResults(liftB);
    EXPECT_EQ(chain.cacheEvictions, 0u);

    chain.cacheLimit = 1;
    chain.evictResults(liftB);
    EXPECT_EQ(chain.cacheEvictions, 2u);
    EXPECT_TRUE(chain.cachedResults(grow).empty());
    EXPECT_FALSE(chain.node(liftA).runtime.valid);
    chain.operatorOf(liftB).paramSet.set("amount", 1.0);
    chain.evaluate(liftB, {});
    EXPECT_EQ(test::operatorAs<test::GrowOp>(chain, grow).fullRuns, 2);
}

}  // namespace
}  // namespace velmorin
