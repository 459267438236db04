#include "strands/guide_conversion.h"

#include "strands/test/test_strands.h"

#include <gtest/gtest.h>

namespace velmorin {
namespace {

using test::onOneAndTwoThreads;
using test::randomStrands;
using test::values;

Guide makeGuide(std::uint64_t id, std::size_t pointCount) {
    Guide guide;
    guide.id = id;
    guide.root = {static_cast<std::int32_t>(id), 0.25f, 0.5f};
    for (std::size_t k = 0; k < pointCount; ++k)
        guide.points.push_back({float(id), float(k), 0});
    return guide;
}

TEST(GuideConversion, GuidesBecomeStrandsWithChannelsForEveryNameSeen) {
    GuideSet guides{{makeGuide(10, 3), makeGuide(11, 0), makeGuide(12, 2)}};
    guides.guides[0].attributes = {{"stiffness", 0.5f}};
    guides.guides[2].attributes = {{"stiffness", 0.75f}, {"clumpId", 4.0f}};
    guides.guides[0].pointAttributes = {{"tubeU", {1, 2, 3}}, {"bad", {1, 2}}};
    guides.guides[2].pointAttributes = {{"tubeU", {4, 5}}};

    const StrandSet strands = strandsFromGuides(guides);
    std::string message;
    EXPECT_TRUE(strands.validate(message)) << message;
    EXPECT_EQ(values(strands.ids()), (std::vector<std::uint64_t>{10, 11, 12}));
    EXPECT_EQ(strands.roots()[2], (StrandRoot{12, 0.25f, 0.5f}));
    EXPECT_EQ(strands.strandPoints(0)[2], (Vec3f{10, 2, 0}));
    EXPECT_EQ(strands.strandPoints(1).size(), 0u);
    EXPECT_EQ(values(strands.widths()), std::vector<float>(5, 1.0f));
    EXPECT_EQ(strands.strandChannelNames(), (std::vector<std::string>{"clumpId", "stiffness"}));
    EXPECT_EQ(values(strands.strandChannel("stiffness")), (std::vector<float>{0.5f, 0, 0.75f}));
    EXPECT_EQ(values(strands.strandChannel("clumpId")), (std::vector<float>{0, 0, 4}));
    EXPECT_EQ(values(strands.pointChannel("tubeU")), (std::vector<float>{1, 2, 3, 4, 5}));
    // A layer of the wrong length is left out; its name still makes a channel.
    EXPECT_EQ(values(strands.pointChannel("bad")), std::vector<float>(5, 0.0f));
    EXPECT_EQ(strandsFromGuides(GuideSet{}).strandCount(), 0u);
}

// Strands to guides and back give the strands again, ids, roots, points and channels, all but the
// widths (guides have none) and the preview marks (guides leave them behind).
TEST(GuideConversion, RoundTripKeepsEverythingButWidthsAndPreviewMarks) {
    StrandSet strands = randomStrands(500, 2);
    std::vector<float>& widths = strands.writeWidths();
    std::fill(widths.begin(), widths.end(), 1.0f);
    StrandSet marked = strands;
    marked.addStrandChannel("_preview", 1.0f);
    EXPECT_EQ(strandsFromGuides(guidesFromStrands(marked)).contentHash(), strands.contentHash());
}

TEST(GuideConversion, IsTheSameAtOneAndTwoThreads) {
    const StrandSet strands = randomStrands(3000, 3);
    auto [one, two] = onOneAndTwoThreads([&] { return guidesFromStrands(strands); });
    ASSERT_EQ(one.guides.size(), two.guides.size());
    for (std::size_t g = 0; g < one.guides.size(); ++g) {
        EXPECT_EQ(one.guides[g].points, two.guides[g].points);
        EXPECT_EQ(one.guides[g].attributes, two.guides[g].attributes);
        EXPECT_EQ(one.guides[g].pointAttributes, two.guides[g].pointAttributes);
    }
    // Back again, from guides whose names vary and whose layers do not all fit.
    for (std::size_t g = 0; g < one.guides.size(); g += 3) {
        one.guides[g].attributes["every3"] = static_cast<float>(g);
        one.guides[g].pointAttributes["short"] = {1.0f};
    }
    const auto [fromOne, fromTwo] = onOneAndTwoThreads([&] { return strandsFromGuides(one); });
    EXPECT_EQ(fromOne.contentHash(), fromTwo.contentHash());
    EXPECT_EQ(values(fromOne.strandChannel("every3"))[2997], 2997.0f);
    EXPECT_EQ(values(fromOne.strandChannel("every3"))[2998], 0.0f);
}

}  // namespace
}  // namespace velmorin
