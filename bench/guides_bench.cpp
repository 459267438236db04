// The guide hierarchy at the size of a dense groom: 50,000 primaries of 16 points on a head scalp,
// each with 20 generated children (a million child guides). Guide data JSON out and in (the split
// scan and the whole parse), a pose on a new frame of the scalp, and regenerating every child.
// "bytes_per_second" counts the text; "items_per_second" counts guides. The arg is the thread
// count.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "base/parallel.h"
#include "editing/guide_hierarchy.h"
#include "editing/test/guide_fixtures.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

constexpr std::size_t kPrimaries = 50'000;
constexpr std::size_t kPoints = 16;
constexpr int kChildren = 20;

const ScalpMesh& scalp() {
    static const auto head = makeHeadScalp(4);
    return *head;
}

// The scalp of the next frame: the same topology, its points moved as a head nods and breathes.
const ScalpMesh& movedScalp() {
    static const ScalpMesh moved = [] {
        ScalpMesh copy = scalp();
        std::vector<Vec3f> points = copy.points();
        for (Vec3f& p : points)
            p = {p.x * 1.02f, p.y * 0.98f + 0.05f * p.z, p.z - 0.05f * p.y};
        copy.setPoints(std::move(points));
        return copy;
    }();
    return moved;
}

const GuideHierarchy& hierarchy() {
    static const GuideHierarchy h =
        test::scalpHierarchy(scalp(), kPrimaries, kPoints, kChildren, 1, 10.0f);
    return h;
}

const std::string& text() {
    static const std::string json = hierarchy().toJson();
    return json;
}

void setCounts(benchmark::State& state, std::size_t bytes) {
    state.SetItemsProcessed(state.iterations() *
                            static_cast<std::int64_t>(hierarchy().guides().size()));
    if (bytes) state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void BM_GuideToJson(benchmark::State& state) {
    const GuideHierarchy& h = hierarchy();
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        for (auto _ : state) {
            std::string json = h.toJson();
            benchmark::DoNotOptimize(json.data());
        }
    });
    setCounts(state, text().size());
    state.counters["MB"] = static_cast<double>(text().size()) / (1 << 20);
}
BENCHMARK(BM_GuideToJson)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Reading only: letting go of the hierarchy read is left out of the time.
void readEach(benchmark::State& state, GuideReadMode mode) {
    const std::string& json = text();
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        for (auto _ : state) {
            auto read = std::make_unique<GuideHierarchy>(GuideHierarchy::fromJson(json, mode));
            benchmark::DoNotOptimize(read->guides().data());
            state.PauseTiming();
            read.reset();
            state.ResumeTiming();
        }
    });
    setCounts(state, json.size());
}

void BM_GuideFromJsonSplit(benchmark::State& state) {
    readEach(state, GuideReadMode::SplitOnly);
}
BENCHMARK(BM_GuideFromJsonSplit)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GuideFromJsonWhole(benchmark::State& state) {
    readEach(state, GuideReadMode::WholeParse);
}
BENCHMARK(BM_GuideFromJsonWhole)
    ->Arg(2)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Each iteration poses on the other of two frames, so every pose moves every guide.
void BM_GuidePose(benchmark::State& state) {
    GuideHierarchy h = hierarchy();
    bool moved = false;
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        h.pose(movedScalp());  // the pose order is made once for an unchanged hierarchy
        for (auto _ : state) {
            moved = !moved;
            h.pose(moved ? scalp() : movedScalp());
        }
    });
    setCounts(state, 0);
}
BENCHMARK(BM_GuidePose)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GuideGenerateChildren(benchmark::State& state) {
    GuideHierarchy h = hierarchy();
    std::vector<std::uint64_t> parents;
    for (const Guide& guide : h.guides())
        if (guide.parent == 0) parents.push_back(guide.id);
    ChildOptions options;
    options.count = kChildren;
    options.seed = 1;
    runWithThreads(static_cast<int>(state.range(0)), [&] {
        for (auto _ : state) {
            ++options.seed;  // each run replaces the million children by new ones
            h.generateChildren(h.findGroup("main")->id, "kids", parents, options);
        }
    });
    setCounts(state, 0);
}
BENCHMARK(BM_GuideGenerateChildren)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
