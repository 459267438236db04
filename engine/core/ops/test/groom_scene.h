#pragma once
// A groom's scene for the tests and benchmarks that run whole graphs: a scalp with guides grown on
// it, handed to the graph as the scene inputs its Scalp and Guides nodes read.

#include <memory>

#include "base/hash.h"
#include "graph/eval_context.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin::test {

struct GroomScene {
    std::shared_ptr<const ScalpMesh> scalp;
    std::shared_ptr<const GuideSet> guides;
    SceneInputs inputs;
};

// Guides of `points` points on `scalp`, rooted where a Scatter of `density` puts strands: each
// rises along the scalp's normal for two units and falls back and sideways, more towards the tip.
inline GroomScene groomScene(std::shared_ptr<const ScalpMesh> scalp, double density,
                             int points = 8) {
    EvalContext ctx;
    ctx.resolution = 1;
    auto scatter = OperatorRegistry::instance().create("Scatter");
    scatter->paramSet.set("density", density);
    scatter->paramSet.set("seed", std::int64_t{9});
    const auto roots = scatter->evaluate(ctx, {scalp, Value()}).get<StrandSet>();
    auto guides = std::make_shared<GuideSet>();
    for (std::size_t g = 0; g < roots->strandCount(); ++g) {
        Guide guide;
        guide.id = roots->ids()[g];
        guide.root = roots->roots()[g];
        const Vec3f start = roots->strandPoints(g)[0];
        const Vec3f normal = scalp->normalAt(guide.root);
        for (int k = 0; k < points; ++k) {
            const float t = static_cast<float>(k) / static_cast<float>(points - 1);
            guide.points.push_back(start + normal * (2.0f * t) +
                                   Vec3f{0.0f, -t * t, unitFloat(guide.id) * t});
        }
        guides->guides.push_back(std::move(guide));
    }
    GroomScene scene;
    scene.scalp = scalp;
    scene.guides = guides;
    scene.inputs["scalp"] = SceneInput{Value(scalp), 1};
    scene.inputs["guides"] = SceneInput{Value(std::shared_ptr<const GuideSet>(guides)), 2};
    return scene;
}

}  // namespace velmorin::test
