#include <algorithm>

#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/color_ops.h"
#include "strands/channel_names.h"

namespace velmorin {

void renderData(const StrandSet& input, const RenderDataSettings& settings,
                const StrandSelection& selection, std::span<float> opacity) {
    const std::span<const std::uint64_t> ids = input.ids();
    const bool mapped = settings.opacity.isMapped();
    const float plain = settings.opacity.value();
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        std::vector<float> t;
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            t.resize(points.size());
            arcShares(points, t);
            StrandDraws draws(ids[s], settings.seed);
            const float kept = 1.0f - settings.opacityRandom * draws.next();
            for (std::size_t p = 0; p < points.size(); ++p) {
                const float base = mapped ? settings.opacity.atPoint(s, p) : plain;
                opacity[begin + p] =
                    std::clamp(base * settings.opacityProfile.at(t[p]) * kept, 0.0f, 1.0f);
            }
        }
    });
}

namespace {

// Render controls per strand for the shader: opacity along the strands.
class RenderDataOp final : public ShapeOperator {
  public:
    std::string type() const override { return "RenderData"; }
    std::string category() const override { return "color"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        return {fractionParam("opacity", 1.0,
                              "How opaque each strand is, 0-1 (mappable), times opacityProfile"),
                shapeParam("opacityProfile", Ramp{},
                           "Opacity along the strand, root to tip, times opacity"),
                fractionParam("opacityRandom", 0.0,
                              "Each strand up to this share less opaque, at random"),
                seedParam()};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) {
            if (incremental) return false;
            *out = Value();
            return true;
        }
        RenderDataSettings settings;
        settings.opacity = fieldSampler(paramSet, ctx, "opacity", *input);
        settings.opacityProfile = paramRamp(paramSet, ctx, "opacityProfile", Ramp{});
        settings.opacityRandom = static_cast<float>(paramSet.getFloat("opacityRandom", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        const std::string name(channels::kOpacity);

        std::shared_ptr<StrandSet> made;
        StrandSelection selection = StrandSelection::every();
        if (incremental) {
            // Only the changed strands are redone, into the previous result's opacities.
            if (incremental->changes.empty()) return false;
            auto previous = incremental->previous.get<StrandSet>();
            const auto& changed = incremental->changes[0];
            if (!previous || !changed || changed->all || !changed->sameLayout ||
                previous->pointCount() != input->pointCount() || !previous->pointChannel(name) ||
                !mapsReadOnlyTheirStrand(paramSet, ctx, {"opacity"}))
                return false;
            made = std::make_shared<StrandSet>(*input);
            StrandSet before(*previous);
            previous.reset();
            incremental->takePrevious();
            made->removeStrandChannel(name);
            made->movePointChannelFrom(name, before);
            selection = StrandSelection::only(changed->strands);
            changes->all = false;
            changes->strands = changed->strands;
        } else {
            made = std::make_shared<StrandSet>(*input);
            made->removeStrandChannel(name);
            made->removePointChannel(name);
            changes->all = true;
            changes->strands.clear();
        }
        renderData(*input, settings, selection, made->addPointChannel(name, 1.0f));
        changes->sameLayout = true;
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }
};

}  // namespace

void registerRenderDataOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "color";
    info.description = "Render controls per strand for the shader: opacity along the strands.";
    info.keywords = "opacity shader";
    registry.registerType(
        "RenderData", [] { return std::make_unique<RenderDataOp>(); }, info);
}

}  // namespace velmorin
