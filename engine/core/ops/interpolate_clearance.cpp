#include "ops/interpolate_clearance.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "base/parallel.h"

namespace velmorin {
namespace {

// Pushes rounds a sunken point gets before it is left where the last one put it.
constexpr int kPushRounds = 4;
// Strands of more points than this walk in sixteen coarse steps.
constexpr std::size_t kCoarseAbove = 17;
constexpr std::size_t kCoarseSteps = 16;

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

// Pushes out of the skin for one strand, point by point or a coarse step at a time. The field is
// asked only where its last answer, less the way moved since (the field's slope stays under 2),
// can't show the point to lie high enough.
class ClearanceWalk {
  public:
    ClearanceWalk(const MeshDistanceField& field, float target, float ease, Vec3f root)
        : field_(field),
          target_(target),
          ease_(ease),
          previousGroomed_(root),
          // A little under the cell's precision, so that a point pushed just onto the skin stays.
          slack_(0.001f * field.voxelSize()) {}

    // Point j of `strand` from its groomed place (strand[j], not yet walked) after the walked
    // strand[j - 1]: the offset carried from a lift eases off, the segment keeps its length, and
    // a point too low is pushed out.
    void step(std::span<Vec3f> strand, std::size_t j) {
        const Vec3f groomed = strand[j];
        const float length = std::sqrt(dot(groomed - previousGroomed_, groomed - previousGroomed_));
        carried_ = carried_ * (ease_ / (ease_ + length));
        Vec3f point = keepLength(strand[j - 1], groomed + carried_, length);
        bool lifted = false;
        if (!provablyHigh(point)) {
            float height = heightAt(point);
            for (int round = 0; round < kPushRounds && height < target_ - slack_; ++round) {
                const Vec3f out = field_.gradient(point);
                if (dot(out, out) == 0.0f) break;
                point = keepLength(strand[j - 1], point + out * (target_ - height), length);
                height = heightAt(point);
                lifted = true;
            }
        }
        if (lifted) carried_ = point - groomed;
        previousGroomed_ = groomed;
        strand[j] = point;
    }

    // Points a + 1 to b as one step: b as step() would place it after a, without a lift, and the
    // points between moved by the offsets at the two ends blended along the stretch. False, with
    // nothing changed, where any of them would lie too low: the caller walks them one by one.
    bool coarseStep(std::span<Vec3f> strand, std::size_t a, std::size_t b) {
        float along = 0.0f;
        Vec3f before = previousGroomed_;
        for (std::size_t i = a + 1; i <= b; ++i) {
            along += std::sqrt(dot(strand[i] - before, strand[i] - before));
            before = strand[i];
        }
        const Vec3f groomed = strand[b];
        const Vec3f carried = carried_ * (ease_ / (ease_ + along));
        const float chord = std::sqrt(dot(groomed - previousGroomed_, groomed - previousGroomed_));
        const Vec3f end = keepLength(strand[a], groomed + carried, chord);
        const Vec3f fromOffset = strand[a] - previousGroomed_;
        const Vec3f toOffset = end - groomed;
        const float inverse = 1.0f / static_cast<float>(b - a);
        for (std::size_t i = a + 1; i <= b; ++i) {
            const float f = static_cast<float>(i - a) * inverse;
            const Vec3f p = i == b ? end : strand[i] + fromOffset + (toOffset - fromOffset) * f;
            if (!provablyHigh(p) && heightAt(p) < target_ - slack_) return false;
        }
        for (std::size_t i = a + 1; i < b; ++i) {
            const float f = static_cast<float>(i - a) * inverse;
            strand[i] += fromOffset + (toOffset - fromOffset) * f;
        }
        strand[b] = end;
        carried_ = carried;
        previousGroomed_ = groomed;
        return true;
    }

  private:
    float heightAt(const Vec3f& p) {
        cachedAt_ = p;
        cachedHeight_ = field_.distance(p);
        cached_ = true;
        return cachedHeight_;
    }
    // Whether the last answer proves `p` high enough: its height less twice the way moved (with
    // a margin for rounding and the cells' 16-bit steps) still clears the target.
    bool provablyHigh(const Vec3f& p) const {
        if (!cached_) return false;
        const float moved = std::sqrt(dot(p - cachedAt_, p - cachedAt_));
        const float margin = moved * 1.0001f + 0.001f * field_.voxelSize();
        return cachedHeight_ - 2.0f * margin >= target_;
    }

