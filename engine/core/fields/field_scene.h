#pragma once
// What fields read of the groom besides the strands: the scalp, the catalog of painted maps, the
// guides of the node that samples them, and the expression environment of the evaluation.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "expr/environment.h"
#include "expr/program.h"
#include "graph/run_scene.h"
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

// The scene of a node's run, as the graph hands it to the operator (EvalContext::scene).
struct FieldScene : RunScene {
    std::shared_ptr<const ScalpMesh> scalp;
    std::shared_ptr<const MapCatalogValue> catalog;
    std::uint64_t catalogKey = 0;            // the catalog's scene-input key
    std::shared_ptr<const GuideSet> guides;  // the node's guides input, where it has one
    ExpressionEnvironment environment;       // with the catalog's maps behind resolveMap
    // Stands for what `environment` resolves maps from (the scene inputs' keys), for the cache of
    // compiled expressions; 0 where unknown, and then nothing compiled here is kept.
    std::uint64_t environmentKey = 0;
};

// The program of a mapped param's expression over the scene's environment: compiled once per
// source and environment (expr/program_cache.h) where the scene's environment key is known, else
// compiled now. Throws ExpressionError.
std::shared_ptr<const ExpressionProgram> compileMappedExpression(std::string_view source,
                                                                 ExpressionType expected,
                                                                 const FieldScene& scene);

// The environment key of the scene that makeFieldScene would make for `ctx`: never 0.
std::uint64_t fieldEnvironmentKey(const EvalContext& ctx);

// The expression environment of an evaluation: its frame (the context's time), the time in
// seconds at kExpressionFramesPerSecond, no maps, no variables.
ExpressionEnvironment expressionEnvironment(const EvalContext& ctx);
// The same with the node's own variables read from their JSON text (see
// readExpressionVariables); keyed ones take the number of the context's scene input named
// "control:" + their control, where it holds one value.
ExpressionEnvironment expressionEnvironment(const EvalContext& ctx, std::string_view variablesJson);

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
