#include "strands/strand_changes.h"

#include "strands/strand_set.h"
#include "strands/test/test_strands.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <string>

namespace velmorin {
namespace {

using test::onOneAndTwoThreads;
using test::randomStrands;
using Strands = std::vector<std::uint64_t>;

std::shared_ptr<const StrandSet> share(StrandSet set) {
    return std::make_shared<const StrandSet>(std::move(set));
}

Vec3f& firstPoint(StrandSet& set, std::size_t strand) {
    return set.writePoints()[set.pointRange(strand).begin];
}

TEST(StrandDifference, NullMeansEverythingAndTheSameSetMeansNothing) {
    const auto set = share(randomStrands(10, 1));
    EXPECT_EQ(strandDifference(nullptr, set), nullptr);
    EXPECT_EQ(strandDifference(set, nullptr), nullptr);
    for (const auto& next : {set, share(randomStrands(10, 1))}) {  // itself, an equal rebuild
        const auto changes = strandDifference(set, next);
        ASSERT_NE(changes, nullptr);
        EXPECT_FALSE(changes->all || changes->attachmentChanged);
        EXPECT_TRUE(changes->strands.empty());
        EXPECT_TRUE(changes->sameLayout);
    }
}

TEST(StrandDifference, ListsTheStrandsWithAnyDifferingRawValueInOrder) {
    StrandSet base = randomStrands(600, 2);
    base.addStrandChannel("clumpId", 0.0f);
    base.addPointChannel("tubeU", 0.0f);
    firstPoint(base, 7).x = std::numeric_limits<float>::quiet_NaN();
    ASSERT_GT(base.pointRange(40).count, 1u);
    const auto previous = share(base);

    StrandSet next = base;
    firstPoint(next, 512).z += 1.0f;                                      // a point
    next.writeWidths()[next.pointRange(40).begin + 1] = 9.0f;             // a width
    next.addStrandChannel("clumpId", 0)[300] = 3.0f;                      // a strand channel
    next.addPointChannel("tubeU", 0)[next.pointRange(41).begin] = -0.0f;  // +0 to -0: new bits
    next.addPointChannel("curl", 0)[next.pointRange(599).begin] += 0.5f;  // a point channel
    firstPoint(next, 7).x = std::numeric_limits<float>::quiet_NaN();      // the same NaN: none
    const auto changes = strandDifference(previous, share(next));
    ASSERT_NE(changes, nullptr);
    EXPECT_EQ(changes->strands, (Strands{40, 41, 300, 512, 599}));
    EXPECT_TRUE(changes->sameLayout);
    EXPECT_FALSE(changes->all || changes->attachmentChanged);

    next.setAttachment(std::make_shared<int>(1));
    const auto withAttachment = strandDifference(previous, share(next));
    ASSERT_NE(withAttachment, nullptr);
    EXPECT_TRUE(withAttachment->attachmentChanged);
    EXPECT_EQ(withAttachment->strands.size(), 5u);
}

TEST(StrandDifference, FindsAChangedBitAtEveryPlaceInAStrandOfAnyLength) {
    // Lengths around the blocks a strand is compared in, short and long.
    for (const std::size_t points : {1u, 2u, 3u, 5u, 8u, 11u, 43u, 60u}) {
        const auto previous = test::gridStrands(3, points, points);
        for (std::size_t word = 0; word < 4 * points; ++word) {
            SCOPED_TRACE(std::to_string(points) + " points, word " + std::to_string(word));
            StrandSet next = *previous;
            const std::size_t at = next.pointRange(1).begin;
            // The points' words first, then the widths'; the lowest bit only.
            float& value = word < 3 * points ? (&next.writePoints()[at].x)[word]
                                             : next.writeWidths()[at + word - 3 * points];
            value = std::bit_cast<float>(floatBits(value) ^ 1u);
            const auto changes = strandDifference(previous, share(next));
            ASSERT_NE(changes, nullptr);
            EXPECT_EQ(changes->strands, Strands{1});
            EXPECT_EQ(changes->pointsChanged, word < 3 * points);
            EXPECT_EQ(changes->widthsChanged, word >= 3 * points);
        }
    }
}

TEST(StrandDifference, NamesTheColumnsThatDiffer) {
    StrandSet base = randomStrands(600, 3);
    base.addStrandChannel("clumpId", 0.0f);
    base.addStrandChannel("melanin", 0.5f);
    base.addPointChannel("tubeU", 0.0f);
    const auto previous = share(base);
    using Edit = void (*)(StrandSet&);
    struct Case {
        const char* what;
        Edit edit;
        bool points;
        bool widths;
        std::vector<std::string> channels;
    };
    const Case cases[] = {
        {"nothing", [](StrandSet&) {}, false, false, {}},
        // A point or a width alone: FindsAChangedBitAtEveryPlaceInAStrandOfAnyLength.
        {"strand channels, one rewritten with the same values",
         [](StrandSet& s) {
             s.addStrandChannel("melanin", 0)[0] = 0.25f;
             s.addStrandChannel("clumpId", 0);  // written, equal
         },
         false,
         false,
         {"melanin"}},
        {"a point channel and a point",
         [](StrandSet& s) {
             s.addPointChannel("tubeU", 0)[s.pointCount() - 1] = 1.0f;
             firstPoint(s, 2).x -= 1.0f;
         },
         true,
         false,
         {"tubeU"}},
    };
    for (const Case& c : cases) {
        StrandSet next = base;
        c.edit(next);
        const auto changes = strandDifference(previous, share(next));
        ASSERT_NE(changes, nullptr) << c.what;
        EXPECT_EQ(changes->pointsChanged, c.points) << c.what;
        EXPECT_EQ(changes->widthsChanged, c.widths) << c.what;
        EXPECT_FALSE(changes->allChannels) << c.what;
        EXPECT_EQ(changes->channels, c.channels) << c.what;
    }
}

TEST(StrandChanges, SaysWhetherAReaderSeesAChange) {
    StrandChanges changes;  // a note that cannot tell names every column
    const std::vector<std::string_view> reads = {"rachis"};
    EXPECT_FALSE(changes.onlyOtherChannels(reads));
    EXPECT_TRUE(changes.channelMayDiffer("anything"));
    changes.pointsChanged = false;
    changes.widthsChanged = false;
    EXPECT_FALSE(changes.onlyOtherChannels(reads));  // still any channel
    changes.allChannels = false;
    changes.addChannel("melanin");
    changes.addChannel("melanin");
    EXPECT_EQ(changes.channels, std::vector<std::string>{"melanin"});
    EXPECT_TRUE(changes.onlyOtherChannels(reads));
    changes.addChannel("rachis");
    EXPECT_FALSE(changes.onlyOtherChannels(reads));
    EXPECT_TRUE(changes.onlyOtherChannels({}));
    changes.widthsChanged = true;
    EXPECT_FALSE(changes.onlyOtherChannels({}));
}

TEST(StrandDifference, AnyChangeOfLayoutMeansEverythingChanged) {
    StrandSet base = randomStrands(300, 3);
    const auto payload = std::make_shared<int>(1);
    base.writeAttachmentList(0).push_back(payload);
    const auto previous = share(base);
    auto everything = [&](auto&& edit) {
        StrandSet next = base;
        edit(next);
        return strandDifference(previous, share(std::move(next))) == nullptr;
    };
    EXPECT_FALSE(everything([](StrandSet&) {}));
    EXPECT_TRUE(everything([](StrandSet& s) { s.addStrand(1, {}, std::vector<Vec3f>(1)); }));
    EXPECT_TRUE(everything([](StrandSet& s) {  // one more point, as many strands
        s.writePoints().push_back({});
        s.writeWidths().push_back(1.0f);
        s.writeOffsets().back() += 1;
        s.addPointChannel("curl", 0).push_back(0);
    }));
    EXPECT_TRUE(everything([](StrandSet& s) {  // the same points split differently
        std::vector<std::uint64_t>& offsets = s.writeOffsets();
        offsets[1] = offsets[1] < offsets[2] ? offsets[1] + 1 : offsets[1] - 1;
    }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.writeIds()[299] += 1; }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.writeRoots()[0].v = 0.5f; }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.writeWidths().push_back(1.0f); }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.addStrandChannel("flyaway", 0.0f); }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.removePointChannel("curl"); }));
    EXPECT_TRUE(everything([](StrandSet& s) { s.writeAttachmentList(0).clear(); }));
    EXPECT_TRUE(everything([&](StrandSet& s) { s.writeAttachmentList(1).push_back(payload); }));
    EXPECT_TRUE(everything([](StrandSet& s) {  // another default, the same values
        const std::vector<float> mass = *s.strandChannel("mass");
        s.removeStrandChannel("mass");
        s.addStrandChannel("mass", 3.0f) = mass;
    }));
    // A NaN default equals nothing, not even itself.
    StrandSet withNan = base;
    withNan.addPointChannel("odd", std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(strandDifference(share(withNan), share(withNan)), nullptr);
}

TEST(StrandDifference, IsTheSameAtOneAndTwoThreads) {
    const StrandSet base = randomStrands(20000, 5);
    StrandSet next = base;
    std::vector<Vec3f>& points = next.writePoints();
    std::vector<float>& mass = next.addStrandChannel("mass", 0);
    Strands expected;
    for (std::size_t s = 0; s < next.strandCount(); s += 97) {
        if (next.pointRange(s).count == 0) continue;
        points[next.pointRange(s).begin].x += 1.0f;
        if (s % 2) mass[s] += 1.0f;
        expected.push_back(s);
    }
    const auto previous = share(base), shared = share(next);
    const auto [one, two] = onOneAndTwoThreads([&] { return strandDifference(previous, shared); });
    ASSERT_TRUE(one && two);
    EXPECT_EQ(one->strands, expected);
    EXPECT_EQ(two->strands, expected);
}

}  // namespace
}  // namespace velmorin
