// The graph layer on its own: this program links the graph library and the layers below it, and no
// built-in operator, field or expression. A graph loads from JSON and evaluates with a registry
// that holds only test operators; were the graph to reach for the process-wide registry or for the
// fields layer, this program would not link.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "graph/delivered_params.h"
#include "graph/graph.h"
#include "graph/registry.h"
#include "graph/test/eval_operators.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// Writes what reaches it through its run's context: the field delivered to `amount` (or the
// param's own value), and whether the run came with a scene.
class ContextProbeOp : public test::CountingOp {
  public:
    std::string type() const override { return "LayerProbe"; }
    std::vector<PortSpec> inputs() const override { return {test::strandsPort("strands")}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec amount = test::param("amount", 1.0);
        amount.description = "How much (mappable)";
        return {amount};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        auto out = std::make_shared<StrandSet>(*input);
        const auto amount = paramField(paramSet, ctx, "amount");
        std::vector<float>& amounts = out->addStrandChannel("amount", 0.0f);
        for (std::size_t s = 0; s < amounts.size(); ++s)
            amounts[s] = amount->atStrand(s);
        out->addStrandChannel("hasScene", ctx.scene ? 1.0f : 0.0f);
        return out;
    }
};

// A registry of test operators only, made here rather than taken from the process.
OperatorRegistry& testRegistry() {
    static OperatorRegistry registry = [] {
        OperatorRegistry made;
        test::addEvalTestOperators(made);
        made.registerType("LayerProbe", [] { return std::make_unique<ContextProbeOp>(); }, {});
        return made;
    }();
    return registry;
}

constexpr const char* kGraph = R"({
  "version": 1,
  "nodes": [
    {"name": "grow", "type": "EvalGrow", "params": {"count": 6, "points": 3}},
    {"name": "lift", "type": "EvalLift", "params": {"amount": 2.0}},
    {"name": "weight", "type": "EvalField", "params": {"value": 0.25}},
    {"name": "probe", "type": "LayerProbe", "paramInputs": ["amount"]}
  ],
  "connections": [
    {"from": "grow", "to": "lift", "input": "strands"},
    {"from": "lift", "to": "probe", "input": "strands"},
    {"from": "weight", "to": "probe", "input": "amount"}
  ],
  "output": "probe"
})";

std::vector<float> channel(const std::vector<Value>& results, const std::string& name) {
    const auto strands = results.at(0).get<StrandSet>();
    if (!strands) return {};
    const std::vector<float>* values = strands->strandChannel(name);
    return values ? *values : std::vector<float>();
}

TEST(GraphLayer, LoadsAndEvaluatesWithARegistryOfTestOperators) {
    Graph graph(testRegistry());
    graph.fromJson(kGraph);
    EXPECT_EQ(&graph.registry(), &testRegistry());

    const std::vector<Value> results = graph.evaluateOutput({});
    const auto strands = results.at(0).get<StrandSet>();
    ASSERT_TRUE(strands);
    EXPECT_EQ(strands->strandCount(), 6u);
    // The field of the weight node reached the probe through its run's context, never through its
    // params; with no mapped params in the registry, no scene came with the run.
    EXPECT_EQ(channel(results, "amount"), std::vector<float>(6, 0.25f));
    EXPECT_EQ(channel(results, "hasScene"), std::vector<float>(6, 0.0f));
    EXPECT_EQ(graph.operatorOf(graph.nodeId("probe")).paramSet.values.count("amount"), 0u);
    Graph reloaded(testRegistry());
    reloaded.fromJson(graph.toJson());
    EXPECT_EQ(reloaded.toJson(), graph.toJson());

    // Nothing changed: the second evaluation reuses every result.
    const auto& probe =
        dynamic_cast<const ContextProbeOp&>(graph.operatorOf(graph.nodeId("probe")));
    const int runs = probe.fullRuns;
    EXPECT_EQ(graph.evaluateOutput({}), results);
    EXPECT_EQ(probe.fullRuns, runs);

    // A clone makes its operators through the same registry and continues from the results.
    const std::unique_ptr<Graph> copy = graph.clone();
    EXPECT_EQ(&copy->registry(), &testRegistry());
    EXPECT_EQ(copy->evaluateOutput({}), results);
}

TEST(GraphLayer, KnowsOnlyTheTypesOfItsRegistry) {
    Graph graph(testRegistry());
    const std::string before = graph.toJson();
    const std::pair<const char*, const char*> builtIns[] = {
        {"Map", "unknown operator type 'Map'"},
        {"Expression", "unknown operator type 'Expression'"},
    };
    for (const auto& [type, message] : builtIns) {
        SCOPED_TRACE(type);
        try {
            graph.fromJson(std::string(R"({"nodes": [{"name": "a", "type": ")") + type +
                           R"("}], "output": "a"})");
            ADD_FAILURE() << "loaded";
        } catch (const std::exception& e) {
            EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
        }
        EXPECT_EQ(graph.toJson(), before);  // all or nothing
    }
}

TEST(GraphLayer, AMapWithoutMappedParamsReadsAsTheDefault) {
    Graph graph(testRegistry());
    graph.fromJson(R"({
      "nodes": [
        {"name": "grow", "type": "EvalGrow", "params": {"count": 2}},
        {"name": "probe", "type": "LayerProbe", "params": {"amount": {"texture": "a.png"}}}
      ],
      "connections": [{"from": "grow", "to": "probe", "input": "strands"}],
      "output": "probe"
    })");
    const std::vector<Value> results = graph.evaluateOutput({});
    EXPECT_EQ(channel(results, "amount"), std::vector<float>(2, 1.0f));
    EXPECT_EQ(channel(results, "hasScene"), std::vector<float>(2, 0.0f));
}

}  // namespace
}  // namespace velmorin
