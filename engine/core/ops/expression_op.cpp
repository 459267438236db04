#include <exception>

#include "base/hash.h"
#include "expr/binding.h"
#include "expr/expression.h"
#include "expr/program_cache.h"
#include "fields/field_map.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "graph/uniform_value.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::choiceParam;
using field_ops::makeParam;

class ExpressionOp final : public Operator {
  public:
    std::string type() const override { return "Expression"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override {
        if (givesValue()) return {"value", PortType::Value, false, ValueKind::Number};
        return {"field", PortType::Field};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec variables = makeParam("variables", std::string("{}"), kExpressionVariablesHelp);
        return {choiceParam("output", "field", {"field", "value"},
                            "field: a value per strand (and per point) for a mappable param; "
                            "value: one number for the whole node, of the frame, the time and the "
                            "node's own variables, for any param (a count, a seed, a switch...)"),
                makeParam("expression", std::string("$length / $longest"),
                          "The formula, in the expression language: $length, $longest, $t, "
                          "rand, noise(...), map(\"name\") and the node's own variables; its 0 "
                          "becomes min and its 1 max"),
                makeParam("min", 0.0,
                          "Output where the expression is 0: what its 0 becomes (an output "
                          "range, not a limit)"),
                makeParam("max", 1.0,
                          "Output where the expression is 1: what its 1 becomes (in between: "
                          "linear, and beyond it too; an output range, not a limit)"),
                variables};
    }
    std::vector<std::string> sceneInputs() const override {
        return {std::string(kScalpInput), std::string(kMapsInput)};
    }
    // The frame enters the key where the compiled program reads it, the host's controls where
    // the variables name one. An expression that does not compile reads nothing: its run says why.
    std::uint64_t contextKey(const EvalContext& ctx, std::uint32_t,
                             const EvalContext&) const override {
        std::uint64_t h = 0;
        try {
            if (program(ctx)->reads(kReadsTime)) h = hashCombine(h, doubleBits(ctx.time));
        } catch (const std::exception&) {
        }
        return hashCombine(h, controlsKey(ctx));
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const std::string source = paramSet.getString("expression", "");
        if (source.find_first_not_of(" \t\r\n") == std::string::npos)
            throw GraphError("Expression: the expression is empty");
        const float min = static_cast<float>(paramSet.getFloat("min", 0.0));
        const float max = static_cast<float>(paramSet.getFloat("max", 1.0));
        auto expression = std::make_shared<ExpressionMap>();
        expression->source = source;
        expression->min = min;
        expression->max = max;
        try {
            expression->program = program(ctx);
        } catch (const ExpressionError& e) {
            throw GraphError(std::string("Expression: ") + e.what());
        }
        const bool timed = expression->program->reads(kReadsTime);
        if (givesValue()) {
            if (!expression->program->isUniform())
                throw GraphError(
                    "Expression: set to give one value, it reads only frame, time and its own "
                    "variables (no strand, point, channel, map or rand: those are per strand; "
                    "set it to give a field)");
            auto value = std::make_shared<UniformValue>();
            value->value = static_cast<double>(
                min + (max - min) * evaluateUniformNumber(*expression->program));
            value->dependsOnTime = timed;
            return value;
        }
        auto map = std::make_shared<FieldMap>();
        map->kind = FieldMapKind::Expression;
        map->name = source;
        map->owner = "Expression";
        map->min = min;
        map->max = max;
        map->sourceKey = hashText(timed ? doubleBits(ctx.time) : 0, source);
        map->expression = std::move(expression);
        return std::shared_ptr<const FieldValue>(std::make_shared<MapFieldValue>(std::move(map)));
    }

  private:
    bool givesValue() const { return paramSet.getString("output", "field") == "value"; }

    // The keys of the host's controls, where the variables may name one.
    std::uint64_t controlsKey(const EvalContext& ctx) const {
        std::uint64_t h = 0;
        if (paramSet.getString("variables", "").find("control") != std::string::npos &&
            ctx.sceneInputs) {
            for (const auto& [name, input] : *ctx.sceneInputs)
                if (name.rfind("control:", 0) == 0) h = hashCombine(hashText(h, name), input.key);
        }
        return h;
    }

    // The node's program on `ctx`, from the cache of compiled expressions: its key and its run
    // compile it once. Throws ExpressionError.
    std::shared_ptr<const ExpressionProgram> program(const EvalContext& ctx) const {
        const std::string source = paramSet.getString("expression", "");
        const std::string variables = paramSet.getString("variables", "{}");
        const std::uint64_t environmentKey =
            hashCombine(hashText(fieldEnvironmentKey(ctx), variables), controlsKey(ctx));
        return compileCached(source, ExpressionType::Number, environmentKey, ctx.time, [&] {
            ExpressionEnvironment environment = expressionEnvironment(ctx, variables);
            const SceneInput* scalp = ctx.sceneInput(kScalpInput);
            const SceneInput* catalog = ctx.sceneInput(kMapsInput);
            environment.resolveMap =
                catalogMapResolver(scalp ? scalp->value.get<ScalpMesh>() : nullptr,
                                   catalog ? catalog->value.get<MapCatalogValue>() : nullptr,
                                   catalog ? catalog->key : 0);
            return environment;
        });
    }
};

}  // namespace

void registerExpressionOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description =
        "A value per strand from a formula, feeding any param (or one value, of the frame and its "
        "variables).";
    info.keywords = "formula code script";
    registry.registerType(
        "Expression", [] { return std::make_unique<ExpressionOp>(); }, info);
}

}  // namespace velmorin
