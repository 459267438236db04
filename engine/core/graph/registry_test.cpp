#include "graph/registry.h"

#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "graph/errors.h"
#include "graph/test/declarations.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

// A small shape node: strands in, strands out, a few params of the usual sorts.
class TaperOp final : public Operator {
  public:
    std::string type() const override { return "Taper"; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands, false, ValueKind::Any},
                {"amount", PortType::Value, true, ValueKind::Number}};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& in) const override {
        return in.at(0);
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec amount = test::param("amount", 0.5, true, "How thin the tip gets (mappable)");
        amount.min = 0.0;
        amount.max = 1.0;
        ParamSpec mode = test::param("mode", std::string("linear"));
        mode.choices = {"linear", "smooth"};
        mode.inputRule = InputRule::Never;
        ParamSpec channel = test::param("widthChannel", std::string("taperWidth"));
        channel.channel = ChannelRole::Writes;
        channel.since = 2;
        channel.formerDefault = std::string("");
        channel.showWhen = ShowWhen{"mode", {std::string("smooth")}};
        return {amount, mode, channel};
    }
    std::string category() const override { return "shape"; }
    int version() const override { return 2; }
};

// A field node that names its own category and has several outputs.
class SplitFieldOp final : public Operator {
  public:
    std::string type() const override { return "SplitField"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"r", PortType::Field, false, ValueKind::Any}; }
    std::vector<PortSpec> outputs() const override {
        return {output(), {"count", PortType::Value, false, ValueKind::Integer}};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
    std::string category() const override { return "field"; }
};

template <class Op>
OperatorFactory factoryOf() {
    return [] { return std::make_unique<Op>(); };
}

std::vector<std::string> keysOf(const Json& object) {
    std::vector<std::string> keys;
    for (const auto& item : object.items())
        keys.push_back(item.key());
    return keys;
}

TEST(OperatorRegistry, MenuOrderListsEveryTypeOnceWithImportCurvesAfterInputAndCardsLast) {
    const auto& order = menuOrder();
    EXPECT_EQ(order.size(), 69u);
    EXPECT_EQ(std::set<std::string_view>(order.begin(), order.end()).size(), order.size());
    const auto at = [&](std::string_view type) {
        return std::find(order.begin(), order.end(), type) - order.begin();
    };
    EXPECT_EQ(order.front(), "Scalp");
    EXPECT_EQ(at("ImportCurves"), at("Input") + 1);
    EXPECT_EQ(at("Scatter"), at("ImportCurves") + 1);
    EXPECT_EQ(order.back(), "Cards");
    EXPECT_LT(at("Subdivide"), at("Bend"));
    EXPECT_LT(at("Curve"), at("Value"));
    EXPECT_EQ(at("Script") + 1, at("Cards"));
}

TEST(OperatorRegistry, LabelsSplitCamelCaseButLeaveRunsOfCapitals) {
    for (const auto& [type, label] : std::vector<std::pair<std::string, std::string>>{
             {"ToGuides", "To Guides"},
             {"BlendNeighbors", "Blend Neighbors"},
             {"HTTPServer", "HTTPServer"},
             {"UVTransfer", "UVTransfer"},
             {"MeshUV", "Mesh UV"},
             {"Curl", "Curl"},
             {"", ""},
         }) {
        EXPECT_EQ(labelFromType(type), label);
    }

    OperatorRegistry registry;
    registry.registerType("ToGuides", factoryOf<TaperOp>(), {});
    OperatorInfo named;
    named.label = "Taper Tips";
    registry.registerType("Taper", factoryOf<TaperOp>(), named);
    EXPECT_EQ(registry.label("ToGuides"), "To Guides");
    EXPECT_EQ(registry.label("Taper"), "Taper Tips");
}

