#include "usd/usd_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <set>
#include <utility>

#include "base/parallel.h"
#include "strands/channel_names.h"
#include "usd/usd_text.h"

namespace velmorin {
namespace {

// Strands formatted by one task, and tasks per block: a block's text (at most some 16 MB for
// strands of 9 points) is all that is held at once, whatever the strand count.
constexpr std::size_t kChunkStrands = 2048;
constexpr std::size_t kBlockChunks = 16;
// Spools are written and read back in blocks of this size.
constexpr std::size_t kIoBlock = std::size_t{1} << 20;

// Ranks fix the order of the properties in the file, whatever frame they first appear at.
enum Rank : int {
    kRankCounts,
    kRankPoints,
    kRankExtent,
    kRankWidths,
    kRankStrandId,
    kRankSt,
    kRankColor,
    kRankChannel,
};

// Primvar names the writer keeps for itself; "widths" and "normals" are also read by USD as the
// curves' own widths and normals when they are primvars.
const std::set<std::string, std::less<>> kReservedPrimvars = {"strandId", "st", "displayColor",
                                                              "widths", "normals"};

// Where the values of one array property come from.
enum class Source { kCounts, kPoints, kWidths, kIds, kUvs, kColor, kChannel };

std::size_t elementChars(Source source) {
    switch (source) {
        case Source::kCounts:
        case Source::kIds:
            return kUsdIntChars;
        case Source::kWidths:
        case Source::kChannel:
            return kUsdFloatChars;
        case Source::kUvs:
            return 2 * kUsdFloatChars + 4;
        case Source::kPoints:
        case Source::kColor:
            return 3 * kUsdFloatChars + 6;
    }
    return 0;
}

// The spool of one property: its time samples as they will stand in the file. Its text is the
// file's bytes followed by the pieces held in memory; the file is made when the spool opens, so a
// path that cannot be written fails at once, even while the text stays in memory.
class Spool {
  public:
    Spool() = default;
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;
    ~Spool() { discard(); }

    bool open(std::filesystem::path path) {
        path_ = std::move(path);
        file_ = std::fopen(path_.c_str(), "w+b");
        if (file_ != nullptr) std::setvbuf(file_, nullptr, _IOFBF, kIoBlock);
        return file_ != nullptr;
    }

    // Appends to the file, after whatever it holds.
    bool write(const char* data, std::size_t size) {
        if (file_ == nullptr || !spill()) return false;
        if (size == 0) return true;
        if (std::fwrite(data, 1, size, file_) != size) {
            failed_ = true;
            return false;
        }
        fileBytes_ += size;
        return true;
    }
    // Keeps `size` bytes of `data` in memory, taking the buffer over.
    void hold(std::unique_ptr<char[]> data, std::size_t size) {
        if (size == 0) return;
        held_.push_back({std::move(data), size});
        heldBytes_ += size;
    }
    // Moves the text held in memory to the file.
    bool spill() {
        std::size_t moved = 0;
        for (; moved < held_.size(); ++moved) {
            const Piece& piece = held_[moved];
            if (std::fwrite(piece.data.get(), 1, piece.size, file_) != piece.size) {
                failed_ = true;
                break;
            }
            fileBytes_ += piece.size;
            heldBytes_ -= piece.size;
        }
        held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(moved));
        return held_.empty();
    }
    bool flush() {
        if (file_ != nullptr && std::fflush(file_) == 0) return true;
        failed_ = true;
        return false;
    }
    std::uint64_t size() const { return fileBytes_ + heldBytes_; }
    std::size_t heldBytes() const { return heldBytes_; }

