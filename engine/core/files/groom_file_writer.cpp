// The groom file, the writer: a JSON tree of the small values with placeholders where the float
// arrays go, dumped compact, then one pass that splices the arrays' text blocks into the dump.
// Saving writes the text to a temporary sibling and renames it over the target.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <span>
#include <system_error>

#include "base/document.h"
#include "base/parallel.h"
#include "files/groom_file_internal.h"
#include "files/json_scan.h"

namespace velmorin {
namespace {

using Json = detail::GroomJson;

std::atomic<std::size_t> saveLimit{detail::kNoSaveLimit};

// The blocks of number text that the tree holds placeholders for, in the order they were made.
// Number arrays are formatted after the tree is built, all blocks in parallel: each block is its
// own text, so the file does not depend on the thread count. The arrays must outlive the writer.
class Blocks {
  public:
    // Checks and formats a float array; `tuple` floats are read from each element by `put`.
    template <class T, class Put>
    Json floats(std::string name, std::span<const T> values, std::size_t tuple, Put put) {
        return add([name = std::move(name), values, tuple, put](std::string& block) {
            block.reserve(values.size() * tuple * 10 + 2);
            block += '[';
            float parts[4];
            for (std::size_t i = 0; i < values.size(); ++i) {
                put(values[i], parts);
                for (std::size_t k = 0; k < tuple; ++k) {
                    if (!std::isfinite(parts[k])) {
                        throw GroomFileError("groom file: '" + name +
                                             "' holds a non-finite value at index " +
                                             std::to_string(i * tuple + k));
                    }
                    if (i + k > 0) block += ',';
                    detail::appendGroomFloat(block, parts[k]);
                }
            }
            block += ']';
        });
    }

    Json points(const std::string& name, std::span<const Vec3f> values) {
        return floats(name, values, 3, [](const Vec3f& p, float* out) {
            out[0] = p.x;
            out[1] = p.y;
            out[2] = p.z;
        });
    }
    Json uvs(const std::string& name, std::span<const Uv> values) {
        return floats(name, values, 2, [](const Uv& uv, float* out) {
            out[0] = uv.u;
            out[1] = uv.v;
        });
    }
    Json colors(const std::string& name, std::span<const Rgba> values) {
        return floats(name, values, 4, [](const Rgba& c, float* out) {
            out[0] = c.r;
            out[1] = c.g;
            out[2] = c.b;
            out[3] = c.a;
        });
    }
    Json values(const std::string& name, std::span<const float> values) {
        return floats(name, values, 1, [](float v, float* out) { out[0] = v; });
    }

    // A flat integer array: the same text the tree would dump, without a JSON value per number.
    template <class T>
    Json integers(std::span<const T> values) {
        return add([values](std::string& block) {
            block.reserve(values.size() * 7 + 2);
            block += '[';
            char text[24];
            for (std::size_t i = 0; i < values.size(); ++i) {
                if (i > 0) block += ',';
                block.append(text, std::to_chars(text, text + sizeof text, values[i]).ptr);
            }
            block += ']';
        });
    }
    Json triangles(std::span<const Triangle> triangles) {
        static_assert(sizeof(Triangle) == 3 * sizeof(std::uint32_t));
        return integers(std::span<const std::uint32_t>(
            reinterpret_cast<const std::uint32_t*>(triangles.data()), triangles.size() * 3));
    }

    // The dumped tree with every placeholder replaced by its block. Each block's placeholder must
    // be found exactly once: a text of the groom shaped like one would otherwise take its place.
    std::string splice(const std::string& dumped) const {
        std::size_t total = dumped.size();
        for (const std::string& block : blocks_)
            total += block.size();
        std::string out;
        out.reserve(total);
        std::vector<bool> used(blocks_.size(), false);
        const std::string opening = "\"" + std::string(kFloatBlockPrefix);
        std::size_t from = 0;
        std::size_t found = 0;
        while ((found = dumped.find(opening, from)) != std::string::npos) {
            const std::size_t digits = found + opening.size();
            const std::size_t close = dumped.find("@\"", digits);
            std::size_t index = 0;
            const char* end = dumped.data() + (close == std::string::npos ? digits : close);
            const auto [ptr, error] = std::from_chars(dumped.data() + digits, end, index);
            if (close == std::string::npos || error != std::errc() || ptr != end ||
                index >= blocks_.size() || used[index]) {
                throw GroomFileError(
                    "groom file: a name or text begins with \"" + std::string(kFloatBlockPrefix) +
                    "\", which groom files keep for their number arrays: rename it");
            }
            used[index] = true;
            out.append(dumped, from, found - from);
            out += blocks_[index];
            from = close + 2;
        }
        out.append(dumped, from, std::string::npos);
        return out;
    }

