#include "usd/usd_writer.h"

#include <bit>
#include <cstdlib>
#include <limits>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include "base/hash.h"
#include "base/parallel.h"
#include "base/test/expect_message.h"
#include "base/test/temp_files.h"
#include "maps/test/map_test_support.h"
#include "strands/channel_names.h"
#include "strands/test/test_strands.h"
#include "usd/test/usda_reader.h"
#include "usd/usd_text.h"

namespace velmorin {
namespace {

using test::expectMessage;
using test::parseUsda;
using test::readBytes;
using test::TempFolder;
using test::usdaFloats;
using test::usdaInts;
using test::UsdaLayer;
using test::UsdaProperty;
using test::UsdaValue;
using Uv = std::array<float, 2>;

// The strands prim of a written layer, or a test failure.
const test::UsdaPrim& strandsPrim(const UsdaLayer& layer) {
    static const test::UsdaPrim none;
    if (layer.prims.size() != 1 || layer.prims[0].child("strands") == nullptr) {
        ADD_FAILURE() << "the layer has no single root prim with a strands child";
        return none;
    }
    return *layer.prims[0].child("strands");
}

// The times of a property's samples.
std::vector<double> sampleTimes(const UsdaProperty* property) {
    std::vector<double> times;
    if (property == nullptr) return times;
    for (const auto& [time, value] : property->samples)
        times.push_back(time);
    return times;
}

// Three strands over two frames with every optional primvar: widths, ids (one past 2^63, which
// reads back negative), root uvs, colour per point, a strand channel, a point channel whose name
// is no identifier, and an engine-private channel that stays out.
StrandSet goldenStrands(float lift) {
    StrandSet set;
    const std::array<Vec3f, 2> a = {Vec3f{0.0f, lift, 0.0f}, Vec3f{0.0f, lift + 1.0f, 0.25f}};
    const std::array<Vec3f, 3> b = {Vec3f{1.0f, lift, 0.0f}, Vec3f{1.0f, lift + 0.5f, 0.0f},
                                    Vec3f{1.5f, lift + 1.0f, 0.1f}};
    const std::array<Vec3f, 2> c = {Vec3f{-1.0f, lift, -2.0f}, Vec3f{-1.0f, lift + 2.0f, -2.0f}};
    const std::array<float, 2> wa = {0.01f, 0.005f};
    const std::array<float, 3> wb = {0.02f, 0.01f, 0.001f};
    const std::array<float, 2> wc = {0.1f, 0.05f};
    set.addStrand(7, {0, 0.25f, 0.25f}, a, wa);
    set.addStrand(0x8000000000000001ull, {1, 0.5f, 0.125f}, b, wb);
    set.addStrand(42, {2, 0.0f, 1.0f}, c, wc);
    const std::array<std::array<float, 7>, 3> color = {{{1, 0.9f, 0, 0, 0, 0.5f, 0.5f},
                                                        {0, 0.1f, 1, 1, 1, 0.25f, 0.25f},
                                                        {0, 0, 0, 0.5f, 1, 0.125f, 0.125f}}};
    for (std::size_t k = 0; k < 3; ++k) {
        std::vector<float>& values = set.addPointChannel(std::string(channels::kColor[k]), 0.0f);
        std::copy(color[k].begin(), color[k].end(), values.begin());
    }
    set.addStrandChannel("mass", 1.0f) = {1.0f, 2.5f, 0.1f};
    std::vector<float>& curl = set.addPointChannel("curl amount", 0.0f);
    for (std::size_t p = 0; p < curl.size(); ++p)
        curl[p] = 0.5f * static_cast<float>(p) + lift;
    set.addStrandChannel(std::string(channels::kPreview), 1.0f);
    return set;
}

UsdOptions goldenOptions() {
    UsdOptions options;
    options.defaultPrim = "hero groom";
    options.doc = "test groom \"hero\"";
    options.startTimeCode = 1.0;
    options.endTimeCode = 2.0;
    options.framesPerSecond = 24.0;
    options.metersPerUnit = 0.01;
    options.upAxis = "Y";
    options.customData = {"string source = \"hero.ma\"", "int strands = 3"};
    options.hidden = true;
    return options;
}

TEST(UsdText, IdentifiersAreValid) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"hair", "hair"},
        {"Hair_2", "Hair_2"},
        {"_x", "_x"},
        {"", "_"},
        {"2d", "_2d"},
        {"9", "_9"},
        {"hero groom", "hero_groom"},
        {"a-b.c/d", "a_b_c_d"},
        {"-1", "_1"},
        {"caf\xc3\xa9", "caf_"},
        {"\xe6\xaf\x9b", "_"},
        {"primvars:st", "primvars_st"},
    };
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(usdIdentifier(name), expected) << name;
}

