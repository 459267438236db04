#include "maps/map_conversions.h"

#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "maps/test/map_test_support.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

using test::expectMessage;

// A value that bilinear and barycentric blending reproduce exactly: linear over the plane.
float linear(const Vec3f& p) {
    return 0.4f + 0.5f * p.x + 0.25f * p.z;
}

std::vector<float> linearMap(const ScalpMesh& scalp) {
    std::vector<float> values;
    for (const Vec3f& p : scalp.points())
        values.push_back(linear(p));
    return values;
}

TEST(MapConversions, VertexValuesBecomeATextureAndComeBack) {
    const auto plane = makeUvPlane(1.0f, 8);
    const std::vector<float> values = linearMap(*plane);
    const TexturePaint image = textureFromVertexMap(values, 1, *plane, 128);
    EXPECT_EQ(image.channels(), 1);
    // Each texel holds the value at its centre, to a byte.
    for (int y = 0; y < 128; y += 9) {
        for (int x = 0; x < 128; x += 7) {
            const Vec3f p{(x + 0.5f) / 128.0f - 0.5f, 0.0f, (y + 0.5f) / 128.0f - 0.5f};
            EXPECT_NEAR(image.value(x, y, 0), linear(p), 0.5f / 255.0f + 1e-6f) << x << ", " << y;
        }
    }
    // Read back at the vertices; those on the border read half a texel in.
    const std::vector<float> back = vertexMapFromTexture(*image.snapshot(), *plane, 1);
    for (std::size_t v = 0; v < values.size(); ++v)
        EXPECT_NEAR(back[v], values[v], 0.006f) << v;
    const std::vector<float> color = vertexMapFromTexture(*image.snapshot(), *plane, 4);
    EXPECT_NEAR(color[4 * 40 + 1], values[40], 0.006f);
    EXPECT_EQ(color[4 * 40 + 3], 1.0f);
}

TEST(MapConversions, TexelsPastAnIslandTakeItsEdgeForAFewTexels) {
    // One triangle over the lower left half of UV space.
    ScalpMesh scalp({{0, 0, 0}, {1, 0, 0}, {0, 0, 1}}, {{0, 1, 2}});
    scalp.setUvs({{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}});
    const TexturePaint image = textureFromVertexMap(std::vector<float>{1, 1, 1}, 1, scalp, 64);
    EXPECT_EQ(image.value(2, 63, 0), 1.0f);   // inside
    EXPECT_EQ(image.value(34, 63, 0), 1.0f);  // two texels out: padded
    EXPECT_EQ(image.value(40, 63, 0), 0.0f);  // past the padding
    EXPECT_EQ(image.value(60, 2, 0), 0.0f);
}

TEST(MapConversions, MapsMoveToANewScalpThroughTheClosestPoint) {
    const auto oldPlane = makeUvPlane(1.0f, 4);
    const auto newPlane = makeUvPlane(1.0f, 7);
    const std::vector<float> moved =
        projectVertexMap(linearMap(*oldPlane), 1, *oldPlane, *newPlane);
    ASSERT_EQ(moved.size(), newPlane->pointCount());
    for (std::size_t v = 0; v < moved.size(); ++v)
        EXPECT_NEAR(moved[v], linear(newPlane->points()[v]), 1e-5f);

    const TexturePaint source = textureFromVertexMap(linearMap(*oldPlane), 1, *oldPlane, 64);
    const TexturePaint projected = projectTexture(*source.snapshot(), *oldPlane, *newPlane, 64);
    for (int y = 4; y < 60; y += 5) {
        for (int x = 4; x < 60; x += 5)
            EXPECT_NEAR(projected.value(x, y, 0), source.value(x, y, 0), 1.5f / 255.0f);
    }

    test::TempFolder folder("project");
    const std::string oldImage = folder.file("old.png");
    TexturePaint(source).save(oldImage);
    const ScalpMap textureMap{MapKind::Texture, 1, {}, oldImage};
    const ScalpMap result =
        projectScalpMap("len", textureMap, *oldPlane, *newPlane, folder.file("new.png"));
    EXPECT_EQ(result.texture, folder.file("new.png"));
    EXPECT_TRUE(std::filesystem::exists(result.texture));
    const ScalpMap vertexMap{MapKind::Vertices, 1, linearMap(*oldPlane), ""};
    EXPECT_EQ(projectScalpMap("len", vertexMap, *oldPlane, *newPlane, "").values, moved);

    const std::string prefix = "map 'len' can't move to the new scalp: ";
    expectMessage<TextureError>(
        [&] {
            projectScalpMap("len", {MapKind::Texture, 1, {}, ""}, *oldPlane, *newPlane, "x.png");
        },
        prefix + "no file");
    expectMessage<TextureError>(
        [&] {
            projectScalpMap("len", {MapKind::Texture, 1, {}, folder.file("gone.png")}, *oldPlane,
                            *newPlane, "x.png");
        },
        prefix + "its image is missing (" + folder.file("gone.png") + ")");
    expectMessage<TextureError>(
        [&] { projectScalpMap("len", textureMap, *oldPlane, *newPlane, ""); },
        prefix + "nowhere to write its projected image");
}

