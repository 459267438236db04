#pragma once
// A ramp: a curve of keys over [0, 1] that a param holds or a Curve input delivers.

#include <vector>

namespace velmorin {

struct RampKey {
    float position = 0.0f;
    float value = 0.0f;
    float slope = 0.0f;  // derivative at the key, used by the smooth form
    bool operator==(const RampKey&) const = default;
};

// Immutable once shared. Keys are kept in position order.
struct Ramp {
    std::vector<RampKey> keys;
    bool linear = false;  // straight lines between keys instead of the smooth form

    bool operator==(const Ramp&) const = default;
    // 1 with no keys; clamps to the end keys outside them. Where keys share a position the later
    // one's value holds from that position on, so two keys at one position make a step.
    float at(float t) const;
};

}  // namespace velmorin
