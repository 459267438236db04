#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <optional>
#include <type_traits>

#include "base/fast_trig.h"
#include "base/fast_trig_lanes.h"
#include "base/float_lanes.h"
#include "base/parallel.h"
#include "editing/flow.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/flow_lanes.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// A triangle of the scalp as the walk below reads it: its corner 0, its two edges from there, the
// two vectors whose dot products with a point's offset from corner 0 give its barycentric u and v
// in the triangle's plane (no division per step), and the triangles across its edges. Beside them
// lie the smooth normals and flow directions of its corners, so that the triangle a point lands
// on gives its normal and flow from the one record the walk read, not from three vertex arrays.
//
// In blocks of eight floats, which the side-by-side walk reads whole: a round reads the first two
// (up to origin); the landing the second to the fifth (from origin on).
struct alignas(32) FlowFace {
    Vec3f toU, toV;
    std::array<std::int32_t, 3> across{-1, -1, -1};
    std::int32_t flat = 1;  // no area: the walk stops on it (an int, read in lanes with `across`)
    Vec3f origin, edge1, edge2;
    std::array<Vec3f, 3> normals, directions;
    std::array<float, 3> pad{};
};
static_assert(sizeof(FlowFace) == 160 && offsetof(FlowFace, origin) == 40 &&
              offsetof(FlowFace, edge2) == 64 && offsetof(FlowFace, directions) == 112);

// What a FlowFace is made from: the scalp, its adjacency, and the per-vertex normals and flow
// directions (none where the flow was built for other vertices).
struct FlowSurfaceData {
    const ScalpMesh& scalp;
    const SurfaceTopology& topology;
    std::span<const Vec3f> normals;
    std::span<const Vec3f> directions;
};

FlowFace flowFace(const FlowSurfaceData& data, std::size_t face) {
    FlowFace made;
    const Triangle& triangle = data.scalp.triangles()[face];
    const std::vector<Vec3f>& corners = data.scalp.points();
    made.origin = corners[triangle[0]];
    made.edge1 = corners[triangle[1]] - made.origin;
    made.edge2 = corners[triangle[2]] - made.origin;
    for (std::size_t corner = 0; corner < 3; ++corner) {
        made.normals[corner] = data.normals[triangle[corner]];
        if (!data.directions.empty()) made.directions[corner] = data.directions[triangle[corner]];
    }
    const float d11 = dot(made.edge1, made.edge1), d12 = dot(made.edge1, made.edge2),
                d22 = dot(made.edge2, made.edge2);
    const float det = d11 * d22 - d12 * d12;
    for (int edge = 0; edge < 3; ++edge)
        made.across[static_cast<std::size_t>(edge)] =
            data.topology.neighborAcross(static_cast<std::uint32_t>(face), edge);
    if (!(det > 0.0f)) return made;
    const float perDet = 1.0f / det;
    made.toU = (made.edge1 * d22 - made.edge2 * d12) * perDet;
    made.toV = (made.edge2 * d11 - made.edge1 * d12) * perDet;
    made.flat = 0;
    return made;
}

// The walk's triangles: made once per run for every triangle when the run reads many strands,
// else each when the walk reaches it (the same arithmetic, so the same bits either way).
class FlowFaces {
  public:
    FlowFaces(const FlowSurfaceData& data, bool madeAhead) : data_(data) {
        if (!madeAhead) return;
        faces_.resize(data.scalp.triangleCount());
        parallelRange(0, faces_.size(), 4096, [&](std::size_t begin, std::size_t end) {
            for (std::size_t f = begin; f < end; ++f)
                faces_[f] = flowFace(data_, f);
        });
    }

    bool madeAhead() const { return !faces_.empty(); }
    // The records made ahead, in triangle order.
    const FlowFace* data() const { return faces_.data(); }
    // Asks the processor to fetch triangle `face`'s record, made ahead, into its caches.
    void prefetch(std::int32_t face) const {
        const char* at = reinterpret_cast<const char*>(&faces_[static_cast<std::size_t>(face)]);
        for (std::size_t line = 0; line < sizeof(FlowFace) + 64; line += 64)
            __builtin_prefetch(at + line);
    }

    // Triangle `face`; `spare` holds it when it was not made ahead.
    const FlowFace& at(std::int32_t face, FlowFace& spare) const {
        if (!faces_.empty()) return faces_[static_cast<std::size_t>(face)];
        spare = flowFace(data_, static_cast<std::size_t>(face));
        return spare;
    }

