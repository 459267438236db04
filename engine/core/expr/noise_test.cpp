#include "expr/noise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
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

// Lines side by side give each line the bits it gets alone, whatever the group: point counts
// mixed within a group (none, one, the most a lane takes and one more, short ones in pairs), lines
// through lattice planes, huge spots and no number at all (NaN, infinities), samples on lattice
// planes, repeated (zero-length steps), skipping cells, falling and out of plain reach, and
// spacings that fade octaves out, line by line, some moving points by their samples; with each lane
// kernel the processor runs.
TEST(FractalNoiseAlongZ, LinesSideBySideGiveEachLineItsBits) {
    const std::size_t counts[] = {17, 0, 9, 1, 64, 65, 2, 33, 16, 5, 200, 3, 8, 7, 1, 4, 6, 2};
    const float spots[] = {5.0f,
                           -3.0f,
                           0.0f,
                           -0.0f,
                           1.0e7f,
                           -3.0e9f,
                           0.5f,
                           -1.0e-30f,
                           std::numeric_limits<float>::quiet_NaN(),
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity()};
    const float spacings[] = {0.1875f, 0.0f, 0.3f, 0.8f, 0.05f, 2.0f};
    struct Pattern {
        const char* what;
        float first, step;
    };
    const Pattern patterns[] = {
        {"rising", 130.0f, 0.19f},        {"on lattice planes", -4.0f, 0.5f},
        {"repeated", 7.25f, 0.0f},        {"skipping cells", 0.4f, 2.7f},
        {"falling", 300.0f, -0.31f},      {"out of reach", 3.0e6f, 0.5f},
        {"whole steps", -2.0f, 1.0f},     {"huge", 1.0e12f, 1.0e9f},
        {"strand", 211.4f, 3.0f / 16.0f}, {"negative", -511.9f, 0.07f}};
    constexpr std::size_t kLines = 120;
    std::vector<std::vector<float>> z(kLines);
    std::vector<FractalNoiseAlongZ::Line> lines(kLines);
    // Every third line moves points by its samples, as a strand's noise moves them.
    constexpr float kAmplitude = 0.37f;
    const auto moves = [](std::size_t l) { return l % 3 == 1; };
    std::vector<std::vector<Vec3f>> from(kLines);
    for (std::size_t l = 0; l < kLines; ++l) {
        const Pattern& p = patterns[l % std::size(patterns)];
        z[l].resize(counts[l % std::size(counts)]);
        for (std::size_t i = 0; i < z[l].size(); ++i)
            z[l][i] = p.first + p.step * static_cast<float>(i);
        // A zero-length step in the middle of a strand: two samples in one place.
        if (z[l].size() > 4) z[l][z[l].size() / 2] = z[l][z[l].size() / 2 - 1];
        const float x = l % 3 == 0 ? spots[l % std::size(spots)]
                                   : (unitFloat(hashCombine(l, 1)) - 0.5f) * 1000.0f;
        const float y =
            l % 4 == 1 ? spots[(l / 4) % std::size(spots)] : unitFloat(hashCombine(l, 2)) * 512.0f;
        lines[l].x = x;
        lines[l].y = y;
        lines[l].spacing = spacings[(l / 2) % std::size(spacings)];
        lines[l].z = z[l];
        for (std::size_t i = 0; i < z[l].size(); ++i)
            from[l].push_back(Vec3f{z[l][i], -0.5f * z[l][i], static_cast<float>(i)});
    }
    for (const float octaves : {1.0f, 2.0f, 3.0f, 8.0f}) {
        Fractal fractal;
        fractal.octaves = octaves;
        const std::uint64_t seed =
            hashCombine(kVectorNoiseSeed, static_cast<std::uint64_t>(octaves));
        // Each line alone, as a strand's line was walked before lines went side by side.
        std::vector<std::vector<Vec3f>> want(kLines);
        FractalNoiseAlongZ walk(fractal, seed);
        for (std::size_t l = 0; l < kLines; ++l) {
            want[l].resize(z[l].size());
            walk.startLine(lines[l].x, lines[l].y, lines[l].spacing);
            walk.along(z[l], want[l]);
        }
        for (const NoiseLanes lanes : {NoiseLanes::Avx512, NoiseLanes::Avx2, NoiseLanes::None})
            for (const std::size_t group :
                 {std::size_t{1}, std::size_t{3}, std::size_t{8}, std::size_t{11}, kLines}) {
                // A kernel this processor lacks would run the next narrower one again.
                if (lanes > noiseLanesAvailable()) continue;
                setNoiseLanes(lanes);
                std::vector<std::vector<Vec3f>> got(kLines), scratch(kLines);
                for (std::size_t l = 0; l < kLines; ++l) {
                    got[l].assign(z[l].size(), Vec3f{-1, -1, -1});
                    scratch[l].assign(z[l].size(), Vec3f{-1, -1, -1});
                    lines[l].out = moves(l) ? scratch[l] : got[l];
                    lines[l].from = moves(l) ? from[l] : std::span<const Vec3f>();
                    lines[l].moved = moves(l) ? got[l] : std::span<Vec3f>();
                    lines[l].amplitude = kAmplitude;
                }
                FractalNoiseAlongZ batch(fractal, seed);
                for (std::size_t l = 0; l < kLines; l += group)
                    batch.alongLines(std::span<const FractalNoiseAlongZ::Line>(lines).subspan(
                        l, std::min(group, kLines - l)));
                for (std::size_t l = 0; l < kLines; ++l)
                    for (std::size_t i = 0; i < z[l].size(); ++i)
                        for (int axis = 0; axis < 3; ++axis)
                            ASSERT_EQ(
                                floatBits(got[l][i][axis]),
                                floatBits(moves(l) ? (from[l][i] + want[l][i] * kAmplitude)[axis]
                                                   : want[l][i][axis]))
                                << patterns[l % std::size(patterns)].what << " line " << l
                                << ", sample " << i << ", axis " << axis << ", octaves " << octaves
                                << ", group " << group << ", lanes " << static_cast<int>(lanes);
            }
    }
    setNoiseLanes(NoiseLanes::Avx512);
}

}  // namespace
}  // namespace velmorin
