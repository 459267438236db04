#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

constexpr int kPeriod = 2 * kSmoothCells;

// The differences of one strand's cells, mirrored to a period of 2m, and their running sums.
struct Cells {
    std::array<Vec3f, kSmoothCells + 1> curve;  // the strand at m + 1 equal arc steps
    std::array<Vec3f, kPeriod> differences;
    std::array<Vec3f, kPeriod + 1> sums;
    std::array<Vec3f, kPeriod> filtered;  // a box filter's output, kept here to be set up once
};

// The integral of the periodic, cell-wise constant differences from 0 to a point that walks
// forward a cell at a time: the cell is held as whole periods plus a cell within one, so that no
// step divides.
class PeriodicIntegral {
  public:
    // Starts at `cell` + `fraction` (in cells; `cell` may lie outside one period).
    PeriodicIntegral(const Cells& cells, int period, int cell, float fraction)
        : cells_(cells), period_(period), fraction_(fraction) {
        turns_ = cell >= 0 ? cell / period : -((period - 1 - cell) / period);
        at_ = cell - turns_ * period;
    }
    Vec3f value() const {
        const auto at = static_cast<std::size_t>(at_);
        return cells_.sums[static_cast<std::size_t>(period_)] * static_cast<float>(turns_) +
               cells_.sums[at] + cells_.differences[at] * fraction_;
    }
    void next() {
        if (++at_ == period_) at_ = 0, ++turns_;
    }

  private:
    const Cells& cells_;
    int period_;
    float fraction_;
    int turns_ = 0;
    int at_ = 0;
};

// One box filter of `width` cells over the periodic differences, from their running sums. Every
// cell's window has the same reach either side of its centre, so the window's ends are found once
// and walk along with the cell.
void boxFilter(Cells& cells, int period, float width) {
    cells.sums[0] = Vec3f{};
    for (int i = 0; i < period; ++i)
        cells.sums[static_cast<std::size_t>(i + 1)] =
            cells.sums[static_cast<std::size_t>(i)] +
            cells.differences[static_cast<std::size_t>(i)];
    const float low = 0.5f - 0.5f * width, high = 0.5f + 0.5f * width;
    const int lowCell = static_cast<int>(std::floor(low));
    const int highCell = static_cast<int>(std::floor(high));
    const float scale = 1.0f / width;
    PeriodicIntegral to(cells, period, highCell, high - static_cast<float>(highCell));
    PeriodicIntegral from(cells, period, lowCell, low - static_cast<float>(lowCell));
    for (int j = 0; j < period; ++j, to.next(), from.next())
        cells.filtered[static_cast<std::size_t>(j)] = (to.value() - from.value()) * scale;
    std::copy(cells.filtered.begin(), cells.filtered.begin() + period, cells.differences.begin());
}

}  // namespace

void smoothStrands(const StrandSet& input, const SmoothSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        Cells cells;
        std::vector<float> shares;  // per point, grown once per chunk
        std::vector<Vec3f> mixed;
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::span<const Vec3f> strand = input.strandPoints(s);
            Vec3f* out = points.data() + input.pointRange(s).begin;
            std::copy(strand.begin(), strand.end(), out);
            const std::size_t n = strand.size();
            if (n < 2) continue;
            const float strength = settings.strength.atStrand(s);
            if (strength == 0.0f) continue;
            if (shares.size() < n) shares.resize(n), mixed.resize(n);
            const float total = arcShares(strand, std::span<float>(shares.data(), n));
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
            // Mirrored, the differences run back the way they came, which keeps the directions at
            // the root and the tip.
            const int period = 2 * m;
            for (int j = 0; j < m; ++j) {
                const Vec3f d = cells.curve[static_cast<std::size_t>(j + 1)] -
                                cells.curve[static_cast<std::size_t>(j)];
                cells.differences[static_cast<std::size_t>(j)] = d;
                cells.differences[static_cast<std::size_t>(period - 1 - j)] = d;
            }
            // Three boxes make a near Gaussian.
            const float width =
                std::min(2.0f * settings.scale * static_cast<float>(m), static_cast<float>(period));
            if (width > 1e-3f) {
                for (int pass = 0; pass < 3; ++pass)
                    boxFilter(cells, period, width);
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
                mixed[k] = lerp(strand[k], smooth, strength * settings.profile.at(shares[k]));
            }
            // Each segment takes the mixed shape's direction at its own length.
            for (std::size_t k = 1; k < n; ++k) {
                const Vec3f own = strand[k] - strand[k - 1];
                const Vec3f along = normalized(mixed[k] - mixed[k - 1], normalized(own));
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
