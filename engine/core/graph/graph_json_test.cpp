#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/param_json.h"
#include "graph/registry.h"
#include "graph/test/test_operators.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

// A graph with something of everything the format holds.
constexpr const char* kRichGraph = R"({
  "version": 1,
  "nodes": [
    {"name": "source", "type": "DocSource", "params": {"count": 250, "seed": 7},
     "ui": {"x": 0, "y": 10.5}},
    {"name": "field", "type": "DocField", "params": {"scale": 2}},
    {"name": "number", "type": "DocValue", "params": {"kind": "integer"}},
    {"name": "split", "type": "DocSplit"},
    {"name": "shape", "type": "DocShape",
     "params": {"mask": {"colorSet": "roots", "component": "g", "min": 0.1, "max": 2},
                "amount": 1.0, "enabled": false, "steps": 12, "mode": "hard", "label": "front",
                "offset": [0.1, -2, 3.5],
                "profile": {"keys": [[0.5, 1], [0, 0.2], [1, 0]], "linear": true},
                "density": 3},
     "paramInputs": ["steps", "amount"],
     "paramControls": {"offset": ["ox", "oy", "oz"], "enabled": "on"},
     "bypass": true, "evaluation": "viewportOnly", "ui": {"x": 200, "collapsed": true},
     "comment": "not a key of the format"},
    {"name": "mapped", "type": "DocShape",
     "params": {"amount": {"texture": "roots.png", "component": 2}}, "evaluation": "renderOnly"},
    {"name": "old", "type": "DocVersioned", "version": 2, "params": {"length": "2.5"}},
    {"name": "current", "type": "DocVersioned", "version": 3},
    {"name": "group", "type": "DocGroup",
     "definition": {"inputs": ["in1"], "params": {"gain": 0.5}},
     "params": {"gain": 0.75, "repeat": 3}, "paramInputs": ["gain"]}
  ],
  "connections": [
    {"from": "field", "to": "shape", "input": "amount"},
    {"from": "source", "to": "split", "input": "strands"},
    {"from": "split", "to": "shape", "input": "strands", "output": "culled"},
    {"from": "number", "to": "shape", "input": "steps"},
    {"from": "shape", "to": "mapped", "input": "strands"},
    {"from": "mapped", "to": "old", "input": "strands"},
    {"from": "old", "to": "current", "input": "strands"},
    {"from": "current", "to": "group", "input": "in1"},
    {"from": "field", "to": "group", "input": "gain"}
  ],
  "output": "group",
  "backdrops": [{"title": "Look", "nodes": ["shape", "mapped"]}],
  "pins": {"shape": [1, 2]}
})";

// The smallest document that loads.
constexpr const char* kSmallGraph = R"({"nodes": [{"name": "a", "type": "DocSource"}],
                                        "output": "a"})";

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items())
        keys.push_back(key);
    return keys;
}

class GraphJsonTest : public ::testing::Test {
  protected:
    void SetUp() override { test::registerDocOperators(); }

    // Loads `text` into a graph that holds the small graph, expects `message`, and checks that the
    // graph still holds what it held.
    void expectLoadError(const std::string& text, const std::string& message) {
        Graph graph;
        graph.fromJson(kSmallGraph);
        const std::string before = graph.toJson();
        try {
            graph.fromJson(text);
            FAIL() << "expected: " << message;
        } catch (const SchemaError& error) {
            EXPECT_EQ(error.what(), message);
        } catch (const GraphError& error) {
            EXPECT_EQ(error.what(), message);
        }
        EXPECT_EQ(graph.toJson(), before);
    }

    struct LoadCase {
        std::string text;
        std::string message;
    };
    void expectLoadErrors(const std::vector<LoadCase>& cases) {
        for (const LoadCase& row : cases) {
            SCOPED_TRACE(row.text);
            expectLoadError(row.text, row.message);
        }
    }

    // A document of one DocShape node named "shape" with `params` and a source feeding it.
    static std::string shapeWith(const std::string& params) {
        return R"({"nodes": [{"name": "shape", "type": "DocShape", "params": )" + params +
               R"(}], "output": "shape"})";
    }
};

