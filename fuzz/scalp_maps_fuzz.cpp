// Scalp maps JSON from any bytes: every input gives maps or a SchemaError, never a crash, a leak
// or a hang. Maps that load must write a text that reads back to the same maps and bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/document.h"
#include "maps/scalp_maps.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ScalpMaps maps;
    try {
        maps = ScalpMaps::fromJson(text);
    } catch (const SchemaError&) {
        return 0;
    }
    const std::string written = maps.toJson();
    const ScalpMaps reread = ScalpMaps::fromJson(written);
    if (!(reread == maps) || reread.toJson() != written) __builtin_trap();
    maps.describe();
    return 0;
}
