#include "ops/interpolate_tubes.h"

#include <algorithm>
#include <cmath>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/guide_curves.h"
#include "editing/tube_shapes.h"
#include "mesh/scalp_mesh.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

constexpr float kDegrees = 3.14159265358979f / 180.0f;
constexpr std::size_t kMaxSamples = 64;
// The share of a rider's length over which the gap between its root and its place in the root
// section closes: a tube's footprint on the skin and its section differ where the tube leans.
constexpr float kRootGapFade = 0.25f;

// `v` turned by the shortest rotation that takes unit `from` onto unit `to`.
Vec3f turned(const Vec3f& v, const Vec3f& from, const Vec3f& to) {
    const float c = dot(from, to);
    if (c > 0.999999f) return v;
    if (c < -0.999999f) {
        const Vec3f k = axisPerpendicular(from);
        return k * (2.0f * dot(k, v)) - v;
    }
    const Vec3f k = cross(from, to);
    return v * c + cross(k, v) + k * (dot(k, v) / (1.0f + c));
}

std::uint64_t hashTube(std::uint64_t h, const Guide& guide) {
    h = hashCombine(h, guide.id);
    for (const Vec3f& p : guide.points)
        for (const float f : {p.x, p.y, p.z})
            h = hashCombine(h, floatBits(f));
    for (const float f : {guide.frameUp.x, guide.frameUp.y, guide.frameUp.z})
        h = hashCombine(h, floatBits(f));
    h = hashText(h, tubeShapeNameOf(guide.tube));
    for (const TubePoint& point : tubeOutline(guide.tube)) {
        h = hashCombine(h, floatBits(point.x));
        h = hashCombine(h, floatBits(point.y));
    }
    for (const std::vector<float>* list :
         {&guide.tube.width, &guide.tube.aspect, &guide.tube.twist}) {
        h = hashCombine(h, list->size());
        for (const float f : *list)
            h = hashCombine(h, floatBits(f));
    }
    return h;
}

// The influence of limitDistance on a strand, as the shape stage weighs it.
float influenceOf(const ShapeSettings& settings, float nearest2) {
    if (settings.limitDistance <= 0.0f) return 1.0f;
    const float t = std::sqrt(nearest2) / settings.limitDistance;
    if (t >= 1.0f || !(t == t)) return 0.0f;
    return std::clamp(settings.falloff.at(t), 0.0f, 1.0f) * std::min((1.0f - t) * 20.0f, 1.0f);
}

template <class Body>
void forListed(std::size_t strandCount, std::span<const std::uint64_t> only, const Body& body) {
    const std::size_t count = only.empty() ? strandCount : only.size();
    parallelRange(0, count, kBindingChunkStrands, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            body(only.empty() ? i : static_cast<std::size_t>(only[i]));
    });
}

}  // namespace

