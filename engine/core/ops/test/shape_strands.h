#pragma once
// Strands for the tests and benchmarks of the shape operators: small ones built by hand, random
// ones with the awkward cases (empty, one point), and many rooted on a scalp, leaning and a little
// wavy, so that every operator has something to turn.

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"

namespace velmorin::test {

// A plane of side 8 facing +y with a smooth round bump 0.8 high and 3 wide at the origin: skin
// that a straight strand over it would run through.
inline std::shared_ptr<const ScalpMesh> bumpedPlane() {
    auto plane = std::make_shared<ScalpMesh>(*makeUvPlane(8.0f, 40));
    std::vector<Vec3f> points = plane->points();
    for (Vec3f& p : points) {
        const float r2 = (p.x * p.x + p.z * p.z) / 2.25f;
        p.y = r2 < 1.0f ? 0.8f * (1.0f - r2) * (1.0f - r2) : 0.0f;
    }
    plane->setPoints(std::move(points));
    return plane;
}

// bumpedPlane with a column of its points moved onto the next: the triangles between have no
// area, and surface walks that reach them must ask the mesh's tree.
inline std::shared_ptr<const ScalpMesh> foldedPlane() {
    auto mesh = std::make_shared<ScalpMesh>(*bumpedPlane());
    std::vector<Vec3f> points = mesh->points();
    for (Vec3f& p : points) {
        if (std::fabs(p.x - 0.2f) < 0.05f) p.x = 0.0f;
    }
    mesh->setPoints(std::move(points));
    return mesh;
}

// `count` strands of 1 to `mostPoints` points rising along y with hashed bends, from roots in
// [0, 4) x [0, 4) on y = 0: every 5th with some points repeated (segments of no length) and every
// 11th of no length at all. The same seed gives the same set.
inline StrandSet bentStrands(std::size_t count, std::size_t mostPoints, std::uint64_t seed) {
    StrandSet strands;
    std::vector<Vec3f> points;
    for (std::size_t s = 0; s < count; ++s) {
        const std::uint64_t h = hashCombine(seed, s);
        const std::size_t pointCount = 1 + mix64(h) % mostPoints;
        points.clear();
        Vec3f at{unitFloat(h) * 4, 0, unitFloat(h + 1) * 4};
        for (std::size_t k = 0; k < pointCount; ++k) {
            const std::uint64_t p = hashCombine(h, k);
            if (!(s % 5 == 0 && k % 3 == 2) && s % 11 != 0)
                at += Vec3f{unitFloat(p) - 0.5f, 0.2f + unitFloat(p + 1), unitFloat(p + 2) - 0.5f};
            points.push_back(at);
        }
        strands.addStrand(h, StrandRoot{}, points, std::vector<float>(pointCount, 0.01f));
    }
    return strands;
}

// A set of the given strands, ids 100, 101..., unbound roots, widths 0.01.
inline std::shared_ptr<const StrandSet> handStrands(
    const std::vector<std::vector<Vec3f>>& strands) {
    auto set = std::make_shared<StrandSet>();
    for (std::size_t s = 0; s < strands.size(); ++s) {
        const std::vector<float> widths(strands[s].size(), 0.01f);
        set->addStrand(100 + s, StrandRoot{}, strands[s], widths);
    }
    return set;
}

// `strands` with the strand channel "clumpId" holding `clumpIds`.
inline std::shared_ptr<StrandSet> withClumps(const StrandSet& strands,
                                             const std::vector<float>& clumpIds) {
    auto set = std::make_shared<StrandSet>(strands);
    set->addStrandChannel("clumpId", -1.0f) = clumpIds;
    return set;
}

// gridStrands numbered into clumps of `perClump` strands in strand order, in "clumpId".
inline std::shared_ptr<StrandSet> clumpedGrid(std::size_t count, std::size_t points,
                                              std::uint64_t seed, std::size_t perClump) {
    std::vector<float> ids(count);
    for (std::size_t s = 0; s < count; ++s)
        ids[s] = static_cast<float>(s / perClump);
    return withClumps(*gridStrands(count, points, seed), ids);
}

// A straight strand of `count` points from the origin, `step` apart along `direction`.
inline std::vector<Vec3f> straight(std::size_t count, float step = 1.0f,
                                   Vec3f direction = {0, 1, 0}) {
    std::vector<Vec3f> points;
    for (std::size_t k = 0; k < count; ++k)
        points.push_back(direction * (step * static_cast<float>(k)));
    return points;
}

// A strand of `count` points from the origin, each step a hashed draw of `seed`: up to half a unit
// across x and z, up to one along y.
inline std::vector<Vec3f> randomWalk(std::size_t count, std::uint64_t seed) {
    std::vector<Vec3f> points(count);
    for (std::size_t k = 1; k < count; ++k)
        points[k] = points[k - 1] + Vec3f{unitFloat(hashCombine(seed, 3 * k)) - 0.5f,
                                          unitFloat(hashCombine(seed, 3 * k + 1)),
                                          unitFloat(hashCombine(seed, 3 * k + 2)) - 0.5f};
    return points;
}

// Random strands (0 to 12 points, some empty or of one point) from the strand tests, as a set.
inline std::shared_ptr<const StrandSet> mixedStrands(std::size_t count, std::uint64_t seed) {
    return std::make_shared<const StrandSet>(randomStrands(count, seed));
}

// `count` strands of `points` points each, ids hashed from `seed`, rooted at hashed spots of the
// scalp and about `length` long: out along the normal, leaning by up to half a unit sideways and
// wavy by a tenth of a step. Filled in parallel, so that 1M strands stay quick.
inline std::shared_ptr<const StrandSet> scalpStrands(const ScalpMesh& scalp, std::size_t count,
                                                     std::size_t points, std::uint64_t seed,
                                                     float length = 1.0f) {
    auto set = std::make_shared<StrandSet>();
    std::vector<std::uint64_t>& ids = set->writeIds();
    std::vector<StrandRoot>& roots = set->writeRoots();
    std::vector<std::uint64_t>& offsets = set->writeOffsets();
    std::vector<Vec3f>& positions = set->writePoints();
    std::vector<float>& widths = set->writeWidths();
    ids.resize(count);
    roots.resize(count);
    offsets.assign(count + 1, 0);
    positions.resize(count * points);
    widths.assign(count * points, 0.01f);
    const std::size_t faces = scalp.triangleCount();
    const float step = points > 1 ? length / static_cast<float>(points - 1) : 0.0f;
    parallelRange(0, count, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::uint64_t id = hashCombine(seed, s);
            ids[s] = id;
            float u = unitFloat(id + 1), v = unitFloat(id + 2);
            if (u + v > 1.0f) u = 1.0f - u, v = 1.0f - v;
            roots[s] = {static_cast<std::int32_t>(mix64(id) % faces), u, v};
            offsets[s + 1] = (s + 1) * points;
            const Vec3f lean{unitFloat(id + 3) - 0.5f, unitFloat(id + 4) - 0.5f,
                             unitFloat(id + 5) - 0.5f};
            const Vec3f direction = normalized(scalp.normalAt(roots[s]) + lean);
            Vec3f at = scalp.pointAt(roots[s]);
            for (std::size_t k = 0; k < points; ++k) {
                if (k > 0) {
                    const std::uint64_t h = hashCombine(id, k);
                    const Vec3f wiggle{unitFloat(h) - 0.5f, unitFloat(h + 1) - 0.5f,
                                       unitFloat(h + 2) - 0.5f};
                    at += (direction + wiggle * 0.2f) * step;
                }
                positions[s * points + k] = at;
            }
        }
    });
    return set;
}

}  // namespace velmorin::test
