#include "mesh/subdivision.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <numbers>
#include <optional>
#include <stdexcept>
#include <utility>

#include "base/hash.h"
#include "base/memory_report.h"
#include "base/parallel.h"

namespace velmorin {
namespace {

constexpr std::size_t kKeptPlans = 8;
constexpr std::size_t kApplyGrain = 2048;

Uv blendCorners(const Uv& a, const Uv& b, const Uv& c, float wa, float wb, float wc) {
    return {a.u * wa + b.u * wb + c.u * wc, a.v * wa + b.v * wb + c.v * wc};
}

Rgba blendCorners(const Rgba& a, const Rgba& b, const Rgba& c, float wa, float wb, float wc) {
    return {a.r * wa + b.r * wb + c.r * wc, a.g * wa + b.g * wb + c.g * wc,
            a.b * wa + b.b * wb + c.b * wc, a.a * wa + b.a * wb + c.a * wc};
}

using Point2 = std::array<float, 2>;

// Faces as vertex loops, one run of `corners` per face. Each corner also has a position in its
// cage face's own plane (`at`), and each face names the cage face it came from: together they say
// where on the cage a corner lies, which is what values that belong to face corners follow.
struct Faces {
    std::vector<std::uint32_t> offsets{0};
    std::vector<std::uint32_t> corners;
    std::vector<Point2> at;
    std::vector<std::uint32_t> origin;

