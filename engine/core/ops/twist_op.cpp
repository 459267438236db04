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

namespace {

// The axis a strand twists about, with what its segments hold.
struct StrandAxis {
    std::span<const Vec3f> points;
    std::span<const float> arcs;
    const Vec3f* tangents = nullptr;
    const float* inverse = nullptr;

    // Whether the strand can twist about it: it has a segment and a length.
    bool usable() const { return points.size() >= 2 && arcs.back() > 0.0f; }
};

#if VELMORIN_SSE_LANES
// The longest strands twisted four at a time (their arcs held on the stack).
constexpr std::size_t kLanePoints = 64;

// Four strands of n points each (2 to kLanePoints), each in an SSE lane, about their usable axes:
// the steps of the one-strand loop in twistStrands, operation for operation, so the bits are the
// same. The walk along each axis is that loop's own, lane by lane. Returns false, having written
// nothing, when a strand has no length (the one-strand loop keeps it as it is). A load takes four
// floats from a point, so each `from` strand must be followed by at least one more point in its
// column. `profile` is null for a profile of no keys.
bool twistFour(const Vec3f* const from[4], Vec3f* const to[4], std::size_t n,
               const StrandAxis* axes, const float* strandTurns, const Ramp* profile) {
    using Rows = PointRows4;
    const auto load = [&](std::size_t k) { return loadPointRows(from, k); };
    // arcLengths in lanes: each segment's length, then the running sum.
    alignas(16) float arcs[4 * kLanePoints];
    __m128 total = _mm_setzero_ps();
    Rows before = load(0);
    for (std::size_t k = 1; k < n; ++k) {
        const Rows at = load(k);
        const __m128 dx = _mm_sub_ps(at.x, before.x), dy = _mm_sub_ps(at.y, before.y);
        const __m128 dz = _mm_sub_ps(at.z, before.z);
        total = _mm_add_ps(
            total, _mm_sqrt_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)),
                                          _mm_mul_ps(dz, dz))));
        _mm_store_ps(arcs + 4 * k, total);
        before = at;
    }
    if (_mm_movemask_ps(_mm_cmpgt_ps(total, _mm_setzero_ps())) != 0xF) return false;
    const __m128 perTotal = _mm_div_ps(_mm_set1_ps(1.0f), total);
    const __m128 axisLength = _mm_setr_ps(axes[0].arcs.back(), axes[1].arcs.back(),
                                          axes[2].arcs.back(), axes[3].arcs.back());
    const __m128 turns = _mm_loadu_ps(strandTurns);
    const __m128 one = _mm_set1_ps(1.0f);
    std::size_t segments[4] = {0, 0, 0, 0};
    for (std::size_t i = 0; i < 4; ++i)
        to[i][0] = from[i][0];
    for (std::size_t k = 1; k < n; ++k) {
        // A point's place along the axis is its share of its own strand's length.
        const __m128 t = _mm_mul_ps(_mm_load_ps(arcs + 4 * k), perTotal);
        const __m128 arc = _mm_mul_ps(t, axisLength);
        alignas(16) float place[4], shares[4];
        _mm_store_ps(place, arc);
        Vec3f centers[4], tangents[4];
        for (std::size_t i = 0; i < 4; ++i) {
            centers[i] = pointAtArcByInverse(axes[i].points, axes[i].arcs, axes[i].inverse,
                                             place[i], segments[i]);
            tangents[i] = axes[i].tangents[segments[i]];
        }
        __m128 profiles = one;
        if (profile) {
            _mm_store_ps(shares, t);
            profiles = _mm_setr_ps(profile->at(shares[0]), profile->at(shares[1]),
                                   profile->at(shares[2]), profile->at(shares[3]));
        }
        __m128 sine, cosine;
        sinCosTurns4(_mm_mul_ps(_mm_mul_ps(turns, profiles), arc), sine, cosine);
        const auto lanes = [](const Vec3f* v, float Vec3f::*c) {
            return _mm_setr_ps(v[0].*c, v[1].*c, v[2].*c, v[3].*c);
        };
        const __m128 cx = lanes(centers, &Vec3f::x), cy = lanes(centers, &Vec3f::y);
        const __m128 cz = lanes(centers, &Vec3f::z);
        const __m128 ax = lanes(tangents, &Vec3f::x), ay = lanes(tangents, &Vec3f::y);
        const __m128 az = lanes(tangents, &Vec3f::z);
        const Rows at = load(k);
        const __m128 vx = _mm_sub_ps(at.x, cx), vy = _mm_sub_ps(at.y, cy);
        const __m128 vz = _mm_sub_ps(at.z, cz);
        // rotateAbout(v, axis, cosine, sine): v cos + (axis x v) sin + axis (axis . v)(1 - cos).
        const __m128 along = _mm_mul_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(ax, vx), _mm_mul_ps(ay, vy)), _mm_mul_ps(az, vz)),
            _mm_sub_ps(one, cosine));
        const auto turned = [&](__m128 v, __m128 cross, __m128 a) {
            return _mm_add_ps(_mm_add_ps(_mm_mul_ps(v, cosine), _mm_mul_ps(cross, sine)),
                              _mm_mul_ps(a, along));
        };
        const __m128 x =
            _mm_add_ps(cx, turned(vx, _mm_sub_ps(_mm_mul_ps(ay, vz), _mm_mul_ps(az, vy)), ax));
        const __m128 y =
            _mm_add_ps(cy, turned(vy, _mm_sub_ps(_mm_mul_ps(az, vx), _mm_mul_ps(ax, vz)), ay));
        const __m128 z =
            _mm_add_ps(cz, turned(vz, _mm_sub_ps(_mm_mul_ps(ax, vy), _mm_mul_ps(ay, vx)), az));
        storePointRows(to, k, {x, y, z});
    }
    return true;
}
#endif

}  // namespace

