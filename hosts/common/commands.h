#pragma once
// The host commands, independent of any host: their flag tables, the rules between their flags,
// and the answers of those that need no groom. Maya's command classes and the velmorin
// command-line tool both run them through runCommand; what needs a live groom (a session, the
// groom file, the writers) is reached through a CommandBackend that the host binds.

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/command_flags.h"

namespace velmorin {

class ProgressReporter;

// The version that velmorinVersion reports.
inline constexpr std::string_view kVelmorinVersion = "0.35.2";

// Every command of the tables, queries first (in the order the plug-in registers them), then the
// exports and the import.
const std::vector<CommandSpec>& commandSpecs();
// By Maya name ("velmorinExportUsd") or command-line name ("exportUsd"); null when unknown.
const CommandSpec* findCommand(std::string_view name);

// The text Maya shows for a failed command: "Velmorin " + command + ": " + what; the graph stats
// command says "velmorinGraphStats: " + what.
std::string commandErrorText(const CommandSpec& spec, std::string_view what);

// The frames of an export from its -startFrame, -endFrame and -step, with `currentFrame` standing
// in for a start that isn't given. Throws the rules' usage messages ("-step must be positive",
// "-endFrame is before -startFrame"). The end frame is always among them, even where the step
// does not land on it.
std::vector<double> exportFrames(const ParsedFlags& flags, double currentFrame);

// The frame loop of an export: hands each frame to `writeFrame`, which returns how many strands it
// wrote, with the progress bar going, and gives the command's answer: "wrote 3 frame(s), 1200
// strands per frame on average, to out.abc". An exception from `writeFrame` ends the loop and
// reaches the caller.
std::string runFrameExport(std::span<const double> frames, const std::string& path,
                           ProgressReporter& progress,
                           const std::function<std::size_t(double frame)>& writeFrame);

// Checks the rules between a command's flags (required flags, ranges, flags that exclude or need
// each other). Throws CommandError (usage) with the rule's sentence.
void checkFlags(const CommandSpec& spec, const ParsedFlags& flags);

// What a command was asked, as the backend receives it.
struct CommandRequest {
    const CommandSpec& spec;
    const ParsedFlags& flags;
    std::string groom;  // the groom named (a file for the command-line host); may be empty
    ProgressReporter& progress;
};

// What needs a groom: the host binds these to its session, groom files and writers. Each returns
// the command's answer text, or throws (CommandError or any std::exception: the host reports its
// text). The base class answers for a build without them: "<what> is not available in this build".
class CommandBackend {
  public:
    virtual ~CommandBackend();
    virtual std::string exportAlembic(const CommandRequest& request);
    virtual std::string exportUsd(const CommandRequest& request);
    virtual std::string exportGroom(const CommandRequest& request);
    virtual std::string importGroom(const CommandRequest& request);
    // velmorinGraphStats on a groom (rather than on a graph file).
    virtual std::string groomGraphStats(const CommandRequest& request);
};

// The answer of a command that ran: its text (JSON for most) and whether it says that what was
// asked about is bad (an expression that doesn't compile), which a shell sees as a failure.
struct CommandAnswer {
    std::string text;
    bool ok = true;
};

// Reads the arguments, checks the flags' rules and runs the command. Throws CommandError: usage
// for the flags and their rules, failure for the work; a backend may throw other exceptions.
CommandAnswer runCommand(const CommandSpec& spec, std::span<const std::string> args,
                         CommandBackend& backend, ProgressReporter& progress);

}  // namespace velmorin
