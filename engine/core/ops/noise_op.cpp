#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>

#include "base/fast_trig_lanes.h"
#include "expr/noise.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/noise_draws.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"

namespace velmorin {
namespace {

// Knots of the kinky mode lie this far apart along z in noise space: an irrational step, so that
// no knot repeats a lattice cell's pattern.
constexpr float kKnotStep = 1.618034f;
// An octave fades once its cells come closer than two samples; the first octave fading means the
// frequency is finer than the strand's points can draw.
constexpr float kFadingSpacing = 0.5f;

// Turns the segment lengths in arcs[1..n) into the arcs from the root (arcs[0] = 0), as arcLengths
// sums them, and returns the whole length. A function of its own, so that the running sum stays in
// a register: inlined into the strand loop it was kept in memory, a store and a load per point.
[[gnu::noinline]] float runningArcs(float* arcs, std::size_t n) {
    float total = 0.0f;
    arcs[0] = 0.0f;
    for (std::size_t k = 1; k < n; ++k) {
        total += arcs[k];
        arcs[k] = total;
    }
    return total;
}

float sampleSpacing(const NoiseSettings& settings, float strandLength, std::size_t segments) {
    const float perStrand = settings.frequency / static_cast<float>(segments);
    return settings.space == NoiseSpace::World ? strandLength * perStrand : perStrand;
}

// A noised strand's points from its unit displacements: p + unit * amplitude * profile at each
// point but the root, noted in `record` when one is kept. `shares` holds each point's share of the
// length (the root's unused), `units` the displacements of points 1 to n - 1.
void displaceStrand(const NoiseSettings& settings, std::size_t s, std::size_t begin,
                    std::span<const Vec3f> points, const float* shares,
                    std::span<const Vec3f> units, std::span<Vec3f> out, NoiseUnits* record) {
    const std::size_t n = points.size();
    const bool amplitudeMapped = settings.amplitude.isMapped();
    const float plainAmplitude = settings.amplitude.value();
    if (!amplitudeMapped && !record && settings.profile.keys.empty()) {
        // One amplitude for every point (the general loop's with a profile of 1): the points and
        // units as runs of floats, four at a time, each the p + u * a of the loop below.
        const float a = plainAmplitude * 1.0f;
        const float* from = &points[1].x;
        const float* unit = &units[0].x;
        float* to = &out[begin + 1].x;
        const std::size_t floats = 3 * (n - 1);
        std::size_t f = 0;
#if VELMORIN_SSE_LANES
        const __m128 amplitudeLanes = _mm_set1_ps(a);
        for (; f + 4 <= floats; f += 4)
            _mm_storeu_ps(to + f, _mm_add_ps(_mm_loadu_ps(from + f),
                                             _mm_mul_ps(_mm_loadu_ps(unit + f), amplitudeLanes)));
#endif
        for (; f < floats; ++f)
            to[f] = from[f] + unit[f] * a;
        return;
    }
    for (std::size_t k = 1; k < n; ++k) {
        // The same operations in the same order as applyNoiseUnits.
        const float shape = profileAt(settings.profile, shares[k]);
        const float a =
            (amplitudeMapped ? settings.amplitude.atPoint(s, k) : plainAmplitude) * shape;
        const Vec3f& unit = units[k - 1];
        out[begin + k] = points[k] + unit * a;
        if (record) {
            record->unit[begin + k] = unit;
            record->profile[begin + k] = shape;
        }
    }
}

// Turns the arcs of points 1 to n - 1 into shares of `total` in place and gives each point's place
// along the strand's own line of the lattice: base + share * frequency, into along[k - 1].
void strandLine(float* arcs, std::size_t n, float total, float base, float frequency,
                float* along) {
    std::size_t k = 1;
#if VELMORIN_SSE_LANES
    // Four points at a time, each lane with the operations of the loop below.
    const __m128 lengthLanes = _mm_set1_ps(total);
    const __m128 frequencyLanes = _mm_set1_ps(frequency);
    const __m128 baseLanes = _mm_set1_ps(base);
    for (; k + 4 <= n; k += 4) {
        const __m128 share = _mm_div_ps(_mm_loadu_ps(arcs + k), lengthLanes);
        _mm_storeu_ps(arcs + k, share);
        _mm_storeu_ps(along + k - 1, _mm_add_ps(baseLanes, _mm_mul_ps(share, frequencyLanes)));
    }
#endif
    for (; k < n; ++k) {
        arcs[k] /= total;
        along[k - 1] = base + arcs[k] * frequency;
    }
}

}  // namespace

void noiseStrands(const StrandSet& input, const NoiseSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out, NoiseUnits* record) {
    const bool amplitudeMapped = settings.amplitude.isMapped();
    const bool fractionMapped = settings.fraction.isMapped();
    const float plainAmplitude = settings.amplitude.value();
    const float plainFraction = settings.fraction.value();
    const float frequency = settings.frequency;
    const std::uint64_t noiseSeed = hashCombine(kVectorNoiseSeed, settings.seed);
    const bool world = settings.space == NoiseSpace::World;
    const std::span<const std::uint64_t> ids = input.ids();
    Fractal smooth;
    smooth.octaves = static_cast<float>(settings.octaves);
    Fractal knots = smooth;

    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        std::vector<float> arcs;
        StrandScratch<float> alongScratch;
        StrandScratch<Vec3f> unitScratch;
        // The strands' own-space lines, set up once for the chunk.
        FractalNoiseAlongZ line(smooth, noiseSeed);
        // Strands in their own space wait here, up to a group of lines that go through the lattice
        // side by side; each keeps its arcs, its places along its line and its displacements.
        constexpr std::size_t kLanes = FractalNoiseAlongZ::kLineLanes;
        constexpr std::size_t kMostPoints = FractalNoiseAlongZ::kMostLaneSamples + 1;
        struct Waiting {
            std::size_t s = 0, begin = 0;
            std::span<const Vec3f> points;
        };
        Waiting waiting[kLanes];
        FractalNoiseAlongZ::Line lines[kLanes];
        std::size_t waitingCount = 0;
        float waitingArcs[kLanes][kMostPoints];
        float waitingAlong[kLanes][kMostPoints];
        Vec3f waitingUnits[kLanes][kMostPoints];
        // One amplitude for every point and nothing to note: the lines move the points
        // themselves, each p + unit * amplitude as displaceStrand's plain loop makes it.
        const bool linesMove =
            !settings.amplitude.isMapped() && !record && settings.profile.keys.empty();
        const float lineAmplitude = plainAmplitude * 1.0f;
        const auto flush = [&] {
            line.alongLines(std::span<const FractalNoiseAlongZ::Line>(lines, waitingCount));
            if (!linesMove)
                for (std::size_t w = 0; w < waitingCount; ++w)
                    displaceStrand(settings, waiting[w].s, waiting[w].begin, waiting[w].points,
                                   waitingArcs[w], lines[w].out, out, record);
            waitingCount = 0;
        };
        // The draws of a batch of strands made before their points: each is a chain of hashes
        // that has to wait on the one before, and side by side the chains overlap.
        constexpr std::size_t kBatch = 64;
        NoiseDraws batch[kBatch];
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            if ((i - first) % kBatch == 0) {
                const std::size_t batchEnd = std::min(last, i + kBatch);
                noiseDrawsOf(ids, selection, i, settings.seed,
                             std::span<NoiseDraws>(batch, batchEnd - i));
            }
            const NoiseDraws& draws = batch[(i - first) % kBatch];
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            const std::size_t n = points.size();
            const float fraction = fractionMapped ? settings.fraction.atStrand(s) : plainFraction;
            const auto keep = [&] {
                std::copy(points.begin(), points.end(), out.begin() + begin);
                if (record) record->noised[s] = 0;
            };
            // Each displaced point: the unit displacement times amplitude * profile, noted when a
            // record is kept (the same operations in the same order as applyNoiseUnits).
            const auto displace = [&](std::size_t k, const Vec3f& unit, float shape) {
                const float a =
                    (amplitudeMapped ? settings.amplitude.atPoint(s, k) : plainAmplitude) * shape;
                out[begin + k] = points[k] + unit * a;
                if (record) {
                    record->unit[begin + k] = unit;
                    record->profile[begin + k] = shape;
                }
            };
            if (n < 2 || !(draws.pick < fraction)) {
                keep();
                continue;
            }
            // In the strand's own space, a strand short enough waits for a group of lines.
            const bool grouped = settings.mode == NoiseMode::Smooth && !world && n <= kMostPoints;
            const std::span<float> strandArcs =
                grouped ? std::span<float>(waitingArcs[waitingCount], n) : (arcs.resize(n), arcs);
            // arcLengths, with the square roots four at a time.
            segmentLengths(points, strandArcs);
            const float total = runningArcs(strandArcs.data(), n);
            if (!(total > 0.0f)) {
                keep();
                continue;
            }
            // The root stays; the loops below write every other point once.
            out[begin] = points[0];
            if (record) record->noised[s] = 1;

            if (settings.mode == NoiseMode::Smooth) {
                Fractal fractal = smooth;
                fractal.spacing = sampleSpacing(settings, total, n - 1);
                if (world) {
                    for (std::size_t k = 1; k < n; ++k)
                        displace(k, fractalNoiseVector(points[k] * frequency, fractal, noiseSeed),
                                 settings.profile.at(arcs[k] / total));
                    continue;
                }
                // In the strand's own space its points lie on one line along z of the lattice,
                // walked for the whole strand at once.
                if (grouped) {
                    const std::size_t w = waitingCount++;
                    strandLine(strandArcs.data(), n, total, draws.base.z, frequency,
                               waitingAlong[w]);
                    waiting[w] = {s, begin, points};
                    lines[w] = {draws.base.x, draws.base.y, fractal.spacing,
                                std::span<const float>(waitingAlong[w], n - 1),
                                std::span<Vec3f>(waitingUnits[w], n - 1)};
                    if (linesMove) {
                        lines[w].from = points.subspan(1);
                        lines[w].moved = out.subspan(begin + 1, n - 1);
                        lines[w].amplitude = lineAmplitude;
                    }
                    if (waitingCount == kLanes) flush();
                    continue;
                }
                const std::span<float> along = alongScratch.take(n - 1);
                const std::span<Vec3f> units = unitScratch.take(n - 1);
                strandLine(arcs.data(), n, total, draws.base.z, frequency, along.data());
                line.startLine(draws.base.x, draws.base.y, fractal.spacing);
                line.along(along, units);
                displaceStrand(settings, s, begin, points, arcs.data(), units, out, record);
                continue;
            }

            // Kinky: straight lines between random offsets one unit of u apart.
            const Vec3f base = world ? points[0] * frequency : draws.base;
            std::int64_t knot = INT64_MIN;
            Vec3f from, to;
            for (std::size_t k = 1; k < n; ++k) {
                const float t = arcs[k] / total;
                const float u = world ? arcs[k] * frequency : t * frequency;
                const float below = std::floor(u);
                const auto at = static_cast<std::int64_t>(below);
                if (at != knot) {
                    // Consecutive points mostly share their pair of knots; reuse it.
                    const auto knotAt = [&](std::int64_t index) {
                        const Vec3f p = base + Vec3f{0, 0, static_cast<float>(index) * kKnotStep};
                        return fractalNoiseVector(p, knots, noiseSeed);
                    };
                    from = at == knot + 1 ? to : knotAt(at);
                    to = knotAt(at + 1);
                    knot = at;
                }
                displace(k, lerp(from, to, u - below), settings.profile.at(t));
            }
        }
        if (waitingCount > 0) flush();
    });
}

