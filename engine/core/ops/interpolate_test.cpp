#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_clearance.h"
#include "ops/interpolate_shape.h"
#include "ops/shape_support.h"
#include "ops/test/shape_checks.h"
#include "strands/guide.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

using test::bitsOf;
using test::expectMessage;
using test::pointsHash;

std::shared_ptr<const ScalpMesh> head() {
    static const auto mesh = makeHeadScalp(1);
    return mesh;
}

// Straight strands over the head-like scalp: about 400 per unit of density.
std::shared_ptr<const StrandSet> scatterOnHead(double density, std::int64_t seed = 0) {
    return test::scatterOn(head(), density, seed);
}

// Guides rooted where a sparse scatter put its roots, each bent its own way (hashed from its id),
// of `points` points.
std::shared_ptr<GuideSet> guidesOnHead(double density, std::size_t points = 6) {
    const auto roots = scatterOnHead(density, 7);
    auto guides = std::make_shared<GuideSet>();
    for (std::size_t s = 0; s < roots->strandCount(); ++s) {
        Guide guide;
        guide.id = roots->ids()[s];
        guide.root = roots->roots()[s];
        const Vec3f start = roots->strandPoints(s)[0];
        const Vec3f normal = head()->normalAt(guide.root);
        // An arc of a circle: equal steps along it, so its points are where a strand of as many
        // points that follows it exactly puts its own.
        const Vec3f side = normalized(cross(normal, Vec3f{unitFloat(mix64(guide.id)) - 0.5f, 0.3f,
                                                          unitFloat(mix64(guide.id + 1)) - 0.5f}),
                                      {1, 0, 0});
        const float turn = 0.5f + unitFloat(mix64(guide.id + 3));
        for (std::size_t k = 0; k < points; ++k) {
            const float a = turn * static_cast<float>(k) / static_cast<float>(points - 1);
            guide.points.push_back(start + normal * (std::sin(a) * 1.5f) +
                                   side * ((1.0f - std::cos(a)) * 1.5f));
        }
        guide.attributes["curl"] = unitFloat(mix64(guide.id + 2));
        guides->guides.push_back(std::move(guide));
    }
    return guides;
}

struct Run {
    std::shared_ptr<const StrandSet> strands;
    std::shared_ptr<const GuideSet> guides;
    bool scalp = true;
};

std::unique_ptr<Operator> makeInterpolate() {
    return OperatorRegistry::instance().create("Interpolate");
}

std::shared_ptr<const StrandSet> interpolate(const Operator& op, const Run& run,
                                             std::vector<std::string>* notes = nullptr) {
    NoteList list;
    EvalContext ctx;
    ctx.notes = &list;
    Value guides, scalp;
    if (run.guides) guides = run.guides;
    if (run.scalp) scalp = head();
    const Value out = op.evaluate(ctx, {run.strands, guides, scalp});
    if (notes) *notes = list.take();
    return out.get<StrandSet>();
}

float distance(const Vec3f& a, const Vec3f& b) {
    return length(a - b);
}

TEST(Interpolate, IsRegisteredWithItsTextsPortsAndParams) {
    const OperatorRegistry& registry = OperatorRegistry::instance();
    const OperatorInfo* info = registry.info("Interpolate");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->category, "grow");
    EXPECT_EQ(info->description, "Grows each root into a strand shaped like the guides around it.");
    EXPECT_EQ(info->keywords, "children guides blend strands");
    const auto op = makeInterpolate();
    EXPECT_EQ(op->version(), 2);
    const std::vector<PortSpec> ports = op->inputs();
    ASSERT_EQ(ports.size(), 3u);
    EXPECT_EQ(ports[0].name, "strands");
    EXPECT_FALSE(ports[0].optional);
    EXPECT_EQ(ports[1].type, PortType::Guides);
    EXPECT_EQ(ports[2].type, PortType::Mesh);
    EXPECT_TRUE(op->carriesInput(1));
    EXPECT_FALSE(op->carriesInput(2));
    EXPECT_FALSE(affectApplies(*op));
    std::vector<std::string> names;
    for (const ParamSpec& spec : op->params())
        names.push_back(spec.name);
    EXPECT_EQ(names, (std::vector<std::string>{"smoothness", "neighbors", "guideWeight", "blend",
                                               "preserveLength", "keepClearance", "respectParts",
                                               "followSurface", "limitDistance", "falloff", "take",
                                               "influenceChannel", "regionMap", "regionChannel",
                                               "fillTubes", "tubeBlend"}));
    // The influence channel is written only with a limit.
    EXPECT_TRUE(op->fixedChannels().empty());
    op->paramSet.set("limitDistance", 2.0);
    ASSERT_EQ(op->fixedChannels().size(), 1u);
    EXPECT_EQ(op->fixedChannels()[0].name, "guideInfluence");
}

TEST(Interpolate, RefusesWhatItCannotRunWithTheArtistsWords) {
    const auto op = makeInterpolate();
    EvalContext ctx;
    expectMessage<GraphError>(
        [&] {
            op->evaluate(ctx, {Value(), Value(), Value()});
        },
        "Interpolate: strands input not connected");
    op->paramSet.values["take"] = std::string("twist");
    expectMessage<GraphError>(
        [&] {
            interpolate(*op, {scatterOnHead(1.0), guidesOnHead(0.2)});
        },
        "Interpolate: take must be shape or length");
}

