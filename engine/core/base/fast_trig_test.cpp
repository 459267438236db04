#include "base/fast_trig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "base/hash.h"

namespace velmorin {
namespace {

// How many float ulps `got` lies from the true value `want` (a double), counting ulps at the size
// of `want` but no finer than at 2^-30, so that a result near a zero of the function is held to an
// absolute error of the order of the argument's own rounding.
double ulpsOff(float got, double want) {
    const double size = std::max(std::fabs(want), 0x1p-30);
    const double ulp = std::ldexp(1.0, std::ilogb(size) - 23);
    return std::fabs(static_cast<double>(got) - want) / ulp;
}

// The promise: within 2.5 float ulps.
constexpr double kMostUlps = 2.5;

// Evenly spread samples over [low, high] plus hashed ones, so that neither grid nor luck hides
// the worst case.
template <class Check>
void forSamples(float low, float high, const Check& check) {
    constexpr int kEven = 20000;
    for (int i = 0; i <= kEven; ++i)
        check(low + (high - low) * (static_cast<float>(i) / kEven));
    for (std::uint64_t i = 0; i < 20000; ++i)
        check(low + (high - low) * unitFloat(hashCombine(7, i)));
}

TEST(FastTrig, SinCosTurnsStaysWithinAFewUlpsOverWideRanges) {
    constexpr double kTwoPi = 6.283185307179586476925;
    struct Range {
        float low;
        float high;
    };
    const Range ranges[] = {{-1e-7f, 1e-7f}, {-1.0f, 1.0f}, {-50.0f, 50.0f}, {3e4f, 3.1e4f}};
    for (const Range& range : ranges) {
        double worstSin = 0.0, worstCos = 0.0;
        forSamples(range.low, range.high, [&](float turns) {
            // The reference reduces by quarter turns too (exactly), so that a multiple of a
            // quarter turn is not blurred by the rounding of 2 pi.
            const double quarters = 4.0 * static_cast<double>(turns);
            const double nearest = std::nearbyint(quarters);
            const double angle = (quarters - nearest) * (kTwoPi / 4.0);
            const auto quadrant = static_cast<std::int64_t>(nearest) & 3;
            const double s = std::sin(angle), c = std::cos(angle);
            const double wantSin[] = {s, c, -s, -c};
            const double wantCos[] = {c, -s, -c, s};
            const SinCos got = sinCosTurns(turns);
            worstSin = std::max(worstSin, ulpsOff(got.sin, wantSin[quadrant]));
            worstCos = std::max(worstCos, ulpsOff(got.cos, wantCos[quadrant]));
        });
        EXPECT_LE(worstSin, kMostUlps)
            << "sin over " << range.low << " to " << range.high << " turns";
        EXPECT_LE(worstCos, kMostUlps)
            << "cos over " << range.low << " to " << range.high << " turns";
    }
}

TEST(FastTrig, QuarterTurnsAreExactAtAnySizeAndNonFiniteAnglesGiveNaN) {
    // Past 2^22 quarters a float holds whole and half quarters only: the values are those of the
    // quarter or half quarter it holds, the half quarter's the polynomials' within an ulp.
    struct Case {
        float turns;
        float sin;
        float cos;
        float tolerance;  // 0: exact
    };
    const float half = 0.70710677f;
    const Case cases[] = {{0.0f, 0.0f, 1.0f, 0.0f},
                          {0.25f, 1.0f, 0.0f, 0.0f},
                          {0.5f, 0.0f, -1.0f, 0.0f},
                          {0.75f, -1.0f, 0.0f, 0.0f},
                          {-0.25f, -1.0f, 0.0f, 0.0f},
                          {1e9f, 0.0f, 1.0f, 0.0f},
                          {12.25f, 1.0f, 0.0f, 0.0f},
                          {1048576.125f, half, half, 1e-7f},
                          {-1048576.125f, -half, half, 1e-7f},
                          {1048576.75f, -1.0f, 0.0f, 1e-7f},
                          {3e9f, 0.0f, 1.0f, 1e-7f},
                          {std::numeric_limits<float>::max(), 0.0f, 1.0f, 1e-7f}};
    for (const Case& c : cases) {
        const SinCos got = sinCosTurns(c.turns);
        if (c.tolerance == 0.0f) {
            EXPECT_EQ(got.sin, c.sin) << c.turns << " turns";
            EXPECT_EQ(got.cos, c.cos) << c.turns << " turns";
        } else {
            EXPECT_NEAR(got.sin, c.sin, c.tolerance) << c.turns << " turns";
            EXPECT_NEAR(got.cos, c.cos, c.tolerance) << c.turns << " turns";
        }
    }
    for (const float x :
         {std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
          std::numeric_limits<float>::quiet_NaN()}) {
        EXPECT_TRUE(std::isnan(sinCosTurns(x).sin)) << x;
        EXPECT_TRUE(std::isnan(sinCosTurns(x).cos)) << x;
    }
}

}  // namespace
}  // namespace velmorin
