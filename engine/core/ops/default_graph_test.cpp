#include <gtest/gtest.h>

#include "base/parallel.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/test/eval_operators.h"
#include "mesh/sample_meshes.h"
#include "ops/test/groom_scene.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

// The graph a new groom starts from, run end to end on the head-like scalp with guides on it.
TEST(DefaultGraph, LoadsAndEveryNodesResultIsAValidSet) {
    const test::GroomScene scene = test::groomScene(makeHeadScalp(1), 1.0);
    ASSERT_GT(scene.guides->guides.size(), 100u);
    Graph graph;
    graph.fromJson(defaultGraphJson());
    EvalContext ctx;
    ctx.sceneInputs = &scene.inputs;
    const auto out = test::strandsOf(graph.evaluateOutput(ctx));
    ASSERT_TRUE(out);
    EXPECT_GT(out->strandCount(), 10000u);

    std::size_t strandResults = 0;
    for (const std::uint32_t id : graph.nodeIds()) {
        const std::string& name = graph.node(id).name;
        for (const Value& value : graph.cachedResults(id)) {
            const auto strands = value.get<StrandSet>();
            if (!strands) continue;
            ++strandResults;
            std::string message;
            EXPECT_TRUE(strands->validate(message)) << name << ": " << message;
            EXPECT_EQ(strands->strandCount(), out->strandCount()) << name;
        }
    }
    // Scatter and everything after it.
    EXPECT_EQ(strandResults, 8u);

    // The Resample before the Output sets how many segments the strands grow with.
    EXPECT_EQ(graph.resolutionReport(graph.nodeId("scatter")),
              "Its strands grow with 16 segments, set by Resample resample");
    EXPECT_EQ(out->pointCount(), out->strandCount() * 17);
    // The Output hands on what it receives.
    EXPECT_EQ(out, test::strandsOf(graph.cachedResults(graph.nodeId("resample"))));
    // HairColor's look reaches the end, per strand: its tip colour is off by default.
    for (const std::string_view name :
         {channels::kColor[0], channels::kColor[1], channels::kColor[2], channels::kMelanin,
          channels::kRedness, channels::kDye[0], channels::kSpecular, channels::kRoughness,
          channels::kTilt})
        EXPECT_TRUE(out->strandChannel(name)) << name;
}

TEST(DefaultGraph, TheSameBitsAtOneAndTwoThreads) {
    const test::GroomScene scene = test::groomScene(makeHeadScalp(1), 1.0);
    std::uint64_t hashes[2] = {};
    for (const int threads : {1, 2}) {
        Graph graph;
        graph.fromJson(defaultGraphJson());
        graph.operatorOf(graph.nodeId("scatter")).paramSet.set("density", 20.0);
        EvalContext ctx;
        ctx.sceneInputs = &scene.inputs;
        runWithThreads(threads, [&] {
            hashes[threads - 1] = test::strandsOf(graph.evaluateOutput(ctx))->contentHash();
        });
    }
    EXPECT_EQ(hashes[0], hashes[1]);
}

}  // namespace
}  // namespace velmorin
