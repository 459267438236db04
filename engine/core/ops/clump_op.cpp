#include <algorithm>
#include <cmath>
#include <mutex>

#include "editing/parts.h"
#include "fields/field_sampler.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/clump.h"
#include "ops/interpolate_binding.h"
#include "ops/shape_support.h"
#include "strands/channel_names.h"
#include "strands/strand_changes.h"

namespace velmorin {
namespace {

constexpr const char* kPickIgnoresCenters =
    "centers are connected but centersFrom is pick (it picks its own): set centersFrom to "
    "inputPoints or inputCurves to clump by them";
constexpr const char* kNoCenters =
    "no clumps: connect centers (guides or strands) or set centersFrom to pick; the strands pass "
    "through";
constexpr const char* kNoCount =
    "no clumps: set a count or size above 0 (or centersFrom inputPoints with centers connected); "
    "the strands pass through";
constexpr const char* kRepelByPick =
    "parts the strands around the strands nearest its centers (centersFrom inputPoints); "
    "inputCurves parts them around the center curves themselves (whiskers, horns)";

ParamSpec grouped(ParamSpec spec, std::string group) {
    spec.group = std::move(group);
    return spec;
}

ParamSpec choiceParam(std::string name, std::string value, std::vector<std::string> choices,
                      std::string description) {
    ParamSpec spec = shapeParam(std::move(name), std::move(value), std::move(description));
    spec.choices = std::move(choices);
    spec.animatable = false;
    return spec;
}

ParamSpec lengthParam(std::string name, double value, std::string description) {
    ParamSpec spec = shapeParam(std::move(name), value, std::move(description));
    spec.min = 0.0;
    spec.unit = "length";
    return spec;
}

ParamSpec channelParam(std::string name, std::string value, ChannelRole role,
                       std::string description) {
    ParamSpec spec = shapeParam(std::move(name), std::move(value), std::move(description));
    spec.channel = role;
    spec.channelOptional = true;
    spec.animatable = false;
    return spec;
}

CenterSource centerSourceOf(const std::string& name) {
    if (name == "pick") return CenterSource::Pick;
    if (name == "inputPoints") return CenterSource::InputPoints;
    if (name == "inputCurves") return CenterSource::InputCurves;
    throw GraphError("Clump: unknown centersFrom '" + name +
                     "' (pick, inputPoints or inputCurves)");
}

FlatAlong flatAlongOf(const std::string& name) {
    if (name == "random") return FlatAlong::Random;
    if (name == "direction") return FlatAlong::Direction;
    return FlatAlong::Surface;
}

// Pulls strands toward their clump's center (or into round locks).
class ClumpOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Clump"; }
    std::string category() const override { return "look"; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"centers", PortType::Curves, true}};
    }
    bool carriesInput(std::size_t index) const override { return index == 0; }
    // The scalp's area fits the count and its normals lie under the centers; parts divide clumps.
    std::vector<std::string> sceneInputs() const override {
        return {std::string(kScalpInput), "parts"};
    }

    std::vector<ParamSpec> params() const override {
        ParamSpec strength = shapeParam(
            "strength", 0.7,
            "Overall pull toward the clump center, -1 to 1 (mappable, per point). Negative pushes "
            "strands away from the centers (part fur around whiskers, horns, eyes): those within "
            "repelRadius, out toward it");
        strength.min = -1.0;
        strength.max = 1.0;
        ParamSpec centersFrom = choiceParam(
            "centersFrom", "pick", {"pick", "inputPoints", "inputCurves"},
            "Where the clumps' centers come from: pick: it picks them among the strands "
            "(clumpBy), each axis the picked strand, and a centers input is ignored; inputPoints: "
            "the centers input (guides or strands: a Scatter, guides, single points) only says "
            "where the clumps are (their roots), each axis the strand it gathers nearest its "
            "center's root (the hair as grown there); inputCurves: each axis is the center curve "
            "itself (groomed clump curves, a Noise on the centers waving each clump as one). "
            "Connecting centers in the Graph Editor sets inputPoints (a Guides node: inputCurves)");
        ParamSpec clumpBy = choiceParam(
            "clumpBy", "count", {"count", "size"},
            "The clumps it picks among the strands: count: about `count` of them, whatever the "
            "scalp's size (re-fitted to the scalp's area: an edit that changes it by more than 1% "
            "moves every clump); size: clumps about `size` apart, as many as the scalp holds (a "
            "whole body gets more than a head, of the same size; an edit of the scalp changes the "
            "clumps only near it)");
        ParamSpec count =
            shapeParam("count", std::int64_t{300},
                       "About how many clumps (clumpBy count); 0: none (the strands as they came)");
        count.min = 0.0;
        count.softMax = 2000.0;
        count.showWhen = ShowWhen{"clumpBy", {std::string("count")}};
        ParamSpec size = lengthParam(
            "size", 1.0,
            "Clump size (clumpBy size): about how far apart the centers are, so the count follows "
            "the scalp's area; 0: none");
        size.softMax = 5.0;
        size.showWhen = ShowWhen{"clumpBy", {std::string("size")}};
        ParamSpec randomness = shapeParam(
            "randomness", 0.3,
            "How random the centers it picks are: 0 evenly spread (blue noise, every one about the "
            "average spacing from its neighbors), 1 at random (some side by side); in between each "
            "center moves smoothly from its even spot toward its random one (the same clumps, "
            "their borders shifting), past 1 on beyond it, up to 2. As Scatter's");
        randomness.min = 0.0;
        randomness.max = 2.0;
        ParamSpec centerWeight = fractionParam(
            "centerWeight", 1.0,
            "Chance each strand can be a center it picks, 0-1 (mappable: e.g. an Expression "
            "favoring long strands, or guideInfluence)");
        ParamSpec pastTip = choiceParam(
            "pastTip", "gather", {"gather", "extend"},
            "A strand longer than its clump's axis: gather: its points past the axis's tip gather "
            "at the tip; extend: they go on past it, along the axis's last direction, so long hair "
            "keeps its length");
        ParamSpec clumpChannel = channelParam(
            "clumpChannel", std::string(channels::kClumpId), ChannelRole::Writes,
            "Per-strand channel receiving the clump's number, from its center's ID (the same "
            "while that center is; empty: none). Chained Clumps each want their own (lockId, then "
            "clumpId), for a Twist, Cards or HairColor's clumpShare to follow the one it names");
        ParamSpec seed = seedParam();
        seed.description = "Random seed for the centers it picks and the per-clump variation";
        ParamSpec respectParts =
            grouped(shapeParam("respectParts", false,
                               "Never clump toward a center on the other side of a part"),
                    "Regions");
        respectParts.animatable = false;
        ParamSpec regionChannel = grouped(
            channelParam("regionChannel", std::string(channels::kRegion), ChannelRole::Reads,
                         "Channel numbering each strand's region (an Interpolate's regionMap "
                         "writes region): strands clump only toward centers of their own region "
                         "(a center's region is its strand's, its own value of the channel, or "
                         "else the nearest strand's), and a region without a center stays "
                         "unclumped; empty, or a channel the strands lack: across regions"),
            "Regions");
        ParamSpec followTubes = grouped(
            shapeParam("followTubes", false,
                       "Strands filling tube guides (an Interpolate's fillTubes: tubeId, tubeU "
                       "and tubeV) clump inside their own tube: each tube's centers are picked "
                       "among its strands (as far apart as clumpBy says for the whole scalp) and "
                       "a strand gathers toward its tube's nearest, so the clumps flatten, twist "
                       "and taper with the tube; strands in no tube clump as ever. Off: by root "
                       "across tubes. Strands without those channels clump as ever either way"),
            "Regions");
        followTubes.animatable = false;
        ParamSpec lockRadius = grouped(
            lengthParam("lockRadius", 0.0,
                        "Lock radius: strands gather into a round lock this thick around the "
                        "center (dreads, wet strings; a Twist node after it turns them into "
                        "ropes); 0: onto the center"),
            "Lock");
        lockRadius.softMax = 0.5;
        ParamSpec repelRadius = grouped(
            lengthParam("repelRadius", 0.5,
                        "With a negative strength: how far from its center a strand is pushed out "
                        "to at least (the part's half width): those within twice it move out, the "
                        "nearest to it, keeping their order; those farther away stay as they are"),
            "Lock");
        repelRadius.softMax = 2.0;
        ParamSpec flatness = grouped(
            fractionParam("flatness", 0.0,
                          "Squashes each clump across into a ribbon, 0-1, as much as it clumps "
                          "there (wet hair)"),
            "Lock");
        ParamSpec flatAlong = grouped(
            choiceParam("flatAlong", "surface", {"surface", "random", "direction"},
                        "Which way a flat clump lies: surface: flat along the scalp; random: "
                        "turned at random per clump; direction: its width along flatDirection"),
            "Lock");
        ParamSpec flatDirection =
            grouped(shapeParam("flatDirection", Vec3f{1.0f, 0.0f, 0.0f},
                               "Flatten direction: the way a ribbon's width runs (world space)"),
                    "Lock");
        flatDirection.worldDirection = true;
        flatDirection.showWhen = ShowWhen{"flatAlong", {std::string("direction")}};
        ParamSpec volumize = grouped(
            shapeParam("volumize", 0.0,
                       "Pushes each clump's strands out from its axis by this share of how far "
                       "they are from it, most near the root, filling the clump's volume "
                       "(mappable)"),
            "Volume");
        volumize.min = -1.0;
        volumize.softMin = 0.0;
        volumize.softMax = 1.0;
        ParamSpec volumizeProfile =
            grouped(shapeParam("volumizeProfile", Ramp{}, "Volumize along the length, root to tip"),
                    "Volume");
        return {strength,
                profileParam("Pull along the length, root to tip"),
                centersFrom,
                clumpBy,
                count,
                size,
                randomness,
                centerWeight,
                pastTip,
                clumpChannel,
                seed,
                respectParts,
                regionChannel,
                followTubes,
                lockRadius,
                repelRadius,
                flatness,
                flatAlong,
                flatDirection,
                volumize,
                volumizeProfile,
                grouped(fractionParam("strengthRandom", 0.0,
                                      "Each clump's strength scaled down by up to this share, at "
                                      "random per clump"),
                        "Variation"),
                grouped(fractionParam("strandStrengthRandom", 0.0,
                                      "Each strand's strength scaled down by up to this share, at "
                                      "random per strand: some hug the clump, some hang loose"),
                        "Variation"),
                grouped(fractionParam("lockRadiusRandom", 0.0,
                                      "Each clump's lock radius up to this share bigger or "
                                      "smaller, at random per clump"),
                        "Variation"),
                grouped(fractionParam("copyAmount", 0.0,
                                      "Each clump takes on this share of its neighbouring clumps' "
                                      "shape (their center curves, from their roots), so clumps "
                                      "share one flow"),
                        "Variation")};
    }

    std::string evaluationNote(const EvalContext&) const override {
        // A mapped strength may pull in one place and part in another: only a plain negative one
        // surely parts.
        const ParamValue& strength = paramSet.checked("strength");
        const double* plain = std::get_if<double>(&strength);
        const bool repels = plain && *plain < 0.0;
        return repels && paramSet.getString("centersFrom", "pick") == "pick" ? kRepelByPick : "";
    }

    void copyStateFrom(const Operator& other) override {
        const auto* source = dynamic_cast<const ClumpOp*>(&other);
        if (!source) return;
        std::shared_ptr<const CenterPlan> plan;
        float area = 0.0f;
        {
            std::lock_guard<std::mutex> lock(source->mutex_);
            plan = source->plan_;
            area = source->fittedArea_;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        plan_ = std::move(plan);
        fittedArea_ = area;
    }

    // The plan of the last run, for tests; null before the first.
    std::shared_ptr<const CenterPlan> plan() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return plan_;
    }

  private:
    // The area a count is fitted to: the last one while the scalp's stays within 1% of it.
    float fittedArea(float area) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (fittedArea_ > 0.0f && std::abs(area - fittedArea_) <= 0.01f * fittedArea_)
            return fittedArea_;
        return area;
    }

    bool passThrough(const std::vector<Value>& inputs, const IncrementalInputs* incremental,
                     Value* out, StrandChanges* changes) const {
        if (incremental) return false;
        *out = inputs[0];
        if (changes) {
            changes->all = true;
            changes->strands.clear();
            changes->sameLayout = true;
        }
        return true;
    }

    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) {
            if (incremental) return false;
            *out = Value();
            return true;
        }
        const CenterSource source = centerSourceOf(paramSet.getString("centersFrom", "pick"));
        const Value centersValue = inputs.size() > 1 ? inputs[1] : Value();
        const std::string regionChannel =
            paramSet.getString("regionChannel", std::string(channels::kRegion));

        CenterCurves curves;
        CenterPickSettings pick;
        pick.source = source;
        pick.regionChannel = regionChannel;
        if (source == CenterSource::Pick) {
            if (!centersValue.empty()) ctx.note(kPickIgnoresCenters);
            pick.by =
                paramSet.getString("clumpBy", "count") == "size" ? ClumpBy::Size : ClumpBy::Count;
            pick.count = paramSet.getInt("count", 300);
            pick.size = static_cast<float>(paramSet.getFloat("size", 1.0));
            if ((pick.by == ClumpBy::Count && pick.count <= 0) ||
                (pick.by == ClumpBy::Size && !(pick.size > 0.0f))) {
                ctx.note(kNoCount);
                return passThrough(inputs, incremental, out, changes);
            }
            pick.randomness = static_cast<float>(paramSet.getFloat("randomness", 0.3));
            pick.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
            pick.centerWeight = fieldSampler(paramSet, ctx, "centerWeight", *input);
            pick.followTubes = paramSet.getBool("followTubes", false);
        } else {
            if (const auto guides = centersValue.get<GuideSet>())
                curves = centerCurvesOf(*guides, regionChannel);
            else if (const auto strands = centersValue.get<StrandSet>())
                curves = centerCurvesOf(*strands, regionChannel);
            if (curves.size() == 0) {
                ctx.note(kNoCenters);
                return passThrough(inputs, incremental, out, changes);
            }
            pick.centers = &curves;
        }
        const auto scalp = sceneScalp(ctx);
        pick.scalp = scalp.get();
        if (const SceneInput* scalpInput = ctx.sceneInput(kScalpInput))
            pick.scalpKey = scalpInput->key;
        std::shared_ptr<const PartsSnapshot> parts;
        if (paramSet.getBool("respectParts", false) && scalp)
            if (const SceneInput* partsInput = ctx.sceneInput("parts"))
                if (const auto lines = partsInput->value.get<PartLines>()) {
                    std::vector<Vec3f> line;
                    for (const SurfacePoint& point : lines->points)
                        if (scalp->isOnSurface(point)) line.push_back(scalp->pointAt(point));
                    parts = makePartsSnapshot({std::move(line)});
                    if (parts->lines.empty()) parts.reset();
                }
        pick.parts = parts.get();

        ClumpSettings settings;
        settings.strength = fieldSampler(paramSet, ctx, "strength", *input);
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        settings.pastTip =
            paramSet.getString("pastTip", "gather") == "extend" ? PastTip::Extend : PastTip::Gather;
        settings.lockRadius = static_cast<float>(paramSet.getFloat("lockRadius", 0.0));
        settings.repelRadius = static_cast<float>(paramSet.getFloat("repelRadius", 0.5));
        settings.flatness = static_cast<float>(paramSet.getFloat("flatness", 0.0));
        settings.flatAlong = flatAlongOf(paramSet.getString("flatAlong", "surface"));
        settings.flatDirection = paramSet.getVec3("flatDirection", {1.0f, 0.0f, 0.0f});
        settings.volumize = fieldSampler(paramSet, ctx, "volumize", *input);
        settings.volumizeProfile = paramRamp(paramSet, ctx, "volumizeProfile", Ramp{});
        settings.strengthRandom = static_cast<float>(paramSet.getFloat("strengthRandom", 0.0));
        settings.strandStrengthRandom =
            static_cast<float>(paramSet.getFloat("strandStrengthRandom", 0.0));
        settings.lockRadiusRandom = static_cast<float>(paramSet.getFloat("lockRadiusRandom", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        const float copyAmount = static_cast<float>(paramSet.getFloat("copyAmount", 0.0));
        const std::string channel =
            paramSet.getString("clumpChannel", std::string(channels::kClumpId));

        std::shared_ptr<const CenterPlan> plan;
        if (incremental) {
            plan = reusablePlan(*input, pick, inputs, *incremental);
            if (!plan ||
                !mapsReadOnlyTheirStrand(paramSet, ctx, {"strength", "volumize", "centerWeight"}))
                return false;
        } else {
            if (source == CenterSource::Pick) pick.area = fittedArea(rootArea(*input, pick.scalp));
            plan = planFor(*input, pick);
        }
        const ClumpAxisTable axes =
            clumpAxisTable(*plan, *input, source == CenterSource::InputCurves ? &curves : nullptr,
                           copyAmount, clumpNeedsFrames(settings));

        if (!incremental) {
            auto made = std::make_shared<StrandSet>(*input);
            clumpStrands(*input, *plan, axes, settings, StrandSelection::every(),
                         made->overwritePoints());
            if (!channel.empty()) {
                made->removeStrandChannel(channel);
                std::vector<float>& numbers = made->addStrandChannel(channel, -1.0f);
                parallelRange(0, numbers.size(), 256, [&](std::size_t begin, std::size_t end) {
                    for (std::size_t s = begin; s < end; ++s) {
                        const std::int32_t c = plan->centerOf[s];
                        numbers[s] = c < 0 ? -1.0f : plan->numbers[static_cast<std::size_t>(c)];
                    }
                });
            }
            if (changes) {
                changes->all = true;
                changes->strands.clear();
                changes->sameLayout = true;
            }
            *out = std::shared_ptr<const StrandSet>(std::move(made));
            return true;
        }

        auto previous = incremental->previous.get<StrandSet>();
        if (!previous || previous->strandCount() != input->strandCount() ||
            previous->pointCount() != input->pointCount())
            return false;
        if (!channel.empty() && !previous->strandChannel(channel)) return false;
        const std::vector<std::uint64_t> redo =
            strandsToRedo(*plan, incremental->changes[0]->strands, copyAmount > 0.0f);
        auto made = std::make_shared<StrandSet>(*input);
        // The previous result is let go of, so that its columns, where nothing else holds them,
        // are taken over rather than copied.
        StrandSet before(*previous);
        previous.reset();
        incremental->takePrevious();
        made->moveColumnFrom(ColumnId::kPoints, before);
        if (!channel.empty()) made->moveStrandChannelFrom(channel, before);
        clumpStrands(*input, *plan, axes, settings, StrandSelection::only(redo),
                     made->writePoints());
        changes->all = false;
        changes->strands = redo;
        changes->sameLayout = true;
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }

    // The cached plan when its key is this run's, else a new one, published for the next run.
    std::shared_ptr<const CenterPlan> planFor(const StrandSet& strands,
                                              const CenterPickSettings& pick) const {
        const std::uint64_t key =
            centerPlanKey(centerSettingsKey(pick), centerChunkHashes(strands, pick));
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (plan_ && plan_->key == key) return plan_;
        }
        auto plan = buildCenterPlan(strands, pick);
        std::lock_guard<std::mutex> lock(mutex_);
        plan_ = plan;
        if (pick.source == CenterSource::Pick) fittedArea_ = pick.area;
        return plan;
    }

    // The cached plan, where the changed strands left its key as it was: the same settings, the
    // same centers input and, for each strand that changed, the same hash of what it reads.
    std::shared_ptr<const CenterPlan> reusablePlan(const StrandSet& strands,
                                                   CenterPickSettings& pick,
                                                   const std::vector<Value>& inputs,
                                                   const IncrementalInputs& incremental) const {
        if (incremental.changes.empty() || !incremental.changes[0]) return nullptr;
        const StrandChanges& changed = *incremental.changes[0];
        if (changed.all || !changed.sameLayout) return nullptr;
        for (std::size_t i = 1; i < incremental.changes.size() && i < inputs.size(); ++i)
            if (!inputs[i].empty() && (!incremental.changes[i] || incremental.changes[i]->all ||
                                       !incremental.changes[i]->strands.empty()))
                return nullptr;
        std::shared_ptr<const CenterPlan> plan;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            plan = plan_;
            if (pick.source == CenterSource::Pick) pick.area = fittedArea_;
        }
        if (!plan || !centerPlanHolds(*plan, strands, pick, changed.strands)) return nullptr;
        return plan;
    }

    // The changed strands and, where one of them is a center's axis, every strand of that clump
    // (and, with copyAmount, of the clumps that copy its shape). Ascending.
    static std::vector<std::uint64_t> strandsToRedo(const CenterPlan& plan,
                                                    std::span<const std::uint64_t> changed,
                                                    bool copies) {
        // The centers by their axis strands, to find those a changed strand moves.
        std::vector<std::pair<std::uint64_t, std::uint32_t>> owners;
        for (std::uint32_t c = 0; c < plan.size(); ++c)
            if (plan.axisStrand[c] != CenterPlan::kNone) owners.emplace_back(plan.axisStrand[c], c);
        std::sort(owners.begin(), owners.end());
        std::vector<std::uint8_t> moved(plan.size(), 0);
        bool anyMoved = false;
        for (const std::uint64_t s : changed) {
            auto at = std::lower_bound(owners.begin(), owners.end(), std::make_pair(s, 0u));
            for (; at != owners.end() && at->first == s; ++at) {
                moved[at->second] = 1;
                anyMoved = true;
            }
        }
        std::vector<std::uint64_t> redo(changed.begin(), changed.end());
        if (!anyMoved) return redo;
        std::vector<std::uint8_t> touched = moved;
        if (copies)
            for (std::size_t c = 0; c < plan.size(); ++c)
                for (int n = 0; n < CenterPlan::kNeighbors; ++n)
                    if (moved[plan.neighbors[c * CenterPlan::kNeighbors + n]]) touched[c] = 1;
        for (std::size_t c = 0; c < plan.size(); ++c)
            if (touched[c])
                for (const std::uint32_t s : plan.membersOf(c))
                    redo.push_back(s);
        std::sort(redo.begin(), redo.end());
        redo.erase(std::unique(redo.begin(), redo.end()), redo.end());
        return redo;
    }

    mutable std::mutex mutex_;
    mutable std::shared_ptr<const CenterPlan> plan_;
    mutable float fittedArea_ = 0.0f;
};

}  // namespace

std::unique_ptr<Operator> makeClumpOperator() {
    auto op = std::make_unique<ClumpOp>();
    op->declareParams();
    return op;
}

std::shared_ptr<const CenterPlan> clumpPlanOf(const Operator& op) {
    const auto* clump = dynamic_cast<const ClumpOp*>(&op);
    return clump ? clump->plan() : nullptr;
}

void registerClumpOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description =
        "Pulls strands toward their clump's center (or into round locks; Twist after it for "
        "ropes).";
    info.keywords = "clumps groups locks";
    registry.registerType(
        "Clump", [] { return std::make_unique<ClumpOp>(); }, info);
}

}  // namespace velmorin
