#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "editing/flow.h"
#include "fields/field_scene.h"
#include "graph/graph.h"
#include "graph/registry.h"
#include "graph/test/eval_operators.h"
#include "mesh/sample_meshes.h"
#include "ops/shape_ops.h"
#include "ops/test/shape_checks.h"
#include "strands/strand_changes.h"
#include "strands/test/test_strands.h"

namespace velmorin {
namespace {

using Points = std::vector<Vec3f>;

// The flat scalp of these tests: the XZ plane facing +Y, U along +X, V along -Z.
std::shared_ptr<const ScalpMesh> plane() {
    static const auto mesh = makeUvPlane(4.0f, 2);
    return mesh;
}
std::shared_ptr<const ScalpMesh> planeWithoutUvs() {
    static const auto mesh = [] {
        auto bare = std::make_shared<ScalpMesh>(*plane());
        bare->setUvs({});
        return std::shared_ptr<const ScalpMesh>(bare);
    }();
    return mesh;
}
std::shared_ptr<const ScalpMesh> head() {
    static const auto mesh = makeHeadScalp(1);
    return mesh;
}

// Strands rooted at the plane's origin (ids 1, 2, ...), one per list of points.
StrandSet strandsAtOrigin(const std::vector<Points>& strands) {
    const StrandRoot root = plane()->closestPoint({0.0f, 0.0f, 0.0f}).root;
    StrandSet set;
    std::uint64_t id = 1;
    for (const Points& points : strands)
        set.addStrand(id++, root, points);
    return set;
}

float cosd(float degrees) {
    return std::cos(degrees * kDegrees);
}
float sind(float degrees) {
    return std::sin(degrees * kDegrees);
}

// Runs a kernel over every strand of `input` and gives back the resulting points.
template <class Kernel>
Points runKernel(const StrandSet& input, Kernel kernel) {
    Points points(input.points().begin(), input.points().end());
    kernel(input, std::span<Vec3f>(points));
    return points;
}

Points bent(const StrandSet& input, const BendSettings& settings) {
    return runKernel(input, [&](const StrandSet& in, std::span<Vec3f> out) {
        bendStrands(in, settings, StrandSelection::every(), out);
    });
}

BendSettings bend(float angle, float start, float end, BendAlong along = BendAlong::Normal) {
    BendSettings settings;
    settings.angle = FieldSampler(angle);
    settings.start = start;
    settings.end = end;
    settings.along = along;
    settings.scalp = plane().get();
    return settings;
}

const Points kLying = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
const Points kStanding = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}};

TEST(Bend, TurnsEachSegmentByTheShareOfTheBendAtItsMiddle) {
    const StrandSet lying = strandsAtOrigin({kLying});
    // Toward the normal (+Y) about +Z: the first segment's middle is a quarter along, the second's
    // three quarters.
    test::expectPointsNear(
        bent(lying, bend(60.0f, 0.0f, 1.0f)),
        {{0, 0, 0}, {cosd(15), sind(15), 0}, {cosd(15) + cosd(45), sind(15) + sind(45), 0}});
    // Start and end 0 turn every segment wholly: 180 stops at the normal and stands it up.
    test::expectPointsNear(bent(lying, bend(180.0f, 0.0f, 0.0f)), kStanding);
    test::expectPointsNear(bent(lying, bend(90.0f, 0.0f, 0.0f)), kStanding);
    // Past the end the strand holds its shape: only the first segment (middle at 0.25) turns.
    test::expectPointsNear(
        bent(lying, bend(40.0f, 0.0f, 0.5f)),
        {{0, 0, 0}, {cosd(20), sind(20), 0}, {cosd(20) + cosd(40), sind(20) + sind(40), 0}});
    // Negative: away from the normal, down onto the scalp, and no further than the tangent plane.
    const StrandSet leaning = strandsAtOrigin({{{0, 0, 0}, {0, 1, 1}}});
    test::expectPointsNear(bent(leaning, bend(-90.0f, 0.0f, 0.0f)),
                           {{0, 0, 0}, {0, 0, std::sqrt(2.0f)}});
}

TEST(Bend, StandingStrandsLieDownOnlyOntoTheScalp) {
    const StrandSet standing = strandsAtOrigin({kStanding});
    // Already along the normal: nothing to bend toward.
    test::expectPointsNear(bent(standing, bend(45.0f, 0.0f, 0.0f)), kStanding);
    // Away from it, about the binormal, and never below the tangent plane.
    for (const float angle : {-90.0f, -150.0f}) {
        const Points down = bent(standing, bend(angle, 0.0f, 0.0f));
        EXPECT_NEAR(down[1].y, 0.0f, 1e-5f);
        EXPECT_NEAR(down[2].y, 0.0f, 1e-5f);
        EXPECT_NEAR(length(down[2]), 2.0f, 1e-5f);
    }
}

TEST(Bend, CombsTowardADirectionOrTheScalpsU) {
    const StrandSet standing = strandsAtOrigin({kStanding});
    BendSettings comb = bend(90.0f, 0.0f, 0.0f, BendAlong::Direction);
    comb.direction.setPlainVector({0.0f, 3.0f, -2.0f});  // laid on the scalp: -Z
    test::expectPointsNear(bent(standing, comb), {{0, 0, 0}, {0, 0, -1}, {0, 0, -2}});
    // Negative combs away from it, and may pass the scalp: -90 of 90 turns it onto +Z.
    comb.angle = FieldSampler(-120.0f);
    test::expectPointsNear(bent(standing, comb), {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}});
    // A direction along the normal lays onto nothing.
    comb.direction.setPlainVector({0.0f, -1.0f, 0.0f});
    test::expectPointsNear(bent(standing, comb), kStanding);

    // Tangent: the scalp's U (+X), or without UVs the direction.
    BendSettings tangent = bend(90.0f, 0.0f, 0.0f, BendAlong::Tangent);
    tangent.direction.setPlainVector({0.0f, 0.0f, 1.0f});
    test::expectPointsNear(bent(standing, tangent), {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}});
    tangent.scalp = planeWithoutUvs().get();
    test::expectPointsNear(bent(standing, tangent), {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}});
}

