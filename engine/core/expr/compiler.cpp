// The expression compiler: one pass of recursive descent that emits postfix code as it parses, with
// no syntax tree. Each parse function emits the code of what it parsed and returns its type.
// Locals keep their code and are copied in where they are read; an if turns each local it sets
// into a selection on its condition. Constant operands fold as they are emitted, which is also how
// a curve's keys are known to be fixed.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "base/hash.h"
#include "expr/expression.h"
#include "expr/function_table.h"
#include "expr/functions.h"

namespace velmorin {
namespace {

using Code = std::vector<Instruction>;
using Type = ExpressionType;

constexpr int kMaxDepth = 200;
// All the code that locals hold over one compile, so that a source of many large locals stays
// within memory: eight programs' worth.
constexpr std::size_t kLocalCodeBudget = 8 * kMaxInstructions;

constexpr std::array<const char*, kSlotCount> kSlotNames = {
    "u",     "v",     "x",      "y",       "z",     "nx",           "ny",    "nz",
    "rand",  "index", "length", "longest", "reach", "straightness", "lift",  "tipx",
    "tipy",  "tipz",  "t",      "pt",      "px",    "py",           "pz",    "pointIndex",
    "frame", "time",  "id",     "faceId",  "prefx", "prefy",        "prefz", "_preview"};

struct VectorName {
    std::string_view name;
    std::uint8_t slot;
};
constexpr VectorName kVectorNames[] = {
    {"P", kSlotX}, {"N", kSlotNx}, {"tip", kSlotTipX}, {"pointP", kSlotPx}, {"Pref", kSlotPrefX}};

struct Alias {
    std::string_view from;
    std::string_view to;
};
constexpr Alias kAliases[] = {{"cLength", "length"}, {"faceid", "faceId"}, {"Pg", "P"},
                              {"Pw", "P"},           {"Pgw", "P"},         {"Ng", "N"},
                              {"Prefg", "Pref"},     {"Prefw", "Pref"},    {"Prefgw", "Pref"}};

struct Refusal {
    std::string_view name;
    std::string_view text;
};
constexpr std::string_view kNoNref =
    "XGen's $Nref (the reference normal) has no Velmorin equivalent: $N is the scalp's normal";
constexpr std::string_view kNoDerivatives =
    "XGen's surface derivatives ($dPdu, $dPdv) are not available: build a direction from $N, "
    "e.g. cross($N, [0, 1, 0])";
constexpr std::string_view kDesc =
    "${DESC} means something only inside an XGen map path, map('${DESC}/paintmaps/name/')";
const Refusal kRefusedNames[] = {
    {"Nref", kNoNref},
    {"Nrefg",
     "XGen's $Nrefg (the reference normal) has no Velmorin equivalent: $N is the scalp's normal"},
    {"dPdu", kNoDerivatives},
    {"dPdv", kNoDerivatives},
    {"dPdug", kNoDerivatives},
    {"dPdvg", kNoDerivatives},
    {"dPduref", kNoDerivatives},
    {"dPdvref", kNoDerivatives},
    {"dPdurefg", kNoDerivatives},
    {"dPdvrefg", kNoDerivatives},
    {"cWidth",
     "XGen's $cWidth has no Velmorin equivalent: the Width node sets the width, and no variable "
     "reads it"},
    {"cDepth", "XGen's $cDepth (a card's depth) has no Velmorin equivalent"},
    {"aCount", "XGen's $aCount (archives) has no Velmorin equivalent"},
    {"descId", "XGen's $descId has no Velmorin equivalent (an expression belongs to one groom)"},
    {"patchId",
     "XGen's $patchId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
     "triangle"},
    {"objectId",
     "XGen's $objectId has no Velmorin equivalent (a groom has one scalp): $faceId is the root's "
     "triangle"},
    {"Cs",
     "XGen's $Cs (the region color) has no Velmorin equivalent: read a painted map with "
     "cmap(\"name\")"},
    {"As",
     "XGen's $As (the region alpha) has no Velmorin equivalent: read a painted map with "
     "map(\"name\")"},
    {"DESC", kDesc},
};

const Refusal kRefusedFunctions[] = {
    {"printf",
     "printf is not supported (expressions run on many threads at once): show a value by "
     "returning it"},
    {"sprintf", "sprintf is not supported: strings appear only as map names"},
    {"getVar", "getVar is not supported: read the variable by its name ($name)"},
};

constexpr std::string_view kInterpolations =
    "0 (none), 1 (linear), 2 (smooth), 3 (spline) or 4 (monotone spline)";

int width(Type t) {
    return static_cast<int>(t);
}

Instruction make(Opcode op, std::uint8_t a = 0, std::uint8_t b = 0, std::uint16_t index = 0,
                 float value = 0.0f) {
    Instruction i;
    i.op = op;
    i.a = a;
    i.b = b;
    i.index = index;
    i.value = value;
    return i;
}

bool isCurveCall(const Instruction& i) {
    return (i.op == Opcode::CallNumber || i.op == Opcode::CallVector) &&
           readsCurve(static_cast<FunctionId>(i.a));
}

// How many floats an instruction takes off the stack and puts back.
void stackEffect(const Instruction& i, int& pops, int& pushes) {
    switch (i.op) {
        case Opcode::PushConst:
        case Opcode::PushVar:
        case Opcode::PushChannel:
            pops = 0, pushes = 1;
            return;
        case Opcode::Negate:
            pops = 1, pushes = 1;
            return;
        case Opcode::Binary:
            pops = 2, pushes = 1;
            return;
        case Opcode::CallNumber:
            pops = isCurveCall(i) ? 1 : i.index, pushes = 1;
            return;
        case Opcode::SelectNumber:
            pops = 3, pushes = 1;
            return;
        case Opcode::NegateVector:
            pops = 3, pushes = 3;
            return;
        case Opcode::BinaryVector:
            pops = (i.b & kLeftIsNumber ? 1 : 3) + (i.b & kRightIsNumber ? 1 : 3), pushes = 3;
            return;
        case Opcode::SelectVector:
            pops = 7, pushes = 3;
            return;
        case Opcode::CallVector:
            pops = isCurveCall(i) ? 1 : i.index, pushes = 3;
            return;
        case Opcode::Component:
            pops = 3, pushes = 1;
            return;
        case Opcode::Widen:
            pops = 1, pushes = 3;
            return;
    }
    pops = pushes = 0;
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

bool isNameStart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool isNameChar(char c) {
    return isNameStart(c) || (c >= '0' && c <= '9');
}
bool isQuote(char c) {
    return c == '"' || c == '\'';
}

// The name an XGen map path stands for: its last part that is neither a variable nor a folder of
// XGen's own, without an extension. Empty when the path names nothing.
std::string xgenMapName(std::string_view path) {
    std::string name;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find_first_of("/\\", start);
        if (end == std::string_view::npos) end = path.size();
        std::string_view part = path.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == "." || part == "paintmaps" ||
            part.find('$') != std::string_view::npos)
            continue;
        if (const std::size_t dot = part.rfind('.'); dot != std::string_view::npos && dot > 0)
            part = part.substr(0, dot);
        name = part;
    }
    return name;
}

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

// ---- Lexing

std::size_t Compiler::skipFrom(std::size_t p) const {
    while (p < src_.size()) {
        const char c = src_[p];
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
            ++p;
        } else if (c == '#' || (c == '/' && at(p + 1) == '/')) {
            while (p < src_.size() && src_[p] != '\n')
                ++p;
        } else {
            break;
        }
    }
    return p;
}

