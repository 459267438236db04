#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "base/parallel.h"
#include "ops/shape_support.h"
#include "ops/test/shape_strands.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

// Clump numbers as the channel's distinct values rank, counted plainly.
std::vector<std::uint32_t> rankedClumps(const std::vector<float>& channel) {
    std::vector<float> values(channel);
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    std::vector<std::uint32_t> ranks;
    for (const float value : channel)
        ranks.push_back(static_cast<std::uint32_t>(
            std::lower_bound(values.begin(), values.end(), value) - values.begin()));
    return ranks;
}

TEST(ClumpAxes, NumberClumpsByValueOverLongRunsAtAnyThreadCount) {
    // More strands than one stretch of the parallel numbering holds, with clumps of 1 to 13
    // strands, so that clumps straddle the stretches' edges; grouped as Clump leaves them, and
    // the same values shuffled.
    constexpr std::size_t kStrands = 150'000;
    StrandSet strands(*test::gridStrands(kStrands, 3, 5));
    std::vector<float>& grouped = strands.addStrandChannel("clumpId", 0.0f);
    float value = 0.0f;
    for (std::size_t s = 0, left = 1; s < kStrands; ++s, --left) {
        if (left == 0) {
            value += 1.0f;
            left = 1 + static_cast<std::size_t>(value) % 13;
        }
        grouped[s] = value;
    }
    std::vector<float> shuffled(grouped.rbegin(), grouped.rend());
    for (std::size_t s = 0; s + 7 < kStrands; s += 7)
        std::swap(shuffled[s], shuffled[s + 3]);
    for (const std::vector<float>* channel : {&grouped, &shuffled}) {
        const std::vector<std::uint32_t> expected = rankedClumps(*channel);
        const ClumpAxes one = [&] {
            ClumpAxes made;
            runWithThreads(1, [&] { made = clumpAxes(strands, *channel); });
            return made;
        }();
        const ClumpAxes two = [&] {
            ClumpAxes made;
            runWithThreads(2, [&] { made = clumpAxes(strands, *channel); });
            return made;
        }();
        EXPECT_EQ(one.clumpCount, *std::max_element(expected.begin(), expected.end()) + 1u);
        EXPECT_EQ(one.clumpOf, expected);
        EXPECT_EQ(two.clumpOf, expected);
        ASSERT_EQ(one.points.size(), two.points.size());
        EXPECT_EQ(
            std::memcmp(one.points.data(), two.points.data(), one.points.size() * sizeof(Vec3f)),
            0);
    }
}

TEST(ClumpAxes, KeepTheirPinnedBitsAtAnyThreadCount) {
    // Strands of 1 to 20 points (the lanes take up to 17) with hashed bends, some with repeated
    // points (segments of no length) and some of no length at all, in clumps of 1 to 9 strands,
    // a few of them with no core strand.
    StrandSet strands = test::bentStrands(3000, 20, 77);
    std::vector<float>& channel = strands.addStrandChannel("clumpId", 0.0f);
    std::vector<float>& preview = strands.addStrandChannel("_preview", 1.0f);
    for (std::size_t s = 0; s < channel.size(); ++s) {
        channel[s] = static_cast<float>((s * 7919) % 400);
        preview[s] = (s % 3 == 0 || channel[s] < 20.0f) ? 0.0f : 1.0f;
    }
    // Pinned while every axis still matched its plain definition, one strand and one sample at a
    // time: pointAtArc at each share of the strand's length, summed over the clump's core strands
    // in strand order (all of them where none is core), over how many were summed.
    for (const int threads : {1, 2}) {
        ClumpAxes made;
        runWithThreads(threads, [&] { made = clumpAxes(strands, channel); });
        EXPECT_EQ(made.clumpCount, 400u);
        EXPECT_EQ(made.points.size(), 400u * ClumpAxes::kAxisPoints);
        EXPECT_EQ(test::pointsHash(made.points), 0x2f77cac2f45c1248ull) << threads << " threads";
    }
}

}  // namespace
}  // namespace velmorin
