#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "base/float_lanes.h"

#include "editing/flow.h"
#include "mesh/sample_meshes.h"
#include "ops/flow_lanes.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_strands.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

using Points = std::vector<Vec3f>;

Points flowed(const StrandSet& strands, const FlowSettings& settings,
              const StrandSelection& pick = StrandSelection::every()) {
    Points out(strands.points().begin(), strands.points().end());
    flowStrands(strands, settings, pick, out);
    return out;
}

TEST(Flow, LaneSetsOfMixedLengthsEndingThePointsAreLaidAsEachStrandAlone) {
    // A coarse sphere, so that a run of a few strands makes its triangles ahead and lays them in
    // sets of lanes: strands of 2 to 13 points mixed in every set (a set's short strands read
    // their last point again past their end), and the last strand of the set, whose last point
    // ends the points, in a set of eight, of four, or alone, as the count falls.
    const auto sphere = makeSphere(1.0f, 6, 12);
    FlowSet pins;
    pins.pins.push_back(pinFromSurface(*sphere, sphere->closestPoint({0, 2, 0}).root, {1, 0, 0}));
    const auto field = FlowField::build(pins, *sphere);
    FlowSettings settings;
    settings.lift = FieldSampler(30.0f);
    settings.bend = 0.5f;
    settings.random = 15.0f;
    settings.seed = 3;
    settings.scalp = sphere.get();
    settings.flow = field.get();
    for (const std::size_t count :
         {std::size_t{144}, std::size_t{148}, std::size_t{152}, std::size_t{157}}) {
        const auto grown = test::scalpStrands(*sphere, count, 13, 11, 0.9f);
        StrandSet mixed;
        for (std::size_t s = 0; s < count; ++s)
            mixed.addStrand(grown->ids()[s], grown->roots()[s],
                            grown->strandPoints(s).first(2 + (s * 7) % 12));
        ASSERT_GE(mixed.strandCount(), sphere->triangleCount());
        const auto [one, two] = test::onOneAndTwoThreads([&] { return flowed(mixed, settings); });
        EXPECT_EQ(one, two) << count;
        EXPECT_NE(one, Points(mixed.points().begin(), mixed.points().end()));
        for (std::uint64_t s = 0; s < count; ++s) {
            const std::vector<std::uint64_t> only = {s};
            const Points alone = flowed(mixed, settings, StrandSelection::only(only));
            const auto range = mixed.pointRange(s);
            for (std::size_t k = 0; k < range.count; ++k)
                ASSERT_EQ(alone[range.begin + k], one[range.begin + k])
                    << count << " strand " << s << " point " << k;
        }
    }
}

TEST(Flow, StrandsWithoutFlowAtTheirRootsPassUnchangedInLanesAsAlone) {
    // A lone whorl reaching a little way from the top of a coarse sphere: strands rooted out of
    // its reach have no flow and pass as they came, whether a full run lays their set in lanes or
    // a strand is run alone; those in reach are laid alike either way.
    const auto sphere = makeSphere(1.0f, 6, 12);
    FlowSet whorl;
    const StrandRoot top = sphere->closestPoint({0, 2, 0}).root;
    whorl.sinks.push_back(FlowSink{top.face, top.u, top.v, 70.0f, 0.8f});
    const auto field = FlowField::build(whorl, *sphere);
    FlowSettings settings;
    settings.lift = FieldSampler(20.0f);
    settings.scalp = sphere.get();
    settings.flow = field.get();
    const auto strands = test::scalpStrands(*sphere, 200, 7, 5, 0.6f);
    const Points full = flowed(*strands, settings);
    std::size_t passed = 0, laid = 0;
    for (std::uint64_t s = 0; s < strands->strandCount(); ++s) {
        const std::vector<std::uint64_t> only = {s};
        const Points alone = flowed(*strands, settings, StrandSelection::only(only));
        const auto range = strands->pointRange(s);
        const auto in = strands->strandPoints(s);
        bool same = true;
        for (std::size_t k = 0; k < range.count; ++k) {
            ASSERT_EQ(alone[range.begin + k], full[range.begin + k]) << s << " " << k;
            same = same && full[range.begin + k] == in[k];
        }
        ++(same ? passed : laid);
    }
    EXPECT_GT(passed, 20u);
    EXPECT_GT(laid, 20u);
}