bool Compiler::accept(std::string_view token) {
    skip();
    if (src_.substr(pos_, token.size()) != token) return false;
    pos_ += token.size();
    return true;
}

bool Compiler::keywordAhead(std::string_view word) const {
    const std::size_t p = skipFrom(pos_);
    return src_.substr(p, word.size()) == word && !isNameChar(at(p + word.size()));
}

std::string Compiler::readName() {
    const std::size_t start = pos_;
    while (isNameChar(at(pos_)))
        ++pos_;
    return std::string(src_.substr(start, pos_ - start));
}

std::string Compiler::readQuoted() {
    const std::size_t open = pos_;
    const char quote = src_[pos_];
    const std::size_t close = src_.find(quote, open + 1);
    if (close == std::string_view::npos) fail(open, "the quotes are not closed");
    pos_ = close + 1;
    return std::string(src_.substr(open + 1, close - open - 1));
}

bool Compiler::assignmentAhead() const {
    std::size_t p = skipFrom(pos_);
    if (at(p) != '$' || !isNameChar(at(p + 1))) return false;
    ++p;
    while (isNameChar(at(p)))
        ++p;
    p = skipFrom(p);
    return at(p) == '=' && at(p + 1) != '=';
}

bool Compiler::componentAssignmentAhead() const {
    std::size_t p = skipFrom(pos_);
    if (at(p) != '$' || !isNameChar(at(p + 1))) return false;
    ++p;
    while (isNameChar(at(p)))
        ++p;
    p = skipFrom(p);
    if (at(p) == '.') {
        p = skipFrom(p + 1);
        if (!isNameStart(at(p))) return false;
        while (isNameChar(at(p)))
            ++p;
    } else if (at(p) == '[') {
        const std::size_t close = src_.find(']', p);
        const std::size_t end = src_.find_first_of(";\n", p);
        if (close == std::string_view::npos || close > end) return false;
        p = close + 1;
    } else {
        return false;
    }
    p = skipFrom(p);
    return at(p) == '=' && at(p + 1) != '=';
}

// ---- Emitting

void Compiler::emit(const Instruction& i) {
    if (out_->size() >= kMaxInstructions)
        fail(pos_, "the expression is too long (" + std::to_string(kMaxInstructions) +
                       " operations at most)");
    out_->push_back(i);
}

void Compiler::append(const Code& code) {
    if (out_->size() + code.size() > kMaxInstructions)
        fail(pos_, "the expression is too long (" + std::to_string(kMaxInstructions) +
                       " operations at most)");
    out_->insert(out_->end(), code.begin(), code.end());
}

bool Compiler::constantFrom(std::size_t start, int count, float* values) const {
    if (out_->size() - start != static_cast<std::size_t>(count)) return false;
    for (int k = 0; k < count; ++k) {
        const Instruction& i = (*out_)[start + static_cast<std::size_t>(k)];
        if (i.op != Opcode::PushConst) return false;
        if (values) values[k] = i.value;
    }
    return true;
}

Type Compiler::binary(BinaryOp op, Type left, std::size_t leftStart, Type right,
                      std::size_t rightStart) {
    const int lw = width(left), rw = width(right);
    const Type result = lw == 3 || rw == 3 ? Type::Vector : Type::Number;
    float l[3], r[3];
    bool constant =
        rightStart - leftStart == static_cast<std::size_t>(lw) && constantFrom(rightStart, rw, r);
    for (int k = 0; constant && k < lw; ++k) {
        const Instruction& i = (*out_)[leftStart + static_cast<std::size_t>(k)];
        constant = i.op == Opcode::PushConst;
        l[k] = i.value;
    }
    if (constant) {
        out_->resize(leftStart);
        for (int k = 0; k < width(result); ++k)
            emitConst(binaryOp(op, l[lw == 1 ? 0 : k], r[rw == 1 ? 0 : k]));
        return result;
    }
    if (result == Type::Number) {
        emit(make(Opcode::Binary, static_cast<std::uint8_t>(op)));
    } else {
        const std::uint8_t sides = (lw == 1 ? kLeftIsNumber : 0) | (rw == 1 ? kRightIsNumber : 0);
        emit(make(Opcode::BinaryVector, static_cast<std::uint8_t>(op), sides));
    }
    return result;
}

Type Compiler::select(std::size_t condStart, std::size_t yesStart, std::size_t noStart, Type type) {
    const Instruction& cond = (*out_)[condStart];
    if (yesStart - condStart == 1 && cond.op == Opcode::PushConst) {
        // A fixed condition keeps one branch.
        const bool yes = cond.value != 0.0f;
        Code chosen(out_->begin() + static_cast<std::ptrdiff_t>(yes ? yesStart : noStart),
                    yes ? out_->begin() + static_cast<std::ptrdiff_t>(noStart) : out_->end());
        out_->resize(condStart);
        append(chosen);
        return type;
    }
    emit(make(type == Type::Number ? Opcode::SelectNumber : Opcode::SelectVector));
    return type;
}

// Makes the number whose code runs from `start` to the end a vector.
void Compiler::widenFrom(std::size_t start) {
    float v;
    if (constantFrom(start, 1, &v)) {
        emitConst(v);
        emitConst(v);
    } else {
        emit(make(Opcode::Widen));
    }
}

void Compiler::negate(std::size_t start, Type type) {
    float v[3];
    if (constantFrom(start, width(type), v)) {
        for (int k = 0; k < width(type); ++k)
            (*out_)[start + static_cast<std::size_t>(k)].value = -v[k];
        return;
    }
    emit(make(type == Type::Number ? Opcode::Negate : Opcode::NegateVector));
}

void Compiler::component(std::size_t start, int k) {
    float v[3];
    if (constantFrom(start, 3, v)) {
        out_->resize(start);
        emitConst(v[k]);
        return;
    }
    // A component of a vector variable ($P.y) reads its one slot.
    if (out_->size() - start == 3 &&
        std::all_of(out_->begin() + static_cast<std::ptrdiff_t>(start), out_->end(),
                    [](const Instruction& i) { return i.op == Opcode::PushVar; })) {
        const Instruction chosen = (*out_)[start + static_cast<std::size_t>(k)];
        out_->resize(start);
        emit(chosen);
        return;
    }
    emit(make(Opcode::Component, static_cast<std::uint8_t>(k)));
}

