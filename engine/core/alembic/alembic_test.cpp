#include "alembic/alembic_curves_reader.h"
#include "alembic/alembic_error.h"
#include "alembic/alembic_strand_writer.h"
#include "base/test/temp_files.h"
#include "strands/channel_names.h"
#include "strands/guide_conversion.h"
#include "strands/test/test_strands.h"

#include <Alembic/AbcCoreFactory/All.h>
#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <sstream>

namespace velmorin {
namespace {

namespace Abc = Alembic::Abc;
namespace AbcA = Alembic::AbcCoreAbstract;
namespace AbcG = Alembic::AbcGeom;

using test::values;

using test::readBytes;

// Strands with everything the writer carries: ids above 2^32, widths, root UVs, colours per point,
// roughness and clump ids per strand, iridescence and ambient occlusion per point, group ids. Each
// frame moves the points and changes the values.
StrandSet groomStrands(std::size_t count, std::uint64_t seed, int frame) {
    StrandSet set = test::randomStrands(count, seed);
    set.removeStrandChannel("mass");
    set.removePointChannel("curl");
    set.writeIds()[0] = (std::uint64_t{1} << 32) + 5;
    for (Vec3f& p : set.writePoints())
        p.y += 0.5f * static_cast<float>(frame);
    const float f = static_cast<float>(frame);
    const std::size_t n = set.strandCount();
    const std::size_t points = set.pointCount();
    for (std::size_t c = 0; c < 3; ++c) {
        auto& channel = set.addPointChannel(std::string(channels::kColor[c]), 0.0f);
        for (std::size_t p = 0; p < points; ++p)
            channel[p] = unitFloat(seed + 3 * p + c) + f;
    }
    auto& u = set.addStrandChannel(std::string(kRootUvChannels[0]), 0.0f);
    auto& v = set.addStrandChannel(std::string(kRootUvChannels[1]), 0.0f);
    auto& roughness = set.addStrandChannel(std::string(channels::kRoughness), 0.0f);
    auto& clump = set.addStrandChannel(std::string(channels::kClumpId), 0.0f);
    auto& group = set.addStrandChannel(std::string(channels::kGroupId), 0.0f);
    for (std::size_t i = 0; i < n; ++i) {
        u[i] = unitFloat(seed + 5 * i);
        v[i] = unitFloat(seed + 5 * i + 1);
        roughness[i] = unitFloat(seed + 5 * i + 2) + f;
        clump[i] = static_cast<float>(i % 7) + f;
        group[i] = static_cast<float>(1 + i % 3);
    }
    auto& iridescence = set.addPointChannel(std::string(channels::kIridescence), 0.0f);
    auto& ao = set.addPointChannel(std::string(channels::kAmbientOcclusion), 0.0f);
    for (std::size_t p = 0; p < points; ++p) {
        iridescence[p] = unitFloat(seed + 7 * p) + f;
        ao[p] = unitFloat(seed + 7 * p + 1);
    }
    return set;
}

// Every column and every channel equal, value for value.
void expectSameStrands(const StrandSet& read, const StrandSet& written) {
    EXPECT_EQ(values(read.ids()), values(written.ids()));
    EXPECT_EQ(values(read.offsets()), values(written.offsets()));
    EXPECT_EQ(values(read.points()), values(written.points()));
    EXPECT_EQ(values(read.widths()), values(written.widths()));
    EXPECT_EQ(read.strandChannelNames(), written.strandChannelNames());
    EXPECT_EQ(read.pointChannelNames(), written.pointChannelNames());
    for (const std::string& name : written.strandChannelNames())
        EXPECT_EQ(values(read.strandChannel(name)), values(written.strandChannel(name))) << name;
    for (const std::string& name : written.pointChannelNames())
        EXPECT_EQ(values(read.pointChannel(name)), values(written.pointChannel(name))) << name;
}

Abc::IArchive openArchive(const std::string& path) {
    Alembic::AbcCoreFactory::IFactory factory;
    return factory.getArchive(path);
}

// The exact text and type of what `call` throws.
template <class Error>
std::string messageOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("wrong type: ") + error.what();
    }
    return "nothing thrown";
}

constexpr double kFrame = 1.0 / 24.0;

