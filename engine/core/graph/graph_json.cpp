// Graph JSON: reading and writing a graph document. Reading is all or nothing: a new graph is built
// from the text and takes the place of the old one only when every node, param and connection has
// been read. Writing gives the one canonical text of a graph, so that a written graph read back
// writes the same bytes.

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/param_json.h"
#include "graph/registry.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

namespace {

// Deeper than any real document; a limit keeps hostile nesting from exhausting the stack in the
// recursive copies and writes of kept UI data.
constexpr int kMaxNesting = 512;

constexpr std::string_view kMapSources[] = {"texture", "colorSet", "attribute", "expression",
                                            "guide"};
constexpr std::string_view kComponents[] = {"r", "g", "b", "a", "luminance"};
constexpr std::string_view kNodePrefix = "node:";

// Whether a reader gives a param that a node saved at version `saved` leaves out its former
// default: the param came later and behaved otherwise before it did.
bool takesFormerDefault(const ParamSpec& spec, int saved) {
    return spec.since > saved && spec.formerDefault.has_value();
}

std::string nodeNumber(std::size_t index) {
    return std::to_string(index + 1);
}

void checkNesting(std::string_view text) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxNesting) {
                throw SchemaError("graph JSON: invalid JSON: nested deeper than " +
                                  std::to_string(kMaxNesting) + " levels");
            }
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
}

Json parseDocument(std::string_view text) {
    checkNesting(text);
    Json doc;
    try {
        doc = Json::parse(text.begin(), text.end());
    } catch (const Json::exception& error) {
        throw SchemaError(std::string("graph JSON: invalid JSON: ") + error.what());
    }
    if (!doc.is_object()) throw SchemaError("graph JSON must be an object");
    return doc;
}

// A JSON number that fits a float, as a float; false for any other value.
bool readFloat(const Json& json, float& out) {
    if (!json.is_number()) return false;
    const double value = json.get<double>();
    if (!std::isfinite(value) || std::fabs(value) > std::numeric_limits<float>::max()) return false;
    out = static_cast<float>(value);
    return true;
}

Ramp readRamp(const Json& json, const std::string& param) {
    const auto fail = [&]() -> GraphError {
        return GraphError("ramp for param '" + param + "' needs keys [[position, value], ...]");
    };
    const Json& keys = json.at("keys");
    if (!keys.is_array()) throw fail();
    Ramp ramp;
    ramp.keys.reserve(keys.size());
    for (const Json& key : keys) {
        RampKey parsed;
        if (!key.is_array() || key.size() != 2 || !readFloat(key[0], parsed.position) ||
            !readFloat(key[1], parsed.value)) {
            throw fail();
        }
        ramp.keys.push_back(parsed);
    }
    if (auto linear = json.find("linear"); linear != json.end()) {
        if (!linear->is_boolean()) throw fail();
        ramp.linear = linear->get<bool>();
    }
    std::stable_sort(ramp.keys.begin(), ramp.keys.end(),
                     [](const RampKey& a, const RampKey& b) { return a.position < b.position; });
    smoothSlopes(ramp);
    return ramp;
}

