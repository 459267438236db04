// The flag tables of the host commands and the rules between their flags.

#include <algorithm>
#include <cmath>

#include "common/commands.h"
#include "common/starter_guides.h"

namespace velmorin {
namespace {

using T = FlagType;

// The flags of every export that writes frames, in the order the help lists them.
std::vector<FlagSpec> frameFlags() {
    return {
        {"f", "file", T::String, "Output path (required)"},
        {"sf", "startFrame", T::Double, "First frame; default the current frame"},
        {"ef", "endFrame", T::Double, "Last frame; default -startFrame"},
        {"s", "step", T::Double, "Frame step, above 0; default 1"},
        {"d", "density", T::Double, "Share of strands written, 0 to 1"},
        {"ro", "renderOverrides", T::Bool,
         "Use the groom's render density, width scale and length scale"},
        {"sc", "scalpCache", T::String, "Alembic of the scalp for an animated export"},
        {"so", "scalpObject", T::String, "Object in the scalp cache"},
        {"gc", "guideCache", T::String, "Alembic of the guides"},
        {"go", "guideObject", T::String, "Object in the guide cache"},
    };
}

std::vector<FlagSpec> withFrameFlags(std::vector<FlagSpec> own) {
    std::vector<FlagSpec> flags = frameFlags();
    flags.insert(flags.end(), own.begin(), own.end());
    return flags;
}

std::vector<CommandSpec> makeSpecs() {
    std::vector<CommandSpec> specs;
    specs.push_back({"velmorinVersion", "version", "Prints the version of Velmorin.", {}});
    specs.push_back({"velmorinDefaultGraph",
                     "defaultGraph",
                     "Prints the graph JSON that a new groom starts from.",
                     {},
                     GroomArgument::None});
    specs.push_back({"velmorinOperators",
                     "operators",
                     "Prints the schema JSON of every operator: params, ports, menu data.",
                     {},
                     GroomArgument::None});
    specs.push_back(
        {"velmorinExpression",
         "expression",
         "Compiles an expression and says whether it is valid; with no flag, prints the help "
         "JSON of every function the language has.",
         {
             {"c", "check", T::String, "An expression to compile"},
             {"v", "variables", T::String,
              "The node's own variables it may read, as JSON: {\"amount\": 0.5}"},
         },
         GroomArgument::None});
    specs.push_back(
        {"velmorinGraphStats",
         "graphStats",
         "Evaluates a graph and prints its per-node stats: each node's time, run and notes, "
         "with the strands and points it made. Without a groom it runs a graph file (or the "
         "default graph) on a scalp from an OBJ file (or the head-like sample scalp) with "
         "starter guides.",
         {
             {"pts", "points", T::None, "The drawn points as a list of [x, y, z]"},
             {"ins", "instances", T::None, "Instance transforms (needs a groom)"},
             {"evc", "evaluations", T::None, "Evaluation counters (needs a groom)"},
             {"dt", "drawTimes", T::None, "Draw times (needs a viewport)"},
             {"fi", "frameInfo", T::None, "The session's frame info (needs a groom)"},
             {"ov", "overlays", T::None, "Parts, flow and clump overlays (needs a viewport)"},
             {"hs", "hairShading", T::None, "The hair shading record (needs a viewport)"},
             {"hl", "hairLook", T::None, "The session's hair look (needs a groom)"},
             {"g", "graph", T::String, "A graph JSON file to run; default the default graph"},
             {"m", "mesh", T::String, "An OBJ file of the scalp; default the head-like scalp"},
             {"gn", "guides", T::Int, "How many starter guides to grow, 1 to 10000; default 64"},
         },
         GroomArgument::Optional});
    specs.push_back(
        {"velmorinExportAlembic", "exportAlembic",
         "Writes the groom's strands (or guides) to an Alembic file, frame by frame.",
         withFrameFlags({
             {"ue", "unreal", T::None, "Unreal's groom schema, in groups"},
             {"uty", "unity", T::None, "Unity's layout"},
             {"grp", "groups", T::String, "Guide groups to write: auto, or names"},
             {"sh", "shafts", T::Bool, "Feather shafts as curves"},
             {"fg", "featherGuides", T::Bool, "Feather guides (with -unreal)"},
             {"iao", "iridescenceAo", T::Bool, "Iridescence and AO parameters"},
             {"bd", "barbDensity", T::Double, "Share of barbs written, above 0 and at most 1"},
             {"bws", "barbWidthScale", T::Double, "Width factor of barbs, above 0"},
             {"sca", "scale", T::Double, "Scale of positions, above 0"},
             {"pps", "pointsPerStrand", T::Int, "Resample every strand: 0 (off) or 2 to 4096"},
             {"vuv", "vertexUVs", T::None, "UVs per vertex"},
             {"bpp", "barbPoints", T::Int, "Points per barb: 0 (as they are) or 2 to 4096"},
             {"msg", "maxStrandsPerGroup", T::Int, "Strands per group at most; 0: no limit"},
             {"rep", "report", T::None, "Answer JSON of what was written"},
             {"scl", "scales", T::String, "Scales as mesh or none"},
             {"gg", "guideGroup", T::String, "Write only the guides of this group"},
             {"gp", "guidePoses", T::None, "Write only the guides, as posed at each frame"},
         }),
         GroomArgument::Required});
    specs.push_back({"velmorinExportUsd", "exportUsd",
                     "Writes the groom's strands to a USD text file (.usda), frame by frame.",
                     withFrameFlags({
                         {"scl", "scales", T::String, "Scales as mesh, instancer, both or none"},
                     }),
                     GroomArgument::Required});
    specs.push_back({"velmorinExportGroom",
                     "exportGroom",
                     "Writes the groom to a .groom file, with what it holds by reference.",
                     {
                         {"f", "file", T::String, "Output path (required)"},
                         {"n", "name", T::String, "Name of the groom in the file"},
                     },
                     GroomArgument::Required});
    specs.push_back(
        {"velmorinImportGroom",
         "importGroom",
         "Reads a .groom file into a groom, or answers what it holds (-info), checks a scalp "
         "against it (-checkScalp) or makes its scalp (-makeScalp).",
         {
             {"f", "file", T::String, "The .groom file to read (required)"},
             {"i", "info", T::None, "Answer JSON of what the file holds"},
             {"cs", "checkScalp", T::String, "A mesh to compare with the file's scalp"},
             {"ms", "makeScalp", T::None, "Make the file's scalp"},
             {"n", "name", T::String, "Name of the groom made"},
             {"r", "rest", T::None, "Make the scalp's rest pose too"},
             {"cch", "caches", T::Bool, "Bring the file's caches along"},
         },
         GroomArgument::Optional});
    return specs;
}

std::string dash(std::string_view longName) {
    return "-" + std::string(longName);
}

// An optional number flag that must pass `valid`, with the rule's sentence.
template <class Check>
void checkNumber(const ParsedFlags& flags, std::string_view name, Check valid,
                 const char* message) {
    if (const auto value = flags.number(name); value && !valid(*value)) throwUsage(message);
}

void checkFrameFlags(const ParsedFlags& flags) {
    if (!flags.has("file")) throwUsage("-file is required");
    // The frames themselves: the rules of the range, with any current frame standing in.
    // Where only -endFrame is given, the start is the current frame, which only the groom knows.
    exportFrames(flags,
                 flags.number("startFrame").value_or(flags.number("endFrame").value_or(0.0)));
    checkNumber(
        flags, "density", [](double d) { return d >= 0.0 && d <= 1.0; },
        "-density must be between 0 and 1");
}

bool pointCountOk(double n) {
    return n == 0.0 || (n >= 2.0 && n <= 4096.0);
}

void checkAlembicFlags(const ParsedFlags& flags) {
    const bool unreal = flags.has("unreal");
    const bool unity = flags.has("unity");
    const bool guideOnly = flags.has("guideGroup") || flags.has("guidePoses");
    if (flags.has("guideGroup") && flags.has("guidePoses"))
        throwUsage("use -guideGroup or -guidePoses, not both");
    if (unreal && unity) throwUsage("use -unreal or -unity, not both");
    if (flags.has("featherGuides") && !unreal) throwUsage("-fg goes with -unreal");
    for (const char* name : {"groups", "iridescenceAo"})
        if (flags.has(name) && !unreal && !unity)
            throwUsage(dash(name) + " goes with -unreal or -unity");
    if (unreal && guideOnly)
        throwUsage("-unreal writes its own guides; leave out -guideGroup and -guidePoses");
    if (unreal && (flags.has("scale") || flags.has("pointsPerStrand") || flags.has("vertexUVs")))
        throwUsage(
            "-unreal writes Unreal's units and layout; leave out -scale, -pointsPerStrand and "
            "-vertexUVs");
    if (unity && guideOnly)
        throwUsage("-unity writes the strands; leave out -guideGroup and -guidePoses");
    if ((flags.has("barbPoints") || flags.has("maxStrandsPerGroup")) && !flags.has("groups"))
        throwUsage("-barbPoints and -maxStrandsPerGroup go with -groups");
    checkNumber(
        flags, "barbDensity", [](double d) { return d > 0.0 && d <= 1.0; },
        "-barbDensity must be above 0 and at most 1");
    checkNumber(
        flags, "barbWidthScale", [](double d) { return d > 0.0; },
        "-barbWidthScale must be positive");
    checkNumber(
        flags, "scale", [](double d) { return d > 0.0; }, "-scale must be positive");
    checkNumber(flags, "pointsPerStrand", pointCountOk, "-pointsPerStrand must be 0 or 2 to 4096");
    checkNumber(flags, "barbPoints", pointCountOk, "-barbPoints must be 0 or 2 to 4096");
    checkNumber(
        flags, "maxStrandsPerGroup", [](double n) { return n >= 0.0; },
        "-maxStrandsPerGroup must be 0 (no limit) or more");
    if (const auto scales = flags.string("scales");
        scales && *scales != "mesh" && *scales != "none")
        throwUsage("-scales must be mesh or none (an instancer goes to USD)");
}

void checkUsdFlags(const ParsedFlags& flags) {
    static const std::vector<std::string> kScales = {"mesh", "instancer", "both", "none"};
    if (const auto scales = flags.string("scales");
        scales && std::find(kScales.begin(), kScales.end(), *scales) == kScales.end())
        throwUsage("-scales must be mesh, instancer, both or none");
}

void checkImportFlags(const ParsedFlags& flags) {
    if (!flags.has("file")) throwUsage("-file is required");
    int asked = 0;
    for (const char* name : {"info", "checkScalp", "makeScalp"})
        asked += flags.has(name) ? 1 : 0;
    if (asked > 1) throwUsage("give one of -info, -checkScalp and -makeScalp");
}

void checkGraphStatsFlags(const ParsedFlags& flags) {
    if (flags.positional().empty()) {
        for (const char* name : {"instances", "evaluations", "frameInfo", "hairLook"})
            if (flags.has(name)) throwUsage(dash(name) + " reads a groom's session: name a groom");
    }
    checkNumber(
        flags, "guides", [](double n) { return n >= 1.0 && n <= kMaxStarterGuides; },
        "-guides must be 1 to 10000");
}

}  // namespace

const std::vector<CommandSpec>& commandSpecs() {
    static const std::vector<CommandSpec> specs = makeSpecs();
    return specs;
}

const CommandSpec* findCommand(std::string_view name) {
    for (const CommandSpec& spec : commandSpecs())
        if (spec.name == name || spec.cliName == name) return &spec;
    return nullptr;
}

std::string commandErrorText(const CommandSpec& spec, std::string_view what) {
    if (spec.name == "velmorinGraphStats") return "velmorinGraphStats: " + std::string(what);
    return "Velmorin " + std::string(spec.name) + ": " + std::string(what);
}

std::vector<double> exportFrames(const ParsedFlags& flags, double currentFrame) {
    const double start = flags.number("startFrame").value_or(currentFrame);
    const double end = flags.number("endFrame").value_or(start);
    const double step = flags.number("step").value_or(1.0);
    if (!(step > 0.0)) throwUsage("-step must be positive");
    if (end < start) throwUsage("-endFrame is before -startFrame");
    constexpr double kMaxFrames = 1e6;
    if ((end - start) / step > kMaxFrames)
        throwUsage("-startFrame to -endFrame by -step makes more than 1000000 frames");
    std::vector<double> frames;
    // Counted rather than summed, so that a step like 0.1 lands where it says.
    const double span = (end - start) / step;
    const auto count = static_cast<std::size_t>(std::floor(span + 1e-9));
    for (std::size_t i = 0; i <= count; ++i)
        frames.push_back(start + static_cast<double>(i) * step);
    if (end - frames.back() > 1e-9 * std::max(1.0, std::abs(end))) frames.push_back(end);
    return frames;
}

void checkFlags(const CommandSpec& spec, const ParsedFlags& flags) {
    const std::string_view name = spec.cliName;
    if (name == "exportAlembic" || name == "exportUsd") checkFrameFlags(flags);
    if (name == "exportAlembic") checkAlembicFlags(flags);
    if (name == "exportUsd") checkUsdFlags(flags);
    if (name == "exportGroom" && !flags.has("file")) throwUsage("-file is required");
    if (name == "importGroom") checkImportFlags(flags);
    if (name == "graphStats") checkGraphStatsFlags(flags);
    if (name == "expression" && flags.has("variables") && !flags.has("check"))
        throwUsage("-variables goes with -check");
}

}  // namespace velmorin
