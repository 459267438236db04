#include "fields/field_values.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

class FieldNoiseOp final : public Operator {
  public:
    std::string type() const override { return "FieldNoise"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"field", PortType::Field}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec frequency = makeParam("frequency", 2.0, "Features per unit");
        frequency.softMax = 10.0;
        ParamSpec octaves = makeParam("octaves", std::int64_t{1}, "Layers of finer detail");
        octaves.min = 1.0;
        octaves.max = 8.0;
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.animatable = false;
        return {frequency,
                octaves,
                makeParam("offset", 0.0,
                          "Moves the pattern, in features (it is added after the frequency: "
                          "unitless)"),
                seed,
                makeParam("min", 0.0,
                          "Output in the troughs: what the noise's 0 becomes (an output range, "
                          "not a limit)"),
                makeParam("max", 1.0,
                          "Output at the peaks: what the noise's 1 becomes (an output range, not "
                          "a limit)")};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override {
        NoiseSettings settings;
        settings.frequency = static_cast<float>(paramSet.getFloat("frequency", 2.0));
        settings.octaves = static_cast<int>(paramSet.getInt("octaves", 1));
        settings.offset = static_cast<float>(paramSet.getFloat("offset", 0.0));
        settings.seed = paramSet.getInt("seed", 0);
        settings.min = static_cast<float>(paramSet.getFloat("min", 0.0));
        settings.max = static_cast<float>(paramSet.getFloat("max", 1.0));
        return std::shared_ptr<const FieldValue>(std::make_shared<NoiseFieldValue>(settings));
    }
};

}  // namespace

void registerFieldNoiseOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "Smooth noise over the scalp, feeding any param.";
    info.keywords = "noise texture variation";
    registry.registerType(
        "FieldNoise", [] { return std::make_unique<FieldNoiseOp>(); }, info);
}

}  // namespace velmorin
