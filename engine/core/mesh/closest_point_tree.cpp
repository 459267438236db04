#include "mesh/closest_point_tree.h"

#include <tbb/task_group.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

#include "base/parallel.h"

// The tree tests four boxes at once with SSE where the target has it (every x86-64 target does)
// and with plain floats elsewhere; both give the same answers.
#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <xmmintrin.h>
#define VELMORIN_MESH_SSE 1
#else
#define VELMORIN_MESH_SSE 0
#endif

namespace velmorin {
namespace {

struct ClosestOnTriangle {
    Vec3f point;
    float u = 0.0f;  // weight of corner 1
    float v = 0.0f;  // weight of corner 2
};

// The closest point of segment a..b to p, as the weight t of b.
float closestOnSegment(const Vec3f& p, const Vec3f& a, const Vec3f& b) {
    const Vec3f ab = b - a;
    const float len2 = dot(ab, ab);
    if (!(len2 > 0.0f)) return 0.0f;
    return std::clamp(dot(p - a, ab) / len2, 0.0f, 1.0f);
}

// The closest point of triangle abc to p, by the regions of the triangle's corners, edges and
// face. A degenerate triangle (a line or a point) falls back to its three edges, so it never
// produces a NaN.
ClosestOnTriangle closestOnTriangle(const Vec3f& p, const Vec3f& a, const Vec3f& b,
                                    const Vec3f& c) {
    const Vec3f ab = b - a;
    const Vec3f ac = c - a;
    const Vec3f ap = p - a;
    const float d1 = dot(ab, ap);
    const float d2 = dot(ac, ap);
    if (d1 <= 0.0f && d2 <= 0.0f) return {a, 0.0f, 0.0f};
    const Vec3f bp = p - b;
    const float d3 = dot(ab, bp);
    const float d4 = dot(ac, bp);
    if (d3 >= 0.0f && d4 <= d3) return {b, 1.0f, 0.0f};
    const Vec3f cp = p - c;
    const float d5 = dot(ab, cp);
    const float d6 = dot(ac, cp);
    if (d6 >= 0.0f && d5 <= d6) return {c, 0.0f, 1.0f};

    const float vc = d1 * d4 - d3 * d2;
    const float vb = d5 * d2 - d1 * d6;
    const float va = d3 * d6 - d5 * d4;
    const float sum = va + vb + vc;
    if (!(std::fabs(sum) > 1e-30f) || !std::isfinite(sum)) {
        // Degenerate: the best of the three edges.
        const float tab = closestOnSegment(p, a, b);
        const float tac = closestOnSegment(p, a, c);
        const float tbc = closestOnSegment(p, b, c);
        const ClosestOnTriangle candidates[3] = {{lerp(a, b, tab), tab, 0.0f},
                                                 {lerp(a, c, tac), 0.0f, tac},
                                                 {lerp(b, c, tbc), 1.0f - tbc, tbc}};
        const ClosestOnTriangle* best = &candidates[0];
        for (const auto& candidate : candidates) {
            if (lengthSquared(candidate.point - p) < lengthSquared(best->point - p)) {
                best = &candidate;
            }
        }
        return *best;
    }
    if (vc <= 0.0f && d1 >= 0.0f && d3 <= 0.0f) {
        const float t = d1 / (d1 - d3);
        return {a + ab * t, t, 0.0f};
    }
    if (vb <= 0.0f && d2 >= 0.0f && d6 <= 0.0f) {
        const float t = d2 / (d2 - d6);
        return {a + ac * t, 0.0f, t};
    }
    if (va <= 0.0f && (d4 - d3) >= 0.0f && (d5 - d6) >= 0.0f) {
        const float t = (d4 - d3) / ((d4 - d3) + (d5 - d6));
        return {b + (c - b) * t, 1.0f - t, t};
    }
    const float inv = 1.0f / sum;
    const float u = vb * inv;
    const float v = vc * inv;
    return {a + ab * u + ac * v, u, v};
}

float boxDistanceSquared(const Vec3f& p, const Vec3f& lo, const Vec3f& hi) {
    const float dx = std::max({lo.x - p.x, 0.0f, p.x - hi.x});
    const float dy = std::max({lo.y - p.y, 0.0f, p.y - hi.y});
    const float dz = std::max({lo.z - p.z, 0.0f, p.z - hi.z});
    return dx * dx + dy * dy + dz * dz;
}

}  // namespace

TrianglePoint closestPointOnTriangle(const Vec3f& p, const Vec3f& a, const Vec3f& b,
                                     const Vec3f& c) {
    const ClosestOnTriangle hit = closestOnTriangle(p, a, b, c);
    return {hit.point, hit.u, hit.v};
}

ClosestPointTree::ClosestPointTree(std::span<const Vec3f> points,
                                   std::span<const Triangle> triangles) {
    const auto count = static_cast<std::uint32_t>(triangles.size());
    if (count == 0) return;
    std::vector<Centre> centres(count);
    parallelRange(0, count, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            const Triangle& tri = triangles[t];
            centres[t] = {(points[tri[0]] + points[tri[1]] + points[tri[2]]) * (1.0f / 3.0f),
                          static_cast<std::uint32_t>(t)};
        }
    });
    std::vector<BinaryNode> binary(nodeCount(count));
    buildBinary(binary, 0, 0, count, centres);
    // Every left part holds a multiple of four triangles, so each leaf starts at a multiple of
    // four and fills one block; only the last leaf may leave lanes spare. Spare lanes repeat the
    // block's first triangle and are never read.
    const std::size_t blockCount = (count + 3) / 4;
    order_.assign(blockCount * 4, kNoTriangle);
    slotOf_.resize(count);
    blocks_.resize(blockCount);
    parallelRange(0, blockCount, 1024, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b) {
            for (std::uint32_t lane = 0; lane < 4; ++lane) {
                const std::size_t slot = b * 4 + lane;
                if (slot < count) {
                    order_[slot] = centres[slot].triangle;
                    slotOf_[centres[slot].triangle] = static_cast<std::uint32_t>(slot);
                }
                const Triangle& tri = triangles[centres[slot < count ? slot : b * 4].triangle];
                for (int k = 0; k < 3; ++k)
                    for (int a = 0; a < 3; ++a)
                        blocks_[b].corner[k][a][lane] = points[tri[k]][a];
            }
        }
    });
    // Boxes bottom-up: children always sit after their parent, so a reverse pass sees them first.
    for (std::size_t n = binary.size(); n-- > 0;) {
        BinaryNode& node = binary[n];
        if (node.count > 0) {
            Vec3f lo{std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                     std::numeric_limits<float>::max()};
            Vec3f hi = -lo;
            for (std::uint32_t s = node.first; s < node.first + node.count; ++s) {
                for (const Vec3f& corner : cornersOf(s)) {
                    lo = minPerAxis(lo, corner);
                    hi = maxPerAxis(hi, corner);
                }
            }
            node.lo = lo;
            node.hi = hi;
        } else {
            const BinaryNode& left = binary[n + 1];
            const BinaryNode& right = binary[node.first];
            node.lo = minPerAxis(left.lo, right.lo);
            node.hi = maxPerAxis(left.hi, right.hi);
        }
    }
    rootLo_ = binary[0].lo;
    rootHi_ = binary[0].hi;
    if (binary[0].count > 0) {
        root_ = {0, binary[0].count};
    } else {
        nodes_.reserve(binary.size() / 2 + 1);
        root_ = {collapse(binary, 0), 0};
    }
}

