#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"

namespace velmorin {
namespace {

// 13 strands of each point count from 2 to 26, so that every count fills a group of eight lanes,
// one of four and leaves one over for a strand made on its own; then the awkward ones, 13 of each
// again: strands of no length, a first segment of no length, a strand folding back on itself, a
// point that is not a number and one at infinity. Strands lean every way (the weight pulls down
// on the ones hanging), and wiggle by a hash of their id.
std::shared_ptr<const StrandSet> groupedStrands() {
    auto set = std::make_shared<StrandSet>();
    std::uint64_t id = 1;
    const auto add = [&](std::vector<Vec3f> points) {
        const std::vector<float> widths(points.size(),
                                        0.004f + 0.001f * static_cast<float>(id % 5));
        set->addStrand(mix64(id), StrandRoot{}, points, widths);
        ++id;
    };
    for (std::size_t count = 2; count <= 26; ++count) {
        for (int copy = 0; copy < 13; ++copy) {
            const std::uint64_t h = mix64(id);
            const Vec3f lean{unitFloat(h) - 0.5f, unitFloat(h + 1) * 2.0f - 1.0f,
                             unitFloat(h + 2) - 0.5f};
            std::vector<Vec3f> points{{unitFloat(h + 3), 0.0f, unitFloat(h + 4)}};
            for (std::size_t k = 1; k < count; ++k) {
                const std::uint64_t p = hashCombine(h, k);
                const Vec3f wiggle{unitFloat(p) - 0.5f, unitFloat(p + 1) - 0.5f,
                                   unitFloat(p + 2) - 0.5f};
                points.push_back(points.back() + (lean + wiggle * 0.3f) * 0.12f);
            }
            add(points);
        }
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const std::vector<std::vector<Vec3f>> awkward = {
        {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}, {1, 1, 1}},
        {{0, 0, 0}, {0, 0, 0}, {0, 0.5f, 0}, {0, 0.5f, 0}, {0.1f, 1.0f, 0}, {0.1f, 1.5f, 0}},
        {{0, 0, 0},
         {0, 1, 0},
         {0, 0, 0},
         {0, 1, 0.01f},
         {0.2f, 1.2f, 0},
         {0.2f, 1.4f, 0},
         {0, 2, 0}},
        {{0, 0, 0}, {0, 1, 0}, {0, nan, 0}, {0, 3, 0}, {0, 4, 0}, {0, 5, 0}, {0, 6, 0}, {0, 7, 0}},
        {{0, 0, 0},
         {0, 1, 0},
         {0, inf, 0},
         {0, 3, 0},
         {0, 4, 0},
         {0, 5, 0},
         {0, 6, 0},
         {0, 7, 0},
         {0, 8, 0}},
    };
    for (const std::vector<Vec3f>& points : awkward) {
        for (int copy = 0; copy < 13; ++copy) {
            std::vector<Vec3f> moved = points;
            for (Vec3f& p : moved)
                p.x += 0.01f * static_cast<float>(copy);
            add(moved);
        }
    }
    add({});
    add({{0, 0, 0}});
    // Clumps of 13 fill each group with one clump; clumps of 6 give groups of two or three.
    std::vector<float>& clumps = set->addStrandChannel("clumpId", 0.0f);
    std::vector<float>& small = set->addStrandChannel("smallClump", 0.0f);
    for (std::size_t s = 0; s < set->strandCount(); ++s) {
        clumps[s] = static_cast<float>(s / 13);
        small[s] = static_cast<float>(s / 6);
    }
    return set;
}

// Where two point columns differ in their bits (NaN and signed zeros included), as text.
std::string bitDifferences(const StrandSet& strands, std::span<const Vec3f> got,
                           std::span<const Vec3f> want) {
    std::string text;
    for (std::size_t s = 0; s < strands.strandCount(); ++s) {
        for (std::uint64_t p = strands.offsets()[s]; p < strands.offsets()[s + 1]; ++p) {
            if (std::memcmp(&got[p], &want[p], sizeof(Vec3f)) != 0) {
                text += "strand " + std::to_string(s) + " point " +
                        std::to_string(p - strands.offsets()[s]) + "; ";
                break;
            }
        }
    }
    return text;
}

TEST(Curl, StrandsSideBySideGiveTheBitsOfStrandsMadeAloneAtAnyThreadCount) {
    const auto strands = groupedStrands();
    Ramp rise;
    rise.keys = {{0.0f, 0.3f, 0.0f}, {0.7f, 1.0f, 0.0f}, {1.0f, 0.6f, 0.0f}};
    smoothSlopes(rise);
    std::vector<std::vector<float>> perPoint;
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        perPoint.emplace_back();
        for (std::size_t k = 0; k < strands->strandPoints(s).size(); ++k)
            perPoint.back().push_back(0.02f + 0.01f * static_cast<float>((s + k) % 4));
    }
    const auto mappedRadius = std::make_shared<test::ListField>(
        std::vector<float>(strands->strandCount(), 0.03f), perPoint);

