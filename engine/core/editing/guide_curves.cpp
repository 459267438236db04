#include "editing/guide_curves.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace velmorin {
namespace {

constexpr float kDegrees = std::numbers::pi_v<float> / 180.0f;

// The tube values of a whole curve when no list varies along it, so that the per-point work is a
// few multiplies.
struct SectionScale {
    bool varies = false;
    float width = 1.0f, height = 1.0f, cosTwist = 1.0f, sinTwist = 0.0f;

    void set(const TubeValues& values) {
        width = values.width;
        height = values.width * values.aspect;
        if (values.twist == 0.0f) {
            cosTwist = 1.0f;
            sinTwist = 0.0f;
        } else {
            cosTwist = std::cos(values.twist * kDegrees);
            sinTwist = std::sin(values.twist * kDegrees);
        }
    }
    explicit SectionScale(const TubeFields& tube) {
        varies = tube.width.size() > 1 || tube.aspect.size() > 1 || tube.twist.size() > 1;
        set(tubeValuesAt(tube, 0.0f));
    }
};

}  // namespace

Vec3f axisPerpendicular(const Vec3f& direction) {
    const float ax = std::fabs(direction.x), ay = std::fabs(direction.y),
                az = std::fabs(direction.z);
    Vec3f axis{0.0f, 0.0f, 1.0f};
    if (ax <= ay && ax <= az) {
        axis = {1.0f, 0.0f, 0.0f};
    } else if (ay <= az) {
        axis = {0.0f, 1.0f, 0.0f};
    }
    return normalized(cross(direction, axis), {1.0f, 0.0f, 0.0f});
}

Vec3f firstDirection(std::span<const Vec3f> points) {
    if (points.size() < 2) return {0.0f, 1.0f, 0.0f};
    return normalized(points[1] - points[0], {0.0f, 1.0f, 0.0f});
}

Vec3f perpendicularUp(const Vec3f& up, const Vec3f& direction) {
    const Vec3f along = up - direction * dot(up, direction);
    if (lengthSquared(along) < 1e-12f) return axisPerpendicular(direction);
    return normalized(along);
}

Vec3f transportVector(const Vec3f& up, const Vec3f& from, const Vec3f& to) {
    const float c = dot(from, to);
    if (c < -0.9999f) return up;  // a half turn about `up` itself keeps it
    const Vec3f v = cross(from, to);
    return up * c + cross(v, up) + v * (dot(v, up) / (1.0f + c));
}

float polylineLength(std::span<const Vec3f> points) {
    float total = 0.0f;
    for (std::size_t i = 1; i < points.size(); ++i)
        total += length(points[i] - points[i - 1]);
    return total;
}

void resampleByArcLength(std::span<const Vec3f> points, std::size_t count,
                         std::vector<Vec3f>& out) {
    out.resize(points.empty() ? 0 : count);
    if (points.empty() || count == 0) return;
    const float total = polylineLength(points);
    if (count == 1 || points.size() == 1 || !(total > 0.0f)) {
        std::fill(out.begin(), out.end(), points[0]);
        if (count > 1 && points.size() > 1 && total == 0.0f) out.back() = points.back();
        return;
    }
    std::size_t segment = 0;
    float segmentStart = 0.0f;
    float segmentLength = length(points[1] - points[0]);
    out[0] = points[0];
    for (std::size_t j = 1; j + 1 < count; ++j) {
        const float target = total * float(j) / float(count - 1);
        while (segment + 2 < points.size() && segmentStart + segmentLength < target) {
            segmentStart += segmentLength;
            ++segment;
            segmentLength = length(points[segment + 1] - points[segment]);
        }
        const float f = segmentLength > 0.0f
                            ? std::clamp((target - segmentStart) / segmentLength, 0.0f, 1.0f)
                            : 0.0f;
        out[j] = lerp(points[segment], points[segment + 1], f);
    }
    out[count - 1] = points.back();
}

