#include "graph/registry.h"
#include "ops/color_ops.h"
#include "strands/strand_changes.h"

namespace velmorin {

namespace {

// The graph's end: the strands it receives are what the groom shows and renders. It changes
// nothing; being the node the graph names as its output, it is where the walk for the Scatters'
// resolutions starts, so the Resamples before it set how many segments strands grow with.
class OutputOp final : public Operator {
  public:
    std::string type() const override { return "Output"; }
    std::string category() const override { return "utility"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        return inputs.empty() ? Value() : inputs[0];
    }
    // The strands pass as they are, and with them the note of which changed.
    bool evaluateIncremental(const EvalContext&, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const override {
        if (inputs.empty() || incremental.changes.empty() || !incremental.changes[0]) return false;
        *out = inputs[0];
        *changes = *incremental.changes[0];
        return true;
    }
};

}  // namespace

void registerOutputOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "utility";
    info.description = "What the groom shows and renders.";
    info.keywords = "result render final";
    registry.registerType(
        "Output", [] { return std::make_unique<OutputOp>(); }, info);
}

}  // namespace velmorin
