#include "base/document.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace velmorin {

using Json = nlohmann::ordered_json;

bool isWholeVersion(const Json& version) {
    // Unsigned first: nlohmann counts an unsigned number as an integer too.
    if (version.is_number_unsigned()) return version.get<std::uint64_t>() >= 1;
    if (version.is_number_integer()) return version.get<std::int64_t>() >= 1;
    if (!version.is_number_float()) return false;
    const double number = version.get<double>();
    return std::isfinite(number) && number >= 1.0 && std::floor(number) == number;
}

std::string versionText(const Json& version) {
    if (version.is_number_float()) {
        const double number = version.get<double>();
        if (std::floor(number) == number && std::fabs(number) < 1e15) {
            return std::to_string(static_cast<std::int64_t>(number));
        }
    }
    return version.dump();
}

int checkFormatVersion(const Json& doc, int supported, std::string_view what) {
    auto found = doc.find("version");
    if (found == doc.end()) return 1;
    const Json& version = *found;
    if (!isWholeVersion(version)) {
        throw SchemaError(std::string(what) + ": version " + version.dump() +
                          " is not a whole number from 1");
    }
    if (version.get<double>() > supported) {
        throw SchemaError(std::string(what) + " is of version " + versionText(version) +
                          ", newer than this Velmorin reads: update Velmorin");
    }
    return static_cast<int>(version.get<double>());
}

bool isBlankDocument(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; });
}

std::optional<Json> openDocument(std::string_view text, const DocumentFormat& format) {
    if (isBlankDocument(text)) return std::nullopt;
    Json doc;
    try {
        doc = Json::parse(text.begin(), text.end());
    } catch (const Json::exception& error) {
        throw SchemaError(std::string(format.invalidJson) + error.what());
    }
    if (!doc.is_object()) throw SchemaError(std::string(format.notAnObject));
    const auto version = doc.find("version");
    if (version == doc.end() || (format.keysAreNames && version->is_object())) return doc;
    if (!format.newerVersion.empty() && isWholeVersion(*version) &&
        version->get<double>() > format.version) {
        throw SchemaError(std::string(format.newerVersion));
    }
    checkFormatVersion(doc, format.version, format.kind);
    return doc;
}

}  // namespace velmorin
