#include "expr/noise_faces.h"

#include <algorithm>

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
alignas(64) constexpr float kGradientX[16] = {1, -1, 1, -1, 1, -1, 1, -1, 0, 0, 0, 0};
alignas(64) constexpr float kGradientY[16] = {1, 1, -1, -1, 0, 0, 0, 0, 1, -1, 1, -1};
alignas(64) constexpr float kGradientZ[16] = {0, 0, 0, 0, 1, 1, -1, -1, 1, 1, -1, -1};

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

// The faces of eight lines, each face's three channels of constant and slope handed to `store`
// (face, constant[3], slope[3]), eight lanes to a register.
template <typename Store>
VELMORIN_FACE_TARGET inline void blendFacesWideInto(const FaceLanes& lanes, std::size_t faces,
                                                    const Store& store) {
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
        store(face, constant, slope);
        faceZ = _mm512_add_epi64(faceZ, one);
    }
}

// blendFacesWideInto's stores of the rows blendFaceLanes gives.
struct RowStore {
    FaceRows& rows;
    VELMORIN_AVX2_TARGET void operator()(std::size_t face, const __m256* constant,
                                         const __m256* slope) const {
        storeChannels(constant[0], constant[1], constant[2], rows.constant[face]);
        storeChannels(slope[0], slope[1], slope[2], rows.slope[face]);
    }
};

VELMORIN_FACE_TARGET void blendFacesWide(const FaceLanes& lanes, std::size_t faces,
                                         FaceRows& rows) {
    blendFacesWideInto(lanes, faces, RowStore{rows});
}

// Eight rows of eight floats turned about: row r of `to` (eight floats apart) is column r of the
// rows of `from`.
VELMORIN_AVX2_TARGET inline void transposeEight(const float* from, std::size_t fromStride,
                                                float* to, std::size_t toStride) {
    __m256 r[8];
    for (int k = 0; k < 8; ++k)
        r[k] = _mm256_load_ps(from + fromStride * static_cast<std::size_t>(k));
    __m256 t[8], u[8];
    for (int k = 0; k < 4; ++k) {
        t[2 * k] = _mm256_unpacklo_ps(r[2 * k], r[2 * k + 1]);
        t[2 * k + 1] = _mm256_unpackhi_ps(r[2 * k], r[2 * k + 1]);
    }
    for (int k = 0; k < 2; ++k) {
        u[4 * k] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], 0x44);
        u[4 * k + 1] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], 0xEE);
        u[4 * k + 2] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], 0x44);
        u[4 * k + 3] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], 0xEE);
    }
    for (int k = 0; k < 4; ++k) {
        _mm256_store_ps(to + toStride * static_cast<std::size_t>(k),
                        _mm256_permute2f128_ps(u[k], u[k + 4], 0x20));
        _mm256_store_ps(to + toStride * static_cast<std::size_t>(k + 4),
                        _mm256_permute2f128_ps(u[k], u[k + 4], 0x31));
    }
}

// The eight lanes of x in both halves of 16.
VELMORIN_FACE_TARGET inline __m512 twice(__m256 x) {
    return _mm512_maskz_broadcast_f32x8(0xFFFF, x);
}

VELMORIN_FACE_TARGET inline __m512 blendPair(__m512 a, __m512 b, __m512 t) {
    return _mm512_add_ps(a, _mm512_mul_ps(_mm512_sub_ps(b, a), t));
}

// Where a face's rows lie in blendFaceTablesWide's scratch: channels 0 and 1 side by side (one
// 16-lane register each for constants and slopes), then channel 2's constant and slope.
constexpr int kConstantRow[3] = {0, 1, 4};
constexpr int kSlopeRow[3] = {2, 3, 5};

