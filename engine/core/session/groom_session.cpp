#include "session/groom_session.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <unordered_map>

#include "base/hash.h"
#include "fields/field_scene.h"
#include "graph/uniform_value.h"
#include "strands/strand_set.h"

namespace velmorin {

namespace {

// A scale factor this close to 1, or a change of it this small, counts as none.
constexpr double kScaleTolerance = 0.0001;

// Refuses a mesh with a point that is not a finite number: it would poison every closest-point
// query, normal and strand grown from it.
void checkFinite(std::span<const Vec3f> points, const std::string& input) {
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Vec3f& p = points[i];
        if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z))
            throw std::invalid_argument(input + "point " + std::to_string(i) +
                                        " is not a finite number (NaN or infinity): clean up the "
                                        "mesh and hand it in again");
    }
}

bool sameMesh(const std::shared_ptr<const ScalpMesh>& a,
              const std::shared_ptr<const ScalpMesh>& b) {
    if (a == b) return true;
    if (!a || !b) return false;
    return a->contentSignature() == b->contentSignature();
}

// Guides that claim faces the scalp does not have. Guide data bound to another topology rebinds
// by position when posed (a transfer); data that says it was bound to this scalp, or to none, and
// names a face past its end is broken and would bind hair to nothing.
void checkGuidesFitScalp(const GuideHierarchy& hierarchy, const ScalpMesh& scalp,
                         const std::string& input) {
    if (scalp.triangleCount() == 0) return;
    const std::uint64_t bound = hierarchy.scalpTopology();
    if (bound != 0 && bound != scalp.topologySignature()) return;
    for (const Guide& guide : hierarchy.guides()) {
        if (guide.root.face < 0 || scalp.isOnSurface(guide.root)) continue;
        throw std::invalid_argument(
            input + "guide " + std::to_string(guide.id) + " is bound to face " +
            std::to_string(guide.root.face) + ", but the scalp has only " +
            std::to_string(scalp.triangleCount()) +
            " triangles: load the scalp these guides were made on, or transfer the groom to this "
            "scalp");
    }
}

double surfaceArea(const ScalpMesh& scalp) {
    const auto& points = scalp.points();
    double area = 0.0;
    for (const Triangle& t : scalp.triangles())
        area += 0.5 * length(cross(points[t[1]] - points[t[0]], points[t[2]] - points[t[0]]));
    return area;
}

// Reads a text input, putting the input's name before the reader's words; the exception keeps
// its type so that the host can tell a document fault from misuse.
template <class T, class Read>
std::shared_ptr<const T> readText(std::string_view text, const std::string& input, Read read) {
    try {
        return std::make_shared<const T>(read(text));
    } catch (const SchemaError& error) {
        throw SchemaError(input + ": " + error.what());
    } catch (const std::invalid_argument& error) {
        throw std::invalid_argument(input + ": " + error.what());
    }
}

// The node of that name, or 0: a host names nodes that may have gone.
std::uint32_t findNode(const Graph& graph, std::string_view name) {
    for (const auto& [id, node] : graph.nodes())
        if (node.name == name) return id;
    return 0;
}

std::uint64_t textKey(std::uint64_t seed, std::string_view text) {
    return hashText(seed, text);
}

}  // namespace

std::string colliderInputName(std::string_view collider) {
    return "collider:" + std::string(collider);
}

GroomSession::GroomSession() = default;

GroomSession::~GroomSession() {
    // A detached run works on its own clone; let it end before the session goes.
    if (detached_) detached_->wait();
}

// ---- The graph -------------------------------------------------------------------------------

void GroomSession::setGraph(std::string_view json) {
    if (document_ && json == graphText_) return;
    auto graph = std::make_unique<Graph>();
    try {
        graph->fromJson(json);
    } catch (const GraphError& error) {
        throw GraphError(std::string("graph: ") + error.what());
    } catch (const SchemaError& error) {
        throw SchemaError(std::string("graph: ") + error.what());
    }
    // A run on the old document has nothing to hand to the new one.
    if (detached_) {
        detached_->wait();
        detached_.reset();
    }
    auto document = std::make_shared<GraphDocument>();
    document->graph = std::move(graph);
    document_ = std::move(document);
    graphText_ = std::string(json);
    lastNotes_.clear();
    touch();
}

