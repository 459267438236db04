#include <atomic>
#include <cmath>
#include <mutex>

#include "base/hash.h"
#include "base/parallel.h"
#include "fields/field_sampler.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "mesh/scalp_range.h"
#include "ops/field_op_params.h"
#include "ops/guide_mask.h"
#include "ops/scatter_placement.h"
#include "ops/source_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

constexpr std::size_t kCacheEntries = 2;
constexpr std::string_view kBudgetThinnedNote =
    "Thinned by the preview's point budget: the viewport shows fewer strands than the preview "
    "density asks for; renders and exports keep them all";

// Guides with their roots moved into a scalp piece whose faces start at `offset` in the whole
// scalp; a root outside the piece is unbound.
std::shared_ptr<const GuideSet> guidesInPiece(const GuideSet& guides, std::uint32_t offset,
                                              std::size_t faceCount) {
    auto moved = std::make_shared<GuideSet>(guides);
    for (Guide& guide : moved->guides) {
        StrandRoot& root = guide.root;
        if (root.face < 0) continue;
        const auto face = static_cast<std::int64_t>(root.face) - offset;
        root.face = face >= 0 && face < static_cast<std::int64_t>(faceCount)
                        ? static_cast<std::int32_t>(face)
                        : -1;
    }
    return moved;
}

std::uint64_t guidesKey(const GuideSet* guides) {
    std::uint64_t h = 0x6775696465ull;
    if (!guides) return h;
    for (const Guide& guide : guides->guides) {
        h = hashCombine(h, guide.id);
        if (!guide.points.empty())
            for (const float f : {guide.points[0].x, guide.points[0].y, guide.points[0].z})
                h = hashCombine(h, floatBits(f));
        for (const auto& [name, value] : guide.attributes) {
            h = hashText(h, name);
            h = hashCombine(h, floatBits(value));
        }
    }
    return h;
}

// Roots over the scalp: how many hairs, and where.
class ScatterOp final : public Operator {
  public:
    using Placed = ScatterPlacement;

    std::string type() const override { return "Scatter"; }
    std::string category() const override { return "grow"; }
    std::vector<PortSpec> inputs() const override {
        return {{"scalp", PortType::Mesh}, {"guides", PortType::Guides, true}};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec density = makeParam(
            "density", 80.0,
            "Strands per unit area (mappable: texture, color set, expression, guide layer)");
        density.min = 0.0;
        density.max = 2000.0;
        density.unit = "density";
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.unit = "seed";
        seed.animatable = false;
        ParamSpec length = makeParam(
            "length", 1.0,
            "Length of the straight strands grown along the scalp's normal. An Interpolate after "
            "it gives the strands the guides' shapes and lengths, so with guides this shows only "
            "where no guide reaches; to make hair longer or shorter, brush the guides or trim "
            "with the Length node");
        length.min = 0.0;
        length.max = 10.0;
        length.unit = "length";
        ParamSpec randomness = makeParam(
            "randomness", 1.0,
            "How random the roots are: 0 evenly spread (blue noise), 1 at random (white noise); "
            "in between each root moves smoothly from its even spot to its random one. The same "
            "strands at every value");
        randomness.min = 0.0;
        randomness.max = 1.0;
        randomness.unit = "fraction";
        ParamSpec layout = field_ops::choiceParam(
            "layout", "random", {"random", "uvGrid"},
            "random: roots at random (randomness 0 spreads them evenly); uvGrid: one per cell of "
            "a grid over the scalp's UVs (rows x columns; density maps thin it)");
        ParamSpec rows =
            makeParam("gridRows", std::int64_t{100}, "uvGrid: rows of the grid, along V");
        ParamSpec columns =
            makeParam("gridColumns", std::int64_t{100}, "uvGrid: columns of the grid, along U");
        for (ParamSpec* grid : {&rows, &columns}) {
            grid->min = 1.0;
            grid->max = 20000.0;
            grid->softMax = 1000.0;
        }
        ParamSpec gridRandom = makeParam(
            "gridRandom", 0.0, "uvGrid: each root moved at random up to this share of its cell");
        gridRandom.min = 0.0;
        gridRandom.max = 1.0;
        gridRandom.unit = "fraction";
        ParamSpec previewAll = makeParam(
            "previewAll", false,
            "Every root in the viewport too, whatever the groom's preview density: for big pieces "
            "(instances, scales) that a thinned preview would leave bald. A scatter making 250 "
            "strands or fewer is never thinned anyway");
        previewAll.animatable = false;
        ParamSpec guideRadius = makeParam(
            "guideRadius", 0.0,
            "Only within this distance of a guide's root (the guides input, every level of its "
            "groups: primaries and their children): fur along drawn guides, a patch, a stripe. 0, "
            "or nothing connected to guides: the whole scalp");
        guideRadius.min = 0.0;
        guideRadius.unit = "length";
        ParamSpec tubeMargin = makeParam(
            "tubeMargin", 0.0,
            "With guideRadius: guides whose tube has a shape keep the roots on their tube's root "
            "footprint (its outline laid on the scalp) instead of a disc, and within this share "
            "of the tube's half-width round it (as Interpolate's tubeBlend measures)");
        tubeMargin.min = 0.0;
        tubeMargin.unit = "fraction";
        return {density, seed,       length,     randomness,  layout,    rows,
                columns, gridRandom, previewAll, guideRadius, tubeMargin};
    }
    // The whole scalp, to find where a scalp piece sits in it; and the catalog of maps that a
    // mapped density reads.
    std::vector<std::string> sceneInputs() const override {
        return {std::string(kScalpInput), std::string(kMapsInput)};
    }
    std::uint64_t contextKey(const EvalContext& ctx, std::uint32_t,
                             const EvalContext&) const override {
        std::uint64_t h = hashCombine(0x73636174ull, static_cast<std::uint64_t>(ctx.resolution));
        return hashCombine(h, doubleBits(ctx.previewPointBudget));
    }

