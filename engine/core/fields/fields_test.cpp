#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "expr/noise.h"
#include "expr/program_cache.h"
#include "fields/field_map.h"
#include "fields/field_sampler.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/graph.h"
#include "graph/test/eval_operators.h"
#include "graph/uniform_value.h"
#include "io/png.h"
#include "mesh/scalp_mesh.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// Reads its mappable `amount` per strand and per point into channels, its `profile` ramp at 0.25,
// and whether its choice `mode` is "hard".
class ProbeOp final : public Operator {
  public:
    std::string type() const override { return "FieldsProbe"; }
    std::string category() const override { return "utility"; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"guides", PortType::Guides, true}};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec mode = test::param("mode", std::string("soft"), true);
        mode.choices = {"soft", "hard"};
        return {test::param("amount", 0.5, true, "How much (mappable)"),
                test::param("tint", Vec3f{}, true, "A colour (mappable)"),
                test::param("spacing", 1.0, false, "Distance between (mappable)"), mode,
                test::param("profile", Ramp{{{0, 0, 1}, {1, 1, 1}}}, true)};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const auto strands = inputs[0].get<StrandSet>();
        auto out = std::make_shared<StrandSet>(*strands);
        const FieldSampler amount = fieldSampler(paramSet, ctx, "amount", *strands);
        const FieldSampler tint = fieldSampler(paramSet, ctx, "tint", *strands);
        std::vector<float>& tintY = out->addStrandChannel("tintY", 0.0f);
        for (std::size_t s = 0; s < tintY.size(); ++s)
            tintY[s] = tint.vectorAtStrand(s).y;
        fieldSampler(paramSet, ctx, "spacing", *strands);
        std::vector<float>& perStrand = out->addStrandChannel("amount", 0.0f);
        std::vector<float>& perPoint = out->addPointChannel("amountAt", 0.0f);
        const auto offsets = strands->offsets();
        parallelRange(0, strands->strandCount(), 7, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                perStrand[s] = amount.atStrand(s);
                for (std::uint64_t p = offsets[s]; p < offsets[s + 1]; ++p)
                    perPoint[p] = amount.atPoint(s, p - offsets[s]);
            }
        });
        out->addStrandChannel("profile", rampAt(paramRamp(paramSet, ctx, "profile", {}), 0.25f));
        out->addStrandChannel("hard", paramSet.getString("mode", "") == "hard" ? 1.0f : 0.0f);
        return out;
    }
};

void registerProbe() {
    static const bool done = [] {
        OperatorRegistry& registry = OperatorRegistry::instance();
        OperatorInfo info;
        info.category = "utility";
        info.hidden = true;
        registry.registerType(
            "FieldsProbe", [] { return std::make_unique<ProbeOp>(); }, info);
        test::registerEvalTestOperators();
        return true;
    }();
    (void)done;
}

// A unit square of two triangles on y = 0, UVs equal to (x, z); colour set "tint" of (x, z, 0.5).
std::shared_ptr<ScalpMesh> squareScalp(bool uvs = true) {
    auto scalp =
        std::make_shared<ScalpMesh>(std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {0, 0, 1}, {1, 0, 1}},
                                    std::vector<Triangle>{{0, 1, 2}, {1, 3, 2}});
    std::vector<Uv> corners;
    std::vector<Rgba> colors;
    for (const Triangle& t : scalp->triangles())
        for (const std::uint32_t i : t) {
            const Vec3f& p = scalp->points()[i];
            corners.push_back({p.x, p.z});
            colors.push_back({p.x, p.z, 0.5f, 1.0f});
        }
    if (uvs) scalp->setUvs(corners);
    scalp->setColorSet("tint", colors);
    return scalp;
}

