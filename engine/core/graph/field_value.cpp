#include "graph/field_value.h"

#include <cstdio>

#include "base/hash.h"

namespace velmorin {
namespace {

// Tags keep a constant number and a constant colour of equal bits apart.
constexpr std::uint64_t kConstantTag = 0x636f6e7374616e74ull;       // "constant"
constexpr std::uint64_t kConstantColorTag = 0x636f6c6f72636f6eull;  // "colorcon"

std::string formatFloat(float value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", static_cast<double>(value));
    return text;
}

}  // namespace

std::uint64_t ConstantFieldValue::key() const {
    return hashCombine(kConstantTag, floatBits(value_));
}

std::string ConstantFieldValue::describe() const {
    return "constant " + formatFloat(value_);
}

float ConstantColorField::atStrand(std::size_t) const {
    // Rec. 709 luminance of linear RGB, as a colour reads where a number is wanted.
    return 0.2126f * color_.x + 0.7152f * color_.y + 0.0722f * color_.z;
}

std::uint64_t ConstantColorField::key() const {
    std::uint64_t h = hashCombine(kConstantColorTag, floatBits(color_.x));
    h = hashCombine(h, floatBits(color_.y));
    return hashCombine(h, floatBits(color_.z));
}

std::string ConstantColorField::describe() const {
    return "constant color (" + formatFloat(color_.x) + ", " + formatFloat(color_.y) + ", " +
           formatFloat(color_.z) + ")";
}

}  // namespace velmorin
