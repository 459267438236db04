#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <tuple>
#include <unordered_map>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/field_value.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "mesh/scalp_range.h"
#include "mesh/subdivision.h"
#include "ops/guide_mask.h"
#include "ops/scatter_cells.h"
#include "ops/scatter_placement.h"
#include "strands/array_pool.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// Every choice of lanes: each gives the same lists and the same bits.
constexpr RelaxLanes kAllLanes[] = {RelaxLanes::widest, RelaxLanes::eight, RelaxLanes::four};

const char* lanesName(RelaxLanes lanes) {
    return lanes == RelaxLanes::four    ? ", four lanes"
           : lanes == RelaxLanes::eight ? ", eight lanes"
                                        : "";
}

using test::expectMessage;

// The head-like scalp has an area of about 408: a density of 10 makes about 4,000 strands.
std::shared_ptr<const ScalpMesh> head() {
    static const auto mesh = makeHeadScalp(1);
    return mesh;
}

struct ScatterRun {
    double density = 10.0;
    double randomness = 1.0;
    double previewDensity = 1.0;
    double pointBudget = 0.0;
    std::string layout = "random";
    std::int64_t rows = 40, columns = 50;
    double gridRandom = 0.0;
    double guideRadius = 0.0;
    std::shared_ptr<const FieldValue> densityField = nullptr;
    std::shared_ptr<const GuideSet> guides = nullptr;
    std::shared_ptr<const ScalpMesh> scalp = head();
    const SceneInputs* scene = nullptr;
};

std::unique_ptr<Operator> makeScatter() {
    return OperatorRegistry::instance().create("Scatter");
}

std::shared_ptr<const StrandSet> scatter(Operator& op, const ScatterRun& run) {
    op.paramSet.set("density", run.density);
    op.paramSet.set("randomness", run.randomness);
    op.paramSet.set("layout", run.layout);
    op.paramSet.set("gridRows", run.rows);
    op.paramSet.set("gridColumns", run.columns);
    op.paramSet.set("gridRandom", run.gridRandom);
    op.paramSet.set("guideRadius", run.guideRadius);
    DeliveredParams delivered;
    if (run.densityField) delivered.fields["density"] = run.densityField;
    EvalContext ctx;
    ctx.delivered = &delivered;
    ctx.previewDensity = run.previewDensity;
    ctx.previewPointBudget = run.pointBudget;
    ctx.resolution = 4;
    ctx.sceneInputs = run.scene;
    Value guides;
    if (run.guides) guides = run.guides;
    return op.evaluate(ctx, {run.scalp, guides}).get<StrandSet>();
}

std::shared_ptr<const StrandSet> scatter(const ScatterRun& run) {
    auto op = makeScatter();
    return scatter(*op, run);
}

std::unordered_map<std::uint64_t, StrandRoot> rootsById(const StrandSet& set) {
    std::unordered_map<std::uint64_t, StrandRoot> roots;
    for (std::size_t s = 0; s < set.strandCount(); ++s)
        roots[set.ids()[s]] = set.roots()[s];
    return roots;
}

// Density 400 where x >= 0, 0 on the other side.
class HalfField final : public FieldValue {
  public:
    explicit HalfField(float high) : high_(high) {}
    float atStrand(std::size_t) const override { return high_; }
    float atPoint(std::size_t, std::size_t) const override { return high_; }
    bool varies() const override { return true; }
    std::uint64_t key() const override { return floatBits(high_); }
    float atLocation(const FieldLocation& location) const override {
        return location.position.x >= 0.0f ? high_ : 0.0f;
    }
    std::string describe() const override { return "half"; }

  private:
    float high_;
};

TEST(Scatter, RaisingDensityKeepsEveryStrandAndRoot) {
    const auto low = scatter(ScatterRun{.density = 5.0});
    const auto high = scatter(ScatterRun{.density = 12.0});
    ASSERT_GT(low->strandCount(), 1000u);
    EXPECT_GT(high->strandCount(), low->strandCount() * 2);
    const auto highRoots = rootsById(*high);
    for (std::size_t s = 0; s < low->strandCount(); ++s) {
        const auto found = highRoots.find(low->ids()[s]);
        ASSERT_NE(found, highRoots.end()) << "strand " << s;
        EXPECT_EQ(found->second, low->roots()[s]);
    }
}

TEST(Scatter, EveryRandomnessGivesTheSameStrands) {
    const auto reference = scatter(ScatterRun{.randomness = 1.0});
    std::vector<std::uint64_t> ids(reference->ids().begin(), reference->ids().end());
    for (const double randomness : {0.0, 0.3, 0.5, 0.9}) {
        const auto set = scatter(ScatterRun{.randomness = randomness});
        EXPECT_TRUE(std::equal(ids.begin(), ids.end(), set->ids().begin(), set->ids().end()))
            << "randomness " << randomness;
        std::string message;
        EXPECT_TRUE(set->validate(message)) << message;
    }
    // The even roots are not the random ones, and the blend lies between.
    const auto even = scatter(ScatterRun{.randomness = 0.0});
    std::size_t moved = 0;
    for (std::size_t s = 0; s < even->strandCount(); ++s)
        moved += !(even->roots()[s] == reference->roots()[s]);
    EXPECT_GT(moved, even->strandCount() * 9 / 10);
}

TEST(Scatter, BlueNoiseSpreadsRootsEvenly) {
    // The nearest neighbour of an even root lies farther than that of a random one, on average.
    const auto nearestMean = [](const StrandSet& set) {
        const auto points = set.points();
        double total = 0.0;
        const std::size_t n = set.strandCount(), step = 5;
        for (std::size_t s = 0; s < n; s += 7) {
            float best = std::numeric_limits<float>::max();
            for (std::size_t t = 0; t < n; ++t)
                if (t != s)
                    best = std::min(best, lengthSquared(points[s * step] - points[t * step]));
            total += std::sqrt(best);
        }
        return total / static_cast<double>((n + 6) / 7);
    };
    const double random = nearestMean(*scatter(ScatterRun{.randomness = 1.0}));
    const double even = nearestMean(*scatter(ScatterRun{.randomness = 0.0}));
    EXPECT_GT(even, random * 1.5);
}

