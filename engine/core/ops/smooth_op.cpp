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
// Strands are smoothed side by side, one lane each: strands with the same number of cells run the
// same filter steps, so a batch of them runs through the box filters together, one float per
// strand per cell, which the compiler turns into vector instructions with no chain of additions
// waiting on itself. Each lane does exactly what a lone strand would, so the bits don't depend on
// which strands share a batch.
constexpr int kLanes = 8;

using LaneRow = float[kLanes];

// One box filter's window over the mirrored differences, the same for every strand of m cells:
// cell j's window runs from j + low to j + high; `mirrored` lists the differences the running sums
// add, from the window's low end, unrolled from the mirrored period (the first m differences run
// forward, the next m back the way they came).
struct BoxWindow {
    int m = 0;
    int reach = 0;  // whole cells from the low end's cell to the high end's
    int count = 0;  // differences summed
    float lowShare = 0.0f, highShare = 0.0f;
    float scale = 0.0f;  // 1 / width
    bool filters = false;
    std::array<int, kReach> mirrored{};
    std::array<float, kSmoothCells + 1> steps{};  // j / m, each cell's share of the length

    void setUp(int cells, float strandScale) {
        m = cells;
        for (int j = 0; j <= m; ++j)
            steps[static_cast<std::size_t>(j)] = static_cast<float>(j) / static_cast<float>(m);
        // Three boxes make a near Gaussian; a width of 2m or more averages the whole period.
        const float width =
            std::min(2.0f * strandScale * static_cast<float>(m), static_cast<float>(2 * m));
        filters = width > 1e-3f;
        if (!filters) return;
        const float low = 0.5f - 0.5f * width, high = 0.5f + 0.5f * width;
        const int lowCell = static_cast<int>(std::floor(low));
        const int highCell = static_cast<int>(std::floor(high));
        lowShare = low - static_cast<float>(lowCell);
        highShare = high - static_cast<float>(highCell);
        reach = highCell - lowCell;
        count = reach + m;
        scale = 1.0f / width;
        const int period = 2 * m;
        int at = lowCell % period;
        if (at < 0) at += period;
        for (int i = 0; i < count; ++i) {
            mirrored[static_cast<std::size_t>(i)] = at < m ? at : period - 1 - at;
            if (++at == period) at = 0;
        }
    }
};

// A batch's cells, axis by axis, lane by lane: its strands at m + 1 equal arc steps, the segment
// differences between them, and one axis's running sums.
struct LaneCells {
    LaneRow curve[3][kSmoothCells + 1];
    LaneRow differences[3][kSmoothCells];
    LaneRow sums[kReach + 1];  // from the window's low end
};

// One box filter over one axis's periodic differences, in every lane. The integral to either end
// of a window is a running sum from the lowest end, plus the share of the cell it ends in (the step
// from that sum to the next). The mirrored differences filter to mirrored values, so only the
// first m are made.
inline __attribute__((always_inline)) void boxFilter(const BoxWindow& box,
                                                     LaneRow* __restrict differences,
                                                     LaneRow* __restrict sums) {
    // The running sum stays in registers; the lanes are written as a whole row.
    float sum[kLanes] = {};
    for (int l = 0; l < kLanes; ++l)
        sums[0][l] = 0.0f;
    for (int i = 0; i < box.count; ++i) {
        const float* __restrict add = differences[box.mirrored[static_cast<std::size_t>(i)]];
        float* __restrict row = sums[i + 1];
        for (int l = 0; l < kLanes; ++l) {
            sum[l] += add[l];
            row[l] = sum[l];
        }
    }
    const float lowShare = box.lowShare, highShare = box.highShare, scale = box.scale;
    for (int j = 0; j < box.m; ++j) {
        const float* __restrict from = sums[j];
        const float* __restrict fromNext = sums[j + 1];
        const float* __restrict to = sums[j + box.reach];
        const float* __restrict toNext = sums[j + box.reach + 1];
        float* __restrict out = differences[j];
        for (int l = 0; l < kLanes; ++l) {
            const float upper = to[l] + (toNext[l] - to[l]) * highShare;
            const float lower = from[l] + (fromNext[l] - from[l]) * lowShare;
            out[l] = (upper - lower) * scale;
        }
    }
}