// Emits a call whose argument floats start at `start`; folds it when they are all constants.
void Compiler::call(const FunctionRow& row, int argCount, std::size_t start, std::uint16_t curve) {
    const int floats = argumentFloats(row, argCount);
    float args[64 * 3 + 1];
    const bool vector = row.resultWidth == 3;
    if (static_cast<std::size_t>(floats) <= std::size(args) && constantFrom(start, floats, args)) {
        out_->resize(start);
        if (vector) {
            float result[3];
            callVectorFunction(row.id, args, argCount, program_.curves, curve, result);
            for (float r : result)
                emitConst(r);
        } else {
            emitConst(callNumberFunction(row.id, args, argCount, program_.curves, curve));
        }
        return;
    }
    const bool curveCall = row.check == CheckKind::CurveFamily;
    emit(make(vector ? Opcode::CallVector : Opcode::CallNumber, static_cast<std::uint8_t>(row.id),
              static_cast<std::uint8_t>(argCount),
              curveCall ? curve : static_cast<std::uint16_t>(floats)));
}

// ---- Tables

std::uint16_t Compiler::channelIndex(const ChannelRead& read, std::size_t at) {
    const auto key = std::make_tuple(read.name, read.map, read.component);
    if (const auto found = channelIndices_.find(key); found != channelIndices_.end())
        return found->second;
    if (program_.channels.size() >= 0xFFFF)
        fail(at, "the expression reads too many channels and maps (65535 at most)");
    program_.channels.push_back(read);
    const auto index = static_cast<std::uint16_t>(program_.channels.size() - 1);
    channelIndices_.emplace(key, index);
    return index;
}

std::int32_t Compiler::mapIndex(const std::string& written, std::size_t at, const std::string& fn) {
    const bool xgenPath =
        written.find_first_of("/\\") != std::string::npos || written.find('$') != std::string::npos;
    std::string name = written;
    if (xgenPath) {
        name = xgenMapName(written);
        if (name.empty())
            fail(at, fn + "('" + written +
                         "'): give the name of one of the groom's maps, map(\"name\")");
    }
    for (std::size_t i = 0; i < program_.maps.size(); ++i)
        if (program_.maps[i].name == name) return static_cast<std::int32_t>(i);
    if (!env_.resolveMap)
        fail(at, "no maps are given to this expression, so " + fn + "(\"" + name +
                     "\") can't be read here");
    std::shared_ptr<const ExpressionMapSource> map;
    try {
        map = env_.resolveMap(name);
    } catch (const ExpressionError& e) {
        fail(at, e.what());
    }
    if (!map) {
        if (xgenPath)
            fail(at, fn + "('" + written +
                         "'): XGen's paint maps do not carry over; Velmorin reads the groom's own "
                         "maps by name, here '" +
                         name +
                         "', and the groom has none of that name (paint one in Groom Tools > "
                         "Paint, or write map(\"name\"))");
        fail(at, "no map named '" + name + "' (Groom Tools > Paint lists them)");
    }
    program_.maps.push_back({name, std::move(map)});
    return static_cast<std::int32_t>(program_.maps.size() - 1);
}

// ---- Statements

Type Compiler::compileAll() {
    while (true) {
        skip();
        if (atEnd()) fail(pos_, "unexpected end");
        if (assignmentAhead() || keywordAhead("if") || keywordAhead("else") ||
            componentAssignmentAhead()) {
            parseStatement();
            continue;
        }
        const Type type = parseExpression();
        skip();
        // Where the value's last token ends, before the space that follows it.
        const std::size_t end = gapStart_ < pos_ && skipFrom(gapStart_) == pos_ ? gapStart_ : pos_;
        if (at(pos_) == ';') {
            // A habit from other languages: a ';' after the value, with nothing behind it.
            const std::size_t semicolon = pos_++;
            skip();
            if (!atEnd()) fail(semicolon, "unexpected ';'");
        }
        if (!atEnd()) {
            if (src_.substr(end, pos_ - end).find('\n') != std::string_view::npos)
                fail(end,
                     "expected ';' at the end of the line above (only the last line is the "
                     "value)");
            fail(pos_, std::string("unexpected '") + at(pos_) + "'");
        }
        program_.code = std::move(main_);
        return type;
    }
}

void Compiler::parseStatement() {
    skip();
    if (assignmentAhead()) return parseAssignment();
    if (keywordAhead("if")) return parseIf();
    if (keywordAhead("else")) fail(pos_, "an else without its if");
    if (componentAssignmentAhead())
        fail(pos_, "assign a whole vector ($v = [x, y, z];), not one component");
    fail(pos_, "expected an assignment ($name = ...;) or an if inside { }");
}

void Compiler::parseAssignment() {
    skip();
    const std::size_t nameAt = pos_;
    ++pos_;  // '$'
    const std::string name = readName();
    skip();
    ++pos_;  // '='
    Local local;
    auto code = std::make_shared<Code>();
    {
        Redirect redirect(*this, code.get());
        local.type = parseExpression();
    }
    if (!accept(";")) fail(pos_, "expected ';' after the value of $" + name);
    local.code = std::move(code);
    storeLocal(name, std::move(local), nameAt);
}

void Compiler::storeLocal(const std::string& name, Local local, std::size_t nameAt) {
    localCodeSpent_ += local.code->size();
    if (localCodeSpent_ > kLocalCodeBudget)
        fail(nameAt, "the expression is too long once $" + name + " is put in where it is read (" +
                         std::to_string(kMaxInstructions) +
                         " operations at most): read it in fewer places");
    local.serial = ++nextSerial_;
    locals_[name] = std::move(local);
}

void Compiler::parseBlock() {
    if (!accept("{"))
        fail(pos_, "expected '{': an if's statements are in braces, if (c) { $a = 1; }");
    while (true) {
        skip();
        if (atEnd()) fail(pos_, "expected '}'");
        if (accept("}")) return;
        parseStatement();
    }
}

void Compiler::parseIf() {
    DepthGuard guard(*this);
    skip();
    const std::size_t ifAt = pos_;
    pos_ += 2;
    if (!accept("(")) fail(pos_, "expected '(' after if");
    skip();
    const std::size_t condAt = pos_;
    Code cond;
    {
        Redirect redirect(*this, &cond);
        if (parseExpression() == Type::Vector)
            fail(condAt, "an if's condition is a number, not a vector");
    }
    if (!accept(")")) fail(pos_, "expected ')' after the if's condition");

    const Locals before = locals_;
    parseBlock();
    Locals thenLocals = std::move(locals_);
    locals_ = before;
    if (keywordAhead("else")) {
        skip();
        pos_ += 4;
        if (keywordAhead("if"))
            parseIf();
        else
            parseBlock();
    }
    Locals elseLocals = std::move(locals_);
    locals_ = before;

    // Each local that either branch set becomes a selection between the two values.
    std::set<std::string, std::less<>> changed;
    for (const Locals* branch : {&thenLocals, &elseLocals})
        for (const auto& [name, local] : *branch) {
            const auto old = before.find(name);
            if (old == before.end() || old->second.serial != local.serial) changed.insert(name);
        }
    for (const std::string& name : changed) {
        const auto yes = thenLocals.find(name);
        const auto no = elseLocals.find(name);
        Local merged;
        if (yes == thenLocals.end() || no == elseLocals.end() || yes->second.oneBranch ||
            no->second.oneBranch) {
            merged.oneBranch = true;
            merged.serial = ++nextSerial_;
            locals_[name] = merged;
            continue;
        }
        const Local& y = yes->second;
        const Local& n = no->second;
        merged.type =
            y.type == Type::Vector || n.type == Type::Vector ? Type::Vector : Type::Number;
        merged.fromIf = true;
        if (cond.size() + y.code->size() + n.code->size() + 3 > kMaxInstructions)
            fail(ifAt,
                 "the expression is too long once $" + name + "'s if is put in where it is read");
        auto code = std::make_shared<Code>();
        {
            Redirect redirect(*this, code.get());
            append(cond);
            const std::size_t yesStart = code->size();
            append(*y.code);
            if (y.type != merged.type) widenFrom(yesStart);
            const std::size_t noStart = code->size();
            append(*n.code);
            if (n.type != merged.type) widenFrom(noStart);
            select(0, cond.size(), noStart, merged.type);
        }
        merged.code = std::move(code);
        storeLocal(name, std::move(merged), ifAt);
    }
}