// Strands of three points straight up from roots at the texel centres of a 2 x 2 image:
// (x, z) = (0.25, 0.25), (0.75, 0.25), (0.25, 0.75), (0.75, 0.75); `copies` times over.
// Channels: "mass" per strand (1, 2, 3, 4), "curl" per point (the point's index), and the guide
// layer "density" per strand (10 times the strand's place).
std::shared_ptr<const StrandSet> squareStrands(std::size_t copies = 1) {
    const StrandRoot roots[] = {
        {0, 0.25f, 0.25f}, {0, 0.75f, 0.25f}, {0, 0.25f, 0.75f}, {1, 0.5f, 0.25f}};
    const Vec3f at[] = {{0.25f, 0, 0.25f}, {0.75f, 0, 0.25f}, {0.25f, 0, 0.75f}, {0.75f, 0, 0.75f}};
    auto set = std::make_shared<StrandSet>();
    const std::size_t count = 4 * copies;
    auto& ids = set->writeIds();
    auto& rootColumn = set->writeRoots();
    auto& offsets = set->writeOffsets();
    auto& points = set->writePoints();
    set->writeWidths().assign(count * 3, 0.01f);
    offsets.assign(1, 0);
    for (std::size_t s = 0; s < count; ++s) {
        ids.push_back(s + 1);
        rootColumn.push_back(roots[s % 4]);
        for (int k = 0; k < 3; ++k)
            points.push_back(at[s % 4] + Vec3f{0, 0.1f * static_cast<float>(k), 0});
        offsets.push_back(points.size());
    }
    auto& mass = set->addStrandChannel("mass", 0.0f);
    auto& density = set->addStrandChannel("density", 0.0f);
    auto& curl = set->addPointChannel("curl", 0.0f);
    for (std::size_t s = 0; s < count; ++s) {
        mass[s] = static_cast<float>(s % 4 + 1);
        density[s] = 10.0f * static_cast<float>(s % 4);
    }
    for (std::size_t p = 0; p < curl.size(); ++p)
        curl[p] = static_cast<float>(p % 3);
    return set;
}

// A 2 x 2 gray image: top row 200, 150; bottom row 100, 50.
std::string writeImage(const test::TempFolder& folder) {
    const std::string path = folder.file("gray.png");
    const std::uint8_t pixels[] = {200, 150, 100, 50};
    writePng(path, ImageView{2, 2, 1, pixels});
    return path;
}

std::shared_ptr<MapCatalogValue> catalog(const std::string& image) {
    auto maps = std::make_shared<MapCatalogValue>();
    ScalpMap weight;  // x + 2z per vertex
    weight.values = {0, 1, 2, 3};
    maps->maps.maps["weight"] = weight;
    ScalpMap painted;
    painted.kind = MapKind::Texture;
    painted.texture = image;
    maps->maps.maps["painted"] = painted;
    ScalpMap unsaved;
    unsaved.kind = MapKind::Texture;
    maps->maps.maps["unsaved"] = unsaved;
    maps->guideLayers["density"] = "guides";
    return maps;
}

struct Scene {
    test::TempFolder folder{"fields"};
    std::string image = writeImage(folder);
    SceneInputs inputs;
    EvalContext ctx;
    explicit Scene(std::size_t copies = 1, bool uvs = true) {
        inputs["groom"] = {Value(squareStrands(copies)), 1};
        inputs["scalp"] = {Value(std::shared_ptr<const ScalpMesh>(squareScalp(uvs))), 2};
        inputs["maps"] = {Value(std::shared_ptr<const MapCatalogValue>(catalog(image))), 3};
        ctx.sceneInputs = &inputs;
    }
    // The catalog under a new key, with the vertex map "weight" painted 1 everywhere.
    void repaintWeight(std::uint64_t key) {
        auto maps = catalog(image);
        maps->maps.maps["weight"].values = {1, 1, 1, 1};
        inputs["maps"] = {Value(std::shared_ptr<const MapCatalogValue>(maps)), key};
    }
};

// One number as a host hands it in.
Value uniform(decltype(UniformValue::value) value) {
    return Value(std::make_shared<const UniformValue>(UniformValue{ValueKind::Number, value}));
}

