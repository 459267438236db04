// Flow data from any bytes: a flow set or a SchemaError, never a crash, a leak or a hang. A set
// that loads must write a text that reads back to the same set and bytes, and its pins and sinks,
// however wild their numbers, must evaluate on a scalp without fault.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/document.h"
#include "editing/flow.h"
#include "mesh/sample_meshes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    FlowSet set;
    try {
        set = FlowSet::fromJson(text);
    } catch (const SchemaError&) {
        return 0;
    }
    const std::string written = set.toJson();
    const FlowSet reread = FlowSet::fromJson(written);
    if (!(reread == set) || reread.toJson() != written) __builtin_trap();

    static const auto scalp = makeUvPlane(2.0f, 3);
    const auto field = FlowField::build(set, *scalp);
    for (std::int32_t face = 0; face < 18; face += 5)
        field->at(*scalp, {face, 0.3f, 0.3f});
    set.transferred(*scalp, *scalp);
    return 0;
}
