#include "alembic/alembic_curves_reader.h"

#include "alembic/alembic_error.h"
#include "alembic/alembic_strand_writer.h"
#include "alembic/archive_layout.h"
#include "alembic/ogawa_check.h"
#include "strands/channel_names.h"
#include "strands/guide_conversion.h"

#include <Alembic/AbcCoreFactory/All.h>
#include <Alembic/AbcGeom/All.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unordered_map>

namespace velmorin {
namespace {

namespace Abc = Alembic::Abc;
namespace AbcA = Alembic::AbcCoreAbstract;
namespace AbcG = Alembic::AbcGeom;

// Deeper object trees are refused by the index check already; this bounds the walk's recursion.
constexpr std::size_t kMaxObjectDepth = 256;
constexpr std::size_t kMaxSamples = std::size_t{1} << 20;

// What one sample's counts say: the curves and the points they hold.
struct Layout {
    std::size_t curves = 0;
    std::size_t points = 0;
    const std::uint64_t* offsets = nullptr;  // curves + 1 entries
};

// The scalar that a parameter's values are made of.
template <class V>
struct Scalar {
    using type = V;
};
template <>
struct Scalar<Imath::V2f> {
    using type = float;
};
template <>
struct Scalar<Imath::C3f> {
    using type = float;
};

// Values of a parameter as read, as scalars, with its scope.
template <class T>
struct ParamValues {
    const T* data = nullptr;
    std::size_t size = 0;
    AbcG::GeometryScope scope = AbcG::kUnknownScope;
};

bool perPointScope(AbcG::GeometryScope scope) {
    return scope == AbcG::kVertexScope || scope == AbcG::kVaryingScope ||
           scope == AbcG::kFacevaryingScope;
}

// A parameter whose value count fits neither the curves, the points nor a constant.
AlembicError wrongValueCount(const std::string& file, const std::string& name, std::size_t values,
                             const Layout& layout) {
    return AlembicError(file + ": the parameter '" + name + "' holds " + std::to_string(values) +
                        " values for " + std::to_string(layout.curves) + " curves of " +
                        std::to_string(layout.points) + " points");
}

// One component of values, per point: as read for a point scope, repeated along each curve for
// a curve's value, everywhere for a constant. Throws for a count that fits neither.
template <class T>
void toPoints(const std::string& file, const std::string& name, const ParamValues<T>& values,
              std::size_t components, std::size_t component, const Layout& layout,
              std::vector<float>& out) {
    out.resize(layout.points);
    const auto value = [&](std::size_t i) {
        return static_cast<float>(values.data[i * components + component]);
    };
    if (values.size == layout.points &&
        (perPointScope(values.scope) || layout.points != layout.curves)) {
        for (std::size_t p = 0; p < layout.points; ++p)
            out[p] = value(p);
    } else if (values.size == layout.curves) {
        for (std::size_t c = 0; c < layout.curves; ++c)
            std::fill(out.begin() + static_cast<std::ptrdiff_t>(layout.offsets[c]),
                      out.begin() + static_cast<std::ptrdiff_t>(layout.offsets[c + 1]), value(c));
    } else if (values.size == 1) {
        std::fill(out.begin(), out.end(), value(0));
    } else {
        throw wrongValueCount(file, name, values.size, layout);
    }
}

// One component of values, per curve: as read for a curve scope, the first point's for a point
// scope, everywhere for a constant.
template <class T>
void toCurves(const std::string& file, const std::string& name, const ParamValues<T>& values,
              std::size_t components, std::size_t component, const Layout& layout,
              std::vector<float>& out) {
    out.resize(layout.curves);
    const auto value = [&](std::size_t i) {
        return static_cast<float>(values.data[i * components + component]);
    };
    if (values.size == layout.curves &&
        !(perPointScope(values.scope) && layout.points != layout.curves)) {
        for (std::size_t c = 0; c < layout.curves; ++c)
            out[c] = value(c);
    } else if (values.size == layout.points) {
        for (std::size_t c = 0; c < layout.curves; ++c)
            out[c] = layout.offsets[c + 1] > layout.offsets[c] ? value(layout.offsets[c]) : 0.0f;
    } else if (values.size == 1) {
        std::fill(out.begin(), out.end(), value(0));
    } else {
        throw wrongValueCount(file, name, values.size, layout);
    }
}

// The values of the arbitrary parameter `name` when it exists with the type of PARAM.
template <class Param>
bool readArb(const Abc::ICompoundProperty& arb, const std::string& name,
             const Abc::ISampleSelector& selector, typename Param::Sample& sample) {
    if (!arb.valid()) return false;
    const AbcA::PropertyHeader* header = arb.getPropertyHeader(name);
    if (header == nullptr || !Param::matches(*header)) return false;
    Param param(arb, name);
    sample = param.getExpandedValue(selector);
    return sample.getVals() != nullptr;
}

template <class Sample>
auto values(const Sample& sample) {
    using Array = typename std::remove_reference_t<decltype(*sample.getVals())>;
    using Value = typename Array::value_type;
    using S = typename Scalar<Value>::type;
    ParamValues<S> out;
    out.data = reinterpret_cast<const S*>(sample.getVals()->get());
    out.size = sample.getVals()->size();
    out.scope = sample.getScope();
    return out;
}

bool matchesFilter(const std::string& fullName, std::string_view filter) {
    if (filter.empty()) return true;
    if (filter.front() == '/')
        return fullName == filter ||
               (fullName.size() > filter.size() && fullName.starts_with(filter) &&
                fullName[filter.size()] == '/');
    std::size_t begin = 1;
    while (begin <= fullName.size()) {
        std::size_t end = fullName.find('/', begin);
        if (end == std::string::npos) end = fullName.size();
        if (std::string_view(fullName).substr(begin, end - begin) == filter) return true;
        begin = end + 1;
    }
    return false;
}

}  // namespace

struct AlembicCurvesReader::Impl {
    std::string name;
    std::unique_ptr<std::istream> stream;  // the bytes of an archive held in memory
    Abc::IArchive archive;
    std::vector<AbcG::ICurves> curves;

