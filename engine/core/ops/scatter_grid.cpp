// The uvGrid layout of Scatter: one root per cell of a grid laid over the scalp's UVs.

#include <algorithm>
#include <cmath>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "ops/guide_mask.h"
#include "ops/scatter_placement.h"

namespace velmorin {
namespace {

constexpr std::size_t kGrain = 256;

void forEach(std::size_t count, const RangeBody& body) {
    if (count <= kGrain) {
        if (count > 0) body(0, count);
        return;
    }
    parallelRange(0, count, kGrain, body);
}

struct CellSpot {
    float u = 0.0f;
    float v = 0.0f;
};

}  // namespace

ScatterPlacement placeGrid(const ScalpMesh& scalp, const GridSettings& settings) {
    ScatterPlacement placed;
    const std::size_t rows = static_cast<std::size_t>(std::max(1, settings.rows));
    const std::size_t columns = static_cast<std::size_t>(std::max(1, settings.columns));
    const std::size_t cells = rows * columns;
    const std::uint64_t gridSeed = mix64(settings.seed ^ 0x6121D5EEDull);
    const float jitter = settings.jitter;

    // 1. Each cell's spot in UV space.
    std::vector<CellSpot> spots(cells);
    forEach(cells, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            const std::size_t row = c / columns, column = c % columns;
            float u = (static_cast<float>(column) + 0.5f) / static_cast<float>(columns);
            float v = (static_cast<float>(row) + 0.5f) / static_cast<float>(rows);
            if (jitter > 0.0f) {
                const std::uint64_t cellHash = hashCombine(gridSeed, c);
                u += (combinedUnit(cellHash, 1) - 0.5f) * jitter / static_cast<float>(columns);
                v += (combinedUnit(cellHash, 2) - 0.5f) * jitter / static_cast<float>(rows);
            }
            spots[c] = {u, v};
        }
    });

    // 2. Faces claim the cells their UV triangle covers, in face order: the lower face wins.
    std::vector<StrandRoot> claimed(cells);
    const auto& uvs = scalp.uvs();
    for (std::size_t f = 0; f < scalp.triangleCount(); ++f) {
        const Uv a = uvs[f * 3], b = uvs[f * 3 + 1], c = uvs[f * 3 + 2];
        const double e1u = b.u - a.u, e1v = b.v - a.v, e2u = c.u - a.u, e2v = c.v - a.v;
        const double det = e1u * e2v - e2u * e1v;
        if (std::fabs(det) <= 1e-14) continue;
        // The cells whose centres the triangle's box can reach, widened by the jitter.
        const double pad = 0.5 * jitter + 1.0;
        const double minU = std::min({a.u, b.u, c.u}), maxU = std::max({a.u, b.u, c.u});
        const double minV = std::min({a.v, b.v, c.v}), maxV = std::max({a.v, b.v, c.v});
        const auto firstColumn = static_cast<std::int64_t>(std::floor(minU * columns - pad));
        const auto lastColumn = static_cast<std::int64_t>(std::ceil(maxU * columns + pad));
        const auto firstRow = static_cast<std::int64_t>(std::floor(minV * rows - pad));
        const auto lastRow = static_cast<std::int64_t>(std::ceil(maxV * rows + pad));
        for (std::int64_t row = std::max<std::int64_t>(0, firstRow);
             row <= std::min<std::int64_t>(static_cast<std::int64_t>(rows) - 1, lastRow); ++row) {
            for (std::int64_t column = std::max<std::int64_t>(0, firstColumn);
                 column <=
                 std::min<std::int64_t>(static_cast<std::int64_t>(columns) - 1, lastColumn);
                 ++column) {
                const std::size_t cell =
                    static_cast<std::size_t>(row) * columns + static_cast<std::size_t>(column);
                if (claimed[cell].face >= 0) continue;
                const CellSpot spot = spots[cell];
                if (spot.u < minU || spot.u > maxU || spot.v < minV || spot.v > maxV) continue;
                const double pu = spot.u - a.u, pv = spot.v - a.v;
                const double s = (pu * e2v - e2u * pv) / det;
                const double t = (e1u * pv - pu * e1v) / det;
                if (s < -1e-6 || t < -1e-6 || s + t > 1.000001) continue;
                // Clamped into the triangle: the tolerance must not put a root off its face.
                float cu = static_cast<float>(std::max(0.0, s));
                float cv = static_cast<float>(std::max(0.0, t));
                if (cu + cv > 1.0f) {
                    const float sum = cu + cv;
                    cu /= sum;
                    cv /= sum;
                }
                claimed[cell] = {static_cast<std::int32_t>(f), cu, cv};
            }
        }
    }

    // 3. Cells with a face are candidates when the preview can keep them.
    const double share = std::clamp(settings.share, 0.0, 1.0);
    std::vector<std::uint32_t> candidates;
    candidates.reserve(static_cast<std::size_t>(static_cast<double>(cells) * share) + 16);
    for (std::size_t c = 0; c < cells; ++c) {
        if (claimed[c].face < 0) continue;
        if (share < 1.0 && !(unitFloat(hashCombine(gridSeed, c)) < share)) continue;
        candidates.push_back(static_cast<std::uint32_t>(c));
    }

    // 4. The density map and the mask, each cell on its own; then the kept ones in order.
    const bool mapped = static_cast<bool>(settings.mappedDensity);
    const bool masked = settings.mask && !settings.mask->empty();
    std::vector<std::uint8_t> keep(candidates.size(), 1);
    if (mapped || masked) {
        forEach(candidates.size(), [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const std::uint32_t c = candidates[i];
                const StrandRoot root = claimed[c];
                const Vec3f position = scalp.pointAt(root);
                const std::uint64_t id = hashCombine(gridSeed, c);
                if (mapped &&
                    !keptByDensity(id, settings.mappedDensity(root, position), settings.density))
                    keep[i] = 0;
                else if (masked && !settings.mask->passes(position))
                    keep[i] = 0;
            }
        });
    }
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (!keep[i]) continue;
        placed.ids.push_back(hashCombine(gridSeed, candidates[i]));
        placed.randomRoots.push_back(claimed[candidates[i]]);
    }
    placed.evenRoots = placed.randomRoots;
    return placed;
}

}  // namespace velmorin
