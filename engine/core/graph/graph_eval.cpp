// Graph evaluation: reuse of stored results, incremental runs, the affect mix, evaluation without
// the cache, and the preview finish step. A node whose key equals its stored key costs one hash; a
// node whose inputs changed in few strands updates only those. Keys, the incremental check and the
// delivery of param inputs live in files of their own beside this one.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <numeric>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "graph/affect.h"
#include "graph/eval_internal.h"
#include "graph/field_value.h"
#include "graph/uniform_value.h"
#include "strands/guide.h"
#include "strands/guide_conversion.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {

using namespace evaluation;

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

std::string unknownNode(std::uint32_t id) {
    return "unknown node " + std::to_string(id);
}

// A change note that lists no strand: the input is the very result the node was made from.
const ChangesPointer& noChanges() {
    static const ChangesPointer none = [] {
        auto changes = std::make_shared<StrandChanges>();
        changes->all = false;
        changes->sameLayout = true;
        changes->pointsChanged = false;
        changes->widthsChanged = false;
        changes->allChannels = false;
        return changes;
    }();
    return none;
}

bool sameValues(const std::vector<Value>& a, const std::vector<Value>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!(a[i] == b[i])) return false;
    return true;
}

ChangesPointer withLayout(const ChangesPointer& changes, bool same) {
    if (changes && changes->sameLayout == same) return changes;
    auto updated =
        changes ? std::make_shared<StrandChanges>(*changes) : std::make_shared<StrandChanges>();
    updated->sameLayout = same;
    return updated;
}

std::string joinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        if (!text.empty()) text += '\n';
        text += line;
    }
    return text;
}

// One node's run within an evaluation: what its phases hand each other.
struct NodeRun {
    NodeRun(std::uint32_t nodeId, GraphNode& graphNode)
        : id(nodeId), node(graphNode), op(*graphNode.op) {}

    std::uint32_t id;
    GraphNode& node;
    Operator& op;
    std::uint64_t key = 0;

    std::vector<PortSpec> ports;
    std::vector<PortSpec> outputs;
    std::size_t portCount = 0;
    bool silent = false;
    bool through = false;  // silent and handing its first input on

    // One per input: its value, its changes since the node last ran, and its result's stamp.
    std::vector<Value> inputs;
    std::vector<ChangesPointer> changes;
    std::vector<std::uint64_t> inputKeys;
    std::chrono::steady_clock::time_point started;

    AffectState affect = AffectState::Full;
    bool bypassed = false;
    bool guideStream = false;  // a Curves node fed guides, running on the strands they make
    Value firstInput;

    std::vector<Value> results;
    std::vector<ChangesPointer> outChanges;  // one per output
    std::vector<std::string> texts;          // the notes of the run
    bool incremental = false;
    bool passedThrough = false;
};

