#include "graph/params.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "base/test/expect_message.h"

#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/eval_context.h"
#include "graph/field_value.h"
#include "graph/test/declarations.h"

namespace velmorin {
namespace {

using test::param;

// Runs `action` and expects a GraphError that says exactly `message`.
void expectError(const std::function<void()>& action, const std::string& message) {
    test::expectMessage<GraphError>(action, message);
}

ParamSpec limited(ParamSpec spec, std::optional<double> min, std::optional<double> max) {
    spec.min = min;
    spec.max = max;
    return spec;
}

ParamSpec colorField(ParamSpec spec) {
    spec.colorField = true;
    return spec;
}

ParamSpec modeSpec() {
    ParamSpec spec = param("mode", std::string("multiply"));
    spec.choices = {"multiply", "add", "mix"};
    return spec;
}

TEST(CoerceParam, NumbersWidenAndNarrowByTheParamsKind) {
    const ParamSpec length = param("length", 1.0), count = param("count", std::int64_t{10}),
                    on = param("on", false);
    const struct {
        const ParamSpec& spec;
        ParamValue in, out;
    } cases[] = {
        {length, std::int64_t{3}, 3.0},
        {length, true, 1.0},
        {count, 2.4, std::int64_t{2}},
        {count, 2.6, std::int64_t{3}},
        {count, -2.6, std::int64_t{-3}},
        {count, false, std::int64_t{0}},
        {count, -9223372036854775808.0, std::numeric_limits<std::int64_t>::min()},
        {on, -3.0, true},
        {on, std::int64_t{0}, false},
        {modeSpec(), std::string("add"), std::string("add")},
        // Without choices any text goes.
        {param("label", std::string()), std::string("Add"), std::string("Add")},
    };
    for (const auto& c : cases)
        EXPECT_EQ(coerceParam(c.in, c.spec, "x"), c.out) << c.spec.name;
}

TEST(CoerceParam, RefusalsNameTheParamWhatItTakesAndWhatItGot) {
    const ParamSpec count = param("count", std::int64_t{10});
    const struct {
        ParamSpec spec;
        ParamValue value;
        const char* context;
        std::string message;
    } cases[] = {
        // The integer range is that of a signed 64-bit integer.
        {count, 9223372036854775808.0, "param 'count'",
         "param 'count': 9223372036854775808 is out of range for an integer"},
        // The next double below -2^63 is 2048 further down.
        {count, -9223372036854777856.0, "node 'a'",
         "node 'a': -9223372036854777856 is out of range for an integer"},
        {count, 1e300, "param 'count'", "param 'count': 1e+300 is out of range for an integer"},
        {count, std::nan(""), "param 'count'", "param 'count': nan is out of range for an integer"},
        {modeSpec(), std::string("Add"), "param 'mode'",
         "param 'mode': 'Add' is not one of its choices (multiply, add, mix)"},
        // A wrong kind is named by the param, whatever the context.
        {param("direction", Vec3f{0, 1, 0}), 1.0, "ignored",
         "param 'direction' takes vec3 and cannot take number"},
        {modeSpec(), true, "ignored", "param 'mode' takes choice and cannot take bool"},
        {param("label", std::string()), std::int64_t{4}, "ignored",
         "param 'label' takes text and cannot take integer"},
        {param("length", 1.0), std::string("1"), "ignored",
         "param 'length' takes number and cannot take text"},
        {count, Vec3f{}, "ignored", "param 'count' takes integer and cannot take vec3"},
        {param("on", false), Ramp{}, "ignored", "param 'on' takes bool and cannot take ramp"},
        {param("profile", Ramp{}), 0.5, "ignored",
         "param 'profile' takes ramp and cannot take number"},
        {param("length", 1.0), MapReference{}, "ignored",
         "param 'length' takes number and cannot take map"},
    };
    for (const auto& c : cases)
        expectError([&] { coerceParam(c.value, c.spec, c.context); }, c.message);
}

TEST(CoerceParam, AMapStandsInForAParamThatTakesAField) {
    MapReference map;
    map.source = MapSource::Attribute;
    map.text = "region";
    for (const ParamSpec& spec :
         {param("width", 1.0, false, "Width at the root. Scales the tip too (mappable)"),
          colorField(param("tint", Vec3f{1, 1, 1}))}) {
        EXPECT_EQ(coerceParam(map, spec, "x"), ParamValue(map)) << spec.name;
    }
}

TEST(ParamInputPort, FollowsTheFiveRulesInOrder) {
    const auto rule = [](ParamSpec spec, InputRule rule) {
        spec.inputRule = rule;
        return spec;
    };
    const struct {
        ParamSpec spec;
        std::optional<PortType> type;  // none: no input port
        ValueKind kind = ValueKind::Any;
    } cases[] = {
        {rule(param("count", std::int64_t{3}), InputRule::Never), std::nullopt},
        {rule(param("profile", Ramp{}), InputRule::AlwaysValue), std::nullopt},
        {rule(param("source", MapReference{}), InputRule::AlwaysValue), std::nullopt},
        // Rule 2 comes before the mappable rule.
        {rule(param("amount", 1.0, false, "How much (mappable)"), InputRule::AlwaysValue),
         PortType::Value, ValueKind::Number},
        {param("profile", Ramp{}), PortType::Curve},
        // "(mappable" in a later sentence still makes a Field port.
        {param("frizz", 0.2, false,
               "Random bends along the strand. Grows toward the tip (mappable, per point)"),
         PortType::Field},
        {colorField(param("color", Vec3f{1, 0, 0})), PortType::Field},
        {param("source", MapReference{}), PortType::Field},
        {modeSpec(), PortType::Value, ValueKind::Choice},
        {param("label", std::string()), PortType::Value, ValueKind::Text},
        {param("count", std::int64_t{1}), PortType::Value, ValueKind::Integer},
        {param("up", Vec3f{}), PortType::Value, ValueKind::Vec3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.spec.name);
        PortSpec port;
        ASSERT_EQ(paramInputPort(c.spec, port), c.type.has_value());
        if (!c.type) continue;
        EXPECT_EQ(port.type, *c.type);
        // The port is optional and named after the param.
        EXPECT_EQ(port.name, c.spec.name);
        EXPECT_TRUE(port.optional);
        if (port.type == PortType::Value) {
            EXPECT_EQ(port.valueKind, c.kind);
        }
    }
}

TEST(ParamDecimals, ComeFromUnitThenRangeThenDefault) {
    const auto unit = [](std::string name, std::optional<int> own = std::nullopt) {
        ParamSpec spec = param("x", 1000.0);
        spec.unit = std::move(name);
        spec.decimals = own;
        return spec;
    };
    const auto ranged = [](double min, double max) { return limited(param("x", 0.001), min, max); };
    const struct {
        ParamSpec spec;
        std::optional<int> decimals;
    } cases[] = {
        {param("count", std::int64_t{5000}), 0},
        {unit("pixels"), 0},
        {unit("angle"), 1},
        {unit("fraction"), 3},
        {unit("color"), 3},
        {unit("turns"), 2},
        {unit("seconds"), 2},
        {unit("angle", 5), 5},
        {ranged(0, 100), 1},
        {ranged(-5, 5), 2},
        {ranged(0, 0.1), 3},
        {ranged(0, 0.05), 4},
        {ranged(1, 1), 3},  // a range of 0 or less gives 3
        {limited(param("x", 20.0), 0.0, std::nullopt),
         2},  // one limit is no range: the default decides
        {param("x", 150.0), 1},
        {param("x", 0.05), 4},
        {param("x", 0.0), 3},
        {param("x", -500.0), 3},
        {param("offset", Vec3f{100, 0, 0}), 3},
        {param("on", true), std::nullopt},
        {modeSpec(), std::nullopt},
        {param("profile", Ramp{}), std::nullopt},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(paramDecimals(cases[i].spec), cases[i].decimals) << "case " << i;
}

// A small param table of the kind an operator declares.
ParamSet declaredSet() {
    ParamSet set;
    set.declare({limited(param("count", std::int64_t{4}), 0.5, 7.9),
                 limited(param("length", 2.0, false, "Length (mappable)"), 0.0, 10.0), modeSpec(),
                 param("on", true), colorField(param("tint", Vec3f{1, 0.5f, 0})),
                 param("profile", Ramp{{{0, 0, 0}, {1, 1, 0}}, true}),
                 param("length", 99.0)});  // a later duplicate is ignored
    return set;
}

TEST(ParamSet, GettersFallBackFromValuesToDefaultsToTheCallersFallback) {
    ParamSet set = declaredSet();
    EXPECT_EQ(set.getInt("count", -1), 4);
    EXPECT_EQ(set.getFloat("length", -1), 2.0);
    EXPECT_EQ(set.getString("mode", "?"), "multiply");
    EXPECT_TRUE(set.getBool("on", false));
    EXPECT_EQ(set.getVec3("tint", {}), (Vec3f{1, 0.5f, 0}));
    EXPECT_EQ(set.getRamp("profile", {}).keys.size(), 2u);
    EXPECT_EQ(set.getFloat("missing", 7.5), 7.5);

    // Another kind gives the fallback; strings are strict, floats take ints.
    EXPECT_EQ(set.getString("count", "?"), "?");
    EXPECT_FALSE(set.getBool("length", false));
    EXPECT_EQ(set.getFloat("count", -1), 4.0);

    set.set("length", std::int64_t{3});  // coerced to 3.0 on the way in
    EXPECT_EQ(set.checked("length"), ParamValue(3.0));
    // A value of another kind than the getter's, put in by hand, gives way to the default.
    set.values["count"] = 6.0;
    EXPECT_EQ(set.getInt("count", -1), 4);
}

TEST(ParamSet, NumbersAreClampedToTheHardLimits) {
    ParamSet set = declaredSet();
    // count within [0.5, 7.9]: ceil(0.5) and floor(7.9).
    for (const auto& [count, read] : {std::pair<std::int64_t, std::int64_t>{0, 1},
                                      {100, 7},
                                      {std::numeric_limits<std::int64_t>::min(), 1}}) {
        set.values["count"] = count;
        EXPECT_EQ(set.getInt("count", 0), read) << count;
    }
    for (const auto& [length, read] : {std::pair{12.5, 10.0}, {-0.25, 0.0}}) {
        set.set("length", length);
        EXPECT_EQ(set.getFloat("length", 0), read) << length;
    }
}

TEST(ParamSet, SetCoercesAndLeavesTheOldValueWhenItFails) {
    ParamSet set = declaredSet();
    set.set("mode", std::string("mix"));
    expectError([&] { set.set("mode", std::string("divide")); },
                "param 'mode': 'divide' is not one of its choices (multiply, add, mix)");
    EXPECT_EQ(set.getString("mode", "?"), "mix");

    set.set("count", 5.0);
    expectError([&] { set.set("count", 9223372036854775808.0); },
                "param 'count': 9223372036854775808 is out of range for an integer");
    EXPECT_EQ(set.getInt("count", 0), 5);
    set.set("count", -9223372036854775808.0);
    EXPECT_EQ(set.checked("count"), ParamValue(std::numeric_limits<std::int64_t>::min()));

    expectError([&] { set.set("tint", 1.0); }, "param 'tint' takes vec3 and cannot take number");
    expectError([&] { set.set("lenght", 1.0); }, "unknown parameter 'lenght'");
    EXPECT_FALSE(set.values.contains("lenght"));
}

TEST(ParamSet, CheckedAndHasKnowOnlyDeclaredOrSetNames) {
    ParamSet set = declaredSet();
    EXPECT_TRUE(set.has("profile"));
    EXPECT_FALSE(set.has("seed"));
    EXPECT_EQ(set.checked("on"), ParamValue(true));
    expectError([&] { set.checked("seed"); }, "unknown parameter 'seed'");
    EXPECT_EQ(set.spec("length")->defaultValue, ParamValue(2.0));  // the first declaration
    EXPECT_EQ(set.spec("seed"), nullptr);
    EXPECT_EQ(ParamSet().specs().size(), 0u);
}

TEST(ParamSet, FieldIsTheDeliveredFieldElseAConstantOfTheValue) {
    ParamSet set = declaredSet();
    DeliveredParams delivered;
    EvalContext ctx;
    ctx.delivered = &delivered;
    set.set("length", 4.0);
    EXPECT_EQ(paramField(set, ctx, "length")->atStrand(0), 4.0f);
    set.set("length", 40.0);
    EXPECT_EQ(paramField(set, ctx, "length")->atStrand(0), 10.0f);  // clamped like getFloat
    EXPECT_EQ(paramField(set, ctx, "on")->atStrand(0), 1.0f);
    EXPECT_TRUE(paramField(set, ctx, "tint")->isColor());
    EXPECT_EQ(paramField(set, ctx, "tint")->vectorAt(0), (Vec3f{1, 0.5f, 0}));

    MapReference map;
    map.text = "density";
    set.set("length", map);
    // A map unresolved reads as the default.
    EXPECT_EQ(paramField(set, ctx, "length")->atStrand(0), 2.0f);

    auto field = std::make_shared<ConstantFieldValue>(0.125f);
    delivered.fields["length"] = field;
    EXPECT_EQ(paramField(set, ctx, "length"), field);
    // Without the run's deliveries the params give their own value.
    EXPECT_EQ(paramField(set, EvalContext{}, "length")->atStrand(0), 2.0f);
    EXPECT_EQ(set.constantField("length")->atStrand(0), 2.0f);
}

TEST(ParamSet, ConnectedCurveReplacesTheRamp) {
    ParamSet set = declaredSet();
    auto curve = std::make_shared<Ramp>();
    curve->keys = {{0, 5, 0}};
    DeliveredParams delivered;
    delivered.curves["profile"] = curve;
    EvalContext ctx;
    ctx.delivered = &delivered;
    EXPECT_EQ(paramRamp(set, ctx, "profile", {}), *curve);
    EXPECT_NE(set.getRamp("profile", {}), *curve);
    EXPECT_EQ(paramRamp(set, EvalContext{}, "profile", {}), set.getRamp("profile", {}));
}

TEST(ParamSet, CopiesShareTablesButNotValues) {
    ParamSet original = declaredSet();
    ParamSet copy = original;
    copy.set("count", std::int64_t{2});
    EXPECT_EQ(original.getInt("count", 0), 4);
    EXPECT_EQ(copy.limits, original.limits);
    EXPECT_EQ(copy.defaults, original.defaults);
    EXPECT_EQ(&copy.specs(), &original.specs());
}

TEST(ParamSet, HashFollowsTheSetValues) {
    ParamSet a = declaredSet();
    ParamSet b = declaredSet();
    EXPECT_EQ(a.hash(), b.hash());
    a.set("length", 3.0);
    EXPECT_NE(a.hash(), b.hash());
    b.set("length", 3.0);
    EXPECT_EQ(a.hash(), b.hash());
    b.values["length"] = std::int64_t{3};  // the kind counts, not only the number
    EXPECT_NE(a.hash(), b.hash());

    ParamSet c = declaredSet();
    c.set("mode", std::string("add"));
    ParamSet d = declaredSet();
    d.set("mode", std::string("mix"));
    EXPECT_NE(c.hash(), d.hash());
}

TEST(ParamReadLog, NotesEachReadNameOnceInFirstReadOrder) {
    ParamSet set = declaredSet();
    set.readLog = std::make_shared<ParamReadLog>();
    set.getFloat("length", 0);
    set.getInt("count", 0);
    set.getFloat("length", 0);
    set.constantField("tint");
    set.getFloat("missing", 0);
    EXPECT_EQ(set.readLog->names(),
              (std::vector<std::string>{"length", "count", "tint", "missing"}));
}

TEST(ParamReadLog, TakesReadsFromManyThreads) {
    ParamSet set = declaredSet();
    set.readLog = std::make_shared<ParamReadLog>();
    const std::vector<std::string> names = {"count", "length", "mode", "on", "tint", "profile"};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&set, &names, t] {
            for (int round = 0; round < 200; ++round) {
                set.checked(names[(t + static_cast<std::size_t>(round)) % names.size()]);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    std::vector<std::string> read = set.readLog->names();
    std::sort(read.begin(), read.end());
    std::vector<std::string> expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(read, expected);
}

TEST(ParamKind, NamesAndValueKinds) {
    EXPECT_EQ(paramKindName(ParamKind::Int), "int");
    EXPECT_EQ(paramKindName(ParamKind::Float), "float");
    EXPECT_EQ(paramKindName(ParamKind::Ramp), "ramp");
    EXPECT_EQ(valueKindOf(modeSpec()), ValueKind::Choice);
    EXPECT_EQ(valueKindOf(param("label", std::string())), ValueKind::Text);
    EXPECT_EQ(valueKindOf(param("length", 1.0)), ValueKind::Number);
    EXPECT_EQ(valueKindOf(param("profile", Ramp{})), ValueKind::Any);
}

}  // namespace
}  // namespace velmorin