MapReference readMap(const Json& json, const std::string& param) {
    const std::string head = "map for param '" + param + "'";
    MapReference map;
    int sources = 0;
    for (std::size_t i = 0; i < std::size(kMapSources); ++i) {
        auto found = json.find(std::string(kMapSources[i]));
        if (found == json.end()) continue;
        ++sources;
        if (!found->is_string())
            throw GraphError(head + ": its " + std::string(kMapSources[i]) + " must be text");
        map.source = static_cast<MapSource>(i);
        map.text = found->get<std::string>();
    }
    if (sources != 1) {
        throw GraphError(head +
                         " needs exactly one of texture, colorSet, attribute, expression, "
                         "guide");
    }
    if (auto component = json.find("component"); component != json.end()) {
        bool known = false;
        if (component->is_number_integer()) {
            // Channels of a coloured source: r, g, b, a.
            const auto index = component->get<std::int64_t>();
            if (index >= 0 && index <= 3) {
                map.componentIndex = static_cast<int>(index);
                known = true;
            }
        } else if (component->is_string()) {
            const auto text = component->get<std::string>();
            known = std::find(std::begin(kComponents), std::end(kComponents), text) !=
                    std::end(kComponents);
            if (known) map.component = text;
        }
        if (!known) {
            const std::string text =
                component->is_string() ? component->get<std::string>() : component->dump();
            throw GraphError(head + ": unknown component '" + text + "'");
        }
    }
    const auto readBound = [&](const char* key, std::optional<double>& bound) {
        auto found = json.find(key);
        if (found == json.end()) return;
        if (!found->is_number() || !std::isfinite(found->get<double>())) {
            throw GraphError(head + ": " + key + " must be a number");
        }
        bound = found->get<double>();
    };
    readBound("min", map.min);
    readBound("max", map.max);
    return map;
}

struct ParamReference {
    std::uint32_t node = 0;
    std::string param;
    std::string source;
};

struct Loader {
    Graph& graph;
    const OperatorRegistry& registry;
    std::unordered_map<std::string, std::uint32_t> ids;
    std::vector<ParamReference> references;

    std::uint32_t idOf(const std::string& name) const {
        auto found = ids.find(name);
        if (found == ids.end()) throw SchemaError("unknown node '" + name + "'");
        return found->second;
    }

    // Upgrade steps rewrite a node's JSON from the form of one version into the next, oldest
    // first. The saved version is written back with the node, so a step must leave a node alone
    // that is already in the newer form. Nodes of an inner graph are upgraded by their own types.
    void upgrade(Json& node, int saved) const {
        // The registry hands the steps out in version order.
        for (const UpgradeStep& step : registry.upgrades(node["type"].get<std::string>())) {
            if (step.fromVersion >= saved && step.apply) step.apply(node);
        }
        auto definition = node.find("definition");
        if (definition == node.end() || !definition->is_object()) return;
        auto inner = definition->find("graph");
        if (inner == definition->end() || !inner->is_object()) return;
        auto nodes = inner->find("nodes");
        if (nodes == inner->end() || !nodes->is_array()) return;
        for (Json& innerNode : *nodes) {
            // An inner node the compound can't read is its own error, raised when it reads it.
            if (!innerNode.is_object()) continue;
            auto type = innerNode.find("type");
            if (type == innerNode.end() || !type->is_string()) continue;
            int innerSaved = 1;
            if (auto version = innerNode.find("version"); version != innerNode.end()) {
                if (!isWholeVersion(*version)) continue;
                innerSaved = static_cast<int>(std::min(
                    version->get<double>(), static_cast<double>(std::numeric_limits<int>::max())));
            }
            upgrade(innerNode, innerSaved);
        }
    }

    // The version a node was saved with: 1 when absent, else a whole number from 1.
    int savedVersion(const Json& node, const std::string& name, const Operator& op) const {
        auto found = node.find("version");
        if (found == node.end()) return 1;
        const Json& version = *found;
        if (!isWholeVersion(version)) {
            throw SchemaError("node '" + name + "': version " + version.dump() +
                              " is not a whole number from 1");
        }
        const double saved = version.get<double>();
        const int current = op.version();
        if (saved > current) {
            throw SchemaError("node '" + name + "' is a " + op.type() + " of version " +
                              versionText(version) + ", newer than this Velmorin's (" +
                              std::to_string(current) + "); update Velmorin to open it");
        }
        return static_cast<int>(saved);
    }

