#pragma once
// Float lanes for the side-by-side kernels (Curl's, Interpolate's shape): several strands of one
// point count run through the per-point passes together, one strand per lane, four lanes with SSE2
// (every x86-64) or eight with AVX where the processor has it (avxLanesUsable), chosen at run
// time. A kernel is written once over the lane type F, mask M and these operations, and its text
// included once per width, with the wide one built for AVX by a target attribute. Each operation is
// one IEEE operation per lane, and there is no fused multiply-add (the build targets plain x86-64
// and the AVX functions ask for AVX alone), so a lane gives the bits the scalar code gives for its
// strand, operation for operation.
//
// minOf and maxOf are std::min and std::max, argument for argument, NaN and signed zeros included:
// std::min(a, b) is (b < a ? b : a), which is minps(b, a). Masks are all ones or all zeros per
// lane. GCC and clang only: the wide functions carry a target attribute.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/fast_trig_lanes.h"
#include "base/vec3.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__SSE2__) && \
    (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_FLOAT_LANES 1
#else
#define VELMORIN_FLOAT_LANES 0
#endif

#if VELMORIN_FLOAT_LANES

namespace velmorin::float_lanes {

namespace narrow {

inline constexpr std::size_t kWidth = 4;

struct F {
    __m128 v;
};
struct M {
    __m128 v;
};

inline F load(const float* p) {
    return {_mm_loadu_ps(p)};
}
inline void store(float* p, F a) {
    _mm_storeu_ps(p, a.v);
}
// load and store at an address aligned to the lane width.
inline F loadAligned(const float* p) {
    return {_mm_load_ps(p)};
}
inline void storeAligned(float* p, F a) {
    _mm_store_ps(p, a.v);
}
inline F splat(float x) {
    return {_mm_set1_ps(x)};
}
inline F operator+(F a, F b) {
    return {_mm_add_ps(a.v, b.v)};
}
inline F operator-(F a, F b) {
    return {_mm_sub_ps(a.v, b.v)};
}
inline F operator*(F a, F b) {
    return {_mm_mul_ps(a.v, b.v)};
}
inline F operator/(F a, F b) {
    return {_mm_div_ps(a.v, b.v)};
}
inline F sqrtOf(F a) {
    return {_mm_sqrt_ps(a.v)};
}
inline F minOf(F a, F b) {
    return {_mm_min_ps(b.v, a.v)};
}
inline F maxOf(F a, F b) {
    return {_mm_max_ps(b.v, a.v)};
}
inline F absOf(F a) {
    return {_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)};
}
inline M operator<(F a, F b) {
    return {_mm_cmplt_ps(a.v, b.v)};
}
inline M operator<=(F a, F b) {
    return {_mm_cmple_ps(a.v, b.v)};
}
inline M operator>(F a, F b) {
    return {_mm_cmpgt_ps(a.v, b.v)};
}
inline M operator>=(F a, F b) {
    return {_mm_cmpge_ps(a.v, b.v)};
}
inline M operator==(F a, F b) {
    return {_mm_cmpeq_ps(a.v, b.v)};
}
inline M operator&(M a, M b) {
    return {_mm_and_ps(a.v, b.v)};
}
inline M operator|(M a, M b) {
    return {_mm_or_ps(a.v, b.v)};
}
inline M notOf(M a) {
    return {_mm_xor_ps(a.v, _mm_castsi128_ps(_mm_set1_epi32(-1)))};
}
// m ? a : b, lane by lane.
inline F select(M m, F a, F b) {
    return {_mm_or_ps(_mm_and_ps(m.v, a.v), _mm_andnot_ps(m.v, b.v))};
}
// wide::blendOf's narrow form: SSE2 has no blend, so select itself.
inline F blendOf(M m, F a, F b) {
    return select(m, a, b);
}
// 1 in the lanes of m, 0 elsewhere.
inline F oneWhere(M m) {
    return {_mm_and_ps(m.v, _mm_set1_ps(1.0f))};
}
// One bit per lane, lane 0 lowest; kAllLanes when every lane is set.
inline constexpr int kAllLanes = 0xF;
inline int laneBits(M m) {
    return _mm_movemask_ps(m.v);
}
inline bool anyOf(M m) {
    return _mm_movemask_ps(m.v) != 0;
}
inline bool allOf(M m) {
    return _mm_movemask_ps(m.v) == 0xF;
}
// The whole part of each lane by truncation, as a float, for lanes below 2^31 in size.
inline F truncatedSmall(F a) {
    return {_mm_cvtepi32_ps(_mm_cvttps_epi32(a.v))};
}
// sinCosTurns, lane by lane.
inline void sinCosOf(F turns, F& sin, F& cos) {
    sinCosTurns4(turns.v, sin.v, cos.v);
}

// Point k of four strands (strands[l] the first point of lane l's) into rows of x, y and z: each
// point read as four floats, the fourth the next point's x, and the four turned into rows. A
// strand's last point (`last`) is read as its three floats alone, so nothing past it is touched.
inline void transposePoints(const Vec3f* const* strands, std::size_t k, bool last, float* x,
                            float* y, float* z) {
    __m128 rows[kWidth];
    for (std::size_t l = 0; l < kWidth; ++l) {
        const Vec3f& p = strands[l][k];
        rows[l] = last ? _mm_setr_ps(p.x, p.y, p.z, 0.0f) : _mm_loadu_ps(&p.x);
    }
    _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
    _mm_storeu_ps(x, rows[0]);
    _mm_storeu_ps(y, rows[1]);
    _mm_storeu_ps(z, rows[2]);
}

// transposePoints the other way: rows of x, y and z into point k of four strands. Each point is
// written as four floats, the fourth over the next point's x, which the caller writes after it; a
// strand's last point (`last`) is written as its three floats alone.
inline void untransposePoints(const float* x, const float* y, const float* z, Vec3f* const* strands,
                              std::size_t k, bool last) {
    __m128 rows[kWidth] = {_mm_loadu_ps(x), _mm_loadu_ps(y), _mm_loadu_ps(z), _mm_setzero_ps()};
    _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
    for (std::size_t l = 0; l < kWidth; ++l) {
        float* const p = &strands[l][k].x;
        if (last) {
            _mm_storel_pi(reinterpret_cast<__m64*>(p), rows[l]);
            _mm_store_ss(p + 2, _mm_movehl_ps(rows[l], rows[l]));
        } else {
            _mm_storeu_ps(p, rows[l]);
        }
    }
}

// kWidth rows of kWidth floats (row l at rows + l * rowStride, each 16-byte aligned) into columns:
// column j holds element j of every row, stored at columns + j * kWidth (16-byte aligned).
inline void transposeBlock(const float* rows, std::size_t rowStride, float* columns) {
    __m128 r0 = _mm_load_ps(rows), r1 = _mm_load_ps(rows + rowStride);
    __m128 r2 = _mm_load_ps(rows + 2 * rowStride), r3 = _mm_load_ps(rows + 3 * rowStride);
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    _mm_store_ps(columns, r0);
    _mm_store_ps(columns + 4, r1);
    _mm_store_ps(columns + 8, r2);
    _mm_store_ps(columns + 12, r3);
}

// Lane l's point (x, y and z of the lanes) stored at out[l][at]: 16 bytes, the last 4 falling on
// the next point, which the caller writes after it, unless `last`.
inline void storeLanePoints(F px, F py, F pz, Vec3f* const* out, std::size_t at, bool last) {
    __m128 p0 = px.v, p1 = py.v, p2 = pz.v, p3 = _mm_setzero_ps();
    _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
    const __m128 p[kWidth] = {p0, p1, p2, p3};
    if (!last) {
        for (std::size_t l = 0; l < kWidth; ++l)
            _mm_storeu_ps(&out[l][at].x, p[l]);
        return;
    }
    for (std::size_t l = 0; l < kWidth; ++l) {
        _mm_storel_pi(reinterpret_cast<__m64*>(&out[l][at].x), p[l]);
        _mm_store_ss(&out[l][at].z, _mm_movehl_ps(p[l], p[l]));
    }
}

// Four floats at each of kWidth addresses as four rows: row j holds float j of every address.
inline void transposeRows(const float* const* at, F& a, F& b, F& c, F& d) {
    __m128 r0 = _mm_loadu_ps(at[0]), r1 = _mm_loadu_ps(at[1]);
    __m128 r2 = _mm_loadu_ps(at[2]), r3 = _mm_loadu_ps(at[3]);
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
    a = {r0};
    b = {r1};
    c = {r2};
    d = {r3};
}
// Lanes read as 32-bit integers: equal ones, and those of 0 and up.
inline M equalBits(F a, F b) {
    return {_mm_castsi128_ps(_mm_cmpeq_epi32(_mm_castps_si128(a.v), _mm_castps_si128(b.v)))};
}
inline M signClear(F a) {
    return {_mm_castsi128_ps(_mm_cmpgt_epi32(_mm_castps_si128(a.v), _mm_set1_epi32(-1)))};
}
// a and not b.
inline M andNot(M a, M b) {
    return {_mm_andnot_ps(b.v, a.v)};
}
inline M noLanes() {
    return {_mm_setzero_ps()};
}
inline M everyLane() {
    return {_mm_castsi128_ps(_mm_set1_epi32(-1))};
}
// The lanes of a mask as floats, to be selected between.
inline F bitsOf(M m) {
    return {m.v};
}
// bitsOf the other way.
inline M maskOf(F a) {
    return {a.v};
}

// out[l] = base + (lane l read as a 32-bit integer) * size, for every lane.
inline void laneAddresses(F indices, const char* base, std::size_t size, const char** out) {
    alignas(16) std::int32_t at[kWidth];
    _mm_store_si128(reinterpret_cast<__m128i*>(at), _mm_castps_si128(indices.v));
    // As integers, as the wide one computes them. Copied in as bytes, as the wide one stores
    // them: callers hand in an array of their own pointer type and read it back as that type,
    // which a store of `const char*` would let the compiler order after those reads.
    for (std::size_t l = 0; l < kWidth; ++l) {
        const char* const address = reinterpret_cast<const char*>(
            reinterpret_cast<std::intptr_t>(base) +
            static_cast<std::intptr_t>(at[l]) * static_cast<std::intptr_t>(size));
        std::memcpy(out + l, &address, sizeof(address));
    }
}

// Eight floats at each of kWidth addresses as eight rows: row j holds float j of every address.
inline void transposeEight(const float* const* at, F* rows) {
    for (std::size_t half = 0; half < 2; ++half) {
        __m128 r0 = _mm_loadu_ps(at[0] + 4 * half), r1 = _mm_loadu_ps(at[1] + 4 * half);
        __m128 r2 = _mm_loadu_ps(at[2] + 4 * half), r3 = _mm_loadu_ps(at[3] + 4 * half);
        _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
        rows[4 * half] = {r0};
        rows[4 * half + 1] = {r1};
        rows[4 * half + 2] = {r2};
        rows[4 * half + 3] = {r3};
    }
}

}  // namespace narrow

namespace wide {

#define VELMORIN_WIDE __attribute__((target("avx"), always_inline)) inline

inline constexpr std::size_t kWidth = 8;

struct F {
    __m256 v;
};
struct M {
    __m256 v;
};

VELMORIN_WIDE F load(const float* p) {
    return {_mm256_loadu_ps(p)};
}
VELMORIN_WIDE void store(float* p, F a) {
    _mm256_storeu_ps(p, a.v);
}
VELMORIN_WIDE F loadAligned(const float* p) {
    return {_mm256_load_ps(p)};
}
VELMORIN_WIDE void storeAligned(float* p, F a) {
    _mm256_store_ps(p, a.v);
}
VELMORIN_WIDE F splat(float x) {
    return {_mm256_set1_ps(x)};
}
VELMORIN_WIDE F operator+(F a, F b) {
    return {_mm256_add_ps(a.v, b.v)};
}
VELMORIN_WIDE F operator-(F a, F b) {
    return {_mm256_sub_ps(a.v, b.v)};
}
VELMORIN_WIDE F operator*(F a, F b) {
    return {_mm256_mul_ps(a.v, b.v)};
}
VELMORIN_WIDE F operator/(F a, F b) {
    return {_mm256_div_ps(a.v, b.v)};
}
VELMORIN_WIDE F sqrtOf(F a) {
    return {_mm256_sqrt_ps(a.v)};
}
VELMORIN_WIDE F minOf(F a, F b) {
    return {_mm256_min_ps(b.v, a.v)};
}
VELMORIN_WIDE F maxOf(F a, F b) {
    return {_mm256_max_ps(b.v, a.v)};
}
VELMORIN_WIDE F absOf(F a) {
    return {_mm256_andnot_ps(_mm256_set1_ps(-0.0f), a.v)};
}
VELMORIN_WIDE M operator<(F a, F b) {
    return {_mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ)};
}
VELMORIN_WIDE M operator<=(F a, F b) {
    return {_mm256_cmp_ps(a.v, b.v, _CMP_LE_OQ)};
}
VELMORIN_WIDE M operator>(F a, F b) {
    return {_mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ)};
}
VELMORIN_WIDE M operator>=(F a, F b) {
    return {_mm256_cmp_ps(a.v, b.v, _CMP_GE_OQ)};
}
VELMORIN_WIDE M operator==(F a, F b) {
    return {_mm256_cmp_ps(a.v, b.v, _CMP_EQ_OQ)};
}
VELMORIN_WIDE M operator&(M a, M b) {
    return {_mm256_and_ps(a.v, b.v)};
}
VELMORIN_WIDE M operator|(M a, M b) {
    return {_mm256_or_ps(a.v, b.v)};
}
VELMORIN_WIDE M notOf(M a) {
    return {_mm256_xor_ps(a.v, _mm256_castsi256_ps(_mm256_set1_epi32(-1)))};
}
// Bitwise rather than blendv: GCC 12 turns a blendv of a comparison into a conditional that it
// then builds lane by lane, with branches, in a function made for AVX by its attribute alone.
VELMORIN_WIDE F select(M m, F a, F b) {
    return {_mm256_or_ps(_mm256_and_ps(m.v, a.v), _mm256_andnot_ps(m.v, b.v))};
}
// select in one instruction, for kernels short of registers and instructions: vblendvps written
// out, so that the compiler can't fold it into the conditional that the comment above describes.
// It reads each mask lane's sign bit alone, which for a mask is the whole lane.
VELMORIN_WIDE F blendOf(M m, F a, F b) {
    __m256 picked;
    asm("vblendvps %3, %2, %1, %0" : "=x"(picked) : "x"(b.v), "x"(a.v), "x"(m.v));
    return {picked};
}
VELMORIN_WIDE F oneWhere(M m) {
    return {_mm256_and_ps(m.v, _mm256_set1_ps(1.0f))};
}
inline constexpr int kAllLanes = 0xFF;
VELMORIN_WIDE int laneBits(M m) {
    return _mm256_movemask_ps(m.v);
}
VELMORIN_WIDE bool anyOf(M m) {
    return _mm256_movemask_ps(m.v) != 0;
}
VELMORIN_WIDE bool allOf(M m) {
    return _mm256_movemask_ps(m.v) == 0xFF;
}
VELMORIN_WIDE F truncatedSmall(F a) {
    return {_mm256_cvtepi32_ps(_mm256_cvttps_epi32(a.v))};
}
VELMORIN_WIDE void sinCosOf(F turns, F& sin, F& cos) {
    sinCosTurns8(turns.v, sin.v, cos.v);
}

