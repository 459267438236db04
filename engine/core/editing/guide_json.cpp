// Guide data JSON: writing and reading a guide hierarchy. The writer makes one canonical text
// without spaces. Grooms hold tens of thousands of guides, so the reader never puts the guide array
// through one JSON document when it can help it: a first scan splits the text at the guide array's
// elements without parsing, the rest of the document is parsed alone, and the elements are read in
// parallel by a small reader made for them. Whatever that path can't take (an escape in a string, a
// key it doesn't know, a second "guides" key) sends the whole text through the JSON library
// instead; both paths end in the same checks and give the same hierarchy.

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include <nlohmann/json.hpp>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/document.h"
#include "base/parallel.h"
#include "editing/guide_hierarchy.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kParallelWriteAbove = 16;
constexpr std::size_t kWriteBlock = 64;    // guides per piece of text written in parallel
constexpr std::size_t kReadGrain = 4;      // guide elements per parallel chunk
constexpr std::size_t kFinishGrain = 256;  // guides per chunk of the checks after reading
constexpr int kMaxSegments = 256;
constexpr int kMaxPointCount = 257;
constexpr std::string_view kRetiredRound = "crescent";

// A reading failure; the reader's caller prefixes "invalid guide data: ".
[[noreturn]] void bad(const std::string& message) {
    throw std::runtime_error(message);
}

// The split path gives up: the text goes through the whole parse instead.
struct NotSplit {};

// --- Writing -----------------------------------------------------------------------------------

void appendNumber(std::string& out, double value) {
    // A value that is not finite is written as 0, so that the text always reads back.
    if (!std::isfinite(value)) value = 0.0;
    // "-0" would read back as the integer 0; with a fraction it stays a negative zero.
    if (value == 0.0 && std::signbit(value)) {
        out += "-0.0";
        return;
    }
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    out.append(buffer, result.ptr);
}

void appendString(std::string& out, std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
        return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
    });
    if (plain) {
        out += '"';
        out += text;
        out += '"';
    } else {
        out += Json(std::string(text)).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

void appendFloats(std::string& out, std::span<const float> values, float fallback) {
    out += '[';
    if (values.empty()) appendNumber(out, fallback);
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i) out += ',';
        appendNumber(out, values[i]);
    }
    out += ']';
}

void appendVector(std::string& out, const Vec3f& v) {
    out += '[';
    appendNumber(out, v.x);
    out += ',';
    appendNumber(out, v.y);
    out += ',';
    appendNumber(out, v.z);
    out += ']';
}

void appendFlat(std::string& out, std::span<const Vec3f> points) {
    out += '[';
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (i) out += ',';
        appendNumber(out, points[i].x);
        out += ',';
        appendNumber(out, points[i].y);
        out += ',';
        appendNumber(out, points[i].z);
    }
    out += ']';
}

void appendGuide(std::string& out, const Guide& g) {
    const bool child = g.parent != 0;
    out += "{\"id\":";
    appendInteger(out, g.id);
    out += ",\"group\":";
    appendInteger(out, g.group);
    out += ",\"root\":[";
    appendInteger(out, g.root.face);
    out += ',';
    appendNumber(out, g.root.u);
    out += ',';
    appendNumber(out, g.root.v);
    out += "],\"frameUp\":";
    appendVector(out, g.frameUp);
    out += ",\"tube\":{\"shape\":";
    appendString(out, tubeShapeNameOf(g.tube));
    out += ",\"width\":";
    appendFloats(out, g.tube.width, 1.0f);
    out += ",\"aspect\":";
    appendFloats(out, g.tube.aspect, 1.0f);
    out += ",\"twist\":";
    appendFloats(out, g.tube.twist, 0.0f);
    out += '}';
    if (child) {
        out += ",\"parent\":";
        appendInteger(out, g.parent);
    }
    if (g.locked) out += ",\"locked\":true";
    if (g.ownSegments) out += ",\"ownSegments\":true";
    if (!g.attributes.empty()) {
        out += ",\"attributes\":{";
        bool first = true;
        for (const auto& [name, value] : g.attributes) {
            if (!first) out += ',';
            first = false;
            appendString(out, name);
            out += ':';
            appendNumber(out, value);
        }
        out += '}';
    }
    if (!g.pointAttributes.empty()) {
        out += ",\"pointAttributes\":{";
        bool first = true;
        for (const auto& [name, layer] : g.pointAttributes) {
            if (!first) out += ',';
            first = false;
            appendString(out, name);
            out += ":[";
            for (std::size_t i = 0; i < layer.size(); ++i) {
                if (i) out += ',';
                appendNumber(out, layer[i]);
            }
            out += ']';
        }
        out += '}';
    }
    if (child && !g.locked) {
        out += ",\"offsets\":";
        appendFlat(out, g.offsets);
        if (g.pointCount > 0) {
            out += ",\"pointCount\":";
            appendInteger(out, g.pointCount);
        }
    } else {
        out += ",\"points\":";
        appendFlat(out, g.points);
        if (!g.rootLocal.empty()) {
            out += ",\"rootLocal\":";
            appendFlat(out, g.rootLocal);
            out += ",\"frameUpLocal\":";
            appendVector(out, g.frameUpLocal);
        }
    }
    out += '}';
}

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

