#include "graph/uniform_value.h"

#include <type_traits>

#include "base/hash.h"

namespace velmorin {

std::uint64_t UniformValue::key() const {
    std::uint64_t h = hashCombine(0x756e69666f726dull, static_cast<std::uint64_t>(kind));
    h = hashCombine(h, value.index());
    h = std::visit(
        [h](const auto& v) -> std::uint64_t {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, double>) {
                return hashCombine(h, doubleBits(v));
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return hashCombine(h, static_cast<std::uint64_t>(v));
            } else if constexpr (std::is_same_v<T, bool>) {
                return hashCombine(h, v ? 1 : 0);
            } else if constexpr (std::is_same_v<T, Vec3f>) {
                return hashCombine(hashCombine(hashCombine(h, floatBits(v.x)), floatBits(v.y)),
                                   floatBits(v.z));
            } else {
                return hashText(h, v);
            }
        },
        value);
    return hashCombine(h, dependsOnTime ? 1 : 0);
}

}  // namespace velmorin