// A batch's cells smoothed, axis by axis: the differences between the cells, three box filters
// over them and the curve rebuilt from the root by their sums. Lanes from `used` on run on zeros,
// never on what a denormal or a NaN would slow.
inline __attribute__((always_inline)) void filterLanes(const BoxWindow& box, LaneCells& cells,
                                                       int used) {
    const int m = box.m;
    for (int axis = 0; axis < 3; ++axis) {
        LaneRow* __restrict curve = cells.curve[axis];
        LaneRow* __restrict differences = cells.differences[axis];
        for (int j = 0; j <= m; ++j)
            for (int l = used; l < kLanes; ++l)
                curve[j][l] = 0.0f;
        for (int j = 0; j < m; ++j)
            for (int l = 0; l < kLanes; ++l)
                differences[j][l] = curve[j + 1][l] - curve[j][l];
        // Mirrored to a period of 2m, the differences run back the way they came, which keeps
        // the directions at the root and the tip.
        if (box.filters) {
            for (int pass = 0; pass < 3; ++pass)
                boxFilter(box, differences, cells.sums);
        }
        for (int j = 0; j < m; ++j)
            for (int l = 0; l < kLanes; ++l)
                curve[j + 1][l] = curve[j][l] + differences[j][l];
    }
}

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
// The same steps eight lanes to an instruction, on processors with AVX. Its operations round as
// SSE2's do and there is no fused multiply-add, so both give the same bits.
__attribute__((target("avx"))) void filterLanesWide(const BoxWindow& box, LaneCells& cells,
                                                    int used) {
    filterLanes(box, cells, used);
}

void filterCells(const BoxWindow& box, LaneCells& cells, int used) {
    static const bool wide = __builtin_cpu_supports("avx");
    if (wide)
        filterLanesWide(box, cells, used);
    else
        filterLanes(box, cells, used);
}
#else
void filterCells(const BoxWindow& box, LaneCells& cells, int used) {
    filterLanes(box, cells, used);
}
#endif

// The strands of one batch: where each lane's strand lies and what it keeps for the read back.
struct LaneStrand {
    std::span<const Vec3f> points;
    Vec3f* out = nullptr;
    float strength = 0.0f;
    std::span<float> shares;
    std::span<float> lengths;
};

// Smooths up to kLanes strands of the same cell count through their cells and writes them out.
class SmoothBatch {
  public:
    explicit SmoothBatch(const SmoothSettings& settings) : settings_(settings) {}

    // Takes a strand in, smoothing the batch first when it is full or made for another cell count.
    void add(std::span<const Vec3f> strand, Vec3f* out, float strength) {
        const std::size_t n = strand.size();
        // About four cells a segment, 127 at most.
        const int m = static_cast<int>(std::min<std::size_t>(kSmoothCells, 4 * (n - 1)));
        if (count_ > 0 && m != box_.m) flush();
        if (m != box_.m) box_.setUp(m, settings_.scale);
        const int lane = count_;
        LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        entry.shares = shareScratch_[static_cast<std::size_t>(lane)].take(n);
        entry.lengths = lengthScratch_[static_cast<std::size_t>(lane)].take(n);
        // The arc shares as arcShares makes them, with each segment's length kept for the push
        // back.
        float total = 0.0f;
        entry.shares[0] = 0.0f;
        for (std::size_t k = 1; k < n; ++k) {
            entry.lengths[k] = length(strand[k] - strand[k - 1]);
            total += entry.lengths[k];
            entry.shares[k] = total;
        }
        if (!(total > 0.0f)) return;
        const float toShare = 1.0f / total;
        for (std::size_t k = 1; k < n; ++k)
            entry.shares[k] *= toShare;
        entry.points = strand;
        entry.out = out;
        entry.strength = strength;

        // The strand at m + 1 equal arc steps: each cell on the first segment that reaches its
        // share of the length. On segment k the strand is base[k] + slope[k] * t, both made once
        // for all its cells (a segment of no length holds its end). The cells step on to the next
        // segment without a branch, at most once a cell but for segments shorter than a cell, so
        // that the processor has no guess to miss at every segment's end.
        const float* share = entry.shares.data();
        Vec3f* base = baseScratch_.take(n).data();
        Vec3f* slope = slopeScratch_.take(n).data();
        for (std::size_t k = 1; k < n; ++k) {
            const float span = share[k] - share[k - 1];
            if (span > 0.0f) {
                slope[k] = (strand[k] - strand[k - 1]) * (1.0f / span);
                base[k] = strand[k - 1] - slope[k] * share[k - 1];
            } else {
                slope[k] = Vec3f{};
                base[k] = strand[k];
            }
        }
        const std::size_t last = n - 1;
        std::size_t segment = 1;
        for (int j = 0; j < m; ++j) {
            const float t = box_.steps[static_cast<std::size_t>(j)];
            segment += static_cast<std::size_t>((segment < last) & (share[segment] < t));
            while (segment < last && share[segment] < t)
                ++segment;
            const Vec3f at = base[segment] + slope[segment] * t;
            cells_.curve[0][j][lane] = at.x;
            cells_.curve[1][j][lane] = at.y;
            cells_.curve[2][j][lane] = at.z;
        }
        cells_.curve[0][m][lane] = strand[n - 1].x;
        cells_.curve[1][m][lane] = strand[n - 1].y;
        cells_.curve[2][m][lane] = strand[n - 1].z;
        if (++count_ == kLanes) flush();
    }