TEST(Interpolate, BadGuidesPassTheStrandsThroughWithANote) {
    const auto strands = scatterOnHead(2.0);
    const float nan = std::nanf("");
    auto oneShort = std::make_shared<GuideSet>();
    oneShort->guides.emplace_back();
    oneShort->guides[0].id = 1;
    oneShort->guides[0].points = {{0, 0, 0}};
    auto withNan = std::make_shared<GuideSet>(*oneShort);
    withNan->guides.emplace_back();
    withNan->guides[1].id = 2;
    withNan->guides[1].points = {{0, 0, 0}, {nan, 1, 0}};
    const std::string none =
        "no guides: place some with the guide tools; the strands keep their incoming shape";
    struct Case {
        std::shared_ptr<const GuideSet> guides;
        std::vector<std::string> notes;
    };
    const std::vector<Case> cases = {
        {nullptr, {none}},
        {std::make_shared<GuideSet>(), {none}},
        {oneShort,
         {"1 guide has fewer than 2 points or points that are not numbers: it shapes no strand "
          "(redraw it with the guide tools)",
          none}},
        {withNan,
         {"2 guides have fewer than 2 points or points that are not numbers: they shape no "
          "strand (redraw them with the guide tools)",
          none}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> notes;
        const auto out = interpolate(*makeInterpolate(), {strands, c.guides}, &notes);
        EXPECT_EQ(out, strands);
        EXPECT_EQ(notes, c.notes);
    }
    // A bad guide beside good ones shapes nothing and stops nothing.
    auto mixed = guidesOnHead(0.2);
    mixed->guides.push_back(withNan->guides[1]);
    std::vector<std::string> notes;
    const auto out = interpolate(*makeInterpolate(), {strands, mixed}, &notes);
    EXPECT_NE(out, strands);
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_TRUE(std::all_of(out->points().begin(), out->points().end(),
                            [](const Vec3f& p) { return std::isfinite(p.x + p.y + p.z); }));
}

TEST(Interpolate, AStrandOnAGuidesRootTakesThatGuidesShape) {
    const auto guides = guidesOnHead(0.2, 5);
    // One strand of five points on each guide's root, built by hand.
    auto strands = std::make_shared<StrandSet>();
    for (const Guide& guide : guides->guides) {
        const Vec3f p = guide.points[0];
        const Vec3f line[5] = {p, p + Vec3f{0, 0.1f, 0}, p + Vec3f{0, 0.2f, 0},
                               p + Vec3f{0, 0.3f, 0}, p + Vec3f{0, 0.4f, 0}};
        strands->addStrand(guide.id, guide.root, line);
    }
    for (const std::int64_t neighbors : {1, 3, 8}) {
        for (const double smoothness : {0.0, 0.5, 1.0}) {
            const auto op = makeInterpolate();
            op->paramSet.set("neighbors", neighbors);
            op->paramSet.set("smoothness", smoothness);
            const auto out = interpolate(*op, {strands, guides});
            for (std::size_t s = 0; s < out->strandCount(); ++s) {
                const auto points = out->strandPoints(s);
                const Guide& guide = guides->guides[s];
                const float span = distance(guide.points.back(), guide.points[0]);
                for (std::size_t k = 0; k < points.size(); ++k)
                    ASSERT_LT(distance(points[k], guide.points[k]), span * 2e-4f)
                        << "strand " << s << " point " << k << " neighbors " << neighbors;
            }
            // Its guide layer comes with it.
            const auto* curl = out->strandChannel("curl");
            ASSERT_NE(curl, nullptr);
            for (std::size_t s = 0; s < out->strandCount(); ++s)
                ASSERT_NEAR((*curl)[s], guides->guides[s].attributes.at("curl"), 1e-3f);
        }
    }
}

// Strands and guide roots from Scatter, bound directly.
struct Bound {
    std::vector<Vec3f> strandRoots, guideRoots;
    std::vector<std::int32_t> strandLabels, guideLabels;
};

Bound boundRoots(double strandDensity, double guideDensity) {
    Bound b;
    const auto strands = scatterOnHead(strandDensity);
    for (std::size_t s = 0; s < strands->strandCount(); ++s)
        b.strandRoots.push_back(strands->strandPoints(s)[0]);
    const auto guides = scatterOnHead(guideDensity, 3);
    for (std::size_t s = 0; s < guides->strandCount(); ++s)
        b.guideRoots.push_back(guides->strandPoints(s)[0]);
    return b;
}

BindingInputs inputsOf(const Bound& b) {
    BindingInputs inputs;
    inputs.strandRoots = b.strandRoots;
    inputs.guideRoots = b.guideRoots;
    inputs.strandLabels = b.strandLabels;
    inputs.guideLabels = b.guideLabels;
    return inputs;
}

TEST(InterpolateBinding, WeightsOfEveryBoundStrandAddToOneExactly) {
    const Bound b = boundRoots(6.0, 0.3);
    for (const std::int64_t neighbors : {1, 2, 3, 8, 16}) {
        for (const double smoothness : {0.0, 0.25, 0.5, 0.8, 1.0}) {
            const auto settings = makeInterpolateSettings(
                smoothness, neighbors, b.guideRoots.size(), false, 0, false, false);
            const auto state = bindStrands(settings, inputsOf(b));
            ASSERT_EQ(state->binding.strandCount, b.strandRoots.size());
            for (const auto& chunk : state->binding.chunks) {
                for (std::size_t k = 0; k < chunk->strandCount(); ++k) {
                    ASSERT_TRUE(chunk->found[k]);
                    std::uint32_t total = 0;
                    for (std::uint32_t r = chunk->recordStart[k]; r < chunk->recordStart[k + 1];
                         ++r)
                        total += chunk->weights[r] + 1u;
                    ASSERT_EQ(total, 65536u) << "neighbors " << neighbors;
                    if (neighbors == 1) {
                        ASSERT_EQ(chunk->recordStart[k + 1] - chunk->recordStart[k], 1u);
                    }
                }
            }
        }
    }
}

TEST(InterpolateBinding, SettingsFollowSmoothnessAndTheGuideCount) {
    struct Case {
        double smoothness;
        std::int64_t neighbors;
        std::size_t guides;
        float reachScale, power;
        unsigned kept, candidates;
    };
    const Case cases[] = {
        {0.5, 3, 100, 1.5f, 2.0f, 3, 14}, {0.0, 3, 100, 1.0f, 6.0f, 3, 14},
        {1.0, 3, 100, 3.0f, 1.0f, 3, 14}, {0.25, 1, 100, 1.25f, 4.0f, 1, 1},
        {0.5, 16, 5, 1.5f, 2.0f, 5, 5},   {0.5, 2, 100, 1.5f, 2.0f, 2, 10},
        {0.5, 1, 0, 1.5f, 2.0f, 0, 0},
    };
    for (const Case& c : cases) {
        const auto s =
            makeInterpolateSettings(c.smoothness, c.neighbors, c.guides, false, 0, false, false);
        EXPECT_FLOAT_EQ(s.reachScale, c.reachScale) << c.smoothness;
        EXPECT_FLOAT_EQ(s.power, c.power) << c.smoothness;
        EXPECT_EQ(s.kept, c.kept);
        EXPECT_EQ(s.candidates, c.candidates);
    }
    // Parts or the surface walk widen nearest mode's search.
    EXPECT_EQ(makeInterpolateSettings(0.5, 1, 100, true, 0, false, false).candidates, 8u);
}

TEST(InterpolateBinding, TwinGuidesAndAStrandOnThemDivideNothingByZero) {
    const std::vector<Vec3f> guides = {{0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {0, 0, 1}};
    const std::vector<Vec3f> strands = {{0, 0, 0}, {0.5f, 0, 0}, {0.3f, 0, 0.3f}};
    BindingInputs inputs;
    inputs.strandRoots = strands;
    inputs.guideRoots = guides;
    const auto state =
        bindStrands(makeInterpolateSettings(0.5, 3, guides.size(), false, 0, false, false), inputs);
    const BindingChunk& chunk = *state->binding.chunks[0];
    for (std::size_t k = 0; k < strands.size(); ++k) {
        EXPECT_TRUE(chunk.found[k]);
        EXPECT_EQ(chunk.next2[k], kInfiniteDistance) << "twins make the next distance unclean";
    }
    // The strand on the twins goes to them alone.
    for (std::uint32_t r = chunk.recordStart[0]; r < chunk.recordStart[1]; ++r)
        EXPECT_LT(chunk.guides[r], 2u);
}

TEST(InterpolateBinding, StrandsOfOneRegionNeverTakeAGuideOfAnother) {
    Bound b = boundRoots(4.0, 0.4);
    // Three bands across the head by height; the guides of band 2 are left out, so its strands
    // blend the guides of every region.
    const auto band = [](const Vec3f& p) { return static_cast<std::int32_t>(std::floor(p.y)) % 3; };
    for (const Vec3f& p : b.strandRoots)
        b.strandLabels.push_back(band(p) < 0 ? 0 : band(p));
    for (const Vec3f& p : b.guideRoots)
        b.guideLabels.push_back(band(p) == 2 || band(p) < 0 ? -1 : band(p));
    const auto state = bindStrands(
        makeInterpolateSettings(0.5, 3, b.guideRoots.size(), false, 0, false, false), inputsOf(b));
    ASSERT_EQ(state->regionLabels, (std::vector<std::int32_t>{0, 1}));
    std::size_t crossing = 0;
    for (const auto& chunk : state->binding.chunks) {
        for (std::size_t k = 0; k < chunk->strandCount(); ++k) {
            const std::size_t s = chunk->firstStrand + k;
            for (std::uint32_t r = chunk->recordStart[k]; r < chunk->recordStart[k + 1]; ++r) {
                const std::int32_t guideRegion = state->guideRegions[chunk->guides[r]];
                if (b.strandLabels[s] == 2) {
                    crossing += guideRegion >= 0 ? 1 : 0;
                    EXPECT_EQ(state->strandLists[s], 0);
                } else {
                    ASSERT_EQ(guideRegion, b.strandLabels[s]) << "strand " << s;
                }
            }
        }
    }
    EXPECT_GT(crossing, 0u);
}

TEST(InterpolateBinding, AStrandAcrossAPartFromItsGuidesKeepsThemAll) {
    // Guides either side of a part line along z at x = 0, strands on the plane y = 0.
    std::vector<Vec3f> guides, strands, normals;
    for (int i = -3; i <= 3; ++i) {
        guides.push_back({-0.5f, 0, static_cast<float>(i)});
        guides.push_back({0.5f, 0, static_cast<float>(i)});
    }
    for (int i = 0; i < 40; ++i) {
        strands.push_back({-1.5f + 0.075f * static_cast<float>(i), 0, 0.37f});
        normals.push_back({0, 1, 0});
    }
    strands.push_back({-3.2f, 0, 0.1f});
    normals.push_back({0, 1, 0});
    BindingInputs inputs;
    inputs.strandRoots = strands;
    inputs.strandNormals = normals;
    inputs.guideRoots = guides;
    inputs.parts = makePartsSnapshot({{{0, 0, -10}, {0, 0, 10}}, {{-2, 0, -0.05f}, {-2, 0, 10}}});
    const auto state =
        bindStrands(makeInterpolateSettings(0.5, 3, guides.size(), false, 0, true, false), inputs);
    const BindingChunk& chunk = *state->binding.chunks[0];
    for (std::size_t k = 0; k + 1 < strands.size(); ++k) {
        ASSERT_GT(chunk.recordStart[k + 1], chunk.recordStart[k]);
        for (std::uint32_t r = chunk.recordStart[k]; r < chunk.recordStart[k + 1]; ++r) {
            const float side = guides[chunk.guides[r]].x;
            if (strands[k].x > -2.0f && side > -2.0f) {
                ASSERT_EQ(side > 0.0f, strands[k].x > 0.0f) << "strand " << k;
            }
        }
    }
    // Every candidate of the last strand lies across the second part: it keeps them all.
    EXPECT_GT(chunk.recordStart[strands.size()] - chunk.recordStart[strands.size() - 1], 1u);
}

TEST(Interpolate, AStrandBeyondTheLimitKeepsItsIncomingShape) {
    const auto strands = scatterOnHead(3.0);
    auto guides = std::make_shared<GuideSet>();
    // Guides only over the front part of the head.
    const auto all = guidesOnHead(0.3);
    for (const Guide& guide : all->guides)
        if (guide.points[0].z > 1.0f) guides->guides.push_back(guide);
    ASSERT_GT(guides->guides.size(), 5u);
    const auto op = makeInterpolate();
    op->paramSet.set("limitDistance", 1.0);
    const auto out = interpolate(*op, {strands, guides});
    const auto* influence = out->strandChannel("guideInfluence");
    ASSERT_NE(influence, nullptr);
    std::size_t beyond = 0, within = 0;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const Vec3f root = strands->strandPoints(s)[0];
        float nearest = 1e30f;
        for (const Guide& guide : guides->guides)
            nearest = std::min(nearest, distance(root, guide.points[0]));
        if (nearest >= 1.0001f) {
            ++beyond;
            ASSERT_EQ((*influence)[s], 0.0f);
            ASSERT_EQ(bitsOf(out->strandPoints(s)), bitsOf(strands->strandPoints(s)));
        } else if (nearest < 0.5f) {
            ++within;
            ASSERT_GT((*influence)[s], 0.0f);
            ASSERT_NE(bitsOf(out->strandPoints(s)), bitsOf(strands->strandPoints(s)));
        }
        ASSERT_EQ(bitsOf(out->strandPoints(s).first(1)), bitsOf(strands->strandPoints(s).first(1)));
    }
    EXPECT_GT(beyond, 100u) << within;
    EXPECT_GT(within, 30u) << beyond;
}

TEST(InterpolateBinding, TheFlatTableReadsBackAsTheChunksNarrowAndWide) {
    for (const std::size_t guideCount : {std::size_t{300}, kNarrowGuideLimit + 20}) {
        // Guides on a grid of the plane, strands between them.
        std::vector<Vec3f> guides, strands;
        const auto side = static_cast<std::size_t>(std::ceil(std::sqrt(double(guideCount))));
        for (std::size_t g = 0; g < guideCount; ++g)
            guides.push_back({static_cast<float>(g % side), 0, static_cast<float>(g / side)});
        for (std::size_t s = 0; s < 3000; ++s)
            strands.push_back({unitFloat(mix64(s)) * side, 0, unitFloat(mix64(s + 99)) * side});
        BindingInputs inputs;
        inputs.strandRoots = strands;
        inputs.guideRoots = guides;
        const auto state = bindStrands(
            makeInterpolateSettings(1.0, 16, guides.size(), false, 0, false, false), inputs);
        const FlatBinding flat = flattenBinding(state->binding);
        const bool wide = guideCount > kNarrowGuideLimit;
        EXPECT_EQ(flat.wide, wide);
        std::size_t s = 0;
        bool sawLong = false;
        for (const auto& chunk : state->binding.chunks) {
            for (std::size_t k = 0; k < chunk->strandCount(); ++k, ++s) {
                const std::uint32_t word = flat.strandWords[2 * s];
                std::uint32_t start = word >> 6, count = word & 31u;
                if (count == 31) {
                    count = flat.records[start++];
                    sawLong = true;
                }
                ASSERT_EQ(count, chunk->recordStart[k + 1] - chunk->recordStart[k]);
                ASSERT_EQ(flat.strandWords[2 * s + 1], floatBits(chunk->nearest2[k]));
                for (std::uint32_t i = 0; i < count; ++i) {
                    const std::uint32_t r = chunk->recordStart[k] + i;
                    const std::uint32_t guide =
                        wide ? flat.records[start + 2 * i] : flat.records[start + i] & 0xFFFFu;
                    const std::uint32_t weight =
                        wide ? flat.records[start + 2 * i + 1] : flat.records[start + i] >> 16;
                    ASSERT_EQ(guide, chunk->guides[r]);
                    ASSERT_EQ(weight, chunk->weights[r]);
                }
            }
        }
        EXPECT_TRUE(sawLong) << "16 soft neighbours make strands of 31 records or more";
    }
}

TEST(Interpolate, OneAndTwoThreadsMakeTheSameBits) {
    const auto strands = scatterOnHead(8.0);
    const auto guides = guidesOnHead(0.4);
    for (const char* blend : {"offsets", "directions"}) {
        std::vector<std::uint32_t> bits[2];
        for (const int threads : {1, 2}) {
            runWithThreads(threads, [&] {
                const auto op = makeInterpolate();
                op->paramSet.set("blend", std::string(blend));
                op->paramSet.set("limitDistance", 1.5);
                bits[threads - 1] = bitsOf(interpolate(*op, {strands, guides})->points());
            });
        }
        EXPECT_EQ(bits[0], bits[1]) << blend;
    }
}

TEST(InterpolateBinding, RebindingAfterMovedGuidesEqualsAFullBinding) {
    const Bound b = boundRoots(8.0, 0.4);
    const auto settings =
        makeInterpolateSettings(0.5, 3, b.guideRoots.size(), false, 0, false, false);
    const auto before = bindStrands(settings, inputsOf(b));
    for (const std::size_t moved : {std::size_t{0}, std::size_t{17}, b.guideRoots.size() / 2}) {
        Bound after = b;
        after.guideRoots[moved] += Vec3f{0.2f, 0.05f, -0.1f};
        std::size_t rebuilt = 0;
        const auto updated = rebindStrands(before, settings, inputsOf(after), &rebuilt);
        const auto full = bindStrands(settings, inputsOf(after));
        EXPECT_GT(rebuilt, 0u);
        EXPECT_LT(rebuilt, b.strandRoots.size() / 4);
        std::size_t shared = 0;
        for (std::size_t c = 0; c < full->binding.chunks.size(); ++c) {
            const BindingChunk& x = *updated->binding.chunks[c];
            const BindingChunk& y = *full->binding.chunks[c];
            shared += updated->binding.chunks[c] == before->binding.chunks[c] ? 1 : 0;
            ASSERT_EQ(x.recordStart, y.recordStart) << "chunk " << c;
            ASSERT_EQ(x.weights, y.weights);
            ASSERT_EQ(x.guides, y.guides);
            ASSERT_EQ(0, std::memcmp(x.nearest2.data(), y.nearest2.data(), x.nearest2.size() * 4));
            ASSERT_EQ(0, std::memcmp(x.next2.data(), y.next2.data(), x.next2.size() * 4));
        }
        EXPECT_GT(shared, full->binding.chunks.size() / 2);
    }
}

// One strand's binding as plain values, wherever its chunk put it.
struct StrandBinding {
    std::vector<std::uint32_t> guides;
    std::vector<std::uint16_t> weights;
    std::uint32_t nearest2 = 0, next2 = 0;
    bool operator==(const StrandBinding&) const = default;
};

StrandBinding strandBinding(const Binding& binding, std::size_t s) {
    const BindingChunk& chunk = *binding.chunks[s / kBindingChunkStrands];
    const std::size_t k = s - chunk.firstStrand;
    StrandBinding out;
    for (std::uint32_t r = chunk.recordStart[k]; r < chunk.recordStart[k + 1]; ++r) {
        out.guides.push_back(chunk.guides[r]);
        out.weights.push_back(chunk.weights[r]);
    }
    out.nearest2 = floatBits(chunk.nearest2[k]);
    out.next2 = floatBits(chunk.next2[k]);
    return out;
}

TEST(InterpolateBinding, AStrandsBindingDoesNotDependOnTheStrandsBesideIt) {
    // Strands are bound in groups rooted close together; the groups change with the order of the
    // strands, and no strand's binding may change with them. Regions split the groups further.
    Bound b = boundRoots(6.0, 0.4);
    for (const Vec3f& p : b.strandRoots)
        b.strandLabels.push_back(p.x < 0.3f ? 0 : 1);
    for (const Vec3f& p : b.guideRoots)
        b.guideLabels.push_back(p.x < 0.0f ? 0 : 1);
    // A strand whose root is not a number binds to nothing, wherever it lies.
    const float nan = std::nanf("");
    b.strandRoots[5] = Vec3f{nan, 0.0f, 0.0f};
    Bound shuffled = b;
    std::vector<std::size_t> order(b.strandRoots.size());
    for (std::size_t s = 0; s < order.size(); ++s)
        order[s] = s;
    std::sort(order.begin(), order.end(),
              [](std::size_t x, std::size_t y) { return mix64(x) < mix64(y); });
    for (std::size_t s = 0; s < order.size(); ++s) {
        shuffled.strandRoots[s] = b.strandRoots[order[s]];
        shuffled.strandLabels[s] = b.strandLabels[order[s]];
    }
    for (const std::int64_t neighbors : {1, 3, 16}) {
        const auto settings =
            makeInterpolateSettings(0.5, neighbors, b.guideRoots.size(), false, 0, false, false);
        const auto inOrder = bindStrands(settings, inputsOf(b));
        const auto outOfOrder = bindStrands(settings, inputsOf(shuffled));
        for (std::size_t s = 0; s < order.size(); ++s)
            ASSERT_EQ(strandBinding(outOfOrder->binding, s),
                      strandBinding(inOrder->binding, order[s]))
                << "strand " << order[s] << " neighbors " << neighbors;
        EXPECT_TRUE(strandBinding(inOrder->binding, 5).guides.empty());
    }
}

// Every strand's binding and shaped points folded into one number per setting, so that any change
// to the nearest guides, the weights, the edge fill or the shape steps shows. The numbers were
// taken while each step still matched a plain evaluation of its definition, one strand at a time.
std::uint64_t bindingHash(const Binding& binding) {
    std::uint64_t h = 0;
    for (std::size_t s = 0; s < binding.strandCount; ++s) {
        const StrandBinding b = strandBinding(binding, s);
        for (std::size_t i = 0; i < b.guides.size(); ++i)
            h = hashCombine(hashCombine(h, b.guides[i]), b.weights[i]);
        h = hashCombine(hashCombine(h, b.nearest2), b.next2);
    }
    return h;
}

TEST(InterpolateBinding, PinnedBindingsKeepTheirBits) {
    // Strands off the scalp as well: a little off lies near the edge of every reach, and fills;
    // far off lies beyond every reach, and takes the fill alone.
    Bound b = boundRoots(1.5, 0.15);
    for (std::size_t g = 0; g < b.guideRoots.size(); g += 4)
        for (const float off : {1.15f, 1.3f, 3.0f})
            b.strandRoots.push_back(b.guideRoots[g] * off);
    const struct {
        double smoothness;
        std::uint64_t hash;
    } cases[] = {
        {0.5, 0x2ba7e2f9111c50dfull}, {0.2, 0x7b0935c5226a075eull}, {0.9, 0x2f7acd523d0bb349ull}};
    for (const auto& c : cases) {
        const auto settings =
            makeInterpolateSettings(c.smoothness, 3, b.guideRoots.size(), false, 0, false, false);
        EXPECT_EQ(bindingHash(bindStrands(settings, inputsOf(b))->binding), c.hash)
            << "smoothness " << c.smoothness;
    }
}

// Strands, guides and a binding with normals on the head, shaped directly.
struct ShapeRun {
    std::shared_ptr<const StrandSet> strands = scatterOnHead(3.0);
    std::shared_ptr<const GuideSet> guides = guidesOnHead(0.4, 7);
    std::vector<Vec3f> roots, normals, guideRoots;
    std::shared_ptr<const InterpolateState> state;
    InterpolateGuideRows rows;

    ShapeRun() {
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            roots.push_back(strands->strandPoints(s)[0]);
            normals.push_back(head()->normalAt(strands->roots()[s]));
        }
        std::vector<const Guide*> pointers;
        for (const Guide& guide : guides->guides) {
            guideRoots.push_back(guide.points[0]);
            pointers.push_back(&guide);
        }
        BindingInputs inputs;
        inputs.strandRoots = roots;
        inputs.strandNormals = normals;
        inputs.guideRoots = guideRoots;
        state = bindStrands(
            makeInterpolateSettings(0.5, 3, guideRoots.size(), false, 1.0, false, false), inputs);
        rows = makeGuideRows(pointers, head().get());
    }

    std::vector<Vec3f> shape(const InterpolateGuideRows& with, const ShapeSettings& settings,
                             std::vector<Vec3f> out, std::span<const std::uint64_t> only = {}) {
        shapeStrands(*state, with, settings, *strands, out, {}, only);
        return out;
    }
};

