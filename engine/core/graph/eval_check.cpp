// The incremental check: a full run beside each incremental one, and the comparison of their
// outputs, for debugging operators' incremental paths.

#include <cstring>
#include <optional>
#include <string>

#include "graph/eval_internal.h"
#include "strands/guide.h"
#include "strands/guide_conversion.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace evaluation {
namespace {

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

}  // namespace

// Strand and point counts, IDs, offsets, roots and channel names, as StrandChanges::sameLayout
// means it. Shared columns compare by pointer, so a derived set costs nothing here.
bool sameLayout(const StrandSet& a, const StrandSet& b) {
    if (&a == &b) return true;
    return a.strandCount() == b.strandCount() && a.pointCount() == b.pointCount() &&
           sameArray(a.ids(), b.ids()) && sameArray(a.offsets(), b.offsets()) &&
           sameArray(a.roots(), b.roots()) && a.strandChannelNames() == b.strandChannelNames() &&
           a.pointChannelNames() == b.pointChannelNames();
}

std::string wrongCount(const Operator& op, std::size_t made, std::size_t outputs,
                       bool incremental) {
    return op.type() + " made " + std::to_string(made) +
           (incremental ? " values incrementally for " : " values for ") + std::to_string(outputs) +
           " outputs";
}

void checkIncremental(const OperatorRegistry& registry, const Operator& op,
                      const std::vector<PortSpec>& outputs, const EvalContext& ctx,
                      const std::vector<Value>& inputs, const std::vector<Value>& previous,
                      const std::vector<Value>& results,
                      const std::vector<ChangesPointer>& changes) {
    // What the node's param inputs delivered reaches the clone through the same context.
    std::unique_ptr<Operator> clone;
    const Operator* runner = &op;
    if (registry.contains(op.type())) {
        clone = registry.recreate(op);
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
}  // namespace evaluation
}  // namespace velmorin
