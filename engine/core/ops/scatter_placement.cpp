#include "ops/scatter_placement.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/hash.h"
#include "base/parallel.h"
#include "graph/errors.h"
#include "mesh/scalp_mesh.h"
#include "ops/guide_mask.h"

namespace velmorin {
namespace {

constexpr std::size_t kGrain = 256;
constexpr double kMaxStrands = 50'000'000.0;
constexpr double kHeavyStrands = 2'000'000.0;
constexpr double kMaxPreviewPoints = 60'000'000.0;
constexpr double kMaxPoints = 400'000'000.0;

// Small runs stay on the calling thread: the pool's start-up costs more than they do.
void forEach(std::size_t count, const RangeBody& body) {
    if (count <= kGrain) {
        if (count > 0) body(0, count);
        return;
    }
    parallelRange(0, count, kGrain, body);
}

float triangleArea(const Vec3f& a, const Vec3f& b, const Vec3f& c) {
    return 0.5f * length(cross(b - a, c - a));
}

// The top 24 bits of SplitMix64's finaliser over x, as unitFloat takes them, without its leading
// add: the float of a value that is already a stream state.
float finalUnit(std::uint64_t x) {
    return unitFloat(x - kGolden);
}

}  // namespace

float combinedUnit(std::uint64_t h, std::uint64_t v) {
    return unitFloat(((h << 6) + (h >> 2) + kGolden + v) ^ h);
}

float streamDraw(std::uint64_t h, int draw) {
    return finalUnit(h + static_cast<std::uint64_t>(draw) * kGolden);
}

double workingDensity(double plain, std::span<const float> mappedSamples) {
    double largest = 0.0;
    bool any = false;
    for (const float sample : mappedSamples) {
        if (!std::isfinite(sample)) continue;
        largest = any ? std::max(largest, static_cast<double>(sample)) : sample;
        any = true;
    }
    if (!any || largest <= plain || largest <= 0.0) return plain;
    return std::pow(10.0, std::ceil(std::log10(largest) * 8.0 - 1e-9) * 0.125);
}

std::vector<float> growthAreas(const ScalpMesh& scalp) {
    const auto& points =
        scalp.restPoints().size() == scalp.pointCount() ? scalp.restPoints() : scalp.points();
    const auto& triangles = scalp.triangles();
    std::vector<float> areas(triangles.size());
    forEach(triangles.size(), [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            const Triangle& t = triangles[f];
            areas[f] = triangleArea(points[t[0]], points[t[1]], points[t[2]]);
        }
    });
    return areas;
}

bool keptByDensity(std::uint64_t id, float density, double working) {
    if (!(density > 0.0f)) return false;
    return combinedUnit(id, 0xD3A5) < static_cast<double>(density) / working;
}

ScatterPlacement placeRandom(const ScalpMesh& scalp, std::span<const float> faceAreas,
                             const PlacementSettings& settings) {
    ScatterPlacement placed;
    const double density = settings.density;
    if (!(density > 0.0) || faceAreas.empty()) return placed;
    const double share = std::clamp(settings.share, 0.0, 1.0);

    double totalArea = 0.0;
    for (const float area : faceAreas)
        totalArea += area;
    const double reserve = totalArea * density * share * 1.1 + 16.0;
    std::vector<std::uint64_t> ids;
    std::vector<std::int32_t> faces;
    ids.reserve(static_cast<std::size_t>(std::min(reserve, kMaxStrands * 1.1)));
    faces.reserve(ids.capacity());

    const std::uint64_t seedHash = mix64(settings.seed);
    for (std::size_t f = 0; f < faceAreas.size(); ++f) {
        const std::uint64_t faceHash = hashCombine(seedHash, f);
        double expected = static_cast<double>(faceAreas[f]) * density;
        if (!(expected > 0.0)) continue;
        expected = std::min(expected, kMaxStrands);
        auto count = static_cast<std::uint64_t>(expected);
        if (unitFloat(faceHash) < expected - static_cast<double>(count)) ++count;
        for (std::uint64_t k = 0; k < count; ++k) {
            const std::uint64_t id = hashCombine(faceHash, k);
            if (share < 1.0 && unitFloat(id) >= share) continue;
            ids.push_back(id);
            faces.push_back(static_cast<std::int32_t>(f));
        }
    }

    // Roots, and which of them the density map and the mask keep, each candidate on its own.
    const std::size_t count = ids.size();
    std::vector<StrandRoot> roots(count);
    std::vector<std::uint8_t> keep(count, 1);
    const bool mapped = static_cast<bool>(settings.mappedDensity);
    const bool masked = settings.mask && !settings.mask->empty();
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint64_t h = mix64(ids[i]);
            const float a = std::sqrt(streamDraw(h, 2));
            const float r2 = streamDraw(h, 3);
            const StrandRoot root{faces[i], (1.0f - r2) * a, r2 * a};
            roots[i] = root;
            if (!mapped && !masked) continue;
            const Vec3f position = scalp.pointAt(root);
            if (mapped && !keptByDensity(ids[i], settings.mappedDensity(root, position), density))
                keep[i] = 0;
            else if (masked && !settings.mask->passes(position))
                keep[i] = 0;
        }
    });

    if (mapped || masked) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (!keep[i]) continue;
            ids[kept] = ids[i];
            roots[kept] = roots[i];
            ++kept;
        }
        ids.resize(kept);
        roots.resize(kept);
    }
    placed.ids = std::move(ids);
    placed.evenRoots = roots;
    placed.randomRoots = std::move(roots);
    return placed;
}