    void copyStateFrom(const Operator& other) override {
        const auto* source = dynamic_cast<const ScatterOp*>(&other);
        if (!source) return;
        std::vector<PlacedEntry> placed;
        std::vector<BlendEntry> blended;
        {
            std::lock_guard<std::mutex> lock(source->cacheMutex_);
            placed = source->placedCache_;
            blended = source->blendCache_;
        }
        budgetThinned_.store(source->budgetThinned_.load());
        std::lock_guard<std::mutex> lock(cacheMutex_);
        placedCache_.swap(placed);
        blendCache_.swap(blended);
    }

    // Whether the last run was thinned by the preview's point budget.
    bool budgetThinned() const { return budgetThinned_.load(); }
    // The node's note says so, as the graph asks right after each run.
    std::string evaluationNote(const EvalContext&) const override {
        return budgetThinned() ? std::string(kBudgetThinnedNote) : std::string();
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const auto scalp = inputs.empty() ? nullptr : inputs[0].get<ScalpMesh>();
        if (!scalp || scalp->triangleCount() == 0) return std::make_shared<const StrandSet>();

        // A piece of the groom's scalp: guides and map samples speak of the whole scalp's faces.
        const SceneInput* wholeInput = ctx.sceneInput(kScalpInput);
        const auto whole = wholeInput ? wholeInput->value.get<ScalpMesh>() : nullptr;
        const std::uint32_t faceOffset = pieceFaceOffset(*scalp, whole.get()).value_or(0);
        std::shared_ptr<const GuideSet> guides =
            inputs.size() > 1 ? inputs[1].get<GuideSet>() : nullptr;
        if (guides && faceOffset != 0)
            guides = guidesInPiece(*guides, faceOffset, scalp->triangleCount());

        // The density: its plain value, and where mapped its samples on every face.
        const double plain = std::max(0.0, paramSet.getFloat("density", 80.0));
        const FieldSampler sampler = fieldSamplerAtRoots(paramSet, ctx, "density");
        DensityAt densityAt;
        double working = plain;
        if (sampler.isMapped()) {
            densityAt = [&sampler, faceOffset](const StrandRoot& root, const Vec3f& position) {
                StrandRoot at = root;
                if (at.face >= 0) at.face += static_cast<std::int32_t>(faceOffset);
                return std::max(0.0f, sampler.at({at, position}));
            };
            working = workingDensity(plain, faceSamples(*scalp, densityAt));
        }

        const std::string layout = paramSet.getString("layout", "random");
        const bool grid = layout == "uvGrid";
        const auto rows = static_cast<int>(paramSet.getInt("gridRows", 100));
        const auto columns = static_cast<int>(paramSet.getInt("gridColumns", 100));
        const std::vector<float> areas = grid ? std::vector<float>() : growthAreas(*scalp);
        double expected = 0.0;
        if (grid) {
            expected = static_cast<double>(rows) * static_cast<double>(columns);
            if (!scalp->hasUvs())
                throw GraphError("Scatter: the uvGrid layout needs the scalp's UVs");
        } else {
            double area = 0.0;
            for (const float a : areas)
                area += a;
            expected = working * area;
        }

        const double guideRadius = paramSet.getFloat("guideRadius", 0.0);
        std::shared_ptr<const GuideMask> mask;
        if (guideRadius > 0.0) {
            if (!guides || guides->guides.empty())
                throw GraphError(
                    "Scatter: guideRadius needs guides on the guides input (a Guides node)");
            mask = std::make_shared<const GuideMask>(
                guides->guides, *scalp, static_cast<float>(guideRadius),
                static_cast<float>(paramSet.getFloat("tubeMargin", 0.0)));
            if (mask->empty()) mask.reset();
        }

        const std::string heavy = checkScatterCounts(working, expected, grid);
        if (!heavy.empty()) ctx.note(heavy);

        const int segments = ctx.resolution <= 0 ? 8 : std::clamp(ctx.resolution, 1, 256);
        PreviewRequest request;
        request.expectedCount = expected;
        request.pointsPerStrand = static_cast<std::size_t>(segments) + 1;
        request.previewDensity = ctx.previewDensity;
        request.pointBudget = ctx.previewPointBudget;
        request.previewAll = paramSet.getBool("previewAll", false);
        const PreviewPlan plan = planPreview(request);
        budgetThinned_.store(plan.budgetThinned);
        checkScatterPoints(plan, request);

        // Placement, keyed by what it depends on; blue noise and blends place every candidate.
        const double randomness = std::clamp(paramSet.getFloat("randomness", 1.0), 0.0, 1.0);
        const bool relaxed = !grid && randomness < 1.0;
        const double share = relaxed ? 1.0 : plan.kept;
        const std::uint64_t seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        bool cachable = true;
        std::uint64_t key = hashCombine(0x706c616365ull, scalp->contentSignature());
        key = hashCombine(key, densityKey(ctx, sampler, guides.get(), cachable));
        key = hashCombine(key, doubleBits(working));
        key = hashCombine(key, seed);
        key = hashCombine(key, mask ? mask->hash() : 0);
        key = hashCombine(key, doubleBits(share));
        key = hashCombine(key, relaxed ? 1 : 0);
        if (grid) {
            key = hashCombine(key, static_cast<std::uint64_t>(rows));
            key = hashCombine(key, static_cast<std::uint64_t>(columns));
            key = hashCombine(key, doubleBits(paramSet.getFloat("gridRandom", 0.0)));
        }

        std::shared_ptr<const Placed> placed = cachable ? findPlaced(key) : nullptr;
        if (!placed) {
            auto made = std::make_shared<Placed>();
            if (grid) {
                GridSettings settings;
                settings.rows = rows;
                settings.columns = columns;
                settings.jitter = static_cast<float>(paramSet.getFloat("gridRandom", 0.0));
                settings.seed = seed;
                settings.share = share;
                settings.density = working;
                settings.mappedDensity = densityAt;
                settings.mask = mask.get();
                *made = placeGrid(*scalp, settings);
            } else {
                PlacementSettings settings;
                settings.density = working;
                settings.mappedDensity = densityAt;
                settings.seed = seed;
                settings.mask = mask.get();
                settings.share = share;
                *made = placeRandom(*scalp, areas, settings);
                if (relaxed) relaxPlacement(*scalp, settings, *made);
            }
            placed = made;
            if (cachable) storePlaced(key, placed);
        }

        // Selection by id, then the roots at this randomness.
        std::vector<std::uint8_t> marks;
        bool anyPartial = false;
        const bool full = plan.fullRun();
        std::size_t kept = placed->size();
        if (!full) kept = selectStrands(placed->ids, plan, marks, anyPartial);

        std::shared_ptr<const std::vector<StrandRoot>> blended;
        std::span<const StrandRoot> roots = placed->randomRoots;
        if (relaxed && randomness <= 0.0) {
            roots = placed->evenRoots;
        } else if (relaxed) {
            std::uint64_t blendKey = hashCombine(key, doubleBits(randomness));
            blendKey = hashCombine(blendKey, doubleBits(plan.preview));
            blended = cachable ? findBlend(blendKey, placed.get()) : nullptr;
            if (!blended) {
                blended = std::make_shared<const std::vector<StrandRoot>>(blendSelected(
                    *scalp, *placed, full ? nullptr : &marks, static_cast<float>(randomness)));
                if (cachable) storeBlend(blendKey, placed, blended);
            }
            roots = *blended;
        }

        GrowSettings grow;
        grow.segments = segments;
        grow.length = static_cast<float>(paramSet.getFloat("length", 1.0));
        grow.faceOffset = static_cast<std::int32_t>(faceOffset);
        grow.writeMarks = !full && anyPartial;
        return std::make_shared<const StrandSet>(
            growStrands(*scalp, placed->ids, roots, full ? nullptr : &marks, kept, grow));
    }

