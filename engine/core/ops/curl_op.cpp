#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>

#include "base/fast_trig.h"
#include "base/float_lanes.h"
#include "base/parallel.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"

namespace velmorin {

namespace {

constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;

// How many turns one knot of the spacing noise spans: the frequency varies every turn or two.
constexpr float kTurnsPerSpacingKnot = 1.5f;
constexpr float kSpacingKnotsPerTurn = 1.0f / kTurnsPerSpacingKnot;

// floor(x) for |x| below 2^62, without a library call: the spacing noise reads it once per point
// on the chain that carries the turn from one point to the next.
float floorOf(float x) {
    const auto whole = static_cast<float>(static_cast<std::int64_t>(x));
    return whole > x ? whole - 1.0f : whole;
}

float smoothstep01(float x) {
    x = std::clamp(x, 0.0f, 1.0f);
    return x * x * (3.0f - 2.0f * x);
}

// A smooth signed noise of one variable, -1 to 1: random knots one apart, eased between. It is read
// at a rising x along a strand, so the two knots around x are kept and hashed again only when x
// passes into the next cell.
class SpacingNoise {
  public:
    explicit SpacingNoise(std::uint64_t hash = 0) : hash_(hash) {}
    float at(float x) {
        const float cell = floorOf(x);
        moveTo(cell);
        return a_ + (b_ - a_) * smoothstep01(x - cell);
    }
    // What at() does before it eases between the knots: keeps the two around `cell`, floorOf of
    // where the noise is read. For a caller that eases between before() and after() itself.
    void moveTo(float cell) {
        const auto knot = static_cast<std::int64_t>(cell);
        if (knot != knot_) {
            // Moving on by one cell, the knot ahead becomes the one behind: one hash, not two.
            a_ = knot == knot_ + 1 ? b_ : knotValue(knot);
            b_ = knotValue(knot + 1);
            knot_ = knot;
        }
    }
    float before() const { return a_; }
    float after() const { return b_; }