TEST(AlembicStrandWriter, RoundTripsEveryParameterOverFrames) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("frames.abc");
    std::vector<StrandSet> frames;
    {
        AlembicStrandWriter writer(abc, "hair");
        for (int f = 0; f < 3; ++f) {
            frames.push_back(groomStrands(40, 11, f));
            writer.writeStrands(1.0 + f * kFrame, frames.back());
        }
        EXPECT_EQ(writer.frameCount(), 3u);
        // Nothing stands at the path until the writer closes.
        EXPECT_FALSE(std::filesystem::exists(abc));
        writer.close();
    }
    EXPECT_FALSE(std::filesystem::exists(abc + ".tmp"));
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(reader.curvesObjects(), std::vector<std::string>{"/hair/hairShape"});
    const std::vector<double> times = reader.sampleTimes();
    ASSERT_EQ(times.size(), 3u);
    for (int f = 0; f < 3; ++f) {
        EXPECT_NEAR(times[f], 1.0 + f * kFrame, 1e-12);
        SCOPED_TRACE(f);
        expectSameStrands(reader.readStrands(1.0 + f * kFrame), frames[f]);
    }
    EXPECT_GT(frames[0].ids()[0], std::uint64_t{1} << 32);
    EXPECT_TRUE(reader.hasStrandIds());
}

