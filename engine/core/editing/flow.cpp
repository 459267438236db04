#include "editing/flow.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "base/document.h"
#include "base/hash.h"
#include "base/parallel.h"
#include "editing/surface_json.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

constexpr DocumentFormat kFlowData{
    .kind = "flow data",
    .version = 1,
    .invalidJson = "invalid flow data: ",
    .notAnObject = "flow data: expected an object with pins and sinks"};
constexpr int kNearestPins = 6;
constexpr std::size_t kVertexGrain = 1024;
constexpr std::size_t kRootGrain = 4096;

[[noreturn]] void fail(const std::string& text) {
    throw SchemaError("flow data: " + text);
}

std::uint64_t hashVec(std::uint64_t h, const Vec3f& v) {
    return hashCombine(hashCombine(hashCombine(h, floatBits(v.x)), floatBits(v.y)), floatBits(v.z));
}

std::uint64_t hashLocation(std::uint64_t h, std::int32_t face, float u, float v) {
    return hashCombine(hashCombine(hashCombine(h, static_cast<std::uint32_t>(face)), floatBits(u)),
                       floatBits(v));
}

// A small step along which a point map is read as a linear map, from the old scalp's size.
float mapStep(const ScalpMesh& scalp) {
    const auto [low, high] = scalp.bounds();
    const float diagonal = length(high - low);
    return diagonal > 0.0f ? diagonal * 1e-3f : 1e-3f;
}

}  // namespace

float flowSinkAngle(std::string_view kind) {
    if (kind == "whorl") return 70.0f;
    if (kind == "whorlcw") return -70.0f;
    if (kind == "converge") return 180.0f;
    if (kind == "part") return 0.0f;
    throw std::invalid_argument("flow sink: unknown kind '" + std::string(kind) +
                                "' (whorl, whorlcw, converge, part)");
}

std::uint64_t FlowSet::contentHash() const {
    std::uint64_t h = hashCombine(0x466C6F77ull, pins.size());
    for (const FlowPin& pin : pins) {
        h = hashVec(hashLocation(h, pin.face, pin.u, pin.v), pin.direction);
        h = hashCombine(hashCombine(h, static_cast<std::uint32_t>(pin.line)),
                        static_cast<std::uint32_t>(pin.sequence));
    }
    h = hashCombine(h, sinks.size());
    for (const FlowSink& sink : sinks) {
        h = hashLocation(h, sink.face, sink.u, sink.v);
        h = hashCombine(hashCombine(h, floatBits(sink.angle)), floatBits(sink.radius));
    }
    return h;
}

FlowSet FlowSet::fromJson(std::string_view text) {
    FlowSet set;
    const std::optional<Json> opened = openDocument(text, kFlowData);
    if (!opened) return set;
    const Json& doc = *opened;
    auto wholeOrNone = [](const Json& json, const char* key, std::int32_t& out) {
        const auto found = json.find(key);
        if (found == json.end()) return true;
        const auto value = intFromJson(*found);
        if (!value) return false;
        out = *value;
        return true;
    };
    if (const auto pins = doc.find("pins"); pins != doc.end()) {
        if (!pins->is_array()) fail("\"pins\" is not a list of pins");
        for (std::size_t k = 0; k < pins->size(); ++k) {
            const Json& json = (*pins)[k];
            const std::string which = "pin " + std::to_string(k + 1);
            if (!json.is_object()) fail(which + " is not an object");
            const auto face = json.find("face");
            const auto location =
                face == json.end() ? std::nullopt : detail::surfacePointFromJson(*face);
            if (!location) fail(which + " needs \"face\": [face, u, v]");
            const auto dir = json.find("dir");
            const auto direction = dir == json.end() ? std::nullopt : detail::vecFromJson(*dir);
            if (!direction) fail(which + " needs \"dir\": [x, y, z]");
            FlowPin pin{location->face, location->u, location->v, *direction, -1, -1};
            if (!wholeOrNone(json, "line", pin.line))
                fail(which + " has a line that is not a whole number");
            if (!wholeOrNone(json, "seq", pin.sequence))
                fail(which + " has a seq that is not a whole number");
            set.pins.push_back(pin);
        }
    }
    if (const auto sinks = doc.find("sinks"); sinks != doc.end()) {
        if (!sinks->is_array()) fail("\"sinks\" is not a list of sinks");
        for (std::size_t k = 0; k < sinks->size(); ++k) {
            const Json& json = (*sinks)[k];
            const std::string which = "sink " + std::to_string(k + 1);
            if (!json.is_object()) fail(which + " is not an object");
            const auto face = json.find("face");
            const auto location =
                face == json.end() ? std::nullopt : detail::surfacePointFromJson(*face);
            if (!location) fail(which + " needs \"face\": [face, u, v]");
            const auto angle = json.find("angle");
            const auto angleValue = angle == json.end() ? std::nullopt : floatFromJson(*angle);
            if (!angleValue) fail(which + " needs an \"angle\" in degrees");
            const auto radius = json.find("radius");
            const auto radiusValue = radius == json.end() ? std::nullopt : floatFromJson(*radius);
            if (!radiusValue) fail(which + " needs a \"radius\"");
            set.sinks.push_back(
                {location->face, location->u, location->v, *angleValue, *radiusValue});
        }
    }
    return set;
}

