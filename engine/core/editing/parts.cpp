#include "editing/parts.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>

#include "base/document.h"
#include "editing/point_tree.h"
#include "editing/surface_json.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;

constexpr DocumentFormat kPartData{
    .kind = "part data",
    .version = 1,
    .invalidJson = "invalid part data: ",
    .notAnObject = "part data: expected an object with parts",
    .newerVersion = "part data version is newer than this Velmorin supports"};

[[noreturn]] void fail(const std::string& text) {
    throw SchemaError("part data: " + text);
}

// A guide as autoParts sees it: where it grows and which way it leans along the scalp.
struct GuideLean {
    Vec3f position;
    Vec3f normal;
    Vec3f direction;  // unit, in the tangent plane
};

std::vector<GuideLean> guideLeans(const ScalpMesh& scalp, const GuideSet& guides) {
    std::vector<GuideLean> leans;
    for (const Guide& guide : guides.guides) {
        if (guide.points.size() < 2 || !detail::isUsableLocation(scalp, guide.root)) continue;
        const Vec3f normal = scalp.normalAt(guide.root);
        // The first few segments tell the lean; the tip may curl back.
        const Vec3f along =
            guide.points[std::min<std::size_t>(3, guide.points.size() - 1)] - guide.points[0];
        const Vec3f tangent = along - normal * dot(along, normal);
        // A guide standing nearly straight up leans nowhere in particular.
        if (!(length(tangent) > 0.05f * length(along))) continue;
        leans.push_back({scalp.pointAt(guide.root), normal, normalized(tangent)});
    }
    return leans;
}

// The direction of greatest spread of the points, by power iteration on their covariance.
Vec3f mainAxis(std::span<const Vec3f> points) {
    Vec3f centre;
    for (const Vec3f& p : points)
        centre += p;
    centre = centre / static_cast<float>(points.size());
    float c[3][3] = {};
    for (const Vec3f& p : points) {
        const Vec3f d = p - centre;
        for (int r = 0; r < 3; ++r) {
            for (int k = 0; k < 3; ++k)
                c[r][k] += d[r] * d[k];
        }
    }
    // Start on the axis of largest spread, so the iteration never starts orthogonal to the answer
    // in the cases that matter.
    Vec3f axis = c[0][0] >= c[1][1] && c[0][0] >= c[2][2] ? Vec3f{1, 0, 0}
                 : c[1][1] >= c[2][2]                     ? Vec3f{0, 1, 0}
                                                          : Vec3f{0, 0, 1};
    for (int step = 0; step < 32; ++step) {
        const Vec3f next{c[0][0] * axis.x + c[0][1] * axis.y + c[0][2] * axis.z,
                         c[1][0] * axis.x + c[1][1] * axis.y + c[1][2] * axis.z,
                         c[2][0] * axis.x + c[2][1] * axis.y + c[2][2] * axis.z};
        if (!(length(next) > 0.0f)) break;
        axis = normalized(next);
    }
    return axis;
}

std::size_t findRoot(std::vector<std::size_t>& parent, std::size_t i) {
    while (parent[i] != i) {
        parent[i] = parent[parent[i]];
        i = parent[i];
    }
    return i;
}

}  // namespace

const PartLines* PartSet::find(std::string_view name) const {
    for (const PartLines& part : parts_) {
        if (part.name == name) return &part;
    }
    return nullptr;
}

std::string PartSet::nextName() const {
    for (std::size_t n = 1;; ++n) {
        std::string name = "part" + std::to_string(n);
        if (find(name) == nullptr) return name;
    }
}

const PartLines& PartSet::add(PartLines part) {
    if (part.name.empty()) part.name = nextName();
    for (PartLines& existing : parts_) {
        if (existing.name == part.name) {
            existing = std::move(part);
            return existing;
        }
    }
    parts_.push_back(std::move(part));
    return parts_.back();
}

bool PartSet::remove(std::string_view name) {
    const auto found = std::find_if(parts_.begin(), parts_.end(),
                                    [&](const PartLines& part) { return part.name == name; });
    if (found == parts_.end()) return false;
    parts_.erase(found);
    return true;
}

