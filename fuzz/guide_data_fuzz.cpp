// Guide data JSON and tube JSON from any bytes: every input gives a hierarchy or the reader's
// SchemaError, never a crash, a leak or a hang. The split-scan path and the whole parse must agree
// on every input, on the hierarchy or on the error, and a hierarchy that loads must write a text
// that reads back to the same bytes and survives a pose. The same bytes, when they parse as JSON,
// go through the tube readers, which answer with a value or std::invalid_argument.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "base/document.h"
#include "editing/guide_hierarchy.h"
#include "mesh/sample_meshes.h"

namespace {

using velmorin::GuideHierarchy;
using velmorin::GuideReadMode;

// The hierarchy, or the error's words.
std::string readAs(std::string_view text, GuideReadMode mode, GuideHierarchy& out) {
    try {
        out = GuideHierarchy::fromJson(text, mode);
    } catch (const velmorin::SchemaError& error) {
        return std::string("error: ") + error.what();
    }
    return out.toJson();
}

void tubes(std::string_view text) {
    using Json = nlohmann::ordered_json;
    const Json json = Json::parse(text.begin(), text.end(), nullptr, false);
    if (json.is_discarded()) return;
    velmorin::TubeShapeLibrary library;
    try {
        library.emplace("shape", velmorin::parseCustomTubeShape("shape", json));
    } catch (const std::invalid_argument&) {
    }
    try {
        const velmorin::TubeFields tube = velmorin::parseTubeFields(json, library);
        velmorin::tubeValuesAt(tube, 0.5f);
        velmorin::sampleInside(tube, 0.25f, 7);
    } catch (const std::invalid_argument&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    tubes(text);

    GuideHierarchy automatic, whole;
    const std::string first = readAs(text, GuideReadMode::Automatic, automatic);
    if (readAs(text, GuideReadMode::WholeParse, whole) != first) __builtin_trap();
    if (first.rfind("error: ", 0) == 0) return 0;
    if (automatic.contentHash() != whole.contentHash()) __builtin_trap();

    // What was written reads back to the same bytes, by the split scan unless a name holds an
    // escape or a character beyond printable ASCII, DEL included, which JSON leaves unescaped (the
    // element reader leaves those to the whole parse).
    bool split = false;
    const GuideHierarchy reread = GuideHierarchy::fromJson(first, GuideReadMode::Automatic, &split);
    if (reread.toJson() != first) __builtin_trap();
    const bool plainText = std::none_of(first.begin(), first.end(), [](char c) {
        return c == '\\' || static_cast<unsigned char>(c) >= 0x7f;
    });
    if (plainText && !split) __builtin_trap();

    // Posing small hierarchies exercises following, binding and clearance on what was read.
    if (automatic.guides().size() <= 64) {
        static const auto plane = velmorin::makeUvPlane(2.0f, 2);
        automatic.pose(*plane);
        automatic.toJson();
    }
    return 0;
}
