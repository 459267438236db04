#include "base/fast_trig_lanes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "base/hash.h"

namespace velmorin {
namespace {

bool sameBits(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Angles that take every path: small and wide ordinary ones, whole and half quarter turns, those
// past 2^22 quarter turns that the lanes hand to the scalar function, infinities and NaN.
std::vector<float> awkwardTurns() {
    std::vector<float> turns = {0.0f,
                                -0.0f,
                                0.25f,
                                0.5f,
                                -0.75f,
                                12.25f,
                                1.0f / 3.0f,
                                1e-30f,
                                1e6f,
                                1.5e6f,
                                2e6f,
                                1e9f,
                                -3e12f,
                                1e19f,
                                INFINITY,
                                -INFINITY,
                                std::numeric_limits<float>::quiet_NaN()};
    for (std::uint64_t i = 0; i < 4000; ++i)
        turns.push_back(200.0f * (unitFloat(hashCombine(3, i)) - 0.5f));
    return turns;
}

TEST(FastTrigLanes, ManyAtOnceAreTheSameBitsAsOneAtATime) {
    const std::vector<float> turns = awkwardTurns();
    // Every count up to 9 from every start, so that lane sets, padded tails and a wide angle in
    // any lane all come up; then all of them at once.
    for (std::size_t count = 0; count <= turns.size();
         count = count < 9 ? count + 1 : turns.size()) {
        for (std::size_t first = 0; first + count <= turns.size();
             first += count < 9 ? 1 : turns.size()) {
            std::vector<float> sines(count + 1, 7.0f), cosines(count + 1, 7.0f);
            sinCosTurnsMany(turns.data() + first, sines.data(), cosines.data(), count);
            for (std::size_t i = 0; i < count; ++i) {
                const SinCos one = sinCosTurns(turns[first + i]);
                ASSERT_TRUE(sameBits(sines[i], one.sin)) << turns[first + i] << " turns";
                ASSERT_TRUE(sameBits(cosines[i], one.cos)) << turns[first + i] << " turns";
            }
            // Nothing past the count is written.
            EXPECT_EQ(sines[count], 7.0f);
            EXPECT_EQ(cosines[count], 7.0f);
        }
        if (count == turns.size()) break;
    }
}

#if VELMORIN_AVX_LANES
__attribute__((target("avx"))) void sinCosEight(const float* turns, float* sines, float* cosines) {
    __m256 s, c;
    sinCosTurns8(_mm256_loadu_ps(turns), s, c);
    _mm256_storeu_ps(sines, s);
    _mm256_storeu_ps(cosines, c);
}

TEST(FastTrigLanes, EightAtOnceAreTheSameBitsAsOneAtATime) {
    if (!avxLanesUsable()) GTEST_SKIP() << "no AVX on this processor";
    const std::vector<float> turns = awkwardTurns();
    // Every start, so that each awkward angle comes up in every lane.
    for (std::size_t first = 0; first + 8 <= turns.size(); ++first) {
        float sines[8], cosines[8];
        sinCosEight(turns.data() + first, sines, cosines);
        for (std::size_t i = 0; i < 8; ++i) {
            const SinCos one = sinCosTurns(turns[first + i]);
            ASSERT_TRUE(sameBits(sines[i], one.sin)) << turns[first + i] << " turns";
            ASSERT_TRUE(sameBits(cosines[i], one.cos)) << turns[first + i] << " turns";
        }
    }
}
#endif

}  // namespace
}  // namespace velmorin
