// The operator schema JSON of a registry about the size of the full system: what the node editor
// and the node library ask for when they open. About 60 types made from a handful of typical
// operator shapes (a shape node, a source, a field node, a node of several outputs).
#include <benchmark/benchmark.h>

#include "graph/registry.h"
#include "graph/test/test_operators.h"

namespace {

using namespace velmorin;
using test::param;
using test::port;

ParamSpec floatParam(std::string name, double value, std::string description) {
    return param(std::move(name), value, true, std::move(description));
}

// Every type here is made under the name it is registered by; the schema never runs one.
class NamedOp : public Operator {
  public:
    explicit NamedOp(std::string type) : type_(std::move(type)) {}
    std::string type() const override { return type_; }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override { return {}; }

  private:
    std::string type_;
};

// Strands in, strands out, a dozen params of every kind: the bulk of the menu looks like this.
class ShapeOp final : public NamedOp {
  public:
    using NamedOp::NamedOp;
    std::vector<PortSpec> inputs() const override {
        return {port("strands", PortType::Strands), port("scalp", PortType::Mesh, true)};
    }
    std::vector<ParamSpec> params() const override {
        std::vector<ParamSpec> specs;
        ParamSpec amount = floatParam("amount", 0.5, "How strongly it acts (mappable, per point)");
        amount.min = 0.0;
        amount.max = 1.0;
        amount.unit = "fraction";
        specs.push_back(amount);
        ParamSpec angle = floatParam("angle", 30.0, "Turn at the tip");
        angle.unit = "angle";
        angle.softMin = -180.0;
        angle.softMax = 180.0;
        specs.push_back(angle);
        specs.push_back(floatParam("frequency", 4.0, "Waves per unit length (mappable)"));
        ParamSpec mode = param("mode", std::string("smooth"), false, "How it bends");
        mode.choices = {"smooth", "sharp", "random", "follow"};
        specs.push_back(mode);
        ParamSpec profile = param("profile", Ramp{{{0, 0, 0}, {0.5f, 1, 0}, {1, 0.25f, 0}}, false},
                                  false, "Strength from root to tip");
        profile.showWhen = ShowWhen{"mode", {std::string("smooth"), std::string("follow")}};
        specs.push_back(profile);
        ParamSpec axis = param("axis", Vec3f{0, 1, 0}, false, "The direction it bends toward");
        axis.worldDirection = true;
        specs.push_back(axis);
        ParamSpec seed = param("seed", std::int64_t{1}, false, "Random seed");
        seed.min = 0.0;
        specs.push_back(seed);
        ParamSpec channel = param("idChannel", std::string("bendId"), false,
                                  "The channel that gets each strand's bend id");
        channel.channel = ChannelRole::Writes;
        channel.advanced = true;
        specs.push_back(channel);
        ParamSpec lock = param("keepRoots", true, false, "Leave the first point where it is");
        lock.since = 2;
        lock.formerDefault = false;
        specs.push_back(lock);
        return specs;
    }
    std::string category() const override { return "shape"; }
    int version() const override { return 2; }
};

// A scalp in, strands out: makes strands, so affect does not apply.
class SourceOp final : public NamedOp {
  public:
    using NamedOp::NamedOp;
    std::vector<PortSpec> inputs() const override { return {port("scalp", PortType::Mesh)}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec count = param("count", std::int64_t{10000}, false, "How many strands");
        count.min = 0.0;
        count.softMax = 1000000.0;
        ParamSpec density = floatParam("density", 1.0, "Where strands grow (mappable)");
        density.min = 0.0;
        return {count, density, param("seed", std::int64_t{0}, false, "Random seed")};
    }
    std::vector<std::string> sceneInputs() const override { return {"scalp"}; }
    std::string category() const override { return "source"; }
};

// A field node: no strands, one field out.
class FieldOp final : public NamedOp {
  public:
    using NamedOp::NamedOp;
    std::vector<PortSpec> inputs() const override { return {port("a", PortType::Field, true)}; }
    PortSpec output() const override { return port("field", PortType::Field); }
    std::vector<ParamSpec> params() const override {
        ParamSpec min = floatParam("min", 0.0, "Output where the input is 0");
        ParamSpec max = floatParam("max", 1.0, "Output where the input is 1");
        ParamSpec mix = floatParam("mix", 0.5, "How much of b");
        mix.unit = "fraction";
        return {min, max, mix};
    }
    std::string category() const override { return "field"; }
};

// Several outputs of several kinds.
class SplitOp final : public NamedOp {
  public:
    using NamedOp::NamedOp;
    std::vector<PortSpec> inputs() const override { return {port("strands", PortType::Strands)}; }
    std::vector<PortSpec> outputs() const override {
        return {output(), port("rest", PortType::Strands),
                port("count", PortType::Value, false, ValueKind::Integer)};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec group = param("group", std::string(""), false, "The group that goes to out");
        return {group};
    }
    std::string category() const override { return "utility"; }
};

OperatorRegistry& benchRegistry() {
    static OperatorRegistry registry = [] {
        OperatorRegistry filled;
        const auto& order = menuOrder();
        for (std::size_t i = 0; i < 60; ++i) {
            const std::string type(order[i]);
            OperatorInfo info;
            info.description = "One line about " + type + ".";
            info.keywords = "hair strand groom";
            OperatorFactory factory;
            switch (i % 6) {
                case 0:
                    factory = [type] { return std::make_unique<SourceOp>(type); };
                    break;
                case 1:
                    factory = [type] { return std::make_unique<FieldOp>(type); };
                    break;
                case 2:
                    factory = [type] { return std::make_unique<SplitOp>(type); };
                    break;
                default:
                    factory = [type] { return std::make_unique<ShapeOp>(type); };
                    break;
            }
            filled.registerType(type, std::move(factory), std::move(info));
        }
        return filled;
    }();
    return registry;
}

void BM_RegistrySchemaJson(benchmark::State& state) {
    const OperatorRegistry& registry = benchRegistry();
    for (auto _ : state) {
        nlohmann::ordered_json schema = registry.schemaJson();
        benchmark::DoNotOptimize(schema);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 60);
}
BENCHMARK(BM_RegistrySchemaJson)->Unit(benchmark::kMicrosecond);

// As a command hands it to a host: the JSON written out as text.
void BM_RegistrySchemaText(benchmark::State& state) {
    const OperatorRegistry& registry = benchRegistry();
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string text = registry.schemaJson().dump();
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 60);
}
BENCHMARK(BM_RegistrySchemaText)->Unit(benchmark::kMicrosecond);

}  // namespace
