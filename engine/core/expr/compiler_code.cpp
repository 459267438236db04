// The expression compiler's code: emitting with constant folding, and finishing a program (unread
// tables dropped, the stack's depth and the captures found, each instruction's dispatch, the
// program's key).
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/hash.h"
#include "expr/compiler_internal.h"

namespace velmorin {
namespace expr_compiler {

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

}  // namespace expr_compiler

namespace {

using expr_compiler::Compiler;
using expr_compiler::Failure;
using expr_compiler::NestedTooDeeply;
using expr_compiler::Type;

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

}  // namespace velmorin
