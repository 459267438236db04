#include "strands/array_pool.h"

#include <gtest/gtest.h>

#include <vector>

namespace velmorin {
namespace {

constexpr std::size_t kFloatsIn4MiB = 0x400000 / sizeof(float);
using Lengths = std::vector<std::size_t>;

TEST(ArrayPool, KeepsOnlyArraysOfAtLeastFourMiB) {
    EXPECT_TRUE(isPooledArraySize(0x400000));
    EXPECT_FALSE(isPooledArraySize(0x3FFFFF));
    ArrayPool<std::uint64_t>& words = ArrayPool<std::uint64_t>::instance();
    words.trim();
    words.release(std::vector<std::uint64_t>(0x400000 / 8 - 1));
    EXPECT_EQ(words.pooledLengths(), Lengths{});
    words.release(std::vector<std::uint64_t>(0x400000 / 8));  // exactly 4 MiB
    EXPECT_EQ(words.pooledLengths(), Lengths{0x400000 / 8});
    words.trim();
    // 12-byte elements never land on 4 MiB: 349525 of them are 4 bytes short, 349526 8 bytes over.
    ArrayPool<Vec3f>& points = ArrayPool<Vec3f>::instance();
    points.trim();
    points.release(std::vector<Vec3f>(349525));
    points.release(std::vector<Vec3f>(349526));
    EXPECT_EQ(points.pooledLengths(), Lengths{349526});
    points.trim();
    EXPECT_EQ(points.pooledLengths(), Lengths{});
}

// Puts the pool's budget back and empties it whatever a test did.
struct BudgetRestored {
    ~BudgetRestored() {
        ArrayPool<float>::instance().trim();
        ArrayPool<float>::instance().setBudget(kDefaultPoolBudgetBytes);
    }
};

TEST(ArrayPool, KeepsReleasedArraysUpToItsBudgetFreeingTheOldest) {
    BudgetRestored restore;
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    EXPECT_EQ(pool.budget(), kDefaultPoolBudgetBytes);
    // Room for three arrays of a little over 4 MiB, not four.
    pool.setBudget(4 * 0x400000);
    for (std::size_t extra : {1, 2, 3, 4})
        pool.release(std::vector<float>(kFloatsIn4MiB + extra));
    EXPECT_EQ(pool.pooledLengths(),
              (Lengths{kFloatsIn4MiB + 2, kFloatsIn4MiB + 3, kFloatsIn4MiB + 4}));
    EXPECT_EQ(pool.pooledBytes(), (3 * kFloatsIn4MiB + 9) * sizeof(float));
    // A lower budget frees the oldest until the rest fits.
    pool.setBudget(2 * 0x400000);
    EXPECT_EQ(pool.pooledLengths(), (Lengths{kFloatsIn4MiB + 4}));
    // An array over the whole budget on its own is not kept; the older ones leave before it.
    pool.release(std::vector<float>(3 * kFloatsIn4MiB));
    EXPECT_EQ(pool.pooledLengths(), Lengths{});
    EXPECT_EQ(pool.pooledBytes(), 0u);
}

TEST(ArrayPool, HandsBackAKeptArrayThatFitsTheRequest) {
    BudgetRestored restore;
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    const std::size_t n = 2 * kFloatsIn4MiB;
    std::vector<float> released(n, 3.0f);
    const float* data = released.data();
    pool.release(std::move(released));
    // Longer than the array, or using less than 7/8 of it: a new array.
    const ArrayPtr<float> longer = pool.makeForOverwrite(n + 1);
    EXPECT_NE(longer->data(), data);
    EXPECT_FALSE(pool.take(n - n / 8 - 1));
    EXPECT_EQ(pool.pooledLengths(), Lengths{n});
    // A little shorter: the kept array, cut to the length asked for.
    ArrayPtr<float> shorter = pool.makeForOverwrite(n - n / 8);
    EXPECT_EQ(shorter->data(), data);
    EXPECT_EQ(shorter->size(), n - n / 8);
    EXPECT_EQ(pool.pooledLengths(), Lengths{});
    // It comes back at that length and serves the full length again from its allocation.
    shorter.reset();
    const ArrayPtr<float> exact = pool.makeForOverwrite(n);
    EXPECT_EQ(exact->data(), data);
    EXPECT_EQ(exact->size(), n);
    EXPECT_EQ(pool.pooledLengths(), Lengths{});

    // An array of exactly the length wins over a larger one that fits, whichever came last; of
    // two that fit, the smaller is taken.
    std::vector<float> same(n), larger(n + 8), largest(n + 16);
    const float* sameData = same.data();
    const float* largerData = larger.data();
    pool.release(std::move(same));
    pool.release(std::move(largest));
    pool.release(std::move(larger));
    EXPECT_EQ(pool.take(n)->data(), sameData);
    EXPECT_EQ(pool.take(n)->data(), largerData);
    EXPECT_EQ(pool.pooledLengths(), Lengths{n + 16});
}

TEST(ArrayPool, SharedArraysComeBackWhenTheirLastHolderLetsGo) {
    ArrayPool<StrandRoot>& pool = ArrayPool<StrandRoot>::instance();
    pool.trim();
    const std::size_t length = 0x400000 / sizeof(StrandRoot) + 1;
    ArrayPtr<StrandRoot> first = pool.makeFilled(length, StrandRoot{7, 0.5f, 0.25f});
    EXPECT_EQ((*first)[length - 1], (StrandRoot{7, 0.5f, 0.25f}));
    ArrayPtr<StrandRoot> second = first;
    first.reset();
    EXPECT_EQ(pool.pooledLengths(), Lengths{});
    second.reset();
    EXPECT_EQ(pool.pooledLengths(), Lengths{length});
    // A small array grown large after it was made comes back at its final size; small ones never.
    ArrayPtr<StrandRoot> grown = pool.makeCopy(std::vector<StrandRoot>(3));
    grown->resize(length + 1);
    grown.reset();
    pool.makeFilled(10, StrandRoot{}).reset();
    EXPECT_EQ(pool.pooledLengths(), (Lengths{length, length + 1}));
    pool.trim();
}

}  // namespace
}  // namespace velmorin