    void readParams(Operator& op, const Json& node, const std::string& name,
                    std::vector<std::pair<std::string, std::string>>& nodeReferences) const {
        auto params = node.find("params");
        if (params == node.end()) return;
        if (!params->is_object())
            throw SchemaError("node '" + name + "': params must be an object");
        for (const auto& [param, json] : params->items()) {
            if (!op.paramSet.spec(param)) {
                throw SchemaError("node '" + name + "' has no param '" + param + "'");
            }
            if (json.is_string()) {
                const auto& text = json.get_ref<const std::string&>();
                if (text.starts_with(kNodePrefix)) {
                    nodeReferences.emplace_back(param, text.substr(kNodePrefix.size()));
                    continue;
                }
            }
            op.paramSet.set(param, paramValueFromJson(json, param));
        }
    }

    void readNode(const Json& original, std::size_t index) {
        if (!original.is_object()) {
            throw SchemaError("graph JSON: node " + nodeNumber(index) + " is not an object");
        }
        auto nameField = original.find("name");
        if (nameField == original.end() || !nameField->is_string() ||
            nameField->get_ref<const std::string&>().empty()) {
            throw SchemaError("graph JSON: node " + nodeNumber(index) + " has no name");
        }
        const std::string name = nameField->get<std::string>();
        if (ids.contains(name)) throw SchemaError("duplicate node name '" + name + "'");
        auto typeField = original.find("type");
        if (typeField == original.end() || !typeField->is_string()) {
            throw SchemaError("node '" + name + "' has no type");
        }
        const std::string type = typeField->get<std::string>();
        std::unique_ptr<Operator> op = registry.create(type);

        const int saved = savedVersion(original, name, *op);
        const int current = op->version();
        // Copy the node only when a step may rewrite it.
        Json upgraded;
        const Json* node = &original;
        if (!registry.upgrades(type).empty() || original.contains("definition")) {
            upgraded = original;
            try {
                upgrade(upgraded, saved);
            } catch (const GraphError&) {
                throw;
            } catch (const SchemaError&) {
                throw;
            } catch (const std::exception& error) {
                // A step that meets a form it doesn't know fails the load, in the loader's words.
                throw SchemaError("node '" + name + "' could not be upgraded from version " +
                                  std::to_string(saved) + ": " + error.what());
            }
            node = &upgraded;
        }

        // The definition comes first: the params it declares are read with the others.
        if (auto definition = node->find("definition"); definition != node->end()) {
            if (op->paramSet.spec("definition")) {
                if (!definition->is_object()) {
                    throw SchemaError("node '" + name + "': definition must be an object");
                }
                op->paramSet.set("definition", definition->dump());
                op->declareParams();
            }
        }

        // A param given as "node:NAME" takes its value from that node: the param becomes an input
        // of this node, fed by the first output of NAME, once every node has been read.
        std::vector<std::pair<std::string, std::string>> nodeReferences;
        readParams(*op, *node, name, nodeReferences);

        if (saved < current) {
            // Params added after the saved version behave as they did when the file was written.
            const auto params = node->find("params");
            for (const auto& [param, spec] : op->paramSet.specs()) {
                if (!takesFormerDefault(spec, saved)) continue;
                if (params != node->end() && params->is_object() && params->contains(param)) {
                    continue;
                }
                op->paramSet.set(param, *spec.formerDefault);
            }
            op->savedVersion = saved;
        }

        const std::uint32_t id = graph.addNode(std::move(op), name);
        ids.emplace(name, id);
        for (auto& [param, source] : nodeReferences) {
            references.push_back({id, std::move(param), std::move(source)});
        }

        if (auto inputs = node->find("paramInputs"); inputs != node->end()) {
            const bool names =
                inputs->is_array() && std::all_of(inputs->begin(), inputs->end(),
                                                  [](const Json& j) { return j.is_string(); });
            if (!names) {
                throw SchemaError("node '" + name + "': paramInputs must be a list of param names");
            }
            for (const Json& param : *inputs)
                graph.exposeParam(id, param.get<std::string>());
        }

        if (auto controls = node->find("paramControls"); controls != node->end()) {
            if (!controls->is_object()) {
                throw SchemaError("node '" + name + "': paramControls must map params to controls");
            }
            for (const auto& [param, json] : controls->items()) {
                std::vector<std::string> names;
                if (json.is_string()) {
                    names.push_back(json.get<std::string>());
                } else if (json.is_array() && !json.empty() &&
                           std::all_of(json.begin(), json.end(),
                                       [](const Json& j) { return j.is_string(); })) {
                    for (const Json& control : json)
                        names.push_back(control.get<std::string>());
                } else {
                    throw SchemaError("node '" + name + "': param '" + param +
                                      "' must name its control (or three for a vector)");
                }
                graph.keyParam(id, param, names);
            }
        }

        if (auto bypass = node->find("bypass"); bypass != node->end()) {
            if (!bypass->is_boolean()) {
                throw SchemaError("node '" + name + "': bypass is true or false");
            }
            graph.setBypass(id, bypass->get<bool>());
        }

        if (auto evaluation = node->find("evaluation"); evaluation != node->end()) {
            const auto fail = [&] {
                return SchemaError("node '" + name +
                                   "': evaluation is always, viewportOnly or renderOnly");
            };
            if (!evaluation->is_string()) throw fail();
            try {
                graph.setEvaluation(id, parseEvaluationMode(evaluation->get<std::string>()));
            } catch (const GraphError&) {
                throw fail();
            }
        }

        if (auto ui = node->find("ui"); ui != node->end()) graph.node(id).ui = *ui;
    }

