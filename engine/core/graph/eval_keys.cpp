// Result keys: what a node's result depends on, hashed, so that a node whose key equals its stored
// key is reused without running.

#include <string>
#include <string_view>

#include "base/hash.h"
#include "graph/eval_internal.h"

namespace velmorin {
namespace evaluation {
namespace {

// Keyed params take their values from the host's controls, which reach the graph as scene inputs
// named "control:" + the control's name; their keys stand for the values at this frame.
std::uint64_t keyedParamsKey(const GraphNode& node, const EvalContext& ctx) {
    std::uint64_t h = 0;
    for (const auto& [param, controls] : node.paramControls) {
        h = hashText(h, param);
        for (const std::string& control : controls) {
            h = hashText(h, control);
            const SceneInput* input = ctx.sceneInput(controlInputName(control));
            h = hashCombine(h, input ? input->key : 0);
        }
    }
    return h;
}

// Params that hold maps read what the mapped params' layer says they read (the scalp, the
// catalog of maps, the time for an expression of the frame); a node without a map adds nothing.
std::uint64_t mappedParamsKey(const Operator& op, const EvalContext& ctx,
                              const MappedParams* mapped) {
    if (!mapped) return 0;
    for (const auto& entry : op.paramSet.values) {
        if (std::holds_alternative<MapReference>(entry.second))
            return mapped->key(op.paramSet, ctx);
    }
    return 0;
}

}  // namespace

bool passesThrough(const GraphNode& node) {
    if (portInputCount(node) == 0 || node.inputs[0] == 0) return false;
    const std::vector<PortSpec> ports = node.op->inputs();
    const std::vector<PortSpec> outputs = node.op->outputs();
    return !ports.empty() && !outputs.empty() && ports[0].type == outputs[0].type;
}

EvalContext nodeContext(const EvalContext& root, const ResolutionTable* resolutions,
                        std::uint32_t id) {
    EvalContext ctx = root;
    if (resolutions) {
        const auto found = resolutions->find(id);
        ctx.resolution = found == resolutions->end() ? 0 : found->second.segments;
    }
    return ctx;
}

std::uint64_t KeyBuilder::key(std::uint32_t id) {
    if (const auto found = keys.find(id); found != keys.end()) return found->second;
    const GraphNode& node = graph.node(id);
    const Operator& op = *node.op;
    std::uint64_t h = 0;
    if (root.previewDensity != 1.0) h = mix64(doubleBits(root.previewDensity));

    // A silent node that hands its input on is keyed by that input alone: its params, version
    // and the rest can change without anything downstream running again.
    if (isSilent(node, root.viewport) && passesThrough(node)) {
        const std::uint64_t slot = node.slots[0];
        localKeys[id] = hashCombine(h, slot + 199);
        std::uint64_t passed = hashCombine(h, key(node.inputs[0]));
        if (slot != 0) passed = hashCombine(passed, slot + 199);
        keys[id] = passed;
        return passed;
    }

    const EvalContext ctx = nodeContext(root, resolutions, id);
    h = hashCombine(h, op.paramSet.hash());
    // A node read from an older file may behave as that version did. 0 is a node made here.
    if (op.savedVersion != 0 && op.savedVersion != op.version())
        h = hashCombine(h, static_cast<std::uint64_t>(op.savedVersion) + 0x7E5000);
    h = hashCombine(h, op.contentKey());
    h = hashCombine(h, op.contextKey(ctx, id, root));
    h = hashCombine(h, keyedParamsKey(node, ctx));
    h = hashCombine(h, mappedParamsKey(op, root, graph.registry().mappedParams()));
    for (const std::string& name : op.sceneInputs()) {
        h = hashText(h, name);
        const SceneInput* input = root.sceneInput(name);
        h = hashCombine(h, input ? op.sceneInputKey(name, *input) : 0);
    }

    std::uint64_t local = hashCombine(h, node.inputs.size());
    for (std::size_t i = 0; i < node.inputs.size(); ++i)
        local = hashCombine(local, node.inputs[i] ? node.slots[i] + 199 + kGolden : kGolden);
    localKeys[id] = local;

    std::uint64_t full = local;
    for (std::size_t i = 0; i < node.inputs.size(); ++i) {
        if (node.inputs[i] == 0) {
            full = hashCombine(full, 0);
            continue;
        }
        full = hashCombine(full, key(node.inputs[i]));
        if (node.slots[i] != 0) full = hashCombine(full, node.slots[i] + 199);
    }
    keys[id] = full;
    return full;
}

}  // namespace evaluation

std::uint64_t Graph::nodeKey(std::uint32_t id, const EvalContext& ctx,
                             std::unordered_map<std::uint32_t, std::uint64_t>& keys,
                             std::unordered_map<std::uint32_t, std::uint64_t>& localKeys) const {
    if (const auto found = keys.find(id); found != keys.end()) return found->second;
    evaluation::ResolutionTable resolutions;
    if (ctx.resolution < 1) resolutions = strandResolutions(ctx.viewport);
    evaluation::KeyBuilder builder{*this, ctx, ctx.resolution < 1 ? &resolutions : nullptr, keys,
                                   localKeys};
    return builder.key(id);
}

}  // namespace velmorin
