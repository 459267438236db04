#include <memory>
#include <string>
#include <vector>

#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/shape_ops.h"
#include "ops/shape_support.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

// Takes out bumps up to a size, keeping lengths and roots.
class SmoothOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Smooth"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec strength = makeParam(
            "strength", 1.0, "How far toward the smoothed shape, 0-1, lengths kept (mappable)");
        ParamSpec scale = makeParam(
            "scale", 0.09,
            "The size of the bumps it takes out, as a share of the strand's length: small takes "
            "out kinks, 1 straightens the strand along the line from its root to its tip");
        for (ParamSpec* share : {&strength, &scale}) {
            share->min = 0.0;
            share->max = 1.0;
            share->unit = "fraction";
        }
        ParamSpec profile = makeParam("profile", Ramp{}, "Smoothing along the length, root to tip");
        return {strength, scale, profile};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        if (incremental && !mapsReadOnlyTheirStrand(paramSet, ctx, {"strength"})) return false;
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        SmoothSettings settings;
        if (strands) settings.strength = fieldSampler(paramSet, ctx, "strength", *strands);
        settings.scale = static_cast<float>(paramSet.getFloat("scale", 0.09));
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        return reshapePoints(inputs, incremental, true, &smoothStrands, settings, out, changes);
    }
};

}  // namespace

void registerSmoothOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description =
        "Takes out bumps up to a size (a share of the length; 1 straightens), keeping lengths and "
        "roots.";
    info.keywords = "relax straighten bumps";
    registry.registerType(
        "Smooth", [] { return std::make_unique<SmoothOp>(); }, info);
}

}  // namespace velmorin
