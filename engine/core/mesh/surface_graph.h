#pragma once
// Distances measured over a scalp rather than through the air: the mesh's points joined by its
// edges. Interpolation weighs guides by how far apart they are on the skin, so that a guide behind
// an ear does not pull strands in front of it, and nothing reaches across to a separate piece.

#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "mesh/scalp_mesh.h"

namespace velmorin {

class SurfaceGraph {
  public:
    struct Link {
        std::uint32_t point = 0;
        float length = 0.0f;
    };
    struct Reached {
        std::uint32_t point = 0;
        float distance = 0.0f;
    };

    explicit SurfaceGraph(const ScalpMesh& mesh);

    std::size_t pointCount() const { return offsets_.size() - 1; }
    // The points that share an edge with `point`, ascending, with the edge lengths.
    std::span<const Link> links(std::uint32_t point) const {
        return {links_.data() + offsets_[point], links_.data() + offsets_[point + 1]};
    }
    // Points joined by edges share a piece; pieces are numbered from 0 in order of their lowest
    // point.
    std::uint32_t pieceOf(std::uint32_t point) const { return pieces_[point]; }
    std::size_t pieceCount() const { return pieceCount_; }

    // Scratch space for walks over one graph, to be kept by one thread for many walks: a walk
    // touches only the points it reaches, so its cost follows the distance, not the mesh's size.
    // It holds the graph by reference: keep the graph's shared pointer for as long as the walk.
    class Walk {
      public:
        explicit Walk(const SurfaceGraph& graph);

        // The points within `maxDistance` along the surface of a location, nearest first, each
        // with its distance (from the location to a corner of its triangle, then along edges).
        // Valid until the next call. A location not on the mesh reaches nothing.
        std::span<const Reached> from(const StrandRoot& source, float maxDistance);
        // The distance along the surface between two locations: straight across when they share a
        // triangle, otherwise through the points between them. Infinity when the path would be
        // longer than `maxDistance` or the two are on different pieces.
        float between(const StrandRoot& a, const StrandRoot& b,
                      float maxDistance = std::numeric_limits<float>::infinity());

      private:
        void start(const StrandRoot& source);
        void offer(std::uint32_t point, float distance);
        // Settles the nearest queued point within maxDistance, appending it to reached_; false
        // when none is left.
        bool settleNext(float maxDistance);

        const SurfaceGraph& graph_;
        std::vector<float> distance_;  // per point: infinity, a queued distance, or -1 if settled
        std::vector<std::uint32_t> touched_;
        std::vector<Reached> reached_;
        std::vector<std::pair<float, std::uint32_t>> heap_;
    };

  private:
    Vec3f locationPoint(const StrandRoot& root) const;

    std::vector<Vec3f> points_;
    std::vector<Triangle> triangles_;
    std::vector<std::uint32_t> offsets_;
    std::vector<Link> links_;
    std::vector<std::uint32_t> pieces_;
    std::size_t pieceCount_ = 0;
};

// The process's graph for a mesh, from a list of recently used ones keyed by the mesh's content.
// Thread safe; the graph is immutable.
std::shared_ptr<const SurfaceGraph> sharedSurfaceGraph(
    const std::shared_ptr<const ScalpMesh>& mesh);

}  // namespace velmorin
