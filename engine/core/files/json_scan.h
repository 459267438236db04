#pragma once
// A fast JSON scanner for the groom file's bulk, beside the JSON library. A groom of 50k guides is
// some 200 MB of numbers: building a JSON value for each of them, and dumping the guide data back
// to text, would take seconds. The scanner reads plain JSON (RFC 8259, UTF-8) in one pass: long
// arrays of numbers go straight into packed doubles, and the payload sections that are kept as text
// are checked and copied without blanks, never parsed into a tree.
//
// It vouches only for what it fully understands. Whatever it does not (an error, a number out of
// range, very deep nesting) it hands back as nothing, and the caller asks the JSON library, whose
// answer and words stand. So a text reads the same either way, only slower.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace velmorin::detail {

// The binary subtypes that mark what only the scanner makes (a JSON text can't hold a binary
// value, so a file can't pass one off as the other).
inline constexpr std::uint8_t kPackedNumbers = 1;  // doubles, 8 bytes each
inline constexpr std::uint8_t kRawJson = 2;        // a section's JSON text without blanks

// Arrays of at least this many numbers are packed.
inline constexpr std::size_t kPackAtLeast = 4;

// The text of one JSON value without the blanks between tokens; nothing when the scanner can't
// vouch for it.
std::optional<std::string> compactJson(std::string_view text);

// The whole text as a tree, with arrays of kPackAtLeast numbers or more as kPackedNumbers binaries
// and the values of the top-level keys in `rawKeys` as kRawJson binaries; nothing when the scanner
// can't vouch for it.
std::optional<nlohmann::ordered_json> scanJson(std::string_view text,
                                               std::span<const std::string_view> rawKeys);

// The doubles of a kPackedNumbers binary, copied out.
std::size_t packedCount(const nlohmann::ordered_json& json);
double packedAt(const nlohmann::ordered_json& json, std::size_t index);
bool isPacked(const nlohmann::ordered_json& json);
// The text of a kRawJson binary, or nothing for any other value.
std::optional<std::string> rawText(const nlohmann::ordered_json& json);

}  // namespace velmorin::detail
