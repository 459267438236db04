// Posing a guide hierarchy on a scalp: binding roots, moving bound guides with the surface,
// children following their parents level by level, and the tube clearance against the skin.

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <unordered_map>

#include "base/parallel.h"
#include "editing/guide_curves.h"
#include "editing/guide_hierarchy.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

namespace {

constexpr std::size_t kParallelRun = 64;  // a level of this many guides runs in parallel
constexpr std::size_t kPoseGrain = 64;
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
constexpr float kDegrees = std::numbers::pi_v<float> / 180.0f;

// The up vector a bound guide takes from the surface: the normal made perpendicular to the
// guide's first direction, so a flat tube lies along the skin; for a guide that grows along the
// normal, the surface tangent instead.
Vec3f surfaceUp(const SurfaceFrame& frame, std::span<const Vec3f> points) {
    const Vec3f direction = firstDirection(points);
    const Vec3f along = frame.normal - direction * dot(frame.normal, direction);
    if (lengthSquared(along) > 0.01f) return normalized(along);
    return perpendicularUp(frame.tangent, direction);
}

// How far the section of a non-plain tube sinks under the skin at each point: the depth of its
// lowest outline point along the surface normal below the nearest surface point, 0 where it stays
// clear. Points farther from the scalp than the section reaches are not looked up.
void computeClearance(Guide& guide, const ScalpMesh& scalp, float scale,
                      std::vector<CurveFrame>& frames) {
    const std::size_t n = guide.points.size();
    guide.tubeClearance.assign(n, 0.0f);
    if (n == 0 || scalp.triangleCount() == 0) return;
    transportFrames(guide.points, guide.frameUp, frames);
    const std::span<const TubePoint> outline = tubeOutline(guide.tube);
    float radius = 0.0f;
    for (const TubePoint& q : outline)
        radius = std::max(radius, std::hypot(q.x, q.y));
    for (std::size_t i = 0; i < n; ++i) {
        const float t = n > 1 ? float(i) / float(n - 1) : 0.0f;
        const TubeValues values = tubeValuesAt(guide.tube, t);
        const float reach =
            scale * std::fabs(values.width) * std::max(values.aspect, 1.0f) * radius;
        if (!(reach > 0.0f)) continue;
        const ClosestPoint hit = scalp.closestPoint(guide.points[i], reach);
        if (!hit.found()) continue;
        const Vec3f normal = scalp.normalAt(hit.root);
        const float height = dot(guide.points[i] - hit.point, normal);
        // The downward direction in the section's own coordinates, then the outline's reach along
        // it after width, aspect and twist.
        const float a = -dot(normal, frames[i].side) * scale;
        const float b = -dot(normal, frames[i].up) * scale;
        const float c = std::cos(values.twist * kDegrees), s = std::sin(values.twist * kDegrees);
        const float alongX = values.width * (a * c + b * s);
        const float alongY = values.width * values.aspect * (b * c - a * s);
        float deepest = -std::numeric_limits<float>::infinity();
        for (const TubePoint& q : outline)
            deepest = std::max(deepest, q.x * alongX + q.y * alongY);
        guide.tubeClearance[i] = std::max(0.0f, deepest - height);
    }
}

}  // namespace

// Who follows whom and the order of levels; depends only on the hierarchy's structure.
struct GuideHierarchy::PoseOrder {
    std::vector<std::uint32_t> order;       // guide positions, level by level, stable within one
    std::vector<std::size_t> levelStart;    // where each level begins in `order`, plus the end
    std::vector<char> levelParallel;        // whether a level's guides may run at once
    std::vector<std::uint32_t> parentOf;    // position of the guide an unlocked child follows
    std::vector<std::uint32_t> parentRank;  // per guide: its number among followed guides
    std::vector<std::vector<std::uint32_t>> parentsByLevel;  // followed guides, per level
    std::size_t parentCount = 0;
};

