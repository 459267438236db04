#pragma once
// GroomSession: the one object a host drives. It owns a groom's graph document and everything the
// graph reads that does not live in the graph: the scalp and its history, the rest scalp,
// colliders, guide data, painted maps, parts, flow, corrective layers and sculpt layers, the time
// and the preview settings. The host tells it what changed through the setters, asks it for a
// frame, and gets strands, guides, statistics and messages back, without knowing that a graph
// exists.
//
// Setters compare what they are given with what the session holds (meshes by content signature,
// texts by their text, numbers by value) and raise `edits` only on a real change; an equal value
// leaves the stored object in place, so that nothing downstream evaluates again. Bad input throws
// with the input's name in front ("scalp: ", "guideData: ", "correctiveData: "...) and changes
// nothing: the session keeps its last good state and its last good frame.
//
// Threads: one host thread drives a session. A detached evaluation runs on a clone of the graph
// and a snapshot of the scene inputs; the next evaluate waits for it.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/vec3.h"
#include "editing/flow.h"
#include "editing/guide_hierarchy.h"
#include "editing/parts.h"
#include "editing/sculpt_layers.h"
#include "graph/detached_evaluation.h"
#include "graph/eval_context.h"
#include "graph/graph.h"
#include "graph/value.h"
#include "maps/scalp_maps.h"
#include "mesh/scalp_history.h"
#include "mesh/scalp_mesh.h"
#include "session/follow_carry.h"
#include "strands/guide.h"

namespace velmorin {

class StrandSet;
struct MapCatalogValue;

// A text for the user, made during an evaluation and taken by the host, which shows it its own
// way. `node` names the graph node it is about, or is empty for the groom as a whole.
struct SessionMessage {
    std::string text;
    std::string node;
};

// How the groom's uniform scale follows its scalp: from the scalp's surface area against a
// reference area, from a measure the host takes (the transform's scale) against a reference
// measure, or not at all.
enum class ScaleMode : int { Automatic = 0, Measured = 1, Off = 2 };

// What the host asks an evaluation for.
struct FrameRequest {
    double time = 0.0;
    bool viewport = true;  // false for a render or an export
    std::string node;      // the node to evaluate; empty: the view node, else the graph's output
};

// The result of one evaluation, shared by reference with the viewport and the exporters and never
// changed once handed out.
struct GroomFrame {
    double time = 0.0;
    bool viewport = true;
    std::string node;                          // the node evaluated
    std::vector<Value> outputs;                // its results
    std::shared_ptr<const StrandSet> strands;  // its first output holding strands, or null
    // The guides as the graph's Guides node saw them (posed on the scalp, correctives applied), or
    // null where the graph reads no guides.
    std::shared_ptr<const GuideSet> guides;
    // The scene inputs the evaluation read, and its context (whose sceneInputs points at them).
    std::shared_ptr<const SceneInputs> sceneInputs;
    EvalContext context;
    std::uint64_t serial = 0;  // the session's evaluation count when it was made
};

// The session's statistics: what the last evaluation made, how it ran and what the session
// holds. toJson gives every key in a fixed order; keys about parts of the groom this session has
// no node for are zero, false or empty.
struct GroomStats {
    std::string view;  // the node evaluated
    std::uint64_t strands = 0, points = 0, guides = 0;
    std::uint64_t cards = 0, cardStrands = 0, cardTriangles = 0, cardTextures = 0, cardFeathers = 0;
    bool cardsBaked = false, cardsStale = false;
    std::uint64_t triangles = 0, textures = 0, feathers = 0;
    bool stale = false;  // the frame shown is older than the session's inputs
    std::uint64_t cardNodes = 0;
    nlohmann::ordered_json hairColor;   // the HairColor node's params, or null
    nlohmann::ordered_json renderData;  // the RenderData node's params, or null
    std::uint64_t colorNodes = 0, colorBlends = 0;
    std::map<std::string, double> times;       // node name -> ms of its last run
    std::map<std::string, std::string> runs;   // node name -> how it ran
    std::vector<std::string> channels;         // channels of the strands
    std::map<std::string, std::string> notes;  // node name -> its warnings
    std::uint64_t frames = 0;                  // evaluations of this session
    std::uint64_t reads = 0;                   // scene inputs handed to the last evaluation
    std::uint64_t scalpHistory = 0;
    std::uint64_t instances = 0;
    std::uint64_t restEvaluations = 0;
    std::uint64_t distanceFieldsMade = 0;
    std::uint64_t cacheBytes = 0;
    std::uint64_t cacheEvictions = 0;
    bool strokeDocument = false;
    bool live = false, baked = false, bakeStale = false;
    double bakedFirst = 0.0, bakedLast = 0.0;
    std::string bakedFile;
    double stepMs = 0.0;
    std::uint64_t simulations = 0;

