// The velmorin tool as a user runs it: each case spawns the executable and checks its exit code,
// its answer on standard output and its message on standard error.

#include <fcntl.h>
#include <pty.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/test/temp_files.h"
#include "common/commands.h"
#include "common/render_command.h"
#include "expr/expression.h"
#include "expr/function_table.h"
#include "graph/graph_tools.h"
#include "graph/registry.h"
#include "usd/test/usda_reader.h"

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

using test::readBytes;
using test::TempFolder;

// Runs the tool with `args`, its output and messages caught in files (no pipe to fill up). With
// `terminal`, its messages go to a pseudo-terminal instead, as when a person watches.
ToolRun velmorin(const std::vector<std::string>& args, bool terminal = false) {
    TempFolder folder;
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
    run.out = readBytes(outPath);
    if (terminal) {
        // What the child wrote waits in the terminal's buffer; with our end of the slave closed,
        // reading past it ends the stream.
        close(slave);
        char buffer[4096];
        for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;)
            run.err.append(buffer, static_cast<std::size_t>(n));
        close(master);
    } else {
        run.err = readBytes(errPath);
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
    TempFolder folder;
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

// Without a graph file the default graph runs.
TEST(VelmorinTool, GraphStatsOfTheDefaultGraph) {
    const ToolRun run = velmorin({"graphStats", "-guides", "8"});
    ASSERT_EQ(run.exit, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out)["graph"], "default");
}

// A bar on a terminal, none into a file (GraphStatsOfAGraphFile checks that side).
TEST(VelmorinTool, ProgressOnlyOnATerminal) {
    TempFolder folder;
    const auto graphPath = folder.write("groom.json", kGraph);
    const ToolRun run = velmorin({"graphStats", "-graph", graphPath.string(), "-gn", "8"}, true);
    ASSERT_EQ(run.exit, 0) << run.err;
    EXPECT_NE(run.err.find("\rEvaluating the graph [##############################] 100% (1/1)"),
              std::string::npos)
        << run.err;
    EXPECT_NO_THROW(Json::parse(run.out));  // the answer stays clean
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
        const ToolRun toolHelp = velmorin({name, "--help"});
        EXPECT_EQ(toolHelp.exit, 0);
        EXPECT_EQ(toolHelp.out.rfind("usage: velmorin " + std::string(name), 0), 0u);
    }
}

TEST(VelmorinTool, RenderCommandIsListedWithItsHelp) {
    EXPECT_NE(velmorin({"--help"}).out.find("\n  render "), std::string::npos);
    const ToolRun renderHelp = velmorin({"render", "--help"});
    EXPECT_EQ(renderHelp.exit, 0);
    EXPECT_EQ(renderHelp.out, commandHelp(renderCommandSpec(), "velmorin"));
}

// A 6 cm square of 4 x 4 quads facing +Y, with UVs from 0 to 1 across it: a scalp small enough
// that the default graph grows a few thousand strands on it.
std::string smallPlaneObj() {
    constexpr int n = 4;
    constexpr double size = 6.0;
    std::ostringstream obj;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            obj << "v " << i * size / n - size / 2 << " 0 " << j * size / n - size / 2 << "\n";
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            obj << "vt " << double(i) / n << " " << double(j) / n << "\n";
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const int a = j * (n + 1) + i + 1, b = a + 1, c = a + n + 2, d = a + n + 1;
            obj << "f " << a << "/" << a << " " << d << "/" << d << " " << c << "/" << c << " " << b
                << "/" << b << "\n";
        }
    return obj.str();
}

// A folder with the small plane and a groom made on it by `velmorin new`.
struct SmallGroom {
    TempFolder folder;
    std::string obj = folder.write("plane.obj", smallPlaneObj()).string();
    std::string groom = (folder / "small.groom").string();
    SmallGroom() {
        const ToolRun made = velmorin({"new", "-scalp", obj, "--guides", "8", "-o", groom});
        EXPECT_EQ(made.exit, 0) << made.err;
    }
    std::string path(const std::string& name) const { return (folder / name).string(); }
};

// Every file in a folder, to show that a failed command left nothing behind.
std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

const test::UsdaPrim* findPrimOfType(const std::vector<test::UsdaPrim>& prims,
                                     std::string_view type) {
    for (const test::UsdaPrim& prim : prims) {
        if (prim.type == type) return &prim;
        if (const auto* found = findPrimOfType(prim.children, type)) return found;
    }
    return nullptr;
}

