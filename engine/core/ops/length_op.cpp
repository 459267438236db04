#include <algorithm>

#include "graph/registry.h"
#include "ops/arc_walk_lanes.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"

namespace velmorin {

void trimStrands(const StrandSet& input, const LengthSettings& settings,
                 const StrandSelection& selection, std::span<Vec3f> out) {
    const bool lengthMapped = settings.length.isMapped();
    const bool fractionMapped = settings.fraction.isMapped();
    const float plainLength = settings.length.value();
    const float plainFraction = settings.fraction.value();
    const float randomness = settings.randomness;
    Vec3f* const outPoints = out.data();
    const std::span<const std::uint64_t> ids = input.ids();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    const bool lanes = arcWalkLanesUsable();
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        StrandScratch<float> arcScratch;
        // The one-strand trim, for strands the lanes do not take.
        const auto trimOne = [&](std::size_t s, float keep) {
            const std::size_t begin = offsets[s];
            const std::size_t n = offsets[s + 1] - begin;
            const std::span<const Vec3f> points = inputPoints.subspan(begin, n);
            Vec3f* to = outPoints + begin;
            const std::span<float> arcs = arcScratch.take(n);
            const float step = keep * arcLengths(points, arcs) / static_cast<float>(n - 1);
            // The new points come from a forward walk over the old ones, which stay readable:
            // `out` is another array than the input's.
            // pointAtArc's walk, without its checks of the ends: the arcs asked for rise from 0
            // and stay short of the whole length, so the last segment holds whatever is past it.
            to[0] = points[0];
            std::size_t segment = 0;
            for (std::size_t k = 1; k < n; ++k) {
                const float arc = step * static_cast<float>(k);
                while (segment + 2 < n && arcs[segment + 1] < arc)
                    ++segment;
                const float span = arcs[segment + 1] - arcs[segment];
                const float f = span > 0.0f ? (arc - arcs[segment]) / span : 0.0f;
                to[k] = lerp(points[segment], points[segment + 1], std::clamp(f, 0.0f, 1.0f));
            }
        };
        // Trimmed strands of one point count wait here until there are enough for the lanes.
        std::size_t waiting[kArcWalkLanes];
        float waitingKeep[kArcWalkLanes];
        std::size_t waitingCount = 0;
        std::size_t waitingPoints = 0;
        const auto trimWaiting = [&] {
            for (std::size_t l = 0; l < waitingCount; ++l)
                trimOne(waiting[l], waitingKeep[l]);
            waitingCount = 0;
        };
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            const std::size_t begin = offsets[s];
            const std::size_t n = offsets[s + 1] - begin;
            float keep = lengthMapped ? settings.length.atStrand(s) : plainLength;
            if (randomness > 0.0f) {
                StrandDraws draws(ids[s], settings.seed);
                const float d1 = draws.next();
                const float d2 = draws.next();
                const float f = fractionMapped ? settings.fraction.atStrand(s) : plainFraction;
                if (f >= 1.0f || d2 < f) keep *= 1.0f - randomness * d1;
            }
            keep = std::clamp(keep, 0.0f, 1.0f);
            // Kept whole (or NaN), or too short to trim: the strand as it came.
            if (n < 2 || !(keep < 1.0f)) {
                std::copy(inputPoints.begin() + static_cast<std::ptrdiff_t>(begin),
                          inputPoints.begin() + static_cast<std::ptrdiff_t>(begin + n),
                          outPoints + begin);
                continue;
            }
            if (!lanes || n > kArcWalkMostPoints) {
                trimOne(s, keep);
                continue;
            }
            if (waitingCount > 0 && n != waitingPoints) trimWaiting();
            waitingPoints = n;
            waiting[waitingCount] = s;
            waitingKeep[waitingCount] = keep;
            if (++waitingCount < kArcWalkLanes) continue;
            const Vec3f* from[kArcWalkLanes];
            Vec3f* to[kArcWalkLanes];
            for (std::size_t l = 0; l < kArcWalkLanes; ++l) {
                from[l] = inputPoints.data() + offsets[waiting[l]];
                to[l] = outPoints + offsets[waiting[l]];
            }
            trimLanes(from, waitingKeep, n, to);
            waitingCount = 0;
        }
        trimWaiting();
    });
}

namespace {

// Trims strands to a share of their length.
class LengthOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Length"; }
    std::string category() const override { return "shape"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        return {fractionParam("length", 1.0,
                              "Share of each strand's length kept from the root, 0-1 (mappable; to "
                              "lengthen, Transform's scale)"),
                fractionParam("fraction", 0.0,
                              "Share of the strands trimmed at random, 0-1 (mappable)"),
                fractionParam("randomness", 0.0,
                              "The most share of its kept length a strand trimmed at random loses, "
                              "0-1: each loses up to this (0: no random trim)"),
                seedParam()};
    }

  private:
    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        LengthSettings settings;
        settings.length = fieldSampler(paramSet, ctx, "length", *input);
        settings.fraction = fieldSampler(paramSet, ctx, "fraction", *input);
        settings.randomness = static_cast<float>(paramSet.getFloat("randomness", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        return reshapePoints(inputs, incremental,
                             mapsReadOnlyTheirStrand(paramSet, ctx, {"length", "fraction"}),
                             &trimStrands, settings, out, changes);
    }
};

}  // namespace

void registerLengthOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "shape";
    info.description = "Trims strands to a share of their length.";
    info.keywords = "trim cut shorten haircut";
    registry.registerType(
        "Length", [] { return std::make_unique<LengthOp>(); }, info);
}

}  // namespace velmorin
