#include "editing/guide_hierarchy.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <stdexcept>
#include <unordered_set>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/guide_curves.h"
#include "editing/guide_hierarchy_internal.h"

namespace velmorin {
namespace {

constexpr int kMaxSegments = 256;

using guide_hierarchy_internal::fail;
using guide_hierarchy_internal::inQuotes;
using guide_hierarchy_internal::ParentCurve;

// A per-point layer resampled by its index to `count` values, linear between neighbours.
void resampleLayer(std::vector<float>& layer, std::size_t count) {
    if (layer.empty() || layer.size() == count) return;
    std::vector<float> out(count);
    for (std::size_t i = 0; i < count; ++i) {
        const float t = count > 1 ? float(i) / float(count - 1) : 0.0f;
        if (layer.size() == 1) {
            out[i] = layer[0];
            continue;
        }
        const float x = t * float(layer.size() - 1);
        const std::size_t k = std::min(static_cast<std::size_t>(x), layer.size() - 2);
        const float f = x - float(k);
        out[i] = (1.0f - f) * layer[k] + f * layer[k + 1];
    }
    layer = std::move(out);
}

// How far from the root a hand edit of a child's root is eased out: the whole child for a plain
// parent tube, else about three tube radii of the parent's length.
float rootBlendReach(const Guide& parent, float scale) {
    const float parentLength = polylineLength(parent.points);
    if (isPlainTube(parent.tube) || !(parentLength > 0.0f)) return 1.0f;
    const TubeValues root = tubeValuesAt(parent.tube, 0.0f);
    return std::clamp(3.0f * root.width * scale * std::max(root.aspect, 1.0f) / parentLength,
                      0.001f, 1.0f);
}

}  // namespace

std::size_t GuideIdIndex::slotOf(std::uint64_t id) const {
    // FNV-1a over the eight bytes of the id, low byte first.
    std::uint64_t h = 0xcbf29ce484222325ull;
    for (int i = 0; i < 8; ++i) {
        h ^= (id >> (8 * i)) & 0xffu;
        h *= 0x100000001b3ull;
    }
    return static_cast<std::size_t>(h) & (slots_.size() - 1);
}

void GuideIdIndex::clear() {
    slots_.clear();
    count_ = 0;
}

void GuideIdIndex::reserve(std::size_t count) {
    // At most half full, so probes stay short.
    std::size_t capacity = 16;
    while (capacity < 2 * count)
        capacity *= 2;
    if (capacity > slots_.size()) rehash(capacity);
}

void GuideIdIndex::rehash(std::size_t capacity) {
    std::vector<Slot> old = std::move(slots_);
    slots_.assign(capacity, Slot{});
    count_ = 0;
    for (const Slot& slot : old)
        if (slot.id != 0) insert(slot.id, slot.position);
}

std::uint64_t GuideIdIndex::assign(const std::vector<Guide>& guides) {
    clear();
    reserve(guides.size());
    const std::size_t mask = slots_.size() - 1;
    std::atomic<std::uint64_t> duplicate{0};
    parallelRange(0, guides.size(), 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint64_t id = guides[i].id;
            for (std::size_t s = slotOf(id);; s = (s + 1) & mask) {
                // A slot is claimed by its id; its position is written by the claimer alone.
                std::uint64_t expected = 0;
                if (std::atomic_ref<std::uint64_t>(slots_[s].id)
                        .compare_exchange_strong(expected, id)) {
                    slots_[s].position = static_cast<std::uint32_t>(i);
                    break;
                }
                if (expected == id) {
                    duplicate.store(id, std::memory_order_relaxed);
                    break;
                }
            }
        }
    });
    count_ = guides.size();
    return duplicate.load();
}

std::uint32_t GuideIdIndex::find(std::uint64_t id) const {
    if (slots_.empty() || id == 0) return kMissing;
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t s = slotOf(id);; s = (s + 1) & mask) {
        if (slots_[s].id == id) return slots_[s].position;
        if (slots_[s].id == 0) return kMissing;
    }
}

