#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "base/fast_trig.h"
#include "base/fast_trig_lanes.h"
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

// A triangle of the scalp as the walk below reads it: its corner 0, its two edges from there, the
// two vectors whose dot products with a point's offset from corner 0 give its barycentric u and v
// in the triangle's plane (no division per step), and the triangles across its edges. Beside them
// lie the smooth normals and flow directions of its corners, so that the triangle a point lands
// on gives its normal and flow from the one record the walk read, not from three vertex arrays.
struct FlowFace {
    Vec3f origin, edge1, edge2;
    Vec3f toU, toV;
    std::array<std::int32_t, 3> across{-1, -1, -1};
    std::int32_t flat = 1;  // no area: the walk stops on it (an int, read in lanes with `across`)
    std::array<Vec3f, 3> normals, directions;
    float pad = 0.0f;  // a load of four floats at the last direction stays inside the record
};

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
    // Asks the processor to fetch triangle `face`'s record, made ahead, into its caches.
    void prefetch(std::int32_t face) const {
        const char* at = reinterpret_cast<const char*>(&faces_[static_cast<std::size_t>(face)]);
        for (std::size_t line = 0; line < sizeof(FlowFace) + 64; line += 64)
            __builtin_prefetch(at + line);
    }
    // Triangle `face` of a run that made them ahead.
    const FlowFace& made(std::int32_t face) const { return faces_[static_cast<std::size_t>(face)]; }

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

// Strands laid side by side, a point of each in turn: a strand's walk is one long chain of steps,
// each waiting on the last (the surface under a point decides the next), so the processor
// overlaps the chains of several strands where one alone would leave it waiting. Sixteen, four
// lane sets of four, measured quicker than eight or thirty-two.
constexpr std::size_t kInterleaved = 16;

// One strand being laid: where its walk has reached and what it keeps along the way. Per segment
// k: its length, and the sine and cosine of its lift, made for the whole strand before the walk.
struct FlowWalk {
    std::span<const Vec3f> strand;
    Vec3f* out = nullptr;
    std::span<float> lengths, sines, cosines;
    StrandRoot at;
    Vec3f normal, along;
    float cosTurn = 1.0f, sinTurn = 0.0f;
    float height = 0.0f;
    FlowFace spare;
};

// Per-strand scratch of a chunk: lengths, then the lift's turns and sines, then its cosines.
struct FlowScratch {
    StrandScratch<float> lengths, sines, cosines;
};

// The unit vector along v, or `fallback` when v is too short: normalized with one division.
Vec3f unitOr(const Vec3f& v, const Vec3f& fallback) {
    const float len = length(v);
    return len > 1e-20f ? v * (1.0f / len) : fallback;
}

#if VELMORIN_SSE_LANES
// x, y and z of four strands' vectors, a strand in each lane.
struct Lanes3 {
    __m128 x, y, z;
};