TEST(OperatorRegistry, CreateMakesDeclaredOperatorsAndRefusesUnknownTypes) {
    OperatorRegistry registry;
    registry.registerType("Taper", factoryOf<TaperOp>(), {});
    EXPECT_TRUE(registry.contains("Taper"));
    EXPECT_FALSE(registry.contains("taper"));
    EXPECT_EQ(registry.info("Clump"), nullptr);

    const std::unique_ptr<Operator> op = registry.create("Taper");
    EXPECT_EQ(op->type(), "Taper");
    EXPECT_EQ(op->paramSet.getString("mode", "?"), "linear");
    EXPECT_EQ(op->paramSet.getFloat("affect", -1), 1.0);

    // A factory's own failure reaches the caller as it was.
    registry.registerType("Broken",
                          []() -> std::unique_ptr<Operator> {
                              throw GraphError("Broken: the plug-in that makes it is missing");
                          },
                          {});
    test::expectMessage<GraphError>([&] { registry.create("Tapper"); },
                                    "unknown operator type 'Tapper'");
    test::expectMessage<GraphError>([&] { registry.create("Broken"); },
                                    "Broken: the plug-in that makes it is missing");
}

TEST(OperatorRegistry, RegistrationMistakesAreRefused) {
    OperatorRegistry registry;
    registry.registerType("Taper", factoryOf<TaperOp>(), {});
    EXPECT_THROW(registry.registerType("Taper", factoryOf<TaperOp>(), {}), std::invalid_argument);
    EXPECT_THROW(registry.registerType("Empty", nullptr, {}), std::invalid_argument);
    EXPECT_THROW(registry.registerUpgrade("Nothing", {1, [](Json&) {}}), std::invalid_argument);
    EXPECT_EQ(registry.types(), std::vector<std::string>{"Taper"});
}