void applyNoiseUnits(const StrandSet& input, const NoiseSettings& settings, const NoiseUnits& units,
                     std::span<Vec3f> out) {
    const bool amplitudeMapped = settings.amplitude.isMapped();
    const float plainAmplitude = settings.amplitude.value();
    const std::span<const Vec3f> points = input.points();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const Vec3f* unit = units.unit.data();
    const float* profile = units.profile.data();
    parallelRange(0, input.strandCount(), 256, [&](std::size_t first, std::size_t last) {
        for (std::size_t s = first; s < last; ++s) {
            const std::size_t begin = offsets[s];
            const std::size_t end = offsets[s + 1];
            if (begin == end) continue;
            out[begin] = points[begin];
            if (!units.noised[s]) {
                std::copy(points.begin() + static_cast<std::ptrdiff_t>(begin + 1),
                          points.begin() + static_cast<std::ptrdiff_t>(end),
                          out.begin() + static_cast<std::ptrdiff_t>(begin + 1));
                continue;
            }
            if (amplitudeMapped) {
                for (std::size_t p = begin + 1; p < end; ++p) {
                    const float a = settings.amplitude.atPoint(s, p - begin) * profile[p];
                    out[p] = points[p] + unit[p] * a;
                }
            } else {
                for (std::size_t p = begin + 1; p < end; ++p) {
                    const float a = plainAmplitude * profile[p];
                    out[p] = points[p] + unit[p] * a;
                }
            }
        }
    });
}

