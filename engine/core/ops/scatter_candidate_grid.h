#pragma once
// The grid the neighbour search of Scatter's relaxation walks: candidates sorted by cell.

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <tbb/parallel_sort.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/vec3.h"
#include "ops/scatter_cells.h"
#include "strands/array_pool.h"

namespace velmorin::scatter {

// Candidates sorted by cell (cells in key order, a cell's candidates in index order) with their
// positions beside them, one array per axis. The key puts x in the low bits, so a row of cells
// along x is one run of the sorted cells; a table finds a row's run from its y and z. Each
// candidate also carries its rank, which orders equal distances: its index, or the given `ranks`. A
// grid built again keeps its arrays: the relaxation builds one seven times over the same number of
// candidates (its storage order, then one for each neighbour refresh).
class CandidateGrid {
  public:
    CandidateGrid() = default;

    // `lanes` chooses whether the keys are made sixteen at a time where the processor can; the
    // grid is the same either way.
    void build(float cell, std::span<const Vec3f> positions, std::span<const std::uint32_t> ranks,
               RelaxLanes lanes = RelaxLanes::widest) {
        inverse_ = 1.0f / cell;
        const std::size_t count = positions.size();
        count_ = count;
        // Four words a candidate: its cell, its entry's cell, and the two halves of the sort.
        std::uint64_t* const keys = words_.hold(4 * count);
        sortedKey_ = keys + count;
        std::uint64_t* const from = keys + 2 * count;
        // Two for the entry's index and rank, three for its position.
        sortedIndex_ = indices_.hold(2 * count);
        sortedRank_ = ranks.empty() ? nullptr : sortedIndex_ + count;
        float* const axes = axes_.hold(3 * count);
        for (std::size_t a = 0; a < 3; ++a)
            sortedAxis_[a] = axes + a * count;
        // One pass in fixed chunks makes the keys, notes whether they ever fall, and finds the
        // cells' bounding block for the sort by cells. Positions already in the grid's order (the
        // relaxation stores its candidates so, and they have not moved by the first refresh) need
        // no sort: entries in index order whose keys never fall are sorted by key, then index, as
        // they stand.
        const std::size_t chunks = (count + kChunk - 1) / kChunk;
        std::vector<Bounds>& bounds = bounds_;
        bounds.assign(chunks, Bounds{});
        std::atomic<bool> unsorted = false;
        const bool wide = lanes == RelaxLanes::widest && widestLanesUsable();
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                const std::size_t first = c * kChunk, last = std::min(count, first + kChunk);
                const auto coordOf = [&](std::size_t i) { return cellOf(positions[i], inverse_); };
                std::uint64_t previous = 0;
                if (first > 0) {
                    const CellCoord before = coordOf(first - 1);
                    previous = cellKey(before.x, before.y, before.z);
                }
                bool falls = false;
                Bounds b;
                std::size_t i = first;
                if (wide) i = keyGroupsWidest(positions, i, last, keys, previous, falls, b);
                for (; i < last; ++i) {
                    const CellCoord at = coordOf(i);
                    const std::uint64_t key = cellKey(at.x, at.y, at.z);
                    falls = falls || key < previous;
                    previous = key;
                    keys[i] = key;
                    for (std::size_t a = 0; a < 3; ++a) {
                        const std::uint64_t v = (key >> (21 * a)) & kRowMask;
                        b.low[a] = std::min(b.low[a], v);
                        b.high[a] = std::max(b.high[a], v);
                    }
                }
                bounds[c] = b;
                if (falls) unsorted.store(true, std::memory_order_relaxed);
            }
        });
        // The indices in grid order: as they stand, from the sort by cells, or, for a block of
        // cells too large for that, from a comparison sort.
        // Sorted entries are a cell's place above an index (only the index matters here).
        const std::uint64_t* sorted = nullptr;
        if (unsorted.load(std::memory_order_relaxed)) {
            if (!sortByDenseCells(keys, from, count, bounds)) {
                std::vector<Entry> entries(count);
                for (std::size_t i = 0; i < count; ++i)
                    entries[i] = {keys[i], static_cast<std::uint32_t>(i)};
                tbb::parallel_sort(entries.begin(), entries.end(),
                                   [](const Entry& a, const Entry& b) {
                                       return a.key != b.key ? a.key < b.key : a.index < b.index;
                                   });
                for (std::size_t e = 0; e < count; ++e)
                    from[e] = entries[e].index;
            }
            sorted = from;
        }
        forEach(count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t e = begin; e < end; ++e) {
                const std::uint32_t index =
                    sorted ? static_cast<std::uint32_t>(sorted[e]) : static_cast<std::uint32_t>(e);
                sortedIndex_[e] = index;
                sortedKey_[e] = keys[index];
                if (!ranks.empty()) sortedRank_[e] = ranks[index];
                const Vec3f& p = positions[index];
                for (int a = 0; a < 3; ++a)
                    sortedAxis_[a][e] = p[a];
            }
        });
        rows_.clear();
        denseRows_.clear();
        // The cells' starts, found in fixed chunks of entries: each counts the cells that start in
        // it, and then writes them after those of the chunks before.
        const std::uint64_t* cellOfEntry = sortedKey_;
        const auto startsCell = [&](std::size_t e) {
            return e == 0 || cellOfEntry[e] != cellOfEntry[e - 1];
        };
        std::vector<std::uint32_t> firstCell(chunks + 1, 0);
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                std::uint32_t cells = 0;
                for (std::size_t e = c * kChunk; e < std::min(count, (c + 1) * kChunk); ++e)
                    cells += startsCell(e) ? 1u : 0u;
                firstCell[c + 1] = cells;
            }
        });
        for (std::size_t c = 0; c < chunks; ++c)
            firstCell[c + 1] += firstCell[c];
        cellStart_.resize(firstCell[chunks] + 1);
        cellKeys_.resize(firstCell[chunks]);
        parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                std::uint32_t at = firstCell[c];
                for (std::size_t e = c * kChunk; e < std::min(count, (c + 1) * kChunk); ++e) {
                    if (!startsCell(e)) continue;
                    cellStart_[at] = static_cast<std::uint32_t>(e);
                    cellKeys_[at++] = cellOfEntry[e];
                }
            }
        });
        cellStart_.back() = static_cast<std::uint32_t>(count);
        // Where the rows' bounding rectangle in y and z is not much larger than the cell count, a
        // dense table finds a row by its place: the rows round one spot then lie side by side in
        // memory, and a search, which meets the rows round one spot after another, mostly finds
        // them in cache. Rows spread far apart go to a hash table instead.
        std::uint64_t yLow = kRowMask, yHigh = 0, zLow = kRowMask, zHigh = 0;
        for (const std::uint64_t key : cellKeys_) {
            const std::uint64_t row = key >> 21;
            yLow = std::min(yLow, row & kRowMask);
            yHigh = std::max(yHigh, row & kRowMask);
            zLow = std::min(zLow, row >> 21);
            zHigh = std::max(zHigh, row >> 21);
        }
        if (!cellKeys_.empty() &&
            (yHigh - yLow + 1) * (zHigh - zLow + 1) <= 8 * cellKeys_.size() + 4096) {
            yLow_ = yLow;
            zLow_ = zLow;
            width_ = yHigh - yLow + 1;
            height_ = zHigh - zLow + 1;
            denseRows_.assign(width_ * height_, {0, 0});
            for (std::uint32_t c = 0; c < cellKeys_.size(); ++c) {
                const std::uint64_t row = cellKeys_[c] >> 21;
                auto& range = denseRows_[((row >> 21) - zLow) * width_ + ((row & kRowMask) - yLow)];
                if (range.first == range.second) range.first = c;
                range.second = c + 1;
            }
            return;
        }
        // Open addressing at most half full.
        std::size_t rowCount = 0;
        for (std::uint32_t c = 0; c < cellKeys_.size(); ++c)
            rowCount += c == 0 || (cellKeys_[c] >> 21) != (cellKeys_[c - 1] >> 21) ? 1 : 0;
        std::size_t size = 16;
        while (size < rowCount * 2)
            size *= 2;
        rows_.assign(size, Row{kNoRow, 0, 0});
        std::size_t slot = 0;
        for (std::uint32_t c = 0; c < cellKeys_.size(); ++c) {
            const std::uint64_t row = cellKeys_[c] >> 21;
            if (c > 0 && (cellKeys_[c - 1] >> 21) == row) {
                ++rows_[slot].end;
                continue;
            }
            slot = static_cast<std::size_t>(mix64(row)) & (size - 1);
            while (rows_[slot].row != kNoRow)
                slot = (slot + 1) & (size - 1);
            rows_[slot] = {row, c, c + 1};
        }
    }

    float inverse() const { return inverse_; }
    // The candidates' indices in grid order.
    std::span<const std::uint32_t> order() const { return {sortedIndex_, count_}; }
    std::uint32_t indexAt(std::uint32_t entry) const { return sortedIndex_[entry]; }
    std::uint32_t rankAt(std::uint32_t entry) const { return rankData()[entry]; }
    Vec3f positionAt(std::uint32_t entry) const {
        return {sortedAxis_[0][entry], sortedAxis_[1][entry], sortedAxis_[2][entry]};
    }
    // The entries' coordinates along one axis, their indices and their ranks, in entry order.
    const float* axisData(int axis) const { return sortedAxis_[axis]; }
    const std::uint32_t* indexData() const { return sortedIndex_; }
    const std::uint32_t* rankData() const { return sortedRank_ ? sortedRank_ : sortedIndex_; }
    std::size_t size() const { return count_; }
    std::uint64_t cellKeyAt(std::uint32_t cell) const { return cellKeys_[cell]; }
    // The key of the cell of an entry, as the build found it.
    std::uint64_t keyOfEntry(std::uint32_t entry) const { return sortedKey_[entry]; }
    // The entries of cells [first, last).
    std::uint32_t entriesBegin(std::uint32_t first) const { return cellStart_[first]; }

    // The cells [begin, end) of the row at y and z; empty where the row has none.
    std::pair<std::uint32_t, std::uint32_t> row(std::int64_t y, std::int64_t z) const {
        const std::uint64_t key = cellKey(0, y, z) >> 21;
        if (!denseRows_.empty()) {
            const std::uint64_t column = (key & kRowMask) - yLow_, line = (key >> 21) - zLow_;
            if (column >= width_ || line >= height_) return {0, 0};
            return denseRows_[line * width_ + column];
        }
        if (rows_.empty()) return {0, 0};
        std::size_t at = static_cast<std::size_t>(mix64(key)) & (rows_.size() - 1);
        while (rows_[at].row != kNoRow) {
            if (rows_[at].row == key) return {rows_[at].begin, rows_[at].end};
            at = (at + 1) & (rows_.size() - 1);
        }
        return {0, 0};
    }
    // The first cell of [begin, end) whose key is not below `key`.
    std::uint32_t lowerBound(std::uint32_t begin, std::uint32_t end, std::uint64_t key) const {
        return static_cast<std::uint32_t>(
            std::lower_bound(cellKeys_.begin() + begin, cellKeys_.begin() + end, key) -
            cellKeys_.begin());
    }

  private:
    static constexpr std::uint64_t kNoRow = ~std::uint64_t{0};
    static constexpr std::uint64_t kRowMask = (std::uint64_t{1} << 21) - 1;
    struct Entry {
        std::uint64_t key;
        std::uint32_t index;
    };
    // Fixed chunks of entries for the passes whose results must not depend on the threads.
    static constexpr std::size_t kChunk = 1 << 16;
    // The least and greatest cell coordinates of a chunk, axis by axis.
    struct Bounds {
        std::uint64_t low[3] = {kRowMask, kRowMask, kRowMask};
        std::uint64_t high[3] = {0, 0, 0};
    };

