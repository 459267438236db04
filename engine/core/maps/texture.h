#pragma once
// Images read from disk for painted maps, brush alphas and any param that reads an image: a plain
// image, or a UDIM tile set whose tiles are read on first use. Textures are values: once made they
// never change, and they are shared by pointer through the process-wide texture cache.

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/scalp_mesh.h"

namespace velmorin {

// The failures of maps and images that the artist can act on: a file that is missing or not an
// image, a map that does not fit its scalp, a scalp without UVs.
class TextureError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The side of the largest square image read, 16384: a file with more pixels than its square is
// refused before any memory is taken for it.
constexpr int kDefaultTextureSizeLimit = 16384;
// Lowers that side for the whole process (from 1 to the default; values outside are clamped), so
// that a fuzz run or a small tool bounds the time and memory any one image can take. Thread safe;
// images already read stay as they are.
void setTextureSizeLimit(int side);
int textureSizeLimit();

// The tile of a UDIM set that holds the UV (u, v): 1001 + floor(u) + 10 * floor(v).
int udimTile(float u, float v);

// The UDIM pattern of a path: the path with its file name's tile token ("<UDIM>", "<udim>" or
// "%(UDIM)d", first found in that order) or tile number replaced by "<UDIM>". A tile number is
// the first run of exactly four digits, from 1001 to 1100, with the name's edge or one of - . _ on
// each side. Empty when the name has neither: the file is a plain image, not a set.
std::string parseUdimPattern(std::string_view path);

class Texture {
  public:
    // A texture of the caller's pixels, rows from top to bottom, channels (1 to 4) interleaved.
    // Bytes read as value / 255; floats as they are. Throws std::invalid_argument "Texture: size
    // does not match its data" unless there are width * height * channels values, or "Texture:
    // bad size or channels" for a size below 1 or channels outside 1 to 4.
    Texture(int width, int height, int channels, std::vector<std::uint8_t> pixels);
    Texture(int width, int height, int channels, std::vector<float> pixels);

    // The image at `path` through the texture cache, or the UDIM set it belongs to (see
    // parseUdimPattern). Throws TextureError when the file (for a set: every tile) is missing or
    // is not an image that can be read.
    static std::shared_ptr<const Texture> load(const std::string& path);
    // A UDIM set from its pattern. Throws std::invalid_argument "Texture: a UDIM pattern needs
    // <UDIM>" for a pattern without it, TextureError when no tile of the set exists. The lowest
    // tile is read at once, so that the set knows its size and channels; the others on first use.
    static std::shared_ptr<const Texture> loadUdim(const std::string& pattern);
    // Decodes an image file's bytes (PNG, JPEG, TGA, BMP, PSD, GIF, HDR, PIC, PNM) without the
    // cache; 8-bit files keep bytes, 16-bit and HDR files become floats. `name` is for messages.
    // Throws TextureError for a file that is not an image, has more pixels than the size limit
    // allows, or is cut short: its data ends before its pixels do (found from its structure
    // before decoding where the format allows, else when the decoder asks for bytes past the end).
    static std::shared_ptr<const Texture> decode(std::span<const std::uint8_t> bytes,
                                                 std::string_view name);

    // For a UDIM set, those of its lowest tile.
    int width() const { return width_; }
    int height() const { return height_; }
    int channels() const { return channels_; }
    bool isUdim() const { return !pattern_.empty(); }
    const std::string& udimPattern() const { return pattern_; }
    // The tile numbers of a set that exist on disk, ascending; empty for a plain image.
    const std::vector<int>& udimTiles() const { return tileNumbers_; }
    // A tile of the set, read on first use; null when the tile does not exist or can't be read.
    std::shared_ptr<const Texture> tile(int number) const;

    bool hasFloatPixels() const { return !floats_.empty(); }
    std::span<const std::uint8_t> bytePixels() const { return bytes_; }
    std::span<const float> floatPixels() const { return floats_; }
    // Memory held by the pixels (the tiles of a set are held, and counted, by the cache).
    std::size_t byteSize() const { return bytes_.size() + floats_.size() * sizeof(float); }

    // Channel c of texel (x, y), as 0 to 1 for bytes.
    float texel(int x, int y, int c) const {
        const std::size_t at = (static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) +
                                static_cast<std::size_t>(x)) *
                                   static_cast<std::size_t>(channels_) +
                               static_cast<std::size_t>(c);
        return floats_.empty() ? bytes_[at] * (1.0f / 255.0f) : floats_[at];
    }

    // The colour at (u, v) with bilinear filtering; v runs up the image, so v = 0 is its bottom
    // row. A plain image clamps UVs to 0-1; a set reads the tile under the UV and gives zero
    // where no tile is. Gray gives (g, g, g, 1), gray and alpha (g, g, g, a), RGB (r, g, b, 1).
    // Never throws; safe from any number of threads.
    Rgba sample(float u, float v) const;

  private:
    Texture() = default;
    Rgba sampleImage(float u, float v) const;

    int width_ = 0;
    int height_ = 0;
    int channels_ = 0;
    std::vector<std::uint8_t> bytes_;
    std::vector<float> floats_;

    // UDIM sets only: tiles 1001 to 1100, each read once on first use.
    struct Tile {
        std::once_flag read;
        std::shared_ptr<const Texture> image;
    };
    std::string pattern_;
    std::vector<int> tileNumbers_;
    std::unique_ptr<std::array<Tile, 100>> tiles_;
};

// Luminance of a colour with the Rec. 709 weights, the gray value of colour maps.
inline float luminance(const Rgba& c) {
    return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b;
}

}  // namespace velmorin
