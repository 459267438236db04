#include "maps/map_paint.h"

#include <functional>

#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "maps/test/map_test_support.h"
#include "maps/texture.h"
#include "maps/texture_paint.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

using test::expectMessage;

// A byte's value as images give it.
float byteValue(int byte) {
    return static_cast<float>(byte) * (1.0f / 255.0f);
}

// Every byte of the image, to compare whole images.
std::vector<std::uint8_t> bytesOf(const TexturePaint& paint) {
    return {paint.bytePixels().begin(), paint.bytePixels().end()};
}

MapDab dabOf(float value, PaintMode mode, float strength = 1.0f) {
    MapDab dab;
    dab.value = {value, value, value, value};
    dab.mode = mode;
    dab.strength = strength;
    return dab;
}

TEST(StampVertexMap, EachModeMovesTowardItsTargetByTheWeight) {
    const auto plane = makeUvPlane(1.0f, 2);  // 9 vertices
    const struct {
        PaintMode mode;
        float v, start, d, strength, weight, expected;
    } cases[] = {
        {PaintMode::Replace, 0.2f, 0.2f, 0.8f, 1.0f, 0.5f, 0.5f},
        {PaintMode::Replace, 0.2f, 0.2f, 1.5f, 1.0f, 1.0f, 1.0f},   // d clamped
        {PaintMode::Replace, 0.2f, 0.2f, 0.3f, 2.0f, 0.75f, 0.3f},  // w capped at 1
        {PaintMode::Replace, 0.2f, 0.2f, 0.9f, -1.0f, 1.0f, 0.2f},  // w not above 0
        {PaintMode::Replace, 0.2f, 0.2f, 0.9f, 1.0f, 0.0f, 0.2f},
        {PaintMode::Add, 0.5f, 0.5f, 0.3f, 1.0f, 0.5f, 0.65f},
        {PaintMode::Add, 0.5f, 0.2f, 0.3f, 1.0f, 1.0f, 0.5f},  // measured from the start
        {PaintMode::Add, 0.9f, 0.9f, 0.3f, 1.0f, 1.0f, 1.0f},
        {PaintMode::Subtract, 0.6f, 0.6f, 0.25f, 1.0f, 1.0f, 0.35f},
        {PaintMode::Subtract, 0.3f, 0.6f, 0.25f, 1.0f, 0.5f, 0.325f},
        {PaintMode::ClampMaximum, 0.9f, 0.9f, 0.4f, 1.0f, 0.5f, 0.65f},
        {PaintMode::ClampMaximum, 0.2f, 0.2f, 0.4f, 1.0f, 1.0f, 0.2f},  // already below
    };
    for (const auto& c : cases) {
        std::vector<float> values(9, c.v);
        const std::vector<float> start(9, c.start);
        const MapHit hit{4, c.weight};
        const std::size_t changed =
            stampVertexMap(values, 1, dabOf(c.d, c.mode, c.strength), *plane, {&hit, 1}, start);
        EXPECT_NEAR(values[4], c.expected, 1e-6f) << static_cast<int>(c.mode) << " v " << c.v;
        EXPECT_EQ(changed, values[4] != c.v ? 1u : 0u);
        EXPECT_EQ(values[3], c.v);
    }
}

TEST(StampVertexMap, MasksReachColourChannelsAndAStrokeDoesNotPileUp) {
    const auto plane = makeUvPlane(1.0f, 2);
    std::vector<float> color(36, 0.0f);
    MapDab dab = dabOf(1.0f, PaintMode::Replace);
    dab.channels = parseChannelMask("gb");
    const MapHit hit{0, 1.0f};
    stampVertexMap(color, 4, dab, *plane, {&hit, 1});
    EXPECT_EQ(std::vector<float>(color.begin(), color.begin() + 4),
              (std::vector<float>{0, 1, 1, 0}));
    // A gray map has one value, which every mask reaches.
    std::vector<float> gray(9, 0.0f);
    dab.channels = parseChannelMask("a");
    stampVertexMap(gray, 1, dab, *plane, {&hit, 1});
    EXPECT_EQ(gray[0], 1.0f);

    std::vector<float> values(9, 0.1f);
    const std::vector<float> start = values;
    const MapDab add = dabOf(0.3f, PaintMode::Add);
    const MapHit half{2, 0.5f};
    for (int dab = 0; dab < 5; ++dab)
        stampVertexMap(values, 1, add, *plane, {&half, 1}, start);
    // Five dabs of one stroke approach b + d = 0.4 and never pass it; without the starting values
    // they would climb on.
    EXPECT_GT(values[2], 0.39f);
    EXPECT_LE(values[2], 0.4f);
}

