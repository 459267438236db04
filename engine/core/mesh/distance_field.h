#pragma once
// Sampled signed distance to a mesh, and the process-wide cache that shares fields between the
// operators and sessions that ask about the same mesh. Collision, interpolation and the guide
// solver ask "how far from the surface, and which way is out" for millions of points a frame;
// building the answer costs far more than using it, so it is built once and kept.

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "base/memory_report.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

// An immutable grid of signed distances: negative inside a closed mesh, positive outside. On an
// open mesh such as a scalp, the sign says which side of the surface (by its normals) a point is.
//
// The grid covers the mesh's bounds with a margin; its cells are `voxelSize()` wide with their
// values at the cell centres. Within `range()` of the surface the values are the exact distances
// (to 16-bit precision); further out they are the distance to a surface point found by walking the
// grid, never less than the true distance, up to 8 times the range.
class MeshDistanceField {
  public:
    // `voxel` is the wished cell size; where the mesh would need more than `resolution` cells along
    // an axis the cells grow. `band` is the distance within which values are exact (at least two
    // cells). Throws std::invalid_argument for a missing mesh, a voxel size that is not above 0, a
    // band that is negative, or a resolution outside 1 to 1024.
    MeshDistanceField(std::shared_ptr<const ScalpMesh> mesh, float voxel, float band,
                      int resolution);

    // The blended distance at a point; outside the grid, the value at its nearest border.
    float distance(const Vec3f& point) const;
    // The unit direction in which the distance grows (out of a closed mesh), or zero where the
    // field is flat.
    Vec3f gradient(const Vec3f& point) const;
    // A value no larger than distance(p) for any p in the box [lo, hi]: lets a caller skip a whole
    // strand that cannot come near the surface.
    float lowerBound(const Vec3f& lo, const Vec3f& hi) const;
    // The signed distance from the mesh itself, with the sign taken the way the grid's is: for a
    // caller that needs more than a voxel's precision near the surface.
    float exactDistance(const Vec3f& point) const;

    const std::shared_ptr<const ScalpMesh>& mesh() const { return mesh_; }
    float voxelSize() const { return voxel_; }
    float range() const { return range_; }
    Vec3f origin() const { return origin_; }
    std::array<int, 3> dimensions() const { return dims_; }
    std::size_t cellCount() const { return cells_.size(); }
    // The size the cache counts for this field, in bytes: its cells and its three tables.
    std::uint64_t cacheBytes() const;

  private:
    float cellValue(std::size_t x, std::size_t y, std::size_t z) const {
        return static_cast<float>(cells_[(z * dims_[1] + y) * dims_[0] + x]) * step_;
    }
    Vec3f pseudoNormal(const ClosestPoint& closest) const;
    void fill();

    std::shared_ptr<const ScalpMesh> mesh_;
    float voxel_ = 0.0f;
    float inverseVoxel_ = 0.0f;
    float range_ = 0.0f;
    float step_ = 0.0f;  // the distance one unit of a cell is worth: 8 * range / 32767
    Vec3f origin_;
    std::array<int, 3> dims_{1, 1, 1};
    std::vector<std::int16_t> cells_;  // x fastest, then y, then z
    // The three tables: angle-weighted normals at the points and summed face normals across each
    // triangle edge (3 per triangle), which decide the sign at the closest surface point; and the
    // smallest value in each brick of 8 x 8 x 8 cells, for lowerBound.
    std::vector<Vec3f> pointNormals_;
    std::vector<Vec3f> edgeNormals_;
    std::vector<std::int16_t> brickMinimum_;
    std::array<int, 3> brickDims_{1, 1, 1};
};

// A list of fields under a byte budget, most recently used first. Equal mesh content, voxel, band
// and resolution (floats compared exactly) share one field. After each request the list is
// trimmed: while it holds 5 or more fields, or more bytes than the budget, the least recently used
// goes, but never the last one. A dropped field lives on for whoever holds it. Thread safe.
class DistanceFieldCache {
  public:
    explicit DistanceFieldCache(std::uint64_t budgetBytes) : budget_(budgetBytes) {}

    std::shared_ptr<const MeshDistanceField> get(const std::shared_ptr<const ScalpMesh>& mesh,
                                                 float voxel, float band, int resolution);
    // Whether a field for these arguments is held, without touching the order.
    bool holds(const ScalpMesh& mesh, float voxel, float band, int resolution) const;
    MemoryUse use() const;

  private:
    struct Entry {
        std::uint64_t mesh = 0;
        float voxel = 0.0f;
        float band = 0.0f;
        std::int32_t resolution = 0;
        std::shared_ptr<const MeshDistanceField> field;
        std::uint64_t bytes = 0;
    };
    void trim();

    const std::uint64_t budget_;
    mutable std::mutex mutex_;
    std::list<Entry> entries_;
    std::uint64_t total_ = 0;
};

// The budget that VELMORIN_FIELD_CACHE_MB gives, in bytes: a whole number of MiB in decimal
// digits. No variable, or any other text, gives the default of 768 MiB.
std::uint64_t parseFieldCacheBudget(const char* text);

// The process's field for a mesh, from the process-wide cache (budget from VELMORIN_FIELD_CACHE_MB,
// read once), reported to the memory report as "distance fields".
std::shared_ptr<const MeshDistanceField> sharedDistanceField(
    const std::shared_ptr<const ScalpMesh>& mesh, float voxel, float band, int resolution);

}  // namespace velmorin
