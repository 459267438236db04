#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <numbers>

#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/arc_walk_lanes.h"
#include "ops/shape_ops.h"

namespace velmorin {
namespace {

constexpr float kRadiansPerDegree = std::numbers::pi_v<float> / 180.0f;

// What decides one strand's resampling.
struct StrandPlan {
    bool kept = false;  // passes as it is
    std::uint32_t segments = 0;
};

// Reads what every strand's plan needs once per run: braid marks and, for the length mode, the
// longest strand.
class Planner {
  public:
    Planner(const StrandSet& input, const ResampleSettings& settings)
        : input_(input), settings_(settings), braid_(input.strandChannel("braidId")) {
        braidDefault_ = input.channelDefault("braidId");
        fewest_ = static_cast<std::uint32_t>(
            std::clamp(settings.minSegments, 1, std::max(settings.segments, 1)));
        if (settings.mode == ResampleMode::Length) {
            std::vector<float> lengths(input.strandCount());
            parallelRange(0, input.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s)
                    lengths[s] = strandLength(input.strandPoints(s));
            });
            for (const float l : lengths)
                longest_ = std::max(longest_, l);
        }
    }

    // Whether strand s is braided: it keeps the points its weave is drawn with.
    bool braided(std::size_t s) const { return braid_ && (*braid_)[s] != braidDefault_; }

    // `arcs` is scratch for the strand's arcs, `placed` for the curvature walk's.
    StrandPlan plan(std::size_t s, std::vector<float>& arcs, std::vector<float>& placed) const {
        const std::span<const Vec3f> points = input_.strandPoints(s);
        const std::size_t n = points.size();
        // A braid keeps the points its weave is drawn with.
        const bool braided = braid_ && (*braid_)[s] != braidDefault_;
        if (settings_.segments <= 0 || n < 2 || braided) return {true, 0};
        arcs.resize(n);
        const float total = arcLengths(points, arcs);
        if (!(total > 0.0f)) return {true, 0};
        const auto most = static_cast<std::uint32_t>(settings_.segments);
        switch (settings_.mode) {
            case ResampleMode::Even:
                return {false, most};
            case ResampleMode::Length: {
                const float share = longest_ > 0.0f ? total / longest_ : 1.0f;
                const auto segments = static_cast<std::uint32_t>(std::lround(share * most));
                return {false, std::clamp(segments, fewest_, most)};
            }
            case ResampleMode::Curvature:
                curvatureArcs(points, arcs, placed);
                return {false,
                        std::clamp(static_cast<std::uint32_t>(placed.size() - 1), fewest_, most)};
        }
        return {true, 0};
    }

    // The point count plan() decides, without the arc lengths where the mode needs none: an even
    // strand is kept only when its length is not above 0, and a sum of square roots of squared
    // segment lengths is above 0 exactly when one squared length is and none is not a number.
    std::size_t pointCount(std::size_t s, std::vector<float>& arcs,
                           std::vector<float>& placed) const {
        if (settings_.mode != ResampleMode::Even) {
            const StrandPlan made = plan(s, arcs, placed);
            return made.kept ? input_.pointRange(s).count : std::size_t{made.segments} + 1;
        }
        const std::span<const Vec3f> points = input_.strandPoints(s);
        const std::size_t n = points.size();
        const bool braided = braid_ && (*braid_)[s] != braidDefault_;
        if (settings_.segments <= 0 || n < 2 || braided) return n;
        // A strand that has the even count already keeps it whether it is resampled or kept, so
        // its points need no reading (the strands a Scatter grows for this Resample).
        if (n == static_cast<std::size_t>(settings_.segments) + 1) return n;
        bool measured = false;
        bool unmeasurable = false;
        for (std::size_t k = 1; k < n; ++k) {
            const float squared = lengthSquared(points[k] - points[k - 1]);
            measured |= squared > 0.0f;
            unmeasurable |= std::isnan(squared);
        }
        if (!measured || unmeasurable) return n;
        return static_cast<std::size_t>(settings_.segments) + 1;
    }

    // The arcs of the points the curvature walk places: the root, every point where the strand
    // has turned by maxAngle since the last placed one, and the tip.
    void curvatureArcs(std::span<const Vec3f> points, std::span<const float> arcs,
                       std::vector<float>& placed) const {
        const float limit = settings_.maxAngle * kRadiansPerDegree;
        placed.assign(1, 0.0f);
        float turned = 0.0f;
        for (std::size_t k = 1; k + 1 < points.size(); ++k) {
            const Vec3f before = normalized(points[k] - points[k - 1]);
            const Vec3f after = normalized(points[k + 1] - points[k]);
            turned += std::atan2(length(cross(before, after)), dot(before, after));
            if (turned >= limit) {
                placed.push_back(arcs[k]);
                turned = 0.0f;
            }
        }
        placed.push_back(arcs[points.size() - 1]);
    }

