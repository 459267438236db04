#pragma once
// Noise's per-strand draws, many strands at once: whether a strand gets noise and its place in the
// lattice, the draws StrandDraws(id, seed) gives in order. Where the processor multiplies 64-bit
// lanes (AVX-512 with DQ and VL), eight strands' hash chains run side by side, each lane with the
// integer steps of the one-strand chain and the same exact conversions, so the draws are the same
// bits.

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/vec3.h"
#include "ops/shape_support.h"

namespace velmorin {

// Strand-space noise starts each strand this far into the lattice, at random.
inline constexpr float kNoiseBaseSpread = 512.0f;

struct NoiseDraws {
    float pick = 0.0f;  // below the fraction: the strand gets noise
    Vec3f base;         // its line's start in the lattice, each axis 0 to kNoiseBaseSpread
};

// One strand's draws, in order: the pick, then base x, y and z.
NoiseDraws noiseDraws(std::uint64_t id, std::uint64_t seed);
// noiseDraws(ids[selection.strand(first + i)], seed) into out[i] for every i of out.
void noiseDrawsOf(std::span<const std::uint64_t> ids, const StrandSelection& selection,
                  std::size_t first, std::uint64_t seed, std::span<NoiseDraws> out);
// Whether noiseDrawsOf runs eight strands side by side (and not one by one) here.
bool noiseDrawLanesUsable();

}  // namespace velmorin
