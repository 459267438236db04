// Graph evaluation: result keys, reuse of stored results, incremental runs and their check, the
// affect mix, evaluation without the cache, and the preview finish step. A node whose key equals
// its stored key costs one hash; a node whose inputs changed in few strands updates only those.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/affect.h"
#include "graph/field_value.h"
#include "graph/graph.h"
#include "graph/registry.h"
#include "graph/uniform_value.h"
#include "strands/guide.h"
#include "strands/guide_conversion.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

std::atomic<bool> gIncrementalEvaluation{true};
std::atomic<bool> gStrandDiffing{true};
std::atomic<bool> gIncrementalCheck{false};

// The serial of the run that made a result, shared by every graph of the process, so that a stamp
// names one result wherever it travels (a clone, a detached evaluation).
std::atomic<std::uint64_t> gStampCounter{0};

std::uint64_t nextStamp() {
    return gStampCounter.fetch_add(1, std::memory_order_relaxed) + 1;
}

using KeyTable = std::unordered_map<std::uint32_t, std::uint64_t>;
using ResolutionTable = std::map<std::uint32_t, Graph::Resolution>;
using ChangesPointer = std::shared_ptr<const StrandChanges>;

std::string unknownNode(std::uint32_t id) {
    return "unknown node " + std::to_string(id);
}

// A change note that lists no strand: the input is the very result the node was made from.
const ChangesPointer& noChanges() {
    static const ChangesPointer none = [] {
        auto changes = std::make_shared<StrandChanges>();
        changes->all = false;
        changes->sameLayout = true;
        return changes;
    }();
    return none;
}

// Silent nodes don't run in this evaluation: bypassed, or of the other evaluation mode.
bool isSilent(const GraphNode& node, bool viewport) {
    if (node.bypass) return true;
    if (node.evaluation == EvaluationMode::ViewportOnly) return !viewport;
    if (node.evaluation == EvaluationMode::RenderOnly) return viewport;
    return false;
}

std::size_t portInputCount(const GraphNode& node) {
    return node.inputs.size() - node.paramInputs.size();
}

// Whether a silent node hands its first input on: it has one, of its output's type, connected.
bool passesThrough(const GraphNode& node) {
    if (portInputCount(node) == 0 || node.inputs[0] == 0) return false;
    const std::vector<PortSpec> ports = node.op->inputs();
    const std::vector<PortSpec> outputs = node.op->outputs();
    return !ports.empty() && !outputs.empty() && ports[0].type == outputs[0].type;
}

EvalContext nodeContext(const EvalContext& root, const ResolutionTable* resolutions,
                        std::uint32_t id) {
    EvalContext ctx = root;
    if (resolutions) {
        const auto found = resolutions->find(id);
        ctx.resolution = found == resolutions->end() ? 0 : found->second.segments;
    }
    return ctx;
}

// Keyed params take their values from the host's controls, which reach the graph as scene inputs
// named "control:" + the control's name; their keys stand for the values at this frame.
std::uint64_t keyedParamsKey(const GraphNode& node, const EvalContext& ctx) {
    std::uint64_t h = 0;
    for (const auto& [param, controls] : node.paramControls) {
        h = hashText(h, param);
        for (const std::string& control : controls) {
            h = hashText(h, control);
            const SceneInput* input = ctx.sceneInput(controlInputName(control));
            h = hashCombine(h, input ? input->key : 0);
        }
    }
    return h;
}

// Params that hold maps read the scalp and the catalog of maps, and an expression that may read
// the frame reads the time: those enter the key of the node that holds them.
std::uint64_t mappedParamsKey(const Operator& op, const EvalContext& ctx) {
    bool mapped = false, timed = false;
    for (const auto& [name, value] : op.paramSet.values) {
        const MapReference* map = std::get_if<MapReference>(&value);
        if (!map) continue;
        mapped = true;
        if (map->source == MapSource::Expression && (map->text.find("frame") != std::string::npos ||
                                                     map->text.find("time") != std::string::npos))
            timed = true;
    }
    if (!mapped) return 0;
    std::uint64_t h = 0x6d6170706564ull;
    for (const std::string_view name : {kScalpInput, kMapsInput}) {
        const SceneInput* input = ctx.sceneInput(name);
        h = hashCombine(h, input ? input->key : 0);
    }
    if (timed) h = hashCombine(h, doubleBits(ctx.time));
    return h;
}

struct KeyBuilder {
    const Graph& graph;
    const EvalContext& root;
    const ResolutionTable* resolutions;  // null when root.resolution stands for every node
    KeyTable& keys;
    KeyTable& localKeys;

