#include "common/sample_groom.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/sample_meshes.h"
#include "mesh/scalp_mesh.h"
#include "strands/channel_names.h"

namespace velmorin {

StrandSet growSampleGroom(const ScalpMesh& scalp, const SampleGroomOptions& options) {
    if (scalp.triangleCount() == 0)
        throw std::invalid_argument("sample groom: the scalp has no triangles");
    if (options.points < 2)
        throw std::invalid_argument("sample groom: a strand needs 2 points or more");

    // Triangles picked by area through the running sum of their areas.
    const auto& triangles = scalp.triangles();
    const auto& corners = scalp.points();
    std::vector<double> areaSum(triangles.size());
    double area = 0.0;
    for (std::size_t t = 0; t < triangles.size(); ++t) {
        const Triangle& tri = triangles[t];
        area += 0.5 *
                length(cross(corners[tri[1]] - corners[tri[0]], corners[tri[2]] - corners[tri[0]]));
        areaSum[t] = area;
    }
    const auto [low, high] = scalp.bounds();
    const float length = options.length > 0.0f ? options.length : std::max(high.y - low.y, 1e-3f);
    const auto n = static_cast<std::size_t>(options.points);
    const float gravity = std::clamp(options.gravity, 0.0f, 1.0f);

    StrandSet strands;
    strands.resizeForOverwrite(options.count, options.count * n);
    std::vector<float>& red = strands.addPointChannel(std::string(channels::kColor[0]), 0.0f);
    std::vector<float>& green = strands.addPointChannel(std::string(channels::kColor[1]), 0.0f);
    std::vector<float>& blue = strands.addPointChannel(std::string(channels::kColor[2]), 0.0f);
    std::vector<std::uint64_t>& ids = strands.writeIds();
    std::vector<StrandRoot>& roots = strands.writeRoots();
    std::vector<std::uint64_t>& offsets = strands.writeOffsets();
    std::vector<Vec3f>& points = strands.overwritePoints();
    std::vector<float>& widths = strands.overwriteWidths();
    offsets[0] = 0;

    parallelRange(0, options.count, 1024, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::uint64_t h = hashCombine(options.seed, s);
            const double pick = static_cast<double>(unitFloat(h)) * area;
            const auto t = static_cast<std::size_t>(std::min<std::ptrdiff_t>(
                std::lower_bound(areaSum.begin(), areaSum.end(), pick) - areaSum.begin(),
                static_cast<std::ptrdiff_t>(triangles.size()) - 1));
            // A uniform point on the triangle.
            const float r1 = std::sqrt(unitFloat(h + 1));
            const float r2 = unitFloat(h + 2);
            const StrandRoot root{static_cast<std::int32_t>(t), r1 * (1.0f - r2), r1 * r2};
            ids[s] = mix64(h);
            roots[s] = root;
            offsets[s + 1] = (s + 1) * n;

            const Vec3f normal = scalp.normalAt(root);
            // Each strand leans a little its own way and is a little longer or shorter.
            const Vec3f lean{unitFloat(h + 3) - 0.5f, unitFloat(h + 4) - 0.5f,
                             unitFloat(h + 5) - 0.5f};
            // Hair rooted towards the face is cut to a fringe above the eyes.
            const float fringe = std::clamp((normal.z - 0.2f) / 0.5f, 0.0f, 1.0f);
            const float strandLength =
                length * (0.8f + 0.4f * unitFloat(h + 6)) * (1.0f - 0.55f * fringe);
            const float step = strandLength / static_cast<float>(n - 1);
            const float shade = 0.8f + 0.4f * unitFloat(h + 7);
            Vec3f p = scalp.pointAt(root);
            for (std::size_t j = 0; j < n; ++j) {
                const std::size_t pt = s * n + j;
                const float along = static_cast<float>(j) / static_cast<float>(n - 1);
                if (j > 0) {
                    // Lifted along the normal at the root, pulled down further out.
                    const float pull = gravity * std::min(1.0f, 3.5f * along);
                    const Vec3f direction = normalized(
                        normal * (1.0f - pull) + Vec3f{0.0f, -1.0f, 0.0f} * pull + lean * 0.25f,
                        normal);
                    p += direction * step;
                    if (options.keepOutOfScalp) {
                        const ClosestPoint near = scalp.closestPoint(p, step);
                        if (near.found()) {
                            const Vec3f surfaceNormal = scalp.normalAt(near.root);
                            const float lift = 0.15f * step * along;
                            if (dot(p - near.point, surfaceNormal) < lift)
                                p = near.point + surfaceNormal * lift;
                        }
                    }
                }
                points[pt] = p;
                widths[pt] = options.rootWidth + (options.tipWidth - options.rootWidth) * along;
                const float tip = shade * (1.0f + 0.5f * along * along);
                red[pt] = options.color.x * tip;
                green[pt] = options.color.y * tip;
                blue[pt] = options.color.z * tip;
            }
        }
    });
    return strands;
}

std::shared_ptr<const ScalpMesh> withSampleHead(const ScalpMesh& scalp) {
    const auto sphere = makeSphere(1.0f, 48, 64);
    std::vector<Vec3f> points = scalp.points();
    std::vector<Triangle> triangles = scalp.triangles();
    const auto first = static_cast<std::uint32_t>(points.size());
    for (const Vec3f& p : sphere->points()) {
        const float down = p.y < 0.0f ? 1.35f : 1.0f;
        points.push_back({7.45f * p.x, 8.85f * p.y * down, -0.6f + 9.65f * p.z});
    }
    for (const Triangle& t : sphere->triangles())
        triangles.push_back({t[0] + first, t[1] + first, t[2] + first});
    return std::make_shared<const ScalpMesh>(std::move(points), std::move(triangles));
}

}  // namespace velmorin
