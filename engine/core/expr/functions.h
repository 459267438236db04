#pragma once
// The rules of the expression functions, as the interpreter and the compiler's constant folding
// both run them. All are pure: the result depends on the arguments alone (rand gets the strand's
// rand as its last argument). Every domain error has a fixed answer instead of a NaN.

#include <cmath>
#include <cstdint>
#include <span>

#include "expr/function_table.h"
#include "expr/program.h"

namespace velmorin {

// a to the power b; a negative base has no real power of a fraction, and gives 0.
inline float power(float a, float b) {
    if (a < 0.0f && b != std::trunc(b)) return 0.0f;
    return std::pow(a, b);
}

// The binary operators; inline, as the interpreter runs one per instruction.
inline float binaryOp(BinaryOp op, float a, float b) {
    switch (op) {
        case BinaryOp::Add:
            return a + b;
        case BinaryOp::Subtract:
            return a - b;
        case BinaryOp::Multiply:
            return a * b;
        case BinaryOp::Divide:
            return b == 0.0f ? 0.0f : a / b;
        case BinaryOp::Power:
            return power(a, b);
        case BinaryOp::Less:
            return a < b ? 1.0f : 0.0f;
        case BinaryOp::LessEqual:
            return a <= b ? 1.0f : 0.0f;
        case BinaryOp::Greater:
            return a > b ? 1.0f : 0.0f;
        case BinaryOp::GreaterEqual:
            return a >= b ? 1.0f : 0.0f;
        case BinaryOp::Equal:
            return a == b ? 1.0f : 0.0f;
        case BinaryOp::NotEqual:
            return a != b ? 1.0f : 0.0f;
        case BinaryOp::Remainder:
            return b == 0.0f ? 0.0f : std::fmod(a, b);
    }
    return 0.0f;
}

// Whether a call instruction of this function reads a stored curve (its index is the curve's
// number, and it takes one float, t).
inline bool readsCurve(FunctionId id) {
    return (id >= FunctionId::Curve && id <= FunctionId::Linearcurve) ||
           id == FunctionId::CurvePairs;
}

// `args` holds the call's floats as the compiler lays them out (argumentFloats of the row);
// `argCount` is the number of arguments. `curves` are the program's stored curves, `curve` the
// index of the one a curve call reads.
float callNumberFunction(FunctionId id, const float* args, int argCount,
                         std::span<const ExpressionCurve> curves, std::uint16_t curve);
void callVectorFunction(FunctionId id, const float* args, int argCount,
                        std::span<const ExpressionCurve> curves, std::uint16_t curve, float* out);

// The strand's rand: the unitFloat stage of hashCombine(id, 0xE7A1).
float strandRand(std::uint64_t id);

}  // namespace velmorin
