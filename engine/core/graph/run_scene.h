#pragma once
// The seam between evaluation and the mapped params of the layers above it. The graph makes no
// field and reads no map: it asks the MappedParams that its registry carries what a node's maps
// add to its key and for the scene of each run, and hands that scene to the operator unopened,
// through the run's context. The layer that made the scene is the one that reads it.

#include <cstdint>
#include <memory>

namespace velmorin {

class ParamSet;
struct EvalContext;
struct GuideSet;

// What the mapped params of one node's run read besides its inputs (the scalp, the catalog of
// maps, the node's guides). Opaque here; immutable once made.
class RunScene {
  public:
    virtual ~RunScene();
};

// What mapped params need of an evaluation. Implemented above the graph and installed in a
// registry (OperatorRegistry::setMappedParams); a registry without one evaluates maps as their
// plain defaults and makes no scene. Both calls may come from any thread that evaluates a graph.
class MappedParams {
  public:
    virtual ~MappedParams();
    // What the maps that `params` hold add to the node's key: the scene inputs they read, and
    // the time where one of them reads it. Called only for params that hold a map.
    virtual std::uint64_t key(const ParamSet& params, const EvalContext& ctx) const = 0;
    // The scene of one node's run on `ctx`, with the node's guides input where it has one.
    virtual std::shared_ptr<const RunScene> scene(const EvalContext& ctx,
                                                  std::shared_ptr<const GuideSet> guides) const = 0;
};

}  // namespace velmorin