    // Cuts the spool back to `size` bytes, undoing a frame that could not be written whole. The
    // file is cut too when it is longer than that or a write to it failed part-way.
    bool truncate(std::uint64_t size) {
        std::uint64_t keep = size > fileBytes_ ? size - fileBytes_ : 0;
        std::size_t pieces = 0;
        heldBytes_ = 0;
        for (; pieces < held_.size() && keep > 0; ++pieces) {
            Piece& piece = held_[pieces];
            piece.size = static_cast<std::size_t>(std::min<std::uint64_t>(keep, piece.size));
            keep -= piece.size;
            heldBytes_ += piece.size;
        }
        held_.resize(pieces);
        if (size >= fileBytes_ && !failed_) return true;
        if (file_ != nullptr) std::fclose(file_);
        fileBytes_ = std::min(size, fileBytes_);
        std::error_code error;
        std::filesystem::resize_file(path_, fileBytes_, error);
        file_ = std::fopen(path_.c_str(), "r+b");
        if (error || file_ == nullptr || std::fseek(file_, 0, SEEK_END) != 0) return false;
        std::setvbuf(file_, nullptr, _IOFBF, kIoBlock);
        failed_ = false;
        return true;
    }

    // Appends the whole spool to `out`: the file through `block`, then the pieces in memory.
    bool copyTo(std::FILE* out, std::vector<char>& block) {
        if (fileBytes_ > 0) {
            if (!flush() || std::fseek(file_, 0, SEEK_SET) != 0) return false;
            std::uint64_t left = fileBytes_;
            while (left > 0) {
                const std::size_t want =
                    static_cast<std::size_t>(std::min<std::uint64_t>(left, block.size()));
                if (std::fread(block.data(), 1, want, file_) != want) return false;
                if (std::fwrite(block.data(), 1, want, out) != want) return false;
                left -= want;
            }
            if (std::fseek(file_, 0, SEEK_END) != 0) return false;
        }
        for (const Piece& piece : held_) {
            if (std::fwrite(piece.data.get(), 1, piece.size, out) != piece.size) return false;
        }
        return true;
    }

    // Closes and removes the spool and lets its memory go; a failed removal is ignored.
    void discard() {
        held_.clear();
        heldBytes_ = 0;
        if (file_ == nullptr) return;
        std::fclose(file_);
        file_ = nullptr;
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }

  private:
    struct Piece {
        std::unique_ptr<char[]> data;
        std::size_t size = 0;
    };

    std::filesystem::path path_;
    std::FILE* file_ = nullptr;
    std::uint64_t fileBytes_ = 0;
    std::vector<Piece> held_;
    std::size_t heldBytes_ = 0;
    bool failed_ = false;  // a write failed, so the file may hold bytes past fileBytes_
};

// The opening of every message about one frame.
std::string frameLabel(double frame) {
    return "frame " + usdDouble(frame) + ": ";
}

}  // namespace

struct UsdCurvesWriter::Property {
    int rank = 0;
    std::size_t order = 0;
    std::string name;
    std::string declaration;  // type and name, "float[] widths"
    std::string metadata;     // "interpolation = \"vertex\"", or empty
    Spool spool;
};

struct UsdCurvesWriter::ChunkBuffer {
    std::unique_ptr<char[]> data;
    std::size_t capacity = 0;
    std::size_t used = 0;

    char* reserve(std::size_t size) {
        if (size > capacity) {
            data = std::make_unique_for_overwrite<char[]>(size);
            capacity = size;
        }
        return data.get();
    }
};

// One frame, checked and ready to write: the strands that are written and each property's source.
struct UsdCurvesWriter::FramePlan {
    struct Item {
        Source source = Source::kCounts;
        bool perPoint = false;
        int rank = 0;
        std::string name;
        std::string declaration;
        std::string metadata;
        std::array<const float*, 3> floats{};
    };

    std::string frameText;
    const std::uint64_t* offsets = nullptr;
    // Indices of the written strands, or empty when every strand is written.
    std::vector<std::uint64_t> kept;
    std::size_t keptCount = 0;
    std::span<const std::array<float, 2>> rootUvs;
    std::string extentText;
    std::vector<Item> items;

    std::size_t strand(std::size_t i) const { return kept.empty() ? i : kept[i]; }
};

