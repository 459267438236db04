#include "alembic/alembic_strand_writer.h"

#include "alembic/alembic_error.h"
#include "base/parallel.h"
#include "strands/channel_names.h"
#include "strands/guide_conversion.h"

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>

#include <cmath>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <vector>

namespace velmorin {
namespace {

namespace Abc = Alembic::Abc;
namespace AbcA = Alembic::AbcCoreAbstract;
namespace AbcG = Alembic::AbcGeom;

constexpr std::size_t kGrain = 1 << 14;

static_assert(sizeof(Imath::V3f) == sizeof(Vec3f) && sizeof(Imath::V2f) == 2 * sizeof(float) &&
                  sizeof(Imath::C3f) == 3 * sizeof(float),
              "points and colours are handed to the library as they lie in memory");

// The form a writer is fixed to by its first frame.
enum class Form { kNone, kUngrouped, kGrouped };

// The channel of `name` on either level, read per point or per strand.
struct ChannelSource {
    const std::vector<float>* perPoint = nullptr;
    const std::vector<float>* perStrand = nullptr;

    explicit ChannelSource(const StrandSet& set, std::string_view name)
        : perPoint(set.pointChannel(name)), perStrand(set.strandChannel(name)) {}
    bool present() const { return perPoint != nullptr || perStrand != nullptr; }
};

// Per point values of a channel (a strand channel repeated along its strand), or 0 without it,
// into every `stride`-th entry of `out` from `first`: colours are interleaved straight from their
// three channels.
void pointValues(const StrandSet& set, std::string_view name, std::vector<float>& out,
                 std::size_t stride = 1, std::size_t first = 0) {
    const ChannelSource source(set, name);
    out.resize(set.pointCount() * stride);
    const auto offsets = set.offsets();
    parallelRange(0, set.strandCount(), kGrain / 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const float strandValue = source.perStrand != nullptr ? (*source.perStrand)[s] : 0.0f;
            for (std::size_t p = offsets[s]; p < offsets[s + 1]; ++p)
                out[p * stride + first] =
                    source.perPoint != nullptr ? (*source.perPoint)[p] : strandValue;
        }
    });
}

// Per strand values of a channel (a point channel read at the root), or 0 without it.
void strandValues(const StrandSet& set, std::string_view name, std::vector<float>& out) {
    const ChannelSource source(set, name);
    out.resize(set.strandCount());
    if (source.perStrand != nullptr) {
        out.assign(source.perStrand->begin(), source.perStrand->end());
        return;
    }
    const auto offsets = set.offsets();
    for (std::size_t s = 0; s < out.size(); ++s)
        out[s] = source.perPoint != nullptr && offsets[s + 1] > offsets[s]
                     ? (*source.perPoint)[offsets[s]]
                     : 0.0f;
}

// The group number of a channel value: lroundf, with values below 1 or not finite giving 0.
std::int32_t groupNumber(float value) {
    if (!std::isfinite(value) || value < 1.0f || value > 2147483520.0f) return 0;
    return static_cast<std::int32_t>(std::lroundf(value));
}

std::int32_t clumpNumber(float value) {
    if (!std::isfinite(value) || std::fabs(value) > 2147483520.0f) return 0;
    return static_cast<std::int32_t>(std::lroundf(value));
}

// A sample of `values` that is valid even when empty: the library takes a null array for "the
// same as the last sample", so an empty frame must still point somewhere.
template <class T, class Sample>
Sample arraySample(const T* data, std::size_t count) {
    static const T kNothing{};
    return Sample(count == 0 ? &kNothing : data, count);
}

template <class Traits, class T>
void setParam(AbcG::OTypedGeomParam<Traits>& param, const T* data, std::size_t count) {
    using Value = typename Traits::value_type;
    using Sample = typename AbcG::OTypedGeomParam<Traits>::Sample;
    param.set(Sample(arraySample<Value, Abc::TypedArraySample<Traits>>(
                         reinterpret_cast<const Value*>(data), count),
                     param.getScope()));
}

