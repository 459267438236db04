// Starter guides on the head-like scalp: what `velmorin new` and `velmorin demo` spend before the
// first evaluation. The farthest-point spread is quadratic in the count, so 10,000 (the most that
// can be asked) is the case to watch.
#include <benchmark/benchmark.h>

#include "common/starter_guides.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

void BM_StarterGuides(benchmark::State& state) {
    const auto scalp = makeHeadScalp(2);
    StarterGuideOptions options;
    options.count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        GuideHierarchy guides = makeStarterGuides(*scalp, options);
        benchmark::DoNotOptimize(guides.guides().data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_StarterGuides)->Arg(64)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmorin
