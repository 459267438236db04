#include <algorithm>

#include "base/key_segment.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;

Ramp defaultCurve() {
    Ramp ramp;
    ramp.keys = {{0.0f, 0.0f, 1.0f}, {1.0f, 1.0f, 1.0f}};
    return ramp;
}

// The ramp eased into every key: 65 keys, one per 1/64, joined by straight lines; between
// neighbour keys of the original the value runs v0 + (v1 - v0) * (3 - 2f) * f * f.
Ramp eased(const Ramp& ramp) {
    Ramp baked;
    baked.linear = true;
    for (int i = 0; i <= 64; ++i) {
        const float t = static_cast<float>(i) / 64.0f;
        float value = 1.0f;
        const auto& keys = ramp.keys;
        if (!keys.empty()) {
            const KeySegment segment = findKeySegment(keys, t);
            const float v0 = keys[segment.lower].value;
            const float v1 = keys[segment.upper].value;
            const float f = segment.fraction;
            value = v0 + (v1 - v0) * (3.0f - 2.0f * f) * f * f;
        }
        baked.keys.push_back({t, value, 0.0f});
    }
    return baked;
}

class CurveOp final : public Operator {
  public:
    std::string type() const override { return "Curve"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"curve", PortType::Curve}; }
    std::vector<ParamSpec> params() const override {
        return {makeParam("curve", defaultCurve(),
                          "The curve, 0 to 1 along its input (root to tip for profiles)"),
                choiceParam("interpolation", "smooth", {"smooth", "ease", "linear"},
                            "How the curve runs between its keys: smooth, one smooth curve "
                            "through them; ease, easing in and out of every key (flat at each "
                            "key); linear, straight lines"),
                makeParam("flip", false, "Run the curve backwards (tip to root)"),
                makeParam("min", 0.0,
                          "Output where the curve is 0: output = min + (max - min) x "
                          "curve"),
                makeParam("max", 1.0, "Output where the curve is 1")};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        Ramp ramp = paramRamp(paramSet, ctx, "curve", defaultCurve());
        if (paramSet.getBool("flip", false)) {
            for (RampKey& key : ramp.keys)
                key.position = 1.0f - key.position;
            std::reverse(ramp.keys.begin(), ramp.keys.end());
        }
        const std::string interpolation = paramSet.getString("interpolation", "smooth");
        if (interpolation == "ease") {
            ramp = eased(ramp);
        } else if (interpolation == "linear") {
            ramp.linear = true;
        } else if (interpolation == "smooth") {
            ramp.linear = false;
            smoothSlopes(ramp);
        } else {
            throw GraphError("Curve: unknown interpolation '" + interpolation +
                             "' (smooth, ease or linear)");
        }
        // The output range scales values and slopes alike; a ramp of no keys is 1 everywhere,
        // which the range makes max.
        const float min = static_cast<float>(paramSet.getFloat("min", 0.0));
        const float max = static_cast<float>(paramSet.getFloat("max", 1.0));
        if (ramp.keys.empty()) ramp.keys.push_back({0.0f, 1.0f, 0.0f});
        for (RampKey& key : ramp.keys) {
            key.value = min + (max - min) * key.value;
            key.slope *= max - min;
        }
        return std::make_shared<const Ramp>(std::move(ramp));
    }
};

}  // namespace

void registerCurveOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "A ramp shared by several params.";
    info.keywords = "ramp shared";
    registry.registerType(
        "Curve", [] { return std::make_unique<CurveOp>(); }, info);
}

}  // namespace velmorin
