#include "maps/texture_paint.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <stdexcept>

#include "base/parallel.h"
#include "io/png.h"
#include "maps/map_paint.h"
#include "maps/stamp_rule.h"

namespace velmorin {
namespace {

constexpr std::size_t kTexelGrain = 2048;

void checkChannels(int channels) {
    if (channels != 1 && channels != 4) {
        throw std::invalid_argument("TexturePaint: a map has 1 channel (gray) or 4 (color)");
    }
}

// Rounds half away from zero, as lround does, without its call.
std::uint8_t toByte(float value) {
    return static_cast<std::uint8_t>(std::clamp(value, 0.0f, 1.0f) * 255.0f + 0.5f);
}

// Gray from colour by luminance, colour from gray with alpha 1.
template <class T>
std::vector<T> convertLayout(const std::vector<T>& pixels, int from, int to, T one) {
    const std::size_t count = pixels.size() / static_cast<std::size_t>(from);
    std::vector<T> out(count * static_cast<std::size_t>(to));
    for (std::size_t i = 0; i < count; ++i) {
        if (to == 4) {
            out[i * 4] = out[i * 4 + 1] = out[i * 4 + 2] = pixels[i];
            out[i * 4 + 3] = one;
        } else {
            const float scale = std::is_same_v<T, float> ? 1.0f : 1.0f / 255.0f;
            const float gray = luminance({pixels[i * 4] * scale, pixels[i * 4 + 1] * scale,
                                          pixels[i * 4 + 2] * scale, 1.0f});
            if constexpr (std::is_same_v<T, float>)
                out[i] = gray;
            else
                out[i] = toByte(gray);
        }
    }
    return out;
}

bool endsWithPng(const std::string& path) {
    if (path.size() < 4) return false;
    std::string tail = path.substr(path.size() - 4);
    std::transform(tail.begin(), tail.end(), tail.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return tail == ".png";
}

}  // namespace

TexturePaint::TexturePaint(int width, int height, int channels, bool floatPixels) {
    if (width == 0 || height == 0)
        throw std::invalid_argument("TexturePaint: the image has no size");
    if (width < 0 || height < 0 || width > kMaxSize || height > kMaxSize) {
        throw std::invalid_argument("TexturePaint: the image needs a positive size");
    }
    checkChannels(channels);
    width_ = width;
    height_ = height;
    channels_ = channels;
    const std::size_t count = static_cast<std::size_t>(width) * height * channels;
    if (floatPixels)
        floats_.assign(count, 0.0f);
    else
        bytes_.assign(count, 0);
    if (channels == 4) {
        for (std::size_t i = 3; i < count; i += 4) {
            if (floatPixels)
                floats_[i] = 1.0f;
            else
                bytes_[i] = 255;
        }
    }
}

TexturePaint::TexturePaint(int width, int height, int channels, std::vector<std::uint8_t> pixels)
    : TexturePaint(width, height, channels, false) {
    if (pixels.size() != bytes_.size()) {
        throw std::invalid_argument("TexturePaint: size does not match its data");
    }
    bytes_ = std::move(pixels);
}

TexturePaint TexturePaint::fromTexture(const Texture& texture) {
    if (texture.isUdim()) {
        throw TextureError(
            "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as scalp maps");
    }
    if (texture.width() > kMaxSize || texture.height() > kMaxSize) {
        throw TextureError("a scalp map's image is at most 16384 x 16384 pixels; this one is " +
                           std::to_string(texture.width()) + " x " +
                           std::to_string(texture.height()) + ": scale it down to paint it");
    }
    const int channels = texture.channels() == 1 ? 1 : 4;
    TexturePaint paint(texture.width(), texture.height(), channels, texture.hasFloatPixels());
    const std::size_t count = static_cast<std::size_t>(texture.width()) * texture.height();
    const int from = texture.channels();
    auto copy = [&](auto source, auto& target, auto one) {
        for (std::size_t i = 0; i < count; ++i) {
            const auto* in = &source[i * from];
            auto* out = &target[i * channels];
            switch (from) {
                case 1:
                    out[0] = in[0];
                    break;
                case 2:
                    out[0] = out[1] = out[2] = in[0];
                    out[3] = in[1];
                    break;
                case 3:
                    out[0] = in[0];
                    out[1] = in[1];
                    out[2] = in[2];
                    out[3] = one;
                    break;
                default:
                    std::copy_n(in, 4, out);
                    break;
            }
        }
    };
    if (texture.hasFloatPixels())
        copy(texture.floatPixels(), paint.floats_, 1.0f);
    else
        copy(texture.bytePixels(), paint.bytes_, std::uint8_t{255});
    return paint;
}

TexturePaint TexturePaint::loadForPainting(const std::string& name, const std::string& path) {
    if (!endsWithPng(path)) {
        throw TextureError(
            name +
            " is not a PNG, and painting writes PNG: link the map to its image again "
            "(Relink Image), which paints a PNG copy");
    }
    if (!parseUdimPattern(path).empty()) {
        throw TextureError(
            "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as scalp maps");
    }
    return fromTexture(*Texture::load(path));
}

float TexturePaint::value(int x, int y, int c) const {
    const std::size_t at =
        (static_cast<std::size_t>(y) * width_ + static_cast<std::size_t>(x)) * channels_ + c;
    return floats_.empty() ? bytes_[at] * (1.0f / 255.0f) : floats_[at];
}

void TexturePaint::changed() {
    dirty_ = true;
    ++serial_;
}

void TexturePaint::tileRect(std::uint32_t tile, int& x0, int& y0, int& x1, int& y1) const {
    const int across = tilesAcross();
    x0 = static_cast<int>(tile % static_cast<std::uint32_t>(across)) * kTileSize;
    y0 = static_cast<int>(tile / static_cast<std::uint32_t>(across)) * kTileSize;
    x1 = std::min(width_, x0 + kTileSize);
    y1 = std::min(height_, y0 + kTileSize);
}

void TexturePaint::beginEdit() {
    if (recording_) {
        throw std::invalid_argument("TexturePaint: beginEdit while an edit is being recorded");
    }
    recording_ = true;
    edit_ = TextureEdit{width_, height_, channels_, hasFloatPixels(), 0, 0, 0, 0, {}, {}, {}};
    tileSlot_.assign(static_cast<std::size_t>(tileCount()), -1);
}

// Saves the tiles under the texels into the open record, those not saved yet, in tile order.
void TexturePaint::saveTiles(std::span<const TexelHit> hits) {
    const int across = tilesAcross();
    std::vector<std::uint32_t> fresh;
    for (const TexelHit& hit : hits) {
        const std::uint32_t x = hit.texel % static_cast<std::uint32_t>(width_);
        const std::uint32_t y = hit.texel / static_cast<std::uint32_t>(width_);
        const std::uint32_t tile =
            (y / kTileSize) * static_cast<std::uint32_t>(across) + x / kTileSize;
        if (tileSlot_[tile] == -1) {
            tileSlot_[tile] = -2;  // claimed; its offset is set when it is copied
            fresh.push_back(tile);
        }
    }
    std::sort(fresh.begin(), fresh.end());
    saveTileList(fresh);
}

// Copies the tiles' current values into the open record; none of them may be saved already.
void TexturePaint::saveTileList(std::span<const std::uint32_t> tiles) {
    const std::size_t stride = static_cast<std::size_t>(channels_);
    for (const std::uint32_t tile : tiles) {
        int x0, y0, x1, y1;
        tileRect(tile, x0, y0, x1, y1);
        const std::size_t offset = floats_.empty() ? edit_.bytes.size() : edit_.floats.size();
        tileSlot_[tile] = static_cast<std::int64_t>(offset);
        edit_.tiles.push_back(tile);
        for (int y = y0; y < y1; ++y) {
            const std::size_t row = (static_cast<std::size_t>(y) * width_ + x0) * stride;
            const std::size_t length = static_cast<std::size_t>(x1 - x0) * stride;
            if (floats_.empty()) {
                edit_.bytes.insert(edit_.bytes.end(), bytes_.begin() + row,
                                   bytes_.begin() + row + length);
            } else {
                edit_.floats.insert(edit_.floats.end(), floats_.begin() + row,
                                    floats_.begin() + row + length);
            }
        }
    }
}

std::size_t TexturePaint::stampTexels(std::span<const TexelHit> hits, const MapDab& dab) {
    const std::size_t texelCount = static_cast<std::size_t>(width_) * height_;
    for (const TexelHit& hit : hits) {
        if (hit.texel >= texelCount)
            throw std::invalid_argument("TexturePaint: a texel outside the image");
    }
    if (recording_) {
        std::vector<TexelHit> painted;
        for (const TexelHit& hit : hits) {
            if (detail::stampWeight(dab.strength, hit.weight) > 0.0f) painted.push_back(hit);
        }
        saveTiles(painted);
    }
    const std::size_t stride = static_cast<std::size_t>(channels_);
    const int across = tilesAcross();
    const bool isFloat = !floats_.empty();
    std::atomic<std::size_t> changedCount{0};
    parallelRange(0, hits.size(), kTexelGrain, [&](std::size_t begin, std::size_t end) {
        std::size_t count = 0;
        std::array<float, 4> before{};
        for (std::size_t i = begin; i < end; ++i) {
            const float w = detail::stampWeight(dab.strength, hits[i].weight);
            if (w <= 0.0f) continue;
            const std::size_t texel = hits[i].texel;
            const std::size_t at = texel * stride;
            // The value the stroke found: saved in the open record, or the current one.
            for (std::size_t c = 0; c < stride; ++c) {
                before[c] = isFloat ? floats_[at + c] : bytes_[at + c] * (1.0f / 255.0f);
            }
            if (recording_) {
                const std::size_t x = texel % static_cast<std::size_t>(width_);
                const std::size_t y = texel / static_cast<std::size_t>(width_);
                const std::size_t tileX = x / kTileSize * kTileSize;
                const std::size_t tileWidth = std::min<std::size_t>(kTileSize, width_ - tileX);
                const std::size_t tile =
                    (y / kTileSize) * static_cast<std::size_t>(across) + x / kTileSize;
                const std::size_t saved = static_cast<std::size_t>(tileSlot_[tile]) +
                                          ((y % kTileSize) * tileWidth + (x - tileX)) * stride;
                for (std::size_t c = 0; c < stride; ++c) {
                    before[c] = isFloat ? edit_.floats[saved + c]
                                        : edit_.bytes[saved + c] * (1.0f / 255.0f);
                }
            }
            bool texelChanged = false;
            for (int c = 0; c < channels_; ++c) {
                if (!detail::channelPainted(channels_, dab.channels, c)) continue;
                const std::size_t k = at + static_cast<std::size_t>(c);
                if (isFloat) {
                    const float next =
                        detail::stampValue(floats_[k], before[c], dab.value[c], w, dab.mode);
                    if (next != floats_[k]) {
                        floats_[k] = next;
                        texelChanged = true;
                    }
                } else {
                    const float current = bytes_[k] * (1.0f / 255.0f);
                    const std::uint8_t next =
                        toByte(detail::stampValue(current, before[c], dab.value[c], w, dab.mode));
                    if (next != bytes_[k]) {
                        bytes_[k] = next;
                        texelChanged = true;
                    }
                }
            }
            count += texelChanged ? 1 : 0;
        }
        changedCount += count;
    });
    if (changedCount > 0) changed();
    return changedCount;
}

std::size_t TexturePaint::fill(std::span<const float> value, std::uint8_t mask) {
    if (value.size() < static_cast<std::size_t>(channels_)) {
        throw std::invalid_argument("TexturePaint: incomplete map value");
    }
    if (recording_) {
        std::vector<std::uint32_t> unsaved;
        for (std::uint32_t tile = 0; tile < static_cast<std::uint32_t>(tileCount()); ++tile) {
            if (tileSlot_[tile] == -1) unsaved.push_back(tile);
        }
        saveTileList(unsaved);
    }
    const std::size_t stride = static_cast<std::size_t>(channels_);
    const std::size_t rowValues = static_cast<std::size_t>(width_) * stride;
    std::atomic<std::size_t> changedCount{0};
    parallelRange(0, static_cast<std::size_t>(height_), 16,
                  [&](std::size_t begin, std::size_t end) {
                      std::size_t count = 0;
                      for (std::size_t at = begin * rowValues; at < end * rowValues; at += stride) {
                          bool texelChanged = false;
                          for (int c = 0; c < channels_; ++c) {
                              if (!detail::channelPainted(channels_, mask, c)) continue;
                              const std::size_t k = at + static_cast<std::size_t>(c);
                              if (floats_.empty()) {
                                  const std::uint8_t next = toByte(value[c]);
                                  texelChanged |= bytes_[k] != next;
                                  bytes_[k] = next;
                              } else {
                                  const float next = std::clamp(value[c], 0.0f, 1.0f);
                                  texelChanged |= floats_[k] != next;
                                  floats_[k] = next;
                              }
                          }
                          count += texelChanged ? 1 : 0;
                      }
                      changedCount += count;
                  });
    if (changedCount > 0) changed();
    return changedCount;
}

TextureEdit TexturePaint::endEdit() {
    if (!recording_)
        return TextureEdit{width_, height_, channels_, hasFloatPixels(), 0, 0, 0, 0, {}, {}, {}};
    recording_ = false;
    TextureEdit edit = std::move(edit_);
    edit_ = {};
    tileSlot_.clear();
    // Tiles that were saved but came out as they were leave the record, so a stroke that changed
    // nothing leaves none.
    const std::size_t stride = static_cast<std::size_t>(channels_);
    std::size_t keptTiles = 0;
    std::size_t read = 0;
    std::size_t write = 0;
    edit.left = width_;
    edit.top = height_;
    for (std::size_t k = 0; k < edit.tiles.size(); ++k) {
        int x0, y0, x1, y1;
        tileRect(edit.tiles[k], x0, y0, x1, y1);
        const std::size_t rowLength = static_cast<std::size_t>(x1 - x0) * stride;
        const std::size_t size = rowLength * static_cast<std::size_t>(y1 - y0);
        bool same = true;
        for (int y = y0; y < y1 && same; ++y) {
            const std::size_t row = (static_cast<std::size_t>(y) * width_ + x0) * stride;
            const std::size_t saved = read + static_cast<std::size_t>(y - y0) * rowLength;
            same = floats_.empty()
                       ? std::equal(bytes_.begin() + row, bytes_.begin() + row + rowLength,
                                    edit.bytes.begin() + saved)
                       : std::equal(floats_.begin() + row, floats_.begin() + row + rowLength,
                                    edit.floats.begin() + saved);
        }
        if (!same) {
            if (floats_.empty())
                std::copy_n(edit.bytes.begin() + read, size, edit.bytes.begin() + write);
            else
                std::copy_n(edit.floats.begin() + read, size, edit.floats.begin() + write);
            edit.tiles[keptTiles++] = edit.tiles[k];
            write += size;
            edit.left = std::min(edit.left, x0);
            edit.top = std::min(edit.top, y0);
            edit.right = std::max(edit.right, x1);
            edit.bottom = std::max(edit.bottom, y1);
        }
        read += size;
    }
    edit.tiles.resize(keptTiles);
    if (floats_.empty())
        edit.bytes.resize(write);
    else
        edit.floats.resize(write);
    if (keptTiles == 0) edit.left = edit.top = 0;
    return edit;
}

void TexturePaint::applyEdit(TextureEdit& edit) {
    if (recording_) {
        throw std::invalid_argument("TexturePaint: applyEdit while an edit is being recorded");
    }
    const auto tiles = static_cast<std::uint32_t>(tileCount());
    if (edit.width != width_ || edit.height != height_ || edit.channels != channels_ ||
        edit.floatPixels != hasFloatPixels() ||
        std::any_of(edit.tiles.begin(), edit.tiles.end(),
                    [&](std::uint32_t t) { return t >= tiles; })) {
        throw std::invalid_argument("TexturePaint::applyEdit: the edit is of another image");
    }
    const std::size_t stride = static_cast<std::size_t>(channels_);
    std::size_t needed = 0;
    for (const std::uint32_t tile : edit.tiles) {
        int x0, y0, x1, y1;
        tileRect(tile, x0, y0, x1, y1);
        needed += static_cast<std::size_t>(x1 - x0) * static_cast<std::size_t>(y1 - y0) * stride;
    }
    if ((floats_.empty() ? edit.bytes.size() : edit.floats.size()) < needed) {
        throw std::invalid_argument("TexturePaint::applyEdit: the edit's values are short");
    }
    std::size_t offset = 0;
    for (const std::uint32_t tile : edit.tiles) {
        int x0, y0, x1, y1;
        tileRect(tile, x0, y0, x1, y1);
        const std::size_t rowLength = static_cast<std::size_t>(x1 - x0) * stride;
        for (int y = y0; y < y1; ++y) {
            const std::size_t row = (static_cast<std::size_t>(y) * width_ + x0) * stride;
            if (floats_.empty()) {
                std::swap_ranges(bytes_.begin() + row, bytes_.begin() + row + rowLength,
                                 edit.bytes.begin() + offset);
            } else {
                std::swap_ranges(floats_.begin() + row, floats_.begin() + row + rowLength,
                                 edit.floats.begin() + offset);
            }
            offset += rowLength;
        }
    }
    if (!edit.tiles.empty()) changed();
}

void TexturePaint::setChannels(int channels) {
    if (recording_) {
        throw std::invalid_argument("TexturePaint: setChannels while an edit is being recorded");
    }
    checkChannels(channels);
    if (channels == channels_) return;
    if (floats_.empty())
        bytes_ = convertLayout<std::uint8_t>(bytes_, channels_, channels, 255);
    else
        floats_ = convertLayout<float>(floats_, channels_, channels, 1.0f);
    channels_ = channels;
    changed();
}

std::shared_ptr<const Texture> TexturePaint::snapshot() const {
    if (floats_.empty()) return std::make_shared<const Texture>(width_, height_, channels_, bytes_);
    return std::make_shared<const Texture>(width_, height_, channels_, floats_);
}

std::vector<std::uint8_t> TexturePaint::toBytes() const {
    if (floats_.empty()) return bytes_;
    std::vector<std::uint8_t> out(floats_.size());
    parallelRange(0, out.size(), 1 << 16, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            out[i] = toByte(floats_[i]);
    });
    return out;
}

void TexturePaint::save(const std::filesystem::path& path) {
    const std::vector<std::uint8_t> pixels = toBytes();
    writePng(path, ImageView{width_, height_, channels_, pixels});
    markSaved();
}

}  // namespace velmorin
