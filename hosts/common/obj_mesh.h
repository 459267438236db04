#pragma once
// Wavefront OBJ meshes as scalps, for hosts and tools that take a scalp from a file rather than
// from a scene. The engine itself reads no mesh files: this sits beside it, on tinyobjloader.

#include <memory>
#include <stdexcept>
#include <string>

#include "mesh/scalp_mesh.h"

namespace velmorin {

// A file that cannot be read as a scalp. The text begins with the file's name and says what is
// wrong and what to do about it.
class ObjError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The colour set that vertex colours ("v x y z r g b") become, one colour per triangle corner.
inline constexpr const char* kObjColorSet = "colorSet1";

// Reads the faces of every object and group in the file into one mesh. Each face is cut into a
// fan of triangles from its first corner and kept as one polygon; UVs come per corner when every
// face has them; normals, materials, lines and points are ignored. Throws ObjError.
std::shared_ptr<const ScalpMesh> readObjMesh(const std::string& path);

// The same, from the text of a file; `name` stands for the file in messages.
std::shared_ptr<const ScalpMesh> parseObjMesh(const std::string& text, const std::string& name);

}  // namespace velmorin
