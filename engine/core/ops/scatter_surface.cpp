#include "ops/scatter_surface.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "mesh/closest_point_tree.h"
#include "ops/scatter_cells.h"

namespace velmorin::scatter {
namespace {

// At most this many neighbours a triangle on average, padding included; past it the tree is
// quicker.
constexpr std::size_t kMostPerTriangle = 48;
// At most this many bytes of lists a candidate: a fine mesh under a thin scatter costs more memory
// in lists than the tree saves in time. (A million candidates on the 8k triangles of a head take
// about 11.)
constexpr std::size_t kMostBytesPerCandidate = 64;

float boxDistanceSquared(const Vec3f& aLo, const Vec3f& aHi, const Vec3f& bLo, const Vec3f& bHi) {
    float sum = 0.0f;
    for (int a = 0; a < 3; ++a) {
        const float gap = std::max({0.0f, bLo[a] - aHi[a], aLo[a] - bHi[a]});
        sum += gap * gap;
    }
    return sum;
}

// Whether no point of a triangle lies inside all three of another's edge planes by `limit` or
// more, given its corners' signed distances to those planes (`outside[corner][edge]`, positive
// beyond). The triangle is cut plane by plane down to its part inside: nothing left, none there.
// Cut points rounded to either side of a plane are kept, so a triangle that only touches the
// inside counts as reaching it.
bool missesPrism(const std::array<std::array<float, 3>, 3>& outside, float limit) {
    using Point = std::array<float, 3>;
    for (const Point& corner : outside)
        for (const float d : corner)
            if (!std::isfinite(d)) return false;
    // Each cut adds a corner at most: six of the triangle's cut by three planes.
    std::array<Point, 6> polygon{outside[0], outside[1], outside[2]}, cut{};
    std::size_t size = 3;
    for (std::size_t e = 0; e < 3 && size > 0; ++e) {
        std::size_t kept = 0;
        for (std::size_t k = 0; k < size; ++k) {
            const Point& a = polygon[k];
            const Point& b = polygon[(k + 1) % size];
            const bool aInside = a[e] <= -limit, bInside = b[e] <= -limit;
            if (aInside) cut[kept++] = a;
            if (aInside != bInside) {
                const float t = (-limit - a[e]) / (b[e] - a[e]);
                cut[kept++] = {a[0] + (b[0] - a[0]) * t, a[1] + (b[1] - a[1]) * t,
                               a[2] + (b[2] - a[2]) * t};
            }
        }
        polygon = cut;
        size = kept;
    }
    return size == 0;
}

}  // namespace

TriangleNeighbourhoods::TriangleNeighbourhoods(const ScalpMesh& scalp, float reach,
                                               std::size_t candidates)
    : reach_(reach) {
    const auto& points = scalp.points();
    const auto& triangles = scalp.triangles();
    const std::size_t count = triangles.size();
    // Every triangle has a block at least.
    if (count == 0 || !(reach > 0.0f) || !std::isfinite(reach) ||
        candidates * kMostBytesPerCandidate < count * sizeof(Block))
        return;
    const auto [low, high] = scalp.bounds();
    const float extent = std::max({std::abs(low.x), std::abs(low.y), std::abs(low.z),
                                   std::abs(high.x), std::abs(high.y), std::abs(high.z)});
    // The bounds round at the scale of the coordinates: a few units in the last place of the
    // largest, here with a wide margin.
    tolerance_ = 64.0f * std::numeric_limits<float>::epsilon() * (extent + reach);

    corners_.resize(count);
    normals_.resize(count);
    const auto vertexNormals = scalp.vertexNormals();
    std::vector<Vec3f> lo(count), hi(count);
    // Per triangle the plane and edge rows of a block lane.
    std::vector<std::array<float, 16>> bounds(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const std::array<Vec3f, 3> c = {points[triangles[t][0]], points[triangles[t][1]],
                                            points[triangles[t][2]]};
            corners_[t] = c;
            normals_[t] = {vertexNormals[triangles[t][0]], vertexNormals[triangles[t][1]],
                           vertexNormals[triangles[t][2]]};
            lo[t] = minPerAxis(minPerAxis(c[0], c[1]), c[2]);
            hi[t] = maxPerAxis(maxPerAxis(c[0], c[1]), c[2]);
            std::array<float, 16>& b = bounds[t];
            b.fill(0.0f);
            // A triangle without area (or not finite) keeps bounds of zero: never passed over.
            const Vec3f n = normalized(cross(c[1] - c[0], c[2] - c[0]));
            if (!(lengthSquared(n) > 0.5f) || !std::isfinite(dot(n, c[0]))) continue;
            b[0] = n.x;
            b[1] = n.y;
            b[2] = n.z;
            b[3] = dot(n, c[0]);
            for (int e = 0; e < 3; ++e) {
                const Vec3f& from = c[e];
                const Vec3f& to = c[(e + 1) % 3];
                Vec3f out = normalized(cross(to - from, n));
                if (dot(out, c[(e + 2) % 3] - from) > 0.0f) out = -out;
                b[4 + 4 * e] = out.x;
                b[5 + 4 * e] = out.y;
                b[6 + 4 * e] = out.z;
                b[7 + 4 * e] = dot(out, from);
            }
        }
    });

    // Each triangle's neighbours, ascending. A box within `reach` of the triangle's box lies
    // within reach plus its half diagonal of the box's centre, which the tree answers.
    std::vector<std::vector<std::uint32_t>> near(count);
    const float within = reach + tolerance_;
    forEach(count, [&](std::size_t begin, std::size_t end) {
        std::vector<std::uint32_t> found;
        for (std::size_t t = begin; t < end; ++t) {
            found.clear();
            const Vec3f centre = (lo[t] + hi[t]) * 0.5f;
            scalp.trianglesNear(centre, length(hi[t] - lo[t]) * 0.5f + within * 1.001f, found);
            std::vector<std::uint32_t>& list = near[t];
            for (const std::uint32_t other : found)
                if (other != t && boxDistanceSquared(lo[t], hi[t], lo[other], hi[other]) <=
                                      within * within * 1.001f)
                    list.push_back(other);
            std::sort(list.begin(), list.end());
        }
    });
    std::vector<std::uint32_t> first(count + 1, 0);
    for (std::size_t t = 0; t < count; ++t)
        first[t + 1] =
            first[t] + static_cast<std::uint32_t>((near[t].size() + kLanes - 1) / kLanes);
    if (first[count] * kLanes > kMostPerTriangle * count ||
        first[count] * sizeof(Block) > kMostBytesPerCandidate * candidates)
        return;

    blocks_.resize(first[count]);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const std::vector<std::uint32_t>& list = near[t];
            for (std::uint32_t b = first[t]; b < first[t + 1]; ++b) {
                Block& block = blocks_[b];
                for (std::size_t lane = 0; lane < kLanes; ++lane) {
                    const std::size_t k = (b - first[t]) * kLanes + lane;
                    if (k >= list.size()) {
                        // A plane at infinity: the bound is never within reach.
                        for (int row = 0; row < 4; ++row)
                            block.plane[row][lane] = 0.0f;
                        block.plane[3][lane] = -std::numeric_limits<float>::infinity();
                        for (int e = 0; e < 3; ++e)
                            for (int row = 0; row < 4; ++row)
                                block.edge[e][row][lane] = 0.0f;
                        block.triangle[lane] = static_cast<std::uint32_t>(t);
                        continue;
                    }
                    const std::array<float, 16>& from = bounds[list[k]];
                    for (int row = 0; row < 4; ++row)
                        block.plane[row][lane] = from[row];
                    for (int e = 0; e < 3; ++e)
                        for (int row = 0; row < 4; ++row)
                            block.edge[e][row][lane] = from[4 + 4 * e + row];
                    block.triangle[lane] = list[k];
                }
            }
        }
    });
    firstBlock_ = std::move(first);

    // A triangle's own edge rows where no listed neighbour reaches inside all three of its edge
    // planes (the planes through its edges along its normal), zeros elsewhere: each point of a
    // neighbour lies beyond one of them, a neighbour across an edge mostly beyond that edge's
    // plane, one round a corner partly beyond each of the corner's two. A point inside all three
    // edge planes by m is then at least m from every neighbour: where that is clearly more than
    // its distance to the triangle, the triangle is the answer.
    separatedEdges_.assign(count, {});
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const std::array<float, 16>& own = bounds[t];
            if (own[0] == 0.0f && own[1] == 0.0f && own[2] == 0.0f) continue;  // no plane
            const auto outside = [&](int e, const Vec3f& x) {
                return own[4 + 4 * e] * x.x + own[5 + 4 * e] * x.y + own[6 + 4 * e] * x.z -
                       own[7 + 4 * e];
            };
            bool separated = true;
            for (const std::uint32_t other : near[t]) {
                const std::array<Vec3f, 3>& c = corners_[other];
                std::array<std::array<float, 3>, 3> distances;
                for (std::size_t k = 0; k < 3; ++k)
                    for (int e = 0; e < 3; ++e)
                        distances[k][static_cast<std::size_t>(e)] = outside(e, c[k]);
                bool beyondOne = false;
                for (std::size_t e = 0; e < 3 && !beyondOne; ++e)
                    beyondOne = distances[0][e] >= -tolerance_ && distances[1][e] >= -tolerance_ &&
                                distances[2][e] >= -tolerance_;
                // The cut rounds: half the tolerance for the planes, half for the cut points.
                if (!beyondOne && !missesPrism(distances, 0.5f * tolerance_)) {
                    separated = false;
                    break;
                }
            }
            if (separated) std::copy(own.begin() + 4, own.end(), separatedEdges_[t].begin());
        }
    });
}