  private:
    float knotValue(std::int64_t knot) const {
        return 2.0f * unitFloat(hashCombine(hash_, static_cast<std::uint64_t>(knot))) - 1.0f;
    }
    std::uint64_t hash_;
    std::int64_t knot_ = std::numeric_limits<std::int64_t>::min();
    float a_ = 0.0f;
    float b_ = 0.0f;
};

// A triangle wave of the turn u (in turns): 0 at 0, 1 at a quarter, -1 at three quarters, like a
// sine but with sharp corners.
float triangleWave(float u) {
    const float shifted = u + 0.75f;
    return 4.0f * std::abs(shifted - floorOf(shifted) - 0.5f) - 1.0f;
}

// What a strand (or its clump) draws: a strand's own id, or with clump coherence its clump's
// channel value, so that every strand of a clump draws alike.
struct CurlDraws {
    float frequencyScale = 1.0f;
    float phaseTurns = 0.0f;
    float planeTurns = 0.0f;  // the turn of a wave's or zigzag's plane about the axis
    std::uint64_t spacingHash = 0;
};

// The seeds drawCurl hashes a strand's id with beyond the operator's own, made once per run, and
// which of the draws the run reads (a draw left out is never read, so leaving it out changes
// nothing).
struct CurlSeeds {
    explicit CurlSeeds(const CurlSettings& settings)
        : spacing(hashCombine(settings.seed, 0x73706163696e67ull)),
          radius(hashCombine(settings.seed, 1)),
          planar(settings.shape == CurlShape::Wave || settings.shape == CurlShape::Zigzag),
          spaced(settings.spacingRandom > 0.0f) {}
    std::uint64_t spacing;
    std::uint64_t radius;  // the radius's own draw, per strand even within a clump
    bool planar;
    bool spaced;
};

CurlDraws drawCurl(std::uint64_t id, const CurlSettings& settings, const CurlSeeds& seeds) {
    StrandDraws draws(id, settings.seed);
    CurlDraws out;
    out.frequencyScale = 1.0f + settings.randomness * draws.nextSigned();
    out.phaseTurns = settings.phase + settings.phaseRandom * draws.next();
    if (seeds.planar) out.planeTurns = draws.next();
    if (seeds.spaced) out.spacingHash = hashCombine(id, seeds.spacing);
    return out;
}

}  // namespace

bool curlIsIdle(const CurlSettings& settings) {
    const bool coil = settings.shape == CurlShape::Coil;
    return settings.frequency == 0.0f ||
           (!coil && !settings.radius.isMapped() && settings.radius.value() == 0.0f) ||
           (coil && settings.coilWidths == 0.0f);
}

namespace {

// The most parts one segment is cut into, however small the tolerance: a bound on the points a
// slider can ask for.
constexpr std::uint32_t kMostParts = 64;

// Fills parts[k] (k from 1) with how many equal parts segment k - 1 to k of strand `s` is cut
// into, and returns the strand's new point count. A chord turning by theta around a circle of
// radius r strays r (1 - cos(theta / 2)) from it, so a part may turn by at most
// 2 acos(1 - tolerance); the turn is bounded by the strand's frequency at the tightest of the
// segment's ends and middle, times the most the spacing's random adds (the weight only loosens).
std::size_t segmentParts(const StrandSet& input, const CurlSettings& settings,
                         const CurlSeeds& seeds, std::span<const Vec3f> points, std::size_t s,
                         float mostTurn, std::span<std::uint32_t> parts) {
    const std::size_t n = points.size();
    if (n < 2) return n;
    const float total = strandLength(points);
    std::uint64_t drawId = input.ids()[s];
    if (settings.clumps && settings.clumpChannel)
        drawId = mix64(floatBits((*settings.clumpChannel)[s]));
    const float frequency =
        std::fabs(settings.frequency * drawCurl(drawId, settings, seeds).frequencyScale) *
        (1.0f + settings.spacingRandom);
    std::size_t count = 1;
    float arc = 0.0f;
    for (std::size_t k = 1; k < n; ++k) {
        const float ds = length(points[k] - points[k - 1]);
        float tightest = 0.0f;
        if (total > 0.0f) {
            for (const float at : {arc, arc + 0.5f * ds, arc + ds})
                tightest = std::max(tightest, std::fabs(profileAt(settings.frequencyProfile,
                                                                  std::min(at / total, 1.0f))));
        }
        arc += ds;
        const float turn = kTwoPi * frequency * tightest * ds;
        const float wanted = std::ceil(turn / mostTurn);
        parts[k] =
            wanted > 1.0f
                ? static_cast<std::uint32_t>(std::min(wanted, static_cast<float>(kMostParts)))
                : 1u;
        count += parts[k];
    }
    return count;
}

// subdivideForCurl, which cuts `valuesIn` (one value per point of the input, where given) into
// `valuesOut` alike.
StrandSet cutForCurl(const StrandSet& input, const CurlSettings& settings,
                     const std::vector<float>* valuesIn, std::vector<float>* valuesOut) {
    if (valuesIn) *valuesOut = *valuesIn;
    if (!(settings.tolerance > 0.0f) || curlIsIdle(settings)) return input;
    const float mostTurn = 2.0f * std::acos(std::clamp(1.0f - settings.tolerance, -1.0f, 1.0f));
    const CurlSeeds seeds(settings);
    const std::size_t strandCount = input.strandCount();
    const std::span<const std::uint64_t> offsetsIn = input.offsets();
    const std::span<const Vec3f> pointsIn = input.points();
    std::vector<std::uint64_t> counts(strandCount);
    parallelRange(0, strandCount, 256, [&](std::size_t first, std::size_t last) {
        StrandScratch<std::uint32_t> scratch;
        for (std::size_t s = first; s < last; ++s) {
            const std::size_t n = offsetsIn[s + 1] - offsetsIn[s];
            counts[s] = segmentParts(input, settings, seeds, pointsIn.subspan(offsetsIn[s], n), s,
                                     mostTurn, scratch.take(n));
        }
    });
    StrandSet out(input);
    std::vector<std::uint64_t>& offsets = out.writeOffsets();
    for (std::size_t s = 0; s < strandCount; ++s)
        offsets[s + 1] = offsets[s] + counts[s];
    const std::size_t total = offsets.back();
    if (total == input.pointCount()) return input;

    // Every value of the new columns is written below: each is emptied before it grows, so that
    // nothing is copied into the larger array only to be overwritten.
    std::vector<Vec3f>& points = out.overwritePoints();
    points.clear();
    points.resize(total);
    const std::span<const float> widthsIn = input.widths();
    const bool hasWidths = widthsIn.size() == input.pointCount();
    std::vector<float>& widths = out.overwriteWidths();
    widths.clear();
    widths.resize(hasWidths ? total : 0);
    std::vector<const std::vector<float>*> channelsIn;
    std::vector<std::vector<float>*> channelsOut;
    for (const std::string& name : input.pointChannelNames()) {
        channelsIn.push_back(input.pointChannel(name));
        channelsOut.push_back(&out.addPointChannel(name, input.pointChannelDefault(name)));
        channelsOut.back()->clear();
        channelsOut.back()->resize(total);
    }
    if (valuesIn) {
        channelsIn.push_back(valuesIn);
        valuesOut->clear();
        valuesOut->resize(total);
        channelsOut.push_back(valuesOut);
    }
    parallelRange(0, strandCount, 256, [&](std::size_t first, std::size_t last) {
        StrandScratch<std::uint32_t> scratch;
        for (std::size_t s = first; s < last; ++s) {
            const std::size_t from = offsetsIn[s];
            const std::size_t n = offsetsIn[s + 1] - from;
            const std::span<std::uint32_t> parts = scratch.take(n);
            segmentParts(input, settings, seeds, pointsIn.subspan(from, n), s, mostTurn, parts);
            // Each value of the strand, cut alike: the old ones kept, the new ones on the line
            // between them.
            const auto cut = [&](auto read, auto write) {
                std::size_t to = offsets[s];
                if (n > 0) write(to++, read(from));
                for (std::size_t k = 1; k < n; ++k) {
                    const auto a = read(from + k - 1);
                    const auto b = read(from + k);
                    for (std::uint32_t j = 1; j < parts[k]; ++j)
                        write(to++,
                              a + (b - a) * (static_cast<float>(j) / static_cast<float>(parts[k])));
                    write(to++, b);
                }
            };
            cut([&](std::size_t i) { return pointsIn[i]; },
                [&](std::size_t i, const Vec3f& v) { points[i] = v; });
            if (hasWidths)
                cut([&](std::size_t i) { return widthsIn[i]; },
                    [&](std::size_t i, float v) { widths[i] = v; });
            for (std::size_t c = 0; c < channelsIn.size(); ++c)
                cut([&](std::size_t i) { return (*channelsIn[c])[i]; },
                    [&](std::size_t i, float v) { (*channelsOut[c])[i] = v; });
        }
    });
    return out;
}

// The strand's own line as the axis: arcs[k] from the root to point k, and inverse[k] one over the
// length of segment k to k + 1 (0 for a segment of no length), in one pass. Returns the length.
float ownAxisArcs(std::span<const Vec3f> points, std::span<float> arcs, std::span<float> inverse) {
    float total = 0.0f;
    arcs[0] = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k) {
        const float squared = lengthSquared(points[k] - points[k - 1]);
        const float segment = std::sqrt(squared);
        total += segment;
        arcs[k] = total;
        inverse[k - 1] = squared > 1e-24f ? 1.0f / segment : 0.0f;
    }
    return total;
}

// transportFrames along the strand itself, from the inverse lengths ownAxisArcs made, so that no
// segment's length is taken twice: the same two reflections from one direction to the next (across
// the plane square to their sum, then across the plane square to the new direction), folded into
// one map v + p (a . v) - q (w . v) made from the directions alone. What carries the normal from
// one segment to the next is then two dot products and two scaled additions, not a chain of them.
void ownAxisFrames(std::span<const Vec3f> points, std::span<const float> inverse,
                   std::span<SegmentFrame> frames) {
    constexpr std::size_t kRenormalizeEvery = 32;
    const std::size_t segments = points.size() - 1;
    Vec3f tangent{0, 1, 0};
    for (std::size_t j = 0; j < segments; ++j) {
        if (inverse[j] > 0.0f) {
            tangent = (points[j + 1] - points[j]) * inverse[j];
            break;
        }
    }
    Vec3f normal = anyPerpendicular(tangent);
    // Blocks of segments between the renormalizations, so that the call a renormalization may make
    // lies outside the loop that carries the normal (a call would push the normal out of
    // registers on every segment).
    for (std::size_t block = 0; block < segments; block += kRenormalizeEvery) {
        const std::size_t end = std::min(segments, block + kRenormalizeEvery);
        for (std::size_t j = block; j < end; ++j) {
            if (inverse[j] > 0.0f) {
                const Vec3f next = (points[j + 1] - points[j]) * inverse[j];
                const Vec3f sum = tangent + next;
                const float sumSquared = lengthSquared(sum);
                // Reversed on itself the strand has no smallest turn: the normal stays.
                if (sumSquared > 1e-12f) {
                    // The first reflection is v - sum (a . v) with a = sum * 2 / |sum|^2, the
                    // second x - next (2 next . x); together v + p (a . v) - q (next . v).
                    const Vec3f a = sum * (2.0f / sumSquared);
                    const Vec3f p = next * (2.0f * dot(next, sum)) - sum;
                    const Vec3f q = next * 2.0f;
                    normal = normal + p * dot(a, normal) - q * dot(next, normal);
                }
                tangent = next;
            }
            frames[j] = {tangent, normal, cross(tangent, normal)};
        }
        if (end < segments) {
            // Rounding drifts the normal over long strands; take it back.
            normal = normalized(normal - tangent * dot(normal, tangent), anyPerpendicular(tangent));
        }
    }
}

constexpr std::size_t kAxisSegments = ClumpAxes::kAxisPoints - 1;

// What one run of curlStrands holds for every strand it curls.
struct CurlRun {
    explicit CurlRun(const CurlSettings& settings) : settings(settings), seeds(settings) {}
    const CurlSettings& settings;
    CurlSeeds seeds;
    std::span<const std::uint64_t> ids;
    std::span<const std::uint64_t> offsets;
    std::span<const Vec3f> points;
    std::span<const float> widths;
    std::span<const SegmentFrame> clumpFrames;  // kAxisSegments per clump
    Vec3f pull;                                 // the weight's way, unit length
    float plainRadius = 0.0f;
    // The widest radius a turn can hold at a rate of one turn per unit and keep its length.
    float widest = 0.0f;
    bool byClump = false;
    bool coil = false;
    bool planar = false;
    bool weighted = false;
    bool flatFrequency = true;
    bool flatProfile = true;
    bool spaced = false;
    bool radiusMapped = false;
    Vec3f* out = nullptr;  // the points column written, in the input's layout
};

// What a strand draws and the axis it winds around, once its length is known.
struct StrandSetup {
    std::span<const Vec3f> axis;  // its clump's middle, or empty for its own line
    std::span<const float> axisArcs;
    const SegmentFrame* axisFrames = nullptr;  // the clump's, kAxisSegments of them
    bool ownAxis = true;
    float toAxis = 1.0f;  // from an arc along the strand to the arc at the same share of the axis
    CurlDraws draws;
    float radiusScale = 1.0f;
    float frequency = 0.0f;
    SinCos plane;  // the turn of a wave's or zigzag's plane about the axis
};

StrandSetup setUpStrand(const CurlRun& run, std::size_t s, float perTotal) {
    const CurlSettings& settings = run.settings;
    StrandSetup setup;
    std::uint64_t drawId = run.ids[s];
    if (run.byClump) {
        const std::uint32_t clump = settings.clumps->clumpOf[s];
        setup.axis = settings.clumps->axisPoints(clump);
        setup.axisArcs = settings.clumps->axisArcs(clump);
        setup.axisFrames = run.clumpFrames.data() + clump * kAxisSegments;
        drawId = mix64(floatBits((*settings.clumpChannel)[s]));
    }
    setup.ownAxis = setup.axis.empty() || !(setup.axisArcs.back() > 0.0f);
    setup.toAxis = setup.ownAxis ? 1.0f : setup.axisArcs.back() * perTotal;
    setup.draws = drawCurl(drawId, settings, run.seeds);
    // The radius varies by the strand's own draw even within a clump.
    StrandDraws own(run.ids[s], run.seeds.radius);
    setup.radiusScale = 1.0f + settings.randomness * own.nextSigned();
    setup.frequency = settings.frequency * setup.draws.frequencyScale;
    if (run.planar) setup.plane = sinCosTurns(setup.draws.planeTurns);
    return setup;
}

// One strand's values of a pass: value k at data[k * stride]; the stride is 1 for a strand made
// on its own and the lane count for strands made side by side.
struct Strided {
    const float* data;
    std::size_t stride;
    float operator[](std::size_t k) const { return data[k * stride]; }
};

// The two axes of a segment's frame that a curl's offset lies along.
struct FrameAxes {
    Vec3f normal;
    Vec3f binormal;
};

// The last pass: each point k from 1 lies at axial[k] along the strand's own line, moved by
// (xs[k], ys[k]) in the frame of the axis at the same share of its length. ownFrame(j) gives the
// frame of segment j of the strand's own line.
template <class OwnFrame>
void placeCurled(const StrandSetup& setup, bool planar, std::span<const Vec3f> points, Strided arcs,
                 Strided inverse, Strided axial, Strided xs, Strided ys, const OwnFrame& ownFrame,
                 Vec3f* curled) {
    const std::size_t last = points.size() - 1;
    std::size_t strandSegment = 0;
    std::size_t axisSegment = 0;
    curled[0] = points[0];
    for (std::size_t k = 1; k <= last; ++k) {
        const float s = axial[k];
        // pointAtArcByInverse, on arcs that may lie strided.
        Vec3f center;
        if (s <= 0.0f) {
            center = points[0];
        } else if (s >= arcs[last]) {
            center = points[last];
        } else {
            while (strandSegment + 1 < last && arcs[strandSegment + 1] < s)
                ++strandSegment;
            const float f = (s - arcs[strandSegment]) * inverse[strandSegment];
            center =
                lerp(points[strandSegment], points[strandSegment + 1], std::clamp(f, 0.0f, 1.0f));
        }
        // The frame at the same share of the axis's length.
        FrameAxes frame;
        if (setup.ownAxis) {
            frame = ownFrame(strandSegment);
        } else {
            pointAtArc(setup.axis, setup.axisArcs, s * setup.toAxis, axisSegment);
            const SegmentFrame& at = setup.axisFrames[std::min(axisSegment, kAxisSegments - 1)];
            frame = {at.normal, at.binormal};
        }
        if (planar) {
            const SinCos plane = setup.plane;
            const Vec3f across = frame.normal * plane.cos + frame.binormal * plane.sin;
            const Vec3f up = frame.binormal * plane.cos - frame.normal * plane.sin;
            curled[k] = center + across * xs[k] + up * ys[k];
        } else {
            // A helix winds in the frame as it is (its plane's turn is 0; the phase turns it).
            curled[k] = center + frame.normal * xs[k] + frame.binormal * ys[k];
        }
    }
}

// Scratch for strands made one at a time, set up once per chunk.
struct StrandScratches {
    StrandScratch<float> arcs, inverse, rates, turns, hanging, xs, ys;
    StrandScratch<SegmentFrame> frames;
};

// One strand, made on its own. The strand is made in passes over its points, each a loop whose
// points wait on nothing of the point before but a sum, so that the processor works on many points
// at once: arcs and frames; the frequency and the turns; the offset in the frame; the way along the
// axis; the points.
void curlStrand(const CurlRun& run, std::size_t s, StrandScratches& scratch) {
    const CurlSettings& settings = run.settings;
    const std::size_t begin = run.offsets[s];
    const std::size_t n = run.offsets[s + 1] - begin;
    const std::span<const Vec3f> points = run.points.subspan(begin, n);
    Vec3f* const curled = run.out + begin;
    if (n < 2) {
        std::copy(points.begin(), points.end(), curled);
        return;
    }
    const std::span<float> arcs = scratch.arcs.take(n);
    const std::span<float> inverse = scratch.inverse.take(n);
    const float total = ownAxisArcs(points, arcs, inverse);
    if (!(total > 0.0f)) {
        std::copy(points.begin(), points.end(), curled);
        return;
    }
    const float perTotal = 1.0f / total;
    const StrandSetup setup = setUpStrand(run, s, perTotal);
    std::span<SegmentFrame> frames;
    if (setup.ownAxis) {
        frames = scratch.frames.take(n - 1);
        ownAxisFrames(points, inverse, frames);
    }
    const float frequency = setup.frequency;

    // The frequency at each point and the turns from the root, integrated along the length. The
    // spacing noise rides on the frequency; it is read at the turns the strand would make without
    // it, which every point knows without waiting on the turns of the points before it.
    const std::span<float> rates = scratch.rates.take(n);
    const std::span<float> turns = scratch.turns.take(n);
    for (std::size_t k = 0; k < n; ++k)
        rates[k] = run.flatFrequency ? frequency
                                     : frequency * settings.frequencyProfile.at(arcs[k] * perTotal);
    if (run.spaced) {
        SpacingNoise spacing(setup.draws.spacingHash);
        float plain = 0.0f;
        float lastRate = rates[0];
        turns[0] = 0.0f;
        for (std::size_t k = 1; k < n; ++k) {
            plain += 0.5f * (lastRate + rates[k]) * (arcs[k] - arcs[k - 1]);
            lastRate = rates[k];
            turns[k] = plain;
        }
        for (std::size_t k = 1; k < n; ++k)
            rates[k] *= 1.0f + settings.spacingRandom * spacing.at(turns[k] * kSpacingKnotsPerTurn);
    }
    turns[0] = 0.0f;
    for (std::size_t k = 1; k < n; ++k)
        turns[k] = turns[k - 1] + 0.5f * (rates[k - 1] + rates[k]) * (arcs[k] - arcs[k - 1]);

    // The turns hanging below each point along the pull, for the weight's stretch: each segment
    // adds its turns times the share of it that points along the pull, which is its reach along
    // the pull over its length.
    std::span<float> hanging;
    if (run.weighted) {
        hanging = scratch.hanging.take(n);
        hanging[n - 1] = 0.0f;
        for (std::size_t k = n - 1; k-- > 0;) {
            const float reach = std::max(0.0f, dot(points[k + 1] - points[k], run.pull));
            const float rate = run.flatFrequency
                                   ? frequency
                                   : frequency * settings.frequencyProfile.at(
                                                     0.5f * (arcs[k] + arcs[k + 1]) * perTotal);
            hanging[k] = hanging[k + 1] + rate * reach;
        }
    }

    // The offset of each point in the frame.
    const std::span<float> xs = scratch.xs.take(n);
    const std::span<float> ys = scratch.ys.take(n);
    for (std::size_t k = 1; k < n; ++k) {
        const float rate = rates[k];
        float radius = run.coil
                           ? settings.coilWidths *
                                 (begin + k < run.widths.size() ? run.widths[begin + k] : 0.0f)
                           : (run.radiusMapped ? settings.radius.atPoint(s, k) : run.plainRadius);
        radius *= setup.radiusScale * smoothstep01(turns[k] * 4.0f);
        if (!run.flatProfile) radius *= settings.profile.at(arcs[k] * perTotal);
        // A turn can't reach further around than its own length: wider curls are held to a flat
        // circle (a zigzag to its straight flanks), so the strand keeps its length.
        // Taken at every point, without a branch: with the spacing's random the rate moves, and
        // whether the hold applies changes from point to point.
        radius = std::min(radius, run.widest / std::max(rate, 1e-30f));
        if (run.weighted && hanging[k] > 0.0f && rate > 0.0f && radius > 0.0f) {
            // A turn keeps its length while its spacing stretches, so its radius narrows;
            // stretched past its length the curl goes straight.
            const float around = std::min(1.0f, kTwoPi * radius * rate);
            const float spread = std::sqrt(1.0f - around * around);
            const float stretched =
                std::min(1.0f, spread * (1.0f + settings.weight * hanging[k] / 10.0f));
            radius = std::min(radius, std::sqrt(1.0f - stretched * stretched) / (kTwoPi * rate));
        }
        const float phased = turns[k] + setup.draws.phaseTurns;
        if (settings.shape == CurlShape::Zigzag) {
            xs[k] = radius * triangleWave(phased);
            ys[k] = 0.0f;
        } else {
            const SinCos turn = sinCosTurns(phased);
            xs[k] = settings.shape == CurlShape::Wave ? radius * turn.sin : radius * turn.cos;
            ys[k] = settings.shape == CurlShape::Wave ? 0.0f : radius * turn.sin;
        }
    }

    // The segment keeps its length: what the offset takes of it comes off the way along the line,
    // which shrinks the axis. `axial` is how far along its own line the curled strand reaches at
    // each point (kept in `rates`, which are done with).
    const std::span<float> axial = rates;
    float lastX = 0.0f;
    float lastY = 0.0f;
    float along = 0.0f;
    for (std::size_t k = 1; k < n; ++k) {
        const float ds = arcs[k] - arcs[k - 1];
        float dx = xs[k] - lastX;
        float dy = ys[k] - lastY;
        const float step = dx * dx + dy * dy;
        if (step > ds * ds) {
            // Where the radius grows faster than the segment's length allows (easing in, a
            // profile's steep rise), the offset lags behind to keep the length.
            const float shrink = ds / std::sqrt(step);
            dx *= shrink;
            dy *= shrink;
            xs[k] = lastX + dx;
            ys[k] = lastY + dy;
        }
        along += std::sqrt(std::max(0.0f, ds * ds - dx * dx - dy * dy));
        axial[k] = along;
        lastX = xs[k];
        lastY = ys[k];
    }

    placeCurled(
        setup, run.planar, points, {arcs.data(), 1}, {inverse.data(), 1}, {axial.data(), 1},
        {xs.data(), 1}, {ys.data(), 1},
        [&](std::size_t j) {
            return FrameAxes{frames[j].normal, frames[j].binormal};
        },
        curled);
}

}  // namespace