PreviewPlan planPreview(const PreviewRequest& request) {
    PreviewPlan plan;
    const double n = request.expectedCount;
    const double points = n * static_cast<double>(request.pointsPerStrand);
    plan.keepAll = request.previewAll || n <= 250.0;
    double p = plan.keepAll ? std::max(1.0, request.previewDensity) : request.previewDensity;
    if (request.pointBudget > 0.0 && p * points > request.pointBudget) {
        p = request.pointBudget / points;
        plan.budgetThinned = true;
    }
    plan.preview = p;
    if (plan.keepAll || n <= 5000.0) {
        plan.coarse = 1.0;
    } else {
        plan.coarse = std::max(0.03, std::pow(2.0, -std::floor(std::log2(n / 5000.0))));
    }
    plan.kept = p >= 1.0 ? 1.0 : std::max(p, plan.coarse);
    return plan;
}

std::string checkScatterCounts(double working, double expected, bool grid) {
    if (!std::isfinite(working) || !std::isfinite(expected))
        throw GraphError("Scatter: the density (or the scalp's area) is not a finite number");
    if (expected > kMaxStrands) {
        throw GraphError(grid ? "Scatter: the grid would create more than 50M strands"
                              : "Scatter: density would create more than 50M strands");
    }
    if (expected <= kHeavyStrands) return {};
    char text[256];
    std::snprintf(text, sizeof text,
                  "%.1fM strands: heavy (a human head has about 0.1-0.15M); renders, exports and a "
                  "full preview hold every one. Lower the %s, or thin it with a density map",
                  expected / 1e6, grid ? "grid's rows and columns" : "density");
    return text;
}

void checkScatterPoints(const PreviewPlan& plan, const PreviewRequest& request) {
    const double perStrand = static_cast<double>(request.pointsPerStrand);
    const double points = plan.kept * request.expectedCount * perStrand;
    char text[256];
    if (request.pointBudget <= 0.0 && request.previewDensity < 1.0 && points > kMaxPreviewPoints) {
        std::snprintf(text, sizeof text,
                      "Scatter: the preview would have %.0fM points (%.0fk strands x %zu): lower "
                      "the preview density, density or the Resample's segments",
                      points / 1e6, plan.kept * request.expectedCount / 1e3,
                      request.pointsPerStrand);
        throw GraphError(text);
    }
    if (points > kMaxPoints) {
        std::snprintf(text, sizeof text,
                      "Scatter: %.0fM points (strands x %zu) is more than memory holds: lower the "
                      "density or the Resample's segments",
                      points / 1e6, request.pointsPerStrand);
        throw GraphError(text);
    }
}

std::size_t selectStrands(std::span<const std::uint64_t> ids, const PreviewPlan& plan,
                          std::vector<std::uint8_t>& marks, bool& anyPartial) {
    const double t = plan.preview >= 1.0 ? 2.0 : plan.preview;
    const double q = plan.coarse;
    marks.resize(ids.size());
    // Marks are 0 dropped, 1 partial (u < t only), 2 both, 3 coarse only; written back as the
    // preview marks 0, 1 and 2 by growStrands. Chunks count their own kept and partial strands.
    const std::size_t chunks = (ids.size() + kGrain - 1) / kGrain;
    std::vector<std::size_t> keptPerChunk(chunks, 0);
    std::vector<std::uint8_t> partialPerChunk(chunks, 0);
    forEach(ids.size(), [&](std::size_t begin, std::size_t end) {
        std::size_t kept = 0;
        bool partial = false;
        for (std::size_t i = begin; i < end; ++i) {
            const double u = unitFloat(ids[i]);
            const bool byPreview = u < t, byCoarse = u < q;
            std::uint8_t mark = 0;
            if (byPreview && byCoarse)
                mark = 2;
            else if (byPreview)
                mark = 1;
            else if (byCoarse)
                mark = 3;
            marks[i] = mark;
            if (mark != 0) ++kept;
            if (mark == 1 || mark == 3) partial = true;
        }
        keptPerChunk[begin / kGrain] += kept;
        if (partial) partialPerChunk[begin / kGrain] = 1;
    });
    std::size_t kept = 0;
    anyPartial = false;
    for (std::size_t c = 0; c < chunks; ++c) {
        kept += keptPerChunk[c];
        anyPartial = anyPartial || partialPerChunk[c];
    }
    return kept;
}

