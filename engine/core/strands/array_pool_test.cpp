#include "strands/array_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "base/parallel.h"

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

TEST(ArrayPool, KeepsTheLastTwoReleasedInReleaseOrder) {
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    for (std::size_t extra : {1, 2, 3})
        pool.release(std::vector<float>(kFloatsIn4MiB + extra));
    EXPECT_EQ(pool.pooledLengths(), (Lengths{kFloatsIn4MiB + 2, kFloatsIn4MiB + 3}));
    pool.trim();
}

TEST(ArrayPool, TakesAPooledArrayOnlyForAnExactLength) {
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    pool.trim();
    std::vector<float> released(kFloatsIn4MiB, 3.0f);
    const float* data = released.data();
    pool.release(std::move(released));
    EXPECT_FALSE(pool.take(kFloatsIn4MiB - 1));
    const ArrayPtr<float> longer = pool.makeForOverwrite(kFloatsIn4MiB + 1);
    EXPECT_NE(longer->data(), data);
    EXPECT_EQ(pool.pooledLengths(), Lengths{kFloatsIn4MiB});
    const ArrayPtr<float> exact = pool.makeForOverwrite(kFloatsIn4MiB);
    EXPECT_EQ(exact->data(), data);
    EXPECT_EQ(exact->size(), kFloatsIn4MiB);
    EXPECT_EQ(pool.pooledLengths(), Lengths{});
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

// Fills and copies of a few megabytes run in pieces on every thread: each piece, the odd one at the
// end too, must land whole, at any thread count. A fresh array of that size has its full length.
TEST(ArrayPool, FillsAndCopiesLargeArraysWholeAtAnyThreadCount) {
    ArrayPool<float>& pool = ArrayPool<float>::instance();
    const std::size_t length = 3 * kFloatsIn4MiB / 4 + 5;
    std::vector<float> source(length);
    for (std::size_t i = 0; i < length; ++i)
        source[i] = static_cast<float>(i) * 0.5f;
    for (const int threads : {1, 2}) {
        pool.trim();
        runWithThreads(threads, [&] {
            const ArrayPtr<float> filled = pool.makeFilled(length, 2.5f);
            EXPECT_EQ(std::count(filled->begin(), filled->end(), 2.5f),
                      static_cast<std::ptrdiff_t>(length))
                << threads << " threads";
            const ArrayPtr<float> copied = pool.makeCopy(source);
            EXPECT_EQ(*copied, source) << threads << " threads";
            EXPECT_EQ(pool.makeForOverwrite(length + 7)->size(), length + 7);
            // A plain array is value-initialised throughout and leaves the pool as it was.
            const std::vector<float> plain = ArrayPool<float>::makeVector(length);
            EXPECT_EQ(std::count(plain.begin(), plain.end(), 0.0f),
                      static_cast<std::ptrdiff_t>(length));
        });
    }
    pool.trim();
}

}  // namespace
}  // namespace velmorin
