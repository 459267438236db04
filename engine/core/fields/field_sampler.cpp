#include "fields/field_sampler.h"

#include <filesystem>

#include "base/hash.h"
#include "fields/field_map.h"
#include "fields/field_scene.h"
#include "fields/field_values.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/eval_context.h"
#include "graph/params.h"
#include "maps/texture.h"

namespace velmorin {
namespace {

// The run's scene, or an empty one where the graph made none.
const FieldScene& sceneOf(const EvalContext& ctx) {
    static const FieldScene kNoScene;
    const auto* scene = dynamic_cast<const FieldScene*>(ctx.scene.get());
    return scene ? *scene : kNoScene;
}

// A param's field in the order of precedence: a field delivered to its input, then a map it
// holds, else its plain number.
FieldSampler resolveField(const ParamSet& params, const EvalContext& ctx, std::string_view name,
                          const StrandSet* strands) {
    const FieldScene& scene = sceneOf(ctx);
    if (ctx.delivered) {
        if (auto delivered = ctx.delivered->sharedField(name))
            return FieldSampler(preparedField(delivered, strands, scene));
    }
    if (params.has(name)) {
        const ParamValue& value = params.checked(name);
        if (const MapReference* reference = std::get_if<MapReference>(&value))
            return FieldSampler(resolveMapReference(std::string(name), *reference,
                                                    params.spec(name), strands, scene));
    }
    FieldSampler plain(static_cast<float>(params.getFloat(name, 0.0)));
    if (const ParamSpec* spec = params.spec(name); spec && spec->kind() == ParamKind::Vec3)
        plain.setPlainVector(params.getVec3(name, {}));
    return plain;
}

}  // namespace

FieldSampler::FieldSampler(std::shared_ptr<const FieldValue> field) {
    if (field && !field->varies() && !field->isColor()) {
        plain_ = field->atStrand(0);
    } else {
        field_ = std::move(field);
        if (field_) plain_ = field_->atStrand(0);
    }
}

FieldSampler fieldSampler(const ParamSet& params, const EvalContext& ctx, std::string_view name,
                          const StrandSet& strands) {
    return resolveField(params, ctx, name, &strands);
}

FieldSampler fieldSamplerAtRoots(const ParamSet& params, const EvalContext& ctx,
                                 std::string_view name) {
    return resolveField(params, ctx, name, nullptr);
}

FieldSampler rootColorMap(std::string_view op, std::string_view param, const std::string& name,
                          const EvalContext& ctx, const StrandSet& strands) {
    if (name.empty()) return FieldSampler();
    const FieldScene& scene = sceneOf(ctx);
    FieldMap map;
    map.name = name;
    map.owner = std::string(op) + " " + std::string(param) + " '" + name + "'";
    map.sourceKey = hashText(0, name);
    if (const ScalpMap* painted = useCatalogMap(map, scene.catalog, scene.catalogKey, name)) {
        if (map.kind == FieldMapKind::Texture && map.name.empty())
            throw GraphError(map.owner +
                             ": the texture map has no image file yet (paint it in Groom Tools > "
                             "Paint)");
        if (map.kind == FieldMapKind::Vertices &&
            (!scene.scalp || painted->vertexCount() != scene.scalp->pointCount()))
            throw GraphError(map.owner +
                             ": the vertex map does not fit this scalp (paint it again, or "
                             "convert it, in Groom Tools > Paint)");
    } else if (scene.scalp && scene.scalp->colorSets().count(name)) {
        map.kind = FieldMapKind::ColorSet;
    } else {
        std::error_code error;
        if (parseUdimPattern(name).empty() && !std::filesystem::is_regular_file(name, error))
            throw GraphError(std::string(op) + ": no map, color set or image named '" + name +
                             "' (Groom Tools > Paint > New... makes a map)");
        map.kind = FieldMapKind::Texture;
    }
    const MapColorFieldValue unbound(std::make_shared<const FieldMap>(std::move(map)));
    return FieldSampler(unbound.prepare(&strands, scene));
}

}  // namespace velmorin