TEST(VelmorinTool, GroomCommandsOnASmallGroom) {
    SmallGroom small;
    const std::string groom = small.groom;
    ASSERT_TRUE(fs::exists(groom));
    struct Case {
        std::vector<std::string> args;
        std::string answerStart;  // the answer begins with this
        std::string output;       // the file it writes, if any
    };
    const std::vector<Case> cases = {
        {{"param", groom, "scatter.density"}, "", ""},
        {{"param", groom, "length.length", "0.5"}, "0.5", ""},
        {{"param", groom, "length.length"}, "0.5", ""},
        {{"exportGroom", groom, "-f", small.path("copy.groom")},
         "wrote " + small.path("copy.groom"),
         small.path("copy.groom")},
        {{"importGroom", "-f", groom, "-info"}, "{\n  \"upAxis\": \"Y\"", ""},
        {{"importGroom", "-f", groom, "-checkScalp", small.obj}, "{\n  \"matches\": true", ""},
        {{"importGroom", "-f", groom, small.path("imported.groom")},
         "read " + groom + " into " + small.path("imported.groom"),
         small.path("imported.groom")},
        {{"exportAlembic", groom, "-f", small.path("plain.abc"), "-sf", "1", "-ef", "3"},
         "wrote 3 frame(s), ",
         small.path("plain.abc")},
        {{"exportAlembic", groom, "-f", small.path("unreal.abc"), "-ue", "-d", "0.5"},
         "wrote 1 frame(s), ",
         small.path("unreal.abc")},
        {{"exportAlembic", groom, "-f", small.path("report.abc"), "-ue", "-rep", "-sf", "2", "-ef",
          "3"},
         "{\n  \"group\": \"\",\n  \"feathers\": 0,",
         small.path("report.abc")},
        {{"exportUsd", groom, "-f", small.path("out.usda"), "-sf", "1", "-ef", "2", "-s", "0.5"},
         "wrote 3 frame(s), ",
         small.path("out.usda")},
        {{"graphStats", groom}, "{\n  \"view\": \"output\"", ""},
        {{"render", groom, "-o", small.path("front.png"), "--view", "front", "--size", "64x48"},
         "wrote " + small.path("front.png") + ": 64x48, front view, ",
         small.path("front.png")},
    };
    for (const Case& c : cases) {
        const ToolRun run = velmorin(c.args);
        SCOPED_TRACE(c.args.front() + " " + c.args.back());
        EXPECT_EQ(run.exit, 0) << run.err;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out.rfind(c.answerStart, 0), 0u) << run.out;
        if (!c.output.empty()) {
            EXPECT_TRUE(fs::exists(c.output));
            EXPECT_FALSE(fs::exists(c.output + ".tmp"));
        }
    }
    // The param read back is the number set, and the scatter density is a number.
    EXPECT_EQ(velmorin({"param", groom, "length.length"}).out, "0.5\n");
    EXPECT_TRUE(Json::parse(velmorin({"param", groom, "scatter.density"}).out).is_number());
    // The report counts what the last frame wrote.
    const Json report = Json::parse(
        velmorin({"exportAlembic", groom, "-f", small.path("r2.abc"), "-ue", "-report"}).out);
    EXPECT_EQ(report["guides"], 8);
    EXPECT_EQ(report["frames"], 1);
    EXPECT_EQ(report["objects"], Json::array({"hair"}));
    EXPECT_GT(report["strands"].get<int>(), 0);
    EXPECT_LE(report["minPoints"].get<int>(), report["maxPoints"].get<int>());
    // The USD file holds the three frames asked for, with root UVs from the plane's UVs.
    const test::UsdaLayer layer = test::parseUsda(readBytes(small.path("out.usda")));
    const test::UsdaPrim* curves = findPrimOfType(layer.prims, "BasisCurves");
    ASSERT_NE(curves, nullptr);
    const test::UsdaProperty* points = curves->property("points");
    ASSERT_NE(points, nullptr);
    ASSERT_EQ(points->samples.size(), 3u);
    EXPECT_EQ(points->samples[1].first, 1.5);
    const test::UsdaProperty* st = curves->property("primvars:st");
    ASSERT_NE(st, nullptr);
    ASSERT_FALSE(st->samples.empty());
    const std::vector<float> uvs = test::usdaFloats(st->samples.front().second);
    ASSERT_FALSE(uvs.empty());
    for (const float uv : uvs) {
        EXPECT_GE(uv, 0.0f);
        EXPECT_LE(uv, 1.0f);
    }
    EXPECT_GT(*std::max_element(uvs.begin(), uvs.end()), 0.5f);
}