Number numberOf(const Json& json) {
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

bool toUnsigned(const Number& n, std::uint64_t max, std::uint64_t& out) {
    if (n.kind != Number::Unsigned || n.u > max) return false;
    out = n.u;
    return true;
}

bool toFace(const Number& n, std::int32_t& out) {
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

bool toFloat(const Number& n, float& out) {
    const double d = n.value();
    if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max()) return false;
    out = static_cast<float>(d);
    return true;
}

int clampedCount(const Number& n, int high) {
    const double d = std::clamp(n.value(), 0.0, double(high));
    return static_cast<int>(d);
}

// --- The whole-parse path: one guide from a JSON value -----------------------------------------

std::string guideName(const Guide& g) {
    return g.id != 0 ? "guide " + std::to_string(g.id) : "a guide";
}

float jsonFloat(const Json& json, const Guide& g, std::string_view key) {
    float out = 0.0f;
    if (!json.is_number() || !toFloat(numberOf(json), out))
        bad(guideName(g) + ": \"" + std::string(key) + "\" holds a value that is not a number");
    return out;
}

Vec3f jsonVector(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_array() || json.size() != 3)
        bad(guideName(g) + ": \"" + std::string(key) + "\" must be [x, y, z]");
    return {jsonFloat(json[0], g, key), jsonFloat(json[1], g, key), jsonFloat(json[2], g, key)};
}

std::vector<Vec3f> jsonFlat(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_array()) bad(guideName(g) + ": \"" + std::string(key) + "\" must be a list");
    if (json.size() % 3 != 0) bad("point array length is not a multiple of 3");
    std::vector<Vec3f> out(json.size() / 3);
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = {jsonFloat(json[3 * i], g, key), jsonFloat(json[3 * i + 1], g, key),
                  jsonFloat(json[3 * i + 2], g, key)};
    }
    return out;
}

bool jsonBool(const Json& json, const Guide& g, std::string_view key) {
    if (!json.is_boolean())
        bad(guideName(g) + ": \"" + std::string(key) + "\" must be true or false");
    return json.get<bool>();
}

void guideFromJson(const Json& json, Guide& g, std::string_view& shapeName, bool& hasUpLocal) {
    if (!json.is_object()) bad("each guide must be a JSON object");
    auto required = [&](const char* key) -> const Json& {
        auto found = json.find(key);
        if (found == json.end()) bad(guideName(g) + " has no \"" + key + "\"");
        return *found;
    };
    std::uint64_t value = 0;
    const Json& id = required("id");
    if (!id.is_number() ||
        !toUnsigned(numberOf(id), std::numeric_limits<std::uint64_t>::max(), value) || value == 0) {
        bad("guide ids are whole numbers from 1; found " + id.dump());
    }
    g.id = value;
    const Json& group = required("group");
    if (!group.is_number() ||
        !toUnsigned(numberOf(group), std::numeric_limits<std::uint32_t>::max(), value)) {
        bad(guideName(g) + ": \"group\" must be a group id");
    }
    g.group = static_cast<std::uint32_t>(value);
    const Json& root = required("root");
    if (!root.is_array() || root.size() != 3 || !root[0].is_number() ||
        !toFace(numberOf(root[0]), g.root.face)) {
        bad(guideName(g) + ": \"root\" must be [face, u, v]");
    }
    g.root.u = jsonFloat(root[1], g, "root");
    g.root.v = jsonFloat(root[2], g, "root");
    g.frameUp = jsonVector(required("frameUp"), g, "frameUp");

    if (auto found = json.find("tube"); found != json.end()) {
        if (!found->is_object()) throw std::invalid_argument("tube: a JSON object");
        if (auto shape = found->find("shape"); shape != found->end()) {
            if (!shape->is_string()) throw std::invalid_argument("tube: shape is a name");
            shapeName = shape->get_ref<const std::string&>();
        }
        readTubeCurves(*found, g.tube);
    }
    if (auto found = json.find("parent"); found != json.end()) {
        if (!found->is_number() ||
            !toUnsigned(numberOf(*found), std::numeric_limits<std::uint64_t>::max(), value)) {
            bad(guideName(g) + ": \"parent\" must be a guide id");
        }
        g.parent = value;
    }
    if (auto found = json.find("locked"); found != json.end())
        g.locked = jsonBool(*found, g, "locked");
    if (auto found = json.find("ownSegments"); found != json.end())
        g.ownSegments = jsonBool(*found, g, "ownSegments");
    if (auto found = json.find("attributes"); found != json.end()) {
        if (!found->is_object()) bad(guideName(g) + ": \"attributes\" must be an object");
        for (const auto& [name, entry] : found->items())
            g.attributes[name] = jsonFloat(entry, g, name);
    }
    if (auto found = json.find("pointAttributes"); found != json.end()) {
        if (!found->is_object()) bad(guideName(g) + ": \"pointAttributes\" must be an object");
        for (const auto& [name, entry] : found->items()) {
            if (!entry.is_array()) bad(guideName(g) + ": \"" + name + "\" must be a list");
            std::vector<float>& layer = g.pointAttributes[name];
            layer.clear();
            for (const Json& v : entry)
                layer.push_back(jsonFloat(v, g, name));
        }
    }
    if (auto found = json.find("offsets"); found != json.end())
        g.offsets = jsonFlat(*found, g, "offsets");
    if (auto found = json.find("pointCount"); found != json.end()) {
        if (!found->is_number()) bad(guideName(g) + ": \"pointCount\" must be a number");
        g.pointCount = clampedCount(numberOf(*found), kMaxPointCount);
    }
    if (auto found = json.find("points"); found != json.end())
        g.points = jsonFlat(*found, g, "points");
    if (auto found = json.find("rootLocal"); found != json.end())
        g.rootLocal = jsonFlat(*found, g, "rootLocal");
    if (auto found = json.find("frameUpLocal"); found != json.end()) {
        g.frameUpLocal = jsonVector(*found, g, "frameUpLocal");
        hasUpLocal = true;
    }
}

