// Graph editing: nodes, connections, exposed and keyed params, node switches, and clone. Every
// operation checks all of its rules before it changes anything, so a failed edit leaves the graph
// as it was. Evaluation lives in its own file.

#include "graph/graph.h"

#include <algorithm>
#include <string>
#include <utility>

#include "graph/registry.h"

namespace velmorin {

namespace {

constexpr std::string_view kEvaluationNames[] = {"always", "viewportOnly", "renderOnly"};

// The port that feeds a param input. The param is known to be exposable: exposeParam checked it.
PortSpec paramPort(const Operator& op, const std::string& param) {
    PortSpec port;
    const ParamSpec* spec = op.paramSet.spec(param);
    if (spec) paramInputPort(*spec, port);
    port.name = param;
    return port;
}

// Input ports come first, param inputs after them, in the order they were exposed.
std::size_t portInputCount(const GraphNode& node) {
    return node.inputs.size() - node.paramInputs.size();
}

PortSpec inputPortOf(const GraphNode& node, std::size_t input) {
    const std::size_t ports = portInputCount(node);
    if (input < ports) {
        std::vector<PortSpec> specs = node.op->inputs();
        if (input < specs.size()) return specs[input];
        PortSpec unknown;
        unknown.name = "input " + std::to_string(input);
        return unknown;
    }
    return paramPort(*node.op, node.paramInputs[input - ports]);
}

std::string nodeHead(const GraphNode& node, const std::string& param) {
    return node.name + " param '" + param + "'";
}

}  // namespace

std::string_view evaluationModeName(EvaluationMode mode) {
    const auto index = static_cast<std::size_t>(mode);
    return index < std::size(kEvaluationNames) ? kEvaluationNames[index] : "always";
}

EvaluationMode parseEvaluationMode(std::string_view name) {
    for (std::size_t i = 0; i < std::size(kEvaluationNames); ++i) {
        if (kEvaluationNames[i] == name) return static_cast<EvaluationMode>(i);
    }
    throw GraphError("unknown evaluation '" + std::string(name) +
                     "' (always, viewportOnly or renderOnly)");
}

// The cache limit is what VELMORIN_CACHE_LIMIT_MB asks for, read once per process.
Graph::Graph(const OperatorRegistry& registry)
    : cacheLimit(cacheLimitFromEnvironment()), registry_(&registry) {}
Graph::~Graph() = default;
Graph::Graph(Graph&&) noexcept = default;
Graph& Graph::operator=(Graph&&) noexcept = default;

std::uint32_t Graph::addNode(std::unique_ptr<Operator> op, const std::string& name) {
    if (!op) throw GraphError("addNode: null operator");
    if (name.empty()) throw GraphError("addNode: a node needs a name");
    if (names_.contains(name)) throw GraphError("a node named '" + name + "' already exists");
    GraphNode node;
    const std::size_t inputCount = op->inputs().size();
    node.inputs.assign(inputCount, 0);
    node.slots.assign(inputCount, 0);
    node.name = name;
    node.op = std::move(op);
    node.op->name = name;
    const std::uint32_t id = nextId_;
    nodes_.emplace(id, std::move(node));
    names_.emplace(name, id);
    ++nextId_;
    return id;
}

std::uint32_t Graph::addNode(std::string_view type, const std::string& name) {
    // Check the name before making the operator, so that the message names the real fault.
    if (name.empty()) throw GraphError("addNode: a node needs a name");
    if (names_.contains(name)) throw GraphError("a node named '" + name + "' already exists");
    return addNode(registry_->create(type), name);
}

void Graph::removeNode(std::uint32_t id) {
    auto found = nodes_.find(id);
    if (found == nodes_.end()) throw GraphError("unknown node " + std::to_string(id));
    for (auto& [otherId, other] : nodes_) {
        for (std::size_t i = 0; i < other.inputs.size(); ++i) {
            if (other.inputs[i] == id) {
                other.inputs[i] = 0;
                other.slots[i] = 0;
            }
        }
    }
    names_.erase(found->second.name);
    nodes_.erase(found);
    times.erase(id);
    lastTimes.erase(id);
    runs.erase(id);
    notes.erase(id);
    if (outputNode_ == id) outputNode_ = 0;
}

GraphNode& Graph::node(std::uint32_t id) {
    auto found = nodes_.find(id);
    if (found == nodes_.end()) throw GraphError("unknown node " + std::to_string(id));
    return found->second;
}

const GraphNode& Graph::node(std::uint32_t id) const {
    auto found = nodes_.find(id);
    if (found == nodes_.end()) throw GraphError("unknown node " + std::to_string(id));
    return found->second;
}

Operator& Graph::operatorOf(std::uint32_t id) {
    return *node(id).op;
}
const Operator& Graph::operatorOf(std::uint32_t id) const {
    return *node(id).op;
}

std::uint32_t Graph::nodeId(std::string_view name) const {
    auto found = names_.find(name);
    if (found == names_.end()) throw GraphError("no node named " + std::string(name));
    return found->second;
}

bool Graph::hasNode(std::uint32_t id) const {
    return nodes_.contains(id);
}

std::vector<std::uint32_t> Graph::nodeIds() const {
    std::vector<std::uint32_t> ids;
    ids.reserve(nodes_.size());
    for (const auto& entry : nodes_)
        ids.push_back(entry.first);
    return ids;
}

void Graph::connect(std::uint32_t from, std::uint32_t to, std::size_t input, std::size_t output) {
    GraphNode& target = node(to);
    const GraphNode& source = node(from);
    if (input >= target.inputs.size()) {
        throw GraphError(target.name + " has no input slot " + std::to_string(input));
    }
    const std::vector<PortSpec> outputs = source.op->outputs();
    if (output >= outputs.size()) {
        throw GraphError(source.name + " has no output " + std::to_string(output));
    }
    const PortSpec& out = outputs[output];
    const PortSpec in = inputPortOf(target, input);

    if (out.type == PortType::Field && in.type == PortType::Value) {
        throw GraphError("type mismatch: Field -> Value: '" + in.name +
                         "' takes one value for the whole node, and a field gives one per strand "
                         "(drive it with a Value node, or an Expression set to give a value)");
    }
    if (out.type == PortType::Value && (in.type == PortType::Value || in.type == PortType::Field)) {
        bool fits;
        std::string takes;
        if (in.type == PortType::Field) {
            // A field target turns one value into a constant field: it needs a number.
            fits = out.valueKind == ValueKind::Any || out.valueKind == ValueKind::Number ||
                   out.valueKind == ValueKind::Integer;
            takes = "a field or a number";
        } else {
            // Text names one of a choice param's choices.
            fits = out.valueKind == in.valueKind || out.valueKind == ValueKind::Any ||
                   in.valueKind == ValueKind::Any ||
                   (out.valueKind == ValueKind::Text && in.valueKind == ValueKind::Choice);
            takes = std::string(valueKindName(in.valueKind));
        }
        if (!fits) {
            throw GraphError("type mismatch: a " + std::string(valueKindName(out.valueKind)) +
                             " Value cannot feed '" + in.name + "', which takes " + takes);
        }
    } else if (!canConnect(out.type, in.type)) {
        throw GraphError("type mismatch: " + std::string(portTypeName(out.type)) + " -> " +
                         std::string(portTypeName(in.type)));
    }

    // Walk upstream from the source: reaching the target means the new edge closes a loop. A node
    // connected to itself is the shortest such loop.
    std::vector<char> seen(nextId_, 0);
    std::vector<std::uint32_t> stack{from};
    while (!stack.empty()) {
        const std::uint32_t at = stack.back();
        stack.pop_back();
        if (at == to) throw GraphError("connection would create a cycle");
        if (seen[at]) continue;
        seen[at] = 1;
        for (std::uint32_t upstream : nodes_.at(at).inputs) {
            if (upstream != 0 && !seen[upstream]) stack.push_back(upstream);
        }
    }

    target.inputs[input] = from;
    target.slots[input] = output;
}

void Graph::disconnect(std::uint32_t to, std::size_t input) {
    GraphNode& target = node(to);
    if (input >= target.inputs.size()) {
        throw GraphError(target.name + " has no input slot " + std::to_string(input));
    }
    target.inputs[input] = 0;
    target.slots[input] = 0;
}

void Graph::exposeParam(std::uint32_t id, const std::string& param) {
    GraphNode& target = node(id);
    const ParamSpec* spec = target.op->paramSet.spec(param);
    if (!spec) throw GraphError(target.name + " has no param '" + param + "' to expose");
    PortSpec port;
    if (!paramInputPort(*spec, port)) {
        throw GraphError(target.name + " param '" + param + "' cannot be an input: " +
                         (spec->inputRule == InputRule::Never ? "it sets the node's own ports"
                                                              : "no node gives what it holds"));
    }
    for (const PortSpec& input : target.op->inputs()) {
        if (input.name == param) {
            throw GraphError("param '" + param + "' has the name of an input of " + target.name);
        }
    }
    if (std::find(target.paramInputs.begin(), target.paramInputs.end(), param) !=
        target.paramInputs.end()) {
        throw GraphError("param '" + param + "' exposed twice");
    }
    target.paramInputs.push_back(param);
    target.inputs.push_back(0);
    target.slots.push_back(0);
}

void Graph::unexposeParam(std::uint32_t id, const std::string& param) {
    GraphNode& target = node(id);
    auto found = std::find(target.paramInputs.begin(), target.paramInputs.end(), param);
    if (found == target.paramInputs.end()) {
        throw GraphError(target.name + " has no exposed param '" + param + "'");
    }
    const auto position = static_cast<std::size_t>(found - target.paramInputs.begin());
    const std::size_t input = portInputCount(target) + position;
    target.paramInputs.erase(found);
    target.inputs.erase(target.inputs.begin() + static_cast<std::ptrdiff_t>(input));
    target.slots.erase(target.slots.begin() + static_cast<std::ptrdiff_t>(input));
}

void Graph::keyParam(std::uint32_t id, const std::string& param,
                     const std::vector<std::string>& controls) {
    GraphNode& target = node(id);
    const ParamSpec* spec = target.op->paramSet.spec(param);
    if (!spec) throw GraphError(target.name + " has no param '" + param + "' to key");
    const std::string head = nodeHead(target, param);
    if (!spec->animatable) {
        throw GraphError(head +
                         " cannot be keyed: it sets how many strands, points or cards there are, "
                         "or where they go, which must stay the same on every frame");
    }
    const ParamKind kind = spec->kind();
    if (kind != ParamKind::Bool && kind != ParamKind::Int && kind != ParamKind::Float &&
        kind != ParamKind::Vec3) {
        throw GraphError(head + " cannot be keyed: only numbers, switches and vectors can");
    }
    for (const std::string& control : controls) {
        if (control.empty()) throw GraphError(head + ": a control needs a name");
    }
    const std::size_t wanted = kind == ParamKind::Vec3 ? 3 : 1;
    if (controls.size() != wanted) {
        throw GraphError(head + " is keyed by " +
                         (wanted == 3 ? "three controls (x, y, z)" : "one control"));
    }
    target.paramControls[param] = controls;
}

void Graph::unkeyParam(std::uint32_t id, const std::string& param) {
    GraphNode& target = node(id);
    if (target.paramControls.erase(param) == 0) {
        throw GraphError(nodeHead(target, param) + " is not keyed");
    }
}

void Graph::setBypass(std::uint32_t id, bool bypass) {
    node(id).bypass = bypass;
}

void Graph::setEvaluation(std::uint32_t id, EvaluationMode mode) {
    node(id).evaluation = mode;
}

void Graph::setOutput(std::uint32_t id) {
    node(id);  // throws for an id that is not there
    outputNode_ = id;
}

std::unique_ptr<Graph> Graph::clone() const {
    auto copy = std::make_unique<Graph>(*registry_);
    for (const auto& [id, from] : nodes_) {
        GraphNode node;
        node.op = registry_->recreate(*from.op);
        node.inputs = from.inputs;
        node.slots = from.slots;
        node.paramInputs = from.paramInputs;
        node.paramControls = from.paramControls;
        node.name = from.name;
        node.bypass = from.bypass;
        node.evaluation = from.evaluation;
        node.ui = from.ui;
        node.runtime = from.runtime;
        // Deliveries and preview copies are made anew by the clone's own evaluations.
        node.runtime.delivered = {};
        node.runtime.previewSources.clear();
        node.runtime.previewCopies.clear();
        copy->nodes_.emplace(id, std::move(node));
    }
    copy->names_ = names_;
    copy->nextId_ = nextId_;
    copy->outputNode_ = outputNode_;
    copy->cachingEnabled_ = cachingEnabled_;
    copy->backdrops = backdrops;
    copy->pins = pins;
    copy->times = times;
    copy->lastTimes = lastTimes;
    copy->runs = runs;
    copy->notes = notes;
    copy->adopted = adopted;
    copy->cacheLimit = cacheLimit;
    copy->evaluations = evaluations;
    copy->incrementalRuns = incrementalRuns;
    copy->cacheEvictions = cacheEvictions;
    return copy;
}

}  // namespace velmorin