    std::size_t count() const { return offsets.size() - 1; }
    void add(std::span<const std::uint32_t> loop, std::span<const Point2> positions,
             std::uint32_t cageFace) {
        corners.insert(corners.end(), loop.begin(), loop.end());
        at.insert(at.end(), positions.begin(), positions.end());
        offsets.push_back(static_cast<std::uint32_t>(corners.size()));
        origin.push_back(cageFace);
    }
};

// A face of the cage: the run of the cage's triangles it was made from.
struct CageFace {
    std::uint32_t firstTriangle = 0;
    std::uint32_t triangleCount = 0;
};

// A cage face's corners laid out on a regular polygon: any layout that keeps the polygon convex
// would do, and for a triangle every layout gives the same barycentric coordinates.
std::vector<Point2> regularLayout(std::size_t cornerCount) {
    std::vector<Point2> layout(cornerCount);
    for (std::size_t j = 0; j < cornerCount; ++j) {
        const double angle =
            2.0 * std::numbers::pi * static_cast<double>(j) / static_cast<double>(cornerCount);
        layout[j] = {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
    }
    return layout;
}

// A polygon's vertex loop from its triangles: the directed edges that no other triangle of the
// polygon runs the other way are its border, and they must close into one loop through distinct
// vertices. Returns false where they do not (a polygon with a hole, a bow tie, a repeated corner).
bool polygonLoop(std::span<const Triangle> triangles, std::vector<std::uint32_t>& loop) {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> edges;
    for (const Triangle& t : triangles)
        for (int c = 0; c < 3; ++c)
            edges.emplace_back(t[c], t[(c + 1) % 3]);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> border;
    for (const auto& [a, b] : edges) {
        if (a == b) return false;
        if (std::find(edges.begin(), edges.end(), std::pair{b, a}) == edges.end())
            border.emplace_back(a, b);
    }
    loop.clear();
    if (border.size() < 3) return false;
    std::uint32_t at = border.front().first;
    for (std::size_t step = 0; step < border.size(); ++step) {
        loop.push_back(at);
        auto next = std::find_if(border.begin(), border.end(),
                                 [&](const auto& edge) { return edge.first == at; });
        if (next == border.end()) return false;
        at = next->second;
    }
    if (at != loop.front()) return false;
    std::vector<std::uint32_t> sorted = loop;
    std::sort(sorted.begin(), sorted.end());
    return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

// The cage's faces: one per polygon that is a simple loop whose triangles use only its border's
// vertices, else one per triangle of the polygon (degenerate ones dropped).
Faces cageFaces(const ScalpMesh& cage, std::vector<CageFace>& origins) {
    Faces faces;
    std::vector<std::uint32_t> loop;
    std::span<const Triangle> triangles(cage.triangles());
    const std::vector<Point2> triangleLayout = regularLayout(3);
    std::uint32_t first = 0;
    for (std::int32_t count : cage.polygons()) {
        const auto run = triangles.subspan(first, static_cast<std::size_t>(count));
        const std::uint32_t runFirst = first;
        first += static_cast<std::uint32_t>(count);
        if (run.empty()) continue;
        const bool simple =
            polygonLoop(run, loop) && std::all_of(run.begin(), run.end(), [&](const Triangle& t) {
                return std::all_of(t.begin(), t.end(), [&](std::uint32_t v) {
                    return std::find(loop.begin(), loop.end(), v) != loop.end();
                });
            });
        if (simple) {
            faces.add(loop, regularLayout(loop.size()), static_cast<std::uint32_t>(origins.size()));
            origins.push_back({runFirst, static_cast<std::uint32_t>(count)});
            continue;
        }
        for (std::uint32_t i = 0; i < run.size(); ++i) {
            const Triangle& t = run[i];
            if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0]) continue;
            faces.add(t, triangleLayout, static_cast<std::uint32_t>(origins.size()));
            origins.push_back({runFirst + i, 1});
        }
    }
    return faces;
}

// Barycentric coordinates (u, v) of `p` in the triangle (a, b, c) of a plane.
std::pair<float, float> barycentric2(const Point2& a, const Point2& b, const Point2& c,
                                     const Point2& p) {
    const float e1x = b[0] - a[0], e1y = b[1] - a[1];
    const float e2x = c[0] - a[0], e2y = c[1] - a[1];
    const float px = p[0] - a[0], py = p[1] - a[1];
    const float det = e1x * e2y - e2x * e1y;
    if (std::abs(det) < 1e-20f) return {0.0f, 0.0f};
    return {(px * e2y - e2x * py) / det, (e1x * py - px * e1y) / det};
}

// Where a point of a cage face's plane lies on the cage: on the face's triangle that holds it
// (the one it lies deepest inside, so that points on a shared diagonal pick one), clamped in.
StrandRoot cageLocation(const ScalpMesh& cage, const CageFace& face,
                        std::span<const std::uint32_t> loop, std::span<const Point2> layout,
                        const Point2& p) {
    StrandRoot best;
    float bestDepth = -std::numeric_limits<float>::infinity();
    for (std::uint32_t t = face.firstTriangle; t < face.firstTriangle + face.triangleCount; ++t) {
        const Triangle& triangle = cage.triangles()[t];
        Point2 corners[3];
        for (int c = 0; c < 3; ++c) {
            const auto at = std::find(loop.begin(), loop.end(), triangle[c]) - loop.begin();
            corners[c] = layout[static_cast<std::size_t>(at)];
        }
        const auto [u, v] = barycentric2(corners[0], corners[1], corners[2], p);
        const float depth = std::min({1.0f - u - v, u, v});
        if (depth <= bestDepth) continue;
        bestDepth = depth;
        best = {static_cast<std::int32_t>(t), u, v};
    }
    // Float noise on the face's border: keep the location on the triangle.
    best.u = std::max(best.u, 0.0f);
    best.v = std::max(best.v, 0.0f);
    const float sum = best.u + best.v;
    if (sum > 1.0f) {
        best.u /= sum;
        best.v /= sum;
    }
    return best;
}

struct Edge {
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    std::uint32_t faceCount = 0;
    std::uint32_t faces[2] = {0, 0};
};

// The edges of a face set: a shared id per corner (the edge from the corner to the next one).
struct EdgeTable {
    std::vector<Edge> edges;
    std::vector<std::uint32_t> edgeOfCorner;
    std::vector<std::uint32_t> vertexOffsets;  // per vertex, a run of vertexEdges
    std::vector<std::uint32_t> vertexEdges;
    std::vector<std::uint32_t> faceOffsets;  // per vertex, a run of vertexFaces
    std::vector<std::uint32_t> vertexFaces;  // a face once for each of its corners on the vertex
};

// Rows of `items` grouped by key, as offsets and a flat list.
template <class KeyOf>
void groupBy(std::size_t keyCount, std::size_t itemCount, KeyOf keysOf,
             std::vector<std::uint32_t>& offsets, std::vector<std::uint32_t>& grouped) {
    offsets.assign(keyCount + 1, 0);
    for (std::uint32_t i = 0; i < itemCount; ++i)
        keysOf(i, [&](std::uint32_t k) { ++offsets[k + 1]; });
    for (std::size_t k = 0; k < keyCount; ++k)
        offsets[k + 1] += offsets[k];
    grouped.resize(offsets.back());
    std::vector<std::uint32_t> fill(offsets.begin(), offsets.end() - 1);
    for (std::uint32_t i = 0; i < itemCount; ++i)
        keysOf(i, [&](std::uint32_t k) { grouped[fill[k]++] = i; });
}

EdgeTable makeEdges(const Faces& faces, std::size_t vertexCount) {
    EdgeTable table;
    const std::size_t cornerCount = faces.corners.size();
    std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed(cornerCount);
    std::vector<std::uint32_t> faceOfCorner(cornerCount);
    for (std::size_t f = 0; f < faces.count(); ++f) {
        const std::uint32_t begin = faces.offsets[f], end = faces.offsets[f + 1];
        for (std::uint32_t c = begin; c < end; ++c) {
            const std::uint32_t v = faces.corners[c];
            const std::uint32_t w = faces.corners[c + 1 < end ? c + 1 : begin];
            keyed[c] = {(std::uint64_t{std::min(v, w)} << 32) | std::max(v, w), c};
            faceOfCorner[c] = static_cast<std::uint32_t>(f);
        }
    }
    std::sort(keyed.begin(), keyed.end());
    table.edgeOfCorner.resize(cornerCount);
    for (std::size_t i = 0; i < cornerCount; ++i) {
        if (i == 0 || keyed[i].first != keyed[i - 1].first) {
            Edge edge;
            edge.a = static_cast<std::uint32_t>(keyed[i].first >> 32);
            edge.b = static_cast<std::uint32_t>(keyed[i].first);
            table.edges.push_back(edge);
        }
        Edge& edge = table.edges.back();
        if (edge.faceCount < 2) edge.faces[edge.faceCount] = faceOfCorner[keyed[i].second];
        ++edge.faceCount;
        table.edgeOfCorner[keyed[i].second] = static_cast<std::uint32_t>(table.edges.size() - 1);
    }
    groupBy(
        vertexCount, table.edges.size(),
        [&](std::uint32_t e, auto&& to) {
            to(table.edges[e].a);
            to(table.edges[e].b);
        },
        table.vertexOffsets, table.vertexEdges);
    groupBy(
        vertexCount, faces.count(),
        [&](std::uint32_t f, auto&& to) {
            for (std::uint32_t c = faces.offsets[f]; c < faces.offsets[f + 1]; ++c)
                to(faces.corners[c]);
        },
        table.faceOffsets, table.vertexFaces);
    return table;
}

// Collects one row of weights, merging repeated sources.
class RowBuilder {
  public:
    void add(std::uint32_t source, float weight) { entries_.emplace_back(source, weight); }
    void addFace(const Faces& faces, std::uint32_t face, float weight) {
        const std::uint32_t begin = faces.offsets[face], end = faces.offsets[face + 1];
        const float each = weight / static_cast<float>(end - begin);
        for (std::uint32_t c = begin; c < end; ++c)
            add(faces.corners[c], each);
    }
    void finish(std::vector<std::uint32_t>& sources, std::vector<float>& weights,
                std::vector<std::uint32_t>& offsets) {
        std::sort(entries_.begin(), entries_.end(),
                  [](const auto& x, const auto& y) { return x.first < y.first; });
        for (std::size_t i = 0; i < entries_.size(); ++i) {
            if (i > 0 && entries_[i].first == entries_[i - 1].first) {
                weights.back() += entries_[i].second;
                continue;
            }
            sources.push_back(entries_[i].first);
            weights.push_back(entries_[i].second);
        }
        offsets.push_back(static_cast<std::uint32_t>(sources.size()));
        entries_.clear();
    }

