#include <filesystem>

#include "base/hash.h"
#include "fields/field_map.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "maps/texture.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/field_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

// A painted map or an image by name, as a field per channel.
class MapOp final : public Operator {
  public:
    std::string type() const override { return "Map"; }
    std::string category() const override { return "field"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"luminance", PortType::Field}; }
    std::vector<PortSpec> outputs() const override {
        return {{"luminance", PortType::Field},
                {"r", PortType::Field},
                {"g", PortType::Field},
                {"b", PortType::Field},
                {"a", PortType::Field}};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec name = makeParam(
            "name", std::string(),
            "The map (Groom Tools > Paint lists them): a layer on the guides, a value per scalp "
            "vertex or a texture at the scalp's UVs, found by its name; or an image file's path, "
            "read at the scalp's UVs");
        name.unit = "mask";
        name.animatable = false;
        return {name,
                makeParam("min", 0.0,
                          "Output where the map is black: what its 0 becomes (an output range, "
                          "not a limit; above max inverts the map)"),
                makeParam("max", 1.0,
                          "Output where the map is white: what its 1 becomes (an output range, "
                          "not a limit)")};
    }
    std::vector<std::string> sceneInputs() const override {
        return {std::string(kScalpInput), std::string(kMapsInput)};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        return evaluateAll(ctx, inputs).front();
    }
    std::vector<Value> evaluateAll(const EvalContext& ctx,
                                   const std::vector<Value>&) const override {
        const std::string name = paramSet.getString("name", "");
        if (name.empty()) throw GraphError("Map: name the map (Groom Tools > Paint)");
        FieldMap map;
        map.name = name;
        map.owner = "Map '" + name + "'";
        map.fromMapNode = true;
        map.min = static_cast<float>(paramSet.getFloat("min", 0.0));
        map.max = static_cast<float>(paramSet.getFloat("max", 1.0));
        map.sourceKey = hashText(0, name);

        const SceneInput* catalogInput = ctx.sceneInput(kMapsInput);
        const auto catalog = catalogInput ? catalogInput->value.get<MapCatalogValue>() : nullptr;
        const SceneInput* scalpInput = ctx.sceneInput(kScalpInput);
        const auto scalp = scalpInput ? scalpInput->value.get<ScalpMesh>() : nullptr;
        const ScalpMap* painted =
            useCatalogMap(map, catalog, catalogInput ? catalogInput->key : 0, name);
        if (painted && map.kind == FieldMapKind::Texture) {
            if (map.name.empty())
                throw GraphError(map.owner +
                                 ": the texture map has no image file yet (paint it in Groom "
                                 "Tools > Paint)");
        } else if (painted) {
            if (!scalp || painted->vertexCount() != scalp->pointCount())
                throw GraphError(map.owner +
                                 ": the vertex map does not fit this scalp (paint it again, or "
                                 "convert it, in Groom Tools > Paint)");
        } else if (catalog && catalog->guideLayers.count(name)) {
            // Layers on a guide hierarchy reach the strands like any guide layer.
            map.kind = FieldMapKind::Guide;
        } else {
            const bool udim = !parseUdimPattern(name).empty();
            std::error_code error;
            if (!udim && !std::filesystem::is_regular_file(name, error))
                throw GraphError("Map: no map or image named '" + name +
                                 "' (Groom Tools > Paint > New... makes a map)");
            map.kind = FieldMapKind::Texture;
        }

        std::vector<Value> outputs;
        for (const int component : {kLuminanceComponent, 0, 1, 2, 3}) {
            auto channel = std::make_shared<FieldMap>(map);
            channel->component = component;
            outputs.emplace_back(
                std::shared_ptr<const FieldValue>(std::make_shared<MapFieldValue>(channel)));
        }
        return outputs;
    }
};

}  // namespace

void registerMapOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "field";
    info.description = "A map painted in Groom Tools > Paint (or an image), feeding any param.";
    info.keywords = "paint texture image weight";
    registry.registerType(
        "Map", [] { return std::make_unique<MapOp>(); }, info);
}

}  // namespace velmorin
