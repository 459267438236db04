#pragma once
// A small reader of .usda text for the tests: it parses the part of the format that the engine's
// writers use (layer metadata, nested prims with metadata, attributes with defaults, metadata and
// time samples, relationships, dictionaries, tuples and arrays) into a plain tree, and is strict
// where USD is: a misplaced comma, an unknown type, a tuple of the wrong size, an integer with a
// fraction or an identifier that USD would refuse is an error with its line number. It lets the
// writers' tests read back what they wrote without a USD library.

#include <cctype>
#include <charconv>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velmorin::test {

struct UsdaValue {
    enum class Kind { kNumber, kString, kWord, kPath, kTuple, kArray, kDictionary };
    Kind kind = Kind::kWord;
    std::string text;              // a number's or word's text, a string's contents, a path
    std::vector<UsdaValue> items;  // a tuple's or array's items
    // A dictionary's entries, keyed by type and name ("int layoutVersion") or "dictionary" and
    // name.
    std::vector<std::pair<std::string, UsdaValue>> entries;

    bool isNone() const { return kind == Kind::kWord && text == "None"; }
    const UsdaValue* entry(std::string_view key) const {
        for (const auto& [name, value] : entries) {
            if (name == key) return &value;
        }
        return nullptr;
    }
};

using UsdaMetadata = std::vector<std::pair<std::string, UsdaValue>>;

inline const UsdaValue* findMetadata(const UsdaMetadata& metadata, std::string_view key) {
    for (const auto& [name, value] : metadata) {
        if (name == key) return &value;
    }
    return nullptr;
}

struct UsdaProperty {
    std::string type;  // "point3f[]", "rel" for a relationship
    std::string name;  // "primvars:st"
    bool uniform = false;
    std::optional<UsdaValue> value;
    UsdaMetadata metadata;
    bool timeSampled = false;
    std::vector<std::pair<double, UsdaValue>> samples;  // in file order
};

struct UsdaPrim {
    std::string specifier;  // "def", "over" or "class"
    std::string type;
    std::string name;
    UsdaMetadata metadata;
    std::vector<UsdaProperty> properties;  // in order of first declaration
    std::vector<UsdaPrim> children;

    const UsdaProperty* property(std::string_view n) const {
        for (const UsdaProperty& p : properties) {
            if (p.name == n) return &p;
        }
        return nullptr;
    }
    const UsdaPrim* child(std::string_view n) const {
        for (const UsdaPrim& c : children) {
            if (c.name == n) return &c;
        }
        return nullptr;
    }
};

struct UsdaLayer {
    UsdaMetadata metadata;
    std::vector<UsdaPrim> prims;

    const UsdaPrim* prim(std::string_view n) const {
        for (const UsdaPrim& p : prims) {
            if (p.name == n) return &p;
        }
        return nullptr;
    }
};

// The numbers of an array of scalars or tuples, flattened, as floats or as 64-bit integers.
inline std::vector<float> usdaFloats(const UsdaValue& value) {
    std::vector<float> out;
    const auto add = [&](const UsdaValue& number) {
        float f = 0.0f;
        const char* end = number.text.data() + number.text.size();
        const auto result = std::from_chars(number.text.data(), end, f);
        if (result.ec != std::errc() || result.ptr != end) {
            throw std::runtime_error("not a float: " + number.text);
        }
        out.push_back(f);
    };
    for (const UsdaValue& item : value.items) {
        if (item.kind == UsdaValue::Kind::kTuple) {
            for (const UsdaValue& component : item.items)
                add(component);
        } else {
            add(item);
        }
    }
    return out;
}

inline std::vector<std::int64_t> usdaInts(const UsdaValue& value) {
    std::vector<std::int64_t> out;
    for (const UsdaValue& item : value.items) {
        std::int64_t i = 0;
        const char* end = item.text.data() + item.text.size();
        const auto result = std::from_chars(item.text.data(), end, i);
        if (result.ec != std::errc() || result.ptr != end) {
            throw std::runtime_error("not an integer: " + item.text);
        }
        out.push_back(i);
    }
    return out;
}

