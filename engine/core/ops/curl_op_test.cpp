#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "ops/shape_ops.h"
#include "ops/shape_support.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::handStrands;
using test::ShapeRun;
using test::straight;

// A straight strand up the y axis, 4 long in 200 segments: fine enough that chords follow the curl.
std::shared_ptr<const StrandSet> upright() {
    return handStrands({straight(201, 0.02f)});
}

float distanceOffY(const Vec3f& p) {
    return std::hypot(p.x, p.z);
}

std::vector<float> segmentLengths(std::span<const Vec3f> points) {
    std::vector<float> lengths;
    for (std::size_t k = 1; k < points.size(); ++k)
        lengths.push_back(length(points[k] - points[k - 1]));
    return lengths;
}

TEST(Curl, EveryShapeKeepsRootAndSegmentLengths) {
    // A radius wider than a turn's length allows is held to what keeps the lengths.
    for (const double radius : {0.05, 0.5})
        for (const char* shape : {"helix", "wave", "zigzag", "coil"}) {
            SCOPED_TRACE(shape + std::string(" radius ") + std::to_string(radius));
            const auto strands = upright();
            const auto out = ShapeRun("Curl", {{"shape", std::string(shape)},
                                               {"radius", radius},
                                               {"frequency", 2.0},
                                               {"coilWidths", 5.0}})
                                 .run(strands);
            const auto before = segmentLengths(strands->strandPoints(0));
            const auto after = segmentLengths(out->strandPoints(0));
            ASSERT_EQ(after.size(), before.size());
            for (std::size_t k = 0; k < before.size(); ++k)
                EXPECT_NEAR(after[k], before[k], 1e-3f) << "segment " << k;
            EXPECT_EQ(out->strandPoints(0)[0], Vec3f{});
            // The axis shrinks so that the curl's own length stays the strand's.
            EXPECT_LT(out->strandPoints(0).back().y, 3.99f);
        }
}

TEST(Curl, HelixAndCoilWindAtTheirRadiusByTurnsPerUnitOfLength) {
    // A coil's radius is coilWidths times the strand's widths (0.01): 5 widths across is 0.05,
    // whatever the radius param says.
    for (const auto& [shape, radius] : {std::pair{"helix", 0.05}, std::pair{"coil", 0.3}}) {
        SCOPED_TRACE(shape);
        const auto out = ShapeRun("Curl", {{"shape", std::string(shape)},
                                           {"radius", radius},
                                           {"coilWidths", 5.0},
                                           {"frequency", 2.0},
                                           {"randomness", 0.0}})
                             .run(upright());
        const auto points = out->strandPoints(0);
        // Eased in over the first quarter turn (1/8 of a unit, 6 segments), then the full radius.
        EXPECT_LT(distanceOffY(points[3]), 0.045f);
        for (std::size_t k = 10; k < points.size(); ++k)
            EXPECT_NEAR(distanceOffY(points[k]), 0.05f, 1e-3f) << "point " << k;
        // 2 turns per unit over 4 units: 8 turns around the y axis.
        float swept = 0.0f;
        for (std::size_t k = 2; k < points.size(); ++k) {
            const float a0 = std::atan2(points[k - 1].z, points[k - 1].x);
            const float a1 = std::atan2(points[k].z, points[k].x);
            swept += std::remainder(a1 - a0, 2.0f * std::numbers::pi_v<float>);
        }
        EXPECT_NEAR(std::abs(swept) / (2.0f * std::numbers::pi_v<float>), 8.0f, 0.1f);
    }
}