// One curves object with its parameters, made at the first frame it is written.
struct CurvesObject {
    AbcG::OXform xform;
    AbcG::OCurves curves;
    std::string groupName;
    std::int32_t groupId = 0;
    bool guide = false;

    AbcG::OInt32GeomParam versionMajor;
    AbcG::OInt32GeomParam versionMinor;
    AbcG::OStringGeomParam groomGroupName;
    AbcG::OInt32GeomParam groomGroupId;
    AbcG::OInt32GeomParam groomId;
    AbcG::OUInt32GeomParam idLow;
    AbcG::OUInt32GeomParam idHigh;
    AbcG::OFloatGeomParam width;
    AbcG::OV2fGeomParam rootUv;
    AbcG::OC3fGeomParam color;
    AbcG::OFloatGeomParam roughness;
    AbcG::OInt32GeomParam clumpId;
    AbcG::OFloatGeomParam iridescence;
    AbcG::OFloatGeomParam ao;
    AbcG::OInt32GeomParam groomGuide;
};

// Reused from frame to frame, so that a frame allocates nothing once the first has sized them.
struct Scratch {
    std::vector<std::int32_t> counts;
    std::vector<Vec3f> points;
    std::vector<float> widths;
    std::vector<std::int32_t> groupIds;
    std::vector<std::int32_t> groomIds;
    std::vector<std::uint32_t> idLow;
    std::vector<std::uint32_t> idHigh;
    std::vector<float> rootUv;
    std::vector<float> channel;
    std::vector<std::int32_t> ints;
};

bool hasColor(const StrandSet& set) {
    for (std::string_view name : channels::kColor)
        if (ChannelSource(set, name).present()) return true;
    return false;
}

}  // namespace

struct AlembicStrandWriter::Impl {
    std::string path;
    std::string tmpPath;
    std::string objectName;
    std::optional<Abc::OArchive> archive;
    bool closed = false;
    std::size_t frames = 0;
    std::string upAxis = "Y";
    double centimetersPerUnit = 1.0;
    std::uint32_t timeSampling = 0;
    std::vector<double> times;
    Form form = Form::kNone;
    bool withGuides = false;
    // Ungrouped: the strands object, then the guides object. Grouped: per group in first-frame
    // order, its strands object, then its guides object.
    std::vector<std::unique_ptr<CurvesObject>> objects;
    std::vector<std::string> groupNames;
    Scratch scratch;

    void checkOpen() const {
        if (closed) throw AlembicError("writer is closed");
    }

    void checkTime(const char* operation, double frameTime) const {
        if (!std::isfinite(frameTime))
            throw std::invalid_argument(std::string(operation) + ": the frame time must be finite");
        if (!times.empty() && frameTime <= times.back())
            throw std::invalid_argument(std::string(operation) +
                                        ": frames are written in order, each after the last");
    }

    static void checkSet(const char* operation, const StrandSet& set) {
        std::string message;
        if (!set.validate(message))
            throw std::invalid_argument(std::string(operation) + ": " + message);
    }

    // The frame's time joins the time sampling, which the archive stores when it ends: uniform
    // while the frames are evenly spaced, else the list of times.
    void addTime(double frameTime) {
        if (times.empty()) {
            const AbcA::TimeSampling first(AbcA::TimeSamplingType(AbcA::TimeSamplingType::kAcyclic),
                                           std::vector<double>{frameTime});
            timeSampling = archive->addTimeSampling(first);
        }
        times.push_back(frameTime);
        const double step = times.size() > 1 ? times[1] - times[0] : 1.0;
        bool uniform = true;
        for (std::size_t i = 1; i < times.size() && uniform; ++i)
            uniform = std::fabs(times[i] - (times[0] + step * static_cast<double>(i))) <=
                      1e-9 * std::max(1.0, std::fabs(times[i]));
        *archive->getTimeSampling(timeSampling) =
            uniform ? AbcA::TimeSampling(step, times[0])
                    : AbcA::TimeSampling(AbcA::TimeSamplingType(AbcA::TimeSamplingType::kAcyclic),
                                         times);
    }

