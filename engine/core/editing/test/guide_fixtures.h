#pragma once
// Guide curves and hierarchies for the tests and benchmarks, made from formulas and hashes only.

#include <cmath>
#include <cstdint>
#include <vector>

#include "base/hash.h"
#include "editing/guide_hierarchy.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::test {

// `count` points from `root` along `direction` for `length`, bending by `bend` times the length
// toward `side` at the tip (quadratically, so the curve starts along `direction`).
inline std::vector<Vec3f> curve(Vec3f root, Vec3f direction, float length, std::size_t count,
                                Vec3f side = {1, 0, 0}, float bend = 0.0f) {
    std::vector<Vec3f> points(count);
    for (std::size_t i = 0; i < count; ++i) {
        const float t = count > 1 ? float(i) / float(count - 1) : 0.0f;
        points[i] = root + direction * (length * t) + side * (bend * length * t * t);
    }
    return points;
}

// A hierarchy of `primaries` guides of `pointCount` points rooted at hashed places on `scalp` and
// grown along its normal with a hashed bend, in the root group "main", each with `children`
// generated children in the group "kids" (none when 0), posed on the scalp once.
inline GuideHierarchy scalpHierarchy(const ScalpMesh& scalp, std::size_t primaries,
                                     std::size_t pointCount, int children, std::uint64_t seed,
                                     float length = 1.0f) {
    GuideHierarchy h;
    const std::uint32_t main = h.addGroup("main", 0);
    std::vector<std::uint64_t> ids;
    ids.reserve(primaries);
    for (std::size_t i = 0; i < primaries; ++i) {
        const std::uint64_t k = hashCombine(seed, i);
        StrandRoot root;
        root.face = static_cast<std::int32_t>(mix64(k) % scalp.triangleCount());
        root.u = unitFloat(k + 1);
        root.v = unitFloat(k + 2) * (1.0f - root.u);
        const SurfaceFrame frame = scalp.frameAt(root);
        const Vec3f side =
            frame.tangent * (unitFloat(k + 3) - 0.5f) + frame.bitangent * (unitFloat(k + 4) - 0.5f);
        ids.push_back(
            h.addGuide(main, curve(frame.origin, frame.normal, length, pointCount, side)));
    }
    if (children > 0) {
        ChildOptions options;
        options.count = children;
        options.rootSpread = 0.05f;
        options.tipSpread = 0.1f;
        options.seed = seed;
        h.generateChildren(main, "kids", ids, options);
    }
    h.pose(scalp);
    return h;
}

}  // namespace velmorin::test
