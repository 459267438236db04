#pragma once
// What a host's groom node does with its inputs on each pull, without the host: the node hands in
// plain meshes, curves, strings and numbers, and GroomCompute turns them into calls on a
// GroomSession and an evaluation, skipping every input that did not change since the last pull.
// Maya's shape node reads its data block into GroomInputs and writes GroomOutputs back to its
// plugs; a test drives the same steps without Maya.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/vec3.h"
#include "graph/value.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

class GroomSession;
struct GroomFrame;

// A mesh as a host holds it: points, triangles and, optionally, one UV per triangle corner.
// `serial` is the host's change counter for it: the same serial means the same mesh, so an
// unchanged mesh is not read again.
struct HostMesh {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    std::vector<Uv> uvs;
    std::uint64_t serial = 0;
};

struct HostCollider {
    std::string name;
    HostMesh mesh;
};

// Everything the node reads, in the order it reads it.
struct GroomInputs {
    std::string graph;
    std::optional<HostMesh> scalp;
    std::optional<HostMesh> restScalp;
    // 0 surface area, 1 transform only, 2 off; a reference of 0 or less is taken from the first
    // measure.
    int scaleSource = 0;
    double scaleReference = 0.0;
    double scaleTransformReference = 0.0;
    double transformScale = 1.0;  // the transform's scale, for scaleSource 1
    bool followScalp = false;
    std::vector<HostCollider> colliders;
    // Live guide curves, root first; none: the guide data alone.
    std::vector<std::vector<Vec3f>> guideCurves;
    std::string guideData;
    std::string correctiveData;
    std::vector<float> correctiveWeights;
    std::string partData;
    std::string flowData;
    std::string sculptData;
    std::string viewNode;
    double time = 0.0;
    double previewDensity = 1.0;
    double previewPointBudget = 0.0;  // millions of points; 0 or less: no budget
    bool renderView = false;          // evaluate as a render does: the render density, no budget
    double renderDensity = 1.0;
};

struct GroomOutputs {
    std::size_t strandCount = 0;
    std::string lastError;  // empty when the last pull evaluated
    double groomScale = 1.0;
    double scaleArea = 0.0;
    double scaleTransform = 0.0;
    double scaleReference = 0.0;
    std::shared_ptr<const GroomFrame> frame;  // the latest good frame
    // Texts for the user, new in this pull, each beginning "Velmorin: " ("Velmorin: restMesh:
    // ignored, ...", "Velmorin: evaluation failed: ...", "Velmorin: noise: strands: heavy ...").
    std::vector<std::string> messages;
};

class GroomCompute {
  public:
    explicit GroomCompute(GroomSession& session) : session_(session) {}

    // A pull at normal context: the inputs that changed go to the session, the graph evaluates,
    // and the outputs say what came of it. Never throws for the engine's errors: they go to
    // `lastError` and `messages`, and the groom keeps its previous frame.
    GroomOutputs compute(const GroomInputs& inputs);

    // A pull for another time: the live session stays as it is; a detached copy evaluates.
    std::vector<Value> computeAt(double time, bool renderView);

  private:
    GroomSession& session_;
    std::optional<GroomInputs> last_;
    std::string lastHeavy_;
};

// A host mesh as a scalp. Throws what ScalpMesh throws for bad triangles, and
// std::invalid_argument "n UVs for m triangle corners" for UVs that don't match.
std::shared_ptr<const ScalpMesh> scalpFromHostMesh(const HostMesh& mesh);

}  // namespace velmorin