    static std::size_t inputIndex(const GraphNode& node, const std::string& port) {
        const std::vector<PortSpec> ports = node.op->inputs();
        for (std::size_t i = 0; i < ports.size(); ++i) {
            if (ports[i].name == port) return i;
        }
        const std::size_t first = node.inputs.size() - node.paramInputs.size();
        for (std::size_t i = 0; i < node.paramInputs.size(); ++i) {
            if (node.paramInputs[i] == port) return first + i;
        }
        throw SchemaError(node.name + " has no input '" + port + "'");
    }

    static std::size_t outputIndex(const GraphNode& node, const std::string& port) {
        const std::vector<PortSpec> ports = node.op->outputs();
        for (std::size_t i = 0; i < ports.size(); ++i) {
            if (ports[i].name == port) return i;
        }
        throw SchemaError(node.name + " has no output '" + port + "'");
    }

    void resolveReferences() {
        for (const ParamReference& reference : references) {
            const std::uint32_t source = idOf(reference.source);
            const GraphNode& target = graph.node(reference.node);
            if (std::find(target.paramInputs.begin(), target.paramInputs.end(), reference.param) ==
                target.paramInputs.end()) {
                graph.exposeParam(reference.node, reference.param);
            }
            graph.connect(source, reference.node, inputIndex(target, reference.param), 0);
        }
    }

    void readConnection(const Json& connection, std::size_t index) {
        const auto text = [&](const char* key) {
            auto found = connection.find(key);
            return found != connection.end() && found->is_string();
        };
        if (!connection.is_object() || !text("from") || !text("to") || !text("input") ||
            (connection.contains("output") && !text("output"))) {
            throw SchemaError("graph JSON: connection " + nodeNumber(index) +
                              " needs the names from, to and input (and may name an output)");
        }
        const std::uint32_t from = idOf(connection["from"].get<std::string>());
        const std::uint32_t to = idOf(connection["to"].get<std::string>());
        const std::size_t input =
            inputIndex(graph.node(to), connection["input"].get<std::string>());
        std::size_t output = 0;
        if (auto port = connection.find("output"); port != connection.end()) {
            output = outputIndex(graph.node(from), port->get<std::string>());
        }
        graph.connect(from, to, input, output);
    }