std::string FlowSet::toJson() const {
    Json doc = Json::object();
    Json pinList = Json::array();
    for (const FlowPin& pin : pins) {
        Json json = Json::object();
        json["face"] = detail::surfacePointJson(pin.location());
        json["dir"] = detail::vecJson(pin.direction);
        if (pin.line != -1) json["line"] = pin.line;
        if (pin.sequence != -1) json["seq"] = pin.sequence;
        pinList.push_back(std::move(json));
    }
    doc["pins"] = std::move(pinList);
    if (!sinks.empty()) {
        Json sinkList = Json::array();
        for (const FlowSink& sink : sinks) {
            sinkList.push_back({{"face", detail::surfacePointJson(sink.location())},
                                {"angle", floatForJson(sink.angle)},
                                {"radius", floatForJson(sink.radius)}});
        }
        doc["sinks"] = std::move(sinkList);
    }
    doc["version"] = kFlowData.version;
    return doc.dump();
}

FlowSet FlowSet::transferred(const ScalpMesh& oldScalp, const ScalpMesh& newScalp,
                             const std::function<Vec3f(const Vec3f&)>& map) const {
    if (oldScalp.triangleCount() == 0)
        throw std::invalid_argument("transfer: the old scalp has no faces");
    if (newScalp.triangleCount() == 0)
        throw std::invalid_argument("transfer: the new scalp has no faces");
    const float step = mapStep(oldScalp);
    // A world direction at an old point, carried through the map as through its linear part.
    auto carry = [&](const Vec3f& at, const Vec3f& direction) {
        const Vec3f from = detail::mapPoint(map, at);
        return (detail::mapPoint(map, at + direction * step) - from) / step;
    };
    FlowSet result;
    for (const FlowPin& pin : pins) {
        const auto location = detail::transferLocation(oldScalp, newScalp, map, pin.location());
        if (!location) continue;
        const SurfaceFrame oldFrame = oldScalp.frameAt(pin.location());
        const SurfaceFrame newFrame = newScalp.frameAt(*location);
        FlowPin moved = pin;
        moved.face = location->face;
        moved.u = location->u;
        moved.v = location->v;
        Vec3f world = carry(oldFrame.origin, oldFrame.directionToWorld(pin.direction));
        world -= newFrame.normal * dot(world, newFrame.normal);
        if (length(world) >= 1e-8f) moved.direction = newFrame.directionToLocal(normalized(world));
        result.pins.push_back(moved);
    }
    for (const FlowSink& sink : sinks) {
        const auto location = detail::transferLocation(oldScalp, newScalp, map, sink.location());
        if (!location) continue;
        const SurfaceFrame oldFrame = oldScalp.frameAt(sink.location());
        FlowSink moved = sink;
        moved.face = location->face;
        moved.u = location->u;
        moved.v = location->v;
        const float scale = length(carry(oldFrame.origin, oldFrame.tangent));
        if (std::isfinite(scale) && scale > 0.0f) moved.radius = sink.radius * scale;
        result.sinks.push_back(moved);
    }
    return result;
}

FlowPin pinFromSurface(const ScalpMesh& scalp, const SurfacePoint& location,
                       const Vec3f& direction) {
    if (!detail::isUsableLocation(scalp, location)) {
        throw std::invalid_argument("flow pin: not a point on the scalp");
    }
    const SurfaceFrame frame = scalp.frameAt(location);
    const Vec3f tangent = direction - frame.normal * dot(direction, frame.normal);
    if (!(length(tangent) >= 1e-8f)) {
        throw std::invalid_argument("flow pin: the direction is along the surface normal");
    }
    FlowPin pin;
    pin.face = location.face;
    pin.u = location.u;
    pin.v = location.v;
    pin.direction = frame.directionToLocal(normalized(tangent));
    return pin;
}

FlowSources::FlowSources(const FlowSet& set, const ScalpMesh& scalp) {
    std::vector<Vec3f> positions;
    for (const FlowPin& pin : set.pins) {
        if (!detail::isUsableLocation(scalp, pin.location())) continue;
        const SurfaceFrame frame = scalp.frameAt(pin.location());
        positions.push_back(frame.origin);
        pinDirections_.push_back(frame.directionToWorld(pin.direction));
    }
    pinTree_ = PointTree(positions);
    for (const FlowSink& sink : set.sinks) {
        if (!detail::isUsableLocation(scalp, sink.location())) continue;
        const float radians = sink.angle * std::numbers::pi_v<float> / 180.0f;
        sinkCenters_.push_back(scalp.pointAt(sink.location()));
        sinkRadii_.push_back(sink.radius);
        sinkCos_.push_back(std::cos(radians));
        sinkSin_.push_back(std::sin(radians));
    }
}