TEST_F(GraphJsonTest, ARichGraphWritesTheSameBytesAfterReadingBack) {
    Graph graph;
    graph.fromJson(kRichGraph);
    const std::string written = graph.toJson();
    Graph reread;
    reread.fromJson(written);
    EXPECT_EQ(reread.toJson(), written);
    EXPECT_EQ(reread.nodeIds(), graph.nodeIds());
    // A clone writes the same document.
    EXPECT_EQ(graph.clone()->toJson(), written);
}

TEST_F(GraphJsonTest, WritesKeysInTheirOrderAndOnlyWhatDiffers) {
    Graph graph;
    graph.fromJson(kRichGraph);
    const Json doc = Json::parse(graph.toJson());
    EXPECT_EQ(keysOf(doc), (std::vector<std::string>{"version", "nodes", "connections", "output",
                                                     "backdrops", "pins"}));
    EXPECT_EQ(doc["version"], 1);
    EXPECT_EQ(doc["output"], "group");
    EXPECT_EQ(doc["backdrops"],
              Json::parse(R"([{"title": "Look", "nodes": ["shape", "mapped"]}])"));
    EXPECT_EQ(doc["pins"], Json::parse(R"({"shape": [1, 2]})"));

    // Nodes in id order, which is the order of the file.
    std::vector<std::string> names;
    for (const Json& node : doc["nodes"])
        names.push_back(node["name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"source", "field", "number", "split", "shape",
                                               "mapped", "old", "current", "group"}));

    const Json& shape = doc["nodes"][4];
    EXPECT_EQ(keysOf(shape),
              (std::vector<std::string>{"name", "type", "params", "paramInputs", "paramControls",
                                        "bypass", "evaluation", "ui"}));
    // Params in the order the operator declares them, floats as floats, a ramp's keys sorted.
    EXPECT_EQ(shape["params"].dump(),
              R"({"amount":1.0,"enabled":false,"steps":12,"mode":"hard","label":"front",)"
              R"("offset":[0.1,-2.0,3.5],"profile":{"keys":[[0.0,0.2],[0.5,1.0],[1.0,0.0]],)"
              R"("linear":true},"density":3.0,)"
              R"("mask":{"colorSet":"roots","component":"g","min":0.1,"max":2.0}})");
    EXPECT_EQ(shape["paramInputs"], Json::parse(R"(["steps", "amount"])"));
    EXPECT_EQ(shape["paramControls"].dump(), R"({"enabled":"on","offset":["ox","oy","oz"]})");
    EXPECT_EQ(shape["bypass"], true);
    EXPECT_EQ(shape["evaluation"], "viewportOnly");
    EXPECT_EQ(shape["ui"].dump(), R"({"x":200,"collapsed":true})");

    // Defaults are left out, and so are switches at their usual setting.
    EXPECT_EQ(doc["nodes"][3].dump(), R"({"name":"split","type":"DocSplit"})");
    EXPECT_EQ(doc["nodes"][5]["params"].dump(),
              R"({"amount":{"texture":"roots.png","component":2}})");
    EXPECT_EQ(doc["nodes"][1]["params"].dump(), R"({"scale":2.0})");

    // A node saved at an older version keeps it, and leaves out `newest` at the value that version
    // had; a current one writes its version.
    EXPECT_EQ(doc["nodes"][6].dump(), R"({"name":"old","type":"DocVersioned","version":2,)"
                                      R"("params":{"length":2.5}})");
    EXPECT_EQ(doc["nodes"][7].dump(), R"({"name":"current","type":"DocVersioned","version":3})");

    // The definition is written as an object before the params, and not among them.
    EXPECT_EQ(doc["nodes"][8].dump(),
              R"({"name":"group","type":"DocGroup",)"
              R"("definition":{"inputs":["in1"],"params":{"gain":0.5}},)"
              R"("params":{"repeat":3,"gain":0.75},"paramInputs":["gain"]})");

    // Connections by target, then input; "output" only for another than the first output.
    std::vector<std::string> connections;
    for (const Json& connection : doc["connections"])
        connections.push_back(connection.dump());
    EXPECT_EQ(connections,
              (std::vector<std::string>{
                  R"({"from":"source","to":"split","input":"strands"})",
                  R"({"from":"split","to":"shape","input":"strands","output":"culled"})",
                  R"({"from":"number","to":"shape","input":"steps"})",
                  R"({"from":"field","to":"shape","input":"amount"})",
                  R"({"from":"shape","to":"mapped","input":"strands"})",
                  R"({"from":"mapped","to":"old","input":"strands"})",
                  R"({"from":"old","to":"current","input":"strands"})",
                  R"({"from":"current","to":"group","input":"in1"})",
                  R"({"from":"field","to":"group","input":"gain"})",
              }));
}