namespace {

#if VELMORIN_RELAX_AVX
// The bounds of a whole block in one pass of eight lanes, where the processor has AVX: the same
// operations per lane as the four-lane pass, so the same bits.
__attribute__((target("avx"))) unsigned blockBoundsWide(const float (*plane)[8],
                                                        const float (*edge)[4][8], const Vec3f& p,
                                                        float tolerance, float best, float* out) {
    const __m256 x = _mm256_set1_ps(p.x), y = _mm256_set1_ps(p.y), z = _mm256_set1_ps(p.z);
    const __m256 slack = _mm256_set1_ps(tolerance), zero = _mm256_setzero_ps();
    const __m256 noSign = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    // The plane's signed distance, then the edges', each n . p - offset.
    __m256 distance[4];
    for (int row = 0; row < 4; ++row) {
        const float(*rows)[8] = row == 0 ? plane : edge[row - 1];
        distance[row] =
            _mm256_sub_ps(_mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(_mm256_load_ps(rows[0]), x),
                                                      _mm256_mul_ps(_mm256_load_ps(rows[1]), y)),
                                        _mm256_mul_ps(_mm256_load_ps(rows[2]), z)),
                          _mm256_load_ps(rows[3]));
    }
    const __m256 across0 = _mm256_and_ps(distance[0], noSign);
    __m256 outside = zero;
    for (int e = 1; e < 4; ++e)
        outside = _mm256_max_ps(distance[e], outside);
    const __m256 across = _mm256_max_ps(_mm256_sub_ps(across0, slack), zero);
    const __m256 along = _mm256_max_ps(_mm256_sub_ps(outside, slack), zero);
    const __m256 bound = _mm256_add_ps(_mm256_mul_ps(across, across), _mm256_mul_ps(along, along));
    _mm256_store_ps(out, bound);
    // Not above the best, a NaN included: such a lane is tested.
    return static_cast<unsigned>(
        _mm256_movemask_ps(_mm256_cmp_ps(bound, _mm256_set1_ps(best), _CMP_NGT_UQ)));
}
#endif