    // JSON text that goes into the file as it stands.
    Json raw(std::string text) {
        blocks_.push_back(std::move(text));
        jobs_.emplace_back();
        return placeholder();
    }

    // Formats every number block; a fault is that of the first block, in the writer's order.
    void format() {
        std::vector<std::exception_ptr> faults(jobs_.size());
        parallelRange(0, jobs_.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                if (!jobs_[i]) continue;
                try {
                    jobs_[i](blocks_[i]);
                } catch (...) {
                    faults[i] = std::current_exception();
                }
            }
        });
        for (const std::exception_ptr& fault : faults) {
            if (fault) std::rethrow_exception(fault);
        }
    }

  private:
    using Job = std::function<void(std::string&)>;

    Json add(Job job) {
        blocks_.emplace_back();
        jobs_.push_back(std::move(job));
        return placeholder();
    }
    Json placeholder() const {
        return std::string(kFloatBlockPrefix) + std::to_string(blocks_.size() - 1) + "@";
    }

    std::vector<std::string> blocks_;
    std::vector<Job> jobs_;
};

// A payload text as it goes into the file: its JSON object without blanks, or nothing when the
// text is blank. The guide data of a large groom is most of the file, so its text is checked and
// copied rather than parsed into a tree and dumped again; what the scanner can't vouch for goes
// through the JSON library. A text that is not a JSON object fails the save: the file would not
// read back.
std::optional<Json> payload(Blocks& blocks, const std::string& text, const std::string& key) {
    if (isBlankDocument(text)) return std::nullopt;
    const auto notAnObject = [&] {
        return GroomFileError("groom file: the " + key + " JSON is not an object");
    };
    if (auto compact = detail::compactJson(text)) {
        if (compact->front() != '{') throw notAnObject();
        return blocks.raw(std::move(*compact));
    }
    Json json;
    try {
        json = Json::parse(text);
    } catch (const Json::exception& error) {
        throw GroomFileError("groom file: invalid " + key + " JSON: " + error.what());
    }
    if (!json.is_object()) throw notAnObject();
    return json;
}

bool allOnes(const std::vector<std::int32_t>& polygons) {
    return std::all_of(polygons.begin(), polygons.end(), [](std::int32_t n) { return n == 1; });
}

Json meshJson(Blocks& blocks, const ScalpMesh& mesh, const std::string& name) {
    Json json = Json::object();
    json["points"] = blocks.points(name + ".points", mesh.points());
    json["triangles"] = blocks.triangles(mesh.triangles());
    if (!allOnes(mesh.polygons())) {
        json["polygons"] = blocks.integers(std::span<const std::int32_t>(mesh.polygons()));
    }
    const ScalpSubdivision& subdivision = mesh.subdivision();
    if (subdivision.levels > 0) {
        json["subdivision"] = subdivision.levels;
        if (!subdivision.from.empty()) json["subdivisionFrom"] = subdivision.from;
    }
    // What the groom reports about the cage the levels came from; kept so that a mesh reads back
    // as the same mesh, signature and all.
    if (subdivision.cageFaceCount > 0) json["subdivisionCageFaces"] = subdivision.cageFaceCount;
    if (!subdivision.scalpCageFaceCounts.empty()) {
        json["subdivisionScalpCageFaces"] = subdivision.scalpCageFaceCounts;
    }
    if (!mesh.restPoints().empty()) {
        json["restPoints"] = blocks.points(name + ".restPoints", mesh.restPoints());
    }
    if (mesh.hasUvs()) json["uvs"] = blocks.uvs(name + ".uvs", mesh.uvs());
    if (!mesh.colorSets().empty()) {
        Json sets = Json::object();
        for (const auto& [set, colors] : mesh.colorSets())
            sets[set] = blocks.colors(name + ".colorSets." + set, colors);
        json["colorSets"] = std::move(sets);
    }
    // The meshes a merged scalp was made from, in order: each a run of triangles and points.
    if (!mesh.scalps().empty()) {
        Json ranges = Json::array();
        for (const ScalpRange& range : mesh.scalps()) {
            ranges.push_back({{"name", range.name},
                              {"triangles", range.triangleCount},
                              {"points", range.pointCount}});
        }
        json["scalpRanges"] = std::move(ranges);
    }
    return json;
}

