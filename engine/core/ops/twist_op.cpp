#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>

#include "base/fast_trig_lanes.h"
#include "base/parallel.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/shape_kernels.h"
#include "ops/shape_ops.h"
#include "strands/channel_names.h"

namespace velmorin {

namespace {

// What each segment of the axis curves holds for the strand loop, made once before it: the unit
// tangent the points turn about and one over the segment's length, so that no point takes a
// square root or a division.
struct AxisSegments {
    std::vector<Vec3f> tangents;
    std::vector<float> inverse;
    std::vector<std::size_t> first;  // per axis: where its segments start

    // For `count` axes, the points and arcs of axis a being pointsOf(a) and arcsOf(a): the room
    // for every axis's segments first, then the segments, axes in parallel (each its own).
    template <class PointsOf, class ArcsOf>
    void make(std::size_t count, const PointsOf& pointsOf, const ArcsOf& arcsOf) {
        first.resize(count);
        std::size_t total = 0;
        for (std::size_t a = 0; a < count; ++a) {
            first[a] = total;
            total += std::max<std::size_t>(pointsOf(a).size(), 1) - 1;
        }
        tangents.resize(total);
        inverse.resize(total);
        parallelRange(0, count, 256, [&](std::size_t begin, std::size_t end) {
            for (std::size_t a = begin; a < end; ++a) {
                const std::span<const Vec3f> points = pointsOf(a);
                const std::span<const float> arcs = arcsOf(a);
                for (std::size_t k = 0; k + 1 < points.size(); ++k) {
                    tangents[first[a] + k] = normalized(points[k + 1] - points[k], {0, 1, 0});
                    const float span = arcs[k + 1] - arcs[k];
                    inverse[first[a] + k] = span > 0.0f ? 1.0f / span : 0.0f;
                }
            }
        });
    }
};

}  // namespace

namespace {

// The axis a strand twists about, with what its segments hold.
struct StrandAxis {
    std::span<const Vec3f> points;
    std::span<const float> arcs;
    const Vec3f* tangents = nullptr;
    const float* inverse = nullptr;

