// Guide data JSON, the split path: a scan that cuts the text at the elements of its guide array
// without parsing it, and a small reader for one element. See guide_json.cpp for how the reader
// chooses between this path and the whole parse.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/parallel.h"
#include "editing/guide_hierarchy.h"
#include "editing/guide_json_internal.h"

namespace velmorin {
namespace guide_json_internal {
namespace {

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

}  // namespace

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

namespace {

// The element reader's work: a small JSON reader that knows the keys of a guide.
class ElementParser {
  public:
    explicit ElementParser(std::string_view text)
        : p_(text.data()), end_(text.data() + text.size()) {}

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

}  // namespace

void ElementReader::read(Guide& g, std::string_view& shapeName, bool& hasUpLocal) {
    ElementParser(text_).read(g, shapeName, hasUpLocal);
}

}  // namespace guide_json_internal
}  // namespace velmorin
