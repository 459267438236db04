#include "files/json_scan.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <vector>

namespace velmorin::detail {
namespace {

using Json = nlohmann::ordered_json;

// Deeper nesting is left to the JSON library, which needs no stack for it.
constexpr int kMaxDepth = 200;

class Scanner {
  public:
    explicit Scanner(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    // One value and nothing but blanks after it.
    bool whole(Json& out, std::span<const std::string_view> rawKeys) {
        rawKeys_ = rawKeys;
        blanks();
        if (!value(out, 0)) return false;
        blanks();
        return p_ == end_;
    }
    bool wholeCompact(std::string& out) {
        blanks();
        if (!compact(out, 0)) return false;
        blanks();
        return p_ == end_;
    }

  private:
    void blanks() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t'))
            ++p_;
    }
    bool take(char c) {
        if (p_ < end_ && *p_ == c) {
            ++p_;
            return true;
        }
        return false;
    }
    bool literal(std::string_view word) {
        if (static_cast<std::size_t>(end_ - p_) < word.size() ||
            std::memcmp(p_, word.data(), word.size()) != 0) {
            return false;
        }
        p_ += word.size();
        return true;
    }

    static bool continuation(unsigned char c, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return c >= low && c <= high;
    }

    // A string from its opening quote: checked (escapes, UTF-8, no control characters) and, when
    // `decoded` is given, decoded into it.
    bool string(std::string* decoded) {
        if (!take('"')) return false;
        while (p_ < end_) {
            const auto c = static_cast<unsigned char>(*p_);
            if (c == '"') {
                ++p_;
                return true;
            }
            if (c < 0x20) return false;
            if (c == '\\') {
                if (!escape(decoded)) return false;
                continue;
            }
            int extra = 0;
            unsigned char low = 0x80, high = 0xBF;
            if (c < 0x80) {
                extra = 0;
            } else if (c >= 0xC2 && c <= 0xDF) {
                extra = 1;
            } else if (c >= 0xE0 && c <= 0xEF) {
                extra = 2;
                if (c == 0xE0) low = 0xA0;
                if (c == 0xED) high = 0x9F;
            } else if (c >= 0xF0 && c <= 0xF4) {
                extra = 3;
                if (c == 0xF0) low = 0x90;
                if (c == 0xF4) high = 0x8F;
            } else {
                return false;
            }
            if (end_ - p_ <= extra) return false;
            for (int k = 1; k <= extra; ++k) {
                const auto next = static_cast<unsigned char>(p_[k]);
                if (!(k == 1 ? continuation(next, low, high) : continuation(next))) return false;
            }
            if (decoded) decoded->append(p_, static_cast<std::size_t>(extra + 1));
            p_ += extra + 1;
        }
        return false;
    }

    bool hex4(unsigned& out) {
        if (end_ - p_ < 4) return false;
        const auto [ptr, error] = std::from_chars(p_, p_ + 4, out, 16);
        if (error != std::errc() || ptr != p_ + 4) return false;
        p_ += 4;
        return true;
    }

    bool escape(std::string* decoded) {
        ++p_;  // the backslash
        if (p_ >= end_) return false;
        const char c = *p_++;
        char plain = 0;
        switch (c) {
            case '"':
                plain = '"';
                break;
            case '\\':
                plain = '\\';
                break;
            case '/':
                plain = '/';
                break;
            case 'b':
                plain = '\b';
                break;
            case 'f':
                plain = '\f';
                break;
            case 'n':
                plain = '\n';
                break;
            case 'r':
                plain = '\r';
                break;
            case 't':
                plain = '\t';
                break;
            case 'u':
                break;
            default:
                return false;
        }
        if (c != 'u') {
            if (decoded) *decoded += plain;
            return true;
        }
        unsigned code = 0;
        if (!hex4(code)) return false;
        if (code >= 0xDC00 && code <= 0xDFFF) return false;
        if (code >= 0xD800 && code <= 0xDBFF) {
            unsigned low = 0;
            if (!take('\\') || !take('u') || !hex4(low) || low < 0xDC00 || low > 0xDFFF) {
                return false;
            }
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        }
        if (decoded) appendUtf8(*decoded, code);
        return true;
    }

    static void appendUtf8(std::string& out, unsigned code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
    }

    static bool digit(char c) { return c >= '0' && c <= '9'; }

    // A number's text by the JSON grammar; `integer` when it has no fraction and no exponent.
    bool number(std::string_view& text, bool& integer) {
        const char* start = p_;
        take('-');
        if (p_ >= end_ || !digit(*p_)) return false;
        if (*p_ == '0') {
            ++p_;
        } else {
            while (p_ < end_ && digit(*p_))
                ++p_;
        }
        integer = true;
        if (take('.')) {
            integer = false;
            if (p_ >= end_ || !digit(*p_)) return false;
            while (p_ < end_ && digit(*p_))
                ++p_;
        }
        if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
            integer = false;
            ++p_;
            if (!take('+')) take('-');
            if (p_ >= end_ || !digit(*p_)) return false;
            while (p_ < end_ && digit(*p_))
                ++p_;
        }
        text = std::string_view(start, static_cast<std::size_t>(p_ - start));
        return true;
    }

