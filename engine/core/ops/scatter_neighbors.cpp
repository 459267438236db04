// The 24 nearest neighbours of every scatter candidate, for the relaxation that spreads them.

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/scatter_candidate_grid.h"
#include "ops/scatter_cells.h"
#include "ops/scatter_placement.h"

namespace velmorin {
namespace {

using namespace scatter;

// How far beyond its cell the block search reaches, in cells: it gathers the whole cells within
// that reach, rounded up (one on every side, nine rows of three cells).
constexpr float kBlockReach = 1.0f;

// A neighbour as one number, the squared distance's bits above its index: distances are never
// negative, so comparing the numbers orders by distance and then by index, whatever the order of
// the scan.
inline std::uint64_t neighborKey(float d2, std::uint32_t index) {
    return (static_cast<std::uint64_t>(floatBits(d2)) << 32) | index;
}

// The most keys the wide rankings take at once.
constexpr std::size_t kWideMost = 32;

// The nearest keys, ascending, with room past the list for every key a wide ranking places.
using KeyList = std::uint64_t[kWideMost];

// Keeps the nearest kRelaxNeighbors keys in `best`, ascending, `found` of them so far.
inline void keepNearest(KeyList& best, std::size_t& found, std::uint64_t key) {
    if (found == kRelaxNeighbors && !(key < best[kRelaxNeighbors - 1])) return;
    std::size_t at = found < kRelaxNeighbors ? found++ : kRelaxNeighbors - 1;
    while (at > 0 && key < best[at - 1]) {
        best[at] = best[at - 1];
        --at;
    }
    best[at] = key;
}

// The block search, the fast path of the neighbour search. Candidates come in grid order, so those
// of one cell follow each other: the candidates of the block of cells round the cell, `reach`
// beyond it on every side rounded up to whole cells, are gathered once into plain arrays, and each
// candidate of the cell picks its 24 nearest from them. The answer is the true one whenever the
// 24th lies nearer than the box's nearest face: everything outside the box is farther. Otherwise (a
// sparse spot, a border of the scalp) the caller runs the shell search instead.
class BlockSearch {
  public:
    // `rankOf` and `indexOfRank` turn indices into ranks and back (both null where ranks are the
    // indices).
    // `lanes` is 4, 8 (AVX2) or 16 (AVX-512): the width the distances are measured and ranked at.
    BlockSearch(const CandidateGrid& grid, float reach, float range2, int lanes,
                const std::uint32_t* rankOf, const std::uint32_t* indexOfRank)
        : lanes_(lanes),
          wide_(lanes > 4),
          rankOf_(rankOf),
          indexOfRank_(indexOfRank),
          runs_((2 * static_cast<std::size_t>(std::ceil(reach * grid.inverse())) + 1) *
                (2 * static_cast<std::size_t>(std::ceil(reach * grid.inverse())) + 1)),
          grid_(grid),
          cell_(1.0f / grid.inverse()),
          reach_(reach),
          range2_(range2),
          cells_(static_cast<int>(std::ceil(reach * grid.inverse()))),
          hint_(range2) {}

    // The 24 nearest of the candidate of index `i` at `p`, as keys into `best` (a key's low half
    // is the index); returns the number found, or -1 where the box cannot vouch for them. Keys
    // carry indices, not ranks: the ranking by distance alone needs no rank, and only where it
    // meets equal distances does the insertion below look the ranks up.
    static constexpr float kHintScale = 1.15f;

    // `key` is the key of p's cell, which the grid already knows: the cell's coordinates are
    // worked out again only for a new cell.
    int find(const Vec3f& p, std::uint32_t i, std::uint64_t key, KeyList& best) {
        if (key != key_) gather(cellOf(p, grid_.inverse()), key);
        // The candidate before lies close by with a like spacing: within a little more than its
        // 24th squared distance there are mostly 24, and few more keys to sort, whose insertion
        // costs most of a search. Where there are fewer, the reach widens in steps.
        const float first = std::min(range2_, hint_);
        std::size_t n = lanes_ == 16 ? collectNearWidest(p, i, first)
                        : wide_      ? collectNearWide(p, i, first)
                                     : collectNear(p, i, first);
        // The candidates within a squared distance grow about in proportion to it on a surface:
        // a reach scaled by the count found mostly keeps 24 to 32, the most the wide ranking
        // takes at once. Any reach that keeps 24 keeps the same nearest 24.
        constexpr float kAim = static_cast<float>(kWideMost - 4);
        float within = first;
        if (n < kRelaxNeighbors && first < range2_) {
            const float wider = n > 0 ? std::min(4.0f, kAim / static_cast<float>(n)) : 4.0f;
            within = std::min(range2_, wider * first);
            n = again(i, within);
            if (n < kRelaxNeighbors && within < range2_) n = again(i, within = range2_);
        }
        if (wide_ && n > kWideMost) {
            // Where that finds too few, a reach halfway back mostly still keeps no more than the
            // wide ranking takes: ranking more goes four lanes at a time.
            const float narrowest = within * (kAim / static_cast<float>(n));
            std::size_t narrower = again(i, narrowest);
            if (narrower < kRelaxNeighbors) narrower = again(i, 0.5f * (narrowest + within));
            n = narrower >= kRelaxNeighbors ? narrower : again(i, within);
        }
        // The keys in order, the first 24 kept.
        std::size_t found = std::min<std::size_t>(n, kRelaxNeighbors);
        const bool ranked = lanes_ == 16 ? rankKeysWidest(n, best)
                            : wide_      ? rankKeysWide(n, best)
                                         : rankKeys(n, best);
        if (!ranked) insertKeys(n, best);
        const float limit =
            found == kRelaxNeighbors
                ? std::bit_cast<float>(static_cast<std::uint32_t>(best[found - 1] >> 32))
                : range2_;
        hint_ = found == kRelaxNeighbors ? kHintScale * limit : range2_;
        // The nearest face of the box; a margin covers the rounding of the squared distances.
        const float face = std::min({p.x - low_.x, high_.x - p.x, p.y - low_.y, high_.y - p.y,
                                     p.z - low_.z, high_.z - p.z});
        if (!(face > 0.0f) || !(limit < face * face * 0.9999f)) return -1;
        return static_cast<int>(found);
    }

  private:
    static constexpr std::size_t kRankMost = 40;

