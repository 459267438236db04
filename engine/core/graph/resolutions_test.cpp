#include <gtest/gtest.h>

#include "graph/graph.h"
#include "graph/test/eval_operators.h"

namespace velmorin {
namespace {

using test::addChain;
using test::addTestNode;
using test::connectChain;

// Builds graphs of Scatter, Resample and Output stand-ins by name.
struct ResolutionGraph {
    Graph graph;
    std::uint32_t scatter(const std::string& name) {
        return addTestNode(graph, std::make_unique<test::ScatterStandIn>(), name);
    }
    std::uint32_t resample(const std::string& name, std::int64_t segments) {
        const std::uint32_t id =
            addTestNode(graph, std::make_unique<test::PassStandIn>("Resample"), name);
        graph.operatorOf(id).paramSet.set("segments", segments);
        return id;
    }
    std::uint32_t output() {
        const std::uint32_t id =
            addTestNode(graph, std::make_unique<test::PassStandIn>("Output"), "out");
        graph.setOutput(id);
        return id;
    }
    std::string report(std::uint32_t id) const { return graph.resolutionReport(id); }
};

TEST(StrandResolutions, TheMostSegmentsAfterAScatterSetItsResolution) {
    ResolutionGraph g;
    const std::uint32_t scatter = g.scatter("scatter");
    const std::uint32_t coarse = g.resample("coarse", 12);
    const std::uint32_t fine = g.resample("fine", 20);
    const std::uint32_t out = g.output();
    connectChain(g.graph, {scatter, coarse, fine, out});
    const auto resolutions = g.graph.strandResolutions(true);
    ASSERT_EQ(resolutions.size(), 1u);
    EXPECT_EQ(resolutions.at(scatter).segments, 20);
    EXPECT_EQ(resolutions.at(scatter).resample, fine);
    EXPECT_FALSE(resolutions.at(scatter).fromUnfedResample);
    EXPECT_EQ(g.report(scatter),
              "Its strands grow with 20 segments, set by Resample fine (the most segments any "
              "Resample after it asks for)");
    EXPECT_EQ(g.report(fine),
              "Sets the resolution of Scatter scatter (a Resample sets only its own branch's)");
    EXPECT_EQ(g.report(coarse),
              "Sets no Scatter's resolution: Resample fine after it asks for more");
    EXPECT_EQ(g.report(out), "");

    // The Scatter grows with its entry; a resolution given on entry stands for every node.
    EXPECT_EQ(test::strandsOf(g.graph.evaluateOutput({}))->pointCount(), 4u * 21);
    EvalContext fixed;
    fixed.resolution = 5;
    EXPECT_EQ(test::strandsOf(g.graph.evaluateOutput(fixed))->pointCount(), 4u * 6);

    g.graph.operatorOf(fine).paramSet.set("segments", std::int64_t{0});
    EXPECT_EQ(g.report(fine), "Sets no Scatter's resolution (0 segments keeps each strand's)");
    EXPECT_EQ(g.report(scatter), "Its strands grow with 12 segments, set by Resample coarse");
    EXPECT_EQ(g.graph.strandResolutions(true).at(scatter).segments, 12);
}

TEST(StrandResolutions, EachBranchAndTheDefaultOfAResampleFedNothing) {
    ResolutionGraph g;
    const std::uint32_t left = g.scatter("left");
    const std::uint32_t right = g.scatter("right");
    const std::uint32_t resample = g.resample("resample", 10);
    const std::uint32_t unfed = g.resample("unfed", 24);
    const std::uint32_t merge = addTestNode(g.graph, "EvalMerge", "merge");
    const std::uint32_t mergeAll = addTestNode(g.graph, "EvalMerge", "mergeAll");
    const std::uint32_t out = g.output();
    connectChain(g.graph, {left, resample, merge, mergeAll, out});
    g.graph.connect(right, merge, 1);
    g.graph.connect(unfed, mergeAll, 1);
    const auto resolutions = g.graph.strandResolutions(true);
    EXPECT_EQ(resolutions.at(left).segments, 10);
    EXPECT_EQ(resolutions.at(right).segments, 24);
    EXPECT_TRUE(resolutions.at(right).fromUnfedResample);
    EXPECT_EQ(g.report(right),
              "Its strands grow with 24 segments, set by Resample unfed (fed nothing, it sets the "
              "default: no Resample after this Scatter does)");
    EXPECT_EQ(g.report(unfed),
              "Fed nothing: it sets the default resolution, 24, of every Scatter with no Resample "
              "after it (Scatter right)");
    EXPECT_EQ(g.report(resample),
              "Sets the resolution of Scatter left (a Resample sets only its own branch's)");

    // Once every Scatter has a Resample after it, the default goes nowhere.
    const std::uint32_t own = g.resample("own", 6);
    g.graph.connect(right, own, 0);
    g.graph.connect(own, merge, 1);
    EXPECT_EQ(g.report(unfed),
              "Fed nothing: it sets the default resolution, which no Scatter takes (each has a "
              "Resample after it, or another Resample fed nothing asks for more)");
    EXPECT_EQ(g.report(right), "Its strands grow with 6 segments, set by Resample own");

    // Cut off from the Output, a Resample sets nothing.
    g.graph.disconnect(mergeAll, 1);
    EXPECT_EQ(g.report(unfed),
              "Fed nothing: it sets no Scatter's resolution (connect it after the strands it "
              "should resample)");
    g.graph.disconnect(merge, 0);
    EXPECT_EQ(g.report(resample),
              "Its strands reach no Output: it sets no Scatter's resolution (connect it on the way "
              "to the Output)");
    EXPECT_EQ(g.report(left),
              "Its strands grow with 8 segments: no Resample after this Scatter sets their "
              "resolution (add one to its branch)");
    EXPECT_EQ(g.graph.strandResolutions(true).count(left), 0u);
}

TEST(StrandResolutions, OnlyActiveInputsCount) {
    ResolutionGraph g;
    const std::uint32_t grow = addTestNode(g.graph, "EvalGrow", "grow");
    const std::uint32_t scatter = g.scatter("scatter");
    const std::uint32_t choose = addTestNode(g.graph, "EvalSwitch", "choose");
    const std::uint32_t resample = g.resample("resample", 30);
    const std::uint32_t out = g.output();
    connectChain(g.graph, {grow, choose, resample, out});
    g.graph.connect(scatter, choose, 1);
    EXPECT_EQ(g.report(resample),
              "No Scatter comes before it: it sets no Scatter's resolution (a Resample sets only "
              "its own branch's)");
    EXPECT_TRUE(g.graph.strandResolutions(true).empty());
    g.graph.operatorOf(choose).paramSet.set("select", std::int64_t{1});
    EXPECT_EQ(g.graph.strandResolutions(true).at(scatter).segments, 30);
    // A Resample that runs only in renders doesn't reach a viewport's Scatter.
    g.graph.setEvaluation(choose, EvaluationMode::RenderOnly);
    EXPECT_TRUE(g.graph.strandResolutions(true).empty());
    EXPECT_EQ(g.graph.strandResolutions(false).at(scatter).segments, 30);
}

TEST(ForEachActiveUpstream, WalksActiveInputsOnceAndStopsWhenAsked) {
    Graph graph;
    const auto [a, choose, merge] =
        addChain(graph, {{"EvalGrow", "a"}, {"EvalSwitch", "choose"}, {"EvalMerge", "merge"}});
    const std::uint32_t b = addTestNode(graph, "EvalGrow", "b");
    graph.connect(b, choose, 1);
    graph.connect(a, merge, 1);
    std::vector<std::string> seen;
    const auto record = [&](const std::string& name, const Operator&) {
        seen.push_back(name);
        return true;
    };
    EXPECT_TRUE(graph.forEachActiveUpstream(merge, record));
    EXPECT_EQ(seen, (std::vector<std::string>{"merge", "choose", "a"}));

    seen.clear();
    EXPECT_TRUE(graph.forEachActiveUpstream(merge, record, 1));
    EXPECT_EQ(seen, (std::vector<std::string>{"merge", "a"}));

    // A bypassed node counts, but only its first input is followed.
    graph.setBypass(merge, true);
    seen.clear();
    graph.forEachActiveUpstream(merge, record);
    EXPECT_EQ(seen, (std::vector<std::string>{"merge", "choose", "a"}));
    graph.connect(b, merge, 0);
    seen.clear();
    graph.forEachActiveUpstream(merge, record);
    EXPECT_EQ(seen, (std::vector<std::string>{"merge", "b"}));

    std::size_t visits = 0;
    EXPECT_FALSE(graph.forEachActiveUpstream(
        merge, [&](const std::string&, const Operator&) { return ++visits < 2; }));
    EXPECT_EQ(visits, 2u);
    EXPECT_THROW(graph.forEachActiveUpstream(42, record), GraphError);
}

}  // namespace
}  // namespace velmorin
