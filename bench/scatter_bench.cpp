// Scatter on the head-like scalp at about 1M strands of 9 points, on 1 and 2 threads: random
// placement with the strand set it grows, blue-noise relaxation of 1M candidates, and through the
// node a preview-density change with the placement cached and a randomness change with the
// relaxation cached. Set the times against BM_MemoryCopy: growing 1M strands writes about 150 MB.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>

#include "base/parallel.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "ops/scatter_placement.h"

namespace velmorin {
namespace {

constexpr double kStrands = 1'000'000.0;

const ScalpMesh& head() {
    static const auto mesh = makeHeadScalp(2);
    return *mesh;
}

double area(const ScalpMesh& mesh) {
    double total = 0.0;
    for (const float a : growthAreas(mesh))
        total += a;
    return total;
}

// The head scaled so that the node's top density, 2000, makes 1M strands.
std::shared_ptr<const ScalpMesh> largeHead() {
    static const std::shared_ptr<const ScalpMesh> mesh = [] {
        const float scale = static_cast<float>(std::sqrt(kStrands / (2000.0 * area(head()))));
        std::vector<Vec3f> points = head().points();
        for (Vec3f& p : points)
            p *= scale;
        auto scaled = std::make_shared<ScalpMesh>(head());
        scaled->setPoints(std::move(points));
        return std::shared_ptr<const ScalpMesh>(scaled);
    }();
    return mesh;
}

PlacementSettings millionRoots() {
    PlacementSettings settings;
    settings.density = kStrands / area(head());
    settings.seed = 7;
    return settings;
}

void BM_ScatterRandom(benchmark::State& state) {
    const std::vector<float> areas = growthAreas(head());
    GrowSettings grow;
    grow.segments = 8;
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        for (auto _ : state) {
            const ScatterPlacement placed = placeRandom(head(), areas, millionRoots());
            StrandSet set =
                growStrands(head(), placed.ids, placed.randomRoots, nullptr, placed.size(), grow);
            benchmark::DoNotOptimize(set.points().data());
            state.counters["strands"] = static_cast<double>(set.strandCount());
        }
    });
}
BENCHMARK(BM_ScatterRandom)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScatterRelax(benchmark::State& state) {
    const std::vector<float> areas = growthAreas(head());
    const ScatterPlacement random = placeRandom(head(), areas, millionRoots());
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        for (auto _ : state) {
            // The node relaxes the placement it just made in place: the bench's copy of its input,
            // and handing that copy back, are not timed.
            state.PauseTiming();
            ScatterPlacement placed = random;
            state.ResumeTiming();
            relaxPlacement(head(), millionRoots(), placed);
            benchmark::DoNotOptimize(placed.evenRoots.data());
            state.PauseTiming();
            placed = {};
            state.ResumeTiming();
        }
    });
    state.counters["candidates"] = static_cast<double>(random.size());
}
BENCHMARK(BM_ScatterRelax)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// Runs the node with one param changed between two values each iteration, after one run of each
// that fills its caches.
void runNode(benchmark::State& state, const char* param, double a, double b, bool preview) {
    auto op = OperatorRegistry::instance().create("Scatter");
    op->paramSet.set("density", 2000.0);
    op->paramSet.set("randomness", preview ? 0.0 : a);
    EvalContext ctx;
    ctx.resolution = 8;
    const std::vector<Value> inputs = {largeHead(), Value()};
    const auto run = [&](double value) {
        if (preview) {
            ctx.previewDensity = value;
        } else {
            op->paramSet.set(param, value);
        }
        return op->evaluate(ctx, inputs).get<StrandSet>();
    };
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        run(a);
        run(b);
        bool flip = false;
        for (auto _ : state) {
            const auto set = run(flip ? a : b);
            flip = !flip;
            benchmark::DoNotOptimize(set->points().data());
            state.counters["strands"] = static_cast<double>(set->strandCount());
        }
    });
}

void BM_ScatterPreviewChange(benchmark::State& state) {
    runNode(state, "previewDensity", 0.5, 0.6, true);
}
BENCHMARK(BM_ScatterPreviewChange)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScatterRandomnessChange(benchmark::State& state) {
    runNode(state, "randomness", 0.3, 0.7, false);
}
BENCHMARK(BM_ScatterRandomnessChange)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
