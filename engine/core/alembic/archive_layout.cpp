#include "alembic/archive_layout.h"

// The library's own header parsing; not part of its public interface, but the same code that
// reads the archive afterwards, so that both agree on what the headers say.
#include <Alembic/AbcCoreOgawa/ReadUtil.h>
#include <Alembic/Ogawa/All.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace velmorin {
namespace {

namespace AbcA = Alembic::AbcCoreAbstract;
namespace AbcO = Alembic::AbcCoreOgawa;
namespace Ogawa = Alembic::Ogawa;

constexpr std::size_t kMaxDepth = 256;

// The part of an archive that property headers ask for: its time samplings.
class TimeSamplings : public AbcA::ArchiveReader {
  public:
    explicit TimeSamplings(std::vector<AbcA::TimeSamplingPtr> samplings)
        : samplings_(std::move(samplings)) {}
    const std::string& getName() const override { return name_; }
    const AbcA::MetaData& getMetaData() const override { return metaData_; }
    AbcA::ObjectReaderPtr getTop() override { return {}; }
    AbcA::ReadArraySampleCachePtr getReadArraySampleCachePtr() override { return {}; }
    void setReadArraySampleCachePtr(AbcA::ReadArraySampleCachePtr) override {}
    AbcA::TimeSamplingPtr getTimeSampling(std::uint32_t index) override {
        if (index >= samplings_.size())
            throw std::runtime_error("a property names a time sampling the archive does not have");
        return samplings_[index];
    }
    AbcA::index_t getMaxNumSamplesForTimeSamplingIndex(std::uint32_t) override { return 0; }
    std::uint32_t getNumTimeSamplings() override {
        return static_cast<std::uint32_t>(samplings_.size());
    }
    std::int32_t getArchiveVersion() override { return 0; }
    AbcA::ArchiveReaderPtr asArchivePtr() override { return {}; }

  private:
    std::string name_;
    AbcA::MetaData metaData_;
    std::vector<AbcA::TimeSamplingPtr> samplings_;
};

struct Walk {
    TimeSamplings& samplings;
    std::vector<AbcA::MetaData> metaData;

    [[noreturn]] static void fail(const char* reason) { throw std::runtime_error(reason); }

    // The stored sample that reading sample `index` looks up, as the library computes it.
    static std::size_t storedSample(AbcO::PropertyHeaderAndFriends& header, std::uint32_t index) {
        return header.verifyIndex(static_cast<AbcA::index_t>(index));
    }

    void property(AbcO::PropertyHeaderAndFriends& header, const Ogawa::IGroupPtr& group) {
        if (header.header.getDataType().getNumBytes() == 0)
            fail("a property of the archive has a damaged type");
        const std::uint32_t count = header.nextSampleIndex;
        if (count == 0) return;
        // The stored index grows piecewise with the sample index, so its greatest value lies at
        // the end of one of its pieces.
        std::size_t last = 0;
        for (const std::uint32_t index : {std::uint32_t{0}, count - 1, header.firstChangedIndex,
                                          header.lastChangedIndex, header.lastChangedIndex - 1})
            if (index < count) last = std::max(last, storedSample(header, index));
        const std::size_t perSample = header.header.isArray() ? 2 : 1;
        const std::size_t needed = perSample * (last + 1);
        if (last >= group->getNumChildren() || needed > group->getNumChildren())
            fail("a property's samples are missing from the archive");
        for (std::size_t child = 0; child < needed; ++child)
            if (!group->isChildData(child))
                fail("a property's samples are missing from the archive");
        if (header.header.isArray())
            for (std::size_t sample = 0; sample <= last; ++sample)
                arraySample(header.header.getDataType(), group->getData(2 * sample, 0),
                            group->getData(2 * sample + 1, 0));
    }

