#pragma once
// What connected param inputs delivered to a node in its latest evaluation: the fields and ramps
// that a param's own value can't hold. Evaluation state, kept beside the node and handed to the
// operator through its run's context (EvalContext::delivered); never written into the params.

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "graph/field_value.h"
#include "graph/params.h"
#include "graph/ramp.h"

namespace velmorin {

struct EvalContext;

struct DeliveredParams {
    std::map<std::string, std::shared_ptr<const FieldValue>, std::less<>> fields;
    std::map<std::string, std::shared_ptr<const Ramp>, std::less<>> curves;

    // The delivered field of `name`, or null.
    const FieldValue* field(std::string_view name) const;
    std::shared_ptr<const FieldValue> sharedField(std::string_view name) const;
    // The delivered ramp of `name`, or null.
    const Ramp* curve(std::string_view name) const;
};

// A param's ramp: a ramp delivered by a connected Curve input in `ctx` comes before the param's
// own (read through params.getRamp).
Ramp paramRamp(const ParamSet& params, const EvalContext& ctx, std::string_view name,
               const Ramp& fallback);
// A param's field: the delivered field of a connected param, else params.constantField(name).
// Never null.
std::shared_ptr<const FieldValue> paramField(const ParamSet& params, const EvalContext& ctx,
                                             std::string_view name);

}  // namespace velmorin
