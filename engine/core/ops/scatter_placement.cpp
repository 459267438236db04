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

// Runs body(block, begin, end) over [0, count) in blocks of exactly kGrain items (the last may be
// shorter), so that a block's number names the same items at any thread count: per-block counts
// and prefix sums rely on it, where parallelRange's own chunks fall wherever its splits put them.
template <class Body>
void forEachBlock(std::size_t count, const Body& body) {
    const std::size_t blocks = (count + kGrain - 1) / kGrain;
    const auto run = [&](std::size_t first, std::size_t last) {
        for (std::size_t b = first; b < last; ++b)
            body(b, b * kGrain, std::min(count, (b + 1) * kGrain));
    };
    if (blocks <= 1) {
        run(0, blocks);
        return;
    }
    parallelRange(0, blocks, 1, run);
}

// Turns per-block counts into each block's first slot; returns the total.
std::size_t blockStarts(std::vector<std::size_t>& counts) {
    std::size_t total = 0;
    for (std::size_t& c : counts) {
        const std::size_t n = c;
        c = total;
        total += n;
    }
    return total;
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
    const bool thinned = share < 1.0;

    // Each face's candidate count k = 0 .. n - 1, then the running count of all before it: the
    // k-th candidate of face f is number faceFirst[f] + k of one sequence over all faces, and
    // blocks of that sequence are the units of work.
    const std::uint64_t seedHash = mix64(settings.seed);
    const std::size_t faceCount = faceAreas.size();
    std::vector<std::uint64_t> faceFirst(faceCount + 1, 0);
    forEach(faceCount, [&](std::size_t begin, std::size_t end) {
        for (std::size_t f = begin; f < end; ++f) {
            double expected = static_cast<double>(faceAreas[f]) * density;
            std::uint64_t count = 0;
            if (expected > 0.0) {
                expected = std::min(expected, kMaxStrands);
                count = static_cast<std::uint64_t>(expected);
                if (unitFloat(hashCombine(seedHash, f)) < expected - static_cast<double>(count))
                    ++count;
            }
            faceFirst[f + 1] = count;
        }
    });
    for (std::size_t f = 0; f < faceCount; ++f)
        faceFirst[f + 1] += faceFirst[f];
    const std::size_t drawn = faceFirst[faceCount];

    // Calls visit(id, face) for the drawn candidates [begin, end), in order.
    const auto forEachDrawn = [&](std::size_t begin, std::size_t end, const auto& visit) {
        std::size_t f = static_cast<std::size_t>(
            std::upper_bound(faceFirst.begin(), faceFirst.end(), begin) - faceFirst.begin() - 1);
        std::uint64_t faceHash = hashCombine(seedHash, f);
        for (std::size_t n = begin; n < end; ++n) {
            while (n >= faceFirst[f + 1])
                faceHash = hashCombine(seedHash, ++f);
            visit(hashCombine(faceHash, n - faceFirst[f]), static_cast<std::int32_t>(f));
        }
    };

    // Where each block's candidates go: with a preview share, only those it keeps.
    std::vector<std::size_t> blockFirst((drawn + kGrain - 1) / kGrain, 0);
    forEachBlock(drawn, [&](std::size_t block, std::size_t begin, std::size_t end) {
        std::size_t kept = end - begin;
        if (thinned) {
            kept = 0;
            forEachDrawn(begin, end, [&](std::uint64_t id, std::int32_t) {
                kept += !(unitFloat(id) >= share);
            });
        }
        blockFirst[block] = kept;
    });
    const std::size_t count = blockStarts(blockFirst);

    // Roots, and which of them the density map and the mask keep, each candidate on its own.
    const bool mapped = static_cast<bool>(settings.mappedDensity);
    const bool masked = settings.mask && !settings.mask->empty();
    const bool filtered = mapped || masked;
    // Unfiltered, the even roots (equal to the random ones until relaxation) are written in the
    // same pass; filtered, by the compaction.
    std::vector<std::uint64_t> ids(count);
    std::vector<StrandRoot> roots(count), evenRoots(filtered ? 0 : count);
    std::vector<std::uint8_t> keep(filtered ? count : 0, 1);
    std::vector<std::size_t> keptFirst(filtered ? blockFirst.size() : 0, 0);
    forEachBlock(drawn, [&](std::size_t block, std::size_t begin, std::size_t end) {
        std::size_t at = blockFirst[block];
        std::size_t kept = 0;
        forEachDrawn(begin, end, [&](std::uint64_t id, std::int32_t face) {
            if (thinned && unitFloat(id) >= share) return;
            const std::uint64_t h = mix64(id);
            const float a = std::sqrt(streamDraw(h, 2));
            const float r2 = streamDraw(h, 3);
            const StrandRoot root{face, (1.0f - r2) * a, r2 * a};
            ids[at] = id;
            roots[at] = root;
            if (!filtered) evenRoots[at] = root;
            if (filtered) {
                const Vec3f position = scalp.pointAt(root);
                if (mapped && !keptByDensity(id, settings.mappedDensity(root, position), density))
                    keep[at] = 0;
                else if (masked && !settings.mask->passes(position))
                    keep[at] = 0;
                kept += keep[at];
            }
            ++at;
        });
        if (filtered) keptFirst[block] = kept;
    });

    if (filtered) {
        // Survivors, compacted in order: the blocks are the same as above, so each block's
        // survivors start where the counts before it end.
        const std::size_t kept = blockStarts(keptFirst);
        std::vector<std::uint64_t> keptIds(kept);
        std::vector<StrandRoot> keptRoots(kept);
        evenRoots.resize(kept);
        forEachBlock(drawn, [&](std::size_t block, std::size_t, std::size_t) {
            std::size_t to = keptFirst[block];
            const std::size_t from = blockFirst[block];
            const std::size_t last = block + 1 < blockFirst.size() ? blockFirst[block + 1] : count;
            for (std::size_t i = from; i < last; ++i) {
                if (!keep[i]) continue;
                keptIds[to] = ids[i];
                keptRoots[to] = roots[i];
                evenRoots[to] = roots[i];
                ++to;
            }
        });
        ids = std::move(keptIds);
        roots = std::move(keptRoots);
    }
    placed.ids = std::move(ids);
    placed.randomRoots = std::move(roots);
    placed.evenRoots = std::move(evenRoots);
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
    // preview marks 0, 1 and 2 by growStrands. Blocks count their own kept and partial strands.
    const std::size_t chunks = (ids.size() + kGrain - 1) / kGrain;
    std::vector<std::size_t> keptPerChunk(chunks, 0);
    std::vector<std::uint8_t> partialPerChunk(chunks, 0);
    forEachBlock(ids.size(), [&](std::size_t block, std::size_t begin, std::size_t end) {
        std::size_t kept = 0;
        bool partial = false;
        // Without branches: the tests fall either way at random, by id.
        for (std::size_t i = begin; i < end; ++i) {
            const double u = unitFloat(ids[i]);
            const unsigned byPreview = u < t, byCoarse = u < q;
            const unsigned mark = byPreview * (1 + byCoarse) + (1 - byPreview) * byCoarse * 3;
            marks[i] = static_cast<std::uint8_t>(mark);
            kept += byPreview | byCoarse;
            partial |= (byPreview ^ byCoarse) != 0;
        }
        keptPerChunk[block] = kept;
        partialPerChunk[block] = partial ? 1 : 0;
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

    // Where each kept strand comes from: a prefix count per block keeps the order of the ids.
    std::vector<std::uint32_t> source;
    if (marks) {
        std::vector<std::size_t> firstOfBlock((count + kGrain - 1) / kGrain, 0);
        forEachBlock(count, [&](std::size_t block, std::size_t begin, std::size_t end) {
            std::size_t kept = 0;
            for (std::size_t i = begin; i < end; ++i)
                kept += (*marks)[i] != 0;
            firstOfBlock[block] = kept;
        });
        keptCount = blockStarts(firstOfBlock);
        source.resize(keptCount);
        forEachBlock(count, [&](std::size_t block, std::size_t begin, std::size_t end) {
            // Kept or not falls at random by id: every index is written to the block's own list
            // and only a kept one advances it, with no branch to mispredict.
            std::uint32_t kept[kGrain + 1];
            std::size_t keptHere = 0;
            for (std::size_t i = begin; i < end; ++i) {
                kept[keptHere] = static_cast<std::uint32_t>(i);
                keptHere += (*marks)[i] != 0;
            }
            std::copy_n(kept, keptHere,
                        source.begin() + static_cast<std::ptrdiff_t>(firstOfBlock[block]));
        });
    } else {
        keptCount = count;
    }

    // Every element is written below, in parallel: the columns come unfilled, from the pool
    // where it kept arrays of these lengths.
    StrandSet out;
    out.resizeForOverwrite(keptCount, keptCount * perStrand);
    std::vector<std::uint64_t>& outIds = out.writeIds();
    std::vector<StrandRoot>& outRoots = out.writeRoots();
    std::vector<std::uint64_t>& offsets = out.writeOffsets();
    std::vector<Vec3f>& points = out.writePoints();
    std::vector<float>& widths = out.writeWidths();
    std::vector<float>* previewMarks =
        marks && settings.writeMarks ? &out.addStrandChannel("_preview", 1.0f) : nullptr;

    const auto normals = scalp.vertexNormals();
    const auto& meshPoints = scalp.points();
    const auto& triangles = scalp.triangles();
    forEach(keptCount, [&](std::size_t begin, std::size_t end) {
        // The distance of each point from the root, once per chunk instead of a division per
        // point; the same expression, so the same bits.
        float along[257];
        for (std::size_t k = 0; k < perStrand; ++k)
            along[k] = settings.length * static_cast<float>(k) / static_cast<float>(segments);
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
                strandPoints[k] = position + normal * along[k];
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