void ClosestPointTree::buildBinary(std::vector<BinaryNode>& nodes, std::uint32_t node,
                                   std::uint32_t first, std::uint32_t count,
                                   std::vector<Centre>& centres) {
    if (count <= kLeafSize) {
        nodes[node].first = first;
        nodes[node].count = count;
        return;
    }
    Vec3f lo = centres[first].at;
    Vec3f hi = lo;
    for (std::uint32_t s = first; s < first + count; ++s) {
        lo = minPerAxis(lo, centres[s].at);
        hi = maxPerAxis(hi, centres[s].at);
    }
    const Vec3f extent = hi - lo;
    const int axis = extent.x >= extent.y && extent.x >= extent.z ? 0
                     : extent.y >= extent.z                       ? 1
                                                                  : 2;
    const std::uint32_t half = leftCount(count);
    auto begin = centres.begin() + first;
    // Ties broken by triangle index, so the tree does not depend on the sort's implementation.
    std::nth_element(begin, begin + half, begin + count, [&](const Centre& a, const Centre& b) {
        const float ca = a.at[axis];
        const float cb = b.at[axis];
        return ca < cb || (ca == cb && a.triangle < b.triangle);
    });
    const std::uint32_t left = node + 1;
    const std::uint32_t right = left + nodeCount(half);
    nodes[node].first = right;
    nodes[node].count = 0;
    if (count > 16384) {
        tbb::task_group group;
        group.run([&] { buildBinary(nodes, left, first, half, centres); });
        buildBinary(nodes, right, first + half, count - half, centres);
        group.wait();
    } else {
        buildBinary(nodes, left, first, half, centres);
        buildBinary(nodes, right, first + half, count - half, centres);
    }
}

