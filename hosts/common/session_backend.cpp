#include "common/session_backend.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "alembic/alembic_strand_writer.h"
#include "common/obj_mesh.h"
#include "common/progress.h"
#include "common/render_command.h"
#include "common/sample_groom.h"
#include "common/starter_guides.h"
#include "files/groom_file.h"
#include "files/groom_session_file.h"
#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/param_json.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "session/groom_session.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"
#include "usd/usd_writer.h"

namespace velmorin {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using T = FlagType;

// Runs `work`, turning whatever the engine throws into the command's failure, so that every
// message reaches the user as the command's own.
template <class Work>
auto failing(Work&& work) -> decltype(work()) {
    try {
        return work();
    } catch (const CommandError&) {
        throw;
    } catch (const std::exception& error) {
        throwFailure(error.what());
    }
}

// A session holding the groom file at `path`, ready to evaluate for a render or an export.
std::unique_ptr<GroomSession> openGroom(const std::string& path) {
    auto session = std::make_unique<GroomSession>();
    failing([&] { loadGroom(*session, path); });
    session->setViewport(false);
    return session;
}

// The strands of the groom's output at `frame`; the session's evaluation messages stay with it.
std::shared_ptr<const StrandSet> strandsAt(GroomSession& session, double frame) {
    session.setTime(frame);
    FrameRequest request;
    request.time = frame;
    request.viewport = false;
    const auto result = failing([&] { return session.evaluate(request); });
    if (!result || !result->strands) throwFailure("the groom's graph makes no strands");
    return result->strands;
}

// The share of strands an export asked for, chosen by id as everywhere else.
std::shared_ptr<const StrandSet> thinnedTo(std::shared_ptr<const StrandSet> strands,
                                           const ParsedFlags& flags) {
    const double density = flags.number("density").value_or(1.0);
    if (density >= 1.0) return strands;
    auto out = std::make_shared<StrandSet>();
    strands->thinned(density, *out);
    return out;
}

// Flags the tables accept for Maya whose work needs what only a scene has (caches, feathers,
// resampling), refused here rather than quietly left out.
void refuseSceneFlags(const ParsedFlags& flags, std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (flags.has(name))
            throwFailure("-" + std::string(name) + " is not available from the command line yet");
}

// A writer's file is made at path + ".tmp" and takes its name only when the export finished, so a
// failed export leaves the file that was there, and nothing else.
class PendingFile {
  public:
    explicit PendingFile(std::string path) : path_(std::move(path)), temporary_(path_ + ".tmp") {}
    ~PendingFile() {
        if (!committed_) {
            std::error_code ignored;
            fs::remove(temporary_, ignored);
        }
    }
    const std::string& temporary() const { return temporary_; }
    void commit() {
        std::error_code error;
        fs::rename(temporary_, path_, error);
        if (error) throwFailure("cannot write '" + path_ + "': " + error.message());
        committed_ = true;
    }

