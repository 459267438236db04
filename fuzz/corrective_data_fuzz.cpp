// Corrective data and sculpt data from any bytes: layers and edits or a SchemaError, never a crash,
// a leak or a hang. The first byte picks the format. What loads must write a text that reads back
// to the same layers and bytes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/document.h"
#include "editing/sculpt_layers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    if (size == 0) return 0;
    const bool sculpt = data[0] & 1;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    if (sculpt) {
        SculptEdits edits;
        try {
            edits = SculptEdits::fromJson(text);
        } catch (const SchemaError&) {
            return 0;
        }
        const std::string written = edits.toJson();
        const SculptEdits reread = SculptEdits::fromJson(written);
        if (!(reread == edits) || reread.toJson() != written) __builtin_trap();
        return 0;
    }
    std::vector<CorrectiveLayer> layers;
    try {
        layers = correctiveLayersFromJson(text);
    } catch (const SchemaError&) {
        return 0;
    }
    const std::string written = correctiveLayersToJson(layers);
    const std::vector<CorrectiveLayer> reread = correctiveLayersFromJson(written);
    if (!(reread == layers) || correctiveLayersToJson(reread) != written) __builtin_trap();
    return 0;
}