    std::size_t again(std::uint32_t i, float within) {
        return lanes_ == 16 ? collectAgainWidest(i, within)
               : wide_      ? collectAgainWide(i, within)
                            : collectAgain(i, within);
    }

    // Sorts the n collected keys into `best` by counting, for each, the keys of smaller squared
    // distance: no branch depends on the data, where an insertion sort mispredicts at nearly every
    // key. Equal distances would share a rank, so those and long lists are left to insertKeys.
    bool rankKeys(std::size_t n, KeyList& best) const {
#if VELMORIN_RELAX_SSE
        if (n > kRankMost) return false;
        alignas(16) float d2[kRankMost + 4];
        for (std::size_t k = 0; k < n; ++k)
            d2[k] = std::bit_cast<float>(static_cast<std::uint32_t>(keys_[k] >> 32));
        const std::size_t padded = (n + 3) / 4 * 4;
        for (std::size_t k = n; k < padded; ++k)
            d2[k] = std::numeric_limits<float>::infinity();
        std::uint64_t ranks = 0;
        for (std::size_t k = 0; k < n; ++k) {
            const __m128 v = _mm_set1_ps(d2[k]);
            __m128i count = _mm_setzero_si128();
            for (std::size_t g = 0; g < padded; g += 4)
                count =
                    _mm_sub_epi32(count, _mm_castps_si128(_mm_cmplt_ps(_mm_load_ps(d2 + g), v)));
            count = _mm_add_epi32(count, _mm_shuffle_epi32(count, 0x4E));
            count = _mm_add_epi32(count, _mm_shuffle_epi32(count, 0xB1));
            const auto rank = static_cast<std::size_t>(_mm_cvtsi128_si32(count));
            ranks |= std::uint64_t{1} << rank;
            if (rank < kRelaxNeighbors) best[rank] = keys_[k];
        }
        // Without ties the ranks are 0 to n - 1; a tie repeats one and leaves one out.
        return ranks == (std::uint64_t{1} << n) - 1;
#else
        (void)n;
        (void)best;
        return false;
#endif
    }

#if VELMORIN_RELAX_AVX
    // rankKeys with AVX2: each key's rank is the count of smaller squared distances, counted for
    // up to 32 keys at once against one distance at a time. Longer lists go to rankKeys.
    __attribute__((target("avx2"))) bool rankKeysWide(std::size_t n, KeyList& best) {
        constexpr std::size_t kMost = kWideMost;  // four groups of eight, each in a register
        if (n > kMost) return rankKeys(n, best);
        // The squared distances are read one by one from the keys into registers: the keys were
        // just stored in overlapping groups, and a wide load across two stores would wait for
        // them to reach the cache. The empty statements keep the compiler from merging the loads.
        const auto bitsOf = [this](std::size_t k) {
            auto bits = static_cast<std::int32_t>(keys_[k] >> 32);
            asm("" : "+r"(bits));
            return bits;
        };
        const auto far =
            static_cast<std::int32_t>(floatBits(std::numeric_limits<float>::infinity()));
        const auto at = [&](std::size_t k) { return k < n ? bitsOf(k) : far; };
        // (Lambdas would not be built for AVX, so the groups are spelt out.)
        const __m256 mine0 = _mm256_castsi256_ps(
            _mm256_setr_epi32(at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7)));
        const __m256 mine1 = _mm256_castsi256_ps(
            _mm256_setr_epi32(at(8), at(9), at(10), at(11), at(12), at(13), at(14), at(15)));
        const __m256 mine2 = _mm256_castsi256_ps(
            _mm256_setr_epi32(at(16), at(17), at(18), at(19), at(20), at(21), at(22), at(23)));
        const __m256 mine3 = _mm256_castsi256_ps(
            _mm256_setr_epi32(at(24), at(25), at(26), at(27), at(28), at(29), at(30), at(31)));
        // The same one by one, for the broadcasts below: each is stored and loaded whole.
        std::int32_t lane[kMost];
        for (std::size_t k = 0; k < n; ++k)
            lane[k] = bitsOf(k);
        // One distance against all 32 lanes at a time: a lane's count of smaller distances is
        // its rank. Four named counts, so that they stay in registers.
        __m256i count0 = _mm256_setzero_si256(), count1 = count0, count2 = count0, count3 = count0;
        for (std::size_t k = 0; k < n; ++k) {
            const __m256 other = _mm256_castsi256_ps(_mm256_set1_epi32(lane[k]));
            count0 = _mm256_sub_epi32(count0,
                                      _mm256_castps_si256(_mm256_cmp_ps(other, mine0, _CMP_LT_OQ)));
            count1 = _mm256_sub_epi32(count1,
                                      _mm256_castps_si256(_mm256_cmp_ps(other, mine1, _CMP_LT_OQ)));
            count2 = _mm256_sub_epi32(count2,
                                      _mm256_castps_si256(_mm256_cmp_ps(other, mine2, _CMP_LT_OQ)));
            count3 = _mm256_sub_epi32(count3,
                                      _mm256_castps_si256(_mm256_cmp_ps(other, mine3, _CMP_LT_OQ)));
        }
        alignas(32) std::int32_t rank[kMost];
        _mm256_store_si256(reinterpret_cast<__m256i*>(rank), count0);
        _mm256_store_si256(reinterpret_cast<__m256i*>(rank + 8), count1);
        _mm256_store_si256(reinterpret_cast<__m256i*>(rank + 16), count2);
        _mm256_store_si256(reinterpret_cast<__m256i*>(rank + 24), count3);
        // Every lane of the used groups is placed, without a branch: lanes past the keys rank n
        // and land beyond them.
        std::uint64_t ranks = 0;
        std::uint64_t sorted[kMost + 1];
        const std::size_t used = (n + 7) / 8 * 8;
        for (std::size_t k = 0; k < used; ++k) {
            const auto r = static_cast<std::size_t>(rank[k]);
            ranks |= static_cast<std::uint64_t>(k < n) << r;
            sorted[r] = keys_[k];
        }
        std::copy_n(sorted, std::min<std::size_t>(n, kRelaxNeighbors), best);
        // Without ties the ranks are 0 to n - 1; a tie repeats one and leaves one out.
        return ranks == (std::uint64_t{1} << n) - 1;
    }