// narrow::transposePoints for eight strands: two groups of four, joined.
VELMORIN_WIDE void transposePoints(const Vec3f* const* strands, std::size_t k, bool last, float* x,
                                   float* y, float* z) {
    __m128 rows[kWidth];
    for (std::size_t l = 0; l < kWidth; ++l) {
        const Vec3f& p = strands[l][k];
        rows[l] = last ? _mm_setr_ps(p.x, p.y, p.z, 0.0f) : _mm_loadu_ps(&p.x);
    }
    _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
    _MM_TRANSPOSE4_PS(rows[4], rows[5], rows[6], rows[7]);
    _mm256_storeu_ps(x, _mm256_insertf128_ps(_mm256_castps128_ps256(rows[0]), rows[4], 1));
    _mm256_storeu_ps(y, _mm256_insertf128_ps(_mm256_castps128_ps256(rows[1]), rows[5], 1));
    _mm256_storeu_ps(z, _mm256_insertf128_ps(_mm256_castps128_ps256(rows[2]), rows[6], 1));
}

// narrow::untransposePoints for eight strands.
VELMORIN_WIDE void untransposePoints(const float* x, const float* y, const float* z,
                                     Vec3f* const* strands, std::size_t k, bool last) {
    const __m256 wideX = _mm256_loadu_ps(x), wideY = _mm256_loadu_ps(y), wideZ = _mm256_loadu_ps(z);
    __m128 rows[kWidth] = {_mm256_castps256_ps128(wideX),   _mm256_castps256_ps128(wideY),
                           _mm256_castps256_ps128(wideZ),   _mm_setzero_ps(),
                           _mm256_extractf128_ps(wideX, 1), _mm256_extractf128_ps(wideY, 1),
                           _mm256_extractf128_ps(wideZ, 1), _mm_setzero_ps()};
    _MM_TRANSPOSE4_PS(rows[0], rows[1], rows[2], rows[3]);
    _MM_TRANSPOSE4_PS(rows[4], rows[5], rows[6], rows[7]);
    for (std::size_t l = 0; l < kWidth; ++l) {
        float* const p = &strands[l][k].x;
        if (last) {
            _mm_storel_pi(reinterpret_cast<__m64*>(p), rows[l]);
            _mm_store_ss(p + 2, _mm_movehl_ps(rows[l], rows[l]));
        } else {
            _mm_storeu_ps(p, rows[l]);
        }
    }
}

