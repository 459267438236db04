#pragma once
// Hand-drawn direction over the scalp. A FlowSet holds pins (a direction at a point, drawn in
// strokes) and sinks (whorls, crowns, partings: hair turning around a centre); FlowField turns them
// into a unit tangent at every scalp vertex, which guides and the Flow operator follow.
//
// The direction at a position p with unit normal n is made in two stages. Pins: the six nearest
// pins (equal distances: the earlier pin), each pin's direction flattened into the tangent plane
// and weighted by (r2 / (d2 + r2 / 4))^2 with r2 the nearest squared distance. Sinks: each sink
// within its radius turns the outward direction from its centre by its angle about n, with a
// weight that is 1 out to 0.35 of the radius and eases to 0 at the radius; their sum replaces the
// pins' direction in proportion to the total weight (wholly from a total of 1).

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "editing/point_tree.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

struct FlowPin {
    std::int32_t face = -1;
    float u = 0.0f;
    float v = 0.0f;
    Vec3f direction;             // tangent, in the frame of the surface there (ScalpMesh::frameAt)
    std::int32_t line = -1;      // the drawn stroke it came from; -1 for none
    std::int32_t sequence = -1;  // its order along the stroke; -1 for none

    SurfacePoint location() const { return {face, u, v}; }
    bool operator==(const FlowPin&) const = default;
};

struct FlowSink {
    std::int32_t face = -1;
    float u = 0.0f;
    float v = 0.0f;
    float angle = 0.0f;   // degrees: the hair's turn from the outward direction
    float radius = 1.0f;  // reach, in world units

    SurfacePoint location() const { return {face, u, v}; }
    bool operator==(const FlowSink&) const = default;
};

// A sink kind's angle: "whorl" 70, "whorlcw" -70, "converge" 180, "part" 0. Throws
// std::invalid_argument "flow sink: unknown kind '<kind>' (whorl, whorlcw, converge, part)".
float flowSinkAngle(std::string_view kind);

struct FlowSet {
    std::vector<FlowPin> pins;
    std::vector<FlowSink> sinks;

    bool empty() const { return pins.empty() && sinks.empty(); }
    // A hash of everything the set holds.
    std::uint64_t contentHash() const;

    // Reads flow data; empty text is an empty set. Throws SchemaError "invalid flow data: ..." for
    // text that is not JSON, "flow data: ..." for a document of the wrong shape, and the shared
    // version messages.
    static FlowSet fromJson(std::string_view text);
    // {"pins": [{"face": [face, u, v], "dir": [x, y, z], "line": n, "seq": n}, ...],
    //  "sinks": [{"face": [face, u, v], "angle": a, "radius": r}, ...], "version": 1}, leaving out
    // "sinks" when there are none and "line" and "seq" when -1.
    std::string toJson() const;

    // The set moved to a new scalp: each pin and sink goes through `map` (identity when empty) from
    // its point on the old scalp and binds to the closest point of the new one; directions follow
    // the map and are kept in the new surface's frame, and radii scale with it. Pins and sinks off
    // the old scalp are dropped. Throws std::invalid_argument "transfer: the old scalp has no
    // faces" and "transfer: the new scalp has no faces".
    FlowSet transferred(const ScalpMesh& oldScalp, const ScalpMesh& newScalp,
                        const std::function<Vec3f(const Vec3f&)>& map = {}) const;

    bool operator==(const FlowSet&) const = default;
};

// A pin at a surface location along `direction` (world), flattened into the tangent plane and made
// unit length. Throws std::invalid_argument "flow pin: not a point on the scalp" and "flow pin:
// the direction is along the surface normal" (a tangent part under 1e-8 long).
FlowPin pinFromSurface(const ScalpMesh& scalp, const SurfacePoint& location,
                       const Vec3f& direction);

// A flow set's pins and sinks placed on a scalp, ready for the two-stage law.
class FlowSources {
  public:
    FlowSources() = default;
    // Pins and sinks whose faces are not on the scalp are left out.
    FlowSources(const FlowSet& set, const ScalpMesh& scalp);

    // The direction at `position` with unit normal `normal`: unit length, or zero where nothing
    // reaches.
    Vec3f directionAt(const Vec3f& position, const Vec3f& normal) const;

    std::size_t pinCount() const { return pinDirections_.size(); }
    std::size_t sinkCount() const { return sinkCenters_.size(); }

  private:
    Vec3f fromPins(const Vec3f& position, const Vec3f& normal) const;

    PointTree pinTree_;
    std::vector<Vec3f> pinDirections_;  // world, as stored
    std::vector<Vec3f> sinkCenters_;
    std::vector<float> sinkRadii_;
    std::vector<float> sinkCos_;
    std::vector<float> sinkSin_;
};

// The flow of a set over a scalp: a unit tangent per vertex (zero where nothing reaches). Shared
// by pointer to const; rebuilt when the set or the scalp changes (see key). Declared a struct, as
// the graph's Value names it, though it keeps its data to itself.
struct FlowField {
  public:
    static std::shared_ptr<const FlowField> build(const FlowSet& set, const ScalpMesh& scalp);

    // One direction per scalp vertex.
    std::span<const Vec3f> directions() const { return directions_; }
    // A hash of the set's content and the scalp's; equal keys need no rebuild.
    std::uint64_t key() const { return key_; }
    static std::uint64_t keyOf(const FlowSet& set, const ScalpMesh& scalp);
    const FlowSources& sources() const { return sources_; }

    // The direction at a root of the scalp the field was built on: its face's vertex directions
    // blended by the barycentric weights and flattened into the tangent plane; when that is
    // shorter than 0.5 (the vertices disagree, or hold nothing) the two-stage law runs at the root
    // itself. Unit length, or zero where nothing reaches; zero for a root that is off the scalp.
    Vec3f at(const ScalpMesh& scalp, const SurfacePoint& root) const;
    // `at` for many roots in parallel. Throws std::invalid_argument "FlowField: one result per
    // root" when the spans differ in size, "FlowField: built on another scalp" when the scalp's
    // vertex count is not the field's.
    void evaluate(const ScalpMesh& scalp, std::span<const SurfacePoint> roots,
                  std::span<Vec3f> out) const;

  private:
    Vec3f atRoot(const ScalpMesh& scalp, std::span<const Vec3f> normals,
                 const SurfacePoint& root) const;

    std::vector<Vec3f> directions_;
    FlowSources sources_;
    std::uint64_t key_ = 0;
};

}  // namespace velmorin
