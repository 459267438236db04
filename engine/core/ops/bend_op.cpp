#include <algorithm>
#include <cmath>

#include "base/fast_trig_lanes.h"
#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {

namespace {

// Strands are bent a block at a time, their axes and turns found first.
constexpr std::size_t kBlock = 16;

}  // namespace

float bendShare(float t, float start, float end) {
    if (end <= start) return t >= start ? 1.0f : 0.0f;
    return std::clamp((t - start) / (end - start), 0.0f, 1.0f);
}

void bendStrands(const StrandSet& input, const BendSettings& settings, const StrandSelection& pick,
                 std::span<Vec3f> points) {
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const StrandRoot> roots = input.roots();
    const bool mappedAngle = settings.angle.isMapped();
    const TangentFrom from =
        settings.along == BendAlong::Tangent ? TangentFrom::U : TangentFrom::Direction;
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    const bool alongNormal = settings.along == BendAlong::Normal;
    const float plainAngle = settings.angle.value();
    // bendShare, with the division by the span made once.
    const bool rising = settings.end > settings.start;
    const float perShare = rising ? 1.0f / (settings.end - settings.start) : 0.0f;
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        StrandScratch<float> lengthScratch, shareScratch, angleScratch, sineScratch, cosineScratch;
        RootFrames frames(settings.scalp, from);
        // Each strand's axis and whole turn, found for a block of strands before any of them is
        // bent: the steps that find them wait on one another, and the strands of a block overlap.
        bool bends[kBlock];
        Vec3f axes[kBlock];
        float wholeTurns[kBlock];
        for (std::size_t block = begin; block < end; block += kBlock) {
            const std::size_t count = std::min(kBlock, end - block);
            for (std::size_t j = 0; j < count; ++j) {
                bends[j] = false;
                const std::size_t s = pick.strand(block + j);
                const std::size_t first = offsets[s];
                const std::size_t n = offsets[s + 1] - first;
                if (n < 2) continue;
                float degrees = mappedAngle ? settings.angle.atStrand(s) : plainAngle;
                if (settings.randomness > 0.0f)
                    degrees *=
                        1.0f - settings.randomness * StrandDraws(ids[s], settings.seed).next();
                if (degrees == 0.0f) continue;
                const Vec3f chord = inputPoints[first + n - 1] - inputPoints[first];
                const float chordLength = length(chord);
                if (!(chordLength > 0.0f)) continue;
                const Vec3f c = chord / chordLength;

                Vec3f target;
                if (alongNormal) {
                    if (!settings.scalp || !settings.scalp->isOnSurface(roots[s])) continue;
                    target = frames.normalAt(roots[s]);
                } else {
                    const RootFrame frame =
                        frames.at(roots[s], settings.direction.vectorAtStrand(s));
                    if (!frame.valid) continue;
                    target = frame.tangent;
                }
                Vec3f axis = cross(c, target);
                const float axisLength = length(axis);
                const float cosCurrent = std::clamp(dot(c, target), -1.0f, 1.0f);
                if (axisLength < 1e-5f) {
                    // On the target line: only a strand standing along the normal can be laid
                    // down, about the binormal of the scalp there.
                    if (!alongNormal || degrees >= 0.0f || cosCurrent <= 0.0f) continue;
                    axis = settings.scalp->frameAt(roots[s]).bitangent;
                } else {
                    axis = axis / axisLength;
                }
                const float current = std::acos(cosCurrent) / kDegrees;
                const float lowest =
                    alongNormal ? std::min(0.0f, current - 90.0f) : current - 180.0f;
                bends[j] = true;
                axes[j] = axis;
                wholeTurns[j] = std::clamp(degrees, lowest, current) / 360.0f;
            }
            for (std::size_t j = 0; j < count; ++j) {
                const std::size_t s = pick.strand(block + j);
                const std::size_t first = offsets[s];
                const std::size_t n = offsets[s + 1] - first;
                const std::span<const Vec3f> from_ = inputPoints.subspan(first, n);
                Vec3f* out = points.data() + first;
                if (!bends[j]) {
                    std::copy(from_.begin(), from_.end(), out);
                    continue;
                }
                const Vec3f axis = axes[j];
                const float turns = wholeTurns[j];
                const std::span<float> lengths = lengthScratch.take(n);
                float total = 0.0f;
                for (std::size_t k = 1; k < n; ++k) {
                    lengths[k] = length(from_[k] - from_[k - 1]);
                    total += lengths[k];
                }
                // Each segment turns by the share of the bend at its middle. Before the start a
                // segment keeps its direction; the others turn by `turns` times their share (past
                // the end the whole turn, as the share is 1 there), their sines and cosines made
                // together.
                const std::span<float> shares = shareScratch.take(n);
                const std::span<float> angles = angleScratch.take(n);
                const float perLength = total > 0.0f ? 1.0f / total : 0.0f;
                float arc = 0.0f;
                for (std::size_t k = 1; k < n; ++k) {
                    const float segmentLength = lengths[k];
                    const float t = (arc + 0.5f * segmentLength) * perLength;
                    arc += segmentLength;
                    shares[k] = rising ? std::clamp((t - settings.start) * perShare, 0.0f, 1.0f)
                                       : (t >= settings.start ? 1.0f : 0.0f);
                    angles[k] = turns * shares[k];
                }
                const std::span<float> sines = sineScratch.take(n);
                const std::span<float> cosines = cosineScratch.take(n);
                sinCosTurnsMany(angles.data() + 1, sines.data() + 1, cosines.data() + 1, n - 1);
                out[0] = from_[0];
                for (std::size_t k = 1; k < n; ++k) {
                    const Vec3f segment = from_[k] - from_[k - 1];
                    out[k] = shares[k] == 0.0f
                                 ? out[k - 1] + segment
                                 : out[k - 1] + rotateAbout(segment, axis, cosines[k], sines[k]);
                }
            }
        }
    });
}
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;

