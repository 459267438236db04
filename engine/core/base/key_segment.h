#pragma once
// Where a position falls among the keys of a curve: the one search that ramps, the curves of
// expressions and the Curve node's easing share, so that all of them agree at the end keys and
// where keys share a position.

#include <cassert>
#include <cstddef>

namespace velmorin {

// The keys a curve's value comes from at one position. Where `lower` equals `upper` that key's
// value holds; otherwise the value runs between the two keys, `fraction` of the way from lower
// (0) to upper (1).
struct KeySegment {
    std::size_t lower = 0;
    std::size_t upper = 0;
    float fraction = 0.0f;

    bool isSingleKey() const { return lower == upper; }
    bool operator==(const KeySegment&) const = default;
};

// The segment of `keys` (a non-empty sequence in position order, each with a float `position`)
// that holds t:
// - at or after the last key's position, the last key (checked first, so that keys sharing the
//   last position give the last of them);
// - before the first key's position, or t not a number, the first key;
// - else the segment that ends at the first key past t, so that lower's position <= t < upper's
//   and the fraction lies in [0, 1). Where several keys share a position the search lands behind
//   the last of them: the later key's value holds from that position on, and two keys at one
//   position make a step there.
template <class Keys>
KeySegment findKeySegment(const Keys& keys, float t) {
    assert(!keys.empty());
    const std::size_t last = keys.size() - 1;
    if (t >= keys[last].position) return {last, last, 0.0f};
    if (!(t >= keys[0].position)) return {0, 0, 0.0f};
    std::size_t upper = 1;
    while (upper < last && keys[upper].position <= t)
        ++upper;
    const float span = keys[upper].position - keys[upper - 1].position;
    // Only a position that is not a number gets here without a span: its upper key holds.
    if (!(span > 0.0f)) return {upper, upper, 0.0f};
    return {upper - 1, upper, (t - keys[upper - 1].position) / span};
}

}  // namespace velmorin
