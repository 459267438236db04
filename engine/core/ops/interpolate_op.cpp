#include <algorithm>
#include <cmath>
#include <mutex>
#include <span>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/parts.h"
#include "fields/field_sampler.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/grow_ops.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_clearance.h"
#include "ops/interpolate_follow.h"
#include "ops/interpolate_shape.h"
#include "ops/interpolate_tubes.h"
#include "strands/array_pool.h"
#include "strands/channel_names.h"
#include "strands/strand_changes.h"

namespace velmorin {
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;

// How many strands ahead the reading of roots asks for a strand's first point.
constexpr std::size_t kRootsAhead = 16;

constexpr const char* kNoGuides =
    "no guides: place some with the guide tools; the strands keep their incoming shape";

ParamSpec grouped(ParamSpec spec, std::string group) {
    spec.group = std::move(group);
    return spec;
}

ParamSpec writesChannel(ParamSpec spec) {
    spec.channel = ChannelRole::Writes;
    spec.channelOptional = true;
    spec.animatable = false;
    return spec;
}

// The default falloff: full at the guide, none at limitDistance.
Ramp defaultFalloff() {
    Ramp ramp;
    ramp.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
    return ramp;
}

// A colour's region label: its 8-bit red, green and blue packed into 24 bits.
std::int32_t regionLabel(const Vec3f& color) {
    const auto byte = [](float v) {
        return static_cast<std::int32_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
    };
    return byte(color.x) << 16 | byte(color.y) << 8 | byte(color.z);
}

Vec3f labelColor(std::int32_t label) {
    return Vec3f{static_cast<float>(label >> 16 & 255), static_cast<float>(label >> 8 & 255),
                 static_cast<float>(label & 255)} /
           255.0f;
}

// How far a colour may lie off the straight blend between two region colours and still count as
// soft paint between them.
constexpr float kSoftPaintTolerance = 0.03f;

// The region label of a strand rooted in `color`, given the guides' region colours: the same
// colour's, or for soft paint between two region colours the nearer one's; -1 for a colour no
// guide is rooted on.
std::int32_t strandRegion(const Vec3f& color, std::span<const Vec3f> regionColors) {
    const std::int32_t own = regionLabel(color);
    for (const Vec3f& region : regionColors)
        if (regionLabel(region) == own) return own;
    float best = kSoftPaintTolerance * kSoftPaintTolerance;
    std::int32_t label = -1;
    for (std::size_t a = 0; a < regionColors.size(); ++a)
        for (std::size_t b = a + 1; b < regionColors.size(); ++b) {
            const Vec3f from = regionColors[a];
            const Vec3f way = regionColors[b] - from;
            const float t = std::clamp(dot(color - from, way) / dot(way, way), 0.0f, 1.0f);
            const Vec3f off = color - (from + way * t);
            const float d2 = dot(off, off);
            if (d2 < best) {
                best = d2;
                label = regionLabel(t <= 0.5f ? regionColors[a] : regionColors[b]);
            }
        }
    return label;
}

// Whether the region labels would give the binding of `state` the same regions and lists.
bool sameRegions(const InterpolateState& state, std::span<const std::int32_t> strandLabels,
                 std::span<const std::int32_t> guideLabels) {
    std::vector<std::int32_t> labels;
    for (const std::int32_t label : guideLabels)
        if (label >= 0) labels.push_back(label);
    std::sort(labels.begin(), labels.end());
    labels.erase(std::unique(labels.begin(), labels.end()), labels.end());
    if (labels != state.regionLabels) return false;
    if (labels.empty()) return true;
    const auto index = [&](std::int32_t label) {
        const auto found = std::lower_bound(labels.begin(), labels.end(), label);
        return label >= 0 && found != labels.end() && *found == label
                   ? static_cast<std::int32_t>(found - labels.begin())
                   : -1;
    };
    for (std::size_t g = 0; g < guideLabels.size(); ++g)
        if (index(guideLabels[g]) != state.guideRegions[g]) return false;
    for (std::size_t s = 0; s < strandLabels.size(); ++s)
        if (index(strandLabels[s]) + 1 != state.strandLists[s]) return false;
    return true;
}

// Grows each root into a strand shaped like the guides around it.
class InterpolateOp final : public Operator {
  public:
    std::string type() const override { return "Interpolate"; }
    std::string category() const override { return "grow"; }
    int version() const override { return 2; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands},
                {"guides", PortType::Guides, true},
                {"scalp", PortType::Mesh, true}};
    }
    bool carriesInput(std::size_t index) const override { return index < 2; }
    std::vector<std::string> sceneInputs() const override {
        // A region map read by name may be a colour set of the scalp.
        if (!paramSet.getString("regionMap", "").empty())
            return {std::string(kMapsInput), "parts", std::string(kScalpInput)};
        return {std::string(kMapsInput), "parts"};
    }

    std::vector<ParamSpec> params() const override {
        ParamSpec smoothness = makeParam(
            "smoothness", 0.5,
            "How softly the guides blend into one another: 0 sharp (each strand mostly its "
            "nearest guide: crisp locks, soft edges), 1 soft (each guide reaching twice as far, "
            "its neighbours blended evenly); 0.5 between (2 neighbors or more)");
        smoothness.min = 0.0;
        smoothness.max = 1.0;
        ParamSpec neighbors = makeParam(
            "neighbors", std::int64_t{3},
            "How far each guide reaches: to its neighbors-th nearest guide (times 1.5, scaled by "
            "smoothness). 1: every strand takes its nearest guide alone, with hard edges");
        neighbors.min = 1.0;
        neighbors.max = 16.0;
        neighbors.softMin = 1.0;
        neighbors.softMax = 8.0;
        ParamSpec guideWeight = makeParam(
            "guideWeight", 1.0,
            "How strongly each guide pulls the strands around it against its neighbours, read at "
            "its root, 0 or more (mappable: paint where guides pull more or less; a number alone "
            "changes nothing, every guide weighed alike: paint it, Groom Tools > Paint > + New Map "
            "> Guide weight). 0: a guide that shapes only strands no other guide reaches (2 "
            "neighbors or more)");
        guideWeight.min = 0.0;
        ParamSpec blend = choiceParam(
            "blend", "offsets", {"offsets", "directions"},
            "How the guides' shapes combine: offsets: their points averaged (guides pointing "
            "different ways pull the strand in, preserveLength scales it back); directions: each "
            "segment along their segments' average way, at their average length (no pulling in; "
            "a strand between two parted guides keeps their length)");
        ParamSpec preserveLength = makeParam(
            "preserveLength", true,
            "Scale each blended strand to its guides' blended length (blending guides that point "
            "different ways would shorten it; take shape; blend directions keeps it already)");
        ParamSpec keepClearance = makeParam(
            "keepClearance", false,
            "Keep strands out of the skin: where the skin under a strand bulges more than under "
            "its guides (an ear, a cheek, the neck), the part that would sink in is lifted just "
            "onto the skin, its length kept, and past the bulge the strand eases back to its "
            "groomed path, so hair drapes over an ear instead of standing off it (take shape; "
            "needs the scalp input)");
        ParamSpec respectParts =
            makeParam("respectParts", false, "Never blend guides from the other side of a part");
        ParamSpec followSurface = makeParam(
            "followSurface", false,
            "Measure how far guides reach along the scalp (the scalp input), not in a straight "
            "line, so they do not reach across an ear, a fold or a thin shell (the same on a "
            "smooth scalp)");
        ParamSpec limitDistance = grouped(
            makeParam("limitDistance", 0.0,
                      "How far guides reach: strands farther from every guide root keep their "
                      "incoming shape (e.g. from Flow); 0: every strand follows the guides (and "
                      "falloff and influenceChannel do nothing)"),
            "Limit");
        limitDistance.min = 0.0;
        limitDistance.unit = "length";
        ParamSpec falloff = grouped(
            makeParam("falloff", defaultFalloff(),
                      "With limitDistance above 0: the guides' influence over it, at the guide to "
                      "limitDistance away"),
            "Limit");
        ParamSpec take = grouped(
            choiceParam("take", "shape", {"shape", "length"},
                        "shape: the guides' shape and length; length: each strand keeps its own "
                        "shape and takes the guides' length"),
            "Limit");
        ParamSpec influenceChannel = grouped(
            writesChannel(makeParam("influenceChannel", std::string("guideInfluence"),
                                    "With limitDistance above 0: per-strand channel receiving the "
                                    "guides' influence, 0-1 (empty: none)")),
            "Limit");
        ParamSpec regionMap = grouped(
            makeParam(
                "regionMap", std::string(),
                "Regions painted on the scalp in colors (empty: none): a strand blends only the "
                "guides rooted in its own region, with a hard edge between regions, like a part. "
                "Each color guides are rooted on is a region (soft paint between two joins the "
                "nearer); a strand in a color no guide is rooted on blends the nearest guides of "
                "any region. A map painted in Groom Tools > Paint by name, a color set of that "
                "name on the scalp, or an image file at the scalp's UVs"),
            "Regions");
        regionMap.animatable = false;
        ParamSpec regionChannel = grouped(
            writesChannel(makeParam(
                "regionChannel", std::string("region"),
                "With a regionMap: per-strand channel receiving each strand's region number (-1: "
                "none), which Clump, BlendNeighbors and Tangle keep within (empty: none)")),
            "Regions");
        ParamSpec fillTubes = grouped(
            makeParam(
                "fillTubes", false,
                "Fill the guides' tubes (tube guides: a hierarchy's guides with their sections "
                "and shape): a strand rooted inside a guide's tube takes its place in the tube's "
                "section there and keeps it to the tip, so it stays inside the tube as it "
                "flattens, twists and tapers, and is as long as the guide, instead of blending "
                "the nearest guides. Where tubes overlap, the one it lies most centrally in; "
                "strands rooted in no tube blend as ever. Writes tubeId, tubeU and tubeV, which "
                "Clump's followTubes clumps inside each tube by (take shape)"),
            "Tubes");
        ParamSpec tubeBlend = grouped(
            makeParam("tubeBlend", 0.25,
                      "With fillTubes: the tubes' soft edge, as a share of each tube's half-width "
                      "at its root. Strands rooted outside a tube but within this of its outline "
                      "lean from the guides' blend toward riding the tube, all the way at the "
                      "outline and not at all at the edge, so no seam shows round a tube; 0: a "
                      "hard edge"),
            "Tubes");
        tubeBlend.min = 0.0;
        tubeBlend.max = 1.0;
        tubeBlend.unit = "fraction";
        tubeBlend.showWhen = ShowWhen{"fillTubes", {ParamValue(true)}};
        return {smoothness,     neighbors,     guideWeight,  blend,
                preserveLength, keepClearance, respectParts, followSurface,
                limitDistance,  falloff,       take,         influenceChannel,
                regionMap,      regionChannel, fillTubes,    tubeBlend};
    }

    // The channels written depend on the settings: the influence only with a limit, the region
    // only with a map.
    std::vector<ChannelUse> fixedChannels() const override {
        std::vector<ChannelUse> channels;
        const auto text = [&](const char* name, const char* fallback) {
            const auto set = paramSet.values.find(name);
            const std::string* value =
                set != paramSet.values.end() ? std::get_if<std::string>(&set->second) : nullptr;
            return value ? *value : std::string(fallback);
        };
        const auto number = [&](const char* name) {
            const auto set = paramSet.values.find(name);
            if (set == paramSet.values.end()) return 0.0;
            if (const auto* d = std::get_if<double>(&set->second)) return *d;
            if (const auto* i = std::get_if<std::int64_t>(&set->second))
                return static_cast<double>(*i);
            return 0.0;
        };
        const std::string influence = text("influenceChannel", "guideInfluence");
        if (number("limitDistance") > 0.0 && !influence.empty())
            channels.push_back({influence, ChannelRole::Writes, true});
        const std::string region = text("regionChannel", "region");
        if (!text("regionMap", "").empty() && !region.empty())
            channels.push_back({region, ChannelRole::Writes, true});
        const auto fill = paramSet.values.find("fillTubes");
        if (fill != paramSet.values.end() && std::get_if<bool>(&fill->second) &&
            *std::get_if<bool>(&fill->second))
            for (const std::string_view name :
                 {channels::kTubeId, channels::kTubeU, channels::kTubeV})
                channels.push_back({std::string(name), ChannelRole::Writes, true});
        return channels;
    }

    void copyStateFrom(const Operator& other) override {
        const auto* source = dynamic_cast<const InterpolateOp*>(&other);
        if (!source) return;
        std::shared_ptr<const InterpolateState> state;
        std::shared_ptr<const InterpolateGuideRows> rows;
        {
            std::scoped_lock lock(source->stateMutex_, source->rowsMutex_);
            state = source->state_;
            rows = source->rows_;
        }
        std::scoped_lock lock(stateMutex_, rowsMutex_);
        state_ = std::move(state);
        rows_ = std::move(rows);
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        Value out;
        run(ctx, inputs, nullptr, &out, nullptr);
        return out;
    }

    bool evaluateIncremental(const EvalContext& ctx, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const override {
        return run(ctx, inputs, &incremental, out, changes);
    }

    // The binding state of the last run, for engines and tests; null before the first.
    std::shared_ptr<const InterpolateState> state() const {
        std::lock_guard<std::mutex> lock(stateMutex_);
        return state_;
    }

  private:
    // What one run reads of its inputs and params.
    struct Prepared {
        std::shared_ptr<const StrandSet> strands;
        std::shared_ptr<const ScalpMesh> scalp;
        std::vector<const Guide*> guides;  // the usable ones
        InterpolateSettings settings;
        ShapeSettings shape;
        std::string influenceChannel;
        std::string regionChannel;                              // empty: none written
        std::shared_ptr<const InterpolateClearance> clearance;  // null: keepClearance off
        BindingInputs binding;
        std::vector<Vec3f> strandRoots, strandNormals, guideRoots;
        std::vector<float> guideWeights;
        // With a region map: per strand and per guide the region label (-1: none).
        std::vector<std::int32_t> strandLabels, guideLabels;
        bool fillTubes = false;
        std::shared_ptr<const TubeBinding> tubes;  // with fillTubes, after prepareTubes
    };

    // Reads inputs and params; false when there is nothing to shape (the strands pass through).
    bool prepare(const EvalContext& ctx, const std::vector<Value>& inputs, Prepared& p) const {
        p.strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!p.strands) throw GraphError("Interpolate: strands input not connected");
        const std::string take = paramSet.getString("take", "shape");
        if (take != "shape" && take != "length")
            throw GraphError("Interpolate: take must be shape or length");
        const auto guideSet = inputs.size() > 1 ? inputs[1].get<GuideSet>() : nullptr;
        p.scalp = inputs.size() > 2 ? inputs[2].get<ScalpMesh>() : nullptr;
        if (p.scalp && p.scalp->triangleCount() == 0) p.scalp = nullptr;
        std::size_t unusable = 0;
        if (guideSet)
            for (const Guide& guide : guideSet->guides) {
                if (isUsableGuide(guide))
                    p.guides.push_back(&guide);
                else
                    ++unusable;
            }
        if (unusable == 1)
            ctx.note(
                "1 guide has fewer than 2 points or points that are not numbers: it shapes "
                "no strand (redraw it with the guide tools)");
        else if (unusable > 1)
            ctx.note(std::to_string(unusable) +
                     " guides have fewer than 2 points or points that are not numbers: they shape "
                     "no strand (redraw them with the guide tools)");
        if (p.guides.empty()) {
            ctx.note(kNoGuides);
            return false;
        }

        p.guideRoots.reserve(p.guides.size());
        for (const Guide* guide : p.guides)
            p.guideRoots.push_back(guide->points[0]);

        const FieldSampler weight = fieldSamplerAtRoots(paramSet, ctx, "guideWeight");
        if (weight.isMapped()) {
            p.guideWeights.reserve(p.guides.size());
            for (const Guide* guide : p.guides)
                p.guideWeights.push_back(
                    std::max(0.0f, weight.at({guide->root, guide->points[0]})));
        }

        std::shared_ptr<const PartsSnapshot> parts;
        const bool respectParts = paramSet.getBool("respectParts", false);
        if (respectParts && p.scalp)
            if (const SceneInput* input = ctx.sceneInput("parts"))
                if (const auto lines = input->value.get<PartLines>()) {
                    std::vector<Vec3f> line;
                    for (const SurfacePoint& point : lines->points)
                        if (p.scalp->isOnSurface(point)) line.push_back(p.scalp->pointAt(point));
                    parts = makePartsSnapshot({std::move(line)});
                    if (parts->lines.empty()) parts.reset();
                }

        const bool followSurface = paramSet.getBool("followSurface", false) && p.scalp;
        p.settings = makeInterpolateSettings(paramSet.getFloat("smoothness", 0.5),
                                             paramSet.getInt("neighbors", 3), p.guides.size(),
                                             followSurface, paramSet.getFloat("limitDistance", 0.0),
                                             parts != nullptr, !p.guideWeights.empty());
        if (p.settings.nearestOnly) p.guideWeights.clear();
        p.binding.guideRoots = p.guideRoots;
        p.binding.guideWeights = p.guideWeights;
        p.binding.parts = parts;

        p.shape.blendDirections = paramSet.getString("blend", "offsets") == "directions";
        p.shape.preserveLength = paramSet.getBool("preserveLength", true);
        p.shape.takeLength = take == "length";
        p.shape.limitDistance = p.settings.limitDistance;
        p.shape.falloff = paramRamp(paramSet, ctx, "falloff", defaultFalloff());
        if (p.settings.limitDistance > 0.0f)
            p.influenceChannel = paramSet.getString("influenceChannel", "guideInfluence");
        if (paramSet.getBool("keepClearance", false) && !p.shape.takeLength && p.scalp) {
            // A deformed scalp is walked over its rest pose's field, the same on every frame.
            auto rest = restScalp(*p.scalp);
            auto deformed = rest ? p.scalp : nullptr;
            if (auto field = clearanceField(rest ? rest : p.scalp))
                p.clearance = std::make_shared<const InterpolateClearance>(makeClearance(
                    std::move(field), p.guides, std::move(deformed), std::move(rest)));
        }
        p.fillTubes = paramSet.getBool("fillTubes", false);
        const std::string regionMap = paramSet.getString("regionMap", "");
        if (!regionMap.empty()) {
            readRegionLabels(regionMap, ctx, p);
            p.regionChannel = paramSet.getString("regionChannel", "region");
        }
        return true;
    }

    // The region labels of strands and guides from the colours of `mapName` at their roots.
    static void readRegionLabels(const std::string& mapName, const EvalContext& ctx, Prepared& p) {
        const StrandSet& strands = *p.strands;
        const FieldSampler strandColors =
            rootColorMap("Interpolate", "regionMap", mapName, ctx, strands);
        StrandSet guideRoots;
        for (const Guide* guide : p.guides)
            guideRoots.addStrand(guide->id, guide->root,
                                 std::span<const Vec3f>(guide->points.data(), 2));
        const FieldSampler guideColors =
            rootColorMap("Interpolate", "regionMap", mapName, ctx, guideRoots);
        std::vector<Vec3f> regionColors;
        p.guideLabels.resize(p.guides.size());
        for (std::size_t g = 0; g < p.guides.size(); ++g) {
            p.guideLabels[g] = regionLabel(guideColors.vectorAtStrand(g));
            regionColors.push_back(labelColor(p.guideLabels[g]));
        }
        std::sort(regionColors.begin(), regionColors.end(),
                  [](const Vec3f& a, const Vec3f& b) { return regionLabel(a) < regionLabel(b); });
        regionColors.erase(std::unique(regionColors.begin(), regionColors.end(),
                                       [](const Vec3f& a, const Vec3f& b) {
                                           return regionLabel(a) == regionLabel(b);
                                       }),
                           regionColors.end());
        p.strandLabels.resize(strands.strandCount());
        parallelRange(0, strands.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s)
                p.strandLabels[s] = strandRegion(strandColors.vectorAtStrand(s), regionColors);
        });
        p.binding.strandLabels = p.strandLabels;
        p.binding.guideLabels = p.guideLabels;
    }

    // The strands' roots (their first points) and, with a scalp, their normals.
    static void readStrandRoots(Prepared& p) {
        const StrandSet& strands = *p.strands;
        const std::size_t strandCount = strands.strandCount();
        // Fresh arrays of a strand each, brought in on every thread rather than zeroed on this
        // one as a vector grows.
        p.strandRoots = ArrayPool<Vec3f>::makeVector(strandCount);
        if (p.scalp) p.strandNormals = ArrayPool<Vec3f>::makeVector(strandCount);
        const auto offsets = strands.offsets();
        const auto points = strands.points();
        const auto roots = strands.roots();
        parallelRange(0, strandCount, 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                // A root is the first point of its strand, one cache line each a strand's length
                // apart, which the processor does not fetch ahead by itself: most of this loop
                // was waiting for them.
                if (s + kRootsAhead < end)
                    __builtin_prefetch(points.data() + offsets[s + kRootsAhead]);
                const float nan = std::nanf("");
                p.strandRoots[s] =
                    offsets[s + 1] > offsets[s] ? points[offsets[s]] : Vec3f{nan, nan, nan};
                if (p.scalp && p.scalp->isOnSurface(roots[s]))
                    p.strandNormals[s] = p.scalp->normalAt(roots[s]);
            }
        });
        p.binding.strandRoots = p.strandRoots;
        p.binding.strandNormals = p.strandNormals;
    }

    // With fillTubes, the tube test of every strand root (read first), which the binding and the
    // settings then carry.
    void prepareTubes(Prepared& p, const InterpolateGuideRows& rows) const {
        if (!p.fillTubes) return;
        const float blend = static_cast<float>(paramSet.getFloat("tubeBlend", 0.25));
        auto tubes = makeTubeGuides(p.guides, p.scalp.get(), rows.sampleCount, blend);
        TubeTestInputs test;
        test.strandRoots = p.strandRoots;
        test.strandNormals = p.strandNormals;
        test.strandLabels = p.strandLabels;
        test.guideLabels = p.guideLabels;
        test.parts = p.settings.respectParts ? p.binding.parts.get() : nullptr;
        test.guideRoots = p.guideRoots;
        p.tubes = bindTubes(std::move(tubes), test);
        p.settings.tubeRiders = p.tubes->ridersHash;
        p.binding.tubes = p.tubes;
    }

    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out, StrandChanges* changes) const {
        Prepared p;
        if (!prepare(ctx, inputs, p)) {
            if (incremental) return false;
            *out = inputs[0];
            return true;
        }
        const auto previousState = state();
        std::shared_ptr<const InterpolateGuideRows> previousRows;
        {
            std::lock_guard<std::mutex> lock(rowsMutex_);
            previousRows = rows_;
        }
        auto rows =
            std::make_shared<const InterpolateGuideRows>(makeGuideRows(p.guides, p.scalp.get()));

        if (incremental && p.fillTubes) {
            readStrandRoots(p);
            prepareTubes(p, *rows);
        }
        if (incremental) {
            // Only guide shapes may have changed, not the strands, the scalp or any guide's root:
            // then the binding stands and only the strands bound to a changed guide move.
            auto previous = incremental->previous.get<StrandSet>();
            const auto& inputChanges = incremental->changes;
            if (!previous || !previousState || !previousRows || inputChanges.empty() ||
                !inputChanges[0] || inputChanges[0]->all || !inputChanges[0]->strands.empty())
                return false;
            if (inputChanges.size() > 2 && inputChanges[2] &&
                (inputChanges[2]->all || !inputChanges[2]->strands.empty()))
                return false;
            if (previous->strandCount() != p.strands->strandCount() ||
                previous->pointCount() != p.strands->pointCount())
                return false;
            if (rows->guideCount() != previousRows->guideCount() ||
                rows->sampleCount != previousRows->sampleCount ||
                rows->layerNames != previousRows->layerNames)
                return false;
            if (!(previousState->settings == p.settings) ||
                previousState->guideRoots != p.guideRoots ||
                previousState->guideWeights != p.guideWeights ||
                previousState->strandNormals.empty() != (p.scalp == nullptr) ||
                !sameRegions(*previousState, p.strandLabels, p.guideLabels))
                return false;
            // Strands that took another place in a tube need the binding again.
            if ((p.tubes == nullptr) != (previousState->tubes == nullptr) ||
                (p.tubes && p.tubes->hash != previousState->tubes->hash))
                return false;
            std::vector<std::uint8_t> changed(rows->guideCount(), 0);
            for (std::size_t g = 0; g < changed.size(); ++g)
                changed[g] = rows->hashes[g] != previousRows->hashes[g] ? 1 : 0;
            if (p.tubes)
                for (std::size_t g = 0; g < changed.size(); ++g)
                    changed[g] |=
                        p.tubes->tubes->hashes[g] != previousState->tubes->tubes->hashes[g];
            std::vector<std::uint64_t> redo = strandsBoundTo(previousState->binding, changed);
            if (p.tubes) redo = addTubeStrands(*p.tubes, changed, std::move(redo));
            // Only the bound strands change. The previous result is let go of: where nothing else
            // held it, its columns are this run's alone and the points are written in place
            // rather than the whole column copied.
            auto made = std::make_shared<StrandSet>(*previous);
            previous.reset();
            incremental->takePrevious();
            if (!redo.empty()) {
                std::vector<Vec3f>& points = made->writePoints();
                std::span<float> influence;
                if (!p.influenceChannel.empty())
                    influence = made->addStrandChannel(p.influenceChannel, 0.0f);
                shapeStrands(*previousState, *rows, p.shape, *p.strands, points, influence, redo);
                if (p.tubes && !p.shape.takeLength)
                    rideTubes(*previousState, *p.tubes, p.shape, *p.strands, points, redo);
                if (p.clearance)
                    keepClearance(*previousState, *p.clearance, made->offsets(), points, redo,
                                  p.strands->roots());
                writeGuideLayers(*previousState, *rows, *made, redo);
            }
            {
                std::lock_guard<std::mutex> lock(rowsMutex_);
                rows_ = rows;
            }
            changes->all = false;
            changes->sameLayout = true;
            changes->strands = std::move(redo);
            *out = std::shared_ptr<const StrandSet>(std::move(made));
            return true;
        }

        readStrandRoots(p);
        prepareTubes(p, *rows);
        if (p.settings.followSurface)
            p.binding.surface =
                makeSurfaceGuides(p.scalp, p.guides, p.strands->roots(), p.settings.candidates + 1);
        const auto state = rebindStrands(previousState, p.settings, p.binding);
        auto made = std::make_shared<StrandSet>(*p.strands);
        std::span<float> influence;
        if (!p.influenceChannel.empty())
            influence = made->addStrandChannel(p.influenceChannel, 0.0f);
        // Every point is written, so the shared points are not copied first.
        shapeStrands(*state, *rows, p.shape, *p.strands, made->overwritePoints(), influence);
        if (p.tubes && !p.shape.takeLength)
            rideTubes(*state, *p.tubes, p.shape, *p.strands, made->writePoints());
        if (p.tubes) writeTubeChannels(*p.tubes, *made);
        if (p.clearance)
            keepClearance(*state, *p.clearance, made->offsets(), made->writePoints(), {},
                          p.strands->roots());
        writeGuideLayers(*state, *rows, *made);
        if (!p.regionChannel.empty()) {
            std::vector<float>& region = made->addStrandChannel(p.regionChannel, -1.0f);
            parallelRange(0, region.size(), 256, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s)
                    region[s] = static_cast<float>(state->strandLists[s] - 1);
            });
        }
        {
            std::scoped_lock lock(stateMutex_, rowsMutex_);
            state_ = state;
            rows_ = rows;
        }
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }

    // Run-time state, not part of the document: what the pointers reach is immutable, and a new
    // run swaps them while older readers keep theirs.
    mutable std::mutex stateMutex_;
    mutable std::shared_ptr<const InterpolateState> state_;
    mutable std::mutex rowsMutex_;
    mutable std::shared_ptr<const InterpolateGuideRows> rows_;
};

}  // namespace

void registerInterpolateOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "grow";
    info.description = "Grows each root into a strand shaped like the guides around it.";
    info.keywords = "children guides blend strands";
    registry.registerType(
        "Interpolate", [] { return std::make_unique<InterpolateOp>(); }, info);
}

}  // namespace velmorin
