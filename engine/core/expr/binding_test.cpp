// Running programs over strands: the variable fill, the levels, the thread count, binding's
// messages, and the environment the compiler reads.

#include "expr/binding.h"

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "expr/function_table.h"
#include "expr/test/expression_fixture.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

std::shared_ptr<const ExpressionProgram> number(const std::string& source) {
    return compile(source, test::fixtureEnvironment(), ExpressionType::Number);
}

std::vector<float> perStrand(const std::string& source, const StrandSet& strands) {
    const ExpressionBinding binding = bind(number(source), strands);
    std::vector<float> out(strands.strandCount());
    evaluateExpression(binding, out, ExpressionLevel::Strand);
    return out;
}

std::string bindMessage(const std::string& source, const StrandSet& strands) {
    try {
        bind(number(source), strands);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "bound";
}

TEST(ExpressionBinding, RandIsTheUnitFloatOfTheIdsCombine) {
    const StrandSet strands = test::fixtureStrands();
    const std::vector<float> rand = perStrand("$rand", strands);
    const std::vector<float> seeded = perStrand("rand(3.5)", strands);
    for (std::size_t s = 0; s < 2; ++s) {
        const std::uint64_t id = strands.ids()[s];
        EXPECT_EQ(rand[s], unitFloat(((id << 6) + (id >> 2) + kGolden + 0xE7A1) ^ id));
        const std::uint64_t h = hashCombine(mix64(floatBits(rand[s])), floatBits(3.5f));
        EXPECT_EQ(seeded[s], static_cast<float>(h >> 40) * 0x1p-24f);
    }
    // The hash of numbers starts from its own constant and takes each number's bits.
    const std::uint64_t h =
        hashCombine(hashCombine(0xEE83BFC8A6DE0083ull, floatBits(1.5f)), floatBits(-2.0f));
    EXPECT_EQ(perStrand("hash(1.5, -2)", strands)[0], static_cast<float>(h >> 40) * 0x1p-24f);
}

TEST(ExpressionBinding, LevelsReadPerPointProgramsAtTheRootAndRepeatPerStrandOnes) {
    const StrandSet strands = test::fixtureStrands();
    const ExpressionBinding perPoint = bind(number("$t + $curl"), strands);
    EXPECT_TRUE(perPoint.perPoint());
    std::vector<float> points(strands.pointCount()), roots(strands.strandCount());
    evaluateExpression(perPoint, points, ExpressionLevel::Point);
    evaluateExpression(perPoint, roots, ExpressionLevel::Strand);
    EXPECT_EQ(points, (std::vector<float>{0.1f, 0.75f, 1.4f, 0.6f, 1.8f}));
    EXPECT_EQ(roots, (std::vector<float>{0.1f, 0.6f}));

    // A point channel alone makes a program per point; a strand channel does not.
    EXPECT_TRUE(bind(number("$curl"), strands).perPoint());
    const ExpressionBinding perStrandBinding = bind(number("$mass * 2"), strands);
    EXPECT_FALSE(perStrandBinding.perPoint());
    evaluateExpression(perStrandBinding, points, ExpressionLevel::Point);
    EXPECT_EQ(points, (std::vector<float>{1, 1, 1, 4, 4}));

    // Without root data: no uv, no normal (lift 0), the rest root is the root.
    EXPECT_EQ(perStrand("$u + $v + $nx + $ny + $nz + $lift", strands), (std::vector<float>{0, 0}));
    EXPECT_EQ(perStrand("$prefx * 10 + $faceId", strands), (std::vector<float>{3, 9}));

    // Vectors come out as vectors.
    const ExpressionBinding tips = bind(compile("$tip - $P", {}, ExpressionType::Vector), strands);
    std::vector<Vec3f> reach(strands.strandCount());
    evaluateExpression(tips, reach, ExpressionLevel::Strand);
    EXPECT_EQ(reach, (std::vector<Vec3f>{{0, 2, 0}, {0, 0, 3}}));
}

TEST(ExpressionBinding, TheFillFollowsWhatTheProgramReads) {
    // A program that reads rand alone reads nothing of the strand's shape.
    const auto rand = number("rand * 2");
    EXPECT_EQ(rand->captures, kReadsStrand);
    EXPECT_EQ(rand->slotsRead, 1u << kSlotRand);
    EXPECT_TRUE(number("$frame * $time + $amount")->isUniform());
    EXPECT_EQ(evaluateUniformNumber(*number("$frame * $time + $amount")), 6.5f);
    EXPECT_THROW(evaluateUniformNumber(*number("$frame + $id")), std::invalid_argument);
    EXPECT_FALSE(number("$frame + $id")->isUniform());
    EXPECT_EQ(number("$t")->captures, kReadsStrand | kReadsPoint | kReadsArc);
    EXPECT_EQ(number("$lift")->captures, kReadsStrand | kReadsRoot | kReadsShape);
    EXPECT_EQ(number("$length / $longest")->captures, kReadsStrand | kReadsShape | kReadsLongest);
    EXPECT_EQ(number("$Pref.x + $mass + map(\"density\")")->captures,
              kReadsStrand | kReadsRest | kReadsChannels | kReadsMaps);
    // What folding drops is not asked of the strands.
    EXPECT_TRUE(number("1 ? 2 : $nosuch")->channels.empty());
    EXPECT_EQ(bindMessage("1 ? 2 : $nosuch", test::fixtureStrands()), "bound");
}

TEST(ExpressionBinding, LongestCountsStrandsThePreviewKeeps) {
    StrandSet strands = test::fixtureStrands();
    EXPECT_EQ(bind(number("$longest"), strands).longest(), 3.0f);
    // The longer strand is a preview-only strand: it does not count.
    strands.addStrandChannel("_preview", 1.0f) = {1.0f, 0.0f};
    EXPECT_EQ(bind(number("$longest"), strands).longest(), 2.0f);
    EXPECT_EQ(perStrand("$_preview", strands), (std::vector<float>{1, 0}));
    // A preview that keeps nothing still measures the strands.
    strands.addStrandChannel("_preview", 1.0f) = {0.0f, 0.0f};
    EXPECT_EQ(bind(number("$longest"), strands).longest(), 3.0f);
    // Many blocks: the longest of a large set is that of a strand far into it.
    const auto grid = test::gridStrands(5000, 3, 1);
    StrandSet tall = *grid;
    tall.writePoints()[4321 * 3 + 2].y = 9.0f;
    EXPECT_EQ(bind(number("$longest"), tall).longest(), 9.0f);
}

TEST(ExpressionBinding, OneAndTwoThreadsGiveTheSameBits) {
    const StrandSet strands = test::randomStrands(3000, 11);
    const char* sources[] = {
        "rand * 2 + $length / $longest",
        "noise($pointP * 4) * $t",
        "fbm($pointP, 4) + $curl * $mass",
        "$a = $t * $index; if ($a > 0.2) { $a = voronoi($P, 5); } $a + cellnoise($tip)",
        "curve($t, 0, 0, 3, 0.5, 1, 3, 1, 0.2, 4) * pick($id, 1, 4) + $straightness",
    };
    for (const char* source : sources) {
        SCOPED_TRACE(source);
        const ExpressionBinding binding = bind(number(source), strands);
        std::vector<float> one(strands.pointCount()), two(strands.pointCount());
        runWithThreads(1, [&] { evaluateExpression(binding, one, ExpressionLevel::Point); });
        runWithThreads(2, [&] { evaluateExpression(binding, two, ExpressionLevel::Point); });
        EXPECT_EQ(std::memcmp(one.data(), two.data(), one.size() * sizeof(float)), 0);
    }
}

TEST(ExpressionBinding, BindingAndRunningRefuseWhatDoesNotFit) {
    const StrandSet strands = test::fixtureStrands();
    EXPECT_EQ(bindMessage("$nosuch + 1", strands),
              "the expression reads 'nosuch', which is neither a variable nor a channel of the "
              "strands");
    EXPECT_THROW(bind(nullptr, strands), std::invalid_argument);
    const Vec3f normals[3] = {};
    EXPECT_THROW(bind(number("$lift"), strands, {{}, normals, {}}), std::invalid_argument);

    const ExpressionBinding binding = bind(number("$t"), strands);
    std::vector<float> wrongSize(3);
    EXPECT_THROW(evaluateExpression(binding, wrongSize, ExpressionLevel::Point),
                 std::invalid_argument);
    std::vector<Vec3f> vectors(strands.pointCount());
    EXPECT_THROW(evaluateExpression(binding, vectors, ExpressionLevel::Point),
                 std::invalid_argument);

    // Each binding has its own serial.
    EXPECT_LT(binding.serial(), bind(number("$t"), strands).serial());

    // Strands without points, and no strands at all, evaluate without reading past anything.
    const StrandSet sparse = test::randomStrands(200, 3);
    std::vector<float> out(sparse.pointCount());
    evaluateExpression(bind(number("$t + $tipy + $curl + $straightness"), sparse), out,
                       ExpressionLevel::Point);
    const StrandSet empty;
    std::vector<float> none;
    evaluateExpression(bind(number("$t + $longest"), empty), none, ExpressionLevel::Point);
}

TEST(ExpressionEnvironment, VariablesFromJson) {
    const std::vector<ExpressionVariable> read = readExpressionVariables(
        R"({"amount": 0.5, "center": [0, 1, 0], "gain": {"value": 2, "control": "ctl_gain",
            "unit": "length"}})");
    ASSERT_EQ(read.size(), 3u);
    EXPECT_EQ(read[0], (ExpressionVariable{"amount", false, {0.5f, 0, 0}, "", ""}));
    EXPECT_EQ(read[1], (ExpressionVariable{"center", true, {0, 1, 0}, "", ""}));
    EXPECT_EQ(read[2], (ExpressionVariable{"gain", false, {2, 0, 0}, "ctl_gain", "length"}));
    EXPECT_TRUE(readExpressionVariables(" ").empty());

    const std::pair<const char*, const char*> errors[] = {
        {"[1, 2]", "variables are a JSON object of numbers and vectors"},
        {"{\"a\": ", "variables are a JSON object of numbers and vectors"},
        {R"({"a b": 1})", "'a b' is not a variable name (letters, digits and _)"},
        {R"({"a": "x"})", "a is neither a number nor a vector of three"},
        {R"({"a": [1, 2]})", "a is neither a number nor a vector of three"},
        {R"({"a": {"control": "c"}})", "a is neither a number nor a vector of three"},
        {R"({"a": {"value": 1, "unit": "mm"}})", "a's unit is length, width, density or perLength"},
        {R"({"a": {"value": 1, "control": 3}})", "a's control is a name (letters, digits and _)"},
    };
    for (const auto& [json, message] : errors) {
        SCOPED_TRACE(json);
        try {
            readExpressionVariables(json);
            ADD_FAILURE() << "read";
        } catch (const ExpressionError& e) {
            EXPECT_EQ(std::string(e.what()), message);
        }
    }
}