// The layout engines look for, through the library's own generic walk of the arbitrary
// parameters: names in order of creation, data types, scopes, and the values of the last frame.
TEST(AlembicStrandWriter, WritesTheGroomParametersInOrderWithTypesAndScopes) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("layout.abc");
    const StrandSet first = groomStrands(12, 3, 0);
    const StrandSet last = groomStrands(12, 3, 1);
    {
        AlembicStrandWriter writer(abc, "hair");
        writer.writeStrands(0.0, first);
        writer.writeStrands(kFrame, last);
        writer.close();
    }
    Abc::IArchive archive = openArchive(abc);
    ASSERT_TRUE(archive.valid());
    const Abc::IObject xform = archive.getTop().getChild("hair");
    const Abc::IObject curves = xform.getChild("hairShape");
    ASSERT_TRUE(curves.valid());
    EXPECT_EQ(xform.getMetaData().get("schema"), "AbcGeom_Xform_v3");
    EXPECT_EQ(curves.getMetaData().get("schema"), "AbcGeom_Curve_v2");

    struct Expected {
        const char* name;
        AbcA::PlainOldDataType pod;
        std::uint8_t extent;
        AbcG::GeometryScope scope;
    };
    using enum AbcG::GeometryScope;
    const Expected expected[] = {
        {"groom_version_major", Alembic::Util::kInt32POD, 1, kConstantScope},
        {"groom_version_minor", Alembic::Util::kInt32POD, 1, kConstantScope},
        {"groom_group_name", Alembic::Util::kStringPOD, 1, kConstantScope},
        {"groom_group_id", Alembic::Util::kInt32POD, 1, kUniformScope},
        {"groom_id", Alembic::Util::kInt32POD, 1, kUniformScope},
        {"velmorin_strand_id_low", Alembic::Util::kUint32POD, 1, kUniformScope},
        {"velmorin_strand_id_high", Alembic::Util::kUint32POD, 1, kUniformScope},
        {"groom_width", Alembic::Util::kFloat32POD, 1, kVertexScope},
        {"groom_root_uv", Alembic::Util::kFloat32POD, 2, kUniformScope},
        {"groom_color", Alembic::Util::kFloat32POD, 3, kVertexScope},
        {"groom_roughness", Alembic::Util::kFloat32POD, 1, kUniformScope},
        {"groom_clump_id", Alembic::Util::kInt32POD, 1, kUniformScope},
        {"groom_iridescence", Alembic::Util::kFloat32POD, 1, kVertexScope},
        {"groom_ao", Alembic::Util::kFloat32POD, 1, kVertexScope},
    };
    AbcG::ICurves typed(curves, Abc::kWrapExisting);
    const Abc::ICompoundProperty arb = typed.getSchema().getArbGeomParams();
    ASSERT_EQ(arb.getNumProperties(), std::size(expected));
    const Abc::ISampleSelector lastFrame(kFrame);
    std::map<std::string, AbcA::ArraySamplePtr> samples;
    for (std::size_t i = 0; i < arb.getNumProperties(); ++i) {
        const AbcA::PropertyHeader& header = arb.getPropertyHeader(i);
        SCOPED_TRACE(header.getName());
        EXPECT_EQ(header.getName(), expected[i].name);
        EXPECT_TRUE(header.isArray());
        EXPECT_EQ(header.getDataType().getPod(), expected[i].pod);
        EXPECT_EQ(header.getDataType().getExtent(), expected[i].extent);
        EXPECT_EQ(AbcG::GetGeometryScope(header.getMetaData()), expected[i].scope);
        Abc::IArrayProperty property(arb, header.getName());
        property.get(samples[header.getName()], lastFrame);
    }
    const auto ints = [&](const char* name) {
        const AbcA::ArraySamplePtr& s = samples.at(name);
        const auto* data = static_cast<const std::int32_t*>(s->getData());
        return std::vector<std::int32_t>(data, data + s->size());
    };
    const auto floats = [&](const char* name) {
        const AbcA::ArraySamplePtr& s = samples.at(name);
        const auto* data = static_cast<const float*>(s->getData());
        return std::vector<float>(data, data + s->size() * s->getDataType().getExtent());
    };
    EXPECT_EQ(ints("groom_version_major"), std::vector<std::int32_t>{kGroomVersionMajor});
    EXPECT_EQ(ints("groom_version_minor"), std::vector<std::int32_t>{kGroomVersionMinor});
    EXPECT_EQ(static_cast<const std::string*>(samples.at("groom_group_name")->getData())[0],
              "hair");
    const std::size_t n = last.strandCount();
    std::vector<std::int32_t> groomIds(n), groupIds(n), clumps(n);
    std::vector<float> uvs, colors;
    for (std::size_t i = 0; i < n; ++i) {
        groomIds[i] = static_cast<std::int32_t>(i);
        groupIds[i] = static_cast<std::int32_t>(1 + i % 3);
        clumps[i] = static_cast<std::int32_t>(i % 7) + 1;
        uvs.push_back((*last.strandChannel(kRootUvChannels[0]))[i]);
        uvs.push_back((*last.strandChannel(kRootUvChannels[1]))[i]);
    }
    for (std::size_t p = 0; p < last.pointCount(); ++p)
        for (std::string_view c : channels::kColor)
            colors.push_back((*last.pointChannel(c))[p]);
    EXPECT_EQ(ints("groom_id"), groomIds);
    EXPECT_EQ(ints("groom_group_id"), groupIds);
    EXPECT_EQ(ints("groom_clump_id"), clumps);
    EXPECT_EQ(floats("groom_root_uv"), uvs);
    EXPECT_EQ(floats("groom_color"), colors);
    EXPECT_EQ(floats("groom_width"), values(last.widths()));
    EXPECT_EQ(floats("groom_roughness"), values(last.strandChannel(channels::kRoughness)));
    EXPECT_EQ(floats("groom_iridescence"), values(last.pointChannel(channels::kIridescence)));
    EXPECT_EQ(floats("groom_ao"), values(last.pointChannel(channels::kAmbientOcclusion)));
    const auto* low =
        static_cast<const std::uint32_t*>(samples.at("velmorin_strand_id_low")->getData());
    const auto* high =
        static_cast<const std::uint32_t*>(samples.at("velmorin_strand_id_high")->getData());
    for (std::size_t i = 0; i < n; ++i)
        EXPECT_EQ((std::uint64_t{high[i]} << 32) | low[i], last.ids()[i]);
}

// Optional parameters exist only for the channels the first frame has; without a group channel
// the group id is the group's own (0 without groups).
TEST(AlembicStrandWriter, MakesOptionalParametersOnlyForChannelsOfTheFirstFrame) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("optional.abc");
    const StrandSet plain = test::randomStrands(5, 2);
    {
        AlembicStrandWriter writer(abc);
        writer.writeStrands(0.0, plain);
        writer.writeStrands(1.0, groomStrands(5, 2, 1));
        writer.close();
    }
    Abc::IArchive archive = openArchive(abc);
    AbcG::ICurves curves(archive.getTop().getChild("strands").getChild("strandsShape"),
                         Abc::kWrapExisting);
    const Abc::ICompoundProperty arb = curves.getSchema().getArbGeomParams();
    std::vector<std::string> names;
    for (std::size_t i = 0; i < arb.getNumProperties(); ++i)
        names.push_back(arb.getPropertyHeader(i).getName());
    EXPECT_EQ(names, (std::vector<std::string>{"groom_version_major", "groom_version_minor",
                                               "groom_group_name", "groom_group_id", "groom_id",
                                               "velmorin_strand_id_low", "velmorin_strand_id_high",
                                               "groom_width", "groom_root_uv"}));
    const StrandSet read = AlembicCurvesReader(abc).readStrands(0.0);
    EXPECT_EQ(values(read.strandChannel(channels::kGroupId)), std::vector<float>(5, 0.0f));
    EXPECT_EQ(values(read.strandChannel(kRootUvChannels[0])), std::vector<float>(5, 0.0f));
    EXPECT_EQ(values(read.points()), values(plain.points()));
}