// blendFacesWide's faces with channels 0 and 1 in one 16-lane register (lanes 0-7 channel 0, 8-15
// channel 1, each lane a line), channel 2 in eight lanes: the hashes are the same, and each lane's
// pick, products and blends are the same operations in the same order.
VELMORIN_FACE_TARGET void blendFaceTablesWide(const FaceLanes& lanes, std::size_t faces,
                                              FaceTables& tables) {
    const __m512i zProduct = _mm512_set1_epi64(static_cast<long long>(0x165667B19E3779F9ull));
    const __m512i mixProduct = _mm512_set1_epi64(static_cast<long long>(0xBF58476D1CE4E5B9ull));
    __m512i base[4];
    for (int c = 0; c < 4; ++c)
        base[c] = _mm512_load_si512(lanes.cornerBase[c]);
    __m512i faceZ = _mm512_load_si512(lanes.firstFace);
    const __m512i one = _mm512_set1_epi64(1);
    // Every lane, in the zero-masked forms, as blendFacesWide takes them.
    constexpr __mmask8 kAll = 0xFF;
    constexpr __mmask16 kAllWide = 0xFFFF;
    const __m256 x0 = _mm256_load_ps(lanes.fx), y0 = _mm256_load_ps(lanes.fy);
    const __m256 x1 = _mm256_sub_ps(x0, _mm256_set1_ps(1.0f));
    const __m256 y1 = _mm256_sub_ps(y0, _mm256_set1_ps(1.0f));
    const __m256 cornerX[4] = {x0, x1, x0, x1};
    const __m256 cornerY[4] = {y0, y0, y1, y1};
    const __m256 u = _mm256_load_ps(lanes.fadeX), v = _mm256_load_ps(lanes.fadeY);
    // The same, twice over: once for each channel of the 16-lane registers.
    const __m512 cornerXTwice[4] = {twice(x0), twice(x1), twice(x0), twice(x1)};
    const __m512 cornerYTwice[4] = {twice(y0), twice(y0), twice(y1), twice(y1)};
    const __m512 uTwice = twice(u), vTwice = twice(v);
    const __m512 gradientX = _mm512_load_ps(kGradientX);
    const __m512 gradientY = _mm512_load_ps(kGradientY);
    const __m512 gradientZ = _mm512_load_ps(kGradientZ);
    // The low 32 bits of each line's hash (its channel 0 and 1 words), for lanes 0-7 and again for
    // lanes 8-15.
    const __m512i lowWords =
        _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 0, 2, 4, 6, 8, 10, 12, 14);
    const __m512i twelfth = _mm512_set1_epi16(-21845);  // 43691
    const __m512i twelve = _mm512_set1_epi16(12);
    alignas(64) float rows[kMostTableFaces][6][kLanes];
    for (std::size_t face = 0; face < faces; ++face) {
        const __m512i zs = _mm512_mullo_epi64(faceZ, zProduct);
        __m512i picks[4];
        for (int c = 0; c < 4; ++c) {
            __m512i x = _mm512_xor_si512(base[c], zs);
            x = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 29));
            x = _mm512_mullo_epi64(x, mixProduct);
            x = _mm512_xor_si512(x, _mm512_maskz_srli_epi64(kAll, x, 32));
            const __m512i quotient = _mm512_srli_epi16(_mm512_mulhi_epu16(x, twelfth), 3);
            picks[c] = _mm512_sub_epi16(x, _mm512_mullo_epi16(quotient, twelve));
        }
        __m512 dotPair[4], zPair[4];
        __m256 dotLast[4], zLast[4];
        for (int c = 0; c < 4; ++c) {
            // Channel 0's word in the low lanes, channel 1's in the high ones; the permutes read
            // the low four bits of each index: the word's pick.
            __m512i g = _mm512_maskz_permutexvar_epi32(kAllWide, lowWords, picks[c]);
            g = _mm512_mask_srli_epi32(g, 0xFF00, g, 16);
            dotPair[c] = _mm512_add_ps(
                _mm512_mul_ps(_mm512_maskz_permutexvar_ps(kAllWide, g, gradientX), cornerXTwice[c]),
                _mm512_mul_ps(_mm512_maskz_permutexvar_ps(kAllWide, g, gradientY),
                              cornerYTwice[c]));
            zPair[c] = _mm512_maskz_permutexvar_ps(kAllWide, g, gradientZ);
            const __m256i last =
                _mm512_maskz_cvtepi64_epi32(kAll, _mm512_maskz_srli_epi64(kAll, picks[c], 32));
            dotLast[c] = _mm256_add_ps(_mm256_mul_ps(pick(kGradientX, last), cornerX[c]),
                                       _mm256_mul_ps(pick(kGradientY, last), cornerY[c]));
            zLast[c] = pick(kGradientZ, last);
        }
        _mm512_store_ps(rows[face][0],
                        blendPair(blendPair(dotPair[0], dotPair[1], uTwice),
                                  blendPair(dotPair[2], dotPair[3], uTwice), vTwice));
        _mm512_store_ps(rows[face][2], blendPair(blendPair(zPair[0], zPair[1], uTwice),
                                                 blendPair(zPair[2], zPair[3], uTwice), vTwice));
        _mm256_store_ps(rows[face][4], blendLanes(blendLanes(dotLast[0], dotLast[1], u),
                                                  blendLanes(dotLast[2], dotLast[3], u), v));
        _mm256_store_ps(rows[face][5], blendLanes(blendLanes(zLast[0], zLast[1], u),
                                                  blendLanes(zLast[2], zLast[3], u), v));
        faceZ = _mm512_add_epi64(faceZ, one);
    }
    // Face by face the lanes are lines; the tables want lines of faces: each block of eight faces
    // is turned about into the lines' tables.
    constexpr std::size_t kChannelStride = kMostTableFaces;
    constexpr std::size_t kLineStride = 3 * kMostTableFaces;
    for (std::size_t block = 0; block < faces; block += 8)
        for (int channel = 0; channel < 3; ++channel) {
            transposeEight(rows[block][kConstantRow[channel]], 6 * kLanes,
                           &tables.constant[0][0][0] + kChannelStride * channel + block,
                           kLineStride);
            transposeEight(rows[block][kSlopeRow[channel]], 6 * kLanes,
                           &tables.slope[0][0][0] + kChannelStride * channel + block, kLineStride);
        }
}

