// The shape operators' plain functions over 1M strands of 9 points, every strand redone: compare
// "bytes_per_second" (the points read) with BM_MemoryCopy's.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "base/parallel.h"
#include "graph/graph.h"
#include "graph/test/eval_operators.h"
#include "ops/shape_ops.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

constexpr std::size_t kStrands = 1'000'000;
constexpr std::size_t kPoints = 9;

// Straight strands, bent a little so that arcs and turns are not all alike, with 100-strand
// clumps.
const StrandSet& strands() {
    static const std::shared_ptr<const StrandSet> set = [] {
        auto made = std::make_shared<StrandSet>(*test::gridStrands(kStrands, kPoints, 11));
        std::vector<Vec3f>& points = made->writePoints();
        for (std::size_t p = 0; p < points.size(); ++p)
            points[p].x += 0.02f * static_cast<float>((p % kPoints) * (p % kPoints));
        std::vector<float>& clumps = made->addStrandChannel("clumpId", 0.0f);
        for (std::size_t s = 0; s < kStrands; ++s)
            clumps[s] = static_cast<float>(s / 100);
        return made;
    }();
    return *set;
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kStrands * kPoints * sizeof(Vec3f)));
}

// Runs `apply` on a fresh copy of the points each time, as an operator's full run does.
template <class Apply>
void pointsRun(benchmark::State& state, const Apply& apply) {
    const StrandSet& input = strands();
    std::vector<Vec3f> out(input.pointCount());
    for (auto _ : state) {
        apply(input, std::span<Vec3f>(out));
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}

void BM_ShapeLength(benchmark::State& state) {
    LengthSettings settings;
    settings.length = FieldSampler(0.8f);
    settings.fraction = FieldSampler(0.5f);
    settings.randomness = 0.3f;
    pointsRun(state, [&](const StrandSet& in, std::span<Vec3f> out) {
        trimStrands(in, settings, StrandSelection::every(), out);
    });
}
BENCHMARK(BM_ShapeLength)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeWidth(benchmark::State& state) {
    WidthSettings settings;
    settings.profile.linear = true;
    settings.profile.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.2f, 0.0f}};
    settings.randomness = 0.2f;
    const StrandSet& input = strands();
    std::vector<float> out(input.pointCount());
    for (auto _ : state) {
        widenStrands(input, settings, StrandSelection::every(), out);
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}
BENCHMARK(BM_ShapeWidth)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeResample(benchmark::State& state) {
    ResampleSettings settings;
    settings.segments = static_cast<int>(state.range(0));
    settings.mode = state.range(1) == 0 ? ResampleMode::Even : ResampleMode::Curvature;
    for (auto _ : state)
        benchmark::DoNotOptimize(resampleStrands(strands(), settings));
    setBytes(state);
}
BENCHMARK(BM_ShapeResample)
    ->ArgNames({"segments", "curvature"})
    ->Args({8, 0})
    ->Args({16, 0})
    ->Args({8, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ShapeNoise(benchmark::State& state) {
    NoiseSettings settings;
    settings.frequency = 0.5f;
    settings.space = state.range(0) == 0 ? NoiseSpace::Strand : NoiseSpace::World;
    pointsRun(state, [&](const StrandSet& in, std::span<Vec3f> out) {
        noiseStrands(in, settings, StrandSelection::every(), out);
    });
}
BENCHMARK(BM_ShapeNoise)
    ->ArgName("world")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Noise at its defaults (frequency 3, 2 octaves) on 1M strands of 17 points, as the default graph
// runs it, on 1 and 2 threads: the lattice arithmetic alone, into an array already in memory.
void BM_ShapeNoiseDefaults(benchmark::State& state) {
    static const std::shared_ptr<const StrandSet> input = test::gridStrands(kStrands, 17, 11);
    const NoiseSettings settings;
    std::vector<Vec3f> out(input->pointCount());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            noiseStrands(*input, settings, StrandSelection::every(), std::span<Vec3f>(out));
        });
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(input->pointCount() * sizeof(Vec3f)));
}
BENCHMARK(BM_ShapeNoiseDefaults)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Evaluates a node of `type` after a source in a graph, `change(params, step)` before every
// evaluation (step 1, 2, ...): what an artist dragging a slider waits for, the run and everything
// the graph does around it. `setUp(params)` runs once, before the first evaluation.
template <class SetUp, class Change>
void dragThroughGraph(benchmark::State& state, const std::string& type, const SetUp& setUp,
                      const Change& change) {
    test::registerEvalTestOperators();
    Graph graph;
    const std::uint32_t source = graph.addNode("EvalScene", "scene");
    const std::uint32_t node = graph.addNode(type, "node");
    graph.connect(source, node, 0);
    setUp(graph.operatorOf(node).paramSet);
    SceneInputs scene;
    scene["groom"] = SceneInput{Value(std::make_shared<const StrandSet>(strands())), 1};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    graph.evaluate(node, ctx);
    int step = 0;
    for (auto _ : state) {
        change(graph.operatorOf(node).paramSet, ++step);
        benchmark::DoNotOptimize(graph.evaluate(node, ctx));
    }
    setBytes(state);
}

