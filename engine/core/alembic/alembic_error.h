#pragma once
// The failure of an Alembic file: one that cannot be written or read, or whose curves make no
// sense.

#include <stdexcept>

namespace velmorin {

class AlembicError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace velmorin