  private:
    const StrandSet& input_;
    const ResampleSettings& settings_;
    const std::vector<float>* braid_;
    float braidDefault_ = 0.0f;
    std::uint32_t fewest_ = 1;
    float longest_ = 0.0f;
};

// Makes `placed` hold segments + 1 arcs: too few, the longest span is halved until there are
// enough; too many, they give way to equal steps.
void fitArcs(std::vector<float>& placed, std::uint32_t segments, float total) {
    if (placed.size() > segments + 1) {
        placed.resize(segments + 1);
        for (std::uint32_t k = 0; k <= segments; ++k)
            placed[k] = total * static_cast<float>(k) / static_cast<float>(segments);
        return;
    }
    while (placed.size() < segments + 1) {
        std::size_t widest = 1;
        for (std::size_t k = 2; k < placed.size(); ++k)
            if (placed[k] - placed[k - 1] > placed[widest] - placed[widest - 1]) widest = k;
        placed.insert(placed.begin() + static_cast<std::ptrdiff_t>(widest),
                      0.5f * (placed[widest - 1] + placed[widest]));
    }
}

}  // namespace

std::vector<std::uint32_t> resamplePointCounts(const StrandSet& input,
                                               const ResampleSettings& settings) {
    const Planner planner(input, settings);
    std::vector<std::uint32_t> counts(input.strandCount());
    parallelRange(0, input.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
        std::vector<float> arcs, placed;
        for (std::size_t s = begin; s < end; ++s)
            counts[s] = static_cast<std::uint32_t>(planner.pointCount(s, arcs, placed));
    });
    return counts;
}

bool widthsStayAlongStrands(const StrandSet& input) {
    const std::span<const float> widths = input.widths();
    if (widths.size() != input.pointCount()) return false;
    const std::span<const std::uint64_t> offsets = input.offsets();
    std::atomic<bool> stay{true};
    parallelRange(0, input.strandCount(), 256, [&](std::size_t first, std::size_t last) {
        if (!stay.load(std::memory_order_relaxed)) return;
        bool same = true;
        for (std::size_t s = first; s < last; ++s) {
            const float* w = widths.data() + offsets[s];
            const std::size_t n = offsets[s + 1] - offsets[s];
            if (n == 0) continue;
            const std::uint32_t bits = std::bit_cast<std::uint32_t>(w[0]);
            same = same && std::isfinite(w[0]) && bits != 0x80000000u;
            for (std::size_t k = 1; k < n; ++k)
                same = same && std::bit_cast<std::uint32_t>(w[k]) == bits;
        }
        if (!same) stay.store(false, std::memory_order_relaxed);
    });
    return stay.load();
}

