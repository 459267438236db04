#pragma once
// Port types and value kinds: what an edge of the graph carries and which edges may exist.

#include <cstdint>
#include <string>
#include <string_view>

namespace velmorin {

// What an edge carries. The names are both the display names and the JSON spelling.
enum class PortType : std::uint32_t {
    Strands = 0,  // StrandSet
    Guides = 1,   // GuideSet
    Mesh = 2,     // ScalpMesh
    Field = 3,    // FieldValue: one value per strand or point
    Curve = 4,    // Ramp
    Curves = 5,   // strands or guides: hands on the kind it is given
    Value = 6,    // UniformValue: one value for the whole node
};

// What a Value port expects.
enum class ValueKind : std::uint32_t { Any, Number, Integer, Bool, Vec3, Choice, Text };

// "Strands" ... "Value"; "Unknown" for a number outside the table.
std::string_view portTypeName(PortType type);
// Throws GraphError "unknown port type 'x' (Strands, Guides, ...)".
PortType parsePortType(std::string_view name);

std::string_view valueKindName(ValueKind kind);
// Throws GraphError "unknown value kind 'x' (any, number, ...)".
ValueKind parseValueKind(std::string_view name);

// Whether an output of type `from` may feed an input of type `to`. A Curves output into a Strands
// input is checked again at evaluation, against what really arrives.
bool canConnect(PortType from, PortType to);

struct PortSpec {
    std::string name = "out";
    PortType type = PortType::Strands;
    bool optional = false;
    ValueKind valueKind = ValueKind::Any;  // only meaningful for PortType::Value
};

}  // namespace velmorin
