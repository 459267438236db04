#include <gtest/gtest.h>

#include <algorithm>

#include "base/parallel.h"
#include "expr/noise.h"
#include "graph/delivered_params.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

using test::handStrands;
using test::ShapeRun;
using test::straight;

// A linear profile falling from 1 at the root to 0.3 at the tip.
Ramp fallingProfile() {
    Ramp falling;
    falling.linear = true;
    falling.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.3f, 0.0f}};
    return falling;
}

// A mapped amplitude: strand s reads strandStep * (s % period), its point k 0.1 + pointStep * k.
std::shared_ptr<test::ListField> amplitudeField(const StrandSet& strands, float strandStep,
                                                std::size_t period, float pointStep) {
    std::vector<float> perStrand(strands.strandCount());
    std::vector<std::vector<float>> perPoint(strands.strandCount());
    for (std::size_t s = 0; s < perStrand.size(); ++s) {
        perStrand[s] = strandStep * static_cast<float>(s % period);
        for (std::size_t k = 0; k < strands.pointRange(s).count; ++k)
            perPoint[s].push_back(0.1f + pointStep * static_cast<float>(k));
    }
    return std::make_shared<test::ListField>(perStrand, perPoint);
}

TEST(Noise, WorldNoiseIsTheOctaveSumAtThePointTimesAmplitudeAndProfile) {
    // Two strands on the same points: in world space they move alike, in strand space apart.
    const std::vector<Vec3f> points = {{0, 0, 0}, {0.1f, 0.5f, 0}, {0.3f, 1.0f, 0.2f}};
    const auto strands = handStrands({points, points});
    Ramp halving;
    halving.linear = true;
    halving.keys = {{0.0f, 1.0f, 0.0f}, {1.0f, 0.5f, 0.0f}};
    ShapeRun world("Noise", {{"space", std::string("world")},
                             {"amplitude", 0.4},
                             {"frequency", 2.0},
                             {"octaves", std::int64_t{3}},
                             {"seed", std::int64_t{5}},
                             {"profile", halving}});
    const auto out = world.run(strands);
    std::vector<float> arcs(3);
    const float total = arcLengths(points, arcs);
    Fractal fractal;
    fractal.octaves = 3.0f;
    fractal.spacing = total * 2.0f / 2.0f;  // the strand's length times frequency per segment
    for (std::size_t k = 0; k < 3; ++k) {
        const Vec3f noise =
            fractalNoiseVector(points[k] * 2.0f, fractal, hashCombine(kVectorNoiseSeed, 5));
        const float a = 0.4f * (1.0f - 0.5f * arcs[k] / total);
        const Vec3f want = k == 0 ? points[0] : points[k] + noise * a;
        for (std::size_t s = 0; s < 2; ++s) {
            EXPECT_NEAR(out->strandPoints(s)[k].x, want.x, 1e-6f);
            EXPECT_NEAR(out->strandPoints(s)[k].y, want.y, 1e-6f);
            EXPECT_NEAR(out->strandPoints(s)[k].z, want.z, 1e-6f);
        }
    }
    const auto own = ShapeRun("Noise", {{"frequency", 0.8}}).run(strands);
    EXPECT_NE(own->strandPoints(0)[2], own->strandPoints(1)[2]);
}

TEST(Noise, KinkyIsStraightBetweenKnots) {
    // Frequency 1 in strand space: every point short of the tip lies between knots 0 and 1, so
    // the offsets grow by equal steps along an evenly spaced strand.
    const auto strands = handStrands({straight(9, 0.25f)});
    const auto out =
        ShapeRun("Noise", {{"mode", std::string("kinky")}, {"frequency", 1.0}}).run(strands);
    const auto before = strands->strandPoints(0);
    const auto after = out->strandPoints(0);
    const Vec3f step = (after[2] - before[2]) - (after[1] - before[1]);
    EXPECT_GT(length(step), 1e-4f);
    for (std::size_t k = 2; k + 1 < 9; ++k) {
        const Vec3f d = (after[k] - before[k]) - (after[k - 1] - before[k - 1]);
        EXPECT_NEAR(d.x, step.x, 1e-5f) << "point " << k;
        EXPECT_NEAR(d.y, step.y, 1e-5f) << "point " << k;
        EXPECT_NEAR(d.z, step.z, 1e-5f) << "point " << k;
    }
}

