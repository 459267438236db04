#include "base/parallel.h"

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>

namespace velmorin {
namespace {

// Reads VELMORIN_THREADS once per process and caps the pool for as long as the process lives.
void applyThreadSetting() {
    static const std::unique_ptr<tbb::global_control> control = [] {
        const char* text = std::getenv("VELMORIN_THREADS");
        std::optional<int> count = text ? parseThreadCount(text) : std::nullopt;
        if (!count) return std::unique_ptr<tbb::global_control>();
        return std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism,
                                                     static_cast<std::size_t>(*count));
    }();
    (void)control;
}

}  // namespace

std::optional<int> parseThreadCount(std::string_view text) {
    if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
    int value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value <= 0) return std::nullopt;
    return value;
}

void parallelRange(std::size_t first, std::size_t last, std::size_t grain, const RangeBody& body) {
    if (last <= first) return;
    grain = std::max<std::size_t>(grain, 1);
    if (last - first <= grain) {
        body(first, last);
        return;
    }
    applyThreadSetting();
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(first, last, grain),
        [&](const tbb::blocked_range<std::size_t>& r) { body(r.begin(), r.end()); },
        tbb::simple_partitioner());
}

void runWithThreads(int count, const std::function<void()>& work) {
    applyThreadSetting();
    tbb::task_arena arena(std::max(count, 1));
    arena.execute(work);
}

}  // namespace velmorin
