// The shape kernels that run strands side by side (in lanes, or a block at a time) against the
// same kernels run on one strand alone, which takes the one-strand path: the same bits, at 1 and
// 2 threads.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/sample_meshes.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_strands.h"

namespace velmorin {
namespace {

// Strands on the head in runs of one point count (4 and more alike take the lanes) broken by runs
// of other counts, single and empty strands, ending with a run of 9 whose last strand ends the
// column (a lane must not read past it).
std::shared_ptr<const StrandSet> mixedRuns(const ScalpMesh& scalp) {
    struct Run {
        std::size_t count;
        std::size_t points;
    };
    const Run runs[] = {{7, 9}, {1, 5}, {5, 9}, {3, 2},  {6, 13}, {1, 1}, {1, 0},
                        {9, 4}, {2, 9}, {4, 2}, {1, 70}, {5, 6},  {8, 9}};
    auto set = std::make_shared<StrandSet>();
    std::uint64_t seed = 1;
    for (const Run& run : runs) {
        const auto made = test::scalpStrands(scalp, run.count, run.points, ++seed);
        for (std::size_t s = 0; s < made->strandCount(); ++s)
            set->addStrand(made->ids()[s], made->roots()[s], made->strandPoints(s));
    }
    return set;
}

// Runs `shape(input, selection, out)` over every strand at 1 and 2 threads, and over each strand
// alone, and expects the same bits from all three.
template <class Shape>
void expectSameBitsStrandByStrand(const StrandSet& input, const Shape& shape) {
    std::vector<Vec3f> alone(input.pointCount());
    for (std::uint64_t s = 0; s < input.strandCount(); ++s) {
        const std::uint64_t only[] = {s};
        shape(input, StrandSelection::only(only), std::span<Vec3f>(alone));
    }
    for (const int threads : {1, 2}) {
        std::vector<Vec3f> all(input.pointCount());
        runWithThreads(threads,
                       [&] { shape(input, StrandSelection::every(), std::span<Vec3f>(all)); });
        for (std::size_t s = 0; s < input.strandCount(); ++s) {
            const auto range = input.pointRange(s);
            ASSERT_EQ(std::memcmp(all.data() + range.begin, alone.data() + range.begin,
                                  range.count * sizeof(Vec3f)),
                      0)
                << "strand " << s << " of " << range.count << " points, " << threads << " threads";
        }
    }
}

// mixedRuns with a run of 16 strands of 9 points after it whose segments are awkward for a walk
// along the arc: stacked points inside and at the ends, a strand of no length, steps too small to
// square, a point that is not a number. Every point carries a width.
std::shared_ptr<const StrandSet> awkwardRuns(const ScalpMesh& scalp) {
    auto set = std::make_shared<StrandSet>(*mixedRuns(scalp));
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (std::uint64_t s = 0; s < 16; ++s) {
        std::vector<Vec3f> points = test::randomWalk(9, s);
        if (s == 1) points[4] = points[3];
        if (s == 2) points[1] = points[0], points[8] = points[7];
        if (s == 3) std::fill(points.begin(), points.end(), points[0]);
        if (s == 4)
            for (std::size_t k = 0; k < points.size(); ++k)
                points[k] = Vec3f{1e-30f * static_cast<float>(k), 0.0f, 0.0f};
        if (s == 5) points[6].y = nan;
        StrandRoot root;
        set->addStrand(hashCombine(77, s), root, points);
    }
    std::vector<float>& widths = set->writeWidths();
    for (std::size_t p = 0; p < widths.size(); ++p)
        widths[p] = unitFloat(hashCombine(p, 5));
    return set;
}

std::vector<std::uint32_t> bitsOf(std::span<const float> values) {
    std::vector<std::uint32_t> bits(values.size());
    std::memcpy(bits.data(), values.data(), values.size() * sizeof(float));
    return bits;
}

std::vector<std::uint32_t> bitsOf(std::span<const Vec3f> values) {
    return bitsOf(std::span<const float>(&values.data()->x, values.size() * 3));
}

TEST(ShapeLanes, LengthIsTheSameStrandByStrandAsInLanes) {
    const auto head = makeHeadScalp(1);
    const auto strands = awkwardRuns(*head);
    // Each strand its own share (some kept whole), a mapped-like spread and one share for all.
    for (const float randomness : {0.0f, 0.6f}) {
        LengthSettings settings;
        settings.length = FieldSampler(randomness > 0.0f ? 1.0f : 0.55f);
        settings.fraction = FieldSampler(0.7f);
        settings.randomness = randomness;
        settings.seed = 3;
        SCOPED_TRACE(randomness);
        expectSameBitsStrandByStrand(
            *strands, [&](const StrandSet& in, StrandSelection pick, std::span<Vec3f> out) {
                trimStrands(in, settings, pick, out);
            });
    }
}

TEST(ShapeLanes, ResampleIsTheSameStrandByStrandAsInLanes) {
    const auto head = makeHeadScalp(1);
    const auto strands = awkwardRuns(*head);
    // Fewer, as many and more points than the strands of the longest runs have.
    for (const int segments : {4, 8, 16, 63}) {
        ResampleSettings settings;
        settings.segments = segments;
        SCOPED_TRACE(segments);
        StrandSet one, two;
        runWithThreads(1, [&] { one = resampleStrands(*strands, settings); });
        runWithThreads(2, [&] { two = resampleStrands(*strands, settings); });
        // The same layout with every point and width spoilt, then redone one strand at a time.
        StrandSet alone(one);
        std::fill(alone.writePoints().begin(), alone.writePoints().end(),
                  Vec3f{-7.0f, -7.0f, -7.0f});
        std::fill(alone.writeWidths().begin(), alone.writeWidths().end(), -7.0f);
        for (std::uint64_t s = 0; s < strands->strandCount(); ++s) {
            const std::uint64_t only[] = {s};
            resampleInto(*strands, settings, StrandSelection::only(only), alone);
        }
        for (const StrandSet* all : {&one, &two}) {
            EXPECT_EQ(bitsOf(all->points()), bitsOf(alone.points()));
            EXPECT_EQ(bitsOf(all->widths()), bitsOf(alone.widths()));
        }
        // The strand of no length is kept as it came.
        const std::size_t still = strands->strandCount() - 13;
        EXPECT_EQ(one.pointRange(still).count, 9u);
    }
}

TEST(ShapeLanes, BendIsTheSameStrandByStrandAsSideBySide) {
    const auto head = makeHeadScalp(1);
    const auto strands = mixedRuns(*head);
    struct Case {
        BendAlong along;
        float angle;
        float start;
        float end;
        float randomness;
    };
    // Rising and stepped spans, bends past the target that stop at it, strands that don't bend.
    const Case cases[] = {{BendAlong::Normal, 60.0f, 0.0f, 0.8f, 0.3f},
                          {BendAlong::Normal, -170.0f, 0.2f, 0.6f, 0.0f},
                          {BendAlong::Tangent, 180.0f, 0.0f, 0.0f, 0.5f},
                          {BendAlong::Direction, 45.0f, 0.5f, 0.3f, 0.0f}};
    for (const Case& c : cases) {
        BendSettings settings;
        settings.along = c.along;
        settings.angle = FieldSampler(c.angle);
        settings.start = c.start;
        settings.end = c.end;
        settings.randomness = c.randomness;
        settings.seed = 4;
        settings.scalp = head.get();
        settings.direction.setPlainVector({0.3f, -1.0f, 0.2f});
        SCOPED_TRACE(c.angle);
        expectSameBitsStrandByStrand(
            *strands, [&](const StrandSet& in, StrandSelection pick, std::span<Vec3f> out) {
                bendStrands(in, settings, pick, out);
            });
    }
}

TEST(ShapeLanes, TransformIsTheSameStrandByStrandAsBlockByBlock) {
    const auto head = makeHeadScalp(1);
    const auto strands = mixedRuns(*head);
    for (const bool world : {false, true}) {
        TransformSettings settings;
        settings.world = world;
        settings.rotate = {10.0f, 95.0f, -30.0f};
        settings.translate = {0.1f, 0.0f, -0.2f};
        settings.scale = FieldSampler(1.2f);
        settings.translateRandom = 0.1f;
        settings.rotateRandom = 25.0f;
        settings.scaleRandom = 0.2f;
        settings.pivot = {0.0f, 1.0f, 0.0f};
        settings.seed = 9;
        settings.scalp = head.get();
        SCOPED_TRACE(world);
        expectSameBitsStrandByStrand(
            *strands, [&](const StrandSet& in, StrandSelection pick, std::span<Vec3f> out) {
                transformStrands(in, settings, pick, out);
            });
    }
}

TEST(ShapeLanes, TwistIsTheSameStrandByStrandAsAll) {
    const auto head = makeHeadScalp(1);
    const auto mixed = mixedRuns(*head);
    StrandSet strands(*mixed);
    std::vector<float>& clumps = strands.addStrandChannel("clumpId", 0.0f);
    for (std::size_t s = 0; s < clumps.size(); ++s)
        clumps[s] = static_cast<float>(s / 6);
    const ClumpAxes axes = clumpAxes(strands, clumps);
    TwistSettings settings;
    settings.turns = FieldSampler(1.7f);
    settings.profile.keys = {{0.0f, 0.2f, 0.0f}, {1.0f, 1.0f, 0.0f}};
    settings.clumps = &axes;
    expectSameBitsStrandByStrand(
        strands, [&](const StrandSet& in, StrandSelection pick, std::span<Vec3f> out) {
            twistStrands(in, settings, pick, out);
        });
}

}  // namespace
}  // namespace velmorin
