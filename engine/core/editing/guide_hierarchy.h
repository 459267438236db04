#pragma once
// The guide hierarchy: the editable guide layer of a groom. A forest of named groups holds
// hand-placed or generated guide curves: a root group holds primaries, which are bound to the
// scalp, and a child group holds children, each living on a guide of the parent group and
// following it through offsets in that guide's transport frames and tube. Everything the brushes,
// the guides command and the transfer change ends up here, and its guide data JSON is what the
// groom node and the groom file store. All positions are in scalp object space.
//
// Every operation that can fail throws std::invalid_argument before it changes anything. The class
// has no lock: one writer at a time. pose, toJson and fromJson run parallel loops inside.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "editing/tube_shapes.h"
#include "strands/guide.h"

namespace velmorin {

class ScalpMesh;

// The version of guide data JSON that this Velmorin writes and reads.
inline constexpr int kGuideDataVersion = 1;

struct GuideGroup {
    std::uint32_t id = 0;       // never 0
    std::string name;           // unique within the hierarchy
    std::uint32_t parent = 0;   // parent group; 0 for a root group
    bool colorSet = false;      // a display colour was chosen
    Vec3f color;                // display colour; session state, not in guide data
    std::int32_t segments = 0;  // default segment count of the group's guides, 0 (none) to 256
};

// How generateChildren spreads children. Spreads and jitter are in tube units: times the child's
// tube width (its parent's times tubeScale) and the hierarchy's scale. Twist turns the spread from
// root to tip, in degrees.
struct ChildOptions {
    int count = 10;
    float rootSpread = 1.0f;
    float tipSpread = 1.0f;
    float twist = 0.0f;
    float jitter = 0.0f;
    float tubeScale = 1.0f;
    std::uint64_t seed = 0;
};

// How fromJson reads the guide array: the split scan with the whole parse behind it, only the
// split scan (throws when it can't be used; for tests and benchmarks), or only the whole parse.
enum class GuideReadMode : std::uint8_t { Automatic, SplitOnly, WholeParse };

// Guide id to position in the guide list: open addressing with linear probing on the FNV-1a hash
// of the id's eight bytes, so lookups stay constant and a million ids take one flat array. Id 0
// marks an empty slot (it is never a guide's).
class GuideIdIndex {
  public:
    static constexpr std::uint32_t kMissing = 0xffffffffu;

    void clear();
    void reserve(std::size_t count);
    std::uint32_t find(std::uint64_t id) const;  // kMissing when absent
    bool contains(std::uint64_t id) const { return find(id) != kMissing; }
    // False (and nothing changed) when the id is there already.
    bool insert(std::uint64_t id, std::uint32_t position);
    // Indexes the guides by their positions, in parallel. Returns 0, or an id that two guides
    // share (the index is then incomplete).
    std::uint64_t assign(const std::vector<Guide>& guides);
    std::size_t size() const { return count_; }

  private:
    struct Slot {
        std::uint64_t id = 0;
        std::uint32_t position = 0;
    };
    std::size_t slotOf(std::uint64_t id) const;
    void rehash(std::size_t capacity);

    std::vector<Slot> slots_;
    std::size_t count_ = 0;
};

class GuideHierarchy {
  public:
    GuideHierarchy() = default;

    // --- Reading -----------------------------------------------------------------------------
    const std::vector<GuideGroup>& groups() const { return groups_; }
    const GuideGroup* findGroup(std::uint32_t id) const;
    const GuideGroup* findGroup(std::string_view name) const;
    // Parent steps up to a root group (0 for a root group). The walk stops after as many steps as
    // there are groups, so a cycle in loaded data ends it.
    int groupLevel(std::uint32_t id) const;

    // Guides in creation order. Their positions change with removals.
    const std::vector<Guide>& guides() const { return guides_; }
    const Guide* findGuide(std::uint64_t id) const;

    std::uint32_t nextGroupId() const { return nextGroupId_; }
    std::uint64_t nextGuideId() const { return nextGuideId_; }
    // Topology signature of the scalp the roots were bound to; 0 for none.
    std::uint64_t scalpTopology() const { return scalpTopology_; }
    // The groom's scale reference: offsets and captured points are in units of it.
    float scale() const { return scale_; }
    // Throws "setScale: the scale must be above 0".
    void setScale(float scale);

    const TubeShapeLibrary& tubeShapes() const { return tubeShapes_; }
    // What fromJson noticed but read anyway, one line each.
    const std::vector<std::string>& loadWarnings() const { return loadWarnings_; }

    // Whether the guide or any guide up its parent chain has "freeze" at 0.5 or more.
    bool isFrozen(std::uint64_t id) const;

