#pragma once
// Graph: the document that defines a groom. Named nodes, each with an operator, the connections
// between them, and the node named as output; beside each node's document, its evaluation state
// (NodeRuntime): the latest result and what evaluation needs to reuse it. Editing operations check
// every rule and throw GraphError before they change anything. One thread at a time edits or
// evaluates a graph.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/eval_context.h"
#include "graph/operator.h"
#include "graph/registry.h"
#include "graph/value.h"

namespace velmorin {

struct StrandChanges;

enum class EvaluationMode : std::uint8_t { Always = 0, ViewportOnly = 1, RenderOnly = 2 };
std::string_view evaluationModeName(EvaluationMode mode);
// Throws GraphError "unknown evaluation 'x' (always, viewportOnly or renderOnly)".
EvaluationMode parseEvaluationMode(std::string_view name);

// What evaluation keeps of a node beside its document: the latest result and what reusing it,
// updating it incrementally and finishing its preview need, and what its param inputs delivered.
// Never saved, never part of an edit; a clone keeps the results and drops the deliveries.
struct NodeRuntime {
    std::uint64_t key = 0;  // the key of `results`
    bool valid = false;     // a result is stored
    std::vector<Value> results;
    std::uint64_t lastUsed = 0;  // the graph's evaluation counter when a run last used it
    std::uint64_t stamp = 0;     // the process-wide serial of the run that made `results`
    std::uint64_t localKey = 0;  // the part of `key` that no upstream node enters
    // The stamps (not keys: the name is the one the rest of the system knows) of the upstream
    // results that `results` was made from, one per input (0: none known), against which the
    // inputs' changes are asked for.
    std::vector<std::uint64_t> inputKeys;
    bool passedThrough = false;  // `results` is the first input's value
    // The change notes of the last run, one per output, for the nodes downstream.
    std::vector<std::shared_ptr<const StrandChanges>> changes;
    // The results handed out without their preview marks, and the sets they were made from: a
    // later evaluation hands out the same copies while the marked sets stay the same.
    std::vector<Value> previewSources;
    std::vector<Value> previewCopies;
    // The fields and ramps that connected param inputs delivered, handed to the operator's runs.
    DeliveredParams delivered;
    // What its mapped params read in its latest run (made by the registry's MappedParams).
    std::shared_ptr<const RunScene> scene;
};

// One node of the document: its operator with the params the user set, its connections, names and
// switches; and, apart from those, its evaluation state.
struct GraphNode {
    std::unique_ptr<Operator> op;
    std::vector<std::uint32_t> inputs;  // source per input (ports, then param inputs); 0 = none
    std::vector<std::uint64_t> slots;   // output slot of each source
    std::vector<std::string> paramInputs;
    std::map<std::string, std::vector<std::string>> paramControls;  // one name, or three
    std::string name;
    bool bypass = false;
    EvaluationMode evaluation = EvaluationMode::Always;
    nlohmann::ordered_json ui;  // kept and written, never read by the engine

    NodeRuntime runtime;
};

class Graph {
  public:
    // An empty graph whose nodes are made through `registry`, which must outlive it. The default,
    // the process-wide registry with every built-in operator, is named here so that it is reached
    // from the caller's layer, never from the graph's.
    explicit Graph(const OperatorRegistry& registry = OperatorRegistry::instance());
    ~Graph();
    Graph(const Graph&) = delete;  // a graph owns its operators: copy with clone()
    Graph& operator=(const Graph&) = delete;
    Graph(Graph&&) noexcept;
    Graph& operator=(Graph&&) noexcept;

    // Editing. Each checks its rules in order and throws GraphError before changing anything.
    std::uint32_t addNode(std::unique_ptr<Operator> op, const std::string& name);
    std::uint32_t addNode(std::string_view type, const std::string& name);
    void removeNode(std::uint32_t id);
    GraphNode& node(std::uint32_t id);
    const GraphNode& node(std::uint32_t id) const;
    Operator& operatorOf(std::uint32_t id);
    const Operator& operatorOf(std::uint32_t id) const;
    std::uint32_t nodeId(std::string_view name) const;
    bool hasNode(std::uint32_t id) const;
    void connect(std::uint32_t from, std::uint32_t to, std::size_t input, std::size_t output = 0);
    void disconnect(std::uint32_t to, std::size_t input);
    void exposeParam(std::uint32_t id, const std::string& param);
    void unexposeParam(std::uint32_t id, const std::string& param);
    void keyParam(std::uint32_t id, const std::string& param,
                  const std::vector<std::string>& controls);
    void unkeyParam(std::uint32_t id, const std::string& param);
    void setBypass(std::uint32_t id, bool bypass);
    void setEvaluation(std::uint32_t id, EvaluationMode mode);
    void setOutput(std::uint32_t id);
    std::uint32_t outputNode() const { return outputNode_; }
    // The registry this graph makes its operators through.
    const OperatorRegistry& registry() const { return *registry_; }