TEST(Bend, RandomnessScalesEachStrandsAngleDownByItsDraw) {
    const StrandSet lying = strandsAtOrigin({kLying, kLying, kLying});
    BendSettings settings = bend(80.0f, 0.0f, 0.0f);
    settings.randomness = 0.5f;
    settings.seed = 9;
    const Points points = bent(lying, settings);
    for (std::uint64_t id = 1; id <= 3; ++id) {
        const float degrees = 80.0f * (1.0f - 0.5f * unitFloat(hashCombine(id, 9)));
        const std::size_t tip = (id - 1) * 3 + 2;
        EXPECT_NEAR(points[tip].x, 2.0f * cosd(degrees), 1e-5f) << id;
        EXPECT_NEAR(points[tip].y, 2.0f * sind(degrees), 1e-5f) << id;
    }
}

Points directed(const StrandSet& input, const DirectionSettings& settings) {
    return runKernel(input, [&](const StrandSet& in, std::span<Vec3f> out) {
        directStrands(in, settings, StrandSelection::every(), out);
    });
}

DirectionSettings direct(float inclination, float roll, float strength = 1.0f) {
    DirectionSettings settings;
    settings.inclination = FieldSampler(inclination);
    settings.roll = FieldSampler(roll);
    settings.strength = FieldSampler(strength);
    settings.scalp = plane().get();
    return settings;
}

TEST(Direction, TurnsWholeStrandsToInclinationAndRoll) {
    // A bent strand: its first segment stands, so the whole strand turns rigidly about its root.
    const Points hooked = {{0, 0, 0}, {0, 1, 0}, {1, 1, 0}};
    const StrandSet strand = strandsAtOrigin({hooked});
    struct Case {
        float inclination, roll, strength;
        Points expected;
    };
    const float h = std::sqrt(0.5f);
    const std::vector<Case> cases = {
        {0, 0, 1, hooked},                                     // already straight out
        {90, 0, 1, {{0, 0, 0}, {1, 0, 0}, {1, -1, 0}}},        // flat along U (+X)
        {90, 90, 1, {{0, 0, 0}, {0, 0, 1}, {1, 0, 1}}},        // rolled onto the binormal (+Z)
        {90, 0, 0.5f, {{0, 0, 0}, {h, h, 0}, {2 * h, 0, 0}}},  // half the turn
        {60, 0, 0, hooked},                                    // strength 0 changes nothing
        {30,
         180,
         1,
         {{0, 0, 0}, {-sind(30), cosd(30), 0}, {-sind(30) + cosd(30), cosd(30) + sind(30), 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.inclination << " " << c.roll << " " << c.strength);
        test::expectPointsNear(directed(strand, direct(c.inclination, c.roll, c.strength)),
                               c.expected);
    }
}

TEST(Direction, RollZeroFollowsTheDirectionOrUAndRandomnessAddsSignedDraws) {
    const StrandSet standing = strandsAtOrigin({kStanding});
    DirectionSettings settings = direct(90.0f, 90.0f);
    settings.alongU = false;
    settings.direction = {0.0f, 5.0f, -1.0f};  // laid: -Z, so roll 90 points along -Z x Y = +X
    test::expectPointsNear(directed(standing, settings), {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}});
    settings.direction = {0.0f, 1.0f, 0.0f};  // along the normal: no roll 0, no turn
    test::expectPointsNear(directed(standing, settings), kStanding);
    // Without UVs the tangent is the direction's.
    DirectionSettings bare = direct(90.0f, 0.0f);
    bare.scalp = planeWithoutUvs().get();
    bare.direction = {0.0f, 0.0f, 1.0f};
    test::expectPointsNear(directed(standing, bare), {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}});

    DirectionSettings random = direct(40.0f, 0.0f);
    random.inclinationRandom = 20.0f;
    random.rollRandom = 30.0f;
    random.seed = 4;
    const StrandSet two = strandsAtOrigin({kStanding, kStanding});
    const Points points = directed(two, random);
    for (std::uint64_t id = 1; id <= 2; ++id) {
        const std::uint64_t first = hashCombine(id, 4);
        const float inclination = 40.0f + 20.0f * (2.0f * unitFloat(first) - 1.0f);
        const float roll = 30.0f * (2.0f * unitFloat(hashCombine(first, 1)) - 1.0f);
        const Vec3f tip = points[(id - 1) * 3 + 2];
        EXPECT_NEAR(tip.y, 2.0f * cosd(inclination), 1e-5f);
        EXPECT_NEAR(tip.x, 2.0f * sind(inclination) * cosd(roll), 1e-5f);
        EXPECT_NEAR(tip.z, 2.0f * sind(inclination) * sind(roll), 1e-5f);
    }
}

Points transformed(const StrandSet& input, const TransformSettings& settings) {
    return runKernel(input, [&](const StrandSet& in, std::span<Vec3f> out) {
        transformStrands(in, settings, StrandSelection::every(), out);
    });
}

// One triangle facing +X with U along +Y: a root frame of x = +Y, y = +X, z = -Z.
std::shared_ptr<const ScalpMesh> wall() {
    static const auto mesh = [] {
        auto made = std::make_shared<ScalpMesh>(
            std::vector<Vec3f>{{0, 0, 0}, {0, 0, -1}, {0, 1, 0}}, std::vector<Triangle>{{0, 1, 2}});
        made->setUvs({{0, 0}, {0, 1}, {1, 0}});
        return std::shared_ptr<const ScalpMesh>(made);
    }();
    return mesh;
}