bool GuideIdIndex::insert(std::uint64_t id, std::uint32_t position) {
    if (2 * (count_ + 1) > slots_.size()) rehash(std::max<std::size_t>(16, 2 * slots_.size()));
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t s = slotOf(id);; s = (s + 1) & mask) {
        if (slots_[s].id == id) return false;
        if (slots_[s].id == 0) {
            slots_[s] = {id, position};
            ++count_;
            return true;
        }
    }
}

// --- Reading -----------------------------------------------------------------------------------

std::size_t GuideHierarchy::groupIndex(std::uint32_t id) const {
    for (std::size_t i = 0; i < groups_.size(); ++i)
        if (groups_[i].id == id) return i;
    return groups_.size();
}

std::size_t GuideHierarchy::guideIndex(std::uint64_t id) const {
    const std::uint32_t found = index_.find(id);
    return found == GuideIdIndex::kMissing ? guides_.size() : found;
}

const GuideGroup* GuideHierarchy::findGroup(std::uint32_t id) const {
    const std::size_t index = groupIndex(id);
    return index < groups_.size() ? &groups_[index] : nullptr;
}

const GuideGroup* GuideHierarchy::findGroup(std::string_view name) const {
    for (const GuideGroup& group : groups_)
        if (group.name == name) return &group;
    return nullptr;
}

GuideGroup& GuideHierarchy::groupOrThrow(std::uint32_t id, const char* message) {
    const std::size_t index = groupIndex(id);
    if (index == groups_.size()) fail(message);
    return groups_[index];
}

int GuideHierarchy::groupLevel(std::uint32_t id) const {
    int level = 0;
    const GuideGroup* group = findGroup(id);
    for (std::size_t steps = 0; group && group->parent != 0 && steps < groups_.size(); ++steps) {
        group = findGroup(group->parent);
        ++level;
    }
    return level;
}

const Guide* GuideHierarchy::findGuide(std::uint64_t id) const {
    const std::size_t index = guideIndex(id);
    return index < guides_.size() ? &guides_[index] : nullptr;
}

void GuideHierarchy::setScale(float scale) {
    if (!(scale > 0.0f) || !std::isfinite(scale)) fail("setScale: the scale must be above 0");
    if (scale != scale_) changed();
    scale_ = scale;
}

bool GuideHierarchy::frozenAt(std::size_t index) const {
    for (std::size_t steps = 0; index < guides_.size() && steps <= guides_.size(); ++steps) {
        const Guide& guide = guides_[index];
        auto freeze = guide.attributes.find("freeze");
        if (freeze != guide.attributes.end() && freeze->second >= 0.5f) return true;
        if (guide.parent == 0) return false;
        index = guideIndex(guide.parent);
    }
    return false;
}

bool GuideHierarchy::isFrozen(std::uint64_t id) const {
    return frozenAt(guideIndex(id));
}