TEST(StampVertexMap, RefusesMisfitValuesWithTheirMessages) {
    const auto plane = makeUvPlane(1.0f, 2);
    std::vector<float> nine(9), eighteen(18);
    const MapHit outside{9, 1.0f};
    const MapDab dab;
    expectMessage([&] { stampVertexMap(eighteen, 2, dab, *plane, {}); },
                  "stampVertexMap: a map has 1 channel (gray) or 4 (color)");
    expectMessage([&] { stampVertexMap(eighteen, 1, dab, *plane, {}); },
                  "stampVertexMap: one value per scalp vertex and channel");
    expectMessage([&] { stampVertexMap(nine, 1, dab, *plane, {}, std::vector<float>(4)); },
                  "stampVertexMap: the stroke's starting values have another size");
    expectMessage(
        [&] {
            stampVertexMap(nine, 1, dab, *plane, {&outside, 1});
        },
        "stampVertexMap: a hit names no vertex of the scalp");
    expectMessage([&] { smoothVertexMap(eighteen, 2, *plane, {}, 1.0f); },
                  "smoothVertexMap: a map has 1 channel (gray) or 4 (color)");
    expectMessage(
        [&] { smoothVertexMap(eighteen, 1, *plane, {}, 1.0f); },
        "smoothVertexMap: one value per scalp vertex and channel, with the scalp's neighbors");
    std::vector<float> values;
    expectMessage([&] { fillMapValues(values, 9, 3, std::vector<float>(4)); },
                  "fillMapValues: a map has 1 channel (gray) or 4 (color)");
    expectMessage([&] { fillMapValues(values, 9, 4, std::vector<float>(3)); },
                  "fillMapValues: incomplete map value");
    expectMessage<TextureError>([] { parseChannelMask(""); }, "name at least one channel of rgba");
    expectMessage<TextureError>([] { parseChannelMask("rgx"); },
                                "channels are letters of rgba, not 'rgx'");
    EXPECT_EQ(channelMaskText(parseChannelMask("abgr")), "rgba");
    EXPECT_EQ(channelMaskText(parseChannelMask("b")), "b");
}

TEST(SmoothVertexMap, BlendsTowardTheNeighboursMeanInAnyHitOrder) {
    const auto plane = makeUvPlane(4.0f, 4);  // 5 x 5 vertices, 1 apart
    // A linear ramp is its own neighbourhood mean inside the grid: only the border moves.
    std::vector<float> ramp(25);
    for (int j = 0; j < 5; ++j)
        for (int i = 0; i < 5; ++i)
            ramp[j * 5 + i] = 0.1f * i + 0.05f * j;
    std::vector<MapHit> all;
    for (std::uint32_t v = 0; v < 25; ++v)
        all.push_back({v, 1.0f});
    std::vector<float> smoothed = ramp;
    smoothVertexMap(smoothed, 1, *plane, all, 0.5f);
    for (int v : {6, 7, 8, 11, 12, 13, 16, 17, 18})
        EXPECT_NEAR(smoothed[v], ramp[v], 1e-6f) << v;

    // A spike drops by the weight toward its neighbours' mean (0); the others read it unchanged.
    std::vector<float> spike(25, 0.0f);
    spike[12] = 1.0f;
    std::vector<float> reversed = spike;
    EXPECT_EQ(smoothVertexMap(spike, 1, *plane, all, 0.5f), 7u);  // the spike and its 6 neighbours
    EXPECT_FLOAT_EQ(spike[12], 0.5f);
    EXPECT_FLOAT_EQ(spike[13], 0.5f / 6.0f);
    std::reverse(all.begin(), all.end());
    smoothVertexMap(reversed, 1, *plane, all, 0.5f);
    EXPECT_EQ(reversed, spike);
}

TEST(FillMapValues, FillsTheMaskedChannelsAndStartsAMisfitMapOver) {
    std::vector<float> values = {0.5f, 0.5f};  // painted on another scalp
    fillMapValues(values, 2, 4, std::vector<float>{0.2f, 0.4f, 0.6f, 0.8f}, parseChannelMask("gb"));
    EXPECT_EQ(values, (std::vector<float>{0, 0.4f, 0.6f, 1, 0, 0.4f, 0.6f, 1}));
    fillMapValues(values, 2, 4, std::vector<float>{0.9f, 0, 0, 0}, parseChannelMask("r"));
    EXPECT_EQ(values, (std::vector<float>{0.9f, 0.4f, 0.6f, 1, 0.9f, 0.4f, 0.6f, 1}));
}

