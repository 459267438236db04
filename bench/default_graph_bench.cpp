// The default graph (Scalp, Guides, Scatter, Interpolate, Length, Noise, HairColor, Width,
// Resample, Output) at about a million strands on 2 threads: a full evaluation from nothing, a
// change of Noise's amplitude (Noise and what follows run), a change of a colour param (HairColor
// and what follows), and an evaluation with nothing changed. Each reports every node's time of its
// last run as a counter "<node>Ms", so that the figure can be split by node. HairColor alone on a
// million strands sits beside them; BM_MemoryCopy gives the bandwidth bound of its writes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <string>

#include "base/parallel.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "mesh/sample_meshes.h"
#include "ops/color_ops.h"
#include "ops/test/groom_scene.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

constexpr double kStrands = 1.0e6;
constexpr double kDensity = 1000.0;
constexpr double kGuides = 5000.0;

float scalpArea(const ScalpMesh& scalp) {
    double area = 0.0;
    for (const Triangle& t : scalp.triangles()) {
        const Vec3f& a = scalp.points()[t[0]];
        area += 0.5 * length(cross(scalp.points()[t[1]] - a, scalp.points()[t[2]] - a));
    }
    return static_cast<float>(area);
}

// The head-like scalp grown to the size where the density gives a million strands, with 5,000
// guides of 16 points.
const test::GroomScene& scene() {
    static const test::GroomScene made = [] {
        auto head = std::make_shared<ScalpMesh>(*makeHeadScalp(1));
        const float scale = std::sqrt(static_cast<float>(kStrands / kDensity) / scalpArea(*head));
        std::vector<Vec3f> points = head->points();
        for (Vec3f& p : points)
            p *= scale;
        head->setPoints(std::move(points));
        return test::groomScene(head, kGuides / (kStrands / kDensity), 16);
    }();
    return made;
}

std::unique_ptr<Graph> defaultGraph() {
    auto graph = std::make_unique<Graph>();
    graph->fromJson(defaultGraphJson());
    graph->operatorOf(graph->nodeId("scatter")).paramSet.set("density", kDensity);
    return graph;
}

void evaluate(Graph& graph) {
    // Only the nodes that run keep a time, so that the report shows what this evaluation cost.
    graph.times.clear();
    EvalContext ctx;
    ctx.sceneInputs = &scene().inputs;
    runWithThreads(2, [&] { benchmark::DoNotOptimize(graph.evaluateOutput(ctx)); });
}

void reportNodes(benchmark::State& state, const Graph& graph) {
    for (const auto& [id, ms] : graph.times)
        state.counters[graph.node(id).name + "Ms"] = ms;
    const auto out = graph.cachedResults(graph.outputNode()).front().get<StrandSet>();
    state.counters["strands"] = static_cast<double>(out ? out->strandCount() : 0);
}

void BM_DefaultGraphFromNothing(benchmark::State& state) {
    scene();
    std::unique_ptr<Graph> graph;
    for (auto _ : state) {
        state.PauseTiming();
        graph.reset();
        graph = defaultGraph();
        state.ResumeTiming();
        evaluate(*graph);
    }
    reportNodes(state, *graph);
}
BENCHMARK(BM_DefaultGraphFromNothing)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// A param of one node changed between two values on each evaluation, as a slider drag does. The
// drag's first step (which may set up what the later ones reuse) runs before timing, and is
// reported as the counter "firstStepMs".
void changeParam(benchmark::State& state, const char* node, const char* param, double a, double b) {
    const auto graph = defaultGraph();
    evaluate(*graph);
    Operator& op = graph->operatorOf(graph->nodeId(node));
    op.paramSet.set(param, b);
    const auto started = std::chrono::steady_clock::now();
    evaluate(*graph);
    const double firstStepMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
            .count();
    bool flip = true;
    for (auto _ : state) {
        flip = !flip;
        op.paramSet.set(param, flip ? b : a);
        evaluate(*graph);
    }
    reportNodes(state, *graph);
    state.counters["firstStepMs"] = firstStepMs;
}

void BM_DefaultGraphNoiseAmplitude(benchmark::State& state) {
    changeParam(state, "noise", "amplitude", 0.2, 0.25);
}
BENCHMARK(BM_DefaultGraphNoiseAmplitude)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DefaultGraphColorParam(benchmark::State& state) {
    changeParam(state, "color", "melanin", 0.5, 0.6);
}
BENCHMARK(BM_DefaultGraphColorParam)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DefaultGraphNothingChanged(benchmark::State& state) {
    const auto graph = defaultGraph();
    evaluate(*graph);
    for (auto _ : state)
        evaluate(*graph);
    reportNodes(state, *graph);
}
BENCHMARK(BM_DefaultGraphNothingChanged)->Unit(benchmark::kMicrosecond)->UseRealTime();

// HairColor's own pass on a million strands of 17 points: per strand (the default) and with a tip
// colour, per point. bytes_per_second counts the channels written.
void BM_HairColor(benchmark::State& state) {
    const bool tipped = state.range(0) != 0;
    const auto graph = defaultGraph();
    evaluate(*graph);
    const auto input = graph->cachedResults(graph->nodeId("noise")).front().get<StrandSet>();
    HairColorSettings settings;
    settings.melaninRandom = 0.05f;
    if (tipped) settings.tipStrength = FieldSampler(0.5f);
    std::shared_ptr<StrandSet> out;
    for (auto _ : state) {
        out.reset();
        runWithThreads(2, [&] { out = colorHair(*input, settings); });
    }
    const double values = tipped ? 3.0 * input->pointCount() + 8.0 * input->strandCount()
                                 : 11.0 * input->strandCount();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * values * 4.0));
    state.counters["strands"] = static_cast<double>(input->strandCount());
}
BENCHMARK(BM_HairColor)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
