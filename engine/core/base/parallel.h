#pragma once
// Parallel loops over oneTBB's shared task pool. Every loop of the engine goes through
// parallelRange; its body takes a whole chunk [begin, end) so that scratch space is set up once per
// chunk. Bodies must write only their own items' slots: no result may depend on the thread count.

#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>

namespace velmorin {

using RangeBody = std::function<void(std::size_t begin, std::size_t end)>;

// Runs body over [first, last) in chunks of at most `grain` items (grain 0 counts as 1). Ranges of
// one chunk run on the calling thread. Exceptions from a body reach the caller.
void parallelRange(std::size_t first, std::size_t last, std::size_t grain, const RangeBody& body);

// Runs work in an arena of `count` threads (at least 1); parallel loops started inside stay there.
void runWithThreads(int count, const std::function<void()>& work);

// The worker count that VELMORIN_THREADS asks for: a decimal whole number above 0 with nothing
// behind it. Anything else, or no variable, gives nothing and the pool keeps its default.
std::optional<int> parseThreadCount(std::string_view text);

}  // namespace velmorin
