#include "graph/operator.h"

#include <gtest/gtest.h>

#include "graph/field_value.h"
#include "graph/test/declarations.h"

namespace velmorin {
namespace {

// Only what every operator must say; everything else keeps its default.
class PlainOp final : public Operator {
  public:
    std::string type() const override { return "Plain"; }
    std::vector<PortSpec> inputs() const override {
        return {test::strandsPort("strands"), test::port("guides", PortType::Guides, true)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& in) const override {
        return in.at(0);
    }
    std::string category() const override { return "shape"; }
};

// A node whose ports and params a test sets as data.
class ShapedOp final : public Operator {
  public:
    std::string typeName = "Shaped";
    std::vector<PortSpec> ports;
    PortSpec out;
    std::vector<ParamSpec> own;
    std::vector<ParamSpec> perInstance;

    std::string type() const override { return typeName; }
    std::vector<PortSpec> inputs() const override { return ports; }
    PortSpec output() const override { return out; }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
    std::vector<ParamSpec> params() const override { return own; }
    std::vector<ParamSpec> instanceParams() const override { return perInstance; }
    std::string category() const override { return "look"; }
};

using test::port;

ParamSpec floatSpec(std::string name, double value) {
    return test::param(std::move(name), value);
}

ParamSpec channelSpec(std::string name, std::string channel, ChannelRole role) {
    ParamSpec spec = test::param(std::move(name), std::move(channel));
    spec.channel = role;
    return spec;
}

std::vector<std::string> namesOf(const std::vector<ParamSpec>& specs) {
    std::vector<std::string> names;
    for (const ParamSpec& spec : specs)
        names.push_back(spec.name);
    return names;
}

TEST(Operator, DefaultsAreThoseOfAPlainOneOutputNode) {
    PlainOp op;
    EXPECT_EQ(op.output().name, "out");
    EXPECT_EQ(op.output().type, PortType::Strands);
    ASSERT_EQ(op.outputs().size(), 1u);
    EXPECT_EQ(op.outputs()[0].name, "out");
    EXPECT_TRUE(op.carriesInput(0));
    EXPECT_FALSE(op.carriesInput(1));
    EXPECT_TRUE(op.inputActive(1));
    EXPECT_TRUE(op.activeThrough(0, {}));

    const EvalContext ctx;
    const SceneInput scalp{Value(), 0xABCDu};
    EXPECT_EQ(op.sceneInputKey("scalp", scalp), 0xABCDu);

    const Value field(std::make_shared<ConstantFieldValue>(2.0f));
    const std::vector<Value> results = op.evaluateAll(ctx, {field, Value()});
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0], field);
    Value out;
    EXPECT_FALSE(op.evaluateIncremental(ctx, {field}, IncrementalInputs{}, &out, nullptr));
    EXPECT_TRUE(out.empty());
}

TEST(SchemaParams, ListsOwnThenInstanceThenAffectDroppingLaterDuplicates) {
    ShapedOp op;
    op.ports = {port("strands", PortType::Strands)};
    op.own = {floatSpec("length", 1), floatSpec("seed", 0)};
    op.perInstance = {floatSpec("extra", 2), floatSpec("length", 5)};
    const std::vector<ParamSpec> all = schemaParams(op);
    EXPECT_EQ(namesOf(all), (std::vector<std::string>{"length", "seed", "extra", "affect"}));
    EXPECT_EQ(all[0].defaultValue, ParamValue(1.0));
}

TEST(SchemaParams, AffectIsTheCommonFractionUnlessTheNodeDeclaresItsOwn) {
    ShapedOp op;
    op.ports = {port("strands", PortType::Strands)};
    const std::vector<ParamSpec> common = schemaParams(op);
    ASSERT_EQ(common.size(), 1u);
    const ParamSpec& affect = common[0];
    EXPECT_EQ(affect.name, "affect");
    EXPECT_EQ(affect.defaultValue, ParamValue(1.0));
    EXPECT_EQ(affect.min, 0.0);
    EXPECT_EQ(affect.max, 1.0);
    EXPECT_EQ(affect.unit, "fraction");
    EXPECT_EQ(affect.group, "Common");
    EXPECT_TRUE(affect.animatable);
    EXPECT_TRUE(affect.mappable());
    EXPECT_EQ(affect.description,
              "Where the node works, 0-1 per strand (mappable, per point): 1 its whole result, 0 "
              "the strands as they came in, between a mix of the two. Map it to a Group node's "
              "group (an attribute map of the group's name), a painted map or an expression. IDs "
              "(clumpId...) switch at 0.5. A node that adds, removes or resamples strands leaves "
              "it alone");

    op.own = {floatSpec("affect", 0.5)};
    const std::vector<ParamSpec> own = schemaParams(op);
    ASSERT_EQ(own.size(), 1u);
    EXPECT_EQ(own[0].defaultValue, ParamValue(0.5));
}

TEST(AffectApplies, NeedsAPointwiseResultOfTheFirstInputsKind) {
    ShapedOp op;
    op.ports = {port("strands", PortType::Strands)};
    EXPECT_TRUE(affectApplies(op));

    op.ports = {port("curves", PortType::Curves)};
    op.out = port("out", PortType::Curves);
    EXPECT_TRUE(affectApplies(op));

    // Output kind other than the first input's.
    op.ports = {port("strands", PortType::Strands)};
    op.out = port("out", PortType::Guides);
    EXPECT_FALSE(affectApplies(op));

    // Strands only as a later input, so the output cannot match the first.
    op.ports = {port("scalp", PortType::Mesh), port("strands", PortType::Strands)};
    op.out = port("out", PortType::Strands);
    EXPECT_FALSE(affectApplies(op));

    // No strands at all: a field node.
    op.ports = {port("a", PortType::Field)};
    op.out = port("field", PortType::Field);
    EXPECT_FALSE(affectApplies(op));
    op.ports = {};
    EXPECT_FALSE(affectApplies(op));

    op.ports = {port("strands", PortType::Strands)};
    op.out = port("out", PortType::Strands);
    for (const char* type :
         {"Output", "Resample", "Cull", "Merge", "Switch", "Blend", "Mirror", "Cards", "StrandMesh",
          "Instance", "Scales", "Split", "Interpolate", "Compound", "Input", "Group"}) {
        op.typeName = type;
        EXPECT_FALSE(affectApplies(op)) << type;
        EXPECT_TRUE(schemaParams(op).empty()) << type;
    }
    op.typeName = "Clump";
    EXPECT_TRUE(affectApplies(op));
}

TEST(Operator, FixedChannelsAreTheWrittenChannelsByTheirCurrentNames) {
    ShapedOp op;
    op.ports = {port("strands", PortType::Strands)};
    ParamSpec optional = channelSpec("regionChannel", "region", ChannelRole::Writes);
    optional.channelOptional = true;
    op.own = {channelSpec("idChannel", "clumpId", ChannelRole::Writes),
              channelSpec("_preview", "_preview", ChannelRole::Writes),
              channelSpec("source", "tubeU", ChannelRole::Reads), optional,
              channelSpec("unnamed", "", ChannelRole::Writes)};
    EXPECT_EQ(op.fixedChannels(), (std::vector<ChannelUse>{{"clumpId", ChannelRole::Writes, false},
                                                           {"region", ChannelRole::Writes, true}}));

    op.declareParams();
    op.paramSet.readLog = std::make_shared<ParamReadLog>();
    op.paramSet.set("idChannel", std::string("bigClumps"));
    EXPECT_EQ(op.fixedChannels().front().name, "bigClumps");
    EXPECT_TRUE(op.paramSet.readLog->names().empty());  // asking is not a read of a run
}

TEST(Operator, DeclareParamsMakesTheFullListReadable) {
    ShapedOp op;
    op.ports = {port("strands", PortType::Strands)};
    op.own = {floatSpec("length", 1)};
    op.declareParams();
    EXPECT_TRUE(op.paramSet.has("length"));
    EXPECT_EQ(op.paramSet.getFloat("affect", -1), 1.0);

    // Params that depend on the instance are declared again when they change; set values stay.
    op.paramSet.set("length", 3.0);
    op.perInstance = {floatSpec("exposed", 4)};
    op.declareParams();
    EXPECT_EQ(op.paramSet.getFloat("exposed", -1), 4.0);
    EXPECT_EQ(op.paramSet.getFloat("length", -1), 3.0);
}

}  // namespace
}  // namespace velmorin
