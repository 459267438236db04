#include "strands/strand_set.h"

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/test_strands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

namespace velmorin {
namespace {

using test::expectSameBits;
using test::randomStrands;

constexpr ColumnId kAllColumns[] = {ColumnId::kIds, ColumnId::kRoots, ColumnId::kOffsets,
                                    ColumnId::kPoints, ColumnId::kWidths};

std::vector<float> values(const std::vector<float>* array) {
    return array ? *array : std::vector<float>{};
}

// Strand `strand` of `set` as plain values, for comparing strands across sets.
struct StrandValues {
    std::uint64_t id;
    StrandRoot root;
    std::vector<Vec3f> points;
    std::vector<float> widths;
    float mass;
    std::vector<float> curl;
    bool operator==(const StrandValues&) const = default;
};

StrandValues strandValues(const StrandSet& set, std::size_t strand) {
    const StrandSet::PointRange range = set.pointRange(strand);
    const auto span = [&](const std::vector<float>& all) {
        return std::vector<float>(all.begin() + range.begin,
                                  all.begin() + range.begin + range.count);
    };
    const std::span<const Vec3f> points = set.strandPoints(strand);
    return {set.ids()[strand],
            set.roots()[strand],
            {points.begin(), points.end()},
            span({set.widths().begin(), set.widths().end()}),
            (*set.strandChannel("mass"))[strand],
            span(*set.pointChannel("curl"))};
}

std::string validationMessage(const StrandSet& set) {
    std::string message = "valid";
    set.validate(message);
    return message;
}

TEST(StrandSet, EmptySetHasOneOffsetIsValidAndHasAnInvertedExtent) {
    const StrandSet set;
    EXPECT_EQ(set.strandCount(), 0u);
    EXPECT_EQ(set.pointCount(), 0u);
    ASSERT_EQ(set.offsets().size(), 1u);
    EXPECT_EQ(set.offsets()[0], 0u);
    EXPECT_EQ(validationMessage(set), "valid");
    const StrandSet::Extent extent = set.bounds();
    EXPECT_GT(extent.min.x, extent.max.x);
    EXPECT_GT(extent.min.y, extent.max.y);
    EXPECT_GT(extent.min.z, extent.max.z);
    EXPECT_EQ(extent.longest, 0.0f);
    EXPECT_TRUE(extent.finite);
    std::vector<std::size_t> visited;  // only the offsets array has anything in it
    set.forEachColumn([&](const void*, std::size_t bytes) { visited.push_back(bytes); });
    EXPECT_EQ(visited, std::vector<std::size_t>{8});
}

TEST(StrandSet, AddStrandFillsEveryColumnAndGivesChannelsTheirDefaults) {
    StrandSet set;
    set.addStrandChannel("mass", 4.0f);
    set.addPointChannel("curl", -2.0f);
    const Vec3f a[] = {{0, 0, 0}, {0, 1, 0}, {0, 3, 0}};
    const float aWidths[] = {0.5f, 0.25f, 0.125f};
    const Vec3f b[] = {{1, 0, 0}, {2, 0, 0}};
    EXPECT_EQ(set.addStrand(11, {3, 0.25f, 0.5f}, a, aWidths), 0u);
    EXPECT_EQ(set.addStrand(12, {-1, 0, 0}, {}), 1u);  // a strand of no points is legal
    EXPECT_EQ(set.addStrand(13, {4, 0.1f, 0.2f}, b), 2u);

    EXPECT_EQ(validationMessage(set), "valid");
    EXPECT_EQ(std::vector<std::uint64_t>(set.ids().begin(), set.ids().end()),
              (std::vector<std::uint64_t>{11, 12, 13}));
    EXPECT_EQ(std::vector<std::uint64_t>(set.offsets().begin(), set.offsets().end()),
              (std::vector<std::uint64_t>{0, 3, 3, 5}));
    EXPECT_EQ(set.roots()[0], (StrandRoot{3, 0.25f, 0.5f}));
    EXPECT_EQ(std::vector<float>(set.widths().begin(), set.widths().end()),
              (std::vector<float>{0.5f, 0.25f, 0.125f, 1.0f, 1.0f}));
    EXPECT_EQ(values(set.strandChannel("mass")), (std::vector<float>(3, 4.0f)));
    EXPECT_EQ(values(set.pointChannel("curl")), (std::vector<float>(5, -2.0f)));
    EXPECT_EQ(set.strandPoints(1).size(), 0u);
    ASSERT_EQ(set.strandPoints(2).size(), 2u);
    EXPECT_EQ(set.strandPoints(2)[1], (Vec3f{2, 0, 0}));
    EXPECT_EQ(set.pointRange(2).begin, 3u);
    EXPECT_FLOAT_EQ(set.bounds().longest, 3.0f);

    // Points taken from the set itself survive the growth of the column they come from.
    set.addStrand(14, {}, set.strandPoints(0), std::span<const float>(set.widths()).first(3));
    EXPECT_EQ(std::vector<Vec3f>(set.strandPoints(3).begin(), set.strandPoints(3).end()),
              std::vector<Vec3f>(std::begin(a), std::end(a)));
    EXPECT_EQ(validationMessage(set), "valid");
}

TEST(StrandSet, AddStrandRejectsWidthsOfAnotherLengthBeforeChangingAnything) {
    StrandSet set = randomStrands(20, 3);
    const std::uint64_t hash = set.contentHash();
    const Vec3f points[] = {{0, 0, 0}, {1, 1, 1}};
    const float oneWidth[] = {0.5f};
    const float threeWidths[] = {0.5f, 0.5f, 0.5f};
    for (std::span<const float> widths :
         {std::span<const float>(oneWidth), std::span<const float>(threeWidths)}) {
        try {
            set.addStrand(99, {}, points, widths);
            ADD_FAILURE() << "no exception";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(),
                         "StrandSet::addStrand: widths must be empty or match points");
        }
    }
    EXPECT_EQ(set.strandCount(), 20u);
    EXPECT_EQ(set.contentHash(), hash);
    EXPECT_EQ(validationMessage(set), "valid");
}

TEST(StrandSet, ValidateReportsTheFirstBrokenRuleInOrder) {
    // A set that breaks every rule; each step mends the rule just reported and must reveal the
    // next.
    StrandSet set;
    set.writeIds() = {1, 2};
    set.writeRoots() = {StrandRoot{}};
    set.writeOffsets() = {5, 9, 2, 1};
    set.writePoints() = std::vector<Vec3f>(4);
    set.writeWidths() = std::vector<float>(3);
    set.addStrandChannel("a", 0) = {1, 2};
    set.addStrandChannel("b", 0) = {1};
    set.addPointChannel("p", 0) = {1, 2};
    std::string scratch;
    EXPECT_FALSE(set.validate(scratch));

    EXPECT_EQ(validationMessage(set), "offsets size must be strandCount + 1");
    set.writeOffsets() = {5, 9, 2};
    EXPECT_EQ(validationMessage(set), "roots size must equal strandCount");
    set.writeRoots().resize(2);
    EXPECT_EQ(validationMessage(set), "offsets must start at 0");
    set.writeOffsets() = {0, 9, 2};
    EXPECT_EQ(validationMessage(set), "last offset must equal pointCount");
    set.writeOffsets() = {0, 9, 4};
    EXPECT_EQ(validationMessage(set), "offsets must be non-decreasing");
    set.writeOffsets() = {0, 3, 4};
    EXPECT_EQ(validationMessage(set), "widths size must equal pointCount");
    set.writeWidths().resize(4);
    EXPECT_EQ(validationMessage(set), "strand channel 'b' has wrong size");
    set.addStrandChannel("b", 0).resize(2);
    EXPECT_EQ(validationMessage(set), "point channel 'p' has wrong size");
    set.addPointChannel("p", 0).resize(4);
    std::string message = "untouched";
    EXPECT_TRUE(set.validate(message));
    EXPECT_EQ(message, "untouched");
}

TEST(StrandSet, CopiesShareEveryColumnUntilOneIsWritten) {
    StrandSet original = randomStrands(50, 5);
    EXPECT_TRUE(original.isOwned(ColumnId::kWidths));
    const std::vector<float> widthsBefore(original.widths().begin(), original.widths().end());

    StrandSet copy = original;
    for (ColumnId column : kAllColumns) {
        EXPECT_EQ(copy.columnData(column), original.columnData(column));
        EXPECT_FALSE(copy.isOwned(column));
        EXPECT_FALSE(original.isOwned(column));  // shared now, so the original must copy too
    }
    EXPECT_EQ(copy.strandChannel("mass"), original.strandChannel("mass"));
    EXPECT_EQ(copy.pointChannel("curl"), original.pointChannel("curl"));

    copy.writeWidths()[0] = 7.0f;
    EXPECT_NE(copy.columnData(ColumnId::kWidths), original.columnData(ColumnId::kWidths));
    EXPECT_TRUE(copy.isOwned(ColumnId::kWidths));
    for (ColumnId column :
         {ColumnId::kIds, ColumnId::kRoots, ColumnId::kOffsets, ColumnId::kPoints}) {
        EXPECT_EQ(copy.columnData(column), original.columnData(column));
        EXPECT_FALSE(copy.isOwned(column));
        EXPECT_FALSE(original.isOwned(column));
    }
    EXPECT_EQ(copy.strandChannel("mass"), original.strandChannel("mass"));
    EXPECT_FALSE(original.isOwned(ColumnId::kWidths));
    EXPECT_EQ(std::vector<float>(original.widths().begin(), original.widths().end()), widthsBefore);
    EXPECT_EQ(copy.widths()[0], 7.0f);

    // The original is now the array's only holder: writing it takes it over without a copy.
    const void* widths = original.columnData(ColumnId::kWidths);
    original.writeWidths()[1] = 3.0f;
    EXPECT_EQ(original.columnData(ColumnId::kWidths), widths);
    EXPECT_TRUE(original.isOwned(ColumnId::kWidths));
    EXPECT_EQ(copy.widths()[1], widthsBefore[1]);
}

TEST(StrandSet, WritingTheSourceOfACopyLeavesTheCopyAlone) {
    StrandSet source = randomStrands(30, 6);
    EXPECT_TRUE(source.isOwned(ColumnId::kPoints));
    const StrandSet copy = source;
    const std::uint64_t copyHash = copy.contentHash();
    source.writePoints()[0] = {100, 100, 100};
    source.addStrandChannel("mass", 0)[0] = 100;
    source.addStrand(1, {}, source.strandPoints(2));
    EXPECT_EQ(copy.contentHash(), copyHash);
    EXPECT_EQ(copy.strandCount(), 30u);
    EXPECT_NE(copy.columnData(ColumnId::kPoints), source.columnData(ColumnId::kPoints));
    EXPECT_FALSE(copy.isOwned(ColumnId::kPoints));
}

TEST(StrandSet, ChannelsAreWrittenCopyOnWriteLikeColumns) {
    StrandSet original = randomStrands(40, 8);
    StrandSet copy = original;
    const std::vector<float> massBefore = values(original.strandChannel("mass"));

    std::vector<float>& mass =
        copy.addStrandChannel("mass", 123.0f);  // existing: keeps its default
    mass[0] = -9.0f;
    EXPECT_EQ(copy.channelDefault("mass"), 2.0f);
    EXPECT_TRUE(copy.ownsStrandChannel("mass"));
    EXPECT_FALSE(original.ownsStrandChannel("mass"));
    EXPECT_NE(copy.strandChannel("mass"), original.strandChannel("mass"));
    EXPECT_EQ(values(original.strandChannel("mass")), massBefore);
    EXPECT_EQ(copy.pointChannel("curl"), original.pointChannel("curl"));
    for (ColumnId column : kAllColumns)
        EXPECT_EQ(copy.columnData(column), original.columnData(column));
}

TEST(StrandSet, NewChannelsHoldTheirDefaultAndMissingOnesReadAsNothing) {
    StrandSet set = randomStrands(17, 9);
    EXPECT_EQ(set.addStrandChannel("region", 0.5f), std::vector<float>(17, 0.5f));
    EXPECT_EQ(set.addPointChannel("tubeU", -3.0f), std::vector<float>(set.pointCount(), -3.0f));
    EXPECT_EQ(set.channelDefault("region"), 0.5f);
    EXPECT_EQ(set.pointChannelDefault("tubeU"), -3.0f);
    EXPECT_EQ(set.strandChannel("missing"), nullptr);
    EXPECT_EQ(set.pointChannel("region"), nullptr);  // the two levels are separate
    EXPECT_EQ(set.channelDefault("missing"), 0.0f);
    EXPECT_EQ(set.pointChannelDefault("mass"), 0.0f);
    set.addStrandChannel("_preview", 1.0f);
    set.addStrandChannel("Zeta", 1.0f);
    EXPECT_EQ(set.strandChannelNames(),
              (std::vector<std::string>{"Zeta", "_preview", "mass", "region"}));
    EXPECT_EQ(set.pointChannelNames(), (std::vector<std::string>{"curl", "tubeU"}));
    EXPECT_TRUE(set.removeStrandChannel("_preview"));
    EXPECT_FALSE(set.removeStrandChannel("_preview"));
    EXPECT_FALSE(set.removePointChannel("mass"));
    EXPECT_TRUE(set.removePointChannel("tubeU"));
    EXPECT_EQ(set.strandChannelNames(), (std::vector<std::string>{"Zeta", "mass", "region"}));
    EXPECT_EQ(set.pointChannelNames(), std::vector<std::string>{"curl"});
    EXPECT_EQ(validationMessage(set), "valid");
}

TEST(StrandSet, ClearEmptiesDataKeepsChannelDefaultsAndDropsAttachments) {
    StrandSet set = randomStrands(25, 10);
    set.setAttachment(std::make_shared<int>(1));
    set.writeAttachmentList(1).push_back(std::make_shared<int>(2));
    const StrandSet before = set;
    set.clear();
    EXPECT_EQ(set.strandCount(), 0u);
    EXPECT_EQ(set.pointCount(), 0u);
    EXPECT_EQ(std::vector<std::uint64_t>(set.offsets().begin(), set.offsets().end()),
              std::vector<std::uint64_t>{0});
    EXPECT_EQ(set.strandChannelNames(), std::vector<std::string>{"mass"});
    EXPECT_EQ(set.channelDefault("mass"), 2.0f);
    EXPECT_EQ(set.pointChannelDefault("curl"), -1.0f);
    EXPECT_TRUE(set.strandChannel("mass")->empty());
    EXPECT_EQ(set.attachment(), nullptr);
    EXPECT_TRUE(set.attachmentList(1).empty());
    EXPECT_EQ(validationMessage(set), "valid");
    EXPECT_GT(set.bounds().min.x, set.bounds().max.x);
    EXPECT_EQ(before.strandCount(), 25u);  // a copy taken before is untouched
    EXPECT_NE(before.attachment(), nullptr);

    set.addStrand(5, {}, before.strandPoints(0));
    EXPECT_EQ(values(set.strandChannel("mass")), std::vector<float>{2.0f});
    EXPECT_EQ(validationMessage(set), "valid");
}

TEST(StrandSet, AppendAddsStrandsAndMergesChannelsByName) {
    StrandSet mine;
    mine.addStrandChannel("shared", 1.0f);
    mine.addStrandChannel("mineOnly", 2.0f);
    mine.addPointChannel("sharedPoint", 3.0f);
    mine.addPointChannel("fromStrand", 4.0f);
    mine.addPointChannel("minePoint", 5.0f);
    const Vec3f two[] = {{0, 0, 0}, {1, 0, 0}};
    const Vec3f three[] = {{0, 0, 1}, {0, 0, 2}, {0, 0, 3}};
    mine.addStrand(1, {1, 0, 0}, two);
    mine.addStrandChannel("shared", 1.0f)[0] = 10.0f;

    StrandSet theirs;
    theirs.addStrandChannel("shared", 9.0f);
    theirs.addStrandChannel("fromStrand", 6.0f);
    theirs.addStrandChannel("theirsOnly", 7.0f);
    theirs.addPointChannel("sharedPoint", 9.0f);
    theirs.addPointChannel("theirsPoint", 8.0f);
    theirs.addStrand(2, {2, 0, 0}, three);
    theirs.addStrand(3, {3, 0, 0}, two);
    theirs.addStrandChannel("shared", 0)[1] = 20.0f;
    theirs.addStrandChannel("fromStrand", 0) = {60.0f, 61.0f};
    theirs.addStrandChannel("theirsOnly", 0) = {70.0f, 71.0f};
    theirs.addPointChannel("mineOnly", 0.5f);  // a point channel never feeds a strand channel
    theirs.addPointChannel("sharedPoint", 0)[4] = 30.0f;

    mine.append(theirs);
    EXPECT_EQ(validationMessage(mine), "valid");
    EXPECT_EQ(std::vector<std::uint64_t>(mine.ids().begin(), mine.ids().end()),
              (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(std::vector<std::uint64_t>(mine.offsets().begin(), mine.offsets().end()),
              (std::vector<std::uint64_t>{0, 2, 5, 7}));
    EXPECT_EQ(mine.roots()[2].face, 3);
    EXPECT_EQ(mine.strandPoints(1)[2], (Vec3f{0, 0, 3}));

    EXPECT_EQ(values(mine.strandChannel("shared")), (std::vector<float>{10, 9, 20}));
    EXPECT_EQ(mine.channelDefault("shared"), 1.0f);
    EXPECT_EQ(values(mine.strandChannel("mineOnly")), (std::vector<float>{2, 2, 2}));
    EXPECT_EQ(values(mine.strandChannel("theirsOnly")), (std::vector<float>{7, 70, 71}));
    EXPECT_EQ(mine.channelDefault("theirsOnly"), 7.0f);
    EXPECT_EQ(values(mine.strandChannel("fromStrand")), (std::vector<float>{6, 60, 61}));
    EXPECT_EQ(values(mine.pointChannel("sharedPoint")), (std::vector<float>{3, 3, 9, 9, 9, 9, 30}));
    EXPECT_EQ(values(mine.pointChannel("fromStrand")),
              (std::vector<float>{4, 4, 60, 60, 60, 61, 61}));
    EXPECT_EQ(values(mine.pointChannel("minePoint")), (std::vector<float>(7, 5.0f)));
    EXPECT_EQ(values(mine.pointChannel("theirsPoint")), (std::vector<float>{8, 8, 8, 8, 8, 8, 8}));
    EXPECT_EQ(mine.pointChannelDefault("theirsPoint"), 8.0f);
    EXPECT_EQ(values(mine.pointChannel("mineOnly")), (std::vector<float>(7, 0.5f)));

    // Appending no strands changes nothing, not even the channel list.
    const std::uint64_t hash = mine.contentHash();
    StrandSet nothing;
    nothing.addStrandChannel("new", 1.0f);
    mine.append(nothing);
    EXPECT_EQ(mine.contentHash(), hash);
    EXPECT_EQ(mine.strandChannel("new"), nullptr);
}

TEST(StrandSet, AppendCopiesNeitherSideIntoTheOtherAndMayAppendASetToItself) {
    const StrandSet a = randomStrands(30, 12);
    const StrandSet b = randomStrands(20, 13);
    StrandSet joined = a;
    joined.append(b);
    EXPECT_EQ(validationMessage(joined), "valid");
    ASSERT_EQ(joined.strandCount(), 50u);
    for (std::size_t i = 0; i < 30; ++i)
        EXPECT_EQ(strandValues(joined, i), strandValues(a, i));
    for (std::size_t i = 0; i < 20; ++i)
        EXPECT_EQ(strandValues(joined, 30 + i), strandValues(b, i));
    EXPECT_EQ(a.strandCount(), 30u);
    EXPECT_NE(joined.columnData(ColumnId::kPoints), a.columnData(ColumnId::kPoints));

    StrandSet twice = a;
    twice.append(twice);
    ASSERT_EQ(twice.strandCount(), 60u);
    EXPECT_EQ(validationMessage(twice), "valid");
    for (std::size_t i = 0; i < 30; ++i)
        EXPECT_EQ(strandValues(twice, 30 + i), strandValues(a, i));
}

TEST(StrandSet, SubsetTakesTheListedStrandsInTheListedOrder) {
    StrandSet set = randomStrands(40, 14);
    const auto payload = std::make_shared<int>(4);
    set.setAttachment(payload);
    const std::vector<std::uint64_t> indices = {7, 3, 3, 39, 0};
    StrandSet out = randomStrands(5, 99);
    set.subset(indices, out);
    EXPECT_EQ(validationMessage(out), "valid");
    ASSERT_EQ(out.strandCount(), indices.size());
    for (std::size_t k = 0; k < indices.size(); ++k)
        EXPECT_EQ(strandValues(out, k), strandValues(set, indices[k]));
    EXPECT_EQ(out.channelDefault("mass"), 2.0f);
    EXPECT_EQ(out.pointChannelDefault("curl"), -1.0f);
    EXPECT_EQ(out.attachment(), payload);

    const std::uint64_t outOfRange[] = {1, 40};
    try {
        set.subset(outOfRange, out);
        ADD_FAILURE() << "no exception";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(),
                     "StrandSet::subset: strand index 40 is out of range for a set of 40 strands");
    }
    EXPECT_EQ(out.strandCount(), indices.size());

    const StrandValues last = strandValues(set, 39);
    set.subset(std::vector<std::uint64_t>{39}, set);  // into itself
    ASSERT_EQ(set.strandCount(), 1u);
    EXPECT_EQ(strandValues(set, 0), last);
}

std::set<std::uint64_t> idSet(const StrandSet& set) {
    return {set.ids().begin(), set.ids().end()};
}

TEST(StrandSet, ThinningKeepsNestedSubsetsChosenByIdAlone) {
    const StrandSet set = randomStrands(3000, 15);
    std::map<std::uint64_t, std::size_t> indexOf;
    for (std::size_t i = 0; i < set.strandCount(); ++i)
        indexOf[set.ids()[i]] = i;
    std::set<std::uint64_t> previous;
    for (double density : {0.0, 0.1, 0.3, 0.5, 0.9}) {
        StrandSet out;
        set.thinned(density, out);
        EXPECT_EQ(validationMessage(out), "valid");
        const std::set<std::uint64_t> kept = idSet(out);
        EXPECT_TRUE(std::includes(kept.begin(), kept.end(), previous.begin(), previous.end()))
            << density;
        for (std::size_t i = 0; i < set.strandCount(); ++i)
            EXPECT_EQ(kept.count(set.ids()[i]) == 1, density > unitFloat(set.ids()[i]));
        // Kept strands keep their order and data.
        for (std::size_t k = 0; k < out.strandCount(); ++k) {
            const std::size_t from = indexOf.at(out.ids()[k]);
            if (k > 0) {
                ASSERT_LT(indexOf.at(out.ids()[k - 1]), from);
            }
            ASSERT_EQ(strandValues(out, k), strandValues(set, from));
        }
        previous = kept;
    }
    EXPECT_NEAR(static_cast<double>(previous.size()) / set.strandCount(), 0.9, 0.03);

    StrandSet everything;
    set.thinned(1.0, everything);
    EXPECT_EQ(everything.contentHash(), set.contentHash());
    EXPECT_EQ(everything.columnData(ColumnId::kPoints), set.columnData(ColumnId::kPoints));

    // The same strands in another order thin to the same ids.
    std::vector<std::uint64_t> reversed(set.strandCount());
    for (std::size_t i = 0; i < reversed.size(); ++i)
        reversed[i] = reversed.size() - 1 - i;
    StrandSet shuffled, fromShuffled, fromSet;
    set.subset(reversed, shuffled);
    shuffled.thinned(0.4, fromShuffled);
    set.thinned(0.4, fromSet);
    EXPECT_EQ(idSet(fromShuffled), idSet(fromSet));
}

TEST(StrandSet, ThinningIsTheSameAtOneAndTwoThreads) {
    const StrandSet set = randomStrands(20000, 16);
    StrandSet one, two;
    runWithThreads(1, [&] { set.thinned(0.37, one); });
    runWithThreads(2, [&] { set.thinned(0.37, two); });
    EXPECT_GT(one.strandCount(), 7000u);
    EXPECT_EQ(one.contentHash(), two.contentHash());
}

// The extent by a direct scan, the reference for the blocked and cached computation.
StrandSet::Extent scannedExtent(const StrandSet& set) {
    StrandSet::Extent extent;
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        const std::span<const Vec3f> points = set.strandPoints(s);
        float polyline = 0;
        for (std::size_t k = 0; k < points.size(); ++k) {
            const Vec3f& p = points[k];
            if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
                extent.finite = false;
            if (!std::isnan(p.x))
                extent.min.x = std::min(extent.min.x, p.x),
                extent.max.x = std::max(extent.max.x, p.x);
            if (!std::isnan(p.y))
                extent.min.y = std::min(extent.min.y, p.y),
                extent.max.y = std::max(extent.max.y, p.y);
            if (!std::isnan(p.z))
                extent.min.z = std::min(extent.min.z, p.z),
                extent.max.z = std::max(extent.max.z, p.z);
            if (k > 0) polyline += length(points[k] - points[k - 1]);
        }
        if (polyline > extent.longest) extent.longest = polyline;
    }
    return extent;
}

TEST(StrandSet, BoundsMatchADirectScanAcrossBlockCounts) {
    for (std::size_t count : {1u, 2047u, 2048u, 2049u, 9000u}) {
        const StrandSet set = randomStrands(count, 17 + count);
        expectSameBits(set.bounds(), scannedExtent(set));
    }
    // One block on its own (no parallel dispatch) agrees with the same strands inside many blocks.
    const StrandSet many = randomStrands(7000, 18);
    StrandSet::Extent merged;
    for (std::size_t first = 0; first < many.strandCount(); first += StrandSet::kBlockStrands) {
        std::vector<std::uint64_t> block;
        for (std::size_t s = first;
             s < std::min(first + StrandSet::kBlockStrands, many.strandCount()); ++s)
            block.push_back(s);
        StrandSet part;
        many.subset(block, part);
        const StrandSet::Extent e = part.bounds();
        merged.min = {std::min(merged.min.x, e.min.x), std::min(merged.min.y, e.min.y),
                      std::min(merged.min.z, e.min.z)};
        merged.max = {std::max(merged.max.x, e.max.x), std::max(merged.max.y, e.max.y),
                      std::max(merged.max.z, e.max.z)};
        merged.longest = std::max(merged.longest, e.longest);
    }
    expectSameBits(many.bounds(), merged);
}

TEST(StrandSet, NonFiniteCoordinatesClearFiniteAndAreSkippedByMinAndMax) {
    for (float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        StrandSet set = randomStrands(6000, 19);
        const StrandSet clean = set;
        const std::size_t strand = 4500;  // in the third block
        ASSERT_GT(set.strandPoints(strand).size(), 1u);
        set.writePoints()[set.pointRange(strand).begin].y = bad;
        const StrandSet::Extent extent = set.bounds();
        EXPECT_FALSE(extent.finite);
        expectSameBits(extent, scannedExtent(set));
        if (std::isnan(bad)) {
            EXPECT_EQ(extent.min.y, clean.bounds().min.y);
            EXPECT_EQ(extent.max.y, clean.bounds().max.y);
        }
        // Strands of the other blocks alone are finite.
        std::vector<std::uint64_t> firstBlock(StrandSet::kBlockStrands);
        for (std::size_t s = 0; s < firstBlock.size(); ++s)
            firstBlock[s] = s;
        StrandSet part;
        set.subset(firstBlock, part);
        EXPECT_TRUE(part.bounds().finite);
    }
}

TEST(StrandSet, WritesDropTheCachedExtents) {
    StrandSet set = randomStrands(3000, 20);
    const StrandSet::Extent before = set.bounds();
    set.writePoints()[0] = {50, -50, 0};
    EXPECT_EQ(set.bounds().max.x, 50.0f);
    EXPECT_EQ(set.bounds().min.y, -50.0f);
    const Vec3f far[] = {{0, 0, 0}, {0, 0, 500}};
    set.addStrand(1, {}, far);
    EXPECT_EQ(set.bounds().max.z, 500.0f);
    EXPECT_EQ(set.bounds().longest, 500.0f);
    StrandSet other;
    const Vec3f low[] = {{0, 0, -90}};
    other.addStrand(2, {}, low);
    set.append(other);
    EXPECT_EQ(set.bounds().min.z, -90.0f);
    EXPECT_GT(before.max.x, 0.0f);
}

TEST(StrandSet, BoundsAfterReusesTheUnchangedBlocksOfThePreviousSet) {
    const StrandSet previous = randomStrands(9000, 21);  // five blocks
    const StrandSet::Extent previousExtent = previous.bounds();
    const std::size_t strand = 3 * StrandSet::kBlockStrands + 10;
    ASSERT_GT(previous.strandPoints(strand).size(), 0u);

    StrandSet next = previous;
    next.writePoints()[next.pointRange(strand).begin] = {0, 60, 0};
    const StrandSet fresh = next;                                  // no cached extents
    const std::uint64_t changed[] = {strand, strand + 1, 999999};  // past the end: ignored
    expectSameBits(next.boundsAfter(previous, changed), fresh.bounds());
    EXPECT_EQ(next.bounds().max.y, 60.0f);

    // Told of a strand in another block, it keeps the stale block: proof that blocks are reused.
    StrandSet misinformed = previous;
    misinformed.writePoints()[misinformed.pointRange(strand).begin] = {0, 60, 0};
    const std::uint64_t elsewhere[] = {5};
    expectSameBits(misinformed.boundsAfter(previous, elsewhere), previousExtent);

    // Without usable caches of the previous set it is a plain bounds().
    const StrandSet uncached = randomStrands(9000, 21);
    StrandSet fromUncached = uncached;
    fromUncached.writePoints()[fromUncached.pointRange(strand).begin] = {0, 60, 0};
    EXPECT_EQ(fromUncached.boundsAfter(uncached, elsewhere).max.y, 60.0f);
    StrandSet longer = previous;
    const Vec3f up[] = {{0, 0, 0}, {0, 70, 0}};
    longer.addStrand(7, {}, up);
    EXPECT_EQ(longer.boundsAfter(previous, elsewhere).max.y, 70.0f);
}

TEST(StrandSet, ExtentsAreTheSameAtOneAndTwoThreads) {
    const StrandSet set = randomStrands(20000, 22);
    StrandSet::Extent one, two;
    runWithThreads(1, [&] { one = StrandSet(set).bounds(); });
    runWithThreads(2, [&] { two = StrandSet(set).bounds(); });
    expectSameBits(one, two);

    const StrandSet previous = set;
    previous.bounds();
    std::vector<std::uint64_t> changed;
    StrandSet next = previous;
    std::vector<Vec3f>& points = next.writePoints();
    for (std::size_t s = 100; s < next.strandCount(); s += 2500) {
        changed.push_back(s);
        const StrandSet::PointRange range = next.pointRange(s);
        for (std::size_t p = range.begin; p < range.begin + range.count; ++p)
            points[p] = points[p] * 1.5f;
    }
    runWithThreads(1, [&] { one = StrandSet(next).boundsAfter(previous, changed); });
    runWithThreads(2, [&] { two = StrandSet(next).boundsAfter(previous, changed); });
    expectSameBits(one, two);
    expectSameBits(one, scannedExtent(next));
}

TEST(StrandSet, ContentHashFollowsTheDocumentedOrder) {
    StrandSet set;
    const Vec3f points[] = {{1, 2, 3}, {4, 5, 6}};
    const float widths[] = {0.5f, 0.25f};
    set.addStrand(42, {-2, 0.25f, 0.75f}, points, widths);
    set.addStrandChannel("ab", 0.0f)[0] = 9.0f;
    set.addPointChannel("c", 0.0f) = {7.0f, 8.0f};

    std::uint64_t h = mix64(1);
    for (std::uint64_t v :
         {std::uint64_t{42}, std::uint64_t{2}, static_cast<std::uint64_t>(std::int64_t{-2}),
          std::uint64_t{floatBits(0.25f)}, std::uint64_t{floatBits(0.75f)}})
        h = hashCombine(h, v);
    for (float v : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 0.5f, 0.25f})
        h = hashCombine(h, floatBits(v));
    h = hashCombine(hashCombine(h, 'a'), 'b');
    h = hashCombine(h, floatBits(9.0f));
    h = hashCombine(h, 'c');
    h = hashCombine(hashCombine(h, floatBits(7.0f)), floatBits(8.0f));
    EXPECT_EQ(set.contentHash(), h);
    EXPECT_EQ(StrandSet().contentHash(), mix64(0));
}