    // "view", "strands", "points", "guides", "cards", "cardStrands", "cardTriangles",
    // "cardTextures", "cardFeathers", "cardsBaked", "cardsStale", "triangles", "textures",
    // "feathers", "stale", "cardNodes", "hairColor", "renderData", "colorNodes", "colorBlends",
    // "times", "runs", "channels", "notes", "frames", "reads", "scalpHistory", "instances",
    // "restEvaluations", "distanceFieldsMade", "cacheBytes", "cacheEvictions", "strokeDocument",
    // "live", "baked", "bakeStale", "bakedFirst", "bakedLast", "bakedFile", "stepMs",
    // "simulations".
    nlohmann::ordered_json toJson() const;
};

// The look the viewport's hair shader draws with, read off the graph's colour nodes (the first
// active HairColor, RenderData and iridescent FeatherColor upstream of the output). A graph with no
// HairColor gives the HairColor defaults. Mapped params give their unmapped value: the shader takes
// one look for the groom and the strands' own colours from their channels.
struct HairLook {
    float melanin = 0.5f, specular = 0.3f, roughness = 0.2f;
    float specularRandom = 0.0f, roughnessRandom = 0.0f;
    float tilt = 3.0f;              // cuticle tilt, degrees
    bool colorsByRgb = false;       // HairColor in color mode: the channels are the colour itself
    std::uint64_t colorBlends = 0;  // Bands and FeatherColor nodes painting over HairColor
    bool iridescent = false;
    Vec3f iridescenceColor{0.1f, 0.6f, 0.4f};
    float iridescenceShift = 0.25f;
    // The shader's lobes: x the longitudinal width from the roughness (d'Eon et al. 2011 as
    // Chiang et al. 2016 fit it), y the azimuthal spread, z the cuticle tilt in radians, w the
    // fibre's index of refraction.
    std::array<float, 4> lobes{};
    float specularTint = 1.0f;        // specular over aiStandardHair's full tint of 0.3, at most 1
    float azimuthalRoughness = 0.2f;  // HairColor has one roughness: it serves both directions
    float shift = 0.0f;               // the primary highlight's shift along the strand, radians
    nlohmann::ordered_json hairColorParams;   // the HairColor node's params, or null
    nlohmann::ordered_json renderDataParams;  // the RenderData node's params, or null
    std::vector<std::string> colorNodes;      // the colour nodes' names, output first

    // "melanin", "specular", "roughness", "specularRandom", "roughnessRandom", "tilt",
    // "colorsByRgb", "colorBlends", "iridescent", "iridescenceColor", "iridescenceShift", "lobes",
    // "specularTint", "azimuthalRoughness", "shift", "hairColorParams", "renderDataParams",
    // "colorNodes".
    nlohmann::ordered_json toJson() const;
};

// The scene inputs a session hands the graph, besides kScalpInput and kMapsInput.
inline constexpr std::string_view kRestScalpInput = "restScalp";
inline constexpr std::string_view kScalpHistoryInput = "scalpHistory";
inline constexpr std::string_view kHierarchyInput = "hierarchy";
inline constexpr std::string_view kGuidesInput = "guides";
inline constexpr std::string_view kPartsInput = "parts";
inline constexpr std::string_view kFlowSceneInput = "flow";
// "collider:" + name for each collider, "control:" + name for each control (controlInputName),
// "sculpt:" + layer for each sculpt layer (sculptInputName).
std::string colliderInputName(std::string_view collider);
// The sculpt layer the host's one sculpt data text fills.
inline constexpr std::string_view kDefaultSculptLayer = "sculpt";

class GroomSession {
  public:
    GroomSession();
    ~GroomSession();
    GroomSession(const GroomSession&) = delete;
    GroomSession& operator=(const GroomSession&) = delete;

