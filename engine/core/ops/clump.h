#pragma once
// Clumping as plain functions on values: the choice of clump centers (a CenterPlan, built once and
// shared read-only), the centers' axes as fixed tables of 32 samples, and the shape step that
// pulls each strand toward its center's axis (or pushes it away, for partings). The Clump and Wet
// nodes are thin classes over these, reached only through their registration functions.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/vec3.h"
#include "fields/field_sampler.h"
#include "graph/ramp.h"
#include "ops/shape_support.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {

class Operator;
class OperatorRegistry;
class ScalpMesh;
struct PartsSnapshot;

void registerClumpOperator(OperatorRegistry& registry);
void registerWetOperator(OperatorRegistry& registry);

// A Clump node of its own, as Wet chains them.
std::unique_ptr<Operator> makeClumpOperator();

struct CenterPlan;
// The plan a Clump node holds from its last run; null before it ran or for another node type.
std::shared_ptr<const CenterPlan> clumpPlanOf(const Operator& op);

// Where the clumps' centers come from.
enum class CenterSource { Pick, InputPoints, InputCurves };
// How many centers a pick makes: about `count`, or as many as fit `size` apart.
enum class ClumpBy { Count, Size };

// The centers input, read once: per usable curve (one with points) its id, root, points and its
// own value of the region channel where it has one.
struct CenterCurves {
    std::vector<std::uint64_t> ids;
    std::vector<std::span<const Vec3f>> curves;
    std::vector<float> regions;  // NaN: none of its own
    std::uint64_t hash = 0;      // of ids and roots

    std::size_t size() const { return ids.size(); }
};
CenterCurves centerCurvesOf(const GuideSet& guides, const std::string& regionChannel);
CenterCurves centerCurvesOf(const StrandSet& strands, const std::string& regionChannel);

// What the choice of centers reads besides the strands.
struct CenterPickSettings {
    CenterSource source = CenterSource::Pick;
    ClumpBy by = ClumpBy::Count;
    std::int64_t count = 300;
    float size = 0.0f;
    float randomness = 0.3f;
    std::uint64_t seed = 0;
    FieldSampler centerWeight{1.0f};  // per strand
    std::string regionChannel = "region";
    bool followTubes = false;
    const PartsSnapshot* parts = nullptr;  // respectParts, where there are parts
    const ScalpMesh* scalp = nullptr;      // normals at the roots, where the roots are on it
    std::uint64_t scalpKey = 0;            // what the scalp's normals are keyed by
    float area = 0.0f;  // the area the centers are spread over; 0: the roots' extent
    const CenterCurves* centers = nullptr;  // the input modes' centers
};

// The outcome of choosing centers: which strands (or center curves) they are, where their roots
// lie, their ids, groups and clump numbers, and every strand's center. Immutable once shared.
struct CenterPlan {
    static constexpr std::uint32_t kNone = 0xffffffffu;
    static constexpr std::size_t kKeyChunk = 4096;  // strands per piece of the key
    static constexpr int kNeighbors = 6;            // neighbouring centers, for copyAmount

    std::uint64_t key = 0;
    std::uint64_t settingsKey = 0;            // the part of the key that is not the strands'
    std::vector<std::uint64_t> chunkHashes;   // per kKeyChunk strands: ids, roots, channels read
    std::vector<std::uint64_t> strandHashes;  // per strand: what the chunks' hashes fold
    std::size_t strandCount = 0;
    float area = 0.0f;  // the area the count was fitted to

    CenterSource source = CenterSource::Pick;
    std::vector<std::uint32_t> chosen;      // per center: its strand (pick) or center curve
    std::vector<std::uint32_t> axisStrand;  // per center: the strand that is its axis, or kNone
    std::vector<Vec3f> roots;               // per center: its root
    std::vector<Vec3f> normals;             // per center: the scalp's normal there, or zero
    std::vector<std::uint64_t> ids;         // per center
    std::vector<float> regions;             // per center: its region (NaN: none)
    std::vector<float> numbers;             // per center: what the clump channel receives
    std::vector<std::uint32_t> neighbors;   // kNeighbors per center, padded with its own index

    std::vector<std::int32_t> centerOf;      // per strand: its center, -1 for none
    std::vector<std::uint32_t> memberStart;  // per center and one more: where its strands start
    std::vector<std::uint32_t> members;      // the strands of each center, ascending

    std::size_t size() const { return ids.size(); }
    std::span<const std::uint32_t> membersOf(std::size_t center) const {
        return std::span<const std::uint32_t>(members).subspan(
            memberStart[center], memberStart[center + 1] - memberStart[center]);
    }
};

