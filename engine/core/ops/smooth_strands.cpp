// Smooth's strand function: strands resampled into equal arc cells, box-filtered side by side in
// lanes, read back at their own arcs and pushed back to their segment lengths. The operator node is
// in smooth_op.cpp.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "base/parallel.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "ops/smooth_lanes.h"
#include "strands/strand_set.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#endif

namespace velmorin {
namespace {

using namespace smooth_lanes;

// The strands of one batch: where each lane's strand lies and what it keeps for the read back.
struct LaneStrand {
    std::span<const Vec3f> points;
    Vec3f* out = nullptr;
    float strength = 0.0f;
    std::span<float> shares;
    std::span<float> lengths;
};

// Smooths up to kLanes strands of the same cell count through their cells and writes them out.
// Built twice, for SSE2 and for AVX (kWide), every step inlined into the chunk that runs it, so
// that the loops along a strand's points and cells take the wider lanes where the processor has
// them; both round alike, so they give the same bits.
template <bool kWide>
class SmoothBatch {
  public:
    explicit SmoothBatch(const SmoothSettings& settings)
        : settings_(settings), flatProfile_(settings.profile.keys.empty()) {}

    // Takes a strand in, smoothing the batch first when it is full or made for another cell count.
    // A strand of no length, or of none a float can share out, is copied as it is.
    __attribute__((always_inline)) void add(std::span<const Vec3f> strand, Vec3f* out,
                                            float strength) {
        const std::size_t n = strand.size();
        // About four cells a segment, 127 at most.
        const int m = static_cast<int>(std::min<std::size_t>(kSmoothCells, 4 * (n - 1)));
        if (count_ > 0 && m != box_.m) flush();
        if (m != box_.m) box_.setUp(m, settings_.scale);
        const int lane = count_;
        LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        if (m < kSmoothCells) {
            // Every strand of this cell count has n points: they are measured side by side, one
            // strand per lane, when the batch is smoothed.
            entry.points = strand;
            entry.out = out;
            entry.strength = strength;
            if (++count_ == kLanes) flush();
            return;
        }
        entry.shares = shareScratch_[static_cast<std::size_t>(lane)].take(n);
        entry.lengths = lengthScratch_[static_cast<std::size_t>(lane)].take(n);
        float* __restrict share = entry.shares.data();
        float* __restrict lengths = entry.lengths.data();
        // The arc shares as arcShares makes them, with each segment's length kept for the push
        // back.
        segmentLengths(strand, entry.lengths);
        float total = 0.0f;
        for (std::size_t k = 1; k < n; ++k)
            total += lengths[k];
        const float toShare = 1.0f / total;
        if (!(toShare > 0.0f && toShare <= std::numeric_limits<float>::max())) {
            std::copy(strand.begin(), strand.end(), out);
            return;
        }
        // The same sums again, each scaled as it comes.
        share[0] = 0.0f;
        float sum = 0.0f;
        for (std::size_t k = 1; k < n; ++k) {
            sum += lengths[k];
            share[k] = sum * toShare;
        }
        entry.points = strand;
        entry.out = out;
        entry.strength = strength;
        if (++count_ == kLanes) flush();
    }

    // Smooths the strands taken in and writes them out.
    __attribute__((always_inline)) void flush() {
        if (count_ == 0) return;
        if (box_.m < kSmoothCells) {
            measureLanes();
            if (count_ == 0) return;
            resampleLanes();
            filterLanes(box_, cells_);
            mixAndPushLanes();
            count_ = 0;
            return;
        }
        for (int lane = 0; lane < count_; ++lane)
            resampleStrand(lane);
        // Lanes without a strand run on zeros, never on what a denormal or a NaN would slow.
        for (int lane = count_; lane < kLanes; ++lane)
            for (int axis = 0; axis < 3; ++axis)
                std::fill_n(rows_[lane][axis], kCurveRows, 0.0f);
        LaneRow* const sampled[3] = {cells_.sampled(0), cells_.sampled(1), cells_.sampled(2)};
#if VELMORIN_SMOOTH_AVX
        if constexpr (kWide)
            rowsToLanesWide(rows_, sampled, box_.m + 1);
        else
            rowsToLanes(rows_, sampled, box_.m + 1);
#else
        rowsToLanes(rows_, sampled, box_.m + 1);
#endif
        filterLanes(box_, cells_);
        // Every lane read back and mixed, then every lane pushed back and written: the steps of
        // one strand wait on each other, those of different strands don't.
        std::size_t points = 0;
        for (int lane = 0; lane < count_; ++lane)
            points += lanes_[static_cast<std::size_t>(lane)].points.size();
        float* mixed = mixedScratch_.take(3 * points).data();
        float* at = mixed;
        for (int lane = 0; lane < count_; ++lane) {
            mixLane(lane, at);
            at += 3 * lanes_[static_cast<std::size_t>(lane)].points.size();
        }
        at = mixed;
        for (int lane = 0; lane < count_; ++lane) {
            pushLane(lane, at);
            at += 3 * lanes_[static_cast<std::size_t>(lane)].points.size();
        }
        count_ = 0;
    }