    // ---- The graph ----------------------------------------------------------------------------
    // Loads graph JSON into a new document, which starts with no results; the same text again
    // does nothing. Throws the graph's SchemaError or GraphError with "graph: " in front, and then
    // the session keeps the document it had.
    void setGraph(std::string_view json);
    // The text last set; empty before any.
    const std::string& graphText() const { return graphText_; }
    // The document's graph as it stands now (after edits through graph()): its JSON.
    std::string graphJson() const;
    // The document, null until a graph is set. Edits made through graph() count from the next
    // evaluation; call markGraphEdited() so that `edits` says so.
    std::shared_ptr<const GraphDocument> document() const { return document_; }
    Graph* graph();
    const Graph* graph() const;
    void markGraphEdited();
    // The node a viewport evaluation shows instead of the graph's output (empty: the output).
    void setViewNode(std::string name);
    const std::string& viewNode() const { return viewNode_; }

    // ---- Scalps -------------------------------------------------------------------------------
    // The current scalp. A mesh of the stored content signature leaves the stored one in place.
    // Throws std::invalid_argument "scalp: point N is not a finite number (NaN or infinity): clean
    // up the mesh and hand it in again" and changes nothing. Null clears the scalp.
    void setScalp(std::shared_ptr<const ScalpMesh> scalp);
    std::shared_ptr<const ScalpMesh> scalp() const { return scalp_; }
    // New positions for the current scalp's points, topology kept. Throws std::invalid_argument
    // "updateScalpPoints: the session has no scalp", "updateScalpPoints: n points for a scalp of
    // m", and the not-finite message above with "updateScalpPoints: " in front.
    void updateScalpPoints(std::vector<Vec3f> points);
    // The undeformed scalp; the same rules with "restScalp: " in front.
    void setRestScalp(std::shared_ptr<const ScalpMesh> rest);
    std::shared_ptr<const ScalpMesh> restScalp() const { return restScalp_; }
    // The scalp at an earlier frame, for nodes that look back; the same rules with "scalpHistory: "
    // in front. Null removes that frame.
    void setScalpAt(double frame, std::shared_ptr<const ScalpMesh> scalp);
    void clearScalpHistory();
    std::shared_ptr<const ScalpHistory> scalpHistory() const { return scalpHistory_; }

    // ---- Colliders ----------------------------------------------------------------------------
    // A collider mesh by name, for ColliderMesh nodes; null removes it. The same mesh rules, with
    // "collider 'name': " in front.
    void setCollider(const std::string& name, std::shared_ptr<const ScalpMesh> mesh);
    void clearColliders();
    const std::map<std::string, std::shared_ptr<const ScalpMesh>>& colliders() const {
        return colliders_;
    }

    // ---- Guides -------------------------------------------------------------------------------
    // Guide data JSON (editing/guide_hierarchy.h). Throws SchemaError "guideData: " and the
    // reader's words; std::invalid_argument "guideData: guide G is bound to face F, but the scalp
    // has only T triangles: ..." for guides bound to faces the current scalp does not have.
    void setGuideData(std::string_view json);
    const std::string& guideData() const { return guideText_; }
    // The hierarchy read from the guide data (never posed), or null.
    std::shared_ptr<const GuideHierarchy> hierarchy() const { return hierarchy_; }
    // An edited hierarchy in place of the guide data: the text becomes its toJson. The same face
    // check as setGuideData.
    void setHierarchy(std::shared_ptr<const GuideHierarchy> hierarchy);
    // The hierarchy the graph's Guides node works on: posed on the current scalp, with the
    // corrective layers of the last evaluated frame applied. Null before an evaluation.
    std::shared_ptr<const GuideHierarchy> activeHierarchy() const { return active_; }
    // Live guide curves (the Guides node's flat input), compared by pointer; null removes them.
    void setGuides(std::shared_ptr<const GuideSet> guides);
    std::shared_ptr<const GuideSet> guides() const { return flatGuides_; }