std::optional<CoarseStrand> coarseForNoise(const StrandSet& input, const NoiseSettings& settings) {
    // Kinky noise has no fade: its knots are drawn whatever the spacing.
    if (settings.mode == NoiseMode::Kinky) return std::nullopt;
    const bool fractionMapped = settings.fraction.isMapped();
    const std::span<const std::uint64_t> ids = input.ids();
    // The lowest index wins, so the answer is the same at any thread count.
    std::atomic<std::size_t> firstCoarse{input.strandCount()};
    parallelRange(0, input.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end && s < firstCoarse.load(); ++s) {
            const std::span<const Vec3f> points = input.strandPoints(s);
            if (points.size() < 2) continue;
            // The spacing first: most strands are fine enough, and then need no draw.
            const float total = settings.space == NoiseSpace::World ? strandLength(points) : 1.0f;
            if (sampleSpacing(settings, total, points.size() - 1) <= kFadingSpacing) continue;
            const float fraction =
                fractionMapped ? settings.fraction.atStrand(s) : settings.fraction.value();
            if (!(noiseDraws(ids[s], settings.seed).pick < fraction)) continue;
            std::size_t seen = firstCoarse.load();
            while (s < seen && !firstCoarse.compare_exchange_weak(seen, s)) {
            }
            return;
        }
    });
    const std::size_t s = firstCoarse.load();
    if (s == input.strandCount()) return std::nullopt;
    return CoarseStrand{s, input.pointRange(s).count - 1};
}

