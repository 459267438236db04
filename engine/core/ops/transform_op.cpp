#include <algorithm>
#include <array>
#include <cmath>

#include "base/fast_trig_lanes.h"
#include "base/parallel.h"
#include "fields/field_scene.h"
#include "graph/registry.h"
#include "mesh/scalp_mesh.h"
#include "ops/field_op_params.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// The rows of Rz * Ry * Rx: a turn about x, then y, then z, given the sines and cosines of the
// three angles.
std::array<Vec3f, 3> turnXyz(const float* sines, const float* cosines) {
    const float cx = cosines[0], sx = sines[0], cy = cosines[1], sy = sines[1];
    const float cz = cosines[2], sz = sines[2];
    return {Vec3f{cz * cy, cz * sy * sx - sz * cx, cz * sy * cx + sz * sx},
            Vec3f{sz * cy, sz * sy * sx + cz * cx, sz * sy * cx - cz * sx},
            Vec3f{-sy, cy * sx, cy * cx}};
}

// The same turn by three angles in degrees.
std::array<Vec3f, 3> turnXyz(const Vec3f& degrees) {
    // In turns, so that whole quarter turns (90 degrees) are exact.
    const float turns[3] = {degrees.x / 360.0f, degrees.y / 360.0f, degrees.z / 360.0f};
    float sines[3], cosines[3];
    sinCosTurnsMany(turns, sines, cosines, 3);
    return turnXyz(sines, cosines);
}

Vec3f turned(const std::array<Vec3f, 3>& rows, const Vec3f& v) {
    return {dot(rows[0], v), dot(rows[1], v), dot(rows[2], v)};
}

// Strands are set up a block at a time: the random draws of a strand hash one after another, so
// the strands of a block draw side by side (their chains overlap), and the sines and cosines of
// their turns are made together, four to a lane set.
constexpr std::size_t kBlock = 16;

}  // namespace

void transformStrands(const StrandSet& input, const TransformSettings& settings,
                      const StrandSelection& pick, std::span<Vec3f> points) {
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const StrandRoot> roots = input.roots();
    const bool random = settings.translateRandom != 0.0f || settings.rotateRandom != 0.0f ||
                        settings.scaleRandom != 0.0f;
    const bool randomTurn = settings.rotateRandom != 0.0f;
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    const bool scaleMapped = settings.scale.isMapped();
    const float plainScale = settings.scale.value();
    // Without randomness every strand turns alike: the turn is made once.
    const std::array<Vec3f, 3> plainTurn = turnXyz(settings.rotate);
    parallelRange(0, pick.size(input.strandCount()), 256, [&](std::size_t begin, std::size_t end) {
        RootFrames frames(settings.scalp, TangentFrom::Triangle);
        float scales[kBlock];
        Vec3f moves[kBlock];
        float turns[3 * kBlock], sines[3 * kBlock], cosines[3 * kBlock];
        for (std::size_t block = begin; block < end; block += kBlock) {
            const std::size_t count = std::min(kBlock, end - block);
            for (std::size_t j = 0; j < count; ++j) {
                const std::size_t s = pick.strand(block + j);
                scales[j] = scaleMapped ? settings.scale.atStrand(s) : plainScale;
                moves[j] = settings.translate;
            }
            if (random) {
                // Draw order per strand: scale, then translate x, y, z, then rotate x, y, z.
                StrandDraws draws[kBlock];
                for (std::size_t j = 0; j < count; ++j)
                    draws[j] = StrandDraws(ids[pick.strand(block + j)], settings.seed);
                for (std::size_t j = 0; j < count; ++j)
                    scales[j] *= 1.0f + settings.scaleRandom * draws[j].nextSigned();
                for (float Vec3f::*axis : {&Vec3f::x, &Vec3f::y, &Vec3f::z})
                    for (std::size_t j = 0; j < count; ++j)
                        moves[j].*axis += settings.translateRandom * draws[j].nextSigned();
                if (randomTurn) {
                    for (std::size_t axis = 0; axis < 3; ++axis)
                        for (std::size_t j = 0; j < count; ++j)
                            turns[3 * j + axis] = (settings.rotate[static_cast<int>(axis)] +
                                                   settings.rotateRandom * draws[j].nextSigned()) /
                                                  360.0f;
                    sinCosTurnsMany(turns, sines, cosines, 3 * count);
                }
            }
            for (std::size_t j = 0; j < count; ++j) {
                const std::size_t s = pick.strand(block + j);
                const std::size_t first = offsets[s];
                const std::size_t n = offsets[s + 1] - first;
                const std::span<const Vec3f> strand = inputPoints.subspan(first, n);
                Vec3f* out = points.data() + first;
                if (n < 2) {
                    std::copy(strand.begin(), strand.end(), out);
                    continue;
                }
                const float scale = scales[j];
                const Vec3f translate = moves[j];
                // Without a random turn the strand turns as every other: the same bits as the
                // turn made once.
                const std::array<Vec3f, 3> turn =
                    randomTurn ? turnXyz(sines + 3 * j, cosines + 3 * j) : plainTurn;
                if (settings.world) {
                    for (std::size_t k = 0; k < n; ++k)
                        out[k] = settings.pivot +
                                 turned(turn, (strand[k] - settings.pivot) * scale) + translate;
                    continue;
                }
                const RootFrame frame = frames.at(roots[s], Vec3f{});
                if (!frame.valid) {
                    std::copy(strand.begin(), strand.end(), out);
                    continue;
                }
                // In the root's frame: x along U, y the normal, z across. The frame, the turn and
                // the scale fold into one matrix per strand, rows M[r] = sum over i of F[i][r]
                // times row i of (turn * scale) * F, F's rows the frame's axes.
                const Vec3f origin = strand[0];
                const Vec3f move = frame.tangent * translate.x + frame.normal * translate.y +
                                   frame.binormal * translate.z;
                std::array<Vec3f, 3> local;
                for (std::size_t i = 0; i < 3; ++i) {
                    const Vec3f row = turn[i] * scale;
                    local[i] =
                        frame.tangent * row.x + frame.normal * row.y + frame.binormal * row.z;
                }
                const std::array<Vec3f, 3> axes = {frame.tangent, frame.normal, frame.binormal};
                std::array<Vec3f, 3> matrix;
                for (int r = 0; r < 3; ++r)
                    matrix[static_cast<std::size_t>(r)] =
                        local[0] * axes[0][r] + local[1] * axes[1][r] + local[2] * axes[2][r];
                const Vec3f base = origin + move;
                for (std::size_t k = 0; k < n; ++k) {
                    const Vec3f d = strand[k] - origin;
                    out[k] = base + turned(matrix, d);
                }
            }
        }
    });
}