ParamSpec fraction(std::string name, double value, std::string description) {
    ParamSpec spec = makeParam(std::move(name), value, std::move(description));
    spec.min = 0.0;
    spec.max = 1.0;
    spec.unit = "fraction";
    return spec;
}

// Bends strands toward or away from the scalp, or combs them toward a direction.
class BendOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Bend"; }
    std::string category() const override { return "deform"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec angle = makeParam(
            "angle", 30.0,
            "Degrees the strands bend between start and end (mappable), never past the "
            "direction; positive toward it (with the normal: away from the scalp), negative away "
            "from it (down onto the scalp); 180 with start and end 0 points them along it");
        angle.min = -180.0;
        angle.max = 180.0;
        angle.unit = "angle";
        ParamSpec along = choiceParam(
            "along", "normal", {"normal", "tangent", "direction"},
            "normal: the scalp's normal at the root (never below the scalp's tangent plane); "
            "tangent: the scalp's U direction (its UVs; without them the direction below); "
            "direction: the direction below, laid onto the scalp at the root (as a comb lays "
            "hair)");
        ParamSpec direction =
            makeParam("direction", Vec3f{0.0f, -1.0f, 0.0f},
                      "The way strands bend (world space; or an expression giving a vector per "
                      "strand)");
        direction.worldDirection = true;
        direction.vectorExpression = true;
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.animatable = false;
        return {angle,
                fraction("start", 0.0, "Where the bend starts along the length, 0 root to 1 tip"),
                fraction("end", 1.0,
                         "Where it ends: the strand turns evenly between start and end and holds "
                         "its shape past it"),
                along,
                direction,
                fraction("randomness", 0.0,
                         "Each strand's angle scaled down by up to this share, at random"),
                seed};
    }
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (incremental && !mapsReadOnlyTheirStrand(paramSet, ctx, {"angle", "direction"}))
            return false;
        const std::shared_ptr<const ScalpMesh> scalp = sceneScalp(ctx);
        BendSettings settings;
        const std::string along = paramSet.getString("along", "normal");
        settings.along = along == "tangent"     ? BendAlong::Tangent
                         : along == "direction" ? BendAlong::Direction
                                                : BendAlong::Normal;
        settings.start = static_cast<float>(paramSet.getFloat("start", 0.0));
        settings.end = static_cast<float>(paramSet.getFloat("end", 1.0));
        settings.randomness = static_cast<float>(paramSet.getFloat("randomness", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.scalp = scalp.get();
        if (strands) {
            settings.angle = fieldSampler(paramSet, ctx, "angle", *strands);
            settings.direction = fieldSampler(paramSet, ctx, "direction", *strands);
        }
        return reshapePoints(inputs, incremental, true, &bendStrands, settings, out, changes);
    }
};

}  // namespace

void registerBendOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "deform";
    info.description =
        "Bends strands toward or away from the scalp, or combs them toward a direction, between a "
        "start and an end; start and end 0 stand them up at the root.";
    info.keywords = "comb curve lift lay";
    registry.registerType(
        "Bend", [] { return std::make_unique<BendOp>(); }, info);
}

}  // namespace velmorin
