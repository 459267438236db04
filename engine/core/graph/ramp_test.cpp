#include "graph/ramp.h"

#include <cmath>

#include <gtest/gtest.h>

namespace velmorin {
namespace {

TEST(Ramp, NoKeysIsOneEverywhere) {
    const Ramp ramp;
    EXPECT_EQ(ramp.at(-1.0f), 1.0f);
    EXPECT_EQ(ramp.at(0.5f), 1.0f);
    EXPECT_EQ(ramp.at(7.0f), 1.0f);
}

TEST(Ramp, ClampsToTheEndKeysOutsideThem) {
    Ramp ramp;
    ramp.keys = {{0.2f, 3.0f, 5.0f}, {0.8f, -1.0f, 5.0f}};
    EXPECT_EQ(ramp.at(0.0f), 3.0f);
    EXPECT_EQ(ramp.at(0.2f), 3.0f);
    EXPECT_EQ(ramp.at(0.8f), -1.0f);
    EXPECT_EQ(ramp.at(2.0f), -1.0f);

    Ramp single;
    single.keys = {{0.5f, 0.25f, 0.0f}};
    EXPECT_EQ(single.at(0.0f), 0.25f);
    EXPECT_EQ(single.at(1.0f), 0.25f);
}

TEST(Ramp, LinearInterpolatesOnTheSegmentThatHoldsT) {
    Ramp ramp;
    ramp.linear = true;
    ramp.keys = {{0.0f, 0.0f, 0.0f}, {0.5f, 1.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
    EXPECT_FLOAT_EQ(ramp.at(0.25f), 0.5f);
    EXPECT_FLOAT_EQ(ramp.at(0.5f), 1.0f);
    EXPECT_FLOAT_EQ(ramp.at(0.625f), 0.75f);
}

TEST(Ramp, SmoothIsCubicHermiteWithSlopesScaledBySpan) {
    // Equal values and zero slopes: the Hermite basis at f = 0.25 weighs v1 by 3f^2 - 2f^3.
    Ramp flat;
    flat.keys = {{0.0f, 0.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    EXPECT_FLOAT_EQ(flat.at(0.25f), 3 * 0.0625f - 2 * 0.015625f);
    EXPECT_FLOAT_EQ(flat.at(0.5f), 0.5f);

    // Slopes that match a straight line reproduce the line only when they are scaled by the
    // span: here the span is 2, and the slope 1 is per unit of t.
    Ramp line;
    line.keys = {{1.0f, 1.0f, 1.0f}, {3.0f, 3.0f, 1.0f}};
    for (float t = 1.0f; t <= 3.0f; t += 0.125f)
        EXPECT_NEAR(line.at(t), t, 1e-5f) << t;

    // A hand computation with unequal slopes: f = 0.5 on a span of 0.5, m0 = 0.5 * 2, m1 = 0.5 *
    // -4; h00 = 0.5, h10 = 0.125, h01 = 0.5, h11 = -0.125.
    Ramp bent;
    bent.keys = {{0.5f, 1.0f, 2.0f}, {1.0f, 3.0f, -4.0f}};
    EXPECT_FLOAT_EQ(bent.at(0.75f), 0.5f * 1 + 0.125f * 1.0f + 0.5f * 3 - 0.125f * -2.0f);
}

TEST(Ramp, TwoKeysAtOnePositionGiveTheUpperValueThere) {
    // A step: 0 up to 0.5, 1 from 0.5 on.
    for (bool linear : {false, true}) {
        Ramp step;
        step.linear = linear;
        step.keys = {
            {0.0f, 0.0f, 0.0f}, {0.5f, 0.0f, 0.0f}, {0.5f, 1.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
        EXPECT_EQ(step.at(0.5f), 1.0f);
        EXPECT_EQ(step.at(0.49f), 0.0f);
        EXPECT_EQ(step.at(0.51f), 1.0f);
    }
    Ramp pair;
    pair.keys = {{0.3f, 2.0f, 0.0f}, {0.3f, 5.0f, 0.0f}};
    EXPECT_EQ(pair.at(0.3f), 5.0f);
    EXPECT_EQ(pair.at(0.0f), 2.0f);
}

TEST(Ramp, SmoothSlopesPassThroughEveryKeyAndFollowTheNeighbours) {
    Ramp ramp;
    ramp.keys = {{0.0f, 0.0f}, {0.25f, 1.0f}, {0.5f, 0.5f}, {0.5f, 0.75f}, {1.0f, 0.25f}};
    smoothSlopes(ramp);
    for (const RampKey& key : ramp.keys) {
        if (key.position == 0.5f) continue;  // the step: the upper key holds there
        EXPECT_FLOAT_EQ(rampAt(ramp, key.position), key.value) << key.position;
    }
    EXPECT_FLOAT_EQ(rampAt(ramp, 0.5f), 0.75f);
    // The middle key's slope is the difference of its neighbours over their distance; the ends
    // are one-sided, and keys that share a position are flat.
    EXPECT_FLOAT_EQ(ramp.keys[1].slope, (0.5f - 0.0f) / 0.5f);
    EXPECT_FLOAT_EQ(ramp.keys[0].slope, 1.0f / 0.25f);
    EXPECT_FLOAT_EQ(ramp.keys[2].slope, (0.75f - 1.0f) / 0.25f);
    EXPECT_FLOAT_EQ(ramp.keys[4].slope, (0.25f - 0.75f) / 0.5f);
}

}  // namespace
}  // namespace velmorin
