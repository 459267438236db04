#include "graph/value.h"

#include <thread>

#include <gtest/gtest.h>

#include "graph/eval_context.h"
#include "graph/field_value.h"
#include "graph/ramp.h"
#include "graph/uniform_value.h"

namespace velmorin {
namespace {

TEST(Value, CopiesShareOnePointerAndCompareByIdentity) {
    auto ramp = std::make_shared<Ramp>();
    const Value a(ramp);
    const Value b = a;
    const Value c(std::make_shared<Ramp>());  // equal content, other object
    EXPECT_EQ(a.identity(), ramp.get());
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    EXPECT_EQ(a.get<Ramp>(), ramp);
    EXPECT_EQ(a.get<UniformValue>(), nullptr);
    EXPECT_TRUE(a.holds<Ramp>());
}

TEST(Value, ANullPointerIsNothing) {
    const Value none(std::shared_ptr<const FieldValue>{});
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(none.identity(), nullptr);
    EXPECT_EQ(none.kindName(), "nothing");
    EXPECT_EQ(none, Value());
}

TEST(Value, KindNamesSayWhatArrived) {
    // Strands and guides are only pointed at here, never read: an unowned alias is enough.
    int marker = 0;
    const Value strands(std::shared_ptr<const StrandSet>(
        std::shared_ptr<void>(), reinterpret_cast<const StrandSet*>(&marker)));
    const Value guides(std::shared_ptr<const GuideSet>(std::shared_ptr<void>(),
                                                       reinterpret_cast<const GuideSet*>(&marker)));
    EXPECT_EQ(strands.kindName(), "strands");
    EXPECT_EQ(guides.kindName(), "guides");
    EXPECT_EQ(strands.index(), 1u);
    EXPECT_EQ(Value(std::make_shared<ConstantFieldValue>(1.0f)).kindName(), "field");
    EXPECT_EQ(Value(std::make_shared<Ramp>()).kindName(), "curve");
    EXPECT_EQ(Value(std::make_shared<UniformValue>()).kindName(), "value");
}

TEST(ConstantFieldValue, KeysFollowTheNumberAndTellNumberFromColor) {
    const ConstantFieldValue half(0.5f);
    EXPECT_EQ(half.key(), ConstantFieldValue(0.5f).key());
    EXPECT_NE(half.key(), ConstantFieldValue(0.25f).key());
    EXPECT_NE(ConstantFieldValue(0.0f).key(), ConstantFieldValue(-0.0f).key());
    EXPECT_FALSE(half.varies());
    EXPECT_EQ(half.atPoint(3, 9), 0.5f);
    EXPECT_EQ(half.describe(), "constant 0.5");

    const ConstantColorField black({0.0f, 0.0f, 0.0f});
    EXPECT_NE(black.key(), ConstantFieldValue(0.0f).key());
    EXPECT_NE(ConstantColorField({1, 0, 0}).key(), ConstantColorField({0, 1, 0}).key());
}

TEST(ConstantColorField, ReadsAsItsLuminanceWhereANumberIsWanted) {
    const ConstantColorField white({1.0f, 1.0f, 1.0f});
    EXPECT_NEAR(white.atStrand(0), 1.0f, 1e-6f);
    const ConstantColorField green({0.0f, 1.0f, 0.0f});
    EXPECT_FLOAT_EQ(green.atPoint(4, 2), 0.7152f);
    EXPECT_EQ(green.vectorAt(7), (Vec3f{0.0f, 1.0f, 0.0f}));
    EXPECT_TRUE(green.isColor());
    EXPECT_EQ(green.describe(), "constant color (0, 1, 0)");
}

TEST(UniformValue, KeyDependsOnKindValueAndTime) {
    UniformValue one;
    one.value = 1.0;
    UniformValue integerOne;
    integerOne.kind = ValueKind::Integer;
    integerOne.value = std::int64_t{1};
    UniformValue timed = one;
    timed.dependsOnTime = true;
    UniformValue text;
    text.kind = ValueKind::Text;
    text.value = std::string("a");
    UniformValue otherText = text;
    otherText.value = std::string("b");

    EXPECT_EQ(one.key(), UniformValue(one).key());
    EXPECT_NE(one.key(), integerOne.key());
    EXPECT_NE(one.key(), timed.key());
    EXPECT_NE(text.key(), otherText.key());
}

TEST(NoteList, CollectsFromManyThreadsAndTakeEmptiesIt) {
    NoteList notes;
    EvalContext ctx;
    ctx.note("dropped: no list yet");  // a context without a list ignores notes
    ctx.notes = &notes;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&ctx] {
            for (int i = 0; i < 100; ++i)
                ctx.note("n");
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(notes.take().size(), 400u);
    EXPECT_TRUE(notes.take().empty());
}

}  // namespace
}  // namespace velmorin