constexpr const char* kExposed = R"(, "paramInputs": ["amount", "spacing", "mode", "profile"])";

// A graph of groom -> probe: the probe's params, its other fields, and extra nodes and
// connections as given.
Graph probeGraph(const std::string& params, const std::string& nodes = "",
                 const std::string& connections = "", const std::string& probeFields = kExposed) {
    registerProbe();
    Graph graph;
    graph.fromJson(R"({"nodes": [{"name": "groom", "type": "EvalScene"},)" + nodes +
                   R"({"name": "probe", "type": "FieldsProbe", "params": )" + params + probeFields +
                   R"(}], "connections": [{"from": "groom", "to": "probe", "input": "strands"})" +
                   connections + R"(], "output": "probe"})");
    return graph;
}

std::vector<float> column(const StrandSet& set, const char* name) {
    const std::vector<float>* strand = set.strandChannel(name);
    return strand ? *strand : *set.pointChannel(name);
}

std::vector<float> column(Graph& graph, Scene& scene, const char* name = "amount") {
    return column(*test::strandsOf(graph.evaluateOutput(scene.ctx)), name);
}

std::shared_ptr<const StrandSet> runProbe(Scene& scene, const std::string& params,
                                          const std::string& nodes = "",
                                          const std::string& connections = "") {
    Graph graph = probeGraph(params, nodes, connections);
    return test::strandsOf(graph.evaluateOutput(scene.ctx));
}

TEST(MappedParams, EachKindOfMapGivesTheHandComputedValues) {
    Scene scene;
    const float texel[] = {100 / 255.0f, 50 / 255.0f, 200 / 255.0f, 150 / 255.0f};
    struct Case {
        std::string map;
        std::vector<float> strands;
    } cases[] = {
        // A vertex map of the catalog, x + 2z, through the range 1 to 3.
        {R"({"texture": "weight", "min": 1, "max": 3})", {2.5f, 3.5f, 4.5f, 5.5f}},
        // A texture of the catalog and the same image by path, read at the scalp's UVs.
        {R"({"texture": "painted", "component": "r"})", {texel[0], texel[1], texel[2], texel[3]}},
        {(R"({"texture": ")" + scene.image + R"(", "component": "r"})"),
         {texel[0], texel[1], texel[2], texel[3]}},
        // The colour set's green channel is z; min above max inverts.
        {R"({"colorSet": "tint", "component": "g", "min": 1, "max": 0})",
         {0.75f, 0.75f, 0.25f, 0.25f}},
        {R"({"attribute": "mass", "min": 0, "max": 2})", {2, 4, 6, 8}},
        {R"({"guide": "density"})", {0, 10, 20, 30}},
        // u at the root, through a range that is not a limit.
        {R"({"expression": "u * 4", "min": 0, "max": 0.5})", {0.5f, 1.5f, 0.5f, 1.5f}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.map);
        const auto out = runProbe(scene, R"({"amount": )" + c.map + "}");
        const std::vector<float> got = column(*out, "amount");
        ASSERT_EQ(got.size(), 4u);
        for (std::size_t s = 0; s < 4; ++s)
            EXPECT_NEAR(got[s], c.strands[s], 1e-5f) << s;
    }
}

