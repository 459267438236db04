// The language as artists meet it: one table of sources with their exact values or exact messages,
// read on the fixture groom at strand 0, point 1 (t = 0.5). Values that are not exact in floats
// carry a tolerance.

#include "expr/expression.h"

#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "expr/binding.h"
#include "expr/test/expression_fixture.h"

namespace velmorin {
namespace {

struct Case {
    const char* source;
    int width = 1;  // 1 number, 3 vector
    float value[3] = {0, 0, 0};
    float tolerance = 0.0f;
    const char* error = nullptr;  // the text after "expression '...': "
    int position = -1;            // for one line
    int line = 0, column = 0;     // for several lines
};

Case V(const char* s, float v, float tolerance = 0.0f) {
    return {s, 1, {v, 0, 0}, tolerance};
}
Case V3(const char* s, float x, float y, float z, float tolerance = 0.0f) {
    return {s, 3, {x, y, z}, tolerance};
}
Case E(const char* s, int position, const char* text) {
    Case c{s};
    c.error = text;
    c.position = position;
    return c;
}
Case L(const char* s, int line, int column, const char* text) {
    Case c{s};
    c.error = text;
    c.line = line;
    c.column = column;
    return c;
}

const char* const kDerivatives =
    "XGen's surface derivatives ($dPdu, $dPdv) are not available: build a direction from $N, e.g. "
    "cross($N, [0, 1, 0])";
const char* const kNoise = "noise takes a point, noise(p), or 2 to 4 numbers, noise(x, y, z, w)";
const char* const kCompare =
    "comparisons are of numbers, not vectors (compare .x, length(...) or dot(...))";
const char* const kOneBranch =
    "$a is set in only one branch of an if above: set it before the if too, or in both branches";
const char* const kLuminance = "map(\"density\")";
constexpr float kDensityLuminance = 0.2126f * 0.5f + 0.7152f * 0.25f + 0.0722f * 1.0f;

const Case kCases[] = {
    // Precedence and associativity, lowest level first.
    V("1 ? 2 : 3", 2),
    V("0 ? 2 : 0 ? 3 : 4", 4),
    V("$t > 0.25 ? 10 : 20", 10),
    V3("$t > 0.25 ? [1, 2, 3] : 0", 1, 2, 3),
    V3("$t > 0.75 ? [1, 2, 3] : 0", 0, 0, 0),
    V("0 || 0.5", 1),
    V("0 || 0", 0),
    V("2 && 3", 1),
    V("0 && 1", 0),
    V("$t && 0", 0),
    V("$t || 0", 1),
    V("1 + 1 == 2 && 3 > 2", 1),
    V("1 < 2 == 1", 1),
    V("1 == 1", 1),
    V("1 != 1", 0),
    V("2 <= 2", 1),
    V("2 >= 3", 0),
    V("1 > 2", 0),
    V("1 < 2", 1),
    V("1 + 2 * 3", 7),
    V("(1 + 2) * 3", 9),
    V("1 - 2 - 3", -4),
    V("8 / 2 / 2", 2),
    V("7 % 4", 3),
    V("-7 % 4", -3),
    V("2 ^ 3 ^ 2", 512),
    V("-2 ^ 2", 4),
    V("2 ^ -1", 0.5f),
    V("(-8) ^ (1/3)", 0),
    V("1/0", 0),
    V("5 % 0", 0),
    V("$t / 0", 0),
    V("!0", 1),
    V("!3", 0),
    V("~0.25", 0.75f),
    V("--1", 1),
    V("+-+1", -1),
    V("!$t", 0),
    V("~$t", 0.5f),
    // Postfix forms and vectors.
    V("[1, 2, 3].y", 2),
    V("[1, 2, 3].b", 3),
    V("[1, 2, 3][0]", 1),
    V("[4, 5, 6][$t * 2]", 5),
    V("[4, 5, 6][$t * 6]", 0),
    V("$pointP.y", 1),
    V("$P[2]", 0),
    V3("[1, 2, 3] * 2", 2, 4, 6),
    V3("2 - [1, 2, 3]", 1, 0, -1),
    V3("[1, 2, 3] / 0", 0, 0, 0),
    V3("[5, 6, 7] % 2", 1, 0, 1),
    V3("-[1, 2, 3]", -1, -2, -3),
    V3("~[0.25, 0.5, 1]", 0.75f, 0.5f, 0),
    V3("[1, 2, 3] + [10, 20, 30]", 11, 22, 33),
    V3("[2, 2, 2] ^ [1, 2, 3]", 2, 4, 8),
    V3("[$t, 1, 2] * $t", 0.25f, 0.5f, 1),
    V3("-$pointP", 0, -1, 0),
    V3("$N * [1, 2, 3]", 0, 2, 0),
    // Text between tokens, and numbers.
    V("1 + # note\n2", 3),
    V("// note\n5", 5),
    V("  4  ", 4),
    V("2;", 2),
    V(".5 + 1.", 1.5f),
    V("1e2", 100),
    V("2.5e-1", 0.25f),
    // Locals, ifs and the arrow.
    V("$a = 1; $a", 1),
    V("$a = 2; $b = $a * 3; $b + $a", 8),
    V("$a = 1; $a = $a + 1; $a", 2),
    V3("$v = [1, 2, 3]; $v * 2", 2, 4, 6),
    V("$v = [1, 2, 3]; $v.z", 3),
    V("$x = 3;\n$x * $x", 9),
    V("$a = 1; if ($t > 0.25) { $a = 2; } $a", 2),
    V("$a = 1; if ($t > 0.75) { $a = 2; } $a", 1),
    V("if (0) { $a = 1; } else { $a = 2; } $a", 2),
    V("if ($t > 1) { $a = 1; } else if ($t > 0) { $a = 3; } else { $a = 4; } $a", 3),
    V("if (1) { if (0) { $a = 1; } else { $a = 5; } } else { $a = 2; } $a", 5),
    V3("$a = 1; if ($t) { $a = [1, 2, 3]; } $a", 1, 2, 3),
    V("if ($t) { $a = 1; $b = 2; } else { $b = 3; $a = 4; } $a * 10 + $b", 12),
    V("0.5->clamp(0, 0.25)", 0.25f),
    V("-2->abs", 2),
    V("[3, 4, 0]->length", 5),
    V("$t->smoothstep(0, 1)", 0.5f),
    V("2->pow(3)->sqrt->floor", 2),
    V("[1, 2, 3]->cross([0, 0, 1]).x", 2),
    V("($t->rand) == rand($t)", 1),
    // Variables, built in, the node's own, aliases and channels.
    V("$t", 0.5f),
    V("$pt", 0.5f),
    V("$length", 2),
    V("$longest", 3),
    V("$length / $longest", 2.0f / 3.0f),
    V("$reach", 2),
    V("$straightness", 1),
    V("$lift", 1),
    V("$faceId", 3),
    V("$id", 42),
    V("$index", 0),
    V("$u", 0.25f),
    V("$v", 0.75f),
    V("$pointIndex", 1),
    V("$px + $py + $pz", 1),
    V("$x + $y + $z", 0),
    V("$nx + $ny + $nz", 1),
    V("$tipy", 2),
    V("$prefy", -1),
    V("$_preview", 1),
    V("$frame", 12),
    V("$time", 0.5f),
    V3("$P", 0, 0, 0),
    V3("$N", 0, 1, 0),
    V3("$pointP", 0, 1, 0),
    V3("$tip", 0, 2, 0),
    V3("$Pref", 0, -1, 0),
    V("t * 2", 1),
    V3("tip", 0, 2, 0),
    V("$cLength", 2),
    V("$faceid", 3),
    V3("$Pg", 0, 0, 0),
    V3("$Ng", 0, 1, 0),
    V3("$Prefgw", 0, -1, 0),
    V("$amount * 2", 1),
    V("$center.y", 1),
    V("amount + 1", 1.5f),
    V3("$center", 0, 1, 0),
    V("$mass", 0.5f),
    V("$curl", 0.25f),
    V("rand(2, 2)", 2),
    V("rand(0, 1, 5) == rand(5)", 1),
    // Number functions and their domain rules.
    V("sqrt(-4)", 0),
    V("sqrt(16)", 4),
    V("log(0)", 0),
    V("log(-1)", 0),
    V("log10(100)", 2),
    V("log10(0)", 0),
    V("asin(2) == asin(1)", 1),
    V("acos(-3) == acos(-1)", 1),
    V("asind(1)", 90, 1e-4f),
    V("acosd(-1)", 180, 1e-4f),
    V("sind(30)", 0.5f, 1e-6f),
    V("atan2d(1, 1)", 45, 1e-4f),
    V("degrees(radians(90))", 90, 1e-4f),
    V("rad(180)", 3.1415927f, 1e-6f),
    V("deg(1)", 57.295776f),
    V("acosh(0)", 0),
    V("atanh(1)", 0),
    V("atanh(-2)", 0),
    V("abs(-3)", 3),
    V("cbrt(27)", 3),
    V("pow(2, 10)", 1024),
    V("pow(-8, 0.5)", 0),
    V("pow(-2, 3)", -8),
    V("exp(0)", 1),
    V("hypot(3, 4)", 5),
    V("floor(-1.5)", -2),
    V("ceil(-1.5)", -1),
    V("round(2.5)", 3),
    V("round(-2.5)", -3),
    V("trunc(-2.7)", -2),
    V("fract(-0.25)", 0.75f),
    V("sign(-3)", -1),
    V("sign(0)", 0),
    V("sign(5)", 1),
    V("min(2, 1)", 1),
    V("max(2, 1)", 2),
    V("mod(-1, 3)", 2),
    V("mod(5, 0)", 0),
    V("fmod(-1, 3)", -1),
    V("fmod(5, 0)", 0),
    V("invert(0.25)", 0.75f),
    V("clamp(5, 3, 1)", 3),
    V("clamp(-1, 0, 1)", 0),
    V("mix(2, 4, 1.5)", 5),
    V("lerp(2, 4, 0.25)", 2.5f),
    V("step(1, 0.5)", 0),
    V("step(1, 1)", 1),
    V("boxstep(1, 1)", 1),
    V("boxstep(0.5, 1)", 0),
    V("linearstep(0.5, 0, 2)", 0.25f),
    V("linearstep(0.5, 1, 1)", 0),
    V("linearstep(1, 1, 1)", 1),
    V("smoothstep(0.5, 0, 1)", 0.5f),
    V("smoothstep(2, 0, 1)", 1),
    V("gaussstep(-1, 0, 1)", 0),
    V("gaussstep(2, 0, 1)", 1),
    V("gaussstep(0.5, 0, 1) < 0.5", 1),
    V("fit(0.5, 0, 1, 10, 20)", 15),
    V("fit(2, 0, 1, 10, 20)", 30),
    V("fit(3, 1, 1, 7, 9)", 7),
    V("remap(0.5, 0.5, 0.1, 0.2, 0)", 1),
    V("remap(0.8, 0.5, 0.1, 0.4, 0)", 0.5f, 1e-6f),
    V("remap(2, 0.5, 0.1, 0.4, 0)", 0),
    V("remap(0.7, 0.5, 0.1, 0, 0)", 0),
    V("compress(0.5, 2, 4)", 3),
    V("expand(3, 2, 4)", 0.5f),
    V("expand(2, 2, 2)", 1),
    V("expand(1, 2, 2)", 0),
    V("gamma(0.25, 0.5)", 0.0625f),
    V("gamma(-1, 2)", 0),
    V("gamma(0.5, 0)", 0),
    V("bias(0.5, 0.5)", 0.5f),
    V("bias(0.5, 0.25)", 0.25f, 1e-6f),
    V("bias(0, 0.3)", 0),
    V("bias(0.3, 1)", 1),
    V("gain(0.5, 0.5)", 0.5f),
    V("contrast(0.5, 0.5)", 0.5f),
    V("hash(0) == hash(-0)", 1),
    V("hash(1, 2) != hash(2, 1)", 1),
    V("choose(1, 10, 20)", 20),
    V("choose(0, 10, 20)", 10),
    V("choose(0.5, 10, 20, 30)", 20),
    V("choose(exp(1000) - exp(1000), 10, 20)", 0),
    V("wchoose(0.7, 10, 0, 20, 0)", 10),
    V("wchoose(0.7, 10, 1, 20, 1)", 20),
    V("wchoose(0.2, 10, 1, 20, 1)", 10),
    V("wchoose(0.5, 10, -5, 20, 1)", 20),
    V("pick(3, 5, 4)", 5),
    V("pick(3, 2, 2)", 2),
    V("pick(0.5, 1, 3, 0, 0, 1)", 3),
    V("pick(1, 0, 4, 0, 0, 0, 0, 0)", 0),
    V("pick(2, 0, 1, 0)", 1),
    V("cycle(-1, 0, 3)", 3),
    V("cycle(5, 0, 3)", 1),
    V("cycle(2, 10, 12)", 12),
    V("cycle(7, 3, 2)", 3),
    V("spline(0, 1, 2, 3, 4)", 2),
    V("spline(1, 1, 2, 3, 4)", 3),
    V("spline(0.5, 0, 0, 1, 1)", 0.5f),
    V("spline(-1, 1, 2, 3, 4)", 2),
    // Curves: keys are sorted, t outside them holds the end values.
    V("curve(0.5, 0, 0, 1, 1, 1, 1)", 0.5f),
    V("curve(0.7, 0, 2, 0, 1, 5, 0)", 2),
    V("curve(2, 0, 2, 1, 1, 5, 1)", 5),
    V("curve(-1, 0, 2, 1, 1, 5, 1)", 2),
    V("curve(0.5, 1, 5, 1, 0, 1, 1)", 3),
    V("curve(0.5)", 1),
    V("curve(0.5, 0, 0, 2, 1, 1, 2)", 0.5f),
    V("curve(0.75, 0, 0, 3, 0.5, 1, 3, 1, 1, 3) > 1", 1),
    V("curve(0.75, 0, 0, 4, 0.5, 1, 4, 1, 1, 4)", 1),
    V("curve(0.5, 0, $amount, 1, 1, 1, 1)", 0.75f),
    V("curve($t, 0, 0, 1, 1, 1, 1)", 0.5f),
    V("linearcurve(0.25, 0, 0, 1, 4)", 1),
    V3("ccurve(0.5, 0, [0, 0, 0], 1, 1, [2, 4, 6], 1)", 1, 2, 3),
    V3("ccurve($t, 0, 0, 1, 1, [2, 4, 6], 1)", 1, 2, 3),
    // Vector and color functions.
    V("dot([1, 2, 3], [4, 5, 6])", 32),
    V3("cross([1, 0, 0], [0, 1, 0])", 0, 0, 1),
    V("length([3, 4, 0])", 5),
    V("length(3)", std::sqrt(27.0f)),
    V3("normalize([0, 0, 0])", 0, 0, 0),
    V3("norm([0, 3, 0])", 0, 1, 0),
    V("distance([1, 1, 1], [1, 4, 5])", 5),
    V("dist([0, 0, 0], [0, 0, 2])", 2),
    V("angle([1, 0, 0], [0, 0, 0])", 0),
    V("angle([1, 0, 0], [0, 1, 0])", 1.5707964f, 1e-6f),
    V3("ortho([2, 0, 0], [0, 3, 0])", 0, 0, 1),
    V3("rotate([1, 0, 0], [0, 0, 1], 1.5707964)", 0, 1, 0, 1e-6f),
    V3("rotate([1, 2, 3], [0, 0, 0], 1)", 1, 2, 3),
    V3("up([1, 2, 3], [0, 5, 0])", 1, 2, 3),
    V3("up([1, 2, 3], [0, -5, 0])", 1, -2, -3),
    V3("up([1, 2, 3], [0, 0, 0])", 1, 2, 3),
    V3("up([0, 1, 0], [1, 0, 0])", 1, 0, 0, 1e-6f),
    V3("rgbtohsl([1, 0, 0])", 0, 1, 0.5f),
    V3("hsltorgb([0, 1, 0.5])", 1, 0, 0, 1e-6f),
    V3("hsltorgb(rgbtohsl([0.2, 0.4, 0.6]))", 0.2f, 0.4f, 0.6f, 1e-6f),
    V3("saturate([0.2, 0.4, 0.6], 1)", 0.2f, 0.4f, 0.6f),
    V3("saturate([1, 0, 0], 0)", 0.2126f, 0.2126f, 0.2126f),
    V3("hsi([1, 0, 0], 120, 1, 1)", 0, 1, 0, 1e-6f),
    V3("hsi([1, 0, 0], 120, 1, 1, 0)", 1, 0, 0, 1e-6f),
    V3("hsi([0.5, 0.5, 0.5], 0, 1, 2)", 1, 1, 1, 1e-6f),
    V3("midhsi([1, 0, 0], 120, 1, 1, 1)", 0, 1, 0, 1e-6f),
    V3("midhsi([1, 0, 0], 120, 1, 1, 0.5)", 1, 0, 0, 1e-6f),
    V3("midhsi([1, 0, 0], 120, 1, 2, 0)", 0, 0, 0.5f, 1e-6f),
    // Noise: properties that hold exactly.
    V("noise([1, 2, 3])", 0.5f),
    V("snoise([1, 2, 3])", 0),
    V("noise(1, 2, 3) == noise([1, 2, 3])", 1),
    V("noise(0.3, 0.6) == noise([0.3, 0.6, 0])", 1),
    V("noise(0.3) == noise([0.3, 0, 0])", 1),
    V("fbm([0.3, 0.7, 1.1], 1) == noise([0.3, 0.7, 1.1])", 1),
    V("cnoise([0.3, 0.7, 1.1]).y == vnoise([0.3, 0.7, 1.1]).y * 0.5 + 0.5", 1),
    V("vfbm([0.3, 0.7, 1.1], 1).z == vnoise([0.3, 0.7, 1.1]).z", 1),
    V("fbm4([0.3, 0.7, 1.1], 2, 1) == noise(0.3, 0.7, 1.1, 2)", 1),
    V("snoise4([0.3, 0.7, 1.1], 2) * 0.5 + 0.5 == noise(0.3, 0.7, 1.1, 2)", 1),
    V("pnoise([0.5, 0.25, 0.125], [2, 3, 4]) == pnoise([2.5, 3.25, 4.125], [2, 3, 4])", 1),
    V("turbulence([0.3, 0.7, 1.1]) >= 0.5", 1),
    V("cellnoise([0.2, 0.3, 0.4]) == cellnoise([0.9, 0.1, 0.5])", 1),
    V("cellnoise([0.2, 0.3, 0.4]) != cellnoise([1.2, 0.3, 0.4])", 1),
    V3("pvoronoi([0.2, 0.3, 0.4], 0)", 0.5f, 0.5f, 0.5f),
    V("voronoi([0.5, 0.5, 0.5], 2, 0)", 0),
    V("voronoi([0.5, 0.5, 0.5], 3, 0)", 1),
    V("voronoi([1, 0.5, 0.5], 5, 0)", 1),
    V("voronoi([1, 0.5, 0.5], 4, 0)", 0),
    V("voronoi([0.5, 0.5, 0.5], 5, 0)", 0),
    V("cvoronoi([0.5, 0.5, 0.5], 2, 0).x", 0),
    V("cvoronoi([0.5, 0.5, 0.5]).x == voronoi([0.5, 0.5, 0.5])", 1),
    // Maps, read at the root.
    V("map(\"density\", \"g\")", 0.25f),
    V("map(\"density\", 3)", 0.75f),
    V(kLuminance, kDensityLuminance, 1e-6f),
    V3("cmap(\"density\")", 0.5f, 0.25f, 1),
    V3("vmap('density')", 0.5f, 0.25f, 1),
    V3("swatch(\"density\")", 0.5f, 0.25f, 1),
    V("map('${DESC}/paintmaps/density/', 'r')", 0.5f),

    // Every message of the compiler, with where it points.
    E("", 0, "unexpected end"),
    E("1 +", 3, "unexpected end"),
    E("1 @ 2", 2, "unexpected '@'"),
    E("$a = 1; 2 3", 10, "unexpected '3'"),
    E("1; 2", 1, "unexpected ';'"),
    E("2abc", 0, "bad number"),
    E(".", 0, "bad number"),
    E("1.2.3", 0, "bad number"),
    E("(1 + 2", 6, "expected ')'"),
    E("[1, 2]", 5, "a vector is [x, y, z]: expected ','"),
    E("[1, 2, 3", 8, "a vector is [x, y, z]: expected ']'"),
    E("[[1, 2, 3], 2, 3]", 1, "a vector's components are numbers"),
    E("1[0]", 1, "a number has no components to index"),
    E("[1, 2, 3][[0, 0, 0]]", 10, "a vector's index is a number"),
    E("[1, 2, 3][3]", 10, "a vector's index is 0, 1 or 2"),
    E("[1, 2, 3][1", 11, "expected ']' after the index"),
    E("(1).x", 3, "a number has no .x"),
    E("[1, 2, 3].w", 9, "a vector has no .w (use .x, .y, .z or .r, .g, .b)"),
    E("$", 1, "expected a name after '$'"),
    E("$nosuch.x", 7, "unknown vector $nosuch"),
    E("$length.x", 7, "$length is a number: it has no .x"),
    E("\"density\"", 0, "text in quotes names a map, in map(\"name\")"),
    E("map(\"density)", 4, "the quotes are not closed"),
    E("map(density)", 4, "expected a name in quotes"),
    E("[1, 2, 3] ? 1 : 2", 0, "a condition is a number, not a vector"),
    E("1 ? 2", 5, "expected ':'"),
    E("[1, 2, 3] < 2", 10, kCompare),
    E("1 == [1, 2, 3]", 2, kCompare),
    E("![1, 2, 3]", 0, "! takes a number, not a vector"),
    E("[1, 2, 3] && 1", 10, "&& takes numbers, not vectors"),
    E("1 || [1, 2, 3]", 2, "|| takes numbers, not vectors"),
    E("1->", 3, "expected a function's name after '->'"),
    E("1->clamp", 8,
      "expected '(' after clamp (-> applies a function: x->clamp(0, 1) is clamp(x, 0, 1))"),
    L("1\n2", 1, 2, "expected ';' at the end of the line above (only the last line is the value)"),
    L("$a = 1;\n$a +", 2, 5, "unexpected end"),
    E("$a = 1 $a", 7, "expected ';' after the value of $a"),
    E("if (1) { 2 } 1", 9, "expected an assignment ($name = ...;) or an if inside { }"),
    E("$v.x = 1; 2", 0, "assign a whole vector ($v = [x, y, z];), not one component"),
    E("$v[0] = 1; 2", 0, "assign a whole vector ($v = [x, y, z];), not one component"),
    E("else { } 1", 0, "an else without its if"),
    E("if 1", 3, "expected '(' after if"),
    E("if (1 { } 1", 6, "expected ')' after the if's condition"),
    E("if ([1, 2, 3]) { } 1", 4, "an if's condition is a number, not a vector"),
    E("if (1) $a = 1; 1", 7, "expected '{': an if's statements are in braces, if (c) { $a = 1; }"),
    E("if (1) { $a = 1;", 16, "expected '}'"),
    E("if ($t) { $a = 1; } $a", 20, kOneBranch),
    E("if ($t) { $a = 1; } else { $b = 1; } $b", 37,
      "$b is set in only one branch of an if above: set it before the if too, or in both branches"),
    E("$a = 1;", 7, "unexpected end"),
    E("nosuch(1)", 0, "unknown function 'nosuch'"),
    E("sin(1", 5, "expected ')' after the arguments of sin"),
    E("sin", 3, "expected '(' after sin"),
    E("printf(\"%f\", 1)", 0,
      "printf is not supported (expressions run on many threads at once): show a value by "
      "returning it"),
    E("sprintf(1)", 0, "sprintf is not supported: strings appear only as map names"),
    E("getVar(1)", 0, "getVar is not supported: read the variable by its name ($name)"),
    E("sin(1, 2)", 0, "sin takes 1 argument(s), got 2"),
    E("fbm()", 0, "fbm takes 1 to 4 argument(s), got 0"),
    E("hash()", 0, "hash takes 1 to 64 argument(s), got 0"),
    E("pow([1, 2, 3], 2)", 4, "argument 1 of pow is a number, not a vector"),
    E("hash([1, 2, 3])", 0, "hash's arguments are numbers"),
    E("rand($P)", 0, "rand's arguments are numbers"),
    E("fbm(P, P)", 0, "fbm takes too many vectors"),
    E("fbm(1, P)", 7, "argument 2 of fbm is a number, not a vector"),
    E("noise(P, 1)", 0, kNoise),
    E("noise()", 0, kNoise),
    E("noise(1, 2, 3, 4, 5)", 0, kNoise),
    E("wchoose(0.5, 1, 2, 3)", 0, "wchoose takes (t, value, weight, value, weight, ...)"),
    E("curve(0.5, 0, 1)", 0,
      "curve takes (t, position, value, interpolation, ...) as SeExpr: keys of three, the "
      "interpolation 0 (none), 1 (linear), 2 (smooth), 3 (spline) or 4 (monotone spline)"),
    E("ccurve(0.5, 0, 1)", 0,
      "ccurve takes (t, position, value, interpolation, ...): keys of three, the interpolation 0 "
      "(none), 1 (linear), 2 (smooth), 3 (spline) or 4 (monotone spline)"),
    E("curve(P, 0, 1, 1)", 6, "curve's first argument (where on the curve) is a number"),
    E("curve(0.5, [0, 0, 0], 1, 1)", 11, "curve's keys are numbers"),
    E("ccurve(0.5, 0, 1, [1, 1, 1])", 18, "ccurve's keys are numbers (a value may be a color)"),
    E("curve(0.5, $t, 1, 1)", 11,
      "curve's keys are numbers (or the node's own variables), fixed when the expression compiles"),
    E("curve(0.5, 0, 1, 7)", 17,
      "curve's interpolations are 0 (none), 1 (linear), 2 (smooth), 3 (spline) or 4 (monotone "
      "spline)"),
    E("linearcurve(0.5, 0, 1, 2)", 0,
      "linearcurve takes t and pairs of position and value: (t, p0, v0, p1, v1, ...)"),
    E("map(\"density\", \"q\")", 15,
      "a map's channel is \"r\", \"g\", \"b\", \"a\" or \"luminance\""),
    E("map(\"density\", 7)", 15, "a map's channel is 0 (r), 1 (g), 2 (b), 3 (a) or 4 (luminance)"),
    E("cmap(\"density\", \"r\")", 16, "cmap takes the map's name alone (it gives r, g, b)"),
    E("1->map", 3, "map takes a map's name in quotes; -> can't give it one"),
    E("map(\"density\", 1, 2)", 0, "map takes 1 to 2 argument(s), got 3"),
    E("map()", 0, "map takes 1 to 2 argument(s), got 0"),
    E("map(\"density\"", 13, "expected ')' after the arguments of map"),
    E("map(\"nothere\")", 4, "no map named 'nothere' (Groom Tools > Paint lists them)"),
    E("map('${DESC}/paintmaps/nothere/')", 4,
      "map('${DESC}/paintmaps/nothere/'): XGen's paint maps do not carry over; Velmorin reads the "
      "groom's own maps by name, here 'nothere', and the groom has none of that name (paint one in "
      "Groom Tools > Paint, or write map(\"name\"))"),
    E("map('${DESC}/paintmaps/')", 4,
      "map('${DESC}/paintmaps/'): give the name of one of the groom's maps, map(\"name\")"),
    E("map(\"broken\")", 4, "map(\"broken\"): the texture map has no image file yet"),
    // XGen's names that have no equivalent.
    E("$Nref", 0,
      "XGen's $Nref (the reference normal) has no Velmorin equivalent: $N is the scalp's normal"),
    E("$Nrefg", 0,
      "XGen's $Nrefg (the reference normal) has no Velmorin equivalent: $N is the scalp's normal"),
    // Every spelling of the derivatives shares one message; the first and the last spelling.
    E("$dPdu", 0, kDerivatives),
    E("1 + $dPdvrefg", 4, kDerivatives),
    E("$cWidth", 0,
      "XGen's $cWidth has no Velmorin equivalent: the Width node sets the width, and no variable "
      "reads it"),
    E("$cDepth", 0, "XGen's $cDepth (a card's depth) has no Velmorin equivalent"),
    E("$aCount", 0, "XGen's $aCount (archives) has no Velmorin equivalent"),
    E("$descId", 0,
      "XGen's $descId has no Velmorin equivalent (an expression belongs to one groom)"),
    E("$patchId", 0,
      "XGen's $patchId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
      "triangle"),
    E("$objectId", 0,
      "XGen's $objectId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
      "triangle"),
    E("$Cs", 0,
      "XGen's $Cs (the region color) has no Velmorin equivalent: read a painted map with "
      "cmap(\"name\")"),
    E("$As", 0,
      "XGen's $As (the region alpha) has no Velmorin equivalent: read a painted map with "
      "map(\"name\")"),
    E("$DESC", 0,
      "${DESC} means something only inside an XGen map path, map('${DESC}/paintmaps/name/')"),
    E("${DESC}", 0,
      "${DESC} means something only inside an XGen map path, map('${DESC}/paintmaps/name/')"),
};

std::string expectedMessage(const Case& c) {
    std::string text = "expression '" + std::string(c.source) + "': " + c.error;
    if (c.line > 0)
        return text + " (line " + std::to_string(c.line) + ", column " + std::to_string(c.column) +
               ")";
    return text + " at position " + std::to_string(c.position);
}

// The value of a source at strand 0, point 1 of the fixture.
std::vector<float> valueAtFixture(const std::shared_ptr<const ExpressionProgram>& program) {
    static const StrandSet strands = test::fixtureStrands();
    static const test::FixtureRoots roots;
    const ExpressionBinding binding = bind(program, strands, roots.roots());
    if (program->resultType == ExpressionType::Vector) {
        std::vector<Vec3f> out(strands.pointCount());
        evaluateExpression(binding, out, ExpressionLevel::Point);
        return {out[1].x, out[1].y, out[1].z};
    }
    std::vector<float> out(strands.pointCount());
    evaluateExpression(binding, out, ExpressionLevel::Point);
    return {out[1]};
}

TEST(Expression, SourcesGiveTheirValuesOrTheirMessages) {
    static_assert(std::size(kCases) >= 150);
    const ExpressionEnvironment env = test::fixtureEnvironment();
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.source);
        if (c.error) {
            try {
                compile(c.source, env, ExpressionType::Number);
                ADD_FAILURE() << "compiled";
            } catch (const ExpressionError& e) {
                EXPECT_EQ(e.what(), expectedMessage(c));
            }
            continue;
        }
        const auto type = c.width == 3 ? ExpressionType::Vector : ExpressionType::Number;
        std::shared_ptr<const ExpressionProgram> program;
        try {
            program = compile(c.source, env, type);
        } catch (const ExpressionError& e) {
            ADD_FAILURE() << e.what();
            continue;
        }
        const std::vector<float> value = valueAtFixture(program);
        for (int k = 0; k < c.width; ++k) {
            if (c.tolerance == 0.0f)
                EXPECT_EQ(value[static_cast<std::size_t>(k)], c.value[k]) << "component " << k;
            else
                EXPECT_NEAR(value[static_cast<std::size_t>(k)], c.value[k], c.tolerance)
                    << "component " << k;
        }
    }
}