// --- The split path ----------------------------------------------------------------------------

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool blankText(std::string_view text) {
    return std::all_of(text.begin(), text.end(), isBlank);
}

struct Split {
    std::size_t open = 0;                                       // the guide array's '['
    std::size_t close = 0;                                      // its ']'
    std::vector<std::pair<std::size_t, std::size_t>> elements;  // [begin, end) of each element
};

// Where in a block of 16 characters of the text there are quotes, backslashes, and brackets,
// braces or commas: one bit per character. Most of guide data is digits, so the scan looks at
// whole blocks and then only at the characters that matter.
struct BlockMasks {
    std::uint32_t quotes = 0, backslashes = 0, structure = 0;
};

BlockMasks blockMasks(const char* block) {
    BlockMasks masks;
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(block));
    // '[' | 0x20 is '{' and ']' | 0x20 is '}', so two compares find all four.
    const __m128i folded = _mm_or_si128(v, _mm_set1_epi8(0x20));
    masks.quotes =
        static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('"'))));
    masks.backslashes =
        static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8('\\'))));
    const __m128i brackets = _mm_or_si128(_mm_cmpeq_epi8(folded, _mm_set1_epi8('{')),
                                          _mm_cmpeq_epi8(folded, _mm_set1_epi8('}')));
    masks.structure = static_cast<std::uint32_t>(
        _mm_movemask_epi8(_mm_or_si128(brackets, _mm_cmpeq_epi8(v, _mm_set1_epi8(',')))));
#else
    for (int k = 0; k < 16; ++k) {
        const char c = block[k];
        masks.quotes |= std::uint32_t(c == '"') << k;
        masks.backslashes |= std::uint32_t(c == '\\') << k;
        masks.structure |= std::uint32_t(c == ',' || c == '[' || c == ']' || c == '{' || c == '}')
                           << k;
    }
#endif
    return masks;
}

// The split scan's state machine: outside strings (where a backslash skips the next character)
// '[' and '{' count depth; the key "guides" at depth 1 must be followed by ':' and '['; inside that
// array, commas at depth 2 and its closing ']' end elements. Fails on a second "guides" key, an
// unbalanced bracket or a '}' closing the array.
struct Scanner {
    explicit Scanner(std::string_view scanned) : text(scanned) {}

    std::string_view text;
    int depth = 0;
    bool inString = false, found = false, inArray = false, failed = false;
    bool stopAtArray = false;  // pause right after the array's '['
    bool paused = false;
    std::size_t stringBegin = 0;
    std::size_t next = 0;  // characters before this one are escaped or already taken
    std::size_t open = 0, close = 0;
    std::vector<std::size_t> ends;  // where elements end: the array's commas and its ']'

    // Scans [from, to); returns false once the scan has failed.
    bool scan(std::size_t from, std::size_t to) {
        const std::size_t n = text.size();
        char tail[16];
        for (std::size_t base = from; base < to && !failed && !paused; base += 16) {
            const char* block = text.data() + base;
            if (n - base < 16) {
                std::fill(std::begin(tail), std::end(tail), ' ');
                std::copy(block, text.data() + n, tail);
                block = tail;
            }
            const BlockMasks masks = blockMasks(block);
            std::uint32_t pending = masks.quotes | masks.backslashes | masks.structure;
            if (to - base < 16) pending &= (1u << (to - base)) - 1;
            while (pending != 0 && !failed && !paused) {
                const std::size_t i = base + static_cast<std::size_t>(__builtin_ctz(pending));
                pending &= pending - 1;
                if (i >= next) take(i);
            }
        }
        return !failed;
    }

    void take(std::size_t i) {
        const std::size_t n = text.size();
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                next = i + 2;
            } else if (c == '"') {
                inString = false;
                if (depth != 1 || text.substr(stringBegin, i - stringBegin) != "guides") return;
                std::size_t k = i + 1;
                while (k < n && isBlank(text[k]))
                    ++k;
                if (k >= n || text[k] != ':') return;  // the value "guides", not the key
                if (found) {
                    failed = true;
                    return;
                }
                found = true;
                for (++k; k < n && isBlank(text[k]);)
                    ++k;
                if (k >= n || text[k] != '[') {
                    failed = true;
                    return;
                }
                open = k;
                inArray = true;
                depth = 2;
                next = k + 1;
                paused = stopAtArray;
            }
        } else if (c == '"') {
            inString = true;
            stringBegin = i + 1;
        } else if (c == '[' || c == '{') {
            ++depth;
        } else if (c == ']' || c == '}') {
            if (inArray && depth == 2) {
                if (c != ']') failed = true;
                ends.push_back(i);
                close = i;
                inArray = false;
            }
            if (--depth < 0) failed = true;
        } else if (c == ',' && inArray && depth == 2) {
            ends.push_back(i);
        }
    }
};

