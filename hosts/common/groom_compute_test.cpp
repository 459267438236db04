// The groom node's pull without a host: plain inputs in, a session evaluated, outputs and
// messages out.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/groom_compute.h"
#include "common/starter_guides.h"
#include "graph/graph_tools.h"
#include "mesh/sample_meshes.h"
#include "session/groom_session.h"

namespace velmorin {
namespace {

HostMesh hostMeshOf(const ScalpMesh& mesh, std::uint64_t serial) {
    return HostMesh{mesh.points(), mesh.triangles(), mesh.uvs(), serial};
}

// A small square scalp with eight starter guides under the default graph.
GroomInputs goodInputs() {
    const auto plane = makeUvPlane(6.0f, 4);
    StarterGuideOptions options;
    options.count = 8;
    GroomInputs in;
    in.graph = defaultGraphJson();
    in.scalp = hostMeshOf(*plane, 1);
    in.guideData = makeStarterGuides(*plane, options).toJson();
    return in;
}

TEST(GroomCompute, EvaluatesWhatTheHostHandsIn) {
    GroomSession session;
    GroomCompute compute(session);
    GroomInputs in = goodInputs();
    const GroomOutputs first = compute.compute(in);
    EXPECT_EQ(first.lastError, "");
    ASSERT_GT(first.strandCount, 100u);
    ASSERT_NE(first.frame, nullptr);

    EXPECT_TRUE(first.frame->viewport);
    // A render view evaluates as a render: not for the viewport, and past a point budget that
    // would hold almost nothing.
    in.previewPointBudget = 1e-6;  // one point
    in.renderView = true;
    const GroomOutputs render = compute.compute(in);
    ASSERT_NE(render.frame, nullptr);
    EXPECT_FALSE(render.frame->viewport);
    EXPECT_EQ(render.strandCount, first.strandCount);

    // A rest mesh of another point count is left out with a warning; the groom still evaluates.
    in = goodInputs();
    in.restScalp = hostMeshOf(*makeUvPlane(6.0f, 2), 2);
    const GroomOutputs rest = compute.compute(in);
    EXPECT_EQ(rest.lastError, "");
    EXPECT_EQ(rest.strandCount, first.strandCount);
    ASSERT_FALSE(rest.messages.empty());
    EXPECT_EQ(rest.messages.front(),
              "Velmorin: restMesh: ignored, it has 9 vertices and the scalp 25 (the rest mesh "
              "must be the same mesh, undeformed)");
    // Scale off leaves the groom at its own size.
    in.scaleSource = 2;
    EXPECT_EQ(compute.compute(in).groomScale, 1.0);
}

TEST(GroomCompute, BadInputKeepsTheLastFrame) {
    struct Case {
        const char* name;
        std::function<void(GroomInputs&)> spoil;
        std::string errorStart;
    };
    const std::vector<Case> cases = {
        {"graph", [](GroomInputs& in) { in.graph = "{"; }, "graph: "},
        {"guide data", [](GroomInputs& in) { in.guideData = "[1, 2]"; }, "guideData: "},
        {"uvs",
         [](GroomInputs& in) {
             in.scalp->uvs.resize(1);
             in.scalp->serial = 9;
         },
         "scalp: 1 UVs for 96 triangle corners"},
        {"part data", [](GroomInputs& in) { in.partData = "not json"; }, "partData: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        GroomSession session;
        GroomCompute compute(session);
        const GroomOutputs good = compute.compute(goodInputs());
        ASSERT_EQ(good.lastError, "");
        GroomInputs bad = goodInputs();
        c.spoil(bad);
        const GroomOutputs spoiled = compute.compute(bad);
        EXPECT_EQ(spoiled.lastError.rfind(c.errorStart, 0), 0u) << spoiled.lastError;
        EXPECT_EQ(spoiled.strandCount, good.strandCount);
        EXPECT_EQ(spoiled.frame, good.frame);
        ASSERT_FALSE(spoiled.messages.empty());
        EXPECT_EQ(spoiled.messages.front(), "Velmorin: " + spoiled.lastError);
        // Good input again evaluates again.
        EXPECT_EQ(compute.compute(goodInputs()).lastError, "");
    }
}

TEST(GroomCompute, AnotherTimeLeavesTheLiveSessionAlone) {
    GroomSession session;
    GroomCompute compute(session);
    GroomInputs in = goodInputs();
    in.time = 3.0;
    const GroomOutputs live = compute.compute(in);
    const std::vector<Value> other = compute.computeAt(10.0, false);
    EXPECT_FALSE(other.empty());
    EXPECT_EQ(session.time(), 3.0);
    EXPECT_EQ(session.frame(), live.frame);
}

}  // namespace
}  // namespace velmorin