#define VELMORIN_SAMPLE_TARGET __attribute__((target("avx512f")))

// One run of 16 samples placed in their cells: for v = z * frequency in the lanes of `samples`,
// whether each lies within +-reach, its cell's lower z, offset and fade, with the steps of the
// one-line walk (floorOf's truncation, step down and sign; noiseFade's products in their order).
struct PlacedLanes {
    __m512 below, offset, fade;
    __mmask16 near;
};
VELMORIN_SAMPLE_TARGET inline PlacedLanes placeLanes(__m512 z, __mmask16 samples, float frequency,
                                                     float reach) {
    // Every lane, in the zero-masked forms: the unmasked ones start from an undefined register,
    // which GCC 12 warns of.
    constexpr __mmask16 kAll = 0xFFFF;
    const __m512i sign = _mm512_set1_epi32(static_cast<int>(0x80000000u));
    const __m512 v = _mm512_mul_ps(z, _mm512_set1_ps(frequency));
    const __m512i bits = _mm512_castps_si512(v);
    PlacedLanes placed;
    placed.near = _mm512_mask_cmp_ps_mask(
        samples, _mm512_castsi512_ps(_mm512_maskz_andnot_epi32(kAll, sign, bits)),
        _mm512_set1_ps(reach), _CMP_LT_OS);
    // floorOf: truncate, step down where that rose, else keep the sign of v (of zero too).
    const __m512 t = _mm512_maskz_cvtepi32_ps(kAll, _mm512_maskz_cvttps_epi32(kAll, v));
    const __mmask16 down = _mm512_cmp_ps_mask(t, v, _CMP_GT_OS);
    const __m512 signedT = _mm512_castsi512_ps(
        _mm512_or_si512(_mm512_maskz_andnot_epi32(kAll, sign, _mm512_castps_si512(t)),
                        _mm512_and_si512(sign, bits)));
    placed.below = _mm512_mask_blend_ps(down, signedT, _mm512_sub_ps(t, _mm512_set1_ps(1.0f)));
    const __m512 f = _mm512_sub_ps(v, placed.below);
    const __m512 cubed = _mm512_mul_ps(_mm512_mul_ps(f, f), f);
    const __m512 inner = _mm512_add_ps(
        _mm512_mul_ps(f,
                      _mm512_sub_ps(_mm512_mul_ps(f, _mm512_set1_ps(6.0f)), _mm512_set1_ps(15.0f))),
        _mm512_set1_ps(10.0f));
    placed.offset = f;
    placed.fade = _mm512_mul_ps(cubed, inner);
    return placed;
}

