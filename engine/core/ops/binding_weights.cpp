#include "ops/binding_weights.h"

#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__SSE2__) || defined(_M_X64)
#include <immintrin.h>
#define VELMORIN_BINDING_LANES 1
#endif

namespace velmorin::binding_weights {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The radius candidate i is weighed at.
inline double radiusOf(int i, const std::uint32_t* guides, const float* reach, float single) {
    return reach ? reach[guides[i]] : single;
}

// The first weights t of candidates [from, count) one at a time, with the greatest of them and the
// greatest share of a reach left beyond the strand carried on from the candidates before.
void firstWeights(int from, int count, const float* d2, const std::uint32_t* guides,
                  const float* reach, float single, double* out, double& greatest,
                  double& reachLeft) {
    for (int i = from; i < count; ++i) {
        const double d = std::max(std::sqrt(static_cast<double>(d2[i])), 1e-6);
        const double r = radiusOf(i, guides, reach, single);
        double t = 0.0;
        if (!std::isfinite(r)) {
            t = 1.0 / d;
            reachLeft = 1.0;
        } else if (r > d) {
            t = (r - d) / (r * d);
            reachLeft = std::max(reachLeft, (r - d) / r);
        }
        out[i] = t;
        greatest = std::max(greatest, t);
    }
}

// The greatest share of a reach left beyond the strand among the first `count` candidates, asked
// only where the lanes saw no share of a quarter or more.
double exactEdge(int count, const float* d2, const std::uint32_t* guides, const float* reach,
                 float single) {
    double reachLeft = 0.0;
    for (int j = 0; j < count; ++j) {
        const double d = std::max(std::sqrt(static_cast<double>(d2[j])), 1e-6);
        const double r = radiusOf(j, guides, reach, single);
        if (!std::isfinite(r))
            reachLeft = 1.0;
        else if (r > d)
            reachLeft = std::max(reachLeft, (r - d) / r);
    }
    return reachLeft;
}

// Raises the weights [from, count) to `power` after scaling by `greatest`, adding them to `sum`
// in order.
double raise(int from, int count, double greatest, float power, double* out, double sum) {
    for (int i = from; i < count; ++i) {
        double a = 0.0;
        if (greatest > 0.0 && out[i] > 0.0) {
            const double s = out[i] / greatest;
            a = power == 2.0f ? s * s : std::pow(s, static_cast<double>(power));
        }
        out[i] = a;
        sum += a;
    }
    return sum;
}

// std::nearbyint in the default rounding mode, for 0 <= x < 2^52: from 2^52 up a double's step is
// 1, so the sum is rounded to a whole number, to the even one at a half, and the difference is
// exact. nearbyint itself is a call into the C library where the machine lacks a rounding
// instruction, made for each candidate of every strand.
inline double nearestWhole(double x) {
    constexpr double kWhole = 4503599627370496.0;  // 2^52
    return (x + kWhole) - kWhole;
}

// Rounds weights [from, count) to units, one at a time; returns the units added.
std::int64_t roundUnits(int from, int count, const double* weights, double sum,
                        std::uint32_t* units, double* remainder) {
    std::int64_t total = 0;
    for (int i = from; i < count; ++i) {
        const double scaled = weights[i] > 0.0 ? weights[i] / sum * kTotalWeight : 0.0;
        const double rounded = std::min(nearestWhole(scaled), static_cast<double>(kTotalWeight));
        units[i] = static_cast<std::uint32_t>(rounded);
        remainder[i] = scaled - rounded;
        total += units[i];
    }
    return total;
}

#if VELMORIN_BINDING_LANES
// Two candidates at a time: their square roots and divisions are what the weights spend most on,
// and each lane rounds as the scalar operation would. Both branches of the rule are computed and
// one is kept per lane.
double shepardTwo(int count, const float* d2, const std::uint32_t* guides, const float* reach,
                  float single, float power, double* out, double* edge) {
    const __m128d least = _mm_set1_pd(1e-6), one = _mm_set1_pd(1.0), zero = _mm_setzero_pd();
    const __m128d infinite = _mm_set1_pd(kInfinity);
    const __m128d sign = _mm_set1_pd(-0.0);
    const __m128d share = _mm_set1_pd(0.26);
    __m128d greatest2 = zero, plenty = zero;
    int i = 0;
    for (; i + 2 <= count; i += 2) {
        const __m128d d = _mm_max_pd(
            _mm_sqrt_pd(_mm_set_pd(static_cast<double>(d2[i + 1]), static_cast<double>(d2[i]))),
            least);
        const __m128d r =
            reach ? _mm_set_pd(reach[guides[i + 1]], reach[guides[i]]) : _mm_set1_pd(single);
        // Not finite: infinite or not a number, as std::isfinite says.
        const __m128d unbounded = _mm_cmpnlt_pd(_mm_andnot_pd(sign, r), infinite);
        const __m128d inside = _mm_andnot_pd(unbounded, _mm_cmpgt_pd(r, d));
        const __m128d left = _mm_sub_pd(r, d);
        // One division a lane: 1 / d where the reach is endless, (R - d) / (R * d) within it,
        // and 0 beyond it (masked, as R * d may be 0 there).
        const __m128d numerator = _mm_or_pd(_mm_and_pd(unbounded, one), _mm_and_pd(inside, left));
        const __m128d denominator =
            _mm_or_pd(_mm_and_pd(unbounded, d), _mm_andnot_pd(unbounded, _mm_mul_pd(r, d)));
        const __m128d t =
            _mm_and_pd(_mm_or_pd(unbounded, inside), _mm_div_pd(numerator, denominator));
        _mm_storeu_pd(out + i, t);
        greatest2 = _mm_max_pd(greatest2, t);
        // A share of at least 0.26 (R - d at least R * 0.26, rounded) divides to a quarter or
        // more, which is all the edge fill needs to know; the division waits for the rare strand
        // without one.
        plenty = _mm_or_pd(
            plenty,
            _mm_or_pd(unbounded, _mm_and_pd(inside, _mm_cmpge_pd(left, _mm_mul_pd(r, share)))));
    }
    double greatest =
        std::max(_mm_cvtsd_f64(greatest2), _mm_cvtsd_f64(_mm_unpackhi_pd(greatest2, greatest2)));
    double reachLeft = 0.0;
    if (edge)
        reachLeft = _mm_movemask_pd(plenty) != 0 ? 1.0 : exactEdge(i, d2, guides, reach, single);
    firstWeights(i, count, d2, guides, reach, single, out, greatest, reachLeft);
    if (edge) *edge = reachLeft;
    double sum = 0.0;
    i = 0;
    // The usual power of 2 squares, two at a time; the sum stays in order.
    if (power == 2.0f && greatest > 0.0) {
        const __m128d scale = _mm_set1_pd(greatest);
        for (; i + 2 <= count; i += 2) {
            const __m128d t = _mm_loadu_pd(out + i);
            const __m128d s = _mm_div_pd(t, scale);
            const __m128d a = _mm_and_pd(_mm_cmpgt_pd(t, zero), _mm_mul_pd(s, s));
            _mm_storeu_pd(out + i, a);
            sum += _mm_cvtsd_f64(a);
            sum += _mm_cvtsd_f64(_mm_unpackhi_pd(a, a));
        }
    }
    return raise(i, count, greatest, power, out, sum);
}

// The same four at a time, the last group masked to the candidates there are. Lanes past the
// last candidate write 0 into the padding of `out`.
__attribute__((target("avx"))) double shepardFour(int count, const float* d2,
                                                  const std::uint32_t* guides, const float* reach,
                                                  float single, float power, double* out,
                                                  double* edge) {
    const __m256d least = _mm256_set1_pd(1e-6), one = _mm256_set1_pd(1.0);
    const __m256d zero = _mm256_setzero_pd(), infinite = _mm256_set1_pd(kInfinity);
    const __m256d sign = _mm256_set1_pd(-0.0), share = _mm256_set1_pd(0.26);
    const __m256d lane = _mm256_set_pd(3.0, 2.0, 1.0, 0.0);
    __m256d greatest4 = zero, plenty = zero;
    for (int i = 0; i < count; i += 4) {
        const int n = std::min(4, count - i);
        __m256d valid, r;
        __m128 squared;
        if (n == 4) {
            valid = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
            squared = _mm_loadu_ps(d2 + i);
            r = reach ? _mm256_set_pd(reach[guides[i + 3]], reach[guides[i + 2]],
                                      reach[guides[i + 1]], reach[guides[i]])
                      : _mm256_set1_pd(single);
        } else {
            // The lanes past the last candidate weigh a guide at distance 0 with no reach: 0.
            // They are loaded masked and set lane by lane, not stored and read back whole, which
            // the processor could not forward.
            valid = _mm256_cmp_pd(lane, _mm256_set1_pd(n), _CMP_LT_OQ);
            const __m128i present = _mm_cmplt_epi32(_mm_set_epi32(3, 2, 1, 0), _mm_set1_epi32(n));
            squared = _mm_maskload_ps(d2 + i, present);
            r = _mm256_set_pd(n > 3 ? radiusOf(i + 3, guides, reach, single) : 0.0,
                              n > 2 ? radiusOf(i + 2, guides, reach, single) : 0.0,
                              n > 1 ? radiusOf(i + 1, guides, reach, single) : 0.0,
                              radiusOf(i, guides, reach, single));
        }
        const __m256d d = _mm256_max_pd(_mm256_sqrt_pd(_mm256_cvtps_pd(squared)), least);
        const __m256d unbounded =
            _mm256_and_pd(valid, _mm256_cmp_pd(_mm256_andnot_pd(sign, r), infinite, _CMP_NLT_UQ));
        const __m256d inside =
            _mm256_andnot_pd(unbounded, _mm256_and_pd(valid, _mm256_cmp_pd(r, d, _CMP_GT_OQ)));
        const __m256d left = _mm256_sub_pd(r, d);
        const __m256d numerator =
            _mm256_or_pd(_mm256_and_pd(unbounded, one), _mm256_and_pd(inside, left));
        const __m256d denominator = _mm256_or_pd(_mm256_and_pd(unbounded, d),
                                                 _mm256_andnot_pd(unbounded, _mm256_mul_pd(r, d)));
        const __m256d t =
            _mm256_and_pd(_mm256_or_pd(unbounded, inside), _mm256_div_pd(numerator, denominator));
        _mm256_storeu_pd(out + i, t);
        greatest4 = _mm256_max_pd(greatest4, t);
        plenty = _mm256_or_pd(
            plenty, _mm256_or_pd(unbounded,
                                 _mm256_and_pd(inside, _mm256_cmp_pd(left, _mm256_mul_pd(r, share),
                                                                     _CMP_GE_OQ))));
    }
    // The greatest of the lanes: max is exact, so any order gives it.
    const __m128d halves =
        _mm_max_pd(_mm256_castpd256_pd128(greatest4), _mm256_extractf128_pd(greatest4, 1));
    const double greatest =
        std::max(_mm_cvtsd_f64(halves), _mm_cvtsd_f64(_mm_unpackhi_pd(halves, halves)));
    if (edge)
        *edge = _mm256_movemask_pd(plenty) != 0 ? 1.0 : exactEdge(count, d2, guides, reach, single);
    if (!(power == 2.0f && greatest > 0.0)) return raise(0, count, greatest, power, out, 0.0);
    // The usual power of 2 squares, four at a time; the sum stays in order.
    double sum = 0.0;
    const __m256d scale = _mm256_set1_pd(greatest);
    for (int i = 0; i < count; i += 4) {
        const __m256d t = _mm256_loadu_pd(out + i);
        const __m256d s = _mm256_div_pd(t, scale);
        const __m256d a = _mm256_and_pd(_mm256_cmp_pd(t, zero, _CMP_GT_OQ), _mm256_mul_pd(s, s));
        _mm256_storeu_pd(out + i, a);
        // Lanes past the last candidate hold +0, which leaves the sum (never -0) as it is. The
        // lanes are taken from the register, not read back from memory.
        const __m128d low = _mm256_castpd256_pd128(a), high = _mm256_extractf128_pd(a, 1);
        sum += _mm_cvtsd_f64(low);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(low, low));
        sum += _mm_cvtsd_f64(high);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(high, high));
    }
    return sum;
}

