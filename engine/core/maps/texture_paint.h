#pragma once
// The canvas of a texture map while it is painted: the image in memory, in bytes or floats, with an
// undo record of what each stroke changed. The record keeps whole 64 x 64 texel tiles, saved the
// first time a stroke touches them, so a stroke over a large map costs memory in proportion to the
// area it painted.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "maps/texture.h"

namespace velmorin {

struct MapDab;

// One stroke's change to a TexturePaint: for each touched tile the values of the other state.
// Recorded with the values from before the stroke; each applyEdit swaps them with the image, so
// the same record undoes and then redoes.
struct TextureEdit {
    // The image the edit was recorded on.
    int width = 0;
    int height = 0;
    int channels = 0;
    bool floatPixels = false;
    // The texels the touched tiles cover: [left, right) x [top, bottom), rows counted from the top.
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
    std::vector<std::uint32_t> tiles;  // tile indices, row by row of 64 x 64 tiles
    std::vector<std::uint8_t> bytes;   // each tile's texels in turn, rows of the tile's width
    std::vector<float> floats;         // instead of bytes, for a float image

    bool empty() const { return tiles.empty(); }
    // Memory the record holds.
    std::size_t byteSize() const { return tiles.size() * 4 + bytes.size() + floats.size() * 4; }
};

// A texel of a dab: its index (y * width + x) and the dab's weight there.
struct TexelHit {
    std::uint32_t texel;
    float weight;
};

class TexturePaint {
  public:
    static constexpr int kTileSize = 64;
    static constexpr int kMaxSize = 16384;

    // A black image (alpha 1 for colour). Throws std::invalid_argument "TexturePaint: the image
    // has no size" for a width or height of 0, "TexturePaint: the image needs a positive size"
    // for one below 0 or above kMaxSize, "TexturePaint: a map has 1 channel (gray) or 4 (color)".
    TexturePaint(int width, int height, int channels, bool floatPixels = false);
    // An image of the caller's bytes, rows from the top. The size and channels errors as above, and
    // "TexturePaint: size does not match its data" unless there are width * height * channels.
    TexturePaint(int width, int height, int channels, std::vector<std::uint8_t> pixels);

    // The image of a texture: gray stays gray, every other layout becomes colour (RGB takes alpha
    // 1, gray and alpha spreads its gray). 8-bit images give bytes, others floats. Throws
    // TextureError "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as scalp
    // maps" for a set, and one that names the size for an image wider or taller than kMaxSize.
    static TexturePaint fromTexture(const Texture& texture);

    // The texture map's image at `path` for painting. Throws TextureError "<name> is not a PNG,
    // and painting writes PNG: link the map to its image again (Relink Image), which paints a PNG
    // copy" for another format, the UDIM message for a set, and Texture::load's errors.
    static TexturePaint loadForPainting(const std::string& name, const std::string& path);

    int width() const { return width_; }
    int height() const { return height_; }
    int channels() const { return channels_; }
    bool hasFloatPixels() const { return !floats_.empty(); }
    std::span<const std::uint8_t> bytePixels() const { return bytes_; }
    std::span<const float> floatPixels() const { return floats_; }
    // Channel c of texel (x, y), 0 to 1 for bytes.
    float value(int x, int y, int c) const;

    // Changes since the image was last saved (markSaved), and a serial that counts every change,
    // so that a holder of an edit can tell whether the image is still where it left it.
    bool isDirty() const { return dirty_; }
    void markSaved() { dirty_ = false; }
    std::uint64_t serial() const { return serial_; }

    // Opens an edit record. Throws std::invalid_argument "TexturePaint: beginEdit while an edit is
    // being recorded".
    void beginEdit();
    bool isRecording() const { return recording_; }
    // Closes the record and hands it over (empty when nothing changed). Without an open record, an
    // empty edit.
    TextureEdit endEdit();
    // Swaps the edit's values with the image's. Throws std::invalid_argument "TexturePaint:
    // applyEdit while an edit is being recorded", "TexturePaint::applyEdit: the edit is of another
    // image" (another size, channel count or pixel type), "TexturePaint::applyEdit: the edit's
    // values are short"; the image is unchanged when it throws.
    void applyEdit(TextureEdit& edit);
    // Turns the image gray (by luminance) or colour. Throws "TexturePaint: setChannels while an
    // edit is being recorded" and the channels message.
    void setChannels(int channels);

    // Stamps the dab's value on the texels (each at most once), with the dab's strength, mode and
    // mask. Add and subtract are measured from the values the open edit saved, so that the dabs of
    // one stroke don't pile up. Returns how many texels changed.
    std::size_t stampTexels(std::span<const TexelHit> hits, const MapDab& dab);
    // Sets every texel to `value` (channels values, clamped to 0-1) in the mask's channels,
    // recorded when an edit is open. Returns how many texels changed. Throws std::invalid_argument
    // "TexturePaint: incomplete map value" for fewer values than channels.
    std::size_t fill(std::span<const float> value, std::uint8_t mask);

    // The image as a texture, to sample while it is painted.
    std::shared_ptr<const Texture> snapshot() const;
    // The image in 8 bits, rows from the top, as PNG files hold it.
    std::vector<std::uint8_t> toBytes() const;
    // Writes the image as a PNG (through a temporary file) and marks it saved.
    void save(const std::filesystem::path& path);

  private:
    int tilesAcross() const { return (width_ + kTileSize - 1) / kTileSize; }
    int tileCount() const { return tilesAcross() * ((height_ + kTileSize - 1) / kTileSize); }
    void tileRect(std::uint32_t tile, int& x0, int& y0, int& x1, int& y1) const;
    void saveTiles(std::span<const TexelHit> hits);
    void saveTileList(std::span<const std::uint32_t> tiles);
    void changed();

    int width_ = 0;
    int height_ = 0;
    int channels_ = 0;
    std::vector<std::uint8_t> bytes_;
    std::vector<float> floats_;
    bool dirty_ = false;
    std::uint64_t serial_ = 0;

    bool recording_ = false;
    TextureEdit edit_;
    std::vector<std::int64_t> tileSlot_;  // per tile, the offset of its saved values, or -1
};

}  // namespace velmorin