TEST(Scatter, LowerPreviewKeepsASubsetWithTheSameRoots) {
    for (const double randomness : {1.0, 0.5, 0.0}) {
        const auto full = scatter(ScatterRun{.density = 30.0, .randomness = randomness});
        const auto half =
            scatter(ScatterRun{.density = 30.0, .randomness = randomness, .previewDensity = 0.5});
        ASSERT_GT(full->strandCount(), 5000u);
        EXPECT_LT(half->strandCount(), full->strandCount() * 3 / 4);
        EXPECT_GT(half->strandCount(), full->strandCount() / 4);
        const auto fullRoots = rootsById(*full);
        for (std::size_t s = 0; s < half->strandCount(); ++s) {
            const auto found = fullRoots.find(half->ids()[s]);
            ASSERT_NE(found, fullRoots.end()) << "randomness " << randomness;
            EXPECT_EQ(found->second, half->roots()[s]) << "randomness " << randomness;
        }
        // Exactly the strands whose ids the preview keeps (both shares are 0.5 here), each once
        // and in the full run's order.
        std::vector<std::uint64_t> expected;
        for (const std::uint64_t id : full->ids())
            if (unitFloat(id) < 0.5f) expected.push_back(id);
        EXPECT_TRUE(
            std::equal(expected.begin(), expected.end(), half->ids().begin(), half->ids().end()))
            << "randomness " << randomness;
        EXPECT_EQ(full->strandChannel("_preview"), nullptr);
    }
}

TEST(Scatter, PreviewMarksFollowTheIds) {
    // About 12,000 strands: the coarse share is 2^-floor(log2(12000 / 5000)) = 0.5.
    const auto set = scatter(ScatterRun{.density = 30.0, .previewDensity = 0.2});
    const std::vector<float>* marks = set->strandChannel("_preview");
    ASSERT_NE(marks, nullptr);
    std::map<float, std::size_t> counts;
    for (std::size_t s = 0; s < set->strandCount(); ++s) {
        const float u = unitFloat(set->ids()[s]);
        const float expected = u < 0.2f ? 1.0f : 2.0f;  // q = 0.5 is above p
        EXPECT_EQ((*marks)[s], expected);
        EXPECT_LT(u, 0.5f);
        ++counts[(*marks)[s]];
    }
    EXPECT_GT(counts[1.0f], 0u);
    EXPECT_GT(counts[2.0f], 0u);
}

TEST(Scatter, SmallScattersAreNeverThinned) {
    // About 200 strands, and about 400 with previewAll.
    for (const double preview : {1.0, 0.5, 0.05}) {
        const auto set = scatter(ScatterRun{.density = 0.5, .previewDensity = preview});
        EXPECT_GT(set->strandCount(), 150u);
        EXPECT_EQ(set->strandCount(), scatter(ScatterRun{.density = 0.5})->strandCount());
        EXPECT_EQ(set->strandChannel("_preview"), nullptr);
    }
    auto op = makeScatter();
    op->paramSet.set("previewAll", true);
    const auto all = scatter(*op, ScatterRun{.density = 5.0, .previewDensity = 0.1});
    EXPECT_EQ(all->strandCount(), scatter(ScatterRun{.density = 5.0})->strandCount());
}

TEST(Scatter, PointBudgetThinsThePreview) {
    // About 12,000 strands of 5 points: a budget of 30,000 points asks for 0.49 of them, just
    // under the coarse share of 0.5; one of 12,000 points meets the coarse share's floor.
    const std::size_t full = scatter(ScatterRun{.density = 30.0})->strandCount();
    for (const double budget : {30000.0, 12000.0}) {
        const auto set = scatter(ScatterRun{.density = 30.0, .pointBudget = budget});
        EXPECT_GT(set->strandCount(), full * 45 / 100) << budget;
        EXPECT_LT(set->strandCount(), full * 55 / 100) << budget;
        ASSERT_NE(set->strandChannel("_preview"), nullptr);
    }
    const auto generous = scatter(ScatterRun{.density = 30.0, .pointBudget = 1e9});
    EXPECT_EQ(generous->strandCount(), full);

    // The node's note says when the budget thinned its last run, and only then.
    const std::string thinned =
        "Thinned by the preview's point budget: the viewport shows fewer strands than the preview "
        "density asks for; renders and exports keep them all";
    const auto op = makeScatter();
    const EvalContext ctx;
    EXPECT_EQ(op->evaluationNote(ctx), "");
    scatter(*op, ScatterRun{.density = 30.0, .pointBudget = 30000.0});
    EXPECT_EQ(op->evaluationNote(ctx), thinned);
    const auto copy = makeScatter();
    copy->copyStateFrom(*op);
    EXPECT_EQ(copy->evaluationNote(ctx), thinned);
    scatter(*op, ScatterRun{.density = 30.0, .pointBudget = 1e9});
    EXPECT_EQ(op->evaluationNote(ctx), "");
}

TEST(Scatter, MappedDensityThinsByTheMap) {
    const auto plain = scatter(ScatterRun{.density = 10.0});
    const auto mapped =
        scatter(ScatterRun{.density = 1.0, .densityField = std::make_shared<HalfField>(10.0f)});
    std::size_t plainRight = 0;
    for (std::size_t s = 0; s < plain->strandCount(); ++s)
        plainRight += head()->pointAt(plain->roots()[s]).x >= 0.0f;
    for (std::size_t s = 0; s < mapped->strandCount(); ++s)
        EXPECT_GE(head()->pointAt(mapped->roots()[s]).x, 0.0f);
    // The working density is 10 (a step of an eighth of a decade): the right half is kept whole.
    EXPECT_EQ(mapped->strandCount(), plainRight);

    // A map of 0 everywhere makes nothing, and no error.
    const auto none =
        scatter(ScatterRun{.density = 0.0, .densityField = std::make_shared<HalfField>(0.0f)});
    EXPECT_EQ(none->strandCount(), 0u);
    // Blue noise keeps its roots where the map allows.
    const auto even = scatter(ScatterRun{
        .density = 1.0, .randomness = 0.0, .densityField = std::make_shared<HalfField>(10.0f)});
    EXPECT_EQ(even->strandCount(), mapped->strandCount());
    for (std::size_t s = 0; s < even->strandCount(); ++s)
        EXPECT_GE(head()->pointAt(even->roots()[s]).x, 0.0f);
}

TEST(Scatter, SameBitsAtOneAndTwoThreads) {
    const auto half = std::make_shared<HalfField>(12.0f);
    const std::vector<std::pair<std::string, ScatterRun>> runs = {
        {"random", ScatterRun{.density = 12.0}},
        {"blue noise", ScatterRun{.density = 12.0, .randomness = 0.0}},
        {"blend", ScatterRun{.density = 12.0, .randomness = 0.4}},
        {"mapped blue noise", ScatterRun{.density = 1.0, .randomness = 0.0, .densityField = half}},
        {"preview blend", ScatterRun{.density = 12.0, .randomness = 0.6, .previewDensity = 0.3}},
        {"grid", ScatterRun{.layout = "uvGrid", .rows = 60, .columns = 80, .gridRandom = 0.5}},
    };
    for (const auto& named : runs) {
        const ScatterRun& run = named.second;
        std::uint64_t one = 0, two = 0;
        runWithThreads(1, [&] { one = scatter(run)->contentHash(); });
        runWithThreads(2, [&] { two = scatter(run)->contentHash(); });
        EXPECT_EQ(one, two) << named.first;
    }
}

