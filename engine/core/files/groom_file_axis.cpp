// Turning a groom from one up axis to the other, so that a groom made in a Z-up scene stands up in
// a Y-up one: every world position and world direction the groom holds turns, and nothing else.
#include <algorithm>
#include <limits>
#include <map>

#include "base/document.h"
#include "files/groom_file_internal.h"
#include "graph/registry.h"

namespace velmorin {
namespace {

using Json = detail::GroomJson;

// The magnitude of the lowest i64, which only an unsigned JSON number holds.
constexpr std::uint64_t kInt64Magnitude = std::uint64_t{1} << 63;

std::shared_ptr<const ScalpMesh> turnMesh(const std::shared_ptr<const ScalpMesh>& mesh, bool toZ) {
    if (!mesh) return mesh;
    auto turned = std::make_shared<ScalpMesh>(*mesh);
    const auto turn = [&](const std::vector<Vec3f>& points) {
        std::vector<Vec3f> out(points.size());
        for (std::size_t i = 0; i < points.size(); ++i)
            out[i] = detail::turnToAxis(points[i], toZ);
        return out;
    };
    turned->setPoints(turn(mesh->points()));
    if (!mesh->restPoints().empty()) turned->setRestPoints(turn(mesh->restPoints()));
    return turned;
}

// Whether a JSON number negates to a number of its own kind (an integer stays an integer), so that
// a turn there and back gives the same text.
bool negatesInKind(const Json& value) {
    if (value.is_number_unsigned()) return value.get<std::uint64_t>() <= kInt64Magnitude;
    if (value.is_number_integer()) return true;
    return value.is_number_float();
}

Json negated(const Json& value) {
    if (value.is_number_unsigned()) {
        const auto n = value.get<std::uint64_t>();
        if (n == kInt64Magnitude) return std::numeric_limits<std::int64_t>::min();
        return -static_cast<std::int64_t>(n);
    }
    if (value.is_number_integer()) {
        const auto n = value.get<std::int64_t>();
        if (n == std::numeric_limits<std::int64_t>::min()) return kInt64Magnitude;
        return -n;
    }
    return -value.get<double>();
}

// Turns the three numbers from `at` in a JSON array; anything but numbers stays as it is.
void turnTriple(Json& array, std::size_t at, bool toZ) {
    Json& y = array[at + 1];
    Json& z = array[at + 2];
    // Anything but numbers, or an integer too large to negate, is not a vector: it stays.
    if (!array[at].is_number() || !negatesInKind(y) || !negatesInKind(z)) return;
    Json newY = toZ ? negated(z) : z;
    Json newZ = toZ ? y : negated(y);
    y = std::move(newY);
    z = std::move(newZ);
}

// Turns a JSON [x, y, z] in place; anything else (a mapped value, say) stays as it is.
void turnVectorJson(Json& json, bool toZ) {
    if (json.is_array() && json.size() == 3) turnTriple(json, 0, toZ);
}

// Guide data keeps world points flat, three numbers a point.
void turnFlatPoints(Json& json, bool toZ) {
    if (!json.is_array() || json.size() % 3 != 0) return;
    for (std::size_t i = 0; i < json.size(); i += 3)
        turnTriple(json, i, toZ);
}

std::string turnHierarchy(const std::string& text, bool toZ) {
    if (isBlankDocument(text)) return text;
    Json doc;
    try {
        doc = Json::parse(text);
    } catch (const Json::exception& error) {
        throw GroomFileError(std::string("groom file: invalid hierarchy JSON: ") + error.what());
    }
    if (!doc.is_object()) return text;
    const auto guides = doc.find("guides");
    if (guides == doc.end() || !guides->is_array()) return text;
    for (Json& guide : *guides) {
        if (!guide.is_object()) continue;
        if (auto points = guide.find("points"); points != guide.end()) {
            turnFlatPoints(*points, toZ);
        }
        if (auto up = guide.find("frameUp"); up != guide.end()) turnVectorJson(*up, toZ);
    }
    return doc.dump();
}

// The params of each operator type that hold a world direction, found once per type.
class DirectionParams {
  public:
    bool isDirection(const std::string& type, const std::string& param) {
        if (param == "worldDirection") return true;
        auto found = byType_.find(type);
        if (found == byType_.end()) {
            std::vector<std::string> names;
            const OperatorRegistry& registry = OperatorRegistry::instance();
            if (registry.contains(type)) {
                const auto op = registry.create(type);
                for (const auto& [name, spec] : op->paramSet.specs()) {
                    if (spec.worldDirection) names.push_back(name);
                }
            }
            found = byType_.emplace(type, std::move(names)).first;
        }
        return std::find(found->second.begin(), found->second.end(), param) != found->second.end();
    }

