#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/hash.h"
#include "base/test/expect_message.h"
#include "graph/errors.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

using test::expectPointsNear;
using test::handStrands;
using test::randomWalk;
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

// Strands that have the even count already, as a Scatter grows them for this Resample, keep the
// input's offsets, shared; a zero-length one among them keeps its points as they came. One strand
// of another count gives the result offsets of its own.
TEST(Resample, KeepsTheInputsOffsetsWhereNoCountChanges) {
    const std::vector<Vec3f> bent = {{0, 0, 0}, {0, 3, 0}, {0, 3.5f, 0}, {1, 4, 0}, {1, 5, 0}};
    const auto even = handStrands({bent, straight(5, 0.0f), straight(5, 2.0f)});
    const auto out = resample(4).run(even);
    EXPECT_EQ(out->columnData(ColumnId::kOffsets), even->columnData(ColumnId::kOffsets));
    EXPECT_EQ(test::values(out->strandPoints(1)), straight(5, 0.0f));
    // The bent strand is still spread at equal steps of its length (1.25 + 3 + 0.5 + ...).
    EXPECT_NE(test::values(out->strandPoints(0)), bent);
    const auto mixed = handStrands({bent, straight(3)});
    const auto redone = resample(4).run(mixed);
    EXPECT_NE(redone->columnData(ColumnId::kOffsets), mixed->columnData(ColumnId::kOffsets));
    EXPECT_EQ(test::values(redone->offsets()), (std::vector<std::uint64_t>{0, 5, 10}));
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

// The even walk written plainly, one strand at a time: the segment is searched from the root for
// every new point, and the columns are read from it.
struct PlainResample {
    std::vector<Vec3f> points;
    std::vector<float> widths, curl;
};
PlainResample plainEven(const StrandSet& in, std::uint32_t segments) {
    PlainResample out;
    const std::vector<float>& curl = *in.pointChannel("curl");
    for (std::size_t s = 0; s < in.strandCount(); ++s) {
        const std::span<const Vec3f> p = in.strandPoints(s);
        const std::size_t first = in.pointRange(s).begin;
        std::vector<float> arcs(p.size(), 0.0f);
        float total = 0.0f;
        for (std::size_t k = 1; k < p.size(); ++k)
            arcs[k] = total += length(p[k] - p[k - 1]);
        if (p.size() < 2 || !(total > 0.0f)) {
            for (std::size_t k = 0; k < p.size(); ++k) {
                out.points.push_back(p[k]);
                out.widths.push_back(in.widths()[first + k]);
                out.curl.push_back(curl[first + k]);
            }
            continue;
        }
        for (std::uint32_t k = 0; k <= segments; ++k) {
            const float arc = std::clamp(
                total * static_cast<float>(k) / static_cast<float>(segments), 0.0f, total);
            std::size_t j = 0;
            while (j + 2 < p.size() && arcs[j + 1] < arc)
                ++j;
            const float span = arcs[j + 1] - arcs[j];
            const float f = span > 0.0f ? std::clamp((arc - arcs[j]) / span, 0.0f, 1.0f) : 0.0f;
            const Vec3f point = k == 0          ? p.front()
                                : k == segments ? p.back()
                                                : lerp(p[j], p[j + 1], f);
            out.points.push_back(point);
            const auto at = [&](const float* column) {
                return column[first + j] + (column[first + j + 1] - column[first + j]) * f;
            };
            out.widths.push_back(at(in.widths().data()));
            out.curl.push_back(at(curl.data()));
        }
    }
    return out;
}

std::vector<std::uint32_t> bitsOf(std::span<const float> values) {
    std::vector<std::uint32_t> bits;
    for (const float v : values)
        bits.push_back(floatBits(v));
    return bits;
}
std::vector<std::uint32_t> bitsOf(std::span<const Vec3f> points) {
    return bitsOf(std::span<const float>(&points.data()->x, points.size() * 3));
}

TEST(Resample, EvenWalkGivesThePlainFormulasBitsOnAwkwardStrands) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<std::vector<Vec3f>> shapes = {
        straight(2, 0.7f),                                        // one segment
        {{0, 0, 0}, {0, 1, 0}, {0, 1, 0}, {0, 1, 0}, {1, 1, 0}},  // zero-length segments inside
        {{0, 0, 0}, {0, 0, 0}, {0, 2, 0}, {0, 2, 0}},             // and at both ends
        straight(5, 0.0f),                                        // no length: kept
        {{0, 0, 0}, {nan, 1, 0}, {0, 2, 0}},                      // no measurable length: kept
        {{0, 0, 0}, {1e-30f, 0, 0}, {2e-30f, 0, 0}},              // steps too small to square
        straight(1),                                              // one point: kept
    };
    // Crooked strands of random counts, one of them longer than any scratch a kernel keeps.
    for (std::uint64_t s = 0; s < 40; ++s) {
        const std::size_t count = s == 7 ? 700 : 2 + hashCombine(s, 1) % 30;
        std::vector<Vec3f> shape(count);
        for (std::size_t k = 1; k < count; ++k)
            shape[k] = shape[k - 1] + Vec3f{unitFloat(hashCombine(s, 3 * k)) - 0.5f,
                                            unitFloat(hashCombine(s, 3 * k + 1)),
                                            unitFloat(hashCombine(s, 3 * k + 2)) - 0.5f};
        shapes.push_back(std::move(shape));
    }
    // Nine of each in a row: eight go through the lanes side by side, the ninth alone.
    constexpr std::size_t kCopies = 9;
    std::vector<std::vector<Vec3f>> copies;
    for (const std::vector<Vec3f>& shape : shapes)
        copies.insert(copies.end(), kCopies, shape);
    auto strands = std::make_shared<StrandSet>(*handStrands(copies));
    std::vector<float>& widths = strands->writeWidths();
    std::vector<float>& curl = strands->addPointChannel("curl", 0.0f);
    for (std::size_t p = 0; p < widths.size(); ++p) {
        widths[p] = unitFloat(hashCombine(p, 11));
        curl[p] = unitFloat(hashCombine(p, 12)) * 4.0f - 2.0f;
    }
    // Without a point channel to carry, strands of one count go through the lanes.
    auto bare = std::make_shared<StrandSet>(*handStrands(copies));
    bare->writeWidths() = widths;
    for (const std::uint32_t segments : {1u, 5u, 16u, 100u}) {
        SCOPED_TRACE(segments);
        const PlainResample want = plainEven(*strands, segments);
        const auto [one, two] =
            test::onOneAndTwoThreads([&] { return resample(segments).run(strands); });
        const auto [bareOne, bareTwo] =
            test::onOneAndTwoThreads([&] { return resample(segments).run(bare); });
        for (const auto& got : {one, two, bareOne, bareTwo}) {
            EXPECT_EQ(bitsOf(got->points()), bitsOf(std::span<const Vec3f>(want.points)));
            EXPECT_EQ(bitsOf(got->widths()), bitsOf(std::span<const float>(want.widths)));
        }
        for (const auto& got : {one, two})
            EXPECT_EQ(bitsOf(*got->pointChannel("curl")),
                      bitsOf(std::span<const float>(want.curl)));
        // Steps whose squares are 0 or not a number measure no length: those strands are kept.
        EXPECT_EQ(one->pointRange(4 * kCopies).count, 3u);
        EXPECT_EQ(one->pointRange(5 * kCopies + 8).count, 3u);
        EXPECT_EQ(one->pointRange(7 * kCopies).count, segments + 1);
    }
}

