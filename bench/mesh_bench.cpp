// Scalp geometry at production sizes: the closest-point tree built over 100k and 1M triangles and
// queried from points near the surface (where roots, collisions and brushes ask), a distance field
// of 128 cells a side, and a Catmull-Clark plan two levels deep over 20k quads. Threaded
// benchmarks run in an arena of 2 threads, the count the targets are stated for.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/distance_field.h"
#include "mesh/sample_meshes.h"
#include "mesh/subdivision.h"

namespace velmorin {
namespace {

constexpr int kThreads = 2;

// UV spheres of about the asked triangle count (2 * segments * (rings - 1)), made once.
const std::shared_ptr<const ScalpMesh>& sphere(std::int64_t triangles) {
    static std::map<std::int64_t, std::shared_ptr<const ScalpMesh>> made;
    auto& mesh = made[triangles];
    if (!mesh) {
        const int segments = triangles >= 1'000'000 ? 500 : 200;
        const int rings = static_cast<int>(triangles / (2 * segments)) + 1;
        mesh = makeSphere(1.0f, rings, segments);
    }
    return mesh;
}

// A scalp of about 100k triangles (detail 7: 224 x 224 quads).
const std::shared_ptr<const ScalpMesh>& head() {
    static const std::shared_ptr<const ScalpMesh> mesh = makeHeadScalp(7);
    return mesh;
}

void BM_BvhBuild(benchmark::State& state) {
    const ScalpMesh& mesh = *sphere(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        ScalpMesh fresh = mesh;
        fresh.setPoints(mesh.points());  // same points, no tree
        state.ResumeTiming();
        runWithThreads(kThreads, [&] { benchmark::DoNotOptimize(fresh.closestPoint({2, 0, 0})); });
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mesh.triangleCount()));
}
BENCHMARK(BM_BvhBuild)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Points within 1% of the mesh's diagonal from its surface. A coherent stream walks the triangles
// in order, as roots from a scatter and points along strands come; a shuffled one picks triangles
// by hash, the worst case for the caches.
std::vector<Vec3f> nearSurface(const ScalpMesh& mesh, std::size_t count, bool shuffled) {
    const auto [lo, hi] = mesh.bounds();
    const float reach = 0.01f * length(hi - lo);
    std::vector<Vec3f> points(count);
    for (std::size_t i = 0; i < count; ++i) {
        const float u = unitFloat(hashCombine(i, 1)) * 0.5f,
                    v = unitFloat(hashCombine(i, 2)) * 0.5f;
        const std::size_t face =
            shuffled ? mix64(i) % mesh.triangleCount() : i * mesh.triangleCount() / count;
        const StrandRoot root{static_cast<std::int32_t>(face), u, v};
        const float offset = (2.0f * unitFloat(hashCombine(i, 3)) - 1.0f) * reach;
        points[i] = mesh.pointAt(root) + mesh.normalAt(root) * offset;
    }
    return points;
}

// Arg 0: 0 a sphere, 1 a scalp, both of about 100k triangles; arg 1: 1 for a shuffled stream;
// arg 2: threads. One thread gives the cost of a query where the machine is shared.
void BM_ClosestPoint(benchmark::State& state) {
    const bool isSphere = state.range(0) == 0, shuffled = state.range(1) == 1;
    const int threads = static_cast<int>(state.range(2));
    const ScalpMesh& mesh = isSphere ? *sphere(100'000) : *head();
    state.SetLabel(std::string(isSphere ? "sphere" : "scalp") +
                   (shuffled ? ", shuffled" : ", coherent"));
    const std::vector<Vec3f> queries = nearSurface(mesh, 1 << 18, shuffled);
    (void)mesh.closestPoint(queries[0]);  // the tree is built outside the timing
    std::vector<float> distances(queries.size());
    for (auto _ : state) {
        runWithThreads(threads, [&] {
            parallelRange(0, queries.size(), 1024, [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i)
                    distances[i] = mesh.closestPoint(queries[i]).distance;
            });
        });
        benchmark::DoNotOptimize(distances.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(queries.size()));
}
BENCHMARK(BM_ClosestPoint)
    ->Args({0, 0, kThreads})
    ->Args({1, 0, kThreads})
    ->Args({0, 1, kThreads})
    ->Args({1, 1, kThreads})
    ->Args({0, 0, 1})
    ->Args({0, 1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_DistanceFieldBuild(benchmark::State& state) {
    const auto& mesh = sphere(100'000);
    // A voxel too small for the limit, so the field takes 128 cells along its longest side.
    for (auto _ : state) {
        runWithThreads(kThreads, [&] {
            const MeshDistanceField field(mesh, 1e-3f, 0.05f, 128);
            benchmark::DoNotOptimize(field.cellCount());
        });
    }
    state.SetItemsProcessed(state.iterations() * 128 * 128 * 128);
}
BENCHMARK(BM_DistanceFieldBuild)->Unit(benchmark::kMillisecond)->UseRealTime();

// 141 x 141 = 19,881 quads.
const std::shared_ptr<const ScalpMesh>& quadPlane() {
    static const std::shared_ptr<const ScalpMesh> mesh = makeUvPlane(10.0f, 141);
    return mesh;
}

void BM_SubdivisionPlan(benchmark::State& state) {
    const ScalpMesh& cage = *quadPlane();
    for (auto _ : state) {
        const SubdivisionPlan plan(cage, 2);
        benchmark::DoNotOptimize(plan.pointCount());
    }
    state.SetItemsProcessed(state.iterations() * 19'881);
}
BENCHMARK(BM_SubdivisionPlan)->Unit(benchmark::kMillisecond);

void BM_SubdivisionApply(benchmark::State& state) {
    const ScalpMesh& cage = *quadPlane();
    const SubdivisionPlan plan(cage, 2);
    for (auto _ : state) {
        runWithThreads(kThreads, [&] { benchmark::DoNotOptimize(plan.apply(cage.points())); });
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(plan.pointCount()));
}
BENCHMARK(BM_SubdivisionApply)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