const PartLines& PartSet::addPart(const std::string& name, std::span<const Vec3f> stroke,
                                  const ScalpMesh& scalp, const PartOptions& options) {
    if (stroke.size() < 2) throw std::invalid_argument("a part needs a longer stroke");
    PartLines part{name, {}, false};
    for (const Vec3f& point : stroke) {
        const ClosestPoint hit = scalp.closestPoint(point, options.maxDistance);
        if (hit.found()) part.points.push_back(hit.root);
    }
    if (part.points.size() < 2) {
        throw std::invalid_argument("a part needs at least two points on the scalp");
    }
    return add(std::move(part));
}

std::size_t PartSet::autoParts(const ScalpMesh& scalp, const GuideSet& guides,
                               const AutoPartOptions& options) {
    const std::vector<GuideLean> leans = guideLeans(scalp, guides);
    std::erase_if(parts_, [](const PartLines& part) { return part.isAuto; });
    if (leans.size() < 2) return 0;

    std::vector<Vec3f> roots(leans.size());
    for (std::size_t i = 0; i < leans.size(); ++i)
        roots[i] = leans[i].position;
    const PointTree tree(roots);
    const int k = std::clamp(options.neighbors + 1, 2, PointTree::kMaxNearest);

    // The typical spacing of the roots: the median distance to the nearest other root.
    std::vector<float> nearestDistances;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> pairs;
    std::uint32_t found[PointTree::kMaxNearest];
    float d2[PointTree::kMaxNearest];
    for (std::size_t i = 0; i < leans.size(); ++i) {
        const int count = tree.nearest(roots[i], k, found, d2);
        bool hasNearest = false;
        for (int n = 0; n < count; ++n) {
            if (found[n] == i) continue;
            if (!hasNearest) {
                nearestDistances.push_back(std::sqrt(d2[n]));
                hasNearest = true;
            }
            pairs.emplace_back(std::min<std::uint32_t>(found[n], static_cast<std::uint32_t>(i)),
                               std::max<std::uint32_t>(found[n], static_cast<std::uint32_t>(i)));
        }
    }
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());
    std::nth_element(nearestDistances.begin(),
                     nearestDistances.begin() + nearestDistances.size() / 2,
                     nearestDistances.end());
    const float spacing = nearestDistances[nearestDistances.size() / 2];
    const float link = options.linkDistance > 0.0f ? options.linkDistance : 1.5f * spacing;

    // Places where two neighbours lean away from each other along the line between them.
    std::vector<Vec3f> places;
    std::vector<SurfacePoint> placeRoots;
    for (const auto& [i, j] : pairs) {
        const GuideLean& a = leans[i];
        const GuideLean& b = leans[j];
        const Vec3f normal = normalized(a.normal + b.normal, a.normal);
        Vec3f between = b.position - a.position;
        between -= normal * dot(between, normal);
        if (!(length(between) > 0.0f)) continue;
        between = normalized(between);
        if (dot(a.direction, between) > -options.lean || dot(b.direction, between) < options.lean)
            continue;
        const ClosestPoint hit = scalp.closestPoint((a.position + b.position) * 0.5f);
        if (!hit.found()) continue;
        places.push_back(hit.point);
        placeRoots.push_back(hit.root);
    }
    if (places.empty()) return 0;

    // Places within the link distance of each other make one part.
    const PointTree placeTree(places);
    std::vector<std::size_t> parent(places.size());
    std::iota(parent.begin(), parent.end(), std::size_t{0});
    std::vector<std::uint32_t> near;
    for (std::size_t i = 0; i < places.size(); ++i) {
        near.clear();
        placeTree.within(places[i], link, near);
        for (const std::uint32_t j : near) {
            const std::size_t ri = findRoot(parent, i);
            const std::size_t rj = findRoot(parent, j);
            if (ri != rj) parent[std::max(ri, rj)] = std::min(ri, rj);
        }
    }
    std::vector<std::vector<std::uint32_t>> groups(places.size());
    for (std::size_t i = 0; i < places.size(); ++i) {
        groups[findRoot(parent, i)].push_back(static_cast<std::uint32_t>(i));
    }

    std::size_t made = 0;
    for (const std::vector<std::uint32_t>& group : groups) {
        if (group.size() < static_cast<std::size_t>(std::max(options.minPoints, 2))) continue;
        std::vector<Vec3f> points;
        for (const std::uint32_t i : group)
            points.push_back(places[i]);
        const Vec3f axis = mainAxis(points);
        std::vector<std::uint32_t> order = group;
        std::sort(order.begin(), order.end(), [&](std::uint32_t x, std::uint32_t y) {
            const float px = dot(places[x], axis);
            const float py = dot(places[y], axis);
            return px != py ? px < py : x < y;
        });
        // Places closer than half the spacing along the line say nothing new.
        PartLines part{nextName(), {}, true};
        Vec3f last;
        for (const std::uint32_t i : order) {
            if (!part.points.empty() && length(places[i] - last) < 0.5f * spacing) continue;
            part.points.push_back(placeRoots[i]);
            last = places[i];
        }
        if (part.points.size() < 2) continue;
        add(std::move(part));
        ++made;
    }
    return made;
}