Lanes3 operator+(const Lanes3& a, const Lanes3& b) {
    return {_mm_add_ps(a.x, b.x), _mm_add_ps(a.y, b.y), _mm_add_ps(a.z, b.z)};
}
Lanes3 operator-(const Lanes3& a, const Lanes3& b) {
    return {_mm_sub_ps(a.x, b.x), _mm_sub_ps(a.y, b.y), _mm_sub_ps(a.z, b.z)};
}
Lanes3 operator*(const Lanes3& a, __m128 s) {
    return {_mm_mul_ps(a.x, s), _mm_mul_ps(a.y, s), _mm_mul_ps(a.z, s)};
}
// dot() in lanes: (x x + y y) + z z, as the scalar sums it.
__m128 dotLanes(const Lanes3& a, const Lanes3& b) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(a.x, b.x), _mm_mul_ps(a.y, b.y)), _mm_mul_ps(a.z, b.z));
}
// `a` in the lanes of `mask`, else `b`.
Lanes3 select(__m128 mask, const Lanes3& a, const Lanes3& b) {
    const auto one = [&](__m128 x, __m128 y) {
        return _mm_or_ps(_mm_and_ps(mask, x), _mm_andnot_ps(mask, y));
    };
    return {one(a.x, b.x), one(a.y, b.y), one(a.z, b.z)};
}
// All bits set in the lanes whose bit is set in `bits` (0 to 15), from a table.
__m128 laneMask(int bits) {
    static constexpr auto kMasks = [] {
        std::array<std::array<std::uint32_t, 4>, 16> masks{};
        for (std::size_t b = 0; b < 16; ++b) {
            for (std::size_t lane = 0; lane < 4; ++lane)
                masks[b][lane] = (b >> lane & 1) != 0 ? 0xFFFFFFFFu : 0u;
        }
        return masks;
    }();
    return _mm_loadu_ps(
        reinterpret_cast<const float*>(kMasks[static_cast<std::size_t>(bits)].data()));
}
// The vectors at four addresses, each followed by at least one more float, as rows.
template <class At>
inline __attribute__((always_inline)) Lanes3 rowsAt(At at) {
    const Vec3f* const from[4] = {at(0), at(1), at(2), at(3)};
    const PointRows4 rows = loadPointRows(from, 0);
    return {rows.x, rows.y, rows.z};
}
Vec3f laneOf(const Lanes3& v, int lane) {
    alignas(16) float x[4], y[4], z[4];
    _mm_store_ps(x, v.x);
    _mm_store_ps(y, v.y);
    _mm_store_ps(z, v.z);
    return {x[lane], y[lane], z[lane]};
}

// Four walks laid in lanes: their state as rows while the lanes run, handed back to the walks
// for the points that their scalar steps lay after.
struct FlowLanes {
    FlowLanes() = default;
    explicit FlowLanes(FlowWalk* first) {
        for (int i = 0; i < 4; ++i) {
            walks[i] = first + i;
            lengths[i] = walks[i]->lengths.data();
            sines[i] = walks[i]->sines.data();
            cosines[i] = walks[i]->cosines.data();
            at[i] = walks[i]->at;
            face[i] = at[i].face;
        }
        const auto each = [&](auto value) {
            return _mm_setr_ps(value(walks[0]), value(walks[1]), value(walks[2]), value(walks[3]));
        };
        normal = {each([](FlowWalk* w) { return w->normal.x; }),
                  each([](FlowWalk* w) { return w->normal.y; }),
                  each([](FlowWalk* w) { return w->normal.z; })};
        along = {each([](FlowWalk* w) { return w->along.x; }),
                 each([](FlowWalk* w) { return w->along.y; }),
                 each([](FlowWalk* w) { return w->along.z; })};
        height = each([](FlowWalk* w) { return w->height; });
        cosTurn = each([](FlowWalk* w) { return w->cosTurn; });
        sinTurn = each([](FlowWalk* w) { return w->sinTurn; });
        from = {each([](FlowWalk* w) { return w->out[0].x; }),
                each([](FlowWalk* w) { return w->out[0].y; }),
                each([](FlowWalk* w) { return w->out[0].z; })};
    }

    void handBack() const {
        alignas(16) float heights[4];
        _mm_store_ps(heights, height);
        for (int i = 0; i < 4; ++i) {
            walks[i]->at = at[i];
            walks[i]->normal = laneOf(normal, i);
            walks[i]->along = laneOf(along, i);
            walks[i]->height = heights[i];
        }
    }

    std::array<FlowWalk*, 4> walks{};
    // The walks' segment lengths and lift sines and cosines, read at every step.
    std::array<const float*, 4> lengths{}, sines{}, cosines{};
    std::array<StrandRoot, 4> at;
    std::array<std::int32_t, 4> face{};
    Lanes3 normal{}, along{};
    Lanes3 from{};  // the last point laid: the start of the next segment
    __m128 height{}, cosTurn{}, sinTurn{};
};