// Widths that are one number along each strand come back from the walk bit for bit, so a result
// whose strands keep their counts shares the input's widths instead of writing fresh ones. A strand
// whose widths vary, a negative zero (the blend adds a positive zero to it), a width that is not
// finite or a change of counts makes the walk write them all. Either way every bit is the plain
// formula's, on one and two threads, in the lanes and one by one.
TEST(Resample, SharesTheWidthsTheWalkGivesBack) {
    std::vector<std::vector<Vec3f>> shapes = {straight(1), straight(17, 0.0f)};
    for (std::uint64_t s = 0; s < 300; ++s)
        shapes.push_back(randomWalk(17, s));
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        const char* what;
        std::uint32_t segments;
        float width;  // strand 40's widths; NAN: one point of it differs
        bool shared;
    };
    const Case cases[] = {{"one width a strand", 16, 0.03f, true},
                          {"one point differs", 16, NAN, false},
                          {"negative zero", 16, -0.0f, false},
                          {"infinite", 16, inf, false},
                          {"other counts", 12, 0.03f, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto strands = std::make_shared<StrandSet>(*handStrands(shapes));
        std::vector<float>& widths = strands->writeWidths();
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const StrandSet::PointRange range = strands->pointRange(s);
            std::fill_n(widths.begin() + static_cast<std::ptrdiff_t>(range.begin), range.count,
                        s == 40 && !std::isnan(c.width) ? c.width : 0.001f * static_cast<float>(s));
        }
        if (std::isnan(c.width)) widths[strands->pointRange(40).begin + 5] = 0.5f;
        StrandSet withCurl(*strands);
        withCurl.addPointChannel("curl", 0.0f);
        const PlainResample want = plainEven(withCurl, c.segments);
        const auto [one, two] =
            test::onOneAndTwoThreads([&] { return resample(c.segments).run(strands); });
        for (const auto& got : {one, two}) {
            EXPECT_EQ(got->columnData(ColumnId::kWidths) == strands->columnData(ColumnId::kWidths),
                      c.shared);
            EXPECT_EQ(bitsOf(got->points()), bitsOf(std::span<const Vec3f>(want.points)));
            EXPECT_EQ(bitsOf(got->widths()), bitsOf(std::span<const float>(want.widths)));
        }
    }
}