  private:
    std::string path_;
    std::string temporary_;
    bool committed_ = false;
};

// The strands with the root UV channels filled, for the Alembic writer.
std::shared_ptr<const StrandSet> withRootUvs(const std::shared_ptr<const StrandSet>& strands,
                                             std::span<const std::array<float, 2>> uvs) {
    auto out = std::make_shared<StrandSet>(*strands);
    auto& u = out->addStrandChannel(std::string(channels::kRootU), 0.0f);
    auto& v = out->addStrandChannel(std::string(channels::kRootV), 0.0f);
    for (std::size_t i = 0; i < uvs.size(); ++i) {
        u[i] = uvs[i][0];
        v[i] = uvs[i][1];
    }
    return out;
}

// The Unreal groups of a frame: one group of everything, or with -groups, one per value of the
// strands' group channel ("auto" names them group0, group1...; a comma list names them in order).
std::vector<AlembicGroup> unrealGroups(const std::shared_ptr<const StrandSet>& strands,
                                       const std::shared_ptr<const GuideSet>& guides,
                                       const std::optional<std::string>& groupFlag) {
    const std::vector<float>* ids = strands->strandChannel(channels::kGroupId);
    if (!groupFlag || !ids) return {AlembicGroup{"hair", 0, strands, guides}};
    std::vector<std::string> names;
    if (*groupFlag != "auto") {
        std::size_t start = 0;
        while (start <= groupFlag->size()) {
            const auto comma = groupFlag->find(',', start);
            const auto end = comma == std::string::npos ? groupFlag->size() : comma;
            names.push_back(groupFlag->substr(start, end - start));
            start = end + 1;
        }
    }
    std::map<std::int32_t, std::vector<std::uint64_t>> members;
    for (std::size_t i = 0; i < ids->size(); ++i)
        members[static_cast<std::int32_t>(std::lround((*ids)[i]))].push_back(i);
    std::vector<AlembicGroup> groups;
    for (const auto& [id, indices] : members) {
        auto part = std::make_shared<StrandSet>();
        strands->subset(indices, *part);
        const auto index = static_cast<std::size_t>(id < 0 ? 0 : id);
        std::string name = index < names.size() && !names[index].empty()
                               ? names[index]
                               : "group" + std::to_string(id);
        groups.push_back(
            AlembicGroup{std::move(name), id, part, groups.empty() ? guides : nullptr});
    }
    return groups;
}

std::string fileStem(const std::string& path) {
    const std::string stem = fs::path(path).stem().string();
    return stem.empty() ? std::string("Groom") : stem;
}

Json pointsJson(const StrandSet* strands) {
    Json points = Json::array();
    if (strands)
        for (const Vec3f& p : strands->points())
            points.push_back({p.x, p.y, p.z});
    return points;
}

// The file's scalp against another mesh: the same faces in the same order, or the reason they are
// not; on a match, how far apart their points lie.
Json compareScalps(const ScalpMesh* stored, const ScalpMesh& mesh, const std::string& meshPath,
                   const std::string& groomPath) {
    if (!stored) throwFailure(groomPath + " holds no scalp");
    const std::string notIt = meshPath + " is not the scalp of " + groomPath + ": ";
    if (stored->triangleCount() != mesh.triangleCount())
        throwFailure(notIt + "it has " + std::to_string(mesh.triangleCount()) +
                     " triangles against " + std::to_string(stored->triangleCount()));
    if (stored->points().size() != mesh.points().size() || stored->triangles() != mesh.triangles())
        throwFailure(notIt +
                     "its faces are not the file's scalp's (another topology or vertex order)");
    double farthest = 0.0;
    for (std::size_t i = 0; i < mesh.points().size(); ++i) {
        const Vec3f d = stored->points()[i] - mesh.points()[i];
        farthest =
            std::max(farthest, static_cast<double>(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z)));
    }
    Json answer = Json::object();
    answer["matches"] = true;
    answer["points"] = mesh.points().size();
    answer["triangles"] = mesh.triangleCount();
    answer["maxDistance"] = farthest;
    return answer;
}

Json infoOf(const GroomFile& file, const std::string& path) {
    Json info = Json::object();
    info["upAxis"] = "Y";
    info["fileUpAxis"] = file.upAxis;
    info["units"] = file.units;
    info["framesPerSecond"] = file.framesPerSecond;
    info["directory"] = fs::absolute(path).parent_path().string();
    info["searchPaths"] = file.searchPaths;
    info["triangles"] = file.scalp ? file.scalp->triangleCount() : 0;
    info["rest"] = false;
    info["kind"] = "groom";
    Json maps = Json::array();
    for (const auto& entry : file.maps)
        maps.push_back(entry.first);
    info["maps"] = std::move(maps);
    info["controls"] = file.controls;
    info["scalpCache"] = file.scalpCache.file;
    info["cardBake"] = file.cardBake.prefix;
    info["correctives"] = !file.correctives.empty();
    info["flatGuides"] = file.guides ? file.guides->size() : 0;
    Json colliders = Json::array();
    for (const auto& entry : file.colliders)
        colliders.push_back(entry.first);
    info["colliders"] = std::move(colliders);
    info["followScalp"] = file.followScalp;
    info["source"] = file.source;
    return info;
}

