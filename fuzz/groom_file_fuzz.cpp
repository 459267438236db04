// The groom file reader from any bytes: every input gives a GroomFile or GroomFileError, never a
// crash, a leak or a hang. A groom that reads must write a text that reads back to the same content
// and writes the same bytes again (unless a name of it would pass for a float block, which the
// writer refuses), and turning it to the other up axis and back must give the same content. The
// same bytes also go through the host's bake-list reader.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "files/groom_file.h"

namespace {

using velmorin::GroomFile;
using velmorin::GroomFileError;

void bakeList(std::string_view text) {
    try {
        const velmorin::SimCaches caches = velmorin::simCachesFromJson(text);
        if (velmorin::simCachesFromJson(velmorin::simCachesToJson(caches)) != caches) {
            __builtin_trap();
        }
    } catch (const GroomFileError&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    bakeList(text);

    GroomFile file;
    try {
        file = velmorin::parseGroom(text);
    } catch (const GroomFileError&) {
        return 0;
    }
    const auto hashes = velmorin::groomContentHashes(file);

    std::string written;
    try {
        written = velmorin::writeGroom(file);
    } catch (const GroomFileError& error) {
        // Only a text shaped like a float block's placeholder may stop a groom that was read.
        if (std::string_view(error.what()).find(velmorin::kFloatBlockPrefix) ==
            std::string_view::npos) {
            __builtin_trap();
        }
        return 0;
    }
    const GroomFile reread = velmorin::parseGroom(written);
    if (velmorin::groomContentHashes(reread) != hashes) __builtin_trap();
    if (velmorin::writeGroom(reread) != written) __builtin_trap();

    const std::string axis = file.upAxis;
    velmorin::convertUpAxis(file, axis == "Y" ? "Z" : "Y");
    velmorin::convertUpAxis(file, axis);
    if (velmorin::groomContentHashes(file) != hashes) __builtin_trap();
    return 0;
}
