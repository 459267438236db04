#pragma once
// DetachedEvaluation: an evaluation of a cloned graph on a thread of its own, so that the next
// frame or stroke result can be prepared while the host goes on. It owns the clone, a snapshot of
// the context's scene inputs, and the result or the failure of the run. Its results go back into
// the graph it was cloned from through that graph's `adopted` table, keyed by node key.
//
// Threads: start() and every other call come from one owning thread; the run itself touches only
// the clone, the snapshot and values that nobody changes. done() may be asked at any time.

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <thread>
#include <vector>

#include "graph/eval_context.h"
#include "graph/graph.h"
#include "graph/value.h"

namespace velmorin {

class DetachedEvaluation {
  public:
    // What the run's own evaluations added to the clone's counters (and to those of the runs it
    // follows).
    struct Counters {
        std::uint64_t evaluations = 0;
        std::uint64_t incrementalRuns = 0;
        std::uint64_t cacheEvictions = 0;
    };

    // Clones `graph` and snapshots ctx's scene inputs on the calling thread, then evaluates `node`
    // of the clone on a thread of its own. With `previous`, the run first waits for it; if it
    // failed, its failure becomes this run's; otherwise this run continues from its results and
    // adds its counters to its own. Throws GraphError "unknown node n" before starting.
    static std::unique_ptr<DetachedEvaluation> start(
        const Graph& graph, std::uint32_t node, const EvalContext& ctx,
        std::unique_ptr<DetachedEvaluation> previous = nullptr);

    // Waits for the run: a detached evaluation never outlives its thread.
    ~DetachedEvaluation();
    DetachedEvaluation(const DetachedEvaluation&) = delete;
    DetachedEvaluation& operator=(const DetachedEvaluation&) = delete;

    // Whether the run has ended, with a result or a failure.
    bool done() const { return done_.load(std::memory_order_acquire); }
    void wait();
    // The node's results; waits, and throws the run's failure if it failed.
    const std::vector<Value>& results();
    // The failure of the run, or null; waits.
    std::exception_ptr failure();
    // Hands every result of the clone that `graph` doesn't already hold under the same key to
    // graph.adopted, where the next evaluation of `graph` takes it over; waits, and returns how
    // many it handed over. Results of nodes that finished before a failure are handed over too.
    std::size_t adoptInto(Graph& graph);

    std::uint32_t node() const { return node_; }
    const EvalContext& context() const { return ctx_; }
    // The clone, as the run left it; waits.
    const Graph& graph();
    Counters counters();

  private:
    DetachedEvaluation() = default;
    void run();

    std::unique_ptr<Graph> clone_;
    SceneInputs sceneInputs_;
    EvalContext ctx_;
    std::uint32_t node_ = 0;
    std::unique_ptr<DetachedEvaluation> previous_;
    std::vector<Value> results_;
    std::exception_ptr failure_;
    Counters counters_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace velmorin