namespace usda_detail {

inline bool isIdentifierStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
inline bool isIdentifierChar(char c) {
    return isIdentifierStart(c) || (c >= '0' && c <= '9');
}
inline bool isIdentifier(std::string_view s) {
    if (s.empty() || !isIdentifierStart(s[0])) return false;
    for (const char c : s) {
        if (!isIdentifierChar(c)) return false;
    }
    return true;
}
// An identifier or several joined by ":", as property names are.
inline bool isNamespacedIdentifier(std::string_view s) {
    std::size_t start = 0;
    while (true) {
        const std::size_t colon = s.find(':', start);
        if (!isIdentifier(s.substr(start, colon - start))) return false;
        if (colon == std::string_view::npos) return true;
        start = colon + 1;
    }
}

// Tuple size of each array type the reader knows; 0 for scalars.
inline std::optional<int> arrayTupleSize(std::string_view type) {
    static const std::map<std::string_view, int> kTypes = {
        {"int[]", 0},     {"int64[]", 0},      {"float[]", 0},  {"double[]", 0},  {"token[]", 0},
        {"float2[]", 2},  {"texCoord2f[]", 2}, {"float3[]", 3}, {"point3f[]", 3}, {"normal3f[]", 3},
        {"color3f[]", 3}, {"vector3f[]", 3},   {"quath[]", 4},  {"quatf[]", 4}};
    const auto found = kTypes.find(type);
    if (found == kTypes.end()) return std::nullopt;
    return found->second;
}

class Parser {
  public:
    explicit Parser(std::string_view text) : text_(text) {}

    UsdaLayer parseLayer() {
        if (text_.substr(0, 10) != "#usda 1.0\n") fail("the layer does not begin \"#usda 1.0\"");
        pos_ = 10;
        line_ = 2;
        UsdaLayer layer;
        if (peek() == "(") layer.metadata = parseMetadata();
        while (!atEnd())
            layer.prims.push_back(parsePrim());
        return layer;
    }

  private:
    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error("usda line " + std::to_string(line_) + ": " + what);
    }

    void skipSpace() {
        while (pos_ < text_.size()) {
            const char c = text_[pos_];
            if (c == '\n') {
                ++line_;
                ++pos_;
            } else if (c == ' ' || c == '\t' || c == '\r') {
                ++pos_;
            } else if (c == '#') {
                while (pos_ < text_.size() && text_[pos_] != '\n')
                    ++pos_;
            } else {
                return;
            }
        }
    }
    bool atEnd() {
        skipSpace();
        return pos_ >= text_.size();
    }

    // The next token without taking it: punctuation, a string (with its quotes), a path (with
    // its angle brackets), a number or a word.
    std::string_view peek() {
        skipSpace();
        if (pos_ >= text_.size()) return {};
        const char c = text_[pos_];
        std::size_t end = pos_ + 1;
        if (c == '"') {
            while (end < text_.size() && text_[end] != '"') {
                if (text_[end] == '\n') fail("a string runs past the end of its line");
                end += text_[end] == '\\' ? 2 : 1;
            }
            if (end >= text_.size()) fail("a string has no closing quote");
            ++end;
        } else if (c == '<') {
            end = text_.find('>', pos_);
            if (end == std::string_view::npos) fail("a path has no closing '>'");
            ++end;
        } else if (c == '-' || c == '+' || c == '.' || (c >= '0' && c <= '9')) {
            while (end < text_.size() &&
                   (std::isalnum(static_cast<unsigned char>(text_[end])) || text_[end] == '.' ||
                    text_[end] == '-' || text_[end] == '+')) {
                ++end;
            }
        } else if (isIdentifierStart(c)) {
            while (end < text_.size() &&
                   (isIdentifierChar(text_[end]) || text_[end] == ':' || text_[end] == '.')) {
                ++end;
            }
        }
        return text_.substr(pos_, end - pos_);
    }
    std::string_view take() {
        const std::string_view token = peek();
        if (token.empty()) fail("the text ends too early");
        pos_ += token.size();
        return token;
    }
    void expect(std::string_view token) {
        const std::string_view got = take();
        if (got != token) {
            fail("expected '" + std::string(token) + "' but found '" + std::string(got) + "'");
        }
    }

    std::string takeString() {
        const std::string_view token = take();
        if (token.empty() || token[0] != '"')
            fail("expected a string, found '" + std::string(token) + "'");
        std::string out;
        for (std::size_t i = 1; i + 1 < token.size(); ++i) {
            if (token[i] != '\\') {
                out += token[i];
                continue;
            }
            const char e = token[++i];
            out += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e;
        }
        return out;
    }

