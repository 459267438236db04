#pragma once
// What the shape operators share: param records, arc lengths and points at an arc along one
// strand, the per-strand random draws, turns about an axis, frames carried along a strand and the
// frame at its root on the scalp, the axes of clumps, and the run that rewrites columns of the
// input, for every strand or, incrementally, for the strands that changed upstream.

#include <algorithm>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/vec3.h"
#include "graph/eval_context.h"
#include "graph/operator.h"
#include "graph/params.h"
#include "graph/value.h"
#include "strands/strand_changes.h"
#include "strands/strand_root.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;

// The scene input that carries the groom's flow (a FlowField built on the scene's scalp).
inline constexpr std::string_view kFlowInput = "flow";

inline constexpr float kDegrees = 3.14159265358979f / 180.0f;

// Param records the shape operators declare alike: a float held to 0-1 with the unit "fraction",
// the animatable-free `seed`, and a ramp along the length (no keys: 1 everywhere).
ParamSpec shapeParam(std::string name, ParamValue value, std::string description);
ParamSpec fractionParam(std::string name, double value, std::string description);
ParamSpec seedParam();
ParamSpec profileParam(std::string description);

// Fills arcs[k] with the arc length from the root to point k (arcs.size() == points.size()) and
// returns the strand's length; 0 for fewer than 2 points.
float arcLengths(std::span<const Vec3f> points, std::span<float> arcs);
float strandLength(std::span<const Vec3f> points);

// Fills `t` (one entry per point) with each point's share of the strand's arc length, root 0 to
// tip 1, and returns the length. A strand of no length has every t 0.
float arcShares(std::span<const Vec3f> points, std::span<float> t);

// Walks forward along a polyline to arc `s` (clamped to the ends). `segment` holds where the last
// call stopped and moves on from there, so that increasing arcs cost one pass over the strand.
// Inline: it runs once per point in the hottest loops.
inline Vec3f pointAtArc(std::span<const Vec3f> points, std::span<const float> arcs, float s,
                        std::size_t& segment) {
    const std::size_t last = points.size() - 1;
    if (last == 0 || s <= 0.0f) return points[0];
    if (s >= arcs[last]) return points[last];
    while (segment + 1 < last && arcs[segment + 1] < s)
        ++segment;
    const float span = arcs[segment + 1] - arcs[segment];
    const float f = span > 0.0f ? (s - arcs[segment]) / span : 0.0f;
    return lerp(points[segment], points[segment + 1], std::clamp(f, 0.0f, 1.0f));
}

// pointAtArc with each segment's inverse length (0 for a segment of none) made beforehand, in
// place of a division per point.
inline Vec3f pointAtArcByInverse(std::span<const Vec3f> points, std::span<const float> arcs,
                                 const float* inverse, float s, std::size_t& segment) {
    const std::size_t last = points.size() - 1;
    if (last == 0 || s <= 0.0f) return points[0];
    if (s >= arcs[last]) return points[last];
    while (segment + 1 < last && arcs[segment + 1] < s)
        ++segment;
    const float f = (s - arcs[segment]) * inverse[segment];
    return lerp(points[segment], points[segment + 1], std::clamp(f, 0.0f, 1.0f));
}

// The random draws of one strand: the first is unitFloat(h) with h = hashCombine(id, seed), the
// k-th further one hashes h once more with k (h = hashCombine(h, k)), so a draw never depends on
// the strand's index.
class StrandDraws {
  public:
    StrandDraws(std::uint64_t id, std::uint64_t seed) : hash_(hashCombine(id, seed)) {}
    // No strand yet, for arrays of draws: assign one made for a strand before drawing.
    StrandDraws() = default;
    // The next draw in [0, 1).
    float next() {
        if (drawn_ > 0) hash_ = hashCombine(hash_, drawn_);
        ++drawn_;
        return unitFloat(hash_);
    }
    // The next draw in [-1, 1).
    float nextSigned() { return 2.0f * next() - 1.0f; }

  private:
    std::uint64_t hash_ = 0;
    std::uint64_t drawn_ = 0;
};

// v turned about the unit vector `axis` (right-handed) by the angle whose cosine and sine are
// given, or by `angle` radians.
inline Vec3f rotateAbout(const Vec3f& v, const Vec3f& axis, float cosA, float sinA) {
    return v * cosA + cross(axis, v) * sinA + axis * (dot(axis, v) * (1.0f - cosA));
}
Vec3f rotateAbout(const Vec3f& v, const Vec3f& axis, float angle);

