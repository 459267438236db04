#pragma once
// The JSON forms of param values and param specs, shared by the operator schema and by the
// documents that store params.

#include <nlohmann/json.hpp>

#include "graph/params.h"

namespace velmorin {

// A value in its stored form: bool, integer, number, string; a vec3 as [x, y, z]; a ramp as
// {"keys": [[position, value], ...], "linear": bool}; a map reference as its one source key
// ("texture", "colorSet", "attribute", "expression" or "guide") with "component", "min" and "max"
// where given. Floats are written by their shortest decimal form (0.1f as 0.1).
nlohmann::ordered_json paramValueJson(const ParamValue& value);

// A declared param as the operator schema lists it: the record's fields that hold something, the
// kind as "type", the input port as "port" (and "valueKind" for a Value port), and "decimals".
nlohmann::ordered_json paramSpecJson(const ParamSpec& spec);

// "texture", "colorSet", "attribute", "expression" or "guide".
std::string_view mapSourceName(MapSource source);

}  // namespace velmorin
