#pragma once
// Strand data: the hair itself. A StrandSet is the value that runs along the node graph, that
// operators read and derive, and that the session hands to the viewport and the exporters. It is a
// structure of arrays: one entry per strand (ids, roots, offsets), one entry per point (points,
// widths), plus named float channels on either level. A graph evaluation makes many sets that
// differ from one another in a few columns, so every column is a shared, reference-counted array
// that a set owns only from its first write to it: deriving a set copies a handful of pointers,
// not the hair. Sets travel between subsystems as shared pointers to const and are never written
// once handed on.

#include "base/vec3.h"
#include "strands/array_pool.h"
#include "strands/strand_root.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmorin {

// The five fixed columns of a set, for the operations that name a column.
enum class ColumnId { kIds, kRoots, kOffsets, kPoints, kWidths };

// Thread safety: any number of threads may read a set, copy it and call bounds() at once. Writing
// (every non-const member) is for the one thread that made the set, before it hands the set on.
// Column promotion is locked, so a copy taken meanwhile sees whole column pointers, but values
// written through a write accessor are not for other threads until the set is handed on.
class StrandSet {
  public:
    // The extent of one block of strands or of a whole set. An extent of nothing has min above max.
    struct Extent {
        Vec3f min{3.4028235e38f, 3.4028235e38f, 3.4028235e38f};
        Vec3f max{-3.4028235e38f, -3.4028235e38f, -3.4028235e38f};
        float longest = 0.0f;  // greatest polyline length of any strand
        bool finite = true;    // false once any coordinate is NaN or infinite; min and max skip it

        bool operator==(const Extent&) const = default;
    };

    // A column: the shared array and whether this set alone may write to it.
    template <class T>
    struct Column {
        ArrayPtr<T> array;
        // Mutable because copying a set, a const operation on the source, makes the source share
        // its columns again.
        mutable bool owned = false;
    };

    // A named float column plus the value that a new strand or point takes.
    struct Channel {
        Column<float> column;
        float defaultValue = 0.0f;
    };

    // Where one strand's points lie in the point columns (points, widths, point channels).
    struct PointRange {
        std::size_t begin = 0;
        std::size_t count = 0;
    };

    // Strands are grouped in blocks of this many for the cached extents.
    static constexpr std::size_t kBlockStrands = 2048;
    static constexpr std::size_t kAttachmentListCount = 2;

    // An empty set: no strands, offsets holding the single 0. Makes no allocation.
    StrandSet();
    // Copies are shallow: the copy shares every column, every channel and the cached extents with
    // the source, and afterwards neither owns any column, so the first write on either side
    // copies that one column only.
    StrandSet(const StrandSet& other);
    StrandSet& operator=(const StrandSet& other);
    // Moves take the columns with their owned flags and leave `other` an empty set.
    StrandSet(StrandSet&& other) noexcept;
    StrandSet& operator=(StrandSet&& other) noexcept;
    ~StrandSet();

    std::size_t strandCount() const { return ids_.array->size(); }
    std::size_t pointCount() const { return points_.array->size(); }

    // Read access never copies and never drops the cached extents. A span stays valid until the
    // column is next written through this set or the set is destroyed.
    std::span<const std::uint64_t> ids() const { return *ids_.array; }
    std::span<const StrandRoot> roots() const { return *roots_.array; }
    // strandCount + 1 entries: strand i owns points offsets[i] to offsets[i + 1] - 1.
    std::span<const std::uint64_t> offsets() const { return *offsets_.array; }
    std::span<const Vec3f> points() const { return *points_.array; }
    std::span<const float> widths() const { return *widths_.array; }

    // The one way to reach a strand's points: strand < strandCount.
    PointRange pointRange(std::size_t strand) const;
    std::span<const Vec3f> strandPoints(std::size_t strand) const;

    // Write access. Each call un-shares its column (copying it only when another set still holds
    // it) and drops the cached extents; it is the only path that does either, so call it before
    // writing, and call it again after any other mutation of the set.
    std::vector<std::uint64_t>& writeIds();
    std::vector<StrandRoot>& writeRoots();
    std::vector<std::uint64_t>& writeOffsets();
    std::vector<Vec3f>& writePoints();
    std::vector<float>& writeWidths();
    // Write access for a caller that writes every value: the column is un-shared without copying
    // (a column another set holds gives way to a fresh array of the same length, its values
    // unspecified) and the cached extents are dropped.
    std::vector<Vec3f>& overwritePoints();
    std::vector<float>& overwriteWidths();
    // The same for a maker that writes `length` values: an array of another length, or one that
    // another set holds, gives way to a fresh one of `length` (a pooled one where the pool kept
    // one that fits), so that neither a copy nor a zeroed reallocation is made.
    std::vector<Vec3f>& overwritePoints(std::size_t length);
    std::vector<float>& overwriteWidths(std::size_t length);

