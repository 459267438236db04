#include "graph/eval_context.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "graph/field_value.h"
#include "graph/uniform_value.h"

namespace velmorin {
namespace {

Value uniform(ValueKind kind, std::variant<double, std::int64_t, bool, Vec3f, std::string> held) {
    return Value(std::make_shared<const UniformValue>(UniformValue{kind, std::move(held), false}));
}

TEST(ControlValue, ReadsEveryKindOfNumberAHostMaySet) {
    SceneInputs inputs;
    const struct {
        const char* control;
        Value held;
        std::optional<double> expected;
    } cases[] = {
        {"number", uniform(ValueKind::Number, 0.25), 0.25},
        {"whole", uniform(ValueKind::Integer, std::int64_t{-7}), -7.0},
        {"on", uniform(ValueKind::Bool, true), 1.0},
        {"off", uniform(ValueKind::Bool, false), 0.0},
        {"field",
         Value(std::shared_ptr<const FieldValue>(std::make_shared<ConstantFieldValue>(0.5f))), 0.5},
        {"vector", uniform(ValueKind::Vec3, Vec3f{1, 2, 3}), std::nullopt},
        {"text", uniform(ValueKind::Text, std::string("1")), std::nullopt},
        {"strands", Value(), std::nullopt},
    };
    for (const auto& c : cases)
        inputs[controlInputName(c.control)] = {c.held, 1};
    EvalContext ctx;
    ctx.sceneInputs = &inputs;
    for (const auto& c : cases)
        EXPECT_EQ(controlValue(ctx, c.control), c.expected) << c.control;

    // A control the host has not set, and a context without scene inputs.
    EXPECT_EQ(controlValue(ctx, "unset"), std::nullopt);
    EXPECT_EQ(controlValue(EvalContext{}, "number"), std::nullopt);
    EXPECT_EQ(controlInputName("gain"), "control:gain");
}

}  // namespace
}  // namespace velmorin
