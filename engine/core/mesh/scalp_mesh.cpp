#include "mesh/scalp_mesh.h"

#include <tbb/task_group.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>

#include "base/hash.h"
#include "base/parallel.h"

// The closest-point tree tests four boxes at once with SSE where the target has it (every x86-64
// target does) and with plain floats elsewhere; both give the same answers.
#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <xmmintrin.h>
#define VELMORIN_MESH_SSE 1
#else
#define VELMORIN_MESH_SSE 0
#endif

namespace velmorin {
namespace {

// Hashes raw bytes as 64-bit words. Fixed blocks are hashed in parallel and their hashes combined
// in order, so the result does not depend on the thread count.
std::uint64_t hashRaw(std::uint64_t h, const void* data, std::size_t bytes) {
    constexpr std::size_t kBlock = 1 << 16;
    const auto* base = static_cast<const unsigned char*>(data);
    const std::size_t blocks = (bytes + kBlock - 1) / kBlock;
    std::vector<std::uint64_t> blockHashes(blocks);
    parallelRange(0, blocks, 4, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b) {
            const std::size_t first = b * kBlock;
            const std::size_t count = std::min(kBlock, bytes - first);
            std::uint64_t bh = count;
            std::size_t i = 0;
            for (; i + 8 <= count; i += 8) {
                std::uint64_t word;
                std::memcpy(&word, base + first + i, 8);
                bh = hashCombine(bh, word);
            }
            for (; i < count; ++i)
                bh = hashCombine(bh, base[first + i]);
            blockHashes[b] = bh;
        }
    });
    h = hashCombine(h, bytes);
    for (std::uint64_t bh : blockHashes)
        h = hashCombine(h, bh);
    return h;
}

template <class T>
std::uint64_t hashVector(std::uint64_t h, const std::vector<T>& values) {
    return hashRaw(h, values.data(), values.size() * sizeof(T));
}

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

// ---------------------------------------------------------------------------------------------
// Topology

struct SurfaceTopology::Data {
    std::size_t pointCount = 0;
    std::size_t triangleCount = 0;
    std::vector<std::int32_t> across;  // three per triangle
    std::vector<std::uint32_t> neighborStart, neighbors;
    std::vector<std::uint32_t> triangleStart, vertexTriangles;
    std::uint64_t signature = 0;
};