    // Whether the strand can twist about it: it has a segment and a length.
    bool usable() const { return points.size() >= 2 && arcs.back() > 0.0f; }
};

#if VELMORIN_SSE_LANES
// The longest strands twisted four at a time (their arcs held on the stack).
constexpr std::size_t kLanePoints = 64;

// Four strands of n points each (2 to kLanePoints), each in an SSE lane, about their usable axes:
// the steps of the one-strand loop in twistStrands, operation for operation, so the bits are the
// same. The walk along each axis is that loop's own, lane by lane. Returns false, having written
// nothing, when a strand has no length (the one-strand loop keeps it as it is). A load takes four
// floats from a point, so each `from` strand must be followed by at least one more point in its
// column. `profile` is null for a profile of no keys.
bool twistFour(const Vec3f* const from[4], Vec3f* const to[4], std::size_t n,
               const StrandAxis* axes, const float* strandTurns, const Ramp* profile) {
    using Rows = PointRows4;
    const auto load = [&](std::size_t k) { return loadPointRows(from, k); };
    // arcLengths in lanes: each segment's length, then the running sum.
    alignas(16) float arcs[4 * kLanePoints];
    __m128 total = _mm_setzero_ps();
    Rows before = load(0);
    for (std::size_t k = 1; k < n; ++k) {
        const Rows at = load(k);
        const __m128 dx = _mm_sub_ps(at.x, before.x), dy = _mm_sub_ps(at.y, before.y);
        const __m128 dz = _mm_sub_ps(at.z, before.z);
        total = _mm_add_ps(
            total, _mm_sqrt_ps(_mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)),
                                          _mm_mul_ps(dz, dz))));
        _mm_store_ps(arcs + 4 * k, total);
        before = at;
    }
    if (_mm_movemask_ps(_mm_cmpgt_ps(total, _mm_setzero_ps())) != 0xF) return false;
    const __m128 perTotal = _mm_div_ps(_mm_set1_ps(1.0f), total);
    const __m128 axisLength = _mm_setr_ps(axes[0].arcs.back(), axes[1].arcs.back(),
                                          axes[2].arcs.back(), axes[3].arcs.back());
    const __m128 turns = _mm_loadu_ps(strandTurns);
    const __m128 one = _mm_set1_ps(1.0f);
    std::size_t segments[4] = {0, 0, 0, 0};
    for (std::size_t i = 0; i < 4; ++i)
        to[i][0] = from[i][0];
    for (std::size_t k = 1; k < n; ++k) {
        // A point's place along the axis is its share of its own strand's length.
        const __m128 t = _mm_mul_ps(_mm_load_ps(arcs + 4 * k), perTotal);
        const __m128 arc = _mm_mul_ps(t, axisLength);
        alignas(16) float place[4], shares[4];
        _mm_store_ps(place, arc);
        Vec3f centers[4], tangents[4];
        for (std::size_t i = 0; i < 4; ++i) {
            centers[i] = pointAtArcByInverse(axes[i].points, axes[i].arcs, axes[i].inverse,
                                             place[i], segments[i]);
            tangents[i] = axes[i].tangents[segments[i]];
        }
        __m128 profiles = one;
        if (profile) {
            _mm_store_ps(shares, t);
            profiles = _mm_setr_ps(profile->at(shares[0]), profile->at(shares[1]),
                                   profile->at(shares[2]), profile->at(shares[3]));
        }
        __m128 sine, cosine;
        sinCosTurns4(_mm_mul_ps(_mm_mul_ps(turns, profiles), arc), sine, cosine);
        const auto lanes = [](const Vec3f* v, float Vec3f::*c) {
            return _mm_setr_ps(v[0].*c, v[1].*c, v[2].*c, v[3].*c);
        };
        const __m128 cx = lanes(centers, &Vec3f::x), cy = lanes(centers, &Vec3f::y);
        const __m128 cz = lanes(centers, &Vec3f::z);
        const __m128 ax = lanes(tangents, &Vec3f::x), ay = lanes(tangents, &Vec3f::y);
        const __m128 az = lanes(tangents, &Vec3f::z);
        const Rows at = load(k);
        const __m128 vx = _mm_sub_ps(at.x, cx), vy = _mm_sub_ps(at.y, cy);
        const __m128 vz = _mm_sub_ps(at.z, cz);
        // rotateAbout(v, axis, cosine, sine): v cos + (axis x v) sin + axis (axis . v)(1 - cos).
        const __m128 along = _mm_mul_ps(
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(ax, vx), _mm_mul_ps(ay, vy)), _mm_mul_ps(az, vz)),
            _mm_sub_ps(one, cosine));
        const auto turned = [&](__m128 v, __m128 cross, __m128 a) {
            return _mm_add_ps(_mm_add_ps(_mm_mul_ps(v, cosine), _mm_mul_ps(cross, sine)),
                              _mm_mul_ps(a, along));
        };
        const __m128 x =
            _mm_add_ps(cx, turned(vx, _mm_sub_ps(_mm_mul_ps(ay, vz), _mm_mul_ps(az, vy)), ax));
        const __m128 y =
            _mm_add_ps(cy, turned(vy, _mm_sub_ps(_mm_mul_ps(az, vx), _mm_mul_ps(ax, vz)), ay));
        const __m128 z =
            _mm_add_ps(cz, turned(vz, _mm_sub_ps(_mm_mul_ps(ax, vy), _mm_mul_ps(ay, vx)), az));
        storePointRows(to, k, {x, y, z});
    }
    return true;
}
#endif

#if VELMORIN_AVX_LANES
// The most points an axis may have for the eight-point kernel: its tables are read from two
// registers of eight.
constexpr std::size_t kTablePoints = 17;

// An axis as tables the kernel reads by lane: its points as rows of x, y and z, its arcs, and per
// segment the tangent and one over the length. Padded with zeros, never picked.
struct AxisTables {
    alignas(32) float x[32] = {}, y[32] = {}, z[32] = {}, arcs[32] = {};
    alignas(32) float inverse[32] = {}, tangentX[32] = {}, tangentY[32] = {}, tangentZ[32] = {};
    // The arcs the search for a point's segment compares with: entry j is arcs[j] for the inner
    // points (1 to the last but one), and infinity past them, so that the entries rise and the
    // count of those below a place is found in four halvings. `odd` holds entries 1, 3 ... 15,
    // `twoPastFour` entries 2, 6, 10 and 14.
    alignas(32) float odd[8] = {}, twoPastFour[8] = {};
    float four = 0.0f, eight = 0.0f, twelve = 0.0f;
    const Vec3f* made = nullptr;  // the axis these were made for