// Noise, its amplitude dragged.
void BM_ShapeNoiseAmplitudeThroughGraph(benchmark::State& state) {
    dragThroughGraph(
        state, "Noise", [](ParamSet& params) { params.set("frequency", 0.5); },
        [](ParamSet& params, int step) { params.set("amplitude", 0.2 + 1e-4 * step); });
}
BENCHMARK(BM_ShapeNoiseAmplitudeThroughGraph)->Unit(benchmark::kMillisecond)->UseRealTime();

// Length, its length dragged: the kernel plus what a full run costs around it (a fresh points
// column from the array pool, the key, the changes). Set against BM_ShapeLength to see that
// overhead.
void BM_ShapeLengthThroughGraph(benchmark::State& state) {
    dragThroughGraph(
        state, "Length", [](ParamSet&) {},
        [](ParamSet& params, int step) { params.set("length", 0.8 - 1e-4 * (step % 1000)); });
}
BENCHMARK(BM_ShapeLengthThroughGraph)->Unit(benchmark::kMillisecond)->UseRealTime();

// Length and Resample as the default graph runs them, on 1M strands of 17 points bent unevenly
// (as a Noise leaves them), on 1 and 2 threads: Length trims every strand (fraction 1, randomness
// 0.2) into an array already in memory; Resample evens them out to 16 segments into arrays the
// pool gives back, the widths one per strand (what a Width without a profile writes) kept.
// "bytes_per_second" counts the points read.
const StrandSet& defaultGraphStrands() {
    static const std::shared_ptr<const StrandSet> set = [] {
        constexpr std::size_t kDefaultPoints = 17;
        auto made = std::make_shared<StrandSet>(*test::gridStrands(kStrands, kDefaultPoints, 11));
        std::vector<Vec3f>& points = made->writePoints();
        for (std::size_t p = 0; p < points.size(); ++p) {
            const auto k = static_cast<float>(p % kDefaultPoints);
            const auto wobble = static_cast<float>((p * 2654435761u) % 1000) * 1e-5f;
            points[p].x += 0.01f * k * k + wobble;
            points[p].z += wobble;
        }
        std::vector<float>& widths = made->writeWidths();
        widths.resize(points.size());
        for (std::size_t p = 0; p < points.size(); ++p)
            widths[p] = 0.007f + 1e-6f * static_cast<float>(p / kDefaultPoints % 1000);
        return made;
    }();
    return *set;
}

void setDefaultGraphBytes(benchmark::State& state) {
    state.SetBytesProcessed(
        static_cast<int64_t>(state.iterations()) *
        static_cast<int64_t>(defaultGraphStrands().pointCount() * sizeof(Vec3f)));
}