StrandSet growStrands(const ScalpMesh& scalp, std::span<const std::uint64_t> ids,
                      std::span<const StrandRoot> roots, const std::vector<std::uint8_t>* marks,
                      std::size_t keptCount, const GrowSettings& settings) {
    const std::size_t count = ids.size();
    const int segments = std::clamp(settings.segments, 1, 256);
    const std::size_t perStrand = static_cast<std::size_t>(segments) + 1;

    // Where each kept strand comes from: a prefix count per chunk keeps the order of the ids.
    std::vector<std::uint32_t> source;
    if (marks) {
        const std::size_t chunks = (count + kGrain - 1) / kGrain;
        std::vector<std::size_t> firstOfChunk(chunks + 1, 0);
        for (std::size_t c = 0; c < chunks; ++c) {
            std::size_t kept = 0;
            const std::size_t end = std::min(count, (c + 1) * kGrain);
            for (std::size_t i = c * kGrain; i < end; ++i)
                kept += (*marks)[i] != 0;
            firstOfChunk[c + 1] = firstOfChunk[c] + kept;
        }
        keptCount = firstOfChunk[chunks];
        source.resize(keptCount);
        forEach(count, [&](std::size_t begin, std::size_t end) {
            std::size_t at = firstOfChunk[begin / kGrain];
            for (std::size_t i = begin; i < end; ++i)
                if ((*marks)[i] != 0) source[at++] = static_cast<std::uint32_t>(i);
        });
    } else {
        keptCount = count;
    }

    StrandSet out;
    std::vector<std::uint64_t>& outIds = out.writeIds();
    std::vector<StrandRoot>& outRoots = out.writeRoots();
    std::vector<std::uint64_t>& offsets = out.writeOffsets();
    std::vector<Vec3f>& points = out.writePoints();
    std::vector<float>& widths = out.writeWidths();
    outIds.resize(keptCount);
    outRoots.resize(keptCount);
    offsets.resize(keptCount + 1);
    points.resize(keptCount * perStrand);
    widths.resize(keptCount * perStrand);
    std::vector<float>* previewMarks =
        marks && settings.writeMarks ? &out.addStrandChannel("_preview", 1.0f) : nullptr;

    const auto normals = scalp.vertexNormals();
    const auto& meshPoints = scalp.points();
    const auto& triangles = scalp.triangles();
    forEach(keptCount, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            const std::size_t i = marks ? source[s] : s;
            const StrandRoot root = roots[i];
            const Triangle& t = triangles[root.face];
            const float w0 = 1.0f - root.u - root.v;
            const Vec3f position =
                meshPoints[t[0]] * w0 + meshPoints[t[1]] * root.u + meshPoints[t[2]] * root.v;
            const Vec3f blend =
                normals[t[0]] * w0 + normals[t[1]] * root.u + normals[t[2]] * root.v;
            const float len2 = lengthSquared(blend);
            const Vec3f normal = len2 > 1e-20f ? blend / std::sqrt(len2) : scalp.normalAt(root);
            outIds[s] = ids[i];
            StrandRoot stored = root;
            if (stored.face >= 0) stored.face += settings.faceOffset;
            outRoots[s] = stored;
            offsets[s + 1] = (s + 1) * perStrand;
            Vec3f* strandPoints = points.data() + s * perStrand;
            float* strandWidths = widths.data() + s * perStrand;
            for (std::size_t k = 0; k < perStrand; ++k) {
                strandPoints[k] = position + normal * (settings.length * static_cast<float>(k) /
                                                       static_cast<float>(segments));
                strandWidths[k] = 1.0f;
            }
            if (previewMarks) {
                const std::uint8_t mark = (*marks)[i];
                (*previewMarks)[s] = mark == 2 ? 1.0f : mark == 1 ? 0.0f : 2.0f;
            }
        }
    });
    offsets[0] = 0;
    return out;
}

}  // namespace velmorin
