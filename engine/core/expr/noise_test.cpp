#include "expr/noise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string_view>
#include <vector>

#include "base/hash.h"

namespace velmorin {
namespace {

// Lines along z through seeded random spots, sampled at rising z as a strand walks them and then
// out of order, against the general fractal sum: octave counts, spacings that fade some octaves
// out, negative cells, and a gain that cancels the norm.
TEST(FractalNoiseAlongZ, MatchesTheGeneralFractalSum) {
    struct Case {
        float octaves, spacing, gain;
    };
    const Case cases[] = {{1, 0, 0.5f},    {2, 0, 0.5f},  {3, 0.3f, 0.5f}, {8, 0.1f, 0.7f},
                          {2, 0.8f, 0.5f}, {20, 0, 0.5f}, {2, 0, -1.0f},   {2, 2.0f, 0.5f}};
    for (std::uint64_t line = 0; line < 40; ++line) {
        const Case& c = cases[line % std::size(cases)];
        Fractal fractal;
        fractal.octaves = c.octaves;
        fractal.spacing = c.spacing;
        fractal.gain = c.gain;
        const float x = (unitFloat(hashCombine(line, 1)) - 0.5f) * 600.0f;
        const float y = (unitFloat(hashCombine(line, 2)) - 0.5f) * 600.0f;
        const std::uint64_t seed = hashCombine(kVectorNoiseSeed, line);
        // One walker for two lines, the second taking over from the first.
        FractalNoiseAlongZ walk(fractal, seed);
        walk.startLine(y, x, c.spacing * 0.5f);
        walk.at(1.0f);
        walk.startLine(x, y, c.spacing);
        for (int k = 0; k < 60; ++k) {
            // Rising by steps, then jumping back: the cell the walk holds must not leak.
            const float z = k < 40 ? -3.0f + 0.17f * static_cast<float>(k)
                                   : 50.0f * (unitFloat(hashCombine(line, k)) - 0.5f);
            const Vec3f want = fractalNoiseVector({x, y, z}, fractal, seed);
            const Vec3f got = walk.at(z);
            EXPECT_NEAR(got.x, want.x, 2e-6f) << "line " << line << " z " << z;
            EXPECT_NEAR(got.y, want.y, 2e-6f) << "line " << line << " z " << z;
            EXPECT_NEAR(got.z, want.z, 2e-6f) << "line " << line << " z " << z;
        }
    }
}

// The walk's bits, pinned as they were before it was vectorised: a groom's noise must look the same
// after any speed-up. Lines through whole, negative and fractional spots, at several octave
// counts and spacings, walked up by steps as a strand walks them, then out of order.
TEST(FractalNoiseAlongZ, KeepsItsBits) {
    std::uint64_t digest = 0;
    for (std::uint64_t line = 0; line < 64; ++line) {
        Fractal fractal;
        fractal.octaves = static_cast<float>(1 + line % 4);
        fractal.spacing = line % 3 == 0 ? 0.0f : 0.15f * static_cast<float>(line % 7);
        const float x = line % 5 == 0 ? static_cast<float>(line) - 30.0f
                                      : (unitFloat(hashCombine(line, 1)) - 0.5f) * 900.0f;
        const float y = (unitFloat(hashCombine(line, 2)) - 0.5f) * 900.0f;
        FractalNoiseAlongZ walk(fractal, hashCombine(kVectorNoiseSeed, line));
        walk.startLine(x, y, fractal.spacing);
        for (int k = 0; k < 48; ++k) {
            const float z = k < 32 ? -2.0f + 0.1875f * static_cast<float>(k)
                                   : 300.0f * (unitFloat(hashCombine(line, k)) - 0.5f);
            const Vec3f n = walk.at(z);
            for (const float value : {n.x, n.y, n.z})
                digest = hashCombine(digest, floatBits(value));
        }
    }
    EXPECT_EQ(digest, 17271920370315036404u);
}

// A strand's samples at once give each sample the walk's bits: rising by steps as points do, with
// gaps wider than a cell (a fine octave), falling, beyond the reach of plain cells, not a number,
// and more samples than a strand's stack holds.
TEST(FractalNoiseAlongZ, AlongGivesEverySampleTheWalksBits) {
    struct Case {
        const char* what;
        float first, step;
        std::size_t count;
    };
    const Case cases[] = {{"rising", -1.3f, 0.19f, 16},  {"skipping cells", 0.4f, 2.7f, 12},
                          {"falling", 5.0f, -0.31f, 20}, {"far out", 3.0e6f, 0.5f, 8},
                          {"one sample", 2.5f, 0.0f, 1}, {"none", 0.0f, 0.0f, 0},
                          {"many", -40.0f, 0.11f, 700},  {"on cell borders", -2.0f, 0.25f, 17}};
    Fractal fractal;
    fractal.octaves = 3.0f;
    for (const Case& c : cases) {
        std::vector<float> z(c.count);
        for (std::size_t i = 0; i < c.count; ++i)
            z[i] = c.first + c.step * static_cast<float>(i);
        if (c.count > 4) z[c.count / 2] = c.what[0] == 'f' ? NAN : z[c.count / 2];
        // A negative zero among whole numbers: the floor keeps its sign.
        if (std::string_view(c.what) == "on cell borders") z[c.count / 2] = -0.0f;
        FractalNoiseAlongZ walk(fractal, 99), batch(fractal, 99);
        walk.startLine(-12.25f, 7.5f, 0.05f);
        batch.startLine(-12.25f, 7.5f, 0.05f);
        std::vector<Vec3f> got(c.count);
        batch.along(z, got);
        for (std::size_t i = 0; i < c.count; ++i) {
            const Vec3f want = walk.at(z[i]);
            for (int axis = 0; axis < 3; ++axis)
                EXPECT_EQ(floatBits(got[i][axis]), floatBits(want[axis]))
                    << c.what << ", sample " << i << ", axis " << axis;
        }
    }
}

}  // namespace
}  // namespace velmorin
