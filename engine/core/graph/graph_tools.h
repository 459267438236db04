#pragma once
// Tools around the graph document: the default graph a new groom starts from, reports about a
// graph (node versions, seeds that collide), fitting a document's keyed controls to a host, and
// reading param values from JSON.

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/document.h"  // the format-version rule, which graph JSON shares
#include "graph/graph.h"
#include "graph/params.h"

namespace velmorin {

// The version of the graph JSON format that this Velmorin writes and reads.
inline constexpr int kGraphFormatVersion = 1;

// The text of the graph a new groom starts from: Scalp and Guides, Scatter, Interpolate, Length,
// Noise, HairColor, Width, Resample and Output in a chain. A node whose registered type is of a
// version above 1 carries that version, so that a new groom never starts out of date. The versions
// are those of `registry`.
std::string defaultGraphJson(const OperatorRegistry& registry = OperatorRegistry::instance());

// A report of the graph as JSON: "nodeCount", "connectionCount", "output" (a name or null) and
// "nodes", one object per node in id order with "id", "name", "type", "nodeVersion" (the version
// the node behaves as: its saved version when read from an older file, else the current one),
// "currentVersion" and "outdated" (saved below the current version).
nlohmann::ordered_json graphInfo(const Graph& graph);

// Pairs of nodes of a seeded type (Flyaway, Instance, Scales, Scatter) that would do the same thing
// twice: same type, same seed, neither bypassed, and one upstream of the other. One message per
// pair, in id order: "Scatter nodes 'a' and 'b' share seed 3: their strands coincide (same roots
// and IDs); give each its own seed".
std::vector<std::string> seedCollisions(const Graph& graph);

// Fits the keyed controls ("paramControls") of a graph JSON document to a host that already has
// the controls in `hostControls`. Each control name that the host has taken is renamed, in the
// document, to the name followed by the smallest number from 1 that neither the host nor the
// document uses; a name used by several params is renamed alike. Nodes inside a "definition"'s
// "graph" are fitted too. Returns, for every control of the document (by its fitted name), the
// current value of the param it drives: the value in the node's "params", else the param's default
// (for a vector, one component per control; a switch gives 0 or 1). A control whose value can't be
// told (an unknown type, a mapped value) is renamed but has no entry. The document is changed only
// when the fit succeeds; throws SchemaError "graph JSON must be an object" for anything else.
// Param defaults are those of `registry`'s operators.
std::map<std::string, double> fitControls(
    nlohmann::ordered_json& graphJson, const std::set<std::string, std::less<>>& hostControls,
    const OperatorRegistry& registry = OperatorRegistry::instance());

// Reads a param value by its JSON type, before coercion to the param's kind (paramValueJson writes
// it): bool, integer, float, string, [x, y, z] as a vec3, {"keys": [[position, value], ...],
// "linear": bool} as a ramp, any other object as a map reference. `param` names the
// param in messages. Throws GraphError with the exact words of graph JSON: "param 'p': N is out of
// range for an integer", "ramp for param 'p' needs keys [[position, value], ...]", "map for param
// 'p' needs exactly one of texture, colorSet, attribute, expression, guide", "map for param 'p':
// unknown component 'x'", "unsupported value for param 'p'".
ParamValue paramValueFromJson(const nlohmann::ordered_json& json, const std::string& param);

}  // namespace velmorin
