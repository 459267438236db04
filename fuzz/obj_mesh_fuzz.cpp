// OBJ text from any bytes: every input gives a scalp or an ObjError, never a crash, a leak, an
// engine misuse error (the reader must check what the parser hands it) or a hang. A scalp that is
// read must hold together: its derived values build and a query runs.

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/obj_mesh.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    std::shared_ptr<const ScalpMesh> mesh;
    try {
        mesh = parseObjMesh(std::string(reinterpret_cast<const char*>(data), size), "fuzz.obj");
    } catch (const ObjError&) {
        return 0;
    }
    (void)mesh->topology();
    (void)mesh->vertexNormals();
    (void)mesh->closestPoint({0.0f, 0.0f, 0.0f});
    return 0;
}
