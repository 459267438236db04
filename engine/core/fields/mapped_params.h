#pragma once
// The mapped params' side of evaluation: what a node's maps add to its key, and the scene of its
// run (the scalp, the catalog of maps, its guides). Installed in a registry so that the graph asks
// for them without knowing fields.

#include <memory>

#include "graph/run_scene.h"

namespace velmorin {

class OperatorRegistry;

// The mapped params of the fields layer; one shared instance.
std::shared_ptr<const MappedParams> fieldMappedParams();

// Installs fieldMappedParams() in `registry`.
void installFieldMappedParams(OperatorRegistry& registry);

}  // namespace velmorin
