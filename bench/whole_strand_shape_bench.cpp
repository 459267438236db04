// The shape kernels of Bend, Direction, Transform, Smooth and Flow on 1M strands of 9 points over
// the head-like scalp, on 1 and 2 threads, and Smooth redoing 1% of them as an incremental run
// does. Each reads the 108 MB of points and writes as much: set the times against BM_MemoryCopy.
// "bytes_per_second" counts the points read.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/flow.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_strands.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

constexpr std::size_t kStrands = 1'000'000;

const ScalpMesh& head() {
    static const auto mesh = makeHeadScalp(2);
    return *mesh;
}

const StrandSet& strands() {
    static const auto set = test::scalpStrands(head(), kStrands, 9, 17);
    return *set;
}

const FlowField& flow() {
    static const auto field = [] {
        FlowSet set;
        const auto [low, high] = head().bounds();
        const Vec3f top{0.5f * (low.x + high.x), high.y, 0.5f * (low.z + high.z)};
        set.pins.push_back(pinFromSurface(head(), head().closestPoint(top).root, {0, 0, -1}));
        set.pins.push_back(
            pinFromSurface(head(), head().closestPoint({high.x, top.y, top.z}).root, {0, -1, 0}));
        return FlowField::build(set, head());
    }();
    return *field;
}

// Runs `kernel(input, points, pick)` over every strand, or over every hundredth with `sparse`.
template <class Kernel>
void runKernel(benchmark::State& state, Kernel kernel, bool sparse = false) {
    const StrandSet& input = strands();
    std::vector<Vec3f> points(input.points().begin(), input.points().end());
    std::vector<std::uint64_t> listed;
    StrandSelection pick;
    if (sparse) {
        for (std::uint64_t s = 0; s < input.strandCount(); s += 100)
            listed.push_back(s);
        pick = StrandSelection::only(listed);
    }
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)),
                       [&] { kernel(input, std::span<Vec3f>(points), pick); });
        benchmark::DoNotOptimize(points.data());
        benchmark::ClobberMemory();
    }
    // A digest of the points' bits, so that a run's counters show whether a change altered them.
    std::uint64_t h = 0x736861ull;
    for (const Vec3f& p : points) {
        std::uint32_t words[3];
        std::memcpy(words, &p, sizeof(words));
        for (const std::uint32_t word : words)
            h = hashCombine(h, word);
    }
    state.counters["digest"] = static_cast<double>(h % 100000);
    const std::size_t read = sparse ? listed.size() * 9 : input.pointCount();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(read * sizeof(Vec3f)));
}

void BM_ShapeBend(benchmark::State& state) {
    BendSettings settings;
    settings.angle = FieldSampler(60.0f);
    settings.end = 0.8f;
    settings.randomness = 0.3f;
    settings.scalp = &head();
    runKernel(state, [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
        bendStrands(in, settings, pick, out);
    });
}
BENCHMARK(BM_ShapeBend)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeDirection(benchmark::State& state) {
    DirectionSettings settings;
    settings.inclination = FieldSampler(60.0f);
    settings.roll = FieldSampler(20.0f);
    settings.rollRandom = 10.0f;
    settings.scalp = &head();
    runKernel(state, [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
        directStrands(in, settings, pick, out);
    });
}
BENCHMARK(BM_ShapeDirection)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeTransform(benchmark::State& state) {
    TransformSettings settings;
    settings.rotate = {10.0f, 20.0f, 30.0f};
    settings.scale = FieldSampler(1.2f);
    settings.rotateRandom = 5.0f;
    settings.scalp = &head();
    runKernel(state, [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
        transformStrands(in, settings, pick, out);
    });
}
BENCHMARK(BM_ShapeTransform)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

SmoothSettings smoothSettings() {
    SmoothSettings settings;
    settings.strength = FieldSampler(0.8f);
    settings.scale = 0.2f;
    return settings;
}

void BM_ShapeSmooth(benchmark::State& state) {
    const SmoothSettings settings = smoothSettings();
    runKernel(state, [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
        smoothStrands(in, settings, pick, out);
    });
}
BENCHMARK(BM_ShapeSmooth)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeSmoothOnePercent(benchmark::State& state) {
    const SmoothSettings settings = smoothSettings();
    runKernel(
        state,
        [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
            smoothStrands(in, settings, pick, out);
        },
        true);
}
BENCHMARK(BM_ShapeSmoothOnePercent)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ShapeFlow(benchmark::State& state) {
    FlowSettings settings;
    settings.scalp = &head();
    settings.flow = &flow();
    runKernel(state, [&](const StrandSet& in, std::span<Vec3f> out, const StrandSelection& pick) {
        flowStrands(in, settings, pick, out);
    });
}
BENCHMARK(BM_ShapeFlow)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
