// Graph evaluation. An evaluation where nothing changed runs the key computation and nothing else,
// whatever the strand count; a node whose input changed in 1% of the strands updates only those,
// plus the one copy of the column it rewrites (BM_MemoryCopy gives the bandwidth that copy runs
// at).
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>

#include "graph/graph.h"
#include "graph/test/eval_operators.h"

namespace velmorin {
namespace {

// A chain node that shares every column of its input and adds a strand channel of its own.
class TagOp : public Operator {
  public:
    std::string type() const override { return "BenchTag"; }
    std::string category() const override { return "utility"; }
    std::vector<PortSpec> inputs() const override { return {test::strandsPort("strands")}; }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        const auto input = inputs[0].get<StrandSet>();
        auto out = std::make_shared<StrandSet>(*input);
        out->addStrandChannel("tag", 1.0f);
        return out;
    }
};

// Bends every point by a few sines of its height and its strand's id, and can redo only the
// strands whose input changed.
class WiggleOp : public Operator {
  public:
    std::string type() const override { return "BenchWiggle"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {test::strandsPort("strands")}; }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        const auto input = inputs[0].get<StrandSet>();
        auto out = std::make_shared<StrandSet>(*input);
        std::vector<Vec3f>& points = out->writePoints();
        parallelRange(0, input->strandCount(), 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s)
                wiggle(*input, s, points);
        });
        return out;
    }
    bool evaluateIncremental(const EvalContext&, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const override {
        const auto update = test::strandUpdate(inputs[0], incremental);
        if (!update) return false;
        std::vector<Vec3f>& points = update->out->writePoints();
        const std::span<const std::uint64_t> strands = update->strands;
        parallelRange(0, strands.size(), 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                wiggle(*update->input, strands[i], points);
        });
        changes->all = false;
        changes->sameLayout = true;
        changes->strands.assign(strands.begin(), strands.end());
        *out = update->out;
        return true;
    }

  private:
    static void wiggle(const StrandSet& input, std::size_t s, std::vector<Vec3f>& points) {
        const float phase = unitFloat(input.ids()[s]) * 6.2831853f;
        const StrandSet::PointRange range = input.pointRange(s);
        const std::span<const Vec3f> from = input.points();
        for (std::size_t p = range.begin; p < range.begin + range.count; ++p) {
            const Vec3f q = from[p];
            points[p] = {q.x + 0.05f * std::sin(3.1f * q.y + phase),
                         q.y + 0.01f * std::cos(1.7f * q.x - phase),
                         q.z + 0.05f * std::cos(2.3f * q.y + phase)};
        }
    }
};

// A source of `strands` strands of 9 points and 99 tag nodes after it.
void BM_NoChangeEvaluation(benchmark::State& state) {
    const auto strands = static_cast<std::size_t>(state.range(0));
    SceneInputs scene{{"groom", {Value(test::gridStrands(strands, 9, 1)), 1}}};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    Graph graph;
    std::uint32_t last = test::addTestNode(graph, std::make_unique<test::SceneOp>(), "scene");
    for (int i = 1; i < 100; ++i) {
        const std::uint32_t tag =
            test::addTestNode(graph, std::make_unique<TagOp>(), "tag" + std::to_string(i));
        graph.connect(last, tag, 0);
        last = tag;
    }
    graph.evaluate(last, ctx);
    for (auto _ : state)
        benchmark::DoNotOptimize(graph.evaluate(last, ctx));
    state.counters["nodes"] = static_cast<double>(graph.nodeIds().size());
    state.counters["runs"] = static_cast<double>(graph.runs.size());
}
BENCHMARK(BM_NoChangeEvaluation)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// 1M strands of 9 points, of which 1% (every hundredth strand) move between two frames; the
// scene input alternates between them. Arg 1 lets the wiggle node update those strands only, arg 0
// runs it in full. "nodeMs" is the wiggle node's own time; the rest of an evaluation is the
// source's comparison of the two frames.
void BM_OnePercentChanged(benchmark::State& state) {
    const bool incremental = state.range(0) != 0;
    const bool previousSetting = setIncrementalEvaluation(incremental);
    const std::size_t strandCount = 1000000;
    const auto frameA = test::gridStrands(strandCount, 9, 1);
    std::vector<std::uint64_t> everyHundredth;
    for (std::size_t s = 0; s < strandCount; s += 100)
        everyHundredth.push_back(s);
    const auto frameB = test::moved(*frameA, everyHundredth, 0.01f);

    SceneInputs scene;
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    Graph graph;
    const std::uint32_t wiggle = test::addTestNode(graph, std::make_unique<WiggleOp>(), "wiggle");
    graph.connect(test::addTestNode(graph, "EvalScene", "scene"), wiggle, 0);
    scene["groom"] = {Value(frameA), 1};
    graph.evaluate(wiggle, ctx);

    bool onB = false;
    double nodeMs = 0.0;
    for (auto _ : state) {
        onB = !onB;
        scene["groom"] = onB ? SceneInput{Value(frameB), 2} : SceneInput{Value(frameA), 1};
        benchmark::DoNotOptimize(graph.evaluate(wiggle, ctx));
        nodeMs += graph.times[wiggle];
    }
    state.counters["nodeMs"] = nodeMs / static_cast<double>(state.iterations());
    state.SetLabel(graph.runs[wiggle]);
    setIncrementalEvaluation(previousSetting);
}
BENCHMARK(BM_OnePercentChanged)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
