#include "expr/environment.h"

#include <string>

#include <nlohmann/json.hpp>

#include "expr/expression.h"
#include "expr/program.h"

namespace velmorin {

const char* const kExpressionVariablesHelp =
    "The node's own variables as JSON, numbers and vectors: {\"amount\": 0.5, \"center\": [0, 1, "
    "0]}, read as $amount and $center.x (.y, .z); a keyable number is {\"value\": 0.5, "
    "\"control\": \"name\"}, set by the host's control of that name (ctl_name on the groom in "
    "Maya); a number measuring something says so, {\"value\": 2, \"unit\": \"length\"} (length, "
    "width, density, perLength), so presets fit it to the scalp";

ExpressionMapSource::~ExpressionMapSource() = default;

const ExpressionVariable* ExpressionEnvironment::variable(std::string_view name) const {
    for (const ExpressionVariable& v : variables)
        if (v.name == name) return &v;
    return nullptr;
}

namespace {

bool isNameText(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!letter && !(c >= '0' && c <= '9') && c != '_') return false;
    }
    return true;
}

bool isVectorJson(const nlohmann::ordered_json& value) {
    if (!value.is_array() || value.size() != 3) return false;
    for (const auto& c : value)
        if (!c.is_number()) return false;
    return true;
}

}  // namespace

std::vector<ExpressionVariable> readExpressionVariables(std::string_view json,
                                                        const ExpressionControls& controls) {
    const std::string kNotAnObject = "variables are a JSON object of numbers and vectors";
    if (json.find_first_not_of(" \t\r\n") == std::string_view::npos) return {};
    nlohmann::ordered_json doc;
    try {
        doc = nlohmann::ordered_json::parse(json);
    } catch (const nlohmann::json::exception&) {
        throw ExpressionError(kNotAnObject);
    }
    if (!doc.is_object()) throw ExpressionError(kNotAnObject);

    std::vector<ExpressionVariable> variables;
    for (const auto& [name, value] : doc.items()) {
        if (!isNameText(name))
            throw ExpressionError("'" + name + "' is not a variable name (letters, digits and _)");
        const std::string notAValue = name + " is neither a number nor a vector of three";
        ExpressionVariable v;
        v.name = name;
        const nlohmann::ordered_json* held = &value;
        if (value.is_object()) {
            const auto found = value.find("value");
            if (found == value.end()) throw ExpressionError(notAValue);
            held = &*found;
            if (const auto control = value.find("control"); control != value.end()) {
                if (!control->is_string() || !isNameText(control->get<std::string>()))
                    throw ExpressionError(name + "'s control is a name (letters, digits and _)");
                v.control = control->get<std::string>();
            }
            if (const auto unit = value.find("unit"); unit != value.end()) {
                const std::string text = unit->is_string() ? unit->get<std::string>() : "";
                if (text != "length" && text != "width" && text != "density" && text != "perLength")
                    throw ExpressionError(name + "'s unit is length, width, density or perLength");
                v.unit = text;
            }
        }
        if (held->is_number()) {
            double number = held->get<double>();
            if (controls && !v.control.empty()) {
                if (const std::optional<double> set = controls(v.control)) number = *set;
            }
            v.value.x = narrowToFloat(number);
        } else if (isVectorJson(*held)) {
            v.isVector = true;
            v.value = {narrowToFloat((*held)[0].get<double>()),
                       narrowToFloat((*held)[1].get<double>()),
                       narrowToFloat((*held)[2].get<double>())};
        } else {
            throw ExpressionError(notAValue);
        }
        variables.push_back(std::move(v));
    }
    return variables;
}

ExpressionEnvironment expressionEnvironment(double frame) {
    ExpressionEnvironment env;
    env.frame = frame;
    env.time = frame / kExpressionFramesPerSecond;
    return env;
}

ExpressionEnvironment expressionEnvironment(double frame, std::string_view variablesJson,
                                            const ExpressionControls& controls) {
    ExpressionEnvironment env = expressionEnvironment(frame);
    env.variables = readExpressionVariables(variablesJson, controls);
    return env;
}

}  // namespace velmorin