// The least of each lane's eight-lane half, in lanes 0 and 8 (and the most, alike): quarters,
// pairs and neighbours folded onto each other within each half.
VELMORIN_SAMPLE_TARGET inline __m512 leastByHalves(__m512 x) {
    constexpr __mmask16 kAll = 0xFFFF;
    x = _mm512_maskz_min_ps(kAll, x, _mm512_maskz_shuffle_f32x4(kAll, x, x, 0xB1));
    x = _mm512_maskz_min_ps(kAll, x, _mm512_maskz_permute_ps(kAll, x, 0x4E));
    return _mm512_maskz_min_ps(kAll, x, _mm512_maskz_permute_ps(kAll, x, 0xB1));
}
VELMORIN_SAMPLE_TARGET inline __m512 mostByHalves(__m512 x) {
    constexpr __mmask16 kAll = 0xFFFF;
    x = _mm512_maskz_max_ps(kAll, x, _mm512_maskz_shuffle_f32x4(kAll, x, x, 0xB1));
    x = _mm512_maskz_max_ps(kAll, x, _mm512_maskz_permute_ps(kAll, x, 0x4E));
    return _mm512_maskz_max_ps(kAll, x, _mm512_maskz_permute_ps(kAll, x, 0xB1));
}

VELMORIN_SAMPLE_TARGET bool placeSamplesWide(const float* z, std::size_t count, float frequency,
                                             float reach, std::int32_t* cell, float* offset,
                                             float* fade, std::int32_t& lowest,
                                             std::int32_t& highest) {
    constexpr __mmask16 kAll = 0xFFFF;
    __mmask16 inReach = kAll;
    __m512 least = _mm512_set1_ps(reach), most = _mm512_set1_ps(-reach);
    for (std::size_t i = 0; i < count; i += 16) {
        // The lanes past the last sample read 0; they count in no check and no end cell.
        const __mmask16 samples =
            count - i >= 16 ? kAll : static_cast<__mmask16>((1u << (count - i)) - 1u);
        const PlacedLanes placed =
            placeLanes(_mm512_maskz_loadu_ps(samples, z + i), samples, frequency, reach);
        inReach &= static_cast<__mmask16>(placed.near | ~samples);
        _mm512_storeu_si512(cell + i, _mm512_maskz_cvttps_epi32(kAll, placed.below));
        _mm512_storeu_ps(offset + i, placed.offset);
        _mm512_storeu_ps(fade + i, placed.fade);
        least = _mm512_mask_min_ps(least, samples, least, placed.below);
        most = _mm512_mask_max_ps(most, samples, most, placed.below);
    }
    if (inReach != kAll) return false;
    // Whole floats in reach: the least and most cells are the same whatever order finds them.
    least = _mm512_maskz_min_ps(kAll, least, _mm512_maskz_shuffle_f32x4(kAll, least, least, 0x4E));
    most = _mm512_maskz_max_ps(kAll, most, _mm512_maskz_shuffle_f32x4(kAll, most, most, 0x4E));
    lowest = static_cast<std::int32_t>(_mm512_cvtss_f32(leastByHalves(least)));
    highest = static_cast<std::int32_t>(_mm512_cvtss_f32(mostByHalves(most)));
    return true;
}

#define VELMORIN_PAIR_TARGET __attribute__((target("avx512f,avx512dq,avx512vl")))