#if VELMORIN_FLOAT_LANES
// The side-by-side kernel, once for each lane width: the same text over four SSE2 lanes and over
// eight AVX lanes, the latter built for AVX alone.
namespace {
namespace narrow_curl {
using namespace float_lanes::narrow;
#define VELMORIN_LANES_TARGET
#include "ops/curl_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace narrow_curl
namespace wide_curl {
using namespace float_lanes::wide;
#define VELMORIN_LANES_TARGET __attribute__((target("avx")))
#include "ops/curl_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace wide_curl
}  // namespace
#endif

StrandSet subdivideForCurl(const StrandSet& input, const CurlSettings& settings) {
    return cutForCurl(input, settings, nullptr, nullptr);
}

void curlStrands(const StrandSet& input, const CurlSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out) {
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    // Nothing to curl: every strand goes through bit for bit.
    if (curlIsIdle(settings)) {
        forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
            for (std::size_t i = first; i < last; ++i) {
                const std::size_t s = selection.strand(i);
                std::copy(inputPoints.begin() + static_cast<std::ptrdiff_t>(offsets[s]),
                          inputPoints.begin() + static_cast<std::ptrdiff_t>(offsets[s + 1]),
                          out.begin() + static_cast<std::ptrdiff_t>(offsets[s]));
            }
        });
        return;
    }
    CurlRun run(settings);
    run.ids = input.ids();
    run.offsets = offsets;
    run.points = inputPoints;
    run.widths = input.widths();
    run.byClump = settings.clumps && settings.clumpChannel;
    run.coil = settings.shape == CurlShape::Coil;
    run.planar = settings.shape == CurlShape::Wave || settings.shape == CurlShape::Zigzag;
    run.pull = normalized(settings.weightDirection);
    run.weighted = settings.weight > 0.0f && lengthSquared(run.pull) > 0.0f;
    run.radiusMapped = settings.radius.isMapped();
    run.plainRadius = settings.radius.value();
    run.flatFrequency = settings.frequencyProfile.keys.empty();
    run.flatProfile = settings.profile.keys.empty();
    run.spaced = settings.spacingRandom > 0.0f;
    run.widest = settings.shape == CurlShape::Zigzag ? 0.25f : 1.0f / kTwoPi;
    run.out = out.data();