// ---- Expressions

Type Compiler::parseExpression() {
    DepthGuard guard(*this);
    skip();
    const std::size_t start = out_->size();
    const std::size_t startAt = pos_;
    Type type = parseTernary();
    while (true) {
        skip();
        if (src_.substr(pos_, 2) != "->") return type;
        pos_ += 2;
        skip();
        if (!isNameStart(at(pos_))) fail(pos_, "expected a function's name after '->'");
        const std::size_t nameAt = pos_;
        const std::string name = readName();
        // The whole expression to the left becomes the first argument.
        Argument first;
        first.code.assign(out_->begin() + static_cast<std::ptrdiff_t>(start), out_->end());
        first.type = type;
        first.offset = startAt;
        out_->resize(start);
        type = applyPostfix(start, parseCall(name, nameAt, &first), Operand{});
    }
}

Type Compiler::parseTernary() {
    skip();
    const std::size_t condAt = pos_;
    const std::size_t condStart = out_->size();
    const Type cond = parseOr();
    skip();
    if (at(pos_) != '?') return cond;
    ++pos_;
    if (cond == Type::Vector) fail(condAt, "a condition is a number, not a vector");
    const std::size_t yesStart = out_->size();
    const Type yes = parseExpression();
    if (!accept(":")) fail(pos_, "expected ':'");
    std::size_t noStart = out_->size();
    const Type no = parseExpression();
    // A number against a vector is spread, as in arithmetic.
    const Type type = yes == Type::Vector || no == Type::Vector ? Type::Vector : Type::Number;
    if (no != type) widenFrom(noStart);
    if (yes != type) {
        Code rest(out_->begin() + static_cast<std::ptrdiff_t>(noStart), out_->end());
        out_->resize(noStart);
        widenFrom(yesStart);
        noStart = out_->size();
        append(rest);
    }
    return select(condStart, yesStart, noStart, type);
}

Type Compiler::parseOr() {
    const std::size_t start = out_->size();
    Type left = parseAnd();
    while (true) {
        skip();
        const std::size_t opAt = pos_;
        if (src_.substr(pos_, 2) != "||") return left;
        pos_ += 2;
        const std::size_t rightStart = out_->size();
        const Type right = parseAnd();
        if (left == Type::Vector || right == Type::Vector)
            fail(opAt, "|| takes numbers, not vectors");
        // a || b is a ? 1 : (b != 0).
        out_->insert(out_->begin() + static_cast<std::ptrdiff_t>(rightStart),
                     make(Opcode::PushConst, 0, 0, 0, 1.0f));
        const std::size_t bStart = rightStart + 1;
        const std::size_t zeroAt = out_->size();
        emitConst(0.0f);
        binary(BinaryOp::NotEqual, Type::Number, bStart, Type::Number, zeroAt);
        left = select(start, rightStart, bStart, Type::Number);
    }
}

Type Compiler::parseAnd() {
    const std::size_t start = out_->size();
    Type left = parseEquality();
    while (true) {
        skip();
        const std::size_t opAt = pos_;
        if (src_.substr(pos_, 2) != "&&") return left;
        pos_ += 2;
        const std::size_t rightStart = out_->size();
        const Type right = parseEquality();
        if (left == Type::Vector || right == Type::Vector)
            fail(opAt, "&& takes numbers, not vectors");
        // a && b is a ? (b != 0) : 0.
        const std::size_t zeroAt = out_->size();
        emitConst(0.0f);
        binary(BinaryOp::NotEqual, Type::Number, rightStart, Type::Number, zeroAt);
        const std::size_t noStart = out_->size();
        emitConst(0.0f);
        left = select(start, rightStart, noStart, Type::Number);
    }
}

constexpr std::string_view kVectorComparison =
    "comparisons are of numbers, not vectors (compare .x, length(...) or dot(...))";

Type Compiler::parseEquality() {
    const std::size_t start = out_->size();
    Type left = parseRelation();
    while (true) {
        skip();
        const std::size_t opAt = pos_;
        BinaryOp op;
        if (src_.substr(pos_, 2) == "==")
            op = BinaryOp::Equal;
        else if (src_.substr(pos_, 2) == "!=")
            op = BinaryOp::NotEqual;
        else
            return left;
        pos_ += 2;
        const std::size_t rightStart = out_->size();
        const Type right = parseRelation();
        if (left == Type::Vector || right == Type::Vector)
            fail(opAt, std::string(kVectorComparison));
        left = binary(op, left, start, right, rightStart);
    }
}

Type Compiler::parseRelation() {
    const std::size_t start = out_->size();
    Type left = parseAdditive();
    while (true) {
        skip();
        const std::size_t opAt = pos_;
        const char c = at(pos_);
        if (c != '<' && c != '>') return left;
        const bool orEqual = at(pos_ + 1) == '=';
        const BinaryOp op = c == '<' ? (orEqual ? BinaryOp::LessEqual : BinaryOp::Less)
                                     : (orEqual ? BinaryOp::GreaterEqual : BinaryOp::Greater);
        pos_ += orEqual ? 2 : 1;
        const std::size_t rightStart = out_->size();
        const Type right = parseAdditive();
        if (left == Type::Vector || right == Type::Vector)
            fail(opAt, std::string(kVectorComparison));
        left = binary(op, left, start, right, rightStart);
    }
}

Type Compiler::parseAdditive() {
    const std::size_t start = out_->size();
    Type left = parseMultiplicative();
    while (true) {
        skip();
        const char c = at(pos_);
        BinaryOp op;
        if (c == '+')
            op = BinaryOp::Add;
        else if (c == '-' && at(pos_ + 1) != '>')
            op = BinaryOp::Subtract;
        else
            return left;
        ++pos_;
        const std::size_t rightStart = out_->size();
        const Type right = parseMultiplicative();
        left = binary(op, left, start, right, rightStart);
    }
}

Type Compiler::parseMultiplicative() {
    const std::size_t start = out_->size();
    Type left = parsePower();
    while (true) {
        skip();
        const char c = at(pos_);
        BinaryOp op;
        if (c == '*')
            op = BinaryOp::Multiply;
        else if (c == '/')
            op = BinaryOp::Divide;
        else if (c == '%')
            op = BinaryOp::Remainder;
        else
            return left;
        ++pos_;
        const std::size_t rightStart = out_->size();
        const Type right = parsePower();
        left = binary(op, left, start, right, rightStart);
    }
}

