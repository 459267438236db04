#include <algorithm>
#include <cmath>

#include "base/parallel.h"
#include "editing/flow.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {

void flowStrands(const StrandSet& input, const FlowSettings& settings, const StrandSelection& pick,
                 std::span<Vec3f> points) {
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const StrandRoot> roots = input.roots();
    const ScalpMesh* scalp = settings.scalp;
    const FlowField* flow = settings.flow;
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::span<const Vec3f> strand = input.strandPoints(s);
            Vec3f* out = points.data() + input.pointRange(s).begin;
            std::copy(strand.begin(), strand.end(), out);
            const std::size_t n = strand.size();
            if (n < 2 || !scalp || !flow || !scalp->isOnSurface(roots[s])) continue;
            StrandRoot at = roots[s];
            Vec3f along = flow->at(*scalp, at);
            if (lengthSquared(along) == 0.0f) continue;
            Vec3f normal = scalp->normalAt(at);

            const float turn =
                settings.random * StrandDraws(ids[s], settings.seed).nextSigned() * kDegrees;
            const float cosTurn = std::cos(turn), sinTurn = std::sin(turn);
            const float lift = settings.lift.atStrand(s);
            float total = 0.0f;
            for (std::size_t k = 1; k < n; ++k)
                total += length(strand[k] - strand[k - 1]);

            // Walk from the root: each segment keeps its length and follows the flow under its
            // start, lifted off the skin by the lift at its middle, and lands at the height the
            // strand has reached above the surface there.
            float arc = 0.0f;
            float height = 0.0f;
            for (std::size_t k = 1; k < n; ++k) {
                const float segment = length(strand[k] - strand[k - 1]);
                const float t = total > 0.0f ? (arc + 0.5f * segment) / total : 0.0f;
                arc += segment;
                const float angle = lift * (1.0f - settings.bend * t) * kDegrees;
                const Vec3f laid = rotateAbout(along, normal, cosTurn, sinTurn);
                const Vec3f direction = laid * std::cos(angle) + normal * std::sin(angle);
                Vec3f next = out[k - 1] + direction * segment;
                height += segment * std::sin(angle);
                const ClosestPoint below =
                    scalp->closestPoint(next, std::fabs(height) + 2.0f * segment + 1e-4f);
                if (below.found()) {
                    at = below.root;
                    const Vec3f surfaceNormal = scalp->normalAt(at);
                    const Vec3f snapped = below.point + surfaceNormal * height;
                    next = out[k - 1] + normalized(snapped - out[k - 1], direction) * segment;
                    // The flow and the normal where the next segment starts.
                    const Vec3f there = flow->at(*scalp, at);
                    normal = surfaceNormal;
                    along = lengthSquared(there) > 0.0f
                                ? there
                                : normalized(alongSurface(along, normal), along);
                }
                out[k] = next;
            }
        }
    });
}

namespace {

using field_ops::makeParam;

// Lays strands along the flow arrows drawn on the scalp.
class FlowOp final : public Operator {
  public:
    std::string type() const override { return "Flow"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec lift =
            makeParam("lift", 12.0, "Angle off the skin at the root, degrees (mappable)");
        lift.min = 0.0;
        lift.max = 90.0;
        lift.unit = "angle";
        ParamSpec bend = makeParam("bend", 0.6,
                                   "How much the angle falls toward the tip, 0-1 (1: the tip lies "
                                   "on the skin)");
        bend.min = 0.0;
        bend.max = 1.0;
        bend.unit = "fraction";
        ParamSpec random = makeParam(
            "random", 6.0,
            "Up to this many degrees of random turn of each strand around the scalp's normal, off "
            "the flow");
        random.min = 0.0;
        random.softMax = 45.0;
        random.unit = "angle";
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.animatable = false;
        return {lift, bend, random, seed};
    }
    std::vector<std::string> sceneInputs() const override {
        return {std::string(kScalpInput), std::string(kFlowInput)};
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        Value out;
        run(ctx, inputs, nullptr, &out, nullptr);
        return out;
    }
    bool evaluateIncremental(const EvalContext& ctx, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const override {
        return run(ctx, inputs, &incremental, out, changes);
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out, StrandChanges* changes) const {
        const SceneInput* flowInput = ctx.sceneInput(kFlowInput);
        const auto flow = flowInput ? flowInput->value.get<FlowField>() : nullptr;
        if (!flow || (flow->sources().pinCount() == 0 && flow->sources().sinkCount() == 0)) {
            // Nothing to lay them along: the strands pass as they came.
            if (incremental) return false;
            ctx.note(std::string(kNoFlowArrows));
            *out = inputs.empty() ? Value() : inputs[0];
            return true;
        }
        if (incremental && !mapsReadOnlyTheirStrand(paramSet, ctx, {"lift"})) return false;
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        const std::shared_ptr<const ScalpMesh> scalp = sceneScalp(ctx);
        FlowSettings settings;
        if (strands) settings.lift = fieldSampler(paramSet, ctx, "lift", *strands);
        settings.bend = static_cast<float>(paramSet.getFloat("bend", 0.6));
        settings.random = static_cast<float>(paramSet.getFloat("random", 6.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.scalp = scalp.get();
        // A field made on another scalp would be read at the wrong vertices.
        settings.flow =
            scalp && flow->directions().size() == scalp->pointCount() ? flow.get() : nullptr;
        constexpr ColumnId kColumns[] = {ColumnId::kPoints};
        return runInPlace(
            inputs, incremental, true, kColumns,
            [&](const StrandSet& from, const StrandSelection& selection, StrandSet& made) {
                flowStrands(from, settings, selection, made.writePoints());
            },
            out, changes);
    }
};

}  // namespace

void registerFlowOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description = "Lays strands along the flow arrows drawn on the scalp.";
    info.keywords = "flow comb direction lay";
    registry.registerType(
        "Flow", [] { return std::make_unique<FlowOp>(); }, info);
}

}  // namespace velmorin
