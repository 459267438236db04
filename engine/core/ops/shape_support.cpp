#include "ops/shape_support.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <variant>

#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "mesh/scalp_mesh.h"
#include "ops/shape_kernels.h"

namespace velmorin {

ParamSpec shapeParam(std::string name, ParamValue value, std::string description) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(value);
    spec.description = std::move(description);
    spec.animatable = true;
    return spec;
}

ParamSpec fractionParam(std::string name, double value, std::string description) {
    ParamSpec spec = shapeParam(std::move(name), value, std::move(description));
    spec.min = 0.0;
    spec.max = 1.0;
    spec.unit = "fraction";
    return spec;
}

ParamSpec seedParam() {
    ParamSpec spec = shapeParam("seed", std::int64_t{0}, "Random seed");
    spec.unit = "seed";
    spec.animatable = false;
    return spec;
}

ParamSpec profileParam(std::string description) {
    return shapeParam("profile", Ramp{}, std::move(description));
}

float arcLengths(std::span<const Vec3f> points, std::span<float> arcs) {
    float total = 0.0f;
    if (!arcs.empty()) arcs[0] = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k) {
        total += length(points[k] - points[k - 1]);
        arcs[k] = total;
    }
    return total;
}

float arcShares(std::span<const Vec3f> points, std::span<float> t) {
    if (points.empty()) return 0.0f;
    const float total = arcLengths(points, t);
    const float scale = total > 0.0f ? 1.0f / total : 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k)
        t[k] *= scale;
    return total;
}

float strandLength(std::span<const Vec3f> points) {
    float total = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k)
        total += length(points[k] - points[k - 1]);
    return total;
}

Vec3f rotateAbout(const Vec3f& v, const Vec3f& axis, float angle) {
    return rotateAbout(v, axis, std::cos(angle), std::sin(angle));
}

Vec3f anyPerpendicular(const Vec3f& direction) {
    // Crossed with the world axis it leans on least, so the answer is never near zero.
    const Vec3f a{std::fabs(direction.x), std::fabs(direction.y), std::fabs(direction.z)};
    const Vec3f other = a.x <= a.y && a.x <= a.z ? Vec3f{1, 0, 0}
                        : a.y <= a.z             ? Vec3f{0, 1, 0}
                                                 : Vec3f{0, 0, 1};
    return normalized(cross(direction, other), {1, 0, 0});
}

// Each next normal is the last turned by the smallest rotation between the two directions, made
// as two reflections: across the plane square to the sum of the two directions, which takes the
// one to the other reversed, then across the plane square to the new direction. The two planes meet
// along the rotation's axis at half its angle, so together they are that rotation; each frame waits
// on the last through two dot products only, where a rotation about a unit axis needs a square
// root, a division and trigonometry too.
void transportFrames(std::span<const Vec3f> points, std::span<SegmentFrame> frames,
                     Vec3f firstNormal) {
    // How many segments the normal is carried before its length is set back to 1.
    constexpr std::size_t kRenormalizeEvery = 32;
    Vec3f tangent{0, 1, 0};
    // The first segment with a direction starts the frame; any before it share that frame.
    for (std::size_t k = 1; k < points.size(); ++k) {
        const Vec3f d = points[k] - points[k - 1];
        if (lengthSquared(d) > 1e-24f) {
            tangent = normalized(d);
            break;
        }
    }
    Vec3f normal = firstNormal - tangent * dot(firstNormal, tangent);
    normal = lengthSquared(normal) > 1e-12f ? normalized(normal) : anyPerpendicular(tangent);
    for (std::size_t j = 0; j + 1 < points.size(); ++j) {
        const Vec3f d = points[j + 1] - points[j];
        const float dd = lengthSquared(d);
        if (dd > 1e-24f) {
            const Vec3f next = d / std::sqrt(dd);
            const Vec3f sum = tangent + next;
            const float sumSquared = lengthSquared(sum);
            // Reversed on itself the strand has no smallest turn: the normal stays, as it does for
            // a strand that goes on straight.
            if (sumSquared > 1e-12f) {
                const Vec3f reflected = normal - sum * (2.0f * dot(sum, normal) / sumSquared);
                normal = reflected - next * (2.0f * dot(next, reflected));
            }
            tangent = next;
            if (j % kRenormalizeEvery == kRenormalizeEvery - 1) {
                // Rounding drifts the normal over long strands; take it back.
                normal =
                    normalized(normal - tangent * dot(normal, tangent), anyPerpendicular(tangent));
            }
        }
        frames[j] = {tangent, normal, cross(tangent, normal)};
    }
}

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
    return RootFrames(scalp, from).at(root, direction);
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