// A lane set's step between its parts: the segment and the point it reaches, and the walk's
// progress, round by round, so that the walks of several sets take their rounds in turn.
struct LaneStep {
    Lanes3 direction, from, next;
    __m128 segment, reach;
    alignas(16) float px[4], py[4], pz[4], reaches[4], lu[4], lv[4];
    alignas(16) std::array<std::int32_t, 4> face;
    __m128i faces4, came;
    __m128 landedU, landedV;
    int active = 0, failed = 0;
};
#endif

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
    const bool liftMapped = settings.lift.isMapped();
    const float plainLift = settings.lift.value();
    constexpr float kPerDegree = 1.0f / 360.0f;

    // Copies strand s and readies its walk; false where it passes unchanged.
    const auto start = [&](std::size_t s, FlowWalk& walk, FlowScratch& scratch) {
        const std::size_t first = offsets[s];
        const std::size_t n = offsets[s + 1] - first;
        walk.strand = inputPoints.subspan(first, n);
        walk.out = points.data() + first;
        std::copy(walk.strand.begin(), walk.strand.end(), walk.out);
        if (n < 2 || !surface || !scalp->isOnSurface(roots[s])) return false;
        walk.at = roots[s];
        const FlowFace& face = faces->at(walk.at.face, walk.spare);
        walk.normal = surface->normalAt(face, walk.at);
        walk.along = surface->flowAt(face, walk.at, walk.normal);
        if (lengthSquared(walk.along) == 0.0f) return false;
        const SinCos turn = sinCosTurns(
            settings.random * StrandDraws(ids[s], settings.seed).nextSigned() * kPerDegree);
        walk.cosTurn = turn.cos;
        walk.sinTurn = turn.sin;
        const float lift = liftMapped ? settings.lift.atStrand(s) : plainLift;
        walk.lengths = scratch.lengths.take(n);
        walk.sines = scratch.sines.take(n);
        walk.cosines = scratch.cosines.take(n);
        segmentLengths(walk.strand, walk.lengths);
        float total = 0.0f;
        for (std::size_t k = 1; k < n; ++k)
            total += walk.lengths[k];
        // Segment k takes the lift at its middle, a fraction t along the strand; the angles, in
        // turns, wait in `sines` for one pass of sines and cosines over the strand.
        float arc = 0.0f;
        for (std::size_t k = 1; k < n; ++k) {
            const float segment = walk.lengths[k];
            const float t = total > 0.0f ? (arc + 0.5f * segment) / total : 0.0f;
            arc += segment;
            walk.sines[k] = lift * (1.0f - settings.bend * t) * kPerDegree;
        }
        sinCosTurnsMany(walk.sines.data() + 1, walk.sines.data() + 1, walk.cosines.data() + 1,
                        n - 1);
        walk.height = 0.0f;
        return true;
    };

    // Where the surface under a walk's next point was found (`below`, on the triangle whose
    // record is `landed`): the point is set at the strand's height above it, keeping its segment's
    // length, and the walk takes the normal and flow there for its next segment.
    const auto land = [&](StrandRoot& at, Vec3f& normal, Vec3f& along, float height,
                          const ClosestPoint& below, const FlowFace& landed, const Vec3f& from,
                          const Vec3f& direction, float segment) {
        at = below.root;
        const Vec3f surfaceNormal = surface->normalAt(landed, at);
        const Vec3f snapped = below.point + surfaceNormal * height;
        const Vec3f next = from + unitOr(snapped - from, direction) * segment;
        const Vec3f there = surface->flowAt(landed, at, surfaceNormal);
        normal = surfaceNormal;
        along = lengthSquared(there) > 0.0f ? there : unitOr(alongSurface(along, normal), along);
        return next;
    };

    // Point k of a walk: its segment keeps its length and follows the flow under its start,
    // lifted off the skin by the lift at its middle, and lands at the height the strand has
    // reached above the surface there.
    const auto step = [&](FlowWalk& walk, std::size_t k) {
        const float segment = walk.lengths[k];
        const float cosAngle = walk.cosines[k], sinAngle = walk.sines[k];
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
    };

