#include <gtest/gtest.h>

#include <cmath>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/guide_curves.h"
#include "editing/tube_shapes.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_tubes.h"
#include "ops/shape_support.h"
#include "ops/test/shape_checks.h"
#include "strands/channel_names.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

constexpr float kDegrees = 3.14159265358979f / 180.0f;

std::shared_ptr<const ScalpMesh> plane() {
    static const auto mesh = makeUvPlane(10.0f, 20);
    return mesh;
}

using test::bitsOf;

Guide straightGuide(std::uint64_t id, const Vec3f& root, const Vec3f& way, float size,
                    std::size_t count) {
    Guide guide;
    guide.id = id;
    guide.root = plane()->closestPoint(root).root;
    for (std::size_t k = 0; k < count; ++k)
        guide.points.push_back(
            root + way * (size * static_cast<float>(k) / static_cast<float>(count - 1)));
    return guide;
}

void addUpright(StrandSet& strands, const Vec3f& root, std::size_t count = 8) {
    std::vector<Vec3f> points;
    for (std::size_t k = 0; k < count; ++k)
        points.push_back(root + Vec3f{0.0f, 0.3f * static_cast<float>(k), 0.0f});
    strands.addStrand(strands.strandCount() + 1, plane()->closestPoint(root).root, points);
}

std::shared_ptr<const StrandSet> run(const Operator& op, const std::shared_ptr<StrandSet>& strands,
                                     const std::shared_ptr<GuideSet>& guides) {
    return op.evaluate(EvalContext{}, {strands, guides, plane()}).get<StrandSet>();
}

std::unique_ptr<Operator> filling(double tubeBlend = 0.25) {
    auto op = OperatorRegistry::instance().create("Interpolate");
    op->paramSet.set("fillTubes", true);
    op->paramSet.set("tubeBlend", tubeBlend);
    return op;
}

// A tilted straight guide with a tapering, flattened, twisting teardrop tube, between two plain
// guides; upright strands on a grid around its root, and one exactly on it.
struct TiltedTube {
    std::shared_ptr<GuideSet> guides = std::make_shared<GuideSet>();
    std::shared_ptr<StrandSet> strands = std::make_shared<StrandSet>();
    Vec3f way = normalized(Vec3f{0.5f, 1.0f, 0.0f});
    float size = 3.0f;

    TiltedTube() {
        Guide tube = straightGuide(1, {0, 0, 0}, way, size, 8);
        tube.tube.shape = TubeShape::Teardrop;
        tube.tube.width = {0.6f, 0.2f};
        tube.tube.aspect = {0.6f};
        tube.tube.twist = {0.0f, 90.0f};
        tube.frameUp = {0, 0, 1};
        guides->guides.push_back(std::move(tube));
        guides->guides.push_back(straightGuide(2, {4, 0, 0}, normalized(Vec3f{0, 1, 1}), 2, 8));
        guides->guides.push_back(straightGuide(3, {-4, 0, 0}, normalized(Vec3f{0, 1, -1}), 2, 8));
        addUpright(*strands, {0, 0, 0});
        for (int i = -12; i <= 12; ++i)
            for (int j = -12; j <= 12; ++j)
                addUpright(*strands,
                           {0.1f * static_cast<float>(i), 0.0f, 0.1f * static_cast<float>(j)});
    }

    // Where `p` lies in the tube's section across the guide at p's height along it.
    TubePoint sectionAt(const Vec3f& p) const {
        const Guide& guide = guides->guides[0];
        std::vector<CurveFrame> frames;
        transportFrames(guide.points, guide.frameUp, frames);
        const float t = dot(p, way) / size;
        const TubeValues values = tubeValuesAt(guide.tube, t);
        const Vec3f d = p - way * (t * size);
        const float a = dot(d, frames[0].side), b = dot(d, frames[0].up);
        const float c = std::cos(values.twist * kDegrees), s = std::sin(values.twist * kDegrees);
        return {(a * c + b * s) / values.width, (-a * s + b * c) / (values.width * values.aspect)};
    }
};

