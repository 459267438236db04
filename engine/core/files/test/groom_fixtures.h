#pragma once
// Whole grooms for the tests, the benchmarks and the fuzz seeds: every section of a groom file
// filled, from formulas and hashes only, so that every run saves the same bytes.

#include <memory>
#include <string>
#include <vector>

#include "base/hash.h"
#include "editing/test/guide_fixtures.h"
#include "files/groom_file.h"
#include "graph/graph_tools.h"
#include "mesh/sample_meshes.h"

namespace velmorin::test {

// The posed guides of a hierarchy, as a host exports them beside it.
inline std::shared_ptr<const std::vector<ExportedGuide>> exportedGuides(const GuideHierarchy& h) {
    auto guides = std::make_shared<std::vector<ExportedGuide>>();
    guides->reserve(h.guides().size());
    for (const Guide& guide : h.guides())
        guides->push_back({guide.id, guide.root, guide.points});
    return guides;
}

// The mesh with a rest pose a little below its points and a colour set hashed per corner.
inline std::shared_ptr<const ScalpMesh> withRestAndColors(const ScalpMesh& source) {
    auto mesh = std::make_shared<ScalpMesh>(source);
    std::vector<Vec3f> rest = source.points();
    for (Vec3f& p : rest)
        p.y -= 0.25f;
    mesh->setRestPoints(std::move(rest));
    std::vector<Rgba> colors(source.triangleCount() * 3);
    for (std::size_t i = 0; i < colors.size(); ++i)
        colors[i] = {unitFloat(i), unitFloat(i + 7), unitFloat(i + 13), 1.0f};
    mesh->setColorSet("paint", std::move(colors));
    return mesh;
}

// Vertex map values: `channels` hashed values a point.
inline std::vector<float> mapValues(std::size_t points, int channels, std::uint64_t seed) {
    std::vector<float> values(points * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = unitFloat(hashCombine(seed, i));
    return values;
}

// A groom with every section: the default graph on the head-like scalp, a guide hierarchy of
// `guides` primaries with the posed guides beside it, two more scalps, a collider, two texture and
// two vertex maps, parts, flow, a sculpt layer, a corrective, and the settings and cache names.
inline GroomFile sampleGroom(int scalpDetail = 1, std::size_t guides = 24) {
    GroomFile file;
    const auto head = makeHeadScalp(scalpDetail);
    const GuideHierarchy hierarchy = scalpHierarchy(*head, guides, 8, 2, 7);
    file.graph = defaultGraphJson();
    file.hierarchy = hierarchy.toJson();
    file.scalp = withRestAndColors(*head);
    file.scalps = {{"beard", makeUvPlane(2.0f, 4)}, {"brows", makeSphere(0.5f, 4, 6)}};
    file.guides = exportedGuides(hierarchy);
    file.parts = R"({"parts":[{"name":"crown","points":[[3,0.25,0.5],[4,0.0,1.0]]}],"version":1})";
    file.flow = R"({"pins":[{"face":[3,0.25,0.5],"dir":[0.1,0.0,-1.0]}],"version":1})";
    const std::string id = std::to_string(hierarchy.guides().front().id);
    file.sculpts = R"({"guides":{")" + id + R"(":[0.0,0.1,0.0,0.0,0.2,0.0]},"version":1})";
    file.sculptLayers["shot"] = R"({"guides":{")" + id + R"(":[0.5,0.0,0.0]},"version":1})";
    file.correctives = R"({"layers":[{"name":"smile","time":12,"weight":1.0,"enabled":true,)"
                       R"("offsets":{")" +
                       id + R"(":[0.0,0.0,0.5]}}],"version":1})";
    file.controls = {"length", "frizz"};
    file.maps["density"] = {MapKind::Vertices, 1, mapValues(head->pointCount(), 1, 1), ""};
    file.maps["tint"] = {MapKind::Vertices, 4, mapValues(head->pointCount(), 4, 2), ""};
    file.maps["clumps"] = {MapKind::Texture, 1, {}, "maps/clumps.png"};
    file.maps["color"] = {MapKind::Texture, 4, {}, "maps/color.<UDIM>.png"};
    file.colliders["body"] = makeSphere(1.0f, 6, 8);
    InstancePrototype leaf;
    leaf.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    leaf.triangles = {{0, 1, 2}};
    leaf.normals = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    leaf.uvs = {{0, 0}, {1, 0}, {0, 1}};
    file.prototypes["leaf"] = leaf;
    file.followScalp = true;
    file.scaleSource = ScaleSource::TransformOnly;
    file.scaleReference = 412.5;
    file.scaleTransformReference = 1.25;
    file.scalpCache = {"caches/scalp.abc", "/head/scalpShape"};
    file.guideCache = {"caches/guides.abc", ""};
    file.cardBake = {"cards/hero_", "Resample"};
    file.simCaches[9] = {"caches/sim.abc", "/sim", 18446744073709551615ull};
    file.framesPerSecond = 24.0;
    file.units = "cm";
    file.upAxis = "Y";
    file.source = "scenes/hero.ma";
    file.searchPaths = {"textures", "/shows/hero/maps"};
    file.transferMarkers = {{{true, {5, 0.25f, 0.25f}, {}}, {false, {}, {0.5f, 1.5f, -0.25f}}}};
    file.referencePhotos = R"([{"file":"ref/front.jpg","camera":"front"}])";
    file.guideGroupColors = R"({"main":[1,0.5,0]})";
    file.hiddenGuideGroups = R"(["kids"])";
    return file;
}

}  // namespace velmorin::test