  private:
    FlowSurfaceData data_;
    std::vector<FlowFace> faces_;
};

// The most triangles a walk visits before it stops on an edge.
constexpr int kMostSteps = 6;

// The walk's stop on edge `edge` of `face` (from corner `edge` to the next), for a point `d` from
// corner 0: as far along the edge as the point lies, held to it, as barycentric u and v.
void onEdge(const FlowFace& face, const Vec3f& d, int edge, float& u, float& v) {
    const Vec3f from = edge == 0 ? Vec3f{} : edge == 1 ? face.edge1 : face.edge2;
    const Vec3f to = edge == 0 ? face.edge1 : edge == 1 ? face.edge2 : Vec3f{};
    const Vec3f along = to - from;
    const float alongSquared = lengthSquared(along);
    const float t =
        alongSquared > 0.0f ? std::clamp(dot(d - from, along) / alongSquared, 0.0f, 1.0f) : 0.0f;
    u = edge == 0 ? t : edge == 1 ? 1.0f - t : 0.0f;
    v = edge == 0 ? 0.0f : edge == 1 ? t : 1.0f - t;
}

// The edge a point outside a triangle leaves it by, from its barycentric weights: the one facing
// the most negative weight. Corner 0's weight w faces edge 1 (corners 1 to 2), corner 1's u edge
// 2, corner 2's v edge 0.
int edgeOut(float u, float v, float w) {
    return w <= u && w <= v ? 1 : u <= v ? 2 : 0;
}

// The closest point of the scalp to `p`, walked to from triangle `face` across the edges toward
// it. A strand's next point lies a segment from the last, over the same or a neighbouring
// triangle, so the walk takes a step or two where the tree searches from its top. Over a ridge the
// point lies off every triangle's face, in the wedge of an edge or a corner: the walk would turn
// back or go round; past a border there is no triangle to go to. There the walk stops on the edge
// it would cross, at the point of that edge nearest `p` (a corner of it in a corner's wedge).
// Nothing where the walk reaches a flat triangle or lands farther than `maxDistance`: the caller
// asks the tree then, which also finds a nearer part of the surface that the walk can't see.
// `landed` is the record of the triangle found; `spare` holds it where none are made ahead.
std::optional<ClosestPoint> walkToClosest(const FlowFaces& faces, std::int32_t face, const Vec3f& p,
                                          float maxDistance, FlowFace& spare,
                                          const FlowFace*& landed) {
    std::int32_t came = -1;
    for (int step = 0;; ++step) {
        const FlowFace& here = faces.at(face, spare);
        if (here.flat != 0) return std::nullopt;
        const Vec3f d = p - here.origin;
        float u = dot(d, here.toU);
        float v = dot(d, here.toV);
        const float w = 1.0f - u - v;
        if (!(u >= 0.0f && v >= 0.0f && w >= 0.0f)) {
            const int edge = edgeOut(u, v, w);
            const std::int32_t next = here.across[static_cast<std::size_t>(edge)];
            if (next >= 0 && next != came && step + 1 < kMostSteps) {
                came = face;
                face = next;
                continue;
            }
            onEdge(here, d, edge, u, v);
        }
        ClosestPoint found;
        found.root = {face, u, v};
        found.point = here.origin + here.edge1 * u + here.edge2 * v;
        const float distanceSquared = lengthSquared(p - found.point);
        if (!(distanceSquared <= maxDistance * maxDistance)) return std::nullopt;
        found.distance = std::sqrt(distanceSquared);
        landed = &here;
        return found;
    }
}

// The smooth normal and the flow at points of the scalp, as ScalpMesh::normalAt and FlowField::at
// give them (to a rounding: each is scaled by one reciprocal of its length, where those calls
// divide thrice), from the corners' normals and directions in a triangle's record: one blend of
// the corners for both, where those calls would make the normal twice. The rare cases (opposed
// normals, directions that disagree) go to the calls themselves.
class SurfaceFlow {
  public:
    SurfaceFlow(const ScalpMesh& scalp, const FlowField& flow)
        : scalp_(scalp),
          flow_(flow),
          blendDirections_(flow.directions().size() == scalp.pointCount()) {}

    // The normal at `at`, on the triangle whose record is `face`.
    Vec3f normalAt(const FlowFace& face, const StrandRoot& at) const {
        const float w0 = 1.0f - at.u - at.v;
        const Vec3f blend = face.normals[0] * w0 + face.normals[1] * at.u + face.normals[2] * at.v;
        const float len2 = lengthSquared(blend);
        if (len2 > 1e-20f) return blend * (1.0f / std::sqrt(len2));
        return scalp_.normalAt(at);
    }

