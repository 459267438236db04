// Blue-noise relaxation of scatter candidates and the blend between even and random roots.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <memory>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "ops/guide_mask.h"
#include "ops/scatter_border.h"
#include "ops/scatter_cells.h"
#include "ops/scatter_placement.h"
#include "ops/scatter_surface.h"
#include "strands/array_pool.h"

namespace velmorin {
namespace {

using namespace scatter;

constexpr int kIterations = 24;
constexpr float kRadiusScale = 1.0746f;  // the spacing of a hexagonal packing at unit density
// The neighbour grid's cell in radii: the block of cells round a cell then reaches 3.25 radii past
// it, beyond the 24th nearest (about 2.65 radii apart once spread, a little more at random), and a
// cell holds a dozen candidates that share one gathering. Two-radius cells with two cells of reach
// gather half again as many candidates from 25 rows, for fewer queries each.
constexpr float kNeighborCell = 3.25f;
// How far round each triangle, in radii, the projection lists its neighbours.
constexpr float kProjectionReach = 4.1f;
// Candidates projected before their normals are worked out: as many as closestWhereAlone takes.
constexpr std::size_t kProjectionGroup = 16;

// The push of a candidate's neighbours: for each neighbour j other than i within reach, with
// s = r_i + r_j and d from j to i, the direction of d (or, for a coincident pair, one given by the
// candidate's place in the placement, `rank`, alone) weighed by (1 - |d| / s) squared, summed in
// list order. `radii` is null where every candidate has the radius r0.
//
// Each pair costs one square root and one division: the direction is d times 1 / |d| and the
// weight's |d| / s is |d| times 1 / s, where 1 / s is one number for the whole run when every
// radius is r0 (`plainInverse`, 1 / (r0 + r0)) and a second division only where radii differ.
// Every path (pair by pair, four and eight lanes) does these same correctly rounded operations in
// the same order, so all give the same bits on every x86-64 processor.
Vec3f pairForceOneByOne(std::size_t i, std::size_t rank, const std::uint32_t* list, const Vec3f& pi,
                        float ri, const Vec3f* positions, const float* radii, float r0,
                        float plainInverse, std::size_t count) {
    const float n = static_cast<float>(count);
    Vec3f force;
    for (int k = 0; k < kRelaxNeighbors; ++k) {
        const std::uint32_t j = list[k];
        if (j == i) continue;
        const float rj = radii ? radii[j] : r0;
        if (!(rj > 0.0f)) continue;
        const float s = ri + rj;
        const Vec3f d = pi - positions[j];
        const float d2 = lengthSquared(d);
        // Clearly out of reach without the square root; the margin covers rounding, so the test
        // below decides every pair near the edge.
        if (d2 >= s * s * 1.00002f) continue;
        const float dist = std::sqrt(d2);
        if (!(dist < s)) continue;
        const float inverseReach = radii ? 1.0f / s : plainInverse;
        const float w = 1.0f - dist * inverseReach;
        if (dist <= s * 1e-6f) {
            // Coincident candidates part in a direction given by their indices alone.
            const Vec3f direction = {
                unitFloat(rank) - 0.5f,
                unitFloat(static_cast<std::uint64_t>(n) + kGolden + rank) - 0.5f, 0.0f};
            force += direction * (w * w);
        } else {
            force += d * ((w * w) * (1.0f / dist));
        }
    }
    return force;
}

// The same, four pairs at a time where SSE is at hand: the square root and divisions are the
// same correctly rounded operations, and the sum still runs in list order (a pair out of reach adds
// +0, which changes no sum that starts at +0), so the bits are those of the pair-by-pair loop.
// A coincident pair, which is rare, sends the candidate to that loop.
Vec3f pairForce(std::size_t i, std::size_t rank, const std::uint32_t* list, const Vec3f& pi,
                float ri, const Vec3f* positions, const float* radii, float r0, float plainInverse,
                std::size_t count) {
#if VELMORIN_RELAX_SSE
    alignas(16) float dx[kRelaxNeighbors], dy[kRelaxNeighbors], dz[kRelaxNeighbors];
    alignas(16) float reach[kRelaxNeighbors];
    for (int k = 0; k < kRelaxNeighbors; ++k) {
        const std::uint32_t j = list[k];
        const float rj = radii ? radii[j] : r0;
        const Vec3f d = pi - positions[j];
        dx[k] = d.x;
        dy[k] = d.y;
        dz[k] = d.z;
        // A reach of 0 leaves the pair out: no distance is below it.
        reach[k] = j != i && rj > 0.0f ? ri + rj : 0.0f;
    }
    const __m128 one = _mm_set1_ps(1.0f), tiny = _mm_set1_ps(1e-6f);
    const __m128 plain = _mm_set1_ps(plainInverse);
    for (int k = 0; k < kRelaxNeighbors; k += 4) {
        const __m128 x = _mm_load_ps(dx + k), y = _mm_load_ps(dy + k), z = _mm_load_ps(dz + k);
        const __m128 s = _mm_load_ps(reach + k);
        const __m128 dist = _mm_sqrt_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(x, x), _mm_mul_ps(y, y)), _mm_mul_ps(z, z)));
        const __m128 in = _mm_cmplt_ps(dist, s);
        const int inside = _mm_movemask_ps(in);
        if (inside == 0) {
            // Nearest first: the last pairs of a list mostly lie out of reach.
            _mm_store_ps(dx + k, _mm_setzero_ps());
            _mm_store_ps(dy + k, _mm_setzero_ps());
            _mm_store_ps(dz + k, _mm_setzero_ps());
            continue;
        }
        if (_mm_movemask_ps(_mm_and_ps(in, _mm_cmple_ps(dist, _mm_mul_ps(s, tiny)))) != 0)
            return pairForceOneByOne(i, rank, list, pi, ri, positions, radii, r0, plainInverse,
                                     count);
        const __m128 inverseReach = radii ? _mm_div_ps(one, s) : plain;
        const __m128 w = _mm_sub_ps(one, _mm_mul_ps(dist, inverseReach));
        // Lanes out of reach may hold infinities or NaN before the mask; the mask makes them +0.
        const __m128 scale = _mm_and_ps(in, _mm_mul_ps(_mm_mul_ps(w, w), _mm_div_ps(one, dist)));
        _mm_store_ps(dx + k, _mm_and_ps(in, _mm_mul_ps(x, scale)));
        _mm_store_ps(dy + k, _mm_and_ps(in, _mm_mul_ps(y, scale)));
        _mm_store_ps(dz + k, _mm_and_ps(in, _mm_mul_ps(z, scale)));
    }
    Vec3f force;
    for (int k = 0; k < kRelaxNeighbors; ++k)
        force += Vec3f{dx[k], dy[k], dz[k]};
    return force;
