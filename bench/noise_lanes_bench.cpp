// Noise at its defaults (frequency 3, 2 octaves, strand space) on 1M strands of 17 points at one
// thread, with each lattice-face kernel this processor runs: 0 one line at a time, 1 AVX2 (64-bit
// multiplies of 32-bit ones), 2 AVX-512. The bits are the same; compare the times, and
// "bytes_per_second" (the points read) with BM_NoiseLanesCopy's, a plain copy of the same points.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "base/parallel.h"
#include "expr/noise.h"
#include "ops/shape_ops.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

constexpr std::size_t kStrands = 1'000'000;
constexpr std::size_t kPoints = 17;

const StrandSet& strands() {
    static const std::shared_ptr<const StrandSet> set = test::gridStrands(kStrands, kPoints, 11);
    return *set;
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(kStrands * kPoints * sizeof(Vec3f)));
}

void BM_NoiseLanes(benchmark::State& state) {
    const auto kernel = static_cast<NoiseLanes>(state.range(0));
    if (kernel > noiseLanesAvailable()) {
        state.SkipWithError("this processor lacks the kernel");
        return;
    }
    const StrandSet& input = strands();
    const NoiseSettings settings;
    std::vector<Vec3f> out(input.pointCount());
    setNoiseLanes(kernel);
    for (auto _ : state) {
        runWithThreads(1, [&] {
            noiseStrands(input, settings, StrandSelection::every(), std::span<Vec3f>(out));
        });
        benchmark::DoNotOptimize(out.data());
    }
    setNoiseLanes(NoiseLanes::Avx512);
    setBytes(state);
}
BENCHMARK(BM_NoiseLanes)
    ->ArgName("kernel")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_NoiseLanesCopy(benchmark::State& state) {
    const std::span<const Vec3f> points = strands().points();
    std::vector<Vec3f> out(points.size());
    for (auto _ : state) {
        std::copy(points.begin(), points.end(), out.begin());
        benchmark::DoNotOptimize(out.data());
    }
    setBytes(state);
}
BENCHMARK(BM_NoiseLanesCopy)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
