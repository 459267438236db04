#include "files/groom_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include <nlohmann/json.hpp>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "files/json_scan.h"
#include "files/loaded_groom.h"
#include "files/test/groom_fixtures.h"

namespace velmorin {
namespace {

using Json = nlohmann::ordered_json;
using test::expectMessage;
using test::readBytes;
using test::writeBytes;

const GroomFile& sample() {
    static const GroomFile file = test::sampleGroom();
    return file;
}

const std::string& sampleText() {
    static const std::string text = writeGroom(sample());
    return text;
}

// The sample's text with one top-level key replaced (or removed, for a discarded value).
std::string withKey(const std::string& key, const Json& value) {
    Json doc = Json::parse(sampleText());
    if (value.is_discarded()) {
        doc.erase(key);
    } else {
        doc[key] = value;
    }
    return doc.dump();
}

TEST(GroomFile, RoundTripKeepsEveryPieceAndSavesTheSameBytes) {
    const auto before = groomContentHashes(sample());
    const GroomFile read = parseGroom(sampleText());
    EXPECT_EQ(groomContentHashes(read), before);
    EXPECT_EQ(writeGroom(read), sampleText());

    // Each piece holds something, so that a piece the reader dropped would show.
    const auto empty = groomContentHashes(GroomFile{});
    for (const auto& [piece, hash] : before) {
        if (piece == "settings") continue;
        EXPECT_NE(hash, empty.at(piece)) << piece;
    }
    // The meshes come back whole, not only by signature.
    EXPECT_EQ(read.scalp->points(), sample().scalp->points());
    EXPECT_EQ(read.scalp->restPoints(), sample().scalp->restPoints());
    EXPECT_EQ(read.scalp->uvs(), sample().scalp->uvs());
    EXPECT_EQ(read.scalp->colorSets(), sample().scalp->colorSets());
    EXPECT_EQ(read.maps, sample().maps);
    EXPECT_EQ(*read.guides, *sample().guides);
    EXPECT_EQ(read.simCaches, sample().simCaches);
    EXPECT_EQ(read.transferMarkers, sample().transferMarkers);
    EXPECT_EQ(read.prototypes, sample().prototypes);
}

TEST(GroomFile, TextTheFastScannerLeavesToTheLibraryReadsAlike) {
    // Nesting deeper than the scanner goes, in a key the reader does not know: the JSON library
    // reads the file, to the same groom (its payload texts spelled the library's way).
    Json doc = Json::parse(sampleText());
    Json deep = Json::array();
    for (int i = 0; i < 300; ++i)
        deep = Json::array({deep});
    doc["unknown"] = deep;
    const GroomFile slow = parseGroom(doc.dump());
    EXPECT_EQ(groomContentHashes(slow), groomContentHashes(sample()));
    EXPECT_EQ(groomContentHashes(parseGroom(writeGroom(slow))), groomContentHashes(sample()));
    // Blanks between the tokens change nothing, down to the bytes written again.
    std::string spaced;
    bool inString = false;
    for (std::size_t i = 0; i < sampleText().size(); ++i) {
        const char c = sampleText()[i];
        spaced += c;
        if (inString) {
            if (c == '\\') spaced += sampleText()[++i];
            if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == ',' || c == ':' || c == '{' || c == '[') {
            spaced += "\n  ";
        }
    }
    const GroomFile pretty = parseGroom(spaced);
    EXPECT_EQ(groomContentHashes(pretty), groomContentHashes(sample()));
    EXPECT_TRUE(writeGroom(pretty) == sampleText());
}

TEST(GroomFile, LargeGroomReadsAndWritesAlikeAtOneAndTwoThreads) {
    const GroomFile large = test::sampleGroom(3, 300);
    const std::string text = writeGroom(large);
    ASSERT_GT(text.size(), detail::kMembersInParallelAbove);
    for (int threads : {1, 2}) {
        GroomFile read;
        std::string written;
        runWithThreads(threads, [&] {
            read = parseGroom(text);
            written = writeGroom(large);
        });
        EXPECT_EQ(groomContentHashes(read), groomContentHashes(large));
        EXPECT_TRUE(writeGroom(read) == text);
        EXPECT_TRUE(written == text);
    }
}

TEST(GroomFile, EmptyGroomWritesOnlyTheRequiredKeys) {
    EXPECT_EQ(writeGroom(GroomFile{}),
              R"({"format":"velmorin.groom","version":1,"framesPerSecond":0.0,"units":"cm",)"
              R"("upAxis":"Y","source":"","graph":{},"scalp":{}})");
}

TEST(GroomFile, LayoutOfSectionsAndFloatBlocks) {
    const Json doc = Json::parse(sampleText());
    std::string keys;
    for (const auto& [key, value] : doc.items())
        keys += (keys.empty() ? "" : " ") + key;
    EXPECT_EQ(keys,
              "format version framesPerSecond units upAxis source graph hierarchy parts "
              "correctives flow sculpts sculptLayers controls maps scalp scalps guides scalpCache "
              "guideCache searchPaths followScalp scaleSource scaleReference "
              "scaleTransformReference cardBake simCaches prototypes colliders transferMarkers "
              "referencePhotos guideGroupColors hiddenGuideGroups");
    EXPECT_EQ(sampleText().find(kFloatBlockPrefix), std::string::npos);
    EXPECT_TRUE(doc["graph"].is_object());
    EXPECT_TRUE(doc["hierarchy"].is_object());
    EXPECT_EQ(doc["scalp"]["topology"], std::to_string(sample().scalp->topologySignature()));
    EXPECT_EQ(doc["scalp"]["points"].size(), sample().scalp->pointCount() * 3);
    EXPECT_EQ(doc["scalp"]["colorSets"]["paint"].size(), sample().scalp->triangleCount() * 12);
    EXPECT_EQ(doc["scalps"][1]["name"], "brows");
    EXPECT_EQ(doc["maps"]["clumps"],
              Json::parse(R"({"kind":"texture","texture":"maps/clumps.png"})"));
    EXPECT_EQ(doc["maps"]["color"]["channels"], 4);
    EXPECT_EQ(doc["scaleSource"], "transformOnly");
    EXPECT_EQ(doc["simCaches"]["9"]["stamp"], "18446744073709551615");
    EXPECT_EQ(doc["transferMarkers"],
              Json::parse(R"([[{"face":[5,0.25,0.25]},{"point":[0.5,1.5,-0.25]}]])"));
    EXPECT_EQ(doc["guideCache"], Json::parse(R"({"file":"caches/guides.abc"})"));
}

TEST(GroomFile, FloatsReadBackBitForBit) {
    const std::vector<float> values = {
        -0.0f,         0.0f,           1e-45f, std::numeric_limits<float>::min(),
        3.4028235e38f, -3.4028235e38f, 0.1f,   1.0f / 3.0f,
        -1.5f,         16777217.0f};
    GroomFile file;
    std::vector<Vec3f> points;
    for (float v : values)
        points.push_back({v, -v, v * 0.5f});
    file.scalp = std::make_shared<ScalpMesh>(points, std::vector<Triangle>{});
    const std::string text = writeGroom(file);
    EXPECT_NE(text.find(R"("points":[-0.0,0,-0.0,0,-0.0,0,1e-45,)"), std::string::npos) << text;
    const GroomFile read = parseGroom(text);
    ASSERT_EQ(read.scalp->pointCount(), points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const Vec3f& a = points[i];
        const Vec3f& b = read.scalp->points()[i];
        EXPECT_EQ(floatBits(a.x), floatBits(b.x)) << values[i];
        EXPECT_EQ(floatBits(a.y), floatBits(b.y)) << values[i];
        EXPECT_EQ(floatBits(a.z), floatBits(b.z)) << values[i];
    }
}

TEST(GroomFile, SaveReplacesTheOldFileAndNonFiniteValuesFailItWithTheirPlace) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Case {
        std::function<void(GroomFile&)> spoil;
        std::string message;
    };
    const std::vector<Case> cases = {
        {[&](GroomFile& f) {
             auto mesh = std::make_shared<ScalpMesh>(*f.scalp);
             auto points = mesh->points();
             points[1].y = nan;
             mesh->setPoints(points);
             f.scalp = mesh;
         },
         "groom file: 'scalp.points' holds a non-finite value at index 4"},
        {[&](GroomFile& f) {
             auto mesh = std::make_shared<ScalpMesh>(*f.scalps[0].mesh);
             auto uvs = mesh->uvs();
             uvs[2].v = -inf;
             mesh->setUvs(uvs);
             f.scalps[0].mesh = mesh;
         },
         "groom file: 'scalps.beard.uvs' holds a non-finite value at index 5"},
        {[&](GroomFile& f) { f.maps["tint"].values[6] = inf; },
         "groom file: 'maps.tint.values' holds a non-finite value at index 6"},
        {[&](GroomFile& f) {
             auto guides = std::make_shared<std::vector<ExportedGuide>>(*f.guides);
             (*guides)[3].points[2].z = nan;
             f.guides = guides;
         },
         "groom file: 'guides.points' holds a non-finite value at index 8"},
        {[&](GroomFile& f) { f.prototypes["leaf"].normals[0].x = nan; },
         "groom file: 'prototypes.normals' holds a non-finite value at index 0"},
    };
    // A good save replaces an older file; a refused one leaves the good one.
    test::TempFolder folder("groom");
    const std::string path = folder.file("hero.groom");
    writeBytes(path, "an older groom");
    saveGroomFile(path, sample());
    for (const Case& c : cases) {
        GroomFile file = sample();
        c.spoil(file);
        expectMessage<GroomFileError>([&] { saveGroomFile(path, file); }, c.message);
    }
    EXPECT_EQ(readBytes(path), sampleText());
    EXPECT_EQ(groomContentHashes(readGroomFile(path)), groomContentHashes(sample()));
    EXPECT_EQ(folder.entries(), 1u);
}

TEST(GroomFile, InterruptedSaveLeavesTheOldFileAsItWas) {
    test::TempFolder folder("groom");
    const std::string path = folder.file("hero.groom");
    const std::string old = "{\"an\":\"older groom\"}";
    writeBytes(path, old);
    GroomFile bigger = test::sampleGroom(2, 200);
    detail::setGroomSaveLimitForTests(sampleText().size() / 2);
    expectMessage<GroomFileError>([&] { saveGroomFile(path, bigger); },
                                  "cannot write '" + path + "'");
    detail::setGroomSaveLimitForTests(detail::kNoSaveLimit);
    EXPECT_EQ(readBytes(path), old);
    EXPECT_EQ(folder.entries(), 1u);

    // A target that can't be replaced: the rename fails with the system's words.
    const std::filesystem::path taken = folder / "taken.groom";
    std::filesystem::create_directories(taken / "inside");
    try {
        saveGroomFile(taken.string(), sample());
        ADD_FAILURE() << "saved over a folder";
    } catch (const GroomFileError& error) {
        EXPECT_EQ(std::string(error.what()).rfind("cannot write '" + taken.string() + "': ", 0), 0u)
            << error.what();
    }
    EXPECT_FALSE(std::filesystem::exists(taken.string() + ".tmp"));
    // A folder that does not exist: nothing is written anywhere.
    const std::string nowhere = (folder / "missing" / "hero.groom").string();
    expectMessage<GroomFileError>([&] { saveGroomFile(nowhere, sample()); },
                                  "cannot write '" + nowhere + "'");
    expectMessage<GroomFileError>([&] { readGroomFile(nowhere); }, "cannot read '" + nowhere + "'");
}

TEST(GroomFile, ReaderFaultsHaveTheirWordsAndGiveNothing) {
    const std::string text = sampleText();
    auto scalpWith = [](const std::string& key, const Json& value) {
        Json scalp = Json::parse(sampleText())["scalp"];
        if (value.is_discarded()) {
            scalp.erase(key);
        } else {
            scalp[key] = value;
        }
        return withKey("scalp", scalp);
    };
    const Json gone = Json(Json::value_t::discarded);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {text.substr(0, text.find(",\"version\"") + 1),
         "groom file: invalid JSON: [json.exception.parse_error.101] parse error at line 1, "
         "column 28: syntax error while parsing object key - unexpected end of input; expected "
         "string literal"},
        {withKey("version", 2),
         "groom file is of version 2, newer than this Velmorin reads: update Velmorin"},
        {withKey("format", "something"), "not a Velmorin groom file"},
        {withKey("format", gone), "not a Velmorin groom file"},
        {"[1,2]", "not a Velmorin groom file"},
        {withKey("upAxis", "X"), R"(groom file: upAxis is "Y" or "Z", not "X")"},
        {scalpWith("points", gone), "groom file: 'scalp.points' must be an array of 3-tuples"},
        {scalpWith("points", Json::array({0, 1})),
         "groom file: 'scalp.points' must be an array of 3-tuples"},
        {scalpWith("points", Json::parse("[0,1,1e39]")),
         "groom file: 'scalp.points' must hold numbers"},
        {scalpWith("points", Json::parse(R"([0,1,"2"])")),
         "groom file: 'scalp.points' must hold numbers"},
        {scalpWith("triangles", gone), "groom file: bad scalp.triangles"},
        {scalpWith("triangles", Json::array({1, 2})), "groom file: bad scalp.triangles"},
        {scalpWith("triangles", Json::array({0, 1, 1000000})), "groom file: bad scalp.triangles"},
        {scalpWith("polygons", Json::array({2})),
         "groom file: bad scalp.polygons: ScalpMesh: the polygons' triangles (2) are not the "
         "mesh's (" +
             std::to_string(sample().scalp->triangleCount()) + ")"},
        {scalpWith("uvs", Json::array({0.5, 0.5})),
         "groom file: bad scalp.uvs: ScalpMesh: expected one UV per triangle corner"},
        {scalpWith("colorSets", Json::parse(R"({"paint":[1,1,1,1]})")),
         "groom file: bad scalp.colorSets.paint: ScalpMesh: expected one color per triangle "
         "corner"},
        {scalpWith("restPoints", Json::array({1, 2, 3})),
         "groom file: bad scalp.restPoints: ScalpMesh: rest points must match the mesh's point "
         "count"},
        {withKey("scalps", Json::parse(R"([{"name":"","points":[],"triangles":[]}])")),
         "groom file: bad scalps name ''"},
        {withKey("scalps", Json::parse(R"([{"name":"a","points":[],"triangles":[]},)"
                                       R"({"name":"a","points":[],"triangles":[]}])")),
         "groom file: bad scalps name 'a'"},
        {withKey("prototypes", Json::parse(R"({"p":{"points":[0,0,0],"triangles":[0,0]}})")),
         "groom file: bad prototypes.triangles"},
        {withKey("prototypes", Json::parse(R"({"p":{"points":[0,0,0],"triangles":[0,0,1]}})")),
         "groom file: a prototype's triangle names a point it does not have"},
        {withKey("simCaches", Json::parse(R"({"4":{"object":"/sim"}})")),
         "simCaches: the bake of node 4 names no file"},
        {withKey("maps", Json::parse(R"({"m":{"kind":"strands"}})")),
         "groom file: map 'm' has unknown kind 'strands'"},
        {withKey("maps", Json::parse(R"({"m":{"channels":3}})")),
         "groom file: map 'm' has 3 channels (1 or 4)"},
        {withKey("maps", Json::parse(R"({"m":{"channels":4,"values":[1,2]}})")),
         "groom file: 'maps.m.values' must be an array of 4-tuples"},
        {withKey("guides", Json::parse(R"([{"id":-1,"root":[0,0,0],"points":[]}])")),
         "groom file: bad guides.id"},
        {withKey("transferMarkers", Json::parse(R"([[{"face":[1,0,0]},{}]])")),
         "groom file: a marker side has neither a face nor a point"},
        {withKey("transferMarkers", Json::parse(R"({"a":1})")),
         "groom file: not a list of marker pairs"},
        {withKey("units", 5), "groom file: 'units' must be a string"},
        {withKey("graph", "{}"), "groom file: 'graph' must be an object"},
        {withKey("hierarchy", Json::array({1, 2, 3, 4})),
         "groom file: 'hierarchy' must be an object"},
        {withKey("sculptLayers", Json::parse(R"({"shot":[1]})")),
         "groom file: 'sculptLayers.shot' must be an object"},
        {withKey("referencePhotos", Json::object()),
         "groom file: 'referencePhotos' must be an array"},
        {withKey("scaleSource", "auto"),
         R"(groom file: scaleSource is "surfaceArea", "transformOnly" or "off", not "auto")"},
    };
    for (const auto& [text, message] : cases) {
        const std::string& input = text;  // a lambda may not capture a structured binding
        GroomFile target = sample();
        expectMessage<GroomFileError>([&] { target = parseGroom(input); }, message);
        EXPECT_EQ(groomContentHashes(target), groomContentHashes(sample())) << message;
    }
}

