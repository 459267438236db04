// The velmorin tool as a user runs it: each case spawns the executable and checks its exit code,
// its answer on standard output and its message on standard error.

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/commands.h"
#include "common/render_command.h"
#include "expr/expression.h"
#include "expr/function_table.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/registry.h"

extern char** environ;

namespace velmorin {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

struct ToolRun {
    int exit = -1;
    std::string out;
    std::string err;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A folder of its own per test, removed after it.
class Folder {
  public:
    Folder() {
        std::string pattern = (fs::temp_directory_path() / "velmorin_cli_XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~Folder() { fs::remove_all(path_); }
    fs::path operator/(const std::string& name) const { return path_ / name; }
    fs::path write(const std::string& name, const std::string& text) const {
        std::ofstream(path_ / name, std::ios::binary) << text;
        return path_ / name;
    }

  private:
    fs::path path_;
};

// Runs the tool with `args`, its output and messages caught in files (no pipe to fill up). With
// `terminal`, its messages go to a pseudo-terminal instead, as when a person watches.
ToolRun velmorin(const std::vector<std::string>& args, bool terminal = false) {
    Folder folder;
    const std::string outPath = (folder / "out").string();
    const std::string errPath = (folder / "err").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int master = -1, slave = -1;
    if (terminal) {
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        posix_spawn_file_actions_adddup2(&actions, slave, STDERR_FILENO);
        posix_spawn_file_actions_addclose(&actions, master);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    std::vector<std::string> all = {VELMORIN_EXECUTABLE};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : all)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    ToolRun run;
    const int spawned =
        posix_spawn(&pid, VELMORIN_EXECUTABLE, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(spawned, 0) << "cannot start " << VELMORIN_EXECUTABLE;
    if (spawned != 0) return run;
    int status = 0;
    waitpid(pid, &status, 0);
    run.exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = readFile(outPath);
    if (terminal) {
        // What the child wrote waits in the terminal's buffer; with our end of the slave closed,
        // reading past it ends the stream.
        close(slave);
        char buffer[4096];
        for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
            run.err.append(buffer, static_cast<std::size_t>(n));
        close(master);
    } else {
        run.err = readFile(errPath);
    }
    return run;
}

// The first line of the messages.
std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

// Scalp, guides, Scatter, Interpolate and Length: a graph of operators that exist today.
constexpr const char* kGraph = R"({
  "version": 1,
  "nodes": [
    {"name": "scalp", "type": "Scalp"},
    {"name": "guides", "type": "Guides"},
    {"name": "scatter", "type": "Scatter", "params": {"density": 20}},
    {"name": "interpolate", "type": "Interpolate"},
    {"name": "length", "type": "Length"}
  ],
  "connections": [
    {"from": "scalp", "to": "scatter", "input": "scalp"},
    {"from": "scatter", "to": "interpolate", "input": "strands"},
    {"from": "guides", "to": "interpolate", "input": "guides"},
    {"from": "scalp", "to": "interpolate", "input": "scalp"},
    {"from": "interpolate", "to": "length", "input": "strands"}
  ],
  "output": "length"
})";

// A square of two triangles facing up.
constexpr const char* kPlaneObj = "v -1 0 -1\nv 1 0 -1\nv 1 0 1\nv -1 0 1\nf 1 4 3\nf 1 3 2\n";

TEST(VelmorinTool, QueryAnswers) {
    for (const char* args : {"version", "--version"}) {
        const ToolRun run = velmorin({args});
        EXPECT_EQ(run.exit, 0);
        EXPECT_EQ(run.out, "0.35.2\n");
        EXPECT_EQ(run.err, "");
    }
    const ToolRun graph = velmorin({"defaultGraph"});
    EXPECT_EQ(graph.exit, 0);
    EXPECT_EQ(graph.out, defaultGraphJson() + "\n");

    const ToolRun operators = velmorin({"operators"});
    EXPECT_EQ(operators.exit, 0);
    EXPECT_EQ(Json::parse(operators.out), OperatorRegistry::instance().schemaJson());

    const ToolRun functions = velmorin({"expression"});
    EXPECT_EQ(functions.exit, 0);
    EXPECT_EQ(Json::parse(functions.out), functionHelpJson());
}

TEST(VelmorinTool, ExpressionCheck) {
    const ToolRun number = velmorin(
        {"expression", "-check", "rand * 2 + $amount", "-variables", R"({"amount": 0.5})"});
    EXPECT_EQ(number.exit, 0) << number.err;
    EXPECT_EQ(Json::parse(number.out), (Json{{"valid", true}, {"type", "number"}}));

    const ToolRun vector = velmorin({"expression", "-check", "[1, 2, 3] * rand"});
    EXPECT_EQ(vector.exit, 0) << vector.err;
    EXPECT_EQ(Json::parse(vector.out), (Json{{"valid", true}, {"type", "vector"}}));

    // The error in the words the language gives, and a failed exit for scripts.
    const std::string source = "1 +";
    std::string message;
    try {
        compile(source, expressionEnvironment(1.0), ExpressionType::Number);
    } catch (const ExpressionError& error) {
        message = error.what();
    }
    ASSERT_FALSE(message.empty());
    const ToolRun broken = velmorin({"expression", "-c", source});
    EXPECT_EQ(broken.exit, 1);
    EXPECT_EQ(Json::parse(broken.out), (Json{{"valid", false}, {"error", message}}));

    // The names alone do too, each a number.
    const ToolRun names =
        velmorin({"expression", "-check", "$amount * $gain", "-v", "amount, gain"});
    EXPECT_EQ(names.exit, 0) << names.out;
    EXPECT_EQ(Json::parse(names.out), (Json{{"valid", true}, {"type", "number"}}));
    const ToolRun badName = velmorin({"expression", "-check", "1", "-v", "amount a-b"});
    EXPECT_EQ(badName.exit, 1);
    EXPECT_EQ(Json::parse(badName.out)["error"],
              "'a-b' is not a variable name (letters, digits and _)");

    const ToolRun variables = velmorin({"expression", "-c", "$a", "-v", "[1]"});
    EXPECT_EQ(variables.exit, 1);
    EXPECT_EQ(Json::parse(variables.out)["error"],
              "variables are a JSON object of numbers and vectors");
}

TEST(VelmorinTool, GraphStatsOfAGraphFile) {
    Folder folder;
    const auto graphPath = folder.write("groom.json", kGraph);
    const ToolRun run = velmorin({"graphStats", "-graph", graphPath.string(), "-guides", "20"});
    ASSERT_EQ(run.exit, 0) << run.err;
    EXPECT_EQ(run.err, "");  // no progress bar into a file
    const Json answer = Json::parse(run.out);
    EXPECT_EQ(answer["graph"], graphPath.string());
    EXPECT_EQ(answer["scalp"], "head-like sample scalp");
    EXPECT_EQ(answer["guides"], 20);
    EXPECT_EQ(answer["output"], "length");
    EXPECT_GT(answer["strands"].get<int>(), 0);
    EXPECT_GT(answer["points"].get<int>(), answer["strands"].get<int>());
    ASSERT_EQ(answer["nodes"].size(), 5u);
    EXPECT_EQ(answer["nodes"][1]["type"], "Guides");
    EXPECT_EQ(answer["nodes"][1]["strands"], 20);
    EXPECT_EQ(answer["nodes"][4]["strands"], answer["strands"]);
    for (const Json& node : answer["nodes"])
        EXPECT_GE(node["timeMs"].get<double>(), 0.0);

    // The drawn points, on a scalp from a file.
    const auto meshPath = folder.write("plane.obj", kPlaneObj);
    const ToolRun points = velmorin(
        {"graphStats", "-g", graphPath.string(), "-m", meshPath.string(), "-gn", "4", "-points"});
    ASSERT_EQ(points.exit, 0) << points.err;
    const Json list = Json::parse(points.out);
    ASSERT_TRUE(list.is_array());
    ASSERT_FALSE(list.empty());
    for (const Json& point : list) {
        ASSERT_EQ(point.size(), 3u);
        EXPECT_GE(point[1].get<double>(), -1e-6);  // grown up from the plane
    }
    EXPECT_EQ(points.out.substr(0, 2), "[[");
}

// Without a graph file the default graph runs, once every operator it names is built; until then
// the answer is the reason it does not load.
TEST(VelmorinTool, GraphStatsOfTheDefaultGraph) {
    std::string loadError;
    try {
        Graph graph;
        graph.fromJson(defaultGraphJson());
    } catch (const std::exception& error) {
        loadError = error.what();
    }
    const ToolRun run = velmorin({"graphStats", "-guides", "8"});
    if (loadError.empty()) {
        ASSERT_EQ(run.exit, 0) << run.err;
        EXPECT_EQ(Json::parse(run.out)["graph"], "default");
    } else {
        EXPECT_EQ(run.exit, 1);
        EXPECT_EQ(run.err, "velmorin graphStats: graph: " + loadError + "\n");
    }
}

// A bar on a terminal, none into a file (GraphStatsOfAGraphFile checks that side).
TEST(VelmorinTool, ProgressOnlyOnATerminal) {
    Folder folder;
    const auto graphPath = folder.write("groom.json", kGraph);
    const ToolRun run = velmorin({"graphStats", "-graph", graphPath.string(), "-gn", "8"}, true);
    ASSERT_EQ(run.exit, 0) << run.err;
    EXPECT_NE(run.err.find("\rEvaluating the graph [##############################] 100% (1/1)"),
              std::string::npos)
        << run.err;
    EXPECT_NO_THROW(Json::parse(run.out));  // the answer stays clean
}

TEST(VelmorinTool, GraphStatsRefusals) {
    Folder folder;
    const auto graphPath = folder.write("groom.json", kGraph);
    const auto brokenPath = folder.write("broken.json", "{\"nodes\": [");
    const std::string missing = (folder / "missing.json").string();
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"graphStats", "-graph", missing},
         1,
         "velmorin graphStats: cannot read the graph file '" + missing +
             "': there is no such file"},
        {{"graphStats", "-graph", graphPath.string(), "-evaluations"},
         2,
         "velmorin graphStats: -evaluations reads a groom's session: name a groom"},
        {{"graphStats", "-drawTimes"},
         1,
         "velmorin graphStats: -drawTimes reads the viewport, and there is none here"},
        {{"graphStats", "-guides", "0"}, 2, "velmorin graphStats: -guides must be 1 to 10000"},
        {{"graphStats", "-guides", "many"},
         2,
         "velmorin graphStats: -guides takes a whole number, not 'many'"},
        {{"graphStats", "-wrong"}, 2, "velmorin graphStats: unknown flag '-wrong'"},
        {{"graphStats", "a.groom"},
         1,
         "velmorin graphStats: Graph stats of a groom is not available in this build: it needs "
         "the groom session and file support"},
    };
    for (const Case& c : cases) {
        const ToolRun run = velmorin(c.args);
        EXPECT_EQ(run.exit, c.exit) << c.message;
        EXPECT_EQ(firstLine(run.err), c.message);
        EXPECT_EQ(run.out, "");
    }
    const ToolRun broken = velmorin({"graphStats", "-graph", brokenPath.string()});
    EXPECT_EQ(broken.exit, 1);
    EXPECT_EQ(broken.err.rfind("velmorin graphStats: graph: ", 0), 0u) << broken.err;
    const ToolRun mesh = velmorin(
        {"graphStats", "-graph", graphPath.string(), "-mesh", (folder / "none.obj").string()});
    EXPECT_EQ(mesh.exit, 1);
    EXPECT_EQ(mesh.err.rfind("velmorin graphStats: " + (folder / "none.obj").string() + ": ", 0),
              0u)
        << mesh.err;
}