std::uint64_t GuideHierarchy::contentHash() const {
    if (contentHash_) return *contentHash_;
    auto floats = [](std::uint64_t h, std::span<const float> values) {
        h = hashCombine(h, values.size());
        for (const float v : values)
            h = hashCombine(h, floatBits(v));
        return h;
    };
    auto vectors = [](std::uint64_t h, std::span<const Vec3f> values) {
        h = hashCombine(h, values.size());
        for (const Vec3f& v : values) {
            h = hashCombine(hashCombine(hashCombine(h, floatBits(v.x)), floatBits(v.y)),
                            floatBits(v.z));
        }
        return h;
    };
    std::uint64_t h = hashCombine(mix64(groups_.size()), guides_.size());
    for (const GuideGroup& group : groups_) {
        h = hashText(hashCombine(h, group.id), group.name);
        h = hashCombine(hashCombine(h, group.parent), static_cast<std::uint32_t>(group.segments));
    }
    for (const Guide& g : guides_) {
        h = hashCombine(hashCombine(hashCombine(h, g.id), g.group), g.parent);
        h = hashCombine(h, (g.locked ? 1u : 0u) | (g.ownSegments ? 2u : 0u));
        h = hashCombine(h, static_cast<std::uint32_t>(g.pointCount));
        h = hashCombine(h, static_cast<std::uint64_t>(static_cast<std::int64_t>(g.root.face)));
        h = floats(h, std::array<float, 2>{g.root.u, g.root.v});
        h = hashText(h, tubeShapeNameOf(g.tube));
        h = floats(floats(floats(h, g.tube.width), g.tube.aspect), g.tube.twist);
        h = vectors(h, std::array<Vec3f, 2>{g.frameUp, g.frameUpLocal});
        for (const auto& [name, value] : g.attributes)
            h = floats(hashText(h, name), std::span<const float>(&value, 1));
        for (const auto& [name, layer] : g.pointAttributes)
            h = floats(hashText(h, name), layer);
        h = vectors(vectors(vectors(h, g.points), g.rootLocal), g.offsets);
    }
    h = hashCombine(hashCombine(h, scalpTopology_), floatBits(scale_));
    for (const auto& [name, shape] : tubeShapes_) {
        h = hashCombine(hashText(h, name), shape->smooth ? 1u : 0u);
        for (const TubePoint& p : shape->points)
            h = hashCombine(hashCombine(h, floatBits(p.x)), floatBits(p.y));
    }
    contentHash_ = h;
    return h;
}

// --- Bookkeeping -------------------------------------------------------------------------------

void GuideHierarchy::rebuildIndex() {
    index_.assign(guides_);
}

std::uint64_t GuideHierarchy::takeGuideId() {
    while (nextGuideId_ == 0 || index_.contains(nextGuideId_))
        ++nextGuideId_;
    return nextGuideId_++;
}

std::shared_ptr<const CustomTubeShape> GuideHierarchy::registerShape(
    const std::shared_ptr<const CustomTubeShape>& shape) {
    if (!shape) return nullptr;
    auto [found, inserted] = tubeShapes_.emplace(shape->name, shape);
    return found->second;
}

void GuideHierarchy::markSubtrees(std::vector<char>& removed) const {
    // Children per guide as one flat list (offsets into it per parent), then a walk down from
    // every marked guide.
    const std::size_t n = guides_.size();
    std::vector<std::uint32_t> first(n + 1, 0), parentOf(n, std::uint32_t(n));
    for (std::size_t i = 0; i < n; ++i) {
        if (guides_[i].parent == 0) continue;
        const std::size_t p = guideIndex(guides_[i].parent);
        if (p < n) {
            parentOf[i] = static_cast<std::uint32_t>(p);
            ++first[p + 1];
        }
    }
    for (std::size_t i = 0; i < n; ++i)
        first[i + 1] += first[i];
    std::vector<std::uint32_t> children(first[n]), fill(first.begin(), first.end() - 1);
    for (std::size_t i = 0; i < n; ++i)
        if (parentOf[i] < n) children[fill[parentOf[i]]++] = static_cast<std::uint32_t>(i);
    std::vector<std::uint32_t> stack;
    for (std::size_t i = 0; i < n; ++i)
        if (removed[i]) stack.push_back(static_cast<std::uint32_t>(i));
    while (!stack.empty()) {
        const std::uint32_t i = stack.back();
        stack.pop_back();
        for (std::uint32_t k = first[i]; k < first[i + 1]; ++k) {
            if (!removed[children[k]]) {
                removed[children[k]] = 1;
                stack.push_back(children[k]);
            }
        }
    }
}

void GuideHierarchy::removeWhere(const std::vector<char>& removed) {
    // The removed guides' own lists are let go of in parallel first: a regeneration removes a
    // million children at once.
    parallelRange(0, guides_.size(), 1024, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            if (removed[i]) guides_[i] = Guide();
    });
    std::size_t kept = 0;
    for (std::size_t i = 0; i < guides_.size(); ++i) {
        if (removed[i]) continue;
        if (kept != i) guides_[kept] = std::move(guides_[i]);
        ++kept;
    }
    guides_.resize(kept);
    rebuildIndex();
    changed();
}