// narrow::transposeBlock for eight rows of eight floats (32-byte aligned).
VELMORIN_WIDE void transposeBlock(const float* rows, std::size_t rowStride, float* columns) {
    const __m256 r0 = _mm256_load_ps(rows), r1 = _mm256_load_ps(rows + rowStride),
                 r2 = _mm256_load_ps(rows + 2 * rowStride),
                 r3 = _mm256_load_ps(rows + 3 * rowStride),
                 r4 = _mm256_load_ps(rows + 4 * rowStride),
                 r5 = _mm256_load_ps(rows + 5 * rowStride),
                 r6 = _mm256_load_ps(rows + 6 * rowStride),
                 r7 = _mm256_load_ps(rows + 7 * rowStride);
    const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
    const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
    const __m256 t4 = _mm256_unpacklo_ps(r4, r5), t5 = _mm256_unpackhi_ps(r4, r5);
    const __m256 t6 = _mm256_unpacklo_ps(r6, r7), t7 = _mm256_unpackhi_ps(r6, r7);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    _mm256_store_ps(columns, _mm256_permute2f128_ps(u0, u4, 0x20));
    _mm256_store_ps(columns + 8, _mm256_permute2f128_ps(u1, u5, 0x20));
    _mm256_store_ps(columns + 16, _mm256_permute2f128_ps(u2, u6, 0x20));
    _mm256_store_ps(columns + 24, _mm256_permute2f128_ps(u3, u7, 0x20));
    _mm256_store_ps(columns + 32, _mm256_permute2f128_ps(u0, u4, 0x31));
    _mm256_store_ps(columns + 40, _mm256_permute2f128_ps(u1, u5, 0x31));
    _mm256_store_ps(columns + 48, _mm256_permute2f128_ps(u2, u6, 0x31));
    _mm256_store_ps(columns + 56, _mm256_permute2f128_ps(u3, u7, 0x31));
}