    // Smooths the strands taken in and writes them out.
    void flush() {
        if (count_ == 0) return;
        filterCells(box_, cells_, count_);
        for (int lane = 0; lane < count_; ++lane)
            writeOut(lane);
        count_ = 0;
    }

  private:
    // Reads lane `lane`'s smoothed curve back at its strand's own arcs, mixes it with the strand
    // and pushes each point back to keep the strand's segment lengths.
    void writeOut(int lane) {
        const LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        const std::span<const Vec3f> strand = entry.points;
        const std::size_t n = strand.size();
        const int m = box_.m;
        const std::span<Vec3f> mixed = mixedScratch_.take(n);
        const LaneRow(&x)[kSmoothCells + 1] = cells_.curve[0];
        const LaneRow(&y)[kSmoothCells + 1] = cells_.curve[1];
        const LaneRow(&z)[kSmoothCells + 1] = cells_.curve[2];
        for (std::size_t k = 0; k < n; ++k) {
            const float at = entry.shares[k] * static_cast<float>(m);
            const int cell = std::min(static_cast<int>(at), m - 1);
            const Vec3f low{x[cell][lane], y[cell][lane], z[cell][lane]};
            const Vec3f high{x[cell + 1][lane], y[cell + 1][lane], z[cell + 1][lane]};
            const Vec3f smooth = lerp(low, high, at - static_cast<float>(cell));
            mixed[k] = lerp(strand[k], smooth,
                            entry.strength * profileAt(settings_.profile, entry.shares[k]));
        }
        // Each segment takes the mixed shape's direction at its own length.
        Vec3f* out = entry.out;
        for (std::size_t k = 1; k < n; ++k) {
            const Vec3f turned = mixed[k] - mixed[k - 1];
            const float turnedLength = length(turned);
            const Vec3f along = turnedLength > 1e-20f ? turned * (1.0f / turnedLength)
                                                      : normalized(strand[k] - strand[k - 1]);
            out[k] = out[k - 1] + along * entry.lengths[k];
        }
    }

    const SmoothSettings& settings_;
    BoxWindow box_;
    LaneCells cells_;
    int count_ = 0;
    std::array<LaneStrand, kLanes> lanes_;
    // Per point: on the stack for strands of ordinary length.
    std::array<StrandScratch<float>, kLanes> shareScratch_;
    std::array<StrandScratch<float>, kLanes> lengthScratch_;
    StrandScratch<Vec3f> baseScratch_;
    StrandScratch<Vec3f> slopeScratch_;
    StrandScratch<Vec3f> mixedScratch_;
};

}  // namespace

void smoothStrands(const StrandSet& input, const SmoothSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        SmoothBatch batch(settings);
        for (std::size_t item = begin; item < end; ++item) {
            const std::size_t s = pick.strand(item);
            const std::span<const Vec3f> strand = input.strandPoints(s);
            Vec3f* out = points.data() + input.pointRange(s).begin;
            std::copy(strand.begin(), strand.end(), out);
            if (strand.size() < 2) continue;
            const float strength = settings.strength.atStrand(s);
            if (strength == 0.0f) continue;
            batch.add(strand, out, strength);
        }
        batch.flush();
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
