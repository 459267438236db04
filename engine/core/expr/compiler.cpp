// The expression compiler's grammar: lexing, statements and expressions, lowest precedence first.
// See compiler_internal.h for how the compiler works.
#include <algorithm>
#include <charconv>
#include <set>
#include <string>
#include <system_error>

#include "expr/compiler_internal.h"

namespace velmorin::expr_compiler {

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
                fail(start, std::string(refusedVariable("DESC")));
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
        if (const std::string_view refusal = refusedFunction(name); !refusal.empty())
            fail(start, std::string(refusal));
        if (name == "if") fail(start, "unexpected 'if'");
        // A bare name reads a variable, as $name does; a function's name wants its arguments.
        const bool variable = locals_.count(name) || env_.variable(name) || isBuiltinVariable(name);
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

}  // namespace velmorin::expr_compiler
