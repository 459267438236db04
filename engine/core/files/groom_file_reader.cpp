// The groom file, the reader: the whole text through the JSON library, then each section checked
// and read into a GroomFile that is handed out only when every section was read. Every size comes
// from an array the text holds, so nothing is allocated beyond what the file itself carries.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>

#include "base/document.h"
#include "base/json_numbers.h"
#include "files/groom_file_internal.h"
#include "files/json_scan.h"

namespace velmorin {
namespace {

using Json = detail::GroomJson;

[[noreturn]] void fail(const std::string& message) {
    throw GroomFileError("groom file: " + message);
}

const Json* member(const Json& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

// The sections kept as JSON text: the fast scanner copies them out without building a tree.
constexpr std::string_view kTextSections[] = {"graph",        "correctives",    "flow",
                                              "hierarchy",    "parts",          "sculpts",
                                              "sculptLayers", "referencePhotos"};

// A list of numbers as the tree holds it: a JSON array, or the fast scanner's packed doubles.
class Numbers {
  public:
    // Nothing for a value that is neither.
    static std::optional<Numbers> of(const Json* json) {
        if (!json || !(json->is_array() || detail::isPacked(*json))) return std::nullopt;
        return Numbers(*json);
    }
    std::size_t size() const { return packed_ ? detail::packedCount(json_) : json_.size(); }
    std::optional<float> floatAt(std::size_t i) const {
        return packed_ ? detail::narrowToFloat(detail::packedAt(json_, i))
                       : detail::groomFloat(json_[i]);
    }
    std::optional<std::int32_t> intAt(std::size_t i) const {
        return packed_ ? intFromJson(Json(detail::packedAt(json_, i))) : intFromJson(json_[i]);
    }

  private:
    explicit Numbers(const Json& json) : json_(json), packed_(detail::isPacked(json)) {}
    const Json& json_;
    bool packed_;
};

// An array to walk entry by entry: packed numbers are unpacked into `scratch`, so that every
// section meets the same values (and gives the same words) however the text was read.
const Json& entries(const Json& json, Json& scratch) {
    if (!detail::isPacked(json)) return json;
    scratch = Json::array();
    for (std::size_t i = 0; i < detail::packedCount(json); ++i)
        scratch.push_back(detail::packedAt(json, i));
    return scratch;
}

std::string text(const Json& object, std::string_view key, std::string_view name,
                 std::string fallback = {}) {
    const Json* value = member(object, key);
    if (!value) return fallback;
    if (!value->is_string()) fail("'" + std::string(name) + "' must be a string");
    return value->get<std::string>();
}

double number(const Json& object, std::string_view key, double fallback = 0.0) {
    const Json* value = member(object, key);
    if (!value) return fallback;
    if (!value->is_number()) fail(std::string(1, '\'').append(key).append("' must be a number"));
    return value->get<double>();
}

std::vector<std::string> texts(const Json& object, std::string_view key) {
    std::vector<std::string> out;
    Json scratch;
    const Json* value = member(object, key);
    if (!value) return out;
    value = &entries(*value, scratch);
    if (!value->is_array()) fail("'" + std::string(key) + "' must be an array of strings");
    out.reserve(value->size());
    for (const Json& entry : *value) {
        if (!entry.is_string()) fail("'" + std::string(key) + "' must be an array of strings");
        out.push_back(entry.get<std::string>());
    }
    return out;
}

const Json& object(const Json& json, const std::string& name) {
    if (!json.is_object()) fail("'" + name + "' must be an object");
    return json;
}

// A flat array of `tuple`-float groups, each group made into an element by `make`. A missing array
// (null) is refused like any other value that is not an array.
template <class T, class Make>
std::vector<T> tuples(const Json* json, const std::string& name, std::size_t tuple, Make make) {
    const auto numbers = Numbers::of(json);
    if (!numbers || numbers->size() % tuple != 0) {
        fail("'" + name + "' must be an array of " + std::to_string(tuple) + "-tuples");
    }
    std::vector<T> out;
    out.reserve(numbers->size() / tuple);
    float parts[4];
    for (std::size_t i = 0; i < numbers->size(); i += tuple) {
        for (std::size_t k = 0; k < tuple; ++k) {
            const auto value = numbers->floatAt(i + k);
            if (!value) fail("'" + name + "' must hold numbers");
            parts[k] = *value;
        }
        out.push_back(make(parts));
    }
    return out;
}

std::vector<Vec3f> points(const Json* json, const std::string& name) {
    return tuples<Vec3f>(json, name, 3, [](const float* p) { return Vec3f{p[0], p[1], p[2]}; });
}
std::vector<Uv> uvs(const Json* json, const std::string& name) {
    return tuples<Uv>(json, name, 2, [](const float* p) { return Uv{p[0], p[1]}; });
}
std::vector<Rgba> colors(const Json* json, const std::string& name) {
    return tuples<Rgba>(json, name, 4, [](const float* p) { return Rgba{p[0], p[1], p[2], p[3]}; });
}

// Whole triangles whose corners name points below `pointCount`; nothing for anything else.
std::optional<std::vector<Triangle>> triangles(const Json* json, std::size_t pointCount) {
    const auto numbers = Numbers::of(json);
    if (!numbers || numbers->size() % 3 != 0) return std::nullopt;
    std::vector<Triangle> out(numbers->size() / 3);
    for (std::size_t i = 0; i < numbers->size(); ++i) {
        const auto corner = numbers->intAt(i);
        if (!corner || *corner < 0 || static_cast<std::size_t>(*corner) >= pointCount) {
            return std::nullopt;
        }
        out[i / 3][i % 3] = static_cast<std::uint32_t>(*corner);
    }
    return out;
}

std::uint32_t count(const Json& json, const std::string& name) {
    const auto value = intFromJson(json);
    if (!value || *value < 0) fail("bad " + name);
    return static_cast<std::uint32_t>(*value);
}

// Calls a mesh setter; its refusal becomes "groom file: bad <name>: " and its words.
template <class Set>
void setMeshPart(const std::string& name, Set set) {
    try {
        set();
    } catch (const std::invalid_argument& error) {
        fail("bad " + name + ": " + error.what());
    }
}

std::shared_ptr<const ScalpMesh> readMesh(const Json& json, const std::string& name) {
    object(json, name);
    auto meshPoints = points(member(json, "points"), name + ".points");
    auto meshTriangles = triangles(member(json, "triangles"), meshPoints.size());
    if (!meshTriangles) fail("bad " + name + ".triangles");
    auto mesh = std::make_shared<ScalpMesh>();
    setMeshPart(name + ".triangles",
                [&] { mesh->setGeometry(std::move(meshPoints), std::move(*meshTriangles)); });
    if (const Json* polygons = member(json, "polygons")) {
        const auto numbers = Numbers::of(polygons);
        if (!numbers) fail("bad " + name + ".polygons");
        std::vector<std::int32_t> counts;
        counts.reserve(numbers->size());
        for (std::size_t i = 0; i < numbers->size(); ++i) {
            const auto value = numbers->intAt(i);
            if (!value) fail("bad " + name + ".polygons");
            counts.push_back(*value);
        }
        setMeshPart(name + ".polygons", [&] { mesh->setPolygons(std::move(counts)); });
    }
    if (const Json* rest = member(json, "restPoints")) {
        auto values = points(rest, name + ".restPoints");
        setMeshPart(name + ".restPoints", [&] { mesh->setRestPoints(std::move(values)); });
    }
    if (const Json* meshUvs = member(json, "uvs")) {
        auto values = uvs(meshUvs, name + ".uvs");
        setMeshPart(name + ".uvs", [&] { mesh->setUvs(std::move(values)); });
    }
    if (const Json* sets = member(json, "colorSets")) {
        for (const auto& [set, block] : object(*sets, name + ".colorSets").items()) {
            const std::string setName = name + ".colorSets." + set;
            auto values = colors(&block, setName);
            setMeshPart(setName, [&] { mesh->setColorSet(set, std::move(values)); });
        }
    }
    if (const Json* ranges = member(json, "scalpRanges")) {
        const std::string rangesName = name + ".scalpRanges";
        Json scratch;
        ranges = &entries(*ranges, scratch);
        if (!ranges->is_array()) fail("bad " + rangesName);
        std::vector<ScalpRange> list;
        ScalpRange next;
        for (const Json& entry : *ranges) {
            if (!entry.is_object()) fail("bad " + rangesName);
            next.name = text(entry, "name", rangesName + ".name");
            next.triangleCount = count(entry.value("triangles", Json()), rangesName);
            next.pointCount = count(entry.value("points", Json()), rangesName);
            list.push_back(next);
            next.firstTriangle += next.triangleCount;
            next.firstPoint += next.pointCount;
        }
        setMeshPart(rangesName, [&] { mesh->setScalps(std::move(list)); });
    }
    ScalpSubdivision subdivision;
    if (const Json* levels = member(json, "subdivision")) {
        subdivision.levels = static_cast<int>(count(*levels, name + ".subdivision"));
    }
    // The render setting the levels match means nothing without levels.
    if (subdivision.levels > 0) {
        subdivision.from = text(json, "subdivisionFrom", name + ".subdivisionFrom");
    }
    if (const Json* cage = member(json, "subdivisionCageFaces")) {
        subdivision.cageFaceCount = count(*cage, name + ".subdivisionCageFaces");
    }
    if (const Json* cages = member(json, "subdivisionScalpCageFaces")) {
        const std::string cagesName = name + ".subdivisionScalpCageFaces";
        Json scratch;
        cages = &entries(*cages, scratch);
        if (!cages->is_array()) fail("bad " + cagesName);
        for (const Json& entry : *cages)
            subdivision.scalpCageFaceCounts.push_back(count(entry, cagesName));
    }
    if (subdivision != ScalpSubdivision{}) mesh->setSubdivision(std::move(subdivision));
    return mesh;
}

std::optional<SurfacePoint> surfacePoint(const Json& json) {
    if (!json.is_array() || json.size() != 3) return std::nullopt;
    const auto face = intFromJson(json[0]);
    const auto u = detail::groomFloat(json[1]);
    const auto v = detail::groomFloat(json[2]);
    if (!face || !u || !v) return std::nullopt;
    return SurfacePoint{*face, *u, *v};
}

MarkerSide markerSide(const Json& json) {
    if (!json.is_object()) fail("not a list of marker pairs");
    MarkerSide side;
    if (const Json* face = member(json, "face")) {
        const auto location = surfacePoint(*face);
        if (!location) fail("not a list of marker pairs");
        side.onSurface = true;
        side.face = *location;
    } else if (const Json* point = member(json, "point")) {
        const auto value = points(point, "transferMarkers.point");
        if (value.size() != 1) fail("not a list of marker pairs");
        side.point = value[0];
    } else {
        fail("a marker side has neither a face nor a point");
    }
    return side;
}

ScalpMap readMap(const std::string& name, const Json& json) {
    if (!json.is_object()) fail("map '" + name + "' is not an object");
    ScalpMap map;
    const std::string kind = text(json, "kind", "maps." + name + ".kind", "vertices");
    if (kind == mapKindName(MapKind::Texture)) {
        map.kind = MapKind::Texture;
    } else if (kind != mapKindName(MapKind::Vertices)) {
        fail("map '" + name + "' has unknown kind '" + kind + "'");
    }
    if (const Json* channels = member(json, "channels")) {
        const auto value = intFromJson(*channels);
        if (value != 1 && value != 4) {
            Json scratch;
            fail("map '" + name + "' has " + entries(*channels, scratch).dump() +
                 " channels (1 or 4)");
        }
        map.channels = *value;
    }
    if (map.kind == MapKind::Texture) {
        map.texture = text(json, "texture", "maps." + name + ".texture");
    } else if (const Json* values = member(json, "values")) {
        const std::string valuesName = "maps." + name + ".values";
        const auto channels = static_cast<std::size_t>(map.channels);
        const auto numbers = Numbers::of(values);
        if (!numbers || numbers->size() % channels != 0) {
            fail("'" + valuesName + "' must be an array of " + std::to_string(channels) +
                 "-tuples");
        }
        map.values = tuples<float>(values, valuesName, 1, [](const float* p) { return p[0]; });
    }
    return map;
}

InstancePrototype readPrototype(const Json& json, const std::string& name) {
    object(json, "prototypes." + name);
    InstancePrototype prototype;
    prototype.points = points(member(json, "points"), "prototypes.points");
    const auto list = Numbers::of(member(json, "triangles"));
    if (!list || list->size() % 3 != 0) fail("bad prototypes.triangles");
    prototype.triangles.resize(list->size() / 3);
    for (std::size_t i = 0; i < list->size(); ++i) {
        const auto corner = list->intAt(i);
        if (!corner) fail("bad prototypes.triangles");
        if (*corner < 0 || static_cast<std::size_t>(*corner) >= prototype.points.size()) {
            fail("a prototype's triangle names a point it does not have");
        }
        prototype.triangles[i / 3][i % 3] = static_cast<std::uint32_t>(*corner);
    }
    if (const Json* normals = member(json, "normals")) {
        prototype.normals = points(normals, "prototypes.normals");
    }
    if (const Json* values = member(json, "uvs")) prototype.uvs = uvs(values, "prototypes.uvs");
    const std::size_t n = prototype.points.size();
    if (!prototype.normals.empty() && prototype.normals.size() != n) {
        fail("bad prototypes.normals");
    }
    if (!prototype.uvs.empty() && prototype.uvs.size() != n) fail("bad prototypes.uvs");
    return prototype;
}

CacheReference cacheReference(const Json& json, const std::string& name) {
    object(json, name);
    return {text(json, "file", name + ".file"), text(json, "object", name + ".object")};
}

ScaleSource scaleSource(const std::string& name) {
    for (ScaleSource source :
         {ScaleSource::SurfaceArea, ScaleSource::TransformOnly, ScaleSource::Off}) {
        if (scaleSourceName(source) == name) return source;
    }
    fail("scaleSource is \"surfaceArea\", \"transformOnly\" or \"off\", not \"" + name + "\"");
}

// A payload section as its text: it must be an object, as its own reader expects.
std::string payloadText(const Json& doc, std::string_view key) {
    const Json* value = member(doc, key);
    if (!value) return {};
    if (auto text = detail::rawText(*value)) {
        if (text->front() != '{') fail("'" + std::string(key) + "' must be an object");
        return std::move(*text);
    }
    if (!value->is_object()) fail("'" + std::string(key) + "' must be an object");
    return value->dump();
}

[[noreturn]] void simCachesFault(const std::string& message) {
    throw GroomFileError("simCaches: " + message);
}

SimCaches simCachesOf(const Json& json) {
    if (!json.is_object()) simCachesFault("not an object of Simulate nodes' bakes");
    SimCaches caches;
    for (const auto& [key, entry] : json.items()) {
        std::uint32_t node = 0;
        const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), node);
        if (key.empty() || error != std::errc() || end != key.data() + key.size() ||
            !entry.is_object()) {
            simCachesFault("not an object of Simulate nodes' bakes");
        }
        const auto field = [&](std::string_view name) -> std::string {
            const Json* value = member(entry, name);
            if (!value) return {};
            if (!value->is_string()) {
                simCachesFault("the bake of node " + key + " has a \"" + std::string(name) +
                               "\" that is not a string");
            }
            return value->get<std::string>();
        };
        if (!member(entry, "file")) simCachesFault("the bake of node " + key + " names no file");
        SimCacheReference cache{field("file"), field("object"), 0};
        const std::string stamp = field("stamp");
        if (!stamp.empty()) {
            const auto [at, bad] =
                std::from_chars(stamp.data(), stamp.data() + stamp.size(), cache.stamp);
            if (bad != std::errc() || at != stamp.data() + stamp.size()) {
                simCachesFault("the bake of node " + key + " has the stamp '" + stamp +
                               "', not a whole number");
            }
        }
        if (!cache.file.empty()) caches[node] = std::move(cache);
    }
    return caches;
}

GroomFile readDocument(Json& doc) {
    const Json* format = doc.is_object() ? member(doc, "format") : nullptr;
    if (!format || *format != kGroomFormat) throw GroomFileError("not a Velmorin groom file");
    if (auto version = doc.find("version"); version != doc.end()) {
        Json scratch;
        *version = Json(entries(*version, scratch));  // the shared check's words show its value
    }
    try {
        checkFormatVersion(doc, kGroomFileVersion, "groom file");
    } catch (const SchemaError& error) {
        // The shared words already name the groom file.
        throw GroomFileError(error.what());
    }

    GroomFile file;
    file.framesPerSecond = number(doc, "framesPerSecond");
    file.units = text(doc, "units", "units", "cm");
    if (const Json* axis = member(doc, "upAxis")) {
        Json scratch;
        detail::checkUpAxis(axis->is_string() ? axis->get<std::string>()
                                              : entries(*axis, scratch).dump());
        file.upAxis = axis->get<std::string>();
    }
    file.source = text(doc, "source", "source");
    file.graph = payloadText(doc, "graph");
    if (file.graph == "{}") file.graph.clear();  // the writer's form of a groom with no graph
    file.hierarchy = payloadText(doc, "hierarchy");
    file.parts = payloadText(doc, "parts");
    file.correctives = payloadText(doc, "correctives");
    file.flow = payloadText(doc, "flow");
    file.sculpts = payloadText(doc, "sculpts");

    if (const Json* layers = member(doc, "sculptLayers")) {
        const auto text = detail::rawText(*layers);
        const Json tree = text ? Json::parse(*text) : *layers;
        for (const auto& [layer, data] : object(tree, "sculptLayers").items()) {
            if (!data.is_object()) fail("'sculptLayers." + layer + "' must be an object");
            file.sculptLayers[layer] = data.dump();
        }
    }
    file.controls = texts(doc, "controls");
    if (const Json* maps = member(doc, "maps")) {
        for (const auto& [name, map] : object(*maps, "maps").items())
            file.maps[name] = readMap(name, map);
    }
    if (const Json* scalp = member(doc, "scalp")) {
        if (!scalp->is_object() || !scalp->empty()) file.scalp = readMesh(*scalp, "scalp");
    }
    if (const Json* scalps = member(doc, "scalps")) {
        Json scratch;
        scalps = &entries(*scalps, scratch);
        if (!scalps->is_array()) fail("'scalps' must be an array of meshes");
        for (const Json& entry : *scalps) {
            object(entry, "scalps");
            const std::string name = text(entry, "name", "scalps.name");
            const bool repeated = std::any_of(file.scalps.begin(), file.scalps.end(),
                                              [&](const NamedScalp& s) { return s.name == name; });
            if (name.empty() || repeated) fail("bad scalps name '" + name + "'");
            file.scalps.push_back({name, readMesh(entry, "scalps." + name)});
        }
    }
    if (const Json* guides = member(doc, "guides")) {
        Json scratch;
        guides = &entries(*guides, scratch);
        if (!guides->is_array()) fail("'guides' must be an array of guides");
        auto list = std::make_shared<std::vector<ExportedGuide>>();
        list->reserve(guides->size());
        for (const Json& entry : *guides) {
            object(entry, "guides");
            ExportedGuide guide;
            const Json* id = member(entry, "id");
            if (!id || !id->is_number_unsigned()) fail("bad guides.id");
            guide.id = id->get<std::uint64_t>();
            const Json* root = member(entry, "root");
            const auto location = root ? surfacePoint(*root) : std::nullopt;
            if (!location) fail("bad guides.root");
            guide.root = *location;
            guide.points = points(member(entry, "points"), "guides.points");
            list->push_back(std::move(guide));
        }
        file.guides = std::move(list);
    }
    if (const Json* cache = member(doc, "scalpCache")) {
        file.scalpCache = cacheReference(*cache, "scalpCache");
    }
    if (const Json* cache = member(doc, "guideCache")) {
        file.guideCache = cacheReference(*cache, "guideCache");
    }
    file.searchPaths = texts(doc, "searchPaths");
    if (const Json* follow = member(doc, "followScalp")) {
        if (!follow->is_boolean()) fail("'followScalp' must be true or false");
        file.followScalp = follow->get<bool>();
    }
    if (member(doc, "scaleSource")) {
        file.scaleSource = scaleSource(text(doc, "scaleSource", "scaleSource"));
    }
    // A reference of 0 or less is none: the next measure sets it.
    file.scaleReference = std::max(0.0, number(doc, "scaleReference"));
    file.scaleTransformReference = std::max(0.0, number(doc, "scaleTransformReference"));
    if (const Json* bake = member(doc, "cardBake")) {
        object(*bake, "cardBake");
        file.cardBake = {text(*bake, "prefix", "cardBake.prefix"),
                         text(*bake, "strands", "cardBake.strands")};
        if (file.cardBake.prefix.empty()) file.cardBake = {};  // no bake without its images
    }
    if (const Json* caches = member(doc, "simCaches")) file.simCaches = simCachesOf(*caches);
    if (const Json* prototypes = member(doc, "prototypes")) {
        for (const auto& [name, prototype] : object(*prototypes, "prototypes").items())
            file.prototypes[name] = readPrototype(prototype, name);
    }
    if (const Json* colliders = member(doc, "colliders")) {
        for (const auto& [name, mesh] : object(*colliders, "colliders").items())
            file.colliders[name] = readMesh(mesh, "colliders." + name);
    }
    if (const Json* markers = member(doc, "transferMarkers")) {
        Json scratch;
        markers = &entries(*markers, scratch);
        if (!markers->is_array()) fail("not a list of marker pairs");
        for (const Json& pair : *markers) {
            if (!pair.is_array() || pair.size() != 2) fail("not a list of marker pairs");
            file.transferMarkers.push_back({markerSide(pair[0]), markerSide(pair[1])});
        }
    }
    if (const Json* photos = member(doc, "referencePhotos")) {
        auto text = detail::rawText(*photos);
        if (text ? text->front() != '[' : !photos->is_array()) {
            fail("'referencePhotos' must be an array");
        }
        if (!text) text = photos->dump();
        if (*text != "[]") file.referencePhotos = std::move(*text);
    }
    file.guideGroupColors = text(doc, "guideGroupColors", "guideGroupColors");
    file.hiddenGuideGroups = text(doc, "hiddenGuideGroups", "hiddenGuideGroups");
    return file;
}

}  // namespace

