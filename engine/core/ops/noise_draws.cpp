#include "ops/noise_draws.h"

#include "base/hash.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_NOISE_DRAW_LANES 1
#else
#define VELMORIN_NOISE_DRAW_LANES 0
#endif

namespace velmorin {

NoiseDraws noiseDraws(std::uint64_t id, std::uint64_t seed) {
    StrandDraws draws(id, seed);
    NoiseDraws out;
    out.pick = draws.next();
    out.base.x = draws.next() * kNoiseBaseSpread;
    out.base.y = draws.next() * kNoiseBaseSpread;
    out.base.z = draws.next() * kNoiseBaseSpread;
    return out;
}

#if VELMORIN_NOISE_DRAW_LANES

bool noiseDrawLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx512f") &&
                               __builtin_cpu_supports("avx512dq") &&
                               __builtin_cpu_supports("avx512vl");
    return usable;
}

namespace {

#define VELMORIN_DRAW_TARGET __attribute__((target("avx2,avx512f,avx512dq,avx512vl")))

// Every lane, in the zero-masked forms of the shifts: the unmasked ones start from an undefined
// register, which GCC 12 warns of.
constexpr __mmask8 kAll = 0xFF;

VELMORIN_DRAW_TARGET inline __m512i shiftedDown(__m512i x, unsigned bits) {
    return _mm512_maskz_srli_epi64(kAll, x, bits);
}

// mix64 in each lane.
VELMORIN_DRAW_TARGET inline __m512i mixLanes(__m512i x) {
    __m512i z = _mm512_add_epi64(x, _mm512_set1_epi64(static_cast<long long>(kGolden)));
    z = _mm512_xor_si512(z, shiftedDown(z, 30));
    z = _mm512_mullo_epi64(z, _mm512_set1_epi64(static_cast<long long>(0xBF58476D1CE4E5B9ull)));
    z = _mm512_xor_si512(z, shiftedDown(z, 27));
    z = _mm512_mullo_epi64(z, _mm512_set1_epi64(static_cast<long long>(0x94D049BB133111EBull)));
    return _mm512_xor_si512(z, shiftedDown(z, 31));
}

// hashCombine(h, v) in each lane.
VELMORIN_DRAW_TARGET inline __m512i combineLanes(__m512i h, __m512i v) {
    const __m512i sum = _mm512_add_epi64(
        _mm512_add_epi64(_mm512_add_epi64(_mm512_maskz_slli_epi64(kAll, h, 6), shiftedDown(h, 2)),
                         _mm512_set1_epi64(static_cast<long long>(kGolden))),
        v);
    return mixLanes(_mm512_xor_si512(sum, h));
}

// unitFloat in each lane: the top 24 bits of mix64, a whole number that converts exactly, times
// 2^-24 (exact too).
VELMORIN_DRAW_TARGET inline __m256 unitLanes(__m512i h) {
    return _mm256_mul_ps(_mm512_cvtepi64_ps(shiftedDown(mixLanes(h), 40)),
                         _mm256_set1_ps(1.0f / 16777216.0f));
}

VELMORIN_DRAW_TARGET void drawEight(const std::uint64_t* ids, std::uint64_t seed, NoiseDraws* out) {
    const __m512i first = _mm512_loadu_si512(ids);
    const __m512i h0 = combineLanes(first, _mm512_set1_epi64(static_cast<long long>(seed)));
    const __m512i h1 = combineLanes(h0, _mm512_set1_epi64(1));
    const __m512i h2 = combineLanes(h1, _mm512_set1_epi64(2));
    const __m512i h3 = combineLanes(h2, _mm512_set1_epi64(3));
    const __m256 spread = _mm256_set1_ps(kNoiseBaseSpread);
    alignas(32) float draws[4][8];
    _mm256_store_ps(draws[0], unitLanes(h0));
    _mm256_store_ps(draws[1], _mm256_mul_ps(unitLanes(h1), spread));
    _mm256_store_ps(draws[2], _mm256_mul_ps(unitLanes(h2), spread));
    _mm256_store_ps(draws[3], _mm256_mul_ps(unitLanes(h3), spread));
    for (int l = 0; l < 8; ++l)
        out[l] = {draws[0][l], {draws[1][l], draws[2][l], draws[3][l]}};
}

}  // namespace

#else

bool noiseDrawLanesUsable() {
    return false;
}

#endif

void noiseDrawsOf(std::span<const std::uint64_t> ids, const StrandSelection& selection,
                  std::size_t first, std::uint64_t seed, std::span<NoiseDraws> out) {
    const std::size_t count = out.size();
    const auto idOf = [&](std::size_t i) { return ids[selection.strand(first + i)]; };
    std::size_t i = 0;
#if VELMORIN_NOISE_DRAW_LANES
    if (noiseDrawLanesUsable()) {
        // Every strand's ids are read where they lie: eight copied one by one would wait to be
        // written through before the lanes could load them whole.
        alignas(64) std::uint64_t eight[8];
        for (; i + 8 <= count; i += 8) {
            if (selection.all) {
                drawEight(ids.data() + first + i, seed, out.data() + i);
                continue;
            }
            for (std::size_t l = 0; l < 8; ++l)
                eight[l] = idOf(i + l);
            drawEight(eight, seed, out.data() + i);
        }
    }
#endif
    for (; i < count; ++i)
        out[i] = noiseDraws(idOf(i), seed);
}

}  // namespace velmorin