TEST(GroomFile, MissingOptionalKeysTakeTheirDefaults) {
    const GroomFile file = parseGroom(R"({"format":"velmorin.groom","version":1})");
    EXPECT_EQ(file.units, "cm");
    EXPECT_EQ(file.upAxis, "Y");
    EXPECT_EQ(file.framesPerSecond, 0.0);
    EXPECT_EQ(file.graph, "");
    EXPECT_FALSE(file.scalp);
    EXPECT_FALSE(file.guides);
    // A mesh of no triangles reads; an empty scalp object is no scalp.
    const GroomFile bare = parseGroom(
        R"({"format":"velmorin.groom","scalp":{},"colliders":{"c":{"points":[],"triangles":[]}}})");
    EXPECT_FALSE(bare.scalp);
    EXPECT_EQ(bare.colliders.at("c")->triangleCount(), 0u);
}

TEST(GroomFile, PlaceholderShapedTextIsRefused) {
    for (const std::string name : {"@velmorin.floats:0@", "@velmorin.floats:99@",
                                   "@velmorin.floats:x@", "@velmorin.floats:"}) {
        GroomFile file = sample();
        file.maps[name] = {MapKind::Texture, 1, {}, "a.png"};
        expectMessage<GroomFileError>(
            [&] { writeGroom(file); },
            "groom file: a name or text begins with \"@velmorin.floats:\", which groom files "
            "keep for their number arrays: rename it");
    }
    GroomFile file = sample();
    file.maps["a@velmorin.floats:0@"] = {MapKind::Texture, 1, {}, "a.png"};
    EXPECT_EQ(parseGroom(writeGroom(file)).maps, file.maps);
}