#else
    return pairForceOneByOne(i, rank, list, pi, ri, positions, radii, r0, plainInverse, count);
#endif
}

// The push of eight candidates at once, one per lane, each lane doing the operations of the
// pair-by-pair loop in list order: the sums come out with the same bits. The candidates are
// `first` to `first + lanes - 1`; `positions` must be readable for 4 bytes past its last point,
// since a point is loaded with the float after it. A candidate with a coincident pair is left to
// the pair-by-pair loop: its bit in the returned mask is set and its force is not written.
#if VELMORIN_RELAX_AVX
__attribute__((target("avx"))) unsigned pairForceWide(std::size_t first, std::size_t lanes,
                                                      const std::uint32_t* lists,
                                                      const Vec3f* positions, const float* radii,
                                                      float r0, float plainInverse, Vec3f* forces) {
    std::size_t self[8];
    // Lanes beyond the last candidate repeat it; their result is dropped.
    for (std::size_t c = 0; c < 8; ++c)
        self[c] = first + std::min(c, lanes - 1);
    const Vec3f* p = positions;
    const __m256 px = _mm256_setr_ps(p[self[0]].x, p[self[1]].x, p[self[2]].x, p[self[3]].x,
                                     p[self[4]].x, p[self[5]].x, p[self[6]].x, p[self[7]].x);
    const __m256 py = _mm256_setr_ps(p[self[0]].y, p[self[1]].y, p[self[2]].y, p[self[3]].y,
                                     p[self[4]].y, p[self[5]].y, p[self[6]].y, p[self[7]].y);
    const __m256 pz = _mm256_setr_ps(p[self[0]].z, p[self[1]].z, p[self[2]].z, p[self[3]].z,
                                     p[self[4]].z, p[self[5]].z, p[self[6]].z, p[self[7]].z);
    const __m256 ownRadius =
        radii ? _mm256_setr_ps(radii[self[0]], radii[self[1]], radii[self[2]], radii[self[3]],
                               radii[self[4]], radii[self[5]], radii[self[6]], radii[self[7]])
              : _mm256_set1_ps(r0);
    // Where every radius is r0, every reach is r0 + r0.
    const __m256 plainReach = _mm256_add_ps(ownRadius, _mm256_set1_ps(r0));
    // Lane values are put together in registers: eight stores and one wide load of them would
    // wait for the stores to reach the cache. (Lambdas would not be built for AVX.)
    const auto lane = [](std::size_t value) { return static_cast<std::int32_t>(value); };
    const __m128i selfLow =
        _mm_setr_epi32(lane(self[0]), lane(self[1]), lane(self[2]), lane(self[3]));
    const __m128i selfHigh =
        _mm_setr_epi32(lane(self[4]), lane(self[5]), lane(self[6]), lane(self[7]));
    const __m256 one = _mm256_set1_ps(1.0f), tiny = _mm256_set1_ps(1e-6f);
    const __m256 plain = _mm256_set1_ps(plainInverse);
    const __m256 margin = _mm256_set1_ps(1.00002f);
    const __m256 zero = _mm256_setzero_ps();
    __m256 fx = _mm256_setzero_ps(), fy = _mm256_setzero_ps(), fz = _mm256_setzero_ps();
    unsigned coincident = 0;
    // The eight lists lie side by side from one base, so that each step loads its eight
    // neighbours at fixed offsets from one register. A last group of fewer than eight takes a copy
    // in which its last list repeats.
    const std::uint32_t* group = lists + first * kRelaxNeighbors;
    std::uint32_t shortGroup[8 * kRelaxNeighbors];
    if (lanes < 8) {
        for (std::size_t c = 0; c < 8; ++c)
            std::copy_n(lists + self[c] * kRelaxNeighbors, kRelaxNeighbors,
                        shortGroup + c * kRelaxNeighbors);
        group = shortGroup;
    }
    // The next group's lists are asked for now, as in pairForceWidest.
    const char* nextLists = reinterpret_cast<const char*>(lists + (first + 8) * kRelaxNeighbors);
    for (std::size_t line = 0; line < 8 * kRelaxNeighbors * sizeof(std::uint32_t); line += 64)
        _mm_prefetch(nextLists + line, _MM_HINT_T0);
    bool padded = false;
    for (std::size_t c = 0; c < 8; ++c)
        padded = padded || group[c * kRelaxNeighbors + kRelaxNeighbors - 1] == self[c];
    for (int k = 0; k < kRelaxNeighbors; ++k) {
        std::uint32_t j[8];
        __m128 q[8];
        for (std::size_t c = 0; c < 8; ++c) {
            j[c] = group[c * kRelaxNeighbors + static_cast<std::size_t>(k)];
            q[c] = _mm_loadu_ps(&positions[j[c]].x);
        }
        // A pair with the candidate itself (a list padded with its own index) and, where radii
        // differ, a neighbour of radius 0 get a reach of 0: no distance is below it.
        // Lists are padded with the candidate's own index at their end only: where no list of
        // the eight ends so, no pair is with the candidate itself.
        __m256 same = _mm256_setzero_ps();
        if (padded) {
            const __m128 itself = _mm_castsi128_ps(_mm_cmpeq_epi32(
                _mm_setr_epi32(lane(j[0]), lane(j[1]), lane(j[2]), lane(j[3])), selfLow));
            const __m128 itselfHigh = _mm_castsi128_ps(_mm_cmpeq_epi32(
                _mm_setr_epi32(lane(j[4]), lane(j[5]), lane(j[6]), lane(j[7])), selfHigh));
            same = _mm256_insertf128_ps(_mm256_castps128_ps256(itself), itselfHigh, 1);
        }
        __m256 s;
        if (radii) {
            const __m256 rj = _mm256_setr_ps(radii[j[0]], radii[j[1]], radii[j[2]], radii[j[3]],
                                             radii[j[4]], radii[j[5]], radii[j[6]], radii[j[7]]);
            s = _mm256_andnot_ps(same, _mm256_and_ps(_mm256_cmp_ps(rj, zero, _CMP_GT_OQ),
                                                     _mm256_add_ps(ownRadius, rj)));
        } else {
            s = _mm256_andnot_ps(same, plainReach);
        }
        // Eight points (x, y, z, next) to three rows of x, y and z.
        const __m256 r0r4 = _mm256_insertf128_ps(_mm256_castps128_ps256(q[0]), q[4], 1);
        const __m256 r1r5 = _mm256_insertf128_ps(_mm256_castps128_ps256(q[1]), q[5], 1);
        const __m256 r2r6 = _mm256_insertf128_ps(_mm256_castps128_ps256(q[2]), q[6], 1);
        const __m256 r3r7 = _mm256_insertf128_ps(_mm256_castps128_ps256(q[3]), q[7], 1);
        const __m256 xy01 = _mm256_unpacklo_ps(r0r4, r1r5), xy23 = _mm256_unpacklo_ps(r2r6, r3r7);
        const __m256 zw01 = _mm256_unpackhi_ps(r0r4, r1r5), zw23 = _mm256_unpackhi_ps(r2r6, r3r7);
        const __m256 x = _mm256_sub_ps(px, _mm256_shuffle_ps(xy01, xy23, 0x44));
        const __m256 y = _mm256_sub_ps(py, _mm256_shuffle_ps(xy01, xy23, 0xEE));
        const __m256 z = _mm256_sub_ps(pz, _mm256_shuffle_ps(zw01, zw23, 0x44));
        const __m256 d2 = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(x, x), _mm256_mul_ps(y, y)),
                                        _mm256_mul_ps(z, z));
        // A pair out of reach adds +0, which changes no sum that starts at +0: lists run nearest
        // first, so the last pairs of all eight are mostly out of reach together, which the
        // squared distances tell without the square root (with a margin for the rounding; the
        // exact test below decides the pairs near the edge).
        const __m256 roughly =
            _mm256_cmp_ps(d2, _mm256_mul_ps(_mm256_mul_ps(s, s), margin), _CMP_LT_OQ);
        if (_mm256_movemask_ps(roughly) == 0) continue;
        const __m256 dist = _mm256_sqrt_ps(d2);
        const __m256 in = _mm256_cmp_ps(dist, s, _CMP_LT_OQ);
        coincident |= static_cast<unsigned>(_mm256_movemask_ps(
            _mm256_and_ps(in, _mm256_cmp_ps(dist, _mm256_mul_ps(s, tiny), _CMP_LE_OQ))));
        const __m256 inverseReach = radii ? _mm256_div_ps(one, s) : plain;
        const __m256 w = _mm256_sub_ps(one, _mm256_mul_ps(dist, inverseReach));
        // Lanes out of reach may hold infinities or NaN before the mask; the mask makes them +0.
        const __m256 scale =
            _mm256_and_ps(in, _mm256_mul_ps(_mm256_mul_ps(w, w), _mm256_div_ps(one, dist)));
        fx = _mm256_add_ps(fx, _mm256_and_ps(in, _mm256_mul_ps(x, scale)));
        fy = _mm256_add_ps(fy, _mm256_and_ps(in, _mm256_mul_ps(y, scale)));
        fz = _mm256_add_ps(fz, _mm256_and_ps(in, _mm256_mul_ps(z, scale)));
    }
    alignas(32) float own[3][8];
    _mm256_store_ps(own[0], fx);
    _mm256_store_ps(own[1], fy);
    _mm256_store_ps(own[2], fz);
    for (std::size_t c = 0; c < lanes; ++c)
        forces[c] = {own[0][c], own[1][c], own[2][c]};
    return coincident & ((1u << lanes) - 1);
}

// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
// Gathers with every lane loaded.
VELMORIN_AVX512_LANES inline __m512 gatherFloats(__m512i index, const float* base) {
    return _mm512_mask_i32gather_ps(_mm512_setzero_ps(), 0xffff, index, base, 4);
}
VELMORIN_AVX512_LANES inline __m512i gatherWords(__m512i index, const std::uint32_t* base) {
    return _mm512_mask_i32gather_epi32(_mm512_setzero_si512(), 0xffff, index, base, 4);
}

// pairForceWide sixteen candidates at a time with AVX-512: each lane still does the operations of
// the pair-by-pair loop in list order, so the sums have the same bits. Neighbour positions are
// fetched as in pairForceWide (a load of four floats each, then a transpose), which outruns gather
// instructions; the wider registers halve the arithmetic. The same contract: `lanes` up to 16,
// `positions` readable 4 bytes past its last point, a set bit for a lane left to the pair-by-pair
// loop; but the forces are written axis by axis, `forces[axis][lane]`, for all sixteen lanes.
// `sorted` says that the lists run in order of the squared distances as measured here: so they do
// in the first push after the neighbour search, which measured them from the same points with the
// same operations and sorted them, and then once the sixteen lanes meet pairs out of reach
// together, every pair after lies out of reach too (a reach of r0 + r0 for every pair, or the
// candidate itself, which pads a list at its end only). Not where radii differ.
VELMORIN_AVX512_LANES unsigned pairForceWidest(std::size_t first, std::size_t lanes,
                                               const std::uint32_t* lists, const Vec3f* positions,
                                               const float* radii, float r0, float plainInverse,
                                               bool sorted, float (*forces)[16]) {
    alignas(64) std::int32_t self[16];
    // Lanes beyond the last candidate repeat it; their result is dropped.
    for (std::size_t c = 0; c < 16; ++c)
        self[c] = static_cast<std::int32_t>(first + std::min(c, lanes - 1));
    const __m512i selfLanes = _mm512_load_si512(self);
    const __m512i selfFloats = _mm512_mullo_epi32(selfLanes, _mm512_set1_epi32(3));
    const float* base = &positions[0].x;
    const __m512 px = gatherFloats(selfFloats, base);
    const __m512 py = gatherFloats(selfFloats, base + 1);
    const __m512 pz = gatherFloats(selfFloats, base + 2);
    const __m512 ownRadius = radii ? gatherFloats(selfLanes, radii) : _mm512_set1_ps(r0);
    const __m512 plainReach = _mm512_add_ps(ownRadius, _mm512_set1_ps(r0));
    const __m512 one = _mm512_set1_ps(1.0f), tiny = _mm512_set1_ps(1e-6f);
    const __m512 plain = _mm512_set1_ps(plainInverse);
    const __m512 margin = _mm512_set1_ps(1.00002f);
    const __m512 zero = _mm512_setzero_ps();
    __m512 fx = zero, fy = zero, fz = zero;
    unsigned coincident = 0;
    // The sixteen lists side by side from one base; a last group of fewer takes a copy in which
    // its last list repeats.
    const std::uint32_t* group = lists + first * kRelaxNeighbors;
    std::uint32_t shortGroup[16 * kRelaxNeighbors];
    if (lanes < 16) {
        for (std::size_t c = 0; c < 16; ++c)
            std::copy_n(lists + static_cast<std::size_t>(self[c]) * kRelaxNeighbors,
                        kRelaxNeighbors, shortGroup + c * kRelaxNeighbors);
        group = shortGroup;
    }
    // The lists stream from memory, 1.5 KiB per group: the next group's are asked for now, to
    // arrive while this group's pushes are summed.
    const char* nextLists = reinterpret_cast<const char*>(lists + (first + 16) * kRelaxNeighbors);
    for (std::size_t line = 0; line < 16 * kRelaxNeighbors * sizeof(std::uint32_t); line += 64)
        _mm_prefetch(nextLists + line, _MM_HINT_T0);
    bool padded = false;
    for (std::size_t c = 0; c < 16; ++c)
        padded = padded || group[c * kRelaxNeighbors + kRelaxNeighbors - 1] ==
                               static_cast<std::uint32_t>(self[c]);
    // Where the lanes' neighbour indices are needed as a vector (own-index padding, radii that
    // differ), they are gathered from the lists at a stride of one list.
    const __m512i listStride =
        _mm512_mullo_epi32(_mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15),
                           _mm512_set1_epi32(kRelaxNeighbors));
    for (int k = 0; k < kRelaxNeighbors; ++k) {
        __m128 q[16];
        for (std::size_t c = 0; c < 16; ++c)
            q[c] = _mm_loadu_ps(
                &positions[group[c * kRelaxNeighbors + static_cast<std::size_t>(k)]].x);
        __m512i neighbor = _mm512_setzero_si512();
        if (padded || radii)
            neighbor = gatherWords(_mm512_add_epi32(listStride, _mm512_set1_epi32(k)), group);
        // A pair with the candidate itself and, where radii differ, a neighbour of radius 0 get a
        // reach of 0: no distance is below it.
        const __mmask16 other =
            padded ? _mm512_cmpneq_epi32_mask(neighbor, selfLanes) : static_cast<__mmask16>(0xffff);
        __m512 s;
        if (radii) {
            const __m512 rj = gatherFloats(neighbor, radii);
            s = _mm512_maskz_mov_ps(other & _mm512_cmp_ps_mask(rj, zero, _CMP_GT_OQ),
                                    _mm512_add_ps(ownRadius, rj));
        } else {
            s = _mm512_maskz_mov_ps(other, plainReach);
        }
        // Sixteen points (x, y, z, next) to three rows of x, y and z: register r holds points r,
        // r + 4, r + 8 and r + 12, so that each 128-bit lane transposes four points in order.
        __m512 rows[4];
        for (std::size_t r = 0; r < 4; ++r) {
            const __m256 low = _mm256_insertf128_ps(_mm256_castps128_ps256(q[r]), q[r + 4], 1);
            const __m256 high =
                _mm256_insertf128_ps(_mm256_castps128_ps256(q[r + 8]), q[r + 12], 1);
            rows[r] = _mm512_castpd_ps(_mm512_insertf64x4(
                _mm512_castpd256_pd512(_mm256_castps_pd(low)), _mm256_castps_pd(high), 1));
        }
        const __m512 xy01 = _mm512_unpacklo_ps(rows[0], rows[1]);
        const __m512 xy23 = _mm512_unpacklo_ps(rows[2], rows[3]);
        const __m512 zw01 = _mm512_unpackhi_ps(rows[0], rows[1]);
        const __m512 zw23 = _mm512_unpackhi_ps(rows[2], rows[3]);
        const __m512 x = _mm512_sub_ps(px, _mm512_shuffle_ps(xy01, xy23, 0x44));
        const __m512 y = _mm512_sub_ps(py, _mm512_shuffle_ps(xy01, xy23, 0xEE));
        const __m512 z = _mm512_sub_ps(pz, _mm512_shuffle_ps(zw01, zw23, 0x44));
        const __m512 d2 = _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(x, x), _mm512_mul_ps(y, y)),
                                        _mm512_mul_ps(z, z));
        // As pairForceWide: pairs clearly out of reach add +0, told without the square root.
        const __mmask16 roughly =
            _mm512_cmp_ps_mask(d2, _mm512_mul_ps(_mm512_mul_ps(s, s), margin), _CMP_LT_OQ);
        if (roughly == 0) {
            if (sorted) break;
            continue;
        }
        const __m512 dist = _mm512_sqrt_ps(d2);
        const __mmask16 in = _mm512_cmp_ps_mask(dist, s, _CMP_LT_OQ);
        coincident |= static_cast<unsigned>(
            _mm512_mask_cmp_ps_mask(in, dist, _mm512_mul_ps(s, tiny), _CMP_LE_OQ));
        const __m512 inverseReach = radii ? _mm512_div_ps(one, s) : plain;
        const __m512 w = _mm512_sub_ps(one, _mm512_mul_ps(dist, inverseReach));
        const __m512 scale =
            _mm512_maskz_mov_ps(in, _mm512_mul_ps(_mm512_mul_ps(w, w), _mm512_div_ps(one, dist)));
        fx = _mm512_add_ps(fx, _mm512_maskz_mov_ps(in, _mm512_mul_ps(x, scale)));
        fy = _mm512_add_ps(fy, _mm512_maskz_mov_ps(in, _mm512_mul_ps(y, scale)));
        fz = _mm512_add_ps(fz, _mm512_maskz_mov_ps(in, _mm512_mul_ps(z, scale)));
    }
    // Axis by axis, as the step reads them: a wide load across many narrow stores would wait for
    // them to reach the cache.
    _mm512_store_ps(forces[0], fx);
    _mm512_store_ps(forces[1], fy);
    _mm512_store_ps(forces[2], fz);
    return coincident & ((1u << lanes) - 1);
}
// Lane tables for sixteen points stored x, y, z one after another (48 floats in three registers):
// kSplit[axis][0] picks, from the first two registers, the axis of the points whose float lies
// among the first 32, and kSplit[axis][1] keeps those and takes the rest from the third. kJoin
// does the reverse for each register of stored points: [0] takes x and y, [1] adds z.
using LaneTable = std::array<std::array<std::array<std::int32_t, 16>, 2>, 3>;
constexpr LaneTable kSplit = [] {
    LaneTable table{};
    for (int axis = 0; axis < 3; ++axis)
        for (int k = 0; k < 16; ++k) {
            const int f = 3 * k + axis;
            table[axis][0][k] = f < 32 ? f : 0;
            table[axis][1][k] = f < 32 ? k : 16 + (f - 32);
        }
    return table;
}();
constexpr LaneTable kJoin = [] {
    LaneTable table{};
    for (int block = 0; block < 3; ++block)
        for (int lane = 0; lane < 16; ++lane) {
            const int f = 16 * block + lane, axis = f % 3, k = f / 3;
            table[block][0][lane] = axis == 0 ? k : axis == 1 ? 16 + k : 0;
            table[block][1][lane] = axis == 2 ? 16 + k : lane;
        }
    return table;
}();

