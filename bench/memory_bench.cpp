// This machine's memory bandwidth, the yardstick for the other benchmarks: a copy of 64 MiB reads
// and writes every byte once. "bytes_per_second" counts bytes read, as the others do.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

void BM_MemoryCopy(benchmark::State& state) {
    const std::size_t bytes = static_cast<std::size_t>(state.range(0)) << 20;
    std::vector<char> from(bytes, 1), to(bytes, 0);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}
BENCHMARK(BM_MemoryCopy)->Arg(64)->Unit(benchmark::kMillisecond);

}  // namespace
