#include "expr/noise_faces.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_NOISE_FACE_LANES 1
#else
#define VELMORIN_NOISE_FACE_LANES 0
#endif

namespace velmorin::noise_faces {

#if VELMORIN_NOISE_FACE_LANES

FaceKernel widestFaceKernel() {
    static const FaceKernel widest = [] {
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
            __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl"))
            return FaceKernel::Avx512;
        return __builtin_cpu_supports("avx2") ? FaceKernel::Avx2 : FaceKernel::None;
    }();
    return widest;
}

namespace {

// The gradients' x, y and z by index, padded to 16 for the two-table lane read.
alignas(32) constexpr float kGradientX[16] = {1, -1, 1, -1, 1, -1, 1, -1, 0, 0, 0, 0};
alignas(32) constexpr float kGradientY[16] = {1, 1, -1, -1, 0, 0, 0, 0, 1, -1, 1, -1};
alignas(32) constexpr float kGradientZ[16] = {0, 0, 0, 0, 1, 1, -1, -1, 1, 1, -1, -1};

// Helpers built for AVX2 serve both kernels: the AVX-512 one includes AVX2, so they inline there.
#define VELMORIN_AVX2_TARGET __attribute__((target("avx2")))

VELMORIN_AVX2_TARGET inline __m256 blendLanes(__m256 a, __m256 b, __m256 t) {
    return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), t));
}

// The three channels of eight lanes as eight rows of four (the last 0), lanes in slotOf's order:
// an unpack and a shuffle leave lanes l and l + 4 side by side in one register.
VELMORIN_AVX2_TARGET inline void storeChannels(__m256 c0, __m256 c1, __m256 c2, float (*to)[4]) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 t0 = _mm256_unpacklo_ps(c0, c1), t1 = _mm256_unpackhi_ps(c0, c1);
    const __m256 t2 = _mm256_unpacklo_ps(c2, zero), t3 = _mm256_unpackhi_ps(c2, zero);
    _mm256_store_ps(to[0], _mm256_shuffle_ps(t0, t2, 0x44));
    _mm256_store_ps(to[2], _mm256_shuffle_ps(t0, t2, 0xEE));
    _mm256_store_ps(to[4], _mm256_shuffle_ps(t1, t3, 0x44));
    _mm256_store_ps(to[6], _mm256_shuffle_ps(t1, t3, 0xEE));
}

#define VELMORIN_FACE_TARGET __attribute__((target("avx2,avx512f,avx512dq,avx512bw,avx512vl")))

// The 16 floats of `table` at each lane's index (0 to 15).
VELMORIN_FACE_TARGET inline __m256 pick(const float* table, __m256i index) {
    return _mm256_permutex2var_ps(_mm256_load_ps(table), index, _mm256_load_ps(table + 8));
}

