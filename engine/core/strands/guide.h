#pragma once
// Guides: the few, individually addressable curves an artist grooms by hand and from which the
// hair is grown. A GuideSet is the value that carries them along the node graph.

#include "base/vec3.h"
#include "strands/strand_root.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace velmorin {

// A drawn cross-section outline from a groom's shape library; editing/tube_shapes.h defines it.
struct CustomTubeShape;

// The built-in tube sections, by the number that guide data and the brushes store.
enum class TubeShape : std::uint8_t { Round = 0, Ribbon = 1, Teardrop = 2, Blade = 3 };

// A cross-section swept along a guide, which shapes how its children spread. Each list is read
// along the guide from root (first entry) to tip (last) by linear interpolation; one entry is
// constant, and an empty list stands for its default (width 1, aspect 1, twist 0).
struct TubeFields {
    TubeShape shape = TubeShape::Round;
    std::vector<float> width;   // radius of the section, in the guide's length unit; 0 or more
    std::vector<float> aspect;  // section height over width; above 0
    std::vector<float> twist;   // rotation of the section about the guide, in degrees
    std::shared_ptr<const CustomTubeShape> custom;  // when set, it takes the place of `shape`
};

// A plain record: the editing tools keep its invariants (editing/guide_hierarchy.h), the graph
// only reads it. The first five members are all that a guide of a GuideSet needs; the rest place
// it in a guide hierarchy.
struct Guide {
    std::uint64_t id = 0;  // stable across frames and edits; randomness hangs on it
    StrandRoot root;
    std::vector<Vec3f> points;                // root first
    std::map<std::string, float> attributes;  // one value per guide
    // One value per point; a layer whose length differs from points.size() is ignored by the
    // conversion to strands.
    std::map<std::string, std::vector<float>> pointAttributes;

    std::uint32_t group = 0;      // owning group of the hierarchy
    std::uint64_t parent = 0;     // guide followed; 0 for a primary
    bool locked = false;          // a locked child keeps its own points instead of following
    bool ownSegments = false;     // segment count set by hand, unlike its group's default
    bool needsUpRefresh = false;  // re-derive frameUp from the surface at the next pose
    // Child only: its own point count when it differs from the parent's; 0 means the parent's.
    std::int32_t pointCount = 0;
    TubeFields tube;
    Vec3f frameUp;       // up vector of the guide's transport frame at the root
    Vec3f frameUpLocal;  // frameUp in the surface frame of `root`
    // Per point: how far a non-plain tube's section sinks into the scalp; derived at every pose.
    std::vector<float> tubeClearance;
    // Primary or locked child: the points in the surface frame of `root`, divided by the
    // hierarchy's scale. Empty until captured.
    std::vector<Vec3f> rootLocal;
    // Unlocked child: per sample, the offset from its parent in the parent's transport frame and
    // tube units.
    std::vector<Vec3f> offsets;
};

// An ordered list of guides; the order is the order of the strands made from them.
struct GuideSet {
    std::vector<Guide> guides;
};

}  // namespace velmorin
