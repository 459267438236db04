// The groom session on a million strands. A new frame on a graph that reads no time, and setting a
// scalp or guide data equal to what the session holds, cost the setters' comparisons and the
// graph's keys only: no node runs again and no strand is copied. What is left per frame is the
// scene-input table, one key per node, the Scalp node's hand-on of its mesh and the frame record.
// A deforming scalp followed by the groom costs one pass over the strands' points.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "editing/test/guide_fixtures.h"
#include "mesh/sample_meshes.h"
#include "session/groom_session.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

// Scalp, Guides, Scatter, Interpolate, Length, Noise, Width and Resample in a chain, Scatter at
// `density`.
std::string chainGraph(double density) {
    Json nodes = Json::array();
    for (const auto& [name, type] :
         std::vector<std::pair<std::string, std::string>>{{"scalp", "Scalp"},
                                                          {"guides", "Guides"},
                                                          {"scatter", "Scatter"},
                                                          {"interpolate", "Interpolate"},
                                                          {"length", "Length"},
                                                          {"noise", "Noise"},
                                                          {"width", "Width"},
                                                          {"resample", "Resample"}})
        nodes.push_back({{"name", name}, {"type", type}});
    nodes[2]["params"] = {{"density", density}};
    Json connections = Json::array();
    auto connect = [&](const char* from, const char* to, const char* input) {
        connections.push_back({{"from", from}, {"to", to}, {"input", input}});
    };
    connect("scalp", "scatter", "scalp");
    connect("scatter", "interpolate", "strands");
    connect("guides", "interpolate", "guides");
    connect("scalp", "interpolate", "scalp");
    connect("interpolate", "length", "strands");
    connect("length", "noise", "strands");
    connect("noise", "width", "strands");
    connect("width", "resample", "strands");
    return Json{
        {"version", 1}, {"nodes", nodes}, {"connections", connections}, {"output", "resample"}}
        .dump();
}

// A head groomed with 200 guides and about a million strands, made once for every benchmark here.
GroomSession& millionStrandSession() {
    static GroomSession* session = [] {
        auto* made = new GroomSession;
        // The sample head, a little larger, so that a million strands stay within Scatter's
        // highest density.
        auto head = std::make_shared<ScalpMesh>(*makeHeadScalp(2));
        std::vector<Vec3f> points = head->points();
        for (Vec3f& p : points)
            p *= 1.25f;
        head->setPoints(std::move(points));
        const std::shared_ptr<const ScalpMesh> scalp = std::move(head);
        made->setScalp(scalp);
        made->setGuideData(test::scalpHierarchy(*scalp, 200, 12, 0, 7).toJson());
        // Scatter's density is per unit of area: measure what one density gives, then ask for a
        // million.
        made->setGraph(chainGraph(10.0));
        const double perDensity = double(made->evaluate()->strands->strandCount()) / 10.0;
        made->setGraph(chainGraph(std::min(2000.0, 1e6 / perDensity)));
        made->evaluate();
        return made;
    }();
    return *session;
}

void BM_SessionFrameChange(benchmark::State& state) {
    GroomSession& session = millionStrandSession();
    double frame = 1.0;
    std::size_t strands = 0;
    for (auto _ : state) {
        FrameRequest request;
        request.time = frame;
        frame += 1.0;
        const auto result = session.evaluate(request);
        strands = result->strands->strandCount();
        benchmark::DoNotOptimize(result);
    }
    state.counters["strands"] = static_cast<double>(strands);
}
BENCHMARK(BM_SessionFrameChange)->Unit(benchmark::kMicrosecond);

void BM_SessionEqualInputs(benchmark::State& state) {
    GroomSession& session = millionStrandSession();
    // A new mesh of the same content and the same guide text, as a host hands them in again.
    const auto scalp = std::make_shared<const ScalpMesh>(*session.scalp());
    const std::string guides = session.guideData();
    for (auto _ : state) {
        session.setScalp(scalp);
        session.setGuideData(guides);
        benchmark::DoNotOptimize(session.evaluate());
    }
    state.counters["strands"] = static_cast<double>(session.frame()->strands->strandCount());
}
BENCHMARK(BM_SessionEqualInputs)->Unit(benchmark::kMicrosecond);

// A deforming scalp with Follow Scalp on: each frame carries the million strands and the guides
// from the rest scalp onto the scalp of the frame, and nothing in the graph runs again. Two poses
// alternate, so every frame carries anew.
void BM_SessionFollowFrame(benchmark::State& state) {
    GroomSession& session = millionStrandSession();
    const auto rest = session.scalp();
    std::shared_ptr<const ScalpMesh> poses[2];
    for (int k = 0; k < 2; ++k) {
        auto pose = std::make_shared<ScalpMesh>(*rest);
        std::vector<Vec3f> points = pose->points();
        for (Vec3f& p : points)
            p.y += 0.5f * float(k + 1) * (1.0f + 0.1f * p.x);
        pose->setPoints(std::move(points));
        poses[k] = std::move(pose);
    }
    session.setRestScalp(rest);
    session.setFollowScalp(true);
    int k = 0;
    for (auto _ : state) {
        session.setScalp(poses[k]);
        k ^= 1;
        benchmark::DoNotOptimize(session.evaluate());
    }
    state.counters["strands"] = static_cast<double>(session.frame()->strands->strandCount());
    session.setFollowScalp(false);
    session.setScalp(rest);
    session.evaluate();
}
BENCHMARK(BM_SessionFollowFrame)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace velmorin
