#include "graph/ramp.h"

#include <cstddef>

#include "base/key_segment.h"

namespace velmorin {

float Ramp::at(float t) const {
    if (keys.empty()) return 1.0f;
    const KeySegment segment = findKeySegment(keys, t);
    if (segment.isSingleKey()) return keys[segment.lower].value;
    const RampKey& k0 = keys[segment.lower];
    const RampKey& k1 = keys[segment.upper];
    const float span = k1.position - k0.position;
    const float f = segment.fraction;
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
