#include "mesh/distance_field.h"

#include <tbb/task_arena.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "base/parallel.h"

namespace velmorin {
namespace {

constexpr int kBrick = 8;
constexpr int kLargestResolution = 1024;
constexpr float kLargestCell = 32767.0f;
constexpr std::uint64_t kDefaultBudgetMiB = 768;
constexpr std::size_t kMostFields = 5;  // the list is trimmed below this many
constexpr std::size_t kCellGrain = 4096;
// Barycentric weights below this count as zero when deciding whether the closest surface point is
// on an edge or a corner. Erring towards an edge is harmless: its normal is the sum of the faces'.
constexpr float kOnFeature = 1e-4f;

// Grid coordinate along one axis, clamped into the grid before any conversion to an integer so
// that points far outside (or not numbers at all) land on the border.
float clampedCoordinate(float coordinate, int dimension) {
    return std::fmin(std::fmax(coordinate, 0.0f), static_cast<float>(dimension - 1));
}

}  // namespace

MeshDistanceField::MeshDistanceField(std::shared_ptr<const ScalpMesh> mesh, float voxel, float band,
                                     int resolution)
    : mesh_(std::move(mesh)) {
    if (!mesh_) throw std::invalid_argument("MeshDistanceField: no mesh was given.");
    if (!(voxel > 0.0f) || !std::isfinite(voxel))
        throw std::invalid_argument("MeshDistanceField: the voxel size must be above 0.");
    if (!(band >= 0.0f) || !std::isfinite(band))
        throw std::invalid_argument("MeshDistanceField: the band must not be negative.");
    if (resolution < 1 || resolution > kLargestResolution)
        throw std::invalid_argument("MeshDistanceField: the resolution must be 1 to 1024.");
    const auto [lo, hi] = mesh_->bounds();
    const Vec3f extent = hi - lo;
    const float largest = std::max({extent.x, extent.y, extent.z});
    if (!std::isfinite(largest) || !std::isfinite(lo.x + lo.y + lo.z))
        throw std::invalid_argument(
            "MeshDistanceField: the mesh has points that are not finite numbers.");

    // The margin around the bounds holds the band and one more cell; where the grid would need
    // more cells than allowed, the cells grow (and with them a band of two cells).
    double cell = voxel;
    const auto marginFor = [&](double c) { return std::max<double>(band, 2.0 * c) + c; };
    for (int attempt = 0; attempt < 16; ++attempt) {
        const double span = largest + 2.0 * marginFor(cell);
        if (span / cell <= resolution) break;
        cell = span / resolution;
    }
    voxel_ = static_cast<float>(cell);
    inverseVoxel_ = 1.0f / voxel_;
    range_ = std::max(band, 2.0f * voxel_);
    step_ = 8.0f * range_ / kLargestCell;
    const double margin = marginFor(cell);
    for (int axis = 0; axis < 3; ++axis) {
        const double cells = std::ceil((extent[axis] + 2.0 * margin) / cell);
        dims_[axis] = static_cast<int>(std::clamp(cells, 1.0, static_cast<double>(resolution)));
    }
    const Vec3f centre = (lo + hi) * 0.5f;
    origin_ = centre - Vec3f{static_cast<float>(dims_[0]), static_cast<float>(dims_[1]),
                             static_cast<float>(dims_[2])} *
                           (voxel_ * 0.5f);
    // Built in an isolated arena: the cache builds with its lock held, and a thread waiting for
    // this loop must not pick up outside work that could ask the cache again.
    tbb::this_task_arena::isolate([&] { fill(); });
}

void MeshDistanceField::fill() {
    const ScalpMesh& mesh = *mesh_;
    const std::vector<Triangle>& triangles = mesh.triangles();
    const std::vector<Vec3f>& points = mesh.points();

    // The normals that decide the sign: angle-weighted at points, summed across edges. With them
    // the sign is right wherever the closest surface point lies on a closed mesh.
    pointNormals_.assign(points.size(), Vec3f{});
    edgeNormals_.assign(triangles.size() * 3, Vec3f{});
    const std::shared_ptr<const SurfaceTopology> topology =
        triangles.empty() ? nullptr : mesh.topology();
    for (std::uint32_t t = 0; t < triangles.size(); ++t) {
        const Vec3f normal = mesh.faceNormal(t);
        for (int c = 0; c < 3; ++c) {
            const Vec3f& at = points[triangles[t][c]];
            const Vec3f toNext = normalized(points[triangles[t][(c + 1) % 3]] - at);
            const Vec3f toPrevious = normalized(points[triangles[t][(c + 2) % 3]] - at);
            const float angle = std::acos(std::clamp(dot(toNext, toPrevious), -1.0f, 1.0f));
            pointNormals_[triangles[t][c]] += normal * angle;
            const std::int32_t across = topology->neighborAcross(t, c);
            edgeNormals_[3 * t + c] =
                across >= 0 ? normal + mesh.faceNormal(static_cast<std::uint32_t>(across)) : normal;
        }
    }

    const std::size_t nx = static_cast<std::size_t>(dims_[0]);
    const std::size_t ny = static_cast<std::size_t>(dims_[1]);
    const std::size_t nz = static_cast<std::size_t>(dims_[2]);
    const std::size_t cellCount = nx * ny * nz;
    const auto centreOf = [&](std::size_t index) {
        const std::size_t x = index % nx, y = (index / nx) % ny, z = index / (nx * ny);
        return origin_ + Vec3f{static_cast<float>(x) + 0.5f, static_cast<float>(y) + 0.5f,
                               static_cast<float>(z) + 0.5f} *
                             voxel_;
    };

    // Cells whose centre lies within the range of a triangle's box are the only ones that can be
    // within the range of the surface; only they ask the mesh.
    std::vector<std::int8_t> side(cellCount, 0);  // 0: not yet known; 2: may be near
    for (const Triangle& t : triangles) {
        const Vec3f boxLo = minPerAxis(minPerAxis(points[t[0]], points[t[1]]), points[t[2]]);
        const Vec3f boxHi = maxPerAxis(maxPerAxis(points[t[0]], points[t[1]]), points[t[2]]);
        std::size_t first[3], last[3];
        bool empty = false;
        for (int axis = 0; axis < 3; ++axis) {
            const float from = (boxLo[axis] - range_ - origin_[axis]) * inverseVoxel_ - 0.5f;
            const float to = (boxHi[axis] + range_ - origin_[axis]) * inverseVoxel_ - 0.5f;
            if (!(to >= 0.0f) || !(from <= static_cast<float>(dims_[axis] - 1))) {
                empty = true;
                break;
            }
            first[axis] = static_cast<std::size_t>(std::ceil(clampedCoordinate(from, dims_[axis])));
            last[axis] = static_cast<std::size_t>(std::floor(clampedCoordinate(to, dims_[axis])));
            empty = empty || first[axis] > last[axis];
        }
        if (empty) continue;
        for (std::size_t z = first[2]; z <= last[2]; ++z)
            for (std::size_t y = first[1]; y <= last[1]; ++y)
                std::memset(side.data() + (z * ny + y) * nx + first[0], 2, last[0] - first[0] + 1);
    }

    std::vector<float> value(cellCount, 8.0f * range_);
    std::vector<Vec3f> nearest(cellCount);
    parallelRange(0, cellCount, kCellGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            if (side[i] != 2) continue;
            const Vec3f centre = centreOf(i);
            const ClosestPoint closest = mesh.closestPoint(centre, range_);
            if (!closest.found()) {
                side[i] = 0;
                continue;
            }
            const bool inside = dot(centre - closest.point, pseudoNormal(closest)) < 0.0f;
            side[i] = inside ? -1 : 1;
            value[i] = inside ? -closest.distance : closest.distance;
            nearest[i] = closest.point;
        }
    });

    // Cells beyond the range take the side and the surface point of the band cell that a walk
    // over the grid reaches them from. Inside and outside cells beyond the range are never
    // neighbours (the surface between them would be within a cell of one of them), so on a closed
    // mesh every cell gets the right side.
    std::vector<std::uint32_t> queue;
    queue.reserve(cellCount);
    for (std::size_t i = 0; i < cellCount; ++i)
        if (side[i] != 0) queue.push_back(static_cast<std::uint32_t>(i));
    for (std::size_t head = 0; head < queue.size(); ++head) {
        const std::size_t from = queue[head];
        const std::size_t x = from % nx, y = (from / nx) % ny, z = from / (nx * ny);
        const std::size_t neighbours[6] = {
            x > 0 ? from - 1 : from,       x + 1 < nx ? from + 1 : from,
            y > 0 ? from - nx : from,      y + 1 < ny ? from + nx : from,
            z > 0 ? from - nx * ny : from, z + 1 < nz ? from + nx * ny : from};
        for (std::size_t to : neighbours) {
            if (side[to] != 0) continue;
            side[to] = side[from];
            nearest[to] = nearest[from];
            const float d = std::min(length(centreOf(to) - nearest[from]), 8.0f * range_);
            value[to] = side[to] < 0 ? -d : d;
            queue.push_back(static_cast<std::uint32_t>(to));
        }
    }

    cells_.resize(cellCount);
    const float inverseStep = 1.0f / step_;
    parallelRange(0, cellCount, kCellGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const float units =
                std::clamp(std::round(value[i] * inverseStep), -kLargestCell, kLargestCell);
            cells_[i] = static_cast<std::int16_t>(units);
        }
    });

    for (int axis = 0; axis < 3; ++axis)
        brickDims_[axis] = (dims_[axis] + kBrick - 1) / kBrick;
    brickMinimum_.assign(static_cast<std::size_t>(brickDims_[0]) * brickDims_[1] * brickDims_[2],
                         std::numeric_limits<std::int16_t>::max());
    for (std::size_t i = 0; i < cellCount; ++i) {
        const std::size_t x = i % nx, y = (i / nx) % ny, z = i / (nx * ny);
        std::int16_t& least =
            brickMinimum_[((z / kBrick) * brickDims_[1] + y / kBrick) * brickDims_[0] + x / kBrick];
        least = std::min(least, cells_[i]);
    }
}

