// velmorin_preview_samples FOLDER [STRANDS]: grows a groom on the head-like sample scalp and writes
// preview pictures of it from the named views, to judge the renderer by eye.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/preview_render.h"
#include "common/sample_groom.h"
#include "mesh/sample_meshes.h"

namespace {

// The scalp with the rest of a head under it, for the pictures only: the sample scalp stops at the
// hairline, and hair over an empty face reads as a hat. The head is the skull's ellipsoid (the one
// the sample scalp is laid on), a little inside it, stretched down for the face.
std::shared_ptr<const velmorin::ScalpMesh> withHead(const velmorin::ScalpMesh& scalp) {
    using namespace velmorin;
    const auto sphere = makeSphere(1.0f, 48, 64);
    std::vector<Vec3f> points = scalp.points();
    std::vector<Triangle> triangles = scalp.triangles();
    const auto first = static_cast<std::uint32_t>(points.size());
    for (const Vec3f& p : sphere->points()) {
        const float down = p.y < 0.0f ? 1.35f : 1.0f;
        points.push_back({7.45f * p.x, 8.85f * p.y * down, -0.6f + 9.65f * p.z});
    }
    for (const Triangle& t : sphere->triangles())
        triangles.push_back({t[0] + first, t[1] + first, t[2] + first});
    return std::make_shared<const ScalpMesh>(std::move(points), std::move(triangles));
}

}  // namespace

int main(int argc, char** argv) {
    using namespace velmorin;
    const std::filesystem::path folder = argc > 1 ? argv[1] : "pictures";
    const long count = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 60000;
    try {
        std::filesystem::create_directories(folder);
        const auto scalp = makeHeadScalp(2);
        SampleGroomOptions grow;
        grow.count = static_cast<std::size_t>(std::max(count, 1L));
        const auto started = std::chrono::steady_clock::now();
        const StrandSet groom = growSampleGroom(*scalp, grow);
        const auto head = withHead(*scalp);
        const auto grown = std::chrono::steady_clock::now();
        std::printf("grew %zu strands in %.0f ms\n", groom.strandCount(),
                    std::chrono::duration<double, std::milli>(grown - started).count());
        for (const PreviewView view : {PreviewView::Front, PreviewView::Side, PreviewView::Back,
                                       PreviewView::Top, PreviewView::ThreeQuarter}) {
            PreviewRenderOptions options;
            options.view = view;
            const auto begin = std::chrono::steady_clock::now();
            const PreviewImage image = renderPreview(groom, head.get(), options);
            const auto end = std::chrono::steady_clock::now();
            const auto path = folder / (std::string(previewViewName(view)) + ".png");
            writePng(path, image.view());
            std::printf("%s: %.0f ms\n", path.c_str(),
                        std::chrono::duration<double, std::milli>(end - begin).count());
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velmorin_preview_samples: %s\n", error.what());
        return 1;
    }
    return 0;
}
