#pragma once
// The source nodes, with which a groom begins: the scalp and other meshes, the guides, and the
// Scatter that makes the roots of every hair. One file each; the classes are reached only through
// these functions.

namespace velmorin {

class OperatorRegistry;

void registerScalpOperator(OperatorRegistry& registry);
void registerGuidesOperator(OperatorRegistry& registry);
void registerColliderMeshOperator(OperatorRegistry& registry);
void registerScatterOperator(OperatorRegistry& registry);

}  // namespace velmorin
