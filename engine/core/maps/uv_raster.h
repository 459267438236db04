#pragma once
// Rasterising scalp triangles in UV space: which texels of a width x height image a triangle's UV
// image covers, and where in the triangle each texel's centre lies. Row 0 is the image's top, at
// v = 1, as images are stored; texel (x, y) has its centre at u = (x + 0.5) / width,
// v = 1 - (y + 0.5) / height.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "base/parallel.h"
#include "mesh/scalp_mesh.h"

namespace velmorin::detail {

// Calls fn(x, y, l0, l1, l2) for each texel in rows [rowBegin, rowEnd) whose centre lies in the
// triangle with corner UVs a, b, c, with the centre's barycentric weights of the three corners.
// Texels on an edge are reported by both triangles that share it. Degenerate triangles, and
// corners that are not numbers, cover nothing.
template <class Fn>
void rasterizeUvTriangle(const Uv& a, const Uv& b, const Uv& c, int width, int height, int rowBegin,
                         int rowEnd, Fn&& fn) {
    const float w = static_cast<float>(width);
    const float h = static_cast<float>(height);
    const float ax = a.u * w, ay = (1.0f - a.v) * h;
    const float bx = b.u * w, by = (1.0f - b.v) * h;
    const float cx = c.u * w, cy = (1.0f - c.v) * h;
    const float area = (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
    if (!(std::abs(area) > 1e-12f) || !std::isfinite(area)) return;
    const float inverse = 1.0f / area;
    // The texel range, bounded in floats before any conversion so that wild UVs stay in range.
    auto bound = [](float value, int low, int high) {
        return static_cast<int>(
            std::clamp(value, static_cast<float>(low), static_cast<float>(high)));
    };
    const int x0 = bound(std::floor(std::min({ax, bx, cx}) - 0.5f), 0, width - 1);
    const int x1 = bound(std::ceil(std::max({ax, bx, cx}) - 0.5f), -1, width - 1);
    const int y0 =
        std::max(bound(std::floor(std::min({ay, by, cy}) - 0.5f), 0, height - 1), rowBegin);
    const int y1 =
        std::min(bound(std::ceil(std::max({ay, by, cy}) - 0.5f), -1, height - 1), rowEnd - 1);
    // A little slack keeps texels exactly on a shared edge from falling between two triangles.
    constexpr float kSlack = -1e-5f;
    for (int y = y0; y <= y1; ++y) {
        const float py = static_cast<float>(y) + 0.5f;
        for (int x = x0; x <= x1; ++x) {
            const float px = static_cast<float>(x) + 0.5f;
            float l0 = ((bx - px) * (cy - py) - (by - py) * (cx - px)) * inverse;
            float l1 = ((cx - px) * (ay - py) - (cy - py) * (ax - px)) * inverse;
            float l2 = 1.0f - l0 - l1;
            if (l0 < kSlack || l1 < kSlack || l2 < kSlack) continue;
            l0 = std::max(l0, 0.0f);
            l1 = std::max(l1, 0.0f);
            l2 = std::max(l2, 0.0f);
            const float sum = l0 + l1 + l2;
            fn(x, y, l0 / sum, l1 / sum, l2 / sum);
        }
    }
}

// Rasterises every triangle of the scalp (which must have UVs) over the image, in bands of rows
// that run in parallel: fn(triangle, x, y, l0, l1, l2) is called from several threads, but a texel
// only ever from the thread of its band, so fn may write the texel's own slot.
template <class Fn>
void rasterizeScalpUvs(const ScalpMesh& scalp, int width, int height, Fn&& fn) {
    constexpr int kBandRows = 32;
    const int bandCount = (height + kBandRows - 1) / kBandRows;
    const auto& uvs = scalp.uvs();
    const std::size_t triangleCount = scalp.triangleCount();
    // The triangles of each band, as offsets into one list.
    auto bandsOf = [&](std::size_t t, int& first, int& last) {
        const Uv* corner = &uvs[t * 3];
        float low = 1e30f, high = -1e30f;
        for (int k = 0; k < 3; ++k) {
            const float y = (1.0f - corner[k].v) * static_cast<float>(height);
            low = std::min(low, y);
            high = std::max(high, y);
        }
        if (!(low <= high)) {
            first = 1;
            last = 0;
            return;
        }
        first = static_cast<int>(
                    std::clamp(std::floor(low - 0.5f), 0.0f, static_cast<float>(height - 1))) /
                kBandRows;
        last = static_cast<int>(
                   std::clamp(std::ceil(high - 0.5f), 0.0f, static_cast<float>(height - 1))) /
               kBandRows;
    };
    std::vector<std::uint32_t> offsets(static_cast<std::size_t>(bandCount) + 1, 0);
    for (std::size_t t = 0; t < triangleCount; ++t) {
        int first, last;
        bandsOf(t, first, last);
        for (int band = first; band <= last; ++band)
            ++offsets[band + 1];
    }
    for (int band = 0; band < bandCount; ++band)
        offsets[band + 1] += offsets[band];
    std::vector<std::uint32_t> list(offsets.back());
    std::vector<std::uint32_t> fill(offsets.begin(), offsets.end() - 1);
    for (std::size_t t = 0; t < triangleCount; ++t) {
        int first, last;
        bandsOf(t, first, last);
        for (int band = first; band <= last; ++band)
            list[fill[band]++] = static_cast<std::uint32_t>(t);
    }
    parallelRange(
        0, static_cast<std::size_t>(bandCount), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t band = begin; band < end; ++band) {
                const int rowBegin = static_cast<int>(band) * kBandRows;
                const int rowEnd = std::min(height, rowBegin + kBandRows);
                for (std::uint32_t k = offsets[band]; k < offsets[band + 1]; ++k) {
                    const std::uint32_t t = list[k];
                    const Uv* corner = &uvs[static_cast<std::size_t>(t) * 3];
                    rasterizeUvTriangle(corner[0], corner[1], corner[2], width, height, rowBegin,
                                        rowEnd, [&](int x, int y, float l0, float l1, float l2) {
                                            fn(t, x, y, l0, l1, l2);
                                        });
                }
            }
        });
}

}  // namespace velmorin::detail
