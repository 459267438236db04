#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "base/hash.h"
#include "mesh/closest_point_tree.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "ops/scatter_cells.h"
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

// The closest point within reach over every triangle, by the same exact test, equal distances
// going to the lower triangle.
ClosestPoint closestByBruteForce(const ScalpMesh& scalp, const Vec3f& p, float reach) {
    ClosestPoint best;
    float best2 = reach * reach;
    const auto& points = scalp.points();
    const auto& triangles = scalp.triangles();
    for (std::size_t t = 0; t < triangles.size(); ++t) {
        const TrianglePoint hit = closestPointOnTriangle(
            p, points[triangles[t][0]], points[triangles[t][1]], points[triangles[t][2]]);
        const float d2 = lengthSquared(hit.point - p);
        if (d2 < best2 || (d2 == best2 && !best.found())) {
            best2 = d2;
            best.root = {static_cast<std::int32_t>(t), hit.u, hit.v};
            best.point = hit.point;
        }
    }
    return best;
}

// A sheet of half-unit squares folded over along its middle, the second half 30 degrees above
// the first: near the fold, triangles of each half reach over the other half's triangles.
std::shared_ptr<const ScalpMesh> foldedSheet() {
    constexpr int kAlong = 16, kAcross = 8;
    constexpr float kStep = 0.5f, kFold = 0.5f * kAlong * kStep;
    const float cosine = std::cos(0.5235988f), sine = std::sin(0.5235988f);
    std::vector<Vec3f> points;
    for (int j = 0; j <= kAcross; ++j)
        for (int i = 0; i <= kAlong; ++i) {
            const float x = static_cast<float>(i) * kStep, y = static_cast<float>(j) * kStep;
            points.push_back(x <= kFold
                                 ? Vec3f{x, y, 0.0f}
                                 : Vec3f{kFold - (x - kFold) * cosine, y, (x - kFold) * sine});
        }
    std::vector<Triangle> triangles;
    const auto at = [](int i, int j) { return static_cast<std::uint32_t>(j * (kAlong + 1) + i); };
    for (int j = 0; j < kAcross; ++j)
        for (int i = 0; i < kAlong; ++i) {
            triangles.push_back({at(i, j), at(i + 1, j), at(i + 1, j + 1)});
            triangles.push_back({at(i, j), at(i + 1, j + 1), at(i, j + 1)});
        }
    return std::make_shared<ScalpMesh>(std::move(points), std::move(triangles));
}

bool sameHit(const ClosestPoint& a, const ClosestPoint& b) {
    return a.root.face == b.root.face && floatBits(a.root.u) == floatBits(b.root.u) &&
           floatBits(a.root.v) == floatBits(b.root.v) &&
           floatBits(a.point.x) == floatBits(b.point.x) &&
           floatBits(a.point.y) == floatBits(b.point.y) &&
           floatBits(a.point.z) == floatBits(b.point.z);
}

