#include <gtest/gtest.h>

#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::handStrands;
using test::ShapeRun;
using test::straight;

Ramp fallingRamp() {
    Ramp ramp;
    ramp.linear = true;
    ramp.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
    return ramp;
}

TEST(Width, WidthTimesProfileAtTheShareOfArcTimesTheStrandsVariation) {
    // Points at arcs 0, 1 and 3 of 3: t = 0, 1/3, 1.
    const auto strands = handStrands({{{0, 0, 0}, {0, 1, 0}, {0, 3, 0}}, straight(1)});
    struct Case {
        double randomness;
        float factor;  // the strand's variation
    };
    const float d = unitFloat(hashCombine(strands->ids()[0], 3));
    for (const Case& c : {Case{0.0, 1.0f}, Case{0.5, 1.0f + 0.5f * (2.0f * d - 1.0f)}}) {
        SCOPED_TRACE(c.randomness);
        ShapeRun run("Width", {{"width", 0.01},
                               {"randomness", c.randomness},
                               {"seed", std::int64_t{3}},
                               {"profile", fallingRamp()}});
        const auto out = run.run(strands);
        const std::vector<float> want = {0.01f * c.factor, 0.01f * (2.0f / 3.0f) * c.factor, 0.0f,
                                         0.01f};
        ASSERT_EQ(out->widths().size(), want.size());
        for (std::size_t p = 0; p < want.size(); ++p)
            EXPECT_NEAR(out->widths()[p], want[p], 1e-7f) << "point " << p;
    }
}

TEST(Width, MappedPerPointAndACurveInputAndRachisStrands) {
    auto strands = std::make_shared<StrandSet>(*handStrands({straight(3), straight(3)}));
    // The second strand is a feather's shaft: its widths are its own.
    strands->addStrandChannel("rachis", 0.0f)[1] = 1.0f;
    strands->writeWidths() = {0.1f, 0.1f, 0.1f, 0.3f, 0.2f, 0.1f};
    ShapeRun run("Width");
    run.fields["width"] = std::make_shared<test::ListField>(
        std::vector<float>{0, 0}, std::vector<std::vector<float>>{{1, 2, 3}, {4, 5, 6}});
    run.curves["profile"] = fallingRamp();  // a connected Curve comes before the param's own
    const auto out = run.run(strands);
    const std::vector<float> want = {1.0f, 1.0f, 0.0f, 0.3f, 0.2f, 0.1f};
    for (std::size_t p = 0; p < want.size(); ++p)
        EXPECT_NEAR(out->widths()[p], want[p], 1e-6f) << "point " << p;
    // Points never move.
    EXPECT_EQ(out->columnData(ColumnId::kPoints), strands->columnData(ColumnId::kPoints));
}

TEST(Width, AProfileOfAtMostOneKeyIsItsValueEverywhere) {
    // A strand with length, one of none and one of a single point.
    const auto strands =
        handStrands({{{0, 0, 0}, {0, 1, 0}, {0, 3, 0}}, straight(4, 0.0f), straight(1)});
    Ramp single;
    single.keys = {{0.7f, 0.25f, 3.0f}};
    struct Case {
        Ramp profile;
        float value;
    };
    for (const Case& c : {Case{Ramp{}, 1.0f}, Case{single, 0.25f}}) {
        SCOPED_TRACE(c.value);
        ShapeRun run("Width", {{"width", 0.03},
                               {"randomness", 0.4},
                               {"seed", std::int64_t{5}},
                               {"profile", c.profile}});
        const auto out = run.run(strands);
        std::vector<float> want;
        for (std::size_t s = 0; s < 2; ++s) {
            const float d = unitFloat(hashCombine(strands->ids()[s], 5));
            const float variation = 1.0f + 0.4f * (2.0f * d - 1.0f);
            for (std::size_t k = 0; k < strands->pointRange(s).count; ++k)
                want.push_back(0.03f * c.value * variation);
        }
        want.push_back(strands->widths().back());  // a single point keeps the width it came with
        EXPECT_EQ(test::values(out->widths()), want);
    }
}

}  // namespace
}  // namespace velmorin