TEST(UsdText, QuotesStrings) {
    EXPECT_EQ(usdQuoted("plain"), "\"plain\"");
    EXPECT_EQ(usdQuoted("say \"hi\"\\\n"), "\"say \\\"hi\\\"\\\\\\n\"");
}

TEST(UsdText, FloatsAreWrittenShortestAndReadBackExactly) {
    const std::vector<std::pair<float, std::string>> texts = {
        {0.1f, "0.1"},
        {1.0f, "1"},
        {-0.0f, "-0"},
        {100.0f, "100"},
        {1e-45f, "1e-45"},
        {std::numeric_limits<float>::max(), "3.4028235e+38"},
        {-1.1754944e-38f, "-1.1754944e-38"},
        {std::numeric_limits<float>::quiet_NaN(), "nan"},
        {-std::numeric_limits<float>::quiet_NaN(), "nan"},
        {std::numeric_limits<float>::infinity(), "inf"},
        {-std::numeric_limits<float>::infinity(), "-inf"},
    };
    // The writer keeps within the room it asks for.
    char text[kUsdFloatChars + 8];
    std::fill(std::begin(text) + kUsdFloatChars, std::end(text), '#');
    for (const auto& [value, expected] : texts)
        EXPECT_EQ(std::string(text, writeUsdFloat(text, value)), expected);
    // Every finite float is written as std::to_chars writes it, and reads back as itself within
    // the room given. Hashed bit patterns cover every exponent, denormals included; then the
    // hard places: both sides of every power of two, and whole numbers around 2^24.
    std::vector<std::uint32_t> patterns;
    for (std::uint64_t i = 0; i < 300000; ++i)
        patterns.push_back(static_cast<std::uint32_t>(mix64(i)));
    for (std::uint32_t exponent = 0; exponent < 255; ++exponent) {
        for (std::uint32_t low = 0; low < 3; ++low) {
            patterns.push_back(exponent << 23 | low);
            patterns.push_back((exponent << 23 | 0x7FFFFFu) - low);
        }
    }
    // Every length of digits at every place of the point, and the floats either side of them:
    // "0.000ddd", "d.ddd", "ddd", whole numbers with zeros, and the scientific forms.
    for (std::uint32_t digits = 1, length = 1; length <= 9;
         ++length, digits = digits * 10 + length) {
        for (int exponent = -14; exponent <= 14; ++exponent) {
            const auto bits =
                std::bit_cast<std::uint32_t>(static_cast<float>(digits * std::pow(10.0, exponent)));
            patterns.insert(patterns.end(), {bits - 1, bits, bits + 1});
        }
    }
    for (std::uint32_t whole = 16777000; whole < 16777300; ++whole) {
        patterns.push_back(std::bit_cast<std::uint32_t>(static_cast<float>(whole)));
        patterns.push_back(std::bit_cast<std::uint32_t>(static_cast<float>(whole * 10)));
    }
    for (const std::uint32_t bits : patterns) {
        const float value = std::bit_cast<float>(bits);
        if (!std::isfinite(value)) continue;
        char expected[32];
        const char* expectedEnd = std::to_chars(expected, expected + sizeof expected, value).ptr;
        char* end = writeUsdFloat(text, value);
        ASSERT_EQ(std::string(text, end),
                  std::string(static_cast<const char*>(expected), expectedEnd))
            << bits;
        float back = 0.0f;
        const auto result = std::from_chars(text, end, back);
        ASSERT_TRUE(result.ec == std::errc() && result.ptr == end) << std::string(text, end);
        ASSERT_EQ(std::bit_cast<std::uint32_t>(back), bits) << std::string(text, end);
        ASSERT_EQ(std::string(text + kUsdFloatChars, 8), std::string(8, '#')) << bits;
    }
    EXPECT_EQ(usdDouble(24.0), "24");
    EXPECT_EQ(usdDouble(0.01), "0.01");
    EXPECT_EQ(usdDouble(-1.5), "-1.5");
}

