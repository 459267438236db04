// The clumps' axes as tables of 32 samples and the shape step that pulls strands onto them, or
// pushes strands away from them for a parting; and the levels of Wet.

#include <algorithm>
#include <cmath>
#include <numbers>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/clump.h"

namespace velmorin {
namespace {

constexpr std::size_t kSamples = ClumpAxisTable::kSamples;
constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;
// Salts the seed of the per-clump draws apart from the per-strand ones, which a picked center's own
// strand would otherwise share.
constexpr std::uint64_t kClumpDraws = 0x636c756d70647261ull;

// 32 samples at equal arcs along `curve` into `out`; a curve of one point (or none: `root`) is a
// point.
void sampleAxis(std::span<const Vec3f> curve, const Vec3f& root, std::vector<float>& arcs,
                Vec3f* out) {
    if (curve.size() < 2) {
        std::fill(out, out + kSamples, curve.empty() ? root : curve[0]);
        return;
    }
    arcs.resize(curve.size());
    const float total = arcLengths(curve, arcs);
    std::size_t segment = 0;
    for (std::size_t k = 0; k < kSamples; ++k)
        out[k] = pointAtArc(curve, arcs, total * static_cast<float>(k) / (kSamples - 1), segment);
}

void axisArcs(const Vec3f* points, float* arcs) {
    arcs[0] = 0.0f;
    for (std::size_t k = 1; k < kSamples; ++k)
        arcs[k] = arcs[k - 1] + length(points[k] - points[k - 1]);
}

// Where a walk along an axis stands: the sample before it and the share of the way to the next.
struct AxisAt {
    std::size_t segment = 0;
    float f = 0.0f;
};

// Walks forward from `at` to arc `s` (clamped to the axis), so that increasing arcs cost one pass.
void walkAxis(const float* arcs, float s, AxisAt& at) {
    s = std::clamp(s, 0.0f, arcs[kSamples - 1]);
    while (at.segment + 2 < kSamples && arcs[at.segment + 1] < s)
        ++at.segment;
    const float span = arcs[at.segment + 1] - arcs[at.segment];
    at.f = span > 0.0f ? std::clamp((s - arcs[at.segment]) / span, 0.0f, 1.0f) : 0.0f;
}

// What the shape step reads of one center, made once per run.
struct CenterRun {
    float escape = 1.0f;  // its share of the strength
    float radius = 0.0f;  // its lock radius
    float thinN = 1.0f;   // the ribbon's thin direction in the frame's normal and binormal
    float thinB = 0.0f;
    Vec3f tangent0;            // the axis's way at its root
    Vec3f normal0, binormal0;  // the frame at its root
    Vec3f skin;                // the way out of the skin at its root
    Vec3f lastWay;             // the axis's way at its tip
};

}  // namespace

Vec3f centerAlong(const ClumpAxisTable& axes, std::size_t c, float t) {
    const float x = std::clamp(t, 0.0f, 1.0f) * static_cast<float>(kSamples - 1);
    const std::size_t i = std::min(static_cast<std::size_t>(std::floor(x)), kSamples - 2);
    const Vec3f* p = axes.points.data() + c * kSamples;
    return lerp(p[i], p[i + 1], x - static_cast<float>(i));
}

bool clumpNeedsFrames(const ClumpSettings& settings) {
    return settings.lockRadius > 0.0f || settings.flatness > 0.0f;
}

ClumpAxisTable clumpAxisTable(const CenterPlan& plan, const StrandSet& strands,
                              const CenterCurves* curves, float copyAmount, bool frames) {
    ClumpAxisTable table;
    const std::size_t centers = plan.size();
    table.centers = centers;
    table.points.resize(centers * kSamples);
    table.arcs.resize(centers * kSamples);
    parallelRange(0, centers, 256, [&](std::size_t begin, std::size_t end) {
        std::vector<float> arcs;
        for (std::size_t c = begin; c < end; ++c) {
            std::span<const Vec3f> curve;
            if (plan.axisStrand[c] != CenterPlan::kNone)
                curve = strands.strandPoints(plan.axisStrand[c]);
            else if (curves && plan.chosen[c] < curves->size())
                curve = curves->curves[plan.chosen[c]];
            sampleAxis(curve, plan.roots[c], arcs, table.points.data() + c * kSamples);
        }
    });
    if (copyAmount > 0.0f && centers > 1) {
        // Each axis takes on a share of its neighbours' mean shape, measured from their roots.
        std::vector<Vec3f> shared(table.points.size());
        parallelRange(0, centers, 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                const Vec3f* own = table.points.data() + c * kSamples;
                const std::uint32_t* list = plan.neighbors.data() + c * CenterPlan::kNeighbors;
                for (std::size_t k = 0; k < kSamples; ++k) {
                    Vec3f mean;
                    int used = 0;
                    for (int n = 0; n < CenterPlan::kNeighbors; ++n) {
                        if (list[n] == c) continue;
                        const Vec3f* other = table.points.data() + list[n] * kSamples;
                        mean += other[k] - other[0];
                        ++used;
                    }
                    Vec3f& out = shared[c * kSamples + k];
                    out = own[k];
                    if (used > 0)
                        out += (mean / static_cast<float>(used) - (own[k] - own[0])) * copyAmount;
                }
            }
        });
        table.points = std::move(shared);
    }
    parallelRange(0, centers, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c)
            axisArcs(table.points.data() + c * kSamples, table.arcs.data() + c * kSamples);
    });
    if (frames) {
        table.normals.resize(centers * kSamples);
        table.tangents.resize(centers * kSamples);
        parallelRange(0, centers, 256, [&](std::size_t begin, std::size_t end) {
            SegmentFrame segmentFrames[kSamples - 1];
            for (std::size_t c = begin; c < end; ++c) {
                transportFrames(table.axisPoints(c), segmentFrames, plan.normals[c]);
                for (std::size_t k = 0; k < kSamples; ++k) {
                    const SegmentFrame& frame = segmentFrames[std::min(k, kSamples - 2)];
                    table.tangents[c * kSamples + k] = frame.tangent;
                    table.normals[c * kSamples + k] = frame.normal;
                }
            }
        });
    }
    return table;
}