void BM_ShapeLength17(benchmark::State& state) {
    LengthSettings settings;
    settings.fraction = FieldSampler(1.0f);
    settings.randomness = 0.2f;
    const StrandSet& input = defaultGraphStrands();
    std::vector<Vec3f> out(input.pointCount());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            trimStrands(input, settings, StrandSelection::every(), std::span<Vec3f>(out));
        });
        benchmark::DoNotOptimize(out.data());
    }
    setDefaultGraphBytes(state);
}
BENCHMARK(BM_ShapeLength17)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ShapeResample17(benchmark::State& state) {
    ResampleSettings settings;
    settings.segments = 16;
    const StrandSet& input = defaultGraphStrands();
    for (auto _ : state)
        runWithThreads(static_cast<int>(state.range(0)),
                       [&] { benchmark::DoNotOptimize(resampleStrands(input, settings)); });
    setDefaultGraphBytes(state);
}
BENCHMARK(BM_ShapeResample17)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ShapeTwistClumps(benchmark::State& state) {
    TwistSettings settings;
    settings.turns = FieldSampler(0.7f);
    pointsRun(state, [&](const StrandSet& in, std::span<Vec3f> out) {
        // The axes are part of every run: a Twist recomputes them from its input.
        const ClumpAxes axes = clumpAxes(in, *in.strandChannel("clumpId"));
        settings.clumps = &axes;
        twistStrands(in, settings, StrandSelection::every(), out);
    });
}
BENCHMARK(BM_ShapeTwistClumps)->Unit(benchmark::kMillisecond)->UseRealTime();

// Twist by clumps, its turns dragged: the node keeps the clump axes of its unchanged input and
// only twists.
void BM_ShapeTwistTurnsThroughGraph(benchmark::State& state) {
    dragThroughGraph(
        state, "Twist", [](ParamSet&) {},
        [](ParamSet& params, int step) { params.set("turns", 0.7 + 1e-4 * (step % 1000)); });
}
BENCHMARK(BM_ShapeTwistTurnsThroughGraph)->Unit(benchmark::kMillisecond)->UseRealTime();

// Helix curls with spacing noise and weight; arg 1 curls by clump, its axes made in every run as
// a Curl does.
void BM_ShapeCurl(benchmark::State& state) {
    CurlSettings settings;
    settings.frequency = 3.0f;
    settings.spacingRandom = 0.3f;
    settings.weight = 0.5f;
    const bool byClump = state.range(0) != 0;
    pointsRun(state, [&](const StrandSet& in, std::span<Vec3f> out) {
        ClumpAxes axes;
        if (byClump) {
            axes = clumpAxes(in, *in.strandChannel("clumpId"));
            settings.clumps = &axes;
            settings.clumpChannel = in.strandChannel("clumpId");
        }
        curlStrands(in, settings, StrandSelection::every(), out);
    });
}
BENCHMARK(BM_ShapeCurl)
    ->ArgName("clump")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The same curls with a tolerance of 5% of the radius: the strands cut where they are too coarse,
// into a fresh set, then curled. "bytes_per_second" counts the points read, as above; the
// "points" counter is how many the cut strands hold, per point that came in.
void BM_ShapeCurlTolerance(benchmark::State& state) {
    CurlSettings settings;
    settings.frequency = 3.0f;
    settings.spacingRandom = 0.3f;
    settings.weight = 0.5f;
    settings.tolerance = 0.05f;
    const StrandSet& input = strands();
    std::size_t points = 0;
    for (auto _ : state) {
        const StrandSet cut = subdivideForCurl(input, settings);
        std::vector<Vec3f> out(cut.pointCount());
        curlStrands(cut, settings, StrandSelection::every(), out);
        points = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
    state.counters["points"] =
        static_cast<double>(points) / static_cast<double>(input.pointCount());
}
BENCHMARK(BM_ShapeCurlTolerance)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