TEST(InterpolateShape, WithoutAListEveryPointIsWrittenWithAListOnlyItsStrands) {
    ShapeRun run;
    const std::span<const Vec3f> incoming = run.strands->points();
    const float nan = std::nanf("");
    const std::vector<Vec3f> garbage(incoming.size(), Vec3f{nan, nan, nan});
    const std::vector<Vec3f> copied(incoming.begin(), incoming.end());
    for (const bool directions : {false, true}) {
        ShapeSettings settings;
        settings.blendDirections = directions;
        // Within a short limit, so that many strands lie beyond every guide and keep their shape.
        settings.limitDistance = 0.6f;
        const std::vector<Vec3f> fromGarbage = run.shape(run.rows, settings, garbage);
        EXPECT_EQ(bitsOf(fromGarbage), bitsOf(run.shape(run.rows, settings, copied)));
        std::size_t kept = 0;
        std::vector<std::uint64_t> shaped;
        for (std::size_t s = 0; s < run.strands->strandCount(); ++s) {
            const auto range = run.strands->pointRange(s);
            const bool same =
                bitsOf(incoming.subspan(range.begin, range.count)) ==
                bitsOf(std::span<const Vec3f>(fromGarbage).subspan(range.begin, range.count));
            kept += same ? 1 : 0;
            if (!same && shaped.size() < 3) shaped.push_back(s);
        }
        EXPECT_GT(kept, run.strands->strandCount() / 10);
        EXPECT_LT(kept, run.strands->strandCount() * 9 / 10);

        // With a list, the strands it leaves out keep what the buffer held.
        const std::vector<Vec3f> listed = run.shape(run.rows, settings, garbage, shaped);
        for (std::size_t s = 0; s < run.strands->strandCount(); ++s) {
            const auto range = run.strands->pointRange(s);
            const bool isListed = std::find(shaped.begin(), shaped.end(), s) != shaped.end();
            for (std::size_t i = range.begin; i < range.begin + range.count; ++i) {
                if (isListed)
                    ASSERT_EQ(bitsOf(std::span<const Vec3f>(&listed[i], 1)),
                              bitsOf(std::span<const Vec3f>(&fromGarbage[i], 1)));
                else
                    ASSERT_TRUE(std::isnan(listed[i].x)) << "strand " << s;
            }
        }
    }
}