TEST(VelmorinTool, ExportFlagRules) {
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::string message;
    };
    const std::vector<Case> cases = {
        // Flags that pass reach the writer, which this build lacks.
        {{"exportAlembic", "-f", "out.abc", "-sf", "1", "-ef", "24", "g.groom"},
         1,
         "velmorin exportAlembic: Alembic export is not available in this build: it needs the "
         "groom session and file support"},
        {{"exportUsd", "--file=out.usda", "g.groom"},
         1,
         "velmorin exportUsd: USD export is not available in this build: it needs the groom "
         "session and file support"},
        {{"exportGroom", "-f", "out.groom", "g.groom"},
         1,
         "velmorin exportGroom: Writing groom files is not available in this build: it needs "
         "the groom session and file support"},
        {{"importGroom", "-f", "in.groom", "-info"},
         1,
         "velmorin importGroom: Reading groom files is not available in this build: it needs "
         "the groom session and file support"},
        {{"exportAlembic", "-f", "out.abc", "-nope", "g.groom"},
         2,
         "velmorin exportAlembic: unknown flag '-nope'"},
        {{"exportAlembic", "-sf", "1", "g.groom"}, 2, "velmorin exportAlembic: -file is required"},
        {{"exportAlembic", "-f", "out.abc", "-sf", "first", "g.groom"},
         2,
         "velmorin exportAlembic: -startFrame takes a number, not 'first'"},
        {{"exportAlembic", "-f", "out.abc", "-sf", "10", "-ef", "1", "g.groom"},
         2,
         "velmorin exportAlembic: -endFrame is before -startFrame"},
        {{"exportAlembic", "-f", "out.abc", "-ue", "-sca", "2", "g.groom"},
         2,
         "velmorin exportAlembic: -unreal writes Unreal's units and layout; leave out -scale, "
         "-pointsPerStrand and -vertexUVs"},
        {{"exportAlembic", "-f", "out.abc"}, 2, "velmorin exportAlembic: name a groom"},
        {{"exportUsd", "-f", "out.usda", "-s", "0", "g.groom"},
         2,
         "velmorin exportUsd: -step must be positive"},
        {{"importGroom", "-i"}, 2, "velmorin importGroom: -file is required"},
        {{"version", "-x"}, 2, "velmorin version: unknown flag '-x'"},
    };
    for (const Case& c : cases) {
        const ToolRun run = velmorin(c.args);
        EXPECT_EQ(run.exit, c.exit) << c.message;
        EXPECT_EQ(firstLine(run.err), c.message);
        EXPECT_EQ(run.out, "");
        // Bad usage says where the flags are listed.
        if (c.exit == 2) {
            EXPECT_NE(run.err.find("Run 'velmorin " + c.args[0] + " --help' for its flags.\n"),
                      std::string::npos)
                << run.err;
        }
    }
}

