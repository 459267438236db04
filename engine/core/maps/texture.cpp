#include "maps/texture.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

#include "maps/image_bounds.h"
#include "maps/texture_cache.h"

// The image reader is compiled here, static to this file, so that no other library's copy of it
// can clash with ours. On some broken files it copies zero bytes to a null buffer, which the C
// library declares undefined: its copies go through a function that skips empty ones. The headers
// it includes come first, so that the substitution reaches only its own code.
#include <assert.h>
#include <limits.h>
#include <math.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

static inline void* velmorinImageCopy(void* to, const void* from, size_t count) {
    return count == 0 ? to : memcpy(to, from, count);
}
#define memcpy velmorinImageCopy
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_STDIO
#include <stb/stb_image.h>
#undef memcpy

namespace velmorin {
namespace {

constexpr int kFirstTile = 1001;
constexpr int kTileCount = 100;
// The side of the largest square image read; a file that claims more pixels is refused before any
// memory is taken for it.
std::atomic<int> sizeLimit{kDefaultTextureSizeLimit};

// The decoder reads the file through these, so that it can be told when it asks for more bytes
// than the file has: it would otherwise go on reading zeros and hand back a garbage image.
struct FileReader {
    std::span<const std::uint8_t> bytes;
    std::size_t position = 0;
    // The decoder's own buffer, which its first read fills: a short read into it is the normal
    // end of the file; a short read anywhere else, or any read at the end, is data it needed.
    const char* buffer = nullptr;
    bool ranOut = false;