// narrow::storeLanePoints for eight lanes.
VELMORIN_WIDE void storeLanePoints(F px, F py, F pz, Vec3f* const* out, std::size_t at, bool last) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 xyLow = _mm256_unpacklo_ps(px.v, py.v), xyHigh = _mm256_unpackhi_ps(px.v, py.v);
    const __m256 zLow = _mm256_unpacklo_ps(pz.v, zero), zHigh = _mm256_unpackhi_ps(pz.v, zero);
    // Lanes 0, 4 / 1, 5 / 2, 6 / 3, 7 as (x, y, z, 0) in each half.
    const __m256 p04 = _mm256_shuffle_ps(xyLow, zLow, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 p15 = _mm256_shuffle_ps(xyLow, zLow, _MM_SHUFFLE(3, 2, 3, 2));
    const __m256 p26 = _mm256_shuffle_ps(xyHigh, zHigh, _MM_SHUFFLE(1, 0, 1, 0));
    const __m256 p37 = _mm256_shuffle_ps(xyHigh, zHigh, _MM_SHUFFLE(3, 2, 3, 2));
    const __m128 p[kWidth] = {_mm256_castps256_ps128(p04),   _mm256_castps256_ps128(p15),
                              _mm256_castps256_ps128(p26),   _mm256_castps256_ps128(p37),
                              _mm256_extractf128_ps(p04, 1), _mm256_extractf128_ps(p15, 1),
                              _mm256_extractf128_ps(p26, 1), _mm256_extractf128_ps(p37, 1)};
    if (!last) {
        for (std::size_t l = 0; l < kWidth; ++l)
            _mm_storeu_ps(&out[l][at].x, p[l]);
        return;
    }
    for (std::size_t l = 0; l < kWidth; ++l) {
        _mm_storel_pi(reinterpret_cast<__m64*>(&out[l][at].x), p[l]);
        _mm_store_ss(&out[l][at].z, _mm_movehl_ps(p[l], p[l]));
    }
}

