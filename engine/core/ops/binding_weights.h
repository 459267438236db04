#pragma once
// The arithmetic of one strand's binding: the modified Shepard weights of its candidate guides and
// their quantising to sixteen bits. Each is written plainly and over lanes of doubles (two with
// SSE2; four with AVX, eight with AVX-512 where the processor has them); every lane does the plain
// path's operations in its order, each correctly rounded, so every way gives the same bits. The
// binding picks the widest; tests ask for each.

#include <cstdint>

namespace velmorin::binding_weights {

// The most candidates a strand weighs (4 * 16 neighbours + 2).
inline constexpr int kMaxCandidates = 4 * 16 + 2;
// A weight array holds this many: the lanes may write past the last candidate, up to a whole
// group of eight.
inline constexpr int kPaddedCandidates = kMaxCandidates + 8;
inline constexpr std::uint32_t kTotalWeight = 65536;

enum class Lanes { plain, two, four, eight };

// The widest lanes this processor runs.
Lanes bestLanes();

// The weights of the `count` candidates at squared distances `d2` by the modified Shepard rule at
// radius R per guide (reach[guides[i]], or the single radius `single` when `reach` is null),
// raised to `power` after scaling by their greatest; written to `out` (kPaddedCandidates long).
// Returns their sum, added in order. `edge`, when given, receives the greatest share of a reach
// left beyond the strand where that is below a quarter, and a share of a quarter or more (not
// always the greatest) otherwise: the edge fill only asks whether it is below a quarter, and then
// its value.
double shepard(Lanes lanes, int count, const float* d2, const std::uint32_t* guides,
               const float* reach, float single, float power, double* out, double* edge);

// The sum of the weights above 0, in order.
double positiveSum(int count, const double* weights);

// Scales the weights to a total of 65536 by rounding to nearest and moving single units by the
// largest remainder rule (ties to the earliest); `sum` is positiveSum of the weights. Returns how
// many entries stay (at least one unit each), their units and guides compacted in place; 0 where
// the sum is not a number above 0. `weights` and `units` are kPaddedCandidates long: lanes may read
// and write past the last entry (what they read there is masked off).
int quantise(Lanes lanes, int count, const double* weights, double sum, std::uint32_t* guides,
             std::uint32_t* units);

// As quantise, but each kept entry's units less one (its stored weight) go to `records`
// (kPaddedCandidates long: lanes may write past the last kept entry). With eight lanes and up to
// sixteen weights, all of it is done in registers.
int quantiseRecords(Lanes lanes, int count, const double* weights, double sum,
                    std::uint32_t* guides, std::uint16_t* records);

}  // namespace velmorin::binding_weights