  private:
    struct PlacedEntry {
        std::uint64_t key = 0;
        std::shared_ptr<const Placed> placed;
    };
    struct BlendEntry {
        std::uint64_t key = 0;
        const Placed* placed = nullptr;  // compared by identity; the entry below keeps it alive
        std::shared_ptr<const Placed> owner;
        std::shared_ptr<const std::vector<StrandRoot>> roots;
    };

    // The density at four points of every face: its corners and its centre.
    static std::vector<float> faceSamples(const ScalpMesh& scalp, const DensityAt& densityAt) {
        const std::size_t faces = scalp.triangleCount();
        std::vector<float> samples(faces * 4);
        constexpr StrandRoot kSpots[4] = {
            {0, 0.0f, 0.0f}, {0, 1.0f, 0.0f}, {0, 0.0f, 1.0f}, {0, 1.0f / 3.0f, 1.0f / 3.0f}};
        parallelRange(0, faces, 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t f = begin; f < end; ++f) {
                for (int k = 0; k < 4; ++k) {
                    StrandRoot root = kSpots[k];
                    root.face = static_cast<std::int32_t>(f);
                    samples[f * 4 + k] = densityAt(root, scalp.pointAt(root));
                }
            }
        });
        return samples;
    }

    // What the density reads, for the placement key; clears `cachable` where no key can say it.
    std::uint64_t densityKey(const EvalContext& ctx, const FieldSampler& sampler,
                             const GuideSet* guides, bool& cachable) const {
        std::uint64_t h = hashParamValue(0x64656e73ull, paramSet.checked("density"));
        if (!sampler.isMapped()) return h;
        const ParamValue& value = paramSet.checked("density");
        if (const auto* map = std::get_if<MapReference>(&value);
            map && map->source == MapSource::Expression)
            cachable = false;
        if (sampler.field()->dependsOnTime()) cachable = false;
        h = hashCombine(h, sampler.field()->key());
        for (const std::string_view name : {kScalpInput, kMapsInput}) {
            const SceneInput* input = ctx.sceneInput(name);
            h = hashCombine(h, input ? input->key : 0);
        }
        return hashCombine(h, guidesKey(guides));
    }

    static std::vector<StrandRoot> blendSelected(const ScalpMesh& scalp, const Placed& placed,
                                                 const std::vector<std::uint8_t>* marks,
                                                 float randomness) {
        if (!marks) return blendRoots(scalp, placed.evenRoots, placed.randomRoots, randomness);
        // Only the kept entries are blended; the others are never grown.
        std::vector<std::uint32_t> kept;
        for (std::size_t i = 0; i < marks->size(); ++i)
            if ((*marks)[i] != 0) kept.push_back(static_cast<std::uint32_t>(i));
        std::vector<StrandRoot> even(kept.size()), random(kept.size());
        for (std::size_t k = 0; k < kept.size(); ++k) {
            even[k] = placed.evenRoots[kept[k]];
            random[k] = placed.randomRoots[kept[k]];
        }
        const std::vector<StrandRoot> mixed = blendRoots(scalp, even, random, randomness);
        std::vector<StrandRoot> roots = placed.randomRoots;
        for (std::size_t k = 0; k < kept.size(); ++k)
            roots[kept[k]] = mixed[k];
        return roots;
    }

    std::shared_ptr<const Placed> findPlaced(std::uint64_t key) const {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        for (const PlacedEntry& entry : placedCache_)
            if (entry.key == key) return entry.placed;
        return nullptr;
    }
    void storePlaced(std::uint64_t key, std::shared_ptr<const Placed> placed) const {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        placedCache_.insert(placedCache_.begin(), PlacedEntry{key, std::move(placed)});
        if (placedCache_.size() > kCacheEntries) placedCache_.resize(kCacheEntries);
    }
    std::shared_ptr<const std::vector<StrandRoot>> findBlend(std::uint64_t key,
                                                             const Placed* placed) const {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        for (const BlendEntry& entry : blendCache_)
            if (entry.key == key && entry.placed == placed) return entry.roots;
        return nullptr;
    }
    void storeBlend(std::uint64_t key, const std::shared_ptr<const Placed>& placed,
                    std::shared_ptr<const std::vector<StrandRoot>> roots) const {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        blendCache_.insert(blendCache_.begin(),
                           BlendEntry{key, placed.get(), placed, std::move(roots)});
        if (blendCache_.size() > kCacheEntries) blendCache_.resize(kCacheEntries);
    }

    // Run-time state, not part of the document: what the pointers reach is immutable.
    mutable std::mutex cacheMutex_;
    mutable std::vector<PlacedEntry> placedCache_;
    mutable std::vector<BlendEntry> blendCache_;
    mutable std::atomic<bool> budgetThinned_{false};
};

}  // namespace

void registerScatterOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "grow";
    info.description = "Roots over the scalp: how many hairs, and where.";
    info.keywords = "density count roots number hairs";
    registry.registerType(
        "Scatter", [] { return std::make_unique<ScatterOp>(); }, info);
}

}  // namespace velmorin
