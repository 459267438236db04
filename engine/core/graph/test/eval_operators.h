#pragma once
// Operators for the tests and benchmarks of graph evaluation: small, exact, and each with a count
// of its runs, so that a test can see what ran. Registered under hidden "Eval..." type names (a
// graph clone makes operators through the registry); Scatter, Resample and Output stand-ins for
// the resolution walk are never registered, so they can't collide with the real ones.

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "graph/field_value.h"
#include "graph/graph.h"
#include "graph/operator.h"
#include "graph/registry.h"
#include "graph/test/declarations.h"
#include "graph/uniform_value.h"
#include "strands/guide.h"
#include "strands/strand_changes.h"
#include "strands/strand_set.h"
#include "strands/test/test_strands.h"

namespace velmorin::test {

// What an incremental run that redoes single strands works from: the input, a set with the
// input's columns and the previous result's points, and the changed strands. None when the run
// must be a full one: no previous result, or changes of everything or of the layout.
struct StrandUpdate {
    std::shared_ptr<const StrandSet> input;
    std::shared_ptr<StrandSet> out;
    std::span<const std::uint64_t> strands;
};
inline std::optional<StrandUpdate> strandUpdate(const Value& inputValue,
                                                const IncrementalInputs& incremental) {
    const auto input = inputValue.get<StrandSet>();
    auto previous = incremental.previous.get<StrandSet>();
    if (!input || !previous || incremental.changes.empty()) return std::nullopt;
    const auto& changed = incremental.changes[0];
    if (!changed || changed->all || !changed->sameLayout) return std::nullopt;
    auto out = std::make_shared<StrandSet>(*input);
    // Let go of the previous result, so that its points are written in place where nothing else
    // holds them.
    StrandSet before(*previous);
    previous.reset();
    incremental.takePrevious();
    out->moveColumnFrom(ColumnId::kPoints, before);
    return StrandUpdate{input, out, changed->strands};
}

// The base of the test operators: counts full and incremental runs; a source unless it says.
class CountingOp : public Operator {
  public:
    std::string category() const override { return "utility"; }
    std::vector<PortSpec> inputs() const override { return {}; }
    mutable std::atomic<int> fullRuns{0};
    mutable std::atomic<int> incrementalRuns{0};
};

// Strands from nothing: `count` strands of `points` points, ids from `seed`; with `preview` the
// set carries the "_preview" marks.
class GrowOp : public CountingOp {
  public:
    std::string type() const override { return "EvalGrow"; }
    std::vector<ParamSpec> params() const override {
        return {param("count", std::int64_t{16}), param("points", std::int64_t{4}),
                param("seed", std::int64_t{1}), param("preview", false)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override {
        ++fullRuns;
        auto made = gridStrands(static_cast<std::size_t>(paramSet.getInt("count", 16)),
                                static_cast<std::size_t>(paramSet.getInt("points", 4)),
                                static_cast<std::uint64_t>(paramSet.getInt("seed", 1)));
        if (!paramSet.getBool("preview", false)) return made;
        auto marked = std::make_shared<StrandSet>(*made);
        marked->addStrandChannel("_preview", 1.0f);
        return marked;
    }
};

// Hands on the scene input "groom" (strands), as a source that the host feeds.
class SceneOp : public CountingOp {
  public:
    std::string type() const override { return "EvalScene"; }
    std::vector<std::string> sceneInputs() const override { return {"groom"}; }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        ++fullRuns;
        const SceneInput* groom = ctx.sceneInput("groom");
        return groom ? groom->value : Value();
    }
};

// Like SceneOp, but must run again every time its result would be reused.
class FreshOp : public SceneOp {
  public:
    std::string type() const override { return "EvalFresh"; }
    bool alwaysFresh() const override { return true; }
};

// Lifts every `every`-th strand by `amount` along y, and can update only the strands whose input
// changed. `fault` breaks its incremental run on purpose: 1 leaves the last changed strand off its
// list, 2 lifts twice as far, 3 lists a strand past the end, 4 adds a strand channel "high" (as the
// full run does) when a point lies above y = 100 yet still names only some strands. With `warn` it
// warns from inside its parallel loop.
class LiftOp : public CountingOp {
  public:
    std::string type() const override { return "EvalLift"; }
    std::vector<PortSpec> inputs() const override { return {strandsPort("strands")}; }
    std::vector<ParamSpec> params() const override {
        return {param("amount", 0.5, true), param("every", std::int64_t{1}),
                param("fault", std::int64_t{0}), param("warn", false)};
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        auto out = std::make_shared<StrandSet>(*input);
        std::vector<Vec3f>& points = out->writePoints();
        const bool warn = paramSet.getBool("warn", false);
        parallelRange(0, input->strandCount(), 256, [&](std::size_t begin, std::size_t end) {
            if (warn && begin == 0) ctx.note("lift warns");
            for (std::size_t s = begin; s < end; ++s)
                liftStrand(*input, s, points, 1.0f);
        });
        markHigh(*out);
        return out;
    }
    bool evaluateIncremental(const EvalContext&, const std::vector<Value>& inputs,
                             const IncrementalInputs& incremental, Value* out,
                             StrandChanges* changes) const override {
        const auto update = strandUpdate(inputs[0], incremental);
        if (!update) return false;
        ++incrementalRuns;
        const std::int64_t fault = paramSet.getInt("fault", 0);
        std::vector<Vec3f>& points = update->out->writePoints();
        for (std::uint64_t s : update->strands)
            liftStrand(*update->input, s, points, fault == 2 ? 2.0f : 1.0f);
        changes->all = false;
        changes->sameLayout = true;
        changes->strands.assign(update->strands.begin(), update->strands.end());
        if (fault == 1 && !changes->strands.empty()) changes->strands.pop_back();
        if (fault == 3) changes->strands.push_back(update->out->strandCount());
        if (fault == 4) markHigh(*update->out);
        *out = update->out;
        return true;
    }