// Splits the text at the top-level "guides" array without parsing it (see Scanner); an empty
// element fails the split. A large array is scanned in parallel pieces: each piece after the first
// starts at a place that looks like the boundary of two elements ("},{\"id\":" as the writer
// puts it) and assumes the scan's state there; the piece before it must end in exactly that state,
// or the text is scanned again from the start in one piece. So the split is always the one a
// single scan gives.
bool splitGuideArray(std::string_view text, Split& split) {
    constexpr std::size_t kPiece = std::size_t(4) << 20;
    constexpr std::string_view kBoundary = "},{\"id\":";
    // The text up to the array's '[': the key must be found before the pieces can start.
    Scanner head(text);
    head.stopAtArray = true;
    head.scan(0, text.size());
    if (!head.found || head.failed) return false;
    head.stopAtArray = head.paused = false;

    // Piece starts: the comma of a boundary at or after each nominal start.
    std::vector<std::size_t> starts{head.next};
    for (std::size_t nominal = head.next + kPiece; nominal < text.size(); nominal += kPiece) {
        const std::size_t at = text.find(kBoundary, std::max(nominal, starts.back() + 1));
        if (at == std::string_view::npos) break;
        starts.push_back(at + 1);
        nominal = at + 1;
    }
    std::vector<Scanner> pieces(starts.size(), Scanner(text));
    pieces[0] = head;
    for (std::size_t k = 1; k < pieces.size(); ++k) {
        pieces[k].depth = 2;
        pieces[k].found = pieces[k].inArray = true;
        pieces[k].open = head.open;
        pieces[k].next = starts[k];
    }
    parallelRange(0, pieces.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end; ++k) {
            const std::size_t to = k + 1 < starts.size() ? starts[k + 1] : text.size();
            pieces[k].scan(starts[k], to);
        }
    });
    bool joined = true;
    for (std::size_t k = 0; k + 1 < pieces.size() && joined; ++k) {
        const Scanner& piece = pieces[k];
        joined = !piece.failed && !piece.inString && piece.inArray && piece.depth == 2 &&
                 piece.next <= starts[k + 1];
    }
    Scanner whole(text);
    const Scanner* last = &pieces.back();
    if (joined) {
        for (std::size_t k = 1; k < pieces.size(); ++k) {
            pieces[0].ends.insert(pieces[0].ends.end(), pieces[k].ends.begin(),
                                  pieces[k].ends.end());
        }
        pieces[0].ends.swap(pieces.back().ends);
    } else {
        whole.scan(0, text.size());
        last = &whole;
    }
    const Scanner& done = *last;
    if (done.failed || !done.found || done.inArray || done.inString || done.depth != 0)
        return false;

    split.open = done.open;
    split.close = done.close;
    const bool emptyArray =
        done.ends.size() == 1 && blankText(text.substr(done.open + 1, done.close - done.open - 1));
    if (emptyArray) return true;
    split.elements.resize(done.ends.size());
    std::size_t begin = done.open + 1;
    for (std::size_t k = 0; k < done.ends.size(); ++k) {
        if (blankText(text.substr(begin, done.ends[k] - begin))) return false;
        split.elements[k] = {begin, done.ends[k]};
        begin = done.ends[k] + 1;
    }
    return true;
}