    std::uint64_t key(std::uint32_t id) {
        if (const auto found = keys.find(id); found != keys.end()) return found->second;
        const GraphNode& node = graph.node(id);
        const Operator& op = *node.op;
        std::uint64_t h = 0;
        if (root.previewDensity != 1.0) h = mix64(doubleBits(root.previewDensity));

        // A silent node that hands its input on is keyed by that input alone: its params, version
        // and the rest can change without anything downstream running again.
        if (isSilent(node, root.viewport) && passesThrough(node)) {
            const std::uint64_t slot = node.slots[0];
            localKeys[id] = hashCombine(h, slot + 199);
            std::uint64_t passed = hashCombine(h, key(node.inputs[0]));
            if (slot != 0) passed = hashCombine(passed, slot + 199);
            keys[id] = passed;
            return passed;
        }

        const EvalContext ctx = nodeContext(root, resolutions, id);
        h = hashCombine(h, op.paramSet.hash());
        // A node read from an older file may behave as that version did. 0 is a node made here.
        if (op.savedVersion != 0 && op.savedVersion != op.version())
            h = hashCombine(h, static_cast<std::uint64_t>(op.savedVersion) + 0x7E5000);
        h = hashCombine(h, op.contentKey());
        h = hashCombine(h, op.contextKey(ctx, id, root));
        h = hashCombine(h, keyedParamsKey(node, ctx));
        h = hashCombine(h, mappedParamsKey(op, root));
        for (const std::string& name : op.sceneInputs()) {
            h = hashText(h, name);
            const SceneInput* input = root.sceneInput(name);
            h = hashCombine(h, input ? op.sceneInputKey(name, *input) : 0);
        }

        std::uint64_t local = hashCombine(h, node.inputs.size());
        for (std::size_t i = 0; i < node.inputs.size(); ++i)
            local = hashCombine(local, node.inputs[i] ? node.slots[i] + 199 + kGolden : kGolden);
        localKeys[id] = local;

        std::uint64_t full = local;
        for (std::size_t i = 0; i < node.inputs.size(); ++i) {
            if (node.inputs[i] == 0) {
                full = hashCombine(full, 0);
                continue;
            }
            full = hashCombine(full, key(node.inputs[i]));
            if (node.slots[i] != 0) full = hashCombine(full, node.slots[i] + 199);
        }
        keys[id] = full;
        return full;
    }
};

bool sameValues(const std::vector<Value>& a, const std::vector<Value>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!(a[i] == b[i])) return false;
    return true;
}

template <class T>
bool sameArray(std::span<const T> a, std::span<const T> b) {
    if (a.size() != b.size()) return false;
    if (a.data() == b.data() || a.empty()) return true;
    return std::memcmp(a.data(), b.data(), a.size_bytes()) == 0;
}

// Strand and point counts, IDs, offsets, roots and channel names, as StrandChanges::sameLayout
// means it. Shared columns compare by pointer, so a derived set costs nothing here.
bool sameLayout(const StrandSet& a, const StrandSet& b) {
    if (&a == &b) return true;
    return a.strandCount() == b.strandCount() && a.pointCount() == b.pointCount() &&
           sameArray(a.ids(), b.ids()) && sameArray(a.offsets(), b.offsets()) &&
           sameArray(a.roots(), b.roots()) && a.strandChannelNames() == b.strandChannelNames() &&
           a.pointChannelNames() == b.pointChannelNames();
}

ChangesPointer withLayout(const ChangesPointer& changes, bool same) {
    if (changes && changes->sameLayout == same) return changes;
    auto updated =
        changes ? std::make_shared<StrandChanges>(*changes) : std::make_shared<StrandChanges>();
    updated->sameLayout = same;
    return updated;
}

std::string wrongCount(const Operator& op, std::size_t made, std::size_t outputs,
                       bool incremental) {
    return op.type() + " made " + std::to_string(made) +
           (incremental ? " values incrementally for " : " values for ") + std::to_string(outputs) +
           " outputs";
}

std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        if (!text.empty()) text += '\n';
        text += line;
    }
    return text;
}