    void read(const Json& doc) {
        checkFormatVersion(doc, kGraphFormatVersion, "graph JSON");
        auto output = doc.find("output");
        if (output == doc.end()) throw SchemaError("graph JSON has no 'output' node");
        if (!output->is_string()) throw SchemaError("graph JSON: 'output' must name a node");

        if (auto nodes = doc.find("nodes"); nodes != doc.end()) {
            if (!nodes->is_array()) throw SchemaError("graph JSON: 'nodes' must be a list");
            ids.reserve(nodes->size());
            for (std::size_t i = 0; i < nodes->size(); ++i)
                readNode((*nodes)[i], i);
        }
        resolveReferences();
        if (auto connections = doc.find("connections"); connections != doc.end()) {
            if (!connections->is_array()) {
                throw SchemaError("graph JSON: 'connections' must be a list");
            }
            for (std::size_t i = 0; i < connections->size(); ++i) {
                readConnection((*connections)[i], i);
            }
        }
        graph.setOutput(idOf(output->get<std::string>()));
        if (auto backdrops = doc.find("backdrops"); backdrops != doc.end()) {
            graph.backdrops = *backdrops;
        }
        if (auto pins = doc.find("pins"); pins != doc.end()) graph.pins = *pins;
    }
};

// The definition of an operator that has one, when it holds a JSON object: it is written as the
// node's "definition" rather than as a param.
bool definitionObject(const Operator& op, Json& out) {
    auto found = op.paramSet.values.find("definition");
    if (found == op.paramSet.values.end()) return false;
    const auto* text = std::get_if<std::string>(&found->second);
    if (!text || text->empty()) return false;
    Json parsed = Json::parse(*text, nullptr, false);
    if (!parsed.is_object()) return false;
    out = std::move(parsed);
    return true;
}

// What a reader takes for a param that a node written at version `written` of an operator now at
// `current` leaves out, or nothing when it could not take it (a former default the param refuses
// fails the load, so the value must be written).
std::optional<ParamValue> readBackWhenAbsent(const ParamSpec& spec, int written, int current) {
    if (written >= current || !takesFormerDefault(spec, written)) return spec.defaultValue;
    try {
        return coerceParam(*spec.formerDefault, spec, "param '" + spec.name + "'");
    } catch (const GraphError&) {
        return std::nullopt;
    }
}

Json nodeToJson(const GraphNode& node) {
    const Operator& op = *node.op;
    Json json = Json::object();
    json["name"] = node.name;
    json["type"] = op.type();
    const int current = op.version();
    const int written =
        op.savedVersion > 0 && op.savedVersion < current ? op.savedVersion : current;
    if (written > 1) json["version"] = written;

    Json definition;
    const bool hasDefinition = definitionObject(op, definition);
    if (hasDefinition) json["definition"] = std::move(definition);

    // A param is left out only when a reader would give it back as it stands. For a node written
    // at an older version, that is the former default of a param added since, not its default:
    // leaving out a value equal to the default would turn it into the former one on reading.
    Json params = Json::object();
    for (const ParamSpec& spec : schemaParams(op)) {
        if (hasDefinition && spec.name == "definition") continue;
        auto set = op.paramSet.values.find(spec.name);
        const ParamValue& value = set == op.paramSet.values.end() ? spec.defaultValue : set->second;
        if (value == readBackWhenAbsent(spec, written, current)) continue;
        params[spec.name] = paramValueJson(value);
    }
    if (!params.empty()) json["params"] = std::move(params);

    if (!node.paramInputs.empty()) json["paramInputs"] = node.paramInputs;
    if (!node.paramControls.empty()) {
        Json controls = Json::object();
        for (const auto& [param, names] : node.paramControls) {
            if (names.size() == 1) {
                controls[param] = names.front();
            } else {
                controls[param] = names;
            }
        }
        json["paramControls"] = std::move(controls);
    }
    if (node.bypass) json["bypass"] = true;
    if (node.evaluation != EvaluationMode::Always) {
        json["evaluation"] = evaluationModeName(node.evaluation);
    }
    if (!node.ui.is_null()) json["ui"] = node.ui;
    return json;
}

}  // namespace

