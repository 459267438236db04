#include "graph/graph_tools.h"

#include <gtest/gtest.h>

#include "graph/test/test_operators.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

TEST(DefaultGraph, HoldsTheChainANewGroomStartsFrom) {
    const std::string text = defaultGraphJson();
    Json doc = Json::parse(text);
    EXPECT_EQ(text, doc.dump(2));  // written as every graph document is
    // Nodes are written at their types' current versions, which move on their own.
    for (Json& node : doc["nodes"])
        node.erase("version");
    // Length sets its fraction to 1.0, its default, and its randomness to 0.2; no other node sets
    // any param.
    EXPECT_EQ(doc.dump(),
              R"({"version":1,"nodes":[{"name":"scalp","type":"Scalp"},)"
              R"({"name":"guides","type":"Guides"},{"name":"scatter","type":"Scatter"},)"
              R"({"name":"interpolate","type":"Interpolate"},{"name":"length","type":"Length",)"
              R"("params":{"fraction":1.0,"randomness":0.2}},{"name":"noise","type":"Noise"},)"
              R"({"name":"color","type":"HairColor"},{"name":"width","type":"Width"},)"
              R"({"name":"resample","type":"Resample"},{"name":"output","type":"Output"}],)"
              R"("connections":[{"from":"scalp","to":"scatter","input":"scalp"},)"
              R"({"from":"scatter","to":"interpolate","input":"strands"},)"
              R"({"from":"guides","to":"interpolate","input":"guides"},)"
              R"({"from":"scalp","to":"interpolate","input":"scalp"},)"
              R"({"from":"interpolate","to":"length","input":"strands"},)"
              R"({"from":"length","to":"noise","input":"strands"},)"
              R"({"from":"noise","to":"color","input":"strands"},)"
              R"({"from":"color","to":"width","input":"strands"},)"
              R"({"from":"width","to":"resample","input":"strands"},)"
              R"({"from":"resample","to":"output","input":"strands"}],"output":"output"})");
}

TEST(GraphInfo, ReportsEachNodesVersion) {
    test::registerDocOperators();
    Graph graph;
    graph.fromJson(R"({"nodes": [
        {"name": "source", "type": "DocSource"},
        {"name": "old", "type": "DocVersioned", "version": 2},
        {"name": "new", "type": "DocVersioned", "version": 3}],
        "connections": [{"from": "source", "to": "old", "input": "strands"},
                        {"from": "old", "to": "new", "input": "strands"}],
        "output": "new"})");
    graph.addNode("DocVersioned", "added");
    EXPECT_EQ(graphInfo(graph).dump(),
              R"({"nodeCount":4,"connectionCount":2,"output":"new","nodes":[)"
              R"({"id":1,"name":"source","type":"DocSource","nodeVersion":1,"currentVersion":1,)"
              R"("outdated":false},)"
              R"({"id":2,"name":"old","type":"DocVersioned","nodeVersion":2,"currentVersion":3,)"
              R"("outdated":true},)"
              R"({"id":3,"name":"new","type":"DocVersioned","nodeVersion":3,"currentVersion":3,)"
              R"("outdated":false},)"
              R"({"id":4,"name":"added","type":"DocVersioned","nodeVersion":3,)"
              R"("currentVersion":3,"outdated":false}]})");
    EXPECT_TRUE(graphInfo(Graph())["output"].is_null());
}

// Stands in for the seeded operator types, which the seed check knows by type name.
class SeededOp : public test::DocOp {
  public:
    explicit SeededOp(std::string type) : type_(std::move(type)) {}
    std::string type() const override { return type_; }
    std::vector<PortSpec> inputs() const override {
        return {test::port("strands", PortType::Strands, true)};
    }
    std::vector<ParamSpec> params() const override {
        return {test::param("seed", std::int64_t{0})};
    }

  private:
    std::string type_;
};

class SeedCollisionsTest : public ::testing::Test {
  protected:
    std::uint32_t add(const std::string& type, const std::string& name, std::int64_t seed,
                      std::uint32_t after = 0) {
        auto op = std::make_unique<SeededOp>(type);
        op->declareParams();
        op->paramSet.set("seed", seed);
        const std::uint32_t id = graph.addNode(std::move(op), name);
        if (after) graph.connect(after, id, 0);
        return id;
    }
    Graph graph;
};