UsdCurvesWriter::UsdCurvesWriter(std::filesystem::path path, UsdOptions options)
    : path_(std::move(path)), options_(std::move(options)) {
    if (options_.upAxis != "Y" && options_.upAxis != "Z") {
        throw UsdError("the up axis is \"Y\" or \"Z\", not \"" + options_.upAxis + "\"");
    }
    if (!(options_.metersPerUnit > 0.0) || !std::isfinite(options_.metersPerUnit)) {
        throw UsdError("the meters per unit must be positive");
    }
    if (!(options_.framesPerSecond > 0.0) || !std::isfinite(options_.framesPerSecond)) {
        throw UsdError("the frames per second must be positive");
    }
    if ((options_.startTimeCode && !std::isfinite(*options_.startTimeCode)) ||
        (options_.endTimeCode && !std::isfinite(*options_.endTimeCode))) {
        throw UsdError("the start and end time codes must be finite numbers");
    }
    if (options_.startTimeCode && options_.endTimeCode &&
        *options_.endTimeCode < *options_.startTimeCode) {
        throw UsdError("the end time code is before the start time code");
    }
    for (const std::string& line : options_.customData) {
        if (line.find_first_of("\r\n") != std::string::npos) {
            throw UsdError("a customData line holds a line break: '" + line + "'");
        }
    }
    options_.defaultPrim = usdIdentifier(options_.defaultPrim);
    // The fixed properties' spools are made now, so that a path that cannot be written fails here
    // rather than at the first frame.
    addProperty(kRankCounts, "curveVertexCounts", "int[] curveVertexCounts", "");
    addProperty(kRankPoints, "points", "point3f[] points", "");
    addProperty(kRankExtent, "extent", "float3[] extent", "");
}

UsdCurvesWriter::~UsdCurvesWriter() = default;

void UsdCurvesWriter::cannotWrite() const {
    throw UsdError("cannot write '" + path_.string() + "'");
}

UsdCurvesWriter::Property& UsdCurvesWriter::addProperty(int rank, const std::string& name,
                                                        const std::string& declaration,
                                                        const std::string& metadata) {
    auto property = std::make_unique<Property>();
    property->rank = rank;
    property->order = properties_.size();
    property->name = name;
    property->declaration = declaration;
    property->metadata = metadata;
    std::string spoolName = name;
    std::replace(spoolName.begin(), spoolName.end(), ':', '_');
    std::filesystem::path spoolPath = path_;
    spoolPath += "." + spoolName + ".spool";
    if (!property->spool.open(spoolPath)) cannotWrite();
    Property& added = *property;
    byName_[name] = property.get();
    properties_.push_back(std::move(property));
    return added;
}

// Spooled text stays in memory while all spools together hold no more than the budget; the first
// text that would pass it sends every spool to its file, and later text follows it there.
bool UsdCurvesWriter::spoolText(Property& property, std::string_view text) {
    if (!spilled_ && heldBytes_ + text.size() <= options_.spoolMemoryBytes) {
        auto copy = std::make_unique_for_overwrite<char[]>(text.size());
        std::memcpy(copy.get(), text.data(), text.size());
        property.spool.hold(std::move(copy), text.size());
        heldBytes_ += text.size();
        return true;
    }
    return spillToFiles() && property.spool.write(text.data(), text.size());
}

// A chunk's text is held by taking its buffer over, without a copy; the chunk gets a fresh one.
bool UsdCurvesWriter::spoolChunk(Property& property, ChunkBuffer& chunk) {
    if (!spilled_ && heldBytes_ + chunk.used <= options_.spoolMemoryBytes) {
        if (chunk.used == 0) return true;
        property.spool.hold(std::move(chunk.data), chunk.used);
        heldBytes_ += chunk.used;
        chunk.capacity = 0;
        chunk.used = 0;
        return true;
    }
    return spillToFiles() && property.spool.write(chunk.data.get(), chunk.used);
}

bool UsdCurvesWriter::spillToFiles() {
    if (spilled_) return true;
    spilled_ = true;
    bool moved = true;
    heldBytes_ = 0;
    for (const auto& property : properties_) {
        moved = property->spool.spill() && moved;
        heldBytes_ += property->spool.heldBytes();
    }
    return moved;
}