// The relaxation's neighbour lists by brute force: every other candidate within range, ordered by
// squared distance and then by rank (the index, or `ranks[index]`), the first 24 kept and the rest
// padded with the candidate.
std::vector<std::uint32_t> nearestByBruteForce(std::span<const Vec3f> positions, float range,
                                               std::span<const std::uint32_t> ranks = {}) {
    std::vector<std::uint32_t> lists(positions.size() * kRelaxNeighbors);
    std::vector<std::tuple<float, std::uint32_t, std::uint32_t>> all;
    for (std::uint32_t i = 0; i < positions.size(); ++i) {
        all.clear();
        for (std::uint32_t j = 0; j < positions.size(); ++j) {
            const float d2 = lengthSquared(positions[j] - positions[i]);
            if (j != i && d2 <= range * range)
                all.emplace_back(d2, ranks.empty() ? j : ranks[j], j);
        }
        std::sort(all.begin(), all.end());
        for (std::size_t k = 0; k < kRelaxNeighbors; ++k)
            lists[i * kRelaxNeighbors + k] = k < all.size() ? std::get<2>(all[k]) : i;
    }
    return lists;
}

// Compares the neighbour lists at one and two threads with brute force, written to lists on a
// cache line (which the search may write past the cache) and a word off one.
void expectNearestInRange(const std::string& name, std::span<const Vec3f> positions, float cell,
                          float range, std::span<const std::uint32_t> ranks = {}) {
    const std::vector<std::uint32_t> expected = nearestByBruteForce(positions, range, ranks);
    const std::size_t words = positions.size() * kRelaxNeighbors;
    std::vector<std::uint32_t> storage(words + 32);
    const std::size_t aligned =
        (64 - reinterpret_cast<std::uintptr_t>(storage.data()) % 64) % 64 / sizeof(std::uint32_t);
    for (const RelaxLanes lanes : kAllLanes) {
        for (const int threads : {1, 2}) {
            for (const std::size_t offset : {aligned, aligned + 1}) {
                const std::span<std::uint32_t> lists(storage.data() + offset, words);
                std::fill(lists.begin(), lists.end(), 0xdeadbeefu);
                runWithThreads(threads, [&] {
                    nearestNeighbors(positions, cell, range, lists, lanes, ranks);
                });
                std::size_t wrong = 0;
                for (std::size_t i = 0; i < positions.size(); ++i)
                    wrong += !std::equal(lists.begin() + i * kRelaxNeighbors,
                                         lists.begin() + (i + 1) * kRelaxNeighbors,
                                         expected.begin() + i * kRelaxNeighbors);
                EXPECT_EQ(wrong, 0u) << name << " at " << threads << " threads" << lanesName(lanes)
                                     << (offset == aligned ? "" : ", unaligned");
            }
        }
    }
}

TEST(Scatter, NeighbourListsAreTheNearestInRange) {
    struct Case {
        std::string name;
        double density;
        DensityAt mapped;
        float rangeInRadii;  // 0: the relaxation's own range
    };
    // A density falling off across the head makes radii from one to several times the smallest.
    const DensityAt falling = [](const StrandRoot&, const Vec3f& p) {
        return 12.0f / (1.0f + 0.04f * (p.x + 10.0f) * (p.x + 10.0f));
    };
    const std::vector<Case> cases = {
        {"plain", 10.0, {}, 0.0f},
        {"mapped", 12.0, falling, 0.0f},
        {"short range, padded lists", 10.0, {}, 1.5f},
    };
    for (const Case& c : cases) {
        PlacementSettings settings;
        settings.density = c.density;
        settings.mappedDensity = c.mapped;
        const ScatterPlacement placed = placeRandom(*head(), growthAreas(*head()), settings);
        ASSERT_GT(placed.size(), 1000u) << c.name;
        ASSERT_LT(placed.size(), 6000u) << c.name;
        const float r0 = 1.0746f / std::sqrt(static_cast<float>(c.density));
        std::vector<Vec3f> positions;
        float largest = 0.0f;
        for (const StrandRoot& root : placed.randomRoots) {
            positions.push_back(head()->pointAt(root));
            const float d = c.mapped ? c.mapped(root, positions.back()) : float(c.density);
            largest = std::max(largest, 1.0746f / std::sqrt(d));
        }
        if (c.mapped) {
            EXPECT_GT(largest, 3.0f * r0) << c.name;
        }
        // Two candidates on one spot and one far from all: ties and empty lists.
        positions.push_back(positions[7]);
        positions.push_back(positions[7] + Vec3f{0.0f, 0.0f, 1e4f});
        const float range = c.rangeInRadii > 0.0f ? c.rangeInRadii * r0 : 3.0f * largest + r0;
        // Small cells send most searches through the shell search, the relaxation's two-radius
        // cells through the block search.
        expectNearestInRange(c.name + ", small cells", positions, 0.5f * r0, range);
        expectNearestInRange(c.name, positions, 2.0f * r0, range);
    }
    // A lattice, numbered column by column, has many equal distances across cells: they must go
    // by index, not by the order the grid meets them.
    std::vector<Vec3f> lattice;
    for (int x = 0; x < 40; ++x)
        for (int y = 0; y < 40; ++y)
            lattice.push_back({0.25f * static_cast<float>(x), 0.25f * static_cast<float>(y), 0.0f});
    expectNearestInRange("lattice", lattice, 0.5f, 4.0f);
    expectNearestInRange("lattice, large cells", lattice, 2.0f, 4.0f);
    // Ranked otherwise than by index (as the relaxation ranks candidates kept in grid order),
    // equal distances go by rank.
    std::vector<std::uint32_t> ranks(lattice.size());
    for (std::uint32_t i = 0; i < ranks.size(); ++i)
        ranks[i] = (i * 977u + 13u) % static_cast<std::uint32_t>(ranks.size());
    expectNearestInRange("lattice, ranked", lattice, 0.5f, 4.0f, ranks);
    expectNearestInRange("lattice, ranked, large cells", lattice, 2.0f, 4.0f, ranks);
}

// The even roots' bits, folded in order.
std::uint64_t evenRootsHash(const ScatterPlacement& placed) {
    std::uint64_t h = placed.size();
    for (const StrandRoot& root : placed.evenRoots) {
        h = hashCombine(h, static_cast<std::uint64_t>(static_cast<std::uint32_t>(root.face)));
        h = hashCombine(h, floatBits(root.u));
        h = hashCombine(h, floatBits(root.v));
    }
    return h;
}