TEST(ExpressionEnvironment, TheFrameGivesTimeAndControlsSetVariables) {
    const ExpressionControls controls = [](std::string_view name) -> std::optional<double> {
        if (name == "ctl_gain") return 0.25;
        return std::nullopt;
    };
    const ExpressionEnvironment env = expressionEnvironment(
        48.0,
        R"({"gain": {"value": 2, "control": "ctl_gain"}, "other": {"value": 3, "control": "x"}})",
        controls);
    EXPECT_EQ(env.frame, 48.0);
    EXPECT_EQ(env.time, 2.0);
    EXPECT_FALSE(env.resolveMap);
    EXPECT_EQ(env.variable("gain")->value.x, 0.25f);
    EXPECT_EQ(env.variable("other")->value.x, 3.0f);  // no such control: the value holds

    // Without a resolver, a map is refused with a sentence that says so.
    try {
        compile("map(\"density\")", env, ExpressionType::Number);
        ADD_FAILURE() << "compiled";
    } catch (const ExpressionError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "expression 'map(\"density\")': no maps are given to this expression, so "
                  "map(\"density\") can't be read here at position 4");
    }
}

TEST(ExpressionNoise, PinnedValues) {
    // Exact values, so that a change to the lattice, the hash or the blend cannot pass unseen.
    const StrandSet strands = test::fixtureStrands();
    const std::pair<const char*, float> pinned[] = {
        {"noise([0.3, 0.7, 1.1])", 0.68735981f},
        {"snoise([-2.25, 5.5, 0.75])", 0.459842205f},
        {"fbm([0.3, 0.7, 1.1], 4)", 0.611155331f},
        {"vnoise([0.3, 0.7, 1.1]).z", 0.313185543f},
        {"noise(0.3, 0.7, 1.1, 2.6)", 0.54876852f},
        {"cellnoise([3.5, -1.5, 2.5])", 0.681008458f},
        {"voronoi([0.3, 0.7, 1.1], 2)", 0.394115001f},
    };
    for (const auto& [source, value] : pinned) {
        SCOPED_TRACE(source);
        EXPECT_EQ(perStrand(source, strands)[0], value);
    }
}

