#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "common/preview_render.h"
#include "common/sample_groom.h"
#include "mesh/sample_meshes.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// A camera straight down the -Z axis from z = 10 at the origin: at depth 10, a 200-pixel-high
// picture with a 30-degree field shows 20 * tan(15 degrees) ~ 5.36 units.
PreviewCamera lookDownZ() {
    PreviewCamera camera;
    camera.eye = {0.0f, 0.0f, 10.0f};
    camera.target = {0.0f, 0.0f, 0.0f};
    return camera;
}

PreviewRenderOptions optionsFor(const PreviewCamera& camera, int width, int height) {
    PreviewRenderOptions options;
    options.width = width;
    options.height = height;
    options.camera = camera;
    return options;
}

StrandSet oneStrand(Vec3f from, Vec3f to, float width, std::uint64_t id = 7, int points = 5) {
    StrandSet strands;
    std::vector<Vec3f> line;
    for (int i = 0; i < points; ++i)
        line.push_back(lerp(from, to, static_cast<float>(i) / static_cast<float>(points - 1)));
    const std::vector<float> widths(line.size(), width);
    strands.addStrand(id, {}, line, widths);
    return strands;
}

float alphaAt(const PreviewImage& image, int x, int y) {
    return image.linear[(static_cast<std::size_t>(y) * image.width + x) * 4 + 3];
}

// A plane facing +Z at z = 0: the scalp seen head on by lookDownZ.
std::shared_ptr<ScalpMesh> wall() {
    auto plane = std::make_shared<ScalpMesh>(*makeUvPlane(12.0f, 4));
    std::vector<Vec3f> turned;
    for (const Vec3f& p : plane->points())
        turned.push_back({p.x, -p.z, p.y});
    plane->setPoints(turned);
    return plane;
}

TEST(PreviewRender, AGroomWithNoStrandsShowsTheScalpAlone) {
    const auto scalp = makeHeadScalp();
    PreviewRenderOptions options;
    options.width = 120;
    options.height = 100;
    options.view = PreviewView::Front;
    const PreviewImage bare = renderPreview(StrandSet(), scalp.get(), options);
    // The scalp covers the middle of the picture and leaves the corners to the background.
    EXPECT_FLOAT_EQ(alphaAt(bare, 60, 40), 1.0f);
    EXPECT_EQ(alphaAt(bare, 0, 0), 0.0f);
    EXPECT_EQ(alphaAt(bare, 119, 99), 0.0f);
    const std::uint8_t* corner = bare.rgba.data();
    const std::uint8_t* middle = bare.rgba.data() + (40 * 120 + 60) * 4;
    EXPECT_NE(std::vector<std::uint8_t>(corner, corner + 3),
              std::vector<std::uint8_t>(middle, middle + 3));

    // A groom whose strands are all thinned away draws the same pixels, with the same camera.
    std::uint64_t id = 1;
    while (unitFloat(id) < 0.9f)
        ++id;
    StrandSet hidden = oneStrand({0.0f, 5.0f, 12.0f}, {0.0f, -5.0f, 12.0f}, 0.5f, id);
    options.camera = bare.camera;
    options.density = 0.5;
    const PreviewImage thinned = renderPreview(hidden, scalp.get(), options);
    EXPECT_EQ(thinned.rgba, bare.rgba);
    EXPECT_EQ(thinned.linear, bare.linear);
}

TEST(PreviewRender, TheScalpHidesStrandsBehindIt) {
    const auto scalp = wall();
    const PreviewRenderOptions options = optionsFor(lookDownZ(), 160, 120);
    const PreviewImage bare = renderPreview(StrandSet(), scalp.get(), options);
    ASSERT_FLOAT_EQ(alphaAt(bare, 80, 60), 1.0f);

    // A strand across the view, 0.1 units (about 3.5 pixels) wide.
    const Vec3f from{-2.0f, 0.3f, 0.0f};
    const Vec3f to{2.0f, -0.3f, 0.0f};
    for (const float z : {1.0f, -1.0f}) {
        const StrandSet strand = oneStrand(from + Vec3f{0, 0, z}, to + Vec3f{0, 0, z}, 0.1f);
        const PreviewImage image = renderPreview(strand, scalp.get(), options);
        if (z < 0.0f) {
            EXPECT_EQ(image.rgba, bare.rgba) << "a strand behind the scalp shows";
            continue;
        }
        // In front, every pixel on its projection changes and those well clear of it do not.
        const PreviewProjection projection = image.projection();
        for (float t = 0.02f; t < 1.0f; t += 0.04f) {
            const auto at = projection.project(lerp(from, to, t) + Vec3f{0, 0, z});
            ASSERT_TRUE(at);
            const auto px = static_cast<int>(at->x);
            const auto py = static_cast<int>(at->y);
            const std::size_t i = (static_cast<std::size_t>(py) * 160 + px) * 4;
            EXPECT_NE(image.linear[i], bare.linear[i]) << "at " << px << ", " << py;
            const std::size_t clear = (static_cast<std::size_t>(py + 8) * 160 + px) * 4;
            EXPECT_EQ(image.linear[clear], bare.linear[clear]);
        }
    }
}

