#pragma once
// The surface hair grows on: a triangle mesh that remembers the polygons it was triangulated from.
// A mesh is a value: once handed on through the graph it is shared by pointer to const and never
// written again. Everything derived from it (closest-point tree, topology, vertex normals, pieces)
// is built on first demand, safely under concurrent first use, and shared by copies of the mesh.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/vec3.h"
#include "strands/strand_root.h"

namespace velmorin {

using Triangle = std::array<std::uint32_t, 3>;

struct Uv {
    float u = 0.0f;
    float v = 0.0f;
    bool operator==(const Uv&) const = default;
};

struct Rgba {
    float r = 0.0f;
    float g = 0.0f;
    float b = 0.0f;
    float a = 1.0f;
    bool operator==(const Rgba&) const = default;
};

// One of the meshes a scalp was merged from: a run of triangles and a run of points. The runs of
// consecutive ranges touch and together cover the mesh.
struct ScalpRange {
    std::string name;
    std::uint32_t firstTriangle = 0;
    std::uint32_t triangleCount = 0;
    std::uint32_t firstPoint = 0;
    std::uint32_t pointCount = 0;
    bool operator==(const ScalpRange&) const = default;
};

// How a mesh was made from a coarser one by Catmull-Clark subdivision, kept for what the groom
// reports about the surface it grows on. `levels` 0 is a mesh as it came.
struct ScalpSubdivision {
    int levels = 0;
    std::uint32_t cageFaceCount = 0;  // the coarse mesh's faces (polygons)
    // The same count for each of the mesh's scalp ranges, in order, where it has ranges.
    std::vector<std::uint32_t> scalpCageFaceCounts;
    // The render setting that the levels match, in the user's words ("Arnold catclark, 2
    // iterations"), or empty where the levels were handed on without one.
    std::string from;
    bool operator==(const ScalpSubdivision&) const = default;
};

// A connected part of the surface (triangles that share edges), found on first demand.
struct ScalpPiece {
    std::vector<std::uint32_t> triangles;  // ascending
    std::vector<std::uint32_t> points;     // ascending
};

// Adjacency of the triangles. It depends only on the triangle list and the point count, so a mesh
// whose points move keeps it.
class SurfaceTopology {
  public:
    SurfaceTopology(std::span<const Triangle> triangles, std::size_t pointCount);

    std::size_t pointCount() const;
    std::size_t triangleCount() const;

    // The triangle across edge `edge` (from corner edge to corner (edge + 1) % 3) of triangle
    // `triangle`; -1 on a border or where more than two triangles share the edge.
    std::int32_t neighborAcross(std::uint32_t triangle, int edge) const;
    // The points that share an edge with `vertex`, ascending, without repeats.
    std::span<const std::uint32_t> vertexNeighbors(std::uint32_t vertex) const;
    // The triangles that use `vertex`, ascending.
    std::span<const std::uint32_t> vertexTriangles(std::uint32_t vertex) const;

    // A hash of the point count and the triangle list: equal for meshes of the same topology.
    std::uint64_t signature() const;

  private:
    struct Data;
    std::shared_ptr<const Data> data_;
};

// A closest-point answer. A miss has `root.face` negative.
struct ClosestPoint {
    StrandRoot root;  // triangle and barycentric (u, v), see ScalpMesh::pointAt
    Vec3f point;      // the surface point
    float distance = 0.0f;
    bool found() const { return root.face >= 0; }
};

// A ray hit: the surface location and the distance along the (unit) ray direction.
struct RayHit {
    StrandRoot root;
    Vec3f point;
    float distance = 0.0f;
    bool found() const { return root.face >= 0; }
};

// An orthonormal frame at a surface location: `normal` is the smooth normal, `tangent` follows the
// triangle's first edge, so the frame turns with the surface when its points move.
struct SurfaceFrame {
    Vec3f origin;
    Vec3f tangent;
    Vec3f normal;
    Vec3f bitangent;

    Vec3f toWorld(const Vec3f& local) const {
        return origin + tangent * local.x + normal * local.y + bitangent * local.z;
    }
    Vec3f toLocal(const Vec3f& world) const {
        const Vec3f d = world - origin;
        return {dot(d, tangent), dot(d, normal), dot(d, bitangent)};
    }
    Vec3f directionToWorld(const Vec3f& local) const {
        return tangent * local.x + normal * local.y + bitangent * local.z;
    }
    Vec3f directionToLocal(const Vec3f& world) const {
        return {dot(world, tangent), dot(world, normal), dot(world, bitangent)};
    }
};

class ScalpMesh {
  public:
    class LazyBvh;

    ScalpMesh();
    // One polygon per triangle. Throws "ScalpMesh: triangle index out of range".
    ScalpMesh(std::vector<Vec3f> points, std::vector<Triangle> triangles);