    // The library sizes an array sample by the dimensions the file gives, unless they disagree
    // with the bytes held; dimensions of a broken length, a product past 64 bits, or more
    // strings than bytes would have it write past what it allocates.
    static void arraySample(const AbcA::DataType& type, const Ogawa::IDataPtr& data,
                            const Ogawa::IDataPtr& dims) {
        if (!data || !dims) fail("a property's samples are missing from the archive");
        const std::uint64_t bytes = data->getSize();
        if (bytes < 16 || dims->getSize() == 0) return;
        const std::uint64_t ranks = dims->getSize() / 8;
        if (dims->getSize() % 8 != 0 || ranks > 64)
            fail("an array sample of the archive has damaged dimensions");
        std::uint64_t values[64];
        dims->read(ranks * 8, values, 0, 0);
        std::uint64_t points = 1;
        for (std::uint64_t r = 0; r < ranks; ++r)
            if (__builtin_mul_overflow(points, values[r], &points))
                fail("an array sample of the archive has damaged dimensions");
        std::uint64_t total = 0;
        if (__builtin_mul_overflow(points, std::uint64_t{type.getNumBytes()}, &total))
            fail("an array sample of the archive has damaged dimensions");
        const Alembic::Util::PlainOldDataType pod = type.getPod();
        const std::uint64_t held = bytes - 16;
        // Each string takes at least its terminator.
        if ((pod == Alembic::Util::kStringPOD && points > held / type.getExtent()) ||
            (pod == Alembic::Util::kWstringPOD && points > held / 4 / type.getExtent()))
            fail("an array sample of the archive has damaged dimensions");
    }

    void compound(const Ogawa::IGroupPtr& group, std::size_t depth) {
        if (depth > kMaxDepth) fail("the archive's properties nest too deep");
        const std::size_t children = group->getNumChildren();
        if (children == 0 || !group->isChildData(children - 1)) return;
        AbcO::PropertyHeaderPtrs headers;
        AbcO::ReadPropertyHeaders(group, children - 1, 0, samplings, metaData, headers);
        for (std::size_t i = 0; i < headers.size(); ++i) {
            if (i + 1 >= children || !group->isChildGroup(i))
                fail("a property is missing from the archive");
            const Ogawa::IGroupPtr child = group->getGroup(i, false, 0);
            if (!child) fail("a property is missing from the archive");
            if (headers[i]->header.isCompound())
                compound(child, depth + 1);
            else
                property(*headers[i], child);
        }
    }

    void object(const Ogawa::IGroupPtr& group, std::size_t depth) {
        if (depth > kMaxDepth) fail("the archive's objects nest too deep");
        const std::size_t children = group->getNumChildren();
        if (children > 0 && group->isChildGroup(0)) {
            const Ogawa::IGroupPtr properties = group->getGroup(0, false, 0);
            if (!properties) fail("an object's properties are missing from the archive");
            compound(properties, depth + 1);
        }
        if (children == 0 || !group->isChildData(children - 1)) return;
        std::vector<AbcO::ObjectHeaderPtr> headers;
        AbcO::ReadObjectHeaders(group, children - 1, 0, "", metaData, headers);
        for (std::size_t i = 0; i < headers.size(); ++i) {
            if (i + 2 >= children || !group->isChildGroup(i + 1))
                fail("an object is missing from the archive");
            const Ogawa::IGroupPtr child = group->getGroup(i + 1, false, 0);
            if (!child) fail("an object is missing from the archive");
            object(child, depth + 1);
        }
    }
};

std::string check(Ogawa::IArchive& archive) {
    try {
        if (!archive.isValid()) return "not an Alembic (Ogawa) file";
        const Ogawa::IGroupPtr root = archive.getGroup();
        // The archive's version, the library's version, the top object, the archive's metadata,
        // its time samplings and its shared metadata.
        if (!root || root->getNumChildren() < 6 || !root->isChildData(0) || !root->isChildData(1) ||
            !root->isChildGroup(2) || !root->isChildData(3) || !root->isChildData(4) ||
            !root->isChildData(5))
            return "the archive's top level is damaged";
        std::vector<AbcA::TimeSamplingPtr> samplings;
        std::vector<AbcA::index_t> maxSamples;
        AbcO::ReadTimeSamplesAndMax(root->getData(4, 0), samplings, maxSamples);
        TimeSamplings timeSamplings(std::move(samplings));
        Walk walk{timeSamplings, {}};
        AbcO::ReadIndexedMetaData(root->getData(5, 0), walk.metaData);
        const Ogawa::IGroupPtr top = root->getGroup(2, false, 0);
        if (!top) return "the archive's top level is damaged";
        walk.object(top, 0);
    } catch (const std::exception& error) {
        return error.what();
    }
    return {};
}

}  // namespace

std::string checkAlembicLayout(std::istream& stream) {
    Ogawa::IArchive archive(std::vector<std::istream*>{&stream});
    return check(archive);
}

std::string checkAlembicLayout(const std::string& path) {
    Ogawa::IArchive archive(path);
    return check(archive);
}

}  // namespace velmorin