SurfaceTopology::SurfaceTopology(std::span<const Triangle> triangles, std::size_t pointCount) {
    auto data = std::make_shared<Data>();
    data->pointCount = pointCount;
    data->triangleCount = triangles.size();
    data->signature =
        hashRaw(hashCombine(0x7090106Full, pointCount), triangles.data(), triangles.size_bytes());

    // Triangles of each vertex, as a compressed table.
    data->triangleStart.assign(pointCount + 1, 0);
    for (const Triangle& t : triangles) {
        for (std::uint32_t corner : t)
            ++data->triangleStart[corner + 1];
    }
    for (std::size_t i = 0; i < pointCount; ++i) {
        data->triangleStart[i + 1] += data->triangleStart[i];
    }
    data->vertexTriangles.resize(data->triangleStart[pointCount]);
    {
        std::vector<std::uint32_t> fill(data->triangleStart.begin(), data->triangleStart.end() - 1);
        for (std::uint32_t t = 0; t < triangles.size(); ++t) {
            for (std::uint32_t corner : triangles[t]) {
                // A triangle that names a vertex twice lists it once.
                if (fill[corner] > data->triangleStart[corner] &&
                    data->vertexTriangles[fill[corner] - 1] == t) {
                    continue;
                }
                data->vertexTriangles[fill[corner]++] = t;
            }
        }
        // Close the gaps that repeated corners left, keeping the table compact.
        std::size_t write = 0;
        for (std::size_t vtx = 0; vtx < pointCount; ++vtx) {
            const std::size_t begin = data->triangleStart[vtx];
            data->triangleStart[vtx] = static_cast<std::uint32_t>(write);
            for (std::size_t i = begin; i < fill[vtx]; ++i) {
                data->vertexTriangles[write++] = data->vertexTriangles[i];
            }
        }
        data->triangleStart[pointCount] = static_cast<std::uint32_t>(write);
        data->vertexTriangles.resize(write);
    }

    // Neighbouring points and the triangle across each edge, found through the triangles of the
    // edge's lower corner.
    data->neighborStart.assign(pointCount + 1, 0);
    data->across.assign(triangles.size() * 3, -1);
    std::vector<std::uint32_t> scratch;
    for (std::size_t vtx = 0; vtx < pointCount; ++vtx) {
        scratch.clear();
        for (std::uint32_t i = data->triangleStart[vtx]; i < data->triangleStart[vtx + 1]; ++i) {
            for (std::uint32_t corner : triangles[data->vertexTriangles[i]]) {
                if (corner != vtx) scratch.push_back(corner);
            }
        }
        std::sort(scratch.begin(), scratch.end());
        scratch.erase(std::unique(scratch.begin(), scratch.end()), scratch.end());
        data->neighbors.insert(data->neighbors.end(), scratch.begin(), scratch.end());
        data->neighborStart[vtx + 1] = static_cast<std::uint32_t>(data->neighbors.size());
    }
    for (std::uint32_t t = 0; t < triangles.size(); ++t) {
        for (int edge = 0; edge < 3; ++edge) {
            const std::uint32_t a = triangles[t][edge];
            const std::uint32_t b = triangles[t][(edge + 1) % 3];
            if (a == b) continue;
            std::int32_t found = -1;
            int sharing = 0;
            for (std::uint32_t i = data->triangleStart[a]; i < data->triangleStart[a + 1]; ++i) {
                const std::uint32_t other = data->vertexTriangles[i];
                if (other == t) continue;
                const Triangle& o = triangles[other];
                if (std::find(o.begin(), o.end(), b) != o.end()) {
                    found = static_cast<std::int32_t>(other);
                    ++sharing;
                }
            }
            data->across[t * 3 + edge] = sharing == 1 ? found : -1;
        }
    }
    data_ = std::move(data);
}

std::size_t SurfaceTopology::pointCount() const {
    return data_->pointCount;
}
std::size_t SurfaceTopology::triangleCount() const {
    return data_->triangleCount;
}
std::int32_t SurfaceTopology::neighborAcross(std::uint32_t triangle, int edge) const {
    return data_->across[triangle * 3 + edge];
}
std::span<const std::uint32_t> SurfaceTopology::vertexNeighbors(std::uint32_t vertex) const {
    const std::uint32_t begin = data_->neighborStart[vertex];
    return {data_->neighbors.data() + begin, data_->neighborStart[vertex + 1] - begin};
}
std::span<const std::uint32_t> SurfaceTopology::vertexTriangles(std::uint32_t vertex) const {
    const std::uint32_t begin = data_->triangleStart[vertex];
    return {data_->vertexTriangles.data() + begin, data_->triangleStart[vertex + 1] - begin};
}
std::uint64_t SurfaceTopology::signature() const {
    return data_->signature;
}

// ---------------------------------------------------------------------------------------------
// Closest-point tree: built as a binary tree of boxes split near the median of the longest axis
// of the triangles' centres, then collapsed to four children per node. A node keeps its children's
// boxes side by side and a leaf keeps its (up to) four triangles' corners side by side, so one
// visit tests four boxes, or filters four triangles, at once (with SSE where the target has it),
// and a walk takes half as many steps as down the binary tree. Only triangles the filter leaves
// in reach get the exact test.

class ScalpMesh::BvhTree {
  public:
    static constexpr std::uint32_t kLeafSize = 4;

    explicit BvhTree(const ScalpMesh& mesh);

    ClosestPoint closest(const Vec3f& p, float maxDistance) const;
    RayHit raycast(const Vec3f& origin, const Vec3f& direction, float maxDistance) const;
    void near(const Vec3f& center, float radius, std::vector<std::uint32_t>& out) const;

  private:
    static constexpr std::uint32_t kNoChild = ~0u;
    static constexpr std::uint32_t kNoTriangle = ~0u;

