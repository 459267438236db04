#include "graph/port.h"

#include <array>
#include <string>

#include "graph/errors.h"

namespace velmorin {
namespace {

constexpr std::array<std::string_view, 7> kPortTypeNames = {"Strands", "Guides", "Mesh", "Field",
                                                            "Curve",   "Curves", "Value"};
constexpr std::array<std::string_view, 7> kValueKindNames = {"any",  "number", "integer", "bool",
                                                             "vec3", "choice", "text"};

}  // namespace

std::string_view portTypeName(PortType type) {
    const auto index = static_cast<std::size_t>(type);
    return index < kPortTypeNames.size() ? kPortTypeNames[index] : "Unknown";
}

PortType parsePortType(std::string_view name) {
    for (std::size_t i = 0; i < kPortTypeNames.size(); ++i) {
        if (kPortTypeNames[i] == name) return static_cast<PortType>(i);
    }
    throw GraphError("unknown port type '" + std::string(name) +
                     "' (Strands, Guides, Mesh, Field, Curve, Curves or Value)");
}

std::string_view valueKindName(ValueKind kind) {
    const auto index = static_cast<std::size_t>(kind);
    return index < kValueKindNames.size() ? kValueKindNames[index] : "unknown";
}

ValueKind parseValueKind(std::string_view name) {
    for (std::size_t i = 0; i < kValueKindNames.size(); ++i) {
        if (kValueKindNames[i] == name) return static_cast<ValueKind>(i);
    }
    throw GraphError("unknown value kind '" + std::string(name) +
                     "' (any, number, integer, bool, vec3, choice or text)");
}

bool canConnect(PortType from, PortType to) {
    if (from == to) return true;
    // One value for the whole node is a field that happens not to vary.
    if (from == PortType::Value && to == PortType::Field) return true;
    if (to == PortType::Curves) return from == PortType::Strands || from == PortType::Guides;
    // What a Curves output really holds is only known at evaluation, which checks it again.
    if (from == PortType::Curves) return to == PortType::Strands || to == PortType::Guides;
    return false;
}

}  // namespace velmorin