UsdCurvesWriter::FramePlan UsdCurvesWriter::planFrame(
    double frame, const StrandSet& strands, std::span<const std::array<float, 2>> rootUvs) const {
    FramePlan plan;
    plan.frameText = usdDouble(frame);
    const std::string label = frameLabel(frame);
    const std::span<const std::uint64_t> offsets = strands.offsets();
    const std::span<const Vec3f> points = strands.points();
    const std::span<const float> widths = strands.widths();
    const std::size_t strandCount = strands.strandCount();
    plan.offsets = offsets.data();

    const bool hasWidths =
        widths.size() == points.size() && (!points.empty() || byName_.contains("widths"));
    if (!widths.empty() && widths.size() != points.size()) {
        throw UsdError(label + "the strand set has " + std::to_string(widths.size()) +
                       " widths for " + std::to_string(points.size()) + " points");
    }
    if (!rootUvs.empty() && rootUvs.size() != strandCount) {
        throw UsdError(label + std::to_string(rootUvs.size()) + " root uvs for " +
                       std::to_string(strandCount) + " strands");
    }
    const bool hasUvs =
        rootUvs.size() == strandCount && (strandCount > 0 || byName_.contains("primvars:st"));
    plan.rootUvs = rootUvs;

    // Strands of fewer than two points are left out; the index list is made only when one is.
    std::size_t shortStrands = 0;
    for (std::size_t s = 0; s < strandCount; ++s)
        shortStrands += offsets[s + 1] - offsets[s] < 2 ? 1 : 0;
    plan.keptCount = strandCount - shortStrands;
    if (shortStrands > 0) {
        plan.kept.reserve(plan.keptCount);
        for (std::size_t s = 0; s < strandCount; ++s) {
            if (offsets[s + 1] - offsets[s] >= 2) plan.kept.push_back(s);
        }
    }

    // The extent of the written points, padded by half the widest width so that it holds the
    // curves as drawn, and the first strand with a point or width that is not a finite number.
    struct Scan {
        Vec3f min{std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
                  std::numeric_limits<float>::max()};
        Vec3f max{-std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(),
                  -std::numeric_limits<float>::max()};
        float widest = 0.0f;
        std::size_t badPoint = std::numeric_limits<std::size_t>::max();
        std::size_t badWidth = std::numeric_limits<std::size_t>::max();
    };
    const std::size_t chunkCount = (plan.keptCount + kChunkStrands - 1) / kChunkStrands;
    std::vector<Scan> scans(chunkCount);
    parallelRange(0, chunkCount, 1, [&](std::size_t first, std::size_t last) {
        for (std::size_t c = first; c < last; ++c) {
            Scan scan;
            const std::size_t end = std::min(plan.keptCount, (c + 1) * kChunkStrands);
            for (std::size_t i = c * kChunkStrands; i < end; ++i) {
                const std::size_t s = plan.strand(i);
                for (std::size_t p = offsets[s]; p < offsets[s + 1]; ++p) {
                    const Vec3f& point = points[p];
                    if (!std::isfinite(point.x) || !std::isfinite(point.y) ||
                        !std::isfinite(point.z)) {
                        scan.badPoint = std::min(scan.badPoint, s);
                        continue;
                    }
                    scan.min = minPerAxis(scan.min, point);
                    scan.max = maxPerAxis(scan.max, point);
                }
                if (!hasWidths) continue;
                for (std::size_t p = offsets[s]; p < offsets[s + 1]; ++p) {
                    if (!std::isfinite(widths[p])) {
                        scan.badWidth = std::min(scan.badWidth, s);
                    } else {
                        scan.widest = std::max(scan.widest, widths[p]);
                    }
                }
            }
            scans[c] = scan;
        }
    });
    Scan whole;
    for (const Scan& scan : scans) {
        whole.min = minPerAxis(whole.min, scan.min);
        whole.max = maxPerAxis(whole.max, scan.max);
        whole.widest = std::max(whole.widest, scan.widest);
        whole.badPoint = std::min(whole.badPoint, scan.badPoint);
        whole.badWidth = std::min(whole.badWidth, scan.badWidth);
    }
    if (whole.badPoint != std::numeric_limits<std::size_t>::max()) {
        throw UsdError(label + "strand " + std::to_string(whole.badPoint) +
                       " has a point that is not a finite number");
    }
    if (whole.badWidth != std::numeric_limits<std::size_t>::max()) {
        throw UsdError(label + "strand " + std::to_string(whole.badWidth) +
                       " has a width that is not a finite number");
    }
    if (plan.keptCount == 0) {
        plan.extentText = "[]";
    } else {
        const float pad = 0.5f * whole.widest;
        const Vec3f lo = whole.min - Vec3f{pad, pad, pad};
        const Vec3f hi = whole.max + Vec3f{pad, pad, pad};
        char text[2 * (3 * kUsdFloatChars + 6) + 4];
        char* out = text;
        const auto corner = [&](const Vec3f& v) {
            *out++ = '(';
            out = writeUsdFloat(out, v.x);
            out = std::copy_n(", ", 2, out);
            out = writeUsdFloat(out, v.y);
            out = std::copy_n(", ", 2, out);
            out = writeUsdFloat(out, v.z);
            *out++ = ')';
        };
        *out++ = '[';
        corner(lo);
        out = std::copy_n(", ", 2, out);
        corner(hi);
        *out++ = ']';
        plan.extentText.assign(text, out);
    }

    // The properties of the frame, in writing order.
    using Item = FramePlan::Item;
    const std::string vertex = "interpolation = \"vertex\"";
    const std::string uniform = "interpolation = \"uniform\"";
    plan.items.push_back({Source::kCounts,
                          false,
                          kRankCounts,
                          "curveVertexCounts",
                          "int[] curveVertexCounts",
                          "",
                          {}});
    plan.items.push_back(
        {Source::kPoints, true, kRankPoints, "points", "point3f[] points", "", {}});
    if (hasWidths) {
        plan.items.push_back(
            {Source::kWidths, true, kRankWidths, "widths", "float[] widths", vertex, {}});
    }
    plan.items.push_back({Source::kIds,
                          false,
                          kRankStrandId,
                          "primvars:strandId",
                          "int64[] primvars:strandId",
                          uniform,
                          {}});
    if (hasUvs) {
        plan.items.push_back(
            {Source::kUvs, false, kRankSt, "primvars:st", "texCoord2f[] primvars:st", uniform, {}});
    }

    // The colour takes its three channels from the points when all three are there, else from the
    // strands; a component left over is written as a channel of its own.
    const auto colorAt = [&](bool perPoint) {
        std::array<const float*, 3> components{};
        for (std::size_t k = 0; k < 3; ++k) {
            const std::vector<float>* channel = perPoint
                                                    ? strands.pointChannel(channels::kColor[k])
                                                    : strands.strandChannel(channels::kColor[k]);
            if (channel == nullptr) return std::optional<std::array<const float*, 3>>();
            components[k] = channel->data();
        }
        return std::optional(components);
    };
    std::optional<bool> colorPerPoint;
    if (const auto components = colorAt(true)) {
        colorPerPoint = true;
        plan.items.push_back({Source::kColor, true, kRankColor, "primvars:displayColor",
                              "color3f[] primvars:displayColor", vertex, *components});
    } else if (const auto strandComponents = colorAt(false)) {
        colorPerPoint = false;
        plan.items.push_back({Source::kColor, false, kRankColor, "primvars:displayColor",
                              "color3f[] primvars:displayColor", uniform, *strandComponents});
    }

    // Every other channel, in primvar name order; names that would meet are refused.
    struct ChannelEntry {
        std::string identifier;
        std::string channel;
        bool perPoint;
    };
    std::vector<ChannelEntry> entries;
    for (const bool perPoint : {false, true}) {
        for (std::string& name :
             perPoint ? strands.pointChannelNames() : strands.strandChannelNames()) {
            if (name.empty() || name.front() == '_') continue;
            if (colorPerPoint == perPoint &&
                std::find(channels::kColor.begin(), channels::kColor.end(), name) !=
                    channels::kColor.end()) {
                continue;
            }
            entries.push_back({usdIdentifier(name), std::move(name), perPoint});
        }
    }
    std::stable_sort(
        entries.begin(), entries.end(),
        [](const ChannelEntry& a, const ChannelEntry& b) { return a.identifier < b.identifier; });
    const auto describe = [](const ChannelEntry& entry) {
        return std::string(entry.perPoint ? "the point channel '" : "the strand channel '") +
               entry.channel + "'";
    };
    for (std::size_t e = 0; e < entries.size(); ++e) {
        const ChannelEntry& entry = entries[e];
        const std::string primvar = "primvars:" + entry.identifier;
        if (kReservedPrimvars.contains(entry.identifier)) {
            throw UsdError(label + describe(entry) + " would be written as " + primvar +
                           ", a name the writer keeps for its own use; rename the channel");
        }
        if (e > 0 && entries[e - 1].identifier == entry.identifier) {
            throw UsdError(label + describe(entries[e - 1]) + " and " + describe(entry) +
                           " are both written as " + primvar + "; rename one of them");
        }
        const std::vector<float>* values = entry.perPoint ? strands.pointChannel(entry.channel)
                                                          : strands.strandChannel(entry.channel);
        plan.items.push_back({Source::kChannel,
                              entry.perPoint,
                              kRankChannel,
                              primvar,
                              "float[] " + primvar,
                              entry.perPoint ? vertex : uniform,
                              {values->data(), nullptr, nullptr}});
    }

    // A primvar keeps one interpolation in USD, so its level cannot change within an export.
    for (const Item& item : plan.items) {
        const auto found = byName_.find(item.name);
        if (found != byName_.end() && found->second->metadata != item.metadata) {
            const auto level = [&](const std::string& metadata) {
                return metadata == vertex ? std::string("per point") : std::string("per strand");
            };
            throw UsdError(label + item.name + " was written " + level(found->second->metadata) +
                           " and is now " + level(item.metadata) +
                           "; a primvar keeps one interpolation through an export");
        }
    }
    return plan;
}