// What the written text can't show: ids, the kinds values are held as, and connections by id.
TEST_F(GraphJsonTest, ReadsNodesParamsAndConnections) {
    Graph graph;
    graph.fromJson(kRichGraph);
    // Ids by position, from 1.
    EXPECT_EQ(graph.nodeId("source"), 1u);
    EXPECT_EQ(graph.nodeId("group"), 9u);
    EXPECT_EQ(graph.outputNode(), 9u);

    const GraphNode& node = graph.node(graph.nodeId("shape"));
    const ParamSet& params = node.op->paramSet;
    EXPECT_EQ(params.getVec3("offset", {}), (Vec3f{0.1f, -2.0f, 3.5f}));
    // An integer in the file becomes the float a float param holds.
    EXPECT_TRUE(std::holds_alternative<double>(params.values.at("density")));
    EXPECT_FLOAT_EQ(params.getRamp("profile", {}).at(0.25f), 0.6f);
    const auto& mask = std::get<MapReference>(params.values.at("mask"));
    EXPECT_EQ(mask.source, MapSource::ColorSet);
    EXPECT_EQ(mask.component, "g");
    const auto& texture = std::get<MapReference>(
        graph.operatorOf(graph.nodeId("mapped")).paramSet.values.at("amount"));
    EXPECT_EQ(texture.componentIndex, 2);

    EXPECT_EQ(node.inputs,
              (std::vector<std::uint32_t>{graph.nodeId("split"), 0, graph.nodeId("number"),
                                          graph.nodeId("field")}));
    EXPECT_EQ(node.slots, (std::vector<std::uint64_t>{1, 0, 0, 0}));
}

TEST_F(GraphJsonTest, ASmoothRampPassesThroughItsKeys) {
    Graph graph;
    graph.fromJson(shapeWith(R"({"profile": {"keys": [[0, 0], [0.5, 1], [1, 0.25]]}})"));
    const Ramp ramp = graph.operatorOf(1).paramSet.getRamp("profile", {});
    EXPECT_FALSE(ramp.linear);
    EXPECT_FLOAT_EQ(ramp.at(0.5f), 1.0f);
    EXPECT_FLOAT_EQ(ramp.at(1.0f), 0.25f);
    // Rising into the middle key, not flat as an ease would be.
    EXPECT_GT(ramp.at(0.25f), 0.5f);
    EXPECT_GT(ramp.keys[0].slope, 0.0f);
}

TEST_F(GraphJsonTest, NodeReferencesExposeAndConnectTheParam) {
    Graph graph;
    graph.fromJson(R"({"nodes": [
        {"name": "shape", "type": "DocShape", "params": {"amount": "node:field"}},
        {"name": "field", "type": "DocField"}], "output": "shape"})");
    const GraphNode& shape = graph.node(graph.nodeId("shape"));
    EXPECT_EQ(shape.paramInputs, std::vector<std::string>{"amount"});
    EXPECT_EQ(shape.inputs[2], graph.nodeId("field"));
    // The param keeps its default: the value comes through the connection.
    EXPECT_FALSE(shape.op->paramSet.values.contains("amount"));
    const std::string written = graph.toJson();
    const Json doc = Json::parse(written);
    EXPECT_EQ(doc["nodes"][0]["paramInputs"].dump(), R"(["amount"])");
    EXPECT_EQ(doc["connections"][0].dump(), R"({"from":"field","to":"shape","input":"amount"})");
    Graph reread;
    reread.fromJson(written);
    EXPECT_EQ(reread.toJson(), written);
}

TEST_F(GraphJsonTest, DocumentLevelMessages) {
    Graph rich;
    rich.fromJson(kRichGraph);
    Json noOutput = Json::parse(rich.toJson());
    noOutput.erase("output");
    expectLoadErrors({
        {"[1, 2]", "graph JSON must be an object"},
        {R"({"nodes": []})", "graph JSON has no 'output' node"},
        {noOutput.dump(), "graph JSON has no 'output' node"},  // whatever else is valid
        {R"({"output": 3, "nodes": []})", "graph JSON: 'output' must name a node"},
        {R"({"output": "ghost", "nodes": []})", "unknown node 'ghost'"},
        {R"({"version": 2, "nodes": [], "output": "a"})",
         "graph JSON is of version 2, newer than this Velmorin reads: update Velmorin"},
        {R"({"nodes": {}, "output": "a"})", "graph JSON: 'nodes' must be a list"},
        {R"({"nodes": [3], "output": "a"})", "graph JSON: node 1 is not an object"},
        {R"({"nodes": [{"type": "DocSource"}], "output": "a"})", "graph JSON: node 1 has no name"},
        {R"({"nodes": [{"name": "a"}], "output": "a"})", "node 'a' has no type"},
        {R"({"nodes": [{"name": "a", "type": "Nope"}], "output": "a"})",
         "unknown operator type 'Nope'"},
        {R"({"nodes": [{"name": "a", "type": "DocSource"}, {"name": "a", "type": "DocField"}],
             "output": "a"})",
         "duplicate node name 'a'"},
        {std::string(1000, '['), "graph JSON: invalid JSON: nested deeper than 512 levels"},
    });
    // Invalid JSON is named as such, with the parser's account of where.
    try {
        rich.fromJson("{\"nodes\": [");
        FAIL();
    } catch (const SchemaError& error) {
        EXPECT_EQ(std::string(error.what()).rfind("graph JSON: invalid JSON: ", 0), 0u)
            << error.what();
    }
    // Nor does a graph without an output node write one.
    Graph empty;
    empty.addNode("DocSource", "a");
    EXPECT_FALSE(Json::parse(empty.toJson()).contains("output"));
}

TEST_F(GraphJsonTest, ParamValueMessages) {
    const std::string needsKeys = "ramp for param 'profile' needs keys [[position, value], ...]";
    const std::string exactlyOne =
        "map for param 'mask' needs exactly one of texture, colorSet, attribute, expression, guide";
    expectLoadErrors({
        {shapeWith(R"({"steps": 9223372036854775808})"),
         "param 'steps': 9223372036854775808 is out of range for an integer"},
        {shapeWith(R"({"steps": 1e19})"),
         "param 'steps': 10000000000000000000 is out of range for an integer"},
        {shapeWith(R"({"profile": {"keys": 3}})"), needsKeys},
        {shapeWith(R"({"profile": {"keys": [[0, 1, 2]]}})"), needsKeys},
        {shapeWith(R"({"profile": {"keys": [[0, "1"]]}})"), needsKeys},
        {shapeWith(R"({"profile": {"keys": [], "linear": 1}})"), needsKeys},
        {shapeWith(R"({"mask": {"texture": "a.png", "guide": "b"}})"), exactlyOne},
        {shapeWith(R"({"mask": {"min": 0}})"), exactlyOne},
        {shapeWith(R"({"mask": {"texture": "a.png", "component": "q"}})"),
         "map for param 'mask': unknown component 'q'"},
        {shapeWith(R"({"mask": {"texture": "a.png", "component": 4}})"),
         "map for param 'mask': unknown component '4'"},
        {shapeWith(R"({"mask": {"texture": "a.png", "min": "low"}})"),
         "map for param 'mask': min must be a number"},
        {shapeWith(R"({"mask": {"texture": 5}})"),
         "map for param 'mask': its texture must be text"},
        {shapeWith(R"({"amount": null})"), "unsupported value for param 'amount'"},
        {shapeWith(R"({"offset": [1, 2]})"), "unsupported value for param 'offset'"},
        {shapeWith(R"({"offset": [1, 2, 1e39]})"), "unsupported value for param 'offset'"},
        // Coercion to the param's kind speaks of the param.
        {shapeWith(R"({"mode": "wild"})"),
         "param 'mode': 'wild' is not one of its choices (soft, hard)"},
        {shapeWith(R"({"density": {"texture": "a.png"}})"),
         "param 'density' takes number and cannot take map"},
        {shapeWith(R"({"nothing": 1})"), "node 'shape' has no param 'nothing'"},
        {shapeWith("[]"), "node 'shape': params must be an object"},
        // A node reference exposes and connects the param, so it meets the connection rules.
        {shapeWith(R"({"amount": "node:ghost"})"), "unknown node 'ghost'"},
        {shapeWith(R"({"amount": "node:shape"})"), "type mismatch: Strands -> Field"},
    });
}

