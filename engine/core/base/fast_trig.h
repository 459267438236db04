#pragma once
// Sine and cosine for the per-point loops of the shape kernels, of an angle in turns: inline, with
// no call into the C library, and the same bits on every x86-64 machine and library version,
// because they are made of nothing but IEEE float additions, multiplications and conversions (no
// fused multiply-add: the build targets plain x86-64). The angle in quarter turns splits exactly
// into the nearest whole quarter and a remainder r in [-1/2, 1/2]; two short polynomials, fitted to
// sin(pi r / 2) and cos(pi r / 2) over that interval (Chebyshev fits, errors below 5e-9), give the
// values, which the whole quarters then swap and sign. Results lie within 2.5 float ulps of the
// true values, and a whole number of quarter turns gives exact 0 and 1.

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace velmorin {

struct SinCos {
    float sin = 0.0f;
    float cos = 1.0f;
};

// The sine and cosine of `turns` whole turns (2 pi radians each): of an angle in degrees, pass
// degrees / 360.
inline SinCos sinCosTurns(float turns) {
    // Adding and taking away 1.5 * 2^23 rounds a float below 2^22 in size to the nearest whole
    // number (ties to even) without a library call.
    // The rounded sum's last mantissa bits are the whole number itself (2^22 plus it, and 2^22 is
    // a multiple of 4), which gives the quadrant without a conversion.
    constexpr float kRoundMagic = 12582912.0f;
    const float quarters = 4.0f * turns;
    const float rounded = quarters + kRoundMagic;
    const float nearest = rounded - kRoundMagic;
    float r = quarters - nearest;
    std::uint32_t whole = std::bit_cast<std::uint32_t>(rounded);
    if (!(std::fabs(quarters) < 4194304.0f)) {
        if (std::fabs(quarters) < 4.6116860184273879e18f) {
            // From 2^22 quarters on a float counts half quarters at the finest: twice it is a
            // whole number, exact in an integer.
            const auto halves = static_cast<std::int64_t>(2.0f * quarters);
            whole = static_cast<std::uint32_t>(halves >> 1);
            r = (halves & 1) != 0 ? 0.5f : 0.0f;
        } else {
            // From 2^62 on a whole number of turns; infinity and NaN give NaN, which both
            // values carry.
            whole = 0;
            r = turns - turns;
        }
    }
    // The polynomials in pairs of terms (Estrin's order), which shortens the chain of operations
    // that waits on the angle.
    const float x = r * r;
    const float x2 = x * x;
    const float s = r * ((1.5707963219532366f + x * -0.6459634776648118f) +
                         x2 * (0.07968021764775542f + x * -0.004602149212814176f));
    const float c =
        (0.9999999999524894f + x * -1.2337005406331623f) +
        x2 * ((0.2536692036551135f + x * -0.02086006950026408f) + x2 * 0.0009036280663802505f);
    // Whole quarters turn (s, c): sin = s a + c b and cos = c a - s b with (a, b) = (1, 0),
    // (0, 1), (-1, 0), (0, -1). Multiplying by 0 and 1 is exact, and the table is read while the
    // polynomials are summed, so no branch sits on the way.
    static constexpr float kA[4] = {1.0f, 0.0f, -1.0f, 0.0f};
    static constexpr float kB[4] = {0.0f, 1.0f, 0.0f, -1.0f};
    const auto q = static_cast<std::size_t>(whole & 3);
    return {s * kA[q] + c * kB[q], c * kA[q] - s * kB[q]};
}

}  // namespace velmorin
