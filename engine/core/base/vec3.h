#pragma once
// The engine's point and vector type: three f32 in the order x, y, z, 12 bytes with no padding.

#include <cmath>

namespace velmorin {

struct Vec3f {
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    constexpr Vec3f operator+(const Vec3f& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vec3f operator-(const Vec3f& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vec3f operator*(float s) const { return {x * s, y * s, z * s}; }
    constexpr bool operator==(const Vec3f&) const = default;
};
static_assert(sizeof(Vec3f) == 12);

constexpr float dot(const Vec3f& a, const Vec3f& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline float length(const Vec3f& v) { return std::sqrt(dot(v, v)); }

}  // namespace velmorin