// Reads one guide element as the whole parse would, for the layout the writer makes and anything
// close to it. Anything it is not sure of throws NotSplit.
class ElementReader {
  public:
    ElementReader(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

    void read(Guide& g, std::string_view& shapeName, bool& hasUpLocal) {
        unsigned seen = 0;
        expect('{');
        if (!consume('}')) {
            do {
                const Key key = keyOf(string());
                expect(':');
                if (key == kUnknown || (seen & key)) throw NotSplit{};
                seen |= key;
                switch (key) {
                    case kId:
                        if (!toUnsigned(number(), std::numeric_limits<std::uint64_t>::max(),
                                        g.id) ||
                            g.id == 0)
                            throw NotSplit{};
                        break;
                    case kGroup: {
                        std::uint64_t group = 0;
                        if (!toUnsigned(number(), std::numeric_limits<std::uint32_t>::max(), group))
                            throw NotSplit{};
                        g.group = static_cast<std::uint32_t>(group);
                        break;
                    }
                    case kRoot:
                        expect('[');
                        if (!toFace(number(), g.root.face)) throw NotSplit{};
                        expect(',');
                        g.root.u = floating();
                        expect(',');
                        g.root.v = floating();
                        expect(']');
                        break;
                    case kFrameUp:
                        g.frameUp = vector();
                        break;
                    case kTube:
                        tube(g.tube, shapeName);
                        break;
                    case kParent:
                        if (!toUnsigned(number(), std::numeric_limits<std::uint64_t>::max(),
                                        g.parent))
                            throw NotSplit{};
                        break;
                    case kLocked:
                        g.locked = boolean();
                        break;
                    case kOwn:
                        g.ownSegments = boolean();
                        break;
                    case kAttributes:
                        object([&](std::string_view name) {
                            if (!g.attributes.emplace(std::string(name), floating()).second)
                                throw NotSplit{};
                        });
                        break;
                    case kPointAttributes:
                        object([&](std::string_view name) {
                            auto [layer, fresh] = g.pointAttributes.try_emplace(std::string(name));
                            if (!fresh) throw NotSplit{};
                            floats(layer->second);
                        });
                        break;
                    case kOffsets:
                        flat(g.offsets);
                        break;
                    case kPointCount:
                        g.pointCount = clampedCount(number(), kMaxPointCount);
                        break;
                    case kPoints:
                        flat(g.points);
                        break;
                    case kRootLocal:
                        flat(g.rootLocal);
                        break;
                    case kUpLocal:
                        g.frameUpLocal = vector();
                        hasUpLocal = true;
                        break;
                    case kUnknown:
                        break;
                }
            } while (consume(','));
            expect('}');
        }
        blanks();
        if (p_ != end_) throw NotSplit{};
        if ((seen & (kId | kGroup | kRoot | kFrameUp)) != (kId | kGroup | kRoot | kFrameUp))
            throw NotSplit{};
    }

  private:
    enum Key : unsigned {
        kUnknown = 0,
        kId = 1u << 0,
        kGroup = 1u << 1,
        kRoot = 1u << 2,
        kFrameUp = 1u << 3,
        kTube = 1u << 4,
        kParent = 1u << 5,
        kLocked = 1u << 6,
        kOwn = 1u << 7,
        kAttributes = 1u << 8,
        kPointAttributes = 1u << 9,
        kOffsets = 1u << 10,
        kPointCount = 1u << 11,
        kPoints = 1u << 12,
        kRootLocal = 1u << 13,
        kUpLocal = 1u << 14,
    };
    static Key keyOf(std::string_view key) {
        switch (key.size()) {
            case 2:
                return key == "id" ? kId : kUnknown;
            case 4:
                return key == "root" ? kRoot : key == "tube" ? kTube : kUnknown;
            case 5:
                return key == "group" ? kGroup : kUnknown;
            case 6:
                return key == "parent"   ? kParent
                       : key == "locked" ? kLocked
                       : key == "points" ? kPoints
                                         : kUnknown;
            case 7:
                return key == "frameUp" ? kFrameUp : key == "offsets" ? kOffsets : kUnknown;
            case 9:
                return key == "rootLocal" ? kRootLocal : kUnknown;
            case 10:
                return key == "attributes"   ? kAttributes
                       : key == "pointCount" ? kPointCount
                                             : kUnknown;
            case 11:
                return key == "ownSegments" ? kOwn : kUnknown;
            case 12:
                return key == "frameUpLocal" ? kUpLocal : kUnknown;
            case 15:
                return key == "pointAttributes" ? kPointAttributes : kUnknown;
            default:
                return kUnknown;
        }
    }

    void blanks() {
        while (p_ < end_ && isBlank(*p_))
            ++p_;
    }
    bool consume(char c) {
        blanks();
        if (p_ < end_ && *p_ == c) {
            ++p_;
            return true;
        }
        return false;
    }
    void expect(char c) {
        if (!consume(c)) throw NotSplit{};
    }
    // A string without escapes and of printable ASCII only; the whole parse takes the others.
    std::string_view string() {
        expect('"');
        const char* begin = p_;
        while (p_ < end_ && *p_ != '"') {
            const unsigned char c = static_cast<unsigned char>(*p_);
            if (c < 0x20 || c >= 0x7f || c == '\\') throw NotSplit{};
            ++p_;
        }
        if (p_ == end_) throw NotSplit{};
        return {begin, static_cast<std::size_t>(p_++ - begin)};
    }
    bool boolean() {
        blanks();
        if (end_ - p_ >= 4 && std::string_view(p_, 4) == "true") {
            p_ += 4;
            return true;
        }
        if (end_ - p_ >= 5 && std::string_view(p_, 5) == "false") {
            p_ += 5;
            return false;
        }
        throw NotSplit{};
    }
    // A number by JSON's grammar, held as the library would hold it: integers that fit 64 bits as
    // integers (signed when they carry a minus), anything else as a double.
    Number number() {
        blanks();
        const char* begin = p_;
        const bool negative = p_ < end_ && *p_ == '-';
        if (negative) ++p_;
        auto digit = [this] { return p_ < end_ && *p_ >= '0' && *p_ <= '9'; };
        std::uint64_t value = 0;
        bool fits = true;
        if (p_ < end_ && *p_ == '0') {
            ++p_;
        } else if (digit()) {
            for (; digit(); ++p_) {
                fits = fits && !__builtin_mul_overflow(value, 10u, &value) &&
                       !__builtin_add_overflow(value, std::uint64_t(*p_ - '0'), &value);
            }
        } else {
            throw NotSplit{};
        }
        bool integer = true;
        if (p_ < end_ && *p_ == '.') {
            integer = false;
            ++p_;
            if (!digit()) throw NotSplit{};
            while (digit())
                ++p_;
        }
        if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
            integer = false;
            ++p_;
            if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
            if (!digit()) throw NotSplit{};
            while (digit())
                ++p_;
        }
        Number n;
        if (integer && fits && !negative) {
            n.u = value;
            return n;
        }
        if (integer && fits && value <= (std::uint64_t(1) << 63)) {
            n.kind = Number::Signed;
            n.i = value == (std::uint64_t(1) << 63) ? std::numeric_limits<std::int64_t>::min()
                                                    : -static_cast<std::int64_t>(value);
            return n;
        }
        n.kind = Number::Float;
        if (std::from_chars(begin, p_, n.d).ec != std::errc()) throw NotSplit{};
        return n;
    }
    float floating() {
        float out = 0.0f;
        if (!toFloat(number(), out)) throw NotSplit{};
        return out;
    }
    Vec3f vector() {
        expect('[');
        Vec3f v;
        v.x = floating();
        expect(',');
        v.y = floating();
        expect(',');
        v.z = floating();
        expect(']');
        return v;
    }
    void floats(std::vector<float>& out) {
        expect('[');
        if (consume(']')) return;
        do {
            out.push_back(floating());
        } while (consume(','));
        expect(']');
    }
    // Three numbers a point, read into a scratch list first so that the guide's list is allocated
    // once at its size. The scratch list is the thread's, kept from element to element.
    void flat(std::vector<Vec3f>& out) {
        thread_local std::vector<Vec3f> scratch;
        scratch.clear();
        expect('[');
        if (!consume(']')) {
            do {
                Vec3f v;
                v.x = floating();
                expect(',');
                v.y = floating();
                expect(',');
                v.z = floating();
                scratch.push_back(v);
            } while (consume(','));
            expect(']');
        }
        out.assign(scratch.begin(), scratch.end());
    }
    template <class Each>
    void object(Each each) {
        expect('{');
        if (consume('}')) return;
        do {
            const std::string_view name = string();
            expect(':');
            each(name);
        } while (consume(','));
        expect('}');
    }
    // A tube curve: a number or a non-empty list of numbers.
    void curve(std::vector<float>& out) {
        out.clear();
        blanks();
        if (p_ < end_ && *p_ == '[') {
            floats(out);
            if (out.empty()) throw NotSplit{};
        } else {
            out.push_back(floating());
        }
    }
    void tube(TubeFields& tube, std::string_view& shapeName) {
        unsigned seen = 0;
        object([&](std::string_view key) {
            const unsigned bit = key == "shape"    ? 1u
                                 : key == "width"  ? 2u
                                 : key == "aspect" ? 4u
                                 : key == "twist"  ? 8u
                                                   : 0u;
            if (bit == 0 || (seen & bit)) throw NotSplit{};
            seen |= bit;
            if (bit == 1u) {
                shapeName = string();
            } else {
                curve(bit == 2u ? tube.width : bit == 4u ? tube.aspect : tube.twist);
            }
        });
        for (const float w : tube.width)
            if (!(w >= 0.0f)) throw NotSplit{};
        for (const float a : tube.aspect)
            if (!(a > 0.0f)) throw NotSplit{};
    }