// A refusal of each command and each way it can fail: its exit code (2 for bad usage, which also
// says where the flags are listed, 1 for a failure), its first line of messages, no answer, and no
// file left behind. The words of each flag rule are checked once, in command_flags_test.cpp.
TEST(VelmorinTool, RefusalsSayWhyAndLeaveNothingBehind) {
    SmallGroom small;
    const std::string groom = small.groom;
    const std::string corrupt = small.folder.write("corrupt.groom", "{\"velmorin\": ").string();
    const std::string noFaces =
        small.folder.write("nofaces.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n").string();
    const std::string triangle =
        small.folder.write("triangle.obj", "v 0 0 0\nv 1 0 0\nv 0 0 1\nf 1 2 3\n").string();
    const std::string graph = small.folder.write("graph.json", kGraph).string();
    const std::string missing = small.path("missing.groom");
    const std::string missingGraph = small.path("missing.json");
    const std::string abc = small.path("out.abc");
    const std::string usda = small.path("out.usda");
    const std::string png = small.path("out.png");
    const std::string made = small.path("made.groom");
    struct Case {
        std::vector<std::string> args;
        int exit;
        std::string message;  // the first line on standard error; "" for a groom file's fault
    };
    const std::vector<Case> cases = {
        {{"new", "-o", made}, 2, "velmorin new: -scalp is required"},
        {{"new", "-scalp", small.obj, "-o", made, "--guides", "0"},
         2,
         "velmorin new: -guides must be 1 to 10000"},
        {{"new", "-scalp", noFaces, "-o", made},
         1,
         "velmorin new: " + noFaces +
             ": the file has no faces. Export the scalp as a polygon mesh."},
        // Flags that pass reach the groom file, which is not there.
        {{"exportAlembic", "-f", abc, "-sf", "1", "-ef", "24", missing},
         1,
         "velmorin exportAlembic: cannot read '" + missing + "'"},
        {{"exportUsd", "--file=" + usda, missing},
         1,
         "velmorin exportUsd: cannot read '" + missing + "'"},
        {{"exportGroom", "-f", made, missing},
         1,
         "velmorin exportGroom: cannot read '" + missing + "'"},
        {{"exportAlembic", groom, "-f", abc, "-nope"},
         2,
         "velmorin exportAlembic: unknown flag '-nope'"},
        {{"exportAlembic", groom}, 2, "velmorin exportAlembic: -file is required"},
        {{"exportAlembic", "-f", abc}, 2, "velmorin exportAlembic: name a groom"},
        {{"exportAlembic", corrupt, "-f", abc}, 1, ""},
        {{"render", corrupt, "-o", png}, 1, ""},
        {{"render", missing, "-o", png}, 1, "velmorin render: cannot read '" + missing + "'"},
        {{"render", groom, "-o", png, "--size", "10x0"},
         2,
         "velmorin render: -size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '10x0'"},
        {{"graphStats", missing}, 1, "velmorin graphStats: cannot read '" + missing + "'"},
        {{"graphStats", "-graph", missingGraph},
         1,
         "velmorin graphStats: cannot read the graph file '" + missingGraph +
             "': there is no such file"},
        {{"graphStats", "-graph", graph, "-evaluations"},
         2,
         "velmorin graphStats: -evaluations reads a groom's session: name a groom"},
        {{"graphStats", "-drawTimes"},
         1,
         "velmorin graphStats: -drawTimes reads the viewport, and there is none here"},
        {{"graphStats", "-guides", "0"}, 2, "velmorin graphStats: -guides must be 1 to 10000"},
        {{"importGroom", "-i"}, 2, "velmorin importGroom: -file is required"},
        {{"importGroom", "-f", groom, "-checkScalp", noFaces},
         1,
         "velmorin importGroom: " + noFaces +
             ": the file has no faces. Export the scalp as a "
             "polygon mesh."},
        {{"importGroom", "-f", groom, "-checkScalp", triangle},
         1,
         "velmorin importGroom: " + triangle + " is not the scalp of " + groom +
             ": it has 1 triangles against 32"},
        {{"importGroom", "-f", missing, "-info"},
         1,
         "velmorin importGroom: cannot read '" + missing + "'"},
        {{"param", groom, "length"}, 2, "velmorin param: 'length' is not NODE.PARAM"},
        {{"param", groom}, 2, "velmorin param: name a groom and NODE.PARAM"},
        {{"param", groom, "nonode.length", "1"},
         1,
         "velmorin param: the graph has no node named 'nonode'"},
        {{"param", groom, "length.nothing", "1"}, 1, "velmorin param: unknown parameter 'nothing'"},
        {{"param", corrupt, "length.length", "1"}, 1, ""},
        {{"demo", "-o", small.path("demo"), "-density", "0"},
         2,
         "velmorin demo: -density must be above 0 and at most 1"},
    };
    const std::string before = readBytes(groom);
    const std::vector<std::string> files = filesIn(small.folder / "");
    for (const Case& c : cases) {
        const ToolRun run = velmorin(c.args);
        SCOPED_TRACE(c.args.front() + " " + c.args.back());
        EXPECT_EQ(run.exit, c.exit);
        EXPECT_EQ(run.out, "");
        if (c.message.empty())
            EXPECT_EQ(run.err.rfind("velmorin " + c.args.front() + ": groom file: ", 0), 0u)
                << run.err;
        else
            EXPECT_EQ(firstLine(run.err), c.message);
        if (c.exit == 2) {
            EXPECT_NE(run.err.find("Run 'velmorin " + c.args[0] + " --help' for its flags.\n"),
                      std::string::npos)
                << run.err;
        }
        EXPECT_EQ(filesIn(small.folder / ""), files);
    }
    // A refused param leaves the groom as it was.
    EXPECT_EQ(readBytes(groom), before);
    // Faults of the graph and the mesh files come in the reader's words after the file's name.
    const std::string broken = small.folder.write("broken.json", "{\"nodes\": [").string();
    const ToolRun brokenGraph = velmorin({"graphStats", "-graph", broken});
    EXPECT_EQ(brokenGraph.exit, 1);
    EXPECT_EQ(brokenGraph.err.rfind("velmorin graphStats: graph: ", 0), 0u) << brokenGraph.err;
    const std::string noMesh = small.path("none.obj");
    const ToolRun mesh = velmorin({"graphStats", "-graph", graph, "-mesh", noMesh});
    EXPECT_EQ(mesh.exit, 1);
    EXPECT_EQ(mesh.err.rfind("velmorin graphStats: " + noMesh + ": ", 0), 0u) << mesh.err;
}