    std::unique_ptr<CurvesObject> makeObject(const std::string& xformName,
                                             const std::string& curvesName,
                                             const std::string& groupName, std::int32_t groupId,
                                             bool guide, const StrandSet& first,
                                             const AbcG::OXform* sharedXform = nullptr) {
        auto object = std::make_unique<CurvesObject>();
        object->groupName = groupName;
        object->groupId = groupId;
        object->guide = guide;
        if (sharedXform != nullptr) {
            object->xform = *sharedXform;
        } else {
            object->xform = AbcG::OXform(archive->getTop(), xformName);
            AbcG::XformSample identity;
            object->xform.getSchema().set(identity);
        }
        object->curves = AbcG::OCurves(object->xform, curvesName, timeSampling);
        Abc::OCompoundProperty arb = object->curves.getSchema().getArbGeomParams();
        const auto constant = AbcG::kConstantScope;
        const auto uniform = AbcG::kUniformScope;
        const auto vertex = AbcG::kVertexScope;
        // The parameters in the order engines expect them; the optional ones only when the first
        // frame has their channel.
        object->versionMajor =
            AbcG::OInt32GeomParam(arb, "groom_version_major", false, constant, 1);
        object->versionMinor =
            AbcG::OInt32GeomParam(arb, "groom_version_minor", false, constant, 1);
        object->groomGroupName =
            AbcG::OStringGeomParam(arb, "groom_group_name", false, constant, 1);
        object->groomGroupId =
            AbcG::OInt32GeomParam(arb, "groom_group_id", false, uniform, 1, timeSampling);
        object->groomId = AbcG::OInt32GeomParam(arb, "groom_id", false, uniform, 1, timeSampling);
        object->idLow =
            AbcG::OUInt32GeomParam(arb, "velmorin_strand_id_low", false, uniform, 1, timeSampling);
        object->idHigh =
            AbcG::OUInt32GeomParam(arb, "velmorin_strand_id_high", false, uniform, 1, timeSampling);
        object->width = AbcG::OFloatGeomParam(arb, "groom_width", false, vertex, 1, timeSampling);
        object->rootUv = AbcG::OV2fGeomParam(arb, "groom_root_uv", false, uniform, 1, timeSampling);
        if (hasColor(first))
            object->color = AbcG::OC3fGeomParam(arb, "groom_color", false, vertex, 1, timeSampling);
        if (ChannelSource(first, channels::kRoughness).present())
            object->roughness =
                AbcG::OFloatGeomParam(arb, "groom_roughness", false, uniform, 1, timeSampling);
        if (ChannelSource(first, channels::kClumpId).present())
            object->clumpId =
                AbcG::OInt32GeomParam(arb, "groom_clump_id", false, uniform, 1, timeSampling);
        if (ChannelSource(first, channels::kIridescence).present())
            object->iridescence =
                AbcG::OFloatGeomParam(arb, "groom_iridescence", false, vertex, 1, timeSampling);
        if (ChannelSource(first, channels::kAmbientOcclusion).present())
            object->ao = AbcG::OFloatGeomParam(arb, "groom_ao", false, vertex, 1, timeSampling);
        // Unreal takes curves without this mark for hair to render, so guides carry it.
        if (guide)
            object->groomGuide = AbcG::OInt32GeomParam(arb, "groom_guide", false, constant, 1);

        const std::int32_t major = kGroomVersionMajor;
        const std::int32_t minor = kGroomVersionMinor;
        setParam(object->versionMajor, &major, 1);
        setParam(object->versionMinor, &minor, 1);
        setParam(object->groomGroupName, &object->groupName, 1);
        if (guide) {
            const std::int32_t one = 1;
            setParam(object->groomGuide, &one, 1);
        }
        return object;
    }

