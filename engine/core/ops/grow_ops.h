#pragma once
// The operators that grow strands from roots into hair. One file each; the classes are reached
// only through these functions.

namespace velmorin {

class OperatorRegistry;

void registerInterpolateOperator(OperatorRegistry& registry);

}  // namespace velmorin