void clumpStrands(const StrandSet& input, const CenterPlan& plan, const ClumpAxisTable& axes,
                  const ClumpSettings& settings, const StrandSelection& selection,
                  std::span<Vec3f> out) {
    const std::size_t centers = plan.size();
    const std::span<const std::uint64_t> ids = input.ids();
    const bool framed = axes.hasFrames();

    // Per center: its draws and its frame at the root.
    std::vector<CenterRun> runs(centers);
    parallelRange(0, centers, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            CenterRun& run = runs[c];
            StrandDraws draws(plan.ids[c], hashCombine(settings.seed, kClumpDraws));
            run.escape = 1.0f - settings.strengthRandom * draws.next();
            run.radius =
                settings.lockRadius * (1.0f + settings.lockRadiusRandom * draws.nextSigned());
            const float turn = kTwoPi * draws.next();
            const Vec3f* p = axes.points.data() + c * kSamples;
            Vec3f way;
            for (std::size_t k = 0; k + 1 < kSamples && lengthSquared(way) == 0.0f; ++k)
                way = normalized(p[k + 1] - p[k]);
            if (lengthSquared(way) == 0.0f)
                way = lengthSquared(plan.normals[c]) > 0.0f ? plan.normals[c] : Vec3f{0, 1, 0};
            run.tangent0 = framed ? axes.tangents[c * kSamples] : way;
            run.normal0 = framed ? axes.normals[c * kSamples] : anyPerpendicular(run.tangent0);
            run.binormal0 = cross(run.tangent0, run.normal0);
            run.skin = lengthSquared(plan.normals[c]) > 0.0f ? plan.normals[c] : run.tangent0;
            run.lastWay = run.tangent0;
            for (std::size_t k = kSamples - 1; k > 0; --k) {
                const Vec3f last = p[k] - p[k - 1];
                if (lengthSquared(last) > 0.0f) {
                    run.lastWay = normalized(last);
                    break;
                }
            }
            // The ribbon's thin direction, as components in the frame at the root.
            Vec3f thin;
            switch (settings.flatAlong) {
                case FlatAlong::Surface:
                    thin = lengthSquared(plan.normals[c]) > 0.0f ? plan.normals[c] : run.normal0;
                    break;
                case FlatAlong::Random:
                    thin = run.normal0 * std::cos(turn) + run.binormal0 * std::sin(turn);
                    break;
                case FlatAlong::Direction:
                    thin = cross(run.tangent0, settings.flatDirection);
                    break;
            }
            const float n = dot(thin, run.normal0), b = dot(thin, run.binormal0);
            const float size = std::sqrt(n * n + b * b);
            run.thinN = size < 1e-6f ? 1.0f : n / size;
            run.thinB = size < 1e-6f ? 0.0f : b / size;
        }
    });

    const bool strengthMapped = settings.strength.isMapped();
    const float plainStrength = settings.strength.value();
    const bool volumizeMapped = settings.volumize.isMapped();
    const float plainVolumize = settings.volumize.value();
    const bool extend = settings.pastTip == PastTip::Extend;
    const float repelRadius = settings.repelRadius;

    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        std::vector<float> arcs;
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            const std::size_t n = points.size();
            Vec3f* to = out.data() + begin;
            std::copy(points.begin(), points.end(), to);
            const std::int32_t center = plan.centerOf[s];
            if (n < 2 || center < 0) continue;
            const auto c = static_cast<std::size_t>(center);
            const CenterRun& run = runs[c];
            arcs.resize(n);
            const float total = arcLengths(points, arcs);
            if (!(total > 0.0f)) continue;

            StrandDraws draws(ids[s], settings.seed);
            const float escape = run.escape * (1.0f - settings.strandStrengthRandom * draws.next());
            // The lock fills evenly: a square-root share of the radius, at an angle of its own.
            const float share = std::sqrt(draws.next());
            const float lockAngle = kTwoPi * draws.next();
            const float sideAngle = kTwoPi * draws.next();
            const float lockRadius = run.radius * share;
            float lockN = 0.0f, lockB = 0.0f;
            if (lockRadius > 0.0f) {
                lockN = lockRadius * std::cos(lockAngle);
                lockB = lockRadius * std::sin(lockAngle);
            }
            const float volumize = volumizeMapped ? settings.volumize.atStrand(s) : plainVolumize;

            const Vec3f* axis = axes.points.data() + c * kSamples;
            const float* axisArc = axes.arcs.data() + c * kSamples;
            const Vec3f* tangents = framed ? axes.tangents.data() + c * kSamples : nullptr;
            const Vec3f* normals = framed ? axes.normals.data() + c * kSamples : nullptr;
            const float axisLength = axisArc[kSamples - 1];
            AxisAt at;
            bool repelled = false;
            for (std::size_t k = 1; k < n; ++k) {
                const float arc = arcs[k];
                const float t = arc / total;
                const float raw =
                    (strengthMapped ? settings.strength.atPoint(s, k) : plainStrength) * escape *
                    settings.profile.at(t);
                const float v = volumize == 0.0f ? 0.0f : volumize * settings.volumizeProfile.at(t);
                const bool repels = raw < 0.0f && repelRadius > 0.0f;
                if (!(raw > 0.0f) && !repels && v == 0.0f) continue;
                walkAxis(axisArc, arc, at);
                const std::size_t j = at.segment;
                const Vec3f onAxis = lerp(axis[j], axis[j + 1], at.f);
                // The way along the axis, only where something reads it.
                Vec3f tangent = run.tangent0;
                if (framed || repels || v != 0.0f)
                    tangent = normalized(axis[j + 1] - axis[j], run.tangent0);
                Vec3f normal, binormal;
                if (framed) {
                    tangent = normalized(lerp(tangents[j], tangents[j + 1], at.f), tangent);
                    normal = lerp(normals[j], normals[j + 1], at.f);
                    normal = normal - tangent * dot(normal, tangent);
                    normal = lengthSquared(normal) < 1e-12f ? anyPerpendicular(tangent)
                                                            : normalized(normal);
                    binormal = cross(tangent, normal);
                }
                const float beyond = std::max(0.0f, arc - axisLength);
                // Past the axis's tip a point gathers at it, or goes on along its last way.
                const Vec3f axisPoint =
                    extend && beyond > 0.0f ? onAxis + run.lastWay * beyond : onAxis;
                Vec3f p = to[k];
                if (raw > 0.0f) {
                    const float w = std::min(raw, 1.0f);
                    Vec3f target = axisPoint;
                    if (lockRadius > 0.0f) target += normal * lockN + binormal * lockB;
                    p += (target - p) * w;
                    if (settings.flatness > 0.0f) {
                        const Vec3f thin = normal * run.thinN + binormal * run.thinB;
                        const Vec3f offset = p - axisPoint;
                        p -= thin * (dot(offset, thin) * settings.flatness * w);
                    }
                }
                if (v != 0.0f) {
                    const Vec3f offset = p - axisPoint;
                    const Vec3f along = tangent * dot(offset, tangent);
                    p = axisPoint + along + (offset - along) * (1.0f + v);
                }
                if (repels) {
                    // Measured from the axis at the same arc, held to its tip.
                    const Vec3f d = p - onAxis;
                    const Vec3f across = d - tangent * dot(d, tangent);
                    const float reach = std::sqrt(lengthSquared(across) + beyond * beyond);
                    if (reach < 2.0f * repelRadius) {
                        Vec3f side = points[0] - plan.roots[c];
                        side = side - run.tangent0 * dot(side, run.tangent0);
                        const float sideLength = length(side);
                        // Near the axis the root's own side is no guide: a per-strand angle is.
                        side = sideLength > 0.01f * repelRadius
                                   ? side / sideLength
                                   : run.normal0 * std::cos(sideAngle) +
                                         run.binormal0 * std::sin(sideAngle);
                        Vec3f way = across + side * (0.01f * repelRadius);
                        const float out = dot(way, run.skin);
                        way -= run.skin * (out < 0.0f ? out : out * (1.0f - t));
                        way = normalized(way, side);
                        const float x = 0.5f * reach / repelRadius;
                        p += way * (std::min(-raw, 1.0f) * repelRadius * (1.0f - x) * (1.0f - x) *
                                    (1.0f + x));
                        repelled = true;
                    }
                }
                to[k] = p;
            }
            if (repelled) {
                // Every segment back to its incoming length, from the root out.
                for (std::size_t k = 1; k < n; ++k) {
                    const Vec3f incoming = points[k] - points[k - 1];
                    const Vec3f now = to[k] - to[k - 1];
                    const float size = length(now);
                    to[k] = size < 1e-12f ? to[k - 1] + incoming
                                          : to[k - 1] + now * (length(incoming) / size);
                }
            }
        }
    });
}