TEST(InterpolateTubes, AStrandInATubeRidesItsSectionToTheTipAtTheGuidesLength) {
    const TiltedTube scene;
    const Guide& guide = scene.guides->guides[0];
    const auto op = filling();
    // The channels it writes are declared, for the nodes downstream that read them.
    std::vector<std::string> declared;
    for (const ChannelUse& use : op->fixedChannels())
        declared.push_back(use.name);
    EXPECT_EQ(declared, (std::vector<std::string>{"tubeId", "tubeU", "tubeV"}));
    const auto out = run(*op, scene.strands, scene.guides);
    const std::vector<float>* ids = out->strandChannel(channels::kTubeId);
    const std::vector<float>* us = out->strandChannel(channels::kTubeU);
    const std::vector<float>* vs = out->strandChannel(channels::kTubeV);
    ASSERT_TRUE(ids && us && vs);

    // The strand on the guide's root is the guide.
    ASSERT_EQ((*ids)[0], 0.0f);
    EXPECT_EQ((*us)[0], 0.0f);
    EXPECT_EQ((*vs)[0], 0.0f);
    for (std::size_t k = 0; k < 8; ++k)
        EXPECT_LT(length(out->strandPoints(0)[k] - guide.points[k]), 1e-4f) << k;

    std::size_t riders = 0;
    for (std::size_t s = 0; s < out->strandCount(); ++s) {
        const float id = (*ids)[s];
        ASSERT_TRUE(id == 0.0f || id == -1.0f) << s;
        if (id < 0.0f) {
            EXPECT_EQ((*us)[s], 0.0f);
            continue;
        }
        ++riders;
        // Its place lies in the section, and it keeps that place from past the root's ease to
        // the tip, as the tube tilts, flattens, tapers and twists.
        EXPECT_LE(tubeSectionDistance(guide.tube, {(*us)[s], (*vs)[s]}), 0.0f) << s;
        const auto points = out->strandPoints(s);
        for (std::size_t k = 2; k < points.size(); ++k)
            EXPECT_LE(tubeSectionDistance(guide.tube, scene.sectionAt(points[k])), 0.03f)
                << s << " point " << k;
        const TubePoint tip = scene.sectionAt(points.back());
        EXPECT_NEAR(tip.x, (*us)[s], 0.05f) << s;
        EXPECT_NEAR(tip.y, (*vs)[s], 0.05f) << s;
        // As long as the guide, or as the tube where its place runs shorter: round the twist,
        // or where the root's gap to the leaning section closes toward the guide.
        EXPECT_LE(strandLength(points), scene.size * 1.0001f) << s;
        EXPECT_GE(strandLength(points), scene.size * 0.95f) << s;
    }
    EXPECT_GT(riders, 20u);
    EXPECT_LT(riders, out->strandCount() / 2);

    // The binding gives every rider its tube's guide alone, at full weight.
    std::vector<const Guide*> pointers;
    std::vector<Vec3f> roots, guideRoots;
    for (const Guide& g : scene.guides->guides) {
        pointers.push_back(&g);
        guideRoots.push_back(g.points[0]);
    }
    for (std::size_t s = 0; s < scene.strands->strandCount(); ++s)
        roots.push_back(scene.strands->strandPoints(s)[0]);
    TubeTestInputs test;
    test.strandRoots = roots;
    test.guideRoots = guideRoots;
    const auto tubes = bindTubes(makeTubeGuides(pointers, plane().get(), 8, 0.25f), test);
    auto settings = makeInterpolateSettings(0.5, 3, 3, false, 0, false, false);
    settings.tubeRiders = tubes->ridersHash;
    BindingInputs inputs;
    inputs.strandRoots = roots;
    inputs.guideRoots = guideRoots;
    inputs.tubes = tubes;
    const auto state = bindStrands(settings, inputs);
    for (std::size_t s = 0; s < roots.size(); ++s) {
        const BindingChunk& chunk = *state->binding.chunks[s / kBindingChunkStrands];
        const std::size_t k = s % kBindingChunkStrands;
        ASSERT_EQ(tubes->riding[s] != 0, (*ids)[s] == 0.0f) << s;
        if (!tubes->riding[s]) continue;
        ASSERT_EQ(chunk.recordStart[k + 1] - chunk.recordStart[k], 1u) << s;
        EXPECT_EQ(chunk.weights[chunk.recordStart[k]], 65535u);
        EXPECT_EQ(chunk.guides[chunk.recordStart[k]], 0u);
    }
}

