// The USD text writer at the size of a dense groom: 1M strands of 9 points with widths and a colour
// per point, one frame, opened, written and closed. Its cost is the formatting of some 63M floats
// in their shortest form, so the same floats printed by std::to_chars alone, one thread, run
// beside it as the bound to read it against; "text_MB" is the size of the file.
#include <charconv>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"
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

std::filesystem::path benchPath() {
    return std::filesystem::temp_directory_path() /
           ("velmorin-usd-bench-" + std::to_string(::getpid()) + ".usda");
}

// Arg: threads. "frame_ms" and "close_ms" split the time between writeFrame (formatting into the
// spools) and close (stitching the spools into the file).
void BM_UsdWriteFrame(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    const StrandSet& set = groom();
    const std::filesystem::path path = benchPath();
    double frameMs = 0.0, closeMs = 0.0;
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
    state.counters["frame_ms"] = frameMs / runs;
    state.counters["close_ms"] = closeMs / runs;
    state.counters["text_MB"] = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
    std::filesystem::remove(path);
}
BENCHMARK(BM_UsdWriteFrame)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floats of that frame (points, widths, colours) printed by std::to_chars into one buffer.
void BM_UsdFloatsByToChars(benchmark::State& state) {
    const StrandSet& set = groom();
    std::vector<const float*> columns;
    std::vector<std::size_t> sizes;
    columns.push_back(&set.points()[0].x);
    sizes.push_back(set.points().size() * 3);
    columns.push_back(set.widths().data());
    sizes.push_back(set.widths().size());
    for (const std::string_view component : channels::kColor) {
        columns.push_back(set.pointChannel(component)->data());
        sizes.push_back(set.pointChannel(component)->size());
    }
    std::vector<char> buffer(std::size_t{1} << 20);
    std::size_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (std::size_t c = 0; c < columns.size(); ++c) {
            char* out = buffer.data();
            for (std::size_t i = 0; i < sizes[c]; ++i) {
                if (out + 32 > buffer.data() + buffer.size()) {
                    bytes += static_cast<std::size_t>(out - buffer.data());
                    benchmark::DoNotOptimize(buffer.data());
                    out = buffer.data();
                }
                out = std::to_chars(out, out + 16, columns[c][i]).ptr;
                *out++ = ',';
            }
            bytes += static_cast<std::size_t>(out - buffer.data());
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["text_MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_UsdFloatsByToChars)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