    // The flow at `at`, whose smooth normal is `normal`.
    Vec3f flowAt(const FlowFace& face, const StrandRoot& at, const Vec3f& normal) const {
        constexpr float kSlack = 1e-4f;
        const bool usable = at.u >= -kSlack && at.v >= -kSlack && at.u + at.v <= 1.0f + kSlack;
        if (!usable || !blendDirections_) return flow_.at(scalp_, at);
        const float w0 = 1.0f - at.u - at.v;
        Vec3f blend =
            face.directions[0] * w0 + face.directions[1] * at.u + face.directions[2] * at.v;
        blend -= normal * dot(blend, normal);
        const float len = length(blend);
        if (len >= 0.5f) return blend * (1.0f / len);
        return flow_.at(scalp_, at);
    }

    bool blendsDirections() const { return blendDirections_; }

  private:
    const ScalpMesh& scalp_;
    const FlowField& flow_;
    bool blendDirections_;
};

}  // namespace

namespace {

// One strand being laid: where its walk has reached and what it keeps along the way. Per segment
// k: its length, and the sine and cosine of its lift, made for the whole strand before the walk.
struct FlowWalk {
    std::span<const Vec3f> strand;
    Vec3f* out = nullptr;
    // Segment k's values at lengths[k * stride] and so on: a strand's own scratch (stride 1), or
    // its lane of a set's tables (stride the lane count).
    float *lengths = nullptr, *sines = nullptr, *cosines = nullptr;
    std::size_t stride = 1;
    float lift = 0.0f;
    float turn = 0.0f;    // the random turn about the normal, in turns
    bool passes = false;  // no flow at the root: the strand passes unchanged
    StrandRoot at;
    Vec3f normal, along;
    float cosTurn = 1.0f, sinTurn = 0.0f;
    float height = 0.0f;
    FlowFace spare;
};

// The lanes read a walk's root, normal, flow, turn and height as twelve floats side by side.
static_assert(std::is_standard_layout_v<FlowWalk> &&
              offsetof(FlowWalk, normal) == offsetof(FlowWalk, at) + 12 &&
              offsetof(FlowWalk, along) == offsetof(FlowWalk, at) + 24 &&
              offsetof(FlowWalk, cosTurn) == offsetof(FlowWalk, at) + 36 &&
              offsetof(FlowWalk, sinTurn) == offsetof(FlowWalk, at) + 40 &&
              offsetof(FlowWalk, height) == offsetof(FlowWalk, at) + 44);

// Per-strand scratch of a chunk: lengths, then the lift's turns and sines, then its cosines.
struct FlowScratch {
    StrandScratch<float> lengths, sines, cosines;
};

// The unit vector along v, or `fallback` when v is too short: normalized with one division.
Vec3f unitOr(const Vec3f& v, const Vec3f& fallback) {
    const float len = length(v);
    return len > 1e-20f ? v * (1.0f / len) : fallback;
}

// Degrees to turns.
constexpr float kFlowPerDegree = 1.0f / 360.0f;

// What a run of flowStrands reads, and the steps of one strand laid alone.
struct FlowRun {
    const FlowSettings& settings;
    std::span<const std::uint64_t> ids;
    std::span<const StrandRoot> roots;
    std::span<const std::uint64_t> offsets;
    std::span<const Vec3f> inputPoints;
    std::span<Vec3f> points;
    const ScalpMesh* scalp = nullptr;
    const SurfaceFlow* surface = nullptr;
    const FlowFaces* faces = nullptr;

    // Readies strand s's walk, its root copied; false where it passes unchanged (copied whole).
    // Its frame at the root waits for `frame`, its segments for `prepare`, or both for lanes.
    bool start(std::size_t s, FlowWalk& walk) const {
        const std::size_t first = offsets[s];
        const std::size_t n = offsets[s + 1] - first;
        walk.strand = inputPoints.subspan(first, n);
        walk.out = points.data() + first;
        const auto unchanged = [&] {
            std::copy(walk.strand.begin(), walk.strand.end(), walk.out);
            return false;
        };
        if (n < 2 || !surface || !scalp->isOnSurface(roots[s])) return unchanged();
        walk.out[0] = walk.strand[0];
        walk.at = roots[s];
        walk.passes = false;
        // Its sine and cosine wait for `prepare`, or are made in lanes.
        walk.turn =
            settings.random * StrandDraws(ids[s], settings.seed).nextSigned() * kFlowPerDegree;
        walk.lift = settings.lift.isMapped() ? settings.lift.atStrand(s) : settings.lift.value();
        walk.height = 0.0f;
        return true;
    }

