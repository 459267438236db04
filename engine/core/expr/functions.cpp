#include "expr/functions.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "base/hash.h"
#include "base/key_segment.h"
#include "expr/noise.h"

namespace velmorin {
namespace {

constexpr float kRadiansPerDegree = 0.017453292f;
constexpr float kDegreesPerRadian = 57.295776f;
constexpr std::uint64_t kHashStart = 0xEE83BFC8A6DE0083ull;
constexpr std::uint64_t kPickSeed = 0x9C1C;

inline float top24(std::uint64_t h) {
    return static_cast<float>(h >> 40) * (1.0f / 16777216.0f);
}

// -0 hashes as +0, so that hash(0) and hash(-0) agree.
inline std::uint64_t keyBits(float x) {
    return floatBits(x == 0.0f ? 0.0f : x);
}

// A float cut to a whole number, held inside a range where the arithmetic below stays exact;
// NaN counts as 0.
inline std::int64_t cut(float x) {
    if (!(x == x)) return 0;
    constexpr float kLimit = 1.0e15f;
    return static_cast<std::int64_t>(std::clamp(std::trunc(x), -kLimit, kLimit));
}

inline Vec3f vec(const float* a) {
    return {a[0], a[1], a[2]};
}
inline void put(float* out, const Vec3f& v) {
    out[0] = v.x;
    out[1] = v.y;
    out[2] = v.z;
}

float clampBetween(float x, float lo, float hi) {
    const float low = hi < lo ? hi : lo;
    const float high = lo < hi ? hi : lo;
    return x < low ? low : (x > high ? high : x);
}

float unitRamp(float x, float a, float b) {
    if (a == b) return x < a ? 0.0f : 1.0f;
    const float t = (x - a) / (b - a);
    return t < 0.0f ? 0.0f : (t > 1.0f ? 1.0f : t);
}

// A rise of the left half of a bell, from 0 at t = 0 to 1 at t = 1.
float gaussRise(float t) {
    const float e0 = std::exp(-4.5f);
    const float u = 1.0f - t;
    return (std::exp(-4.5f * u * u) - e0) / (1.0f - e0);
}

float bias(float x, float b) {
    if (x <= 0.0f || b <= 0.0f) return 0.0f;
    if (b >= 1.0f) return 1.0f;
    return std::pow(x, std::log(b) / std::log(0.5f));
}

float gain(float x, float g) {
    if (x < 0.5f) return 0.5f * bias(2.0f * x, 1.0f - g);
    return 1.0f - 0.5f * bias(2.0f - 2.0f * x, 1.0f - g);
}

float contrast(float x, float c) {
    if (x < 0.5f) return 0.5f * bias(1.0f - c, 2.0f * x);
    return 1.0f - 0.5f * bias(1.0f - c, 2.0f - 2.0f * x);
}

// 1 within `range` of `source`, falling to 0 over `falloff`: interp 0 linear, 1 smooth, 2 a
// bell-shaped fall.
float remap(float x, float source, float range, float falloff, float interp) {
    const float d = std::fabs(x - source);
    if (d <= range) return 1.0f;
    if (!(falloff > 0.0f)) return 0.0f;
    const float f = (d - range) / falloff;
    if (!(f < 1.0f)) return 0.0f;
    const float s = 1.0f - f;
    switch (static_cast<int>(cut(interp))) {
        case 1:
            return s * s * (3.0f - 2.0f * s);
        case 2:
            return gaussRise(s);
        default:
            return s;
    }
}

float hashNumbers(const float* args, int count) {
    std::uint64_t state = kHashStart;
    for (int i = 0; i < count; ++i)
        state = hashCombine(state, keyBits(args[i]));
    return top24(state);
}

float seededRand(float strandRandValue, float seed) {
    std::uint64_t h = mix64(floatBits(strandRandValue));
    h = hashCombine(h, floatBits(seed));
    return top24(h);
}

float pick(const float* args, int count) {
    const std::int64_t lo = cut(args[1]), hi = cut(args[2]);
    const std::int64_t n = hi - lo + 1;
    if (n < 1) return static_cast<float>(lo);
    const float u = unitFloat(hashCombine(kPickSeed, keyBits(args[0])));
    const int given = count - 3;
    const std::int64_t weighted = std::min<std::int64_t>(given, n);
    float total = static_cast<float>(n - weighted);
    for (std::int64_t j = 0; j < weighted; ++j)
        total += std::max(args[3 + j], 0.0f);
    if (!(total > 0.0f)) return static_cast<float>(lo);
    if (weighted == 0)
        return static_cast<float>(
            lo + std::min<std::int64_t>(
                     n - 1, static_cast<std::int64_t>(std::floor(static_cast<float>(n) * u))));
    float left = total * u;
    for (std::int64_t j = 0; j < weighted; ++j) {
        const float w = std::max(args[3 + j], 0.0f);
        if (w > left) return static_cast<float>(lo + j);
        left -= w;
    }
    // Past the weights, what is left falls among the values without one, a unit each.
    const std::int64_t rest = n - weighted;
    if (rest <= 0) return static_cast<float>(hi);
    const std::int64_t j = std::min<std::int64_t>(
        rest - 1, static_cast<std::int64_t>(std::max(0.0f, std::floor(left))));
    return static_cast<float>(lo + weighted + j);
}

float cycle(float index, float loValue, float hiValue) {
    const std::int64_t lo = cut(loValue), hi = cut(hiValue);
    const std::int64_t n = hi - lo + 1;
    if (n < 1) return static_cast<float>(lo);
    std::int64_t r = cut(index) % n;
    if (r < 0) r += n;
    return static_cast<float>(r + lo);
}

float choose(const float* args, int count) {
    const float t = args[0];
    if (std::isnan(t)) return 0.0f;
    const int m = count - 1;
    const float position = std::clamp(static_cast<float>(m) * t, 0.0f, static_cast<float>(m - 1));
    return args[1 + static_cast<int>(position)];
}

float wchoose(const float* args, int count) {
    const float t = args[0];
    if (std::isnan(t)) return 0.0f;
    const int pairs = (count - 1) / 2;
    float total = 0.0f;
    for (int k = 0; k < pairs; ++k)
        total += std::max(args[2 + 2 * k], 0.0f);
    if (!(total > 0.0f)) return args[1];
    const float target = t * total;
    float sum = 0.0f;
    int last = 0;
    for (int k = 0; k < pairs; ++k) {
        const float w = std::max(args[2 + 2 * k], 0.0f);
        if (!(w > 0.0f)) continue;
        sum += w;
        last = k;
        if (sum >= target) return args[1 + 2 * k];
    }
    return args[1 + 2 * last];
}

float spline(const float* args, int count) {
    const float t = std::isnan(args[0]) ? 0.0f : std::clamp(args[0], 0.0f, 1.0f);
    const float* y = args + 1;
    const int n = count - 1;
    const int m = n - 3;
    const float s = t * static_cast<float>(m);
    const int i = std::min(static_cast<int>(std::floor(s)), m - 1);
    const float f = s - static_cast<float>(i);
    const float f2 = f * f, f3 = f2 * f;
    return 0.5f * ((-f3 + 2 * f2 - f) * y[i] + (3 * f3 - 5 * f2 + 2) * y[i + 1] +
                   (-3 * f3 + 4 * f2 + f) * y[i + 2] + (f3 - f2) * y[i + 3]);
}

Fractal fractalOf(const float* a) {
    Fractal f;
    f.octaves = a[0];
    f.lacunarity = a[1];
    f.gain = a[2];
    return f;
}

inline float toUnit(float n) {
    return n * 0.5f + 0.5f;
}
inline Vec3f toUnit(const Vec3f& n) {
    return {toUnit(n.x), toUnit(n.y), toUnit(n.z)};
}

Vec3f normalize(const Vec3f& v) {
    const float len = length(v);
    return len <= 1e-12f ? Vec3f{} : v / len;
}

Vec3f rotate(const Vec3f& v, const Vec3f& axis, float angle) {
    const float len = length(axis);
    if (len < 1e-12f) return v;
    const Vec3f k = axis / len;
    const float c = std::cos(angle), s = std::sin(angle);
    return v * c + cross(k, v) * s + k * (dot(k, v) * (1.0f - c));
}

Vec3f up(const Vec3f& v, const Vec3f& upvec) {
    const float len = length(upvec);
    if (len < 1e-12f) return v;
    const Vec3f y{0.0f, 1.0f, 0.0f};
    const Vec3f axis = cross(y, upvec);
    if (length(axis) <= 1e-6f * len) {
        // Along +Y nothing turns; along -Y the half turn about X.
        return upvec.y > 0.0f ? v : Vec3f{v.x, -v.y, -v.z};
    }
    const float angle = std::atan2(length(axis), upvec.y);
    return rotate(v, axis, angle);
}

Vec3f rgbToHsl(const Vec3f& c) {
    const float hi = std::max({c.x, c.y, c.z}), lo = std::min({c.x, c.y, c.z});
    const float l = 0.5f * (hi + lo);
    const float d = hi - lo;
    if (!(d > 0.0f)) return {0.0f, 0.0f, l};
    const float denominator = l > 0.5f ? 2.0f - hi - lo : hi + lo;
    const float s = std::fabs(denominator) > 1e-12f ? d / denominator : 0.0f;
    float h;
    if (hi == c.x)
        h = (c.y - c.z) / d + (c.y < c.z ? 6.0f : 0.0f);
    else if (hi == c.y)
        h = (c.z - c.x) / d + 2.0f;
    else
        h = (c.x - c.y) / d + 4.0f;
    return {h / 6.0f, s, l};
}

float hueChannel(float p, float q, float t) {
    t -= std::floor(t);
    if (t < 1.0f / 6.0f) return p + (q - p) * 6.0f * t;
    if (t < 0.5f) return q;
    if (t < 2.0f / 3.0f) return p + (q - p) * (2.0f / 3.0f - t) * 6.0f;
    return p;
}

Vec3f hslToRgb(const Vec3f& hsl) {
    const float h = hsl.x - std::floor(hsl.x), s = hsl.y, l = hsl.z;
    if (s == 0.0f) return {l, l, l};
    const float q = l < 0.5f ? l * (1.0f + s) : l + s - l * s;
    const float p = 2.0f * l - q;
    return {hueChannel(p, q, h + 1.0f / 3.0f), hueChannel(p, q, h),
            hueChannel(p, q, h - 1.0f / 3.0f)};
}

// Shifts hue by `hueShift` turns and scales saturation and the whole color.
Vec3f shiftColor(const Vec3f& c, float hueShift, float saturationScale, float intensityScale) {
    Vec3f hsl = rgbToHsl(c);
    hsl.x += hueShift;
    hsl.y = std::max(0.0f, hsl.y * saturationScale);
    return hslToRgb(hsl) * std::max(0.0f, intensityScale);
}

Vec3f hsi(const float* a) {
    const float mask = a[6];
    return shiftColor(vec(a), mask * a[3] / 360.0f, (a[4] - 1.0f) * mask + 1.0f,
                      (a[5] - 1.0f) * mask + 1.0f);
}

Vec3f midhsi(const float* a) {
    const float m = 2.0f * a[6] - 1.0f;
    float w = remap(std::fabs(m), 1.0f, 0.0f, a[7], a[8]);
    if (m < 0.0f) w = -w;
    const float weight = std::fabs(w);
    auto scale = [&](float amount) {
        const float s = 1.0f - weight + weight * amount;
        if (w >= 0.0f) return s;
        return s == 0.0f ? 0.0f : 1.0f / s;
    };
    return shiftColor(vec(a), w * a[3] / 360.0f, scale(a[4]), scale(a[5]));
}

Vec3f saturate(const Vec3f& c, float amount) {
    const float l = 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z;
    auto channel = [&](float x) { return std::max(0.0f, x * amount + l * (1.0f - amount)); };
    return {channel(c.x), channel(c.y), channel(c.z)};
}

const ExpressionCurve* curveAt(std::span<const ExpressionCurve> curves, std::uint16_t index) {
    return index < curves.size() ? &curves[index] : nullptr;
}

}  // namespace

float strandRand(std::uint64_t id) {
    return unitFloat(((id << 6) + (id >> 2) + kGolden + 0xE7A1) ^ id);
}

float callNumberFunction(FunctionId id, const float* a, int n,
                         std::span<const ExpressionCurve> curves, std::uint16_t curve) {
    using F = FunctionId;
    switch (id) {
        case F::Sin:
            return std::sin(a[0]);
        case F::Cos:
            return std::cos(a[0]);
        case F::Tan:
            return std::tan(a[0]);
        case F::Asin:
            return std::asin(std::clamp(a[0], -1.0f, 1.0f));
        case F::Acos:
            return std::acos(std::clamp(a[0], -1.0f, 1.0f));
        case F::Atan:
            return std::atan(a[0]);
        case F::Atan2:
            return std::atan2(a[0], a[1]);
        case F::Sind:
            return std::sin(a[0] * kRadiansPerDegree);
        case F::Cosd:
            return std::cos(a[0] * kRadiansPerDegree);
        case F::Tand:
            return std::tan(a[0] * kRadiansPerDegree);
        case F::Asind:
            return std::asin(std::clamp(a[0], -1.0f, 1.0f)) * kDegreesPerRadian;
        case F::Acosd:
            return std::acos(std::clamp(a[0], -1.0f, 1.0f)) * kDegreesPerRadian;
        case F::Atand:
            return std::atan(a[0]) * kDegreesPerRadian;
        case F::Atan2d:
            return std::atan2(a[0], a[1]) * kDegreesPerRadian;
        case F::Sinh:
            return std::sinh(a[0]);
        case F::Cosh:
            return std::cosh(a[0]);
        case F::Tanh:
            return std::tanh(a[0]);
        case F::Asinh:
            return std::asinh(a[0]);
        case F::Acosh:
            return std::acosh(std::max(a[0], 1.0f));
        case F::Atanh:
            return std::fabs(a[0]) >= 1.0f ? 0.0f : std::atanh(a[0]);
        case F::Abs:
            return std::fabs(a[0]);
        case F::Sqrt:
            return std::sqrt(std::max(a[0], 0.0f));
        case F::Cbrt:
            return std::cbrt(a[0]);
        case F::Pow:
            return power(a[0], a[1]);
        case F::Exp:
            return std::exp(a[0]);
        case F::Log:
            return a[0] <= 0.0f ? 0.0f : std::log(a[0]);
        case F::Log10:
            return a[0] <= 0.0f ? 0.0f : std::log10(a[0]);
        case F::Hypot:
            return std::hypot(a[0], a[1]);
        case F::Floor:
            return std::floor(a[0]);
        case F::Ceil:
            return std::ceil(a[0]);
        case F::Round:
            return std::round(a[0]);
        case F::Trunc:
            return std::trunc(a[0]);
        case F::Fract:
            return a[0] - std::floor(a[0]);
        case F::Sign:
            return a[0] > 0.0f ? 1.0f : (a[0] < 0.0f ? -1.0f : 0.0f);
        case F::Min:
            return a[1] < a[0] ? a[1] : a[0];
        case F::Max:
            return a[0] < a[1] ? a[1] : a[0];
        case F::Mod:
            return a[1] == 0.0f ? 0.0f : a[0] - a[1] * std::floor(a[0] / a[1]);
        case F::Fmod:
            return a[1] == 0.0f ? 0.0f : std::fmod(a[0], a[1]);
        case F::Radians:
            return a[0] * kRadiansPerDegree;
        case F::Degrees:
            return a[0] * kDegreesPerRadian;
        case F::Invert:
            return 1.0f - a[0];
        case F::Clamp:
            return clampBetween(a[0], a[1], a[2]);
        case F::Mix:
        case F::Lerp:
            return a[0] + (a[1] - a[0]) * a[2];
        case F::Step:
            return a[1] < a[0] ? 0.0f : 1.0f;
        case F::Boxstep:
            return a[0] >= a[1] ? 1.0f : 0.0f;
        case F::Linearstep:
            return unitRamp(a[0], a[1], a[2]);
        case F::Smoothstep: {
            const float t = unitRamp(a[0], a[1], a[2]);
            return t * t * (3.0f - 2.0f * t);
        }
        case F::Gaussstep: {
            if (a[1] == a[2]) return a[0] < a[1] ? 0.0f : 1.0f;
            return gaussRise(unitRamp(a[0], a[1], a[2]));
        }
        case F::Fit:
            return a[2] == a[1] ? a[3] : a[3] + (a[0] - a[1]) / (a[2] - a[1]) * (a[4] - a[3]);
        case F::Remap:
            return remap(a[0], a[1], a[2], a[3], a[4]);
        case F::Compress:
            return a[1] + (a[2] - a[1]) * a[0];
        case F::Expand:
            if (a[1] == a[2]) return a[0] >= a[1] ? 1.0f : 0.0f;
            return (a[0] - a[1]) / (a[2] - a[1]);
        case F::Gamma:
            return a[1] <= 0.0f || a[0] <= 0.0f ? 0.0f : std::pow(a[0], 1.0f / a[1]);
        case F::Bias:
            return bias(a[0], a[1]);
        case F::Gain:
            return gain(a[0], a[1]);
        case F::Contrast:
            return contrast(a[0], a[1]);
        case F::Rand:
            // rand(seed); the strand's rand comes last.
            return n == 0 ? a[0] : seededRand(a[1], a[0]);
        case F::RandRange: {
            const float f = n == 2 ? a[2] : seededRand(a[3], a[2]);
            return a[0] + (a[1] - a[0]) * f;
        }
        case F::Hash:
            return hashNumbers(a, n);
        case F::NoisePoint:
            return toUnit(gradientNoise(vec(a), hashCombine(kNoiseSeed, 0)));
        case F::Noise4:
            if (n == 4) return toUnit(gradientNoise4(vec(a), a[3], hashCombine(kNoise4Seed, 0)));
            return toUnit(
                gradientNoise({a[0], a[1], n == 3 ? a[2] : 0.0f}, hashCombine(kNoiseSeed, 0)));
        case F::Snoise:
            return gradientNoise(vec(a), hashCombine(kNoiseSeed, 0));
        case F::Snoise4:
            return gradientNoise4(vec(a), a[3], hashCombine(kNoise4Seed, 0));
        case F::Pnoise:
            return toUnit(periodicNoise(vec(a), vec(a + 3), hashCombine(kNoiseSeed, 0)));
        case F::Fbm:
            return toUnit(fractalNoise(vec(a), fractalOf(a + 3), kNoiseSeed));
        case F::Turbulence: {
            Fractal f = fractalOf(a + 3);
            f.absolute = true;
            return toUnit(fractalNoise(vec(a), f, kNoiseSeed));
        }
        case F::Fbm4:
            return toUnit(fractalNoise4(vec(a), a[3], fractalOf(a + 4), kNoise4Seed));
        case F::Cellnoise:
            return cellNoise(vec(a));
        case F::Voronoi: {
            const Vec3f p = voronoiDisplaced(vec(a), a[5], fractalOf(a + 6));
            return voronoiValue(voronoiCells(p, a[4]), a[3]);
        }
        case F::Dot:
            return dot(vec(a), vec(a + 3));
        case F::Length:
            return length(vec(a));
        case F::Distance:
            return length(vec(a) - vec(a + 3));
        case F::Angle: {
            const Vec3f x = vec(a), y = vec(a + 3);
            if (lengthSquared(x) == 0.0f || lengthSquared(y) == 0.0f) return 0.0f;
            return std::atan2(length(cross(x, y)), dot(x, y));
        }
        case F::IndexOf: {
            const float i = std::floor(a[3]);
            return i == 0.0f ? a[0] : i == 1.0f ? a[1] : i == 2.0f ? a[2] : 0.0f;
        }
        case F::Curve:
        case F::Linearcurve:
        case F::CurvePairs: {
            const ExpressionCurve* c = curveAt(curves, curve);
            return c ? c->at(a[0]).x : 1.0f;
        }
        case F::Spline:
            return spline(a, n);
        case F::Pick:
            return pick(a, n);
        case F::Choose:
            return choose(a, n);
        case F::Wchoose:
            return wchoose(a, n);
        case F::Cycle:
            return cycle(a[0], a[1], a[2]);
        default:
            break;
    }
    assert(false && "a number call of a vector function");
    return 0.0f;
}

void callVectorFunction(FunctionId id, const float* a, int, std::span<const ExpressionCurve> curves,
                        std::uint16_t curve, float* out) {
    using F = FunctionId;
    const std::uint64_t vectorSeed = hashCombine(kVectorNoiseSeed, 0);
    switch (id) {
        case F::Vnoise:
            return put(out, gradientNoiseVector(vec(a), vectorSeed));
        case F::Cnoise:
            return put(out, toUnit(gradientNoiseVector(vec(a), vectorSeed)));
        case F::Vnoise4:
            return put(out, gradientNoiseVector4(vec(a), a[3], hashCombine(kVectorNoise4Seed, 0)));
        case F::Cnoise4:
            return put(
                out, toUnit(gradientNoiseVector4(vec(a), a[3], hashCombine(kVectorNoise4Seed, 0))));
        case F::Vfbm:
            return put(out, fractalNoiseVector(vec(a), fractalOf(a + 3), kVectorNoiseSeed));
        case F::Cfbm:
            return put(out, toUnit(fractalNoiseVector(vec(a), fractalOf(a + 3), kVectorNoiseSeed)));
        case F::Vturbulence:
        case F::Cturbulence: {
            Fractal f = fractalOf(a + 3);
            f.absolute = true;
            const Vec3f n = fractalNoiseVector(vec(a), f, kVectorNoiseSeed);
            return put(out, id == F::Cturbulence ? toUnit(n) : n);
        }
        case F::Vfbm4:
            return put(out, fractalNoiseVector4(vec(a), a[3], fractalOf(a + 4), kVectorNoise4Seed));
        case F::Cfbm4:
            return put(out, toUnit(fractalNoiseVector4(vec(a), a[3], fractalOf(a + 4),
                                                       kVectorNoise4Seed)));
        case F::Ccellnoise:
            return put(out, cellNoiseVector(vec(a)));
        case F::Cvoronoi: {
            const Vec3f p = voronoiDisplaced(vec(a), a[5], fractalOf(a + 6));
            const VoronoiCells cells = voronoiCells(p, a[4]);
            const float type = std::isnan(a[3]) ? 1.0f : std::clamp(std::round(a[3]), 1.0f, 5.0f);
            return put(out, type == 1.0f ? cells.color : cells.color * voronoiValue(cells, type));
        }
        case F::Pvoronoi: {
            const Vec3f p = voronoiDisplaced(vec(a), a[4], fractalOf(a + 5));
            return put(out, voronoiCells(p, a[3]).point);
        }
        case F::Cross:
            return put(out, cross(vec(a), vec(a + 3)));
        case F::Normalize:
            return put(out, normalize(vec(a)));
        case F::Ortho:
            return put(out, normalize(cross(vec(a), vec(a + 3))));
        case F::Rotate:
            return put(out, rotate(vec(a), vec(a + 3), a[6]));
        case F::Up:
            return put(out, up(vec(a), vec(a + 3)));
        case F::Rgbtohsl:
            return put(out, rgbToHsl(vec(a)));
        case F::Hsltorgb:
            return put(out, hslToRgb(vec(a)));
        case F::Hsi:
            return put(out, hsi(a));
        case F::Midhsi:
            return put(out, midhsi(a));
        case F::Saturate:
            return put(out, saturate(vec(a), a[3]));
        case F::Ccurve: {
            const ExpressionCurve* c = curveAt(curves, curve);
            return put(out, c ? c->at(a[0]) : Vec3f{1.0f, 1.0f, 1.0f});
        }
        default:
            break;
    }
    assert(false && "a vector call of a number function");
    put(out, {});
}

// ---- Stored curves

Vec3f ExpressionCurve::at(float t) const {
    if (keys.empty()) return {1.0f, 1.0f, 1.0f};
    // Found as a Ramp finds its segment.
    const KeySegment segment = findKeySegment(keys, t);
    if (segment.isSingleKey()) return keys[segment.lower].value;
    const Key& k0 = keys[segment.lower];
    const Key& k1 = keys[segment.upper];
    const float span = k1.position - k0.position;
    const float f = segment.fraction;
    switch (k0.interpolation) {
        case 0:
            return k0.value;
        case 1:
            return lerp(k0.value, k1.value, f);
        case 2:
            return lerp(k0.value, k1.value, (3.0f - 2.0f * f) * f * f);
        default: {
            const float f2 = f * f, f3 = f2 * f;
            const float h00 = 2 * f3 - 3 * f2 + 1, h10 = f3 - 2 * f2 + f, h01 = -2 * f3 + 3 * f2,
                        h11 = f3 - f2;
            return k0.value * h00 + k0.slope * (h10 * span) + k1.value * h01 +
                   k1.slope * (h11 * span);
        }
    }
}

void computeCurveSlopes(ExpressionCurve& curve) {
    std::vector<ExpressionCurve::Key>& keys = curve.keys;
    const std::size_t n = keys.size();
    auto secant = [&](std::size_t i, int axis) {
        const float span = keys[i + 1].position - keys[i].position;
        return span > 0.0f ? (keys[i + 1].value[axis] - keys[i].value[axis]) / span : 0.0f;
    };
    for (std::size_t i = 0; i < n; ++i) {
        float slope[3] = {0.0f, 0.0f, 0.0f};
        for (int axis = 0; axis < 3 && n > 1; ++axis) {
            // The slope serves the segments on both sides; each key's form decides its own
            // segment, so the rule follows the key that starts the segment it leads into.
            const bool monotone =
                keys[i].interpolation == 4 || (i > 0 && keys[i - 1].interpolation == 4);
            if (i == 0) {
                slope[axis] = secant(0, axis);
            } else if (i + 1 == n) {
                slope[axis] = secant(n - 2, axis);
            } else if (monotone) {
                const float d0 = secant(i - 1, axis), d1 = secant(i, axis);
                slope[axis] = d0 * d1 > 0.0f ? 2.0f * d0 * d1 / (d0 + d1) : 0.0f;
            } else {
                const float span = keys[i + 1].position - keys[i - 1].position;
                slope[axis] =
                    span > 0.0f ? (keys[i + 1].value[axis] - keys[i - 1].value[axis]) / span : 0.0f;
            }
        }
        keys[i].slope = {slope[0], slope[1], slope[2]};
    }
}

}  // namespace velmorin