#if VELMORIN_RELAX_AVX
// GCC 12 takes the undefined start values inside its AVX-512 intrinsics for uninitialised
// variables; the warnings say nothing of this code.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
VELMORIN_AVX512_LANES inline __m512 gatherLanes(__m512i index, const float* base) {
    return _mm512_mask_i32gather_ps(_mm512_setzero_ps(), 0xffff, index, base, 4);
}
VELMORIN_AVX512_LANES inline __m512 dotLanes(const __m512* a, const __m512* b) {
    return _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(a[0], b[0]), _mm512_mul_ps(a[1], b[1])),
                         _mm512_mul_ps(a[2], b[2]));
}
// The lanes where a <= b, false for a NaN.
VELMORIN_AVX512_LANES inline __mmask16 le(__m512 a, __m512 b) {
    return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ);
}

// TriangleNeighbourhoods::closestWhereAlone's lanes: per lane the operations of
// closestPointOnTriangle's inside case and of closest()'s tests, in the same order, so the same
// bits. The corner, edge and degenerate cases, which branch, are left to closest(). `faces` are
// valid triangles; `corners` holds each triangle's nine corner coordinates, `edges` its twelve
// separating edge rows.
VELMORIN_AVX512_LANES unsigned aloneWidest(const std::int32_t* triangles, const float (*at)[16],
                                           const float* maxDistances, const float* corners,
                                           const float* edges, float tolerance, float reach,
                                           float (*out)[16]) {
    const __m512 zero = _mm512_setzero_ps();
    const __m512i faces = _mm512_load_si512(triangles);
    const __m512 p[3] = {_mm512_load_ps(at[0]), _mm512_load_ps(at[1]), _mm512_load_ps(at[2])};
    const __m512 maxDistance = _mm512_load_ps(maxDistances);
    const __m512i cornerAt = _mm512_mullo_epi32(faces, _mm512_set1_epi32(9));
    const __m512i edgeAt = _mm512_mullo_epi32(faces, _mm512_set1_epi32(12));
    __m512 c[3][3];
    for (int k = 0; k < 3; ++k)
        for (int axis = 0; axis < 3; ++axis)
            c[k][axis] =
                gatherLanes(_mm512_add_epi32(cornerAt, _mm512_set1_epi32(3 * k + axis)), corners);
    __m512 ab[3], ac[3], ap[3], bp[3], cp[3];
    for (int axis = 0; axis < 3; ++axis) {
        ab[axis] = _mm512_sub_ps(c[1][axis], c[0][axis]);
        ac[axis] = _mm512_sub_ps(c[2][axis], c[0][axis]);
        ap[axis] = _mm512_sub_ps(p[axis], c[0][axis]);
        bp[axis] = _mm512_sub_ps(p[axis], c[1][axis]);
        cp[axis] = _mm512_sub_ps(p[axis], c[2][axis]);
    }
    const __m512 d1 = dotLanes(ab, ap), d2 = dotLanes(ac, ap);
    const __m512 d3 = dotLanes(ab, bp), d4 = dotLanes(ac, bp);
    const __m512 d5 = dotLanes(ab, cp), d6 = dotLanes(ac, cp);
    // Past the corners' regions...
    __mmask16 inside = ~(le(d1, zero) & le(d2, zero)) & ~(le(zero, d3) & le(d4, d3)) &
                       ~(le(zero, d6) & le(d5, d6));
    const __m512 vc = _mm512_sub_ps(_mm512_mul_ps(d1, d4), _mm512_mul_ps(d3, d2));
    const __m512 vb = _mm512_sub_ps(_mm512_mul_ps(d5, d2), _mm512_mul_ps(d1, d6));
    const __m512 va = _mm512_sub_ps(_mm512_mul_ps(d3, d6), _mm512_mul_ps(d5, d4));
    const __m512 sum = _mm512_add_ps(_mm512_add_ps(va, vb), vc);
    const __m512 size = _mm512_abs_ps(sum);
    // ...not degenerate, past the edges' regions: the inside.
    inside &= _mm512_cmp_ps_mask(size, _mm512_set1_ps(1e-30f), _CMP_GT_OQ) &
              le(size, _mm512_set1_ps(std::numeric_limits<float>::max()));
    const __m512 d43 = _mm512_sub_ps(d4, d3), d56 = _mm512_sub_ps(d5, d6);
    inside &= ~(le(vc, zero) & le(zero, d1) & le(d3, zero)) &
              ~(le(vb, zero) & le(zero, d2) & le(d6, zero)) &
              ~(le(va, zero) & le(zero, d43) & le(zero, d56));
    const __m512 inverse = _mm512_div_ps(_mm512_set1_ps(1.0f), sum);
    const __m512 u = _mm512_mul_ps(vb, inverse), v = _mm512_mul_ps(vc, inverse);
    __m512 point[3], off[3];
    for (int axis = 0; axis < 3; ++axis) {
        point[axis] = _mm512_add_ps(_mm512_add_ps(c[0][axis], _mm512_mul_ps(ab[axis], u)),
                                    _mm512_mul_ps(ac[axis], v));
        off[axis] = _mm512_sub_ps(point[axis], p[axis]);
    }
    const __m512 d2Own = dotLanes(off, off);
    // closest(): the reach, then the point plainly near its triangle and clear of the neighbours.
    const __m512 most = _mm512_set1_ps(std::numeric_limits<float>::max());
    __m512 reach2 = _mm512_mul_ps(maxDistance, maxDistance);
    reach2 = _mm512_mask_mov_ps(reach2, _mm512_cmp_ps_mask(most, reach2, _CMP_LT_OQ), most);
    const __mmask16 plainlyNear =
        le(d2Own, reach2) & le(d2Own, _mm512_set1_ps(0.0625f * reach * reach));
    __m512 outside = zero;
    for (int e = 0; e < 3; ++e) {
        __m512 row[4];
        for (int k = 0; k < 4; ++k)
            row[k] = gatherLanes(_mm512_add_epi32(edgeAt, _mm512_set1_epi32(4 * e + k)), edges);
        const __m512 distance = _mm512_sub_ps(dotLanes(row, p), row[3]);
        // std::max's choice: the first of equals, a NaN kept only where it comes first.
        outside = e == 0
                      ? distance
                      : _mm512_mask_mov_ps(
                            outside, _mm512_cmp_ps_mask(outside, distance, _CMP_LT_OQ), distance);
    }
    const __m512 negated = _mm512_castsi512_ps(_mm512_xor_si512(
        _mm512_castps_si512(outside), _mm512_set1_epi32(std::numeric_limits<std::int32_t>::min())));
    const __m512 clear = _mm512_sub_ps(negated, _mm512_set1_ps(8.0f * tolerance));
    const __mmask16 alone = _mm512_cmp_ps_mask(clear, zero, _CMP_GT_OQ) &
                            _mm512_cmp_ps_mask(_mm512_mul_ps(clear, clear), d2Own, _CMP_GT_OQ);
    _mm512_store_ps(out[0], u);
    _mm512_store_ps(out[1], v);
    for (int axis = 0; axis < 3; ++axis)
        _mm512_store_ps(out[2 + axis], point[axis]);
    _mm512_store_ps(out[5], _mm512_sqrt_ps(d2Own));
    return inside & plainlyNear & alone;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif

}  // namespace