    // Writes one sample of `set` into `object`; `firstGroomId` is the running number of its first
    // strand in this frame.
    void writeObject(CurvesObject& object, const StrandSet& set, std::int32_t firstGroomId) {
        Scratch& s = scratch;
        const std::size_t strandCount = set.strandCount();
        const std::size_t pointCount = set.pointCount();
        const auto offsets = set.offsets();
        const auto ids = set.ids();

        s.counts.resize(strandCount);
        s.groomIds.resize(strandCount);
        s.idLow.resize(strandCount);
        s.idHigh.resize(strandCount);
        s.groupIds.resize(strandCount);
        s.rootUv.resize(2 * strandCount);
        const std::vector<float>* groupChannel = set.strandChannel(channels::kGroupId);
        const std::vector<float>* rootU = set.strandChannel(kRootUvChannels[0]);
        const std::vector<float>* rootV = set.strandChannel(kRootUvChannels[1]);
        parallelRange(0, strandCount, kGrain, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                s.counts[i] = static_cast<std::int32_t>(offsets[i + 1] - offsets[i]);
                s.groomIds[i] = firstGroomId + static_cast<std::int32_t>(i);
                s.idLow[i] = static_cast<std::uint32_t>(ids[i]);
                s.idHigh[i] = static_cast<std::uint32_t>(ids[i] >> 32);
                s.groupIds[i] =
                    groupChannel != nullptr ? groupNumber((*groupChannel)[i]) : object.groupId;
                s.rootUv[2 * i] = rootU != nullptr ? (*rootU)[i] : 0.0f;
                s.rootUv[2 * i + 1] = rootV != nullptr ? (*rootV)[i] : 0.0f;
            }
        });

        // Positions and widths go to the library straight from the set unless the space changes
        // them.
        const Vec3f* points = set.points().data();
        const float* widths = set.widths().data();
        const bool zUp = upAxis == "Z";
        if (zUp || centimetersPerUnit != 1.0) {
            const float scale = static_cast<float>(1.0 / centimetersPerUnit);
            const auto source = set.points();
            const auto sourceWidths = set.widths();
            s.points.resize(pointCount);
            s.widths.resize(pointCount);
            parallelRange(0, pointCount, kGrain, [&](std::size_t begin, std::size_t end) {
                for (std::size_t p = begin; p < end; ++p) {
                    const Vec3f v = source[p] * scale;
                    s.points[p] = zUp ? Vec3f{v.x, -v.z, v.y} : v;
                    s.widths[p] = sourceWidths[p] * scale;
                }
            });
            points = s.points.data();
            widths = s.widths.data();
        }

        const StrandSet::Extent extent = set.bounds();
        Abc::Box3d bounds;
        if (strandCount > 0 && extent.finite && extent.min.x <= extent.max.x) {
            // The extent's corners in the file's space: a turn about x swaps y and z.
            const double scale = 1.0 / centimetersPerUnit;
            const Vec3f lo = extent.min;
            const Vec3f hi = extent.max;
            bounds.min = zUp ? Imath::V3d(lo.x, -hi.z, lo.y) : Imath::V3d(lo.x, lo.y, lo.z);
            bounds.max = zUp ? Imath::V3d(hi.x, -lo.z, hi.y) : Imath::V3d(hi.x, hi.y, hi.z);
            bounds.min *= scale;
            bounds.max *= scale;
        }

        const auto positions = arraySample<Imath::V3f, Abc::P3fArraySample>(
            reinterpret_cast<const Imath::V3f*>(points), pointCount);
        const auto counts =
            arraySample<std::int32_t, Abc::Int32ArraySample>(s.counts.data(), strandCount);
        const AbcG::OFloatGeomParam::Sample widthSample(
            arraySample<float, Abc::FloatArraySample>(widths, pointCount), AbcG::kVertexScope);
        const AbcG::OV2fGeomParam::Sample uvSample(
            arraySample<Imath::V2f, Abc::V2fArraySample>(
                reinterpret_cast<const Imath::V2f*>(s.rootUv.data()), strandCount),
            AbcG::kUniformScope);
        AbcG::OCurvesSchema::Sample sample(positions, counts, AbcG::kLinear, AbcG::kNonPeriodic,
                                           widthSample, uvSample, AbcG::ON3fGeomParam::Sample(),
                                           AbcG::kNoBasis);
        if (!bounds.isEmpty()) sample.setSelfBounds(bounds);
        object.curves.getSchema().set(sample);

        setParam(object.groomGroupId, s.groupIds.data(), strandCount);
        setParam(object.groomId, s.groomIds.data(), strandCount);
        setParam(object.idLow, s.idLow.data(), strandCount);
        setParam(object.idHigh, s.idHigh.data(), strandCount);
        setParam(object.width, widths, pointCount);
        setParam(object.rootUv, s.rootUv.data(), strandCount);
        if (object.color.valid()) {
            // The interleaved colours come from the shared pool, so that writer after writer
            // reuses one array instead of faulting in fresh memory for every frame.
            const ArrayPtr<float> color =
                ArrayPool<float>::instance().makeForOverwrite(3 * pointCount);
            for (std::size_t c = 0; c < 3; ++c)
                pointValues(set, channels::kColor[c], *color, 3, c);
            setParam(object.color, color->data(), pointCount);
        }
        if (object.roughness.valid()) {
            strandValues(set, channels::kRoughness, s.channel);
            setParam(object.roughness, s.channel.data(), strandCount);
        }
        if (object.clumpId.valid()) {
            strandValues(set, channels::kClumpId, s.channel);
            s.ints.resize(strandCount);
            for (std::size_t i = 0; i < strandCount; ++i)
                s.ints[i] = clumpNumber(s.channel[i]);
            setParam(object.clumpId, s.ints.data(), strandCount);
        }
        writePointChannel(object.iridescence, set, channels::kIridescence);
        writePointChannel(object.ao, set, channels::kAmbientOcclusion);
    }

    // A vertex parameter from a channel: a point channel goes to the library as it is.
    void writePointChannel(AbcG::OFloatGeomParam& param, const StrandSet& set,
                           std::string_view name) {
        if (!param.valid()) return;
        if (const std::vector<float>* channel = set.pointChannel(name)) {
            setParam(param, channel->data(), channel->size());
            return;
        }
        pointValues(set, name, scratch.channel);
        setParam(param, scratch.channel.data(), scratch.channel.size());
    }

    void checkForm(Form wanted, const char* message) const {
        if (form != Form::kNone && form != wanted) throw AlembicError(message);
    }

    // Checks a grouped frame before anything is written: names and ids unique, every group known
    // to the first frame (after it), every set valid.
    void checkGroups(const char* operation, std::span<const AlembicGroup> groups) const {
        for (std::size_t i = 0; i < groups.size(); ++i) {
            const AlembicGroup& group = groups[i];
            // The library takes "/" for the path between objects.
            if (group.name.empty() || group.name.find('/') != std::string::npos)
                throw std::invalid_argument(std::string(operation) +
                                            ": a group needs a name without '/'");
            for (std::size_t j = 0; j < i; ++j) {
                if (groups[j].name == group.name)
                    throw AlembicError("two groups named '" + group.name + "'");
                if (groups[j].id == group.id)
                    throw AlembicError("two groups with the id " + std::to_string(group.id));
            }
            if (frames > 0 &&
                std::find(groupNames.begin(), groupNames.end(), group.name) == groupNames.end())
                throw AlembicError("the group '" + group.name +
                                   "' was not in the first frame, which fixes the groups");
            if (group.strands != nullptr) checkSet(operation, *group.strands);
        }
    }

    // Runs one frame's writing, wrapping what the library throws.
    template <class Body>
    void writeFrame(double frameTime, Body&& body) {
        try {
            addTime(frameTime);
            body();
        } catch (const AlembicError&) {
            throw;
        } catch (const std::exception& error) {
            throw AlembicError(std::string("cannot write frame: ") + error.what());
        }
        ++frames;
    }

    void writeUngrouped(double frameTime, const StrandSet& strands, const GuideSet* guides) {
        writeFrame(frameTime, [&] {
            if (objects.empty()) {
                objects.push_back(
                    makeObject(objectName, objectName + "Shape", objectName, 0, false, strands));
                if (guides != nullptr) {
                    withGuides = true;
                    const StrandSet guideStrands = strandsFromGuides(*guides);
                    const std::string name = objectName + "_guides";
                    objects.push_back(
                        makeObject(name, name + "Shape", objectName, 0, true, guideStrands));
                }
            }
            writeObject(*objects[0], strands, 0);
            if (withGuides) {
                const StrandSet guideStrands =
                    guides != nullptr ? strandsFromGuides(*guides) : StrandSet();
                writeObject(*objects[1], guideStrands,
                            static_cast<std::int32_t>(strands.strandCount()));
            }
        });
    }

    void writeGrouped(double frameTime, std::span<const AlembicGroup> groups, bool groom) {
        writeFrame(frameTime, [&] {
            static const StrandSet kEmpty;
            if (objects.empty()) {
                withGuides = groom;
                for (const AlembicGroup& group : groups) {
                    groupNames.push_back(group.name);
                    const StrandSet& strands = group.strands ? *group.strands : kEmpty;
                    objects.push_back(makeObject(group.name, "strands_" + group.name, group.name,
                                                 group.id, false, strands));
                    if (groom) {
                        const StrandSet guideStrands =
                            group.guides ? strandsFromGuides(*group.guides) : StrandSet();
                        // The guides' curves sit beside the strands', under the group's transform.
                        const AbcG::OXform xform = objects.back()->xform;
                        objects.push_back(makeObject(group.name, "guides_" + group.name, group.name,
                                                     group.id, true, guideStrands, &xform));
                    }
                }
            }
            const std::size_t perGroup = withGuides ? 2 : 1;
            std::int32_t running = 0;
            for (std::size_t g = 0; g < groupNames.size(); ++g) {
                const AlembicGroup* group = nullptr;
                for (const AlembicGroup& candidate : groups)
                    if (candidate.name == groupNames[g]) group = &candidate;
                const StrandSet& strands =
                    group != nullptr && group->strands ? *group->strands : kEmpty;
                writeObject(*objects[g * perGroup], strands, running);
                running += static_cast<std::int32_t>(strands.strandCount());
                if (withGuides) {
                    const StrandSet guideStrands = group != nullptr && group->guides
                                                       ? strandsFromGuides(*group->guides)
                                                       : StrandSet();
                    writeObject(*objects[g * perGroup + 1], guideStrands, running);
                    running += static_cast<std::int32_t>(guideStrands.strandCount());
                }
            }
        });
    }
};