// The golden file was checked line by line against the layout the writer promises: the header
// lines, the root Xform with its customData and kind, the strands prim with type, wrap and
// visibility, and each property's declaration, interpolation and samples.
TEST(UsdCurvesWriter, WritesTheGoldenGroom) {
    TempFolder folder("usd-golden");
    const std::string path = folder.file("hero.usda");
    UsdCurvesWriter writer(path, goldenOptions());
    const StrandSet first = goldenStrands(0.0f), second = goldenStrands(0.5f);
    const std::array<Uv, 3> uvs = {Uv{0.1f, 0.2f}, Uv{0.5f, 0.5f}, Uv{0.9f, 0.75f}};
    writer.writeFrame(1.0, first, uvs);
    writer.writeFrame(2.0, second, uvs);
    writer.close();
    const std::string text = readBytes(path);
    const std::string goldenPath = std::string(VELMORIN_USD_TEST_DIR) + "/hero_groom.usda";
    if (std::getenv("VELMORIN_UPDATE_GOLDEN") != nullptr) test::writeBytes(goldenPath, text);
    EXPECT_EQ(text, readBytes(goldenPath));
    EXPECT_NO_THROW(parseUsda(text));
}

// What was written reads back the same: counts, positions, extent, widths, ids, uvs, colours and
// channels at every frame, for sets with empty and one-point strands in them. The last frame is
// large enough to be formatted in several blocks.
TEST(UsdCurvesWriter, ReadsBackWhatItWrote) {
    TempFolder folder("usd-read-back");
    const std::string path = folder.file("groom.usda");
    const std::array<double, 3> frames = {-1.0, 0.5, 12.0};
    const std::array<std::size_t, 3> strandCounts = {10000, 10000, 50000};
    std::vector<StrandSet> sets;
    std::vector<std::vector<Uv>> uvs;
    {
        UsdCurvesWriter writer(path, UsdOptions{});
        for (std::size_t f = 0; f < frames.size(); ++f) {
            const std::size_t count = strandCounts[f];
            StrandSet set = test::randomStrands(count, 17 + f);
            for (std::size_t k = 0; k < 3; ++k) {
                std::vector<float>& values =
                    set.addPointChannel(std::string(channels::kColor[k]), 0.0f);
                for (std::size_t p = 0; p < values.size(); ++p)
                    values[p] = unitFloat(hashCombine(p, k + 10 * f));
            }
            std::vector<Uv>& frameUvs = uvs.emplace_back(count);
            for (std::size_t s = 0; s < count; ++s)
                frameUvs[s] = {unitFloat(s + f), unitFloat(s * 3 + f)};
            writer.writeFrame(frames[f], set, frameUvs);
            sets.push_back(std::move(set));
        }
        writer.close();
    }
    const UsdaLayer layer = parseUsda(readBytes(path));
    const test::UsdaPrim& strands = strandsPrim(layer);
    const auto property = [&](const char* name) -> const UsdaProperty& {
        static const UsdaProperty none;
        const UsdaProperty* found = strands.property(name);
        EXPECT_NE(found, nullptr) << name;
        return found != nullptr ? *found : none;
    };
    const auto interpolation = [&](const char* name) {
        const UsdaValue* value = findMetadata(property(name).metadata, "interpolation");
        return value != nullptr ? value->text : std::string();
    };
    EXPECT_EQ(interpolation("widths"), "vertex");
    EXPECT_EQ(interpolation("primvars:strandId"), "uniform");
    EXPECT_EQ(interpolation("primvars:st"), "uniform");
    EXPECT_EQ(interpolation("primvars:displayColor"), "vertex");
    EXPECT_EQ(interpolation("primvars:mass"), "uniform");
    EXPECT_EQ(interpolation("primvars:curl"), "vertex");
    for (const char* name :
         {"curveVertexCounts", "points", "extent", "widths", "primvars:strandId", "primvars:st",
          "primvars:displayColor", "primvars:mass", "primvars:curl"}) {
        EXPECT_EQ(sampleTimes(&property(name)), std::vector<double>(frames.begin(), frames.end()))
            << name;
    }
    for (std::size_t f = 0; f < frames.size(); ++f) {
        const StrandSet& set = sets[f];
        std::vector<std::int64_t> counts, ids;
        std::vector<float> points, widths, st, color, mass, curl;
        Vec3f lo{1e30f, 1e30f, 1e30f}, hi{-1e30f, -1e30f, -1e30f};
        float widest = 0.0f;
        for (std::size_t s = 0; s < set.strandCount(); ++s) {
            const auto range = set.pointRange(s);
            if (range.count < 2) continue;
            counts.push_back(static_cast<std::int64_t>(range.count));
            ids.push_back(static_cast<std::int64_t>(set.ids()[s]));
            st.insert(st.end(), uvs[f][s].begin(), uvs[f][s].end());
            mass.push_back((*set.strandChannel("mass"))[s]);
            for (std::size_t p = range.begin; p < range.begin + range.count; ++p) {
                const Vec3f point = set.points()[p];
                points.insert(points.end(), {point.x, point.y, point.z});
                lo = minPerAxis(lo, point);
                hi = maxPerAxis(hi, point);
                widths.push_back(set.widths()[p]);
                widest = std::max(widest, set.widths()[p]);
                for (const std::string_view component : channels::kColor)
                    color.push_back((*set.pointChannel(component))[p]);
                curl.push_back((*set.pointChannel("curl"))[p]);
            }
        }
        const float pad = 0.5f * widest;
        const std::vector<float> extent = {lo.x - pad, lo.y - pad, lo.z - pad,
                                           hi.x + pad, hi.y + pad, hi.z + pad};
        const auto sample = [&](const char* name) -> const UsdaValue& {
            return property(name).samples.at(f).second;
        };
        EXPECT_EQ(usdaInts(sample("curveVertexCounts")), counts) << f;
        EXPECT_EQ(usdaFloats(sample("points")), points) << f;
        EXPECT_EQ(usdaFloats(sample("extent")), extent) << f;
        EXPECT_EQ(usdaFloats(sample("widths")), widths) << f;
        EXPECT_EQ(usdaInts(sample("primvars:strandId")), ids) << f;
        EXPECT_EQ(usdaFloats(sample("primvars:st")), st) << f;
        EXPECT_EQ(usdaFloats(sample("primvars:displayColor")), color) << f;
        EXPECT_EQ(usdaFloats(sample("primvars:mass")), mass) << f;
        EXPECT_EQ(usdaFloats(sample("primvars:curl")), curl) << f;
    }
}

