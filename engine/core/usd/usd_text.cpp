#include "usd/usd_text.h"

namespace velmorin {

std::string usdIdentifier(std::string_view name) {
    std::string out;
    out.reserve(name.size() + 1);
    for (std::size_t i = 0; i < name.size(); ++i) {
        const auto c = static_cast<unsigned char>(name[i]);
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
        const bool digit = c >= '0' && c <= '9';
        if (letter || digit) {
            if (out.empty() && digit) out += '_';
            out += static_cast<char>(c);
        } else if ((c & 0xC0) != 0x80) {
            // A continuation byte belongs to the character already replaced.
            out += '_';
        }
    }
    if (out.empty()) out.push_back('_');
    return out;
}

std::string usdQuoted(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    out += '"';
    return out;
}

std::string usdDouble(double value) {
    if (std::isnan(value)) return "nan";
    char text[32];
    return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

}  // namespace velmorin