std::string GroomSession::graphJson() const {
    return document_ && document_->graph ? document_->graph->toJson() : std::string();
}

Graph* GroomSession::graph() {
    return document_ ? document_->graph.get() : nullptr;
}
const Graph* GroomSession::graph() const {
    return document_ ? document_->graph.get() : nullptr;
}

void GroomSession::markGraphEdited() {
    touch();
}

void GroomSession::setViewNode(std::string name) {
    if (name == viewNode_) return;
    viewNode_ = std::move(name);
    touch();
}

// ---- Scalps ----------------------------------------------------------------------------------

void GroomSession::setScalp(std::shared_ptr<const ScalpMesh> scalp) {
    if (sameMesh(scalp_, scalp)) return;
    if (scalp) checkFinite(scalp->points(), "scalp: ");
    scalp_ = std::move(scalp);
    touch();
}

void GroomSession::updateScalpPoints(std::vector<Vec3f> points) {
    if (!scalp_) throw std::invalid_argument("updateScalpPoints: the session has no scalp");
    if (points.size() != scalp_->pointCount())
        throw std::invalid_argument("updateScalpPoints: " + std::to_string(points.size()) +
                                    " points for a scalp of " +
                                    std::to_string(scalp_->pointCount()));
    checkFinite(points, "updateScalpPoints: ");
    // A new value: the old mesh may be held by the last frame and the graph's results.
    auto moved = std::make_shared<ScalpMesh>(*scalp_);
    moved->setPoints(std::move(points));
    std::shared_ptr<const ScalpMesh> next = std::move(moved);
    if (sameMesh(scalp_, next)) return;
    scalp_ = std::move(next);
    touch();
}

void GroomSession::setRestScalp(std::shared_ptr<const ScalpMesh> rest) {
    if (sameMesh(restScalp_, rest)) return;
    if (rest) checkFinite(rest->points(), "restScalp: ");
    restScalp_ = std::move(rest);
    touch();
}

void GroomSession::setScalpAt(double frame, std::shared_ptr<const ScalpMesh> scalp) {
    const std::shared_ptr<const ScalpMesh> held =
        scalpHistory_ ? scalpHistory_->at(frame) : nullptr;
    if (sameMesh(held, scalp)) return;
    if (scalp) checkFinite(scalp->points(), "scalpHistory: ");
    auto history = scalpHistory_ ? std::make_shared<ScalpHistory>(*scalpHistory_)
                                 : std::make_shared<ScalpHistory>();
    if (scalp)
        history->frames[frame] = std::move(scalp);
    else
        history->frames.erase(frame);
    std::uint64_t key = 0x5C1157ull;
    for (const auto& [at, mesh] : history->frames)
        key = hashCombine(hashCombine(key, doubleBits(at)), mesh->contentSignature());
    scalpHistory_ = history->frames.empty() ? nullptr : std::move(history);
    historyKey_ = scalpHistory_ ? key : 0;
    touch();
}

void GroomSession::clearScalpHistory() {
    if (!scalpHistory_) return;
    scalpHistory_.reset();
    historyKey_ = 0;
    touch();
}

// ---- Colliders -------------------------------------------------------------------------------

void GroomSession::setCollider(const std::string& name, std::shared_ptr<const ScalpMesh> mesh) {
    const auto found = colliders_.find(name);
    const std::shared_ptr<const ScalpMesh> held =
        found == colliders_.end() ? nullptr : found->second;
    if (sameMesh(held, mesh)) return;
    if (mesh) checkFinite(mesh->points(), "collider '" + name + "': ");
    if (mesh)
        colliders_[name] = std::move(mesh);
    else
        colliders_.erase(name);
    touch();
}

void GroomSession::clearColliders() {
    if (colliders_.empty()) return;
    colliders_.clear();
    touch();
}

// ---- Guides ----------------------------------------------------------------------------------

void GroomSession::setGuideData(std::string_view json) {
    if (json == guideText_) return;
    auto hierarchy = readText<GuideHierarchy>(
        json, "guideData", [](std::string_view text) { return GuideHierarchy::fromJson(text); });
    if (scalp_) checkGuidesFitScalp(*hierarchy, *scalp_, "guideData: ");
    guideText_ = std::string(json);
    hierarchy_ = guideText_.empty() ? nullptr : std::move(hierarchy);
    hierarchyKey_ = hierarchy_ ? hierarchy_->contentHash() : 0;
    refreshCatalog();
    touch();
}