    // A channel's values, or null when the set has no channel of that name.
    const std::vector<float>* strandChannel(std::string_view name) const;
    const std::vector<float>* pointChannel(std::string_view name) const;
    // A channel's default, or 0 when the set has no channel of that name.
    float channelDefault(std::string_view name) const;
    float pointChannelDefault(std::string_view name) const;
    // The channel's values for writing, made if absent and filled with `defaultValue` (one per
    // strand or per point). An existing channel keeps its values and default and is un-shared, as
    // by the column write accessors.
    std::vector<float>& addStrandChannel(const std::string& name, float defaultValue);
    std::vector<float>& addPointChannel(const std::string& name, float defaultValue);
    // Channel names in map (byte) order.
    std::vector<std::string> strandChannelNames() const;
    std::vector<std::string> pointChannelNames() const;
    // True when the channel existed.
    bool removeStrandChannel(std::string_view name);
    bool removePointChannel(std::string_view name);

    // Appends one strand and returns its index. `widths` is empty (every point gets width 1) or
    // has one entry per point; otherwise throws std::invalid_argument before the set changes.
    // Each channel gets its default for the new strand or its new points.
    std::size_t addStrand(std::uint64_t id, StrandRoot root, std::span<const Vec3f> points,
                          std::span<const float> widths = {});
    // Appends all strands of `other`, merging channels by name: a channel of this set that
    // `other` lacks is extended with its default; a channel only `other` has is made with
    // `other`'s default for the old strands; a point channel of this set that `other` has only as
    // a strand channel takes that strand value on each of the strand's points.
    void append(const StrandSet& other);
    // Empties every column and channel, keeping the channel names and defaults, and drops the
    // attachments.
    void clear();
    // Sizes the five columns for a maker that writes every element next: `strandCount` ids and
    // roots, strandCount + 1 offsets, `pointCount` points and widths, all unspecified and owned by
    // this set. A large column reuses an array of that length that the pool kept, which saves
    // the page faults and zeroing of fresh memory. The set must have no channels.
    void resizeForOverwrite(std::size_t strandCount, std::size_t pointCount);

    // Makes `out` (which may be this set) of the listed strands in the listed order, with their
    // ids, roots, channels and the attachments. Throws std::invalid_argument for an index at or
    // past strandCount, before `out` changes.
    void subset(std::span<const std::uint64_t> indices, StrandSet& out) const;
    // Makes `out` of the strands with density > unitFloat(id): the choice rests on the id alone,
    // so a lower density keeps a subset of a higher one, on every frame.
    void thinned(double density, StrandSet& out) const;

    // The whole-set extent, cached on first demand; safe to call from several threads at once.
    Extent bounds() const;
    // The same as bounds(), reusing the block extents of `previous` (a set of the same strand and
    // point counts whose extents are cached) and recomputing only the blocks that hold one of
    // `changedStrands`. Falls back on bounds() when the cache of `previous` cannot be used.
    Extent boundsAfter(const StrandSet& previous,
                       std::span<const std::uint64_t> changedStrands) const;

    // A hash of everything a result can depend on: ids, offsets, roots, points, widths and the
    // channels with their names. Strand order counts.
    std::uint64_t contentHash() const;

    // Calls visit(data, bytes) for every non-empty array: ids, roots, offsets, points, widths,
    // then strand channels, then point channels, in name order. Shared arrays give equal pointers.
    void forEachColumn(
        const std::function<void(const void* pointer, std::size_t bytes)>& visit) const;

    // Checks the invariants of a set in a fixed order. The first broken one puts its message in
    // `message` and returns false; `message` is untouched when the set is valid.
    bool validate(std::string& message) const;

    // A payload that rides with the strands; only its identity counts.
    const std::shared_ptr<const void>& attachment() const { return attachment_; }
    void setAttachment(std::shared_ptr<const void> attachment) {
        attachment_ = std::move(attachment);
    }
    // Two further lists of payloads (list < kAttachmentListCount); only identity and order count.
    const std::vector<std::shared_ptr<const void>>& attachmentList(std::size_t list) const;
    std::vector<std::shared_ptr<const void>>& writeAttachmentList(std::size_t list);

