#include "expr/noise.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>

#include "base/hash.h"
#include "expr/noise_faces.h"
#include "expr/noise_steps.h"

#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <emmintrin.h>
#define VELMORIN_NOISE_SSE2 1
#endif
// Where the compiler builds a function for AVX alone (no fused multiply-add), a line's samples are
// prepared eight at a time on processors that have it.
#if VELMORIN_NOISE_SSE2 && defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define VELMORIN_NOISE_WIDE_PREP 1
#endif

namespace velmorin {
namespace {

using noise_steps::floorOf;
using noise_steps::smoothUnit;

// The twelve edge directions of a cube.
constexpr float kGradients[12][3] = {{1, 1, 0}, {-1, 1, 0}, {1, -1, 0}, {-1, -1, 0},
                                     {1, 0, 1}, {-1, 0, 1}, {1, 0, -1}, {-1, 0, -1},
                                     {0, 1, 1}, {0, -1, 1}, {0, 1, -1}, {0, -1, -1}};

inline float corner(std::uint64_t h, int channel, float x, float y, float z) {
    const float* g = kGradients[((h >> (16 * channel)) & 0xFFFFu) % 12u];
    return g[0] * x + g[1] * y + g[2] * z;
}

inline float blend(float a, float b, float t) {
    return a + (b - a) * t;
}

// Where p lies in its lattice cell: the cell's corner and the offset from it.
struct Cell {
    std::int64_t i[3];
    float f[3];
};

inline Cell cellOf(const Vec3f& p) {
    Cell c;
    const float v[3] = {p.x, p.y, p.z};
    for (int k = 0; k < 3; ++k) {
        const float f = floorOf(v[k]);
        c.i[k] = latticeFloor(f);
        c.f[k] = v[k] - f;
    }
    return c;
}

// The eight corner hashes of a cell; `wrap` (nullable) repeats each axis after that many cells.
inline void cornerHashes(const std::int64_t i[3], const std::int64_t* wrap, std::uint64_t seed,
                         std::uint64_t h[8]) {
    std::int64_t lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
        lo[k] = i[k];
        // Unsigned arithmetic: a coordinate at the top of the range wraps instead of overflowing.
        hi[k] = static_cast<std::int64_t>(static_cast<std::uint64_t>(i[k]) + 1u);
        if (wrap && wrap[k] > 0) {
            lo[k] = ((lo[k] % wrap[k]) + wrap[k]) % wrap[k];
            hi[k] = lo[k] + 1 == wrap[k] ? 0 : lo[k] + 1;
        }
    }
    // latticeHash corner by corner, with each axis's two products made once.
    const std::uint64_t x[2] = {static_cast<std::uint64_t>(lo[0]) * 0x9E3779B185EBCA87ull,
                                static_cast<std::uint64_t>(hi[0]) * 0x9E3779B185EBCA87ull};
    const std::uint64_t y[2] = {static_cast<std::uint64_t>(lo[1]) * 0xC2B2AE3D27D4EB4Full,
                                static_cast<std::uint64_t>(hi[1]) * 0xC2B2AE3D27D4EB4Full};
    const std::uint64_t z[2] = {static_cast<std::uint64_t>(lo[2]) * 0x165667B19E3779F9ull,
                                static_cast<std::uint64_t>(hi[2]) * 0x165667B19E3779F9ull};
    for (int c = 0; c < 8; ++c) {
        std::uint64_t v = seed ^ x[c & 1] ^ y[(c >> 1) & 1] ^ z[(c >> 2) & 1];
        v ^= v >> 29;
        v *= 0xBF58476D1CE4E5B9ull;
        v ^= v >> 32;
        h[c] = v;
    }
}

inline float gradientChannel(const std::uint64_t h[8], const float f[3], int channel) {
    const float x = f[0], y = f[1], z = f[2];
    const float u = noiseFade(x), v = noiseFade(y), w = noiseFade(z);
    const float x00 = blend(corner(h[0], channel, x, y, z), corner(h[1], channel, x - 1, y, z), u);
    const float x10 =
        blend(corner(h[2], channel, x, y - 1, z), corner(h[3], channel, x - 1, y - 1, z), u);
    const float x01 =
        blend(corner(h[4], channel, x, y, z - 1), corner(h[5], channel, x - 1, y, z - 1), u);
    const float x11 = blend(corner(h[6], channel, x, y - 1, z - 1),
                            corner(h[7], channel, x - 1, y - 1, z - 1), u);
    return blend(blend(x00, x10, v), blend(x01, x11, v), w);
}

inline std::uint64_t sliceSeed(std::uint64_t seed, std::int64_t slice) {
    return hashCombine(seed, static_cast<std::uint64_t>(slice));
}

inline float absolute(float x) {
    return std::fabs(x);
}
inline Vec3f absolute(const Vec3f& v) {
    return {std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)};
}

// The shared fractal loop over any sample function of (point, seed).
template <class T, class Sample>
T fractalSum(const Vec3f& p, const Fractal& fractal, std::uint64_t seed, Sample sample) {
    const float octavesHeld = std::isnan(fractal.octaves) ? 1.0f : fractal.octaves;
    const int octaves = static_cast<int>(std::clamp(octavesHeld, 1.0f, 16.0f));
    T sum{};
    float amplitude = 1.0f, frequency = 1.0f, norm = 0.0f;
    for (int o = 0; o < octaves; ++o) {
        float weight = amplitude;
        if (fractal.spacing > 0.0f)
            weight *= 1.0f - smoothUnit(0.5f, 1.0f, fractal.spacing * frequency);
        T n = sample(p * frequency, hashCombine(seed, static_cast<std::uint64_t>(o)));
        if (fractal.absolute) n = absolute(n);
        sum = sum + n * weight;
        norm += amplitude;
        amplitude *= fractal.gain;
        frequency *= fractal.lacunarity;
    }
    // A gain that makes the amplitudes cancel leaves nothing to normalise by.
    if (!(std::fabs(norm) > 1e-12f)) return T{};
    return sum * (1.0f / norm);
}

}  // namespace