TEST(MappedParams, PointSourcesVaryAlongStrandsAndStrandSourcesRepeat) {
    Scene scene;
    const auto curl = runProbe(scene, R"({"amount": {"attribute": "curl", "min": 1, "max": 2}})");
    EXPECT_EQ(column(*curl, "amountAt"), (std::vector<float>{1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3}));
    EXPECT_EQ(column(*curl, "amount"), (std::vector<float>{1, 1, 1, 1}));
    const auto points = runProbe(scene, R"({"amount": {"expression": "pointIndex + mass"}})");
    EXPECT_EQ(column(*points, "amountAt"),
              (std::vector<float>{1, 2, 3, 2, 3, 4, 3, 4, 5, 4, 5, 6}));
    const auto mass = runProbe(scene, R"({"amount": {"attribute": "mass"}})");
    EXPECT_EQ(column(*mass, "amountAt"), (std::vector<float>{1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4}));
    // A vector param takes a vector expression; the range applies to each component.
    const auto tinted = runProbe(scene, R"({"tint": {"expression": "[u, v * 2, 0]", "max": 2}})");
    EXPECT_EQ(column(*tinted, "tintY"), (std::vector<float>{1, 1, 3, 3}));
    const auto plainTint = runProbe(scene, R"({"tint": [0, 0.5, 0]})");
    EXPECT_EQ(column(*plainTint, "tintY"), (std::vector<float>{0.5f, 0.5f, 0.5f, 0.5f}));
    // A plain number is the same everywhere.
    const auto plain = runProbe(scene, R"({"amount": 0.25})");
    EXPECT_EQ(column(*plain, "amountAt"), std::vector<float>(12, 0.25f));
}

TEST(MappedParams, WhatCannotBeReadIsAnErrorNamingTheParam) {
    const struct {
        const char* params;
        std::string message;
        bool uvs = true;
    } cases[] = {
        {R"({"amount": {"colorSet": "nope"}})",
         "param 'amount': the scalp has no color set 'nope'"},
        {R"({"amount": {"attribute": "nope"}})",
         "param 'amount': strands have no attribute 'nope'"},
        {R"({"amount": {"guide": "nope"}})",
         "param 'amount': no guide layer 'nope' on the strands (Interpolate writes it; paint it "
         "on the guides)"},
        {R"({"amount": {"expression": "$nope * 2"}})",
         "param 'amount': the expression reads 'nope', which is neither a variable nor a channel "
         "of the strands"},
        {R"({"amount": {"texture": "unsaved"}})",
         "param 'amount': the texture map 'unsaved' has no image file yet (paint it in Groom "
         "Tools > Paint)"},
        {R"({"tint": {"attribute": "mass"}})",
         "param 'tint': a vector takes an expression (a attribute map gives one number)"},
        {R"({"amount": {"texture": "painted"}})",
         "param 'amount': a texture map needs a scalp with UVs", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.params);
        Scene scene(1, c.uvs);
        test::expectMessage<GraphError>([&] { runProbe(scene, c.params); }, c.message);
    }
}

TEST(MappedParams, ResultsFollowTheFrameAndTheGroomsMaps) {
    Scene scene;
    Graph graph =
        probeGraph(R"x({"amount": {"expression": "frame + map(\"weight\")"}})x", "", "", "");
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 0.75f);
    scene.ctx.time = 2;
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 2.75f);
    scene.repaintWeight(4);
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 3.0f);
}

TEST(MappedParams, APaintedMapIsFoundByNameAndKeyedCheaply) {
    const std::shared_ptr<const MapCatalogValue> maps = catalog("head.png");
    const auto found = [&](std::string_view name, std::uint64_t catalogKey) {
        FieldMap map;
        map.name = "before";
        map.sourceKey = 7;
        const ScalpMap* painted = useCatalogMap(map, maps, catalogKey, name);
        EXPECT_EQ(painted, maps->maps.find(name)) << name;
        return map;
    };
    const FieldMap weight = found("weight", 1);
    EXPECT_EQ(weight.kind, FieldMapKind::Vertices);
    EXPECT_EQ(weight.name, "weight");
    EXPECT_EQ(weight.vertexMap, maps->maps.find("weight"));
    EXPECT_EQ(weight.catalog, maps);
    EXPECT_EQ(found("weight", 1).sourceKey, weight.sourceKey);
    EXPECT_NE(found("weight", 2).sourceKey, weight.sourceKey);

    const FieldMap painted = found("painted", 1);
    EXPECT_EQ(painted.kind, FieldMapKind::Texture);
    EXPECT_EQ(painted.name, "head.png");
    EXPECT_EQ(found("painted", 2).sourceKey, painted.sourceKey);  // the image keys it
    EXPECT_NE(found("unsaved", 1).sourceKey, painted.sourceKey);
    EXPECT_EQ(found("unsaved", 1).name, "");

    // A name the catalog doesn't hold (a guide layer, an image path) leaves the map alone.
    for (const char* other : {"density", "head.png", ""}) {
        const FieldMap map = found(other, 1);
        EXPECT_EQ(map.name, "before") << other;
        EXPECT_EQ(map.sourceKey, 7u) << other;
        EXPECT_EQ(map.catalog, nullptr) << other;
    }
    FieldMap none;
    EXPECT_EQ(useCatalogMap(none, nullptr, 1, "weight"), nullptr);
}

