#include <algorithm>
#include <cmath>

#include "base/fast_trig_lanes.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"

namespace velmorin {

namespace {

// What each segment of the axis curves holds for the strand loop, made once before it: the unit
// tangent the points turn about and one over the segment's length, so that no point takes a
// square root or a division.
struct AxisSegments {
    std::vector<Vec3f> tangents;
    std::vector<float> inverse;
    std::vector<std::size_t> first;  // per axis: where its segments start

    void add(std::span<const Vec3f> points, std::span<const float> arcs) {
        first.push_back(tangents.size());
        for (std::size_t k = 0; k + 1 < points.size(); ++k) {
            tangents.push_back(normalized(points[k + 1] - points[k], {0, 1, 0}));
            const float span = arcs[k + 1] - arcs[k];
            inverse.push_back(span > 0.0f ? 1.0f / span : 0.0f);
        }
    }
};

}  // namespace

void twistStrands(const StrandSet& input, const TwistSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out) {
    const bool turnsMapped = settings.turns.isMapped();
    const float plainTurns = settings.turns.value();
    const bool flatProfile = settings.profile.keys.empty();
    // The arcs along every axis curve and what its segments hold, once, before the strand loop.
    std::vector<std::vector<float>> guideArcs;
    AxisSegments segments;
    if (settings.axes) {
        for (const Guide& guide : settings.axes->guides) {
            guideArcs.emplace_back(guide.points.size());
            arcLengths(guide.points, guideArcs.back());
            segments.add(guide.points, guideArcs.back());
        }
    } else if (settings.clumps) {
        for (std::size_t c = 0; c < settings.clumps->clumpCount; ++c)
            segments.add(settings.clumps->axisPoints(c), settings.clumps->axisArcs(c));
    }

    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        StrandScratch<float> arcScratch, angleScratch, sineScratch, cosineScratch;
        StrandScratch<Vec3f> centerScratch;
        StrandScratch<std::uint32_t> segmentScratch;
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            const std::size_t n = points.size();
            Vec3f* const twisted = out.data() + begin;
            const auto keep = [&] { std::copy(points.begin(), points.end(), twisted); };
            if (n < 2) {
                keep();
                continue;
            }

            std::span<const Vec3f> axis;
            std::span<const float> axisArcs;
            std::size_t axisIndex = 0;
            if (settings.axes) {
                // The axis curve whose root lies nearest this strand's.
                float nearest = INFINITY;
                for (std::size_t g = 0; g < settings.axes->guides.size(); ++g) {
                    const std::vector<Vec3f>& curve = settings.axes->guides[g].points;
                    if (curve.empty()) continue;
                    const float d = lengthSquared(curve[0] - points[0]);
                    if (d < nearest) {
                        nearest = d;
                        axis = curve;
                        axisArcs = guideArcs[g];
                        axisIndex = g;
                    }
                }
            } else if (settings.clumps) {
                axisIndex = settings.clumps->clumpOf[s];
                axis = settings.clumps->axisPoints(axisIndex);
                axisArcs = settings.clumps->axisArcs(axisIndex);
            }
            if (axis.size() < 2 || !(axisArcs.back() > 0.0f)) {
                keep();
                continue;
            }
            const std::span<float> arcs = arcScratch.take(n);
            // arcLengths, with the square roots four at a time.
            segmentLengths(points, arcs);
            arcs[0] = 0.0f;
            float total = 0.0f;
            for (std::size_t k = 1; k < n; ++k) {
                total += arcs[k];
                arcs[k] = total;
            }
            if (!(total > 0.0f)) {
                keep();
                continue;
            }
            const float perTotal = 1.0f / total;
            const float turns = turnsMapped ? settings.turns.atStrand(s) : plainTurns;
            const float axisLength = axisArcs.back();
            const Vec3f* tangents = segments.tangents.data() + segments.first[axisIndex];
            const float* inverse = segments.inverse.data() + segments.first[axisIndex];
            // First where each point's centre lies on the axis and by how much it turns, then
            // the sines and cosines of all the turns together, then the turns themselves.
            const std::span<Vec3f> centers = centerScratch.take(n);
            const std::span<std::uint32_t> along = segmentScratch.take(n);
            const std::span<float> angles = angleScratch.take(n);
            std::size_t segment = 0;
            for (std::size_t k = 1; k < n; ++k) {
                // A point's place along the axis is its share of its own strand's length.
                const float t = arcs[k] * perTotal;
                const float arc = t * axisLength;
                centers[k] = pointAtArcByInverse(axis, axisArcs, inverse, arc, segment);
                along[k] = static_cast<std::uint32_t>(segment);
                const float profile = flatProfile ? 1.0f : settings.profile.at(t);
                angles[k] = turns * profile * arc;
            }
            const std::span<float> sines = sineScratch.take(n);
            const std::span<float> cosines = cosineScratch.take(n);
            sinCosTurnsMany(angles.data() + 1, sines.data() + 1, cosines.data() + 1, n - 1);
            twisted[0] = points[0];
            for (std::size_t k = 1; k < n; ++k)
                twisted[k] = centers[k] + rotateAbout(points[k] - centers[k], tangents[along[k]],
                                                      cosines[k], sines[k]);
        }
    });
}

namespace {

// Twists strands around a lock or clump: ropes, twisted locks.
class TwistOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Twist"; }
    std::string category() const override { return "look"; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"axes", PortType::Guides, true}};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec turns = shapeParam("turns", 1.0,
                                     "Turns around the axis per unit of its length; negative turns "
                                     "the other way (mappable)");
        turns.softMin = -2.0;
        turns.softMax = 2.0;
        ParamSpec channel = shapeParam(
            "clumpChannel", std::string("clumpId"),
            "With nothing on the axes input: strands sharing this channel (a Clump's "
            "clumpChannel) twist around their core strands' mean (those every preview holds). "
            "Unused while axes are connected");
        channel.channel = ChannelRole::Reads;
        channel.channelOptional = true;
        channel.animatable = false;
        return {turns, profileParam("How much of the twist along the length, root to tip"),
                channel};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        TwistSettings settings;
        settings.turns = fieldSampler(paramSet, ctx, "turns", *input);
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        const auto axes = inputs.size() > 1 ? inputs[1].get<GuideSet>() : nullptr;
        ClumpAxes clumps;
        WidenChanges widen;
        if (axes) {
            settings.axes = axes.get();
        } else {
            const std::string channel = paramSet.getString("clumpChannel", "clumpId");
            const std::vector<float>* ids = input->strandChannel(channel);
            if (!ids)
                throw GraphError("Twist: connect axes (guides), or put a Clump before it (no '" +
                                 channel + "' channel to find the clumps)");
            // A strand that moved to another clump changes its old clump's axis too; the previous
            // result's channel would be needed to find that clump, so such a change runs in full.
            if (incremental && !clumpsKept(*ids, channel, *incremental)) return false;
            clumps = clumpAxes(*input, *ids);
            settings.clumps = &clumps;
            // A changed strand moves its clump's axis, and with it every strand of the clump.
            widen = [&clumps](std::span<const std::uint64_t> changed) {
                return strandsOfClumps(clumps, changed);
            };
        }
        return reshapePoints(inputs, incremental, mapsReadOnlyTheirStrand(paramSet, ctx, {"turns"}),
                             &twistStrands, settings, out, changes, widen);
    }
};

}  // namespace

void registerTwistOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description = "Twists strands around a lock or clump: ropes, twisted locks.";
    info.keywords = "rope twisted locks";
    registry.registerType(
        "Twist", [] { return std::make_unique<TwistOp>(); }, info);
}

}  // namespace velmorin
