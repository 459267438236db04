#include "base/hash.h"
#include "editing/guide_hierarchy.h"
#include "graph/registry.h"
#include "ops/field_op_params.h"
#include "ops/guide_selection.h"
#include "ops/source_ops.h"

namespace velmorin {
namespace {

using field_ops::makeParam;

// The groom's guides into the graph: a level or named groups of its hierarchy, or its flat list.
class GuidesOp final : public Operator {
  public:
    std::string type() const override { return "Guides"; }
    std::string category() const override { return "source"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"guides", PortType::Guides}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec input =
            makeParam("input", std::string("guides"), "Name of the external flat guide input");
        ParamSpec hierarchy = makeParam("hierarchy", std::string("hierarchy"),
                                        "Name of the external guide hierarchy input");
        ParamSpec level = makeParam("level", std::int64_t{-1},
                                    "Hierarchy level to use without groups (-1: each family's "
                                    "deepest groups: a group's children where it has some, else "
                                    "its own guides)");
        level.min = -1.0;
        level.softMax = 5.0;
        ParamSpec group = makeParam("group", std::string(),
                                    "Hierarchy groups to use instead of a level, space or comma "
                                    "separated, with their guides together (empty: use level)");
        ParamSpec exclude = makeParam("exclude", std::string(),
                                      "Groups left out, with their child groups (space or comma "
                                      "separated), e.g. braid paths that are not hair");
        std::vector<ParamSpec> specs{input, hierarchy, level, group, exclude};
        for (ParamSpec& spec : specs)
            spec.animatable = false;
        return specs;
    }
    std::vector<std::string> sceneInputs() const override {
        return {paramSet.getString("input", "guides"),
                paramSet.getString("hierarchy", "hierarchy")};
    }
    // A named input counts by its key only while it holds what the node reads from it: guides
    // under `input`, a hierarchy under `hierarchy`. A name that points at something else (the
    // scalp, a map) reads as no guides, so its changes, a deforming scalp's every frame, must not
    // run the node and all that follows it again.
    std::uint64_t sceneInputKey(const std::string& name, const SceneInput& input) const override {
        std::uint64_t key = 0x6775696465ull;
        if (name == paramSet.getString("input", "guides") && input.value.get<GuideSet>())
            key = hashCombine(key, input.key);
        if (name == paramSet.getString("hierarchy", "hierarchy") &&
            input.value.get<GuideHierarchy>())
            key = hashCombine(key + 1, input.key);
        return key;
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        const SceneInput* flatInput = ctx.sceneInput(paramSet.getString("input", "guides"));
        const SceneInput* hierarchyInput =
            ctx.sceneInput(paramSet.getString("hierarchy", "hierarchy"));
        const auto flat = flatInput ? flatInput->value.get<GuideSet>() : nullptr;
        const auto hierarchy =
            hierarchyInput ? hierarchyInput->value.get<GuideHierarchy>() : nullptr;
        GuideSelection selection;
        selection.level = static_cast<int>(paramSet.getInt("level", -1));
        selection.groups = paramSet.getString("group", "");
        selection.excluded = paramSet.getString("exclude", "");
        return std::make_shared<const GuideSet>(
            selectGuides(hierarchy.get(), flat.get(), selection));
    }
};

}  // namespace

void registerGuidesOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "source";
    info.description = "The groom's guides, by group: what Interpolate, Clump and friends follow.";
    info.keywords = "guide curves groups";
    registry.registerType(
        "Guides", [] { return std::make_unique<GuidesOp>(); }, info);
}

}  // namespace velmorin
