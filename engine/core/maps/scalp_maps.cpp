#include "maps/scalp_maps.h"

#include "base/document.h"
#include "base/json_numbers.h"
#include "maps/texture.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

// A map may bear any name, "version" too.
constexpr DocumentFormat kScalpMaps{.kind = "scalp maps",
                                    .version = 1,
                                    .invalidJson = "scalpMaps: invalid JSON: ",
                                    .notAnObject = "scalpMaps: expected an object of maps",
                                    .keysAreNames = true};

[[noreturn]] void fail(const std::string& name, const std::string& rest) {
    throw SchemaError("scalpMaps: map '" + name + "' " + rest);
}

ScalpMap mapFromJson(const std::string& name, const Json& json) {
    if (!json.is_object()) fail(name, "is not an object");
    ScalpMap map;
    if (const auto kind = json.find("kind"); kind != json.end()) {
        if (*kind == "vertices")
            map.kind = MapKind::Vertices;
        else if (*kind == "texture")
            map.kind = MapKind::Texture;
        else
            fail(name, "has unknown kind '" +
                           (kind->is_string() ? kind->get<std::string>() : kind->dump()) + "'");
    }
    if (const auto channels = json.find("channels"); channels != json.end()) {
        const std::optional<std::int32_t> count = intFromJson(*channels);
        if (count != 1 && count != 4) fail(name, "has " + channels->dump() + " channels (1 or 4)");
        map.channels = *count;
    }
    if (map.kind == MapKind::Texture) {
        if (const auto texture = json.find("texture"); texture != json.end()) {
            if (!texture->is_string()) fail(name, "has a texture that is not a file path");
            map.texture = texture->get<std::string>();
        }
        return map;
    }
    if (const auto values = json.find("values"); values != json.end()) {
        if (!values->is_array()) fail(name, "has values that are not a flat list of numbers");
        map.values.reserve(values->size());
        for (const Json& value : *values) {
            const std::optional<float> number = floatFromJson(value);
            if (!number) fail(name, "has values that are not a flat list of numbers");
            map.values.push_back(*number);
        }
        if (map.values.size() % static_cast<std::size_t>(map.channels) != 0) {
            fail(name, "has " + std::to_string(map.values.size()) +
                           " values, which are not whole vertices of " +
                           std::to_string(map.channels) + " channels");
        }
    }
    return map;
}

}  // namespace

std::string_view mapKindName(MapKind kind) {
    return kind == MapKind::Texture ? "texture" : "vertices";
}

const ScalpMap* ScalpMaps::find(std::string_view name) const {
    const auto found = maps.find(std::string(name));
    return found == maps.end() ? nullptr : &found->second;
}

ScalpMaps ScalpMaps::fromJson(std::string_view text) {
    ScalpMaps result;
    const std::optional<Json> doc = openDocument(text, kScalpMaps);
    if (!doc) return result;
    for (const auto& [name, json] : doc->items()) {
        if (name == "version" && !json.is_object()) continue;
        result.maps.emplace(name, mapFromJson(name, json));
    }
    return result;
}

std::string ScalpMaps::toJson() const {
    Json doc = Json::object();
    for (const auto& [name, map] : maps) {
        Json json = Json::object();
        json["kind"] = mapKindName(map.kind);
        if (map.channels == 4) json["channels"] = 4;
        if (map.kind == MapKind::Texture) {
            json["texture"] = map.texture;
        } else {
            Json values = Json::array();
            values.get_ref<Json::array_t&>().reserve(map.values.size());
            for (const float value : map.values)
                values.push_back(floatForJson(value));
            json["values"] = std::move(values);
        }
        doc[name] = std::move(json);
    }
    // A map named "version" is written as it is; the reader tells it by its object.
    if (!doc.contains("version")) doc["version"] = kScalpMaps.version;
    return doc.dump();
}

Json ScalpMaps::describe() const {
    Json list = Json::array();
    for (const auto& [name, map] : maps) {
        list.push_back(
            {{"name", name}, {"kind", mapKindName(map.kind)}, {"channels", map.channels}});
    }
    return list;
}

void checkMapFitsScalp(std::string_view name, const ScalpMap& map, const ScalpMesh& scalp) {
    if (map.kind != MapKind::Vertices) return;
    const std::size_t channels = static_cast<std::size_t>(map.channels);
    if (map.values.size() == scalp.pointCount() * channels) return;
    throw TextureError(
        "map '" + std::string(name) + "' was painted on a scalp with " +
        std::to_string(map.vertexCount()) + " vertices; this one has " +
        std::to_string(scalp.pointCount()) +
        " (convert it to a texture or guide layer on the old scalp, or fill it anew)");
}

}  // namespace velmorin
