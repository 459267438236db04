#pragma once
// What the groom file's writer, reader and axis conversion share: the numbers' text both ways and
// the turn of a vector from one up axis to the other.

#include <charconv>
#include <cmath>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "base/hash.h"
#include "base/vec3.h"
#include "files/groom_file.h"

namespace velmorin::detail {

using GroomJson = nlohmann::ordered_json;

// The smallest magnitude that rounds to infinity as an f32 (the largest f32 plus half its last
// step): every double below it narrows to a finite f32 by rounding, as the writer's text expects.
inline constexpr double kFloatOverflow = 3.4028235677973366e38;

// A double as the f32 it rounds to; nothing for a value no f32 holds.
inline std::optional<float> narrowToFloat(double value) {
    if (!(std::fabs(value) < kFloatOverflow)) return std::nullopt;
    return static_cast<float>(value);
}

// A JSON number as the f32 it rounds to; nothing for anything else.
inline std::optional<float> groomFloat(const GroomJson& json) {
    if (!json.is_number()) return std::nullopt;
    return narrowToFloat(json.get<double>());
}

// Appends the shortest decimal text that reads back to `value` through a double, as every JSON
// reader reads it. Negative zero is written "-0.0", since "-0" reads as the integer 0. The value
// must be finite.
inline void appendGroomFloat(std::string& out, float value) {
    if (value == 0.0f && std::signbit(value)) {
        out += "-0.0";
        return;
    }
    char text[32];
    auto written = std::to_chars(text, text + sizeof text, value);
    double back = 0.0;
    std::from_chars(text, written.ptr, back);
    const auto narrowed = narrowToFloat(back);
    if (!narrowed || floatBits(*narrowed) != floatBits(value)) {
        // The float's shortest text would round otherwise through a double: write the double.
        written = std::to_chars(text, text + sizeof text, static_cast<double>(value));
    }
    out.append(text, written.ptr);
}

// The value of a float in a JSON tree: the double its shortest text reads as, so that the dumped
// tree carries the same digits the float blocks do.
inline double groomFloatJson(float value) {
    std::string text;
    appendGroomFloat(text, value);
    double out = 0.0;
    std::from_chars(text.data(), text.data() + text.size(), out);
    return out;
}

// A vector turned from one up axis to the other: to "Z" (x, y, z) becomes (x, -z, y), to "Y" it
// becomes (x, z, -y). The two are each other's inverse.
inline Vec3f turnToAxis(const Vec3f& v, bool toZ) {
    return toZ ? Vec3f{v.x, -v.z, v.y} : Vec3f{v.x, v.z, -v.y};
}

// Throws GroomFileError unless the axis is "Y" or "Z".
void checkUpAxis(std::string_view axis);

}  // namespace velmorin::detail