// Power is right associative: a ^ b ^ c is a ^ (b ^ c). The operands are read in a loop and
// joined from the right, so that a long chain does not recurse.
Type Compiler::parsePower() {
    const std::size_t start = out_->size();
    const Type first = parseUnary();
    skip();
    if (at(pos_) != '^') return first;
    std::vector<std::pair<std::size_t, Type>> operands{{start, first}};
    while (true) {
        skip();
        if (at(pos_) != '^') break;
        ++pos_;
        const std::size_t operandStart = out_->size();
        operands.emplace_back(operandStart, parseUnary());
    }
    Type right = operands.back().second;
    for (std::size_t i = operands.size() - 1; i-- > 0;)
        right = binary(BinaryOp::Power, operands[i].second, operands[i].first, right,
                       operands[i + 1].first);
    return right;
}

// Prefix operators are read in a loop and applied innermost first, so that a long run of them
// does not recurse.
Type Compiler::parseUnary() {
    std::string ops;
    std::vector<std::size_t> opsAt;
    while (true) {
        skip();
        const char c = at(pos_);
        if (c != '-' && c != '+' && c != '!' && c != '~') break;
        ops.push_back(c);
        opsAt.push_back(pos_);
        ++pos_;
    }
    const std::size_t start = out_->size();
    Type type = parsePostfix();
    for (std::size_t i = ops.size(); i-- > 0;) {
        switch (ops[i]) {
            case '-':
                negate(start, type);
                break;
            case '+':
                break;
            case '!': {
                if (type == Type::Vector) fail(opsAt[i], "! takes a number, not a vector");
                const std::size_t zeroAt = out_->size();
                emitConst(0.0f);
                binary(BinaryOp::Equal, Type::Number, start, Type::Number, zeroAt);
                break;
            }
            case '~': {
                // ~x is 1 - x, as -x + 1.
                negate(start, type);
                const std::size_t oneAt = out_->size();
                emitConst(1.0f);
                binary(BinaryOp::Add, type, start, Type::Number, oneAt);
                break;
            }
        }
    }
    return type;
}

Type Compiler::parsePostfix() {
    const std::size_t start = out_->size();
    Operand operand;
    const Type type = parsePrimary(operand);
    return applyPostfix(start, type, operand);
}

Type Compiler::applyPostfix(std::size_t start, Type type, Operand operand) {
    while (true) {
        skip();
        const std::size_t opAt = pos_;
        if (at(pos_) == '.') {
            ++pos_;
            skip();
            if (!isNameStart(at(pos_))) fail(opAt, "unexpected '.'");
            const std::string c = readName();
            if (type == Type::Number) {
                if (operand.channel) fail(opAt, "unknown vector " + operand.variable);
                if (!operand.variable.empty())
                    fail(opAt, operand.variable + " is a number: it has no ." + c);
                fail(opAt, "a number has no ." + c);
            }
            int k;
            if (c == "x" || c == "r")
                k = 0;
            else if (c == "y" || c == "g")
                k = 1;
            else if (c == "z" || c == "b")
                k = 2;
            else
                fail(opAt, "a vector has no ." + c + " (use .x, .y, .z or .r, .g, .b)");
            component(start, k);
        } else if (at(pos_) == '[') {
            if (type == Type::Number) fail(opAt, "a number has no components to index");
            ++pos_;
            skip();
            const std::size_t indexAt = pos_;
            const std::size_t indexStart = out_->size();
            if (parseExpression() == Type::Vector) fail(indexAt, "a vector's index is a number");
            if (!accept("]")) fail(pos_, "expected ']' after the index");
            float k;
            if (constantFrom(indexStart, 1, &k)) {
                if (k != 0.0f && k != 1.0f && k != 2.0f)
                    fail(indexAt, "a vector's index is 0, 1 or 2");
                out_->resize(indexStart);
                component(start, static_cast<int>(k));
            } else {
                call(functionRow(FunctionId::IndexOf), 2, start);
            }
        } else {
            return type;
        }
        type = Type::Number;
        operand = {};
    }
}

Type Compiler::parsePrimary(Operand& operand) {
    skip();
    const std::size_t start = pos_;
    const char c = at(pos_);
    if (atEnd()) fail(pos_, "unexpected end");
    if ((c >= '0' && c <= '9') || c == '.') return parseNumber();
    if (c == '(') {
        ++pos_;
        const Type type = parseExpression();
        if (!accept(")")) fail(pos_, "expected ')'");
        return type;
    }
    if (c == '[') return parseVectorLiteral();
    if (c == '$') {
        ++pos_;
        if (at(pos_) == '{') {
            const std::size_t close = src_.find('}', pos_);
            if (close != std::string_view::npos &&
                src_.substr(pos_ + 1, close - pos_ - 1) == "DESC")
                fail(start, std::string(kDesc));
            fail(pos_, "expected a name after '$'");
        }
        if (!isNameChar(at(pos_))) fail(pos_, "expected a name after '$'");
        const std::string name = readName();
        return readVariable(name, start, operand);
    }
    if (isQuote(c)) {
        readQuoted();
        fail(start, "text in quotes names a map, in map(\"name\")");
    }
    if (isNameStart(c)) {
        const std::string name = readName();
        skip();
        if (at(pos_) == '(') return parseCall(name, start, nullptr);
        if (name == "else") fail(start, "an else without its if");
        for (const Refusal& refusal : kRefusedFunctions)
            if (refusal.name == name) fail(start, std::string(refusal.text));
        if (name == "if") fail(start, "unexpected 'if'");
        // A bare name reads a variable, as $name does; a function's name wants its arguments.
        const bool variable =
            locals_.count(name) || env_.variable(name) ||
            std::find(kSlotNames.begin(), kSlotNames.end(), name) != kSlotNames.end() ||
            std::any_of(std::begin(kVectorNames), std::end(kVectorNames),
                        [&](const VectorName& v) { return v.name == name; });
        if (!variable && findFunction(name)) fail(pos_, "expected '(' after " + name);
        return readVariable(name, start, operand);
    }
    fail(pos_, std::string("unexpected '") + c + "'");
}

Type Compiler::parseNumber() {
    const char* first = src_.data() + pos_;
    const char* last = src_.data() + src_.size();
    float value = 0.0f;
    const auto [end, error] = std::from_chars(first, last, value, std::chars_format::general);
    if (error != std::errc() || (end < last && (isNameChar(*end) || *end == '.')))
        fail(pos_, "bad number");
    pos_ += static_cast<std::size_t>(end - first);
    emitConst(value);
    return Type::Number;
}

Type Compiler::parseVectorLiteral() {
    ++pos_;  // '['
    for (int k = 0; k < 3; ++k) {
        skip();
        const std::size_t componentAt = pos_;
        if (parseExpression() == Type::Vector)
            fail(componentAt, "a vector's components are numbers");
        if (k < 2 && !accept(",")) fail(pos_, "a vector is [x, y, z]: expected ','");
    }
    if (!accept("]")) fail(pos_, "a vector is [x, y, z]: expected ']'");
    return Type::Vector;
}

// ---- Variables