TEST(VelmorinTool, HelpAndUnknownCommands) {
    const ToolRun help = velmorin({"--help"});
    EXPECT_EQ(help.exit, 0);
    EXPECT_EQ(help.err, "");
    for (const CommandSpec& spec : commandSpecs())
        EXPECT_NE(help.out.find("\n  " + std::string(spec.cliName) + " "), std::string::npos)
            << spec.cliName;
    for (const char* tool : {"new", "param", "demo"})
        EXPECT_NE(help.out.find("\n  " + std::string(tool) + " "), std::string::npos) << tool;

    const ToolRun usd = velmorin({"exportUsd", "--help"});
    EXPECT_EQ(usd.exit, 0);
    EXPECT_EQ(usd.out, commandHelp(*findCommand("exportUsd"), "velmorin"));
    EXPECT_EQ(velmorin({"help", "exportUsd"}).out, usd.out);

    const ToolRun nothing = velmorin({});
    EXPECT_EQ(nothing.exit, 2);
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(nothing.err, help.out);

    for (const char* name : {"frobnicate", "velmorinVersion"}) {
        const ToolRun unknown = velmorin({name});
        EXPECT_EQ(unknown.exit, 2);
        EXPECT_EQ(unknown.err, "velmorin: unknown command '" + std::string(name) +
                                   "'. 'velmorin --help' lists the commands.\n");
    }
    for (const char* name : {"new", "param", "demo"}) {
        const ToolRun stub = velmorin({name, "g.groom"});
        EXPECT_EQ(stub.exit, 1);
        EXPECT_EQ(stub.err, "velmorin " + std::string(name) +
                                ": needs the groom file support, which is not in this build yet\n");
        const ToolRun stubHelp = velmorin({name, "--help"});
        EXPECT_EQ(stubHelp.exit, 0);
        EXPECT_EQ(stubHelp.out.rfind("usage: velmorin " + std::string(name), 0), 0u);
    }
}

TEST(VelmorinTool, RenderCommand) {
    const ToolRun help = velmorin({"--help"});
    EXPECT_NE(help.out.find("\n  render "), std::string::npos);
    const ToolRun renderHelp = velmorin({"render", "--help"});
    EXPECT_EQ(renderHelp.exit, 0);
    EXPECT_EQ(renderHelp.out, commandHelp(renderCommandSpec(), "velmorin"));

    // Flags that pass reach the groom file reader, which this build lacks.
    const ToolRun stub = velmorin({"render", "g.groom", "-o", "p.png", "--view", "front"});
    EXPECT_EQ(stub.exit, 1);
    EXPECT_EQ(stub.err,
              "velmorin render: needs the groom file support, which is not in this build yet\n");
    const ToolRun usage = velmorin({"render", "g.groom", "-o", "p.png", "--size", "10x0"});
    EXPECT_EQ(usage.exit, 2);
    EXPECT_EQ(firstLine(usage.err),
              "velmorin render: -size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '10x0'");
    EXPECT_NE(usage.err.find("Run 'velmorin render --help' for its flags.\n"), std::string::npos);
    EXPECT_EQ(usage.out, "");
}

}  // namespace
}  // namespace velmorin