std::int64_t latticeFloor(float x) {
    const float f = floorOf(x);
    constexpr float kLimit = 4.0e18f;  // inside the range of int64
    if (!(f == f)) return 0;
    if (f >= kLimit) return static_cast<std::int64_t>(kLimit);
    if (f <= -kLimit) return -static_cast<std::int64_t>(kLimit);
    return static_cast<std::int64_t>(f);
}

float gradientNoise(const Vec3f& p, std::uint64_t seed) {
    const Cell c = cellOf(p);
    std::uint64_t h[8];
    cornerHashes(c.i, nullptr, seed, h);
    return gradientChannel(h, c.f, 0);
}

Vec3f gradientNoiseVector(const Vec3f& p, std::uint64_t seed) {
    const Cell c = cellOf(p);
    std::uint64_t h[8];
    cornerHashes(c.i, nullptr, seed, h);
    return {gradientChannel(h, c.f, 0), gradientChannel(h, c.f, 1), gradientChannel(h, c.f, 2)};
}

float periodicNoise(const Vec3f& p, const Vec3f& period, std::uint64_t seed) {
    const Cell c = cellOf(p);
    std::int64_t wrap[3];
    const float periods[3] = {period.x, period.y, period.z};
    for (int k = 0; k < 3; ++k) {
        // Whole cells only; a period below one cell, or a huge one, does not repeat.
        const float cells = std::round(periods[k]);
        wrap[k] = cells >= 1.0f && cells < 1.0e9f ? static_cast<std::int64_t>(cells) : 0;
    }
    std::uint64_t h[8];
    cornerHashes(c.i, wrap, seed, h);
    return gradientChannel(h, c.f, 0);
}

float gradientNoise4(const Vec3f& p, float w, std::uint64_t seed) {
    const std::int64_t slice = latticeFloor(w);
    const float f = w - floorOf(w);
    const float a = gradientNoise(p, sliceSeed(seed, slice));
    const float b = gradientNoise(
        p, sliceSeed(seed, static_cast<std::int64_t>(static_cast<std::uint64_t>(slice) + 1u)));
    return blend(a, b, noiseFade(f));
}

Vec3f gradientNoiseVector4(const Vec3f& p, float w, std::uint64_t seed) {
    const std::int64_t slice = latticeFloor(w);
    const float f = w - floorOf(w);
    const Vec3f a = gradientNoiseVector(p, sliceSeed(seed, slice));
    const Vec3f b = gradientNoiseVector(
        p, sliceSeed(seed, static_cast<std::int64_t>(static_cast<std::uint64_t>(slice) + 1u)));
    return lerp(a, b, noiseFade(f));
}

float fractalNoise(const Vec3f& p, const Fractal& fractal, std::uint64_t seed) {
    return fractalSum<float>(p, fractal, seed, gradientNoise);
}

Vec3f fractalNoiseVector(const Vec3f& p, const Fractal& fractal, std::uint64_t seed) {
    return fractalSum<Vec3f>(p, fractal, seed, gradientNoiseVector);
}

FractalNoiseAlongZ::FractalNoiseAlongZ(const Fractal& fractal, std::uint64_t seed)
    : fractal_(fractal) {
    // The octaves and norm of fractalSum.
    const float octavesHeld = std::isnan(fractal.octaves) ? 1.0f : fractal.octaves;
    octaveCount_ = static_cast<int>(std::clamp(octavesHeld, 1.0f, 16.0f));
    float amplitude = 1.0f, frequency = 1.0f, norm = 0.0f;
    for (int o = 0; o < octaveCount_; ++o) {
        Octave& octave = octaves_[o];
        octave.seed = hashCombine(seed, static_cast<std::uint64_t>(o));
        octave.frequency = frequency;
        norm += amplitude;
        amplitude *= fractal.gain;
        frequency *= fractal.lacunarity;
    }
    scale_ = std::fabs(norm) > 1e-12f ? 1.0f / norm : 0.0f;
}

void FractalNoiseAlongZ::startLine(float x, float y, float spacing) {
    // The weights of fractalSum, which change with the spacing only.
    const bool reweigh = !(spacing == spacing_);
    spacing_ = spacing;
    float amplitude = 1.0f;
    for (int o = 0; o < octaveCount_; ++o) {
        Octave& octave = octaves_[o];
        if (reweigh) {
            octave.weight = amplitude;
            if (spacing > 0.0f)
                octave.weight *= 1.0f - smoothUnit(0.5f, 1.0f, spacing * octave.frequency);
            amplitude *= fractal_.gain;
        }
        const Cell c = cellOf(Vec3f{x * octave.frequency, y * octave.frequency, 0.0f});
        octave.cellX = c.i[0];
        octave.cellY = c.i[1];
        octave.fx = c.f[0];
        octave.fy = c.f[1];
        octave.fadeX = noiseFade(octave.fx);
        octave.fadeY = noiseFade(octave.fy);
        // The four corner hashes of a face, as cornerHashes makes them, but for the z product.
        const std::uint64_t xs[2] = {
            static_cast<std::uint64_t>(octave.cellX) * 0x9E3779B185EBCA87ull,
            (static_cast<std::uint64_t>(octave.cellX) + 1u) * 0x9E3779B185EBCA87ull};
        const std::uint64_t ys[2] = {
            static_cast<std::uint64_t>(octave.cellY) * 0xC2B2AE3D27D4EB4Full,
            (static_cast<std::uint64_t>(octave.cellY) + 1u) * 0xC2B2AE3D27D4EB4Full};
        for (int k = 0; k < 4; ++k)
            octave.cornerBase[k] = octave.seed ^ xs[k & 1] ^ ys[(k >> 1) & 1];
        // gradientChannel's x and y terms of each corner, for each gradient.
        const float x0 = octave.fx, y0 = octave.fy;
        const float cornerX[4] = {x0, x0 - 1, x0, x0 - 1};
        const float cornerY[4] = {y0, y0, y0 - 1, y0 - 1};
        for (int k = 0; k < 4; ++k)
            for (int g = 0; g < 12; ++g)
                octave.cornerDot[k][g] =
                    kGradients[g][0] * cornerX[k] + kGradients[g][1] * cornerY[k];
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b)
                octave.slopeAcross[a][b] =
                    blend(static_cast<float>(a - 1), static_cast<float>(b - 1), octave.fadeX);
        octave.cellValid = false;
    }
}

