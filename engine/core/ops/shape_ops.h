#pragma once
// The shape operators, which change strands point by point, one strand at a time: Length, Width,
// Resample, Noise, Curl and Twist, and Bend, Direction, Transform, Smooth and Flow, which turn,
// move and relax whole strands. Each node is a thin class over one plain function on strand data,
// declared here so that tests and benchmarks call it without a graph. A function reads `input` and
// writes every value of each selected strand into `out` (a column of a set with the input's
// layout), so that an incremental run can start from the previous result; strands it leaves as they
// are (fewer than 2 points, an effect of nothing, no root frame where one is needed) are written as
// they came. The classes are reached only through the registration functions.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "fields/field_sampler.h"
#include "graph/ramp.h"
#include "ops/shape_support.h"
#include "strands/guide.h"

namespace velmorin {

struct FlowField;
class OperatorRegistry;

void registerLengthOperator(OperatorRegistry& registry);
void registerWidthOperator(OperatorRegistry& registry);
void registerResampleOperator(OperatorRegistry& registry);
void registerTwistOperator(OperatorRegistry& registry);
void registerNoiseOperator(OperatorRegistry& registry);
void registerCurlOperator(OperatorRegistry& registry);
void registerDirectionOperator(OperatorRegistry& registry);
void registerFlowOperator(OperatorRegistry& registry);
void registerSmoothOperator(OperatorRegistry& registry);
void registerSculptOperator(OperatorRegistry& registry);
void registerBendOperator(OperatorRegistry& registry);
void registerTransformOperator(OperatorRegistry& registry);

// Length: keeps a share of each strand from the root, its points spread at equal arc steps over
// what is kept; a point count never changes. `length` and `fraction` are sampled per strand.
struct LengthSettings {
    FieldSampler length{1.0f};
    FieldSampler fraction{0.0f};
    float randomness = 0.0f;
    std::uint64_t seed = 0;
};
// Writes the selected strands of `out` (a set of the input's layout).
void trimStrands(const StrandSet& input, const LengthSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out);

// Width: `width` (per point) times the profile at the point's share of the length, times a
// per-strand variation. Strands marked `rachis` keep their widths.
struct WidthSettings {
    FieldSampler width{0.007f};
    Ramp profile;
    float randomness = 0.0f;
    std::uint64_t seed = 0;
};
void widenStrands(const StrandSet& input, const WidthSettings& settings,
                  const StrandSelection& selection, std::span<float> out);

// Resample: new point counts and positions. Widths and point channels follow by arc.
enum class ResampleMode { Even, Length, Curvature };
struct ResampleSettings {
    int segments = 16;  // 0 keeps every strand
    ResampleMode mode = ResampleMode::Even;
    int minSegments = 3;
    float maxAngle = 15.0f;  // degrees
};
// The point count of every strand after resampling; a strand kept as it is (fewer than 2
// points, no length, braided, or `segments` 0) keeps its own.
std::vector<std::uint32_t> resamplePointCounts(const StrandSet& input,
                                               const ResampleSettings& settings);
StrandSet resampleStrands(const StrandSet& input, const ResampleSettings& settings);
// Rewrites the points, widths and point channels of the selected strands of `out`, whose offsets
// already hold the resampled counts and whose point channels are those of `input`. With
// `widthsKept` the widths of `out` are left as they are: they must be the input's, unchanged by
// the walk (widthsStayAlongStrands) on strands that keep their counts.
void resampleInto(const StrandSet& input, const ResampleSettings& settings,
                  const StrandSelection& selection, StrandSet& out, bool widthsKept = false);
// Whether the walk gives every strand of `input` its own widths back bit for bit: each
// strand's widths are one number all along it (a blend of equal ends is that number), finite and
// not a negative zero (to which a blend adds a positive one). False for a set without widths.
bool widthsStayAlongStrands(const StrandSet& input);

// Noise: a displacement per point, on a fraction of the strands.
enum class NoiseSpace { Strand, World };
enum class NoiseMode { Smooth, Kinky };
struct NoiseSettings {
    FieldSampler amplitude{0.2f};  // per point
    FieldSampler fraction{1.0f};   // per strand
    float frequency = 3.0f;
    int octaves = 2;
    Ramp profile;
    NoiseSpace space = NoiseSpace::Strand;
    NoiseMode mode = NoiseMode::Smooth;
    std::uint64_t seed = 0;
};
// What one run of Noise displaced each point by before its amplitude: per point the unit
// displacement and the profile's share, per strand whether it got noise at all. Filled by
// noiseStrands when given (for every strand of the selection), and replayed by
// applyNoiseUnits with another amplitude to the same bits as a fresh run.
struct NoiseUnits {
    std::vector<Vec3f> unit;           // per point; the root's is unused
    std::vector<float> profile;        // per point: the profile at the point's share of length
    std::vector<std::uint8_t> noised;  // per strand: 1 where the strand got noise
};
void noiseStrands(const StrandSet& input, const NoiseSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out,
                  NoiseUnits* record = nullptr);
// The noise of `units` (made from this very input) at the amplitude of `settings`, for every
// strand.
void applyNoiseUnits(const StrandSet& input, const NoiseSettings& settings, const NoiseUnits& units,
                     std::span<Vec3f> out);
// The first strand (by index) that gets noise whose points are too far apart for the frequency,
// with its segment count; nothing when the frequency suits every strand.
struct CoarseStrand {
    std::size_t strand = 0;
    std::size_t segments = 0;
};
std::optional<CoarseStrand> coarseForNoise(const StrandSet& input, const NoiseSettings& settings);

// Curl: curls around each strand's own line, or its clump's.
enum class CurlShape { Helix, Wave, Zigzag, Coil };
struct CurlSettings {
    FieldSampler radius{0.05f};  // per point
    float frequency = 0.4f;
    Ramp frequencyProfile;
    float randomness = 0.3f;
    float spacingRandom = 0.0f;
    Ramp profile;
    CurlShape shape = CurlShape::Helix;
    float coilWidths = 3.0f;
    float phase = 0.0f;
    float phaseRandom = 0.0f;
    float weight = 0.0f;
    Vec3f weightDirection{0.0f, -1.0f, 0.0f};
    std::uint64_t seed = 0;
    // With clump coherence: the clumps, which share phase, frequency and plane and curl around
    // their axis; null curls each strand on its own.
    const ClumpAxes* clumps = nullptr;
    const std::vector<float>* clumpChannel = nullptr;  // per strand, the clumps' ids
    // How far a chord may stray from the round curl, a share of its radius; 0 keeps the points
    // that come in.
    float tolerance = 0.0f;
};
void curlStrands(const StrandSet& input, const CurlSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out);
// Whether the settings curl nothing, so that every strand goes through as it came.
bool curlIsIdle(const CurlSettings& settings);
// The input with each segment of each strand cut into the fewest equal parts that keep a chord of
// the curl within `tolerance` of its radius, for the most the curl can turn over the segment (the
// strand's frequency at the segment's tightest, with the spacing's random on top); points, widths
// and point channels follow linearly, and the points that came in are kept. With `tolerance` 0, or
// nothing to curl, the input as it is. Curled, the result keeps every strand's length and root.
StrandSet subdivideForCurl(const StrandSet& input, const CurlSettings& settings);

// Twist: each point turns about its axis's tangent at the point's arc along it, through the axis.
struct TwistSettings {
    FieldSampler turns{1.0f};  // per strand
    Ramp profile;
    // Either axis curves (each strand takes the one whose root lies nearest its own) or clump
    // axes.
    const GuideSet* axes = nullptr;
    const ClumpAxes* clumps = nullptr;
};
void twistStrands(const StrandSet& input, const TwistSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out);
// The clump axes a Twist node keeps from its last run (null for another operator or before a run
// by clumps), for tests: a run on an input that shares the points and channels they were made from
// reuses them.
std::shared_ptr<const ClumpAxes> twistAxesOf(const Operator& op);

// What a bend turns strands toward.
enum class BendAlong { Normal, Tangent, Direction };

struct BendSettings {
    FieldSampler angle{30.0f};  // degrees, per strand
    float start = 0.0f;         // where the turn starts and ends, as shares of the arc length
    float end = 1.0f;
    BendAlong along = BendAlong::Normal;
    FieldSampler direction;  // a vector per strand (world space)
    float randomness = 0.0f;
    std::uint64_t seed = 0;
    const ScalpMesh* scalp = nullptr;
};

// How much of a bend's whole turn has happened at arc share t.
float bendShare(float t, float start, float end);

void bendStrands(const StrandSet& input, const BendSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out);

struct DirectionSettings {
    FieldSampler inclination{0.0f};  // degrees from the normal, per strand
    FieldSampler roll{0.0f};         // degrees around the normal, per strand
    FieldSampler strength{1.0f};     // share of the turn, per strand
    bool alongU = true;              // roll 0 along the scalp's U, else along `direction`
    Vec3f direction{0.0f, -1.0f, 0.0f};
    float inclinationRandom = 0.0f;  // degrees
    float rollRandom = 0.0f;         // degrees
    std::uint64_t seed = 0;
    const ScalpMesh* scalp = nullptr;
};

void directStrands(const StrandSet& input, const DirectionSettings& settings,
                   const StrandSelection& selection, std::span<Vec3f> out);

struct TransformSettings {
    bool world = false;  // the whole set about `pivot` in world axes, else each strand at its root
    Vec3f translate;
    Vec3f rotate;  // degrees about x, then y, then z
    FieldSampler scale{1.0f};
    Vec3f pivot;
    float translateRandom = 0.0f;  // scene units, per axis
    float rotateRandom = 0.0f;     // degrees, per axis
    float scaleRandom = 0.0f;      // share
    std::uint64_t seed = 0;
    const ScalpMesh* scalp = nullptr;
};

void transformStrands(const StrandSet& input, const TransformSettings& settings,
                      const StrandSelection& selection, std::span<Vec3f> out);

struct SmoothSettings {
    FieldSampler strength{1.0f};  // per strand
    float scale = 0.09f;          // bump size as a share of the length; 1 straightens
    Ramp profile;
};

// The most cells a strand is smoothed over.
inline constexpr int kSmoothCells = 127;

void smoothStrands(const StrandSet& input, const SmoothSettings& settings,
                   const StrandSelection& selection, std::span<Vec3f> out);

struct FlowSettings {
    FieldSampler lift{12.0f};  // degrees off the skin at the root, per strand
    float bend = 0.6f;         // how much of the lift is gone at the tip
    float random = 6.0f;       // degrees of random turn about the normal
    std::uint64_t seed = 0;
    const ScalpMesh* scalp = nullptr;
    const FlowField* flow = nullptr;
};

// The note of a Flow run with no flow arrows.
inline constexpr std::string_view kNoFlowArrows =
    "no flow arrows: lay some with the Flow tool (Groom Tools > Create > Flow); strands lie along "
    "their own direction";

void flowStrands(const StrandSet& input, const FlowSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out);

}  // namespace velmorin