    static int read(void* user, char* out, int count) {
        auto& reader = *static_cast<FileReader*>(user);
        if (reader.buffer == nullptr) reader.buffer = out;
        const std::size_t left = reader.bytes.size() - reader.position;
        const std::size_t wanted = count > 0 ? static_cast<std::size_t>(count) : 0;
        const std::size_t given = std::min(left, wanted);
        if (given < wanted && (left == 0 || out != reader.buffer)) reader.ranOut = true;
        if (given > 0) std::memcpy(out, reader.bytes.data() + reader.position, given);
        reader.position += given;
        return static_cast<int>(given);
    }
    static void skip(void* user, int count) {
        auto& reader = *static_cast<FileReader*>(user);
        const std::size_t left = reader.bytes.size() - reader.position;
        reader.position += std::min(left, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    static int atEnd(void* user) {
        const auto& reader = *static_cast<const FileReader*>(user);
        return reader.position >= reader.bytes.size() ? 1 : 0;
    }
};

constexpr stbi_io_callbacks kFileCallbacks = {&FileReader::read, &FileReader::skip,
                                              &FileReader::atEnd};

void checkShape(int width, int height, int channels, std::size_t valueCount) {
    if (width < 1 || height < 1 || channels < 1 || channels > 4) {
        throw std::invalid_argument("Texture: bad size or channels");
    }
    const std::uint64_t expected = static_cast<std::uint64_t>(width) *
                                   static_cast<std::uint64_t>(height) *
                                   static_cast<std::uint64_t>(channels);
    if (valueCount != expected)
        throw std::invalid_argument("Texture: size does not match its data");
}

bool isDelimiter(char c) {
    return c == '-' || c == '.' || c == '_';
}

}  // namespace

void setTextureSizeLimit(int side) {
    sizeLimit.store(std::clamp(side, 1, kDefaultTextureSizeLimit));
}

int textureSizeLimit() {
    return sizeLimit.load();
}

int udimTile(float u, float v) {
    // Bounded before the conversion, so that no UV, however wild, overflows an int.
    auto cell = [](float x) {
        const float f = std::floor(x);
        return f >= -1e6f && f <= 1e6f ? static_cast<int>(f) : f > 0.0f ? 1000000 : -1000000;
    };
    return kFirstTile + cell(u) + 10 * cell(v);
}

std::string parseUdimPattern(std::string_view path) {
    const std::size_t slash = path.find_last_of("/\\");
    const std::size_t nameStart = slash == std::string_view::npos ? 0 : slash + 1;
    const std::string_view name = path.substr(nameStart);
    auto replaced = [&](std::size_t at, std::size_t length) {
        std::string result(path);
        result.replace(nameStart + at, length, "<UDIM>");
        return result;
    };
    for (std::string_view token : {"<UDIM>", "<udim>", "%(UDIM)d"}) {
        const std::size_t at = name.find(token);
        if (at != std::string_view::npos) return replaced(at, token.size());
    }
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    for (std::size_t at = 0; at < name.size();) {
        if (!isDigit(name[at])) {
            ++at;
            continue;
        }
        std::size_t end = at;
        while (end < name.size() && isDigit(name[end]))
            ++end;
        const bool bounded = (at == 0 || isDelimiter(name[at - 1])) &&
                             (end == name.size() || isDelimiter(name[end]));
        if (end - at == 4 && bounded) {
            const int number = std::stoi(std::string(name.substr(at, 4)));
            if (number >= kFirstTile && number < kFirstTile + kTileCount) return replaced(at, 4);
        }
        at = end;
    }
    return {};
}

Texture::Texture(int width, int height, int channels, std::vector<std::uint8_t> pixels)
    : width_(width), height_(height), channels_(channels), bytes_(std::move(pixels)) {
    checkShape(width, height, channels, bytes_.size());
}

Texture::Texture(int width, int height, int channels, std::vector<float> pixels)
    : width_(width), height_(height), channels_(channels), floats_(std::move(pixels)) {
    checkShape(width, height, channels, floats_.size());
}

std::shared_ptr<const Texture> Texture::decode(std::span<const std::uint8_t> bytes,
                                               std::string_view name) {
    // Built by appending: GCC 12 at -O3 warns falsely (-Wrestrict) on "'" + std::string + "'".
    std::string quoted(1, '\'');
    quoted.append(name).push_back('\'');
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw TextureError("Texture: " + quoted + " is too large a file to read as an image");
    }
    const auto* data = reinterpret_cast<const stbi_uc*>(bytes.data());
    const int size = static_cast<int>(bytes.size());
    int width = 0;
    int height = 0;
    int channels = 0;
    if (!stbi_info_from_memory(data, size, &width, &height, &channels)) {
        // Read again to learn whether the header itself was cut off.
        FileReader header{bytes};
        if (!stbi_info_from_callbacks(&kFileCallbacks, &header, &width, &height, &channels) &&
            header.ranOut) {
            throw TextureError("Texture: " + quoted +
                               " is cut short: it ends inside its header (a copy or download "
                               "that stopped early?): save or copy it again");
        }
        throw TextureError("Texture: " + quoted + " is not an image Velmorin reads (" +
                           stbi_failure_reason() + "): use a PNG, JPEG, TGA, BMP, PSD or HDR file");
    }
    const std::uint64_t side = static_cast<std::uint64_t>(textureSizeLimit());
    if (width < 1 || height < 1 ||
        static_cast<std::uint64_t>(width) * static_cast<std::uint64_t>(height) > side * side) {
        throw TextureError("Texture: " + quoted + " is " + std::to_string(width) + " x " +
                           std::to_string(height) + " pixels, more than Velmorin reads (" +
                           std::to_string(side) + " x " + std::to_string(side) +
                           "): scale it down");
    }
    const auto cutShort = [&] {
        return TextureError("Texture: " + quoted + " is cut short: its data ends before its " +
                            std::to_string(width) + " x " + std::to_string(height) +
                            " pixels do (a copy or download that stopped early?): save or copy "
                            "it again");
    };
    // Checked before decoding: a few bytes that declare millions of pixels would otherwise be
    // decoded, from zeros, for seconds.
    if (imageDataEndsEarly(bytes, width, height)) throw cutShort();

