// The axes of clumps for Twist and Curl: the clumps numbered by their channel values, and each
// clump's mean of its core strands sampled at equal shares of their lengths.

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "ops/shape_kernels.h"
#include "ops/shape_support.h"

// Strands of up to 17 points are sampled eight shares at a time with AVX2 where the processor has
// it, chosen at run time (GCC and clang only); every lane performs the scalar steps' operations in
// their order, so both give the same bits.

namespace velmorin {

namespace {

constexpr std::size_t kAxisPoints = ClumpAxes::kAxisPoints;

// The running sums of one clump's samples, one row per coordinate, so that eight shares can be
// added at once.
struct AxisSums {
    alignas(32) float x[kAxisPoints + 7] = {};
    alignas(32) float y[kAxisPoints + 7] = {};
    alignas(32) float z[kAxisPoints + 7] = {};
};

// The share of the length at axis sample k.
float sampleShare(std::size_t k) {
    return static_cast<float>(k) / (kAxisPoints - 1);
}

// Adds the strand's point at each sample's share of its length to the sums, from its arcs (arcs[k]
// the arc from the root to point k): pointAtArc at each share, in order.
void addSamplesPlain(std::span<const Vec3f> points, std::span<const float> arcs, AxisSums& sums) {
    const float total = arcs.back();
    std::size_t segment = 0;
    for (std::size_t k = 0; k < kAxisPoints; ++k) {
        const Vec3f p = pointAtArc(points, arcs, sampleShare(k) * total, segment);
        sums.x[k] += p.x;
        sums.y[k] += p.y;
        sums.z[k] += p.z;
    }
}

#if VELMORIN_AVX_LANES
// The most points a strand may have for the lanes: each table of its points and arcs is read
// from two registers of eight.
constexpr std::size_t kLanePoints = 17;

// A strand's points as rows of x, y and z, and its arcs, padded with zeros past the strand so
// that the tables below read defined values.
struct StrandRows {
    alignas(32) float x[kLanePoints + 15] = {};
    alignas(32) float y[kLanePoints + 15] = {};
    alignas(32) float z[kLanePoints + 15] = {};
    alignas(32) float arcs[kLanePoints + 15] = {};
};

// pointAtArc at samples k to k + 7 (k 0 or 8) of a strand of 2 to kLanePoints points of positive,
// finite length, as rows of x, y and z. The walk to each sample's segment counts the inner points
// whose arc lies below it (the arcs rise, so those are the points the walk passes), and the
// segment's ends are read from the rows by that count; the rest are pointAtArc's steps per lane.
__attribute__((target("avx2"), always_inline)) inline PointRows8 samplesWide(const StrandRows& rows,
                                                                             std::size_t n,
                                                                             std::size_t k) {
    const std::size_t last = n - 1;
    const __m256 total = _mm256_set1_ps(rows.arcs[last]);
    const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
    const __m256 share = _mm256_setr_ps(sampleShare(k), sampleShare(k + 1), sampleShare(k + 2),
                                        sampleShare(k + 3), sampleShare(k + 4), sampleShare(k + 5),
                                        sampleShare(k + 6), sampleShare(k + 7));
    const __m256 s = _mm256_mul_ps(share, total);
    __m256i segment = _mm256_setzero_si256();
    for (std::size_t j = 1; j < last; ++j) {
        const __m256 passed = _mm256_cmp_ps(_mm256_set1_ps(rows.arcs[j]), s, _CMP_LT_OQ);
        segment = _mm256_sub_epi32(segment, _mm256_castps_si256(passed));
    }
    const __m256 from = pickOf16(rows.arcs, segment);
    const __m256 span = _mm256_sub_ps(pickOf16(rows.arcs + 1, segment), from);
    // f = span > 0 ? (s - from) / span : 0, then std::clamp(f, 0, 1).
    __m256 f = _mm256_and_ps(_mm256_cmp_ps(span, zero, _CMP_GT_OQ),
                             _mm256_div_ps(_mm256_sub_ps(s, from), span));
    f = _mm256_blendv_ps(f, zero, _mm256_cmp_ps(f, zero, _CMP_LT_OQ));
    f = _mm256_blendv_ps(f, one, _mm256_cmp_ps(one, f, _CMP_LT_OQ));
    const __m256 atRoot = _mm256_cmp_ps(s, zero, _CMP_LE_OQ);
    const __m256 atTip = _mm256_cmp_ps(s, total, _CMP_GE_OQ);
    return {pickedPointRow(rows.x, segment, f, _mm256_set1_ps(rows.x[0]),
                           _mm256_set1_ps(rows.x[last]), atRoot, atTip),
            pickedPointRow(rows.y, segment, f, _mm256_set1_ps(rows.y[0]),
                           _mm256_set1_ps(rows.y[last]), atRoot, atTip),
            pickedPointRow(rows.z, segment, f, _mm256_set1_ps(rows.z[0]),
                           _mm256_set1_ps(rows.z[last]), atRoot, atTip)};
}

// Adds samples k to k + 7 to the sums.
__attribute__((target("avx2"), always_inline)) inline void addRows(AxisSums& sums, std::size_t k,
                                                                   const PointRows8& samples) {
    _mm256_store_ps(sums.x + k, _mm256_add_ps(_mm256_load_ps(sums.x + k), samples.x));
    _mm256_store_ps(sums.y + k, _mm256_add_ps(_mm256_load_ps(sums.y + k), samples.y));
    _mm256_store_ps(sums.z + k, _mm256_add_ps(_mm256_load_ps(sums.z + k), samples.z));
}

// addSamplesPlain for samples 0 to 15 of a strand of 2 to kLanePoints points of positive, finite
// length, eight at a time.
__attribute__((target("avx2"))) void addSamplesWide(const StrandRows& rows, std::size_t n,
                                                    AxisSums& sums) {
    for (std::size_t k = 0; k < 16; k += 8)
        addRows(sums, k, samplesWide(rows, n, k));
}

// addSamplesWide for two strands, the first's samples added before the second's as one after the
// other would, side by side so that the steps of one fill the waits of the other.
__attribute__((target("avx2"))) void addSamplesWidePair(const StrandRows& a, std::size_t na,
                                                        const StrandRows& b, std::size_t nb,
                                                        AxisSums& sums) {
    for (std::size_t k = 0; k < 16; k += 8) {
        const PointRows8 first = samplesWide(a, na, k), second = samplesWide(b, nb, k);
        addRows(sums, k, first);
        addRows(sums, k, second);
    }
}
#endif

// Adds strands' samples to their clump's sums in the order the strands come. Strands the lanes
// take wait in pairs, so that two are sampled side by side; the one waiting is added before any
// strand after it, and `flush` adds it at the end of a clump.
class SampleAdder {
  public:
    explicit SampleAdder([[maybe_unused]] bool lanes) {
#if VELMORIN_AVX_LANES
        lanes_ = lanes;
#endif
    }

