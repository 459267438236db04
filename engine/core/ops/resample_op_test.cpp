#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "graph/errors.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::expectPointsNear;
using test::handStrands;
using test::ShapeRun;
using test::straight;

ShapeRun resample(std::int64_t segments, const std::string& mode = "even",
                  std::int64_t minSegments = 3) {
    return ShapeRun(
        "Resample",
        {{"segments", segments}, {"mode", mode}, {"minSegments", minSegments}, {"maxAngle", 45.0}});
}

TEST(Resample, EvenStepsCarryWidthsAndPointChannelsAlong) {
    auto strands = std::make_shared<StrandSet>(*handStrands({{{0, 0, 0}, {0, 1, 0}, {0, 3, 0}}}));
    strands->writeWidths() = {0.1f, 0.2f, 0.4f};
    strands->addPointChannel("curl", 0.0f) = {1.0f, 2.0f, 4.0f};
    strands->addStrandChannel("mass", 0.0f)[0] = 7.0f;
    // Arcs 0, 1.5 and 3 of 3; 1.5 lies a quarter of the way along the second segment.
    const auto out = resample(2).run(strands);
    expectPointsNear(out->strandPoints(0), {{0, 0, 0}, {0, 1.5f, 0}, {0, 3, 0}});
    EXPECT_EQ(test::values(out->widths()), (std::vector<float>{0.1f, 0.25f, 0.4f}));
    EXPECT_EQ(test::values(out->pointChannel("curl")), (std::vector<float>{1.0f, 2.5f, 4.0f}));
    EXPECT_EQ(test::values(out->strandChannel("mass")), std::vector<float>{7.0f});
    EXPECT_EQ(test::values(out->ids()), test::values(strands->ids()));
}

TEST(Resample, CountsByMode) {
    // An L: two unit steps along x, a right angle, two up.
    const std::vector<Vec3f> bent = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {2, 1, 0}, {2, 2, 0}};
    const auto strands = handStrands({straight(5), straight(3, 0.5f), bent, straight(2, 2.0f)});
    struct Case {
        ShapeRun run;
        std::vector<std::uint32_t> counts;
    };
    const Case cases[] = {
        {resample(4), {5, 5, 5, 5}},
        // Lengths 4, 1, 4 and 2 of a longest 4: 8 segments in proportion, at least 3.
        {resample(8, "length"), {9, 4, 9, 5}},
        // The walk places a point only at the corner; straight strands get the fewest.
        {resample(8, "curvature", 2), {3, 3, 3, 3}},
        {resample(8, "curvature", 3), {4, 4, 4, 4}},
        {resample(1, "curvature", 1), {2, 2, 2, 2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::get<std::string>(c.run.params.at("mode")));
        const auto out = c.run.run(strands);
        ASSERT_EQ(out->strandCount(), c.counts.size());
        for (std::size_t s = 0; s < c.counts.size(); ++s)
            EXPECT_EQ(out->pointRange(s).count, c.counts[s]) << "strand " << s;
    }
    // With two segments the corner itself is the middle point; a third halves the longer side
    // (the first, when both are as long).
    expectPointsNear(resample(8, "curvature", 2).run(strands)->strandPoints(2),
                     {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}});
    expectPointsNear(resample(8, "curvature", 3).run(strands)->strandPoints(2),
                     {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {2, 2, 0}});
}

TEST(Resample, KeepsWhatItMustAndSaysWhatModeIsWrong) {
    auto strands = std::make_shared<StrandSet>(
        *handStrands({straight(3), straight(7), straight(4, 0.0f), straight(1)}));
    // Strand 1 is braided: it keeps the points its weave is drawn with.
    strands->addStrandChannel("braidId", -1.0f)[1] = 4.0f;
    const auto out = resample(4).run(strands);
    EXPECT_EQ(out->pointRange(0).count, 5u);
    EXPECT_EQ(out->pointRange(1).count, 7u);
    EXPECT_EQ(out->pointRange(2).count, 4u);  // no length to spread points over
    EXPECT_EQ(out->pointRange(3).count, 1u);
    // Segments 0 hands the strands on as they came.
    auto keep = resample(0).make();
    const std::vector<Value> inputs{Value(std::shared_ptr<const StrandSet>(strands))};
    EXPECT_EQ(keep->evaluate(EvalContext{}, inputs).get<StrandSet>(), strands);

    auto wrong = resample(4).make();
    wrong->paramSet.values["mode"] = std::string("wavy");
    test::expectMessage<GraphError>([&] { wrong->evaluate(EvalContext{}, inputs); },
                                    "Resample: mode must be even, length or curvature");
}

TEST(Resample, ItsSegmentsSetTheResolutionOfTheScatterBeforeIt) {
    Graph graph;
    const std::uint32_t scatter = graph.addNode("Scatter", "scatter");
    const std::uint32_t first = graph.addNode("Resample", "fine");
    const std::uint32_t second = graph.addNode("Resample", "coarse");
    graph.operatorOf(first).paramSet.set("segments", std::int64_t{24});
    graph.operatorOf(second).paramSet.set("segments", std::int64_t{6});
    graph.connect(scatter, first, 0);
    graph.connect(first, second, 0);
    graph.setOutput(second);
    const auto resolutions = graph.strandResolutions(true);
    ASSERT_EQ(resolutions.count(scatter), 1u);
    EXPECT_EQ(resolutions.at(scatter).segments, 24);
    EXPECT_EQ(graph.resolutionReport(first),
              "Sets the resolution of Scatter scatter (a Resample sets only its own "
              "branch's)");
}

TEST(Resample, EvenAndCurvatureRerunOnlyChangedStrands) {
    const auto strands = test::gridStrands(1000, 9, 6);
    const std::vector<std::uint64_t> movedStrands = {3, 500, 999};
    for (const char* mode : {"even", "curvature"}) {
        SCOPED_TRACE(mode);
        const auto outcome = test::incrementalAfterMove(resample(5, mode), strands, movedStrands);
        EXPECT_EQ(outcome.run, "incremental 3");
        EXPECT_TRUE(outcome.sameAsFull);
    }
    // The length mode reads the longest strand, which a change anywhere may move.
    EXPECT_EQ(test::incrementalAfterMove(resample(5, "length"), strands, movedStrands).run,
              "full 3");
}

}  // namespace
}  // namespace velmorin