TEST(GroomFile, WriterRefusesWhatWouldNotReadBack) {
    GroomFile file;
    file.upAxis = "X";
    expectMessage<GroomFileError>([&] { writeGroom(file); },
                                  R"(groom file: upAxis is "Y" or "Z", not "X")");
    file = GroomFile{};
    file.parts = "[1,2]";
    expectMessage<GroomFileError>([&] { writeGroom(file); },
                                  "groom file: the parts JSON is not an object");
    const std::vector<std::pair<std::function<void(GroomFile&)>, std::string>> refusals = {
        {[](GroomFile& f) {
             f.maps["m"] = {MapKind::Vertices, 3, {1, 2, 3}, ""};
         },
         "groom file: map 'm' has 3 channels (1 or 4)"},
        {[](GroomFile& f) {
             f.maps["m"] = {MapKind::Vertices, 4, {1, 2}, ""};
         },
         "groom file: map 'm' has 2 values, not 4 for each vertex"},
        {[](GroomFile& f) {
             f.scalps = {{"a", makeUvPlane(1, 1)}, {"a", makeUvPlane(1, 1)}};
         },
         "groom file: bad scalps name 'a'"},
        {[](GroomFile& f) {
             f.prototypes["p"] = {{{0, 0, 0}}, {{0, 0, 1}}, {}, {}};
         },
         "groom file: a triangle of the prototype 'p' names a point it does not have"},
        {[](GroomFile& f) {
             f.prototypes["p"] = {{{0, 0, 0}}, {}, {{0, 1, 0}, {0, 1, 0}}, {}};
         },
         "groom file: the prototype 'p' needs one normal and one UV a point, or none"},
    };
    for (const auto& [spoil, message] : refusals) {
        GroomFile refused;
        spoil(refused);
        expectMessage<GroomFileError>([&] { writeGroom(refused); }, message);
    }
    file.parts = "{";
    expectMessage<GroomFileError>(
        [&] { writeGroom(file); },
        "groom file: invalid parts JSON: [json.exception.parse_error.101] parse error at line 1, "
        "column 2: syntax error while parsing object key - unexpected end of input; expected "
        "string literal");
}