// Writes the frames of `sets` (frames 1, 2, ...) with the options and returns the file's text.
std::string writeFrames(const TempFolder& folder, const std::vector<StrandSet>& sets,
                        const UsdOptions& options = {}) {
    const std::string path = folder.file("frames.usda");
    UsdCurvesWriter writer(path, options);
    for (std::size_t f = 0; f < sets.size(); ++f)
        writer.writeFrame(static_cast<double>(f + 1), sets[f]);
    writer.close();
    return readBytes(path);
}

StrandSet twoStrands() {
    StrandSet set;
    const std::array<Vec3f, 2> points = {Vec3f{0, 0, 0}, Vec3f{0, 1, 0}};
    set.addStrand(1, {}, points);
    set.addStrand(2, {}, points);
    return set;
}

TEST(UsdCurvesWriter, WritesEdgeCasesAsValidUsd) {
    TempFolder folder("usd-edges");
    {
        // An empty set: empty arrays, an empty extent, and no widths.
        const std::string text = writeFrames(folder, {StrandSet()});
        EXPECT_NE(text.find("int[] curveVertexCounts.timeSamples = {\n1: [],\n        }"),
                  std::string::npos);
        EXPECT_NE(text.find("float3[] extent.timeSamples = {\n1: [],\n"), std::string::npos);
        EXPECT_EQ(text.find("widths"), std::string::npos);
        EXPECT_NO_THROW(parseUsda(text));
    }
    {
        // A strand of one point (and one of none) is left out with its id.
        StrandSet set;
        const std::array<Vec3f, 2> points = {Vec3f{0, 0, 0}, Vec3f{0, 1, 0}};
        set.addStrand(5, {}, std::span(points).first(1));
        set.addStrand(6, {}, {});
        set.addStrand(7, {}, points);
        const UsdaLayer layer = parseUsda(writeFrames(folder, {set}));
        const auto& strands = strandsPrim(layer);
        EXPECT_EQ(usdaInts(strands.property("curveVertexCounts")->samples[0].second),
                  std::vector<std::int64_t>{2});
        EXPECT_EQ(usdaInts(strands.property("primvars:strandId")->samples[0].second),
                  std::vector<std::int64_t>{7});
        EXPECT_EQ(usdaFloats(strands.property("widths")->samples[0].second),
                  (std::vector<float>{1, 1}));
    }
    {
        // One frame, one sample; no range, no time codes; no widths, no widths property.
        StrandSet set = twoStrands();
        set.overwriteWidths().clear();
        const std::string text = writeFrames(folder, {set});
        const UsdaLayer layer = parseUsda(text);
        const auto& strands = strandsPrim(layer);
        for (const UsdaProperty& property : strands.properties) {
            if (property.timeSampled) {
                EXPECT_EQ(sampleTimes(&property), std::vector<double>{1.0}) << property.name;
            }
        }
        EXPECT_EQ(text.find("startTimeCode"), std::string::npos);
        EXPECT_EQ(text.find("endTimeCode"), std::string::npos);
        EXPECT_EQ(strands.property("widths"), nullptr);
        EXPECT_EQ(text.find("visibility"), std::string::npos);
    }
}