namespace {

// Everything of a run but its amplitude: the input set itself (held weakly, so that the memory
// never keeps a set alive or mistakes a new set at an old address for it) and the settings that
// shape the noise.
struct NoiseShapeKey {
    std::weak_ptr<const StrandSet> input;
    float frequency = 0.0f;
    int octaves = 0;
    Ramp profile;
    NoiseSpace space = NoiseSpace::Strand;
    NoiseMode mode = NoiseMode::Smooth;
    std::uint64_t seed = 0;
    float fraction = 0.0f;

    bool matches(const NoiseShapeKey& other) const {
        const auto held = input.lock();
        return held && held == other.input.lock() && frequency == other.frequency &&
               octaves == other.octaves && profile == other.profile && space == other.space &&
               mode == other.mode && seed == other.seed && fraction == other.fraction;
    }
};

// What the last full run was made from and, from the second run of the same shape on (an
// amplitude drag), its unit displacements, so that the next amplitude costs one multiply-add
// per point instead of the lattice.
struct NoiseMemory {
    NoiseShapeKey key;
    bool filled = false;
    NoiseUnits units;
};

// Random displacement; on a fraction of the strands at a high frequency, frizz.
class NoiseOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Noise"; }
    std::string category() const override { return "look"; }
    // Version 2 added the kinky mode; smooth, the default, is how version 1 behaved.
    int version() const override { return 2; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec amplitude =
            shapeParam("amplitude", 0.2, "Displacement size, scene units (mappable, per point)");
        amplitude.unit = "length";
        ParamSpec frequency = shapeParam(
            "frequency", 3.0, "Features per scene unit (world) or per strand length (strand)");
        frequency.min = 0.0;
        frequency.softMax = 20.0;
        ParamSpec octaves = shapeParam("octaves", std::int64_t{2}, "layers");
        octaves.min = 1.0;
        octaves.max = 8.0;
        ParamSpec space = shapeParam("space", std::string("strand"),
                                     "strand: independent per strand; world: coherent across "
                                     "strands");
        space.choices = {"strand", "world"};
        ParamSpec fraction = fractionParam("fraction", 1.0,
                                           "Share of the strands that get it, 0-1 (mappable): a "
                                           "few, at a high frequency, for frizz");
        fraction.unit.clear();
        ParamSpec mode = shapeParam("mode", std::string("smooth"),
                                    "smooth: waves; kinky: sharp kinks, straight between random "
                                    "offsets frequency apart (scraggle, frizz)");
        mode.choices = {"smooth", "kinky"};
        mode.since = 2;
        return {amplitude,   frequency,
                octaves,     profileParam("Amplitude along the length, root to tip"),
                space,       fraction,
                seedParam(), mode};
    }