#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Eight at a time with AVX-512: the lanes past the last candidate are masked off, read as
// nothing and written as +0 into the padding of `out`. Each lane's operations are those of the
// plain path, in its order; a masked-off operation gives the +0 the narrower paths mask to.
__attribute__((target("avx512f,avx2"))) double shepardEight(int count, const float* d2,
                                                            const std::uint32_t* guides,
                                                            const float* reach, float single,
                                                            float power, double* out,
                                                            double* edge) {
    const __m512d least = _mm512_set1_pd(1e-6), one = _mm512_set1_pd(1.0);
    const __m512d zero = _mm512_setzero_pd(), infinite = _mm512_set1_pd(kInfinity);
    const __m512d share = _mm512_set1_pd(0.26);
    const __m256i lane = _mm256_set_epi32(7, 6, 5, 4, 3, 2, 1, 0);
    __m512d greatest8 = zero;
    __mmask8 plenty = 0;
    for (int i = 0; i < count; i += 8) {
        const int n = std::min(8, count - i);
        const __mmask8 valid = static_cast<__mmask8>((1u << n) - 1u);
        const __m256i present = _mm256_cmpgt_epi32(_mm256_set1_epi32(n), lane);
        const __m256 squared = _mm256_maskload_ps(d2 + i, present);
        __m512d r;
        if (reach) {
            const __m256i at =
                _mm256_maskload_epi32(reinterpret_cast<const int*>(guides + i), present);
            r = _mm512_cvtps_pd(_mm256_mask_i32gather_ps(_mm256_setzero_ps(), reach, at,
                                                         _mm256_castsi256_ps(present), 4));
        } else {
            r = _mm512_set1_pd(single);
        }
        const __m512d d = _mm512_max_pd(_mm512_sqrt_pd(_mm512_cvtps_pd(squared)), least);
        // Not finite: infinite or not a number, as std::isfinite says.
        const __mmask8 unbounded =
            _mm512_mask_cmp_pd_mask(valid, _mm512_abs_pd(r), infinite, _CMP_NLT_UQ);
        const __mmask8 inside =
            static_cast<__mmask8>(_mm512_mask_cmp_pd_mask(valid, r, d, _CMP_GT_OQ) & ~unbounded);
        const __m512d left = _mm512_sub_pd(r, d);
        const __m512d numerator = _mm512_mask_blend_pd(unbounded, left, one);
        const __m512d denominator = _mm512_mask_blend_pd(unbounded, _mm512_mul_pd(r, d), d);
        const __m512d t =
            _mm512_maskz_div_pd(static_cast<__mmask8>(unbounded | inside), numerator, denominator);
        _mm512_storeu_pd(out + i, t);
        greatest8 = _mm512_max_pd(greatest8, t);
        plenty = static_cast<__mmask8>(
            plenty | unbounded |
            _mm512_mask_cmp_pd_mask(inside, left, _mm512_mul_pd(r, share), _CMP_GE_OQ));
    }
    // The greatest of the lanes: max is exact, so any order gives it.
    const double greatest = _mm512_reduce_max_pd(greatest8);
    if (edge) *edge = plenty != 0 ? 1.0 : exactEdge(count, d2, guides, reach, single);
    if (!(power == 2.0f && greatest > 0.0)) return raise(0, count, greatest, power, out, 0.0);
    double sum = 0.0;
    const __m512d scale = _mm512_set1_pd(greatest);
    for (int i = 0; i < count; i += 8) {
        const __m512d t = _mm512_loadu_pd(out + i);
        const __m512d s = _mm512_div_pd(t, scale);
        const __m512d a = _mm512_maskz_mul_pd(_mm512_cmp_pd_mask(t, zero, _CMP_GT_OQ), s, s);
        _mm512_storeu_pd(out + i, a);
        // Lanes past the last candidate hold +0, which leaves the sum (never -0) as it is.
        const __m256d low = _mm512_castpd512_pd256(a), high = _mm512_extractf64x4_pd(a, 1);
        const __m128d q0 = _mm256_castpd256_pd128(low), q1 = _mm256_extractf128_pd(low, 1);
        const __m128d q2 = _mm256_castpd256_pd128(high), q3 = _mm256_extractf128_pd(high, 1);
        sum += _mm_cvtsd_f64(q0);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(q0, q0));
        sum += _mm_cvtsd_f64(q1);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(q1, q1));
        sum += _mm_cvtsd_f64(q2);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(q2, q2));
        sum += _mm_cvtsd_f64(q3);
        sum += _mm_cvtsd_f64(_mm_unpackhi_pd(q3, q3));
    }
    return sum;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// Two weights rounded at a time, each lane as roundUnits; a weight not above 0 is masked to 0