TEST(UsdCurvesWriter, ChoosesTheColourLevel) {
    TempFolder folder("usd-colour");
    // Colour per strand is uniform; a component without the other two is a channel of its own.
    StrandSet perStrand = twoStrands();
    for (const std::string_view component : channels::kColor)
        perStrand.addStrandChannel(std::string(component), 0.5f);
    perStrand.addPointChannel(std::string(channels::kColor[0]), 0.25f);
    const UsdaLayer layer = parseUsda(writeFrames(folder, {perStrand}));
    const auto& strands = strandsPrim(layer);
    const UsdaProperty* color = strands.property("primvars:displayColor");
    ASSERT_NE(color, nullptr);
    EXPECT_EQ(findMetadata(color->metadata, "interpolation")->text, "uniform");
    EXPECT_EQ(usdaFloats(color->samples[0].second), std::vector<float>(6, 0.5f));
    const UsdaProperty* red = strands.property("primvars:colorR");
    ASSERT_NE(red, nullptr);
    EXPECT_EQ(findMetadata(red->metadata, "interpolation")->text, "vertex");
    EXPECT_EQ(strands.property("primvars:colorG"), nullptr);
}

// A property that appears at a later frame has no samples before it; one that goes away is
// blocked from then on.
TEST(UsdCurvesWriter, SamplesPropertiesFromTheFrameTheyAppear) {
    TempFolder folder("usd-appear");
    const std::string path = folder.file("appear.usda");
    UsdCurvesWriter writer(path, UsdOptions{});
    const StrandSet plain = twoStrands();
    StrandSet withMass = twoStrands();
    withMass.addStrandChannel("mass", 3.0f);
    const std::array<Uv, 2> uvs = {Uv{0.5f, 0.5f}, Uv{0.25f, 1.0f}};
    writer.writeFrame(1, plain);
    writer.writeFrame(2, withMass, uvs);
    writer.writeFrame(3, plain, uvs);
    writer.close();
    const UsdaLayer layer = parseUsda(readBytes(path));
    const auto& strands = strandsPrim(layer);
    EXPECT_EQ(sampleTimes(strands.property("points")), (std::vector<double>{1, 2, 3}));
    EXPECT_EQ(sampleTimes(strands.property("primvars:st")), (std::vector<double>{2, 3}));
    const UsdaProperty* mass = strands.property("primvars:mass");
    ASSERT_EQ(sampleTimes(mass), (std::vector<double>{2, 3}));
    EXPECT_EQ(usdaFloats(mass->samples[0].second), (std::vector<float>{3, 3}));
    EXPECT_TRUE(mass->samples[1].second.isNone());
}