// The message of compiling `source` for `type`, or "compiled".
std::string compileMessage(const std::string& source,
                           ExpressionType type = ExpressionType::Number) {
    try {
        compile(source, test::fixtureEnvironment(), type);
    } catch (const ExpressionError& e) {
        return e.what();
    }
    return "compiled";
}

TEST(Expression, WholeSourceMessages) {
    EXPECT_EQ(compileMessage("$t", ExpressionType::Vector),
              "expression '$t' gives a number; this takes a vector, e.g. [0, -1, 0] or "
              "normalize(N)");
    EXPECT_EQ(compileMessage("N"),
              "expression 'N' gives a vector; this takes a number (use .x, length(...) or "
              "dot(...))");

    // 200 levels of nesting compile; one more does not.
    const std::string deepest = std::string(199, '(') + "$t" + std::string(199, ')');
    EXPECT_EQ(compileMessage(deepest), "compiled");
    const std::string deeper = "(" + deepest + ")";
    EXPECT_EQ(compileMessage(deeper), "expression '" + deeper + "' is nested too deeply");
    // Nesting that would need more stack than the interpreter has is refused the same way.
    std::string calls = "$t";
    for (int i = 0; i < 60; ++i) {
        std::string args;
        for (int k = 0; k < 40; ++k)
            args += "$t, ";
        calls = "hash(" + args + calls + ")";
    }
    EXPECT_EQ(compileMessage(calls), "expression '" + calls + "' is nested too deeply");
}

