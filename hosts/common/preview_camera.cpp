// The preview's cameras: named views framed on a groom's bounds, and the projection of points.

#include <algorithm>
#include <array>
#include <cmath>
#include <span>
#include <vector>

#include "base/parallel.h"
#include "common/preview_render.h"
#include "mesh/scalp_mesh.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

struct ViewRow {
    PreviewView view;
    std::string_view name;
    Vec3f towardEye;  // from the target to the eye
    Vec3f up;
};

// Side looks from +X as Maya's side view does; top has the face at the bottom of the picture.
constexpr std::array<ViewRow, 5> kViews = {{
    {PreviewView::Front, "front", {0.0f, 0.0f, 1.0f}, {0.0f, 1.0f, 0.0f}},
    {PreviewView::Side, "side", {1.0f, 0.0f, 0.0f}, {0.0f, 1.0f, 0.0f}},
    {PreviewView::Back, "back", {0.0f, 0.0f, -1.0f}, {0.0f, 1.0f, 0.0f}},
    {PreviewView::Top, "top", {0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, -1.0f}},
    {PreviewView::ThreeQuarter, "three-quarter", {0.72f, 0.3f, 1.0f}, {0.0f, 1.0f, 0.0f}},
}};

constexpr float kPi = 3.14159265358979f;

}  // namespace

std::optional<PreviewView> previewViewByName(std::string_view name) {
    for (const ViewRow& row : kViews)
        if (row.name == name) return row.view;
    return std::nullopt;
}

std::string_view previewViewName(PreviewView view) {
    for (const ViewRow& row : kViews)
        if (row.view == view) return row.name;
    return "front";
}

std::string_view previewViewList() {
    return "front, side, back, top or three-quarter";
}

std::optional<PreviewProjection::Point> PreviewProjection::project(const Vec3f& world) const {
    const Vec3f forward = normalized(camera.target - camera.eye, {0.0f, 0.0f, -1.0f});
    Vec3f right = normalized(cross(forward, camera.up));
    if (lengthSquared(right) == 0.0f) right = normalized(cross(forward, {0.0f, 0.0f, 1.0f}));
    if (lengthSquared(right) == 0.0f) right = {1.0f, 0.0f, 0.0f};
    const Vec3f up = cross(right, forward);
    const Vec3f d = world - camera.eye;
    const float depth = dot(d, forward);
    const float nearLimit = 1e-4f * std::max(length(camera.target - camera.eye), 1e-3f);
    if (!(depth > nearLimit)) return std::nullopt;
    const float focal = pixelsPerUnit(1.0f);
    return Point{0.5f * static_cast<float>(width) + focal * dot(d, right) / depth,
                 0.5f * static_cast<float>(height) - focal * dot(d, up) / depth, depth};
}

float PreviewProjection::pixelsPerUnit(float depth) const {
    const float halfFov = 0.5f * std::clamp(camera.fovDegrees, 0.1f, 179.0f) * kPi / 180.0f;
    return 0.5f * static_cast<float>(height) / std::tan(halfFov) / depth;
}

PreviewCamera framePreviewCamera(const StrandSet& strands, const ScalpMesh* scalp, PreviewView view,
                                 int width, int height) {
    Vec3f low{3.4e38f, 3.4e38f, 3.4e38f};
    Vec3f high{-3.4e38f, -3.4e38f, -3.4e38f};
    if (strands.pointCount() > 0) {
        const StrandSet::Extent extent = strands.bounds();
        low = minPerAxis(low, extent.min);
        high = maxPerAxis(high, extent.max);
    }
    if (scalp && scalp->pointCount() > 0) {
        const auto [scalpLow, scalpHigh] = scalp->bounds();
        low = minPerAxis(low, scalpLow);
        high = maxPerAxis(high, scalpHigh);
    }
    if (low.x > high.x) {
        low = {-1.0f, -1.0f, -1.0f};
        high = {1.0f, 1.0f, 1.0f};
    }
    const ViewRow& row = kViews[static_cast<std::size_t>(view)];
    PreviewCamera camera;
    camera.target = (low + high) * 0.5f;
    camera.up = row.up;
    const Vec3f towardEye = normalized(row.towardEye);
    const Vec3f right = normalized(cross(-towardEye, row.up));
    const Vec3f up = cross(right, -towardEye);

    // Back off until every point lies inside the picture with a margin: for a point at (x, y)
    // across the view and z towards the eye, the eye must be at least z + |x| / tan(half
    // horizontal field) away, and the same for y. The points rather than the corners of their
    // box, which would leave the groom small in the picture from most views.
    const float tanY = std::tan(0.5f * camera.fovDegrees * kPi / 180.0f);
    const float tanX =
        tanY * static_cast<float>(std::max(width, 1)) / static_cast<float>(std::max(height, 1));
    constexpr float kFill = 0.9f;  // the groom spans at most this share of the picture
    const float diagonal = std::max(length(high - low), 1e-3f);
    const auto farthest = [&](std::span<const Vec3f> points) {
        constexpr std::size_t kChunk = 65536;
        std::vector<float> chunkMost((points.size() + kChunk - 1) / kChunk, 0.0f);
        parallelRange(0, chunkMost.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                float most = 0.0f;
                const std::size_t last = std::min(points.size(), (c + 1) * kChunk);
                for (std::size_t i = c * kChunk; i < last; ++i) {
                    const Vec3f rel = points[i] - camera.target;
                    const float z = dot(rel, towardEye);
                    most = std::max({most, z + std::abs(dot(rel, right)) / (tanX * kFill),
                                     z + std::abs(dot(rel, up)) / (tanY * kFill),
                                     z + 0.05f * diagonal});
                }
                chunkMost[c] = most;
            }
        });
        return chunkMost.empty() ? 0.0f : *std::max_element(chunkMost.begin(), chunkMost.end());
    };
    float distance = farthest(strands.points());
    if (scalp) distance = std::max(distance, farthest(scalp->points()));
    distance = std::max(distance, 0.1f * diagonal);
    camera.eye = camera.target + towardEye * distance;
    return camera;
}

}  // namespace velmorin