void resampleInto(const StrandSet& input, const ResampleSettings& settings,
                  const StrandSelection& selection, StrandSet& out, bool widthsKept) {
    const Planner planner(input, settings);
    const std::span<const float> widthsIn = input.widths();
    const bool hasWidths = widthsIn.size() == input.pointCount();
    std::vector<Vec3f>& points = out.writePoints();
    // Kept widths are read from nowhere and written nowhere: the walk carries none.
    float* const widths = widthsKept ? nullptr : out.writeWidths().data();
    const bool carryWidths = hasWidths && !widthsKept;
    const std::vector<std::string> names = input.pointChannelNames();
    std::vector<const std::vector<float>*> channelsIn;
    std::vector<std::vector<float>*> channelsOut;
    for (const std::string& name : names) {
        channelsIn.push_back(input.pointChannel(name));
        channelsOut.push_back(&out.addPointChannel(name, input.pointChannelDefault(name)));
    }
    const std::span<const std::uint64_t> offsets = out.offsets();

    // Even strands of one point count in and out go through the lanes, eight at a time, where no
    // point channel needs the walk's segments noted.
    const std::size_t lanePoints = static_cast<std::size_t>(settings.segments) + 1;
    const bool lanes = arcWalkLanesUsable() && settings.mode == ResampleMode::Even &&
                       names.empty() && settings.segments >= 1 && lanePoints <= kArcWalkMostPoints;
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        std::vector<float> arcs, placed;
        std::vector<std::uint32_t> segmentAt;
        std::vector<float> fractionAt;
        // The one-strand walk, for strands the lanes do not take.
        const auto resampleOne = [&](std::size_t s) {
            const StrandSet::PointRange from = input.pointRange(s);
            const std::size_t to = offsets[s];
            const std::size_t count = offsets[s + 1] - to;
            const StrandPlan plan = planner.plan(s, arcs, placed);
            if (plan.kept) {
                for (std::size_t k = 0; k < count; ++k) {
                    points[to + k] = input.points()[from.begin + k];
                    if (widths) widths[to + k] = hasWidths ? widthsIn[from.begin + k] : 1.0f;
                    for (std::size_t c = 0; c < names.size(); ++c)
                        (*channelsOut[c])[to + k] = (*channelsIn[c])[from.begin + k];
                }
                return;
            }
            const std::span<const Vec3f> strand = input.strandPoints(s);
            const float total = arcs[strand.size() - 1];
            if (settings.mode == ResampleMode::Curvature) {
                fitArcs(placed, plan.segments, total);
            } else {
                placed.resize(plan.segments + 1);
                for (std::uint32_t k = 0; k <= plan.segments; ++k)
                    placed[k] = total * static_cast<float>(k) / static_cast<float>(plan.segments);
            }
            // Where each new point lies on the old polyline; points and widths are written in the
            // same walk, the other columns from what it noted.
            const bool noted = !names.empty();
            if (noted) {
                segmentAt.resize(count);
                fractionAt.resize(count);
            }
            const float* widthsFrom = carryWidths ? widthsIn.data() + from.begin : nullptr;
            Vec3f* pointsTo = points.data() + to;
            float* widthsTo = widths ? widths + to : nullptr;
            const std::size_t lastSegment = strand.size() - 2;
            std::size_t segment = 0;
            for (std::size_t k = 0; k < count; ++k) {
                const float arc = std::clamp(placed[k], 0.0f, total);
                while (segment < lastSegment && arcs[segment + 1] < arc)
                    ++segment;
                const float span = arcs[segment + 1] - arcs[segment];
                const float fraction =
                    span > 0.0f ? std::clamp((arc - arcs[segment]) / span, 0.0f, 1.0f) : 0.0f;
                pointsTo[k] = lerp(strand[segment], strand[segment + 1], fraction);
                if (widthsTo)
                    widthsTo[k] =
                        widthsFrom ? widthsFrom[segment] +
                                         (widthsFrom[segment + 1] - widthsFrom[segment]) * fraction
                                   : 1.0f;
                if (noted) {
                    segmentAt[k] = static_cast<std::uint32_t>(segment);
                    fractionAt[k] = fraction;
                }
            }
            // The root and the tip exactly, whatever the rounding of the walk.
            pointsTo[0] = strand.front();
            pointsTo[count - 1] = strand.back();
            const auto lerpColumn = [&](std::span<const float> column, std::vector<float>& target) {
                for (std::size_t k = 0; k < count; ++k) {
                    const std::size_t at = from.begin + segmentAt[k];
                    target[to + k] = column[at] + (column[at + 1] - column[at]) * fractionAt[k];
                }
            };
            for (std::size_t c = 0; c < names.size(); ++c)
                lerpColumn(*channelsIn[c], *channelsOut[c]);
        };
        // Strands for the lanes wait here until there are enough of one point count.
        std::size_t waiting[kArcWalkLanes];
        std::size_t waitingCount = 0;
        std::size_t waitingPoints = 0;
        const auto resampleWaiting = [&] {
            for (std::size_t l = 0; l < waitingCount; ++l)
                resampleOne(waiting[l]);
            waitingCount = 0;
        };
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::size_t n = input.pointRange(s).count;
            if (!lanes || n < 2 || n > kArcWalkMostPoints ||
                offsets[s + 1] - offsets[s] != lanePoints || planner.braided(s)) {
                resampleOne(s);
                continue;
            }
            if (waitingCount > 0 && n != waitingPoints) resampleWaiting();
            waitingPoints = n;
            waiting[waitingCount] = s;
            if (++waitingCount < kArcWalkLanes) continue;
            const Vec3f* from[kArcWalkLanes];
            const float* widthsFrom[kArcWalkLanes];
            Vec3f* to[kArcWalkLanes];
            float* widthsTo[kArcWalkLanes];
            for (std::size_t l = 0; l < kArcWalkLanes; ++l) {
                const std::size_t begin = input.pointRange(waiting[l]).begin;
                from[l] = input.points().data() + begin;
                widthsFrom[l] = carryWidths ? widthsIn.data() + begin : nullptr;
                to[l] = points.data() + offsets[waiting[l]];
                widthsTo[l] = widths ? widths + offsets[waiting[l]] : nullptr;
            }
            const unsigned kept = resampleLanes(from, carryWidths ? widthsFrom : nullptr, n,
                                                static_cast<std::uint32_t>(settings.segments), to,
                                                widths ? widthsTo : nullptr);
            // A strand of no length is kept as it came: its lane is redone alone.
            for (std::size_t l = 0; l < kArcWalkLanes; ++l)
                if (kept & (1u << l)) resampleOne(waiting[l]);
            waitingCount = 0;
        }
        resampleWaiting();
    });
}

