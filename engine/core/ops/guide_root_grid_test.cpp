#include "ops/guide_root_grid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

#include "base/hash.h"
#include "base/parallel.h"

namespace velmorin {
namespace {

struct Answer {
    std::vector<std::uint32_t> indices;
    std::vector<std::uint32_t> distanceBits;
    bool operator==(const Answer&) const = default;
};

// The k nearest by a scan of every point: squared distances as the grid computes them, ties to
// the lower index.
Answer scan(std::span<const Vec3f> points, std::span<const std::uint32_t> indices, const Vec3f& p,
            int k) {
    std::vector<std::size_t> order(points.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::vector<float> d2(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Vec3f d = points[i] - p;
        d2[i] = dot(d, d);
    }
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return d2[a] < d2[b] || (d2[a] == d2[b] && indices[a] < indices[b]);
    });
    Answer answer;
    for (std::size_t i = 0; i < order.size() && static_cast<int>(i) < k; ++i) {
        answer.indices.push_back(indices[order[i]]);
        answer.distanceBits.push_back(floatBits(d2[order[i]]));
    }
    return answer;
}

template <class Query>
Answer ask(int k, const Query& query) {
    std::uint32_t indices[GuideRootGrid::kMaxNearest];
    float d2[GuideRootGrid::kMaxNearest];
    const int count = query(k, indices, d2);
    Answer answer;
    for (int i = 0; i < count; ++i) {
        answer.indices.push_back(indices[i]);
        answer.distanceBits.push_back(floatBits(d2[i]));
    }
    return answer;
}

// Seeded point sets of the kinds that break nearest searches: roots on a curved sheet, twins on
// one spot, a lattice whose points lie at exactly equal distances, far from the origin, and fewer
// points than a query asks for.
struct PointSet {
    const char* name;
    std::vector<Vec3f> points;
    float spacing;
};

std::vector<PointSet> pointSets() {
    std::vector<PointSet> sets;
    PointSet sheet{"sheet", {}, 0.1f};
    for (std::uint64_t i = 0; i < 3000; ++i) {
        const float u = unitFloat(mix64(i)) * 6.0f, v = unitFloat(mix64(i + 77777)) * 4.0f;
        sheet.points.push_back({u, std::sin(u) * 0.7f, v});
    }
    sets.push_back(sheet);
    PointSet twins{"twins", {}, 0.2f};
    for (std::uint64_t i = 0; i < 400; ++i) {
        const Vec3f p{unitFloat(mix64(i * 3)) * 4.0f, unitFloat(mix64(i * 3 + 1)) * 4.0f, 0.5f};
        twins.points.push_back(p);
        if (i % 3 == 0) twins.points.push_back(p);
    }
    sets.push_back(twins);
    PointSet lattice{"lattice far away", {}, 0.01f};
    for (int x = 0; x < 40; ++x)
        for (int z = 0; z < 40; ++z)
            lattice.points.push_back(
                {1000.0f + static_cast<float>(x) * 0.01f, -500.0f, static_cast<float>(z) * 0.01f});
    sets.push_back(lattice);
    PointSet few{"fewer than asked", {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 1}}, 0.5f};
    sets.push_back(few);
    // More twins on one spot than a query asks for, ringed by points at one distance from it.
    PointSet pile{"pile", {}, 0.05f};
    for (int i = 0; i < 80; ++i)
        pile.points.push_back({0.5f, 0.5f, 0.0f});
    for (int i = 0; i < 64; ++i) {
        const float x = static_cast<float>(i % 8) * 0.125f, y = static_cast<float>(i / 8) * 0.125f;
        pile.points.push_back({x, y, 0.0f});
        pile.points.push_back({1.0f - x, y, 0.0f});
    }
    sets.push_back(pile);
    return sets;
}

