// Tools around the graph document: the default graph, graph reports and fitting keyed controls to
// a host.

#include "graph/graph_tools.h"

#include <memory>
#include <optional>
#include <utility>

#include "graph/registry.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

namespace {

struct SeededType {
    std::string_view type;
    std::string_view effect;
};
constexpr SeededType kSeededTypes[] = {
    {"Flyaway", "they pick the same strays"},
    {"Instance", "they pick the same strands"},
    {"Scales", "their scales vary alike"},
    {"Scatter", "their strands coincide (same roots and IDs)"},
};

// Whether `upstream` feeds `id`, directly or through other nodes.
bool feeds(const Graph& graph, std::uint32_t upstream, std::uint32_t id) {
    std::vector<std::uint32_t> stack{id};
    std::set<std::uint32_t> seen;
    while (!stack.empty()) {
        const std::uint32_t at = stack.back();
        stack.pop_back();
        if (!seen.insert(at).second) continue;
        for (std::uint32_t source : graph.node(at).inputs) {
            if (source == upstream) return true;
            if (source != 0) stack.push_back(source);
        }
    }
    return false;
}

// Fits the controls of one graph's nodes, then of the graphs inside their definitions.
class ControlFitter {
  public:
    ControlFitter(const std::set<std::string, std::less<>>& host, const OperatorRegistry& registry)
        : host_(host), registry_(registry) {}

    void collect(const Json& graph) {
        forEachControlList(graph, [&](const Json&, const std::string&, const Json& names) {
            if (names.is_string()) {
                used_.insert(names.get<std::string>());
            } else {
                for (const Json& name : names)
                    used_.insert(name.get<std::string>());
            }
        });
    }

    void fit(Json& graph) {
        forEachControlListMutable(
            graph, [&](const Json& node, const std::string& param, Json& names) {
                if (names.is_string()) {
                    names = fitOne(node, param, names.get<std::string>(), 0);
                    return;
                }
                for (std::size_t i = 0; i < names.size(); ++i) {
                    names[i] = fitOne(node, param, names[i].get<std::string>(), i);
                }
            });
    }

    std::map<std::string, double> takeValues() { return std::move(values_); }

  private:
    static bool controlList(const Json& names) {
        if (names.is_string()) return true;
        if (!names.is_array()) return false;
        for (const Json& name : names) {
            if (!name.is_string()) return false;
        }
        return true;
    }

    static const Json* innerNodes(const Json& node) {
        auto definition = node.find("definition");
        if (definition == node.end() || !definition->is_object()) return nullptr;
        auto graph = definition->find("graph");
        if (graph == definition->end() || !graph->is_object()) return nullptr;
        return &*graph;
    }

    template <class Visit>
    static void forEachControlList(const Json& graph, const Visit& visit) {
        auto nodes = graph.find("nodes");
        if (nodes == graph.end() || !nodes->is_array()) return;
        for (const Json& node : *nodes) {
            if (!node.is_object()) continue;
            if (auto controls = node.find("paramControls");
                controls != node.end() && controls->is_object()) {
                for (const auto& [param, names] : controls->items()) {
                    if (controlList(names)) visit(node, param, names);
                }
            }
            if (const Json* inner = innerNodes(node)) forEachControlList(*inner, visit);
        }
    }

    template <class Visit>
    static void forEachControlListMutable(Json& graph, const Visit& visit) {
        auto nodes = graph.find("nodes");
        if (nodes == graph.end() || !nodes->is_array()) return;
        for (Json& node : *nodes) {
            if (!node.is_object()) continue;
            if (auto controls = node.find("paramControls");
                controls != node.end() && controls->is_object()) {
                for (auto& [param, names] : controls->items()) {
                    if (controlList(names)) visit(node, param, names);
                }
            }
            if (innerNodes(node)) forEachControlListMutable(node["definition"]["graph"], visit);
        }
    }

