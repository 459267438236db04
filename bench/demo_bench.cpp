// `velmorin demo` as a whole: the default graph at full density on the head-like scalp, the groom
// file, the Alembic and USD files and the front picture. Its target is under 5 s on 2 threads.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "common/progress.h"
#include "common/session_backend.h"

namespace velmorin {
namespace {

void BM_Demo(benchmark::State& state) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "velmorin_demo_bench_XXXXXX").string();
    const std::filesystem::path folder = mkdtemp(pattern.data());
    const std::vector<std::string> args = {"-o", folder.string()};
    ProgressReporter quiet;
    for (auto _ : state)
        benchmark::DoNotOptimize(runDemoCommand(args, quiet));
    std::filesystem::remove_all(folder);
}
BENCHMARK(BM_Demo)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