Vec3f MeshDistanceField::pseudoNormal(const ClosestPoint& closest) const {
    const auto t = static_cast<std::uint32_t>(closest.root.face);
    const Triangle& corners = mesh_->triangles()[t];
    const float w[3] = {1.0f - closest.root.u - closest.root.v, closest.root.u, closest.root.v};
    const bool zero[3] = {w[0] < kOnFeature, w[1] < kOnFeature, w[2] < kOnFeature};
    for (int c = 0; c < 3; ++c)
        if (zero[(c + 1) % 3] && zero[(c + 2) % 3]) return pointNormals_[corners[c]];
    // Edge c runs from corner c to corner c + 1, opposite corner c + 2.
    for (int c = 0; c < 3; ++c)
        if (zero[(c + 2) % 3]) return edgeNormals_[3 * t + c];
    return mesh_->faceNormal(t);
}

float MeshDistanceField::distance(const Vec3f& point) const {
    std::size_t first[3], second[3];
    float weight[3];
    for (int axis = 0; axis < 3; ++axis) {
        const float g =
            clampedCoordinate((point[axis] - origin_[axis]) * inverseVoxel_ - 0.5f, dims_[axis]);
        const auto base = static_cast<std::size_t>(std::min(static_cast<int>(g), dims_[axis] - 1));
        first[axis] = base;
        second[axis] = std::min<std::size_t>(base + 1, static_cast<std::size_t>(dims_[axis] - 1));
        weight[axis] = std::clamp(g - static_cast<float>(base), 0.0f, 1.0f);
    }
    const auto along = [&](std::size_t y, std::size_t z) {
        return cellValue(first[0], y, z) * (1.0f - weight[0]) +
               cellValue(second[0], y, z) * weight[0];
    };
    const auto plane = [&](std::size_t z) {
        return along(first[1], z) * (1.0f - weight[1]) + along(second[1], z) * weight[1];
    };
    return plane(first[2]) * (1.0f - weight[2]) + plane(second[2]) * weight[2];
}

