#include "maps/image_bounds.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>

namespace velmorin {
namespace {

using Bytes = std::span<const std::uint8_t>;

// Products of declared sizes, which a hostile header can make as large as it likes: they stop at
// the largest value rather than wrap round to a small one.
std::uint64_t times(std::uint64_t a, std::uint64_t b) {
    if (a != 0 && b > std::numeric_limits<std::uint64_t>::max() / a) {
        return std::numeric_limits<std::uint64_t>::max();
    }
    return a * b;
}

std::uint64_t ceilDiv(std::uint64_t a, std::uint64_t b) {
    return a / b + (a % b != 0 ? 1 : 0);
}

bool startsWith(Bytes file, std::string_view magic) {
    return file.size() >= magic.size() && std::memcmp(file.data(), magic.data(), magic.size()) == 0;
}

std::uint32_t bigEndian32(Bytes file, std::size_t at) {
    return std::uint32_t{file[at]} << 24 | std::uint32_t{file[at + 1]} << 16 |
           std::uint32_t{file[at + 2]} << 8 | std::uint32_t{file[at + 3]};
}

std::uint32_t bigEndian16(Bytes file, std::size_t at) {
    return std::uint32_t{file[at]} << 8 | std::uint32_t{file[at + 1]};
}

std::uint32_t littleEndian16(Bytes file, std::size_t at) {
    return std::uint32_t{file[at]} | std::uint32_t{file[at + 1]} << 8;
}

// Chunks run from byte 8 to the end chunk, each a length, a type, the data and a check sum. The
// image data chunks, inflated, give every row's filter byte and pixels; deflate's best case is a
// 258-byte copy coded in two bits.
bool pngEndsEarly(Bytes file, std::uint64_t pixels) {
    if (file.size() < 33) return true;  // signature and header chunk
    const int depth = file[24];
    int samples = 1;
    switch (file[25]) {
        case 2:
            samples = 3;
            break;
        case 4:
            samples = 2;
            break;
        case 6:
            samples = 4;
            break;
        default:
            break;
    }
    std::uint64_t compressed = 0;
    std::size_t at = 8;
    while (true) {
        if (file.size() - at < 12) return true;
        const std::uint64_t length = bigEndian32(file, at);
        if (length > file.size() - at - 12) return true;
        const std::string_view type(reinterpret_cast<const char*>(file.data() + at + 4), 4);
        if (type == "IEND") break;
        if (type == "IDAT") compressed += length;
        at += 12 + static_cast<std::size_t>(length);
    }
    const std::uint64_t pixelBytes = times(pixels, static_cast<std::uint64_t>(depth * samples)) / 8;
    return times(compressed, 1032) < pixelBytes;
}

// Marker segments up to the first scan; each 8 x 8 block of the channel with the most (a
// subsampled channel has fewer) is coded in its first scan with at least one bit.
bool jpegEndsEarly(Bytes file, int width, int height) {
    std::size_t at = 2;
    while (true) {
        while (at < file.size() && file[at] != 0xFF)
            ++at;
        while (at < file.size() && file[at] == 0xFF)
            ++at;
        // A header that stops before its first scan leaves it to the decoder, which then runs
        // out of data and says so.
        if (file.size() - at < 3) return false;
        const std::uint8_t marker = file[at++];
        if (marker == 0xD9) return false;
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;
        const std::size_t length = bigEndian16(file, at);
        if (length < 2 || length > file.size() - at) return false;
        at += length;
        if (marker == 0xDA) break;
    }
    const std::uint64_t blocks = times(ceilDiv(static_cast<std::uint64_t>(width), 8),
                                       ceilDiv(static_cast<std::uint64_t>(height), 8));
    return times(file.size() - at, 8) < blocks;
}

// An 18-byte header, the image id and the palette, then the pixels: as they stand, or in packets
// of a count byte and either one pixel repeated up to 128 times or up to 128 pixels as they stand.
bool tgaEndsEarly(Bytes file, std::uint64_t pixels) {
    if (file.size() < 18) return true;
    const int type = file[2];
    const std::uint64_t paletteBytes =
        file[1] != 0 ? times(littleEndian16(file, 5), ceilDiv(file[7], 8)) : 0;
    const std::uint64_t start = 18 + std::uint64_t{file[0]} + paletteBytes;
    if (start > file.size()) return true;
    const std::uint64_t pixelBytes = std::max<std::uint64_t>(1, ceilDiv(file[16], 8));
    if (type < 9) return file.size() - start < times(pixels, pixelBytes);
    // A packet covers at least one pixel and takes at least one byte: the walk is as long as the
    // file, whatever the header declares.
    std::uint64_t at = start;
    for (std::uint64_t covered = 0; covered < pixels;) {
        if (at >= file.size()) return true;
        const std::uint8_t head = file[at++];
        const std::uint64_t count = (head & 127u) + 1;
        const std::uint64_t need = (head & 128u) != 0 ? pixelBytes : count * pixelBytes;
        if (need > file.size() - at) return true;
        at += need;
        covered += count;
    }
    return false;
}

// A 14-byte file header, then the info header whose size leads it; rows of pixels as they stand.
bool bmpEndsEarly(Bytes file, int width, int height) {
    if (file.size() < 34) return true;
    const bool core = littleEndian16(file, 14) == 12;  // the oldest header has 16-bit sizes
    // Run-length rows are not read at all; the decoder says so.
    if (!core && (file[30] == 1 || file[30] == 2)) return false;
    const std::uint64_t bits = littleEndian16(file, core ? 24 : 28);
    const std::uint64_t rowBytes = times(static_cast<std::uint64_t>(width), bits) / 8;
    return file.size() < times(rowBytes, static_cast<std::uint64_t>(height));
}

// A 26-byte header and three sections led by their lengths, then the compression and the pixels:
// as they stand, or run-length coded with a count byte and at least one value byte for each run
// of at most 128. At least one channel is stored.
bool psdEndsEarly(Bytes file, std::uint64_t pixels) {
    std::uint64_t at = 26;
    for (int section = 0; section < 3; ++section) {
        if (at > file.size() || file.size() - at < 4) return true;
        at += 4 + std::uint64_t{bigEndian32(file, at)};
    }
    if (at > file.size() || file.size() - at < 2) return true;
    const bool runLength = bigEndian16(file, at) == 1;
    const std::uint64_t left = file.size() - at - 2;
    const std::uint64_t depth = bigEndian16(file, 22);
    if (runLength) return left < times(ceilDiv(pixels, 128), 2);
    return left < times(pixels, std::max<std::uint64_t>(1, depth / 8));
}

// Text header lines, an empty line, the size line, then the pixels: four bytes each, or rows in
// the run-length form: a head of 2, 2 and the width, then for each of the four channels a count
// byte followed by one value repeated (count above 128) or by count values. The rows are walked
// as the decoder reads them, byte for byte: a decoder that ran on past the end would read a zero
// count for ever. A row without the head turns the rest of the image into four bytes a pixel.
bool hdrEndsEarly(Bytes file, int width, int height) {
    const std::string_view text(reinterpret_cast<const char*>(file.data()), file.size());
    const std::size_t blank = text.find("\n\n");
    if (blank == std::string_view::npos) return false;
    const std::size_t sizeLineEnd = text.find('\n', blank + 2);
    if (sizeLineEnd == std::string_view::npos) return false;
    std::uint64_t at = sizeLineEnd + 1;
    const std::uint64_t flatBytes =
        times(times(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height)), 4);
    if (width < 8 || width >= 32768) return file.size() - at < flatBytes;
    for (int row = 0; row < height; ++row) {
        if (file.size() - at < 4) return true;
        if (file[at] != 2 || file[at + 1] != 2 || (file[at + 2] & 0x80) != 0) {
            return file.size() - at < flatBytes;
        }
        // Another width is the decoder's own error.
        if (static_cast<int>(bigEndian16(file, at + 2)) != width) return false;
        at += 4;
        for (int channel = 0; channel < 4; ++channel) {
            for (int x = 0; x < width;) {
                if (at >= file.size()) return true;
                const int count = file[at++];
                const int run = count > 128 ? count - 128 : count;
                if (run > width - x) return false;  // the decoder's own error
                const std::uint64_t values = count > 128 ? 1 : static_cast<std::uint64_t>(count);
                if (file.size() - at < values) return true;
                at += values;
                x += run;
            }
        }
    }
    return false;
}

}  // namespace

