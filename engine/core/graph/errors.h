#pragma once
// The graph's failures. Every message is a full sentence for the artist.

#include <stdexcept>
#include <string>

namespace velmorin {

// What stops a node, and every broken rule of graph editing.
class GraphError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The loader's error when a document's structure is wrong.
class SchemaError : public GraphError {
  public:
    using GraphError::GraphError;
};

}  // namespace velmorin