VELMORIN_PAIR_TARGET void placeSamplePairWide(const float* za, std::size_t countA, const float* zb,
                                              std::size_t countB, float frequency, float reach,
                                              std::int32_t* cell, float* offset, float* fade,
                                              SamplePairEnds& ends) {
    const auto lanesOf = [](std::size_t count) {
        return static_cast<__mmask8>((1u << count) - 1u);
    };
    const __mmask16 samples =
        static_cast<__mmask16>(lanesOf(countA) | (static_cast<unsigned>(lanesOf(countB)) << 8));
    const __m512 z = _mm512_insertf32x8(
        _mm512_maskz_broadcast_f32x8(0x00FF, _mm256_maskz_loadu_ps(lanesOf(countA), za)),
        _mm256_maskz_loadu_ps(lanesOf(countB), zb), 1);
    const PlacedLanes placed = placeLanes(z, samples, frequency, reach);
    const __mmask16 inReach = static_cast<__mmask16>(placed.near | ~samples);
    ends.plain[0] = (inReach & 0x00FF) == 0x00FF;
    ends.plain[1] = (inReach & 0xFF00) == 0xFF00;
    _mm512_store_si512(cell, _mm512_maskz_cvttps_epi32(0xFFFF, placed.below));
    _mm512_store_ps(offset, placed.offset);
    _mm512_store_ps(fade, placed.fade);
    alignas(64) float least[16], most[16];
    _mm512_store_ps(
        least, leastByHalves(_mm512_mask_blend_ps(samples, _mm512_set1_ps(reach), placed.below)));
    _mm512_store_ps(
        most, mostByHalves(_mm512_mask_blend_ps(samples, _mm512_set1_ps(-reach), placed.below)));
    for (int half = 0; half < 2; ++half) {
        ends.lowest[half] = static_cast<std::int32_t>(least[8 * half]);
        ends.highest[half] = static_cast<std::int32_t>(most[8 * half]);
    }
}

VELMORIN_SAMPLE_TARGET void blendSamplePairWide(const std::int32_t* cell, const float* offset,
                                                const float* fade, const std::int32_t* lowest,
                                                const FaceTables& tables, std::size_t lineA,
                                                std::size_t lineB, const float* weight,
                                                unsigned blends, unsigned first, float* sums,
                                                std::size_t stride) {
    // The second line's faces are the second half of the 32 floats a permute picks from.
    const __m512i below = _mm512_add_epi32(
        _mm512_sub_epi32(_mm512_load_si512(cell),
                         _mm512_mask_blend_epi32(0xFF00, _mm512_set1_epi32(lowest[0]),
                                                 _mm512_set1_epi32(lowest[1]))),
        _mm512_mask_blend_epi32(0xFF00, _mm512_setzero_si512(), _mm512_set1_epi32(16)));
    const __m512i above = _mm512_add_epi32(below, _mm512_set1_epi32(1));
    const __m512 f = _mm512_load_ps(offset);
    const __m512 fUp = _mm512_sub_ps(f, _mm512_set1_ps(1.0f));
    const __m512 w = _mm512_load_ps(fade);
    const __m512 weightLanes =
        _mm512_mask_blend_ps(0xFF00, _mm512_set1_ps(weight[0]), _mm512_set1_ps(weight[1]));
    const auto halves = [](unsigned lines) {
        return static_cast<__mmask16>(((lines & 1u) ? 0x00FFu : 0u) |
                                      ((lines & 2u) ? 0xFF00u : 0u));
    };
    const __mmask16 written = halves(blends), fresh = halves(first);
    for (int c = 0; c < 3; ++c) {
        const __m512 constantA = _mm512_load_ps(tables.constant[lineA][c]);
        const __m512 constantB = _mm512_load_ps(tables.constant[lineB][c]);
        const __m512 slopeA = _mm512_load_ps(tables.slope[lineA][c]);
        const __m512 slopeB = _mm512_load_ps(tables.slope[lineB][c]);
        // addBlended's steps per channel, as blendSamplesWide takes them.
        const __m512 lower =
            _mm512_add_ps(_mm512_permutex2var_ps(constantA, below, constantB),
                          _mm512_mul_ps(_mm512_permutex2var_ps(slopeA, below, slopeB), f));
        const __m512 upper =
            _mm512_add_ps(_mm512_permutex2var_ps(constantA, above, constantB),
                          _mm512_mul_ps(_mm512_permutex2var_ps(slopeA, above, slopeB), fUp));
        const __m512 blended = _mm512_add_ps(lower, _mm512_mul_ps(_mm512_sub_ps(upper, lower), w));
        float* sum = sums + stride * static_cast<std::size_t>(c);
        const __m512 before =
            _mm512_mask_blend_ps(fresh, _mm512_loadu_ps(sum), _mm512_setzero_ps());
        _mm512_mask_storeu_ps(sum, written,
                              _mm512_add_ps(before, _mm512_mul_ps(blended, weightLanes)));
    }
}

