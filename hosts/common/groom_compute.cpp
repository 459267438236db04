#include "common/groom_compute.h"

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "graph/errors.h"
#include "session/groom_session.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

bool sameMesh(const std::optional<HostMesh>& a, const std::optional<HostMesh>& b) {
    if (a.has_value() != b.has_value()) return false;
    return !a || a->serial == b->serial;
}

bool sameColliders(const std::vector<HostCollider>& a, const std::vector<HostCollider>& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].name != b[i].name || a[i].mesh.serial != b[i].mesh.serial) return false;
    return true;
}

std::shared_ptr<const GuideSet> guidesFromCurves(const std::vector<std::vector<Vec3f>>& curves) {
    auto guides = std::make_shared<GuideSet>();
    for (std::size_t i = 0; i < curves.size(); ++i) {
        Guide guide;
        guide.id = i + 1;
        guide.points = curves[i];
        guides->guides.push_back(std::move(guide));
    }
    return guides;
}

}  // namespace

std::shared_ptr<const ScalpMesh> scalpFromHostMesh(const HostMesh& mesh) {
    auto scalp = std::make_shared<ScalpMesh>(mesh.points, mesh.triangles);
    if (!mesh.uvs.empty()) {
        if (mesh.uvs.size() != mesh.triangles.size() * 3)
            throw std::invalid_argument(std::to_string(mesh.uvs.size()) + " UVs for " +
                                        std::to_string(mesh.triangles.size() * 3) +
                                        " triangle corners");
        scalp->setUvs(mesh.uvs);
    }
    return scalp;
}

