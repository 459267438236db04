#include "base/parallel.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

namespace velmorin {
namespace {

TEST(Parallel, ThreadCountAcceptsOnlyPlainPositiveDecimals) {
    EXPECT_EQ(parseThreadCount("1"), 1);
    EXPECT_EQ(parseThreadCount("16"), 16);
    for (const char* bad : {"", "0", "-2", "+2", "2x", " 2", "2 ", "1.5", "0x4", "99999999999"})
        EXPECT_EQ(parseThreadCount(bad), std::nullopt) << '"' << bad << '"';
}

TEST(Parallel, EveryItemVisitedOnceInChunksOfAtMostTheGrain) {
    for (int threads : {1, 2}) {
        std::vector<std::atomic<int>> seen(10007);
        std::atomic<std::size_t> largest{0};
        runWithThreads(threads, [&] {
            parallelRange(3, seen.size(), 256, [&](std::size_t begin, std::size_t end) {
                std::size_t size = end - begin;
                std::size_t old = largest.load();
                while (size > old && !largest.compare_exchange_weak(old, size)) {
                }
                for (std::size_t i = begin; i < end; ++i)
                    seen[i]++;
            });
        });
        for (std::size_t i = 0; i < seen.size(); ++i)
            ASSERT_EQ(seen[i].load(), i >= 3 ? 1 : 0);
        EXPECT_LE(largest.load(), 256u);
    }
}

TEST(Parallel, EmptyRangeRunsNothingAndExceptionsReachTheCaller) {
    bool ran = false;
    parallelRange(5, 5, 16, [&](std::size_t, std::size_t) { ran = true; });
    parallelRange(9, 2, 16, [&](std::size_t, std::size_t) { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_THROW(parallelRange(0, 100000, 64,
                               [](std::size_t begin, std::size_t) {
                                   if (begin >= 50000) throw std::runtime_error("stop");
                               }),
                 std::runtime_error);
}

}  // namespace
}  // namespace velmorin