// floorOf in eight lanes: truncate, step down where that rose, else keep the sign of x (of zero
// too); x itself where it is 2^23 or more across, or not a number.
VELMORIN_FACE_TARGET inline __m256 floorLanes(__m256 x) {
    const __m256 sign = _mm256_set1_ps(-0.0f);
    const __m256 t = _mm256_cvtepi32_ps(_mm256_cvttps_epi32(x));
    const __m256 down = _mm256_cmp_ps(t, x, _CMP_GT_OS);
    const __m256 signedT = _mm256_or_ps(_mm256_andnot_ps(sign, t), _mm256_and_ps(sign, x));
    const __m256 b = _mm256_blendv_ps(signedT, _mm256_sub_ps(t, _mm256_set1_ps(1.0f)), down);
    const __m256 small =
        _mm256_cmp_ps(_mm256_andnot_ps(sign, x), _mm256_set1_ps(8388608.0f), _CMP_LT_OQ);
    return _mm256_blendv_ps(x, b, small);
}

// noiseFade in eight lanes, its products in their order.
VELMORIN_AVX2_TARGET inline __m256 fadeLanes(__m256 f) {
    const __m256 cubed = _mm256_mul_ps(_mm256_mul_ps(f, f), f);
    const __m256 inner = _mm256_add_ps(
        _mm256_mul_ps(f,
                      _mm256_sub_ps(_mm256_mul_ps(f, _mm256_set1_ps(6.0f)), _mm256_set1_ps(15.0f))),
        _mm256_set1_ps(10.0f));
    return _mm256_mul_ps(cubed, inner);
}

// latticeFloor of whole floats in eight lanes: 0 for not a number, held within +-4e18.
VELMORIN_FACE_TARGET inline __m512i latticeLanes(__m256 whole) {
    constexpr __mmask8 kAll = 0xFF;
    const __m256 limit = _mm256_set1_ps(4.0e18f);
    const __m256 held =
        _mm256_min_ps(_mm256_max_ps(whole, _mm256_sub_ps(_mm256_setzero_ps(), limit)), limit);
    const __mmask8 number = _mm256_cmp_ps_mask(whole, whole, _CMP_EQ_OQ);
    return _mm512_maskz_cvttps_epi64(number & kAll, held);
}

VELMORIN_FACE_TARGET void setLinesWide(std::uint64_t seed, float frequency, const float* x,
                                       const float* y, FaceLanes& lanes) {
    const __m256 frequencyLanes = _mm256_set1_ps(frequency);
    const __m256 qx = _mm256_mul_ps(_mm256_loadu_ps(x), frequencyLanes);
    const __m256 qy = _mm256_mul_ps(_mm256_loadu_ps(y), frequencyLanes);
    const __m256 belowX = floorLanes(qx), belowY = floorLanes(qy);
    // latticeFloor takes floorOf again, which keeps a whole float as it is.
    const __m512i cellX = latticeLanes(floorLanes(belowX));
    const __m512i cellY = latticeLanes(floorLanes(belowY));
    const __m256 fx = _mm256_sub_ps(qx, belowX), fy = _mm256_sub_ps(qy, belowY);
    _mm256_store_ps(lanes.fx, fx);
    _mm256_store_ps(lanes.fy, fy);
    _mm256_store_ps(lanes.fadeX, fadeLanes(fx));
    _mm256_store_ps(lanes.fadeY, fadeLanes(fy));
    const __m512i one = _mm512_set1_epi64(1);
    const __m512i xProduct = _mm512_set1_epi64(static_cast<long long>(0x9E3779B185EBCA87ull));
    const __m512i yProduct = _mm512_set1_epi64(static_cast<long long>(0xC2B2AE3D27D4EB4Full));
    const __m512i xs[2] = {_mm512_mullo_epi64(cellX, xProduct),
                           _mm512_mullo_epi64(_mm512_add_epi64(cellX, one), xProduct)};
    const __m512i ys[2] = {_mm512_mullo_epi64(cellY, yProduct),
                           _mm512_mullo_epi64(_mm512_add_epi64(cellY, one), yProduct)};
    const __m512i seedLanes = _mm512_set1_epi64(static_cast<long long>(seed));
    for (int k = 0; k < 4; ++k)
        _mm512_store_si512(
            lanes.cornerBase[k],
            _mm512_xor_si512(_mm512_xor_si512(seedLanes, xs[k & 1]), ys[(k >> 1) & 1]));
}

