// The groom file reader from any bytes: every input gives a GroomFile or GroomFileError, never a
// crash, a leak or a hang. A groom that reads must write a text that reads back to the same content
// and writes the same bytes again (unless a name of it would pass for a float block, which the
// writer refuses), and turning it to the other up axis and back must give the same content. The
// fast scanner must read alike with the JSON library whenever it vouches for a text. The same
// bytes also go through the host's bake-list reader.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "files/groom_file.h"
#include "files/json_scan.h"

namespace {

using velmorin::GroomFile;
using velmorin::GroomFileError;

using Json = nlohmann::ordered_json;

Json unpacked(const Json& json) {
    if (velmorin::detail::isPacked(json)) {
        Json out = Json::array();
        for (std::size_t i = 0; i < velmorin::detail::packedCount(json); ++i)
            out.push_back(velmorin::detail::packedAt(json, i));
        return out;
    }
    if (auto text = velmorin::detail::rawText(json)) return Json::parse(*text);
    Json out = json;
    if (out.is_structured()) {
        for (auto& [key, value] : out.items())
            value = unpacked(value);
    }
    return out;
}

// Whatever the scanner vouches for, the library reads to the same tree.
void scanner(std::string_view text) {
    const std::string_view raw[] = {"graph", "hierarchy"};
    const auto scanned = velmorin::detail::scanJson(text, raw);
    const auto compact = velmorin::detail::compactJson(text);
    if (!scanned && !compact && !velmorin::detail::scanJson(text, raw, 0)) return;
    const Json library = Json::parse(text.begin(), text.end(), nullptr, false);
    if (library.is_discarded()) __builtin_trap();
    if (scanned && unpacked(*scanned) != library) __builtin_trap();
    // Member by member in parallel, an object reads the same as in one pass.
    const auto inParallel = velmorin::detail::scanJson(text, raw, 0);
    if (inParallel && (!scanned || *inParallel != *scanned)) __builtin_trap();
    if (scanned && scanned->is_object() && !inParallel) __builtin_trap();
    if (compact && Json::parse(*compact) != library) __builtin_trap();
}

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
    scanner(text);
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

    // Turning to the other up axis and back gives every piece back as it was, but for one thing:
    // a Mirror that leaves its side to the default has it written out where the turn flips it.
    // So the graph is compared from the second round on, once every side is stated.
    const std::string axis = file.upAxis;
    const auto roundTrip = [&] {
        velmorin::convertUpAxis(file, axis == "Y" ? "Z" : "Y");
        velmorin::convertUpAxis(file, axis);
        return velmorin::groomContentHashes(file);
    };
    auto turned = roundTrip();
    turned.erase("graph");
    auto unturned = hashes;
    unturned.erase("graph");
    if (turned != unturned) __builtin_trap();
    const auto stated = velmorin::groomContentHashes(file);
    if (roundTrip() != stated) __builtin_trap();
    return 0;
}