GroomOutputs GroomCompute::compute(const GroomInputs& in) {
    GroomOutputs out;
    const GroomInputs* before = last_ ? &*last_ : nullptr;
    // Each step runs when its input changed since the last pull; the session then compares again
    // by value, so a step that runs with an equal value still evaluates nothing anew.
    const auto changed = [&](auto member) { return !before || !(before->*member == in.*member); };
    std::string error;
    const auto step = [&](const char* source, auto&& work) {
        if (!error.empty()) return;
        try {
            work();
        } catch (const std::exception& failure) {
            const std::string what = failure.what();
            // The session's own messages already name their source ("graph: ...").
            error = what.rfind(source, 0) == 0 ? what : std::string(source) + what;
        }
    };

    // Step 2: the graph.
    if (changed(&GroomInputs::graph) && !in.graph.empty())
        step("graph: ", [&] { session_.setGraph(in.graph); });

    // Step 3: the scalp and its rest pose. A rest mesh of another point count is not the same
    // mesh undeformed, and would carry the groom onto nonsense: it is left out with a warning.
    if (!before || !sameMesh(before->scalp, in.scalp) ||
        !sameMesh(before->restScalp, in.restScalp)) {
        step("scalp: ",
             [&] { session_.setScalp(in.scalp ? scalpFromHostMesh(*in.scalp) : nullptr); });
        std::shared_ptr<const ScalpMesh> rest;
        if (in.restScalp && in.scalp && in.restScalp->points.size() != in.scalp->points.size())
            out.messages.push_back("Velmorin: restMesh: ignored, it has " +
                                   std::to_string(in.restScalp->points.size()) +
                                   " vertices and the scalp " +
                                   std::to_string(in.scalp->points.size()) +
                                   " (the rest mesh must be the same mesh, undeformed)");
        else if (in.restScalp)
            step("restScalp: ", [&] { rest = scalpFromHostMesh(*in.restScalp); });
        step("restScalp: ", [&] { session_.setRestScalp(rest); });
    }

    // Step 4: the scale.
    step("scale: ", [&] {
        const int source = std::clamp(in.scaleSource, 0, 2);
        session_.setScaleMode(static_cast<ScaleMode>(source));
        if (source == 1) {
            session_.setScaleReference(in.scaleTransformReference);
            session_.setScaleMeasure(in.transformScale);
        } else if (source == 0) {
            session_.setScaleReference(in.scaleReference);
        }
    });

    // Step 6: following the scalp.
    if (changed(&GroomInputs::followScalp)) session_.setFollowScalp(in.followScalp);

    // Step 8: live guide curves.
    if (changed(&GroomInputs::guideCurves))
        session_.setGuides(in.guideCurves.empty() ? nullptr : guidesFromCurves(in.guideCurves));

    // Step 9: colliders, each read again only when its mesh changed.
    if (!before || !sameColliders(before->colliders, in.colliders)) {
        step("colliders: ", [&] {
            session_.clearColliders();
            for (const HostCollider& collider : in.colliders)
                session_.setCollider(collider.name, scalpFromHostMesh(collider.mesh));
        });
    }

    // Steps 10 and 11: the documents, each with its own name in front of its messages.
    if (changed(&GroomInputs::guideData))
        step("guideData: ", [&] { session_.setGuideData(in.guideData); });
    if (changed(&GroomInputs::correctiveData))
        step("correctiveData: ", [&] { session_.setCorrectiveData(in.correctiveData); });
    if (changed(&GroomInputs::correctiveWeights))
        session_.setCorrectiveWeights(in.correctiveWeights);
    if (changed(&GroomInputs::partData))
        step("partData: ", [&] { session_.setPartData(in.partData); });
    if (changed(&GroomInputs::flowData))
        step("flowData: ", [&] { session_.setFlowData(in.flowData); });
    if (changed(&GroomInputs::sculptData))
        step("sculptData: ", [&] { session_.setSculptData(in.sculptData); });
    if (changed(&GroomInputs::viewNode)) session_.setViewNode(in.viewNode);

    // Step 12: the preview settings; a render view takes the render density and no budget.
    session_.setTime(in.time);
    session_.setViewport(!in.renderView);
    session_.setPreviewDensity(in.renderView ? in.renderDensity : in.previewDensity);
    session_.setPreviewPointBudget(in.renderView ? 0.0
                                                 : std::max(0.0, in.previewPointBudget) * 1e6);

    // Step 13: the evaluation.
    if (error.empty()) {
        try {
            session_.evaluate();
        } catch (const GraphError& failure) {
            error = std::string("evaluation failed: ") + failure.what();
        } catch (const std::exception& failure) {
            error = failure.what();
        }
    }
    if (!error.empty()) out.messages.push_back("Velmorin: " + error);
    for (const SessionMessage& message : session_.takeMessages())
        if (message.text.find("strands: heavy") == std::string::npos)
            out.messages.push_back(
                "Velmorin: " + (message.node.empty() ? "" : message.node + ": ") + message.text);

    // Step 14: the costly nodes, told once each time their list changes.
    const GroomStats stats = session_.stats();
    std::string heavy;
    for (const auto& [node, note] : stats.notes)
        if (note.find("strands: heavy") != std::string::npos)
            heavy += (heavy.empty() ? "" : "; ") + node + ": " + note;
    if (heavy != lastHeavy_ && !heavy.empty()) out.messages.push_back("Velmorin: " + heavy);
    lastHeavy_ = heavy;

    // Step 15: the outputs.
    out.frame = session_.frame();
    out.strandCount = out.frame && out.frame->strands ? out.frame->strands->strandCount() : 0;
    out.lastError = error;
    out.groomScale = session_.scaleFactor();
    out.scaleArea = session_.scaleArea();
    out.scaleTransform = in.scaleSource == 1 ? in.transformScale : 0.0;
    out.scaleReference = session_.scaleReference();
    last_ = in;
    return out;
}

std::vector<Value> GroomCompute::computeAt(double time, bool renderView) {
    FrameRequest request;
    request.time = time;
    request.viewport = !renderView;
    return session_.evaluateDetached(request);
}

}  // namespace velmorin
