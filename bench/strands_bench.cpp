// Strand data at the sizes of a dense groom: 1M and 10M strands of 9 points. Each benchmark sets
// "bytes_per_second" from the bytes the operation must read, so that it reads directly against
// BM_MemoryCopy: an operation bound by memory traffic comes close to that rate, one bound by
// arithmetic falls short of it.
#include "strands/strand_changes.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace velmorin {
namespace {

constexpr std::size_t kPointsPerStrand = 9;
// Per strand: id, root, offset, then per point a position and a width.
constexpr std::size_t kStrandBytes = sizeof(std::uint64_t) + sizeof(StrandRoot) +
                                     sizeof(std::uint64_t) +
                                     kPointsPerStrand * (sizeof(Vec3f) + sizeof(float));

// Straight strands from a grid, made once and never asked for extents, so that copies of them start
// with cold caches.
const StrandSet& strands(std::size_t count) {
    static const StrandSet million = *test::gridStrands(1'000'000, kPointsPerStrand, 1);
    if (count == 1'000'000) return million;
    static const StrandSet tenMillion = *test::gridStrands(10'000'000, kPointsPerStrand, 1);
    return tenMillion;
}

void setBytes(benchmark::State& state, std::size_t bytesPerIteration) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(bytesPerIteration));
}

void BM_StrandBounds(benchmark::State& state) {
    const StrandSet& set = strands(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        const StrandSet copy = set;  // shares the columns, not a filled extent cache
        benchmark::DoNotOptimize(copy.bounds());
    }
    setBytes(state, set.points().size_bytes() + set.offsets().size_bytes());
}
BENCHMARK(BM_StrandBounds)
    ->Arg(1'000'000)
    ->Arg(10'000'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_StrandContentHash(benchmark::State& state) {
    const StrandSet& set = strands(1'000'000);
    for (auto _ : state)
        benchmark::DoNotOptimize(set.contentHash());
    setBytes(state, set.strandCount() * kStrandBytes);
}
BENCHMARK(BM_StrandContentHash)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StrandThinned(benchmark::State& state) {
    const StrandSet& set = strands(static_cast<std::size_t>(state.range(0)));
    StrandSet out;
    // Two runs first, as on the frames before: the pool then holds arrays of the output's sizes.
    set.thinned(0.5, out);
    set.thinned(0.5, out);
    for (auto _ : state) {
        set.thinned(0.5, out);
        benchmark::DoNotOptimize(out.strandCount());
    }
    // Every id for the test, then each kept strand's id, root, offsets, points and widths.
    setBytes(state, set.ids().size_bytes() + out.strandCount() * kStrandBytes);
    state.counters["kept"] = static_cast<double>(out.strandCount());
}
BENCHMARK(BM_StrandThinned)
    ->Arg(1'000'000)
    ->Arg(10'000'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_StrandDifference(benchmark::State& state) {
    const StrandSet& set = strands(1'000'000);
    const auto previous = std::make_shared<const StrandSet>(set);
    StrandSet next = set;
    std::vector<Vec3f>& points = next.writePoints();
    for (std::size_t s = 0; s < next.strandCount(); s += 100) {  // 1% of the strands
        const StrandSet::PointRange range = next.pointRange(s);
        points[range.begin + range.count - 1].y += 0.5f;
    }
    const auto shared = std::make_shared<const StrandSet>(std::move(next));
    std::size_t changed = 0;
    for (auto _ : state) {
        const auto changes = strandDifference(previous, shared);
        changed = changes->strands.size();
        benchmark::DoNotOptimize(changes);
    }
    // Both point arrays and the offsets; ids, roots, offsets and widths are shared and skipped.
    setBytes(state, 2 * set.points().size_bytes() + set.offsets().size_bytes());
    state.counters["changed"] = static_cast<double>(changed);
}
BENCHMARK(BM_StrandDifference)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StrandDeriveWidths(benchmark::State& state) {
    const StrandSet& set = strands(1'000'000);
    StrandSet(set).writeWidths();  // leaves a widths array of this size in the pool
    for (auto _ : state) {
        StrandSet derived = set;
        std::vector<float>& widths = derived.writeWidths();
        for (float& width : widths)
            width *= 0.5f;
        benchmark::DoNotOptimize(widths.data());
    }
    setBytes(state, set.widths().size_bytes());
}
BENCHMARK(BM_StrandDeriveWidths)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_StrandAppend(benchmark::State& state) {
    const StrandSet& set = strands(1'000'000);
    StrandSet(set).append(set);  // leaves arrays of the joined sizes in the pool
    for (auto _ : state) {
        StrandSet joined = set;
        joined.append(set);
        benchmark::DoNotOptimize(joined.strandCount());
    }
    setBytes(state, 2 * set.strandCount() * kStrandBytes);
}
BENCHMARK(BM_StrandAppend)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