TEST_F(GraphJsonTest, NodeFieldMessages) {
    const auto node = [](const std::string& fields) {
        return R"({"nodes": [{"name": "shape", "type": "DocShape", )" + fields +
               R"(}], "output": "shape"})";
    };
    const auto controls = [](const std::string& param) {
        return "node 'shape': param '" + param + "' must name its control (or three for a vector)";
    };
    const std::string evaluation = "node 'shape': evaluation is always, viewportOnly or renderOnly";
    expectLoadErrors({
        {node(R"("paramControls": ["amount"])"),
         "node 'shape': paramControls must map params to controls"},
        {node(R"("paramControls": {"amount": 5})"), controls("amount")},
        {node(R"("paramControls": {"offset": []})"), controls("offset")},
        {node(R"("paramControls": {"offset": ["x", 1, "z"]})"), controls("offset")},
        // The keying and exposing rules are GraphTest.KeyParamRules' and ExposeParamRules'; one
        // row each shows the reader applies them. A vector keyed by one control:
        {node(R"("paramControls": {"offset": "x"})"),
         "shape param 'offset' is keyed by three controls (x, y, z)"},
        {node(R"("evaluation": "sometimes")"), evaluation},
        {node(R"("evaluation": 1)"), evaluation},
        {node(R"("bypass": "yes")"), "node 'shape': bypass is true or false"},
        {node(R"("paramInputs": "amount")"),
         "node 'shape': paramInputs must be a list of param names"},
        {node(R"("paramInputs": ["amount", "amount"])"), "param 'amount' exposed twice"},
    });
}

TEST_F(GraphJsonTest, ConnectionMessages) {
    const auto with = [](const std::string& connection) {
        return R"({"nodes": [{"name": "source", "type": "DocSource"},
                            {"name": "split", "type": "DocSplit"},
                            {"name": "mesh", "type": "DocMesh"},
                            {"name": "shape", "type": "DocShape"}],
                  "connections": [)" +
               connection + R"(], "output": "shape"})";
    };
    const std::string needsNames =
        "graph JSON: connection 1 needs the names from, to and input (and may name an output)";
    expectLoadErrors({
        {with(R"({"from": "ghost", "to": "shape", "input": "strands"})"), "unknown node 'ghost'"},
        {with(R"({"from": "source", "to": "ghost", "input": "strands"})"), "unknown node 'ghost'"},
        {with(R"({"from": "source", "to": "shape", "input": "hair"})"),
         "shape has no input 'hair'"},
        // A param is an input only once exposed.
        {with(R"({"from": "source", "to": "shape", "input": "amount"})"),
         "shape has no input 'amount'"},
        {with(R"({"from": "split", "to": "shape", "input": "strands", "output": "x"})"),
         "split has no output 'x'"},
        {with(R"({"from": "source", "to": "shape", "input": "strands", "output": "kept"})"),
         "source has no output 'kept'"},
        // The connection rules are GraphTest's; the cycle shows the reader applies them.
        {with(R"({"from": "shape", "to": "shape", "input": "strands"})"),
         "connection would create a cycle"},
        {with(R"({"from": "source", "to": "shape"})"), needsNames},
        {with("7"), needsNames},
        {R"({"nodes": [{"name": "a", "type": "DocSource"}], "connections": {}, "output": "a"})",
         "graph JSON: 'connections' must be a list"},
    });
}

