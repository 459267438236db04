#include "fields/field_scene.h"

#include "base/hash.h"
#include "expr/expression.h"
#include "expr/program_cache.h"
#include "fields/field_map.h"
#include "graph/eval_context.h"
#include "graph/uniform_value.h"
#include "maps/texture.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// A catalog map as an expression reads it: its colour at each strand's root.
class CatalogMapSource final : public ExpressionMapSource {
  public:
    explicit CatalogMapSource(std::shared_ptr<const FieldMap> map) : map_(std::move(map)) {}
    void sampleRoots(const StrandSet& strands, std::span<float> rgba) const override {
        const MapColorFieldValue colors(map_);
        FieldScene scene;
        scene.scalp = map_->scalp;
        auto bound = colors.prepare(&strands, scene);
        // Alpha is not kept by the colour form: maps read here are opaque.
        for (std::size_t s = 0; s < strands.strandCount(); ++s) {
            const Vec3f c = bound->colorAtStrand(s);
            rgba[4 * s] = c.x;
            rgba[4 * s + 1] = c.y;
            rgba[4 * s + 2] = c.z;
            rgba[4 * s + 3] = 1.0f;
        }
    }

  private:
    std::shared_ptr<const FieldMap> map_;
};

}  // namespace

std::uint64_t MapCatalogValue::key() const {
    std::uint64_t h = hashText(0x636174616c6f67ull, maps.toJson());
    for (const auto& [name, kind] : guideLayers)
        h = hashText(hashText(h, name), kind);
    return h;
}

ExpressionMapResolver catalogMapResolver(std::shared_ptr<const ScalpMesh> scalp,
                                         std::shared_ptr<const MapCatalogValue> catalog,
                                         std::uint64_t catalogKey) {
    return [scalp, catalog,
            catalogKey](std::string_view name) -> std::shared_ptr<const ExpressionMapSource> {
        auto map = std::make_shared<FieldMap>();
        map->scalp = scalp;
        const ScalpMap* painted = useCatalogMap(*map, catalog, catalogKey, name);
        if (!painted) return nullptr;
        const std::string quoted = "map(\"" + std::string(name) + "\"): ";
        if (map->kind == FieldMapKind::Texture) {
            if (map->name.empty())
                throw ExpressionError(quoted + "the texture map has no image file yet");
            try {
                map->texture = Texture::load(map->name);
            } catch (const TextureError& e) {
                throw ExpressionError(quoted + e.what());
            }
            if (!scalp || !scalp->hasUvs())
                throw ExpressionError(quoted + "a texture map needs a scalp with UVs");
        } else {
            if (!scalp || painted->vertexCount() != scalp->pointCount())
                throw ExpressionError(quoted + "the vertex map does not fit this scalp");
        }
        return std::make_shared<CatalogMapSource>(std::move(map));
    };
}

std::shared_ptr<const FieldScene> makeFieldScene(const EvalContext& ctx,
                                                 std::shared_ptr<const GuideSet> guides) {
    auto scene = std::make_shared<FieldScene>();
    if (const SceneInput* input = ctx.sceneInput(kScalpInput))
        scene->scalp = input->value.get<ScalpMesh>();
    if (const SceneInput* input = ctx.sceneInput(kMapsInput)) {
        scene->catalog = input->value.get<MapCatalogValue>();
        scene->catalogKey = input->key;
    }
    scene->guides = std::move(guides);
    scene->environment = expressionEnvironment(ctx);
    scene->environment.resolveMap =
        catalogMapResolver(scene->scalp, scene->catalog, scene->catalogKey);
    scene->environmentKey = fieldEnvironmentKey(ctx);
    return scene;
}

std::shared_ptr<const ExpressionProgram> compileMappedExpression(std::string_view source,
                                                                 ExpressionType expected,
                                                                 const FieldScene& scene) {
    if (scene.environmentKey == 0) return compile(source, scene.environment, expected);
    return compileCached(source, expected, scene.environmentKey, scene.environment.frame,
                         [&scene] { return scene.environment; });
}

std::uint64_t fieldEnvironmentKey(const EvalContext& ctx) {
    std::uint64_t h = 0x656e7669726f6eull;
    for (const std::string_view name : {kScalpInput, kMapsInput}) {
        const SceneInput* input = ctx.sceneInput(name);
        h = hashCombine(h, input ? input->key : 0);
    }
    return h == 0 ? 1 : h;
}

ExpressionEnvironment expressionEnvironment(const EvalContext& ctx) {
    return expressionEnvironment(ctx.time);
}

ExpressionEnvironment expressionEnvironment(const EvalContext& ctx,
                                            std::string_view variablesJson) {
    const ExpressionControls controls = [&ctx](std::string_view control) {
        return controlValue(ctx, control);
    };
    return expressionEnvironment(ctx.time, variablesJson, controls);
}

}  // namespace velmorin
