// Painted maps, flow and the PNG writer at production sizes: a dab on a 200k-vertex scalp and on
// a 4096 texture, a flow field of 500 pins over 200k vertices and at 1M roots, and the PNG writer
// beside zlib at level 6 on the same filtered rows of a smooth 2048 x 2048 map.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <memory>

#include "base/hash.h"
#include "editing/flow.h"
#include "io/png.h"
#include "maps/map_paint.h"
#include "maps/test/map_test_support.h"
#include "maps/texture_paint.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

// The head scalp at detail 14: 449 x 449 = 201,601 vertices, with its closest-point tree built.
const ScalpMesh& denseHead() {
    static const std::shared_ptr<const ScalpMesh> head = [] {
        auto mesh = makeHeadScalp(14);
        mesh->closestPoint({0, 20, 0});
        mesh->topology();
        return mesh;
    }();
    return *head;
}

// A point on the scalp, hashed from a seed.
SurfacePoint hashedRoot(const ScalpMesh& scalp, std::uint64_t seed) {
    const std::uint64_t h = mix64(seed);
    float u = unitFloat(h + 1);
    float v = unitFloat(h + 2);
    if (u + v > 1.0f) {
        u = 1.0f - u;
        v = 1.0f - v;
    }
    return {static_cast<std::int32_t>(h % scalp.triangleCount()), u, v};
}

