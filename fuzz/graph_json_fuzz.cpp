// Graph JSON from any bytes: every input gives a graph or a SchemaError / GraphError, never a
// crash, a leak or a hang. A graph that loads must write a text that reads back to the same bytes,
// and must survive clone and the graph tools. A few operator types of the fuzzer's own give the
// reader real ports, params, versions and definitions to work through.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/registry.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

ParamSpec param(std::string name, ParamValue value, bool animatable = false,
                std::string description = {}) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(value);
    spec.animatable = animatable;
    spec.description = std::move(description);
    return spec;
}

PortSpec port(std::string name, PortType type, bool optional = false) {
    PortSpec spec;
    spec.name = std::move(name);
    spec.type = type;
    spec.optional = optional;
    return spec;
}

class FuzzOp : public Operator {
  public:
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
    std::string category() const override { return "utility"; }
};

class SourceOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzSource"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    std::vector<ParamSpec> params() const override {
        return {param("seed", std::int64_t{0}), param("count", std::int64_t{10})};
    }
};

class ShapeOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzShape"; }
    std::vector<PortSpec> inputs() const override {
        return {port("strands", PortType::Strands), port("guides", PortType::Guides, true)};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec mode = param("mode", std::string("soft"), true);
        mode.choices = {"soft", "hard"};
        ParamSpec ports = param("ports", std::string());
        ports.inputRule = InputRule::Never;
        MapReference mask;
        mask.text = "mask.png";
        return {param("amount", 0.5, true, "(mappable)"),
                param("steps", std::int64_t{4}, true),
                param("on", true, true),
                mode,
                param("label", std::string()),
                param("offset", Vec3f{}, true),
                param("profile", Ramp{}, true),
                ports,
                param("mask", mask)};
    }
};

class FieldOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzField"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return port("field", PortType::Field); }
};

class ValueOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzValue"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return port("value", PortType::Value); }
};

class SplitOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzSplit"; }
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<PortSpec> outputs() const override {
        return {port("kept", PortType::Strands), port("culled", PortType::Strands)};
    }
};

class VersionedOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzVersioned"; }
    int version() const override { return 2; }
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec newer = param("newer", 1.0);
        newer.since = 2;
        newer.formerDefault = 0.5;
        return {param("length", 1.0), newer};
    }
};

// Ports and params follow the definition: {"inputs": [names], "params": {name: number}}.
class GroupOp : public FuzzOp {
  public:
    std::string type() const override { return "FuzzGroup"; }
    std::vector<PortSpec> inputs() const override {
        std::vector<PortSpec> ports;
        const Json definition = parsed();
        if (auto list = definition.find("inputs"); list != definition.end() && list->is_array()) {
            for (const Json& name : *list) {
                if (name.is_string()) ports.push_back(port(name, PortType::Strands, true));
            }
        }
        return ports;
    }
    std::vector<ParamSpec> params() const override { return {param("definition", std::string())}; }
    std::vector<ParamSpec> instanceParams() const override {
        std::vector<ParamSpec> specs;
        const Json definition = parsed();
        if (auto list = definition.find("params"); list != definition.end() && list->is_object()) {
            for (const auto& [name, value] : list->items()) {
                if (value.is_number()) specs.push_back(param(name, value.get<double>(), true));
            }
        }
        return specs;
    }

  private:
    Json parsed() const {
        const auto found = paramSet.values.find("definition");
        if (found == paramSet.values.end()) return Json::object();
        const auto* text = std::get_if<std::string>(&found->second);
        return text ? Json::parse(*text, nullptr, false) : Json::object();
    }
};

bool registerFuzzOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.registerType("FuzzSource", [] { return std::make_unique<SourceOp>(); }, {});
    registry.registerType("FuzzShape", [] { return std::make_unique<ShapeOp>(); }, {});
    registry.registerType("FuzzField", [] { return std::make_unique<FieldOp>(); }, {});
    registry.registerType("FuzzValue", [] { return std::make_unique<ValueOp>(); }, {});
    registry.registerType("FuzzSplit", [] { return std::make_unique<SplitOp>(); }, {});
    registry.registerType("FuzzVersioned", [] { return std::make_unique<VersionedOp>(); }, {});
    registry.registerType("FuzzGroup", [] { return std::make_unique<GroupOp>(); }, {});
    // Version 1 called `length` "len"; a node already in the newer form is left alone.
    registry.registerUpgrade("FuzzVersioned",
                             {1, [](Json& node) {
                                  auto params = node.find("params");
                                  if (params == node.end() || !params->contains("len")) {
                                      return;
                                  }
                                  (*params)["length"] = (*params)["len"];
                                  params->erase("len");
                              }});
    return true;
}

}  // namespace
}  // namespace velmorin

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    static const bool registered = registerFuzzOperators();
    (void)registered;
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    Graph graph;
    try {
        graph.fromJson(text);
    } catch (const GraphError&) {
        return 0;
    }
    // What was written must read back, and write the same bytes again.
    const std::string written = graph.toJson();
    Graph reread;
    reread.fromJson(written);
    if (reread.toJson() != written) __builtin_trap();
    if (graph.clone()->toJson() != written) __builtin_trap();
    graphInfo(graph);
    seedCollisions(graph);

    Json doc = Json::parse(written);
    fitControls(doc, {"on", "ox", "gain"});
    // Fitted controls are renamed, never removed: the document still loads.
    reread.fromJson(doc.dump());
    return 0;
}