void writeObj(const std::string& path, const ScalpMesh& mesh) {
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary);
        char line[128];
        for (const Vec3f& p : mesh.points()) {
            std::snprintf(line, sizeof line, "v %.9g %.9g %.9g\n", p.x, p.y, p.z);
            out << line;
        }
        for (const Uv& uv : mesh.uvs()) {
            std::snprintf(line, sizeof line, "vt %.9g %.9g\n", uv.u, uv.v);
            out << line;
        }
        std::size_t corner = 1;
        for (const Triangle& t : mesh.triangles()) {
            out << 'f';
            for (int k = 0; k < 3; ++k) {
                out << ' ' << t[static_cast<std::size_t>(k)] + 1;
                if (mesh.hasUvs()) out << '/' << corner++;
            }
            out << '\n';
        }
        if (!out.flush()) {
            std::error_code ignored;
            fs::remove(temporary, ignored);
            throwFailure("cannot write '" + path + "'");
        }
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    if (error) throwFailure("cannot write '" + path + "': " + error.message());
}

}  // namespace

std::vector<std::array<float, 2>> rootUvsOf(const StrandSet& strands, const ScalpMesh* scalp) {
    std::vector<std::array<float, 2>> uvs(strands.strandCount(), {0.0f, 0.0f});
    if (!scalp || !scalp->hasUvs()) return uvs;
    const auto roots = strands.roots();
    for (std::size_t i = 0; i < roots.size(); ++i)
        if (scalp->isOnSurface(roots[i])) {
            const Uv uv = scalp->uvAt(roots[i]);
            uvs[i] = {uv.u, uv.v};
        }
    return uvs;
}

std::string SessionBackend::exportAlembic(const CommandRequest& request) {
    const ParsedFlags& flags = request.flags;
    refuseSceneFlags(flags, {"unity", "shafts", "featherGuides", "iridescenceAo", "barbDensity",
                             "barbWidthScale", "pointsPerStrand", "vertexUVs", "barbPoints",
                             "maxStrandsPerGroup", "scalpCache", "guideCache", "guideGroup",
                             "guidePoses", "renderOverrides"});
    const std::string path = *flags.string("file");
    auto session = openGroom(request.groom);
    const auto frames = exportFrames(flags, session->time());
    const bool unreal = flags.has("unreal");
    PendingFile pending(path);
    std::string answer;
    auto writer =
        failing([&] { return std::make_unique<AlembicStrandWriter>(pending.temporary()); });
    writer->setSpace("Y", 1.0 / flags.number("scale").value_or(1.0));
    // What -report tells: the last frame's counts, the extremes over every frame.
    Json objects = Json::array();
    std::size_t lastStrands = 0, lastGuides = 0, lastPoints = 0;
    std::size_t minPoints = 0, maxPoints = 0;
    bool anyStrand = false;
    answer = runFrameExport(frames, path, request.progress, [&](double frame) {
        const auto strands = thinnedTo(strandsAt(*session, frame), flags);
        for (std::size_t i = 0; i < strands->strandCount(); ++i) {
            const std::size_t n = strands->strandPoints(i).size();
            minPoints = anyStrand ? std::min(minPoints, n) : n;
            maxPoints = anyStrand ? std::max(maxPoints, n) : n;
            anyStrand = true;
        }
        lastStrands = strands->strandCount();
        lastPoints = strands->pointCount();
        const auto uvs = rootUvsOf(*strands, session->scalp().get());
        const auto written = withRootUvs(strands, uvs);
        failing([&] {
            if (unreal) {
                auto guides = session->frame()->guides;
                if (!guides) guides = std::make_shared<const GuideSet>();
                const auto groups = unrealGroups(written, guides, flags.string("groups"));
                writer->writeGroomGrouped(frame, groups);
                lastGuides = guides->guides.size();
                objects = Json::array();
                for (const AlembicGroup& group : groups)
                    objects.push_back(group.name);
            } else {
                writer->writeStrands(frame, *written);
                objects = Json::array({"Strands"});
            }
        });
        return written->strandCount();
    });
    failing([&] { writer->close(); });
    pending.commit();
    if (!flags.has("report")) return answer;
    Json report = Json::object();
    report["group"] = flags.string("groups").value_or("");
    report["feathers"] = 0;
    report["strands"] = lastStrands;
    report["guides"] = lastGuides;
    report["pointsPerStrand"] =
        lastStrands == 0 ? 0.0 : static_cast<double>(lastPoints) / static_cast<double>(lastStrands);
    report["minPoints"] = minPoints;
    report["maxPoints"] = maxPoints;
    report["frames"] = frames.size();
    report["objects"] = std::move(objects);
    return report.dump(2);
}