  protected:
    void liftStrand(const StrandSet& input, std::size_t s, std::vector<Vec3f>& points,
                    float scale) const {
        const std::int64_t every = std::max<std::int64_t>(paramSet.getInt("every", 1), 1);
        const float amount = static_cast<float>(paramSet.getFloat("amount", 0.5)) * scale;
        const StrandSet::PointRange range = input.pointRange(s);
        const std::span<const Vec3f> from = input.points();
        for (std::size_t p = range.begin; p < range.begin + range.count; ++p) {
            points[p] = from[p];
            if (static_cast<std::int64_t>(s) % every == 0) points[p].y += amount;
        }
    }
    void markHigh(StrandSet& set) const {
        if (paramSet.getInt("fault", 0) != 4) return;
        for (const Vec3f& p : set.points()) {
            if (p.y > 100.0f) {
                set.addStrandChannel("high", 1.0f);
                return;
            }
        }
    }
};

// A Lift whose type the registry doesn't know: its incremental check runs on the node's own
// operator.
class LocalLiftOp : public LiftOp {
  public:
    std::string type() const override { return "EvalLocalLift"; }
};

// Two outputs: "lifted" (as Lift does) and "same" (the input as it came).
class ForkOp : public LiftOp {
  public:
    std::string type() const override { return "EvalFork"; }
    std::vector<PortSpec> outputs() const override {
        return {strandsPort("lifted"), strandsPort("same")};
    }
    std::vector<Value> evaluateAll(const EvalContext& ctx,
                                   const std::vector<Value>& inputs) const override {
        return {LiftOp::evaluate(ctx, inputs), inputs[0]};
    }
    bool evaluateIncrementalAll(const EvalContext& ctx, const std::vector<Value>& inputs,
                                const IncrementalInputs& incremental, std::vector<Value>* outs,
                                std::vector<StrandChanges>* changes) const override {
        IncrementalInputs first = incremental;
        first.previous = incremental.previousAll[0];
        Value lifted;
        StrandChanges liftedChanges;
        if (!LiftOp::evaluateIncremental(ctx, inputs, first, &lifted, &liftedChanges)) return false;
        *outs = {lifted, inputs[0]};
        StrandChanges same;
        same.all = false;
        same.strands = incremental.changes[0]->strands;
        *changes = {liftedChanges, same};
        return true;
    }
};

// Declares two outputs and makes one.
class BrokenOp : public ForkOp {
  public:
    std::string type() const override { return "EvalBroken"; }
    std::vector<Value> evaluateAll(const EvalContext& ctx,
                                   const std::vector<Value>& inputs) const override {
        return {LiftOp::evaluate(ctx, inputs)};
    }
};

// Moves the points along x by the frame: a node that reads time.
class WaveOp : public CountingOp {
  public:
    std::string type() const override { return "EvalWave"; }
    std::vector<PortSpec> inputs() const override { return {strandsPort("strands")}; }
    std::uint64_t contextKey(const EvalContext& ctx, std::uint32_t,
                             const EvalContext&) const override {
        return hashCombine(0x77617665, doubleBits(ctx.time));
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        auto out = std::make_shared<StrandSet>(*input);
        for (Vec3f& p : out->writePoints())
            p.x += static_cast<float>(ctx.time);
        return out;
    }
};

// Run-time state that is not a param: an offset along z that the host sets, which a clone takes
// over through copyStateFrom and which enters the key through contentKey.
class StateOp : public CountingOp {
  public:
    std::string type() const override { return "EvalState"; }
    std::vector<PortSpec> inputs() const override { return {strandsPort("strands")}; }
    void setOffset(float offset) {
        std::lock_guard lock(mutex_);
        offset_ = offset;
    }
    float offset() const {
        std::lock_guard lock(mutex_);
        return offset_;
    }
    void copyStateFrom(const Operator& other) override {
        if (const auto* same = dynamic_cast<const StateOp*>(&other)) setOffset(same->offset());
    }
    std::uint64_t contentKey() const override { return floatBits(offset()); }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        auto out = std::make_shared<StrandSet>(*input);
        const float offset = this->offset();
        for (Vec3f& p : out->writePoints())
            p.z += offset;
        return out;
    }

