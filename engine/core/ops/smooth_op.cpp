#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

constexpr int kPeriod = 2 * kSmoothCells;
// The differences a box filter reads: a window of up to a period either side of a cell, past the
// half period it writes.
constexpr int kReach = kPeriod + kSmoothCells + 2;

// One strand's cells: its shape at m + 1 equal arc steps, the segment differences between them
// (mirrored to a period of 2m, so that only the first m are ever stored) and a filter's running
// sums.
struct Cells {
    std::array<Vec3f, kSmoothCells + 1> curve;
    std::array<Vec3f, kSmoothCells> differences;
    std::array<Vec3f, kReach + 1> sums;  // from the window's low end
};

// One box filter of `width` cells over the periodic differences. Cell j's window runs from
// j + low to j + high; the integral to either end is a running sum from the lowest end, plus the
// share of the cell it ends in (the step from that sum to the next). The mirrored differences
// filter to mirrored values, so only the first m are made.
void boxFilter(Cells& cells, int m, float width) {
    const float low = 0.5f - 0.5f * width, high = 0.5f + 0.5f * width;
    const int lowCell = static_cast<int>(std::floor(low));
    const int highCell = static_cast<int>(std::floor(high));
    const float lowShare = low - static_cast<float>(lowCell);
    const float highShare = high - static_cast<float>(highCell);
    const int reach = highCell - lowCell;
    const int count = reach + m;
    // Unrolled from the mirrored period: the first m differences run forward, the next m back the
    // way they came.
    const int period = 2 * m;
    int at = lowCell % period;
    if (at < 0) at += period;
    Vec3f sum;
    cells.sums[0] = sum;
    for (int i = 0; i < count; ++i) {
        sum += cells.differences[static_cast<std::size_t>(at < m ? at : period - 1 - at)];
        if (++at == period) at = 0;
        cells.sums[static_cast<std::size_t>(i + 1)] = sum;
    }
    const float scale = 1.0f / width;
    for (int j = 0; j < m; ++j) {
        const auto from = static_cast<std::size_t>(j);
        const auto to = static_cast<std::size_t>(j + reach);
        const Vec3f upper = lerp(cells.sums[to], cells.sums[to + 1], highShare);
        const Vec3f lower = lerp(cells.sums[from], cells.sums[from + 1], lowShare);
        cells.differences[from] = (upper - lower) * scale;
    }
}

}  // namespace

void smoothStrands(const StrandSet& input, const SmoothSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        Cells cells;
        // Per point: on the stack for strands of ordinary length.
        StrandScratch<float> shareScratch;
        StrandScratch<Vec3f> mixedScratch;
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::span<const Vec3f> strand = input.strandPoints(s);
            Vec3f* out = points.data() + input.pointRange(s).begin;
            std::copy(strand.begin(), strand.end(), out);
            const std::size_t n = strand.size();
            if (n < 2) continue;
            const float strength = settings.strength.atStrand(s);
            if (strength == 0.0f) continue;
            const std::span<float> shares = shareScratch.take(n);
            const std::span<Vec3f> mixed = mixedScratch.take(n);
            const float total = arcShares(strand, shares);
            if (!(total > 0.0f)) continue;

            // The strand at m + 1 equal arc steps: about four cells a segment, 127 at most.
            const int m = static_cast<int>(std::min<std::size_t>(kSmoothCells, 4 * (n - 1)));
            std::size_t segment = 1;
            for (int j = 0; j <= m; ++j) {
                const float t = static_cast<float>(j) / static_cast<float>(m);
                while (segment + 1 < n && shares[segment] < t)
                    ++segment;
                const float span = shares[segment] - shares[segment - 1];
                const float f =
                    span > 0.0f ? std::clamp((t - shares[segment - 1]) / span, 0.0f, 1.0f) : 1.0f;
                cells.curve[static_cast<std::size_t>(j)] =
                    lerp(strand[segment - 1], strand[segment], f);
            }
            cells.curve[static_cast<std::size_t>(m)] = strand[n - 1];
            for (int j = 0; j < m; ++j)
                cells.differences[static_cast<std::size_t>(j)] =
                    cells.curve[static_cast<std::size_t>(j + 1)] -
                    cells.curve[static_cast<std::size_t>(j)];
            // Three boxes make a near Gaussian. Mirrored to a period of 2m, the differences run
            // back the way they came, which keeps the directions at the root and the tip.
            const float width =
                std::min(2.0f * settings.scale * static_cast<float>(m), static_cast<float>(2 * m));
            if (width > 1e-3f) {
                for (int pass = 0; pass < 3; ++pass)
                    boxFilter(cells, m, width);
            }
            for (int j = 0; j < m; ++j)
                cells.curve[static_cast<std::size_t>(j + 1)] =
                    cells.curve[static_cast<std::size_t>(j)] +
                    cells.differences[static_cast<std::size_t>(j)];

            // Read back at the strand's own arcs and mixed with it.
            for (std::size_t k = 0; k < n; ++k) {
                const float x = shares[k] * static_cast<float>(m);
                const int cell = std::min(static_cast<int>(x), m - 1);
                const Vec3f smooth = lerp(cells.curve[static_cast<std::size_t>(cell)],
                                          cells.curve[static_cast<std::size_t>(cell + 1)],
                                          x - static_cast<float>(cell));
                mixed[k] =
                    lerp(strand[k], smooth, strength * profileAt(settings.profile, shares[k]));
            }
            // Each segment takes the mixed shape's direction at its own length.
            for (std::size_t k = 1; k < n; ++k) {
                const Vec3f own = strand[k] - strand[k - 1];
                const Vec3f turned = mixed[k] - mixed[k - 1];
                const float turnedLength = length(turned);
                const Vec3f along = turnedLength > 1e-20f ? turned / turnedLength : normalized(own);
                out[k] = out[k - 1] + along * length(own);
            }
        }
    });
}

namespace {

using field_ops::makeParam;

// Takes out bumps up to a size, keeping lengths and roots.
class SmoothOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Smooth"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec strength = makeParam(
            "strength", 1.0, "How far toward the smoothed shape, 0-1, lengths kept (mappable)");
        ParamSpec scale = makeParam(
            "scale", 0.09,
            "The size of the bumps it takes out, as a share of the strand's length: small takes "
            "out kinks, 1 straightens the strand along the line from its root to its tip");
        for (ParamSpec* share : {&strength, &scale}) {
            share->min = 0.0;
            share->max = 1.0;
            share->unit = "fraction";
        }
        ParamSpec profile = makeParam("profile", Ramp{}, "Smoothing along the length, root to tip");
        return {strength, scale, profile};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        if (incremental && !mapsReadOnlyTheirStrand(paramSet, ctx, {"strength"})) return false;
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        SmoothSettings settings;
        if (strands) settings.strength = fieldSampler(paramSet, ctx, "strength", *strands);
        settings.scale = static_cast<float>(paramSet.getFloat("scale", 0.09));
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        return reshapePoints(inputs, incremental, true, &smoothStrands, settings, out, changes);
    }
};

}  // namespace

void registerSmoothOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description =
        "Takes out bumps up to a size (a share of the length; 1 straightens), keeping lengths and "
        "roots.";
    info.keywords = "relax straighten bumps";
    registry.registerType(
        "Smooth", [] { return std::make_unique<SmoothOp>(); }, info);
}

}  // namespace velmorin