// The part of `v` in the plane of the unit normal `n`.
inline Vec3f alongSurface(const Vec3f& v, const Vec3f& n) {
    return v - n * dot(v, n);
}

// A unit vector perpendicular to the unit vector `direction`, the same for the same direction.
Vec3f anyPerpendicular(const Vec3f& direction);

// Frames carried along a strand by parallel transport: one per segment (points.size() - 1 of
// them), the first normal perpendicular to the first segment, each next one the last turned by the
// smallest rotation from one segment's direction to the next. A segment of zero length takes the
// frame before it. `firstNormal`, when not zero, sets the first normal (projected off the first
// segment).
struct SegmentFrame {
    Vec3f tangent;
    Vec3f normal;
    Vec3f binormal;
};
void transportFrames(std::span<const Vec3f> points, std::span<SegmentFrame> frames,
                     Vec3f firstNormal = {});

// The frame at a strand's root: the scalp's normal there, a tangent in the surface and the
// binormal tangent x normal (x along the tangent, y the normal, z across, as the scalp's frames).
struct RootFrame {
    Vec3f normal;
    Vec3f tangent;
    Vec3f binormal;
    bool valid = false;
};

// Where a root frame's tangent points.
enum class TangentFrom {
    U,          // the scalp's U direction (its UVs), else the given direction laid on the scalp
    Direction,  // the given direction laid onto the scalp
    Triangle,   // the scalp's U direction, else the triangle's own frame (ScalpMesh::frameAt)
};

// The frame at `root` on `scalp`. Invalid when there is no scalp, the root is off it, or the
// tangent has no direction: a direction laid onto the scalp that is shorter than 1e-6 of itself
// (a direction along the normal) has none.
RootFrame rootFrame(const ScalpMesh* scalp, const StrandRoot& root, TangentFrom from,
                    const Vec3f& direction);

// The direction of growing U on a triangle of the scalp, in world space (not unit length); zero
// without UVs or on a triangle whose UVs have no area.
Vec3f scalpUDirection(const ScalpMesh& scalp, std::int32_t face);

// The scene's scalp, or null.
std::shared_ptr<const ScalpMesh> sceneScalp(const EvalContext& ctx);

// Which strands a run redoes: every one, or a list of ascending indices.
struct StrandSelection {
    bool all = true;
    std::span<const std::uint64_t> listed;

    static StrandSelection every() { return {}; }
    static StrandSelection only(std::span<const std::uint64_t> strands) { return {false, strands}; }
    std::size_t size(std::size_t strandCount) const { return all ? strandCount : listed.size(); }
    std::size_t strand(std::size_t i) const { return all ? i : listed[i]; }
};

// Runs chunk(first, last) in parallel over [0, selection.size(strandCount)) in chunks of 256; the
// strand of item i is selection.strand(i). Scratch space belongs in the chunk body.
template <class Chunk>
void forSelectedChunks(std::size_t strandCount, const StrandSelection& selection,
                       const Chunk& chunk) {
    parallelRange(0, selection.size(strandCount), 256,
                  [&](std::size_t first, std::size_t last) { chunk(first, last); });
}

// Writes the strand's points into `out` (a point column of the input's layout) as they came.
void copyStrandPoints(const StrandSet& input, std::size_t strand, std::span<Vec3f> out);

// The run of a shape operator that keeps its input's layout and rewrites columns of it. Full:
// `apply(input, every, out)` on a copy of the input whose `columns` are fresh arrays of unspecified
// values (nothing is copied only to be overwritten). Incremental (`incremental` set): when the
// strands input's changes name some strands, the layout is the same, every other input is
// unchanged and `canUpdate` is true, `out` is a copy of the input holding the previous result's
// `columns`, and `apply` redoes the changed strands only; the result names them. `widen`, where
// given, turns the changed strands into those to redo (strands that move with a changed one).
// Without strands on the input the result is nothing. Returns false where an incremental run can't
// be made; a full run returns true. `apply` must write every value of `columns` for each strand it
// is given, through the write accessors of `out` (which copy nothing then).
using InPlaceApply =
    std::function<void(const StrandSet& input, const StrandSelection& selection, StrandSet& out)>;