TEST(Transform, StrandSpaceWorksInTheRootsFrameAndWorldSpaceAboutThePivot) {
    StrandSet strand;
    strand.addStrand(1, {0, 0.0f, 0.0f}, Points{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}});
    struct Case {
        bool world;
        Vec3f translate, rotate;
        float scale;
        Vec3f pivot;
        Points expected;
    };
    const std::vector<Case> cases = {
        // Strand: translate x moves along U (+Y), and the root moves with it.
        {false, {1, 0, 0}, {}, 1, {}, {{0, 1, 0}, {1, 1, 0}, {1, 2, 0}}},
        // Strand: 90 about the frame's z (-Z) takes the normal (+X) onto -U (-Y).
        {false, {}, {0, 0, 90}, 1, {}, {{0, 0, 0}, {0, -1, 0}, {1, -1, 0}}},
        {false, {}, {}, 2, {}, {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}}},
        // World: 90 about Z through the pivot; x first, then y: (0, 1, 0) goes to Z, then to X.
        {true, {}, {0, 0, 90}, 1, {}, {{0, 0, 0}, {0, 1, 0}, {-1, 1, 0}}},
        {true, {}, {90, 90, 0}, 1, {}, {{0, 0, 0}, {0, 0, -1}, {1, 0, -1}}},
        {true, {0, 0, 3}, {}, 0.5f, {1, 0, 0}, {{0.5f, 0, 3}, {1, 0, 3}, {1, 0.5f, 3}}},
    };
    for (const Case& c : cases) {
        TransformSettings settings;
        settings.world = c.world;
        settings.translate = c.translate;
        settings.rotate = c.rotate;
        settings.scale = FieldSampler(c.scale);
        settings.pivot = c.pivot;
        settings.scalp = wall().get();
        SCOPED_TRACE(testing::Message() << (c.world ? "world " : "strand ") << c.rotate.x << " "
                                        << c.rotate.y << " " << c.rotate.z);
        test::expectPointsNear(transformed(strand, settings), c.expected);
    }
}

TEST(Transform, RandomnessDrawsScaleThenMoveThenTurnPerStrand) {
    StrandSet strands;
    for (std::uint64_t id : {5u, 6u})
        strands.addStrand(id, {0, 0.0f, 0.0f}, Points{{0, 0, 0}, {1, 0, 0}});
    TransformSettings settings;
    settings.world = true;
    settings.scaleRandom = 0.5f;
    settings.translateRandom = 2.0f;
    settings.seed = 3;
    const Points points = transformed(strands, settings);
    for (std::size_t s = 0; s < 2; ++s) {
        std::uint64_t h = hashCombine(strands.ids()[s], 3);
        std::vector<float> draws = {2.0f * unitFloat(h) - 1.0f};
        for (std::uint64_t k = 1; k < 4; ++k) {
            h = hashCombine(h, k);
            draws.push_back(2.0f * unitFloat(h) - 1.0f);
        }
        const Vec3f move{2.0f * draws[1], 2.0f * draws[2], 2.0f * draws[3]};
        const float scale = 1.0f + 0.5f * draws[0];
        test::expectPointsNear(std::span<const Vec3f>(points).subspan(s * 2, 2),
                               {move, Vec3f{scale, 0, 0} + move});
    }
}

Points smoothed(const StrandSet& input, const SmoothSettings& settings) {
    return runKernel(input, [&](const StrandSet& in, std::span<Vec3f> out) {
        smoothStrands(in, settings, StrandSelection::every(), out);
    });
}

SmoothSettings smooth(float strength, float scale, Ramp profile = {}) {
    SmoothSettings settings;
    settings.strength = FieldSampler(strength);
    settings.scale = scale;
    settings.profile = std::move(profile);
    return settings;
}

TEST(Smooth, ScaleOneStraightensAlongTheChordKeepingSegmentLengths) {
    const StrandSet peak = strandsAtOrigin({{{0, 0, 0}, {1, 1, 0}, {2, 0, 0}}});
    const float r2 = std::sqrt(2.0f);
    test::expectPointsNear(smoothed(peak, smooth(1.0f, 1.0f)),
                           {{0, 0, 0}, {r2, 0, 0}, {2 * r2, 0, 0}});
    // Half way: the middle point mixed half way down to the chord, then each segment pushed back
    // to its own length along the mixed shape.
    const Vec3f up = normalized(Vec3f{1, 0.5f, 0}) * r2;
    const Vec3f down = normalized(Vec3f{1, -0.5f, 0}) * r2;
    test::expectPointsNear(smoothed(peak, smooth(0.5f, 1.0f)), {{0, 0, 0}, up, up + down});
    // The profile multiplies the strength: a profile of one half is strength one half.
    const Ramp half{{{0.0f, 0.5f, 0.0f}}, true};
    test::expectPointsNear(smoothed(peak, smooth(1.0f, 1.0f, half)), {{0, 0, 0}, up, up + down});
    // Strength 0 and straight strands change nothing.
    test::expectPointsNear(smoothed(peak, smooth(0.0f, 1.0f)), {{0, 0, 0}, {1, 1, 0}, {2, 0, 0}});
    const StrandSet straight = strandsAtOrigin({{{0, 0, 0}, {0, 0.5f, 0}, {0, 2, 0}}});
    test::expectPointsNear(smoothed(straight, smooth(1.0f, 0.3f)),
                           {{0, 0, 0}, {0, 0.5f, 0}, {0, 2, 0}});
}

