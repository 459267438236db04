// Delivery of param inputs and controls into a node: fields and ramps beside it, single values and
// control values into its params; and the affect state that a delivered field decides.

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/parallel.h"
#include "graph/affect.h"
#include "graph/eval_internal.h"
#include "graph/field_value.h"
#include "graph/uniform_value.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace evaluation {
Value constantField(const UniformValue& uniform) {
    switch (uniform.kind) {
        case ValueKind::Bool:
            if (const bool* on = std::get_if<bool>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(*on ? 1.0f : 0.0f);
            break;
        case ValueKind::Integer:
            if (const std::int64_t* whole = std::get_if<std::int64_t>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(static_cast<float>(*whole));
            break;
        case ValueKind::Number:
            if (const double* number = std::get_if<double>(&uniform.value))
                return std::make_shared<ConstantFieldValue>(static_cast<float>(*number));
            break;
        case ValueKind::Vec3:
            if (const Vec3f* color = std::get_if<Vec3f>(&uniform.value))
                return std::make_shared<ConstantColorField>(*color);
            break;
        default:
            break;
    }
    return {};
}

void deliverParam(GraphNode& node, const std::string& name, const Value& value) {
    if (node.paramControls.count(name)) return;  // a control drives it instead
    ParamSet& params = node.op->paramSet;
    const ParamSpec* spec = params.spec(name);
    const auto field = value.get<FieldValue>();
    const auto ramp = value.get<Ramp>();
    const auto uniform = value.get<UniformValue>();
    const std::string head = node.name + " param '" + name + "' ";
    if (spec && (field || ramp)) {
        PortSpec port;
        if (paramInputPort(*spec, port) && port.type == PortType::Value)
            throw GraphError(head +
                             "takes one value for the whole node, not a value per strand or a "
                             "curve");
    }
    const bool changesOverTime =
        (field && field->dependsOnTime()) || (uniform && uniform->dependsOnTime);
    if (spec && !spec->animatable && changesOverTime)
        throw GraphError(head +
                         "cannot take a value that changes over time (an expression of the frame, "
                         "a keyed value): it sets how many strands, points or cards there are, or "
                         "where they go, which must stay the same on every frame");
    DeliveredParams& delivered = node.runtime.delivered;
    if (field) {
        delivered.fields[name] = field;
        delivered.curves.erase(name);
    } else if (ramp) {
        delivered.curves[name] = ramp;
        delivered.fields.erase(name);
    } else {
        delivered.fields.erase(name);
        delivered.curves.erase(name);
        if (uniform)
            params.set(name,
                       std::visit([](const auto& v) { return ParamValue(v); }, uniform->value));
    }
}

AffectState affectStateOf(const GraphNode& node) {
    const Operator& op = *node.op;
    if (!affectApplies(op)) return AffectState::Full;
    double weight = 1.0;
    if (const FieldValue* delivered = node.runtime.delivered.field("affect")) {
        if (delivered->varies()) return AffectState::Partial;
        weight = delivered->atStrand(0);
    } else {
        weight = op.paramSet.getFloat("affect", 1.0);
    }
    if (!(weight < 1.0)) return AffectState::Full;  // NaN counts as the whole result
    if (weight <= 0.0) return AffectState::None;
    return AffectState::Partial;
}

std::vector<float> affectWeights(const GraphNode& node, const StrandSet& strands) {
    const Operator& op = *node.op;
    std::vector<float> weights(strands.pointCount(),
                               static_cast<float>(op.paramSet.getFloat("affect", 1.0)));
    const FieldValue* delivered = node.runtime.delivered.field("affect");
    if (!delivered) return weights;
    const FieldValue& field = *delivered;
    const std::span<const std::uint64_t> offsets = strands.offsets();
    parallelRange(0, strands.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            for (std::uint64_t p = offsets[s]; p < offsets[s + 1]; ++p)
                weights[p] = field.atPoint(s, p - offsets[s]);
        }
    });
    return weights;
}

void resolveControls(Graph& graph, const EvalContext& ctx) {
    for (const std::uint32_t id : graph.nodeIds()) {
        GraphNode& node = graph.node(id);
        for (const auto& [param, controls] : node.paramControls) {
            if (controls.size() == 3) {
                const auto x = controlValue(ctx, controls[0]);
                const auto y = controlValue(ctx, controls[1]);
                const auto z = controlValue(ctx, controls[2]);
                if (x && y && z)
                    node.op->paramSet.set(param,
                                          Vec3f{static_cast<float>(*x), static_cast<float>(*y),
                                                static_cast<float>(*z)});
            } else if (controls.size() == 1) {
                if (const auto number = controlValue(ctx, controls[0])) {
                    const ParamSpec* spec = node.op->paramSet.spec(param);
                    if (spec && spec->kind() == ParamKind::Int)
                        node.op->paramSet.set(param, static_cast<std::int64_t>(*number));
                    else if (spec && spec->kind() == ParamKind::Bool)
                        node.op->paramSet.set(param, *number != 0.0);
                    else
                        node.op->paramSet.set(param, *number);
                }
            }
        }
    }
}

}  // namespace evaluation
}  // namespace velmorin
