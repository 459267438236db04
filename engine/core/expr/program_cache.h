#pragma once
// Compiled expressions kept by what they were compiled from, so that an expression that drives a
// param compiles once rather than on every run and every key.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "expr/expression.h"

namespace velmorin {

// The program of `source` giving `expected`, compiled with `environment()` at `frame`, from the
// process-wide cache where it holds one. `environmentKey` stands for everything of the environment
// but its frame and time (the maps its resolver finds, its variables): two environments with one
// key must resolve the same names alike. A program that reads the frame or the time is reused
// only at the same frame. `environment` is called only to compile; what it or the compiler throws
// (ExpressionError) passes through, and nothing is kept of a failure. Thread-safe; the cache holds
// at most kExpressionCacheSize programs, dropping those used longest ago.
std::shared_ptr<const ExpressionProgram> compileCached(
    std::string_view source, ExpressionType expected, std::uint64_t environmentKey, double frame,
    const std::function<ExpressionEnvironment()>& environment);

inline constexpr std::size_t kExpressionCacheSize = 256;

// How many programs the cache holds now, and how many compiles it has run (for tests).
std::size_t expressionCacheCount();
std::uint64_t expressionCacheCompiles();

}  // namespace velmorin
