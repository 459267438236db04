#include "mesh/distance_field.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "base/hash.h"
#include "base/test/expect_message.h"
#include "mesh/sample_meshes.h"
#include "mesh/test/mesh_checks.h"

namespace velmorin {
namespace {

using test::expectMessage;
using test::hashedPoint;

std::shared_ptr<const ScalpMesh> closedCube() {
    return std::make_shared<ScalpMesh>(test::quadCube(0));
}

// Signed distance to the box [-1, 1]^3, worked out from its faces.
float boxDistance(const Vec3f& p) {
    const Vec3f q{std::fabs(p.x) - 1.0f, std::fabs(p.y) - 1.0f, std::fabs(p.z) - 1.0f};
    const float outside = length(maxPerAxis(q, Vec3f{}));
    const float inside = std::min(std::max({q.x, q.y, q.z}), 0.0f);
    return outside + inside;
}

struct Shape {
    std::string name;
    std::shared_ptr<const ScalpMesh> mesh;
    std::function<float(const Vec3f&)> truth;
    float slack;  // how far the mesh itself is from the true shape
};

TEST(MeshDistanceField, MatchesExactDistancesWithinAVoxelAndSignsEverywhere) {
    const std::vector<Shape> shapes = {
        // A sphere of 64 rings is within 1.3e-3 of the round one.
        {"sphere", makeSphere(1.0f, 64, 128), [](const Vec3f& p) { return length(p) - 1.0f; },
         1.3e-3f},
        {"cube", closedCube(), boxDistance, 0.0f},
    };
    for (const Shape& shape : shapes) {
        const MeshDistanceField field(shape.mesh, 0.05f, 0.2f, 256);
        EXPECT_FLOAT_EQ(field.range(), 0.2f) << shape.name;
        for (std::uint64_t id = 0; id < 4000; ++id) {
            const Vec3f p = hashedPoint(id, 1.6f);
            const float truth = shape.truth(p);
            const float value = field.distance(p);
            if (std::fabs(truth) < field.range() - field.voxelSize()) {
                ASSERT_NEAR(value, truth, field.voxelSize() + shape.slack)
                    << shape.name << " at " << p.x << ", " << p.y << ", " << p.z;
                ASSERT_NEAR(field.exactDistance(p), truth, shape.slack + 1e-5f) << shape.name;
            } else if (std::fabs(truth) > field.range() + field.voxelSize()) {
                // Beyond the band: the right side, and never nearer than the band.
                ASSERT_EQ(value > 0.0f, truth > 0.0f)
                    << shape.name << " at " << p.x << ", " << p.y << ", " << p.z;
                ASSERT_GE(std::fabs(value), field.range() - field.voxelSize()) << shape.name;
            }
        }
        // Out of a face, the distance grows along the face normal.
        const Vec3f out = field.gradient({1.1f, 0.05f, -0.02f});
        EXPECT_GT(out.x, 0.95f) << shape.name;
    }
}

TEST(MeshDistanceField, BoundsOverBoxesAndGridLimits) {
    const auto cube = closedCube();
    const MeshDistanceField field(cube, 0.02f, 0.1f, 40);
    // The resolution caps the cells: 40 along the cube's extent and margins.
    EXPECT_LE(std::max({field.dimensions()[0], field.dimensions()[1], field.dimensions()[2]}), 40);
    EXPECT_GT(field.voxelSize(), 0.05f);
    for (std::uint64_t id = 0; id < 200; ++id) {
        const Vec3f lo = hashedPoint(id, 1.5f);
        const Vec3f hi = lo + Vec3f{0.3f, 0.2f, 0.4f};
        const float bound = field.lowerBound(lo, hi);
        for (std::uint64_t k = 0; k < 20; ++k) {
            const Vec3f t{unitFloat(hashCombine(id, k * 3)), unitFloat(hashCombine(id, k * 3 + 1)),
                          unitFloat(hashCombine(id, k * 3 + 2))};
            const Vec3f p = lo + Vec3f{t.x * 0.3f, t.y * 0.2f, t.z * 0.4f};
            ASSERT_LE(bound, field.distance(p));
        }
    }
    // Far outside the grid, a lookup takes the border's value and stays outside.
    EXPECT_GT(field.distance({1e30f, 0.0f, 0.0f}), 0.0f);
    EXPECT_GT(field.distance({std::nanf(""), 0.0f, 0.0f}), -1e30f);

    // A mesh without triangles is outside everywhere.
    const MeshDistanceField empty(std::make_shared<ScalpMesh>(), 0.1f, 0.0f, 8);
    EXPECT_FLOAT_EQ(empty.distance({0, 0, 0}), 8.0f * empty.range());
}

TEST(MeshDistanceField, RejectsBadArguments) {
    const auto cube = closedCube();
    expectMessage([&] { MeshDistanceField(nullptr, 0.1f, 0.1f, 8); },
                  "MeshDistanceField: no mesh was given.");
    expectMessage([&] { MeshDistanceField(cube, 0.0f, 0.1f, 8); },
                  "MeshDistanceField: the voxel size must be above 0.");
    expectMessage([&] { MeshDistanceField(cube, std::nanf(""), 0.1f, 8); },
                  "MeshDistanceField: the voxel size must be above 0.");
    expectMessage([&] { MeshDistanceField(cube, 0.1f, -1.0f, 8); },
                  "MeshDistanceField: the band must not be negative.");
    expectMessage([&] { MeshDistanceField(cube, 0.1f, 0.1f, 0); },
                  "MeshDistanceField: the resolution must be 1 to 1024.");
    expectMessage([&] { sharedDistanceField(nullptr, 0.1f, 0.1f, 8); },
                  "sharedDistanceField: no mesh was given.");
}

TEST(DistanceFieldCache, ReadsItsBudgetInWholeMebibytes) {
    const std::uint64_t fallback = 768ull << 20;
    const std::vector<std::pair<const char*, std::uint64_t>> cases = {
        {nullptr, fallback},
        {"", fallback},
        {"0", 0},
        {"16", 16ull << 20},
        {"1.5", fallback},
        {"-1", fallback},
        {" 8", fallback},
        {"8 ", fallback},
        {"0x10", fallback},
        {"lots", fallback},
        {"99999999999999999999", std::numeric_limits<std::uint64_t>::max()},
    };
    for (const auto& [text, bytes] : cases)
        EXPECT_EQ(parseFieldCacheBudget(text), bytes) << (text ? text : "(unset)");
}

TEST(DistanceFieldCache, SharesEqualRequestsAndTrimsLeastRecentlyUsed) {
    const auto cube = closedCube();
    const auto sphere = makeSphere(1.0f, 8, 12);
    const auto request = [&](DistanceFieldCache& cache, float voxel, float band = 0.2f) {
        return cache.get(cube, voxel, band, 16);
    };
    {
        // With no budget only the newest field stays.
        DistanceFieldCache cache(0);
        request(cache, 0.1f);
        const auto newest = request(cache, 0.2f);
        EXPECT_TRUE(cache.holds(*cube, 0.2f, 0.2f, 16));
        EXPECT_FALSE(cache.holds(*cube, 0.1f, 0.2f, 16));
        EXPECT_EQ(cache.use().entries, 1u);
        EXPECT_EQ(cache.use().bytes, newest->cacheBytes());
    }
    DistanceFieldCache cache(1ull << 40);
    const auto a = request(cache, 0.1f);
    EXPECT_EQ(request(cache, 0.1f), a);
    const auto otherBand = request(cache, 0.1f, 0.3f);
    EXPECT_NE(otherBand, a);
    EXPECT_EQ(cache.use().entries, 2u);
    // Equal content is the same mesh, wherever it is held.
    EXPECT_EQ(cache.get(std::make_shared<ScalpMesh>(*cube), 0.1f, 0.2f, 16), a);

    // Four held: a, otherBand, c, d. Using a again makes otherBand the least recent.
    request(cache, 0.12f);
    request(cache, 0.13f);
    EXPECT_EQ(request(cache, 0.1f), a);
    const auto e = request(cache, 0.14f);
    EXPECT_FALSE(cache.holds(*cube, 0.1f, 0.3f, 16));
    cache.get(sphere, 0.1f, 0.2f, 16);
    EXPECT_FALSE(cache.holds(*cube, 0.12f, 0.2f, 16));
    for (float voxel : {0.1f, 0.13f, 0.14f})
        EXPECT_TRUE(cache.holds(*cube, voxel, 0.2f, 16));
    EXPECT_TRUE(cache.holds(*sphere, 0.1f, 0.2f, 16));
    EXPECT_EQ(cache.use().entries, 4u);
    // A dropped field lives on for its holder.
    EXPECT_GT(otherBand->cellCount(), 0u);

    // The size counted: 24 bytes a cell, 40 for each point and triangle edge, 1504 for each brick
    // of 8 cells a side.
    const auto dims = e->dimensions();
    const std::uint64_t bricks =
        std::uint64_t((dims[0] + 7) / 8) * ((dims[1] + 7) / 8) * ((dims[2] + 7) / 8);
    EXPECT_EQ(e->cacheBytes(), e->cellCount() * 24 + (8 + 36) * 40 + bricks * 1504);
}

TEST(DistanceFieldCache, TheProcessCacheIsReported) {
    const auto cube = closedCube();
    const auto field = sharedDistanceField(cube, 0.25f, 0.5f, 12);
    EXPECT_EQ(sharedDistanceField(cube, 0.25f, 0.5f, 12), field);
    const auto report = memoryReport();
    const auto line = std::find_if(report.begin(), report.end(),
                                   [](const auto& l) { return l.name == "distance fields"; });
    ASSERT_NE(line, report.end());
    EXPECT_GE(line->use.entries, 1u);
    EXPECT_GE(line->use.bytes, field->cacheBytes());
}

}  // namespace
}  // namespace velmorin
