#include "strands/strand_set.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/strand_set_internal.h"

namespace velmorin {
namespace {

using strand_set_internal::emptyArray;
using strand_set_internal::zeroOffsets;

constexpr std::size_t kThinningGrain = 256;
constexpr std::size_t kGatherGrain = 256;

// Appends `values` to `array`, also when they lie inside `array` itself.
template <class T>
void appendRange(std::vector<T>& array, std::span<const T> values) {
    const std::less<const T*> before;
    const bool inside = !values.empty() && !before(values.data(), array.data()) &&
                        before(values.data(), array.data() + array.size());
    if (inside) {
        const std::vector<T> copy(values.begin(), values.end());
        array.insert(array.end(), copy.begin(), copy.end());
    } else {
        array.insert(array.end(), values.begin(), values.end());
    }
}

// Copies `count` elements. A strand holds a handful of points, for which a call into the C
// library costs more than the copy: short runs are copied by fixed-size blocks the compiler
// inlines.
template <class T>
void copyRun(const T* from, std::size_t count, T* to) {
    if (count > 32) {
        std::memcpy(to, from, count * sizeof(T));
        return;
    }
    std::size_t k = 0;
    for (; k + 4 <= count; k += 4)
        std::memcpy(to + k, from + k, 4 * sizeof(T));
    switch (count - k) {
        case 3:
            std::memcpy(to + k, from + k, 3 * sizeof(T));
            break;
        case 2:
            std::memcpy(to + k, from + k, 2 * sizeof(T));
            break;
        case 1:
            std::memcpy(to + k, from + k, sizeof(T));
            break;
        default:
            break;
    }
}

// Writes `count` values: those of `from` while it lasts, then `fallback`.
void copyOrFill(float* to, std::size_t count, const std::vector<float>* from, float fallback) {
    const std::size_t copied = from ? std::min(count, from->size()) : 0;
    if (copied) std::copy_n(from->data(), copied, to);
    std::fill(to + copied, to + count, fallback);
}

}  // namespace

// ---- Building

std::size_t StrandSet::addStrand(std::uint64_t id, StrandRoot root, std::span<const Vec3f> points,
                                 std::span<const float> widths) {
    if (!widths.empty() && widths.size() != points.size())
        throw std::invalid_argument("StrandSet::addStrand: widths must be empty or match points");
    dropCachedExtents();
    const std::size_t index = strandCount();
    promote(ids_).push_back(id);
    promote(roots_).push_back(root);
    std::vector<Vec3f>& pointArray = promote(points_);
    appendRange(pointArray, points);
    std::vector<float>& widthArray = promote(widths_);
    if (widths.empty())
        widthArray.insert(widthArray.end(), points.size(), 1.0f);
    else
        appendRange(widthArray, widths);
    promote(offsets_).push_back(pointArray.size());
    for (auto& entry : strandChannels_)
        promote(entry.second.column).push_back(entry.second.defaultValue);
    for (auto& entry : pointChannels_) {
        std::vector<float>& values = promote(entry.second.column);
        values.insert(values.end(), points.size(), entry.second.defaultValue);
    }
    return index;
}

void StrandSet::append(const StrandSet& other) {
    if (&other == this) {
        const StrandSet copy(*this);
        append(copy);
        return;
    }
    dropCachedExtents();
    if (other.strandCount() == 0) return;
    const std::size_t oldStrands = strandCount();
    const std::size_t oldPoints = pointCount();
    appendValues(ids_, other.ids());
    appendValues(roots_, other.roots());
    appendValues(points_, other.points());
    appendValues(widths_, other.widths());

    const std::span<const std::uint64_t> from = other.offsets();
    const std::size_t oldOffsets = offsets_.array->size();
    std::uint64_t* to = extend(offsets_, oldOffsets + from.size() - 1) + oldOffsets;
    for (std::size_t k = 1; k < from.size(); ++k)
        to[k - 1] = from[k] + oldPoints;

    mergeChannels(other, oldStrands, oldPoints);
}

void StrandSet::mergeChannels(const StrandSet& other, std::size_t oldStrands,
                              std::size_t oldPoints) {
    const std::size_t addedStrands = other.strandCount();
    const std::size_t addedPoints = other.pointCount();
    for (auto& [name, channel] : strandChannels_) {
        const std::size_t old = channel.column.array->size();
        float* to = extend(channel.column, old + addedStrands) + old;
        copyOrFill(to, addedStrands, other.strandChannel(name), channel.defaultValue);
    }
    for (auto& [name, channel] : pointChannels_) {
        const std::size_t old = channel.column.array->size();
        float* to = extend(channel.column, old + addedPoints) + old;
        const std::vector<float>* perStrand = other.strandChannel(name);
        if (const std::vector<float>* perPoint = other.pointChannel(name)) {
            copyOrFill(to, addedPoints, perPoint, channel.defaultValue);
        } else if (perStrand && perStrand->size() == addedStrands) {
            for (std::size_t s = 0; s < addedStrands; ++s) {
                const PointRange range = other.pointRange(s);
                std::fill_n(to + range.begin, range.count, (*perStrand)[s]);
            }
        } else {
            std::fill_n(to, addedPoints, channel.defaultValue);
        }
    }

    auto addNew = [&](ChannelMap& mine, const ChannelMap& theirs, std::size_t oldCount,
                      std::size_t addedCount) {
        for (const auto& [name, channel] : theirs) {
            if (mine.contains(name)) continue;
            ArrayPtr<float> values =
                ArrayPool<float>::instance().makeForOverwrite(oldCount + addedCount);
            std::fill_n(values->data(), oldCount, channel.defaultValue);
            copyOrFill(values->data() + oldCount, addedCount, channel.column.array.get(),
                       channel.defaultValue);
            std::lock_guard guard(columnLock_);
            mine.emplace(name, Channel{{std::move(values), true}, channel.defaultValue});
        }
    };
    // Everything above has extended the channels this set had, so what is still missing here is
    // exactly what only `other` has.
    addNew(strandChannels_, other.strandChannels_, oldStrands, addedStrands);
    addNew(pointChannels_, other.pointChannels_, oldPoints, addedPoints);
}

void StrandSet::clear() {
    dropCachedExtents();
    replaceArray(ids_, emptyArray<std::uint64_t>(), false);
    replaceArray(roots_, emptyArray<StrandRoot>(), false);
    replaceArray(offsets_, zeroOffsets(), false);
    replaceArray(points_, emptyArray<Vec3f>(), false);
    replaceArray(widths_, emptyArray<float>(), false);
    for (ChannelMap* map : {&strandChannels_, &pointChannels_})
        for (auto& entry : *map)
            replaceArray(entry.second.column, emptyArray<float>(), false);
    attachment_.reset();
    for (auto& list : attachmentLists_)
        list.clear();
}

void StrandSet::resizeForOverwrite(std::size_t strandCount, std::size_t pointCount) {
    assert(strandChannels_.empty() && pointChannels_.empty());
    dropCachedExtents();
    replaceArray(ids_, ArrayPool<std::uint64_t>::instance().makeForOverwrite(strandCount), true);
    replaceArray(roots_, ArrayPool<StrandRoot>::instance().makeForOverwrite(strandCount), true);
    replaceArray(offsets_, ArrayPool<std::uint64_t>::instance().makeForOverwrite(strandCount + 1),
                 true);
    replaceArray(points_, ArrayPool<Vec3f>::instance().makeForOverwrite(pointCount), true);
    replaceArray(widths_, ArrayPool<float>::instance().makeForOverwrite(pointCount), true);
}

// ---- Deriving

void StrandSet::subset(std::span<const std::uint64_t> indices, StrandSet& out) const {
    const std::size_t strands = strandCount();
    for (std::uint64_t index : indices) {
        if (index >= strands)
            throw std::invalid_argument("StrandSet::subset: strand index " + std::to_string(index) +
                                        " is out of range for a set of " + std::to_string(strands) +
                                        " strands");
    }
    gather(ArrayPool<std::uint64_t>::instance().makeCopy(indices), out);
}

void StrandSet::gather(ArrayPtr<std::uint64_t> indexArray, StrandSet& out) const {
    assert(widths().size() == pointCount());
    const std::size_t count = indexArray->size();
    const std::uint64_t* indices = indexArray->data();

    // The new offsets: point counts and their sums per chunk in parallel, then the chunks' start
    // values in order, then each chunk's running sum in parallel. Integer sums: the same whatever
    // the thread count.
    ArrayPtr<std::uint64_t> offsets =
        ArrayPool<std::uint64_t>::instance().makeForOverwrite(count + 1);
    std::uint64_t* newOffsets = offsets->data();
    newOffsets[0] = 0;
    const std::size_t chunks = (count + kGatherGrain - 1) / kGatherGrain;
    std::vector<std::uint64_t> chunkStart(chunks + 1, 0);
    parallelRange(0, chunks, 1, [&](std::size_t firstChunk, std::size_t endChunk) {
        for (std::size_t c = firstChunk; c < endChunk; ++c) {
            std::uint64_t sum = 0;
            for (std::size_t k = c * kGatherGrain; k < std::min(count, (c + 1) * kGatherGrain); ++k)
                sum += newOffsets[k + 1] = pointRange(indices[k]).count;
            chunkStart[c + 1] = sum;
        }
    });
    for (std::size_t c = 0; c < chunks; ++c)
        chunkStart[c + 1] += chunkStart[c];
    parallelRange(0, chunks, 1, [&](std::size_t firstChunk, std::size_t endChunk) {
        for (std::size_t c = firstChunk; c < endChunk; ++c) {
            std::uint64_t running = chunkStart[c];
            for (std::size_t k = c * kGatherGrain; k < std::min(count, (c + 1) * kGatherGrain); ++k)
                newOffsets[k + 1] = running += newOffsets[k + 1];
        }
    });
    const std::size_t points = newOffsets[count];

    // Built aside and moved in at the end, so that `out` may be this set. The index array becomes
    // the new ids column: each chunk overwrites its indices with ids after its last use of them.
    StrandSet result;
    result.offsets_ = {offsets, true};
    result.ids_ = {indexArray, true};
    result.roots_ = {ArrayPool<StrandRoot>::instance().makeForOverwrite(count), true};
    result.points_ = {ArrayPool<Vec3f>::instance().makeForOverwrite(points), true};
    result.widths_ = {ArrayPool<float>::instance().makeForOverwrite(points), true};

    struct Gather {
        const float* from;
        float* to;
    };
    std::vector<Gather> strandGathers, pointGathers;
    for (const auto& [name, channel] : strandChannels_) {
        assert(channel.column.array->size() == strandCount());
        ArrayPtr<float> values = ArrayPool<float>::instance().makeForOverwrite(count);
        strandGathers.push_back({channel.column.array->data(), values->data()});
        result.strandChannels_.emplace(name,
                                       Channel{{std::move(values), true}, channel.defaultValue});
    }
    for (const auto& [name, channel] : pointChannels_) {
        assert(channel.column.array->size() == pointCount());
        ArrayPtr<float> values = ArrayPool<float>::instance().makeForOverwrite(points);
        pointGathers.push_back({channel.column.array->data(), values->data()});
        result.pointChannels_.emplace(name,
                                      Channel{{std::move(values), true}, channel.defaultValue});
    }

    std::uint64_t* ids = indexArray->data();
    StrandRoot* roots = result.roots_.array->data();
    Vec3f* pointsTo = result.points_.array->data();
    float* widthsTo = result.widths_.array->data();
    const std::span<const std::uint64_t> idsFrom = this->ids();
    const std::span<const StrandRoot> rootsFrom = this->roots();
    const std::span<const Vec3f> pointsFrom = this->points();
    const std::span<const float> widthsFrom = this->widths();
    parallelRange(0, count, kGatherGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k)
            roots[k] = rootsFrom[indices[k]];
        // Strands listed one after another in the source have their points one after another in
        // both sets, so each such run is one copy.
        auto forEachRun = [&](auto&& copy) {
            for (std::size_t k = begin; k < end;) {
                std::size_t last = k;
                while (last + 1 < end && indices[last + 1] == indices[last] + 1)
                    ++last;
                const std::size_t from = pointRange(indices[k]).begin;
                const PointRange lastRange = pointRange(indices[last]);
                copy(from, lastRange.begin + lastRange.count - from, newOffsets[k]);
                k = last + 1;
            }
        };
        forEachRun([&](std::size_t from, std::size_t n, std::size_t to) {
            copyRun(&pointsFrom[from], n, pointsTo + to);
        });
        forEachRun([&](std::size_t from, std::size_t n, std::size_t to) {
            copyRun(&widthsFrom[from], n, widthsTo + to);
        });
        for (const Gather& gather : strandGathers)
            for (std::size_t k = begin; k < end; ++k)
                gather.to[k] = gather.from[indices[k]];
        for (const Gather& gather : pointGathers) {
            forEachRun([&](std::size_t from, std::size_t n, std::size_t to) {
                copyRun(gather.from + from, n, gather.to + to);
            });
        }
        for (std::size_t k = begin; k < end; ++k)
            ids[k] = idsFrom[indices[k]];  // last use
    });

    result.attachment_ = attachment_;
    result.attachmentLists_ = attachmentLists_;
    out = std::move(result);
}

