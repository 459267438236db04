#pragma once
// Small pieces the shape kernels share inside their per-point loops, kept inline so that the loops
// make no calls for the common cases: a profile with no keys, a strand's range read straight from
// the offsets, and scratch space on the stack for strands of ordinary length.

#include <array>
#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

#include "base/fast_trig_lanes.h"
#include "base/vec3.h"
#include "graph/ramp.h"
#include "mesh/scalp_mesh.h"
#include "ops/shape_support.h"

namespace velmorin {

// A ramp's value at t: 1 with no keys (most profiles) without a call.
inline float profileAt(const Ramp& ramp, float t) {
    return ramp.keys.empty() ? 1.0f : ramp.at(t);
}

// lengths[k] = length(points[k] - points[k - 1]) for k from 1 (lengths[0] is left alone), bit for
// bit, with the square roots taken four at a time in SSE lanes where the target has them.
inline void segmentLengths(std::span<const Vec3f> points, std::span<float> lengths) {
    std::size_t k = 1;
#if VELMORIN_SSE_LANES
    const auto squared = [&](std::size_t at) { return lengthSquared(points[at] - points[at - 1]); };
    for (; k + 4 <= points.size(); k += 4)
        _mm_storeu_ps(lengths.data() + k, _mm_sqrt_ps(_mm_setr_ps(squared(k), squared(k + 1),
                                                                  squared(k + 2), squared(k + 3))));
#endif
    for (; k < points.size(); ++k)
        lengths[k] = length(points[k] - points[k - 1]);
}

// arcLengths, bit for bit, with the square roots four at a time: arcs[k] the arc from the root to
// point k (arcs.size() == points.size() >= 1); returns the length.
inline float arcLengthsByLanes(std::span<const Vec3f> points, std::span<float> arcs) {
    segmentLengths(points, arcs);
    arcs[0] = 0.0f;
    float total = 0.0f;
    for (std::size_t k = 1; k < points.size(); ++k) {
        total += arcs[k];
        arcs[k] = total;
    }
    return total;
}

#if VELMORIN_SSE_LANES
// Point k of four strands as rows of x, y and z, one strand per SSE lane. A load takes four floats
// from a point, so each strand must be followed by at least one more point in its column; a store
// writes the three floats alone.
struct PointRows4 {
    __m128 x, y, z;
};

inline PointRows4 loadPointRows(const Vec3f* const from[4], std::size_t k) {
    __m128 a = _mm_loadu_ps(&from[0][k].x), b = _mm_loadu_ps(&from[1][k].x);
    __m128 c = _mm_loadu_ps(&from[2][k].x), d = _mm_loadu_ps(&from[3][k].x);
    _MM_TRANSPOSE4_PS(a, b, c, d);
    return {a, b, c};
}

inline void storePointRows(Vec3f* const to[4], std::size_t k, PointRows4 rows) {
    __m128 a = rows.x, b = rows.y, c = rows.z, d = _mm_setzero_ps();
    _MM_TRANSPOSE4_PS(a, b, c, d);
    const __m128 lanes[4] = {a, b, c, d};
    for (std::size_t i = 0; i < 4; ++i) {
        _mm_storel_pi(reinterpret_cast<__m64*>(&to[i][k].x), lanes[i]);
        _mm_store_ss(&to[i][k].z, _mm_movehl_ps(lanes[i], lanes[i]));
    }
}
#endif

#if VELMORIN_AVX_LANES
// Whether this processor has AVX2, for the kernels that read small tables by lane with vpermps.
inline bool avx2LanesUsable() {
    static const bool usable = __builtin_cpu_supports("avx2");
    return usable;
}

// Entry index[l] of the 16 floats at `table`, lane by lane (each index 0 to 15).
__attribute__((target("avx2"), always_inline)) inline __m256 pickOf16(const float* table,
                                                                      __m256i index) {
    const __m256 low = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table), index);
    const __m256 high = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table + 8), index);
    const __m256 upper = _mm256_castsi256_ps(_mm256_cmpgt_epi32(index, _mm256_set1_epi32(7)));
    return _mm256_blendv_ps(low, high, upper);
}

// One coordinate of pointAtArc's result for eight places along a polyline, from a row of that
// coordinate of its points: the lerp between entries segment and segment + 1 by f, then `tip`
// where atTip and `root` where atRoot (the root first, as pointAtArc tests).
__attribute__((target("avx2"), always_inline)) inline __m256 pickedPointRow(
    const float* row, __m256i segment, __m256 f, __m256 root, __m256 tip, __m256 atRoot,
    __m256 atTip) {
    const __m256 a = pickOf16(row, segment);
    const __m256 b = pickOf16(row + 1, segment);
    const __m256 p = _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), f));
    return _mm256_blendv_ps(_mm256_blendv_ps(p, tip, atTip), root, atRoot);
}

// Eight consecutive points (24 floats, nothing past them read or written) as rows of x, y and z,
// one point per AVX lane, and back.
struct PointRows8 {
    __m256 x, y, z;
};

__attribute__((target("avx"), always_inline)) inline PointRows8 loadEightPoints(const Vec3f* p) {
    const float* f = &p[0].x;
    // [x0 y0 z0 x1 | x4 y4 z4 x5], [y1 z1 x2 y2 | y5 z5 x6 y6], [z2 x3 y3 z3 | z6 x7 y7 z7]
    const __m256 a =
        _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(f)), _mm_loadu_ps(f + 12), 1);
    const __m256 b =
        _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(f + 4)), _mm_loadu_ps(f + 16), 1);
    const __m256 c =
        _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(f + 8)), _mm_loadu_ps(f + 20), 1);
    const __m256 xy = _mm256_shuffle_ps(b, c, _MM_SHUFFLE(2, 1, 3, 2));  // x2 y2 x3 y3
    const __m256 yz = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 2, 1));  // y0 z0 y1 z1
    return {_mm256_shuffle_ps(a, xy, _MM_SHUFFLE(2, 0, 3, 0)),
            _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0)),
            _mm256_shuffle_ps(yz, c, _MM_SHUFFLE(3, 0, 3, 1))};
}

