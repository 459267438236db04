#include "expr/noise_faces.h"

#if (defined(__x86_64__) || defined(__i386__)) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define VELMORIN_NOISE_FACE_LANES 1
#else
#define VELMORIN_NOISE_FACE_LANES 0
#endif

// The AVX-512 target brings fused multiply-adds with it; a fused product rounds once where the
// one-line blend rounds twice, so none are made here.
#if defined(__clang__)
#pragma clang fp contract(off)
#elif defined(__GNUC__)
#pragma GCC optimize("fp-contract=off")
#endif

namespace velmorin::noise_faces {

#if VELMORIN_NOISE_FACE_LANES

bool faceLanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx512f") &&
                               __builtin_cpu_supports("avx512dq") &&
                               __builtin_cpu_supports("avx512vl");
    return usable;
}

namespace {

// The gradients' x, y and z by index, padded to 16 for the two-table lane read.
alignas(32) constexpr float kGradientX[16] = {1, -1, 1, -1, 1, -1, 1, -1, 0, 0, 0, 0};
alignas(32) constexpr float kGradientY[16] = {1, 1, -1, -1, 0, 0, 0, 0, 1, -1, 1, -1};
alignas(32) constexpr float kGradientZ[16] = {0, 0, 0, 0, 1, 1, -1, -1, 1, 1, -1, -1};

#define VELMORIN_FACE_TARGET __attribute__((target("avx2,avx512f,avx512dq,avx512vl")))

VELMORIN_FACE_TARGET inline __m256 blendLanes(__m256 a, __m256 b, __m256 t) {
    return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), t));
}

// The 16 floats of `table` at each lane's index (0 to 15).
VELMORIN_FACE_TARGET inline __m256 pick(const float* table, __m256i index) {
    return _mm256_permutex2var_ps(_mm256_load_ps(table), index, _mm256_load_ps(table + 8));
}

// Four lanes of four rows each: row r of lanes 0-3 (low half) and 4-7 (high half) as the
// channels of one face per lane, stored at to[lane].
VELMORIN_FACE_TARGET inline void storeChannels(__m256 c0, __m256 c1, __m256 c2,
                                               float* const to[8]) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 t0 = _mm256_unpacklo_ps(c0, c1), t1 = _mm256_unpackhi_ps(c0, c1);
    const __m256 t2 = _mm256_unpacklo_ps(c2, zero), t3 = _mm256_unpackhi_ps(c2, zero);
    const __m256 r[4] = {_mm256_shuffle_ps(t0, t2, 0x44), _mm256_shuffle_ps(t0, t2, 0xEE),
                         _mm256_shuffle_ps(t1, t3, 0x44), _mm256_shuffle_ps(t1, t3, 0xEE)};
    for (int l = 0; l < 4; ++l) {
        _mm_store_ps(to[l], _mm256_castps256_ps128(r[l]));
        _mm_store_ps(to[l + 4], _mm256_extractf128_ps(r[l], 1));
    }
}

}  // namespace

VELMORIN_FACE_TARGET void blendFaceLanes(const FaceLanes& lanes, std::size_t faces,
                                         FaceRows* rows) {
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
    const __m256i word = _mm256_set1_epi32(0xFFFF);
    const __m256i twelfth = _mm256_set1_epi32(43691);
    const __m256i twelve = _mm256_set1_epi32(12);
    for (std::size_t face = 0; face < faces; ++face) {
        // latticeHash of the four corners: the z product, then the finaliser.
        const __m512i zs = _mm512_mullo_epi64(faceZ, zProduct);
        __m512i h[4];
        for (int c = 0; c < 4; ++c) {
            __m512i x = _mm512_xor_si512(base[c], zs);
            x = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 29));
            x = _mm512_mullo_epi64(x, mixProduct);
            h[c] = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 32));
        }
        __m256 constant[3], slope[3];
        for (int channel = 0; channel < 3; ++channel) {
            __m256 dot[4], z[4];
            for (int c = 0; c < 4; ++c) {
                // The channel's 16-bit word modulo 12: word * 43691 >> 19 is word / 12 for every
                // word below 2^16.
                const __m256i w =
                    _mm256_and_si256(_mm512_maskz_cvtepi64_epi32(
                                         kAll, _mm512_maskz_srli_epi64(kAll, h[c], 16 * channel)),
                                     word);
                const __m256i quotient = _mm256_srli_epi32(_mm256_mullo_epi32(w, twelfth), 19);
                const __m256i g = _mm256_sub_epi32(w, _mm256_mullo_epi32(quotient, twelve));
                dot[c] = _mm256_add_ps(_mm256_mul_ps(pick(kGradientX, g), cornerX[c]),
                                       _mm256_mul_ps(pick(kGradientY, g), cornerY[c]));
                z[c] = pick(kGradientZ, g);
            }
            constant[channel] =
                blendLanes(blendLanes(dot[0], dot[1], u), blendLanes(dot[2], dot[3], u), v);
            slope[channel] = blendLanes(blendLanes(z[0], z[1], u), blendLanes(z[2], z[3], u), v);
        }
        float* to[8];
        for (std::size_t l = 0; l < kLanes; ++l)
            to[l] = rows[l].constant[face];
        storeChannels(constant[0], constant[1], constant[2], to);
        for (std::size_t l = 0; l < kLanes; ++l)
            to[l] = rows[l].slope[face];
        storeChannels(slope[0], slope[1], slope[2], to);
        faceZ = _mm512_add_epi64(faceZ, one);
    }
}

#else

bool faceLanesUsable() {
    return false;
}

void blendFaceLanes(const FaceLanes&, std::size_t, FaceRows*) {}

#endif

}  // namespace velmorin::noise_faces