    std::string fitOne(const Json& node, const std::string& param, const std::string& name,
                       std::size_t component) {
        std::string fitted;
        if (auto done = renamed_.find(name); done != renamed_.end()) {
            fitted = done->second;
        } else {
            fitted = name;
            if (host_.contains(name)) {
                for (int n = 1;; ++n) {
                    std::string candidate = name + std::to_string(n);
                    if (!host_.contains(candidate) && !used_.contains(candidate)) {
                        fitted = std::move(candidate);
                        break;
                    }
                }
                used_.insert(fitted);
            }
            renamed_.emplace(name, fitted);
        }
        if (!values_.contains(fitted)) {
            if (auto value = currentValue(node, param, component)) values_.emplace(fitted, *value);
        }
        return fitted;
    }

    static std::optional<double> number(const ParamValue& value, std::size_t component) {
        if (const auto* b = std::get_if<bool>(&value)) return *b ? 1.0 : 0.0;
        if (const auto* i = std::get_if<std::int64_t>(&value)) return static_cast<double>(*i);
        if (const auto* f = std::get_if<double>(&value)) return *f;
        if (const auto* v = std::get_if<Vec3f>(&value)) {
            if (component > 2) return std::nullopt;
            return static_cast<double>(component == 0 ? v->x : component == 1 ? v->y : v->z);
        }
        return std::nullopt;
    }

    std::optional<double> currentValue(const Json& node, const std::string& param,
                                       std::size_t component) {
        if (auto params = node.find("params"); params != node.end() && params->is_object()) {
            if (auto value = params->find(param); value != params->end()) {
                if (value->is_boolean()) return value->get<bool>() ? 1.0 : 0.0;
                if (value->is_number()) return value->get<double>();
                if (value->is_array() && component < value->size() &&
                    (*value)[component].is_number()) {
                    return (*value)[component].get<double>();
                }
                return std::nullopt;
            }
        }
        auto type = node.find("type");
        if (type == node.end() || !type->is_string()) return std::nullopt;
        const Operator* op = operatorOf(type->get<std::string>());
        if (!op) return std::nullopt;
        const ParamSpec* spec = op->paramSet.spec(param);
        if (!spec) return std::nullopt;
        return number(spec->defaultValue, component);
    }

    // One operator per type, made once, to read the defaults of its params.
    const Operator* operatorOf(const std::string& type) {
        auto found = operators_.find(type);
        if (found != operators_.end()) return found->second.get();
        std::unique_ptr<Operator> op;
        if (registry_.contains(type)) op = registry_.create(type);
        return operators_.emplace(type, std::move(op)).first->second.get();
    }

    const std::set<std::string, std::less<>>& host_;
    const OperatorRegistry& registry_;
    std::set<std::string, std::less<>> used_;
    std::map<std::string, std::string> renamed_;
    std::map<std::string, double> values_;
    std::map<std::string, std::unique_ptr<Operator>> operators_;
};

}  // namespace

std::string defaultGraphJson(const OperatorRegistry& registry) {
    struct DefaultNode {
        const char* name;
        const char* type;
    };
    constexpr DefaultNode kNodes[] = {
        {"scalp", "Scalp"},       {"guides", "Guides"},
        {"scatter", "Scatter"},   {"interpolate", "Interpolate"},
        {"length", "Length"},     {"noise", "Noise"},
        {"color", "HairColor"},   {"width", "Width"},
        {"resample", "Resample"}, {"output", "Output"},
    };
    struct DefaultConnection {
        const char* from;
        const char* to;
        const char* input;
    };
    constexpr DefaultConnection kConnections[] = {
        {"scalp", "scatter", "scalp"},        {"scatter", "interpolate", "strands"},
        {"guides", "interpolate", "guides"},  {"scalp", "interpolate", "scalp"},
        {"interpolate", "length", "strands"}, {"length", "noise", "strands"},
        {"noise", "color", "strands"},        {"color", "width", "strands"},
        {"width", "resample", "strands"},     {"resample", "output", "strands"},
    };

    Json nodes = Json::array();
    for (const DefaultNode& entry : kNodes) {
        Json node = Json::object();
        node["name"] = entry.name;
        node["type"] = entry.type;
        // Written as a saved node of the current version would be: without it a node of a later
        // version would read as saved by version 1, out of date from its first day.
        if (registry.contains(entry.type)) {
            const int version = registry.create(entry.type)->version();
            if (version > 1) node["version"] = version;
        }
        if (std::string_view(entry.type) == "Length") {
            node["params"] = Json::object({{"fraction", 1.0}, {"randomness", 0.2}});
        }
        nodes.push_back(std::move(node));
    }
    Json connections = Json::array();
    for (const DefaultConnection& entry : kConnections) {
        Json connection = Json::object();
        connection["from"] = entry.from;
        connection["to"] = entry.to;
        connection["input"] = entry.input;
        connections.push_back(std::move(connection));
    }
    Json doc = Json::object();
    doc["version"] = kGraphFormatVersion;
    doc["nodes"] = std::move(nodes);
    doc["connections"] = std::move(connections);
    doc["output"] = "output";
    return doc.dump(2);
}

