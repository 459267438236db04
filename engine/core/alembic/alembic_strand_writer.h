#pragma once
// Strands and guides written as Alembic curves, one frame after another: plainly for renderers and,
// through the groom_* geometry parameters and one object per group, in the layout that Unreal
// Engine's groom importer reads. The library is used through Alembic::AbcGeom; this header keeps it
// out of sight.

#include "strands/channel_names.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace velmorin {

// The strand channels that hold a strand's UV on the scalp, written as its root UV. Without them
// the root UV is (0, 0).
inline constexpr std::array<std::string_view, 2> kRootUvChannels = {channels::kRootU,
                                                                    channels::kRootV};

// The version of Unreal's groom schema that the files follow (Unreal's "Alembic for Grooms", 1.5).
inline constexpr std::int32_t kGroomVersionMajor = 1;
inline constexpr std::int32_t kGroomVersionMinor = 5;

// One group of a grouped frame: its name and number in engines, its strands, and (for a groom) its
// guides. A null pointer writes an empty curves sample.
struct AlembicGroup {
    std::string name;
    std::int32_t id = 0;
    std::shared_ptr<const StrandSet> strands;
    std::shared_ptr<const GuideSet> guides;
};

// Writes one archive. The form (one object, or groups) is fixed by the first frame; the objects,
// the groups and the optional parameters are made at the first frame and sampled at every frame
// after it. Frame times increase. The archive is written beside `path` as path + ".tmp" and takes
// its name on close(), so that an unfinished file never stands at `path`; destroying a writer that
// is still open closes it. Used from one thread.
class AlembicStrandWriter {
  public:
    // Opens the archive. `objectName` names the object of the ungrouped forms. Throws AlembicError
    // "cannot write '" + path + "': " + reason when the file cannot be made.
    explicit AlembicStrandWriter(const std::string& path, std::string objectName = "strands");
    ~AlembicStrandWriter();
    AlembicStrandWriter(const AlembicStrandWriter&) = delete;
    AlembicStrandWriter& operator=(const AlembicStrandWriter&) = delete;

    // The space positions and widths are written in: the engine works Y-up in centimetres, and the
    // file gets `upAxis` ("Y" or "Z") up at `centimetersPerUnit` centimetres to a unit.
    void setSpace(const std::string& upAxis, double centimetersPerUnit);

    // Strands in one object.
    void writeStrands(double frameTime, const StrandSet& strands);
    // Strands in one object per group.
    void writeStrandsGrouped(double frameTime, std::span<const AlembicGroup> groups);
    // Strands and guides, in one object each.
    void writeGroom(double frameTime, const StrandSet& strands, const GuideSet& guides);
    // Strands and guides in one object per group.
    void writeGroomGrouped(double frameTime, std::span<const AlembicGroup> groups);

    // Ends the archive and moves it to its path. Further calls throw AlembicError "writer is
    // closed".
    void close();

    bool closed() const;
    std::size_t frameCount() const;
    const std::string& path() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace velmorin
