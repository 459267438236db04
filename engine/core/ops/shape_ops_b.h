#pragma once
// Shape nodes that turn, move and relax whole strands: Bend, Direction, Transform, Smooth and
// Flow. Each node is a thin shell over the plain function below, which works on strand data
// without a graph: it reads `input` and writes the points of the picked strands into `points` (the
// point column of a set with the input's layout), every point of each picked strand, so that an
// incremental run can start from the previous result. Strands of fewer than 2 points, strands
// whose effect comes to nothing and strands without a root frame where one is needed keep the
// input's points. The classes are reached only through the registration functions.

#include <cstdint>
#include <span>

#include "base/vec3.h"
#include "fields/field_sampler.h"
#include "graph/ramp.h"
#include "ops/shape_support_b.h"

namespace velmorin {

struct FlowField;
class OperatorRegistry;
class ScalpMesh;
class StrandSet;

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

void bendStrands(const StrandSet& input, const BendSettings& settings, std::span<Vec3f> points,
                 StrandPick pick = {});

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
                   std::span<Vec3f> points, StrandPick pick = {});

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
                      std::span<Vec3f> points, StrandPick pick = {});

struct SmoothSettings {
    FieldSampler strength{1.0f};  // per strand
    float scale = 0.09f;          // bump size as a share of the length; 1 straightens
    Ramp profile;
};

// The most cells a strand is smoothed over.
inline constexpr int kSmoothCells = 127;

void smoothStrands(const StrandSet& input, const SmoothSettings& settings, std::span<Vec3f> points,
                   StrandPick pick = {});

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

void flowStrands(const StrandSet& input, const FlowSettings& settings, std::span<Vec3f> points,
                 StrandPick pick = {});

void registerDirectionOperator(OperatorRegistry& registry);
void registerFlowOperator(OperatorRegistry& registry);
void registerSmoothOperator(OperatorRegistry& registry);
void registerBendOperator(OperatorRegistry& registry);
void registerTransformOperator(OperatorRegistry& registry);

}  // namespace velmorin