TEST(MappedParams, TheFrameEntersTheKeyOnlyWhereTheProgramReadsIt) {
    // Text that names the frame and the time without reading them, and text that reads them.
    const struct {
        const char* expression;
        bool timed;
    } cases[] = {
        {"$mass # neither frame nor time is read here", false},
        {"$mass + frame", true},
        {"$mass * time", true},
        {"$mass * 2 // the time of day", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expression);
        Scene scene;
        Graph graph = probeGraph(
            std::string(R"({"amount": {"expression": ")") + c.expression + R"("}})", "", "", "");
        const std::uint32_t probe = graph.nodeId("probe");
        graph.evaluateOutput(scene.ctx);
        const std::uint64_t key = graph.node(probe).runtime.key;
        scene.ctx.time = 7;
        const std::uint64_t compiles = expressionCacheCompiles();
        graph.evaluateOutput(scene.ctx);
        EXPECT_EQ(graph.node(probe).runtime.key != key, c.timed);
        // A program that reads the frame compiles once for the new frame (for the key, and the run
        // takes it from the cache); one that doesn't is not compiled again.
        EXPECT_EQ(expressionCacheCompiles() - compiles, c.timed ? 1u : 0u);
    }
}

TEST(MappedParams, AnExpressionCompilesOnceForRunsOnTheSameScene) {
    Scene scene;
    Graph graph =
        probeGraph(R"x({"amount": {"expression": "$mass * 3 + map(\"weight\")"}})x", "", "", "");
    const std::vector<float> amounts = column(graph, scene);
    const std::uint64_t compiles = expressionCacheCompiles();
    // Another setting of the node runs it again on the same scene: the program is the cached one.
    for (const char* mode : {"hard", "soft", "hard"}) {
        graph.operatorOf(graph.nodeId("probe")).paramSet.set("mode", std::string(mode));
        EXPECT_EQ(column(graph, scene), amounts);
    }
    EXPECT_EQ(expressionCacheCompiles(), compiles);
    // Maps under a new key compile it anew, with the map as it is now.
    scene.repaintWeight(9);
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 4.0f);
    EXPECT_EQ(expressionCacheCompiles(), compiles + 1);
}

TEST(MappedParams, AGuideLayerBeforeStrandsReadsTheNearestGuide) {
    ParamSet params;
    params.declare({test::param("amount", 0.0, false, "(mappable)")});
    params.set("amount", MapReference{MapSource::Guide, "layer", "", -1, 0.0, 2.0});

    auto scene = std::make_shared<FieldScene>();
    scene->scalp = squareScalp();
    EvalContext ctx;
    ctx.scene = scene;
    const auto expectFailure = [&](const std::string& message) {
        test::expectMessage<GraphError>([&] { fieldSamplerAtRoots(params, ctx, "amount"); },
                                        message);
    };
    expectFailure(
        "param 'amount': a guide map here needs guides: connect them to this node's guides input");
    auto guides = std::make_shared<GuideSet>();
    scene->guides = guides;
    expectFailure(
        "param 'amount': no strands yet, so 'layer' must be a layer painted on the guides, with "
        "the guides connected to this node");
    Guide near, far, bare;
    near.root = {0, 0.1f, 0.1f};
    near.attributes["layer"] = 0.25f;
    far.root = {1, 0.5f, 0.25f};
    far.pointAttributes["layer"] = {0.75f, 0.0f};
    guides->guides = {bare};
    expectFailure("param 'amount': no guide carries the layer 'layer'");
    guides->guides = {near, far, bare};
    const FieldSampler sampler = fieldSamplerAtRoots(params, ctx, "amount");
    ASSERT_TRUE(sampler.isMapped());
    EXPECT_FLOAT_EQ(sampler.at({{0, 0.2f, 0.2f}, {0.2f, 0, 0.2f}}), 0.5f);
    EXPECT_FLOAT_EQ(sampler.at({{1, 0.5f, 0.25f}, {0.8f, 0, 0.8f}}), 1.5f);
}