bool UsdCurvesWriter::appendArray(Property& property, const FramePlan& plan, std::size_t itemIndex,
                                  const StrandSet& strands) {
    const FramePlan::Item& item = plan.items[itemIndex];
    const std::uint64_t* offsets = plan.offsets;
    const std::size_t bound = elementChars(item.source) + 2;
    const Vec3f* points = strands.points().data();
    const float* widths = strands.widths().data();
    const std::uint64_t* ids = strands.ids().data();
    const std::array<float, 2>* uvs = plan.rootUvs.data();
    const auto& floats = item.floats;

    // Writes the elements of strands [begin, end) of the written ones; every element but the
    // array's first has ", " before it.
    const auto formatChunk = [&](std::size_t begin, std::size_t end, ChunkBuffer& buffer) {
        const std::size_t last = plan.strand(end - 1);
        const std::size_t elements =
            item.perPoint ? offsets[last + 1] - offsets[plan.strand(begin)] : end - begin;
        char* out = buffer.reserve(elements * bound);
        char* const start = out;
        bool first = begin == 0;
        const auto separate = [&] {
            if (!first) out = std::copy_n(", ", 2, out);
            first = false;
        };
        const auto tuple = [&](float a, float b, const float* c) {
            *out++ = '(';
            out = writeUsdFloat(out, a);
            out = std::copy_n(", ", 2, out);
            out = writeUsdFloat(out, b);
            if (c != nullptr) {
                out = std::copy_n(", ", 2, out);
                out = writeUsdFloat(out, *c);
            }
            *out++ = ')';
        };
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = plan.strand(i);
            if (!item.perPoint) {
                separate();
                switch (item.source) {
                    case Source::kCounts:
                        out = writeUsdInt(out,
                                          static_cast<std::int64_t>(offsets[s + 1] - offsets[s]));
                        break;
                    case Source::kIds:
                        out = writeUsdInt(out, static_cast<std::int64_t>(ids[s]));
                        break;
                    case Source::kUvs:
                        tuple(uvs[s][0], uvs[s][1], nullptr);
                        break;
                    case Source::kColor:
                        tuple(floats[0][s], floats[1][s], &floats[2][s]);
                        break;
                    case Source::kChannel:
                        out = writeUsdFloat(out, floats[0][s]);
                        break;
                    default:
                        break;
                }
                continue;
            }
            const std::size_t pointEnd = offsets[s + 1];
            switch (item.source) {
                case Source::kPoints:
                    for (std::size_t p = offsets[s]; p < pointEnd; ++p) {
                        separate();
                        tuple(points[p].x, points[p].y, &points[p].z);
                    }
                    break;
                case Source::kWidths:
                    for (std::size_t p = offsets[s]; p < pointEnd; ++p) {
                        separate();
                        out = writeUsdFloat(out, widths[p]);
                    }
                    break;
                case Source::kColor:
                    for (std::size_t p = offsets[s]; p < pointEnd; ++p) {
                        separate();
                        tuple(floats[0][p], floats[1][p], &floats[2][p]);
                    }
                    break;
                case Source::kChannel:
                    for (std::size_t p = offsets[s]; p < pointEnd; ++p) {
                        separate();
                        out = writeUsdFloat(out, floats[0][p]);
                    }
                    break;
                default:
                    break;
            }
        }
        buffer.used = static_cast<std::size_t>(out - start);
    };

    if (!spoolText(property, plan.frameText + ": [")) return false;
    // Blocks go through two sets of chunk buffers, so that one block is written to the spool while
    // the next is formatted: the file's bytes then cost no thread its share of the formatting.
    if (chunks_.size() < 2 * kBlockChunks) chunks_.resize(2 * kBlockChunks);
    const std::size_t blockStrands = kChunkStrands * kBlockChunks;
    const std::size_t blockCount = (plan.keptCount + blockStrands - 1) / blockStrands;
    const auto chunksOf = [&](std::size_t block) {
        const std::size_t strandsIn = std::min(plan.keptCount - block * blockStrands, blockStrands);
        return (strandsIn + kChunkStrands - 1) / kChunkStrands;
    };
    bool written = true;
    for (std::size_t block = 0; block <= blockCount && written; ++block) {
        parallelRange(0, 2, 1, [&](std::size_t first, std::size_t last) {
            for (std::size_t task = first; task < last; ++task) {
                if (task == 0 && block > 0) {
                    const std::size_t set = (block - 1) % 2 * kBlockChunks;
                    for (std::size_t c = 0; c < chunksOf(block - 1) && written; ++c) {
                        written = spoolChunk(property, chunks_[set + c]);
                    }
                }
                if (task == 1 && block < blockCount) {
                    const std::size_t start = block * blockStrands;
                    const std::size_t set = block % 2 * kBlockChunks;
                    parallelRange(0, chunksOf(block), 1, [&](std::size_t from, std::size_t to) {
                        for (std::size_t c = from; c < to; ++c) {
                            const std::size_t begin = start + c * kChunkStrands;
                            formatChunk(begin, std::min(plan.keptCount, begin + kChunkStrands),
                                        chunks_[set + c]);
                        }
                    });
                }
            }
        });
    }
    if (!written) return false;
    return spoolText(property, "],\n");
}

