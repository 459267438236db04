#include "ops/interpolate_follow.h"

#include <algorithm>
#include <cmath>

namespace velmorin {
namespace {

// One thread's walk and scratch, kept across strands and runs: a walk is sized to the mesh, far
// too much to make per strand. The graph is held weakly; a new one starts a new walk.
struct FollowScratch {
    std::weak_ptr<const SurfaceGraph> graph;
    const SurfaceGraph* walked = nullptr;
    std::unique_ptr<SurfaceGraph::Walk> walk;
    std::vector<float> best;  // per guide, infinity where not reached
    std::vector<std::uint32_t> touched;
    std::vector<std::pair<float, std::uint32_t>> found;
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

}  // namespace

std::shared_ptr<const SurfaceGuides> makeSurfaceGuides(
    const std::shared_ptr<const ScalpMesh>& scalp, std::span<const Guide* const> guides,
    std::span<const StrandRoot> strandLocations) {
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
    return made;
}

int nearestOnSurface(const SurfaceGuides& surface, const BindingInputs& inputs, std::size_t s,
                     std::int32_t label, int k, std::uint32_t* guides, float* d2,
                     int straightCount) {
    const StrandRoot& location = surface.strandLocations[s];
    if (!surface.scalp->isOnSurface(location) || !surface.graph) return straightCount;
    FollowScratch& scratch = scratchFor(surface);
    const auto allowed = [&](std::uint32_t g) {
        return label < 0 || inputs.guideLabels.empty() || inputs.guideLabels[g] == label;
    };
    const Vec3f root = surface.scalp->pointAt(location);
    const auto& points = surface.scalp->points();
    const auto& triangles = surface.scalp->triangles();
    const auto offer = [&](std::uint32_t g, float distance) {
        if (scratch.best[g] == kInfiniteDistance) scratch.touched.push_back(g);
        scratch.best[g] = std::min(scratch.best[g], distance);
    };

    // A path over the surface is never shorter than the straight line, so the walk starts at the
    // straight distance of the farthest guide wanted, and doubles until k guides lie within it.
    float radius = straightCount > 0 ? std::sqrt(d2[straightCount - 1]) : 0.0f;
    radius = powerOfTwoAbove(std::max(radius * 1.25f, 1e-6f));
    const std::size_t pieceSize = surface.pieceSizes[surface.graph->pieceOf(
        triangles[static_cast<std::size_t>(location.face)][0])];
    for (;;) {
        for (const std::uint32_t g : scratch.touched)
            scratch.best[g] = kInfiniteDistance;
        scratch.touched.clear();
        scratch.found.clear();
        // Guides on the strand's own triangle are straight across it.
        for (const std::uint32_t corner : triangles[static_cast<std::size_t>(location.face)])
            for (std::uint32_t i = surface.cornerStart[corner]; i < surface.cornerStart[corner + 1];
                 ++i) {
                const std::uint32_t g = surface.cornerGuides[i];
                if (surface.guideFaces[g] == location.face && allowed(g))
                    offer(g, length(surface.guidePoints[g] - root));
            }
        const auto reached = scratch.walk->from(location, radius);
        for (const SurfaceGraph::Reached& at : reached)
            for (std::uint32_t i = surface.cornerStart[at.point];
                 i < surface.cornerStart[at.point + 1]; ++i) {
                const std::uint32_t g = surface.cornerGuides[i];
                if (allowed(g))
                    offer(g, at.distance + length(surface.guidePoints[g] - points[at.point]));
            }
        // Guides rooted off the scalp keep their straight-line distance.
        for (int i = 0; i < straightCount; ++i)
            if (surface.guideFaces[guides[i]] < 0 && allowed(guides[i]))
                offer(guides[i], std::sqrt(d2[i]));
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
    const int count = std::min(k, static_cast<int>(scratch.found.size()));
    for (int i = 0; i < count; ++i) {
        guides[i] = scratch.found[static_cast<std::size_t>(i)].second;
        const float distance = scratch.found[static_cast<std::size_t>(i)].first;
        d2[i] = distance * distance;
    }
    return count;
}

}  // namespace velmorin