void GuideHierarchy::followParentOf(Guide& guide) {
    const std::size_t p = guideIndex(guide.parent);
    if (p == guides_.size() || guides_[p].points.size() < 2) return;
    const Guide& parent = guides_[p];
    const std::size_t count =
        guide.pointCount > 0 ? std::size_t(guide.pointCount) : parent.points.size();
    ParentCurve curve;
    curve.build(parent, count);
    guide.points.resize(count);
    followParent(curve.points, curve.frames, guide.offsets, guide.tube, scale_, guide.points);
    guide.frameUp = perpendicularUp(curve.frames[0].up, firstDirection(guide.points));
}

void GuideHierarchy::ensurePoints(std::size_t index) {
    // The chain of unposed children up from this guide, then followed from the top down.
    std::vector<std::size_t> chain;
    for (std::size_t i = index; i < guides_.size() && chain.size() <= guides_.size();) {
        const Guide& guide = guides_[i];
        if (guide.parent == 0 || guide.locked || !guide.points.empty()) break;
        chain.push_back(i);
        i = guideIndex(guide.parent);
    }
    for (auto it = chain.rbegin(); it != chain.rend(); ++it)
        followParentOf(guides_[*it]);
}

void GuideHierarchy::ensureAllPoints() {
    for (std::size_t i = 0; i < guides_.size(); ++i)
        ensurePoints(i);
}

void GuideHierarchy::refreshOffsets(Guide& guide) {
    const std::size_t p = guideIndex(guide.parent);
    if (p == guides_.size() || guides_[p].points.size() < 2 || guide.points.empty()) return;
    const Guide& parent = guides_[p];
    ParentCurve curve;
    curve.build(parent, guide.points.size());
    offsetsFromPoints(curve.points, curve.frames, guide.points, guide.tube, scale_, guide.offsets);
    guide.pointCount = guide.points.size() == parent.points.size()
                           ? 0
                           : static_cast<std::int32_t>(guide.points.size());
}

void GuideHierarchy::applyPoints(Guide& guide, std::vector<Vec3f> points, bool edit) {
    const std::size_t p =
        guide.parent != 0 && !guide.locked ? guideIndex(guide.parent) : guides_.size();
    if (p < guides_.size() && guides_[p].points.size() >= 2 && !points.empty()) {
        // An unlocked child: its root stays where its parent puts it, and the hand-made change of
        // the root fades out along the root blend, so a child never leaves its place in the tube.
        const Guide& parent = guides_[p];
        ParentCurve curve;
        curve.build(parent, points.size());
        if (!guide.offsets.empty()) {
            Vec3f root;
            followParent(std::span(curve.points).first(1), curve.frames, guide.offsets, guide.tube,
                         scale_, std::span(&root, 1));
            const Vec3f difference = points[0] - root;
            const float reach = rootBlendReach(parent, scale_);
            const float step = points.size() > 1 ? 1.0f / float(points.size() - 1) : 0.0f;
            for (std::size_t i = 0; i < points.size(); ++i) {
                const float w = std::max(0.0f, 1.0f - float(i) * step / reach);
                points[i] -= difference * (w * w);
            }
        }
        offsetsFromPoints(curve.points, curve.frames, points, guide.tube, scale_, guide.offsets);
        guide.pointCount =
            points.size() == parent.points.size() ? 0 : static_cast<std::int32_t>(points.size());
    }
    guide.points = std::move(points);
    guide.rootLocal.clear();
    guide.tubeClearance.clear();
    if (edit) guide.needsUpRefresh = true;
    for (auto& [name, layer] : guide.pointAttributes)
        resampleLayer(layer, guide.points.size());
    changed();
}

void GuideHierarchy::resampleGuide(Guide& guide, int segments) {
    std::vector<Vec3f> points;
    resampleByArcLength(guide.points, static_cast<std::size_t>(segments) + 1, points);
    applyPoints(guide, std::move(points), true);
}