// narrow::transposeRows for eight addresses.
VELMORIN_WIDE void transposeRows(const float* const* at, F& a, F& b, F& c, F& d) {
    __m128 r[kWidth];
    for (std::size_t l = 0; l < kWidth; ++l)
        r[l] = _mm_loadu_ps(at[l]);
    _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
    _MM_TRANSPOSE4_PS(r[4], r[5], r[6], r[7]);
    a = {_mm256_insertf128_ps(_mm256_castps128_ps256(r[0]), r[4], 1)};
    b = {_mm256_insertf128_ps(_mm256_castps128_ps256(r[1]), r[5], 1)};
    c = {_mm256_insertf128_ps(_mm256_castps128_ps256(r[2]), r[6], 1)};
    d = {_mm256_insertf128_ps(_mm256_castps128_ps256(r[3]), r[7], 1)};
}
// narrow::equalBits and signClear, a half at a time: AVX has no wide integer compares.
VELMORIN_WIDE M equalBits(F a, F b) {
    const __m128i low = _mm_cmpeq_epi32(_mm_castps_si128(_mm256_castps256_ps128(a.v)),
                                        _mm_castps_si128(_mm256_castps256_ps128(b.v)));
    const __m128i high = _mm_cmpeq_epi32(_mm_castps_si128(_mm256_extractf128_ps(a.v, 1)),
                                         _mm_castps_si128(_mm256_extractf128_ps(b.v, 1)));
    return {_mm256_insertf128_ps(_mm256_castps128_ps256(_mm_castsi128_ps(low)),
                                 _mm_castsi128_ps(high), 1)};
}
VELMORIN_WIDE M signClear(F a) {
    const __m128i none = _mm_set1_epi32(-1);
    const __m128i low = _mm_cmpgt_epi32(_mm_castps_si128(_mm256_castps256_ps128(a.v)), none);
    const __m128i high = _mm_cmpgt_epi32(_mm_castps_si128(_mm256_extractf128_ps(a.v, 1)), none);
    return {_mm256_insertf128_ps(_mm256_castps128_ps256(_mm_castsi128_ps(low)),
                                 _mm_castsi128_ps(high), 1)};
}
VELMORIN_WIDE M andNot(M a, M b) {
    return {_mm256_andnot_ps(b.v, a.v)};
}
VELMORIN_WIDE M noLanes() {
    return {_mm256_setzero_ps()};
}
VELMORIN_WIDE M everyLane() {
    return {_mm256_castsi256_ps(_mm256_set1_epi32(-1))};
}
VELMORIN_WIDE F bitsOf(M m) {
    return {m.v};
}
VELMORIN_WIDE M maskOf(F a) {
    return {a.v};
}

// narrow::laneAddresses for eight lanes, two at a time in 64-bit integers: each index widened
// with its sign, multiplied by `size` and added to `base` (AVX brings the SSE4.1 these need).
VELMORIN_WIDE void laneAddresses(F indices, const char* base, std::size_t size, const char** out) {
    const __m128i scale = _mm_set1_epi64x(static_cast<long long>(size));
    const __m128i from = _mm_set1_epi64x(reinterpret_cast<long long>(base));
    const __m128i halves[2] = {_mm_castps_si128(_mm256_castps256_ps128(indices.v)),
                               _mm_castps_si128(_mm256_extractf128_ps(indices.v, 1))};
    for (std::size_t h = 0; h < 2; ++h) {
        const __m128i pairs[2] = {halves[h], _mm_srli_si128(halves[h], 8)};
        for (std::size_t p = 0; p < 2; ++p) {
            const __m128i wide = _mm_cvtepi32_epi64(pairs[p]);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * h + 2 * p),
                             _mm_add_epi64(from, _mm_mul_epi32(wide, scale)));
        }
    }
}