// The key pieces of a plan for `strands` under `settings`: per kKeyChunk strands a hash of what
// the choice reads of them (ids, root points, `_preview`, the region and tube channels, a mapped
// centerWeight), and the hash of the settings. Chunks are hashed in parallel, the same at any
// thread count.
std::vector<std::uint64_t> centerChunkHashes(const StrandSet& strands,
                                             const CenterPickSettings& settings);
// Whether `plan` still holds for `strands` where only the `changed` strands may differ from those
// it was built for: the same settings and, for each changed strand, the same hash of what the
// choice reads of it.
bool centerPlanHolds(const CenterPlan& plan, const StrandSet& strands,
                     const CenterPickSettings& settings, std::span<const std::uint64_t> changed);
std::uint64_t centerSettingsKey(const CenterPickSettings& settings);
std::uint64_t centerPlanKey(std::uint64_t settingsKey, std::span<const std::uint64_t> chunks);

// The area a pick spreads its centers over: the scalp's where there is one, else the extent of the
// roots every preview holds across its two longest sides (a patch of hair).
float rootArea(const StrandSet& strands, const ScalpMesh* scalp);

// Chooses the centers and assigns every strand to one. Picked centers come from the strands every
// preview holds (`_preview` 1, or all without the channel), so that a preview keeps its full
// run's clumps.
std::shared_ptr<const CenterPlan> buildCenterPlan(const StrandSet& strands,
                                                  const CenterPickSettings& settings);

// The centers' axes: 32 samples each at equal arcs along the axis curve, with their arcs and,
// where asked for, frames carried by parallel transport from the root. Plain arrays, so that the
// shape step allocates nothing per strand.
struct ClumpAxisTable {
    static constexpr std::size_t kSamples = 32;
    std::size_t centers = 0;
    std::vector<Vec3f> points;    // kSamples per center
    std::vector<float> arcs;      // kSamples per center
    std::vector<Vec3f> normals;   // kSamples per center, where frames were asked for
    std::vector<Vec3f> tangents;  // kSamples per center, where frames were asked for

    std::span<const Vec3f> axisPoints(std::size_t c) const {
        return std::span<const Vec3f>(points).subspan(c * kSamples, kSamples);
    }
    std::span<const float> axisArcs(std::size_t c) const {
        return std::span<const float>(arcs).subspan(c * kSamples, kSamples);
    }
    float axisLength(std::size_t c) const { return arcs[c * kSamples + kSamples - 1]; }
    bool hasFrames() const { return !normals.empty(); }
};

// The axis table of a plan: each center's axis strand in `strands` or its center curve, each
// taking on `copyAmount` of its neighbours' shapes measured from their roots.
ClumpAxisTable clumpAxisTable(const CenterPlan& plan, const StrandSet& strands,
                              const CenterCurves* curves, float copyAmount, bool frames);

// The axis of center c at t in 0..1: x = clamp(t) * 31, i = min(floor(x), 30), linear between
// samples i and i + 1.
Vec3f centerAlong(const ClumpAxisTable& axes, std::size_t c, float t);

// The 24-bit number the clump channel receives for a center's id, exact as a float.
float clumpNumber(std::uint64_t id);

enum class PastTip { Gather, Extend };
enum class FlatAlong { Surface, Random, Direction };

// The shape step's settings.
struct ClumpSettings {
    FieldSampler strength{0.7f};  // per point
    Ramp profile;
    PastTip pastTip = PastTip::Gather;
    float lockRadius = 0.0f;
    float repelRadius = 0.5f;
    float flatness = 0.0f;
    FlatAlong flatAlong = FlatAlong::Surface;
    Vec3f flatDirection{1.0f, 0.0f, 0.0f};
    FieldSampler volumize{0.0f};  // per strand
    Ramp volumizeProfile;
    float strengthRandom = 0.0f;
    float strandStrengthRandom = 0.0f;
    float lockRadiusRandom = 0.0f;
    std::uint64_t seed = 0;
};

// Whether the settings ask for frames along the axes (a lock or a ribbon).
bool clumpNeedsFrames(const ClumpSettings& settings);

// Pulls (or, with a negative strength, pushes) the selected strands toward their centers' axes,
// writing every point of each into `out` (a point column of the input's layout).
void clumpStrands(const StrandSet& input, const CenterPlan& plan, const ClumpAxisTable& axes,
                  const ClumpSettings& settings, const StrandSelection& selection,
                  std::span<Vec3f> out);

// Wet's levels, smallest first: each one's clump size, strength, profile along the length and seed.
struct WetLevel {
    float size = 0.0f;
    float strength = 0.0f;
    Ramp profile;
    std::int64_t seed = 0;
};
std::vector<WetLevel> wetLevels(float wetness, float clumpSize, int levels, std::int64_t seed);

// The channel a Wet level writes: the biggest `channel` itself, each smaller one with its number of
// halvings after it; `__wetClump` in place of an empty name.
std::string wetLevelChannel(const std::string& channel, int halvings);

}  // namespace velmorin