#if VELMORIN_RELAX_AVX
    // The keys of positions [first, last) sixteen at a time, as far as whole groups go and the
    // cells' coordinates stay within 2^30 of the origin (so that they are exact as 32-bit lanes):
    // returns where it stopped, for the plain loop to go on from, with `previous` (the last key),
    // `falls` and the chunk's bounds `b` brought up to there.
    VELMORIN_AVX512_LANES std::size_t keyGroupsWidest(std::span<const Vec3f> positions,
                                                      std::size_t first, std::size_t last,
                                                      std::uint64_t* keys, std::uint64_t& previous,
                                                      bool& falls, Bounds& b) const {
        static_assert(sizeof(Vec3f) == 3 * sizeof(float));
        const auto* floats = reinterpret_cast<const float*>(positions.data());
        // Sixteen positions are 48 floats in three registers: each axis is picked from the first
        // two, then its last lanes from the third.
        const __m512i pickX =
            _mm512_setr_epi32(0, 3, 6, 9, 12, 15, 18, 21, 24, 27, 30, 0, 0, 0, 0, 0);
        const __m512i restX =
            _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 17, 20, 23, 26, 29);
        const __m512i pickY =
            _mm512_setr_epi32(1, 4, 7, 10, 13, 16, 19, 22, 25, 28, 31, 0, 0, 0, 0, 0);
        const __m512i restY =
            _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 18, 21, 24, 27, 30);
        const __m512i pickZ =
            _mm512_setr_epi32(2, 5, 8, 11, 14, 17, 20, 23, 26, 29, 0, 0, 0, 0, 0, 0);
        const __m512i restZ =
            _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 16, 19, 22, 25, 28, 31);
        // A key's two halves side by side, as 64-bit lanes.
        const __m512i lowKeys =
            _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
        const __m512i highKeys =
            _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31);
        const __m512 scale = _mm512_set1_ps(inverse_);
        const __m512 bound = _mm512_set1_ps(0x1p30f);
        const __m512i bias = _mm512_set1_epi32(1 << 20);
        const __m512i field = _mm512_set1_epi32(static_cast<std::int32_t>(kRowMask));
        __m512i low[3], high[3];
        for (int a = 0; a < 3; ++a) {
            low[a] = field;
            high[a] = _mm512_setzero_si512();
        }
        __m512i before = _mm512_set1_epi64(static_cast<long long>(previous));
        __mmask8 fell = 0;
        std::size_t i = first;
        for (; i + 16 <= last; i += 16) {
            const __m512 a = _mm512_loadu_ps(floats + 3 * i);
            const __m512 m = _mm512_loadu_ps(floats + 3 * i + 16);
            const __m512 z = _mm512_loadu_ps(floats + 3 * i + 32);
            const __m512 axes[3] = {
                _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, pickX, m), restX, z),
                _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, pickY, m), restY, z),
                _mm512_permutex2var_ps(_mm512_permutex2var_ps(a, pickZ, m), restZ, z)};
            // The cells' coordinates as cellOf makes them: the product, then its floor, exact.
            __m512i field3[3];
            __mmask16 inside = 0xffff;
            for (int k = 0; k < 3; ++k) {
                const __m512 t = _mm512_mul_ps(axes[k], scale);
                inside &= _mm512_cmp_ps_mask(_mm512_abs_ps(t), bound, _CMP_LT_OQ);
                // (Zero-masked forms here and below: the plain ones trip a warning in some
                // compilers' headers.)
                const __m512i coord = _mm512_maskz_cvttps_epi32(
                    0xffff, _mm512_maskz_roundscale_ps(0xffff, t,
                                                       _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC));
                field3[k] = _mm512_and_si512(_mm512_add_epi32(coord, bias), field);
            }
            if (inside != 0xffff) break;
            for (int k = 0; k < 3; ++k) {
                low[k] = _mm512_maskz_min_epu32(0xffff, low[k], field3[k]);
                high[k] = _mm512_maskz_max_epu32(0xffff, high[k], field3[k]);
            }
            // x, y and z 21 bits each: y straddles the halves.
            const __m512i lower =
                _mm512_or_si512(field3[0], _mm512_maskz_slli_epi32(0xffff, field3[1], 21));
            const __m512i upper = _mm512_or_si512(_mm512_maskz_srli_epi32(0xffff, field3[1], 11),
                                                  _mm512_maskz_slli_epi32(0xffff, field3[2], 10));
            const __m512i first8 = _mm512_permutex2var_epi32(lower, lowKeys, upper);
            const __m512i last8 = _mm512_permutex2var_epi32(lower, highKeys, upper);
            _mm512_storeu_si512(keys + i, first8);
            _mm512_storeu_si512(keys + i + 8, last8);
            // Each key against the one before it.
            fell |=
                _mm512_cmplt_epu64_mask(first8,
                                        _mm512_maskz_alignr_epi64(0xff, first8, before, 7)) |
                _mm512_cmplt_epu64_mask(last8, _mm512_maskz_alignr_epi64(0xff, last8, first8, 7));
            before = last8;
        }
        if (i > first) previous = keys[i - 1];
        falls = falls || fell != 0;
        for (int k = 0; k < 3; ++k) {
            alignas(64) std::uint32_t lanes[16];
            _mm512_store_si512(lanes, low[k]);
            b.low[k] = std::min<std::uint64_t>(b.low[k], *std::min_element(lanes, lanes + 16));
            _mm512_store_si512(lanes, high[k]);
            b.high[k] = std::max<std::uint64_t>(b.high[k], *std::max_element(lanes, lanes + 16));
        }
        return i;
    }