#if VELMORIN_SSE_LANES
    // Point k of four walks at once, a strand in each SSE lane: every lane performs the
    // operations of `step` in the same order, so a strand gets the same bits either way. The
    // walk over the triangles moves the lanes together, a triangle a round, until each has
    // landed; the tree, an edge stop and the rare odd normal or flow go lane by lane through the
    // scalar pieces themselves. A step comes in three parts: laneBegin makes the segment and the
    // point it reaches, laneRound takes one round of the walk, laneFinish lands the point.
    const auto laneBegin = [&](FlowLanes& g, std::size_t k, LaneStep& st) {
        const auto each = [&](auto value) {
            return _mm_setr_ps(value(0), value(1), value(2), value(3));
        };
        const __m128 one = _mm_set1_ps(1.0f);
        __m128& segment = st.segment;
        segment = each([&](int i) { return g.lengths[i][k]; });
        const __m128 cosAngle = each([&](int i) { return g.cosines[i][k]; });
        const __m128 sinAngle = each([&](int i) { return g.sines[i][k]; });
        const Lanes3 n = g.normal, a = g.along;
        const Lanes3 turned{_mm_sub_ps(_mm_mul_ps(n.y, a.z), _mm_mul_ps(n.z, a.y)),
                            _mm_sub_ps(_mm_mul_ps(n.z, a.x), _mm_mul_ps(n.x, a.z)),
                            _mm_sub_ps(_mm_mul_ps(n.x, a.y), _mm_mul_ps(n.y, a.x))};
        const Lanes3 laid = (a * g.cosTurn + turned * g.sinTurn) +
                            n * _mm_mul_ps(dotLanes(n, a), _mm_sub_ps(one, g.cosTurn));
        st.direction = laid * cosAngle + n * sinAngle;
        st.from = g.from;
        st.next = st.from + st.direction * segment;
        g.height = _mm_add_ps(g.height, _mm_mul_ps(segment, sinAngle));
        st.reach = _mm_add_ps(_mm_add_ps(_mm_andnot_ps(_mm_set1_ps(-0.0f), g.height),
                                         _mm_mul_ps(_mm_set1_ps(2.0f), segment)),
                              _mm_set1_ps(1e-4f));

        // The walk, all four lanes a triangle at a time, deciding in lanes: which lanes landed
        // inside, which edge each leaves by, and which can cross it. Only a stop on an edge goes
        // lane by lane.
        _mm_store_ps(st.px, st.next.x);
        _mm_store_ps(st.py, st.next.y);
        _mm_store_ps(st.pz, st.next.z);
        _mm_store_ps(st.reaches, st.reach);
        st.face = g.face;
        st.faces4 = _mm_load_si128(reinterpret_cast<const __m128i*>(st.face.data()));
        st.came = _mm_set1_epi32(-1);
        st.landedU = _mm_setzero_ps();
        st.landedV = _mm_setzero_ps();
        st.active = 0xF;
        st.failed = 0;
    };

    // One round of a lane set's walk: each lane still walking reads its triangle, and lands in
    // it, stops on its edge or crosses to the next.
    const auto laneRound = [&](LaneStep& st, int round) {
        const __m128 one = _mm_set1_ps(1.0f), zero = _mm_setzero_ps();
        const Lanes3& next = st.next;
        std::array<std::int32_t, 4>& face = st.face;
        __m128i& faces4 = st.faces4;
        __m128i& came = st.came;
        __m128& landedU = st.landedU;
        __m128& landedV = st.landedV;
        int& active = st.active;
        int& failed = st.failed;
        _mm_store_si128(reinterpret_cast<__m128i*>(face.data()), faces4);
        const std::array<const FlowFace*, 4> here = {&faces->made(face[0]), &faces->made(face[1]),
                                                     &faces->made(face[2]), &faces->made(face[3])};
        // The triangles across the three edges and the flat mark, as four rows of ints.
        __m128 ac0 = _mm_loadu_ps(reinterpret_cast<const float*>(here[0]->across.data()));
        __m128 ac1 = _mm_loadu_ps(reinterpret_cast<const float*>(here[1]->across.data()));
        __m128 ac2 = _mm_loadu_ps(reinterpret_cast<const float*>(here[2]->across.data()));
        __m128 flatRow = _mm_loadu_ps(reinterpret_cast<const float*>(here[3]->across.data()));
        _MM_TRANSPOSE4_PS(ac0, ac1, ac2, flatRow);
        const int flat = ~_mm_movemask_ps(_mm_castsi128_ps(
                             _mm_cmpeq_epi32(_mm_castps_si128(flatRow), _mm_setzero_si128()))) &
                         0xF;
        failed |= active & flat;
        active &= ~flat;
        if (active == 0) return;
        const Lanes3 d = next - rowsAt([&](int i) { return &here[i]->origin; });
        const __m128 u = dotLanes(d, rowsAt([&](int i) { return &here[i]->toU; }));
        const __m128 v = dotLanes(d, rowsAt([&](int i) { return &here[i]->toV; }));
        const __m128 w = _mm_sub_ps(_mm_sub_ps(one, u), v);
        const __m128 insideLanes = _mm_and_ps(
            _mm_and_ps(_mm_cmpge_ps(u, zero), _mm_cmpge_ps(v, zero)), _mm_cmpge_ps(w, zero));
        const int inside = active & _mm_movemask_ps(insideLanes);
        const __m128 landsNow = laneMask(inside);
        landedU = _mm_or_ps(_mm_and_ps(landsNow, u), _mm_andnot_ps(landsNow, landedU));
        landedV = _mm_or_ps(_mm_and_ps(landsNow, v), _mm_andnot_ps(landsNow, landedV));
        const int out = active & ~inside;
        active = 0;
        if (out == 0) return;
        // edgeOut in lanes: 1 where w is the least, else 2 where u <= v, else 0.
        const __m128i byW = _mm_castps_si128(_mm_and_ps(_mm_cmple_ps(w, u), _mm_cmple_ps(w, v)));
        const __m128i byU = _mm_andnot_si128(byW, _mm_castps_si128(_mm_cmple_ps(u, v)));
        const __m128i across =
            _mm_or_si128(_mm_or_si128(_mm_and_si128(byW, _mm_castps_si128(ac1)),
                                      _mm_and_si128(byU, _mm_castps_si128(ac2))),
                         _mm_andnot_si128(_mm_or_si128(byW, byU), _mm_castps_si128(ac0)));
        const __m128i crossable =
            round + 1 < kMostSteps ? _mm_andnot_si128(_mm_cmpeq_epi32(across, came),
                                                      _mm_cmpgt_epi32(across, _mm_set1_epi32(-1)))
                                   : _mm_setzero_si128();
        const int moves = out & _mm_movemask_ps(_mm_castsi128_ps(crossable));
        const __m128i moving = _mm_castps_si128(laneMask(moves));
        came = _mm_or_si128(_mm_and_si128(moving, faces4), _mm_andnot_si128(moving, came));
        faces4 = _mm_or_si128(_mm_and_si128(moving, across), _mm_andnot_si128(moving, faces4));
        active = moves;
        if (const int stops = out & ~moves; stops != 0) {
            // onEdge in lanes: the edge runs from `from` to `to`, corner 0 being the zero vector.
            const __m128 onW = _mm_castsi128_ps(byW), onU = _mm_castsi128_ps(byU);
            const __m128 onFirst =
                _mm_andnot_ps(_mm_or_ps(onW, onU), _mm_castsi128_ps(_mm_set1_epi32(-1)));
            const Lanes3 edge1 = rowsAt([&](int i) { return &here[i]->edge1; });
            const Lanes3 edge2 = rowsAt([&](int i) { return &here[i]->edge2; });
            const Lanes3 none{zero, zero, zero};
            const Lanes3 from = select(onW, edge1, select(onU, edge2, none));
            const Lanes3 to = select(onFirst, edge1, select(onW, edge2, none));
            const Lanes3 along = to - from;
            const __m128 alongSquared = dotLanes(along, along);
            const __m128 q = _mm_div_ps(dotLanes(d - from, along), alongSquared);
            const __m128 low = _mm_or_ps(_mm_and_ps(_mm_cmplt_ps(q, zero), zero),
                                         _mm_andnot_ps(_mm_cmplt_ps(q, zero), q));
            const __m128 held = _mm_or_ps(_mm_and_ps(_mm_cmplt_ps(one, low), one),
                                          _mm_andnot_ps(_mm_cmplt_ps(one, low), low));
            const __m128 t = _mm_and_ps(_mm_cmpgt_ps(alongSquared, zero), held);
            const __m128 oneLessT = _mm_sub_ps(one, t);
            const __m128 edgeU = _mm_or_ps(_mm_and_ps(onFirst, t), _mm_and_ps(onW, oneLessT));
            const __m128 edgeV = _mm_or_ps(_mm_and_ps(onW, t), _mm_and_ps(onU, oneLessT));
            const __m128 stopping = laneMask(stops);
            landedU = _mm_or_ps(_mm_and_ps(stopping, edgeU), _mm_andnot_ps(stopping, landedU));
            landedV = _mm_or_ps(_mm_and_ps(stopping, edgeV), _mm_andnot_ps(stopping, landedV));
        }
    };

    // The end of a lane set's step once its walk is over: the tree for the lanes that found
    // nothing, then the normal, the point and the flow where each landed.
    const auto laneFinish = [&](FlowLanes& g, std::size_t k, LaneStep& st) {
        const __m128 one = _mm_set1_ps(1.0f);
        const __m128 segment = st.segment, reach = st.reach;
        const Lanes3 direction = st.direction, from = st.from;
        Lanes3 next = st.next;
        float* const px = st.px;
        float* const py = st.py;
        float* const pz = st.pz;
        float* const reaches = st.reaches;
        float* const lu = st.lu;
        float* const lv = st.lv;
        std::array<std::int32_t, 4>& face = st.face;
        const __m128i faces4 = st.faces4;
        const __m128 landedU = st.landedU, landedV = st.landedV;
        int failed = st.failed;
        _mm_store_si128(reinterpret_cast<__m128i*>(face.data()), faces4);
        _mm_store_ps(lu, landedU);
        _mm_store_ps(lv, landedV);
        // Landed lanes lie within reach, or the tree is asked as `step` asks it.
        const auto record = [&](int i) { return &faces->made(face[i]); };
        __m128 u = _mm_load_ps(lu), v = _mm_load_ps(lv);
        Lanes3 point = (rowsAt([&](int i) { return &record(i)->origin; }) +
                        rowsAt([&](int i) { return &record(i)->edge1; }) * u) +
                       rowsAt([&](int i) { return &record(i)->edge2; }) * v;
        const Lanes3 off = next - point;
        failed |= _mm_movemask_ps(_mm_cmpnle_ps(dotLanes(off, off), _mm_mul_ps(reach, reach)));
        int found = 0xF & ~failed;
        if (failed != 0) {
            alignas(16) float qx[4], qy[4], qz[4];
            _mm_store_ps(qx, point.x);
            _mm_store_ps(qy, point.y);
            _mm_store_ps(qz, point.z);
            for (int i = 0; i < 4; ++i) {
                if ((failed >> i & 1) == 0) continue;
                const ClosestPoint tree = scalp->closestPoint({px[i], py[i], pz[i]}, reaches[i]);
                face[i] = g.face[i];
                if (!tree.found()) continue;
                found |= 1 << i;
                face[i] = tree.root.face;
                lu[i] = tree.root.u;
                lv[i] = tree.root.v;
                qx[i] = tree.point.x;
                qy[i] = tree.point.y;
                qz[i] = tree.point.z;
            }
            u = _mm_load_ps(lu);
            v = _mm_load_ps(lv);
            point = {_mm_load_ps(qx), _mm_load_ps(qy), _mm_load_ps(qz)};
        }

        // The normal there, the point at the strand's height, and the flow: surface->normalAt,
        // unitOr and surface->flowAt in lanes.
        const __m128 w0 = _mm_sub_ps(_mm_sub_ps(one, u), v);
        const auto normalOf = [&](std::size_t corner) {
            return rowsAt([&](int i) { return &record(i)->normals[corner]; });
        };
        const auto directionOf = [&](std::size_t corner) {
            return rowsAt([&](int i) { return &record(i)->directions[corner]; });
        };
        const Lanes3 normalBlend = (normalOf(0) * w0 + normalOf(1) * u) + normalOf(2) * v;
        const __m128 normalSquared = dotLanes(normalBlend, normalBlend);
        const Lanes3 normal = normalBlend * _mm_div_ps(one, _mm_sqrt_ps(normalSquared));
        const Lanes3 snapped = point + normal * g.height;
        const Lanes3 toSnapped = snapped - from;
        const __m128 snappedLength = _mm_sqrt_ps(dotLanes(toSnapped, toSnapped));
        const Lanes3 placed = from + select(_mm_cmpgt_ps(snappedLength, _mm_set1_ps(1e-20f)),
                                            toSnapped * _mm_div_ps(one, snappedLength), direction) *
                                         segment;
        constexpr float kSlack = 1e-4f;
        Lanes3 flowBlend = (directionOf(0) * w0 + directionOf(1) * u) + directionOf(2) * v;
        flowBlend = flowBlend - normal * dotLanes(flowBlend, normal);
        const __m128 flowLength = _mm_sqrt_ps(dotLanes(flowBlend, flowBlend));
        const Lanes3 there = flowBlend * _mm_div_ps(one, flowLength);
        const __m128 plain =
            _mm_and_ps(_mm_and_ps(_mm_cmpgt_ps(normalSquared, _mm_set1_ps(1e-20f)),
                                  _mm_cmpge_ps(flowLength, _mm_set1_ps(0.5f))),
                       _mm_and_ps(_mm_and_ps(_mm_cmpge_ps(u, _mm_set1_ps(-kSlack)),
                                             _mm_cmpge_ps(v, _mm_set1_ps(-kSlack))),
                                  _mm_cmple_ps(_mm_add_ps(u, v), _mm_set1_ps(1.0f + kSlack))));
        const int odd = found & ~_mm_movemask_ps(plain);
        const __m128 foundLanes = laneMask(found);
        Lanes3 newNormal = select(foundLanes, normal, g.normal);
        Lanes3 newAlong = select(foundLanes, there, g.along);
        next = select(foundLanes, placed, next);
        if (odd != 0) {
            // Opposed normals or flow the blend can't give: the scalar pieces, lane by lane.
            alignas(16) float rows[9][4];
            const Lanes3* const parts[3] = {&next, &newNormal, &newAlong};
            for (int r = 0; r < 3; ++r) {
                _mm_store_ps(rows[3 * r], parts[r]->x);
                _mm_store_ps(rows[3 * r + 1], parts[r]->y);
                _mm_store_ps(rows[3 * r + 2], parts[r]->z);
            }
            alignas(16) float heights[4], segments[4];
            _mm_store_ps(heights, g.height);
            _mm_store_ps(segments, segment);
            for (int i = 0; i < 4; ++i) {
                if ((odd >> i & 1) == 0) continue;
                ClosestPoint below;
                below.root = {face[i], lu[i], lv[i]};
                below.point = laneOf(point, i);
                StrandRoot at = g.at[i];
                Vec3f normalHere = laneOf(g.normal, i), alongHere = laneOf(g.along, i);
                const Vec3f placedHere =
                    land(at, normalHere, alongHere, heights[i], below, *record(i), laneOf(from, i),
                         laneOf(direction, i), segments[i]);
                const Vec3f values[3] = {placedHere, normalHere, alongHere};
                for (int r = 0; r < 3; ++r) {
                    rows[3 * r][i] = values[r].x;
                    rows[3 * r + 1][i] = values[r].y;
                    rows[3 * r + 2][i] = values[r].z;
                }
            }
            next = {_mm_load_ps(rows[0]), _mm_load_ps(rows[1]), _mm_load_ps(rows[2])};
            newNormal = {_mm_load_ps(rows[3]), _mm_load_ps(rows[4]), _mm_load_ps(rows[5])};
            newAlong = {_mm_load_ps(rows[6]), _mm_load_ps(rows[7]), _mm_load_ps(rows[8])};
        }
        for (int i = 0; i < 4; ++i) {
            if ((found >> i & 1) == 0) continue;
            g.face[i] = face[i];
            g.at[i] = {face[i], lu[i], lv[i]};
        }
        g.normal = newNormal;
        g.along = newAlong;
        Vec3f* const to[4] = {g.walks[0]->out, g.walks[1]->out, g.walks[2]->out, g.walks[3]->out};
        storePointRows(to, k, {next.x, next.y, next.z});
        g.from = next;
    };