PartSet PartSet::fromJson(std::string_view text) {
    PartSet set;
    const std::optional<Json> opened = openDocument(text, kPartData);
    if (!opened) return set;
    const Json& doc = *opened;
    const auto parts = doc.find("parts");
    if (parts == doc.end()) return set;
    if (!parts->is_array()) fail("\"parts\" is not a list of parts");
    for (std::size_t k = 0; k < parts->size(); ++k) {
        const Json& json = (*parts)[k];
        const std::string which = "part " + std::to_string(k + 1);
        if (!json.is_object()) fail(which + " is not an object");
        const auto name = json.find("name");
        if (name == json.end() || !name->is_string() ||
            name->get_ref<const std::string&>().empty()) {
            fail(which + " needs a name");
        }
        PartLines part{name->get<std::string>(), {}, false};
        if (set.find(part.name) != nullptr) fail("two parts are named '" + part.name + "'");
        if (const auto points = json.find("points"); points != json.end()) {
            if (!points->is_array())
                fail("part '" + part.name + "' has points that are not [face, u, v]");
            for (const Json& point : *points) {
                const auto location = detail::surfacePointFromJson(point);
                if (!location)
                    fail("part '" + part.name + "' has points that are not [face, u, v]");
                part.points.push_back(*location);
            }
        }
        if (const auto isAuto = json.find("auto"); isAuto != json.end()) {
            if (!isAuto->is_boolean())
                fail("part '" + part.name + "' has an \"auto\" that is not true or false");
            part.isAuto = isAuto->get<bool>();
        }
        set.parts_.push_back(std::move(part));
    }
    return set;
}

std::string PartSet::toJson() const {
    Json list = Json::array();
    for (const PartLines& part : parts_) {
        Json points = Json::array();
        for (const SurfacePoint& point : part.points)
            points.push_back(detail::surfacePointJson(point));
        Json json = {{"name", part.name}, {"points", std::move(points)}};
        if (part.isAuto) json["auto"] = true;
        list.push_back(std::move(json));
    }
    Json doc = Json::object();
    doc["parts"] = std::move(list);
    doc["version"] = kPartData.version;
    return doc.dump();
}

PartSet PartSet::transferred(const ScalpMesh& oldScalp, const ScalpMesh& newScalp,
                             const std::function<Vec3f(const Vec3f&)>& map) const {
    if (oldScalp.triangleCount() == 0)
        throw std::invalid_argument("transfer: the old scalp has no faces");
    if (newScalp.triangleCount() == 0)
        throw std::invalid_argument("transfer: the new scalp has no faces");
    PartSet result;
    for (const PartLines& part : parts_) {
        PartLines moved{part.name, {}, part.isAuto};
        for (const SurfacePoint& point : part.points) {
            if (const auto location = detail::transferLocation(oldScalp, newScalp, map, point)) {
                moved.points.push_back(*location);
            }
        }
        result.parts_.push_back(std::move(moved));
    }
    return result;
}

}  // namespace velmorin