void copyStrandPoints(const StrandSet& input, std::size_t strand, std::span<Vec3f> out) {
    const StrandSet::PointRange range = input.pointRange(strand);
    const std::span<const Vec3f> from = input.points();
    std::copy_n(from.begin() + static_cast<std::ptrdiff_t>(range.begin), range.count,
                out.begin() + static_cast<std::ptrdiff_t>(range.begin));
}

namespace {

// Gives `set` a column of its own for `apply` to fill, without copying the values it held.
void freshColumn(StrandSet& set, ColumnId column) {
    if (column == ColumnId::kPoints) {
        [[maybe_unused]] std::vector<Vec3f>& points = set.overwritePoints();
#ifndef NDEBUG
        // A point the run forgets to write shows up in every test as NaN.
        std::fill(points.begin(), points.end(), Vec3f{NAN, NAN, NAN});
#endif
    } else if (column == ColumnId::kWidths) {
        [[maybe_unused]] std::vector<float>& widths = set.overwriteWidths();
#ifndef NDEBUG
        std::fill(widths.begin(), widths.end(), NAN);
#endif
    } else {
        assert(false && "a shape run rewrites points or widths only");
    }
}

}  // namespace

bool runInPlace(const std::vector<Value>& inputs, const IncrementalInputs* incremental,
                bool canUpdate, std::span<const ColumnId> columns, const InPlaceApply& apply,
                Value* out, StrandChanges* changes, const WidenChanges& widen,
                const std::vector<std::string_view>* readChannels) {
    const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
    if (!incremental) {
        if (!input) {
            *out = Value();
            return true;
        }
        auto made = std::make_shared<StrandSet>(*input);
        for (const ColumnId column : columns)
            freshColumn(*made, column);
        apply(*input, StrandSelection::every(), *made);
        if (changes) {
            changes->all = true;
            changes->strands.clear();
            changes->sameLayout = true;
        }
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }

    if (!canUpdate || !input || incremental->changes.empty()) return false;
    auto previous = incremental->previous.get<StrandSet>();
    const auto& changed = incremental->changes[0];
    if (!previous || !changed || changed->all || !changed->sameLayout) return false;
    if (previous->strandCount() != input->strandCount() ||
        previous->pointCount() != input->pointCount())
        return false;
    // Every other port input (an axes input) must be unchanged.
    for (std::size_t i = 1; i < incremental->changes.size() && i < inputs.size(); ++i) {
        if (!inputs[i].empty() && (!incremental->changes[i] || incremental->changes[i]->all ||
                                   !incremental->changes[i]->strands.empty()))
            return false;
    }

    for (const ColumnId column : columns) {
        if (column == ColumnId::kWidths && previous->widths().size() != input->pointCount())
            return false;
    }
    auto made = std::make_shared<StrandSet>(*input);
    if (readChannels && changed->onlyOtherChannels(*readChannels)) {
        // Nothing this run reads has changed: its columns are the previous ones, shared (a node
        // after it may hold them too, and nothing writes them), and the strands differ from the
        // previous result exactly as the input differs from its own.
        for (const ColumnId column : columns)
            made->shareColumnFrom(column, *previous);
        *changes = *changed;
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }
    std::vector<std::uint64_t> redo =
        widen ? widen(changed->strands)
              : std::vector<std::uint64_t>(changed->strands.begin(), changed->strands.end());
    if (redo.size() == input->strandCount()) {
        // Every strand is redone, so no previous value is kept: the columns are written whole,
        // into fresh arrays, never into a copy of previous ones that a node after this one may
        // still hold (a Resample sharing the widths). The previous result is let go of first, so
        // that what it alone held goes back to the pool for these arrays.
        previous.reset();
        incremental->takePrevious();
        for (const ColumnId column : columns)
            freshColumn(*made, column);
    } else {
        // The unchanged strands keep the previous result's values; only the listed ones are
        // redone. The previous result is let go of here: where nothing else held it, its columns
        // are now this run's alone and are written in place, else the first write copies them.
        StrandSet before(*previous);
        previous.reset();
        incremental->takePrevious();
        for (const ColumnId column : columns)
            made->moveColumnFrom(column, before);
    }
    apply(*input,
          redo.size() == input->strandCount() ? StrandSelection::every()
                                              : StrandSelection::only(redo),
          *made);
    changes->all = false;
    changes->strands = std::move(redo);
    changes->sameLayout = true;
    *out = std::shared_ptr<const StrandSet>(std::move(made));
    return true;
}

}  // namespace velmorin
