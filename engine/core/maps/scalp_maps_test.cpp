#include "maps/scalp_maps.h"

#include <gtest/gtest.h>

#include "base/document.h"
#include "base/test/expect_message.h"
#include "maps/texture.h"
#include "mesh/sample_meshes.h"

namespace velmorin {
namespace {

TEST(ScalpMaps, ReadsAndWritesEveryKindOfMap) {
    ScalpMaps maps;
    maps.maps["density"] = {MapKind::Vertices, 1, {0.1f, 0.5f, 1.0f}, ""};
    maps.maps["tint"] = {MapKind::Vertices, 4, {0.1f, 0.2f, 0.3f, 1.0f}, ""};
    maps.maps["length"] = {MapKind::Texture, 1, {}, "maps/length.png"};
    maps.maps["color"] = {MapKind::Texture, 4, {}, ""};
    const std::string text = maps.toJson();
    EXPECT_EQ(text,
              R"({"color":{"kind":"texture","channels":4,"texture":""},)"
              R"("density":{"kind":"vertices","values":[0.1,0.5,1.0]},)"
              R"("length":{"kind":"texture","texture":"maps/length.png"},)"
              R"("tint":{"kind":"vertices","channels":4,"values":[0.1,0.2,0.3,1.0]},"version":1})");
    EXPECT_EQ(ScalpMaps::fromJson(text), maps);
    EXPECT_EQ(ScalpMaps::fromJson(""), ScalpMaps{});
    // "kind" defaults to vertices, and a map may be called "version".
    const ScalpMaps odd = ScalpMaps::fromJson(R"({"version":{"values":[1]},"a":{}})");
    EXPECT_EQ(odd.find("version")->values, std::vector<float>{1});
    EXPECT_EQ(odd.find("a")->kind, MapKind::Vertices);
    EXPECT_EQ(ScalpMaps::fromJson(odd.toJson()), odd);
    EXPECT_EQ(
        maps.describe().dump(),
        R"([{"name":"color","kind":"texture","channels":4},{"name":"density","kind":"vertices","channels":1},)"
        R"({"name":"length","kind":"texture","channels":1},{"name":"tint","kind":"vertices","channels":4}])");
}

TEST(ScalpMaps, RefusesMalformedTextWithItsMessage) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"[1]", "scalpMaps: expected an object of maps"},
        {R"({"a":3})", "scalpMaps: map 'a' is not an object"},
        {R"({"a":{"kind":"guides"}})", "scalpMaps: map 'a' has unknown kind 'guides'"},
        {R"({"a":{"kind":7}})", "scalpMaps: map 'a' has unknown kind '7'"},
        {R"({"a":{"channels":2}})", "scalpMaps: map 'a' has 2 channels (1 or 4)"},
        {R"({"a":{"channels":"4"}})", "scalpMaps: map 'a' has \"4\" channels (1 or 4)"},
        {R"({"a":{"values":[1,"x"]}})",
         "scalpMaps: map 'a' has values that are not a flat list of numbers"},
        {R"({"a":{"values":[1e300]}})",
         "scalpMaps: map 'a' has values that are not a flat list of numbers"},
        {R"({"a":{"channels":4,"values":[1,2]}})",
         "scalpMaps: map 'a' has 2 values, which are not whole vertices of 4 channels"},
        {R"({"a":{"kind":"texture","texture":3}})",
         "scalpMaps: map 'a' has a texture that is not a file path"},
        {R"({"version":2})",
         "scalp maps is of version 2, newer than this Velmorin reads: update Velmorin"},
    };
    for (const auto& c : cases) {
        try {
            ScalpMaps::fromJson(c.text);
            ADD_FAILURE() << c.text;
        } catch (const SchemaError& e) {
            EXPECT_STREQ(e.what(), c.message);
        }
    }
    try {
        ScalpMaps::fromJson("{");
        ADD_FAILURE();
    } catch (const SchemaError& e) {
        EXPECT_EQ(std::string(e.what()).rfind("scalpMaps: invalid JSON: ", 0), 0u);
    }
}

TEST(ScalpMaps, AVertexMapFitsOnlyAScalpOfItsVertexCount) {
    const auto plane = makeUvPlane(1.0f, 2);  // 9 vertices
    const ScalpMap fits{MapKind::Vertices, 4, std::vector<float>(36), ""};
    const ScalpMap other{MapKind::Vertices, 4, std::vector<float>(16), ""};
    EXPECT_NO_THROW(checkMapFitsScalp("tint", fits, *plane));
    EXPECT_NO_THROW(checkMapFitsScalp("tex", {MapKind::Texture, 1, {}, "a.png"}, *plane));
    test::expectMessage<TextureError>(
        [&] { checkMapFitsScalp("tint", other, *plane); },
        "map 'tint' was painted on a scalp with 4 vertices; this one has 9 (convert it to a "
        "texture or guide layer on the old scalp, or fill it anew)");
}

}  // namespace
}  // namespace velmorin
