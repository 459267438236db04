// Moving a groom between a session and a groom file.
#include "files/groom_session_file.h"

#include "base/document.h"
#include "graph/errors.h"
#include "strands/guide.h"

namespace velmorin {
namespace {

ScaleSource scaleSourceOf(ScaleMode mode) {
    switch (mode) {
        case ScaleMode::Automatic:
            return ScaleSource::SurfaceArea;
        case ScaleMode::Measured:
            return ScaleSource::TransformOnly;
        case ScaleMode::Off:
            return ScaleSource::Off;
    }
    return ScaleSource::SurfaceArea;
}

ScaleMode scaleModeOf(ScaleSource source) {
    switch (source) {
        case ScaleSource::SurfaceArea:
            return ScaleMode::Automatic;
        case ScaleSource::TransformOnly:
            return ScaleMode::Measured;
        case ScaleSource::Off:
            return ScaleMode::Off;
    }
    return ScaleMode::Automatic;
}

// Every input of the session set from the file, in an order in which each setter's checks see
// what they check against: the guides are cleared before the scalp changes and set after it.
void putInto(GroomSession& session, const GroomFile& file) {
    // A groom without a graph (guides and scalp from another tool, say) keeps the session's.
    if (!file.graph.empty()) session.setGraph(file.graph);
    session.setGuideData("");
    session.setScalp(file.scalp);
    session.setGuideData(file.hierarchy);
    ScalpMaps maps;
    maps.maps = file.maps;
    session.setScalpMaps(file.maps.empty() ? std::string() : maps.toJson());
    session.setPartData(file.parts);
    session.setFlowData(file.flow);
    session.setCorrectiveData(file.correctives);
    for (const auto& [layer, edits] : session.sculptLayers()) {
        if (layer != kDefaultSculptLayer && !file.sculptLayers.contains(layer)) {
            session.setSculptData(layer, "");
        }
    }
    session.setSculptData(file.sculpts);
    for (const auto& [layer, text] : file.sculptLayers)
        session.setSculptData(layer, text);
    for (const auto& [name, mesh] : session.colliders()) {
        if (!file.colliders.contains(name)) session.setCollider(name, nullptr);
    }
    for (const auto& [name, mesh] : file.colliders)
        session.setCollider(name, mesh);
    session.setFollowScalp(file.followScalp);
    const ScaleMode mode = scaleModeOf(file.scaleSource);
    session.setScaleMode(mode);
    session.setScaleReference(mode == ScaleMode::Measured ? file.scaleTransformReference
                                                          : file.scaleReference);
}

}  // namespace

GroomFile groomFileOf(const GroomSession& session) {
    GroomFile file;
    file.graph = session.graphJson();
    file.hierarchy = session.guideData();
    file.scalp = session.scalp();
    if (const auto maps = session.scalpMaps()) file.maps = maps->maps;
    file.colliders = session.colliders();
    file.parts = session.partData();
    file.flow = session.flowData();
    file.correctives = session.correctiveData();
    for (const auto& [layer, edits] : session.sculptLayers()) {
        if (layer == kDefaultSculptLayer) {
            file.sculpts = session.sculptData(layer);
        } else {
            file.sculptLayers[layer] = session.sculptData(layer);
        }
    }
    file.followScalp = session.followScalp();
    file.scaleSource = scaleSourceOf(session.scaleMode());
    if (session.scaleMode() == ScaleMode::Measured) {
        file.scaleTransformReference = session.scaleReference();
    } else {
        file.scaleReference = session.scaleReference();
    }
    // The guides as the last frame posed them, for readers that don't evaluate the graph.
    if (const auto frame = session.frame(); frame && frame->guides) {
        auto guides = std::make_shared<std::vector<ExportedGuide>>();
        guides->reserve(frame->guides->guides.size());
        for (const Guide& guide : frame->guides->guides)
            guides->push_back({guide.id, guide.root, guide.points});
        file.guides = std::move(guides);
    }
    return file;
}

void applyGroomFile(GroomSession& session, const GroomFile& file) {
    try {
        GroomSession trial;
        putInto(trial, file);
    } catch (const GroomFileError&) {
        throw;
    } catch (const std::exception& error) {
        throw GroomFileError(std::string("groom file: ") + error.what());
    }
    putInto(session, file);
}

void saveGroom(const GroomSession& session, const std::string& path) {
    saveGroomFile(path, groomFileOf(session));
}

void loadGroom(GroomSession& session, const std::string& path) {
    applyGroomFile(session, readGroomFile(path));
}

}  // namespace velmorin
