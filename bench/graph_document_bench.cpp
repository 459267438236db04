// The graph document at a size beyond any real groom: 500 nodes, most with a few params set, one in
// ten with an exposed param fed by a field node, every one with UI data. Load and save are what
// opening and saving a scene cost; clone is what every detached evaluation pays before it starts.
// "items_per_second" counts nodes.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "graph/graph.h"
#include "graph/registry.h"

namespace velmorin {
namespace {

ParamSpec param(std::string name, ParamValue value, std::string description = {}) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(value);
    spec.animatable = true;
    spec.description = std::move(description);
    return spec;
}

PortSpec port(std::string name, PortType type) {
    PortSpec spec;
    spec.name = std::move(name);
    spec.type = type;
    return spec;
}

class BenchOp : public Operator {
  public:
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
    std::string category() const override { return "utility"; }
};

class SourceOp : public BenchOp {
  public:
    std::string type() const override { return "BenchSource"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    std::vector<ParamSpec> params() const override { return {param("seed", std::int64_t{0})}; }
};

// About as many params as a real shaping node.
class ShapeOp : public BenchOp {
  public:
    std::string type() const override { return "BenchShape"; }
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<ParamSpec> params() const override {
        Ramp profile;
        profile.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
        return {param("amount", 0.5, "How much (mappable)"),
                param("scale", 1.0),
                param("steps", std::int64_t{4}),
                param("seed", std::int64_t{0}),
                param("enabled", true),
                param("mode", std::string("soft")),
                param("direction", Vec3f{0.0f, 1.0f, 0.0f}),
                param("profile", profile),
                param("randomness", 0.0),
                param("frequency", 2.0),
                param("octaves", std::int64_t{1}),
                param("label", std::string())};
    }
};

class FieldOp : public BenchOp {
  public:
    std::string type() const override { return "BenchField"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return port("field", PortType::Field); }
    std::vector<ParamSpec> params() const override { return {param("frequency", 2.0)}; }
};

void registerBenchOperators() {
    static const bool registered = [] {
        OperatorRegistry& registry = OperatorRegistry::instance();
        registry.registerType("BenchSource", [] { return std::make_unique<SourceOp>(); }, {});
        registry.registerType("BenchShape", [] { return std::make_unique<ShapeOp>(); }, {});
        registry.registerType("BenchField", [] { return std::make_unique<FieldOp>(); }, {});
        return true;
    }();
    (void)registered;
}

constexpr int kNodeCount = 500;

// A source, then shapers in a chain; every tenth node is a field feeding the next shaper's amount.
std::unique_ptr<Graph> makeGraph() {
    registerBenchOperators();
    auto graph = std::make_unique<Graph>();
    std::uint32_t last = graph->addNode("BenchSource", "source");
    std::uint32_t field = 0;
    for (int i = 1; i < kNodeCount; ++i) {
        const std::string name = "node" + std::to_string(i);
        if (i % 10 == 0) {
            field = graph->addNode("BenchField", name);
            graph->node(field).ui = {{"x", i * 20}, {"y", 100}};
            continue;
        }
        const std::uint32_t id = graph->addNode("BenchShape", name);
        ParamSet& params = graph->operatorOf(id).paramSet;
        params.set("scale", 1.0 + i * 0.01);
        params.set("seed", std::int64_t{i});
        params.set("direction", Vec3f{0.1f * static_cast<float>(i % 7), 1.0f, 0.0f});
        if (i % 3 == 0) params.set("mode", std::string("hard"));
        graph->node(id).ui = {{"x", i * 20}, {"y", 0}};
        graph->connect(last, id, 0);
        if (field != 0) {
            graph->exposeParam(id, "amount");
            graph->connect(field, id, 1);
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