Json surfaceJson(const SurfacePoint& p) {
    return Json::array({p.face, detail::groomFloatJson(p.u), detail::groomFloatJson(p.v)});
}

Json vectorJson(const Vec3f& v) {
    return Json::array(
        {detail::groomFloatJson(v.x), detail::groomFloatJson(v.y), detail::groomFloatJson(v.z)});
}

Json markerSideJson(const MarkerSide& side) {
    if (side.onSurface) return {{"face", surfaceJson(side.face)}};
    return {{"point", vectorJson(side.point)}};
}

Json cacheJson(const CacheReference& cache) {
    Json json = {{"file", cache.file}};
    if (!cache.object.empty()) json["object"] = cache.object;
    return json;
}

Json simCachesTree(const SimCaches& caches) {
    Json json = Json::object();
    for (const auto& [node, cache] : caches) {
        json[std::to_string(node)] = {
            {"file", cache.file}, {"object", cache.object}, {"stamp", std::to_string(cache.stamp)}};
    }
    return json;
}

Json mapJson(Blocks& blocks, const std::string& name, const ScalpMap& map) {
    // What the reader would refuse is refused here, so that a saved groom always reads back.
    if (map.channels != 1 && map.channels != 4) {
        throw GroomFileError("groom file: map '" + name + "' has " + std::to_string(map.channels) +
                             " channels (1 or 4)");
    }
    if (map.kind == MapKind::Vertices && map.values.size() % 4 != 0 && map.channels == 4) {
        throw GroomFileError("groom file: map '" + name + "' has " +
                             std::to_string(map.values.size()) + " values, not 4 for each vertex");
    }
    Json json = {{"kind", std::string(mapKindName(map.kind))}};
    if (map.kind == MapKind::Texture) json["texture"] = map.texture;
    if (map.channels == 4) json["channels"] = 4;
    if (map.kind == MapKind::Vertices) {
        json["values"] = blocks.values("maps." + name + ".values", map.values);
    }
    return json;
}

Json prototypeJson(Blocks& blocks, const std::string& name, const InstancePrototype& prototype) {
    const std::size_t n = prototype.points.size();
    const bool inside =
        std::all_of(prototype.triangles.begin(), prototype.triangles.end(),
                    [&](const Triangle& t) { return t[0] < n && t[1] < n && t[2] < n; });
    if (!inside) {
        throw GroomFileError("groom file: a triangle of the prototype '" + name +
                             "' names a point it does not have");
    }
    if ((!prototype.normals.empty() && prototype.normals.size() != n) ||
        (!prototype.uvs.empty() && prototype.uvs.size() != n)) {
        throw GroomFileError("groom file: the prototype '" + name +
                             "' needs one normal and one UV a point, or none");
    }
    Json json = Json::object();
    json["points"] = blocks.points("prototypes.points", prototype.points);
    json["triangles"] = blocks.triangles(prototype.triangles);
    json["normals"] = blocks.points("prototypes.normals", prototype.normals);
    json["uvs"] = blocks.uvs("prototypes.uvs", prototype.uvs);
    return json;
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) throw std::system_error(errno, std::generic_category());
    const std::size_t limit = saveLimit.load();
    constexpr std::size_t kChunk = std::size_t{1} << 20;
    bool good = true;
    for (std::size_t at = 0; good && at < text.size(); at += kChunk) {
        std::size_t count = std::min(kChunk, text.size() - at);
        if (limit != detail::kNoSaveLimit && at + count > limit) {
            count = limit > at ? limit - at : 0;
            good = false;
        }
        if (std::fwrite(text.data() + at, 1, count, out) != count) good = false;
    }
    if (std::fclose(out) != 0) good = false;
    if (!good) throw std::system_error(std::make_error_code(std::errc::no_space_on_device));
}

}  // namespace

