#pragma once
// Where a Scatter with a guide radius may put roots: within a radius of a guide's root, or, for a
// guide whose tube has a shape, on the tube's footprint at the root (its section outline laid on
// the scalp), widened by a share of the tube's half-width. Immutable once built; any number of
// threads may ask it.

#include <cstdint>
#include <memory>
#include <vector>

#include "base/vec3.h"
#include "editing/point_tree.h"
#include "strands/guide.h"

namespace velmorin {

class ScalpMesh;

class GuideMask {
  public:
    GuideMask() = default;
    // From every guide with at least one point. Guides whose tube has a shape and that have two
    // points or more give a footprint, the others a disc of `radius` round their first point.
    // Footprints are laid in the scalp's frame at the guide's root where the root is on `scalp`,
    // else in a frame about the guide's first segment.
    GuideMask(const std::vector<Guide>& guides, const ScalpMesh& scalp, float radius,
              float tubeMargin);

    // No disc and no footprint: the mask keeps nothing back and is not applied.
    bool empty() const { return discCentres_.empty() && footprints_.empty(); }
    bool passes(const Vec3f& position) const;
    // Folds the guide count, the radius and every root point after the footprints' own key.
    std::uint64_t hash() const { return hash_; }

  private:
    // A tube's section at the root, laid on the scalp: section x along `side`, y along `up`.
    struct Footprint {
        TubeFields tube;
        Vec3f origin;
        Vec3f side;
        Vec3f up;
        Vec3f normal;
        float width = 1.0f;
        float aspect = 1.0f;
        float cosTwist = 1.0f;
        float sinTwist = 0.0f;
        float margin = 0.0f;  // in section units, where the half-width is 1
        float reach = 0.0f;   // the farthest a point of the footprint lies from its origin
    };
    bool inFootprint(const Footprint& footprint, const Vec3f& position) const;

    float radius2_ = 0.0f;
    std::vector<Vec3f> discCentres_;
    PointTree discs_;
    std::vector<Footprint> footprints_;
    std::vector<Vec3f> footprintCentres_;
    PointTree footprintTree_;
    float footprintReach_ = 0.0f;  // the largest reach of any footprint
    std::uint64_t hash_ = 0;
};

}  // namespace velmorin
