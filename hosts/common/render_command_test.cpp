#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "base/test/temp_files.h"
#include "common/render_command.h"
#include "common/sample_groom.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

// The words of a command line as a shell splits it (no quoting in these tests).
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

TEST(RenderCommand, ReadsItsFlags) {
    struct Case {
        const char* line;
        int width;
        int height;
        PreviewView view;
        double density;
        std::optional<double> frame;
        std::string groom;
    };
    using enum PreviewView;
    const Case cases[] = {
        {"g.groom -o p.png", 1024, 1024, ThreeQuarter, 1.0, {}, "g.groom"},
        {"--output=p.PNG --view side --size 640x480 g.groom", 640, 480, Side, 1.0, {}, "g.groom"},
        {"g.groom -o p.png -s 8192X1 -v top -d 0.25 -f -12.5", 8192, 1, Top, 0.25, -12.5,
         "g.groom"},
        {"-o p.png --density 1 -v three-quarter -- -odd.groom",
         1024,
         1024,
         ThreeQuarter,
         1.0,
         {},
         "-odd.groom"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        const RenderRequest request = parseRenderRequest(words(c.line));
        EXPECT_EQ(request.options.width, c.width);
        EXPECT_EQ(request.options.height, c.height);
        EXPECT_EQ(request.options.view, c.view);
        EXPECT_EQ(request.options.density, c.density);
        EXPECT_EQ(request.frame, c.frame);
        EXPECT_EQ(request.groom, c.groom);
    }
    EXPECT_TRUE(parseRenderRequest(words("g -o a.png -t")).options.transparentBackground);
    const RenderRequest explicitCamera =
        parseRenderRequest(words("g -o a.png --eye 1,2.5,-30 --target=0,1e1,0 -up 0,0,1 -fov 45"));
    ASSERT_TRUE(explicitCamera.options.camera);
    EXPECT_EQ(explicitCamera.options.camera->eye, (Vec3f{1.0f, 2.5f, -30.0f}));
    EXPECT_EQ(explicitCamera.options.camera->target, (Vec3f{0.0f, 10.0f, 0.0f}));
    EXPECT_EQ(explicitCamera.options.camera->up, (Vec3f{0.0f, 0.0f, 1.0f}));
    EXPECT_EQ(explicitCamera.options.camera->fovDegrees, 45.0f);
    EXPECT_EQ(parseRenderRequest(words("g -o a.png -e -1.5")).options.exposure, -1.5f);
}

TEST(RenderCommand, RefusesBadUsage) {
    struct Case {
        const char* line;
        std::string message;
    };
    const Case cases[] = {
        {"g.groom", "-output is required"},
        {"-o p.png", "name a groom"},
        {"g.groom h.groom -o p.png", "unexpected argument 'h.groom'"},
        {"g.groom -o p.jpg", "-output must name a .png file"},
        {"g.groom -o p.png -s 0x10",
         "-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '0x10'"},
        {"g.groom -o p.png -s 8193x10",
         "-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '8193x10'"},
        {"g.groom -o p.png -s 640", "-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '640'"},
        {"g.groom -o p.png -s 4x4x4",
         "-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '4x4x4'"},
        {"g.groom -o p.png -v Front",
         "-view must be front, side, back, top or three-quarter, not 'Front'"},
        {"g.groom -o p.png -d 0", "-density must be above 0 and at most 1"},
        {"g.groom -o p.png -d 1.01", "-density must be above 0 and at most 1"},
        {"g.groom -o p.png -e 30", "-exposure must be -20 to 20 stops"},
        {"g.groom -o p.png -eye 0,0,10", "-eye and -target go together"},
        {"g.groom -o p.png -fov 40", "-fieldOfView goes with -eye and -target"},
        {"g.groom -o p.png -eye 0,0,10 -tg 0,0,0 -v front",
         "use -view or -eye and -target, not both"},
        {"g.groom -o p.png -eye 0,0 -tg 0,0,0", "-eye takes X,Y,Z, not '0,0'"},
        {"g.groom -o p.png -eye 0,0,1, -tg 0,0,0", "-eye takes X,Y,Z, not '0,0,1,'"},
        {"g.groom -o p.png -eye 1,2,3 -tg 1,2,3", "-eye and -target must differ"},
        {"g.groom -o p.png -eye 0,5,0 -tg 0,0,0", "-up must not point along the view"},
        {"g.groom -o p.png -eye 0,0,9 -tg 0,0,0 -fov 180",
         "-fieldOfView must be above 0 and below 180 degrees"},
    };
    for (const Case& c : cases) {
        try {
            parseRenderRequest(words(c.line));
            ADD_FAILURE() << c.message;
        } catch (const CommandError& error) {
            EXPECT_EQ(error.kind(), CommandError::Kind::Usage);
            EXPECT_EQ(std::string(error.what()), c.message);
        }
    }
}

TEST(RenderCommand, WritesThePicture) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions grow;
    grow.count = 500;
    grow.keepOutOfScalp = false;
    const StrandSet groom = growSampleGroom(*scalp, grow);
    const test::TempFolder folder("render");
    const std::string path = folder.file("p.png");
    RenderRequest request =
        parseRenderRequest(words("g.groom -o " + path + " -s 48x32 -v back -d 0.5"));
    const std::string answer = writePreviewPicture(groom, scalp.get(), request);
    StrandSet kept;
    groom.thinned(0.5, kept);
    EXPECT_EQ(answer, "wrote " + path + ": 48x32, back view, " +
                          std::to_string(kept.strandCount()) + " strands");
    const std::string bytes = test::readBytes(path);
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(1, 3), "PNG");
    // The header's width and height, big-endian after "IHDR".
    EXPECT_EQ(bytes[19], 48);
    EXPECT_EQ(bytes[23], 32);

    request.options.camera = PreviewCamera{{0.0f, 0.0f, 60.0f}, {0.0f, 0.0f, 0.0f}};
    EXPECT_EQ(writePreviewPicture(groom, scalp.get(), request),
              "wrote " + path + ": 48x32, a given camera, " + std::to_string(kept.strandCount()) +
                  " strands");
    request.output = folder.file("missing/p.png");
    try {
        writePreviewPicture(groom, scalp.get(), request);
        ADD_FAILURE() << "wrote into a folder that is not there";
    } catch (const CommandError& error) {
        EXPECT_EQ(error.kind(), CommandError::Kind::Failure);
        EXPECT_NE(std::string(error.what()).find("could not write"), std::string::npos)
            << error.what();
    }
}

}  // namespace
}  // namespace velmorin