void UsdCurvesWriter::writeSamples(const FramePlan& plan, const StrandSet& strands) {
    std::vector<std::pair<Property*, std::uint64_t>> before;
    before.reserve(properties_.size());
    for (const auto& property : properties_)
        before.emplace_back(property.get(), property->spool.size());
    const std::size_t existing = properties_.size();

    bool written = true;
    std::vector<bool> sampled(existing, false);
    try {
        for (std::size_t i = 0; i < plan.items.size() && written; ++i) {
            const FramePlan::Item& item = plan.items[i];
            const auto found = byName_.find(item.name);
            Property& property =
                found != byName_.end()
                    ? *found->second
                    : addProperty(item.rank, item.name, item.declaration, item.metadata);
            if (property.order < existing) sampled[property.order] = true;
            written = appendArray(property, plan, i, strands);
            // The extent comes right after the points, its text made while checking the frame.
            if (written && item.source == Source::kPoints) {
                Property& extent = *byName_.at("extent");
                sampled[extent.order] = true;
                written = spoolText(extent, plan.frameText + ": " + plan.extentText + ",\n");
            }
        }
        // A property this frame lacks is blocked here rather than left holding its last value.
        for (std::size_t p = 0; p < existing && written; ++p) {
            if (sampled[p]) continue;
            written = spoolText(*properties_[p], plan.frameText + ": None,\n");
        }
        // A written frame is on disk whole, so that undoing a later one or a close that fails
        // (a full disk) cannot take any of it with them.
        for (std::size_t p = 0; p < properties_.size() && written; ++p)
            written = properties_[p]->spool.flush();
    } catch (const UsdError&) {
        written = false;
    }
    if (written) return;
    // Undo the frame: spools made for it go, the others are cut back to where they were.
    while (properties_.size() > existing) {
        byName_.erase(properties_.back()->name);
        properties_.pop_back();
    }
    heldBytes_ = 0;
    for (const auto& [property, size] : before) {
        property->spool.truncate(size);
        heldBytes_ += property->spool.heldBytes();
    }
    cannotWrite();
}

