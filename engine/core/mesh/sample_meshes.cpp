#include "mesh/sample_meshes.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace velmorin {
namespace {

// Collects quads and fans as triangles, remembering each polygon's triangle count and the UV of
// every corner.
struct MeshBuilder {
    std::vector<Vec3f> points;
    std::vector<Triangle> triangles;
    std::vector<std::int32_t> polygons;
    std::vector<Uv> uvs;

    void triangle(std::uint32_t a, std::uint32_t b, std::uint32_t c, Uv ua, Uv ub, Uv uc) {
        triangles.push_back({a, b, c});
        uvs.insert(uvs.end(), {ua, ub, uc});
    }
    // Corners counter-clockwise seen from outside.
    void quad(const std::array<std::uint32_t, 4>& v, const std::array<Uv, 4>& uv) {
        triangle(v[0], v[1], v[2], uv[0], uv[1], uv[2]);
        triangle(v[0], v[2], v[3], uv[0], uv[2], uv[3]);
        polygons.push_back(2);
    }
    std::shared_ptr<const ScalpMesh> finish() {
        auto mesh = std::make_shared<ScalpMesh>(std::move(points), std::move(triangles));
        mesh->setPolygons(std::move(polygons));
        mesh->setUvs(std::move(uvs));
        return mesh;
    }
};

constexpr float kPi = std::numbers::pi_v<float>;

}  // namespace

std::shared_ptr<const ScalpMesh> makeSphere(float radius, int rings, int segments) {
    rings = std::max(rings, 2);
    segments = std::max(segments, 3);
    MeshBuilder b;
    // Pole, rings of `segments` points from top to bottom, pole.
    b.points.push_back({0.0f, radius, 0.0f});
    for (int r = 1; r < rings; ++r) {
        const float theta = kPi * static_cast<float>(r) / static_cast<float>(rings);
        for (int s = 0; s < segments; ++s) {
            const float phi = 2.0f * kPi * static_cast<float>(s) / static_cast<float>(segments);
            b.points.push_back({radius * std::sin(theta) * std::cos(phi), radius * std::cos(theta),
                                radius * std::sin(theta) * std::sin(phi)});
        }
    }
    const auto bottom = static_cast<std::uint32_t>(b.points.size());
    b.points.push_back({0.0f, -radius, 0.0f});

    auto ringPoint = [&](int r, int s) {
        return static_cast<std::uint32_t>(1 + (r - 1) * segments + s % segments);
    };
    auto uvOf = [&](int r, int s) {
        return Uv{static_cast<float>(s) / static_cast<float>(segments),
                  1.0f - static_cast<float>(r) / static_cast<float>(rings)};
    };
    for (int s = 0; s < segments; ++s) {
        b.triangle(0, ringPoint(1, s + 1), ringPoint(1, s), {(s + 0.5f) / segments, 1.0f},
                   uvOf(1, s + 1), uvOf(1, s));
        b.polygons.push_back(1);
    }
    for (int r = 1; r + 1 < rings; ++r) {
        for (int s = 0; s < segments; ++s) {
            b.quad({ringPoint(r, s), ringPoint(r, s + 1), ringPoint(r + 1, s + 1),
                    ringPoint(r + 1, s)},
                   {uvOf(r, s), uvOf(r, s + 1), uvOf(r + 1, s + 1), uvOf(r + 1, s)});
        }
    }
    for (int s = 0; s < segments; ++s) {
        b.triangle(bottom, ringPoint(rings - 1, s), ringPoint(rings - 1, s + 1),
                   {(s + 0.5f) / segments, 0.0f}, uvOf(rings - 1, s), uvOf(rings - 1, s + 1));
        b.polygons.push_back(1);
    }
    return b.finish();
}

std::shared_ptr<const ScalpMesh> makeHeadScalp(int detail) {
    // A skull a little longer than wide, +Y up and +Z towards the face, in centimetres. A square
    // grid is squeezed onto a disc seen from above, and the disc is laid over the skull from the
    // crown down to the hairline, so every face is a quad and the UVs are the view from above.
    const int n = 32 * std::max(detail, 1);
    const Vec3f radii{7.6f, 9.0f, 9.8f};
    const Vec3f centre{0.0f, 0.0f, -0.6f};
    auto hairline = [](float towardFace) {
        // Polar angle from the crown to the hairline: high on the forehead, low at the nape, lifted
        // around the ears.
        const float front = 0.95f;
        const float back = 1.95f;
        const float blend = 0.5f * (1.0f + towardFace);
        const float earDip = 0.22f * std::exp(-std::pow((towardFace + 0.05f) / 0.3f, 2.0f));
        return back + (front - back) * blend - earDip;
    };

    MeshBuilder b;
    std::vector<Uv> pointUv;
    for (int j = 0; j <= n; ++j) {
        for (int i = 0; i <= n; ++i) {
            const float x = 2.0f * static_cast<float>(i) / static_cast<float>(n) - 1.0f;
            const float z = 2.0f * static_cast<float>(j) / static_cast<float>(n) - 1.0f;
            // Square to disc, keeping the grid's lines smooth.
            const float dx = x * std::sqrt(1.0f - 0.5f * z * z);
            const float dz = z * std::sqrt(1.0f - 0.5f * x * x);
            const float r = std::min(std::sqrt(dx * dx + dz * dz), 1.0f);
            const float towardFace = r > 1e-6f ? dz / r : 1.0f;
            const float theta = r * hairline(towardFace);
            const float phi = std::atan2(dz, dx);
            b.points.push_back({centre.x + radii.x * std::sin(theta) * std::cos(phi),
                                centre.y + radii.y * std::cos(theta),
                                centre.z + radii.z * std::sin(theta) * std::sin(phi)});
            pointUv.push_back({0.5f * (x + 1.0f), 0.5f * (z + 1.0f)});
        }
    }
    auto at = [&](int i, int j) { return static_cast<std::uint32_t>(j * (n + 1) + i); };
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i) {
            const std::array<std::uint32_t, 4> v{at(i, j), at(i, j + 1), at(i + 1, j + 1),
                                                 at(i + 1, j)};
            b.quad(v, {pointUv[v[0]], pointUv[v[1]], pointUv[v[2]], pointUv[v[3]]});
        }
    }
    return b.finish();
}

std::shared_ptr<const ScalpMesh> makeUvPlane(float size, int divisions) {
    const int n = std::max(divisions, 1);
    MeshBuilder b;
    std::vector<Uv> pointUv;
    for (int j = 0; j <= n; ++j) {
        for (int i = 0; i <= n; ++i) {
            const float u = static_cast<float>(i) / static_cast<float>(n);
            const float v = static_cast<float>(j) / static_cast<float>(n);
            b.points.push_back({(u - 0.5f) * size, 0.0f, (0.5f - v) * size});
            pointUv.push_back({u, v});
        }
    }
    auto at = [&](int i, int j) { return static_cast<std::uint32_t>(j * (n + 1) + i); };
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i) {
            const std::array<std::uint32_t, 4> v{at(i, j), at(i + 1, j), at(i + 1, j + 1),
                                                 at(i, j + 1)};
            b.quad(v, {pointUv[v[0]], pointUv[v[1]], pointUv[v[2]], pointUv[v[3]]});
        }
    }
    return b.finish();
}

}  // namespace velmorin