TEST(Smooth, TakesOutSmallBumpsAndKeepsEveryLength) {
    const auto strands = test::scalpStrands(*plane(), 200, 13, 21);
    for (const float scale : {0.05f, 0.09f, 0.3f, 1.0f}) {
        const Points points = smoothed(*strands, smooth(1.0f, scale));
        double before = 0.0, after = 0.0;  // summed turning, which smoothing lowers
        for (std::size_t s = 0; s < strands->strandCount(); ++s) {
            const auto range = strands->pointRange(s);
            const auto in = strands->strandPoints(s);
            const std::span<const Vec3f> out(points.data() + range.begin, range.count);
            EXPECT_EQ(out[0], in[0]);
            for (std::size_t k = 1; k < in.size(); ++k)
                EXPECT_NEAR(length(out[k] - out[k - 1]), length(in[k] - in[k - 1]), 1e-5f);
            for (std::size_t k = 2; k < in.size(); ++k) {
                before += std::acos(std::clamp(
                    dot(normalized(in[k] - in[k - 1]), normalized(in[k - 1] - in[k - 2])), -1.0f,
                    1.0f));
                after += std::acos(std::clamp(
                    dot(normalized(out[k] - out[k - 1]), normalized(out[k - 1] - out[k - 2])),
                    -1.0f, 1.0f));
            }
        }
        EXPECT_LT(after, before * (scale < 0.1f ? 0.8 : 0.3)) << scale;
    }
}

TEST(Smooth, StrandsOfMixedPointCountsSmoothAsEachAlone) {
    // A run of strands of 9 points (whole batches, which work their segments out side by side),
    // then strands of 2 to 41 points side by side, so that those smoothed together have the same
    // cell count or not; each must come out as it does smoothed alone.
    StrandSet mixed;
    for (std::uint64_t s = 0; s < 110; ++s) {
        const std::size_t n = s < 20 ? 9 : 2 + (s * 7) % 40;
        Points points(n);
        for (std::size_t k = 1; k < n; ++k) {
            const std::uint64_t h = hashCombine(s, k);
            points[k] =
                points[k - 1] + Vec3f{unitFloat(h) - 0.5f, 1.0f, unitFloat(h + 1) - 0.5f} * 0.1f;
        }
        mixed.addStrand(s + 1, {0, 0.0f, 0.0f}, points);
    }
    const SmoothSettings settings = smooth(0.9f, 0.15f);
    const Points together = smoothed(mixed, settings);
    for (std::size_t s = 0; s < mixed.strandCount(); ++s) {
        StrandSet alone;
        alone.addStrand(mixed.ids()[s], mixed.roots()[s], mixed.strandPoints(s));
        const auto range = mixed.pointRange(s);
        EXPECT_EQ(smoothed(alone, settings),
                  Points(together.begin() + static_cast<std::ptrdiff_t>(range.begin),
                         together.begin() + static_cast<std::ptrdiff_t>(range.begin + range.count)))
            << "strand " << s;
    }
}

// The rule written out plainly, in doubles: the strand at m + 1 equal arc steps (four cells a
// segment, 127 at most), its differences mirrored to a period of 2m, three box filters of width
// min(2 scale m, 2m), each an integral over the cells it covers, the curve rebuilt from the root,
// read back at the strand's own arcs, mixed by the strength and each segment pushed back to its
// length along the mixed shape.
Points smoothedByTheRule(std::span<const Vec3f> points, double strength, double scale,
                         const Ramp& profile = {}) {
    using V = std::array<double, 3>;
    const std::size_t n = points.size();
    const auto point = [&](std::size_t k) { return V{points[k].x, points[k].y, points[k].z}; };
    const auto lerpV = [](const V& a, const V& b, double t) {
        return V{a[0] + (b[0] - a[0]) * t, a[1] + (b[1] - a[1]) * t, a[2] + (b[2] - a[2]) * t};
    };
    const int m = std::min(127, 4 * static_cast<int>(n - 1));
    std::vector<double> share(n, 0.0), lengths(n, 0.0);
    for (std::size_t k = 1; k < n; ++k) {
        const V a = point(k - 1), b = point(k);
        lengths[k] = std::hypot(b[0] - a[0], b[1] - a[1], b[2] - a[2]);
        share[k] = share[k - 1] + lengths[k];
    }
    for (double& t : share)
        t /= share[n - 1];
    std::vector<V> cells(static_cast<std::size_t>(m) + 1);
    for (int j = 0; j < m; ++j) {
        const double t = static_cast<double>(j) / m;
        std::size_t k = 1;
        while (k < n - 1 && share[k] < t)
            ++k;
        const double span = share[k] - share[k - 1];
        cells[static_cast<std::size_t>(j)] =
            lerpV(point(k - 1), point(k), span > 0.0 ? (t - share[k - 1]) / span : 1.0);
    }
    cells[static_cast<std::size_t>(m)] = point(n - 1);
    std::vector<V> differences(static_cast<std::size_t>(m));
    for (std::size_t j = 0; j < differences.size(); ++j)
        for (int a = 0; a < 3; ++a)
            differences[j][a] = cells[j + 1][a] - cells[j][a];
    const double width = std::min(2.0 * scale * m, 2.0 * m);
    const auto mirror = [&](long q) {
        long r = q % (2 * m);
        if (r < 0) r += 2 * m;
        return static_cast<std::size_t>(r < m ? r : 2 * m - 1 - r);
    };
    for (int pass = 0; pass < 3 && width > 1e-3; ++pass) {
        std::vector<V> next(differences.size(), V{});
        for (int j = 0; j < m; ++j) {
            const double low = j + 0.5 - 0.5 * width, high = j + 0.5 + 0.5 * width;
            for (long q = static_cast<long>(std::floor(low)); q <= static_cast<long>(high); ++q) {
                const double overlap =
                    std::min<double>(high, q + 1.0) - std::max<double>(low, static_cast<double>(q));
                if (overlap <= 0.0) continue;
                for (int a = 0; a < 3; ++a)
                    next[static_cast<std::size_t>(j)][a] +=
                        differences[mirror(q)][a] * overlap / width;
            }
        }
        differences = next;
    }
    std::vector<V> curve(cells.size());
    curve[0] = cells[0];
    for (std::size_t j = 0; j < differences.size(); ++j)
        for (int a = 0; a < 3; ++a)
            curve[j + 1][a] = curve[j][a] + differences[j][a];
    Points out(n);
    out[0] = points[0];
    V before = point(0), at = point(0);
    for (std::size_t k = 1; k < n; ++k) {
        const double arc = share[k] * m;
        const std::size_t cell = std::min<std::size_t>(static_cast<std::size_t>(arc), m - 1);
        const V smooth = lerpV(curve[cell], curve[cell + 1], arc - static_cast<double>(cell));
        const V mixed =
            lerpV(point(k), smooth, strength * profile.at(static_cast<float>(share[k])));
        const V turned{mixed[0] - before[0], mixed[1] - before[1], mixed[2] - before[2]};
        const double size = std::hypot(turned[0], turned[1], turned[2]);
        for (int a = 0; a < 3; ++a)
            at[a] += turned[a] / size * lengths[k];
        before = mixed;
        out[k] =
            Vec3f{static_cast<float>(at[0]), static_cast<float>(at[1]), static_cast<float>(at[2])};
    }
    return out;
}

