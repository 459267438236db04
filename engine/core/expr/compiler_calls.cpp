// The expression compiler's function calls: arguments, the choice of a function's row by their
// count and types, curves with their fixed keys, and the map family with its names in quotes.
#include <algorithm>
#include <string>

#include "expr/compiler_internal.h"

namespace velmorin::expr_compiler {
namespace {

constexpr std::string_view kInterpolations =
    "0 (none), 1 (linear), 2 (smooth), 3 (spline) or 4 (monotone spline)";

}  // namespace

// ---- Calls

Type Compiler::parseCall(const std::string& name, std::size_t nameAt, Argument* arrowFirst) {
    if (const std::string_view refusal = refusedFunction(name); !refusal.empty())
        fail(nameAt, std::string(refusal));
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

}  // namespace velmorin::expr_compiler