#if VELMORIN_NOISE_SSE2
namespace {

inline __m128 blendLanes(__m128 a, __m128 b, __m128 t) {
    return _mm_add_ps(a, _mm_mul_ps(_mm_sub_ps(b, a), t));
}

}  // namespace
#endif

void FractalNoiseAlongZ::blendFace(const Octave& octave, std::int64_t faceZ, float* constant,
                                   float* slope) const {
    // The four corner hashes of the face, as cornerHashes makes them.
    const std::uint64_t zs = static_cast<std::uint64_t>(faceZ) * 0x165667B19E3779F9ull;
    std::uint64_t h[4];
    for (int c = 0; c < 4; ++c) {
        std::uint64_t v = octave.cornerBase[c] ^ zs;
        v ^= v >> 29;
        v *= 0xBF58476D1CE4E5B9ull;
        v ^= v >> 32;
        h[c] = v;
    }
    const float u = octave.fadeX, v = octave.fadeY;
    // Each hash's 16-bit words pick the corner's gradient per channel: word % 12.
    std::uint16_t picks[16];
#if VELMORIN_NOISE_SSE2
    for (int half = 0; half < 2; ++half) {
        // word * 43691 >> 19 is word / 12 for every word below 2^16.
        const __m128i word = _mm_set_epi64x(static_cast<long long>(h[2 * half + 1]),
                                            static_cast<long long>(h[2 * half]));
        const __m128i twelfth = _mm_srli_epi16(_mm_mulhi_epu16(word, _mm_set1_epi16(-21845)), 3);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(picks + 8 * half),
                         _mm_sub_epi16(word, _mm_mullo_epi16(twelfth, _mm_set1_epi16(12))));
    }
#else
    for (int k = 0; k < 4; ++k)
        for (int channel = 0; channel < 4; ++channel)
            picks[4 * k + channel] =
                static_cast<std::uint16_t>(((h[k] >> (16 * channel)) & 0xFFFFu) % 12u);
#endif
    // The z gradient of each pick as an index of slopeAcross: 0 for -1, 1 for 0, 2 for 1.
    static constexpr std::uint8_t kSlopeIndex[12] = {1, 1, 1, 1, 2, 2, 0, 0, 2, 2, 0, 0};
    for (int channel = 0; channel < 3; ++channel) {
        // gradientChannel's corners with z left out: the x and y part blended across the face,
        // and the z gradients blended alike as the slope in z.
        const int g0 = picks[channel], g1 = picks[4 + channel];
        const int g2 = picks[8 + channel], g3 = picks[12 + channel];
        const float c00 = blend(octave.cornerDot[0][g0], octave.cornerDot[1][g1], u);
        const float c10 = blend(octave.cornerDot[2][g2], octave.cornerDot[3][g3], u);
        constant[channel] = blend(c00, c10, v);
        slope[channel] = blend(octave.slopeAcross[kSlopeIndex[g0]][kSlopeIndex[g1]],
                               octave.slopeAcross[kSlopeIndex[g2]][kSlopeIndex[g3]], v);
    }
    constant[3] = 0.0f;
    slope[3] = 0.0f;
}

void FractalNoiseAlongZ::enterCell(Octave& octave, std::int64_t cellZ, float below) const {
    const std::int64_t upper = static_cast<std::int64_t>(static_cast<std::uint64_t>(cellZ) + 1u);
    if (octave.cellValid &&
        static_cast<std::uint64_t>(octave.cellZ) + 1u == static_cast<std::uint64_t>(cellZ)) {
        // One cell up: the lower face is the upper face of the cell before, the same corners
        // with the same offset in z, so it carries over as it is.
        std::copy_n(octave.high, 4, octave.low);
        std::copy_n(octave.highSlope, 4, octave.lowSlope);
    } else {
        blendFace(octave, cellZ, octave.low, octave.lowSlope);
    }
    blendFace(octave, upper, octave.high, octave.highSlope);
    octave.cellZ = cellZ;
    octave.cellBelow = below;
    octave.cellValid = true;
}

namespace {

// One octave's channels between a cell's lower face (constant and slope per lane) and its upper
// one at the offset f in the cell with the blend w, times the octave's weight, added to `sum`.
inline void addBlended(const float* lowConstant, const float* lowSlope, const float* highConstant,
                       const float* highSlope, float f, float w, float weight, float* sum) {
#if VELMORIN_NOISE_SSE2
    // The three channels in the lanes, each with the operations of the scalar form below.
    const __m128 lower =
        _mm_add_ps(_mm_load_ps(lowConstant), _mm_mul_ps(_mm_load_ps(lowSlope), _mm_set1_ps(f)));
    const __m128 upper = _mm_add_ps(_mm_load_ps(highConstant),
                                    _mm_mul_ps(_mm_load_ps(highSlope), _mm_set1_ps(f - 1.0f)));
    _mm_store_ps(
        sum, _mm_add_ps(_mm_load_ps(sum),
                        _mm_mul_ps(blendLanes(lower, upper, _mm_set1_ps(w)), _mm_set1_ps(weight))));
#else
    for (int c = 0; c < 3; ++c)
        sum[c] = sum[c] + blend(lowConstant[c] + lowSlope[c] * f,
                                highConstant[c] + highSlope[c] * (f - 1.0f), w) *
                              weight;
#endif
}

}  // namespace

