// Graph JSON from any bytes: every input gives a graph or a SchemaError / GraphError, never a
// crash, a leak or a hang. A graph that loads must write a text that reads back to the same bytes,
// and must survive clone and the graph tools. The graph tests' operator types give the reader real
// ports, params, versions, upgrades and definitions to work through.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "graph/graph.h"
#include "graph/graph_tools.h"
#include "graph/test/test_operators.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    test::registerDocOperators();
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    Graph graph;
    try {
        graph.fromJson(text);
    } catch (const GraphError&) {
        return 0;
    } catch (const SchemaError&) {
        return 0;
    }
    // What was written must read back, and write the same bytes again.
    const std::string written = graph.toJson();
    Graph reread;
    reread.fromJson(written);
    if (reread.toJson() != written) __builtin_trap();
    if (graph.clone()->toJson() != written) __builtin_trap();
    graphInfo(graph);
    seedCollisions(graph);

    nlohmann::ordered_json doc = nlohmann::ordered_json::parse(written);
    fitControls(doc, {"on", "ox", "gain"});
    // Fitted controls are renamed, never removed: the document still loads.
    reread.fromJson(doc.dump());
    return 0;
}