unsigned TriangleNeighbourhoods::closestWhereAlone(const Vec3f* points, const StrandRoot* last,
                                                   const float* maxDistance, std::size_t count,
                                                   ClosestPoint* hits) const {
#if VELMORIN_RELAX_AVX
    static_assert(sizeof(std::array<Vec3f, 3>) == 9 * sizeof(float) &&
                  sizeof(std::array<float, 12>) == 12 * sizeof(float));
    if (!built() || !widestLanesUsable() || count == 0) return 0;
    // Lanes past `count`, and those without a valid triangle, repeat a valid lane's triangle and
    // point; their answers are dropped.
    alignas(64) std::int32_t faces[16];
    alignas(64) float p[3][16], reach[16];
    unsigned valid = 0;
    for (std::size_t c = 0; c < count; ++c)
        if (last[c].face >= 0 && static_cast<std::size_t>(last[c].face) < corners_.size())
            valid |= 1u << c;
    if (valid == 0) return 0;
    const auto first = static_cast<std::size_t>(std::countr_zero(valid));
    for (std::size_t c = 0; c < 16; ++c) {
        const std::size_t from = c < count && ((valid >> c) & 1u) ? c : first;
        faces[c] = last[from].face;
        p[0][c] = points[from].x;
        p[1][c] = points[from].y;
        p[2][c] = points[from].z;
        reach[c] = maxDistance[from];
    }
    alignas(64) float out[6][16];
    const unsigned answered = aloneWidest(faces, p, reach, &corners_[0][0].x,
                                          separatedEdges_[0].data(), tolerance_, reach_, out) &
                              valid;
    for (unsigned rest = answered; rest != 0; rest &= rest - 1) {
        const auto c = static_cast<std::size_t>(std::countr_zero(rest));
        hits[c].root = {faces[c], out[0][c], out[1][c]};
        hits[c].point = {out[2][c], out[3][c], out[4][c]};
        hits[c].distance = out[5][c];
    }
    return answered;
#else
    (void)points, (void)last, (void)maxDistance, (void)count, (void)hits;
    return 0;
#endif
}