TEST(Smooth, FollowsTheRuleWrittenOutInDoubles) {
    // Strands of 2 to 40 points (40: more than 127 cells' worth, held to 127), narrow and wide
    // boxes and a box past the whole period.
    for (const std::size_t n : {2, 3, 9, 17, 40}) {
        const auto strands = test::scalpStrands(*head(), 40, n, 7 + n);
        for (const float scale : {0.05f, 0.2f, 1.0f, 3.0f}) {
            const Points points = smoothed(*strands, smooth(0.7f, scale));
            for (std::size_t s = 0; s < strands->strandCount(); ++s) {
                const auto range = strands->pointRange(s);
                const Points expected = smoothedByTheRule(strands->strandPoints(s), 0.7, scale);
                for (std::size_t k = 0; k < n; ++k) {
                    const Vec3f got = points[range.begin + k];
                    ASSERT_LT(length(got - expected[k]), 2e-4f)
                        << "points " << n << ", scale " << scale << ", strand " << s << ", point "
                        << k;
                }
            }
        }
    }
}

TEST(Smooth, StrandsThatCannotBeSmoothedLeaveTheirBatchAsTheyCame) {
    // Strands of 9 points, smoothed eight side by side, among which some are stacked on the root
    // (no length), hold a point that is no number, or reach so far that their length is no
    // float: those come out as they came, bit for bit, and the rest as each does alone, whichever
    // lanes they end up in. A profile along the length weighs each point by its own share.
    StrandSet batch;
    std::vector<bool> passes;
    for (std::uint64_t s = 0; s < 29; ++s) {
        Points points(9);
        for (std::size_t k = 1; k < points.size(); ++k) {
            const std::uint64_t h = hashCombine(s, k);
            points[k] =
                points[k - 1] + Vec3f{unitFloat(h) - 0.5f, 1.0f, unitFloat(h + 1) - 0.5f} * 0.1f;
        }
        const int kind = s % 9 == 7 ? 1 : s % 10 == 3 ? 2 : s % 13 == 5 ? 3 : 0;
        if (kind == 1) std::fill(points.begin(), points.end(), Vec3f{0.5f, 0.0f, 0.5f});
        if (kind == 2) points[4].y = std::numeric_limits<float>::quiet_NaN();
        if (kind == 3) points[8].x = 3e38f;
        passes.push_back(kind != 0);
        batch.addStrand(s + 1, {0, 0.0f, 0.0f}, points);
    }
    const Ramp profile{{{0.0f, 1.0f, 0.0f}, {1.0f, 0.2f, 0.0f}}, true};
    const SmoothSettings settings = smooth(0.9f, 0.15f, profile);
    const Points together = smoothed(batch, settings);
    for (std::size_t s = 0; s < batch.strandCount(); ++s) {
        const auto range = batch.pointRange(s);
        const std::span<const Vec3f> got(together.data() + range.begin, range.count);
        if (passes[s]) {
            const auto in = batch.strandPoints(s);
            EXPECT_EQ(std::memcmp(got.data(), in.data(), in.size_bytes()), 0) << "strand " << s;
            continue;
        }
        StrandSet alone;
        alone.addStrand(batch.ids()[s], batch.roots()[s], batch.strandPoints(s));
        EXPECT_EQ(smoothed(alone, settings), Points(got.begin(), got.end())) << "strand " << s;
        const Points expected = smoothedByTheRule(batch.strandPoints(s), 0.9, 0.15, profile);
        for (std::size_t k = 0; k < got.size(); ++k)
            EXPECT_LT(length(got[k] - expected[k]), 2e-4f) << "strand " << s << ", point " << k;
    }
}

// A flow of one pin pointing along `direction` over `scalp`.
std::shared_ptr<const FlowField> flowOf(const ScalpMesh& scalp, const Vec3f& direction) {
    FlowSet set;
    set.pins.push_back(pinFromSurface(scalp, scalp.closestPoint({0, 0, 0}).root, direction));
    return FlowField::build(set, scalp);
}

FlowSettings flowing(float lift, float bend, float random = 0.0f) {
    static const auto field = flowOf(*plane(), {1, 0, 0});
    FlowSettings settings;
    settings.lift = FieldSampler(lift);
    settings.bend = bend;
    settings.random = random;
    settings.scalp = plane().get();
    settings.flow = field.get();
    return settings;
}

Points flowed(const StrandSet& input, const FlowSettings& settings) {
    return runKernel(input, [&](const StrandSet& in, std::span<Vec3f> out) {
        flowStrands(in, settings, StrandSelection::every(), out);
    });
}

