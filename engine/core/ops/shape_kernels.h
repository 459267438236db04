#pragma once
// Small pieces the shape kernels share inside their per-point loops, kept inline so that the loops
// make no calls for the common cases: a profile with no keys, a strand's range read straight from
// the offsets, scratch space on the stack for strands of ordinary length, and frames carried along
// a strand without trigonometry.

#include <array>
#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

#include "base/vec3.h"
#include "graph/ramp.h"
#include "mesh/scalp_mesh.h"
#include "ops/shape_support.h"

namespace velmorin {

// A ramp's value at t: 1 with no keys (most profiles) without a call.
inline float profileAt(const Ramp& ramp, float t) {
    return ramp.keys.empty() ? 1.0f : ramp.at(t);
}

// Per-chunk scratch for one strand's values: a stack buffer for strands of up to `kStack` points,
// a heap array, grown once per chunk, only for longer strands.
template <class T, std::size_t kStack = 256>
class StrandScratch {
  public:
    std::span<T> take(std::size_t count) {
        if (count <= kStack) return std::span<T>(stack_.data(), count);
        if (heap_.size() < count) heap_.resize(count);
        return std::span<T>(heap_.data(), count);
    }

  private:
    std::array<T, kStack> stack_;
    std::vector<T> heap_;
};

// Frames carried along a strand by parallel transport, as transportFrames makes them (first normal
// any perpendicular of the first direction, each next one turned by the smallest rotation between
// directions, zero-length segments taking the frame before them), the rotation made as two
// reflections: across the plane square to the sum of the two directions, which takes the one to
// the other reversed, then across the plane square to the new direction. The two planes meet along
// the rotation's axis at half its angle, so together they are that rotation; each frame waits on
// the last through two dot products only, where a rotation about a unit axis needs a square root
// and a division too.
inline void carryFrames(std::span<const Vec3f> points, std::span<SegmentFrame> frames) {
    // How many segments the normal is carried before its length is set back to 1.
    constexpr std::size_t kRenormalizeEvery = 32;
    Vec3f tangent{0, 1, 0};
    for (std::size_t k = 1; k < points.size(); ++k) {
        const Vec3f d = points[k] - points[k - 1];
        if (lengthSquared(d) > 1e-24f) {
            tangent = normalized(d);
            break;
        }
    }
    Vec3f normal = anyPerpendicular(tangent);
    for (std::size_t j = 0; j + 1 < points.size(); ++j) {
        const Vec3f d = points[j + 1] - points[j];
        const float dd = lengthSquared(d);
        if (dd > 1e-24f) {
            const Vec3f next = d / std::sqrt(dd);
            const Vec3f sum = tangent + next;
            const float sumSquared = lengthSquared(sum);
            // Reversed on itself the strand has no smallest turn: the normal stays, as it does for
            // a strand that goes on straight.
            if (sumSquared > 1e-12f) {
                const Vec3f reflected = normal - sum * (2.0f * dot(sum, normal) / sumSquared);
                normal = reflected - next * (2.0f * dot(next, reflected));
            }
            tangent = next;
            if (j % kRenormalizeEvery == kRenormalizeEvery - 1) {
                // Rounding drifts the normal over long strands; take it back.
                const Vec3f off = normal - tangent * dot(normal, tangent);
                const float size = length(off);
                normal = size > 1e-20f ? off / size : anyPerpendicular(tangent);
            }
        }
        frames[j] = {tangent, normal, cross(tangent, normal)};
    }
}

// rootFrame for the strands of one chunk, which mostly come in the order of their faces: the
// scalp's U direction of the last face is kept, so that a run of roots on one face reads the
// triangle and its UVs once. The frames are rootFrame's, bit for bit.
class RootFrames {
  public:
    RootFrames(const ScalpMesh* scalp, TangentFrom from)
        : scalp_(scalp),
          from_(from),
          triangles_(scalp ? scalp->triangles().data() : nullptr),
          normals_(scalp ? scalp->vertexNormals() : std::span<const Vec3f>()) {}

    // ScalpMesh::normalAt, bit for bit, from the vertex normals fetched once: a root on the
    // scalp.
    Vec3f normalAt(const StrandRoot& root) const {
        const Triangle& t = triangles_[static_cast<std::size_t>(root.face)];
        const float w0 = 1.0f - root.u - root.v;
        const Vec3f blend = normals_[t[0]] * w0 + normals_[t[1]] * root.u + normals_[t[2]] * root.v;
        const float len2 = lengthSquared(blend);
        if (len2 > 1e-20f) return blend / std::sqrt(len2);
        return scalp_->normalAt(root);
    }

    RootFrame at(const StrandRoot& root, const Vec3f& direction) {
        RootFrame frame;
        if (!scalp_ || !scalp_->isOnSurface(root)) return frame;
        frame.normal = normalAt(root);
        if (lengthSquared(frame.normal) < 0.25f) return frame;
        Vec3f tangent;
        if (from_ != TangentFrom::Direction) {
            if (root.face != face_) {
                face_ = root.face;
                u_ = scalpUDirection(*scalp_, root.face);
            }
            const Vec3f u = alongSurface(u_, frame.normal);
            if (lengthSquared(u) > 1e-12f) tangent = normalized(u);
        }
        if (lengthSquared(tangent) == 0.0f) {
            if (from_ == TangentFrom::Triangle) {
                tangent = scalp_->frameAt(root).tangent;
            } else {
                const Vec3f laid = alongSurface(direction, frame.normal);
                const float size = length(direction);
                if (size == 0.0f || length(laid) < 1e-6f * size) return frame;
                tangent = normalized(laid);
            }
        }
        frame.tangent = tangent;
        frame.binormal = cross(tangent, frame.normal);
        frame.valid = true;
        return frame;
    }

  private:
    const ScalpMesh* scalp_;
    TangentFrom from_;
    const Triangle* triangles_;
    std::span<const Vec3f> normals_;
    std::int32_t face_ = -1;
    Vec3f u_;
};

}  // namespace velmorin
