#pragma once
// Curve geometry of guides: the axis rule for a perpendicular, arc-length resampling, transport
// frames along a polyline, and the mapping between a child's points and its offsets from the parent
// it follows (in the parent's transport frames and tube units).

#include <span>
#include <vector>

#include "base/vec3.h"
#include "editing/tube_shapes.h"

namespace velmorin {

// The unit perpendicular of `direction` made by crossing it with the world axis of its smallest
// absolute component (ties pick X first, then Y).
Vec3f axisPerpendicular(const Vec3f& direction);

// The unit direction of the first segment, or +Y for under 2 points or a zero first segment.
Vec3f firstDirection(std::span<const Vec3f> points);

// `up` made perpendicular to the unit `direction`, unit length; the axis rule when they are
// (nearly) parallel.
Vec3f perpendicularUp(const Vec3f& up, const Vec3f& direction);

// `up` carried by the smallest rotation that turns unit `from` into unit `to`.
Vec3f transportVector(const Vec3f& up, const Vec3f& from, const Vec3f& to);

float polylineLength(std::span<const Vec3f> points);

// `count` points spaced evenly by arc length along the polyline, its ends kept exactly. A polyline
// of no length gives `count` copies of its first point; no points give none.
void resampleByArcLength(std::span<const Vec3f> points, std::size_t count, std::vector<Vec3f>& out);

// An orthonormal frame on a curve: `tangent` along it, `up` carried from the root by parallel
// transport, `side` = up x tangent. Offsets map as x * side + y * up + z * tangent.
struct CurveFrame {
    Vec3f side;
    Vec3f up;
    Vec3f tangent;
};

// One frame per point of the polyline: tangents bisect the segments at inner points, the root's up
// is `frameUp` made perpendicular to the first tangent, and each next up is transported from the
// one before. Zero-length segments take the tangent of their neighbour.
void transportFrames(std::span<const Vec3f> points, const Vec3f& frameUp,
                     std::vector<CurveFrame>& out);

// A child's offsets list read at position t in 0..1 by linear interpolation; a single entry is
// constant and no entries give zero.
Vec3f offsetAt(std::span<const Vec3f> offsets, float t);

// The follow rule: out[i] = points[i] + frames[i] * scale * tubeOffset(offset(t), tube(t)) with
// t = i / (n - 1). A tube offset's x and y are scaled by the width and y again by the aspect, then
// turned by the twist; z runs along the tangent unscaled. `points`, `frames` and `out` have the
// child's point count.
void followParent(std::span<const Vec3f> points, std::span<const CurveFrame> frames,
                  std::span<const Vec3f> offsets, const TubeFields& tube, float scale,
                  std::span<Vec3f> out);

// The inverse of followParent for a child's own points: one offset per point. Where the tube has no
// width, the offset across it is 0.
void offsetsFromPoints(std::span<const Vec3f> points, std::span<const CurveFrame> frames,
                       std::span<const Vec3f> childPoints, const TubeFields& tube, float scale,
                       std::vector<Vec3f>& offsets);

}  // namespace velmorin