    const char* p_;
    const char* end_;
};

// Grows the list to `count` guides, touching the new storage's pages from all threads first: a
// million guides are hundreds of megabytes, and the first touch of a page (the system's zero fill)
// would otherwise fall on one thread while the list is built.
void resizeTouchingInParallel(std::vector<Guide>& guides, std::size_t count) {
    if (count <= guides.size()) return;
    guides.reserve(count);
    constexpr std::size_t kPage = 4096;
    unsigned char* storage = reinterpret_cast<unsigned char*>(guides.data() + guides.size());
    const std::size_t bytes = (count - guides.size()) * sizeof(Guide);
    parallelRange(0, (bytes + kPage - 1) / kPage, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t page = begin; page < end; ++page)
            storage[page * kPage] = 0;
    });
    guides.resize(count);
}

constexpr DocumentFormat kGuideData{
    .kind = "guide data",
    .version = kGuideDataVersion,
    .invalidJson = "invalid guide data: ",
    .notAnObject = "invalid guide data: guide data must be a JSON object"};

}  // namespace

// --- Writing -----------------------------------------------------------------------------------

std::string GuideHierarchy::toJson() const {
    std::string out = "{\"groups\":[";
    for (std::size_t i = 0; i < groups_.size(); ++i) {
        const GuideGroup& group = groups_[i];
        if (i) out += ',';
        out += "{\"id\":";
        appendInteger(out, group.id);
        out += ",\"name\":";
        appendString(out, group.name);
        out += ",\"parent\":";
        appendInteger(out, group.parent);
        if (group.segments > 0) {
            out += ",\"segments\":";
            appendInteger(out, group.segments);
        }
        out += '}';
    }
    out += "],\"guides\":[";
    const std::size_t n = guides_.size();
    if (n <= kParallelWriteAbove) {
        for (std::size_t i = 0; i < n; ++i) {
            if (i) out += ',';
            appendGuide(out, guides_[i]);
        }
    } else {
        // Blocks of guides written in parallel, then joined in order.
        const std::size_t blocks = (n + kWriteBlock - 1) / kWriteBlock;
        std::vector<std::string> pieces(blocks);
        parallelRange(0, blocks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t b = begin; b < end; ++b) {
                std::string& piece = pieces[b];
                piece.reserve(kWriteBlock * 512);
                const std::size_t last = std::min(n, (b + 1) * kWriteBlock);
                for (std::size_t i = b * kWriteBlock; i < last; ++i) {
                    if (i) piece += ',';
                    appendGuide(piece, guides_[i]);
                }
            }
        });
        std::size_t total = out.size();
        for (const std::string& piece : pieces)
            total += piece.size();
        out.reserve(total + 256);
        for (const std::string& piece : pieces)
            out += piece;
    }
    out += ']';
    if (scalpTopology_ != 0) {
        out += ",\"scalpTopology\":";
        appendInteger(out, scalpTopology_);
    }
    if (!tubeShapes_.empty()) {
        out += ",\"tubeShapes\":[";
        bool first = true;
        for (const auto& [name, shape] : tubeShapes_) {
            if (!first) out += ',';
            first = false;
            out += "{\"name\":";
            appendString(out, shape->name);
            out += ",\"points\":[";
            for (std::size_t i = 0; i < shape->points.size(); ++i) {
                if (i) out += ',';
                appendNumber(out, shape->points[i].x);
                out += ',';
                appendNumber(out, shape->points[i].y);
            }
            out += "],\"smooth\":";
            out += shape->smooth ? "true" : "false";
            out += '}';
        }
        out += ']';
    }
    out += ",\"version\":";
    appendInteger(out, kGuideDataVersion);
    out += '}';
    return out;
}