    // The binary tree while building: each subtree's size follows from its triangle count alone,
    // so both halves of a node are built at once into slots known in advance.
    struct BinaryNode {
        Vec3f lo, hi;
        std::uint32_t first = 0;  // leaf: first slot; inner: index of the right child
        std::uint32_t count = 0;  // triangles in a leaf; 0 for an inner node (left child follows)
    };
    // What a node points at: an inner node, a leaf's run of slots, or nothing.
    struct Child {
        std::uint32_t index = 0;  // inner: node index; leaf: first slot
        std::uint32_t count = 0;  // leaf: triangles; 0: an inner node; kNoChild: no child
    };
    struct alignas(64) Node {
        float lo[3][4];  // per axis, per child; an empty slot's box is inverted (lo > hi)
        float hi[3][4];
        std::uint32_t index[4];
        std::uint32_t count[4];
    };

    // Where a run of triangles splits: at the multiple of four nearest its middle, so that
    // leaves come out full and no lane of a leaf's block is wasted.
    static std::uint32_t leftCount(std::uint32_t triangles) {
        return (triangles + 2 * kLeafSize - 1) / (2 * kLeafSize) * kLeafSize;
    }
    static std::uint32_t nodeCount(std::uint32_t triangles) {
        return triangles <= kLeafSize ? 1
                                      : 1 + nodeCount(leftCount(triangles)) +
                                            nodeCount(triangles - leftCount(triangles));
    }
    // A triangle's centre beside its index, so that the partitions of the build move both at
    // once and read memory in order.
    struct Centre {
        Vec3f at;
        std::uint32_t triangle;
    };
    void buildBinary(std::vector<BinaryNode>& nodes, std::uint32_t node, std::uint32_t first,
                     std::uint32_t count, std::vector<Centre>& centres);
    std::uint32_t collapse(const std::vector<BinaryNode>& binary, std::uint32_t node);
    // The squared distances from p to a node's four boxes (infinite for an empty slot).
    static void boxDistances(const Node& node, const Vec3f& p, float out[4]);
    static Child childOf(const Node& node, int k) { return {node.index[k], node.count[k]}; }

    // The corners of a leaf's triangles, one per lane: corner, axis, lane.
    struct alignas(16) Block {
        float corner[3][3][4];
    };
    std::array<Vec3f, 3> cornersOf(std::uint32_t slot) const {
        const Block& b = blocks_[slot / 4];
        const std::uint32_t lane = slot % 4;
        std::array<Vec3f, 3> c;
        for (int k = 0; k < 3; ++k)
            c[k] = {b.corner[k][0][lane], b.corner[k][1][lane], b.corner[k][2][lane]};
        return c;
    }
    // Squared distances from p to a leaf's triangles, a fast filter in front of the exact test.
    static void triangleDistances(const Block& block, const Vec3f& p, float out[4]);

    std::vector<Node> nodes_;  // nodes_[0] is the root unless the root is a leaf
    Child root_{0, kNoChild};
    Vec3f rootLo_, rootHi_;
    // Each leaf owns one block of four slots; slot s is lane s % 4 of block s / 4.
    std::vector<Block> blocks_;
    std::vector<std::uint32_t> order_;  // triangle index of each slot, kNoTriangle if spare
};