  private:
    // The strand at m + 1 equal arc steps: each cell lies on the first segment that reaches its
    // share of the length, so segment k holds the cells from the count of those at or before
    // point k - 1's share to the count of those at or before point k's. On segment k the strand is
    // base + slope * t (a segment of no length holds its end). Each segment writes eight cells at
    // a time from its first, and the next writes over what ran past its own, so no cell waits on
    // the one before it to find its segment.
    __attribute__((always_inline)) void writeSegment(int lane, int& first, int next,
                                                     const Vec3f& base, const Vec3f& slope) {
        const float* steps = box_.steps();
        float* __restrict rx = rows_[lane][0];
        float* __restrict ry = rows_[lane][1];
        float* __restrict rz = rows_[lane][2];
        int j = first;
        do {
            writeCells(rx + j, steps + j, base.x, slope.x);
            writeCells(ry + j, steps + j, base.y, slope.y);
            writeCells(rz + j, steps + j, base.z, slope.z);
            j += 8;
        } while (j < next);
        first = next;
    }

    // One lane's strand into its cells, segment after segment.
    __attribute__((always_inline)) void resampleStrand(int lane) {
        const LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        const std::span<const Vec3f> strand = entry.points;
        const float* share = entry.shares.data();
        const int m = box_.m;
        const std::size_t last = strand.size() - 1;
        int first = 0;
        for (std::size_t k = 1; k <= last; ++k) {
            const int next = k < last ? box_.cellsUpTo(share[k]) : m;
            const float span = share[k] - share[k - 1];
            Vec3f slope, base = strand[k];
            if (span > 0.0f) {
                slope = (strand[k] - strand[k - 1]) * (1.0f / span);
                base = strand[k - 1] - slope * share[k - 1];
            }
            writeSegment(lane, first, next, base, slope);
        }
        float* const row[3] = {rows_[lane][0], rows_[lane][1], rows_[lane][2]};
        row[0][m] = strand[last].x;
        row[1][m] = strand[last].y;
        row[2][m] = strand[last].z;
    }

    // Lanes from `lane` on repeat the first one's points, so that they hold numbers.
    __attribute__((always_inline)) void repeatFirstLane(int lane, std::size_t n) {
        for (; lane < kLanes; ++lane)
            for (std::size_t k = 0; k < n; ++k)
                for (int axis = 0; axis < 3; ++axis)
                    lanePoints_[axis][k][lane] = lanePoints_[axis][k][0];
    }

    // The batch's strands' `n` points into lanes, axis by axis; lanes without a strand repeat the
    // first one's points, so that they hold numbers. Four points of four strands are twelve
    // floats each, read as three rows per strand and turned by three four by four transposes
    // into the twelve rows of four lanes they fill; points past the last whole four go one by
    // one, so that nothing is read past a strand's end.
    __attribute__((always_inline)) void pointsToLanes(std::size_t n) {
        const Vec3f* from[kLanes];
        for (int lane = 0; lane < kLanes; ++lane)
            from[lane] = lanes_[static_cast<std::size_t>(lane < count_ ? lane : 0)].points.data();
        std::size_t k = 0;
#if VELMORIN_SSE_LANES
        for (; k + 4 <= n; k += 4) {
            for (int q = 0; q < 3; ++q) {
                // Lanes 0 to 3 and 4 to 7 turned apart and joined, so that each row of lanes is
                // one store for the wide loads that read it.
                __m128 low[4], high[4];
                for (int i = 0; i < 4; ++i) {
                    low[i] = _mm_loadu_ps(reinterpret_cast<const float*>(from[i] + k) + 4 * q);
                    high[i] = _mm_loadu_ps(reinterpret_cast<const float*>(from[i + 4] + k) + 4 * q);
                }
                _MM_TRANSPOSE4_PS(low[0], low[1], low[2], low[3]);
                _MM_TRANSPOSE4_PS(high[0], high[1], high[2], high[3]);
                for (int i = 0; i < 4; ++i) {
                    const int f = 4 * q + i;
                    const HalfLanes a = low[i], b = high[i];
                    storeRow(lanePoints_[f % 3][k + static_cast<std::size_t>(f / 3)],
                             __builtin_shufflevector(a, b, 0, 1, 2, 3, 4, 5, 6, 7));
                }
            }
        }
#endif
        for (; k < n; ++k) {
            LaneVector x, y, z;
            for (int lane = 0; lane < kLanes; ++lane) {
                x[lane] = from[lane][k].x;
                y[lane] = from[lane][k].y;
                z[lane] = from[lane][k].z;
            }
            storeRow(lanePoints_[0][k], x);
            storeRow(lanePoints_[1][k], y);
            storeRow(lanePoints_[2][k], z);
        }
    }

