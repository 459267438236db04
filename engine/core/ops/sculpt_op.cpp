#include <memory>
#include <string>

#include "editing/sculpt_layers.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/shape_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

// Hand fixes of guides: the offsets of a sculpt layer of the groom, applied to the guides fed in
// and scaled by `strength`. The offsets sit in each guide's own frames, so a fix rides along when
// the groom upstream changes the guide.
class SculptOp final : public Operator {
  public:
    std::string type() const override { return "Sculpt"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"guides", PortType::Guides}}; }
    PortSpec output() const override { return {"guides", PortType::Guides}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec layer = makeParam(
            "layer", std::string("sculpt"),
            "The groom's sculpt layer this node applies and brushes record into (sculpt: the "
            "groom's own sculpt data)");
        layer.animatable = false;
        ParamSpec strength =
            makeParam("strength", 1.0, "How much of the sculpt applies (0: none, 1: as brushed)");
        strength.softMin = 0.0;
        strength.softMax = 1.0;
        return {layer, strength};
    }
    std::vector<std::string> sceneInputs() const override {
        return {sculptInputName(paramSet.getString("layer", "sculpt"))};
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const Value in = inputs.empty() ? Value() : inputs[0];
        const auto guides = in.get<GuideSet>();
        const SceneInput* input =
            ctx.sceneInput(sculptInputName(paramSet.getString("layer", "sculpt")));
        const auto edits = input ? input->value.get<SculptEdits>() : nullptr;
        const auto strength = static_cast<float>(paramSet.getFloat("strength", 1.0));
        // Nothing sculpted: the guides pass as they came, so that nothing after this node runs
        // again.
        if (!guides || !edits || edits->empty() || strength == 0.0f) return in;
        auto out = std::make_shared<GuideSet>(*guides);
        applyGuideOffsets(out->guides, edits->guides, strength);
        return std::shared_ptr<const GuideSet>(std::move(out));
    }
};

}  // namespace

void registerSculptOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description = "Hand fixes of guides, kept as offsets that ride along with the groom.";
    info.keywords = "sculpt brush fix edit guides offsets";
    registry.registerType(
        "Sculpt", [] { return std::make_unique<SculptOp>(); }, info);
}

}  // namespace velmorin
