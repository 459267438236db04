#include "strands/strand_set.h"

#include "base/hash.h"
#include "base/parallel.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <utility>

// The extent kernels use SSE where the target has it (every x86-64 target does) and plain floats
// elsewhere; both give the same bits.
#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <xmmintrin.h>
#define VELMORIN_STRANDS_SSE 1
#else
#define VELMORIN_STRANDS_SSE 0
#endif

namespace velmorin {
namespace {

using Extent = StrandSet::Extent;

constexpr std::size_t kThinningGrain = 256;
constexpr std::size_t kGatherGrain = 256;

std::atomic<std::uint64_t> movedColumns{0};

// Empty sets share these arrays, so making one allocates nothing. They are never written: a set
// holding one does not own it and the static's own reference keeps the holder count above one, so
// the first write copies.
template <class T>
const ArrayPtr<T>& emptyArray() {
    static const ArrayPtr<T> array = std::make_shared<std::vector<T>>();
    return array;
}

const ArrayPtr<std::uint64_t>& zeroOffsets() {
    static const ArrayPtr<std::uint64_t> array = std::make_shared<std::vector<std::uint64_t>>(1, 0);
    return array;
}

static_assert(StrandSet::kBlockStrands == std::size_t{1} << 11, "a strand's block is strand >> 11");

std::size_t blockCountFor(std::size_t strands) {
    return (strands + StrandSet::kBlockStrands - 1) >> 11;
}

// Comparisons with a NaN are false, so these keep the old value when `value` is NaN.
float lesser(float value, float current) {
    return value < current ? value : current;
}
float greater(float value, float current) {
    return value > current ? value : current;
}

void include(Extent& into, const Extent& block) {
    into.min = {lesser(block.min.x, into.min.x), lesser(block.min.y, into.min.y),
                lesser(block.min.z, into.min.z)};
    into.max = {greater(block.max.x, into.max.x), greater(block.max.y, into.max.y),
                greater(block.max.z, into.max.z)};
    into.longest = greater(block.longest, into.longest);
    into.finite = into.finite && block.finite;
}

Extent mergeBlocks(const std::vector<Extent>& blocks) {
    Extent whole;
    for (const Extent& block : blocks)
        include(whole, block);
    return whole;
}

// Smallest and largest coordinates of points [begin, end) and the sum of x - x + y - y + z - z
// over them, which is exactly 0 unless a coordinate is NaN or infinite. The results go into
// twelve lanes, lane j holding axis j % 3, so that four points are taken at a time.
struct PointScan {
    float lo[12];
    float hi[12];
    float check[12];
};

PointScan scanPoints(const Vec3f* points, std::size_t begin, std::size_t end) {
    PointScan scan;
    const Extent initial;
    std::size_t p = begin;
#if VELMORIN_STRANDS_SSE
    // Four points are three registers: x0 y0 z0 x1 | y1 z1 x2 y2 | z2 x3 y3 z3. minps and maxps
    // return their second operand when either is NaN, so a NaN never enters the running values.
    __m128 lo[3], hi[3], check[3];
    for (int j = 0; j < 3; ++j) {
        lo[j] = _mm_set1_ps(initial.min.x);
        hi[j] = _mm_set1_ps(initial.max.x);
        check[j] = _mm_setzero_ps();
    }
    for (; p + 4 <= end; p += 4) {
        const __m128 v[3] = {_mm_loadu_ps(&points[p].x), _mm_loadu_ps(&points[p + 1].y),
                             _mm_loadu_ps(&points[p + 2].z)};
        for (int j = 0; j < 3; ++j) {
            lo[j] = _mm_min_ps(v[j], lo[j]);
            hi[j] = _mm_max_ps(v[j], hi[j]);
            check[j] = _mm_add_ps(check[j], _mm_sub_ps(v[j], v[j]));
        }
    }
    for (int j = 0; j < 3; ++j) {
        _mm_storeu_ps(scan.lo + 4 * j, lo[j]);
        _mm_storeu_ps(scan.hi + 4 * j, hi[j]);
        _mm_storeu_ps(scan.check + 4 * j, check[j]);
    }
#else
    for (int j = 0; j < 12; ++j) {
        scan.lo[j] = initial.min.x;
        scan.hi[j] = initial.max.x;
        scan.check[j] = 0.0f;
    }
#endif
    for (; p < end; ++p) {
        const float f[3] = {points[p].x, points[p].y, points[p].z};
        for (int j = 0; j < 3; ++j) {
            scan.lo[j] = lesser(f[j], scan.lo[j]);
            scan.hi[j] = greater(f[j], scan.hi[j]);
            scan.check[j] += f[j] - f[j];
        }
    }
    return scan;
}

#if VELMORIN_STRANDS_SSE
// Four consecutive points starting at `p` as x0..x3, y0..y3, z0..z3.
void loadTransposed(const Vec3f* points, std::size_t p, __m128& x, __m128& y, __m128& z) {
    const __m128 a = _mm_loadu_ps(&points[p].x);                      // x0 y0 z0 x1
    const __m128 b = _mm_loadu_ps(&points[p + 1].y);                  // y1 z1 x2 y2
    const __m128 c = _mm_loadu_ps(&points[p + 2].z);                  // z2 x3 y3 z3
    const __m128 xy = _mm_shuffle_ps(b, c, _MM_SHUFFLE(2, 1, 3, 2));  // x2 y2 x3 y3
    const __m128 yz = _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
    x = _mm_shuffle_ps(a, xy, _MM_SHUFFLE(2, 0, 3, 0));
    y = _mm_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));
    z = _mm_shuffle_ps(yz, c, _MM_SHUFFLE(3, 0, 3, 1));
}
#endif

