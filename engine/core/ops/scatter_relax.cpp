// Blue-noise relaxation of scatter candidates and the blend between even and random roots.

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <unordered_map>

#include <tbb/parallel_sort.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "ops/guide_mask.h"
#include "ops/scatter_placement.h"

namespace velmorin {
namespace {

constexpr std::size_t kGrain = 256;
constexpr int kIterations = 24;
constexpr int kNeighbors = 24;
constexpr float kRadiusScale = 1.0746f;  // the spacing of a hexagonal packing at unit density
constexpr std::uint32_t kNoEdge = 0xffffffffu;

void forEach(std::size_t count, const RangeBody& body) {
    if (count <= kGrain) {
        if (count > 0) body(0, count);
        return;
    }
    parallelRange(0, count, kGrain, body);
}

// Cell coordinates packed 21 bits each; the offset keeps negative coordinates apart.
std::uint64_t cellKey(std::int64_t x, std::int64_t y, std::int64_t z) {
    constexpr std::int64_t kBias = 1 << 20;
    constexpr std::uint64_t kMask = (1u << 21) - 1;
    return (static_cast<std::uint64_t>(x + kBias) & kMask) |
           ((static_cast<std::uint64_t>(y + kBias) & kMask) << 21) |
           ((static_cast<std::uint64_t>(z + kBias) & kMask) << 42);
}

struct CellCoord {
    std::int64_t x, y, z;
};

CellCoord cellOf(const Vec3f& p, float inverseCell) {
    return {static_cast<std::int64_t>(std::floor(p.x * inverseCell)),
            static_cast<std::int64_t>(std::floor(p.y * inverseCell)),
            static_cast<std::int64_t>(std::floor(p.z * inverseCell))};
}

// A border edge of the scalp and the direction, in its triangle's plane, that points inside.
struct BorderEdge {
    Vec3f a, b;
    Vec3f inward;
};

std::vector<BorderEdge> borderEdges(const ScalpMesh& scalp) {
    std::vector<BorderEdge> edges;
    const auto topology = scalp.topology();
    const auto& points = scalp.points();
    const auto& triangles = scalp.triangles();
    for (std::uint32_t t = 0; t < triangles.size(); ++t) {
        for (int e = 0; e < 3; ++e) {
            if (topology->neighborAcross(t, e) >= 0) continue;
            const Vec3f a = points[triangles[t][e]], b = points[triangles[t][(e + 1) % 3]];
            const Vec3f c = points[triangles[t][(e + 2) % 3]];
            const Vec3f along = normalized(b - a);
            const Vec3f toC = c - a;
            const Vec3f inward = normalized(toC - along * dot(toC, along));
            if (lengthSquared(along) == 0.0f || lengthSquared(inward) == 0.0f) continue;
            edges.push_back({a, b, inward});
        }
    }
    return edges;
}

// The closest point of segment ab to p.
Vec3f closestOnSegment(const Vec3f& p, const Vec3f& a, const Vec3f& b) {
    const Vec3f ab = b - a;
    const float len2 = lengthSquared(ab);
    const float t = len2 > 0.0f ? std::clamp(dot(p - a, ab) / len2, 0.0f, 1.0f) : 0.0f;
    return a + ab * t;
}

// The neighbour grid of one refresh: candidates sorted by cell (cells in key order, a cell's
// candidates in index order) with their positions beside them, and the border edges near each cell.
// The key puts x in the low bits, so a row of cells along x is one run of the sorted entries: a
// search looks up one run per row instead of one cell at a time.
class NeighborGrid {
  public:
    NeighborGrid(float cell, std::span<const BorderEdge> edges) : inverse_(1.0f / cell) {
        // Each edge joins every cell within two cells of its samples, so a point finds in its own
        // cell's list every edge within two cells of it.
        for (std::uint32_t e = 0; e < edges.size(); ++e) {
            const float len = length(edges[e].b - edges[e].a);
            const int steps = std::max(1, static_cast<int>(std::ceil(len * inverse_ * 2.0f)));
            for (int s = 0; s <= steps; ++s) {
                const Vec3f p = lerp(edges[e].a, edges[e].b, static_cast<float>(s) / steps);
                const CellCoord c = cellOf(p, inverse_);
                for (int dz = -2; dz <= 2; ++dz)
                    for (int dy = -2; dy <= 2; ++dy)
                        for (int dx = -2; dx <= 2; ++dx) {
                            auto& list = edgeCells_[cellKey(c.x + dx, c.y + dy, c.z + dz)];
                            if (list.empty() || list.back() != e) list.push_back(e);
                        }
            }
        }
        for (auto& [key, list] : edgeCells_) {
            std::sort(list.begin(), list.end());
            list.erase(std::unique(list.begin(), list.end()), list.end());
        }
    }

