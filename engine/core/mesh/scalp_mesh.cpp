#include "mesh/scalp_mesh.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/closest_point_tree.h"

namespace velmorin {
namespace {

// Hashes raw bytes as 64-bit words. Fixed blocks are hashed in parallel and their hashes combined
// in order, so the result does not depend on the thread count.
std::uint64_t hashRaw(std::uint64_t h, const void* data, std::size_t bytes) {
    constexpr std::size_t kBlock = 1 << 16;
    const auto* base = static_cast<const unsigned char*>(data);
    const std::size_t blocks = (bytes + kBlock - 1) / kBlock;
    std::vector<std::uint64_t> blockHashes(blocks);
    parallelRange(0, blocks, 4, [&](std::size_t begin, std::size_t end) {
        for (std::size_t b = begin; b < end; ++b) {
            const std::size_t first = b * kBlock;
            const std::size_t count = std::min(kBlock, bytes - first);
            std::uint64_t bh = count;
            std::size_t i = 0;
            for (; i + 8 <= count; i += 8) {
                std::uint64_t word;
                std::memcpy(&word, base + first + i, 8);
                bh = hashCombine(bh, word);
            }
            for (; i < count; ++i)
                bh = hashCombine(bh, base[first + i]);
            blockHashes[b] = bh;
        }
    });
    h = hashCombine(h, bytes);
    for (std::uint64_t bh : blockHashes)
        h = hashCombine(h, bh);
    return h;
}

template <class T>
std::uint64_t hashVector(std::uint64_t h, const std::vector<T>& values) {
    return hashRaw(h, values.data(), values.size() * sizeof(T));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Topology

struct SurfaceTopology::Data {
    std::size_t pointCount = 0;
    std::size_t triangleCount = 0;
    std::vector<std::int32_t> across;  // three per triangle
    std::vector<std::uint32_t> neighborStart, neighbors;
    std::vector<std::uint32_t> triangleStart, vertexTriangles;
    std::uint64_t signature = 0;
};

SurfaceTopology::SurfaceTopology(std::span<const Triangle> triangles, std::size_t pointCount) {
    auto data = std::make_shared<Data>();
    data->pointCount = pointCount;
    data->triangleCount = triangles.size();
    data->signature =
        hashRaw(hashCombine(0x7090106Full, pointCount), triangles.data(), triangles.size_bytes());

    // Triangles of each vertex, as a compressed table.
    data->triangleStart.assign(pointCount + 1, 0);
    for (const Triangle& t : triangles) {
        for (std::uint32_t corner : t)
            ++data->triangleStart[corner + 1];
    }
    for (std::size_t i = 0; i < pointCount; ++i) {
        data->triangleStart[i + 1] += data->triangleStart[i];
    }
    data->vertexTriangles.resize(data->triangleStart[pointCount]);
    {
        std::vector<std::uint32_t> fill(data->triangleStart.begin(), data->triangleStart.end() - 1);
        for (std::uint32_t t = 0; t < triangles.size(); ++t) {
            for (std::uint32_t corner : triangles[t]) {
                // A triangle that names a vertex twice lists it once.
                if (fill[corner] > data->triangleStart[corner] &&
                    data->vertexTriangles[fill[corner] - 1] == t) {
                    continue;
                }
                data->vertexTriangles[fill[corner]++] = t;
            }
        }
        // Close the gaps that repeated corners left, keeping the table compact.
        std::size_t write = 0;
        for (std::size_t vtx = 0; vtx < pointCount; ++vtx) {
            const std::size_t begin = data->triangleStart[vtx];
            data->triangleStart[vtx] = static_cast<std::uint32_t>(write);
            for (std::size_t i = begin; i < fill[vtx]; ++i) {
                data->vertexTriangles[write++] = data->vertexTriangles[i];
            }
        }
        data->triangleStart[pointCount] = static_cast<std::uint32_t>(write);
        data->vertexTriangles.resize(write);
    }

    // Neighbouring points and the triangle across each edge, found through the triangles of the
    // edge's lower corner.
    data->neighborStart.assign(pointCount + 1, 0);
    data->across.assign(triangles.size() * 3, -1);
    std::vector<std::uint32_t> scratch;
    for (std::size_t vtx = 0; vtx < pointCount; ++vtx) {
        scratch.clear();
        for (std::uint32_t i = data->triangleStart[vtx]; i < data->triangleStart[vtx + 1]; ++i) {
            for (std::uint32_t corner : triangles[data->vertexTriangles[i]]) {
                if (corner != vtx) scratch.push_back(corner);
            }
        }
        std::sort(scratch.begin(), scratch.end());
        scratch.erase(std::unique(scratch.begin(), scratch.end()), scratch.end());
        data->neighbors.insert(data->neighbors.end(), scratch.begin(), scratch.end());
        data->neighborStart[vtx + 1] = static_cast<std::uint32_t>(data->neighbors.size());
    }
    for (std::uint32_t t = 0; t < triangles.size(); ++t) {
        for (int edge = 0; edge < 3; ++edge) {
            const std::uint32_t a = triangles[t][edge];
            const std::uint32_t b = triangles[t][(edge + 1) % 3];
            if (a == b) continue;
            std::int32_t found = -1;
            int sharing = 0;
            for (std::uint32_t i = data->triangleStart[a]; i < data->triangleStart[a + 1]; ++i) {
                const std::uint32_t other = data->vertexTriangles[i];
                if (other == t) continue;
                const Triangle& o = triangles[other];
                if (std::find(o.begin(), o.end(), b) != o.end()) {
                    found = static_cast<std::int32_t>(other);
                    ++sharing;
                }
            }
            data->across[t * 3 + edge] = sharing == 1 ? found : -1;
        }
    }
    data_ = std::move(data);
}

std::size_t SurfaceTopology::pointCount() const {
    return data_->pointCount;
}
std::size_t SurfaceTopology::triangleCount() const {
    return data_->triangleCount;
}
std::int32_t SurfaceTopology::neighborAcross(std::uint32_t triangle, int edge) const {
    return data_->across[triangle * 3 + edge];
}
std::span<const std::uint32_t> SurfaceTopology::vertexNeighbors(std::uint32_t vertex) const {
    const std::uint32_t begin = data_->neighborStart[vertex];
    return {data_->neighbors.data() + begin, data_->neighborStart[vertex + 1] - begin};
}
std::span<const std::uint32_t> SurfaceTopology::vertexTriangles(std::uint32_t vertex) const {
    const std::uint32_t begin = data_->triangleStart[vertex];
    return {data_->vertexTriangles.data() + begin, data_->triangleStart[vertex + 1] - begin};
}
std::uint64_t SurfaceTopology::signature() const {
    return data_->signature;
}

class ScalpMesh::LazyBvh {
  public:
    const ClosestPointTree& get(const ScalpMesh& mesh) {
        std::call_once(once_, [&] {
            tree_ = std::make_unique<ClosestPointTree>(mesh.points(), mesh.triangles());
        });
        return *tree_;
    }

  private:
    std::once_flag once_;
    std::unique_ptr<ClosestPointTree> tree_;
};

// ---------------------------------------------------------------------------------------------
// The mesh

struct ScalpMesh::Derived {
    // Under a mutex rather than a once-flag, so that a setter can carry a topology that was
    // already built over to the next state without building one that nobody asked for.
    std::mutex topologyMutex;
    std::shared_ptr<const SurfaceTopology> topology;
    std::once_flag normalsOnce;
    std::vector<Vec3f> normals;
    std::once_flag piecesOnce;
    std::shared_ptr<const std::vector<ScalpPiece>> pieces;
    std::once_flag contentOnce;
    std::uint64_t content = 0;
};

ScalpMesh::ScalpMesh() : bvh_(std::make_shared<LazyBvh>()), derived_(std::make_shared<Derived>()) {}

ScalpMesh::ScalpMesh(std::vector<Vec3f> points, std::vector<Triangle> triangles) : ScalpMesh() {
    setGeometry(std::move(points), std::move(triangles));
}

void ScalpMesh::dropDerived(bool keepTopology) {
    auto fresh = std::make_shared<Derived>();
    if (keepTopology) {
        std::lock_guard lock(derived_->topologyMutex);
        fresh->topology = derived_->topology;
    }
    derived_ = std::move(fresh);
}

void ScalpMesh::checkCorners(std::size_t count, const char* message) const {
    if (count != 0 && count != triangles_.size() * 3) throw std::invalid_argument(message);
}

void ScalpMesh::setGeometry(std::vector<Vec3f> points, std::vector<Triangle> triangles) {
    for (const Triangle& t : triangles) {
        for (std::uint32_t corner : t) {
            if (corner >= points.size()) {
                throw std::invalid_argument("ScalpMesh: triangle index out of range");
            }
        }
    }
    points_ = std::move(points);
    triangles_ = std::move(triangles);
    polygons_.assign(triangles_.size(), 1);
    uvs_.clear();
    colorSets_.clear();
    restPoints_.clear();
    scalps_.clear();
    subdivision_ = {};
    bvh_ = std::make_shared<LazyBvh>();
    dropDerived(false);
}

void ScalpMesh::setPoints(std::vector<Vec3f> points) {
    if (points.size() != points_.size()) {
        throw std::invalid_argument("ScalpMesh: new points must match the mesh's point count");
    }
    dropDerived(true);
    points_ = std::move(points);
    bvh_ = std::make_shared<LazyBvh>();
}

void ScalpMesh::setPolygons(std::vector<std::int32_t> polygons) {
    long long sum = 0;
    for (std::int32_t count : polygons) {
        if (count < 0) {
            throw std::invalid_argument("ScalpMesh: a polygon with a negative triangle count");
        }
        sum += count;
    }
    if (sum != static_cast<long long>(triangles_.size())) {
        throw std::invalid_argument("ScalpMesh: the polygons' triangles (" + std::to_string(sum) +
                                    ") are not the mesh's (" + std::to_string(triangles_.size()) +
                                    ")");
    }
    polygons_ = std::move(polygons);
    dropDerived(true);
}

void ScalpMesh::setUvs(std::vector<Uv> uvs) {
    checkCorners(uvs.size(), "ScalpMesh: expected one UV per triangle corner");
    uvs_ = std::move(uvs);
    dropDerived(true);
}

void ScalpMesh::setColorSet(const std::string& name, std::vector<Rgba> colors) {
    if (colors.size() != triangles_.size() * 3) {
        throw std::invalid_argument("ScalpMesh: expected one color per triangle corner");
    }
    colorSets_[name] = std::move(colors);
    dropDerived(true);
}

void ScalpMesh::removeColorSet(const std::string& name) {
    if (colorSets_.erase(name) > 0) dropDerived(true);
}

void ScalpMesh::setRestPoints(std::vector<Vec3f> restPoints) {
    if (!restPoints.empty() && restPoints.size() != points_.size()) {
        throw std::invalid_argument("ScalpMesh: rest points must match the mesh's point count");
    }
    restPoints_ = std::move(restPoints);
    dropDerived(true);
}

void ScalpMesh::setScalps(std::vector<ScalpRange> scalps) {
    std::uint64_t triangleEnd = 0;
    std::uint64_t pointEnd = 0;
    for (const ScalpRange& range : scalps) {
        if (range.firstTriangle != triangleEnd || range.firstPoint != pointEnd) {
            throw std::invalid_argument("ScalpMesh: the scalp '" + range.name +
                                        "' does not follow the one before it");
        }
        triangleEnd += range.triangleCount;
        pointEnd += range.pointCount;
    }
    if (!scalps.empty() && (triangleEnd != triangles_.size() || pointEnd != points_.size())) {
        throw std::invalid_argument(
            "ScalpMesh: the scalps' triangles and points are not the mesh's");
    }
    scalps_ = std::move(scalps);
    dropDerived(true);
}

void ScalpMesh::setSubdivision(ScalpSubdivision subdivision) {
    subdivision_ = std::move(subdivision);
    dropDerived(true);
}

std::shared_ptr<const SurfaceTopology> ScalpMesh::topology() const {
    Derived& d = *derived_;
    std::lock_guard lock(d.topologyMutex);
    if (!d.topology) d.topology = std::make_shared<SurfaceTopology>(triangles_, points_.size());
    return d.topology;
}

std::span<const Vec3f> ScalpMesh::vertexNormals() const {
    Derived& d = *derived_;
    std::call_once(d.normalsOnce, [&] {
        std::vector<Vec3f> sums(points_.size());
        // Each face adds its area-weighted normal (the plain cross product) to its corners.
        for (const Triangle& t : triangles_) {
            const Vec3f n = cross(points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]]);
            for (std::uint32_t corner : t)
                sums[corner] += n;
        }
        for (Vec3f& n : sums)
            n = normalized(n, {0.0f, 1.0f, 0.0f});
        d.normals = std::move(sums);
    });
    return d.normals;
}

std::shared_ptr<const std::vector<ScalpPiece>> ScalpMesh::pieces() const {
    Derived& d = *derived_;
    std::call_once(d.piecesOnce, [&] {
        auto topo = topology();
        std::vector<std::int32_t> pieceOf(triangles_.size(), -1);
        auto list = std::make_shared<std::vector<ScalpPiece>>();
        std::vector<std::uint32_t> pending;
        for (std::uint32_t seed = 0; seed < triangles_.size(); ++seed) {
            if (pieceOf[seed] >= 0) continue;
            const auto index = static_cast<std::int32_t>(list->size());
            ScalpPiece piece;
            pieceOf[seed] = index;
            pending.assign(1, seed);
            // Pieces meet at shared points as well as at edges: a fan of triangles around one
            // vertex is one piece.
            while (!pending.empty()) {
                const std::uint32_t t = pending.back();
                pending.pop_back();
                piece.triangles.push_back(t);
                for (std::uint32_t corner : triangles_[t]) {
                    for (std::uint32_t other : topo->vertexTriangles(corner)) {
                        if (pieceOf[other] < 0) {
                            pieceOf[other] = index;
                            pending.push_back(other);
                        }
                    }
                }
            }
            std::sort(piece.triangles.begin(), piece.triangles.end());
            for (std::uint32_t t : piece.triangles) {
                piece.points.insert(piece.points.end(), triangles_[t].begin(), triangles_[t].end());
            }
            std::sort(piece.points.begin(), piece.points.end());
            piece.points.erase(std::unique(piece.points.begin(), piece.points.end()),
                               piece.points.end());
            list->push_back(std::move(piece));
        }
        d.pieces = std::move(list);
    });
    return d.pieces;
}

std::pair<Vec3f, Vec3f> ScalpMesh::bounds() const {
    if (points_.empty()) return {};
    Vec3f lo = points_[0];
    Vec3f hi = points_[0];
    for (const Vec3f& p : points_) {
        lo = minPerAxis(lo, p);
        hi = maxPerAxis(hi, p);
    }
    return {lo, hi};
}

std::uint64_t ScalpMesh::topologySignature() const {
    return topology()->signature();
}

std::uint64_t ScalpMesh::contentSignature() const {
    Derived& d = *derived_;
    std::call_once(d.contentOnce, [&] {
        std::uint64_t h = topologySignature();
        h = hashVector(h, points_);
        h = hashVector(h, polygons_);
        h = hashVector(h, uvs_);
        h = hashCombine(h, colorSets_.size());
        for (const auto& [name, colors] : colorSets_)
            h = hashVector(hashText(h, name), colors);
        h = hashVector(h, restPoints_);
        h = hashCombine(h, scalps_.size());
        for (const ScalpRange& range : scalps_) {
            h = hashText(h, range.name);
            for (std::uint32_t n :
                 {range.firstTriangle, range.triangleCount, range.firstPoint, range.pointCount}) {
                h = hashCombine(h, n);
            }
        }
        h = hashCombine(h, static_cast<std::uint64_t>(subdivision_.levels));
        h = hashCombine(h, subdivision_.cageFaceCount);
        h = hashVector(h, subdivision_.scalpCageFaceCounts);
        h = hashText(h, subdivision_.from);
        d.content = h;
    });
    return d.content;
}

ClosestPoint ScalpMesh::closestPoint(const Vec3f& position, float maxDistance) const {
    return bvh_->get(*this).closest(position, maxDistance);
}

bool ScalpMesh::closestPointTests(const Vec3f& position, std::uint32_t triangle,
                                  float bestSquared) const {
    return bvh_->get(*this).testsTriangle(position, triangle, bestSquared);
}

RayHit ScalpMesh::raycast(const Vec3f& origin, const Vec3f& direction, float maxDistance) const {
    return bvh_->get(*this).raycast(origin, direction, maxDistance);
}

void ScalpMesh::trianglesNear(const Vec3f& center, float radius,
                              std::vector<std::uint32_t>& out) const {
    bvh_->get(*this).near(center, radius, out);
}

Vec3f ScalpMesh::pointAt(const StrandRoot& root) const {
    const Triangle& t = triangles_[root.face];
    const float w0 = 1.0f - root.u - root.v;
    return points_[t[0]] * w0 + points_[t[1]] * root.u + points_[t[2]] * root.v;
}

Vec3f ScalpMesh::faceNormal(std::uint32_t triangle) const {
    const Triangle& t = triangles_[triangle];
    return normalized(cross(points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]]));
}

