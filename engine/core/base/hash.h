#pragma once
// Hashing shared by the whole engine. There is no random generator state anywhere: every random
// draw is a hash of a stable id and a seed, so results never depend on order or thread count.

#include <cstdint>
#include <cstring>
#include <string_view>

namespace velmorin {

inline constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15ull;

// One SplitMix64 step over x + kGolden.
constexpr std::uint64_t mix64(std::uint64_t x) {
    std::uint64_t z = x + kGolden;
    z ^= z >> 30;
    z *= 0xBF58476D1CE4E5B9ull;
    z ^= z >> 27;
    z *= 0x94D049BB133111EBull;
    z ^= z >> 31;
    return z;
}

constexpr std::uint64_t hashCombine(std::uint64_t h, std::uint64_t v) {
    return mix64(((h << 6) + (h >> 2) + kGolden + v) ^ h);
}

// The top 24 bits of mix64(x) as a float in [0, 1).
constexpr float unitFloat(std::uint64_t x) {
    return static_cast<float>(mix64(x) >> 40) * (1.0f / 16777216.0f);
}

// The raw bit patterns of floats, as they enter hashes and exact comparisons.
inline std::uint32_t floatBits(float f) {
    std::uint32_t bits;
    std::memcpy(&bits, &f, sizeof bits);
    return bits;
}
inline std::uint64_t doubleBits(double d) {
    std::uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    return bits;
}

// Combines each byte of a text into h.
constexpr std::uint64_t hashBytes(std::uint64_t h, std::string_view text) {
    for (unsigned char c : text)
        h = hashCombine(h, c);
    return h;
}

// Combines the length of a text and then each byte: two texts that run together cannot collide.
constexpr std::uint64_t hashText(std::uint64_t h, std::string_view text) {
    return hashBytes(hashCombine(h, text.size()), text);
}

}  // namespace velmorin