    // The normal and flow at a walk's root. Without flow there, the strand passes: it is laid
    // no further (or, in lanes, laid and then copied over).
    void frame(FlowWalk& walk) const {
        const FlowFace& face = faces->at(walk.at.face, walk.spare);
        walk.normal = surface->normalAt(face, walk.at);
        walk.along = surface->flowAt(face, walk.at, walk.normal);
        walk.passes = lengthSquared(walk.along) == 0.0f;
    }

    // A walk's turn, and its segment lengths and the sines and cosines of their lifts, in its own
    // scratch.
    void prepare(FlowWalk& walk, FlowScratch& scratch) const {
        const std::size_t n = walk.strand.size();
        const std::span<float> lengths = scratch.lengths.take(n);
        const std::span<float> sines = scratch.sines.take(n);
        const std::span<float> cosines = scratch.cosines.take(n);
        walk.lengths = lengths.data();
        walk.sines = sines.data();
        walk.cosines = cosines.data();
        walk.stride = 1;
        const SinCos turn = sinCosTurns(walk.turn);
        walk.cosTurn = turn.cos;
        walk.sinTurn = turn.sin;
        segmentLengths(walk.strand, lengths);
        float total = 0.0f;
        for (std::size_t k = 1; k < n; ++k)
            total += lengths[k];
        // Segment k takes the lift at its middle, a fraction t along the strand; the angles, in
        // turns, wait in `sines` for one pass of sines and cosines over the strand.
        float arc = 0.0f;
        for (std::size_t k = 1; k < n; ++k) {
            const float segment = lengths[k];
            const float t = total > 0.0f ? (arc + 0.5f * segment) / total : 0.0f;
            arc += segment;
            sines[k] = walk.lift * (1.0f - settings.bend * t) * kFlowPerDegree;
        }
        sinCosTurnsMany(sines.data() + 1, sines.data() + 1, cosines.data() + 1, n - 1);
    }

    // Where the surface under a walk's next point was found (`below`, on the triangle whose
    // record is `landed`): the point is set at the strand's height above it, keeping its
    // segment's length, and the walk takes the normal and flow there for its next segment.
    Vec3f land(StrandRoot& at, Vec3f& normal, Vec3f& along, float height, const ClosestPoint& below,
               const FlowFace& landed, const Vec3f& from, const Vec3f& direction,
               float segment) const {
        at = below.root;
        const Vec3f surfaceNormal = surface->normalAt(landed, at);
        const Vec3f snapped = below.point + surfaceNormal * height;
        const Vec3f next = from + unitOr(snapped - from, direction) * segment;
        const Vec3f there = surface->flowAt(landed, at, surfaceNormal);
        normal = surfaceNormal;
        along = lengthSquared(there) > 0.0f ? there : unitOr(alongSurface(along, normal), along);
        return next;
    }

