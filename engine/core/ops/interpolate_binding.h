#pragma once
// The binding stage of Interpolate, as plain functions on values: for every strand, which guides
// it follows and with what weight. It depends only on root positions, regions, parts and a few
// settings, so it is built once and then updated in place of the chunks that a moved root or guide
// can reach; chunks nothing reached are shared by reference with the state before. The shape stage
// (interpolate_shape.h) reads the result, and engines read it flattened into one table.

#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

inline constexpr std::size_t kBindingChunkStrands = 256;
// Above this many guides a record's guide index needs 32 bits.
inline constexpr std::size_t kNarrowGuideLimit = 65535;
inline constexpr float kInfiniteDistance = std::numeric_limits<float>::infinity();

// The settings record of one run, built from the node's params (makeInterpolateSettings).
struct InterpolateSettings {
    unsigned neighbors = 3;
    unsigned kept = 3;         // neighbors, at most the guide count
    unsigned candidates = 8;   // nearest guides fetched per strand
    bool nearestOnly = false;  // neighbors is 1
    float reachScale = 1.5f;
    float power = 2.0f;
    bool followSurface = false;
    float limitDistance = 0.0f;
    bool respectParts = false;  // parts were given and the param asks for them
    bool hasGuideWeights = false;
    // With fillTubes, a hash of which strand rides which tube (TubeBinding::ridersHash); else 0.
    std::uint64_t tubeRiders = 0;

    bool operator==(const InterpolateSettings&) const = default;
};

// The settings for `guideCount` usable guides. `followSurface` and `respectParts` are the params
// as they stand where they can take effect (a scalp connected, parts present).
InterpolateSettings makeInterpolateSettings(double smoothness, std::int64_t neighbors,
                                            std::size_t guideCount, bool followSurface,
                                            double limitDistance, bool respectParts,
                                            bool hasGuideWeights);

struct TubeBinding;    // ops/interpolate_tubes.h
struct SurfaceGuides;  // ops/interpolate_follow.h

// Part lines as world polylines, for the test whether a guide lies across a part from a strand.
// Immutable once shared.
struct PartsSnapshot {
    // Per part, its points; a part of fewer than 2 points divides nothing.
    std::vector<std::vector<Vec3f>> lines;
    // Per part, its bounding box grown by nothing: a quick rejection of far pairs.
    std::vector<Vec3f> lineMin, lineMax;
    std::uint64_t hash = 0;

    // Whether the way from `from` to `to`, seen along `normal`, crosses one of the lines.
    bool divides(const Vec3f& from, const Vec3f& to, const Vec3f& normal) const;
};
std::shared_ptr<const PartsSnapshot> makePartsSnapshot(std::vector<std::vector<Vec3f>> lines);

// The binding of 256 consecutive strands (fewer in the last chunk). Immutable once shared; an
// unchanged chunk is shared between successive states.
struct BindingChunk {
    std::uint32_t firstStrand = 0;
    // strandCount + 1 entries: strand k's records are recordStart[k] to recordStart[k + 1] - 1.
    std::vector<std::uint32_t> recordStart;
    std::vector<float> nearest2;  // squared distance that drives the limit falloff
    // Squared distance of the first guide past the candidates: a guide that moves farther than
    // this can't change the strand's binding. Infinite where there was none or it was not clean.
    std::vector<float> next2;
    std::vector<std::uint8_t> found;
    std::vector<std::uint8_t> twisted;
    // Per record: stored weight q for (q + 1) / 65536, and the guide's index.
    std::vector<std::uint16_t> weights;
    std::vector<std::uint32_t> guides;
    // Per record of a twisted strand, in its records' order; empty when none is twisted.
    std::vector<float> twists;

    std::size_t strandCount() const { return nearest2.size(); }
};

// The strand-to-guide table as a whole.
struct Binding {
    std::vector<std::shared_ptr<const BindingChunk>> chunks;
    std::size_t strandCount = 0;
    std::size_t guideCount = 0;
    std::size_t recordCount = 0;
};