Type Compiler::readVariable(const std::string& name, std::size_t nameAt, Operand& operand) {
    operand.variable = "$" + name;
    if (const auto local = locals_.find(name); local != locals_.end()) {
        readLocal(local->second, name, nameAt);
        return local->second.type;
    }
    if (const ExpressionVariable* v = env_.variable(name)) {
        emitConst(v->value.x);
        if (!v->isVector) return Type::Number;
        emitConst(v->value.y);
        emitConst(v->value.z);
        return Type::Vector;
    }
    std::string_view resolved = name;
    for (const Alias& alias : kAliases)
        if (alias.from == name) resolved = alias.to;
    for (int slot = 0; slot < kSlotCount; ++slot)
        if (resolved == kSlotNames[static_cast<std::size_t>(slot)]) {
            emit(make(Opcode::PushVar, static_cast<std::uint8_t>(slot)));
            return Type::Number;
        }
    for (const VectorName& v : kVectorNames)
        if (resolved == v.name) {
            for (std::uint8_t k = 0; k < 3; ++k)
                emit(make(Opcode::PushVar, static_cast<std::uint8_t>(v.slot + k)));
            return Type::Vector;
        }
    for (const Refusal& refusal : kRefusedNames)
        if (refusal.name == name) fail(nameAt, std::string(refusal.text));
    // Anything else names a channel of the strands, found when the program is bound.
    operand.channel = true;
    emit(make(Opcode::PushChannel, 0, 0, channelIndex({name, -1, 0}, nameAt)));
    return Type::Number;
}

void Compiler::readLocal(const Local& local, const std::string& name, std::size_t nameAt) {
    if (local.oneBranch)
        fail(nameAt, "$" + name +
                         " is set in only one branch of an if above: set it before the if too, or "
                         "in both branches");
    if (out_->size() + local.code->size() > kMaxInstructions) {
        if (local.fromIf)
            fail(nameAt,
                 "the expression is too long once $" + name + "'s if is put in where it is read");
        fail(nameAt, "the expression is too long once $" + name + " is put in where it is read (" +
                         std::to_string(kMaxInstructions) +
                         " operations at most): read it in fewer places");
    }
    out_->insert(out_->end(), local.code->begin(), local.code->end());
}

// ---- Calls

Type Compiler::parseCall(const std::string& name, std::size_t nameAt, Argument* arrowFirst) {
    for (const Refusal& refusal : kRefusedFunctions)
        if (refusal.name == name) fail(nameAt, std::string(refusal.text));
    const FunctionRow* row = findFunction(name);
    if (!row) fail(nameAt, "unknown function '" + name + "'");
    skip();
    const bool open = at(pos_) == '(';
    if (row->check == CheckKind::MapFamily) {
        if (arrowFirst) fail(nameAt, name + " takes a map's name in quotes; -> can't give it one");
        return parseMapCall(*row, name, nameAt);
    }
    std::vector<Argument> args;
    if (arrowFirst) args.push_back(std::move(*arrowFirst));
    if (open) {
        ++pos_;
        skip();
        if (at(pos_) == ')') {
            ++pos_;
        } else {
            while (true) {
                Argument arg;
                skip();
                arg.offset = pos_;
                {
                    Redirect redirect(*this, &arg.code);
                    arg.type = parseExpression();
                }
                args.push_back(std::move(arg));
                if (accept(",")) continue;
                if (accept(")")) break;
                fail(pos_, "expected ')' after the arguments of " + name);
            }
        }
    } else if (row->minArgs > 1) {
        fail(pos_, "expected '(' after " + name +
                       " (-> applies a function: x->clamp(0, 1) is clamp(x, 0, 1))");
    }
    return emitCall(*row, name, nameAt, args);
}

Type Compiler::emitCall(const FunctionRow& listed, const std::string& name, std::size_t nameAt,
                        std::vector<Argument>& args) {
    const int m = static_cast<int>(args.size());
    auto anyVector = [&] {
        return std::any_of(args.begin(), args.end(),
                           [](const Argument& a) { return a.type == Type::Vector; });
    };
    auto countFail = [&](const FunctionRow& r) {
        const std::string takes =
            r.minArgs == r.maxArgs ? std::to_string(r.minArgs)
                                   : std::to_string(r.minArgs) + " to " + std::to_string(r.maxArgs);
        fail(nameAt, name + " takes " + takes + " argument(s), got " + std::to_string(m));
    };

    const FunctionRow* row = &listed;
    if (row->id == FunctionId::Noise) {
        if (m == 1)
            row = &functionRow(FunctionId::NoisePoint);
        else if (m >= 2 && m <= 4 && !anyVector())
            row = &functionRow(FunctionId::Noise4);
        else
            fail(nameAt, "noise takes a point, noise(p), or 2 to 4 numbers, noise(x, y, z, w)");
    } else if (row->id == FunctionId::Rand) {
        if (m > row->maxArgs) countFail(*row);
        if (anyVector()) fail(nameAt, name + "'s arguments are numbers");
        if (m == 0) {
            emit(make(Opcode::PushVar, kSlotRand));
            return Type::Number;
        }
        if (m >= 2) row = &functionRow(FunctionId::RandRange);
    }
    if (m < row->minArgs || m > row->maxArgs) countFail(*row);

    switch (row->check) {
        case CheckKind::CurveFamily:
            return emitCurve(*row, name, nameAt, args);
        case CheckKind::Numbers:
            for (int i = 0; i < m; ++i)
                if (args[static_cast<std::size_t>(i)].type == Type::Vector)
                    fail(args[static_cast<std::size_t>(i)].offset,
                         "argument " + std::to_string(i + 1) + " of " + name +
                             " is a number, not a vector");
            break;
        case CheckKind::NumberList:
            if (anyVector()) fail(nameAt, name + "'s arguments are numbers");
            if (row->id == FunctionId::Wchoose && m % 2 == 0)
                fail(nameAt, "wchoose takes (t, value, weight, value, weight, ...)");
            break;
        case CheckKind::Typed: {
            int vectorsAllowed = 0, vectors = 0;
            for (int i = 0; i < m; ++i) {
                const char letter = row->argTypes[static_cast<std::size_t>(i)];
                vectorsAllowed += letter == 's' ? 0 : 1;
                vectors += args[static_cast<std::size_t>(i)].type == Type::Vector ? 1 : 0;
            }
            if (vectors > vectorsAllowed) fail(nameAt, name + " takes too many vectors");
            for (int i = 0; i < m; ++i)
                if (row->argTypes[static_cast<std::size_t>(i)] == 's' &&
                    args[static_cast<std::size_t>(i)].type == Type::Vector)
                    fail(args[static_cast<std::size_t>(i)].offset,
                         "argument " + std::to_string(i + 1) + " of " + name +
                             " is a number, not a vector");
            break;
        }
        case CheckKind::MapFamily:
            break;
    }

    const std::size_t start = out_->size();
    for (int i = 0; i < m; ++i) {
        const Argument& arg = args[static_cast<std::size_t>(i)];
        const std::size_t argStart = out_->size();
        append(arg.code);
        if (row->check != CheckKind::Typed || arg.type == Type::Vector) continue;
        const char letter = row->argTypes[static_cast<std::size_t>(i)];
        if (letter == 'p') {
            // A number is a point on the x axis.
            emitConst(0.0f);
            emitConst(0.0f);
        } else if (letter == 'v') {
            widenFrom(argStart);
        }
    }
    int argCount = m;
    for (int i = m; i < row->maxArgs; ++i) {
        const int d = i - (row->maxArgs - row->defaultCount);
        if (d < 0) continue;
        emitConst(row->defaults[static_cast<std::size_t>(d)]);
        ++argCount;
    }
    if (row->id == FunctionId::Rand || row->id == FunctionId::RandRange)
        emit(make(Opcode::PushVar, kSlotRand));
    call(*row, argCount, start);
    return row->resultWidth == 3 ? Type::Vector : Type::Number;
}

