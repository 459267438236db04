#include "base/memory_report.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace velmorin {
namespace {

TEST(MemoryReport, ListsReportersInOrderAndReplacesByName) {
    registerMemoryReporter("test first", [] { return MemoryUse{10, 1}; });
    registerMemoryReporter("test second", [] { return MemoryUse{20, 2}; });
    registerMemoryReporter("test first", [] { return MemoryUse{30, 3}; });
    const auto report = memoryReport();
    const auto find = [&](const std::string& name) {
        return std::find_if(report.begin(), report.end(),
                            [&](const MemoryReportLine& l) { return l.name == name; });
    };
    const auto first = find("test first"), second = find("test second");
    ASSERT_NE(first, report.end());
    ASSERT_NE(second, report.end());
    EXPECT_LT(first, second);
    EXPECT_EQ(first->use.bytes, 30u);
    EXPECT_EQ(first->use.entries, 3u);
    EXPECT_EQ(second->use.bytes, 20u);
    EXPECT_EQ(std::count_if(report.begin(), report.end(),
                            [](const auto& l) { return l.name == "test first"; }),
              1);
}

}  // namespace
}  // namespace velmorin