TEST(Curl, HelixFollowsABentStrandAtTheRadiusOffEachLeg) {
    // Up the y axis for 2 units, then along z for 2, the way the first frame's normal points: the
    // frame carried round the bend must turn with it and stay square to the second leg, so that
    // the helix winds at the radius around it too.
    std::vector<Vec3f> bent = straight(101, 0.02f);
    for (std::size_t k = 1; k <= 100; ++k)
        bent.push_back(Vec3f{0.0f, 2.0f, 0.02f * static_cast<float>(k)});
    const auto out = ShapeRun("Curl", {{"radius", 0.05}, {"frequency", 2.0}, {"randomness", 0.0}})
                         .run(handStrands({bent}));
    std::size_t firstLeg = 0, secondLeg = 0;
    for (const Vec3f& p : out->strandPoints(0)) {
        if (p.y > 0.5f && p.y < 1.5f) {
            EXPECT_NEAR(std::hypot(p.x, p.z), 0.05f, 1e-3f) << p.x << " " << p.y << " " << p.z;
            ++firstLeg;
        } else if (p.z > 0.5f && p.z < 1.5f) {
            EXPECT_NEAR(std::hypot(p.x, p.y - 2.0f), 0.05f, 1e-3f)
                << p.x << " " << p.y << " " << p.z;
            ++secondLeg;
        }
    }
    EXPECT_GT(firstLeg, 30u);
    EXPECT_GT(secondLeg, 30u);
}

TEST(Curl, WaveAndZigzagStayInOnePlane) {
    for (const char* shape : {"wave", "zigzag"}) {
        SCOPED_TRACE(shape);
        const auto out = ShapeRun("Curl", {{"shape", std::string(shape)},
                                           {"radius", 0.05},
                                           {"frequency", 2.0},
                                           {"randomness", 0.0}})
                             .run(upright());
        const auto points = out->strandPoints(0);
        float largest = 0.0f;
        Vec3f across{};
        for (const Vec3f& p : points) {
            const Vec3f offset{p.x, 0.0f, p.z};
            if (length(offset) > largest) {
                largest = length(offset);
                across = offset / largest;
            }
        }
        EXPECT_NEAR(largest, 0.05f, 2e-3f);
        for (const Vec3f& p : points)
            EXPECT_NEAR(length(cross(Vec3f{p.x, 0.0f, p.z}, across)), 0.0f, 1e-4f);
    }
}

TEST(Curl, NothingToCurlKeepsEveryBit) {
    const auto strands = test::mixedStrands(200, 3);
    const std::map<std::string, ParamValue> idle[] = {
        {{"frequency", 0.0}},
        {{"radius", 0.0}},
        {{"shape", std::string("coil")}, {"coilWidths", 0.0}},
    };
    for (const auto& params : idle)
        EXPECT_EQ(ShapeRun("Curl", params).run(strands)->contentHash(), strands->contentHash());
}

TEST(Curl, PhaseHalfATurnMirrorsAWave) {
    const std::map<std::string, ParamValue> wave{
        {"shape", std::string("wave")}, {"radius", 0.05}, {"frequency", 2.0}, {"randomness", 0.0}};
    auto shifted = wave;
    shifted["phase"] = 0.5;
    const auto setA = ShapeRun("Curl", wave).run(upright());
    const auto setB = ShapeRun("Curl", shifted).run(upright());
    const auto a = setA->strandPoints(0);
    const auto b = setB->strandPoints(0);
    for (std::size_t k = 20; k < a.size(); k += 20) {
        EXPECT_NEAR(a[k].x, -b[k].x, 1e-4f) << "point " << k;
        EXPECT_NEAR(a[k].z, -b[k].z, 1e-4f) << "point " << k;
    }
}

TEST(Curl, WeightStretchesWhereTurnsHangBelow) {
    const auto down = handStrands({straight(201, 0.02f, {0, -1, 0})});
    const std::map<std::string, ParamValue> base{
        {"radius", 0.05}, {"frequency", 2.0}, {"randomness", 0.0}};
    auto heavy = base;
    heavy["weight"] = 1.0;
    const auto plainSet = ShapeRun("Curl", base).run(down);
    const auto weightedSet = ShapeRun("Curl", heavy).run(down);
    const auto plain = plainSet->strandPoints(0);
    const auto weighted = weightedSet->strandPoints(0);
    // Near the root 8 turns hang below: the radius narrows there, less toward the tip.
    const float nearRoot = distanceOffY(weighted[20]);
    const float nearTip = distanceOffY(weighted[190]);
    EXPECT_LT(nearRoot, 0.8f * distanceOffY(plain[20]));
    EXPECT_LT(nearRoot, nearTip);
    // The curl, stretched, reaches further down.
    EXPECT_LT(weighted.back().y, plain.back().y);
    // A strand pointing against the pull carries no weight.
    auto against = heavy;
    against["weightDirection"] = Vec3f{0, 1, 0};
    EXPECT_EQ(ShapeRun("Curl", against).run(down)->contentHash(),
              ShapeRun("Curl", base).run(down)->contentHash());
}