TEST(GuideShortlist, AnswersAsTheGridAndAScanOfEveryPoint) {
    for (const PointSet& set : pointSets()) {
        // Indices need only ascend: every third number, so that they differ from positions.
        std::vector<std::uint32_t> indices(set.points.size());
        for (std::size_t i = 0; i < indices.size(); ++i)
            indices[i] = static_cast<std::uint32_t>(i * 3 + 1);
        for (const int typicalK : {1, 15}) {
            const GuideRootGrid grid(set.points, indices, typicalK);
            GuideShortlist shortlist;
            for (std::uint64_t group = 0; group < 40; ++group) {
                // A group of queries round a centre near a point, some right on points.
                const Vec3f center = set.points[mix64(group) % set.points.size()] +
                                     Vec3f{0.3f, -0.2f, 0.1f} * set.spacing;
                const float spread = set.spacing * (0.5f + unitFloat(mix64(group + 5)) * 2.0f);
                const int k = group % 4 == 0 ? 1 : group % 4 == 1 ? 9 : group % 4 == 2 ? 15 : 67;
                shortlist.gather(grid, center, spread, k);
                EXPECT_LE(shortlist.size(), set.points.size());
                for (std::uint64_t q = 0; q < 12; ++q) {
                    Vec3f p = q == 0 ? set.points[(mix64(group) + 1) % set.points.size()]
                                     : center + Vec3f{unitFloat(mix64(q * 7 + group)) - 0.5f,
                                                      unitFloat(mix64(q * 7 + group + 1)) - 0.5f,
                                                      unitFloat(mix64(q * 7 + group + 2)) - 0.5f} *
                                                    (spread * 1.1f);
                    // Keep it within the spread it was gathered for.
                    const float off = length(p - center);
                    if (off > spread) p = center + (p - center) * (spread / off * 0.999f);
                    for (const int asked : {k, std::max(1, k - 3)}) {
                        const Answer expected = scan(set.points, indices, p, asked);
                        const Answer fromGrid = ask(asked, [&](int n, auto* i, auto* d) {
                            return grid.nearest(p, n, i, d);
                        });
                        ASSERT_EQ(fromGrid, expected) << set.name << " group " << group;
                        for (const auto lanes :
                             {GuideShortlist::Lanes::plain, GuideShortlist::Lanes::four,
                              GuideShortlist::Lanes::eight, GuideShortlist::Lanes::sixteen}) {
                            bool increasing = false;
                            const Answer fromList = ask(asked, [&](int n, auto* i, auto* d) {
                                return shortlist.nearest(lanes, p, n, i, d, &increasing);
                            });
                            ASSERT_EQ(fromList, expected) << set.name << " group " << group
                                                          << " lanes " << static_cast<int>(lanes);
                            // Distances rise strictly unless two roots lie at one distance.
                            const auto& bits = expected.distanceBits;
                            EXPECT_EQ(increasing,
                                      std::adjacent_find(bits.begin(), bits.end(),
                                                         std::greater_equal<>()) == bits.end())
                                << set.name << " group " << group << " lanes "
                                << static_cast<int>(lanes);
                        }
                    }
                }
            }
        }
    }
}

// The lane queries against the plain one, on every awkward set, with groups bound on one thread
// and on two (each with its own shortlist, as binding chunks are).
TEST(GuideShortlist, LanesAnswerAsThePlainQueryAtOneAndTwoThreads) {
    constexpr std::size_t kGroups = 48, kQueries = 10;
    for (const PointSet& set : pointSets()) {
        std::vector<std::uint32_t> indices(set.points.size());
        for (std::size_t i = 0; i < indices.size(); ++i)
            indices[i] = static_cast<std::uint32_t>(i * 5 + 2);
        const GuideRootGrid grid(set.points, indices, 15);
        // Per thread count, per group and query: the plain, four-, eight- and sixteen-lane
        // answers.
        constexpr std::size_t kWays = 4;
        std::vector<Answer> answers[2];
        for (const int threads : {1, 2}) {
            std::vector<Answer>& out = answers[threads - 1];
            out.assign(kGroups * kQueries * kWays, Answer{});
            runWithThreads(threads, [&] {
                parallelRange(0, kGroups, 4, [&](std::size_t begin, std::size_t end) {
                    GuideShortlist shortlist;
                    for (std::size_t group = begin; group < end; ++group) {
                        const Vec3f center = set.points[mix64(group + 11) % set.points.size()];
                        const float spread = set.spacing * (0.25f + unitFloat(mix64(group)) * 2.0f);
                        const int k = group % 4 == 0   ? 15
                                      : group % 4 == 1 ? 9
                                      : group % 4 == 2 ? 16
                                                       : 67;
                        shortlist.gather(grid, center, spread, k);
                        for (std::size_t q = 0; q < kQueries; ++q) {
                            // Some right on the centre (a root, maybe a twin), the rest round it.
                            const float t = q == 0 ? 0.0f : unitFloat(mix64(q * 31 + group));
                            const Vec3f p = center + Vec3f{0.6f, -0.3f, q % 2 == 0 ? 0.0f : 0.2f} *
                                                         (spread * t);
                            int lane = 0;
                            for (const auto lanes :
                                 {GuideShortlist::Lanes::plain, GuideShortlist::Lanes::four,
                                  GuideShortlist::Lanes::eight, GuideShortlist::Lanes::sixteen})
                                out[(group * kQueries + q) * kWays + lane++] =
                                    ask(k, [&](int n, auto* i, auto* d) {
                                        return shortlist.nearest(lanes, p, n, i, d);
                                    });
                        }
                    }
                });
            });
            for (std::size_t a = 0; a < out.size(); a += kWays) {
                ASSERT_FALSE(out[a].indices.empty()) << set.name;
                ASSERT_EQ(out[a + 1], out[a]) << set.name << " four lanes, query " << a / kWays;
                ASSERT_EQ(out[a + 2], out[a]) << set.name << " eight lanes, query " << a / kWays;
                ASSERT_EQ(out[a + 3], out[a]) << set.name << " sixteen lanes, query " << a / kWays;
            }
        }
        EXPECT_EQ(answers[0], answers[1]) << set.name;
    }
}

