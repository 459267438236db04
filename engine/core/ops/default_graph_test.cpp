#include <gtest/gtest.h>

#include "base/parallel.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/test/eval_operators.h"
#include "mesh/sample_meshes.h"
#include "ops/test/groom_scene.h"
#include "ops/test/shape_checks.h"
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

TEST(DefaultGraph, AfterANoiseChangeTheLookNodesUpdateIncrementally) {
    const test::GroomScene scene = test::groomScene(makeHeadScalp(1), 1.0);
    // The graph checks every incremental run against a full one and throws on a difference.
    test::EvaluationSwitchesRestored restore;
    setIncrementalCheck(true);
    Graph graph;
    graph.fromJson(defaultGraphJson());
    graph.operatorOf(graph.nodeId("scatter")).paramSet.set("density", 20.0);
    EvalContext ctx;
    ctx.sceneInputs = &scene.inputs;
    graph.evaluateOutput(ctx);
    const std::size_t strands =
        test::strandsOf(graph.cachedResults(graph.nodeId("noise")))->strandCount();
    graph.operatorOf(graph.nodeId("noise")).paramSet.set("amplitude", 0.3);
    graph.evaluateOutput(ctx);
    EXPECT_EQ(graph.runs[graph.nodeId("noise")], "full " + std::to_string(strands));
    for (const char* node : {"color", "width", "resample", "output"})
        EXPECT_EQ(graph.runs[graph.nodeId(node)], "incremental " + std::to_string(strands)) << node;
    // Noise says its full run moved every strand's points and nothing else, without a comparison
    // of the two results; the checked incremental runs after it show that was enough.
    const auto& noted = graph.node(graph.nodeId("noise")).runtime.changes.front();
    ASSERT_TRUE(noted);
    EXPECT_FALSE(noted->all || noted->widthsChanged || noted->allChannels);
    EXPECT_TRUE(noted->pointsChanged && noted->sameLayout);
    EXPECT_TRUE(noted->channels.empty());
    EXPECT_EQ(noted->strands.size(), strands);
}

// A colour param moves no point: Width and Resample keep their previous columns and take the new
// colour channels from HairColor as they are, shared, and the result is a full run's bit for bit.
TEST(DefaultGraph, AColourChangeKeepsEveryPointAndSharesTheNewChannels) {
    const test::GroomScene scene = test::groomScene(makeHeadScalp(1), 1.0);
    const auto makeGraph = [](double melanin) {
        auto graph = std::make_unique<Graph>();
        graph->fromJson(defaultGraphJson());
        graph->operatorOf(graph->nodeId("scatter")).paramSet.set("density", 20.0);
        graph->operatorOf(graph->nodeId("color")).paramSet.set("melanin", melanin);
        return graph;
    };
    EvalContext ctx;
    ctx.sceneInputs = &scene.inputs;
    for (const int threads : {1, 2}) {
        runWithThreads(threads, [&] {
            const auto graph = makeGraph(0.5);
            const auto resultOf = [&](const char* node) {
                return test::strandsOf(graph->cachedResults(graph->nodeId(node)));
            };
            graph->evaluateOutput(ctx);
            const void* widthWidths = resultOf("width")->columnData(ColumnId::kWidths);
            const void* points = resultOf("resample")->columnData(ColumnId::kPoints);
            const void* widths = resultOf("resample")->columnData(ColumnId::kWidths);
            const std::vector<float>* melaninBefore =
                resultOf("resample")->strandChannel(channels::kMelanin);

            graph->operatorOf(graph->nodeId("color")).paramSet.set("melanin", 0.6);
            const auto out = test::strandsOf(graph->evaluateOutput(ctx));
            const std::string strands = std::to_string(out->strandCount());
            EXPECT_EQ(graph->runs[graph->nodeId("color")], "full " + strands);
            for (const char* node : {"width", "resample", "output"})
                EXPECT_EQ(graph->runs[graph->nodeId(node)], "incremental " + strands) << node;

            EXPECT_EQ(resultOf("width")->columnData(ColumnId::kWidths), widthWidths);
            EXPECT_EQ(out->columnData(ColumnId::kPoints), points);
            EXPECT_EQ(out->columnData(ColumnId::kWidths), widths);
            const std::vector<float>* melanin = out->strandChannel(channels::kMelanin);
            EXPECT_NE(melanin, melaninBefore);
            EXPECT_EQ(melanin, resultOf("color")->strandChannel(channels::kMelanin));
            EXPECT_EQ(melanin, resultOf("width")->strandChannel(channels::kMelanin));

            const auto& noted = graph->node(graph->nodeId("resample")).runtime.changes.front();
            ASSERT_TRUE(noted);
            EXPECT_FALSE(noted->pointsChanged || noted->widthsChanged || noted->allChannels);
            EXPECT_TRUE(noted->channelMayDiffer(channels::kMelanin));

            const auto fresh = makeGraph(0.6);
            EXPECT_EQ(out->contentHash(),
                      test::strandsOf(fresh->evaluateOutput(ctx))->contentHash());
        });
    }
}

}  // namespace
}  // namespace velmorin
