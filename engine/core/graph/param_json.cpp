#include "graph/param_json.h"

#include <charconv>
#include <cstdlib>
#include <string>

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

// The double nearest the float's shortest decimal form, so that 0.1f is written as 0.1 and
// reads back as the same float.
double floatForJson(float value) {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text - 1, value);
    *result.ptr = '\0';
    return std::strtod(text, nullptr);
}

Json vecJson(Vec3f v) {
    return Json::array({floatForJson(v.x), floatForJson(v.y), floatForJson(v.z)});
}

Json valuesJson(const std::vector<ParamValue>& values) {
    Json list = Json::array();
    for (const ParamValue& value : values)
        list.push_back(paramValueJson(value));
    return list;
}

}  // namespace

std::string_view mapSourceName(MapSource source) {
    switch (source) {
        case MapSource::Texture:
            return "texture";
        case MapSource::ColorSet:
            return "colorSet";
        case MapSource::Attribute:
            return "attribute";
        case MapSource::Expression:
            return "expression";
        case MapSource::Guide:
            return "guide";
    }
    return "texture";
}

Json paramValueJson(const ParamValue& value) {
    return std::visit(
        [](const auto& v) -> Json {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, Vec3f>) {
                return vecJson(v);
            } else if constexpr (std::is_same_v<T, Ramp>) {
                Json keys = Json::array();
                for (const RampKey& key : v.keys) {
                    keys.push_back(
                        Json::array({floatForJson(key.position), floatForJson(key.value)}));
                }
                Json ramp = Json::object();
                ramp["keys"] = std::move(keys);
                ramp["linear"] = v.linear;
                return ramp;
            } else if constexpr (std::is_same_v<T, MapReference>) {
                Json map = Json::object();
                map[std::string(mapSourceName(v.source))] = v.text;
                if (v.componentIndex >= 0) {
                    map["component"] = v.componentIndex;
                } else if (!v.component.empty()) {
                    map["component"] = v.component;
                }
                if (v.min) map["min"] = *v.min;
                if (v.max) map["max"] = *v.max;
                return map;
            } else {
                return Json(v);
            }
        },
        value);
}

Json paramSpecJson(const ParamSpec& spec) {
    Json out = Json::object();
    out["name"] = spec.name;
    out["type"] = paramKindName(spec.kind());
    out["default"] = paramValueJson(spec.defaultValue);
    if (!spec.description.empty()) out["description"] = spec.description;
    if (spec.mappable()) out["mappable"] = true;
    if (!spec.unit.empty()) out["unit"] = spec.unit;
    if (!spec.choices.empty()) out["choices"] = spec.choices;
    if (spec.animatable) out["animatable"] = true;
    if (spec.min) out["min"] = *spec.min;
    if (spec.max) out["max"] = *spec.max;
    if (spec.softMin) out["softMin"] = *spec.softMin;
    if (spec.softMax) out["softMax"] = *spec.softMax;
    if (!spec.group.empty()) out["group"] = spec.group;
    if (spec.advanced) out["advanced"] = true;
    if (spec.showWhen) {
        Json showWhen = Json::object();
        showWhen["param"] = spec.showWhen->param;
        showWhen["values"] = valuesJson(spec.showWhen->values);
        out["showWhen"] = std::move(showWhen);
    }
    if (spec.worldDirection) out["worldDirection"] = true;
    if (spec.vectorExpression) out["vectorExpression"] = true;
    if (spec.colorField) out["colorField"] = true;
    if (spec.unitWhen) {
        Json unitWhen = Json::object();
        unitWhen["param"] = spec.unitWhen->param;
        unitWhen["values"] = valuesJson(spec.unitWhen->values);
        unitWhen["unit"] = spec.unitWhen->unit;
        out["unitWhen"] = std::move(unitWhen);
    }
    if (spec.channel == ChannelRole::Writes) out["channel"] = "writes";
    if (spec.channel == ChannelRole::Reads) out["channel"] = "reads";
    if (spec.channelOptional) out["channelOptional"] = true;
    PortSpec port;
    if (paramInputPort(spec, port)) {
        out["port"] = portTypeName(port.type);
        if (port.type == PortType::Value) out["valueKind"] = valueKindName(port.valueKind);
    }
    if (spec.since > 0) out["since"] = spec.since;
    if (spec.formerDefault) {
        Json former = Json::object();
        former["value"] = paramValueJson(*spec.formerDefault);
        out["formerDefault"] = std::move(former);
    }
    if (const std::optional<int> decimals = paramDecimals(spec)) out["decimals"] = *decimals;
    return out;
}

}  // namespace velmorin
