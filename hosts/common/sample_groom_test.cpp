#include <gtest/gtest.h>

#include <stdexcept>

#include "base/parallel.h"
#include "common/sample_groom.h"
#include "mesh/sample_meshes.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

TEST(SampleGroom, GrowsFromTheScalpOutsideIt) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions options;
    options.count = 300;
    options.points = 6;
    const StrandSet groom = growSampleGroom(*scalp, options);
    std::string problem;
    ASSERT_TRUE(groom.validate(problem)) << problem;
    ASSERT_EQ(groom.strandCount(), 300u);
    EXPECT_EQ(groom.pointCount(), 1800u);
    for (const std::string_view name : channels::kColor)
        ASSERT_NE(groom.pointChannel(name), nullptr) << name;
    for (std::size_t s = 0; s < groom.strandCount(); ++s) {
        const auto points = groom.strandPoints(s);
        const StrandRoot root = groom.roots()[s];
        ASSERT_TRUE(scalp->isOnSurface(root));
        EXPECT_LT(length(points[0] - scalp->pointAt(root)), 1e-5f);
        // No point past the root sinks under the surface near it. (Past the scalp's open edge,
        // where hair hangs free, there is no inside to stay out of.)
        for (std::size_t j = 1; j < points.size(); ++j) {
            const ClosestPoint near =
                scalp->closestPoint(points[j], length(points[j] - points[j - 1]));
            if (!near.found()) continue;
            EXPECT_GE(dot(points[j] - near.point, scalp->normalAt(near.root)), -1e-4f)
                << "strand " << s << " point " << j;
        }
        // Widths taper from root to tip.
        const auto range = groom.pointRange(s);
        EXPECT_FLOAT_EQ(groom.widths()[range.begin], options.rootWidth);
        EXPECT_FLOAT_EQ(groom.widths()[range.begin + range.count - 1], options.tipWidth);
    }
}

TEST(SampleGroom, SameStrandsAtAnyThreadCount) {
    const auto scalp = makeHeadScalp();
    SampleGroomOptions options;
    options.count = 5000;
    StrandSet one;
    StrandSet two;
    runWithThreads(1, [&] { one = growSampleGroom(*scalp, options); });
    runWithThreads(2, [&] { two = growSampleGroom(*scalp, options); });
    EXPECT_EQ(one.contentHash(), two.contentHash());
    options.seed = 2;
    EXPECT_NE(growSampleGroom(*scalp, options).contentHash(), one.contentHash());
}

TEST(SampleGroom, RefusesWhatCannotGrow) {
    EXPECT_THROW(growSampleGroom(ScalpMesh()), std::invalid_argument);
    SampleGroomOptions options;
    options.points = 1;
    EXPECT_THROW(growSampleGroom(*makeHeadScalp(), options), std::invalid_argument);
}

}  // namespace
}  // namespace velmorin