  private:
    mutable std::mutex mutex_;
    float offset_ = 0.0f;
};

// Hands on the input that `select` names; only that one is active.
class SwitchOp : public CountingOp {
  public:
    std::string type() const override { return "EvalSwitch"; }
    std::vector<PortSpec> inputs() const override {
        return {strandsPort("a", true), strandsPort("b", true)};
    }
    std::vector<ParamSpec> params() const override {
        // `label` changes the key, never the result.
        return {param("select", std::int64_t{0}), param("label", std::string())};
    }
    bool inputActive(std::size_t index) const override {
        return index >= 2 || static_cast<std::int64_t>(index) == paramSet.getInt("select", 0);
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        return inputs[paramSet.getInt("select", 0) == 1 ? 1 : 0];
    }
};

// Appends its second input's strands to its first's.
class MergeOp : public CountingOp {
  public:
    std::string type() const override { return "EvalMerge"; }
    std::vector<PortSpec> inputs() const override {
        return {strandsPort("a", true), strandsPort("b", true)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        auto out = std::make_shared<StrandSet>();
        for (const Value& input : inputs)
            if (const auto strands = input.get<StrandSet>()) out->append(*strands);
        return out;
    }
};

// Keeps the even strands only: a node that changes the strand count. With `warn` it warns.
class ThinOp : public CountingOp {
  public:
    std::string type() const override { return "EvalThin"; }
    std::vector<PortSpec> inputs() const override { return {strandsPort("strands")}; }
    std::vector<ParamSpec> params() const override { return {param("warn", false)}; }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        if (paramSet.getBool("warn", false)) ctx.note("thin warns");
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        std::vector<std::uint64_t> keep;
        for (std::size_t s = 0; s < input->strandCount(); s += 2)
            keep.push_back(s);
        auto out = std::make_shared<StrandSet>();
        input->subset(keep, *out);
        return out;
    }
};

// Guides from nothing: `count` guides of 3 points.
class GuideSourceOp : public CountingOp {
  public:
    std::string type() const override { return "EvalGuides"; }
    PortSpec output() const override { return port("out", PortType::Guides); }
    std::vector<ParamSpec> params() const override { return {param("count", std::int64_t{3})}; }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override {
        ++fullRuns;
        auto guides = std::make_shared<GuideSet>();
        for (std::int64_t g = 0; g < paramSet.getInt("count", 3); ++g) {
            Guide guide;
            guide.id = 1000 + static_cast<std::uint64_t>(g);
            guide.points = {{0, 0, 0}, {0, 1, 0}, {0, 2, static_cast<float>(g)}};
            guides->guides.push_back(guide);
        }
        return guides;
    }
};

// A Curves node: lifts what it gets by 1 along y and marks it for preview.
class CurvesOp : public CountingOp {
  public:
    std::string type() const override { return "EvalCurves"; }
    std::vector<PortSpec> inputs() const override { return {port("curves", PortType::Curves)}; }
    PortSpec output() const override { return port("out", PortType::Curves); }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return inputs[0];
        auto out = std::make_shared<StrandSet>(*input);
        for (Vec3f& p : out->writePoints())
            p.y += 1.0f;
        out->addStrandChannel("_preview", 1.0f);
        return out;
    }
};

