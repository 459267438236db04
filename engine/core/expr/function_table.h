#pragma once
// The function table of the expression language: one constant row per function, read by the
// compiler (argument checking, defaults, result type), by the editor's help and by the GPU
// lowering. A function is added by adding a row here and its rule in functions.cpp.

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include <nlohmann/json.hpp>

namespace velmorin {

// What the code of a call runs. Synonyms share their original's id; the hidden rows (forms of a
// name that differ in checking) have ids of their own.
enum class FunctionId : std::uint8_t {
    Sin,
    Cos,
    Tan,
    Asin,
    Acos,
    Atan,
    Atan2,
    Sind,
    Cosd,
    Tand,
    Asind,
    Acosd,
    Atand,
    Atan2d,
    Sinh,
    Cosh,
    Tanh,
    Asinh,
    Acosh,
    Atanh,
    Abs,
    Sqrt,
    Cbrt,
    Pow,
    Exp,
    Log,
    Log10,
    Hypot,
    Floor,
    Ceil,
    Round,
    Trunc,
    Fract,
    Sign,
    Min,
    Max,
    Mod,
    Fmod,
    Radians,
    Degrees,
    Invert,
    Clamp,
    Mix,
    Lerp,
    Step,
    Boxstep,
    Linearstep,
    Smoothstep,
    Gaussstep,
    Fit,
    Remap,
    Compress,
    Expand,
    Gamma,
    Bias,
    Gain,
    Contrast,
    Rand,
    Hash,
    Noise,
    Snoise,
    Vnoise,
    Cnoise,
    Snoise4,
    Vnoise4,
    Cnoise4,
    Pnoise,
    Fbm,
    Vfbm,
    Cfbm,
    Turbulence,
    Vturbulence,
    Cturbulence,
    Fbm4,
    Vfbm4,
    Cfbm4,
    Cellnoise,
    Ccellnoise,
    Voronoi,
    Cvoronoi,
    Pvoronoi,
    Dot,
    Cross,
    Length,
    Normalize,
    Distance,
    Angle,
    Ortho,
    Rotate,
    Up,
    Rgbtohsl,
    Hsltorgb,
    Hsi,
    Midhsi,
    Saturate,
    Curve,
    Ccurve,
    Linearcurve,
    Spline,
    Pick,
    Choose,
    Wchoose,
    Cycle,
    Map,
    Cmap,
    // Hidden forms.
    RandRange,
    Noise4,
    IndexOf,
    NoisePoint,
    CurvePairs,
    Count
};

// How the compiler checks a call's arguments.
enum class CheckKind : std::uint8_t {
    Numbers = 0,      // all numbers, a fixed meaning per position
    NumberList = 1,   // numbers with hashing or a variable count
    Typed = 2,        // typed by the row's argument letters
    CurveFamily = 3,  // constant keys after t, built into a stored curve
    MapFamily = 4,    // a map's name in quotes
};

struct FunctionRow {
    std::string_view name;
    std::string_view signature;    // shown by the editor; empty for hidden rows
    std::string_view description;  // one line
    std::uint8_t minArgs = 0;
    std::uint8_t maxArgs = 0;
    CheckKind check = CheckKind::Numbers;
    std::int8_t gpu = -1;  // the GPU function number, or -1 where the call runs on the CPU only
    // One letter per argument for typed rows: p a point (a vector, or a number in x with 0 in y
    // and z), s a number, v a vector (a number is spread to all three).
    std::string_view argTypes;
    std::uint8_t resultWidth = 1;  // 1 a number, 3 a vector
    // Values of trailing arguments left out: defaults[i] is argument maxArgs - defaultCount + i.
    std::uint8_t defaultCount = 0;
    std::array<float, 6> defaults{};
    FunctionId id = FunctionId::Count;
    std::string_view synonymOf;  // the original's name, for synonym rows
    bool hidden = false;         // a form of a name that differs in checking; never listed
};

// The 110 listed rows (105 functions, then the synonyms), followed by the hidden rows.
std::span<const FunctionRow> functionTable();
// How many rows the editor lists: the rows before the hidden ones.
std::size_t listedFunctionCount();

// The row a name calls (synonyms included, hidden rows never), or null.
const FunctionRow* findFunction(std::string_view name);
// The row that runs a function id (the original, never a synonym).
const FunctionRow& functionRow(FunctionId id);

// How many floats a call of `row` with `argCount` arguments takes from the stack, once the
// compiler has made every argument its row's width. Calls of rand also take the strand's rand.
int argumentFloats(const FunctionRow& row, int argCount);

// The listed rows as the editor shows them: an array of objects with "name", "signature",
// "description", "minArgs", "maxArgs", "check", "gpu", "argTypes", "result" ("number" or
// "vector"), "defaults" and, for synonyms, "synonymOf".
nlohmann::ordered_json functionHelpJson();

}  // namespace velmorin