    // ---- Maps, parts, flow --------------------------------------------------------------------
    // Scalp maps JSON (maps/scalp_maps.h); "scalpMaps: " in front of the reader's words.
    void setScalpMaps(std::string_view json);
    const std::string& scalpMapsText() const { return mapsText_; }
    std::shared_ptr<const ScalpMaps> scalpMaps() const { return maps_; }
    // Part data JSON (editing/parts.h); "partData: " in front.
    void setPartData(std::string_view json);
    const std::string& partData() const { return partText_; }
    std::shared_ptr<const PartSet> parts() const { return parts_; }
    // Flow data JSON (editing/flow.h); "flowData: " in front.
    void setFlowData(std::string_view json);
    const std::string& flowData() const { return flowText_; }
    std::shared_ptr<const FlowSet> flow() const { return flow_; }

    // ---- Sculpt layers and correctives --------------------------------------------------------
    // Sculpt data JSON of a sculpt layer (the Sculpt nodes whose `layer` names it read it); the
    // one-argument form fills kDefaultSculptLayer. Empty text removes the layer. "sculptData: " in
    // front of the reader's words.
    void setSculptData(std::string_view json);
    void setSculptData(const std::string& layer, std::string_view json);
    // The text of a layer, empty when it has none.
    std::string sculptData(std::string_view layer = kDefaultSculptLayer) const;
    std::map<std::string, std::shared_ptr<const SculptEdits>> sculptLayers() const;
    // Corrective data JSON (editing/sculpt_layers.h); "correctiveData: " in front.
    void setCorrectiveData(std::string_view json);
    const std::string& correctiveData() const { return correctiveText_; }
    const std::vector<CorrectiveLayer>& correctiveLayers() const { return correctives_; }
    // The host's keyed weight of each corrective slot (a layer's `slot` indexes it).
    void setCorrectiveWeights(std::vector<float> weights);
    const std::vector<float>& correctiveWeights() const { return correctiveWeights_; }
    // What corrective layer `index` weighs on a frame, with the host's weights.
    double correctiveWeightAt(std::size_t index, double frame) const;

    // Sculpting. The guides that node `name`, a Sculpt node, is fed at the current frame (the
    // graph evaluated up to its input). Throws std::invalid_argument "the groom has no graph", "the
    // graph has no node named 'n'", "node 'n' is a T, not a Sculpt node", "Sculpt node 'n' is fed
    // no guides".
    std::shared_ptr<const GuideSet> sculptInput(const std::string& name);
    // Records `sculpted` (guides by id, each with its input's point count) as offsets of the
    // Sculpt node's layer against its input: inverseFrame * (sculpted - input) / strength, where
    // strength is `strength` times the node's own. Guides of the input that `sculpted` leaves out
    // keep their offsets. The rules of sculptInput, and "the Sculpt node's strength is 0: raise it
    // to sculpt", "a sculpted guide has another point count than its input".
    void sculpt(const std::string& name, const GuideSet& sculpted, float strength = 1.0f);
    // Records `sculpted` as the offsets of corrective layer `layer` at the current frame, against
    // the guides as the layers before it leave them, divided by the layer's weight here. Throws
    // std::invalid_argument "no corrective layer named 'n'", "corrective layer 'n' has no weight
    // on this frame: raise its weight (and key it) to sculpt here", and the point count rule.
    void sculptCorrective(const std::string& layer, const GuideSet& sculpted);

