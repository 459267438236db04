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
    // 1 with no keys; clamps to the end keys outside them (and gives the first key's value for a t
    // that is not a number). Where keys share a position the later one's value holds from that
    // position on, so two keys at one position make a step.
    float at(float t) const;
};

// The ramp's value at t, as Ramp::at gives it.
inline float rampAt(const Ramp& ramp, float t) {
    return ramp.at(t);
}

// Sets every key's slope for the smooth form from its neighbours: the Catmull-Rom rule, the
// difference of the values either side over the distance between their positions (a one-sided
// difference at the ends). The slopes only shape the curve between keys; the Hermite form passes
// through every key whatever they are. Keys must be in position order.
void smoothSlopes(Ramp& ramp);

}  // namespace velmorin