// The plane of side 1 around the origin, facing +Y: u = x + 0.5, v = 0.5 - z.
Vec3f planePointOfTexel(int x, int y, int size) {
    const float u = (static_cast<float>(x) + 0.5f) / static_cast<float>(size);
    const float v = 1.0f - (static_cast<float>(y) + 0.5f) / static_cast<float>(size);
    return {u - 0.5f, 0.0f, 0.5f - v};
}

TEST(PaintMapDab, PaintsTheVerticesAndTexelsWithinReach) {
    const auto plane = makeUvPlane(1.0f, 16);
    MapDab dab = dabOf(1.0f, PaintMode::Replace);
    dab.hardness = 1.0f;  // a flat disc
    const Vec3f center{0.1f, 0.0f, -0.05f};
    const float radius = 0.23f;

    std::vector<float> values(plane->pointCount(), 0.0f);
    MapCanvas vertices = MapCanvas::vertices(values, 1);
    std::size_t inside = 0;
    for (const Vec3f& p : plane->points())
        inside += length(p - center) < radius ? 1 : 0;
    EXPECT_EQ(paintMapDab(vertices, *plane, dab, center, radius), inside);
    for (std::size_t v = 0; v < values.size(); ++v) {
        EXPECT_EQ(values[v], length(plane->points()[v] - center) < radius ? 1.0f : 0.0f) << v;
    }

    constexpr int kSize = 64;
    TexturePaint paint(kSize, kSize, 4);
    MapCanvas texture = MapCanvas::texture(paint);
    dab.channels = parseChannelMask("rb");
    const std::size_t painted = paintMapDab(texture, *plane, dab, center, radius);
    std::size_t expected = 0;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            const bool in = length(planePointOfTexel(x, y, kSize) - center) < radius;
            expected += in ? 1 : 0;
            EXPECT_EQ(paint.value(x, y, 0), in ? 1.0f : 0.0f) << x << ", " << y;
            EXPECT_EQ(paint.value(x, y, 1), 0.0f);
            EXPECT_EQ(paint.value(x, y, 3), 1.0f);
        }
    }
    EXPECT_EQ(painted, expected);

    // A given weight function replaces the dab's own falloff.
    std::vector<float> ones(plane->pointCount(), 0.0f);
    MapCanvas all = MapCanvas::vertices(ones, 1);
    paintMapDab(all, *plane, dab, center, radius,
                [](const Vec3f& p) { return p.x > 0.1f ? 0.5f : 0.0f; });
    EXPECT_EQ(ones[16], 0.0f);  // (0.5, 0, 0.5): out of reach
    EXPECT_EQ(ones[8 * 17 + 10], 0.5f);

    ScalpMesh bare(plane->points(), plane->triangles());
    expectMessage<TextureError>([&] { paintMapDab(texture, bare, dab, center, radius); },
                                "the scalp has no UVs to paint a texture map on");
}

TEST(TexturePaint, AnEditUndoesAndRedoesByteForByte) {
    const auto plane = makeUvPlane(1.0f, 8);
    TexturePaint paint(40, 40, 1);
    const std::vector<std::uint8_t> blank = bytesOf(paint);
    MapCanvas canvas = MapCanvas::texture(paint);
    MapDab add = dabOf(0.25f, PaintMode::Add);
    add.hardness = 1.0f;

    paint.beginEdit();
    paintMapDab(canvas, *plane, add, {0.0f, 0.0f, 0.0f}, 0.2f);
    paintMapDab(canvas, *plane, add, {0.05f, 0.0f, 0.0f}, 0.2f);
    TextureEdit edit = paint.endEdit();
    // Within one stroke the dabs add to what the stroke found, not to each other.
    EXPECT_EQ(paint.value(20, 20, 0), byteValue(64));
    const std::vector<std::uint8_t> painted = bytesOf(paint);
    EXPECT_FALSE(edit.empty());
    EXPECT_GT(edit.right, edit.left);

    const std::uint64_t serial = paint.serial();
    paint.applyEdit(edit);
    EXPECT_EQ(bytesOf(paint), blank);
    paint.applyEdit(edit);
    EXPECT_EQ(bytesOf(paint), painted);
    EXPECT_EQ(paint.serial(), serial + 2);

    // A second stroke adds again; a stroke that changes nothing leaves an empty record.
    paint.beginEdit();
    paintMapDab(canvas, *plane, add, {0.0f, 0.0f, 0.0f}, 0.2f);
    paint.endEdit();
    EXPECT_EQ(paint.value(20, 20, 0), byteValue(128));
    paint.beginEdit();
    paintMapDab(canvas, *plane, dabOf(0.0f, PaintMode::Add), {0.0f, 0.0f, 0.0f}, 0.2f);
    EXPECT_TRUE(paint.endEdit().empty());
}

