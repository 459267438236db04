#pragma once
// Per-strand pieces shared by the shape nodes that turn and move whole strands (Bend, Direction,
// Transform, Smooth, Flow): the frame at a strand's root, rotations, arc parameters, the per-strand
// random draws, and the run that redoes either every strand or only the strands an incremental run
// names.

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "graph/eval_context.h"
#include "graph/params.h"
#include "ops/shape_support.h"
#include "strands/strand_root.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;
struct StrandChanges;

// The scene input that carries the groom's flow (a FlowField built on the scene's scalp).
inline constexpr std::string_view kFlowInput = "flow";

inline constexpr float kDegrees = 3.14159265358979f / 180.0f;

// v turned by the angle whose cosine and sine are given about a unit axis (right hand).
inline Vec3f rotateAbout(const Vec3f& v, const Vec3f& axis, float cosA, float sinA) {
    return v * cosA + cross(axis, v) * sinA + axis * (dot(axis, v) * (1.0f - cosA));
}

// The part of `v` in the plane of the unit normal `n`.
inline Vec3f alongSurface(const Vec3f& v, const Vec3f& n) {
    return v - n * dot(v, n);
}

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

// Fills `t` (one entry per point) with each point's share of the strand's arc length, root 0 to
// tip 1, and returns the length. A strand of no length has every t 0.
float arcShares(std::span<const Vec3f> points, std::span<float> t);

// The scene's scalp, or null.
std::shared_ptr<const ScalpMesh> sceneScalp(const EvalContext& ctx);

// Whether each named mapped param reads only the strand it is sampled for, so that an incremental
// run may redo only the changed strands. A field delivered to the param's input and an expression
// map may read the whole set (its longest strand), which rules that out.
bool mapsReadOnlyTheirStrand(const ParamSet& params, const EvalContext& ctx,
                             std::initializer_list<std::string_view> names);

// The strands a kernel works on: all of them, or the listed ones (ascending).
struct StrandPick {
    bool all = true;
    std::span<const std::uint64_t> listed;

    std::size_t size(std::size_t strandCount) const { return all ? strandCount : listed.size(); }
    std::size_t strand(std::size_t item) const { return all ? item : listed[item]; }
};

// One run of a shape node that keeps the layout: its output, a shallow copy of the input whose
// points the kernel rewrites for the picked strands. A full run picks every strand and starts from
// the input's points; an incremental one starts from the previous result's points and picks the
// strands the input changed.
struct ShapeRun {
    std::shared_ptr<const StrandSet> input;
    std::shared_ptr<StrandSet> out;
    StrandPick pick;
};

// The run for `input` (a strand set), full when `incremental` is null. Nothing when an incremental
// run can't be made: no previous result, or changes of everything or of the layout.
std::optional<ShapeRun> beginShapeRun(const Value& input, const IncrementalInputs* incremental);

// Hands the run's set on as `*out` and, for an incremental run, names the strands it redid.
void finishShapeRun(ShapeRun& run, Value* out, StrandChanges* changes);

// The worker of a shape node's full and incremental runs: `kernel(input, points, pick)` rewrites
// the picked strands. Without strands on the input the node hands on what came (nothing). False
// when an incremental run can't be made here and the graph must run the node in full.
template <class Kernel>
bool runShape(const std::vector<Value>& inputs, const IncrementalInputs* incremental, Value* out,
              StrandChanges* changes, Kernel&& kernel) {
    const Value input = inputs.empty() ? Value() : inputs[0];
    std::optional<ShapeRun> run = beginShapeRun(input, incremental);
    if (!run) {
        if (incremental) return false;
        *out = input;
        return true;
    }
    kernel(*run->input, std::span<Vec3f>(run->out->writePoints()), run->pick);
    finishShapeRun(*run, out, changes);
    return true;
}

}  // namespace velmorin
