#pragma once
// The field nodes: each makes a FieldValue, a ramp or one value that any param can take through its
// input. One file each; the classes are reached only through these functions.

namespace velmorin {

class OperatorRegistry;

void registerMapOperator(OperatorRegistry& registry);
void registerExpressionOperator(OperatorRegistry& registry);
void registerControlOperator(OperatorRegistry& registry);
void registerFieldNoiseOperator(OperatorRegistry& registry);
void registerFieldRemapOperator(OperatorRegistry& registry);
void registerFieldCombineOperator(OperatorRegistry& registry);
void registerCurveOperator(OperatorRegistry& registry);
void registerValueOperator(OperatorRegistry& registry);

}  // namespace velmorin