ParamValue paramValueFromJson(const Json& json, const std::string& param) {
    const auto unsupported = [&] {
        return GraphError("unsupported value for param '" + param + "'");
    };
    switch (json.type()) {
        case Json::value_t::boolean:
            return json.get<bool>();
        case Json::value_t::number_integer:
            return json.get<std::int64_t>();
        case Json::value_t::number_unsigned: {
            const auto number = json.get<std::uint64_t>();
            if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                throw GraphError("param '" + param + "': " + std::to_string(number) +
                                 " is out of range for an integer");
            }
            return static_cast<std::int64_t>(number);
        }
        case Json::value_t::number_float: {
            const double number = json.get<double>();
            if (!std::isfinite(number)) throw unsupported();
            return number;
        }
        case Json::value_t::string:
            return json.get<std::string>();
        case Json::value_t::array: {
            Vec3f v;
            if (json.size() != 3 || !readFloat(json[0], v.x) || !readFloat(json[1], v.y) ||
                !readFloat(json[2], v.z)) {
                throw unsupported();
            }
            return v;
        }
        case Json::value_t::object:
            if (json.contains("keys")) return readRamp(json, param);
            return readMap(json, param);
        default:
            throw unsupported();
    }
}

std::string Graph::toJson() const {
    Json doc = Json::object();
    doc["version"] = kGraphFormatVersion;
    Json nodes = Json::array();
    Json connections = Json::array();
    for (const auto& [id, node] : nodes_)
        nodes.push_back(nodeToJson(node));
    for (const auto& [id, node] : nodes_) {
        if (std::all_of(node.inputs.begin(), node.inputs.end(),
                        [](std::uint32_t source) { return source == 0; })) {
            continue;
        }
        const std::vector<PortSpec> ports = node.op->inputs();
        const std::size_t firstParam = node.inputs.size() - node.paramInputs.size();
        for (std::size_t i = 0; i < node.inputs.size(); ++i) {
            const std::uint32_t sourceId = node.inputs[i];
            if (sourceId == 0) continue;
            const GraphNode& source = nodes_.at(sourceId);
            std::string input;
            if (i >= firstParam) {
                input = node.paramInputs[i - firstParam];
            } else if (i < ports.size()) {
                input = ports[i].name;
            } else {
                continue;  // the operator no longer has this port: the edge can't be named
            }
            Json connection = Json::object();
            connection["from"] = source.name;
            connection["to"] = node.name;
            connection["input"] = std::move(input);
            // "output" is written only when it is not the first output, the one a reader assumes.
            if (node.slots[i] != 0) {
                const std::vector<PortSpec> outputs = source.op->outputs();
                if (node.slots[i] >= outputs.size()) continue;
                connection["output"] = outputs[node.slots[i]].name;
            }
            connections.push_back(std::move(connection));
        }
    }
    doc["nodes"] = std::move(nodes);
    doc["connections"] = std::move(connections);
    // A graph with no output node is written without one: reading it back says what is missing.
    if (auto output = nodes_.find(outputNode_); output != nodes_.end()) {
        doc["output"] = output->second.name;
    }
    if (!backdrops.is_null()) doc["backdrops"] = backdrops;
    if (!pins.is_null()) doc["pins"] = pins;
    return doc.dump(2);
}

void Graph::fromJson(std::string_view text) {
    const Json doc = parseDocument(text);
    // Settings of the graph, not state of its evaluation, carry over to the new document.
    Graph loaded(*registry_);
    loaded.cacheLimit = cacheLimit;
    loaded.cachingEnabled_ = cachingEnabled_;
    Loader loader{loaded, *registry_, {}, {}};
    loader.read(doc);
    *this = std::move(loaded);
}

}  // namespace velmorin
