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
    constexpr Vec3f operator-() const { return {-x, -y, -z}; }
    constexpr Vec3f operator*(float s) const { return {x * s, y * s, z * s}; }
    constexpr Vec3f operator/(float s) const { return {x / s, y / s, z / s}; }
    constexpr Vec3f& operator+=(const Vec3f& o) { return *this = *this + o; }
    constexpr Vec3f& operator-=(const Vec3f& o) { return *this = *this - o; }
    constexpr Vec3f& operator*=(float s) { return *this = *this * s; }
    constexpr float operator[](int axis) const { return axis == 0 ? x : axis == 1 ? y : z; }
    constexpr bool operator==(const Vec3f&) const = default;
};
static_assert(sizeof(Vec3f) == 12);

constexpr Vec3f operator*(float s, const Vec3f& v) {
    return v * s;
}
constexpr float dot(const Vec3f& a, const Vec3f& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
constexpr Vec3f cross(const Vec3f& a, const Vec3f& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
constexpr float lengthSquared(const Vec3f& v) {
    return dot(v, v);
}
inline float length(const Vec3f& v) {
    return std::sqrt(dot(v, v));
}
constexpr Vec3f lerp(const Vec3f& a, const Vec3f& b, float t) {
    return a + (b - a) * t;
}
constexpr Vec3f minPerAxis(const Vec3f& a, const Vec3f& b) {
    return {a.x < b.x ? a.x : b.x, a.y < b.y ? a.y : b.y, a.z < b.z ? a.z : b.z};
}
constexpr Vec3f maxPerAxis(const Vec3f& a, const Vec3f& b) {
    return {a.x > b.x ? a.x : b.x, a.y > b.y ? a.y : b.y, a.z > b.z ? a.z : b.z};
}

// The unit vector along v, or `fallback` when v is too short to have a direction.
inline Vec3f normalized(const Vec3f& v, const Vec3f& fallback = {0.0f, 0.0f, 0.0f}) {
    const float len = length(v);
    return len > 1e-20f ? v / len : fallback;
}

}  // namespace velmorin
