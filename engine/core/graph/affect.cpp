#include "graph/affect.h"

#include <cassert>
#include <string>
#include <vector>

#include "base/parallel.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

// Clamped to 0-1; NaN keeps the input, as a weight of 0 does.
float clampWeight(float w) {
    return w > 0.0f ? (w < 1.0f ? w : 1.0f) : 0.0f;
}

// The end weights give the end values exactly; a + (b - a) * 1 need not equal b in floats.
float mix(float a, float b, float w) {
    if (w <= 0.0f) return a;
    if (w >= 1.0f) return b;
    return a + (b - a) * w;
}

Vec3f mix(const Vec3f& a, const Vec3f& b, float w) {
    if (w <= 0.0f) return a;
    if (w >= 1.0f) return b;
    return a + (b - a) * w;
}

// One channel to mix: what the input holds (or its default) and the result's values to update.
struct ChannelMix {
    const std::vector<float>* input = nullptr;  // null when the input lacks the channel
    float inputDefault = 0.0f;
    std::vector<float>* output = nullptr;
    bool switches = false;
};

}  // namespace

bool isIdChannel(std::string_view name) {
    return name == "region" || (name.size() > 2 && name.ends_with("Id"));
}

std::shared_ptr<const StrandSet> mixAffect(const StrandSet& input, const StrandSet& result,
                                           std::span<const float> weights) {
    assert(input.strandCount() == result.strandCount());
    assert(input.pointCount() == result.pointCount());
    assert(weights.size() == input.pointCount());
    auto mixed = std::make_shared<StrandSet>(result);
    const std::span<const std::uint64_t> offsets = input.offsets();

    // Take every write accessor before the loop: they un-share columns and are not for threads.
    const std::span<const Vec3f> inPoints = input.points();
    std::vector<Vec3f>* points =
        inPoints.data() != result.points().data() ? &mixed->writePoints() : nullptr;
    const std::span<const float> inWidths = input.widths();
    std::vector<float>* widths =
        inWidths.data() != result.widths().data() ? &mixed->writeWidths() : nullptr;
    std::vector<ChannelMix> pointChannels;
    for (const std::string& name : result.pointChannelNames()) {
        const std::vector<float>* from = input.pointChannel(name);
        if (from == result.pointChannel(name)) continue;  // shared: nothing to mix
        const float fallback = result.pointChannelDefault(name);
        pointChannels.push_back(
            {from, fallback, &mixed->addPointChannel(name, fallback), isIdChannel(name)});
    }
    std::vector<ChannelMix> strandChannels;
    for (const std::string& name : result.strandChannelNames()) {
        const std::vector<float>* from = input.strandChannel(name);
        if (from == result.strandChannel(name)) continue;
        const float fallback = result.channelDefault(name);
        strandChannels.push_back({from, fallback, &mixed->addStrandChannel(name, fallback), true});
    }

    // A chunk of strands, then each column, then each point: the loop order that serves the cache.
    parallelRange(0, input.strandCount(), 256, [&](std::size_t begin, std::size_t end) {
        const std::uint64_t first = offsets[begin];
        const std::uint64_t last = offsets[end];
        if (points) {
            for (std::uint64_t p = first; p < last; ++p)
                (*points)[p] = mix(inPoints[p], (*points)[p], clampWeight(weights[p]));
        }
        if (widths) {
            for (std::uint64_t p = first; p < last; ++p)
                (*widths)[p] = mix(inWidths[p], (*widths)[p], clampWeight(weights[p]));
        }
        for (const ChannelMix& channel : pointChannels) {
            std::vector<float>& out = *channel.output;
            for (std::uint64_t p = first; p < last; ++p) {
                const float from = channel.input ? (*channel.input)[p] : channel.inputDefault;
                const float w = clampWeight(weights[p]);
                out[p] = channel.switches ? (w >= 0.5f ? out[p] : from) : mix(from, out[p], w);
            }
        }
        for (const ChannelMix& channel : strandChannels) {
            std::vector<float>& out = *channel.output;
            for (std::size_t s = begin; s < end; ++s) {
                // The root's weight stands for the strand; a strand of no points keeps the result.
                const float w =
                    offsets[s] < offsets[s + 1] ? clampWeight(weights[offsets[s]]) : 1.0f;
                if (w < 0.5f) out[s] = channel.input ? (*channel.input)[s] : channel.inputDefault;
            }
        }
    });
    return mixed;
}

}  // namespace velmorin
