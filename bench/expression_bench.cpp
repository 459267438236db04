// Expression evaluation over a dense groom: 1M strands of 9 points, on 1 and 2 threads. Each
// benchmark reports items_per_second in values made (strands for a per-strand program, points for
// a per-point one) and bytes_per_second from the bytes the run must touch (the points it reads and
// the values it writes), to set against BM_MemoryCopy: a run far below that rate is bound by the
// interpreter's arithmetic and dispatch, not by memory.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "base/parallel.h"
#include "expr/binding.h"
#include "expr/expression.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

const StrandSet& groom() {
    static const StrandSet strands = *test::gridStrands(1'000'000, 9, 1);
    return strands;
}

void BM_Expression(benchmark::State& state, const char* source, ExpressionLevel level) {
    const StrandSet& strands = groom();
    const int threads = static_cast<int>(state.range(0));
    const ExpressionBinding binding = bind(compile(source, {}, ExpressionType::Number), strands);
    const bool perPoint = level == ExpressionLevel::Point;
    std::vector<float> out(perPoint ? strands.pointCount() : strands.strandCount());
    for (auto _ : state) {
        runWithThreads(threads, [&] { evaluateExpression(binding, out, level); });
        benchmark::DoNotOptimize(out.data());
    }
    const auto iterations = static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(iterations * static_cast<std::int64_t>(out.size()));
    const std::size_t bytes =
        out.size() * sizeof(float) + strands.points().size_bytes() + strands.offsets().size_bytes();
    state.SetBytesProcessed(iterations * static_cast<std::int64_t>(bytes));
    state.counters["instructions"] = static_cast<double>(binding.program().code.size());
}

BENCHMARK_CAPTURE(BM_Expression, perStrand, "rand * 2 + $length / $longest",
                  ExpressionLevel::Strand)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Expression, perPointNoise, "noise($pointP * 4) * $t", ExpressionLevel::Point)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Expression, perPointFbm4, "fbm($pointP * 4, 4) * $t", ExpressionLevel::Point)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
// Ten operations per point: t, 2, *, py, rand, *, +, t, t, *, - (eleven instructions).
BENCHMARK_CAPTURE(BM_Expression, perPointTenOps, "$t * 2 + $py * $rand - $t * $t",
                  ExpressionLevel::Point)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ExpressionCompile(benchmark::State& state) {
    const char* source =
        "$a = fbm($P, 4);\nif ($a > 0.5) { $c = [1, 0, 0]; } else { $c = $N; }\n"
        "($c * $a + cross($tip, [0, 1, 0])).y + curve($t, 0, 0, 3, 0.5, 1, 4, 1, 0, 2)";
    for (auto _ : state)
        benchmark::DoNotOptimize(compile(source, {}, ExpressionType::Number));
}
BENCHMARK(BM_ExpressionCompile)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace velmorin