TEST(InterpolateShape, PinnedShapesKeepTheirBitsWithOrWithoutPlanarRows) {
    ShapeRun run;
    const std::vector<Vec3f> start(run.strands->points().begin(), run.strands->points().end());
    const struct {
        bool directions, preserve;
        std::uint64_t hash;
    } cases[] = {{false, true, 0x7e5b156ae873ca13ull},
                 {false, false, 0xcc8395160da2070bull},
                 // A walk along the blended directions takes the guides' length either way.
                 {true, true, 0xfb19d10f0bb0b096ull},
                 {true, false, 0xfb19d10f0bb0b096ull}};
    // Rows without their planar layout take the other path to the same bits.
    InterpolateGuideRows byHand = run.rows;
    byHand.planar.clear();
    byHand.planarStride = 0;
    for (const auto& c : cases) {
        ShapeSettings settings;
        settings.blendDirections = c.directions;
        settings.preserveLength = c.preserve;
        for (const InterpolateGuideRows* rows : {&run.rows, &byHand})
            EXPECT_EQ(pointsHash(run.shape(*rows, settings, start)), c.hash)
                << "directions " << c.directions << " preserve " << c.preserve
                << (rows == &byHand ? ", rows without their planar layout" : "");
    }
}

// Strands whose normal agrees with their first guide's, opposes it, nearly opposes it, is zero
// or points anywhere: the turns into the strand's frame, whichever form each takes, keep their
// bits, side by side and one by one, at 1 and 2 threads.
TEST(InterpolateShape, TurnsIntoTheStrandsFrameKeepTheirBitsAtEveryAngle) {
    ShapeRun run;
    InterpolateState turned = *run.state;
    for (std::size_t s = 0; s < turned.strandNormals.size(); ++s) {
        const BindingChunk& chunk = *turned.binding.chunks[s / kBindingChunkStrands];
        const std::size_t k = s - chunk.firstStrand;
        if (chunk.recordStart[k] == chunk.recordStart[k + 1]) continue;
        const Vec3f guide = run.rows.normals[chunk.guides[chunk.recordStart[k]]];
        const Vec3f anywhere =
            normalized(Vec3f{unitFloat(mix64(s)) - 0.5f, unitFloat(mix64(s + 1)) - 0.5f,
                             unitFloat(mix64(s + 2)) - 0.5f},
                       {0, 1, 0});
        const Vec3f cases[] = {guide,   -guide,   normalized(-guide + anywhere * 1e-3f, {0, 1, 0}),
                               Vec3f{}, anywhere, turned.strandNormals[s]};
        turned.strandNormals[s] = cases[s % std::size(cases)];
    }
    const std::vector<Vec3f> start(run.strands->points().begin(), run.strands->points().end());
    std::vector<std::uint64_t> hashes;
    for (const ShapeLanes lanes :
         {ShapeLanes::oneByOne, ShapeLanes::four, ShapeLanes::eight, ShapeLanes::widest})
        for (const int threads : {1, 2}) {
            std::vector<Vec3f> out = start;
            runWithThreads(threads, [&] {
                shapeStrands(turned, run.rows, ShapeSettings{}, *run.strands, out, {}, {}, lanes);
            });
            hashes.push_back(pointsHash(out));
        }
    for (const std::uint64_t hash : hashes)
        EXPECT_EQ(hash, 0x10f446ea770c0aaeull);
}