    const MeshDistanceField& field_;
    float target_, ease_;
    Vec3f previousGroomed_;
    Vec3f carried_{};
    float slack_;
    bool cached_ = false;
    Vec3f cachedAt_{};
    float cachedHeight_ = 0.0f;
};

void walkStrand(const MeshDistanceField& field, float target, float ease, std::span<Vec3f> strand) {
    ClearanceWalk walk(field, target, ease, strand[0]);
    const std::size_t last = strand.size() - 1;
    if (strand.size() <= kCoarseAbove) {
        for (std::size_t j = 1; j <= last; ++j)
            walk.step(strand, j);
        return;
    }
    // A long strand in sixteen steps; a step that would sink is walked point by point.
    std::size_t a = 0;
    for (std::size_t k = 1; k <= kCoarseSteps; ++k) {
        const std::size_t b = (last * k + kCoarseSteps / 2) / kCoarseSteps;
        if (b <= a) continue;
        if (b == a + 1 || !walk.coarseStep(strand, a, b))
            for (std::size_t j = a + 1; j <= b; ++j)
                walk.step(strand, j);
        a = b;
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

std::shared_ptr<const ScalpMesh> restScalp(const ScalpMesh& scalp) {
    const std::vector<Vec3f>& rest = scalp.restPoints();
    if (rest.size() != scalp.pointCount() || rest.empty()) return nullptr;
    if (std::memcmp(rest.data(), scalp.points().data(), rest.size() * sizeof(Vec3f)) == 0)
        return nullptr;
    return std::make_shared<const ScalpMesh>(rest, scalp.triangles());
}

InterpolateClearance makeClearance(std::shared_ptr<const MeshDistanceField> field,
                                   std::span<const Guide* const> guides,
                                   std::shared_ptr<const ScalpMesh> deformed,
                                   std::shared_ptr<const ScalpMesh> rest) {
    InterpolateClearance clearance;
    const bool carried = deformed && rest;
    clearance.guideHeights.assign(guides.size(), 0.0f);
    parallelRange(0, guides.size(), 256, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            const Guide& guide = *guides[g];
            float lowest = 0.0f;
            if (carried && !deformed->isOnSurface(guide.root)) continue;
            const SurfaceFrame from = carried ? deformed->frameAt(guide.root) : SurfaceFrame{};
            const SurfaceFrame to = carried ? rest->frameAt(guide.root) : SurfaceFrame{};
            for (std::size_t j = 1; j < guide.points.size(); ++j) {
                const Vec3f p =
                    carried ? to.toWorld(from.toLocal(guide.points[j])) : guide.points[j];
                lowest = std::min(lowest, field->distance(p));
            }
            clearance.guideHeights[g] = lowest;
        }
    });
    // A strand regains its path within about a bulge's width: a few cells of the field.
    clearance.ease = 8.0f * field->voxelSize();
    clearance.field = std::move(field);
    if (carried) {
        clearance.deformed = std::move(deformed);
        clearance.rest = std::move(rest);
    }
    return clearance;
}

void keepClearance(const InterpolateState& state, const InterpolateClearance& clearance,
                   std::span<const std::uint64_t> offsets, std::span<Vec3f> points,
                   std::span<const std::uint64_t> only, std::span<const StrandRoot> roots) {
    if (!clearance.field) return;
    const bool carried = clearance.deformed && clearance.rest;
    if (carried && roots.size() != state.binding.strandCount) return;
    const std::size_t count = only.empty() ? state.binding.strandCount : only.size();
    parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> restPose;
        for (std::size_t i = begin; i < end; ++i) {
            const std::size_t s = only.empty() ? i : static_cast<std::size_t>(only[i]);
            const BindingChunk& chunk = *state.binding.chunks[s / kBindingChunkStrands];
            const std::size_t k = s % kBindingChunkStrands;
            if (chunk.recordStart[k + 1] == chunk.recordStart[k] || offsets[s + 1] - offsets[s] < 2)
                continue;
            const float target = targetHeight(chunk, k, clearance.guideHeights);
            const std::span<Vec3f> strand = points.subspan(offsets[s], offsets[s + 1] - offsets[s]);
            if (!carried) {
                walkStrand(*clearance.field, target, clearance.ease, strand);
                continue;
            }
            // To the rest pose by the root's frames on the two surfaces, walked there, and back;
            // a point the walk left alone keeps its bits.
            if (!clearance.deformed->isOnSurface(roots[s])) continue;
            const SurfaceFrame deformed = clearance.deformed->frameAt(roots[s]);
            const SurfaceFrame rest = clearance.rest->frameAt(roots[s]);
            restPose.resize(strand.size() * 2);
            for (std::size_t j = 0; j < strand.size(); ++j)
                restPose[j] = restPose[strand.size() + j] =
                    rest.toWorld(deformed.toLocal(strand[j]));
            const std::span<Vec3f> walked(restPose.data(), strand.size());
            walkStrand(*clearance.field, target, clearance.ease, walked);
            for (std::size_t j = 1; j < strand.size(); ++j)
                if (std::memcmp(&walked[j], &restPose[strand.size() + j], sizeof(Vec3f)) != 0)
                    strand[j] = deformed.toWorld(rest.toLocal(walked[j]));
        }
    });
}

}  // namespace velmorin