    struct Case {
        const char* name;
        CurlShape shape;
        float spacingRandom;
        float weight;
        bool profiles;
        bool mapped;
        const char* clumps;  // the channel naming the clumps, or null
        float radius;
    };
    const Case cases[] = {
        {"helix, spacing and weight", CurlShape::Helix, 0.3f, 0.8f, false, false, nullptr, 0.05f},
        {"wide helix held to its turns", CurlShape::Helix, 1.0f, 0.0f, false, false, nullptr, 0.6f},
        {"wave with profiles", CurlShape::Wave, 0.0f, 0.5f, true, false, nullptr, 0.05f},
        {"zigzag with a mapped radius", CurlShape::Zigzag, 0.5f, 0.0f, false, true, nullptr, 0.05f},
        {"coil", CurlShape::Coil, 0.2f, 1.5f, true, false, nullptr, 0.05f},
        {"helix around clumps", CurlShape::Helix, 0.3f, 0.5f, false, false, "clumpId", 0.05f},
        {"wave around small clumps", CurlShape::Wave, 0.0f, 0.0f, true, true, "smallClump", 0.05f},
        {"zigzag around clumps", CurlShape::Zigzag, 0.3f, 0.0f, true, false, "clumpId", 0.05f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CurlSettings settings;
        settings.shape = c.shape;
        settings.frequency = 2.5f;
        settings.radius = c.mapped ? FieldSampler(mappedRadius) : FieldSampler(c.radius);
        settings.spacingRandom = c.spacingRandom;
        settings.weight = c.weight;
        settings.phase = 0.2f;
        settings.phaseRandom = 0.5f;
        settings.coilWidths = 4.0f;
        settings.seed = 7;
        if (c.profiles) {
            settings.frequencyProfile = rise;
            settings.profile = rise;
        }
        ClumpAxes axes;
        if (c.clumps) {
            const std::vector<float>* ids = strands->strandChannel(c.clumps);
            axes = clumpAxes(*strands, *ids);
            settings.clumps = &axes;
            settings.clumpChannel = ids;
        }
        const auto [one, two] = test::onOneAndTwoThreads([&] {
            std::vector<Vec3f> out(strands->pointCount());
            curlStrands(*strands, settings, StrandSelection::every(), out);
            return out;
        });
        // Each strand alone is a group of one, made on its own.
        std::vector<Vec3f> alone(strands->pointCount());
        for (std::uint64_t s = 0; s < strands->strandCount(); ++s)
            curlStrands(*strands, settings, StrandSelection::only(std::span(&s, 1)), alone);
        EXPECT_EQ(bitDifferences(*strands, one, alone), "");
        EXPECT_EQ(bitDifferences(*strands, two, alone), "");
        // Something curled: the lanes are not copying the strands through.
        EXPECT_NE(bitDifferences(*strands, one, strands->points()), "");
    }
}

}  // namespace
}  // namespace velmorin