void FractalNoiseAlongZ::addOctave(Octave& octave, float q, float* sum) {
    // Within the cell held, floorOf(q) is its lower z: no floor to take.
    if (!(octave.cellValid && q >= octave.cellBelow && q < octave.cellBelow + 1.0f)) {
        const float below = floorOf(q);
        const std::int64_t cellZ = latticeFloor(below);
        if (!octave.cellValid || cellZ != octave.cellZ) {
            enterCell(octave, cellZ, below);
        } else {
            octave.cellBelow = below;
        }
    }
    const float f = q - octave.cellBelow;
    addBlended(octave.low, octave.lowSlope, octave.high, octave.highSlope, f, noiseFade(f),
               octave.weight, sum);
}

Vec3f FractalNoiseAlongZ::at(float z) {
    alignas(16) float sum[4] = {};
    for (int o = 0; o < octaveCount_; ++o) {
        Octave& octave = octaves_[o];
        // A faded-out octave adds nothing; skipping it keeps the sum's bits.
        if (octave.weight == 0.0f) continue;
        addOctave(octave, z * octave.frequency, sum);
    }
    return Vec3f{sum[0], sum[1], sum[2]} * scale_;
}

namespace {

// A strand's samples at most, and the faces one octave may blend for them, on the stack.
constexpr std::size_t kMostSamples = 256;
constexpr std::int32_t kMostFaces = 64;
static_assert(noise_faces::kMostFaces == kMostFaces);
// Below this a cell's lower z is a float's floor and fits the cell number with room to spare;
// farther out the samples take the general walk, which minds the ends of the range.
constexpr float kPlainReach = 2097152.0f;  // 2^21

// One octave's samples of a line: per sample q, its cell's lower z as a float and as a cell number,
// the offset in the cell and its fade, for up to N samples. Four more than the samples, for the
// lanes' padding.
template <std::size_t N>
struct OctaveSamples {
    alignas(32) float q[N + 4];
    alignas(32) float below[N + 4];
    alignas(32) std::int32_t cell[N + 4];
    alignas(32) float offset[N + 4];
    alignas(32) float fade[N + 4];
};

// The samples z[0..count) of a line (count <= N) padded to whole lanes with copies of the last,
// which change no lowest or highest cell and whose results are dropped.
template <std::size_t N>
struct PaddedSamples {
    static_assert(N % 8 == 0, "whole eight-lane steps fit the padding");
    alignas(32) float z[N + 4];
    std::size_t count = 0;
    std::size_t lanes = 0;      // count rounded up to four
    std::size_t wideLanes = 0;  // count rounded up to eight
};

template <std::size_t N>
void padSamples(std::span<const float> z, PaddedSamples<N>& padded) {
    padded.count = z.size();
    padded.lanes = (padded.count + 3) & ~std::size_t{3};
    padded.wideLanes = (padded.count + 7) & ~std::size_t{7};
    // A loop rather than a copy: these are a few dozen floats, below what a block move is quick
    // at.
    std::size_t i = 0;
#if VELMORIN_NOISE_SSE2
    for (; i + 4 <= padded.count; i += 4)
        _mm_store_ps(padded.z + i, _mm_loadu_ps(z.data() + i));
#endif
    for (; i < padded.count; ++i)
        padded.z[i] = z[i];
    std::fill(padded.z + padded.count, padded.z + padded.wideLanes,
              padded.count > 0 ? z[padded.count - 1] : 0.0f);
}

// Fills `out` for one octave at `frequency` and gives the faces its samples reach, from the lowest
// cell's to the highest's upper one: 0 where they are not plain (out of reach), too many for the
// stack, or more than twice the samples (a frequency finer than them: the walk makes fewer).
template <std::size_t N>
std::int32_t octaveFaces(const PaddedSamples<N>& z, float frequency, OctaveSamples<N>& out,
                         std::int32_t& lowest) {
    const std::size_t count = z.count;
    bool plain = true;
    lowest = 0;
    std::int32_t highest = -1;
#if VELMORIN_NOISE_SSE2
    // Four samples at a time, each lane with the operations of the plain loop below:
    // floorOf's truncation, step down and sign, and noiseFade's products in their order.
    if (count > 0) {
        const __m128 frequencyLanes = _mm_set1_ps(frequency);
        const __m128 reach = _mm_set1_ps(kPlainReach);
        const __m128 sign = _mm_set1_ps(-0.0f);
        __m128 inReach = _mm_castsi128_ps(_mm_set1_epi32(-1));
        __m128 least = _mm_set1_ps(kPlainReach), most = _mm_set1_ps(-kPlainReach);
        for (std::size_t i = 0; i < z.lanes; i += 4) {
            const __m128 v = _mm_mul_ps(_mm_load_ps(z.z + i), frequencyLanes);
            inReach = _mm_and_ps(inReach, _mm_cmplt_ps(_mm_andnot_ps(sign, v), reach));
            const __m128 t = _mm_cvtepi32_ps(_mm_cvttps_epi32(v));
            const __m128 down = _mm_cmpgt_ps(t, v);
            const __m128 signedT = _mm_or_ps(_mm_andnot_ps(sign, t), _mm_and_ps(sign, v));
            const __m128 b = _mm_or_ps(_mm_and_ps(down, _mm_sub_ps(t, _mm_set1_ps(1.0f))),
                                       _mm_andnot_ps(down, signedT));
            const __m128 f = _mm_sub_ps(v, b);
            const __m128 cubed = _mm_mul_ps(_mm_mul_ps(f, f), f);
            const __m128 inner = _mm_add_ps(
                _mm_mul_ps(f, _mm_sub_ps(_mm_mul_ps(f, _mm_set1_ps(6.0f)), _mm_set1_ps(15.0f))),
                _mm_set1_ps(10.0f));
            _mm_store_ps(out.q + i, v);
            _mm_store_ps(out.below + i, b);
            _mm_store_si128(reinterpret_cast<__m128i*>(out.cell + i), _mm_cvttps_epi32(b));
            _mm_store_ps(out.offset + i, f);
            _mm_store_ps(out.fade + i, _mm_mul_ps(cubed, inner));
            least = _mm_min_ps(least, b);
            most = _mm_max_ps(most, b);
        }
        plain = _mm_movemask_ps(inReach) == 0xF;
        if (plain) {
            // Whole floats in reach: the least and most cells as floats, then as numbers.
            alignas(16) float ends[2][4];
            _mm_store_ps(ends[0], least);
            _mm_store_ps(ends[1], most);
            lowest = static_cast<std::int32_t>(
                std::min(std::min(ends[0][0], ends[0][1]), std::min(ends[0][2], ends[0][3])));
            highest = static_cast<std::int32_t>(
                std::max(std::max(ends[1][0], ends[1][1]), std::max(ends[1][2], ends[1][3])));
        }
    }
#else
    for (std::size_t i = 0; i < count; ++i) {
        out.q[i] = z.z[i] * frequency;
        plain = plain && std::fabs(out.q[i]) < kPlainReach;
    }
    if (plain && count > 0) {
        lowest = std::numeric_limits<std::int32_t>::max();
        highest = std::numeric_limits<std::int32_t>::min();
        for (std::size_t i = 0; i < count; ++i) {
            out.below[i] = floorOf(out.q[i]);
            out.cell[i] = static_cast<std::int32_t>(out.below[i]);
            out.offset[i] = out.q[i] - out.below[i];
            out.fade[i] = noiseFade(out.offset[i]);
            lowest = std::min(lowest, out.cell[i]);
            highest = std::max(highest, out.cell[i]);
        }
    }
#endif
    const std::int32_t faces = highest - lowest + 2;
    if (!plain || faces > kMostFaces || static_cast<std::size_t>(faces) > 2 * count + 2) return 0;
    return faces;
}

#if VELMORIN_NOISE_WIDE_PREP
// Whether this processor has AVX, for octaveFacesWide.
bool widePrepUsable() {
    static const bool usable = __builtin_cpu_supports("avx");
    return usable;
}

// octaveFaces with eight samples at a time: each lane with the operations of its four-lane loop,
// and the same answer (the least and most cells are whole floats, whatever order finds them).
template <std::size_t N>
__attribute__((target("avx"))) std::int32_t octaveFacesWide(const PaddedSamples<N>& z,
                                                            float frequency, OctaveSamples<N>& out,
                                                            std::int32_t& lowest) {
    const std::size_t count = z.count;
    lowest = 0;
    if (count == 0) return 1;
    const __m256 frequencyLanes = _mm256_set1_ps(frequency);
    const __m256 reach = _mm256_set1_ps(kPlainReach);
    const __m256 sign = _mm256_set1_ps(-0.0f);
    __m256 inReach = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    __m256 least = _mm256_set1_ps(kPlainReach), most = _mm256_set1_ps(-kPlainReach);
    for (std::size_t i = 0; i < z.wideLanes; i += 8) {
        const __m256 v = _mm256_mul_ps(_mm256_load_ps(z.z + i), frequencyLanes);
        inReach =
            _mm256_and_ps(inReach, _mm256_cmp_ps(_mm256_andnot_ps(sign, v), reach, _CMP_LT_OS));
        const __m256 t = _mm256_cvtepi32_ps(_mm256_cvttps_epi32(v));
        const __m256 down = _mm256_cmp_ps(t, v, _CMP_GT_OS);
        const __m256 signedT = _mm256_or_ps(_mm256_andnot_ps(sign, t), _mm256_and_ps(sign, v));
        const __m256 b = _mm256_or_ps(_mm256_and_ps(down, _mm256_sub_ps(t, _mm256_set1_ps(1.0f))),
                                      _mm256_andnot_ps(down, signedT));
        const __m256 f = _mm256_sub_ps(v, b);
        const __m256 cubed = _mm256_mul_ps(_mm256_mul_ps(f, f), f);
        const __m256 inner = _mm256_add_ps(
            _mm256_mul_ps(
                f, _mm256_sub_ps(_mm256_mul_ps(f, _mm256_set1_ps(6.0f)), _mm256_set1_ps(15.0f))),
            _mm256_set1_ps(10.0f));
        _mm256_store_ps(out.q + i, v);
        _mm256_store_ps(out.below + i, b);
        _mm256_store_si256(reinterpret_cast<__m256i*>(out.cell + i), _mm256_cvttps_epi32(b));
        _mm256_store_ps(out.offset + i, f);
        _mm256_store_ps(out.fade + i, _mm256_mul_ps(cubed, inner));
        least = _mm256_min_ps(least, b);
        most = _mm256_max_ps(most, b);
    }
    if (_mm256_movemask_ps(inReach) != 0xFF) return 0;
    alignas(32) float ends[2][8];
    _mm256_store_ps(ends[0], least);
    _mm256_store_ps(ends[1], most);
    float low = ends[0][0], high = ends[1][0];
    for (int k = 1; k < 8; ++k) {
        low = std::min(low, ends[0][k]);
        high = std::max(high, ends[1][k]);
    }
    lowest = static_cast<std::int32_t>(low);
    const std::int32_t faces = static_cast<std::int32_t>(high) - lowest + 2;
    if (faces > kMostFaces || static_cast<std::size_t>(faces) > 2 * count + 2) return 0;
    return faces;
}
#endif

}  // namespace