std::shared_ptr<const TubeGuides> makeTubeGuides(std::span<const Guide* const> guides,
                                                 const ScalpMesh* scalp, std::size_t sampleCount,
                                                 float tubeBlend) {
    auto made = std::make_shared<TubeGuides>();
    TubeGuides& tubes = *made;
    const std::size_t samples = std::clamp<std::size_t>(sampleCount, 2, kMaxSamples);
    tubes.sampleCount = samples;
    tubes.tubeBlend = std::isfinite(tubeBlend) ? std::clamp(tubeBlend, 0.0f, 1.0f) : 0.0f;
    tubes.tubeOf.assign(guides.size(), -1);
    tubes.hashes.assign(guides.size(), 0);
    for (std::size_t g = 0; g < guides.size(); ++g) {
        tubes.hashes[g] = hashTube(0x7475626573ull, *guides[g]);
        if (guides[g]->points.size() < 2 || isEmptyTube(guides[g]->tube)) continue;
        if (!(tubeValuesAt(guides[g]->tube, 0.0f).width > 1e-12f)) continue;
        tubes.tubeOf[g] = static_cast<std::int32_t>(tubes.guideOf.size());
        tubes.guideOf.push_back(static_cast<std::uint32_t>(g));
    }
    const std::size_t count = tubes.guideOf.size();
    tubes.origin.resize(count);
    tubes.footSide.resize(count);
    tubes.footUp.resize(count);
    tubes.footNormal.resize(count);
    tubes.width.resize(count);
    tubes.aspect.resize(count);
    tubes.cosTwist.resize(count);
    tubes.sinTwist.resize(count);
    tubes.reach.resize(count);
    tubes.sections.resize(count);
    tubes.lengths.resize(count);
    tubes.centres.resize(count * samples);
    tubes.across.resize(count * samples);
    tubes.upward.resize(count * samples);
    parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> points;
        std::vector<CurveFrame> frames;
        for (std::size_t t = begin; t < end; ++t) {
            const Guide& guide = *guides[tubes.guideOf[t]];
            resampleByArcLength(guide.points, samples, points);
            transportFrames(points, guide.frameUp, frames);
            tubes.sections[t] = guide.tube;
            tubes.lengths[t] = polylineLength(guide.points);
            for (std::size_t j = 0; j < samples; ++j) {
                const TubeValues values = tubeValuesAt(
                    guide.tube, static_cast<float>(j) / static_cast<float>(samples - 1));
                const float c = std::cos(values.twist * kDegrees);
                const float s = std::sin(values.twist * kDegrees);
                const float height = values.width * values.aspect;
                const CurveFrame& f = frames[j];
                // The follow rule of child guides: x scaled by the width, y by the width and the
                // aspect, then turned by the twist.
                tubes.centres[t * samples + j] = points[j];
                tubes.across[t * samples + j] = (f.side * c + f.up * s) * values.width;
                tubes.upward[t * samples + j] = (f.up * c - f.side * s) * height;
            }
            // The root section laid on the skin: the frame turned from the guide's first direction
            // onto the normal under its root (an unbound guide's section stays across it).
            // The guide's own first segment, not the resampled one, so that an edit past it keeps
            // every strand's place in the section.
            const Vec3f tangent = firstDirection(guide.points);
            const Vec3f up = perpendicularUp(guide.frameUp, tangent);
            const Vec3f side = cross(up, tangent);
            Vec3f normal = tangent;
            if (scalp && scalp->isOnSurface(guide.root)) normal = scalp->normalAt(guide.root);
            tubes.origin[t] = points[0];
            tubes.footSide[t] = turned(side, tangent, normal);
            tubes.footUp[t] = turned(up, tangent, normal);
            tubes.footNormal[t] = normal;
            const TubeValues values = tubeValuesAt(guide.tube, 0.0f);
            tubes.width[t] = values.width;
            tubes.aspect[t] = values.aspect;
            tubes.cosTwist[t] = std::cos(values.twist * kDegrees);
            tubes.sinTwist[t] = std::sin(values.twist * kDegrees);
            // The section lies in its unit square; the soft edge reaches past it.
            tubes.reach[t] = values.width *
                             (std::max(1.0f, values.aspect) * 1.41421357f + tubes.tubeBlend) *
                             1.001f;
        }
    });
    for (std::size_t t = 0; t < count; ++t)
        tubes.greatestReach = std::max(tubes.greatestReach, tubes.reach[t]);
    if (count > 0) tubes.tree = PointTree(tubes.origin);
    return made;
}