// One top-level evaluation: its memo tables, its resolution table, and for each node that ran, the
// stamp it had before and the changes of its outputs against that result.
class Evaluation {
  public:
    Evaluation(Graph& graph, const EvalContext& ctx, bool detached)
        : graph_(graph),
          root_(ctx),
          detached_(detached),
          mappedParams_(graph.registry().mappedParams()) {
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

    // The phases of evaluateNode, in order.
    const std::vector<Value>* reuse(NodeRun& run);
    void gatherInputs(NodeRun& run);
    void deliverParams(NodeRun& run);
    void prepareInputs(NodeRun& run);
    void runOperator(NodeRun& run);
    bool runIncrementally(NodeRun& run, const EvalContext& ctx);
    void runWhole(NodeRun& run, const EvalContext& ctx);
    bool noteFullRun(NodeRun& run) const;
    void noteChanges(NodeRun& run);
    std::vector<Value> record(NodeRun& run);

    EvalContext contextFor(std::uint32_t id) const {
        return nodeContext(root_, resolutionTable_, id);
    }
    // The context of a node's own run: its deliveries and, where mapped params are known, the
    // scene they read.
    EvalContext runContext(const GraphNode& node, std::uint32_t id, NoteList& notes) const {
        EvalContext ctx = contextFor(id);
        ctx.notes = &notes;
        ctx.delivered = &node.runtime.delivered;
        ctx.scene = node.runtime.scene;
        return ctx;
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
    bool mayRunIncrementally(const NodeRun& run) const;
    void applyAffect(const GraphNode& node, const Value& input, Value& result,
                     std::vector<std::string>& notes) const;
    void storeNotes(std::uint32_t id, const std::vector<std::string>& texts, bool incremental);
    void storeTime(std::uint32_t id, std::chrono::steady_clock::time_point started);

    Graph& graph_;
    const EvalContext& root_;
    const bool detached_;
    const MappedParams* mappedParams_;
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
    const NodeRuntime& runtime = graph_.node(source).runtime;
    if (runtime.stamp == since) return noChanges();
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
    NodeRuntime& runtime = node.runtime;
    const std::uint64_t previousStamp = runtime.stamp;
    const bool same = runtime.valid && sameValues(runtime.results, results);
    runtime.key = key;
    runtime.results = results;
    runtime.valid = true;
    runtime.localKey = localKeys_.at(id);
    // The adopted result was made from upstream results this graph may never have held: no stamp
    // of them is known, so a later incremental run here sees its inputs as wholly changed.
    runtime.inputKeys.assign(node.inputs.size(), 0);
    runtime.passedThrough = false;
    runtime.changes.assign(results.size(), nullptr);
    if (!same) {
        runtime.stamp = nextStamp();
        runtime.previewSources.clear();
        runtime.previewCopies.clear();
    }
    records_[id] = {previousStamp, runtime.changes};
}

void Evaluation::refresh(std::uint32_t id, GraphNode& node) {
    NodeRuntime& runtime = node.runtime;
    NoteList notes;
    const EvalContext ctx = runContext(node, id, notes);
    const std::size_t outputs = node.op->outputs().size();
    std::vector<Value> fresh = node.op->evaluateAll(ctx, std::vector<Value>(node.inputs.size()));
    if (fresh.size() != outputs)
        throw GraphError(wrongCount(*node.op, fresh.size(), outputs, false));
    const std::vector<std::string> texts = notes.take();
    if (!texts.empty()) graph_.notes[id] = joinLines(texts);
    if (sameValues(runtime.results, fresh)) return;
    const std::uint64_t previousStamp = runtime.stamp;
    runtime.results = std::move(fresh);
    runtime.changes.assign(runtime.results.size(), nullptr);
    runtime.passedThrough = false;
    runtime.stamp = nextStamp();
    runtime.previewSources.clear();
    runtime.previewCopies.clear();
    records_[id] = {previousStamp, runtime.changes};
}

bool Evaluation::mayRunIncrementally(const NodeRun& run) const {
    const NodeRuntime& runtime = run.node.runtime;
    if (!incrementalEvaluation() || detached_ || !runtime.valid) return false;
    if (run.guideStream || run.affect == AffectState::Partial) return false;
    // Only the inputs may have changed, not the node's own settings.
    if (runtime.localKey != localKeys_.at(run.id) || runtime.results.size() != run.outputs.size())
        return false;
    for (std::size_t i = 0; i < run.portCount; ++i)
        if (run.changes[i] && run.changes[i]->attachmentChanged) return false;
    for (std::size_t i = run.portCount; i < run.changes.size(); ++i) {
        const ChangesPointer& param = run.changes[i];
        if (!param || param->all || !param->strands.empty()) return false;
    }
    return true;
}

void Evaluation::applyAffect(const GraphNode& node, const Value& input, Value& result,
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
    const std::vector<float> weights = affectWeights(node, *before);
    const Value mixed = mixAffect(*before, *after, weights);
    node.op->outputReplaced(result, mixed);
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

// Reuse: the stored result under an equal key, an adopted one, or this run's table entry; null
// when the node has to run.
const std::vector<Value>* Evaluation::reuse(NodeRun& run) {
    NodeRuntime& runtime = run.node.runtime;
    if (detached_) {
        const auto entry = table_.find(run.id);
        return entry == table_.end() ? nullptr : &entry->second;
    }
    run.key = key(run.id);
    if (runtime.valid && runtime.key == run.key) {
        if (run.op.alwaysFresh()) refresh(run.id, run.node);
        return &runtime.results;
    }
    if (const auto adopted = graph_.adopted.find(run.key); adopted != graph_.adopted.end()) {
        install(run.id, run.node, run.key, adopted->second);
        return &runtime.results;
    }
    return nullptr;
}

// Inputs in order, each with the changes it went through since this node last ran.
void Evaluation::gatherInputs(NodeRun& run) {
    const GraphNode& node = run.node;
    run.ports = run.op.inputs();
    run.outputs = run.op.outputs();
    run.portCount = portInputCount(node);
    run.silent = isSilent(node, root_.viewport);
    run.through = run.silent && passesThrough(node);

    const std::size_t count = node.inputs.size();
    run.inputs.assign(count, Value());
    run.changes.assign(count, nullptr);
    run.inputKeys.assign(count, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t source = node.inputs[i];
        if (source == 0) {
            run.changes[i] = noChanges();
            continue;
        }
        if (fetches(node, i, run.silent, run.through)) {
            const std::vector<Value> values = evaluateNode(source);
            if (node.slots[i] < values.size()) run.inputs[i] = values[node.slots[i]];
            release(source);
        }
        if (!detached_) {
            run.inputKeys[i] = graph_.node(source).runtime.stamp;
            const std::vector<std::uint64_t>& madeFrom = node.runtime.inputKeys;
            run.changes[i] =
                changesSince(source, node.slots[i], i < madeFrom.size() ? madeFrom[i] : 0);
        }
    }
    run.started = std::chrono::steady_clock::now();
}

// Param inputs: what their feeders made, delivered to the node.
void Evaluation::deliverParams(NodeRun& run) {
    if (run.silent) return;
    for (std::size_t i = run.portCount; i < run.node.inputs.size(); ++i) {
        if (run.node.inputs[i] == 0 || fetches(run.node, i, run.silent, run.through))
            deliverParam(run.node, run.node.paramInputs[i - run.portCount], run.inputs[i]);
    }
}

// The affect state and whether the node is bypassed; conversions and type checks of the port
// inputs; guides turned to strands for a Curves node fed guides; and the scene of the run.
void Evaluation::prepareInputs(NodeRun& run) {
    const std::vector<PortSpec>& ports = run.ports;
    const std::vector<PortSpec>& outputs = run.outputs;
    std::vector<Value>& inputs = run.inputs;
    run.affect = run.silent ? AffectState::Full : affectStateOf(run.node);
    const bool firstCarries = run.portCount > 0 && !ports.empty() && !outputs.empty() &&
                              ports[0].type == outputs[0].type && !inputs[0].empty();
    run.bypassed = (run.silent || run.affect == AffectState::None) && firstCarries;

    for (std::size_t i = 0; i < run.portCount && i < ports.size(); ++i) {
        if (ports[i].type == PortType::Field) {
            if (const auto uniform = inputs[i].get<UniformValue>())
                inputs[i] = constantField(*uniform);
        }
        const bool wrong = (ports[i].type == PortType::Strands && inputs[i].holds<GuideSet>()) ||
                           (ports[i].type == PortType::Guides && inputs[i].holds<StrandSet>());
        if (wrong) {
            const std::string head = run.node.name.empty() ? "" : "node '" + run.node.name + "': ";
            throw GraphError(head + run.op.type() + " input '" + ports[i].name + "' takes " +
                             (ports[i].type == PortType::Strands ? "strands" : "guides") +
                             " but gets " + std::string(inputs[i].kindName()) +
                             " from the node before it");
        }
    }

    run.firstInput = run.portCount > 0 ? inputs[0] : Value();
    run.guideStream = !outputs.empty() && outputs[0].type == PortType::Curves &&
                      run.portCount > 0 && !ports.empty() && ports[0].type == PortType::Curves &&
                      run.firstInput.holds<GuideSet>();
    if (run.guideStream && !run.bypassed)
        inputs[0] =
            std::make_shared<const StrandSet>(strandsFromGuides(*run.firstInput.get<GuideSet>()));

    // What the node's mapped params read: the scalp and maps of the context, and its guides.
    if (!run.bypassed && !run.silent && mappedParams_) {
        std::shared_ptr<const GuideSet> guides;
        for (std::size_t i = 0; i < run.portCount && i < ports.size(); ++i)
            if (ports[i].type == PortType::Guides) guides = inputs[i].get<GuideSet>();
        run.node.runtime.scene = mappedParams_->scene(contextFor(run.id), std::move(guides));
    }
}

// Bypassed or silent nodes hand on or yield nothing; others run incrementally when allowed, else
// whole, then mix by affect and turn strands back into guides on a guide stream.
void Evaluation::runOperator(NodeRun& run) {
    const std::size_t outputCount = run.outputs.size();
    run.outChanges.assign(outputCount, nullptr);
    if (run.bypassed) {
        // Each output of the first input's type (and output 0 always) is that input.
        run.results.assign(outputCount, Value());
        for (std::size_t o = 0; o < outputCount; ++o)
            if (o == 0 || run.outputs[o].type == run.ports[0].type) run.results[o] = run.firstInput;
    } else if (run.silent) {
        // A silent node with nothing to hand on runs nothing and yields nothing.
        run.results.assign(outputCount, Value());
    } else {
        NoteList noteList;
        const EvalContext ctx = runContext(run.node, run.id, noteList);
        if (mayRunIncrementally(run)) {
            run.incremental = runIncrementally(run, ctx);
            if (!run.incremental) noteList.take();  // nothing of a declined run is kept
        }
        if (!run.incremental) runWhole(run, ctx);
        run.texts = noteList.take();
        if (run.affect == AffectState::Partial)
            applyAffect(run.node, run.inputs[0], run.results[0], run.texts);
        if (run.guideStream) {
            for (std::size_t o = 0; o < outputCount; ++o) {
                if (run.outputs[o].type != PortType::Curves) continue;
                if (const auto strands = run.results[o].get<StrandSet>())
                    run.results[o] = std::make_shared<const GuideSet>(guidesFromStrands(*strands));
            }
        }
        const std::string note = run.op.evaluationNote(ctx);
        if (!note.empty()) run.texts.push_back(note);
    }
    run.passedThrough = run.bypassed || (!run.firstInput.empty() && !run.results.empty() &&
                                         run.results[0] == run.firstInput);
    storeTime(run.id, run.started);
}

bool Evaluation::runIncrementally(NodeRun& run, const EvalContext& ctx) {
    NodeRuntime& runtime = run.node.runtime;
    const std::size_t outputCount = run.outputs.size();
    IncrementalInputs previous;
    previous.changes = std::span<const ChangesPointer>(run.changes.data(), run.portCount);
    previous.active = true;
    if (outputCount == 1) {
        // The node lets go of its last result for the run, so that an operator that takes it over
        // (IncrementalInputs::takePrevious) may find its columns held by nobody else and update
        // them in place instead of copying them. What the operator leaves untaken comes back; a
        // result taken leaves the node without one until this run's is recorded. The check
        // compares with the last result afterwards, so with it on the node keeps its own.
        const bool handOver = !incrementalCheck();
        previous.previous = handOver ? std::move(runtime.results.front()) : runtime.results.front();
        const auto handBack = [&] {
            if (!handOver) return;
            if (!previous.previous.empty()) {
                runtime.results.front() = std::move(previous.previous);
            } else {
                runtime.results.clear();
                runtime.valid = false;
            }
        };
        Value out;
        StrandChanges changed;
        bool updated = false;
        try {
            updated = run.op.evaluateIncremental(ctx, run.inputs, previous, &out, &changed);
        } catch (...) {
            handBack();
            throw;
        }
        handBack();
        if (!updated) return false;
        run.results = {out};
        run.outChanges = {std::make_shared<const StrandChanges>(std::move(changed))};
    } else {
        previous.previous = runtime.results.front();
        previous.previousAll = runtime.results;
        std::vector<Value> outs;
        std::vector<StrandChanges> changed;
        if (!run.op.evaluateIncrementalAll(ctx, run.inputs, previous, &outs, &changed))
            return false;
        if (outs.size() != outputCount)
            throw GraphError(wrongCount(run.op, outs.size(), outputCount, true));
        run.results = std::move(outs);
        for (std::size_t o = 0; o < outputCount && o < changed.size(); ++o)
            run.outChanges[o] = std::make_shared<const StrandChanges>(std::move(changed[o]));
    }
    ++graph_.incrementalRuns;
    if (incrementalCheck())
        checkIncremental(graph_.registry(), run.op, run.outputs, ctx, run.inputs, runtime.results,
                         run.results, run.outChanges);
    return true;
}

void Evaluation::runWhole(NodeRun& run, const EvalContext& ctx) {
    run.results = run.op.evaluateAll(ctx, run.inputs);
    if (run.results.size() != run.outputs.size())
        throw GraphError(wrongCount(run.op, run.results.size(), run.outputs.size(), false));
}

// A full run of a one-output node that rewrote some columns of its first input in place: its
// operator names them, and with the input's changes that is the whole note. Skipped where the
// result may hold more than the operator wrote (an affect mix, guides) or another layout.
bool Evaluation::noteFullRun(NodeRun& run) const {
    if (run.outputs.size() != 1 || run.portCount == 0 || run.guideStream ||
        run.affect != AffectState::Full || run.node.runtime.results.size() != 1)
        return false;
    const ChangesPointer& input = run.changes[0];
    if (!input || input->all || !input->sameLayout || input->attachmentChanged) return false;
    const auto from = run.inputs[0].get<StrandSet>();
    const auto before = run.node.runtime.results[0].get<StrandSet>();
    const auto after = run.results[0].get<StrandSet>();
    if (!from || !before || !after || from == after) return false;
    if (after->strandCount() != from->strandCount() || after->pointCount() != from->pointCount() ||
        before->strandCount() != from->strandCount())
        return false;
    StrandChanges changes = *input;
    changes.strands.resize(from->strandCount());
    std::iota(changes.strands.begin(), changes.strands.end(), std::uint64_t{0});
    if (!run.op.noteFullRunChanges(changes)) return false;
    run.outChanges[0] = std::make_shared<const StrandChanges>(std::move(changes));
    return true;
}

// The changes of each output against the node's previous result, for the nodes after it.
void Evaluation::noteChanges(NodeRun& run) {
    const NodeRuntime& runtime = run.node.runtime;
    if (detached_ || !runtime.valid) return;
    const std::size_t outputCount = run.outputs.size();
    if (run.passedThrough) {
        // Handing its input on, the node changed as that input did since the node last ran.
        for (std::size_t o = 0; o < outputCount; ++o)
            if (run.results[o] == run.firstInput && runtime.passedThrough)
                run.outChanges[o] = run.changes[0];
    } else if (!run.incremental && strandDiffing() && !noteFullRun(run)) {
        const auto portChanges = run.changes.begin() + static_cast<std::ptrdiff_t>(run.portCount);
        const bool inputsKnown = std::all_of(run.changes.begin(), portChanges,
                                             [](const ChangesPointer& c) { return c && !c->all; });
        for (std::size_t o = 0; inputsKnown && o < outputCount; ++o) {
            const auto before =
                o < runtime.results.size() ? runtime.results[o].get<StrandSet>() : nullptr;
            const auto after = run.results[o].get<StrandSet>();
            if (before && after) run.outChanges[o] = strandDifference(before, after);
        }
    }
    for (std::size_t o = 0; o < outputCount && o < runtime.results.size(); ++o) {
        const auto before = runtime.results[o].get<StrandSet>();
        const auto after = run.results[o].get<StrandSet>();
        if (before && after)
            run.outChanges[o] = withLayout(run.outChanges[o], sameLayout(*before, *after));
    }
}

// How it ran, its notes, and the result: the table without the cache, else the node, under a new
// stamp unless the result is the one it already held.
std::vector<Value> Evaluation::record(NodeRun& run) {
    if (run.bypassed || run.silent) {
        graph_.runs[run.id] = "bypass";
    } else {
        const ChangesPointer& first = run.outChanges.empty() ? nullptr : run.outChanges[0];
        std::string text = run.incremental ? "incremental" : "full";
        if (first && !first->all) {
            text += " " + std::to_string(first->strands.size());
        } else if (run.incremental) {
            if (const auto strands = run.results[0].get<StrandSet>())
                text += " " + std::to_string(strands->strandCount());
            else if (const auto guides = run.results[0].get<GuideSet>())
                text += " " + std::to_string(guides->guides.size());
        }
        graph_.runs[run.id] = text;
    }
    storeNotes(run.id, run.texts, run.incremental);

    if (detached_) {
        table_[run.id] = run.results;
        return std::move(run.results);
    }
    NodeRuntime& runtime = run.node.runtime;
    const std::uint64_t previousStamp = runtime.stamp;
    const bool same = runtime.valid && sameValues(runtime.results, run.results);
    runtime.key = run.key;
    runtime.results = std::move(run.results);
    runtime.valid = true;
    runtime.localKey = localKeys_.at(run.id);
    runtime.inputKeys = std::move(run.inputKeys);
    runtime.passedThrough = run.passedThrough;
    runtime.changes = std::move(run.outChanges);
    if (!same) {
        runtime.stamp = nextStamp();
        runtime.previewSources.clear();
        runtime.previewCopies.clear();
    }
    records_[run.id] = {previousStamp, runtime.changes};
    return runtime.results;
}

std::vector<Value> Evaluation::evaluateNode(std::uint32_t id) {
    NodeRun run(id, graph_.node(id));
    if (const std::vector<Value>* reused = reuse(run)) return *reused;
    gatherInputs(run);
    deliverParams(run);
    prepareInputs(run);
    runOperator(run);
    noteChanges(run);
    return record(run);
}

void Evaluation::markUsed(std::uint64_t evaluation) {
    for (const auto& entry : keys_)
        graph_.node(entry.first).runtime.lastUsed = evaluation;
}

void Evaluation::adoptRemaining() {
    for (const std::uint32_t id : graph_.nodeIds()) {
        const std::uint64_t fresh = key(id);
        const auto adopted = graph_.adopted.find(fresh);
        if (adopted == graph_.adopted.end()) continue;
        GraphNode& node = graph_.node(id);
        if (node.runtime.valid && node.runtime.key == fresh) continue;
        install(id, node, fresh, adopted->second);
        node.runtime.lastUsed = graph_.evaluations;
    }
}

std::vector<Value> Evaluation::finishPreview(std::uint32_t id, std::vector<Value> results) {
    NodeRuntime* runtime = detached_ ? nullptr : &graph_.node(id).runtime;
    for (std::size_t o = 0; o < results.size(); ++o) {
        const auto strands = results[o].get<StrandSet>();
        if (!strands || !strands->strandChannel("_preview")) continue;
        if (runtime && o < runtime->previewSources.size() &&
            runtime->previewSources[o] == results[o]) {
            results[o] = runtime->previewCopies[o];
            continue;
        }
        auto finished = std::make_shared<StrandSet>(*strands);
        finished->removeStrandChannel("_preview");
        if (runtime) {
            runtime->previewSources.resize(results.size());
            runtime->previewCopies.resize(results.size());
            runtime->previewSources[o] = results[o];
            runtime->previewCopies[o] = Value(finished);
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
    return node(id).runtime.results;
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
    NodeRuntime& runtime = node(id).runtime;
    runtime.valid = false;
    runtime.results.clear();
    runtime.changes.clear();
    runtime.previewSources.clear();
    runtime.previewCopies.clear();
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
