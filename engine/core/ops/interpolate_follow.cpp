#include "ops/interpolate_follow.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/guide_root_grid.h"

namespace velmorin {
namespace {

using Found = std::pair<float, std::uint32_t>;  // distance, guide

// One thread's walk and scratch, kept across strands and runs: a walk is sized to the mesh, far
// too much to make per strand. The graph is held weakly; a new one starts a new walk.
struct FollowScratch {
    std::weak_ptr<const SurfaceGraph> graph;
    const SurfaceGraph* walked = nullptr;
    std::unique_ptr<SurfaceGraph::Walk> walk;
    std::vector<float> best;  // per guide, infinity where not reached
    std::vector<std::uint32_t> touched;
    std::vector<Found> found;
};

FollowScratch& scratchFor(const SurfaceGuides& surface) {
    thread_local FollowScratch scratch;
    const auto held = scratch.graph.lock();
    if (held != surface.graph || scratch.walked != surface.graph.get()) {
        // The old walk refers to its own graph: drop it before anything else.
        scratch.walk.reset();
        scratch.graph = surface.graph;
        scratch.walked = surface.graph.get();
        scratch.walk = std::make_unique<SurfaceGraph::Walk>(*surface.graph);
    }
    if (scratch.best.size() != surface.guideFaces.size()) {
        scratch.best.assign(surface.guideFaces.size(), kInfiniteDistance);
        scratch.touched.clear();
    }
    return scratch;
}

float powerOfTwoAbove(float value) {
    return std::exp2(std::ceil(std::log2(std::max(value, 1e-20f))));
}

// The up to k guides of region `label` (-1: any) nearest along the surface to `location` (on the
// scalp, at `at`), into scratch.found sorted by distance then guide. `extra` are guides rooted off
// the scalp with their straight-line distances. The walk starts at `radius` and doubles until k
// guides lie within it or it has covered the location's piece. Returns the last radius.
float walkNearest(const SurfaceGuides& surface, const BindingInputs* inputs, FollowScratch& scratch,
                  const StrandRoot& location, const Vec3f& at, std::int32_t label, int k,
                  std::span<const Found> extra, float radius) {
    const auto allowed = [&](std::uint32_t g) {
        return label < 0 || !inputs || inputs->guideLabels.empty() ||
               inputs->guideLabels[g] == label;
    };
    const auto& points = surface.scalp->points();
    const Triangle& face = surface.scalp->triangles()[static_cast<std::size_t>(location.face)];
    const auto offer = [&](std::uint32_t g, float distance) {
        if (scratch.best[g] == kInfiniteDistance) scratch.touched.push_back(g);
        scratch.best[g] = std::min(scratch.best[g], distance);
    };
    const std::size_t pieceSize = surface.pieceSizes[surface.graph->pieceOf(face[0])];
    for (;;) {
        for (const std::uint32_t g : scratch.touched)
            scratch.best[g] = kInfiniteDistance;
        scratch.touched.clear();
        scratch.found.clear();
        // Guides on the location's own triangle are straight across it.
        for (const std::uint32_t corner : face)
            for (std::uint32_t i = surface.cornerStart[corner]; i < surface.cornerStart[corner + 1];
                 ++i) {
                const std::uint32_t g = surface.cornerGuides[i];
                if (surface.guideFaces[g] == location.face && allowed(g))
                    offer(g, length(surface.guidePoints[g] - at));
            }
        const auto reached = scratch.walk->from(location, radius);
        for (const SurfaceGraph::Reached& point : reached)
            for (std::uint32_t i = surface.cornerStart[point.point];
                 i < surface.cornerStart[point.point + 1]; ++i) {
                const std::uint32_t g = surface.cornerGuides[i];
                if (allowed(g))
                    offer(g, point.distance + length(surface.guidePoints[g] - points[point.point]));
            }
        for (const Found& off : extra)
            if (allowed(off.second)) offer(off.second, off.first);
        const bool whole = reached.size() >= pieceSize || radius >= surface.greatestRadius;
        int within = 0;
        for (const std::uint32_t g : scratch.touched) {
            const float distance = scratch.best[g];
            // Past the radius a guide may be nearer by a corner not yet reached, unless the walk
            // has covered its whole piece.
            if (distance <= radius || whole) {
                scratch.found.emplace_back(distance, g);
                within += distance <= radius ? 1 : 0;
            }
        }
        if (within >= k || whole) break;
        radius *= 2.0f;
    }
    std::sort(scratch.found.begin(), scratch.found.end());
    if (scratch.found.size() > static_cast<std::size_t>(k))
        scratch.found.resize(static_cast<std::size_t>(k));
    return radius;
}

// A location at scalp point `point`: a corner of a triangle it belongs to.
bool pointLocation(const ScalpMesh& scalp, const SurfaceTopology& topology, std::uint32_t point,
                   StrandRoot& location) {
    const auto triangles = topology.vertexTriangles(point);
    if (triangles.empty()) return false;
    const std::uint32_t t = triangles[0];
    const Triangle& corners = scalp.triangles()[t];
    location.face = static_cast<std::int32_t>(t);
    location.u = corners[1] == point ? 1.0f : 0.0f;
    location.v = corners[2] == point ? 1.0f : 0.0f;
    return true;
}

std::shared_ptr<const SurfaceTable> buildTable(const SurfaceGuides& surface, std::size_t k) {
    auto table = std::make_shared<SurfaceTable>();
    table->perPoint = k;
    const std::size_t pointCount = surface.scalp->pointCount();
    std::vector<std::uint32_t> counts(pointCount, 0);
    std::vector<std::uint32_t> guides(pointCount * k);
    std::vector<float> distances(pointCount * k);
    const auto topology = surface.scalp->topology();
    const auto [lo, hi] = surface.scalp->bounds();
    const float firstRadius = length(hi - lo) / 64.0f;
    parallelRange(0, pointCount, 256, [&](std::size_t begin, std::size_t end) {
        FollowScratch& scratch = scratchFor(surface);
        float radius = firstRadius;
        for (std::size_t p = begin; p < end; ++p) {
            StrandRoot location;
            if (!pointLocation(*surface.scalp, *topology, static_cast<std::uint32_t>(p), location))
                continue;
            // Neighbouring points need about the same radius; the answer doesn't depend on it.
            radius = walkNearest(surface, nullptr, scratch, location, surface.scalp->points()[p],
                                 -1, static_cast<int>(k), {}, powerOfTwoAbove(radius * 0.5f));
            counts[p] = static_cast<std::uint32_t>(scratch.found.size());
            for (std::size_t i = 0; i < scratch.found.size(); ++i) {
                distances[p * k + i] = scratch.found[i].first;
                guides[p * k + i] = scratch.found[i].second;
            }
        }
    });
    table->start.assign(pointCount + 1, 0);
    for (std::size_t p = 0; p < pointCount; ++p)
        table->start[p + 1] = table->start[p] + counts[p];
    table->guides.reserve(table->start.back());
    table->distances.reserve(table->start.back());
    for (std::size_t p = 0; p < pointCount; ++p) {
        table->guides.insert(table->guides.end(), guides.begin() + p * k,
                             guides.begin() + p * k + counts[p]);
        table->distances.insert(table->distances.end(), distances.begin() + p * k,
                                distances.begin() + p * k + counts[p]);
    }
    return table;
}

// The last table made, for as long as its scalp, guide roots and count stay.
std::shared_ptr<const SurfaceTable> sharedTable(const SurfaceGuides& surface, std::size_t k) {
    std::uint64_t key = hashCombine(surface.scalp->contentSignature(), k);
    for (std::size_t g = 0; g < surface.guideFaces.size(); ++g) {
        key = hashCombine(key, static_cast<std::uint32_t>(surface.guideFaces[g]));
        for (const float f :
             {surface.guidePoints[g].x, surface.guidePoints[g].y, surface.guidePoints[g].z})
            key = hashCombine(key, floatBits(f));
    }
    static std::mutex mutex;
    static std::uint64_t lastKey = 0;
    static std::shared_ptr<const SurfaceTable> last;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (last && lastKey == key) return last;
    }
    auto table = buildTable(surface, k);
    std::lock_guard<std::mutex> lock(mutex);
    lastKey = key;
    last = table;
    return table;
}

}  // namespace