void BM_VertexMapDab(benchmark::State& state) {
    const ScalpMesh& head = denseHead();
    std::vector<float> values(head.pointCount(), 0.0f);
    const float radius = static_cast<float>(state.range(0)) * 0.1f;  // centimetres
    const Vec3f center = head.pointAt(head.closestPoint({0.0f, 12.0f, 0.0f}).root);
    MapDab dab;
    std::size_t touched = 0;
    int k = 0;
    for (auto _ : state) {
        dab.value[0] = (k++ & 1) ? 1.0f : 0.0f;  // every dab changes what it reaches
        MapCanvas canvas = MapCanvas::vertices(values, 1);
        touched += paintMapDab(canvas, head, dab, center, radius);
    }
    state.counters["vertices"] =
        benchmark::Counter(static_cast<double>(touched), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_VertexMapDab)->Arg(5)->Arg(15)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_TextureDab(benchmark::State& state) {
    static const auto plane = makeUvPlane(1.0f, 256);  // triangles 16 texels across on a 4096 map
    TexturePaint paint(4096, 4096, 4);
    const float radius = 64.0f / 4096.0f;
    MapDab dab;
    dab.channels = parseChannelMask("rgb");
    std::size_t touched = 0;
    int k = 0;
    for (auto _ : state) {
        // One stroke of one dab, with its undo record, at a place of its own.
        dab.value = {(k & 1) ? 1.0f : 0.2f, 0.5f, 0.0f, 1.0f};
        const Vec3f center{-0.3f + 0.0123f * static_cast<float>(k % 50), 0.0f, 0.1f};
        ++k;
        paint.beginEdit();
        MapCanvas canvas = MapCanvas::texture(paint);
        touched += paintMapDab(canvas, *plane, dab, center, radius);
        benchmark::DoNotOptimize(paint.endEdit());
    }
    state.counters["texels"] =
        benchmark::Counter(static_cast<double>(touched), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_TextureDab)->Unit(benchmark::kMicrosecond)->UseRealTime();

FlowSet hashedFlow(const ScalpMesh& scalp, int pins) {
    FlowSet set;
    for (int k = 0; k < pins; ++k) {
        const SurfacePoint at = hashedRoot(scalp, 1000 + k);
        const std::uint64_t h = mix64(5000 + k);
        // Mostly back and down the head, with a spread, as combed hair lies.
        const Vec3f direction{unitFloat(h) - 0.5f, -0.5f, -1.0f + 0.5f * unitFloat(h + 1)};
        set.pins.push_back(pinFromSurface(scalp, at, direction));
    }
    const SurfacePoint crown = scalp.closestPoint({0.0f, 9.0f, -3.0f}).root;
    set.sinks.push_back({crown.face, crown.u, crown.v, flowSinkAngle("whorl"), 3.0f});
    return set;
}

void BM_FlowFieldBuild(benchmark::State& state) {
    const ScalpMesh& head = denseHead();
    const FlowSet set = hashedFlow(head, static_cast<int>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(FlowField::build(set, head));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * head.pointCount()));
}
BENCHMARK(BM_FlowFieldBuild)->Arg(500)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FlowEvaluate(benchmark::State& state) {
    const ScalpMesh& head = denseHead();
    const auto field = FlowField::build(hashedFlow(head, 500), head);
    std::vector<SurfacePoint> roots(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < roots.size(); ++i)
        roots[i] = hashedRoot(head, i);
    // Strands come from Scatter face by face: the second argument 1 keeps them in that order, 0
    // scatters them over the scalp, the worst case for the caches.
    if (state.range(1) != 0) {
        std::sort(roots.begin(), roots.end(),
                  [](const SurfacePoint& a, const SurfacePoint& b) { return a.face < b.face; });
    }
    std::vector<Vec3f> out(roots.size());
    for (auto _ : state) {
        field->evaluate(head, roots, out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * roots.size()));
}
BENCHMARK(BM_FlowEvaluate)
    ->Args({1'000'000, 1})
    ->Args({1'000'000, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The smooth 2048 x 2048 map of the tests, and its rows as the writer filtered them.
struct SmoothMap {
    std::vector<std::uint8_t> pixels;
    std::vector<std::uint8_t> filtered;
};
const SmoothMap& smoothMap(int channels) {
    static SmoothMap maps[5];
    SmoothMap& map = maps[channels];
    if (map.pixels.empty()) {
        map.pixels = test::smoothImage(2048, 2048, channels);
        const std::vector<std::uint8_t> file = encodePng({2048, 2048, channels, map.pixels});
        std::vector<std::uint8_t> idat;
        for (std::size_t at = 8; at + 12 <= file.size();) {
            const std::size_t length = std::size_t{file[at]} << 24 |
                                       std::size_t{file[at + 1]} << 16 |
                                       std::size_t{file[at + 2]} << 8 | file[at + 3];
            if (std::equal(file.begin() + at + 4, file.begin() + at + 8, "IDAT")) {
                idat.insert(idat.end(), file.begin() + at + 8, file.begin() + at + 8 + length);
            }
            at += length + 12;
        }
        map.filtered.resize(2048 * (2048 * static_cast<std::size_t>(channels) + 1));
        uLongf size = map.filtered.size();
        uncompress(map.filtered.data(), &size, idat.data(), idat.size());
    }
    return map;
}

void BM_EncodePng(benchmark::State& state) {
    const int channels = static_cast<int>(state.range(0));
    const SmoothMap& map = smoothMap(channels);
    std::size_t size = 0;
    for (auto _ : state)
        size = encodePng({2048, 2048, channels, map.pixels}).size();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * map.pixels.size()));
    state.counters["outputBytes"] = static_cast<double>(size);
}
BENCHMARK(BM_EncodePng)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();

// zlib at level 6 on the rows as filtered: the writer's deflate stage alone, done by zlib. The
// filtering that BM_EncodePng also pays for is not counted here.
void BM_ZlibLevel6(benchmark::State& state) {
    const int channels = static_cast<int>(state.range(0));
    const SmoothMap& map = smoothMap(channels);
    std::vector<std::uint8_t> out(compressBound(map.filtered.size()));
    uLongf size = 0;
    for (auto _ : state) {
        size = out.size();
        compress2(out.data(), &size, map.filtered.data(), map.filtered.size(), 6);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * map.pixels.size()));
    state.counters["outputBytes"] = static_cast<double>(size);
}
BENCHMARK(BM_ZlibLevel6)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
