#pragma once
// Guides for a scalp that has none, so that a new groom shows hair at once: roots spread evenly
// over the surface, each guide grown out along the surface normal and combed down by gravity.

#include <cstdint>

#include "editing/guide_hierarchy.h"

namespace velmorin {

class ScalpMesh;

struct StarterGuideOptions {
    int count = 64;       // 1 to kMaxStarterGuides
    float length = 0.0f;  // 0: a fifth of the diagonal of the scalp's bounding box
    int segments = 8;     // 1 to 64
    // How far gravity combs the guides: 0 leaves them straight along the normal, 1 lays their
    // tips along the pull.
    float gravity = 0.85f;
    std::uint64_t seed = 0;
};

inline constexpr int kMaxStarterGuides = 10000;

// The name of the group that holds the starter guides.
inline constexpr const char* kStarterGuideGroup = "guides";

// A hierarchy with one root group, kStarterGuideGroup, of `options.count` primaries posed on
// `scalp` (its root bound, all points in scalp object space). Roots are the farthest-point picks
// among candidates spread over the surface by area; the same scalp and options give the same
// guides, bit for bit. Gravity pulls along -Y. Throws std::invalid_argument "starter guides: the
// scalp has no triangles", "starter guides: the count must be 1 to 10000", "starter guides: the
// segments must be 1 to 64", "starter guides: the length must be 0 (measured) or more", "starter
// guides: gravity must be 0 to 1".
GuideHierarchy makeStarterGuides(const ScalpMesh& scalp, const StarterGuideOptions& options = {});

}  // namespace velmorin
