#pragma once
// Port and param declarations in one call each, for the test operators of every layer, the fuzz
// targets and the benchmarks. Free of any test framework, so that every kind of program can use it.

#include <string>

#include "graph/params.h"
#include "graph/port.h"

namespace velmorin::test {

// Not animatable unless asked, as a ParamSpec is by default.
inline ParamSpec param(std::string name, ParamValue value, bool animatable = false,
                       std::string description = {}) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(value);
    spec.animatable = animatable;
    spec.description = std::move(description);
    return spec;
}

inline PortSpec port(std::string name, PortType type, bool optional = false,
                     ValueKind kind = ValueKind::Any) {
    return PortSpec{std::move(name), type, optional, kind};
}

inline PortSpec strandsPort(std::string name, bool optional = false) {
    return port(std::move(name), PortType::Strands, optional);
}

}  // namespace velmorin::test
