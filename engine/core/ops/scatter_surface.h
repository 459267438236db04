#pragma once
// The closest surface point of a scatter candidate that has moved a little off the triangle it
// last stood on, found among that triangle's neighbours instead of by a walk down the mesh's tree:
// the relaxation projects every candidate back onto the scalp six times.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "base/vec3.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::scatter {

// For every triangle of a scalp, the triangles whose boxes lie within `reach` of its own box, in
// blocks of eight with what bounds a point's distance to each from below: the distance to its
// plane and, across it, to its edges' lines. A point d from its last triangle has every triangle
// within `reach - d` of it in that triangle's list. The search starts from the last triangle's
// exact distance, which bounds the answer's, so the bounds pass over nearly all the others; the
// exact test (closestPointOnTriangle) decides the rest, equal distances going to the lower
// triangle. The answer is the true closest point by that test, which may differ from the mesh
// tree's only where two triangles lie equally near to the last bit (the tree's quick tests round
// otherwise). Immutable once built; queries are safe from any number of threads.
class TriangleNeighbourhoods {
  public:
    // Builds the lists where they stay short and small: a scalp whose triangles are large beside
    // `reach`, under a scatter of `candidates` points that outweigh the lists (a few dozen
    // candidates a triangle). Otherwise nothing is built and no search is covered.
    TriangleNeighbourhoods(const ScalpMesh& scalp, float reach, std::size_t candidates);

    bool built() const { return !firstBlock_.empty(); }
    // Whether a search within `maxDistance` of a point no farther than `fromTriangle` from its
    // last triangle finds all it must in that triangle's list.
    bool covers(float maxDistance, float fromTriangle) const {
        return built() && maxDistance + fromTriangle <= 0.999f * reach_;
    }
    // The closest point within `maxDistance` of p, `triangle` being the triangle p last stood on:
    // false where the lists cannot vouch for the answer (p too far from that triangle, or nothing
    // listed), and then `hit` is left as it was and the caller asks the mesh's tree.
    bool closest(const Vec3f& p, float maxDistance, std::int32_t triangle, ClosestPoint& hit) const;
    // closest() for up to sixteen points at once (`count`), each with its last triangle and its
    // `maxDistance`, where the last triangle plainly holds the answer: the point lies over its
    // inside, well within its edge planes and a small part of the lists' reach off it. Those
    // lanes' answers, closest()'s to the bit, go to `hits`, and their bits are set in the
    // returned mask; the rest are left to closest(). Needs AVX-512 (widestLanesUsable): without
    // it no lane is answered.
    unsigned closestWhereAlone(const Vec3f* points, const StrandRoot* last,
                               const float* maxDistance, std::size_t count,
                               ClosestPoint* hits) const;

    // The scalp's interpolated normal at a location (ScalpMesh::normalAt, the same bits) from
    // the triangle's corner normals kept beside its corners: false where nothing is built or the
    // corner normals cancel, and the caller asks the scalp.
    bool normalAt(const StrandRoot& root, Vec3f& normal) const {
        if (!built() || root.face < 0 || static_cast<std::size_t>(root.face) >= normals_.size())
            return false;
        const std::array<Vec3f, 3>& n = normals_[static_cast<std::size_t>(root.face)];
        const float w0 = 1.0f - root.u - root.v;
        const Vec3f blend = n[0] * w0 + n[1] * root.u + n[2] * root.v;
        const float len2 = lengthSquared(blend);
        if (!(len2 > 1e-20f)) return false;
        normal = blend / std::sqrt(len2);
        return true;
    }

    // The number of listed neighbours, padding included (for tests).
    std::size_t listedCount() const { return blocks_.size() * kLanes; }
    // The number of triangles none of whose neighbours reaches inside all three of its edge
    // planes, where a point well inside needs no search of the neighbours (for tests).
    std::size_t separatedCount() const {
        return static_cast<std::size_t>(std::count_if(
            separatedEdges_.begin(), separatedEdges_.end(), [](const std::array<float, 12>& e) {
                return e[0] != 0.0f || e[1] != 0.0f || e[2] != 0.0f;
            }));
    }

  private:
    static constexpr std::size_t kLanes = 8;
    // Eight neighbours: per lane the unit normal and offset of its plane, and of each edge the
    // in-plane outward unit normal and offset, so that n . p - offset is a signed distance. Empty
    // lanes have a plane at infinity.
    struct alignas(32) Block {
        float plane[4][kLanes];
        float edge[3][4][kLanes];
        std::uint32_t triangle[kLanes];
    };
    // Per lane of the block, a bound from below on the squared distance of p to its triangle,
    // written to `out`; returned, a bit per lane whose bound is not above `best` (the lanes that
    // need the exact test). Nearly always none: the last triangle's distance is mostly the answer.
    unsigned lowerBounds(const Block& block, const Vec3f& p, float best, float* out) const;

    float reach_ = 0.0f;
    float tolerance_ = 0.0f;  // more than the rounding of the bounds, so they never cut too much
    std::vector<std::array<Vec3f, 3>> corners_;
    std::vector<std::array<Vec3f, 3>> normals_;  // each triangle's corners' vertex normals
    std::vector<std::uint32_t> firstBlock_;      // triangle t's blocks: [firstBlock_[t], [t + 1])
    std::vector<Block> blocks_;
    // Per triangle its three edge rows (outward in-plane normal, offset) where no listed neighbour
    // reaches inside all three of its edge planes, else zeros.
    std::vector<std::array<float, 12>> separatedEdges_;
};

}  // namespace velmorin::scatter