VELMORIN_SAMPLE_TARGET void blendSamplesWide(const std::int32_t* cell, const float* offset,
                                             const float* fade, std::size_t count,
                                             std::int32_t lowest, const FaceTables& tables,
                                             std::size_t line, float weight, bool first,
                                             float* sums, std::size_t stride) {
    const __m512i lowestLanes = _mm512_set1_epi32(lowest);
    const __m512i oneCell = _mm512_set1_epi32(1);
    const __m512 one = _mm512_set1_ps(1.0f);
    const __m512 weightLanes = _mm512_set1_ps(weight);
    __m512 constant[3][2], slope[3][2];
    for (int c = 0; c < 3; ++c)
        for (int half = 0; half < 2; ++half) {
            constant[c][half] = _mm512_load_ps(tables.constant[line][c] + 16 * half);
            slope[c][half] = _mm512_load_ps(tables.slope[line][c] + 16 * half);
        }
    for (std::size_t i = 0; i < count; i += 16) {
        const __m512i below = _mm512_sub_epi32(_mm512_loadu_si512(cell + i), lowestLanes);
        const __m512i above = _mm512_add_epi32(below, oneCell);
        const __m512 f = _mm512_loadu_ps(offset + i);
        const __m512 fUp = _mm512_sub_ps(f, one);
        const __m512 w = _mm512_loadu_ps(fade + i);
        for (int c = 0; c < 3; ++c) {
            // addBlended's steps per channel: each face's line in f, blended by the fade, weighed.
            const __m512 lower = _mm512_add_ps(
                _mm512_permutex2var_ps(constant[c][0], below, constant[c][1]),
                _mm512_mul_ps(_mm512_permutex2var_ps(slope[c][0], below, slope[c][1]), f));
            const __m512 upper = _mm512_add_ps(
                _mm512_permutex2var_ps(constant[c][0], above, constant[c][1]),
                _mm512_mul_ps(_mm512_permutex2var_ps(slope[c][0], above, slope[c][1]), fUp));
            const __m512 blended =
                _mm512_add_ps(lower, _mm512_mul_ps(_mm512_sub_ps(upper, lower), w));
            // The first octave adds to sums of 0 held in a register rather than read.
            float* sum = sums + stride * static_cast<std::size_t>(c) + i;
            const __m512 before = first ? _mm512_setzero_ps() : _mm512_loadu_ps(sum);
            _mm512_storeu_ps(sum, _mm512_add_ps(before, _mm512_mul_ps(blended, weightLanes)));
        }
    }
}

// Where each of 48 floats of x, y, z runs comes from, for three registers of the three channels:
// first the x and y parts of two (x 0-15, y 16-31), then z over what is left (16-31).
struct Interleave {
    alignas(64) std::int32_t xy[3][16];
    alignas(64) std::int32_t z[3][16];
};
constexpr Interleave makeInterleave() {
    Interleave table{};
    for (int k = 0; k < 3; ++k)
        for (int j = 0; j < 16; ++j) {
            const int at = 16 * k + j, sample = at / 3, channel = at % 3;
            table.xy[k][j] = channel == 1 ? 16 + sample : sample;
            table.z[k][j] = channel == 2 ? 16 + sample : j;
        }
    return table;
}
constexpr Interleave kInterleave = makeInterleave();

