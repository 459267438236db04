#include "fields/field_map.h"

#include <cmath>
#include <cstdio>
#include <limits>

#include "base/hash.h"
#include "base/parallel.h"
#include "expr/binding.h"
#include "expr/expression.h"
#include "fields/field_scene.h"
#include "graph/errors.h"
#include "maps/texture.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

float luminance(const Vec3f& c) {
    return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z;
}

float pick(const Rgba& c, int component) {
    switch (component) {
        case 0:
            return c.r;
        case 1:
            return c.g;
        case 2:
            return c.b;
        case 3:
            return c.a;
        default:
            return luminance({c.r, c.g, c.b});
    }
}

// The raw colour of a coloured source at a root; black where the root is not on the scalp.
Rgba colorAt(const FieldMap& map, const StrandRoot& root) {
    const ScalpMesh* scalp = map.scalp.get();
    if (!scalp || root.face < 0 || static_cast<std::size_t>(root.face) >= scalp->triangleCount())
        return {0.0f, 0.0f, 0.0f, 0.0f};
    const float w0 = 1.0f - root.u - root.v;
    switch (map.kind) {
        case FieldMapKind::Texture: {
            const Uv uv = scalp->uvAt(root);
            return map.texture->sample(uv.u, uv.v);
        }
        case FieldMapKind::Vertices: {
            const Triangle& t = scalp->triangles()[static_cast<std::size_t>(root.face)];
            const ScalpMap& m = *map.vertexMap;
            const std::size_t n = static_cast<std::size_t>(m.channels);
            float c[4] = {0.0f, 0.0f, 0.0f, 1.0f};
            for (std::size_t k = 0; k < n; ++k)
                c[k] = m.values[t[0] * n + k] * w0 + m.values[t[1] * n + k] * root.u +
                       m.values[t[2] * n + k] * root.v;
            if (n == 1) return {c[0], c[0], c[0], 1.0f};
            return {c[0], c[1], c[2], c[3]};
        }
        case FieldMapKind::ColorSet: {
            const std::size_t base = static_cast<std::size_t>(root.face) * 3;
            const std::vector<Rgba>& colors = *map.colorSet;
            const auto blend = [&](float Rgba::*channel) {
                return colors[base].*channel * w0 + colors[base + 1].*channel * root.u +
                       colors[base + 2].*channel * root.v;
            };
            return {blend(&Rgba::r), blend(&Rgba::g), blend(&Rgba::b), blend(&Rgba::a)};
        }
        default:
            return {0.0f, 0.0f, 0.0f, 0.0f};
    }
}

GraphError fault(const FieldMap& map, const std::string& what) {
    return GraphError(map.owner + ": " + what);
}

// The guide layer's value on one guide: its value per guide, or the root's value per point.
bool guideLayerValue(const Guide& guide, const std::string& layer, float& out) {
    if (const auto found = guide.attributes.find(layer); found != guide.attributes.end()) {
        out = found->second;
        return true;
    }
    if (const auto found = guide.pointAttributes.find(layer);
        found != guide.pointAttributes.end() && !found->second.empty()) {
        out = found->second.front();
        return true;
    }
    return false;
}

