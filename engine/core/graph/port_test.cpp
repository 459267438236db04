#include "graph/port.h"

#include <gtest/gtest.h>

#include "base/test/expect_message.h"
#include "graph/errors.h"

namespace velmorin {
namespace {

constexpr PortType kAllTypes[] = {PortType::Strands, PortType::Guides, PortType::Mesh,
                                  PortType::Field,   PortType::Curve,  PortType::Curves,
                                  PortType::Value};

TEST(PortType, NamesRoundTripAndUnknownsAreNamed) {
    for (PortType type : kAllTypes)
        EXPECT_EQ(parsePortType(portTypeName(type)), type);
    EXPECT_EQ(portTypeName(PortType::Curves), "Curves");
    EXPECT_EQ(portTypeName(static_cast<PortType>(7)), "Unknown");
    // Names are case-sensitive.
    test::expectMessage<GraphError>(
        [] { parsePortType("strands"); },
        "unknown port type 'strands' (Strands, Guides, Mesh, Field, Curve, Curves or Value)");
}

TEST(ValueKind, NamesRoundTripAndAnUnknownNameListsTheKinds) {
    for (std::uint32_t i = 0; i < 7; ++i) {
        const auto kind = static_cast<ValueKind>(i);
        EXPECT_EQ(parseValueKind(valueKindName(kind)), kind);
    }
    EXPECT_EQ(valueKindName(ValueKind::Choice), "choice");
    test::expectMessage<GraphError>(
        [] { parseValueKind("float"); },
        "unknown value kind 'float' (any, number, integer, bool, vec3, choice or text)");
}

TEST(PortType, ConnectionRuleAllowsExactlyTheListedPairs) {
    using P = PortType;
    const auto allowed = [](P from, P to) {
        if (from == to) return true;
        if (from == P::Value && to == P::Field) return true;
        if (to == P::Curves && (from == P::Strands || from == P::Guides)) return true;
        if (from == P::Curves && (to == P::Strands || to == P::Guides)) return true;
        return false;
    };
    int allowedCount = 0;
    for (P from : kAllTypes) {
        for (P to : kAllTypes) {
            EXPECT_EQ(canConnect(from, to), allowed(from, to))
                << portTypeName(from) << " -> " << portTypeName(to);
            allowedCount += canConnect(from, to);
        }
    }
    // 7 same-type pairs, Value -> Field, two into Curves, two out of Curves.
    EXPECT_EQ(allowedCount, 12);
}

}  // namespace
}  // namespace velmorin
