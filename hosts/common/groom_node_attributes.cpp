#include "common/groom_node_attributes.h"

#include <algorithm>
#include <array>
#include <limits>
#include <vector>

namespace velmorin {
namespace {

using A = AttributeType;

// One row, with the range and names added by the calls that follow it.
struct Row {
    NodeAttribute attribute;

    Row(std::string_view longName, std::string_view shortName, AttributeType type,
        std::string_view defaultValue, std::uint32_t flags, std::string_view meaning) {
        attribute.longName = longName;
        attribute.shortName = shortName;
        attribute.type = type;
        attribute.defaultValue = defaultValue;
        attribute.flags = flags;
        attribute.meaning = meaning;
    }
    Row& min(double v) { return attribute.min = v, *this; }
    Row& max(double v) { return attribute.max = v, *this; }
    Row& softMax(double v) { return attribute.softMax = v, *this; }
    Row& range(double low, double high) { return min(low).max(high); }
    Row& nice(std::string_view name) { return attribute.niceName = name, *this; }
    Row& fields(std::string_view text) { return attribute.enumFields = text, *this; }
    Row& child(std::string_view parent) { return attribute.parent = parent, *this; }
};

constexpr std::uint32_t kOut = kOutput | kNotStored;
constexpr std::uint32_t kMulti = kArray | kHidden | kDeleteOnDisconnect;

std::vector<NodeAttribute> makeAttributes() {
    std::vector<Row> rows = {
        Row("inMesh", "vmin", A::Mesh, "", kNotStored | kHidden, "Main scalp mesh"),
        Row("restMesh", "vmrm", A::Mesh, "", kNotStored | kHidden,
            "Undeformed scalp; must be the same mesh"),
        Row("followScalp", "vmfsc", A::Bool, "0", kNoKey, "Strands ride the deforming scalp")
            .nice("Follow Scalp"),
        Row("scalpTopology", "vmstp", A::String, "", kHidden,
            "Fingerprint of the scalp's topology"),
        Row("scaleSource", "vmssc", A::Enum, "0", kNoKey,
            "How the groom's uniform scale is measured")
            .fields("Surface Area=0:Transform Only=1:Off=2")
            .nice("Scale Source"),
        Row("scaleTransformReference", "vmstr", A::Double, "0", kNoKey | kHidden,
            "Scale of the transform at reference time")
            .min(0),
        Row("scaleReference", "vmsrf", A::Double, "0", kNoKey | kHidden,
            "Surface area at reference time")
            .min(0),
        Row("groomScale", "vmgsc", A::Double, "1", kOut, "Measured scale").nice("Groom Scale"),
        Row("scaleArea", "vmsar", A::Double, "0", kOut | kHidden, "Measured scalp area"),
        Row("scaleTransform", "vmstm", A::Double, "0", kOut | kHidden, "Measured transform scale"),
        Row("colliderMeshes", "vmcol", A::Compound, "", kMulti, "Collider meshes"),
        Row("colliderMesh", "vmclm", A::Mesh, "", kNotStored, "A collider").child("colliderMeshes"),
        Row("colliderName", "vmcln", A::String, "", 0, "Its name").child("colliderMeshes"),
        Row("colliderRestMesh", "vmclr", A::Mesh, "", kNotStored, "Its rest pose")
            .child("colliderMeshes"),
        Row("extraScalps", "vmxs", A::Compound, "", kMulti, "Further scalps"),
        Row("extraScalpMesh", "vmxsm", A::Mesh, "", kNotStored, "A scalp").child("extraScalps"),
        Row("extraScalpName", "vmxsn", A::String, "", 0, "Its name").child("extraScalps"),
        Row("extraScalpRestMesh", "vmxsr", A::Mesh, "", kNotStored, "Its rest pose")
            .child("extraScalps"),
        Row("simGuides", "vmsmg", A::Compound, "", kMulti, "Simulated guide curves"),
        Row("simCurve", "vmsmc", A::NurbsCurve, "", kNotStored, "A simulated curve")
            .child("simGuides"),
        Row("simGuideId", "vmsmi", A::String, "", 0, "The guide it drives").child("simGuides"),
        Row("guideCache", "vmgch", A::String, "", kFileName, "Alembic guide cache file"),
        Row("guideCacheObject", "vmgco", A::String, "", 0, "Object path in that file"),
        Row("simCaches", "vmsbk", A::String, "", kHidden, "Simulation bakes, by node (JSON)"),
        Row("transferMarkers", "vmtmk", A::String, "", kHidden, "Markers of a transfer"),
        Row("guideCurves", "vmgc", A::NurbsCurveArray, "",
            kNotStored | kHidden | kNotReadable | kArray | kDeleteOnDisconnect,
            "Live curves that drive guides"),
        Row("time", "vmtm", A::Time, "0", kNotStored, "Connected from time1"),
        Row("graph", "vmgr", A::String, "{}", 0, "Graph JSON"),
        Row("partData", "vmpt", A::String, "", kHidden, "Part data JSON"),
        Row("guideData", "vmgd", A::String, "", kHidden, "Guide data JSON"),
        Row("flowData", "vmfld", A::String, "", kHidden, "Flow data JSON"),
        Row("displayFlow", "vmdfl", A::Bool, "1", 0, "Draw flow arrows"),
        Row("correctiveData", "vmcrd", A::String, "", kHidden, "Corrective data JSON"),
        Row("correctiveWeight", "vmcw", A::FloatArray, "1", 0, "One weight per corrective")
            .min(0)
            .softMax(1),
        Row("sculptData", "vmscd", A::String, "", kHidden, "Sculpt data JSON"),
        Row("sculptNode", "vmsknd", A::String, "", 0, "The Sculpt node that paint strokes go to"),
        Row("shotLayer", "vmshl", A::String, "", 0, "Active shot layer"),
        Row("shotSculpt", "vmshs", A::Bool, "0", 0, "Brushing records a shot sculpt"),
        Row("displayInstances", "vmdi", A::Bool, "1", kChannelBox, "Draw instance geometry"),
        Row("locked", "vmlk", A::Bool, "0", kChannelBox, "The groom refuses brushing and editing"),
        Row("viewNode", "vmvn", A::String, "", 0,
            "View another graph node's output instead of Output"),
        Row("graphUi", "vmgu", A::String, "", kHidden, "Node editor layout"),
        Row("guideSelection", "vmgs", A::StringArray, "", kHidden, "Selected guide ids"),
        Row("softSelectRadius", "vmssr", A::Float, "0", kChannelBox,
            "Falloff of the guide selection, in scene units")
            .min(0)
            .softMax(2),
        Row("strandColorMode", "vmscm", A::Enum, "0", kChannelBox,
            "How strands are coloured in the viewport")
            .fields("solid=0:colorSet=1:attribute=2:random=3:clump=4:density=5"),
        Row("strandColorSource", "vmscs", A::String, "clumpId", 0,
            "Channel or colour set for attribute and colorSet"),
        Row("strandColorMin", "vmscn", A::Float, "0", 0, "Lower end of the colour ramp"),
        Row("strandColorMax", "vmscx", A::Float, "1", 0, "Upper end of the colour ramp"),
        Row("displayRibbons", "vmdr", A::Bool, "0", kChannelBox,
            "Draw camera-facing ribbons instead of lines"),
        Row("ribbonWidthScale", "vmrws", A::Float, "1", kChannelBox, "Width factor of ribbons")
            .min(0)
            .softMax(10),
        Row("displayWidthCoverage", "vmdwc", A::Bool, "1", 0, "Draw line width as coverage"),
        Row("displayCoverageDensity", "vmcvd", A::Bool, "1", 0,
            "Take preview density into coverage"),
        Row("displayClumpLod", "vmclo", A::Bool, "1", 0,
            "Group strands by clump for level of detail"),
        Row("clumpLodError", "vmcle", A::Float, "0.175", 0,
            "Allowed error of a level-of-detail class")
            .range(0.01, 0.45),
        Row("lodDistance", "vmlod", A::Bool, "0", 0, "Distance level of detail on"),
        Row("lodNear", "vmlnr", A::Float, "10", 0, "Distance of full density").min(0).softMax(100),
        Row("lodFar", "vmlfr", A::Float, "100", 0, "Distance of least density")
            .min(0)
            .softMax(1000),
        Row("lodMinDensity", "vmlmd", A::Float, "0.1", 0, "Density at lodFar").min(0).softMax(1),
        Row("lodWidthCompensation", "vmlwc", A::Float, "1", 0,
            "Share of thinned density given back as width")
            .min(0)
            .softMax(1),
        Row("cameraCull", "vmccl", A::Bool, "0", 0, "Drop strands outside the view"),
        Row("cullMargin", "vmcmg", A::Float, "0.1", 0, "Margin of the view test").min(0).softMax(1),
        Row("backfaceCull", "vmbfc", A::Bool, "0", 0, "Drop strands facing away"),
        Row("backfaceAngle", "vmbfa", A::Float, "20", 0,
            "Angle past perpendicular at which culling starts, degrees")
            .min(0)
            .softMax(90),
        Row("displayLighting", "vmdlt", A::Bool, "1", 0, "Lit strands"),
        Row("displayShadows", "vmdsh", A::Enum, "1", 0, "Shadows of the strands")
            .fields("Off=0:Cast=1:Cast and Receive=2"),
        Row("displayHairShading", "vmdhs", A::Enum, "1", 0, "Shading of lit lines")
            .fields("Maya=0:Velmorin=1"),
        Row("displaySelfShadowing", "vmdss", A::Float, "1", 0,
            "Strength of self-shadowing from the density grid")
            .min(0)
            .softMax(2),
        Row("displayStrandVariation", "vmdsv", A::Float, "1", 0, "Strength of per-strand variation")
            .min(0)
            .softMax(2),
        Row("displayColor", "vmdcl", A::Color, "0.62 0.45 0.28", 0, "Solid strand colour"),
        Row("useMaterialColor", "vmumc", A::Bool, "1", 0,
            "Take the colour from the assigned material"),
        Row("sculptDisplay", "vmsd", A::Enum, "0", 0, "Display while brushing")
            .fields("normal=0:dimStrands=1:guidesOnly=2"),
        Row("sculptDensity", "vmsdn", A::Float, "1", 0, "Strand density while a tool is active")
            .range(0.01, 1),
        Row("isolateGroup", "vmisg", A::String, "", 0, "Show only this guide group"),
        Row("guideColorMode", "vmgcm", A::Enum, "0", 0, "Colour of guides")
            .fields("Group=0:Painted Layer=1")
            .nice("Guide Color"),
        Row("guideColorLayer", "vmgcl", A::String, "", 0, "Painted layer for colour"),
        Row("guideGroupColors", "vmggc", A::String, "", 0, "JSON of group colours"),
        Row("hiddenGuideGroups", "vmhgg", A::String, "", 0, "Hidden groups"),
        Row("guideWidth", "vmgdw", A::Float, "4", 0, "Pixel width of guide lines")
            .min(1)
            .softMax(16),
        Row("guidePoints", "vmgpt", A::Enum, "2", 0, "Dots on guides")
            .fields("off=0:roots and tips=1:all=2"),
        Row("guideSmoothing", "vmgsm", A::Int, "2", 0, "Display subdivision of guide curves")
            .min(1)
            .softMax(8)
            .max(32),
        Row("renderMode", "vmrdm", A::Enum, "0", kNoKey, "How a renderer gets the hair")
            .fields("curves=0:groomFile=1"),
        Row("groomFile", "vmgf", A::String, "", kFileName, "Exported groom for renderMode 1"),
        Row("renderDensity", "vmrdd", A::Float, "1", kNoKey, "Strand density at render")
            .range(0, 1),
        Row("renderWidthScale", "vmrdw", A::Float, "1", kNoKey, "Width factor at render")
            .min(0)
            .softMax(2),
        Row("renderLengthScale", "vmrdl", A::Float, "1", kNoKey, "Length factor at render")
            .min(0)
            .softMax(2),
        Row("renderView", "vmrvw", A::Bool, "0", kNotStored | kHidden | kNoKey,
            "Evaluate as for render (set by exporters)"),
        Row("displayGuides", "vmdg", A::Bool, "1", kNoKey | kChannelBox, "Draw guides"),
        Row("displayTubes", "vmdt", A::Bool, "0", kNoKey | kChannelBox, "Draw tube shapes"),
        Row("displayHair", "vmdhr", A::Bool, "1", kNoKey | kChannelBox, "Draw strands"),
        Row("brushTick", "vmbt", A::Int, "0", kNotStored | kHidden,
            "Bumped to evaluate after a stroke step"),
        Row("previewDensity", "vmpd", A::Float, "1", 0, "Share of strands evaluated and drawn")
            .range(0, 1),
        Row("previewPointBudget", "vmppb", A::Float, "0", 0,
            "Millions of points drawn at most; 0 none")
            .min(0)
            .softMax(64)
            .max(128)
            .nice("Point Budget (M)"),
        Row("cardDensity", "vmcd", A::Float, "1", 0, "Share of cards built").range(0.01, 1),
        Row("cardMaps", "vmcmp", A::String, "", kHidden, "Card map paths"),
        Row("scalpMaps", "vmsmp", A::String, "", kHidden, "Scalp maps JSON"),
        Row("scalpMapDisplay", "vmsmd", A::String, "", 0, "Name of the map shown on the scalp"),
        Row("scalpMapChannel", "vmsmch", A::String, "rgb", 0, "Channel shown"),
        Row("displayCards", "vmdcd", A::Bool, "0", 0, "Draw cards"),
        Row("displayStrandMesh", "vmdsm", A::Bool, "1", 0, "Draw strand meshes"),
        Row("displayOverlaysOnTop", "vmoot", A::Bool, "1", kNoKey,
            "Guides and overlays over the hair"),
        Row("displayCardTextures", "vmdct", A::Bool, "1", 0, "Cards with their baked maps"),
        Row("outCards", "vmocd", A::Mesh, "", kOut, "Card mesh, with colour and tint sets"),
        Row("outRachis", "vmorc", A::Mesh, "", kOut, "Feather rachis mesh"),
        Row("outStrandMesh", "vmosm", A::Mesh, "", kOut, "Strand mesh"),
        Row("outStrandCount", "vmosc", A::Int, "0", kOut, "Strands in the result"),
        Row("lastError", "vmerr", A::String, "", kOut, "Last error text"),
        Row("outFrame", "vmofr", A::FrameData, "", kOut | kHidden,
            "The evaluated frame as plug-in data"),
    };
    std::vector<NodeAttribute> attributes;
    attributes.reserve(rows.size());
    for (const Row& row : rows)
        attributes.push_back(row.attribute);
    return attributes;
}

const std::vector<NodeAttribute>& attributes() {
    static const std::vector<NodeAttribute> table = makeAttributes();
    return table;
}

// Every attribute whose change the outputs of an evaluation depend on, as listed to Maya.
constexpr std::array<std::string_view, 42> kEvaluationInputs = {
    "inMesh",
    "restMesh",
    "followScalp",
    "scalpTopology",
    "scaleSource",
    "scaleReference",
    "scaleTransformReference",
    "colliderMeshes",
    "colliderMesh",
    "colliderName",
    "colliderRestMesh",
    "extraScalps",
    "extraScalpMesh",
    "extraScalpName",
    "extraScalpRestMesh",
    "simGuides",
    "simCurve",
    "simGuideId",
    "guideCache",
    "guideCacheObject",
    "simCaches",
    "guideCurves",
    "time",
    "graph",
    "guideData",
    "correctiveData",
    "correctiveWeight",
    "sculptData",
    "sculptNode",
    "flowData",
    "partData",
    "previewDensity",
    "previewPointBudget",
    "renderView",
    "sculptDensity",
    "viewNode",
    "brushTick",
    "cardDensity",
    "displayCards",
    "displayStrandMesh",
    "cardMaps",
    "scalpMaps",
};

constexpr std::array<std::string_view, 6> kEvaluationOutputs = {
    "outStrandCount", "lastError", "outFrame", "outCards", "outRachis", "outStrandMesh"};

constexpr std::array<std::string_view, 6> kScaleInputs = {
    "inMesh", "restMesh", "scaleSource", "scaleReference", "scaleTransformReference", "time"};

constexpr std::array<std::string_view, 6> kSyncFiles = {"cardMaps",  "guideCache", "groomFile",
                                                        "simCaches", "scalpMaps",  "graph"};

constexpr std::array<std::string_view, 40> kDisplayOnly = {
    "guideSelection",       "softSelectRadius",
    "strandColorMode",      "strandColorSource",
    "strandColorMin",       "strandColorMax",
    "displayRibbons",       "ribbonWidthScale",
    "displayWidthCoverage", "displayCoverageDensity",
    "displayClumpLod",      "clumpLodError",
    "sculptDisplay",        "isolateGroup",
    "guideColorMode",       "guideColorLayer",
    "displayInstances",     "displayLighting",
    "displayShadows",       "displayHairShading",
    "displaySelfShadowing", "displayStrandVariation",
    "guideWidth",           "guidePoints",
    "guideSmoothing",       "hiddenGuideGroups",
    "guideGroupColors",     "displayFlow",
    "displayColor",         "useMaterialColor",
    "displayGuides",        "displayHair",
    "displayTubes",         "displayCards",
    "displayStrandMesh",    "displayCardTextures",
    "displayOverlaysOnTop", "cardMaps",
    "scalpMapDisplay",      "scalpMapChannel",
};

template <std::size_t N>
bool listed(const std::array<std::string_view, N>& list, std::string_view name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

}  // namespace

std::span<const NodeAttribute> groomNodeAttributes() {
    return attributes();
}

const NodeAttribute* findGroomNodeAttribute(std::string_view longName) {
    for (const NodeAttribute& attribute : attributes())
        if (attribute.longName == longName) return &attribute;
    return nullptr;
}

DirtyClass dirtyClassOf(std::string_view longName) {
    DirtyClass result;
    result.syncFiles = listed(kSyncFiles, longName);
    result.displayVersion = listed(kDisplayOnly, longName);
    if (listed(kEvaluationInputs, longName)) {
        result.kind = DirtyKind::EvaluationInput;
        result.strokeVersion = longName == "brushTick" || longName == "scalpMaps";
    } else if (result.displayVersion) {
        result.kind = DirtyKind::DisplayOnly;
    }
    return result;
}

std::span<const std::string_view> evaluationInputs() {
    return kEvaluationInputs;
}
std::span<const std::string_view> evaluationOutputs() {
    return kEvaluationOutputs;
}
std::span<const std::string_view> scaleInputs() {
    return kScaleInputs;
}

}  // namespace velmorin
