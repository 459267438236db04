#pragma once
// Where a strand grows from: a triangle of the scalp and a barycentric position on it.

#include <cstdint>

namespace velmorin {

// 12 bytes in the order face, u, v. The order is part of content hashes and of every binary dump,
// so it must not change.
struct StrandRoot {
    std::int32_t face = -1;  // triangle of the scalp; negative means not bound to a surface
    float u = 0.0f;          // barycentric coordinates on that triangle
    float v = 0.0f;

    bool operator==(const StrandRoot&) const = default;
};
static_assert(sizeof(StrandRoot) == 12, "StrandRoot is dumped and hashed as 12 packed bytes");

// A location on the scalp held by guides, parts, flow pins and markers. It is the same record as a
// strand's root, so that a closest-point answer serves both without conversion.
using SurfacePoint = StrandRoot;

}  // namespace velmorin