// narrow::transposeEight for eight addresses: an 8 by 8 transpose of one wide load at each.
VELMORIN_WIDE void transposeEight(const float* const* at, F* rows) {
    __m256 r[kWidth];
    for (std::size_t l = 0; l < kWidth; ++l)
        r[l] = _mm256_loadu_ps(at[l]);
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44), u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44), u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44), u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44), u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    rows[0] = {_mm256_permute2f128_ps(u0, u4, 0x20)};
    rows[1] = {_mm256_permute2f128_ps(u1, u5, 0x20)};
    rows[2] = {_mm256_permute2f128_ps(u2, u6, 0x20)};
    rows[3] = {_mm256_permute2f128_ps(u3, u7, 0x20)};
    rows[4] = {_mm256_permute2f128_ps(u0, u4, 0x31)};
    rows[5] = {_mm256_permute2f128_ps(u1, u5, 0x31)};
    rows[6] = {_mm256_permute2f128_ps(u2, u6, 0x31)};
    rows[7] = {_mm256_permute2f128_ps(u3, u7, 0x31)};
}

#undef VELMORIN_WIDE

}  // namespace wide

// Sixteen lanes with AVX-512 (AVX-512F alone, checked at run time: widestLanesUsable); masks are
// mask registers, one bit a lane. The same operations per lane as the narrower widths, so the same
// bits.
namespace widest {

// GCC 12's AVX-512 intrinsics start some results from an undefined register that it then reports
// as used uninitialized.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define VELMORIN_WIDEST __attribute__((target("avx512f"), always_inline)) inline

inline constexpr std::size_t kWidth = 16;

struct F {
    __m512 v;
};
struct M {
    __mmask16 v;
};

VELMORIN_WIDEST F load(const float* p) {
    return {_mm512_loadu_ps(p)};
}
VELMORIN_WIDEST void store(float* p, F a) {
    _mm512_storeu_ps(p, a.v);
}
VELMORIN_WIDEST F loadAligned(const float* p) {
    return {_mm512_load_ps(p)};
}
VELMORIN_WIDEST void storeAligned(float* p, F a) {
    _mm512_store_ps(p, a.v);
}
VELMORIN_WIDEST F splat(float x) {
    return {_mm512_set1_ps(x)};
}
VELMORIN_WIDEST F operator+(F a, F b) {
    return {_mm512_add_ps(a.v, b.v)};
}
VELMORIN_WIDEST F operator-(F a, F b) {
    return {_mm512_sub_ps(a.v, b.v)};
}
VELMORIN_WIDEST F operator*(F a, F b) {
    return {_mm512_mul_ps(a.v, b.v)};
}
VELMORIN_WIDEST F operator/(F a, F b) {
    return {_mm512_div_ps(a.v, b.v)};
}
VELMORIN_WIDEST F sqrtOf(F a) {
    return {_mm512_sqrt_ps(a.v)};
}
VELMORIN_WIDEST F minOf(F a, F b) {
    return {_mm512_min_ps(b.v, a.v)};
}
VELMORIN_WIDEST F maxOf(F a, F b) {
    return {_mm512_max_ps(b.v, a.v)};
}
VELMORIN_WIDEST F absOf(F a) {
    return {_mm512_castsi512_ps(
        _mm512_andnot_epi32(_mm512_set1_epi32(INT32_MIN), _mm512_castps_si512(a.v)))};
}
VELMORIN_WIDEST M operator<(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_LT_OQ)};
}
VELMORIN_WIDEST M operator<=(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_LE_OQ)};
}
VELMORIN_WIDEST M operator>(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GT_OQ)};
}
VELMORIN_WIDEST M operator>=(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GE_OQ)};
}
VELMORIN_WIDEST M operator==(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_EQ_OQ)};
}
VELMORIN_WIDEST M operator&(M a, M b) {
    return {static_cast<__mmask16>(a.v & b.v)};
}
VELMORIN_WIDEST M operator|(M a, M b) {
    return {static_cast<__mmask16>(a.v | b.v)};
}
VELMORIN_WIDEST M notOf(M a) {
    return {static_cast<__mmask16>(~a.v)};
}
VELMORIN_WIDEST M andNot(M a, M b) {
    return {static_cast<__mmask16>(a.v & ~b.v)};
}
VELMORIN_WIDEST F select(M m, F a, F b) {
    return {_mm512_mask_blend_ps(m.v, b.v, a.v)};
}
VELMORIN_WIDEST F blendOf(M m, F a, F b) {
    return {_mm512_mask_blend_ps(m.v, b.v, a.v)};
}
VELMORIN_WIDEST F oneWhere(M m) {
    return {_mm512_maskz_mov_ps(m.v, _mm512_set1_ps(1.0f))};
}
inline constexpr int kAllLanes = 0xFFFF;
VELMORIN_WIDEST int laneBits(M m) {
    return m.v;
}
VELMORIN_WIDEST bool anyOf(M m) {
    return m.v != 0;
}
VELMORIN_WIDEST bool allOf(M m) {
    return m.v == 0xFFFF;
}
VELMORIN_WIDEST M noLanes() {
    return {0};
}
VELMORIN_WIDEST M everyLane() {
    return {0xFFFF};
}
// The lanes of a mask as floats (all ones or all zeros each), to be kept and selected between;
// maskOf turns such floats back into the mask.
VELMORIN_WIDEST F bitsOf(M m) {
    return {_mm512_castsi512_ps(_mm512_maskz_set1_epi32(m.v, -1))};
}
VELMORIN_WIDEST M maskOf(F a) {
    const __m512i bits = _mm512_castps_si512(a.v);
    return {_mm512_test_epi32_mask(bits, bits)};
}
VELMORIN_WIDEST M equalBits(F a, F b) {
    return {_mm512_cmpeq_epi32_mask(_mm512_castps_si512(a.v), _mm512_castps_si512(b.v))};
}
VELMORIN_WIDEST M signClear(F a) {
    return {_mm512_cmpgt_epi32_mask(_mm512_castps_si512(a.v), _mm512_set1_epi32(-1))};
}

