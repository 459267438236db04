#include "strands/guide_conversion.h"

#include "base/parallel.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace velmorin {
namespace {

constexpr std::size_t kGuideGrain = 64;
constexpr std::string_view kPreviewChannel = "_preview";

}  // namespace

StrandSet strandsFromGuides(const GuideSet& guideSet) {
    const std::vector<Guide>& guides = guideSet.guides;
    const std::size_t count = guides.size();

    StrandSet strands;
    std::vector<std::uint64_t>& ids = strands.writeIds();
    std::vector<StrandRoot>& roots = strands.writeRoots();
    std::vector<std::uint64_t>& offsets = strands.writeOffsets();
    ids.resize(count);
    roots.resize(count);
    offsets.resize(count + 1);
    offsets[0] = 0;
    for (std::size_t g = 0; g < count; ++g)
        offsets[g + 1] = offsets[g] + guides[g].points.size();
    std::vector<Vec3f>& points = strands.writePoints();
    points.resize(offsets.back());
    strands.writeWidths().assign(offsets.back(), 1.0f);

    // Channels are made (filled with 0) before the parallel fill, which then only writes values.
    std::set<std::string_view> strandNames, pointNames;
    for (const Guide& guide : guides) {
        for (const auto& entry : guide.attributes)
            strandNames.insert(entry.first);
        for (const auto& entry : guide.pointAttributes)
            pointNames.insert(entry.first);
    }
    std::map<std::string_view, float*> strandChannels, pointChannels;
    for (std::string_view name : strandNames)
        strandChannels[name] = strands.addStrandChannel(std::string(name), 0.0f).data();
    for (std::string_view name : pointNames)
        pointChannels[name] = strands.addPointChannel(std::string(name), 0.0f).data();

    parallelRange(0, count, kGuideGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            const Guide& guide = guides[g];
            ids[g] = guide.id;
            roots[g] = guide.root;
            std::copy(guide.points.begin(), guide.points.end(), points.begin() + offsets[g]);
            for (const auto& [name, value] : guide.attributes)
                strandChannels.at(name)[g] = value;
            for (const auto& [name, layer] : guide.pointAttributes) {
                if (layer.size() == guide.points.size())
                    std::copy(layer.begin(), layer.end(), pointChannels.at(name) + offsets[g]);
            }
        }
    });
    return strands;
}

GuideSet guidesFromStrands(const StrandSet& strands) {
    const std::size_t count = strands.strandCount();
    struct Source {
        std::string name;
        const float* values;
    };
    std::vector<Source> strandChannels, pointChannels;
    for (std::string& name : strands.strandChannelNames()) {
        if (name == kPreviewChannel) continue;
        const float* values = strands.strandChannel(name)->data();
        strandChannels.push_back({std::move(name), values});
    }
    for (std::string& name : strands.pointChannelNames()) {
        if (name == kPreviewChannel) continue;
        const float* values = strands.pointChannel(name)->data();
        pointChannels.push_back({std::move(name), values});
    }

    GuideSet guideSet;
    guideSet.guides.resize(count);
    const std::span<const std::uint64_t> ids = strands.ids();
    const std::span<const StrandRoot> roots = strands.roots();
    parallelRange(0, count, kGuideGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            Guide& guide = guideSet.guides[s];
            guide.id = ids[s];
            guide.root = roots[s];
            const std::span<const Vec3f> points = strands.strandPoints(s);
            guide.points.assign(points.begin(), points.end());
            // Names arrive in map order, so each insertion lands at the end.
            for (const Source& channel : strandChannels)
                guide.attributes.emplace_hint(guide.attributes.end(), channel.name,
                                              channel.values[s]);
            const StrandSet::PointRange range = strands.pointRange(s);
            for (const Source& channel : pointChannels) {
                guide.pointAttributes.emplace_hint(
                    guide.pointAttributes.end(), channel.name,
                    std::vector<float>(channel.values + range.begin,
                                       channel.values + range.begin + range.count));
            }
        }
    });
    return guideSet;
}

}  // namespace velmorin