  private:
    std::vector<std::pair<std::uint32_t, float>> entries_;
};

std::uint64_t planKey(const ScalpMesh& cage, int levels) {
    std::uint64_t key = hashCombine(cage.topologySignature(), static_cast<std::uint64_t>(levels));
    // Two meshes of equal triangles may group them into different polygons, and so subdivide
    // differently: the grouping is part of the key.
    key = hashCombine(key, cage.polygons().size());
    for (std::int32_t count : cage.polygons())
        key = hashCombine(key, static_cast<std::uint32_t>(count));
    return key;
}

struct PlanList {
    std::mutex mutex;
    std::list<std::pair<std::uint64_t, std::shared_ptr<const SubdivisionPlan>>> plans;

    MemoryUse use() {
        std::lock_guard lock(mutex);
        MemoryUse use;
        for (const auto& [key, plan] : plans)
            use.bytes += plan->byteSize();
        use.entries = plans.size();
        return use;
    }
};

// The process's plans, reported from their first use on.
PlanList& planList() {
    static PlanList instance;
    static const bool registered = [] {
        registerMemoryReporter("subdivision plans", [] { return instance.use(); });
        return true;
    }();
    (void)registered;
    return instance;
}

// A colour set's colour per vertex, or nothing where two corners of a vertex differ.
std::optional<std::vector<Rgba>> vertexColors(const ScalpMesh& mesh,
                                              const std::vector<Rgba>& corners) {
    std::vector<Rgba> colors(mesh.pointCount());
    std::vector<char> seen(mesh.pointCount(), 0);
    for (std::size_t t = 0; t < mesh.triangleCount(); ++t) {
        for (int c = 0; c < 3; ++c) {
            const std::uint32_t v = mesh.triangles()[t][c];
            const Rgba& color = corners[t * 3 + static_cast<std::size_t>(c)];
            if (!seen[v]) {
                seen[v] = 1;
                colors[v] = color;
            } else if (!(colors[v] == color)) {
                return std::nullopt;
            }
        }
    }
    return colors;
}

// Per-vertex colours smoothed like the points, then handed to every corner of the subdivided
// triangles.
std::vector<Rgba> smoothVertexColors(const SubdivisionPlan& plan, std::span<const Rgba> colors) {
    std::vector<Vec3f> rgb(colors.size());
    std::vector<float> alpha(colors.size());
    for (std::size_t i = 0; i < colors.size(); ++i) {
        rgb[i] = {colors[i].r, colors[i].g, colors[i].b};
        alpha[i] = colors[i].a;
    }
    const std::vector<Vec3f> smoothRgb = plan.applyValues(std::span<const Vec3f>(rgb));
    const std::vector<float> smoothAlpha = plan.applyValues(std::span<const float>(alpha));
    std::vector<Rgba> corners;
    corners.reserve(plan.triangles().size() * 3);
    for (const Triangle& t : plan.triangles())
        for (std::uint32_t v : t)
            corners.push_back({smoothRgb[v].x, smoothRgb[v].y, smoothRgb[v].z, smoothAlpha[v]});
    return corners;
}

// The cage's faces in all and per scalp range, as the subdivision record counts them: polygons
// that have triangles, each in the range of its first triangle.
void countCageFaces(const ScalpMesh& cage, ScalpSubdivision& record) {
    const auto& ranges = cage.scalps();
    record.scalpCageFaceCounts.assign(ranges.size(), 0);
    std::uint64_t first = 0;
    std::size_t range = 0;
    for (const std::int32_t count : cage.polygons()) {
        if (count > 0) {
            ++record.cageFaceCount;
            while (range < ranges.size() && first >= std::uint64_t{ranges[range].firstTriangle} +
                                                         ranges[range].triangleCount)
                ++range;
            if (range < ranges.size()) ++record.scalpCageFaceCounts[range];
        }
        first += static_cast<std::uint64_t>(count);
    }
}

}  // namespace

SubdivisionPlan::SubdivisionPlan(const ScalpMesh& cage, int levels)
    : levels_(levels),
      cagePointCount_(cage.pointCount()),
      cageCornerCount_(cage.triangleCount() * 3) {
    if (levels < 1 || levels > 3)
        throw std::invalid_argument("SubdivisionPlan: levels must be 1 to 3");
    std::vector<CageFace> origins;
    const Faces cage0 = cageFaces(cage, origins);
    Faces faces = cage0;
    std::size_t vertexCount = cagePointCount_;
    RowBuilder row;
    for (int level = 0; level < levels; ++level) {
        const EdgeTable table = makeEdges(faces, vertexCount);
        const std::size_t edgeCount = table.edges.size(), faceCount = faces.count();
        Level& out = levelTables_.emplace_back();
        out.pointCount = vertexCount + edgeCount + faceCount;
        out.offsets.reserve(out.pointCount + 1);
        out.offsets.push_back(0);

        // Moved vertices. Edges with other than two faces are creases (a scalp's border, or where
        // more than two faces meet): a vertex on two of them follows the crease curve, a vertex on
        // one or more than two, or on a single face, stays where it is as a corner.
        for (std::uint32_t v = 0; v < vertexCount; ++v) {
            const auto edges = std::span(table.vertexEdges)
                                   .subspan(table.vertexOffsets[v],
                                            table.vertexOffsets[v + 1] - table.vertexOffsets[v]);
            const auto vertexFaces =
                std::span(table.vertexFaces)
                    .subspan(table.faceOffsets[v], table.faceOffsets[v + 1] - table.faceOffsets[v]);
            const auto faceUse = static_cast<std::uint32_t>(vertexFaces.size());
            std::uint32_t creases[2] = {0, 0};
            std::size_t creaseCount = 0;
            for (std::uint32_t e : edges) {
                if (table.edges[e].faceCount == 2) continue;
                if (creaseCount < 2) creases[creaseCount] = e;
                ++creaseCount;
            }
            const auto other = [&](std::uint32_t e) {
                return table.edges[e].a == v ? table.edges[e].b : table.edges[e].a;
            };
            if (edges.empty() || faceUse == 0) {
                row.add(v, 1.0f);
            } else if (creaseCount == 0) {
                const float n = static_cast<float>(edges.size());
                row.add(v, (n - 2.0f) / n);
                for (std::uint32_t e : edges)
                    row.add(other(e), 1.0f / (n * n));
                // The average of the face points around the vertex, weighted 1 / n.
                const float faceWeight = 1.0f / (n * static_cast<float>(faceUse));
                for (std::uint32_t f : vertexFaces)
                    row.addFace(faces, f, faceWeight);
            } else if (creaseCount == 2 && faceUse > 1) {
                row.add(v, 0.75f);
                row.add(other(creases[0]), 0.125f);
                row.add(other(creases[1]), 0.125f);
            } else {
                row.add(v, 1.0f);
            }
            row.finish(out.sources, out.weights, out.offsets);
        }
        for (const Edge& edge : table.edges) {
            if (edge.faceCount == 2) {
                row.add(edge.a, 0.25f);
                row.add(edge.b, 0.25f);
                row.addFace(faces, edge.faces[0], 0.25f);
                row.addFace(faces, edge.faces[1], 0.25f);
            } else {
                row.add(edge.a, 0.5f);
                row.add(edge.b, 0.5f);
            }
            row.finish(out.sources, out.weights, out.offsets);
        }
        for (std::uint32_t f = 0; f < faceCount; ++f) {
            row.addFace(faces, f, 1.0f);
            row.finish(out.sources, out.weights, out.offsets);
        }

        // Each face of k corners becomes k quads: corner, edge point, face point, edge point. In
        // the cage face's plane the new corners sit at the edges' midpoints and the corners'
        // mean, so that values of face corners are spread linearly over each cage face.
        Faces next;
        next.offsets.reserve(faces.corners.size() + 1);
        next.corners.reserve(faces.corners.size() * 4);
        next.at.reserve(faces.corners.size() * 4);
        next.origin.reserve(faces.corners.size());
        const auto edgePoint = [&](std::uint32_t corner) {
            return static_cast<std::uint32_t>(vertexCount + table.edgeOfCorner[corner]);
        };
        const auto midpoint = [](const Point2& a, const Point2& b) {
            return Point2{0.5f * (a[0] + b[0]), 0.5f * (a[1] + b[1])};
        };
        for (std::uint32_t f = 0; f < faceCount; ++f) {
            const std::uint32_t begin = faces.offsets[f], end = faces.offsets[f + 1];
            const auto facePoint = static_cast<std::uint32_t>(vertexCount + edgeCount + f);
            Point2 centre{0.0f, 0.0f};
            for (std::uint32_t c = begin; c < end; ++c) {
                centre[0] += faces.at[c][0];
                centre[1] += faces.at[c][1];
            }
            centre[0] /= static_cast<float>(end - begin);
            centre[1] /= static_cast<float>(end - begin);
            for (std::uint32_t c = begin; c < end; ++c) {
                const std::uint32_t previous = c == begin ? end - 1 : c - 1;
                const std::uint32_t following = c + 1 == end ? begin : c + 1;
                const std::uint32_t quad[4] = {faces.corners[c], edgePoint(c), facePoint,
                                               edgePoint(previous)};
                const Point2 at[4] = {faces.at[c], midpoint(faces.at[c], faces.at[following]),
                                      centre, midpoint(faces.at[previous], faces.at[c])};
                next.add(quad, at, faces.origin[f]);
            }
        }
        faces = std::move(next);
        vertexCount = out.pointCount;
    }
    triangles_.reserve(faces.count() * 2);
    for (std::size_t f = 0; f < faces.count(); ++f) {
        const std::uint32_t* q = faces.corners.data() + faces.offsets[f];
        triangles_.push_back({q[0], q[1], q[2]});
        triangles_.push_back({q[0], q[2], q[3]});
    }
    polygons_.assign(faces.count(), 2);

    cornerLocations_.resize(triangles_.size() * 3);
    parallelRange(0, faces.count(), kApplyGrain / 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            const std::uint32_t origin = faces.origin[f];
            const std::uint32_t first = cage0.offsets[origin], last = cage0.offsets[origin + 1];
            const auto loop = std::span(cage0.corners).subspan(first, last - first);
            const auto layout = std::span(cage0.at).subspan(first, last - first);
            StrandRoot quad[4];
            for (int c = 0; c < 4; ++c) {
                quad[c] = cageLocation(cage, origins[origin], loop, layout,
                                       faces.at[faces.offsets[f] + static_cast<std::uint32_t>(c)]);
            }
            StrandRoot* out = cornerLocations_.data() + f * 6;
            for (const int c : {0, 1, 2, 0, 2, 3})
                *out++ = quad[c];
        }
    });
}