    // Node ids in ascending order.
    std::vector<std::uint32_t> nodeIds() const;
    const std::map<std::uint32_t, GraphNode>& nodes() const { return nodes_; }

    // A new graph with operators made anew through the registry, params, saved versions, names and
    // every stored result kept; what param inputs delivered is not carried.
    std::unique_ptr<Graph> clone() const;

    // Graph JSON. fromJson is all or nothing: on failure it throws and this graph stands as it was.
    std::string toJson() const;
    void fromJson(std::string_view text);

    nlohmann::ordered_json backdrops;  // node-editor data, kept as it stands
    nlohmann::ordered_json pins;

    // ---- Evaluation ----
    struct Resolution {
        int segments = 0;
        std::uint32_t resample = 0;  // the Resample that set it
        bool fromUnfedResample = false;
    };

    std::vector<Value> evaluate(std::uint32_t id, const EvalContext& ctx);
    std::vector<Value> evaluateOutput(const EvalContext& ctx);
    const std::vector<Value>& cachedResults(std::uint32_t id) const;
    // The position of node `id`'s output named `port`, for callers that pick an output by name.
    // Throws GraphError "<node> has no output '<port>' (<its outputs>)".
    std::size_t outputSlot(std::uint32_t id, std::string_view port) const;
    void invalidate(std::uint32_t id);
    void setCachingEnabled(bool enabled);
    bool cachingEnabled() const { return cachingEnabled_; }
    bool forEachActiveUpstream(std::uint32_t id, const UpstreamVisitor& visit,
                               std::size_t startInput = 0) const;
    std::map<std::uint32_t, Resolution> strandResolutions(bool viewport) const;
    std::string resolutionReport(std::uint32_t id) const;
    std::uint64_t nodeKey(std::uint32_t id, const EvalContext& ctx,
                          std::unordered_map<std::uint32_t, std::uint64_t>& keys,
                          std::unordered_map<std::uint32_t, std::uint64_t>& localKeys) const;
    // Frees results of nodes used longest ago until the cache fits cacheLimit; never `keep`.
    void evictResults(std::uint32_t keep);

    std::map<std::uint32_t, double> times;      // ms of each node's last run
    std::map<std::uint32_t, double> lastTimes;  // the previous evaluation's
    std::map<std::uint32_t, std::string> runs;  // "incremental n", "full n", "full", "bypass"
    std::map<std::uint32_t, std::string> notes;
    std::unordered_map<std::uint64_t, std::vector<Value>> adopted;  // key -> results
    std::uint64_t cacheLimit;
    std::uint64_t evaluations = 0;
    std::uint64_t incrementalRuns = 0;
    std::uint64_t cacheEvictions = 0;

  private:
    const OperatorRegistry* registry_;
    std::map<std::uint32_t, GraphNode> nodes_;
    std::map<std::string, std::uint32_t, std::less<>> names_;
    std::uint32_t nextId_ = 1;
    std::uint32_t outputNode_ = 0;
    bool cachingEnabled_ = true;
};

// What loading gives and what a session owns: the graph with its output node and its UI data.
struct GraphDocument {
    std::unique_ptr<Graph> graph;
};

// The process-wide evaluation switches, for debugging and operator tests. Each setter returns the
// previous setting.
bool incrementalEvaluation();
bool strandDiffing();
bool incrementalCheck();
bool setIncrementalEvaluation(bool on);
bool setStrandDiffing(bool on);
bool setIncrementalCheck(bool on);

// The cache limit that VELMORIN_CACHE_LIMIT_MB asks for, in bytes: a decimal number at or above 0,
// times 1048576; anything else gives the 2 GiB default. 0 switches eviction off.
std::uint64_t parseCacheLimit(const char* text);
inline constexpr std::uint64_t kDefaultCacheLimit = 2147483648ull;
// parseCacheLimit of VELMORIN_CACHE_LIMIT_MB, read once per process; what a new Graph starts with.
std::uint64_t cacheLimitFromEnvironment();

}  // namespace velmorin