void GroomSession::setHierarchy(std::shared_ptr<const GuideHierarchy> hierarchy) {
    if (hierarchy == hierarchy_) return;
    const std::uint64_t key = hierarchy ? hierarchy->contentHash() : 0;
    if (hierarchy && hierarchy_ && key == hierarchyKey_) return;
    if (hierarchy && scalp_) checkGuidesFitScalp(*hierarchy, *scalp_, "guideData: ");
    guideText_ = hierarchy ? hierarchy->toJson() : std::string();
    hierarchy_ = std::move(hierarchy);
    hierarchyKey_ = key;
    refreshCatalog();
    touch();
}

void GroomSession::setGuides(std::shared_ptr<const GuideSet> guides) {
    if (guides == flatGuides_) return;
    flatGuides_ = std::move(guides);
    // Live curves come as a new value each time they change, so their key is a serial.
    guidesKey_ = flatGuides_ ? edits_ + 1 : 0;
    refreshCatalog();
    touch();
}

// ---- Maps, parts, flow -----------------------------------------------------------------------

void GroomSession::setScalpMaps(std::string_view json) {
    if (json == mapsText_) return;
    // ScalpMaps puts its own "scalpMaps: " before its words.
    std::shared_ptr<const ScalpMaps> maps =
        std::make_shared<const ScalpMaps>(ScalpMaps::fromJson(json));
    mapsText_ = std::string(json);
    maps_ = std::move(maps);
    refreshCatalog();
    touch();
}

void GroomSession::refreshCatalog() {
    auto catalog = std::make_shared<MapCatalogValue>();
    if (maps_) catalog->maps = *maps_;
    // Per-point layers painted on guides reach Map nodes by name like painted maps.
    if (flatGuides_)
        for (const Guide& guide : flatGuides_->guides)
            for (const auto& [name, values] : guide.pointAttributes)
                catalog->guideLayers.emplace(name, "guides");
    if (hierarchy_)
        for (const Guide& guide : hierarchy_->guides())
            for (const auto& [name, values] : guide.pointAttributes)
                catalog->guideLayers.emplace(name, "hierarchy");
    if (catalog->maps.maps.empty() && catalog->guideLayers.empty()) {
        catalog_.reset();
        mapsKey_ = 0;
        return;
    }
    const std::uint64_t key = catalog->key();
    if (catalog_ && key == mapsKey_) return;
    mapsKey_ = key;
    catalog_ = std::move(catalog);
}

void GroomSession::setPartData(std::string_view json) {
    if (json == partText_) return;
    auto parts = readText<PartSet>(json, "partData",
                                   [](std::string_view text) { return PartSet::fromJson(text); });
    partText_ = std::string(json);
    parts_ = parts->empty() ? nullptr : std::move(parts);
    partsKey_ = parts_ ? textKey(0x9A27ull, partText_) : 0;
    touch();
}

void GroomSession::setFlowData(std::string_view json) {
    if (json == flowText_) return;
    auto flow = readText<FlowSet>(json, "flowData",
                                  [](std::string_view text) { return FlowSet::fromJson(text); });
    flowText_ = std::string(json);
    flow_ = flow->empty() ? nullptr : std::move(flow);
    flowKey_ = flow_ ? flow_->contentHash() : 0;
    touch();
}

// ---- Sculpt layers and correctives -----------------------------------------------------------

void GroomSession::setSculptData(std::string_view json) {
    setSculptData(std::string(kDefaultSculptLayer), json);
}

void GroomSession::setSculptData(const std::string& layer, std::string_view json) {
    const auto found = sculptLayers_.find(layer);
    if (found == sculptLayers_.end() ? json.empty() : json == found->second.text) return;
    auto edits = readText<SculptEdits>(
        json, "sculptData", [](std::string_view text) { return SculptEdits::fromJson(text); });
    if (json.empty()) {
        sculptLayers_.erase(found);
    } else {
        SculptLayer& stored = sculptLayers_[layer];
        stored.text = std::string(json);
        stored.key = edits->contentHash();
        stored.edits = std::move(edits);
    }
    touch();
}

