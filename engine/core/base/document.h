#pragma once
// Versioned JSON documents: the error of a document whose structure is wrong, the format-version
// rule every document shares, and the one way a document's text is opened (blank text, the JSON
// library's errors, an object at the top, its "version"), so that guide, part, flow and map data
// refuse the same faults in the same way, each in its own words.

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace velmorin {

// A document's structure is wrong: its JSON, its version or what its keys hold.
class SchemaError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Checks the "version" of a document against the newest version this Velmorin reads and returns it
// (1 when absent). `what` names the document in messages ("graph JSON", "node file"...). Throws
// SchemaError "<what> is of version N, newer than this Velmorin reads: update Velmorin", or
// "<what>: version V is not a whole number from 1".
int checkFormatVersion(const nlohmann::ordered_json& doc, int supported, std::string_view what);

// Whether a "version" value is a whole number from 1: an integer, or a float without a fraction.
bool isWholeVersion(const nlohmann::ordered_json& version);
// A version value as messages show it: a whole float without its ".0" (4.0 shows as 4).
std::string versionText(const nlohmann::ordered_json& version);

// How one kind of document is opened, and the words of its faults.
struct DocumentFormat {
    std::string_view kind;         // names the document in version messages: "flow data"
    int version = 1;               // the newest format version this Velmorin reads
    std::string_view invalidJson;  // put before the JSON library's message: "invalid flow data: "
    std::string_view notAnObject;  // the whole message for a document that is not an object
    // Replaces the shared words for a version above `version`, where a format has its own.
    std::string_view newerVersion = {};
    // The document's keys are names the user chose, so a "version" that holds an object is an
    // entry of that name rather than the format's version.
    bool keysAreNames = false;
};

// Whether a document's text holds nothing but white space: an empty document.
bool isBlankDocument(std::string_view text);

// Parses a document's text and checks its version (checkFormatVersion with the format's kind).
// Nothing for blank text. Throws SchemaError: the format's invalidJson followed by the library's
// message, its notAnObject, or the version's words.
std::optional<nlohmann::ordered_json> openDocument(std::string_view text,
                                                   const DocumentFormat& format);

}  // namespace velmorin