std::string SessionBackend::exportUsd(const CommandRequest& request) {
    const ParsedFlags& flags = request.flags;
    refuseSceneFlags(flags, {"scalpCache", "guideCache", "renderOverrides"});
    const std::string path = *flags.string("file");
    // The file itself, for its frame rate, which a session does not keep.
    const GroomFile file = failing([&] { return readGroomFile(request.groom); });
    auto session = std::make_unique<GroomSession>();
    failing([&] { applyGroomFile(*session, file); });
    session->setViewport(false);
    const auto frames = exportFrames(flags, session->time());
    UsdOptions options;
    options.defaultPrim = fileStem(request.groom);
    options.doc = "groom " + fs::path(request.groom).filename().string();
    options.startTimeCode = frames.front();
    options.endTimeCode = frames.back();
    if (file.framesPerSecond > 0.0) options.framesPerSecond = file.framesPerSecond;
    // The session holds the groom in the engine's space, Y up in centimetres, whatever axis the
    // file was saved with.
    options.upAxis = "Y";
    // The writer spools beside its path and writes the file only on close; dropped unclosed by an
    // exception, it leaves nothing.
    auto writer = failing([&] { return std::make_unique<UsdCurvesWriter>(path, options); });
    const std::string answer = runFrameExport(frames, path, request.progress, [&](double frame) {
        const auto strands = thinnedTo(strandsAt(*session, frame), flags);
        const auto uvs = rootUvsOf(*strands, session->scalp().get());
        failing([&] { writer->writeFrame(frame, *strands, uvs); });
        return strands->strandCount();
    });
    failing([&] { writer->close(); });
    return answer;
}

std::string SessionBackend::exportGroom(const CommandRequest& request) {
    const std::string path = *request.flags.string("file");
    auto session = openGroom(request.groom);
    GroomFile file = groomFileOf(*session);
    if (const auto name = request.flags.string("name")) file.source = *name;
    failing([&] { saveGroomFile(path, file); });
    return "wrote " + path;
}

std::string SessionBackend::importGroom(const CommandRequest& request) {
    const ParsedFlags& flags = request.flags;
    const std::string path = *flags.string("file");
    const GroomFile file = failing([&] { return readGroomFile(path); });
    if (flags.has("info")) return infoOf(file, path).dump(2);
    if (const auto mesh = flags.string("checkScalp")) {
        const auto other = failing([&] { return readObjMesh(*mesh); });
        return compareScalps(file.scalp.get(), *other, *mesh, path).dump(2);
    }
    if (flags.has("makeScalp")) {
        if (!file.scalp) throwFailure(path + " holds no scalp");
        const std::string out = flags.string("name").value_or(fileStem(path) + "_scalp") + ".obj";
        writeObj(out, *file.scalp);
        return "wrote " + out;
    }
    // Read into the groom named: the file's groom goes through a session, so that only a groom
    // that loads whole is written.
    GroomSession session;
    failing([&] { applyGroomFile(session, file); });
    failing([&] { saveGroom(session, request.groom); });
    return "read " + path + " into " + request.groom;
}

std::string SessionBackend::groomGraphStats(const CommandRequest& request) {
    for (const char* name : {"drawTimes", "overlays", "hairShading"})
        if (request.flags.has(name))
            throwFailure("-" + std::string(name) + " reads the viewport, and there is none here");
    auto session = openGroom(request.groom);
    const auto strands = strandsAt(*session, session->time());
    if (request.flags.has("points")) return pointsJson(strands.get()).dump();
    return session->statsJson().dump(2);
}

std::string renderGroomFile(const RenderRequest& request, ProgressReporter& progress) {
    auto session = openGroom(request.groom);
    progress.begin("Evaluating the groom", 1);
    const auto strands = strandsAt(*session, request.frame.value_or(session->time()));
    progress.advance();
    progress.finish();
    return writePreviewPicture(*strands, session->scalp().get(), request);
}

// ---- The tool's own commands ------------------------------------------------------------------

const CommandSpec& newCommandSpec() {
    static const CommandSpec spec{
        "velmorinNew",
        "new",
        "Makes a groom file: the default graph on a scalp mesh, with starter guides.",
        {
            {"s", "scalp", T::String, "OBJ file of the scalp (required)"},
            {"gn", "guides", T::Int, "How many starter guides to grow, 1 to 10000; default 64"},
            {"o", "output", T::String, "The .groom file to write (required)"},
        },
        GroomArgument::None};
    return spec;
}