// --- Groups ------------------------------------------------------------------------------------

std::uint32_t GuideHierarchy::addGroup(const std::string& name, std::uint32_t parent) {
    if (name.empty()) fail("a guide group needs a name");
    if (parent != 0 && !findGroup(parent)) fail("addGroup: unknown parent group");
    if (findGroup(name)) fail("addGroup: group " + inQuotes(name) + " exists");
    GuideGroup group;
    group.id = nextGroupId_++;
    group.name = name;
    group.parent = parent;
    groups_.push_back(std::move(group));
    changed();
    return groups_.back().id;
}

void GuideHierarchy::renameGroup(std::uint32_t id, const std::string& name) {
    GuideGroup& group = groupOrThrow(id, "no such guide group");
    if (name.empty()) fail("a guide group needs a name");
    if (group.name == name) return;
    if (findGroup(name)) fail("a guide group named " + inQuotes(name) + " exists");
    group.name = name;
    changed();
}

void GuideHierarchy::removeGroup(std::uint32_t id) {
    groupOrThrow(id, "no such guide group");
    // The group and all below it: the groups whose parent walk reaches it.
    std::vector<char> goes(groups_.size(), 0);
    for (std::size_t i = 0; i < groups_.size(); ++i) {
        const GuideGroup* group = &groups_[i];
        for (std::size_t steps = 0; group && steps <= groups_.size(); ++steps) {
            if (group->id == id) {
                goes[i] = 1;
                break;
            }
            group = group->parent != 0 ? findGroup(group->parent) : nullptr;
        }
    }
    std::unordered_set<std::uint32_t> ids;
    for (std::size_t i = 0; i < groups_.size(); ++i)
        if (goes[i]) ids.insert(groups_[i].id);
    std::vector<char> removed(guides_.size(), 0);
    for (std::size_t i = 0; i < guides_.size(); ++i)
        removed[i] = ids.count(guides_[i].group) != 0;
    markSubtrees(removed);
    std::erase_if(groups_, [&](const GuideGroup& group) { return ids.count(group.id) != 0; });
    removeWhere(removed);
}

void GuideHierarchy::setGroupSegments(std::uint32_t group, int segments) {
    if (segments < 0 || segments > kMaxSegments) fail("setGroupSegments: segments are 0 to 256");
    GuideGroup& target = groupOrThrow(group, "setGroupSegments: unknown group");
    if (target.segments == segments) return;
    target.segments = segments;
    changed();
}

int GuideHierarchy::resetGroupSegments(std::uint32_t group) {
    GuideGroup& target = groupOrThrow(group, "resetGroupSegments: unknown group");
    int segments = target.segments;
    if (segments < 1) {
        // The most common count among the guides not set by hand (all guides when every one is);
        // the smaller count wins a tie.
        std::map<std::size_t, std::size_t> common, commonOwn;
        for (const Guide& guide : guides_) {
            if (guide.group != group || guide.points.size() < 2) continue;
            ++(guide.ownSegments ? commonOwn : common)[guide.points.size() - 1];
        }
        const auto& counts = common.empty() ? commonOwn : common;
        std::size_t best = 0, bestCount = 0;
        for (const auto& [count, how] : counts) {
            if (how > best) {
                best = how;
                bestCount = count;
            }
        }
        if (best == 0) return 0;
        segments = static_cast<int>(std::min<std::size_t>(bestCount, kMaxSegments));
    }
    std::vector<std::uint64_t> ids;
    for (std::size_t i = 0; i < guides_.size(); ++i) {
        if (guides_[i].group != group) continue;
        ids.push_back(guides_[i].id);
        if (!frozenAt(i) && guides_[i].ownSegments) {
            guides_[i].ownSegments = false;
            changed();
        }
    }
    resample(ids, segments, true);
    if (target.segments == 0) {
        target.segments = segments;
        changed();
    }
    return segments;
}

