#include <algorithm>
#include <cmath>
#include <optional>

#include "base/parallel.h"
#include "editing/flow.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// The closest point of the scalp to `p`, walked to from triangle `face` across the edges toward
// it. A strand's next point lies a segment from the last, over the same or a neighbouring
// triangle, so the walk takes a step or two where the tree searches from its top. Nothing where
// the walk reaches a border, goes round in circles (over a ridge the point lies off every
// triangle's face) or lands farther than `maxDistance`: the caller asks the tree then, which also
// finds a nearer part of the surface that the walk can't see.
std::optional<ClosestPoint> walkToClosest(const ScalpMesh& scalp, const SurfaceTopology& topology,
                                          std::int32_t face, const Vec3f& p, float maxDistance) {
    constexpr int kMostSteps = 6;
    const std::vector<Triangle>& triangles = scalp.triangles();
    const std::vector<Vec3f>& corners = scalp.points();
    for (int step = 0; step < kMostSteps; ++step) {
        const Triangle& triangle = triangles[static_cast<std::size_t>(face)];
        const Vec3f p0 = corners[triangle[0]];
        const Vec3f e1 = corners[triangle[1]] - p0, e2 = corners[triangle[2]] - p0;
        const Vec3f d = p - p0;
        const float d11 = dot(e1, e1), d12 = dot(e1, e2), d22 = dot(e2, e2);
        const float d1 = dot(d, e1), d2 = dot(d, e2);
        const float det = d11 * d22 - d12 * d12;
        if (!(det > 0.0f)) return std::nullopt;
        const float u = (d22 * d1 - d12 * d2) / det;
        const float v = (d11 * d2 - d12 * d1) / det;
        const float w = 1.0f - u - v;
        if (u >= 0.0f && v >= 0.0f && w >= 0.0f) {
            ClosestPoint found;
            found.root = {face, u, v};
            found.point = p0 + e1 * u + e2 * v;
            found.distance = length(p - found.point);
            if (!(found.distance <= maxDistance)) return std::nullopt;
            return found;
        }
        // Out across the edge facing the most negative weight: corner 0's weight faces edge 1
        // (corners 1 to 2), corner 1's edge 2, corner 2's edge 0.
        const int edge = w <= u && w <= v ? 1 : u <= v ? 2 : 0;
        face = topology.neighborAcross(static_cast<std::uint32_t>(face), edge);
        if (face < 0) return std::nullopt;
    }
    return std::nullopt;
}

// The smooth normal and the flow at points of the scalp, as ScalpMesh::normalAt and FlowField::at
// give them, bit for bit, from the vertex normals and the field's vertex directions fetched once
// per run: one blend of a triangle's corners for both, where those calls would make the normal
// twice. The rare cases (opposed normals, directions that disagree) go to the calls themselves.
class SurfaceFlow {
  public:
    SurfaceFlow(const ScalpMesh& scalp, const FlowField& flow)
        : scalp_(scalp),
          flow_(flow),
          triangles_(scalp.triangles()),
          normals_(&scalp),
          directions_(flow.directions()),
          blendDirections_(flow.directions().size() == scalp.pointCount()) {}

    Vec3f normalAt(const StrandRoot& at) const { return normals_.at(at); }

    // The flow at `at`, whose smooth normal is `normal`.
    Vec3f flowAt(const StrandRoot& at, const Vec3f& normal) const {
        constexpr float kSlack = 1e-4f;
        const bool usable = at.u >= -kSlack && at.v >= -kSlack && at.u + at.v <= 1.0f + kSlack;
        if (!usable || !blendDirections_) return flow_.at(scalp_, at);
        const Triangle& t = triangles_[static_cast<std::size_t>(at.face)];
        const float w0 = 1.0f - at.u - at.v;
        Vec3f blend = directions_[t[0]] * w0 + directions_[t[1]] * at.u + directions_[t[2]] * at.v;
        blend -= normal * dot(blend, normal);
        const float len = length(blend);
        if (len >= 0.5f) return blend / len;
        return flow_.at(scalp_, at);
    }