TEST(PreviewRender, CoverageAcrossAStrandIsItsWidthInPixels) {
    const PreviewCamera camera = lookDownZ();
    const PreviewProjection projection{camera, 200, 200};
    const float unitsPerPixel = 1.0f / projection.pixelsPerUnit(10.0f);
    // Nearly horizontal strands, so that their centre line crosses rows at every offset; the
    // alpha summed down a column is then the share of a pixel-wide band the strand fills.
    for (const float pixels : {0.25f, 0.5f, 1.0f, 3.0f}) {
        const StrandSet strand =
            oneStrand({-2.0f, 0.1f, 0.0f}, {2.0f, -0.13f, 0.0f}, pixels * unitsPerPixel);
        const PreviewImage image = renderPreview(strand, nullptr, optionsFor(camera, 200, 200));
        double total = 0.0;
        int columns = 0;
        for (int x = 40; x < 160; ++x, ++columns)
            for (int y = 0; y < 200; ++y)
                total += alphaAt(image, x, y);
        EXPECT_NEAR(total / columns, pixels, 0.03 * pixels) << pixels << " pixels wide";
        if (pixels < 1.0f) {
            // No pixel is covered more than the strand is wide.
            for (int x = 40; x < 160; ++x)
                for (int y = 0; y < 200; ++y)
                    ASSERT_LE(alphaAt(image, x, y), pixels + 1e-5f);
        }
    }
}

TEST(PreviewRender, NearerStrandsCoverFartherOnesInAnyOrder) {
    const PreviewCamera camera = lookDownZ();
    StrandSet red = oneStrand({-2.0f, 0.0f, 1.0f}, {2.0f, 0.0f, 1.0f}, 0.15f, 1);
    red.addStrandChannel(std::string(channels::kColor[0]), 0.8f);
    red.addStrandChannel(std::string(channels::kColor[1]), 0.0f);
    red.addStrandChannel(std::string(channels::kColor[2]), 0.0f);
    StrandSet blue = oneStrand({0.0f, -2.0f, 0.0f}, {0.0f, 2.0f, 0.0f}, 0.15f, 2);
    blue.addStrandChannel(std::string(channels::kColor[0]), 0.0f);
    blue.addStrandChannel(std::string(channels::kColor[1]), 0.0f);
    blue.addStrandChannel(std::string(channels::kColor[2]), 0.8f);
    StrandSet redFirst = red;
    redFirst.append(blue);
    StrandSet blueFirst = blue;
    blueFirst.append(red);
    const PreviewRenderOptions options = optionsFor(camera, 101, 101);
    const PreviewImage a = renderPreview(redFirst, nullptr, options);
    const PreviewImage b = renderPreview(blueFirst, nullptr, options);
    EXPECT_EQ(a.rgba, b.rgba);
    // Where they cross, the red strand (nearer) is what shows.
    const std::size_t centre = (50 * 101 + 50) * 4;
    EXPECT_GT(a.linear[centre], 2.0f * a.linear[centre + 2]);
    // Along the blue strand away from the crossing, blue shows.
    const std::size_t below = (80 * 101 + 50) * 4;
    EXPECT_GT(a.linear[below + 2], 2.0f * a.linear[below]);
}

TEST(PreviewRender, ColourComesFromPointsThenStrandsThenTheDefault) {
    const PreviewRenderOptions options = optionsFor(lookDownZ(), 64, 64);
    StrandSet strand = oneStrand({-2.0f, 0.0f, 0.0f}, {2.0f, 0.0f, 0.0f}, 0.3f);
    const auto colourAtCentre = [&](const StrandSet& s) {
        const PreviewImage image = renderPreview(s, nullptr, options);
        const std::size_t i = (32 * 64 + 32) * 4;
        return Vec3f{image.linear[i], image.linear[i + 1], image.linear[i + 2]};
    };
    const Vec3f brown = colourAtCentre(strand);
    EXPECT_GT(brown.x, brown.y);
    EXPECT_GT(brown.y, brown.z);
    for (int k = 0; k < 3; ++k)
        strand.addStrandChannel(std::string(channels::kColor[k]), k == 1 ? 0.6f : 0.0f);
    const Vec3f green = colourAtCentre(strand);
    EXPECT_GT(green.y, 2.0f * green.x);
    for (int k = 0; k < 3; ++k)
        strand.addPointChannel(std::string(channels::kColor[k]), k == 2 ? 0.6f : 0.0f);
    const Vec3f blue = colourAtCentre(strand);
    EXPECT_GT(blue.z, 2.0f * blue.y);
    // An opacity of a half lets half the background through.
    strand.addStrandChannel(std::string(channels::kOpacity), 0.5f);
    const PreviewImage half = renderPreview(strand, nullptr, options);
    EXPECT_NEAR(alphaAt(half, 32, 32), 0.5f, 1e-3f);
}

