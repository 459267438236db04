#pragma once
// Seeded random strand sets for the tests of this folder.

#include "base/hash.h"
#include "strands/strand_set.h"

#include <gtest/gtest.h>

#include <vector>

namespace velmorin::test {

// `count` strands of 0 to 12 points (so some are empty) with coordinates in [-5, 5), widths in
// [0, 1), and a strand channel "mass" (default 2) and a point channel "curl" (default -1) holding
// hashed values. The same seed gives the same set.
inline StrandSet randomStrands(std::size_t count, std::uint64_t seed) {
    StrandSet set;
    set.addStrandChannel("mass", 2.0f);
    set.addPointChannel("curl", -1.0f);
    std::vector<Vec3f> points;
    std::vector<float> widths;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t h = hashCombine(seed, i);
        const std::size_t pointCount = mix64(h) % 13;
        points.clear();
        widths.clear();
        for (std::size_t k = 0; k < pointCount; ++k) {
            const std::uint64_t p = hashCombine(h, k);
            points.push_back(
                {unitFloat(p) * 10 - 5, unitFloat(p + 1) * 10 - 5, unitFloat(p + 2) * 10 - 5});
            widths.push_back(unitFloat(p + 3));
        }
        const StrandRoot root{static_cast<std::int32_t>(h % 40) - 5, unitFloat(h + 1),
                              unitFloat(h + 2)};
        set.addStrand(h, root, points, widths);
    }
    std::vector<float>& mass = set.addStrandChannel("mass", 2.0f);
    for (std::size_t i = 0; i < count; ++i)
        mass[i] = unitFloat(seed + 7 * i);
    std::vector<float>& curl = set.addPointChannel("curl", -1.0f);
    for (std::size_t p = 0; p < curl.size(); ++p)
        curl[p] = unitFloat(seed + 11 * p);
    return set;
}

inline void expectSameBits(const StrandSet::Extent& a, const StrandSet::Extent& b) {
    EXPECT_EQ(floatBits(a.min.x), floatBits(b.min.x));
    EXPECT_EQ(floatBits(a.min.y), floatBits(b.min.y));
    EXPECT_EQ(floatBits(a.min.z), floatBits(b.min.z));
    EXPECT_EQ(floatBits(a.max.x), floatBits(b.max.x));
    EXPECT_EQ(floatBits(a.max.y), floatBits(b.max.y));
    EXPECT_EQ(floatBits(a.max.z), floatBits(b.max.z));
    EXPECT_EQ(floatBits(a.longest), floatBits(b.longest));
    EXPECT_EQ(a.finite, b.finite);
}

}  // namespace velmorin::test
