#pragma once
// sinCosTurns for many angles at once: four side by side in SSE lanes, which every x86-64 has, so
// that a loop that turns each point of a strand pays for a quarter of the polynomials, or eight in
// AVX lanes for kernels that check for AVX at run time (GCC and clang). Each lane
// performs exactly the operations of the scalar sinCosTurns, in the same order, and so gives the
// same bits; lanes whose angle is too large for the plain reduction (2^22 quarter turns or more,
// infinity, NaN) are handed to the scalar function. Elsewhere the plain function runs per angle.
// VELMORIN_SSE_LANES says whether the lanes are there, for kernels that run their own steps four
// strands or four points at a time beside these.

#include <cstddef>

#include "base/fast_trig.h"

#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <emmintrin.h>
#define VELMORIN_SSE_LANES 1
#else
#define VELMORIN_SSE_LANES 0
#endif
// VELMORIN_AVX_LANES: the eight-lane function is there, for callers built for AVX by a target
// attribute after a run-time check (avxLanesUsable).
#if VELMORIN_SSE_LANES && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_AVX_LANES 1
#else
#define VELMORIN_AVX_LANES 0
#endif

namespace velmorin {

// sinCosTurns on each of `count` angles, one at a time: the lanes' rare path, and the plain one.
inline void sinCosTurnsEach(const float* turns, float* sines, float* cosines, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const SinCos one = sinCosTurns(turns[i]);
        sines[i] = one.sin;
        cosines[i] = one.cos;
    }
}

#if VELMORIN_SSE_LANES
// The sines and cosines of four angles in turns; the same bits as sinCosTurns on each.
inline void sinCosTurns4(__m128 turns, __m128& sines, __m128& cosines) {
    const __m128 quarters = _mm_mul_ps(_mm_set1_ps(4.0f), turns);
    const __m128 magnitude = _mm_andnot_ps(_mm_set1_ps(-0.0f), quarters);
    if (_mm_movemask_ps(_mm_cmplt_ps(magnitude, _mm_set1_ps(4194304.0f))) != 0xF) {
        // Rare: one lane needs the wide reduction, so all four take the scalar path.
        alignas(16) float in[4], s[4], c[4];
        _mm_store_ps(in, turns);
        sinCosTurnsEach(in, s, c, 4);
        sines = _mm_load_ps(s);
        cosines = _mm_load_ps(c);
        return;
    }
    const __m128 magic = _mm_set1_ps(12582912.0f);
    const __m128 rounded = _mm_add_ps(quarters, magic);
    const __m128 r = _mm_sub_ps(quarters, _mm_sub_ps(rounded, magic));
    const __m128 x = _mm_mul_ps(r, r);
    const __m128 x2 = _mm_mul_ps(x, x);
    const auto term = [&](float c0, float c1) {
        return _mm_add_ps(_mm_set1_ps(c0), _mm_mul_ps(x, _mm_set1_ps(c1)));
    };
    const __m128 s = _mm_mul_ps(
        r, _mm_add_ps(term(1.5707963219532366f, -0.6459634776648118f),
                      _mm_mul_ps(x2, term(0.07968021764775542f, -0.004602149212814176f))));
    const __m128 c =
        _mm_add_ps(term(0.9999999999524894f, -1.2337005406331623f),
                   _mm_mul_ps(x2, _mm_add_ps(term(0.2536692036551135f, -0.02086006950026408f),
                                             _mm_mul_ps(x2, _mm_set1_ps(0.0009036280663802505f)))));
    // The scalar table kA, kB by compares: +0 where a quadrant has no entry, as the table has.
    const __m128i q = _mm_and_si128(_mm_castps_si128(rounded), _mm_set1_epi32(3));
    const auto quadrant = [&](int k) {
        return _mm_castsi128_ps(_mm_cmpeq_epi32(q, _mm_set1_epi32(k)));
    };
    const __m128 one = _mm_set1_ps(1.0f), minusOne = _mm_set1_ps(-1.0f);
    const __m128 a = _mm_or_ps(_mm_and_ps(quadrant(0), one), _mm_and_ps(quadrant(2), minusOne));
    const __m128 b = _mm_or_ps(_mm_and_ps(quadrant(1), one), _mm_and_ps(quadrant(3), minusOne));
    sines = _mm_add_ps(_mm_mul_ps(s, a), _mm_mul_ps(c, b));
    cosines = _mm_sub_ps(_mm_mul_ps(c, a), _mm_mul_ps(s, b));
}
#endif

#if VELMORIN_AVX_LANES
// Whether this processor has AVX, for the eight-lane functions.
inline bool avxLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx");
    return usable;
}