void FractalNoiseAlongZ::along(std::span<const float> z, std::span<Vec3f> out) {
    const std::size_t count = z.size();
    if (count > kMostSamples) {
        for (std::size_t i = 0; i < count; ++i)
            out[i] = at(z[i]);
        return;
    }
    alignas(16) float sums[kMostSamples][4];
    for (std::size_t i = 0; i < count; ++i)
        std::fill_n(sums[i], 4, 0.0f);
    PaddedSamples<kMostSamples> padded;
    padSamples(z, padded);
    OctaveSamples<kMostSamples> samples;
    alignas(16) float constant[kMostFaces][4];
    alignas(16) float slope[kMostFaces][4];
    for (int o = 0; o < octaveCount_; ++o) {
        Octave& octave = octaves_[o];
        if (octave.weight == 0.0f) continue;
        std::int32_t lowest = 0;
        const std::int32_t faces = octaveFaces(padded, octave.frequency, samples, lowest);
        if (faces == 0) {
            for (std::size_t i = 0; i < count; ++i)
                addOctave(octave, z[i] * octave.frequency, sums[i]);
            continue;
        }
        for (std::int32_t face = 0; face < faces; ++face)
            blendFace(octave, lowest + face, constant[face], slope[face]);
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t at = static_cast<std::size_t>(samples.cell[i] - lowest);
            addBlended(constant[at], slope[at], constant[at + 1], slope[at + 1], samples.offset[i],
                       samples.fade[i], octave.weight, sums[i]);
        }
    }
    for (std::size_t i = 0; i < count; ++i)
        out[i] = Vec3f{sums[i][0], sums[i][1], sums[i][2]} * scale_;
}