    // collectNear eight lanes at a time with AVX2: the lanes within reach are packed to the front
    // by one permutation from a table, without a branch or a store per lane.
    __attribute__((target("avx2"))) std::size_t collectNearWide(const Vec3f& p, std::uint32_t i,
                                                                float within) {
        const __m256 px = _mm256_set1_ps(p.x), py = _mm256_set1_ps(p.y), pz = _mm256_set1_ps(p.z);
        const __m256 limit = _mm256_set1_ps(within);
        const __m256i self = _mm256_set1_epi32(static_cast<std::int32_t>(i));
        const __m256i shifts = _mm256_setr_epi32(0, 4, 8, 12, 16, 20, 24, 28);
        std::size_t n = 0;
        for (std::size_t b = 0; b < count_; b += 8) {
            const __m256 dx = _mm256_sub_ps(_mm256_loadu_ps(x_.data() + b), px);
            const __m256 dy = _mm256_sub_ps(_mm256_loadu_ps(y_.data() + b), py);
            const __m256 dz = _mm256_sub_ps(_mm256_loadu_ps(z_.data() + b), pz);
            const __m256 d2 = _mm256_add_ps(
                _mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)), _mm256_mul_ps(dz, dz));
            _mm256_storeu_ps(d2_.data() + b, d2);
            n = packKeys(d2, b, self, limit, shifts, n);
        }
        return n;
    }

    // collectAgain eight lanes at a time, as collectNearWide from the kept squared distances.
    __attribute__((target("avx2"))) std::size_t collectAgainWide(std::uint32_t i, float within) {
        const __m256 limit = _mm256_set1_ps(within);
        const __m256i self = _mm256_set1_epi32(static_cast<std::int32_t>(i));
        const __m256i shifts = _mm256_setr_epi32(0, 4, 8, 12, 16, 20, 24, 28);
        std::size_t n = 0;
        for (std::size_t b = 0; b < count_; b += 8)
            n = packKeys(_mm256_loadu_ps(d2_.data() + b), b, self, limit, shifts, n);
        return n;
    }

    // Appends to the keys at n those of the box's entries b to b + 7, of squared distances d2,
    // that lie within `limit` and are not the candidate `self`; returns the new count. The lanes
    // within are packed to the front by one permutation from a table, without a branch or a store
    // per lane.
    __attribute__((target("avx2"))) std::size_t packKeys(__m256 d2, std::size_t b, __m256i self,
                                                         __m256 limit, __m256i shifts,
                                                         std::size_t n) {
        const __m256i index =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(index_.data() + b));
        const __m256 other = _mm256_castsi256_ps(_mm256_cmpeq_epi32(index, self));
        const auto mask = static_cast<unsigned>(
            _mm256_movemask_ps(_mm256_andnot_ps(other, _mm256_cmp_ps(d2, limit, _CMP_LE_OQ))));
        const __m256i order = _mm256_and_si256(
            _mm256_srlv_epi32(_mm256_set1_epi32(static_cast<std::int32_t>(kPackOrder[mask])),
                              shifts),
            _mm256_set1_epi32(7));
        // The keys straight from the packed lanes: rereading packed words through memory would
        // wait on the overlapping stores.
        const __m256i bits = _mm256_permutevar8x32_epi32(_mm256_castps_si256(d2), order);
        const __m256i indices = _mm256_permutevar8x32_epi32(index, order);
        const __m256i low = _mm256_or_si256(
            _mm256_cvtepu32_epi64(_mm256_castsi256_si128(indices)),
            _mm256_slli_epi64(_mm256_cvtepu32_epi64(_mm256_castsi256_si128(bits)), 32));
        const __m256i high = _mm256_or_si256(
            _mm256_cvtepu32_epi64(_mm256_extracti128_si256(indices, 1)),
            _mm256_slli_epi64(_mm256_cvtepu32_epi64(_mm256_extracti128_si256(bits, 1)), 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(keys_.data() + n), low);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(keys_.data() + n + 4), high);
        return n + static_cast<std::size_t>(std::popcount(mask));
    }

    // collectNearWide sixteen lanes at a time with AVX-512, whose compression packs the lanes
    // within reach without a table. The squared distances are the same operations in the same
    // order, so the keys are those of the narrower paths.
    VELMORIN_AVX512_LANES std::size_t collectNearWidest(const Vec3f& p, std::uint32_t i,
                                                        float within) {
        const __m512 px = _mm512_set1_ps(p.x), py = _mm512_set1_ps(p.y), pz = _mm512_set1_ps(p.z);
        const __m512 limit = _mm512_set1_ps(within);
        const __m512i self = _mm512_set1_epi32(static_cast<std::int32_t>(i));
        __m512 first0 = _mm512_setzero_ps(), first1 = first0;
        // The arrays through plain pointers: stores through the members' own would make the
        // compiler load each array's address again for every group.
        const float* __restrict x = x_.data();
        const float* __restrict y = y_.data();
        const float* __restrict z = z_.data();
        const std::uint32_t* __restrict index = index_.data();
        float* __restrict kept = d2_.data();
        std::uint64_t* __restrict keys = keys_.data();
        std::size_t n = 0;
        for (std::size_t b = 0; b < count_; b += 16) {
            const __m512 dx = _mm512_sub_ps(_mm512_loadu_ps(x + b), px);
            const __m512 dy = _mm512_sub_ps(_mm512_loadu_ps(y + b), py);
            const __m512 dz = _mm512_sub_ps(_mm512_loadu_ps(z + b), pz);
            const __m512 d2 = _mm512_add_ps(
                _mm512_add_ps(_mm512_mul_ps(dx, dx), _mm512_mul_ps(dy, dy)), _mm512_mul_ps(dz, dz));
            _mm512_storeu_ps(kept + b, d2);
            n = packKeysWidest(d2, _mm512_loadu_si512(index + b), self, limit, keys, n, first0,
                               first1);
        }
        _mm512_store_ps(firstD2_, first0);
        _mm512_store_ps(firstD2_ + 16, first1);
        return n;
    }

    // collectAgain sixteen lanes at a time, from the kept squared distances.
    VELMORIN_AVX512_LANES std::size_t collectAgainWidest(std::uint32_t i, float within) {
        const __m512 limit = _mm512_set1_ps(within);
        const __m512i self = _mm512_set1_epi32(static_cast<std::int32_t>(i));
        __m512 first0 = _mm512_setzero_ps(), first1 = first0;
        const float* __restrict kept = d2_.data();
        const std::uint32_t* __restrict index = index_.data();
        std::uint64_t* __restrict keys = keys_.data();
        std::size_t n = 0;
        for (std::size_t b = 0; b < count_; b += 16)
            n = packKeysWidest(_mm512_loadu_ps(kept + b), _mm512_loadu_si512(index + b), self,
                               limit, keys, n, first0, first1);
        _mm512_store_ps(firstD2_, first0);
        _mm512_store_ps(firstD2_ + 16, first1);
        return n;
    }

    // packKeys for sixteen lanes, of squared distances `d2` and indices `index`: the lanes within
    // `limit` other than `self` are compressed to the front, and their keys (squared distance above
    // index) written at keys + n as two groups of eight.
    // The squared distances of the first 32 keys are also joined in `first0` and `first1`, in
    // registers, for the ranking: reading them back from the keys would wait on these stores.
    VELMORIN_AVX512_LANES static std::size_t packKeysWidest(__m512 d2, __m512i index, __m512i self,
                                                            __m512 limit, std::uint64_t* keys,
                                                            std::size_t n, __m512& first0,
                                                            __m512& first1) {
        const __mmask16 mask =
            _mm512_mask_cmp_ps_mask(_mm512_cmpneq_epi32_mask(index, self), d2, limit, _CMP_LE_OQ);
        const __m512i bits = _mm512_maskz_compress_epi32(mask, _mm512_castps_si512(d2));
        const __m512i indices = _mm512_maskz_compress_epi32(mask, index);
        // Lane k of `indices` and of `bits` side by side: a key's low word is its index.
        const __m512i low = _mm512_permutex2var_epi32(
            indices, _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23),
            bits);
        const __m512i high = _mm512_permutex2var_epi32(
            indices,
            _mm512_setr_epi32(8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31), bits);
        _mm512_storeu_si512(keys + n, low);
        _mm512_storeu_si512(keys + n + 8, high);
        // Key k lies in lane k of first0, or k - 16 of first1: lanes from key n on take the new
        // keys, those before keep theirs. Lanes past the new keys hold anything.
        const FirstJoin& joins = kFirstJoins[std::min<std::size_t>(n, kWideMost)];
        const __m512i join0 = _mm512_load_si512(joins.low);
        const __m512i join1 = _mm512_load_si512(joins.high);
        first0 = _mm512_permutex2var_ps(first0, join0, _mm512_castsi512_ps(bits));
        first1 = _mm512_permutex2var_ps(first1, join1, _mm512_castsi512_ps(bits));
        return n + static_cast<std::size_t>(std::popcount(static_cast<unsigned>(mask)));
    }

    // Copies the block's runs of grid entries to its arrays, padded with far points to whole
    // groups of sixteen. Runs are short (a dozen or two): they are joined in registers and
    // written as whole aligned groups, the very groups the measuring then loads. Loads across
    // several stores would wait for all of them to reach the cache, and a loop with a remainder
    // per run mispredicts its ends.
    VELMORIN_AVX512_LANES void copyRunsWidest() {
        const __m512i iota =
            _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
        // Lanes [0, pending) of these wait for a whole group.
        __m512 x = _mm512_setzero_ps(), y = x, z = x;
        __m512i index = _mm512_setzero_si512();
        std::size_t pending = 0, out = 0;
        for (const auto& run : blockRuns_) {
            const float* fromX = grid_.axisData(0) + run.first;
            const float* fromY = grid_.axisData(1) + run.first;
            const float* fromZ = grid_.axisData(2) + run.first;
            const std::uint32_t* fromIndex = grid_.indexData() + run.first;
            for (std::size_t k = 0; k < run.second; k += 16) {
                const std::size_t taken = std::min<std::size_t>(16, run.second - k);
                const auto lanes = static_cast<__mmask16>((1u << taken) - 1u);
                const __m512 nx = _mm512_maskz_loadu_ps(lanes, fromX + k);
                const __m512 ny = _mm512_maskz_loadu_ps(lanes, fromY + k);
                const __m512 nz = _mm512_maskz_loadu_ps(lanes, fromZ + k);
                const __m512i ni = _mm512_maskz_loadu_epi32(lanes, fromIndex + k);
                // Lane L: the pending lane L below `pending`, else new lane L - pending.
                const auto after = static_cast<__mmask16>(0xffffu << pending);
                const __m512i join = _mm512_mask_add_epi32(
                    iota, after, iota, _mm512_set1_epi32(static_cast<std::int32_t>(16 - pending)));
                const __m512 jx = _mm512_permutex2var_ps(x, join, nx);
                const __m512 jy = _mm512_permutex2var_ps(y, join, ny);
                const __m512 jz = _mm512_permutex2var_ps(z, join, nz);
                const __m512i ji = _mm512_permutex2var_epi32(index, join, ni);
                if (pending + taken < 16) {
                    x = jx;
                    y = jy;
                    z = jz;
                    index = ji;
                    pending += taken;
                    continue;
                }
                _mm512_storeu_ps(x_.data() + out, jx);
                _mm512_storeu_ps(y_.data() + out, jy);
                _mm512_storeu_ps(z_.data() + out, jz);
                _mm512_storeu_si512(index_.data() + out, ji);
                out += 16;
                // What is left of the new lanes, from lane 16 - pending on (one source twice:
                // the one-source permutation trips a warning in some compilers' headers).
                const __m512i rest = _mm512_add_epi32(
                    iota, _mm512_set1_epi32(static_cast<std::int32_t>(16 - pending)));
                x = _mm512_permutex2var_ps(nx, rest, nx);
                y = _mm512_permutex2var_ps(ny, rest, ny);
                z = _mm512_permutex2var_ps(nz, rest, nz);
                index = _mm512_permutex2var_epi32(ni, rest, ni);
                pending = pending + taken - 16;
            }
        }
        if (pending > 0) {
            const auto kept = static_cast<__mmask16>((1u << pending) - 1u);
            const __m512 far = _mm512_set1_ps(std::numeric_limits<float>::infinity());
            _mm512_storeu_ps(x_.data() + out, _mm512_mask_mov_ps(far, kept, x));
            _mm512_storeu_ps(y_.data() + out, _mm512_mask_mov_ps(far, kept, y));
            _mm512_storeu_ps(z_.data() + out, _mm512_mask_mov_ps(far, kept, z));
            _mm512_storeu_si512(index_.data() + out, _mm512_maskz_mov_epi32(kept, index));
        }
    }

    // rankKeysWide with AVX-512: a key's rank is the count of smaller squared distances, here the
    // bits of one 32-lane mask joined from two comparisons, so each key is ranked and placed on its
    // own. A placement loop over ranks stored first is turned into scatter instructions, which are
    // slow.
    VELMORIN_AVX512_LANES bool rankKeysWidest(std::size_t n, KeyList& best) {
        if (n > kWideMost) return rankKeys(n, best);
        // The squared distances as the collection left them, each group in one store; lanes past
        // the keys are set far.
        const __m512 far = _mm512_set1_ps(std::numeric_limits<float>::infinity());
        const std::uint64_t used = (std::uint64_t{1} << n) - 1;
        const __m512 mine0 =
            _mm512_mask_mov_ps(far, static_cast<__mmask16>(used), _mm512_load_ps(firstD2_));
        const __m512 mine1 = _mm512_mask_mov_ps(far, static_cast<__mmask16>(used >> 16),
                                                _mm512_load_ps(firstD2_ + 16));
        std::size_t rankSum = 0;
        for (std::size_t k = 0; k < n; ++k) {
            const __m512 mine = _mm512_set1_ps(firstD2_[k]);
            const __mmask32 below = _mm512_kunpackw(_mm512_cmp_ps_mask(mine1, mine, _CMP_LT_OQ),
                                                    _mm512_cmp_ps_mask(mine0, mine, _CMP_LT_OQ));
            const auto rank = static_cast<std::size_t>(std::popcount(_cvtmask32_u32(below)));
            rankSum += rank;
            best[rank] = keys_[k];
        }
        // Without ties the ranks are 0 to n - 1; tied keys all take the least of their places, so
        // any tie leaves the sum short.
        return rankSum == n * (n - 1) / 2;
    }

    // The permutations of packKeysWidest that join the squared distances of keys from n on to the
    // first 32 kept in two registers, for n up to 32 (from 32 on they keep all theirs): lane L of
    // the first register takes new key L - n from L = n on, that of the second new key L + 16 - n.
    // A table read costs less than working them out for every group.
    struct alignas(64) FirstJoin {
        std::int32_t low[16], high[16];
    };
    static constexpr std::array<FirstJoin, kWideMost + 1> kFirstJoins = [] {
        std::array<FirstJoin, kWideMost + 1> table{};
        for (std::int32_t n = 0; n <= static_cast<std::int32_t>(kWideMost); ++n)
            for (std::int32_t lane = 0; lane < 16; ++lane) {
                // Indices from 16 pick the new keys; the permutation reads five bits of each.
                table[n].low[lane] = lane < n ? lane : (lane + 16 - n) & 31;
                table[n].high[lane] = lane + 16 < n ? lane : (lane + 32 - n) & 31;
            }
        return table;
    }();

    // For each eight-bit mask, the lanes whose bit is set in order, three bits each in a nibble.
    static constexpr std::array<std::uint32_t, 256> kPackOrder = [] {
        std::array<std::uint32_t, 256> table{};
        for (std::uint32_t mask = 0; mask < 256; ++mask) {
            std::uint32_t packed = 0, at = 0;
            for (std::uint32_t lane = 0; lane < 8; ++lane)
                if ((mask >> lane) & 1u) packed |= lane << (4 * at++);
            table[mask] = packed;
        }
        return table;
    }();