TEST(UsdCurvesWriter, RefusesBadFramesAndWritesNothingOfThem) {
    TempFolder folder("usd-refuse");
    const std::string path = folder.file("refuse.usda");
    UsdCurvesWriter writer(path, UsdOptions{});
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        std::function<void(StrandSet&)> spoil;
        std::vector<Uv> uvs;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"NaN point",
         [&](StrandSet& s) { s.writePoints()[3].y = nan; },
         {},
         "frame 1: strand 1 has a point that is not a finite number"},
        {"NaN width",
         [&](StrandSet& s) { s.writeWidths()[2] = nan; },
         {},
         "frame 1: strand 1 has a width that is not a finite number"},
        {"widths",
         [](StrandSet& s) { s.writeWidths().pop_back(); },
         {},
         "frame 1: the strand set has 3 widths for 4 points"},
        {"root uvs", [](StrandSet&) {}, {Uv{0, 0}}, "frame 1: 1 root uvs for 2 strands"},
        {"two channels, one name",
         [](StrandSet& s) {
             s.addStrandChannel("a b", 0.0f);
             s.addPointChannel("a_b", 0.0f);
         },
         {},
         "frame 1: the strand channel 'a b' and the point channel 'a_b' are both written as "
         "primvars:a_b; rename one of them"},
        {"reserved name",
         [](StrandSet& s) { s.addPointChannel("st", 0.0f); },
         {},
         "frame 1: the point channel 'st' would be written as primvars:st, a name the writer "
         "keeps for its own use; rename the channel"},
    };
    for (const Case& c : cases) {
        StrandSet set = twoStrands();
        c.spoil(set);
        expectMessage<UsdError>([&] { writer.writeFrame(1, set, c.uvs); }, c.message);
    }
    expectMessage<UsdError>(
        [&] { writer.writeFrame(std::numeric_limits<double>::quiet_NaN(), twoStrands()); },
        "frames must be finite numbers");
    // None of that reached the file: frame 1 is still free, and a later frame must increase.
    StrandSet mass = twoStrands();
    mass.addStrandChannel("mass", 1.0f);
    writer.writeFrame(1, mass);
    expectMessage<UsdError>([&] { writer.writeFrame(1, twoStrands()); }, "frames must increase");
    expectMessage<UsdError>([&] { writer.writeFrame(0.5, twoStrands()); }, "frames must increase");
    StrandSet massPerPoint = twoStrands();
    massPerPoint.addPointChannel("mass", 1.0f);
    expectMessage<UsdError>([&] { writer.writeFrame(2, massPerPoint); },
                            "frame 2: primvars:mass was written per strand and is now per point; "
                            "a primvar keeps one interpolation through an export");
    EXPECT_EQ(writer.framesWritten(), 1u);
    writer.close();
    writer.close();  // a second close does nothing
    EXPECT_TRUE(writer.closed());
    expectMessage<UsdError>([&] { writer.writeFrame(3, twoStrands()); }, "writeFrame after close");
    const UsdaLayer layer = parseUsda(readBytes(path));
    const auto& strands = strandsPrim(layer);
    for (const UsdaProperty& property : strands.properties) {
        if (property.timeSampled) {
            EXPECT_EQ(sampleTimes(&property), std::vector<double>{1.0}) << property.name;
        }
    }
    EXPECT_EQ(strands.property("primvars:a_b"), nullptr);
    // Only the file is left: the spools are gone.
    EXPECT_EQ(folder.entries(), 1u);
}

