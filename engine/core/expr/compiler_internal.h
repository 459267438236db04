#pragma once
// The expression compiler: one pass of recursive descent that emits postfix code as it parses, with
// no syntax tree. Each parse function emits the code of what it parsed and returns its type.
// Locals keep their code and are copied in where they are read; an if turns each local it sets
// into a selection on its condition. Constant operands fold as they are emitted, which is also how
// a curve's keys are known to be fixed.
//
// The compiler's pieces share this header and nothing else includes it: compiler.cpp holds the
// grammar, compiler_calls.cpp the function calls, compiler_names.cpp the variables and the names
// taken over from XGen (aliases, refusals, map paths), and compiler_code.cpp the emitting with
// constant folding and the finishing of a program.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "expr/expression.h"
#include "expr/function_table.h"
#include "expr/functions.h"

namespace velmorin::expr_compiler {

using Code = std::vector<Instruction>;
using Type = ExpressionType;

constexpr int kMaxDepth = 200;
// All the code that locals hold over one compile, so that a source of many large locals stays
// within memory: eight programs' worth.
constexpr std::size_t kLocalCodeBudget = 8 * kMaxInstructions;

inline int width(Type t) {
    return static_cast<int>(t);
}

inline Instruction make(Opcode op, std::uint8_t a = 0, std::uint8_t b = 0, std::uint16_t index = 0,
                        float value = 0.0f) {
    Instruction i;
    i.op = op;
    i.a = a;
    i.b = b;
    i.index = index;
    i.value = value;
    return i;
}

// What went wrong, where: turned into the artist's message at the top.
struct Failure {
    std::size_t offset;
    std::string text;
};
struct NestedTooDeeply {};

struct Local {
    std::shared_ptr<const Code> code;
    Type type = Type::Number;
    bool fromIf = false;     // its value is a selection made by an if
    bool oneBranch = false;  // set in one branch of an if with no value before it
    std::uint64_t serial = 0;
};
using Locals = std::map<std::string, Local, std::less<>>;

// What a primary was, for the messages of the postfix forms.
struct Operand {
    std::string variable;  // "$name" for a plain variable read
    bool channel = false;  // a channel of the strands (always a number)
};

// One argument of a call, compiled on its own so that its row can be chosen by the count.
struct Argument {
    Code code;
    Type type = Type::Number;
    std::size_t offset = 0;
};

inline bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
inline bool isNameChar(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}
inline bool isQuote(char c) {
    return c == '"' || c == '\'';
}

// What XGen's names come to here (compiler_names.cpp). The refusals give the message for a name
// that has no equivalent, or an empty text for a name they do not cover.
std::string_view refusedFunction(std::string_view name);
std::string_view refusedVariable(std::string_view name);
// Whether a name is one of the strand variables, by itself or as a vector.
bool isBuiltinVariable(std::string_view name);

class Compiler {
  public:
    Compiler(std::string_view source, const ExpressionEnvironment& env, ExpressionProgram& program)
        : src_(source), env_(env), program_(program) {}

    Type compileAll();

  private:
    // ---- Lexing
    char at(std::size_t i) const { return i < src_.size() ? src_[i] : '\0'; }
    bool atEnd() const { return pos_ >= src_.size(); }
    std::size_t skipFrom(std::size_t p) const;
    // Skips space and comments, noting where the gap began (for "the line above").
    void skip() {
        const std::size_t from = pos_;
        pos_ = skipFrom(pos_);
        if (pos_ != from) gapStart_ = from;
    }
    bool accept(std::string_view token);
    bool keywordAhead(std::string_view word) const;
    std::string readName();
    std::string readQuoted();
    [[noreturn]] void fail(std::size_t offset, std::string text) const {
        throw Failure{offset, std::move(text)};
    }
    bool assignmentAhead() const;
    bool componentAssignmentAhead() const;

    // ---- Emitting, with constant folding
    void emit(const Instruction& i);
    void emitConst(float v) { emit(make(Opcode::PushConst, 0, 0, 0, v)); }
    void append(const Code& code);
    bool constantFrom(std::size_t start, int count, float* values) const;
    Type binary(BinaryOp op, Type left, std::size_t leftStart, Type right, std::size_t rightStart);
    Type select(std::size_t condStart, std::size_t yesStart, std::size_t noStart, Type type);
    void widenFrom(std::size_t start);
    void negate(std::size_t start, Type type);
    void component(std::size_t start, int k);
    void call(const FunctionRow& row, int argCount, std::size_t start, std::uint16_t curve = 0);

    // ---- Grammar, lowest level first
    void parseStatement();
    void parseAssignment();
    void parseIf();
    void parseBlock();
    Type parseExpression();
    Type parseTernary();
    Type parseOr();
    Type parseAnd();
    Type parseEquality();
    Type parseRelation();
    Type parseAdditive();
    Type parseMultiplicative();
    Type parsePower();
    Type parseUnary();
    Type parsePostfix();
    Type applyPostfix(std::size_t start, Type type, Operand operand);
    Type parsePrimary(Operand& operand);
    Type parseNumber();
    Type parseVectorLiteral();
    Type parseCall(const std::string& name, std::size_t nameAt, Argument* arrowFirst);
    Type emitCall(const FunctionRow& listed, const std::string& name, std::size_t nameAt,
                  std::vector<Argument>& args);
    Type emitCurve(const FunctionRow& row, const std::string& name, std::size_t nameAt,
                   std::vector<Argument>& args);
    Type parseMapCall(const FunctionRow& row, const std::string& name, std::size_t nameAt);
    Type readVariable(const std::string& name, std::size_t nameAt, Operand& operand);
    void readLocal(const Local& local, const std::string& name, std::size_t nameAt);
    void storeLocal(const std::string& name, Local local, std::size_t nameAt);

    // ---- Tables
    std::uint16_t channelIndex(const ChannelRead& read, std::size_t at);
    std::int32_t mapIndex(const std::string& written, std::size_t at, const std::string& fn);

    struct DepthGuard {
        explicit DepthGuard(Compiler& c) : compiler(c) {
            if (++compiler.depth_ > kMaxDepth) throw NestedTooDeeply{};
        }
        ~DepthGuard() { --compiler.depth_; }
        Compiler& compiler;
    };
    // Sends emitted code to another buffer for the life of the object.
    struct Redirect {
        Redirect(Compiler& c, Code* to) : compiler(c), saved(c.out_) { c.out_ = to; }
        ~Redirect() { compiler.out_ = saved; }
        Compiler& compiler;
        Code* saved;
    };

    std::string_view src_;
    std::size_t pos_ = 0;
    std::size_t gapStart_ = 0;  // where the last run of space and comments began
    const ExpressionEnvironment& env_;
    ExpressionProgram& program_;
    Code main_;
    Code* out_ = &main_;
    Locals locals_;
    std::uint64_t nextSerial_ = 0;
    std::size_t localCodeSpent_ = 0;
    int depth_ = 0;
    std::map<std::tuple<std::string, std::int32_t, std::uint8_t>, std::uint16_t> channelIndices_;
};

}  // namespace velmorin::expr_compiler