Vec3f ScalpMesh::normalAt(const StrandRoot& root) const {
    const Triangle& t = triangles_[root.face];
    const auto normals = vertexNormals();
    const float w0 = 1.0f - root.u - root.v;
    const Vec3f blend = normals[t[0]] * w0 + normals[t[1]] * root.u + normals[t[2]] * root.v;
    const float len2 = lengthSquared(blend);
    if (len2 > 1e-20f) return blend / std::sqrt(len2);
    // Opposed vertex normals cancel only on folded surfaces: the face itself decides there.
    const Vec3f face = faceNormal(root.face);
    return lengthSquared(face) > 0.0f ? face : Vec3f{0.0f, 1.0f, 0.0f};
}

SurfaceFrame ScalpMesh::frameAt(const StrandRoot& root) const {
    SurfaceFrame frame;
    frame.origin = pointAt(root);
    frame.normal = normalAt(root);
    const Triangle& t = triangles_[root.face];
    // The tangent follows the triangle's first edge (or its second when the first is along the
    // normal), so the frame turns with the surface when its points move.
    for (const Vec3f& edge : {points_[t[1]] - points_[t[0]], points_[t[2]] - points_[t[0]],
                              Vec3f{1.0f, 0.0f, 0.0f}, Vec3f{0.0f, 0.0f, 1.0f}}) {
        const Vec3f along = edge - frame.normal * dot(edge, frame.normal);
        if (lengthSquared(along) > 1e-12f * std::max(1.0f, lengthSquared(edge))) {
            frame.tangent = normalized(along);
            break;
        }
    }
    frame.bitangent = cross(frame.tangent, frame.normal);
    return frame;
}

Uv ScalpMesh::uvAt(const StrandRoot& root) const {
    if (uvs_.empty()) return {};
    const std::size_t base = static_cast<std::size_t>(root.face) * 3;
    const float w0 = 1.0f - root.u - root.v;
    return {uvs_[base].u * w0 + uvs_[base + 1].u * root.u + uvs_[base + 2].u * root.v,
            uvs_[base].v * w0 + uvs_[base + 1].v * root.u + uvs_[base + 2].v * root.v};
}

}  // namespace velmorin