AlembicStrandWriter::AlembicStrandWriter(const std::string& path, std::string objectName)
    : impl_(std::make_unique<Impl>()) {
    impl_->path = path;
    impl_->tmpPath = path + ".tmp";
    impl_->objectName = std::move(objectName);
    if (impl_->objectName.empty() || impl_->objectName.find('/') != std::string::npos)
        throw std::invalid_argument("AlembicStrandWriter: the object needs a name without '/'");
    try {
        impl_->archive = Abc::CreateArchiveWithInfo(Alembic::AbcCoreOgawa::WriteArchive(),
                                                    impl_->tmpPath, "Velmorin", "hair curves");
    } catch (const std::exception& error) {
        throw AlembicError("cannot write '" + path + "': " + error.what());
    }
}

AlembicStrandWriter::~AlembicStrandWriter() {
    if (impl_ && !impl_->closed) {
        try {
            close();
        } catch (...) {
            // A destructor cannot report; the ".tmp" file stays behind for the user to find.
        }
    }
}

void AlembicStrandWriter::setSpace(const std::string& upAxis, double centimetersPerUnit) {
    impl_->checkOpen();
    if (upAxis != "Y" && upAxis != "Z")
        throw std::invalid_argument("the up axis is \"Y\" or \"Z\", not \"" + upAxis + "\"");
    if (!std::isfinite(centimetersPerUnit) || centimetersPerUnit <= 0.0)
        throw std::invalid_argument("the centimeters per unit must be positive");
    if (impl_->frames > 0) throw AlembicError("the space is set before the first frame");
    impl_->upAxis = upAxis;
    impl_->centimetersPerUnit = centimetersPerUnit;
}