    // First pass: the frames carried along each clump's axis, which its strands share.
    std::vector<SegmentFrame> clumpFrames;
    if (run.byClump) {
        const ClumpAxes& clumps = *settings.clumps;
        clumpFrames.resize(clumps.clumpCount * kAxisSegments);
        parallelRange(0, clumps.clumpCount, 256, [&](std::size_t first, std::size_t last) {
            for (std::size_t c = first; c < last; ++c)
                transportFrames(
                    clumps.axisPoints(c),
                    std::span<SegmentFrame>(clumpFrames).subspan(c * kAxisSegments, kAxisSegments));
        });
        run.clumpFrames = clumpFrames;
    }

#if VELMORIN_FLOAT_LANES
    const bool wide = avxLanesUsable();
    // Strands cut for a tolerance come in many point counts, and are made one at a time.
    const bool sideBySide = !(settings.tolerance > 0.0f);
#endif
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        StrandScratches scratch;
#if VELMORIN_FLOAT_LANES
        // Strands of one point count run side by side, a lane each, as many at a time as the
        // lanes hold; the few of a count left over are made one at a time. A strand's points
        // are the same bits either way, so how the chunk falls into groups changes nothing.
        if (sideBySide) {
            std::vector<float> laneScratch;
            constexpr std::size_t kBlock = 256;
            std::array<std::pair<std::size_t, std::size_t>, kBlock> waiting;  // point count, strand
            for (std::size_t block = first; block < last; block += kBlock) {
                const std::size_t end = std::min(last, block + kBlock);
                std::size_t count = 0;
                bool oneCount = true;
                for (std::size_t i = block; i < end; ++i) {
                    const std::size_t s = selection.strand(i);
                    const std::size_t n = offsets[s + 1] - offsets[s];
                    if (n < 2) {
                        curlStrand(run, s, scratch);
                        continue;
                    }
                    oneCount = oneCount && (count == 0 || waiting[count - 1].first == n);
                    waiting[count++] = {n, s};
                }
                if (!oneCount) std::sort(waiting.begin(), waiting.begin() + count);
                std::size_t lanes[wide_curl::kWidth];
                for (std::size_t at = 0; at < count;) {
                    const std::size_t n = waiting[at].first;
                    std::size_t runEnd = at;
                    while (runEnd < count && waiting[runEnd].first == n)
                        ++runEnd;
                    const auto sideBySide = [&](std::size_t width, auto kernel) {
                        for (std::size_t l = 0; l < width; ++l)
                            lanes[l] = waiting[at + l].second;
                        // The points of the strands next in line, asked for while these are made.
                        for (std::size_t next = at + width; next < std::min(count, at + 2 * width);
                             ++next) {
                            const char* from = reinterpret_cast<const char*>(
                                inputPoints.data() + offsets[waiting[next].second]);
                            for (std::size_t byte = 0; byte < n * sizeof(Vec3f); byte += 64)
                                __builtin_prefetch(from + byte);
                        }
                        if (!kernel(run, lanes, n, laneScratch)) {
                            // A strand of no length, or of one that is not a number, goes its own
                            // way.
                            for (std::size_t l = 0; l < width; ++l)
                                curlStrand(run, lanes[l], scratch);
                        }
                        at += width;
                    };
                    while (wide && runEnd - at >= wide_curl::kWidth)
                        sideBySide(wide_curl::kWidth, &wide_curl::curlSideBySide);
                    while (runEnd - at >= narrow_curl::kWidth)
                        sideBySide(narrow_curl::kWidth, &narrow_curl::curlSideBySide);
                    for (; at < runEnd; ++at)
                        curlStrand(run, waiting[at].second, scratch);
                }
            }
            return;
        }
#endif
        for (std::size_t i = first; i < last; ++i)
            curlStrand(run, selection.strand(i), scratch);
    });
}