    // A hash of everything the hierarchy holds (group colours aside), computed on first demand and
    // kept until the next change. Not for several threads at once.
    std::uint64_t contentHash() const;

    // --- Groups --------------------------------------------------------------------------------
    // Throws "a guide group needs a name", "addGroup: unknown parent group",
    // "addGroup: group 'x' exists" (even under another parent).
    std::uint32_t addGroup(const std::string& name, std::uint32_t parent);
    // Throws "no such guide group", "a guide group needs a name", "a guide group named 'x' exists".
    void renameGroup(std::uint32_t id, const std::string& name);
    // Removes the group, every group below it and all their guides. Throws "no such guide group".
    void removeGroup(std::uint32_t id);
    void setGroupSegments(std::uint32_t group, int segments);
    // Resamples the group's guides to its segment count (or their most common one); returns the
    // count used, 0 when there was none to use.
    int resetGroupSegments(std::uint32_t group);
    void setGroupColor(std::uint32_t group, const Vec3f& color);
    // The group takes its parent's parent; each guide follows its grandparent, or becomes a
    // primary when its parent was one.
    void promoteGroup(std::uint32_t group);
    // The group becomes a child of its sibling `newParent`; each guide follows the guide of
    // `newParent` whose first point lies nearest its own.
    void demoteGroup(std::uint32_t group, std::uint32_t newParent);

    // --- Guides --------------------------------------------------------------------------------
    // A primary in a root group; `id` 0 takes the next free id. Registers the tube's custom shape
    // in the library (a shape of the same name already there is the one the guide takes).
    std::uint64_t addGuide(std::uint32_t group, std::vector<Vec3f> points, TubeFields tube = {},
                           std::uint64_t id = 0);
    // A child of `parent` in a child group, its offsets taken from `points`. With no tube, or an
    // empty one, it takes its parent's.
    std::uint64_t addChildGuide(std::uint32_t group, std::uint64_t parent,
                                std::vector<Vec3f> points,
                                std::optional<TubeFields> tube = std::nullopt);
    // `options.count` children for each listed guide of `parentGroup` with 2 points or more, in
    // the group named `childGroupName` (made when absent). Regenerating replaces the children of
    // these parents there; the same seed gives the same ids and points. `existingGroup`, when
    // given, says whether the group was there before.
    std::uint32_t generateChildren(std::uint32_t parentGroup, const std::string& childGroupName,
                                   std::span<const std::uint64_t> parents,
                                   const ChildOptions& options, bool* existingGroup = nullptr);
    // Removes the guides and their whole subtrees; unknown ids are passed over. Returns how many
    // guides went.
    std::size_t removeGuides(std::span<const std::uint64_t> ids);
    // Each guide follows `newParent`, which must be in the parent group of the guide's group.
    void reparent(std::span<const std::uint64_t> ids, std::uint64_t newParent);
    // Replaces the far side of a root group by a mirror image of the source side about the plane
    // coordinate[axis] = plane; guides on the plane stay. Returns the new guides' ids.
    std::vector<std::uint64_t> mirrorGroup(std::uint32_t group, int axis, float plane,
                                           bool positiveSide);
    // mirrorGroup for every root group, then the children of each mirrored primary re-made on the
    // mirrored side, depth first.
    std::vector<std::uint64_t> mirrorAll(int axis, float plane, bool positiveSide);

    // Replaces a guide's points: forgets its captured surface points, re-derives a child's offsets
    // (its root held where it follows to, with the change eased in along the root blend) and
    // resamples every point attribute. Throws "setPoints: unknown guide".
    void setPoints(std::uint64_t id, std::vector<Vec3f> points);
    // setPoints that carries frameUp along by parallel transport from the old first direction to
    // the new one. Quiet: an unknown id or under 2 points does nothing.
    void setFrameTo(std::uint64_t id, std::vector<Vec3f> points);
    // Resamples each guide to `segments` + 1 points, passing over guides of under 2 points, frozen
    // ones, and with `keepOwn` those whose segment count was set by hand. Returns how many changed.
    int resample(std::span<const std::uint64_t> ids, int segments, bool keepOwn);
    // Locks children (they keep their points, bound to the scalp at the next pose) or unlocks them
    // (they follow again from their points as they are). Primaries and unknown ids are passed over.
    void setLocked(std::span<const std::uint64_t> ids, bool locked);
    // Gives a guide a tube, registering its custom shape. Throws "setTube: unknown guide".
    void setTube(std::uint64_t id, TubeFields tube);

