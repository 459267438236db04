#pragma once
// Curves read back from an Alembic file: the ImportCurves operator's source and the guide cache of
// a groom node. Any file opens through the library's factory after a check of its index, so that
// a damaged or hostile file gives an AlembicError naming the file, never a crash.

#include "strands/guide.h"
#include "strands/strand_set.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velmorin {

class AlembicCurvesReader {
  public:
    // Opens the file. Throws AlembicError path + ": " + reason when it is missing or is not a
    // whole Alembic (Ogawa) archive.
    explicit AlembicCurvesReader(const std::string& path);
    // Reads an archive held in memory; `name` stands for the file in messages.
    AlembicCurvesReader(std::string name, std::string bytes);
    ~AlembicCurvesReader();
    AlembicCurvesReader(AlembicCurvesReader&&) noexcept;
    AlembicCurvesReader& operator=(AlembicCurvesReader&&) noexcept;

    const std::string& path() const;
    // The full names of the curves objects, in the order of the object tree.
    std::vector<std::string> curvesObjects() const;
    // The times of the archive's samples, in order: the union over its curves objects.
    std::vector<double> sampleTimes() const;

    // The curves at `time` (the nearest sample) of every curves object, or only of those with an
    // object named `objectName` on their path, as one strand set in the order of the object tree.
    // Ids come from the strand id words where the file has them, else they count from 0; widths,
    // root UVs (channels kRootUvChannels) and the groom_* parameters that the writer makes come
    // back as widths and channels. Throws AlembicError for a sample that makes no sense and for a
    // filter that matches nothing (path + ": no curves named '" + objectName + "'").
    StrandSet readStrands(double time, std::string_view objectName = {}) const;
    // Whether every curves object that `objectName` keeps holds the strand id words (false when
    // it keeps none).
    bool hasStrandIds(std::string_view objectName = {}) const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// A guide cache: simulated or hand-animated guide curves in an Alembic file, read at the node's
// time. A node keeps one by shared pointer for as long as the file and object stay the same.
class GuideCacheReader {
  public:
    // `objectName` keeps only the curves under an object of that name (empty: all).
    GuideCacheReader(const std::string& path, std::string objectName);

    const std::string& path() const { return reader_.path(); }
    const std::string& objectName() const { return objectName_; }

    // The cached curves at `time` as guides, in file order: ids from the file's strand ids (else
    // 1, 2, ... in order), unbound roots.
    GuideSet guides(double time) const;
    // `guides` with the points of their curves at `time`: a guide takes the curve of its id where
    // the file holds ids, else the curve of its place in order; a guide without a curve is kept.
    GuideSet pose(const GuideSet& guides, double time) const;

  private:
    AlembicCurvesReader reader_;
    std::string objectName_;
};

}  // namespace velmorin
