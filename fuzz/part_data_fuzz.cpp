// Part data from any bytes: parts or a SchemaError, never a crash, a leak or a hang. Parts that
// load must write a text that reads back to the same parts and bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/document.h"
#include "editing/parts.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    PartSet parts;
    try {
        parts = PartSet::fromJson(text);
    } catch (const SchemaError&) {
        return 0;
    }
    const std::string written = parts.toJson();
    const PartSet reread = PartSet::fromJson(written);
    if (!(reread == parts) || reread.toJson() != written) __builtin_trap();
    return 0;
}