Vec3f MeshDistanceField::gradient(const Vec3f& point) const {
    const float h = 0.5f * voxel_;
    const Vec3f dx{h, 0.0f, 0.0f}, dy{0.0f, h, 0.0f}, dz{0.0f, 0.0f, h};
    return normalized({distance(point + dx) - distance(point - dx),
                       distance(point + dy) - distance(point - dy),
                       distance(point + dz) - distance(point - dz)});
}

float MeshDistanceField::lowerBound(const Vec3f& lo, const Vec3f& hi) const {
    int from[3], to[3];
    for (int axis = 0; axis < 3; ++axis) {
        const float a = (std::fmin(lo[axis], hi[axis]) - origin_[axis]) * inverseVoxel_ - 0.5f;
        const float b = (std::fmax(lo[axis], hi[axis]) - origin_[axis]) * inverseVoxel_ - 0.5f;
        // A lookup blends the cell at or below its coordinate with the one above.
        from[axis] = static_cast<int>(clampedCoordinate(a, dims_[axis])) / kBrick;
        to[axis] =
            std::min(static_cast<int>(clampedCoordinate(b, dims_[axis])) + 1, dims_[axis] - 1) /
            kBrick;
    }
    std::int16_t least = std::numeric_limits<std::int16_t>::max();
    for (int z = from[2]; z <= to[2]; ++z)
        for (int y = from[1]; y <= to[1]; ++y)
            for (int x = from[0]; x <= to[0]; ++x)
                least = std::min(least, brickMinimum_[(static_cast<std::size_t>(z) * brickDims_[1] +
                                                       static_cast<std::size_t>(y)) *
                                                          brickDims_[0] +
                                                      static_cast<std::size_t>(x)]);
    return static_cast<float>(least) * step_;
}