// The strands that an update of some guides redoes: each strand with a record of a changed
// guide, once, in order, as a scan strand by strand finds them, for no guide, one, a few, many
// and all.
TEST(InterpolateShape, StrandsBoundToChangedGuidesAreEachStrandWithARecordOfOne) {
    ShapeRun run;
    const Binding& binding = run.state->binding;
    const std::size_t guideCount = run.rows.guideCount();
    const std::size_t one = guideCount / 3;
    // 0: none, 1: one guide, 2: about one in twenty, 3: about one in three, 4: all.
    for (const int kind : {0, 1, 2, 3, 4}) {
        std::vector<std::uint8_t> changed(guideCount, 0);
        for (std::size_t g = 0; g < guideCount; ++g)
            changed[g] = kind == 4 || (kind == 1 && g == one) ||
                         (kind == 2 && mix64(g) % 20 == 0) || (kind == 3 && mix64(g) % 3 == 0);
        std::vector<std::uint64_t> expected;
        for (const auto& chunk : binding.chunks)
            for (std::size_t k = 0; k < chunk->strandCount(); ++k) {
                bool bound = false;
                for (std::uint32_t r = chunk->recordStart[k]; r < chunk->recordStart[k + 1]; ++r)
                    bound = bound || changed[chunk->guides[r]] != 0;
                if (bound) expected.push_back(chunk->firstStrand + k);
            }
        for (const int threads : {1, 2}) {
            std::vector<std::uint64_t> got;
            runWithThreads(threads, [&] { got = strandsBoundTo(binding, changed); });
            EXPECT_EQ(got, expected) << "changed " << kind << ", " << threads << " threads";
        }
        if (kind == 0) {
            EXPECT_TRUE(expected.empty());
        } else if (kind == 4) {
            EXPECT_EQ(expected.size(), run.strands->strandCount());
        } else {
            EXPECT_FALSE(expected.empty()) << "changed " << kind;
        }
    }
}