// sinCosTurns4 for eight angles, for code built for AVX (AVX2 not needed): the quadrant, which
// needs 32-bit integer compares that AVX lacks, is converted to a float and compared as one.
__attribute__((target("avx"), always_inline)) inline void sinCosTurns8(__m256 turns, __m256& sines,
                                                                       __m256& cosines) {
    const __m256 quarters = _mm256_mul_ps(_mm256_set1_ps(4.0f), turns);
    const __m256 magnitude = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), quarters);
    if (_mm256_movemask_ps(_mm256_cmp_ps(magnitude, _mm256_set1_ps(4194304.0f), _CMP_LT_OQ)) !=
        0xFF) {
        // Rare: one lane needs the wide reduction, so all eight take the scalar path.
        alignas(32) float in[8], s[8], c[8];
        _mm256_store_ps(in, turns);
        sinCosTurnsEach(in, s, c, 8);
        sines = _mm256_load_ps(s);
        cosines = _mm256_load_ps(c);
        return;
    }
    const __m256 magic = _mm256_set1_ps(12582912.0f);
    const __m256 rounded = _mm256_add_ps(quarters, magic);
    const __m256 r = _mm256_sub_ps(quarters, _mm256_sub_ps(rounded, magic));
    const __m256 x = _mm256_mul_ps(r, r);
    const __m256 x2 = _mm256_mul_ps(x, x);
    const __m256 s = _mm256_mul_ps(
        r, _mm256_add_ps(
               _mm256_add_ps(_mm256_set1_ps(1.5707963219532366f),
                             _mm256_mul_ps(x, _mm256_set1_ps(-0.6459634776648118f))),
               _mm256_mul_ps(
                   x2, _mm256_add_ps(_mm256_set1_ps(0.07968021764775542f),
                                     _mm256_mul_ps(x, _mm256_set1_ps(-0.004602149212814176f))))));
    const __m256 c = _mm256_add_ps(
        _mm256_add_ps(_mm256_set1_ps(0.9999999999524894f),
                      _mm256_mul_ps(x, _mm256_set1_ps(-1.2337005406331623f))),
        _mm256_mul_ps(
            x2,
            _mm256_add_ps(_mm256_add_ps(_mm256_set1_ps(0.2536692036551135f),
                                        _mm256_mul_ps(x, _mm256_set1_ps(-0.02086006950026408f))),
                          _mm256_mul_ps(x2, _mm256_set1_ps(0.0009036280663802505f)))));
    // The quadrant from the rounded sum's last two bits, as 0 to 3 in floats; then the scalar
    // table kA, kB by compares, +0 where a quadrant has no entry, as the table has.
    const __m256 q = _mm256_cvtepi32_ps(
        _mm256_castps_si256(_mm256_and_ps(rounded, _mm256_castsi256_ps(_mm256_set1_epi32(3)))));
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 q0 = _mm256_and_ps(_mm256_cmp_ps(q, _mm256_set1_ps(0.0f), _CMP_EQ_OQ), one);
    const __m256 q1 = _mm256_and_ps(_mm256_cmp_ps(q, _mm256_set1_ps(1.0f), _CMP_EQ_OQ), one);
    const __m256 q2 = _mm256_and_ps(_mm256_cmp_ps(q, _mm256_set1_ps(2.0f), _CMP_EQ_OQ), one);
    const __m256 q3 = _mm256_and_ps(_mm256_cmp_ps(q, _mm256_set1_ps(3.0f), _CMP_EQ_OQ), one);
    const __m256 a = _mm256_sub_ps(q0, q2);
    const __m256 b = _mm256_sub_ps(q1, q3);
    sines = _mm256_add_ps(_mm256_mul_ps(s, a), _mm256_mul_ps(c, b));
    cosines = _mm256_sub_ps(_mm256_mul_ps(c, a), _mm256_mul_ps(s, b));
}
#endif

// sines[i], cosines[i] = sinCosTurns(turns[i]) for i below `count`, bit for bit.
inline void sinCosTurnsMany(const float* turns, float* sines, float* cosines, std::size_t count) {
#if VELMORIN_SSE_LANES
    std::size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        __m128 s, c;
        sinCosTurns4(_mm_loadu_ps(turns + i), s, c);
        _mm_storeu_ps(sines + i, s);
        _mm_storeu_ps(cosines + i, c);
    }
    if (i < count) {
        // The last few padded to a whole lane set with zero turns, whose values are dropped.
        alignas(16) float in[4] = {0.0f, 0.0f, 0.0f, 0.0f}, s[4], c[4];
        for (std::size_t k = i; k < count; ++k)
            in[k - i] = turns[k];
        __m128 vs, vc;
        sinCosTurns4(_mm_load_ps(in), vs, vc);
        _mm_store_ps(s, vs);
        _mm_store_ps(c, vc);
        for (std::size_t k = i; k < count; ++k) {
            sines[k] = s[k - i];
            cosines[k] = c[k - i];
        }
    }
#else
    sinCosTurnsEach(turns, sines, cosines, count);
#endif
}

}  // namespace velmorin
