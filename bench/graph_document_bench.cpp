// The graph document at a size beyond any real groom: 500 nodes, most with a few params set, one in
// ten with an exposed param fed by a field node, every one with UI data. Load and save are what
// opening and saving a scene cost; clone is what every detached evaluation pays before it starts.
// "items_per_second" counts nodes. The nodes are the graph tests' operator types; the shaper has
// about as many params as a real shaping node.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "graph/graph.h"
#include "graph/test/test_operators.h"

namespace velmorin {
namespace {

constexpr int kNodeCount = 500;

// A source, then shapers in a chain; every tenth node is a field feeding the next shaper's amount.
std::unique_ptr<Graph> makeGraph() {
    test::registerDocOperators();
    auto graph = std::make_unique<Graph>();
    std::uint32_t last = graph->addNode("DocSource", "source");
    std::uint32_t field = 0;
    for (int i = 1; i < kNodeCount; ++i) {
        const std::string name = "node" + std::to_string(i);
        if (i % 10 == 0) {
            field = graph->addNode("DocField", name);
            graph->node(field).ui = {{"x", i * 20}, {"y", 100}};
            continue;
        }
        const std::uint32_t id = graph->addNode("DocShape", name);
        ParamSet& params = graph->operatorOf(id).paramSet;
        params.set("density", 1.0 + i * 0.01);
        params.set("steps", std::int64_t{i});
        params.set("offset", Vec3f{0.1f * static_cast<float>(i % 7), 1.0f, 0.0f});
        if (i % 3 == 0) params.set("mode", std::string("hard"));
        graph->node(id).ui = {{"x", i * 20}, {"y", 0}};
        graph->connect(last, id, 0);
        if (field != 0) {
            graph->exposeParam(id, "amount");  // the input after strands and guides
            graph->connect(field, id, 2);
            field = 0;
        }
        last = id;
    }
    graph->setOutput(last);
    return graph;
}

void BM_GraphLoad(benchmark::State& state) {
    const std::string text = makeGraph()->toJson();
    for (auto _ : state) {
        Graph graph;
        graph.fromJson(text);
        benchmark::DoNotOptimize(graph.outputNode());
    }
    state.SetItemsProcessed(state.iterations() * kNodeCount);
    state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(BM_GraphLoad)->Unit(benchmark::kMillisecond);

void BM_GraphSave(benchmark::State& state) {
    const std::unique_ptr<Graph> graph = makeGraph();
    for (auto _ : state) {
        std::string text = graph->toJson();
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations() * kNodeCount);
}
BENCHMARK(BM_GraphSave)->Unit(benchmark::kMillisecond);

void BM_GraphClone(benchmark::State& state) {
    const std::unique_ptr<Graph> graph = makeGraph();
    for (auto _ : state) {
        std::unique_ptr<Graph> copy = graph->clone();
        benchmark::DoNotOptimize(copy.get());
    }
    state.SetItemsProcessed(state.iterations() * kNodeCount);
}
BENCHMARK(BM_GraphClone)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmorin
