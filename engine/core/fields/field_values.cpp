#include "fields/field_values.h"

#include <algorithm>
#include <cstdio>

#include "base/hash.h"
#include "base/parallel.h"
#include "expr/noise.h"
#include "strands/strand_set.h"

namespace velmorin {

std::shared_ptr<const FieldValue> preparedField(const std::shared_ptr<const FieldValue>& field,
                                                const StrandSet* strands, const FieldScene& scene) {
    if (!field) return field;
    auto prepared = field->prepare(strands, scene);
    return prepared ? prepared : field;
}

float NoiseFieldValue::atStrand(std::size_t strand) const {
    return values_.empty() ? settings_.min : values_[strand];
}

float NoiseFieldValue::atPosition(const Vec3f& position) const {
    const float offset = settings_.offset;
    const Vec3f p = position * settings_.frequency + Vec3f{offset, offset, offset};
    Fractal fractal;
    fractal.octaves = static_cast<float>(std::clamp(settings_.octaves, 1, 8));
    const std::uint64_t seed = hashCombine(kNoiseSeed, static_cast<std::uint64_t>(settings_.seed));
    const float n = std::clamp(0.5f * (fractalNoise(p, fractal, seed) + 1.0f), 0.0f, 1.0f);
    return settings_.min + (settings_.max - settings_.min) * n;
}

std::shared_ptr<const FieldValue> NoiseFieldValue::prepare(const StrandSet* strands,
                                                           const FieldScene&) const {
    if (!strands) return nullptr;
    auto bound = std::make_shared<NoiseFieldValue>(settings_);
    const std::size_t count = strands->strandCount();
    bound->values_.resize(count);
    const std::span<const std::uint64_t> offsets = strands->offsets();
    const std::span<const Vec3f> points = strands->points();
    parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const Vec3f root = offsets[s] < offsets[s + 1] ? points[offsets[s]] : Vec3f{};
            bound->values_[s] = atPosition(root);
        }
    });
    return bound;
}

std::uint64_t NoiseFieldValue::key() const {
    std::uint64_t h = hashCombine(0x6e6f697365ull, floatBits(settings_.frequency));
    h = hashCombine(h, static_cast<std::uint64_t>(settings_.octaves));
    h = hashCombine(h, floatBits(settings_.offset));
    h = hashCombine(h, static_cast<std::uint64_t>(settings_.seed));
    h = hashCombine(h, floatBits(settings_.min));
    return hashCombine(h, floatBits(settings_.max));
}

std::string NoiseFieldValue::describe() const {
    char text[96];
    std::snprintf(text, sizeof text, "noise of frequency %g, %d octaves",
                  static_cast<double>(settings_.frequency), settings_.octaves);
    return text;
}

float RemapFieldValue::remap(float x) const {
    const RemapSettings& s = settings_;
    const float span = s.inMax - s.inMin;
    // Equal ends make a step at inMin.
    float t = span != 0.0f ? (x - s.inMin) / span : (x < s.inMin ? 0.0f : 1.0f);
    t = std::clamp(t, 0.0f, 1.0f);
    return s.outMin + (s.outMax - s.outMin) * rampAt(s.curve, t);
}

std::shared_ptr<const FieldValue> RemapFieldValue::prepare(const StrandSet* strands,
                                                           const FieldScene& scene) const {
    auto input = input_->prepare(strands, scene);
    if (!input) return nullptr;
    return std::make_shared<RemapFieldValue>(std::move(input), settings_);
}

std::uint64_t RemapFieldValue::key() const {
    const RemapSettings& s = settings_;
    std::uint64_t h = hashCombine(0x72656d6170ull, input_->key());
    for (const float f : {s.inMin, s.inMax, s.outMin, s.outMax})
        h = hashCombine(h, floatBits(f));
    for (const RampKey& k : s.curve.keys) {
        h = hashCombine(h, floatBits(k.position));
        h = hashCombine(h, floatBits(k.value));
        h = hashCombine(h, floatBits(k.slope));
    }
    return hashCombine(h, s.curve.linear ? 1 : 0);
}

float CombineFieldValue::combine(float a, float b) const {
    switch (mode_) {
        case CombineMode::Multiply:
            return a * b;
        case CombineMode::Add:
            return a + b;
        case CombineMode::Subtract:
            return a - b;
        case CombineMode::Min:
            return std::min(a, b);
        case CombineMode::Max:
            return std::max(a, b);
        case CombineMode::Mix:
            return a + (b - a) * mix_;
    }
    return a;
}

std::shared_ptr<const FieldValue> CombineFieldValue::prepare(const StrandSet* strands,
                                                             const FieldScene& scene) const {
    auto a = a_->prepare(strands, scene);
    auto b = b_->prepare(strands, scene);
    if (!a && !b) return nullptr;
    return std::make_shared<CombineFieldValue>(a ? a : a_, b ? b : b_, mode_, mix_);
}

std::uint64_t CombineFieldValue::key() const {
    std::uint64_t h = hashCombine(0x636f6d62696e65ull, a_->key());
    h = hashCombine(h, b_->key());
    h = hashCombine(h, static_cast<std::uint64_t>(mode_));
    return hashCombine(h, floatBits(mix_));
}

std::string CombineFieldValue::reads() const {
    const std::string a = a_->reads(), b = b_->reads();
    return a.empty() ? b : b.empty() ? a : a + ", " + b;
}

std::string CombineFieldValue::describe() const {
    return "combined " + a_->describe() + " and " + b_->describe();
}

}  // namespace velmorin