TEST(Scatter, RelaxedRootsKeepTheirBits) {
    // The relaxation's searches may change in speed, never in result: these are the bits of the
    // roots as relaxed by the push with one square root and one division a pair, with plain and
    // mapped densities and two candidates on one spot. On a flat scalp every step is plain
    // correctly rounded arithmetic, the same on every platform.
    const auto plane = makeUvPlane(10.0f, 6);
    const DensityAt falling = [](const StrandRoot&, const Vec3f& p) {
        return 36.0f / (1.0f + 0.04f * (p.x + 5.0f) * (p.x + 5.0f));
    };
    const struct {
        const char* name;
        DensityAt mapped;
        std::uint64_t bits;
    } cases[] = {
        {"plain", {}, 0x953077145eeb6fa2ull},
        {"mapped", falling, 0xd00d06f12b6a53b4ull},
    };
    for (const auto& c : cases) {
        PlacementSettings settings;
        settings.density = 36.0;
        settings.mappedDensity = c.mapped;
        settings.seed = 5;
        ScatterPlacement placed = placeRandom(*plane, growthAreas(*plane), settings);
        ASSERT_GT(placed.size(), 2000u) << c.name;
        placed.ids.push_back(placed.ids[3] ^ 1);
        placed.randomRoots.push_back(placed.randomRoots[3]);
        for (const RelaxLanes lanes : kAllLanes) {
            for (const int threads : {1, 2}) {
                ScatterPlacement relaxed = placed;
                runWithThreads(threads, [&] { relaxPlacement(*plane, settings, relaxed, lanes); });
                EXPECT_EQ(evenRootsHash(relaxed), c.bits)
                    << c.name << " at " << threads << " threads" << lanesName(lanes);
            }
        }
    }
}

TEST(Scatter, RelaxationLanesAndThreadsGiveTheSameBits) {
    // On the curved head every step rounds, unlike on the plane above: the eight-lane push must
    // still do each lane's operations in the four-lane order. Stacked candidates (three on one
    // spot, in lanes of different groups of eight) take the pair-by-pair loop for some lanes, a
    // falling mapped density gives every pair its own reach and a zero density freezes some, and
    // a sparse scatter pads every list with the candidate's own index. The sixteen-lane path also
    // stops a group's lists at the first pairs all out of reach in the push right after each
    // search, and projects candidates plainly over their last triangle sixteen at once.
    const DensityAt falling = [](const StrandRoot&, const Vec3f& p) {
        return p.z > 8.0f ? 0.0f : 12.0f / (1.0f + 0.04f * (p.x + 10.0f) * (p.x + 10.0f));
    };
    const struct {
        const char* name;
        double density;
        DensityAt mapped;
        std::size_t fewest, most;
    } cases[] = {
        {"plain", 12.0, {}, 1000, 100000},
        {"mapped", 12.0, falling, 1000, 100000},
        {"sparse", 0.04, {}, 8, 24},
    };
    for (const auto& c : cases) {
        PlacementSettings settings;
        settings.density = c.density;
        settings.mappedDensity = c.mapped;
        settings.seed = 3;
        ScatterPlacement placed = placeRandom(*head(), growthAreas(*head()), settings);
        ASSERT_GE(placed.size(), c.fewest) << c.name;
        ASSERT_LE(placed.size(), c.most) << c.name;
        for (const std::size_t copy : {std::size_t{5}, std::size_t{5}, placed.size() - 2}) {
            placed.ids.push_back(placed.ids[copy] ^ placed.size());
            placed.randomRoots.push_back(placed.randomRoots[copy]);
        }
        std::uint64_t first = 0;
        for (const RelaxLanes lanes : {RelaxLanes::four, RelaxLanes::eight, RelaxLanes::widest}) {
            for (const int threads : {1, 2}) {
                ScatterPlacement relaxed = placed;
                runWithThreads(threads, [&] { relaxPlacement(*head(), settings, relaxed, lanes); });
                const std::uint64_t bits = evenRootsHash(relaxed);
                if (first == 0) first = bits;
                EXPECT_EQ(bits, first)
                    << c.name << " at " << threads << " threads" << lanesName(lanes);
            }
        }
        // The relaxation moved the roots: a hash equal to the random roots' would test nothing.
        ScatterPlacement unmoved = placed;
        unmoved.evenRoots = unmoved.randomRoots;
        EXPECT_NE(first, evenRootsHash(unmoved)) << c.name;
    }
}

