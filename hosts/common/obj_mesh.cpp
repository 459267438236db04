#include "common/obj_mesh.h"

#include <tiny_obj_loader.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>

namespace velmorin {
namespace {

[[noreturn]] void fail(const std::string& name, const std::string& what) {
    throw ObjError(name + ": " + what);
}

// tinyobjloader's own messages end in newlines and sometimes a stray period.
std::string tidied(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    for (char& c : text)
        if (c == '\n') c = ' ';
    return text;
}

}  // namespace

std::shared_ptr<const ScalpMesh> readObjMesh(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail(path, std::string("the file cannot be opened (") + std::strerror(errno) +
                       "). Check the path and that the file exists.");
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad())
        fail(path, "the file could not be read to its end. Check the disk and try again.");
    return parseObjMesh(text.str(), path);
}

std::shared_ptr<const ScalpMesh> parseObjMesh(const std::string& text, const std::string& name) {
    tinyobj::ObjReaderConfig config;
    // Faces are cut here, so that each polygon's triangle count is known; colours are kept only
    // when every vertex has one, instead of white for the rest.
    config.triangulate = false;
    config.vertex_color = false;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromString(text, "", config))
        fail(name, "not a readable OBJ file: " + tidied(reader.Error()) +
                       " Export the mesh again as OBJ.");
    // The reader drops faces of fewer than three corners with only a warning.
    if (reader.Warning().find("Degenerated face") != std::string::npos)
        fail(name, "a face has fewer than three corners. Remove it and export again.");

    const tinyobj::attrib_t& attrib = reader.GetAttrib();
    const std::size_t pointCount = attrib.vertices.size() / 3;
    const std::size_t uvCount = attrib.texcoords.size() / 2;
    std::vector<Vec3f> points(pointCount);
    for (std::size_t i = 0; i < pointCount; ++i) {
        points[i] = {attrib.vertices[3 * i], attrib.vertices[3 * i + 1],
                     attrib.vertices[3 * i + 2]};
        if (!std::isfinite(points[i].x) || !std::isfinite(points[i].y) ||
            !std::isfinite(points[i].z))
            fail(name, "vertex " + std::to_string(i + 1) +
                           " has a coordinate that is not a finite number. Fix the vertex and "
                           "export again.");
    }
    const bool hasColors = pointCount > 0 && attrib.colors.size() == attrib.vertices.size();

    std::vector<Triangle> triangles;
    std::vector<std::int32_t> polygons;
    std::vector<Uv> uvs;
    std::vector<Rgba> colors;
    std::size_t faceNumber = 0;
    std::size_t facesWithUvs = 0;
    for (const tinyobj::shape_t& shape : reader.GetShapes()) {
        const auto& indices = shape.mesh.indices;
        const auto& sizes = shape.mesh.num_face_vertices;
        // The reader keeps a face's corner count in a byte: a larger face shows as a mismatch.
        std::size_t cornerTotal = 0;
        for (unsigned char size : sizes)
            cornerTotal += size;
        if (cornerTotal != indices.size())
            fail(name,
                 "a face has more than 255 corners. Split it into smaller polygons and "
                 "export again.");
        std::size_t first = 0;
        for (unsigned char size : sizes) {
            ++faceNumber;
            const auto corners = std::span(indices).subspan(first, size);
            first += size;
            std::size_t cornersWithUv = 0;
            for (const tinyobj::index_t& corner : corners) {
                if (corner.vertex_index < 0)
                    fail(name, "face " + std::to_string(faceNumber) +
                                   " refers to a vertex before the first one. Export the mesh "
                                   "again.");
                if (static_cast<std::size_t>(corner.vertex_index) >= pointCount)
                    fail(name, "face " + std::to_string(faceNumber) + " refers to vertex " +
                                   std::to_string(corner.vertex_index + 1) + ", but the file has " +
                                   std::to_string(pointCount) +
                                   " vertices. Export the mesh again.");
                if (corner.texcoord_index < -1 ||
                    (corner.texcoord_index >= 0 &&
                     static_cast<std::size_t>(corner.texcoord_index) >= uvCount))
                    fail(name, "face " + std::to_string(faceNumber) + " refers to UV " +
                                   std::to_string(corner.texcoord_index + 1) +
                                   ", but the file has " + std::to_string(uvCount) +
                                   " UVs. Export the mesh again.");
                cornersWithUv += corner.texcoord_index >= 0;
            }
            const bool withUv = cornersWithUv == corners.size();
            if (cornersWithUv != 0 && !withUv)
                fail(name, "face " + std::to_string(faceNumber) +
                               " has UVs on some corners only. Export the mesh with UVs on every "
                               "face, or with none.");
            facesWithUvs += withUv;
            if (facesWithUvs != faceNumber && facesWithUvs != 0)
                fail(name,
                     "some faces have UVs and others do not. Export the mesh with UVs on "
                     "every face, or with none.");
            const auto pointOf = [](const tinyobj::index_t& c) {
                return static_cast<std::uint32_t>(c.vertex_index);
            };
            for (std::size_t k = 1; k + 1 < corners.size(); ++k) {
                triangles.push_back(
                    {pointOf(corners[0]), pointOf(corners[k]), pointOf(corners[k + 1])});
                for (const tinyobj::index_t* c : {&corners[0], &corners[k], &corners[k + 1]}) {
                    if (withUv) {
                        const auto t = static_cast<std::size_t>(c->texcoord_index);
                        uvs.push_back({attrib.texcoords[2 * t], attrib.texcoords[2 * t + 1]});
                    }
                    if (hasColors) {
                        const std::size_t v = pointOf(*c);
                        colors.push_back({attrib.colors[3 * v], attrib.colors[3 * v + 1],
                                          attrib.colors[3 * v + 2], 1.0f});
                    }
                }
            }
            polygons.push_back(static_cast<std::int32_t>(corners.size() - 2));
        }
    }
    if (triangles.empty()) fail(name, "the file has no faces. Export the scalp as a polygon mesh.");

    auto mesh = std::make_shared<ScalpMesh>(std::move(points), std::move(triangles));
    mesh->setPolygons(std::move(polygons));
    if (facesWithUvs > 0) mesh->setUvs(std::move(uvs));
    if (hasColors) mesh->setColorSet(kObjColorSet, std::move(colors));
    return mesh;
}

}  // namespace velmorin
