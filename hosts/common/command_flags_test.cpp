#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/commands.h"
#include "common/progress.h"

namespace velmorin {
namespace {

const CommandSpec& spec(std::string_view name) {
    const CommandSpec* found = findCommand(name);
    EXPECT_NE(found, nullptr) << name;
    return *found;
}

ParsedFlags parse(std::string_view command, std::vector<std::string> args) {
    return parseFlags(spec(command), args);
}

// The words of a command line as a shell splits it (no quoting in these tests).
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

// The message of the usage error that reading and checking `args` gives, or "" for none.
std::string usageMessage(std::string_view command, std::vector<std::string> args) {
    try {
        const ParsedFlags flags = parse(command, args);
        checkFlags(spec(command), flags);
    } catch (const CommandError& error) {
        EXPECT_EQ(error.kind(), CommandError::Kind::Usage) << error.what();
        return error.what();
    }
    return "";
}

TEST(CommandTables, NamesAreUniqueAndEveryFlagHasBothForms) {
    std::set<std::string_view> commandNames;
    for (const CommandSpec& command : commandSpecs()) {
        EXPECT_TRUE(commandNames.insert(command.name).second) << command.name;
        EXPECT_TRUE(commandNames.insert(command.cliName).second) << command.cliName;
        // The tool's name is the Maya name without its prefix, in lower camel case.
        std::string expected(command.cliName);
        expected[0] = static_cast<char>(std::toupper(expected[0]));
        EXPECT_EQ(command.name, "velmorin" + expected);
        std::set<std::string_view> flagNames;
        for (const FlagSpec& flag : command.flags) {
            EXPECT_FALSE(flag.shortName.empty()) << command.name << " -" << flag.longName;
            EXPECT_FALSE(flag.meaning.empty()) << command.name << " -" << flag.longName;
            EXPECT_TRUE(flagNames.insert(flag.shortName).second)
                << command.name << " -" << flag.shortName;
            EXPECT_TRUE(flagNames.insert(flag.longName).second)
                << command.name << " -" << flag.longName;
            // -h is the help of the command-line tool.
            EXPECT_NE(flag.shortName, "h") << command.name;
        }
    }
    EXPECT_EQ(findCommand("velmorinExportUsd"), findCommand("exportUsd"));
    EXPECT_EQ(findCommand("exportVrscene"), nullptr);
}

TEST(CommandTables, FrameExportsShareTheCommonFlags) {
    for (const char* command : {"exportAlembic", "exportUsd"}) {
        const CommandSpec& s = spec(command);
        for (const auto& [shortName, longName, type] :
             std::vector<std::tuple<const char*, const char*, FlagType>>{
                 {"f", "file", FlagType::String},
                 {"sf", "startFrame", FlagType::Double},
                 {"ef", "endFrame", FlagType::Double},
                 {"s", "step", FlagType::Double},
                 {"d", "density", FlagType::Double},
                 {"ro", "renderOverrides", FlagType::Bool},
                 {"sc", "scalpCache", FlagType::String},
                 {"so", "scalpObject", FlagType::String},
                 {"gc", "guideCache", FlagType::String},
                 {"go", "guideObject", FlagType::String}}) {
            const FlagSpec* flag = s.findFlag(shortName);
            ASSERT_NE(flag, nullptr) << command << " -" << shortName;
            EXPECT_EQ(flag->longName, longName);
            EXPECT_EQ(flag->type, type) << command << " -" << longName;
        }
    }
}

TEST(ParseFlags, ReadsEveryFormAndType) {
    const ParsedFlags flags =
        parse("exportAlembic", {"-f", "a.abc", "--startFrame", "-5", "--endFrame=12.5", "-pps",
                                "16", "-sh", "on", "-ue", "groom.groom"});
    EXPECT_EQ(flags.string("file"), "a.abc");
    EXPECT_EQ(flags.number("startFrame"), -5.0);
    EXPECT_EQ(flags.number("endFrame"), 12.5);
    EXPECT_EQ(flags.integer("pointsPerStrand"), 16);
    EXPECT_EQ(flags.number("pointsPerStrand"), 16.0);
    EXPECT_EQ(flags.boolean("shafts"), true);
    EXPECT_EQ(flags.boolean("unreal"), true);
    EXPECT_FALSE(flags.has("unity"));
    EXPECT_EQ(flags.positional(), std::vector<std::string>{"groom.groom"});
    EXPECT_EQ(flags.order(), (std::vector<std::string>{"file", "startFrame", "endFrame",
                                                       "pointsPerStrand", "shafts", "unreal"}));
    // A bare negative number is an argument, not a flag; after "--" everything is.
    EXPECT_EQ(parse("exportUsd", {"-3"}).positional(), std::vector<std::string>{"-3"});
    const ParsedFlags ended = parse("exportUsd", {"-f", "a", "--", "-f", "--"});
    EXPECT_EQ(ended.string("file"), "a");
    EXPECT_EQ(ended.positional(), (std::vector<std::string>{"-f", "--"}));
}

TEST(ParseFlags, BoolWords) {
    for (const char* word : {"true", "On", "yes", "1"})
        EXPECT_EQ(parse("exportAlembic", {"-shafts", word}).boolean("shafts"), true) << word;
    for (const char* word : {"false", "OFF", "no", "0"})
        EXPECT_EQ(parse("exportAlembic", {"-shafts", word}).boolean("shafts"), false) << word;
}

TEST(ParseFlags, RefusesWithTheExactWords) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"-x"}, "unknown flag '-x'"},
        {{"--f", "a"}, "unknown flag '--f'"},
        {{"--nope=3"}, "unknown flag '--nope'"},
        {{"-file"}, "-file needs a value"},
        {{"-sf", "ten"}, "-startFrame takes a number, not 'ten'"},
        {{"-sf", "1e999"}, "-startFrame takes a number, not '1e999'"},
        {{"-sf", "nan"}, "-startFrame takes a number, not 'nan'"},
        {{"-pps", "2.5"}, "-pointsPerStrand takes a whole number, not '2.5'"},
        {{"-sh", "maybe"}, "-shafts takes true or false (on, off, yes, no, 1, 0), not 'maybe'"},
        {{"--unreal=1"}, "-unreal takes no value"},
        {{"-f", "a", "-file", "b"}, "-file is given twice"},
    };
    for (const auto& [args, message] : cases) {
        try {
            parse("exportAlembic", args);
            ADD_FAILURE() << "accepted " << message;
        } catch (const CommandError& error) {
            EXPECT_EQ(error.kind(), CommandError::Kind::Usage);
            EXPECT_EQ(std::string(error.what()), message);
        }
    }
}

