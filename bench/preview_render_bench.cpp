// The preview renderer on a full head of hair: 1M strands of 9 points at 1024 x 1024, the size a
// review step renders. The work is rasterising the ~8M segments (each binned into the tiles it
// crosses), sorting each tile's segments by depth and compositing the fragments in front.
#include <benchmark/benchmark.h>

#include "base/parallel.h"
#include "common/preview_render.h"
#include "common/sample_groom.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

struct Head {
    std::shared_ptr<const ScalpMesh> scalp = makeHeadScalp(2);
    StrandSet groom;

    explicit Head(std::size_t strands) {
        SampleGroomOptions grow;
        grow.count = strands;
        grow.points = 9;
        // No closest-point push per point: the set-up would take longer than the benchmark.
        grow.keepOutOfScalp = false;
        groom = growSampleGroom(*scalp, grow);
    }
};

const Head& millionStrands() {
    static const Head head(1000000);
    return head;
}

// Argument: the thread count.
void BM_PreviewRender1M(benchmark::State& state) {
    const Head& head = millionStrands();
    PreviewRenderOptions options;
    options.width = 1024;
    options.height = 1024;
    options.view = PreviewView::ThreeQuarter;
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            const PreviewImage image = renderPreview(head.groom, head.scalp.get(), options);
            benchmark::DoNotOptimize(image.rgba.data());
        });
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(head.groom.strandCount()));
}
BENCHMARK(BM_PreviewRender1M)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
