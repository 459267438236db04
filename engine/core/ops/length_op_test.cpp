#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "base/hash.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

using test::expectPointsNear;
using test::handStrands;
using test::ShapeRun;
using test::straight;

TEST(Length, KeepsAShareOfTheArcAtEqualSteps) {
    // An L of arc 2: three points, 0.75 of it kept, so steps of 0.75 round the corner.
    const auto bent = handStrands({{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}, straight(4)});
    struct Case {
        double length;
        std::vector<Vec3f> first, second;
    };
    const Case cases[] = {
        {0.75,
         {{0, 0, 0}, {0.75f, 0, 0}, {1, 0.5f, 0}},
         {{0, 0, 0}, {0, 0.75f, 0}, {0, 1.5f, 0}, {0, 2.25f, 0}}},
        {0.5,
         {{0, 0, 0}, {0.5f, 0, 0}, {1, 0, 0}},
         {{0, 0, 0}, {0, 0.5f, 0}, {0, 1, 0}, {0, 1.5f, 0}}},
        // Nothing kept: every point stacked on the root, none lost.
        {0.0, {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}}, {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        const auto out = ShapeRun("Length", {{"length", c.length}}).run(bent);
        expectPointsNear(out->strandPoints(0), c.first);
        expectPointsNear(out->strandPoints(1), c.second);
    }
    // Kept whole, the strand is the input's, bit for bit.
    const auto whole = ShapeRun("Length", {{"length", 1.0}}).run(bent);
    EXPECT_EQ(whole->contentHash(), bent->contentHash());
}

TEST(Length, RandomTrimHitsTheDrawnShareOfStrands) {
    std::vector<std::vector<Vec3f>> many(400, straight(3));
    const auto strands = handStrands(many);
    for (const double fraction : {0.0, 0.3, 1.0}) {
        SCOPED_TRACE(fraction);
        const auto out =
            ShapeRun("Length",
                     {{"fraction", fraction}, {"randomness", 0.5}, {"seed", std::int64_t{9}}})
                .run(strands);
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            // Draws from the id and seed: the first sets how much goes, the second whether.
            const std::uint64_t h = hashCombine(strands->ids()[s], 9);
            const float d1 = unitFloat(h);
            const float d2 = unitFloat(hashCombine(h, 1));
            const bool trimmed = fraction >= 1.0 || d2 < fraction;
            const float keep = trimmed ? 1.0f - 0.5f * d1 : 1.0f;
            EXPECT_NEAR(out->strandPoints(s)[2].y, 2.0f * keep, 1e-5f) << "strand " << s;
        }
    }
}

TEST(Length, MappedLengthAndFractionAreReadPerStrand) {
    const auto strands = handStrands({straight(3), straight(3), straight(3)});
    ShapeRun run("Length", {{"randomness", 1.0}});
    run.fields["length"] = std::make_shared<test::ListField>(std::vector<float>{0.5f, 1.0f, 2.0f});
    // Strand 1 is always trimmed at random, the others never.
    run.fields["fraction"] = std::make_shared<test::ListField>(std::vector<float>{0, 1, 0});
    const auto out = run.run(strands);
    EXPECT_NEAR(out->strandPoints(0)[2].y, 1.0f, 1e-6f);
    const float d1 = unitFloat(hashCombine(strands->ids()[1], 0));
    EXPECT_NEAR(out->strandPoints(1)[2].y, 2.0f * (1.0f - d1), 1e-5f);
    // A mapped keep above 1 is held to the whole strand.
    EXPECT_NEAR(out->strandPoints(2)[2].y, 2.0f, 1e-6f);
}

// Each kept point lies where a walk along the strand puts its arc, to the bit: on strands short
// enough to count each point's segment and on long ones that walk, with segments of no length
// (repeated points) and uneven ones.
// Eleven strands of each count: eight go through the lanes side by side where the processor has
// them, the rest one by one; among them strands stacked on their root, with a point that is not a
// number, and with runs of points on one spot, where the walk must pass several segments of no
// length at once.
TEST(Length, EveryPointIsWhereTheArcWalkPutsIt) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<std::vector<Vec3f>> strands;
    for (const std::size_t count : {2, 3, 9, 17, 64, 65, 130}) {
        for (std::size_t copy = 0; copy < 11; ++copy) {
            std::vector<Vec3f> points;
            for (std::size_t k = 0; k < count; ++k) {
                const float h = unitFloat(hashCombine(hashCombine(count, copy), k));
                // Every fifth point repeats the one before it; in copy 3 the points from the
                // second to the sixth all lie on one spot.
                const bool repeat = k % 5 == 4 || (copy == 3 && k >= 2 && k <= 5);
                points.push_back(repeat ? points.back()
                                        : Vec3f{h, static_cast<float>(k) * (0.5f + h), 0.25f * h});
            }
            if (copy == 5) std::fill(points.begin(), points.end(), points.front());
            if (copy == 6 && count > 2) points[count / 2].y = nan;
            strands.push_back(std::move(points));
        }
    }
    const auto input = handStrands(strands);
    for (const double keep : {0.999, 0.7, 0.31, 0.0}) {
        const auto [out, two] = test::onOneAndTwoThreads([&] {
            return ShapeRun("Length", {{"length", keep}}).run(input);
        });
        EXPECT_EQ(test::bitsOf(out->points()), test::bitsOf(two->points())) << "keep " << keep;
        for (std::size_t s = 0; s < input->strandCount(); ++s) {
            const std::span<const Vec3f> points = input->strandPoints(s);
            std::vector<float> arcs(points.size());
            const float step = static_cast<float>(keep) * arcLengths(points, arcs) /
                               static_cast<float>(points.size() - 1);
            std::size_t segment = 0;
            for (std::size_t k = 0; k < points.size(); ++k) {
                // The root stays where it is, even where the length is not a number.
                const Vec3f want =
                    k == 0 ? points[0]
                           : pointAtArc(points, arcs, step * static_cast<float>(k), segment);
                const Vec3f got = out->strandPoints(s)[k];
                EXPECT_TRUE(floatBits(got.x) == floatBits(want.x) &&
                            floatBits(got.y) == floatBits(want.y) &&
                            floatBits(got.z) == floatBits(want.z))
                    << "keep " << keep << ", strand of " << points.size() << ", point " << k;
            }
        }
    }
}

}  // namespace
}  // namespace velmorin