// Takes an inner binary node's two children and, while there is room for four, opens the inner
// child with the largest box in place, so that the children stay in tree order.
std::uint32_t ClosestPointTree::collapse(const std::vector<BinaryNode>& binary,
                                         std::uint32_t node) {
    std::uint32_t children[4] = {node + 1, binary[node].first, 0, 0};
    int childCount = 2;
    while (childCount < 4) {
        int widest = -1;
        float widestArea = -1.0f;
        for (int k = 0; k < childCount; ++k) {
            const BinaryNode& c = binary[children[k]];
            if (c.count > 0) continue;
            const Vec3f e = c.hi - c.lo;
            const float area = e.x * e.y + e.y * e.z + e.z * e.x;
            if (area > widestArea) {
                widestArea = area;
                widest = k;
            }
        }
        if (widest < 0) break;
        const std::uint32_t opened = children[widest];
        for (int k = childCount; k > widest + 1; --k)
            children[k] = children[k - 1];
        children[widest] = opened + 1;
        children[widest + 1] = binary[opened].first;
        ++childCount;
    }
    const auto self = static_cast<std::uint32_t>(nodes_.size());
    nodes_.emplace_back();
    for (int k = 0; k < 4; ++k) {
        Child child{0, kNoChild};
        Vec3f lo{std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                 std::numeric_limits<float>::infinity()};
        Vec3f hi = -lo;
        if (k < childCount) {
            const BinaryNode& c = binary[children[k]];
            assert(c.count == 0 || c.first % 4 == 0);  // a leaf fills its own block
            lo = c.lo;
            hi = c.hi;
            child = c.count > 0 ? Child{c.first, c.count} : Child{collapse(binary, children[k]), 0};
        }
        Node& out = nodes_[self];  // collapse may have grown the list
        for (int a = 0; a < 3; ++a) {
            out.lo[a][k] = lo[a];
            out.hi[a][k] = hi[a];
        }
        out.index[k] = child.index;
        out.count[k] = child.count;
    }
    return self;
}

void ClosestPointTree::boxDistances(const Node& node, const Vec3f& p, float out[4]) {
#if VELMORIN_MESH_SSE
    // max(0, x) keeps a NaN in x, so a query that is not a number reaches no box.
    const __m128 zero = _mm_setzero_ps();
    __m128 sum = zero;
    for (int a = 0; a < 3; ++a) {
        const __m128 c = _mm_set1_ps(p[a]);
        const __m128 outside = _mm_max_ps(_mm_sub_ps(_mm_load_ps(node.lo[a]), c),
                                          _mm_sub_ps(c, _mm_load_ps(node.hi[a])));
        const __m128 d = _mm_max_ps(zero, outside);
        sum = _mm_add_ps(sum, _mm_mul_ps(d, d));
    }
    _mm_store_ps(out, sum);
#else
    for (int k = 0; k < 4; ++k) {
        float sum = 0.0f;
        for (int a = 0; a < 3; ++a) {
            const float outside = std::max(node.lo[a][k] - p[a], p[a] - node.hi[a][k]);
            const float d = outside > 0.0f || std::isnan(outside) ? outside : 0.0f;
            sum += d * d;
        }
        out[k] = sum;
    }
#endif
}

