#pragma once
// Small makers of the param records that the field nodes declare.

#include <optional>
#include <string>
#include <vector>

#include "graph/params.h"

namespace velmorin::field_ops {

inline ParamSpec makeParam(std::string name, ParamValue value, std::string description) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(value);
    spec.description = std::move(description);
    spec.animatable = true;
    return spec;
}

inline ParamSpec choiceParam(std::string name, std::string value, std::vector<std::string> choices,
                             std::string description) {
    ParamSpec spec = makeParam(std::move(name), std::move(value), std::move(description));
    spec.choices = std::move(choices);
    spec.animatable = false;
    return spec;
}

inline ParamSpec shownFor(ParamSpec spec, std::string param, std::string value) {
    spec.showWhen = ShowWhen{std::move(param), {ParamValue(std::move(value))}};
    return spec;
}

}  // namespace velmorin::field_ops