// Finds what the map reads in the scene and, with strands, samples it once per strand (and per
// point where the source varies along strands). Throws GraphError in the owner's words.
void resolve(FieldMap& map, const StrandSet* strands, const FieldScene& scene) {
    map.scalp = scene.scalp;
    switch (map.kind) {
        case FieldMapKind::Texture:
            if (!map.scalp || !map.scalp->hasUvs())
                throw fault(map, "a texture map needs a scalp with UVs");
            if (!map.texture) {
                try {
                    map.texture = Texture::load(map.name);
                } catch (const TextureError& e) {
                    throw fault(map, e.what());
                }
            }
            break;
        case FieldMapKind::Vertices:
            if (!map.scalp || !map.vertexMap ||
                map.vertexMap->vertexCount() != map.scalp->pointCount()) {
                throw fault(map, map.fromMapNode
                                     ? "the vertex map does not fit this scalp (paint it again, "
                                       "or convert it, in Groom Tools > Paint)"
                                     : "the vertex map '" + map.name +
                                           "' does not fit this scalp (paint it again, or "
                                           "convert it, in Groom Tools > Paint)");
            }
            break;
        case FieldMapKind::ColorSet: {
            const auto* sets = map.scalp ? &map.scalp->colorSets() : nullptr;
            const auto found = sets ? sets->find(map.name) : decltype(sets->end()){};
            if (!sets || found == sets->end())
                throw fault(map, "the scalp has no color set '" + map.name + "'");
            map.colorSet = &found->second;
            map.sourceKey = map.scalp->contentSignature();
            break;
        }
        case FieldMapKind::Attribute:
            if (!strands || (!strands->strandChannel(map.name) && !strands->pointChannel(map.name)))
                throw fault(map, "strands have no attribute '" + map.name + "'");
            break;
        case FieldMapKind::Guide:
            if (strands) {
                if (!strands->strandChannel(map.name) && !strands->pointChannel(map.name)) {
                    throw fault(map, map.fromMapNode
                                         ? "no guide carries the layer (paint it in Groom Tools > "
                                           "Paint)"
                                         : "no guide layer '" + map.name +
                                               "' on the strands (Interpolate writes it; paint "
                                               "it on the guides)");
                }
                break;
            }
            if (!scene.guides)
                throw fault(map,
                            "a guide map here needs guides: connect them to this node's guides "
                            "input");
            if (scene.guides->guides.empty())
                throw fault(map, "no strands yet, so '" + map.name +
                                     "' must be a layer painted on the guides, with the guides "
                                     "connected to this node");
            map.guides = scene.guides;
            for (const Guide& guide : scene.guides->guides) {
                float value = 0.0f;
                if (!guideLayerValue(guide, map.name, value)) continue;
                const bool onScalp =
                    map.scalp && guide.root.face >= 0 &&
                    static_cast<std::size_t>(guide.root.face) < map.scalp->triangleCount();
                map.guideRoots.push_back(onScalp                ? map.scalp->pointAt(guide.root)
                                         : guide.points.empty() ? Vec3f{}
                                                                : guide.points.front());
                map.guideValues.push_back(value);
            }
            if (map.guideValues.empty())
                throw fault(map,
                            map.fromMapNode
                                ? "no guide carries the layer (paint it in Groom Tools > Paint)"
                                : "no guide carries the layer '" + map.name + "'");
            break;
        case FieldMapKind::Expression:
            if (!strands && !map.expression->program->isUniform())
                throw fault(map,
                            "no strands yet, so the expression may read only the frame, the time "
                            "and its own variables");
            break;
    }
}

void bindStrands(FieldMap& map, const StrandSet& strands, bool colors) {
    const std::size_t count = strands.strandCount();
    const std::span<const StrandRoot> roots = strands.roots();
    map.offsets = strands.offsets();
    map.bound = true;
    if (map.colored()) {
        if (colors)
            map.strandColors.resize(count);
        else
            map.strandValues.resize(count);
        parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                const Rgba c = colorAt(map, roots[s]);
                if (colors)
                    map.strandColors[s] = {c.r, c.g, c.b};
                else
                    map.strandValues[s] = pick(c, map.component);
            }
        });
        return;
    }
    if (map.kind == FieldMapKind::Attribute || map.kind == FieldMapKind::Guide) {
        if (const std::vector<float>* column = strands.strandChannel(map.name))
            map.strandValues = *column;
        else if (const std::vector<float>* points = strands.pointChannel(map.name)) {
            map.pointValues = *points;
            map.strandValues.resize(count);
            for (std::size_t s = 0; s < count; ++s)
                map.strandValues[s] =
                    map.offsets[s] < map.offsets[s + 1] ? (*points)[map.offsets[s]] : 0.0f;
        }
    } else if (map.kind == FieldMapKind::Expression) {
        // The scalp's UVs and normals at the roots, for the expression's u, v and lift.
        std::vector<float> uvs;
        std::vector<Vec3f> normals;
        ExpressionRoots scalpRoots;
        if (map.scalp) {
            uvs.assign(2 * count, 0.0f);
            normals.assign(count, Vec3f{});
            const ScalpMesh& scalp = *map.scalp;
            parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s) {
                    const StrandRoot& root = roots[s];
                    if (root.face < 0 ||
                        static_cast<std::size_t>(root.face) >= scalp.triangleCount())
                        continue;
                    const Uv uv = scalp.uvAt(root);
                    uvs[2 * s] = uv.u;
                    uvs[2 * s + 1] = uv.v;
                    normals[s] = scalp.normalAt(root);
                }
            });
            scalpRoots.uvs = uvs;
            scalpRoots.normals = normals;
        }
        try {
            const ExpressionBinding binding = bind(map.expression->program, strands, scalpRoots);
            if (map.vector) {
                map.strandColors.resize(count);
                evaluateExpression(binding, map.strandColors, ExpressionLevel::Strand);
                if (binding.perPoint()) {
                    map.pointColors.resize(strands.pointCount());
                    evaluateExpression(binding, map.pointColors, ExpressionLevel::Point);
                }
                return;
            }
            map.strandValues.resize(count);
            evaluateExpression(binding, map.strandValues, ExpressionLevel::Strand);
            if (binding.perPoint()) {
                map.pointValues.resize(strands.pointCount());
                evaluateExpression(binding, map.pointValues, ExpressionLevel::Point);
            }
        } catch (const ExpressionError& e) {
            throw fault(map, e.what());
        }
    }
}

