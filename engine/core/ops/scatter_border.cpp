#include "ops/scatter_border.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/scatter_cells.h"

namespace velmorin::scatter {
namespace {

// Border edges handed to a thread at once while the edge grid is built: a scalp has a few hundred,
// each over a few hundred cells.
constexpr std::size_t kEdgeGrain = 16;

}  // namespace

// A border edge of the scalp and the direction, in its triangle's plane, that points inside.
struct BorderEdge {
    Vec3f a, b;
    Vec3f inward;
};

namespace {

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

void addBorderPush(Vec3f& force, const Vec3f& p, float r, const BorderEdge& edge) {
    const float e = length(p - closestOnSegment(p, edge.a, edge.b));
    if (!(e < r)) return;
    const float w = 1.0f - e / r;
    force += edge.inward * (w * w);
}

}  // namespace

// The border edges near each cell of a grid: each edge joins every cell within two cells of its
// samples, so a point finds in its own cell's list every edge within two cells of it.
class EdgeGrid {
  public:
    EdgeGrid(float cell, std::span<const BorderEdge> edges) : inverse_(1.0f / cell) {
        // Every (cell, edge) pair once, sorted: each cell's edges then lie together and ascend.
        // Samples half a cell apart mostly repeat the cell of the one before, which adds nothing,
        // and the blocks round neighbouring samples mostly overlap: each edge's cells are made
        // unique among themselves first, edges in parallel, which leaves a third as many pairs
        // to sort.
        std::vector<std::vector<std::uint64_t>> cellsOf(edges.size());
        parallelRange(0, edges.size(), kEdgeGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t e = begin; e < end; ++e) {
                std::vector<std::uint64_t>& keys = cellsOf[e];
                const float len = length(edges[e].b - edges[e].a);
                const int steps = std::max(1, static_cast<int>(std::ceil(len * inverse_ * 2.0f)));
                std::uint64_t last = ~std::uint64_t{0};
                for (int s = 0; s <= steps; ++s) {
                    const Vec3f p = lerp(edges[e].a, edges[e].b, static_cast<float>(s) / steps);
                    const CellCoord c = cellOf(p, inverse_);
                    const std::uint64_t key = cellKey(c.x, c.y, c.z);
                    if (key == last) continue;
                    last = key;
                    for (int dz = -2; dz <= 2; ++dz)
                        for (int dy = -2; dy <= 2; ++dy)
                            for (int dx = -2; dx <= 2; ++dx)
                                keys.push_back(cellKey(c.x + dx, c.y + dy, c.z + dz));
                }
                std::sort(keys.begin(), keys.end());
                keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
            }
        });
        // Cell keys wrap far out; where every edge lies well inside, a key gives back its cell.
        blocksUsable_ = std::all_of(edges.begin(), edges.end(), [&](const BorderEdge& edge) {
            return unwrapped(cellOf(edge.a, inverse_)) && unwrapped(cellOf(edge.b, inverse_));
        });
        std::vector<std::pair<std::uint64_t, std::uint32_t>> pairs;
        for (std::uint32_t e = 0; e < cellsOf.size(); ++e)
            for (const std::uint64_t key : cellsOf[e])
                pairs.emplace_back(key, e);
        std::sort(pairs.begin(), pairs.end());
        std::size_t cells = 0;
        for (std::size_t k = 0; k < pairs.size(); ++k)
            cells += k == 0 || pairs[k].first != pairs[k - 1].first ? 1 : 0;
        // Flattened into one open-addressed table at most half full, whose probes run over a few
        // adjacent slots: every candidate looks its cell up at every refresh.
        std::size_t size = 16;
        while (size < 2 * cells)
            size *= 2;
        slots_.assign(size, Slot{kEmpty, 0, 0});
        marks_.assign(kMarkWords, 0);
        blockMarks_.assign(kBlockMarkWords, 0);
        edges_.resize(pairs.size());
        for (std::size_t first = 0; first < pairs.size();) {
            const std::uint64_t key = pairs[first].first;
            std::size_t last = first;
            for (; last < pairs.size() && pairs[last].first == key; ++last)
                edges_[last] = pairs[last].second;
            const std::uint64_t h = mix64(key);
            marks_[(h >> 6) & (kMarkWords - 1)] |= std::uint64_t{1} << (h & 63);
            if (blocksUsable_) {
                const auto coordinate = [&](int shift) {
                    return static_cast<std::int64_t>((key >> shift) & kKeyMask) - kKeyBias;
                };
                const std::uint64_t b =
                    blockHash(coordinate(0) >> kBlockShift, coordinate(21) >> kBlockShift,
                              coordinate(42) >> kBlockShift);
                blockMarks_[(b >> 6) & (kBlockMarkWords - 1)] |= std::uint64_t{1} << (b & 63);
            }
            std::size_t at = static_cast<std::size_t>(h) & (size - 1);
            while (slots_[at].key != kEmpty)
                at = (at + 1) & (size - 1);
            slots_[at] = {key, static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last)};
            first = last;
        }
    }

    // The key of the cell round a position, and the edges near that cell (none for none).
    std::uint64_t keyOf(const Vec3f& position) const {
        const CellCoord c = cellOf(position, inverse_);
        return cellKey(c.x, c.y, c.z);
    }
    std::span<const std::uint32_t> near(std::uint64_t key) const {
        // Most cells lie far from the border: a bit per hashed cell, in a table small enough to
        // stay in cache, answers most of them without a probe of the larger table.
        const std::uint64_t h = mix64(key);
        if (!((marks_[(h >> 6) & (kMarkWords - 1)] >> (h & 63)) & 1u)) return {};
        std::size_t at = static_cast<std::size_t>(h) & (slots_.size() - 1);
        while (slots_[at].key != kEmpty) {
            if (slots_[at].key == key)
                return std::span(edges_).subspan(slots_[at].begin,
                                                 slots_[at].end - slots_[at].begin);
            at = (at + 1) & (slots_.size() - 1);
        }
        return {};
    }

    // Whether every point of the box [lo, hi] lies in a cell that lists no edge. A box over more
    // than a few thousand cells is not looked through and counts as near.
    bool noneWithin(const Vec3f& lo, const Vec3f& hi) const {
        const CellCoord a = cellOf(lo, inverse_), b = cellOf(hi, inverse_);
        constexpr std::int64_t kMostCells = 4096;
        if (!(a.x <= b.x && a.y <= b.y && a.z <= b.z) ||
            (b.x - a.x + 1) * (b.y - a.y + 1) * (b.z - a.z + 1) > kMostCells)
            return false;
        // Most boxes lie far from the border: a few blocks of cells, none holding a cell that
        // lists an edge, answer them without a look at each cell.
        if (blocksUsable_ && unwrapped(a) && unwrapped(b) && blocksClear(a, b)) return true;
        for (std::int64_t z = a.z; z <= b.z; ++z)
            for (std::int64_t y = a.y; y <= b.y; ++y)
                for (std::int64_t x = a.x; x <= b.x; ++x)
                    if (!near(cellKey(x, y, z)).empty()) return false;
        return true;
    }

  private:
    // No cell has this key: keys use 63 bits.
    static constexpr std::uint64_t kEmpty = ~std::uint64_t{0};
    struct Slot {
        std::uint64_t key;
        std::uint32_t begin, end;  // the cell's edges in edges_
    };
    static constexpr std::size_t kMarkWords = std::size_t{1} << 14;  // 128 KiB of bits
    // Blocks of four cells a side, a bit per hashed block that holds a cell listing an edge.
    static constexpr int kBlockShift = 2;
    static constexpr std::size_t kBlockMarkWords = std::size_t{1} << 11;  // 16 KiB of bits
    // The packing of cellKey, undone for the blocks.
    static constexpr std::int64_t kKeyBias = std::int64_t{1} << 20;
    static constexpr std::uint64_t kKeyMask = (std::uint64_t{1} << 21) - 1;
    static std::uint64_t blockHash(std::int64_t x, std::int64_t y, std::int64_t z) {
        return mix64(cellKey(x, y, z));
    }
    // Whether a cell lies where its key is its own: a block's cells then have keys apart from
    // every other block's cells.
    static bool unwrapped(const CellCoord& c) {
        constexpr std::int64_t kFar = kKeyBias - 8;
        return std::abs(c.x) < kFar && std::abs(c.y) < kFar && std::abs(c.z) < kFar;
    }
    // Whether no block over the cells a to b is marked.
    bool blocksClear(const CellCoord& a, const CellCoord& b) const {
        for (std::int64_t z = a.z >> kBlockShift; z <= b.z >> kBlockShift; ++z)
            for (std::int64_t y = a.y >> kBlockShift; y <= b.y >> kBlockShift; ++y)
                for (std::int64_t x = a.x >> kBlockShift; x <= b.x >> kBlockShift; ++x) {
                    const std::uint64_t h = blockHash(x, y, z);
                    if ((blockMarks_[(h >> 6) & (kBlockMarkWords - 1)] >> (h & 63)) & 1u)
                        return false;
                }
        return true;
    }
    float inverse_;
    bool blocksUsable_ = false;
    std::vector<std::uint64_t> marks_;
    std::vector<std::uint64_t> blockMarks_;
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> edges_;
};