// rather than branched on.
std::int64_t roundUnitsTwo(int count, const double* weights, double sum, std::uint32_t* units,
                           double* remainder) {
    const __m128d total2 = _mm_set1_pd(sum), scale = _mm_set1_pd(kTotalWeight);
    const __m128d whole = _mm_set1_pd(4503599627370496.0), zero = _mm_setzero_pd();
    std::int64_t total = 0;
    int i = 0;
    for (; i + 2 <= count; i += 2) {
        const __m128d w = _mm_loadu_pd(weights + i);
        const __m128d scaled =
            _mm_and_pd(_mm_cmpgt_pd(w, zero), _mm_mul_pd(_mm_div_pd(w, total2), scale));
        // std::min(x, 65536) is (65536 < x ? 65536 : x): minpd(x, 65536) for numbers.
        const __m128d rounded = _mm_min_pd(_mm_sub_pd(_mm_add_pd(scaled, whole), whole), scale);
        _mm_storeu_pd(remainder + i, _mm_sub_pd(scaled, rounded));
        const __m128i whole2 = _mm_cvttpd_epi32(rounded);
        const auto u0 = static_cast<std::uint32_t>(_mm_cvtsi128_si32(whole2));
        const auto u1 = static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(whole2, 4)));
        units[i] = u0;
        units[i + 1] = u1;
        total += std::int64_t{u0} + u1;
    }
    return total + roundUnits(i, count, weights, sum, units, remainder);
}

