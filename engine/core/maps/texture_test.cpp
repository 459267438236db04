#include "maps/texture.h"

#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "base/memory_report.h"
#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "maps/test/map_test_support.h"
#include "maps/texture_cache.h"

// The test images of other formats are written by stb's writer, compiled here alone and static,
// away from the engine's reader. It is not written to our warning flags.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>
#pragma GCC diagnostic pop

namespace velmorin {
namespace {

using test::expectMessage;
using test::TempFolder;
using test::writeFlatPng;

TEST(Udim, PatternsOfEverySpellingAndTheirBounds) {
    const struct {
        const char* path;
        const char* pattern;
    } cases[] = {
        {"maps/hair.<UDIM>.png", "maps/hair.<UDIM>.png"},
        {"maps/hair.<udim>.png", "maps/hair.<UDIM>.png"},
        {"maps/hair.%(UDIM)d.png", "maps/hair.<UDIM>.png"},
        {"name_1001.png", "name_<UDIM>.png"},
        {"name.1001.png", "name.<UDIM>.png"},
        {"name-1042.tif", "name-<UDIM>.tif"},
        {"1100.png", "<UDIM>.png"},
        {"name.1001", "name.<UDIM>"},
        {"dir_1001/name.png", ""},                 // only the file name counts
        {"name1001.png", ""},                      // no delimiter before the number
        {"name_1101.png", ""},                     // past the last tile
        {"name_1000.png", ""},                     // before the first
        {"name_10010.png", ""},                    // five digits
        {"v_2024_1003.png", "v_2024_<UDIM>.png"},  // the first number in range
        {"hair.png", ""},
        {"<UDIM>_1001.png", "<UDIM>_1001.png"},  // a token wins over a number
    };
    for (const auto& c : cases)
        EXPECT_EQ(parseUdimPattern(c.path), c.pattern) << c.path;

    const struct {
        float u, v;
        int tile;
    } tiles[] = {{0.5f, 0.5f, 1001}, {1.0f, 0.0f, 1002}, {9.99f, 0.2f, 1010},
                 {0.3f, 1.5f, 1011}, {2.5f, 9.5f, 1093}, {-0.5f, 0.5f, 1000}};
    for (const auto& t : tiles)
        EXPECT_EQ(udimTile(t.u, t.v), t.tile) << t.u << ", " << t.v;
}

TEST(Texture, SamplesBilinearlyWithVUpAndClampsAtTheEdges) {
    // 2 x 2 gray: top row 0 and 255, bottom row 100 and 200.
    const Texture gray(2, 2, 1, std::vector<std::uint8_t>{0, 255, 100, 200});
    auto at = [&](float u, float v) { return gray.sample(u, v).r * 255.0f; };
    EXPECT_NEAR(at(0.25f, 0.75f), 0.0f, 1e-3f);    // top left texel centre
    EXPECT_NEAR(at(0.75f, 0.25f), 200.0f, 1e-3f);  // bottom right
    EXPECT_NEAR(at(0.5f, 0.5f), 138.75f, 1e-3f);   // all four
    EXPECT_NEAR(at(0.0f, 1.0f), 0.0f, 1e-3f);      // the corner repeats the edge texel
    EXPECT_NEAR(at(-3.0f, 7.0f), 0.0f, 1e-3f);     // a plain image clamps its UVs
    EXPECT_EQ(gray.sample(0.75f, 0.75f), (Rgba{1, 1, 1, 1}));

    const Texture ga(1, 1, 2, std::vector<float>{0.25f, 0.5f});
    EXPECT_EQ(ga.sample(0.5f, 0.5f), (Rgba{0.25f, 0.25f, 0.25f, 0.5f}));
    const Texture rgb(1, 1, 3, std::vector<float>{0.1f, 0.2f, 0.3f});
    EXPECT_EQ(rgb.sample(0.5f, 0.5f), (Rgba{0.1f, 0.2f, 0.3f, 1.0f}));

    expectMessage([] { Texture(2, 2, 1, std::vector<std::uint8_t>(3)); },
                  "Texture: size does not match its data");
}

TEST(Texture, UdimSetsReadTheirTilesOnFirstUse) {
    TempFolder folder("udim");
    writeFlatPng(folder.file("hair_1001.png"), 4, 4, {255, 0, 0});
    writeFlatPng(folder.file("hair_1002.png"), 4, 4, {0, 255, 0});
    writeFlatPng(folder.file("hair_1011.png"), 8, 8, {0, 0, 255});
    textureCache().clear();

    const auto set = Texture::load(folder.file("hair_1002.png"));
    ASSERT_TRUE(set->isUdim());
    EXPECT_EQ(set->udimPattern(), folder.file("hair_<UDIM>.png"));
    EXPECT_EQ(set->udimTiles(), (std::vector<int>{1001, 1002, 1011}));
    EXPECT_EQ(set->width(), 4);  // of the lowest tile, which is read at once
    EXPECT_EQ(textureCache().use().entries, 1u);

    EXPECT_EQ(set->sample(1.5f, 0.5f), (Rgba{0, 1, 0, 1}));
    EXPECT_EQ(set->sample(0.5f, 1.5f), (Rgba{0, 0, 1, 1}));
    EXPECT_EQ(set->sample(0.5f, 0.5f), (Rgba{1, 0, 0, 1}));
    EXPECT_EQ(set->sample(2.5f, 0.5f), (Rgba{0, 0, 0, 0}));   // no tile 1003
    EXPECT_EQ(set->sample(-0.5f, 0.5f), (Rgba{0, 0, 0, 0}));  // left of every tile
    EXPECT_EQ(textureCache().use().entries, 3u);

    // The set shares its tiles with the cache and with every other load of it.
    EXPECT_EQ(Texture::loadUdim(folder.file("hair_<UDIM>.png"))->tile(1011), set->tile(1011));
    expectMessage([&] { Texture::loadUdim(folder.file("hair.png")); },
                  "Texture: a UDIM pattern needs <UDIM>");
    const std::string none = folder.file("none_<UDIM>.png");
    expectMessage<TextureError>(
        [&] { Texture::loadUdim(none); },
        "Texture: no tile of the UDIM set " + none +
            " is on disk (tiles are numbered 1001 to 1100): check the path");
}

TEST(Texture, MissingAndBrokenFilesAreClearErrors) {
    TempFolder folder("broken");
    const std::string missing = folder.file("missing.png");
    const std::string broken = folder.write("broken.png", "not a picture");
    const std::string tooBig = folder.file("big.png");
    {
        // A PNG header that claims 20000 x 20000 pixels.
        const std::vector<std::uint8_t> header = {
            0x89, 'P',  'N',  'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13, 'I', 'H', 'D', 'R', 0,
            0,    0x4E, 0x20, 0,   0,    0x4E, 0x20, 8,    0, 0, 0, 0,  0,   0,   0,   0};
        test::writeBytes(tooBig, {reinterpret_cast<const char*>(header.data()), header.size()});
    }
    const struct {
        std::string path;
        std::string start;
    } cases[] = {
        {missing, "Texture: no image at " + missing + " (check the path"},
        {folder.file(""), "Texture: no image at "},
        {broken, "Texture: '" + broken + "' is not an image Velmorin reads ("},
        {tooBig, "Texture: '" + tooBig + "' is 20000 x 20000 pixels, more than Velmorin reads"},
    };
    for (const auto& c : cases) {
        try {
            Texture::load(c.path);
            ADD_FAILURE() << c.path;
        } catch (const TextureError& e) {
            EXPECT_EQ(std::string(e.what()).rfind(c.start, 0), 0u) << e.what();
        }
    }
}

using Bytes = std::vector<std::uint8_t>;

// The bytes of an image written by one of stb's writers, which all write through a callback.
Bytes writtenBy(const std::function<int(stbi_write_func*, void*)>& write) {
    Bytes bytes;
    const auto append = [](void* context, void* data, int size) {
        const auto* from = static_cast<const std::uint8_t*>(data);
        static_cast<Bytes*>(context)->insert(static_cast<Bytes*>(context)->end(), from,
                                             from + size);
    };
    EXPECT_NE(write(append, &bytes), 0);
    return bytes;
}

struct ImageFile {
    const char* format;
    Bytes bytes;
};

// The image in each format the tests cut short; `rle` chooses the TGA writer's packets.
std::vector<ImageFile> imageFiles(int width, int height, int channels, const Bytes& pixels) {
    std::vector<float> values(pixels.begin(), pixels.end());
    for (float& v : values)
        v /= 255.0f;
    const auto tga = [&](bool rle) {
        stbi_write_tga_with_rle = rle ? 1 : 0;
        Bytes bytes = writtenBy([&](stbi_write_func* f, void* c) {
            return stbi_write_tga_to_func(f, c, width, height, channels, pixels.data());
        });
        stbi_write_tga_with_rle = 1;
        return bytes;
    };
    return {
        {"PNG", encodePng(ImageView{width, height, channels, pixels})},
        {"TGA with runs", tga(true)},
        {"TGA as it stands", tga(false)},
        {"JPEG", writtenBy([&](stbi_write_func* f, void* c) {
             return stbi_write_jpg_to_func(f, c, width, height, channels, pixels.data(), 90);
         })},
        {"BMP", writtenBy([&](stbi_write_func* f, void* c) {
             return stbi_write_bmp_to_func(f, c, width, height, channels, pixels.data());
         })},
        {"HDR", writtenBy([&](stbi_write_func* f, void* c) {
             return stbi_write_hdr_to_func(f, c, width, height, channels, values.data());
         })},
    };
}

std::string cutShortMessage(const std::string& name, int width, int height) {
    return "Texture: '" + name + "' is cut short: its data ends before its " +
           std::to_string(width) + " x " + std::to_string(height) +
           " pixels do (a copy or download that stopped early?): save or copy it again";
}

TEST(Texture, AFileCutShortIsRefusedWithItsNameWhereverItEnds) {
    const int width = 60;
    const int height = 37;
    const Bytes pixels = test::smoothImage(width, height, 3);
    for (const ImageFile& file : imageFiles(width, height, 3, pixels)) {
        SCOPED_TRACE(file.format);
        // Whole, it reads as the image it is.
        const auto whole = Texture::decode(file.bytes, "whole");
        EXPECT_EQ(whole->width(), width);
        EXPECT_EQ(whole->height(), height);
        // Cut inside its header, it says so; but the HDR header is lines of text, and when they
        // stop early what is left is text, not an image.
        const std::string header = std::string_view(file.format) == "HDR"
                                       ? "Texture: 'header.img' is not an image Velmorin reads"
                                       : "Texture: 'header.img' is cut short: it ends inside its "
                                         "header (a copy or download that stopped early?): save "
                                         "or copy it again";
        try {
            Texture::decode(Bytes(file.bytes.begin(), file.bytes.begin() + 12), "header.img");
            ADD_FAILURE() << "a header of 12 bytes was read";
        } catch (const TextureError& error) {
            EXPECT_EQ(std::string(error.what()).substr(0, header.size()), header);
        }
        // Cut anywhere past its header, down to its last byte, it is refused.
        const std::size_t size = file.bytes.size();
        for (std::size_t kept : {size / 3, size / 2, size - 2, size - 1}) {
            SCOPED_TRACE(kept);
            const Bytes cut(file.bytes.begin(), file.bytes.begin() + kept);
            try {
                Texture::decode(cut, "cut.img");
                ADD_FAILURE() << "a file cut at " << kept << " of " << size << " bytes was read";
            } catch (const TextureError& error) {
                EXPECT_EQ(error.what(), cutShortMessage("cut.img", width, height));
            }
        }
    }
}

TEST(Texture, AFewBytesThatDeclareAHugeImageAreRefusedAtOnce) {
    // A run-length TGA of 73 bytes whose header declares 20227 x 3855 pixels.
    const Bytes tga = {0x00, 0x00, 0x0a, 0x00, 0x00, 0x23, 0x3f, 0x52, 0x41, 0x44, 0x0f, 0x0f, 0x03,
                       0x4f, 0x0f, 0x0f, 0x0f, 0x0f, 0x0f, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x00,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xfb, 0xff, 0x30, 0x18, 0x00, 0xff, 0x0f,
                       0x0f, 0x0f, 0x0f, 0x0f, 0x0f, 0x21, 0x0f, 0x01, 0x00, 0x00, 0x0f, 0xcd, 0x0f,
                       0x0f, 0x49, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0f, 0x0f, 0x49, 0x41,
                       0x4e, 0x43, 0x45, 0x00, 0x20, 0xff, 0x81, 0x00};
    TempFolder folder("huge");
    const std::string path = folder.file("declared.tga");
    test::writeBytes(path, {reinterpret_cast<const char*>(tga.data()), tga.size()});
    try {
        Texture::load(path);
        ADD_FAILURE() << "read";
    } catch (const TextureError& error) {
        EXPECT_EQ(error.what(), cutShortMessage(path, 20227, 3855));
    }
}

TEST(Texture, LargeImagesThatCompressWellStillLoad) {
    // Flat images are where the formats come nearest to the most pixels a byte can give.
    const int side = 1024;
    const Bytes pixels = test::flatImage(side, side, {90, 140, 200});
    for (const ImageFile& file : imageFiles(side, side, 3, pixels)) {
        SCOPED_TRACE(file.format);
        const auto texture = Texture::decode(file.bytes, "large");
        EXPECT_EQ(texture->width(), side);
        EXPECT_EQ(texture->height(), side);
        EXPECT_NEAR(texture->sample(0.3f, 0.6f).g, 140.0f / 255.0f, 0.02f);
    }
}

TEST(Texture, TheSizeLimitCanBeLoweredForAProcess) {
    const Bytes png = encodePng(ImageView{40, 30, 1, Bytes(40 * 30, 7)});
    EXPECT_EQ(textureSizeLimit(), kDefaultTextureSizeLimit);
    setTextureSizeLimit(32);
    try {
        Texture::decode(png, "wide.png");
        ADD_FAILURE() << "read past the limit";
    } catch (const TextureError& error) {
        EXPECT_STREQ(error.what(),
                     "Texture: 'wide.png' is 40 x 30 pixels, more than Velmorin "
                     "reads (32 x 32): scale it down");
    }
    setTextureSizeLimit(40);  // 1600 pixels: 40 x 30 fits
    EXPECT_EQ(Texture::decode(png, "wide.png")->width(), 40);
    setTextureSizeLimit(0);
    EXPECT_EQ(textureSizeLimit(), 1);
    setTextureSizeLimit(1 << 30);
    EXPECT_EQ(textureSizeLimit(), kDefaultTextureSizeLimit);
}

TEST(TextureCache, EvictsLeastRecentlyUsedAndRereadsAFileSavedAgain) {
    TempFolder folder("cache");
    const std::string a = folder.file("a.png"), b = folder.file("b.png"), c = folder.file("c.png");
    for (const auto& path : {a, b, c})
        writeFlatPng(path, 16, 16, {9});  // 256 bytes each
    TextureCache cache(600);
    const auto first = cache.get(a);
    cache.get(b);
    EXPECT_EQ(cache.get(a), first);  // a hit, and a is now the most recent
    cache.get(c);                    // 768 bytes: b leaves
    EXPECT_EQ(cache.use().entries, 2u);
    EXPECT_EQ(cache.use().bytes, 512u);
    EXPECT_EQ(cache.get(a), first);

    // Saved again (another size, so another stamp even within one clock tick): read again.
    writeFlatPng(a, 8, 8, {200});
    const auto second = cache.get(a);
    EXPECT_NE(second, first);
    EXPECT_EQ(second->width(), 8);
    EXPECT_EQ(first->width(), 16);  // still alive for whoever holds it

    // Nothing fits in a cache of 0 bytes, but what it hands out lives on.
    TextureCache none(0);
    const auto held = none.get(b);
    EXPECT_EQ(none.use().entries, 0u);
    EXPECT_EQ(held->width(), 16);

    const struct {
        const char* text;
        std::size_t bytes;
    } limits[] = {{"256", 256u << 20},   {"0", 0},
                  {"", 1024u << 20},     {"-5", 1024u << 20},
                  {"12MB", 1024u << 20}, {"99999999999999999999", 1024u << 20}};
    for (const auto& l : limits)
        EXPECT_EQ(textureCacheLimit(l.text), l.bytes) << l.text;
    EXPECT_EQ(textureCacheLimit(std::nullopt), std::size_t{1024} << 20);

    textureCache();
    const auto report = memoryReport();
    EXPECT_TRUE(std::any_of(report.begin(), report.end(),
                            [](const auto& line) { return line.name == "textures"; }));
}

TEST(TextureCache, ManyThreadsShareOneImage) {
    TempFolder folder("threads");
    const std::string path = folder.file("shared.png");
    writeFlatPng(path, 32, 32, {1, 2, 3, 4});
    TextureCache cache(1 << 20);
    std::vector<std::shared_ptr<const Texture>> seen(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] { seen[t] = cache.get(path); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(cache.use().entries, 1u);
    EXPECT_EQ(cache.get(path)->bytePixels()[3], 4);
}

}  // namespace
}  // namespace velmorin