// A graph holding a world direction and a Mirror, for the axis turn.
std::string axisGraph() {
    return Json::parse(R"({"nodes":[
        {"name":"bend","type":"Bend","params":{"direction":[0.0,-1.0,0.25],"angle":30}},
        {"name":"mirror","type":"Mirror","params":{"axis":"z","side":"positive","offset":0.5}},
        {"name":"pack","type":"Compound","definition":{"graph":{"nodes":[
            {"name":"lean","type":"Direction","params":{"direction":[1.0,2.0,3.0]}}]}}}],
        "version":1})")
        .dump(2);
}

TEST(GroomFile, ConvertUpAxisTurnsWorldValuesAndBack) {
    GroomFile z = sample();
    z.upAxis = "Z";
    z.graph = axisGraph();
    const auto original = groomContentHashes(z);

    GroomFile y = z;
    convertUpAxis(y, "Y");
    EXPECT_EQ(y.upAxis, "Y");
    // (x, y, z) becomes (x, z, -y) on the way to Y.
    const Vec3f p = z.scalp->points()[5];
    EXPECT_EQ(y.scalp->points()[5], (Vec3f{p.x, p.z, -p.y}));
    const Vec3f r = z.scalp->restPoints()[5];
    EXPECT_EQ(y.scalp->restPoints()[5], (Vec3f{r.x, r.z, -r.y}));
    EXPECT_EQ(y.scalp->uvs(), z.scalp->uvs());
    EXPECT_EQ(y.transferMarkers[0].to.point, (Vec3f{0.5f, -0.25f, -1.5f}));
    EXPECT_EQ(y.transferMarkers[0].from, z.transferMarkers[0].from);
    EXPECT_EQ(y.prototypes["leaf"].normals[0], (Vec3f{0, 1, -0.0f}));
    const Json graph = Json::parse(y.graph);
    EXPECT_EQ(graph["nodes"][0]["params"],
              Json::parse(R"({"direction":[0.0,0.25,1.0],"angle":30})"));
    EXPECT_EQ(graph["nodes"][1]["params"],
              Json::parse(R"({"axis":"y","side":"positive","offset":0.5})"));
    EXPECT_EQ(graph["nodes"][2]["definition"]["graph"]["nodes"][0]["params"]["direction"],
              Json::parse("[1.0,3.0,-2.0]"));
    const Json guide = Json::parse(y.hierarchy)["guides"][0];
    const Json before = Json::parse(z.hierarchy)["guides"][0];
    EXPECT_EQ(guide["points"][1], before["points"][2]);
    EXPECT_EQ(guide["points"][2].get<double>(), -before["points"][1].get<double>());
    for (const auto& [piece, hash] : groomContentHashes(y)) {
        const bool turns = piece == "graph" || piece == "hierarchy" || piece == "scalp" ||
                           piece == "scalps" || piece == "colliders" || piece == "guides" ||
                           piece == "prototypes" || piece == "transferMarkers" ||
                           piece == "settings";
        EXPECT_EQ(hash != original.at(piece), turns) << piece;
    }

    convertUpAxis(y, "Z");
    EXPECT_EQ(groomContentHashes(y), original);
    EXPECT_EQ(Json::parse(y.graph), Json::parse(z.graph));
    // A turn to the axis the groom has changes nothing, and a bad axis is refused.
    convertUpAxis(y, "Z");
    EXPECT_EQ(groomContentHashes(y), original);
    expectMessage<GroomFileError>([&] { convertUpAxis(y, "up"); },
                                  R"(groom file: upAxis is "Y" or "Z", not "up")");
    y.graph = "{\"nodes\":";
    expectMessage<GroomFileError>([&] { convertUpAxis(y, "Y"); }, "groom file: invalid graph JSON");
    EXPECT_EQ(y.upAxis, "Z");
}