    // Point k of a walk: its segment keeps its length and follows the flow under its start,
    // lifted off the skin by the lift at its middle, and lands at the height the strand has
    // reached above the surface there.
    void step(FlowWalk& walk, std::size_t k) const {
        const float segment = walk.lengths[k * walk.stride];
        const float cosAngle = walk.cosines[k * walk.stride];
        const float sinAngle = walk.sines[k * walk.stride];
        const Vec3f laid = rotateAbout(walk.along, walk.normal, walk.cosTurn, walk.sinTurn);
        const Vec3f direction = laid * cosAngle + walk.normal * sinAngle;
        const Vec3f from = walk.out[k - 1];
        Vec3f next = from + direction * segment;
        walk.height += segment * sinAngle;
        const float reach = std::fabs(walk.height) + 2.0f * segment + 1e-4f;
        const FlowFace* landed = nullptr;
        std::optional<ClosestPoint> below =
            walkToClosest(*faces, walk.at.face, next, reach, walk.spare, landed);
        if (!below) {
            below = scalp->closestPoint(next, reach);
            if (below->found()) landed = &faces->at(below->root.face, walk.spare);
        }
        if (below->found())
            next = land(walk.at, walk.normal, walk.along, walk.height, *below, *landed, from,
                        direction, segment);
        walk.out[k] = next;
    }
};

// Strands laid side by side, a point of each in turn: a strand's walk is one long chain of steps,
// each waiting on the last (the surface under a point decides the next), so the processor
// overlaps the chains of several strands where one alone would leave it waiting. Four sets of
// lanes, sixteen strands each with AVX-512, eight with AVX and four with neither.
constexpr std::size_t kLaneSets = 4;
constexpr std::size_t kInterleaved = 64;

#if VELMORIN_FLOAT_LANES
namespace narrow_flow {
using namespace float_lanes::narrow;
#define VELMORIN_LANES_TARGET
#include "ops/flow_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace narrow_flow
namespace wide_flow {
using namespace float_lanes::wide;
#define VELMORIN_LANES_TARGET __attribute__((target("avx")))
#include "ops/flow_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace wide_flow
// Sixteen lanes with AVX-512, their choices in mask registers. GCC 12 reports the undefined start
// of some AVX-512 intrinsics' results as uninitialized.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
namespace widest_flow {
using namespace float_lanes::widest;
#define VELMORIN_LANES_TARGET __attribute__((target("avx512f")))
#include "ops/flow_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace widest_flow
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

}  // namespace

void flowStrandsIn(FlowLanes lanes, const StrandSet& input, const FlowSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
    const ScalpMesh* scalp = settings.scalp;
    const FlowField* flow = settings.flow;
    const std::shared_ptr<const SurfaceTopology> topology = scalp ? scalp->topology() : nullptr;
    const std::optional<SurfaceFlow> surface =
        scalp && flow ? std::optional<SurfaceFlow>(std::in_place, *scalp, *flow) : std::nullopt;
    // Made ahead where the strands outnumber the triangles; an incremental run of a few strands
    // makes only the triangles it reaches.
    const std::size_t strandCount = pick.size(input.strandCount());
    const std::optional<FlowFaces> faces =
        surface ? std::optional<FlowFaces>(
                      std::in_place,
                      FlowSurfaceData{*scalp, *topology, scalp->vertexNormals(),
                                      surface->blendsDirections() ? flow->directions()
                                                                  : std::span<const Vec3f>()},
                      strandCount >= scalp->triangleCount())
                : std::nullopt;
    const FlowRun run{settings,
                      input.ids(),
                      input.roots(),
                      input.offsets(),
                      input.points(),
                      points,
                      scalp,
                      surface ? &*surface : nullptr,
                      faces ? &*faces : nullptr};
    const std::span<const StrandRoot> roots = input.roots();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
#if VELMORIN_FLOAT_LANES
    const bool useLanes = lanes != FlowLanes::none;
    const bool widest = lanes == FlowLanes::best && float_lanes::widestLanesUsable();
    const bool wide =
        !widest && (lanes == FlowLanes::best || lanes == FlowLanes::wide) && avxLanesUsable();
    constexpr std::size_t kWidest = float_lanes::widest::kWidth;
    const std::size_t interleaved = kLaneSets * (widest ? 16 : wide ? 8 : 4);
#else
    static_cast<void>(lanes);
    const std::size_t interleaved = kInterleaved;
#endif

    // The chunks hold whole batches, so that every batch but the last fills its lane sets; a chunk
    // of 256 strands split in halves would leave each chunk a few strands for narrower lanes.
    const std::size_t batches = (strandCount + interleaved - 1) / interleaved;
    parallelRange(0, batches, 256 / interleaved, [&](std::size_t firstBatch, std::size_t endBatch) {
        const std::size_t begin = firstBatch * interleaved;
        const std::size_t end = std::min(strandCount, endBatch * interleaved);
        std::array<FlowScratch, kInterleaved> scratch;
        std::array<FlowWalk, kInterleaved> walks;
        std::vector<float> tables;  // the lane sets' segment lengths, sines and cosines
        std::size_t item = begin;
        while (item < end) {
            std::size_t count = 0, longest = 0;
            for (; item < end && count < interleaved; ++item) {
                if (!run.start(pick.strand(item), walks[count])) continue;
                longest = std::max(longest, walks[count].strand.size());
                ++count;
            }
            if (faces && faces->madeAhead()) {
                // The root triangles of the next strands, and the ends of their points in and
                // out, are fetched while these are laid: past the chunk's end too, as the chunk
                // after it mostly falls to the same thread. Once these have started, so that
                // their own reads don't queue behind the fetches.
                for (std::size_t ahead = item; ahead < std::min(strandCount, item + interleaved);
                     ++ahead) {
                    // This loop's own reads of the roots and offsets, fetched a batch before it.
                    if (ahead + interleaved < strandCount) {
                        const std::size_t later = pick.strand(ahead + interleaved);
                        if (later < roots.size()) {
                            __builtin_prefetch(&roots[later]);
                            __builtin_prefetch(&offsets[later]);
                        }
                    }
                    const std::size_t s = pick.strand(ahead);
                    if (s >= roots.size()) continue;
                    if (scalp->isOnSurface(roots[s])) faces->prefetch(roots[s].face);
                    const std::size_t first = offsets[s], last = offsets[s + 1];
                    if (last == first) continue;
                    __builtin_prefetch(&inputPoints[first]);
                    __builtin_prefetch(&inputPoints[last - 1]);
                    __builtin_prefetch(&points[first], 1);
                    __builtin_prefetch(&points[last - 1], 1);
                }
            }
            // Whole sets go in lanes as far as the shortest strand among them (`lanesEnd`): sets
            // of eight where AVX is there, then one of four for the strands left over; the points
            // after it, and the strands left after that, one strand at a time.
            std::size_t laned = 0, lanesEnd = 1;
#if VELMORIN_FLOAT_LANES
            constexpr std::size_t kNarrow = float_lanes::narrow::kWidth;
            if (useLanes && faces && faces->madeAhead() && count >= kNarrow) {
                // With AVX-512, sets of sixteen, then of eight and of four for those left over.
                const std::size_t widestSets = widest ? count / kWidest : 0;
                const std::size_t wideStart = widestSets * kWidest;
                const std::size_t wideSets =
                    wide || widest ? (count - wideStart) / float_lanes::wide::kWidth : 0;
                const std::size_t narrowStart = wideStart + wideSets * float_lanes::wide::kWidth;
                const std::size_t narrowSets = (count - narrowStart) / kNarrow;
                laned = narrowStart + narrowSets * kNarrow;
                lanesEnd = longest;
                // Each set's tables: lengths, sines and cosines, a row of its lanes per segment.
                if (tables.size() < 3 * laned * longest) tables.resize(3 * laned * longest);
                const auto prepareSet = [&](std::size_t first, std::size_t width, auto prepare) {
                    float* const at = tables.data() + 3 * first * longest;
                    lanesEnd =
                        std::min(lanesEnd, prepare(run, &walks[first], at, at + width * longest,
                                                   at + 2 * width * longest));
                };
                for (std::size_t set = 0; set < widestSets; ++set)
                    prepareSet(set * kWidest, kWidest, widest_flow::prepareLanes);
                for (std::size_t set = 0; set < wideSets; ++set)
                    prepareSet(wideStart + set * 8, 8, wide_flow::prepareLanes);
                for (std::size_t set = 0; set < narrowSets; ++set)
                    prepareSet(narrowStart + set * 4, 4, narrow_flow::prepareLanes);
                const bool goesOn = longest > lanesEnd;
                if (widestSets > 0)
                    widest_flow::layInLanes(run, walks.data(), widestSets, lanesEnd, goesOn);
                if (wideSets > 0)
                    wide_flow::layInLanes(run, walks.data() + wideStart, wideSets, lanesEnd,
                                          goesOn);
                if (narrowSets > 0)
                    narrow_flow::layInLanes(run, walks.data() + narrowStart, narrowSets, lanesEnd,
                                            goesOn);
            }
#endif
            for (std::size_t w = laned; w < count; ++w) {
                run.frame(walks[w]);
                run.prepare(walks[w], scratch[w]);
            }
            for (std::size_t k = laned == count ? lanesEnd : 1; k < longest; ++k) {
                for (std::size_t w = 0; w < count; ++w) {
                    if (k < walks[w].strand.size() && (w >= laned || k >= lanesEnd) &&
                        !walks[w].passes)
                        run.step(walks[w], k);
                }
            }
            for (std::size_t w = 0; w < count; ++w) {
                if (walks[w].passes)
                    std::copy(walks[w].strand.begin(), walks[w].strand.end(), walks[w].out);
            }
        }
    });
}

void flowStrands(const StrandSet& input, const FlowSettings& settings, const StrandSelection& pick,
                 std::span<Vec3f> points) {
    flowStrandsIn(FlowLanes::best, input, settings, pick, points);
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