    // The batch's strands measured side by side, where all have the same points: each segment's
    // length as segmentLengths makes it, and the arc shares as add makes them for a strand alone
    // (the lengths summed from the root, once for the total and again, each sum scaled as it
    // comes). A strand of no length, or of none a float can share out, is copied as it is and
    // leaves the batch, the last strand taking its lane.
    __attribute__((always_inline)) void measureLanes() {
        const std::size_t n = static_cast<std::size_t>(box_.m / 4 + 1);
        pointsToLanes(n);
        const LaneVector zero{}, one = zero + 1.0f;
        LaneVector total = zero;
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector d[3];
            for (int axis = 0; axis < 3; ++axis) {
                LaneVector p1, p0;
                loadRow(p1, lanePoints_[axis][k]);
                loadRow(p0, lanePoints_[axis][k - 1]);
                d[axis] = p1 - p0;
            }
            const LaneVector squared = d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
            LaneVector size;
            laneSquareRoots<kWide>(size, squared);
            storeRow(laneLengths_[k], size);
            total += size;
        }
        LaneVector toShare = one / total;
        const auto shares =
            (toShare > zero) & (toShare <= zero + std::numeric_limits<float>::max());
        // A strand that cannot be shared out is rare: the lanes are looked at one by one only
        // when the row has one. Lanes past the batch's strands repeat the first one's points.
        if (!allLanes(shares)) {
            for (int lane = count_ - 1; lane >= 0; --lane) {
                if (shares[lane]) continue;
                const LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
                std::copy(entry.points.begin(), entry.points.end(), entry.out);
                const int last = --count_;
                if (lane == last) continue;
                lanes_[static_cast<std::size_t>(lane)] = lanes_[static_cast<std::size_t>(last)];
                toShare[lane] = toShare[last];
                for (std::size_t k = 0; k < n; ++k) {
                    laneLengths_[k][lane] = laneLengths_[k][last];
                    for (int axis = 0; axis < 3; ++axis)
                        lanePoints_[axis][k][lane] = lanePoints_[axis][k][last];
                }
            }
        }
        if (count_ == 0) return;
        if (count_ < kLanes) {
            repeatFirstLane(count_, n);
            for (int lane = count_; lane < kLanes; ++lane) {
                toShare[lane] = toShare[0];
                for (std::size_t k = 1; k < n; ++k)
                    laneLengths_[k][lane] = laneLengths_[k][0];
            }
        }
        LaneVector sum = zero;
        storeRow(laneShares_[0], sum);
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector size;
            loadRow(size, laneLengths_[k]);
            sum += size;
            const LaneVector share = sum * toShare;
            storeRow(laneShares_[k], share);
        }
    }

