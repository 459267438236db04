#pragma once
// Running a compiled expression over strands. bind() fits a program to one strand set: it finds
// the channels the code reads, samples the maps at the roots and measures `longest`, once. The
// interpreter then runs per strand, or per point where the program reads per-point data, filling
// only the variable slots the program reads. Evaluation allocates nothing and locks nothing; the
// one shared state is the binding, read-only.

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "base/vec3.h"
#include "expr/expression.h"
#include "expr/program.h"

namespace velmorin {

class StrandSet;

// What the strands do not carry and the scalp knows, one entry per strand: each span is empty
// (u and v read 0, there is no normal so lift reads 0, the rest root is the root) or of the
// stated size. The spans must outlive the binding.
struct ExpressionRoots {
    std::span<const float> uvs;        // u, v per strand: 2 * strandCount
    std::span<const Vec3f> normals;    // strandCount
    std::span<const Vec3f> restRoots;  // strandCount
};

class ExpressionBinding;

// bind(program, strands[, roots]): resolves the program's channels against `strands`, samples its
// maps and measures `longest`. Throws ExpressionError "the expression reads 'name', which is
// neither a variable nor a channel of the strands" (the mapped param puts its name in front), or
// what a map's sampling throws; std::invalid_argument for a null program or root spans of the
// wrong size. A temporary strand set would leave the binding dangling and is refused.
//
// bind is an object rather than a function so that a call never finds std::bind, which the
// shared pointer argument would otherwise bring into the lookup.
struct ExpressionBinder {
    ExpressionBinding operator()(std::shared_ptr<const ExpressionProgram> program,
                                 const StrandSet& strands, const ExpressionRoots& roots = {}) const;
    ExpressionBinding operator()(std::shared_ptr<const ExpressionProgram> program,
                                 StrandSet&& strands,
                                 const ExpressionRoots& roots = {}) const = delete;
};
inline constexpr ExpressionBinder bind{};

// A program fitted to a strand set. Read-only after bind, shared by every evaluating thread. The
// strand set and the roots' spans must outlive it and stay unwritten.
class ExpressionBinding {
  public:
    const ExpressionProgram& program() const { return *program_; }
    const StrandSet& strands() const { return *strands_; }
    // Whether the value changes along a strand: the program reads point variables or a point
    // channel.
    bool perPoint() const { return perPoint_; }
    float longest() const { return longest_; }
    // A process-wide number given at binding: one per binding, never reused.
    std::uint64_t serial() const { return serial_; }

    const ExpressionRoots& roots() const { return roots_; }
    // Per channel read of the program: its strand column, or null where it is a point channel;
    // and its point column, or null where it is a strand channel.
    std::span<const float* const> strandChannels() const { return strandChannels_; }
    std::span<const float* const> pointChannels() const { return pointChannels_; }

  private:
    friend struct ExpressionBinder;

    ExpressionBinding() = default;

    std::shared_ptr<const ExpressionProgram> program_;
    const StrandSet* strands_ = nullptr;
    ExpressionRoots roots_;
    std::vector<const float*> strandChannels_;    // per channel read; null for a point channel
    std::vector<const float*> pointChannels_;     // per channel read; null for a strand channel
    std::vector<std::vector<float>> mapColumns_;  // sampled map components, one per strand
    float longest_ = 0.0f;
    bool perPoint_ = false;
    std::uint64_t serial_ = 0;
};

inline constexpr std::size_t kNoPoint = std::numeric_limits<std::size_t>::max();

// One thread's evaluation record: the 32 slots, the channel tables, the strand and the point
// (an index into the point columns, kNoPoint where there is none). A plain value: copy one per
// thread or chunk.
struct ExpressionState {
    explicit ExpressionState(const ExpressionBinding& binding);
    // A state of no strands, for a program that reads only frame, time and constants.
    explicit ExpressionState(const ExpressionProgram& program);

    float slots[kSlotCount] = {};
    const float* const* strandChannels = nullptr;
    const float* const* pointChannels = nullptr;
    std::size_t channelCount = 0;
    std::size_t strand = 0;
    std::size_t point = kNoPoint;
    // The current strand's points in the point columns, and where the walk along it is: the
    // point within it and the arc length up to it.
    std::size_t pointBegin = 0;
    std::size_t pointCount = 0;
    std::size_t pointInStrand = kNoPoint;
    float arc = 0.0f;
};

// Fills the strand slots the program reads; leaves the state at no point.
void enterStrand(const ExpressionBinding& binding, ExpressionState& state, std::size_t strand);
// Moves to point k of the current strand (k below its point count) and fills the point slots the
// program reads. Stepping to the next point costs one segment; any other step walks from the root.
void enterPoint(const ExpressionBinding& binding, ExpressionState& state, std::size_t k);

// Runs the program in the state. The result type must match.
float evaluateNumber(const ExpressionProgram& program, const ExpressionState& state);
Vec3f evaluateVector(const ExpressionProgram& program, const ExpressionState& state);

// The one value of a program that reads nothing per strand (program.isUniform()), as the
// Expression node gives for a whole node. Throws std::invalid_argument for any other program, or
// one of the other type.
float evaluateUniformNumber(const ExpressionProgram& program);
Vec3f evaluateUniformVector(const ExpressionProgram& program);

enum class ExpressionLevel {
    Strand,  // one value per strand: a per-point program is read at the root
    Point,   // one value per point: a per-strand program's value repeats along the strand
};

// Evaluates the program for every strand in parallel (chunks of 256 strands), into one value
// per strand or per point. Throws std::invalid_argument when `out` is not strandCount or
// pointCount long, or the program's type is not the output's.
void evaluateExpression(const ExpressionBinding& binding, std::span<float> out,
                        ExpressionLevel level);
void evaluateExpression(const ExpressionBinding& binding, std::span<Vec3f> out,
                        ExpressionLevel level);

}  // namespace velmorin
