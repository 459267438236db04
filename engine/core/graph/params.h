#pragma once
// Parameters: the declared specs of an operator's params, the values they hold, and the ParamSet
// that an operator reads during a run. Params are declared once, as data; schema JSON, input ports,
// coercion and decimals all derive from that table.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/vec3.h"
#include "graph/port.h"
#include "graph/ramp.h"

namespace velmorin {

class FieldValue;

// Where a mapped param reads its values from. Exactly one source per reference.
enum class MapSource : std::uint8_t { Texture, ColorSet, Attribute, Expression, Guide };

// A param's value given as a map: {"texture": ...} and the like in graph JSON.
struct MapReference {
    MapSource source = MapSource::Texture;
    std::string text;           // the texture, color set, attribute, expression or guide layer
    std::string component;      // "r", "g", "b", "a", "luminance" or empty (the default)
    int componentIndex = -1;    // when the component was given as an index
    std::optional<double> min;  // output where the map is 0
    std::optional<double> max;  // output where the map is 1
    bool operator==(const MapReference&) const = default;
};

// A param's value. The order of the alternatives is fixed: bool, int, float, string, vec3, ramp,
// map reference.
using ParamValue = std::variant<bool, std::int64_t, double, std::string, Vec3f, Ramp, MapReference>;

enum class ParamKind : std::uint8_t { Bool, Int, Float, String, Vec3, Ramp, Map };
inline ParamKind paramKind(const ParamValue& value) {
    return static_cast<ParamKind>(value.index());
}
// "bool", "int", "float", "string", "vec3", "ramp" (and "map" for a map reference).
std::string_view paramKindName(ParamKind kind);

enum class ChannelRole : std::uint8_t { None = 0, Writes = 1, Reads = 2 };
enum class InputRule : std::uint8_t { Derive = 0, AlwaysValue = 1, Never = 2 };

// Show a param only while another param has one of the listed values.
struct ShowWhen {
    std::string param;
    std::vector<ParamValue> values;
};

// Another unit while another param has one of the listed values.
struct UnitWhen {
    std::string param;
    std::vector<ParamValue> values;
    std::string unit;
};

// One declared parameter, a plain record. The substring "(mappable" in the description is the only
// thing that makes a parameter mappable.
struct ParamSpec {
    std::string name;
    ParamValue defaultValue = 0.0;
    std::string description;
    std::string unit;  // "pixels", "angle", "fraction", "color", "turns", "seconds" or empty
    std::vector<std::string> choices;
    bool animatable = false;
    std::optional<double> min, max;          // hard limits
    std::optional<double> softMin, softMax;  // slider range; the hard limit stands in when absent
    std::string group;
    bool advanced = false;
    std::optional<ShowWhen> showWhen;
    bool worldDirection = false;
    bool vectorExpression = false;
    bool colorField = false;
    std::optional<UnitWhen> unitWhen;
    ChannelRole channel = ChannelRole::None;
    bool channelOptional = false;
    InputRule inputRule = InputRule::Derive;
    int since = 0;  // operator version that added it; 0 = from the beginning
    std::optional<ParamValue> formerDefault;
    std::optional<int> decimals;  // digits shown; derived from unit, range and default when absent

    ParamKind kind() const { return paramKind(defaultValue); }
    bool mappable() const { return description.find("(mappable") != std::string::npos; }
};

// The ValueKind that a param of this spec takes through a Value port (a string with choices is a
// choice, other strings text).
ValueKind valueKindOf(const ParamSpec& spec);

// Checks and converts a value for a param; `context` starts the message of a failure. Throws
// GraphError. See the operator documentation for the rules by kind.
ParamValue coerceParam(const ParamValue& value, const ParamSpec& spec, std::string_view context);

// Whether the param can be fed by a connection, and with which port (always optional, named after
// the param).
bool paramInputPort(const ParamSpec& spec, PortSpec& out);

// The "decimals" shown for a float, int or vec3 param, or nothing for other kinds.
std::optional<int> paramDecimals(const ParamSpec& spec);

// Combines a param value into h: its kind and every bit of its content (a float's bits, a ramp's
// keys and flag, a map's source and range). Equal values hash equal; 1 and 1.0 do not.
std::uint64_t hashParamValue(std::uint64_t h, const ParamValue& value);

// Names of the params read during a run, noted under the log's own mutex.
class ParamReadLog {
  public:
    void note(std::string_view name);
    std::vector<std::string> names() const;  // in first-read order, each once

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> names_;
};

// An operator's current parameter state: what the user set, over the declared defaults. Reads fall
// back from `values` to `defaults` to the caller's fallback; they never throw except checked().
// What connected inputs deliver during an evaluation is not kept here but beside the node
// (graph/delivered_params.h).
class ParamSet {
  public:
    struct Limits {
        double min = 0.0;
        bool hasMin = false;
        double max = 0.0;
        bool hasMax = false;
    };
    using SpecTable = std::map<std::string, ParamSpec, std::less<>>;

    std::shared_ptr<ParamReadLog> readLog;
    std::map<std::string, ParamValue, std::less<>> values;  // what the user set
    std::shared_ptr<const std::map<std::string, Limits, std::less<>>> limits;
    std::shared_ptr<const std::map<std::string, ParamValue, std::less<>>> defaults;

    // Fills specs, limits and defaults from the full list of a node's params; values stay.
    void declare(const std::vector<ParamSpec>& specs);

    bool getBool(std::string_view name, bool fallback) const;
    std::int64_t getInt(std::string_view name, std::int64_t fallback) const;
    double getFloat(std::string_view name, double fallback) const;
    std::string getString(std::string_view name, const std::string& fallback) const;
    Vec3f getVec3(std::string_view name, Vec3f fallback) const;
    // The param's own ramp (a ramp delivered by a connected Curve input comes before it: see
    // paramRamp in graph/delivered_params.h).
    Ramp getRamp(std::string_view name, const Ramp& fallback) const;
    // A constant field of the param's value: a vec3 as a colour, anything else as its number
    // clamped like getFloat (a map reference, which is resolved where strands are known, as its
    // default; an unknown name as 0). Never null.
    std::shared_ptr<const FieldValue> constantField(std::string_view name) const;
    // Notes a read of `name` in the read log, for reads served from beside the params (a
    // delivered field or ramp).
    void noteRead(std::string_view name) const;

    // Sets a value through coerceParam with "param 'name'" as context. Throws GraphError for an
    // unknown name or a value the param can't take; the old value stands then.
    void set(std::string_view name, const ParamValue& value);
    bool has(std::string_view name) const;
    // The current value (set or default); throws GraphError "unknown parameter 'x'".
    const ParamValue& checked(std::string_view name) const;
    const ParamSpec* spec(std::string_view name) const;
    const SpecTable& specs() const;

    // A hash of the values the user set, in name order.
    std::uint64_t hash() const;

  private:
    const ParamValue* lookup(std::string_view name) const;

    std::shared_ptr<const SpecTable> specs_;
};

}  // namespace velmorin