TEST(Noise, FractionPicksStrandsAndZeroChangesNothing) {
    const auto strands = test::gridStrands(500, 5, 3);
    const auto none = ShapeRun("Noise", {{"fraction", 0.0}}).run(strands);
    EXPECT_EQ(none->contentHash(), strands->contentHash());
    // A mapped fraction: half the strands may get it, the others never.
    std::vector<float> perStrand(500);
    for (std::size_t s = 0; s < 500; ++s)
        perStrand[s] = s % 2 ? 1.0f : 0.0f;
    ShapeRun half("Noise");
    half.fields["fraction"] = std::make_shared<test::ListField>(perStrand);
    const auto out = half.run(strands);
    for (std::size_t s = 0; s < 500; ++s) {
        const bool same = out->strandPoints(s)[4] == strands->strandPoints(s)[4];
        EXPECT_EQ(same, s % 2 == 0) << "strand " << s;
    }
}

TEST(Noise, WarnsWhenTheFrequencyIsFinerThanThePoints) {
    const auto coarse = handStrands({straight(2), straight(3)});
    struct Case {
        ShapeRun run;
        std::vector<std::string> notes;
    };
    const Case cases[] = {
        // Three features per strand over the first strand's one segment.
        {ShapeRun("Noise", {{"frequency", 3.0}}),
         {"Noise: frequency 3 is finer than the strands' 1 segments draw: the noise fades out; "
          "raise Resample's segments or lower the frequency"}},
        {ShapeRun("Noise", {{"frequency", 0.4}}), {}},
        // In world space the strand's length counts: 1 unit at 0.8 features a unit, on one
        // segment; at 0.3 it suits.
        {ShapeRun("Noise", {{"frequency", 0.3}, {"space", std::string("world")}}), {}},
        {ShapeRun("Noise", {{"frequency", 0.8}, {"space", std::string("world")}}),
         {"Noise: frequency 0.8 is finer than the strands' 1 segments draw: the noise fades out; "
          "raise Resample's segments or lower the frequency"}},
        {ShapeRun("Noise", {{"frequency", 9.0}, {"mode", std::string("kinky")}}), {}},
    };
    for (const Case& c : cases) {
        NoteList notes;
        c.run.run(coarse, {}, &notes);
        EXPECT_EQ(notes.take(), c.notes);
    }
}

// A drag of the amplitude replays the unit noise of the run before it: every run must be a fresh
// operator's bit for bit, in each mode, with a mapped amplitude too, at 1 and 2 threads.
TEST(Noise, AnAmplitudeChangeGivesAFreshRunsBits) {
    const auto strands = test::mixedStrands(700, 9);
    const Ramp falling = fallingProfile();
    const auto mappedAmplitude = amplitudeField(*strands, 0.01f, 13, 0.03f);
    const std::map<std::string, ParamValue> variants[] = {
        {{"fraction", 0.6}, {"profile", falling}},
        {{"space", std::string("world")}, {"octaves", std::int64_t{3}}, {"seed", std::int64_t{4}}},
        {{"mode", std::string("kinky")}, {"frequency", 5.0}, {"fraction", 0.8}},
    };
    for (const bool mapped : {false, true}) {
        for (const auto& params : variants) {
            for (const int threads : {1, 2}) {
                ShapeRun shape("Noise", params);
                if (mapped) shape.fields["amplitude"] = mappedAmplitude;
                DeliveredParams delivered;
                for (const auto& [name, field] : shape.fields)
                    delivered.fields[name] = field;
                EvalContext ctx;
                ctx.delivered = &delivered;
                const auto dragged = shape.make();
                for (const double amplitude : {0.2, 0.45, -0.3, 0.45, 0.0}) {
                    dragged->paramSet.set("amplitude", amplitude);
                    shape.params["amplitude"] = amplitude;
                    std::uint64_t got = 0, want = 0;
                    runWithThreads(threads, [&] {
                        got = dragged->evaluate(ctx, {Value(strands)})
                                  .get<StrandSet>()
                                  ->contentHash();
                        want = shape.run(strands)->contentHash();
                    });
                    EXPECT_EQ(got, want) << "amplitude " << amplitude << ", mapped " << mapped
                                         << ", threads " << threads;
                }
                // Another input set, even one that moved a little, is noised afresh.
                StrandSet moved = *strands;
                for (Vec3f& point : moved.writePoints())
                    point.y += 0.25f;
                const auto other = std::make_shared<const StrandSet>(std::move(moved));
                std::uint64_t got = 0, want = 0;
                runWithThreads(threads, [&] {
                    got = dragged->evaluate(ctx, {Value(other)}).get<StrandSet>()->contentHash();
                    want = shape.run(other)->contentHash();
                });
                EXPECT_EQ(got, want);
            }
        }
    }
}