    void fill(const StrandAxis& axis) {
        made = axis.points.data();
        const std::size_t lastAxis = axis.points.size() - 1;
        const auto inner = [&](std::size_t j) { return j < lastAxis ? axis.arcs[j] : INFINITY; };
        for (std::size_t i = 0; i < 8; ++i) {
            odd[i] = inner(2 * i + 1);
            twoPastFour[i] = i < 4 ? inner(4 * i + 2) : INFINITY;
        }
        four = inner(4);
        eight = inner(8);
        twelve = inner(12);
        for (std::size_t k = 0; k < axis.points.size(); ++k) {
            x[k] = axis.points[k].x;
            y[k] = axis.points[k].y;
            z[k] = axis.points[k].z;
            arcs[k] = axis.arcs[k];
        }
        for (std::size_t k = 0; k + 1 < axis.points.size(); ++k) {
            inverse[k] = axis.inverse[k];
            tangentX[k] = axis.tangents[k].x;
            tangentY[k] = axis.tangents[k].y;
            tangentZ[k] = axis.tangents[k].z;
        }
    }
};

// Whether the eight-point kernel can take a strand about this axis: a usable axis of at most
// kTablePoints points and finite length, whose arcs then rise, as the count of segments needs.
bool tablesFit(const StrandAxis& axis) {
    return axis.usable() && axis.points.size() <= kTablePoints && std::isfinite(axis.arcs.back());
}

// Lane l of the result: the largest of lanes 0 to l of v, and of `carry`.
__attribute__((target("avx2"), always_inline)) inline __m256i runningMax(__m256i v, __m256i carry) {
    v = _mm256_max_epi32(v,
                         _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 0, 1, 2, 3, 4, 5, 6)));
    v = _mm256_max_epi32(v,
                         _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 0, 0, 1, 2, 3, 4, 5)));
    v = _mm256_max_epi32(v,
                         _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(0, 0, 0, 0, 0, 1, 2, 3)));
    return _mm256_max_epi32(v, carry);
}

// One coordinate of rotateAbout in eight lanes: v cos + (axis x v) sin + axis (axis . v)(1 - cos),
// with `along` the last product.
__attribute__((target("avx"), always_inline)) inline __m256 turnedRow(__m256 v, __m256 cross,
                                                                      __m256 a, __m256 cosine,
                                                                      __m256 sine, __m256 along) {
    return _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(v, cosine), _mm256_mul_ps(cross, sine)),
                         _mm256_mul_ps(a, along));
}

// The one-strand loop of twistStrands for a strand of n >= 2 points and positive, finite length
// (arcs[k] its arc to point k, with at least 7 entries past the strand), points 1 to n - 1 eight
// at a time, with the same operations per point. The walk along the axis becomes a count of the
// axis points whose arc lies below the point's place; a point at or past either end of the axis,
// where the walk returns early and stays where it was, takes the segment of the point before it
// (the running largest of the counts, which rise along the strand). `profile` is null for a
// profile of no keys.
struct EightPointWalk {
    const Vec3f* from = nullptr;
    Vec3f* to = nullptr;
    std::size_t n = 0;
    const float* arcs = nullptr;
    const AxisTables* tables = nullptr;
    std::size_t lastAxis = 0;
    float perTotal = 0.0f, axisLength = 0.0f, turns = 0.0f;
    const Ramp* profile = nullptr;
    __m256i carry = {};

    EightPointWalk() = default;
    EightPointWalk(const Vec3f* from_, Vec3f* to_, std::size_t n_, const float* arcs_,
                   const AxisTables& tables_, std::size_t axisPoints, float axisLength_,
                   float turns_, const Ramp* profile_)
        : from(from_),
          to(to_),
          n(n_),
          arcs(arcs_),
          tables(&tables_),
          lastAxis(axisPoints - 1),
          perTotal(1.0f / arcs_[n_ - 1]),
          axisLength(axisLength_),
          turns(turns_),
          profile(profile_),
          carry() {}

