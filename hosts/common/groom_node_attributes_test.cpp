#include <gtest/gtest.h>

#include <set>
#include <string>

#include "common/groom_node_attributes.h"

namespace velmorin {
namespace {

TEST(GroomNodeAttributes, NamesAreUniqueAndPrefixed) {
    std::set<std::string_view> names;
    for (const NodeAttribute& attribute : groomNodeAttributes()) {
        EXPECT_TRUE(names.insert(attribute.longName).second) << attribute.longName;
        EXPECT_TRUE(names.insert(attribute.shortName).second) << attribute.shortName;
        EXPECT_TRUE(attribute.shortName.starts_with("vm")) << attribute.shortName;
        EXPECT_FALSE(attribute.meaning.empty()) << attribute.longName;
        // A child follows its compound, which must be in the table.
        if (!attribute.parent.empty()) {
            const NodeAttribute* parent = findGroomNodeAttribute(attribute.parent);
            ASSERT_NE(parent, nullptr) << attribute.longName;
            EXPECT_EQ(parent->type, AttributeType::Compound);
        }
        // An enum's default is one of its fields.
        if (attribute.type == AttributeType::Enum) {
            EXPECT_NE(attribute.enumFields.find("=" + std::string(attribute.defaultValue)),
                      std::string_view::npos)
                << attribute.longName;
        }
        // Outputs are computed, never saved.
        if (attribute.has(kOutput)) {
            EXPECT_TRUE(attribute.has(kNotStored)) << attribute.longName;
        }
    }
    EXPECT_EQ(names.size(), 2 * groomNodeAttributes().size());
}

TEST(GroomNodeAttributes, RowsThatSavedScenesAndTheNodeDependOn) {
    const auto attributes = groomNodeAttributes();
    EXPECT_EQ(attributes.front().longName, "inMesh");
    EXPECT_EQ(attributes.back().longName, "outFrame");

    // Saved scenes name attributes by their short names.
    EXPECT_EQ(findGroomNodeAttribute("previewPointBudget")->shortName, "vmppb");
    const NodeAttribute* scale = findGroomNodeAttribute("scaleSource");
    ASSERT_NE(scale, nullptr);
    EXPECT_EQ(scale->enumFields, "Surface Area=0:Transform Only=1:Off=2");
    EXPECT_TRUE(scale->has(kNoKey));

    const NodeAttribute* graph = findGroomNodeAttribute("graph");
    ASSERT_NE(graph, nullptr);
    EXPECT_EQ(graph->shortName, "vmgr");
    EXPECT_EQ(graph->defaultValue, "{}");
    EXPECT_FALSE(graph->has(kNotStored));

    const NodeAttribute* curves = findGroomNodeAttribute("guideCurves");
    ASSERT_NE(curves, nullptr);
    EXPECT_TRUE(curves->has(kNotReadable) && curves->has(kNotStored) && curves->has(kArray));
    EXPECT_EQ(findGroomNodeAttribute("colliderName")->parent, "colliderMeshes");
    EXPECT_EQ(findGroomNodeAttribute("nothing"), nullptr);
}

TEST(GroomNodeAttributes, DirtyClasses) {
    struct Case {
        const char* name;
        DirtyKind kind;
        bool syncFiles, strokeVersion, displayVersion;
    };
    const Case cases[] = {
        {"displayColor", DirtyKind::DisplayOnly, false, false, true},
        {"guideSelection", DirtyKind::DisplayOnly, false, false, true},
        {"time", DirtyKind::EvaluationInput, false, false, false},
        {"graph", DirtyKind::EvaluationInput, true, false, false},
        {"brushTick", DirtyKind::EvaluationInput, false, true, false},
        {"scalpMaps", DirtyKind::EvaluationInput, true, true, false},
        {"cardMaps", DirtyKind::EvaluationInput, true, false, true},
        {"displayCards", DirtyKind::EvaluationInput, false, false, true},
        {"groomFile", DirtyKind::Other, true, false, false},
        {"lodNear", DirtyKind::Other, false, false, false},
        {"locked", DirtyKind::Other, false, false, false},
    };
    for (const Case& c : cases) {
        const DirtyClass d = dirtyClassOf(c.name);
        EXPECT_EQ(d.kind, c.kind) << c.name;
        EXPECT_EQ(d.syncFiles, c.syncFiles) << c.name;
        EXPECT_EQ(d.strokeVersion, c.strokeVersion) << c.name;
        EXPECT_EQ(d.displayVersion, c.displayVersion) << c.name;
    }
}

TEST(GroomNodeAttributes, DependencyListsNameRealAttributes) {
    std::set<std::string_view> seen;
    for (const std::string_view name : evaluationInputs()) {
        EXPECT_NE(findGroomNodeAttribute(name), nullptr) << name;
        EXPECT_TRUE(seen.insert(name).second) << name;
        EXPECT_EQ(dirtyClassOf(name).kind, DirtyKind::EvaluationInput) << name;
    }
    for (const std::string_view name : evaluationOutputs()) {
        const NodeAttribute* output = findGroomNodeAttribute(name);
        ASSERT_NE(output, nullptr) << name;
        EXPECT_TRUE(output->has(kOutput)) << name;
    }
    for (const std::string_view name : scaleInputs())
        EXPECT_NE(findGroomNodeAttribute(name), nullptr) << name;
    // Nothing computed is an input.
    for (const NodeAttribute& attribute : groomNodeAttributes())
        if (attribute.has(kOutput)) {
            EXPECT_EQ(seen.count(attribute.longName), 0u) << attribute.longName;
        }
}

}  // namespace
}  // namespace velmorin
