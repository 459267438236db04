#include <algorithm>

#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/shape_ops.h"

namespace velmorin {

void widenStrands(const StrandSet& input, const WidthSettings& settings,
                  const StrandSelection& selection, std::span<float> out) {
    const bool mapped = settings.width.isMapped();
    const float plain = settings.width.value();
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const float> widths = input.widths();
    // Feather shafts carry the widths their feather gave them.
    const std::vector<float>* rachis = input.strandChannel("rachis");
    // A profile of no key or one key is the same at every t: no strand needs its arc lengths.
    const bool flat = settings.profile.keys.size() <= 1;
    const float flatProfile = settings.profile.at(0.0f);
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        std::vector<float> arcs;
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            const std::size_t n = points.size();
            if (n < 2 || (rachis && (*rachis)[s] >= 0.5f)) {
                for (std::size_t k = 0; k < n; ++k)
                    out[begin + k] = begin + k < widths.size() ? widths[begin + k] : 1.0f;
                continue;
            }
            StrandDraws draws(ids[s], settings.seed);
            const float variation = 1.0f + settings.randomness * draws.nextSigned();
            if (flat) {
                float* target = out.data() + begin;
                if (mapped) {
                    for (std::size_t k = 0; k < n; ++k)
                        target[k] = settings.width.atPoint(s, k) * flatProfile * variation;
                } else {
                    const float width = plain * flatProfile;
                    for (std::size_t k = 0; k < n; ++k)
                        target[k] = width * variation;
                }
                continue;
            }
            arcs.resize(n);
            const float total = arcLengths(points, arcs);
            for (std::size_t k = 0; k < n; ++k) {
                // A strand of no length spreads its profile by point instead.
                const float t = total > 0.0f ? arcs[k] / total
                                             : static_cast<float>(k) / static_cast<float>(n - 1);
                const float width = mapped ? settings.width.atPoint(s, k) : plain;
                out[begin + k] = width * settings.profile.at(t) * variation;
            }
        }
    });
}

namespace {

// Strand thickness, root to tip.
class WidthOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Width"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec width = shapeParam("width", 0.007,
                                     "Width, scene units (mappable, per point: e.g. an expression "
                                     "of t or a point channel)");
        width.min = 0.0;
        width.softMax = 0.05;
        width.unit = "width";
        return {width, profileParam("Width along the length, root to tip, times width"),
                fractionParam("randomness", 0.0,
                              "Per-strand variation of the width, 0-1: up to that share thinner "
                              "or thicker"),
                seedParam()};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        WidthSettings settings;
        settings.width = fieldSampler(paramSet, ctx, "width", *input);
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        settings.randomness = static_cast<float>(paramSet.getFloat("randomness", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        constexpr ColumnId kColumns[] = {ColumnId::kWidths};
        // Besides points and widths it reads the feather shafts' mark, and what a mapped width
        // reads, which may be any channel.
        const std::vector<std::string_view> reads = {"rachis"};
        return runInPlace(
            inputs, incremental, mapsReadOnlyTheirStrand(paramSet, ctx, {"width"}), kColumns,
            [&](const StrandSet& from, const StrandSelection& selection, StrandSet& made) {
                std::vector<float>& widths = made.writeWidths();
                // A set that never had widths gets one per point here.
                widths.resize(from.pointCount(), 1.0f);
                widenStrands(from, settings, selection, widths);
            },
            out, changes, {}, settings.width.isMapped() ? nullptr : &reads);
    }
};

}  // namespace

void registerWidthOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description = "Strand thickness, root to tip.";
    info.keywords = "thickness radius taper";
    registry.registerType(
        "Width", [] { return std::make_unique<WidthOp>(); }, info);
}

}  // namespace velmorin
