// Mapped params over a dense groom: 1M strands, on 1 and 2 threads. A strand loop adds a param to
// each root's height, as an operator would: with the number written in, with a plain param and
// with the param fed a constant field (both read once, outside the loop), with a texture at the
// scalp's UVs, and with an expression over 1M strands of 9 points read per point. A mapped run
// includes its preparation (sampling the source once per strand) and reports ns per sample; set
// the bytes per second against BM_MemoryCopy to see what memory allows.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "base/parallel.h"
#include "fields/field_sampler.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/eval_context.h"
#include "graph/field_value.h"
#include "graph/params.h"
#include "io/png.h"
#include "mesh/scalp_mesh.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

const StrandSet& groom(std::size_t points) {
    static const StrandSet two = *test::gridStrands(1'000'000, 2, 1);
    static const StrandSet nine = *test::gridStrands(1'000'000, 9, 1);
    return points == 9 ? nine : two;
}

// A strip of 97 triangles (the grid strands' faces) with UVs running along it.
std::shared_ptr<const ScalpMesh> strip() {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    for (std::uint32_t i = 0; i < 50; ++i) {
        points.push_back({static_cast<float>(i), 0, 0});
        points.push_back({static_cast<float>(i), 0, 1});
    }
    for (std::uint32_t t = 0; t < 97; ++t) {
        const std::uint32_t a = (t / 2) * 2;
        triangles.push_back(t % 2 == 0 ? Triangle{a, a + 2, a + 1} : Triangle{a + 2, a + 3, a + 1});
    }
    auto scalp = std::make_shared<ScalpMesh>(points, triangles);
    std::vector<Uv> uvs;
    for (const Triangle& t : triangles)
        for (const std::uint32_t i : t)
            uvs.push_back({points[i].x / 49.0f, points[i].z});
    scalp->setUvs(uvs);
    return scalp;
}

std::string image() {
    static const std::string path = [] {
        std::vector<std::uint8_t> pixels(512 * 512 * 3);
        for (std::size_t i = 0; i < pixels.size(); ++i)
            pixels[i] = static_cast<std::uint8_t>(mix64(i));
        const auto file = std::filesystem::temp_directory_path() / "velmorin_fields_bench.png";
        writePng(file, ImageView{512, 512, 3, pixels});
        return file.string();
    }();
    return path;
}

ParamSet amountParams(const ParamValue& value) {
    ParamSpec spec;
    spec.name = "amount";
    spec.defaultValue = 0.5;
    spec.description = "How much (mappable)";
    ParamSet params;
    params.declare({spec});
    params.set("amount", value);
    return params;
}

// A run's context with the strip as its scene.
EvalContext stripContext() {
    auto scene = std::make_shared<FieldScene>();
    scene->scalp = strip();
    EvalContext ctx;
    ctx.scene = std::move(scene);
    return ctx;
}

void report(benchmark::State& state, std::size_t samples, std::size_t bytes) {
    const auto iterations = static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(iterations * static_cast<std::int64_t>(samples));
    state.SetBytesProcessed(iterations * static_cast<std::int64_t>(bytes));
}

void BM_LiteralLoop(benchmark::State& state) {
    const StrandSet& strands = groom(2);
    const auto offsets = strands.offsets();
    const auto points = strands.points();
    std::vector<float> out(strands.strandCount());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            parallelRange(0, out.size(), 256, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s)
                    out[s] = points[offsets[s]].y + 0.5f;
            });
        });
        benchmark::DoNotOptimize(out.data());
    }
    report(state, out.size(), out.size() * (sizeof(float) + sizeof(Vec3f) + 8));
}

void BM_MappedParam(benchmark::State& state, int form) {
    const StrandSet& strands = groom(2);
    const auto offsets = strands.offsets();
    const auto points = strands.points();
    ParamSet params = amountParams(
        form == 2 ? ParamValue(MapReference{MapSource::Texture, image(), "", -1, {}, {}}) : 0.5);
    EvalContext ctx = stripContext();
    DeliveredParams delivered;
    if (form == 1) delivered.fields["amount"] = std::make_shared<ConstantFieldValue>(0.5f);
    ctx.delivered = &delivered;
    std::vector<float> out(strands.strandCount());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            const FieldSampler amount = fieldSampler(params, ctx, "amount", strands);
            if (!amount.isMapped()) {
                const float value = amount.value();
                parallelRange(0, out.size(), 256, [&](std::size_t begin, std::size_t end) {
                    for (std::size_t s = begin; s < end; ++s)
                        out[s] = points[offsets[s]].y + value;
                });
            } else {
                parallelRange(0, out.size(), 256, [&](std::size_t begin, std::size_t end) {
                    for (std::size_t s = begin; s < end; ++s)
                        out[s] = points[offsets[s]].y + amount.atStrand(s);
                });
            }
        });
        benchmark::DoNotOptimize(out.data());
    }
    report(state, out.size(), out.size() * (sizeof(float) + sizeof(Vec3f) + 8));
    state.counters["nsPerSample"] = benchmark::Counter(
        static_cast<double>(out.size()),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_ExpressionField(benchmark::State& state) {
    const StrandSet& strands = groom(9);
    const auto offsets = strands.offsets();
    ParamSet params =
        amountParams(MapReference{MapSource::Expression, "t * 2 + rand", "", -1, {}, {}});
    const EvalContext ctx = stripContext();
    std::vector<float> out(strands.pointCount());
    for (auto _ : state) {
        runWithThreads(static_cast<int>(state.range(0)), [&] {
            const FieldSampler amount = fieldSampler(params, ctx, "amount", strands);
            parallelRange(0, strands.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s)
                    for (std::uint64_t p = offsets[s]; p < offsets[s + 1]; ++p)
                        out[p] = amount.atPoint(s, p - offsets[s]);
            });
        });
        benchmark::DoNotOptimize(out.data());
    }
    report(state, out.size(), out.size() * (2 * sizeof(float) + sizeof(Vec3f)));
    state.counters["nsPerSample"] = benchmark::Counter(
        static_cast<double>(out.size()),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_LiteralLoop)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_MappedParam, plain, 0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_MappedParam, constantField, 1)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_MappedParam, texture, 2)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ExpressionField)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace velmorin
