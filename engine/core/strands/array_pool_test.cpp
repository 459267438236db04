#include "strands/array_pool.h"

#include <gtest/gtest.h>

#include <vector>

namespace velmorin {
namespace {

// Element counts at the edge of the pooled size for each element width.
constexpr std::size_t kFloatsIn4MiB = 0x400000 / sizeof(float);
constexpr std::size_t kWordsIn4MiB = 0x400000 / sizeof(std::uint64_t);

using SizeList = std::vector<std::size_t>;

TEST(ArrayPool, KeepsOnlyArraysOfAtLeastFourMiB) {
    EXPECT_TRUE(isPooledArraySize(0x400000));
    EXPECT_FALSE(isPooledArraySize(0x3FFFFF));

    ArrayPool<std::uint64_t>& words = ArrayPool<std::uint64_t>::instance();
    words.trim();
    words.release(std::vector<std::uint64_t>(kWordsIn4MiB));  // exactly 4 MiB
    EXPECT_EQ(words.pooledLengths(), SizeList{kWordsIn4MiB});
    words.release(std::vector<std::uint64_t>(kWordsIn4MiB - 1));
    EXPECT_EQ(words.pooledLengths(), SizeList{kWordsIn4MiB});
    words.trim();

    // 12-byte elements never land on 4 MiB exactly: 349525 of them are 4 bytes short of it.
    ArrayPool<Vec3f>& points = ArrayPool<Vec3f>::instance();
    points.trim();
    points.release(std::vector<Vec3f>(349525));
    EXPECT_EQ(points.pooledLengths(), SizeList{});
    points.release(std::vector<Vec3f>(349526));
    EXPECT_EQ(points.pooledLengths(), SizeList{349526});
    points.trim();
    EXPECT_EQ(points.pooledLengths(), SizeList{});
}

TEST(ArrayPool, KeepsTheLastTwoReleasedInReleaseOrder) {
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    pool.release(std::vector<float>(kFloatsIn4MiB + 1));
    pool.release(std::vector<float>(kFloatsIn4MiB + 2));
    EXPECT_EQ(pool.pooledLengths(), (SizeList{kFloatsIn4MiB + 1, kFloatsIn4MiB + 2}));
    pool.release(std::vector<float>(kFloatsIn4MiB + 3));
    EXPECT_EQ(pool.pooledLengths(), (SizeList{kFloatsIn4MiB + 2, kFloatsIn4MiB + 3}));
    pool.trim();
}

TEST(ArrayPool, TakesAPooledArrayOnlyForAnExactLength) {
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    std::vector<float> released(kFloatsIn4MiB, 3.0f);
    const float* data = released.data();
    pool.release(std::move(released));

    EXPECT_FALSE(pool.take(kFloatsIn4MiB - 1));
    EXPECT_FALSE(pool.take(kFloatsIn4MiB + 1));
    ArrayPtr<float> longer = pool.makeForOverwrite(kFloatsIn4MiB + 1);
    EXPECT_NE(longer->data(), data);
    EXPECT_EQ(longer->size(), kFloatsIn4MiB + 1);
    EXPECT_EQ(pool.pooledLengths(), SizeList{kFloatsIn4MiB});

    ArrayPtr<float> exact = pool.makeForOverwrite(kFloatsIn4MiB);
    EXPECT_EQ(exact->data(), data);
    EXPECT_EQ(exact->size(), kFloatsIn4MiB);
    EXPECT_EQ(pool.pooledLengths(), SizeList{});
    EXPECT_FALSE(pool.take(16));
    exact.reset();
    longer.reset();
    pool.trim();
}

TEST(ArrayPool, SharedArraysComeBackWhenTheirLastHolderLetsGo) {
    ArrayPool<StrandRoot>& pool = ArrayPool<StrandRoot>::instance();
    pool.trim();
    const std::size_t length = 0x400000 / sizeof(StrandRoot) + 1;
    ArrayPtr<StrandRoot> first = pool.makeFilled(length, StrandRoot{7, 0.5f, 0.25f});
    EXPECT_EQ((*first)[length - 1], (StrandRoot{7, 0.5f, 0.25f}));
    ArrayPtr<StrandRoot> second = first;
    first.reset();
    EXPECT_EQ(pool.pooledLengths(), SizeList{});
    second.reset();
    EXPECT_EQ(pool.pooledLengths(), SizeList{length});

    // A small array grown large after it was made still comes back at its final size.
    ArrayPtr<StrandRoot> grown = pool.makeCopy(std::vector<StrandRoot>(3));
    grown->resize(length + 1);
    grown.reset();
    EXPECT_EQ(pool.pooledLengths(), (SizeList{length, length + 1}));

    pool.makeFilled(10, StrandRoot{}).reset();
    EXPECT_EQ(pool.pooledLengths(), (SizeList{length, length + 1}));
    pool.trim();
}

}  // namespace
}  // namespace velmorin