TEST(InterpolateShape, TakeLengthKeepsEachStrandsShapeAtItsGuidesLength) {
    ShapeRun run;
    ShapeSettings settings;
    settings.takeLength = true;
    const std::span<const Vec3f> incoming = run.strands->points();
    const std::vector<Vec3f> start(incoming.begin(), incoming.end());
    const std::vector<Vec3f> shaped = run.shape(run.rows, settings, start);
    std::size_t checked = 0;
    for (std::size_t s = 0; s < run.strands->strandCount(); ++s) {
        const BindingChunk& chunk = *run.state->binding.chunks[s / kBindingChunkStrands];
        const std::size_t k = s - chunk.firstStrand;
        const auto range = run.strands->pointRange(s);
        const std::span<const Vec3f> before = incoming.subspan(range.begin, range.count);
        const std::span<const Vec3f> after =
            std::span<const Vec3f>(shaped).subspan(range.begin, range.count);
        if (chunk.recordStart[k] == chunk.recordStart[k + 1]) continue;
        float guideLength = 0.0f;
        for (std::uint32_t r = chunk.recordStart[k]; r < chunk.recordStart[k + 1]; ++r)
            guideLength += (static_cast<float>(chunk.weights[r]) + 1.0f) / 65536.0f *
                           run.rows.lengths[chunk.guides[r]];
        float arc = 0.0f;
        for (std::size_t i = 1; i < after.size(); ++i) {
            arc += length(after[i] - after[i - 1]);
            // Each point stays on the incoming strand's line: a straight strand stays straight.
            EXPECT_NEAR(length(cross(after[i] - before[0], before.back() - before[0])), 0.0f,
                        1e-4f * guideLength);
        }
        EXPECT_EQ(bitsOf(after.first(1)), bitsOf(before.first(1))) << "strand " << s;
        EXPECT_NEAR(arc, guideLength, 1e-4f * guideLength) << "strand " << s;
        ++checked;
    }
    EXPECT_GT(checked, 0u);
}

// Strands with the roots of a ShapeRun's but of mixed point counts: mostly 9, some 5, 40, 2 or
// 1, so that groups fill, stay part full and close early.
std::shared_ptr<const StrandSet> mixedCountsOnRoots(const ShapeRun& run) {
    auto set = std::make_shared<StrandSet>();
    for (std::size_t s = 0; s < run.strands->strandCount(); ++s) {
        const std::uint64_t draw = mix64(run.strands->ids()[s]) % 20;
        const std::size_t n = draw < 12 ? 9 : draw < 15 ? 5 : draw < 17 ? 40 : draw < 19 ? 2 : 1;
        std::vector<Vec3f> points;
        for (std::size_t k = 0; k < n; ++k)
            points.push_back(run.roots[s] + run.normals[s] * (0.1f * static_cast<float>(k)));
        set->addStrand(run.strands->ids()[s], run.strands->roots()[s], points,
                       std::vector<float>(n, 0.01f));
    }
    return set;
}