    // The batch's strands into their cells where all have the same points: each segment's base,
    // slope and cells worked out for every lane at once, by the steps resampleStrand takes, then
    // the cells written for every lane at once into the filter's rows.
    __attribute__((always_inline)) void resampleLanes() {
        const int m = box_.m;
        const std::size_t n = static_cast<std::size_t>(m / 4 + 1);
        const LaneVector zero{}, one = zero + 1.0f, cellCount = zero + static_cast<float>(m);
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector at, before;
            loadRow(at, laneShares_[k]);
            loadRow(before, laneShares_[k - 1]);
            const LaneVector span = at - before;
            const auto positive = span > zero;
            const LaneVector inverse = one / (positive ? span : one);
            for (int axis = 0; axis < 3; ++axis) {
                LaneVector p1, p0;
                loadRow(p1, lanePoints_[axis][k]);
                loadRow(p0, lanePoints_[axis][k - 1]);
                const LaneVector slope = positive ? (p1 - p0) * inverse : zero;
                const LaneVector base = positive ? p0 - slope * before : p1;
                storeRow(laneSlopes_[axis][k], slope);
                storeRow(laneBases_[axis][k], base);
            }
            // cellsUpTo in lanes: shares are never below zero here, and a strand whose shares
            // are no numbers has left the batch.
            const LaneVector reach = at * cellCount;
            const LaneVector whole =
                __builtin_convertvector(__builtin_convertvector(reach, LaneInts), LaneVector);
            const LaneVector count = whole + one;
            const LaneVector next = count < cellCount ? count : cellCount;
            storeRow(laneNext_[k], next);
        }
        // Straight into the filter's rows of lanes: segment k writes, in each lane, the cells from
        // its first on, over those of the segments before it, so that each cell ends with the
        // segment that holds it; only the cells some lane's segment k holds are visited. Each
        // cell is base + slope * its share, as writeCells makes it. Past the last lane's first
        // cell every lane's segment holds the cell, so those cells are written with no look at
        // what was there.
        const float* steps = box_.steps();
        LaneRow* const sampled[3] = {cells_.sampled(0), cells_.sampled(1), cells_.sampled(2)};
        LaneVector first = zero;
        int low = 0, allHold = 0;
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector next = cellCount;
            if (k + 1 < n) loadRow(next, laneNext_[k]);
            const int high = static_cast<int>(laneMax(next));
            LaneVector base[3], slope[3];
            for (int axis = 0; axis < 3; ++axis) {
                loadRow(base[axis], laneBases_[axis][k]);
                loadRow(slope[axis], laneSlopes_[axis][k]);
            }
            int j = low;
            for (; j < allHold; ++j) {
                const auto holds = (zero + static_cast<float>(j)) >= first;
                const LaneVector step = zero + steps[j];
                for (int axis = 0; axis < 3; ++axis) {
                    LaneVector cell;
                    loadRow(cell, sampled[axis][j]);
                    cell = holds ? base[axis] + slope[axis] * step : cell;
                    storeRow(sampled[axis][j], cell);
                }
            }
            for (; j < high; ++j) {
                const LaneVector step = zero + steps[j];
                for (int axis = 0; axis < 3; ++axis)
                    storeRow(sampled[axis][j], base[axis] + slope[axis] * step);
            }
            // The next segment's cells start where the lowest lane's of them do, and hold in
            // every lane from the highest lane's on.
            low = static_cast<int>(laneMin(next));
            allHold = high;
            first = next;
        }
        for (int axis = 0; axis < 3; ++axis)
            __builtin_memcpy(sampled[axis][m], lanePoints_[axis][n - 1], sizeof(LaneRow));
    }

    // Reads lane `lane`'s smoothed curve back at its strand's own arcs and mixes it with the
    // strand, into `mixed` (three rows of the strand's points). Four points at a time in SSE
    // lanes, which round as the scalar steps after them do.
    __attribute__((always_inline)) void mixLane(int lane, float* __restrict mixed) {
        const LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        const std::span<const Vec3f> strand = entry.points;
        const std::size_t n = strand.size();
        const int m = box_.m;
        const float* __restrict share = entry.shares.data();
        float* __restrict mx = mixed;
        float* __restrict my = mixed + n;
        float* __restrict mz = mixed + 2 * n;
        const LaneRow(&x)[kCurveRows] = cells_.curve[0];
        const LaneRow(&y)[kCurveRows] = cells_.curve[1];
        const LaneRow(&z)[kCurveRows] = cells_.curve[2];
        // The root is read back at the curve's first cell, which is the root.
        mx[0] = strand[0].x;
        my[0] = strand[0].y;
        mz[0] = strand[0].z;
        std::size_t k = 1;
#if VELMORIN_SSE_LANES
        const __m128 cellCount = _mm_set1_ps(static_cast<float>(m));
        const __m128 lastCell = _mm_set1_ps(static_cast<float>(m - 1));
        for (; k + 4 <= n; k += 4) {
            const __m128 arc = _mm_mul_ps(_mm_loadu_ps(share + k), cellCount);
            const __m128 cellAt = _mm_min_ps(_mm_cvtepi32_ps(_mm_cvttps_epi32(arc)), lastCell);
            const __m128 f = _mm_sub_ps(arc, cellAt);
            alignas(16) std::int32_t cell[4];
            _mm_store_si128(reinterpret_cast<__m128i*>(cell), _mm_cvttps_epi32(cellAt));
            __m128 weight = _mm_set1_ps(entry.strength);
            if (!flatProfile_)
                weight = _mm_mul_ps(weight, _mm_setr_ps(settings_.profile.at(share[k]),
                                                        settings_.profile.at(share[k + 1]),
                                                        settings_.profile.at(share[k + 2]),
                                                        settings_.profile.at(share[k + 3])));
            const Vec3f* p = strand.data() + k;
            // The smoothed curve read back between the cells around each point's share, and
            // mixed with the point.
            const auto mix = [&](const LaneRow* row, __m128 point) __attribute__((always_inline)) {
                const __m128 low = _mm_setr_ps(row[cell[0]][lane], row[cell[1]][lane],
                                               row[cell[2]][lane], row[cell[3]][lane]);
                const __m128 high = _mm_setr_ps(row[cell[0] + 1][lane], row[cell[1] + 1][lane],
                                                row[cell[2] + 1][lane], row[cell[3] + 1][lane]);
                const __m128 smooth = _mm_add_ps(low, _mm_mul_ps(_mm_sub_ps(high, low), f));
                return _mm_add_ps(point, _mm_mul_ps(_mm_sub_ps(smooth, point), weight));
            };
            _mm_storeu_ps(mx + k, mix(x, _mm_setr_ps(p[0].x, p[1].x, p[2].x, p[3].x)));
            _mm_storeu_ps(my + k, mix(y, _mm_setr_ps(p[0].y, p[1].y, p[2].y, p[3].y)));
            _mm_storeu_ps(mz + k, mix(z, _mm_setr_ps(p[0].z, p[1].z, p[2].z, p[3].z)));
        }
#endif
        for (; k < n; ++k) {
            const float arc = share[k] * static_cast<float>(m);
            const int cell = std::min(static_cast<int>(arc), m - 1);
            const Vec3f low{x[cell][lane], y[cell][lane], z[cell][lane]};
            const Vec3f high{x[cell + 1][lane], y[cell + 1][lane], z[cell + 1][lane]};
            const Vec3f smooth = lerp(low, high, arc - static_cast<float>(cell));
            const float weight =
                flatProfile_ ? entry.strength : entry.strength * settings_.profile.at(share[k]);
            const Vec3f mixed = lerp(strand[k], smooth, weight);
            mx[k] = mixed.x;
            my[k] = mixed.y;
            mz[k] = mixed.z;
        }
    }

    // Pushes lane `lane`'s points back to keep its strand's segment lengths, each segment along
    // the mixed shape's direction (`mixed` as mixLane made it), and writes them out. The
    // directions four segments at a time in SSE lanes, whose square roots and divisions round as
    // the scalar ones after them do.
    __attribute__((always_inline)) void pushLane(int lane, const float* __restrict mixed) {
        const LaneStrand& entry = lanes_[static_cast<std::size_t>(lane)];
        const std::span<const Vec3f> strand = entry.points;
        const std::size_t n = strand.size();
        const float* __restrict lengths = entry.lengths.data();
        const float* __restrict mx = mixed;
        const float* __restrict my = mixed + n;
        const float* __restrict mz = mixed + 2 * n;
        Vec3f* out = entry.out;
        Vec3f at = strand[0];
        out[0] = at;
        std::size_t k = 1;
#if VELMORIN_SSE_LANES
        const __m128 tiny = _mm_set1_ps(1e-20f), one = _mm_set1_ps(1.0f);
        for (; k + 4 <= n; k += 4) {
            const __m128 tx = _mm_sub_ps(_mm_loadu_ps(mx + k), _mm_loadu_ps(mx + k - 1));
            const __m128 ty = _mm_sub_ps(_mm_loadu_ps(my + k), _mm_loadu_ps(my + k - 1));
            const __m128 tz = _mm_sub_ps(_mm_loadu_ps(mz + k), _mm_loadu_ps(mz + k - 1));
            const __m128 size = _mm_sqrt_ps(
                _mm_add_ps(_mm_add_ps(_mm_mul_ps(tx, tx), _mm_mul_ps(ty, ty)), _mm_mul_ps(tz, tz)));
            const __m128 sized = _mm_cmpgt_ps(size, tiny);
            const __m128 inverse =
                _mm_div_ps(one, _mm_or_ps(_mm_and_ps(sized, size), _mm_andnot_ps(sized, one)));
            const __m128 kept = _mm_loadu_ps(lengths + k);
            alignas(16) float sx[4], sy[4], sz[4];
            _mm_store_ps(sx, _mm_mul_ps(_mm_mul_ps(tx, inverse), kept));
            _mm_store_ps(sy, _mm_mul_ps(_mm_mul_ps(ty, inverse), kept));
            _mm_store_ps(sz, _mm_mul_ps(_mm_mul_ps(tz, inverse), kept));
            const int hasSize = _mm_movemask_ps(sized);
            for (std::size_t i = 0; i < 4; ++i) {
                Vec3f step{sx[i], sy[i], sz[i]};
                // Where the mixed shape folds a segment to nothing, it keeps its direction.
                if (!((hasSize >> i) & 1))
                    step = normalized(strand[k + i] - strand[k + i - 1]) * lengths[k + i];
                at = at + step;
                out[k + i] = at;
            }
        }
#endif
        for (; k < n; ++k) {
            const Vec3f turned{mx[k] - mx[k - 1], my[k] - my[k - 1], mz[k] - mz[k - 1]};
            const float size = squareRoot(dot(turned, turned));
            const Vec3f along =
                size > 1e-20f ? turned * (1.0f / size) : normalized(strand[k] - strand[k - 1]);
            at = at + along * lengths[k];
            out[k] = at;
        }
    }

    // mixLane and pushLane for every lane at once, where the batch's strands have the same
    // points: each point read back, mixed and pushed back one row of lanes at a time, so that the
    // square roots and divisions of eight strands take one instruction and the sums along each
    // strand wait on nothing but their own lane. Each lane takes the steps mixLane and pushLane
    // take, in the same order, so the bits are theirs. The read back and mix of every point come
    // first, then the push back of every point: the push back has no branch the processor can
    // miss, and its square roots and divisions, which take long, overlap from point to point.
    __attribute__((always_inline)) void mixAndPushLanes() {
        const int m = box_.m;
        const std::size_t n = static_cast<std::size_t>(m / 4 + 1);
        const LaneVector zero{}, one = zero + 1.0f, tiny = zero + 1e-20f;
        const LaneVector cellCount = zero + static_cast<float>(m);
        const LaneVector lastCell = zero + static_cast<float>(m - 1);
        LaneVector strength = zero;
        for (int lane = 0; lane < count_; ++lane)
            strength[lane] = lanes_[static_cast<std::size_t>(lane)].strength;
        LaneVector before[3];
        for (int axis = 0; axis < 3; ++axis)
            loadRow(before[axis], lanePoints_[axis][0]);
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector share;
            loadRow(share, laneShares_[k]);
            const LaneVector arc = share * cellCount;
            LaneVector cellAt =
                __builtin_convertvector(__builtin_convertvector(arc, LaneInts), LaneVector);
            cellAt = cellAt < lastCell ? cellAt : lastCell;
            const LaneVector f = arc - cellAt;
            LaneVector weight = strength;
            if (!flatProfile_) {
                for (int lane = 0; lane < kLanes; ++lane)
                    weight[lane] *= settings_.profile.at(share[lane]);
            }
            // The smoothed curve between the cells around each lane's share: each lane reads a
            // cell of its own.
            LaneVector low[3], high[3];
            {
                const LaneInts cell = __builtin_convertvector(cellAt, LaneInts);
                for (int axis = 0; axis < 3; ++axis) {
                    const LaneRow* row = cells_.curve[axis];
                    // Built four lanes at a time and joined, so that no wide load waits on
                    // narrow stores.
                    const HalfLanes low0 = {row[cell[0]][0], row[cell[1]][1], row[cell[2]][2],
                                            row[cell[3]][3]};
                    const HalfLanes low1 = {row[cell[4]][4], row[cell[5]][5], row[cell[6]][6],
                                            row[cell[7]][7]};
                    const HalfLanes high0 = {row[cell[0] + 1][0], row[cell[1] + 1][1],
                                             row[cell[2] + 1][2], row[cell[3] + 1][3]};
                    const HalfLanes high1 = {row[cell[4] + 1][4], row[cell[5] + 1][5],
                                             row[cell[6] + 1][6], row[cell[7] + 1][7]};
                    low[axis] = __builtin_shufflevector(low0, low1, 0, 1, 2, 3, 4, 5, 6, 7);
                    high[axis] = __builtin_shufflevector(high0, high1, 0, 1, 2, 3, 4, 5, 6, 7);
                }
            }
            for (int axis = 0; axis < 3; ++axis) {
                LaneVector point;
                loadRow(point, lanePoints_[axis][k]);
                const LaneVector smooth = low[axis] + (high[axis] - low[axis]) * f;
                const LaneVector mixed = point + (smooth - point) * weight;
                storeRow(laneTurned_[axis][k], mixed - before[axis]);
                before[axis] = mixed;
            }
        }
        LaneVector at[3];
        for (int axis = 0; axis < 3; ++axis) {
            loadRow(at[axis], lanePoints_[axis][0]);
            storeRow(laneOut_[axis][0], at[axis]);
        }
        for (std::size_t k = 1; k < n; ++k) {
            LaneVector turned[3];
            for (int axis = 0; axis < 3; ++axis)
                loadRow(turned[axis], laneTurned_[axis][k]);
            const LaneVector squared =
                turned[0] * turned[0] + turned[1] * turned[1] + turned[2] * turned[2];
            LaneVector size;
            laneSquareRoots<kWide>(size, squared);
            const auto sized = size > tiny;
            const LaneVector inverse = one / (sized ? size : one);
            LaneVector kept;
            loadRow(kept, laneLengths_[k]);
            LaneVector step[3];
            for (int axis = 0; axis < 3; ++axis)
                step[axis] = turned[axis] * inverse * kept;
            // Where the mixed shape folds a segment to nothing, it keeps its direction: rare, so
            // the lanes are looked at one by one only when the row has such a segment.
            if (!allLanes(sized)) [[unlikely]] {
                for (int lane = 0; lane < count_; ++lane) {
                    if (sized[lane]) continue;
                    const Vec3f input{lanePoints_[0][k][lane] - lanePoints_[0][k - 1][lane],
                                      lanePoints_[1][k][lane] - lanePoints_[1][k - 1][lane],
                                      lanePoints_[2][k][lane] - lanePoints_[2][k - 1][lane]};
                    const Vec3f along = normalized(input) * laneLengths_[k][lane];
                    step[0][lane] = along.x;
                    step[1][lane] = along.y;
                    step[2][lane] = along.z;
                }
            }
            for (int axis = 0; axis < 3; ++axis) {
                at[axis] += step[axis];
                storeRow(laneOut_[axis][k], at[axis]);
            }
        }
        lanesToPoints(n);
    }

    // The pushed back points out of lanes into each strand, by the transposes pointsToLanes
    // makes, run backwards: four strands at a time where all four lanes hold one, four points at
    // a time; the rest one by one, so that nothing is written past a strand's end.
    __attribute__((always_inline)) void lanesToPoints(std::size_t n) {
        int lane = 0;
#if VELMORIN_SSE_LANES
        const std::size_t whole = n / 4 * 4;
        for (; lane + 4 <= count_; lane += 4) {
            float* to[4];
            for (int i = 0; i < 4; ++i)
                to[i] = reinterpret_cast<float*>(lanes_[static_cast<std::size_t>(lane + i)].out);
            for (std::size_t k = 0; k < whole; k += 4) {
                for (int q = 0; q < 3; ++q) {
                    __m128 r[4];
                    for (int i = 0; i < 4; ++i) {
                        const int f = 4 * q + i;
                        r[i] = _mm_loadu_ps(laneOut_[f % 3][k + static_cast<std::size_t>(f / 3)] +
                                            lane);
                    }
                    _MM_TRANSPOSE4_PS(r[0], r[1], r[2], r[3]);
                    for (int i = 0; i < 4; ++i)
                        _mm_storeu_ps(to[i] + 3 * k + 4 * q, r[i]);
                }
            }
            for (int i = 0; i < 4; ++i) {
                Vec3f* out = lanes_[static_cast<std::size_t>(lane + i)].out;
                for (std::size_t k = whole; k < n; ++k)
                    out[k] = {laneOut_[0][k][lane + i], laneOut_[1][k][lane + i],
                              laneOut_[2][k][lane + i]};
            }
        }
#endif
        for (; lane < count_; ++lane) {
            Vec3f* out = lanes_[static_cast<std::size_t>(lane)].out;
            for (std::size_t k = 0; k < n; ++k)
                out[k] = {laneOut_[0][k][lane], laneOut_[1][k][lane], laneOut_[2][k][lane]};
        }
    }

    const SmoothSettings& settings_;
    const bool flatProfile_;
    BoxWindow box_;
    LaneCells cells_;
    int count_ = 0;
    std::array<LaneStrand, kLanes> lanes_;
    // Per point: on the stack for strands of ordinary length.
    std::array<StrandScratch<float>, kLanes> shareScratch_;
    std::array<StrandScratch<float>, kLanes> lengthScratch_;
    StrandScratch<float, 3 * 32 * kLanes> mixedScratch_;
    alignas(32) StrandRows rows_[kLanes] = {};
    // The batch's strands lane by lane, their segments' and the points pushed back, where they
    // have the same points.
    alignas(32) LaneRow laneShares_[kLanePoints];
    alignas(32) LaneRow lanePoints_[3][kLanePoints];
    alignas(32) LaneRow laneBases_[3][kLanePoints];
    alignas(32) LaneRow laneSlopes_[3][kLanePoints];
    alignas(32) LaneRow laneNext_[kLanePoints];
    alignas(32) LaneRow laneLengths_[kLanePoints];
    alignas(32) LaneRow laneTurned_[3][kLanePoints];  // each mixed segment, for the push back
    alignas(32) LaneRow laneOut_[3][kLanePoints];
};