    // Points k to k + 7 (those of them the strand has).
    __attribute__((target("avx2"), always_inline)) inline void step(std::size_t k) {
        const AxisTables& axis = *tables;
        const __m256 zero = _mm256_setzero_ps(), one = _mm256_set1_ps(1.0f);
        const std::size_t count = std::min<std::size_t>(8, n - k);
        // A point's place along the axis is its share of its own strand's length.
        const __m256 t = _mm256_mul_ps(_mm256_loadu_ps(arcs + k), _mm256_set1_ps(perTotal));
        const __m256 place = _mm256_mul_ps(t, _mm256_set1_ps(axisLength));
        // The count of inner axis points whose arc lies below the place: as the arcs rise, the
        // last of them below it, found by halving 16 entries.
        const __m256 past8 = _mm256_cmp_ps(_mm256_set1_ps(axis.eight), place, _CMP_LT_OQ);
        __m256i passed = _mm256_and_si256(_mm256_castps_si256(past8), _mm256_set1_epi32(8));
        const __m256 at4 =
            _mm256_blendv_ps(_mm256_set1_ps(axis.four), _mm256_set1_ps(axis.twelve), past8);
        passed = _mm256_add_epi32(
            passed, _mm256_and_si256(_mm256_castps_si256(_mm256_cmp_ps(at4, place, _CMP_LT_OQ)),
                                     _mm256_set1_epi32(4)));
        const __m256 at2 = _mm256_permutevar8x32_ps(_mm256_load_ps(axis.twoPastFour),
                                                    _mm256_srli_epi32(passed, 2));
        passed = _mm256_add_epi32(
            passed, _mm256_and_si256(_mm256_castps_si256(_mm256_cmp_ps(at2, place, _CMP_LT_OQ)),
                                     _mm256_set1_epi32(2)));
        const __m256 at1 =
            _mm256_permutevar8x32_ps(_mm256_load_ps(axis.odd), _mm256_srli_epi32(passed, 1));
        passed = _mm256_add_epi32(
            passed, _mm256_and_si256(_mm256_castps_si256(_mm256_cmp_ps(at1, place, _CMP_LT_OQ)),
                                     _mm256_set1_epi32(1)));
        const __m256 atRoot = _mm256_cmp_ps(place, zero, _CMP_LE_OQ);
        const __m256 atTip = _mm256_cmp_ps(place, _mm256_set1_ps(axis.arcs[lastAxis]), _CMP_GE_OQ);
        const __m256i early = _mm256_castps_si256(_mm256_or_ps(atRoot, atTip));
        const __m256i segment = runningMax(_mm256_andnot_si256(early, passed), carry);
        carry =
            _mm256_permutevar8x32_epi32(segment, _mm256_set1_epi32(static_cast<int>(count) - 1));
        // pointAtArcByInverse: f = (s - arcs[segment]) * inverse[segment], clamped to 0-1 as
        // std::clamp does, the lerp, and the ends where the walk returns early.
        __m256 f = _mm256_mul_ps(_mm256_sub_ps(place, pickOf16(axis.arcs, segment)),
                                 pickOf16(axis.inverse, segment));
        f = _mm256_blendv_ps(f, zero, _mm256_cmp_ps(f, zero, _CMP_LT_OQ));
        f = _mm256_blendv_ps(f, one, _mm256_cmp_ps(one, f, _CMP_LT_OQ));
        const __m256 cx = pickedPointRow(axis.x, segment, f, _mm256_set1_ps(axis.x[0]),
                                         _mm256_set1_ps(axis.x[lastAxis]), atRoot, atTip);
        const __m256 cy = pickedPointRow(axis.y, segment, f, _mm256_set1_ps(axis.y[0]),
                                         _mm256_set1_ps(axis.y[lastAxis]), atRoot, atTip);
        const __m256 cz = pickedPointRow(axis.z, segment, f, _mm256_set1_ps(axis.z[0]),
                                         _mm256_set1_ps(axis.z[lastAxis]), atRoot, atTip);
        const __m256 ax = pickOf16(axis.tangentX, segment), ay = pickOf16(axis.tangentY, segment);
        const __m256 az = pickOf16(axis.tangentZ, segment);
        __m256 profiles = one;
        if (profile) {
            alignas(32) float shares[8], values[8];
            _mm256_store_ps(shares, t);
            for (std::size_t l = 0; l < 8; ++l)
                values[l] = l < count ? profile->at(shares[l]) : 1.0f;
            profiles = _mm256_load_ps(values);
        }
        __m256 sine, cosine;
        sinCosTurns8(_mm256_mul_ps(_mm256_mul_ps(_mm256_set1_ps(turns), profiles), place), sine,
                     cosine);
        // Eight points read whole where the strand has them, else through a padded copy.
        Vec3f padded[8];
        const bool whole = count == 8;
        if (!whole) {
            for (std::size_t l = 0; l < 8; ++l)
                padded[l] = from[k + std::min(l, count - 1)];
        }
        const PointRows8 at = loadEightPoints(whole ? from + k : padded);
        const __m256 vx = _mm256_sub_ps(at.x, cx), vy = _mm256_sub_ps(at.y, cy);
        const __m256 vz = _mm256_sub_ps(at.z, cz);
        const __m256 along =
            _mm256_mul_ps(_mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(ax, vx), _mm256_mul_ps(ay, vy)),
                                        _mm256_mul_ps(az, vz)),
                          _mm256_sub_ps(one, cosine));
        const __m256 crossX = _mm256_sub_ps(_mm256_mul_ps(ay, vz), _mm256_mul_ps(az, vy));
        const __m256 crossY = _mm256_sub_ps(_mm256_mul_ps(az, vx), _mm256_mul_ps(ax, vz));
        const __m256 crossZ = _mm256_sub_ps(_mm256_mul_ps(ax, vy), _mm256_mul_ps(ay, vx));
        const PointRows8 twisted = {
            _mm256_add_ps(cx, turnedRow(vx, crossX, ax, cosine, sine, along)),
            _mm256_add_ps(cy, turnedRow(vy, crossY, ay, cosine, sine, along)),
            _mm256_add_ps(cz, turnedRow(vz, crossZ, az, cosine, sine, along))};
        if (whole) {
            storeEightPoints(to + k, twisted);
        } else {
            storeEightPoints(padded, twisted);
            std::copy(padded, padded + count, to + k);
        }
    }
};