TEST(ExpressionFunctions, TheTableAsTheEditorListsIt) {
    EXPECT_EQ(listedFunctionCount(), 110u);
    const nlohmann::ordered_json help = functionHelpJson();
    ASSERT_EQ(help.size(), 110u);
    EXPECT_EQ(
        help[67].dump(),
        R"json({"name":"fbm","signature":"p, octaves, lacunarity, gain","description":"Fractal noise around 0.5 (6, 2, 0.5 when left out)","minArgs":1,"maxArgs":4,"check":2,"gpu":-1,"argTypes":"psss","result":"number","defaults":[6.0,2.0,0.5]})json");
    EXPECT_EQ(help[109]["name"], "vmap");
    EXPECT_EQ(help[109]["synonymOf"], "cmap");

    // The GPU numbers 0 to 32, each on one function.
    const char* gpu[] = {"sin",  "cos",        "tan",   "asin",       "acos",    "atan",    "abs",
                         "sqrt", "floor",      "ceil",  "fract",      "exp",     "log",     "sign",
                         "pow",  "atan2",      "min",   "max",        "mod",     "step",    "clamp",
                         "mix",  "smoothstep", "round", "trunc",      "radians", "degrees", "gamma",
                         "bias", "gain",       "lerp",  "linearstep", "fit"};
    int numbered = 0;
    for (const auto& row : help)
        if (row["gpu"] != -1 && !row.contains("synonymOf")) {
            ++numbered;
            EXPECT_EQ(row["name"], gpu[row["gpu"].get<int>()]);
        }
    EXPECT_EQ(numbered, 33);
    // Hidden rows are found by nothing, synonyms run their original.
    EXPECT_EQ(findFunction("rand range"), nullptr);
    EXPECT_EQ(findFunction("dist")->id, FunctionId::Distance);
}

}  // namespace
}  // namespace velmorin