  private:
    const ScalpMesh& scalp_;
    const FlowField& flow_;
    const std::vector<Triangle>& triangles_;
    SmoothNormals normals_;
    std::span<const Vec3f> directions_;
    bool blendDirections_;
};

}  // namespace

void flowStrands(const StrandSet& input, const FlowSettings& settings, const StrandSelection& pick,
                 std::span<Vec3f> points) {
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const StrandRoot> roots = input.roots();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    const ScalpMesh* scalp = settings.scalp;
    const FlowField* flow = settings.flow;
    const std::shared_ptr<const SurfaceTopology> topology = scalp ? scalp->topology() : nullptr;
    const std::optional<SurfaceFlow> surface =
        scalp && flow ? std::optional<SurfaceFlow>(std::in_place, *scalp, *flow) : std::nullopt;
    const bool liftMapped = settings.lift.isMapped();
    const float plainLift = settings.lift.value();
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        StrandScratch<float> lengthScratch;
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::size_t first = offsets[s];
            const std::size_t n = offsets[s + 1] - first;
            const std::span<const Vec3f> strand = inputPoints.subspan(first, n);
            Vec3f* out = points.data() + first;
            std::copy(strand.begin(), strand.end(), out);
            if (n < 2 || !surface || !scalp->isOnSurface(roots[s])) continue;
            StrandRoot at = roots[s];
            Vec3f normal = surface->normalAt(at);
            Vec3f along = surface->flowAt(at, normal);
            if (lengthSquared(along) == 0.0f) continue;

            const float turn =
                settings.random * StrandDraws(ids[s], settings.seed).nextSigned() * kDegrees;
            const float cosTurn = std::cos(turn), sinTurn = std::sin(turn);
            const float lift = liftMapped ? settings.lift.atStrand(s) : plainLift;
            const std::span<float> lengths = lengthScratch.take(n);
            float total = 0.0f;
            for (std::size_t k = 1; k < n; ++k) {
                lengths[k] = length(strand[k] - strand[k - 1]);
                total += lengths[k];
            }

            // Walk from the root: each segment keeps its length and follows the flow under its
            // start, lifted off the skin by the lift at its middle, and lands at the height the
            // strand has reached above the surface there.
            float arc = 0.0f;
            float height = 0.0f;
            for (std::size_t k = 1; k < n; ++k) {
                const float segment = lengths[k];
                const float t = total > 0.0f ? (arc + 0.5f * segment) / total : 0.0f;
                arc += segment;
                const float angle = lift * (1.0f - settings.bend * t) * kDegrees;
                const float cosAngle = std::cos(angle), sinAngle = std::sin(angle);
                const Vec3f laid = rotateAbout(along, normal, cosTurn, sinTurn);
                const Vec3f direction = laid * cosAngle + normal * sinAngle;
                Vec3f next = out[k - 1] + direction * segment;
                height += segment * sinAngle;
                const float reach = std::fabs(height) + 2.0f * segment + 1e-4f;
                const std::optional<ClosestPoint> walked =
                    walkToClosest(*scalp, *topology, at.face, next, reach);
                const ClosestPoint below = walked ? *walked : scalp->closestPoint(next, reach);
                if (below.found()) {
                    at = below.root;
                    const Vec3f surfaceNormal = surface->normalAt(at);
                    const Vec3f snapped = below.point + surfaceNormal * height;
                    next = out[k - 1] + normalized(snapped - out[k - 1], direction) * segment;
                    // The flow and the normal where the next segment starts.
                    const Vec3f there = surface->flowAt(at, surfaceNormal);
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
class FlowOp final : public ShapeOperator {
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

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
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
        return reshapePoints(inputs, incremental, true, &flowStrands, settings, out, changes);
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