std::string GroomSession::sculptData(std::string_view layer) const {
    const auto found = sculptLayers_.find(layer);
    return found == sculptLayers_.end() ? std::string() : found->second.text;
}

std::map<std::string, std::shared_ptr<const SculptEdits>> GroomSession::sculptLayers() const {
    std::map<std::string, std::shared_ptr<const SculptEdits>> layers;
    for (const auto& [name, layer] : sculptLayers_)
        layers[name] = layer.edits;
    return layers;
}

void GroomSession::setCorrectiveData(std::string_view json) {
    if (json == correctiveText_) return;
    auto layers =
        readText<std::vector<CorrectiveLayer>>(json, "correctiveData", correctiveLayersFromJson);
    correctiveText_ = std::string(json);
    correctives_ = *layers;
    correctiveHashes_.clear();
    for (const CorrectiveLayer& layer : correctives_)
        correctiveHashes_.push_back(layer.contentHash());
    touch();
}

void GroomSession::setCorrectiveWeights(std::vector<float> weights) {
    if (weights == correctiveWeights_) return;
    correctiveWeights_ = std::move(weights);
    touch();
}

double GroomSession::correctiveWeightAt(std::size_t index, double frame) const {
    if (index >= correctives_.size()) return 0.0;
    const CorrectiveLayer& layer = correctives_[index];
    std::optional<double> host;
    if (layer.slot >= 0 && static_cast<std::size_t>(layer.slot) < correctiveWeights_.size())
        host = correctiveWeights_[static_cast<std::size_t>(layer.slot)];
    return correctiveWeight(layer, frame, host);
}

// ---- Time, preview, controls -----------------------------------------------------------------

void GroomSession::setTime(double frame) {
    if (frame == time_) return;
    time_ = frame;
    touch();
}

void GroomSession::setViewport(bool viewport) {
    if (viewport == viewport_) return;
    viewport_ = viewport;
    touch();
}

void GroomSession::setPreviewDensity(double density) {
    density = std::isfinite(density) ? std::clamp(density, 0.0, 1.0) : 1.0;
    if (density == previewDensity_) return;
    previewDensity_ = density;
    touch();
}

void GroomSession::setPreviewPointBudget(double points) {
    if (!std::isfinite(points) || points < 0.0) points = 0.0;
    if (points == previewPointBudget_) return;
    previewPointBudget_ = points;
    touch();
}

void GroomSession::setControl(const std::string& name, double value) {
    const auto found = controls_.find(name);
    if (found != controls_.end() && found->second == value) return;
    controls_[name] = value;
    touch();
}

void GroomSession::removeControl(const std::string& name) {
    if (controls_.erase(name) != 0) touch();
}

void GroomSession::setFollowScalp(bool follow) {
    if (follow == followScalp_) return;
    followScalp_ = follow;
    touch();
}

// ---- Scale reference -------------------------------------------------------------------------

void GroomSession::setScaleMode(ScaleMode mode) {
    if (mode == scaleMode_) return;
    scaleMode_ = mode;
    scaleMeasuredFor_ = 0;
    touch();
}

void GroomSession::setScaleReference(double reference) {
    if (!std::isfinite(reference) || reference < 0.0) reference = 0.0;
    if (reference == scaleReference_) return;
    scaleReference_ = reference;
    scaleMeasuredFor_ = 0;
    touch();
}

void GroomSession::setScaleMeasure(double measure) {
    if (measure == scaleMeasure_) return;
    scaleMeasure_ = measure;
    scaleMeasuredFor_ = 0;
    touch();
}

