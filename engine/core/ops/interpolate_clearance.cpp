#include "ops/interpolate_clearance.h"

#include <algorithm>
#include <cmath>

#include "base/parallel.h"

namespace velmorin {
namespace {

// Pushes rounds a sunken point gets before it is left where the last one put it.
constexpr int kPushRounds = 4;

// `point` moved to lie `length` from `from`, along the way from `from` to it (kept where the way
// has no length).
Vec3f keepLength(const Vec3f& from, const Vec3f& point, float length) {
    const Vec3f way = point - from;
    const float l = std::sqrt(dot(way, way));
    return l > 0.0f ? from + way * (length / l) : point;
}

// The height a strand keeps over the skin: its guides' lowest heights blended by its weights.
float targetHeight(const BindingChunk& chunk, std::size_t k, std::span<const float> heights) {
    double sum = 0.0;
    for (std::uint32_t r = chunk.recordStart[k]; r < chunk.recordStart[k + 1]; ++r)
        sum += (static_cast<double>(chunk.weights[r]) + 1.0) / 65536.0 * heights[chunk.guides[r]];
    return static_cast<float>(sum);
}

void walkStrand(const MeshDistanceField& field, float target, float ease, std::span<Vec3f> strand) {
    Vec3f previousGroomed = strand[0];
    Vec3f carried{};
    // A little under the cell's precision, so that a point pushed just onto the skin stays there.
    const float slack = 0.001f * field.voxelSize();
    for (std::size_t j = 1; j < strand.size(); ++j) {
        const Vec3f groomed = strand[j];
        const float length = std::sqrt(dot(groomed - previousGroomed, groomed - previousGroomed));
        carried = carried * (ease / (ease + length));
        Vec3f point = keepLength(strand[j - 1], groomed + carried, length);
        float height = field.distance(point);
        bool lifted = false;
        for (int round = 0; round < kPushRounds && height < target - slack; ++round) {
            const Vec3f out = field.gradient(point);
            if (dot(out, out) == 0.0f) break;
            point = keepLength(strand[j - 1], point + out * (target - height), length);
            height = field.distance(point);
            lifted = true;
        }
        if (lifted) carried = point - groomed;
        previousGroomed = groomed;
        strand[j] = point;
    }
}

}  // namespace

std::shared_ptr<const MeshDistanceField> clearanceField(
    const std::shared_ptr<const ScalpMesh>& scalp) {
    if (!scalp || scalp->triangleCount() == 0) return nullptr;
    const auto [lo, hi] = scalp->bounds();
    const float diagonal = length(hi - lo);
    if (!(diagonal > 0.0f) || !std::isfinite(diagonal)) return nullptr;
    const float voxel = diagonal / 128.0f;
    return sharedDistanceField(scalp, voxel, 4.0f * voxel, 256);
}

InterpolateClearance makeClearance(std::shared_ptr<const MeshDistanceField> field,
                                   std::span<const Guide* const> guides) {
    InterpolateClearance clearance;
    clearance.guideHeights.assign(guides.size(), 0.0f);
    parallelRange(0, guides.size(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            float lowest = 0.0f;
            for (std::size_t j = 1; j < guides[g]->points.size(); ++j)
                lowest = std::min(lowest, field->distance(guides[g]->points[j]));
            clearance.guideHeights[g] = lowest;
        }
    });
    // A strand regains its path within about a bulge's width: a few cells of the field.
    clearance.ease = 8.0f * field->voxelSize();
    clearance.field = std::move(field);
    return clearance;
}

void keepClearance(const InterpolateState& state, const InterpolateClearance& clearance,
                   std::span<const std::uint64_t> offsets, std::span<Vec3f> points,
                   std::span<const std::uint64_t> only) {
    if (!clearance.field) return;
    const std::size_t count = only.empty() ? state.binding.strandCount : only.size();
    parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = only.empty() ? i : static_cast<std::size_t>(only[i]);
            const BindingChunk& chunk = *state.binding.chunks[s / kBindingChunkStrands];
            const std::size_t k = s % kBindingChunkStrands;
            if (chunk.recordStart[k + 1] == chunk.recordStart[k] || offsets[s + 1] - offsets[s] < 2)
                continue;
            const float target = targetHeight(chunk, k, clearance.guideHeights);
            walkStrand(*clearance.field, target, clearance.ease,
                       points.subspan(offsets[s], offsets[s + 1] - offsets[s]));
        }
    });
}

}  // namespace velmorin