TEST_F(GraphJsonTest, NodeVersionRules) {
    const auto versioned = [](const std::string& fields) {
        return R"({"nodes": [{"name": "v", "type": "DocVersioned")" + fields +
               R"(}], "output": "v"})";
    };
    const std::string newer =
        "node 'v' is a DocVersioned of version 4, newer than this "
        "Velmorin's (3); update Velmorin to open it";
    expectLoadErrors({
        {versioned(R"(, "version": 1.5)"), "node 'v': version 1.5 is not a whole number from 1"},
        {versioned(R"(, "version": 0)"), "node 'v': version 0 is not a whole number from 1"},
        {versioned(R"(, "version": "2")"), "node 'v': version \"2\" is not a whole number from 1"},
        {versioned(R"(, "version": 4)"), newer},
        {versioned(R"(, "version": 4.0)"), newer},
        // Upgrade steps run from the saved version: version 2 never had "len", and a step that
        // fails is reported as the node's. Version 3 reads the length as it stands.
        {versioned(R"(, "version": 2, "params": {"len": "2.5"})"), "node 'v' has no param 'len'"},
        {versioned(R"(, "params": {"len": "long"})"),
         "node 'v' could not be upgraded from version 1: stod"},
        {versioned(R"(, "version": 3, "params": {"length": "2.5"})"),
         "param 'length' takes number and cannot take text"},
    });

    // Absent means 1: every param added since behaves as it did then, unless the file sets it.
    Graph graph;
    graph.fromJson(versioned(R"(, "params": {"newest": true})"));
    const Operator& v1 = graph.operatorOf(1);
    EXPECT_EQ(v1.savedVersion, 1);
    EXPECT_EQ(v1.paramSet.getFloat("newer", 0.0), 0.25);
    EXPECT_TRUE(v1.paramSet.getBool("newest", false));
    EXPECT_FALSE(v1.paramSet.values.contains("calm"));  // no former default: its default stands

    graph.fromJson(versioned(R"(, "version": 2.0)"));
    const Operator& v2 = graph.operatorOf(1);
    EXPECT_EQ(v2.savedVersion, 2);
    EXPECT_EQ(v2.paramSet.getFloat("newer", 0.0), 1.0);
    EXPECT_FALSE(v2.paramSet.getBool("newest", true));

    // At the current version nothing is set and the node isn't marked as saved by an older one.
    graph.fromJson(versioned(R"(, "version": 3)"));
    EXPECT_EQ(graph.operatorOf(1).savedVersion, 0);
    EXPECT_TRUE(graph.operatorOf(1).paramSet.values.empty());

    // Version 1 is renamed, then read from text; written back at the version it was saved by,
    // and read again the same.
    graph.fromJson(versioned(R"(, "params": {"len": "4"})"));
    const std::string written = graph.toJson();
    const Json node = Json::parse(written)["nodes"][0];
    EXPECT_FALSE(node.contains("version"));
    // The params added since hold what version 1 did, which is what a reader gives them anyway.
    EXPECT_EQ(node["params"].dump(), R"({"length":4.0})");
    Graph reread;
    reread.fromJson(written);
    EXPECT_EQ(reread.toJson(), written);
}

// A node written at an older version leaves a param out only when reading it back gives the same
// value: for a param added since with a former default, that is the former default, not the
// default.
TEST_F(GraphJsonTest, AnOlderNodeLeavesOutOnlyWhatReadingGivesBack) {
    struct Case {
        const char* node;    // fields after the name and type
        const char* params;  // the node's "params" as written, or "" for none
    };
    const std::vector<Case> cases = {
        // `newer` (default 1, formerly 0.25) set to its default must be written at version 1 and
        // may be left out at version 2, which has it.
        {R"("version": 1, "params": {"length": 0.5, "newer": 1})", R"({"length":0.5,"newer":1.0})"},
        {R"("version": 2, "params": {"newer": 1})", ""},
        {R"("params": {"newer": 0.25})", ""},
        {R"("params": {"newer": 0.5})", R"({"newer":0.5})"},
        // `newest` (default true, formerly false) is kept at its default until version 3.
        {R"("params": {"newest": true})", R"({"newest":true})"},
        {R"("version": 2, "params": {"newest": true})", R"({"newest":true})"},
        {R"("version": 2, "params": {"newest": false})", ""},
        {R"("version": 3, "params": {"newest": true})", ""},
        {R"("version": 3, "params": {"newest": false, "newer": 0.25})",
         R"({"newer":0.25,"newest":false})"},
        // `calm` behaved as its default before it existed: its default is left out at any version.
        {R"("params": {"calm": 0})", ""},
        {R"("params": {"calm": 2})", R"({"calm":2.0})"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.node);
        Graph graph;
        graph.fromJson(std::string(R"({"nodes": [{"name": "v", "type": "DocVersioned", )") +
                       row.node + R"(}], "output": "v"})");
        const std::string written = graph.toJson();
        const Json node = Json::parse(written)["nodes"][0];
        EXPECT_EQ(node.contains("params") ? node["params"].dump() : "", row.params);
        Graph reread;
        reread.fromJson(written);
        EXPECT_EQ(reread.toJson(), written);
        for (const char* param : {"length", "newer", "newest", "calm"}) {
            EXPECT_EQ(reread.operatorOf(1).paramSet.checked(param),
                      graph.operatorOf(1).paramSet.checked(param))
                << param;
        }
    }
}