Value constantField(const UniformValue& uniform) {
    switch (uniform.kind) {
        case ValueKind::Bool:
            if (const bool* on = std::get_if<bool>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(*on ? 1.0f : 0.0f);
            break;
        case ValueKind::Integer:
            if (const std::int64_t* whole = std::get_if<std::int64_t>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(static_cast<float>(*whole));
            break;
        case ValueKind::Number:
            if (const double* number = std::get_if<double>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(static_cast<float>(*number));
            break;
        case ValueKind::Vec3:
            if (const Vec3f* color = std::get_if<Vec3f>(&uniform.value))
                return std::make_shared<ConstantColorField>(*color);
            break;
        default:
            break;
    }
    return {};
}

// Delivers what a param input receives into the operator's params: a field to `fields`, a ramp to
// `curves`, one value into `values` (through the param's coercion, so that it enters the key).
// Nothing clears what an earlier evaluation delivered.
void deliverParam(GraphNode& node, const std::string& name, const Value& value) {
    if (node.paramControls.count(name)) return;  // a control drives it instead
    ParamSet& params = node.op->paramSet;
    const ParamSpec* spec = params.spec(name);
    const auto field = value.get<FieldValue>();
    const auto ramp = value.get<Ramp>();
    const auto uniform = value.get<UniformValue>();
    const std::string head = node.name + " param '" + name + "' ";
    if (spec && (field || ramp)) {
        PortSpec port;
        if (paramInputPort(*spec, port) && port.type == PortType::Value)
            throw GraphError(head +
                             "takes one value for the whole node, not a value per strand or a "
                             "curve");
    }
    const bool changesOverTime =
        (field && field->dependsOnTime()) || (uniform && uniform->dependsOnTime);
    if (spec && !spec->animatable && changesOverTime)
        throw GraphError(head +
                         "cannot take a value that changes over time (an expression of the frame, "
                         "a keyed value): it sets how many strands, points or cards there are, or "
                         "where they go, which must stay the same on every frame");
    if (field) {
        params.fields[name] = field;
        params.curves.erase(name);
    } else if (ramp) {
        params.curves[name] = ramp;
        params.fields.erase(name);
    } else {
        params.fields.erase(name);
        params.curves.erase(name);
        if (uniform)
            params.set(name,
                       std::visit([](const auto& v) { return ParamValue(v); }, uniform->value));
    }
}

enum class AffectState { None, Partial, Full };

AffectState affectStateOf(const Operator& op) {
    if (!affectApplies(op)) return AffectState::Full;
    double weight = 1.0;
    const auto delivered = op.paramSet.fields.find("affect");
    if (delivered != op.paramSet.fields.end() && delivered->second) {
        if (delivered->second->varies()) return AffectState::Partial;
        weight = delivered->second->atStrand(0);
    } else {
        weight = op.paramSet.getFloat("affect", 1.0);
    }
    if (!(weight < 1.0)) return AffectState::Full;  // NaN counts as the whole result
    if (weight <= 0.0) return AffectState::None;
    return AffectState::Partial;
}

// One weight per point of `strands`, from the affect param: a delivered field sampled at each
// point (its point index counted within the strand), or the plain number.
std::vector<float> affectWeights(const Operator& op, const StrandSet& strands) {
    std::vector<float> weights(strands.pointCount(),
                               static_cast<float>(op.paramSet.getFloat("affect", 1.0)));
    const auto delivered = op.paramSet.fields.find("affect");
    if (delivered == op.paramSet.fields.end() || !delivered->second) return weights;
    const FieldValue& field = *delivered->second;
    const std::span<const std::uint64_t> offsets = strands.offsets();
    parallelRange(0, strands.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            for (std::uint64_t p = offsets[s]; p < offsets[s + 1]; ++p)
                weights[p] = field.atPoint(s, p - offsets[s]);
        }
    });
    return weights;
}

using StrandsPointer = std::shared_ptr<const StrandSet>;

std::optional<std::string> checkStrands(const StrandsPointer& previous,
                                        const StrandsPointer& incremental,
                                        const StrandChanges* changes, const StrandSet& full,
                                        const char* differ) {
    if (incremental->contentHash() != full.contentHash()) return std::string(differ);
    if (!changes || changes->all || !previous) return std::nullopt;
    const std::string layout = "it says only some strands changed, but the set's layout did";
    if (previous->strandCount() != incremental->strandCount() ||
        previous->pointCount() != incremental->pointCount() ||
        !sameArray(previous->ids(), incremental->ids()) ||
        !sameArray(previous->offsets(), incremental->offsets()) ||
        previous->strandChannelNames() != incremental->strandChannelNames() ||
        previous->pointChannelNames() != incremental->pointChannelNames())
        return layout;
    std::vector<bool> listed(incremental->strandCount(), false);
    for (std::uint64_t strand : changes->strands) {
        if (strand >= incremental->strandCount()) return "it lists a strand past the set's end";
        listed[strand] = true;
    }
    const ChangesPointer differing = strandDifference(previous, incremental);
    if (!differing || differing->all) return layout;
    for (std::uint64_t strand : differing->strands) {
        if (!listed[strand])
            return "strand " + std::to_string(strand) + " changed but is not listed as changed";
    }
    return std::nullopt;
}

// Compares one output of an incremental run with the same output of a full run; the problem, or
// nothing when they agree.
std::optional<std::string> checkOutput(const Value& previous, const Value& incremental,
                                       const ChangesPointer& changes, const Value& full) {
    if (incremental.index() != full.index())
        return "it made another kind of value than a full evaluation";
    if (const auto strands = incremental.get<StrandSet>()) {
        return checkStrands(previous.get<StrandSet>(), strands, changes.get(),
                            *full.get<StrandSet>(), "its strands differ from a full evaluation's");
    }
    if (const auto guides = incremental.get<GuideSet>()) {
        // Guides are checked as the strands they make: one strand per guide, in order.
        const auto made = std::make_shared<const StrandSet>(strandsFromGuides(*guides));
        const StrandSet fullMade = strandsFromGuides(*full.get<GuideSet>());
        StrandsPointer before;
        if (const auto guidesBefore = previous.get<GuideSet>())
            before = std::make_shared<const StrandSet>(strandsFromGuides(*guidesBefore));
        return checkStrands(before, made, changes.get(), fullMade,
                            "its guides differ from a full evaluation's");
    }
    return std::nullopt;
}

// Runs the operator in full on the inputs of an incremental run and compares every output. The
// full run uses a fresh operator made through the registry with the same params and state, so
// that it can't disturb the node's own run-time state; a type the registry doesn't know runs on
// the node's own operator.
void checkIncremental(const Operator& op, const std::vector<PortSpec>& outputs,
                      const EvalContext& ctx, const std::vector<Value>& inputs,
                      const std::vector<Value>& previous, const std::vector<Value>& results,
                      const std::vector<ChangesPointer>& changes) {
    std::unique_ptr<Operator> clone;
    const Operator* runner = &op;
    const OperatorRegistry& registry = OperatorRegistry::instance();
    if (registry.contains(op.type())) {
        clone = registry.recreate(op);
        clone->paramSet.fields = op.paramSet.fields;
        clone->paramSet.curves = op.paramSet.curves;
        runner = clone.get();
    }
    NoteList discarded;
    EvalContext fullCtx = ctx;
    fullCtx.notes = &discarded;
    const std::vector<Value> full = runner->evaluateAll(fullCtx, inputs);
    if (full.size() != outputs.size())
        throw GraphError(wrongCount(op, full.size(), outputs.size(), false));
    for (std::size_t o = 0; o < outputs.size(); ++o) {
        const Value before = o < previous.size() ? previous[o] : Value();
        const auto problem = checkOutput(before, results[o], changes[o], full[o]);
        if (!problem) continue;
        std::string text = op.type() + " evaluated incrementally: ";
        if (outputs.size() > 1) text += "output '" + outputs[o].name + "' ";
        throw GraphError(text + *problem);
    }
}

// One top-level evaluation: its memo tables, its resolution table, and for each node that ran, the
// stamp it had before and the changes of its outputs against that result.
class Evaluation {
  public:
    Evaluation(Graph& graph, const EvalContext& ctx, bool detached)
        : graph_(graph), root_(ctx), detached_(detached) {
        if (ctx.resolution < 1) {
            resolutions_ = graph.strandResolutions(ctx.viewport);
            resolutionTable_ = &resolutions_;
        }
    }

    std::uint64_t key(std::uint32_t id) {
        KeyBuilder builder{graph_, root_, resolutionTable_, keys_, localKeys_};
        return builder.key(id);
    }

    void resolveParamInputs(std::uint32_t id);
    void countConsumers(std::uint32_t id);
    std::vector<Value> evaluateNode(std::uint32_t id);
    void markUsed(std::uint64_t evaluation);
    void adoptRemaining();
    std::vector<Value> finishPreview(std::uint32_t id, std::vector<Value> results);

  private:
    struct RunRecord {
        std::uint64_t previousStamp = 0;
        std::vector<ChangesPointer> changes;
    };

    EvalContext contextFor(std::uint32_t id) const {
        return nodeContext(root_, resolutionTable_, id);
    }
    bool fetches(const GraphNode& node, std::size_t input, bool silent, bool through) const {
        if (node.inputs[input] == 0) return false;
        return silent ? through && input == 0 : node.op->inputActive(input);
    }
    ChangesPointer changesSince(std::uint32_t source, std::uint64_t slot,
                                std::uint64_t since) const;
    void release(std::uint32_t source);
    void install(std::uint32_t id, GraphNode& node, std::uint64_t key,
                 const std::vector<Value>& results);
    void refresh(std::uint32_t id, GraphNode& node);
    bool mayRunIncrementally(std::uint32_t id, const GraphNode& node, std::size_t outputCount,
                             std::size_t portCount,
                             const std::vector<ChangesPointer>& changes) const;
    void applyAffect(const Operator& op, const Value& input, Value& result,
                     std::vector<std::string>& notes) const;
    void storeNotes(std::uint32_t id, const std::vector<std::string>& texts, bool incremental);
    void storeTime(std::uint32_t id, std::chrono::steady_clock::time_point started);

    Graph& graph_;
    const EvalContext& root_;
    const bool detached_;
    ResolutionTable resolutions_;
    const ResolutionTable* resolutionTable_ = nullptr;
    KeyTable keys_;
    KeyTable localKeys_;
    std::unordered_map<std::uint32_t, RunRecord> records_;
    // Without the cache: results by node, dropped once every consumer has taken them.
    std::unordered_map<std::uint32_t, std::vector<Value>> table_;
    std::unordered_map<std::uint32_t, std::size_t> consumers_;
    bool timesCopied_ = false;
};

ChangesPointer Evaluation::changesSince(std::uint32_t source, std::uint64_t slot,
                                        std::uint64_t since) const {
    if (since == 0) return nullptr;
    const GraphNode& node = graph_.node(source);
    if (node.stamp == since) return noChanges();
    const auto record = records_.find(source);
    if (record == records_.end() || record->second.previousStamp != since ||
        slot >= record->second.changes.size())
        return nullptr;
    return record->second.changes[slot];
}

void Evaluation::release(std::uint32_t source) {
    if (!detached_) return;
    const auto count = consumers_.find(source);
    if (count == consumers_.end() || count->second == 0) return;
    if (--count->second == 0) table_.erase(source);
}

void Evaluation::resolveParamInputs(std::uint32_t id) {
    std::unordered_set<std::uint32_t> seen;
    auto visit = [&](auto& self, std::uint32_t at) -> void {
        if (!seen.insert(at).second) return;
        GraphNode& node = graph_.node(at);
        if (isSilent(node, root_.viewport)) {
            // A silent node doesn't run: its params don't matter, only what it hands on.
            if (passesThrough(node)) self(self, node.inputs[0]);
            return;
        }
        const std::size_t ports = portInputCount(node);
        // The feeders first: what they deliver may change which port inputs are active.
        for (std::size_t i = ports; i < node.inputs.size(); ++i) {
            if (node.inputs[i] != 0 && node.op->inputActive(i)) self(self, node.inputs[i]);
        }
        for (std::size_t i = ports; i < node.inputs.size(); ++i) {
            const std::string& name = node.paramInputs[i - ports];
            if (node.inputs[i] == 0) {
                deliverParam(node, name, Value());
                continue;
            }
            if (!node.op->inputActive(i)) continue;
            const std::vector<Value> values = evaluateNode(node.inputs[i]);
            deliverParam(node, name,
                         node.slots[i] < values.size() ? values[node.slots[i]] : Value());
        }
        for (std::size_t i = 0; i < ports; ++i) {
            if (node.inputs[i] != 0 && node.op->inputActive(i)) self(self, node.inputs[i]);
        }
    };
    visit(visit, id);
}

void Evaluation::countConsumers(std::uint32_t id) {
    std::unordered_set<std::uint32_t> seen;
    std::vector<std::uint32_t> stack{id};
    while (!stack.empty()) {
        const std::uint32_t at = stack.back();
        stack.pop_back();
        if (!seen.insert(at).second) continue;
        const GraphNode& node = graph_.node(at);
        const bool silent = isSilent(node, root_.viewport);
        const bool through = silent && passesThrough(node);
        for (std::size_t i = 0; i < node.inputs.size(); ++i) {
            if (!fetches(node, i, silent, through)) continue;
            ++consumers_[node.inputs[i]];
            stack.push_back(node.inputs[i]);
        }
    }
}

void Evaluation::install(std::uint32_t id, GraphNode& node, std::uint64_t key,
                         const std::vector<Value>& results) {
    const std::uint64_t previousStamp = node.stamp;
    const bool same = node.valid && sameValues(node.results, results);
    node.key = key;
    node.results = results;
    node.valid = true;
    node.localKey = localKeys_.at(id);
    // The adopted result was made from upstream results this graph may never have held: no stamp
    // of them is known, so a later incremental run here sees its inputs as wholly changed.
    node.inputKeys.assign(node.inputs.size(), 0);
    node.passedThrough = false;
    node.changes.assign(results.size(), nullptr);
    if (!same) {
        node.stamp = nextStamp();
        node.previewSources.clear();
        node.previewCopies.clear();
    }
    records_[id] = {previousStamp, node.changes};
}

void Evaluation::refresh(std::uint32_t id, GraphNode& node) {
    NoteList notes;
    EvalContext ctx = contextFor(id);
    ctx.notes = &notes;
    const std::size_t outputs = node.op->outputs().size();
    std::vector<Value> fresh = node.op->evaluateAll(ctx, std::vector<Value>(node.inputs.size()));
    if (fresh.size() != outputs)
        throw GraphError(wrongCount(*node.op, fresh.size(), outputs, false));
    const std::vector<std::string> texts = notes.take();
    if (!texts.empty()) graph_.notes[id] = joinLines(texts);
    if (sameValues(node.results, fresh)) return;
    const std::uint64_t previousStamp = node.stamp;
    node.results = std::move(fresh);
    node.changes.assign(node.results.size(), nullptr);
    node.passedThrough = false;
    node.stamp = nextStamp();
    node.previewSources.clear();
    node.previewCopies.clear();
    records_[id] = {previousStamp, node.changes};
}

bool Evaluation::mayRunIncrementally(std::uint32_t id, const GraphNode& node,
                                     std::size_t outputCount, std::size_t portCount,
                                     const std::vector<ChangesPointer>& changes) const {
    if (!incrementalEvaluation() || detached_ || !node.valid) return false;
    // Only the inputs may have changed, not the node's own settings.
    if (node.localKey != localKeys_.at(id) || node.results.size() != outputCount) return false;
    for (std::size_t i = 0; i < portCount; ++i)
        if (changes[i] && changes[i]->attachmentChanged) return false;
    for (std::size_t i = portCount; i < changes.size(); ++i) {
        const ChangesPointer& param = changes[i];
        if (!param || param->all || !param->strands.empty()) return false;
    }
    return true;
}

void Evaluation::applyAffect(const Operator& op, const Value& input, Value& result,
                             std::vector<std::string>& notes) const {
    const auto before = input.get<StrandSet>();
    const auto after = result.get<StrandSet>();
    if (!before || !after || before == after) return;
    if (before->strandCount() != after->strandCount() ||
        before->pointCount() != after->pointCount() ||
        !sameArray(before->offsets(), after->offsets())) {
        notes.push_back(
            "affect is not applied: this node changes how many strands or points there are");
        return;
    }
    const std::vector<float> weights = affectWeights(op, *before);
    const Value mixed = mixAffect(*before, *after, weights);
    op.outputReplaced(result, mixed);
    result = mixed;
}

void Evaluation::storeNotes(std::uint32_t id, const std::vector<std::string>& texts,
                            bool incremental) {
    const std::string text = joinLines(texts);
    if (!text.empty()) {
        graph_.notes[id] = text;
    } else if (!incremental) {
        graph_.notes.erase(id);
    }
}

void Evaluation::storeTime(std::uint32_t id, std::chrono::steady_clock::time_point started) {
    if (!timesCopied_) {
        graph_.lastTimes = graph_.times;
        timesCopied_ = true;
    }
    const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - started);
    graph_.times[id] = static_cast<double>(elapsed.count()) / 1000.0;
}