TEST(InterpolateTubes, TubeBlendLeansAcrossASoftEdgeAndZeroIsAHardOne) {
    // A round tube of half-width 0.5 curling toward +z between guides that curl toward -z, and
    // strands on a line out from its centre.
    auto guides = std::make_shared<GuideSet>();
    Guide tube = straightGuide(1, {0, 0, 0}, {0, 1, 0}, 2, 8);
    for (std::size_t k = 2; k < 8; ++k)
        tube.points[k].z += 0.05f * static_cast<float>((k - 1) * (k - 1));
    tube.tube.width = {0.5f};
    guides->guides.push_back(std::move(tube));
    guides->guides.push_back(straightGuide(2, {2, 0, 1}, normalized(Vec3f{0, 1, -1}), 2, 8));
    guides->guides.push_back(straightGuide(3, {2, 0, -1}, normalized(Vec3f{0, 1, -1}), 2, 8));
    auto strands = std::make_shared<StrandSet>();
    const std::vector<float> out = {0.0f, 0.25f, 0.5f, 0.55f, 0.6f, 0.65f, 0.7f, 0.8f, 0.9f};
    for (const float x : out)
        addUpright(*strands, {-x, 0.0f, 0.0f});

    auto plain = OperatorRegistry::instance().create("Interpolate");
    const auto blended = run(*plain, strands, guides);
    const auto hard = run(*filling(0.0), strands, guides);
    const auto soft = run(*filling(0.5), strands, guides);
    float lastLean = kInfiniteDistance;
    for (std::size_t s = 0; s < out.size(); ++s) {
        const bool inside = out[s] <= 0.5f;
        const auto points = soft->strandPoints(s);
        // At the outline and in, a strand rides, edge or no edge.
        EXPECT_EQ((*hard->strandChannel(channels::kTubeId))[s], inside ? 0.0f : -1.0f) << s;
        EXPECT_EQ((*soft->strandChannel(channels::kTubeId))[s], inside ? 0.0f : -1.0f) << s;
        if (inside) {
            EXPECT_EQ(bitsOf(points), bitsOf(hard->strandPoints(s))) << s;
            continue;
        }
        // Outside, a hard edge leaves the blend alone; a soft one leans toward the ride less
        // and less out to its edge, at 0.75, and not at all past it.
        EXPECT_EQ(bitsOf(hard->strandPoints(s)), bitsOf(blended->strandPoints(s))) << s;
        float lean = 0.0f;
        for (std::size_t k = 0; k < points.size(); ++k)
            lean = std::max(lean, length(points[k] - blended->strandPoints(s)[k]));
        if (out[s] > 0.75f) {
            EXPECT_EQ(lean, 0.0f) << s;
        } else {
            EXPECT_GT(lean, 0.0f) << s;
            EXPECT_LT(lean, lastLean) << s;
            lastLean = lean;
        }
    }
}

// Guides over the head, every other one with a twisting ribbon tube.
std::shared_ptr<GuideSet> tubesOnHead(const std::shared_ptr<const ScalpMesh>& head) {
    auto guides = std::make_shared<GuideSet>();
    std::uint64_t id = 1;
    for (std::size_t p = 0; p < head->pointCount(); p += 23) {
        const ClosestPoint at = head->closestPoint(head->points()[p]);
        const Vec3f root = head->pointAt(at.root);
        const Vec3f normal = head->normalAt(at.root);
        Guide guide;
        guide.id = id++;
        guide.root = at.root;
        const Vec3f side = normalized(cross(normal, Vec3f{0.3f, 0.2f, 1.0f}), {1, 0, 0});
        for (int k = 0; k < 6; ++k) {
            const float a = 0.8f * static_cast<float>(k) / 5.0f;
            guide.points.push_back(root + normal * (std::sin(a) * 1.5f) +
                                   side * ((1.0f - std::cos(a)) * 1.5f));
        }
        if (guide.id % 2 == 0) {
            guide.tube.shape = TubeShape::Ribbon;
            guide.tube.width = {0.35f, 0.1f};
            guide.tube.twist = {0.0f, 45.0f};
        }
        guides->guides.push_back(std::move(guide));
    }
    return guides;
}

