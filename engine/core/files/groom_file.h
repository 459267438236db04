#pragma once
// The groom file: a whole groom in one UTF-8 JSON document, so that it can be opened, rendered or
// handed on without the scene it came from. GroomFile is its in-memory image: the graph and the
// hand-edited payloads as their JSON texts, the scalps and colliders as meshes, the painted maps,
// and the names of the caches that live beside the file.
//
// The bulk of a groom is float arrays. They are formatted straight into text blocks (the shortest
// decimal that reads back to the same f32) and spliced into the dumped JSON in place of short
// placeholders, so that a long array never passes through a JSON tree on the way out. The finished
// file is plain JSON that any reader can open.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "maps/scalp_maps.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

// What goes wrong reading or writing a groom file, in words for the artist.
class GroomFileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The value of "format" in every groom file, and the newest "version" this Velmorin writes and
// reads.
inline constexpr std::string_view kGroomFormat = "velmorin.groom";
inline constexpr int kGroomFileVersion = 1;
// The prefix of the placeholders that stand for float blocks in the tree before it is dumped. A
// string in the groom that begins with it would be taken for one, so the writer refuses it.
inline constexpr std::string_view kFloatBlockPrefix = "@velmorin.floats:";

// How the groom's uniform scale is measured: from the scalp's surface area, from its transform, or
// not at all. Written by name ("surfaceArea", "transformOnly", "off").
enum class ScaleSource : std::uint8_t { SurfaceArea = 0, TransformOnly = 1, Off = 2 };
std::string_view scaleSourceName(ScaleSource source);

// An extra scalp of the groom, by the name the graph knows it by.
struct NamedScalp {
    std::string name;
    std::shared_ptr<const ScalpMesh> mesh;
};

// A posed guide as exported, for readers that don't evaluate the graph.
struct ExportedGuide {
    std::uint64_t id = 0;
    SurfacePoint root;
    std::vector<Vec3f> points;
    bool operator==(const ExportedGuide&) const = default;
};

// The mesh an Instance node copies onto strands. Normals and UVs are one per point, or none.
struct InstancePrototype {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    std::vector<Vec3f> normals;
    std::vector<Uv> uvs;
    bool operator==(const InstancePrototype&) const = default;
};

// A cache file beside the groom and the object inside it ("object" empty: the whole file).
struct CacheReference {
    std::string file;
    std::string object;
    bool operator==(const CacheReference&) const = default;
};

// Where the card bake's images were written: their name prefix and the strands they were baked
// from.
struct CardBakeReference {
    std::string prefix;
    std::string strands;
    bool operator==(const CardBakeReference&) const = default;
};

// A Simulate node's bake: the file, the object in it and the stamp of the run that wrote it.
struct SimCacheReference {
    std::string file;
    std::string object;
    std::uint64_t stamp = 0;
    bool operator==(const SimCacheReference&) const = default;
};
// Simulate node id to its bake.
using SimCaches = std::map<std::uint32_t, SimCacheReference>;

// One side of a transfer marker pair: a location on a scalp, or a point in the world.
struct MarkerSide {
    bool onSurface = false;
    SurfacePoint face;  // when onSurface
    Vec3f point;        // otherwise
    bool operator==(const MarkerSide&) const = default;
};

// A point on the old scalp and the same point on the new one.
struct MarkerPair {
    MarkerSide from;
    MarkerSide to;
    bool operator==(const MarkerPair&) const = default;
};

struct GroomFile {
    std::string graph;      // graph JSON
    std::string hierarchy;  // guide data JSON
    std::shared_ptr<const ScalpMesh> scalp;
    std::vector<NamedScalp> scalps;
    std::shared_ptr<const std::vector<ExportedGuide>> guides;
    // Part data, corrective data, flow data and sculpt data, as their JSON texts.
    std::string parts;
    std::string correctives;
    std::string flow;
    std::string sculpts;
    // Sculpt data of the layers other than the one "sculpts" holds, by layer name (Sculpt nodes
    // name the layer they read).
    std::map<std::string, std::string> sculptLayers;
    std::vector<std::string> controls;  // the keyed controls, in the host's order
    std::map<std::string, ScalpMap> maps;
    std::map<std::string, std::shared_ptr<const ScalpMesh>> colliders;
    std::map<std::string, InstancePrototype> prototypes;
    bool followScalp = false;
    ScaleSource scaleSource = ScaleSource::SurfaceArea;
    double scaleReference = 0.0;
    double scaleTransformReference = 0.0;
    CacheReference scalpCache;
    CacheReference guideCache;
    CardBakeReference cardBake;
    SimCaches simCaches;
    double framesPerSecond = 0.0;  // 0: unknown
    std::string units = "cm";
    std::string upAxis = "Y";  // "Y" or "Z"
    std::string source;        // the scene the groom came from
    std::vector<std::string> searchPaths;
    std::vector<MarkerPair> transferMarkers;
    std::string referencePhotos;  // the host's JSON array, passed through unread
    std::string guideGroupColors;
    std::string hiddenGuideGroups;
};

// The file's text. Throws GroomFileError "groom file: '<name>' holds a non-finite value at index
// i" for a NaN or infinity in any float array, the upAxis message for an axis other than "Y" or
// "Z", "groom file: invalid <key> JSON: ..." for a payload text that does not parse, and "groom
// file: a name or text begins with \"@velmorin.floats:\", ..." for a string that would pass for
// a float block.
std::string writeGroom(const GroomFile& file);
// Writes the text to "<path>.tmp" and renames it over `path`, so that a failed save leaves the file
// that was there as it was. Throws GroomFileError "cannot write '<path>'" (the temporary is
// removed), or "cannot write '<path>': " and the system's words when the rename fails.
void saveGroomFile(const std::string& path, const GroomFile& file);

// Reads a groom's text. All or nothing: on any fault it throws GroomFileError and gives nothing.
GroomFile parseGroom(std::string_view text);
// Reads a file: "cannot read '<path>'" when it can't be read, else as parseGroom.
GroomFile readGroomFile(const std::string& path);

// Turns a groom to another up axis ("Y" or "Z") in place: meshes, markers, prototypes, guide data
// and the graph's world directions (a Mirror's axis and side follow, so that its sides keep their
// world meaning). Nothing changes when the groom already has that axis, or when it throws.
void convertUpAxis(GroomFile& file, std::string_view targetAxis);

// A Simulate node's bake list as the host keeps it: JSON text, an object keyed by node id. Empty
// text is no bakes; an entry with an empty "file" is left out. Throws GroomFileError "simCaches:
// not an object of Simulate nodes' bakes" and "simCaches: " followed by the fault.
SimCaches simCachesFromJson(std::string_view text);
std::string simCachesToJson(const SimCaches& caches);

// A hash of each piece of the groom by its key ("graph", "scalp", "maps"...), for telling what a
// save and a read, or two grooms, changed. Payload texts are hashed by their JSON content, so that
// spacing and number spelling don't count; meshes by their content signature.
std::map<std::string, std::uint64_t> groomContentHashes(const GroomFile& file);

namespace detail {
// For tests of an interrupted save: the next saves stop as if the disk were full once this many
// bytes of the temporary file are written. Restored with kNoSaveLimit.
inline constexpr std::size_t kNoSaveLimit = static_cast<std::size_t>(-1);
void setGroomSaveLimitForTests(std::size_t bytes);
}  // namespace detail

}  // namespace velmorin