// How far the chords of an upright helix of `radius` stray inside its round path: the most, over
// the segments whose ends both lie on it (past the ease-in), of the radius less the chord's
// middle's distance from the axis.
float strayInsideTheCurl(std::span<const Vec3f> points, float radius) {
    float stray = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k) {
        if (distanceOffY(points[k - 1]) < 0.999f * radius ||
            distanceOffY(points[k]) < 0.999f * radius)
            continue;
        stray = std::max(stray, radius - distanceOffY(lerp(points[k - 1], points[k], 0.5f)));
    }
    return stray;
}

TEST(Curl, ToleranceCutsCoarseSegmentsSoChordsStayNearTheCurl) {
    // Five points a unit apart: half a turn per segment, far too coarse for a round curl. A point
    // channel numbers the points, to show the new ones between the old.
    auto coarse = std::make_shared<StrandSet>(*handStrands({straight(5, 1.0f)}));
    coarse->addPointChannel("tubeU", 0.0f) = {0, 1, 2, 3, 4};
    const float radius = 0.05f;
    const std::map<std::string, ParamValue> curl{
        {"radius", double{radius}}, {"frequency", 0.5}, {"randomness", 0.0}};
    const auto cutAt = [&](double tolerance) {
        auto params = curl;
        params["tolerance"] = tolerance;
        return ShapeRun("Curl", params).run(coarse);
    };
    std::size_t lastCount = 5;
    for (const double tolerance : {0.1, 0.02, 0.002}) {
        SCOPED_TRACE(tolerance);
        const auto out = cutAt(tolerance);
        const auto points = out->strandPoints(0);
        // A smaller tolerance cuts finer; half a turn a segment at 0.002 needs 25 parts.
        EXPECT_GT(points.size(), lastCount);
        lastCount = points.size();
        EXPECT_EQ(points[0], Vec3f{});
        EXPECT_NEAR(strandLength(points), 4.0f, 1e-3f);
        EXPECT_LE(strayInsideTheCurl(points, radius), static_cast<float>(tolerance) * radius);
        EXPECT_GT(strayInsideTheCurl(points, radius), 0.0f);
        // Widths and point channels follow along the line between the points that came in.
        const std::vector<float>& numbers = *out->pointChannel("tubeU");
        EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
        EXPECT_EQ(numbers.front(), 0.0f);
        EXPECT_EQ(numbers.back(), 4.0f);
        for (const float w : out->widths())
            EXPECT_FLOAT_EQ(w, 0.01f);
    }
    EXPECT_EQ(lastCount, 4u * 25u + 1u);
    // Without it the strand keeps its five points, whose chords cut right across the curl.
    const auto uncut = ShapeRun("Curl", curl).run(coarse);
    EXPECT_EQ(uncut->pointCount(), 5u);
    EXPECT_GT(strayInsideTheCurl(uncut->strandPoints(0), radius), 0.9f * radius);
    // A radius mapped per point is read at the points that came in and carried along the line to
    // the cut ones, as the channels are.
    ShapeRun mapped("Curl", curl);
    mapped.params["tolerance"] = 0.002;
    mapped.fields["radius"] = std::make_shared<test::ListField>(
        std::vector<float>{0.05f},
        std::vector<std::vector<float>>{{0.02f, 0.04f, 0.06f, 0.08f, 0.1f}});
    const auto widening = mapped.run(coarse);
    ASSERT_EQ(widening->pointCount(), lastCount);
    const std::vector<float>& along = *widening->pointChannel("tubeU");
    for (std::size_t k = 0; k < lastCount; ++k) {
        // Past the ease-in over the first quarter turn (half a unit).
        if (along[k] < 0.6f) continue;
        EXPECT_NEAR(distanceOffY(widening->strandPoints(0)[k]), 0.02f + 0.02f * along[k], 1e-4f)
            << "point " << k;
    }
    // The same bits at any thread count, and a change to a few strands reruns them all, as the
    // cut needs a full run.
    const auto many = test::mixedStrands(2000, 6);
    auto params = curl;
    params["tolerance"] = 0.05;
    params["randomness"] = 0.3;
    params["spacingRandom"] = 0.4;
    const ShapeRun cutting("Curl", params);
    const auto [one, two] =
        test::onOneAndTwoThreads([&] { return cutting.run(many)->contentHash(); });
    EXPECT_EQ(one, two);
    const test::IncrementalOutcome outcome =
        test::incrementalAfterMove(cutting, test::gridStrands(500, 9, 4), {7, 107});
    EXPECT_EQ(outcome.run, "full 2");
    EXPECT_TRUE(outcome.sameAsFull);
    // A strand is cut and curled alike in a preview's share of the strands.
    EXPECT_EQ(test::differingInPreview(cutting, many, 0.3), 0u);
}