void ClosestPointTree::triangleDistances(const Block& block, const Vec3f& p, float out[4]) {
#if VELMORIN_MESH_SSE
    // Per lane: the distance to the plane where p projects inside the triangle, else to the
    // nearest edge. Degenerate triangles fall to their edges.
    struct V {
        __m128 x, y, z;
    };
    const auto load = [&](int k) {
        return V{_mm_load_ps(block.corner[k][0]), _mm_load_ps(block.corner[k][1]),
                 _mm_load_ps(block.corner[k][2])};
    };
    const auto sub = [](const V& u, const V& v) {
        return V{_mm_sub_ps(u.x, v.x), _mm_sub_ps(u.y, v.y), _mm_sub_ps(u.z, v.z)};
    };
    const auto dotv = [](const V& u, const V& v) {
        return _mm_add_ps(_mm_add_ps(_mm_mul_ps(u.x, v.x), _mm_mul_ps(u.y, v.y)),
                          _mm_mul_ps(u.z, v.z));
    };
    const auto crossv = [](const V& u, const V& v) {
        return V{_mm_sub_ps(_mm_mul_ps(u.y, v.z), _mm_mul_ps(u.z, v.y)),
                 _mm_sub_ps(_mm_mul_ps(u.z, v.x), _mm_mul_ps(u.x, v.z)),
                 _mm_sub_ps(_mm_mul_ps(u.x, v.y), _mm_mul_ps(u.y, v.x))};
    };
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f), tiny = _mm_set1_ps(1e-30f);
    const auto edge = [&](const V& e, const V& fromStart) {
        const __m128 t = _mm_min_ps(
            one, _mm_max_ps(zero, _mm_div_ps(dotv(fromStart, e), _mm_max_ps(dotv(e, e), tiny))));
        const V r{_mm_sub_ps(fromStart.x, _mm_mul_ps(e.x, t)),
                  _mm_sub_ps(fromStart.y, _mm_mul_ps(e.y, t)),
                  _mm_sub_ps(fromStart.z, _mm_mul_ps(e.z, t))};
        return dotv(r, r);
    };
    const V a = load(0), b = load(1), c = load(2);
    const V q{_mm_set1_ps(p.x), _mm_set1_ps(p.y), _mm_set1_ps(p.z)};
    const V ab = sub(b, a), bc = sub(c, b), ca = sub(a, c);
    const V ap = sub(q, a), bp = sub(q, b), cp = sub(q, c);
    const V n = crossv(ab, sub(c, a));
    const __m128 nn = dotv(n, n);
    const __m128 inside =
        _mm_and_ps(_mm_and_ps(_mm_cmpge_ps(dotv(crossv(ab, ap), n), zero),
                              _mm_cmpge_ps(dotv(crossv(bc, bp), n), zero)),
                   _mm_and_ps(_mm_cmpge_ps(dotv(crossv(ca, cp), n), zero), _mm_cmpgt_ps(nn, tiny)));
    const __m128 h = dotv(ap, n);
    const __m128 plane = _mm_div_ps(_mm_mul_ps(h, h), _mm_max_ps(nn, tiny));
    const __m128 edges = _mm_min_ps(edge(ab, ap), _mm_min_ps(edge(bc, bp), edge(ca, cp)));
    _mm_store_ps(out, _mm_or_ps(_mm_and_ps(inside, plane), _mm_andnot_ps(inside, edges)));
#else
    (void)block;
    (void)p;
    for (int lane = 0; lane < 4; ++lane)
        out[lane] = 0.0f;  // no filter: every lane is tested
#endif
}

