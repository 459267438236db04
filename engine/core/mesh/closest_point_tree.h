#pragma once
// The closest-point tree of a scalp mesh: a four-wide box tree over its triangles that answers
// closest-point, ray and neighbourhood queries. ScalpMesh builds one lazily and shares it between
// copies; the queries are const and safe from any number of threads.

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "base/vec3.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

// The closest point of triangle abc to p, with the weights of corners b (u) and c (v): the exact
// test behind ClosestPointTree::closest, for searches over triangles of their own choosing that
// must find the very point the tree finds. A degenerate triangle falls back to its edges.
struct TrianglePoint {
    Vec3f point;
    float u = 0.0f;
    float v = 0.0f;
};
TrianglePoint closestPointOnTriangle(const Vec3f& p, const Vec3f& a, const Vec3f& b,
                                     const Vec3f& c);

// Closest-point tree: built as a binary tree of boxes split near the median of the longest axis
// of the triangles' centres, then collapsed to four children per node. A node keeps its children's
// boxes side by side and a leaf keeps its (up to) four triangles' corners side by side, so one
// visit tests four boxes, or filters four triangles, at once (with SSE where the target has it),
// and a walk takes half as many steps as down the binary tree. Only triangles the filter leaves
// in reach get the exact test.
class ClosestPointTree {
  public:
    static constexpr std::uint32_t kLeafSize = 4;

    // Builds the tree over `triangles`, whose corners index `points`; neither is kept.
    ClosestPointTree(std::span<const Vec3f> points, std::span<const Triangle> triangles);

    ClosestPoint closest(const Vec3f& p, float maxDistance) const;
    // Whether closest(p, ...) is sure to give `triangle` its exact test while the best squared
    // distance it holds stays at or above `bestSquared`: neither a box round the triangle nor the
    // fast filter in front of the exact test passes over it. For searches of their own that must
    // agree with the tree: with `bestSquared` at most every other triangle's distance, the tree
    // meets the triangle, and so finds it if it is the nearest.
    bool testsTriangle(const Vec3f& p, std::uint32_t triangle, float bestSquared) const;
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
    std::vector<std::uint32_t> order_;   // triangle index of each slot, kNoTriangle if spare
    std::vector<std::uint32_t> slotOf_;  // the slot of each triangle
};

}  // namespace velmorin