    [[noreturn]] void fail(const std::string& reason) const {
        throw AlembicError(name + ": " + reason);
    }

    // The library sizes what it reads by a property's type, taken from the file as it is: a type
    // of no bytes (a zero extent, an unknown kind) would divide by zero, so such a file is refused
    // before any sample is read.
    void checkTypes(const Abc::ICompoundProperty& compound, std::size_t depth) {
        if (depth > kMaxObjectDepth) fail("the archive's properties nest too deep");
        for (std::size_t i = 0; i < compound.getNumProperties(); ++i) {
            const AbcA::PropertyHeader& header = compound.getPropertyHeader(i);
            if (header.isCompound()) {
                checkTypes(Abc::ICompoundProperty(compound, header.getName()), depth + 1);
            } else if (header.getDataType().getNumBytes() == 0) {
                fail("the property '" + header.getName() + "' of '" +
                     compound.getObject().getFullName() + "' has a damaged type");
            }
        }
    }

    void collect(const Abc::IObject& object, std::size_t depth) {
        if (depth > kMaxObjectDepth) fail("the archive's objects nest too deep");
        for (std::size_t i = 0; i < object.getNumChildren(); ++i) {
            const Abc::IObject child = object.getChild(i);
            if (!child.valid()) continue;
            checkTypes(child.getProperties(), 0);
            if (AbcG::ICurves::matches(child.getHeader()))
                curves.emplace_back(child, Abc::kWrapExisting);
            collect(child, depth + 1);
        }
    }

    void open(const OgawaRead& read, std::uint64_t size,
              const std::function<std::string()>& checkLayout,
              const std::function<Abc::IArchive(Alembic::AbcCoreFactory::IFactory&)>& make) {
        std::string problem = checkOgawaIndex(size, read);
        if (problem.empty()) problem = checkLayout();
        if (!problem.empty()) fail(problem);
        try {
            Alembic::AbcCoreFactory::IFactory factory;
            archive = make(factory);
            if (!archive.valid()) fail("not an Alembic (Ogawa) file");
            collect(archive.getTop(), 0);
        } catch (const AlembicError&) {
            throw;
        } catch (const std::exception& error) {
            fail(error.what());
        }
    }

