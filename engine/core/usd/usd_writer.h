#pragma once
// The USD writer of strands: a groom leaves for USD as plain .usda text that this writer composes
// itself, with no USD library behind it. One writer makes one file. The host opens it, hands it
// each frame in increasing order, and closes it. An animated groom is far too large to hold, so
// each property's time samples go to a spool of their own while frames arrive, and `close`
// stitches the header, the prims and the spools into the file. A spool holds its text in memory
// while all spools together stay within UsdOptions::spoolMemoryBytes, so that a short export is
// formatted once and written once; past that budget every spool goes on in a file of its own
// beside the output, and memory stays that of one frame however many frames there are.
//
// The file holds one Xform (the default prim, of kind "component") with one linear BasisCurves
// "strands" whose properties are all time-sampled: curveVertexCounts, points, extent, and, when
// the strands have them, widths, primvars:strandId, primvars:st (root uvs), primvars:displayColor
// and one float primvar per exported channel.

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "strands/strand_set.h"

namespace velmorin {

// Every failure of the USD writer. The host shows the text as a command error.
class UsdError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The version of the layout below, written as the layer's velmorin.layoutVersion.
inline constexpr int kUsdLayoutVersion = 1;
// The product version written beside it.
inline constexpr std::string_view kUsdProductVersion = "0.35.2";

// What the writer is given once, when it is opened.
struct UsdOptions {
    // The root prim's name and the layer's defaultPrim; made a USD identifier by usdIdentifier.
    std::string defaultPrim = "Groom";
    // The document's doc text, written after "Velmorin ".
    std::string doc;
    // Written only when given: the frame range when the host knows it.
    std::optional<double> startTimeCode;
    std::optional<double> endTimeCode;
    // Written as framesPerSecond and as timeCodesPerSecond.
    double framesPerSecond = 24.0;
    double metersPerUnit = 0.01;
    std::string upAxis = "Y";  // "Y" or "Z"
    // Extra lines of the root prim's customData, each a whole entry such as
    // `string source = "scene.ma"`, written indented as they stand.
    std::vector<std::string> customData;
    // The strands prim is written with visibility "invisible".
    bool hidden = false;
    // The most spooled text held in memory, all properties together. The frame that would go past
    // it moves every spool's text to its file, and the spools stay in files from then on; 0 keeps
    // them in files from the first frame.
    std::size_t spoolMemoryBytes = std::size_t{1} << 30;
};

// Writes the strands of an animated groom to one .usda file.
//
// Which strands and primvars a frame writes:
// - Strands of fewer than two points are left out: a linear curve needs two. Their uniform and
//   vertex primvars are left out with them, so every array stays aligned with the curves.
// - widths (interpolation "vertex") when the set has one width per point.
// - primvars:strandId ("uniform", int64) always: the stable 64-bit id, its bits as a signed value.
// - primvars:st ("uniform") when the frame is given root uvs.
// - primvars:displayColor from the three channels of channels::kColor: "vertex" when all three
//   are point channels, otherwise "uniform" when all three are strand channels.
// - primvars:<name> for every other channel ("uniform" per strand, "vertex" per point), its name
//   made an identifier; channels whose names begin with "_" are the engine's own and stay out.
// A property that first appears at a later frame has no samples before it; one that a later frame
// lacks gets a blocked sample (None) there, so that USD holds no stale value over that frame.
class UsdCurvesWriter {
  public:
    // Checks the options and creates the spool files of the fixed properties beside `path`.
    // Throws UsdError for bad options and "cannot write '" + path + "'" when the spools cannot be
    // made.
    UsdCurvesWriter(std::filesystem::path path, UsdOptions options);
    // A writer dropped without close removes its spools and leaves no output.
    ~UsdCurvesWriter();
    UsdCurvesWriter(const UsdCurvesWriter&) = delete;
    UsdCurvesWriter& operator=(const UsdCurvesWriter&) = delete;

    // Appends one time sample per property. `rootUvs` is empty or holds one uv per strand.
    // Throws UsdError, with nothing written: "writeFrame after close", "frames must increase"
    // for a frame at or below the last, "frames must be finite numbers", and messages beginning
    // "frame " + frame + ": " for strands that cannot be written (a point or width that is not a
    // finite number, widths or root uvs that do not match the counts, two channels that would
    // share a primvar name, a primvar whose interpolation changes), and "cannot write '" + path +
    // "'" when a spool cannot be written to.
    void writeFrame(double frame, const StrandSet& strands,
                    std::span<const std::array<float, 2>> rootUvs = {});

    // Writes the file (through a ".tmp" sibling renamed over `path`) and removes the spools. A
    // second call does nothing. Throws UsdError "cannot write '" + path + "'" when the file cannot
    // be written; the writer then stays open with its spools, and close may be called again.
    void close();
    bool closed() const { return closed_; }

    std::size_t framesWritten() const { return frames_; }

  private:
    struct Property;
    struct FramePlan;
    struct ChunkBuffer;

    Property& addProperty(int rank, const std::string& name, const std::string& declaration,
                          const std::string& metadata);
    bool spoolText(Property& property, std::string_view text);
    bool spoolChunk(Property& property, ChunkBuffer& chunk);
    bool spillToFiles();
    FramePlan planFrame(double frame, const StrandSet& strands,
                        std::span<const std::array<float, 2>> rootUvs) const;
    void writeSamples(const FramePlan& plan, const StrandSet& strands);
    bool appendArray(Property& property, const FramePlan& plan, std::size_t item,
                     const StrandSet& strands);
    std::string headerText() const;
    [[noreturn]] void cannotWrite() const;

    std::filesystem::path path_;
    UsdOptions options_;
    std::vector<std::unique_ptr<Property>> properties_;  // in order of creation
    std::map<std::string, Property*, std::less<>> byName_;
    std::optional<double> lastFrame_;
    std::size_t frames_ = 0;
    bool closed_ = false;
    std::vector<ChunkBuffer> chunks_;  // per-chunk text buffers, reused from frame to frame
    std::size_t heldBytes_ = 0;        // spooled text held in memory, all spools together
    bool spilled_ = false;             // the spools have gone to their files for good
};

}  // namespace velmorin