bool imageDataEndsEarly(Bytes file, int width, int height) {
    if (width < 1 || height < 1) return false;
    const std::uint64_t pixels =
        times(static_cast<std::uint64_t>(width), static_cast<std::uint64_t>(height));
    if (startsWith(file, "\x89PNG\r\n\x1a\n")) return pngEndsEarly(file, pixels);
    if (startsWith(file, "BM")) return bmpEndsEarly(file, width, height);
    if (startsWith(file, "GIF8")) return false;
    if (startsWith(file, "8BPS")) return psdEndsEarly(file, pixels);
    if (startsWith(file, "\x53\x80\xF6\x34")) return false;  // Softimage PIC
    if (!file.empty() && file[0] == 0xFF) {
        // The start marker may follow fill bytes.
        const auto marker =
            std::find_if(file.begin(), file.end(), [](std::uint8_t b) { return b != 0xFF; });
        if (marker != file.end() && *marker == 0xD8) return jpegEndsEarly(file, width, height);
        return false;
    }
    if (startsWith(file, "P5") || startsWith(file, "P6")) return false;
    if (startsWith(file, "#?RADIANCE\n") || startsWith(file, "#?RGBE\n")) {
        return hdrEndsEarly(file, width, height);
    }
    // What is left is read as a TGA, which has no signature: only a header that could be one.
    if (file.size() >= 3 && file[1] <= 1 && (file[2] & ~8u) >= 1 && (file[2] & ~8u) <= 3) {
        return tgaEndsEarly(file, pixels);
    }
    return false;
}

}  // namespace velmorin