// The plain run (one amplitude, no profile: its points displaced as runs of floats) gives the bits
// of the run that records its units and of their replay, at 1 and 2 threads, on strands of mixed
// point counts, a fraction of them left alone.
TEST(Noise, APlainRunIsTheRecordedRunsBits) {
    const auto strands = test::mixedStrands(600, 17);
    NoiseSettings settings;
    settings.amplitude = FieldSampler(0.35f);
    settings.fraction = FieldSampler(0.8f);
    settings.seed = 6;
    std::vector<Vec3f> recorded(strands->pointCount());
    NoiseUnits units;
    units.unit.resize(strands->pointCount());
    units.profile.resize(strands->pointCount());
    units.noised.resize(strands->strandCount());
    noiseStrands(*strands, settings, StrandSelection::every(), recorded, &units);
    std::vector<Vec3f> replayed(strands->pointCount());
    applyNoiseUnits(*strands, settings, units, replayed);
    for (const int threads : {1, 2}) {
        std::vector<Vec3f> plain(strands->pointCount());
        runWithThreads(threads,
                       [&] { noiseStrands(*strands, settings, StrandSelection::every(), plain); });
        for (std::size_t p = 0; p < plain.size(); ++p)
            for (int axis = 0; axis < 3; ++axis) {
                ASSERT_EQ(floatBits(plain[p][axis]), floatBits(recorded[p][axis]))
                    << "point " << p << ", threads " << threads;
                ASSERT_EQ(floatBits(plain[p][axis]), floatBits(replayed[p][axis]))
                    << "point " << p << ", threads " << threads;
            }
    }
    // Some strands were left alone, and the others moved.
    EXPECT_NE(std::count(units.noised.begin(), units.noised.end(), 0), 0);
    EXPECT_NE(std::count(units.noised.begin(), units.noised.end(), 1), 0);
}

// A full run's bits in strand space (the default graph's Noise), pinned as they were before the
// lattice walk was vectorised, and the same at 1 and 2 threads; world space with it.
TEST(Noise, KeepsItsBitsAtAnyThreadCount) {
    const auto strands = test::mixedStrands(900, 17);
    const std::map<std::string, ParamValue> variants[] = {
        {},
        {{"space", std::string("world")}, {"octaves", std::int64_t{3}}, {"frequency", 1.5}},
    };
    const std::uint64_t pinned[] = {7270086712732104761u, 6562111201244643816u};
    for (std::size_t v = 0; v < std::size(variants); ++v) {
        for (const int threads : {1, 2}) {
            std::uint64_t got = 0;
            runWithThreads(
                threads, [&] { got = ShapeRun("Noise", variants[v]).run(strands)->contentHash(); });
            EXPECT_EQ(got, pinned[v]) << "variant " << v << ", threads " << threads;
        }
    }
}