// One strand's walk, eight points at a time.
__attribute__((target("avx2"))) void twistEight(EightPointWalk& walk) {
    walk.to[0] = walk.from[0];
    for (std::size_t k = 1; k < walk.n; k += 8)
        walk.step(k);
}

// Two strands' walks side by side, so that the steps of one fill the waits of the other: a strand
// of a few points is one long chain of steps, each waiting on the one before.
__attribute__((target("avx2"))) void twistEightPair(EightPointWalk& a, EightPointWalk& b) {
    a.to[0] = a.from[0];
    b.to[0] = b.from[0];
    std::size_t k = 1;
    for (; k < a.n && k < b.n; k += 8) {
        a.step(k);
        b.step(k);
    }
    for (std::size_t j = k; j < a.n; j += 8)
        a.step(j);
    for (std::size_t j = k; j < b.n; j += 8)
        b.step(j);
}
#endif

}  // namespace

void twistStrands(const StrandSet& input, const TwistSettings& settings,
                  const StrandSelection& selection, std::span<Vec3f> out) {
    const bool turnsMapped = settings.turns.isMapped();
    const float plainTurns = settings.turns.value();
    const bool flatProfile = settings.profile.keys.empty();
    const std::span<const std::uint64_t> offsets = input.offsets();
    const std::span<const Vec3f> inputPoints = input.points();
    // The arcs along every axis curve and what its segments hold, once, before the strand loop.
    std::vector<std::vector<float>> guideArcs;
    AxisSegments segments;
    if (settings.axes) {
        const std::vector<Guide>& guides = settings.axes->guides;
        for (const Guide& guide : guides) {
            guideArcs.emplace_back(guide.points.size());
            arcLengths(guide.points, guideArcs.back());
        }
        segments.make(
            guides.size(), [&](std::size_t g) { return std::span<const Vec3f>(guides[g].points); },
            [&](std::size_t g) { return std::span<const float>(guideArcs[g]); });
    } else if (settings.clumps) {
        const ClumpAxes& clumps = *settings.clumps;
        segments.make(
            clumps.clumpCount, [&](std::size_t c) { return clumps.axisPoints(c); },
            [&](std::size_t c) { return clumps.axisArcs(c); });
    }
    // The axis of strand s, whose root is `root`.
    const auto axisOf = [&](std::size_t s, const Vec3f& root) {
        StrandAxis axis;
        std::size_t axisIndex = 0;
        if (settings.axes) {
            // The axis curve whose root lies nearest this strand's.
            float nearest = INFINITY;
            for (std::size_t g = 0; g < settings.axes->guides.size(); ++g) {
                const std::vector<Vec3f>& curve = settings.axes->guides[g].points;
                if (curve.empty()) continue;
                const float d = lengthSquared(curve[0] - root);
                if (d < nearest) {
                    nearest = d;
                    axis.points = curve;
                    axis.arcs = guideArcs[g];
                    axisIndex = g;
                }
            }
        } else if (settings.clumps) {
            axisIndex = settings.clumps->clumpOf[s];
            axis.points = settings.clumps->axisPoints(axisIndex);
            axis.arcs = settings.clumps->axisArcs(axisIndex);
        }
        if (!axis.points.empty()) {
            axis.tangents = segments.tangents.data() + segments.first[axisIndex];
            axis.inverse = segments.inverse.data() + segments.first[axisIndex];
        }
        return axis;
    };

#if VELMORIN_AVX_LANES
    const bool wide = avx2LanesUsable();
#endif
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        StrandScratch<float> arcScratch, angleScratch, sineScratch, cosineScratch;
        StrandScratch<Vec3f> centerScratch;
        StrandScratch<std::uint32_t> segmentScratch;
        const auto twistOne = [&](std::size_t s) {
            const std::size_t begin = offsets[s];
            const std::size_t n = offsets[s + 1] - begin;
            const std::span<const Vec3f> points = inputPoints.subspan(begin, n);
            Vec3f* const twisted = out.data() + begin;
            const auto keep = [&] { std::copy(points.begin(), points.end(), twisted); };
            if (n < 2) {
                keep();
                return;
            }
            const StrandAxis axis = axisOf(s, points[0]);
            if (axis.points.size() < 2 || !(axis.arcs.back() > 0.0f)) {
                keep();
                return;
            }
            const std::span<float> arcs = arcScratch.take(n);
            const float total = arcLengthsByLanes(points, arcs);
            if (!(total > 0.0f)) {
                keep();
                return;
            }
            const float perTotal = 1.0f / total;
            const float turns = turnsMapped ? settings.turns.atStrand(s) : plainTurns;
            const float axisLength = axis.arcs.back();
            // First where each point's centre lies on the axis and by how much it turns, then
            // the sines and cosines of all the turns together, then the turns themselves.
            const std::span<Vec3f> centers = centerScratch.take(n);
            const std::span<std::uint32_t> along = segmentScratch.take(n);
            const std::span<float> angles = angleScratch.take(n);
            std::size_t segment = 0;
            for (std::size_t k = 1; k < n; ++k) {
                // A point's place along the axis is its share of its own strand's length.
                const float t = arcs[k] * perTotal;
                const float arc = t * axisLength;
                centers[k] =
                    pointAtArcByInverse(axis.points, axis.arcs, axis.inverse, arc, segment);
                along[k] = static_cast<std::uint32_t>(segment);
                const float profile = flatProfile ? 1.0f : settings.profile.at(t);
                angles[k] = turns * profile * arc;
            }
            const std::span<float> sines = sineScratch.take(n);
            const std::span<float> cosines = cosineScratch.take(n);
            sinCosTurnsMany(angles.data() + 1, sines.data() + 1, cosines.data() + 1, n - 1);
            twisted[0] = points[0];
            for (std::size_t k = 1; k < n; ++k)
                twisted[k] =
                    centers[k] + rotateAbout(points[k] - centers[k], axis.tangents[along[k]],
                                             cosines[k], sines[k]);
        };
#if VELMORIN_AVX_LANES
        if (wide) {
            // Each strand eight points at a time about its axis's tables, made again only where
            // the axis changes (clumps come grouped); the one-strand loop for what they can't take.
            // Strands go in pairs, each side with its own tables and arcs: a strand ready to
            // twist waits for the next one.
            AxisTables tables[2];
            StrandScratch<float> pairArcs[2];
            EightPointWalk waiting;
            bool isWaiting = false;
            int side = 0;
            for (std::size_t i = first; i < last; ++i) {
                const std::size_t s = selection.strand(i);
                const std::size_t begin = offsets[s];
                const std::size_t n = offsets[s + 1] - begin;
                if (n < 2) {
                    twistOne(s);
                    continue;
                }
                const std::span<const Vec3f> points = inputPoints.subspan(begin, n);
                const StrandAxis axis = axisOf(s, points[0]);
                if (!tablesFit(axis)) {
                    twistOne(s);
                    continue;
                }
                const std::span<float> arcs = pairArcs[side].take(n + 7);
                const float total = arcLengthsByEight(points.data(), n, arcs.data());
                if (!(total > 0.0f) || !std::isfinite(total)) {
                    twistOne(s);
                    continue;
                }
                std::fill(arcs.begin() + n, arcs.end(), total);
                if (tables[side].made != axis.points.data()) tables[side].fill(axis);
                EightPointWalk walk(points.data(), out.data() + begin, n, arcs.data(), tables[side],
                                    axis.points.size(), axis.arcs.back(),
                                    turnsMapped ? settings.turns.atStrand(s) : plainTurns,
                                    flatProfile ? nullptr : &settings.profile);
                if (isWaiting) {
                    twistEightPair(waiting, walk);
                } else {
                    waiting = walk;
                }
                isWaiting = !isWaiting;
                side = 1 - side;
            }
            if (isWaiting) twistEight(waiting);
            return;
        }
#endif
        for (std::size_t i = first; i < last;) {
#if VELMORIN_SSE_LANES
            // Four strands of one length side by side, each about a usable axis, when the last of
            // them is followed by another point in the column (a lane reads four floats of a
            // point).
            if (i + 4 <= last) {
                const Vec3f* from4[4];
                Vec3f* to4[4];
                StrandAxis axes4[4];
                float turns4[4];
                const std::size_t n =
                    offsets[selection.strand(i) + 1] - offsets[selection.strand(i)];
                bool alike = n >= 2 && n <= kLanePoints;
                std::size_t lastEnd = 0;
                for (std::size_t j = 0; j < 4 && alike; ++j) {
                    const std::size_t s = selection.strand(i + j);
                    alike = offsets[s + 1] - offsets[s] == n;
                    if (!alike) break;
                    from4[j] = inputPoints.data() + offsets[s];
                    to4[j] = out.data() + offsets[s];
                    lastEnd = std::max(lastEnd, static_cast<std::size_t>(offsets[s + 1]));
                    axes4[j] = axisOf(s, from4[j][0]);
                    alike = axes4[j].usable();
                    turns4[j] = turnsMapped ? settings.turns.atStrand(s) : plainTurns;
                }
                if (alike && lastEnd < inputPoints.size()) {
                    if (!twistFour(from4, to4, n, axes4, turns4,
                                   flatProfile ? nullptr : &settings.profile)) {
                        for (std::size_t j = 0; j < 4; ++j)
                            twistOne(selection.strand(i + j));
                    }
                    i += 4;
                    continue;
                }
            }
#endif
            twistOne(selection.strand(i));
            ++i;
        }
    });
}

