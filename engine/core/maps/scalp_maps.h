#pragma once
// The groom's painted maps, by name: a value per scalp vertex, or an image on disk read at the
// scalp's UVs. Graph nodes sample them by name; the paint tools edit them (see map_paint.h). The
// document form is the "scalpMaps" JSON text that the groom keeps.

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace velmorin {

class ScalpMesh;

enum class MapKind { Vertices, Texture };

// "vertices" or "texture".
std::string_view mapKindName(MapKind kind);

struct ScalpMap {
    MapKind kind = MapKind::Vertices;
    int channels = 1;           // 1 (gray) or 4 (colour)
    std::vector<float> values;  // vertices: `channels` values per scalp vertex, interleaved
    std::string texture;        // texture: the image's path

    // The scalp vertices the values were painted on.
    std::size_t vertexCount() const { return channels > 0 ? values.size() / channels : 0; }
    bool operator==(const ScalpMap&) const = default;
};

struct ScalpMaps {
    std::map<std::string, ScalpMap> maps;

    // The map of that name, or null.
    const ScalpMap* find(std::string_view name) const;

    // Reads "scalpMaps" text; empty text is no maps. Throws SchemaError with the artist's words:
    // "scalpMaps: expected an object of maps", "scalpMaps: map 'n' is not an object", "scalpMaps:
    // map 'n' has unknown kind 'k'", "scalpMaps: map 'n' has c channels (1 or 4)", and the like for
    // values and texture paths that are not what they should be.
    static ScalpMaps fromJson(std::string_view text);
    // "kind" always, "channels" only when 4, "texture" or "values" by kind, then "version".
    std::string toJson() const;

    // A list of {"name", "kind", "channels"} objects in name order, for interfaces.
    nlohmann::ordered_json describe() const;

    bool operator==(const ScalpMaps&) const = default;
};

// Throws TextureError "map 'n' was painted on a scalp with a vertices; this one has b (convert it
// to a texture or guide layer on the old scalp, or fill it anew)" when a vertex map's values are
// not one per vertex of `scalp` and channel. Texture maps always fit.
void checkMapFitsScalp(std::string_view name, const ScalpMap& map, const ScalpMesh& scalp);

}  // namespace velmorin