// The step of sixteen candidates, `first` on, from their pushes (border push included): the
// operations of the one-by-one step in the same order, lane by lane, so the same bits. `lanes` up
// to 16; the arrays are read and written for those alone.
VELMORIN_AVX512_LANES void stepWidest(std::size_t first, std::size_t lanes,
                                      const float (*pushes)[16], const Vec3f* positions,
                                      const Vec3f* normals, const float* radii, bool last,
                                      Vec3f* next) {
    const std::uint64_t floats = (std::uint64_t{1} << (3 * lanes)) - 1;
    const __mmask16 blocks[3] = {static_cast<__mmask16>(floats),
                                 static_cast<__mmask16>(floats >> 16),
                                 static_cast<__mmask16>(floats >> 32)};
    const auto own = static_cast<__mmask16>((1u << lanes) - 1);
    // The next group's positions and normals are asked for now: the neighbour lists streaming
    // through the caches leave little else of these arrays there.
    for (std::size_t line = 0; line < 3; ++line) {
        _mm_prefetch(reinterpret_cast<const char*>(positions + first + 16) + 64 * line,
                     _MM_HINT_T0);
        _mm_prefetch(reinterpret_cast<const char*>(normals + first + 16) + 64 * line, _MM_HINT_T0);
    }
    __m512 split[3][3];  // [pushes, positions, normals][axis]
    for (std::size_t axis = 0; axis < 3; ++axis)
        split[0][axis] = _mm512_load_ps(pushes[axis]);
    const float* from[3] = {nullptr, &positions[first].x, &normals[first].x};
    for (std::size_t a = 1; a < 3; ++a) {
        const __m512 r0 = _mm512_maskz_loadu_ps(blocks[0], from[a]);
        const __m512 r1 = _mm512_maskz_loadu_ps(blocks[1], from[a] + 16);
        const __m512 r2 = _mm512_maskz_loadu_ps(blocks[2], from[a] + 32);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const __m512 ab =
                _mm512_permutex2var_ps(r0, _mm512_loadu_si512(kSplit[axis][0].data()), r1);
            split[a][axis] =
                _mm512_permutex2var_ps(ab, _mm512_loadu_si512(kSplit[axis][1].data()), r2);
        }
    }
    const __m512 ri = _mm512_maskz_loadu_ps(own, radii + first);
    const __m512 fx = split[0][0], fy = split[0][1], fz = split[0][2];
    const __m512 px = split[1][0], py = split[1][1], pz = split[1][2];
    const __m512 nx = split[2][0], ny = split[2][1], nz = split[2][2];
    // force = (force - normal * dot(force, normal)) * (0.6 r)
    const __m512 along = _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(fx, nx), _mm512_mul_ps(fy, ny)),
                                       _mm512_mul_ps(fz, nz));
    const __m512 scale = _mm512_mul_ps(_mm512_set1_ps(0.6f), ri);
    const __m512 gx = _mm512_mul_ps(_mm512_sub_ps(fx, _mm512_mul_ps(nx, along)), scale);
    const __m512 gy = _mm512_mul_ps(_mm512_sub_ps(fy, _mm512_mul_ps(ny, along)), scale);
    const __m512 gz = _mm512_mul_ps(_mm512_sub_ps(fz, _mm512_mul_ps(nz, along)), scale);
    // moved = p + force * (h / sqrt(|force|^2 + h^2)), h = 0.5 r
    const __m512 h = _mm512_mul_ps(_mm512_set1_ps(0.5f), ri);
    const __m512 g2 = _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(gx, gx), _mm512_mul_ps(gy, gy)),
                                    _mm512_mul_ps(gz, gz));
    const __m512 t = _mm512_div_ps(h, _mm512_sqrt_ps(_mm512_add_ps(g2, _mm512_mul_ps(h, h))));
    __m512 moved[3] = {_mm512_add_ps(px, _mm512_mul_ps(gx, t)),
                       _mm512_add_ps(py, _mm512_mul_ps(gy, t)),
                       _mm512_add_ps(pz, _mm512_mul_ps(gz, t))};
    if (last) {
        // The snap to r / 1024, rounding to nearest as nearbyint does.
        const __m512 snap = _mm512_div_ps(ri, _mm512_set1_ps(1024.0f));
        for (__m512& m : moved)
            m = _mm512_mul_ps(_mm512_roundscale_ps(_mm512_div_ps(m, snap),
                                                   _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC),
                              snap);
    }
    // A candidate of radius 0 stays.
    const __mmask16 moving = _mm512_cmp_ps_mask(ri, _mm512_setzero_ps(), _CMP_GT_OQ);
    const __m512 kept[3] = {_mm512_mask_mov_ps(px, moving, moved[0]),
                            _mm512_mask_mov_ps(py, moving, moved[1]),
                            _mm512_mask_mov_ps(pz, moving, moved[2])};
    float* to = &next[first].x;
    for (std::size_t block = 0; block < 3; ++block) {
        const __m512 xy =
            _mm512_permutex2var_ps(kept[0], _mm512_loadu_si512(kJoin[block][0].data()), kept[1]);
        _mm512_mask_storeu_ps(
            to + 16 * block, blocks[block],
            _mm512_permutex2var_ps(xy, _mm512_loadu_si512(kJoin[block][1].data()), kept[2]));
    }
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#else
unsigned pairForceWide(std::size_t, std::size_t, const std::uint32_t*, const Vec3f*, const float*,
                       float, float, Vec3f*) {
    return 0;
}
unsigned pairForceWidest(std::size_t, std::size_t, const std::uint32_t*, const Vec3f*, const float*,
                         float, float, bool, float (*)[16]) {
    return 0;
}
void stepWidest(std::size_t, std::size_t, const float (*)[16], const Vec3f*, const Vec3f*,
                const float*, bool, Vec3f*) {}
