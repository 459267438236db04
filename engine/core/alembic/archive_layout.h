#pragma once
// A check of an Alembic archive's layout before the library reads it: the library takes for
// granted that each object, property and sample it looks up lies where the archive's headers say,
// and a damaged file where one does not makes it read through a null pointer. This walk parses
// the same headers with the library's own parsing code and confirms every such place, so that the
// reader can refuse the file with a reason.

#include <istream>
#include <string>

namespace velmorin {

// The reason the archive on `stream` (or in the file at `path`) cannot be read, or empty.
std::string checkAlembicLayout(std::istream& stream);
std::string checkAlembicLayout(const std::string& path);

}  // namespace velmorin
