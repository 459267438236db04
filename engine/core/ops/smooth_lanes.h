#pragma once
// Smooth's building blocks in lanes, for smooth_strands.cpp alone: the box filters' windows, a
// batch's cells, rows of lanes as vectors, the three box filters, square roots as std::sqrt makes
// them, and the transposes of strands' rows into lanes.

#include <array>
#include <cmath>
#include <cstdint>

#include "base/fast_trig_lanes.h"
#include "base/float_lanes.h"
#include "ops/shape_ops.h"

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#endif

namespace velmorin::smooth_lanes {

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
// A strand's cells as its resampling writes them: m + 1, and room past the tip for a segment's
// run of eight that starts there.
constexpr int kRowCells = kSmoothCells + 1 + 8;
// The curve's cells in lanes, in whole blocks of eight for the transposes.
constexpr int kCurveRows = (kSmoothCells + 1 + 7) / 8 * 8;

using LaneRow = float[kLanes];

// One box filter's window over the mirrored differences, the same for every strand of m cells:
// cell j's window runs from j + low to j + high; `mirrored` lists the differences the sliding
// window takes in, from the window's low end, unrolled from the mirrored period (the first m
// differences run forward, the next m back the way they came).
struct BoxWindow {
    int m = 0;
    int lowCell = 0;  // the cell the window of cell 0 starts in, at or below it
    int reach = 0;    // whole cells from the low end's cell to the high end's
    int count = 0;    // differences summed
    float lowShare = 0.0f, highShare = 0.0f;
    float scale = 0.0f;  // 1 / width
    bool filters = false;
    std::array<int, kReach> mirrored{};
    // j / m, each cell's share of the length, from the root to past the tip.
    std::array<float, kRowCells> stepTable{};

    const float* steps() const { return stepTable.data(); }

    // How many of the cells 0 to m - 1 start at or before share `s`: the first cell of the segment
    // that follows the point at share s. Cell j starts at or before s where j is at most s * m,
    // so the count is the whole part of s * m and one, with no division to wait on; a share that
    // is no number counts none.
    int cellsUpTo(float s) const {
        const float at = s * static_cast<float>(m);
        if (!(at >= 0.0f)) return 0;
        return at < static_cast<float>(m - 1) ? static_cast<int>(at) + 1 : m;
    }