    auto texture = std::shared_ptr<Texture>(new Texture());
    FileReader reader{bytes};
    // A decoder that failed because the file ended says that, not its own words.
    auto failed = [&] {
        if (reader.ranOut) return cutShort();
        return TextureError("Texture: " + quoted + " could not be read (" + stbi_failure_reason() +
                            "): save it again, or use another image");
    };
    // Each read starts from the file's first byte.
    const auto from = [&]() -> FileReader& {
        reader = FileReader{bytes};
        return reader;
    };
    if (stbi_is_hdr_from_memory(data, size) || stbi_is_16_bit_from_memory(data, size)) {
        const bool hdr = stbi_is_hdr_from_memory(data, size) != 0;
        std::vector<float> values;
        if (hdr) {
            float* pixels =
                stbi_loadf_from_callbacks(&kFileCallbacks, &from(), &width, &height, &channels, 0);
            if (pixels == nullptr || reader.ranOut) {
                stbi_image_free(pixels);
                throw failed();
            }
            values.assign(pixels, pixels + static_cast<std::size_t>(width) * height * channels);
            stbi_image_free(pixels);
        } else {
            stbi_us* pixels = stbi_load_16_from_callbacks(&kFileCallbacks, &from(), &width, &height,
                                                          &channels, 0);
            if (pixels == nullptr || reader.ranOut) {
                stbi_image_free(pixels);
                throw failed();
            }
            values.resize(static_cast<std::size_t>(width) * height * channels);
            for (std::size_t k = 0; k < values.size(); ++k)
                values[k] = pixels[k] * (1.0f / 65535.0f);
            stbi_image_free(pixels);
        }
        texture->floats_ = std::move(values);
    } else {
        stbi_uc* pixels =
            stbi_load_from_callbacks(&kFileCallbacks, &from(), &width, &height, &channels, 0);
        if (pixels == nullptr || reader.ranOut) {
            stbi_image_free(pixels);
            throw failed();
        }
        texture->bytes_.assign(pixels,
                               pixels + static_cast<std::size_t>(width) * height * channels);
        stbi_image_free(pixels);
    }
    texture->width_ = width;
    texture->height_ = height;
    texture->channels_ = channels;
    return texture;
}

std::shared_ptr<const Texture> Texture::load(const std::string& path) {
    const std::string pattern = parseUdimPattern(path);
    if (!pattern.empty()) return loadUdim(pattern);
    return textureCache().get(path);
}

std::shared_ptr<const Texture> Texture::loadUdim(const std::string& pattern) {
    const std::size_t token = pattern.find("<UDIM>");
    if (token == std::string::npos) {
        throw std::invalid_argument("Texture: a UDIM pattern needs <UDIM>");
    }
    auto set = std::shared_ptr<Texture>(new Texture());
    set->pattern_ = pattern;
    set->tiles_ = std::make_unique<std::array<Tile, kTileCount>>();
    for (int number = kFirstTile; number < kFirstTile + kTileCount; ++number) {
        std::string path = pattern;
        path.replace(token, 6, std::to_string(number));
        std::error_code error;
        if (std::filesystem::is_regular_file(path, error)) set->tileNumbers_.push_back(number);
    }
    if (set->tileNumbers_.empty()) {
        throw TextureError("Texture: no tile of the UDIM set " + pattern +
                           " is on disk (tiles are numbered 1001 to 1100): check the path");
    }
    // The lowest tile is read now: it gives the set its size and channels, and its errors.
    const int first = set->tileNumbers_.front();
    Tile& tile = (*set->tiles_)[first - kFirstTile];
    std::string path = pattern;
    path.replace(token, 6, std::to_string(first));
    std::call_once(tile.read, [&] { tile.image = textureCache().get(path); });
    set->width_ = tile.image->width();
    set->height_ = tile.image->height();
    set->channels_ = tile.image->channels();
    return set;
}

std::shared_ptr<const Texture> Texture::tile(int number) const {
    if (!tiles_ || number < kFirstTile || number >= kFirstTile + kTileCount) return nullptr;
    if (!std::binary_search(tileNumbers_.begin(), tileNumbers_.end(), number)) return nullptr;
    Tile& tile = (*tiles_)[number - kFirstTile];
    std::call_once(tile.read, [&] {
        std::string path = pattern_;
        path.replace(pattern_.find("<UDIM>"), 6, std::to_string(number));
        try {
            tile.image = textureCache().get(path);
        } catch (const std::exception&) {
            // A tile that can't be read samples as empty; the set's first tile carried the
            // errors that the artist needs to see.
            tile.image = nullptr;
        }
    });
    return tile.image;
}

Rgba Texture::sample(float u, float v) const {
    if (std::isnan(u) || std::isnan(v)) return {0.0f, 0.0f, 0.0f, 0.0f};
    if (!isUdim()) return sampleImage(std::clamp(u, 0.0f, 1.0f), std::clamp(v, 0.0f, 1.0f));
    if (!(u >= 0.0f && u < 10.0f && v >= 0.0f && v < 10.0f)) return {0.0f, 0.0f, 0.0f, 0.0f};
    const std::shared_ptr<const Texture> image = tile(udimTile(u, v));
    if (!image) return {0.0f, 0.0f, 0.0f, 0.0f};
    return image->sampleImage(u - std::floor(u), v - std::floor(v));
}

Rgba Texture::sampleImage(float u, float v) const {
    // Texel centres sit at half-texel offsets; neighbours past the edge repeat the edge.
    const float x = u * static_cast<float>(width_) - 0.5f;
    const float y = (1.0f - v) * static_cast<float>(height_) - 0.5f;
    const float fx = std::floor(x);
    const float fy = std::floor(y);
    const float tx = x - fx;
    const float ty = y - fy;
    const int x0 = std::clamp(static_cast<int>(fx), 0, width_ - 1);
    const int x1 = std::clamp(static_cast<int>(fx) + 1, 0, width_ - 1);
    const int y0 = std::clamp(static_cast<int>(fy), 0, height_ - 1);
    const int y1 = std::clamp(static_cast<int>(fy) + 1, 0, height_ - 1);
    // The four texels' offsets once, and one branch on the pixel type outside the channel loop:
    // mapped params sample millions of roots through here.
    const std::size_t row = static_cast<std::size_t>(width_);
    const std::size_t n = static_cast<std::size_t>(channels_);
    const std::size_t i00 = (static_cast<std::size_t>(y0) * row + x0) * n;
    const std::size_t i10 = (static_cast<std::size_t>(y0) * row + x1) * n;
    const std::size_t i01 = (static_cast<std::size_t>(y1) * row + x0) * n;
    const std::size_t i11 = (static_cast<std::size_t>(y1) * row + x1) * n;
    std::array<float, 4> c{};
    const auto blend = [&](const auto* pixels, float scale) {
        for (std::size_t k = 0; k < n; ++k) {
            const float a = pixels[i00 + k] * scale;
            const float b = pixels[i10 + k] * scale;
            const float d = pixels[i01 + k] * scale;
            const float e = pixels[i11 + k] * scale;
            const float top = a + (b - a) * tx;
            const float bottom = d + (e - d) * tx;
            c[k] = top + (bottom - top) * ty;
        }
    };
    if (floats_.empty()) {
        blend(bytes_.data(), 1.0f / 255.0f);
    } else {
        blend(floats_.data(), 1.0f);
    }
    switch (channels_) {
        case 1:
            return {c[0], c[0], c[0], 1.0f};
        case 2:
            return {c[0], c[0], c[0], c[1]};
        case 3:
            return {c[0], c[1], c[2], 1.0f};
        default:
            return {c[0], c[1], c[2], c[3]};
    }
}

}  // namespace velmorin