void GuideHierarchy::setGroupColor(std::uint32_t group, const Vec3f& color) {
    GuideGroup& target = groupOrThrow(group, "setGroupColor: unknown group");
    if (target.colorSet && target.color == color) return;
    target.colorSet = true;
    target.color = color;
    changed();
}

void GuideHierarchy::promoteGroup(std::uint32_t group) {
    GuideGroup& target = groupOrThrow(group, "promoteGroup: unknown group");
    if (target.parent == 0)
        fail("promoteGroup: " + inQuotes(target.name) + " is already a root group");
    const GuideGroup* parentGroup = findGroup(target.parent);
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (guides_[i].group == group) ensurePoints(i);
    // The new parents are read before any guide moves: a guide's parent is in another group.
    std::vector<std::pair<std::size_t, std::uint64_t>> moves;
    for (std::size_t i = 0; i < guides_.size(); ++i) {
        if (guides_[i].group != group) continue;
        const Guide* parent = findGuide(guides_[i].parent);
        moves.emplace_back(i, parent ? parent->parent : 0);
    }
    target.parent = parentGroup ? parentGroup->parent : 0;
    for (const auto& [i, grandparent] : moves) {
        Guide& guide = guides_[i];
        guide.parent = grandparent;
        if (grandparent == 0) {
            guide.locked = false;
            guide.offsets.clear();
            guide.pointCount = 0;
            guide.rootLocal.clear();
            guide.needsUpRefresh = true;
        } else if (!guide.locked) {
            refreshOffsets(guide);
        }
    }
    changed();
}

void GuideHierarchy::demoteGroup(std::uint32_t group, std::uint32_t newParent) {
    GuideGroup& target = groupOrThrow(group, "demoteGroup: unknown group");
    const GuideGroup* sibling = findGroup(newParent);
    if (!sibling || newParent == group || sibling->parent != target.parent)
        fail("demoteGroup: the new parent group must be a sibling of " + inQuotes(target.name));
    std::vector<std::size_t> candidates;
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (guides_[i].group == newParent) candidates.push_back(i);
    if (candidates.empty())
        fail("demoteGroup: " + inQuotes(sibling->name) + " has no guides to follow");
    for (std::size_t i = 0; i < guides_.size(); ++i)
        if (guides_[i].group == group || guides_[i].group == newParent) ensurePoints(i);
    for (std::size_t i = 0; i < guides_.size(); ++i) {
        Guide& guide = guides_[i];
        if (guide.group != group) continue;
        std::size_t nearest = candidates[0];
        if (!guide.points.empty()) {
            float best = std::numeric_limits<float>::infinity();
            for (const std::size_t c : candidates) {
                if (guides_[c].points.empty()) continue;
                const float d = lengthSquared(guides_[c].points[0] - guide.points[0]);
                if (d < best) {
                    best = d;
                    nearest = c;
                }
            }
        }
        guide.parent = guides_[nearest].id;
        guide.rootLocal.clear();
        if (!guide.locked) refreshOffsets(guide);
    }
    target.parent = newParent;
    changed();
}

// --- Guides ------------------------------------------------------------------------------------

std::uint64_t GuideHierarchy::addGuide(std::uint32_t group, std::vector<Vec3f> points,
                                       TubeFields tube, std::uint64_t id) {
    const GuideGroup* target = findGroup(group);
    if (!target) fail("addGuide: unknown group");
    if (target->parent != 0) fail("addGuide: primary guides belong in root groups");
    if (id != 0 && index_.contains(id)) fail("addGuide: duplicate guide id");
    Guide guide;
    guide.id = id != 0 ? id : takeGuideId();
    guide.group = group;
    guide.frameUp = axisPerpendicular(firstDirection(points));
    guide.points = std::move(points);
    tube.custom = registerShape(tube.custom);
    guide.tube = std::move(tube);
    guide.needsUpRefresh = true;
    index_.insert(guide.id, static_cast<std::uint32_t>(guides_.size()));
    guides_.push_back(std::move(guide));
    changed();
    return guides_.back().id;
}

