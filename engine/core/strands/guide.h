#pragma once
// Guides: the few, individually addressable curves an artist grooms by hand and from which the
// hair is grown. A GuideSet is the value that carries them along the node graph.

#include "base/vec3.h"
#include "strands/strand_root.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace velmorin {

// A plain record: the editing tools add members of their own, so it stays an aggregate without
// invariants of its own.
struct Guide {
    std::uint64_t id = 0;  // stable across frames and edits; randomness hangs on it
    StrandRoot root;
    std::vector<Vec3f> points;                // root first
    std::map<std::string, float> attributes;  // one value per guide
    // One value per point; a layer whose length differs from points.size() is ignored by the
    // conversion to strands.
    std::map<std::string, std::vector<float>> pointAttributes;
};

// An ordered list of guides; the order is the order of the strands made from them.
struct GuideSet {
    std::vector<Guide> guides;
};

}  // namespace velmorin