namespace {

ParamSpec choiceParam(std::string name, std::string value, std::vector<std::string> choices,
                      std::string description) {
    ParamSpec spec = shapeParam(std::move(name), std::move(value), std::move(description));
    spec.choices = std::move(choices);
    spec.animatable = false;
    return spec;
}

// A mapped radius read at the points that came in and carried to the cut points along the line
// between them: a map is bound to the points it was made for.
class CutRadius final : public FieldValue {
  public:
    CutRadius(std::vector<float> values, std::span<const std::uint64_t> offsets)
        : values_(std::move(values)), offsets_(offsets) {}
    float atStrand(std::size_t strand) const override {
        // A strand of no points (or a set of none) has no radius to give.
        return offsets_[strand] < values_.size() ? values_[offsets_[strand]] : 0.0f;
    }
    float atPoint(std::size_t strand, std::size_t point) const override {
        return values_[offsets_[strand] + point];
    }
    bool varies() const override { return true; }
    std::uint64_t key() const override { return 0; }
    std::string describe() const override { return "the radius at the cut points"; }

  private:
    std::vector<float> values_;
    std::span<const std::uint64_t> offsets_;
};

CurlShape curlShapeOf(const std::string& shape) {
    if (shape == "wave") return CurlShape::Wave;
    if (shape == "zigzag") return CurlShape::Zigzag;
    if (shape == "coil") return CurlShape::Coil;
    return CurlShape::Helix;
}

// Helical curls around each strand.
class CurlOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Curl"; }
    std::string category() const override { return "look"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec radius = shapeParam("radius", 0.05,
                                      "Curl radius, scene units (mappable, per point); a coil's is "
                                      "coilWidths");
        radius.min = 0.0;
        radius.softMax = 0.5;
        radius.unit = "length";
        ParamSpec frequency = shapeParam("frequency", 0.4, "Turns per unit of length");
        frequency.min = 0.0;
        frequency.softMax = 10.0;
        ParamSpec frequencyProfile =
            shapeParam("frequencyProfile", Ramp{},
                       "Frequency along the length, root to tip, a share of frequency (the "
                       "tightest): curls loosening or tightening toward the tip");
        ParamSpec shape = choiceParam(
            "shape", "helix", {"helix", "wave", "zigzag", "coil"},
            "helix: around the strand; wave: a planar sine; zigzag: sharp planar kinks (kinky "
            "hair); coil: a tight helix coilWidths strand widths across (coily hair)");
        ParamSpec coilWidths = shapeParam("coilWidths", 3.0,
                                          "Coil: its radius in strand widths at each point (the "
                                          "widths the strands carry: put a Width node before it)");
        coilWidths.min = 0.0;
        coilWidths.softMax = 10.0;
        coilWidths.showWhen = ShowWhen{"shape", {std::string("coil")}};
        ParamSpec phase =
            shapeParam("phase", 0.0, "Where along a turn every curl starts, in turns (0-1)");
        phase.min = 0.0;
        phase.max = 1.0;
        phase.unit = "turns";
        ParamSpec coherence = choiceParam(
            "coherence", "strand", {"strand", "clump"},
            "strand: each strand curls on its own; clump: the strands of a clump curl together "
            "around its middle, with one phase, frequency and plane (ringlets; after a Clump)");
        ParamSpec channel = shapeParam("clumpChannel", std::string("clumpId"),
                                       "Coherence clump: the channel naming each strand's clump "
                                       "(Clump writes clumpId)");
        channel.channel = ChannelRole::Reads;
        channel.channelOptional = true;
        channel.animatable = false;
        channel.showWhen = ShowWhen{"coherence", {std::string("clump")}};
        ParamSpec weight = shapeParam(
            "weight", 0.0,
            "How much each part of a curl stretches under the hair hanging below it, 0 or more: "
            "its turns spread apart where more turns hang below them along weightDirection (loose "
            "at the root, tight at the tip; long ringlets more than short curls, hair lying across "
            "it or pointing up barely), each turn keeping its length, so the radius narrows (an "
            "overstretched curl goes straight). 0: none; 1: 10 turns hanging straight below a "
            "point double its spacing");
        weight.min = 0.0;
        weight.softMax = 2.0;
        ParamSpec weightDirection = shapeParam(
            "weightDirection", Vec3f{0.0f, -1.0f, 0.0f},
            "The way the weight pulls (world space): curls stretch where the strands hang along "
            "it");
        weightDirection.worldDirection = true;
        ParamSpec tolerance = shapeParam(
            "tolerance", 0.0,
            "How far a straight segment may stray from the round curl, a share of its radius: "
            "where the points coming in are too few a turn for it, Curl cuts each segment");
        tolerance.min = 0.0;
        tolerance.softMax = 0.5;
        return {
            radius,
            frequency,
            frequencyProfile,
            fractionParam("randomness", 0.3, "Per-strand variation of radius and frequency, 0-1"),
            fractionParam("spacingRandom", 0.0,
                          "Smooth random variation of the spacing along each strand (each "
                          "clump's with coherence clump), 0-1: the frequency varies by up to "
                          "this share every turn or two"),
            profileParam("Radius along the length, root to tip (eased in from 0 at the root "
                         "over the first quarter turn)"),
            shape,
            coilWidths,
            phase,
            fractionParam("phaseRandom", 0.0,
                          "How much of a turn each strand's (or clump's) start varies at "
                          "random, 0-1"),
            coherence,
            channel,
            weight,
            weightDirection,
            tolerance,
            seedParam()};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        CurlSettings settings;
        settings.radius = fieldSampler(paramSet, ctx, "radius", *input);
        settings.frequency = static_cast<float>(paramSet.getFloat("frequency", 0.4));
        settings.frequencyProfile = paramRamp(paramSet, ctx, "frequencyProfile", Ramp{});
        settings.randomness = static_cast<float>(paramSet.getFloat("randomness", 0.3));
        settings.spacingRandom = static_cast<float>(paramSet.getFloat("spacingRandom", 0.0));
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        settings.shape = curlShapeOf(paramSet.getString("shape", "helix"));
        settings.coilWidths = static_cast<float>(paramSet.getFloat("coilWidths", 3.0));
        settings.phase = static_cast<float>(paramSet.getFloat("phase", 0.0));
        settings.phaseRandom = static_cast<float>(paramSet.getFloat("phaseRandom", 0.0));
        settings.weight = static_cast<float>(paramSet.getFloat("weight", 0.0));
        settings.weightDirection = paramSet.getVec3("weightDirection", {0.0f, -1.0f, 0.0f});
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.tolerance = static_cast<float>(paramSet.getFloat("tolerance", 0.0));
        const bool clumped = paramSet.getString("coherence", "strand") == "clump";
        const std::string channel = paramSet.getString("clumpChannel", "clumpId");
        if (settings.tolerance > 0.0f && !curlIsIdle(settings)) {
            // Cutting segments changes the point counts, which only a full run can do.
            if (incremental) return false;
            return curlCut(*input, settings, clumped ? input->strandChannel(channel) : nullptr, out,
                           changes);
        }

        ClumpAxes clumps;
        WidenChanges widen;
        if (clumped) {
            // Without the channel there are no clumps to follow, and each strand curls on its own.
            if (const std::vector<float>* ids = input->strandChannel(channel)) {
                if (incremental && !clumpsKept(*ids, channel, *incremental)) return false;
                clumps = clumpAxes(*input, *ids);
                settings.clumps = &clumps;
                settings.clumpChannel = ids;
                // A changed strand moves its clump's axis, and with it every strand of the clump.
                widen = [&clumps](std::span<const std::uint64_t> changed) {
                    return strandsOfClumps(clumps, changed);
                };
            }
        }
        return reshapePoints(inputs, incremental,
                             mapsReadOnlyTheirStrand(paramSet, ctx, {"radius"}), &curlStrands,
                             settings, out, changes, widen);
    }

