#include "mesh/surface_graph.h"

#include <algorithm>
#include <functional>
#include <list>
#include <mutex>
#include <stdexcept>

namespace velmorin {
namespace {

constexpr std::size_t kKeptGraphs = 8;
constexpr float kFar = std::numeric_limits<float>::infinity();

}  // namespace

SurfaceGraph::SurfaceGraph(const ScalpMesh& mesh)
    : points_(mesh.points()), triangles_(mesh.triangles()) {
    const std::size_t count = points_.size();
    offsets_.assign(count + 1, 0);
    pieces_.assign(count, 0);
    if (!triangles_.empty()) {
        const std::shared_ptr<const SurfaceTopology> topology = mesh.topology();
        for (std::uint32_t p = 0; p < count; ++p) {
            for (std::uint32_t q : topology->vertexNeighbors(p))
                links_.push_back({q, length(points_[q] - points_[p])});
            offsets_[p + 1] = static_cast<std::uint32_t>(links_.size());
        }
    }
    // Pieces by flood fill from each lowest point not yet reached.
    constexpr std::uint32_t kUnset = std::numeric_limits<std::uint32_t>::max();
    std::fill(pieces_.begin(), pieces_.end(), kUnset);
    std::vector<std::uint32_t> stack;
    for (std::uint32_t p = 0; p < count; ++p) {
        if (pieces_[p] != kUnset) continue;
        const auto piece = static_cast<std::uint32_t>(pieceCount_++);
        pieces_[p] = piece;
        stack.assign(1, p);
        while (!stack.empty()) {
            const std::uint32_t at = stack.back();
            stack.pop_back();
            for (const Link& link : links(at)) {
                if (pieces_[link.point] != kUnset) continue;
                pieces_[link.point] = piece;
                stack.push_back(link.point);
            }
        }
    }
}

Vec3f SurfaceGraph::locationPoint(const StrandRoot& root) const {
    const Triangle& t = triangles_[static_cast<std::size_t>(root.face)];
    return points_[t[0]] * (1.0f - root.u - root.v) + points_[t[1]] * root.u +
           points_[t[2]] * root.v;
}

SurfaceGraph::Walk::Walk(const SurfaceGraph& graph)
    : graph_(graph), distance_(graph.pointCount(), kFar) {}

void SurfaceGraph::Walk::start(const StrandRoot& source) {
    // Only what the last walk touched is reset, so a short walk stays cheap on a large mesh.
    for (std::uint32_t point : touched_)
        distance_[point] = kFar;
    touched_.clear();
    heap_.clear();
    reached_.clear();
    if (source.face < 0 || static_cast<std::size_t>(source.face) >= graph_.triangles_.size())
        return;
    const Vec3f at = graph_.locationPoint(source);
    for (std::uint32_t corner : graph_.triangles_[static_cast<std::size_t>(source.face)])
        offer(corner, length(graph_.points_[corner] - at));
}

void SurfaceGraph::Walk::offer(std::uint32_t point, float d) {
    // Settled points hold a negative value, below any offer.
    if (!(d < distance_[point])) return;
    if (distance_[point] == kFar) touched_.push_back(point);
    distance_[point] = d;
    heap_.emplace_back(d, point);
    std::push_heap(heap_.begin(), heap_.end(), std::greater<>());
}

bool SurfaceGraph::Walk::settleNext(float maxDistance) {
    while (!heap_.empty()) {
        std::pop_heap(heap_.begin(), heap_.end(), std::greater<>());
        const auto [d, point] = heap_.back();
        heap_.pop_back();
        if (d > maxDistance) {
            heap_.clear();
            return false;
        }
        if (d != distance_[point]) continue;  // a stale entry: a shorter way was found
        reached_.push_back({point, d});
        distance_[point] = -1.0f;
        for (const Link& link : graph_.links(point))
            if (d + link.length <= maxDistance) offer(link.point, d + link.length);
        return true;
    }
    return false;
}

std::span<const SurfaceGraph::Reached> SurfaceGraph::Walk::from(const StrandRoot& source,
                                                                float maxDistance) {
    start(source);
    while (settleNext(maxDistance)) {
    }
    return reached_;
}

float SurfaceGraph::Walk::between(const StrandRoot& a, const StrandRoot& b, float maxDistance) {
    const std::size_t triangleCount = graph_.triangles_.size();
    const auto onMesh = [&](const StrandRoot& r) {
        return r.face >= 0 && static_cast<std::size_t>(r.face) < triangleCount;
    };
    if (!onMesh(a) || !onMesh(b)) return kFar;
    const Vec3f pa = graph_.locationPoint(a), pb = graph_.locationPoint(b);
    const Triangle& target = graph_.triangles_[static_cast<std::size_t>(b.face)];
    float best = kFar;
    if (a.face == b.face) {
        best = length(pb - pa);
    } else if (graph_.pieceOf(graph_.triangles_[static_cast<std::size_t>(a.face)][0]) ==
               graph_.pieceOf(target[0])) {
        // Points settle nearest first: once the next one is no nearer than the best path found,
        // no later one can give a shorter path.
        start(a);
        while (settleNext(std::min(maxDistance, best))) {
            const Reached& r = reached_.back();
            if (std::find(target.begin(), target.end(), r.point) != target.end())
                best = std::min(best, r.distance + length(pb - graph_.points_[r.point]));
        }
    }
    return best <= maxDistance ? best : kFar;
}

std::shared_ptr<const SurfaceGraph> sharedSurfaceGraph(
    const std::shared_ptr<const ScalpMesh>& mesh) {
    if (!mesh) throw std::invalid_argument("sharedSurfaceGraph: no mesh was given.");
    const std::uint64_t identity = mesh->contentSignature();
    static std::mutex mutex;
    static std::list<std::pair<std::uint64_t, std::shared_ptr<const SurfaceGraph>>> kept;
    std::lock_guard lock(mutex);
    for (auto it = kept.begin(); it != kept.end(); ++it) {
        if (it->first != identity) continue;
        kept.splice(kept.begin(), kept, it);
        return it->second;
    }
    kept.emplace_front(identity, std::make_shared<const SurfaceGraph>(*mesh));
    if (kept.size() > kKeptGraphs) kept.pop_back();
    return kept.front().second;
}

}  // namespace velmorin
