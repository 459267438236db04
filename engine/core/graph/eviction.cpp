// The result cache's memory limit. Each node keeps exactly one result, its latest, so the cache has
// no entries of its own: eviction clears the results of the nodes used longest ago. Arrays are
// counted once however many results share them, which is why derived sets barely raise the total.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <unordered_map>
#include <vector>

#include "graph/graph.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

struct HeldArray {
    std::size_t holders = 0;
    std::uint64_t bytes = 0;
};

// The distinct arrays that a node's results hold (a node that holds one array twice counts once).
std::vector<const void*> arraysOf(const GraphNode& node,
                                  std::unordered_map<const void*, HeldArray>& arrays) {
    std::vector<const void*> held;
    for (const Value& value : node.runtime.results) {
        auto strands = value.get<StrandSet>();
        if (!strands) continue;
        strands->forEachColumn([&](const void* pointer, std::size_t bytes) {
            if (std::find(held.begin(), held.end(), pointer) != held.end()) return;
            held.push_back(pointer);
            HeldArray& array = arrays[pointer];
            array.bytes = bytes;
            ++array.holders;
        });
    }
    return held;
}

}  // namespace

std::uint64_t parseCacheLimit(const char* text) {
    if (text == nullptr || *text == '\0') return kDefaultCacheLimit;
    // A plain decimal number: strtod alone would also take hex, "inf", "nan" and leading blanks.
    for (const char* c = text; *c; ++c) {
        const bool allowed = (*c >= '0' && *c <= '9') || *c == '.' || *c == 'e' || *c == 'E' ||
                             *c == '+' || *c == '-';
        if (!allowed) return kDefaultCacheLimit;
    }
    char* end = nullptr;
    const double megabytes = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(megabytes) || megabytes < 0.0)
        return kDefaultCacheLimit;
    const double bytes = megabytes * 1048576.0;
    if (bytes >= 18446744073709551615.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(bytes);
}

std::uint64_t cacheLimitFromEnvironment() {
    static const std::uint64_t limit = parseCacheLimit(std::getenv("VELMORIN_CACHE_LIMIT_MB"));
    return limit;
}

void Graph::evictResults(std::uint32_t keep) {
    if (cacheLimit == 0) return;  // 0 switches eviction off
    struct Candidate {
        std::uint32_t id;
        std::uint64_t lastUsed;
        std::vector<const void*> arrays;
    };
    std::unordered_map<const void*, HeldArray> arrays;
    std::vector<Candidate> candidates;
    for (auto& [id, node] : nodes_) {
        if (!node.runtime.valid) continue;
        candidates.push_back({id, node.runtime.lastUsed, arraysOf(node, arrays)});
    }
    std::uint64_t total = 0;
    for (const auto& entry : arrays)
        total += entry.second.bytes;
    if (total <= cacheLimit) return;

    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const Candidate& a, const Candidate& b) { return a.lastUsed < b.lastUsed; });
    for (const Candidate& candidate : candidates) {
        if (candidate.id == keep) continue;
        std::uint64_t freeable = 0;
        for (const void* pointer : candidate.arrays) {
            const HeldArray& array = arrays[pointer];
            if (array.holders == 1) freeable += array.bytes;
        }
        // Dropping a node whose every array another node also holds would free nothing.
        if (freeable == 0) continue;
        for (const void* pointer : candidate.arrays)
            --arrays[pointer].holders;
        GraphNode& node = nodes_.at(candidate.id);
        node.runtime.valid = false;
        node.runtime.results.clear();
        node.runtime.changes.clear();
        node.runtime.previewSources.clear();
        node.runtime.previewCopies.clear();
        ++cacheEvictions;
        total -= freeable;
        if (total <= cacheLimit) break;
    }
}

}  // namespace velmorin
