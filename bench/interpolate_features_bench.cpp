#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>

#include "base/hash.h"
#include "base/parallel.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_clearance.h"
#include "ops/interpolate_follow.h"
#include "ops/interpolate_shape.h"
#include "ops/interpolate_tubes.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// About 250,000 strands of 33 points and 1,200 guides of 16 points on the head-like scalp, every
// other guide with a twisting ribbon tube; the strands lean over the skin so that keepClearance
// has work to do.
struct FeatureGroom {
    std::shared_ptr<const ScalpMesh> scalp = makeHeadScalp(1);
    std::shared_ptr<StrandSet> strands = std::make_shared<StrandSet>();
    std::shared_ptr<GuideSet> guides = std::make_shared<GuideSet>();
    std::vector<const Guide*> guidePointers;
    std::vector<Vec3f> strandRoots, strandNormals, guideRoots;

    FeatureGroom() {
        EvalContext ctx;
        ctx.resolution = 8;
        auto scatter = OperatorRegistry::instance().create("Scatter");
        scatter->paramSet.set("density", 600.0);
        const auto roots = scatter->evaluate(ctx, {scalp, Value()}).get<StrandSet>();
        std::vector<Vec3f> line(33);
        for (std::size_t s = 0; s < roots->strandCount(); ++s) {
            const Vec3f start = roots->strandPoints(s)[0];
            const Vec3f normal = scalp->normalAt(roots->roots()[s]);
            for (std::size_t k = 0; k < line.size(); ++k)
                line[k] = start + normal * (0.05f * static_cast<float>(k));
            strands->addStrand(roots->ids()[s], roots->roots()[s], line);
            strandRoots.push_back(start);
            strandNormals.push_back(normal);
        }
        auto sparse = OperatorRegistry::instance().create("Scatter");
        sparse->paramSet.set("density", 3.0);
        sparse->paramSet.set("seed", std::int64_t{9});
        const auto guideRootSet = sparse->evaluate(ctx, {scalp, Value()}).get<StrandSet>();
        for (std::size_t g = 0; g < guideRootSet->strandCount(); ++g) {
            Guide guide;
            guide.id = guideRootSet->ids()[g];
            guide.root = guideRootSet->roots()[g];
            const Vec3f start = guideRootSet->strandPoints(g)[0];
            const Vec3f normal = scalp->normalAt(guide.root);
            // Rising, then lying back down over the skin behind it.
            for (int k = 0; k < 16; ++k) {
                const float t = static_cast<float>(k) / 15.0f;
                guide.points.push_back(start + normal * (0.6f * std::sin(3.0f * t)) +
                                       Vec3f{0.0f, -1.5f * t, 0.4f * t});
            }
            if (g % 2 == 0) {
                guide.tube.shape = TubeShape::Ribbon;
                guide.tube.width = {0.3f, 0.1f};
                guide.tube.twist = {0.0f, 60.0f};
            }
            guides->guides.push_back(std::move(guide));
            guideRoots.push_back(start);
        }
        for (const Guide& guide : guides->guides)
            guidePointers.push_back(&guide);
    }

    BindingInputs inputs() const {
        BindingInputs in;
        in.strandRoots = strandRoots;
        in.strandNormals = strandNormals;
        in.guideRoots = guideRoots;
        return in;
    }
};

const FeatureGroom& groom() {
    static const FeatureGroom made;
    return made;
}

template <class T>
double digest(std::span<const T> values) {
    std::uint64_t h = 0x66656174ull;
    const auto* words = reinterpret_cast<const std::uint32_t*>(values.data());
    for (std::size_t i = 0; i < values.size_bytes() / 4; ++i)
        h = hashCombine(h, words[i]);
    return static_cast<double>(h % 100000);
}

// The floor beside the passes below: one copy of every point of the groom.
void BM_InterpolateFeaturesPointCopy(benchmark::State& state) {
    const FeatureGroom& g = groom();
    const std::span<const Vec3f> points = g.strands->points();
    std::vector<Vec3f> out(points.size());
    for (auto _ : state) {
        std::memcpy(out.data(), points.data(), points.size_bytes());
        benchmark::ClobberMemory();
    }
    state.counters["points"] = static_cast<double>(points.size());
}
BENCHMARK(BM_InterpolateFeaturesPointCopy)->Unit(benchmark::kMillisecond)->UseRealTime();