TEST(Scatter, ReusedWorkingArraysChangeNothing) {
    // A large relaxation borrows its working arrays from the array pool and gives them back: a
    // second run of the same size gets them with whatever was left in them, here spoilt on
    // purpose, and must write every element it reads.
    PlacementSettings settings;
    settings.density = 900.0;
    settings.seed = 11;
    const ScatterPlacement placed = placeRandom(*head(), growthAreas(*head()), settings);
    // Large enough that the arrays of points and of locations are pooled.
    ASSERT_TRUE(isPooledArraySize(placed.size() * sizeof(Vec3f)));
    auto& points = ArrayPool<Vec3f>::instance();
    auto& roots = ArrayPool<StrandRoot>::instance();
    auto& lists = ArrayPool<std::uint32_t>::instance();
    auto& coordinates = ArrayPool<float>::instance();
    auto& words = ArrayPool<std::uint64_t>::instance();
    const auto trimAll = [&] {
        points.trim();
        roots.trim();
        lists.trim();
        coordinates.trim();
        words.trim();
    };
    trimAll();
    const auto relaxedBits = [&] {
        ScatterPlacement relaxed = placed;
        runWithThreads(2, [&] { relaxPlacement(*head(), settings, relaxed); });
        return evenRootsHash(relaxed);
    };
    const std::uint64_t fresh = relaxedBits();
    using Lengths = std::vector<std::size_t>;
    const std::size_t n = placed.size();
    ASSERT_EQ(points.pooledLengths(), (Lengths{n + 1, n + 1}));
    ASSERT_EQ(roots.pooledLengths(), Lengths{n});
    // The neighbour lists, and the neighbour grid's indices and ranks where those are large.
    ASSERT_EQ(lists.pooledLengths().size(),
              isPooledArraySize(2 * n * sizeof(std::uint32_t)) ? 2u : 1u);
    // The grid's positions, three floats, and its four words a candidate.
    ASSERT_EQ(coordinates.pooledLengths(), Lengths{3 * n});
    ASSERT_EQ(words.pooledLengths(), Lengths{4 * n});
    // Every pooled array is taken before any goes back, so that none is spoilt twice.
    const auto spoil = [](auto& pool, auto junk) {
        std::vector<std::vector<decltype(junk)>> taken;
        for (const std::size_t length : pool.pooledLengths())
            taken.push_back(*pool.take(length));
        for (auto& array : taken) {
            std::fill(array.begin(), array.end(), junk);
            pool.release(std::move(array));
        }
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    spoil(points, Vec3f{nan, nan, nan});
    spoil(roots, StrandRoot{-7, nan, nan});
    spoil(lists, 0xffffffffu);
    spoil(coordinates, nan);
    spoil(words, ~std::uint64_t{0});
    EXPECT_EQ(relaxedBits(), fresh);
    trimAll();
}

TEST(Scatter, NeighbourListsOnAwkwardSpreads) {
    // Points hashed into a unit cube, scaled and moved per case.
    const auto spread = [](std::size_t count, std::uint64_t seed, Vec3f scale, Vec3f offset) {
        std::vector<Vec3f> points(count);
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint64_t h = hashCombine(seed, i);
            points[i] = offset + Vec3f{unitFloat(h) * scale.x, unitFloat(h + 1) * scale.y,
                                       unitFloat(h + 2) * scale.z};
        }
        return points;
    };
    // Tight clusters far apart: a box round one cluster holds all its points and nothing else.
    std::vector<Vec3f> clusters;
    for (int c = 0; c < 6; ++c) {
        const auto cluster =
            spread(70, 11 + c, {0.3f, 0.3f, 0.05f}, {3.0f * static_cast<float>(c), 0.0f, 0.0f});
        clusters.insert(clusters.end(), cluster.begin(), cluster.end());
    }
    // Many candidates on few spots: ties everywhere, decided by index.
    std::vector<Vec3f> stacked;
    for (std::size_t i = 0; i < 300; ++i)
        stacked.push_back(Vec3f{static_cast<float>(i % 7), static_cast<float>(i % 3), 0.0f} * 0.5f);
    // A long thin strip along y: the 24 nearest lie far along it, beyond the block's reach.
    const std::vector<Vec3f> strip = spread(600, 5, {0.05f, 60.0f, 0.0f}, {0.0f, -30.0f, 2.0f});
    // Fewer than 25 candidates: every list is padded.
    const std::vector<Vec3f> few = spread(20, 3, {2.0f, 2.0f, 2.0f}, {-1.0f, -1.0f, -1.0f});
    // Far from the origin, where cell coordinates round.
    const std::vector<Vec3f> far = spread(500, 9, {8.0f, 8.0f, 1.0f}, {5000.0f, -7000.0f, 300.0f});
    // Two clusters at opposite corners of a block of more than 2^24 cells, which the grid sorts
    // by comparison instead of by cell number.
    std::vector<Vec3f> corners = spread(200, 21, {1.0f, 1.0f, 1.0f}, {0.0f, 0.0f, 0.0f});
    const auto opposite = spread(200, 22, {1.0f, 1.0f, 1.0f}, {150.0f, 150.0f, 150.0f});
    corners.insert(corners.end(), opposite.begin(), opposite.end());
    // A lattice of a spacing that binary floats do not hold: its neighbours tie but for the
    // rounding of their squared distances, so every lane width must round those as the plain
    // loop does (a fused multiply-add, say, would reorder some).
    std::vector<Vec3f> tenths;
    for (std::size_t i = 0; i < 1600; ++i)
        tenths.push_back(Vec3f{0.3f + 0.1f * static_cast<float>(i % 40),
                               0.7f + 0.1f * static_cast<float>(i / 40),
                               0.01f * static_cast<float>(i % 3)});
    const struct {
        const char* name;
        const std::vector<Vec3f>& points;
        float cell, range;
    } cases[] = {
        {"lattice of tenths", tenths, 0.35f, 0.6f},
        {"clusters", clusters, 0.25f, 4.0f},
        {"clusters, long range", clusters, 0.25f, 40.0f},
        {"stacked", stacked, 0.5f, 2.0f},
        {"strip", strip, 0.5f, 20.0f},
        {"few", few, 0.5f, 10.0f},
        {"few, short range", few, 0.5f, 0.8f},
        {"far from the origin", far, 1.0f, 4.0f},
        {"corners of a large block", corners, 0.5f, 4.0f},
    };
    for (const auto& c : cases)
        expectNearestInRange(c.name, c.points, c.cell, c.range);
}

TEST(ScatterGrid, OrderIsByCellThenIndex) {
    // Enough candidates for several of the grid's fixed chunks (65536 entries each), so that keys
    // falling at a chunk's first entry and cells spread over chunks are met.
    constexpr std::size_t kCount = 150000;
    constexpr float kCell = 0.5f;
    const auto spread = [](std::uint64_t seed, float size) {
        std::vector<Vec3f> points(kCount);
        for (std::size_t i = 0; i < kCount; ++i) {
            const std::uint64_t h = hashCombine(seed, i);
            points[i] = {unitFloat(h) * size, unitFloat(h + 1) * size, unitFloat(h + 2) * 2.0f};
        }
        return points;
    };
    const auto keyOf = [](const Vec3f& p) {
        const scatter::CellCoord c = scatter::cellOf(p, 1.0f / kCell);
        return scatter::cellKey(c.x, c.y, c.z);
    };
    const auto byCell = [&](const std::vector<Vec3f>& points) {
        std::vector<std::uint32_t> order(points.size());
        for (std::uint32_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            return std::pair(keyOf(points[a]), a) < std::pair(keyOf(points[b]), b);
        });
        return order;
    };
    const auto reordered = [](const std::vector<Vec3f>& points,
                              const std::vector<std::uint32_t>& order) {
        std::vector<Vec3f> out;
        for (const std::uint32_t i : order)
            out.push_back(points[i]);
        return out;
    };
    const std::vector<Vec3f> scattered = spread(61, 40.0f);
    // Already in grid order: kept as it stands.
    const std::vector<Vec3f> inOrder = reordered(scattered, byCell(scattered));
    // In grid order but for one candidate moved to the front of the second chunk, whose key
    // then falls from the last one of the first chunk.
    std::vector<Vec3f> fallsAtChunk = inOrder;
    fallsAtChunk[65536] = inOrder.front();
    // Two halves far apart: a block of more than 2^24 cells, sorted by comparison.
    std::vector<Vec3f> farApart = scattered;
    for (std::size_t i = 0; i < kCount; i += 2)
        farApart[i] += Vec3f{400.0f, 400.0f, 400.0f};
    // Some cells more than 2^30 cells from the origin, from the middle of a chunk on: the keys
    // made sixteen at a time give way to the plain ones there.
    std::vector<Vec3f> beyond = scattered;
    for (std::size_t i = 100003; i < kCount; i += 5)
        beyond[i] += Vec3f{3e9f * kCell, 0.0f, 0.0f};
    const struct {
        const char* name;
        const std::vector<Vec3f>& points;
    } cases[] = {
        {"scattered", scattered},
        {"in grid order", inOrder},
        {"falling at a chunk's start", fallsAtChunk},
        {"far apart", farApart},
        {"beyond 2^30 cells", beyond},
    };
    for (const auto& c : cases) {
        const std::vector<std::uint32_t> expected = byCell(c.points);
        for (const RelaxLanes lanes : kAllLanes) {
            for (const int threads : {1, 2}) {
                runWithThreads(threads, [&] {
                    scatter::NeighborSearch search;
                    // Twice over one search object: the second build reuses the first's arrays.
                    for (int round = 0; round < 2; ++round)
                        EXPECT_EQ(search.gridOrder(c.points, kCell, lanes), expected)
                            << c.name << " at " << threads << " threads" << lanesName(lanes)
                            << ", round " << round;
                });
            }
        }
    }
}

