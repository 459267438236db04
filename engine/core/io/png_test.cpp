#include "io/png.h"

#include <stdexcept>

#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "io/deflate.h"
#include "maps/test/map_test_support.h"
#include "maps/texture.h"

namespace velmorin {
namespace {

using test::expectMessage;
using test::noiseBytes;
using test::smoothImage;

// The pixels as libpng reads them, through its simplified interface in the image's own layout.
std::vector<std::uint8_t> decodeWithLibpng(const std::vector<std::uint8_t>& file, int channels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, file.data(), file.size())) {
        ADD_FAILURE() << image.message;
        return {};
    }
    constexpr png_uint_32 kFormats[] = {PNG_FORMAT_GRAY, PNG_FORMAT_GA, PNG_FORMAT_RGB,
                                        PNG_FORMAT_RGBA};
    image.format = kFormats[channels - 1];
    std::vector<std::uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
        ADD_FAILURE() << image.message;
        return {};
    }
    return pixels;
}

std::vector<std::uint8_t> inflateZlib(const std::vector<std::uint8_t>& stream, std::size_t size) {
    std::vector<std::uint8_t> out(size + 1);
    uLongf length = out.size();
    EXPECT_EQ(uncompress(out.data(), &length, stream.data(), stream.size()), Z_OK);
    out.resize(length);
    return out;
}

TEST(PngWriter, EveryImageDecodesToItsPixelsWithStbAndLibpng) {
    struct Case {
        int width, height, channels;
        std::vector<std::uint8_t> pixels;
    };
    const std::vector<Case> cases = {
        {1, 1, 1, {200}},
        {1, 1, 4, {1, 2, 3, 4}},
        {3, 2, 2, noiseBytes(12, 1)},
        {17, 5, 3, noiseBytes(255, 2)},
        {64, 64, 4, test::flatImage(64, 64, {10, 20, 30, 255})},
        {257, 31, 1, smoothImage(257, 31, 1)},
        {300, 200, 3, smoothImage(300, 200, 3)},
        {129, 130, 4, noiseBytes(129 * 130 * 4, 3)},
        // Long enough that matches reach back across the whole window, and blocks split.
        {1024, 300, 1, smoothImage(1024, 300, 1)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + "x" +
                     std::to_string(c.channels));
        const std::vector<std::uint8_t> file = encodePng({c.width, c.height, c.channels, c.pixels});
        EXPECT_EQ(decodeWithLibpng(file, c.channels), c.pixels);
        const auto texture = Texture::decode(file, "case");
        EXPECT_EQ(texture->width(), c.width);
        EXPECT_EQ(texture->channels(), c.channels);
        EXPECT_EQ(
            std::vector<std::uint8_t>(texture->bytePixels().begin(), texture->bytePixels().end()),
            c.pixels);
    }
}

TEST(PngWriter, DeflateStreamsInflateWithZlibAndSumsMatchZlibs) {
    std::vector<std::uint8_t> runs(200000, 7);
    for (std::size_t i = 0; i < runs.size(); i += 997)
        runs[i] = static_cast<std::uint8_t>(i);
    // Repeats farther apart than the window: matches must not reach past it.
    std::vector<std::uint8_t> far = noiseBytes(40000, 4);
    far.insert(far.end(), far.begin(), far.begin() + 40000);
    std::vector<std::uint8_t> text;
    for (int i = 0; i < 5000; ++i)
        text.push_back(static_cast<std::uint8_t>("groom "[i % 6] + (i % 97 == 0)));
    for (const auto& data : {std::vector<std::uint8_t>{}, std::vector<std::uint8_t>{42}, runs, far,
                             text, noiseBytes(100000, 5)}) {
        std::vector<std::uint8_t> stream;
        zlibAppend(data, stream);
        EXPECT_EQ(inflateZlib(stream, data.size()), data);
        EXPECT_EQ(crc32(0, data), ::crc32(0, data.data(), static_cast<uInt>(data.size())));
        EXPECT_EQ(adler32(1, data), ::adler32(1, data.data(), static_cast<uInt>(data.size())));
    }
    // Sums continue across calls.
    const auto data = noiseBytes(10000, 6);
    const std::span<const std::uint8_t> all(data);
    EXPECT_EQ(crc32(crc32(0, all.first(3333)), all.subspan(3333)), crc32(0, all));
    EXPECT_EQ(adler32(adler32(1, all.first(6000)), all.subspan(6000)), adler32(1, all));
}