TEST(Resample, ARedoOfEveryStrandNamesTheColumnsThatMoveWithThePoints) {
    test::EvaluationSwitchesRestored restore;
    setIncrementalCheck(true);
    test::registerEvalTestOperators();
    auto strands = std::make_shared<StrandSet>(*test::gridStrands(600, 9, 4));
    strands->addPointChannel("curl", 0.5f);
    std::vector<std::uint64_t> every(strands->strandCount());
    for (std::size_t s = 0; s < every.size(); ++s)
        every[s] = s;
    Graph graph;
    const std::uint32_t source = graph.addNode("EvalScene", "scene");
    const std::uint32_t node = graph.addNode("Resample", "resample");
    graph.operatorOf(node).paramSet.set("segments", std::int64_t{5});
    graph.connect(source, node, 0);
    SceneInputs scene;
    scene["groom"] = SceneInput{Value(std::shared_ptr<const StrandSet>(strands)), 1};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    graph.evaluate(node, ctx);
    // Only points move, yet a resampled width and point channel are read where the points lie.
    scene["groom"] = SceneInput{Value(test::moved(*strands, every, 0.25f)), 2};
    graph.evaluate(node, ctx);
    EXPECT_EQ(graph.runs[node], "incremental 600");
    const auto& noted = graph.node(node).runtime.changes.front();
    ASSERT_TRUE(noted);
    EXPECT_FALSE(noted->all);
    EXPECT_TRUE(noted->sameLayout);
    EXPECT_TRUE(noted->pointsChanged);
    EXPECT_TRUE(noted->widthsChanged);
    EXPECT_TRUE(noted->channelMayDiffer("curl"));
    EXPECT_EQ(noted->strands, every);
}

}  // namespace
}  // namespace velmorin