void UsdCurvesWriter::writeFrame(double frame, const StrandSet& strands,
                                 std::span<const std::array<float, 2>> rootUvs) {
    if (closed_) throw UsdError("writeFrame after close");
    if (!std::isfinite(frame)) throw UsdError("frames must be finite numbers");
    if (lastFrame_ && frame <= *lastFrame_) throw UsdError("frames must increase");
    const FramePlan plan = planFrame(frame, strands, rootUvs);
    writeSamples(plan, strands);
    lastFrame_ = frame;
    ++frames_;
}

std::string UsdCurvesWriter::headerText() const {
    const UsdOptions& o = options_;
    std::string text = "#usda 1.0\n(\n    defaultPrim = \"" + o.defaultPrim + "\"\n";
    text += "    doc = " + usdQuoted("Velmorin " + o.doc) + "\n";
    text += "    customLayerData = {\n";
    text += "        dictionary velmorin = {\n            int layoutVersion = " +
            std::to_string(kUsdLayoutVersion) + "\n            string version = \"" +
            std::string(kUsdProductVersion) + "\"\n        }\n";
    text += "    }\n";
    if (o.startTimeCode) text += "    startTimeCode = " + usdDouble(*o.startTimeCode) + "\n";
    if (o.endTimeCode) text += "    endTimeCode = " + usdDouble(*o.endTimeCode) + "\n";
    const std::string fps = usdDouble(o.framesPerSecond);
    text += "    framesPerSecond = " + fps + "\n    timeCodesPerSecond = " + fps + "\n";
    text += "    metersPerUnit = " + usdDouble(o.metersPerUnit) + "\n";
    text += "    upAxis = \"" + o.upAxis + "\"\n)\n\n";
    text += "def Xform \"" + o.defaultPrim + "\" (\n    customData = {\n";
    for (const std::string& line : o.customData)
        text += "        " + line + "\n";
    text += "    }\n    kind = \"component\"\n)\n{\n";
    text += "    def BasisCurves \"strands\"\n    {\n";
    text += "        uniform token type = \"linear\"\n";
    text += "        uniform token wrap = \"nonperiodic\"\n";
    if (o.hidden) text += "        token visibility = \"invisible\"\n";
    return text;
}

