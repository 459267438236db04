#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/source_ops.h"

namespace velmorin {
namespace {

// The scene input under which a groom's collider of this name reaches the graph.
std::string colliderInput(const std::string& name) {
    return "collider:" + name;
}

// A collider mesh registered with the groom, for Collide and Simulate.
class ColliderMeshOp final : public Operator {
  public:
    std::string type() const override { return "ColliderMesh"; }
    std::string category() const override { return "source"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"mesh", PortType::Mesh}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec name = field_ops::makeParam(
            "name", std::string("collider"),
            "The collider mesh's name, as registered with the groom (Maya: Attribute Editor > "
            "Colliders, or velmorin.add_collider)");
        name.animatable = false;
        ParamSpec friction = field_ops::makeParam(
            "friction", -1.0,
            "How much simulated hair resting on this mesh is kept from sliding, 0-1, in a "
            "Simulate node it feeds (-1: the Simulate node's friction)");
        friction.min = -1.0;
        friction.max = 1.0;
        return {name, friction};
    }
    std::vector<std::string> sceneInputs() const override {
        return {colliderInput(paramSet.getString("name", "collider"))};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const SceneInput* input =
            ctx.sceneInput(colliderInput(paramSet.getString("name", "collider")));
        if (!input) return {};
        return input->value.get<ScalpMesh>();
    }
};

}  // namespace

void registerColliderMeshOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "source";
    info.description = "Another mesh (a body, a collar) for Collide to keep strands out of.";
    info.keywords = "body collar obstacle mesh";
    registry.registerType(
        "ColliderMesh", [] { return std::make_unique<ColliderMeshOp>(); }, info);
}

}  // namespace velmorin
