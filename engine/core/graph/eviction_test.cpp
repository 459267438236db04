#include <gtest/gtest.h>

#include "graph/eval_test_operators.h"
#include "graph/graph.h"

namespace velmorin {
namespace {

using test::addTestNode;

TEST(CacheLimit, ParsesMegabytesAndFallsBackOnTheDefault) {
    EXPECT_EQ(kDefaultCacheLimit, 2147483648ull);
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

// grow -> liftA -> liftB: each lift owns its points and shares every other column with grow.
struct LiftChain {
    Graph graph;
    std::uint32_t grow, liftA, liftB;
    LiftChain() {
        grow = addTestNode(graph, "EvalGrow", "grow");
        liftA = addTestNode(graph, "EvalLift", "liftA");
        liftB = addTestNode(graph, "EvalLift", "liftB");
        graph.operatorOf(grow).paramSet.set("count", std::int64_t{1000});
        graph.connect(grow, liftA, 0);
        graph.connect(liftA, liftB, 0);
    }
};

TEST(Eviction, FreesWhatANodeAloneHoldsOldestFirstButNeverTheNodeEvaluated) {
    LiftChain chain;
    chain.graph.cacheLimit = 1;
    chain.graph.evaluate(chain.liftA, {});
    EXPECT_FALSE(chain.graph.node(chain.grow).valid);
    EXPECT_TRUE(chain.graph.node(chain.liftA).valid);
    EXPECT_EQ(chain.graph.cacheEvictions, 1u);

    // Two branches of 1000 strands of 4 points. A grow holds ids, roots, offsets and widths
    // (8000 + 12000 + 8008 + 16000 bytes), which its lift shares, and points (48000 bytes); the
    // lift holds points of its own.
    const std::uint64_t shared = 44008, points = 48000, total = 2 * (shared + 2 * points);
    for (const std::uint64_t limit : {total - points, total - points - 1}) {
        Graph graph;
        const std::uint32_t growA = addTestNode(graph, "EvalGrow", "growA");
        const std::uint32_t liftA = addTestNode(graph, "EvalLift", "liftA");
        const std::uint32_t growB = addTestNode(graph, "EvalGrow", "growB");
        const std::uint32_t liftB = addTestNode(graph, "EvalLift", "liftB");
        graph.operatorOf(growA).paramSet.set("count", std::int64_t{1000});
        graph.operatorOf(growB).paramSet.set("count", std::int64_t{1000});
        graph.connect(growA, liftA, 0);
        graph.connect(growB, liftB, 0);
        graph.cacheLimit = 0;
        graph.evaluate(liftA, {});
        graph.evaluate(liftB, {});
        graph.cacheLimit = limit;
        graph.evaluate(liftB, {});  // branch A was used longest ago
        EXPECT_FALSE(graph.node(growA).valid);
        // Once growA is gone, liftA alone holds the shared columns too, and frees them all.
        EXPECT_EQ(graph.node(liftA).valid, limit == total - points);
        EXPECT_TRUE(graph.node(growB).valid);
        EXPECT_TRUE(graph.node(liftB).valid);
        EXPECT_EQ(graph.cacheEvictions, limit == total - points ? 1u : 2u);
    }
}

TEST(Eviction, SkipsNodesWhoseArraysAreAllShared) {
    Graph graph;
    const std::uint32_t grow = addTestNode(graph, "EvalGrow", "grow");
    const std::uint32_t choose = addTestNode(graph, "EvalSwitch", "choose");
    const std::uint32_t lift = addTestNode(graph, "EvalLift", "lift");
    graph.connect(grow, choose, 0);
    graph.connect(choose, lift, 0);
    graph.cacheLimit = 1;
    graph.evaluate(lift, {});
    // grow and choose hold the very same set: dropping either would free nothing.
    EXPECT_TRUE(graph.node(grow).valid);
    EXPECT_TRUE(graph.node(choose).valid);
    EXPECT_EQ(graph.cacheEvictions, 0u);
}

TEST(Eviction, ZeroKeepsEverythingAndAnEvictedNodeRunsAgain) {
    LiftChain chain;
    chain.graph.cacheLimit = 0;
    chain.graph.evaluate(chain.liftB, {});
    for (std::uint32_t id : chain.graph.nodeIds())
        EXPECT_TRUE(chain.graph.node(id).valid);
    chain.graph.evictResults(chain.liftB);
    EXPECT_EQ(chain.graph.cacheEvictions, 0u);

    chain.graph.cacheLimit = 1;
    chain.graph.evictResults(chain.liftB);
    EXPECT_EQ(chain.graph.cacheEvictions, 2u);
    EXPECT_TRUE(chain.graph.cachedResults(chain.grow).empty());
    chain.graph.operatorOf(chain.liftB).paramSet.set("amount", 1.0);
    chain.graph.evaluate(chain.liftB, {});
    EXPECT_EQ(test::operatorAs<test::GrowOp>(chain.graph, chain.grow).fullRuns, 2);
}

}  // namespace
}  // namespace velmorin
