#include "cli/cli.h"

#include <algorithm>
#include <exception>
#include <string_view>
#include <vector>

#include "common/commands.h"
#include "common/progress.h"
#include "common/render_command.h"
#include "common/session_backend.h"

namespace velmorin {
namespace {

constexpr std::string_view kProgram = "velmorin";

// The tool's own commands, which make and change groom files: new, param and demo.
const std::vector<const CommandSpec*>& toolCommands() {
    static const std::vector<const CommandSpec*> commands = {&newCommandSpec(), &paramCommandSpec(),
                                                             &demoCommandSpec()};
    return commands;
}

const CommandSpec* findToolCommand(std::string_view name) {
    for (const CommandSpec* command : toolCommands())
        if (command->cliName == name) return command;
    return nullptr;
}

std::string runToolCommand(const CommandSpec& spec, std::span<const std::string> args,
                           ProgressReporter& progress) {
    if (spec.cliName == "new") return runNewCommand(args);
    if (spec.cliName == "param") return runParamCommand(args);
    return runDemoCommand(args, progress);
}

std::string toolHelp() {
    std::string text = "usage: velmorin COMMAND [flags] [GROOM]\n\n";
    text += "Velmorin " + std::string(kVelmorinVersion) +
            ", the hair, fur and feather grooming engine, from the command line. Answers (JSON\n"
            "for most) go to standard output, messages to standard error. Exit codes: 0 done,\n"
            "1 the command failed, 2 bad usage.\n\ncommands:\n";
    std::size_t width = 0;
    for (const CommandSpec& spec : commandSpecs())
        width = std::max(width, spec.cliName.size());
    for (const CommandSpec* command : toolCommands())
        width = std::max(width, command->cliName.size());
    const auto line = [&](std::string_view name, std::string_view summary) {
        // The first sentence is enough for the list; the command's own help has the rest.
        const auto end = summary.find(". ");
        const std::string_view first =
            end == std::string_view::npos ? summary : summary.substr(0, end + 1);
        text += "  " + std::string(name) + std::string(width + 2 - name.size(), ' ') +
                std::string(first) + "\n";
    };
    for (const CommandSpec& spec : commandSpecs())
        line(spec.cliName, spec.summary);
    line(renderCommandSpec().cliName, renderCommandSpec().summary);
    for (const CommandSpec* command : toolCommands())
        line(command->cliName, command->summary);
    text += "\n'velmorin COMMAND --help' lists a command's flags.\n";
    return text;
}

bool asksForHelp(std::span<const std::string> args) {
    return std::any_of(args.begin(), args.end(),
                       [](const std::string& arg) { return arg == "--help" || arg == "-h"; });
}

int usageError(std::ostream& err, std::string_view command, std::string_view what) {
    err << kProgram << ' ' << command << ": " << what << "\n"
        << "Run 'velmorin " << command << " --help' for its flags.\n";
    return kExitUsage;
}

}  // namespace

int velmorinMain(std::span<const std::string> args, CommandBackend& backend, std::ostream& out,
                 std::ostream& err) {
    if (args.empty()) {
        err << toolHelp();
        return kExitUsage;
    }
    const std::string& name = args.front();
    if (name == "--help" || name == "-h" || name == "help") {
        if (name == "help" && args.size() > 1) {
            const std::vector<std::string> again = {args[1], "--help"};
            return velmorinMain(again, backend, out, err);
        }
        out << toolHelp();
        return kExitOk;
    }
    if (name == "--version") {
        out << kVelmorinVersion << "\n";
        return kExitOk;
    }
    const auto rest = args.subspan(1);
    // render is the tool's own command with a flag table, run like the host commands.
    const bool render = name == renderCommandSpec().cliName;
    const CommandSpec* tool = findToolCommand(name);
    const CommandSpec* spec = render ? &renderCommandSpec() : tool ? tool : findCommand(name);
    // Only the short names: the Maya names belong to Maya's script editor.
    if (!spec || spec->cliName != name) {
        err << kProgram << ": unknown command '" << name
            << "'. 'velmorin --help' lists the commands.\n";
        return kExitUsage;
    }
    if (asksForHelp(rest)) {
        out << commandHelp(*spec, kProgram);
        return kExitOk;
    }
    try {
        ProgressReporter& progress = ProgressReporter::forStandardError();
        const CommandAnswer answer = render ? CommandAnswer{runRenderCommand(rest, progress)}
                                     : tool ? CommandAnswer{runToolCommand(*tool, rest, progress)}
                                            : runCommand(*spec, rest, backend, progress);
        out << answer.text;
        if (!answer.text.empty() && answer.text.back() != '\n') out << '\n';
        return answer.ok ? kExitOk : kExitFailed;
    } catch (const CommandError& error) {
        if (error.kind() == CommandError::Kind::Usage)
            return usageError(err, spec->cliName, error.what());
        err << kProgram << ' ' << spec->cliName << ": " << error.what() << "\n";
    } catch (const std::exception& error) {
        err << kProgram << ' ' << spec->cliName << ": " << error.what() << "\n";
    } catch (...) {
        err << kProgram << ' ' << spec->cliName << ": unexpected error\n";
    }
    return kExitFailed;
}

}  // namespace velmorin