unsigned TriangleNeighbourhoods::lowerBounds(const Block& block, const Vec3f& p, float best,
                                             float* out) const {
    // Per lane: the distance to the plane and, in it, beyond the farthest edge, each less the
    // tolerance. A NaN anywhere gives a bound of 0: the lane is tested.
#if VELMORIN_RELAX_AVX
    static_assert(kLanes == 8 && alignof(Block) >= 32);
    if (wideLanesUsable())
        return blockBoundsWide(block.plane, block.edge, p, tolerance_, best, out);
#endif
#if VELMORIN_RELAX_SSE
    const __m128 x = _mm_set1_ps(p.x), y = _mm_set1_ps(p.y), z = _mm_set1_ps(p.z);
    const __m128 tolerance = _mm_set1_ps(tolerance_), zero = _mm_setzero_ps();
    const __m128 noSign = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    const __m128 limit = _mm_set1_ps(best);
    const auto signedDistance = [&](const float(*rows)[kLanes], std::size_t at) {
        return _mm_sub_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_load_ps(rows[0] + at), x),
                                                _mm_mul_ps(_mm_load_ps(rows[1] + at), y)),
                                     _mm_mul_ps(_mm_load_ps(rows[2] + at), z)),
                          _mm_load_ps(rows[3] + at));
    };
    unsigned tested = 0;
    for (std::size_t at = 0; at < kLanes; at += 4) {
        const __m128 plane = _mm_and_ps(signedDistance(block.plane, at), noSign);
        __m128 outside = zero;
        for (int e = 0; e < 3; ++e)
            outside = _mm_max_ps(signedDistance(block.edge[e], at), outside);
        const __m128 across = _mm_max_ps(_mm_sub_ps(plane, tolerance), zero);
        const __m128 along = _mm_max_ps(_mm_sub_ps(outside, tolerance), zero);
        const __m128 bound = _mm_add_ps(_mm_mul_ps(across, across), _mm_mul_ps(along, along));
        _mm_store_ps(out + at, bound);
        tested |= static_cast<unsigned>(_mm_movemask_ps(_mm_cmpngt_ps(bound, limit))) << at;
    }
    return tested;
