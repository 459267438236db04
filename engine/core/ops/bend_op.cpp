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

// Where the bend starts and ends along a strand, as the segment loop uses them.
struct BendSpan {
    bool rising;     // end above start: the share grows evenly between them
    float start;     // settings.start
    float perShare;  // 1 / (end - start) when rising
};

#if VELMORIN_SSE_LANES
// The longest strands bent four at a time (their lengths held on the stack).
constexpr std::size_t kLanePoints = 64;

// Four strands of n points each (2 to kLanePoints), each in an SSE lane: the per-segment steps of
// the one-strand loop below, operation for operation, so the bits are the same. `from` and `to`
// are the strands' points in and out; a load takes four floats from a point, so each `from`
// strand must be followed by at least one more point in its column.
void bendFour(const Vec3f* const from[4], Vec3f* const to[4], std::size_t n, const Vec3f* axes,
              const float* wholeTurns, const BendSpan& span) {
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const auto select = [](__m128 mask, __m128 yes, __m128 no) {
        return _mm_or_ps(_mm_and_ps(mask, yes), _mm_andnot_ps(mask, no));
    };
    using Rows = PointRows4;
    const auto load = [&](std::size_t k) { return loadPointRows(from, k); };
    const auto store = [&](std::size_t k, Rows rows) { storePointRows(to, k, rows); };
    const auto lanes = [](const auto& value) {
        return _mm_setr_ps(value(0), value(1), value(2), value(3));
    };
    const __m128 ax = lanes([&](int i) { return axes[i].x; });
    const __m128 ay = lanes([&](int i) { return axes[i].y; });
    const __m128 az = lanes([&](int i) { return axes[i].z; });
    const __m128 turns = _mm_loadu_ps(wholeTurns);

    // The segments' lengths and each strand's total.
    alignas(16) float lengths[4 * kLanePoints];
    __m128 total = zero;
    Rows before = load(0);
    for (std::size_t k = 1; k < n; ++k) {
        const Rows at = load(k);
        const __m128 dx = _mm_sub_ps(at.x, before.x), dy = _mm_sub_ps(at.y, before.y);
        const __m128 dz = _mm_sub_ps(at.z, before.z);
        const __m128 length = _mm_sqrt_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz)));
        _mm_store_ps(lengths + 4 * k, length);
        total = _mm_add_ps(total, length);
        before = at;
    }
    const __m128 perLength = _mm_and_ps(_mm_cmpgt_ps(total, zero), _mm_div_ps(one, total));
    const __m128 start = _mm_set1_ps(span.start), perShare = _mm_set1_ps(span.perShare);
    __m128 arc = zero;
    before = load(0);
    Rows out = before;
    store(0, out);
    for (std::size_t k = 1; k < n; ++k) {
        const __m128 length = _mm_load_ps(lengths + 4 * k);
        const __m128 t =
            _mm_mul_ps(_mm_add_ps(arc, _mm_mul_ps(_mm_set1_ps(0.5f), length)), perLength);
        arc = _mm_add_ps(arc, length);
        __m128 share;
        if (span.rising) {
            // std::clamp(v, 0, 1): 0 below, 1 above, else v (a NaN stays).
            const __m128 v = _mm_mul_ps(_mm_sub_ps(t, start), perShare);
            share = select(_mm_cmplt_ps(v, zero), zero, select(_mm_cmplt_ps(one, v), one, v));
        } else {
            share = _mm_and_ps(_mm_cmpge_ps(t, start), one);
        }
        __m128 sine, cosine;
        sinCosTurns4(_mm_mul_ps(turns, share), sine, cosine);
        const Rows at = load(k);
        const __m128 vx = _mm_sub_ps(at.x, before.x), vy = _mm_sub_ps(at.y, before.y);
        const __m128 vz = _mm_sub_ps(at.z, before.z);
        // rotateAbout(v, axis, cosine, sine): v cos + (axis x v) sin + axis (axis . v)(1 - cos).
        const __m128 along = _mm_mul_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(ax, vx), _mm_mul_ps(ay, vy)), _mm_mul_ps(az, vz)),
            _mm_sub_ps(one, cosine));
        const auto turned = [&](__m128 v, __m128 cross, __m128 a) {
            return _mm_add_ps(_mm_add_ps(_mm_mul_ps(v, cosine), _mm_mul_ps(cross, sine)),
                              _mm_mul_ps(a, along));
        };
        const __m128 rx = turned(vx, _mm_sub_ps(_mm_mul_ps(ay, vz), _mm_mul_ps(az, vy)), ax);
        const __m128 ry = turned(vy, _mm_sub_ps(_mm_mul_ps(az, vx), _mm_mul_ps(ax, vz)), ay);
        const __m128 rz = turned(vz, _mm_sub_ps(_mm_mul_ps(ax, vy), _mm_mul_ps(ay, vx)), az);
        const __m128 kept = _mm_cmpeq_ps(share, zero);
        out = Rows{_mm_add_ps(out.x, select(kept, vx, rx)), _mm_add_ps(out.y, select(kept, vy, ry)),
                   _mm_add_ps(out.z, select(kept, vz, rz))};
        store(k, out);
        before = at;
    }
}
#endif

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
            const auto bendOne = [&](std::size_t j) {
                const std::size_t s = pick.strand(block + j);
                const std::size_t first = offsets[s];
                const std::size_t n = offsets[s + 1] - first;
                const std::span<const Vec3f> from_ = inputPoints.subspan(first, n);
                Vec3f* out = points.data() + first;
                if (!bends[j]) {
                    std::copy(from_.begin(), from_.end(), out);
                    return;
                }
                const Vec3f axis = axes[j];
                const float turns = wholeTurns[j];
                const std::span<float> lengths = lengthScratch.take(n);
                segmentLengths(from_, lengths);
                float total = 0.0f;
                for (std::size_t k = 1; k < n; ++k)
                    total += lengths[k];
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
            };
            for (std::size_t j = 0; j < count;) {
#if VELMORIN_SSE_LANES
                // Four bending strands of one length side by side, when the last of them is
                // followed by another point in the column (a lane reads four floats of a point).
                if (j + 4 <= count && bends[j] && bends[j + 1] && bends[j + 2] && bends[j + 3]) {
                    const Vec3f* from4[4];
                    Vec3f* to4[4];
                    std::size_t n = 0, lastEnd = 0;
                    bool alike = true;
                    for (std::size_t i = 0; i < 4; ++i) {
                        const std::size_t s = pick.strand(block + j + i);
                        const std::size_t count4 = offsets[s + 1] - offsets[s];
                        if (i == 0) n = count4;
                        alike = alike && count4 == n;
                        from4[i] = inputPoints.data() + offsets[s];
                        to4[i] = points.data() + offsets[s];
                        lastEnd = std::max(lastEnd, static_cast<std::size_t>(offsets[s + 1]));
                    }
                    if (alike && n <= kLanePoints && lastEnd < inputPoints.size()) {
                        bendFour(from4, to4, n, axes + j, wholeTurns + j,
                                 {rising, settings.start, perShare});
                        j += 4;
                        continue;
                    }
                }
#endif
                bendOne(j);
                ++j;
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
