#pragma once
// What an expression may read besides the strands: the frame and the time, the groom's maps by
// name, and the node's own variables.

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

class StrandSet;

// A map as an expression reads it: a color at each strand's root. Whoever resolves map names
// (the mapped params) implements it; the expression code only samples it when it binds.
class ExpressionMapSource {
  public:
    virtual ~ExpressionMapSource();
    // Writes red, green, blue and alpha for every strand of `strands` at its root into `rgba`
    // (four floats per strand, rgba.size() == 4 * strandCount). Called once per binding, from
    // one thread (it may run parallel loops of its own). Throws ExpressionError with a sentence
    // for the artist when the map can't be read for these strands.
    virtual void sampleRoots(const StrandSet& strands, std::span<float> rgba) const = 0;
};

// One of the node's own variables, read as $name (a vector as $name.x, .y, .z).
struct ExpressionVariable {
    std::string name;
    bool isVector = false;
    Vec3f value;          // a number is in x
    std::string control;  // the host's control that sets it, or empty
    std::string unit;     // "length", "width", "density", "perLength", or empty
    bool operator==(const ExpressionVariable&) const = default;
};

// Resolves a map's name; returns null when the groom has no map of that name. May throw
// ExpressionError with a sentence that names the map (a texture map without its image...).
using ExpressionMapResolver =
    std::function<std::shared_ptr<const ExpressionMapSource>(std::string_view name)>;

struct ExpressionEnvironment {
    double frame = 0.0;
    double time = 0.0;  // seconds
    // Empty where no maps are available: an expression that reads one is then refused.
    ExpressionMapResolver resolveMap;
    std::vector<ExpressionVariable> variables;

    const ExpressionVariable* variable(std::string_view name) const;
};

// The frames per second that turn the evaluation's frame into $time.
inline constexpr double kExpressionFramesPerSecond = 24.0;

// The number the host's control of that name holds, or nothing where it holds none.
using ExpressionControls = std::function<std::optional<double>(std::string_view control)>;

// The environment of an evaluation at `frame`: the frame, the time in seconds at
// kExpressionFramesPerSecond, no maps, no variables. (The graph's evaluation context gives one
// through expressionEnvironment(EvalContext), with the mapped params.)
ExpressionEnvironment expressionEnvironment(double frame);
// The same with the node's own variables read from their JSON text (see
// readExpressionVariables); keyed ones take the value of their control from `controls`.
ExpressionEnvironment expressionEnvironment(double frame, std::string_view variablesJson,
                                            const ExpressionControls& controls);

// Reads the node's own variables: a JSON object of numbers ({"amount": 0.5}), vectors of three
// ({"center": [0, 1, 0]}) and keyable numbers ({"value": 0.5, "control": "name"}, optionally
// with "unit": length, width, density or perLength). Where `controls` gives a number for a
// variable's control, that number is the variable's value. Empty text reads as no variables.
// Throws ExpressionError with the words the Expression node shows.
std::vector<ExpressionVariable> readExpressionVariables(std::string_view json,
                                                        const ExpressionControls& controls = {});

// The help text of the variables param.
extern const char* const kExpressionVariablesHelp;

}  // namespace velmorin