std::shared_ptr<const GuideHierarchy::PoseOrder> GuideHierarchy::makePoseOrder() const {
    auto made = std::make_shared<PoseOrder>();
    PoseOrder& o = *made;
    const std::size_t n = guides_.size();

    std::unordered_map<std::uint32_t, int> levelOf;
    int levels = 1;
    for (const GuideGroup& group : groups_) {
        const int level = groupLevel(group.id);
        levelOf.emplace(group.id, level);
        levels = std::max(levels, level + 1);
    }
    std::vector<int> guideLevel(n, 0);
    std::vector<std::size_t> counts(static_cast<std::size_t>(levels) + 1, 0);
    for (std::size_t i = 0; i < n; ++i) {
        auto found = levelOf.find(guides_[i].group);
        guideLevel[i] = found != levelOf.end() ? found->second : 0;
        ++counts[static_cast<std::size_t>(guideLevel[i]) + 1];
    }
    o.levelStart.assign(counts.size(), 0);
    for (std::size_t l = 1; l < counts.size(); ++l)
        o.levelStart[l] = o.levelStart[l - 1] + counts[l];
    o.order.resize(n);
    std::vector<std::size_t> fill(o.levelStart.begin(), o.levelStart.end() - 1);
    for (std::size_t i = 0; i < n; ++i)
        o.order[fill[static_cast<std::size_t>(guideLevel[i])]++] = static_cast<std::uint32_t>(i);

    o.parentOf.assign(n, kNone);
    parallelRange(0, n, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Guide& guide = guides_[i];
            if (guide.parent == 0 || guide.locked) continue;
            const std::size_t p = guideIndex(guide.parent);
            if (p < n && p != i) o.parentOf[i] = static_cast<std::uint32_t>(p);
        }
    });
    o.parentRank.assign(n, kNone);
    o.parentsByLevel.resize(static_cast<std::size_t>(levels));
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t p = o.parentOf[i];
        if (p == kNone || o.parentRank[p] != kNone) continue;
        o.parentRank[p] = static_cast<std::uint32_t>(o.parentCount++);
        o.parentsByLevel[static_cast<std::size_t>(guideLevel[p])].push_back(p);
    }

    // A level runs in parallel only when none of its guides follows another of the same level
    // (which only loaded data with a cycle of groups can hold).
    o.levelParallel.assign(static_cast<std::size_t>(levels), 0);
    for (std::size_t l = 0; l < static_cast<std::size_t>(levels); ++l) {
        const std::size_t size = o.levelStart[l + 1] - o.levelStart[l];
        bool independent = size >= kParallelRun;
        for (std::size_t k = o.levelStart[l]; independent && k < o.levelStart[l + 1]; ++k) {
            const std::uint32_t p = o.parentOf[o.order[k]];
            if (p != kNone && guideLevel[p] == int(l)) independent = false;
        }
        o.levelParallel[l] = independent;
    }
    return made;
}