// Another value than the default and the former default that the param takes within its limits,
// so that the writer has something to keep.
ParamValue otherValue(const ParamSpec& spec) {
    const auto free = [&](const ParamValue& value) {
        return value != spec.defaultValue && (!spec.formerDefault || value != *spec.formerDefault);
    };
    const auto within = [&](double number) {
        return (!spec.min || number >= *spec.min) && (!spec.max || number <= *spec.max);
    };
    switch (spec.kind()) {
        case ParamKind::Bool:
            return !std::get<bool>(spec.defaultValue);
        case ParamKind::Int: {
            const std::int64_t base = std::get<std::int64_t>(spec.defaultValue);
            for (std::int64_t step : {1, -1, 2, -2}) {
                const ParamValue value = base + step;
                if (within(static_cast<double>(base + step)) && free(value)) return value;
            }
            break;
        }
        case ParamKind::Float: {
            const double base = std::get<double>(spec.defaultValue);
            for (double step : {0.375, -0.375, 0.0625, -0.0625}) {
                if (within(base + step) && free(ParamValue(base + step))) return base + step;
            }
            break;
        }
        case ParamKind::String:
            for (const std::string& choice : spec.choices) {
                if (free(choice)) return choice;
            }
            if (spec.choices.empty()) return std::get<std::string>(spec.defaultValue) + "-other";
            break;
        case ParamKind::Vec3:
            return std::get<Vec3f>(spec.defaultValue) + Vec3f{0.25f, 0.5f, 0.75f};
        case ParamKind::Ramp: {
            Ramp ramp = std::get<Ramp>(spec.defaultValue);
            ramp.linear = !ramp.linear;
            return ramp;
        }
        case ParamKind::Map: {
            MapReference map;
            map.source = MapSource::Attribute;
            map.text = "otherMask";
            return map;
        }
    }
    return spec.defaultValue;
}

// Every registered type, at every version older than its own, with each param added since absent,
// at its default, at its former default and at another value: what is read writes a text that
// reads back to the same values and writes the same bytes. New operator types with versioned params
// are covered as they are registered.
TEST_F(GraphJsonTest, EveryUpgradedParamSurvivesWritingAndReadingBack) {
    const OperatorRegistry& registry = OperatorRegistry::instance();
    int checkedCases = 0;
    for (const std::string& type : registry.types()) {
        const std::unique_ptr<Operator> fresh = registry.create(type);
        for (int saved = 1; saved < fresh->version(); ++saved) {
            for (const ParamSpec& spec : schemaParams(*fresh)) {
                if (spec.since <= saved) continue;
                std::vector<std::optional<ParamValue>> values = {std::nullopt, spec.defaultValue,
                                                                 otherValue(spec)};
                if (spec.formerDefault) values.push_back(spec.formerDefault);
                for (const std::optional<ParamValue>& value : values) {
                    Json node = {{"name", "n"}, {"type", type}, {"version", saved}};
                    if (value) node["params"][spec.name] = paramValueJson(*value);
                    const Json doc = {{"nodes", Json::array({node})}, {"output", "n"}};
                    SCOPED_TRACE(doc.dump());
                    Graph graph;
                    graph.fromJson(doc.dump());
                    const Operator& op = graph.operatorOf(1);
                    // Absent, the param behaves as it did at the saved version.
                    const ParamValue expected = value                ? *value
                                                : spec.formerDefault ? *spec.formerDefault
                                                                     : spec.defaultValue;
                    EXPECT_EQ(op.paramSet.checked(spec.name),
                              coerceParam(expected, spec, "expected"));

                    const std::string written = graph.toJson();
                    Graph reread;
                    reread.fromJson(written);
                    EXPECT_EQ(reread.toJson(), written);
                    const Operator& back = reread.operatorOf(1);
                    EXPECT_EQ(back.savedVersion, op.savedVersion);
                    for (const auto& [name, declared] : op.paramSet.specs()) {
                        EXPECT_EQ(back.paramSet.checked(name), op.paramSet.checked(name)) << name;
                    }
                    ++checkedCases;
                }
            }
        }
    }
    // The graph tests' own versioned type alone gives cases; zero would mean nothing was checked.
    EXPECT_GE(checkedCases, 4 * 4);
}

