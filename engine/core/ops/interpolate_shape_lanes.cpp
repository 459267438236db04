#include "ops/interpolate_shape_lanes.h"

#include "base/fast_trig_lanes.h"
#include "base/float_lanes.h"

namespace velmorin::interpolate_lanes {

#if VELMORIN_FLOAT_LANES
// The steps once for each lane width: the same text over four SSE2 lanes and over eight AVX
// lanes, the latter built for AVX alone.
namespace {
namespace narrow_shape {
using namespace float_lanes::narrow;
#define VELMORIN_LANES_TARGET
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace narrow_shape
namespace wide_shape {
using namespace float_lanes::wide;
#define VELMORIN_LANES_TARGET __attribute__((target("avx")))
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace wide_shape

#if defined(__GNUC__) && !defined(__clang__)
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Sixteen lanes of AVX-512, with the operations the text needs: each one IEEE operation per lane,
// as in the other widths. Masks are a bit per lane. Rows are turned into lanes, and points out of
// them, as two halves of eight by the AVX operations.
namespace widest_lanes {

#define VELMORIN_WIDEST __attribute__((target("avx512f"), always_inline)) inline

inline constexpr std::size_t kWidth = kWidestLanes;
inline constexpr int kAllLanes = 0xFFFF;

struct F {
    __m512 v;
};
struct M {
    __mmask16 v;
};

// The scratch rows are aligned to 32 bytes, not 64: unaligned operations, as fast on aligned data.
VELMORIN_WIDEST F loadAligned(const float* p) {
    return {_mm512_loadu_ps(p)};
}
VELMORIN_WIDEST void storeAligned(float* p, F a) {
    _mm512_storeu_ps(p, a.v);
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
// std::min(a, b), NaN and signed zeros included, as minps(b, a).
VELMORIN_WIDEST F minOf(F a, F b) {
    return {_mm512_min_ps(b.v, a.v)};
}
VELMORIN_WIDEST M operator<=(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_LE_OQ)};
}
VELMORIN_WIDEST M operator>(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GT_OQ)};
}
VELMORIN_WIDEST M operator==(F a, F b) {
    return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_EQ_OQ)};
}
VELMORIN_WIDEST M operator&(M a, M b) {
    return {static_cast<__mmask16>(a.v & b.v)};
}
// a where m, else b.
VELMORIN_WIDEST F select(M m, F a, F b) {
    return {_mm512_mask_blend_ps(m.v, b.v, a.v)};
}
VELMORIN_WIDEST int laneBits(M m) {
    return static_cast<int>(m.v);
}
VELMORIN_WIDEST bool anyOf(M m) {
    return m.v != 0;
}
VELMORIN_WIDEST bool allOf(M m) {
    return m.v == kAllLanes;
}

// transposeBlock for sixteen rows of sixteen floats: columns[j * 16 + l] = rows[l * rowStride +
// j], made as four blocks of eight.
VELMORIN_WIDEST void transposeBlock(const float* rows, std::size_t rowStride, float* columns) {
    alignas(32) float block[kWideLanes * kWideLanes];
    for (std::size_t half = 0; half < 2; ++half)        // lanes 0-7, then 8-15
        for (std::size_t part = 0; part < 2; ++part) {  // samples 0-7, then 8-15
            float_lanes::wide::transposeBlock(
                rows + half * kWideLanes * rowStride + part * kWideLanes, rowStride, block);
            for (std::size_t j = 0; j < kWideLanes; ++j)
                _mm256_storeu_ps(columns + (part * kWideLanes + j) * kWidth + half * kWideLanes,
                                 _mm256_load_ps(block + j * kWideLanes));
        }
}

// The high eight lanes, through doubles: AVX-512F has no 256-bit float extract.
VELMORIN_WIDEST float_lanes::wide::F highHalf(__m512 a) {
    return {_mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(a), 1))};
}

// storeLanePoints for sixteen lanes, as two halves of eight.
VELMORIN_WIDEST void storeLanePoints(F px, F py, F pz, Vec3f* const* out, std::size_t at,
                                     bool last) {
    using Half = float_lanes::wide::F;
    float_lanes::wide::storeLanePoints(Half{_mm512_castps512_ps256(px.v)},
                                       Half{_mm512_castps512_ps256(py.v)},
                                       Half{_mm512_castps512_ps256(pz.v)}, out, at, last);
    float_lanes::wide::storeLanePoints(highHalf(px.v), highHalf(py.v), highHalf(pz.v),
                                       out + kWideLanes, at, last);
}

#undef VELMORIN_WIDEST

}  // namespace widest_lanes

namespace widest_shape {
using namespace widest_lanes;
#define VELMORIN_LANES_TARGET __attribute__((target("avx512f")))
#include "ops/interpolate_shape_lanes.inc"
#undef VELMORIN_LANES_TARGET
}  // namespace widest_shape
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
}  // namespace
#endif

bool sideBySideAvailable() {
    return VELMORIN_FLOAT_LANES != 0;
}

bool widestLanesUsable() {
#if VELMORIN_FLOAT_LANES
    static const bool usable = __builtin_cpu_supports("avx512f");
    return usable;
#else
    return false;
#endif
}

bool shapeLanes([[maybe_unused]] std::size_t width, [[maybe_unused]] LaneScratch& g,
                [[maybe_unused]] std::size_t samples, [[maybe_unused]] std::size_t points,
                [[maybe_unused]] bool directions, [[maybe_unused]] bool preserveLength,
                [[maybe_unused]] Vec3f* const* out) {
#if VELMORIN_FLOAT_LANES
    if (width == kWidestLanes)
        return widest_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
    if (width == kWideLanes)
        return wide_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
    return narrow_shape::shapeLanesOfWidth(g, samples, points, directions, preserveLength, out);
#else
    return false;
#endif
}

}  // namespace velmorin::interpolate_lanes