void twistStrands(const StrandSet& input, const TwistSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out) {
    const bool turnsMapped = settings.turns.isMapped();
    const float plainTurns = settings.turns.value();
    const bool flatProfile = settings.profile.keys.empty();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
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
    // The axis of strand s, whose root is `root`.
    const auto axisOf = [&](std::size_t s, const Vec3f& root) {
        StrandAxis axis;
        std::size_t axisIndex = 0;
        if (settings.axes) {
            // The axis curve whose root lies nearest this strand's.
            float nearest = INFINITY;
            for (std::size_t g = 0; g < settings.axes->guides.size(); ++g) {
                const std::vector<Vec3f>& curve = settings.axes->guides[g].points;
                if (curve.empty()) continue;
                const float d = lengthSquared(curve[0] - root);
                if (d < nearest) {
                    nearest = d;
                    axis.points = curve;
                    axis.arcs = guideArcs[g];
                    axisIndex = g;
                }
            }
        } else if (settings.clumps) {
            axisIndex = settings.clumps->clumpOf[s];
            axis.points = settings.clumps->axisPoints(axisIndex);
            axis.arcs = settings.clumps->axisArcs(axisIndex);
        }
        if (!axis.points.empty()) {
            axis.tangents = segments.tangents.data() + segments.first[axisIndex];
            axis.inverse = segments.inverse.data() + segments.first[axisIndex];
        }
        return axis;
    };

    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        StrandScratch<float> arcScratch, angleScratch, sineScratch, cosineScratch;
        StrandScratch<Vec3f> centerScratch;
        StrandScratch<std::uint32_t> segmentScratch;
        const auto twistOne = [&](std::size_t s) {
            const std::size_t begin = offsets[s];
            const std::size_t n = offsets[s + 1] - begin;
            const std::span<const Vec3f> points = inputPoints.subspan(begin, n);
            Vec3f* const twisted = out.data() + begin;
            const auto keep = [&] { std::copy(points.begin(), points.end(), twisted); };
            if (n < 2) {
                keep();
                return;
            }
            const StrandAxis axis = axisOf(s, points[0]);
            if (axis.points.size() < 2 || !(axis.arcs.back() > 0.0f)) {
                keep();
                return;
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
                return;
            }
            const float perTotal = 1.0f / total;
            const float turns = turnsMapped ? settings.turns.atStrand(s) : plainTurns;
            const float axisLength = axis.arcs.back();
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
                centers[k] =
                    pointAtArcByInverse(axis.points, axis.arcs, axis.inverse, arc, segment);
                along[k] = static_cast<std::uint32_t>(segment);
                const float profile = flatProfile ? 1.0f : settings.profile.at(t);
                angles[k] = turns * profile * arc;
            }
            const std::span<float> sines = sineScratch.take(n);
            const std::span<float> cosines = cosineScratch.take(n);
            sinCosTurnsMany(angles.data() + 1, sines.data() + 1, cosines.data() + 1, n - 1);
            twisted[0] = points[0];
            for (std::size_t k = 1; k < n; ++k)
                twisted[k] =
                    centers[k] + rotateAbout(points[k] - centers[k], axis.tangents[along[k]],
                                             cosines[k], sines[k]);
        };
        for (std::size_t i = first; i < last;) {
#if VELMORIN_SSE_LANES
            // Four strands of one length side by side, each about a usable axis, when the last of
            // them is followed by another point in the column (a lane reads four floats of a
            // point).
            if (i + 4 <= last) {
                const Vec3f* from4[4];
                Vec3f* to4[4];
                StrandAxis axes4[4];
                float turns4[4];
                const std::size_t n =
                    offsets[selection.strand(i) + 1] - offsets[selection.strand(i)];
                bool alike = n >= 2 && n <= kLanePoints;
                std::size_t lastEnd = 0;
                for (std::size_t j = 0; j < 4 && alike; ++j) {
                    const std::size_t s = selection.strand(i + j);
                    alike = offsets[s + 1] - offsets[s] == n;
                    if (!alike) break;
                    from4[j] = inputPoints.data() + offsets[s];
                    to4[j] = out.data() + offsets[s];
                    lastEnd = std::max(lastEnd, static_cast<std::size_t>(offsets[s + 1]));
                    axes4[j] = axisOf(s, from4[j][0]);
                    alike = axes4[j].usable();
                    turns4[j] = turnsMapped ? settings.turns.atStrand(s) : plainTurns;
                }
                if (alike && lastEnd < inputPoints.size()) {
                    if (!twistFour(from4, to4, n, axes4, turns4,
                                   flatProfile ? nullptr : &settings.profile)) {
                        for (std::size_t j = 0; j < 4; ++j)
                            twistOne(selection.strand(i + j));
                    }
                    i += 4;
                    continue;
                }
            }
#endif
            twistOne(selection.strand(i));
            ++i;
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