TEST_F(SeedCollisionsTest, SameTypeAndSeedOnOneBranch) {
    const std::uint32_t scatter = add("Scatter", "scatter", 1);
    const std::uint32_t fly1 = add("Flyaway", "fly1", 3, scatter);
    const std::uint32_t between = add("Other", "between", 3, fly1);
    add("Flyaway", "fly2", 3, between);
    EXPECT_EQ(seedCollisions(graph),
              std::vector<std::string>{"Flyaway nodes 'fly1' and 'fly2' share seed 3: they pick "
                                       "the same strays; give each its own seed"});
}

TEST_F(SeedCollisionsTest, OtherBranchesSeedsAndBypassedNodesDoNotCollide) {
    const std::uint32_t scatter = add("Scatter", "scatter", 1);
    add("Flyaway", "left", 3, scatter);
    add("Flyaway", "right", 3, scatter);  // a sibling branch: other strands
    const std::uint32_t scales = add("Scales", "scales", 5, scatter);
    add("Scales", "scales2", 6, scales);  // another seed
    const std::uint32_t instance = add("Instance", "instance", 2, scatter);
    const std::uint32_t instance2 = add("Instance", "instance2", 2, instance);
    graph.setBypass(instance2, true);
    const std::uint32_t other = add("Other", "other", 4, scatter);
    add("Other", "other2", 4, other);  // not a seeded type
    EXPECT_TRUE(seedCollisions(graph).empty());

    graph.setBypass(instance2, false);
    add("Scales", "scales3", 5, graph.nodeId("scales2"));
    add("Scatter", "scatter2", 1);  // the same seed as "scatter", on a graph of its own
    EXPECT_EQ(seedCollisions(graph), (std::vector<std::string>{
                                         "Scales nodes 'scales' and 'scales3' share seed 5: their "
                                         "scales vary alike; give each its own seed",
                                         "Instance nodes 'instance' and 'instance2' share seed 2: "
                                         "they pick the same strands; give each its own seed",
                                     }));
}

TEST_F(SeedCollisionsTest, AConnectionPutsTwoNodesOnOneBranch) {
    const std::uint32_t first = add("Scatter", "first", 9);
    const std::uint32_t second = add("Scatter", "second", 9);
    EXPECT_TRUE(seedCollisions(graph).empty());
    graph.connect(first, second, 0);
    EXPECT_EQ(seedCollisions(graph),
              std::vector<std::string>{"Scatter nodes 'first' and 'second' share seed 9: their "
                                       "strands coincide (same roots and IDs); give each its own "
                                       "seed"});
}

TEST(FitControls, RenamesTakenControlsAndHandsOverValues) {
    test::registerDocOperators();
    Json doc = Json::parse(R"({"nodes": [
        {"name": "shape", "type": "DocShape", "params": {"offset": [1, 2, 3]},
         "paramControls": {"amount": "gain", "offset": ["ox", "oy", "oz"]}},
        {"name": "again", "type": "DocShape", "params": {"amount": 0.9, "steps": 6},
         "paramControls": {"amount": "gain", "steps": "gain2", "enabled": "on"}},
        {"name": "group", "type": "DocGroup",
         "definition": {"graph": {"nodes": [
             {"name": "inner", "type": "DocShape", "paramControls": {"steps": "oy"}}]}}}],
        "output": "shape"})");
    const std::map<std::string, double> values = fitControls(doc, {"gain", "gain1", "oy", "on"});

    // "gain" is taken and so is "gain1"; "gain2" is the document's own: "gain3". Both params
    // bound to "gain" follow it; the first one's value goes to the control.
    EXPECT_EQ(doc["nodes"][0]["paramControls"].dump(),
              R"({"amount":"gain3","offset":["ox","oy1","oz"]})");
    EXPECT_EQ(doc["nodes"][1]["paramControls"].dump(),
              R"({"amount":"gain3","steps":"gain2","enabled":"on1"})");
    EXPECT_EQ(doc["nodes"][2]["definition"]["graph"]["nodes"][0]["paramControls"].dump(),
              R"({"steps":"oy1"})");
    EXPECT_EQ(
        values,
        (std::map<std::string, double>{
            {"gain3", 0.5}, {"ox", 1.0}, {"oy1", 2.0}, {"oz", 3.0}, {"gain2", 6.0}, {"on1", 1.0}}));

    // The fitted document still loads.
    Graph graph;
    graph.fromJson(doc.dump());
    EXPECT_EQ(graph.node(1).paramControls.at("amount"), std::vector<std::string>{"gain3"});

    // Nothing taken: nothing renamed.
    Json again = doc;
    fitControls(again, {});
    EXPECT_EQ(again, doc);

    Json notADocument = Json::array();
    EXPECT_THROW(fitControls(notADocument, {}), SchemaError);
    EXPECT_EQ(notADocument, Json::array());
}

}  // namespace
}  // namespace velmorin