std::vector<Value> Evaluation::evaluateNode(std::uint32_t id) {
    GraphNode& node = graph_.node(id);
    Operator& op = *node.op;

    // 1-2. Reuse: the stored result under an equal key, an adopted one, or this run's table entry.
    std::uint64_t key = 0;
    if (!detached_) {
        key = this->key(id);
        if (node.valid && node.key == key) {
            if (op.alwaysFresh()) refresh(id, node);
            return node.results;
        }
        if (const auto adopted = graph_.adopted.find(key); adopted != graph_.adopted.end()) {
            install(id, node, key, adopted->second);
            return node.results;
        }
    } else if (const auto entry = table_.find(id); entry != table_.end()) {
        return entry->second;
    }

    const std::vector<PortSpec> ports = op.inputs();
    const std::vector<PortSpec> outputs = op.outputs();
    const std::size_t portCount = portInputCount(node);
    const bool silent = isSilent(node, root_.viewport);
    const bool through = silent && passesThrough(node);

    // 3. Inputs in order, each with the changes it went through since this node last ran.
    std::vector<Value> inputs(node.inputs.size());
    std::vector<ChangesPointer> changes(node.inputs.size());
    std::vector<std::uint64_t> inputStamps(node.inputs.size(), 0);
    for (std::size_t i = 0; i < node.inputs.size(); ++i) {
        const std::uint32_t source = node.inputs[i];
        if (source == 0) {
            changes[i] = noChanges();
            continue;
        }
        if (fetches(node, i, silent, through)) {
            const std::vector<Value> values = evaluateNode(source);
            if (node.slots[i] < values.size()) inputs[i] = values[node.slots[i]];
            release(source);
        }
        if (!detached_) {
            inputStamps[i] = graph_.node(source).stamp;
            changes[i] = changesSince(source, node.slots[i],
                                      i < node.inputKeys.size() ? node.inputKeys[i] : 0);
        }
    }
    const auto started = std::chrono::steady_clock::now();

    // 4. Param inputs into the params.
    if (!silent) {
        for (std::size_t i = portCount; i < node.inputs.size(); ++i) {
            if (node.inputs[i] == 0 || fetches(node, i, silent, through))
                deliverParam(node, node.paramInputs[i - portCount], inputs[i]);
        }
    }

    // 5. The affect state, and whether the node hands its first input on.
    const AffectState affect = silent ? AffectState::Full : affectStateOf(op);
    const bool firstCarries = portCount > 0 && !ports.empty() && !outputs.empty() &&
                              ports[0].type == outputs[0].type && !inputs[0].empty();
    const bool bypassed = (silent || affect == AffectState::None) && firstCarries;

    // 6. Conversions and type checks of the port inputs.
    for (std::size_t i = 0; i < portCount && i < ports.size(); ++i) {
        if (ports[i].type == PortType::Field) {
            if (const auto uniform = inputs[i].get<UniformValue>())
                inputs[i] = constantField(*uniform);
        }
        const bool wrong = (ports[i].type == PortType::Strands && inputs[i].holds<GuideSet>()) ||
                           (ports[i].type == PortType::Guides && inputs[i].holds<StrandSet>());
        if (wrong) {
            const std::string head = node.name.empty() ? "" : "node '" + node.name + "': ";
            throw GraphError(head + op.type() + " input '" + ports[i].name + "' takes " +
                             (ports[i].type == PortType::Strands ? "strands" : "guides") +
                             " but gets " + std::string(inputs[i].kindName()) +
                             " from the node before it");
        }
    }

    // 7. A Curves node fed guides runs on the strands they make.
    const Value firstInput = portCount > 0 ? inputs[0] : Value();
    const bool guideStream = !outputs.empty() && outputs[0].type == PortType::Curves &&
                             portCount > 0 && !ports.empty() && ports[0].type == PortType::Curves &&
                             firstInput.holds<GuideSet>();
    if (guideStream && !bypassed)
        inputs[0] =
            std::make_shared<const StrandSet>(strandsFromGuides(*firstInput.get<GuideSet>()));

    NoteList noteList;
    EvalContext runCtx = contextFor(id);
    runCtx.notes = &noteList;
    // What the node's mapped params read: the scalp and maps of the context, and its guides.
    if (!bypassed && !silent) {
        std::shared_ptr<const GuideSet> guides;
        for (std::size_t i = 0; i < portCount && i < ports.size(); ++i)
            if (ports[i].type == PortType::Guides) guides = inputs[i].get<GuideSet>();
        op.paramSet.fieldScene = makeFieldScene(runCtx, std::move(guides));
    }
    std::vector<Value> results;
    std::vector<ChangesPointer> outChanges(outputs.size());
    std::vector<std::string> texts;
    bool incremental = false;

    if (bypassed) {
        // 8. Each output of the first input's type (and output 0 always) is that input.
        results.assign(outputs.size(), Value());
        for (std::size_t o = 0; o < outputs.size(); ++o)
            if (o == 0 || outputs[o].type == ports[0].type) results[o] = firstInput;
    } else if (silent) {
        // A silent node with nothing to hand on runs nothing and yields nothing.
        results.assign(outputs.size(), Value());
    } else {
        // 9. Incremental when allowed, else in full.
        if (!guideStream && affect != AffectState::Partial &&
            mayRunIncrementally(id, node, outputs.size(), portCount, changes)) {
            IncrementalInputs previous;
            previous.previous = node.results.front();
            previous.previousAll = node.results;
            previous.changes = std::span<const ChangesPointer>(changes.data(), portCount);
            previous.active = true;
            if (outputs.size() == 1) {
                Value out;
                StrandChanges changed;
                if (op.evaluateIncremental(runCtx, inputs, previous, &out, &changed)) {
                    incremental = true;
                    results = {out};
                    outChanges = {std::make_shared<const StrandChanges>(std::move(changed))};
                }
            } else {
                std::vector<Value> outs;
                std::vector<StrandChanges> changed;
                if (op.evaluateIncrementalAll(runCtx, inputs, previous, &outs, &changed)) {
                    if (outs.size() != outputs.size())
                        throw GraphError(wrongCount(op, outs.size(), outputs.size(), true));
                    incremental = true;
                    results = std::move(outs);
                    for (std::size_t o = 0; o < outputs.size() && o < changed.size(); ++o)
                        outChanges[o] =
                            std::make_shared<const StrandChanges>(std::move(changed[o]));
                }
            }
            if (incremental) {
                ++graph_.incrementalRuns;
                if (incrementalCheck())
                    checkIncremental(op, outputs, runCtx, inputs, node.results, results,
                                     outChanges);
            } else {
                noteList.take();  // nothing of a declined incremental run is kept
            }
        }
        if (!incremental) {
            results = op.evaluateAll(runCtx, inputs);
            if (results.size() != outputs.size())
                throw GraphError(wrongCount(op, results.size(), outputs.size(), false));
        }
        texts = noteList.take();
        // 10. The affect mix.
        if (affect == AffectState::Partial) applyAffect(op, inputs[0], results[0], texts);
        // 11. Back to guides.
        if (guideStream) {
            for (std::size_t o = 0; o < outputs.size(); ++o) {
                if (outputs[o].type != PortType::Curves) continue;
                if (const auto strands = results[o].get<StrandSet>())
                    results[o] = std::make_shared<const GuideSet>(guidesFromStrands(*strands));
            }
        }
        const std::string note = op.evaluationNote(runCtx);
        if (!note.empty()) texts.push_back(note);
    }
    const bool passedThrough =
        bypassed || (!firstInput.empty() && !results.empty() && results[0] == firstInput);
    storeTime(id, started);

    // 13. The changes of each output against the node's previous result, for the nodes after it.
    if (!detached_ && node.valid) {
        if (passedThrough) {
            // Handing its input on, the node changed as that input did since the node last ran.
            for (std::size_t o = 0; o < outputs.size(); ++o)
                if (results[o] == firstInput && node.passedThrough) outChanges[o] = changes[0];
        } else if (!incremental && strandDiffing()) {
            const bool inputsKnown = std::all_of(
                changes.begin(), changes.begin() + static_cast<std::ptrdiff_t>(portCount),
                [](const ChangesPointer& c) { return c && !c->all; });
            for (std::size_t o = 0; inputsKnown && o < outputs.size(); ++o) {
                const auto before =
                    o < node.results.size() ? node.results[o].get<StrandSet>() : nullptr;
                const auto after = results[o].get<StrandSet>();
                if (before && after) outChanges[o] = strandDifference(before, after);
            }
        }
        for (std::size_t o = 0; o < outputs.size() && o < node.results.size(); ++o) {
            const auto before = node.results[o].get<StrandSet>();
            const auto after = results[o].get<StrandSet>();
            if (before && after)
                outChanges[o] = withLayout(outChanges[o], sameLayout(*before, *after));
        }
    }

    // 12. How it ran.
    if (bypassed || silent) {
        graph_.runs[id] = "bypass";
    } else {
        const ChangesPointer& first = outChanges.empty() ? nullptr : outChanges[0];
        std::string text = incremental ? "incremental" : "full";
        if (first && !first->all) {
            text += " " + std::to_string(first->strands.size());
        } else if (incremental) {
            if (const auto strands = results[0].get<StrandSet>())
                text += " " + std::to_string(strands->strandCount());
            else if (const auto guides = results[0].get<GuideSet>())
                text += " " + std::to_string(guides->guides.size());
        }
        graph_.runs[id] = text;
    }
    // 14. Notes.
    storeNotes(id, texts, incremental);

    // 15. Store: the table without the cache, else the node, under a new stamp unless the result
    // is the one it already held.
    if (detached_) {
        table_[id] = results;
        return results;
    }
    const std::uint64_t previousStamp = node.stamp;
    const bool same = node.valid && sameValues(node.results, results);
    node.key = key;
    node.results = std::move(results);
    node.valid = true;
    node.localKey = localKeys_.at(id);
    node.inputKeys = std::move(inputStamps);
    node.passedThrough = passedThrough;
    node.changes = std::move(outChanges);
    if (!same) {
        node.stamp = nextStamp();
        node.previewSources.clear();
        node.previewCopies.clear();
    }
    records_[id] = {previousStamp, node.changes};
    return node.results;
}