// What each kind of control value reads as is ControlValue.ReadsEveryKindOfNumberAHostMaySet's;
// here, that the run's context reaches the environment.
TEST(MappedParams, TheContextGivesExpressionsTheirFrameTimeAndControls) {
    SceneInputs inputs;
    inputs["control:gain"] = {uniform(0.25), 1};
    EvalContext ctx;
    ctx.time = 48.0;
    ctx.sceneInputs = &inputs;
    const ExpressionEnvironment env =
        expressionEnvironment(ctx, R"({"gain": {"value": 2, "control": "gain"},
                 "other": {"value": 5, "control": "missing"}})");
    EXPECT_EQ(env.frame, 48.0);
    EXPECT_EQ(env.time, 2.0);
    EXPECT_FALSE(env.resolveMap);
    EXPECT_EQ(env.variable("gain")->value.x, 0.25f);
    EXPECT_EQ(env.variable("other")->value.x, 5.0f);  // no such control: the value holds
}

// Node "f" (or `name`) of `type` with `params`, as a graph document lists it before the probe.
std::string node(const char* type, const std::string& params, const char* name = "f") {
    return std::string(R"({"name": ")") + name + R"(", "type": ")" + type + R"(", "params": )" +
           params + "},";
}

// A connection from node "f" (its output `output`, if named) into the probe's `input`.
std::string fToProbe(const char* input, const std::string& output = "") {
    return std::string(R"(, {"from": "f", "to": "probe", "input": ")") + input + "\"" + output +
           "}";
}

TEST(FieldNodes, EachNodeFeedsAParamWithTheHandComputedValues) {
    Scene scene;
    scene.inputs["control:gain"] = {uniform(0.7), 9};
    // Two expression nodes for the fields that feed others: "e" the mass, "d" the density.
    const std::string e = node("Expression", R"({"expression": "mass"})", "e");
    const std::string d = node("Expression", R"({"expression": "density"})", "d");
    const std::string eToA = R"(, {"from": "e", "to": "f", "input": "a"})";
    const struct {
        std::string nodes;
        std::vector<float> strands;
        std::string feeds = "";
        std::string output = "";
    } cases[] = {
        {node("Map", R"({"name": "weight", "min": 1, "max": 3})"), {2.5f, 3.5f, 4.5f, 5.5f}},
        {node("Map", R"({"name": "painted"})"),
         {100 / 255.0f, 50 / 255.0f, 200 / 255.0f, 150 / 255.0f},
         "",
         R"(, "output": "r")"},
        {node("Map", R"({"name": "density", "min": 0, "max": 0.1})"), {0, 1, 2, 3}},
        {node("Expression", R"({"expression": "mass", "max": 2})"), {2, 4, 6, 8}},
        {node("Control", R"({"name": "gain"})"), {0.7f, 0.7f, 0.7f, 0.7f}},
        {node("Control", R"({"name": "unset", "default": 0.3})"), {0.3f, 0.3f, 0.3f, 0.3f}},
        // Remap with its input range flipped: mass 1..4 read from 4 down to 1, through a straight
        // curve, into 10..20.
        {e + node("FieldRemap", R"({"inMin": 4, "inMax": 1, "outMin": 10, "outMax": 20,
                                    "curve": {"keys": [[0, 0], [1, 1]], "linear": true}})"),
         {20, 20 - 10 / 3.0f, 20 - 20 / 3.0f, 10},
         R"(, {"from": "e", "to": "f", "input": "field"})"},
        // Combine: a field plus the b param, and mixed with a field on b.
        {e + d + node("FieldCombine", R"({"mode": "add", "b": 0.5})"),
         {1.5f, 2.5f, 3.5f, 4.5f},
         eToA},
        {e + d + node("FieldCombine", R"({"mode": "mix", "mix": 0.25})"),
         {1 + (0 - 1) * 0.25f, 2 + (10 - 2) * 0.25f, 3 + (20 - 3) * 0.25f, 4 + (30 - 4) * 0.25f},
         eToA + R"(, {"from": "d", "to": "f", "input": "b"})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nodes);
        const auto out = runProbe(scene, "{}", c.nodes, c.feeds + fToProbe("amount", c.output));
        const std::vector<float> got = column(*out, "amount");
        ASSERT_EQ(got.size(), 4u);
        for (std::size_t s = 0; s < 4; ++s)
            EXPECT_NEAR(got[s], c.strands[s], 1e-5f) << s;
    }

    // Noise at the roots: lattice noise of the root times the frequency plus the offset.
    const auto noisy = runProbe(
        scene, "{}",
        node("FieldNoise",
             R"({"frequency": 3, "octaves": 2, "offset": 0.5, "seed": 4, "min": 1, "max": 3})"),
        fToProbe("amount"));
    const Vec3f roots[] = {
        {0.25f, 0, 0.25f}, {0.75f, 0, 0.25f}, {0.25f, 0, 0.75f}, {0.75f, 0, 0.75f}};
    for (std::size_t s = 0; s < 4; ++s) {
        Fractal fractal;
        fractal.octaves = 2;
        const float n = fractalNoise(roots[s] * 3.0f + Vec3f{0.5f, 0.5f, 0.5f}, fractal,
                                     hashCombine(kNoiseSeed, 4));
        EXPECT_NEAR(column(*noisy, "amount")[s], 1.0f + 2.0f * 0.5f * (n + 1.0f), 1e-5f);
    }
}

TEST(FieldNodes, CurveValueAndOneValueExpressionsDriveTheirParams) {
    Scene scene;
    const struct {
        const char* curve;
        float at;  // the probe's ramp at 0.25
    } curves[] = {
        {R"({"interpolation": "linear", "min": 2, "max": 4})", 2.5f},
        // Ease: 0.25 on the keys [0, 0], [1, 1] is (3 - 0.5) * 0.0625.
        {R"({"interpolation": "ease"})", 0.15625f},
        {R"({"interpolation": "ease", "flip": true})", 0.84375f},
        {R"({"curve": {"keys": []}, "min": 2, "max": 5})", 5.0f},
    };
    for (const auto& c : curves) {
        SCOPED_TRACE(c.curve);
        const auto out = runProbe(scene, "{}", node("Curve", c.curve), fToProbe("profile"));
        EXPECT_NEAR(column(*out, "profile")[0], c.at, 1e-6f);
    }
    // A text Value picks a choice by name.
    const auto hard = runProbe(scene, "{}", node("Value", R"({"kind": "text", "text": "hard"})"),
                               fToProbe("mode"));
    EXPECT_EQ(column(*hard, "hard")[0], 1.0f);
    // One value of the frame.
    scene.ctx.time = 12;
    const auto framed =
        runProbe(scene, "{}",
                 node("Expression",
                      R"({"output": "value", "expression": "frame / 24", "min": 1, "max": 3})"),
                 fToProbe("amount"));
    EXPECT_FLOAT_EQ(column(*framed, "amount")[0], 2.0f);
}

TEST(FieldNodes, ControlBindingsWriteTheHostsValuesIntoTheirParams) {
    Scene scene;
    Graph graph =
        probeGraph(R"({"amount": 0.1})", "", "",
                   R"(, "paramControls": {"amount": "gain", "tint": ["tx", "ty", "tz"]})");
    // Unset controls leave the params as they are.
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 0.1f);
    scene.inputs["control:gain"] = {uniform(0.7), 1};
    scene.inputs["control:tx"] = {uniform(1.0), 1};
    scene.inputs["control:ty"] = {uniform(2.0), 1};
    scene.inputs["control:tz"] = {uniform(3.0), 1};
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 0.7f);
    EXPECT_FLOAT_EQ(column(graph, scene, "tintY")[0], 2.0f);
    scene.inputs["control:gain"] = {uniform(0.9), 2};
    EXPECT_FLOAT_EQ(column(graph, scene)[0], 0.9f);
}

