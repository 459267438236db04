#include "ops/shape_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "mesh/sample_meshes.h"
#include "ops/test/shape_strands.h"

namespace velmorin {
namespace {

bool sameFrame(const RootFrame& a, const RootFrame& b) {
    return a.valid == b.valid && a.normal == b.normal && a.tangent == b.tangent &&
           a.binormal == b.binormal;
}

TEST(RootFrames, AreRootFramesBitForBitOnRunsOfFacesAndOffTheScalp) {
    // A sphere's poles have triangles whose UVs have no area: the tangent falls back there.
    const auto head = makeHeadScalp(1);
    const auto sphere = makeSphere(1.0f, 8, 12);
    const Vec3f directions[] = {{0, -1, 0}, {1, 0, 0}, {0, 0, 0}};
    for (const ScalpMesh* scalp : {head.get(), sphere.get()}) {
        const auto strands = test::scalpStrands(*scalp, 400, 3, 5);
        std::vector<StrandRoot> roots(strands->roots().begin(), strands->roots().end());
        // Runs of one face, as a scatter makes them, and roots off the scalp.
        roots.insert(roots.end(), 3, roots[7]);
        roots.push_back(StrandRoot{-1, 0.2f, 0.2f});
        roots.push_back(roots[7]);
        roots.push_back(StrandRoot{static_cast<std::int32_t>(scalp->triangles().size()), 0, 0});
        for (const TangentFrom from :
             {TangentFrom::U, TangentFrom::Direction, TangentFrom::Triangle}) {
            for (const Vec3f& direction : directions) {
                RootFrames frames(scalp, from);
                std::size_t valid = 0;
                for (std::size_t r = 0; r < roots.size(); ++r) {
                    const RootFrame expected = rootFrame(scalp, roots[r], from, direction);
                    EXPECT_TRUE(sameFrame(frames.at(roots[r], direction), expected))
                        << "root " << r << " from " << static_cast<int>(from);
                    if (scalp->isOnSurface(roots[r])) {
                        EXPECT_EQ(frames.normalAt(roots[r]), scalp->normalAt(roots[r]));
                    }
                    valid += expected.valid;
                }
                // Only the direction of no length leaves a Direction frame without a tangent.
                const bool none = from == TangentFrom::Direction && direction == Vec3f{};
                EXPECT_EQ(valid == 0, none);
            }
        }
    }
    // Without a scalp nothing has a frame.
    RootFrames frames(nullptr, TangentFrom::U);
    EXPECT_FALSE(frames.at(StrandRoot{0, 0.1f, 0.1f}, {0, 1, 0}).valid);
}

// The frames by the rotation itself, each normal turned about the axis between one direction and
// the next by the angle between them: what the two reflections must agree with.
void rotatedFrames(std::span<const Vec3f> points, std::span<SegmentFrame> frames) {
    Vec3f tangent{0, 1, 0};
    for (std::size_t k = 1; k < points.size(); ++k) {
        const Vec3f d = points[k] - points[k - 1];
        if (lengthSquared(d) > 1e-24f) {
            tangent = normalized(d);
            break;
        }
    }
    Vec3f normal = anyPerpendicular(tangent);
    for (std::size_t j = 0; j + 1 < points.size(); ++j) {
        const Vec3f d = points[j + 1] - points[j];
        if (lengthSquared(d) > 1e-24f) {
            const Vec3f next = normalized(d);
            const Vec3f axis = cross(tangent, next);
            const float sine = length(axis);
            if (sine > 1e-7f)
                normal = rotateAbout(normal, axis / sine, std::atan2(sine, dot(tangent, next)));
            tangent = next;
            normal = normalized(normal - tangent * dot(normal, tangent), anyPerpendicular(tangent));
        }
        frames[j] = {tangent, normal, cross(tangent, normal)};
    }
}

TEST(TransportFrames, FollowTheRotatedFramesAndStayOrthonormal) {
    const auto strands = test::mixedStrands(300, 9);
    std::vector<Vec3f> points;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const auto strand = strands->strandPoints(s);
        if (strand.size() < 2) continue;
        points.assign(strand.begin(), strand.end());
        // A repeated point: a segment of no length takes the frame before it.
        if (s % 5 == 0) points.insert(points.begin() + 1, points[1]);
        std::vector<SegmentFrame> carried(points.size() - 1), transported(points.size() - 1);
        transportFrames(points, carried);
        rotatedFrames(points, transported);
        for (std::size_t j = 0; j < carried.size(); ++j) {
            const SegmentFrame& a = carried[j];
            const SegmentFrame& b = transported[j];
            EXPECT_EQ(a.tangent, b.tangent) << "strand " << s << " segment " << j;
            EXPECT_NEAR(length(a.normal - b.normal), 0.0f, 1e-4f)
                << "strand " << s << " segment " << j;
            EXPECT_NEAR(length(a.binormal - b.binormal), 0.0f, 1e-4f);
            EXPECT_NEAR(dot(a.normal, a.tangent), 0.0f, 1e-5f);
            EXPECT_NEAR(length(a.normal), 1.0f, 1e-5f);
            EXPECT_NEAR(length(a.binormal), 1.0f, 1e-5f);
        }
    }
}

TEST(TransportFrames, HoldTheirLengthAlongALongWindingStrand) {
    // 2000 segments of a tight helix: every frame turns, and rounding has long to gather.
    std::vector<Vec3f> points;
    for (int k = 0; k <= 2000; ++k) {
        const float a = 0.3f * static_cast<float>(k);
        points.push_back({std::cos(a), 0.05f * static_cast<float>(k), std::sin(a)});
    }
    std::vector<SegmentFrame> carried(points.size() - 1), transported(points.size() - 1);
    transportFrames(points, carried);
    rotatedFrames(points, transported);
    float worst = 0.0f, stretch = 0.0f, skew = 0.0f;
    for (std::size_t j = 0; j < carried.size(); ++j) {
        worst = std::max(worst, length(carried[j].normal - transported[j].normal));
        stretch = std::max(stretch, std::fabs(length(carried[j].normal) - 1.0f));
        skew = std::max(skew, std::fabs(dot(carried[j].normal, carried[j].tangent)));
    }
    EXPECT_LT(worst, 1e-3f);
    EXPECT_LT(stretch, 1e-5f);
    EXPECT_LT(skew, 1e-5f);
}

TEST(StrandScratch, GivesTheCountAskedOnTheStackOrPastItOnTheHeap) {
    StrandScratch<float, 16> scratch;
    const std::span<float> small = scratch.take(9);
    EXPECT_EQ(small.size(), 9u);
    // Short strands reuse the one stack buffer.
    EXPECT_EQ(scratch.take(16).data(), small.data());
    const std::span<float> large = scratch.take(1000);
    ASSERT_EQ(large.size(), 1000u);
    EXPECT_NE(large.data(), small.data());
    large[999] = 1.0f;
    // Grown once, the heap array serves every shorter long strand.
    EXPECT_EQ(scratch.take(500).data(), large.data());
}

TEST(ProfileAt, IsTheRampsValueAndOneWithoutKeys) {
    Ramp ramp;
    EXPECT_EQ(profileAt(ramp, 0.3f), 1.0f);
    ramp.keys = {{0.0f, 1.0f, 0.0f}, {0.5f, 0.2f, 0.0f}, {1.0f, 0.6f, 0.0f}};
    smoothSlopes(ramp);
    for (const float t : {-0.5f, 0.0f, 0.25f, 0.5f, 0.9f, 1.5f})
        EXPECT_EQ(profileAt(ramp, t), ramp.at(t)) << t;
}

}  // namespace
}  // namespace velmorin
