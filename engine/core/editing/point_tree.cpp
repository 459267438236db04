#include "editing/point_tree.h"

#include <algorithm>

namespace velmorin {
namespace {

constexpr std::uint32_t kLeafSize = 8;

struct Best {
    int count = 0;
    int k = 0;
    std::uint32_t* indices;
    float* distances2;

    float worst() const { return count < k ? 3.4e38f : distances2[count - 1]; }
    // Sorted insertion by distance, then index.
    void offer(std::uint32_t index, float d2) {
        if (count == k && !(d2 < distances2[count - 1] ||
                            (d2 == distances2[count - 1] && index < indices[count - 1]))) {
            return;
        }
        int at = count < k ? count++ : count - 1;
        while (at > 0 &&
               (d2 < distances2[at - 1] || (d2 == distances2[at - 1] && index < indices[at - 1]))) {
            distances2[at] = distances2[at - 1];
            indices[at] = indices[at - 1];
            --at;
        }
        distances2[at] = d2;
        indices[at] = index;
    }
};

}  // namespace

PointTree::PointTree(std::span<const Vec3f> points) : points_(points.begin(), points.end()) {
    order_.resize(points_.size());
    for (std::uint32_t i = 0; i < order_.size(); ++i)
        order_[i] = i;
    if (!points_.empty()) {
        nodes_.reserve(2 * points_.size() / kLeafSize + 2);
        build(0, static_cast<std::uint32_t>(points_.size()));
    }
}

std::uint32_t PointTree::build(std::uint32_t begin, std::uint32_t end) {
    const auto index = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back({});
    if (end - begin <= kLeafSize) {
        nodes_[index] = {-1, 0.0f, begin, end, 0, 0};
        return index;
    }
    Vec3f low = points_[order_[begin]];
    Vec3f high = low;
    for (std::uint32_t k = begin; k < end; ++k) {
        low = minPerAxis(low, points_[order_[k]]);
        high = maxPerAxis(high, points_[order_[k]]);
    }
    const Vec3f extent = high - low;
    const int axis = extent.x >= extent.y && extent.x >= extent.z ? 0
                     : extent.y >= extent.z                       ? 1
                                                                  : 2;
    const std::uint32_t mid = begin + (end - begin) / 2;
    std::nth_element(order_.begin() + begin, order_.begin() + mid, order_.begin() + end,
                     [&](std::uint32_t a, std::uint32_t b) {
                         const float pa = points_[a][axis];
                         const float pb = points_[b][axis];
                         return pa != pb ? pa < pb : a < b;
                     });
    const float split = points_[order_[mid]][axis];
    const std::uint32_t left = build(begin, mid);
    const std::uint32_t right = build(mid, end);
    nodes_[index] = {axis, split, begin, end, left, right};
    return index;
}

int PointTree::nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2) const {
    k = std::clamp(k, 0, kMaxNearest);
    if (nodes_.empty() || k == 0) return 0;
    Best best{0, k, indices, distances2};
    // Depth-first, near side first. A side is skipped only when its plane lies strictly farther
    // than the worst distance kept, so that ties of lower index are still found; the test is made
    // again when a side is taken from the stack, against the worst distance of that time.
    struct Pending {
        std::uint32_t node;
        float planeDistance2;
    };
    Pending stack[64];
    int top = 0;
    stack[top++] = {0, 0.0f};
    while (top > 0) {
        const Pending pending = stack[--top];
        if (pending.planeDistance2 > best.worst()) continue;
        const Node& node = nodes_[pending.node];
        if (node.axis < 0) {
            for (std::uint32_t i = node.begin; i < node.end; ++i) {
                const std::uint32_t q = order_[i];
                best.offer(q, lengthSquared(points_[q] - p));
            }
            continue;
        }
        const float diff = p[node.axis] - node.split;
        const std::uint32_t nearChild = diff < 0.0f ? node.left : node.right;
        const std::uint32_t farChild = diff < 0.0f ? node.right : node.left;
        stack[top++] = {farChild, std::max(pending.planeDistance2, diff * diff)};
        stack[top++] = {nearChild, pending.planeDistance2};
    }
    return best.count;
}

void PointTree::within(const Vec3f& p, float radius, std::vector<std::uint32_t>& out) const {
    if (nodes_.empty() || !(radius >= 0.0f)) return;
    const float r2 = radius * radius;
    std::uint32_t stack[64];
    int top = 0;
    stack[top++] = 0;
    while (top > 0) {
        const Node& node = nodes_[stack[--top]];
        if (node.axis < 0) {
            for (std::uint32_t i = node.begin; i < node.end; ++i) {
                if (lengthSquared(points_[order_[i]] - p) <= r2) out.push_back(order_[i]);
            }
            continue;
        }
        const float diff = p[node.axis] - node.split;
        if (diff < 0.0f || diff * diff <= r2) stack[top++] = node.left;
        if (diff >= 0.0f || diff * diff <= r2) stack[top++] = node.right;
    }
}

}  // namespace velmorin