std::shared_ptr<const TubeBinding> bindTubes(std::shared_ptr<const TubeGuides> tubesIn,
                                             const TubeTestInputs& inputs) {
    auto made = std::make_shared<TubeBinding>();
    TubeBinding& binding = *made;
    const TubeGuides& tubes = *tubesIn;
    binding.tubes = std::move(tubesIn);
    const std::size_t strandCount = inputs.strandRoots.size();
    binding.guide.assign(strandCount, -1);
    binding.riding.assign(strandCount, 0);
    binding.u.assign(strandCount, 0.0f);
    binding.v.assign(strandCount, 0.0f);
    binding.share.assign(strandCount, 0.0f);
    // A strand keeps to the tubes of its region where guides are rooted in its colour.
    std::vector<std::int32_t> guideRegions;
    for (const std::int32_t label : inputs.guideLabels)
        if (label >= 0) guideRegions.push_back(label);
    std::sort(guideRegions.begin(), guideRegions.end());
    const bool useParts = inputs.parts && !inputs.strandNormals.empty();
    if (tubes.tubeCount() > 0) {
        parallelRange(
            0, strandCount, kBindingChunkStrands, [&](std::size_t begin, std::size_t end) {
                std::vector<std::uint32_t> near;
                for (std::size_t s = begin; s < end; ++s) {
                    const Vec3f root = inputs.strandRoots[s];
                    if (!std::isfinite(root.x) || !std::isfinite(root.y) || !std::isfinite(root.z))
                        continue;
                    std::int32_t region = -1;
                    if (!inputs.strandLabels.empty() && inputs.strandLabels[s] >= 0 &&
                        std::binary_search(guideRegions.begin(), guideRegions.end(),
                                           inputs.strandLabels[s]))
                        region = inputs.strandLabels[s];
                    near.clear();
                    tubes.tree.within(root, tubes.greatestReach, near);
                    // The tree answers in no order: tests go by tube so that ties fall the same
                    // way.
                    std::sort(near.begin(), near.end());
                    float deepest = 0.0f, nearestGap = kInfiniteDistance;
                    std::int32_t inside = -1, leaning = -1;
                    TubePoint insideAt, leaningAt;
                    float leaningDistance = 0.0f;
                    for (const std::uint32_t t : near) {
                        const std::uint32_t g = tubes.guideOf[t];
                        if (region >= 0 && inputs.guideLabels[g] != region) continue;
                        const Vec3f d = root - tubes.origin[t];
                        const float reach = tubes.reach[t];
                        if (lengthSquared(d) > reach * reach) continue;
                        // A footprint lies on the skin: a root far off its plane is elsewhere.
                        if (std::fabs(dot(d, tubes.footNormal[t])) > reach) continue;
                        if (useParts && inputs.parts->divides(root, inputs.guideRoots[g],
                                                              inputs.strandNormals[s]))
                            continue;
                        const float a = dot(d, tubes.footSide[t]), b = dot(d, tubes.footUp[t]);
                        const TubePoint at{
                            (a * tubes.cosTwist[t] + b * tubes.sinTwist[t]) / tubes.width[t],
                            (-a * tubes.sinTwist[t] + b * tubes.cosTwist[t]) /
                                (tubes.width[t] * tubes.aspect[t])};
                        const float distance = tubeSectionDistance(tubes.sections[t], at);
                        if (distance <= 0.0f) {
                            if (inside < 0 || -distance > deepest) {
                                inside = static_cast<std::int32_t>(g);
                                deepest = -distance;
                                insideAt = at;
                            }
                        } else if (distance < tubes.tubeBlend) {
                            // Nearest by the gap in the guide's units, not in section units.
                            const float gap = distance * tubes.width[t];
                            if (gap < nearestGap) {
                                nearestGap = gap;
                                leaning = static_cast<std::int32_t>(g);
                                leaningAt = at;
                                leaningDistance = distance;
                            }
                        }
                    }
                    if (inside >= 0) {
                        binding.guide[s] = inside;
                        binding.riding[s] = 1;
                        binding.u[s] = insideAt.x;
                        binding.v[s] = insideAt.y;
                        binding.share[s] = 1.0f;
                    } else if (leaning >= 0) {
                        binding.guide[s] = leaning;
                        binding.u[s] = leaningAt.x;
                        binding.v[s] = leaningAt.y;
                        binding.share[s] = 1.0f - leaningDistance / tubes.tubeBlend;
                    }
                }
            });
    }
    std::uint64_t riders = 0x72696465ull, all = hashCombine(0x7475626573ull, strandCount);
    for (std::size_t s = 0; s < strandCount; ++s) {
        if (binding.guide[s] < 0) continue;
        if (binding.riding[s])
            riders =
                hashCombine(hashCombine(riders, s), static_cast<std::uint64_t>(binding.guide[s]));
        all = hashCombine(all, s);
        all =
            hashCombine(all, static_cast<std::uint64_t>(binding.guide[s]) << 1 | binding.riding[s]);
        for (const float f : {binding.u[s], binding.v[s], binding.share[s]})
            all = hashCombine(all, floatBits(f));
    }
    binding.ridersHash = riders;
    binding.hash = hashCombine(all, riders);
    return made;
}

