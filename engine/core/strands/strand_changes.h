#pragma once
// The note that goes with an incrementally evaluated strand set: which strands differ from the
// previous result, so that the next operator (and the viewport) can redo only those.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmorin {

class StrandSet;

// Shared as a pointer to const; a null pointer means the same as `all`.
struct StrandChanges {
    bool all = true;  // every strand may have changed
    // When `all` is false: indices of the strands that changed, ascending, no repeats.
    std::vector<std::uint64_t> strands;
    // Strand and point counts, ids, offsets, roots and channel names equal those of the previous
    // set.
    bool sameLayout = false;
    // The attachment is not the previous set's; no operator may update incrementally from these
    // changes.
    bool attachmentChanged = false;

    // Which columns the listed strands may differ in, so that an operator that reads none of them
    // can keep its previous result: a colour change moves no point, and what only depends on
    // points keeps its own columns. A note that cannot tell leaves every column named (the
    // defaults). `channels` holds the channel names (strand or point) that may differ when
    // `allChannels` is false.
    bool pointsChanged = true;
    bool widthsChanged = true;
    bool allChannels = true;
    std::vector<std::string> channels;

    bool channelMayDiffer(std::string_view name) const;
    // Whether nothing but channels may differ, and of those only ones `reads` does not name: an
    // operator reading only its points, widths and the channels `reads` names sees no change.
    bool onlyOtherChannels(std::span<const std::string_view> reads) const;
    // Names `name` among the channels that may differ (a no-op when all may).
    void addChannel(std::string_view name);
};

// The strands of `next` that differ from `previous` in any raw value of their points, widths or
// channels. Null (everything changed) when either set is null or when they differ in layout: strand
// or point count, attachment lists, channel names or defaults, offsets, ids, roots or the length of
// widths. A non-null answer has sameLayout set and names the columns in which some strand differs.
// Columns the two sets share are not compared, so a set derived from `previous` costs only what it
// rewrote. The answer never depends on the thread count.
std::shared_ptr<const StrandChanges> strandDifference(
    const std::shared_ptr<const StrandSet>& previous, const std::shared_ptr<const StrandSet>& next);

}  // namespace velmorin
