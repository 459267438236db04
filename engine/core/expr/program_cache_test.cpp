#include "expr/program_cache.h"

#include <gtest/gtest.h>

#include <string>

namespace velmorin {
namespace {

// An environment factory that counts how often it is asked for.
struct CountingEnvironment {
    double frame = 0.0;
    int made = 0;
    std::function<ExpressionEnvironment()> factory() {
        return [this] {
            ++made;
            return expressionEnvironment(frame);
        };
    }
};

TEST(ExpressionCache, KeepsAProgramBySourceTypeAndEnvironment) {
    CountingEnvironment env;
    const auto first =
        compileCached("rand * 2 + 0.125", ExpressionType::Number, 11, 0.0, env.factory());
    const auto again =
        compileCached("rand * 2 + 0.125", ExpressionType::Number, 11, 5.0, env.factory());
    EXPECT_EQ(again, first);  // reads no frame: any frame serves
    EXPECT_EQ(env.made, 1);

    // Another environment or another text is another program.
    EXPECT_NE(compileCached("rand * 2 + 0.125", ExpressionType::Number, 12, 0.0, env.factory()),
              first);
    EXPECT_NE(compileCached("rand * 2 + 0.25", ExpressionType::Number, 11, 0.0, env.factory()),
              first);
    EXPECT_EQ(env.made, 3);
    // The type asked for is part of what is kept: a number program does not serve a vector.
    EXPECT_THROW(compileCached("rand * 2 + 0.125", ExpressionType::Vector, 11, 0.0, env.factory()),
                 ExpressionError);
}

TEST(ExpressionCache, AProgramOfTheFrameIsKeptForItsFrameOnly) {
    CountingEnvironment env;
    env.frame = 3.0;
    const auto at3 =
        compileCached("frame * 0.5 + rand", ExpressionType::Number, 21, 3.0, env.factory());
    EXPECT_TRUE(at3->reads(kReadsTime));
    EXPECT_EQ(at3->frame, 3.0f);
    EXPECT_EQ(compileCached("frame * 0.5 + rand", ExpressionType::Number, 21, 3.0, env.factory()),
              at3);
    env.frame = 4.0;
    const auto at4 =
        compileCached("frame * 0.5 + rand", ExpressionType::Number, 21, 4.0, env.factory());
    EXPECT_NE(at4, at3);
    EXPECT_EQ(at4->frame, 4.0f);
    EXPECT_EQ(env.made, 2);
}

TEST(ExpressionCache, KeepsNothingOfAFailureAndStaysBounded) {
    CountingEnvironment env;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_THROW(compileCached("1 +", ExpressionType::Number, 31, 0.0, env.factory()),
                     ExpressionError);
    }
    EXPECT_EQ(env.made, 2);

    for (std::size_t i = 0; i < kExpressionCacheSize + 10; ++i)
        compileCached(std::to_string(i) + " + rand", ExpressionType::Number, 32, 0.0,
                      env.factory());
    EXPECT_EQ(expressionCacheCount(), kExpressionCacheSize);
    // The newest are kept, the oldest dropped.
    const int made = env.made;
    compileCached(std::to_string(kExpressionCacheSize + 9) + " + rand", ExpressionType::Number, 32,
                  0.0, env.factory());
    EXPECT_EQ(env.made, made);
    compileCached("0 + rand", ExpressionType::Number, 32, 0.0, env.factory());
    EXPECT_EQ(env.made, made + 1);
}

}  // namespace
}  // namespace velmorin