    // ---- Time, preview, controls --------------------------------------------------------------
    void setTime(double frame);
    double time() const { return time_; }
    void setViewport(bool viewport);
    bool viewport() const { return viewport_; }
    // Share of strands evaluated, 0 to 1 (clamped).
    void setPreviewDensity(double density);
    double previewDensity() const { return previewDensity_; }
    // Most points a viewport preview holds; 0 or less: none.
    void setPreviewPointBudget(double points);
    double previewPointBudget() const { return previewPointBudget_; }
    // A host control's number ("control:" + name for keyed params, Control nodes, expressions).
    void setControl(const std::string& name, double value);
    void removeControl(const std::string& name);
    const std::map<std::string, double>& controls() const { return controls_; }
    // Whether the groom rides a deforming scalp: with a rest scalp of the same topology, the graph
    // grows on the rest scalp and what it makes is carried onto the current one (FollowCarry), so
    // a deforming scalp costs a carry instead of a new groom. Off, the groom grows on the current
    // scalp itself.
    void setFollowScalp(bool follow);
    bool followScalp() const { return followScalp_; }

    // ---- Scale reference ----------------------------------------------------------------------
    void setScaleMode(ScaleMode mode);
    ScaleMode scaleMode() const { return scaleMode_; }
    // The reference: an area in automatic mode, a measure in measured mode. 0 or less: taken from
    // the first measure.
    void setScaleReference(double reference);
    double scaleReference() const { return scaleReference_; }
    // The host's measure for measured mode (the transform's scale).
    void setScaleMeasure(double measure);
    double scaleMeasure() const { return scaleMeasure_; }
    // The scale the groom follows now (1 when off or unknown), and the scalp's area it measured.
    double scaleFactor() const { return scaleFactor_; }
    double scaleArea() const { return scaleArea_; }

    // ---- Evaluation ---------------------------------------------------------------------------
    // Raised by every setter that changed something.
    std::uint64_t edits() const { return edits_; }
    // Brings the session to the request's frame and returns the frame result: null with no graph
    // (and no error). Waits for a running detached evaluation first and throws its failure, once.
    // A GraphError passes to the caller and the last good frame stays; so does the guide data's
    // face check (see setGuideData) when a new scalp lacks faces the guides say they are bound to.
    // A request naming a node the graph does not have throws std::invalid_argument "the graph has
    // no node named 'n'"; a view node that has gone shows the output instead.
    std::shared_ptr<const GroomFrame> evaluate(const FrameRequest& request);
    // evaluate at the session's own time and viewport flag.
    std::shared_ptr<const GroomFrame> evaluate();
    // The last good frame, or null.
    std::shared_ptr<const GroomFrame> frame() const { return frame_; }
    // Starts an evaluation of the request on a clone of the graph, on a thread of its own; it
    // follows a detached evaluation still running. The next evaluate waits for it and takes its
    // results over. Does nothing with no graph.
    void startDetached(const FrameRequest& request);
    bool detachedRunning() const { return detached_ != nullptr; }
    // An evaluation at another time that leaves the live session untouched (a host's pull for
    // another frame): runs on a clone and waits for it.
    std::vector<Value> evaluateDetached(const FrameRequest& request);

    // Messages of the evaluations since the last take, in order.
    std::vector<SessionMessage> takeMessages();

    // ---- Queries ------------------------------------------------------------------------------
    GroomStats stats() const;
    nlohmann::ordered_json statsJson() const { return stats().toJson(); }
    // The look of the graph's colour nodes, for the viewport's hair shader.
    HairLook hairLook() const;
    nlohmann::ordered_json hairLookJson() const { return hairLook().toJson(); }
    // Whether an active node of that type reaches the output.
    bool hasCardsNode() const;
    bool hasStrandMeshNode() const;
    // Whether any active node refines its strands with the view (re-evaluate when it changes).
    bool viewRefinesStrands() const;

    // The lock that serialises evaluation with work from other threads (an asynchronous stroke
    // commit). The session's own calls do not take it: the host does, around them.
    std::recursive_mutex& lock() { return mutex_; }