TEST(MapConversions, RefuseScalpsAndMapsThatDoNotFit) {
    const auto plane = makeUvPlane(1.0f, 2);
    const ScalpMesh empty;
    const ScalpMesh bare(plane->points(), plane->triangles());
    const Texture texture(1, 1, 1, std::vector<std::uint8_t>{9});
    const std::vector<float> nine(9), ten(10);
    expectMessage<TextureError>([&] { textureFromVertexMap(nine, 1, bare, 8); },
                                "the scalp has no UVs to paint a texture map on");
    expectMessage<std::invalid_argument>(
        [&] { textureFromVertexMap(ten, 1, *plane, 8); },
        "textureFromVertexMap: one value per scalp vertex and channel");
    expectMessage<std::invalid_argument>([&] { textureFromVertexMap(nine, 1, *plane, 0); },
                                         "TexturePaint: the image has no size");
    expectMessage<TextureError>([&] { vertexMapFromTexture(texture, bare, 1); },
                                "the scalp has no UVs to read a texture map at");
    expectMessage<TextureError>([&] { projectVertexMap(nine, 1, empty, *plane); },
                                "the old scalp has no faces");
    expectMessage<TextureError>(
        [&] { projectVertexMap(std::vector<float>(16), 4, *plane, *plane); },
        "the map has 4 vertices' values and the old scalp 9 vertices");
    expectMessage<TextureError>([&] { projectTexture(texture, *plane, bare, 8); },
                                "the new scalp has no UVs to paint a texture map on");
    expectMessage<TextureError>([&] { projectTexture(texture, empty, *plane, 8); },
                                "the old scalp has no faces");
    expectMessage<TextureError>([&] { projectTexture(texture, bare, *plane, 8); },
                                "the old scalp has no UVs to read the texture map at");
    expectMessage<std::invalid_argument>(
        [&] { cornerColorsFromVertexMap(ten, 1, *plane); },
        "cornerColorsFromVertexMap: one value per scalp vertex and channel");
    expectMessage<std::invalid_argument>(
        [&] { convertMapChannels(nine, 1, 3); },
        "convertMapChannels: a map has 1 channel (gray) or 4 (color)");
}

TEST(MapConversions, GrayAndColourTurnIntoEachOther) {
    const std::vector<float> gray = {0.25f, 1.0f};
    const std::vector<float> color = convertMapChannels(gray, 1, 4);
    EXPECT_EQ(color, (std::vector<float>{0.25f, 0.25f, 0.25f, 1, 1, 1, 1, 1}));
    const std::vector<float> back =
        convertMapChannels(std::vector<float>{1, 0, 0, 0.5f, 0, 0, 1, 1}, 4, 1);
    EXPECT_FLOAT_EQ(back[0], 0.2126f);
    EXPECT_FLOAT_EQ(back[1], 0.0722f);

    const auto plane = makeUvPlane(1.0f, 1);  // 4 vertices, 2 triangles
    const std::vector<float> values = {0.1f, 0.2f, 0.3f, 0.4f};
    const std::vector<Rgba> corners = cornerColorsFromVertexMap(values, 1, *plane);
    ASSERT_EQ(corners.size(), 6u);
    for (std::size_t k = 0; k < 6; ++k) {
        const float g = values[plane->triangles()[k / 3][k % 3]];
        EXPECT_EQ(corners[k], (Rgba{g, g, g, 1.0f}));
    }
}

}  // namespace
}  // namespace velmorin