std::shared_ptr<FieldMap> prepared(const FieldMap& source, const StrandSet* strands,
                                   const FieldScene& scene, bool colors) {
    auto map = std::make_shared<FieldMap>(source);
    resolve(*map, strands, scene);
    if (strands) {
        bindStrands(*map, *strands, colors);
    } else if (map->kind == FieldMapKind::Expression && map->vector) {
        map->strandColors.assign(1, evaluateUniformVector(*map->expression->program));
    } else if (map->kind == FieldMapKind::Expression) {
        map->strandValues.assign(1, evaluateUniformNumber(*map->expression->program));
    }
    return map;
}

// The nearest guide's value; 0 without guides.
float nearestGuideValue(const FieldMap& map, const Vec3f& position) {
    float best = std::numeric_limits<float>::infinity();
    float value = 0.0f;
    for (std::size_t g = 0; g < map.guideRoots.size(); ++g) {
        const Vec3f d = map.guideRoots[g] - position;
        const float distance = dot(d, d);
        if (distance < best) {
            best = distance;
            value = map.guideValues[g];
        }
    }
    return value;
}

}  // namespace

const ScalpMap* useCatalogMap(FieldMap& map, const std::shared_ptr<const MapCatalogValue>& catalog,
                              std::uint64_t catalogKey, std::string_view name) {
    const ScalpMap* painted = catalog ? catalog->maps.find(name) : nullptr;
    if (!painted) return nullptr;
    const std::uint64_t named = hashText(0, name);
    map.catalog = catalog;
    if (painted->kind == MapKind::Texture) {
        map.kind = FieldMapKind::Texture;
        map.name = painted->texture;
        map.sourceKey = hashText(named, painted->texture);
    } else {
        map.kind = FieldMapKind::Vertices;
        map.name = std::string(name);
        map.vertexMap = painted;
        map.sourceKey = hashCombine(named, catalogKey);
    }
    return painted;
}

int componentIndex(std::string_view component) {
    if (component == "r") return 0;
    if (component == "g") return 1;
    if (component == "b") return 2;
    if (component == "a") return 3;
    if (component.empty() || component == "luminance") return kLuminanceComponent;
    return -1;
}

std::uint64_t FieldMap::key() const {
    std::uint64_t h = hashCombine(0x6669656c646d6170ull, static_cast<std::uint64_t>(kind));
    h = hashText(h, name);
    h = hashCombine(h, static_cast<std::uint64_t>(component));
    h = hashCombine(h, floatBits(min));
    h = hashCombine(h, floatBits(max));
    return hashCombine(h, sourceKey);
}

float MapFieldValue::atStrand(std::size_t strand) const {
    const FieldMap& m = *map_;
    if (!m.bound) return m.strandValues.empty() ? m.min : m.range(m.strandValues[0]);
    return m.range(m.strandValues[strand]);
}

float MapFieldValue::atPoint(std::size_t strand, std::size_t point) const {
    const FieldMap& m = *map_;
    if (m.pointValues.empty()) return atStrand(strand);
    return m.range(m.pointValues[m.offsets[strand] + point]);
}

std::shared_ptr<const FieldValue> MapFieldValue::prepare(const StrandSet* strands,
                                                         const FieldScene& scene) const {
    return std::make_shared<MapFieldValue>(prepared(*map_, strands, scene, false));
}

std::string MapFieldValue::reads() const {
    static const char* const kinds[] = {"texture",   "vertex map",  "color set",
                                        "attribute", "guide layer", "expression"};
    return std::string(kinds[static_cast<int>(map_->kind)]) + " '" + map_->name + "'";
}

float MapFieldValue::atLocation(const FieldLocation& location) const {
    const FieldMap& m = *map_;
    if (m.colored()) return m.range(pick(colorAt(m, location.root), m.component));
    if (m.kind == FieldMapKind::Guide) return m.range(nearestGuideValue(m, location.position));
    if (m.kind == FieldMapKind::Expression && !m.strandValues.empty())
        return m.range(m.strandValues[0]);
    return m.min;
}