namespace {

// Adds one octave of a line to its samples' sums: each sample blends the faces below and above it
// (addBlended), read from rows kFaceStride floats apart from `constant` and `slope`, the lowest
// cell's faces first. Its own function, so that the count and the cell are held in registers
// rather than read back after every sum is stored.
constexpr std::size_t kFaceStride = noise_faces::kLanes * 4;
template <std::size_t N>
void blendSamples(const OctaveSamples<N>& samples, std::size_t count, std::int32_t lowest,
                  const float* constant, const float* slope, float weight, float (*sums)[4]) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t at = kFaceStride * static_cast<std::size_t>(samples.cell[i] - lowest);
        addBlended(constant + at, slope + at, constant + at + kFaceStride, slope + at + kFaceStride,
                   samples.offset[i], samples.fade[i], weight, sums[i]);
    }
}

}  // namespace

namespace {

// Lane l of an octave's face lanes: the line's x and y cell, as startLine finds it (cellOf's steps
// for x and y alone: the line's z plays no part here), and the first face its samples reach.
void setFaceLane(std::uint64_t seed, float frequency, float x, float y, std::int32_t firstFace,
                 std::size_t l, noise_faces::FaceLanes& faceLanes) {
    const float qx = x * frequency, qy = y * frequency;
    const float belowX = floorOf(qx), belowY = floorOf(qy);
    const auto cellX = static_cast<std::uint64_t>(latticeFloor(belowX));
    const auto cellY = static_cast<std::uint64_t>(latticeFloor(belowY));
    faceLanes.fx[l] = qx - belowX;
    faceLanes.fy[l] = qy - belowY;
    faceLanes.fadeX[l] = noiseFade(faceLanes.fx[l]);
    faceLanes.fadeY[l] = noiseFade(faceLanes.fy[l]);
    const std::uint64_t xs[2] = {cellX * 0x9E3779B185EBCA87ull,
                                 (cellX + 1u) * 0x9E3779B185EBCA87ull};
    const std::uint64_t ys[2] = {cellY * 0xC2B2AE3D27D4EB4Full,
                                 (cellY + 1u) * 0xC2B2AE3D27D4EB4Full};
    for (int k = 0; k < 4; ++k)
        faceLanes.cornerBase[k][l] = seed ^ xs[k & 1] ^ ys[(k >> 1) & 1];
    faceLanes.firstFace[l] = firstFace;
}

}  // namespace

void FractalNoiseAlongZ::lineWeights(std::span<const Line> lines, float (*weights)[16]) const {
    for (std::size_t l = 0; l < lines.size(); ++l) {
        if (l > 0 && lines[l].spacing == lines[l - 1].spacing) {
            std::copy_n(weights[l - 1], octaveCount_, weights[l]);
            continue;
        }
        float amplitude = 1.0f;
        for (int o = 0; o < octaveCount_; ++o) {
            weights[l][o] = amplitude;
            if (lines[l].spacing > 0.0f)
                weights[l][o] *=
                    1.0f - smoothUnit(0.5f, 1.0f, lines[l].spacing * octaves_[o].frequency);
            amplitude *= fractal_.gain;
        }
    }
}

void FractalNoiseAlongZ::moveAlong(const Line& line) {
    if (line.moved.empty()) return;
    for (std::size_t i = 0; i < line.moved.size(); ++i)
        line.moved[i] = line.from[i] + line.out[i] * line.amplitude;
}

void FractalNoiseAlongZ::alongAlone(const Line& line) {
    startLine(line.x, line.y, line.spacing);
    along(line.z, line.out);
    moveAlong(line);
}