TEST(Scatter, NeighbourListsStayTheNearestAsCandidatesMove) {
    // One search object over a relaxation's steps keeps its working arrays from one search to the
    // next, and must still find the nearest 24 whatever the moves.
    // Stripes a cell wide, alternately dense and sparse, make a candidate's spacing unlike the one
    // before it in the scan: gatherings come out too wide and too narrow.
    const float r = 1.0746f / std::sqrt(30.0f);  // the radius of 30 candidates a unit of area
    std::vector<Vec3f> positions;
    for (std::size_t i = 0; positions.size() < 2500; ++i) {
        const std::uint64_t h = hashCombine(41, i);
        // In the middle of a layer of cells, where the search's block reaches past the range.
        const Vec3f p = {unitFloat(h) * 10.0f, unitFloat(h + 1) * 10.0f, 1.625f * r};
        const bool sparse = static_cast<int>(p.x / (3.25f * r)) % 2 == 1;
        if (!sparse || unitFloat(h + 2) < 0.2f) positions.push_back(p);
    }
    const std::size_t kCount = positions.size();
    std::vector<std::uint32_t> ranks(kCount);
    for (std::size_t i = 0; i < kCount; ++i)
        ranks[i] = static_cast<std::uint32_t>((i * 1237u + 5u) % kCount);
    // Each step moves every candidate by up to `jitter` radii; some steps also send one far
    // across the plane, put one on another's spot, or leave everything where it was.
    const struct {
        const char* name;
        float jitter;
        bool jump, stack;
    } steps[] = {
        {"first search", 0.0f, false, false}, {"small moves", 0.05f, false, false},
        {"no moves", 0.0f, false, false},     {"large moves", 1.5f, false, false},
        {"one far jump", 0.02f, true, false}, {"two on one spot", 0.02f, false, true},
    };
    std::vector<std::vector<Vec3f>> spots;
    for (std::size_t s = 0; s < std::size(steps); ++s) {
        for (std::size_t i = 0; i < kCount; ++i) {
            const std::uint64_t h = hashCombine(97 + s, i);
            positions[i] += Vec3f{unitFloat(h) - 0.5f, unitFloat(h + 1) - 0.5f, 0.0f} *
                            (2.0f * steps[s].jitter * r);
        }
        if (steps[s].jump) positions[17] = positions[17] + Vec3f{7.0f, -6.0f, 0.0f};
        if (steps[s].stack) positions[101] = positions[2020];
        spots.push_back(positions);
    }
    std::vector<std::vector<std::uint32_t>> expected;
    for (const auto& at : spots)
        expected.push_back(nearestByBruteForce(at, 4.0f * r, ranks));
    for (const RelaxLanes lanes : kAllLanes) {
        for (const int threads : {1, 2}) {
            runWithThreads(threads, [&] {
                scatter::NeighborSearch search;
                std::vector<std::uint32_t> lists(kCount * kRelaxNeighbors);
                for (std::size_t s = 0; s < spots.size(); ++s) {
                    search.find(spots[s], 3.25f * r, 4.0f * r, lists, lanes, ranks);
                    std::size_t wrong = 0;
                    for (std::size_t i = 0; i < kCount; ++i)
                        wrong += !std::equal(lists.begin() + i * kRelaxNeighbors,
                                             lists.begin() + (i + 1) * kRelaxNeighbors,
                                             expected[s].begin() + i * kRelaxNeighbors);
                    EXPECT_EQ(wrong, 0u)
                        << steps[s].name << " at " << threads << " threads" << lanesName(lanes);
                }
            });
        }
    }
}

TEST(Scatter, CachedRunsGiveTheSameStrands) {
    auto op = makeScatter();
    const ScatterRun run{.density = 12.0, .randomness = 0.5};
    const std::uint64_t first = scatter(*op, run)->contentHash();
    EXPECT_EQ(scatter(*op, run)->contentHash(), first);
    // A replacing instance takes the caches over and gives the same result.
    auto copy = makeScatter();
    copy->copyStateFrom(*op);
    EXPECT_EQ(scatter(*copy, run)->contentHash(), first);
    // A change of preview density reuses the placement and still selects by id.
    ScatterRun preview = run;
    preview.previewDensity = 0.5;
    EXPECT_EQ(scatter(*op, preview)->contentHash(), scatter(preview)->contentHash());
}

TEST(Scatter, GridLayout) {
    const auto set = scatter(ScatterRun{.layout = "uvGrid", .rows = 30, .columns = 40});
    // The head's UVs cover only part of the square: some cells have no face.
    EXPECT_GT(set->strandCount(), 100u);
    EXPECT_LE(set->strandCount(), 1200u);
    // Overlapping UV shells: the lower face index wins every cell.
    auto doubled = std::make_shared<ScalpMesh>(
        std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {0, 1, 0}, {1, 1, 0}, {0, 1, 1}},
        std::vector<Triangle>{{0, 1, 2}, {3, 4, 5}});
    doubled->setUvs({{0, 0}, {1, 0}, {0, 1}, {0, 0}, {1, 0}, {0, 1}});
    const auto overlapped =
        scatter(ScatterRun{.layout = "uvGrid", .rows = 10, .columns = 10, .scalp = doubled});
    EXPECT_EQ(overlapped->strandCount(), 55u);  // the cells on or below the diagonal
    for (const StrandRoot& root : overlapped->roots())
        EXPECT_EQ(root.face, 0);
}

TEST(Scatter, GridLayoutOnASubdividedScalp) {
    // The subdivided head carries the cage's UVs, which cover the same part of the texture as on
    // the cage: the grid finds the same cells, each root at its cell's centre and over the same
    // place of the head.
    const auto smooth = std::make_shared<const ScalpMesh>(subdivideScalp(*head(), 2));
    const ScatterRun run{.layout = "uvGrid", .rows = 30, .columns = 40};
    ScatterRun onSmooth = run;
    onSmooth.scalp = smooth;
    const auto cage = scatter(run);
    const auto set = scatter(onSmooth);
    EXPECT_EQ(set->strandCount(), cage->strandCount());
    const auto cageRoots = rootsById(*cage);
    for (std::size_t s = 0; s < set->strandCount(); ++s) {
        const StrandRoot& root = set->roots()[s];
        const Uv uv = smooth->uvAt(root);
        const float column = uv.u * 40.0f - 0.5f, row = uv.v * 30.0f - 0.5f;
        ASSERT_NEAR(column, std::round(column), 1e-3f) << s;
        ASSERT_NEAR(row, std::round(row), 1e-3f) << s;
        const auto onCage = cageRoots.find(set->ids()[s]);
        ASSERT_NE(onCage, cageRoots.end()) << s;
        // The smoothed head lies within a few millimetres of the cage (a skull of about 18 cm).
        EXPECT_LT(length(smooth->pointAt(root) - head()->pointAt(onCage->second)), 0.2f) << s;
    }
}