// Holds files to `bytes` while it lives, so that writing past that fails as on a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        previous_ = ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        ::signal(SIGXFSZ, previous_);
    }

  private:
    rlimit saved_{};
    sighandler_t previous_ = nullptr;
};

// A frame that fails half-way through its spools is taken out of all of them, and a close that
// fails leaves the writer open to try again. The spools are in files from the start, or hold the
// first frame in memory and move to their files during the second.
TEST(UsdCurvesWriter, UndoesWhatCannotBeWritten) {
    for (const std::size_t memory : {std::size_t{0}, std::size_t{4096}}) {
        SCOPED_TRACE(memory);
        TempFolder folder("usd-full");
        const std::string path = folder.file("full.usda");
        UsdOptions options;
        options.spoolMemoryBytes = memory;
        UsdCurvesWriter writer(path, options);
        const StrandSet small = twoStrands();
        writer.writeFrame(1, small);
        {
            const FileSizeLimit limit(64 * 1024);
            expectMessage<UsdError>([&] { writer.writeFrame(2, test::randomStrands(20000, 5)); },
                                    "cannot write '" + path + "'");
            writer.writeFrame(2, small);
        }
        {
            StrandSet big = test::randomStrands(20000, 5);
            big.overwriteWidths().clear();
            writer.writeFrame(3, big);
            const FileSizeLimit limit(64 * 1024);
            expectMessage<UsdError>([&] { writer.close(); }, "cannot write '" + path + "'");
            EXPECT_FALSE(writer.closed());
        }
        writer.close();
        const UsdaLayer layer = parseUsda(readBytes(path));
        const auto& strands = strandsPrim(layer);
        EXPECT_EQ(sampleTimes(strands.property("points")), (std::vector<double>{1, 2, 3}));
        // The channels of the failed frame 2 never came to be; those of frame 3 did.
        EXPECT_EQ(sampleTimes(strands.property("primvars:mass")), (std::vector<double>{3}));
        EXPECT_EQ(sampleTimes(strands.property("widths")), (std::vector<double>{1, 2, 3}));
        EXPECT_TRUE(strands.property("widths")->samples[2].second.isNone());
        EXPECT_EQ(folder.entries(), 1u);
    }
    // With every sample held in memory, a close that fails leaves no file and the writer open too,
    // and the next close writes it all.
    TempFolder folder("usd-full-memory");
    const std::string path = folder.file("full.usda");
    UsdCurvesWriter writer(path, UsdOptions{});
    const StrandSet big = test::randomStrands(20000, 5);
    writer.writeFrame(1, big);
    {
        const FileSizeLimit limit(64 * 1024);
        expectMessage<UsdError>([&] { writer.close(); }, "cannot write '" + path + "'");
        EXPECT_FALSE(writer.closed());
    }
    writer.close();
    const UsdaLayer layer = parseUsda(readBytes(path));
    EXPECT_EQ(sampleTimes(strandsPrim(layer).property("points")), (std::vector<double>{1}));
    EXPECT_EQ(folder.entries(), 1u);
}