void transportFrames(std::span<const Vec3f> points, const Vec3f& frameUp,
                     std::vector<CurveFrame>& out) {
    const std::size_t n = points.size();
    out.resize(n);
    if (n == 0) return;
    // Segment directions first, each written into the frame of its start point; zero-length ones
    // take the direction before them (or, at the start, the first real one).
    Vec3f previous{0.0f, 0.0f, 0.0f};
    for (std::size_t i = 0; i + 1 < n; ++i) {
        const Vec3f d = points[i + 1] - points[i];
        const float lengthSq = lengthSquared(d);
        out[i].tangent = lengthSq > 1e-24f ? d / std::sqrt(lengthSq) : previous;
        previous = out[i].tangent;
    }
    Vec3f first{0.0f, 1.0f, 0.0f};
    for (std::size_t i = 0; i + 1 < n; ++i) {
        if (lengthSquared(out[i].tangent) > 0.0f) {
            first = out[i].tangent;
            break;
        }
    }
    for (std::size_t i = 0; i + 1 < n && lengthSquared(out[i].tangent) == 0.0f; ++i)
        out[i].tangent = first;
    out[n - 1].tangent = n > 1 ? out[n - 2].tangent : first;
    // Inner points bisect their two segments, so children round a bend evenly.
    Vec3f incoming = out[0].tangent;
    for (std::size_t i = 1; i + 1 < n; ++i) {
        const Vec3f outgoing = out[i].tangent;
        out[i].tangent = normalized(incoming + outgoing, outgoing);
        incoming = outgoing;
    }

    Vec3f up = perpendicularUp(frameUp, out[0].tangent);
    out[0].up = up;
    out[0].side = cross(up, out[0].tangent);
    for (std::size_t i = 1; i < n; ++i) {
        const Vec3f tangent = out[i].tangent;
        up = transportVector(up, out[i - 1].tangent, tangent);
        const Vec3f along = up - tangent * dot(up, tangent);
        up = lengthSquared(along) < 1e-8f ? axisPerpendicular(tangent) : normalized(along);
        out[i].up = up;
        out[i].side = cross(up, tangent);
    }
}

Vec3f offsetAt(std::span<const Vec3f> offsets, float t) {
    if (offsets.empty()) return {};
    if (offsets.size() == 1) return offsets[0];
    const float x = std::clamp(t, 0.0f, 1.0f) * float(offsets.size() - 1);
    const std::size_t i = std::min(static_cast<std::size_t>(x), offsets.size() - 2);
    const float f = x - float(i);
    return offsets[i] * (1.0f - f) + offsets[i + 1] * f;
}

void followParent(std::span<const Vec3f> points, std::span<const CurveFrame> frames,
                  std::span<const Vec3f> offsets, const TubeFields& tube, float scale,
                  std::span<Vec3f> out) {
    const std::size_t n = out.size();
    SectionScale section(tube);
    const float step = n > 1 ? 1.0f / float(n - 1) : 0.0f;
    for (std::size_t i = 0; i < n; ++i) {
        const float t = float(i) * step;
        if (section.varies) section.set(tubeValuesAt(tube, t));
        const Vec3f o = offsetAt(offsets, t);
        const float x = o.x * section.width, y = o.y * section.height;
        const float lx = x * section.cosTwist - y * section.sinTwist;
        const float ly = x * section.sinTwist + y * section.cosTwist;
        const CurveFrame& f = frames[i];
        out[i] = points[i] + (f.side * lx + f.up * ly + f.tangent * o.z) * scale;
    }
}

void offsetsFromPoints(std::span<const Vec3f> points, std::span<const CurveFrame> frames,
                       std::span<const Vec3f> childPoints, const TubeFields& tube, float scale,
                       std::vector<Vec3f>& offsets) {
    const std::size_t n = childPoints.size();
    offsets.resize(n);
    SectionScale section(tube);
    const float step = n > 1 ? 1.0f / float(n - 1) : 0.0f;
    const float inverseScale = scale != 0.0f ? 1.0f / scale : 0.0f;
    for (std::size_t i = 0; i < n; ++i) {
        if (section.varies) section.set(tubeValuesAt(tube, float(i) * step));
        const CurveFrame& f = frames[i];
        const Vec3f d = (childPoints[i] - points[i]) * inverseScale;
        const float lx = dot(d, f.side), ly = dot(d, f.up);
        const float x = lx * section.cosTwist + ly * section.sinTwist;
        const float y = -lx * section.sinTwist + ly * section.cosTwist;
        offsets[i] = {std::fabs(section.width) > 1e-12f ? x / section.width : 0.0f,
                      std::fabs(section.height) > 1e-12f ? y / section.height : 0.0f,
                      dot(d, f.tangent)};
    }
}

}  // namespace velmorin