TEST(Flow, LaysStrandsAlongTheFlowLiftedAtTheRootAndFallingTowardTheTip) {
    const StrandSet standing = strandsAtOrigin({kStanding});
    test::expectPointsNear(flowed(standing, flowing(0.0f, 0.0f)), kLying);
    // An even lift: a straight line at that angle off the skin.
    test::expectPointsNear(flowed(standing, flowing(30.0f, 0.0f)),
                           {{0, 0, 0}, {cosd(30), 0.5f, 0}, {2 * cosd(30), 1, 0}});
    // Bend 1: the lift falls to nothing at the tip; each segment takes it at its middle.
    test::expectPointsNear(flowed(standing, flowing(30.0f, 1.0f)),
                           {{0, 0, 0},
                            {cosd(22.5f), sind(22.5f), 0},
                            {cosd(22.5f) + cosd(7.5f), sind(22.5f) + sind(7.5f), 0}});
    // Random: each strand turns about the normal by its signed draw.
    FlowSettings random = flowing(0.0f, 0.0f, 20.0f);
    random.seed = 8;
    const Points turned = flowed(standing, random);
    const float degrees = 20.0f * (2.0f * unitFloat(hashCombine(1, 8)) - 1.0f);
    // About +Y, a turn takes +X toward -Z.
    test::expectPointsNear(turned, {{0, 0, 0},
                                    {cosd(degrees), 0, -sind(degrees)},
                                    {2 * cosd(degrees), 0, -2 * sind(degrees)}});
}

TEST(Flow, FollowsACurvedScalpAtItsOffsetKeepingLengths) {
    const auto sphere = makeSphere(1.0f, 24, 48);
    FlowSet set;
    set.pins.push_back(pinFromSurface(*sphere, sphere->closestPoint({0, 2, 0}).root, {1, 0, 0}));
    const auto field = FlowField::build(set, *sphere);
    const auto strands = test::scalpStrands(*sphere, 300, 9, 4, 0.8f);
    FlowSettings settings = flowing(10.0f, 1.0f, 5.0f);
    settings.scalp = sphere.get();
    settings.flow = field.get();
    const Points points = flowed(*strands, settings);
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const auto range = strands->pointRange(s);
        const auto in = strands->strandPoints(s);
        EXPECT_EQ(points[range.begin], in[0]);
        float height = 0.0f;
        for (std::size_t k = 1; k < in.size(); ++k) {
            const Vec3f& p = points[range.begin + k];
            EXPECT_NEAR(length(p - points[range.begin + k - 1]), length(in[k] - in[k - 1]), 1e-5f);
            height = std::max(height, length(p) - 1.0f);
        }
        // Laid on the skin: no point much further off the sphere than the lift can take it.
        EXPECT_LT(height, 0.8f * sind(10.0f) + 0.02f) << s;
    }
}

TEST(Flow, AFewStrandsAreLaidAsInAFullRunOverACoarseScalp) {
    // A coarse sphere: its ridges put many points off every triangle's face, where the walk over
    // the surface stops on an edge. A full run readies every triangle ahead, a run over a few
    // strands only those it reaches; both must lay a strand alike.
    const auto sphere = makeSphere(1.0f, 6, 12);
    FlowSet set;
    set.pins.push_back(pinFromSurface(*sphere, sphere->closestPoint({0, 2, 0}).root, {1, 0, 0}));
    const auto field = FlowField::build(set, *sphere);
    const auto strands = test::scalpStrands(*sphere, 2000, 9, 6, 0.8f);
    ASSERT_GT(strands->strandCount(), sphere->triangleCount());
    FlowSettings settings = flowing(25.0f, 0.5f, 10.0f);
    settings.scalp = sphere.get();
    settings.flow = field.get();
    const Points full = flowed(*strands, settings);
    const std::vector<std::uint64_t> few = {5, 777, 1999};
    Points some(strands->points().begin(), strands->points().end());
    flowStrands(*strands, settings, StrandSelection::only(few), some);
    for (const std::uint64_t s : few) {
        const auto range = strands->pointRange(s);
        for (std::size_t k = 0; k < range.count; ++k)
            EXPECT_EQ(some[range.begin + k], full[range.begin + k]) << s << " " << k;
    }
    // Every strand keeps its lengths and stays near the skin: no point much further off the
    // sphere's centre than the lift takes it, none sunk below the coarse surface.
    for (std::size_t s = 0; s < strands->strandCount(); ++s) {
        const auto range = strands->pointRange(s);
        const auto in = strands->strandPoints(s);
        for (std::size_t k = 1; k < in.size(); ++k) {
            const Vec3f& p = full[range.begin + k];
            EXPECT_NEAR(length(p - full[range.begin + k - 1]), length(in[k] - in[k - 1]), 1e-5f);
            EXPECT_LT(length(p), 1.0f + 0.8f * sind(25.0f) + 0.02f) << s;
            EXPECT_GT(length(p), 0.85f) << s;
        }
    }
}

TEST(Flow, WithoutFlowArrowsStrandsPassWithANote) {
    Graph graph;
    const std::uint32_t source =
        test::addTestNode(graph, std::make_unique<test::SceneOp>(), "groom");
    const std::uint32_t node = graph.addNode("Flow", "flow");
    graph.connect(source, node, 0);
    SceneInputs scene;
    const auto groom = test::scalpStrands(*head(), 50, 5, 2);
    scene["groom"] = SceneInput{Value(groom), 1};
    scene[std::string(kScalpInput)] = SceneInput{Value(head()), 2};
    EvalContext ctx;
    ctx.sceneInputs = &scene;
    for (const bool emptySet : {false, true}) {
        if (emptySet)
            scene[std::string(kFlowInput)] = SceneInput{Value(FlowField::build({}, *head())), 3};
        graph.invalidate(node);
        EXPECT_EQ(test::strandsOf(graph.evaluate(node, ctx)), groom);
        EXPECT_EQ(graph.notes[node],
                  "no flow arrows: lay some with the Flow tool (Groom Tools > Create > Flow); "
                  "strands lie along their own direction");
    }
}