void Evaluation::markUsed(std::uint64_t evaluation) {
    for (const auto& entry : keys_)
        graph_.node(entry.first).lastUsed = evaluation;
}

void Evaluation::adoptRemaining() {
    for (const std::uint32_t id : graph_.nodeIds()) {
        const std::uint64_t fresh = key(id);
        const auto adopted = graph_.adopted.find(fresh);
        if (adopted == graph_.adopted.end()) continue;
        GraphNode& node = graph_.node(id);
        if (node.valid && node.key == fresh) continue;
        install(id, node, fresh, adopted->second);
        node.lastUsed = graph_.evaluations;
    }
}

std::vector<Value> Evaluation::finishPreview(std::uint32_t id, std::vector<Value> results) {
    GraphNode* node = detached_ ? nullptr : &graph_.node(id);
    for (std::size_t o = 0; o < results.size(); ++o) {
        const auto strands = results[o].get<StrandSet>();
        if (!strands || !strands->strandChannel("_preview")) continue;
        if (node && o < node->previewSources.size() && node->previewSources[o] == results[o]) {
            results[o] = node->previewCopies[o];
            continue;
        }
        auto finished = std::make_shared<StrandSet>(*strands);
        finished->removeStrandChannel("_preview");
        if (node) {
            node->previewSources.resize(results.size());
            node->previewCopies.resize(results.size());
            node->previewSources[o] = results[o];
            node->previewCopies[o] = Value(finished);
        }
        results[o] = Value(std::move(finished));
    }
    return results;
}

}  // namespace