TEST(AlembicStrandWriter, WritesGroupsWithStrandsAndGuidesUnderOneTransformEach) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("groups.abc");
    auto hair = std::make_shared<StrandSet>(groomStrands(20, 5, 0));
    hair->removeStrandChannel(channels::kGroupId);
    auto brows = std::make_shared<StrandSet>(groomStrands(6, 9, 0));
    brows->removeStrandChannel(channels::kGroupId);
    auto hairGuides = std::make_shared<GuideSet>(guidesFromStrands(test::randomStrands(3, 4)));
    const std::vector<AlembicGroup> groups = {{"hair", 1, hair, hairGuides},
                                              {"brows", 2, brows, nullptr}};
    {
        AlembicStrandWriter writer(abc);
        writer.writeGroomGrouped(0.0, groups);
        // A later frame may leave a group out: its curves are empty in that frame.
        writer.writeGroomGrouped(1.0, std::span(groups).first(1));
        writer.close();
    }
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(reader.curvesObjects(),
              (std::vector<std::string>{"/hair/strands_hair", "/hair/guides_hair",
                                        "/brows/strands_brows", "/brows/guides_brows"}));
    const StrandSet browsRead = reader.readStrands(0.0, "strands_brows");
    EXPECT_EQ(values(browsRead.ids()), values(brows->ids()));
    EXPECT_EQ(values(browsRead.strandChannel(channels::kGroupId)), std::vector<float>(6, 2.0f));
    EXPECT_EQ(reader.readStrands(1.0, "strands_brows").strandCount(), 0u);
    const StrandSet guidesRead = reader.readStrands(0.0, "guides_hair");
    EXPECT_EQ(values(guidesRead.points()), values(strandsFromGuides(*hairGuides).points()));
    // A group's name keeps the strands and the guides under its transform.
    EXPECT_EQ(reader.readStrands(0.0, "hair").strandCount(), 23u);
    EXPECT_EQ(reader.readStrands(0.0, "/hair/strands_hair").strandCount(), 20u);

    Abc::IArchive archive = openArchive(abc);
    for (const char* path : {"hair/strands_hair", "hair/guides_hair", "brows/strands_brows"}) {
        SCOPED_TRACE(path);
        const std::string text(path);
        const std::string group = text.substr(0, text.find('/'));
        AbcG::ICurves curves(
            archive.getTop().getChild(group).getChild(text.substr(group.size() + 1)),
            Abc::kWrapExisting);
        const Abc::ICompoundProperty arb = curves.getSchema().getArbGeomParams();
        AbcG::IStringGeomParam name(arb, "groom_group_name");
        EXPECT_EQ((*name.getExpandedValue().getVals())[0], group);
        const bool guide = text.find("guides_") != std::string::npos;
        ASSERT_EQ(arb.getPropertyHeader("groom_guide") != nullptr, guide);
        if (guide) {
            EXPECT_EQ((*AbcG::IInt32GeomParam(arb, "groom_guide").getExpandedValue().getVals())[0],
                      1);
        }
    }
    // groom_id runs on across the frame's objects: the hair's guides follow its 20 strands.
    AbcG::ICurves guides(archive.getTop().getChild("hair").getChild("guides_hair"),
                         Abc::kWrapExisting);
    AbcG::IInt32GeomParam groomId(guides.getSchema().getArbGeomParams(), "groom_id");
    EXPECT_EQ((*groomId.getExpandedValue(Abc::ISampleSelector(0.0)).getVals())[0], 20);
}