void AlembicStrandWriter::writeStrands(double frameTime, const StrandSet& strands) {
    impl_->checkOpen();
    impl_->checkForm(Form::kUngrouped, "the strands were written in groups");
    impl_->checkTime("writeStrands", frameTime);
    Impl::checkSet("writeStrands", strands);
    impl_->writeUngrouped(frameTime, strands, nullptr);
    impl_->form = Form::kUngrouped;
}

void AlembicStrandWriter::writeGroom(double frameTime, const StrandSet& strands,
                                     const GuideSet& guides) {
    impl_->checkOpen();
    impl_->checkForm(Form::kUngrouped, "the groom was written in groups");
    impl_->checkTime("writeGroom", frameTime);
    Impl::checkSet("writeGroom", strands);
    if (impl_->frames > 0 && !impl_->withGuides)
        throw AlembicError("the first frame was written without guides");
    impl_->writeUngrouped(frameTime, strands, &guides);
    impl_->form = Form::kUngrouped;
}

void AlembicStrandWriter::writeStrandsGrouped(double frameTime,
                                              std::span<const AlembicGroup> groups) {
    impl_->checkOpen();
    impl_->checkForm(Form::kGrouped, "the strands were written without groups");
    impl_->checkTime("writeStrandsGrouped", frameTime);
    impl_->checkGroups("writeStrandsGrouped", groups);
    impl_->writeGrouped(frameTime, groups, false);
    impl_->form = Form::kGrouped;
}