std::shared_ptr<const SurfaceGuides> makeSurfaceGuides(
    const std::shared_ptr<const ScalpMesh>& scalp, std::span<const Guide* const> guides,
    std::span<const StrandRoot> strandLocations, std::size_t nearestCount) {
    auto made = std::make_shared<SurfaceGuides>();
    SurfaceGuides& surface = *made;
    surface.scalp = scalp;
    surface.graph = sharedSurfaceGraph(scalp);
    surface.strandLocations = strandLocations;
    const std::size_t guideCount = guides.size();
    surface.guideFaces.assign(guideCount, -1);
    surface.guidePoints.assign(guideCount, Vec3f{});
    const std::size_t pointCount = scalp->pointCount();
    surface.cornerStart.assign(pointCount + 1, 0);
    const auto& triangles = scalp->triangles();
    for (std::size_t g = 0; g < guideCount; ++g) {
        if (!scalp->isOnSurface(guides[g]->root)) continue;
        surface.guideFaces[g] = guides[g]->root.face;
        surface.guidePoints[g] = scalp->pointAt(guides[g]->root);
        for (const std::uint32_t corner : triangles[static_cast<std::size_t>(guides[g]->root.face)])
            ++surface.cornerStart[corner + 1];
    }
    for (std::size_t p = 0; p < pointCount; ++p)
        surface.cornerStart[p + 1] += surface.cornerStart[p];
    surface.cornerGuides.resize(surface.cornerStart[pointCount]);
    std::vector<std::uint32_t> filled(surface.cornerStart.begin(), surface.cornerStart.end() - 1);
    for (std::size_t g = 0; g < guideCount; ++g) {
        if (surface.guideFaces[g] < 0) continue;
        for (const std::uint32_t corner :
             triangles[static_cast<std::size_t>(surface.guideFaces[g])])
            surface.cornerGuides[filled[corner]++] = static_cast<std::uint32_t>(g);
    }
    surface.pieceSizes.assign(surface.graph->pieceCount(), 0);
    for (std::size_t p = 0; p < pointCount; ++p)
        ++surface.pieceSizes[surface.graph->pieceOf(static_cast<std::uint32_t>(p))];
    const auto [lo, hi] = scalp->bounds();
    // No walk is longer than every edge end to end; this bound is far shorter on any real scalp
    // and only ends the doubling where a piece has been walked whole already.
    float edges = 0.0f;
    for (const Triangle& t : triangles)
        for (int e = 0; e < 3; ++e)
            edges += length(scalp->points()[t[e]] - scalp->points()[t[(e + 1) % 3]]);
    surface.greatestRadius = std::max(edges, 4.0f * length(hi - lo));
    if (nearestCount > 0) surface.table = sharedTable(surface, nearestCount);
    return made;
}