// The two halves of sixteen lanes as eight lanes each, and back.
VELMORIN_WIDEST wide::F lowHalf(F a) {
    return {_mm512_castps512_ps256(a.v)};
}
VELMORIN_WIDEST wide::F highHalf(F a) {
    return {_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(a.v), 1))};
}
VELMORIN_WIDEST F joined(wide::F low, wide::F high) {
    return {_mm512_castpd_ps(_mm512_insertf64x4(_mm512_castps_pd(_mm512_castps256_ps512(low.v)),
                                                _mm256_castps_pd(high.v), 1))};
}

// sinCosTurns8 for sixteen lanes, operation for operation; the quadrant's table by integer
// compares, the entries the same 1, -1 and +0.
VELMORIN_WIDEST void sinCosOf(F turns, F& sin, F& cos) {
    const __m512 quarters = _mm512_mul_ps(_mm512_set1_ps(4.0f), turns.v);
    if (_mm512_cmp_ps_mask(absOf({quarters}).v, _mm512_set1_ps(4194304.0f), _CMP_LT_OQ) != 0xFFFF) {
        // Rare: one lane needs the wide reduction, so all sixteen take the scalar path.
        alignas(64) float in[16], s[16], c[16];
        _mm512_store_ps(in, turns.v);
        sinCosTurnsEach(in, s, c, 16);
        sin = {_mm512_load_ps(s)};
        cos = {_mm512_load_ps(c)};
        return;
    }
    const __m512 magic = _mm512_set1_ps(12582912.0f);
    const __m512 rounded = _mm512_add_ps(quarters, magic);
    const __m512 r = _mm512_sub_ps(quarters, _mm512_sub_ps(rounded, magic));
    const __m512 x = _mm512_mul_ps(r, r);
    const __m512 x2 = _mm512_mul_ps(x, x);
    const __m512 s = _mm512_mul_ps(
        r, _mm512_add_ps(
               _mm512_add_ps(_mm512_set1_ps(1.5707963219532366f),
                             _mm512_mul_ps(x, _mm512_set1_ps(-0.6459634776648118f))),
               _mm512_mul_ps(
                   x2, _mm512_add_ps(_mm512_set1_ps(0.07968021764775542f),
                                     _mm512_mul_ps(x, _mm512_set1_ps(-0.004602149212814176f))))));
    const __m512 c = _mm512_add_ps(
        _mm512_add_ps(_mm512_set1_ps(0.9999999999524894f),
                      _mm512_mul_ps(x, _mm512_set1_ps(-1.2337005406331623f))),
        _mm512_mul_ps(
            x2,
            _mm512_add_ps(_mm512_add_ps(_mm512_set1_ps(0.2536692036551135f),
                                        _mm512_mul_ps(x, _mm512_set1_ps(-0.02086006950026408f))),
                          _mm512_mul_ps(x2, _mm512_set1_ps(0.0009036280663802505f)))));
    const __m512i q = _mm512_and_si512(_mm512_castps_si512(rounded), _mm512_set1_epi32(3));
    const __m512 one = _mm512_set1_ps(1.0f), minusOne = _mm512_set1_ps(-1.0f);
    const __m512 a = _mm512_mask_mov_ps(
        _mm512_maskz_mov_ps(_mm512_cmpeq_epi32_mask(q, _mm512_set1_epi32(0)), one),
        _mm512_cmpeq_epi32_mask(q, _mm512_set1_epi32(2)), minusOne);
    const __m512 b = _mm512_mask_mov_ps(
        _mm512_maskz_mov_ps(_mm512_cmpeq_epi32_mask(q, _mm512_set1_epi32(1)), one),
        _mm512_cmpeq_epi32_mask(q, _mm512_set1_epi32(3)), minusOne);
    sin = {_mm512_add_ps(_mm512_mul_ps(s, a), _mm512_mul_ps(c, b))};
    cos = {_mm512_sub_ps(_mm512_mul_ps(c, a), _mm512_mul_ps(s, b))};
}

// wide::storeLanePoints for sixteen lanes, eight at a time.
VELMORIN_WIDEST void storeLanePoints(F px, F py, F pz, Vec3f* const* out, std::size_t at,
                                     bool last) {
    wide::storeLanePoints(lowHalf(px), lowHalf(py), lowHalf(pz), out, at, last);
    wide::storeLanePoints(highHalf(px), highHalf(py), highHalf(pz), out + 8, at, last);
}

