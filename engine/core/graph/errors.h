#pragma once
// The graph's failures. Every message is a full sentence for the artist.

#include <stdexcept>
#include <string>

#include "base/document.h"  // SchemaError, which graph JSON throws too

namespace velmorin {

// What stops a node, and every broken rule of graph editing.
class GraphError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace velmorin
