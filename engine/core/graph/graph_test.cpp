#include "graph/graph.h"

#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "graph/test/test_operators.h"

namespace velmorin {
namespace {

// Runs `edit` and expects a GraphError with exactly `message`.
void expectError(const std::function<void()>& edit, const std::string& message) {
    test::expectMessage<GraphError>(edit, message);
}

class GraphTest : public ::testing::Test {
  protected:
    void SetUp() override { test::registerDocOperators(); }

    // A source feeding a shaper.
    void chain() {
        source = graph.addNode("DocSource", "source");
        shape = graph.addNode("DocShape", "shape");
        graph.connect(source, shape, 0);
    }

    Graph graph;
    std::uint32_t source = 0;
    std::uint32_t shape = 0;
};

TEST_F(GraphTest, NodesGetIdsFromOneInOrder) {
    EXPECT_EQ(graph.addNode("DocSource", "a"), 1u);
    EXPECT_EQ(graph.addNode("DocShape", "b"), 2u);
    EXPECT_EQ(graph.addNode("DocSource", "c"), 3u);
    graph.removeNode(2);
    // Ids are not reused: a removed id stays "nothing" for anything that held it.
    EXPECT_EQ(graph.addNode("DocShape", "d"), 4u);
    EXPECT_EQ(graph.nodeIds(), (std::vector<std::uint32_t>{1, 3, 4}));
    EXPECT_EQ(graph.nodeId("d"), 4u);
    EXPECT_EQ(graph.node(4).name, "d");
    EXPECT_EQ(graph.operatorOf(4).name, "d");
    EXPECT_EQ(graph.operatorOf(4).type(), "DocShape");
    // As many input entries as ports, all unconnected.
    EXPECT_EQ(graph.node(4).inputs, (std::vector<std::uint32_t>{0, 0}));
    EXPECT_EQ(graph.node(4).slots.size(), 2u);
    EXPECT_TRUE(graph.hasNode(3));
    EXPECT_FALSE(graph.hasNode(2));
}

TEST_F(GraphTest, AddNodeRefusesWhatCannotBeANode) {
    graph.addNode("DocSource", "a");
    expectError([&] { graph.addNode(std::unique_ptr<Operator>(), "x"); }, "addNode: null operator");
    expectError([&] { graph.addNode("DocShape", "a"); }, "a node named 'a' already exists");
    expectError([&] { graph.addNode(std::make_unique<test::DocShapeOp>(), "a"); },
                "a node named 'a' already exists");
    expectError([&] { graph.addNode("DocShape", ""); }, "addNode: a node needs a name");
    expectError([&] { graph.addNode("NoSuchType", "b"); }, "unknown operator type 'NoSuchType'");
    EXPECT_EQ(graph.nodeIds(), std::vector<std::uint32_t>{1});
}

TEST_F(GraphTest, UnknownIdsAndNamesAreNamedInMessages) {
    const Graph& constGraph = graph;
    for (const std::function<void()>& edit : std::initializer_list<std::function<void()>>{
             [&] { graph.node(7); }, [&] { constGraph.node(7); }, [&] { graph.operatorOf(7); },
             [&] { graph.removeNode(7); }, [&] { graph.setBypass(7, true); },
             [&] { graph.setEvaluation(7, EvaluationMode::RenderOnly); },
             [&] { graph.setOutput(7); }, [&] { graph.exposeParam(7, "amount"); },
             [&] { graph.keyParam(7, "amount", {"a"}); }}) {
        expectError(edit, "unknown node 7");
    }
    expectError([&] { graph.nodeId("ghost"); }, "no node named ghost");
}

TEST_F(GraphTest, RemovingANodeDisconnectsItsReaders) {
    chain();
    const std::uint32_t split = graph.addNode("DocSplit", "split");
    const std::uint32_t after = graph.addNode("DocShape", "after");
    graph.connect(shape, split, 0);
    graph.connect(split, after, 0, 1);
    graph.setOutput(split);
    graph.times[split] = 2.0;
    graph.notes[split] = "a note";

    graph.removeNode(split);
    EXPECT_EQ(graph.node(after).inputs[0], 0u);
    EXPECT_EQ(graph.node(after).slots[0], 0u);
    EXPECT_EQ(graph.outputNode(), 0u);
    EXPECT_FALSE(graph.times.contains(split));
    EXPECT_FALSE(graph.notes.contains(split));
    expectError([&] { graph.nodeId("split"); }, "no node named split");
    // The name is free again.
    EXPECT_NO_THROW(graph.addNode("DocSplit", "split"));
    // The nodes it read from keep their own connections.
    EXPECT_EQ(graph.node(shape).inputs[0], source);
}

TEST_F(GraphTest, ConnectStoresSourceAndSlotAndReplacesAnInput) {
    chain();
    EXPECT_EQ(graph.node(shape).inputs[0], source);
    EXPECT_EQ(graph.node(shape).slots[0], 0u);
    const std::uint32_t split = graph.addNode("DocSplit", "split");
    graph.connect(source, split, 0);
    graph.connect(split, shape, 0, 1);
    EXPECT_EQ(graph.node(shape).inputs[0], split);
    EXPECT_EQ(graph.node(shape).slots[0], 1u);
    graph.disconnect(shape, 0);
    EXPECT_EQ(graph.node(shape).inputs[0], 0u);
    EXPECT_EQ(graph.node(shape).slots[0], 0u);
    expectError([&] { graph.disconnect(shape, 2); }, "shape has no input slot 2");
}

TEST_F(GraphTest, ConnectChecksNodesSlotsAndPortTypes) {
    chain();
    const std::uint32_t mesh = graph.addNode("DocMesh", "mesh");
    const std::uint32_t field = graph.addNode("DocField", "field");
    expectError([&] { graph.connect(source, 9, 0); }, "unknown node 9");
    expectError([&] { graph.connect(9, shape, 0); }, "unknown node 9");
    expectError([&] { graph.connect(source, shape, 2); }, "shape has no input slot 2");
    expectError([&] { graph.connect(source, shape, 0, 1); }, "source has no output 1");
    expectError([&] { graph.connect(mesh, shape, 0); }, "type mismatch: Mesh -> Strands");
    expectError([&] { graph.connect(source, shape, 1); }, "type mismatch: Strands -> Guides");
    expectError([&] { graph.connect(field, shape, 0); }, "type mismatch: Field -> Strands");
    // Nothing changed by the failures.
    EXPECT_EQ(graph.node(shape).inputs, (std::vector<std::uint32_t>{source, 0}));
}

TEST_F(GraphTest, ConnectChecksFieldsAndValuesIntoParams) {
    chain();
    graph.exposeParam(shape, "amount");  // Field: mappable
    graph.exposeParam(shape, "steps");   // Value, integer
    graph.exposeParam(shape, "mode");    // Value, choice
    const std::size_t amount = 2, steps = 3, mode = 4;
    const std::uint32_t field = graph.addNode("DocField", "field");
    const std::uint32_t value = graph.addNode("DocValue", "value");
    const auto kind = [&](const char* name) {
        graph.operatorOf(value).paramSet.set("kind", std::string(name));
    };

    graph.connect(field, shape, amount);
    expectError([&] { graph.connect(field, shape, steps); },
                "type mismatch: Field -> Value: 'steps' takes one value for the whole node, and a "
                "field gives one per strand (drive it with a Value node, or an Expression set to "
                "give a value)");

    kind("bool");
    expectError([&] { graph.connect(value, shape, steps); },
                "type mismatch: a bool Value cannot feed 'steps', which takes integer");
    expectError(
        [&] { graph.connect(value, shape, amount); },
        "type mismatch: a bool Value cannot feed 'amount', which takes a field or a number");
    expectError([&] { graph.connect(value, shape, mode); },
                "type mismatch: a bool Value cannot feed 'mode', which takes choice");
    kind("vec3");
    expectError(
        [&] { graph.connect(value, shape, amount); },
        "type mismatch: a vec3 Value cannot feed 'amount', which takes a field or a number");
    EXPECT_EQ(graph.node(shape).inputs[amount], field);
    EXPECT_EQ(graph.node(shape).inputs[steps], 0u);

    // A number drives a field, an integer an integer, and "any" fits everything.
    kind("number");
    graph.connect(value, shape, amount);
    EXPECT_EQ(graph.node(shape).inputs[amount], value);
    kind("integer");
    graph.connect(value, shape, steps);
    EXPECT_EQ(graph.node(shape).inputs[steps], value);
    kind("any");
    graph.connect(value, shape, steps);
    // Text drives a choice by naming one of its choices.
    kind("text");
    graph.connect(value, shape, mode);
    EXPECT_EQ(graph.node(shape).inputs[mode], value);
}

TEST_F(GraphTest, ConnectRefusesCycles) {
    chain();
    const std::uint32_t split = graph.addNode("DocSplit", "split");
    const std::uint32_t last = graph.addNode("DocShape", "last");
    graph.connect(shape, split, 0);
    graph.connect(split, last, 0, 1);
    expectError([&] { graph.connect(shape, shape, 0); }, "connection would create a cycle");
    expectError([&] { graph.connect(last, shape, 0); }, "connection would create a cycle");
    expectError([&] { graph.connect(last, split, 0); }, "connection would create a cycle");
    // The cycle check comes after the type checks, and nothing was replaced.
    EXPECT_EQ(graph.node(shape).inputs[0], source);
    EXPECT_EQ(graph.node(split).inputs[0], shape);
    // Through a param input too.
    graph.exposeParam(shape, "amount");
    const std::uint32_t field = graph.addNode("DocField", "field");
    graph.connect(field, shape, 2);
    EXPECT_NO_THROW(graph.connect(source, last, 0));
}

TEST_F(GraphTest, ExposedParamsTakeInputsAfterThePorts) {
    chain();
    graph.exposeParam(shape, "amount");
    graph.exposeParam(shape, "offset");
    graph.exposeParam(shape, "profile");
    const GraphNode& node = graph.node(shape);
    EXPECT_EQ(node.paramInputs, (std::vector<std::string>{"amount", "offset", "profile"}));
    ASSERT_EQ(node.inputs.size(), 5u);
    EXPECT_EQ(node.slots.size(), 5u);

    const std::uint32_t field = graph.addNode("DocField", "field");
    const std::uint32_t value = graph.addNode("DocValue", "value");
    graph.operatorOf(value).paramSet.set("kind", std::string("vec3"));
    graph.connect(field, shape, 2);
    graph.connect(value, shape, 3);

    // Taking one out moves the later ones up with their connections.
    graph.unexposeParam(shape, "amount");
    EXPECT_EQ(node.paramInputs, (std::vector<std::string>{"offset", "profile"}));
    EXPECT_EQ(node.inputs, (std::vector<std::uint32_t>{source, 0, value, 0}));
    EXPECT_EQ(node.slots.size(), 4u);
    expectError([&] { graph.unexposeParam(shape, "amount"); },
                "shape has no exposed param 'amount'");
}

TEST_F(GraphTest, ExposeParamRules) {
    chain();
    expectError([&] { graph.exposeParam(shape, "nothing"); },
                "shape has no param 'nothing' to expose");
    expectError([&] { graph.exposeParam(shape, "ports"); },
                "shape param 'ports' cannot be an input: it sets the node's own ports");
    expectError([&] { graph.exposeParam(shape, "guides"); },
                "param 'guides' has the name of an input of shape");
    graph.exposeParam(shape, "steps");
    expectError([&] { graph.exposeParam(shape, "steps"); }, "param 'steps' exposed twice");
    EXPECT_EQ(graph.node(shape).paramInputs, std::vector<std::string>{"steps"});
    EXPECT_EQ(graph.node(shape).inputs.size(), 3u);
}

TEST_F(GraphTest, KeyParamRules) {
    chain();
    graph.keyParam(shape, "amount", {"amountCtl"});
    graph.keyParam(shape, "offset", {"ox", "oy", "oz"});
    graph.keyParam(shape, "enabled", {"on"});
    graph.keyParam(shape, "steps", {"steps"});
    EXPECT_EQ(graph.node(shape).paramControls.at("offset"),
              (std::vector<std::string>{"ox", "oy", "oz"}));

    const std::string fixedOverTime =
        "cannot be keyed: it sets how many strands, points or cards there are, or where they go, "
        "which must stay the same on every frame";
    const std::string notKeyable = "cannot be keyed: only numbers, switches and vectors can";
    const struct {
        std::uint32_t node;
        const char* param;
        std::vector<std::string> controls;
        std::string message;
    } refused[] = {
        {shape, "nothing", {"a"}, "shape has no param 'nothing' to key"},
        {source, "count", {"a"}, "source param 'count' " + fixedOverTime},
        {shape, "mode", {"a"}, "shape param 'mode' " + notKeyable},
        {shape, "profile", {"a"}, "shape param 'profile' " + notKeyable},
        {shape, "offset", {"x", "", "z"}, "shape param 'offset': a control needs a name"},
        {shape, "offset", {"x"}, "shape param 'offset' is keyed by three controls (x, y, z)"},
        {shape, "amount", {"a", "b", "c"}, "shape param 'amount' is keyed by one control"},
        {shape, "amount", {}, "shape param 'amount' is keyed by one control"},
    };
    for (const auto& c : refused)
        expectError([&] { graph.keyParam(c.node, c.param, c.controls); }, c.message);
    // The failures left the bindings as they were.
    EXPECT_EQ(graph.node(shape).paramControls.at("amount"), std::vector<std::string>{"amountCtl"});
    EXPECT_EQ(graph.node(shape).paramControls.at("offset").size(), 3u);

    // Keying again replaces the binding; unkeying removes it.
    graph.keyParam(shape, "amount", {"other"});
    EXPECT_EQ(graph.node(shape).paramControls.at("amount"), std::vector<std::string>{"other"});
    graph.unkeyParam(shape, "amount");
    EXPECT_FALSE(graph.node(shape).paramControls.contains("amount"));
    expectError([&] { graph.unkeyParam(shape, "amount"); }, "shape param 'amount' is not keyed");
}

TEST(EvaluationMode, NamesReadBack) {
    for (EvaluationMode mode :
         {EvaluationMode::Always, EvaluationMode::ViewportOnly, EvaluationMode::RenderOnly}) {
        EXPECT_EQ(parseEvaluationMode(evaluationModeName(mode)), mode);
    }
    EXPECT_EQ(evaluationModeName(EvaluationMode::RenderOnly), "renderOnly");
    expectError([] { parseEvaluationMode("sometimes"); },
                "unknown evaluation 'sometimes' (always, viewportOnly or renderOnly)");
}

// Notes the operator it took its state from.
class StatefulOp : public test::DocShapeOp {
  public:
    std::string type() const override { return "DocStateful"; }
    void copyStateFrom(const Operator& other) override {
        tookFrom = &other;
        runs = static_cast<const StatefulOp&>(other).runs;
    }
    const Operator* tookFrom = nullptr;
    int runs = 0;
};

TEST_F(GraphTest, CloneMakesOperatorsAnewAndKeepsEveryResult) {
    static const bool registered = [] {
        OperatorRegistry::instance().registerType(
            "DocStateful", [] { return std::make_unique<StatefulOp>(); }, {});
        return true;
    }();
    (void)registered;

    chain();
    const std::uint32_t state = graph.addNode("DocStateful", "state");
    const std::uint32_t group = graph.addNode("DocGroup", "group");
    graph.connect(shape, state, 0);
    Operator& original = graph.operatorOf(state);
    static_cast<StatefulOp&>(original).runs = 5;
    original.paramSet.set("amount", 0.75);
    original.savedVersion = 1;
    graph.operatorOf(group).paramSet.set("definition", std::string(R"({"params": {"gain": 0.5}})"));
    graph.operatorOf(group).declareParams();
    graph.operatorOf(group).paramSet.set("gain", 0.25);
    graph.exposeParam(state, "steps");
    graph.keyParam(state, "offset", {"x", "y", "z"});
    graph.setBypass(state, true);
    graph.setEvaluation(state, EvaluationMode::RenderOnly);
    graph.setOutput(state);

    GraphNode& node = graph.node(state);
    node.ui = {{"x", 10}};
    node.runtime.key = 42;
    node.runtime.valid = true;
    node.runtime.results = {Value(std::make_shared<Ramp>())};
    node.runtime.lastUsed = 3;
    node.runtime.stamp = 99;
    node.runtime.localKey = 7;
    node.runtime.inputKeys = {11, 12};
    node.runtime.passedThrough = true;
    node.runtime.delivered.fields["amount"] = nullptr;
    node.runtime.delivered.curves["profile"] = std::make_shared<Ramp>();
    graph.times[state] = 1.5;
    graph.lastTimes[state] = 2.5;
    graph.runs[state] = "full";
    graph.notes[state] = "note";
    graph.adopted[5] = {};
    graph.cacheLimit = 1234;
    graph.evaluations = 8;
    graph.incrementalRuns = 9;
    graph.cacheEvictions = 10;
    graph.backdrops = {{{"title", "Roots"}}};
    graph.pins = {1, 2};

    const std::unique_ptr<Graph> copy = graph.clone();
    const GraphNode& cloned = copy->node(state);
    const auto& op = static_cast<const StatefulOp&>(*cloned.op);
    EXPECT_NE(&op, &original);
    EXPECT_EQ(op.tookFrom, &original);
    EXPECT_EQ(op.runs, 5);
    EXPECT_EQ(op.name, "state");
    EXPECT_EQ(op.savedVersion, 1);
    EXPECT_EQ(op.paramSet.getFloat("amount", 0.0), 0.75);
    EXPECT_TRUE(cloned.runtime.delivered.fields.empty());
    EXPECT_TRUE(cloned.runtime.delivered.curves.empty());
    // The original keeps what was delivered to it.
    EXPECT_EQ(graph.node(state).runtime.delivered.curves.size(), 1u);
    // Params that follow a definition are declared again from it.
    EXPECT_EQ(copy->operatorOf(group).paramSet.getFloat("gain", 0.0), 0.25);

    EXPECT_EQ(cloned.name, "state");
    EXPECT_EQ(cloned.inputs, node.inputs);
    EXPECT_EQ(cloned.slots, node.slots);
    EXPECT_EQ(cloned.paramInputs, node.paramInputs);
    EXPECT_EQ(cloned.paramControls, node.paramControls);
    EXPECT_TRUE(cloned.bypass);
    EXPECT_EQ(cloned.evaluation, EvaluationMode::RenderOnly);
    EXPECT_EQ(cloned.ui, node.ui);
    EXPECT_EQ(cloned.runtime.key, 42u);
    EXPECT_TRUE(cloned.runtime.valid);
    ASSERT_EQ(cloned.runtime.results.size(), 1u);
    EXPECT_EQ(cloned.runtime.results[0], node.runtime.results[0]);  // the same shared value
    EXPECT_EQ(cloned.runtime.lastUsed, 3u);
    EXPECT_EQ(cloned.runtime.stamp, 99u);
    EXPECT_EQ(cloned.runtime.localKey, 7u);
    EXPECT_EQ(cloned.runtime.inputKeys, node.runtime.inputKeys);
    EXPECT_TRUE(cloned.runtime.passedThrough);

    EXPECT_EQ(copy->outputNode(), state);
    EXPECT_EQ(copy->nodeId("group"), group);
    EXPECT_EQ(copy->times, graph.times);
    EXPECT_EQ(copy->lastTimes, graph.lastTimes);
    EXPECT_EQ(copy->runs, graph.runs);
    EXPECT_EQ(copy->notes, graph.notes);
    EXPECT_TRUE(copy->adopted.contains(5));
    EXPECT_EQ(copy->cacheLimit, 1234u);
    EXPECT_EQ(copy->evaluations, 8u);
    EXPECT_EQ(copy->incrementalRuns, 9u);
    EXPECT_EQ(copy->cacheEvictions, 10u);
    EXPECT_EQ(copy->backdrops, graph.backdrops);
    EXPECT_EQ(copy->pins, graph.pins);
    EXPECT_EQ(copy->toJson(), graph.toJson());

    // The copy is a graph of its own: new nodes get the next id in both, independently.
    EXPECT_EQ(copy->addNode("DocSource", "more"), graph.addNode("DocSource", "more"));
    copy->removeNode(source);
    EXPECT_TRUE(graph.hasNode(source));
}

// A type that is never registered.
class LooseOp : public test::DocShapeOp {
  public:
    std::string type() const override { return "DocLoose"; }
};

TEST_F(GraphTest, CloneOfAnUnregisteredTypeFails) {
    graph.addNode(std::make_unique<LooseOp>(), "loose");
    // The registry makes every operator of a clone; a type it doesn't know can't be cloned.
    expectError([&] { graph.clone(); }, "unknown operator type 'DocLoose'");
}

TEST_F(GraphTest, MovedGraphKeepsItsNodes) {
    chain();
    graph.setOutput(shape);
    Graph moved(std::move(graph));
    EXPECT_EQ(moved.nodeId("shape"), shape);
    EXPECT_EQ(moved.outputNode(), shape);
    Graph assigned;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.node(shape).inputs[0], source);
}

}  // namespace
}  // namespace velmorin
