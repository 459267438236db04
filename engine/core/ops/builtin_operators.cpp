#include "fields/mapped_params.h"
#include "graph/registry.h"
#include "ops/clump.h"
#include "ops/color_ops.h"
#include "ops/field_ops.h"
#include "ops/grow_ops.h"
#include "ops/shape_ops.h"
#include "ops/source_ops.h"

namespace velmorin {

void registerBuiltinOperators(OperatorRegistry& registry) {
    // Each operator's registerXOperator(registry) is called here, in menu order, as the operators
    // arrive. ImportCurves is not among them: the host registers it with its Alembic code.
    registerScalpOperator(registry);
    registerGuidesOperator(registry);
    registerColliderMeshOperator(registry);
    registerScatterOperator(registry);
    registerInterpolateOperator(registry);
    registerLengthOperator(registry);
    registerWidthOperator(registry);
    registerResampleOperator(registry);
    registerDirectionOperator(registry);
    registerFlowOperator(registry);
    registerSmoothOperator(registry);
    registerSculptOperator(registry);
    registerBendOperator(registry);
    registerTransformOperator(registry);
    registerClumpOperator(registry);
    registerTwistOperator(registry);
    registerNoiseOperator(registry);
    registerCurlOperator(registry);
    registerWetOperator(registry);
    registerHairColorOperator(registry);
    registerBandsOperator(registry);
    registerFeatherColorOperator(registry);
    registerRenderDataOperator(registry);
    registerMapOperator(registry);
    registerExpressionOperator(registry);
    registerControlOperator(registry);
    registerFieldNoiseOperator(registry);
    registerFieldRemapOperator(registry);
    registerFieldCombineOperator(registry);
    registerCurveOperator(registry);
    registerValueOperator(registry);
    registerOutputOperator(registry);
    // What the operators' mapped params read, asked for by evaluation.
    installFieldMappedParams(registry);
}

OperatorRegistry& OperatorRegistry::instance() {
    // Made and filled on first use; the function-local static makes that thread-safe, and nothing
    // registers into it afterwards except a host at load time.
    static OperatorRegistry registry = [] {
        OperatorRegistry filled;
        registerBuiltinOperators(filled);
        return filled;
    }();
    return registry;
}

}  // namespace velmorin