ClosestPoint ClosestPointTree::closest(const Vec3f& p, float maxDistance) const {
    ClosestPoint result;
    if (root_.count == kNoChild) return result;
    // Kept finite, so that an empty slot's infinite distance is always beyond it.
    float best = std::min(maxDistance * maxDistance, std::numeric_limits<float>::max());
    const auto visitLeaf = [&](std::uint32_t first, std::uint32_t count) {
        alignas(16) float near[4];
        triangleDistances(blocks_[first / 4], p, near);
        for (std::uint32_t s = first; s < first + count; ++s) {
            // The filter's rounding differs from the exact test's: it only passes over triangles
            // clearly beyond the best so far. (A NaN is never beyond.)
            if (near[s - first] > best * 1.001f + 1e-30f) continue;
            const auto c = cornersOf(s);
            const ClosestOnTriangle hit = closestOnTriangle(p, c[0], c[1], c[2]);
            const float d2 = lengthSquared(hit.point - p);
            if (d2 <= best) {
                // Equal distances keep the lower triangle, so the answer is the same whatever
                // the order of the walk.
                if (d2 == best && result.found() &&
                    static_cast<std::int32_t>(order_[s]) > result.root.face) {
                    continue;
                }
                best = d2;
                result.root = {static_cast<std::int32_t>(order_[s]), hit.u, hit.v};
                result.point = hit.point;
            }
        }
    };
    if (root_.count > 0) {
        if (boxDistanceSquared(p, rootLo_, rootHi_) <= best) visitLeaf(root_.index, root_.count);
    } else {
        struct Entry {
            std::uint32_t node;
            float distance;
        };
        Entry stack[96];
        int top = 0;
        stack[top++] = {root_.index, boxDistanceSquared(p, rootLo_, rootHi_)};
        while (top > 0) {
            const Entry entry = stack[--top];
            if (!(entry.distance <= best)) continue;
            const Node& node = nodes_[entry.node];
            alignas(16) float d[4];
            boxDistances(node, p, d);
            // The children in reach, nearest first: leaves are searched at once, nodes go on the
            // stack so that the nearest comes off first.
            int order[4];
            int reached = 0;
            for (int k = 0; k < 4; ++k) {
                if (!(d[k] <= best)) continue;
                int at = reached++;
                while (at > 0 && d[order[at - 1]] > d[k]) {
                    order[at] = order[at - 1];
                    --at;
                }
                order[at] = k;
            }
#if VELMORIN_MESH_SSE
            // Every child in reach is fetched at once, so that their loads overlap.
            for (int i = 0; i < reached; ++i) {
                const int k = order[i];
                const char* at = node.count[k] > 0
                                     ? reinterpret_cast<const char*>(&blocks_[node.index[k] / 4])
                                     : reinterpret_cast<const char*>(&nodes_[node.index[k]]);
                _mm_prefetch(at, _MM_HINT_T0);
                _mm_prefetch(at + 64, _MM_HINT_T0);
                _mm_prefetch(at + 128, _MM_HINT_T0);
            }
#endif
            for (int i = 0; i < reached; ++i) {
                const int k = order[i];
                if (node.count[k] > 0 && d[k] <= best) visitLeaf(node.index[k], node.count[k]);
            }
            for (int i = reached; i-- > 0;) {
                const int k = order[i];
                if (node.count[k] == 0 && d[k] <= best) stack[top++] = {node.index[k], d[k]};
            }
        }
    }
    if (result.found()) result.distance = std::sqrt(best);
    return result;
}

bool ClosestPointTree::testsTriangle(const Vec3f& p, std::uint32_t triangle,
                                     float bestSquared) const {
    if (triangle >= slotOf_.size()) return false;
    const std::uint32_t slot = slotOf_[triangle];
    // Every box the walk meets on the way to the triangle holds the triangle's own box, and the
    // rounded distance to a larger box is never larger (rounding keeps order): the triangle's own
    // box decides for them all.
    const auto c = cornersOf(slot);
    const Vec3f lo = minPerAxis(minPerAxis(c[0], c[1]), c[2]);
    const Vec3f hi = maxPerAxis(maxPerAxis(c[0], c[1]), c[2]);
    if (!(boxDistanceSquared(p, lo, hi) <= bestSquared)) return false;
    // The filter of the triangle's own block, as the walk computes it.
    alignas(16) float near[4];
    triangleDistances(blocks_[slot / 4], p, near);
    return !(near[slot % 4] > bestSquared * 1.001f + 1e-30f);
}

