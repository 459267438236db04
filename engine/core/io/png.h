#pragma once
// The PNG writer of painted maps and baked images: 8-bit images of 1 to 4 channels (gray, gray and
// alpha, RGB, RGBA), each row filtered with the filter that suits it best, compressed with the
// engine's own deflate.

#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

namespace velmorin {

// An 8-bit image that the caller owns: rows from top to bottom, channels interleaved.
struct ImageView {
    int width = 0;
    int height = 0;
    int channels = 0;
    std::span<const std::uint8_t> pixels;  // width * height * channels bytes
};

// The bytes of a PNG file of the image. Throws std::invalid_argument "encodePng: bad size or
// channels" for a size under 1 or channels outside 1 to 4, and "encodePng: pixel count does not
// match the size" when the pixels are not width * height * channels bytes.
std::vector<std::uint8_t> encodePng(const ImageView& image);

// encodePng of each image, one task per image on the shared pool; the results are in the images'
// order. Throws "encodePngs: an image has no pixels" before encoding anything when an image has
// none, and otherwise encodePng's errors.
std::vector<std::vector<std::uint8_t>> encodePngs(std::span<const ImageView> images);

// Encodes the image and writes it to a ".tmp" sibling of `path`, renamed over `path` once complete,
// so that a reader never sees half a file. Throws encodePng's errors, or std::runtime_error
// "could not write <path>: <reason>" when the file can't be written (the target is untouched).
void writePng(const std::filesystem::path& path, const ImageView& image);

}  // namespace velmorin