TEST(GroomFile, MirrorSidesKeepTheirWorldMeaning) {
    // Going to Z, a y plane becomes a z plane of the same sense; a z plane becomes a y plane of
    // the other sense, so its side and offset flip.
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> cases = {
        {R"({"axis":"y","side":"negative","offset":2})", "Z",
         R"({"axis":"z","side":"negative","offset":2})", "Y"},
        {R"({"axis":"z","offset":2})", "Z", R"({"axis":"y","offset":-2,"side":"negative"})", "Y"},
        {R"({"axis":"x","side":"negative"})", "Z", R"({"axis":"x","side":"negative"})", "Y"},
        {R"({"axis":"z","side":"up","offset":2})", "Z", R"({"axis":"y","side":"up","offset":-2})",
         "Y"},
    };
    for (const auto& [params, target, expected, from] : cases) {
        GroomFile file;
        file.upAxis = from;
        file.graph = R"({"nodes":[{"name":"m","type":"Mirror","params":)" + params + "}]}";
        convertUpAxis(file, target);
        EXPECT_EQ(Json::parse(file.graph)["nodes"][0]["params"], Json::parse(expected)) << params;
    }
}

TEST(GroomFile, SimCachesJsonForTheHost) {
    SimCaches caches;
    caches[3] = {"a.abc", "/sim", 42};
    caches[12] = {"b.abc", "", 0};
    const std::string text = simCachesToJson(caches);
    EXPECT_EQ(text, R"({"3":{"file":"a.abc","object":"/sim","stamp":"42"},)"
                    R"("12":{"file":"b.abc","object":"","stamp":"0"}})");
    EXPECT_EQ(simCachesFromJson(text), caches);
    EXPECT_TRUE(simCachesFromJson("").empty());
    EXPECT_TRUE(simCachesFromJson(R"({"3":{"file":""}})").empty());
    const std::vector<std::pair<std::string, std::string>> faults = {
        {"[]", "simCaches: not an object of Simulate nodes' bakes"},
        {R"({"x":{"file":"a"}})", "simCaches: not an object of Simulate nodes' bakes"},
        {R"({"3":{"file":"a","stamp":"-1"}})",
         "simCaches: the bake of node 3 has the stamp '-1', not a whole number"},
        {R"({"3":{"file":7}})",
         "simCaches: the bake of node 3 has a \"file\" that is not a string"},
        {"{",
         "simCaches: [json.exception.parse_error.101] parse error at line 1, column 2: syntax "
         "error while parsing object key - unexpected end of input; expected string literal"},
    };
    for (const auto& fault : faults)
        expectMessage<GroomFileError>([&] { simCachesFromJson(fault.first); }, fault.second);
}