// How far ahead of the strand taken in its points are asked for.
constexpr std::size_t kPrefetchStrands = 2 * kLanes;

// The strands from `begin` to `end` of the selection, in batches.
template <bool kWide>
inline __attribute__((always_inline)) void smoothChunk(const StrandSet& input,
                                                       const SmoothSettings& settings,
                                                       const StrandSelection& pick,
                                                       std::span<Vec3f> points, std::size_t begin,
                                                       std::size_t end) {
    SmoothBatch<kWide> batch(settings);
    // Each strand's points found from the offsets here, rather than by a call per strand.
    const std::uint64_t* offsets = input.offsets().data();
    const Vec3f* from = input.points().data();
    for (std::size_t item = begin; item < end; ++item) {
        const std::size_t s = pick.strand(item);
        const std::size_t first = offsets[s];
        // The points two batches on asked for now, to read and to write, so that they are in the
        // cache when taken in and written out: the first and the last point, which between them
        // touch every cache line of a strand of ordinary length.
        if (item + kPrefetchStrands < end) {
            const std::size_t strandAhead = pick.strand(item + kPrefetchStrands);
            const std::size_t ahead = offsets[strandAhead];
            const std::size_t past = offsets[strandAhead + 1];
            const std::size_t last = past > ahead ? past - 1 : ahead;  // a strand may have none
            __builtin_prefetch(from + ahead);
            __builtin_prefetch(from + last);
            __builtin_prefetch(points.data() + ahead, 1);
            __builtin_prefetch(points.data() + last, 1);
        }
        const std::span<const Vec3f> strand(from + first, offsets[s + 1] - first);
        Vec3f* out = points.data() + first;
        const float strength = strand.size() < 2 ? 0.0f : settings.strength.atStrand(s);
        if (strength == 0.0f) {
            std::copy(strand.begin(), strand.end(), out);
            continue;
        }
        batch.add(strand, out, strength);
    }
    batch.flush();
}

void smoothChunkNarrow(const StrandSet& input, const SmoothSettings& settings,
                       const StrandSelection& pick, std::span<Vec3f> points, std::size_t begin,
                       std::size_t end) {
    smoothChunk<false>(input, settings, pick, points, begin, end);
}

#if VELMORIN_SMOOTH_AVX
__attribute__((target("avx"))) void smoothChunkWide(const StrandSet& input,
                                                    const SmoothSettings& settings,
                                                    const StrandSelection& pick,
                                                    std::span<Vec3f> points, std::size_t begin,
                                                    std::size_t end) {
    smoothChunk<true>(input, settings, pick, points, begin, end);
}
#endif

}  // namespace

void smoothStrands(const StrandSet& input, const SmoothSettings& settings,
                   const StrandSelection& pick, std::span<Vec3f> points) {
#if VELMORIN_SMOOTH_AVX
    static const bool wide = __builtin_cpu_supports("avx");
    const auto chunk = wide ? &smoothChunkWide : &smoothChunkNarrow;
#else
    const auto chunk = &smoothChunkNarrow;
#endif
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        chunk(input, settings, pick, points, begin, end);
    });
}

}  // namespace velmorin