TEST(PreviewRender, SamePixelsAtAnyThreadCount) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions grow;
    grow.count = 3000;
    grow.rootWidth = 0.05f;
    const StrandSet groom = growSampleGroom(*scalp, grow);
    PreviewRenderOptions options;
    options.width = 200;
    options.height = 150;
    PreviewImage one;
    PreviewImage two;
    runWithThreads(1, [&] { one = renderPreview(groom, scalp.get(), options); });
    runWithThreads(2, [&] { two = renderPreview(groom, scalp.get(), options); });
    EXPECT_EQ(one.rgba, two.rgba);
    EXPECT_EQ(one.linear, two.linear);
    // And it is a picture of something: the groom covers a good share of it.
    int covered = 0;
    for (int y = 0; y < 150; ++y)
        for (int x = 0; x < 200; ++x)
            covered += alphaAt(one, x, y) > 0.5f ? 1 : 0;
    EXPECT_GT(covered, 200 * 150 / 5);
}

TEST(PreviewRender, NamedViewsFrameTheWholeGroom) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions grow;
    grow.count = 400;
    grow.keepOutOfScalp = false;
    const StrandSet groom = growSampleGroom(*scalp, grow);
    for (const std::string_view name : {"front", "side", "back", "top", "three-quarter"}) {
        const auto view = previewViewByName(name);
        ASSERT_TRUE(view) << name;
        EXPECT_EQ(previewViewName(*view), name);
        for (const auto& [width, height] : {std::pair{120, 80}, std::pair{60, 150}}) {
            const PreviewCamera camera =
                framePreviewCamera(groom, scalp.get(), *view, width, height);
            const PreviewProjection projection{camera, width, height};
            float minX = 1e9f, minY = 1e9f, maxX = -1e9f, maxY = -1e9f;
            const auto check = [&](const Vec3f& p) {
                const auto at = projection.project(p);
                ASSERT_TRUE(at);
                minX = std::min(minX, at->x);
                maxX = std::max(maxX, at->x);
                minY = std::min(minY, at->y);
                maxY = std::max(maxY, at->y);
            };
            for (const Vec3f& p : groom.points())
                check(p);
            for (const Vec3f& p : scalp->points())
                check(p);
            EXPECT_GE(minX, 0.0f) << name;
            EXPECT_GE(minY, 0.0f) << name;
            EXPECT_LT(maxX, static_cast<float>(width)) << name;
            EXPECT_LT(maxY, static_cast<float>(height)) << name;
            // Framed, not lost in the middle: the groom spans most of one side of the picture.
            EXPECT_GT(std::max((maxX - minX) / width, (maxY - minY) / height), 0.6f) << name;
        }
    }
    EXPECT_FALSE(previewViewByName("Front"));
    EXPECT_FALSE(previewViewByName("perspective"));
}

TEST(PreviewRender, DensityDrawsTheStrandsThatThinningKeeps) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions grow;
    grow.count = 1500;
    grow.keepOutOfScalp = false;
    const StrandSet groom = growSampleGroom(*scalp, grow);
    PreviewRenderOptions options;
    options.width = 96;
    options.height = 96;
    options.density = 0.3;
    const PreviewImage thin = renderPreview(groom, scalp.get(), options);
    StrandSet kept;
    groom.thinned(0.3, kept);
    ASSERT_LT(kept.strandCount(), groom.strandCount());
    options.density = 1.0;
    options.camera = thin.camera;
    EXPECT_EQ(renderPreview(kept, scalp.get(), options).rgba, thin.rgba);
    EXPECT_NE(renderPreview(groom, scalp.get(), options).rgba, thin.rgba);
}

TEST(PreviewRender, RefusesBadOptions) {
    const StrandSet none;
    struct Case {
        int width;
        int height;
        double density;
        const char* message;
    };
    const Case cases[] = {
        {0, 10, 1.0, "preview: the size must be 1 to 8192 pixels each way"},
        {10, 8193, 1.0, "preview: the size must be 1 to 8192 pixels each way"},
        {10, 10, 0.0, "preview: density must be above 0 and at most 1"},
        {10, 10, 1.5, "preview: density must be above 0 and at most 1"},
        {10, 10, std::nan(""), "preview: density must be above 0 and at most 1"},
    };
    for (const Case& c : cases) {
        PreviewRenderOptions options;
        options.width = c.width;
        options.height = c.height;
        options.density = c.density;
        try {
            renderPreview(none, nullptr, options);
            ADD_FAILURE() << c.message;
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), c.message);
        }
    }
}

}  // namespace
}  // namespace velmorin