TEST(AlembicStrandWriter, WritesInTheSpaceSetBeforeTheFirstFrame) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("space.abc");
    StrandSet set;
    const Vec3f points[] = {{1, 2, 3}, {4, 5, 6}};
    const float widths[] = {0.5f, 0.25f};
    set.addStrand(7, {}, points, widths);
    {
        AlembicStrandWriter writer(abc);
        writer.setSpace("Z", 100.0);
        writer.writeStrands(0.0, set);
        writer.writeStrands(1.0, StrandSet());  // an empty set writes an empty sample
        // Frames need not be evenly spaced: the times are kept as they were given.
        writer.writeStrands(5.5, set);
        writer.close();
    }
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(reader.sampleTimes(), (std::vector<double>{0.0, 1.0, 5.5}));
    EXPECT_EQ(reader.readStrands(5.5).pointCount(), 2u);
    const StrandSet read = reader.readStrands(0.0);
    ASSERT_EQ(read.pointCount(), 2u);
    EXPECT_FLOAT_EQ(read.points()[0].x, 0.01f);
    EXPECT_FLOAT_EQ(read.points()[0].y, -0.03f);
    EXPECT_FLOAT_EQ(read.points()[0].z, 0.02f);
    EXPECT_FLOAT_EQ(read.widths()[1], 0.0025f);
    EXPECT_EQ(reader.readStrands(1.0).strandCount(), 0u);
    EXPECT_EQ(reader.readStrands(1.0).pointCount(), 0u);
}

TEST(AlembicStrandWriter, RefusesMisuseWithItsMessagesAndWritesNothing) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("messages.abc");
    const StrandSet set = test::randomStrands(4, 1);
    auto strands = std::make_shared<const StrandSet>(set);
    const std::vector<AlembicGroup> sameName = {{"hair", 1, strands, {}}, {"hair", 2, strands, {}}};
    const std::vector<AlembicGroup> sameId = {{"hair", 3, strands, {}}, {"brows", 3, strands, {}}};
    const std::vector<AlembicGroup> one = {{"hair", 1, strands, {}}};
    const GuideSet guides;

    struct Case {
        const char* what;
        std::function<void(AlembicStrandWriter&)> before;
        std::function<void(AlembicStrandWriter&)> call;
        std::string message;
    };
    const auto nothing = [](AlembicStrandWriter&) {};
    const auto ungrouped = [&](AlembicStrandWriter& w) { w.writeStrands(0.0, set); };
    const auto grouped = [&](AlembicStrandWriter& w) { w.writeStrandsGrouped(0.0, one); };
    const auto closed = [](AlembicStrandWriter& w) { w.close(); };
    const Case cases[] = {
        {"one name twice", nothing, [&](auto& w) { w.writeStrandsGrouped(0.0, sameName); },
         "two groups named 'hair'"},
        {"one id twice", nothing, [&](auto& w) { w.writeGroomGrouped(0.0, sameId); },
         "two groups with the id 3"},
        {"strands after groups", grouped, [&](auto& w) { w.writeStrands(1.0, set); },
         "the strands were written in groups"},
        {"groups after strands", ungrouped, [&](auto& w) { w.writeStrandsGrouped(1.0, one); },
         "the strands were written without groups"},
        {"groom after groups", grouped, [&](auto& w) { w.writeGroom(1.0, set, guides); },
         "the groom was written in groups"},
        {"groom groups after strands", ungrouped, [&](auto& w) { w.writeGroomGrouped(1.0, one); },
         "the groom was written without groups"},
        {"space after a frame", ungrouped, [](auto& w) { w.setSpace("Y", 1.0); },
         "the space is set before the first frame"},
        {"closed: strands", closed, [&](auto& w) { w.writeStrands(0.0, set); }, "writer is closed"},
        {"closed: groups", closed, [&](auto& w) { w.writeStrandsGrouped(0.0, one); },
         "writer is closed"},
        {"closed: groom", closed, [&](auto& w) { w.writeGroom(0.0, set, guides); },
         "writer is closed"},
        {"closed: groom groups", closed, [&](auto& w) { w.writeGroomGrouped(0.0, one); },
         "writer is closed"},
        {"closed: space", closed, [](auto& w) { w.setSpace("Y", 1.0); }, "writer is closed"},
        {"closed: close", closed, [](auto& w) { w.close(); }, "writer is closed"},
        {"unknown group later", grouped,
         [&](auto& w) {
             w.writeStrandsGrouped(1.0, std::vector<AlembicGroup>{{"beard", 4, strands, {}}});
         },
         "the group 'beard' was not in the first frame, which fixes the groups"},
        {"guides later", ungrouped, [&](auto& w) { w.writeGroom(1.0, set, guides); },
         "the first frame was written without guides"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        AlembicStrandWriter writer(abc);
        c.before(writer);
        const std::size_t frames = writer.frameCount();
        EXPECT_EQ(messageOf<AlembicError>([&] { c.call(writer); }), c.message);
        EXPECT_EQ(writer.frameCount(), frames);
    }

    AlembicStrandWriter writer(abc);
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { writer.setSpace("X", 1.0); }),
              "the up axis is \"Y\" or \"Z\", not \"X\"");
    for (double cm : {0.0, -1.0, std::nan(""), HUGE_VAL})
        EXPECT_EQ(messageOf<std::invalid_argument>([&] { writer.setSpace("Z", cm); }),
                  "the centimeters per unit must be positive");
    for (const char* name : {"", "a/b"})
        EXPECT_EQ(messageOf<std::invalid_argument>([&] {
                      writer.writeStrandsGrouped(0.0, std::vector<AlembicGroup>{{name, 1, {}, {}}});
                  }),
                  "writeStrandsGrouped: a group needs a name without '/'");
    writer.writeStrands(2.0, set);
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { writer.writeStrands(2.0, set); }),
              "writeStrands: frames are written in order, each after the last");
    // The refused calls changed nothing: one frame, in the engine's space.
    writer.close();
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(reader.sampleTimes(), std::vector<double>{2.0});
    EXPECT_EQ(values(reader.readStrands(2.0).points()), values(set.points()));
}

