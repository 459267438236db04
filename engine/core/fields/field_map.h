#pragma once
// Maps as fields: a texture at the scalp's UVs, a vertex map or colour set of the scalp, a channel
// of the strands, a layer painted on the guides, or an expression. A FieldMap names its source
// and output range; resolved against the scene it finds what it reads, and bound to strands it
// holds one raw value per strand (and per point where the source has them), so that sampling is
// a read of an array.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "graph/field_value.h"
#include "graph/params.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

struct ExpressionProgram;
struct ScalpMap;
struct MapCatalogValue;
struct GuideSet;
class Texture;

enum class FieldMapKind : std::uint8_t {
    Texture,
    Vertices,
    ColorSet,
    Attribute,
    Guide,
    Expression
};

// The channel read from a coloured source: r, g, b, a, or the luminance (the default).
inline constexpr int kLuminanceComponent = 4;

// A compiled expression made ready for sampling: its program (compiled against the groom's
// maps), its output range, and the per-strand scalp data that its binding reads.
struct ExpressionMap {
    std::string source;
    std::shared_ptr<const ExpressionProgram> program;
    float min = 0.0f;
    float max = 1.0f;
};

struct FieldMap {
    FieldMapKind kind = FieldMapKind::Texture;
    std::string name;  // image path, vertex map, colour set, channel, guide layer or expression
    int component = kLuminanceComponent;
    float min = 0.0f;   // output where the map is 0
    float max = 1.0f;   // output where the map is 1
    std::string owner;  // who reads it, for messages: "param 'x'" or "Map 'n'"

    // Found in the scene.
    std::shared_ptr<const Texture> texture;
    std::shared_ptr<const ScalpMesh> scalp;
    std::shared_ptr<const MapCatalogValue> catalog;  // holds vertexMap
    const ScalpMap* vertexMap = nullptr;
    const std::vector<Rgba>* colorSet = nullptr;  // in scalp
    std::shared_ptr<const GuideSet> guides;
    std::shared_ptr<const ExpressionMap> expression;
    std::uint64_t sourceKey = 0;  // what the source's content hashes to

    // Bound to strands: raw values per strand, as colours (colored sources) or numbers.
    bool bound = false;
    std::vector<float> strandValues;
    std::vector<Vec3f> strandColors;
    std::vector<float> pointValues;  // per point, where the source varies along strands
    std::vector<Vec3f> pointColors;
    std::span<const std::uint64_t> offsets;
    // A guide layer before strands exist: each guide's root and value, the nearest one answers.
    std::vector<Vec3f> guideRoots;
    std::vector<float> guideValues;
    // The owner is a Map node rather than a param: its faults read in that node's words.
    bool fromMapNode = false;

    bool vector = false;  // an expression that gives a vector (for a vector param)

    bool colored() const {
        return kind == FieldMapKind::Texture || kind == FieldMapKind::Vertices ||
               kind == FieldMapKind::ColorSet;
    }
    float range(float raw) const { return min + (max - min) * raw; }
    std::uint64_t key() const;
};

// A map giving one number: its component (luminance by default) through the output range.
class MapFieldValue : public FieldValue {
  public:
    explicit MapFieldValue(std::shared_ptr<const FieldMap> map) : map_(std::move(map)) {}
    float atStrand(std::size_t strand) const override;
    float atPoint(std::size_t strand, std::size_t point) const override;
    bool varies() const override { return true; }
    std::shared_ptr<const FieldValue> prepare(const StrandSet* strands,
                                              const FieldScene& scene) const override;
    std::uint64_t key() const override { return map_->key(); }
    std::string reads() const override;
    float atLocation(const FieldLocation& location) const override;
    std::string describe() const override;
    bool dependsOnTime() const override;
    const FieldMap& map() const { return *map_; }

  protected:
    std::shared_ptr<const FieldMap> map_;
};

// A coloured map giving its colour (each channel through the output range); its number is the
// luminance.
class MapColorFieldValue final : public MapFieldValue {
  public:
    using MapFieldValue::MapFieldValue;
    Vec3f vectorAt(std::size_t strand) const override { return colorAtStrand(strand); }
    std::shared_ptr<const FieldValue> prepare(const StrandSet* strands,
                                              const FieldScene& scene) const override;
    float atStrand(std::size_t strand) const override;
    float atPoint(std::size_t strand, std::size_t) const override { return atStrand(strand); }
    std::uint64_t key() const override;
    bool isColor() const override { return true; }
    Vec3f colorAtStrand(std::size_t strand) const override;
    Vec3f colorAtPoint(std::size_t strand, std::size_t point) const override;
};

// Makes `map` read the painted map `name` of the catalog, when the catalog holds one, and returns
// it; null, leaving `map` as it was, when it holds none. A texture map reads its image file (kind
// Texture, `name` the file's path, empty while none was painted), a vertex map its values in the
// catalog. The source key is the name with the image's path, or for a vertex map with
// `catalogKey` (the catalog's scene-input key, which changes whenever a painted value does), so
// that no run hashes a map's values. The faults (no image file, a vertex map that does not fit
// the scalp) are the caller's to word.
const ScalpMap* useCatalogMap(FieldMap& map, const std::shared_ptr<const MapCatalogValue>& catalog,
                              std::uint64_t catalogKey, std::string_view name);

// Turns a param's map reference into a field bound to `strands` (null before strands exist), in
// this order of sources: texture, colour set, attribute, guide layer, expression. Throws
// GraphError with the param's name for what can't be read. A vector param takes only an
// expression.
std::shared_ptr<const FieldValue> resolveMapReference(const std::string& param,
                                                      const MapReference& reference,
                                                      const ParamSpec* spec,
                                                      const StrandSet* strands,
                                                      const FieldScene& scene);

// The number of a component name: "r" 0 to "a" 3, "luminance" or empty 4; -1 for another.
int componentIndex(std::string_view component);

}  // namespace velmorin
