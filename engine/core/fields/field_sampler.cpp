#include "fields/field_sampler.h"

#include "fields/field_map.h"
#include "fields/field_scene.h"
#include "fields/field_values.h"
#include "graph/params.h"

namespace velmorin {
namespace {

const FieldScene& sceneOf(const ParamSet& params) {
    static const FieldScene kNoScene;
    return params.fieldScene ? *params.fieldScene : kNoScene;
}

// A param's field in the order of precedence: a field delivered to its input, then a map it
// holds, else its plain number.
FieldSampler resolveField(const ParamSet& params, std::string_view name, const StrandSet* strands) {
    const FieldScene& scene = sceneOf(params);
    if (const auto found = params.fields.find(name); found != params.fields.end() && found->second)
        return FieldSampler(preparedField(found->second, strands, scene));
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

FieldSampler ParamSet::field(std::string_view name, const StrandSet& strands) const {
    return resolveField(*this, name, &strands);
}

FieldSampler ParamSet::fieldAtRoots(std::string_view name) const {
    return resolveField(*this, name, nullptr);
}

}  // namespace velmorin
