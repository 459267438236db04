#pragma once
// Catmull-Clark subdivision of a scalp, split into a plan that depends only on the topology and its
// application to positions. A plan is made once per topology and level count and then applied to
// every pose of that topology: a deforming scalp pays only for the weighted sums.
//
// Positions and per-vertex values are smoothed. Values that belong to face corners (UVs, colour
// sets) are not: each subdivided corner takes the cage's value at the place of the cage face it
// came from, spread linearly over the face's triangles. So a UV seam stays where it was, and a
// texture painted on the cage reads the same on the subdivided scalp as on the cage.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "mesh/scalp_mesh.h"

namespace velmorin {

class SubdivisionPlan {
  public:
    // Builds a plan afresh, without the shared list; prefer `of`. The cage's polygons are
    // recovered from its triangles (each polygon's triangles in a run, as the mesh keeps them).
    // Throws std::invalid_argument "SubdivisionPlan: levels must be 1 to 3".
    SubdivisionPlan(const ScalpMesh& cage, int levels);

    // The shared plan for the cage's topology (point count, triangles, polygons) and `levels`,
    // from a process-wide list of recently used plans, made on a miss. Thread safe.
    static std::shared_ptr<const SubdivisionPlan> of(const ScalpMesh& cage, int levels);

    int levels() const { return levels_; }
    std::size_t cagePointCount() const { return cagePointCount_; }
    // The subdivided surface: its point count, two triangles per quad, and a polygon count of 2 for
    // each quad. The cage's points keep their indices: point i of the result is the moved cage
    // point i, followed by the edge points and the face points of each level.
    std::size_t pointCount() const { return levelTables_.back().pointCount; }
    const std::vector<Triangle>& triangles() const { return triangles_; }
    const std::vector<std::int32_t>& polygons() const { return polygons_; }

    // The subdivided positions of cage points of this topology. Throws std::invalid_argument
    // "SubdivisionPlan: the points are not the cage's" for a list of another length.
    std::vector<Vec3f> apply(std::span<const Vec3f> cagePoints) const;
    // Any per-vertex list, smoothed the same way. Throws std::invalid_argument
    // "SubdivisionPlan: the values are not the cage's vertices'" for a list of another length.
    std::vector<float> applyValues(std::span<const float> values) const;
    std::vector<Vec3f> applyValues(std::span<const Vec3f> values) const;

    // For each corner of triangles(), three per triangle, the place on the cage that its
    // face-corner values come from: a cage triangle and barycentric (u, v) on it. The place lies
    // in the cage face that the subdivided face came from.
    const std::vector<StrandRoot>& cornerLocations() const { return cornerLocations_; }
    // Values of the cage's triangle corners (three per cage triangle) at the subdivided corners,
    // blended by cornerLocations(). Throws std::invalid_argument "SubdivisionPlan: the values
    // are not the cage's corners'" for a list of another length.
    std::vector<Uv> applyCorners(std::span<const Uv> corners) const;
    std::vector<Rgba> applyCorners(std::span<const Rgba> corners) const;

    // Bytes held by the plan's tables.
    std::size_t byteSize() const;

  private:
    // One level's weights: new point i is the sum over k in [offsets[i], offsets[i + 1]) of
    // weights[k] times point sources[k] of the level before.
    struct Level {
        std::size_t pointCount = 0;
        std::vector<std::uint32_t> offsets;
        std::vector<std::uint32_t> sources;
        std::vector<float> weights;
    };

    template <class T>
    std::vector<T> run(std::span<const T> values) const;
    template <class T>
    std::vector<T> runCorners(std::span<const T> corners) const;

    int levels_ = 0;
    std::size_t cagePointCount_ = 0;
    std::size_t cageCornerCount_ = 0;
    std::vector<Level> levelTables_;
    std::vector<Triangle> triangles_;
    std::vector<std::int32_t> polygons_;
    std::vector<StrandRoot> cornerLocations_;
};

// The cage subdivided `levels` times (1 to 3) through its shared plan, as a scalp of its own:
// smoothed points and rest points, UVs and colour sets (see the top of this file; a colour set
// that gives every corner of a vertex the same colour is a per-vertex set and is smoothed like the
// points), the scalp ranges with their triangles and points, and a subdivision record naming
// `from` (the render setting matched, or empty). Where the cage has scalp ranges the points are
// renumbered range by range; otherwise point i is the moved cage point i, as in the plan.
ScalpMesh subdivideScalp(const ScalpMesh& cage, int levels, std::string from = {});

}  // namespace velmorin