// Four at a time, the last group masked; lanes past the last weight write 0 units into the
// padding of `units` and `remainder`.
__attribute__((target("avx"))) std::int64_t roundUnitsFour(int count, const double* weights,
                                                           double sum, std::uint32_t* units,
                                                           double* remainder) {
    const __m256d total4 = _mm256_set1_pd(sum), scale = _mm256_set1_pd(kTotalWeight);
    const __m256d whole = _mm256_set1_pd(4503599627370496.0), zero = _mm256_setzero_pd();
    const __m256d lane = _mm256_set_pd(3.0, 2.0, 1.0, 0.0);
    // At most 66 weights of at most 65536 units each: the lanes' totals stay far below 2^31.
    __m128i total = _mm_setzero_si128();
    for (int i = 0; i < count; i += 4) {
        const __m256d valid = _mm256_cmp_pd(lane, _mm256_set1_pd(count - i), _CMP_LT_OQ);
        const __m256d w = _mm256_and_pd(valid, _mm256_loadu_pd(weights + i));
        const __m256d scaled = _mm256_and_pd(_mm256_cmp_pd(w, zero, _CMP_GT_OQ),
                                             _mm256_mul_pd(_mm256_div_pd(w, total4), scale));
        const __m256d rounded =
            _mm256_min_pd(_mm256_sub_pd(_mm256_add_pd(scaled, whole), whole), scale);
        const __m256d left = _mm256_sub_pd(scaled, rounded);
        const __m128d leftLow = _mm256_castpd256_pd128(left);
        const __m128d leftHigh = _mm256_extractf128_pd(left, 1);
        _mm_storel_pd(remainder + i, leftLow);
        _mm_storeh_pd(remainder + i + 1, leftLow);
        _mm_storel_pd(remainder + i + 2, leftHigh);
        _mm_storeh_pd(remainder + i + 3, leftHigh);
        const __m128i whole4 = _mm256_cvttpd_epi32(rounded);
        // Stored one by one, as the remainders: the loops after read them one by one straight
        // away, and a load from inside a wider store waits for it to reach the cache.
        units[i] = static_cast<std::uint32_t>(_mm_cvtsi128_si32(whole4));
        units[i + 1] = static_cast<std::uint32_t>(_mm_extract_epi32(whole4, 1));
        units[i + 2] = static_cast<std::uint32_t>(_mm_extract_epi32(whole4, 2));
        units[i + 3] = static_cast<std::uint32_t>(_mm_extract_epi32(whole4, 3));
        total = _mm_add_epi32(total, whole4);
    }
    return std::int64_t{_mm_cvtsi128_si32(total)} + _mm_extract_epi32(total, 1) +
           _mm_extract_epi32(total, 2) + _mm_extract_epi32(total, 3);
}
#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Eight at a time with AVX-512, the last group masked, and the weights above 0 kept in the same
// step: their units, guides and remainders are packed to the front in order straight from the
// registers, where the narrower paths pack them in a loop after. Returns the units rounded;
// `positive` receives how many were kept.
__attribute__((target("avx512f,avx2"))) std::int64_t roundUnitsEight(
    int count, const double* weights, double sum, std::uint32_t* units, std::uint32_t* guides,
    double* remainder, int& positive) {
    const __m512d total8 = _mm512_set1_pd(sum), scale = _mm512_set1_pd(kTotalWeight);
    const __m512d whole = _mm512_set1_pd(4503599627370496.0), zero = _mm512_setzero_pd();
    // At most 66 weights of at most 65536 units each: the lanes' totals stay far below 2^31.
    __m256i total = _mm256_setzero_si256();
    int kept = 0;
    for (int i = 0; i < count; i += 8) {
        const int n = std::min(8, count - i);
        const __mmask8 valid = static_cast<__mmask8>((1u << n) - 1u);
        const __m512d w = _mm512_maskz_loadu_pd(valid, weights + i);
        const __mmask8 above = _mm512_cmp_pd_mask(w, zero, _CMP_GT_OQ);
        const __m512d scaled = _mm512_maskz_mul_pd(above, _mm512_div_pd(w, total8), scale);
        const __m512d rounded =
            _mm512_min_pd(_mm512_sub_pd(_mm512_add_pd(scaled, whole), whole), scale);
        const __m512d left = _mm512_sub_pd(scaled, rounded);
        const __m256i whole8 = _mm512_cvttpd_epi32(rounded);
        total = _mm256_add_epi32(total, whole8);
        // Written over entries already read: the block's kept ones land at or before it.
        const __m512i guide = _mm512_maskz_loadu_epi32(valid, guides + i);
        const int taken = __builtin_popcount(above);
        const auto into = static_cast<__mmask16>((1u << taken) - 1u);
        _mm512_mask_storeu_epi32(
            units + kept, into, _mm512_maskz_compress_epi32(above, _mm512_castsi256_si512(whole8)));
        _mm512_mask_storeu_epi32(guides + kept, into, _mm512_maskz_compress_epi32(above, guide));
        _mm512_mask_storeu_pd(remainder + kept, static_cast<__mmask8>(into),
                              _mm512_maskz_compress_pd(above, left));
        kept += taken;
    }
    positive = kept;
    const __m128i t4 =
        _mm_add_epi32(_mm256_castsi256_si128(total), _mm256_extracti128_si256(total, 1));
    return std::int64_t{_mm_cvtsi128_si32(t4)} + _mm_extract_epi32(t4, 1) +
           _mm_extract_epi32(t4, 2) + _mm_extract_epi32(t4, 3);
}