    void setUp(int cells, float strandScale) {
        m = cells;
        // Cells 0 to m + 7: a segment's run of eight writes up to seven past the tip.
        for (int j = 0; j < m + 8; ++j)
            stepTable[static_cast<std::size_t>(j)] = static_cast<float>(j) / static_cast<float>(m);
        // Three boxes make a near Gaussian; a width of 2m or more averages the whole period.
        const float width =
            std::min(2.0f * strandScale * static_cast<float>(m), static_cast<float>(2 * m));
        filters = width > 1e-3f;
        if (!filters) return;
        const float low = 0.5f - 0.5f * width, high = 0.5f + 0.5f * width;
        lowCell = static_cast<int>(std::floor(low));
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

// A batch's cells, axis by axis, lane by lane: its strands at m + 1 equal arc steps, with room
// before the root and past the tip for the mirrored cells the first box filter reaches, the
// differences each box filter writes (the next reads them back from the first rows) and the
// smoothed curve.
struct alignas(32) LaneCells {
    static constexpr int kMirrorRows = kSmoothCells;
    LaneRow samples[3][kMirrorRows + kCurveRows + kMirrorRows];
    LaneRow differences[kSmoothCells][3];
    LaneRow filtered[kSmoothCells][3];
    LaneRow curve[3][kCurveRows];

    // The rows of one axis's cells from the root: cells -m to 2m can be reached.
    LaneRow* sampled(int axis) { return samples[axis] + kMirrorRows; }
};

// A row of lanes as one vector (GCC's vector extension): the compiler makes it one AVX register
// where the function is built for AVX, two SSE2 registers elsewhere, each lane rounding alike.
using LaneVector = float __attribute__((vector_size(kLanes * sizeof(float))));
// A row of lanes stored through a pointer to its floats.
using LaneStore = float __attribute__((vector_size(kLanes * sizeof(float)), may_alias, aligned(4)));
// A row of lanes read or written as one vector: a memcpy of one can be split into halves, and a
// wide load of what two narrow stores just wrote waits for both. The vectors pass by reference,
// so that no call's ABI hangs on whether AVX is on.
inline __attribute__((always_inline)) void loadRow(LaneVector& v, const float* row) {
    v = *reinterpret_cast<const LaneStore*>(row);
}
inline __attribute__((always_inline)) void storeRow(float* row, const LaneVector& v) {
    *reinterpret_cast<LaneStore*>(row) = v;
}
using LaneInts = std::int32_t __attribute__((vector_size(kLanes * sizeof(std::int32_t))));
// The most points of the strands whose batches are worked out in lanes: those of fewer than
// kSmoothCells cells, where a cell count means one point count.
constexpr int kLanePoints = (kSmoothCells - 1) / 4 + 1;

// One box filter over the periodic differences `in` of the three axes, in every lane. A window
// runs from the low end's share of the cell it starts in, over the whole cells after it, to the
// high end's share of the cell it ends in. The whole cells' sum is held in a register as the window
// slides, one difference coming in at the high end and one going out at the low end, so each cell
// takes four additions: two to slide the sum and two for the shares of the end cells. The axes run
// side by side, so that each step has three sums to add rather than one waiting on the last. The
// mirrored differences filter to mirrored values, so only the first m are made. Each window's
// integral is left undivided by the width: the last pass divides once by the cube of it. The first
// passes write `out`; the last (`curve` given) rebuilds the curve from the root by the sums of its
// outputs, there and then.
inline __attribute__((always_inline)) void boxFilter(const BoxWindow& box,
                                                     const LaneRow (*__restrict in)[3],
                                                     LaneRow (*__restrict out)[3],
                                                     LaneRow (*__restrict curve)[kCurveRows]) {
    const LaneVector lowShare = LaneVector{} + box.lowShare;
    const LaneVector highShare = LaneVector{} + box.highShare;
    const LaneVector cube = LaneVector{} + box.scale * box.scale * box.scale;
    LaneVector window[3] = {};
    const int reach = box.reach;
    const int* mirrored = box.mirrored.data();
    int i = 0;
    for (; i < reach; ++i) {
        for (int axis = 0; axis < 3; ++axis) {
            LaneVector add;
            loadRow(add, in[mirrored[i]][axis]);
            window[axis] += add;
        }
    }
    LaneVector rebuilt[3];
    if (curve) {
        for (int axis = 0; axis < 3; ++axis)
            loadRow(rebuilt[axis], curve[axis][0]);
    }
    for (; i < box.count; ++i) {
        const int j = i - reach;
        const LaneRow* addRow = in[mirrored[i]];
        const LaneRow* lowRow = in[mirrored[j]];
        for (int axis = 0; axis < 3; ++axis) {
            LaneVector add, low;
            loadRow(add, addRow[axis]);
            loadRow(low, lowRow[axis]);
            // The whole cells between the window's ends, the high end's share of the cell it
            // ends in, less the low end's of the cell it starts in.
            const LaneVector filteredRow = (window[axis] + add * highShare) - low * lowShare;
            window[axis] += add - low;
            if (curve) {
                rebuilt[axis] += filteredRow * cube;
                storeRow(curve[axis][j + 1], rebuilt[axis]);
            } else {
                storeRow(out[j][axis], filteredRow);
            }
        }
    }
}

// The first box filter, straight from the cells: the integral of the differences over a window
// is the curve at its high end less the curve at its low end, each read between the cells around
// it. The window of cell j runs from j + low to j + 1 - low (the width about the cell's middle),
// so with s the low end's share of the cell b = j + lowCell it starts in, and a = j - lowCell the
// cell it ends in, the integral is s (c[a] - c[b + 1]) + (1 - s) (c[a + 1] - c[b]): three
// additions a cell, and no running sum. The cells past the root and the tip are the mirror's
// (the differences run back the way they came, so the curve turns about its end point), made
// first.
inline __attribute__((always_inline)) void boxFromCells(const BoxWindow& box,
                                                        LaneRow* const (&sampled)[3],
                                                        LaneRow (*__restrict out)[3]) {
    const int m = box.m, lowCell = box.lowCell;
    for (int axis = 0; axis < 3; ++axis) {
        LaneRow* __restrict c = sampled[axis];
        LaneVector root, tip;
        loadRow(root, c[0]);
        loadRow(tip, c[m]);
        const LaneVector aboutRoot = root + root, aboutTip = tip + tip;
        for (int q = lowCell; q < 0; ++q) {
            LaneVector mirror;
            loadRow(mirror, c[-q]);
            storeRow(c[q], aboutRoot - mirror);
        }
        for (int q = m + 1; q <= m - lowCell; ++q) {
            LaneVector mirror;
            loadRow(mirror, c[2 * m - q]);
            storeRow(c[q], aboutTip - mirror);
        }
    }
    const LaneVector share = LaneVector{} + box.lowShare;
    const LaneVector rest = LaneVector{} + (1.0f - box.lowShare);
    LaneVector lowAt[3], highAt[3];  // c[b] and c[a], carried from the step before
    for (int axis = 0; axis < 3; ++axis) {
        loadRow(lowAt[axis], sampled[axis][lowCell]);
        loadRow(highAt[axis], sampled[axis][-lowCell]);
    }
    for (int j = 0; j < m; ++j) {
        const int b = j + lowCell, a = j - lowCell;
        for (int axis = 0; axis < 3; ++axis) {
            LaneVector lowNext, highNext;
            loadRow(lowNext, sampled[axis][b + 1]);
            loadRow(highNext, sampled[axis][a + 1]);
            storeRow(out[j][axis],
                     share * (highAt[axis] - lowNext) + rest * (highNext - lowAt[axis]));
            lowAt[axis] = lowNext;
            highAt[axis] = highNext;
        }
    }
}

// A batch's cells smoothed: three box filters over the differences between the cells, the first
// straight from the cells, and the curve rebuilt from the root by the sums of the last's.
inline __attribute__((always_inline)) void filterLanes(const BoxWindow& box, LaneCells& cells) {
    const int m = box.m;
    LaneRow* const sampled[3] = {cells.sampled(0), cells.sampled(1), cells.sampled(2)};
    if (!box.filters) {
        // A box of no width leaves the cells as they are.
        for (int axis = 0; axis < 3; ++axis)
            __builtin_memcpy(cells.curve[axis], sampled[axis],
                             static_cast<std::size_t>(m + 1) * sizeof(LaneRow));
        return;
    }
    // Mirrored to a period of 2m, the differences run back the way they came, which keeps the
    // directions at the root and the tip.
    boxFromCells(box, sampled, cells.filtered);
    boxFilter(box, cells.filtered, cells.differences, nullptr);
    for (int axis = 0; axis < 3; ++axis)
        __builtin_memcpy(cells.curve[axis][0], sampled[axis][0], sizeof(LaneRow));
    boxFilter(box, cells.differences, nullptr, cells.curve);
}

// The square root of one float as std::sqrt makes it, without the check for errno's sake that
// keeps the compiler from a single instruction.
inline float squareRoot(float v) {
#if VELMORIN_SSE_LANES
    return _mm_cvtss_f32(_mm_sqrt_ss(_mm_set_ss(v)));
#else
    return std::sqrt(v);
#endif
}

// Half a row of lanes, and the square roots of its lanes as squareRoot makes each.
using HalfLanes = float __attribute__((vector_size(kLanes / 2 * sizeof(float))));
inline HalfLanes squareRoots(HalfLanes v) {
#if VELMORIN_SSE_LANES
    return _mm_sqrt_ps(v);
#else
    for (int lane = 0; lane < kLanes / 2; ++lane)
        v[lane] = std::sqrt(v[lane]);
    return v;
#endif
}

// The largest and the smallest lane of a row of whole numbers, by halving the row: a few
// instructions rather than a loop over the lanes.
inline __attribute__((always_inline)) float laneMax(const LaneVector& v) {
    using Half = float __attribute__((vector_size(kLanes / 2 * sizeof(float))));
    Half a = __builtin_shufflevector(v, v, 0, 1, 2, 3);
    Half b = __builtin_shufflevector(v, v, 4, 5, 6, 7);
    a = a > b ? a : b;
    b = __builtin_shufflevector(a, a, 2, 3, 0, 1);
    a = a > b ? a : b;
    b = __builtin_shufflevector(a, a, 1, 0, 3, 2);
    a = a > b ? a : b;
    return a[0];
}
inline __attribute__((always_inline)) float laneMin(const LaneVector& v) {
    using Half = float __attribute__((vector_size(kLanes / 2 * sizeof(float))));
    Half a = __builtin_shufflevector(v, v, 0, 1, 2, 3);
    Half b = __builtin_shufflevector(v, v, 4, 5, 6, 7);
    a = a < b ? a : b;
    b = __builtin_shufflevector(a, a, 2, 3, 0, 1);
    a = a < b ? a : b;
    b = __builtin_shufflevector(a, a, 1, 0, 3, 2);
    a = a < b ? a : b;
    return a[0];
}

// Whether a comparison holds in every lane of a row.
template <typename Mask>
inline __attribute__((always_inline)) bool allLanes(const Mask& mask) {
#if VELMORIN_SSE_LANES
    const LaneVector bits = reinterpret_cast<const LaneVector&>(mask);
    return (_mm_movemask_ps(__builtin_shufflevector(bits, bits, 0, 1, 2, 3)) &
            _mm_movemask_ps(__builtin_shufflevector(bits, bits, 4, 5, 6, 7))) == 0xF;
#else
    for (int lane = 0; lane < kLanes; ++lane)
        if (!mask[lane]) return false;
    return true;
#endif
}

// Eight cells of one axis on one segment: base + slope * t at the cells' shares t.
inline void writeCells(float* __restrict row, const float* __restrict steps, float base,
                       float slope) {
    for (int i = 0; i < 8; ++i)
        row[i] = base + slope * steps[i];
}

// Each strand's cells, axis by axis, as its resampling writes them.
using StrandRows = float[3][kRowCells];

// Cells 0 to `cells` - 1 of each strand's rows into lanes, four cells of four strands at a time.
// The stores are as wide as the filter's loads, so that each load finds one store to take its
// value from.
inline __attribute__((always_inline)) void rowsToLanes(const StrandRows* rows,
                                                       LaneRow* const (&curve)[3], int cells) {
    for (int axis = 0; axis < 3; ++axis) {
#if VELMORIN_SSE_LANES
        for (int j = 0; j < cells; j += 4) {
            for (int l = 0; l < kLanes; l += 4) {
                __m128 a = _mm_loadu_ps(rows[l][axis] + j);
                __m128 b = _mm_loadu_ps(rows[l + 1][axis] + j);
                __m128 c = _mm_loadu_ps(rows[l + 2][axis] + j);
                __m128 d = _mm_loadu_ps(rows[l + 3][axis] + j);
                _MM_TRANSPOSE4_PS(a, b, c, d);
                _mm_storeu_ps(curve[axis][j] + l, a);
                _mm_storeu_ps(curve[axis][j + 1] + l, b);
                _mm_storeu_ps(curve[axis][j + 2] + l, c);
                _mm_storeu_ps(curve[axis][j + 3] + l, d);
            }
        }
#else
        for (int j = 0; j < cells; ++j)
            for (int l = 0; l < kLanes; ++l)
                curve[axis][j][l] = rows[l][axis][j];
#endif
    }
}

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
// The same steps eight lanes to an instruction, on processors with AVX. Its operations round as
// SSE2's do and there is no fused multiply-add, so both give the same bits. The transposes are
// eight by eight here, so that the filter's loads of eight lanes each find one store.
__attribute__((target("avx"))) inline void rowsToLanesWide(const StrandRows* rows,
                                                           LaneRow* const (&curve)[3], int cells) {
    for (int axis = 0; axis < 3; ++axis) {
        for (int j = 0; j < cells; j += 8) {
            const float* from[8];
            for (int l = 0; l < kLanes; ++l)
                from[l] = rows[l][axis] + j;
            float_lanes::wide::F columns[8];
            float_lanes::wide::transposeEight(from, columns);
            for (int i = 0; i < 8; ++i)
                _mm256_storeu_ps(curve[axis][j + i], columns[i].v);
        }
    }
}

#define VELMORIN_SMOOTH_AVX 1
#endif

// The square roots of a row of lanes, each as squareRoot makes it: one instruction where the
// batch runs in AVX lanes, two halves joined elsewhere; a square root rounds alike at either
// width. GCC checks the width of a builtin where it is finally expanded, which is in the AVX chunk
// the batch is inlined into; clang checks where it is written, so clang keeps the halves. The
// vectors pass by reference, so that no call's ABI hangs on whether AVX is on.
template <bool kWide>
inline __attribute__((always_inline)) void laneSquareRoots(LaneVector& root, const LaneVector& v) {
#if VELMORIN_SMOOTH_AVX && !defined(__clang__)
    if constexpr (kWide) {
        // GCC warns of the register's width where it reads the builtin, before it is inlined
        // where AVX is on.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
        root = __builtin_ia32_sqrtps256(v);
#pragma GCC diagnostic pop
        return;
    }
#endif
    root = __builtin_shufflevector(squareRoots(__builtin_shufflevector(v, v, 0, 1, 2, 3)),
                                   squareRoots(__builtin_shufflevector(v, v, 4, 5, 6, 7)), 0, 1, 2,
                                   3, 4, 5, 6, 7);
}

}  // namespace velmorin::smooth_lanes
