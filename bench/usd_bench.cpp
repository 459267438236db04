// The USD text writer at the size of a dense groom: 1M strands of 9 points with widths and a colour
// per point, one frame, opened, written and closed. Its cost is the formatting of some 63M floats
// in their shortest form, so the same floats printed alone on one thread, by std::to_chars and by
// the writer's own formatter, run beside it as the bound to read it against; "text_MB" is the
// size of the text.
#include <charconv>
#include <chrono>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"
#include "usd/usd_text.h"
#include "usd/usd_writer.h"

namespace velmorin {
namespace {

constexpr std::size_t kStrands = 1'000'000;
constexpr std::size_t kPointsPerStrand = 9;

// Grid strands with hashed colours per point, made once.
const StrandSet& groom() {
    static const StrandSet set = [] {
        StrandSet made = *test::gridStrands(kStrands, kPointsPerStrand, 3);
        for (std::size_t k = 0; k < 3; ++k) {
            std::vector<float>& values =
                made.addPointChannel(std::string(channels::kColor[k]), 0.0f);
            for (std::size_t p = 0; p < values.size(); ++p)
                values[p] = unitFloat(hashCombine(p, k));
        }
        return made;
    }();
    return set;
}

// A memory-backed folder where there is one, so that the figures are the writer's and not those of
// a disk that other work shares.
std::filesystem::path benchPath() {
    std::error_code error;
    const std::filesystem::path folder = std::filesystem::is_directory("/dev/shm", error)
                                             ? std::filesystem::path("/dev/shm")
                                             : std::filesystem::temp_directory_path();
    return folder / ("velmorin-usd-bench-" + std::to_string(::getpid()) + ".usda");
}

// The CPU time of the whole process, all threads, user and system, in milliseconds.
double processCpuMs() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

// Arg: threads. "frame_ms" and "close_ms" split the time between writeFrame (formatting into the
// spools) and close (stitching the spools into the file); "all_cpu_ms" is the CPU time of all
// threads, which on a machine that other work shares says more than the time on the clock.
void BM_UsdWriteFrame(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const StrandSet& set = groom();
    const std::filesystem::path path = benchPath();
    double frameMs = 0.0, closeMs = 0.0;
    const double cpuBefore = processCpuMs();
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            UsdCurvesWriter writer(path, UsdOptions{});
            const auto start = Clock::now();
            writer.writeFrame(1.0, set);
            const auto written = Clock::now();
            writer.close();
            frameMs += std::chrono::duration<double, std::milli>(written - start).count();
            closeMs += std::chrono::duration<double, std::milli>(Clock::now() - written).count();
        });
    }
    const double runs = static_cast<double>(state.iterations());
    state.counters["all_cpu_ms"] = (processCpuMs() - cpuBefore) / runs;
    state.counters["frame_ms"] = frameMs / runs;
    state.counters["close_ms"] = closeMs / runs;
    state.counters["text_MB"] = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    std::filesystem::remove(path);
}
BENCHMARK(BM_UsdWriteFrame)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floats of that frame (points, widths, colours) printed one after another into a buffer, by
// std::to_chars or by the writer's own shortest form (the same text).
template <class Print>
void printFloats(benchmark::State& state, Print print) {
    const StrandSet& set = groom();
    std::vector<std::span<const float>> columns;
    columns.emplace_back(&set.points()[0].x, set.points().size() * 3);
    columns.push_back(set.widths());
    for (const std::string_view component : channels::kColor)
        columns.push_back(*set.pointChannel(component));
    std::vector<char> buffer(std::size_t{1} << 20);
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (const std::span<const float> column : columns) {
            char* out = buffer.data();
            for (const float value : column) {
                if (out + 32 > buffer.data() + buffer.size()) {
                    bytes += static_cast<std::size_t>(out - buffer.data());
                    benchmark::DoNotOptimize(buffer.data());
                    out = buffer.data();
                }
                out = print(out, value);
                *out++ = ',';
            }
            bytes += static_cast<std::size_t>(out - buffer.data());
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["text_MB"] = static_cast<double>(bytes) / 1e6;
}

void BM_UsdFloatsByToChars(benchmark::State& state) {
    printFloats(state,
                [](char* out, float value) { return std::to_chars(out, out + 16, value).ptr; });
}
BENCHMARK(BM_UsdFloatsByToChars)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_UsdFloatsByShortestText(benchmark::State& state) {
    printFloats(state, [](char* out, float value) { return writeUsdFloat(out, value); });
}
BENCHMARK(BM_UsdFloatsByShortestText)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