// Keeps the entries with units, in place and in order, eight at a time; returns how many.
__attribute__((target("avx512f,avx2"))) int keepUnitsEight(int count, std::uint32_t* units,
                                                           std::uint32_t* guides) {
    int kept = 0;
    for (int i = 0; i < count; i += 8) {
        const int n = std::min(8, count - i);
        const auto valid = static_cast<__mmask16>((1u << n) - 1u);
        const __m512i unit = _mm512_maskz_loadu_epi32(valid, units + i);
        const __m512i guide = _mm512_maskz_loadu_epi32(valid, guides + i);
        const __mmask16 has = _mm512_mask_cmpneq_epi32_mask(valid, unit, _mm512_setzero_si512());
        const int taken = __builtin_popcount(has);
        const auto into = static_cast<__mmask16>((1u << taken) - 1u);
        _mm512_mask_storeu_epi32(units + kept, into, _mm512_maskz_compress_epi32(has, unit));
        _mm512_mask_storeu_epi32(guides + kept, into, _mm512_maskz_compress_epi32(has, guide));
        kept += taken;
    }
    return kept;
}
// One block of eight weights rounded as roundUnits rounds them, in registers: their units (as
// whole doubles), remainders, and which were above 0.
__attribute__((target("avx512f,avx2"))) inline void roundBlock(const double* weights,
                                                               __mmask8 valid, __m512d total8,
                                                               __m512d& units, __m512d& left,
                                                               __mmask8& above) {
    const __m512d scale = _mm512_set1_pd(kTotalWeight);
    const __m512d whole = _mm512_set1_pd(4503599627370496.0);
    const __m512d w = _mm512_maskz_loadu_pd(valid, weights);
    above = _mm512_cmp_pd_mask(w, _mm512_setzero_pd(), _CMP_GT_OQ);
    const __m512d scaled = _mm512_maskz_mul_pd(above, _mm512_div_pd(w, total8), scale);
    units = _mm512_min_pd(_mm512_sub_pd(_mm512_add_pd(scaled, whole), whole), scale);
    left = _mm512_sub_pd(scaled, units);
}