SimCaches simCachesFromJson(std::string_view text) {
    if (isBlankDocument(text)) return {};
    try {
        return simCachesOf(Json::parse(text.begin(), text.end()));
    } catch (const Json::exception& error) {
        simCachesFault(error.what());
    }
}

GroomFile parseGroom(std::string_view text) {
    Json doc;
    if (auto scanned = detail::scanJson(text, kTextSections)) {
        doc = std::move(*scanned);
    } else {
        // What the scanner can't vouch for, the JSON library reads (or refuses in its words).
        try {
            doc = Json::parse(text.begin(), text.end());
        } catch (const Json::exception& error) {
            throw GroomFileError(std::string("groom file: invalid JSON: ") + error.what());
        }
    }
    try {
        return readDocument(doc);
    } catch (const GroomFileError&) {
        throw;
    } catch (const std::exception& error) {
        throw GroomFileError(std::string("groom file: ") + error.what());
    }
}

GroomFile readGroomFile(const std::string& path) {
    const std::filesystem::path file(
        std::u8string(reinterpret_cast<const char8_t*>(path.data()), path.size()));
    std::FILE* in = std::fopen(file.c_str(), "rb");
    if (!in) throw GroomFileError("cannot read '" + path + "'");
    std::string content;
    char buffer[1 << 16];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, in)) > 0)
        content.append(buffer, got);
    const bool failed = std::ferror(in) != 0;
    std::fclose(in);
    if (failed) throw GroomFileError("cannot read '" + path + "'");
    return parseGroom(content);
}

}  // namespace velmorin
