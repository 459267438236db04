// Saving and loading a production-sized groom: 50k guides of 16 points (in the guide data and as
// exported guides), a head scalp of about 200k triangles with UVs, and four maps of 1024 x 1024
// values, on 1 and 2 threads. Save is writeGroom plus the write to a temporary file and the rename;
// load is reading the file and every section. Set the times against BM_GroomFileCopy, a plain copy
// of as many bytes as the file holds (in memory and through the same file calls): what is above it
// is formatting and parsing text, not moving bytes. "bytes_per_second" counts the file's bytes.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/parallel.h"
#include "files/groom_file.h"
#include "files/test/groom_fixtures.h"

namespace velmorin {
namespace {

const GroomFile& bigGroom() {
    static const GroomFile file = [] {
        GroomFile groom;
        const auto head = makeHeadScalp(10);
        const GuideHierarchy hierarchy = test::scalpHierarchy(*head, 50'000, 16, 0, 11);
        groom.graph = defaultGraphJson();
        groom.hierarchy = hierarchy.toJson();
        groom.scalp = head;
        groom.guides = test::exportedGuides(hierarchy);
        for (int i = 0; i < 4; ++i) {
            groom.maps["map" + std::to_string(i)] = {MapKind::Vertices, 1,
                                                     test::mapValues(1024 * 1024, 1, i), ""};
        }
        groom.framesPerSecond = 24.0;
        return groom;
    }();
    return file;
}

const std::string& bigText() {
    static const std::string text = writeGroom(bigGroom());
    return text;
}

std::string benchPath(const char* name) {
    return (std::filesystem::temp_directory_path() / name).string();
}

void describe(benchmark::State& state) {
    const std::size_t bytes = bigText().size();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    state.counters["fileMB"] = static_cast<double>(bytes) / (1 << 20);
    state.counters["triangles"] = static_cast<double>(bigGroom().scalp->triangleCount());
    state.counters["guides"] = static_cast<double>(bigGroom().guides->size());
}

void BM_GroomFileSave(benchmark::State& state) {
    const std::string path = benchPath("velmorin_bench_save.groom");
    bigText();
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] { saveGroomFile(path, bigGroom()); });
    }
    describe(state);
    std::filesystem::remove(path);
}
BENCHMARK(BM_GroomFileSave)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GroomFileLoad(benchmark::State& state) {
    const std::string path = benchPath("velmorin_bench_load.groom");
    saveGroomFile(path, bigGroom());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            const GroomFile file = readGroomFile(path);
            benchmark::DoNotOptimize(file.scalp.get());
        });
    }
    describe(state);
    std::filesystem::remove(path);
}
BENCHMARK(BM_GroomFileLoad)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same number of bytes copied in memory, written to a file and read back, with no formatting.
void BM_GroomFileCopy(benchmark::State& state) {
    const std::string& text = bigText();
    const std::string path = benchPath("velmorin_bench_copy.groom");
    std::string copy(text.size(), '\0');
    std::vector<char> back(text.size());
    for (auto _ : state) {
        std::memcpy(copy.data(), text.data(), text.size());
        benchmark::DoNotOptimize(copy.data());
        if (state.range(0) == 1) {
            std::FILE* out = std::fopen(path.c_str(), "wb");
            std::fwrite(copy.data(), 1, copy.size(), out);
            std::fclose(out);
            std::FILE* in = std::fopen(path.c_str(), "rb");
            benchmark::DoNotOptimize(std::fread(back.data(), 1, back.size(), in));
            std::fclose(in);
        }
    }
    describe(state);
    std::filesystem::remove(path);
}
// 0: in memory only; 1: also written to a file and read back.
BENCHMARK(BM_GroomFileCopy)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
