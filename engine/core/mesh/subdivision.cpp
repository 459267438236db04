#include "mesh/subdivision.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "base/hash.h"
#include "base/memory_report.h"
#include "base/parallel.h"

namespace velmorin {
namespace {

constexpr std::size_t kKeptPlans = 8;
constexpr std::size_t kApplyGrain = 2048;

// Faces as vertex loops, one run of `corners` per face.
struct Faces {
    std::vector<std::uint32_t> offsets{0};
    std::vector<std::uint32_t> corners;

    std::size_t count() const { return offsets.size() - 1; }
    void add(std::span<const std::uint32_t> loop) {
        corners.insert(corners.end(), loop.begin(), loop.end());
        offsets.push_back(static_cast<std::uint32_t>(corners.size()));
    }
};

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

Faces cageFaces(const ScalpMesh& cage) {
    Faces faces;
    std::vector<std::uint32_t> loop;
    std::span<const Triangle> triangles(cage.triangles());
    std::size_t first = 0;
    for (std::int32_t count : cage.polygons()) {
        const auto run = triangles.subspan(first, static_cast<std::size_t>(count));
        first += static_cast<std::size_t>(count);
        if (run.empty()) continue;
        if (polygonLoop(run, loop)) {
            faces.add(loop);
            continue;
        }
        // Not a simple polygon: its triangles stand on their own, and degenerate ones drop out.
        for (const Triangle& t : run)
            if (t[0] != t[1] && t[1] != t[2] && t[2] != t[0]) faces.add(t);
    }
    return faces;
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

}  // namespace

SubdivisionPlan::SubdivisionPlan(const ScalpMesh& cage, int levels)
    : levels_(levels), cagePointCount_(cage.pointCount()) {
    if (levels < 1 || levels > 3)
        throw std::invalid_argument("SubdivisionPlan: levels must be 1 to 3");
    Faces faces = cageFaces(cage);
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

        // Each face of k corners becomes k quads: corner, edge point, face point, edge point.
        Faces next;
        next.offsets.reserve(faces.corners.size() + 1);
        next.corners.reserve(faces.corners.size() * 4);
        const auto edgePoint = [&](std::uint32_t corner) {
            return static_cast<std::uint32_t>(vertexCount + table.edgeOfCorner[corner]);
        };
        for (std::uint32_t f = 0; f < faceCount; ++f) {
            const std::uint32_t begin = faces.offsets[f], end = faces.offsets[f + 1];
            const auto facePoint = static_cast<std::uint32_t>(vertexCount + edgeCount + f);
            for (std::uint32_t c = begin; c < end; ++c) {
                const std::uint32_t previous = c == begin ? end - 1 : c - 1;
                const std::uint32_t quad[4] = {faces.corners[c], edgePoint(c), facePoint,
                                               edgePoint(previous)};
                next.add(quad);
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

std::size_t SubdivisionPlan::byteSize() const {
    std::size_t bytes = sizeof(*this) + triangles_.capacity() * sizeof(Triangle) +
                        polygons_.capacity() * sizeof(std::int32_t);
    for (const Level& level : levelTables_)
        bytes += level.offsets.capacity() * 4 + level.sources.capacity() * 4 +
                 level.weights.capacity() * 4;
    return bytes;
}

}  // namespace velmorin