TEST(InterpolateShape, StrandsSideBySideMakeTheBitsOfStrandsOneByOne) {
    ShapeRun run;
    const auto strands = mixedCountsOnRoots(run);
    // Guide rows of 7 samples (one group of eight), of 16 (one group of sixteen), of 19 (a group
    // of sixteen and one of eight), and rows so large that the curves' lengths overflow, which
    // the one-by-one walk decides.
    const auto rowsOf = [](const std::shared_ptr<const GuideSet>& set) {
        std::vector<const Guide*> pointers;
        for (const Guide& guide : set->guides)
            pointers.push_back(&guide);
        return makeGuideRows(pointers, head().get());
    };
    InterpolateGuideRows huge = run.rows;
    for (Vec3f& o : huge.offsets)
        o *= 1e37f;
    for (float& f : huge.planar)
        f *= 1e37f;
    const std::pair<const char*, InterpolateGuideRows> rowSets[] = {
        {"7 samples", run.rows},
        {"16 samples", rowsOf(guidesOnHead(0.4, 16))},
        {"19 samples", rowsOf(guidesOnHead(0.4, 19))},
        {"overflowing", huge}};
    std::vector<std::uint64_t> everyThird;
    for (std::size_t s = 0; s < strands->strandCount(); s += 3)
        everyThird.push_back(s);
    const std::span<const Vec3f> incoming = strands->points();
    const float nan = std::nanf("");
    const std::vector<Vec3f> garbage(incoming.size(), Vec3f{nan, nan, nan});
    for (const auto& rowSet : rowSets) {
        const char* name = rowSet.first;
        const InterpolateGuideRows& rows = rowSet.second;
        for (const int blend : {0, 1, 2}) {  // offsets kept at length, offsets, directions
            for (const float limit : {0.0f, 0.6f}) {
                ShapeSettings settings;
                settings.blendDirections = blend == 2;
                settings.preserveLength = blend == 0;
                settings.limitDistance = limit;
                for (const bool listed : {false, true}) {
                    const std::span<const std::uint64_t> only =
                        listed ? std::span<const std::uint64_t>(everyThird)
                               : std::span<const std::uint64_t>();
                    const auto shape = [&](ShapeLanes lanes, int threads) {
                        std::pair<std::vector<Vec3f>, std::vector<float>> made{
                            garbage, std::vector<float>(strands->strandCount(), -1.0f)};
                        runWithThreads(threads, [&] {
                            shapeStrands(*run.state, rows, settings, *strands, made.first,
                                         made.second, only, lanes);
                        });
                        return made;
                    };
                    const auto expected = shape(ShapeLanes::oneByOne, 1);
                    for (const ShapeLanes lanes :
                         {ShapeLanes::widest, ShapeLanes::eight, ShapeLanes::four}) {
                        for (const int threads : {1, 2}) {
                            const auto got = shape(lanes, threads);
                            // Compared whole, so that a failure names the case, not every point.
                            EXPECT_TRUE(bitsOf(got.first) == bitsOf(expected.first))
                                << name << ", blend " << blend << ", limit " << limit << ", listed "
                                << listed << ", " << threads << " threads"
                                << (lanes == ShapeLanes::four    ? ", four lanes"
                                    : lanes == ShapeLanes::eight ? ", eight lanes"
                                                                 : ", widest");
                            EXPECT_TRUE(got.second == expected.second)
                                << name << ", blend " << blend;
                        }
                    }
                }
            }
        }
    }
}

TEST(Interpolate, MovingOneGuideRedoesOnlyItsStrandsAndEqualsAFullRun) {
    const auto strands = scatterOnHead(10.0);
    const auto guides = guidesOnHead(0.5);
    const auto op = makeInterpolate();
    const auto first = interpolate(*op, {strands, guides});
    auto moved = std::make_shared<GuideSet>(*guides);
    const std::size_t g = moved->guides.size() / 3;
    for (std::size_t k = 1; k < moved->guides[g].points.size(); ++k)
        moved->guides[g].points[k] += Vec3f{0.3f, 0.1f, 0.0f} * static_cast<float>(k);

    const auto none = std::make_shared<StrandChanges>();
    none->all = false;
    none->sameLayout = true;
    const std::vector<std::shared_ptr<const StrandChanges>> changes = {none, nullptr, none};
    IncrementalInputs incremental;
    incremental.previous = first;
    incremental.changes = changes;
    EvalContext ctx;
    Value out;
    StrandChanges made;
    ASSERT_TRUE(op->evaluateIncremental(ctx, {strands, moved, head()}, incremental, &out, &made));
    const auto updated = out.get<StrandSet>();
    const auto full = interpolate(*makeInterpolate(), {strands, moved});
    EXPECT_EQ(updated->contentHash(), full->contentHash());
    ASSERT_FALSE(made.all);
    EXPECT_GT(made.strands.size(), 0u);
    EXPECT_LT(made.strands.size(), strands->strandCount() / 10);
    // Exactly the listed strands differ from the run before.
    std::size_t listed = 0;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const bool differs = bitsOf(first->strandPoints(s)) != bitsOf(updated->strandPoints(s));
        const bool isListed = listed < made.strands.size() && made.strands[listed] == s;
        listed += isListed ? 1 : 0;
        if (differs) {
            ASSERT_TRUE(isListed) << "strand " << s;
        }
    }
    // A moved root needs the binding again: not incremental.
    auto rooted = std::make_shared<GuideSet>(*moved);
    rooted->guides[g].points[0] += Vec3f{0.01f, 0, 0};
    EXPECT_FALSE(op->evaluateIncremental(ctx, {strands, rooted, head()}, incremental, &out, &made));
}

// A plane painted in a colour set "zones": red left of x = 0, green right of it, blending across
// the column of points at x = 0, and blue from z = 4 on, where no guide is rooted.
std::shared_ptr<const ScalpMesh> zonedPlane() {
    auto plane = std::make_shared<ScalpMesh>(*makeUvPlane(10.0f, 10));
    const auto colorOf = [](const Vec3f& p) {
        if (p.z > 3.5f) return Rgba{0, 0, 1, 1};
        if (p.x < -0.01f) return Rgba{1, 0, 0, 1};
        if (p.x > 0.01f) return Rgba{0, 1, 0, 1};
        return Rgba{0.5f, 0.5f, 0, 1};
    };
    std::vector<Rgba> corners;
    for (const Triangle& triangle : plane->triangles())
        for (const std::uint32_t point : triangle)
            corners.push_back(colorOf(plane->points()[point]));
    plane->setColorSet("zones", corners);
    return plane;
}

