#include "expr/program_cache.h"

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/hash.h"

namespace velmorin {
namespace {

struct CacheEntry {
    std::string source;
    ExpressionType expected;
    std::uint64_t environmentKey;
    std::shared_ptr<const ExpressionProgram> program;
};

// Most recently used first; the map finds an entry by the hash of what it was compiled from.
class ProgramCache {
  public:
    std::shared_ptr<const ExpressionProgram> find(std::uint64_t hash, std::string_view source,
                                                  ExpressionType expected,
                                                  std::uint64_t environmentKey, float frame) {
        const std::lock_guard lock(mutex_);
        const auto found = index_.find(hash);
        if (found == index_.end()) return nullptr;
        const CacheEntry& entry = *found->second;
        if (entry.source != source || entry.expected != expected ||
            entry.environmentKey != environmentKey)
            return nullptr;
        if (entry.program->reads(kReadsTime) && entry.program->frame != frame) return nullptr;
        entries_.splice(entries_.begin(), entries_, found->second);
        return entry.program;
    }

    void store(std::uint64_t hash, CacheEntry entry) {
        const std::lock_guard lock(mutex_);
        if (const auto found = index_.find(hash); found != index_.end()) {
            entries_.erase(found->second);
            index_.erase(found);
        }
        entries_.push_front(std::move(entry));
        index_[hash] = entries_.begin();
        while (entries_.size() > kExpressionCacheSize) {
            const CacheEntry& last = entries_.back();
            index_.erase(keyOf(last.source, last.expected, last.environmentKey));
            entries_.pop_back();
        }
    }

    std::size_t count() const {
        const std::lock_guard lock(mutex_);
        return entries_.size();
    }

    static std::uint64_t keyOf(std::string_view source, ExpressionType expected,
                               std::uint64_t environmentKey) {
        return hashText(hashCombine(environmentKey, static_cast<std::uint64_t>(expected)), source);
    }

  private:
    mutable std::mutex mutex_;
    std::list<CacheEntry> entries_;
    std::unordered_map<std::uint64_t, std::list<CacheEntry>::iterator> index_;
};

ProgramCache& cache() {
    static ProgramCache programs;
    return programs;
}

std::atomic<std::uint64_t> gCompiles{0};

}  // namespace

std::shared_ptr<const ExpressionProgram> compileCached(
    std::string_view source, ExpressionType expected, std::uint64_t environmentKey, double frame,
    const std::function<ExpressionEnvironment()>& environment) {
    const std::uint64_t hash = ProgramCache::keyOf(source, expected, environmentKey);
    if (auto program = cache().find(hash, source, expected, environmentKey, narrowToFloat(frame)))
        return program;
    // Compiled outside the lock: a compile may resolve maps, which can take a while.
    gCompiles.fetch_add(1, std::memory_order_relaxed);
    auto program = compile(source, environment(), expected);
    cache().store(hash, {std::string(source), expected, environmentKey, program});
    return program;
}

std::size_t expressionCacheCount() {
    return cache().count();
}

std::uint64_t expressionCacheCompiles() {
    return gCompiles.load(std::memory_order_relaxed);
}

}  // namespace velmorin
