#include "ops/shape_support_b.h"

#include <cmath>
#include <variant>

#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {

Vec3f scalpUDirection(const ScalpMesh& scalp, std::int32_t face) {
    if (!scalp.hasUvs() || !scalp.isOnSurface({face, 0.0f, 0.0f})) return {};
    const Triangle& corners = scalp.triangles()[static_cast<std::size_t>(face)];
    const std::vector<Vec3f>& points = scalp.points();
    const std::size_t base = static_cast<std::size_t>(face) * 3;
    const Uv& uv0 = scalp.uvs()[base];
    const Uv& uv1 = scalp.uvs()[base + 1];
    const Uv& uv2 = scalp.uvs()[base + 2];
    const Vec3f e1 = points[corners[1]] - points[corners[0]];
    const Vec3f e2 = points[corners[2]] - points[corners[0]];
    const float du1 = uv1.u - uv0.u, dv1 = uv1.v - uv0.v;
    const float du2 = uv2.u - uv0.u, dv2 = uv2.v - uv0.v;
    const float det = du1 * dv2 - du2 * dv1;
    if (std::fabs(det) < 1e-12f) return {};
    // dP/du of the map from UV to the triangle.
    return (e1 * dv2 - e2 * dv1) / det;
}

RootFrame rootFrame(const ScalpMesh* scalp, const StrandRoot& root, TangentFrom from,
                    const Vec3f& direction) {
    RootFrame frame;
    if (!scalp || !scalp->isOnSurface(root)) return frame;
    frame.normal = scalp->normalAt(root);
    if (lengthSquared(frame.normal) < 0.25f) return frame;
    Vec3f tangent;
    if (from != TangentFrom::Direction) {
        const Vec3f u = alongSurface(scalpUDirection(*scalp, root.face), frame.normal);
        if (lengthSquared(u) > 1e-12f) tangent = normalized(u);
    }
    if (lengthSquared(tangent) == 0.0f) {
        if (from == TangentFrom::Triangle) {
            tangent = scalp->frameAt(root).tangent;
        } else {
            const Vec3f laid = alongSurface(direction, frame.normal);
            const float size = length(direction);
            if (size == 0.0f || length(laid) < 1e-6f * size) return frame;
            tangent = normalized(laid);
        }
    }
    frame.tangent = tangent;
    frame.binormal = cross(tangent, frame.normal);
    frame.valid = true;
    return frame;
}

float arcShares(std::span<const Vec3f> points, std::span<float> t) {
    if (points.empty()) return 0.0f;
    t[0] = 0.0f;
    float arc = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k) {
        arc += length(points[k] - points[k - 1]);
        t[k] = arc;
    }
    const float scale = arc > 0.0f ? 1.0f / arc : 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k)
        t[k] *= scale;
    return arc;
}

std::shared_ptr<const ScalpMesh> sceneScalp(const EvalContext& ctx) {
    const SceneInput* input = ctx.sceneInput(kScalpInput);
    return input ? input->value.get<ScalpMesh>() : nullptr;
}

bool mapsReadOnlyTheirStrand(const ParamSet& params, const EvalContext& ctx,
                             std::initializer_list<std::string_view> names) {
    for (const std::string_view name : names) {
        if (ctx.delivered && ctx.delivered->field(name)) return false;
        if (!params.has(name)) continue;
        const auto* map = std::get_if<MapReference>(&params.checked(name));
        if (map && map->source == MapSource::Expression) return false;
    }
    return true;
}

std::optional<ShapeRun> beginShapeRun(const Value& input, const IncrementalInputs* incremental) {
    const auto strands = input.get<StrandSet>();
    if (!strands) return std::nullopt;
    if (!incremental) return ShapeRun{strands, std::make_shared<StrandSet>(*strands), {}};
    const auto previous = incremental->previous.get<StrandSet>();
    if (!previous || incremental->changes.empty()) return std::nullopt;
    const auto& changed = incremental->changes[0];
    if (!changed || changed->all || !changed->sameLayout) return std::nullopt;
    if (previous->pointCount() != strands->pointCount() ||
        previous->strandCount() != strands->strandCount())
        return std::nullopt;
    auto out = std::make_shared<StrandSet>(*strands);
    // The unchanged strands' points are the previous result's; only the picked ones are redone.
    StrandSet before(*previous);
    out->moveColumnFrom(ColumnId::kPoints, before);
    return ShapeRun{strands, std::move(out), StrandPick{false, changed->strands}};
}

void finishShapeRun(ShapeRun& run, Value* out, StrandChanges* changes) {
    if (changes) {
        changes->all = run.pick.all;
        changes->strands.assign(run.pick.listed.begin(), run.pick.listed.end());
        changes->sameLayout = true;
    }
    *out = std::shared_ptr<const StrandSet>(std::move(run.out));
}

}  // namespace velmorin