// Strands in their own space go through the lattice side by side where the processor can; every
// strand must get the bits of the one-line path with each lane kernel the processor runs, at 1 and
// 2 threads, in a full run, with a record
// kept, and in a preview's subset. Point counts mix within each group (one point, two, the most a
// lane takes and one more, long ones, short ones side by side), with zero-length segments, strands
// that do not move (all points on the root), huge coordinates, a frequency finer than the points,
// many octaves, a profile, a mapped amplitude and a fraction.
TEST(Noise, SideBySideStrandsGiveTheOneLineBits) {
    const std::size_t counts[] = {17, 2, 65, 1, 9, 66, 33, 3, 17, 100, 5, 17, 64, 9, 9, 4, 2, 9};
    std::vector<std::vector<Vec3f>> shapes;
    for (std::size_t s = 0; s < 700; ++s) {
        std::vector<Vec3f> points = test::randomWalk(counts[s % std::size(counts)], s);
        if (s % 7 == 3 && points.size() > 4) points[2] = points[1];  // a zero-length segment
        if (s % 19 == 5) std::fill(points.begin(), points.end(), Vec3f{1, 2, 3});  // no length
        if (s % 5 == 1)
            for (Vec3f& p : points)
                p = p * 3.0e4f + Vec3f{1.0e7f, -2.0e7f, 5.0e6f};  // huge coordinates
        shapes.push_back(std::move(points));
    }
    const auto strands = handStrands(shapes);
    const Ramp falling = fallingProfile();
    const auto mappedAmplitude = amplitudeField(*strands, 0.02f, 7, 0.01f);
    struct Variant {
        const char* what;
        float frequency;
        int octaves;
        bool profiled, mapped;
        float fraction;
    };
    const Variant variants[] = {{"defaults", 3.0f, 2, false, false, 1.0f},
                                {"finer than the points", 40.0f, 2, false, false, 1.0f},
                                {"eight octaves", 7.5f, 8, false, false, 0.7f},
                                {"profile, mapped amplitude", 3.0f, 3, true, true, 1.0f}};
    std::vector<std::uint64_t> subset;
    for (std::uint64_t s = 0; s < strands->strandCount(); s += 3)
        subset.push_back(s);
    const std::size_t points = strands->pointCount();
    for (const Variant& variant : variants) {
        NoiseSettings settings;
        settings.frequency = variant.frequency;
        settings.octaves = variant.octaves;
        settings.fraction = FieldSampler(variant.fraction);
        if (variant.profiled) settings.profile = falling;
        if (variant.mapped) settings.amplitude = FieldSampler(mappedAmplitude);
        // The one-line path at one thread is what every other run must give.
        setNoiseLanes(NoiseLanes::None);
        std::vector<Vec3f> want(points);
        runWithThreads(1,
                       [&] { noiseStrands(*strands, settings, StrandSelection::every(), want); });
        NoiseUnits wantUnits{std::vector<Vec3f>(points), std::vector<float>(points),
                             std::vector<std::uint8_t>(strands->strandCount())};
        noiseStrands(*strands, settings, StrandSelection::every(), want, &wantUnits);
        for (const NoiseLanes lanes : {NoiseLanes::Avx512, NoiseLanes::Avx2, NoiseLanes::None}) {
            // A kernel this processor lacks would run the next narrower one again.
            if (lanes > noiseLanesAvailable()) continue;
            setNoiseLanes(lanes);
            for (const int threads : {1, 2}) {
                std::vector<Vec3f> full(points), recorded(points), preview(points, Vec3f{});
                NoiseUnits units{std::vector<Vec3f>(points), std::vector<float>(points),
                                 std::vector<std::uint8_t>(strands->strandCount())};
                runWithThreads(threads, [&] {
                    noiseStrands(*strands, settings, StrandSelection::every(), full);
                    noiseStrands(*strands, settings, StrandSelection::every(), recorded, &units);
                    noiseStrands(*strands, settings, StrandSelection::only(subset), preview);
                });
                const auto where = [&](std::size_t p) {
                    return std::string(variant.what) + ", point " + std::to_string(p) + ", lanes " +
                           std::to_string(static_cast<int>(lanes)) + ", threads " +
                           std::to_string(threads);
                };
                for (std::size_t p = 0; p < points; ++p)
                    for (int axis = 0; axis < 3; ++axis) {
                        ASSERT_EQ(floatBits(full[p][axis]), floatBits(want[p][axis])) << where(p);
                        ASSERT_EQ(floatBits(recorded[p][axis]), floatBits(want[p][axis]))
                            << where(p);
                        ASSERT_EQ(floatBits(units.unit[p][axis]),
                                  floatBits(wantUnits.unit[p][axis]))
                            << where(p);
                    }
                EXPECT_EQ(units.profile, wantUnits.profile) << variant.what;
                EXPECT_EQ(units.noised, wantUnits.noised) << variant.what;
                for (const std::uint64_t s : subset)
                    for (std::size_t p = strands->pointRange(s).begin;
                         p < strands->pointRange(s).begin + strands->pointRange(s).count; ++p)
                        for (int axis = 0; axis < 3; ++axis)
                            ASSERT_EQ(floatBits(preview[p][axis]), floatBits(want[p][axis]))
                                << "preview, " << where(p);
            }
        }
    }
    setNoiseLanes(NoiseLanes::Avx512);
    // The strands moved: a run that kept them all would pass the comparisons above as well.
    std::vector<Vec3f> moved(points);
    noiseStrands(*strands, NoiseSettings{}, StrandSelection::every(), moved);
    const std::span<const Vec3f> before = strands->points();
    EXPECT_NE(moved, std::vector<Vec3f>(before.begin(), before.end()));
}

}  // namespace
}  // namespace velmorin