// A guide's reach table: per guide its reach (infinite where too few guides to measure one).
struct ReachTable {
    std::vector<float> reach;
    std::vector<float> walkReach;  // reach rounded up to a power of two, for the surface walk
};

// The result of the binding stage, shared by the operator, engines and the preview. Immutable once
// published.
struct InterpolateState {
    InterpolateSettings settings;
    std::vector<Vec3f> strandRoots;
    std::vector<Vec3f> strandNormals;  // empty without a scalp
    std::vector<Vec3f> guideRoots;
    std::vector<float> guideWeights;  // empty without mapped guide weights
    // Per strand the list it draws guides from: 0 all guides, r + 1 region r.
    std::vector<std::int32_t> strandLists;
    // The region labels the guides carry, ascending: region r is regionLabels[r].
    std::vector<std::int32_t> regionLabels;
    std::vector<std::int32_t> guideRegions;  // per guide its region index, or -1
    ReachTable allReach;                     // over all guides
    std::vector<ReachTable> regionReach;     // per region, indexed by guide
    std::shared_ptr<const PartsSnapshot> parts;
    // With fillTubes, per strand the tube it rides or leans toward; null without.
    std::shared_ptr<const TubeBinding> tubes;
    Binding binding;
};

// What the binding is built from. Spans must outlive the call.
struct BindingInputs {
    std::span<const Vec3f> strandRoots;
    std::span<const Vec3f> strandNormals;  // empty, or one per strand (for parts)
    std::span<const Vec3f> guideRoots;
    std::span<const float> guideWeights;         // empty, or one factor per guide
    std::span<const std::int32_t> strandLabels;  // empty, or a region label per strand (-1 none)
    std::span<const std::int32_t> guideLabels;   // empty, or a region label per guide (-1 none)
    std::shared_ptr<const PartsSnapshot> parts;  // null: none
    // With fillTubes: a strand that rides a tube gets that guide alone. Null: none.
    std::shared_ptr<const TubeBinding> tubes;
    // With followSurface: the walk over the scalp that measures how far guides are. Null: in a
    // straight line.
    std::shared_ptr<const SurfaceGuides> surface;
};

// Builds the whole binding. Strands rooted where nothing binds them get no records. The result
// does not depend on the thread count.
std::shared_ptr<const InterpolateState> bindStrands(const InterpolateSettings& settings,
                                                    const BindingInputs& inputs);

// The binding after a change of some roots, regions or guides: `previous` is reused where it can
// be (same settings, strand and guide counts, presence of parts and region table); chunks no
// dirty point can reach are shared, the rest rebuilt, so the result equals bindStrands bit for
// bit. Falls back on bindStrands when the state can't be reused or more than half the strands
// moved. `rebuiltStrands` (optional) receives how many strands were bound again.
std::shared_ptr<const InterpolateState> rebindStrands(
    const std::shared_ptr<const InterpolateState>& previous, const InterpolateSettings& settings,
    const BindingInputs& inputs, std::size_t* rebuiltStrands = nullptr);

// The flattened form that engines upload: per strand two words (record start << 6 | twisted << 5
// | count, with count 31 meaning the true count is the word at the record start and the records
// follow it; then nearest2's bits), then the records (one word: index low 16, weight high 16; or
// two words, index then weight, when `wide`), then the twist floats' bits of twisted strands.
struct FlatBinding {
    bool wide = false;
    std::vector<std::uint32_t> strandWords;  // 2 per strand
    std::vector<std::uint32_t> records;
    std::uint32_t twistStart = 0;  // index in `records` where the twist floats begin
};
FlatBinding flattenBinding(const Binding& binding);

// A strand's records as the shape stage reads them.
struct BindingRecordView {
    std::span<const std::uint16_t> weights;
    std::span<const std::uint32_t> guides;
    std::span<const float> twists;  // empty unless twisted
};

}  // namespace velmorin
