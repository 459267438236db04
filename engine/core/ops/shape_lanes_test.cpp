// The shape kernels that run strands side by side (in lanes, or a block at a time) against the
// same kernels run on one strand alone, which takes the one-strand path: the same bits, at 1 and
// 2 threads.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

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