#else
    void copyRunsWidest() {}
    bool rankKeysWidest(std::size_t n, KeyList& best) {
        return rankKeys(n, best);
    }
    std::size_t collectNearWidest(const Vec3f& p, std::uint32_t i, float within) {
        return collectNear(p, i, within);
    }
    std::size_t collectAgainWidest(std::uint32_t i, float within) {
        return collectAgain(i, within);
    }
    bool rankKeysWide(std::size_t n, KeyList& best) {
        return rankKeys(n, best);
    }
    std::size_t collectNearWide(const Vec3f& p, std::uint32_t i, float within) {
        return collectNear(p, i, within);
    }
    std::size_t collectAgainWide(std::uint32_t i, float within) {
        return collectAgain(i, within);
    }
#endif

    // The same by insertion, ties going by rank: while they are ordered, the keys carry ranks.
    void insertKeys(std::size_t n, KeyList& best) const {
        std::size_t found = 0;
        if (!rankOf_) {
            for (std::size_t k = 0; k < n; ++k)
                keepNearest(best, found, keys_[k]);
            return;
        }
        constexpr std::uint64_t kDistance = ~std::uint64_t{0} << 32;
        for (std::size_t k = 0; k < n; ++k)
            keepNearest(best, found,
                        (keys_[k] & kDistance) | rankOf_[static_cast<std::uint32_t>(keys_[k])]);
        for (std::size_t k = 0; k < found; ++k)
            best[k] = (best[k] & kDistance) | indexOfRank_[static_cast<std::uint32_t>(best[k])];
    }

    std::uint64_t keyAt(std::size_t b) const {
        return neighborKey(d2_[b], index_[b]);
    }

    // Keeps the squared distances from p of the whole box and gathers the keys of those within
    // `within`, the candidate itself left out; returns their number. The box's arrays are padded
    // to a multiple of four with points at infinity, which are never within.
    std::size_t collectNear(const Vec3f& p, std::uint32_t i, float within) {
        const std::size_t m = count_;
        std::size_t n = 0;
#if VELMORIN_RELAX_SSE
        const __m128 px = _mm_set1_ps(p.x), py = _mm_set1_ps(p.y), pz = _mm_set1_ps(p.z);
        const __m128 limit = _mm_set1_ps(within);
        for (std::size_t b = 0; b < m; b += 4) {
            const __m128 dx = _mm_sub_ps(_mm_loadu_ps(x_.data() + b), px);
            const __m128 dy = _mm_sub_ps(_mm_loadu_ps(y_.data() + b), py);
            const __m128 dz = _mm_sub_ps(_mm_loadu_ps(z_.data() + b), pz);
            const __m128 d2 =
                _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
            _mm_storeu_ps(d2_.data() + b, d2);
            const auto mask = static_cast<unsigned>(_mm_movemask_ps(_mm_cmple_ps(d2, limit)));
            // Each lane is written and kept or overwritten: about a quarter pass, at random, so a
            // branch per lane or per group would mostly be mispredicted.
            for (std::size_t lane = 0; lane < 4; ++lane) {
                keys_[n] = keyAt(b + lane);
                n += ((mask >> lane) & 1u) & static_cast<unsigned>(index_[b + lane] != i);
            }
        }
#else
        for (std::size_t b = 0; b < m; ++b) {
            const float dx = x_[b] - p.x, dy = y_[b] - p.y, dz = z_[b] - p.z;
            d2_[b] = dx * dx + dy * dy + dz * dz;
            keys_[n] = keyAt(b);
            n += static_cast<std::size_t>(d2_[b] <= within) &
                 static_cast<std::size_t>(index_[b] != i);
        }
#endif
        return n;
    }

    // The same from the kept squared distances, with a larger `within`.
    std::size_t collectAgain(std::uint32_t i, float within) {
        std::size_t n = 0;
        for (std::size_t b = 0; b < count_; ++b) {
            keys_[n] = keyAt(b);
            n += static_cast<std::size_t>(d2_[b] <= within) &
                 static_cast<std::size_t>(index_[b] != i);
        }
        return n;
    }

    // The candidates of the cells within `cells_` of cell c, whole cells copied run by run.
    void gather(const CellCoord& c, std::uint64_t key) {
        key_ = key;
        // The box is the block of cells, less a margin for the rounding of the cell coordinates
        // (a candidate of a cell outside may lie a hair inside the block's faces): every
        // candidate outside the block lies outside the box.
        const float slack =
            1e-3f + (static_cast<float>(std::max({std::abs(c.x), std::abs(c.y), std::abs(c.z)})) +
                     static_cast<float>(cells_) + 2.0f) *
                        4e-7f;
        const float lowEdge = static_cast<float>(-cells_) + slack;
        const float highEdge = static_cast<float>(cells_ + 1) - slack;
        low_ = {(static_cast<float>(c.x) + lowEdge) * cell_,
                (static_cast<float>(c.y) + lowEdge) * cell_,
                (static_cast<float>(c.z) + lowEdge) * cell_};
        high_ = {(static_cast<float>(c.x) + highEdge) * cell_,
                 (static_cast<float>(c.y) + highEdge) * cell_,
                 (static_cast<float>(c.z) + highEdge) * cell_};
        // Cells come in key order, x fastest: the next cell is mostly further along the same row
        // of cells, and each row's run of cells in the block then only moves on from where it
        // was, without a search.
        const bool sameRows = rowsValid_ && c.y == rowsY_ && c.z == rowsZ_ && c.x > rowsX_;
        rowsValid_ = true;
        rowsX_ = c.x;
        rowsY_ = c.y;
        rowsZ_ = c.z;
        std::size_t m = 0;
        std::size_t r = 0;
        blockRuns_.clear();
        for (int dz = -cells_; dz <= cells_; ++dz)
            for (int dy = -cells_; dy <= cells_; ++dy, ++r) {
                const std::int64_t y = c.y + dy, z = c.z + dz;
                RowRun& run = runs_[r];
                if (!sameRows) {
                    const auto [begin, end] = grid_.row(y, z);
                    run.end = end;
                    run.left = begin == end
                                   ? end
                                   : grid_.lowerBound(begin, end, cellKey(c.x - cells_, y, z));
                    run.right = begin == end ? end
                                             : grid_.lowerBound(run.left, end,
                                                                cellKey(c.x + cells_ + 1, y, z));
                } else {
                    const std::uint64_t leftKey = cellKey(c.x - cells_, y, z);
                    const std::uint64_t rightKey = cellKey(c.x + cells_ + 1, y, z);
                    while (run.left < run.end && grid_.cellKeyAt(run.left) < leftKey)
                        ++run.left;
                    run.right = std::max(run.right, run.left);
                    while (run.right < run.end && grid_.cellKeyAt(run.right) < rightKey)
                        ++run.right;
                }
                if (run.left == run.right) continue;
                const std::uint32_t first = grid_.entriesBegin(run.left);
                const std::uint32_t last = grid_.entriesBegin(run.right);
                const std::size_t length = last - first;
                if (m + length + 32 > x_.size()) grow(m + length + 32);
                if (lanes_ == 16) {
                    blockRuns_.push_back({first, static_cast<std::uint32_t>(length)});
                    m += length;
                    continue;
                }
                // One loop for the four arrays: runs are short, and a library copy per array
                // would cost more than the copying.
                const float* __restrict fromX = grid_.axisData(0) + first;
                const float* __restrict fromY = grid_.axisData(1) + first;
                const float* __restrict fromZ = grid_.axisData(2) + first;
                const std::uint32_t* __restrict fromIndex = grid_.indexData() + first;
                float* __restrict toX = x_.data() + m;
                float* __restrict toY = y_.data() + m;
                float* __restrict toZ = z_.data() + m;
                std::uint32_t* __restrict toIndex = index_.data() + m;
                for (std::size_t k = 0; k < length; ++k) {
                    toX[k] = fromX[k];
                    toY[k] = fromY[k];
                    toZ[k] = fromZ[k];
                    toIndex[k] = fromIndex[k];
                }
                m += length;
            }
        // Room for the padding and for the sixteen keys the widest packing writes past the last.
        if (m + 32 > x_.size()) grow(m + 32);
        // The lanes are a power of two: a mask, not a division by a number known only at run time.
        const float far = std::numeric_limits<float>::infinity();
        const std::size_t spare = static_cast<std::size_t>(lanes_) - 1;
        count_ = (m + spare) & ~spare;
        if (lanes_ == 16) {
            copyRunsWidest();  // padding included
            return;
        }
        for (std::size_t b = m; b < count_; ++b) {
            x_[b] = y_[b] = z_[b] = far;
            index_[b] = 0;
        }
    }

    void grow(std::size_t size) {
        size = std::max(size, 2 * x_.size());
        x_.resize(size);
        y_.resize(size);
        z_.resize(size);
        index_.resize(size);
        d2_.resize(size);
        keys_.resize(size);
    }

    // A row of cells of the block: its cells end at `end`, and [left, right) lie in the block.
    struct RowRun {
        std::uint32_t end = 0, left = 0, right = 0;
    };
    int lanes_;
    bool wide_;
    const std::uint32_t* rankOf_;
    const std::uint32_t* indexOfRank_;
    std::vector<RowRun> runs_;
    // The block's runs of grid entries (first, length) in gathering order, for the widest lanes.
    std::vector<std::pair<std::uint32_t, std::uint32_t>> blockRuns_;
    bool rowsValid_ = false;
    std::int64_t rowsX_ = 0, rowsY_ = 0, rowsZ_ = 0;
    const CandidateGrid& grid_;
    float cell_, reach_, range2_;
    int cells_;
    float hint_;
    std::uint64_t key_ = ~std::uint64_t{0};
    Vec3f low_, high_;
    std::vector<float> x_, y_, z_, d2_;
    std::vector<std::uint32_t> index_;
    std::vector<std::uint64_t> keys_;
    std::size_t count_ = 0;  // the box's candidates and padding
    // The squared distances of the first 32 keys the widest collection found.
    alignas(64) float firstD2_[32] = {};
};

