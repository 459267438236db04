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
        const auto head = withSampleHead(*scalp);
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