    // A type, with "[]" when it names an array.
    std::string takeType() {
        std::string type(take());
        if (!isIdentifier(type)) fail("'" + type + "' is not a type");
        if (peek() == "[") {
            take();
            expect("]");
            type += "[]";
        }
        return type;
    }

    UsdaValue parseValue() {
        const std::string_view token = peek();
        UsdaValue value;
        if (token == "(" || token == "[") {
            take();
            const std::string_view close = token == "(" ? ")" : "]";
            value.kind = token == "(" ? UsdaValue::Kind::kTuple : UsdaValue::Kind::kArray;
            if (peek() != close) {
                while (true) {
                    value.items.push_back(parseValue());
                    const std::string_view next = take();
                    if (next == close) break;
                    if (next != ",") fail("expected ',' or '" + std::string(close) + "'");
                }
            } else {
                take();
            }
            return value;
        }
        if (token == "{") {
            value.kind = UsdaValue::Kind::kDictionary;
            value.entries = parseDictionary();
            return value;
        }
        if (token.empty()) fail("the text ends too early");
        if (token[0] == '"') {
            value.kind = UsdaValue::Kind::kString;
            value.text = takeString();
            return value;
        }
        take();
        value.text = std::string(token);
        if (token[0] == '<') {
            value.kind = UsdaValue::Kind::kPath;
            value.text = std::string(token.substr(1, token.size() - 2));
        } else if (token == "inf" || token == "nan" || !isIdentifierStart(token[0])) {
            value.kind = UsdaValue::Kind::kNumber;
            if (!isNumber(token)) fail("'" + value.text + "' is not a number");
        } else if (token == "None" || token == "true" || token == "false") {
            value.kind = UsdaValue::Kind::kWord;
        } else {
            fail("'" + value.text + "' is not a value");
        }
        return value;
    }

    static bool isNumber(std::string_view token) {
        if (token == "inf" || token == "-inf" || token == "nan") return true;
        double d = 0.0;
        const auto result = std::from_chars(token.data(), token.data() + token.size(), d);
        return result.ec == std::errc() && result.ptr == token.data() + token.size();
    }

    // "{" then entries "type name = value" or "dictionary name = { ... }", one a line, "}".
    std::vector<std::pair<std::string, UsdaValue>> parseDictionary() {
        expect("{");
        std::vector<std::pair<std::string, UsdaValue>> entries;
        while (peek() != "}") {
            const std::string type = takeType();
            const std::string name(take());
            if (!isIdentifier(name)) fail("'" + name + "' is not a dictionary key");
            expect("=");
            UsdaValue value = parseValue();
            if (type == "dictionary" && value.kind != UsdaValue::Kind::kDictionary) {
                fail("the dictionary '" + name + "' holds no dictionary");
            }
            entries.emplace_back(type + " " + name, std::move(value));
        }
        take();
        return entries;
    }

    // "(" then entries "key = value", or a bare string (a doc), then ")".
    UsdaMetadata parseMetadata() {
        expect("(");
        UsdaMetadata metadata;
        while (peek() != ")") {
            if (!peek().empty() && peek()[0] == '"') {
                metadata.emplace_back("doc", parseValue());
                continue;
            }
            const std::string key(take());
            if (!isIdentifier(key)) fail("'" + key + "' is not a metadata key");
            expect("=");
            metadata.emplace_back(key, parseValue());
        }
        take();
        return metadata;
    }

    UsdaPrim parsePrim() {
        UsdaPrim prim;
        prim.specifier = std::string(take());
        if (prim.specifier != "def" && prim.specifier != "over" && prim.specifier != "class") {
            fail("expected a prim, found '" + prim.specifier + "'");
        }
        if (peek().empty()) fail("the text ends too early");
        if (peek()[0] != '"') prim.type = takeType();
        prim.name = takeString();
        if (!isIdentifier(prim.name)) fail("'" + prim.name + "' is not a prim name");
        if (peek() == "(") prim.metadata = parseMetadata();
        expect("{");
        while (peek() != "}") {
            const std::string_view word = peek();
            if (word == "def" || word == "over" || word == "class") {
                prim.children.push_back(parsePrim());
                if (prim.child(prim.children.back().name) != &prim.children.back()) {
                    fail("two prims named '" + prim.children.back().name + "'");
                }
            } else {
                parseProperty(prim);
            }
        }
        take();
        return prim;
    }