// --- Reading -----------------------------------------------------------------------------------

class GuideDataReader {
  public:
    static GuideHierarchy read(std::string_view text, GuideReadMode mode, bool* usedSplitScan) {
        if (usedSplitScan) *usedSplitScan = false;
        if (isBlankDocument(text)) return {};
        try {
            Json header;
            std::vector<Guide> guides;
            std::vector<std::string_view> shapeNames;
            std::vector<char> upLocal;
            bool split = false;
            if (mode != GuideReadMode::WholeParse) {
                try {
                    split = readSplit(text, header, guides, shapeNames, upLocal);
                } catch (const NotSplit&) {
                } catch (const std::exception&) {
                }
                if (!split) {
                    if (mode == GuideReadMode::SplitOnly) bad("not split");
                    guides.clear();
                    shapeNames.clear();
                    upLocal.clear();
                }
            }
            if (!split) {
                // Not blank, so there is a document.
                header = *openDocument(text, kGuideData);
                if (auto found = header.find("guides"); found != header.end()) {
                    if (!found->is_array()) bad("\"guides\" must be a list of guides");
                    const Json& list = *found;
                    guides.resize(list.size());
                    shapeNames.resize(list.size());
                    upLocal.resize(list.size());
                    for (std::size_t i = 0; i < list.size(); ++i) {
                        bool hasUpLocal = false;
                        guideFromJson(list[i], guides[i], shapeNames[i], hasUpLocal);
                        upLocal[i] = hasUpLocal;
                    }
                }
            }
            if (usedSplitScan) *usedSplitScan = split;
            return assemble(header, std::move(guides), shapeNames, upLocal);
        } catch (const SchemaError&) {
            throw;
        } catch (const std::exception& error) {
            throw SchemaError(std::string("invalid guide data: ") + error.what());
        }
    }