void GroomSession::measureScale(std::vector<SessionMessage>& messages) {
    // A followed scalp is measured at rest: its deformation is not a change of size.
    const std::shared_ptr<const ScalpMesh>& scalp =
        followScalp_ && restScalp_ && scalp_ &&
                restScalp_->topologySignature() == scalp_->topologySignature()
            ? restScalp_
            : scalp_;
    if (scaleMode_ == ScaleMode::Off || !scalp) {
        scaleFactor_ = 1.0;
        return;
    }
    // The area is measured once per scalp, not once per frame.
    const std::uint64_t measuredFor = scalp->contentSignature() | 1;
    if (measuredFor == scaleMeasuredFor_) return;
    scaleMeasuredFor_ = measuredFor;
    scaleArea_ = surfaceArea(*scalp);
    const bool automatic = scaleMode_ == ScaleMode::Automatic;
    const double measure = automatic ? scaleArea_ : scaleMeasure_;
    if (!std::isfinite(measure) || !(measure > 0.0)) {
        // Nothing to measure by (a measured mode before the host's first measure): no scale.
        scaleFactor_ = 1.0;
        return;
    }
    const bool hadReference = scaleReference_ > 0.0;
    if (!hadReference) scaleReference_ = measure;
    double factor = automatic ? std::sqrt(measure / scaleReference_) : measure / scaleReference_;
    if (!std::isfinite(factor) || !(factor > 0.0)) factor = 1.0;
    if (std::abs(factor - 1.0) <= kScaleTolerance) factor = 1.0;
    if (automatic && hadReference && std::abs(factor / scaleFactor_ - 1.0) > kScaleTolerance) {
        char text[200];
        std::snprintf(text, sizeof text,
                      "Velmorin: the scalp's area changed %.0f%%: the groom scaled x%.2f. Set "
                      "Scale Reference to keep its sizes.",
                      (measure / scaleReference_ - 1.0) * 100.0, factor);
        messages.push_back({text, {}});
    }
    scaleFactor_ = factor;
}

// ---- Evaluation ------------------------------------------------------------------------------

void GroomSession::waitDetached() {
    if (!detached_) return;
    std::unique_ptr<DetachedEvaluation> run = std::move(detached_);
    run->wait();
    const DetachedEvaluation::Counters counters = run->counters();
    detachedCounters_.evaluations += counters.evaluations;
    detachedCounters_.incrementalRuns += counters.incrementalRuns;
    detachedCounters_.cacheEvictions += counters.cacheEvictions;
    if (Graph* g = graph()) run->adoptInto(*g);
    // The run is gone after this, so its failure surfaces once.
    if (const std::exception_ptr failure = run->failure()) std::rethrow_exception(failure);
}

void GroomSession::prepareFollow(std::vector<SessionMessage>&) {
    follow_.prepare(followScalp_ ? restScalp_ : nullptr, scalp_);
}

void GroomSession::updateActiveHierarchy(double frame) {
    if (!hierarchy_) {
        posed_ = active_ = nullptr;
        posedKey_ = activeKey_ = 0;
        return;
    }
    const std::shared_ptr<const ScalpMesh>& scalp = growthScalp();
    std::uint64_t posedKey = hashCombine(hierarchyKey_, scalp ? scalp->contentSignature() : 0);
    posedKey = hashCombine(posedKey, doubleBits(scaleFactor_));
    if (!posed_ || posedKey != posedKey_) {
        if (scalp) checkGuidesFitScalp(*hierarchy_, *scalp, "guideData: ");
        auto posed = std::make_shared<GuideHierarchy>(*hierarchy_);
        if (scaleFactor_ != 1.0) posed->setScale(static_cast<float>(posed->scale() * scaleFactor_));
        if (scalp && scalp->triangleCount() > 0) posed->pose(*scalp);
        posed_ = std::move(posed);
        posedKey_ = posedKey;
    }
    // The layers that weigh something on this frame, with their weights, make the key: frames
    // outside every fade share the posed hierarchy itself.
    std::uint64_t key = posedKey_;
    std::vector<std::pair<std::size_t, float>> weights;
    for (std::size_t i = 0; i < correctives_.size(); ++i) {
        const auto weight = static_cast<float>(correctiveWeightAt(i, frame));
        if (weight == 0.0f || correctives_[i].offsets.empty()) continue;
        weights.emplace_back(i, weight);
        key = hashCombine(hashCombine(key, correctiveHashes_[i]), floatBits(weight));
    }
    if (active_ && key == activeKey_) return;
    if (weights.empty()) {
        active_ = posed_;
    } else {
        auto corrected = std::make_shared<GuideHierarchy>(*posed_);
        std::vector<Guide> one(1);
        for (const auto& [index, weight] : weights) {
            for (const auto& [id, offsets] : correctives_[index].offsets) {
                const Guide* guide = corrected->findGuide(id);
                if (!guide || guide->points.size() != offsets.size()) continue;
                one[0].id = id;
                one[0].points = guide->points;
                one[0].frameUp = guide->frameUp;
                applyGuideOffsets(one, correctives_[index].offsets, weight);
                corrected->setPoints(id, std::move(one[0].points));
            }
        }
        active_ = std::move(corrected);
    }
    activeKey_ = key;
}