    // A full run rewrites the points alone and hands every other column of its input on.
    bool noteFullRunChanges(StrandChanges& changes) const override {
        changes.pointsChanged = true;
        return true;
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        NoiseSettings settings;
        settings.amplitude = fieldSampler(paramSet, ctx, "amplitude", *input);
        settings.fraction = fieldSampler(paramSet, ctx, "fraction", *input);
        settings.frequency = static_cast<float>(paramSet.getFloat("frequency", 3.0));
        settings.octaves = static_cast<int>(paramSet.getInt("octaves", 2));
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        settings.space = paramSet.getString("space", "strand") == "world" ? NoiseSpace::World
                                                                          : NoiseSpace::Strand;
        settings.mode =
            paramSet.getString("mode", "smooth") == "kinky" ? NoiseMode::Kinky : NoiseMode::Smooth;
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        // An incremental run keeps the note of the full run before it.
        if (!incremental) {
            if (const auto coarse = coarseForNoise(*input, settings)) {
                char number[32];
                std::snprintf(number, sizeof number, "%g", static_cast<double>(settings.frequency));
                ctx.note((name.empty() ? type() : name) + ": frequency " + number +
                         " is finer than the strands' " + std::to_string(coarse->segments) +
                         " segments draw: the noise fades out; raise Resample's segments or "
                         "lower the frequency");
            }
        }
        constexpr ColumnId kColumns[] = {ColumnId::kPoints};
        // Unmapped, it reads nothing but the points.
        const std::vector<std::string_view> reads;
        const bool mapped = settings.amplitude.isMapped() || settings.fraction.isMapped();
        return runInPlace(
            inputs, incremental, mapsReadOnlyTheirStrand(paramSet, ctx, {"amplitude", "fraction"}),
            kColumns,
            [&](const StrandSet& from, const StrandSelection& selection, StrandSet& made) {
                if (incremental || settings.fraction.isMapped()) {
                    noiseStrands(from, settings, selection, made.writePoints());
                } else {
                    runRemembering(input, settings, made.writePoints());
                }
            },
            out, changes, {}, mapped ? nullptr : &reads);
    }

    // A full run that reuses the last run's unit displacements when only the amplitude changed.
    void runRemembering(const std::shared_ptr<const StrandSet>& input,
                        const NoiseSettings& settings, std::span<Vec3f> out) const {
        NoiseShapeKey key;
        key.input = input;
        key.frequency = settings.frequency;
        key.octaves = settings.octaves;
        key.profile = settings.profile;
        key.space = settings.space;
        key.mode = settings.mode;
        key.seed = settings.seed;
        key.fraction = settings.fraction.value();
        std::lock_guard guard(memoryLock_);
        if (memory_ && memory_->key.matches(key)) {
            if (memory_->filled) {
                applyNoiseUnits(*input, settings, memory_->units, out);
                return;
            }
            // The drag's first step: the units of every point, in memory brought in on every
            // thread (a quarter of a gigabyte at a million strands).
            NoiseUnits& units = memory_->units;
            units.unit = ArrayPool<Vec3f>::makeVector(input->pointCount());
            units.profile = ArrayPool<float>::makeVector(input->pointCount());
            units.noised.resize(input->strandCount());
            noiseStrands(*input, settings, StrandSelection::every(), out, &units);
            memory_->filled = true;
            return;
        }
        memory_ = std::make_unique<NoiseMemory>();
        memory_->key = std::move(key);
        noiseStrands(*input, settings, StrandSelection::every(), out);
    }

    mutable std::mutex memoryLock_;
    mutable std::unique_ptr<NoiseMemory> memory_;
};

}  // namespace

void registerNoiseOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description =
        "Random displacement; on a fraction of the strands at a high frequency, frizz.";
    info.keywords = "frizz random jitter";
    registry.registerType(
        "Noise", [] { return std::make_unique<NoiseOp>(); }, info);
}

}  // namespace velmorin