TEST(FieldNodes, FaultsReadInTheNodesWords) {
    Scene scene;
    const struct {
        std::string node;
        std::string message;
        const char* input = "amount";
    } cases[] = {
        {node("Map", "{}"), "Map: name the map (Groom Tools > Paint)"},
        {node("Map", R"({"name": "zz"})"),
         "Map: no map or image named 'zz' (Groom Tools > Paint > New... makes a map)"},
        {node("Map", R"({"name": "unsaved"})"),
         "Map 'unsaved': the texture map has no image file yet (paint it in Groom Tools > Paint)"},
        {node("Expression", R"({"expression": " "})"), "Expression: the expression is empty"},
        {node("Expression", R"({"output": "value", "expression": "rand"})"),
         "Expression: set to give one value, it reads only frame, time and its own variables (no "
         "strand, point, channel, map or rand: those are per strand; set it to give a field)"},
        // A keyed slider changes over time; a param that sets where strands go can't take it.
        {node("Control", "{}"),
         "probe param 'spacing' cannot take a value that changes over time (an expression of the "
         "frame, a keyed value): it sets how many strands, points or cards there are, or where "
         "they go, which must stay the same on every frame",
         "spacing"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.node);
        test::expectMessage<GraphError>([&] { runProbe(scene, "{}", c.node, fToProbe(c.input)); },
                                        c.message);
    }
}

