#pragma once
// Numbers between JSON documents and the engine's f32 and i32 values: floats are written in their
// shortest decimal form (0.1f as 0.1, not 0.10000000149011612), and read back only when they fit.

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

namespace velmorin {

// The double nearest the float's shortest decimal form, which reads back as the same float.
inline double floatForJson(float value) {
    if (!std::isfinite(value)) return 0.0;
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text - 1, value);
    *result.ptr = '\0';
    return std::strtod(text, nullptr);
}

// A JSON number as a finite f32; nothing for anything else or a number out of f32's range.
inline std::optional<float> floatFromJson(const nlohmann::ordered_json& json) {
    if (!json.is_number()) return std::nullopt;
    const double value = json.get<double>();
    if (!std::isfinite(value) || std::abs(value) > std::numeric_limits<float>::max()) {
        return std::nullopt;
    }
    return static_cast<float>(value);
}

// A JSON number with no fraction that fits an i32 (3 and 3.0 alike); nothing for anything else.
inline std::optional<std::int32_t> intFromJson(const nlohmann::ordered_json& json) {
    if (json.is_number_integer()) {
        if (json.is_number_unsigned()) {
            const auto value = json.get<std::uint64_t>();
            if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
                return std::nullopt;
            }
            return static_cast<std::int32_t>(value);
        }
        const auto value = json.get<std::int64_t>();
        if (value < std::numeric_limits<std::int32_t>::min() ||
            value > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
        return static_cast<std::int32_t>(value);
    }
    if (!json.is_number_float()) return std::nullopt;
    const double value = json.get<double>();
    if (!(value >= std::numeric_limits<std::int32_t>::min() &&
          value <= std::numeric_limits<std::int32_t>::max()) ||
        value != std::floor(value)) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(value);
}

}  // namespace velmorin