void AlembicStrandWriter::writeGroomGrouped(double frameTime,
                                            std::span<const AlembicGroup> groups) {
    impl_->checkOpen();
    impl_->checkForm(Form::kGrouped, "the groom was written without groups");
    impl_->checkTime("writeGroomGrouped", frameTime);
    impl_->checkGroups("writeGroomGrouped", groups);
    if (impl_->frames > 0 && !impl_->withGuides)
        throw AlembicError("the first frame was written without guides");
    impl_->writeGrouped(frameTime, groups, true);
    impl_->form = Form::kGrouped;
}

void AlembicStrandWriter::close() {
    impl_->checkOpen();
    impl_->closed = true;
    try {
        // The archive writes its index when the last reference to it goes.
        impl_->objects.clear();
        impl_->archive.reset();
    } catch (const std::exception& error) {
        throw AlembicError("cannot write '" + impl_->path + "': " + error.what());
    }
    std::error_code error;
    std::filesystem::rename(impl_->tmpPath, impl_->path, error);
    if (error) throw AlembicError("cannot write '" + impl_->path + "': " + error.message());
}

bool AlembicStrandWriter::closed() const {
    return impl_->closed;
}

std::size_t AlembicStrandWriter::frameCount() const {
    return impl_->frames;
}

const std::string& AlembicStrandWriter::path() const {
    return impl_->path;
}

}  // namespace velmorin