TEST(Scatter, FacesWithoutAreaGetNoStrands) {
    const auto scalp = makeUvPlane(10.0f, 2);
    std::vector<float> areas = growthAreas(*scalp);
    areas[0] = 0.0f;
    areas[3] = 0.0f;
    PlacementSettings settings;
    settings.density = 5.0;
    const ScatterPlacement placed = placeRandom(*scalp, areas, settings);
    EXPECT_GT(placed.size(), 300u);
    for (const StrandRoot& root : placed.randomRoots) {
        EXPECT_NE(root.face, 0);
        EXPECT_NE(root.face, 3);
    }
    auto flat = std::make_shared<ScalpMesh>(std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}},
                                            std::vector<Triangle>{{0, 1, 2}});
    EXPECT_EQ(scatter(ScatterRun{.scalp = flat})->strandCount(), 0u);
    EXPECT_EQ(scatter(ScatterRun{.scalp = std::make_shared<ScalpMesh>()})->strandCount(), 0u);
}

TEST(Scatter, CoincidentCandidatesPartByTheirIndices) {
    const auto scalp = makeUvPlane(2.0f, 1);
    ScatterPlacement placed;
    placed.ids = {1, 2};
    placed.randomRoots = {{0, 0.3f, 0.3f}, {0, 0.3f, 0.3f}};
    PlacementSettings settings;
    settings.density = 1.0;
    relaxPlacement(*scalp, settings, placed);
    EXPECT_FALSE(placed.evenRoots[0] == placed.evenRoots[1]);
    // The direction hangs on the indices, not the ids.
    ScatterPlacement other = placed;
    other.ids = {77, 99};
    relaxPlacement(*scalp, settings, other);
    EXPECT_EQ(other.evenRoots, placed.evenRoots);
}

TEST(Scatter, GuideRadiusKeepsRootsNearGuides) {
    auto guides = std::make_shared<GuideSet>();
    const Vec3f top{0.0f, 9.0f, 0.0f};
    const ClosestPoint onScalp = head()->closestPoint(top);
    Guide guide;
    guide.id = 1;
    guide.root = onScalp.root;
    guide.points = {onScalp.point, onScalp.point + Vec3f{0, 1, 0}};
    guides->guides.push_back(guide);
    const auto set = scatter(ScatterRun{.density = 50.0, .guideRadius = 2.0, .guides = guides});
    EXPECT_GT(set->strandCount(), 100u);
    for (std::size_t s = 0; s < set->strandCount(); ++s)
        EXPECT_LE(length(head()->pointAt(set->roots()[s]) - onScalp.point), 2.0f + 1e-4f);
}

TEST(Scatter, ScalpPiecesOffsetTheirRoots) {
    // Two planes merged into one scalp; a Scatter on the second grows roots on its faces.
    const auto a = makeUvPlane(4.0f, 2), b = makeUvPlane(4.0f, 3);
    std::vector<Vec3f> points = a->points();
    std::vector<Triangle> triangles = a->triangles();
    for (const Vec3f& p : b->points())
        points.push_back(p + Vec3f{10, 0, 0});
    for (Triangle t : b->triangles()) {
        for (auto& corner : t)
            corner += static_cast<std::uint32_t>(a->pointCount());
        triangles.push_back(t);
    }
    auto whole = std::make_shared<ScalpMesh>(points, triangles);
    const auto aTriangles = static_cast<std::uint32_t>(a->triangleCount());
    whole->setScalps({{"scalp", 0, aTriangles, 0, static_cast<std::uint32_t>(a->pointCount())},
                      {"beard", aTriangles, static_cast<std::uint32_t>(b->triangleCount()),
                       static_cast<std::uint32_t>(a->pointCount()),
                       static_cast<std::uint32_t>(b->pointCount())}});
    const auto piece =
        std::make_shared<const ScalpMesh>(cutScalpRange(*whole, *findScalpRange(*whole, "beard")));
    SceneInputs scene;
    scene["scalp"] = SceneInput{Value(std::shared_ptr<const ScalpMesh>(whole)), 7};
    const auto set = scatter(ScatterRun{.density = 20.0, .scalp = piece, .scene = &scene});
    ASSERT_GT(set->strandCount(), 100u);
    const auto alone = scatter(ScatterRun{.density = 20.0, .scalp = piece});
    ASSERT_EQ(alone->strandCount(), set->strandCount());
    for (std::size_t s = 0; s < set->strandCount(); ++s) {
        const StrandRoot root = set->roots()[s];
        EXPECT_GE(root.face, static_cast<std::int32_t>(aTriangles));
        EXPECT_EQ(root.face - static_cast<std::int32_t>(aTriangles), alone->roots()[s].face);
        EXPECT_GE(whole->pointAt(root).x, 7.0f);
    }
}

TEST(Scatter, BadInputFailsWithTheArtistsMessage) {
    auto bare = std::make_shared<ScalpMesh>(head()->points(), head()->triangles());
    expectMessage<GraphError>([&] { scatter(ScatterRun{.layout = "uvGrid", .scalp = bare}); },
                              "Scatter: the uvGrid layout needs the scalp's UVs");
    expectMessage<GraphError>([&] { scatter(ScatterRun{.guideRadius = 1.0}); },
                              "Scatter: guideRadius needs guides on the guides input (a Guides "
                              "node)");
    auto huge =
        std::make_shared<ScalpMesh>(std::vector<Vec3f>{{0, 0, 0}, {3e38f, 0, 0}, {0, 0, 3e38f}},
                                    std::vector<Triangle>{{0, 1, 2}});
    expectMessage<GraphError>([&] { scatter(ScatterRun{.scalp = huge}); },
                              "Scatter: the density (or the scalp's area) is not a finite number");
    const auto big = makeUvPlane(200.0f, 1);  // an area of 40,000
    expectMessage<GraphError>([&] { scatter(ScatterRun{.density = 1300.0, .scalp = big}); },
                              "Scatter: density would create more than 50M strands");
    expectMessage<GraphError>(
        [&] { scatter(ScatterRun{.layout = "uvGrid", .rows = 8000, .columns = 7000}); },
        "Scatter: the grid would create more than 50M strands");
    // An op that failed runs again cleanly.
    auto op = makeScatter();
    EXPECT_THROW(scatter(*op, ScatterRun{.guideRadius = 1.0}), GraphError);
    EXPECT_EQ(scatter(*op, ScatterRun{})->contentHash(), scatter(ScatterRun{})->contentHash());
}

