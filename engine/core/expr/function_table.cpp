#include "expr/function_table.h"

#include <cassert>
#include <initializer_list>
#include <vector>

namespace velmorin {
namespace {

using F = FunctionId;
using K = CheckKind;

FunctionRow row(F id, std::string_view name, std::string_view signature,
                std::string_view description, int minArgs, int maxArgs, K check, int gpu,
                std::string_view argTypes, int resultWidth,
                std::initializer_list<float> defaults = {}) {
    FunctionRow r;
    r.id = id;
    r.name = name;
    r.signature = signature;
    r.description = description;
    r.minArgs = static_cast<std::uint8_t>(minArgs);
    r.maxArgs = static_cast<std::uint8_t>(maxArgs);
    r.check = check;
    r.gpu = static_cast<std::int8_t>(gpu);
    r.argTypes = argTypes;
    r.resultWidth = static_cast<std::uint8_t>(resultWidth);
    assert(defaults.size() <= r.defaults.size());
    r.defaultCount = static_cast<std::uint8_t>(defaults.size());
    std::size_t i = 0;
    for (float d : defaults)
        r.defaults[i++] = d;
    return r;
}

FunctionRow synonym(std::string_view name, const FunctionRow& original) {
    FunctionRow r = original;
    r.name = name;
    r.synonymOf = original.name;
    return r;
}

FunctionRow hiddenRow(F id, std::string_view name, int minArgs, int maxArgs, K check,
                      std::string_view argTypes, int resultWidth) {
    FunctionRow r = row(id, name, "", "", minArgs, maxArgs, check, -1, argTypes, resultWidth);
    r.hidden = true;
    return r;
}

constexpr std::string_view kFractalArgs = "p, octaves, lacunarity, gain";
constexpr std::string_view kFractal4Args = "p, w, octaves, lacunarity, gain";
constexpr std::string_view kVoronoiArgs =
    "p, type, jitter, fbmScale, fbmOctaves, fbmLacunarity, fbmGain";
constexpr std::string_view kCurveKeys =
    "A curve through keys (position, value, interpolation 0 none, 1 linear, 2 smooth, 3 spline, "
    "4 monotone)";

std::vector<FunctionRow> buildTable() {
    std::vector<FunctionRow> t;
    auto add = [&t](FunctionRow r) { t.push_back(r); };
    // Trigonometry: radians, then degrees, then hyperbolic.
    add(row(F::Sin, "sin", "x", "Sine of x (radians)", 1, 1, K::Numbers, 0, "s", 1));
    add(row(F::Cos, "cos", "x", "Cosine of x (radians)", 1, 1, K::Numbers, 1, "s", 1));
    add(row(F::Tan, "tan", "x", "Tangent of x (radians)", 1, 1, K::Numbers, 2, "s", 1));
    add(row(F::Asin, "asin", "x", "Arc sine in radians (x is held to -1..1)", 1, 1, K::Numbers, 3,
            "s", 1));
    add(row(F::Acos, "acos", "x", "Arc cosine in radians (x is held to -1..1)", 1, 1, K::Numbers, 4,
            "s", 1));
    add(row(F::Atan, "atan", "x", "Arc tangent in radians", 1, 1, K::Numbers, 5, "s", 1));
    add(row(F::Atan2, "atan2", "y, x", "The angle of the point (x, y) in radians", 2, 2, K::Numbers,
            15, "ss", 1));
    add(row(F::Sind, "sind", "x", "Sine of x degrees", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Cosd, "cosd", "x", "Cosine of x degrees", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Tand, "tand", "x", "Tangent of x degrees", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Asind, "asind", "x", "Arc sine in degrees (x is held to -1..1)", 1, 1, K::Numbers,
            -1, "s", 1));
    add(row(F::Acosd, "acosd", "x", "Arc cosine in degrees (x is held to -1..1)", 1, 1, K::Numbers,
            -1, "s", 1));
    add(row(F::Atand, "atand", "x", "Arc tangent in degrees", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Atan2d, "atan2d", "y, x", "The angle of the point (x, y) in degrees", 2, 2,
            K::Numbers, -1, "ss", 1));
    add(row(F::Sinh, "sinh", "x", "Hyperbolic sine", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Cosh, "cosh", "x", "Hyperbolic cosine", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Tanh, "tanh", "x", "Hyperbolic tangent", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Asinh, "asinh", "x", "Inverse hyperbolic sine", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Acosh, "acosh", "x", "Inverse hyperbolic cosine (x below 1 counts as 1)", 1, 1,
            K::Numbers, -1, "s", 1));
    add(row(F::Atanh, "atanh", "x", "Inverse hyperbolic tangent (0 outside -1..1)", 1, 1,
            K::Numbers, -1, "s", 1));
    // Arithmetic.
    add(row(F::Abs, "abs", "x", "x without its sign", 1, 1, K::Numbers, 6, "s", 1));
    add(row(F::Sqrt, "sqrt", "x", "Square root (0 for x below 0)", 1, 1, K::Numbers, 7, "s", 1));
    add(row(F::Cbrt, "cbrt", "x", "Cube root", 1, 1, K::Numbers, -1, "s", 1));
    add(row(F::Pow, "pow", "x, y", "x to the power y (0 for x below 0 and y not whole)", 2, 2,
            K::Numbers, 14, "ss", 1));
    add(row(F::Exp, "exp", "x", "e to the power x", 1, 1, K::Numbers, 11, "s", 1));
    add(row(F::Log, "log", "x", "Natural logarithm (0 for x at or below 0)", 1, 1, K::Numbers, 12,
            "s", 1));
    add(row(F::Log10, "log10", "x", "Base-10 logarithm (0 for x at or below 0)", 1, 1, K::Numbers,
            -1, "s", 1));
    add(row(F::Hypot, "hypot", "x, y", "The length of (x, y)", 2, 2, K::Numbers, -1, "ss", 1));
    add(row(F::Floor, "floor", "x", "The whole number at or below x", 1, 1, K::Numbers, 8, "s", 1));
    add(row(F::Ceil, "ceil", "x", "The whole number at or above x", 1, 1, K::Numbers, 9, "s", 1));
    add(row(F::Round, "round", "x", "The nearest whole number (halves away from 0)", 1, 1,
            K::Numbers, 23, "s", 1));
    add(row(F::Trunc, "trunc", "x", "x without its fraction (toward 0)", 1, 1, K::Numbers, 24, "s",
            1));
    add(row(F::Fract, "fract", "x", "x - floor(x), 0 to 1", 1, 1, K::Numbers, 10, "s", 1));
    add(row(F::Sign, "sign", "x", "-1, 0 or 1", 1, 1, K::Numbers, 13, "s", 1));
    add(row(F::Min, "min", "a, b", "The smaller of a and b", 2, 2, K::Numbers, 16, "ss", 1));
    add(row(F::Max, "max", "a, b", "The larger of a and b", 2, 2, K::Numbers, 17, "ss", 1));
    add(row(F::Mod, "mod", "a, b", "a - b * floor(a / b): the remainder with b's sign (0 for b 0)",
            2, 2, K::Numbers, 18, "ss", 1));
    add(row(F::Fmod, "fmod", "a, b", "The remainder with a's sign (0 for b 0)", 2, 2, K::Numbers,
            -1, "ss", 1));
    add(row(F::Radians, "radians", "degrees", "Degrees to radians", 1, 1, K::Numbers, 25, "s", 1));
    add(row(F::Degrees, "degrees", "radians", "Radians to degrees", 1, 1, K::Numbers, 26, "s", 1));
    add(row(F::Invert, "invert", "x", "1 - x", 1, 1, K::Numbers, -1, "s", 1));
    // Ranges and steps.
    add(row(F::Clamp, "clamp", "x, lo, hi", "x held between lo and hi", 3, 3, K::Numbers, 20, "sss",
            1));
    add(row(F::Mix, "mix", "a, b, t", "a to b as t goes 0 to 1 (not clamped)", 3, 3, K::Numbers, 21,
            "sss", 1));
    add(row(F::Lerp, "lerp", "a, b, t", "a to b as t goes 0 to 1 (not clamped), as mix", 3, 3,
            K::Numbers, 30, "sss", 1));
    add(row(F::Step, "step", "edge, x", "0 for x below the edge, else 1", 2, 2, K::Numbers, 19,
            "ss", 1));
    add(row(F::Boxstep, "boxstep", "x, a", "1 for x at or above a, else 0", 2, 2, K::Numbers, -1,
            "ss", 1));
    add(row(F::Linearstep, "linearstep", "x, a, b", "0 up to a, rising straight to 1 at b", 3, 3,
            K::Numbers, 31, "sss", 1));
    add(row(F::Smoothstep, "smoothstep", "x, a, b", "0 up to a, rising smoothly to 1 at b", 3, 3,
            K::Numbers, 22, "sss", 1));
    add(row(F::Gaussstep, "gaussstep", "x, a, b", "0 up to a, a bell-shaped rise to 1 at b", 3, 3,
            K::Numbers, -1, "sss", 1));
    add(row(F::Fit, "fit", "x, a1, b1, a2, b2", "x from a1..b1 to a2..b2 (not clamped)", 5, 5,
            K::Numbers, 32, "sssss", 1));
    add(row(F::Remap, "remap", "x, source, range, falloff, interp",
            "1 within range of source, falling to 0 over the falloff", 5, 5, K::Numbers, -1,
            "sssss", 1));
    add(row(F::Compress, "compress", "x, lo, hi", "0..1 squeezed into lo..hi", 3, 3, K::Numbers, -1,
            "sss", 1));
    add(row(F::Expand, "expand", "x, lo, hi", "lo..hi stretched to 0..1", 3, 3, K::Numbers, -1,
            "sss", 1));
    add(row(F::Gamma, "gamma", "x, g", "x to the power 1 / g", 2, 2, K::Numbers, 27, "ss", 1));
    add(row(F::Bias, "bias", "x, b", "Bends 0..1 so that 0.5 becomes b", 2, 2, K::Numbers, 28, "ss",
            1));
    add(row(F::Gain, "gain", "x, g", "An S-curve over 0..1 (g above 0.5) or its inverse", 2, 2,
            K::Numbers, 29, "ss", 1));
    add(row(F::Contrast, "contrast", "x, c", "gain with bias's arguments the other way about", 2, 2,
            K::Numbers, -1, "ss", 1));
    // Random numbers.
    add(row(F::Rand, "rand", "[min, max[, seed]]",
            "A stable random number per strand: 0-1, or min to max (rand(seed): 0-1 per seed)", 0,
            3, K::NumberList, -1, "", 1));
    add(row(F::Hash, "hash", "a, b, ...", "A random 0-1 value from the numbers alone", 1, 64,
            K::NumberList, -1, "", 1));
    // Noise.
    add(row(F::Noise, "noise", "p",
            "Smooth noise, 0 to 1 (also noise(x, y), noise(x, y, z), noise(x, y, z, w))", 1, 4,
            K::NumberList, -1, "p", 1));
    add(row(F::Snoise, "snoise", "p", "Smooth noise, -1 to 1", 1, 1, K::Typed, -1, "p", 1));
    add(row(F::Vnoise, "vnoise", "p", "Smooth vector noise, -1 to 1 per component", 1, 1, K::Typed,
            -1, "p", 3));
    add(row(F::Cnoise, "cnoise", "p", "Smooth color noise, 0 to 1 per component", 1, 1, K::Typed,
            -1, "p", 3));
    add(row(F::Snoise4, "snoise4", "p, w", "Smooth noise of four dimensions, -1 to 1", 2, 2,
            K::Typed, -1, "ps", 1));
    add(row(F::Vnoise4, "vnoise4", "p, w", "Vector noise of four dimensions, -1 to 1", 2, 2,
            K::Typed, -1, "ps", 3));
    add(row(F::Cnoise4, "cnoise4", "p, w", "Color noise of four dimensions, 0 to 1", 2, 2, K::Typed,
            -1, "ps", 3));
    add(row(F::Pnoise, "pnoise", "p, period",
            "Noise that repeats every period (whole cells per axis), 0 to 1", 2, 2, K::Typed, -1,
            "pp", 1));
    add(row(F::Fbm, "fbm", kFractalArgs, "Fractal noise around 0.5 (6, 2, 0.5 when left out)", 1, 4,
            K::Typed, -1, "psss", 1, {6, 2, 0.5f}));
    add(row(F::Vfbm, "vfbm", kFractalArgs, "Fractal vector noise around 0", 1, 4, K::Typed, -1,
            "psss", 3, {6, 2, 0.5f}));
    add(row(F::Cfbm, "cfbm", kFractalArgs, "Fractal color noise around 0.5", 1, 4, K::Typed, -1,
            "psss", 3, {6, 2, 0.5f}));
    add(row(F::Turbulence, "turbulence", kFractalArgs, "Fractal |noise|, 0.5 and up: creased", 1, 4,
            K::Typed, -1, "psss", 1, {6, 2, 0.5f}));
    add(row(F::Vturbulence, "vturbulence", kFractalArgs, "Fractal |vector noise|, 0 and up", 1, 4,
            K::Typed, -1, "psss", 3, {6, 2, 0.5f}));
    add(row(F::Cturbulence, "cturbulence", kFractalArgs, "Fractal |color noise|, 0.5 and up", 1, 4,
            K::Typed, -1, "psss", 3, {6, 2, 0.5f}));
    add(row(F::Fbm4, "fbm4", kFractal4Args, "Fractal noise of four dimensions around 0.5", 2, 5,
            K::Typed, -1, "pssss", 1, {6, 2, 0.5f}));
    add(row(F::Vfbm4, "vfbm4", kFractal4Args, "Fractal vector noise of four dimensions around 0", 2,
            5, K::Typed, -1, "pssss", 3, {6, 2, 0.5f}));
    add(row(F::Cfbm4, "cfbm4", kFractal4Args, "Fractal color noise of four dimensions around 0.5",
            2, 5, K::Typed, -1, "pssss", 3, {6, 2, 0.5f}));
    add(row(F::Cellnoise, "cellnoise", "p", "A random 0-1 value per unit cell", 1, 1, K::Typed, -1,
            "p", 1));
    add(row(F::Ccellnoise, "ccellnoise", "p", "A random color per unit cell", 1, 1, K::Typed, -1,
            "p", 3));
    add(row(F::Voronoi, "voronoi", kVoronoiArgs,
            "Cells: type 1 a value per cell, 2 nearest distance, 3 second nearest, 4 their gap, 5 "
            "edges",
            1, 7, K::Typed, -1, "pssssss", 1, {1, 0.5f, 0, 4, 2, 0.5f}));
    add(row(F::Cvoronoi, "cvoronoi", kVoronoiArgs,
            "The nearest cell's random color (types 2 to 5 scale it by voronoi's value)", 1, 7,
            K::Typed, -1, "pssssss", 3, {1, 0.5f, 0, 4, 2, 0.5f}));
    add(row(F::Pvoronoi, "pvoronoi", "p, jitter, fbmScale, fbmOctaves, fbmLacunarity, fbmGain",
            "The nearest cell point", 1, 6, K::Typed, -1, "psssss", 3, {0.5f, 0, 4, 2, 0.5f}));
    // Vectors.
    add(row(F::Dot, "dot", "a, b", "The dot product", 2, 2, K::Typed, -1, "vv", 1));
    add(row(F::Cross, "cross", "a, b", "The cross product", 2, 2, K::Typed, -1, "vv", 3));
    add(row(F::Length, "length", "v", "The length of v", 1, 1, K::Typed, -1, "v", 1));
    add(row(F::Normalize, "normalize", "v", "v at length 1 (0 for a zero vector)", 1, 1, K::Typed,
            -1, "v", 3));
    add(row(F::Distance, "distance", "a, b", "The distance between two points", 2, 2, K::Typed, -1,
            "vv", 1));
    add(row(F::Angle, "angle", "a, b", "The angle between two vectors in radians", 2, 2, K::Typed,
            -1, "vv", 1));
    add(row(F::Ortho, "ortho", "a, b", "The unit vector at right angles to a and b", 2, 2, K::Typed,
            -1, "vv", 3));
    add(row(F::Rotate, "rotate", "v, axis, angle", "v turned about the axis by the angle (radians)",
            3, 3, K::Typed, -1, "vvs", 3));
    add(row(F::Up, "up", "v, upvec", "v turned by the rotation that takes +Y to upvec", 2, 2,
            K::Typed, -1, "vv", 3));
    // Colors.
    add(row(F::Rgbtohsl, "rgbtohsl", "c", "RGB to hue, saturation and lightness (hue 0 to 1)", 1, 1,
            K::Typed, -1, "v", 3));
    add(row(F::Hsltorgb, "hsltorgb", "c", "Hue, saturation and lightness (hue 0 to 1) to RGB", 1, 1,
            K::Typed, -1, "v", 3));
    add(row(F::Hsi, "hsi", "c, h, s, i, mask",
            "Hue shift (degrees), saturation and intensity scale", 4, 5, K::Typed, -1, "vssss", 3,
            {1}));
    add(row(F::Midhsi, "midhsi", "c, h, s, i, mask, falloff, interp",
            "hsi weighted toward the mask's ends", 5, 7, K::Typed, -1, "vssssss", 3, {1, 0}));
    add(row(F::Saturate, "saturate", "c, amount",
            "Saturation: 0 grey, 1 unchanged, above 1 stronger", 2, 2, K::Typed, -1, "vs", 3));
    // Curves and choices.
    add(row(F::Curve, "curve", "t, p0, v0, i0, p1, v1, i1, ...", kCurveKeys, 1, 64, K::CurveFamily,
            -1, "", 1));
    add(row(F::Ccurve, "ccurve", "t, p0, c0, i0, p1, c1, i1, ...",
            "A color curve through keys (position, color or value, interpolation as curve)", 1, 64,
            K::CurveFamily, -1, "", 3));
    add(row(F::Linearcurve, "linearcurve", "t, p0, v0, p1, v1, ...",
            "Straight segments through keys (position, value)", 3, 64, K::CurveFamily, -1, "", 1));
    add(row(F::Spline, "spline", "t, y1, y2, y3, y4, ...",
            "A smooth curve through y2..y(n-1), y1 and yn its end controls", 5, 64, K::NumberList,
            -1, "", 1));
    add(row(F::Pick, "pick", "index, lo, hi, weights...",
            "A whole number lo to hi from a hash of index", 3, 64, K::NumberList, -1, "", 1));
    add(row(F::Choose, "choose", "t, a, b, ...", "The argument t (0 to 1) falls on", 2, 64,
            K::NumberList, -1, "", 1));
    add(row(F::Wchoose, "wchoose", "t, a, wa, b, wb, ...", "choose, by weights", 3, 63,
            K::NumberList, -1, "", 1));
    add(row(F::Cycle, "cycle", "index, lo, hi", "lo + index, wrapped into lo to hi", 3, 3,
            K::NumberList, -1, "", 1));
    add(row(F::Map, "map", "\"name\", \"channel\"",
            "The groom's map of that name at the root (luminance, or r g b a)", 1, 2, K::MapFamily,
            -1, "", 1));
    add(row(F::Cmap, "cmap", "\"name\"", "The map's color as a vector (also vmap)", 1, 1,
            K::MapFamily, -1, "", 3));

    // Synonyms, found by name; they run their original.
    auto original = [&t](F id) -> const FunctionRow& { return t[static_cast<std::size_t>(id)]; };
    add(synonym("rad", original(F::Radians)));
    add(synonym("deg", original(F::Degrees)));
    add(synonym("norm", original(F::Normalize)));
    add(synonym("dist", original(F::Distance)));
    add(synonym("vmap", original(F::Cmap)));

    // Hidden rows: the forms of a name that are checked differently.
    add(hiddenRow(F::RandRange, "rand range", 2, 3, K::NumberList, "", 1));
    add(hiddenRow(F::Noise4, "noise 4", 2, 4, K::NumberList, "", 1));
    add(hiddenRow(F::IndexOf, "index of", 2, 2, K::Typed, "vs", 1));
    add(hiddenRow(F::NoisePoint, "noise", 1, 1, K::Typed, "p", 1));
    add(hiddenRow(F::CurvePairs, "curve pairs", 3, 64, K::CurveFamily, "", 1));
    // A read of a named color: a map read as cmap reads it.
    FunctionRow swatch = synonym("swatch", original(F::Cmap));
    swatch.hidden = true;
    add(swatch);
    return t;
}

const std::vector<FunctionRow>& table() {
    static const std::vector<FunctionRow> rows = buildTable();
    return rows;
}

}  // namespace

std::span<const FunctionRow> functionTable() {
    return table();
}

std::size_t listedFunctionCount() {
    std::size_t n = 0;
    for (const FunctionRow& r : table())
        n += r.hidden ? 0 : 1;
    return n;
}

const FunctionRow* findFunction(std::string_view name) {
    for (const FunctionRow& r : table())
        if (r.name == name && (!r.hidden || r.name == "swatch")) return &r;
    return nullptr;
}

const FunctionRow& functionRow(FunctionId id) {
    const std::vector<FunctionRow>& rows = table();
    const auto index = static_cast<std::size_t>(id);
    // The first 105 rows are in id order; the hidden ones follow the synonyms.
    if (index < static_cast<std::size_t>(FunctionId::RandRange)) return rows[index];
    for (const FunctionRow& r : rows)
        if (r.id == id && r.hidden) return r;
    assert(false && "every function id has a row");
    return rows.front();
}

int argumentFloats(const FunctionRow& row, int argCount) {
    switch (row.id) {
        case FunctionId::Rand:
        case FunctionId::RandRange:
            return argCount + 1;  // the strand's rand follows the arguments
        case FunctionId::Curve:
        case FunctionId::Ccurve:
        case FunctionId::Linearcurve:
        case FunctionId::CurvePairs:
            return 1;  // the keys live in the program's curve table
        default:
            break;
    }
    if (row.check != CheckKind::Typed) return argCount;
    int floats = 0;
    for (int i = 0; i < argCount && i < static_cast<int>(row.argTypes.size()); ++i)
        floats += row.argTypes[static_cast<std::size_t>(i)] == 's' ? 1 : 3;
    return floats;
}

nlohmann::ordered_json functionHelpJson() {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const FunctionRow& r : table()) {
        if (r.hidden) continue;
        nlohmann::ordered_json entry;
        entry["name"] = r.name;
        entry["signature"] = r.signature;
        entry["description"] = r.description;
        entry["minArgs"] = r.minArgs;
        entry["maxArgs"] = r.maxArgs;
        entry["check"] = static_cast<int>(r.check);
        entry["gpu"] = r.gpu;
        entry["argTypes"] = r.argTypes;
        entry["result"] = r.resultWidth == 3 ? "vector" : "number";
        nlohmann::ordered_json defaults = nlohmann::ordered_json::array();
        for (std::size_t i = 0; i < r.defaultCount; ++i)
            defaults.push_back(r.defaults[i]);
        entry["defaults"] = defaults;
        if (!r.synonymOf.empty()) entry["synonymOf"] = r.synonymOf;
        rows.push_back(entry);
    }
    return rows;
}

}  // namespace velmorin