// Writes curves through the library directly, as another program might, with `counts` for the
// points given and widths of any scope.
void writeRawCurves(const std::string& path, const std::vector<Imath::V3f>& points,
                    const std::vector<std::int32_t>& counts, const std::vector<float>& widths = {},
                    AbcG::GeometryScope scope = AbcG::kVertexScope) {
    Abc::OArchive archive(Alembic::AbcCoreOgawa::WriteArchive(), path);
    AbcG::OCurves curves(archive.getTop(), "raw");
    AbcG::OFloatGeomParam::Sample widthSample;
    if (!widths.empty()) widthSample = AbcG::OFloatGeomParam::Sample(widths, scope);
    curves.getSchema().set(AbcG::OCurvesSchema::Sample(Abc::P3fArraySample(points),
                                                       Abc::Int32ArraySample(counts), AbcG::kLinear,
                                                       AbcG::kNonPeriodic, widthSample));
}

// Other programs write widths per point, per curve or once; every point gets its width.
TEST(AlembicCurvesReader, GivesEveryPointItsWidthWhateverTheScope) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("widths.abc");
    const std::vector<Imath::V3f> four(4, Imath::V3f(0.0f));
    struct Case {
        std::vector<float> widths;
        AbcG::GeometryScope scope;
        std::vector<float> expected;
    };
    const Case cases[] = {
        {{1, 2, 3, 4}, AbcG::kVertexScope, {1, 2, 3, 4}},
        {{5, 6}, AbcG::kUniformScope, {5, 6, 6, 6}},
        {{7}, AbcG::kConstantScope, {7, 7, 7, 7}},
        {{}, AbcG::kVertexScope, {1, 1, 1, 1}},
    };
    for (const Case& c : cases) {
        writeRawCurves(abc, four, {1, 3}, c.widths, c.scope);
        EXPECT_EQ(values(AlembicCurvesReader(abc).readStrands(0.0).widths()), c.expected);
    }
    writeRawCurves(abc, four, {1, 3}, {1, 2, 3}, AbcG::kVertexScope);
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(messageOf<AlembicError>([&] { reader.readStrands(0.0); }),
              abc + ": the parameter 'width' holds 3 values for 2 curves of 4 points");
}