Json graphInfo(const Graph& graph) {
    Json nodes = Json::array();
    std::size_t connectionCount = 0;
    for (const auto& [id, node] : graph.nodes()) {
        const Operator& op = *node.op;
        const int current = op.version();
        const bool outdated = op.savedVersion > 0 && op.savedVersion < current;
        Json entry = Json::object();
        entry["id"] = id;
        entry["name"] = node.name;
        entry["type"] = op.type();
        entry["nodeVersion"] = outdated ? op.savedVersion : current;
        entry["currentVersion"] = current;
        entry["outdated"] = outdated;
        nodes.push_back(std::move(entry));
        for (std::uint32_t source : node.inputs)
            connectionCount += source != 0 ? 1 : 0;
    }
    Json info = Json::object();
    info["nodeCount"] = graph.nodes().size();
    info["connectionCount"] = connectionCount;
    if (graph.hasNode(graph.outputNode())) {
        info["output"] = graph.node(graph.outputNode()).name;
    } else {
        info["output"] = nullptr;
    }
    info["nodes"] = std::move(nodes);
    return info;
}

std::vector<std::string> seedCollisions(const Graph& graph) {
    struct Seeded {
        std::uint32_t id;
        const GraphNode* node;
        const SeededType* type;
        std::int64_t seed;
    };
    std::vector<Seeded> seeded;
    for (const auto& [id, node] : graph.nodes()) {
        if (node.bypass) continue;  // a bypassed node draws nothing
        const std::string type = node.op->type();
        for (const SeededType& entry : kSeededTypes) {
            if (entry.type == type) {
                seeded.push_back({id, &node, &entry, node.op->paramSet.getInt("seed", 0)});
            }
        }
    }
    std::vector<std::string> messages;
    for (std::size_t a = 0; a < seeded.size(); ++a) {
        for (std::size_t b = a + 1; b < seeded.size(); ++b) {
            const Seeded& first = seeded[a];
            const Seeded& second = seeded[b];
            if (first.type != second.type || first.seed != second.seed) continue;
            if (!feeds(graph, first.id, second.id) && !feeds(graph, second.id, first.id)) continue;
            messages.push_back(std::string(first.type->type) + " nodes '" + first.node->name +
                               "' and '" + second.node->name + "' share seed " +
                               std::to_string(first.seed) + ": " + std::string(first.type->effect) +
                               "; give each its own seed");
        }
    }
    return messages;
}

std::map<std::string, double> fitControls(Json& graphJson,
                                          const std::set<std::string, std::less<>>& hostControls,
                                          const OperatorRegistry& registry) {
    if (!graphJson.is_object()) throw SchemaError("graph JSON must be an object");
    Json fitted = graphJson;
    ControlFitter fitter(hostControls, registry);
    fitter.collect(fitted);
    fitter.fit(fitted);
    std::map<std::string, double> values = fitter.takeValues();
    graphJson = std::move(fitted);
    return values;
}

}  // namespace velmorin
