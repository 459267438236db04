#pragma once
// Helpers that the map, image and PNG tests and benchmarks share: images made from formulas.

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "base/hash.h"
#include "io/png.h"

namespace velmorin::test {

// A smooth map of the kind artists paint: slow waves over the whole image, each channel its own.
inline std::vector<std::uint8_t> smoothImage(int width, int height, int channels) {
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * channels);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < channels; ++c) {
                const float fx = static_cast<float>(x) / static_cast<float>(width);
                const float fy = static_cast<float>(y) / static_cast<float>(height);
                const float v = 0.5f + 0.3f * std::sin(6.0f * fx + 1.7f * c) * std::cos(5.0f * fy) +
                                0.15f * std::sin(11.0f * (fx + fy) + c);
                pixels[(static_cast<std::size_t>(y) * width + x) * channels + c] =
                    static_cast<std::uint8_t>(
                        std::lround(std::fmin(std::fmax(v, 0.0f), 1.0f) * 255.0f));
            }
        }
    }
    return pixels;
}

// Bytes hashed from a seed: nothing for deflate to find.
inline std::vector<std::uint8_t> noiseBytes(std::size_t count, std::uint64_t seed) {
    std::vector<std::uint8_t> bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(mix64(hashCombine(seed, i)));
    return bytes;
}

// One colour everywhere.
inline std::vector<std::uint8_t> flatImage(int width, int height, std::vector<std::uint8_t> color) {
    std::vector<std::uint8_t> pixels;
    pixels.reserve(static_cast<std::size_t>(width) * height * color.size());
    for (int i = 0; i < width * height; ++i)
        pixels.insert(pixels.end(), color.begin(), color.end());
    return pixels;
}

inline void writeFlatPng(const std::string& path, int width, int height,
                         const std::vector<std::uint8_t>& color) {
    const std::vector<std::uint8_t> pixels = flatImage(width, height, color);
    writePng(path, ImageView{width, height, static_cast<int>(color.size()), pixels});
}

}  // namespace velmorin::test
