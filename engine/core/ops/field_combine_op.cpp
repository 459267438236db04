#include <algorithm>
#include <iterator>

#include "fields/field_values.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;
using field_ops::shownFor;

class FieldCombineOp final : public Operator {
  public:
    std::string type() const override { return "FieldCombine"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override {
        return {{"a", PortType::Field, true}, {"b", PortType::Field, true}};
    }
    PortSpec output() const override { return {"field", PortType::Field}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec b = makeParam("b", 1.0,
                                "The second value, while nothing is connected to the b input (a "
                                "field there replaces it)");
        b.inputRule = InputRule::Never;  // the b input port stands for it
        ParamSpec mix = shownFor(makeParam("mix", 0.5, "mix: how much of b"), "mode", "mix");
        mix.unit = "fraction";
        return {
            choiceParam("mode", "multiply", {"multiply", "add", "subtract", "min", "max", "mix"},
                        "multiply, add, subtract, min, max or mix"),
            b, mix};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        static const std::pair<const char*, CombineMode> kModes[] = {
            {"multiply", CombineMode::Multiply}, {"add", CombineMode::Add},
            {"subtract", CombineMode::Subtract}, {"min", CombineMode::Min},
            {"max", CombineMode::Max},           {"mix", CombineMode::Mix}};
        const std::string name = paramSet.getString("mode", "multiply");
        const auto* mode = std::find_if(std::begin(kModes), std::end(kModes),
                                        [&](const auto& entry) { return name == entry.first; });
        if (mode == std::end(kModes)) throw GraphError("FieldCombine: unknown mode '" + name + "'");
        std::shared_ptr<const FieldValue> a =
            inputs.size() > 0 ? inputs[0].get<FieldValue>() : nullptr;
        std::shared_ptr<const FieldValue> b =
            inputs.size() > 1 ? inputs[1].get<FieldValue>() : nullptr;
        if (!a) a = std::make_shared<ConstantFieldValue>(0.0f);
        if (!b)
            b = std::make_shared<ConstantFieldValue>(
                static_cast<float>(paramSet.getFloat("b", 1.0)));
        return std::shared_ptr<const FieldValue>(
            std::make_shared<CombineFieldValue>(std::move(a), std::move(b), mode->second,
                                                static_cast<float>(paramSet.getFloat("mix", 0.5))));
    }
};

}  // namespace

void registerFieldCombineOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "Two fields multiplied, added, mixed...";
    info.keywords = "multiply add mix";
    registry.registerType(
        "FieldCombine", [] { return std::make_unique<FieldCombineOp>(); }, info);
}

}  // namespace velmorin
