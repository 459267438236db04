// The guide hierarchy's operations that make guides from other guides: children placed on a
// parent, generated children, reparenting, and mirror images across an axis-aligned plane.
#include "editing/guide_hierarchy.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <unordered_set>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/guide_curves.h"
#include "editing/guide_hierarchy_internal.h"

namespace velmorin {
namespace {

using guide_hierarchy_internal::fail;
using guide_hierarchy_internal::inQuotes;
using guide_hierarchy_internal::ParentCurve;

constexpr std::uint64_t kSectionSeedSalt = 31582;
constexpr std::size_t kGenerateGrain = 16;  // parents per chunk: each makes `count` children
constexpr float kDegrees = std::numbers::pi_v<float> / 180.0f;

Vec3f reflect(const Vec3f& p, int axis, float plane) {
    Vec3f out = p;
    float& coordinate = axis == 0 ? out.x : axis == 1 ? out.y : out.z;
    coordinate = 2.0f * plane - coordinate;
    return out;
}

Vec3f negateAxis(const Vec3f& v, int axis) {
    Vec3f out = v;
    float& coordinate = axis == 0 ? out.x : axis == 1 ? out.y : out.z;
    coordinate = -coordinate;
    return out;
}

// The mirror image of a guide under a new id: its points reflected, the rest of what it carries
// copied, its up vector re-derived at the next pose. Parent and lock are the caller's to set.
Guide mirroredCopy(const Guide& source, std::uint64_t id, int axis, float plane) {
    Guide copy;
    copy.id = id;
    copy.group = source.group;
    copy.root = source.root;
    copy.tube = source.tube;
    copy.attributes = source.attributes;
    copy.pointAttributes = source.pointAttributes;
    copy.ownSegments = source.ownSegments;
    copy.frameUp = negateAxis(source.frameUp, axis);
    copy.needsUpRefresh = true;
    copy.points.reserve(source.points.size());
    for (const Vec3f& point : source.points)
        copy.points.push_back(reflect(point, axis, plane));
    return copy;
}

// -1, 0 (on the plane, within a tolerance that grows with the guide's size) or +1.
int mirrorSide(const Guide& guide, int axis, float plane) {
    if (guide.points.empty()) return 0;
    const Vec3f& root = guide.points[0];
    const float d = root[axis] - plane;
    const float largest = std::max({std::fabs(root.x), std::fabs(root.y), std::fabs(root.z)});
    const float tolerance = 1e-5f * (polylineLength(guide.points) + largest);
    if (std::fabs(d) <= tolerance) return 0;
    return d > 0.0f ? 1 : -1;
}

}  // namespace

std::uint64_t GuideHierarchy::addChildGuide(std::uint32_t group, std::uint64_t parent,
                                            std::vector<Vec3f> points,
                                            std::optional<TubeFields> tube) {
    const GuideGroup* target = findGroup(group);
    if (!target || target->parent == 0) fail("addChildGuide: not a child group");
    const std::size_t p = guideIndex(parent);
    if (p == guides_.size() || guides_[p].group != target->parent)
        fail("addChildGuide: the parent must be in the group's parent group");
    if (points.size() < 2) fail("addChildGuide: a guide needs at least 2 points");
    ensurePoints(p);
    const Guide& parentGuide = guides_[p];
    Guide guide;
    guide.id = takeGuideId();
    guide.group = group;
    guide.parent = parent;
    guide.tube = !tube || isEmptyTube(*tube) ? parentGuide.tube : std::move(*tube);
    guide.tube.custom = registerShape(guide.tube.custom);
    guide.frameUp = !isPlainTube(parentGuide.tube)
                        ? perpendicularUp(parentGuide.frameUp, firstDirection(parentGuide.points))
                        : axisPerpendicular(firstDirection(points));
    guide.points = std::move(points);
    guide.needsUpRefresh = true;
    refreshOffsets(guide);
    index_.insert(guide.id, static_cast<std::uint32_t>(guides_.size()));
    guides_.push_back(std::move(guide));
    changed();
    return guides_.back().id;
}

std::uint32_t GuideHierarchy::generateChildren(std::uint32_t parentGroup,
                                               const std::string& childGroupName,
                                               std::span<const std::uint64_t> parents,
                                               const ChildOptions& options, bool* existingGroup) {
    if (!findGroup(parentGroup)) fail("generateChildren: unknown parent group");
    for (const std::uint64_t id : parents) {
        const Guide* guide = findGuide(id);
        if (!guide || guide->group != parentGroup)
            fail("generateChildren: guide " + std::to_string(id) + " is not in the parent group");
    }
    const GuideGroup* existing = findGroup(childGroupName);
    if (existing && existing->parent != parentGroup) {
        fail("generateChildren: group " + inQuotes(childGroupName) +
             " belongs to another parent group");
    }
    if (existingGroup) *existingGroup = existing != nullptr;
    const std::uint32_t group = existing ? existing->id : addGroup(childGroupName, parentGroup);

    // Each listed parent once, in the order given.
    std::vector<std::uint64_t> parentIds;
    std::unordered_set<std::uint64_t> seen;
    for (const std::uint64_t id : parents)
        if (seen.insert(id).second) parentIds.push_back(id);
    for (const std::uint64_t id : parentIds)
        ensurePoints(guideIndex(id));
    if (existing) {
        // Regeneration replaces the children these parents have in the group.
        std::vector<char> removed(guides_.size(), 0);
        bool any = false;
        for (std::size_t i = 0; i < guides_.size(); ++i) {
            if (guides_[i].group == group && seen.count(guides_[i].parent) != 0) {
                removed[i] = 1;
                any = true;
            }
        }
        if (any) {
            markSubtrees(removed);
            removeWhere(removed);
        }
    }

    // Ids first, one after another: a hashed id already in use is hashed again, so the same seed
    // regenerates the same ids.
    const std::size_t count = static_cast<std::size_t>(std::max(options.count, 0));
    std::vector<std::uint32_t> makers;  // parent positions, one per parent that has children
    for (const std::uint64_t id : parentIds) {
        const std::size_t p = guideIndex(id);
        if (p < guides_.size() && guides_[p].points.size() >= 2 && count > 0)
            makers.push_back(static_cast<std::uint32_t>(p));
    }
    const std::size_t first = guides_.size();
    const std::size_t total = makers.size() * count;
    guides_.resize(first + total);
    index_.reserve(first + total);
    for (std::size_t m = 0; m < makers.size(); ++m) {
        const std::uint64_t parentId = guides_[makers[m]].id;
        const std::uint64_t base = hashCombine(mix64(parentId), options.seed);
        for (std::size_t i = 0; i < count; ++i) {
            std::uint64_t id = hashCombine(base, i);
            while (id == 0 || index_.contains(id))
                id = mix64(id);
            const std::size_t slot = first + m * count + i;
            guides_[slot].id = id;
            index_.insert(id, static_cast<std::uint32_t>(slot));
        }
    }

    const GuideGroup& made = *findGroup(group);
    parallelRange(0, makers.size(), kGenerateGrain, [&](std::size_t begin, std::size_t end) {
        ParentCurve curve;
        std::vector<Vec3f> resampled;
        for (std::size_t m = begin; m < end; ++m) {
            const Guide& parent = guides_[makers[m]];
            const std::size_t n = parent.points.size();
            curve.build(parent, n);
            const bool drawsInSection =
                parent.tube.custom != nullptr || parent.tube.shape != TubeShape::Round;
            TubeFields tube = parent.tube;
            if (tube.width.empty()) tube.width = {1.0f};
            for (float& w : tube.width)
                w *= options.tubeScale;
            for (std::size_t i = 0; i < count; ++i) {
                Guide& child = guides_[first + m * count + i];
                // The child's draws: u(k) for k = 2..5 from a SplitMix64 stream on mix64(id).
                const std::uint64_t s = mix64(child.id);
                auto u = [s](std::uint64_t k) { return unitFloat(s + (k - 1) * kGolden); };
                const float theta = 2.0f * std::numbers::pi_v<float> * u(3);
                const float rho = std::sqrt(u(2));
                const float j1 = 2.0f * u(4) - 1.0f, j2 = 2.0f * u(5) - 1.0f;
                TubePoint spot{rho * std::cos(theta), rho * std::sin(theta)};
                if (drawsInSection)
                    spot = sampleInside(parent.tube, 0.0f, hashCombine(child.id, kSectionSeedSalt));
                const Vec3f root{options.rootSpread * spot.x, options.rootSpread * spot.y, 0.0f};
                const Vec3f tip{options.tipSpread * spot.x + options.jitter * j2,
                                options.tipSpread * spot.y + options.jitter * j1, 0.0f};
                if (options.twist == 0.0f) {
                    // A straight blend from root to tip: its two ends read back the same values
                    // at every sample, in a few numbers.
                    child.offsets = {root, tip};
                } else {
                    child.offsets.resize(n);
                    for (std::size_t k = 0; k < n; ++k) {
                        const float t = n > 1 ? float(k) * (1.0f / float(n - 1)) : 0.0f;
                        const Vec3f o = root * (1.0f - t) + tip * t;
                        const float a = t * options.twist * kDegrees;
                        const float c = std::cos(a), sn = std::sin(a);
                        child.offsets[k] = {o.x * c - o.y * sn, o.x * sn + o.y * c, 0.0f};
                    }
                }
                child.group = group;
                child.parent = parent.id;
                child.tube = tube;
                child.needsUpRefresh = true;
                child.points.resize(n);
                followParent(curve.points, curve.frames, child.offsets, child.tube, scale_,
                             child.points);
                child.frameUp = perpendicularUp(curve.frames[0].up, firstDirection(child.points));
                if (made.segments > 0 && std::size_t(made.segments) + 1 != n) {
                    resampleByArcLength(child.points, std::size_t(made.segments) + 1, resampled);
                    ParentCurve own;
                    own.build(parent, resampled.size());
                    offsetsFromPoints(own.points, own.frames, resampled, child.tube, scale_,
                                      child.offsets);
                    child.pointCount = static_cast<std::int32_t>(resampled.size());
                    child.points = resampled;
                }
            }
        }
    });
    changed();
    return group;
}
void GuideHierarchy::reparent(std::span<const std::uint64_t> ids, std::uint64_t newParent) {
    const std::size_t p = guideIndex(newParent);
    if (p == guides_.size()) fail("reparent: unknown parent guide");
    for (const std::uint64_t id : ids) {
        const std::size_t i = guideIndex(id);
        if (i == guides_.size()) fail("reparent: unknown guide");
        const GuideGroup* group = findGroup(guides_[i].group);
        if (!group || group->parent != guides_[p].group)
            fail("reparent: the new parent must be in the guide's parent group");
    }
    ensurePoints(p);
    for (const std::uint64_t id : ids)
        ensurePoints(guideIndex(id));
    for (const std::uint64_t id : ids) {
        Guide& guide = guides_[guideIndex(id)];
        guide.parent = newParent;
        guide.rootLocal.clear();
        if (!guide.locked) refreshOffsets(guide);
    }
    changed();
}

void GuideHierarchy::mirrorRootGroup(std::size_t groupIdx, int axis, float plane, int sourceSide,
                                     std::vector<std::pair<std::uint64_t, std::uint64_t>>& made) {
    const std::uint32_t group = groups_[groupIdx].id;
    std::vector<char> removed(guides_.size(), 0);
    std::vector<std::uint64_t> sources;
    bool any = false;
    for (std::size_t i = 0; i < guides_.size(); ++i) {
        if (guides_[i].group != group) continue;
        const int side = mirrorSide(guides_[i], axis, plane);
        if (side == -sourceSide) removed[i] = any = true;
        if (side == sourceSide) sources.push_back(guides_[i].id);
    }
    if (any) {
        markSubtrees(removed);
        removeWhere(removed);
    }
    for (const std::uint64_t sourceId : sources) {
        Guide copy = mirroredCopy(guides_[guideIndex(sourceId)], takeGuideId(), axis, plane);
        made.emplace_back(sourceId, copy.id);
        index_.insert(copy.id, static_cast<std::uint32_t>(guides_.size()));
        guides_.push_back(std::move(copy));
    }
    changed();
}

std::vector<std::uint64_t> GuideHierarchy::mirrorGroup(std::uint32_t group, int axis, float plane,
                                                       bool positiveSide) {
    const std::size_t groupIdx = groupIndex(group);
    if (groupIdx == groups_.size()) fail("mirrorGroup: unknown group");
    if (axis < 0 || axis > 2) fail("mirrorGroup: axis must be 0, 1 or 2");
    if (groups_[groupIdx].parent != 0)
        fail("mirrorGroup: mirror root groups (then regenerate children)");
    std::vector<std::pair<std::uint64_t, std::uint64_t>> made;
    mirrorRootGroup(groupIdx, axis, plane, positiveSide ? 1 : -1, made);
    std::vector<std::uint64_t> ids;
    for (const auto& pair : made)
        ids.push_back(pair.second);
    return ids;
}

std::vector<std::uint64_t> GuideHierarchy::mirrorAll(int axis, float plane, bool positiveSide) {
    if (axis < 0 || axis > 2) fail("mirrorAll: axis must be 0, 1 or 2");
    ensureAllPoints();
    std::vector<std::pair<std::uint64_t, std::uint64_t>> made;
    for (std::size_t g = 0; g < groups_.size(); ++g)
        if (groups_[g].parent == 0) mirrorRootGroup(g, axis, plane, positiveSide ? 1 : -1, made);
    std::vector<std::uint64_t> ids;
    for (const auto& pair : made)
        ids.push_back(pair.second);

    // The children of each source, re-made under its mirror image, depth first. Only guides that
    // were there before are sources, so their children can be listed once.
    std::unordered_map<std::uint64_t, std::vector<std::size_t>> childrenById;
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (guides_[i].parent != 0) childrenById[guides_[i].parent].push_back(i);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> stack(made.rbegin(), made.rend());
    while (!stack.empty()) {
        const auto [sourceId, copyId] = stack.back();
        stack.pop_back();
        auto children = childrenById.find(sourceId);
        if (children == childrenById.end()) continue;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> next;
        for (const std::size_t c : children->second) {
            const Guide& child = guides_[c];
            Guide copy = mirroredCopy(child, takeGuideId(), axis, plane);
            copy.parent = copyId;
            copy.locked = child.locked;
            if (!copy.locked) refreshOffsets(copy);
            next.emplace_back(child.id, copy.id);
            ids.push_back(copy.id);
            index_.insert(copy.id, static_cast<std::uint32_t>(guides_.size()));
            guides_.push_back(std::move(copy));
        }
        stack.insert(stack.end(), next.rbegin(), next.rend());
    }
    changed();
    return ids;
}

}  // namespace velmorin