void StrandSet::thinned(double density, StrandSet& out) const {
    const std::size_t strands = strandCount();
    const std::span<const std::uint64_t> idsFrom = ids();
    // Chunks of kThinningGrain strands: the test into a byte array and a count per chunk, the
    // chunks' first output slots in order, then each chunk's kept indices in parallel.
    const std::size_t chunks = (strands + kThinningGrain - 1) / kThinningGrain;
    auto chunkEnd = [&](std::size_t c) { return std::min(strands, (c + 1) * kThinningGrain); };
    std::vector<unsigned char> kept(strands);
    std::vector<std::size_t> chunkStart(chunks + 1, 0);
    parallelRange(0, chunks, 1, [&](std::size_t firstChunk, std::size_t endChunk) {
        for (std::size_t c = firstChunk; c < endChunk; ++c) {
            std::size_t count = 0;
            for (std::size_t i = c * kThinningGrain; i < chunkEnd(c); ++i)
                count += kept[i] = density > unitFloat(idsFrom[i]);
            chunkStart[c + 1] = count;
        }
    });
    for (std::size_t c = 0; c < chunks; ++c)
        chunkStart[c + 1] += chunkStart[c];
    const std::size_t keptCount = chunkStart[chunks];
    if (keptCount == strands) {
        // Everything stays: share the columns rather than copy them.
        out = *this;
        return;
    }
    ArrayPtr<std::uint64_t> indices =
        ArrayPool<std::uint64_t>::instance().makeForOverwrite(keptCount);
    parallelRange(0, chunks, 1, [&](std::size_t firstChunk, std::size_t endChunk) {
        std::uint64_t local[kThinningGrain];
        for (std::size_t c = firstChunk; c < endChunk; ++c) {
            // Without a branch (a random half kept would mispredict half the time): every index is
            // stored and only the kept ones advance.
            std::size_t next = 0;
            for (std::size_t i = c * kThinningGrain; i < chunkEnd(c); ++i) {
                local[next] = i;
                next += kept[i];
            }
            std::copy_n(local, next, indices->data() + chunkStart[c]);
        }
    });
    gather(std::move(indices), out);
}

}  // namespace velmorin
