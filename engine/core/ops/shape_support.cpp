#include "ops/shape_support.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numeric>
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
    // The unchanged strands keep the previous result's values; only the listed ones are redone.
    // The previous result is let go of here: where nothing else held it, its columns are now this
    // run's alone and are written in place, else the first write copies them.
    StrandSet before(*previous);
    previous.reset();
    incremental->takePrevious();
    for (const ColumnId column : columns)
        made->moveColumnFrom(column, before);
    if (readChannels && changed->onlyOtherChannels(*readChannels)) {
        // Nothing this run reads has changed: its columns are the previous ones, and the strands
        // differ from the previous result exactly as the input differs from its own.
        *changes = *changed;
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }
    std::vector<std::uint64_t> redo =
        widen ? widen(changed->strands)
              : std::vector<std::uint64_t>(changed->strands.begin(), changed->strands.end());
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

bool clumpsKept(const std::vector<float>& ids, const std::string& channel,
                const IncrementalInputs& incremental) {
    const auto previous = incremental.previous.get<StrandSet>();
    const std::vector<float>* before = previous ? previous->strandChannel(channel) : nullptr;
    if (!before || before->size() != ids.size() || incremental.changes.empty() ||
        !incremental.changes[0] || incremental.changes[0]->all)
        return false;
    for (const std::uint64_t s : incremental.changes[0]->strands)
        if (s >= ids.size() || !((*before)[s] == ids[s])) return false;
    return true;
}

ClumpAxes clumpAxes(const StrandSet& strands, const std::vector<float>& channel) {
    constexpr std::size_t kPoints = ClumpAxes::kAxisPoints;
    const std::size_t strandCount = strands.strandCount();
    ClumpAxes axes;

    // Clumps numbered in the order of their channel values, so that the numbering is the same at
    // every thread count and for every strand order. Strands mostly come grouped by clump already
    // (Clump numbers them in order): then the strands stand in their own order, and neither an
    // order nor a sort, which would leave it so, is made.
    const bool grouped = std::is_sorted(channel.begin(), channel.end());
    std::vector<std::uint32_t> order;
    if (!grouped) {
        order.resize(strandCount);
        std::iota(order.begin(), order.end(), 0u);
        const auto before = [&](std::uint32_t a, std::uint32_t b) {
            return channel[a] < channel[b];
        };
        std::stable_sort(order.begin(), order.end(), before);
    }
    const auto strandAt = [&](std::size_t i) -> std::size_t { return grouped ? i : order[i]; };
    const auto startsClump = [&](std::size_t i) {
        return i == 0 || !(channel[strandAt(i)] == channel[strandAt(i - 1)]);
    };
    axes.clumpOf.resize(strandCount);
    // Where each clump starts in that order: the starts are counted a stretch at a time in
    // parallel, then numbered from the counts of the stretches before.
    constexpr std::size_t kStretch = 1 << 16;
    const std::size_t stretches = (strandCount + kStretch - 1) / kStretch;
    std::vector<std::uint32_t> startsBefore(stretches + 1, 0);
    parallelRange(0, stretches, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            std::uint32_t count = 0;
            for (std::size_t i = r * kStretch; i < std::min(strandCount, (r + 1) * kStretch); ++i)
                count += startsClump(i) ? 1 : 0;
            startsBefore[r + 1] = count;
        }
    });
    for (std::size_t r = 0; r < stretches; ++r)
        startsBefore[r + 1] += startsBefore[r];
    std::vector<std::uint32_t> firstOf(startsBefore[stretches]);  // where each clump starts
    parallelRange(0, stretches, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            std::uint32_t clumps = startsBefore[r];
            for (std::size_t i = r * kStretch; i < std::min(strandCount, (r + 1) * kStretch); ++i) {
                if (startsClump(i)) firstOf[clumps++] = static_cast<std::uint32_t>(i);
                axes.clumpOf[strandAt(i)] = clumps - 1;
            }
        }
    });
    axes.clumpCount = firstOf.size();
    firstOf.push_back(static_cast<std::uint32_t>(strandCount));
    axes.points.assign(axes.clumpCount * kPoints, Vec3f{});
    axes.arcs.assign(axes.clumpCount * kPoints, 0.0f);

    const std::vector<float>* preview = strands.strandChannel("_preview");
    const std::span<const std::uint64_t> offsets = strands.offsets();
    const std::span<const Vec3f> allPoints = strands.points();
    parallelRange(0, axes.clumpCount, 256, [&](std::size_t begin, std::size_t end) {
        std::vector<float> arcs;
        for (std::size_t c = begin; c < end; ++c) {
            Vec3f sum[kPoints] = {};
            std::size_t used = 0;
            // Core strands first; a clump with none takes all of its strands.
            for (int pass = 0; pass < 2 && used == 0; ++pass) {
                for (std::uint32_t i = firstOf[c]; i < firstOf[c + 1]; ++i) {
                    const std::size_t s = strandAt(i);
                    if (pass == 0 && preview && (*preview)[s] != 1.0f) continue;
                    const std::span<const Vec3f> points =
                        allPoints.subspan(offsets[s], offsets[s + 1] - offsets[s]);
                    if (points.empty()) continue;
                    arcs.resize(points.size());
                    // arcLengths, with the square roots four at a time.
                    segmentLengths(points, arcs);
                    arcs[0] = 0.0f;
                    float total = 0.0f;
                    for (std::size_t k = 1; k < points.size(); ++k) {
                        total += arcs[k];
                        arcs[k] = total;
                    }
                    std::size_t segment = 0;
                    for (std::size_t k = 0; k < kPoints; ++k) {
                        const float share = static_cast<float>(k) / (kPoints - 1);
                        sum[k] += pointAtArc(points, arcs, share * total, segment);
                    }
                    ++used;
                }
            }
            Vec3f* axis = axes.points.data() + c * kPoints;
            float* arc = axes.arcs.data() + c * kPoints;
            for (std::size_t k = 0; k < kPoints; ++k) {
                axis[k] = used ? sum[k] / static_cast<float>(used) : Vec3f{};
                arc[k] = k == 0 ? 0.0f : arc[k - 1] + length(axis[k] - axis[k - 1]);
            }
        }
    });
    return axes;
}

std::vector<std::uint64_t> strandsOfClumps(const ClumpAxes& axes,
                                           std::span<const std::uint64_t> strands) {
    std::vector<std::uint8_t> touched(axes.clumpCount, 0);
    for (const std::uint64_t s : strands)
        touched[axes.clumpOf[s]] = 1;
    std::vector<std::uint64_t> all;
    for (std::size_t s = 0; s < axes.clumpOf.size(); ++s)
        if (touched[axes.clumpOf[s]]) all.push_back(s);
    return all;
}

}  // namespace velmorin
