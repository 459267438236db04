#include "mesh/surface_graph.h"

#include <gtest/gtest.h>

#include <cmath>

#include "base/hash.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

StrandRoot hashedRoot(const ScalpMesh& mesh, std::uint64_t id) {
    const float u = unitFloat(hashCombine(id, 1)), v = unitFloat(hashCombine(id, 2));
    return {static_cast<std::int32_t>(mix64(id) % mesh.triangleCount()), u * 0.5f, v * 0.5f};
}

TEST(SurfaceGraph, WalksOverTheSurfaceNeverShorterThanAStraightLine) {
    const auto head = makeHeadScalp(1);
    const auto graph = sharedSurfaceGraph(head);
    EXPECT_EQ(sharedSurfaceGraph(std::make_shared<ScalpMesh>(*head)), graph);
    EXPECT_EQ(graph->pieceCount(), 1u);
    SurfaceGraph::Walk walk(*graph);
    for (std::uint64_t id = 0; id < 100; ++id) {
        const StrandRoot a = hashedRoot(*head, id), b = hashedRoot(*head, id + 1000);
        const float there = walk.between(a, b), back = walk.between(b, a);
        ASSERT_TRUE(std::isfinite(there));
        EXPECT_NEAR(there, back, 1e-4f * there);
        EXPECT_GE(there, length(head->pointAt(a) - head->pointAt(b)) * (1.0f - 1e-5f));
        // A bound below the distance finds no path.
        EXPECT_TRUE(std::isinf(walk.between(a, b, there * 0.99f)));
    }
    // Along a row of the grid the walk is straight.
    const auto plane = makeUvPlane(8.0f, 8);
    SurfaceGraph::Walk flat(*sharedSurfaceGraph(plane));
    EXPECT_NEAR(flat.between({0, 0.0f, 0.0f}, {14, 1.0f, 0.0f}, 100.0f), 8.0f, 1e-5f);

    // Reached points come nearest first and within the bound.
    const auto reached = walk.from(hashedRoot(*head, 7), 2.0f);
    ASSERT_FALSE(reached.empty());
    for (std::size_t i = 0; i < reached.size(); ++i) {
        EXPECT_LE(reached[i].distance, 2.0f);
        if (i > 0) {
            EXPECT_LE(reached[i - 1].distance, reached[i].distance);
        }
    }
    EXPECT_LT(reached.size(), head->pointCount());
}

TEST(SurfaceGraph, SeparatePiecesNeverMeet) {
    const auto mesh = std::make_shared<ScalpMesh>(
        std::vector<Vec3f>{
            {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0.1f}, {1, 0, 0.1f}, {0, 1, 0.1f}},
        std::vector<Triangle>{{0, 1, 2}, {3, 4, 5}});
    const SurfaceGraph graph(*mesh);
    EXPECT_EQ(graph.pieceCount(), 2u);
    EXPECT_EQ(graph.pieceOf(4), 1u);
    SurfaceGraph::Walk walk(graph);
    EXPECT_TRUE(std::isinf(walk.between({0, 0.2f, 0.2f}, {1, 0.2f, 0.2f})));
    EXPECT_EQ(walk.from({0, 0.0f, 0.0f}, 10.0f).size(), 3u);
    EXPECT_TRUE(walk.from({5, 0.0f, 0.0f}, 10.0f).empty());
}

}  // namespace
}  // namespace velmorin