// out[k - begin] = |points[k + 1] - points[k]| for k in [begin, end), computed as
// sqrt(dot(d, d)) in float with the same operations in the same order on every path.
void segmentLengths(const Vec3f* points, std::size_t begin, std::size_t end, float* out) {
    std::size_t k = begin;
#if VELMORIN_STRANDS_SSE
    for (; k + 4 <= end; k += 4) {
        __m128 x0, y0, z0, x1, y1, z1;
        loadTransposed(points, k, x0, y0, z0);
        loadTransposed(points, k + 1, x1, y1, z1);
        const __m128 dx = _mm_sub_ps(x1, x0);
        const __m128 dy = _mm_sub_ps(y1, y0);
        const __m128 dz = _mm_sub_ps(z1, z0);
        const __m128 squared =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        _mm_storeu_ps(out + (k - begin), _mm_sqrt_ps(squared));
    }
#endif
    for (; k < end; ++k) {
        const Vec3f d = points[k + 1] - points[k];
        out[k - begin] = std::sqrt(dot(d, d));
    }
}

// The extent of block `block`: one flat pass over its points for min, max and the finite check,
// then the polyline lengths strand by strand from segment lengths computed a window at a time
// (the block's points are still in cache by then).
Extent blockExtent(std::span<const std::uint64_t> offsets, std::span<const Vec3f> points,
                   std::size_t block) {
    const std::size_t strandCount = offsets.size() - 1;
    const std::size_t first = block * StrandSet::kBlockStrands;
    const std::size_t end = std::min(first + StrandSet::kBlockStrands, strandCount);
    const std::size_t pointBegin = offsets[first];
    const std::size_t pointEnd = offsets[end];
    assert(pointBegin <= pointEnd && pointEnd <= points.size());

    const PointScan scan = scanPoints(points.data(), pointBegin, pointEnd);
    Extent extent;
    float sum = 0.0f;
    for (int j = 0; j < 12; ++j) {
        float* axisMin = j % 3 == 0 ? &extent.min.x : j % 3 == 1 ? &extent.min.y : &extent.min.z;
        float* axisMax = j % 3 == 0 ? &extent.max.x : j % 3 == 1 ? &extent.max.y : &extent.max.z;
        *axisMin = lesser(scan.lo[j], *axisMin);
        *axisMax = greater(scan.hi[j], *axisMax);
        sum += scan.check[j];
    }
    extent.finite = sum == 0.0f;

    // Segments that cross from one strand to the next are computed with the rest and never used.
    constexpr std::size_t kWindow = 256;
    float segments[kWindow];
    std::size_t windowBegin = pointBegin;
    std::size_t windowEnd = pointBegin;
    const std::size_t lastSegmentEnd = pointEnd > pointBegin ? pointEnd - 1 : pointBegin;
    for (std::size_t s = first; s < end; ++s) {
        float length = 0.0f;
        const std::size_t stop = offsets[s + 1];
        for (std::size_t k = offsets[s]; k + 1 < stop; ++k) {
            if (k >= windowEnd) {
                windowBegin = k;
                windowEnd = std::min(k + kWindow, lastSegmentEnd);
                segmentLengths(points.data(), windowBegin, windowEnd, segments);
            }
            length += segments[k - windowBegin];
        }
        extent.longest = greater(length, extent.longest);
    }
    return extent;
}

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

// ---- Copy on write