struct ZonedRun {
    std::shared_ptr<const ScalpMesh> plane = zonedPlane();
    std::shared_ptr<StrandSet> strands = std::make_shared<StrandSet>();
    std::shared_ptr<GuideSet> guides = std::make_shared<GuideSet>();

    // Straight strands on a grid that never meets x = 0; guides on the left bend to -x, on the
    // right to +x, the nearest of them to the middle closer to it from the right.
    ZonedRun() {
        for (int i = 0; i < 24; ++i)
            for (const float z : {-4.5f, -2.5f, -0.5f, 1.5f, 2.5f, 4.5f}) {
                const Vec3f root{-4.7f + 0.4f * static_cast<float>(i), 0.0f, z};
                const std::vector<Vec3f> points{root, root + Vec3f{0, 1, 0}, root + Vec3f{0, 2, 0}};
                strands->addStrand(strands->strandCount() + 1, plane->closestPoint(root).root,
                                   points);
            }
        for (const float x : {-4.0f, -2.5f, 1.5f, 3.5f})
            for (const float z : {-3.0f, 0.0f, 2.0f}) {
                Guide guide;
                guide.id = guides->guides.size() + 1;
                const Vec3f root{x, 0.0f, z};
                guide.root = plane->closestPoint(root).root;
                const float side = x < 0 ? -1.0f : 1.0f;
                guide.points = {root, root + Vec3f{side * 0.5f, 1, 0},
                                root + Vec3f{side * 1.5f, 1.5f, 0}};
                guides->guides.push_back(std::move(guide));
            }
    }

    std::shared_ptr<const StrandSet> interpolate(const Operator& op) const {
        auto scene = std::make_shared<FieldScene>();
        scene->scalp = plane;
        EvalContext ctx;
        ctx.scene = scene;
        const Value out = op.evaluate(ctx, {strands, guides, plane});
        return out.get<StrandSet>();
    }
};

TEST(Interpolate, ARegionMapKeepsEachStrandToTheGuidesOfItsColorAtAnyThreadCount) {
    const ZonedRun run;
    const auto op = makeInterpolate();
    // Without regions the strands just left of the middle lean toward the right's guides.
    const auto unzoned = run.interpolate(*op);
    std::size_t leaning = 0;
    for (std::size_t s = 0; s < unzoned->strandCount(); ++s) {
        const auto points = unzoned->strandPoints(s);
        leaning += points[0].x < 0 && points[0].z < 4 && points.back().x > points[0].x ? 1 : 0;
    }
    EXPECT_GT(leaning, 0u);
    EXPECT_EQ(unzoned->strandChannel("region"), nullptr);

    op->paramSet.set("regionMap", std::string("zones"));
    const auto zoned = run.interpolate(*op);
    const auto* region = zoned->strandChannel("region");
    ASSERT_NE(region, nullptr);
    std::size_t free = 0;
    for (std::size_t s = 0; s < zoned->strandCount(); ++s) {
        const auto points = zoned->strandPoints(s);
        const Vec3f root = points[0], tip = points.back();
        // Regions number the guides' colours in order: green 0, red 1; blue has no guide.
        if (root.z > 4) {
            EXPECT_EQ((*region)[s], -1.0f) << s;
            free += tip != run.strands->strandPoints(s).back() ? 1 : 0;
        } else if (root.x < 0) {
            EXPECT_EQ((*region)[s], 1.0f) << s;
            EXPECT_LT(tip.x, root.x - 0.5f) << s;
        } else {
            EXPECT_EQ((*region)[s], 0.0f) << s;
            EXPECT_GT(tip.x, root.x + 0.5f) << s;
        }
    }
    // Strands in a colour no guide is rooted on still blend the nearest guides of any region.
    EXPECT_EQ(free, 24u);
    for (const int threads : {1, 2})
        runWithThreads(threads, [&] {
            const auto fresh = makeInterpolate();
            fresh->paramSet.set("regionMap", std::string("zones"));
            const auto again = run.interpolate(*fresh);
            EXPECT_EQ(bitsOf(again->points()), bitsOf(zoned->points())) << threads << " threads";
            EXPECT_EQ(*again->strandChannel("region"), *region) << threads << " threads";
        });

    op->paramSet.set("regionChannel", std::string());
    EXPECT_EQ(run.interpolate(*op)->strandChannel("region"), nullptr);
    // The binding kept from the run with regions is not reused for a run without them.
    op->paramSet.set("regionMap", std::string());
    EXPECT_EQ(bitsOf(run.interpolate(*op)->points()), bitsOf(unzoned->points()));
    op->paramSet.set("regionMap", std::string("nothing"));
    expectMessage<GraphError>([&] { run.interpolate(*op); },
                              "Interpolate: no map, color set or image named 'nothing' (Groom "
                              "Tools > Paint > New... makes a map)");
}

TEST(Interpolate, RegionsStandInAnUpdateOfGuideShapesUntilTheirPaintChanges) {
    ZonedRun run;
    const auto op = makeInterpolate();
    op->paramSet.set("regionMap", std::string("zones"));
    const auto first = run.interpolate(*op);
    auto moved = std::make_shared<GuideSet>(*run.guides);
    for (std::size_t k = 1; k < moved->guides[1].points.size(); ++k)
        moved->guides[1].points[k] += Vec3f{0.0f, 0.2f, 0.3f} * static_cast<float>(k);

    const auto none = std::make_shared<StrandChanges>();
    none->all = false;
    none->sameLayout = true;
    const std::vector<std::shared_ptr<const StrandChanges>> changes = {none, nullptr, none};
    IncrementalInputs incremental;
    incremental.previous = first;
    incremental.changes = changes;
    const auto update = [&](const std::shared_ptr<const ScalpMesh>& plane, Value& out) {
        auto scene = std::make_shared<FieldScene>();
        scene->scalp = plane;
        EvalContext ctx;
        ctx.scene = scene;
        StrandChanges made;
        return op->evaluateIncremental(ctx, {run.strands, moved, plane}, incremental, &out, &made);
    };
    Value out;
    ASSERT_TRUE(update(run.plane, out));
    run.guides = moved;
    const auto fresh = makeInterpolate();
    fresh->paramSet.set("regionMap", std::string("zones"));
    EXPECT_EQ(out.get<StrandSet>()->contentHash(), run.interpolate(*fresh)->contentHash());

    // Painted all red, the regions change and so does the binding: not incremental.
    auto repainted = std::make_shared<ScalpMesh>(*run.plane);
    repainted->setColorSet("zones",
                           std::vector<Rgba>(repainted->triangleCount() * 3, Rgba{1, 0, 0, 1}));
    EXPECT_FALSE(update(repainted, out));
}

}  // namespace
}  // namespace velmorin
