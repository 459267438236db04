#include "fields/mapped_params.h"

#include <exception>
#include <string_view>

#include "base/hash.h"
#include "expr/program_cache.h"
#include "fields/field_scene.h"
#include "graph/eval_context.h"
#include "graph/params.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {
namespace {

// Whether the expression of a mapped param reads the frame or the time, as its compiled program
// says. The program is the one the run will use, from the cache of compiled expressions, so
// asking costs no compile of its own. One that does not compile reads nothing: the run reports
// why.
bool readsTime(const ParamSet& params, const std::string& name, const MapReference& map,
               const EvalContext& ctx) {
    const ParamSpec* spec = params.spec(name);
    const ExpressionType expected =
        spec && spec->kind() == ParamKind::Vec3 ? ExpressionType::Vector : ExpressionType::Number;
    try {
        const auto program =
            compileCached(map.text, expected, fieldEnvironmentKey(ctx), ctx.time, [&ctx] {
                const auto scene = makeFieldScene(ctx, nullptr);
                return scene->environment;
            });
        return program->reads(kReadsTime);
    } catch (const std::exception&) {
        return false;
    }
}

class FieldMappedParams final : public MappedParams {
  public:
    // Params that hold maps read the scalp and the catalog of maps, and an expression that reads
    // the frame reads the time.
    std::uint64_t key(const ParamSet& params, const EvalContext& ctx) const override {
        bool timed = false;
        for (const auto& [name, value] : params.values) {
            const MapReference* map = std::get_if<MapReference>(&value);
            if (!timed && map && map->source == MapSource::Expression)
                timed = readsTime(params, name, *map, ctx);
        }
        std::uint64_t h = 0x6d6170706564ull;
        for (const std::string_view name : {kScalpInput, kMapsInput}) {
            const SceneInput* input = ctx.sceneInput(name);
            h = hashCombine(h, input ? input->key : 0);
        }
        if (timed) h = hashCombine(h, doubleBits(ctx.time));
        return h;
    }

    std::shared_ptr<const RunScene> scene(const EvalContext& ctx,
                                          std::shared_ptr<const GuideSet> guides) const override {
        return makeFieldScene(ctx, std::move(guides));
    }
};

}  // namespace

std::shared_ptr<const MappedParams> fieldMappedParams() {
    static const std::shared_ptr<const MappedParams> mapped = std::make_shared<FieldMappedParams>();
    return mapped;
}

void installFieldMappedParams(OperatorRegistry& registry) {
    registry.setMappedParams(fieldMappedParams());
}

}  // namespace velmorin