std::size_t GuideHierarchy::removeGuides(std::span<const std::uint64_t> ids) {
    std::vector<char> removed(guides_.size(), 0);
    bool any = false;
    for (const std::uint64_t id : ids) {
        const std::size_t i = guideIndex(id);
        if (i < guides_.size()) removed[i] = any = true;
    }
    if (!any) return 0;
    markSubtrees(removed);
    const std::size_t before = guides_.size();
    removeWhere(removed);
    return before - guides_.size();
}

void GuideHierarchy::setPoints(std::uint64_t id, std::vector<Vec3f> points) {
    const std::size_t i = guideIndex(id);
    if (i == guides_.size()) fail("setPoints: unknown guide");
    applyPoints(guides_[i], std::move(points), true);
}

void GuideHierarchy::setFrameTo(std::uint64_t id, std::vector<Vec3f> points) {
    const std::size_t i = guideIndex(id);
    if (i == guides_.size() || points.size() < 2) return;
    Guide& guide = guides_[i];
    const Vec3f from = firstDirection(guide.points);
    const Vec3f to = firstDirection(points);
    guide.frameUp = perpendicularUp(transportVector(guide.frameUp, from, to), to);
    applyPoints(guide, std::move(points), false);
}

int GuideHierarchy::resample(std::span<const std::uint64_t> ids, int segments, bool keepOwn) {
    if (segments < 1 || segments > kMaxSegments) fail("resample: segments are 1 to 256");
    for (const std::uint64_t id : ids)
        if (guideIndex(id) == guides_.size()) fail("resample: no guide " + std::to_string(id));
    int resampled = 0;
    for (const std::uint64_t id : ids) {
        const std::size_t i = guideIndex(id);
        Guide& guide = guides_[i];
        if (guide.points.size() < 2 || frozenAt(i) || (keepOwn && guide.ownSegments)) continue;
        if (!keepOwn) {
            const GuideGroup* group = findGroup(guide.group);
            guide.ownSegments = !group || segments != group->segments;
        }
        resampleGuide(guide, segments);
        ++resampled;
    }
    return resampled;
}

void GuideHierarchy::setLocked(std::span<const std::uint64_t> ids, bool locked) {
    for (const std::uint64_t id : ids) {
        const std::size_t i = guideIndex(id);
        if (i == guides_.size() || guides_[i].parent == 0 || guides_[i].locked == locked) continue;
        ensurePoints(i);
        Guide& guide = guides_[i];
        guide.locked = locked;
        guide.rootLocal.clear();
        if (locked) {
            guide.offsets.clear();
            guide.pointCount = 0;
            guide.needsUpRefresh = true;
        } else {
            refreshOffsets(guide);
        }
        changed();
    }
}

void GuideHierarchy::setTube(std::uint64_t id, TubeFields tube) {
    const std::size_t i = guideIndex(id);
    if (i == guides_.size()) fail("setTube: unknown guide");
    tube.custom = registerShape(tube.custom);
    guides_[i].tube = std::move(tube);
    guides_[i].tubeClearance.clear();
    changed();
}

// --- Attributes --------------------------------------------------------------------------------

void GuideHierarchy::addAttribute(const std::string& name, float value) {
    if (name.empty()) fail("a guide attribute needs a name");
    for (const Guide& guide : guides_)
        if (guide.attributes.count(name) != 0)
            fail("a guide attribute named " + inQuotes(name) + " already exists");
    for (Guide& guide : guides_)
        guide.attributes.emplace(name, value);
    changed();
}

std::size_t GuideHierarchy::renameAttribute(const std::string& oldName,
                                            const std::string& newName) {
    if (newName.empty()) fail("a guide attribute needs a name");
    if (oldName == newName) return 0;
    for (const Guide& guide : guides_) {
        if (guide.attributes.count(oldName) != 0 && guide.attributes.count(newName) != 0)
            fail("a guide attribute named " + inQuotes(newName) + " already exists");
    }
    std::size_t renamed = 0;
    for (Guide& guide : guides_) {
        auto node = guide.attributes.extract(oldName);
        if (node.empty()) continue;
        node.key() = newName;
        guide.attributes.insert(std::move(node));
        ++renamed;
    }
    if (renamed > 0) changed();
    return renamed;
}

