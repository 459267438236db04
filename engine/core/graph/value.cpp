#include "graph/value.h"

#include <array>
#include <type_traits>
#include <variant>

namespace velmorin {
namespace {

// In the order of Value::Storage's alternatives, as messages name what arrived.
constexpr std::array<std::string_view, 13> kKindNames = {
    "nothing", "strands", "guides",      "mesh",          "guide hierarchy", "parts", "field",
    "curve",   "flow",    "map catalog", "scalp history", "sculpt edits",    "value"};
static_assert(kKindNames.size() == std::variant_size_v<Value::Storage>);

}  // namespace

const void* Value::identity() const {
    return std::visit(
        [](const auto& held) -> const void* {
            if constexpr (std::is_same_v<std::decay_t<decltype(held)>, std::monostate>) {
                return nullptr;
            } else {
                return held.get();
            }
        },
        storage_);
}

std::string_view Value::kindName() const {
    return kKindNames[storage_.index()];
}

}  // namespace velmorin
