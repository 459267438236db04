#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "mesh/scalp_range.h"
#include "ops/field_op_params.h"
#include "ops/source_ops.h"

namespace velmorin {
namespace {

// The groom's scalp, or one of the scalps it was merged from, into the graph.
class ScalpOp final : public Operator {
  public:
    std::string type() const override { return "Scalp"; }
    std::string category() const override { return "source"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"scalp", PortType::Mesh}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec input = field_ops::makeParam(
            "input", std::string("scalp"),
            "Which of the groom's scalps: scalp (its own mesh) or the name of another scalp of the "
            "groom (Maya: Attribute Editor > Scalps), so a Scatter fed this node grows hair on "
            "that mesh alone");
        input.animatable = false;
        return {input};
    }
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }
    // The mesh may change under the same key (a deforming scalp hands its points in place).
    bool alwaysFresh() const override { return true; }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const std::string name = paramSet.getString("input", "scalp");
        const SceneInput* input = ctx.sceneInput(kScalpInput);
        const auto scalp = input ? input->value.get<ScalpMesh>() : nullptr;
        if (name == kScalpInput && scalp) return scalp;
        if (scalp) {
            if (const ScalpRange* range = findScalpRange(*scalp, name))
                return std::make_shared<const ScalpMesh>(cutScalpRange(*scalp, *range));
        }
        ctx.note("No scalp named '" + name + "' on this groom: nothing to grow on");
        return std::make_shared<const ScalpMesh>();
    }
};

}  // namespace

void registerScalpOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "source";
    info.description = "The mesh the hair grows on.";
    info.keywords = "mesh skin body surface";
    registry.registerType(
        "Scalp", [] { return std::make_unique<ScalpOp>(); }, info);
}

}  // namespace velmorin