#else
    unsigned tested = 0;
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        const auto signedDistance = [&](const float(*rows)[kLanes]) {
            return rows[0][lane] * p.x + rows[1][lane] * p.y + rows[2][lane] * p.z - rows[3][lane];
        };
        float outside = 0.0f;
        for (int e = 0; e < 3; ++e) {
            const float d = signedDistance(block.edge[e]);
            outside = d > outside || std::isnan(d) ? d : outside;
        }
        const float across = std::abs(signedDistance(block.plane)) - tolerance_;
        const float along = outside - tolerance_;
        const float a = across > 0.0f ? across : 0.0f, b = along > 0.0f ? along : 0.0f;
        out[lane] = a * a + b * b;
        if (!(out[lane] > best)) tested |= 1u << lane;
    }
    return tested;
#endif
}

bool TriangleNeighbourhoods::closest(const Vec3f& p, float maxDistance, std::int32_t triangle,
                                     ClosestPoint& hit) const {
    if (!built() || triangle < 0 || static_cast<std::size_t>(triangle) >= corners_.size())
        return false;
    const auto own = static_cast<std::uint32_t>(triangle);
    // The last triangle first: mostly it holds the answer, and its exact distance bounds the
    // answer's, so the lower bounds pass over nearly every other triangle.
    const std::array<Vec3f, 3>& c = corners_[own];
    const TrianglePoint ownHit = closestPointOnTriangle(p, c[0], c[1], c[2]);
    const float ownD2 = lengthSquared(ownHit.point - p);
    const float reach2 = std::min(maxDistance * maxDistance, std::numeric_limits<float>::max());
    // Every triangle nearer than the answer lies within the smaller of the reach and the own
    // distance (a hair more, for the rounding of the square root) of p. A candidate mostly lies a
    // small part of the lists' reach off its last triangle, where the lists plainly cover it
    // whatever the rounding: its square root is then not waited for.
    const bool plainlyNear = ownD2 <= reach2 && built() && ownD2 <= 0.0625f * reach_ * reach_;
    if (!plainlyNear) {
        const float fromTriangle = std::sqrt(ownD2);
        if (!(ownD2 <= reach2 ? covers(fromTriangle * 1.0001f, fromTriangle)
                              : covers(maxDistance, fromTriangle)))
            return false;
    }
    ClosestPoint result;
    float best = reach2;
    // Inside all of its triangle's edge planes by m, p lies at least m from every listed
    // neighbour, less the rounding of the planes (a tolerance each for the neighbour's corners and
    // for p) and of the neighbour's distance (a third); with room to spare, a neighbour can be
    // neither nearer nor as near. Zero rows give m = 0: the neighbours are searched.
    const std::array<float, 12>& e = separatedEdges_[own];
    const float outside = std::max({e[0] * p.x + e[1] * p.y + e[2] * p.z - e[3],
                                    e[4] * p.x + e[5] * p.y + e[6] * p.z - e[7],
                                    e[8] * p.x + e[9] * p.y + e[10] * p.z - e[11]});
    const float clear = -outside - 8.0f * tolerance_;
    const bool alone = clear > 0.0f && clear * clear > ownD2;
    if (ownD2 <= reach2) {
        best = ownD2;
        result.root = {triangle, ownHit.u, ownHit.v};
        result.point = ownHit.point;
    }
    // The nearest within reach, equal distances to the lower triangle, which makes the answer
    // independent of the order the triangles are met in.
    for (std::uint32_t b = alone ? firstBlock_[own + 1] : firstBlock_[own];
         b < firstBlock_[own + 1]; ++b) {
        const Block& block = blocks_[b];
        alignas(32) float bound[kLanes];
        // The lanes in ascending order, each against the best so far, which only ever falls: a
        // lane left out here stays out.
        for (unsigned tested = lowerBounds(block, p, best, bound); tested != 0;
             tested &= tested - 1) {
            const auto lane = static_cast<std::size_t>(std::countr_zero(tested));
            if (bound[lane] > best) continue;
            const std::uint32_t t = block.triangle[lane];
            const std::array<Vec3f, 3>& corners = corners_[t];
            const TrianglePoint other =
                closestPointOnTriangle(p, corners[0], corners[1], corners[2]);
            const float d2 = lengthSquared(other.point - p);
            if (!(d2 <= best) ||
                (d2 == best && result.found() && static_cast<std::int32_t>(t) > result.root.face))
                continue;
            best = d2;
            result.root = {static_cast<std::int32_t>(t), other.u, other.v};
            result.point = other.point;
        }
    }
    if (result.found()) result.distance = std::sqrt(best);
    hit = result;
    return true;
}

}  // namespace velmorin::scatter
