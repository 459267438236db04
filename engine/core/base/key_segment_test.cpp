#include "base/key_segment.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace velmorin {
namespace {

struct Key {
    float position;
};

std::vector<Key> keysAt(std::initializer_list<float> positions) {
    std::vector<Key> keys;
    for (float p : positions)
        keys.push_back({p});
    return keys;
}

TEST(KeySegment, FindsTheKeysAValueComesFrom) {
    const std::vector<Key> ramp = keysAt({0.2f, 0.6f, 1.0f});
    // A step at 0.5: the later of the two keys holds from 0.5 on.
    const std::vector<Key> step = keysAt({0.0f, 0.5f, 0.5f, 1.0f});
    // Keys sharing the first position, and keys sharing the last.
    const std::vector<Key> stepAtFirst = keysAt({0.3f, 0.3f, 0.8f});
    const std::vector<Key> stepAtLast = keysAt({0.0f, 0.7f, 0.7f});
    const std::vector<Key> single = keysAt({0.4f});
    const std::vector<Key> outOfOrder = keysAt({0.0f, 0.6f, 0.4f, 1.0f});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        const char* what;
        const std::vector<Key>* keys;
        float t;
        KeySegment segment;
    } cases[] = {
        {"before the first key", &ramp, 0.0f, {0, 0, 0.0f}},
        {"far before the first key", &ramp, -5.0f, {0, 0, 0.0f}},
        {"not a number", &ramp, nan, {0, 0, 0.0f}},
        {"at the first key", &ramp, 0.2f, {0, 1, 0.0f}},
        {"between the first two", &ramp, 0.3f, {0, 1, 0.25f}},
        {"at an inner key", &ramp, 0.6f, {1, 2, 0.0f}},
        {"between the last two", &ramp, 0.9f, {1, 2, 0.75f}},
        {"at the last key", &ramp, 1.0f, {2, 2, 0.0f}},
        {"after the last key", &ramp, 3.0f, {2, 2, 0.0f}},
        {"just before a step", &step, 0.25f, {0, 1, 0.5f}},
        {"at a step", &step, 0.5f, {2, 3, 0.0f}},
        {"just after a step", &step, 0.75f, {2, 3, 0.5f}},
        {"at a step on the first key", &stepAtFirst, 0.3f, {1, 2, 0.0f}},
        {"before a step on the first key", &stepAtFirst, 0.1f, {0, 0, 0.0f}},
        {"at a step on the last key", &stepAtLast, 0.7f, {2, 2, 0.0f}},
        {"before a step on the last key", &stepAtLast, 0.35f, {0, 1, 0.5f}},
        {"one key, before it", &single, 0.0f, {0, 0, 0.0f}},
        {"one key, after it", &single, 1.0f, {0, 0, 0.0f}},
        // Keys out of order: the search goes on to the first key past t.
        {"keys out of order", &outOfOrder, 0.6f, {2, 3, 1.0f / 3.0f}},
    };
    for (const auto& c : cases) {
        const KeySegment found = findKeySegment(*c.keys, c.t);
        EXPECT_EQ(found.lower, c.segment.lower) << c.what;
        EXPECT_EQ(found.upper, c.segment.upper) << c.what;
        EXPECT_FLOAT_EQ(found.fraction, c.segment.fraction) << c.what;
    }
}

// Every segment found lies inside the keys, runs forward and holds t within it.
TEST(KeySegment, FoundSegmentsHoldT) {
    const std::vector<Key> keys = keysAt({0.1f, 0.1f, 0.35f, 0.5f, 0.5f, 0.5f, 0.9f});
    for (int i = -10; i <= 110; ++i) {
        const float t = static_cast<float>(i) / 100.0f;
        const KeySegment s = findKeySegment(keys, t);
        ASSERT_LT(s.upper, keys.size()) << t;
        if (s.isSingleKey()) continue;
        EXPECT_EQ(s.upper, s.lower + 1) << t;
        EXPECT_LE(keys[s.lower].position, t) << t;
        EXPECT_GT(keys[s.upper].position, t) << t;
        EXPECT_GE(s.fraction, 0.0f) << t;
        EXPECT_LT(s.fraction, 1.0f) << t;
    }
}

}  // namespace
}  // namespace velmorin