// ---- What every node of this family shares, over a table of nodes and settings.

struct NodeCase {
    std::string type;
    std::vector<std::pair<std::string, ParamValue>> params;
    bool rootMoves = false;    // Transform moves roots with its translate
    bool keepsLengths = true;  // Transform scales
};

const std::vector<NodeCase>& nodeCases() {
    static const std::vector<NodeCase> cases = {
        {"Bend", {{"angle", 50.0}, {"end", 0.7}, {"randomness", 0.4}}},
        {"Bend", {{"angle", -70.0}, {"along", std::string("direction")}}},
        {"Bend", {{"angle", 120.0}, {"along", std::string("tangent")}, {"start", 0.3}}},
        {"Direction", {{"inclination", 70.0}, {"roll", 30.0}, {"rollRandom", 20.0}}},
        {"Direction",
         {{"inclination", 20.0}, {"along", std::string("direction")}, {"strength", 0.5}}},
        {"Smooth", {{"strength", 0.8}, {"scale", 0.2}}},
        {"Flow", {{"lift", 20.0}, {"bend", 0.4}, {"random", 10.0}}},
    };
    return cases;
}

// Flow over the head: backward over the crown, with a whorl.
std::shared_ptr<const FlowField> headFlow() {
    static const auto field = [] {
        const ScalpMesh& scalp = *head();
        FlowSet set;
        const auto [low, high] = scalp.bounds();
        const Vec3f top{0.5f * (low.x + high.x), high.y, 0.5f * (low.z + high.z)};
        set.pins.push_back(pinFromSurface(scalp, scalp.closestPoint(top).root, {0, 0, -1}));
        FlowSink whorl;
        const StrandRoot at = scalp.closestPoint(top + Vec3f{0, 0, -0.3f}).root;
        whorl.face = at.face;
        whorl.u = at.u;
        whorl.v = at.v;
        whorl.angle = 70.0f;
        whorl.radius = 0.3f;
        set.sinks.push_back(whorl);
        return FlowField::build(set, scalp);
    }();
    return field;
}

TEST(Flow, EachStrandIsLaidAsAloneInAFullRunOfAssortedLengths) {
    // A full run lays strands four at a time where it can and one at a time after the shortest
    // of a set ends or where a group's strands don't fill a set (strands of one point pass and
    // leave gaps); a strand laid alone takes the single path throughout. Over the head with a
    // whorl, with a flow made for other vertices (every point asks the field itself), over a
    // coarse sphere whose ridges stop walks on edges, and over a plane with a fold of flat
    // triangles, each strand must come out alike.
    const auto sphere = makeSphere(1.0f, 6, 12);
    const auto planeFlow = flowOf(*plane(), {1, 0, 0});
    FlowSet sphereSet;
    sphereSet.pins.push_back(
        pinFromSurface(*sphere, sphere->closestPoint({0, 2, 0}).root, {1, 0, 0}));
    const auto sphereFlow = FlowField::build(sphereSet, *sphere);
    const auto folded = test::foldedPlane();
    const auto foldedFlow = flowOf(*folded, {1, 0, 0});
    struct Case {
        const ScalpMesh* scalp;
        const FlowField* flow;
        float length;
    };
    for (const Case& c :
         {Case{head().get(), headFlow().get(), 3.0f}, Case{head().get(), planeFlow.get(), 3.0f},
          Case{sphere.get(), sphereFlow.get(), 0.8f}, Case{folded.get(), foldedFlow.get(), 1.5f}}) {
        const auto grown = test::scalpStrands(*c.scalp, 3600, 13, 9, c.length);
        ASSERT_GE(grown->strandCount(), c.scalp->triangleCount());
        StrandSet assorted;
        for (std::size_t s = 0; s < grown->strandCount(); ++s) {
            const auto points = grown->strandPoints(s);
            const std::size_t n = s % 5 == 0 ? 1 + s % 12 : 9;
            assorted.addStrand(grown->ids()[s], grown->roots()[s], points.first(n));
        }
        FlowSettings settings = flowing(25.0f, 0.5f, 10.0f);
        settings.scalp = c.scalp;
        settings.flow = c.flow;
        const Points full = flowed(assorted, settings);
        Points alone(assorted.points().begin(), assorted.points().end());
        for (std::uint64_t s = 0; s < assorted.strandCount(); s += 7) {
            const std::vector<std::uint64_t> one = {s};
            flowStrands(assorted, settings, StrandSelection::only(one), alone);
            const auto range = assorted.pointRange(s);
            for (std::size_t k = 0; k < range.count; ++k)
                ASSERT_EQ(alone[range.begin + k], full[range.begin + k]) << s << " " << k;
        }
        EXPECT_NE(full, Points(assorted.points().begin(), assorted.points().end()));
        // The chunks, and so the sets of four, may fall elsewhere at another thread count.
        const auto [one, two] =
            test::onOneAndTwoThreads([&] { return flowed(assorted, settings); });
        EXPECT_EQ(one, full);
        EXPECT_EQ(two, full);
    }
}

// groom -> node, with the scalp and flow as scene inputs.
struct ShapeGraph {
    Graph graph;
    SceneInputs scene;
    EvalContext ctx;
    std::uint32_t source = 0, node = 0;

    explicit ShapeGraph(const NodeCase& c) {
        source = test::addTestNode(graph, std::make_unique<test::SceneOp>(), "groom");
        node = graph.addNode(c.type, "shape");
        graph.connect(source, node, 0);
        for (const auto& [name, value] : c.params)
            graph.operatorOf(node).paramSet.set(name, value);
        scene[std::string(kScalpInput)] = SceneInput{Value(head()), 1};
        scene[std::string(kFlowInput)] = SceneInput{Value(headFlow()), 2};
        ctx.sceneInputs = &scene;
    }
    void setGroom(std::shared_ptr<const StrandSet> strands, std::uint64_t key) {
        scene["groom"] = SceneInput{Value(std::move(strands)), key};
    }
    std::shared_ptr<const StrandSet> run() { return test::strandsOf(graph.evaluate(node, ctx)); }
};