std::size_t GuideHierarchy::removeAttribute(const std::string& name) {
    std::size_t removed = 0;
    for (Guide& guide : guides_)
        removed += guide.attributes.erase(name);
    if (removed > 0) changed();
    return removed;
}

std::size_t GuideHierarchy::setAttribute(const std::string& name, float value) {
    std::size_t set = 0;
    for (Guide& guide : guides_) {
        auto found = guide.attributes.find(name);
        if (found == guide.attributes.end()) continue;
        found->second = value;
        ++set;
    }
    if (set > 0) changed();
    return set;
}

void GuideHierarchy::setGuideAttribute(std::span<const std::uint64_t> ids, const std::string& name,
                                       float value) {
    if (name.empty()) fail("a guide attribute needs a name");
    for (const std::uint64_t id : ids)
        if (guideIndex(id) == guides_.size()) fail("setGuideAttribute: unknown guide");
    for (const std::uint64_t id : ids)
        guides_[guideIndex(id)].attributes[name] = value;
    changed();
}

void GuideHierarchy::setPointAttribute(std::uint64_t id, const std::string& name,
                                       std::vector<float> values) {
    const std::size_t i = guideIndex(id);
    if (i == guides_.size()) fail("setPointAttribute: unknown guide");
    if (name.empty()) fail("a guide attribute needs a name");
    guides_[i].pointAttributes[name] = std::move(values);
    changed();
}

// --- Tube shapes -------------------------------------------------------------------------------

void GuideHierarchy::addTubeShape(std::shared_ptr<const CustomTubeShape> shape) {
    if (!shape) fail("addTubeShape: no shape given");
    if (tubeShapes_.count(shape->name) != 0)
        fail("a tube shape named " + inQuotes(shape->name) + " exists");
    tubeShapes_.emplace(shape->name, std::move(shape));
    changed();
}

void GuideHierarchy::renameTubeShape(const std::string& oldName, const std::string& newName) {
    auto found = tubeShapes_.find(oldName);
    if (found == tubeShapes_.end()) fail("no tube shape named " + inQuotes(oldName));
    if (oldName == newName) return;
    validateTubeShapeName(newName);
    if (tubeShapes_.count(newName) != 0)
        fail("a tube shape named " + inQuotes(newName) + " exists");
    auto renamed = std::make_shared<CustomTubeShape>(*found->second);
    renamed->name = newName;
    tubeShapes_.erase(found);
    tubeShapes_.emplace(newName, renamed);
    for (Guide& guide : guides_)
        if (guide.tube.custom && guide.tube.custom->name == oldName) guide.tube.custom = renamed;
    changed();
}

void GuideHierarchy::setTubeShape(std::shared_ptr<const CustomTubeShape> shape) {
    if (!shape) fail("setTubeShape: no shape given");
    auto found = tubeShapes_.find(shape->name);
    if (found == tubeShapes_.end()) fail("no tube shape named " + inQuotes(shape->name));
    found->second = shape;
    for (Guide& guide : guides_)
        if (guide.tube.custom && guide.tube.custom->name == shape->name) guide.tube.custom = shape;
    changed();
}

void GuideHierarchy::removeTubeShape(const std::string& name) {
    auto found = tubeShapes_.find(name);
    if (found == tubeShapes_.end()) fail("no tube shape named " + inQuotes(name));
    tubeShapes_.erase(found);
    for (Guide& guide : guides_) {
        if (guide.tube.custom && guide.tube.custom->name == name) {
            guide.tube.custom.reset();
            guide.tube.shape = TubeShape::Round;
        }
    }
    changed();
}

}  // namespace velmorin