// One value for a whole node, of the kind `kind` names; `timed` marks it as changing over time.
class ValueOp : public CountingOp {
  public:
    std::string type() const override { return "EvalValue"; }
    PortSpec output() const override { return port("value", PortType::Value); }
    std::vector<ParamSpec> params() const override {
        return {param("kind", std::string("number")), param("number", 1.0), param("timed", false)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override {
        ++fullRuns;
        auto value = std::make_shared<UniformValue>();
        const double number = paramSet.getFloat("number", 1.0);
        const std::string kind = paramSet.getString("kind", "number");
        if (kind == "integer") {
            value->kind = ValueKind::Integer;
            value->value = static_cast<std::int64_t>(number);
        } else if (kind == "bool") {
            value->kind = ValueKind::Bool;
            value->value = number != 0.0;
        } else if (kind == "vec3") {
            value->kind = ValueKind::Vec3;
            value->value = Vec3f{static_cast<float>(number), 0.0f, 0.0f};
        } else if (kind == "text") {
            value->kind = ValueKind::Text;
            value->value = std::string("words");
        } else {
            value->value = number;
        }
        value->dependsOnTime = paramSet.getBool("timed", false);
        return value;
    }
};

// A field whose value at a point is the point's index in its strand times `step`, or, with `step`
// 0, the constant `value`. With `lie` it claims to give one value (a Value output) but gives this.
class FieldOp : public CountingOp {
  public:
    explicit FieldOp(bool lie = false) : lie_(lie) {}
    std::string type() const override { return lie_ ? "EvalLiar" : "EvalField"; }
    PortSpec output() const override {
        return port("field", lie_ ? PortType::Value : PortType::Field);
    }
    std::vector<ParamSpec> params() const override {
        return {param("value", 0.5), param("step", 0.0)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>&) const override;

  private:
    bool lie_;
};

class StepField final : public FieldValue {
  public:
    StepField(float value, float step) : value_(value), step_(step) {}
    float atStrand(std::size_t) const override { return value_; }
    float atPoint(std::size_t, std::size_t point) const override {
        return step_ == 0.0f ? value_ : static_cast<float>(point) * step_;
    }
    bool varies() const override { return step_ != 0.0f; }
    std::uint64_t key() const override { return hashCombine(floatBits(value_), floatBits(step_)); }
    std::string describe() const override { return "step field"; }

  private:
    float value_, step_;
};

inline Value FieldOp::evaluate(const EvalContext&, const std::vector<Value>&) const {
    ++fullRuns;
    return std::make_shared<StepField>(static_cast<float>(paramSet.getFloat("value", 0.5)),
                                       static_cast<float>(paramSet.getFloat("step", 0.0)));
}

// Writes what its Field input gives into strand channels: "probe" the value at each strand,
// "probeColor" 1 for a colour field, "probeEmpty" 1 when nothing came.
class ProbeOp : public CountingOp {
  public:
    std::string type() const override { return "EvalProbe"; }
    std::vector<PortSpec> inputs() const override {
        return {strandsPort("strands"), port("weight", PortType::Field, true)};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        const auto input = inputs[0].get<StrandSet>();
        if (!input) return {};
        auto out = std::make_shared<StrandSet>(*input);
        const auto field = inputs[1].get<FieldValue>();
        std::vector<float>& probe = out->addStrandChannel("probe", 0.0f);
        for (std::size_t s = 0; s < probe.size(); ++s)
            probe[s] = field ? field->atStrand(s) : 0.0f;
        out->addStrandChannel("probeColor", field && field->isColor() ? 1.0f : 0.0f);
        out->addStrandChannel("probeEmpty", field ? 0.0f : 1.0f);
        return out;
    }
};

// Stand-ins for the resolution walk: a Scatter that grows `ctx.resolution` segments, and a
// Resample and an Output that hand on their input. Their type names are the real ones, so they are
// never registered.
class ScatterStandIn : public CountingOp {
  public:
    std::string type() const override { return "Scatter"; }
    std::uint64_t contextKey(const EvalContext& ctx, std::uint32_t,
                             const EvalContext&) const override {
        return static_cast<std::uint64_t>(ctx.resolution);
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>&) const override {
        ++fullRuns;
        const int segments = ctx.resolution > 0 ? ctx.resolution : 8;
        return gridStrands(4, static_cast<std::size_t>(segments) + 1, 7);
    }
};

// A Resample (with its `segments`) or an Output: hands on its input.
class PassStandIn : public CountingOp {
  public:
    explicit PassStandIn(std::string type) : type_(std::move(type)) {}
    std::string type() const override { return type_; }
    std::vector<PortSpec> inputs() const override { return {strandsPort("strands", true)}; }
    std::vector<ParamSpec> params() const override {
        if (type_ != "Resample") return {};
        return {param("segments", std::int64_t{16})};
    }
    Value evaluate(const EvalContext&, const std::vector<Value>& inputs) const override {
        ++fullRuns;
        return inputs[0];
    }

  private:
    std::string type_;
};

// Registers the "Eval..." types into `registry`; a type already there is left alone.
inline void addEvalTestOperators(OperatorRegistry& registry) {
    const auto add = [&](const std::string& type, OperatorFactory factory) {
        if (registry.contains(type)) return;
        OperatorInfo info;
        info.category = "utility";
        info.description = "An operator of the evaluation tests.";
        info.hidden = true;
        registry.registerType(type, std::move(factory), info);
    };
    add("EvalGrow", [] { return std::make_unique<GrowOp>(); });
    add("EvalScene", [] { return std::make_unique<SceneOp>(); });
    add("EvalFresh", [] { return std::make_unique<FreshOp>(); });
    add("EvalLift", [] { return std::make_unique<LiftOp>(); });
    add("EvalFork", [] { return std::make_unique<ForkOp>(); });
    add("EvalBroken", [] { return std::make_unique<BrokenOp>(); });
    add("EvalWave", [] { return std::make_unique<WaveOp>(); });
    add("EvalState", [] { return std::make_unique<StateOp>(); });
    add("EvalSwitch", [] { return std::make_unique<SwitchOp>(); });
    add("EvalMerge", [] { return std::make_unique<MergeOp>(); });
    add("EvalThin", [] { return std::make_unique<ThinOp>(); });
    add("EvalGuides", [] { return std::make_unique<GuideSourceOp>(); });
    add("EvalCurves", [] { return std::make_unique<CurvesOp>(); });
    add("EvalValue", [] { return std::make_unique<ValueOp>(); });
    add("EvalField", [] { return std::make_unique<FieldOp>(false); });
    add("EvalLiar", [] { return std::make_unique<FieldOp>(true); });
    add("EvalProbe", [] { return std::make_unique<ProbeOp>(); });
}

// Registers the "Eval..." types into the process-wide registry, once per process.
inline void registerEvalTestOperators() {
    static const bool registered = [] {
        addEvalTestOperators(OperatorRegistry::instance());
        return true;
    }();
    (void)registered;
}

// Adds a node of a registered test type (or of a given operator) with its params declared.
inline std::uint32_t addTestNode(Graph& graph, const std::string& type, const std::string& name) {
    registerEvalTestOperators();
    return graph.addNode(type, name);
}
inline std::uint32_t addTestNode(Graph& graph, std::unique_ptr<Operator> op,
                                 const std::string& name) {
    op->declareParams();
    return graph.addNode(std::move(op), name);
}

// Adds nodes of registered test types, each fed on input 0 by the one before:
// `auto [grow, lift] = addChain(graph, {{"EvalGrow", "grow"}, {"EvalLift", "lift"}});`
struct NodeSpec {
    const char* type;
    const char* name;
};
template <std::size_t N>
std::array<std::uint32_t, N> addChain(Graph& graph, const NodeSpec (&nodes)[N]) {
    std::array<std::uint32_t, N> ids;
    for (std::size_t i = 0; i < N; ++i) {
        ids[i] = addTestNode(graph, nodes[i].type, nodes[i].name);
        if (i > 0) graph.connect(ids[i - 1], ids[i], 0);
    }
    return ids;
}

// Feeds each node of `ids` into the next one's input 0.
inline void connectChain(Graph& graph, std::initializer_list<std::uint32_t> ids) {
    for (auto it = ids.begin(); it + 1 < ids.end(); ++it)
        graph.connect(*it, *(it + 1), 0);
}

template <class Op>
const Op& operatorAs(const Graph& graph, std::uint32_t id) {
    return dynamic_cast<const Op&>(graph.operatorOf(id));
}

inline std::shared_ptr<const StrandSet> strandsOf(const std::vector<Value>& results,
                                                  std::size_t output = 0) {
    return output < results.size() ? results[output].get<StrandSet>() : nullptr;
}

}  // namespace velmorin::test