    void parseProperty(UsdaPrim& prim) {
        bool uniform = false;
        std::string type;
        if (peek() == "uniform" || peek() == "custom") {
            uniform = take() == "uniform";
        }
        if (peek() == "rel") {
            take();
            type = "rel";
        } else {
            type = takeType();
        }
        std::string name(take());
        bool samples = false;
        if (name.ends_with(".timeSamples")) {
            samples = true;
            name.resize(name.size() - 12);
        }
        if (!isNamespacedIdentifier(name)) fail("'" + name + "' is not a property name");
        UsdaProperty* property = nullptr;
        for (UsdaProperty& p : prim.properties) {
            if (p.name == name) property = &p;
        }
        if (property == nullptr) {
            prim.properties.push_back({type, name, uniform, std::nullopt, {}, false, {}});
            property = &prim.properties.back();
        } else if (property->type != type || property->uniform != uniform) {
            fail("'" + name + "' is declared again as another type");
        }
        if (samples) {
            if (property->timeSampled) fail("'" + name + "' has two sets of time samples");
            property->timeSampled = true;
            expect("=");
            expect("{");
            while (peek() != "}") {
                const std::string time(take());
                if (!isNumber(time)) fail("'" + time + "' is not a time");
                expect(":");
                UsdaValue value = parseValue();
                checkValue(type, value);
                const double t = std::stod(time);
                if (!property->samples.empty() && property->samples.back().first >= t) {
                    fail("the time samples of '" + name + "' are not in increasing order");
                }
                property->samples.emplace_back(t, std::move(value));
                expect(",");
            }
            take();
            return;
        }
        if (peek() == "=") {
            take();
            property->value = parseValue();
            checkValue(type, *property->value);
        }
        if (peek() == "(") {
            for (auto& entry : parseMetadata())
                property->metadata.push_back(std::move(entry));
        }
    }

    // Checks an array against its type: tuples of the type's size, integers with no fraction.
    void checkValue(const std::string& type, const UsdaValue& value) {
        if (value.isNone() || type == "rel") return;
        const std::optional<int> tuple = arrayTupleSize(type);
        if (!type.ends_with("[]")) return;
        if (!tuple) fail("unknown type '" + type + "'");
        if (value.kind != UsdaValue::Kind::kArray) fail("a " + type + " value is not an array");
        const bool integer = type == "int[]" || type == "int64[]";
        for (const UsdaValue& item : value.items) {
            if (*tuple == 0) {
                if (type == "token[]" ? item.kind != UsdaValue::Kind::kString
                                      : item.kind != UsdaValue::Kind::kNumber) {
                    fail("a " + type + " holds '" + item.text + "'");
                }
                if (integer) checkInteger(type, item.text);
                continue;
            }
            if (item.kind != UsdaValue::Kind::kTuple ||
                item.items.size() != static_cast<std::size_t>(*tuple)) {
                fail("a " + type + " holds an item that is not a tuple of " +
                     std::to_string(*tuple));
            }
            for (const UsdaValue& component : item.items) {
                if (component.kind != UsdaValue::Kind::kNumber) fail("a tuple holds a non-number");
            }
        }
    }

    void checkInteger(const std::string& type, const std::string& text) {
        std::int64_t i = 0;
        const auto result = std::from_chars(text.data(), text.data() + text.size(), i);
        if (result.ec != std::errc() || result.ptr != text.data() + text.size()) {
            fail("a " + type + " holds '" + text + "', not an integer");
        }
        if (type == "int[]" && (i < std::numeric_limits<std::int32_t>::min() ||
                                i > std::numeric_limits<std::int32_t>::max())) {
            fail("an int[] holds " + text + ", past 32 bits");
        }
    }

    std::string_view text_;
    std::size_t pos_ = 0;
    int line_ = 1;
};

}  // namespace usda_detail

// Parses .usda text; throws std::runtime_error "usda line N: ..." at the first fault.
inline UsdaLayer parseUsda(std::string_view text) {
    return usda_detail::Parser(text).parseLayer();
}

}  // namespace velmorin::test