// fillTubes' share of a run: the tube test of every root, then the riders' and leaners' shapes.
void BM_InterpolateFillTubes(benchmark::State& state) {
    const FeatureGroom& g = groom();
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), false, 0, false, false);
    TubeTestInputs test;
    test.strandRoots = g.strandRoots;
    test.guideRoots = g.guideRoots;
    std::shared_ptr<const TubeBinding> tubes;
    runWithThreads(2, [&] {
        tubes = bindTubes(makeTubeGuides(g.guidePointers, g.scalp.get(), 16, 0.25f), test);
    });
    BindingInputs inputs = g.inputs();
    inputs.tubes = tubes;
    auto tubeSettings = settings;
    tubeSettings.tubeRiders = tubes->ridersHash;
    const auto bound = bindStrands(tubeSettings, inputs);
    const InterpolateGuideRows rows = makeGuideRows(g.guidePointers, g.scalp.get());
    std::vector<Vec3f> shaped(g.strands->points().begin(), g.strands->points().end());
    runWithThreads(2, [&] { shapeStrands(*bound, rows, ShapeSettings{}, *g.strands, shaped, {}); });
    std::vector<Vec3f> out;
    for (auto _ : state) {
        // Leaners mix into the blend: each pass starts from the shape stage's points.
        state.PauseTiming();
        out = shaped;
        state.ResumeTiming();
        runWithThreads(2, [&] {
            tubes = bindTubes(makeTubeGuides(g.guidePointers, g.scalp.get(), 16, 0.25f), test);
            rideTubes(*bound, *tubes, ShapeSettings{}, *g.strands, out);
        });
    }
    std::size_t riders = 0, leaners = 0;
    for (std::size_t s = 0; s < tubes->strandCount(); ++s) {
        riders += tubes->riding[s];
        leaners += tubes->guide[s] >= 0 && !tubes->riding[s] ? 1 : 0;
    }
    state.counters["riders"] = static_cast<double>(riders);
    state.counters["leaners"] = static_cast<double>(leaners);
    state.counters["digest"] = digest<Vec3f>(out);
}
BENCHMARK(BM_InterpolateFillTubes)->Unit(benchmark::kMillisecond)->UseRealTime();

// The binding measured in a straight line and along the scalp.
void BM_InterpolateBindingFollowSurface(benchmark::State& state) {
    const FeatureGroom& g = groom();
    const bool follow = state.range(0) != 0;
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), follow, 0, false, false);
    BindingInputs inputs = g.inputs();
    // The table of each scalp point's nearest guides is built once for these guides and kept.
    if (follow)
        inputs.surface = makeSurfaceGuides(g.scalp, g.guidePointers, g.strands->roots(),
                                           settings.candidates + 1);
    std::shared_ptr<const InterpolateState> bound;
    for (auto _ : state)
        runWithThreads(2, [&] { bound = bindStrands(settings, inputs); });
    const FlatBinding flat = flattenBinding(bound->binding);
    state.counters["recordDigest"] = digest<std::uint32_t>(flat.records);
    state.counters["strands"] = static_cast<double>(g.strandRoots.size());
}
BENCHMARK(BM_InterpolateBindingFollowSurface)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// keepClearance over strands of 33 points: walked in sixteen coarse steps.
void BM_InterpolateKeepClearance(benchmark::State& state) {
    const FeatureGroom& g = groom();
    const auto settings =
        makeInterpolateSettings(0.5, 3, g.guideRoots.size(), false, 0, false, false);
    const auto bound = bindStrands(settings, g.inputs());
    const InterpolateGuideRows rows = makeGuideRows(g.guidePointers, g.scalp.get());
    std::vector<Vec3f> shaped(g.strands->points().begin(), g.strands->points().end());
    runWithThreads(2, [&] { shapeStrands(*bound, rows, ShapeSettings{}, *g.strands, shaped, {}); });
    const InterpolateClearance clearance = makeClearance(clearanceField(g.scalp), g.guidePointers);
    std::vector<Vec3f> out;
    for (auto _ : state) {
        state.PauseTiming();
        out = shaped;
        state.ResumeTiming();
        runWithThreads(2, [&] { keepClearance(*bound, clearance, g.strands->offsets(), out); });
    }
    std::size_t moved = 0;
    for (std::size_t i = 0; i < out.size(); ++i)
        moved += std::memcmp(&out[i], &shaped[i], sizeof(Vec3f)) != 0 ? 1 : 0;
    state.counters["pointsLifted"] = static_cast<double>(moved);
    state.counters["digest"] = digest<Vec3f>(out);
}
BENCHMARK(BM_InterpolateKeepClearance)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