// Per triangle, a box round it in which no point finds a border edge in its cell of the edge grid;
// an empty box (lo above hi) where the triangle lies near the border. At every refresh of the
// nearest edges a candidate stands on its triangle (it was just projected there, or has not moved
// yet), so most candidates answer "none" from their triangle's box, without looking up their cell.
// The box is only a shortcut: a point inside it has no edge in its cell whatever its triangle.
struct ClearBox {
    Vec3f lo{1.0f, 1.0f, 1.0f}, hi{0.0f, 0.0f, 0.0f};
    bool holds(const Vec3f& p) const {
        return p.x >= lo.x && p.x <= hi.x && p.y >= lo.y && p.y <= hi.y && p.z >= lo.z &&
               p.z <= hi.z;
    }
};

namespace {

std::vector<ClearBox> clearBoxes(const ScalpMesh& scalp, const EdgeGrid& grid) {
    const auto& points = scalp.points();
    const auto& triangles = scalp.triangles();
    std::vector<ClearBox> boxes(triangles.size());
    forEach(triangles.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t t = begin; t < end; ++t) {
            Vec3f lo = points[triangles[t][0]], hi = lo;
            for (int c = 1; c < 3; ++c) {
                const Vec3f q = points[triangles[t][c]];
                lo = {std::min(lo.x, q.x), std::min(lo.y, q.y), std::min(lo.z, q.z)};
                hi = {std::max(hi.x, q.x), std::max(hi.y, q.y), std::max(hi.z, q.z)};
            }
            // A margin for the rounding of points computed on the triangle.
            const float size = std::max({std::abs(lo.x), std::abs(lo.y), std::abs(lo.z),
                                         std::abs(hi.x), std::abs(hi.y), std::abs(hi.z)});
            const Vec3f margin = Vec3f{1.0f, 1.0f, 1.0f} * (size * 1e-5f);
            lo = lo - margin;
            hi = hi + margin;
            if (grid.noneWithin(lo, hi)) boxes[t] = {lo, hi};
        }
    });
    return boxes;
}

}  // namespace