ScalpMesh::BvhTree::BvhTree(const ScalpMesh& mesh) {
    const auto count = static_cast<std::uint32_t>(mesh.triangles_.size());
    if (count == 0) return;
    std::vector<Centre> centres(count);
    const auto& points = mesh.points_;
    const auto& triangles = mesh.triangles_;
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
    blocks_.resize(blockCount);
    parallelRange(0, blockCount, 1024, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b) {
            for (std::uint32_t lane = 0; lane < 4; ++lane) {
                const std::size_t slot = b * 4 + lane;
                if (slot < count) order_[slot] = centres[slot].triangle;
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

void ScalpMesh::BvhTree::buildBinary(std::vector<BinaryNode>& nodes, std::uint32_t node,
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
std::uint32_t ScalpMesh::BvhTree::collapse(const std::vector<BinaryNode>& binary,
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

void ScalpMesh::BvhTree::boxDistances(const Node& node, const Vec3f& p, float out[4]) {
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

void ScalpMesh::BvhTree::triangleDistances(const Block& block, const Vec3f& p, float out[4]) {
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

ClosestPoint ScalpMesh::BvhTree::closest(const Vec3f& p, float maxDistance) const {
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

RayHit ScalpMesh::BvhTree::raycast(const Vec3f& origin, const Vec3f& direction,
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

void ScalpMesh::BvhTree::near(const Vec3f& center, float radius,
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

class ScalpMesh::LazyBvh {
  public:
    const BvhTree& get(const ScalpMesh& mesh) {
        std::call_once(once_, [&] { tree_ = std::make_unique<BvhTree>(mesh); });
        return *tree_;
    }

  private:
    std::once_flag once_;
    std::unique_ptr<BvhTree> tree_;
};

// ---------------------------------------------------------------------------------------------
// The mesh

struct ScalpMesh::Derived {
    // Under a mutex rather than a once-flag, so that a setter can carry a topology that was
    // already built over to the next state without building one that nobody asked for.
    std::mutex topologyMutex;
    std::shared_ptr<const SurfaceTopology> topology;
    std::once_flag normalsOnce;
    std::vector<Vec3f> normals;
    std::once_flag piecesOnce;
    std::shared_ptr<const std::vector<ScalpPiece>> pieces;
    std::once_flag contentOnce;
    std::uint64_t content = 0;
};

ScalpMesh::ScalpMesh() : bvh_(std::make_shared<LazyBvh>()), derived_(std::make_shared<Derived>()) {}

ScalpMesh::ScalpMesh(std::vector<Vec3f> points, std::vector<Triangle> triangles) : ScalpMesh() {
    setGeometry(std::move(points), std::move(triangles));
}

void ScalpMesh::dropDerived(bool keepTopology) {
    auto fresh = std::make_shared<Derived>();
    if (keepTopology) {
        std::lock_guard lock(derived_->topologyMutex);
        fresh->topology = derived_->topology;
    }
    derived_ = std::move(fresh);
}

void ScalpMesh::checkCorners(std::size_t count, const char* message) const {
    if (count != 0 && count != triangles_.size() * 3) throw std::invalid_argument(message);
}

void ScalpMesh::setGeometry(std::vector<Vec3f> points, std::vector<Triangle> triangles) {
    for (const Triangle& t : triangles) {
        for (std::uint32_t corner : t) {
            if (corner >= points.size()) {
                throw std::invalid_argument("ScalpMesh: triangle index out of range");
            }
        }
    }
    points_ = std::move(points);
    triangles_ = std::move(triangles);
    polygons_.assign(triangles_.size(), 1);
    uvs_.clear();
    colorSets_.clear();
    restPoints_.clear();
    scalps_.clear();
    bvh_ = std::make_shared<LazyBvh>();
    dropDerived(false);
}

void ScalpMesh::setPoints(std::vector<Vec3f> points) {
    if (points.size() != points_.size()) {
        throw std::invalid_argument("ScalpMesh: new points must match the mesh's point count");
    }
    dropDerived(true);
    points_ = std::move(points);
    bvh_ = std::make_shared<LazyBvh>();
}

void ScalpMesh::setPolygons(std::vector<std::int32_t> polygons) {
    long long sum = 0;
    for (std::int32_t count : polygons) {
        if (count < 0) {
            throw std::invalid_argument("ScalpMesh: a polygon with a negative triangle count");
        }
        sum += count;
    }
    if (sum != static_cast<long long>(triangles_.size())) {
        throw std::invalid_argument("ScalpMesh: the polygons' triangles (" + std::to_string(sum) +
                                    ") are not the mesh's (" + std::to_string(triangles_.size()) +
                                    ")");
    }
    polygons_ = std::move(polygons);
    dropDerived(true);
}

void ScalpMesh::setUvs(std::vector<Uv> uvs) {
    checkCorners(uvs.size(), "ScalpMesh: expected one UV per triangle corner");
    uvs_ = std::move(uvs);
    dropDerived(true);
}

void ScalpMesh::setColorSet(const std::string& name, std::vector<Rgba> colors) {
    if (colors.size() != triangles_.size() * 3) {
        throw std::invalid_argument("ScalpMesh: expected one color per triangle corner");
    }
    colorSets_[name] = std::move(colors);
    dropDerived(true);
}

void ScalpMesh::removeColorSet(const std::string& name) {
    if (colorSets_.erase(name) > 0) dropDerived(true);
}

void ScalpMesh::setRestPoints(std::vector<Vec3f> restPoints) {
    if (!restPoints.empty() && restPoints.size() != points_.size()) {
        throw std::invalid_argument("ScalpMesh: rest points must match the mesh's point count");
    }
    restPoints_ = std::move(restPoints);
    dropDerived(true);
}

void ScalpMesh::setScalps(std::vector<ScalpRange> scalps) {
    std::uint64_t triangleEnd = 0;
    std::uint64_t pointEnd = 0;
    for (const ScalpRange& range : scalps) {
        if (range.firstTriangle != triangleEnd || range.firstPoint != pointEnd) {
            throw std::invalid_argument("ScalpMesh: the scalp '" + range.name +
                                        "' does not follow the one before it");
        }
        triangleEnd += range.triangleCount;
        pointEnd += range.pointCount;
    }
    if (!scalps.empty() && (triangleEnd != triangles_.size() || pointEnd != points_.size())) {
        throw std::invalid_argument(
            "ScalpMesh: the scalps' triangles and points are not the mesh's");
    }
    scalps_ = std::move(scalps);
    dropDerived(true);
}

std::shared_ptr<const SurfaceTopology> ScalpMesh::topology() const {
    Derived& d = *derived_;
    std::lock_guard lock(d.topologyMutex);
    if (!d.topology) d.topology = std::make_shared<SurfaceTopology>(triangles_, points_.size());
    return d.topology;
}

std::span<const Vec3f> ScalpMesh::vertexNormals() const {
    Derived& d = *derived_;
    std::call_once(d.normalsOnce, [&] {
        std::vector<Vec3f> sums(points_.size());
        // Each face adds its area-weighted normal (the plain cross product) to its corners.
        for (const Triangle& t : triangles_) {
            const Vec3f n = cross(points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]]);
            for (std::uint32_t corner : t)
                sums[corner] += n;
        }
        for (Vec3f& n : sums)
            n = normalized(n, {0.0f, 1.0f, 0.0f});
        d.normals = std::move(sums);
    });
    return d.normals;
}

std::shared_ptr<const std::vector<ScalpPiece>> ScalpMesh::pieces() const {
    Derived& d = *derived_;
    std::call_once(d.piecesOnce, [&] {
        auto topo = topology();
        std::vector<std::int32_t> pieceOf(triangles_.size(), -1);
        auto list = std::make_shared<std::vector<ScalpPiece>>();
        std::vector<std::uint32_t> pending;
        for (std::uint32_t seed = 0; seed < triangles_.size(); ++seed) {
            if (pieceOf[seed] >= 0) continue;
            const auto index = static_cast<std::int32_t>(list->size());
            ScalpPiece piece;
            pieceOf[seed] = index;
            pending.assign(1, seed);
            // Pieces meet at shared points as well as at edges: a fan of triangles around one
            // vertex is one piece.
            while (!pending.empty()) {
                const std::uint32_t t = pending.back();
                pending.pop_back();
                piece.triangles.push_back(t);
                for (std::uint32_t corner : triangles_[t]) {
                    for (std::uint32_t other : topo->vertexTriangles(corner)) {
                        if (pieceOf[other] < 0) {
                            pieceOf[other] = index;
                            pending.push_back(other);
                        }
                    }
                }
            }
            std::sort(piece.triangles.begin(), piece.triangles.end());
            for (std::uint32_t t : piece.triangles) {
                piece.points.insert(piece.points.end(), triangles_[t].begin(), triangles_[t].end());
            }
            std::sort(piece.points.begin(), piece.points.end());
            piece.points.erase(std::unique(piece.points.begin(), piece.points.end()),
                               piece.points.end());
            list->push_back(std::move(piece));
        }
        d.pieces = std::move(list);
    });
    return d.pieces;
}

std::pair<Vec3f, Vec3f> ScalpMesh::bounds() const {
    if (points_.empty()) return {};
    Vec3f lo = points_[0];
    Vec3f hi = points_[0];
    for (const Vec3f& p : points_) {
        lo = minPerAxis(lo, p);
        hi = maxPerAxis(hi, p);
    }
    return {lo, hi};
}

std::uint64_t ScalpMesh::topologySignature() const {
    return topology()->signature();
}

std::uint64_t ScalpMesh::contentSignature() const {
    Derived& d = *derived_;
    std::call_once(d.contentOnce, [&] {
        std::uint64_t h = topologySignature();
        h = hashVector(h, points_);
        h = hashVector(h, polygons_);
        h = hashVector(h, uvs_);
        h = hashCombine(h, colorSets_.size());
        for (const auto& [name, colors] : colorSets_)
            h = hashVector(hashText(h, name), colors);
        h = hashVector(h, restPoints_);
        h = hashCombine(h, scalps_.size());
        for (const ScalpRange& range : scalps_) {
            h = hashText(h, range.name);
            for (std::uint32_t n :
                 {range.firstTriangle, range.triangleCount, range.firstPoint, range.pointCount}) {
                h = hashCombine(h, n);
            }
        }
        d.content = h;
    });
    return d.content;
}

ClosestPoint ScalpMesh::closestPoint(const Vec3f& position, float maxDistance) const {
    return bvh_->get(*this).closest(position, maxDistance);
}

RayHit ScalpMesh::raycast(const Vec3f& origin, const Vec3f& direction, float maxDistance) const {
    return bvh_->get(*this).raycast(origin, direction, maxDistance);
}

void ScalpMesh::trianglesNear(const Vec3f& center, float radius,
                              std::vector<std::uint32_t>& out) const {
    bvh_->get(*this).near(center, radius, out);
}

Vec3f ScalpMesh::pointAt(const StrandRoot& root) const {
    const Triangle& t = triangles_[root.face];
    const float w0 = 1.0f - root.u - root.v;
    return points_[t[0]] * w0 + points_[t[1]] * root.u + points_[t[2]] * root.v;
}

Vec3f ScalpMesh::faceNormal(std::uint32_t triangle) const {
    const Triangle& t = triangles_[triangle];
    return normalized(cross(points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]]));
}

Vec3f ScalpMesh::normalAt(const StrandRoot& root) const {
    const Triangle& t = triangles_[root.face];
    const auto normals = vertexNormals();
    const float w0 = 1.0f - root.u - root.v;
    const Vec3f blend = normals[t[0]] * w0 + normals[t[1]] * root.u + normals[t[2]] * root.v;
    const float len2 = lengthSquared(blend);
    if (len2 > 1e-20f) return blend / std::sqrt(len2);
    // Opposed vertex normals cancel only on folded surfaces: the face itself decides there.
    const Vec3f face = faceNormal(root.face);
    return lengthSquared(face) > 0.0f ? face : Vec3f{0.0f, 1.0f, 0.0f};
}

SurfaceFrame ScalpMesh::frameAt(const StrandRoot& root) const {
    SurfaceFrame frame;
    frame.origin = pointAt(root);
    frame.normal = normalAt(root);
    const Triangle& t = triangles_[root.face];
    // The tangent follows the triangle's first edge (or its second when the first is along the
    // normal), so the frame turns with the surface when its points move.
    for (const Vec3f& edge : {points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]],
                              Vec3f{1.0f, 0.0f, 0.0f}, Vec3f{0.0f, 0.0f, 1.0f}}) {
        const Vec3f along = edge - frame.normal * dot(edge, frame.normal);
        if (lengthSquared(along) > 1e-12f * std::max(1.0f, lengthSquared(edge))) {
            frame.tangent = normalized(along);
            break;
        }
    }
    frame.bitangent = cross(frame.tangent, frame.normal);
    return frame;
}

Uv ScalpMesh::uvAt(const StrandRoot& root) const {
    if (uvs_.empty()) return {};
    const std::size_t base = static_cast<std::size_t>(root.face) * 3;
    const float w0 = 1.0f - root.u - root.v;
    return {uvs_[base].u * w0 + uvs_[base + 1].u * root.u + uvs_[base + 2].u * root.v,
            uvs_[base].v * w0 + uvs_[base + 1].v * root.u + uvs_[base + 2].v * root.v};
}

}  // namespace velmorin
