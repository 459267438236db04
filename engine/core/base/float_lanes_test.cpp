#include "base/float_lanes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>

#include "base/fast_trig_lanes.h"

namespace velmorin {
namespace {

#if VELMORIN_FLOAT_LANES
// Integers, and the floats that hold their bits, for the integer lane checks.
constexpr std::array<std::int32_t, 8> kIntegers = {
    0, -1, 1,   std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(),
    7, -7, 1000};

struct LaneResults {
    std::array<float, 8> rows[4];
    std::array<int, 2> equal, signClear, andNot;
    std::array<const char*, 8> addresses;
};

// The checked operations of one lane width, over the first kWidth of the table's entries.
#define VELMORIN_LANE_CHECKS(NAMESPACE, TARGET)                                                \
    TARGET LaneResults NAMESPACE##Results(const char* base) {                                  \
        using namespace float_lanes::NAMESPACE;                                                \
        LaneResults r{};                                                                       \
        alignas(32) float bits[kWidth], same[kWidth], ones[kWidth];                            \
        float records[kWidth][4];                                                              \
        const float* at[kWidth];                                                               \
        for (std::size_t l = 0; l < kWidth; ++l) {                                             \
            std::memcpy(&bits[l], &kIntegers[l], sizeof(float));                               \
            same[l] = l % 2 == 0 ? bits[l] : 0.5f;                                             \
            ones[l] = 1.0f;                                                                    \
            for (std::size_t j = 0; j < 4; ++j)                                                \
                records[l][j] = static_cast<float>(10 * l + j);                                \
            at[l] = records[l];                                                                \
        }                                                                                      \
        F rows[4];                                                                             \
        transposeRows(at, rows[0], rows[1], rows[2], rows[3]);                                 \
        for (std::size_t j = 0; j < 4; ++j)                                                    \
            store(r.rows[j].data(), rows[j]);                                                  \
        const F lanes = loadAligned(bits);                                                     \
        r.equal[0] = laneBits(equalBits(lanes, loadAligned(same)));                            \
        r.signClear[0] = laneBits(signClear(lanes));                                           \
        r.andNot[0] = laneBits(andNot(signClear(lanes), equalBits(lanes, loadAligned(same)))); \
        r.equal[1] = laneBits(everyLane());                                                    \
        r.signClear[1] = laneBits(noLanes());                                                  \
        r.andNot[1] = laneBits(M{bitsOf(loadAligned(ones) > splat(0.0f)).v});                  \
        laneAddresses(lanes, base, 24, r.addresses.data());                                    \
        return r;                                                                              \
    }

VELMORIN_LANE_CHECKS(narrow, )
VELMORIN_LANE_CHECKS(wide, __attribute__((target("avx"))))
#undef VELMORIN_LANE_CHECKS

TEST(FloatLanes, IntegerMasksRowsAndAddressesFollowEachLane) {
    static const char base[16] = {};
    const auto check = [&](const LaneResults& r, std::size_t width) {
        int equal = 0, signClear = 0, andNot = 0;
        for (std::size_t l = 0; l < width; ++l) {
            const bool same = l % 2 == 0;
            const bool clear = kIntegers[l] >= 0;
            equal |= (same ? 1 : 0) << l;
            signClear |= (clear ? 1 : 0) << l;
            andNot |= (clear && !same ? 1 : 0) << l;
            for (std::size_t j = 0; j < 4; ++j)
                EXPECT_EQ(r.rows[j][l], static_cast<float>(10 * l + j)) << width << " " << l;
            // Computed on addresses as integers: a negative index lies before the base.
            EXPECT_EQ(reinterpret_cast<std::intptr_t>(r.addresses[l]),
                      reinterpret_cast<std::intptr_t>(base) +
                          static_cast<std::intptr_t>(kIntegers[l]) * 24)
                << width << " " << l;
        }
        const int all = (1 << width) - 1;
        EXPECT_EQ(r.equal, (std::array<int, 2>{equal, all})) << width;
        EXPECT_EQ(r.signClear, (std::array<int, 2>{signClear, 0})) << width;
        EXPECT_EQ(r.andNot, (std::array<int, 2>{andNot, all})) << width;
    };
    check(narrowResults(base), 4);
    if (avxLanesUsable()) check(wideResults(base), 8);
}
#endif

}  // namespace
}  // namespace velmorin