std::vector<WetLevel> wetLevels(float wetness, float clumpSize, int levels, std::int64_t seed) {
    std::vector<WetLevel> made;
    const float w = std::clamp(wetness, 0.0f, 1.0f);
    for (int l = 0; l < levels; ++l) {
        WetLevel level;
        level.size = clumpSize / std::ldexp(1.0f, levels - 1 - l);
        // Tighter the wetter: 0 dry, 1 soaked.
        level.strength = w * (0.5f + 0.5f * w);
        // Each level starts its pull a share along the length, the smallest nearest the root, and
        // a wetter groom starts every level nearer the root; the pull rises over a fifth of the
        // length after its start.
        const float place = static_cast<float>(l + 1) / static_cast<float>(levels + 1);
        const float start = place * (1.0f - 0.8f * w);
        const float full = std::min(1.0f, start + 0.2f);
        level.profile.linear = true;
        level.profile.keys = {{0.0f, 0.0f, 0.0f}, {start, 0.0f, 0.0f}, {full, 1.0f, 0.0f}};
        if (full < 1.0f) level.profile.keys.push_back({1.0f, 1.0f, 0.0f});
        level.seed = static_cast<std::int64_t>(
            hashCombine(static_cast<std::uint64_t>(seed), static_cast<std::uint64_t>(l)) >> 1);
        made.push_back(std::move(level));
    }
    return made;
}

std::string wetLevelChannel(const std::string& channel, int halvings) {
    const std::string name = channel.empty() ? std::string("__wetClump") : channel;
    return halvings == 0 ? name : name + std::to_string(halvings);
}

}  // namespace velmorin