TEST(Expression, InlinedLocalsMeetTheOperationLimitByName) {
    // The message after the quoted source, which is too long to repeat here.
    auto message = [](const std::string& source) {
        const std::string text = compileMessage(source);
        return text == "compiled" ? text : text.substr(text.find("': ") + 3);
    };
    // Each local reads the one before twice, so the code doubles with every line: $l19 holds
    // 2^20 - 1 operations, $l18 half of that.
    auto chain = [](int last) {
        std::string text = "$l0 = $t;\n";
        for (int i = 1; i <= last; ++i)
            text += "$l" + std::to_string(i) + " = $l" + std::to_string(i - 1) + " * $l" +
                    std::to_string(i - 1) + ";\n";
        return text;
    };
    EXPECT_EQ(message(chain(19) + "$l19"), "compiled");
    EXPECT_EQ(message(chain(19) + "$l19 + $l19"),
              "the expression is too long once $l19 is put in where it is read (1048576 "
              "operations at most): read it in fewer places (line 21, column 8)");
    EXPECT_EQ(message(chain(19) + "$l19 + 1"),
              "the expression is too long (1048576 operations at most) (line 21, column 9)");
    // A selection too long to build, and one too long to read twice.
    EXPECT_EQ(message(chain(18) + "if ($t) { $s = $l18; } else { $s = $l18 + 1; }\n$s"),
              "the expression is too long once $s's if is put in where it is read (line 20, "
              "column 1)");
    EXPECT_EQ(message(chain(17) + "if ($t) { $s = $l17; } else { $s = $l17 + 1; }\n$s + $s"),
              "the expression is too long once $s's if is put in where it is read (line 20, "
              "column 6)");
}

TEST(Expression, TablesStopAtTheirSize) {
    // 65535 curves fit the 16-bit index; the next call is refused where it stands.
    const std::string curve = "curve($t, 0, 0, 1) + ";
    std::string curves;
    for (int i = 0; i < 65536; ++i)
        curves += curve;
    EXPECT_EQ(compileMessage(curves.substr(0, 65535 * curve.size()) + "0"), "compiled");
    EXPECT_EQ(compileMessage(curves + "0"), "expression '" + curves +
                                                "0': too many curves at position " +
                                                std::to_string(65535 * curve.size()));

    std::string channels;
    std::size_t last = 0;
    for (int i = 0; i < 65536; ++i) {
        last = channels.size();
        channels += "$c" + std::to_string(i) + " + ";
    }
    EXPECT_EQ(compileMessage(channels + "0"),
              "expression '" + channels +
                  "0': the expression reads too many channels and maps (65535 at most) at "
                  "position " +
                  std::to_string(last));
}

}  // namespace
}  // namespace velmorin