const CommandSpec& paramCommandSpec() {
    static const CommandSpec spec{
        "velmorinParam",
        "param",
        "Reads or sets a param of a groom's graph: 'velmorin param GROOM NODE.PARAM' prints its "
        "value as JSON; 'velmorin param GROOM NODE.PARAM VALUE' sets it (VALUE read as JSON, else "
        "as a string) with the param's own checks and saves the groom file.",
        {},
        GroomArgument::Required};
    return spec;
}

const CommandSpec& demoCommandSpec() {
    static const CommandSpec spec{
        "velmorinDemo",
        "demo",
        "Makes a groom on the head-like sample scalp, evaluates it and writes demo.groom, "
        "demo.abc (Unreal's layout), demo.usda and demo.png into a folder.",
        {
            {"o", "output", T::String, "The folder to write into; default velmorin_demo"},
            {"d", "density", T::Double, "Share of strands, above 0 and at most 1; default 1"},
            {"gn", "guides", T::Int, "How many starter guides to grow, 1 to 10000; default 64"},
        },
        GroomArgument::None};
    return spec;
}

namespace {

int guideCount(const ParsedFlags& flags) {
    const auto count = flags.integer("guides").value_or(64);
    if (count < 1 || count > kMaxStarterGuides) throwUsage("-guides must be 1 to 10000");
    return static_cast<int>(count);
}

void noPositional(const ParsedFlags& flags) {
    if (!flags.positional().empty())
        throwUsage("unexpected argument '" + flags.positional().front() + "'");
}

// A session with the default graph and starter guides on `scalp`.
std::unique_ptr<GroomSession> starterSession(std::shared_ptr<const ScalpMesh> scalp, int guides) {
    StarterGuideOptions options;
    options.count = guides;
    auto hierarchy = failing(
        [&] { return std::make_shared<const GuideHierarchy>(makeStarterGuides(*scalp, options)); });
    auto session = std::make_unique<GroomSession>();
    failing([&] {
        session->setScalp(std::move(scalp));
        session->setGraph(defaultGraphJson());
        session->setHierarchy(std::move(hierarchy));
    });
    return session;
}

}  // namespace

std::string runNewCommand(std::span<const std::string> args) {
    const ParsedFlags flags = parseFlags(newCommandSpec(), args);
    noPositional(flags);
    const auto scalpPath = flags.string("scalp");
    if (!scalpPath) throwUsage("-scalp is required");
    const auto output = flags.string("output");
    if (!output) throwUsage("-output is required");
    const int guides = guideCount(flags);
    auto scalp = failing([&] { return readObjMesh(*scalpPath); });
    auto session = starterSession(scalp, guides);
    failing([&] { saveGroom(*session, *output); });
    return "wrote " + *output + ": the default graph and " + std::to_string(guides) +
           " starter guides on a scalp of " + std::to_string(scalp->triangleCount()) + " triangles";
}

std::string runParamCommand(std::span<const std::string> args) {
    const ParsedFlags flags = parseFlags(paramCommandSpec(), args);
    const auto& words = flags.positional();
    if (words.size() < 2) throwUsage("name a groom and NODE.PARAM");
    if (words.size() > 3) throwUsage("unexpected argument '" + words[3] + "'");
    const std::string& path = words[0];
    const std::string& target = words[1];
    const auto dot = target.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == target.size())
        throwUsage("'" + target + "' is not NODE.PARAM");
    const std::string nodeName = target.substr(0, dot);
    const std::string param = target.substr(dot + 1);

    GroomFile file = failing([&] { return readGroomFile(path); });
    Graph graph;
    failing([&] { graph.fromJson(file.graph); });
    std::uint32_t id = 0;
    try {
        id = graph.nodeId(nodeName);
    } catch (const std::exception&) {
        throwFailure("the graph has no node named '" + nodeName + "'");
    }
    ParamSet& params = graph.operatorOf(id).paramSet;
    if (words.size() == 2)
        return failing([&] { return paramValueJson(params.checked(param)).dump(); });

    const std::string& text = words[2];
    Json value = Json::parse(text, nullptr, false);
    if (value.is_discarded()) value = text;
    failing([&] {
        // checked first, so that an unknown name is named as the param's and not the value's.
        params.checked(param);
        params.set(param, paramValueFromJson(value, param));
    });
    file.graph = graph.toJson();
    // The whole file goes through a session before it is saved, so a value that the graph takes
    // but the groom cannot evaluate with never reaches the disk.
    GroomSession check;
    failing([&] { applyGroomFile(check, file); });
    failing([&] { saveGroomFile(path, file); });
    return paramValueJson(params.checked(param)).dump();
}

