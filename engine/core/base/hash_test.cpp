#include "base/hash.h"

#include <gtest/gtest.h>

namespace velmorin {
namespace {

// Reference values of SplitMix64: its first outputs from seed 0 are mix64(0), mix64(kGolden), ...
// as published with the generator.
TEST(Hash, Mix64IsTheSplitMix64Step) {
    EXPECT_EQ(mix64(0), 0xE220A8397B1DCDAFull);
    EXPECT_EQ(mix64(kGolden), 0x6E789E6AA1B965F4ull);
    EXPECT_EQ(mix64(2 * kGolden), 0x06C45D188009454Full);
}

TEST(Hash, CombineFollowsItsFormulaAndOrderMatters) {
    const std::uint64_t h = 12345, v = 678;
    EXPECT_EQ(hashCombine(h, v), mix64(((h << 6) + (h >> 2) + kGolden + v) ^ h));
    EXPECT_NE(hashCombine(hashCombine(0, 1), 2), hashCombine(hashCombine(0, 2), 1));
    EXPECT_NE(hashText(0, "ab"), hashText(hashText(0, "a"), "b"));
}

TEST(Hash, UnitFloatTakesTheTop24BitsIntoTheHalfOpenUnitRange) {
    for (std::uint64_t x = 0; x < 100000; ++x) {
        const float f = unitFloat(x);
        ASSERT_GE(f, 0.0f);
        ASSERT_LT(f, 1.0f);
        ASSERT_EQ(f, static_cast<float>(mix64(x) >> 40) / 16777216.0f);
    }
}

}  // namespace
}  // namespace velmorin