TEST(OperatorRegistry, TypesAreInNameOrderAndUpgradesInVersionOrder) {
    OperatorRegistry registry;
    registry.registerType("Taper", factoryOf<TaperOp>(), {});
    registry.registerType("SplitField", factoryOf<SplitFieldOp>(), {});
    registry.registerType("Bend", factoryOf<TaperOp>(), {});
    EXPECT_EQ(registry.types(), (std::vector<std::string>{"Bend", "SplitField", "Taper"}));

    registry.registerUpgrade("Taper", {2, [](Json& node) { node["params"]["b"] = 2; }});
    registry.registerUpgrade("Taper", {1, [](Json& node) { node["params"]["a"] = 1; }});
    const std::vector<UpgradeStep> steps = registry.upgrades("Taper");
    ASSERT_EQ(steps.size(), 2u);
    EXPECT_EQ(steps[0].fromVersion, 1);
    EXPECT_EQ(steps[1].fromVersion, 2);
    Json node = {{"params", Json::object()}};
    for (const UpgradeStep& step : steps)
        step.apply(node);
    EXPECT_EQ(keysOf(node["params"]), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(registry.upgrades("Bend").empty());
}

TEST(SchemaJson, WritesEveryKeyInOrderForEachTypeInNameOrder) {
    OperatorRegistry registry;
    OperatorInfo info;
    info.category = "shape";
    info.description = "Thins strands toward the tip.";
    info.keywords = "thin tip width";
    registry.registerType("Taper", factoryOf<TaperOp>(), info);
    registry.registerType("Clump", factoryOf<SplitFieldOp>(), {});
    const Json schema = registry.schemaJson();
    ASSERT_EQ(schema.size(), 2u);
    EXPECT_EQ(schema[0]["type"], "Clump");

    // Every key in its order, as the editor reads them; params follow below.
    Json taper = schema[1];
    const Json params = taper["params"];
    taper.erase("params");
    EXPECT_EQ(taper.dump(),
              R"({"type":"Taper","fixedChannels":[{"name":"taperWidth","role":"writes",)"
              R"("optional":false}],"version":2,"category":"shape","categoryTitle":"Shape",)"
              // "order" 69: not in the menu list, so after every listed type.
              R"("categoryOrder":2,"order":69,"label":"Taper","keywords":"thin tip width",)"
              R"("hidden":false,"description":"Thins strands toward the tip.",)"
              R"("inputs":[{"name":"strands","type":"Strands","optional":false},)"
              R"({"name":"amount","type":"Value","optional":true,"valueKind":"number"}],)"
              R"("output":{"name":"out","type":"Strands"},)"
              R"("outputs":[{"name":"out","type":"Strands"}]})");

    ASSERT_EQ(params.size(), 4u);
    EXPECT_EQ(params[0].dump(),
              R"({"name":"amount","type":"float","default":0.5,)"
              R"j("description":"How thin the tip gets (mappable)","mappable":true,)j"
              R"("animatable":true,"min":0.0,"max":1.0,"port":"Field","decimals":3})");
    EXPECT_EQ(params[1].dump(), R"({"name":"mode","type":"string","default":"linear",)"
                                R"("choices":["linear","smooth"]})");
    EXPECT_EQ(params[2].dump(),
              R"({"name":"widthChannel","type":"string","default":"taperWidth",)"
              R"("showWhen":{"param":"mode","values":["smooth"]},"channel":"writes",)"
              R"("port":"Value","valueKind":"text","since":2,"formerDefault":{"value":""}})");
    EXPECT_EQ(params[3]["name"], "affect");
    EXPECT_EQ(params[3]["group"], "Common");
    EXPECT_EQ(params[3]["unit"], "fraction");
}

TEST(SchemaJson, CategoryFallsBackToTheInstanceAndOrderToTheMenuList) {
    OperatorRegistry registry;
    registry.registerType("Clump", factoryOf<SplitFieldOp>(), {});
    OperatorInfo odd;
    odd.category = "experimental";
    odd.hidden = true;
    registry.registerType("FieldRemap", factoryOf<SplitFieldOp>(), odd);
    const Json schema = registry.schemaJson();

    const Json& clump = schema[0];
    EXPECT_EQ(clump["category"], "field");  // from the instance, the info had none
    EXPECT_EQ(clump["categoryTitle"], "Fields & Curves");
    EXPECT_EQ(clump["categoryOrder"], 10);
    EXPECT_EQ(clump["order"], 28);
    EXPECT_EQ(clump["inputs"], Json::array());
    EXPECT_EQ(
        clump["outputs"].dump(),
        R"([{"name":"r","type":"Field"},{"name":"count","type":"Value","valueKind":"integer"}])");
    EXPECT_EQ(clump["params"], Json::array());  // no strands: no affect

    const Json& remap = schema[1];
    EXPECT_EQ(remap["category"], "experimental");
    EXPECT_EQ(remap["categoryTitle"], "");
    EXPECT_EQ(remap["categoryOrder"], 13);
    EXPECT_EQ(remap["hidden"], true);
    EXPECT_EQ(remap["order"], 55);
}

TEST(SchemaJson, ANodeThatDeclaresAffectShowsItOnce) {
    class OwnAffectOp final : public Operator {
      public:
        std::string type() const override { return "OwnAffect"; }
        std::vector<PortSpec> inputs() const override {
            return {{"strands", PortType::Strands, false, ValueKind::Any}};
        }
        Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }
        std::vector<ParamSpec> params() const override { return {test::param("affect", 0.25)}; }
        std::string category() const override { return "look"; }
    };
    OperatorRegistry registry;
    registry.registerType("OwnAffect", [] { return std::make_unique<OwnAffectOp>(); }, {});
    const Json params = registry.schemaJson()[0]["params"];
    ASSERT_EQ(params.size(), 1u);
    EXPECT_EQ(params[0]["default"], 0.25);
    EXPECT_FALSE(params[0].contains("group"));
}

TEST(OperatorRegistry, TheInstanceIsOneObjectAndEveryBuiltInTypeIsInTheMenu) {
    OperatorRegistry* seen[4] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&seen, t] { seen[t] = &OperatorRegistry::instance(); });
    }
    for (auto& thread : threads)
        thread.join();
    for (OperatorRegistry* registry : seen)
        EXPECT_EQ(registry, seen[0]);
    // Other tests add types of their own to the instance, so the built-in set is checked on a
    // registry of its own.
    OperatorRegistry builtIn;
    registerBuiltinOperators(builtIn);
    const auto& order = menuOrder();
    for (const std::string& type : builtIn.types()) {
        EXPECT_NE(std::find(order.begin(), order.end(), type), order.end()) << type;
    }
}

}  // namespace
}  // namespace velmorin
