// The root UVs that the exports hand to both writers.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "common/session_backend.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

TEST(RootUvs, FollowTheScalpUvsAtEachRoot) {
    const auto plane = makeUvPlane(2.0f, 1);  // two triangles with UVs over 0..1
    ASSERT_EQ(plane->triangleCount(), 2u);
    const std::vector<Uv>& corners = plane->uvs();
    const auto uvOf = [&](std::size_t corner) {
        return std::array<float, 2>{corners[corner].u, corners[corner].v};
    };
    const Uv centre = {(corners[3].u + corners[4].u + corners[5].u) / 3.0f,
                       (corners[3].v + corners[4].v + corners[5].v) / 3.0f};
    struct Case {
        StrandRoot root;
        std::array<float, 2> uv;
    };
    const std::vector<Case> cases = {
        {{0, 0.0f, 0.0f}, uvOf(0)},                             // a triangle's first corner
        {{0, 1.0f, 0.0f}, uvOf(1)},                             // its second
        {{1, 0.0f, 1.0f}, uvOf(5)},                             // the other's third
        {{1, 1.0f / 3.0f, 1.0f / 3.0f}, {centre.u, centre.v}},  // a triangle's middle
        {{-1, 0.5f, 0.5f}, {0.0f, 0.0f}},                       // not bound to the scalp
        {{7, 0.2f, 0.2f}, {0.0f, 0.0f}},                        // a face it doesn't have
    };
    StrandSet strands;
    const std::vector<Vec3f> points = {{0, 0, 0}, {0, 1, 0}};
    for (std::size_t i = 0; i < cases.size(); ++i)
        strands.addStrand(i + 1, cases[i].root, points);

    const auto uvs = rootUvsOf(strands, plane.get());
    ASSERT_EQ(uvs.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_NEAR(uvs[i][0], cases[i].uv[0], 1e-6f);
        EXPECT_NEAR(uvs[i][1], cases[i].uv[1], 1e-6f);
    }
    // The corners differ, so the table above tells the corners apart.
    EXPECT_NE(uvOf(0), uvOf(1));

    // Without UVs, or without a scalp, every strand gets (0, 0), one per strand.
    const ScalpMesh bare(plane->points(), plane->triangles());
    const std::vector<std::array<float, 2>> zeros(cases.size(), {0.0f, 0.0f});
    EXPECT_EQ(rootUvsOf(strands, &bare), zeros);
    EXPECT_EQ(rootUvsOf(strands, nullptr), zeros);
}

}  // namespace
}  // namespace velmorin