std::shared_ptr<const SubdivisionPlan> SubdivisionPlan::of(const ScalpMesh& cage, int levels) {
    if (levels < 1 || levels > 3)
        throw std::invalid_argument("SubdivisionPlan: levels must be 1 to 3");
    const std::uint64_t key = planKey(cage, levels);
    PlanList& list = planList();
    std::lock_guard lock(list.mutex);
    for (auto it = list.plans.begin(); it != list.plans.end(); ++it) {
        if (it->first != key) continue;
        list.plans.splice(list.plans.begin(), list.plans, it);
        return it->second;
    }
    // Built with the lock held, so that two callers never build the same plan.
    list.plans.emplace_front(key, std::make_shared<const SubdivisionPlan>(cage, levels));
    if (list.plans.size() > kKeptPlans) list.plans.pop_back();
    return list.plans.front().second;
}

template <class T>
std::vector<T> SubdivisionPlan::run(std::span<const T> values) const {
    std::vector<T> current(values.begin(), values.end()), next;
    for (const Level& level : levelTables_) {
        next.resize(level.pointCount);
        parallelRange(0, level.pointCount, kApplyGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                T sum{};
                for (std::uint32_t k = level.offsets[i]; k < level.offsets[i + 1]; ++k)
                    sum += current[level.sources[k]] * level.weights[k];
                next[i] = sum;
            }
        });
        std::swap(current, next);
    }
    return current;
}

