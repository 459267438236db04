#pragma once
// The velmorin command-line tool: `velmorin COMMAND [flags] [GROOM]`, where COMMAND is a Maya
// command's name without its prefix ("exportUsd" for velmorinExportUsd) or one of the tool's own
// (new, param, demo). Answers go to `out`, messages to `err`.

#include <ostream>
#include <span>
#include <string>

namespace velmorin {

class CommandBackend;

// Exit codes: 0 for an answer, 1 for a command that failed (or says that what it was asked about
// is bad), 2 for bad usage (an unknown command or flag, a wrong value, a broken flag rule).
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// Runs the tool on `args` (without the program's name).
int velmorinMain(std::span<const std::string> args, CommandBackend& backend, std::ostream& out,
                 std::ostream& err);

}  // namespace velmorin