TEST(ScatterLimits, MessagesAndTheHeavyWarning) {
    EXPECT_EQ(checkScatterCounts(80.0, 1'000'000.0, false), "");
    EXPECT_EQ(checkScatterCounts(80.0, 2'500'000.0, false),
              "2.5M strands: heavy (a human head has about 0.1-0.15M); renders, exports and a "
              "full preview hold every one. Lower the density, or thin it with a density map");
    EXPECT_EQ(checkScatterCounts(80.0, 4'000'000.0, true),
              "4.0M strands: heavy (a human head has about 0.1-0.15M); renders, exports and a "
              "full preview hold every one. Lower the grid's rows and columns, or thin it with a "
              "density map");
    expectMessage<GraphError>(
        [] { checkScatterCounts(std::numeric_limits<double>::infinity(), 1.0, false); },
        "Scatter: the density (or the scalp's area) is not a finite number");

    PreviewRequest request;
    request.expectedCount = 20'000'000.0;
    request.pointsPerStrand = 9;
    request.previewDensity = 0.5;
    expectMessage<GraphError>(
        [&] { checkScatterPoints(planPreview(request), request); },
        "Scatter: the preview would have 90M points (10000k strands x 9): lower the preview "
        "density, density or the Resample's segments");
    request.pointBudget = 1e6;  // a budget lifts the preview limit
    EXPECT_NO_THROW(checkScatterPoints(planPreview(request), request));
    request.previewDensity = 1.0;
    request.pointBudget = 0.0;
    request.expectedCount = 45'000'000.0;
    expectMessage<GraphError>([&] { checkScatterPoints(planPreview(request), request); },
                              "Scatter: 405M points (strands x 9) is more than memory holds: "
                              "lower the density or the Resample's segments");
}

TEST(ScatterLimits, PreviewPlans) {
    struct Case {
        double count, preview, budget;
        bool previewAll;
        double p, q, s;
        bool thinned;
    };
    const Case cases[] = {
        {250, 0.1, 0, false, 1.0, 1.0, 1.0, false},        // few strands: all
        {4000, 0.25, 0, false, 0.25, 1.0, 1.0, false},     // under 5,000: the coarse share is 1
        {20000, 0.1, 0, false, 0.1, 0.25, 0.25, false},    // 2^-floor(log2 4)
        {20000, 0.5, 0, false, 0.5, 0.25, 0.5, false},     //
        {1e8, 0.01, 0, false, 0.01, 0.03, 0.03, false},    // the coarse share's floor
        {20000, 1.0, 90000, false, 0.5, 0.25, 0.5, true},  // 20,000 x 9 points over budget
        {100, 1.0, 450, false, 0.5, 1.0, 1.0, true},       // small ones keep all by q
        {20000, 0.2, 0, true, 1.0, 1.0, 1.0, false},       // previewAll
    };
    for (const Case& c : cases) {
        PreviewRequest request;
        request.expectedCount = c.count;
        request.previewDensity = c.preview;
        request.pointBudget = c.budget;
        request.previewAll = c.previewAll;
        const PreviewPlan plan = planPreview(request);
        EXPECT_DOUBLE_EQ(plan.preview, c.p) << c.count << " " << c.preview;
        EXPECT_DOUBLE_EQ(plan.coarse, c.q) << c.count << " " << c.preview;
        EXPECT_DOUBLE_EQ(plan.kept, c.s) << c.count << " " << c.preview;
        EXPECT_EQ(plan.budgetThinned, c.thinned) << c.count << " " << c.preview;
    }
}

TEST(ScatterPlacement, WorkingDensityStepsByAnEighthOfADecade) {
    const std::vector<float> nothing;
    EXPECT_EQ(workingDensity(80.0, nothing), 80.0);
    const std::vector<float> below = {10.0f, 79.0f};
    EXPECT_EQ(workingDensity(80.0, below), 80.0);
    const std::vector<float> exact = {100.0f};
    EXPECT_NEAR(workingDensity(80.0, exact), 100.0, 1e-9);
    const std::vector<float> above = {101.0f, std::numeric_limits<float>::quiet_NaN()};
    EXPECT_NEAR(workingDensity(80.0, above), std::pow(10.0, 17 * 0.125), 1e-9);
    const std::vector<float> infinite = {std::numeric_limits<float>::infinity(), 5.0f};
    EXPECT_EQ(workingDensity(1.0, infinite), std::pow(10.0, 0.75));
}

TEST(ScatterPlacement, RandomDrawsAreTheStreamOfTheId) {
    // The second and third draws of SplitMix64 from state h: its finaliser after two and three
    // steps of the golden increment.
    const auto finaliser = [](std::uint64_t z) {
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return static_cast<float>((z ^ (z >> 31)) >> 40) / 16777216.0f;
    };
    for (const std::uint64_t h : {0ull, 1ull, 0xDEADBEEFull, ~0ull}) {
        EXPECT_EQ(streamDraw(h, 2), finaliser(h + 2 * kGolden));
        EXPECT_EQ(streamDraw(h, 3), finaliser(h + 3 * kGolden));
        EXPECT_EQ(combinedUnit(h, 0xD3A5),
                  static_cast<float>(hashCombine(h, 0xD3A5) >> 40) / 16777216.0f);
    }
}

TEST(GuideMask, DiscsAndEmptyMasks) {
    const auto scalp = makeUvPlane(10.0f, 4);
    Guide guide;
    guide.id = 3;
    guide.points = {{1, 0, 1}, {1, 1, 1}};
    Guide bare;
    bare.id = 4;
    const GuideMask mask({guide, bare}, *scalp, 0.5f, 0.0f);
    EXPECT_FALSE(mask.empty());
    EXPECT_TRUE(mask.passes({1.4f, 0, 1}));
    EXPECT_FALSE(mask.passes({1.6f, 0, 1}));
    EXPECT_TRUE(GuideMask({bare}, *scalp, 0.5f, 0.0f).empty());
    EXPECT_NE(mask.hash(), GuideMask({guide}, *scalp, 0.6f, 0.0f).hash());
}

TEST(GuideMask, TubesKeepRootsOnTheirFootprint) {
    const auto scalp = makeUvPlane(10.0f, 4);
    Guide guide;
    guide.id = 3;
    guide.root = scalp->closestPoint({0.3f, 0, 0.3f}).root;
    guide.points = {scalp->pointAt(guide.root), scalp->pointAt(guide.root) + Vec3f{0, 1, 0}};
    guide.tube.width = {1.0f};
    guide.tube.aspect = {0.25f};
    const GuideMask mask({guide}, *scalp, 5.0f, 0.0f);
    const SurfaceFrame frame = scalp->frameAt(guide.root);
    // Within the ellipse of half-widths 1 and 0.25, not the 5-wide disc.
    EXPECT_TRUE(mask.passes(frame.origin + frame.tangent * 0.9f));
    EXPECT_TRUE(mask.passes(frame.origin + frame.bitangent * 0.2f));
    EXPECT_FALSE(mask.passes(frame.origin + frame.bitangent * 0.4f));
    EXPECT_FALSE(mask.passes(frame.origin + frame.tangent * 1.2f));
    // A margin of half the half-width widens it.
    const GuideMask wider({guide}, *scalp, 5.0f, 0.5f);
    EXPECT_TRUE(wider.passes(frame.origin + frame.tangent * 1.2f));
}

}  // namespace
}  // namespace velmorin
