#include "io/deflate.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace velmorin {
namespace {

static_assert(std::endian::native == std::endian::little,
              "the bit writer stores its accumulator as little-endian bytes");

// ---- CRC-32, eight bytes a step -----------------------------------------------------------------

struct CrcTables {
    std::array<std::array<std::uint32_t, 256>, 8> t{};
    constexpr CrcTables() {
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[0][n] = c;
        }
        for (std::uint32_t n = 0; n < 256; ++n) {
            for (int k = 1; k < 8; ++k)
                t[k][n] = (t[k - 1][n] >> 8) ^ t[0][t[k - 1][n] & 0xFF];
        }
    }
};
constexpr CrcTables kCrc;

// ---- Deflate's fixed tables
// -----------------------------------------------------------------------

constexpr std::array<std::uint16_t, 29> kLengthBase = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                                       15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                                       67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::array<std::uint8_t, 29> kLengthExtra = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                       2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::array<std::uint16_t, 30> kDistBase = {
    1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr std::array<std::uint8_t, 30> kDistExtra = {0, 0, 0,  0,  1,  1,  2,  2,  3,  3,
                                                     4, 4, 5,  5,  6,  6,  7,  7,  8,  8,
                                                     9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
// The order in which code-length code lengths are sent.
constexpr std::array<std::uint8_t, 19> kCodeLengthOrder = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                                           11, 4,  12, 3, 13, 2, 14, 1, 15};

struct SymbolTables {
    std::array<std::uint8_t, 256> lengthCode{};  // by length - 3
    std::array<std::uint8_t, 512> distCode{};    // by distance - 1 below 256, then by (d - 1) >> 7
    constexpr SymbolTables() {
        for (int code = 0; code < 29; ++code) {
            const int count = code == 28 ? 1 : 1 << kLengthExtra[code];
            for (int k = 0; k < count; ++k) {
                const int length = kLengthBase[code] + k;
                if (length <= 258) lengthCode[length - 3] = static_cast<std::uint8_t>(code);
            }
        }
        for (int code = 0; code < 30; ++code) {
            for (int k = 0; k < (1 << kDistExtra[code]); ++k) {
                const int d = kDistBase[code] + k - 1;
                if (d < 256)
                    distCode[d] = static_cast<std::uint8_t>(code);
                else
                    distCode[256 + (d >> 7)] = static_cast<std::uint8_t>(code);
            }
        }
    }
};
constexpr SymbolTables kSymbols;

inline int distCodeOf(int distance) {
    const int d = distance - 1;
    return d < 256 ? kSymbols.distCode[d] : kSymbols.distCode[256 + (d >> 7)];
}

constexpr int kLitLenCodes = 286;
constexpr int kDistCodes = 30;
constexpr int kEndOfBlock = 256;

// ---- Huffman codes ------------------------------------------------------------------------------

// Code lengths for `count` symbols, at most `limit` bits. Symbols with a frequency get a code, and
// at least two symbols always do, so that every code is complete (some decoders refuse others).
void buildLengths(const std::uint32_t* freq, int count, int limit, std::uint8_t* lengths) {
    std::fill(lengths, lengths + count, std::uint8_t{0});
    std::array<int, kLitLenCodes> symbols{};
    int n = 0;
    for (int s = 0; s < count; ++s) {
        if (freq[s] != 0) symbols[n++] = s;
    }
    for (int s = 0; s < count && n < 2; ++s) {
        if (freq[s] == 0) symbols[n++] = s;
    }
    std::sort(symbols.begin(), symbols.begin() + n,
              [&](int a, int b) { return freq[a] != freq[b] ? freq[a] < freq[b] : a < b; });

    // Two queues: leaves in frequency order, and internal nodes, which are made in weight order.
    std::array<std::uint64_t, 2 * kLitLenCodes> weight{};
    std::array<int, 2 * kLitLenCodes> parent{};
    for (int k = 0; k < n; ++k)
        weight[k] = freq[symbols[k]];
    int leaf = 0;
    int node = n;
    for (int next = n; next < 2 * n - 1; ++next) {
        int pick[2];
        for (int& p : pick) {
            if (leaf < n && (node >= next || weight[leaf] <= weight[node]))
                p = leaf++;
            else
                p = node++;
        }
        weight[next] = weight[pick[0]] + weight[pick[1]];
        parent[pick[0]] = parent[pick[1]] = next;
    }
    std::array<int, 2 * kLitLenCodes> depth{};
    depth[2 * n - 2] = 0;
    for (int k = 2 * n - 3; k >= 0; --k)
        depth[k] = depth[parent[k]] + 1;

    // Count codes per length, then move the too-long ones up as the JPEG standard's adjustment
    // does: two codes at the longest length give way to one a bit shorter and a pair of codes
    // made by splitting a shorter leaf.
    std::array<int, 2 * kLitLenCodes> perLength{};
    int longest = 0;
    for (int k = 0; k < n; ++k) {
        ++perLength[depth[k]];
        longest = std::max(longest, depth[k]);
    }
    for (int i = longest; i > limit; --i) {
        while (perLength[i] > 0) {
            int j = i - 2;
            while (perLength[j] == 0)
                --j;
            perLength[i] -= 2;
            perLength[i - 1] += 1;
            perLength[j + 1] += 2;
            perLength[j] -= 1;
        }
    }
    // The most frequent symbols take the shortest codes.
    int k = n - 1;
    for (int len = 1; len <= limit; ++len) {
        for (int c = 0; c < perLength[len]; ++c)
            lengths[symbols[k--]] = static_cast<std::uint8_t>(len);
    }
    assert(k == -1);
}

// Canonical codes for the lengths, bit-reversed for deflate's least-significant-first packing.
void buildCodes(const std::uint8_t* lengths, int count, std::uint16_t* codes) {
    std::array<int, 16> perLength{};
    for (int s = 0; s < count; ++s)
        ++perLength[lengths[s]];
    perLength[0] = 0;
    std::array<int, 16> next{};
    int code = 0;
    for (int len = 1; len < 16; ++len) {
        code = (code + perLength[len - 1]) << 1;
        next[len] = code;
    }
    for (int s = 0; s < count; ++s) {
        const int len = lengths[s];
        if (len == 0) continue;
        int c = next[len]++;
        int reversed = 0;
        for (int b = 0; b < len; ++b, c >>= 1)
            reversed = (reversed << 1) | (c & 1);
        codes[s] = static_cast<std::uint16_t>(reversed);
    }
}

// ---- Bits out -----------------------------------------------------------------------------------

class BitWriter {
  public:
    explicit BitWriter(std::vector<std::uint8_t>& out) : out_(out), size_(out.size()) {}

    void put(std::uint32_t bits, int count) {
        acc_ |= static_cast<std::uint64_t>(bits) << filled_;
        filled_ += count;
        if (filled_ >= 32) {
            reserve(4);
            const auto word = static_cast<std::uint32_t>(acc_);
            std::memcpy(out_.data() + size_, &word, 4);
            size_ += 4;
            acc_ >>= 32;
            filled_ -= 32;
        }
    }
    // Pads the last byte with zeros and trims the buffer to what was written.
    void finish() {
        reserve(8);
        while (filled_ > 0) {
            out_[size_++] = static_cast<std::uint8_t>(acc_);
            acc_ >>= 8;
            filled_ -= 8;
        }
        filled_ = 0;
        out_.resize(size_);
    }

  private:
    void reserve(std::size_t bytes) {
        if (size_ + bytes > out_.size()) out_.resize(std::max(out_.size() * 2, size_ + 65536));
    }

    std::vector<std::uint8_t>& out_;
    std::size_t size_;
    std::uint64_t acc_ = 0;
    int filled_ = 0;
};

// A symbol of the LZ77 pass: a literal byte (distance 0) or a match, packed as
// distance << 8 | (literal or length - 3).
using Symbol = std::uint32_t;

struct BlockCodes {
    std::array<std::uint8_t, kLitLenCodes> litLengths{};
    std::array<std::uint16_t, kLitLenCodes> litCodes{};
    std::array<std::uint8_t, kDistCodes> distLengths{};
    std::array<std::uint16_t, kDistCodes> distCodes{};
};

const BlockCodes& fixedCodes() {
    static const BlockCodes codes = [] {
        // The fixed code is defined over 288 symbols; the two that are never sent still take
        // their place in the canonical order.
        std::array<std::uint8_t, 288> lengths{};
        std::array<std::uint16_t, 288> codes{};
        for (int s = 0; s < 288; ++s)
            lengths[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
        buildCodes(lengths.data(), 288, codes.data());
        BlockCodes c;
        std::copy_n(lengths.begin(), kLitLenCodes, c.litLengths.begin());
        std::copy_n(codes.begin(), kLitLenCodes, c.litCodes.begin());
        c.distLengths.fill(5);
        buildCodes(c.distLengths.data(), kDistCodes, c.distCodes.data());
        return c;
    }();
    return codes;
}

struct BlockWriter {
    BitWriter& bits;
    std::array<std::uint32_t, kLitLenCodes> litFreq{};
    std::array<std::uint32_t, kDistCodes> distFreq{};

    void countLiteral(int literal) { ++litFreq[literal]; }
    void countMatch(int length, int distance) {
        ++litFreq[257 + kSymbols.lengthCode[length - 3]];
        ++distFreq[distCodeOf(distance)];
    }

    void write(std::span<const Symbol> symbols, bool last) {
        litFreq[kEndOfBlock] = 1;
        BlockCodes dynamic;
        buildLengths(litFreq.data(), kLitLenCodes, 15, dynamic.litLengths.data());
        buildLengths(distFreq.data(), kDistCodes, 15, dynamic.distLengths.data());
        buildCodes(dynamic.litLengths.data(), kLitLenCodes, dynamic.litCodes.data());
        buildCodes(dynamic.distLengths.data(), kDistCodes, dynamic.distCodes.data());

        int litCount = kLitLenCodes;
        while (litCount > 257 && dynamic.litLengths[litCount - 1] == 0)
            --litCount;
        int distCount = kDistCodes;
        while (distCount > 1 && dynamic.distLengths[distCount - 1] == 0)
            --distCount;

        // The code lengths of both alphabets, run-length coded with symbols 16, 17 and 18.
        std::array<std::uint8_t, kLitLenCodes + kDistCodes> all{};
        std::copy_n(dynamic.litLengths.begin(), litCount, all.begin());
        std::copy_n(dynamic.distLengths.begin(), distCount, all.begin() + litCount);
        const int total = litCount + distCount;
        struct Run {
            std::uint8_t symbol;
            std::uint8_t extra;
        };
        std::array<Run, kLitLenCodes + kDistCodes> runs{};
        int runCount = 0;
        std::array<std::uint32_t, 19> clFreq{};
        auto emit = [&](int symbol, int extra) {
            runs[runCount++] = {static_cast<std::uint8_t>(symbol),
                                static_cast<std::uint8_t>(extra)};
            ++clFreq[symbol];
        };
        for (int i = 0; i < total;) {
            const int len = all[i];
            int run = 1;
            while (i + run < total && all[i + run] == len)
                ++run;
            i += run;
            if (len == 0) {
                while (run >= 11) {
                    const int r = std::min(run, 138);
                    emit(18, r - 11);
                    run -= r;
                }
                if (run >= 3) {
                    emit(17, run - 3);
                    run = 0;
                }
            } else {
                emit(len, 0);
                --run;
                while (run >= 3) {
                    const int r = std::min(run, 6);
                    emit(16, r - 3);
                    run -= r;
                }
            }
            for (; run > 0; --run)
                emit(len, 0);
        }
        std::array<std::uint8_t, 19> clLengths{};
        std::array<std::uint16_t, 19> clCodes{};
        buildLengths(clFreq.data(), 19, 7, clLengths.data());
        buildCodes(clLengths.data(), 19, clCodes.data());
        int clCount = 19;
        while (clCount > 4 && clLengths[kCodeLengthOrder[clCount - 1]] == 0)
            --clCount;

        // Bits that differ between the two forms (extra bits of lengths and distances are equal).
        const BlockCodes& fixed = fixedCodes();
        std::uint64_t dynamicBits = 5 + 5 + 4 + 3 * static_cast<std::uint64_t>(clCount);
        for (int k = 0; k < runCount; ++k) {
            const int s = runs[k].symbol;
            dynamicBits += clLengths[s] + (s == 16 ? 2 : s == 17 ? 3 : s == 18 ? 7 : 0);
        }
        std::uint64_t fixedBits = 0;
        for (int s = 0; s < kLitLenCodes; ++s) {
            dynamicBits += std::uint64_t{litFreq[s]} * dynamic.litLengths[s];
            fixedBits += std::uint64_t{litFreq[s]} * fixed.litLengths[s];
        }
        for (int s = 0; s < kDistCodes; ++s) {
            dynamicBits += std::uint64_t{distFreq[s]} * dynamic.distLengths[s];
            fixedBits += std::uint64_t{distFreq[s]} * fixed.distLengths[s];
        }

        const BlockCodes* codes = &dynamic;
        if (fixedBits <= dynamicBits) {
            codes = &fixed;
            bits.put(last ? 1 : 0, 1);
            bits.put(1, 2);
        } else {
            bits.put(last ? 1 : 0, 1);
            bits.put(2, 2);
            bits.put(static_cast<std::uint32_t>(litCount - 257), 5);
            bits.put(static_cast<std::uint32_t>(distCount - 1), 5);
            bits.put(static_cast<std::uint32_t>(clCount - 4), 4);
            for (int k = 0; k < clCount; ++k)
                bits.put(clLengths[kCodeLengthOrder[k]], 3);
            for (int k = 0; k < runCount; ++k) {
                const int s = runs[k].symbol;
                bits.put(clCodes[s], clLengths[s]);
                if (s == 16)
                    bits.put(runs[k].extra, 2);
                else if (s == 17)
                    bits.put(runs[k].extra, 3);
                else if (s == 18)
                    bits.put(runs[k].extra, 7);
            }
        }

        for (const Symbol symbol : symbols) {
            const std::uint32_t distance = symbol >> 8;
            const std::uint32_t low = symbol & 0xFF;
            if (distance == 0) {
                bits.put(codes->litCodes[low], codes->litLengths[low]);
                continue;
            }
            const int lc = kSymbols.lengthCode[low];
            bits.put(codes->litCodes[257 + lc], codes->litLengths[257 + lc]);
            if (kLengthExtra[lc] != 0) bits.put(low + 3 - kLengthBase[lc], kLengthExtra[lc]);
            const int dc = distCodeOf(static_cast<int>(distance));
            bits.put(codes->distCodes[dc], codes->distLengths[dc]);
            if (kDistExtra[dc] != 0) bits.put(distance - kDistBase[dc], kDistExtra[dc]);
        }
        bits.put(codes->litCodes[kEndOfBlock], codes->litLengths[kEndOfBlock]);

        litFreq.fill(0);
        distFreq.fill(0);
    }
};

// ---- LZ77 ---------------------------------------------------------------------------------------

constexpr int kWindowBits = 15;
constexpr int kWindowMask = (1 << kWindowBits) - 1;
constexpr int kMaxDistance = (1 << kWindowBits) - 1;  // so that no chain slot is reused in reach
constexpr int kHashBits = 15;
constexpr int kMinMatch = 3;
constexpr int kMaxMatch = 258;
// The search effort of zlib's default level: chains of 128, a quarter of that once a match of 8
// is in hand, no lazy search past a match of 16, and no search past a match of 128.
constexpr int kMaxChain = 128;
constexpr int kGoodMatch = 8;
constexpr int kMaxLazy = 16;
constexpr int kNiceMatch = 128;
// A three-byte match this far back costs more bits than three literals.
constexpr int kTooFar = 4096;
constexpr std::size_t kBlockSymbols = 1 << 15;

inline std::uint32_t hash3(const std::uint8_t* p) {
    const std::uint32_t v =
        std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16;
    return (v * 0x9E3779B1u) >> (32 - kHashBits);
}

inline int matchLength(const std::uint8_t* a, const std::uint8_t* b, int maxLength) {
    int len = 0;
    while (len + 8 <= maxLength) {
        std::uint64_t x;
        std::uint64_t y;
        std::memcpy(&x, a + len, 8);
        std::memcpy(&y, b + len, 8);
        if (x != y) return len + (std::countr_zero(x ^ y) >> 3);
        len += 8;
    }
    while (len < maxLength && a[len] == b[len])
        ++len;
    return len;
}

class Matcher {
  public:
    explicit Matcher(std::span<const std::uint8_t> data) : data_(data.data()), size_(data.size()) {
        head_.fill(-1);
    }

    // Links position `pos` into its hash chain and returns the chain's previous head.
    int insert(std::size_t pos) {
        const std::uint32_t h = hash3(data_ + pos);
        const int previous = head_[h];
        prev_[pos & kWindowMask] = previous;
        head_[h] = static_cast<int>(pos);
        return previous;
    }

    // The longest match at `pos` that is longer than `shorterThan`, searching from `candidate`.
    // Returns its length (or `shorterThan` when nothing longer was found) and sets `distance`.
    int longest(std::size_t pos, int candidate, int shorterThan, int& distance) const {
        const int maxLength = static_cast<int>(std::min<std::size_t>(kMaxMatch, size_ - pos));
        int best = shorterThan;
        if (best >= maxLength) return best;
        const int nice = std::min(kNiceMatch, maxLength);
        int chain = best >= kGoodMatch ? kMaxChain >> 2 : kMaxChain;
        const long limit = static_cast<long>(pos) - kMaxDistance;
        const std::uint8_t* here = data_ + pos;
        while (candidate >= 0 && candidate >= limit && chain-- > 0) {
            const std::uint8_t* there = data_ + candidate;
            if (there[best] == here[best] && there[0] == here[0] && there[1] == here[1]) {
                const int len = matchLength(there, here, maxLength);
                if (len > best) {
                    best = len;
                    distance = static_cast<int>(pos - static_cast<std::size_t>(candidate));
                    if (len >= nice) break;
                }
            }
            candidate = prev_[candidate & kWindowMask];
        }
        return best;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::array<int, 1 << kHashBits> head_;
    std::array<int, 1 << kWindowBits> prev_{};
};

}  // namespace

std::uint32_t crc32(std::uint32_t crc, std::span<const std::uint8_t> data) {
    std::uint32_t c = ~crc;
    const std::uint8_t* p = data.data();
    std::size_t n = data.size();
    const auto& t = kCrc.t;
    while (n >= 8) {
        std::uint32_t lo;
        std::uint32_t hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + 4, 4);
        lo ^= c;
        c = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
            t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
        p += 8;
        n -= 8;
    }
    while (n-- > 0)
        c = t[0][(c ^ *p++) & 0xFF] ^ (c >> 8);
    return ~c;
}

std::uint32_t adler32(std::uint32_t adler, std::span<const std::uint8_t> data) {
    constexpr std::uint32_t kBase = 65521;
    // The most bytes that can be summed before the 32-bit sums might overflow.
    constexpr std::size_t kRun = 5552;
    std::uint32_t a = adler & 0xFFFF;
    std::uint32_t b = adler >> 16;
    const std::uint8_t* p = data.data();
    std::size_t n = data.size();
    while (n > 0) {
        const std::size_t run = std::min(n, kRun);
        for (std::size_t k = 0; k < run; ++k) {
            a += p[k];
            b += a;
        }
        a %= kBase;
        b %= kBase;
        p += run;
        n -= run;
    }
    return b << 16 | a;
}

void deflateAppend(std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out) {
    if (data.size() > 0x7FFFFFFFu) {
        throw std::invalid_argument("deflate: more than 2 GiB of data in one stream");
    }
    BitWriter bits(out);
    BlockWriter block{bits};
    std::vector<Symbol> symbols;
    symbols.reserve(kBlockSymbols + 2);
    auto flushIfFull = [&] {
        if (symbols.size() >= kBlockSymbols) {
            block.write(symbols, false);
            symbols.clear();
        }
    };
    auto literal = [&](std::uint8_t byte) {
        symbols.push_back(byte);
        block.countLiteral(byte);
        flushIfFull();
    };
    auto match = [&](int length, int distance) {
        symbols.push_back(static_cast<Symbol>(distance) << 8 | static_cast<Symbol>(length - 3));
        block.countMatch(length, distance);
        flushIfFull();
    };

    auto matcher = std::make_unique<Matcher>(data);
    const std::uint8_t* bytes = data.data();
    const std::size_t n = data.size();
    // One step of lazy matching: a match found at pos - 1 waits to see whether pos has a longer.
    bool pending = false;
    int pendingLength = 0;
    int pendingDistance = 0;
    std::size_t pos = 0;
    while (pos < n) {
        int length = kMinMatch - 1;
        int distance = 0;
        if (pos + kMinMatch <= n) {
            const int candidate = matcher->insert(pos);
            const int floor = pending ? pendingLength : kMinMatch - 1;
            if (candidate >= 0 && (!pending || pendingLength < kMaxLazy)) {
                length = matcher->longest(pos, candidate, floor, distance);
                if (length == floor) length = kMinMatch - 1;
                if (length == kMinMatch && distance > kTooFar) length = kMinMatch - 1;
            }
        }
        if (pending) {
            if (length > pendingLength) {
                literal(bytes[pos - 1]);
                pendingLength = length;
                pendingDistance = distance;
                ++pos;
                continue;
            }
            match(pendingLength, pendingDistance);
            // The match began at pos - 1; pos is linked already, link the rest of it.
            const std::size_t end = pos - 1 + static_cast<std::size_t>(pendingLength);
            for (std::size_t k = pos + 1; k < end; ++k) {
                if (k + kMinMatch <= n) matcher->insert(k);
            }
            pos = end;
            pending = false;
            continue;
        }
        if (length >= kMinMatch) {
            if (length >= kMaxLazy) {
                match(length, distance);
                const std::size_t end = pos + static_cast<std::size_t>(length);
                for (std::size_t k = pos + 1; k < end; ++k) {
                    if (k + kMinMatch <= n) matcher->insert(k);
                }
                pos = end;
            } else {
                pending = true;
                pendingLength = length;
                pendingDistance = distance;
                ++pos;
            }
            continue;
        }
        literal(bytes[pos]);
        ++pos;
    }
    if (pending) match(pendingLength, pendingDistance);
    block.write(symbols, true);
    bits.finish();
}

void zlibAppend(std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out) {
    // Deflate with a 32 KiB window (0x78), default effort, header check bits making 0x789C
    // divisible by 31.
    out.push_back(0x78);
    out.push_back(0x9C);
    deflateAppend(data, out);
    const std::uint32_t sum = adler32(1, data);
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(sum >> shift));
}

}  // namespace velmorin