// Roots so far out that their squared distances overflow are never found; a shortlist must still
// end its widening search and answer as the grid does (it used to widen for ever).
TEST(GuideShortlist, EndsItsSearchWhenRootsAreTooFarToMeasure) {
    const std::vector<Vec3f> points = {{1e20f, 0, 0}, {-1e20f, 0, 0}, {0.5f, 0, 0},
                                       {0, 1e20f, 0}, {0, 0.75f, 0},  {0, -1e20f, 0}};
    const std::vector<std::uint32_t> indices = {0, 1, 2, 3, 4, 5};
    const GuideRootGrid grid(points, indices, 3);
    for (const int k : {1, 3, 5}) {
        GuideShortlist shortlist;
        shortlist.gather(grid, Vec3f{0, 0, 0}, 0.25f, k);
        const Vec3f p{0.1f, 0.1f, 0};
        const Answer expected =
            ask(k, [&](int n, auto* i, auto* d) { return grid.nearest(p, n, i, d); });
        // Only the two near roots can be measured.
        const std::vector<std::uint32_t> near =
            k == 1 ? std::vector<std::uint32_t>{2} : std::vector<std::uint32_t>{2, 4};
        EXPECT_EQ(expected.indices, near);
        for (const auto lanes : {GuideShortlist::Lanes::plain, GuideShortlist::Lanes::four,
                                 GuideShortlist::Lanes::eight, GuideShortlist::Lanes::sixteen})
            EXPECT_EQ(ask(k, [&](int n, auto* i,
                                 auto* d) { return shortlist.nearest(lanes, p, n, i, d); }),
                      expected)
                << "k " << k;
    }
}

// selectNth against a full sort, on key orders that trouble partitions: ascending, descending,
// hashed, all but one alike in their high half, and sizes round the hand-overs to nth_element
// (after lanes and after plain partitions).
TEST(SelectNth, PlacesTheKeyOfItsRankWithTheLesserBeforeAndTheGreaterAfter) {
    for (const std::size_t n : {1u, 2u, 3u, 8u, 9u, 24u, 25u, 26u, 100u, 256u, 1001u}) {
        for (int pattern = 0; pattern < 4; ++pattern) {
            std::vector<std::uint64_t> keys(n);
            for (std::size_t i = 0; i < n; ++i) {
                const std::uint64_t h = mix64(i + n * 7 + static_cast<std::size_t>(pattern));
                keys[i] = pattern == 0   ? i
                          : pattern == 1 ? n - i
                          : pattern == 2 ? h
                                         : (i == n / 2 ? std::uint64_t{1} << 40 : 0) | i;
            }
            std::vector<std::uint64_t> sorted = keys;
            std::sort(sorted.begin(), sorted.end());
            for (const std::size_t nth : {std::size_t{0}, n / 2, n - 1}) {
                std::vector<std::uint64_t> selected = keys, spare(n);
                selectNth(selected.data(), n, nth, spare.data());
                ASSERT_EQ(selected[nth], sorted[nth]) << n << " pattern " << pattern;
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_TRUE(i < nth ? selected[i] < selected[nth]
                                        : i == nth || selected[i] > selected[nth])
                        << n << " pattern " << pattern << " at " << i;
                std::sort(selected.begin(), selected.end());
                ASSERT_EQ(selected, sorted);
            }
        }
    }
}

TEST(GuideRootGrid, WithinFindsEveryPointOfTheBallAndNoOther) {
    for (const PointSet& set : pointSets()) {
        std::vector<std::uint32_t> indices(set.points.size());
        std::iota(indices.begin(), indices.end(), 0u);
        const GuideRootGrid grid(set.points, indices, 15);
        for (std::uint64_t q = 0; q < 30; ++q) {
            const Vec3f p =
                set.points[mix64(q) % set.points.size()] + Vec3f{0.5f, 0.25f, -0.5f} * set.spacing;
            const float radius = set.spacing * static_cast<float>(q % 6);
            const float radius2 = q % 7 == 6 ? 3.4e38f : radius * radius;
            std::vector<std::uint32_t> found;
            std::vector<Vec3f> foundPoints;
            grid.within(p, radius2, found, foundPoints);
            std::vector<std::uint32_t> expected;
            for (std::size_t i = 0; i < set.points.size(); ++i)
                if (lengthSquared(set.points[i] - p) <= radius2) expected.push_back(indices[i]);
            ASSERT_EQ(found.size(), foundPoints.size());
            for (std::size_t i = 0; i < found.size(); ++i)
                ASSERT_EQ(foundPoints[i], set.points[found[i]]);
            std::sort(found.begin(), found.end());
            ASSERT_EQ(found, expected) << set.name << " query " << q;
        }
    }
}

}  // namespace
}  // namespace velmorin