VELMORIN_FACE_TARGET void blendFacesWide(const FaceLanes& lanes, std::size_t faces,
                                         FaceRows& rows) {
    const __m512i zProduct = _mm512_set1_epi64(static_cast<long long>(0x165667B19E3779F9ull));
    const __m512i mixProduct = _mm512_set1_epi64(static_cast<long long>(0xBF58476D1CE4E5B9ull));
    __m512i base[4];
    for (int c = 0; c < 4; ++c)
        base[c] = _mm512_load_si512(lanes.cornerBase[c]);
    __m512i faceZ = _mm512_load_si512(lanes.firstFace);
    const __m512i one = _mm512_set1_epi64(1);
    // Every lane, in the zero-masked forms of the shifts and the narrowing: the unmasked ones
    // start from an undefined register, which GCC 12 warns of.
    constexpr __mmask8 kAll = 0xFF;
    // Each corner's offsets in x and y, as the one-line tables hold them.
    const __m256 x0 = _mm256_load_ps(lanes.fx), y0 = _mm256_load_ps(lanes.fy);
    const __m256 x1 = _mm256_sub_ps(x0, _mm256_set1_ps(1.0f));
    const __m256 y1 = _mm256_sub_ps(y0, _mm256_set1_ps(1.0f));
    const __m256 cornerX[4] = {x0, x1, x0, x1};
    const __m256 cornerY[4] = {y0, y0, y1, y1};
    const __m256 u = _mm256_load_ps(lanes.fadeX), v = _mm256_load_ps(lanes.fadeY);
    const __m512i twelfth = _mm512_set1_epi16(-21845);  // 43691
    const __m512i twelve = _mm512_set1_epi16(12);
    for (std::size_t face = 0; face < faces; ++face) {
        // latticeHash of the four corners: the z product, then the finaliser.
        const __m512i zs = _mm512_mullo_epi64(faceZ, zProduct);
        // Each hash's 16-bit words modulo 12, all four at once: word * 43691 >> 19 is word / 12
        // for every word below 2^16. A channel's pick is then the low four bits of its word.
        __m512i picks[4];
        for (int c = 0; c < 4; ++c) {
            __m512i x = _mm512_xor_si512(base[c], zs);
            x = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 29));
            x = _mm512_mullo_epi64(x, mixProduct);
            x = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 32));
            const __m512i quotient = _mm512_srli_epi16(_mm512_mulhi_epu16(x, twelfth), 3);
            picks[c] = _mm512_sub_epi16(x, _mm512_mullo_epi16(quotient, twelve));
        }
        __m256 constant[3], slope[3];
        for (int channel = 0; channel < 3; ++channel) {
            __m256 dot[4], z[4];
            for (int c = 0; c < 4; ++c) {
                // The permutes read the low four bits of each index: the word's pick.
                const __m256i g = _mm512_maskz_cvtepi64_epi32(
                    kAll, _mm512_maskz_srli_epi64(kAll, picks[c], 16 * channel));
                dot[c] = _mm256_add_ps(_mm256_mul_ps(pick(kGradientX, g), cornerX[c]),
                                       _mm256_mul_ps(pick(kGradientY, g), cornerY[c]));
                z[c] = pick(kGradientZ, g);
            }
            constant[channel] =
                blendLanes(blendLanes(dot[0], dot[1], u), blendLanes(dot[2], dot[3], u), v);
            slope[channel] = blendLanes(blendLanes(z[0], z[1], u), blendLanes(z[2], z[3], u), v);
        }
        storeChannels(constant[0], constant[1], constant[2], rows.constant[face]);
        storeChannels(slope[0], slope[1], slope[2], rows.slope[face]);
        faceZ = _mm512_add_epi64(faceZ, one);
    }
}

// a * b modulo 2^64 in each of four lanes, from 32-bit products: the low halves' full product plus
// the cross products shifted up (the high halves' product falls off the top).
VELMORIN_AVX2_TARGET inline __m256i multiply64(__m256i a, __m256i b, __m256i bHigh) {
    const __m256i cross =
        _mm256_add_epi64(_mm256_mul_epu32(_mm256_srli_epi64(a, 32), b), _mm256_mul_epu32(a, bHigh));
    return _mm256_add_epi64(_mm256_mul_epu32(a, b), _mm256_slli_epi64(cross, 32));
}

// The low 32 bits of the eight 64-bit lanes of two registers, lanes 0-3 then 4-7.
VELMORIN_AVX2_TARGET inline __m256i lowHalves(__m256i low, __m256i high) {
    const __m256 mixed =
        _mm256_shuffle_ps(_mm256_castsi256_ps(low), _mm256_castsi256_ps(high), 0x88);
    return _mm256_permute4x64_epi64(_mm256_castps_si256(mixed), 0xD8);
}

// The 16 floats of `table` at the index in each lane's low four bits.
VELMORIN_AVX2_TARGET inline __m256 pick2(const float* table, __m256i index) {
    const __m256 low = _mm256_permutevar8x32_ps(_mm256_load_ps(table), index);
    const __m256 high = _mm256_permutevar8x32_ps(_mm256_load_ps(table + 8), index);
    return _mm256_blendv_ps(low, high, _mm256_castsi256_ps(_mm256_slli_epi32(index, 28)));
}