#else
    std::size_t keyGroupsWidest(std::span<const Vec3f>, std::size_t first, std::size_t,
                                std::uint64_t*, std::uint64_t&, bool&, Bounds&) const {
        return first;
    }
#endif

    // Sorts the indices of the `count` keys (in index order) by key, then index, into `from` (each
    // a cell's place above an index), where the cells' bounding block numbers fewer than 2^24
    // cells: each key becomes the cell's place in the block (which keeps the keys' order, z, then
    // y, then x), sorted by two stable passes of 12 bits through the `count` words after `from`.
    // Far quicker than a comparison sort on a million candidates. `bounds` holds each chunk's least
    // and greatest cell coordinates. Returns false, sorting nothing, for a larger block.
    static bool sortByDenseCells(const std::uint64_t* keys, std::uint64_t* from, std::size_t count,
                                 const std::vector<Bounds>& bounds) {
        constexpr int kBits = 12;
        constexpr std::size_t kBuckets = std::size_t{1} << kBits;
        // Fixed chunks, whatever the threads: each counts and places its own entries in order,
        // so the passes stay stable and the result the same at any thread count.
        if (count == 0) return false;
        const std::size_t chunks = (count + kChunk - 1) / kChunk;
        const auto forChunks = [&](const auto& body) {
            parallelRange(0, chunks, 1, [&](std::size_t begin, std::size_t end) {
                for (std::size_t c = begin; c < end; ++c)
                    body(c, c * kChunk, std::min(count, (c + 1) * kChunk));
            });
        };
        std::uint64_t low[3] = {kRowMask, kRowMask, kRowMask}, high[3] = {0, 0, 0};
        for (const Bounds& b : bounds)
            for (std::size_t a = 0; a < 3; ++a) {
                low[a] = std::min(low[a], b.low[a]);
                high[a] = std::max(high[a], b.high[a]);
            }
        const std::uint64_t sizeX = high[0] - low[0] + 1, sizeY = high[1] - low[1] + 1,
                            sizeZ = high[2] - low[2] + 1;
        if (sizeX * sizeY * sizeZ > (std::uint64_t{1} << (2 * kBits))) return false;
        std::uint64_t* to = from + count;
        forChunks([&](std::size_t, std::size_t first, std::size_t last) {
            for (std::size_t i = first; i < last; ++i) {
                const std::uint64_t key = keys[i];
                const std::uint64_t x = (key & kRowMask) - low[0];
                const std::uint64_t y = ((key >> 21) & kRowMask) - low[1];
                const std::uint64_t z = (key >> 42) - low[2];
                from[i] = (((z * sizeY + y) * sizeX + x) << 32) | i;
            }
        });
        // Per chunk and bucket: first the count, then where the chunk's entries of the bucket go.
        std::vector<std::uint32_t> place(chunks * kBuckets);
        for (int pass = 0; pass < 2; ++pass) {
            const int shift = pass * kBits;
            forChunks([&](std::size_t c, std::size_t first, std::size_t last) {
                std::uint32_t* counts = place.data() + c * kBuckets;
                std::fill_n(counts, kBuckets, 0u);
                for (std::size_t i = first; i < last; ++i)
                    ++counts[(from[i] >> (32 + shift)) & (kBuckets - 1)];
            });
            std::uint32_t running = 0;
            for (std::size_t b = 0; b < kBuckets; ++b)
                for (std::size_t c = 0; c < chunks; ++c) {
                    const std::uint32_t n = place[c * kBuckets + b];
                    place[c * kBuckets + b] = running;
                    running += n;
                }
            forChunks([&](std::size_t c, std::size_t first, std::size_t last) {
                std::uint32_t* at = place.data() + c * kBuckets;
                for (std::size_t i = first; i < last; ++i)
                    to[at[(from[i] >> (32 + shift)) & (kBuckets - 1)]++] = from[i];
            });
            std::swap(from, to);
        }
        // An even number of passes: the sorted entries are back in `from`.
        return true;
    }
    struct Row {
        std::uint64_t row;
        std::uint32_t begin, end;
    };
    // Working arrays of a build, kept for the next: one store per element type, so that the pool,
    // which keeps two arrays of a type, holds them beside the relaxation's own.
    WorkArray<std::uint64_t> words_;
    WorkArray<std::uint32_t> indices_;
    WorkArray<float> axes_;
    std::vector<Bounds> bounds_;
    float inverse_ = 1.0f;
    std::size_t count_ = 0;
    std::uint32_t* sortedIndex_ = nullptr;
    std::uint64_t* sortedKey_ = nullptr;     // the key of each entry's cell
    std::uint32_t* sortedRank_ = nullptr;    // null where ranks are the indices
    std::array<float*, 3> sortedAxis_ = {};  // the positions, axis by axis
    std::vector<std::uint32_t> cellStart_;
    std::vector<std::uint64_t> cellKeys_;
    std::vector<Row> rows_;
    std::uint64_t yLow_ = 0, zLow_ = 0, width_ = 0, height_ = 0;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> denseRows_;
};

}  // namespace velmorin::scatter