std::shared_ptr<SceneInputs> GroomSession::prepareFrame(double frame,
                                                        std::vector<SessionMessage>& messages) {
    measureScale(messages);
    prepareFollow(messages);
    updateActiveHierarchy(frame);

    auto inputs = std::make_shared<SceneInputs>();
    auto put = [&](std::string name, Value value, std::uint64_t key) {
        if (!value.empty()) (*inputs)[std::move(name)] = SceneInput{std::move(value), key};
    };
    const std::shared_ptr<const ScalpMesh>& scalp = growthScalp();
    if (scalp) put(std::string(kScalpInput), scalp, scalp->contentSignature());
    if (restScalp_) put(std::string(kRestScalpInput), restScalp_, restScalp_->contentSignature());
    put(std::string(kScalpHistoryInput), scalpHistory_, historyKey_);
    put(std::string(kHierarchyInput), active_, activeKey_);
    put(std::string(kGuidesInput), flatGuides_, guidesKey_);
    put(std::string(kMapsInput), catalog_, mapsKey_);
    // Interpolate respects one part line: the first of the groom's parts.
    if (parts_ && !parts_->parts().empty())
        put(std::string(kPartsInput), std::make_shared<const PartLines>(parts_->parts().front()),
            partsKey_);
    if (flow_ && scalp) {
        const std::uint64_t key = FlowField::keyOf(*flow_, *scalp);
        if (!flowField_ || flowField_->key() != key) flowField_ = FlowField::build(*flow_, *scalp);
        put(std::string(kFlowSceneInput), flowField_, key);
    }
    for (const auto& [name, mesh] : colliders_)
        put(colliderInputName(name), mesh, mesh->contentSignature());
    for (const auto& [name, value] : controls_) {
        auto uniform = std::make_shared<UniformValue>();
        uniform->value = value;
        const std::uint64_t key = uniform->key();
        put(controlInputName(name), std::shared_ptr<const UniformValue>(std::move(uniform)), key);
    }
    for (const auto& [name, layer] : sculptLayers_)
        put(sculptInputName(name), layer.edits, layer.key);
    return inputs;
}

EvalContext GroomSession::contextFor(const FrameRequest& request, const SceneInputs* inputs) const {
    EvalContext ctx;
    ctx.time = request.time;
    ctx.viewport = request.viewport;
    ctx.sceneInputs = inputs;
    ctx.previewDensity = request.viewport ? previewDensity_ : 1.0;
    ctx.previewPointBudget = request.viewport ? previewPointBudget_ : 0.0;
    return ctx;
}

std::uint32_t GroomSession::requestedNode(const FrameRequest& request) const {
    const Graph& g = *graph();
    const std::string& name = !request.node.empty() ? request.node
                              : request.viewport    ? viewNode_
                                                    : request.node;
    if (!name.empty()) {
        const std::uint32_t id = findNode(g, name);
        if (id != 0) return id;
        if (!request.node.empty())
            throw std::invalid_argument("the graph has no node named '" + name + "'");
    }
    return g.outputNode();
}

std::shared_ptr<const GroomFrame> GroomSession::evaluate() {
    FrameRequest request;
    request.time = time_;
    request.viewport = viewport_;
    return evaluate(request);
}

