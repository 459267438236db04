// Running the host commands: the answers of those that need no groom, and the hand-over of the
// rest to the host's backend.

#include "common/commands.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "common/obj_mesh.h"
#include "common/progress.h"
#include "common/starter_guides.h"
#include "expr/expression.h"
#include "expr/function_table.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/registry.h"
#include "mesh/sample_meshes.h"
#include "strands/strand_set.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

CommandBackend::~CommandBackend() = default;

namespace {

[[noreturn]] void notAvailable(std::string_view what) {
    throwFailure(std::string(what) +
                 " is not available in this build: it needs the groom session and file support");
}

// The whole of a text file. Throws a failure that names the file and `kind` ("graph file").
std::string readTextFile(const std::string& path, std::string_view kind) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int error = errno;
        throwFailure("cannot read the " + std::string(kind) + " '" + path + "': " +
                     (error == ENOENT ? std::string("there is no such file")
                                      : std::string(std::strerror(error))));
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad())
        throwFailure("cannot read the " + std::string(kind) + " '" + path + "' to its end");
    return text.str();
}

// The variables of an expression check: JSON as the Expression node holds them ({"amount": 0.5}),
// or only the names it may use ("amount center" or "amount, center"), each then a number.
std::string variablesJson(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || text[first] == '{' || text[first] == '[')
        return std::string(text);
    Json names = Json::object();
    std::string name;
    for (const char c : std::string(text) + " ") {
        if (c == ' ' || c == ',' || c == '\t' || c == '\n') {
            if (!name.empty()) names[name] = 0.0;
            name.clear();
        } else {
            name += c;
        }
    }
    return names.dump();
}

CommandAnswer expressionAnswer(const ParsedFlags& flags) {
    const auto source = flags.string("check");
    if (!source) return {functionHelpJson().dump(2)};
    const auto refuse = [](const ExpressionError& error) {
        return CommandAnswer{Json{{"valid", false}, {"error", error.what()}}.dump(2), false};
    };
    ExpressionEnvironment environment;
    try {
        environment =
            expressionEnvironment(1.0, variablesJson(flags.string("variables").value_or("")), {});
    } catch (const ExpressionError& error) {
        return refuse(error);
    }
    // A vector expression is as valid as a number: the param it feeds decides which it needs.
    // Where neither compiles, the number's words say why, since most params take a number.
    try {
        compile(*source, environment, ExpressionType::Number);
        return {Json{{"valid", true}, {"type", "number"}}.dump(2)};
    } catch (const ExpressionError& numberError) {
        try {
            compile(*source, environment, ExpressionType::Vector);
            return {Json{{"valid", true}, {"type", "vector"}}.dump(2)};
        } catch (const ExpressionError&) {
            return refuse(numberError);
        }
    }
}

// The strand set or guides a node's latest run left in its first output: strands and points.
std::pair<std::size_t, std::size_t> countsOf(const std::vector<Value>& results) {
    if (results.empty()) return {0, 0};
    if (const auto strands = results.front().get<StrandSet>())
        return {strands->strandCount(), strands->pointCount()};
    if (const auto guides = results.front().get<GuideSet>()) {
        std::size_t points = 0;
        for (const Guide& guide : guides->guides)
            points += guide.points.size();
        return {guides->guides.size(), points};
    }
    return {0, 0};
}

std::string pointList(const StrandSet* strands) {
    std::string out = "[";
    if (strands) {
        char buffer[96];
        const char* separator = "";
        for (const Vec3f& p : strands->points()) {
            std::snprintf(buffer, sizeof buffer, "%s[%.9g, %.9g, %.9g]", separator, p.x, p.y, p.z);
            out += buffer;
            separator = ", ";
        }
    }
    return out + "]";
}

