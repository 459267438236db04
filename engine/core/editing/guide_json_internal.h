#pragma once
// What the files of guide data JSON share and nothing else includes: the failures of reading,
// the numbers both reading paths take alike, and the split scan's interface (see
// guide_json_split.cpp) that the reader calls.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "strands/guide.h"

namespace velmorin::guide_json_internal {

using Json = nlohmann::ordered_json;

constexpr int kMaxSegments = 256;
constexpr int kMaxPointCount = 257;

// A reading failure; the reader's caller prefixes "invalid guide data: ".
[[noreturn]] inline void bad(const std::string& message) {
    throw std::runtime_error(message);
}

// The split path gives up: the text goes through the whole parse instead.
struct NotSplit {};

// --- Numbers both paths read alike -------------------------------------------------------------

// A JSON number as the library holds it: an unsigned or signed integer, or a double.
struct Number {
    enum Kind : std::uint8_t { Unsigned, Signed, Float } kind = Unsigned;
    std::uint64_t u = 0;
    std::int64_t i = 0;
    double d = 0.0;

    double value() const {
        return kind == Unsigned ? static_cast<double>(u)
               : kind == Signed ? static_cast<double>(i)
                                : d;
    }
};

inline Number numberOf(const Json& json) {
    Number n;
    if (json.is_number_unsigned()) {
        n.u = json.get<std::uint64_t>();
    } else if (json.is_number_integer()) {
        n.kind = Number::Signed;
        n.i = json.get<std::int64_t>();
    } else {
        n.kind = Number::Float;
        n.d = json.get<double>();
    }
    return n;
}

inline bool toUnsigned(const Number& n, std::uint64_t max, std::uint64_t& out) {
    if (n.kind != Number::Unsigned || n.u > max) return false;
    out = n.u;
    return true;
}

inline bool toFace(const Number& n, std::int32_t& out) {
    if (n.kind == Number::Unsigned &&
        n.u <= std::uint64_t(std::numeric_limits<std::int32_t>::max())) {
        out = static_cast<std::int32_t>(n.u);
        return true;
    }
    if (n.kind == Number::Signed && n.i >= std::numeric_limits<std::int32_t>::min() &&
        n.i <= std::numeric_limits<std::int32_t>::max()) {
        out = static_cast<std::int32_t>(n.i);
        return true;
    }
    return false;
}

inline bool toFloat(const Number& n, float& out) {
    const double d = n.value();
    if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max()) return false;
    out = static_cast<float>(d);
    return true;
}

inline int clampedCount(const Number& n, int high) {
    const double d = std::clamp(n.value(), 0.0, double(high));
    return static_cast<int>(d);
}

// --- The split path ----------------------------------------------------------------------------

inline bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

inline bool blankText(std::string_view text) {
    return std::all_of(text.begin(), text.end(), isBlank);
}

struct Split {
    std::size_t open = 0;                                       // the guide array's '['
    std::size_t close = 0;                                      // its ']'
    std::vector<std::pair<std::size_t, std::size_t>> elements;  // [begin, end) of each element
};

// Splits the text at the top-level "guides" array without parsing it. False when the text's
// layout is one the scan does not take; the caller then parses the whole text.
bool splitGuideArray(std::string_view text, Split& split);

// Reads one guide element of a split text as the whole parse would, for the layout the writer
// makes and anything close to it. Anything it is not sure of throws NotSplit.
class ElementReader {
  public:
    explicit ElementReader(std::string_view text) : text_(text) {}

    void read(Guide& g, std::string_view& shapeName, bool& hasUpLocal);

  private:
    std::string_view text_;
};

}  // namespace velmorin::guide_json_internal