  private:
    void touch() { ++edits_; }
    // The catalog of maps as the graph sees it: the painted maps and the layers painted on the
    // guides; replaced only when what it holds changed.
    void refreshCatalog();
    void measureScale(std::vector<SessionMessage>& messages);
    void waitDetached();
    void prepareFollow(std::vector<SessionMessage>& messages);
    void updateActiveHierarchy(double frame);
    // The steps of evaluate before the graph runs: the scale, the follow state, the active
    // hierarchy and the scene-input table for the request's frame.
    std::shared_ptr<SceneInputs> prepareFrame(double frame, std::vector<SessionMessage>& messages);
    std::uint32_t requestedNode(const FrameRequest& request) const;
    std::uint32_t sculptNode(const std::string& name) const;
    EvalContext contextFor(const FrameRequest& request, const SceneInputs* inputs) const;
    std::shared_ptr<const GuideSet> evaluateSculptInput(std::uint32_t id);
    // The scalp the graph grows on: the rest scalp while the groom follows a moving one.
    const std::shared_ptr<const ScalpMesh>& growthScalp() const {
        return follow_.active() ? restScalp_ : scalp_;
    }

    std::shared_ptr<GraphDocument> document_;
    std::string graphText_;
    std::string viewNode_;

    std::shared_ptr<const ScalpMesh> scalp_;
    std::shared_ptr<const ScalpMesh> restScalp_;
    std::shared_ptr<const ScalpHistory> scalpHistory_;
    std::map<std::string, std::shared_ptr<const ScalpMesh>> colliders_;

    std::string guideText_;
    std::shared_ptr<const GuideHierarchy> hierarchy_;
    std::uint64_t hierarchyKey_ = 0;
    std::shared_ptr<const GuideSet> flatGuides_;
    std::shared_ptr<const GuideHierarchy> posed_;  // hierarchy_ posed on scalp_
    std::uint64_t posedKey_ = 0;
    std::shared_ptr<const GuideHierarchy> active_;  // posed_ with the correctives of its frame
    std::uint64_t activeKey_ = 0;

    std::string mapsText_;
    std::shared_ptr<const ScalpMaps> maps_;
    std::shared_ptr<const MapCatalogValue> catalog_;
    std::string partText_;
    std::shared_ptr<const PartSet> parts_;
    std::string flowText_;
    std::shared_ptr<const FlowSet> flow_;
    std::shared_ptr<const FlowField> flowField_;
    std::uint64_t mapsKey_ = 0, partsKey_ = 0, flowKey_ = 0, guidesKey_ = 0, historyKey_ = 0;

    struct SculptLayer {
        std::string text;
        std::shared_ptr<const SculptEdits> edits;
        std::uint64_t key = 0;
    };
    std::map<std::string, SculptLayer, std::less<>> sculptLayers_;
    std::string correctiveText_;
    std::vector<CorrectiveLayer> correctives_;
    std::vector<std::uint64_t> correctiveHashes_;
    std::vector<float> correctiveWeights_;

    double time_ = 0.0;
    bool viewport_ = true;
    double previewDensity_ = 1.0;
    double previewPointBudget_ = 0.0;
    std::map<std::string, double> controls_;
    bool followScalp_ = false;
    FollowCarry follow_;

    ScaleMode scaleMode_ = ScaleMode::Automatic;
    double scaleReference_ = 0.0;
    double scaleMeasure_ = 0.0;
    double scaleFactor_ = 1.0;
    double scaleArea_ = 0.0;
    std::uint64_t scaleMeasuredFor_ = 0;  // the scalp signature the factor was measured on

    std::uint64_t edits_ = 0;
    std::uint64_t frames_ = 0;
    std::uint64_t restEvaluations_ = 0;
    std::uint64_t lastReads_ = 0;
    std::shared_ptr<const GroomFrame> frame_;
    std::uint64_t frameEdits_ = 0;  // `edits` when frame_ was made
    // The notes of the last evaluation by node name: a note goes out to the host when it is new.
    std::map<std::string, std::string> lastNotes_;
    std::unique_ptr<DetachedEvaluation> detached_;
    DetachedEvaluation::Counters detachedCounters_;
    std::vector<SessionMessage> messages_;
    std::recursive_mutex mutex_;
};

}  // namespace velmorin
