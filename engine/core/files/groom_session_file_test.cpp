#include "files/groom_session_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "files/test/groom_fixtures.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;
using test::expectMessage;
using test::readBytes;

// A session with every input a groom file carries: the default graph on a plane, six
// guides of four points, a vertex map, parts, flow, a corrective and two sculpt layers that move
// the first guide, a collider, follow and a measured scale.
void groom(GroomSession& session) {
    const auto scalp = makeUvPlane(2.0f, 4);
    const GuideHierarchy hierarchy = test::scalpHierarchy(*scalp, 6, 4, 0, 3);
    const std::string id = std::to_string(hierarchy.guides().front().id);
    session.setGraph(defaultGraphJson());
    session.setScalp(scalp);
    session.setGuideData(hierarchy.toJson());
    ScalpMaps maps;
    maps.maps["density"] = {MapKind::Vertices, 1, test::mapValues(scalp->pointCount(), 1, 4), ""};
    maps.maps["color"] = {MapKind::Texture, 4, {}, "maps/color.png"};
    session.setScalpMaps(maps.toJson());
    session.setPartData(R"({"parts":[{"name":"crown","points":[[3,0.25,0.5]]}],"version":1})");
    session.setFlowData(R"({"pins":[{"face":[3,0.25,0.5],"dir":[0.1,0.0,-1.0]}],"version":1})");
    session.setCorrectiveData(R"({"layers":[{"name":"smile","offsets":{")" + id +
                              R"(":[0,0,0,0,0,0.1,0,0,0.2,0,0,0.3]}}],"version":1})");
    session.setSculptData(R"({"guides":{")" + id + R"(":[0,0,0,0.1,0,0,0.2,0,0,0.3,0,0]}})");
    session.setSculptData("shot", R"({"guides":{")" + id + R"(":[0,0,0,0,0.1,0,0,0,0,0,0,0]}})");
    session.setCollider("body", makeSphere(1.0f, 4, 6));
    session.setFollowScalp(true);
    session.setScaleMode(ScaleMode::Measured);
    session.setScaleReference(1.5);
}

TEST(GroomSessionFile, SavedSessionLoadsToTheSameStrandsAndBytes) {
    test::TempFolder folder("session-file");
    GroomSession original;
    groom(original);
    const auto frame = original.evaluate();
    ASSERT_TRUE(frame && frame->strands);
    ASSERT_GT(frame->strands->strandCount(), 0u);
    const std::string path = folder.file("hero.groom");
    saveGroom(original, path);

    GroomSession loaded;
    loadGroom(loaded, path);
    EXPECT_EQ(loaded.sculptLayers().size(), 2u);
    EXPECT_EQ(loaded.scaleMode(), ScaleMode::Measured);
    EXPECT_EQ(loaded.scaleReference(), 1.5);
    EXPECT_TRUE(loaded.followScalp());
    EXPECT_EQ(loaded.colliders().size(), 1u);
    const auto again = loaded.evaluate();
    ASSERT_TRUE(again && again->strands);
    EXPECT_EQ(again->strands->contentHash(), frame->strands->contentHash());
    EXPECT_EQ(again->strands->points().size(), frame->strands->points().size());
    EXPECT_TRUE(std::equal(again->strands->points().begin(), again->strands->points().end(),
                           frame->strands->points().begin()));
    EXPECT_EQ(groomContentHashes(groomFileOf(loaded)), groomContentHashes(groomFileOf(original)));

    // The posed guides go out beside the guide data, and a second save is the same file.
    const GroomFile file = readGroomFile(path);
    ASSERT_TRUE(file.guides);
    EXPECT_EQ(file.guides->size(), frame->guides->guides.size());
    const std::string second = folder.file("again.groom");
    saveGroom(loaded, second);
    EXPECT_EQ(readBytes(second), readBytes(path));
}

TEST(GroomSessionFile, LoadingReplacesWhatTheFileDoesNotHold) {
    GroomSession session;
    groom(session);
    GroomFile file = groomFileOf(session);
    file.colliders.clear();
    file.sculptLayers.clear();
    file.maps.clear();
    file.correctives.clear();
    file.scaleSource = ScaleSource::Off;
    applyGroomFile(session, file);
    EXPECT_TRUE(session.colliders().empty());
    EXPECT_EQ(session.sculptLayers().size(), 1u);
    EXPECT_EQ(session.scalpMapsText(), "");
    EXPECT_TRUE(session.correctiveLayers().empty());
    EXPECT_EQ(session.scaleMode(), ScaleMode::Off);
    // A groom without a graph keeps the session's.
    const std::string graph = session.graphJson();
    file.graph.clear();
    applyGroomFile(session, file);
    EXPECT_EQ(session.graphJson(), graph);
}

TEST(GroomSessionFile, RefusedFilesLeaveTheSessionAsItWas) {
    test::TempFolder folder("session-file");
    GroomSession source;
    groom(source);
    const std::string good = writeGroom(groomFileOf(source));
    Json doc = Json::parse(good);
    auto spoiled = [&](const std::function<void(Json&)>& spoil) {
        Json copy = doc;
        spoil(copy);
        return copy.dump();
    };
    // A fault of the text, of its data, and of what the session makes of it (the reader's other
    // messages are GroomFile.ReaderFaultsHaveTheirWordsAndGiveNothing's).
    const std::vector<std::pair<std::string, std::string>> cases = {
        {good.substr(0, good.find(",\"version\"") + 1),
         "groom file: invalid JSON: [json.exception.parse_error.101] parse error at line 1, "
         "column 28: syntax error while parsing object key - unexpected end of input; expected "
         "string literal"},
        {spoiled([](Json& d) { d["scalp"]["points"][4] = 1e39; }),
         "groom file: 'scalp.points' must hold numbers"},
        {spoiled([](Json& d) { d["graph"]["nodes"][0]["type"] = "Hairdo"; }),
         "groom file: graph: unknown operator type 'Hairdo'"},
        {spoiled([](Json& d) { d["correctives"] = Json::parse(R"({"layers":5})"); }),
         "groom file: correctiveData: corrective data: \"layers\" is not a list of layers"},
    };
    GroomSession session;
    groom(session);
    session.evaluate();
    const std::uint64_t edits = session.edits();
    const GroomFile before = groomFileOf(session);
    for (const auto& [text, message] : cases) {
        const std::string path = folder.write("bad.groom", text);
        try {
            loadGroom(session, path);
            ADD_FAILURE() << "loaded: " << message;
        } catch (const GroomFileError& error) {
            EXPECT_EQ(error.what(), message);
        }
        EXPECT_EQ(session.edits(), edits) << message;
        EXPECT_EQ(groomContentHashes(groomFileOf(session)), groomContentHashes(before)) << message;
    }
}

}  // namespace
}  // namespace velmorin