#endif

    parallelRange(0, strandCount, 256, [&](std::size_t begin, std::size_t end) {
        std::array<FlowScratch, kInterleaved> scratch;
        std::array<FlowWalk, kInterleaved> walks;
        std::size_t item = begin;
        while (item < end) {
            if (faces && faces->madeAhead()) {
                // The root triangles of the next strands are fetched while these are laid.
                for (std::size_t ahead = item + kInterleaved;
                     ahead < std::min(end, item + 2 * kInterleaved); ++ahead) {
                    const std::size_t s = pick.strand(ahead);
                    if (s < roots.size() && scalp->isOnSurface(roots[s]))
                        faces->prefetch(roots[s].face);
                }
            }
            std::size_t count = 0, longest = 0;
            for (; item < end && count < kInterleaved; ++item) {
                if (!start(pick.strand(item), walks[count], scratch[count])) continue;
                longest = std::max(longest, walks[count].strand.size());
                ++count;
            }
            // Whole sets of four go in lanes as far as the shortest strand among them
            // (`lanesEnd`); the points after it, and the strands left over, one strand at a time.
            std::size_t laned = 0, lanesEnd = 1;
#if VELMORIN_SSE_LANES
            if (faces && faces->madeAhead() && count >= 4) {
                const std::size_t sets = count / 4;
                laned = 4 * sets;
                lanesEnd = walks[0].strand.size();
                for (std::size_t w = 1; w < laned; ++w)
                    lanesEnd = std::min(lanesEnd, walks[w].strand.size());
                std::array<FlowLanes, kInterleaved / 4> lanes;
                for (std::size_t set = 0; set < sets; ++set)
                    lanes[set] = FlowLanes(&walks[4 * set]);
                std::array<LaneStep, kInterleaved / 4> steps;
                for (std::size_t k = 1; k < lanesEnd; ++k) {
                    // The sets' walks take their rounds in turn, so that one set's wait on a
                    // triangle overlaps the others'.
                    for (std::size_t set = 0; set < sets; ++set)
                        laneBegin(lanes[set], k, steps[set]);
                    for (int round = 0;; ++round) {
                        bool walking = false;
                        for (std::size_t set = 0; set < sets; ++set) {
                            if (steps[set].active == 0) continue;
                            laneRound(steps[set], round);
                            walking = walking || steps[set].active != 0;
                        }
                        if (!walking) break;
                    }
                    for (std::size_t set = 0; set < sets; ++set)
                        laneFinish(lanes[set], k, steps[set]);
                }
                for (std::size_t set = 0; set < sets; ++set)
                    lanes[set].handBack();
            }
#endif
            for (std::size_t k = laned == count ? lanesEnd : 1; k < longest; ++k) {
                for (std::size_t w = 0; w < count; ++w) {
                    if (k < walks[w].strand.size() && (w >= laned || k >= lanesEnd))
                        step(walks[w], k);
                }
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