template <class T>
void StrandSet::replaceArray(Column<T>& column, ArrayPtr<T> array, bool owned) {
    {
        std::lock_guard guard(columnLock_);
        column.array.swap(array);
        column.owned = owned;
    }
    // `array` now holds the old one. Letting it go may hand it to the pool, whose lock is never
    // taken inside the column lock.
}

template <class T>
std::vector<T>& StrandSet::promote(Column<T>& column) {
    {
        std::lock_guard guard(columnLock_);
        if (column.owned) return *column.array;
        if (column.array.use_count() == 1) {
            column.owned = true;
            return *column.array;
        }
    }
    replaceArray(column, ArrayPool<T>::instance().makeCopy(*column.array), true);
    return *column.array;
}

template <class T>
T* StrandSet::extend(Column<T>& column, std::size_t length) {
    bool shared;
    {
        std::lock_guard guard(columnLock_);
        shared = !column.owned && column.array.use_count() > 1;
        if (!shared) column.owned = true;
    }
    if (shared) {
        // One new array of the final length: promoting and then growing would copy twice.
        ArrayPtr<T> grown = ArrayPool<T>::instance().makeForOverwrite(length);
        const std::vector<T>& old = *column.array;
        std::copy_n(old.begin(), std::min(old.size(), length), grown->begin());
        replaceArray(column, std::move(grown), true);
    } else {
        column.array->resize(length);
    }
    return column.array->data();
}

template <class T>
void StrandSet::appendValues(Column<T>& column, std::span<const T> values) {
    const std::size_t old = column.array->size();
    T* to = extend(column, old + values.size());
    std::copy(values.begin(), values.end(), to + old);
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

// ---- Extents

void StrandSet::storeExtents(const Extent& whole,
                             std::shared_ptr<const std::vector<Extent>> blocks) const {
    auto wholeCopy = std::make_shared<const Extent>(whole);
    std::lock_guard guard(extentLock_);
    if (cacheValid_) return;
    boundsCache_ = std::move(wholeCopy);
    blockExtentsCache_ = std::move(blocks);
    cacheValid_ = true;
}

StrandSet::Extent StrandSet::bounds() const {
    {
        std::lock_guard guard(extentLock_);
        if (cacheValid_) return *boundsCache_;
    }
    // Computed outside the lock: while the loop waits for its chunks, this thread may run other
    // tasks, and one of them may ask for these same bounds. Two threads that both compute them
    // get the same values, and the first to finish stores them.
    const std::size_t blockCount = blockCountFor(strandCount());
    auto blocks = std::make_shared<std::vector<Extent>>(blockCount);
    const std::span<const std::uint64_t> offsetsFrom = offsets();
    const std::span<const Vec3f> pointsFrom = points();
    parallelRange(0, blockCount, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b)
            (*blocks)[b] = blockExtent(offsetsFrom, pointsFrom, b);
    });
    const Extent whole = mergeBlocks(*blocks);
    storeExtents(whole, std::move(blocks));
    return whole;
}

StrandSet::Extent StrandSet::boundsAfter(const StrandSet& previous,
                                         std::span<const std::uint64_t> changedStrands) const {
    {
        std::lock_guard guard(extentLock_);
        if (cacheValid_) return *boundsCache_;
    }
    std::shared_ptr<const std::vector<Extent>> reused;
    {
        std::lock_guard guard(previous.extentLock_);
        if (previous.cacheValid_) reused = previous.blockExtentsCache_;
    }
    const std::size_t blockCount = blockCountFor(strandCount());
    if (!reused || reused->size() != blockCount || previous.strandCount() != strandCount() ||
        previous.pointCount() != pointCount())
        return bounds();

    std::vector<unsigned char> dirty(blockCount);
    std::vector<std::size_t> recompute;
    for (std::uint64_t strand : changedStrands) {
        const std::uint64_t block = strand >> 11;
        if (block < blockCount && !dirty[block]) {
            dirty[block] = 1;
            recompute.push_back(block);
        }
    }
    auto blocks = std::make_shared<std::vector<Extent>>(*reused);
    const std::span<const std::uint64_t> offsetsFrom = offsets();
    const std::span<const Vec3f> pointsFrom = points();
    parallelRange(0, recompute.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k)
            (*blocks)[recompute[k]] = blockExtent(offsetsFrom, pointsFrom, recompute[k]);
    });
    const Extent whole = mergeBlocks(*blocks);
    storeExtents(whole, std::move(blocks));
    return whole;
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

std::uint64_t StrandSet::movedColumnCount() {
    return movedColumns.load();
}

}  // namespace velmorin
