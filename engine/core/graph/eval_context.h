#pragma once
// The context of one evaluation, handed to every operator, and the inputs of an incremental run.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "graph/value.h"

namespace velmorin {

struct StrandChanges;
struct DeliveredParams;
class RunScene;

// A named scene value (the scalp, parts, maps...) with a stable key for result keys.
struct SceneInput {
    Value value;
    std::uint64_t key = 0;
};
using SceneInputs = std::map<std::string, SceneInput, std::less<>>;

// Warnings that a run makes; operators may add from inside parallel loops.
class NoteList {
  public:
    void add(std::string text);
    std::vector<std::string> take();

  private:
    std::mutex mutex_;
    std::vector<std::string> notes_;
};

// A plain record, copied per node and never changed while that node runs.
struct EvalContext {
    double time = 0.0;
    bool viewport = true;  // false for a render or an export
    const SceneInputs* sceneInputs = nullptr;
    double previewDensity = 1.0;
    // The most points a viewport preview may hold (0 or less: no limit); sources thin their strands
    // further to stay under it. Nodes that read it key on it themselves.
    double previewPointBudget = 0.0;
    bool keepPreviewMarks = false;
    // Segments per strand for the sources. At 1 or above it stands for all nodes; below 1 each node
    // gets its own.
    int resolution = 0;

    NoteList* notes = nullptr;  // where the running node's warnings go; set by the graph
    // What the running node's connected param inputs delivered (graph/delivered_params.h); set by
    // the graph for the node's run, null otherwise.
    const DeliveredParams* delivered = nullptr;
    // What the running node's mapped params read besides its inputs, made by the registry's
    // MappedParams (graph/run_scene.h); null where there is none.
    std::shared_ptr<const RunScene> scene;

    // Adds a warning for the running node (no-op when there is no list).
    void note(std::string text) const {
        if (notes) notes->add(std::move(text));
    }
    const SceneInput* sceneInput(std::string_view name) const;
};

// The scene input that carries the host's control of this name: "control:" + name.
std::string controlInputName(std::string_view control);

// The number a host's control holds in this evaluation, read the same way by keyed params, the
// Control node and expression variables: a number, a whole number or a switch (1 or 0) held as a
// uniform value, or a field's value at its first strand. Nothing where the context has no such
// control or it holds anything else (a vector, text).
std::optional<double> controlValue(const EvalContext& ctx, std::string_view control);

// What an incremental run builds on: the node's last result and the changes of its inputs.
struct IncrementalInputs {
    // The last result of a node of one output. The graph hands it over for the run and keeps no
    // reference of its own (unless the incremental check is on), so that an operator that lets go
    // of it (takePrevious) may find its columns held by nobody else and take them over instead of
    // copying them.
    mutable Value previous;
    std::vector<Value> previousAll;                                 // nodes of several outputs
    std::span<const std::shared_ptr<const StrandChanges>> changes;  // one per port input
    bool active = true;

    // Lets go of `previous`, which is empty afterwards, and hands it to the caller. An operator
    // that takes the previous result says in its changes whether the layout stayed, since the
    // graph no longer holds the result to compare with.
    Value takePrevious() const { return std::exchange(previous, Value()); }
};

}  // namespace velmorin
