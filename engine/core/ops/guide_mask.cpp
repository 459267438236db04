#include "ops/guide_mask.h"

#include <algorithm>
#include <cmath>

#include "base/hash.h"
#include "editing/tube_shapes.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

constexpr float kDegrees = 3.14159265358979f / 180.0f;

}  // namespace

GuideMask::GuideMask(const std::vector<Guide>& guides, const ScalpMesh& scalp, float radius,
                     float tubeMargin) {
    radius2_ = radius * radius;
    const float margin = std::max(0.0f, tubeMargin);
    std::uint64_t footprintKey = 0x666f6f74ull;
    std::size_t guideCount = 0;
    for (const Guide& guide : guides) {
        if (guide.points.empty()) continue;
        ++guideCount;
        const Vec3f root = guide.points.front();
        if (guide.points.size() < 2 || isEmptyTube(guide.tube)) {
            discCentres_.push_back(root);
            continue;
        }
        Footprint footprint;
        footprint.tube = guide.tube;
        footprint.origin = root;
        if (scalp.isOnSurface(guide.root)) {
            const SurfaceFrame frame = scalp.frameAt(guide.root);
            footprint.side = frame.tangent;
            footprint.up = frame.bitangent;
            footprint.normal = frame.normal;
        } else {
            // An unbound guide: its section lies across its first segment.
            const Vec3f along = normalized(guide.points[1] - root, {0.0f, 1.0f, 0.0f});
            const Vec3f helper =
                std::fabs(along.x) < 0.9f ? Vec3f{1.0f, 0.0f, 0.0f} : Vec3f{0.0f, 0.0f, 1.0f};
            footprint.side = normalized(cross(helper, along));
            footprint.up = cross(along, footprint.side);
            footprint.normal = along;
        }
        const TubeValues values = tubeValuesAt(guide.tube, 0.0f);
        footprint.width = std::max(values.width, 1e-12f);
        footprint.aspect = values.aspect;
        footprint.cosTwist = std::cos(values.twist * kDegrees);
        footprint.sinTwist = std::sin(values.twist * kDegrees);
        footprint.margin = margin;
        footprint.reach =
            footprint.width * std::max(1.0f, footprint.aspect) * (1.0f + margin) * 1.41421357f;
        footprintReach_ = std::max(footprintReach_, footprint.reach);
        for (const float f :
             {root.x, root.y, root.z, footprint.width, footprint.aspect, values.twist, margin})
            footprintKey = hashCombine(footprintKey, floatBits(f));
        footprintKey = hashText(footprintKey, tubeShapeNameOf(guide.tube));
        for (const TubePoint& point : tubeOutline(guide.tube)) {
            footprintKey = hashCombine(footprintKey, floatBits(point.x));
            footprintKey = hashCombine(footprintKey, floatBits(point.y));
        }
        footprintCentres_.push_back(root);
        footprints_.push_back(std::move(footprint));
    }
    if (!discCentres_.empty()) discs_ = PointTree(discCentres_);
    if (!footprintCentres_.empty()) footprintTree_ = PointTree(footprintCentres_);

    std::uint64_t h = hashCombine(footprintKey, guideCount);
    h = hashCombine(h, floatBits(radius));
    for (const Vec3f& centre : discCentres_)
        for (const float f : {centre.x, centre.y, centre.z})
            h = hashCombine(h, floatBits(f));
    hash_ = h;
}

bool GuideMask::inFootprint(const Footprint& footprint, const Vec3f& position) const {
    const Vec3f d = position - footprint.origin;
    if (lengthSquared(d) > footprint.reach * footprint.reach) return false;
    // A footprint lies on the scalp: a point far off its plane is on another part of the surface.
    if (std::fabs(dot(d, footprint.normal)) > footprint.reach) return false;
    const float a = dot(d, footprint.side), b = dot(d, footprint.up);
    // Undo the twist, then the width and aspect, to reach section units.
    const float x = (a * footprint.cosTwist + b * footprint.sinTwist) / footprint.width;
    const float y =
        (-a * footprint.sinTwist + b * footprint.cosTwist) / (footprint.width * footprint.aspect);
    return tubeSectionDistance(footprint.tube, {x, y}) <= footprint.margin;
}

bool GuideMask::passes(const Vec3f& position) const {
    if (!discCentres_.empty()) {
        std::uint32_t index = 0;
        float distance2 = 0.0f;
        if (discs_.nearest(position, 1, &index, &distance2) > 0 && distance2 <= radius2_)
            return true;
    }
    if (footprints_.empty()) return false;
    // Few footprints reach a point; asking the tree for those within the largest reach keeps the
    // scan short. The buffer is the calling thread's own.
    thread_local std::vector<std::uint32_t> near;
    near.clear();
    footprintTree_.within(position, footprintReach_, near);
    for (const std::uint32_t index : near)
        if (inFootprint(footprints_[index], position)) return true;
    return false;
}

}  // namespace velmorin