Type Compiler::emitCurve(const FunctionRow& row, const std::string& name, std::size_t nameAt,
                         std::vector<Argument>& args) {
    const bool pairs = row.id == FunctionId::Linearcurve;
    const bool color = row.id == FunctionId::Ccurve;
    const int m = static_cast<int>(args.size());
    const int stride = pairs ? 2 : 3;
    if ((m - 1) % stride != 0) {
        if (pairs)
            fail(nameAt,
                 name + " takes t and pairs of position and value: (t, p0, v0, p1, v1, ...)");
        if (name == "curve")
            fail(nameAt,
                 "curve takes (t, position, value, interpolation, ...) as SeExpr: keys of "
                 "three, the interpolation " +
                     std::string(kInterpolations));
        fail(nameAt, name +
                         " takes (t, position, value, interpolation, ...): keys of three, the "
                         "interpolation " +
                         std::string(kInterpolations));
    }
    if (args[0].type == Type::Vector)
        fail(args[0].offset, name + "'s first argument (where on the curve) is a number");

    ExpressionCurve curve;
    for (int k = 0; 1 + k * stride < m; ++k) {
        float values[3][3] = {};
        for (int j = 0; j < stride; ++j) {
            const Argument& arg = args[static_cast<std::size_t>(1 + k * stride + j)];
            const bool isValue = j == 1;
            if (arg.type == Type::Vector && !(color && isValue))
                fail(arg.offset,
                     name + "'s keys are numbers" + (color ? " (a value may be a color)" : ""));
            const int w = width(arg.type);
            bool constant = arg.code.size() == static_cast<std::size_t>(w);
            for (int c = 0; constant && c < w; ++c) {
                constant = arg.code[static_cast<std::size_t>(c)].op == Opcode::PushConst;
                values[j][c] = arg.code[static_cast<std::size_t>(c)].value;
            }
            if (!constant)
                fail(arg.offset, name +
                                     "'s keys are numbers (or the node's own variables), fixed "
                                     "when the expression compiles");
            if (w == 1) values[j][1] = values[j][2] = values[j][0];
        }
        ExpressionCurve::Key key;
        key.position = values[0][0];
        key.value = {values[1][0], values[1][1], values[1][2]};
        if (!pairs) {
            const float interpolation = values[2][0];
            if (!(interpolation == 0.0f || interpolation == 1.0f || interpolation == 2.0f ||
                  interpolation == 3.0f || interpolation == 4.0f))
                fail(args[static_cast<std::size_t>(3 + k * stride)].offset,
                     name + "'s interpolations are " + std::string(kInterpolations));
            key.interpolation = static_cast<std::uint8_t>(interpolation);
        }
        curve.keys.push_back(key);
    }
    std::stable_sort(curve.keys.begin(), curve.keys.end(),
                     [](const auto& a, const auto& b) { return a.position < b.position; });
    computeCurveSlopes(curve);

    if (program_.curves.size() >= 0xFFFF) fail(nameAt, "too many curves");
    program_.curves.push_back(std::move(curve));
    const auto index = static_cast<std::uint16_t>(program_.curves.size() - 1);
    const std::size_t start = out_->size();
    append(args[0].code);
    call(pairs ? functionRow(FunctionId::CurvePairs) : row, m, start, index);
    return color ? Type::Vector : Type::Number;
}

Type Compiler::parseMapCall(const FunctionRow& row, const std::string& name, std::size_t nameAt) {
    const bool color = row.resultWidth == 3;
    if (!accept("(")) fail(pos_, "expected '(' after " + name);
    skip();
    auto countFail = [&](int m) {
        const std::string takes =
            row.minArgs == row.maxArgs
                ? std::to_string(row.minArgs)
                : std::to_string(row.minArgs) + " to " + std::to_string(row.maxArgs);
        fail(nameAt, name + " takes " + takes + " argument(s), got " + std::to_string(m));
    };
    if (at(pos_) == ')') countFail(0);
    if (!isQuote(at(pos_))) fail(pos_, "expected a name in quotes");
    const std::size_t textAt = pos_;
    const std::string written = readQuoted();
    std::uint8_t channel = 4;  // luminance
    if (accept(",")) {
        skip();
        const std::size_t channelAt = pos_;
        if (color) fail(channelAt, name + " takes the map's name alone (it gives r, g, b)");
        if (isQuote(at(pos_))) {
            const std::string text = readQuoted();
            constexpr std::string_view kNames[] = {"r", "g", "b", "a", "luminance"};
            const auto found = std::find(std::begin(kNames), std::end(kNames), text);
            if (found == std::end(kNames))
                fail(channelAt, "a map's channel is \"r\", \"g\", \"b\", \"a\" or \"luminance\"");
            channel = static_cast<std::uint8_t>(found - std::begin(kNames));
        } else {
            Code code;
            float v = -1.0f;
            Type type;
            {
                Redirect redirect(*this, &code);
                type = parseExpression();
                if (type == Type::Number) constantFrom(0, 1, &v);
            }
            if (!(v == 0.0f || v == 1.0f || v == 2.0f || v == 3.0f || v == 4.0f))
                fail(channelAt, "a map's channel is 0 (r), 1 (g), 2 (b), 3 (a) or 4 (luminance)");
            channel = static_cast<std::uint8_t>(v);
        }
        if (accept(",")) {
            // Count the rest for the message.
            int m = 3;
            Code scratch;
            Redirect redirect(*this, &scratch);
            parseExpression();
            while (accept(",")) {
                parseExpression();
                ++m;
            }
            countFail(m);
        }
    }
    if (!accept(")")) fail(pos_, "expected ')' after the arguments of " + name);
    const std::int32_t map = mapIndex(written, textAt, name);
    const std::string& mapName = program_.maps[static_cast<std::size_t>(map)].name;
    if (!color) {
        emit(make(Opcode::PushChannel, 0, 0, channelIndex({mapName, map, channel}, textAt)));
        return Type::Number;
    }
    for (std::uint8_t k = 0; k < 3; ++k)
        emit(make(Opcode::PushChannel, 0, 0, channelIndex({mapName, map, k}, textAt)));
    return Type::Vector;
}

// ---- Finishing

