#pragma once
// The process's memory report: caches that live for the whole process register a function that says
// how much they hold, under a name the statistics show ("distance fields", "subdivision plans").

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace velmorin {

struct MemoryUse {
    std::size_t bytes = 0;
    std::size_t entries = 0;
};

struct MemoryReportLine {
    std::string name;
    MemoryUse use;
};

// Registers (or replaces) the reporter under `name`. The reporter is called with no lock of the
// report held, so it may take its own cache's lock.
void registerMemoryReporter(const std::string& name, std::function<MemoryUse()> reporter);

// One line per registered cache, in the order they registered.
std::vector<MemoryReportLine> memoryReport();

}  // namespace velmorin
