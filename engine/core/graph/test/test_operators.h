#pragma once
// Small operator types for the graph document's tests, its fuzz target and its benchmarks,
// registered under names of their own ("Doc" and a role) so that they never meet a real operator.
// They declare ports and params only: the document never runs an operator. Free of any test
// framework, so that every kind of test program can use it.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "graph/operator.h"
#include "graph/registry.h"
#include "graph/test/declarations.h"

namespace velmorin::test {

class DocOp : public Operator {
  public:
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
    std::string category() const override { return "utility"; }
};

// Makes strands from nothing; `seed` and `count` set where they go, so neither can be keyed.
class DocSourceOp : public DocOp {
  public:
    std::string type() const override { return "DocSource"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    std::vector<ParamSpec> params() const override {
        return {param("seed", std::int64_t{0}), param("count", std::int64_t{100})};
    }
};

// A shaper with a param of every kind and input rule.
class DocShapeOp : public DocOp {
  public:
    std::string type() const override { return "DocShape"; }
    std::vector<PortSpec> inputs() const override {
        return {port("strands", PortType::Strands), port("guides", PortType::Guides, true)};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec mode = param("mode", std::string("soft"), true);
        mode.choices = {"soft", "hard"};
        ParamSpec ports = param("ports", std::string());
        ports.inputRule = InputRule::Never;
        Ramp profile;
        profile.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
        MapReference mask;
        mask.source = MapSource::Attribute;
        mask.text = "mask";
        return {
            param("amount", 0.5, true, "How much (mappable, per strand)"),
            param("enabled", true, true),
            param("steps", std::int64_t{4}, true),
            mode,
            param("label", std::string()),
            param("offset", Vec3f{}, true),
            param("profile", profile, true),
            param("density", 1.0),
            ports,
            param("guides", false),
            param("mask", mask),
        };
    }
};

// A field for mappable params.
class DocFieldOp : public DocOp {
  public:
    std::string type() const override { return "DocField"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return port("field", PortType::Field); }
    std::vector<ParamSpec> params() const override { return {param("scale", 1.0, true)}; }
};

// One value of the kind its `kind` param names.
class DocValueOp : public DocOp {
  public:
    std::string type() const override { return "DocValue"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override {
        const auto kind = paramSet.values.find("kind");
        const std::string name =
            kind == paramSet.values.end() ? "number" : std::get<std::string>(kind->second);
        return port("value", PortType::Value, false, parseValueKind(name));
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec kind = param("kind", std::string("number"));
        kind.choices = {"any", "number", "integer", "bool", "vec3", "choice", "text"};
        return {kind};
    }
};

class DocMeshOp : public DocOp {
  public:
    std::string type() const override { return "DocMesh"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return port("mesh", PortType::Mesh); }
};

// Two outputs: the strands kept and the strands culled.
class DocSplitOp : public DocOp {
  public:
    std::string type() const override { return "DocSplit"; }
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<PortSpec> outputs() const override {
        return {port("kept", PortType::Strands), port("culled", PortType::Strands)};
    }
};

// At version 3. Version 2 added `newer`, which files from before behave as 0.25; version 3 added
// `newest` (false before) and `calm`, whose old behaviour is its default. Upgrades: version 1
// named `length` "len"; versions 1 and 2 wrote it as text.
class DocVersionedOp : public DocOp {
  public:
    std::string type() const override { return "DocVersioned"; }
    int version() const override { return 3; }
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec newer = param("newer", 1.0);
        newer.since = 2;
        newer.formerDefault = 0.25;
        ParamSpec newest = param("newest", true);
        newest.since = 3;
        newest.formerDefault = false;
        ParamSpec calm = param("calm", 0.0);
        calm.since = 3;
        return {param("length", 1.0), newer, newest, calm};
    }
};

// Holds a definition: {"inputs": [names of strands inputs], "params": {name: default number}}. Its
// ports and instance params follow the definition.
class DocGroupOp : public DocOp {
  public:
    std::string type() const override { return "DocGroup"; }
    std::vector<PortSpec> inputs() const override {
        std::vector<PortSpec> ports;
        const nlohmann::ordered_json definition = parsed();
        if (auto list = definition.find("inputs"); list != definition.end() && list->is_array()) {
            for (const auto& name : *list) {
                if (name.is_string()) ports.push_back(port(name, PortType::Strands, true));
            }
        }
        return ports;
    }
    std::vector<ParamSpec> params() const override {
        return {param("definition", std::string()), param("repeat", std::int64_t{1})};
    }
    std::vector<ParamSpec> instanceParams() const override {
        std::vector<ParamSpec> specs;
        const nlohmann::ordered_json definition = parsed();
        if (auto list = definition.find("params"); list != definition.end() && list->is_object()) {
            for (const auto& [name, value] : list->items()) {
                if (value.is_number()) {
                    specs.push_back(param(name, value.get<double>(), true, "Exposed (mappable)"));
                }
            }
        }
        return specs;
    }

  private:
    nlohmann::ordered_json parsed() const {
        const auto found = paramSet.values.find("definition");
        if (found == paramSet.values.end()) return nlohmann::ordered_json::object();
        // A definition that is not text (only a fuzzer writes one) defines nothing.
        const auto* text = std::get_if<std::string>(&found->second);
        return text ? nlohmann::ordered_json::parse(*text, nullptr, false)
                    : nlohmann::ordered_json::object();
    }
};

// Registers the types above into the process-wide registry, once.
inline void registerDocOperators() {
    static const bool registered = [] {
        OperatorRegistry& registry = OperatorRegistry::instance();
        const auto add = [&](const std::string& type, auto make) {
            registry.registerType(type, make, OperatorInfo{});
        };
        add("DocSource", [] { return std::make_unique<DocSourceOp>(); });
        add("DocShape", [] { return std::make_unique<DocShapeOp>(); });
        add("DocField", [] { return std::make_unique<DocFieldOp>(); });
        add("DocValue", [] { return std::make_unique<DocValueOp>(); });
        add("DocMesh", [] { return std::make_unique<DocMeshOp>(); });
        add("DocSplit", [] { return std::make_unique<DocSplitOp>(); });
        add("DocVersioned", [] { return std::make_unique<DocVersionedOp>(); });
        add("DocGroup", [] { return std::make_unique<DocGroupOp>(); });
        // Version 1 called `length` "len"; version 2 wrote it as text. Each step leaves a node
        // that is already in the newer form alone.
        registry.registerUpgrade("DocVersioned",
                                 {1, [](nlohmann::ordered_json& node) {
                                      auto params = node.find("params");
                                      if (params == node.end() || !params->contains("len")) {
                                          return;
                                      }
                                      (*params)["length"] = (*params)["len"];
                                      params->erase("len");
                                  }});
        registry.registerUpgrade("DocVersioned",
                                 {2, [](nlohmann::ordered_json& node) {
                                      auto params = node.find("params");
                                      if (params == node.end()) return;
                                      auto length = params->find("length");
                                      if (length == params->end() || !length->is_string()) {
                                          return;
                                      }
                                      *length = std::stod(length->get<std::string>());
                                  }});
        return true;
    }();
    (void)registered;
}

}  // namespace velmorin::test