CommandAnswer graphStatsAnswer(const ParsedFlags& flags, ProgressReporter& progress) {
    for (const char* name : {"drawTimes", "overlays", "hairShading"})
        if (flags.has(name))
            throwFailure("-" + std::string(name) + " reads the viewport, and there is none here");
    const auto guideCount = flags.integer("guides").value_or(64);

    Graph graph;
    const auto graphPath = flags.string("graph");
    try {
        graph.fromJson(graphPath ? readTextFile(*graphPath, "graph file") : defaultGraphJson());
    } catch (const CommandError&) {
        throw;
    } catch (const std::exception& error) {
        throwFailure(std::string("graph: ") + error.what());
    }
    if (graph.outputNode() == 0) throwFailure("graph: the graph names no output node");

    std::shared_ptr<const ScalpMesh> scalp;
    const auto meshPath = flags.string("mesh");
    try {
        scalp = meshPath ? readObjMesh(*meshPath) : makeHeadScalp();
    } catch (const std::exception& error) {
        throwFailure(error.what());
    }
    StarterGuideOptions options;
    options.count = static_cast<int>(guideCount);
    std::shared_ptr<const GuideHierarchy> guides;
    try {
        guides = std::make_shared<const GuideHierarchy>(makeStarterGuides(*scalp, options));
    } catch (const std::exception& error) {
        throwFailure(error.what());
    }

    SceneInputs scene;
    scene["scalp"] = SceneInput{Value(scalp), scalp->contentSignature()};
    scene["hierarchy"] = SceneInput{Value(guides), guides->contentHash()};
    EvalContext ctx;
    ctx.sceneInputs = &scene;

    progress.begin("Evaluating the graph", 1);
    const auto started = std::chrono::steady_clock::now();
    std::vector<Value> results;
    try {
        results = graph.evaluateOutput(ctx);
    } catch (const std::exception& error) {
        progress.finish();
        throwFailure(std::string("evaluation failed: ") + error.what());
    }
    const double evaluationMs =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
            .count();
    progress.advance();
    progress.finish();

    const auto strands = results.empty() ? nullptr : results.front().get<StrandSet>();
    if (flags.has("points")) return {pointList(strands.get())};

    Json nodes = Json::array();
    for (const std::uint32_t id : graph.nodeIds()) {
        const GraphNode& node = graph.node(id);
        Json entry = Json::object();
        entry["name"] = node.name;
        entry["type"] = node.op->type();
        const auto time = graph.times.find(id);
        entry["timeMs"] = time == graph.times.end() ? 0.0 : time->second;
        const auto run = graph.runs.find(id);
        entry["run"] = run == graph.runs.end() ? "" : run->second;
        const auto [strandCount, pointCount] = countsOf(node.runtime.results);
        entry["strands"] = strandCount;
        entry["points"] = pointCount;
        const auto note = graph.notes.find(id);
        entry["note"] = note == graph.notes.end() ? "" : note->second;
        nodes.push_back(std::move(entry));
    }
    Json answer = Json::object();
    answer["graph"] = graphPath ? *graphPath : std::string("default");
    answer["scalp"] = meshPath ? *meshPath : std::string("head-like sample scalp");
    answer["scalpTriangles"] = scalp->triangleCount();
    answer["guides"] = guides->guides().size();
    answer["output"] = graph.node(graph.outputNode()).name;
    answer["strands"] = strands ? strands->strandCount() : 0;
    answer["points"] = strands ? strands->pointCount() : 0;
    answer["evaluationMs"] = evaluationMs;
    answer["nodes"] = std::move(nodes);
    return {answer.dump(2)};
}

}  // namespace

std::string CommandBackend::exportAlembic(const CommandRequest&) {
    notAvailable("Alembic export");
}
std::string CommandBackend::exportUsd(const CommandRequest&) {
    notAvailable("USD export");
}
std::string CommandBackend::exportGroom(const CommandRequest&) {
    notAvailable("Writing groom files");
}
std::string CommandBackend::importGroom(const CommandRequest&) {
    notAvailable("Reading groom files");
}
std::string CommandBackend::groomGraphStats(const CommandRequest&) {
    notAvailable("Graph stats of a groom");
}

std::string runFrameExport(std::span<const double> frames, const std::string& path,
                           ProgressReporter& progress,
                           const std::function<std::size_t(double frame)>& writeFrame) {
    progress.begin("Writing frames", static_cast<std::ptrdiff_t>(frames.size()));
    double strands = 0.0;
    try {
        for (const double frame : frames) {
            strands += static_cast<double>(writeFrame(frame));
            progress.advance();
        }
    } catch (...) {
        progress.finish();
        throw;
    }
    progress.finish();
    const double average = frames.empty() ? 0.0 : strands / static_cast<double>(frames.size());
    return "wrote " + std::to_string(frames.size()) + " frame(s), " +
           std::to_string(std::llround(average)) + " strands per frame on average, to " + path;
}

CommandAnswer runCommand(const CommandSpec& spec, std::span<const std::string> args,
                         CommandBackend& backend, ProgressReporter& progress) {
    const ParsedFlags flags = parseFlags(spec, args);
    const auto& positional = flags.positional();
    const std::size_t most = spec.groom == GroomArgument::None ? 0 : 1;
    if (positional.size() > most) throwUsage("unexpected argument '" + positional[most] + "'");
    checkFlags(spec, flags);
    const std::string groom = positional.empty() ? std::string() : positional.front();
    const CommandRequest request{spec, flags, groom, progress};

    const std::string_view name = spec.cliName;
    if (name == "version") return {std::string(kVelmorinVersion)};
    if (name == "defaultGraph") return {defaultGraphJson()};
    if (name == "operators") return {OperatorRegistry::instance().schemaJson().dump(2)};
    if (name == "expression") return expressionAnswer(flags);
    if (name == "graphStats") {
        if (!groom.empty()) return {backend.groomGraphStats(request)};
        return graphStatsAnswer(flags, progress);
    }
    if (spec.groom == GroomArgument::Required && groom.empty()) throwUsage("name a groom");
    if (name == "exportAlembic") return {backend.exportAlembic(request)};
    if (name == "exportUsd") return {backend.exportUsd(request)};
    if (name == "exportGroom") return {backend.exportGroom(request)};
    // The import reads its groom from -file; its argument names the groom it goes into.
    if (name == "importGroom") {
        if (groom.empty() && !flags.has("info") && !flags.has("checkScalp") &&
            !flags.has("makeScalp"))
            throwUsage("name the velmorinShape to read the file into");
        return {backend.importGroom(request)};
    }
    throwUsage("unknown command '" + std::string(spec.cliName) + "'");
}

}  // namespace velmorin
