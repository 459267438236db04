#include <string>

#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "mesh/scalp_range.h"
#include "ops/field_op_params.h"
#include "ops/source_ops.h"

namespace velmorin {
namespace {

// The faces (polygons with triangles) among the triangles [first, first + count).
std::uint32_t facesIn(const ScalpMesh& mesh, std::uint64_t first, std::uint64_t count) {
    std::uint32_t faces = 0;
    std::uint64_t at = 0;
    for (const std::int32_t polygon : mesh.polygons()) {
        if (polygon > 0 && at >= first && at < first + count) ++faces;
        at += static_cast<std::uint64_t>(polygon);
    }
    return faces;
}

// The status line of a Scalp node handing on `range` of `scalp` (null: all of it): the
// subdivision in force, with the triangles it makes from the faces the scalp came with.
std::string subdivisionStatus(const ScalpMesh& scalp, const ScalpRange* range) {
    const ScalpSubdivision& subdivision = scalp.subdivision();
    std::uint64_t triangles = scalp.triangleCount();
    std::uint32_t faces = 0;
    if (subdivision.levels > 0) {
        faces = subdivision.cageFaceCount;
        if (range) {
            const auto index = static_cast<std::size_t>(range - scalp.scalps().data());
            faces = index < subdivision.scalpCageFaceCounts.size()
                        ? subdivision.scalpCageFaceCounts[index]
                        : 0;
        }
    } else {
        faces = range ? facesIn(scalp, range->firstTriangle, range->triangleCount)
                      : facesIn(scalp, 0, triangles);
    }
    if (range) triangles = range->triangleCount;
    const std::string counts =
        std::to_string(triangles) + " triangles from " + std::to_string(faces) + " faces";
    if (subdivision.levels <= 0) return "Subdivision off (" + counts + ")";
    const std::string render = subdivision.from.empty()
                                   ? std::string(" (match render)")
                                   : " (match render: " + subdivision.from + ")";
    return "Catmull-Clark x" + std::to_string(subdivision.levels) + ": " + counts + render;
}

// The groom's scalp, or one of the scalps it was merged from, into the graph.
class ScalpOp final : public Operator {
  public:
    std::string type() const override { return "Scalp"; }
    std::string category() const override { return "source"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"scalp", PortType::Mesh}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec input = field_ops::makeParam(
            "input", std::string("scalp"),
            "Which of the groom's scalps: scalp (its own mesh) or the name of another scalp of the "
            "groom (Maya: Attribute Editor > Scalps), so a Scatter fed this node grows hair on "
            "that mesh alone");
        input.animatable = false;
        return {input};
    }
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }
    // The mesh may change under the same key (a deforming scalp hands its points in place).
    bool alwaysFresh() const override { return true; }

    // The subdivision in force on the mesh handed on; nothing when there is no such mesh (the run
    // said so already).
    std::string evaluationNote(const EvalContext& ctx) const override {
        const std::string name = paramSet.getString("input", "scalp");
        const SceneInput* input = ctx.sceneInput(kScalpInput);
        const auto scalp = input ? input->value.get<ScalpMesh>() : nullptr;
        if (!scalp) return {};
        if (name == kScalpInput) return subdivisionStatus(*scalp, nullptr);
        const ScalpRange* range = findScalpRange(*scalp, name);
        return range ? subdivisionStatus(*scalp, range) : std::string();
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const std::string name = paramSet.getString("input", "scalp");
        const SceneInput* input = ctx.sceneInput(kScalpInput);
        const auto scalp = input ? input->value.get<ScalpMesh>() : nullptr;
        if (name == kScalpInput && scalp) return scalp;
        if (scalp) {
            if (const ScalpRange* range = findScalpRange(*scalp, name))
                return std::make_shared<const ScalpMesh>(cutScalpRange(*scalp, *range));
        }
        ctx.note("No scalp named '" + name + "' on this groom: nothing to grow on");
        return std::make_shared<const ScalpMesh>();
    }
};

}  // namespace

void registerScalpOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "source";
    info.description = "The mesh the hair grows on.";
    info.keywords = "mesh skin body surface";
    registry.registerType(
        "Scalp", [] { return std::make_unique<ScalpOp>(); }, info);
}

}  // namespace velmorin