  private:
    static bool readSplit(std::string_view text, Json& header, std::vector<Guide>& guides,
                          std::vector<std::string_view>& shapeNames, std::vector<char>& upLocal) {
        Split split;
        if (!splitGuideArray(text, split)) return false;
        std::string rest;
        rest.reserve(split.open + 2 + (text.size() - split.close - 1));
        rest.append(text.substr(0, split.open));
        rest.append("[]");
        rest.append(text.substr(split.close + 1));
        // A fault here sends the text through the whole parse, which words it.
        header = *openDocument(rest, kGuideData);
        // Another spelling of the key (an escape in it) would hold guides the scan did not see.
        auto found = header.find("guides");
        if (found == header.end() || !found->is_array() || !found->empty()) return false;

        const std::size_t n = split.elements.size();
        resizeTouchingInParallel(guides, n);
        shapeNames.resize(n);
        upLocal.assign(n, 0);
        parallelRange(0, n, kReadGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const auto [first, last] = split.elements[i];
                bool hasUpLocal = false;
                ElementReader(text.substr(first, last - first))
                    .read(guides[i], shapeNames[i], hasUpLocal);
                upLocal[i] = hasUpLocal;
            }
        });
        return true;
    }

    // The checks and bookkeeping both paths share, from the header and the guides read.
    static GuideHierarchy assemble(const Json& header, std::vector<Guide> guides,
                                   const std::vector<std::string_view>& shapeNames,
                                   const std::vector<char>& upLocal) {
        GuideHierarchy h;
        if (auto found = header.find("scalpTopology"); found != header.end()) {
            if (!found->is_number() ||
                !toUnsigned(numberOf(*found), std::numeric_limits<std::uint64_t>::max(),
                            h.scalpTopology_)) {
                bad("\"scalpTopology\" must be a whole number");
            }
        }
        readGroups(header, h);
        readShapes(header, h);

        h.guides_ = std::move(guides);
        const std::size_t n = h.guides_.size();
        if (h.index_.assign(h.guides_) != 0) {
            // Which of several shared ids the parallel index meets first varies: name the first
            // one in the data's order.
            GuideIdIndex seen;
            for (std::size_t i = 0; i < n; ++i)
                if (!seen.insert(h.guides_[i].id, static_cast<std::uint32_t>(i)))
                    bad("guide " + std::to_string(h.guides_[i].id) + " appears twice");
        }

        // Per guide, in parallel: its tube shape by name (built-in, the retired one, the
        // library's, or missing), what it must not carry dropped, and the first problem found.
        enum Problem : std::uint8_t { kFine, kNoGroup, kFollowsItself, kNoParent, kNoUpLocal };
        std::unordered_map<std::uint32_t, std::uint32_t> groupParent;
        for (const GuideGroup& group : h.groups_)
            groupParent.emplace(group.id, group.parent);
        std::vector<std::uint8_t> problems(n, kFine), missingShape(n, 0);
        std::atomic<std::uint64_t> highest{0};
        parallelRange(0, n, kFinishGrain, [&](std::size_t begin, std::size_t end) {
            std::uint64_t top = 0;
            for (std::size_t i = begin; i < end; ++i) {
                Guide& g = h.guides_[i];
                top = std::max(top, g.id);
                const std::string_view name = shapeNames[i];
                if (!name.empty() && !tubeShapeFromName(name, g.tube.shape) &&
                    name != kRetiredRound) {
                    auto shape = h.tubeShapes_.find(name);
                    if (shape != h.tubeShapes_.end()) {
                        g.tube.custom = shape->second;
                    } else {
                        missingShape[i] = 1;
                    }
                }
                if (groupParent.count(g.group) == 0) {
                    problems[i] = kNoGroup;
                } else if (g.parent == g.id) {
                    problems[i] = kFollowsItself;
                } else if (g.parent != 0 && !h.index_.contains(g.parent)) {
                    problems[i] = kNoParent;
                } else if (!g.rootLocal.empty() && !upLocal[i]) {
                    problems[i] = kNoUpLocal;
                }
                if (g.parent == 0) g.locked = false;
                if (g.parent == 0 || g.locked) {
                    g.offsets.clear();
                    g.pointCount = 0;
                } else {
                    g.rootLocal.clear();
                }
                g.needsUpRefresh = true;
            }
            for (std::uint64_t seen = highest.load(); seen < top;)
                highest.compare_exchange_weak(seen, top);
        });
        for (std::size_t i = 0; i < n; ++i) {
            if (problems[i] == kFine) continue;
            const Guide& g = h.guides_[i];
            const std::string guide = "guide " + std::to_string(g.id);
            switch (problems[i]) {
                case kNoGroup:
                    bad(guide + " is in group " + std::to_string(g.group) +
                        ", which the data does not hold");
                case kFollowsItself:
                    bad(guide + " follows itself");
                case kNoParent:
                    bad(guide + " follows guide " + std::to_string(g.parent) +
                        ", which the data does not hold");
                default:
                    bad(guide + " has \"rootLocal\" without \"frameUpLocal\"");
            }
        }
        h.nextGuideId_ = highest.load() + 1;

        std::map<std::string, std::size_t, std::less<>> missing;
        for (std::size_t i = 0; i < n; ++i)
            if (missingShape[i]) ++missing[std::string(shapeNames[i])];
        for (const auto& [name, count] : missing) {
            h.loadWarnings_.push_back(
                "tube shape '" + name +
                "' is not in the groom's shape library: " + std::to_string(count) +
                (count == 1 ? " guide" : " guides") + " taking it loaded round");
        }
        return h;
    }

    static void readGroups(const Json& header, GuideHierarchy& h) {
        auto found = header.find("groups");
        if (found == header.end()) return;
        if (!found->is_array()) bad("\"groups\" must be a list of groups");
        std::uint32_t highest = 0;
        for (const Json& entry : *found) {
            if (!entry.is_object()) bad("each group must be a JSON object");
            GuideGroup group;
            std::uint64_t value = 0;
            auto id = entry.find("id");
            if (id == entry.end() || !id->is_number() ||
                !toUnsigned(numberOf(*id), std::numeric_limits<std::uint32_t>::max(), value) ||
                value == 0) {
                bad("each group needs an \"id\", a whole number from 1");
            }
            group.id = static_cast<std::uint32_t>(value);
            auto name = entry.find("name");
            if (name == entry.end() || !name->is_string() ||
                name->get_ref<const std::string&>().empty())
                bad("group " + std::to_string(group.id) + " needs a \"name\"");
            group.name = name->get<std::string>();
            if (auto parent = entry.find("parent"); parent != entry.end()) {
                if (!parent->is_number() ||
                    !toUnsigned(numberOf(*parent), std::numeric_limits<std::uint32_t>::max(),
                                value)) {
                    bad("group " + std::to_string(group.id) + ": \"parent\" must be a group id");
                }
                group.parent = static_cast<std::uint32_t>(value);
            }
            if (auto segments = entry.find("segments"); segments != entry.end()) {
                if (!segments->is_number())
                    bad("group " + std::to_string(group.id) + ": \"segments\" must be a number");
                group.segments = clampedCount(numberOf(*segments), kMaxSegments);
            }
            if (h.findGroup(group.id)) bad("group " + std::to_string(group.id) + " appears twice");
            if (h.findGroup(group.name)) bad("a guide group named '" + group.name + "' exists");
            highest = std::max(highest, group.id);
            h.groups_.push_back(std::move(group));
        }
        for (const GuideGroup& group : h.groups_) {
            if (group.parent != 0 && !h.findGroup(group.parent)) {
                bad("group " + std::to_string(group.id) + " has parent group " +
                    std::to_string(group.parent) + ", which the data does not hold");
            }
        }
        h.nextGroupId_ = highest + 1;
    }

    static void readShapes(const Json& header, GuideHierarchy& h) {
        auto found = header.find("tubeShapes");
        if (found == header.end()) return;
        if (!found->is_array()) bad("\"tubeShapes\" must be a list of shapes");
        for (const Json& entry : *found) {
            if (!entry.is_object()) bad("each tube shape must be a JSON object");
            auto name = entry.find("name");
            if (name == entry.end() || !name->is_string()) bad("each tube shape needs a \"name\"");
            const std::string& shapeName = name->get_ref<const std::string&>();
            if (h.tubeShapes_.count(shapeName) != 0)
                bad("a tube shape named '" + shapeName + "' exists");
            h.tubeShapes_.emplace(shapeName, parseCustomTubeShape(shapeName, entry));
        }
    }
};

GuideHierarchy GuideHierarchy::fromJson(std::string_view text, GuideReadMode mode,
                                        bool* usedSplitScan) {
    return GuideDataReader::read(text, mode, usedSplitScan);
}

}  // namespace velmorin
