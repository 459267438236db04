#include "graph/affect.h"

#include <gtest/gtest.h>

#include <cmath>

#include "strands/strand_set.h"

namespace velmorin {
namespace {

// Two sets of one strand of three points: `input` at y = 0 with width 1, `result` at y = 1 with
// width 3, each with channels whose names say how they mix.
struct Pair {
    std::shared_ptr<StrandSet> input = std::make_shared<StrandSet>();
    std::shared_ptr<StrandSet> result;
    Pair() {
        const std::vector<Vec3f> points{{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
        input->addStrand(7, {}, points, std::vector<float>{1, 1, 1});
        input->addPointChannel("curl", 0.0f);
        input->addPointChannel("clumpId", 0.0f).assign({10, 10, 10});
        input->addStrandChannel("mass", 0.0f)[0] = 2.0f;
        result = std::make_shared<StrandSet>(*input);
        for (Vec3f& p : result->writePoints())
            p.y = 1.0f;
        result->writeWidths().assign({3, 3, 3});
        result->addPointChannel("curl", 0.0f).assign({4, 4, 4});
        result->addPointChannel("clumpId", 0.0f).assign({20, 20, 20});
        result->addStrandChannel("mass", 0.0f)[0] = 6.0f;
        result->addPointChannel("added", 2.0f).assign({8, 8, 8});
    }
};

TEST(MixAffect, BlendsPositionsWidthsAndChannelsAndSwitchesIds) {
    Pair pair;
    const std::vector<float> weights{0.0f, 0.49f, 0.5f};
    const auto mixed = mixAffect(*pair.input, *pair.result, weights);
    const std::vector<float> y{mixed->points()[0].y, mixed->points()[1].y, mixed->points()[2].y};
    EXPECT_EQ(y[0], 0.0f);
    EXPECT_FLOAT_EQ(y[1], 0.49f);
    EXPECT_FLOAT_EQ(y[2], 0.5f);
    EXPECT_EQ(std::vector<float>(mixed->widths().begin(), mixed->widths().end()),
              (std::vector<float>{1.0f, 1.0f + 2 * 0.49f, 2.0f}));
    EXPECT_EQ(*mixed->pointChannel("curl"), (std::vector<float>{0.0f, 4 * 0.49f, 2.0f}));
    // IDs switch at 0.5: a blend of two IDs would name neither.
    EXPECT_EQ(*mixed->pointChannel("clumpId"), (std::vector<float>{10, 10, 20}));
    // A channel the input lacks mixes from its default.
    EXPECT_EQ(*mixed->pointChannel("added"), (std::vector<float>{2.0f, 2 + 6 * 0.49f, 5.0f}));
    // A strand channel switches by the weight at the root.
    EXPECT_EQ((*mixed->strandChannel("mass"))[0], 2.0f);
    // The two sets are left as they were.
    EXPECT_EQ(pair.result->points()[0].y, 1.0f);
    EXPECT_EQ(pair.input->points()[2].y, 0.0f);
}

TEST(MixAffect, EndWeightsGiveEachSideExactlyAndSharedColumnsStayShared) {
    Pair pair;
    // Weights outside 0-1 count as the nearest end; NaN as 0.
    const auto full = mixAffect(*pair.input, *pair.result, std::vector<float>{1.0f, 7.0f, 1.0f});
    EXPECT_EQ(full->contentHash(), pair.result->contentHash());
    const float nan = std::nanf("");
    const auto none = mixAffect(*pair.input, *pair.result, std::vector<float>{0.0f, -3.0f, nan});
    EXPECT_EQ(none->points()[2].y, 0.0f);
    EXPECT_EQ((*none->pointChannel("clumpId"))[1], 10.0f);
    EXPECT_EQ((*none->strandChannel("mass"))[0], 2.0f);

    // Columns the result shares with the input aren't copied.
    auto widthsOnly = std::make_shared<StrandSet>(*pair.input);
    widthsOnly->writeWidths().assign({5, 5, 5});
    const auto mixed = mixAffect(*pair.input, *widthsOnly, std::vector<float>{0.5f, 0.5f, 0.5f});
    EXPECT_EQ(mixed->columnData(ColumnId::kPoints), pair.input->columnData(ColumnId::kPoints));
    EXPECT_EQ(mixed->widths()[0], 3.0f);
    EXPECT_TRUE(isIdChannel("clumpId"));
    EXPECT_TRUE(isIdChannel("region"));
    EXPECT_FALSE(isIdChannel("Id"));
    EXPECT_FALSE(isIdChannel("guideInfluence"));
}

}  // namespace
}  // namespace velmorin