int nearestOnSurface(const SurfaceGuides& surface, const BindingInputs& inputs, std::size_t s,
                     std::int32_t label, int k, std::uint32_t* guides, float* d2,
                     int straightCount) {
    const StrandRoot& location = surface.strandLocations[s];
    if (!surface.scalp->isOnSurface(location) || !surface.graph) return straightCount;
    FollowScratch& scratch = scratchFor(surface);
    const Vec3f root = surface.scalp->pointAt(location);
    // Guides rooted off the scalp keep their straight-line distance.
    Found extra[GuideRootGrid::kMaxNearest];
    int extraCount = 0;
    for (int i = 0; i < straightCount; ++i)
        if (surface.guideFaces[guides[i]] < 0) extra[extraCount++] = {std::sqrt(d2[i]), guides[i]};

    const SurfaceTable* table = surface.table.get();
    if (label < 0 && table && static_cast<std::size_t>(k) <= table->perPoint) {
        // Read off the corners: each corner's nearest, by the way across to it.
        scratch.found.clear();
        const Triangle& face = surface.scalp->triangles()[static_cast<std::size_t>(location.face)];
        for (const std::uint32_t corner : face) {
            const float across = length(surface.scalp->points()[corner] - root);
            for (std::uint32_t i = table->start[corner]; i < table->start[corner + 1]; ++i)
                scratch.found.emplace_back(across + table->distances[i], table->guides[i]);
            // Guides on the strand's own triangle are straight across it.
            for (std::uint32_t i = surface.cornerStart[corner]; i < surface.cornerStart[corner + 1];
                 ++i) {
                const std::uint32_t g = surface.cornerGuides[i];
                if (surface.guideFaces[g] == location.face)
                    scratch.found.emplace_back(length(surface.guidePoints[g] - root), g);
            }
        }
        scratch.found.insert(scratch.found.end(), extra, extra + extraCount);
        std::sort(scratch.found.begin(), scratch.found.end());
        int count = 0;
        for (const Found& entry : scratch.found) {
            if (count == k) break;
            if (std::find(guides, guides + count, entry.second) != guides + count) continue;
            guides[count] = entry.second;
            d2[count] = entry.first * entry.first;
            ++count;
        }
        return count;
    }

    // A path over the surface is never shorter than the straight line, so the walk starts at the
    // straight distance of the farthest guide wanted.
    const float radius = straightCount > 0 ? std::sqrt(d2[straightCount - 1]) : 0.0f;
    walkNearest(surface, &inputs, scratch, location, root, label, k,
                std::span<const Found>(extra, static_cast<std::size_t>(extraCount)),
                powerOfTwoAbove(std::max(radius * 1.25f, 1e-6f)));
    const int count = static_cast<int>(scratch.found.size());
    for (int i = 0; i < count; ++i) {
        guides[i] = scratch.found[static_cast<std::size_t>(i)].second;
        const float distance = scratch.found[static_cast<std::size_t>(i)].first;
        d2[i] = distance * distance;
    }
    return count;
}

}  // namespace velmorin