    void add(std::span<const Vec3f> points, AxisSums& sums) {
        const std::size_t n = points.size();
#if VELMORIN_AVX_LANES
        if (lanes_ && n >= 2 && n <= kLanePoints) {
            // Rows past the strand keep what an earlier strand left: the tables never pick them.
            StrandRows& rows = rows_[waiting_ ? 1 : 0];
            const float total = arcLengthsByEight(points.data(), n, rows.arcs);
            // A finite length makes every arc finite and rising, which the count of the lanes
            // needs.
            if (!(total > 0.0f) || !std::isfinite(total)) {
                flush(sums);
                return addSamplesPlain(points, std::span<const float>(rows.arcs, n), sums);
            }
            pointRowsByEight(points.data(), n, rows.x, rows.y, rows.z);
            if (!waiting_) {
                waiting_ = true;
                waitingPoints_ = points;
                return;
            }
            addSamplesWidePair(rows_[0], waitingPoints_.size(), rows_[1], n, sums);
            addTip(waitingPoints_, rows_[0], sums);
            addTip(points, rows_[1], sums);
            waiting_ = false;
            return;
        }
        flush(sums);
#endif
        arcs_.resize(n);
        arcLengthsByLanes(points, arcs_);
        addSamplesPlain(points, arcs_, sums);
    }

    // Adds the strand still waiting, if any.
    void flush([[maybe_unused]] AxisSums& sums) {
#if VELMORIN_AVX_LANES
        if (!waiting_) return;
        addSamplesWide(rows_[0], waitingPoints_.size(), sums);
        addTip(waitingPoints_, rows_[0], sums);
        waiting_ = false;
#endif
    }

  private:
#if VELMORIN_AVX_LANES
    // The last share, the whole length, is the tip.
    static void addTip(std::span<const Vec3f> points, const StrandRows& rows, AxisSums& sums) {
        const std::span<const float> arcs(rows.arcs, points.size());
        std::size_t segment = 0;
        const Vec3f tip = pointAtArc(points, arcs, sampleShare(16) * arcs.back(), segment);
        sums.x[16] += tip.x;
        sums.y[16] += tip.y;
        sums.z[16] += tip.z;
    }

