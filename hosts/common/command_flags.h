#pragma once
// The flags of the host commands as data, and the reading of a command line against them. Maya
// builds its syntax from the same tables that the command-line host parses with, so the two hosts
// accept the same flags under the same names and say the same things about them.
//
// A flag is written with its short or long name after one dash ("-f", "-file"), or its long name
// after two ("--file"); a value follows as the next argument, or after "=" in the two-dash form
// ("--file=out.abc"). A value may itself begin with a dash ("-startFrame -5"). After "--" every
// argument is positional, for a groom whose file name begins with a dash.

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velmorin {

enum class FlagType : std::uint8_t { None, Bool, Int, Double, String };

// "none", "bool", "int", "double", "string": the words the help and the flag tables use.
std::string_view flagTypeName(FlagType type);

struct FlagSpec {
    std::string_view shortName;  // without the dash: "f"
    std::string_view longName;   // without the dash: "file"
    FlagType type = FlagType::None;
    std::string_view meaning;  // one line for the help
    bool multiUse = false;     // may be given more than once; every value is kept
};

// Whether a command works on a groom: the object argument in Maya, the GROOM argument of the
// command-line host.
enum class GroomArgument : std::uint8_t { None, Optional, Required };

struct CommandSpec {
    std::string_view name;     // the Maya command: "velmorinExportAlembic"
    std::string_view cliName;  // the command-line host's name: "exportAlembic"
    std::string_view summary;  // one line for the help
    std::vector<FlagSpec> flags;
    GroomArgument groom = GroomArgument::None;

    const FlagSpec* findFlag(std::string_view name) const;  // by short or long name, no dash
};

// Why a command stopped: bad usage (an unknown flag, a wrong value, a broken rule between flags)
// or a failure while it worked (a file that isn't there, a groom that can't be read). The text is
// the bare sentence; each host adds its own prefix (see commandErrorText).
class CommandError : public std::runtime_error {
  public:
    enum class Kind : std::uint8_t { Usage, Failure };
    CommandError(Kind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}
    Kind kind() const { return kind_; }

  private:
    Kind kind_;
};

[[noreturn]] void throwUsage(const std::string& what);
[[noreturn]] void throwFailure(const std::string& what);

using FlagValue = std::variant<bool, std::int64_t, double, std::string>;

// The flags of one command line, read against its command's table, by long name.
class ParsedFlags {
  public:
    bool has(std::string_view longName) const;
    // The value of a flag given once; nothing when absent. A None flag reads as true.
    std::optional<std::string> string(std::string_view longName) const;
    std::optional<double> number(std::string_view longName) const;  // Double or Int flags
    std::optional<std::int64_t> integer(std::string_view longName) const;
    std::optional<bool> boolean(std::string_view longName) const;  // Bool or None flags
    // Every value of a multi-use string flag, in the order given.
    std::vector<std::string> strings(std::string_view longName) const;

    // Arguments that are not flags nor flag values, in order.
    const std::vector<std::string>& positional() const { return positional_; }
    // The long names of the flags given, in the order first given.
    const std::vector<std::string>& order() const { return order_; }

  private:
    friend ParsedFlags parseFlags(const CommandSpec&, std::span<const std::string>);
    const std::vector<FlagValue>* values(std::string_view longName) const;

    std::map<std::string, std::vector<FlagValue>, std::less<>> values_;
    std::vector<std::string> order_;
    std::vector<std::string> positional_;
};

// Reads `args` (the words after the command's name) against `spec`. Throws CommandError (usage):
// "unknown flag '-x'", "-file needs a value", "-startFrame takes a number, not 'x'",
// "-pointsPerStrand takes a whole number, not 'x'", "-shafts takes true or false (on, off, yes,
// no, 1, 0), not 'x'", "-unreal takes no value", "-file is given twice".
ParsedFlags parseFlags(const CommandSpec& spec, std::span<const std::string> args);

// The help of one command: a usage line, its summary and one line per flag with both names, its
// type and its meaning. `program` begins the usage line ("velmorin").
std::string commandHelp(const CommandSpec& spec, std::string_view program);

}  // namespace velmorin
