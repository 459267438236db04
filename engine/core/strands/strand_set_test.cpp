#include "strands/strand_set.h"

#include "base/hash.h"
#include "base/test/expect_message.h"
#include "strands/test/test_strands.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <set>

namespace velmorin {
namespace {

using test::expectMessage;
using test::extentBits;
using test::onOneAndTwoThreads;
using test::randomStrands;
using test::values;

constexpr ColumnId kAllColumns[] = {ColumnId::kIds, ColumnId::kRoots, ColumnId::kOffsets,
                                    ColumnId::kPoints, ColumnId::kWidths};
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// One strand of a set made by randomStrands, as plain values to compare across sets.
struct StrandValues {
    std::uint64_t id;
    StrandRoot root;
    std::vector<Vec3f> points;
    std::vector<float> widths, curl;
    float mass;
    bool operator==(const StrandValues&) const = default;
};

StrandValues strandValues(const StrandSet& set, std::size_t strand) {
    const StrandSet::PointRange range = set.pointRange(strand);
    const std::span<const float> curl(*set.pointChannel("curl"));
    return {set.ids()[strand],
            set.roots()[strand],
            values(set.strandPoints(strand)),
            values(set.widths().subspan(range.begin, range.count)),
            values(curl.subspan(range.begin, range.count)),
            (*set.strandChannel("mass"))[strand]};
}

std::vector<std::uint64_t> iota(std::size_t begin, std::size_t end) {
    std::vector<std::uint64_t> indices;
    for (std::size_t i = begin; i < end; ++i)
        indices.push_back(i);
    return indices;
}

// The listed strands (all of them when none are listed) as values, in the listed order.
std::vector<StrandValues> strandsOf(const StrandSet& set, std::span<const std::uint64_t> indices) {
    std::vector<StrandValues> out;
    for (std::uint64_t strand : indices)
        out.push_back(strandValues(set, strand));
    return out;
}
std::vector<StrandValues> strandsOf(const StrandSet& set) {
    return strandsOf(set, iota(0, set.strandCount()));
}

std::string validationMessage(const StrandSet& set) {
    std::string message = "valid";
    set.validate(message);
    return message;
}

// The extent by a direct scan of each strand, the reference for the blocked computation.
StrandSet::Extent scannedExtent(const StrandSet& set) {
    StrandSet::Extent e;
    for (std::size_t s = 0; s < set.strandCount(); ++s) {
        const std::span<const Vec3f> points = set.strandPoints(s);
        float polyline = 0;
        for (std::size_t k = 0; k < points.size(); ++k) {
            const float p[3] = {points[k].x, points[k].y, points[k].z};
            float* lo[3] = {&e.min.x, &e.min.y, &e.min.z};
            float* hi[3] = {&e.max.x, &e.max.y, &e.max.z};
            for (int axis = 0; axis < 3; ++axis) {
                e.finite = e.finite && std::isfinite(p[axis]);
                if (std::isnan(p[axis])) continue;
                *lo[axis] = std::min(*lo[axis], p[axis]);
                *hi[axis] = std::max(*hi[axis], p[axis]);
            }
            if (k > 0) polyline += length(points[k] - points[k - 1]);
        }
        if (polyline > e.longest) e.longest = polyline;
    }
    return e;
}

TEST(StrandSet, EmptyAndMovedFromSetsHoldOneOffsetAreValidAndHaveMinAboveMax) {
    const StrandSet empty;
    StrandSet full = randomStrands(10, 1);
    const void* points = full.columnData(ColumnId::kPoints);
    const StrandSet taken = std::move(full);
    EXPECT_EQ(taken.columnData(ColumnId::kPoints), points);
    for (const StrandSet* set : std::initializer_list<const StrandSet*>{&empty, &full}) {
        EXPECT_EQ(set->strandCount(), 0u);
        EXPECT_EQ(values(set->offsets()), std::vector<std::uint64_t>{0});
        EXPECT_TRUE(set->strandChannelNames().empty());
        EXPECT_EQ(validationMessage(*set), "valid");
        const StrandSet::Extent e = set->bounds();
        EXPECT_TRUE(e.min.x > e.max.x && e.min.y > e.max.y && e.min.z > e.max.z);
        EXPECT_TRUE(e.finite);
    }
}

TEST(StrandSet, AddStrandFillsEveryColumnAndGivesChannelsTheirDefaults) {
    StrandSet set;
    set.addStrandChannel("mass", 4.0f);
    set.addPointChannel("curl", -2.0f);
    const Vec3f a[] = {{0, 0, 0}, {0, 1, 0}, {0, 3, 0}}, b[] = {{1, 0, 0}, {2, 0, 0}};
    const float aWidths[] = {0.5f, 0.25f, 0.125f};
    EXPECT_EQ(set.addStrand(11, {3, 0.25f, 0.5f}, a, aWidths), 0u);
    EXPECT_EQ(set.addStrand(12, {}, {}), 1u);  // no points is legal
    EXPECT_EQ(set.addStrand(13, {}, b), 2u);
    EXPECT_EQ(validationMessage(set), "valid");
    EXPECT_EQ(values(set.ids()), (std::vector<std::uint64_t>{11, 12, 13}));
    EXPECT_EQ(values(set.offsets()), (std::vector<std::uint64_t>{0, 3, 3, 5}));
    EXPECT_EQ(set.roots()[0], (StrandRoot{3, 0.25f, 0.5f}));
    EXPECT_EQ(values(set.widths()), (std::vector<float>{0.5f, 0.25f, 0.125f, 1, 1}));
    EXPECT_EQ(values(set.strandChannel("mass")), std::vector<float>(3, 4.0f));
    EXPECT_EQ(values(set.pointChannel("curl")), std::vector<float>(5, -2.0f));
    EXPECT_EQ(values(set.strandPoints(2)), std::vector<Vec3f>(std::begin(b), std::end(b)));
    EXPECT_EQ(set.bounds().longest, 3.0f);

    // Points and widths read from the set itself survive the growth of their own columns.
    set.addStrand(14, {}, set.strandPoints(0), set.widths().first(3));
    EXPECT_EQ(values(set.strandPoints(3)), std::vector<Vec3f>(std::begin(a), std::end(a)));
    EXPECT_EQ(validationMessage(set), "valid");

    const std::uint64_t hash = set.contentHash();
    expectMessage([&] { set.addStrand(99, {}, a, std::span<const float>(aWidths).first(2)); },
                  "StrandSet::addStrand: widths must be empty or match points");
    EXPECT_EQ(set.strandCount(), 4u);
    EXPECT_EQ(set.contentHash(), hash);
    EXPECT_EQ(validationMessage(set), "valid");
}

TEST(StrandSet, ValidateReportsTheFirstBrokenRuleInOrder) {
    // A set that breaks every rule; mending the rule just reported must reveal the next one.
    StrandSet set;
    set.writeIds() = {1, 2};
    set.writeRoots() = {StrandRoot{}};
    set.writeOffsets() = {5, 9, 2, 1};
    set.writePoints() = std::vector<Vec3f>(4);
    set.writeWidths() = std::vector<float>(3);
    set.addStrandChannel("a", 0) = {1, 2};
    set.addStrandChannel("b", 0) = {1};
    set.addPointChannel("p", 0) = {1, 2};
    std::string message;
    EXPECT_FALSE(set.validate(message));
    EXPECT_EQ(message, "offsets size must be strandCount + 1");
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
    EXPECT_TRUE(set.validate(message));
    EXPECT_EQ(message, "offsets size must be strandCount + 1");  // untouched when valid
}

TEST(StrandSet, WritingOneColumnOfACopyCopiesThatColumnOnly) {
    StrandSet original = randomStrands(50, 5);
    EXPECT_TRUE(original.isOwned(ColumnId::kWidths));
    const std::vector<float> widths = values(original.widths());
    StrandSet copy = original;
    for (ColumnId column : kAllColumns) {
        EXPECT_EQ(copy.columnData(column), original.columnData(column));
        EXPECT_FALSE(copy.isOwned(column));
        EXPECT_FALSE(original.isOwned(column));  // shared now, so the original must copy too
    }

    copy.writeWidths()[0] = 7.0f;
    copy.addStrandChannel("mass", 123.0f)[0] = -9.0f;  // an existing channel keeps its default
    EXPECT_NE(copy.columnData(ColumnId::kWidths), original.columnData(ColumnId::kWidths));
    EXPECT_NE(copy.strandChannel("mass"), original.strandChannel("mass"));
    EXPECT_TRUE(copy.isOwned(ColumnId::kWidths) && copy.ownsStrandChannel("mass"));
    EXPECT_EQ(copy.channelDefault("mass"), 2.0f);
    for (ColumnId column :
         {ColumnId::kIds, ColumnId::kRoots, ColumnId::kOffsets, ColumnId::kPoints})
        EXPECT_EQ(copy.columnData(column), original.columnData(column));
    EXPECT_EQ(copy.pointChannel("curl"), original.pointChannel("curl"));
    for (ColumnId column : kAllColumns)
        EXPECT_FALSE(original.isOwned(column));
    EXPECT_FALSE(original.ownsStrandChannel("mass"));
    EXPECT_EQ(values(original.widths()), widths);
    EXPECT_EQ(original.contentHash(), randomStrands(50, 5).contentHash());

    // The original is now its widths' only holder: writing takes them over without a copy.
    const void* array = original.columnData(ColumnId::kWidths);
    original.writeWidths()[1] = 3.0f;
    EXPECT_EQ(original.columnData(ColumnId::kWidths), array);
    EXPECT_TRUE(original.isOwned(ColumnId::kWidths));
    // Writing the source of a copy, even columns it owned before, leaves the copy alone.
    const StrandSet second = original;
    original.writeWidths()[2] = 5.0f;
    original.writePoints()[0] = {100, 100, 100};
    original.addPointChannel("curl", 0)[0] = 100;
    EXPECT_EQ(second.widths()[2], widths[2]);
    EXPECT_EQ(second.pointChannel("curl")->at(0), randomStrands(50, 5).pointChannel("curl")->at(0));
    EXPECT_NE(second.points()[0], (Vec3f{100, 100, 100}));
    EXPECT_EQ(copy.widths()[1], widths[1]);
}

TEST(StrandSet, OverwritingASharedColumnLeavesItsHolderAloneAndKeepsItsLength) {
    const StrandSet original = randomStrands(50, 5);
    StrandSet copy = original;
    const std::vector<Vec3f> points = values(original.points());
    std::vector<Vec3f>& fresh = copy.overwritePoints();
    ASSERT_EQ(fresh.size(), points.size());
    EXPECT_NE(copy.columnData(ColumnId::kPoints), original.columnData(ColumnId::kPoints));
    EXPECT_TRUE(copy.isOwned(ColumnId::kPoints));
    std::fill(fresh.begin(), fresh.end(), Vec3f{1, 2, 3});
    EXPECT_EQ(values(original.points()), points);
    EXPECT_EQ(copy.columnData(ColumnId::kWidths), original.columnData(ColumnId::kWidths));

    // A column nothing else holds is taken over as it is.
    StrandSet alone = randomStrands(50, 5);
    const void* array = alone.columnData(ColumnId::kWidths);
    const std::vector<float> widths = values(alone.widths());
    EXPECT_EQ(values(std::span<const float>(alone.overwriteWidths())), widths);
    EXPECT_EQ(alone.columnData(ColumnId::kWidths), array);
}

TEST(StrandSet, ChannelsStartAtTheirDefaultAndAreListedInNameOrder) {
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
    EXPECT_TRUE(set.removeStrandChannel("_preview"));
    EXPECT_FALSE(set.removeStrandChannel("_preview"));
    EXPECT_FALSE(set.removePointChannel("mass"));
    EXPECT_TRUE(set.removePointChannel("tubeU"));
    EXPECT_EQ(set.strandChannelNames(), (std::vector<std::string>{"Zeta", "mass", "region"}));
    EXPECT_EQ(set.pointChannelNames(), std::vector<std::string>{"curl"});
}

TEST(StrandSet, ClearEmptiesDataKeepsChannelDefaultsAndDropsAttachments) {
    StrandSet set = randomStrands(25, 10);
    set.setAttachment(std::make_shared<int>(1));
    set.writeAttachmentList(1).push_back(std::make_shared<int>(2));
    const StrandSet before = set;
    set.clear();
    EXPECT_EQ(set.pointCount(), 0u);
    EXPECT_EQ(values(set.offsets()), std::vector<std::uint64_t>{0});
    EXPECT_EQ(set.strandChannelNames(), std::vector<std::string>{"mass"});
    EXPECT_TRUE(set.strandChannel("mass")->empty());
    EXPECT_EQ(set.attachment(), nullptr);
    EXPECT_TRUE(set.attachmentList(1).empty());
    EXPECT_EQ(validationMessage(set), "valid");
    EXPECT_EQ(before.strandCount(), 25u);
    EXPECT_NE(before.attachment(), nullptr);
    set.addStrand(5, {}, before.strandPoints(0));
    EXPECT_EQ(values(set.strandChannel("mass")), std::vector<float>{2.0f});
    EXPECT_EQ(values(set.pointChannel("curl")), std::vector<float>(set.pointCount(), -1.0f));
}

TEST(StrandSet, AppendAddsStrandsAndMergesChannelsByName) {
    StrandSet mine;
    mine.addStrandChannel("shared", 1.0f);
    mine.addStrandChannel("mineOnly", 2.0f);
    mine.addPointChannel("sharedPoint", 3.0f);
    mine.addPointChannel("fromStrand", 4.0f);
    const Vec3f two[] = {{0, 0, 0}, {1, 0, 0}}, three[] = {{0, 0, 1}, {0, 0, 2}, {0, 0, 3}};
    mine.addStrand(1, {1, 0, 0}, two);
    mine.addStrandChannel("shared", 1.0f)[0] = 10.0f;

    StrandSet theirs;
    theirs.addStrand(2, {2, 0, 0}, three);
    theirs.addStrand(3, {3, 0, 0}, two);
    theirs.addStrandChannel("shared", 9.0f) = {9, 20};
    theirs.addStrandChannel("fromStrand", 6.0f) = {60, 61};
    theirs.addStrandChannel("theirsOnly", 7.0f) = {70, 71};
    theirs.addPointChannel("sharedPoint", 9.0f)[4] = 30.0f;
    theirs.addPointChannel("theirsPoint", 8.0f)[0] = 80.0f;
    theirs.addPointChannel("mineOnly", 0.5f);  // a point channel never feeds a strand channel

    mine.append(theirs);
    EXPECT_EQ(validationMessage(mine), "valid");
    EXPECT_EQ(values(mine.ids()), (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(values(mine.offsets()), (std::vector<std::uint64_t>{0, 2, 5, 7}));
    EXPECT_EQ(mine.roots()[2].face, 3);
    EXPECT_EQ(mine.strandPoints(1)[2], (Vec3f{0, 0, 3}));
    EXPECT_EQ(values(mine.strandChannel("shared")), (std::vector<float>{10, 9, 20}));
    EXPECT_EQ(values(mine.strandChannel("mineOnly")), (std::vector<float>{2, 2, 2}));
    EXPECT_EQ(values(mine.strandChannel("theirsOnly")), (std::vector<float>{7, 70, 71}));
    EXPECT_EQ(values(mine.strandChannel("fromStrand")), (std::vector<float>{6, 60, 61}));
    EXPECT_EQ(values(mine.pointChannel("sharedPoint")), (std::vector<float>{3, 3, 9, 9, 9, 9, 30}));
    EXPECT_EQ(values(mine.pointChannel("fromStrand")),
              (std::vector<float>{4, 4, 60, 60, 60, 61, 61}));
    EXPECT_EQ(values(mine.pointChannel("theirsPoint")), (std::vector<float>{8, 8, 80, 8, 8, 8, 8}));
    EXPECT_EQ(values(mine.pointChannel("mineOnly")), std::vector<float>(7, 0.5f));
    EXPECT_EQ(mine.channelDefault("shared"), 1.0f);
    EXPECT_EQ(mine.channelDefault("theirsOnly"), 7.0f);
    EXPECT_EQ(mine.pointChannelDefault("theirsPoint"), 8.0f);

    // Appending no strands changes nothing, not even the channel list.
    const std::uint64_t hash = mine.contentHash();
    StrandSet nothing;
    nothing.addStrandChannel("new", 1.0f);
    mine.append(nothing);
    EXPECT_EQ(mine.contentHash(), hash);
    EXPECT_EQ(mine.strandChannel("new"), nullptr);
}

TEST(StrandSet, AppendKeepsBothSidesStrandsAndMayAppendASetToItself) {
    const StrandSet a = randomStrands(30, 12), b = randomStrands(20, 13);
    StrandSet joined = a;
    joined.append(b);
    EXPECT_EQ(validationMessage(joined), "valid");
    ASSERT_EQ(joined.strandCount(), 50u);
    EXPECT_EQ(strandsOf(joined, iota(0, 30)), strandsOf(a));
    EXPECT_EQ(strandsOf(joined, iota(30, 50)), strandsOf(b));
    EXPECT_EQ(a.contentHash(), randomStrands(30, 12).contentHash());
    joined = a;
    joined.append(joined);
    ASSERT_EQ(joined.strandCount(), 60u);
    EXPECT_EQ(validationMessage(joined), "valid");
    EXPECT_EQ(strandsOf(joined, iota(30, 60)), strandsOf(a));
}

TEST(StrandSet, SubsetTakesTheListedStrandsInTheListedOrder) {
    StrandSet set = randomStrands(40, 14);
    const auto payload = std::make_shared<int>(4);
    set.setAttachment(payload);
    const std::vector<std::uint64_t> indices = {7, 8, 9, 3, 3, 4, 39, 0, 1};
    StrandSet out = randomStrands(5, 99);
    set.subset(indices, out);
    EXPECT_EQ(validationMessage(out), "valid");
    EXPECT_EQ(strandsOf(out), strandsOf(set, indices));
    EXPECT_EQ(out.pointChannelDefault("curl"), -1.0f);
    EXPECT_EQ(out.attachment(), payload);

    const std::uint64_t outOfRange[] = {1, 40};
    expectMessage([&] { set.subset(outOfRange, out); },
                  "StrandSet::subset: strand index 40 is out of range for a set of 40 strands");
    EXPECT_EQ(out.strandCount(), indices.size());

    const std::vector<StrandValues> last = strandsOf(set, iota(39, 40));
    set.subset(std::vector<std::uint64_t>{39}, set);  // into itself
    EXPECT_EQ(strandsOf(set), last);
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
        const std::set<std::uint64_t> kept(out.ids().begin(), out.ids().end());
        EXPECT_TRUE(std::includes(kept.begin(), kept.end(), previous.begin(), previous.end()));
        for (std::uint64_t id : set.ids())
            EXPECT_EQ(kept.count(id) == 1, density > unitFloat(id));
        for (std::size_t k = 0; k < out.strandCount(); ++k) {  // in order, with their data
            const std::size_t from = indexOf.at(out.ids()[k]);
            EXPECT_TRUE(k == 0 || indexOf.at(out.ids()[k - 1]) < from);
            EXPECT_EQ(strandValues(out, k), strandValues(set, from));
        }
        previous = kept;
    }
    EXPECT_NEAR(static_cast<double>(previous.size()) / set.strandCount(), 0.9, 0.03);
    StrandSet everything;
    set.thinned(1.0, everything);
    EXPECT_EQ(everything.columnData(ColumnId::kPoints), set.columnData(ColumnId::kPoints));
    EXPECT_EQ(everything.contentHash(), set.contentHash());
}

TEST(StrandSet, BoundsMatchADirectScanForAnyBlockCount) {
    for (std::size_t count : {1u, 2047u, 2048u, 2049u, 9000u}) {
        const StrandSet set = randomStrands(count, 17 + count);
        EXPECT_EQ(extentBits(set.bounds()), extentBits(scannedExtent(set)));
    }
    // Strands far longer than anything computed in one piece, between strands of one point.
    StrandSet longStrands;
    for (std::size_t count : {700u, 1u, 1001u, 1u, 257u, 3u}) {
        std::vector<Vec3f> points(count);
        for (std::size_t k = 0; k < count; ++k)
            points[k] = {std::sin(0.1f * k), std::cos(0.37f * k) * k, 0.01f * k};
        longStrands.addStrand(count, {}, points);
    }
    EXPECT_EQ(extentBits(longStrands.bounds()), extentBits(scannedExtent(longStrands)));
    EXPECT_GT(longStrands.bounds().longest, 1000.0f);

    // A block on its own (no parallel dispatch) agrees with the same strands among many blocks.
    const StrandSet many = randomStrands(7000, 18);
    StrandSet::Extent merged;
    for (std::size_t first = 0; first < many.strandCount(); first += StrandSet::kBlockStrands) {
        StrandSet part;
        many.subset(iota(first, std::min(first + StrandSet::kBlockStrands, many.strandCount())),
                    part);
        const StrandSet::Extent e = part.bounds();
        merged.min = minPerAxis(merged.min, e.min);
        merged.max = maxPerAxis(merged.max, e.max);
        merged.longest = std::max(merged.longest, e.longest);
    }
    EXPECT_EQ(extentBits(many.bounds()), extentBits(merged));
}

TEST(StrandSet, NonFiniteCoordinatesClearFiniteAndAreSkippedByMinAndMax) {
    const StrandSet base = randomStrands(6000, 19);
    std::size_t strand = 4500;  // in the third block, the first there with five points or more
    while (base.strandPoints(strand).size() < 5)
        ++strand;
    for (float bad : {kNaN, kInf, -kInf}) {
        // Each axis of four successive points, so that every lane of a four-point group is hit.
        for (std::size_t shift = 0; shift < 4; ++shift) {
            for (int axis = 0; axis < 3; ++axis) {
                StrandSet set = base;
                Vec3f& point = set.writePoints()[set.pointRange(strand).begin + shift];
                (axis == 0 ? point.x : axis == 1 ? point.y : point.z) = bad;
                const StrandSet::Extent e = set.bounds();
                EXPECT_FALSE(e.finite);
                EXPECT_EQ(extentBits(e), extentBits(scannedExtent(set)));
                EXPECT_FALSE(std::isnan(e.min.x + e.min.y + e.min.z + e.max.x + e.max.y + e.max.z));
                StrandSet firstBlock;  // the strands of another block alone are finite
                set.subset(iota(0, StrandSet::kBlockStrands), firstBlock);
                EXPECT_TRUE(firstBlock.bounds().finite);
            }
        }
    }
}

TEST(StrandSet, WritesDropTheCachedExtents) {
    StrandSet set = randomStrands(3000, 20);
    EXPECT_LT(set.bounds().max.x, 50.0f);
    set.writePoints()[0] = {50, -50, 0};
    EXPECT_EQ(set.bounds().max.x, 50.0f);
    const Vec3f far[] = {{0, 0, 0}, {0, 0, 500}};
    set.addStrand(1, {}, far);
    EXPECT_EQ(set.bounds().longest, 500.0f);
    StrandSet low;
    low.addStrand(2, {}, std::vector<Vec3f>{{0, 0, -90}});
    set.append(low);
    EXPECT_EQ(set.bounds().min.z, -90.0f);
}

TEST(StrandSet, BoundsAfterReusesTheUnchangedBlocksOfThePreviousSet) {
    const StrandSet previous = randomStrands(9000, 21);  // five blocks
    const StrandSet::Extent previousExtent = previous.bounds();
    const std::size_t strand = 3 * StrandSet::kBlockStrands + 10;
    ASSERT_GT(previous.strandPoints(strand).size(), 0u);
    auto moved = [&](const StrandSet& from) {
        StrandSet set = from;
        set.writePoints()[set.pointRange(strand).begin] = {0, 60, 0};
        return set;
    };
    const StrandSet next = moved(previous);
    const std::uint64_t changed[] = {strand, strand + 1, 999999};  // past the end: ignored
    EXPECT_EQ(extentBits(next.boundsAfter(previous, changed)),
              extentBits(StrandSet(moved(previous)).bounds()));
    EXPECT_EQ(next.bounds().max.y, 60.0f);

    // Told of a strand in another block, it keeps the stale block: proof that blocks are reused.
    const std::uint64_t elsewhere[] = {5};
    EXPECT_EQ(extentBits(moved(previous).boundsAfter(previous, elsewhere)),
              extentBits(previousExtent));
    // Without usable caches of the previous set (none, or another count) it is a plain bounds().
    const StrandSet uncached = randomStrands(9000, 21);
    EXPECT_EQ(moved(uncached).boundsAfter(uncached, elsewhere).max.y, 60.0f);
    StrandSet longer = previous;
    longer.addStrand(7, {}, std::vector<Vec3f>{{0, 0, 0}, {0, 70, 0}});
    EXPECT_EQ(longer.boundsAfter(previous, elsewhere).max.y, 70.0f);
}

TEST(StrandSet, ExtentsAndThinningAreTheSameAtOneAndTwoThreads) {
    const StrandSet set = randomStrands(20000, 22);
    const auto [one, two] = onOneAndTwoThreads([&] { return StrandSet(set).bounds(); });
    EXPECT_EQ(extentBits(one), extentBits(two));

    StrandSet next = set;
    std::vector<Vec3f>& points = next.writePoints();
    std::vector<std::uint64_t> changed;
    for (std::size_t s = 100; s < next.strandCount(); s += 2500) {
        changed.push_back(s);
        const StrandSet::PointRange range = next.pointRange(s);
        for (std::size_t p = range.begin; p < range.begin + range.count; ++p)
            points[p] = points[p] * 1.5f;
    }
    const auto [oneAfter, twoAfter] =
        onOneAndTwoThreads([&] { return StrandSet(next).boundsAfter(set, changed); });
    EXPECT_EQ(extentBits(oneAfter), extentBits(twoAfter));
    EXPECT_EQ(extentBits(oneAfter), extentBits(scannedExtent(next)));

    const auto [thinOne, thinTwo] = onOneAndTwoThreads([&] {
        StrandSet out;
        set.thinned(0.37, out);
        return out;
    });
    EXPECT_GT(thinOne.strandCount(), 7000u);
    EXPECT_EQ(thinOne.contentHash(), thinTwo.contentHash());
}

TEST(StrandSet, ContentHashIsPinned) {
    // Tests across the engine compare and pin results by it: a change to what it combines, or in
    // what order, must be deliberate.
    StrandSet set;
    const Vec3f points[] = {{1, 2, 3}, {4, 5, 6}};
    const float widths[] = {0.5f, 0.25f};
    set.addStrand(42, {-2, 0.25f, 0.75f}, points, widths);
    set.addStrandChannel("ab", 0.0f)[0] = 9.0f;
    set.addPointChannel("c", 0.0f) = {7.0f, 8.0f};
    EXPECT_EQ(set.contentHash(), 0x1fa95b545fc64ef4ull);
    EXPECT_EQ(StrandSet().contentHash(), mix64(0));
}

TEST(StrandSet, ContentHashSeesEveryColumnChannelNameAndStrandOrder) {
    const StrandSet base = randomStrands(30, 23);
    std::set<std::uint64_t> hashes{base.contentHash()};
    auto edited = [&](auto&& edit) {
        StrandSet set = base;
        edit(set);
        hashes.insert(set.contentHash());
    };
    edited([](StrandSet& s) { s.writeIds()[3] ^= 1; });
    edited([](StrandSet& s) { s.writeRoots()[3].face += 1; });
    edited([](StrandSet& s) { s.writeRoots()[3].u = 0.125f; });
    edited([](StrandSet& s) { s.writeRoots()[3].v = -0.0f; });
    edited([](StrandSet& s) {  // the same points split differently between strands
        std::vector<std::uint64_t>& offsets = s.writeOffsets();
        std::size_t i = 1;
        while (offsets[i] == offsets[i - 1])
            ++i;
        offsets[i] -= 1;
    });
    edited([](StrandSet& s) { s.writePoints()[5].z = -0.0f; });
    edited([](StrandSet& s) { s.writeWidths()[5] += 1.0f; });
    edited([](StrandSet& s) { s.addStrandChannel("mass", 0)[2] += 1.0f; });
    edited([](StrandSet& s) { s.addPointChannel("curl", 0)[2] += 1.0f; });
    edited([](StrandSet& s) {
        const std::vector<float> mass = *s.strandChannel("mass");
        s.removeStrandChannel("mass");
        s.addStrandChannel("masS", 2.0f) = mass;
    });
    edited([](StrandSet& s) {  // two strands swapped
        std::vector<std::uint64_t> order = iota(0, s.strandCount());
        std::swap(order[4], order[9]);
        s.subset(order, s);
    });
    EXPECT_EQ(hashes.size(), 12u);
    EXPECT_EQ(randomStrands(30, 23).contentHash(), base.contentHash());
}

TEST(StrandSet, ForEachColumnVisitsEachNonEmptyArrayInOrder) {
    StrandSet set = randomStrands(12, 24);
    set.addStrandChannel("empty", 0.0f).clear();
    std::vector<std::pair<const void*, std::size_t>> visited;
    set.forEachColumn(
        [&](const void* pointer, std::size_t bytes) { visited.emplace_back(pointer, bytes); });
    const std::size_t points = set.pointCount();
    EXPECT_EQ(visited, (std::vector<std::pair<const void*, std::size_t>>{
                           {set.ids().data(), 12 * 8},
                           {set.roots().data(), 12 * 12},
                           {set.offsets().data(), 13 * 8},
                           {set.points().data(), points * 12},
                           {set.widths().data(), points * 4},
                           {set.strandChannel("mass")->data(), 12 * 4},
                           {set.pointChannel("curl")->data(), points * 4}}));
}

TEST(StrandSet, MovingAColumnTakesTheArrayFromItsOnlyHolderAndCopiesOtherwise) {
    StrandSet source = randomStrands(20, 25);
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
    EXPECT_EQ(target.contentHash(), randomStrands(20, 25).contentHash());
    EXPECT_TRUE(source.points().empty() && source.offsets().empty() &&
                source.strandChannel("mass")->empty());

    // With a second holder the array is copied and the source keeps it.
    StrandSet other = randomStrands(20, 26);
    const StrandSet holder = other;
    target.moveColumnFrom(ColumnId::kWidths, other);
    EXPECT_NE(target.columnData(ColumnId::kWidths), other.columnData(ColumnId::kWidths));
    EXPECT_EQ(other.columnData(ColumnId::kWidths), holder.columnData(ColumnId::kWidths));
    EXPECT_EQ(values(target.widths()), values(holder.widths()));
    EXPECT_EQ(StrandSet::movedColumnCount(), moved + 7);
}

TEST(StrandSet, SharingAChannelHoldsOneArrayUntilEitherSideWrites) {
    const StrandSet source = randomStrands(20, 27);
    // The same strands with a mass of their own and no curl.
    StrandSet target = randomStrands(20, 27);
    target.removeStrandChannel("mass");
    target.removePointChannel("curl");
    target.addStrandChannel("mass", 5.0f);
    const std::vector<float>* mass = source.strandChannel("mass");
    EXPECT_TRUE(target.shareStrandChannelFrom("mass", source));
    EXPECT_TRUE(target.sharePointChannelFrom("curl", source));
    EXPECT_FALSE(target.shareStrandChannelFrom("curl", source));
    EXPECT_FALSE(target.sharePointChannelFrom("absent", source));
    EXPECT_EQ(target.strandChannel("mass"), mass);
    EXPECT_EQ(target.pointChannel("curl"), source.pointChannel("curl"));
    EXPECT_EQ(target.channelDefault("mass"), 2.0f);
    EXPECT_FALSE(target.ownsStrandChannel("mass"));
    EXPECT_FALSE(source.ownsStrandChannel("mass"));
    // A write on the target copies the array and leaves the source's values alone.
    const std::vector<float> before = *mass;
    target.addStrandChannel("mass", 0.0f)[0] = -1.0f;
    EXPECT_NE(target.strandChannel("mass"), mass);
    EXPECT_EQ(*source.strandChannel("mass"), before);
}

// Sharing a fixed column holds the source's array on both sides, owned by neither, and drops the
// target's cached extents (shared points are other points); a write on either side copies.
TEST(StrandSet, SharingAColumnHoldsOneArrayUntilEitherSideWrites) {
    StrandSet source = randomStrands(20, 28);
    source.writePoints();
    StrandSet target = randomStrands(20, 29);
    const StrandSet::Extent before = target.bounds();
    for (ColumnId column : kAllColumns) {
        target.shareColumnFrom(column, source);
        EXPECT_EQ(target.columnData(column), source.columnData(column));
        EXPECT_FALSE(target.isOwned(column));
        EXPECT_FALSE(source.isOwned(column));
    }
    EXPECT_EQ(target.bounds(), source.bounds());
    EXPECT_NE(target.bounds(), before);
    const std::vector<Vec3f> points(source.points().begin(), source.points().end());
    target.writePoints()[0].x += 1.0f;
    EXPECT_NE(target.columnData(ColumnId::kPoints), source.columnData(ColumnId::kPoints));
    EXPECT_EQ(values(source.points()), points);
}

TEST(StrandSet, LargeWritesTakeThePooledArrayLeaveSharersAloneAndGiveItBack) {
    const std::size_t points = 360000;  // 4.3 MB of points
    ArrayPool<Vec3f>& pool = ArrayPool<Vec3f>::instance();
    const struct {
        const char* name;
        std::size_t held;
        std::function<const Vec3f*(StrandSet&)> write;
    } cases[] = {
        {"copy on write", points, [](StrandSet& set) { return set.writePoints().data(); }},
        {"overwrite to another length", points / 2,
         [&](StrandSet& set) { return set.overwritePoints(points).data(); }},
        {"resize for overwrite", points / 2,
         [&](StrandSet& set) {
             set.resizeForOverwrite(points / 9, points);
             return set.points().data();
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        pool.trim();
        StrandSet source;
        source.writePoints().assign(c.held, Vec3f{1, 2, 3});
        StrandSet derived = source;
        std::vector<Vec3f> spare(points);
        const Vec3f* spareData = spare.data();
        pool.release(std::move(spare));
        EXPECT_EQ(c.write(derived), spareData);
        EXPECT_EQ(derived.pointCount(), points);
        EXPECT_TRUE(derived.isOwned(ColumnId::kPoints));
        EXPECT_TRUE(pool.pooledLengths().empty());
        // A copy keeps the values; the source keeps its own array.
        if (c.held == points) {
            EXPECT_EQ(derived.points()[1], (Vec3f{1, 2, 3}));
        }
        EXPECT_EQ(source.pointCount(), c.held);
        EXPECT_EQ(source.points()[0], (Vec3f{1, 2, 3}));
        derived = StrandSet();
        EXPECT_EQ(pool.pooledLengths(), std::vector<std::size_t>{points});
    }
    pool.trim();
    // Owned at the length asked for already: the same array, values kept.
    StrandSet owned;
    owned.writePoints().assign(points, Vec3f{1, 2, 3});
    const Vec3f* array = owned.points().data();
    EXPECT_EQ(owned.overwritePoints(points).data(), array);
    EXPECT_EQ(owned.points()[5], (Vec3f{1, 2, 3}));
    EXPECT_EQ(owned.overwriteWidths(3).size(), 3u);
    // A small set sizes every column, each of its own.
    StrandSet small;
    small.resizeForOverwrite(3, 7);
    EXPECT_EQ(small.strandCount(), 3u);
    EXPECT_EQ(small.offsets().size(), 4u);
    EXPECT_EQ(small.roots().size(), 3u);
    EXPECT_EQ(small.widths().size(), 7u);
    for (const ColumnId column : kAllColumns)
        EXPECT_TRUE(small.isOwned(column));
}

}  // namespace
}  // namespace velmorin