StrandSet resampleStrands(const StrandSet& input, const ResampleSettings& settings) {
    const std::vector<std::uint32_t> counts = resamplePointCounts(input, settings);
    StrandSet out(input);
    // Where every strand keeps its count the input's offsets stand, shared.
    const std::span<const std::uint64_t> before = input.offsets();
    bool sameCounts = true;
    for (std::size_t s = 0; s < counts.size() && sameCounts; ++s)
        sameCounts = before[s + 1] - before[s] == counts[s];
    if (!sameCounts) {
        std::vector<std::uint64_t>& offsets = out.writeOffsets();
        offsets.assign(counts.size() + 1, 0);
        for (std::size_t s = 0; s < counts.size(); ++s)
            offsets[s + 1] = offsets[s] + counts[s];
    }
    const std::size_t total = out.offsets().back();
    // Widths that the walk gives back as they are (one width along each strand, as Width without
    // a profile writes them) stay the input's column, shared, where every strand keeps its count.
    const bool widthsKept = sameCounts && widthsStayAlongStrands(input);
    // resampleInto writes every value: the points and widths are fresh arrays of the new length
    // (pooled ones where the pool kept them), neither copied from the input nor zeroed.
    out.overwritePoints(total);
    if (!widthsKept) out.overwriteWidths(total);
    for (const std::string& name : input.pointChannelNames())
        out.addPointChannel(name, input.pointChannelDefault(name)).resize(total);
    resampleInto(input, settings, StrandSelection::every(), out, widthsKept);
    return out;
}