// Spools held in memory, in files, or moved from one to the other part-way through a frame give
// the same file, at one thread and at two. The memory is the budget's: nothing reaches the spool
// files until a frame would pass it, and everything after it does.
TEST(UsdCurvesWriter, WritesTheSameBytesWhereverItSpools) {
    TempFolder folder("usd-spools");
    // Three frames, the second with colours and a strand channel that the third lacks; each is
    // formatted in several blocks.
    std::vector<StrandSet> sets;
    for (std::size_t f = 0; f < 3; ++f) {
        StrandSet set = test::randomStrands(40000, 31 + f);
        if (f == 1) {
            for (std::size_t k = 0; k < 3; ++k) {
                std::vector<float>& values =
                    set.addPointChannel(std::string(channels::kColor[k]), 0.0f);
                for (std::size_t p = 0; p < values.size(); ++p)
                    values[p] = unitFloat(hashCombine(p, k));
            }
        } else if (f == 2) {
            set.removeStrandChannel("mass");
        }
        sets.push_back(std::move(set));
    }
    const std::string path = folder.file("spools.usda");
    const std::string pointsSpool = path + ".points.spool";
    // The text of frame 1 alone, to set a budget that the second frame passes.
    std::size_t firstFrameBytes = 0;
    {
        UsdCurvesWriter writer(path, UsdOptions{});
        writer.writeFrame(1, sets[0]);
        writer.close();
        firstFrameBytes = std::filesystem::file_size(path);
    }
    std::string expected;
    for (const std::size_t memory :
         {std::size_t{1} << 30, std::size_t{0}, firstFrameBytes, firstFrameBytes + 1000000}) {
        for (const int threads : {1, 2}) {
            SCOPED_TRACE(std::to_string(memory) + " bytes, " + std::to_string(threads) +
                         " threads");
            runWithThreads(threads, [&] {
                UsdOptions options;
                options.spoolMemoryBytes = memory;
                UsdCurvesWriter writer(path, options);
                for (std::size_t f = 0; f < sets.size(); ++f) {
                    writer.writeFrame(static_cast<double>(f + 1), sets[f]);
                    // Text in the file means the budget was passed by this frame or before.
                    const std::size_t passedAt = memory == 0 ? 0 : 1;
                    EXPECT_EQ(std::filesystem::file_size(pointsSpool) > 0,
                              memory < (std::size_t{1} << 30) && f >= passedAt)
                        << "frame " << f + 1;
                }
                writer.close();
            });
            const std::string text = readBytes(path);
            if (expected.empty()) {
                expected = text;
                const UsdaLayer layer = parseUsda(text);
                const UsdaProperty* mass = strandsPrim(layer).property("primvars:mass");
                ASSERT_NE(mass, nullptr);
                EXPECT_TRUE(mass->samples[2].second.isNone());
            } else {
                EXPECT_TRUE(text == expected);
            }
            EXPECT_EQ(folder.entries(), 1u);
        }
    }
}

TEST(UsdCurvesWriter, RefusesBadOptionsAndPaths) {
    TempFolder folder("usd-options");
    const std::string path = folder.file("options.usda");
    const std::vector<std::pair<std::function<void(UsdOptions&)>, std::string>> cases = {
        {[](UsdOptions& o) { o.upAxis = "X"; }, "the up axis is \"Y\" or \"Z\", not \"X\""},
        {[](UsdOptions& o) { o.metersPerUnit = 0.0; }, "the meters per unit must be positive"},
        {[](UsdOptions& o) { o.framesPerSecond = -24.0; },
         "the frames per second must be positive"},
        {[](UsdOptions& o) { o.startTimeCode = std::numeric_limits<double>::infinity(); },
         "the start and end time codes must be finite numbers"},
        {[](UsdOptions& o) {
             o.startTimeCode = 10;
             o.endTimeCode = 1;
         },
         "the end time code is before the start time code"},
        {[](UsdOptions& o) { o.customData = {"int a = 1\nint b = 2"}; },
         "a customData line holds a line break: 'int a = 1\nint b = 2'"},
    };
    for (const auto& [spoil, message] : cases) {
        UsdOptions options;
        spoil(options);
        expectMessage<UsdError>([&] { UsdCurvesWriter(path, options); }, message);
    }
    const std::string missing = folder.file("no such folder/groom.usda");
    expectMessage<UsdError>([&] { UsdCurvesWriter(missing, UsdOptions{}); },
                            "cannot write '" + missing + "'");
    // A writer dropped before close leaves neither spools nor a file.
    {
        UsdCurvesWriter writer(path, UsdOptions{});
        writer.writeFrame(1, twoStrands());
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

}  // namespace
}  // namespace velmorin
