#pragma once
// Strands for the tests and benchmarks of the shape nodes: rooted on a scalp, leaning and a little
// wavy, so that every node has something to turn.

#include <cstdint>
#include <memory>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_set.h"

namespace velmorin::test {

// `count` strands of `points` points each, ids hashed from `seed`, rooted at hashed spots of the
// scalp and about `length` long: out along the normal, leaning by up to half a unit sideways and
// wavy by a tenth of a step. Filled in parallel, so that 1M strands stay quick.
inline std::shared_ptr<const StrandSet> scalpStrands(const ScalpMesh& scalp, std::size_t count,
                                                     std::size_t points, std::uint64_t seed,
                                                     float length = 1.0f) {
    auto set = std::make_shared<StrandSet>();
    std::vector<std::uint64_t>& ids = set->writeIds();
    std::vector<StrandRoot>& roots = set->writeRoots();
    std::vector<std::uint64_t>& offsets = set->writeOffsets();
    std::vector<Vec3f>& positions = set->writePoints();
    std::vector<float>& widths = set->writeWidths();
    ids.resize(count);
    roots.resize(count);
    offsets.assign(count + 1, 0);
    positions.resize(count * points);
    widths.assign(count * points, 0.01f);
    const std::size_t faces = scalp.triangleCount();
    const float step = points > 1 ? length / static_cast<float>(points - 1) : 0.0f;
    parallelRange(0, count, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::uint64_t id = hashCombine(seed, s);
            ids[s] = id;
            float u = unitFloat(id + 1), v = unitFloat(id + 2);
            if (u + v > 1.0f) u = 1.0f - u, v = 1.0f - v;
            roots[s] = {static_cast<std::int32_t>(mix64(id) % faces), u, v};
            offsets[s + 1] = (s + 1) * points;
            const Vec3f lean{unitFloat(id + 3) - 0.5f, unitFloat(id + 4) - 0.5f,
                             unitFloat(id + 5) - 0.5f};
            const Vec3f direction = normalized(scalp.normalAt(roots[s]) + lean);
            Vec3f at = scalp.pointAt(roots[s]);
            for (std::size_t k = 0; k < points; ++k) {
                if (k > 0) {
                    const std::uint64_t h = hashCombine(id, k);
                    const Vec3f wiggle{unitFloat(h) - 0.5f, unitFloat(h + 1) - 0.5f,
                                       unitFloat(h + 2) - 0.5f};
                    at += (direction + wiggle * 0.2f) * step;
                }
                positions[s * points + k] = at;
            }
        }
    });
    return set;
}

}  // namespace velmorin::test
