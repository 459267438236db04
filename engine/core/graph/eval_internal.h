#pragma once
// What the files of graph evaluation share: the node tests every phase asks (silent, passes
// through), the key builder, the incremental check, and the delivery of param inputs. Internal to
// the graph's evaluation; nothing outside engine/core/graph includes it.

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "graph/graph.h"

namespace velmorin {

class StrandSet;
struct StrandChanges;

namespace evaluation {

using KeyTable = std::unordered_map<std::uint32_t, std::uint64_t>;
using ResolutionTable = std::map<std::uint32_t, Graph::Resolution>;
using ChangesPointer = std::shared_ptr<const StrandChanges>;

// Silent nodes don't run in this evaluation: bypassed, or of the other evaluation mode.
inline bool isSilent(const GraphNode& node, bool viewport) {
    if (node.bypass) return true;
    if (node.evaluation == EvaluationMode::ViewportOnly) return !viewport;
    if (node.evaluation == EvaluationMode::RenderOnly) return viewport;
    return false;
}

// Input ports come first, param inputs after them.
inline std::size_t portInputCount(const GraphNode& node) {
    return node.inputs.size() - node.paramInputs.size();
}

// Whether a silent node hands its first input on: it has one, of its output's type, connected.
bool passesThrough(const GraphNode& node);

// The context of one node: the root's, with the node's own strand resolution where the
// resolutions were computed per node (`resolutions` not null).
EvalContext nodeContext(const EvalContext& root, const ResolutionTable* resolutions,
                        std::uint32_t id);

// Builds result keys into the memo tables of one evaluation (see Graph::nodeKey).
struct KeyBuilder {
    const Graph& graph;
    const EvalContext& root;
    const ResolutionTable* resolutions;  // null when root.resolution stands for every node
    KeyTable& keys;
    KeyTable& localKeys;

    std::uint64_t key(std::uint32_t id);
};

template <class T>
bool sameArray(std::span<const T> a, std::span<const T> b) {
    if (a.size() != b.size()) return false;
    if (a.data() == b.data() || a.empty()) return true;
    return std::memcmp(a.data(), b.data(), a.size_bytes()) == 0;
}

// Strand and point counts, IDs, offsets, roots and channel names, as StrandChanges::sameLayout
// means it. Shared columns compare by pointer, so a derived set costs nothing here.
bool sameLayout(const StrandSet& a, const StrandSet& b);

// "<type> made n values for m outputs" (or "values incrementally for").
std::string wrongCount(const Operator& op, std::size_t made, std::size_t outputs, bool incremental);

// Runs the operator in full on the inputs of an incremental run and compares every output;
// throws GraphError naming the first disagreement. The full run uses a fresh operator made
// through `registry` with the same params and state, so that it can't disturb the node's own
// run-time state; a type the registry doesn't know runs on the node's own operator.
void checkIncremental(const OperatorRegistry& registry, const Operator& op,
                      const std::vector<PortSpec>& outputs, const EvalContext& ctx,
                      const std::vector<Value>& inputs, const std::vector<Value>& previous,
                      const std::vector<Value>& results,
                      const std::vector<ChangesPointer>& changes);

// A Field port's form of a value for the whole node, or an empty value for a kind that has none.
Value constantField(const UniformValue& uniform);

// Delivers what a param input receives: a field or a ramp beside the node (its runtime's
// `delivered`), one value into the operator's params (through the param's coercion, so that it
// enters the key). Nothing clears what an earlier evaluation delivered. Throws GraphError for a
// value the param can't take.
void deliverParam(GraphNode& node, const std::string& name, const Value& value);

// How much of a run the affect param lets through.
enum class AffectState { None, Partial, Full };
AffectState affectStateOf(const GraphNode& node);
// One weight per point of `strands`, from the affect param: a delivered field sampled at each
// point (its point index counted within the strand), or the plain number.
std::vector<float> affectWeights(const GraphNode& node, const StrandSet& strands);

// Each param bound to controls takes their values: one number, or three for a vector. A control
// the host has not set leaves the param as it is.
void resolveControls(Graph& graph, const EvalContext& ctx);

}  // namespace evaluation
}  // namespace velmorin
