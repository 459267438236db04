#include "graph/ramp.h"

#include <cstddef>

namespace velmorin {

float Ramp::at(float t) const {
    if (keys.empty()) return 1.0f;
    // Past the last key the last value holds. Checked first so that keys sharing the last
    // position give the upper one's value there.
    if (t >= keys.back().position) return keys.back().value;
    if (t < keys.front().position) return keys.front().value;

    // The segment ends at the first key past t. Where several keys share t's position this lands
    // behind the last of them, so the upper key's value holds at that position: a step ramp
    // steps exactly there.
    std::size_t upper = 1;
    while (upper + 1 < keys.size() && keys[upper].position <= t)
        ++upper;
    const RampKey& k0 = keys[upper - 1];
    const RampKey& k1 = keys[upper];

    const float span = k1.position - k0.position;
    // A segment of no length (keys at one position, or out of order) gives the upper key's value.
    if (span <= 0.0f) return k1.value;

    const float f = (t - k0.position) / span;
    if (linear) return k0.value + (k1.value - k0.value) * f;

    // Cubic Hermite; slopes are per unit of t, the basis wants them per unit of f.
    const float m0 = k0.slope * span;
    const float m1 = k1.slope * span;
    const float f2 = f * f;
    const float f3 = f2 * f;
    return (2 * f3 - 3 * f2 + 1) * k0.value + (f3 - 2 * f2 + f) * m0 +
           (-2 * f3 + 3 * f2) * k1.value + (f3 - f2) * m1;
}

void smoothSlopes(Ramp& ramp) {
    const std::size_t count = ramp.keys.size();
    for (std::size_t i = 0; i < count; ++i) {
        const RampKey& before = ramp.keys[i == 0 ? 0 : i - 1];
        const RampKey& after = ramp.keys[i + 1 < count ? i + 1 : i];
        const float span = after.position - before.position;
        // Keys that share a position have no slope between them: the curve is flat there.
        ramp.keys[i].slope = span > 0.0f ? (after.value - before.value) / span : 0.0f;
    }
}

}  // namespace velmorin
