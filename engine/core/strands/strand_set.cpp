#include "strands/strand_set.h"

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/strand_set_internal.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <utility>

namespace velmorin {
namespace {

using strand_set_internal::emptyArray;
using strand_set_internal::zeroOffsets;

std::atomic<std::uint64_t> movedColumns{0};

}  // namespace

StrandSet::StrandSet()
    : ids_{emptyArray<std::uint64_t>()},
      roots_{emptyArray<StrandRoot>()},
      offsets_{zeroOffsets()},
      points_{emptyArray<Vec3f>()},
      widths_{emptyArray<float>()} {}

StrandSet::StrandSet(const StrandSet& other) {
    {
        std::lock_guard guard(other.columnLock_);
        ids_.array = other.ids_.array;
        roots_.array = other.roots_.array;
        offsets_.array = other.offsets_.array;
        points_.array = other.points_.array;
        widths_.array = other.widths_.array;
        strandChannels_ = other.strandChannels_;
        pointChannels_ = other.pointChannels_;
        // Both sides now share every column, so neither may write in place any more.
        other.ids_.owned = other.roots_.owned = other.offsets_.owned = false;
        other.points_.owned = other.widths_.owned = false;
        auto disown = [](const ChannelMap& channels) {
            for (const auto& entry : channels)
                entry.second.column.owned = false;
        };
        disown(strandChannels_);
        disown(pointChannels_);
        disown(other.strandChannels_);
        disown(other.pointChannels_);
    }
    attachment_ = other.attachment_;
    attachmentLists_ = other.attachmentLists_;
    std::lock_guard guard(other.extentLock_);
    boundsCache_ = other.boundsCache_;
    blockExtentsCache_ = other.blockExtentsCache_;
    cacheValid_ = other.cacheValid_;
}

StrandSet& StrandSet::operator=(const StrandSet& other) {
    if (this != &other) *this = StrandSet(other);
    return *this;
}

StrandSet::StrandSet(StrandSet&& other) noexcept : StrandSet() {
    *this = std::move(other);
}

StrandSet& StrandSet::operator=(StrandSet&& other) noexcept {
    if (this == &other) return *this;
    boundsCache_ = std::move(other.boundsCache_);
    blockExtentsCache_ = std::move(other.blockExtentsCache_);
    cacheValid_ = std::exchange(other.cacheValid_, false);
    ids_ = std::exchange(other.ids_, Column<std::uint64_t>{emptyArray<std::uint64_t>()});
    roots_ = std::exchange(other.roots_, Column<StrandRoot>{emptyArray<StrandRoot>()});
    offsets_ = std::exchange(other.offsets_, Column<std::uint64_t>{zeroOffsets()});
    points_ = std::exchange(other.points_, Column<Vec3f>{emptyArray<Vec3f>()});
    widths_ = std::exchange(other.widths_, Column<float>{emptyArray<float>()});
    strandChannels_ = std::move(other.strandChannels_);
    pointChannels_ = std::move(other.pointChannels_);
    other.strandChannels_.clear();
    other.pointChannels_.clear();
    attachment_ = std::move(other.attachment_);
    attachmentLists_ = std::move(other.attachmentLists_);
    for (auto& list : other.attachmentLists_)
        list.clear();
    return *this;
}

StrandSet::~StrandSet() = default;

StrandSet::PointRange StrandSet::pointRange(std::size_t strand) const {
    assert(strand < strandCount());
    const std::vector<std::uint64_t>& offsets = *offsets_.array;
    return {offsets[strand], offsets[strand + 1] - offsets[strand]};
}

std::span<const Vec3f> StrandSet::strandPoints(std::size_t strand) const {
    const PointRange range = pointRange(strand);
    return points().subspan(range.begin, range.count);
}

void StrandSet::dropCachedExtents() {
    std::shared_ptr<const Extent> whole;
    std::shared_ptr<const std::vector<Extent>> blocks;
    std::lock_guard guard(extentLock_);
    whole.swap(boundsCache_);
    blocks.swap(blockExtentsCache_);
    cacheValid_ = false;
}

std::vector<std::uint64_t>& StrandSet::writeIds() {
    dropCachedExtents();
    return promote(ids_);
}
std::vector<StrandRoot>& StrandSet::writeRoots() {
    dropCachedExtents();
    return promote(roots_);
}
std::vector<std::uint64_t>& StrandSet::writeOffsets() {
    dropCachedExtents();
    return promote(offsets_);
}
std::vector<Vec3f>& StrandSet::writePoints() {
    dropCachedExtents();
    return promote(points_);
}
std::vector<float>& StrandSet::writeWidths() {
    dropCachedExtents();
    return promote(widths_);
}
std::vector<Vec3f>& StrandSet::overwritePoints() {
    return overwritePoints(points_.array->size());
}
std::vector<float>& StrandSet::overwriteWidths() {
    return overwriteWidths(widths_.array->size());
}
std::vector<Vec3f>& StrandSet::overwritePoints(std::size_t length) {
    dropCachedExtents();
    return promoteForOverwrite(points_, length);
}
std::vector<float>& StrandSet::overwriteWidths(std::size_t length) {
    dropCachedExtents();
    return promoteForOverwrite(widths_, length);
}

// ---- Channels

const std::vector<float>* StrandSet::strandChannel(std::string_view name) const {
    auto it = strandChannels_.find(name);
    return it == strandChannels_.end() ? nullptr : it->second.column.array.get();
}

const std::vector<float>* StrandSet::pointChannel(std::string_view name) const {
    auto it = pointChannels_.find(name);
    return it == pointChannels_.end() ? nullptr : it->second.column.array.get();
}

float StrandSet::channelDefault(std::string_view name) const {
    auto it = strandChannels_.find(name);
    return it == strandChannels_.end() ? 0.0f : it->second.defaultValue;
}

float StrandSet::pointChannelDefault(std::string_view name) const {
    auto it = pointChannels_.find(name);
    return it == pointChannels_.end() ? 0.0f : it->second.defaultValue;
}

std::vector<float>& StrandSet::addStrandChannel(const std::string& name, float defaultValue) {
    dropCachedExtents();
    auto it = strandChannels_.find(name);
    if (it != strandChannels_.end()) return promote(it->second.column);
    Channel channel{{ArrayPool<float>::instance().makeFilled(strandCount(), defaultValue), true},
                    defaultValue};
    std::lock_guard guard(columnLock_);
    return *strandChannels_.emplace(name, std::move(channel)).first->second.column.array;
}

std::vector<float>& StrandSet::addPointChannel(const std::string& name, float defaultValue) {
    dropCachedExtents();
    auto it = pointChannels_.find(name);
    if (it != pointChannels_.end()) return promote(it->second.column);
    Channel channel{{ArrayPool<float>::instance().makeFilled(pointCount(), defaultValue), true},
                    defaultValue};
    std::lock_guard guard(columnLock_);
    return *pointChannels_.emplace(name, std::move(channel)).first->second.column.array;
}

std::vector<std::string> StrandSet::strandChannelNames() const {
    std::vector<std::string> names;
    for (const auto& entry : strandChannels_)
        names.push_back(entry.first);
    return names;
}

std::vector<std::string> StrandSet::pointChannelNames() const {
    std::vector<std::string> names;
    for (const auto& entry : pointChannels_)
        names.push_back(entry.first);
    return names;
}

bool StrandSet::removeStrandChannel(std::string_view name) {
    auto it = strandChannels_.find(name);
    if (it == strandChannels_.end()) return false;
    dropCachedExtents();
    Channel removed;  // released after the lock
    std::lock_guard guard(columnLock_);
    removed = std::move(it->second);
    strandChannels_.erase(it);
    return true;
}

bool StrandSet::removePointChannel(std::string_view name) {
    auto it = pointChannels_.find(name);
    if (it == pointChannels_.end()) return false;
    dropCachedExtents();
    Channel removed;
    std::lock_guard guard(columnLock_);
    removed = std::move(it->second);
    pointChannels_.erase(it);
    return true;
}

// ---- Hashing, walking, checking

std::uint64_t StrandSet::contentHash() const {
    const std::size_t strands = strandCount();
    const std::span<const std::uint64_t> idsFrom = ids();
    const std::span<const std::uint64_t> offsetsFrom = offsets();
    const std::span<const StrandRoot> rootsFrom = roots();
    assert(offsetsFrom.size() == strands + 1 && rootsFrom.size() == strands);
    std::uint64_t h = mix64(strands);
    for (std::size_t i = 0; i < strands; ++i) {
        h = hashCombine(h, idsFrom[i]);
        h = hashCombine(h, offsetsFrom[i + 1]);
        h = hashCombine(h,
                        static_cast<std::uint64_t>(static_cast<std::int64_t>(rootsFrom[i].face)));
        h = hashCombine(h, floatBits(rootsFrom[i].u));
        h = hashCombine(h, floatBits(rootsFrom[i].v));
    }
    for (const Vec3f& p : points()) {
        h = hashCombine(h, floatBits(p.x));
        h = hashCombine(h, floatBits(p.y));
        h = hashCombine(h, floatBits(p.z));
    }
    for (float w : widths())
        h = hashCombine(h, floatBits(w));
    for (const ChannelMap* map : {&strandChannels_, &pointChannels_}) {
        for (const auto& [name, channel] : *map) {
            h = hashBytes(h, name);
            for (float value : *channel.column.array)
                h = hashCombine(h, floatBits(value));
        }
    }
    return h;
}

void StrandSet::forEachColumn(
    const std::function<void(const void* pointer, std::size_t bytes)>& visit) const {
    auto visitArray = [&](const auto& array) {
        if (!array.empty()) visit(array.data(), array.size() * sizeof(array[0]));
    };
    visitArray(*ids_.array);
    visitArray(*roots_.array);
    visitArray(*offsets_.array);
    visitArray(*points_.array);
    visitArray(*widths_.array);
    for (const auto& entry : strandChannels_)
        visitArray(*entry.second.column.array);
    for (const auto& entry : pointChannels_)
        visitArray(*entry.second.column.array);
}

bool StrandSet::validate(std::string& message) const {
    const std::size_t strands = strandCount();
    const std::size_t points = pointCount();
    const std::vector<std::uint64_t>& offsets = *offsets_.array;
    auto fail = [&](std::string text) {
        message = std::move(text);
        return false;
    };
    if (offsets.size() != strands + 1) return fail("offsets size must be strandCount + 1");
    if (roots_.array->size() != strands) return fail("roots size must equal strandCount");
    if (offsets[0] != 0) return fail("offsets must start at 0");
    if (offsets.back() != points) return fail("last offset must equal pointCount");
    if (std::adjacent_find(offsets.begin(), offsets.end(), std::greater<>()) != offsets.end())
        return fail("offsets must be non-decreasing");
    if (widths_.array->size() != points) return fail("widths size must equal pointCount");
    for (const auto& [name, channel] : strandChannels_)
        if (channel.column.array->size() != strands)
            return fail("strand channel '" + name + "' has wrong size");
    for (const auto& [name, channel] : pointChannels_)
        if (channel.column.array->size() != points)
            return fail("point channel '" + name + "' has wrong size");
    return true;
}

// ---- Attachments and column identity

const std::vector<std::shared_ptr<const void>>& StrandSet::attachmentList(std::size_t list) const {
    assert(list < kAttachmentListCount);
    return attachmentLists_[list];
}

std::vector<std::shared_ptr<const void>>& StrandSet::writeAttachmentList(std::size_t list) {
    assert(list < kAttachmentListCount);
    return attachmentLists_[list];
}

const void* StrandSet::columnData(ColumnId column) const {
    switch (column) {
        case ColumnId::kIds:
            return ids_.array.get();
        case ColumnId::kRoots:
            return roots_.array.get();
        case ColumnId::kOffsets:
            return offsets_.array.get();
        case ColumnId::kPoints:
            return points_.array.get();
        case ColumnId::kWidths:
            return widths_.array.get();
    }
    return nullptr;
}

bool StrandSet::isOwned(ColumnId column) const {
    std::lock_guard guard(columnLock_);
    switch (column) {
        case ColumnId::kIds:
            return ids_.owned;
        case ColumnId::kRoots:
            return roots_.owned;
        case ColumnId::kOffsets:
            return offsets_.owned;
        case ColumnId::kPoints:
            return points_.owned;
        case ColumnId::kWidths:
            return widths_.owned;
    }
    return false;
}

bool StrandSet::ownsStrandChannel(std::string_view name) const {
    std::lock_guard guard(columnLock_);
    auto it = strandChannels_.find(name);
    return it != strandChannels_.end() && it->second.column.owned;
}

bool StrandSet::ownsPointChannel(std::string_view name) const {
    std::lock_guard guard(columnLock_);
    auto it = pointChannels_.find(name);
    return it != pointChannels_.end() && it->second.column.owned;
}

// ---- Moving columns between sets

template <class T>
void StrandSet::moveArray(Column<T>& column, Column<T>& from, StrandSet& sourceSet) {
    dropCachedExtents();
    sourceSet.dropCachedExtents();
    ArrayPtr<T> taken;
    {
        std::lock_guard guard(sourceSet.columnLock_);
        if (from.array.use_count() == 1) {
            taken = std::exchange(from.array, emptyArray<T>());
            from.owned = false;
        }
    }
    if (taken) {
        replaceArray(column, std::move(taken), true);
        movedColumns.fetch_add(1, std::memory_order_relaxed);
    } else {
        replaceArray(column, ArrayPool<T>::instance().makeCopy(*from.array), true);
    }
}

void StrandSet::moveColumnFrom(ColumnId column, StrandSet& source) {
    if (&source == this) return;
    switch (column) {
        case ColumnId::kIds:
            moveArray(ids_, source.ids_, source);
            break;
        case ColumnId::kRoots:
            moveArray(roots_, source.roots_, source);
            break;
        case ColumnId::kOffsets:
            moveArray(offsets_, source.offsets_, source);
            break;
        case ColumnId::kPoints:
            moveArray(points_, source.points_, source);
            break;
        case ColumnId::kWidths:
            moveArray(widths_, source.widths_, source);
            break;
    }
}

template <class T>
void StrandSet::shareArray(Column<T>& column, const Column<T>& source, const StrandSet& sourceSet) {
    ArrayPtr<T> shared;
    {
        std::lock_guard guard(sourceSet.columnLock_);
        shared = source.array;
        // Both sides hold the array now, so neither may write in place.
        source.owned = false;
    }
    dropCachedExtents();
    std::lock_guard guard(columnLock_);
    column.array = std::move(shared);
    column.owned = false;
}

void StrandSet::shareColumnFrom(ColumnId column, const StrandSet& source) {
    if (&source == this) return;
    switch (column) {
        case ColumnId::kIds:
            shareArray(ids_, source.ids_, source);
            break;
        case ColumnId::kRoots:
            shareArray(roots_, source.roots_, source);
            break;
        case ColumnId::kOffsets:
            shareArray(offsets_, source.offsets_, source);
            break;
        case ColumnId::kPoints:
            shareArray(points_, source.points_, source);
            break;
        case ColumnId::kWidths:
            shareArray(widths_, source.widths_, source);
            break;
    }
}

bool StrandSet::moveStrandChannelFrom(const std::string& name, StrandSet& source) {
    return moveChannelFrom(&StrandSet::strandChannels_, name, source);
}

bool StrandSet::movePointChannelFrom(const std::string& name, StrandSet& source) {
    return moveChannelFrom(&StrandSet::pointChannels_, name, source);
}

bool StrandSet::moveChannelFrom(ChannelMap StrandSet::*channels, const std::string& name,
                                StrandSet& source) {
    auto from = (source.*channels).find(name);
    if (from == (source.*channels).end()) return false;
    if (&source == this) return true;
    auto it = (this->*channels).find(name);
    if (it == (this->*channels).end()) {
        std::lock_guard guard(columnLock_);
        it = (this->*channels).emplace(name, Channel{{emptyArray<float>()}, 0.0f}).first;
    }
    it->second.defaultValue = from->second.defaultValue;
    moveArray(it->second.column, from->second.column, source);
    return true;
}

bool StrandSet::shareStrandChannelFrom(const std::string& name, const StrandSet& source) {
    return shareChannelFrom(&StrandSet::strandChannels_, name, source);
}

bool StrandSet::sharePointChannelFrom(const std::string& name, const StrandSet& source) {
    return shareChannelFrom(&StrandSet::pointChannels_, name, source);
}

bool StrandSet::shareChannelFrom(ChannelMap StrandSet::*channels, const std::string& name,
                                 const StrandSet& source) {
    if (&source == this) return (this->*channels).contains(name);
    Channel shared;
    {
        std::lock_guard guard(source.columnLock_);
        const auto from = (source.*channels).find(name);
        if (from == (source.*channels).end()) return false;
        shared = from->second;
        // Both sides hold the array now, so neither may write in place.
        from->second.column.owned = false;
    }
    shared.column.owned = false;
    dropCachedExtents();
    std::lock_guard guard(columnLock_);
    (this->*channels)[name] = std::move(shared);
    return true;
}

std::uint64_t StrandSet::movedColumnCount() {
    return movedColumns.load();
}

}  // namespace velmorin