__attribute__((target("avx"), always_inline)) inline void storeEightPoints(Vec3f* p,
                                                                           PointRows8 rows) {
    const __m256 xy = _mm256_shuffle_ps(rows.x, rows.y, _MM_SHUFFLE(2, 0, 2, 0));  // x0 x2 y0 y2
    const __m256 yz = _mm256_shuffle_ps(rows.y, rows.z, _MM_SHUFFLE(3, 1, 3, 1));  // y1 y3 z1 z3
    const __m256 zx = _mm256_shuffle_ps(rows.z, rows.x, _MM_SHUFFLE(3, 1, 2, 0));  // z0 z2 x1 x3
    const __m256 a = _mm256_shuffle_ps(xy, zx, _MM_SHUFFLE(2, 0, 2, 0));           // x0 y0 z0 x1
    const __m256 b = _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));           // y1 z1 x2 y2
    const __m256 c = _mm256_shuffle_ps(zx, yz, _MM_SHUFFLE(3, 1, 3, 1));           // z2 x3 y3 z3
    float* f = &p[0].x;
    _mm256_storeu_ps(f, _mm256_permute2f128_ps(a, b, 0x20));
    _mm256_storeu_ps(f + 8, _mm256_permute2f128_ps(c, a, 0x30));
    _mm256_storeu_ps(f + 16, _mm256_permute2f128_ps(b, c, 0x31));
}

// arcLengths, bit for bit, eight segments at a time with AVX: arcs[k] the arc from the root to
// point k for k < n (n >= 1; arcs has room for 7 more, whose values are unspecified). Returns the
// length.
__attribute__((target("avx"))) inline float arcLengthsByEight(const Vec3f* points, std::size_t n,
                                                              float* arcs) {
    std::size_t k = 1;
    for (; k + 8 <= n; k += 8) {
        const PointRows8 at = loadEightPoints(points + k);
        const PointRows8 before = loadEightPoints(points + k - 1);
        const __m256 dx = _mm256_sub_ps(at.x, before.x), dy = _mm256_sub_ps(at.y, before.y);
        const __m256 dz = _mm256_sub_ps(at.z, before.z);
        _mm256_storeu_ps(arcs + k, _mm256_sqrt_ps(_mm256_add_ps(
                                       _mm256_add_ps(_mm256_mul_ps(dx, dx), _mm256_mul_ps(dy, dy)),
                                       _mm256_mul_ps(dz, dz))));
    }
    for (; k < n; ++k)
        arcs[k] = length(points[k] - points[k - 1]);
    arcs[0] = 0.0f;
    float total = 0.0f;
    for (k = 1; k < n; ++k) {
        total += arcs[k];
        arcs[k] = total;
    }
    return total;
}

// A strand's n points as rows: x[k], y[k], z[k] of point k, eight at a time where they can be.
__attribute__((target("avx"))) inline void pointRowsByEight(const Vec3f* points, std::size_t n,
                                                            float* x, float* y, float* z) {
    std::size_t k = 0;
    for (; k + 8 <= n; k += 8) {
        const PointRows8 rows = loadEightPoints(points + k);
        _mm256_storeu_ps(x + k, rows.x);
        _mm256_storeu_ps(y + k, rows.y);
        _mm256_storeu_ps(z + k, rows.z);
    }
    for (; k < n; ++k) {
        x[k] = points[k].x;
        y[k] = points[k].y;
        z[k] = points[k].z;
    }
}
#endif

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

// ScalpMesh::normalAt, bit for bit, with the triangles and vertex normals fetched once rather than
// on every call: for loops that ask for the normal of many roots.
class SmoothNormals {
  public:
    explicit SmoothNormals(const ScalpMesh* scalp)
        : scalp_(scalp),
          triangles_(scalp ? scalp->triangles().data() : nullptr),
          normals_(scalp ? scalp->vertexNormals() : std::span<const Vec3f>()) {}

    // The normal at a root on the scalp.
    Vec3f at(const StrandRoot& root) const {
        const Triangle& t = triangles_[static_cast<std::size_t>(root.face)];
        const float w0 = 1.0f - root.u - root.v;
        const Vec3f blend = normals_[t[0]] * w0 + normals_[t[1]] * root.u + normals_[t[2]] * root.v;
        const float len2 = lengthSquared(blend);
        if (len2 > 1e-20f) return blend / std::sqrt(len2);
        return scalp_->normalAt(root);
    }

  private:
    const ScalpMesh* scalp_;
    const Triangle* triangles_;
    std::span<const Vec3f> normals_;
};

// rootFrame for the strands of one chunk, which mostly come in the order of their faces: the
// scalp's U direction of the last face is kept, so that a run of roots on one face reads the
// triangle and its UVs once. The frames are rootFrame's, bit for bit.
class RootFrames {
  public:
    RootFrames(const ScalpMesh* scalp, TangentFrom from)
        : scalp_(scalp), from_(from), normals_(scalp) {}

    // The smooth normal at a root on the scalp.
    Vec3f normalAt(const StrandRoot& root) const { return normals_.at(root); }

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
    SmoothNormals normals_;
    std::int32_t face_ = -1;
    Vec3f u_;
};

}  // namespace velmorin
