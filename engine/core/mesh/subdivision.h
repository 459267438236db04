#pragma once
// Catmull-Clark subdivision of a scalp, split into a plan that depends only on the topology and its
// application to positions. A plan is made once per topology and level count and then applied to
// every pose of that topology: a deforming scalp pays only for the weighted sums.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
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

    int levels_ = 0;
    std::size_t cagePointCount_ = 0;
    std::vector<Level> levelTables_;
    std::vector<Triangle> triangles_;
    std::vector<std::int32_t> polygons_;
};

}  // namespace velmorin