bool incrementalEvaluation() {
    return gIncrementalEvaluation.load();
}
bool strandDiffing() {
    return gStrandDiffing.load();
}
bool incrementalCheck() {
    return gIncrementalCheck.load();
}
bool setIncrementalEvaluation(bool on) {
    return gIncrementalEvaluation.exchange(on);
}
bool setStrandDiffing(bool on) {
    return gStrandDiffing.exchange(on);
}
bool setIncrementalCheck(bool on) {
    return gIncrementalCheck.exchange(on);
}

namespace {

// The number a control's scene input holds, if it holds one.
std::optional<double> controlNumber(const EvalContext& ctx, const std::string& control) {
    return controlValue(ctx, control);
}

// Each param bound to controls takes their values: one number, or three for a vector. A control
// the host has not set leaves the param as it is.
void resolveControls(Graph& graph, const EvalContext& ctx) {
    for (const std::uint32_t id : graph.nodeIds()) {
        GraphNode& node = graph.node(id);
        for (const auto& [param, controls] : node.paramControls) {
            if (controls.size() == 3) {
                const auto x = controlNumber(ctx, controls[0]);
                const auto y = controlNumber(ctx, controls[1]);
                const auto z = controlNumber(ctx, controls[2]);
                if (x && y && z)
                    node.op->paramSet.set(param,
                                          Vec3f{static_cast<float>(*x), static_cast<float>(*y),
                                                static_cast<float>(*z)});
            } else if (controls.size() == 1) {
                if (const auto number = controlNumber(ctx, controls[0])) {
                    const ParamSpec* spec = node.op->paramSet.spec(param);
                    if (spec && spec->kind() == ParamKind::Int)
                        node.op->paramSet.set(param, static_cast<std::int64_t>(*number));
                    else if (spec && spec->kind() == ParamKind::Bool)
                        node.op->paramSet.set(param, *number != 0.0);
                    else
                        node.op->paramSet.set(param, *number);
                }
            }
        }
    }
}

}  // namespace

