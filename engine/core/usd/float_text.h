#pragma once
// The shortest decimal text of a float that reads back as the same float, in std::to_chars's form
// (fixed or scientific, whichever is shorter, fixed on a tie), written faster than std::to_chars
// writes it: the exporters print tens of millions of floats a frame. The digits come from the
// Schubfach method (R. Giulietti, "The Schubfach way to render doubles", 2020) in its 32-bit form:
// one 64 by 32-bit product per bound with a table of 77 powers of ten, and no search over lengths.

#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace velmorin::float_text {

// 10^e for e in [-31, 45] as beta * 2^r with 2^63 <= beta < 2^64, rounded up.
inline constexpr int kPow10Min = -31;
inline constexpr std::uint64_t kPow10[] = {
    0x81CEB32C4B43FCF5ull, 0xA2425FF75E14FC32ull, 0xCAD2F7F5359A3B3Full, 0xFD87B5F28300CA0Eull,
    0x9E74D1B791E07E49ull, 0xC612062576589DDBull, 0xF79687AED3EEC552ull, 0x9ABE14CD44753B53ull,
    0xC16D9A0095928A28ull, 0xF1C90080BAF72CB2ull, 0x971DA05074DA7BEFull, 0xBCE5086492111AEBull,
    0xEC1E4A7DB69561A6ull, 0x9392EE8E921D5D08ull, 0xB877AA3236A4B44Aull, 0xE69594BEC44DE15Cull,
    0x901D7CF73AB0ACDAull, 0xB424DC35095CD810ull, 0xE12E13424BB40E14ull, 0x8CBCCC096F5088CCull,
    0xAFEBFF0BCB24AAFFull, 0xDBE6FECEBDEDD5BFull, 0x89705F4136B4A598ull, 0xABCC77118461CEFDull,
    0xD6BF94D5E57A42BDull, 0x8637BD05AF6C69B6ull, 0xA7C5AC471B478424ull, 0xD1B71758E219652Cull,
    0x83126E978D4FDF3Cull, 0xA3D70A3D70A3D70Bull, 0xCCCCCCCCCCCCCCCDull, 0x8000000000000000ull,
    0xA000000000000000ull, 0xC800000000000000ull, 0xFA00000000000000ull, 0x9C40000000000000ull,
    0xC350000000000000ull, 0xF424000000000000ull, 0x9896800000000000ull, 0xBEBC200000000000ull,
    0xEE6B280000000000ull, 0x9502F90000000000ull, 0xBA43B74000000000ull, 0xE8D4A51000000000ull,
    0x9184E72A00000000ull, 0xB5E620F480000000ull, 0xE35FA931A0000000ull, 0x8E1BC9BF04000000ull,
    0xB1A2BC2EC5000000ull, 0xDE0B6B3A76400000ull, 0x8AC7230489E80000ull, 0xAD78EBC5AC620000ull,
    0xD8D726B7177A8000ull, 0x878678326EAC9000ull, 0xA968163F0A57B400ull, 0xD3C21BCECCEDA100ull,
    0x84595161401484A0ull, 0xA56FA5B99019A5C8ull, 0xCECB8F27F4200F3Aull, 0x813F3978F8940985ull,
    0xA18F07D736B90BE6ull, 0xC9F2C9CD04674EDFull, 0xFC6F7C4045812297ull, 0x9DC5ADA82B70B59Eull,
    0xC5371912364CE306ull, 0xF684DF56C3E01BC7ull, 0x9A130B963A6C115Dull, 0xC097CE7BC90715B4ull,
    0xF0BDC21ABB48DB21ull, 0x96769950B50D88F5ull, 0xBC143FA4E250EB32ull, 0xEB194F8E1AE525FEull,
    0x92EFD1B8D0CF37BFull, 0xB7ABC627050305AEull, 0xE596B7B0C643C71Aull, 0x8F7E32CE7BEA5C70ull,
    0xB35DBF821AE4F38Cull,
};

// floor(log2(10^e)), floor(log10(2^q)) and floor(log10(3/4 * 2^q)) over the ranges a float needs.
constexpr int floorLog2Pow10(int e) {
    return (e * 1741647) >> 19;
}
constexpr int floorLog10Pow2(int q) {
    return (q * 1262611) >> 22;
}
constexpr int floorLog10ThreeQuartersPow2(int q) {
    return (q * 1262611 - 524031) >> 22;
}

// g * cp / 2^64 rounded to odd: exact enough to tell the three bounds apart.
inline std::uint32_t roundToOdd(std::uint64_t g, std::uint32_t cp) {
    // The 96-bit product shifted down by 32, from two 64-bit products (cp < 2^30, so no carry is
    // lost): its top 32 bits are the whole part, its low 32 the fraction's leading bits.
    const std::uint64_t low = (g & 0xFFFFFFFFu) * cp;
    const std::uint64_t middle = (g >> 32) * cp + (low >> 32);
    const auto y1 = static_cast<std::uint32_t>(middle >> 32);
    const auto y0 = static_cast<std::uint32_t>(middle);
    return y1 | (y0 > 1 ? 1u : 0u);
}

struct Decimal {
    std::uint32_t digits;  // no trailing zeros
    int exponent;          // the value is digits * 10^exponent
};