// blendFacesWide's steps with four 64-bit lanes to a register, two registers for the eight lines.
VELMORIN_AVX2_TARGET void blendFacesAvx2(const FaceLanes& lanes, std::size_t faces,
                                         FaceRows& rows) {
    const __m256i zProduct = _mm256_set1_epi64x(static_cast<long long>(0x165667B19E3779F9ull));
    const __m256i zProductHigh = _mm256_srli_epi64(zProduct, 32);
    const __m256i mixProduct = _mm256_set1_epi64x(static_cast<long long>(0xBF58476D1CE4E5B9ull));
    const __m256i mixProductHigh = _mm256_srli_epi64(mixProduct, 32);
    __m256i base[4][2], faceZ[2];
    for (int half = 0; half < 2; ++half) {
        for (int c = 0; c < 4; ++c)
            base[c][half] =
                _mm256_load_si256(reinterpret_cast<const __m256i*>(lanes.cornerBase[c] + 4 * half));
        faceZ[half] =
            _mm256_load_si256(reinterpret_cast<const __m256i*>(lanes.firstFace + 4 * half));
    }
    const __m256i one = _mm256_set1_epi64x(1);
    const __m256 x0 = _mm256_load_ps(lanes.fx), y0 = _mm256_load_ps(lanes.fy);
    const __m256 x1 = _mm256_sub_ps(x0, _mm256_set1_ps(1.0f));
    const __m256 y1 = _mm256_sub_ps(y0, _mm256_set1_ps(1.0f));
    const __m256 cornerX[4] = {x0, x1, x0, x1};
    const __m256 cornerY[4] = {y0, y0, y1, y1};
    const __m256 u = _mm256_load_ps(lanes.fadeX), v = _mm256_load_ps(lanes.fadeY);
    const __m256i twelfth = _mm256_set1_epi16(-21845);  // 43691
    const __m256i twelve = _mm256_set1_epi16(12);
    for (std::size_t face = 0; face < faces; ++face) {
        __m256i picks[4][2];
        for (int half = 0; half < 2; ++half) {
            const __m256i zs = multiply64(faceZ[half], zProduct, zProductHigh);
            for (int c = 0; c < 4; ++c) {
                __m256i x = _mm256_xor_si256(base[c][half], zs);
                x = _mm256_xor_si256(x, _mm256_srli_epi64(x, 29));
                x = multiply64(x, mixProduct, mixProductHigh);
                x = _mm256_xor_si256(x, _mm256_srli_epi64(x, 32));
                const __m256i quotient = _mm256_srli_epi16(_mm256_mulhi_epu16(x, twelfth), 3);
                picks[c][half] = _mm256_sub_epi16(x, _mm256_mullo_epi16(quotient, twelve));
            }
            faceZ[half] = _mm256_add_epi64(faceZ[half], one);
        }
        __m256 constant[3], slope[3];
        for (int channel = 0; channel < 3; ++channel) {
            __m256 dot[4], z[4];
            for (int c = 0; c < 4; ++c) {
                const __m256i g = lowHalves(_mm256_srli_epi64(picks[c][0], 16 * channel),
                                            _mm256_srli_epi64(picks[c][1], 16 * channel));
                dot[c] = _mm256_add_ps(_mm256_mul_ps(pick2(kGradientX, g), cornerX[c]),
                                       _mm256_mul_ps(pick2(kGradientY, g), cornerY[c]));
                z[c] = pick2(kGradientZ, g);
            }
            constant[channel] =
                blendLanes(blendLanes(dot[0], dot[1], u), blendLanes(dot[2], dot[3], u), v);
            slope[channel] = blendLanes(blendLanes(z[0], z[1], u), blendLanes(z[2], z[3], u), v);
        }
        storeChannels(constant[0], constant[1], constant[2], rows.constant[face]);
        storeChannels(slope[0], slope[1], slope[2], rows.slope[face]);
    }
}

}  // namespace

void blendFaceLanes(FaceKernel kernel, const FaceLanes& lanes, std::size_t faces, FaceRows& rows) {
    if (kernel == FaceKernel::Avx512) {
        blendFacesWide(lanes, faces, rows);
    } else if (kernel == FaceKernel::Avx2) {
        blendFacesAvx2(lanes, faces, rows);
    }
}

#else

FaceKernel widestFaceKernel() {
    return FaceKernel::None;
}

void blendFaceLanes(FaceKernel, const FaceLanes&, std::size_t, FaceRows&) {}

#endif

}  // namespace velmorin::noise_faces
