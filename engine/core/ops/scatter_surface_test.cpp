#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "base/hash.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "ops/scatter_surface.h"

namespace velmorin::scatter {
namespace {

// A point near the scalp as the relaxation makes them: a location, moved off it along the surface
// by up to `along` and across it by `across` (either side), with the search reach the relaxation
// gives it. Corners and edges of triangles come often, for equal distances.
struct Query {
    Vec3f point;
    StrandRoot last;
    float fromLast, reach;
};

Query queryNear(const ScalpMesh& scalp, std::uint64_t seed, float along, float across) {
    const std::uint64_t h = mix64(seed);
    const auto face = static_cast<std::int32_t>(hashCombine(h, 1) % scalp.triangles().size());
    float u = unitFloat(hashCombine(h, 2)), v = unitFloat(hashCombine(h, 3));
    if (u + v > 1.0f) {
        u = 1.0f - u;
        v = 1.0f - v;
    }
    switch (hashCombine(h, 4) % 6) {
        case 0:
            u = v = 0.0f;
            break;  // a corner
        case 1:
            v = 0.0f;
            break;  // an edge
        case 2:
            v = 1.0f - u;
            break;  // the edge across
        default:
            break;
    }
    const StrandRoot last{face, u, v};
    const SurfaceFrame frame = scalp.frameAt(last);
    const float turn = unitFloat(hashCombine(h, 5)) * 6.2831853f;
    const float off = along * unitFloat(hashCombine(h, 6));
    const float up = across * (2.0f * unitFloat(hashCombine(h, 7)) - 1.0f);
    const Vec3f point = frame.origin + frame.tangent * (off * std::cos(turn)) +
                        frame.bitangent * (off * std::sin(turn)) + frame.normal * up;
    const float fromLast = length(point - scalp.pointAt(last));
    return {point, last, fromLast, fromLast * 1.001f + 1e-6f};
}

TEST(TriangleNeighbourhoods, AnswerAsTheTree) {
    // The head's triangles are about 0.7 across; the relaxation's lists reach a few radii, a
    // fraction of that. Moves along the surface up to half the reach, and across it from none to
    // far beyond the rounding of the coordinates, give the tree's ties, near ties and clear wins.
    // Points a rounding's width off an edge are where the tree's quick tests pass over the
    // nearest triangle now and then: there the answer must still be the tree's.
    const auto head = makeHeadScalp(1);
    const float reach = 0.3f;
    const TriangleNeighbourhoods near(*head, reach, 64 * head->triangles().size());
    ASSERT_TRUE(near.built());
    // Each triangle lists at least its neighbours across edges and corners.
    EXPECT_GT(near.listedCount(), 6 * head->triangles().size());
    const struct {
        float along, across;
    } moves[] = {{0.5f * reach, 0.0f},  {0.5f * reach, 1e-6f}, {0.5f * reach, 1e-4f},
                 {0.5f * reach, 1e-2f}, {0.5f * reach, 0.1f},  {1e-4f, 3e-5f},
                 {1e-5f, 1e-5f}};
    for (const auto [along, across] : moves) {
        std::size_t covered = 0, found = 0, wrong = 0;
        for (std::uint64_t s = 0; s < 20000; ++s) {
            const Query q = queryNear(*head, s, along, across);
            if (!near.covers(q.reach, q.fromLast)) continue;
            ++covered;
            const ClosestPoint mine = near.closest(q.point, q.reach, q.last.face);
            const ClosestPoint tree = head->closestPoint(q.point, q.reach);
            found += tree.found();
            const bool same = mine.root.face == tree.root.face &&
                              floatBits(mine.root.u) == floatBits(tree.root.u) &&
                              floatBits(mine.root.v) == floatBits(tree.root.v) &&
                              floatBits(mine.point.x) == floatBits(tree.point.x) &&
                              floatBits(mine.point.y) == floatBits(tree.point.y) &&
                              floatBits(mine.point.z) == floatBits(tree.point.z);
            wrong += !same;
        }
        EXPECT_EQ(wrong, 0u) << "along " << along << ", across " << across;
        EXPECT_GT(covered, 15000u) << "along " << along << ", across " << across;
        // Mostly found: the tree's quick tests may miss a triangle within a reach this tight.
        EXPECT_GT(found, covered * 99 / 100) << "along " << along << ", across " << across;
    }
    // A reach beyond the lists' is not covered: the tree answers.
    EXPECT_FALSE(near.covers(0.2f, 0.1f));
    EXPECT_TRUE(near.covers(0.1f, 0.1f));
}

TEST(TriangleNeighbourhoods, StayUnbuiltWhereTheTreeIsQuicker) {
    // Few candidates a triangle, or a reach that is not a positive number: no lists, no search
    // covered.
    const auto head = makeHeadScalp(1);
    const std::size_t enough = 64 * head->triangles().size();
    const struct {
        std::string name;
        float reach;
        std::size_t candidates;
        bool built;
    } cases[] = {
        {"enough candidates", 0.3f, enough, true},
        {"a candidate a triangle", 0.3f, head->triangles().size(), false},
        {"lists outweighing the candidates", 0.3f, 4 * head->triangles().size(), false},
        {"no reach", 0.0f, enough, false},
        {"reach not a number", std::nanf(""), enough, false},
        {"reach over the whole head", 100.0f, enough, false},
    };
    for (const auto& c : cases) {
        const TriangleNeighbourhoods near(*head, c.reach, c.candidates);
        EXPECT_EQ(near.built(), c.built) << c.name;
        EXPECT_EQ(near.covers(1e-3f, 1e-3f), c.built) << c.name;
    }
}

}  // namespace
}  // namespace velmorin::scatter