    static bool toDouble(std::string_view text, double& out) {
        const auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), out);
        return error == std::errc() && ptr == text.data() + text.size();
    }

    // A number as the JSON library holds it: unsigned, signed, or else a double.
    static bool numberValue(std::string_view text, bool integer, Json& out) {
        const char* first = text.data();
        const char* last = first + text.size();
        if (integer) {
            if (text[0] == '-') {
                std::int64_t value = 0;
                const auto [ptr, error] = std::from_chars(first, last, value);
                if (error == std::errc() && ptr == last) {
                    out = value;
                    return true;
                }
            } else {
                std::uint64_t value = 0;
                const auto [ptr, error] = std::from_chars(first, last, value);
                if (error == std::errc() && ptr == last) {
                    out = value;
                    return true;
                }
            }
        }
        double value = 0.0;
        if (!toDouble(text, value)) return false;
        out = value;
        return true;
    }

    // An array of numbers only, packed; false (and the position unmoved) for anything else.
    bool packed(Json& out) {
        const char* start = p_;
        std::vector<double> values;
        ++p_;  // the bracket
        blanks();
        if (!take(']')) {
            while (true) {
                std::string_view text;
                bool integer = false;
                double value = 0.0;
                if (!number(text, integer) || !toDouble(text, value)) {
                    p_ = start;
                    return false;
                }
                values.push_back(value);
                blanks();
                if (take(']')) break;
                if (!take(',')) {
                    p_ = start;
                    return false;
                }
                blanks();
            }
        }
        if (values.size() < kPackAtLeast) {
            p_ = start;
            return false;
        }
        std::vector<std::uint8_t> bytes(values.size() * sizeof(double));
        std::memcpy(bytes.data(), values.data(), bytes.size());
        out = Json::binary(std::move(bytes), kPackedNumbers);
        return true;
    }

    bool value(Json& out, int depth) {
        if (p_ >= end_ || depth > kMaxDepth) return false;
        switch (*p_) {
            case '{': {
                ++p_;
                out = Json::object();
                blanks();
                if (take('}')) return true;
                while (true) {
                    std::string key;
                    if (!string(&key)) return false;
                    blanks();
                    if (!take(':')) return false;
                    blanks();
                    Json& slot = out[key];
                    if (depth == 0 &&
                        std::find(rawKeys_.begin(), rawKeys_.end(), key) != rawKeys_.end()) {
                        std::string text;
                        if (!compact(text, depth + 1)) return false;
                        slot = Json::binary(std::vector<std::uint8_t>(text.begin(), text.end()),
                                            kRawJson);
                    } else if (!value(slot, depth + 1)) {
                        return false;
                    }
                    blanks();
                    if (take('}')) return true;
                    if (!take(',')) return false;
                    blanks();
                }
            }
            case '[': {
                if (packed(out)) return true;
                ++p_;
                out = Json::array();
                blanks();
                if (take(']')) return true;
                while (true) {
                    Json element;
                    if (!value(element, depth + 1)) return false;
                    out.push_back(std::move(element));
                    blanks();
                    if (take(']')) return true;
                    if (!take(',')) return false;
                    blanks();
                }
            }
            case '"': {
                std::string text;
                if (!string(&text)) return false;
                out = std::move(text);
                return true;
            }
            case 't':
                out = true;
                return literal("true");
            case 'f':
                out = false;
                return literal("false");
            case 'n':
                out = nullptr;
                return literal("null");
            default: {
                std::string_view text;
                bool integer = false;
                return number(text, integer) && numberValue(text, integer, out);
            }
        }
    }

    // One value copied to `out` without blanks, checked as `value` checks it.
    bool compact(std::string& out, int depth) {
        if (p_ >= end_ || depth > kMaxDepth) return false;
        const char c = *p_;
        if (c == '{' || c == '[') {
            const char close = c == '{' ? '}' : ']';
            out += *p_++;
            blanks();
            if (take(close)) {
                out += close;
                return true;
            }
            while (true) {
                if (c == '{') {
                    const char* start = p_;
                    if (!string(nullptr)) return false;
                    out.append(start, p_);
                    blanks();
                    if (!take(':')) return false;
                    out += ':';
                    blanks();
                }
                if (!compact(out, depth + 1)) return false;
                blanks();
                if (take(close)) {
                    out += close;
                    return true;
                }
                if (!take(',')) return false;
                out += ',';
                blanks();
            }
        }
        const char* start = p_;
        if (c == '"') {
            if (!string(nullptr)) return false;
        } else if (c == 't') {
            if (!literal("true")) return false;
        } else if (c == 'f') {
            if (!literal("false")) return false;
        } else if (c == 'n') {
            if (!literal("null")) return false;
        } else {
            std::string_view text;
            bool integer = false;
            Json check;
            // A number the library would hold as infinity is left to it.
            if (!number(text, integer) || !numberValue(text, integer, check)) return false;
        }
        out.append(start, p_);
        return true;
    }

    const char* p_;
    const char* end_;
    std::span<const std::string_view> rawKeys_;
};

}  // namespace

std::optional<std::string> compactJson(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    Scanner scanner(text);
    if (!scanner.wholeCompact(out)) return std::nullopt;
    return out;
}

std::optional<Json> scanJson(std::string_view text, std::span<const std::string_view> rawKeys) {
    Json out;
    Scanner scanner(text);
    if (!scanner.whole(out, rawKeys)) return std::nullopt;
    return out;
}

bool isPacked(const Json& json) {
    return json.is_binary() && json.get_binary().has_subtype() &&
           json.get_binary().subtype() == kPackedNumbers;
}

std::size_t packedCount(const Json& json) {
    return json.get_binary().size() / sizeof(double);
}

double packedAt(const Json& json, std::size_t index) {
    double value = 0.0;
    std::memcpy(&value, json.get_binary().data() + index * sizeof(double), sizeof value);
    return value;
}

std::optional<std::string> rawText(const Json& json) {
    if (!json.is_binary() || !json.get_binary().has_subtype() ||
        json.get_binary().subtype() != kRawJson) {
        return std::nullopt;
    }
    const auto& bytes = json.get_binary();
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace velmorin::detail