    void readObject(AbcG::ICurves& object, double time, std::uint64_t firstId,
                    StrandSet& out) const;
};

void AlembicCurvesReader::Impl::readObject(AbcG::ICurves& object, double time,
                                           std::uint64_t firstId, StrandSet& out) const {
    const Abc::ISampleSelector selector(time);
    AbcG::ICurvesSchema& schema = object.getSchema();
    // Positions go from the file straight into the set's column, without a buffer between.
    Abc::IP3fArrayProperty positions = schema.getPositionsProperty();
    Abc::IInt32ArrayProperty countsProperty = schema.getNumVerticesProperty();
    if (!positions.valid() || !countsProperty.valid())
        fail("a curves sample has no positions or vertex counts");
    Abc::Int32ArraySamplePtr counts;
    countsProperty.get(counts, selector);
    Alembic::Util::Dimensions dimensions;
    positions.getDimensions(dimensions, selector);
    if (!counts) fail("a curves sample has no positions or vertex counts");

    const std::size_t curveCount = counts->size();
    const std::size_t pointCount = dimensions.numPoints();
    out.resizeForOverwrite(curveCount, pointCount);
    std::vector<std::uint64_t>& offsets = out.writeOffsets();
    std::uint64_t total = 0;
    offsets[0] = 0;
    for (std::size_t i = 0; i < curveCount; ++i) {
        const std::int32_t count = (*counts)[i];
        if (count < 0) fail("curve " + std::to_string(i) + " has a negative vertex count");
        total += static_cast<std::uint64_t>(count);
        offsets[i + 1] = total;
    }
    if (total != pointCount)
        fail("the vertex counts add up to " + std::to_string(total) +
             " points but the sample holds " + std::to_string(pointCount));
    const Layout layout{curveCount, pointCount, offsets.data()};

    if (pointCount > 0)
        positions.getAs(out.writePoints().data(), Alembic::Util::kFloat32POD, selector);
    std::vector<StrandRoot>& roots = out.writeRoots();
    std::fill(roots.begin(), roots.end(), StrandRoot{});

    const Abc::ICompoundProperty arb = schema.getArbGeomParams();
    const std::string file = name;

    // Widths: the curves' own, else the groom parameter, else 1.
    std::vector<float>& widths = out.writeWidths();
    AbcG::IFloatGeomParam::Sample widthSample;
    AbcG::IFloatGeomParam widthParam = schema.getWidthsParam();
    Alembic::Util::Dimensions widthCount;
    if (widthParam.valid() && !widthParam.isIndexed() && perPointScope(widthParam.getScope()) &&
        (widthParam.getValueProperty().getDimensions(widthCount, selector),
         widthCount.numPoints() == pointCount)) {
        if (pointCount > 0)
            widthParam.getValueProperty().getAs(widths.data(), Alembic::Util::kFloat32POD,
                                                selector);
    } else if (widthParam.valid() &&
               (widthSample = widthParam.getExpandedValue(selector)).getVals()) {
        toPoints(file, "width", values(widthSample), 1, 0, layout, widths);
    } else if (readArb<AbcG::IFloatGeomParam>(arb, "groom_width", selector, widthSample)) {
        toPoints(file, "groom_width", values(widthSample), 1, 0, layout, widths);
    } else {
        std::fill(widths.begin(), widths.end(), 1.0f);
    }

    // Ids: the two words where both are there, else counting on from `firstId`.
    std::vector<std::uint64_t>& ids = out.writeIds();
    AbcG::IUInt32GeomParam::Sample low;
    AbcG::IUInt32GeomParam::Sample high;
    if (readArb<AbcG::IUInt32GeomParam>(arb, "velmorin_strand_id_low", selector, low) &&
        readArb<AbcG::IUInt32GeomParam>(arb, "velmorin_strand_id_high", selector, high)) {
        if (low.getVals()->size() != curveCount || high.getVals()->size() != curveCount)
            fail("the strand ids hold " + std::to_string(low.getVals()->size()) + " values for " +
                 std::to_string(curveCount) + " curves");
        for (std::size_t i = 0; i < curveCount; ++i)
            ids[i] = (static_cast<std::uint64_t>((*high.getVals())[i]) << 32) | (*low.getVals())[i];
    } else {
        for (std::size_t i = 0; i < curveCount; ++i)
            ids[i] = firstId + i;
    }

    // Root UVs: the curves' own uvs, else the groom parameter.
    AbcG::IV2fGeomParam::Sample uvSample;
    AbcG::IV2fGeomParam uvParam = schema.getUVsParam();
    bool haveUv = uvParam.valid() && (uvSample = uvParam.getExpandedValue(selector)).getVals();
    const char* uvName = "uv";
    if (!haveUv) {
        haveUv = readArb<AbcG::IV2fGeomParam>(arb, "groom_root_uv", selector, uvSample);
        uvName = "groom_root_uv";
    }
    if (haveUv) {
        for (std::size_t c = 0; c < 2; ++c) {
            toCurves(file, uvName, values(uvSample), 2, c, layout,
                     out.addStrandChannel(std::string(kRootUvChannels[c]), 0.0f));
        }
    }

    // A float parameter becomes a point channel when it is per point, else a strand channel.
    const auto channelOf = [&](const auto& valuesRead, const std::string& paramName,
                               std::size_t components, std::size_t component,
                               std::string_view channel) {
        if (perPointScope(valuesRead.scope)) {
            // Straight into the channel: a set that fails to read is dropped whole.
            toPoints(file, paramName, valuesRead, components, component, layout,
                     out.addPointChannel(std::string(channel), 0.0f));
        } else {
            toCurves(file, paramName, valuesRead, components, component, layout,
                     out.addStrandChannel(std::string(channel), 0.0f));
        }
    };
    AbcG::IC3fGeomParam::Sample color;
    if (readArb<AbcG::IC3fGeomParam>(arb, "groom_color", selector, color))
        for (std::size_t c = 0; c < 3; ++c)
            channelOf(values(color), "groom_color", 3, c, channels::kColor[c]);
    AbcG::IFloatGeomParam::Sample floats;
    const std::pair<const char*, std::string_view> floatParams[] = {
        {"groom_roughness", channels::kRoughness},
        {"groom_iridescence", channels::kIridescence},
        {"groom_ao", channels::kAmbientOcclusion}};
    for (const auto& [paramName, channel] : floatParams)
        if (readArb<AbcG::IFloatGeomParam>(arb, paramName, selector, floats))
            channelOf(values(floats), paramName, 1, 0, channel);
    AbcG::IInt32GeomParam::Sample ints;
    const std::pair<const char*, std::string_view> intParams[] = {
        {"groom_group_id", channels::kGroupId}, {"groom_clump_id", channels::kClumpId}};
    for (const auto& [paramName, channel] : intParams)
        if (readArb<AbcG::IInt32GeomParam>(arb, paramName, selector, ints))
            channelOf(values(ints), paramName, 1, 0, channel);
}

AlembicCurvesReader::AlembicCurvesReader(const std::string& path)
    : impl_(std::make_unique<Impl>()) {
    impl_->name = path;
    std::ifstream file(path, std::ios::binary);
    if (!file) impl_->fail("cannot open the file");
    file.seekg(0, std::ios::end);
    const auto size = static_cast<std::uint64_t>(file.tellg());
    const OgawaRead read = [&](std::uint64_t offset, std::size_t count, void* out) {
        file.clear();
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(static_cast<char*>(out), static_cast<std::streamsize>(count));
        return static_cast<std::size_t>(file.gcount()) == count;
    };
    impl_->open(
        read, size, [&] { return checkAlembicLayout(path); },
        [&](Alembic::AbcCoreFactory::IFactory& factory) { return factory.getArchive(path); });
}

AlembicCurvesReader::AlembicCurvesReader(std::string name, std::string bytes)
    : impl_(std::make_unique<Impl>()) {
    impl_->name = std::move(name);
    const OgawaRead read = [&](std::uint64_t offset, std::size_t count, void* out) {
        if (offset > bytes.size() || count > bytes.size() - offset) return false;
        std::memcpy(out, bytes.data() + offset, count);
        return true;
    };
    const std::uint64_t size = bytes.size();
    impl_->open(
        read, size,
        [&] {
            impl_->stream = std::make_unique<std::istringstream>(std::move(bytes));
            return checkAlembicLayout(*impl_->stream);
        },
        [&](Alembic::AbcCoreFactory::IFactory& factory) {
            // The check read the stream before; the library starts afresh on it.
            impl_->stream->clear();
            impl_->stream->seekg(0);
            Alembic::AbcCoreFactory::IFactory::CoreType type;
            return factory.getArchive(std::vector<std::istream*>{impl_->stream.get()}, type);
        });
}

AlembicCurvesReader::~AlembicCurvesReader() = default;
AlembicCurvesReader::AlembicCurvesReader(AlembicCurvesReader&&) noexcept = default;
AlembicCurvesReader& AlembicCurvesReader::operator=(AlembicCurvesReader&&) noexcept = default;

const std::string& AlembicCurvesReader::path() const {
    return impl_->name;
}

std::vector<std::string> AlembicCurvesReader::curvesObjects() const {
    std::vector<std::string> names;
    for (const AbcG::ICurves& curves : impl_->curves)
        names.push_back(curves.getFullName());
    return names;
}

std::vector<double> AlembicCurvesReader::sampleTimes() const {
    std::vector<double> times;
    try {
        for (const AbcG::ICurves& object : impl_->curves) {
            AbcG::ICurvesSchema schema = object.getSchema();
            const AbcA::TimeSamplingPtr sampling = schema.getTimeSampling();
            const std::size_t count = schema.getNumSamples();
            // A count is a number in the file; no groom has a million frames, so more is damage.
            if (count > kMaxSamples)
                impl_->fail("a curves object claims " + std::to_string(count) + " samples");
            for (std::size_t i = 0; i < count && sampling; ++i)
                times.push_back(sampling->getSampleTime(i));
        }
    } catch (const AlembicError&) {
        throw;
    } catch (const std::exception& error) {
        impl_->fail(error.what());
    }
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    return times;
}

bool AlembicCurvesReader::hasStrandIds(std::string_view objectName) const {
    bool any = false;
    try {
        for (const AbcG::ICurves& object : impl_->curves) {
            if (!matchesFilter(object.getFullName(), objectName)) continue;
            AbcG::ICurvesSchema schema = object.getSchema();
            const Abc::ICompoundProperty arb = schema.getArbGeomParams();
            if (!arb.valid() || arb.getPropertyHeader("velmorin_strand_id_low") == nullptr ||
                arb.getPropertyHeader("velmorin_strand_id_high") == nullptr)
                return false;
            any = true;
        }
    } catch (const std::exception& error) {
        impl_->fail(error.what());
    }
    return any;
}

StrandSet AlembicCurvesReader::readStrands(double time, std::string_view objectName) const {
    StrandSet out;
    bool matched = false;
    try {
        StrandSet part;
        for (AbcG::ICurves& object : impl_->curves) {
            if (!matchesFilter(object.getFullName(), objectName)) continue;
            part = StrandSet();
            impl_->readObject(object, time, out.strandCount(), part);
            if (!matched)
                out = std::move(part);
            else
                out.append(part);
            matched = true;
        }
    } catch (const AlembicError&) {
        throw;
    } catch (const std::exception& error) {
        impl_->fail(error.what());
    }
    if (!matched) {
        if (objectName.empty()) impl_->fail("no curves");
        impl_->fail("no curves named '" + std::string(objectName) + "'");
    }
    return out;
}

GuideCacheReader::GuideCacheReader(const std::string& path, std::string objectName)
    : reader_(path), objectName_(std::move(objectName)) {}

GuideSet GuideCacheReader::guides(double time) const {
    StrandSet strands = reader_.readStrands(time, objectName_);
    if (!reader_.hasStrandIds(objectName_)) {
        std::vector<std::uint64_t>& ids = strands.writeIds();
        for (std::size_t i = 0; i < ids.size(); ++i)
            ids[i] = i + 1;
    }
    return guidesFromStrands(strands);
}

GuideSet GuideCacheReader::pose(const GuideSet& guides, double time) const {
    const StrandSet strands = reader_.readStrands(time, objectName_);
    const bool byId = reader_.hasStrandIds(objectName_);
    std::unordered_map<std::uint64_t, std::size_t> curveOfId;
    if (byId)
        for (std::size_t i = 0; i < strands.strandCount(); ++i)
            curveOfId.emplace(strands.ids()[i], i);
    GuideSet posed = guides;
    for (std::size_t g = 0; g < posed.guides.size(); ++g) {
        Guide& guide = posed.guides[g];
        std::size_t curve = g;
        if (byId) {
            const auto found = curveOfId.find(guide.id);
            if (found == curveOfId.end()) continue;
            curve = found->second;
        } else if (curve >= strands.strandCount()) {
            continue;
        }
        const auto points = strands.strandPoints(curve);
        guide.points.assign(points.begin(), points.end());
    }
    return posed;
}

}  // namespace velmorin
