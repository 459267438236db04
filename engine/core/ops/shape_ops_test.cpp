#include <gtest/gtest.h>

#include <algorithm>

#include "graph/operator.h"
#include "graph/registry.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::ShapeRun;

// Each shape operator with settings under which it changes most strands.
std::vector<ShapeRun> busyRuns() {
    return {
        ShapeRun("Length", {{"length", 0.7}, {"fraction", 0.5}, {"randomness", 0.4}}),
        ShapeRun("Width", {{"width", 0.02}, {"randomness", 0.5}}),
        ShapeRun("Resample", {{"segments", std::int64_t{6}},
                              {"mode", std::string("curvature")},
                              {"minSegments", std::int64_t{2}},
                              {"maxAngle", 20.0}}),
        ShapeRun("Curl", {{"radius", 0.2},
                          {"frequency", 1.5},
                          {"spacingRandom", 0.3},
                          {"phaseRandom", 1.0},
                          {"weight", 0.5}}),
    };
}

TEST(ShapeOps, RegisteredWithTheirTextsInMenuOrder) {
    struct Entry {
        const char* type;
        const char* category;
        const char* description;
        const char* keywords;
    };
    const Entry entries[] = {
        {"Length", "shape", "Trims strands to a share of their length.",
         "trim cut shorten haircut"},
        {"Width", "shape", "Strand thickness, root to tip.", "thickness radius taper"},
        {"Resample", "shape", "Evens out the points along each strand.",
         "points segments cvs even"},
        {"Twist", "look", "Twists strands around a lock or clump: ropes, twisted locks.",
         "rope twisted locks"},
        {"Noise", "look",
         "Random displacement; on a fraction of the strands at a high frequency, frizz.",
         "frizz random jitter"},
        {"Curl", "look", "Helical curls around each strand.", "coil wave helix kinky afro"},
    };
    const OperatorRegistry& registry = OperatorRegistry::instance();
    for (const Entry& entry : entries) {
        SCOPED_TRACE(entry.type);
        const OperatorInfo* info = registry.info(entry.type);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->category, entry.category);
        EXPECT_EQ(info->description, entry.description);
        EXPECT_EQ(info->keywords, entry.keywords);
        const auto op = registry.create(entry.type);
        EXPECT_EQ(op->category(), entry.category);
        // A node that changes point counts leaves affect alone.
        EXPECT_EQ(affectApplies(*op), std::string(entry.type) != "Resample");
    }
}

TEST(ShapeOps, RootsStayAndShortStrandsPassUnchanged) {
    // Strands of 0 to 12 points: the empty and one-point ones must come out as they went in.
    const auto strands = test::mixedStrands(300, 5);
    for (const ShapeRun& run : busyRuns()) {
        SCOPED_TRACE(run.type);
        const auto out = run.run(strands);
        ASSERT_EQ(out->strandCount(), strands->strandCount());
        std::size_t changed = 0;
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const auto before = strands->strandPoints(s);
            const auto after = out->strandPoints(s);
            if (before.empty()) {
                EXPECT_TRUE(after.empty()) << "strand " << s;
                continue;
            }
            ASSERT_FALSE(after.empty()) << "strand " << s;
            EXPECT_EQ(after[0], before[0]) << "strand " << s;
            const auto rangeBefore = strands->pointRange(s);
            const auto rangeAfter = out->pointRange(s);
            const auto widthsBefore =
                strands->widths().subspan(rangeBefore.begin, rangeBefore.count);
            const auto widthsAfter = out->widths().subspan(rangeAfter.begin, rangeAfter.count);
            const bool same =
                std::equal(before.begin(), before.end(), after.begin(), after.end()) &&
                std::equal(widthsBefore.begin(), widthsBefore.end(), widthsAfter.begin(),
                           widthsAfter.end());
            if (before.size() < 2) {
                EXPECT_TRUE(same) << "strand " << s;
                continue;
            }
            changed += !same;
        }
        EXPECT_GT(changed, strands->strandCount() / 4);
    }
}

TEST(ShapeOps, OneAndTwoThreadsGiveTheSameBits) {
    const auto strands = test::mixedStrands(3000, 8);
    for (const ShapeRun& run : busyRuns()) {
        SCOPED_TRACE(run.type);
        const auto [one, two] =
            test::onOneAndTwoThreads([&] { return run.run(strands)->contentHash(); });
        EXPECT_EQ(one, two);
    }
}

TEST(ShapeOps, AChangeToOnePercentRerunsOnlyThoseStrands) {
    const auto strands = test::gridStrands(2000, 9, 4);
    std::vector<std::uint64_t> movedStrands;
    for (std::uint64_t s = 7; s < 2000; s += 100)
        movedStrands.push_back(s);
    for (const ShapeRun& run : busyRuns()) {
        SCOPED_TRACE(run.type);
        const test::IncrementalOutcome outcome =
            test::incrementalAfterMove(run, strands, movedStrands);
        EXPECT_EQ(outcome.run, "incremental 20");
        EXPECT_TRUE(outcome.sameAsFull);
    }
}

TEST(ShapeOps, AMappedParamRunsInFull) {
    // A mapped value may read the whole set (an expression of the longest strand), so a change to
    // one strand can't be kept to that strand.
    ShapeRun run("Length");
    const auto strands = test::gridStrands(200, 5, 2);
    run.params["length"] =
        ParamValue(MapReference{MapSource::Expression, "$length / $longest", {}, -1, {}, {}});
    EXPECT_EQ(test::incrementalAfterMove(run, strands, {3}).run, "full 1");
}

}  // namespace
}  // namespace velmorin