    // The full run with a tolerance: the strands cut where they are too coarse for the curl, then
    // curled. The clumps' ids are the input's, one per strand.
    static bool curlCut(const StrandSet& input, CurlSettings settings,
                        const std::vector<float>* clumpIds, Value* out, StrandChanges* changes) {
        StrandSet cut;
        std::shared_ptr<const CutRadius> radius;
        if (settings.radius.isMapped()) {
            // The map's radius at every point that came in, cut along with the points.
            std::vector<float> before(input.pointCount());
            const std::span<const std::uint64_t> offsets = input.offsets();
            parallelRange(0, input.strandCount(), 256, [&](std::size_t first, std::size_t last) {
                for (std::size_t s = first; s < last; ++s)
                    for (std::size_t k = 0; k < offsets[s + 1] - offsets[s]; ++k)
                        before[offsets[s] + k] = settings.radius.atPoint(s, k);
            });
            std::vector<float> after;
            cut = cutForCurl(input, settings, &before, &after);
            radius = std::make_shared<const CutRadius>(std::move(after), cut.offsets());
            settings.radius = FieldSampler(radius);
        } else {
            cut = subdivideForCurl(input, settings);
        }
        ClumpAxes clumps;
        if (clumpIds) {
            clumps = clumpAxes(cut, *clumpIds);
            settings.clumps = &clumps;
            settings.clumpChannel = clumpIds;
        }
        auto made = std::make_shared<StrandSet>(cut);
        curlStrands(cut, settings, StrandSelection::every(), made->overwritePoints());
        if (changes) {
            changes->all = true;
            changes->strands.clear();
            changes->sameLayout = cut.pointCount() == input.pointCount();
        }
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }
};

}  // namespace

void registerCurlOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description = "Helical curls around each strand.";
    info.keywords = "coil wave helix kinky afro";
    registry.registerType(
        "Curl", [] { return std::make_unique<CurlOp>(); }, info);
}

}  // namespace velmorin