// A shortest decimal inside the rounding interval of a positive finite float, the nearest to it
// of those when there are several; it may end in zeros.
inline Decimal shortestUntrimmed(std::uint32_t bits) {
    const std::uint32_t fraction = bits & 0x7FFFFFu;
    const std::uint32_t biased = bits >> 23;
    std::uint32_t c = fraction;
    int q = -149;
    if (biased != 0) {
        c = fraction | 0x800000u;
        q = static_cast<int>(biased) - 150;
        // Whole numbers below 2^24 are their own shortest form.
        if (q <= 0 && q > -24 && (c & ((1u << -q) - 1)) == 0) return {c >> -q, 0};
    }
    const bool even = (c & 1) == 0;
    const bool lowerCloser = fraction == 0 && biased > 1;
    const std::uint32_t cbl = 4 * c - 2 + (lowerCloser ? 1 : 0);
    const std::uint32_t cb = 4 * c;
    const std::uint32_t cbr = 4 * c + 2;
    const int k = lowerCloser ? floorLog10ThreeQuartersPow2(q) : floorLog10Pow2(q);
    const int h = q + floorLog2Pow10(-k) + 1;
    const std::uint64_t g = kPow10[-k - kPow10Min];
    const std::uint32_t vbl = roundToOdd(g, cbl << h);
    const std::uint32_t vb = roundToOdd(g, cb << h);
    const std::uint32_t vbr = roundToOdd(g, cbr << h);
    const std::uint32_t lower = vbl + (even ? 0 : 1);
    const std::uint32_t upper = vbr - (even ? 0 : 1);
    // One digit fewer than vb / 4 has, when a number of that length lies in the interval.
    const std::uint32_t s = vb / 4;
    if (s >= 10) {
        const std::uint32_t sp = s / 10;
        const bool upInside = lower <= 40 * sp;
        const bool wpInside = 40 * sp + 40 <= upper;
        if (upInside != wpInside) return {sp + (wpInside ? 1 : 0), k + 1};
    }
    const bool uInside = lower <= 4 * s;
    const bool wInside = 4 * s + 4 <= upper;
    if (uInside != wInside) return {s + (wInside ? 1 : 0), k};
    const std::uint32_t mid = 4 * s + 2;
    const bool roundUp = vb > mid || (vb == mid && (s & 1) != 0);
    return {s + (roundUp ? 1 : 0), k};
}

inline Decimal shortestDecimal(std::uint32_t bits) {
    Decimal result = shortestUntrimmed(bits);
    while (result.digits % 10 == 0) {
        result.digits /= 10;
        ++result.exponent;
    }
    return result;
}

inline constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes the digits of `value` (at most 9) right-aligned to end at `end`; returns their count.
inline int writeDigits(char* end, std::uint32_t value) {
    char* out = end;
    while (value >= 100) {
        const std::uint32_t pair = value % 100;
        value /= 100;
        out -= 2;
        std::memcpy(out, kDigitPairs + 2 * pair, 2);
    }
    if (value >= 10) {
        out -= 2;
        std::memcpy(out, kDigitPairs + 2 * value, 2);
    } else {
        *--out = static_cast<char>('0' + value);
    }
    return static_cast<int>(end - out);
}

// Writes a finite float at `out` as std::to_chars writes its shortest form; returns the end. At
// most 15 characters.
inline char* writeFloat(char* out, float value) {
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
    if ((bits >> 31) != 0) *out++ = '-';
    if ((bits & 0x7FFFFFFFu) == 0) {
        *out++ = '0';
        return out;
    }
    const Decimal d = shortestDecimal(bits & 0x7FFFFFFFu);
    char digits[10];
    const int n = writeDigits(digits + 10, d.digits);
    const char* first = digits + 10 - n;
    const int k = d.exponent;
    const int sci = k + n - 1;  // the exponent of the scientific form
    const int scientificLength = n + (n > 1 ? 1 : 0) + 4;
    const int fixedLength = k >= 0 ? n + k : (n > -k ? n + 1 : 2 - k);
    if (fixedLength <= scientificLength) {
        if (k > 0) {
            // The float is a whole number. Past 2^24 its exact digits are as short as the shortest
            // digits padded with zeros, and nearer, so std::to_chars writes those.
            const int shift = static_cast<int>((bits >> 23) & 0xFFu) - 150;
            std::uint64_t whole = d.digits;
            if (shift >= 0) {
                whole = static_cast<std::uint64_t>((bits & 0x7FFFFFu) | 0x800000u) << shift;
            } else {
                for (int i = 0; i < k; ++i)
                    whole *= 10;
            }
            return std::to_chars(out, out + 20, whole).ptr;
        } else if (k == 0) {
            std::memcpy(out, first, static_cast<std::size_t>(n));
            out += n;
        } else if (n > -k) {
            const int whole = n + k;
            std::memcpy(out, first, static_cast<std::size_t>(whole));
            out += whole;
            *out++ = '.';
            std::memcpy(out, first + whole, static_cast<std::size_t>(-k));
            out += -k;
        } else {
            *out++ = '0';
            *out++ = '.';
            for (int i = 0; i < -k - n; ++i)
                *out++ = '0';
            std::memcpy(out, first, static_cast<std::size_t>(n));
            out += n;
        }
        return out;
    }
    *out++ = first[0];
    if (n > 1) {
        *out++ = '.';
        std::memcpy(out, first + 1, static_cast<std::size_t>(n - 1));
        out += n - 1;
    }
    *out++ = 'e';
    *out++ = sci < 0 ? '-' : '+';
    const int magnitude = sci < 0 ? -sci : sci;
    std::memcpy(out, kDigitPairs + 2 * magnitude, 2);
    return out + 2;
}

}  // namespace velmorin::float_text