// The first of the sixteen lanes (low, then high) that equal `x`, or -1.
__attribute__((target("avx512f,avx2"))) inline int firstEqual(__m512d low, __m512d high, double x) {
    const __m512d value = _mm512_set1_pd(x);
    const unsigned at = _mm512_cmp_pd_mask(low, value, _CMP_EQ_OQ) |
                        unsigned{_mm512_cmp_pd_mask(high, value, _CMP_EQ_OQ)} << 8;
    return at == 0 ? -1 : __builtin_ctz(at);
}

// Adds `step` to the units of lane `pick` (of sixteen) and takes it from its remainder.
__attribute__((target("avx512f,avx2"))) inline void moveUnit(int pick, __m512d step,
                                                             __m512d& unitsLow, __m512d& unitsHigh,
                                                             __m512d& leftLow, __m512d& leftHigh) {
    const unsigned bit = 1u << pick;
    const auto low = static_cast<__mmask8>(bit), high = static_cast<__mmask8>(bit >> 8);
    unitsLow = _mm512_mask_add_pd(unitsLow, low, unitsLow, step);
    unitsHigh = _mm512_mask_add_pd(unitsHigh, high, unitsHigh, step);
    leftLow = _mm512_mask_sub_pd(leftLow, low, leftLow, step);
    leftHigh = _mm512_mask_sub_pd(leftHigh, high, leftHigh, step);
}

