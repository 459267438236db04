#pragma once
// The `affect` mix: where a node's common `affect` param is below 1, its result is blended with the
// strands that came in, point by point, so that a node can work on part of a groom.

#include <memory>
#include <span>
#include <string_view>

namespace velmorin {

class StrandSet;

// A set laid out as `result` in which each point lies between the input's point (weight 0) and the
// result's (weight 1). `weights` holds one value per point of `input`, clamped to 0-1. Positions,
// widths and point channels are mixed linearly; strand channels, and point channels whose name
// marks an ID (ending in "Id", or "region"), switch to the result's value at a weight of 0.5, since
// a blend of two IDs names neither. A strand channel reads the weight at the strand's root (the
// result's value for a strand of no points). A channel that the input lacks mixes from the
// channel's default. Columns that the two sets share are not touched.
// Both sets must have the same strand count and the same offsets; weights.size() must equal the
// point count.
std::shared_ptr<const StrandSet> mixAffect(const StrandSet& input, const StrandSet& result,
                                           std::span<const float> weights);

// Whether a channel holds IDs that must switch rather than blend.
bool isIdChannel(std::string_view name);

}  // namespace velmorin