BorderEdges::BorderEdges(const ScalpMesh& scalp, float cell)
    : edges_(borderEdges(scalp)),
      grid_(std::make_unique<const EdgeGrid>(cell, edges_)),
      clear_(clearBoxes(scalp, *grid_)) {}

BorderEdges::~BorderEdges() = default;

void BorderEdges::nearest(std::span<const Vec3f> positions, std::span<const StrandRoot> roots,
                          std::uint32_t* nearest) const {
    forEach(positions.size(), [&](std::size_t begin, std::size_t end) {
        // Candidates in grid order mostly share their cell with the one before.
        std::uint64_t lastKey = ~std::uint64_t{0};
        std::span<const std::uint32_t> nearEdges;
        for (std::size_t i = begin; i < end; ++i) {
            const Vec3f p = positions[i];
            std::uint32_t edge = kNone;
            if (const auto face = static_cast<std::size_t>(roots[i].face);
                face < clear_.size() && clear_[face].holds(p)) {
                nearest[i] = kNone;
                continue;
            }
            if (const std::uint64_t key = grid_->keyOf(p); key != lastKey) {
                lastKey = key;
                nearEdges = grid_->near(key);
            }
            float best = 0.0f;
            for (const std::uint32_t e : nearEdges) {
                const float d2 = lengthSquared(p - closestOnSegment(p, edges_[e].a, edges_[e].b));
                if (edge == kNone || d2 < best) {
                    best = d2;
                    edge = e;
                }
            }
            nearest[i] = edge;
        }
    });
}

void BorderEdges::addPush(Vec3f& force, const Vec3f& p, float r, std::uint32_t edge) const {
    addBorderPush(force, p, r, edges_[edge]);
}

}  // namespace velmorin::scatter