    // Sorts the candidates into cells at their current positions.
    void rebuild(std::span<const Vec3f> positions) {
        const std::size_t count = positions.size();
        entries_.resize(count);
        forEach(count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const CellCoord c = cellOf(positions[i], inverse_);
                entries_[i] = {cellKey(c.x, c.y, c.z), static_cast<std::uint32_t>(i)};
            }
        });
        // Within a cell the candidates stay in index order, so every scan meets them in one order.
        tbb::parallel_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
            return a.key != b.key ? a.key < b.key : a.index < b.index;
        });
        sortedIndex_.resize(count);
        sortedPosition_.resize(count);
        forEach(count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t e = begin; e < end; ++e) {
                sortedIndex_[e] = entries_[e].index;
                sortedPosition_[e] = positions[entries_[e].index];
            }
        });
        cellStart_.clear();
        cellKeys_.clear();
        for (std::size_t i = 0; i < count; ++i) {
            if (i == 0 || entries_[i].key != entries_[i - 1].key) {
                cellStart_.push_back(static_cast<std::uint32_t>(i));
                cellKeys_.push_back(entries_[i].key);
            }
        }
        cellStart_.push_back(static_cast<std::uint32_t>(count));
    }

    std::size_t cellCount() const { return cellKeys_.size(); }
    // The candidates of a cell, as a run of the sorted entries.
    std::uint32_t cellBegin(std::size_t cell) const { return cellStart_[cell]; }
    std::uint32_t cellEnd(std::size_t cell) const { return cellStart_[cell + 1]; }
    std::uint32_t indexAt(std::uint32_t entry) const { return sortedIndex_[entry]; }
    const Vec3f& positionAt(std::uint32_t entry) const { return sortedPosition_[entry]; }

    // A run of sorted entries: the candidates of consecutive cells of one row.
    struct Run {
        std::uint32_t begin, end;
    };

    // The runs of the cells within `rings` cells of `position`'s cell, rows in z then y order and
    // each row along x: the order a cell-by-cell scan would meet them. Returns the run count;
    // `runs` holds (2 * rings + 1) squared entries.
    int runsNear(const Vec3f& position, int rings, Run* runs) const {
        const CellCoord c = cellOf(position, inverse_);
        int count = 0;
        for (int dz = -rings; dz <= rings; ++dz)
            for (int dy = -rings; dy <= rings; ++dy) {
                const std::uint64_t first = cellKey(c.x - rings, c.y + dy, c.z + dz);
                const std::uint64_t last = cellKey(c.x + rings, c.y + dy, c.z + dz);
                const auto from = std::lower_bound(cellKeys_.begin(), cellKeys_.end(), first);
                auto to = from;
                while (to != cellKeys_.end() && *to <= last)
                    ++to;
                if (from == to) continue;
                runs[count++] = {cellStart_[static_cast<std::size_t>(from - cellKeys_.begin())],
                                 cellStart_[static_cast<std::size_t>(to - cellKeys_.begin())]};
            }
        return count;
    }

    const std::vector<std::uint32_t>* edgesNear(const Vec3f& position) const {
        const CellCoord c = cellOf(position, inverse_);
        const auto found = edgeCells_.find(cellKey(c.x, c.y, c.z));
        return found == edgeCells_.end() ? nullptr : &found->second;
    }

  private:
    struct Entry {
        std::uint64_t key;
        std::uint32_t index;
    };
    float inverse_;
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> sortedIndex_;
    std::vector<Vec3f> sortedPosition_;
    std::vector<std::uint32_t> cellStart_;
    std::vector<std::uint64_t> cellKeys_;
    std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> edgeCells_;
};

}  // namespace

