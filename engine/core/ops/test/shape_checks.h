#pragma once
// What the tests of the shape operators share beyond their strands (ops/test/shape_strands.h): a
// field of one value per strand or point, points compared within a tolerance, a run of a registered
// operator with its params and delivered fields, and the run through a graph that compares an
// incremental evaluation with a full one.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/hash.h"
#include "graph/delivered_params.h"
#include "graph/field_value.h"
#include "graph/graph.h"
#include "graph/registry.h"
#include "graph/test/eval_operators.h"
#include "ops/test/shape_strands.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"

namespace velmorin::test {

// A field of listed values: per strand, and per point (`perPoint[strand][point]`) where given.
class ListField final : public FieldValue {
  public:
    explicit ListField(std::vector<float> perStrand, std::vector<std::vector<float>> perPoint = {})
        : perStrand_(std::move(perStrand)), perPoint_(std::move(perPoint)) {}
    float atStrand(std::size_t strand) const override { return perStrand_[strand]; }
    float atPoint(std::size_t strand, std::size_t point) const override {
        return perPoint_.empty() ? perStrand_[strand] : perPoint_[strand][point];
    }
    bool varies() const override { return true; }
    std::uint64_t key() const override {
        std::uint64_t h = 0x6c697374ull;
        for (const float v : perStrand_)
            h = hashCombine(h, floatBits(v));
        return h;
    }
    std::string describe() const override { return "listed values"; }

  private:
    std::vector<float> perStrand_;
    std::vector<std::vector<float>> perPoint_;
};

// One registered operator with params set, run on its own: `fields` are delivered to its mapped
// params as a connected input would, `extra` fills the inputs after the strands.
struct ShapeRun {
    explicit ShapeRun(std::string type, std::map<std::string, ParamValue> params = {})
        : type(std::move(type)), params(std::move(params)) {}

    std::string type;
    std::map<std::string, ParamValue> params;
    std::map<std::string, std::shared_ptr<const FieldValue>> fields;
    std::map<std::string, Ramp> curves;