namespace {

// The demo's work; `written` lists each file as it stands complete.
std::string writeDemo(const fs::path& folder, double density, int guides,
                      ProgressReporter& progress, std::vector<fs::path>& written,
                      std::chrono::steady_clock::time_point started) {
    auto session = starterSession(makeHeadScalp(), guides);
    session->setViewport(false);
    progress.begin("Evaluating the groom", 1);
    const auto evaluateStart = std::chrono::steady_clock::now();
    auto strands = strandsAt(*session, 0.0);
    const double evaluateSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - evaluateStart).count();
    progress.advance();
    progress.finish();
    if (density < 1.0) {
        auto thinned = std::make_shared<StrandSet>();
        strands->thinned(density, *thinned);
        strands = std::move(thinned);
    }
    const auto scalp = session->scalp();
    const auto uvs = rootUvsOf(*strands, scalp.get());

    const std::string groomPath = (folder / "demo.groom").string();
    const std::string abcPath = (folder / "demo.abc").string();
    const std::string usdPath = (folder / "demo.usda").string();
    const std::string pngPath = (folder / "demo.png").string();
    const std::string sidePngPath = (folder / "demo_side.png").string();
    failing([&] { saveGroom(*session, groomPath); });
    written.push_back(groomPath);
    {
        PendingFile pending(abcPath);
        failing([&] {
            AlembicStrandWriter writer(pending.temporary());
            auto frameGuides = session->frame()->guides;
            if (!frameGuides) frameGuides = std::make_shared<const GuideSet>();
            const std::vector<AlembicGroup> groups = {
                AlembicGroup{"hair", 0, withRootUvs(strands, uvs), frameGuides}};
            writer.writeGroomGrouped(0.0, groups);
            writer.close();
        });
        pending.commit();
        written.push_back(abcPath);
    }
    failing([&] {
        UsdOptions options;
        options.defaultPrim = "demo";
        options.doc = "demo groom on the head-like sample scalp";
        UsdCurvesWriter writer(usdPath, options);
        writer.writeFrame(0.0, *strands, uvs);
        writer.close();
    });
    written.push_back(usdPath);
    // The pictures show the sample scalp on the rest of a head, so that the hair does not hang
    // over an empty face.
    const auto head = withSampleHead(*scalp);
    for (const auto& [path, view] :
         {std::pair{pngPath, PreviewView::Front}, std::pair{sidePngPath, PreviewView::Side}}) {
        RenderRequest render;
        render.groom = groomPath;
        render.output = path;
        render.options.width = 800;
        render.options.height = 800;
        render.options.view = view;
        writePreviewPicture(*strands, head.get(), render);
        written.push_back(path);
    }

    Json answer = Json::object();
    answer["directory"] = folder.string();
    answer["files"] = {groomPath, abcPath, usdPath, pngPath, sidePngPath};
    answer["guides"] = guides;
    answer["density"] = density;
    answer["strands"] = strands->strandCount();
    answer["points"] = strands->pointCount();
    answer["evaluationSeconds"] = evaluateSeconds;
    answer["seconds"] =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    answer["session"] = session->statsJson();
    return answer.dump(2);
}

}  // namespace

std::string runDemoCommand(std::span<const std::string> args, ProgressReporter& progress) {
    const auto started = std::chrono::steady_clock::now();
    const ParsedFlags flags = parseFlags(demoCommandSpec(), args);
    noPositional(flags);
    const double density = flags.number("density").value_or(1.0);
    if (!(density > 0.0 && density <= 1.0)) throwUsage("-density must be above 0 and at most 1");
    const int guides = guideCount(flags);
    const fs::path folder = flags.string("output").value_or("velmorin_demo");
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) throwFailure("cannot make the folder '" + folder.string() + "': " + error.message());

    // The four files stand together or not at all: a failure removes what was written before it.
    std::vector<fs::path> written;
    try {
        return writeDemo(folder, density, guides, progress, written, started);
    } catch (...) {
        for (const fs::path& path : written) {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
        throw;
    }
}

}  // namespace velmorin