    // --- Attributes ----------------------------------------------------------------------------
    // Gives every guide the attribute with `value`. Throws "a guide attribute needs a name",
    // "a guide attribute named 'x' already exists".
    void addAttribute(const std::string& name, float value);
    // Renames the attribute on every guide that has it; returns how many. Throws
    // "a guide attribute named 'new' already exists" when a guide has both names.
    std::size_t renameAttribute(const std::string& oldName, const std::string& newName);
    // Removes it from every guide that has it; returns how many.
    std::size_t removeAttribute(const std::string& name);
    // Sets it on every guide that has it; returns how many.
    std::size_t setAttribute(const std::string& name, float value);
    // Sets it on the listed guides, adding it where missing ("freeze" is one such). Throws
    // "setGuideAttribute: unknown guide".
    void setGuideAttribute(std::span<const std::uint64_t> ids, const std::string& name,
                           float value);

    // Sets a per-point layer on one guide. Throws "setPointAttribute: unknown guide".
    void setPointAttribute(std::uint64_t id, const std::string& name, std::vector<float> values);

    // --- Tube shapes ---------------------------------------------------------------------------
    // Throws "a tube shape named 'x' exists".
    void addTubeShape(std::shared_ptr<const CustomTubeShape> shape);
    // Renames a library shape and the shape of every guide that uses it. Throws
    // "no tube shape named 'x'", the name rules, "a tube shape named 'x' exists".
    void renameTubeShape(const std::string& oldName, const std::string& newName);
    // Replaces the library shape of the same name; guides that use it take the new outline.
    void setTubeShape(std::shared_ptr<const CustomTubeShape> shape);
    // Removes a library shape; guides that used it go round.
    void removeTubeShape(const std::string& name);

    // --- Scalp ---------------------------------------------------------------------------------
    // Binds and poses every guide on the scalp, level by level (parents first): bound guides move
    // with their captured surface points, unbound primaries bind to the closest scalp location
    // (turned round when drawn tip first), children follow. A scalp of another topology than the
    // one bound to makes every guide rebind by position. Recomputes tubeClearance.
    void pose(const ScalpMesh& scalp);

    // --- Guide data JSON -----------------------------------------------------------------------
    // The canonical text: no spaces, keys in a fixed order, floats as the doubles of their f32.
    std::string toJson() const;
    // Reads guide data into a new hierarchy. Empty or blank text gives an empty one. Throws
    // SchemaError: the shared version check's message, or "invalid guide data: " and the reason.
    // `usedSplitScan`, when given, says whether the guide array was read by the split scan.
    static GuideHierarchy fromJson(std::string_view text,
                                   GuideReadMode mode = GuideReadMode::Automatic,
                                   bool* usedSplitScan = nullptr);

  private:
    friend class GuideDataReader;

    std::size_t groupIndex(std::uint32_t id) const;  // groups_.size() when absent
    std::size_t guideIndex(std::uint64_t id) const;  // guides_.size() when absent
    GuideGroup& groupOrThrow(std::uint32_t id, const char* message);
    void rebuildIndex();
    // Every mutation calls this: the content hash and the pose order are computed anew.
    void changed() {
        contentHash_.reset();
        poseOrder_.reset();
    }
    struct PoseOrder;
    std::shared_ptr<const PoseOrder> makePoseOrder() const;
    std::uint64_t takeGuideId();
    std::shared_ptr<const CustomTubeShape> registerShape(
        const std::shared_ptr<const CustomTubeShape>& shape);
    void removeWhere(const std::vector<char>& removed);
    void markSubtrees(std::vector<char>& removed) const;
    // Gives an unlocked child without points the points its parent chain makes.
    void ensurePoints(std::size_t index);
    void ensureAllPoints();
    // Re-derives an unlocked child's offsets from its points against its parent.
    void refreshOffsets(Guide& guide);
    void followParentOf(Guide& guide);
    bool frozenAt(std::size_t index) const;
    void applyPoints(Guide& guide, std::vector<Vec3f> points, bool rootBlend);
    void resampleGuide(Guide& guide, int segments);
    void mirrorRootGroup(std::size_t groupIdx, int axis, float plane, int sourceSide,
                         std::vector<std::pair<std::uint64_t, std::uint64_t>>& made);

    std::vector<GuideGroup> groups_;
    std::vector<Guide> guides_;
    GuideIdIndex index_;
    std::uint32_t nextGroupId_ = 1;
    std::uint64_t nextGuideId_ = 1;
    std::uint64_t scalpTopology_ = 0;
    float scale_ = 1.0f;
    TubeShapeLibrary tubeShapes_;
    std::vector<std::string> loadWarnings_;
    mutable std::optional<std::uint64_t> contentHash_;
    // The level order of the guides and who follows whom, kept between poses of an unchanged
    // hierarchy; copies share it.
    std::shared_ptr<const PoseOrder> poseOrder_;
};

}  // namespace velmorin