void GuideHierarchy::pose(const ScalpMesh& scalp) {
    const bool hasFaces = scalp.triangleCount() > 0;
    if (hasFaces) {
        const std::uint64_t signature = scalp.topologySignature();
        if (scalpTopology_ != 0 && signature != scalpTopology_) {
            // Surface frames of another topology mean nothing here: every bound guide rebinds.
            for (Guide& guide : guides_)
                if (guide.parent == 0 || guide.locked) guide.rootLocal.clear();
        }
        scalpTopology_ = signature;
    }
    if (!poseOrder_) poseOrder_ = makePoseOrder();
    const PoseOrder& order = *poseOrder_;
    const float scale = scale_;

    // Frames of every followed guide, computed once after its level is posed and shared by all
    // its children.
    std::vector<std::size_t> frameStart(order.parentCount + 1, 0);
    std::vector<CurveFrame> frames;
    std::vector<char> framesReady(order.parentCount, 0);

    auto poseBound = [&](Guide& guide) {
        if (!hasFaces || guide.points.empty()) return;
        const bool onSurface = scalp.isOnSurface(guide.root);
        if (onSurface && guide.rootLocal.size() == guide.points.size()) {
            const SurfaceFrame frame = scalp.frameAt(guide.root);
            for (std::size_t i = 0; i < guide.points.size(); ++i)
                guide.points[i] = frame.toWorld(guide.rootLocal[i] * scale);
            guide.frameUp = normalized(frame.directionToWorld(guide.frameUpLocal),
                                       axisPerpendicular(firstDirection(guide.points)));
            if (guide.needsUpRefresh) {
                guide.frameUp = surfaceUp(frame, guide.points);
                guide.frameUpLocal = frame.directionToLocal(guide.frameUp);
            }
            guide.needsUpRefresh = false;
            return;
        }
        if (!onSurface) {
            ClosestPoint hit = scalp.closestPoint(guide.points.front());
            if (guide.parent == 0 && guide.points.size() >= 2) {
                // A curve drawn from the tip is turned round, so it grows from the skin.
                const ClosestPoint tip = scalp.closestPoint(guide.points.back());
                if (tip.found() && tip.distance < hit.distance) {
                    std::reverse(guide.points.begin(), guide.points.end());
                    for (auto& [name, layer] : guide.pointAttributes)
                        std::reverse(layer.begin(), layer.end());
                    guide.frameUp = axisPerpendicular(firstDirection(guide.points));
                    hit = tip;
                }
            }
            if (!hit.found()) return;
            guide.root = hit.root;
        } else if (scalp.pointAt(guide.root) != guide.points.front()) {
            const ClosestPoint hit = scalp.closestPoint(guide.points.front());
            if (hit.found()) guide.root = hit.root;
        }
        const SurfaceFrame frame = scalp.frameAt(guide.root);
        guide.rootLocal.resize(guide.points.size());
        for (std::size_t i = 0; i < guide.points.size(); ++i)
            guide.rootLocal[i] = frame.toLocal(guide.points[i]) / scale;
        if (guide.needsUpRefresh) guide.frameUp = surfaceUp(frame, guide.points);
        guide.frameUpLocal = frame.directionToLocal(guide.frameUp);
        guide.needsUpRefresh = false;
    };

    auto poseRange = [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> resampled;
        std::vector<CurveFrame> ownFrames;
        for (std::size_t k = begin; k < end; ++k) {
            const std::uint32_t i = order.order[k];
            Guide& guide = guides_[i];
            const std::uint32_t p = order.parentOf[i];
            if (guide.parent != 0 && !guide.locked) {
                guide.needsUpRefresh = false;
                if (p != kNone && guides_[p].points.size() >= 2) {
                    const Guide& parent = guides_[p];
                    const std::size_t count = guide.pointCount > 0
                                                  ? static_cast<std::size_t>(guide.pointCount)
                                                  : parent.points.size();
                    const std::uint32_t rank = order.parentRank[p];
                    std::span<const Vec3f> points = parent.points;
                    std::span<const CurveFrame> curve;
                    if (count == parent.points.size() && framesReady[rank]) {
                        curve = std::span(frames).subspan(frameStart[rank], count);
                    } else {
                        if (count != parent.points.size()) {
                            resampleByArcLength(parent.points, count, resampled);
                            points = resampled;
                        }
                        transportFrames(points, parent.frameUp, ownFrames);
                        curve = ownFrames;
                    }
                    guide.points.resize(count);
                    followParent(points, curve, guide.offsets, guide.tube, scale, guide.points);
                    guide.frameUp = perpendicularUp(curve[0].up, firstDirection(guide.points));
                }
            } else {
                poseBound(guide);
            }
            if (isPlainTube(guide.tube)) {
                guide.tubeClearance.clear();
            } else {
                computeClearance(guide, scalp, scale, ownFrames);
            }
        }
    };

    for (std::size_t level = 0; level + 1 < order.levelStart.size(); ++level) {
        const std::size_t begin = order.levelStart[level], end = order.levelStart[level + 1];
        if (order.levelParallel[level]) {
            parallelRange(begin, end, kPoseGrain, poseRange);
        } else {
            poseRange(begin, end);
        }
        // The frames of this level's followed guides, for the next level's children.
        const std::vector<std::uint32_t>& parents = order.parentsByLevel[level];
        if (parents.empty()) continue;
        std::size_t total = frames.size();
        for (const std::uint32_t p : parents) {
            frameStart[order.parentRank[p]] = total;
            total += guides_[p].points.size();
        }
        frames.resize(total);
        parallelRange(0, parents.size(), kPoseGrain, [&](std::size_t first, std::size_t last) {
            std::vector<CurveFrame> scratch;
            for (std::size_t k = first; k < last; ++k) {
                const Guide& parent = guides_[parents[k]];
                const std::uint32_t rank = order.parentRank[parents[k]];
                transportFrames(parent.points, parent.frameUp, scratch);
                std::copy(scratch.begin(), scratch.end(), frames.begin() + frameStart[rank]);
                framesReady[rank] = 1;
            }
        });
    }
    contentHash_.reset();
}

}  // namespace velmorin