VELMORIN_SAMPLE_TARGET void storeSumsWide(const float* sums, std::size_t stride, std::size_t count,
                                          float scale, float* out, const float* from,
                                          float amplitude, float* moved) {
    const __m512 scaleLanes = _mm512_set1_ps(scale);
    const __m512 amplitudeLanes = _mm512_set1_ps(amplitude);
    for (std::size_t i = 0; i < count; i += 16) {
        // Vec3f's product with the scale, per channel.
        const __m512 x = _mm512_mul_ps(_mm512_loadu_ps(sums + i), scaleLanes);
        const __m512 y = _mm512_mul_ps(_mm512_loadu_ps(sums + stride + i), scaleLanes);
        const __m512 z = _mm512_mul_ps(_mm512_loadu_ps(sums + 2 * stride + i), scaleLanes);
        const std::size_t floats = 3 * std::min<std::size_t>(16, count - i);
        for (std::size_t k = 0; k < 3 && 16 * k < floats; ++k) {
            const __m512 xy = _mm512_permutex2var_ps(x, _mm512_load_si512(kInterleave.xy[k]), y);
            const __m512 run = _mm512_permutex2var_ps(xy, _mm512_load_si512(kInterleave.z[k]), z);
            const std::size_t left = floats - 16 * k;
            const __mmask16 keep =
                left >= 16 ? __mmask16{0xFFFF} : static_cast<__mmask16>((1u << left) - 1u);
            const std::size_t at = 3 * i + 16 * k;
            if (moved) {
                // from + unit * amplitude, float by float.
                _mm512_mask_storeu_ps(moved + at, keep,
                                      _mm512_add_ps(_mm512_maskz_loadu_ps(keep, from + at),
                                                    _mm512_mul_ps(run, amplitudeLanes)));
            } else {
                _mm512_mask_storeu_ps(out + at, keep, run);
            }
        }
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

void blendFaceTables(const FaceLanes& lanes, std::size_t faces, FaceTables& tables) {
    blendFaceTablesWide(lanes, faces, tables);
}

void setLineLanes(std::uint64_t seed, float frequency, const float* x, const float* y,
                  FaceLanes& lanes) {
    setLinesWide(seed, frequency, x, y, lanes);
}

bool placeSampleLanes(const float* z, std::size_t lanes, float frequency, float reach,
                      std::int32_t* cell, float* offset, float* fade, std::int32_t& lowest,
                      std::int32_t& highest) {
    return placeSamplesWide(z, lanes, frequency, reach, cell, offset, fade, lowest, highest);
}

void blendSampleLanes(const std::int32_t* cell, const float* offset, const float* fade,
                      std::size_t lanes, std::int32_t lowest, const FaceTables& tables,
                      std::size_t line, float weight, bool first, float* sums, std::size_t stride) {
    blendSamplesWide(cell, offset, fade, lanes, lowest, tables, line, weight, first, sums, stride);
}

void storeSampleSums(const float* sums, std::size_t stride, std::size_t count, float scale,
                     float* out, const float* from, float amplitude, float* moved) {
    storeSumsWide(sums, stride, count, scale, out, from, amplitude, moved);
}

void placeSamplePair(const float* za, std::size_t countA, const float* zb, std::size_t countB,
                     float frequency, float reach, std::int32_t* cell, float* offset, float* fade,
                     SamplePairEnds& ends) {
    placeSamplePairWide(za, countA, zb, countB, frequency, reach, cell, offset, fade, ends);
}

void blendSamplePair(const std::int32_t* cell, const float* offset, const float* fade,
                     const std::int32_t* lowest, const FaceTables& tables, std::size_t lineA,
                     std::size_t lineB, const float* weight, unsigned blends, unsigned first,
                     float* sums, std::size_t stride) {
    blendSamplePairWide(cell, offset, fade, lowest, tables, lineA, lineB, weight, blends, first,
                        sums, stride);
}

#else

FaceKernel widestFaceKernel() {
    return FaceKernel::None;
}

void blendFaceLanes(FaceKernel, const FaceLanes&, std::size_t, FaceRows&) {}
void blendFaceTables(const FaceLanes&, std::size_t, FaceTables&) {}
void setLineLanes(std::uint64_t, float, const float*, const float*, FaceLanes&) {}
bool placeSampleLanes(const float*, std::size_t, float, float, std::int32_t*, float*, float*,
                      std::int32_t&, std::int32_t&) {
    return false;
}
void blendSampleLanes(const std::int32_t*, const float*, const float*, std::size_t, std::int32_t,
                      const FaceTables&, std::size_t, float, bool, float*, std::size_t) {}
void storeSampleSums(const float*, std::size_t, std::size_t, float, float*, const float*, float,
                     float*) {}
void placeSamplePair(const float*, std::size_t, const float*, std::size_t, float, float,
                     std::int32_t*, float*, float*, SamplePairEnds&) {}
void blendSamplePair(const std::int32_t*, const float*, const float*, const std::int32_t*,
                     const FaceTables&, std::size_t, std::size_t, const float*, unsigned, unsigned,
                     float*, std::size_t) {}

#endif

}  // namespace velmorin::noise_faces