RayHit ClosestPointTree::raycast(const Vec3f& origin, const Vec3f& direction,
                                 float maxDistance) const {
    RayHit result;
    if (root_.count == kNoChild) return result;
    const Vec3f inverse{1.0f / direction.x, 1.0f / direction.y, 1.0f / direction.z};
    float best = maxDistance;
    auto boxEntry = [&](const Vec3f& lo, const Vec3f& hi) {
        float tmin = 0.0f;
        float tmax = best;
        for (int axis = 0; axis < 3; ++axis) {
            const float o = origin[axis];
            const float inv = inverse[axis];
            float t0 = (lo[axis] - o) * inv;
            float t1 = (hi[axis] - o) * inv;
            if (std::isnan(t0) || std::isnan(t1)) {
                // The ray runs inside the slab's plane: in the slab it never leaves it.
                if (o < lo[axis] || o > hi[axis]) return -1.0f;
                continue;
            }
            if (t0 > t1) std::swap(t0, t1);
            tmin = std::max(tmin, t0);
            tmax = std::min(tmax, t1);
            if (tmin > tmax) return -1.0f;
        }
        return tmin;
    };
    const auto visitLeaf = [&](std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t s = first; s < first + count; ++s) {
            // Moller-Trumbore, both faces.
            const auto c = cornersOf(s);
            const Vec3f e1 = c[1] - c[0];
            const Vec3f e2 = c[2] - c[0];
            const Vec3f pv = cross(direction, e2);
            const float det = dot(e1, pv);
            if (std::fabs(det) < 1e-20f) continue;
            const float invDet = 1.0f / det;
            const Vec3f tv = origin - c[0];
            const float u = dot(tv, pv) * invDet;
            if (u < 0.0f || u > 1.0f) continue;
            const Vec3f qv = cross(tv, e1);
            const float v = dot(direction, qv) * invDet;
            if (v < 0.0f || u + v > 1.0f) continue;
            const float t = dot(e2, qv) * invDet;
            if (t < 0.0f || t > best) continue;
            const auto face = static_cast<std::int32_t>(order_[s]);
            if (t == best && result.found() && face > result.root.face) continue;
            best = t;
            result.root = {face, u, v};
            result.point = origin + direction * t;
            result.distance = t;
        }
    };
    if (boxEntry(rootLo_, rootHi_) < 0.0f) return result;
    if (root_.count > 0) {
        visitLeaf(root_.index, root_.count);
        return result;
    }
    struct Entry {
        std::uint32_t node;
        float entry;
    };
    Entry stack[96];
    int top = 0;
    stack[top++] = {root_.index, 0.0f};
    while (top > 0) {
        const Entry entry = stack[--top];
        if (entry.entry > best) continue;  // a nearer hit was found since it was queued
        const Node& node = nodes_[entry.node];
        for (int k = 3; k >= 0; --k) {
            if (node.count[k] == kNoChild) continue;
            const Vec3f lo{node.lo[0][k], node.lo[1][k], node.lo[2][k]};
            const Vec3f hi{node.hi[0][k], node.hi[1][k], node.hi[2][k]};
            const float t = boxEntry(lo, hi);
            if (t < 0.0f) continue;
            if (node.count[k] > 0) {
                visitLeaf(node.index[k], node.count[k]);
            } else {
                stack[top++] = {node.index[k], t};
            }
        }
    }
    return result;
}

void ClosestPointTree::near(const Vec3f& center, float radius,
                            std::vector<std::uint32_t>& out) const {
    if (root_.count == kNoChild || !(radius >= 0.0f)) return;
    const float r2 = radius * radius;
    // Leaves and nodes share one stack, pushed last child first, so that triangles come out in
    // tree order.
    Child stack[96];
    int top = 0;
    if (boxDistanceSquared(center, rootLo_, rootHi_) <= r2) stack[top++] = root_;
    while (top > 0) {
        const Child child = stack[--top];
        if (child.count > 0) {
            for (std::uint32_t s = child.index; s < child.index + child.count; ++s) {
                const auto c = cornersOf(s);
                const Vec3f lo = minPerAxis(minPerAxis(c[0], c[1]), c[2]);
                const Vec3f hi = maxPerAxis(maxPerAxis(c[0], c[1]), c[2]);
                if (boxDistanceSquared(center, lo, hi) <= r2) out.push_back(order_[s]);
            }
            continue;
        }
        const Node& node = nodes_[child.index];
        alignas(16) float d[4];
        boxDistances(node, center, d);
        for (int k = 3; k >= 0; --k)
            if (node.count[k] != kNoChild && d[k] <= r2) stack[top++] = childOf(node, k);
    }
}

}  // namespace velmorin