TEST(AlembicCurvesReader, RefusesFilesAndSamplesThatMakeNoSenseNamingTheFile) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("reader.abc");
    const std::vector<Imath::V3f> four(4, Imath::V3f(0.0f));
    struct Case {
        std::vector<std::int32_t> counts;
        std::string message;
    };
    const Case cases[] = {
        {{2, 3}, ": the vertex counts add up to 5 points but the sample holds 4"},
        {{2, -1, 3}, ": curve 1 has a negative vertex count"},
    };
    for (const Case& c : cases) {
        writeRawCurves(abc, four, c.counts);
        const AlembicCurvesReader reader(abc);
        EXPECT_EQ(messageOf<AlembicError>([&] { reader.readStrands(0.0); }), abc + c.message);
    }
    writeRawCurves(abc, four, {1, 3});
    const AlembicCurvesReader reader(abc);
    EXPECT_EQ(reader.readStrands(0.0).strandCount(), 2u);
    EXPECT_EQ(values(reader.readStrands(0.0).ids()), (std::vector<std::uint64_t>{0, 1}));
    EXPECT_EQ(messageOf<AlembicError>([&] { reader.readStrands(0.0, "beard"); }),
              abc + ": no curves named 'beard'");
    EXPECT_FALSE(reader.hasStrandIds());

    const std::string missing = abc + ".missing";
    EXPECT_EQ(messageOf<AlembicError>([&] { AlembicCurvesReader{missing}; }),
              missing + ": cannot open the file");
    EXPECT_EQ(messageOf<AlembicError>([&] { AlembicCurvesReader("text", "not alembic at all"); }),
              "text: not an Alembic (Ogawa) file");
    std::string unfinished = readBytes(abc);
    unfinished[5] = 0;
    EXPECT_EQ(messageOf<AlembicError>([&] { AlembicCurvesReader("cut", unfinished); }),
              "cut: the file was not finished (its writer did not close it)");
}

// Any file cut short, at any length, is refused with a message; none reaches past its end.
TEST(AlembicCurvesReader, RefusesEveryFileCutShort) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("cut.abc");
    {
        AlembicStrandWriter writer(abc);
        writer.writeStrands(0.0, groomStrands(3, 8, 0));
        writer.close();
    }
    const std::string bytes = readBytes(abc);
    ASSERT_GT(bytes.size(), 100u);
    EXPECT_EQ(AlembicCurvesReader("whole", bytes).readStrands(0.0).strandCount(), 3u);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::string message = messageOf<AlembicError>([&] {
            AlembicCurvesReader reader("cut", bytes.substr(0, size));
            reader.readStrands(0.0);
        });
        ASSERT_EQ(message.rfind("cut: ", 0), 0u) << size << ": " << message;
    }
}

TEST(GuideCacheReader, ReadsGuidesAndPosesThemById) {
    const test::TempFolder folder("alembic");
    const std::string abc = folder.file("guides.abc");
    StrandSet first = test::randomStrands(4, 6);
    StrandSet later = first;
    for (Vec3f& p : later.writePoints())
        p.x += 1.0f;
    {
        AlembicStrandWriter writer(abc);
        GuideSet none;
        writer.writeGroom(0.0, StrandSet(), guidesFromStrands(first));
        writer.writeGroom(1.0, StrandSet(), guidesFromStrands(later));
        writer.close();
    }
    const GuideCacheReader cache(abc, "strands_guides");
    const GuideSet read = cache.guides(1.0);
    ASSERT_EQ(read.guides.size(), 4u);
    for (std::size_t g = 0; g < 4; ++g) {
        EXPECT_EQ(read.guides[g].id, later.ids()[g]);
        EXPECT_EQ(values(std::span<const Vec3f>(read.guides[g].points)),
                  values(later.strandPoints(g)));
    }
    // Posing takes each guide's curve by id, whatever the order; unknown guides keep their points.
    GuideSet mine = guidesFromStrands(first);
    std::swap(mine.guides[0], mine.guides[3]);
    mine.guides.push_back(mine.guides[1]);
    mine.guides.back().id = 999;
    const GuideSet posed = cache.pose(mine, 1.0);
    EXPECT_EQ(values(std::span<const Vec3f>(posed.guides[0].points)),
              values(later.strandPoints(3)));
    EXPECT_EQ(values(std::span<const Vec3f>(posed.guides[3].points)),
              values(later.strandPoints(0)));
    EXPECT_EQ(values(std::span<const Vec3f>(posed.guides[4].points)),
              values(first.strandPoints(1)));
    EXPECT_EQ(messageOf<AlembicError>([&] { GuideCacheReader(abc, "beard").guides(0.0); }),
              abc + ": no curves named 'beard'");
}

}  // namespace
}  // namespace velmorin