namespace detail {

void checkUpAxis(std::string_view axis) {
    if (axis != "Y" && axis != "Z") {
        throw GroomFileError("groom file: upAxis is \"Y\" or \"Z\", not \"" + std::string(axis) +
                             "\"");
    }
}

void setGroomSaveLimitForTests(std::size_t bytes) {
    saveLimit.store(bytes);
}

}  // namespace detail

std::string_view scaleSourceName(ScaleSource source) {
    switch (source) {
        case ScaleSource::SurfaceArea:
            return "surfaceArea";
        case ScaleSource::TransformOnly:
            return "transformOnly";
        case ScaleSource::Off:
            return "off";
    }
    return "surfaceArea";
}

std::string simCachesToJson(const SimCaches& caches) {
    return simCachesTree(caches).dump();
}

std::string writeGroom(const GroomFile& file) {
    detail::checkUpAxis(file.upAxis);
    Blocks blocks;
    Json doc = Json::object();
    doc["format"] = kGroomFormat;
    doc["version"] = kGroomFileVersion;
    doc["framesPerSecond"] = file.framesPerSecond;
    doc["units"] = file.units;
    doc["upAxis"] = file.upAxis;
    doc["source"] = file.source;
    doc["graph"] = payload(blocks, file.graph, "graph").value_or(Json::object());
    const std::pair<const char*, const std::string*> payloads[] = {
        {"hierarchy", &file.hierarchy},
        {"parts", &file.parts},
        {"correctives", &file.correctives},
        {"flow", &file.flow},
        {"sculpts", &file.sculpts}};
    for (const auto& [key, text] : payloads) {
        if (auto json = payload(blocks, *text, key)) doc[key] = std::move(*json);
    }
    if (!file.sculptLayers.empty()) {
        Json layers = Json::object();
        for (const auto& [layer, text] : file.sculptLayers) {
            if (auto json = payload(blocks, text, "sculptLayers." + layer)) {
                layers[layer] = std::move(*json);
            }
        }
        if (!layers.empty()) doc["sculptLayers"] = std::move(layers);
    }
    if (!file.controls.empty()) doc["controls"] = file.controls;
    if (!file.maps.empty()) {
        Json maps = Json::object();
        for (const auto& [name, map] : file.maps)
            maps[name] = mapJson(blocks, name, map);
        doc["maps"] = std::move(maps);
    }
    if (file.scalp) {
        Json scalp = meshJson(blocks, *file.scalp, "scalp");
        scalp["topology"] = std::to_string(file.scalp->topologySignature());
        doc["scalp"] = std::move(scalp);
    } else {
        doc["scalp"] = Json::object();
    }
    if (!file.scalps.empty()) {
        Json scalps = Json::array();
        for (std::size_t i = 0; i < file.scalps.size(); ++i) {
            const NamedScalp& named = file.scalps[i];
            const bool repeated =
                std::any_of(file.scalps.begin(), file.scalps.begin() + i,
                            [&](const NamedScalp& s) { return s.name == named.name; });
            if (named.name.empty() || repeated) {
                throw GroomFileError("groom file: bad scalps name '" + named.name + "'");
            }
            if (!named.mesh) {
                throw GroomFileError("groom file: the scalp '" + named.name + "' has no mesh");
            }
            Json mesh = Json::object();
            mesh["name"] = named.name;
            mesh.update(meshJson(blocks, *named.mesh, "scalps." + named.name));
            scalps.push_back(std::move(mesh));
        }
        doc["scalps"] = std::move(scalps);
    }
    if (file.guides && !file.guides->empty()) {
        Json guides = Json::array();
        for (const ExportedGuide& guide : *file.guides) {
            Json json = Json::object();
            json["id"] = guide.id;
            json["root"] = surfaceJson(guide.root);
            json["points"] = blocks.points("guides.points", guide.points);
            guides.push_back(std::move(json));
        }
        doc["guides"] = std::move(guides);
    }
    if (!file.scalpCache.file.empty() || !file.scalpCache.object.empty()) {
        doc["scalpCache"] = cacheJson(file.scalpCache);
    }
    if (!file.guideCache.file.empty() || !file.guideCache.object.empty()) {
        doc["guideCache"] = cacheJson(file.guideCache);
    }
    if (!file.searchPaths.empty()) doc["searchPaths"] = file.searchPaths;
    if (file.followScalp) doc["followScalp"] = true;
    if (file.scaleSource != ScaleSource::SurfaceArea) {
        doc["scaleSource"] = scaleSourceName(file.scaleSource);
    }
    if (file.scaleReference > 0.0) doc["scaleReference"] = file.scaleReference;
    if (file.scaleTransformReference > 0.0) {
        doc["scaleTransformReference"] = file.scaleTransformReference;
    }
    if (!file.cardBake.prefix.empty()) {
        doc["cardBake"] = {{"prefix", file.cardBake.prefix}, {"strands", file.cardBake.strands}};
    }
    if (!file.simCaches.empty()) doc["simCaches"] = simCachesTree(file.simCaches);
    if (!file.prototypes.empty()) {
        Json prototypes = Json::object();
        for (const auto& [name, prototype] : file.prototypes)
            prototypes[name] = prototypeJson(blocks, name, prototype);
        doc["prototypes"] = std::move(prototypes);
    }
    if (!file.colliders.empty()) {
        Json colliders = Json::object();
        for (const auto& [name, mesh] : file.colliders) {
            if (!mesh) throw GroomFileError("groom file: the collider '" + name + "' has no mesh");
            colliders[name] = meshJson(blocks, *mesh, "colliders." + name);
        }
        doc["colliders"] = std::move(colliders);
    }
    if (!file.transferMarkers.empty()) {
        Json markers = Json::array();
        for (const MarkerPair& pair : file.transferMarkers)
            markers.push_back(Json::array({markerSideJson(pair.from), markerSideJson(pair.to)}));
        doc["transferMarkers"] = std::move(markers);
    }
    // The host's photo list passes through as it came, when it is a list that holds something.
    if (auto compact = detail::compactJson(file.referencePhotos)) {
        if (compact->front() == '[' && *compact != "[]") {
            doc["referencePhotos"] = blocks.raw(std::move(*compact));
        }
    } else if (!file.referencePhotos.empty()) {
        Json photos = Json::parse(file.referencePhotos, nullptr, false);
        if (photos.is_array() && !photos.empty()) doc["referencePhotos"] = std::move(photos);
    }
    if (!file.guideGroupColors.empty()) doc["guideGroupColors"] = file.guideGroupColors;
    if (!file.hiddenGuideGroups.empty()) doc["hiddenGuideGroups"] = file.hiddenGuideGroups;

    blocks.format();
    std::string dumped;
    try {
        dumped = doc.dump();
    } catch (const Json::type_error&) {
        throw GroomFileError("groom file: a name or text is not valid UTF-8: set it again");
    }
    return blocks.splice(dumped);
}

void saveGroomFile(const std::string& path, const GroomFile& file) {
    const std::string text = writeGroom(file);
    const std::filesystem::path target(
        std::u8string(reinterpret_cast<const char8_t*>(path.data()), path.size()));
    std::filesystem::path temporary = target;
    temporary += ".tmp";
    try {
        writeFile(temporary, text);
    } catch (const std::system_error&) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw GroomFileError("cannot write '" + path + "'");
    }
    std::error_code renamed;
    std::filesystem::rename(temporary, target, renamed);
    if (renamed) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        throw GroomFileError("cannot write '" + path + "': " + renamed.message());
    }
}

}  // namespace velmorin