TEST(TriangleNeighbourhoods, FindTheClosestPoint) {
    // The head's triangles are about 0.7 across, the folded sheet's 0.5; the relaxation's lists
    // reach a few radii, a fraction of that. Moves along the surface up to half the reach, and
    // across it from none to far beyond the rounding of the coordinates, give ties at corners and
    // edges, near ties and clear wins: every answer the lists vouch for is the brute force's, to
    // the bit. On the head nearly every triangle has each point of every neighbour beyond one of
    // its edges, so that the points well inside it are answered without the neighbours; on the
    // folded sheet the triangles by the fold do not, and points above them are nearest the other
    // half. Points too far from their last triangle for the lists are left to the tree.
    const float reach = 0.3f;
    const struct {
        const char* name;
        std::shared_ptr<const ScalpMesh> scalp;
        std::size_t fewestSeparated, mostSeparated;
    } meshes[] = {
        {"head", makeHeadScalp(1), 2048 * 9 / 10, 2048},
        {"folded sheet", foldedSheet(), 256 / 2, 256 - 16},
    };
    for (const auto& mesh : meshes) {
        const ScalpMesh& scalp = *mesh.scalp;
        const TriangleNeighbourhoods near(scalp, reach, 64 * scalp.triangles().size());
        ASSERT_TRUE(near.built()) << mesh.name;
        // Each triangle lists at least its neighbours across edges and corners.
        EXPECT_GT(near.listedCount(), 6 * scalp.triangles().size()) << mesh.name;
        EXPECT_GE(near.separatedCount(), mesh.fewestSeparated) << mesh.name;
        EXPECT_LE(near.separatedCount(), mesh.mostSeparated) << mesh.name;
        const struct {
            float along, across, within;
        } moves[] = {{0.5f * reach, 0.0f, 0.12f},  {0.5f * reach, 1e-6f, 0.12f},
                     {0.5f * reach, 1e-4f, 0.12f}, {0.5f * reach, 1e-2f, 0.12f},
                     {0.5f * reach, 0.1f, 0.12f},  {1e-4f, 3e-5f, 0.12f},
                     {1e-5f, 1e-5f, 0.12f},        {0.5f * reach, 0.05f, 0.01f}};
        std::size_t alone = 0;
        for (const auto& move : moves) {
            std::size_t answered = 0, found = 0, wrong = 0, wrongAlone = 0;
            // Queries sixteen at a time, as the relaxation asks closestWhereAlone first; a last
            // group of twelve covers fewer lanes.
            for (std::uint64_t first = 0; first < 1500; first += 16) {
                const std::size_t lanes = std::min<std::size_t>(16, 1500 - first);
                Vec3f points[16];
                StrandRoot last[16];
                float within[16];
                for (std::size_t c = 0; c < lanes; ++c) {
                    const Query q = queryNear(scalp, first + c, move.along, move.across);
                    points[c] = q.point;
                    last[c] = q.last;
                    within[c] = move.within;
                }
                ClosestPoint wide[16];
                const unsigned plain = near.closestWhereAlone(points, last, within, lanes, wide);
                EXPECT_EQ(plain >> lanes, 0u);
                for (std::size_t c = 0; c < lanes; ++c) {
                    ClosestPoint mine;
                    mine.root.face = -7;  // left as it was where the lists cannot vouch
                    if (!near.closest(points[c], move.within, last[c].face, mine)) {
                        EXPECT_EQ(mine.root.face, -7);
                        EXPECT_EQ((plain >> c) & 1u, 0u);
                        continue;
                    }
                    ++answered;
                    const ClosestPoint brute = closestByBruteForce(scalp, points[c], move.within);
                    found += brute.found();
                    wrong += !sameHit(mine, brute);
                    if ((plain >> c) & 1u) {
                        ++alone;
                        wrongAlone += !sameHit(wide[c], mine) ||
                                      floatBits(wide[c].distance) != floatBits(mine.distance);
                    }
                }
            }
            const std::string name =
                std::string(mesh.name) + ", along " + std::to_string(move.along) + ", across " +
                std::to_string(move.across) + ", within " + std::to_string(move.within);
            EXPECT_EQ(wrong, 0u) << name;
            EXPECT_EQ(wrongAlone, 0u) << name;
            EXPECT_GT(answered, 1000u) << name;
            if (move.within > move.across) {
                EXPECT_GT(found, answered * 9 / 10) << name;
            }
        }
        // A good share of the points lie over the inside of a triangle that no neighbour reaches
        // into, plainly near it: those are answered sixteen at once, where the processor has the
        // lanes.
        if (scatter::widestLanesUsable()) {
            EXPECT_GT(alone, 3000u) << mesh.name;
        } else {
            EXPECT_EQ(alone, 0u) << mesh.name;
        }
    }
    // A point beyond half the lists' reach from its last triangle is left to the tree.
    const auto head = makeHeadScalp(1);
    const TriangleNeighbourhoods near(*head, reach, 64 * head->triangles().size());
    const Query q = queryNear(*head, 3, 0.0f, 0.0f);
    const SurfaceFrame frame = head->frameAt(q.last);
    ClosestPoint hit;
    EXPECT_FALSE(near.closest(frame.origin + frame.normal * 0.2f, 1.0f, q.last.face, hit));
    EXPECT_TRUE(near.closest(frame.origin + frame.normal * 0.1f, 1.0f, q.last.face, hit));
    EXPECT_NEAR(hit.distance, 0.1f, 1e-4f);
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

TEST(TriangleNeighbourhoods, NormalsAreTheScalpsToTheBit) {
    // The kept corner normals give the scalp's own interpolated normal, corners and edges
    // included; a triangle out of range, or lists not built, leave it to the scalp.
    const auto head = makeHeadScalp(1);
    const TriangleNeighbourhoods near(*head, 0.3f, 64 * head->triangles().size());
    ASSERT_TRUE(near.built());
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
        const StrandRoot root = queryNear(*head, seed, 0.0f, 0.0f).last;
        Vec3f normal{-7.0f, -7.0f, -7.0f};
        ASSERT_TRUE(near.normalAt(root, normal)) << seed;
        const Vec3f expected = head->normalAt(root);
        EXPECT_EQ(floatBits(normal.x), floatBits(expected.x)) << seed;
        EXPECT_EQ(floatBits(normal.y), floatBits(expected.y)) << seed;
        EXPECT_EQ(floatBits(normal.z), floatBits(expected.z)) << seed;
    }
    Vec3f untouched{1.0f, 2.0f, 3.0f};
    const auto faces = static_cast<std::int32_t>(head->triangles().size());
    EXPECT_FALSE(near.normalAt({faces, 0.2f, 0.2f}, untouched));
    EXPECT_FALSE(near.normalAt({-1, 0.2f, 0.2f}, untouched));
    const TriangleNeighbourhoods unbuilt(*head, 0.3f, 1);
    EXPECT_FALSE(unbuilt.normalAt({0, 0.2f, 0.2f}, untouched));
    EXPECT_EQ(untouched, (Vec3f{1.0f, 2.0f, 3.0f}));
}

}  // namespace
}  // namespace velmorin::scatter