TEST(StrandSet, ContentHashSeesEveryColumnChannelNameAndStrandOrder) {
    const StrandSet base = randomStrands(30, 23);
    const std::uint64_t hash = base.contentHash();
    EXPECT_EQ(randomStrands(30, 23).contentHash(), hash);

    std::set<std::uint64_t> hashes{hash};
    auto changed = [&](auto&& edit) {
        StrandSet set = base;
        edit(set);
        hashes.insert(set.contentHash());
        return set.contentHash() != hash;
    };
    EXPECT_TRUE(changed([](StrandSet& s) { s.writeIds()[3] ^= 1; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.writeRoots()[3].face += 1; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.writeRoots()[3].u = 0.125f; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.writeRoots()[3].v = -0.0f; }));
    EXPECT_TRUE(changed([](StrandSet& s) {  // the same points split differently between strands
        std::vector<std::uint64_t>& offsets = s.writeOffsets();
        for (std::size_t i = 1; i + 1 < offsets.size(); ++i)
            if (offsets[i] > offsets[i - 1]) {
                offsets[i] -= 1;
                break;
            }
    }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.writePoints()[5].z = -0.0f; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.writeWidths()[5] += 1.0f; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.addStrandChannel("mass", 0)[2] += 1.0f; }));
    EXPECT_TRUE(changed([](StrandSet& s) { s.addPointChannel("curl", 0)[2] += 1.0f; }));
    EXPECT_TRUE(changed([](StrandSet& s) {
        const std::vector<float> mass = *s.strandChannel("mass");
        s.removeStrandChannel("mass");
        s.addStrandChannel("masS", 2.0f) = mass;
    }));
    EXPECT_TRUE(changed([](StrandSet& s) {  // the same strands, two of them swapped
        std::vector<std::uint64_t> order(s.strandCount());
        for (std::size_t i = 0; i < order.size(); ++i)
            order[i] = i;
        std::swap(order[4], order[9]);
        s.subset(order, s);
    }));
    EXPECT_EQ(hashes.size(), 12u);
}

