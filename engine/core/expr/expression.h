#pragma once
// Expressions: the small typed language in which artists give a param a value per strand and per
// point, with the surface of SeExpr so that formulas come over from XGen. A source compiles once,
// in one pass, to a flat program of numbers and vectors (program.h); bind() fits the program to a
// strand set, and the interpreter (binding.h) runs it on many threads with no allocation and no
// lock. Locals are inlined where they are read and ifs become selections, so the code has no
// stores and lowers directly to the GPU's form.
//
//     ExpressionEnvironment env = expressionEnvironment(frame, variablesJson, controls);
//     auto program = compile("rand * 2 + $length / $longest", env, ExpressionType::Number);
//     ExpressionBinding binding = bind(program, strands);
//     evaluateExpression(binding, perStrandValues, ExpressionLevel::Strand);

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "expr/environment.h"
#include "expr/program.h"

namespace velmorin {

// A compile or binding failure, worded for the artist.
class ExpressionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Compiles `source` to a program that gives `expected`. Throws ExpressionError: "expression '" +
// source + "': " + what is wrong + " at position " + offset (counted from 0) for one line, or
// " (line L, column C)" (from 1) when the source has several lines; or the whole-source forms
// "expression '...' is nested too deeply" and "expression '...' gives a number; this takes a
// vector...". Maps are resolved now, through the environment.
std::shared_ptr<const ExpressionProgram> compile(std::string_view source,
                                                 const ExpressionEnvironment& environment,
                                                 ExpressionType expected);

}  // namespace velmorin