std::vector<Vec3f> SubdivisionPlan::apply(std::span<const Vec3f> cagePoints) const {
    if (cagePoints.size() != cagePointCount_)
        throw std::invalid_argument("SubdivisionPlan: the points are not the cage's");
    return run(cagePoints);
}

std::vector<float> SubdivisionPlan::applyValues(std::span<const float> values) const {
    if (values.size() != cagePointCount_)
        throw std::invalid_argument("SubdivisionPlan: the values are not the cage's vertices'");
    return run(values);
}

std::vector<Vec3f> SubdivisionPlan::applyValues(std::span<const Vec3f> values) const {
    if (values.size() != cagePointCount_)
        throw std::invalid_argument("SubdivisionPlan: the values are not the cage's vertices'");
    return run(values);
}

template <class T>
std::vector<T> SubdivisionPlan::runCorners(std::span<const T> corners) const {
    if (corners.size() != cageCornerCount_)
        throw std::invalid_argument("SubdivisionPlan: the values are not the cage's corners'");
    std::vector<T> out(cornerLocations_.size());
    parallelRange(0, out.size(), kApplyGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const StrandRoot& at = cornerLocations_[i];
            const T* c = corners.data() + static_cast<std::size_t>(at.face) * 3;
            out[i] = blendCorners(c[0], c[1], c[2], 1.0f - at.u - at.v, at.u, at.v);
        }
    });
    return out;
}

