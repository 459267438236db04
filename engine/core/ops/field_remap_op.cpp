#include "fields/field_values.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

Ramp straightCurve() {
    Ramp ramp;
    ramp.keys = {{0.0f, 0.0f, 1.0f}, {1.0f, 1.0f, 1.0f}};
    return ramp;
}

class FieldRemapOp final : public Operator {
  public:
    std::string type() const override { return "FieldRemap"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {{"field", PortType::Field, true}}; }
    PortSpec output() const override { return {"field", PortType::Field}; }
    std::vector<ParamSpec> params() const override {
        return {makeParam("inMin", 0.0,
                          "Input value mapped to the curve's start (above inMax: the input "
                          "flipped)"),
                makeParam("inMax", 1.0, "Input value mapped to the curve's end"),
                makeParam("curve", straightCurve(), "Response curve, 0 to 1"),
                makeParam("outMin", 0.0, "Output where the curve is 0"),
                makeParam("outMax", 1.0, "Output where the curve is 1")};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        std::shared_ptr<const FieldValue> input =
            inputs.empty() ? nullptr : inputs[0].get<FieldValue>();
        if (!input) input = std::make_shared<ConstantFieldValue>(0.0f);
        RemapSettings settings;
        settings.inMin = static_cast<float>(paramSet.getFloat("inMin", 0.0));
        settings.inMax = static_cast<float>(paramSet.getFloat("inMax", 1.0));
        settings.curve = paramRamp(paramSet, ctx, "curve", straightCurve());
        settings.outMin = static_cast<float>(paramSet.getFloat("outMin", 0.0));
        settings.outMax = static_cast<float>(paramSet.getFloat("outMax", 1.0));
        return std::shared_ptr<const FieldValue>(
            std::make_shared<RemapFieldValue>(std::move(input), std::move(settings)));
    }
};

}  // namespace

void registerFieldRemapOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "Reshapes a field through a curve.";
    info.keywords = "remap curve ramp";
    registry.registerType(
        "FieldRemap", [] { return std::make_unique<FieldRemapOp>(); }, info);
}

}  // namespace velmorin