TEST(Curl, ClumpCoherenceSharesPhaseAndPlaneWithinAClumpOnly) {
    std::vector<std::vector<Vec3f>> lines;
    for (const Vec3f& root : {Vec3f{0, 0, 0}, Vec3f{0.2f, 0, 0}, Vec3f{5, 0, 0}}) {
        lines.push_back(straight(101, 0.02f));
        for (Vec3f& p : lines.back())
            p += root;
    }
    const auto strands = test::withClumps(*handStrands(lines), {1, 1, 2});
    for (const char* shape : {"helix", "wave"}) {
        SCOPED_TRACE(shape);
        const auto out = ShapeRun("Curl", {{"shape", std::string(shape)},
                                           {"coherence", std::string("clump")},
                                           {"frequency", 2.0},
                                           {"phaseRandom", 1.0}})
                             .run(strands);
        // Each point's offset from its own line: the same way for strands of one clump.
        const auto offset = [&](std::size_t s, std::size_t k) {
            const Vec3f p = out->strandPoints(s)[k];
            const Vec3f root = strands->strandPoints(s)[0];
            return normalized(Vec3f{p.x - root.x, 0.0f, p.z - root.z});
        };
        for (std::size_t k = 30; k < 101; k += 10)
            EXPECT_NEAR(dot(offset(0, k), offset(1, k)), 1.0f, 1e-3f) << "point " << k;
        float apart = 0.0f;
        for (std::size_t k = 30; k < 101; ++k)
            apart = std::max(apart, 1.0f - dot(offset(0, k), offset(2, k)));
        EXPECT_GT(apart, 0.1f);
    }
    // Without the channel each strand curls on its own, like coherence strand.
    auto plain = std::make_shared<StrandSet>(*strands);
    plain->removeStrandChannel("clumpId");
    EXPECT_EQ(ShapeRun("Curl", {{"coherence", std::string("clump")}}).run(plain)->contentHash(),
              ShapeRun("Curl").run(plain)->contentHash());
}

TEST(ClumpShapes, RunsMatchAtAnyThreadCountAndRedoOnlyTheChangedClumps) {
    // Curl coherent by clump and Twist about clump axes both redo a whole clump when one of its
    // strands moves the clump's axis.
    const auto strands = test::clumpedGrid(2000, 9, 4, 100);
    const ShapeRun shapes[] = {ShapeRun("Curl", {{"coherence", std::string("clump")},
                                                 {"frequency", 3.0},
                                                 {"spacingRandom", 0.5},
                                                 {"phaseRandom", 0.5},
                                                 {"weight", 0.5}}),
                               ShapeRun("Twist", {{"turns", 0.7}})};
    for (const ShapeRun& shape : shapes) {
        SCOPED_TRACE(shape.type);
        const auto [one, two] =
            test::onOneAndTwoThreads([&] { return shape.run(strands)->contentHash(); });
        EXPECT_EQ(one, two);
        // Strand 150 moves the axis of clump 1, strands 100 to 199.
        const auto outcome = test::incrementalAfterMove(shape, strands, {150});
        EXPECT_EQ(outcome.run, "incremental 100");
        EXPECT_TRUE(outcome.sameAsFull);
    }
}

}  // namespace
}  // namespace velmorin