#if VELMORIN_RELAX_AVX
// Writes a full list of 24 neighbours (the keys' low words) to `list`, 32-byte aligned, with
// stores that bypass the cache: a refresh writes 96 MB of lists that only the next pushes read, so
// reading each line in before overwriting it would double the traffic. The caller fences.
VELMORIN_AVX512_LANES void streamList(std::uint32_t* list, const KeyList& best) {
    auto* to = reinterpret_cast<__m256i*>(list);
    _mm256_stream_si256(to, _mm512_maskz_cvtepi64_epi32(0xff, _mm512_loadu_si512(best)));
    _mm256_stream_si256(to + 1, _mm512_maskz_cvtepi64_epi32(0xff, _mm512_loadu_si512(best + 8)));
    _mm256_stream_si256(to + 2, _mm512_maskz_cvtepi64_epi32(0xff, _mm512_loadu_si512(best + 16)));
}
#endif

// The lanes the block search runs on for a choice of lanes and this processor.
int blockLanes(RelaxLanes lanes) {
    if (lanes == RelaxLanes::widest && widestLanesUsable()) return 16;
    if (lanes != RelaxLanes::four && wideIntegerLanesUsable()) return 8;
    return 4;
}

// The nearest-neighbour search over a grid: cells are taken in shells of growing distance from the
// candidate's cell, and the search ends once the next shell cannot hold anything nearer than the
// current 24th, or lies out of range. Within a shell, rows too far off in y and z are passed over.
// `rankOf` gives each position's rank and `indexOfRank` turns a rank back into its position's index
// (both null where ranks are the indices).
void nearestInGrid(const CandidateGrid& grid, float range, std::span<std::uint32_t> lists,
                   const std::uint32_t* rankOf, const std::uint32_t* indexOfRank, int lanes) {
    const std::size_t count = grid.size();
    const float inverse = grid.inverse();
    const float cell = 1.0f / inverse;
    const float range2 = range * range;
    const int maxShell = static_cast<int>(std::ceil(range * inverse)) + 1;
    // A row of cells near the candidate: its y and z, its least squared distance, its cells, and
    // the part of them scanned so far.
    struct RowScan {
        std::int64_t y, z;
        float bound;
        std::uint32_t begin, end, left, right;
    };
    // Full lists go straight to memory where the lists are aligned for it (the relaxation's are)
    // and the widest lanes are at hand (never where they are not built).
    [[maybe_unused]] const bool stream = VELMORIN_RELAX_AVX && lanes == 16 &&
                                         reinterpret_cast<std::uintptr_t>(lists.data()) % 32 == 0;
    parallelRange(0, count, kGrain, [&](std::size_t entryBegin, std::size_t entryEnd) {
        std::vector<RowScan> rows;
        // Two lists of keys in turn: a full list is streamed out only after the next search, when
        // the single stores that placed its keys have reached the cache, where the wide loads of
        // the streaming would wait on them.
        KeyList bests[2];
        int current = 0;
        [[maybe_unused]] std::uint32_t* waiting = nullptr;  // where the other list is to go
        int start = 0;
        float hint = range2;
        BlockSearch block(grid, kBlockReach * cell, range2, lanes, rankOf, indexOfRank);
        for (std::size_t at = entryBegin; at < entryEnd; ++at) {
            const auto self = static_cast<std::uint32_t>(at);
            const Vec3f p = grid.positionAt(self);
            const std::uint32_t i = grid.indexAt(self);
            std::uint32_t* list = lists.data() + static_cast<std::size_t>(i) * kRelaxNeighbors;
            KeyList& best = bests[current];
            // The nearest `near` keys to the list, each as its position's index.
            const auto write = [&](std::size_t near) {
                if (indexOfRank) {
                    for (std::size_t k = 0; k < kRelaxNeighbors; ++k)
                        list[k] = k < near ? indexOfRank[static_cast<std::uint32_t>(best[k])] : i;
                } else {
                    for (std::size_t k = 0; k < kRelaxNeighbors; ++k)
                        list[k] = k < near ? static_cast<std::uint32_t>(best[k]) : i;
                }
            };
            if (const int near = block.find(p, i, grid.keyOfEntry(self), best); near >= 0) {
#if VELMORIN_RELAX_AVX
                if (stream && near == kRelaxNeighbors) {
                    if (waiting) streamList(waiting, bests[1 - current]);
                    waiting = list;
                    current = 1 - current;
                    continue;
                }
#endif
                for (int k = 0; k < kRelaxNeighbors; ++k)
                    list[k] = k < near ? static_cast<std::uint32_t>(best[k]) : i;
                continue;
            }
            const float tx = p.x * inverse, ty = p.y * inverse, tz = p.z * inverse;
            const CellCoord c = cellOf(p, inverse);
            const float fx = tx - static_cast<float>(c.x), fy = ty - static_cast<float>(c.y),
                        fz = tz - static_cast<float>(c.z);
            // Cells are assigned by rounded products, so bounds keep a margin of a little more
            // than that rounding at these coordinates.
            const float slack = 1e-3f + (std::max({std::abs(tx), std::abs(ty), std::abs(tz)}) +
                                         static_cast<float>(maxShell) + 2.0f) *
                                            4e-7f;
            // The least distance, along one axis, to cells `offset` away from the candidate's.
            const auto axisBound = [&](int offset, float fraction) {
                if (offset == 0) return 0.0f;
                const float cells = static_cast<float>(std::abs(offset) - 1) +
                                    (offset > 0 ? 1.0f - fraction : fraction);
                const float d = std::max(0.0f, cells - slack) * cell;
                return d * d;
            };
            std::size_t found = 0;
            float limit = range2;
            // Only what lies within `within` joins the list while it is short of 24.
            float within = range2;
            // Beyond the limit, with a margin for the rounding of squared distances.
            const auto beyond = [&](float bound2) { return bound2 > limit * 1.0001f; };
            const auto scanCells = [&](std::uint32_t first, std::uint32_t last) {
                const std::uint32_t end = grid.entriesBegin(last);
                for (std::uint32_t e = grid.entriesBegin(first); e < end; ++e) {
                    if (e == self) continue;
                    const float d2 = lengthSquared(grid.positionAt(e) - p);
                    if (!(d2 <= within)) continue;
                    keepNearest(best, found, neighborKey(d2, grid.rankAt(e)));
                    if (found == kRelaxNeighbors)
                        limit = std::bit_cast<float>(
                            static_cast<std::uint32_t>(best[kRelaxNeighbors - 1] >> 32));
                }
            };
            const float nearestFace = std::min({fx, 1.0f - fx, fy, 1.0f - fy, fz, 1.0f - fz});
            // The first step takes the whole block of cells to the shell where the search ended
            // for the candidate before, which lies close by in the scan and mostly has a like
            // spacing. That saves the shell-by-shell steps of most searches and changes nothing
            // in the lists: every cell scanned beyond need is only more of the same test.
            const int first = std::min(start, maxShell);
            int shell = first;
            const auto search = [&](float reach) {
                rows.clear();
                found = 0;
                limit = within = reach;
                shell = first;
                for (; shell <= maxShell; ++shell) {
                    if (shell > first) {
                        const float cells = static_cast<float>(shell - 1) + nearestFace - slack;
                        const float d = std::max(0.0f, cells) * cell;
                        if (beyond(d * d)) break;
                    }
                    // The rows met in earlier shells gain their cells at -shell and +shell along x.
                    // The limit only shrinks, so a row once out of reach stays out.
                    for (RowScan& row : rows) {
                        if (beyond(row.bound)) continue;
                        if (row.left > row.begin &&
                            grid.cellKeyAt(row.left - 1) == cellKey(c.x - shell, row.y, row.z)) {
                            --row.left;
                            scanCells(row.left, row.left + 1);
                        }
                        if (row.right < row.end &&
                            grid.cellKeyAt(row.right) == cellKey(c.x + shell, row.y, row.z)) {
                            scanCells(row.right, row.right + 1);
                            ++row.right;
                        }
                    }
                    // The rows on the shell's rim in y and z: their cells from -shell to +shell.
                    const std::size_t older = rows.size();
                    for (int dz = -shell; dz <= shell; ++dz) {
                        const float zBound = axisBound(dz, fz);
                        if (beyond(zBound)) continue;
                        const bool rim = std::abs(dz) == shell || shell == first;
                        for (int dy = -shell; dy <= shell;
                             dy += rim || dy == shell ? 1 : 2 * shell) {
                            const float bound = zBound + axisBound(dy, fy);
                            if (beyond(bound)) continue;
                            const std::int64_t y = c.y + dy, z = c.z + dz;
                            const auto [begin, end] = grid.row(y, z);
                            if (begin == end) continue;
                            const std::uint32_t left =
                                grid.lowerBound(begin, end, cellKey(c.x - shell, y, z));
                            const std::uint32_t right =
                                grid.lowerBound(left, end, cellKey(c.x + shell + 1, y, z));
                            rows.push_back({y, z, bound, begin, end, left, right});
                        }
                    }
                    for (std::size_t r = older; r < rows.size(); ++r)
                        if (rows[r].left < rows[r].right) scanCells(rows[r].left, rows[r].right);
                }
            };
            // The candidate before lies close by and mostly has a like spacing: within twice its
            // 24th squared distance there are mostly 24 to find, and the search looks at far
            // fewer cells. Where there are not, it looks again over the whole range.
            search(std::min(range2, hint));
            if (found < kRelaxNeighbors && hint < range2) search(range2);
            hint = found == kRelaxNeighbors ? 2.0f * limit : range2;
            start = std::max(0, shell - 2);
            write(found);
        }
#if VELMORIN_RELAX_AVX
        // The streamed lists reach memory before the pushes read them.
        if (waiting) streamList(waiting, bests[1 - current]);
        if (stream) _mm_sfence();
#endif
    });
}
}  // namespace