TEST(LoadedGroom, OneImagePerFileStampWhileAnyoneHoldsIt) {
    test::TempFolder folder("groom");
    const std::string path = folder.file("shared.groom");
    saveGroomFile(path, sample());
    auto first = LoadedGroom::load(path);
    auto second = LoadedGroom::load(path);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->path, path);
    EXPECT_EQ(groomContentHashes(first->file), groomContentHashes(sample()));

    // A file written again is read again; those who hold the old image keep it.
    GroomFile changed = sample();
    changed.source = "scenes/other.ma";
    saveGroomFile(path, changed);
    std::filesystem::last_write_time(path, first->stamp + std::chrono::seconds(5));
    auto third = LoadedGroom::load(path);
    EXPECT_NE(third, first);
    EXPECT_EQ(third->file.source, "scenes/other.ma");
    EXPECT_EQ(first->file.source, "scenes/hero.ma");

    // The cache keeps no image alive by itself.
    const std::weak_ptr<const LoadedGroom> watch = third;
    third.reset();
    EXPECT_TRUE(watch.expired());
    expectMessage<GroomFileError>([&] { LoadedGroom::load(folder.file("none.groom")); },
                                  "cannot read '" + folder.file("none.groom") + "'");
}

}  // namespace
}  // namespace velmorin