TEST(InterpolateTubes, FilledTubesMakeTheSameBitsOnOneAndTwoThreadsAndIncrementally) {
    const auto head = makeHeadScalp(1);
    const auto strands = test::scatterOn(head, 8.0);
    const auto guides = tubesOnHead(head);
    const auto evaluate = [&](const Operator& op, const std::shared_ptr<GuideSet>& set) {
        return op.evaluate(EvalContext{}, {strands, set, head}).get<StrandSet>();
    };
    std::uint64_t hashes[2] = {0, 0};
    std::size_t riders = 0;
    for (const int threads : {1, 2})
        runWithThreads(threads, [&] {
            const auto out = evaluate(*filling(), guides);
            hashes[threads - 1] = out->contentHash();
            riders = 0;
            for (const float id : *out->strandChannel(channels::kTubeId))
                riders += id >= 0.0f ? 1 : 0;
        });
    EXPECT_EQ(hashes[0], hashes[1]);
    EXPECT_GT(riders, 10u);

    // A shape update of a tube guide (its points past its first segment, or its twist alone) redoes
    // its riders and leaners and equals a full run; a new width at the root moves riders in their
    // sections, which needs the binding again.
    const auto none = std::make_shared<StrandChanges>();
    none->all = false;
    none->sameLayout = true;
    const std::vector<std::shared_ptr<const StrandChanges>> changes = {none, nullptr, none};
    const std::size_t g = 5;
    ASSERT_FALSE(isEmptyTube(guides->guides[g].tube));
    auto bent = std::make_shared<GuideSet>(*guides);
    for (std::size_t k = 2; k < bent->guides[g].points.size(); ++k)
        bent->guides[g].points[k] += Vec3f{0.2f, 0.0f, 0.1f} * static_cast<float>(k);
    auto twisted = std::make_shared<GuideSet>(*guides);
    twisted->guides[g].tube.twist = {0.0f, 120.0f};
    auto widened = std::make_shared<GuideSet>(*guides);
    widened->guides[g].tube.width = {0.45f, 0.1f};
    for (const auto& [edited, incremental] :
         {std::pair{bent, true}, std::pair{twisted, true}, std::pair{widened, false}}) {
        const auto op = filling();
        IncrementalInputs inputs;
        inputs.previous = evaluate(*op, guides);
        inputs.changes = changes;
        Value out;
        StrandChanges made;
        ASSERT_EQ(
            op->evaluateIncremental(EvalContext{}, {strands, edited, head}, inputs, &out, &made),
            incremental);
        if (!incremental) continue;
        EXPECT_FALSE(made.all);
        EXPECT_GT(made.strands.size(), 0u);
        EXPECT_EQ(out.get<StrandSet>()->contentHash(), evaluate(*filling(), edited)->contentHash());
    }
}

TEST(InterpolateTubes, AStrandIsShapedAloneSoAPreviewSubsetKeepsItsBits) {
    // Tubes, the surface walk and clearance together: every strand's result, its tube channels
    // included, hangs on its own root.
    const auto head = makeHeadScalp(1);
    const test::ShapeRun interpolate("Interpolate", {{"fillTubes", true},
                                                     {"tubeBlend", 0.25},
                                                     {"followSurface", true},
                                                     {"keepClearance", true}});
    EXPECT_EQ(test::differingInPreview(interpolate, test::scatterOn(head, 8.0), 0.3,
                                       {tubesOnHead(head), head}),
              0u);
}

}  // namespace
}  // namespace velmorin
