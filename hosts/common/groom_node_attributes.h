#pragma once
// The attributes of the groom node (velmorinShape) as data: what the Maya host creates, in order,
// and how a change of each is treated. Kept free of Maya so that the table can be checked here
// and read by any host that mirrors the node.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace velmorin {

enum class AttributeType : std::uint8_t {
    Bool,
    Int,
    Float,
    Double,
    String,
    StringArray,
    FloatArray,
    Mesh,
    NurbsCurve,
    NurbsCurveArray,
    Enum,
    Time,
    Color,
    Compound,
    FrameData,  // the plug-in's own data type carrying the evaluated frame
};

// Flags of an attribute beyond its type; an attribute is stored and keyable (numbers) unless the
// flags say otherwise.
enum AttributeFlag : std::uint32_t {
    kNotStored = 1u << 0,
    kHidden = 1u << 1,
    kNoKey = 1u << 2,       // a number that is not keyable
    kChannelBox = 1u << 3,  // shown in the channel box without being keyable
    kOutput = 1u << 4,      // computed: not writable, not stored
    kArray = 1u << 5,       // a multi (compound arrays, the guide curves)
    kFileName = 1u << 6,    // used as a file name (Maya's file path editor sees it)
    kDeleteOnDisconnect = 1u << 7,
    kNotReadable = 1u << 8,
    kIndexMatters = 1u << 9,  // cleared for the guide curves: their order doesn't matter
};

struct NodeAttribute {
    std::string_view longName;
    std::string_view shortName;
    AttributeType type = AttributeType::Bool;
    std::string_view defaultValue;  // as text: "0", "1", "{}", "0.62 0.45 0.28"; empty for none
    std::optional<double> min, max, softMin, softMax;
    std::uint32_t flags = 0;
    std::string_view niceName;    // empty: Maya's own from the long name
    std::string_view enumFields;  // "Surface Area=0:Transform Only=1:Off=2" for enums
    std::string_view parent;      // the compound this is a child of, or empty
    std::string_view meaning;

    bool has(AttributeFlag flag) const { return (flags & flag) != 0; }
};

// Every attribute of velmorinShape in the order of creation, children right after their compound.
std::span<const NodeAttribute> groomNodeAttributes();
const NodeAttribute* findGroomNodeAttribute(std::string_view longName);

// What a change of an attribute does, decided when Maya marks the plug dirty. An evaluation input
// is one before it is display-only; syncFiles comes on top of either.
enum class DirtyKind : std::uint8_t {
    DisplayOnly,      // redraw only: the display version goes up, the outputs stay clean
    EvaluationInput,  // the outputs are dirtied and the node notes which input changed
    Other,            // Maya's own handling, and a redraw
};

struct DirtyClass {
    DirtyKind kind = DirtyKind::Other;
    // Python is asked, on idle, to mirror the node's file paths to its velmorinFile nodes.
    bool syncFiles = false;
    // A brush step or a map change: the stroke version goes up too.
    bool strokeVersion = false;
    // The node's display version goes up and its geometry is marked draw-dirty. True for every
    // display-only attribute, and for the three that the display and the evaluation share
    // (displayCards, displayStrandMesh, cardMaps: they also say which results to build).
    bool displayVersion = false;
};

DirtyClass dirtyClassOf(std::string_view longName);

// The inputs whose change affects the six evaluation outputs, in the order listed to Maya.
std::span<const std::string_view> evaluationInputs();
// The six outputs of an evaluation.
std::span<const std::string_view> evaluationOutputs();
// The inputs that affect the scale outputs (groomScale, scaleArea, scaleTransform).
std::span<const std::string_view> scaleInputs();

}  // namespace velmorin