void relaxPlacement(const ScalpMesh& scalp, const PlacementSettings& settings,
                    ScatterPlacement& placed) {
    const std::size_t count = placed.size();
    placed.evenRoots = placed.randomRoots;
    if (count < 2 || !(settings.density > 0.0)) return;
    const bool mapped = static_cast<bool>(settings.mappedDensity);
    const bool masked = settings.mask && !settings.mask->empty();
    const float r0 = kRadiusScale / static_cast<float>(std::sqrt(settings.density));

    std::vector<StrandRoot> roots = placed.randomRoots;
    std::vector<Vec3f> positions(count), next(count), normals(count);
    std::vector<float> radii(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            positions[i] = scalp.pointAt(roots[i]);
            normals[i] = scalp.normalAt(roots[i]);
            float r = r0;
            if (mapped) {
                const float d = settings.mappedDensity(roots[i], positions[i]);
                r = d > 0.0f ? kRadiusScale / std::sqrt(d) : 0.0f;
            }
            radii[i] = r;
        }
    });
    const float largest = *std::max_element(radii.begin(), radii.end());
    if (!(largest > 0.0f)) return;

    // Cells two radii wide: a candidate of the working density meets every candidate it can
    // touch in the 27 cells round it. Sparser spots (larger radii) look further.
    const float cell = 2.0f * r0;
    const float searchRange = 3.0f * largest + r0;
    const int maxRings = std::clamp(static_cast<int>(std::ceil(searchRange / cell)), 1, 3);
    const std::vector<BorderEdge> edges = borderEdges(scalp);
    NeighborGrid grid(cell, edges);
    std::vector<std::uint32_t> neighbors(count * kNeighbors);
    std::vector<std::uint32_t> nearestEdge(count, kNoEdge);

    // Each refresh works cell by cell: a cell's candidates share their runs of nearby cells and
    // their border edges, and read the positions of their neighbours from the sorted copy, which
    // lies in the order of the scan.
    constexpr int kMaxRuns = 7 * 7;
    // A neighbour as one number: the squared distance's bits above the entry's place in the scan.
    // Distances are never negative, so their bits order as the distances do, and comparing the
    // numbers orders by distance and then by the order of the scan, the order of the lists.
    const auto nearKey = [](float distanceSquared, std::uint32_t entry) {
        return (static_cast<std::uint64_t>(floatBits(distanceSquared)) << 32) | entry;
    };
    // Every candidate in the runs but the one at `self`, the nearest 24 into `best`, nearest first;
    // returns how many there are.
    const auto nearestInReach = [&](const NeighborGrid::Run* runs, int runCount, std::uint32_t self,
                                    const Vec3f& p, std::uint64_t* best) {
        std::size_t found = 0;
        for (int r = 0; r < runCount; ++r) {
            for (std::uint32_t e = runs[r].begin; e < runs[r].end; ++e) {
                if (e == self) continue;
                const std::uint64_t key = nearKey(lengthSquared(grid.positionAt(e) - p), e);
                if (found == kNeighbors && !(key < best[kNeighbors - 1])) continue;
                std::size_t at = found < kNeighbors ? found++ : kNeighbors - 1;
                while (at > 0 && key < best[at - 1]) {
                    best[at] = best[at - 1];
                    --at;
                }
                best[at] = key;
            }
        }
        return found;
    };
    // The squared distance within which each candidate looks first: its 24th distance at the last
    // refresh, with a margin for the steps since.
    constexpr std::size_t kCloseCapacity = 128;
    constexpr float kReachMargin = 1.15f * 1.15f;
    std::vector<float> reach(count, std::numeric_limits<float>::infinity());
    auto refresh = [&] {
        grid.rebuild(positions);
        parallelRange(0, grid.cellCount(), kGrain, [&](std::size_t cellBegin, std::size_t cellEnd) {
            NeighborGrid::Run cellRuns[kMaxRuns], ownRuns[kMaxRuns];
            std::uint64_t close[kCloseCapacity];
            for (std::size_t cellIndex = cellBegin; cellIndex < cellEnd; ++cellIndex) {
                const std::uint32_t first = grid.cellBegin(cellIndex);
                const std::uint32_t last = grid.cellEnd(cellIndex);
                const Vec3f cellPoint = grid.positionAt(first);
                const int cellRunCount = grid.runsNear(cellPoint, 1, cellRuns);
                const auto* nearEdges = grid.edgesNear(cellPoint);
                for (std::uint32_t entry = first; entry < last; ++entry) {
                    const std::uint32_t i = grid.indexAt(entry);
                    const Vec3f p = grid.positionAt(entry);
                    const int rings = std::clamp(
                        static_cast<int>(std::ceil(2.0f * radii[i] / cell - 1e-3f)), 1, maxRings);
                    const NeighborGrid::Run* runs = cellRuns;
                    int runCount = cellRunCount;
                    if (rings != 1) {
                        runCount = grid.runsNear(p, rings, ownRuns);
                        runs = ownRuns;
                    }
                    // The nearest 24 by distance and, between equals, by the order of the scan:
                    // an entry's place in the sorted array is that order. Most candidates keep
                    // their spacing from one refresh to the next, so only those within a little
                    // more than last time's 24th distance are sorted; when fewer than 24 lie
                    // there (and some lie beyond), the search takes every candidate in reach.
                    const float limit = reach[i];
                    std::size_t total = 0;
                    for (int r = 0; r < runCount; ++r)
                        total += runs[r].end - runs[r].begin;
                    --total;  // the candidate itself
                    std::size_t found = 0;
                    std::size_t within = 0;
                    if (total < kCloseCapacity) {
                        // Near or not falls either way: every key is written and only a near one
                        // advances the list, with no branch to mispredict.
                        for (int r = 0; r < runCount; ++r) {
                            for (std::uint32_t e = runs[r].begin; e < runs[r].end; ++e) {
                                if (e == entry) continue;
                                const float d2 = lengthSquared(grid.positionAt(e) - p);
                                close[within] = nearKey(d2, e);
                                within += d2 < limit;
                            }
                        }
                    }
                    if (total < kCloseCapacity && (within >= kNeighbors || within == total)) {
                        found = std::min<std::size_t>(within, kNeighbors);
                        std::sort(close, close + within);
                    } else {
                        found = nearestInReach(runs, runCount, entry, p, close);
                    }
                    reach[i] = found == kNeighbors
                                   ? std::bit_cast<float>(
                                         static_cast<std::uint32_t>(close[kNeighbors - 1] >> 32)) *
                                         kReachMargin
                                   : std::numeric_limits<float>::infinity();
                    std::uint32_t* list = neighbors.data() + i * kNeighbors;
                    for (std::size_t k = 0; k < kNeighbors; ++k)
                        list[k] = k < found ? grid.indexAt(static_cast<std::uint32_t>(close[k]))
                                            : static_cast<std::uint32_t>(i);

                    std::uint32_t edge = kNoEdge;
                    if (nearEdges) {
                        float best = 0.0f;
                        for (const std::uint32_t e : *nearEdges) {
                            const float d2 =
                                lengthSquared(p - closestOnSegment(p, edges[e].a, edges[e].b));
                            if (edge == kNoEdge || d2 < best) {
                                best = d2;
                                edge = e;
                            }
                        }
                    }
                    nearestEdge[i] = edge;
                }
            }
        });
    };

    // Whether a location may hold an even root: density above 0 where mapped, inside the mask.
    auto allowed = [&](const StrandRoot& root, const Vec3f& position) {
        if (mapped && !(settings.mappedDensity(root, position) > 0.0f)) return false;
        return !masked || settings.mask->passes(position);
    };

    const float n = static_cast<float>(count);
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        if (iteration % 4 == 0) refresh();
        const bool last = iteration == kIterations - 1;
        forEach(count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const float ri = radii[i];
                const Vec3f pi = positions[i];
                if (!(ri > 0.0f)) {
                    next[i] = pi;
                    continue;
                }
                Vec3f force;
                const std::uint32_t* list = neighbors.data() + i * kNeighbors;
                for (int k = 0; k < kNeighbors; ++k) {
                    const std::uint32_t j = list[k];
                    if (j == i) continue;
                    // A plain density gives every candidate the same radius: no need to read it.
                    const float rj = mapped ? radii[j] : r0;
                    if (!(rj > 0.0f)) continue;
                    const float s = ri + rj;
                    const Vec3f d = pi - positions[j];
                    const float d2 = lengthSquared(d);
                    // Clearly out of reach without the square root; the margin covers rounding,
                    // so the test below decides every pair near the edge as before.
                    if (d2 >= s * s * 1.00002f) continue;
                    const float dist = std::sqrt(d2);
                    if (!(dist < s)) continue;
                    Vec3f direction;
                    if (dist <= s * 1e-6f) {
                        // Coincident candidates part in a direction given by their indices alone.
                        direction = {unitFloat(i) - 0.5f,
                                     unitFloat(static_cast<std::uint64_t>(n) + kGolden + i) - 0.5f,
                                     0.0f};
                    } else {
                        direction = d / dist;
                    }
                    const float w = 1.0f - dist / s;
                    force += direction * (w * w);
                }
                if (nearestEdge[i] != kNoEdge) {
                    const BorderEdge& edge = edges[nearestEdge[i]];
                    const float e = length(pi - closestOnSegment(pi, edge.a, edge.b));
                    if (e < ri) {
                        const float w = 1.0f - e / ri;
                        force += edge.inward * (w * w);
                    }
                }
                const Vec3f normal = normals[i];
                force = (force - normal * dot(force, normal)) * (0.6f * ri);
                const float h = 0.5f * ri;
                Vec3f moved = pi + force * (h / std::sqrt(lengthSquared(force) + h * h));
                if (last) {
                    // A grid of r / 1024 makes the end independent of float noise at tiny scale.
                    const float snap = ri / 1024.0f;
                    moved = {std::nearbyint(moved.x / snap) * snap,
                             std::nearbyint(moved.y / snap) * snap,
                             std::nearbyint(moved.z / snap) * snap};
                }
                next[i] = moved;
            }
        });
        std::swap(positions, next);

        if (iteration % 4 == 3) {
            // Back onto the surface, where the location may hold an even root.
            forEach(count, [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i) {
                    const float ri = radii[i];
                    if (!(ri > 0.0f)) continue;
                    // The candidate's last location lies on the surface, so the closest point
                    // is no farther than it: searching only that far (with a margin for
                    // rounding) prunes the tree walk and finds the same point, the nearest in
                    // reach with ties going to the lower triangle.
                    const float lastDistance = length(positions[i] - scalp.pointAt(roots[i]));
                    const float reachNow = std::min(4.0f * ri, lastDistance * 1.001f + ri * 1e-4f);
                    const ClosestPoint hit = scalp.closestPoint(positions[i], reachNow);
                    if (hit.found() && allowed(hit.root, hit.point)) {
                        roots[i] = hit.root;
                        positions[i] = hit.point;
                        normals[i] = scalp.normalAt(hit.root);
                    } else {
                        positions[i] = scalp.pointAt(roots[i]);
                    }
                }
            });
        }
    }

    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const bool keep = allowed(roots[i], scalp.pointAt(roots[i]));
            placed.evenRoots[i] = keep ? roots[i] : placed.randomRoots[i];
        }
    });
}

std::vector<StrandRoot> blendRoots(const ScalpMesh& scalp, std::span<const StrandRoot> even,
                                   std::span<const StrandRoot> random, float randomness) {
    std::vector<StrandRoot> blended(even.size());
    const float t = randomness;
    forEach(even.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vec3f e = scalp.pointAt(even[i]), r = scalp.pointAt(random[i]);
            const Vec3f point = e + (r - e) * t;
            const float reach = length(r - e) * 2.0f * std::max(1.0f, t) + 1e-6f;
            const ClosestPoint hit = scalp.closestPoint(point, reach);
            blended[i] = hit.found() ? hit.root : t >= 0.5f ? random[i] : even[i];
        }
    });
    return blended;
}

}  // namespace velmorin
