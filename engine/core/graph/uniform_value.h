#pragma once
// UniformValue: one value for a whole node (a Value port), as a Value or Expression node gives it.

#include <cstdint>
#include <string>
#include <variant>

#include "base/vec3.h"
#include "graph/port.h"

namespace velmorin {

struct UniformValue {
    ValueKind kind = ValueKind::Number;  // Number, Integer, Bool, Vec3 or Text
    std::variant<double, std::int64_t, bool, Vec3f, std::string> value = 0.0;
    bool dependsOnTime = false;  // an expression of the frame or a keyed value

    std::uint64_t key() const;
};

}  // namespace velmorin
