#include <cstdio>

#include "base/hash.h"
#include "graph/field_value.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

// A keyable slider's value: the same everywhere, but it may change from frame to frame.
class KeyedFieldValue final : public FieldValue {
  public:
    explicit KeyedFieldValue(float value) : value_(value) {}
    float atStrand(std::size_t) const override { return value_; }
    float atPoint(std::size_t, std::size_t) const override { return value_; }
    bool varies() const override { return false; }
    std::uint64_t key() const override { return hashCombine(0x6b65796564ull, floatBits(value_)); }
    std::string describe() const override {
        char text[48];
        std::snprintf(text, sizeof text, "control at %g", static_cast<double>(value_));
        return text;
    }
    bool dependsOnTime() const override { return true; }

  private:
    float value_;
};

class ControlOp final : public Operator {
  public:
    std::string type() const override { return "Control"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"field", PortType::Field}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec name = makeParam("name", std::string("control"),
                                   "The attribute's name on the groom (letters, digits, _)");
        name.animatable = false;
        return {name, makeParam("default", 0.0, "Value until the attribute is set"),
                makeParam("min", 0.0,
                          "The low end of the attribute's slider in hosts (only the slider's "
                          "range: values past it are not clamped)"),
                makeParam("max", 1.0,
                          "The high end of the attribute's slider in hosts (only the slider's "
                          "range: values past it are not clamped)")};
    }
    // The host's value arrives as a scene input, so that the result is keyed by it.
    std::vector<std::string> sceneInputs() const override {
        return {controlInputName(paramSet.getString("name", "control"))};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const std::string name = paramSet.getString("name", "control");
        std::optional<double> value = controlValue(ctx, name);
        if (!value) {
            ctx.note("Control '" + name +
                     "': the groom has no value for this attribute yet, so the default applies");
            value = paramSet.getFloat("default", 0.0);
        }
        return std::shared_ptr<const FieldValue>(
            std::make_shared<KeyedFieldValue>(static_cast<float>(*value)));
    }
};

}  // namespace

void registerControlOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "A keyable slider on the groom (channel box) driving a param.";
    info.keywords = "slider channel box key";
    registry.registerType(
        "Control", [] { return std::make_unique<ControlOp>(); }, info);
}

}  // namespace velmorin