void rideTubes(const InterpolateState& state, const TubeBinding& binding,
               const ShapeSettings& settings, const StrandSet& in, std::span<Vec3f> outPoints,
               std::span<const std::uint64_t> only) {
    const TubeGuides& tubes = *binding.tubes;
    const std::size_t samples = tubes.sampleCount;
    if (tubes.tubeCount() == 0 || samples < 2) return;
    const std::span<const Vec3f> points = in.points();
    const std::span<const std::uint64_t> offsets = in.offsets();
    const std::size_t count = only.empty() ? binding.strandCount() : only.size();
    parallelRange(0, count, kBindingChunkStrands, [&](std::size_t begin, std::size_t end) {
        Vec3f curve[kMaxSamples];
        float arc[kMaxSamples];
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = only.empty() ? i : static_cast<std::size_t>(only[i]);
            const std::int32_t g = binding.guide[s];
            const std::size_t first = offsets[s], n = offsets[s + 1] - first;
            if (g < 0 || n < 2) continue;
            const BindingChunk& chunk = *state.binding.chunks[s / kBindingChunkStrands];
            const float amount = influenceOf(settings, chunk.nearest2[s - chunk.firstStrand]);
            if (amount <= 0.0f) continue;
            const auto t = static_cast<std::size_t>(tubes.tubeOf[static_cast<std::size_t>(g)]);
            const std::span<const Vec3f> incoming = points.subspan(first, n);
            const std::span<Vec3f> out = outPoints.subspan(first, n);
            const Vec3f root = incoming[0];
            // The strand's place in the section at every sample, the root's gap closing early.
            const float u = binding.u[s], v = binding.v[s];
            const Vec3f* centres = tubes.centres.data() + t * samples;
            const Vec3f* across = tubes.across.data() + t * samples;
            const Vec3f* upward = tubes.upward.data() + t * samples;
            const Vec3f gap = root - (centres[0] + across[0] * u + upward[0] * v);
            arc[0] = 0.0f;
            for (std::size_t j = 0; j < samples; ++j) {
                const float at = static_cast<float>(j) / static_cast<float>(samples - 1);
                const float fade = 1.0f - std::min(at / kRootGapFade, 1.0f);
                curve[j] = centres[j] + across[j] * u + upward[j] * v + gap * (fade * fade);
                if (j > 0) arc[j] = arc[j - 1] + length(curve[j] - curve[j - 1]);
            }
            const float share = binding.riding[s] ? 1.0f : binding.share[s];
            const std::span<const Vec3f> line(curve, samples);
            // The ride at its guide's length, or where the tube ends if that comes first (a
            // place inside a bend or a twist runs shorter or longer than the guide), each point
            // mixed in as the shape stage mixes.
            const float total = std::min(tubes.lengths[t], arc[samples - 1]);
            const std::size_t last = samples - 1;
            std::size_t past = 0;
            for (std::size_t k = 0; k < n; ++k) {
                const float along = total * static_cast<float>(k) / static_cast<float>(n - 1);
                while (past < samples && arc[past] <= along)
                    ++past;
                const std::size_t hi = std::clamp<std::size_t>(past, 1, last);
                const std::size_t lo = hi - 1;
                const float span = arc[hi] - arc[lo];
                const float f = span > 0.0f ? (along - arc[lo]) / span : 0.0f;
                Vec3f ride = line[lo] + (line[hi] - line[lo]) * f;
                if (amount < 1.0f) ride = incoming[k] + (ride - incoming[k]) * amount;
                out[k] = share >= 1.0f ? ride : out[k] + (ride - out[k]) * share;
            }
            out[0] = root;
        }
    });
}

void writeTubeChannels(const TubeBinding& binding, StrandSet& out,
                       std::span<const std::uint64_t> only) {
    std::vector<float>& ids = out.addStrandChannel(std::string(channels::kTubeId), -1.0f);
    std::vector<float>& us = out.addStrandChannel(std::string(channels::kTubeU), 0.0f);
    std::vector<float>& vs = out.addStrandChannel(std::string(channels::kTubeV), 0.0f);
    forListed(binding.strandCount(), only, [&](std::size_t s) {
        const bool rides = binding.riding[s] != 0;
        ids[s] = rides ? static_cast<float>(binding.guide[s]) : -1.0f;
        us[s] = rides ? binding.u[s] : 0.0f;
        vs[s] = rides ? binding.v[s] : 0.0f;
    });
}

std::vector<std::uint64_t> addTubeStrands(const TubeBinding& binding,
                                          std::span<const std::uint8_t> changed,
                                          std::vector<std::uint64_t> strands) {
    std::vector<std::uint64_t> more;
    for (std::size_t s = 0; s < binding.strandCount(); ++s) {
        const std::int32_t g = binding.guide[s];
        if (g >= 0 && changed[static_cast<std::size_t>(g)]) more.push_back(s);
    }
    if (more.empty()) return strands;
    std::vector<std::uint64_t> joined;
    joined.reserve(strands.size() + more.size());
    std::set_union(strands.begin(), strands.end(), more.begin(), more.end(),
                   std::back_inserter(joined));
    return joined;
}

}  // namespace velmorin