TEST(TexturePaint, RefusesMisuseWithItsMessages) {
    expectMessage([] { TexturePaint(0, 4, 1); }, "TexturePaint: the image has no size");
    expectMessage([] { TexturePaint(4, -1, 1); }, "TexturePaint: the image needs a positive size");
    expectMessage([] { TexturePaint(4, 4, 3); },
                  "TexturePaint: a map has 1 channel (gray) or 4 (color)");

    TexturePaint paint(70, 70, 1);
    TexturePaint other(70, 70, 4);
    other.beginEdit();
    other.fill(std::vector<float>{1, 1, 1, 1}, kAllChannels);
    TextureEdit ofOther = other.endEdit();
    paint.beginEdit();
    paint.fill(std::vector<float>{0.5f}, kAllChannels);
    TextureEdit edit = paint.endEdit();
    EXPECT_EQ(edit.tiles.size(), 4u);  // 70 x 70 is 2 x 2 tiles
    TextureEdit shorter = edit;
    shorter.bytes.pop_back();

    paint.beginEdit();
    expectMessage([&] { paint.beginEdit(); },
                  "TexturePaint: beginEdit while an edit is being recorded");
    expectMessage([&] { paint.applyEdit(edit); },
                  "TexturePaint: applyEdit while an edit is being recorded");
    expectMessage([&] { paint.setChannels(4); },
                  "TexturePaint: setChannels while an edit is being recorded");
    paint.endEdit();
    const std::vector<std::uint8_t> before = bytesOf(paint);
    expectMessage([&] { paint.applyEdit(ofOther); },
                  "TexturePaint::applyEdit: the edit is of another image");
    expectMessage([&] { paint.applyEdit(shorter); },
                  "TexturePaint::applyEdit: the edit's values are short");
    EXPECT_EQ(bytesOf(paint), before);
    expectMessage([&] { paint.setChannels(2); },
                  "TexturePaint: a map has 1 channel (gray) or 4 (color)");

    // Gray to colour and back keeps the gray.
    paint.setChannels(4);
    EXPECT_EQ(paint.value(3, 3, 2), byteValue(128));
    EXPECT_EQ(paint.value(3, 3, 3), 1.0f);
    paint.setChannels(1);
    EXPECT_EQ(paint.value(3, 3, 0), byteValue(128));
}

TEST(TexturePaint, PaintsOnlyOnePngImage) {
    test::TempFolder folder("paint");
    const std::string rgb = folder.file("rgb.png");
    test::writeFlatPng(rgb, 3, 2, {10, 20, 30});
    TexturePaint paint = TexturePaint::loadForPainting("tint", rgb);
    EXPECT_EQ(paint.channels(), 4);
    EXPECT_EQ(paint.value(2, 1, 2), byteValue(30));
    EXPECT_EQ(paint.value(2, 1, 3), 1.0f);
    paint.fill(std::vector<float>{1, 0, 0, 1}, parseChannelMask("r"));
    EXPECT_TRUE(paint.isDirty());
    paint.save(rgb);
    EXPECT_FALSE(paint.isDirty());
    const Rgba saved = Texture::load(rgb)->sample(0.5f, 0.5f);
    EXPECT_NEAR(saved.r * 255.0f, 255.0f, 1e-3f);
    EXPECT_NEAR(saved.g * 255.0f, 20.0f, 1e-3f);

    expectMessage<TextureError>(
        [] { TexturePaint::loadForPainting("tint", "maps/tint.jpg"); },
        "tint is not a PNG, and painting writes PNG: link the map to its image "
        "again (Relink Image), which paints a PNG copy");
    expectMessage<TextureError>(
        [] { TexturePaint::loadForPainting("tint", "maps/tint_1001.png"); },
        "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as "
        "scalp maps");
}

}  // namespace
}  // namespace velmorin