TEST(VelmorinTool, DemoWritesItsFourFiles) {
    TempFolder folder;
    const fs::path out = folder / "demo";
    const ToolRun run = velmorin({"demo", "-o", out.string(), "-density", "0.05"});
    ASSERT_EQ(run.exit, 0) << run.err;
    const Json stats = Json::parse(run.out);
    EXPECT_GT(stats["strands"].get<int>(), 100);
    EXPECT_EQ(stats["session"]["guides"], 64);
    const std::vector<std::string> files{"demo.abc", "demo.groom", "demo.png", "demo.usda",
                                         "demo_side.png"};
    for (const std::string& name : files)
        EXPECT_GT(fs::file_size(out / name), 0u) << name;
    EXPECT_EQ(filesIn(out), files);

    const test::UsdaLayer layer = test::parseUsda(readBytes(out / "demo.usda"));
    const test::UsdaPrim* curves = findPrimOfType(layer.prims, "BasisCurves");
    ASSERT_NE(curves, nullptr);
    ASSERT_NE(curves->property("points"), nullptr);

    // The groom it wrote reads back and evaluates to the strands it reported at full density.
    const ToolRun stats2 = velmorin({"graphStats", (out / "demo.groom").string()});
    ASSERT_EQ(stats2.exit, 0) << stats2.err;
    EXPECT_EQ(Json::parse(stats2.out)["strands"], stats["session"]["strands"]);

    // A picture that can't be written takes the other three files with it.
    TempFolder blocked;
    fs::create_directory(blocked / "demo.png");
    const ToolRun failed = velmorin({"demo", "-o", (blocked / "").string(), "-density", "0.02"});
    EXPECT_EQ(failed.exit, 1);
    EXPECT_EQ(failed.err, "velmorin demo: could not write " + (blocked / "demo.png").string() +
                              ": Is a directory\n");
    EXPECT_EQ(filesIn(blocked / ""), std::vector<std::string>{"demo.png"});

    const std::string abcls = VELMORIN_ABCLS;
    if (abcls.empty() || !fs::exists(abcls)) GTEST_SKIP() << "abcls is not built";
    TempFolder lsFolder;
    const std::string listing = (lsFolder / "listing").string();
    const std::string command =
        "'" + abcls + "' -r '" + (out / "demo.abc").string() + "' > '" + listing + "' 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0);
    const std::string text = readBytes(listing);
    EXPECT_NE(text.find("hair"), std::string::npos) << text;
}

}  // namespace
}  // namespace velmorin
