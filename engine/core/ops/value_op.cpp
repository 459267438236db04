#include "graph/registry.h"
#include "graph/uniform_value.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;
using field_ops::shownFor;

// One value for a whole node, of the kind the artist picks.
class ValueOp final : public Operator {
  public:
    std::string type() const override { return "Value"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"value", PortType::Value, false, ValueKind::Any}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec number = shownFor(makeParam("number", 1.0, "The number"), "kind", "number");
        number.softMax = 1.0;
        ParamSpec integer =
            shownFor(makeParam("integer", std::int64_t{0}, "The whole number"), "kind", "integer");
        integer.softMax = 10.0;
        ParamSpec color =
            shownFor(makeParam("color", Vec3f{1, 1, 1}, "The color (linear RGB)"), "kind", "color");
        color.unit = "color";
        return {
            choiceParam("kind", "number", {"number", "integer", "bool", "vector", "color", "text"},
                        "What it gives: a number, an integer, a switch (bool), a vector, a "
                        "color or text (text also feeds a param's choices: one of them, by "
                        "name)"),
            number,
            integer,
            shownFor(makeParam("on", false, "The switch"), "kind", "bool"),
            shownFor(makeParam("vector", Vec3f{}, "The vector"), "kind", "vector"),
            color,
            shownFor(makeParam("text", std::string(),
                               "The text: a name, or one of a param's "
                               "choices"),
                     "kind", "text")};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override {
        auto value = std::make_shared<UniformValue>();
        const std::string kind = paramSet.getString("kind", "number");
        if (kind == "integer") {
            value->kind = ValueKind::Integer;
            value->value = paramSet.getInt("integer", 0);
        } else if (kind == "bool") {
            value->kind = ValueKind::Bool;
            value->value = paramSet.getBool("on", false);
        } else if (kind == "vector" || kind == "color") {
            value->kind = ValueKind::Vec3;
            value->value = paramSet.getVec3(kind, kind == "color" ? Vec3f{1, 1, 1} : Vec3f{});
        } else if (kind == "text") {
            value->kind = ValueKind::Text;
            value->value = paramSet.getString("text", "");
        } else {
            value->value = paramSet.getFloat("number", 1.0);
        }
        return value;
    }
};

}  // namespace

void registerValueOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description =
        "One value for a whole node: a number, integer, switch, vector, color or text that drives "
        "any exposed param.";
    info.keywords = "number constant parameter";
    registry.registerType(
        "Value", [] { return std::make_unique<ValueOp>(); }, info);
}

}  // namespace velmorin