std::shared_ptr<const GroomFrame> GroomSession::evaluate(const FrameRequest& request) {
    waitDetached();
    setTime(request.time);
    setViewport(request.viewport);
    Graph* g = graph();
    if (!g) return nullptr;
    std::vector<SessionMessage> messages;
    std::shared_ptr<SceneInputs> inputs = prepareFrame(request.time, messages);
    // What the preparation said (a scale change) goes out even when the graph then fails.
    messages_.insert(messages_.end(), messages.begin(), messages.end());
    messages.clear();
    const std::uint32_t node = requestedNode(request);
    if (node == 0) return nullptr;
    auto frame = std::make_shared<GroomFrame>();
    frame->context = contextFor(request, inputs.get());
    frame->outputs = g->evaluate(node, frame->context);
    frame->time = request.time;
    frame->viewport = request.viewport;
    frame->node = g->node(node).name;
    frame->sceneInputs = inputs;
    // Grown on the rest scalp while following: carried onto the scalp of the frame.
    for (Value& value : frame->outputs)
        value = follow_.carry(value);
    for (const Value& value : frame->outputs)
        if (auto strands = value.get<StrandSet>()) {
            frame->strands = std::move(strands);
            break;
        }
    // The guides as the graph's Guides node made them.
    g->forEachActiveUpstream(node, [&](const std::string& name, const Operator& op) {
        if (op.type() != "Guides") return true;
        const std::vector<Value>& results = g->cachedResults(g->nodeId(name));
        if (!results.empty()) frame->guides = follow_.carry(results[0]).get<GuideSet>();
        return !frame->guides;
    });
    frame->serial = ++frames_;
    lastReads_ = inputs->size();
    // A note goes out once, when it is new: a playback does not repeat a node's warning on every
    // frame.
    std::map<std::string, std::string> notes;
    for (const auto& [id, note] : g->notes) {
        if (!g->hasNode(id)) continue;
        const std::string& name = g->node(id).name;
        const auto last = lastNotes_.find(name);
        if (last == lastNotes_.end() || last->second != note) messages.push_back({note, name});
        notes[name] = note;
    }
    lastNotes_ = std::move(notes);
    messages_.insert(messages_.end(), messages.begin(), messages.end());
    frame_ = std::move(frame);
    frameEdits_ = edits_;
    return frame_;
}

void GroomSession::startDetached(const FrameRequest& request) {
    Graph* g = graph();
    if (!g) return;
    std::vector<SessionMessage> messages;
    std::shared_ptr<SceneInputs> inputs = prepareFrame(request.time, messages);
    messages_.insert(messages_.end(), messages.begin(), messages.end());
    const std::uint32_t node = requestedNode(request);
    if (node == 0) return;
    // The run snapshots the scene inputs before this returns, so the table may go.
    detached_ = DetachedEvaluation::start(*g, node, contextFor(request, inputs.get()),
                                          std::move(detached_));
}

std::vector<Value> GroomSession::evaluateDetached(const FrameRequest& request) {
    Graph* g = graph();
    if (!g) return {};
    std::vector<SessionMessage> messages;
    std::shared_ptr<SceneInputs> inputs = prepareFrame(request.time, messages);
    const std::uint32_t node = requestedNode(request);
    if (node == 0) return {};
    std::unique_ptr<DetachedEvaluation> run =
        DetachedEvaluation::start(*g, node, contextFor(request, inputs.get()));
    return run->results();
}

std::vector<SessionMessage> GroomSession::takeMessages() {
    return std::exchange(messages_, {});
}

// ---- Sculpting -------------------------------------------------------------------------------

std::uint32_t GroomSession::sculptNode(const std::string& name) const {
    const Graph* g = graph();
    if (!g) throw std::invalid_argument("the groom has no graph");
    const std::uint32_t id = findNode(*g, name);
    if (id == 0) throw std::invalid_argument("the graph has no node named '" + name + "'");
    const std::string type = g->operatorOf(id).type();
    if (type != "Sculpt")
        throw std::invalid_argument("node '" + name + "' is a " + type + ", not a Sculpt node");
    return id;
}

std::shared_ptr<const GuideSet> GroomSession::evaluateSculptInput(std::uint32_t id) {
    Graph& g = *graph();
    const GraphNode& node = g.node(id);
    const std::string fedNothing = "Sculpt node '" + node.name + "' is fed no guides";
    if (node.inputs.empty() || node.inputs[0] == 0) throw std::invalid_argument(fedNothing);
    waitDetached();
    std::vector<SessionMessage> messages;
    std::shared_ptr<SceneInputs> inputs = prepareFrame(time_, messages);
    messages_.insert(messages_.end(), messages.begin(), messages.end());
    FrameRequest request;
    request.time = time_;
    request.viewport = viewport_;
    const EvalContext ctx = contextFor(request, inputs.get());
    const std::vector<Value> results = g.evaluate(node.inputs[0], ctx);
    const std::size_t slot = node.slots.empty() ? 0 : static_cast<std::size_t>(node.slots[0]);
    auto guides = slot < results.size() ? results[slot].get<GuideSet>() : nullptr;
    if (!guides) throw std::invalid_argument(fedNothing);
    return guides;
}