    // The shared array behind a column. Two sets share the column when these are equal; a
    // channel's identity is the pointer that strandChannel or pointChannel returns.
    const void* columnData(ColumnId column) const;
    // Whether this set alone may write the column, so that writing to it copies nothing.
    bool isOwned(ColumnId column) const;
    bool ownsStrandChannel(std::string_view name) const;
    bool ownsPointChannel(std::string_view name) const;

    // Take a column over from `source`. When `source` is the array's only holder the array moves
    // and `source` is left with an empty one (counted by movedColumnCount); otherwise it is
    // copied and `source` is unchanged. Both sets drop their cached extents. A channel that
    // `source` lacks is not taken, and the call returns false.
    void moveColumnFrom(ColumnId column, StrandSet& source);
    bool moveStrandChannelFrom(const std::string& name, StrandSet& source);
    bool movePointChannelFrom(const std::string& name, StrandSet& source);
    // Take a column of `source` as a shallow copy takes it: both sets hold the one array and
    // neither owns it, so that nothing is copied until one of them writes to it. Drops the cached
    // extents of this set.
    void shareColumnFrom(ColumnId column, const StrandSet& source);
    // Take a channel of `source` as a shallow copy takes it: both sets hold the one array and
    // neither owns it, so that nothing is copied until one of them writes to it. Replaces a
    // channel of that name at the same level. False, changing nothing, when `source` lacks it.
    bool shareStrandChannelFrom(const std::string& name, const StrandSet& source);
    bool sharePointChannelFrom(const std::string& name, const StrandSet& source);
    // How many arrays the move operations have moved rather than copied, process-wide.
    static std::uint64_t movedColumnCount();

  private:
    using ChannelMap = std::map<std::string, Channel, std::less<>>;

    // Drops both extent caches; every mutation goes through here.
    void dropCachedExtents();
    void storeExtents(const Extent& whole, std::shared_ptr<const std::vector<Extent>> blocks) const;
    // Makes the column this set's own (copy-on-write) and returns its array.
    template <class T>
    std::vector<T>& promote(Column<T>& column);
    // Makes the column this set's own at its length without keeping its values.
    template <class T>
    std::vector<T>& promoteForOverwrite(Column<T>& column, std::size_t length);
    // Makes the column this set's own at `length` elements, keeping its values in front; the
    // elements past the old length are unspecified. Copies at most once.
    template <class T>
    T* extend(Column<T>& column, std::size_t length);
    template <class T>
    void replaceArray(Column<T>& column, ArrayPtr<T> array, bool owned);
    template <class T>
    void moveArray(Column<T>& column, Column<T>& source, StrandSet& sourceSet);
    template <class T>
    void shareArray(Column<T>& column, const Column<T>& source, const StrandSet& sourceSet);
    template <class T>
    void appendValues(Column<T>& column, std::span<const T> values);
    // The channel half of the move-a-column operations, for either channel map.
    bool moveChannelFrom(ChannelMap StrandSet::*channels, const std::string& name,
                         StrandSet& source);
    bool shareChannelFrom(ChannelMap StrandSet::*channels, const std::string& name,
                          const StrandSet& source);
    void mergeChannels(const StrandSet& other, std::size_t oldStrands, std::size_t oldPoints);
    // Builds `out` from the strands listed in `indices` (all below strandCount); the index array
    // becomes the new set's ids column.
    void gather(ArrayPtr<std::uint64_t> indices, StrandSet& out) const;

    mutable std::mutex extentLock_;  // guards the three cache members below
    mutable std::shared_ptr<const Extent> boundsCache_;
    mutable std::shared_ptr<const std::vector<Extent>> blockExtentsCache_;  // one per block
    mutable bool cacheValid_ = false;

    Column<std::uint64_t> ids_;
    Column<StrandRoot> roots_;
    Column<std::uint64_t> offsets_;
    Column<Vec3f> points_;
    Column<float> widths_;
    ChannelMap strandChannels_;
    ChannelMap pointChannels_;

    std::shared_ptr<const void> attachment_;
    std::array<std::vector<std::shared_ptr<const void>>, kAttachmentListCount> attachmentLists_;

    // Guards the owned flags and column pointers while a column is promoted, so that a copy made
    // on another thread sees either the old array or the new one.
    mutable std::mutex columnLock_;
};

}  // namespace velmorin