TEST_F(GraphJsonTest, DefinitionComesBeforeParamsAndInnerNodesAreUpgraded) {
    Graph graph;
    graph.fromJson(R"({"nodes": [
        {"name": "source", "type": "DocSource"},
        {"name": "group", "type": "DocGroup",
         "definition": {"inputs": ["in1", "in2"], "params": {"gain": 0.5},
                        "graph": {"nodes": [{"name": "v", "type": "DocVersioned",
                                             "params": {"len": "3"}}], "output": "v"}},
         "params": {"gain": 0.75}, "paramInputs": ["gain"]}],
        "connections": [{"from": "source", "to": "group", "input": "in2"}],
        "output": "group"})");
    const GraphNode& group = graph.node(2);
    EXPECT_EQ(group.op->paramSet.getFloat("gain", 0.0), 0.75);
    EXPECT_EQ(group.paramInputs, std::vector<std::string>{"gain"});
    EXPECT_EQ(group.inputs, (std::vector<std::uint32_t>{0, 1, 0}));
    const Json definition =
        Json::parse(std::get<std::string>(group.op->paramSet.values.at("definition")));
    EXPECT_EQ(definition["graph"]["nodes"][0]["params"].dump(), R"({"length":3.0})");

    // Without its definition first, the group has no such param.
    expectLoadErrors({
        {R"({"nodes": [{"name": "group", "type": "DocGroup", "params": {"gain": 1}}],
             "output": "group"})",
         "node 'group' has no param 'gain'"},
        {R"({"nodes": [{"name": "group", "type": "DocGroup", "definition": "{}"}],
             "output": "group"})",
         "node 'group': definition must be an object"},
    });
    // A type without a definition param ignores one.
    Graph plain;
    plain.fromJson(R"({"nodes": [{"name": "a", "type": "DocSource", "definition": 1}],
                       "output": "a"})");
    EXPECT_TRUE(plain.operatorOf(1).paramSet.values.empty());
}

TEST_F(GraphJsonTest, ALoadReplacesTheGraphAndItsEvaluationState) {
    Graph graph;
    graph.fromJson(kRichGraph);
    graph.node(1).runtime.valid = true;
    graph.node(1).runtime.key = 5;
    graph.times[1] = 3.0;
    graph.evaluations = 4;
    graph.cacheLimit = 77;

    // A failure midway leaves everything standing, evaluation state included.
    const std::string before = graph.toJson();
    Json broken = Json::parse(before);
    broken["connections"].push_back(Json::parse(R"({"from": "x", "to": "shape", "input": "a"})"));
    EXPECT_THROW(graph.fromJson(broken.dump()), SchemaError);
    EXPECT_EQ(graph.toJson(), before);
    EXPECT_TRUE(graph.node(1).runtime.valid);
    EXPECT_EQ(graph.times.at(1), 3.0);

    graph.fromJson(kSmallGraph);
    EXPECT_EQ(graph.nodeIds(), std::vector<std::uint32_t>{1});
    EXPECT_FALSE(graph.node(1).runtime.valid);
    EXPECT_EQ(graph.node(1).runtime.key, 0u);
    EXPECT_TRUE(graph.times.empty());
    EXPECT_EQ(graph.evaluations, 0u);
    EXPECT_TRUE(graph.backdrops.is_null());
    EXPECT_TRUE(graph.pins.is_null());
    // The cache limit is a setting of the graph, not state of its evaluation: it stays.
    EXPECT_EQ(graph.cacheLimit, 77u);
}

}  // namespace
}  // namespace velmorin
