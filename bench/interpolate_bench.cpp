#include <benchmark/benchmark.h>

#include <cmath>

#include "base/hash.h"
#include "base/parallel.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_shape.h"
#include "strands/guide.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// About a million strands of 9 points and 5,000 guides of 16 points on the head-like scalp.
struct Groom {
    std::shared_ptr<const ScalpMesh> scalp = makeHeadScalp(1);
    std::shared_ptr<const StrandSet> strands;
    std::shared_ptr<GuideSet> guides = std::make_shared<GuideSet>();
    std::vector<Vec3f> strandRoots, guideRoots;

    Groom() {
        EvalContext ctx;
        ctx.resolution = 8;
        auto all = std::make_shared<StrandSet>();
        for (const std::int64_t seed : {0, 1}) {
            auto scatter = OperatorRegistry::instance().create("Scatter");
            scatter->paramSet.set("density", 1230.0);
            scatter->paramSet.set("seed", seed);
            all->append(*scatter->evaluate(ctx, {scalp, Value()}).get<StrandSet>());
        }
        strands = all;
        auto scatter = OperatorRegistry::instance().create("Scatter");
        scatter->paramSet.set("density", 12.3);
        scatter->paramSet.set("seed", std::int64_t{9});
        const auto roots = scatter->evaluate(ctx, {scalp, Value()}).get<StrandSet>();
        for (std::size_t g = 0; g < roots->strandCount(); ++g) {
            Guide guide;
            guide.id = roots->ids()[g];
            guide.root = roots->roots()[g];
            const Vec3f start = roots->strandPoints(g)[0];
            const Vec3f normal = scalp->normalAt(guide.root);
            for (int k = 0; k < 16; ++k) {
                const float t = static_cast<float>(k) / 15.0f;
                guide.points.push_back(start + normal * (2.0f * t) +
                                       Vec3f{0.0f, -t * t, unitFloat(guide.id) * t});
            }
            guides->guides.push_back(std::move(guide));
            guideRoots.push_back(start);
        }
        for (std::size_t s = 0; s < strands->strandCount(); ++s)
            strandRoots.push_back(strands->strandPoints(s)[0]);
    }
};

// A digest of bits, so that a run's counters show at a glance whether a change altered results.
template <class T>
double digest(std::span<const T> values) {
    std::uint64_t h = 0x696e74ull;
    const auto* words = reinterpret_cast<const std::uint32_t*>(values.data());
    for (std::size_t i = 0; i < values.size_bytes() / 4; ++i)
        h = hashCombine(h, words[i]);
    return static_cast<double>(h % 100000);
}

const Groom& groom() {
    static const Groom made;
    return made;
}

BindingInputs inputsOf(const Groom& g) {
    BindingInputs inputs;
    inputs.strandRoots = g.strandRoots;
    inputs.guideRoots = g.guideRoots;
    return inputs;
}

void BM_InterpolateBinding(benchmark::State& state) {
    const Groom& g = groom();
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), false, 0, false, false);
    std::shared_ptr<const InterpolateState> bound;
    for (auto _ : state)
        runWithThreads(2, [&] { bound = bindStrands(settings, inputsOf(g)); });
    const FlatBinding flat = flattenBinding(bound->binding);
    state.counters["strandDigest"] = digest<std::uint32_t>(flat.strandWords);
    state.counters["recordDigest"] = digest<std::uint32_t>(flat.records);
    state.counters["strands"] = static_cast<double>(g.strandRoots.size());
    state.counters["guides"] = static_cast<double>(g.guideRoots.size());
}
BENCHMARK(BM_InterpolateBinding)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void BM_InterpolateShape(benchmark::State& state) {
    const Groom& g = groom();
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), false, 0, false, false);
    const auto bound = bindStrands(settings, inputsOf(g));
    std::vector<const Guide*> guides;
    for (const Guide& guide : g.guides->guides)
        guides.push_back(&guide);
    const InterpolateGuideRows rows = makeGuideRows(guides, g.scalp.get());
    std::vector<Vec3f> out(g.strands->points().begin(), g.strands->points().end());
    for (auto _ : state)
        runWithThreads(2,
                       [&] { shapeStrands(*bound, rows, ShapeSettings{}, *g.strands, out, {}); });
    state.counters["digest"] = digest<Vec3f>(out);
    state.counters["recordsPerStrand"] = static_cast<double>(bound->binding.recordCount) /
                                         static_cast<double>(bound->binding.strandCount);
    state.counters["writtenMB"] = static_cast<double>(out.size() * sizeof(Vec3f)) / 1e6;
}
BENCHMARK(BM_InterpolateShape)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

// The same with the scalp's normals at the strands' roots, as the operator binds with a scalp
// connected: every record's offsets are turned from its guide's root frame to the strand's.
void BM_InterpolateShapeTurned(benchmark::State& state) {
    const Groom& g = groom();
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), false, 0, false, false);
    std::vector<Vec3f> normals(g.strandRoots.size());
    for (std::size_t s = 0; s < normals.size(); ++s)
        normals[s] = g.scalp->normalAt(g.strands->roots()[s]);
    BindingInputs inputs = inputsOf(g);
    inputs.strandNormals = normals;
    const auto bound = bindStrands(settings, inputs);
    std::vector<const Guide*> guides;
    for (const Guide& guide : g.guides->guides)
        guides.push_back(&guide);
    const InterpolateGuideRows rows = makeGuideRows(guides, g.scalp.get());
    std::vector<Vec3f> out(g.strands->points().begin(), g.strands->points().end());
    for (auto _ : state)
        runWithThreads(2,
                       [&] { shapeStrands(*bound, rows, ShapeSettings{}, *g.strands, out, {}); });
    state.counters["digest"] = digest<Vec3f>(out);
}
BENCHMARK(BM_InterpolateShapeTurned)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void BM_InterpolateOneGuideMoved(benchmark::State& state) {
    const Groom& g = groom();
    auto op = OperatorRegistry::instance().create("Interpolate");
    EvalContext ctx;
    Value previous;
    runWithThreads(2, [&] { previous = op->evaluate(ctx, {g.strands, g.guides, g.scalp}); });
    auto moved = std::make_shared<GuideSet>(*g.guides);
    auto none = std::make_shared<StrandChanges>();
    none->all = false;
    none->sameLayout = true;
    const std::vector<std::shared_ptr<const StrandChanges>> changes = {none, nullptr, none};
    for (auto _ : state) {
        state.PauseTiming();
        moved->guides[2500].points[15].x += 0.01f;
        state.ResumeTiming();
        IncrementalInputs incremental;
        // Handed over, as an editor that keeps only the latest result does.
        incremental.previous = std::move(previous);
        incremental.changes = changes;
        Value out;
        StrandChanges made;
        runWithThreads(2, [&] {
            if (!op->evaluateIncremental(ctx, {g.strands, moved, g.scalp}, incremental, &out,
                                         &made))
                state.SkipWithError("not incremental");
        });
        previous = out;
    }
}
BENCHMARK(BM_InterpolateOneGuideMoved)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
