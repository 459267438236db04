#pragma once
// Operator: one node's behaviour. A small object with a type name, typed input ports, one or more
// outputs, declared params and the code that turns inputs into outputs. The graph never looks
// inside an operator: it moves Values along edges and asks, through the virtual operations below,
// what it reads and how to key its result. Operators are strictly const while they evaluate, on any
// thread; those with run-time state guard it with a mutex of their own.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "graph/eval_context.h"
#include "graph/params.h"
#include "graph/port.h"
#include "graph/value.h"

namespace velmorin {

struct StrandChanges;

// A channel that a node writes or reads under a fixed name.
struct ChannelUse {
    std::string name;
    ChannelRole role = ChannelRole::Writes;
    bool optional = false;
    bool operator==(const ChannelUse&) const = default;
};

// Called for each node of an upstream walk; returns false to stop the walk.
using UpstreamVisitor = std::function<bool(const std::string& name, const class Operator& op)>;

class Operator {
  public:
    Operator() = default;
    Operator(const Operator&) = delete;
    Operator& operator=(const Operator&) = delete;

    // Slots in this order; the defaults are the behaviour of a plain one-output node.
    virtual ~Operator();
    virtual std::string type() const = 0;
    virtual std::vector<PortSpec> inputs() const = 0;
    virtual PortSpec output() const;
    virtual std::vector<PortSpec> outputs() const;
    virtual Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const = 0;
    virtual std::vector<Value> evaluateAll(const EvalContext& ctx,
                                           const std::vector<Value>& inputs) const;
    // Updates *out from incremental.previous; true when it did. `changes` must then list every
    // strand that differs from the previous result (or say all).
    virtual bool evaluateIncremental(const EvalContext& ctx, const std::vector<Value>& inputs,
                                     const IncrementalInputs& incremental, Value* out,
                                     StrandChanges* changes) const;
    virtual bool evaluateIncrementalAll(const EvalContext& ctx, const std::vector<Value>& inputs,
                                        const IncrementalInputs& incremental,
                                        std::vector<Value>* outs,
                                        std::vector<StrandChanges>* changes) const;
    // A cloned graph asks each new operator to take over the run-time state of the one it replaces.
    virtual void copyStateFrom(const Operator& other);
    // The graph replaced the node's result after the run (an affect mix).
    virtual void outputReplaced(const Value& previous, const Value& replacement) const;
    virtual std::vector<ParamSpec> params() const;
    virtual std::vector<ParamSpec> instanceParams() const;
    virtual std::vector<std::string> sceneInputs() const;
    virtual std::uint64_t sceneInputKey(const std::string& name, const SceneInput& input) const;
    virtual std::uint64_t contentKey() const;
    virtual std::uint64_t contextKey(const EvalContext& ctx, std::uint32_t node,
                                     const EvalContext& rootCtx) const;
    virtual bool alwaysFresh() const;
    virtual std::string evaluationNote(const EvalContext& ctx) const;
    virtual bool refinesInView() const;
    virtual bool inputActive(std::size_t index) const;
    virtual bool activeThrough(std::size_t from, const UpstreamVisitor& visitor) const;
    virtual std::vector<ChannelUse> fixedChannels() const;
    virtual bool carriesInput(std::size_t index) const;
    virtual std::string category() const = 0;
    virtual int version() const;
    // After a full run that kept its first input's layout and shared every column of it but those
    // it rewrote: `changes` holds that input's changes with every strand listed, and the operator
    // names the columns it rewrote (pointsChanged, widthsChanged, addChannel) and returns true, so
    // that the graph need not compare the result with the previous one. False (the default): it
    // can't say, and the graph compares.
    virtual bool noteFullRunChanges(StrandChanges& changes) const;

    // Declares the node's full param list (own, instance and common params) into paramSet. The
    // registry calls it on creation; operators whose params depend on the instance call it again.
    void declareParams();

    ParamSet paramSet;
    std::string name;
    int savedVersion = 0;  // 0 = not read from a file
};

// A node's full param list: params(), then instanceParams(), then the common ones, later duplicates
// dropped by name.
std::vector<ParamSpec> schemaParams(const Operator& op);

// Whether the common `affect` param means anything for this operator.
bool affectApplies(const Operator& op);

}  // namespace velmorin