std::string MapFieldValue::describe() const {
    char range[64];
    std::snprintf(range, sizeof range, " from %g to %g", static_cast<double>(map_->min),
                  static_cast<double>(map_->max));
    return reads() + range;
}

bool MapFieldValue::dependsOnTime() const {
    return map_->kind == FieldMapKind::Expression && map_->expression &&
           map_->expression->program->reads(kReadsTime);
}

std::shared_ptr<const FieldValue> MapColorFieldValue::prepare(const StrandSet* strands,
                                                              const FieldScene& scene) const {
    return std::make_shared<MapColorFieldValue>(prepared(*map_, strands, scene, true));
}

std::uint64_t MapColorFieldValue::key() const {
    return hashCombine(map_->key(), 0x636f6c6f72ull);
}

Vec3f MapColorFieldValue::colorAtStrand(std::size_t strand) const {
    const FieldMap& m = *map_;
    if (m.strandColors.empty()) return {m.min, m.min, m.min};
    const Vec3f& c = m.strandColors[m.bound ? strand : 0];
    return {m.range(c.x), m.range(c.y), m.range(c.z)};
}

Vec3f MapColorFieldValue::colorAtPoint(std::size_t strand, std::size_t point) const {
    const FieldMap& m = *map_;
    if (m.pointColors.empty()) return colorAtStrand(strand);
    const Vec3f& c = m.pointColors[m.offsets[strand] + point];
    return {m.range(c.x), m.range(c.y), m.range(c.z)};
}

}  // namespace velmorin

namespace velmorin {
namespace {

std::string_view sourceWords(MapSource source) {
    switch (source) {
        case MapSource::Texture:
            return "texture";
        case MapSource::ColorSet:
            return "color set";
        case MapSource::Attribute:
            return "attribute";
        case MapSource::Guide:
            return "guide";
        default:
            return "expression";
    }
}

}  // namespace

float MapColorFieldValue::atStrand(std::size_t strand) const {
    return luminance(colorAtStrand(strand));
}

std::shared_ptr<const FieldValue> resolveMapReference(const std::string& param,
                                                      const MapReference& reference,
                                                      const ParamSpec* spec,
                                                      const StrandSet* strands,
                                                      const FieldScene& scene) {
    const std::string owner = "param '" + param + "'";
    const bool vector = spec && spec->kind() == ParamKind::Vec3;
    if (vector && reference.source != MapSource::Expression)
        throw GraphError(owner + ": a vector takes an expression (a " +
                         std::string(sourceWords(reference.source)) + " map gives one number)");
    FieldMap map;
    map.owner = owner;
    map.name = reference.text;
    map.component = reference.componentIndex >= 0 ? reference.componentIndex
                                                  : componentIndex(reference.component);
    if (map.component < 0) map.component = kLuminanceComponent;
    map.min = static_cast<float>(reference.min.value_or(0.0));
    map.max = static_cast<float>(reference.max.value_or(1.0));
    switch (reference.source) {
        case MapSource::Texture: {
            map.kind = FieldMapKind::Texture;
            map.sourceKey = hashText(0, reference.text);
            if (useCatalogMap(map, scene.catalog, scene.catalogKey, reference.text) &&
                map.kind == FieldMapKind::Texture && map.name.empty())
                throw GraphError(owner + ": the texture map '" + reference.text +
                                 "' has no image file yet (paint it in Groom Tools > Paint)");
            break;
        }
        case MapSource::ColorSet:
            map.kind = FieldMapKind::ColorSet;
            break;
        case MapSource::Attribute:
            map.kind = FieldMapKind::Attribute;
            break;
        case MapSource::Guide:
            map.kind = FieldMapKind::Guide;
            break;
        case MapSource::Expression: {
            map.kind = FieldMapKind::Expression;
            auto expression = std::make_shared<ExpressionMap>();
            expression->source = reference.text;
            expression->min = map.min;
            expression->max = map.max;
            try {
                expression->program = compileMappedExpression(
                    reference.text, vector ? ExpressionType::Vector : ExpressionType::Number,
                    scene);
            } catch (const ExpressionError& e) {
                throw GraphError(owner + ": " + e.what());
            }
            map.expression = std::move(expression);
            map.sourceKey = hashText(0, reference.text);
            map.vector = vector;
            if (vector) {
                const MapColorFieldValue unbound(std::make_shared<const FieldMap>(std::move(map)));
                return unbound.prepare(strands, scene);
            }
            break;
        }
    }
    const MapFieldValue unbound(std::make_shared<const FieldMap>(std::move(map)));
    return unbound.prepare(strands, scene);
}

}  // namespace velmorin
