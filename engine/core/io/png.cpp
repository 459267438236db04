#include "io/png.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

#include "base/parallel.h"
#include "io/deflate.h"

namespace velmorin {
namespace {

constexpr std::array<std::uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
// IDAT data is cut into chunks of this size, as common readers expect moderate chunks.
constexpr std::size_t kIdatChunk = 1 << 20;

void checkImage(const ImageView& image) {
    if (image.width < 1 || image.height < 1 || image.channels < 1 || image.channels > 4 ||
        image.width > 0x7FFFFFFF / image.channels) {
        throw std::invalid_argument("encodePng: bad size or channels");
    }
    const auto expected = static_cast<std::uint64_t>(image.width) *
                          static_cast<std::uint64_t>(image.height) *
                          static_cast<std::uint64_t>(image.channels);
    if (image.pixels.size() != expected) {
        throw std::invalid_argument("encodePng: pixel count does not match the size");
    }
}

void putBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void putChunk(std::vector<std::uint8_t>& out, const char (&type)[5],
              std::span<const std::uint8_t> data) {
    putBigEndian(out, static_cast<std::uint32_t>(data.size()));
    const std::size_t typeAt = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    const std::span<const std::uint8_t> covered(out.data() + typeAt, 4 + data.size());
    putBigEndian(out, crc32(0, covered));
}

inline int paeth(int a, int b, int c) {
    const int p = a + b - c;
    const int pa = std::abs(p - a);
    const int pb = std::abs(p - b);
    const int pc = std::abs(p - c);
    return (pa <= pb && pa <= pc) ? a : pb <= pc ? b : c;
}

// Filters one row into out[0] (the filter type) and out[1..]. The filter is the one whose output
// has the smallest sum of magnitudes read as signed bytes, the usual guess at what deflate codes
// best: small differences repeat.
void filterRow(const std::uint8_t* row, const std::uint8_t* above, std::size_t rowBytes, int bpp,
               std::uint8_t* out) {
    std::array<std::uint32_t, 5> cost{};
    auto magnitude = [](int value) {
        const auto s = static_cast<std::int8_t>(static_cast<std::uint8_t>(value));
        return static_cast<std::uint32_t>(s < 0 ? -s : s);
    };
    for (std::size_t x = 0; x < rowBytes; ++x) {
        const int cur = row[x];
        const int left = x >= static_cast<std::size_t>(bpp) ? row[x - bpp] : 0;
        const int up = above[x];
        const int upLeft = x >= static_cast<std::size_t>(bpp) ? above[x - bpp] : 0;
        cost[0] += magnitude(cur);
        cost[1] += magnitude(cur - left);
        cost[2] += magnitude(cur - up);
        cost[3] += magnitude(cur - ((left + up) >> 1));
        cost[4] += magnitude(cur - paeth(left, up, upLeft));
    }
    const int filter = static_cast<int>(std::min_element(cost.begin(), cost.end()) - cost.begin());
    out[0] = static_cast<std::uint8_t>(filter);
    std::uint8_t* dst = out + 1;
    for (std::size_t x = 0; x < rowBytes; ++x) {
        const int cur = row[x];
        const int left = x >= static_cast<std::size_t>(bpp) ? row[x - bpp] : 0;
        const int up = above[x];
        int predicted = 0;
        switch (filter) {
            case 1:
                predicted = left;
                break;
            case 2:
                predicted = up;
                break;
            case 3:
                predicted = (left + up) >> 1;
                break;
            case 4:
                predicted =
                    paeth(left, up, x >= static_cast<std::size_t>(bpp) ? above[x - bpp] : 0);
                break;
            default:
                break;
        }
        dst[x] = static_cast<std::uint8_t>(cur - predicted);
    }
}

std::vector<std::uint8_t> encodeChecked(const ImageView& image) {
    const std::size_t rowBytes = static_cast<std::size_t>(image.width) * image.channels;
    const auto height = static_cast<std::size_t>(image.height);
    std::vector<std::uint8_t> filtered(height * (rowBytes + 1));
    const std::vector<std::uint8_t> zeros(rowBytes, 0);
    for (std::size_t y = 0; y < height; ++y) {
        const std::uint8_t* row = image.pixels.data() + y * rowBytes;
        const std::uint8_t* above = y == 0 ? zeros.data() : row - rowBytes;
        filterRow(row, above, rowBytes, image.channels, filtered.data() + y * (rowBytes + 1));
    }
    std::vector<std::uint8_t> stream;
    stream.reserve(filtered.size() / 4 + 1024);
    zlibAppend(filtered, stream);

    std::vector<std::uint8_t> png(kSignature.begin(), kSignature.end());
    png.reserve(stream.size() + stream.size() / kIdatChunk * 12 + 64);
    std::vector<std::uint8_t> header;
    putBigEndian(header, static_cast<std::uint32_t>(image.width));
    putBigEndian(header, static_cast<std::uint32_t>(image.height));
    constexpr std::array<std::uint8_t, 5> kColorType = {0, 0, 4, 2, 6};
    header.insert(header.end(), {8, kColorType[image.channels], 0, 0, 0});
    putChunk(png, "IHDR", header);
    for (std::size_t at = 0; at < stream.size(); at += kIdatChunk) {
        const std::size_t size = std::min(kIdatChunk, stream.size() - at);
        putChunk(png, "IDAT", std::span<const std::uint8_t>(stream).subspan(at, size));
    }
    putChunk(png, "IEND", {});
    return png;
}

}  // namespace

std::vector<std::uint8_t> encodePng(const ImageView& image) {
    checkImage(image);
    return encodeChecked(image);
}

std::vector<std::vector<std::uint8_t>> encodePngs(std::span<const ImageView> images) {
    for (const ImageView& image : images) {
        if (image.pixels.empty()) throw std::invalid_argument("encodePngs: an image has no pixels");
        checkImage(image);
    }
    std::vector<std::vector<std::uint8_t>> results(images.size());
    parallelRange(0, images.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            results[i] = encodeChecked(images[i]);
    });
    return results;
}

void writePng(const std::filesystem::path& path, const ImageView& image) {
    const std::vector<std::uint8_t> bytes = encodePng(image);
    std::filesystem::path temporary = path;
    temporary += ".tmp";
    auto fail = [&](const std::string& reason) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw std::runtime_error("could not write " + path.string() + ": " + reason);
    };
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (file == nullptr) fail(std::strerror(errno));
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const int writeError = errno;
    if (std::fclose(file) != 0 || !written) fail(std::strerror(written ? errno : writeError));
    std::error_code error;
    std::filesystem::rename(temporary, path, error);
    if (error) fail(error.message());
}

}  // namespace velmorin