std::shared_ptr<const StrandSet> groomWithShortStrands() {
    StrandSet set(*test::scalpStrands(*head(), 300, 6, 5));
    const StrandRoot root = set.roots()[0];
    const Vec3f at = head()->pointAt(root);
    set.addStrand(77, root, std::vector<Vec3f>{at});
    set.addStrand(78, root, std::vector<Vec3f>{});
    return std::make_shared<const StrandSet>(std::move(set));
}

TEST(ShapeNodesB, RootsStayAndShortStrandsPass) {
    const auto groom = groomWithShortStrands();
    for (const NodeCase& c : nodeCases()) {
        ShapeGraph g(c);
        g.setGroom(groom, 1);
        const auto out = g.run();
        ASSERT_TRUE(out) << c.type;
        ASSERT_EQ(out->pointCount(), groom->pointCount());
        bool anyMoved = false;
        for (std::size_t s = 0; s < groom->strandCount(); ++s) {
            const auto before = groom->strandPoints(s);
            const auto after = out->strandPoints(s);
            if (before.size() < 2) {
                EXPECT_EQ(test::values(after), test::values(before)) << c.type << " strand " << s;
                continue;
            }
            if (!c.rootMoves) {
                EXPECT_EQ(after[0], before[0]) << c.type << " strand " << s;
            }
            for (std::size_t k = 1; c.keepsLengths && k < before.size(); ++k)
                EXPECT_NEAR(length(after[k] - after[k - 1]), length(before[k] - before[k - 1]),
                            1e-5f)
                    << c.type << " strand " << s;
            anyMoved = anyMoved || test::values(after) != test::values(before);
        }
        EXPECT_TRUE(anyMoved) << c.type;
    }
}

TEST(ShapeNodesB, SameBitsAtOneAndTwoThreads) {
    const auto groom = test::scalpStrands(*head(), 3000, 9, 11);
    for (const NodeCase& c : nodeCases()) {
        const auto [one, two] = test::onOneAndTwoThreads([&] {
            ShapeGraph g(c);
            g.setGroom(groom, 1);
            return g.run()->contentHash();
        });
        EXPECT_EQ(one, two) << c.type;
    }
}

TEST(ShapeNodesB, ChangedStrandsRunIncrementallyAsAFullRunWould) {
    test::EvaluationSwitchesRestored restore;
    setIncrementalCheck(true);  // every incremental run is checked against a full one
    const auto groom = test::scalpStrands(*head(), 400, 9, 13);
    for (const NodeCase& c : nodeCases()) {
        ShapeGraph g(c);
        g.setGroom(groom, 1);
        g.run();
        const auto changed = test::moved(*groom, {3, 150, 399}, 0.25f);
        g.setGroom(changed, 2);
        const auto result = g.run();
        EXPECT_EQ(g.graph.runs[g.node], "incremental 3") << c.type;
        ShapeGraph fresh(c);
        fresh.setGroom(changed, 2);
        EXPECT_EQ(result->contentHash(), fresh.run()->contentHash()) << c.type;
    }
}

TEST(ShapeNodesB, RegisteredWithTheirMenuData) {
    const OperatorRegistry& registry = OperatorRegistry::instance();
    const std::vector<std::tuple<std::string, std::string, std::string, std::string>> expected = {
        {"Bend", "deform",
         "Bends strands toward or away from the scalp, or combs them toward a direction, between a "
         "start and an end; start and end 0 stand them up at the root.",
         "comb curve lift lay"},
        {"Direction", "shape",
         "Points strands by inclination from the scalp and roll around its normal, at the root.",
         "inclination roll angle orient"},
        {"Flow", "shape", "Lays strands along the flow arrows drawn on the scalp.",
         "flow comb direction lay"},
        {"Smooth", "shape",
         "Takes out bumps up to a size (a share of the length; 1 straightens), keeping lengths and "
         "roots.",
         "relax straighten bumps"},
        {"Transform", "deform",
         "Moves, turns and scales strands about their roots (or the whole set), with randomness.",
         "move rotate scale translate"},
    };
    for (const auto& [type, category, description, keywords] : expected) {
        const OperatorInfo* info = registry.info(type);
        ASSERT_NE(info, nullptr) << type;
        EXPECT_EQ(info->category, category);
        EXPECT_EQ(info->description, description);
        EXPECT_EQ(info->keywords, keywords);
        const auto op = registry.create(type);
        EXPECT_TRUE(affectApplies(*op)) << type;
        // Smooth alone reads nothing of the scalp.
        EXPECT_EQ(op->sceneInputs().empty(), type == "Smooth") << type;
    }
    const auto bend = registry.create("Bend");
    EXPECT_TRUE(bend->paramSet.spec("angle")->mappable());
    EXPECT_EQ(bend->paramSet.spec("angle")->min, -180.0);
    EXPECT_EQ(bend->paramSet.spec("along")->choices,
              (std::vector<std::string>{"normal", "tangent", "direction"}));
    EXPECT_TRUE(bend->paramSet.spec("direction")->worldDirection);
    const auto direction = registry.create("Direction");
    EXPECT_EQ(direction->version(), 2);
    EXPECT_EQ(direction->paramSet.getString("along", ""), "tangent");
    EXPECT_TRUE(direction->paramSet.spec("strength")->mappable());
    const auto transform = registry.create("Transform");
    EXPECT_EQ(transform->paramSet.spec("pivot")->showWhen->param, "space");
    EXPECT_EQ(transform->paramSet.spec("scale")->softMax, 2.0);
}

}  // namespace
}  // namespace velmorin