std::string positionText(std::string_view source, std::size_t offset) {
    if (source.find('\n') == std::string_view::npos)
        return " at position " + std::to_string(offset);
    std::size_t line = 1, lineStart = 0;
    for (std::size_t i = 0; i < offset && i < source.size(); ++i)
        if (source[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    return " (line " + std::to_string(line) + ", column " + std::to_string(offset - lineStart + 1) +
           ")";
}

// Drops the channels, maps and curves that folding left unread, and renumbers the code's
// references, so that binding asks only for what the code reads.
void compactTables(ExpressionProgram& program) {
    std::vector<int> channelUse(program.channels.size(), -1);
    std::vector<int> curveUse(program.curves.size(), -1);
    std::vector<ChannelRead> channels;
    std::vector<ExpressionCurve> curves;
    for (Instruction& i : program.code) {
        if (i.op == Opcode::PushChannel) {
            int& to = channelUse[i.index];
            if (to < 0) {
                to = static_cast<int>(channels.size());
                channels.push_back(program.channels[i.index]);
            }
            i.index = static_cast<std::uint16_t>(to);
        } else if (isCurveCall(i)) {
            int& to = curveUse[i.index];
            if (to < 0) {
                to = static_cast<int>(curves.size());
                curves.push_back(program.curves[i.index]);
            }
            i.index = static_cast<std::uint16_t>(to);
        }
    }
    std::vector<MapUse> maps;
    std::vector<int> mapUse(program.maps.size(), -1);
    for (ChannelRead& read : channels) {
        if (read.map < 0) continue;
        int& to = mapUse[static_cast<std::size_t>(read.map)];
        if (to < 0) {
            to = static_cast<int>(maps.size());
            maps.push_back(program.maps[static_cast<std::size_t>(read.map)]);
        }
        read.map = to;
    }
    program.channels = std::move(channels);
    program.curves = std::move(curves);
    program.maps = std::move(maps);
}

void scanCaptures(ExpressionProgram& program) {
    std::uint32_t slots = 0, captures = 0;
    int depth = 0, deepest = 0;
    for (const Instruction& i : program.code) {
        if (i.op == Opcode::PushVar) slots |= 1u << i.a;
        int pops, pushes;
        stackEffect(i, pops, pushes);
        depth += pushes - pops;
        deepest = std::max(deepest, depth);
    }
    auto any = [&](int first, int last) {
        for (int s = first; s <= last; ++s)
            if (slots & (1u << s)) return true;
        return false;
    };
    if (any(0, 7) || any(kSlotLift, kSlotLift)) captures |= kReadsRoot;
    if (any(kSlotPrefX, kSlotPrefZ)) captures |= kReadsRest;
    if (any(kSlotLength, kSlotTipZ)) captures |= kReadsShape;
    if (any(kSlotLongest, kSlotLongest)) captures |= kReadsLongest;
    if (any(kSlotT, kSlotPointIndex)) captures |= kReadsPoint;
    if (any(kSlotT, kSlotT) || any(kSlotPx, kSlotPz)) captures |= kReadsArc;
    if (any(kSlotFrame, kSlotTime)) captures |= kReadsTime;
    for (const ChannelRead& read : program.channels)
        captures |= read.map < 0 ? kReadsChannels : kReadsMaps;
    if ((slots & ~((1u << kSlotFrame) | (1u << kSlotTime))) != 0 ||
        (captures & (kReadsChannels | kReadsMaps)))
        captures |= kReadsStrand;
    program.slotsRead = slots;
    program.captures = captures;
    program.stackFloats = deepest;
}

Dispatch dispatchOf(const Instruction& i) {
    switch (i.op) {
        case Opcode::PushConst:
            return Dispatch::PushConst;
        case Opcode::PushVar:
            return Dispatch::PushVar;
        case Opcode::PushChannel:
            return Dispatch::PushChannel;
        case Opcode::Negate:
            return Dispatch::Negate;
        case Opcode::Binary:
            return static_cast<Dispatch>(static_cast<int>(Dispatch::Add) + i.a);
        case Opcode::CallNumber:
            return Dispatch::CallNumber;
        case Opcode::SelectNumber:
            return Dispatch::SelectNumber;
        case Opcode::NegateVector:
            return Dispatch::NegateVector;
        case Opcode::BinaryVector:
            return Dispatch::BinaryVector;
        case Opcode::SelectVector:
            return Dispatch::SelectVector;
        case Opcode::CallVector:
            return Dispatch::CallVector;
        case Opcode::Component:
            return Dispatch::Component;
        case Opcode::Widen:
            return Dispatch::Widen;
    }
    return Dispatch::PushConst;
}

std::uint64_t programKey(const ExpressionProgram& program) {
    std::uint64_t h = hashText(0, "expression");
    for (const Instruction& i : program.code) {
        h = hashCombine(h, static_cast<std::uint64_t>(i.op) | (std::uint64_t{i.a} << 8) |
                               (std::uint64_t{i.b} << 16) | (std::uint64_t{i.index} << 24) |
                               (std::uint64_t{floatBits(i.value)} << 32));
    }
    for (const ChannelRead& read : program.channels) {
        h = hashText(h, read.name);
        h = hashCombine(h, static_cast<std::uint64_t>(read.map + 1) * 8 + read.component);
    }
    for (const ExpressionCurve& curve : program.curves)
        for (const ExpressionCurve::Key& k : curve.keys) {
            h = hashCombine(h, floatBits(k.position));
            h = hashCombine(h, floatBits(k.value.x));
            h = hashCombine(h, floatBits(k.value.y));
            h = hashCombine(h, floatBits(k.value.z));
            h = hashCombine(h, k.interpolation);
        }
    if (program.slotsRead & (1u << kSlotFrame)) h = hashCombine(h, floatBits(program.frame));
    if (program.slotsRead & (1u << kSlotTime)) h = hashCombine(h, floatBits(program.time));
    return h;
}

}  // namespace

std::shared_ptr<const ExpressionProgram> compile(std::string_view source,
                                                 const ExpressionEnvironment& environment,
                                                 ExpressionType expected) {
    auto program = std::make_shared<ExpressionProgram>();
    program->source = std::string(source);
    program->frame = narrowToFloat(environment.frame);
    program->time = narrowToFloat(environment.time);
    const std::string quoted = "expression '" + std::string(source) + "'";
    Type type;
    try {
        Compiler compiler(source, environment, *program);
        type = compiler.compileAll();
    } catch (const Failure& failure) {
        throw ExpressionError(quoted + ": " + failure.text + positionText(source, failure.offset));
    } catch (const NestedTooDeeply&) {
        throw ExpressionError(quoted + " is nested too deeply");
    }
    compactTables(*program);
    scanCaptures(*program);
    for (Instruction& i : program->code)
        i.dispatch = dispatchOf(i);
    if (program->stackFloats > kStackFloats)
        throw ExpressionError(quoted + " is nested too deeply");
    if (type != expected) {
        if (expected == Type::Vector)
            throw ExpressionError(quoted +
                                  " gives a number; this takes a vector, e.g. [0, -1, 0] or "
                                  "normalize(N)");
        throw ExpressionError(quoted +
                              " gives a vector; this takes a number (use .x, length(...) or "
                              "dot(...))");
    }
    program->resultType = type;
    program->key = programKey(*program);
    return program;
}

const char* slotName(int slot) {
    return slot >= 0 && slot < kSlotCount ? kSlotNames[static_cast<std::size_t>(slot)] : "";
}

}  // namespace velmorin
