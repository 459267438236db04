#include "base/memory_report.h"

#include <mutex>

namespace velmorin {
namespace {

struct Registry {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::function<MemoryUse()>>> reporters;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

}  // namespace

void registerMemoryReporter(const std::string& name, std::function<MemoryUse()> reporter) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (auto& [existing, function] : r.reporters) {
        if (existing == name) {
            function = std::move(reporter);
            return;
        }
    }
    r.reporters.emplace_back(name, std::move(reporter));
}

std::vector<MemoryReportLine> memoryReport() {
    std::vector<std::pair<std::string, std::function<MemoryUse()>>> reporters;
    {
        std::lock_guard lock(registry().mutex);
        reporters = registry().reporters;
    }
    std::vector<MemoryReportLine> lines;
    lines.reserve(reporters.size());
    for (const auto& [name, reporter] : reporters)
        lines.push_back({name, reporter()});
    return lines;
}

}  // namespace velmorin