void UsdCurvesWriter::close() {
    if (closed_) return;
    std::filesystem::path temporary = path_;
    temporary += ".tmp";
    std::FILE* out = std::fopen(temporary.c_str(), "wb");
    if (out == nullptr) cannotWrite();
    std::vector<Property*> order;
    for (const auto& property : properties_)
        order.push_back(property.get());
    std::stable_sort(order.begin(), order.end(),
                     [](const Property* a, const Property* b) { return a->rank < b->rank; });
    std::vector<char> block(kIoBlock);
    const auto put = [&](const std::string& text) {
        return std::fwrite(text.data(), 1, text.size(), out) == text.size();
    };
    bool written = put(headerText());
    for (Property* property : order) {
        if (!written) break;
        std::string opening;
        if (!property->metadata.empty()) {
            opening = "        " + property->declaration + " (\n            " + property->metadata +
                      "\n        )\n";
        }
        opening += "        " + property->declaration + ".timeSamples = {\n";
        written = put(opening) && property->spool.copyTo(out, block) && put("        }\n");
    }
    written = written && put("    }\n}\n");
    written = std::fclose(out) == 0 && written;
    std::error_code error;
    if (written) std::filesystem::rename(temporary, path_, error);
    if (!written || error) {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
        cannotWrite();
    }
    for (const auto& property : properties_)
        property->spool.discard();
    closed_ = true;
}

}  // namespace velmorin
