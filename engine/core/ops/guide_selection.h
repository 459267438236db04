#pragma once
// Which guides a Guides node hands on: a hierarchy level or named groups of the groom's guide
// hierarchy, less the groups left out, or the flat guide list where there is no hierarchy.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "strands/guide.h"

namespace velmorin {

class GuideHierarchy;

// Group names split at spaces and commas; empty pieces are dropped.
std::vector<std::string> splitGroupNames(std::string_view text);

struct GuideSelection {
    int level = -1;        // -1: each family's deepest groups
    std::string groups;    // names that replace the level; empty: use the level
    std::string excluded;  // names left out, with their child groups
};

// A test by guide id: true for a guide of an excluded group or of a group below one (walking at
// most 64 groups up). Throws GraphError "Guides: no guide group named 'x' to exclude". The
// hierarchy must outlive the test.
std::function<bool(std::uint64_t)> excludedTest(const GuideHierarchy& hierarchy,
                                                std::string_view excluded);

// The guides of `hierarchy` by the selection, in the hierarchy's order; without a hierarchy (null
// or holding no guides) the flat list, less excluded groups where a hierarchy names them. Throws
// GraphError "Guides: no guide group named 'x'" for an unknown group.
GuideSet selectGuides(const GuideHierarchy* hierarchy, const GuideSet* flat,
                      const GuideSelection& selection);

}  // namespace velmorin
