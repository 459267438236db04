#include "expr/noise.h"

#include <gtest/gtest.h>

#include <cmath>

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

}  // namespace
}  // namespace velmorin