namespace {

using field_ops::choiceParam;
using field_ops::makeParam;
using field_ops::shownFor;

// Moves, turns and scales strands about their roots or the whole set about a pivot.
class TransformOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Transform"; }
    std::string category() const override { return "deform"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec space = choiceParam(
            "space", "strand", {"strand", "world"},
            "strand: each strand about its own root, in its root's frame (x along the scalp's U, "
            "y its normal, z across); world: the whole set about the pivot, in world axes");
        ParamSpec translate =
            makeParam("translate", Vec3f{},
                      "Move, scene units: along the root's frame (strand) or world axes (world)");
        ParamSpec rotate = makeParam(
            "rotate", Vec3f{},
            "Turn, degrees about x, then y, then z: the root's frame's axes (strand) or the "
            "world's through the pivot (world)");
        ParamSpec scale = makeParam(
            "scale", 1.0, "Uniform scale about the root (strand) or the pivot (world) (mappable)");
        scale.softMin = 0.0;
        scale.softMax = 2.0;
        ParamSpec pivot =
            shownFor(makeParam("pivot", Vec3f{}, "World: the point the set turns and scales about"),
                     "space", "world");
        ParamSpec translateRandom =
            makeParam("translateRandom", 0.0,
                      "Up to this much more or less move per strand, per axis, scene units");
        translateRandom.min = 0.0;
        ParamSpec rotateRandom = makeParam(
            "rotateRandom", 0.0, "Up to this many degrees more or less turn per strand, per axis");
        rotateRandom.min = 0.0;
        rotateRandom.softMax = 180.0;
        rotateRandom.unit = "angle";
        ParamSpec scaleRandom = makeParam(
            "scaleRandom", 0.0, "Each strand's scale up to this share more or less, at random");
        scaleRandom.min = 0.0;
        scaleRandom.max = 1.0;
        scaleRandom.unit = "fraction";
        ParamSpec seed = makeParam("seed", std::int64_t{0}, "Random seed");
        seed.animatable = false;
        return {space,           translate,    rotate,      scale, pivot,
                translateRandom, rotateRandom, scaleRandom, seed};
    }
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        if (incremental && !mapsReadOnlyTheirStrand(paramSet, ctx, {"scale"})) return false;
        const auto strands = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        const std::shared_ptr<const ScalpMesh> scalp = sceneScalp(ctx);
        TransformSettings settings;
        if (strands) settings.scale = fieldSampler(paramSet, ctx, "scale", *strands);
        settings.world = paramSet.getString("space", "strand") == "world";
        settings.translate = paramSet.getVec3("translate", {});
        settings.rotate = paramSet.getVec3("rotate", {});
        settings.pivot = paramSet.getVec3("pivot", {});
        settings.translateRandom = static_cast<float>(paramSet.getFloat("translateRandom", 0.0));
        settings.rotateRandom = static_cast<float>(paramSet.getFloat("rotateRandom", 0.0));
        settings.scaleRandom = static_cast<float>(paramSet.getFloat("scaleRandom", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.scalp = scalp.get();
        return reshapePoints(inputs, incremental, true, &transformStrands, settings, out, changes);
    }
};

}  // namespace

void registerTransformOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "deform";
    info.description =
        "Moves, turns and scales strands about their roots (or the whole set), with randomness.";
    info.keywords = "move rotate scale translate";
    registry.registerType(
        "Transform", [] { return std::make_unique<TransformOp>(); }, info);
}

}  // namespace velmorin
