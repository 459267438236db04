// Cell noise and Voronoi cells: one hashed value per lattice cell, and the nearest of the jittered
// cell points round a point.
#include "expr/noise.h"

#include <algorithm>
#include <cmath>

#include "base/hash.h"
#include "expr/noise_steps.h"

namespace velmorin {

using noise_steps::floorOf;
using noise_steps::smoothUnit;

namespace {
inline float hashUnit(std::uint64_t h) {
    return static_cast<float>(h >> 40) * (1.0f / 16777216.0f);
}
inline std::uint64_t cellHash(const Vec3f& p) {
    return latticeHash(kCellNoiseSeed, latticeFloor(p.x), latticeFloor(p.y), latticeFloor(p.z));
}
}  // namespace

float cellNoise(const Vec3f& p) {
    return hashUnit(cellHash(p));
}

Vec3f cellNoiseVector(const Vec3f& p) {
    const std::uint64_t h = cellHash(p);
    return {hashUnit(h), unitFloat(h + 1), unitFloat(h + 2)};
}

VoronoiCells voronoiCells(const Vec3f& p, float jitter) {
    const float j = std::isnan(jitter) ? 0.0f : std::clamp(jitter, 0.0f, 1.0f);
    const std::int64_t base[3] = {latticeFloor(p.x), latticeFloor(p.y), latticeFloor(p.z)};
    // Offsets from the base cell keep the arithmetic small where p is far from the origin.
    const Vec3f local{p.x - floorOf(p.x), p.y - floorOf(p.y), p.z - floorOf(p.z)};
    VoronoiCells out;
    float best = 3.4e38f, second = 3.4e38f;
    std::uint64_t bestHash = 0;
    Vec3f bestOffset;
    for (int dz = -1; dz <= 1; ++dz)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const auto at = [&](int k, int d) {
                    return static_cast<std::int64_t>(static_cast<std::uint64_t>(base[k]) +
                                                     static_cast<std::uint64_t>(d));
                };
                const std::uint64_t h = latticeHash(kVoronoiSeed, at(0, dx), at(1, dy), at(2, dz));
                constexpr float kUnit21 = 1.0f / 2097152.0f;
                const Vec3f offset{
                    static_cast<float>(dx) + 0.5f +
                        j * (static_cast<float>(h & 0x1FFFFF) * kUnit21 - 0.5f),
                    static_cast<float>(dy) + 0.5f +
                        j * (static_cast<float>((h >> 21) & 0x1FFFFF) * kUnit21 - 0.5f),
                    static_cast<float>(dz) + 0.5f +
                        j * (static_cast<float>((h >> 42) & 0x1FFFFF) * kUnit21 - 0.5f)};
                const float d2 = lengthSquared(offset - local);
                if (d2 < best) {
                    second = best;
                    best = d2;
                    bestHash = h;
                    bestOffset = offset;
                } else if (d2 < second) {
                    second = d2;
                }
            }
    out.f1 = std::sqrt(best);
    out.f2 = std::sqrt(second);
    out.point = Vec3f{floorOf(p.x), floorOf(p.y), floorOf(p.z)} + bestOffset;
    out.color = {unitFloat(bestHash), unitFloat(bestHash + 1), unitFloat(bestHash + 2)};
    return out;
}

float voronoiValue(const VoronoiCells& cells, float type) {
    const float held = std::isnan(type) ? 1.0f : std::clamp(std::round(type), 1.0f, 5.0f);
    switch (static_cast<int>(held)) {
        case 1:
            return cells.color.x;
        case 2:
            return cells.f1;
        case 3:
            return cells.f2;
        case 4:
            return cells.f2 - cells.f1;
        default:
            return 1.0f - smoothUnit(0.0f, 0.1f, cells.f2 - cells.f1);
    }
}

Vec3f voronoiDisplaced(const Vec3f& p, float fbmScale, const Fractal& fractal) {
    if (!(fbmScale > 0.0f)) return p;
    return p + fractalNoiseVector(p, fractal, kVoronoiSeed) * fbmScale;
}

}  // namespace velmorin
