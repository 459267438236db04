#include "strands/strand_changes.h"

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/strand_set.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace velmorin {
namespace {

constexpr std::size_t kCompareGrain = 256;

// Raw bits, not values: a NaN that stayed a NaN is no change, and -0 against +0 is one.
template <class T>
bool sameBits(const T* a, const T* b, std::size_t count) {
    if constexpr (sizeof(T) % sizeof(std::uint32_t) == 0) {
        // A strand's few hundred bytes are compared word by word inline: a call to memcmp per
        // strand costs more than the comparison itself.
        const std::size_t words = count * (sizeof(T) / sizeof(std::uint32_t));
        if (words <= 128) {
            const auto* x = reinterpret_cast<const unsigned char*>(a);
            const auto* y = reinterpret_cast<const unsigned char*>(b);
            // Blocks of eight words, so that a strand that differs early stops early.
            std::size_t w = 0;
            for (; w + 8 <= words; w += 8) {
                std::uint32_t differs = 0;
                for (std::size_t i = w; i < w + 8; ++i) {
                    std::uint32_t u, v;
                    std::memcpy(&u, x + i * sizeof u, sizeof u);
                    std::memcpy(&v, y + i * sizeof v, sizeof v);
                    differs |= u ^ v;
                }
                if (differs != 0) return false;
            }
            std::uint32_t differs = 0;
            for (; w < words; ++w) {
                std::uint32_t u, v;
                std::memcpy(&u, x + w * sizeof u, sizeof u);
                std::memcpy(&v, y + w * sizeof v, sizeof v);
                differs |= u ^ v;
            }
            return differs == 0;
        }
    }
    return count == 0 || std::memcmp(a, b, count * sizeof(T)) == 0;
}

// Compares two per-strand columns in parallel; the answer is a plain "any", so it cannot depend on
// how the work was split.
template <class T>
bool sameColumn(std::span<const T> a, std::span<const T> b) {
    if (a.size() != b.size()) return false;
    if (a.data() == b.data()) return true;
    std::atomic<bool> differs{false};
    parallelRange(0, a.size(), kCompareGrain * 16, [&](std::size_t begin, std::size_t end) {
        if (!differs.load(std::memory_order_relaxed) &&
            !sameBits(a.data() + begin, b.data() + begin, end - begin))
            differs.store(true, std::memory_order_relaxed);
    });
    return !differs.load();
}

// One channel's arrays in the two sets, listed only when the sets do not share them.
struct Pair {
    const float* a;
    const float* b;
    const std::string* name;
};

}  // namespace

bool StrandChanges::channelMayDiffer(std::string_view name) const {
    return allChannels || std::find(channels.begin(), channels.end(), name) != channels.end();
}

bool StrandChanges::onlyOtherChannels(std::span<const std::string_view> reads) const {
    if (pointsChanged || widthsChanged || allChannels) return false;
    return std::none_of(reads.begin(), reads.end(),
                        [&](std::string_view name) { return channelMayDiffer(name); });
}

void StrandChanges::addChannel(std::string_view name) {
    if (!channelMayDiffer(name)) channels.emplace_back(name);
}

std::shared_ptr<const StrandChanges> strandDifference(
    const std::shared_ptr<const StrandSet>& previous,
    const std::shared_ptr<const StrandSet>& next) {
    if (!previous || !next) return nullptr;
    auto changes = std::make_shared<StrandChanges>();
    changes->all = false;
    changes->sameLayout = true;
    changes->pointsChanged = false;
    changes->widthsChanged = false;
    changes->allChannels = false;
    if (previous == next) return changes;

    const StrandSet& a = *previous;
    const StrandSet& b = *next;
    const std::size_t strands = a.strandCount();
    const std::size_t points = a.pointCount();
    if (b.strandCount() != strands || b.pointCount() != points) return nullptr;
    for (std::size_t list = 0; list < StrandSet::kAttachmentListCount; ++list)
        if (a.attachmentList(list) != b.attachmentList(list)) return nullptr;

    const std::vector<std::string> strandNames = a.strandChannelNames();
    const std::vector<std::string> pointNames = a.pointChannelNames();
    if (strandNames != b.strandChannelNames() || pointNames != b.pointChannelNames())
        return nullptr;
    // Written as "not equal" so that a NaN default, which equals nothing, also counts as a change.
    for (const std::string& name : strandNames)
        if (!(a.channelDefault(name) == b.channelDefault(name))) return nullptr;
    for (const std::string& name : pointNames)
        if (!(a.pointChannelDefault(name) == b.pointChannelDefault(name))) return nullptr;

    if (!sameColumn(a.offsets(), b.offsets()) || !sameColumn(a.ids(), b.ids()) ||
        !sameColumn(a.roots(), b.roots()))
        return nullptr;
    if (a.widths().size() != b.widths().size()) return nullptr;
    // The per-strand walk below reads every column through the offsets; a column of the wrong size
    // (an invalid set) is answered conservatively instead of read past its end.
    if (a.offsets().size() != strands + 1 || a.offsets().back() != points ||
        a.widths().size() != points)
        return nullptr;

    std::vector<Pair> strandPairs, pointPairs;
    for (const std::string& name : strandNames) {
        const std::vector<float>* x = a.strandChannel(name);
        const std::vector<float>* y = b.strandChannel(name);
        if (x->size() != strands || y->size() != strands) return nullptr;
        if (x != y) strandPairs.push_back({x->data(), y->data(), &name});
    }
    for (const std::string& name : pointNames) {
        const std::vector<float>* x = a.pointChannel(name);
        const std::vector<float>* y = b.pointChannel(name);
        if (x->size() != points || y->size() != points) return nullptr;
        if (x != y) pointPairs.push_back({x->data(), y->data(), &name});
    }
    const bool comparePoints = a.columnData(ColumnId::kPoints) != b.columnData(ColumnId::kPoints);
    const bool compareWidths = a.columnData(ColumnId::kWidths) != b.columnData(ColumnId::kWidths);

    const std::uint64_t* offsets = a.offsets().data();
    const Vec3f* pointsA = a.points().data();
    const Vec3f* pointsB = b.points().data();
    const float* widthsA = a.widths().data();
    const float* widthsB = b.widths().data();
    // One flag per strand; each chunk writes only its own strands' flags. Beside them, one flag per
    // compared column (points, widths, then the channel pairs) says whether any strand differs in
    // it: a plain "any", the same however the work is split.
    std::vector<unsigned char> changed(strands);
    const std::size_t columnCount = 2 + strandPairs.size() + pointPairs.size();
    const std::unique_ptr<std::atomic<bool>[]> columnDiffers(new std::atomic<bool>[columnCount]);
    for (std::size_t c = 0; c < columnCount; ++c)
        columnDiffers[c].store(false);
    parallelRange(0, strands, kCompareGrain, [&](std::size_t begin, std::size_t end) {
        // A strand already listed is compared again only while its column has shown no
        // difference in this chunk, so that every column that differs anywhere is found.
        auto compareRanges = [&](std::size_t column, const auto* x, const auto* y) {
            bool differs = false;
            for (std::size_t s = begin; s < end; ++s) {
                if (differs && changed[s]) continue;
                const std::size_t first = offsets[s];
                if (!sameBits(x + first, y + first, offsets[s + 1] - first)) {
                    changed[s] = 1;
                    differs = true;
                }
            }
            if (differs) columnDiffers[column].store(true, std::memory_order_relaxed);
        };
        if (comparePoints) compareRanges(0, pointsA, pointsB);
        if (compareWidths) compareRanges(1, widthsA, widthsB);
        for (std::size_t p = 0; p < strandPairs.size(); ++p) {
            const Pair& pair = strandPairs[p];
            bool differs = false;
            for (std::size_t s = begin; s < end; ++s) {
                if (floatBits(pair.a[s]) != floatBits(pair.b[s])) {
                    changed[s] = 1;
                    differs = true;
                }
            }
            if (differs) columnDiffers[2 + p].store(true, std::memory_order_relaxed);
        }
        for (std::size_t p = 0; p < pointPairs.size(); ++p)
            compareRanges(2 + strandPairs.size() + p, pointPairs[p].a, pointPairs[p].b);
    });

    changes->pointsChanged = columnDiffers[0].load();
    changes->widthsChanged = columnDiffers[1].load();
    changes->allChannels = false;
    for (std::size_t p = 0; p < strandPairs.size(); ++p)
        if (columnDiffers[2 + p].load()) changes->channels.push_back(*strandPairs[p].name);
    for (std::size_t p = 0; p < pointPairs.size(); ++p)
        if (columnDiffers[2 + strandPairs.size() + p].load())
            changes->channels.push_back(*pointPairs[p].name);
    changes->strands.reserve(
        static_cast<std::size_t>(std::count(changed.begin(), changed.end(), 1)));
    for (std::size_t s = 0; s < strands; ++s)
        if (changed[s]) changes->strands.push_back(s);
    changes->attachmentChanged = a.attachment() != b.attachment();
    return changes;
}

}  // namespace velmorin
