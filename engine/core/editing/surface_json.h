#pragma once
// Pieces shared by the part and flow documents: a surface location as [face, u, v], a vector as
// [x, y, z], and moving a surface location to a new scalp through a point map.

#include <functional>
#include <optional>

#include <nlohmann/json.hpp>

#include "base/json_numbers.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::detail {

inline nlohmann::ordered_json surfacePointJson(const SurfacePoint& p) {
    return nlohmann::ordered_json::array({p.face, floatForJson(p.u), floatForJson(p.v)});
}

inline std::optional<SurfacePoint> surfacePointFromJson(const nlohmann::ordered_json& json) {
    if (!json.is_array() || json.size() != 3) return std::nullopt;
    const auto face = intFromJson(json[0]);
    const auto u = floatFromJson(json[1]);
    const auto v = floatFromJson(json[2]);
    if (!face || !u || !v) return std::nullopt;
    return SurfacePoint{*face, *u, *v};
}

inline nlohmann::ordered_json vecJson(const Vec3f& v) {
    return nlohmann::ordered_json::array({floatForJson(v.x), floatForJson(v.y), floatForJson(v.z)});
}

inline std::optional<Vec3f> vecFromJson(const nlohmann::ordered_json& json) {
    if (!json.is_array() || json.size() != 3) return std::nullopt;
    const auto x = floatFromJson(json[0]);
    const auto y = floatFromJson(json[1]);
    const auto z = floatFromJson(json[2]);
    if (!x || !y || !z) return std::nullopt;
    return Vec3f{*x, *y, *z};
}

// Whether a location names a triangle of the scalp and lies inside it (within a rounding error).
inline bool isUsableLocation(const ScalpMesh& scalp, const SurfacePoint& p) {
    constexpr float kSlack = 1e-4f;
    return scalp.isOnSurface(p) && p.u >= -kSlack && p.v >= -kSlack && p.u + p.v <= 1.0f + kSlack;
}

// A point map that leaves points where they are when none is given.
inline Vec3f mapPoint(const std::function<Vec3f(const Vec3f&)>& map, const Vec3f& p) {
    return map ? map(p) : p;
}

// Where a location of the old scalp lands on the new one through the map; nothing for a location
// off the old scalp.
inline std::optional<SurfacePoint> transferLocation(const ScalpMesh& oldScalp,
                                                    const ScalpMesh& newScalp,
                                                    const std::function<Vec3f(const Vec3f&)>& map,
                                                    const SurfacePoint& p) {
    if (!isUsableLocation(oldScalp, p)) return std::nullopt;
    const ClosestPoint hit = newScalp.closestPoint(mapPoint(map, oldScalp.pointAt(p)));
    if (!hit.found()) return std::nullopt;
    return hit.root;
}

}  // namespace velmorin::detail
