#include "graph/detached_evaluation.h"

#include <string>
#include <utility>

namespace velmorin {

std::unique_ptr<DetachedEvaluation> DetachedEvaluation::start(
    const Graph& graph, std::uint32_t node, const EvalContext& ctx,
    std::unique_ptr<DetachedEvaluation> previous) {
    if (!graph.hasNode(node)) throw GraphError("unknown node " + std::to_string(node));
    std::unique_ptr<DetachedEvaluation> detached(new DetachedEvaluation());
    detached->clone_ = graph.clone();
    // The run reads its own copy of the scene inputs: the host may change its table meanwhile.
    if (ctx.sceneInputs) detached->sceneInputs_ = *ctx.sceneInputs;
    detached->ctx_ = ctx;
    detached->ctx_.sceneInputs = ctx.sceneInputs ? &detached->sceneInputs_ : nullptr;
    detached->ctx_.notes = nullptr;
    detached->node_ = node;
    detached->previous_ = std::move(previous);
    detached->thread_ = std::thread([raw = detached.get()] { raw->run(); });
    return detached;
}

DetachedEvaluation::~DetachedEvaluation() {
    wait();
}

void DetachedEvaluation::run() {
    const Counters before{clone_->evaluations, clone_->incrementalRuns, clone_->cacheEvictions};
    try {
        if (previous_) {
            previous_->wait();
            if (previous_->failure_) std::rethrow_exception(previous_->failure_);
            // Continue from where the earlier run left its clone: its results come in as
            // adopted ones, taken over wherever this run computes the same key.
            for (const auto& [id, node] : previous_->clone_->nodes()) {
                if (node.runtime.valid)
                    clone_->adopted.emplace(node.runtime.key, node.runtime.results);
            }
            counters_ = previous_->counters_;
            previous_.reset();
        }
        results_ = clone_->evaluate(node_, ctx_);
    } catch (...) {
        failure_ = std::current_exception();
    }
    counters_.evaluations += clone_->evaluations - before.evaluations;
    counters_.incrementalRuns += clone_->incrementalRuns - before.incrementalRuns;
    counters_.cacheEvictions += clone_->cacheEvictions - before.cacheEvictions;
    done_.store(true, std::memory_order_release);
}

void DetachedEvaluation::wait() {
    if (thread_.joinable()) thread_.join();
}

const std::vector<Value>& DetachedEvaluation::results() {
    wait();
    if (failure_) std::rethrow_exception(failure_);
    return results_;
}

std::exception_ptr DetachedEvaluation::failure() {
    wait();
    return failure_;
}

std::size_t DetachedEvaluation::adoptInto(Graph& graph) {
    wait();
    std::size_t handed = 0;
    for (const auto& [id, node] : clone_->nodes()) {
        if (!node.runtime.valid) continue;
        if (graph.hasNode(id)) {
            const GraphNode& original = graph.node(id);
            if (original.runtime.valid && original.runtime.key == node.runtime.key) continue;
        }
        graph.adopted[node.runtime.key] = node.runtime.results;
        ++handed;
    }
    return handed;
}

const Graph& DetachedEvaluation::graph() {
    wait();
    return *clone_;
}

DetachedEvaluation::Counters DetachedEvaluation::counters() {
    wait();
    return counters_;
}

}  // namespace velmorin