TEST(PngWriter, ASmoothMapCompressesWithinFifteenPercentOfZlibLevelSix) {
    const std::vector<std::uint8_t> pixels = smoothImage(2048, 2048, 1);
    const std::vector<std::uint8_t> file = encodePng({2048, 2048, 1, pixels});
    // zlib at level 6 on the very rows the writer filtered, taken back out of its file.
    std::vector<std::uint8_t> idat;
    for (std::size_t at = 8; at + 12 <= file.size();) {
        const std::size_t length = std::size_t{file[at]} << 24 | std::size_t{file[at + 1]} << 16 |
                                   std::size_t{file[at + 2]} << 8 | file[at + 3];
        if (std::equal(file.begin() + at + 4, file.begin() + at + 8, "IDAT")) {
            idat.insert(idat.end(), file.begin() + at + 8, file.begin() + at + 8 + length);
        }
        at += length + 12;
    }
    const std::vector<std::uint8_t> filtered = inflateZlib(idat, 2048 * 2049);
    uLongf zlibSize = compressBound(filtered.size());
    std::vector<std::uint8_t> zlibStream(zlibSize);
    ASSERT_EQ(compress2(zlibStream.data(), &zlibSize, filtered.data(), filtered.size(), 6), Z_OK);
    EXPECT_LE(static_cast<double>(idat.size()), 1.15 * static_cast<double>(zlibSize));
}

TEST(PngWriter, RefusesBadImagesWithTheirMessages) {
    const std::vector<std::uint8_t> four(4, 0);
    const struct {
        ImageView image;
        const char* message;
    } cases[] = {
        {{0, 1, 1, four}, "encodePng: bad size or channels"},
        {{1, -1, 1, four}, "encodePng: bad size or channels"},
        {{1, 1, 5, four}, "encodePng: bad size or channels"},
        {{1, 1, 0, four}, "encodePng: bad size or channels"},
        {{1, 1, 3, four}, "encodePng: pixel count does not match the size"},
        {{2, 2, 1, std::span(four).first(3)}, "encodePng: pixel count does not match the size"},
    };
    for (const auto& c : cases)
        expectMessage([&] { encodePng(c.image); }, c.message);
    const ImageView images[] = {{2, 2, 1, four}, {2, 2, 1, {}}};
    expectMessage([&] { encodePngs(images); }, "encodePngs: an image has no pixels");
}

TEST(PngWriter, EncodesManyInTheirOrderAndWritesThroughATemporaryFile) {
    const auto a = smoothImage(40, 30, 3);
    const auto b = noiseBytes(9 * 7 * 2, 7);
    const ImageView images[] = {{40, 30, 3, a}, {9, 7, 2, b}, {40, 30, 3, a}};
    const auto files = encodePngs(images);
    ASSERT_EQ(files.size(), 3u);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(files[k], encodePng(images[k]));

    test::TempFolder folder("png-writer");
    const std::string path = folder.file("map.png");
    writePng(path, images[1]);
    const std::string written = test::readBytes(path);
    EXPECT_EQ(std::vector<std::uint8_t>(written.begin(), written.end()), files[1]);
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    const std::string blocked = folder.file("missing-folder/map.png");
    try {
        writePng(blocked, images[1]);
        ADD_FAILURE() << "wrote into a missing folder";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("could not write " + blocked + ": ", 0), 0u)
            << e.what();
    }
}

}  // namespace
}  // namespace velmorin