float MeshDistanceField::exactDistance(const Vec3f& point) const {
    const ClosestPoint closest = mesh_->closestPoint(point);
    if (!closest.found()) return std::numeric_limits<float>::infinity();
    return dot(point - closest.point, pseudoNormal(closest)) < 0.0f ? -closest.distance
                                                                    : closest.distance;
}

std::uint64_t MeshDistanceField::cacheBytes() const {
    return std::uint64_t{cells_.size()} * 24 +
           std::uint64_t{pointNormals_.size() + edgeNormals_.size()} * 40 +
           std::uint64_t{brickMinimum_.size()} * 1504;
}

std::shared_ptr<const MeshDistanceField> DistanceFieldCache::get(
    const std::shared_ptr<const ScalpMesh>& mesh, float voxel, float band, int resolution) {
    if (!mesh) throw std::invalid_argument("sharedDistanceField: no mesh was given.");
    const std::uint64_t identity = mesh->contentSignature();
    std::lock_guard lock(mutex_);
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
        if (it->mesh != identity || it->voxel != voxel || it->band != band ||
            it->resolution != resolution)
            continue;
        entries_.splice(entries_.begin(), entries_, it);
        trim();
        return entries_.front().field;
    }
    // Built with the lock held, so that two callers never build the same field.
    auto field = std::make_shared<const MeshDistanceField>(mesh, voxel, band, resolution);
    const std::uint64_t bytes = field->cacheBytes();
    entries_.push_front({identity, voxel, band, resolution, field, bytes});
    total_ += bytes;
    trim();
    return field;
}

void DistanceFieldCache::trim() {
    while (entries_.size() > 1 && (entries_.size() >= kMostFields || total_ > budget_)) {
        const std::uint64_t bytes = entries_.back().bytes;
        total_ = total_ >= bytes ? total_ - bytes : 0;
        entries_.pop_back();
    }
}

bool DistanceFieldCache::holds(const ScalpMesh& mesh, float voxel, float band,
                               int resolution) const {
    const std::uint64_t identity = mesh.contentSignature();
    std::lock_guard lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& e) {
        return e.mesh == identity && e.voxel == voxel && e.band == band &&
               e.resolution == resolution;
    });
}

MemoryUse DistanceFieldCache::use() const {
    std::lock_guard lock(mutex_);
    return {static_cast<std::size_t>(total_), entries_.size()};
}

std::uint64_t parseFieldCacheBudget(const char* text) {
    constexpr std::uint64_t kMiB = 1048576;
    if (text == nullptr || *text == '\0') return kDefaultBudgetMiB * kMiB;
    const char* end = text + std::strlen(text);
    if (!std::all_of(text, end, [](char c) { return c >= '0' && c <= '9'; }))
        return kDefaultBudgetMiB * kMiB;
    std::uint64_t megabytes = 0;
    const auto [stop, error] = std::from_chars(text, end, megabytes);
    if (error != std::errc() || stop != end ||
        megabytes > std::numeric_limits<std::uint64_t>::max() / kMiB)
        return std::numeric_limits<std::uint64_t>::max();
    return megabytes * kMiB;
}

namespace {

DistanceFieldCache& processFieldCache() {
    static DistanceFieldCache cache(parseFieldCacheBudget(std::getenv("VELMORIN_FIELD_CACHE_MB")));
    static const bool registered = [] {
        registerMemoryReporter("distance fields", [] { return cache.use(); });
        return true;
    }();
    (void)registered;
    return cache;
}

}  // namespace

std::shared_ptr<const MeshDistanceField> sharedDistanceField(
    const std::shared_ptr<const ScalpMesh>& mesh, float voxel, float band, int resolution) {
    return processFieldCache().get(mesh, voxel, band, resolution);
}

}  // namespace velmorin
