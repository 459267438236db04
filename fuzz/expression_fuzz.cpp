// Expression sources from any bytes: each compiles to a program within its limits or throws
// ExpressionError, never crashes, hangs or grows without bound. What compiles is bound to a small
// groom (strands without points included) and run at both levels.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "expr/binding.h"
#include "expr/expression.h"
#include "expr/test/expression_fixture.h"
#include "strands/test/test_strands.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    static const ExpressionEnvironment env = test::fixtureEnvironment();
    static const StrandSet strands = test::randomStrands(12, 5);
    const std::string_view source(reinterpret_cast<const char*>(data), size);

    for (const ExpressionType type : {ExpressionType::Number, ExpressionType::Vector}) {
        std::shared_ptr<const ExpressionProgram> program;
        try {
            program = compile(source, env, type);
        } catch (const ExpressionError&) {
            continue;
        }
        if (program->code.empty() || program->code.size() > kMaxInstructions ||
            program->stackFloats > kStackFloats || program->resultType != type)
            __builtin_trap();
        std::vector<ExpressionBinding> bindings;
        try {
            bindings.push_back(bind(program, strands));
        } catch (const ExpressionError&) {
            continue;  // a channel the strands lack
        }
        // Running is linear in the code; a legal program of a million calls of fractal noise
        // takes long on its own, which is no fault of the compiler.
        const std::size_t work =
            program->code.size() * (strands.pointCount() + strands.strandCount());
        if (work > 4'000'000) continue;
        const ExpressionBinding& binding = bindings.front();
        if (type == ExpressionType::Number) {
            std::vector<float> points(strands.pointCount()), roots(strands.strandCount());
            evaluateExpression(binding, points, ExpressionLevel::Point);
            evaluateExpression(binding, roots, ExpressionLevel::Strand);
        } else {
            std::vector<Vec3f> points(strands.pointCount()), roots(strands.strandCount());
            evaluateExpression(binding, points, ExpressionLevel::Point);
            evaluateExpression(binding, roots, ExpressionLevel::Strand);
        }
    }
    return 0;
}