TEST(StrandSet, ForEachColumnVisitsEachNonEmptyArrayInOrder) {
    StrandSet set = randomStrands(12, 24);
    set.addStrandChannel("empty", 0.0f);
    set.addStrandChannel("empty", 0.0f).clear();
    std::vector<std::pair<const void*, std::size_t>> visited;
    set.forEachColumn(
        [&](const void* pointer, std::size_t bytes) { visited.emplace_back(pointer, bytes); });
    const std::vector<std::pair<const void*, std::size_t>> expected = {
        {set.ids().data(), 12 * 8},
        {set.roots().data(), 12 * 12},
        {set.offsets().data(), 13 * 8},
        {set.points().data(), set.pointCount() * 12},
        {set.widths().data(), set.pointCount() * 4},
        {set.strandChannel("mass")->data(), 12 * 4},
        {set.pointChannel("curl")->data(), set.pointCount() * 4}};
    EXPECT_EQ(visited, expected);
}

TEST(StrandSet, MovingAColumnTakesTheArrayFromItsOnlyHolderAndCopiesOtherwise) {
    StrandSet source = randomStrands(20, 25);
    const std::uint64_t hash = source.contentHash();
    const void* points = source.columnData(ColumnId::kPoints);
    const std::vector<float>* mass = source.strandChannel("mass");
    const std::uint64_t moved = StrandSet::movedColumnCount();

    StrandSet target;
    for (ColumnId column : kAllColumns)
        target.moveColumnFrom(column, source);
    EXPECT_TRUE(target.moveStrandChannelFrom("mass", source));
    EXPECT_TRUE(target.movePointChannelFrom("curl", source));
    EXPECT_FALSE(target.moveStrandChannelFrom("absent", source));
    EXPECT_EQ(StrandSet::movedColumnCount(), moved + 7);
    EXPECT_EQ(target.columnData(ColumnId::kPoints), points);
    EXPECT_EQ(target.strandChannel("mass"), mass);
    EXPECT_EQ(target.channelDefault("mass"), 2.0f);
    EXPECT_TRUE(target.isOwned(ColumnId::kPoints));
    EXPECT_EQ(target.contentHash(), hash);
    EXPECT_EQ(validationMessage(target), "valid");
    EXPECT_TRUE(source.points().empty());
    EXPECT_TRUE(source.offsets().empty());
    EXPECT_TRUE(source.strandChannel("mass")->empty());

    // With a second holder the array is copied and the source keeps it.
    StrandSet other = randomStrands(20, 26);
    const StrandSet holder = other;
    const void* widths = other.columnData(ColumnId::kWidths);
    target.moveColumnFrom(ColumnId::kWidths, other);
    EXPECT_NE(target.columnData(ColumnId::kWidths), widths);
    EXPECT_EQ(other.columnData(ColumnId::kWidths), widths);
    EXPECT_EQ(std::vector<float>(target.widths().begin(), target.widths().end()),
              std::vector<float>(holder.widths().begin(), holder.widths().end()));
    EXPECT_EQ(StrandSet::movedColumnCount(), moved + 7);
}

