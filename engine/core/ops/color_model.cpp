// The pigment model, colour in HSL terms and the random draws that the colour operators share.

#include <algorithm>
#include <cmath>

#include "ops/color_ops.h"

namespace velmorin {

namespace {

constexpr Vec3f kEumelanin{0.419f, 0.697f, 1.37f};
constexpr Vec3f kPheomelanin{0.187f, 0.4f, 1.05f};

float fraction(float t) {
    return t - std::floor(t);
}

}  // namespace

Vec3f pigmentAbsorption(float melanin, float redness) {
    const float m = std::clamp(melanin, 0.0f, 1.0f);
    const float r = std::clamp(redness, 0.0f, 1.0f);
    const float concentration = kMaxMelaninConcentration * m * m;
    return kEumelanin * (concentration * (1.0f - r)) + kPheomelanin * (concentration * r);
}

Vec3f pigmentColor(float melanin, float redness) {
    const Vec3f sigma = pigmentAbsorption(melanin, redness);
    return {std::exp(-kFibrePath * sigma.x), std::exp(-kFibrePath * sigma.y),
            std::exp(-kFibrePath * sigma.z)};
}

HueChromaLightness toHueChromaLightness(const Vec3f& c) {
    const float high = std::max({c.x, c.y, c.z});
    const float low = std::min({c.x, c.y, c.z});
    HueChromaLightness out;
    out.chroma = high - low;
    out.lightness = 0.5f * (high + low);
    if (out.chroma <= 0.0f) return out;
    float sector;
    if (high == c.x) {
        sector = (c.y - c.z) / out.chroma;
    } else if (high == c.y) {
        sector = 2.0f + (c.z - c.x) / out.chroma;
    } else {
        sector = 4.0f + (c.x - c.y) / out.chroma;
    }
    out.hue = fraction(sector / 6.0f);
    return out;
}

Vec3f fromHueChromaLightness(const HueChromaLightness& hcl) {
    // The fully saturated colour of the hue (components 0 to 1), scaled by the chroma and lifted
    // so that its mid value is the lightness.
    const float h = fraction(hcl.hue) * 6.0f;
    const float x = 1.0f - std::fabs(std::fmod(h, 2.0f) - 1.0f);
    Vec3f shape;
    if (h < 1.0f) {
        shape = {1, x, 0};
    } else if (h < 2.0f) {
        shape = {x, 1, 0};
    } else if (h < 3.0f) {
        shape = {0, 1, x};
    } else if (h < 4.0f) {
        shape = {0, x, 1};
    } else if (h < 5.0f) {
        shape = {x, 0, 1};
    } else {
        shape = {1, 0, x};
    }
    const float low = hcl.lightness - 0.5f * hcl.chroma;
    return shape * hcl.chroma + Vec3f{low, low, low};
}

Vec3f varyColor(const Vec3f& color, float value, float turns, float saturation) {
    HueChromaLightness hcl = toHueChromaLightness(color);
    const float lighter = std::max(0.0f, 1.0f + value);
    hcl.lightness *= lighter;
    hcl.chroma *= lighter * std::max(0.0f, 1.0f + saturation);
    // The darkest component stays at or above 0.
    hcl.chroma = std::min(hcl.chroma, 2.0f * std::max(hcl.lightness, 0.0f));
    hcl.hue += turns;
    return fromHueChromaLightness(hcl);
}

void colorDraws(std::uint64_t id, std::uint64_t seed, std::span<float, kColorDraws> out,
                std::size_t count) {
    StrandDraws draws(id, seed);
    for (std::size_t d = 0; d < count; ++d)
        out[d] = draws.next();
}

std::size_t colorDrawsUsed(const HairColorSettings& settings) {
    const bool melanin = settings.mode == HairColorMode::Melanin;
    const bool used[kColorDraws] = {settings.greys.isMapped() || settings.greys.value() > 0.0f,
                                    melanin && settings.melaninRandom != 0.0f,
                                    !melanin && settings.valueRandom != 0.0f,
                                    !melanin && settings.hueRandom != 0.0f,
                                    !melanin && settings.saturationRandom != 0.0f,
                                    settings.tipped() && settings.tipOffsetRandom != 0.0f,
                                    settings.specularRandom != 0.0f,
                                    settings.roughnessRandom != 0.0f};
    std::size_t count = 0;
    for (std::size_t d = 0; d < kColorDraws; ++d)
        if (used[d]) count = d + 1;
    return count;
}

Ramp defaultTipProfile() {
    Ramp ramp;
    ramp.keys = {{0.6f, 0.0f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    smoothSlopes(ramp);
    return ramp;
}

Ramp defaultBandsProfile() {
    Ramp ramp;
    ramp.linear = true;
    ramp.keys = {{0.0f, 0.0f, 0.0f},  {0.5f, 0.0f, 0.0f}, {0.55f, 1.0f, 0.0f},
                 {0.75f, 1.0f, 0.0f}, {0.8f, 0.0f, 0.0f}, {1.0f, 0.0f, 0.0f}};
    return ramp;
}

HairColorSettings::HairColorSettings() {
    dye.setPlainVector({1, 1, 1});
    color.setPlainVector({1, 1, 1});
    tipColor.setPlainVector({1, 1, 1});
    tipProfile = defaultTipProfile();
}

BandsSettings::BandsSettings() : profile(defaultBandsProfile()) {}

}  // namespace velmorin