    bool lanes_ = false;
    bool waiting_ = false;
    std::span<const Vec3f> waitingPoints_;
    StrandRows rows_[2];
#endif
    std::vector<float> arcs_;
};

}  // namespace

bool clumpsKept(const std::vector<float>& ids, const std::string& channel,
                const IncrementalInputs& incremental) {
    const auto previous = incremental.previous.get<StrandSet>();
    const std::vector<float>* before = previous ? previous->strandChannel(channel) : nullptr;
    if (!before || before->size() != ids.size() || incremental.changes.empty() ||
        !incremental.changes[0] || incremental.changes[0]->all)
        return false;
    for (const std::uint64_t s : incremental.changes[0]->strands)
        if (s >= ids.size() || !((*before)[s] == ids[s])) return false;
    return true;
}

ClumpAxes clumpAxes(const StrandSet& strands, const std::vector<float>& channel) {
    constexpr std::size_t kPoints = ClumpAxes::kAxisPoints;
    const std::size_t strandCount = strands.strandCount();
    ClumpAxes axes;

    // Clumps numbered in the order of their channel values, so that the numbering is the same at
    // every thread count and for every strand order. Strands mostly come grouped by clump already
    // (Clump numbers them in order): then the strands stand in their own order, and neither an
    // order nor a sort, which would leave it so, is made.
    const bool grouped = std::is_sorted(channel.begin(), channel.end());
    std::vector<std::uint32_t> order;
    if (!grouped) {
        order.resize(strandCount);
        std::iota(order.begin(), order.end(), 0u);
        const auto before = [&](std::uint32_t a, std::uint32_t b) {
            return channel[a] < channel[b];
        };
        std::stable_sort(order.begin(), order.end(), before);
    }
    const auto strandAt = [&](std::size_t i) -> std::size_t { return grouped ? i : order[i]; };
    const auto startsClump = [&](std::size_t i) {
        return i == 0 || !(channel[strandAt(i)] == channel[strandAt(i - 1)]);
    };
    axes.clumpOf.resize(strandCount);
    // Where each clump starts in that order: the starts are counted a stretch at a time in
    // parallel, then numbered from the counts of the stretches before.
    constexpr std::size_t kStretch = 1 << 16;
    const std::size_t stretches = (strandCount + kStretch - 1) / kStretch;
    std::vector<std::uint32_t> startsBefore(stretches + 1, 0);
    parallelRange(0, stretches, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            std::uint32_t count = 0;
            for (std::size_t i = r * kStretch; i < std::min(strandCount, (r + 1) * kStretch); ++i)
                count += startsClump(i) ? 1 : 0;
            startsBefore[r + 1] = count;
        }
    });
    for (std::size_t r = 0; r < stretches; ++r)
        startsBefore[r + 1] += startsBefore[r];
    std::vector<std::uint32_t> firstOf(startsBefore[stretches]);  // where each clump starts
    parallelRange(0, stretches, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t r = begin; r < end; ++r) {
            std::uint32_t clumps = startsBefore[r];
            for (std::size_t i = r * kStretch; i < std::min(strandCount, (r + 1) * kStretch); ++i) {
                if (startsClump(i)) firstOf[clumps++] = static_cast<std::uint32_t>(i);
                axes.clumpOf[strandAt(i)] = clumps - 1;
            }
        }
    });
    axes.clumpCount = firstOf.size();
    firstOf.push_back(static_cast<std::uint32_t>(strandCount));
    axes.points.assign(axes.clumpCount * kPoints, Vec3f{});
    axes.arcs.assign(axes.clumpCount * kPoints, 0.0f);

    const std::vector<float>* preview = strands.strandChannel("_preview");
    const std::span<const std::uint64_t> offsets = strands.offsets();
    const std::span<const Vec3f> allPoints = strands.points();
#if VELMORIN_AVX_LANES
    const bool lanes = avx2LanesUsable();
#else
    const bool lanes = false;
#endif
    parallelRange(0, axes.clumpCount, 256, [&](std::size_t begin, std::size_t end) {
        SampleAdder adder(lanes);
        for (std::size_t c = begin; c < end; ++c) {
            AxisSums sums;
            std::size_t used = 0;
            // Core strands first; a clump with none takes all of its strands.
            for (int pass = 0; pass < 2 && used == 0; ++pass) {
                for (std::uint32_t i = firstOf[c]; i < firstOf[c + 1]; ++i) {
                    const std::size_t s = strandAt(i);
                    if (pass == 0 && preview && (*preview)[s] != 1.0f) continue;
                    const std::span<const Vec3f> points =
                        allPoints.subspan(offsets[s], offsets[s + 1] - offsets[s]);
                    if (points.empty()) continue;
                    adder.add(points, sums);
                    ++used;
                }
            }
            adder.flush(sums);
            Vec3f* axis = axes.points.data() + c * kPoints;
            float* arc = axes.arcs.data() + c * kPoints;
            for (std::size_t k = 0; k < kPoints; ++k) {
                const Vec3f sum{sums.x[k], sums.y[k], sums.z[k]};
                axis[k] = used ? sum / static_cast<float>(used) : Vec3f{};
                arc[k] = k == 0 ? 0.0f : arc[k - 1] + length(axis[k] - axis[k - 1]);
            }
        }
    });
    return axes;
}

std::vector<std::uint64_t> strandsOfClumps(const ClumpAxes& axes,
                                           std::span<const std::uint64_t> strands) {
    std::vector<std::uint8_t> touched(axes.clumpCount, 0);
    for (const std::uint64_t s : strands)
        touched[axes.clumpOf[s]] = 1;
    std::vector<std::uint64_t> all;
    for (std::size_t s = 0; s < axes.clumpOf.size(); ++s)
        if (touched[axes.clumpOf[s]]) all.push_back(s);
    return all;
}

}  // namespace velmorin