struct scatter::NeighborSearch::State {
    CandidateGrid grid;
    std::vector<std::uint32_t> indexOfRank;
};

scatter::NeighborSearch::NeighborSearch() : state_(std::make_unique<State>()) {}
scatter::NeighborSearch::~NeighborSearch() = default;

void scatter::NeighborSearch::find(std::span<const Vec3f> positions, float cell, float range,
                                   std::span<std::uint32_t> lists, RelaxLanes lanes,
                                   std::span<const std::uint32_t> ranks) {
    if (positions.empty()) return;
    std::vector<std::uint32_t>& indexOfRank = state_->indexOfRank;
    indexOfRank.resize(ranks.empty() ? 0 : positions.size());
    if (!ranks.empty()) {
        forEach(positions.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i)
                indexOfRank[ranks[i]] = static_cast<std::uint32_t>(i);
        });
    }
    state_->grid.build(cell, positions, ranks, lanes);
    nearestInGrid(state_->grid, range, lists, ranks.empty() ? nullptr : ranks.data(),
                  ranks.empty() ? nullptr : indexOfRank.data(), blockLanes(lanes));
}

void nearestNeighbors(std::span<const Vec3f> positions, float cell, float range,
                      std::span<std::uint32_t> lists, RelaxLanes lanes,
                      std::span<const std::uint32_t> ranks) {
    scatter::NeighborSearch().find(positions, cell, range, lists, lanes, ranks);
}

std::vector<std::uint32_t> scatter::NeighborSearch::gridOrder(std::span<const Vec3f> positions,
                                                              float cell, RelaxLanes lanes) {
    state_->grid.build(cell, positions, {}, lanes);
    const std::span<const std::uint32_t> order = state_->grid.order();
    return {order.begin(), order.end()};
}

}  // namespace velmorin