std::vector<Uv> SubdivisionPlan::applyCorners(std::span<const Uv> corners) const {
    return runCorners(corners);
}

std::vector<Rgba> SubdivisionPlan::applyCorners(std::span<const Rgba> corners) const {
    return runCorners(corners);
}

std::size_t SubdivisionPlan::byteSize() const {
    std::size_t bytes = sizeof(*this) + triangles_.capacity() * sizeof(Triangle) +
                        polygons_.capacity() * sizeof(std::int32_t) +
                        cornerLocations_.capacity() * sizeof(StrandRoot);
    for (const Level& level : levelTables_)
        bytes += level.offsets.capacity() * 4 + level.sources.capacity() * 4 +
                 level.weights.capacity() * 4;
    return bytes;
}

ScalpMesh subdivideScalp(const ScalpMesh& cage, int levels, std::string from) {
    const auto plan = SubdivisionPlan::of(cage, levels);
    std::vector<Vec3f> points = plan->apply(cage.points());
    std::vector<Vec3f> restPoints;
    if (!cage.restPoints().empty()) restPoints = plan->apply(cage.restPoints());
    std::vector<Triangle> triangles = plan->triangles();
    std::vector<Uv> uvs;
    if (cage.hasUvs()) uvs = plan->applyCorners(std::span<const Uv>(cage.uvs()));
    std::map<std::string, std::vector<Rgba>> colorSets;
    for (const auto& [name, colors] : cage.colorSets()) {
        const auto perVertex = vertexColors(cage, colors);
        colorSets[name] = perVertex ? smoothVertexColors(*plan, *perVertex)
                                    : plan->applyCorners(std::span<const Rgba>(colors));
    }

    // Scalp ranges: the subdivided triangles come in the cage's triangle order, so each range's
    // triangles stay one run; its points (moved cage points, then new ones level by level) are
    // gathered into one run by renumbering.
    std::vector<ScalpRange> ranges;
    const auto& cageRanges = cage.scalps();
    if (!cageRanges.empty()) {
        constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();
        std::vector<std::uint32_t> rangeOfPoint(points.size(), kNone);
        for (std::uint32_t r = 0; r < cageRanges.size(); ++r)
            for (std::uint32_t p = 0; p < cageRanges[r].pointCount; ++p)
                rangeOfPoint[cageRanges[r].firstPoint + p] = r;
        std::vector<std::uint32_t> triangleCounts(cageRanges.size(), 0);
        std::uint32_t range = 0;
        for (std::size_t t = 0; t < triangles.size(); ++t) {
            const auto cageTriangle =
                static_cast<std::uint32_t>(plan->cornerLocations()[t * 3].face);
            while (cageTriangle >=
                   cageRanges[range].firstTriangle + cageRanges[range].triangleCount)
                ++range;
            ++triangleCounts[range];
            for (std::uint32_t v : triangles[t])
                if (rangeOfPoint[v] == kNone) rangeOfPoint[v] = range;
        }
        std::vector<std::uint32_t> firstPoints(cageRanges.size() + 1, 0);
        for (const std::uint32_t r : rangeOfPoint) {
            assert(r != kNone);
            ++firstPoints[r + 1];
        }
        for (std::size_t r = 0; r < cageRanges.size(); ++r)
            firstPoints[r + 1] += firstPoints[r];
        std::vector<std::uint32_t> renumbered(points.size());
        std::vector<std::uint32_t> fill(firstPoints.begin(), firstPoints.end() - 1);
        for (std::size_t p = 0; p < points.size(); ++p)
            renumbered[p] = fill[rangeOfPoint[p]]++;
        const auto reorder = [&](std::vector<Vec3f>& values) {
            std::vector<Vec3f> moved(values.size());
            for (std::size_t p = 0; p < values.size(); ++p)
                moved[renumbered[p]] = values[p];
            values = std::move(moved);
        };
        reorder(points);
        if (!restPoints.empty()) reorder(restPoints);
        for (Triangle& t : triangles)
            for (std::uint32_t& v : t)
                v = renumbered[v];
        std::uint32_t firstTriangle = 0;
        for (std::size_t r = 0; r < cageRanges.size(); ++r) {
            ranges.push_back({cageRanges[r].name, firstTriangle, triangleCounts[r], firstPoints[r],
                              firstPoints[r + 1] - firstPoints[r]});
            firstTriangle += triangleCounts[r];
        }
    }

    ScalpMesh mesh(std::move(points), std::move(triangles));
    mesh.setPolygons(plan->polygons());
    mesh.setUvs(std::move(uvs));
    for (auto& [name, colors] : colorSets)
        mesh.setColorSet(name, std::move(colors));
    mesh.setRestPoints(std::move(restPoints));
    mesh.setScalps(std::move(ranges));
    ScalpSubdivision record;
    record.levels = levels;
    record.from = std::move(from);
    countCageFaces(cage, record);
    mesh.setSubdivision(std::move(record));
    return mesh;
}

}  // namespace velmorin