std::uint64_t Graph::nodeKey(std::uint32_t id, const EvalContext& ctx,
                             std::unordered_map<std::uint32_t, std::uint64_t>& keys,
                             std::unordered_map<std::uint32_t, std::uint64_t>& localKeys) const {
    if (const auto found = keys.find(id); found != keys.end()) return found->second;
    ResolutionTable resolutions;
    if (ctx.resolution < 1) resolutions = strandResolutions(ctx.viewport);
    KeyBuilder builder{*this, ctx, ctx.resolution < 1 ? &resolutions : nullptr, keys, localKeys};
    return builder.key(id);
}

std::vector<Value> Graph::evaluate(std::uint32_t id, const EvalContext& ctx) {
    if (!hasNode(id)) throw GraphError(unknownNode(id));
    Evaluation run(*this, ctx, !cachingEnabled_);
    // Control bindings write their values into the params they drive; expressions get their
    // environment (frame, time, the groom's maps) per node, with the scene of its run.
    resolveControls(*this, ctx);
    if (!cachingEnabled_) adopted.clear();
    run.resolveParamInputs(id);
    std::vector<Value> results;
    if (!cachingEnabled_) {
        run.countConsumers(id);
        results = run.evaluateNode(id);
    } else {
        results = run.evaluateNode(id);
        ++evaluations;
        run.markUsed(evaluations);
        if (cacheLimit != 0) evictResults(id);
        if (!adopted.empty()) {
            run.adoptRemaining();
            adopted.clear();
        }
    }
    if (!ctx.keepPreviewMarks) results = run.finishPreview(id, std::move(results));
    return results;
}