// Up to sixteen weights quantised in two registers of eight: the rounding, the moves of units and
// the keeping of entries with units, with no store and reload between them (a load of what a
// masked store has just written waits for it to reach the cache). The moves are quantise's, each
// pick found as the greatest or least lane and then the first lane holding it; entries not above
// 0 take no part, as they take none where quantise has dropped them first.
__attribute__((target("avx512f,avx2"))) int quantiseSixteen(int count, const double* weights,
                                                            double sum, std::uint32_t* guides,
                                                            std::uint16_t* records) {
    const __m512d total8 = _mm512_set1_pd(sum), one = _mm512_set1_pd(1.0);
    const __m512d zero = _mm512_setzero_pd();
    const __m512d infinite = _mm512_set1_pd(kInfinity), none = _mm512_set1_pd(-kInfinity);
    const auto valid = static_cast<__mmask16>((1u << count) - 1u);
    __m512d unitsLow, unitsHigh, leftLow, leftHigh;
    __mmask8 aboveLow, aboveHigh;
    roundBlock(weights, static_cast<__mmask8>(valid), total8, unitsLow, leftLow, aboveLow);
    roundBlock(weights + 8, static_cast<__mmask8>(valid >> 8), total8, unitsHigh, leftHigh,
               aboveHigh);
    // Whole numbers far below 2^53: any order of adding them is exact.
    auto total =
        static_cast<std::int64_t>(_mm512_reduce_add_pd(_mm512_add_pd(unitsLow, unitsHigh)));
    while (total > kTotalWeight) {
        // The least remainder among those that can give a unit; the earliest of equal ones.
        const __mmask8 giveLow = _mm512_mask_cmp_pd_mask(
            _mm512_cmp_pd_mask(unitsLow, zero, _CMP_GT_OQ), leftLow, zero, _CMP_NEQ_OQ);
        const __mmask8 giveHigh = _mm512_mask_cmp_pd_mask(
            _mm512_cmp_pd_mask(unitsHigh, zero, _CMP_GT_OQ), leftHigh, zero, _CMP_NEQ_OQ);
        const __m512d low = _mm512_mask_mov_pd(infinite, giveLow, leftLow);
        const __m512d high = _mm512_mask_mov_pd(infinite, giveHigh, leftHigh);
        const double least = _mm512_reduce_min_pd(_mm512_min_pd(low, high));
        int pick = least < kInfinity ? firstEqual(low, high, least) : -1;
        if (pick < 0) {
            const unsigned has = _mm512_cmp_pd_mask(unitsLow, zero, _CMP_GT_OQ) |
                                 unsigned{_mm512_cmp_pd_mask(unitsHigh, zero, _CMP_GT_OQ)} << 8;
            pick = __builtin_ctz(has);
        }
        moveUnit(pick, _mm512_sub_pd(zero, one), unitsLow, unitsHigh, leftLow, leftHigh);
        --total;
    }
    while (total < kTotalWeight) {
        // The largest remainder among the entries above 0; the earliest of equal ones.
        const __m512d low = _mm512_mask_mov_pd(none, aboveLow, leftLow);
        const __m512d high = _mm512_mask_mov_pd(none, aboveHigh, leftHigh);
        moveUnit(firstEqual(low, high, _mm512_reduce_max_pd(_mm512_max_pd(low, high))), one,
                 unitsLow, unitsHigh, leftLow, leftHigh);
        ++total;
    }
    const __m512i units = _mm512_inserti64x4(_mm512_castsi256_si512(_mm512_cvttpd_epi32(unitsLow)),
                                             _mm512_cvttpd_epi32(unitsHigh), 1);
    const __mmask16 keep = _mm512_mask_cmpneq_epi32_mask(valid, units, _mm512_setzero_si512());
    const int kept = __builtin_popcount(keep);
    const __m512i guide = _mm512_maskz_loadu_epi32(valid, guides);
    _mm512_mask_storeu_epi32(guides, static_cast<__mmask16>((1u << kept) - 1u),
                             _mm512_maskz_compress_epi32(keep, guide));
    const __m512i stored =
        _mm512_maskz_compress_epi32(keep, _mm512_sub_epi32(units, _mm512_set1_epi32(1)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(records), _mm512_cvtepi32_epi16(stored));
    return kept;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

}  // namespace

Lanes bestLanes() {
#if VELMORIN_BINDING_LANES
    static const Lanes best = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx2")
                                  ? Lanes::eight
                              : __builtin_cpu_supports("avx") ? Lanes::four
                                                              : Lanes::two;
    return best;
#else
    return Lanes::plain;
#endif
}

double shepard(Lanes lanes, int count, const float* d2, const std::uint32_t* guides,
               const float* reach, float single, float power, double* out, double* edge) {
#if VELMORIN_BINDING_LANES
    if (lanes == Lanes::eight)
        return shepardEight(count, d2, guides, reach, single, power, out, edge);
    if (lanes == Lanes::four)
        return shepardFour(count, d2, guides, reach, single, power, out, edge);
    if (lanes == Lanes::two) return shepardTwo(count, d2, guides, reach, single, power, out, edge);
#endif
    double greatest = 0.0, reachLeft = 0.0;
    firstWeights(0, count, d2, guides, reach, single, out, greatest, reachLeft);
    if (edge) *edge = reachLeft;
    return raise(0, count, greatest, power, out, 0.0);
}

// Adding +0 leaves the sum as it is, so the weights not above 0 may join it: a candidate past its
// guide's reach is as common as one within it, and a branch on it mispredicts.
double positiveSum(int count, const double* weights) {
    double sum = 0.0;
    for (int i = 0; i < count; ++i)
        sum += weights[i] > 0.0 ? weights[i] : 0.0;
    return sum;
}

int quantiseRecords(Lanes lanes, int count, const double* weights, double sum,
                    std::uint32_t* guides, std::uint16_t* records) {
#if VELMORIN_BINDING_LANES
    if (lanes == Lanes::eight && count <= 16) {
        if (!(sum > 0.0) || !std::isfinite(sum)) return 0;
        return quantiseSixteen(count, weights, sum, guides, records);
    }
#endif
    std::uint32_t units[kPaddedCandidates];
    const int kept = quantise(lanes, count, weights, sum, guides, units);
    for (int i = 0; i < kept; ++i)
        records[i] = static_cast<std::uint16_t>(units[i] - 1);
    return kept;
}

int quantise(Lanes lanes, int count, const double* weights, double sum, std::uint32_t* guides,
             std::uint32_t* units) {
    (void)lanes;
    if (!(sum > 0.0) || !std::isfinite(sum)) return 0;
    double remainder[kPaddedCandidates];
    std::int64_t total = 0;
    // Only weights above 0 can take or give a unit: the others go before units move, which
    // leaves the moves' scans a third as long. The order, and so the ties, stay.
    int positive = 0;
#if VELMORIN_BINDING_LANES
    if (lanes == Lanes::eight) {
        total = roundUnitsEight(count, weights, sum, units, guides, remainder, positive);
    } else
#endif
    {
#if VELMORIN_BINDING_LANES
        if (lanes == Lanes::four)
            total = roundUnitsFour(count, weights, sum, units, remainder);
        else if (lanes == Lanes::two)
            total = roundUnitsTwo(count, weights, sum, units, remainder);
        else
#endif
            total = roundUnits(0, count, weights, sum, units, remainder);
        for (int i = 0; i < count; ++i) {
            const std::uint32_t unit = units[i], guide = guides[i];
            const double left = remainder[i];
            units[positive] = unit;
            guides[positive] = guide;
            remainder[positive] = left;
            positive += weights[i] > 0.0 ? 1 : 0;
        }
    }
    count = positive;
    while (total > kTotalWeight) {
        // The least remainder among those that can give a unit; the earliest of equal ones.
        int pick = -1;
        double least = kInfinity;
        for (int i = 0; i < count; ++i) {
            // Entries that cannot give a unit stand at infinity: a select, not a branch.
            const double taken = units[i] > 0 ? remainder[i] : kInfinity;
            const double r = taken == 0.0 ? kInfinity : taken;
            pick = r < least ? i : pick;
            least = std::min(least, r);
        }
        if (pick < 0)
            for (int i = 0; i < count && pick < 0; ++i)
                if (units[i] > 0) pick = i;
        --units[pick];
        remainder[pick] += 1.0;
        --total;
    }
    while (total < kTotalWeight) {
        int pick = -1;
        double most = -kInfinity;
        for (int i = 0; i < count; ++i) {
            const double r = remainder[i];
            pick = r > most ? i : pick;
            most = std::max(most, r);
        }
        ++units[pick];
        remainder[pick] -= 1.0;
        ++total;
    }
    // Each entry is written at the next place and kept there only if it has units: whether it
    // does is as hard to guess as whether its guide reaches the strand. Both are read before
    // either is written, as `guides` might be `units` for all the compiler knows, and a read
    // after the writes would wait for them.
#if VELMORIN_BINDING_LANES
    if (lanes == Lanes::eight) return keepUnitsEight(count, units, guides);
#endif
    int kept = 0;
    for (int i = 0; i < count; ++i) {
        const std::uint32_t unit = units[i], guide = guides[i];
        units[kept] = unit;
        guides[kept] = guide;
        kept += unit != 0 ? 1 : 0;
    }
    return kept;
}

}  // namespace velmorin::binding_weights