TEST(StrandSet, CopyOnWriteTakesLargeArraysFromThePool) {
    const std::size_t strands = 40000;  // 360000 points: 4.3 MB of points
    StrandSet set;
    std::vector<Vec3f>& points = set.writePoints();
    points.assign(strands * 9, Vec3f{1, 2, 3});
    set.writeWidths().assign(strands * 9, 1.0f);
    set.writeRoots().resize(strands);
    set.writeIds().resize(strands);
    std::vector<std::uint64_t>& offsets = set.writeOffsets();
    offsets.resize(strands + 1);
    for (std::size_t i = 0; i <= strands; ++i)
        offsets[i] = 9 * i;
    ASSERT_EQ(validationMessage(set), "valid");

    ArrayPool<Vec3f>& pool = ArrayPool<Vec3f>::instance();
    pool.trim();
    std::vector<Vec3f> spare(strands * 9);
    const Vec3f* spareData = spare.data();
    pool.release(std::move(spare));

    StrandSet derived = set;
    derived.writePoints()[0] = {9, 9, 9};
    EXPECT_EQ(derived.points().data(), spareData);
    EXPECT_EQ(derived.points()[1], (Vec3f{1, 2, 3}));
    EXPECT_EQ(set.points()[0], (Vec3f{1, 2, 3}));

    // When the derived set goes, its points array goes back to the pool.
    derived = StrandSet();
    EXPECT_EQ(pool.pooledLengths(), std::vector<std::size_t>{strands * 9});
    pool.trim();
}

TEST(StrandSet, MovedFromSetsAreEmptyAndValid) {
    StrandSet set = randomStrands(10, 28);
    const void* points = set.columnData(ColumnId::kPoints);
    StrandSet moved = std::move(set);
    EXPECT_EQ(moved.columnData(ColumnId::kPoints), points);
    EXPECT_TRUE(moved.isOwned(ColumnId::kPoints));
    EXPECT_EQ(set.strandCount(), 0u);  // NOLINT(bugprone-use-after-move): moved-from is specified
    EXPECT_TRUE(set.strandChannelNames().empty());
    EXPECT_EQ(validationMessage(set), "valid");
}

}  // namespace
}  // namespace velmorin
