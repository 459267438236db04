#include "common/obj_mesh.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "base/test/temp_files.h"

namespace velmorin {
namespace {

TEST(ObjMesh, KeepsPolygonsUvsAndVertexColoursPerCorner) {
    // A quad and a triangle over five coloured vertices; the triangle uses relative indices.
    const std::string text =
        "# two faces\n"
        "o scalp\n"
        "v 0 0 0 1 0 0\n"
        "v 1 0 0 0 1 0\n"
        "v 1 1 0 0 0 1\n"
        "v 0 1 0 1 1 0\n"
        "v 2 0 0 0 1 1\n"
        "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 0.5 0.5\n"
        "vn 0 0 1\n"
        "f 1/1/1 2/2/1 3/3/1 4/4/1\n"
        "g other\n"
        "f -4/-4 -1/-1 -3/-3\n";
    const auto mesh = parseObjMesh(text, "two.obj");
    EXPECT_EQ(mesh->pointCount(), 5u);
    EXPECT_EQ(mesh->triangles(), (std::vector<Triangle>{{0, 1, 2}, {0, 2, 3}, {1, 4, 2}}));
    EXPECT_EQ(mesh->polygons(), (std::vector<std::int32_t>{2, 1}));
    EXPECT_EQ(mesh->uvs(),
              (std::vector<Uv>{
                  {0, 0}, {1, 0}, {1, 1}, {0, 0}, {1, 1}, {0, 1}, {1, 0}, {0.5f, 0.5f}, {1, 1}}));
    ASSERT_EQ(mesh->colorSets().count(kObjColorSet), 1u);
    const auto& colors = mesh->colorSets().at(kObjColorSet);
    ASSERT_EQ(colors.size(), 9u);
    EXPECT_EQ(colors[0], (Rgba{1, 0, 0, 1}));
    EXPECT_EQ(colors[7], (Rgba{0, 1, 1, 1}));

    // Without UVs or colours on any vertex, the mesh has neither.
    const auto plain =
        parseObjMesh("v 0 0 0\nv 1 0 0 0.5 0.5 0.5\nv 0 1 0\nf 1 2 3\n", "plain.obj");
    EXPECT_FALSE(plain->hasUvs());
    EXPECT_TRUE(plain->colorSets().empty());
}

TEST(ObjMesh, ReadsFilesAndNamesTheFileItCannotRead) {
    const test::TempFolder folder("obj");
    const std::string path = folder.write("plane.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    EXPECT_EQ(readObjMesh(path)->triangleCount(), 1u);
    std::filesystem::remove(path);
    try {
        readObjMesh(path);
        ADD_FAILURE() << "a missing file was read";
    } catch (const ObjError& e) {
        EXPECT_EQ(std::string(e.what()),
                  path +
                      ": the file cannot be opened (No such file or "
                      "directory). Check the path and that the file exists.");
    }
}

TEST(ObjMesh, MalformedFilesSayWhatIsWrong) {
    const std::string triangle = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    std::string bigFace;
    for (int i = 0; i < 300; ++i)
        bigFace += "v " + std::to_string(i) + " 0 " + std::to_string(i % 2) + "\n";
    bigFace += "f";
    for (int i = 1; i <= 300; ++i)
        bigFace += " " + std::to_string(i);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "bad.obj: the file has no faces. Export the scalp as a polygon mesh."},
        {triangle + "l 1 2\n",
         "bad.obj: the file has no faces. Export the scalp as a polygon mesh."},
        {triangle + "f 1 2 4\n",
         "bad.obj: face 1 refers to vertex 4, but the file has 3 vertices. Export the mesh again."},
        {triangle + "f 1 2 -4\n",
         "bad.obj: face 1 refers to a vertex before the first one. Export the mesh again."},
        {triangle + "vt 0 0\nf 1/1 2/2 3/1\n",
         "bad.obj: face 1 refers to UV 2, but the file has 1 UVs. Export the mesh again."},
        {triangle + "vt 0 0\nf 1/1 2/1 3\n",
         "bad.obj: face 1 has UVs on some corners only. Export the mesh with UVs on every face, or "
         "with none."},
        {triangle + "vt 0 0\nf 1 2 3\nf 3/1 2/1 1/1\n",
         "bad.obj: some faces have UVs and others do not. Export the mesh with UVs on every face, "
         "or with none."},
        {triangle + "f 1 2\n",
         "bad.obj: a face has fewer than three corners. Remove it and export again."},
        {triangle + "f 1 0 2\n",
         "bad.obj: not a readable OBJ file: Failed parse `f' line(e.g. zero value for face index. "
         "line 4.) Export the mesh again as OBJ."},
        {"v 0 0 1e39\n" + triangle + "f 2 3 4\n",
         "bad.obj: vertex 1 has a coordinate that is not a finite number. Fix the vertex and "
         "export again."},
        {bigFace,
         "bad.obj: a face has more than 255 corners. Split it into smaller polygons and export "
         "again."},
    };
    for (const auto& [text, message] : cases) {
        try {
            parseObjMesh(text, "bad.obj");
            ADD_FAILURE() << "no error for: " << message;
        } catch (const ObjError& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

}  // namespace
}  // namespace velmorin