std::shared_ptr<const GuideSet> GroomSession::sculptInput(const std::string& name) {
    // Shown where the scalp is now, as the sculpting tools see the guides.
    return follow_.carry(evaluateSculptInput(sculptNode(name))).get<GuideSet>();
}

void GroomSession::sculpt(const std::string& name, const GuideSet& sculpted, float strength) {
    const std::uint32_t id = sculptNode(name);
    const Operator& op = graph()->operatorOf(id);
    const float total = strength * static_cast<float>(op.paramSet.getFloat("strength", 1.0));
    if (!(std::fabs(total) > 0.001f))
        throw std::invalid_argument("the Sculpt node's strength is 0: raise it to sculpt");
    const std::shared_ptr<const GuideSet> input = evaluateSculptInput(id);
    std::unordered_map<std::uint64_t, const Guide*> byId;
    for (const Guide& guide : input->guides)
        byId.emplace(guide.id, &guide);
    const std::string layer = op.paramSet.getString("layer", std::string(kDefaultSculptLayer));
    const auto found = sculptLayers_.find(layer);
    SculptEdits edits = found == sculptLayers_.end() ? SculptEdits() : *found->second.edits;
    // Every guide is checked before anything is stored. Brushed where the scalp is now, they are
    // taken back to where the graph grows them.
    std::vector<Guide> back = sculpted.guides;
    follow_.uncarry(back);
    GuideOffsets made;
    for (const Guide& guide : back) {
        const auto in = byId.find(guide.id);
        if (in == byId.end()) continue;
        made[guide.id] = sculptOffsets(*in->second, guide.points, total);
    }
    for (auto& [guide, offsets] : made)
        edits.guides[guide] = std::move(offsets);
    setSculptData(layer, edits.toJson());
}

void GroomSession::sculptCorrective(const std::string& layer, const GuideSet& sculpted) {
    std::size_t index = correctives_.size();
    for (std::size_t i = 0; i < correctives_.size(); ++i)
        if (correctives_[i].name == layer) index = i;
    if (index == correctives_.size())
        throw std::invalid_argument("no corrective layer named '" + layer + "'");
    const auto weight = static_cast<float>(correctiveWeightAt(index, time_));
    if (weight == 0.0f)
        throw std::invalid_argument("corrective layer '" + layer +
                                    "' has no weight on this frame: raise its weight (and key "
                                    "it) to sculpt here");
    waitDetached();
    std::vector<SessionMessage> messages;
    prepareFrame(time_, messages);
    messages_.insert(messages_.end(), messages.begin(), messages.end());
    if (!posed_)
        throw std::invalid_argument("corrective layer '" + layer +
                                    "': the groom has no guides to sculpt");
    // The input of this layer: the posed guides with the layers before it at this frame.
    std::vector<Guide> inputs;
    for (const Guide& guide : sculpted.guides)
        if (const Guide* posed = posed_->findGuide(guide.id)) inputs.push_back(*posed);
    for (std::size_t i = 0; i < index; ++i) {
        const auto before = static_cast<float>(correctiveWeightAt(i, time_));
        applyGuideOffsets(inputs, correctives_[i].offsets, before);
    }
    std::unordered_map<std::uint64_t, const Guide*> byId;
    for (const Guide& guide : inputs)
        byId.emplace(guide.id, &guide);
    std::vector<Guide> back = sculpted.guides;
    follow_.uncarry(back);
    GuideOffsets made;
    for (const Guide& guide : back) {
        const auto in = byId.find(guide.id);
        if (in == byId.end()) continue;
        made[guide.id] = sculptOffsets(*in->second, guide.points, weight);
    }
    std::vector<CorrectiveLayer> layers = correctives_;
    for (auto& [guide, offsets] : made)
        layers[index].offsets[guide] = std::move(offsets);
    setCorrectiveData(correctiveLayersToJson(layers));
}

}  // namespace velmorin