    std::unique_ptr<Operator> make() const {
        auto op = OperatorRegistry::instance().create(type);
        for (const auto& [name, value] : params)
            op->paramSet.set(name, value);
        return op;
    }
    std::shared_ptr<const StrandSet> run(std::shared_ptr<const StrandSet> strands,
                                         std::vector<Value> extra = {},
                                         NoteList* notes = nullptr) const {
        auto op = make();
        DeliveredParams delivered;
        for (const auto& [name, field] : fields)
            delivered.fields[name] = field;
        for (const auto& [name, ramp] : curves)
            delivered.curves[name] = std::make_shared<const Ramp>(ramp);
        EvalContext ctx;
        ctx.delivered = &delivered;
        ctx.notes = notes;
        std::vector<Value> inputs{Value(std::move(strands))};
        for (Value& value : extra)
            inputs.push_back(std::move(value));
        return op->evaluate(ctx, inputs).get<StrandSet>();
    }
};

inline void expectPointsNear(std::span<const Vec3f> got, const std::vector<Vec3f>& want,
                             float tolerance = 1e-5f) {
    ASSERT_EQ(got.size(), want.size());
    for (std::size_t k = 0; k < want.size(); ++k) {
        EXPECT_NEAR(got[k].x, want[k].x, tolerance) << "point " << k;
        EXPECT_NEAR(got[k].y, want[k].y, tolerance) << "point " << k;
        EXPECT_NEAR(got[k].z, want[k].z, tolerance) << "point " << k;
    }
}

// Restores the process-wide evaluation switches whatever a test did with them.
struct EvaluationSwitchesRestored {
    ~EvaluationSwitchesRestored() {
        setIncrementalEvaluation(true);
        setStrandDiffing(true);
        setIncrementalCheck(false);
    }
};

// A graph of scene strands -> the operator under test, evaluated once on `strands`, then again
// on `after`. Gives the second run's text and whether its result equals a full run's.
struct IncrementalOutcome {
    std::string run;
    bool sameAsFull = false;
};
inline IncrementalOutcome incrementalAfterChange(const ShapeRun& shape,
                                                 std::shared_ptr<const StrandSet> strands,
                                                 std::shared_ptr<const StrandSet> after) {
    EvaluationSwitchesRestored restore;
    // Every incremental run is checked against a full one by the graph itself, which throws on a
    // difference or on a changed strand left off the list.
    setIncrementalCheck(true);
    registerEvalTestOperators();
    Graph graph;
    const std::uint32_t source = graph.addNode("EvalScene", "scene");
    const std::uint32_t node = graph.addNode(shape.type, "shape");
    for (const auto& [name, value] : shape.params)
        graph.operatorOf(node).paramSet.set(name, value);
    graph.connect(source, node, 0);
    SceneInputs scene;
    scene["groom"] = SceneInput{Value(strands), 1};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    graph.evaluate(node, ctx);
    scene["groom"] = SceneInput{Value(after), 2};
    const auto incremental = strandsOf(graph.evaluate(node, ctx));
    const auto full = shape.run(after);
    return {graph.runs[node],
            incremental && full && incremental->contentHash() == full->contentHash()};
}

// The same after the listed strands moved (1% of them, typically).
inline IncrementalOutcome incrementalAfterMove(const ShapeRun& shape,
                                               std::shared_ptr<const StrandSet> strands,
                                               std::vector<std::uint64_t> movedStrands) {
    return incrementalAfterChange(shape, strands, moved(*strands, movedStrands, 0.25f));
}

// The colour a strand shows, from its strand colour channels or one point's from the point ones.
inline Vec3f strandColor(const StrandSet& set, std::size_t strand) {
    return {(*set.strandChannel(channels::kColor[0]))[strand],
            (*set.strandChannel(channels::kColor[1]))[strand],
            (*set.strandChannel(channels::kColor[2]))[strand]};
}
inline Vec3f pointColor(const StrandSet& set, std::size_t point) {
    return {(*set.pointChannel(channels::kColor[0]))[point],
            (*set.pointChannel(channels::kColor[1]))[point],
            (*set.pointChannel(channels::kColor[2]))[point]};
}

// Straight strands where Scatter puts them on `scalp` at `density`, at resolution 4.
inline std::shared_ptr<const StrandSet> scatterOn(std::shared_ptr<const ScalpMesh> scalp,
                                                  double density, std::int64_t seed = 0) {
    auto scatter = OperatorRegistry::instance().create("Scatter");
    scatter->paramSet.set("density", density);
    scatter->paramSet.set("seed", seed);
    EvalContext ctx;
    ctx.resolution = 4;
    return scatter->evaluate(ctx, {std::move(scalp), Value()}).get<StrandSet>();
}

// How many strands of a preview of `full` (thinned to `density`) come out of `shape` otherwise
// than in the full run: in the bits of their points or of any channel.
inline std::size_t differingInPreview(const ShapeRun& shape,
                                      const std::shared_ptr<const StrandSet>& full, double density,
                                      const std::vector<Value>& extra = {}) {
    auto preview = std::make_shared<StrandSet>();
    full->thinned(density, *preview);
    EXPECT_GT(preview->strandCount(), 0u);
    EXPECT_LT(preview->strandCount(), full->strandCount());
    const auto whole = shape.run(full, extra), thin = shape.run(preview, extra);
    std::map<std::uint64_t, std::size_t> indexOf;
    for (std::size_t s = 0; s < whole->strandCount(); ++s)
        indexOf[whole->ids()[s]] = s;
    std::size_t differing = 0;
    for (std::size_t t = 0; t < thin->strandCount(); ++t) {
        const std::size_t s = indexOf.at(thin->ids()[t]);
        bool alike = bitsOf(thin->strandPoints(t)) == bitsOf(whole->strandPoints(s));
        for (const std::string& name : thin->strandChannelNames()) {
            const std::vector<float>* there = whole->strandChannel(name);
            alike = alike && there &&
                    floatBits((*thin->strandChannel(name))[t]) == floatBits((*there)[s]);
        }
        const StrandSet::PointRange mine = thin->pointRange(t), theirs = whole->pointRange(s);
        for (const std::string& name : thin->pointChannelNames()) {
            const std::vector<float>* there = whole->pointChannel(name);
            alike = alike && there &&
                    std::equal(thin->pointChannel(name)->begin() + mine.begin,
                               thin->pointChannel(name)->begin() + mine.begin + mine.count,
                               there->begin() + theirs.begin,
                               there->begin() + theirs.begin + theirs.count,
                               [](float a, float b) { return floatBits(a) == floatBits(b); });
        }
        differing += alike ? 0 : 1;
    }
    return differing;
}

}  // namespace velmorin::test
