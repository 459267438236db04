// The Alembic hair writer and reader on a dense groom: 1M strands of 9 points with widths and a
// colour per point, one frame. Beside them, the same number of bytes written and read with plain
// file calls: the writer and reader should stay within a small factor of those, since the file is
// little more than the arrays it holds. Each benchmark sets "bytes_per_second" from the file's
// size.
#include "alembic/alembic_curves_reader.h"
#include "alembic/alembic_strand_writer.h"
#include "strands/channel_names.h"
#include "strands/test/test_strands.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace velmorin {
namespace {

std::string benchPath(const char* name) {
    return (std::filesystem::temp_directory_path() /
            ("velmorin-bench-" + std::to_string(::getpid()) + "-" + name))
        .string();
}

// The groom: the grid of the strand benchmarks with a colour on every point.
const StrandSet& groom() {
    static const StrandSet set = [] {
        StrandSet out = *test::gridStrands(1'000'000, 9, 1);
        for (std::size_t c = 0; c < 3; ++c) {
            std::vector<float>& channel = out.addPointChannel(std::string(channels::kColor[c]), 0);
            for (std::size_t p = 0; p < channel.size(); ++p)
                channel[p] = static_cast<float>((p * (c + 3)) % 255) / 255.0f;
        }
        return out;
    }();
    return set;
}

void writeGroom(const std::string& path) {
    AlembicStrandWriter writer(path, "hair");
    writer.writeStrands(0.0, groom());
    writer.close();
}

// The file the reader and the plain calls work on, written once and removed at exit.
struct GroomFile {
    std::string path = benchPath("read.abc");
    GroomFile() { writeGroom(path); }
    ~GroomFile() { std::filesystem::remove(path); }
};

const std::string& groomFile() {
    static const GroomFile file;
    return file.path;
}

std::size_t fileBytes() {
    return static_cast<std::size_t>(std::filesystem::file_size(groomFile()));
}

void setBytes(benchmark::State& state, std::size_t bytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(bytes));
    state.counters["fileMB"] = static_cast<double>(bytes) / (1 << 20);
}

void BM_AlembicWriteFrame(benchmark::State& state) {
    groom();
    const std::string path = benchPath("write.abc");
    for (auto _ : state)
        writeGroom(path);
    setBytes(state, static_cast<std::size_t>(std::filesystem::file_size(path)));
    std::filesystem::remove(path);
}
BENCHMARK(BM_AlembicWriteFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_AlembicReadFrame(benchmark::State& state) {
    const std::string& path = groomFile();
    for (auto _ : state) {
        const StrandSet read = AlembicCurvesReader(path).readStrands(0.0);
        benchmark::DoNotOptimize(read.pointCount());
    }
    setBytes(state, fileBytes());
}
BENCHMARK(BM_AlembicReadFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

// The file's bytes written again with one plain write, the floor for the writer.
void BM_PlainFileWrite(benchmark::State& state) {
    std::ifstream in(groomFile(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::string path = benchPath("plain.bin");
    for (auto _ : state) {
        std::FILE* file = std::fopen(path.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        std::fclose(file);
    }
    setBytes(state, bytes.size());
    std::filesystem::remove(path);
}
BENCHMARK(BM_PlainFileWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

// The file read into memory with one plain read, the floor for the reader.
void BM_PlainFileRead(benchmark::State& state) {
    std::vector<char> bytes(fileBytes());
    for (auto _ : state) {
        std::FILE* file = std::fopen(groomFile().c_str(), "rb");
        benchmark::DoNotOptimize(std::fread(bytes.data(), 1, bytes.size(), file));
        std::fclose(file);
    }
    setBytes(state, bytes.size());
}
BENCHMARK(BM_PlainFileRead)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