std::vector<Value> Graph::evaluateOutput(const EvalContext& ctx) {
    if (outputNode_ == 0) throw GraphError("the graph has no output node");
    return evaluate(outputNode_, ctx);
}

const std::vector<Value>& Graph::cachedResults(std::uint32_t id) const {
    return node(id).results;
}

std::size_t Graph::outputSlot(std::uint32_t id, std::string_view port) const {
    const GraphNode& target = node(id);
    const std::vector<PortSpec> outputs = target.op->outputs();
    std::string list;
    for (std::size_t slot = 0; slot < outputs.size(); ++slot) {
        if (outputs[slot].name == port) return slot;
        list += (slot ? ", " : "") + outputs[slot].name;
    }
    throw GraphError(target.name + " has no output '" + std::string(port) + "' (" + list + ")");
}

void Graph::invalidate(std::uint32_t id) {
    GraphNode& target = node(id);
    target.valid = false;
    target.results.clear();
    target.changes.clear();
    target.previewSources.clear();
    target.previewCopies.clear();
}

void Graph::setCachingEnabled(bool enabled) {
    cachingEnabled_ = enabled;
    // Without the cache nothing is kept: what the nodes hold goes now.
    if (!enabled) {
        for (auto& entry : nodes_)
            invalidate(entry.first);
    }
}

}  // namespace velmorin