#endif

}  // namespace

void relaxPlacement(const ScalpMesh& scalp, const PlacementSettings& settings,
                    ScatterPlacement& placed, RelaxLanes lanes) {
    const std::size_t count = placed.size();
    if (count < 2 || !(settings.density > 0.0)) {
        placed.evenRoots = placed.randomRoots;
        return;
    }
    const bool mapped = static_cast<bool>(settings.mappedDensity);
    const bool masked = settings.mask && !settings.mask->empty();
    const float r0 = kRadiusScale / static_cast<float>(std::sqrt(settings.density));
    // Where every radius is r0, every pair's reach is r0 + r0: its inverse is made once.
    const float plainInverse = 1.0f / (r0 + r0);

    // One point more than candidates: the eight-lane push loads each point with the float after.
    WorkArray<Vec3f> positions(count + 1), next(count + 1), normals(count);
    positions[count] = next[count] = Vec3f{};
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            next[i] = scalp.pointAt(placed.randomRoots[i]);
    });
    // Candidates are kept in the order of the neighbour grid's cells, so that the neighbour
    // searches, the pushes and the projections find their neighbours and triangles near in memory.
    // A candidate's place in the placement, its rank, still decides what an index decides: the
    // order of equally distant neighbours and the direction that parts a coincident pair. So the
    // storage order changes no result.
    NeighborSearch neighborSearch;
    const std::vector<std::uint32_t> rankOf =
        neighborSearch.gridOrder(next.first(count), kNeighborCell * r0);
    // A candidate moves less than two radii between projections (each step less than half of
    // one), and the search reaches about as far again: lists of the triangles a little beyond four
    // radii round each triangle answer every projection of a candidate of radius r0. They also
    // keep each triangle's corner normals, which give the start normals.
    const TriangleNeighbourhoods nearTriangles(scalp, kProjectionReach * r0, count);
    WorkArray<StrandRoot> roots(count);
    WorkArray<float> radii(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            roots[i] = placed.randomRoots[rankOf[i]];
            // Worked out again from the root, whose triangle's corners stay in cache, rather than
            // gathered from the points in placement order: one scattered read a candidate fewer.
            positions[i] = scalp.pointAt(roots[i]);
            if (!nearTriangles.normalAt(roots[i], normals[i]))
                normals[i] = scalp.normalAt(roots[i]);
            float r = r0;
            if (mapped) {
                const float d = settings.mappedDensity(roots[i], positions[i]);
                r = d > 0.0f ? kRadiusScale / std::sqrt(d) : 0.0f;
            }
            radii[i] = r;
        }
    });
    const float largest = *std::max_element(radii.data(), radii.data() + count);
    if (!(largest > 0.0f)) {
        placed.evenRoots = placed.randomRoots;
        return;
    }

    // Neighbours come from a grid of two-radius cells; border edges from one of cells two radii
    // wide, so a candidate finds every edge within two radii of it.
    const float searchRange = 3.0f * largest + r0;
    const BorderEdges border(scalp, 2.0f * r0);
    // The lists come from the array pool like the other working arrays: 96 bytes a candidate,
    // the largest of them. Aligned to a cache line, so that the search may write whole lists past
    // the cache.
    constexpr std::size_t kLineWords = 64 / sizeof(std::uint32_t);
    WorkArray<std::uint32_t> neighborStore(count * kRelaxNeighbors + kLineWords);
    const std::size_t misalignment =
        reinterpret_cast<std::uintptr_t>(neighborStore.data()) % 64 / sizeof(std::uint32_t);
    const std::span<std::uint32_t> neighbors(
        neighborStore.data() + (misalignment ? kLineWords - misalignment : 0),
        count * kRelaxNeighbors);
    // Left unset too: every refresh writes every candidate's edge.
    const std::unique_ptr<std::uint32_t[]> nearestEdge(new std::uint32_t[count]);

    auto refresh = [&] {
        neighborSearch.find(std::span<const Vec3f>(positions.first(count)), kNeighborCell * r0,
                            searchRange, neighbors, lanes, rankOf);
        border.nearest(positions.first(count), roots.first(count), nearestEdge.get());
    };

    // Whether a location may hold an even root: density above 0 where mapped, inside the mask.
    auto allowed = [&](const StrandRoot& root, const Vec3f& position) {
        if (mapped && !(settings.mappedDensity(root, position) > 0.0f)) return false;
        return !masked || settings.mask->passes(position);
    };

    // Back onto the surface, where the location may hold an even root: whether the candidate
    // took a new root there (its normal is then out of date). `known` is the closest point where
    // the group's search already found it.
    auto project = [&](std::size_t i, const ClosestPoint* known) {
        const float ri = radii[i];
        if (!(ri > 0.0f)) return false;
        // Mostly the triangles round the last one answer, from the last triangle's exact
        // distance. Where they cannot vouch, the tree does: the last location lies on the
        // surface, so the closest point is no farther than it, and searching only that far (with
        // a margin for rounding) prunes its walk.
        ClosestPoint hit;
        if (known) {
            hit = *known;
        } else if (!nearTriangles.closest(positions[i], 4.0f * ri, roots[i].face, hit)) {
            const float lastDistance = length(positions[i] - scalp.pointAt(roots[i]));
            hit = scalp.closestPoint(positions[i],
                                     std::min(4.0f * ri, lastDistance * 1.001f + ri * 1e-4f));
        }
        if (hit.found() && allowed(hit.root, hit.point)) {
            roots[i] = hit.root;
            positions[i] = hit.point;
            return true;
        }
        positions[i] = scalp.pointAt(roots[i]);
        return false;
    };

    const bool wide = lanes != RelaxLanes::four && wideLanesUsable();
    const bool widest = lanes == RelaxLanes::widest && widestLanesUsable();
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        const bool fresh = iteration % 4 == 0;
        if (fresh) refresh();
        const bool last = iteration == kIterations - 1;
        forEach(count, [&](std::size_t begin, std::size_t end) {
            const float* radiiOrNull = mapped ? radii.data() : nullptr;
            Vec3f pushes[8];
            alignas(64) float pushAxes[3][16];
            unsigned alone = 0;  // lanes left to the pair-by-pair loop
            for (std::size_t i = begin; i < end; ++i) {
                if (widest) {
                    // Sixteen at once: the pushes, then one by one what few lanes need (a
                    // coincident pair, a border near), then the step.
                    const std::size_t group = std::min<std::size_t>(16, end - i);
                    alone =
                        pairForceWidest(i, group, neighbors.data(), positions.data(), radiiOrNull,
                                        r0, plainInverse, fresh && !mapped, pushAxes);
                    for (std::size_t c = 0; c < group; ++c) {
                        const std::size_t at = i + c;
                        const float ri = radii[at];
                        const bool edge = nearestEdge[at] != BorderEdges::kNone;
                        if (!(ri > 0.0f) || !(((alone >> c) & 1u) || edge)) continue;
                        Vec3f force = {pushAxes[0][c], pushAxes[1][c], pushAxes[2][c]};
                        if ((alone >> c) & 1u)
                            force = pairForceOneByOne(at, rankOf[at],
                                                      neighbors.data() + at * kRelaxNeighbors,
                                                      positions[at], ri, positions.data(),
                                                      radiiOrNull, r0, plainInverse, count);
                        if (edge) border.addPush(force, positions[at], ri, nearestEdge[at]);
                        pushAxes[0][c] = force.x;
                        pushAxes[1][c] = force.y;
                        pushAxes[2][c] = force.z;
                    }
                    stepWidest(i, group, pushAxes, positions.data(), normals.data(), radii.data(),
                               last, next.data());
                    i += group - 1;
                    continue;
                }
                const std::size_t lane = (i - begin) % 8;
                if (wide && lane == 0)
                    alone = pairForceWide(i, std::min<std::size_t>(8, end - i), neighbors.data(),
                                          positions.data(), radiiOrNull, r0, plainInverse, pushes);
                const float ri = radii[i];
                const Vec3f pi = positions[i];
                if (!(ri > 0.0f)) {
                    next[i] = pi;
                    continue;
                }
                const std::uint32_t* list = neighbors.data() + i * kRelaxNeighbors;
                Vec3f force = !wide ? pairForce(i, rankOf[i], list, pi, ri, positions.data(),
                                                radiiOrNull, r0, plainInverse, count)
                              : (alone >> lane) & 1u
                                  ? pairForceOneByOne(i, rankOf[i], list, pi, ri, positions.data(),
                                                      radiiOrNull, r0, plainInverse, count)
                                  : pushes[lane];
                if (nearestEdge[i] != BorderEdges::kNone)
                    border.addPush(force, pi, ri, nearestEdge[i]);
                const Vec3f normal = normals[i];
                force = (force - normal * dot(force, normal)) * (0.6f * ri);
                const float h = 0.5f * ri;
                Vec3f moved = pi + force * (h / std::sqrt(lengthSquared(force) + h * h));
                if (last) {
                    // A grid of r / 1024 makes the end independent of float noise at tiny scale.
                    const float snap = ri / 1024.0f;
                    moved = {std::nearbyint(moved.x / snap) * snap,
                             std::nearbyint(moved.y / snap) * snap,
                             std::nearbyint(moved.z / snap) * snap};
                }
                next[i] = moved;
            }
        });
        positions.swap(next);

        if (iteration % 4 == 3) {
            // Sixteen candidates at a time: their projections (with sixteen lanes, first those
            // plainly over their last triangle's inside, at once), then the normals of those
            // that moved, whose square roots and divisions then overlap instead of each waiting
            // on its candidate's projection.
            forEach(count, [&](std::size_t begin, std::size_t end) {
                ClosestPoint hits[kProjectionGroup];
                float reach[kProjectionGroup];
                for (std::size_t group = begin; group < end; group += kProjectionGroup) {
                    const std::size_t groupEnd = std::min(end, group + kProjectionGroup);
                    unsigned answered = 0;
                    if (widest) {
                        for (std::size_t i = group; i < groupEnd; ++i)
                            reach[i - group] = 4.0f * radii[i];
                        answered = nearTriangles.closestWhereAlone(positions.data() + group,
                                                                   roots.data() + group, reach,
                                                                   groupEnd - group, hits);
                    }
                    std::uint32_t moved = 0;
                    for (std::size_t i = group; i < groupEnd; ++i) {
                        const bool known = (answered >> (i - group)) & 1u;
                        moved |= static_cast<std::uint32_t>(
                                     project(i, known ? &hits[i - group] : nullptr))
                                 << (i - group);
                    }
                    for (; moved != 0; moved &= moved - 1) {
                        const std::size_t i =
                            group + static_cast<std::size_t>(std::countr_zero(moved));
                        if (!nearTriangles.normalAt(roots[i], normals[i]))
                            normals[i] = scalp.normalAt(roots[i]);
                    }
                }
            });
        }
    }

    // Every candidate's even root is written here, in parallel: no serial copy of the random
    // roots first.
    placed.evenRoots.resize(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const bool keep = allowed(roots[i], scalp.pointAt(roots[i]));
            placed.evenRoots[rankOf[i]] = keep ? roots[i] : placed.randomRoots[rankOf[i]];
        }
    });
}

std::vector<StrandRoot> blendRoots(const ScalpMesh& scalp, std::span<const StrandRoot> even,
                                   std::span<const StrandRoot> random, float randomness) {
    std::vector<StrandRoot> blended(even.size());
    const float t = randomness;
    forEach(even.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vec3f e = scalp.pointAt(even[i]), r = scalp.pointAt(random[i]);
            const Vec3f point = e + (r - e) * t;
            const float reach = length(r - e) * 2.0f * std::max(1.0f, t) + 1e-6f;
            const ClosestPoint hit = scalp.closestPoint(point, reach);
            blended[i] = hit.found() ? hit.root : t >= 0.5f ? random[i] : even[i];
        }
    });
    return blended;
}

}  // namespace velmorin
