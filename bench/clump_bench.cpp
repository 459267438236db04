// Clump and Wet on a million strands of 9 points on the head scalp. The shape step reads the 108 MB
// of points and writes as much: set its times against BM_ClumpMemoryCopy, which copies that column
// once, and against BM_InterpolateShape, Interpolate's shape stage on a groom of the same size.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/operator.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/clump.h"
#include "ops/test/shape_strands.h"
#include "strands/strand_changes.h"

namespace velmorin {
namespace {

constexpr std::size_t kStrands = 1'000'000;

const std::shared_ptr<const ScalpMesh>& head() {
    static const std::shared_ptr<const ScalpMesh> mesh = makeHeadScalp(2);
    return mesh;
}

const std::shared_ptr<const StrandSet>& strands() {
    static const auto set = test::scalpStrands(*head(), kStrands, 9, 23);
    return set;
}

// The run's scene: the scalp the strands grow on.
const SceneInputs& scene() {
    static const SceneInputs inputs = [] {
        SceneInputs made;
        made[std::string(kScalpInput)] = SceneInput{Value(head()), 1};
        return made;
    }();
    return inputs;
}

EvalContext sceneContext() {
    EvalContext ctx;
    ctx.sceneInputs = &scene();
    return ctx;
}

void countPoints(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(strands()->pointCount() * sizeof(Vec3f)));
}

void BM_ClumpMemoryCopy(benchmark::State& state) {
    const std::span<const Vec3f> from = strands()->points();
    std::vector<Vec3f> to(from.size());
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size_bytes());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    countPoints(state);
}
BENCHMARK(BM_ClumpMemoryCopy)->Unit(benchmark::kMillisecond)->UseRealTime();

CenterPickSettings pickSettings() {
    CenterPickSettings settings;
    settings.scalp = head().get();
    settings.area = rootArea(*strands(), head().get());
    return settings;
}

// Choosing 300 centers among the million and assigning every strand to one.
void BM_ClumpPickCenters(benchmark::State& state) {
    const CenterPickSettings settings = pickSettings();
    std::shared_ptr<const CenterPlan> plan;
    for (auto _ : state)
        runWithThreads(static_cast<int>(state.range(0)),
                       [&] { plan = buildCenterPlan(*strands(), settings); });
    state.counters["centers"] = static_cast<double>(plan->size());
}
BENCHMARK(BM_ClumpPickCenters)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// What a run with a cached plan pays to know that its plan still holds: the hash of ids, roots and
// the channels the choice reads.
void BM_ClumpPlanKey(benchmark::State& state) {
    const CenterPickSettings settings = pickSettings();
    std::uint64_t key = 0;
    for (auto _ : state)
        runWithThreads(2, [&] {
            key =
                centerPlanKey(centerSettingsKey(settings), centerChunkHashes(*strands(), settings));
        });
    benchmark::DoNotOptimize(key);
}
BENCHMARK(BM_ClumpPlanKey)->Unit(benchmark::kMillisecond)->UseRealTime();

// The shape step alone, with the axes made from the current points as every run makes them.
void BM_ClumpShapeStep(benchmark::State& state) {
    const auto plan = buildCenterPlan(*strands(), pickSettings());
    ClumpSettings settings;
    settings.lockRadius = static_cast<float>(state.range(1)) * 0.01f;
    std::vector<Vec3f> out(strands()->pointCount());
    for (auto _ : state)
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            const ClumpAxisTable axes =
                clumpAxisTable(*plan, *strands(), nullptr, 0.0f, clumpNeedsFrames(settings));
            clumpStrands(*strands(), *plan, axes, settings, StrandSelection::every(), out);
        });
    countPoints(state);
}
BENCHMARK(BM_ClumpShapeStep)
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 5})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// A whole Clump node's run with its plan cached: the key, the axes, the shape step, the output
// column and the clump channel.
void BM_ClumpRunPlanCached(benchmark::State& state) {
    auto op = makeClumpOperator();
    const EvalContext ctx = sceneContext();
    Value out;
    runWithThreads(2, [&] { out = op->evaluate(ctx, {strands()}); });
    for (auto _ : state) {
        out = Value();
        runWithThreads(static_cast<int>(state.range(0)),
                       [&] { out = op->evaluate(ctx, {strands()}); });
    }
    countPoints(state);
}
BENCHMARK(BM_ClumpRunPlanCached)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Wet at its defaults: three levels of Clump, their plans cached after the first run.
void BM_WetDefault(benchmark::State& state) {
    auto op = OperatorRegistry::instance().create("Wet");
    const EvalContext ctx = sceneContext();
    Value out;
    runWithThreads(2, [&] { out = op->evaluate(ctx, {strands()}); });
    for (auto _ : state) {
        out = Value();
        runWithThreads(2, [&] { out = op->evaluate(ctx, {strands()}); });
    }
    countPoints(state);
}
BENCHMARK(BM_WetDefault)->Unit(benchmark::kMillisecond)->UseRealTime();

// An incremental run after 1% of the strands bent upstream (their roots kept).
void BM_ClumpIncrementalOnePercent(benchmark::State& state) {
    auto op = makeClumpOperator();
    const EvalContext ctx = sceneContext();
    auto bent = std::make_shared<StrandSet>(*strands());
    auto changed = std::make_shared<StrandChanges>();
    changed->all = false;
    changed->sameLayout = true;
    for (std::uint64_t s = 0; s < kStrands; s += 100)
        changed->strands.push_back(s);
    {
        std::vector<Vec3f>& points = bent->writePoints();
        for (const std::uint64_t s : changed->strands)
            points[bent->pointRange(s).begin + 8].x += 0.01f;
    }
    const std::shared_ptr<const StrandSet> input = bent;
    const std::vector<std::shared_ptr<const StrandChanges>> changes = {changed, nullptr};
    Value previous;
    runWithThreads(2, [&] { previous = op->evaluate(ctx, {strands()}); });
    std::size_t redone = 0;
    for (auto _ : state) {
        IncrementalInputs incremental;
        // Handed over, as an editor that keeps only the latest result does.
        incremental.previous = std::move(previous);
        incremental.changes = changes;
        Value out;
        StrandChanges made;
        runWithThreads(2, [&] {
            if (!op->evaluateIncremental(ctx, {input}, incremental, &out, &made))
                state.SkipWithError("not incremental");
        });
        redone = made.strands.size();
        previous = out;
    }
    state.counters["redone"] = static_cast<double>(redone);
}
BENCHMARK(BM_ClumpIncrementalOnePercent)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