// `readChannels`, where given, names every channel `apply` reads besides the input's points and
// widths (its mapped params' included): when the changes upstream touch only other channels, the
// previous result's `columns` stand as they are and the run redoes nothing, handing on the input's
// changes.
using WidenChanges = std::function<std::vector<std::uint64_t>(std::span<const std::uint64_t>)>;
bool runInPlace(const std::vector<Value>& inputs, const IncrementalInputs* incremental,
                bool canUpdate, std::span<const ColumnId> columns, const InPlaceApply& apply,
                Value* out, StrandChanges* changes, const WidenChanges& widen = {},
                const std::vector<std::string_view>* readChannels = nullptr);

// runInPlace for the usual shape node, which rewrites only the points, through
// `shape(input, settings, selection, points)`.
template <class Settings>
bool reshapePoints(
    const std::vector<Value>& inputs, const IncrementalInputs* incremental, bool canUpdate,
    void (*shape)(const StrandSet&, const Settings&, const StrandSelection&, std::span<Vec3f>),
    const Settings& settings, Value* out, StrandChanges* changes, const WidenChanges& widen = {}) {
    constexpr ColumnId kColumns[] = {ColumnId::kPoints};
    return runInPlace(
        inputs, incremental, canUpdate, kColumns,
        [&](const StrandSet& from, const StrandSelection& selection, StrandSet& made) {
            shape(from, settings, selection, made.writePoints());
        },
        out, changes, widen);
}

// A shape node: its full and incremental evaluations are one `run`, which with `incremental` null
// is the full run (it always succeeds) and otherwise may decline, as runInPlace does.
class ShapeOperator : public Operator {
  public:
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const final {
        Value out;
        StrandChanges changes;
        run(ctx, inputs, nullptr, &out, &changes);
        return out;
    }
    bool evaluateIncremental(const EvalContext& ctx, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const final {
        return run(ctx, inputs, &incremental, out, changes);
    }

  protected:
    virtual bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
                     const IncrementalInputs* incremental, Value* out,
                     StrandChanges* changes) const = 0;
};

// Whether each named mapped param reads only the strand it is sampled for, so that an incremental
// run may redo only the changed strands. A field delivered to the param's input and an expression
// map may read the whole set (an expression of the longest strand, say), which rules that out.
bool mapsReadOnlyTheirStrand(const ParamSet& params, const EvalContext& ctx,
                             std::initializer_list<std::string_view> names);

// The axes of clumps: for each clump (the strands sharing one value of a strand channel), the mean
// of its core strands (those every preview holds: `_preview` 1 or no such channel), sampled at
// `kAxisPoints` points at equal shares of each strand's length, with the arc along the mean.
struct ClumpAxes {
    static constexpr std::size_t kAxisPoints = 17;
    std::vector<std::uint32_t> clumpOf;  // per strand: its clump
    std::vector<Vec3f> points;           // kAxisPoints per clump
    std::vector<float> arcs;             // kAxisPoints per clump
    std::size_t clumpCount = 0;

    std::span<const Vec3f> axisPoints(std::size_t clump) const {
        return std::span<const Vec3f>(points).subspan(clump * kAxisPoints, kAxisPoints);
    }
    std::span<const float> axisArcs(std::size_t clump) const {
        return std::span<const float>(arcs).subspan(clump * kAxisPoints, kAxisPoints);
    }
};
// Groups the strands by `channel` (which the set must have) and makes each clump's axis; a clump
// with no core strand takes the mean of all its strands. Two parallel passes, the same bits at
// any thread count.
ClumpAxes clumpAxes(const StrandSet& strands, const std::vector<float>& channel);

// Whether every changed strand kept its clump (its value of `channel`, `ids` now): one that moved
// to another would change its old clump's axis too, which only the previous result can tell.
bool clumpsKept(const std::vector<float>& ids, const std::string& channel,
                const IncrementalInputs& incremental);

// Every strand of the clumps that hold one of `strands` (ascending): what an incremental run must
// redo when a change to one strand moves its clump's axis.
std::vector<std::uint64_t> strandsOfClumps(const ClumpAxes& axes,
                                           std::span<const std::uint64_t> strands);

}  // namespace velmorin