Vec3f FlowSources::fromPins(const Vec3f& p, const Vec3f& n) const {
    if (pinDirections_.empty()) return {};
    std::uint32_t nearest[kNearestPins];
    float d2[kNearestPins];
    const int found = pinTree_.nearest(p, kNearestPins, nearest, d2);
    const float r2 = std::max(d2[0], 1e-12f);
    Vec3f sum;
    for (int k = 0; k < found; ++k) {
        const Vec3f& d = pinDirections_[nearest[k]];
        const Vec3f t = d - n * dot(d, n);
        const float len = length(t);
        if (len < 1e-6f) continue;
        const float w = r2 / (d2[k] + 0.25f * r2);
        sum += t / len * (w * w);
    }
    const float len = length(sum);
    return len > 1e-12f ? sum / len : Vec3f{};
}

Vec3f FlowSources::directionAt(const Vec3f& p, const Vec3f& n) const {
    const Vec3f pins = fromPins(p, n);
    if (sinkCenters_.empty()) return pins;
    Vec3f turned;
    float total = 0.0f;
    for (std::size_t s = 0; s < sinkCenters_.size(); ++s) {
        Vec3f o = p - sinkCenters_[s];
        o -= n * dot(o, n);
        const float d = length(o);
        const float radius = sinkRadii_[s];
        if (!(d < radius) || d < 1e-6f * radius) continue;
        const float u = d / radius;
        const float f = u < 0.35f ? 1.0f : 1.0f - (u - 0.35f) / 0.65f;
        const float weight = f * f * (3.0f - 2.0f * f);
        if (!(weight > 0.0f)) continue;
        const Vec3f out = o / d;
        turned += (out * sinkCos_[s] + cross(n, out) * sinkSin_[s]) * weight;
        total += weight;
    }
    if (total == 0.0f) return pins;
    const Vec3f blend =
        pins * (1.0f - std::min(total, 1.0f)) + turned * (total > 1.0f ? 1.0f / total : 1.0f);
    const float len = length(blend);
    return len > 1e-12f ? blend / len : pins;
}

std::uint64_t FlowField::keyOf(const FlowSet& set, const ScalpMesh& scalp) {
    return hashCombine(set.contentHash(), scalp.contentSignature());
}

std::shared_ptr<const FlowField> FlowField::build(const FlowSet& set, const ScalpMesh& scalp) {
    auto field = std::make_shared<FlowField>();
    field->sources_ = FlowSources(set, scalp);
    field->key_ = keyOf(set, scalp);
    field->directions_.resize(scalp.pointCount());
    const auto& points = scalp.points();
    const auto normals = scalp.vertexNormals();
    parallelRange(0, scalp.pointCount(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t v = begin; v < end; ++v) {
            field->directions_[v] = field->sources_.directionAt(points[v], normals[v]);
        }
    });
    return field;
}

Vec3f FlowField::at(const ScalpMesh& scalp, const SurfacePoint& root) const {
    return atRoot(scalp, scalp.vertexNormals(), root);
}

Vec3f FlowField::atRoot(const ScalpMesh& scalp, std::span<const Vec3f> normals,
                        const SurfacePoint& root) const {
    if (!detail::isUsableLocation(scalp, root)) return {};
    const Triangle& corners = scalp.triangles()[root.face];
    const float w0 = 1.0f - root.u - root.v;
    // The smooth normal as ScalpMesh::normalAt gives it, from normals fetched once per batch.
    Vec3f normal =
        normals[corners[0]] * w0 + normals[corners[1]] * root.u + normals[corners[2]] * root.v;
    const float normalLength = length(normal);
    normal = normalLength > 1e-20f ? normal / normalLength
                                   : normalized(scalp.faceNormal(root.face), {0.0f, 1.0f, 0.0f});
    if (directions_.size() == scalp.pointCount()) {
        Vec3f blend = directions_[corners[0]] * w0 + directions_[corners[1]] * root.u +
                      directions_[corners[2]] * root.v;
        blend -= normal * dot(blend, normal);
        const float len = length(blend);
        if (len >= 0.5f) return blend / len;
    }
    return sources_.directionAt(scalp.pointAt(root), normal);
}

void FlowField::evaluate(const ScalpMesh& scalp, std::span<const SurfacePoint> roots,
                         std::span<Vec3f> out) const {
    if (roots.size() != out.size()) throw std::invalid_argument("FlowField: one result per root");
    if (scalp.pointCount() != directions_.size()) {
        throw std::invalid_argument("FlowField: built on another scalp");
    }
    parallelRange(0, roots.size(), kRootGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            out[i] = at(scalp, roots[i]);
    });
}

}  // namespace velmorin
