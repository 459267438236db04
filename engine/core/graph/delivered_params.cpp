#include "graph/delivered_params.h"

#include "graph/eval_context.h"
#include "graph/run_scene.h"

namespace velmorin {

RunScene::~RunScene() = default;
MappedParams::~MappedParams() = default;

const FieldValue* DeliveredParams::field(std::string_view name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? nullptr : found->second.get();
}

std::shared_ptr<const FieldValue> DeliveredParams::sharedField(std::string_view name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? nullptr : found->second;
}

const Ramp* DeliveredParams::curve(std::string_view name) const {
    const auto found = curves.find(name);
    return found == curves.end() ? nullptr : found->second.get();
}

Ramp paramRamp(const ParamSet& params, const EvalContext& ctx, std::string_view name,
               const Ramp& fallback) {
    if (ctx.delivered) {
        if (const Ramp* delivered = ctx.delivered->curve(name)) {
            params.noteRead(name);
            return *delivered;
        }
    }
    return params.getRamp(name, fallback);
}

std::shared_ptr<const FieldValue> paramField(const ParamSet& params, const EvalContext& ctx,
                                             std::string_view name) {
    if (ctx.delivered) {
        if (auto delivered = ctx.delivered->sharedField(name)) {
            params.noteRead(name);
            return delivered;
        }
    }
    return params.constantField(name);
}

}  // namespace velmorin