  private:
    std::map<std::string, std::vector<std::string>> byType_;
};

// A Mirror's plane: the axis turns with the world, and where the new axis runs against the old one
// the sides and the plane's offset change sign, so that "positive" keeps its world meaning.
void turnMirror(Json& params, bool toZ) {
    const auto axis = params.find("axis");
    if (axis == params.end() || !axis->is_string()) return;
    const std::string from = axis->get<std::string>();
    const std::string changes = toZ ? "z" : "y";  // the axis whose turn flips the sign
    if (from != "y" && from != "z") return;
    *axis = from == "y" ? "z" : "y";
    if (from != changes) return;
    // A side the Mirror would refuse anyway is left as it stands, for its message to name.
    const auto side = params.find("side");
    const bool positive = side == params.end() || *side == "positive";
    if (positive || *side == "negative") params["side"] = positive ? "negative" : "positive";
    if (auto offset = params.find("offset"); offset != params.end() && negatesInKind(*offset)) {
        *offset = negated(*offset);
    }
}

void turnGraph(Json& graph, bool toZ, DirectionParams& directions) {
    if (!graph.is_object()) return;
    const auto nodes = graph.find("nodes");
    if (nodes == graph.end() || !nodes->is_array()) return;
    for (Json& node : *nodes) {
        if (!node.is_object()) continue;
        const auto type = node.find("type");
        const std::string typeName =
            type != node.end() && type->is_string() ? type->get<std::string>() : std::string();
        if (auto params = node.find("params"); params != node.end() && params->is_object()) {
            for (auto& [name, value] : params->items()) {
                if (directions.isDirection(typeName, name)) turnVectorJson(value, toZ);
            }
            if (typeName == "Mirror") turnMirror(*params, toZ);
        }
        if (auto definition = node.find("definition");
            definition != node.end() && definition->is_object()) {
            if (auto inner = definition->find("graph"); inner != definition->end()) {
                turnGraph(*inner, toZ, directions);
            }
        }
    }
}

bool blankGraph(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '{' || c == '}';
    });
}

std::string turnGraphText(const std::string& text, bool toZ) {
    if (blankGraph(text)) return text;
    Json doc = Json::parse(text, nullptr, false);
    if (doc.is_discarded()) throw GroomFileError("groom file: invalid graph JSON");
    DirectionParams directions;
    turnGraph(doc, toZ, directions);
    return doc.dump(2);
}

}  // namespace

void convertUpAxis(GroomFile& file, std::string_view targetAxis) {
    detail::checkUpAxis(targetAxis);
    detail::checkUpAxis(file.upAxis);
    if (file.upAxis == targetAxis) return;
    const bool toZ = targetAxis == "Z";
    // Everything is turned on a copy that takes the file's place only when all of it turned.
    GroomFile turned = file;
    turned.graph = turnGraphText(file.graph, toZ);
    turned.hierarchy = turnHierarchy(file.hierarchy, toZ);
    turned.scalp = turnMesh(file.scalp, toZ);
    for (NamedScalp& scalp : turned.scalps)
        scalp.mesh = turnMesh(scalp.mesh, toZ);
    for (auto& [name, mesh] : turned.colliders)
        mesh = turnMesh(mesh, toZ);
    for (MarkerPair& pair : turned.transferMarkers) {
        for (MarkerSide* side : {&pair.from, &pair.to}) {
            if (!side->onSurface) side->point = detail::turnToAxis(side->point, toZ);
        }
    }
    for (auto& [name, prototype] : turned.prototypes) {
        for (Vec3f& p : prototype.points)
            p = detail::turnToAxis(p, toZ);
        for (Vec3f& n : prototype.normals)
            n = detail::turnToAxis(n, toZ);
    }
    if (file.guides) {
        auto guides = std::make_shared<std::vector<ExportedGuide>>(*file.guides);
        for (ExportedGuide& guide : *guides) {
            for (Vec3f& p : guide.points)
                p = detail::turnToAxis(p, toZ);
        }
        turned.guides = std::move(guides);
    }
    turned.upAxis = std::string(targetAxis);
    file = std::move(turned);
}

}  // namespace velmorin