    // Replaces points and triangles together; polygons become one per triangle, and UVs, colour
    // sets, rest points, scalp ranges and the subdivision record, which belong to the old
    // triangles, are cleared.
    void setGeometry(std::vector<Vec3f> points, std::vector<Triangle> triangles);
    // New positions for the same points: keeps the topology, drops the closest-point tree.
    void setPoints(std::vector<Vec3f> points);
    void setPolygons(std::vector<std::int32_t> polygons);
    void setUvs(std::vector<Uv> uvs);  // one per triangle corner, or empty
    void setColorSet(const std::string& name, std::vector<Rgba> colors);  // one per corner
    void removeColorSet(const std::string& name);
    void setRestPoints(std::vector<Vec3f> restPoints);  // one per point, or empty
    void setScalps(std::vector<ScalpRange> scalps);     // empty, or ranges covering the mesh
    void setSubdivision(ScalpSubdivision subdivision);

    const std::vector<Vec3f>& points() const { return points_; }
    const std::vector<Triangle>& triangles() const { return triangles_; }
    const std::vector<std::int32_t>& polygons() const { return polygons_; }
    const std::vector<Uv>& uvs() const { return uvs_; }
    const std::map<std::string, std::vector<Rgba>>& colorSets() const { return colorSets_; }
    const std::vector<Vec3f>& restPoints() const { return restPoints_; }
    const std::vector<ScalpRange>& scalps() const { return scalps_; }
    const ScalpSubdivision& subdivision() const { return subdivision_; }

    std::size_t pointCount() const { return points_.size(); }
    std::size_t triangleCount() const { return triangles_.size(); }
    bool hasUvs() const { return !uvs_.empty(); }

    // Derived values, built on first use and shared by copies until the mesh changes.
    std::shared_ptr<const SurfaceTopology> topology() const;
    std::span<const Vec3f> vertexNormals() const;  // area-weighted, unit length
    std::shared_ptr<const std::vector<ScalpPiece>> pieces() const;
    // Lowest and highest corner of the points; both zero for an empty mesh.
    std::pair<Vec3f, Vec3f> bounds() const;

    // The topology signature (see SurfaceTopology::signature) and a hash of everything the mesh
    // holds. A session compares meshes by these instead of by their arrays.
    std::uint64_t topologySignature() const;
    std::uint64_t contentSignature() const;

    // The closest surface point within `maxDistance`. The default bound is the square root of the
    // largest f32, so that its square cannot overflow. With no triangles, nothing is found.
    ClosestPoint closestPoint(const Vec3f& position, float maxDistance = kUnbounded) const;
    // Whether closestPoint(position, ...) is sure to give `triangle` its exact test while the
    // best squared distance it holds stays at or above `bestSquared` (see
    // ClosestPointTree::testsTriangle): for searches of their own that must agree with it.
    bool closestPointTests(const Vec3f& position, std::uint32_t triangle, float bestSquared) const;
    // The nearest hit of the ray origin + t * direction for t in [0, maxDistance]; direction need
    // not be unit length, `distance` is measured in its units.
    RayHit raycast(const Vec3f& origin, const Vec3f& direction,
                   float maxDistance = kUnbounded) const;
    // Appends to `out` every triangle whose bounding box reaches within `radius` of `center`.
    void trianglesNear(const Vec3f& center, float radius, std::vector<std::uint32_t>& out) const;

    // The point at a location: (1 - u - v) * corner0 + u * corner1 + v * corner2.
    Vec3f pointAt(const StrandRoot& root) const;
    // The smooth normal there (vertex normals blended by the same weights), unit length.
    Vec3f normalAt(const StrandRoot& root) const;
    Vec3f faceNormal(std::uint32_t triangle) const;  // unit, or zero for a degenerate triangle
    SurfaceFrame frameAt(const StrandRoot& root) const;
    // The UV there; (0, 0) when the mesh has no UVs.
    Uv uvAt(const StrandRoot& root) const;
    // Whether a location names a triangle of this mesh.
    bool isOnSurface(const StrandRoot& root) const {
        return root.face >= 0 && static_cast<std::size_t>(root.face) < triangles_.size();
    }

    static constexpr float kUnbounded = 1.8446743e19f;  // sqrt of the largest f32

  private:
    struct Derived;
    void dropDerived(bool keepTopology);
    void checkCorners(std::size_t count, const char* message) const;

    std::vector<Vec3f> points_;
    std::vector<Triangle> triangles_;
    std::vector<std::int32_t> polygons_;
    std::vector<Uv> uvs_;
    std::map<std::string, std::vector<Rgba>> colorSets_;
    std::vector<Vec3f> restPoints_;
    std::vector<ScalpRange> scalps_;
    ScalpSubdivision subdivision_;
    std::shared_ptr<LazyBvh> bvh_;
    std::shared_ptr<Derived> derived_;  // topology, normals, pieces, signatures: all lazy
};

}  // namespace velmorin
