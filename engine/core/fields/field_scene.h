#pragma once
// What fields read of the groom besides the strands: the scalp, the catalog of painted maps, the
// guides of the node that samples them, and the expression environment of the evaluation.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "expr/environment.h"
#include "maps/scalp_maps.h"

namespace velmorin {

class ScalpMesh;
struct GuideSet;
struct EvalContext;

// The groom's catalog of maps as the graph sees it (the scene input "maps"): the painted scalp
// maps, and the names of the layers painted on guides, each "guides" or "hierarchy".
struct MapCatalogValue {
    ScalpMaps maps;
    std::map<std::string, std::string, std::less<>> guideLayers;

    std::uint64_t key() const;
};

// The scene inputs that carry the scalp and the catalog.
inline constexpr std::string_view kScalpInput = "scalp";
inline constexpr std::string_view kMapsInput = "maps";

struct FieldScene {
    std::shared_ptr<const ScalpMesh> scalp;
    std::shared_ptr<const MapCatalogValue> catalog;
    std::uint64_t catalogKey = 0;            // the catalog's scene-input key
    std::shared_ptr<const GuideSet> guides;  // the node's guides input, where it has one
    ExpressionEnvironment environment;       // with the catalog's maps behind resolveMap
};

// The scene of one node's run: the scalp and catalog from the context's scene inputs, the guides
// given, and the evaluation's expression environment with its map resolver filled in.
std::shared_ptr<const FieldScene> makeFieldScene(const EvalContext& ctx,
                                                 std::shared_ptr<const GuideSet> guides);

// The map resolver of expressions over this scalp and catalog (whose scene-input key is
// `catalogKey`): a texture or vertex map of the catalog by name, sampled at each strand's root.
// Null for an unknown name; ExpressionError "map(\"name\"): the texture map has no image file
// yet" and "map(\"name\"): the vertex map does not fit this scalp".
ExpressionMapResolver catalogMapResolver(std::shared_ptr<const ScalpMesh> scalp,
                                         std::shared_ptr<const MapCatalogValue> catalog,
                                         std::uint64_t catalogKey);

}  // namespace velmorin
