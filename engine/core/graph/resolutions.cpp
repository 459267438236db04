// Walks over the active upstream of a node, and the strand resolutions that Resample nodes hand to
// the Scatters before them: a Scatter grows its strands with the segments that the Resamples after
// it ask for, so that no point is computed that a later Resample would throw away.

#include <algorithm>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "graph/graph.h"

namespace velmorin {
namespace {

// A Scatter that no Resample gives a resolution grows its strands with this many segments.
constexpr int kScatterDefaultSegments = 8;

std::string unknownNode(std::uint32_t id) {
    return "unknown node " + std::to_string(id);
}

bool isSilentIn(const GraphNode& node, bool viewport) {
    if (node.bypass) return true;
    if (node.evaluation == EvaluationMode::ViewportOnly) return !viewport;
    if (node.evaluation == EvaluationMode::RenderOnly) return viewport;
    return false;
}

// Collects every node reached from `start` (itself included) along connections whose input is
// active; a silent node is reached but only its first input is followed.
void collectActive(const Graph& graph, std::uint32_t start, bool viewport,
                   std::set<std::uint32_t>& reached) {
    std::vector<std::uint32_t> stack{start};
    while (!stack.empty()) {
        std::uint32_t id = stack.back();
        stack.pop_back();
        if (!reached.insert(id).second) continue;
        const GraphNode& node = graph.node(id);
        const bool silent = isSilentIn(node, viewport);
        for (std::size_t i = 0; i < node.inputs.size(); ++i) {
            if (silent && i > 0) break;
            if (node.inputs[i] != 0 && node.op->inputActive(i)) stack.push_back(node.inputs[i]);
        }
    }
}

// What the walk from the Output finds, and what each Scatter and Resample takes from it.
struct ResolutionWalk {
    std::set<std::uint32_t> reached;
    std::vector<std::uint32_t> scatters;  // reached Scatters, in id order
    // The fed Resamples after each reached Scatter, in id order.
    std::map<std::uint32_t, std::vector<std::uint32_t>> after;
    // The reached Scatters before each fed Resample.
    std::map<std::uint32_t, std::vector<std::uint32_t>> before;
    std::map<std::uint32_t, Graph::Resolution> resolutions;
    std::vector<std::uint32_t> defaulted;  // Scatters that took the unfed Resample's default
};

int segmentsOf(const GraphNode& node) {
    return static_cast<int>(node.op->paramSet.getInt("segments", 0));
}

bool isFedNothing(const GraphNode& node) {
    return node.inputs.empty() || node.inputs[0] == 0;
}

ResolutionWalk walkResolutions(const Graph& graph, bool viewport) {
    ResolutionWalk walk;
    std::vector<std::uint32_t> starts;
    if (graph.outputNode() != 0 && graph.hasNode(graph.outputNode())) {
        starts.push_back(graph.outputNode());
    } else {
        for (const auto& [id, node] : graph.nodes())
            if (node.op->type() == "Output") starts.push_back(id);
    }
    for (std::uint32_t start : starts)
        collectActive(graph, start, viewport, walk.reached);

    std::vector<std::uint32_t> unfed;
    for (std::uint32_t id : walk.reached) {
        const GraphNode& node = graph.node(id);
        const std::string type = node.op->type();
        if (type == "Scatter") walk.scatters.push_back(id);
        if (type != "Resample") continue;
        if (isFedNothing(node)) {
            unfed.push_back(id);
            continue;
        }
        std::set<std::uint32_t> upstream;
        const bool silent = isSilentIn(node, viewport);
        for (std::size_t i = 0; i < node.inputs.size(); ++i) {
            if (silent && i > 0) break;
            if (node.inputs[i] != 0 && node.op->inputActive(i))
                collectActive(graph, node.inputs[i], viewport, upstream);
        }
        for (std::uint32_t up : upstream) {
            if (graph.node(up).op->type() != "Scatter") continue;
            walk.after[up].push_back(id);
            walk.before[id].push_back(up);
        }
    }

    for (std::uint32_t scatter : walk.scatters) {
        Graph::Resolution best;
        for (std::uint32_t resample : walk.after[scatter]) {
            const int segments = segmentsOf(graph.node(resample));
            if (segments > best.segments) best = {segments, resample, false};
        }
        if (best.segments > 0) walk.resolutions[scatter] = best;
    }

    Graph::Resolution fallback;
    for (std::uint32_t resample : unfed) {
        const int segments = segmentsOf(graph.node(resample));
        if (segments > fallback.segments) fallback = {segments, resample, true};
    }
    if (fallback.segments > 0) {
        for (std::uint32_t scatter : walk.scatters) {
            if (walk.resolutions.count(scatter)) continue;
            walk.resolutions[scatter] = fallback;
            walk.defaulted.push_back(scatter);
        }
    }
    return walk;
}

std::string joinNames(const Graph& graph, const std::vector<std::uint32_t>& ids) {
    std::string text;
    for (std::uint32_t id : ids) {
        if (!text.empty()) text += ", ";
        text += graph.node(id).name;
    }
    return text;
}

std::string scatterReport(const Graph& graph, const ResolutionWalk& walk, std::uint32_t id) {
    auto found = walk.resolutions.find(id);
    if (found == walk.resolutions.end()) {
        return "Its strands grow with " + std::to_string(kScatterDefaultSegments) +
               " segments: no Resample after this Scatter sets their resolution (add one to its "
               "branch)";
    }
    const Graph::Resolution& resolution = found->second;
    std::string text = "Its strands grow with " + std::to_string(resolution.segments) +
                       " segments, set by Resample " + graph.node(resolution.resample).name;
    if (resolution.fromUnfedResample)
        return text + " (fed nothing, it sets the default: no Resample after this Scatter does)";
    std::size_t asking = 0;
    if (auto after = walk.after.find(id); after != walk.after.end()) {
        for (std::uint32_t resample : after->second)
            if (segmentsOf(graph.node(resample)) > 0) ++asking;
    }
    if (asking > 1) text += " (the most segments any Resample after it asks for)";
    return text;
}

std::string resampleReport(const Graph& graph, const ResolutionWalk& walk, std::uint32_t id) {
    const GraphNode& node = graph.node(id);
    const int segments = segmentsOf(node);
    const bool reached = walk.reached.count(id) > 0;
    if (isFedNothing(node)) {
        if (!reached || segments <= 0 || walk.scatters.empty())
            return "Fed nothing: it sets no Scatter's resolution (connect it after the strands it "
                   "should resample)";
        if (!walk.defaulted.empty() && walk.resolutions.at(walk.defaulted.front()).resample == id) {
            return "Fed nothing: it sets the default resolution, " + std::to_string(segments) +
                   ", of every Scatter with no Resample after it (Scatter " +
                   joinNames(graph, walk.defaulted) + ")";
        }
        return "Fed nothing: it sets the default resolution, which no Scatter takes (each has a "
               "Resample after it, or another Resample fed nothing asks for more)";
    }
    if (!reached)
        return "Its strands reach no Output: it sets no Scatter's resolution (connect it on the "
               "way "
               "to the Output)";
    auto before = walk.before.find(id);
    if (before == walk.before.end())
        return "No Scatter comes before it: it sets no Scatter's resolution (a Resample sets only "
               "its own branch's)";
    if (segments <= 0) return "Sets no Scatter's resolution (0 segments keeps each strand's)";
    std::vector<std::uint32_t> set;
    std::uint32_t winner = 0;
    for (std::uint32_t scatter : before->second) {
        const Graph::Resolution& resolution = walk.resolutions.at(scatter);
        if (resolution.resample == id) {
            set.push_back(scatter);
        } else if (winner == 0) {
            winner = resolution.resample;
        }
    }
    if (!set.empty())
        return "Sets the resolution of Scatter " + joinNames(graph, set) +
               " (a Resample sets only its own branch's)";
    return "Sets no Scatter's resolution: Resample " + graph.node(winner).name +
           " after it asks for more";
}

}  // namespace

bool Graph::forEachActiveUpstream(std::uint32_t id, const UpstreamVisitor& visit,
                                  std::size_t startInput) const {
    if (!hasNode(id)) throw GraphError(unknownNode(id));
    std::unordered_set<std::uint32_t> seen;
    // Depth first, each node once; `from` is the output slot through which the walk came in.
    auto walk = [&](auto& self, std::uint32_t at, std::size_t from, std::size_t first) -> bool {
        if (!seen.insert(at).second) return true;
        const GraphNode& node = this->node(at);
        if (!visit(node.name, *node.op)) return false;
        if (!node.op->activeThrough(from, visit)) return false;
        for (std::size_t i = first; i < node.inputs.size(); ++i) {
            // Without a context, only bypass makes a node silent here.
            if (node.bypass && i > 0) break;
            if (node.inputs[i] == 0 || !node.op->inputActive(i)) continue;
            if (!self(self, node.inputs[i], node.slots[i], 0)) return false;
        }
        return true;
    };
    return walk(walk, id, 0, startInput);
}

std::map<std::uint32_t, Graph::Resolution> Graph::strandResolutions(bool viewport) const {
    return walkResolutions(*this, viewport).resolutions;
}

std::string Graph::resolutionReport(std::uint32_t id) const {
    if (!hasNode(id)) throw GraphError(unknownNode(id));
    const std::string type = node(id).op->type();
    if (type != "Scatter" && type != "Resample") return {};
    // Reports describe the interactive case: the viewport's evaluation.
    const ResolutionWalk walk = walkResolutions(*this, true);
    return type == "Scatter" ? scatterReport(*this, walk, id) : resampleReport(*this, walk, id);
}

}  // namespace velmorin