TEST(CheckFlags, RulesOfTheExports) {
    const struct {
        const char* command;
        const char* line;
        std::string message;
    } cases[] = {
        {"exportUsd", "", "-file is required"},
        {"exportUsd", "-f a -s 0", "-step must be positive"},
        {"exportUsd", "-f a -sf 10 -ef 5", "-endFrame is before -startFrame"},
        {"exportUsd", "-f a -d 1.5", "-density must be between 0 and 1"},
        {"exportUsd", "-f a -scl cubes", "-scales must be mesh, instancer, both or none"},
        {"exportUsd", "-f a -sf 0 -ef 1e9 -s 0.001",
         "-startFrame to -endFrame by -step makes more than 1000000 frames"},
        {"exportAlembic", "-f a -gg g -gp", "use -guideGroup or -guidePoses, not both"},
        {"exportAlembic", "-f a -ue -uty", "use -unreal or -unity, not both"},
        {"exportAlembic", "-f a -fg on", "-fg goes with -unreal"},
        {"exportAlembic", "-f a -grp auto", "-groups goes with -unreal or -unity"},
        {"exportAlembic", "-f a -ue -gp",
         "-unreal writes its own guides; leave out -guideGroup and -guidePoses"},
        {"exportAlembic", "-f a -ue -sca 2",
         "-unreal writes Unreal's units and layout; leave out -scale, -pointsPerStrand and "
         "-vertexUVs"},
        {"exportAlembic", "-f a -ue -vertexUVs",
         "-unreal writes Unreal's units and layout; leave out -scale, -pointsPerStrand and "
         "-vertexUVs"},
        {"exportAlembic", "-f a -uty -gg g",
         "-unity writes the strands; leave out -guideGroup and -guidePoses"},
        {"exportAlembic", "-f a -bpp 4", "-barbPoints and -maxStrandsPerGroup go with -groups"},
        {"exportAlembic", "-f a -bd 0", "-barbDensity must be above 0 and at most 1"},
        {"exportAlembic", "-f a -bws -1", "-barbWidthScale must be positive"},
        {"exportAlembic", "-f a -sca 0", "-scale must be positive"},
        {"exportAlembic", "-f a -pps 1", "-pointsPerStrand must be 0 or 2 to 4096"},
        {"exportAlembic", "-f a -pps 4097", "-pointsPerStrand must be 0 or 2 to 4096"},
        {"exportAlembic", "-f a -uty -grp auto -bpp 1", "-barbPoints must be 0 or 2 to 4096"},
        {"exportAlembic", "-f a -ue -grp auto -msg -1",
         "-maxStrandsPerGroup must be 0 (no limit) or more"},
        {"exportAlembic", "-f a -scl instancer",
         "-scales must be mesh or none (an instancer goes to USD)"},
        {"exportGroom", "-n x", "-file is required"},
        {"importGroom", "-i", "-file is required"},
        {"importGroom", "-f a -i -ms", "give one of -info, -checkScalp and -makeScalp"},
        {"expression", "-v {}", "-variables goes with -check"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(usageMessage(c.command, words(c.line)), c.message) << c.command << " " << c.line;
    // And what the rules let through.
    const struct {
        const char* command;
        const char* line;
    } allowed[] = {
        {"exportUsd", "-f a -sf 5 -ef 5 -d 0 -scl both"},
        {"exportUsd", "-f a -ef -20"},
        {"exportAlembic", "-f a -ue -fg on -grp auto -bpp 0 -msg 0 -bd 1 -scl none"},
        {"exportAlembic", "-f a -pps 4096 -sca 0.5 -gg primary"},
        {"importGroom", "-f a -cs pSphere1"},
    };
    for (const auto& c : allowed)
        EXPECT_EQ(usageMessage(c.command, words(c.line)), "") << c.command << " " << c.line;
}

TEST(ExportFrames, RangeStepAndCurrentFrame) {
    const auto frames = [](std::vector<std::string> args, double current) {
        return exportFrames(parse("exportUsd", args), current);
    };
    EXPECT_EQ(frames({}, 7.0), std::vector<double>{7.0});
    EXPECT_EQ(frames({"-ef", "9"}, 7.0), (std::vector<double>{7.0, 8.0, 9.0}));
    EXPECT_EQ(frames({"-sf", "1", "-ef", "2", "-s", "0.25"}, 0.0),
              (std::vector<double>{1.0, 1.25, 1.5, 1.75, 2.0}));
    // The end is written even where the step passes it by.
    EXPECT_EQ(frames({"-sf", "0", "-ef", "1", "-s", "0.4"}, 0.0),
              (std::vector<double>{0.0, 0.4, 0.8, 1.0}));
    const auto tenths = frames({"-sf", "0", "-ef", "1", "-s", "0.1"}, 0.0);
    ASSERT_EQ(tenths.size(), 11u);
    EXPECT_DOUBLE_EQ(tenths[3], 0.3);
    // Only the groom knows its current frame: a start after the end given is refused then.
    try {
        frames({"-ef", "3"}, 7.0);
        ADD_FAILURE() << "accepted an end before the current frame";
    } catch (const CommandError& error) {
        EXPECT_EQ(std::string(error.what()), "-endFrame is before -startFrame");
    }
}

TEST(RunFrameExport, WritesEveryFrameAndSaysWhatItWrote) {
    std::ostringstream bar;
    ProgressReporter progress(bar, 4);
    std::vector<double> written;
    const std::vector<double> frames = {1.0, 1.5, 2.0};
    const std::string answer = runFrameExport(frames, "out.abc", progress, [&](double frame) {
        written.push_back(frame);
        return static_cast<std::size_t>(100 * written.size());  // 100, 200, 300
    });
    EXPECT_EQ(answer, "wrote 3 frame(s), 200 strands per frame on average, to out.abc");
    EXPECT_EQ(written, frames);
    EXPECT_NE(bar.str().find("Writing frames [####] 100% (3/3)\n"), std::string::npos) << bar.str();

    // A failing frame ends the loop there and the bar's line with it.
    std::ostringstream stopped;
    ProgressReporter stoppedProgress(stopped, 4);
    written.clear();
    EXPECT_THROW(runFrameExport(frames, "out.abc", stoppedProgress,
                                [&](double frame) -> std::size_t {
                                    written.push_back(frame);
                                    if (frame > 1.2) throw std::runtime_error("disk full");
                                    return 1;
                                }),
                 std::runtime_error);
    EXPECT_EQ(written, (std::vector<double>{1.0, 1.5}));
    EXPECT_EQ(stopped.str().back(), '\n');
}

TEST(CommandHelp, ListsEveryFlagWithItsTypeAndMeaning) {
    const std::string help = commandHelp(spec("exportUsd"), "velmorin");
    EXPECT_EQ(help.rfind("usage: velmorin exportUsd [flags] GROOM\n", 0), 0u) << help;
    EXPECT_NE(help.find("-f, -file string"), std::string::npos) << help;
    EXPECT_NE(help.find("-ro, -renderOverrides bool"), std::string::npos) << help;
    EXPECT_NE(help.find("Scales as mesh, instancer, both or none"), std::string::npos);
    for (const FlagSpec& flag : spec("exportAlembic").flags)
        EXPECT_NE(commandHelp(spec("exportAlembic"), "velmorin").find(flag.meaning),
                  std::string::npos)
            << flag.longName;
    EXPECT_EQ(commandHelp(spec("version"), "velmorin"),
              "usage: velmorin version\n\nPrints the version of Velmorin.\n");
    EXPECT_EQ(commandHelp(spec("graphStats"), "velmorin")
                  .rfind("usage: velmorin graphStats [flags] [GROOM]\n", 0),
              0u);
}

TEST(CommandErrorText, MayaForms) {
    EXPECT_EQ(commandErrorText(spec("exportUsd"), "-file is required"),
              "Velmorin velmorinExportUsd: -file is required");
    EXPECT_EQ(commandErrorText(spec("graphStats"), "name a velmorinShape"),
              "velmorinGraphStats: name a velmorinShape");
}

// The commands that need a groom validate their flags, then reach the backend, which in a build
// without one says so.
TEST(RunCommand, BackendIsReachedOnlyWithValidFlags) {
    struct Recorder : CommandBackend {
        std::vector<std::string> calls;
        std::string exportUsd(const CommandRequest& request) override {
            calls.push_back("usd " + request.groom + " " + *request.flags.string("file"));
            return "ok";
        }
    };
    Recorder recorder;
    ProgressReporter quiet;
    const auto run = [&](std::string_view command, std::vector<std::string> args,
                         CommandBackend& backend) {
        return runCommand(spec(command), args, backend, quiet).text;
    };
    EXPECT_EQ(run("exportUsd", {"-f", "out.usda", "g.groom"}, recorder), "ok");
    EXPECT_THROW(run("exportUsd", {"-f", "out.usda", "-s", "-1", "g.groom"}, recorder),
                 CommandError);
    EXPECT_EQ(recorder.calls, std::vector<std::string>{"usd g.groom out.usda"});

    CommandBackend none;
    const std::vector<std::tuple<const char*, std::vector<std::string>, std::string>> cases = {
        {"exportUsd", {"-f", "a", "g"}, "USD export is not available in this build"},
        {"exportAlembic", {"-f", "a", "g"}, "Alembic export is not available in this build"},
        {"exportGroom", {"-f", "a", "g"}, "Writing groom files is not available in this build"},
        {"importGroom", {"-f", "a", "-i"}, "Reading groom files is not available in this build"},
        {"graphStats", {"g"}, "Graph stats of a groom is not available in this build"},
    };
    for (const auto& [command, args, start] : cases) {
        try {
            run(command, args, none);
            ADD_FAILURE() << command;
        } catch (const CommandError& error) {
            EXPECT_EQ(error.kind(), CommandError::Kind::Failure);
            EXPECT_EQ(std::string(error.what()),
                      start + ": it needs the groom session and file support");
        }
    }
    for (const auto& [command, args, message] :
         std::vector<std::tuple<const char*, std::vector<std::string>, std::string>>{
             {"exportUsd", {"-f", "a"}, "name a groom"},
             {"importGroom", {"-f", "a"}, "name the velmorinShape to read the file into"},
             {"version", {"extra"}, "unexpected argument 'extra'"},
             {"exportUsd", {"-f", "a", "g", "h"}, "unexpected argument 'h'"}}) {
        try {
            run(command, args, none);
            ADD_FAILURE() << command;
        } catch (const CommandError& error) {
            EXPECT_EQ(error.kind(), CommandError::Kind::Usage);
            EXPECT_EQ(std::string(error.what()), message);
        }
    }
}

}  // namespace
}  // namespace velmorin
