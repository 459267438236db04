#pragma once
// The pieces of USD's text syntax that the writer assembles: identifiers, quoted strings and
// numbers. Numbers are written in their shortest decimal form that reads back as the same value,
// so a file carries every float exactly and no longer than it must.

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "usd/float_text.h"

namespace velmorin {

// The most characters one float takes: a sign, nine digits, the point and "e-38".
inline constexpr std::size_t kUsdFloatChars = 16;
// The most characters one 64-bit integer takes.
inline constexpr std::size_t kUsdIntChars = 20;

// `name` made a USD identifier: letters, digits and underscores, not beginning with a digit. Every
// other character (a whole UTF-8 sequence counting as one) becomes "_", a leading digit gets "_"
// in front, and an empty name becomes "_".
std::string usdIdentifier(std::string_view name);

// `text` as a double-quoted USD string, with quotes, backslashes and line breaks escaped.
std::string usdQuoted(std::string_view text);

// Writes a float at `out` and returns the end: the shortest text that reads back as the same
// float, the very text std::to_chars writes, in about three quarters of its time; "nan", "inf" and
// "-inf" for the values that are not finite. `out` has room for kUsdFloatChars.
inline char* writeUsdFloat(char* out, float value) {
    if (std::isnan(value)) {
        std::memcpy(out, "nan", 3);
        return out + 3;
    }
    if (std::isinf(value)) {
        const std::size_t size = value < 0 ? 4 : 3;
        std::memcpy(out, value < 0 ? "-inf" : "inf", size);
        return out + size;
    }
    return float_text::writeFloat(out, value);
}

inline char* writeUsdInt(char* out, std::int64_t value) {
    return std::to_chars(out, out + kUsdIntChars, value).ptr;
}

// The shortest text of a double that reads back as the same double: frames and layer metadata.
std::string usdDouble(double value);

}  // namespace velmorin