// narrow::transposeRows for sixteen addresses: lanes l, l + 4, l + 8 and l + 12 read into one
// register, and the four turned as four blocks of 4 by 4 at once.
VELMORIN_WIDEST void transposeRows(const float* const* at, F& a, F& b, F& c, F& d) {
    __m512 r[4];
    for (std::size_t l = 0; l < 4; ++l) {
        const __m512 first = _mm512_castps128_ps512(_mm_loadu_ps(at[l]));
        const __m512 second = _mm512_insertf32x4(first, _mm_loadu_ps(at[l + 4]), 1);
        const __m512 third = _mm512_insertf32x4(second, _mm_loadu_ps(at[l + 8]), 2);
        r[l] = _mm512_insertf32x4(third, _mm_loadu_ps(at[l + 12]), 3);
    }
    const __m512 t0 = _mm512_unpacklo_ps(r[0], r[1]), t1 = _mm512_unpackhi_ps(r[0], r[1]);
    const __m512 t2 = _mm512_unpacklo_ps(r[2], r[3]), t3 = _mm512_unpackhi_ps(r[2], r[3]);
    a = {_mm512_shuffle_ps(t0, t2, 0x44)};
    b = {_mm512_shuffle_ps(t0, t2, 0xEE)};
    c = {_mm512_shuffle_ps(t1, t3, 0x44)};
    d = {_mm512_shuffle_ps(t1, t3, 0xEE)};
}

// wide::transposeEight for sixteen addresses: lanes l and l + 8 read into one register, the eight
// registers turned as wide's are within their halves, and each row's four quarters put in lane
// order by one two-register permute.
VELMORIN_WIDEST void transposeEight(const float* const* at, F* rows) {
    __m512 r[8];
    for (std::size_t l = 0; l < 8; ++l)
        r[l] = _mm512_castpd_ps(
            _mm512_insertf64x4(_mm512_castps_pd(_mm512_castps256_ps512(_mm256_loadu_ps(at[l]))),
                               _mm256_castps_pd(_mm256_loadu_ps(at[l + 8])), 1));
    const __m512 t0 = _mm512_unpacklo_ps(r[0], r[1]), t1 = _mm512_unpackhi_ps(r[0], r[1]);
    const __m512 t2 = _mm512_unpacklo_ps(r[2], r[3]), t3 = _mm512_unpackhi_ps(r[2], r[3]);
    const __m512 t4 = _mm512_unpacklo_ps(r[4], r[5]), t5 = _mm512_unpackhi_ps(r[4], r[5]);
    const __m512 t6 = _mm512_unpacklo_ps(r[6], r[7]), t7 = _mm512_unpackhi_ps(r[6], r[7]);
    // u0 holds float 0 of lanes 0-3, float 4 of lanes 0-3, float 0 of lanes 8-11 and float 4 of
    // lanes 8-11; u4 the same of lanes 4-7 and 12-15.
    const __m512 u[8] = {_mm512_shuffle_ps(t0, t2, 0x44), _mm512_shuffle_ps(t0, t2, 0xEE),
                         _mm512_shuffle_ps(t1, t3, 0x44), _mm512_shuffle_ps(t1, t3, 0xEE),
                         _mm512_shuffle_ps(t4, t6, 0x44), _mm512_shuffle_ps(t4, t6, 0xEE),
                         _mm512_shuffle_ps(t5, t7, 0x44), _mm512_shuffle_ps(t5, t7, 0xEE)};
    const __m512i front =
        _mm512_setr_epi32(0, 1, 2, 3, 16, 17, 18, 19, 8, 9, 10, 11, 24, 25, 26, 27);
    const __m512i back =
        _mm512_setr_epi32(4, 5, 6, 7, 20, 21, 22, 23, 12, 13, 14, 15, 28, 29, 30, 31);
    for (std::size_t j = 0; j < 4; ++j) {
        rows[j] = {_mm512_permutex2var_ps(u[j], front, u[j + 4])};
        rows[j + 4] = {_mm512_permutex2var_ps(u[j], back, u[j + 4])};
    }
}

// narrow::laneAddresses for sixteen lanes, eight at a time in 64-bit integers.
VELMORIN_WIDEST void laneAddresses(F indices, const char* base, std::size_t size,
                                   const char** out) {
    const __m512i scale = _mm512_set1_epi64(static_cast<long long>(size));
    const __m512i from = _mm512_set1_epi64(reinterpret_cast<long long>(base));
    const __m256i halves[2] = {_mm512_castsi512_si256(_mm512_castps_si512(indices.v)),
                               _mm512_extracti64x4_epi64(_mm512_castps_si512(indices.v), 1)};
    for (std::size_t h = 0; h < 2; ++h)
        _mm512_storeu_si512(
            out + 8 * h,
            _mm512_add_epi64(from, _mm512_mul_epi32(_mm512_cvtepi32_epi64(halves[h]), scale)));
}

#undef VELMORIN_WIDEST
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace widest

// Whether the processor runs the sixteen-lane functions above.
inline bool widestLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx512f");
    return usable;
}

}  // namespace velmorin::float_lanes

#endif
