#include "graph/params.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/eval_context.h"
#include "graph/field_value.h"

namespace velmorin {
namespace {

ParamSpec makeSpec(std::string name, ParamValue defaultValue) {
    ParamSpec spec;
    spec.name = std::move(name);
    spec.defaultValue = std::move(defaultValue);
    return spec;
}

// The message of the GraphError that `action` throws, or a note that it threw none.
template <class Action>
std::string graphErrorOf(Action&& action) {
    try {
        action();
    } catch (const GraphError& error) {
        return error.what();
    }
    return "(no error)";
}

ParamSpec modeSpec() {
    ParamSpec mode = makeSpec("mode", std::string("multiply"));
    mode.choices = {"multiply", "add", "mix"};
    return mode;
}

TEST(CoerceParam, NumbersWidenAndNarrowByTheParamsKind) {
    const ParamSpec length = makeSpec("length", 1.0);
    EXPECT_EQ(coerceParam(std::int64_t{3}, length, "x"), ParamValue(3.0));
    EXPECT_EQ(coerceParam(true, length, "x"), ParamValue(1.0));

    const ParamSpec count = makeSpec("count", std::int64_t{10});
    EXPECT_EQ(coerceParam(2.4, count, "x"), ParamValue(std::int64_t{2}));
    EXPECT_EQ(coerceParam(2.6, count, "x"), ParamValue(std::int64_t{3}));
    EXPECT_EQ(coerceParam(-2.6, count, "x"), ParamValue(std::int64_t{-3}));
    EXPECT_EQ(coerceParam(false, count, "x"), ParamValue(std::int64_t{0}));

    const ParamSpec on = makeSpec("on", false);
    EXPECT_EQ(coerceParam(-3.0, on, "x"), ParamValue(true));
    EXPECT_EQ(coerceParam(std::int64_t{0}, on, "x"), ParamValue(false));
}

TEST(CoerceParam, IntegerRangeIsThatOfASigned64BitInteger) {
    const ParamSpec count = makeSpec("count", std::int64_t{10});
    EXPECT_EQ(graphErrorOf([&] { coerceParam(9223372036854775808.0, count, "param 'count'"); }),
              "param 'count': 9223372036854775808 is out of range for an integer");
    EXPECT_EQ(coerceParam(-9223372036854775808.0, count, "x"),
              ParamValue(std::numeric_limits<std::int64_t>::min()));
    // The next double below -2^63 is 2048 further down.
    EXPECT_EQ(graphErrorOf([&] { coerceParam(-9223372036854777856.0, count, "node 'a'"); }),
              "node 'a': -9223372036854777856 is out of range for an integer");
    EXPECT_EQ(graphErrorOf([&] { coerceParam(1e300, count, "param 'count'"); }),
              "param 'count': 1e+300 is out of range for an integer");
    EXPECT_EQ(graphErrorOf([&] { coerceParam(std::nan(""), count, "param 'count'"); }),
              "param 'count': nan is out of range for an integer");
}

TEST(CoerceParam, ChoicesNameTheValueAndTheList) {
    const ParamSpec mode = modeSpec();
    EXPECT_EQ(coerceParam(std::string("add"), mode, "x"), ParamValue(std::string("add")));
    EXPECT_EQ(graphErrorOf([&] { coerceParam(std::string("Add"), mode, "param 'mode'"); }),
              "param 'mode': 'Add' is not one of its choices (multiply, add, mix)");
    // Without choices any text goes.
    EXPECT_EQ(coerceParam(std::string("Add"), makeSpec("label", std::string()), "x"),
              ParamValue(std::string("Add")));
}

TEST(CoerceParam, AWrongKindNamesWhatTheParamTakesAndWhatItGot) {
    const auto message = [](const ParamSpec& spec, const ParamValue& value) {
        return graphErrorOf([&] { coerceParam(value, spec, "ignored"); });
    };
    EXPECT_EQ(message(makeSpec("direction", Vec3f{0, 1, 0}), 1.0),
              "param 'direction' takes vec3 and cannot take number");
    EXPECT_EQ(message(modeSpec(), true), "param 'mode' takes choice and cannot take bool");
    EXPECT_EQ(message(makeSpec("label", std::string()), std::int64_t{4}),
              "param 'label' takes text and cannot take integer");
    EXPECT_EQ(message(makeSpec("length", 1.0), std::string("1")),
              "param 'length' takes number and cannot take text");
    EXPECT_EQ(message(makeSpec("count", std::int64_t{1}), Vec3f{}),
              "param 'count' takes integer and cannot take vec3");
    EXPECT_EQ(message(makeSpec("on", false), Ramp{}), "param 'on' takes bool and cannot take ramp");
    EXPECT_EQ(message(makeSpec("profile", Ramp{}), 0.5),
              "param 'profile' takes ramp and cannot take number");
    EXPECT_EQ(message(makeSpec("length", 1.0), MapReference{}),
              "param 'length' takes number and cannot take map");
}

TEST(CoerceParam, AMapStandsInForAParamThatTakesAField) {
    ParamSpec width = makeSpec("width", 1.0);
    width.description = "Width at the root. Scales the tip too (mappable)";
    MapReference map;
    map.source = MapSource::Attribute;
    map.text = "region";
    EXPECT_EQ(coerceParam(map, width, "x"), ParamValue(map));
    ParamSpec tint = makeSpec("tint", Vec3f{1, 1, 1});
    tint.colorField = true;
    EXPECT_EQ(coerceParam(map, tint, "x"), ParamValue(map));
}

TEST(ParamInputPort, FollowsTheFiveRulesInOrder) {
    PortSpec port;
    ParamSpec never = makeSpec("count", std::int64_t{3});
    never.inputRule = InputRule::Never;
    EXPECT_FALSE(paramInputPort(never, port));

    ParamSpec valueRamp = makeSpec("profile", Ramp{});
    valueRamp.inputRule = InputRule::AlwaysValue;
    EXPECT_FALSE(paramInputPort(valueRamp, port));
    ParamSpec valueMap = makeSpec("source", MapReference{});
    valueMap.inputRule = InputRule::AlwaysValue;
    EXPECT_FALSE(paramInputPort(valueMap, port));

    // Rule 2 comes before the mappable rule.
    ParamSpec forcedValue = makeSpec("amount", 1.0);
    forcedValue.description = "How much (mappable)";
    forcedValue.inputRule = InputRule::AlwaysValue;
    ASSERT_TRUE(paramInputPort(forcedValue, port));
    EXPECT_EQ(port.type, PortType::Value);
    EXPECT_EQ(port.valueKind, ValueKind::Number);
    EXPECT_EQ(port.name, "amount");
    EXPECT_TRUE(port.optional);

    ASSERT_TRUE(paramInputPort(makeSpec("profile", Ramp{}), port));
    EXPECT_EQ(port.type, PortType::Curve);

    // "(mappable" in a later sentence still makes a Field port.
    ParamSpec later = makeSpec("frizz", 0.2);
    later.description = "Random bends along the strand. Grows toward the tip (mappable, per point)";
    ASSERT_TRUE(paramInputPort(later, port));
    EXPECT_EQ(port.type, PortType::Field);
    EXPECT_EQ(port.name, "frizz");
    ParamSpec color = makeSpec("color", Vec3f{1, 0, 0});
    color.colorField = true;
    ASSERT_TRUE(paramInputPort(color, port));
    EXPECT_EQ(port.type, PortType::Field);
    ASSERT_TRUE(paramInputPort(makeSpec("source", MapReference{}), port));
    EXPECT_EQ(port.type, PortType::Field);

    ASSERT_TRUE(paramInputPort(modeSpec(), port));
    EXPECT_EQ(port.type, PortType::Value);
    EXPECT_EQ(port.valueKind, ValueKind::Choice);
    ASSERT_TRUE(paramInputPort(makeSpec("label", std::string()), port));
    EXPECT_EQ(port.valueKind, ValueKind::Text);
    ASSERT_TRUE(paramInputPort(makeSpec("count", std::int64_t{1}), port));
    EXPECT_EQ(port.valueKind, ValueKind::Integer);
    ASSERT_TRUE(paramInputPort(makeSpec("up", Vec3f{}), port));
    EXPECT_EQ(port.valueKind, ValueKind::Vec3);
}

TEST(ParamDecimals, ComeFromUnitThenRangeThenDefault) {
    const auto decimals = [](ParamSpec spec) { return paramDecimals(spec); };
    const auto withUnit = [](std::string unit) {
        ParamSpec spec = makeSpec("x", 1000.0);
        spec.unit = std::move(unit);
        return spec;
    };
    EXPECT_EQ(decimals(makeSpec("count", std::int64_t{5000})), 0);
    EXPECT_EQ(decimals(withUnit("pixels")), 0);
    EXPECT_EQ(decimals(withUnit("angle")), 1);
    EXPECT_EQ(decimals(withUnit("fraction")), 3);
    EXPECT_EQ(decimals(withUnit("color")), 3);
    EXPECT_EQ(decimals(withUnit("turns")), 2);
    EXPECT_EQ(decimals(withUnit("seconds")), 2);
    ParamSpec own = withUnit("angle");
    own.decimals = 5;
    EXPECT_EQ(decimals(own), 5);

    const auto ranged = [](double min, double max) {
        ParamSpec spec = makeSpec("x", 0.001);
        spec.min = min;
        spec.max = max;
        return spec;
    };
    EXPECT_EQ(decimals(ranged(0, 100)), 1);
    EXPECT_EQ(decimals(ranged(-5, 5)), 2);
    EXPECT_EQ(decimals(ranged(0, 0.1)), 3);
    EXPECT_EQ(decimals(ranged(0, 0.05)), 4);
    EXPECT_EQ(decimals(ranged(1, 1)), 3);  // a range of 0 or less gives 3

    ParamSpec minOnly = makeSpec("x", 20.0);
    minOnly.min = 0.0;
    EXPECT_EQ(decimals(minOnly), 2);  // one limit is no range: the default decides
    EXPECT_EQ(decimals(makeSpec("x", 150.0)), 1);
    EXPECT_EQ(decimals(makeSpec("x", 0.05)), 4);
    EXPECT_EQ(decimals(makeSpec("x", 0.0)), 3);
    EXPECT_EQ(decimals(makeSpec("x", -500.0)), 3);
    EXPECT_EQ(decimals(makeSpec("offset", Vec3f{100, 0, 0})), 3);

    EXPECT_EQ(decimals(makeSpec("on", true)), std::nullopt);
    EXPECT_EQ(decimals(modeSpec()), std::nullopt);
    EXPECT_EQ(decimals(makeSpec("profile", Ramp{})), std::nullopt);
}

// A small param table of the kind an operator declares.
ParamSet declaredSet() {
    ParamSpec count = makeSpec("count", std::int64_t{4});
    count.min = 0.5;
    count.max = 7.9;
    ParamSpec length = makeSpec("length", 2.0);
    length.min = 0.0;
    length.max = 10.0;
    length.description = "Length (mappable)";
    ParamSpec tint = makeSpec("tint", Vec3f{1, 0.5f, 0});
    tint.colorField = true;
    ParamSet set;
    set.declare({count, length, modeSpec(), makeSpec("on", true), tint,
                 makeSpec("profile", Ramp{{{0, 0, 0}, {1, 1, 0}}, true}),
                 makeSpec("length", 99.0)});  // a later duplicate is ignored
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
    set.values["count"] = std::int64_t{0};
    EXPECT_EQ(set.getInt("count", 0), 1);  // ceil(0.5)
    set.values["count"] = std::int64_t{100};
    EXPECT_EQ(set.getInt("count", 0), 7);  // floor(7.9)
    set.values["count"] = std::numeric_limits<std::int64_t>::min();
    EXPECT_EQ(set.getInt("count", 0), 1);
    set.set("length", 12.5);
    EXPECT_EQ(set.getFloat("length", 0), 10.0);
    set.set("length", -0.25);
    EXPECT_EQ(set.getFloat("length", 0), 0.0);
}

TEST(ParamSet, SetCoercesAndLeavesTheOldValueWhenItFails) {
    ParamSet set = declaredSet();
    set.set("mode", std::string("mix"));
    EXPECT_EQ(graphErrorOf([&] { set.set("mode", std::string("divide")); }),
              "param 'mode': 'divide' is not one of its choices (multiply, add, mix)");
    EXPECT_EQ(set.getString("mode", "?"), "mix");

    set.set("count", 5.0);
    EXPECT_EQ(graphErrorOf([&] { set.set("count", 9223372036854775808.0); }),
              "param 'count': 9223372036854775808 is out of range for an integer");
    EXPECT_EQ(set.getInt("count", 0), 5);
    set.set("count", -9223372036854775808.0);
    EXPECT_EQ(set.checked("count"), ParamValue(std::numeric_limits<std::int64_t>::min()));

    EXPECT_EQ(graphErrorOf([&] { set.set("tint", 1.0); }),
              "param 'tint' takes vec3 and cannot take number");
    EXPECT_EQ(graphErrorOf([&] { set.set("lenght", 1.0); }), "unknown parameter 'lenght'");
    EXPECT_FALSE(set.values.contains("lenght"));
}

TEST(ParamSet, CheckedAndHasKnowOnlyDeclaredOrSetNames) {
    ParamSet set = declaredSet();
    EXPECT_TRUE(set.has("profile"));
    EXPECT_FALSE(set.has("seed"));
    EXPECT_EQ(set.checked("on"), ParamValue(true));
    EXPECT_EQ(graphErrorOf([&] { set.checked("seed"); }), "unknown parameter 'seed'");
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
    EXPECT_EQ(valueKindOf(makeSpec("label", std::string())), ValueKind::Text);
    EXPECT_EQ(valueKindOf(makeSpec("length", 1.0)), ValueKind::Number);
    EXPECT_EQ(valueKindOf(makeSpec("profile", Ramp{})), ValueKind::Any);
}

}  // namespace
}  // namespace velmorin