TEST(FieldNodes, EveryFieldKindGivesTheSameBitsOnOneAndTwoThreads) {
    Scene scene(2000);
    const char* maps[] = {
        R"({"amount": {"texture": "painted"}})", R"({"amount": {"texture": "weight"}})",
        R"({"amount": {"colorSet": "tint"}})",   R"({"amount": {"attribute": "curl"}})",
        R"({"amount": {"guide": "density"}})",   R"({"amount": {"expression": "rand * t"}})",
    };
    const auto bits = [](const StrandSet& set) {
        std::vector<float> all = column(set, "amountAt");
        std::vector<std::uint32_t> out(all.size());
        std::memcpy(out.data(), all.data(), all.size() * sizeof(float));
        return out;
    };
    const auto both = [&](const std::function<std::shared_ptr<const StrandSet>()>& run) {
        std::shared_ptr<const StrandSet> one, two;
        runWithThreads(1, [&] { one = run(); });
        runWithThreads(2, [&] { two = run(); });
        EXPECT_EQ(bits(*one), bits(*two));
    };
    for (const char* map : maps) {
        SCOPED_TRACE(map);
        both([&] { return runProbe(scene, map); });
    }
    for (const std::string& fed :
         {node("FieldNoise", R"({"octaves": 3})"), node("FieldRemap", "{}"),
          node("FieldCombine", R"({"mode": "max", "b": 0.5})"),
          node("Map", R"({"name": "painted"})")}) {
        SCOPED_TRACE(fed);
        both([&] { return runProbe(scene, "{}", fed, fToProbe("amount")); });
    }
}

}  // namespace
}  // namespace velmorin