namespace {

// Twists strands around a lock or clump: ropes, twisted locks.
class TwistOp final : public ShapeOperator {
  public:
    std::string type() const override { return "Twist"; }
    std::string category() const override { return "look"; }
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"axes", PortType::Guides, true}};
    }
    std::vector<ParamSpec> params() const override {
        ParamSpec turns = shapeParam("turns", 1.0,
                                     "Turns around the axis per unit of its length; negative turns "
                                     "the other way (mappable)");
        turns.softMin = -2.0;
        turns.softMax = 2.0;
        ParamSpec channel = shapeParam(
            "clumpChannel", std::string("clumpId"),
            "With nothing on the axes input: strands sharing this channel (a Clump's "
            "clumpChannel) twist around their core strands' mean (those every preview holds). "
            "Unused while axes are connected");
        channel.channel = ChannelRole::Reads;
        channel.channelOptional = true;
        channel.animatable = false;
        return {turns, profileParam("How much of the twist along the length, root to tip"),
                channel};
    }

    // Keeps the axes of the last clumps along with a weak hold on the set they were made from.
    void copyStateFrom(const Operator& other) override {
        const auto* source = dynamic_cast<const TwistOp*>(&other);
        if (!source) return;
        KeptAxes kept;
        {
            std::lock_guard<std::mutex> lock(source->mutex_);
            kept = source->kept_;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        kept_ = std::move(kept);
    }

    // The clump axes of the last run that made or kept them; null before one.
    std::shared_ptr<const ClumpAxes> keptAxes() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return kept_.axes;
    }

  private:
    // The axes of the last run's clumps and the set they were made from, held weakly so that the
    // set's columns stay free to be taken over in place upstream. While that set lives, an input
    // that shares its points, offsets, clump channel and preview channel has the same clumps and
    // axes (shared columns are never written), so a drag of turns or a change to other channels
    // makes no axes again.
    struct KeptAxes {
        std::weak_ptr<const StrandSet> from;
        std::string channel;
        std::shared_ptr<const ClumpAxes> axes;
    };

    std::shared_ptr<const ClumpAxes> axesFor(const std::shared_ptr<const StrandSet>& input,
                                             const std::string& channel,
                                             const std::vector<float>& ids) const {
        KeptAxes kept;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            kept = kept_;
        }
        if (const auto from = kept.from.lock(); from && kept.channel == channel) {
            const bool same =
                from->columnData(ColumnId::kPoints) == input->columnData(ColumnId::kPoints) &&
                from->columnData(ColumnId::kOffsets) == input->columnData(ColumnId::kOffsets) &&
                from->strandChannel(channel) == &ids &&
                from->strandChannel(channels::kPreview) == input->strandChannel(channels::kPreview);
            if (same) return kept.axes;
        }
        auto axes = std::make_shared<const ClumpAxes>(clumpAxes(*input, ids));
        std::lock_guard<std::mutex> lock(mutex_);
        kept_ = {input, channel, axes};
        return axes;
    }

    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return runInPlace(inputs, incremental, false, {}, {}, out, changes);
        TwistSettings settings;
        settings.turns = fieldSampler(paramSet, ctx, "turns", *input);
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        const auto axes = inputs.size() > 1 ? inputs[1].get<GuideSet>() : nullptr;
        std::shared_ptr<const ClumpAxes> clumps;
        WidenChanges widen;
        if (axes) {
            settings.axes = axes.get();
        } else {
            const std::string channel = paramSet.getString("clumpChannel", "clumpId");
            const std::vector<float>* ids = input->strandChannel(channel);
            if (!ids)
                throw GraphError("Twist: connect axes (guides), or put a Clump before it (no '" +
                                 channel + "' channel to find the clumps)");
            // A strand that moved to another clump changes its old clump's axis too; the previous
            // result's channel would be needed to find that clump, so such a change runs in full.
            if (incremental && !clumpsKept(*ids, channel, *incremental)) return false;
            clumps = axesFor(input, channel, *ids);
            settings.clumps = clumps.get();
            // A changed strand moves its clump's axis, and with it every strand of the clump.
            widen = [&clumps](std::span<const std::uint64_t> changed) {
                return strandsOfClumps(*clumps, changed);
            };
        }
        return reshapePoints(inputs, incremental, mapsReadOnlyTheirStrand(paramSet, ctx, {"turns"}),
                             &twistStrands, settings, out, changes, widen);
    }

    mutable std::mutex mutex_;
    mutable KeptAxes kept_;
};

}  // namespace

std::shared_ptr<const ClumpAxes> twistAxesOf(const Operator& op) {
    const auto* twist = dynamic_cast<const TwistOp*>(&op);
    return twist ? twist->keptAxes() : nullptr;
}

void registerTwistOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description = "Twists strands around a lock or clump: ropes, twisted locks.";
    info.keywords = "rope twisted locks";
    registry.registerType(
        "Twist", [] { return std::make_unique<TwistOp>(); }, info);
}

}  // namespace velmorin
