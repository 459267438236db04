#include <algorithm>
#include <cmath>

#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {

void directStrands(const StrandSet& input, const DirectionSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const StrandRoot> roots = input.roots();
    const TangentFrom from = settings.alongU ? TangentFrom::U : TangentFrom::Direction;
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        RootFrames frames(settings.scalp, from);
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::size_t first = offsets[s];
            const std::size_t n = offsets[s + 1] - first;
            const std::span<const Vec3f> strand = inputPoints.subspan(first, n);
            Vec3f* out = points.data() + first;
            std::copy(strand.begin(), strand.end(), out);
            if (n < 2) continue;
            const float share = std::min(settings.strength.atStrand(s), 1.0f);
            if (share == 0.0f) continue;
            const RootFrame frame = frames.at(roots[s], settings.direction);
            if (!frame.valid) continue;

            StrandDraws draws(ids[s], settings.seed);
            const float inclinationDraw = draws.nextSigned();
            const float rollDraw = draws.nextSigned();
            const float inclination =
                (settings.inclination.atStrand(s) + settings.inclinationRandom * inclinationDraw) *
                kDegrees;
            const float roll =
                (settings.roll.atStrand(s) + settings.rollRandom * rollDraw) * kDegrees;
            const Vec3f target =
                frame.normal * std::cos(inclination) +
                (frame.tangent * std::cos(roll) + frame.binormal * std::sin(roll)) *
                    std::sin(inclination);

            // The strand points where its first segment of any length points.
            Vec3f current;
            for (std::size_t k = 1; k < n && lengthSquared(current) == 0.0f; ++k)
                current = normalized(strand[k] - strand[k - 1]);
            if (lengthSquared(current) == 0.0f) continue;
            const float cosTurn = std::clamp(dot(current, target), -1.0f, 1.0f);
            Vec3f axis = cross(current, target);
            const float axisLength = length(axis);
            float c = 0.0f, sn = 0.0f;
            if (axisLength < 1e-6f) {
                if (cosTurn > 0.0f) continue;
                // Pointing straight away: any perpendicular turns it round.
                const Vec3f other =
                    std::fabs(current.x) < 0.9f ? Vec3f{1.0f, 0.0f, 0.0f} : Vec3f{0.0f, 1.0f, 0.0f};
                axis = normalized(cross(current, other));
                const float turn = std::acos(cosTurn) * share;
                c = std::cos(turn), sn = std::sin(turn);
            } else {
                axis = axis / axisLength;
                if (share == 1.0f) {
                    // The whole turn: its cosine and sine are the dot and cross products' own.
                    c = cosTurn, sn = std::min(axisLength, 1.0f);
                } else {
                    const float turn = std::acos(cosTurn) * share;
                    c = std::cos(turn), sn = std::sin(turn);
                }
            }
            for (std::size_t k = 1; k < n; ++k)
                out[k] = strand[0] + rotateAbout(strand[k] - strand[0], axis, c, sn);
        }
    });
}

namespace {

using field_ops::choiceParam;
using field_ops::makeParam;

ParamSpec angleParam(std::string name, double value, std::string description) {
    ParamSpec spec = makeParam(std::move(name), value, std::move(description));
    spec.unit = "angle";
    return spec;
}

// Points strands by inclination and roll at the root: a rigid turn of each strand about its root.
class DirectionOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Direction"; }
    std::string category() const override { return "shape"; }
    int version() const override { return 2; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec inclination = angleParam(
            "inclination", 0.0,
            "Degrees from the scalp's normal at the root: 0 straight out, 90 flat along the scalp "
            "(mappable)");
        inclination.softMin = 0.0;
        inclination.softMax = 90.0;
        ParamSpec roll = angleParam(
            "roll", 0.0, "Degrees around the normal from where roll 0 points (along) (mappable)");
        roll.min = -180.0;
        roll.max = 180.0;
        ParamSpec strength = makeParam(
            "strength", 1.0,
            "How far each strand turns to its direction, 0-1: that share of the turn (mappable)");
        strength.min = 0.0;
        strength.max = 1.0;
        strength.unit = "fraction";
        ParamSpec along = choiceParam(
            "along", "tangent", {"direction", "tangent"},
            "Where roll 0 points: direction: the direction below, laid onto the scalp (no seams); "
            "tangent: the scalp's U direction (its UVs, so a UV seam draws a line through the "
            "hair; without UVs the direction below)");
        ParamSpec direction =
            makeParam("direction", Vec3f{0.0f, -1.0f, 0.0f},
                      "Where roll 0 points (world space), laid onto the scalp at each root");
        direction.worldDirection = true;
        ParamSpec inclinationRandom =
            angleParam("inclinationRandom", 0.0,
                       "Up to this many degrees more or less inclination per strand");
        ParamSpec rollRandom =
            angleParam("rollRandom", 0.0, "Up to this many degrees more or less roll per strand");
        for (ParamSpec* random : {&inclinationRandom, &rollRandom}) {
            random->min = 0.0;
            random->softMax = 45.0;
        }
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.animatable = false;
        return {inclination, roll, strength, along, direction, inclinationRandom, rollRandom, seed};
    }
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        if (incremental &&
            !mapsReadOnlyTheirStrand(paramSet, ctx, {"inclination", "roll", "strength"}))
            return false;
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        const std::shared_ptr<const ScalpMesh> scalp = sceneScalp(ctx);
        DirectionSettings settings;
        if (strands) {
            settings.inclination = fieldSampler(paramSet, ctx, "inclination", *strands);
            settings.roll = fieldSampler(paramSet, ctx, "roll", *strands);
            settings.strength = fieldSampler(paramSet, ctx, "strength", *strands);
        }
        settings.alongU = paramSet.getString("along", "tangent") == "tangent";
        settings.direction = paramSet.getVec3("direction", {0.0f, -1.0f, 0.0f});
        settings.inclinationRandom =
            static_cast<float>(paramSet.getFloat("inclinationRandom", 0.0));
        settings.rollRandom = static_cast<float>(paramSet.getFloat("rollRandom", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.scalp = scalp.get();
        return reshapePoints(inputs, incremental, true, &directStrands, settings, out, changes);
    }
};

}  // namespace

void registerDirectionOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description =
        "Points strands by inclination from the scalp and roll around its normal, at the root.";
    info.keywords = "inclination roll angle orient";
    registry.registerType(
        "Direction", [] { return std::make_unique<DirectionOp>(); }, info);
}

}  // namespace velmorin
