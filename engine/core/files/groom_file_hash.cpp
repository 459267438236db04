// A hash of each piece of a groom, so that a pipeline can tell which pieces two grooms (or a groom
// before and after a save) hold alike without comparing their arrays.
#include "base/document.h"
#include "files/groom_file_internal.h"

namespace velmorin {
namespace {

using Json = detail::GroomJson;

// A JSON payload by its content: parsed and dumped compact, so that spacing and number spelling
// don't count. Text that does not parse is hashed as it stands; blank text is 0.
std::uint64_t payloadHash(const std::string& text) {
    if (isBlankDocument(text)) return 0;
    const Json json = Json::parse(text, nullptr, false);
    return hashText(kGolden, json.is_discarded() ? text : json.dump());
}

std::uint64_t floatHash(std::uint64_t h, float value) {
    return hashCombine(h, floatBits(value));
}

std::uint64_t pointsHash(std::uint64_t h, const std::vector<Vec3f>& points) {
    h = hashCombine(h, points.size());
    for (const Vec3f& p : points)
        h = floatHash(floatHash(floatHash(h, p.x), p.y), p.z);
    return h;
}

std::uint64_t meshHash(std::uint64_t h, const std::shared_ptr<const ScalpMesh>& mesh) {
    return hashCombine(h, mesh ? mesh->contentSignature() : 0);
}

std::uint64_t sideHash(std::uint64_t h, const MarkerSide& side) {
    h = hashCombine(h, side.onSurface);
    if (side.onSurface) {
        return floatHash(
            floatHash(hashCombine(h, static_cast<std::uint32_t>(side.face.face)), side.face.u),
            side.face.v);
    }
    return pointsHash(h, {side.point});
}

std::uint64_t textsHash(std::uint64_t h, const std::vector<std::string>& texts) {
    h = hashCombine(h, texts.size());
    for (const std::string& text : texts)
        h = hashText(h, text);
    return h;
}

}  // namespace

std::map<std::string, std::uint64_t> groomContentHashes(const GroomFile& file) {
    std::map<std::string, std::uint64_t> out;
    out["graph"] = payloadHash(file.graph);
    out["hierarchy"] = payloadHash(file.hierarchy);
    out["parts"] = payloadHash(file.parts);
    out["correctives"] = payloadHash(file.correctives);
    out["flow"] = payloadHash(file.flow);
    out["sculpts"] = payloadHash(file.sculpts);
    out["referencePhotos"] = payloadHash(file.referencePhotos);
    std::uint64_t layers = hashCombine(kGolden, file.sculptLayers.size());
    for (const auto& [layer, text] : file.sculptLayers)
        layers = hashCombine(hashText(layers, layer), payloadHash(text));
    out["sculptLayers"] = layers;
    out["guideGroupColors"] = hashText(kGolden, file.guideGroupColors);
    out["hiddenGuideGroups"] = hashText(kGolden, file.hiddenGuideGroups);
    out["scalp"] = meshHash(kGolden, file.scalp);

    std::uint64_t h = hashCombine(kGolden, file.scalps.size());
    for (const NamedScalp& scalp : file.scalps)
        h = meshHash(hashText(h, scalp.name), scalp.mesh);
    out["scalps"] = h;

    h = hashCombine(kGolden, file.colliders.size());
    for (const auto& [name, mesh] : file.colliders)
        h = meshHash(hashText(h, name), mesh);
    out["colliders"] = h;

    h = hashCombine(kGolden, file.guides ? file.guides->size() : 0);
    if (file.guides) {
        for (const ExportedGuide& guide : *file.guides) {
            h = hashCombine(hashCombine(h, guide.id), static_cast<std::uint32_t>(guide.root.face));
            h = pointsHash(floatHash(floatHash(h, guide.root.u), guide.root.v), guide.points);
        }
    }
    out["guides"] = h;

    h = hashCombine(kGolden, file.maps.size());
    for (const auto& [name, map] : file.maps) {
        h = hashText(hashText(h, name), mapKindName(map.kind));
        h = hashText(hashCombine(h, static_cast<std::uint64_t>(map.channels)), map.texture);
        h = hashCombine(h, map.values.size());
        for (float value : map.values)
            h = floatHash(h, value);
    }
    out["maps"] = h;

    h = hashCombine(kGolden, file.prototypes.size());
    for (const auto& [name, prototype] : file.prototypes) {
        h = pointsHash(pointsHash(hashText(h, name), prototype.points), prototype.normals);
        h = hashCombine(h, prototype.triangles.size());
        for (const Triangle& t : prototype.triangles)
            h = hashCombine(hashCombine(hashCombine(h, t[0]), t[1]), t[2]);
        h = hashCombine(h, prototype.uvs.size());
        for (const Uv& uv : prototype.uvs)
            h = floatHash(floatHash(h, uv.u), uv.v);
    }
    out["prototypes"] = h;

    h = hashCombine(kGolden, file.transferMarkers.size());
    for (const MarkerPair& pair : file.transferMarkers)
        h = sideHash(sideHash(h, pair.from), pair.to);
    out["transferMarkers"] = h;

    out["controls"] = textsHash(kGolden, file.controls);
    out["searchPaths"] = textsHash(kGolden, file.searchPaths);

    // The scene settings and the names of the caches beside the file.
    h = hashCombine(kGolden, doubleBits(file.framesPerSecond));
    h = hashText(hashText(hashText(h, file.units), file.upAxis), file.source);
    h = hashCombine(hashCombine(h, file.followScalp), static_cast<std::uint64_t>(file.scaleSource));
    h = hashCombine(hashCombine(h, doubleBits(file.scaleReference)),
                    doubleBits(file.scaleTransformReference));
    out["settings"] = h;
    h = hashText(hashText(kGolden, file.scalpCache.file), file.scalpCache.object);
    h = hashText(hashText(h, file.guideCache.file), file.guideCache.object);
    h = hashText(hashText(h, file.cardBake.prefix), file.cardBake.strands);
    h = hashCombine(h, file.simCaches.size());
    for (const auto& [node, cache] : file.simCaches) {
        h = hashText(hashText(hashCombine(h, node), cache.file), cache.object);
        h = hashCombine(h, cache.stamp);
    }
    out["caches"] = h;
    return out;
}

}  // namespace velmorin