namespace {

ResampleMode modeNamed(const std::string& mode) {
    if (mode == "even") return ResampleMode::Even;
    if (mode == "length") return ResampleMode::Length;
    if (mode == "curvature") return ResampleMode::Curvature;
    throw GraphError("Resample: mode must be even, length or curvature");
}

// Evens out the points along each strand.
class ResampleOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Resample"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec segments =
            shapeParam("segments", std::int64_t{16},
                       "Segments per strand (points = segments + 1); every Scatter before it grows "
                       "its strands with them (the most any Resample after it, on the way to the "
                       "Output, asks for). 0: keep each strand's. Braided strands keep the points "
                       "their weave is drawn with (Braid's resolution)");
        // 0 keeps strands, so the hard range starts there; the slider starts at 2.
        segments.min = 0.0;
        segments.max = 1024.0;
        segments.softMin = 2.0;
        segments.softMax = 64.0;
        // It sets how many points Scatters grow, which must stay the same on every frame.
        segments.animatable = false;
        ParamSpec mode = shapeParam("mode", std::string("even"),
                                    "even: segments for every strand; curvature: fewer points for "
                                    "render and export, fewer for straighter strands, placed where "
                                    "they bend; length: fewer for shorter strands");
        mode.choices = {"even", "length", "curvature"};
        mode.animatable = false;
        ParamSpec fewest =
            shapeParam("minSegments", std::int64_t{3},
                       "With length or curvature: the fewest segments a strand gets");
        fewest.min = 1.0;
        fewest.softMax = 16.0;
        fewest.animatable = false;
        fewest.showWhen = ShowWhen{
            "mode", {ParamValue(std::string("length")), ParamValue(std::string("curvature"))}};
        ParamSpec angle = shapeParam("maxAngle", 15.0,
                                     "With curvature: about how far (degrees) a strand may turn "
                                     "per segment; smaller keeps curls rounder with more points");
        angle.min = 0.5;
        angle.max = 45.0;
        angle.unit = "angle";
        angle.animatable = false;
        angle.showWhen = ShowWhen{"mode", {ParamValue(std::string("curvature"))}};
        return {segments, mode, fewest, angle};
    }

  private:
    bool run(const EvalContext&, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        ResampleSettings settings;
        settings.segments = static_cast<int>(paramSet.getInt("segments", 16));
        settings.mode = modeNamed(paramSet.getString("mode", "even"));
        settings.minSegments = static_cast<int>(paramSet.getInt("minSegments", 3));
        settings.maxAngle = static_cast<float>(paramSet.getFloat("maxAngle", 15.0));
        if (!input || settings.segments <= 0) {
            if (incremental) return false;
            *out = inputs.empty() ? Value() : inputs[0];
            return true;
        }
        if (!incremental) {
            *out = std::make_shared<const StrandSet>(resampleStrands(*input, settings));
            return true;
        }
        return update(*input, settings, *incremental, out, changes);
    }

    // Redoes the changed strands in the previous result, where each keeps its point count there;
    // the length mode reads the longest strand, which any change may move.
    static bool update(const StrandSet& input, const ResampleSettings& settings,
                       const IncrementalInputs& incremental, Value* out, StrandChanges* changes) {
        auto previous = incremental.previous.get<StrandSet>();
        if (settings.mode == ResampleMode::Length || !previous || incremental.changes.empty())
            return false;
        const auto& changed = incremental.changes[0];
        if (!changed || changed->all || !changed->sameLayout ||
            previous->strandCount() != input.strandCount())
            return false;
        if (input.strandChannelNames() != previous->strandChannelNames()) return false;
        for (const std::string& name : input.pointChannelNames())
            if (!previous->pointChannel(name)) return false;

        // Where only strand channels changed (a colour), every point, width and point channel of
        // the previous result stands: they are read from the input's points, widths, point
        // channels and braid marks alone.
        std::vector<std::string_view> reads = {"braidId"};
        const std::vector<std::string> pointNames = input.pointChannelNames();
        reads.insert(reads.end(), pointNames.begin(), pointNames.end());
        const bool pointsKept = changed->onlyOtherChannels(reads);
        // With every strand to redo, a full run writes fresh arrays instead of copying the
        // previous result's (which the Output still holds) only to overwrite them. Run here, it
        // can say what changed, so that nobody compares the two results column by column.
        if (!pointsKept && changed->strands.size() == input.strandCount()) {
            auto made = std::make_shared<const StrandSet>(resampleStrands(input, settings));
            if (made->columnData(ColumnId::kOffsets) == previous->columnData(ColumnId::kOffsets) ||
                std::ranges::equal(made->offsets(), previous->offsets()))
                *changes = resampledChanges(*changed, input);
            *out = std::shared_ptr<const StrandSet>(std::move(made));
            return true;
        }
        if (!pointsKept) {
            // Each changed strand must keep its point count in the previous result.
            const Planner planner(input, settings);
            std::atomic<bool> fits{true};
            parallelRange(
                0, changed->strands.size(), 256, [&](std::size_t first, std::size_t last) {
                    std::vector<float> arcs, placed;
                    for (std::size_t i = first; i < last && fits.load(std::memory_order_relaxed);
                         ++i) {
                        const std::uint64_t s = changed->strands[i];
                        const StrandPlan plan = planner.plan(s, arcs, placed);
                        const std::size_t count =
                            plan.kept ? input.pointRange(s).count : std::size_t{plan.segments} + 1;
                        if (count != previous->pointRange(s).count)
                            fits.store(false, std::memory_order_relaxed);
                    }
                });
            if (!fits.load()) return false;
        }

        auto made = std::make_shared<StrandSet>(*previous);
        // Let go of the previous result, so that where nothing else holds its columns they are
        // written in place.
        previous.reset();
        incremental.takePrevious();
        // Strand channels are the input's as they stand, shared; the changed strands' may be new.
        for (const std::string& name : input.strandChannelNames())
            made->shareStrandChannelFrom(name, input);
        if (!pointsKept)
            resampleInto(input, settings, StrandSelection::only(changed->strands), *made);
        *changes = resampledChanges(*changed, input);
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }

    // The input's changes as the result's: a resampled width or point channel is read where the
    // points lie, so it moves with them, and a width with a point too.
    static StrandChanges resampledChanges(const StrandChanges& changed, const StrandSet& input) {
        StrandChanges made = changed;
        if (made.pointsChanged) {
            made.widthsChanged = true;
            for (const std::string& name : input.pointChannelNames())
                made.addChannel(name);
        }
        return made;
    }
};

}  // namespace

void registerResampleOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description = "Evens out the points along each strand.";
    info.keywords = "points segments cvs even";
    registry.registerType(
        "Resample", [] { return std::make_unique<ResampleOp>(); }, info);
}

}  // namespace velmorin