void FractalNoiseAlongZ::alongLinesWide(std::span<const Line> lines) {
    using noise_faces::FaceLanes;
    using noise_faces::FaceTables;
    using noise_faces::kLanes;
    using noise_faces::kMostTableFaces;
    // Each line's samples in 16 lanes, and its sums channel by channel.
    struct LineState {
        alignas(64) std::int32_t cell[kMostLaneSamples];
        alignas(64) float offset[kMostLaneSamples];
        alignas(64) float fade[kMostLaneSamples];
        alignas(64) float sums[3][kMostLaneSamples];
        std::size_t count = 0;
        bool alone = false;
        bool blends = false;  // this octave
        bool summed = false;  // by an octave before
    };
    LineState state[kLanes];
    FaceLanes faceLanes;
    FaceTables tables;
    const std::size_t count = std::min(lines.size(), kLanes);
    for (std::size_t l = 0; l < count; ++l) {
        state[l].count = lines[l].z.size();
        state[l].alone = state[l].count > kMostLaneSamples;
    }
    float weights[kLanes][16];
    lineWeights(lines.first(count), weights);
    // Lanes without a line of their own repeat the first line's, and their tables are not read.
    alignas(32) float lineX[kLanes], lineY[kLanes];
    for (std::size_t l = 0; l < kLanes; ++l) {
        lineX[l] = lines[l < count ? l : 0].x;
        lineY[l] = lines[l < count ? l : 0].y;
    }
    // Lines of few samples go in pairs, the second's samples in the upper lanes of the first's
    // (whose arrays the pair shares).
    bool paired[kLanes] = {};
    const auto pairable = [&](std::size_t l) {
        return !state[l].alone && state[l].count >= 1 &&
               state[l].count <= noise_faces::kMostPairSamples;
    };
    for (std::size_t l = 0; l + 1 < count; l += 2)
        paired[l] = paired[l + 1] = pairable(l) && pairable(l + 1);
    noise_faces::SamplePairEnds ends[kLanes / 2];
    for (int o = 0; o < octaveCount_; ++o) {
        const Octave& octave = octaves_[o];
        std::size_t mostFaces = 0;
        for (std::size_t l = 0; l < kLanes; ++l) {
            std::int32_t lowest = 0;
            const bool own = l < count && !state[l].alone;
            if (own) {
                LineState& line = state[l];
                line.blends = weights[l][o] != 0.0f && line.count > 0;
            }
            if (l % 2 == 0 && paired[l]) {
                // Both lines' samples at once, whichever of them takes this octave.
                const bool takes =
                    (!state[l + 1].alone && weights[l + 1][o] != 0.0f) || (own && state[l].blends);
                if (takes)
                    noise_faces::placeSamplePair(lines[l].z.data(), state[l].count,
                                                 lines[l + 1].z.data(), state[l + 1].count,
                                                 octave.frequency, kPlainReach, state[l].cell,
                                                 state[l].offset, state[l].fade, ends[l / 2]);
            }
            if (own && state[l].blends) {
                LineState& line = state[l];
                {
                    std::int32_t highest = 0;
                    bool plain = false;
                    if (paired[l]) {
                        const noise_faces::SamplePairEnds& pair = ends[l / 2];
                        lowest = pair.lowest[l % 2];
                        highest = pair.highest[l % 2];
                        plain = pair.plain[l % 2];
                    } else {
                        plain = noise_faces::placeSampleLanes(
                            lines[l].z.data(), line.count, octave.frequency, kPlainReach, line.cell,
                            line.offset, line.fade, lowest, highest);
                    }
                    // octaveFaces's limits, with the tables' own: a pair's lines pick from 16
                    // faces each.
                    const std::int32_t faces = plain ? highest - lowest + 2 : 0;
                    const std::size_t mostTableFaces = paired[l] ? 16 : kMostTableFaces;
                    if (faces == 0 || static_cast<std::size_t>(faces) > mostTableFaces ||
                        static_cast<std::size_t>(faces) > 2 * line.count + 2) {
                        line.alone = true;
                        line.blends = false;
                    } else {
                        mostFaces = std::max(mostFaces, static_cast<std::size_t>(faces));
                    }
                }
            }
            faceLanes.firstFace[l] = lowest;
        }
        if (mostFaces == 0) continue;
        noise_faces::setLineLanes(octave.seed, octave.frequency, lineX, lineY, faceLanes);
        noise_faces::blendFaceTables(faceLanes, mostFaces, tables);
        for (std::size_t l = 0; l < count; ++l) {
            LineState& line = state[l];
            if (paired[l]) {
                if (l % 2 == 1) continue;
                LineState& second = state[l + 1];
                const unsigned blends = (!line.alone && line.blends ? 1u : 0u) |
                                        (!second.alone && second.blends ? 2u : 0u);
                if (blends == 0) continue;
                const unsigned first = (line.summed ? 0u : 1u) | (second.summed ? 0u : 2u);
                const std::int32_t lowest[2] = {
                    static_cast<std::int32_t>(faceLanes.firstFace[l]),
                    static_cast<std::int32_t>(faceLanes.firstFace[l + 1])};
                const float weight[2] = {weights[l][o], weights[l + 1][o]};
                noise_faces::blendSamplePair(line.cell, line.offset, line.fade, lowest, tables, l,
                                             l + 1, weight, blends, first, &line.sums[0][0],
                                             kMostLaneSamples);
                if (blends & 1u) line.summed = true;
                if (blends & 2u) second.summed = true;
                continue;
            }
            if (line.alone || !line.blends) continue;
            noise_faces::blendSampleLanes(line.cell, line.offset, line.fade, line.count,
                                          static_cast<std::int32_t>(faceLanes.firstFace[l]), tables,
                                          l, weights[l][o], !line.summed, &line.sums[0][0],
                                          kMostLaneSamples);
            line.summed = true;
        }
    }
    for (std::size_t l = 0; l < count; ++l) {
        if (state[l].alone) {
            alongAlone(lines[l]);
            continue;
        }
        // A pair's second line sums in the upper lanes of the first's.
        float* sums =
            paired[l] ? &state[l & ~std::size_t{1}].sums[0][0] + 8 * (l % 2) : &state[l].sums[0][0];
        // A line no octave reached (all faded out) sums to 0.
        if (!state[l].summed)
            for (int channel = 0; channel < 3; ++channel)
                std::fill_n(sums + kMostLaneSamples * static_cast<std::size_t>(channel),
                            state[l].count, 0.0f);
        const Line& line = lines[l];
        if (line.out.empty()) continue;  // a line of no samples has nothing to store
        noise_faces::storeSampleSums(
            sums, kMostLaneSamples, state[l].count, scale_, &line.out.data()->x,
            line.moved.empty() ? nullptr : &line.from.data()->x, line.amplitude,
            line.moved.empty() ? nullptr : &line.moved.data()->x);
    }
    for (std::size_t l = count; l < lines.size(); l += kLanes)
        alongLinesWide(lines.subspan(l, std::min(kLanes, lines.size() - l)));
}