TEST(Flow, EveryLaneWidthLaysTheSameBitsOnOneAndTwoThreads) {
    // Sets of sixteen lanes (with AVX-512), of eight, of four, and strands laid one by one must
    // give every strand the
    // same bits, on one thread or two: over a coarse sphere whose ridges stop walks on edges, with
    // a whorl whose reach leaves some roots without flow (they pass), and over a plane with a fold
    // of flat triangles (walks that reach them ask the tree). Strands of 1 to 14 points are mixed
    // (a set lays as far as its shortest strand, the rest one by one), and a selection of every
    // third strand runs too.
    const auto sphere = makeSphere(1.0f, 6, 12);
    FlowSet sphereSet;
    sphereSet.pins.push_back(
        pinFromSurface(*sphere, sphere->closestPoint({0, 2, 0}).root, {1, 0, 0}));
    const StrandRoot top = sphere->closestPoint({0, 2, 0}).root;
    sphereSet.sinks.push_back(FlowSink{top.face, top.u, top.v, 70.0f, 0.8f});
    const auto sphereFlow = FlowField::build(sphereSet, *sphere);
    const auto folded = test::foldedPlane();
    FlowSet planeSet;
    planeSet.pins.push_back(
        pinFromSurface(*folded, folded->closestPoint({0, 0, 0}).root, {1, 0, 0}));
    const auto foldedFlow = FlowField::build(planeSet, *folded);
    struct Case {
        const ScalpMesh* scalp;
        const FlowField* flow;
        float length;
        std::size_t count;  // enough that every third strand outnumbers the triangles
    };
    for (const Case& c : {Case{sphere.get(), sphereFlow.get(), 0.8f, 600},
                          Case{folded.get(), foldedFlow.get(), 1.5f, 9700}}) {
        const auto grown = test::scalpStrands(*c.scalp, c.count, 14, 5, c.length);
        StrandSet mixed;
        for (std::size_t s = 0; s < grown->strandCount(); ++s)
            mixed.addStrand(grown->ids()[s], grown->roots()[s],
                            grown->strandPoints(s).first(1 + (s * 5) % 14));
        std::vector<std::uint64_t> third;
        for (std::uint64_t s = 0; s < mixed.strandCount(); s += 3)
            third.push_back(s);
        ASSERT_GE(third.size(), c.scalp->triangleCount());
        FlowSettings settings;
        settings.lift = FieldSampler(25.0f);
        settings.bend = 0.5f;
        settings.random = 10.0f;
        settings.seed = 4;
        settings.scalp = c.scalp;
        settings.flow = c.flow;
        for (const StrandSelection& pick :
             {StrandSelection::every(), StrandSelection::only(third)}) {
            const auto layOut = [&](FlowLanes lanes) {
                Points out(mixed.points().begin(), mixed.points().end());
                flowStrandsIn(lanes, mixed, settings, pick, out);
                return out;
            };
            const Points single = layOut(FlowLanes::none);
            EXPECT_NE(single, Points(mixed.points().begin(), mixed.points().end()));
            for (const FlowLanes lanes :
                 {FlowLanes::best, FlowLanes::wide, FlowLanes::narrow, FlowLanes::none}) {
                const auto [one, two] = test::onOneAndTwoThreads([&] { return layOut(lanes); });
                EXPECT_EQ(one, single) << static_cast<int>(lanes);
                EXPECT_EQ(two, single) << static_cast<int>(lanes);
            }
        }
    }
}

#if VELMORIN_FLOAT_LANES
// What the lanes' blend picks from in lane l: a NaN, a negative zero and plain values.
float blendFirst(std::size_t l) {
    return l == 0 ? std::numeric_limits<float>::quiet_NaN() : static_cast<float>(l) + 0.25f;
}
float blendSecond(std::size_t l) {
    return l == 1 ? -0.0f : -static_cast<float>(l);
}

// blendOf over the lanes of one width, lane l taking the first value where bit l of `bits` is set.
#define VELMORIN_BLEND_OF(NAMESPACE, TARGET)                                                \
    TARGET std::array<float, 16> NAMESPACE##Blend(int bits) {                               \
        using namespace float_lanes::NAMESPACE;                                             \
        alignas(64) float first[kWidth], second[kWidth], mask[kWidth];                      \
        for (std::size_t l = 0; l < kWidth; ++l) {                                          \
            first[l] = blendFirst(l);                                                       \
            second[l] = blendSecond(l);                                                     \
            const std::int32_t lane = (bits >> l & 1) != 0 ? -1 : 0;                        \
            std::memcpy(&mask[l], &lane, sizeof(lane));                                     \
        }                                                                                   \
        std::array<float, 16> picked{};                                                     \
        store(picked.data(),                                                                \
              blendOf(maskOf(loadAligned(mask)), loadAligned(first), loadAligned(second))); \
        return picked;                                                                      \
    }

VELMORIN_BLEND_OF(narrow, )
VELMORIN_BLEND_OF(wide, __attribute__((target("avx"))))
// GCC 12 reports the undefined start of some AVX-512 intrinsics' results as uninitialized.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
VELMORIN_BLEND_OF(widest, __attribute__((target("avx512f"))))
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#undef VELMORIN_BLEND_OF

TEST(FlowLanes, TheBlendKeepsThePickedBitsInEachLane) {
    // The walk and landing pick between lanes with blendOf: each lane must come out bit for bit
    // as the value its mask picks, NaN and negative zero included, at every width.
    for (const int bits : {0x0000, 0xFFFF, 0x55AA, 0xA6C3}) {
        const auto check = [&](const std::array<float, 16>& picked, std::size_t width) {
            for (std::size_t l = 0; l < width; ++l) {
                const float expected = (bits >> l & 1) != 0 ? blendFirst(l) : blendSecond(l);
                EXPECT_EQ(std::memcmp(&picked[l], &expected, sizeof(float)), 0)
                    << width << " lanes, mask " << bits << ", lane " << l;
            }
        };
        check(narrowBlend(bits), 4);
        if (avxLanesUsable()) check(wideBlend(bits), 8);
        if (float_lanes::widestLanesUsable()) check(widestBlend(bits), 16);
    }
}
#endif

}  // namespace
}  // namespace velmorin
