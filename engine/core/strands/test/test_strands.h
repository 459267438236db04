#pragma once
// Strand sets for the tests and benchmarks: seeded random sets, straight grids, and moved copies;
// and runs at one thread and at two.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/strand_set.h"

namespace velmorin::test {

// `count` strands of 0 to 12 points (so some are empty) with coordinates in [-5, 5), widths in
// [0, 1), and a strand channel "mass" (default 2) and a point channel "curl" (default -1) holding
// hashed values. The same seed gives the same set.
inline StrandSet randomStrands(std::size_t count, std::uint64_t seed) {
    StrandSet set;
    set.addStrandChannel("mass", 2.0f);
    set.addPointChannel("curl", -1.0f);
    std::vector<Vec3f> points;
    std::vector<float> widths;
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint64_t h = hashCombine(seed, i);
        const std::size_t pointCount = mix64(h) % 13;
        points.clear();
        widths.clear();
        for (std::size_t k = 0; k < pointCount; ++k) {
            const std::uint64_t p = hashCombine(h, k);
            points.push_back(
                {unitFloat(p) * 10 - 5, unitFloat(p + 1) * 10 - 5, unitFloat(p + 2) * 10 - 5});
            widths.push_back(unitFloat(p + 3));
        }
        const StrandRoot root{static_cast<std::int32_t>(h % 40) - 5, unitFloat(h + 1),
                              unitFloat(h + 2)};
        set.addStrand(h, root, points, widths);
    }
    std::vector<float>& mass = set.addStrandChannel("mass", 2.0f);
    for (std::size_t i = 0; i < count; ++i)
        mass[i] = unitFloat(seed + 7 * i);
    std::vector<float>& curl = set.addPointChannel("curl", -1.0f);
    for (std::size_t p = 0; p < curl.size(); ++p)
        curl[p] = unitFloat(seed + 11 * p);
    return set;
}

// `count` strands of `points` points each: ids hashed from `seed`, straight up from a root on the
// plane y = 0, widths 0.01. The columns are filled in parallel, so that 10M strands stay quick.
inline std::shared_ptr<const StrandSet> gridStrands(std::size_t count, std::size_t points,
                                                    std::uint64_t seed) {
    auto set = std::make_shared<StrandSet>();
    std::vector<std::uint64_t>& ids = set->writeIds();
    std::vector<StrandRoot>& roots = set->writeRoots();
    std::vector<std::uint64_t>& offsets = set->writeOffsets();
    std::vector<Vec3f>& positions = set->writePoints();
    std::vector<float>& widths = set->writeWidths();
    ids.resize(count);
    roots.resize(count);
    offsets.assign(count + 1, 0);
    positions.resize(count * points);
    widths.assign(count * points, 0.01f);
    parallelRange(0, count, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            ids[s] = hashCombine(seed, s);
            roots[s] = {static_cast<std::int32_t>(s % 97), unitFloat(ids[s]),
                        unitFloat(ids[s] + 1)};
            offsets[s + 1] = (s + 1) * points;
            const float x = unitFloat(ids[s] + 2) * 10.0f, z = unitFloat(ids[s] + 3) * 10.0f;
            for (std::size_t k = 0; k < points; ++k)
                positions[s * points + k] = {x, 0.1f * static_cast<float>(k), z};
        }
    });
    return set;
}

// A copy of `set` (sharing every other column) with the listed strands moved up by `dy`.
inline std::shared_ptr<const StrandSet> moved(const StrandSet& set,
                                              std::span<const std::uint64_t> strands, float dy) {
    auto out = std::make_shared<StrandSet>(set);
    std::vector<Vec3f>& points = out->writePoints();
    for (std::uint64_t s : strands) {
        const StrandSet::PointRange range = set.pointRange(s);
        for (std::size_t p = range.begin; p < range.begin + range.count; ++p)
            points[p].y += dy;
    }
    return out;
}
inline std::shared_ptr<const StrandSet> moved(const StrandSet& set,
                                              std::initializer_list<std::uint64_t> strands,
                                              float dy) {
    return moved(set, std::span<const std::uint64_t>(strands.begin(), strands.size()), dy);
}

// What `run` gives on one thread and on two, to check that the thread count changes nothing.
template <class Run>
auto onOneAndTwoThreads(Run run) {
    decltype(run()) one{}, two{};
    runWithThreads(1, [&] { one = run(); });
    runWithThreads(2, [&] { two = run(); });
    return std::pair{std::move(one), std::move(two)};
}

// The bits of an extent, to compare two extents exactly (NaN and -0 included).
inline std::array<std::uint32_t, 8> extentBits(const StrandSet::Extent& e) {
    return {floatBits(e.min.x), floatBits(e.min.y), floatBits(e.min.z),   floatBits(e.max.x),
            floatBits(e.max.y), floatBits(e.max.z), floatBits(e.longest), e.finite ? 1u : 0u};
}

// The bits of points, to compare two results exactly (NaN and -0 included).
inline std::vector<std::uint32_t> bitsOf(std::span<const Vec3f> points) {
    std::vector<std::uint32_t> bits;
    bits.reserve(points.size() * 3);
    for (const Vec3f& p : points)
        bits.insert(bits.end(), {floatBits(p.x), floatBits(p.y), floatBits(p.z)});
    return bits;
}

// One number for the bits of points, to pin a result against silent change.
inline std::uint64_t pointsHash(std::span<const Vec3f> points) {
    std::uint64_t h = 0;
    for (const Vec3f& p : points)
        h = hashCombine(hashCombine(hashCombine(h, floatBits(p.x)), floatBits(p.y)),
                        floatBits(p.z));
    return h;
}

// A column or channel as a vector to compare; an absent channel is empty.
template <class T>
std::vector<T> values(std::span<const T> column) {
    return {column.begin(), column.end()};
}
inline std::vector<float> values(const std::vector<float>* channel) {
    return channel ? *channel : std::vector<float>{};
}

}  // namespace velmorin::test