void FractalNoiseAlongZ::alongLines(std::span<const Line> lines) {
    using noise_faces::FaceLanes;
    using noise_faces::FaceRows;
    using noise_faces::kLanes;
    // One line at a time where the processor has no 64-bit lanes, for the lines that could not
    // take the lanes, and for a single line.
    const auto alone = [&](const Line& line) { alongAlone(line); };
    const NoiseLanes used = noiseLanesUsed();
    if (used == NoiseLanes::None || lines.size() < 2) {
        for (const Line& line : lines)
            alone(line);
        return;
    }
    if (used == NoiseLanes::Avx512) {
        alongLinesWide(lines);
        return;
    }
    struct LineState {
        PaddedSamples<kMostLaneSamples> padded;
        OctaveSamples<kMostLaneSamples> samples;
        alignas(16) float sums[kMostLaneSamples][4];
        bool alone = false;
    };
    LineState state[kLanes];
    FaceLanes faceLanes;
    FaceRows rows;
    const std::size_t count = std::min(lines.size(), kLanes);
#if VELMORIN_NOISE_WIDE_PREP
    const bool widePrep = widePrepUsable();
#endif
    for (std::size_t l = 0; l < count; ++l) {
        const std::size_t samples = lines[l].z.size();
        state[l].alone = samples > kMostLaneSamples;
        if (state[l].alone) continue;
        padSamples(lines[l].z, state[l].padded);
        for (std::size_t i = 0; i < samples; ++i)
            std::fill_n(state[l].sums[i], 4, 0.0f);
    }
    float weights[kLanes][16];
    lineWeights(lines.first(count), weights);
    for (int o = 0; o < octaveCount_; ++o) {
        const Octave& octave = octaves_[o];
        std::size_t mostFaces = 0;
        std::int32_t lowest[kLanes] = {};
        for (std::size_t l = 0; l < kLanes; ++l) {
            // Lanes without a line of their own repeat the first line's, and their rows are not
            // read.
            const std::size_t from = l < count && !state[l].alone ? l : 0;
            if (l < count && !state[l].alone && weights[l][o] != 0.0f) {
#if VELMORIN_NOISE_WIDE_PREP
                const std::int32_t faces = widePrep
                                               ? octaveFacesWide(state[l].padded, octave.frequency,
                                                                 state[l].samples, lowest[l])
                                               : octaveFaces(state[l].padded, octave.frequency,
                                                             state[l].samples, lowest[l]);
#else
                const std::int32_t faces =
                    octaveFaces(state[l].padded, octave.frequency, state[l].samples, lowest[l]);
#endif
                if (faces == 0) {
                    state[l].alone = true;
                } else {
                    mostFaces = std::max(mostFaces, static_cast<std::size_t>(faces));
                }
            }
            setFaceLane(octave.seed, octave.frequency, lines[from].x, lines[from].y, lowest[l], l,
                        faceLanes);
        }
        if (mostFaces == 0) continue;
        noise_faces::blendFaceLanes(used == NoiseLanes::Avx512 ? noise_faces::FaceKernel::Avx512
                                                               : noise_faces::FaceKernel::Avx2,
                                    faceLanes, mostFaces, rows);
        for (std::size_t l = 0; l < count; ++l) {
            if (state[l].alone || weights[l][o] == 0.0f) continue;
            const auto& samples = state[l].samples;
            const std::size_t slot = noise_faces::slotOf(l);
            blendSamples(samples, state[l].padded.count, lowest[l], rows.constant[0][slot],
                         rows.slope[0][slot], weights[l][o], state[l].sums);
        }
    }
    for (std::size_t l = 0; l < count; ++l) {
        if (state[l].alone) {
            alone(lines[l]);
            continue;
        }
        for (std::size_t i = 0; i < state[l].padded.count; ++i)
            lines[l].out[i] =
                Vec3f{state[l].sums[i][0], state[l].sums[i][1], state[l].sums[i][2]} * scale_;
        moveAlong(lines[l]);
    }
    for (std::size_t l = count; l < lines.size(); l += kLanes)
        alongLines(lines.subspan(l, std::min(kLanes, lines.size() - l)));
}

namespace {
std::atomic<NoiseLanes> lanesAllowed{NoiseLanes::Avx512};
}  // namespace

NoiseLanes noiseLanesAvailable() {
    switch (noise_faces::widestFaceKernel()) {
        case noise_faces::FaceKernel::Avx512:
            return NoiseLanes::Avx512;
        case noise_faces::FaceKernel::Avx2:
            return NoiseLanes::Avx2;
        default:
            return NoiseLanes::None;
    }
}

NoiseLanes noiseLanesUsed() {
    return std::min(noiseLanesAvailable(), lanesAllowed.load(std::memory_order_relaxed));
}

void setNoiseLanes(NoiseLanes most) {
    lanesAllowed.store(most, std::memory_order_relaxed);
}

float fractalNoise4(const Vec3f& p, float w, const Fractal& fractal, std::uint64_t seed) {
    // The fourth axis scales with the octave's frequency like the other three.
    float frequency = 1.0f;
    return fractalSum<float>(p, fractal, seed, [&](const Vec3f& q, std::uint64_t s) {
        const float n = gradientNoise4(q, w * frequency, s);
        frequency *= fractal.lacunarity;
        return n;
    });
}

Vec3f fractalNoiseVector4(const Vec3f& p, float w, const Fractal& fractal, std::uint64_t seed) {
    float frequency = 1.0f;
    return fractalSum<Vec3f>(p, fractal, seed, [&](const Vec3f& q, std::uint64_t s) {
        const Vec3f n = gradientNoiseVector4(q, w * frequency, s);
        frequency *= fractal.lacunarity;
        return n;
    });
}

}  // namespace velmorin
