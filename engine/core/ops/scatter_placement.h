#pragma once
// Root placement for the Scatter node, as plain functions on values: where every hair of a groom
// grows. Candidates are made per face with ids hashed from the seed, the face and a running index,
// so raising the density only adds strands and the preview thins by id. Blue-noise relaxation moves
// the candidates apart on the surface to give each an even spot; a blend between the even and the
// random spot keeps ids at every randomness. Nothing here reads params or fields: the node hands in
// a density callback, a guide mask and numbers.

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "base/vec3.h"
#include "strands/strand_root.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;
class GuideMask;

// The result of placement: per candidate its id, its random root and, in the same order, its even
// root. Without relaxation the even roots equal the random ones. Immutable once shared.
struct ScatterPlacement {
    std::vector<std::uint64_t> ids;
    std::vector<StrandRoot> randomRoots;
    std::vector<StrandRoot> evenRoots;

    std::size_t size() const { return ids.size(); }
};

// Density at a scalp location (strands per unit area); called from several threads at once, so
// it must not write anything shared. Where the density is a plain number the callback is empty.
using DensityAt = std::function<float(const StrandRoot& root, const Vec3f& position)>;

// What placement needs besides the mesh.
struct PlacementSettings {
    double density = 0.0;     // the working density D: the plain value or the map's stepped top
    DensityAt mappedDensity;  // empty for a plain density
    std::uint64_t seed = 0;   // the node's seed param
    const GuideMask* mask = nullptr;  // null or empty: the whole scalp
    double share = 1.0;               // candidates with unitFloat(id) at or above it are skipped
};

// The density the candidates are made at. A map whose largest sample M exceeds the plain value
// lifts it to M rounded up to the next step of an eighth of a decade, so painting moves candidates
// only when the map's maximum crosses a step. Non-finite samples are passed over.
double workingDensity(double plain, std::span<const float> mappedSamples);

// The growth area of each face: measured on the rest points where the mesh has them (a scalp
// that deforms keeps its strand count), else on its points.
std::vector<float> growthAreas(const ScalpMesh& scalp);

// The shared id test of density maps: whether a candidate of this id survives a density of
// `density` against the working density. Used by both layouts.
bool keptByDensity(std::uint64_t id, float density, double workingDensity);

// Random roots over the faces, with the density map and the guide mask applied. Candidates whose
// unitFloat(id) is at or above `settings.share` are skipped before any work; pass 1 when blue noise
// or a blend follows. The even roots are left equal to the random ones.
ScatterPlacement placeRandom(const ScalpMesh& scalp, std::span<const float> faceAreas,
                             const PlacementSettings& settings);

// The lanes the relaxation runs on: the widest the processor has (sixteen with AVX-512 for the
// neighbour search, eight with AVX for the push), at most eight (AVX and AVX2), or four (SSE, every
// x86-64). All give the same bits; tests compare them.
enum class RelaxLanes { widest, eight, four };

// Blue-noise relaxation: fills `placed.evenRoots` by 24 steps of particle repulsion on the surface,
// starting from the random roots. Results do not depend on the thread count.
void relaxPlacement(const ScalpMesh& scalp, const PlacementSettings& settings,
                    ScatterPlacement& placed, RelaxLanes lanes = RelaxLanes::widest);

// The size of the relaxation's neighbour lists.
inline constexpr int kRelaxNeighbors = 24;

// The relaxation's neighbour lists: for each position its 24 nearest others no farther than
// `range`, nearest first and equal distances in order of rank, padded with its own index where
// fewer lie in range. A position's rank is its index, or `ranks[index]` where given (then a
// permutation of the indices: the relaxation keeps candidates in grid order and ranks them by
// their place in the placement). `cell` is the size of the search grid's cells; it changes the
// speed, never the lists, and nor do `lanes`. `lists` takes 24 entries per position.
void nearestNeighbors(std::span<const Vec3f> positions, float cell, float range,
                      std::span<std::uint32_t> lists, RelaxLanes lanes = RelaxLanes::widest,
                      std::span<const std::uint32_t> ranks = {});

// The roots at `randomness` between the even (0) and the random (1) roots, pair by pair.
std::vector<StrandRoot> blendRoots(const ScalpMesh& scalp, std::span<const StrandRoot> even,
                                   std::span<const StrandRoot> random, float randomness);

struct GridSettings {
    int rows = 100;
    int columns = 100;
    float jitter = 0.0f;  // gridRandom: share of a cell each root may move
    std::uint64_t seed = 0;
    double share = 1.0;
    double density = 0.0;  // working density, for a density map
    DensityAt mappedDensity;
    const GuideMask* mask = nullptr;
};

// One root per cell of a rows x columns grid over the scalp's UVs (the scalp must have UVs). The
// lower face wins a cell that several UV triangles cover. Even and random roots are the same.
ScatterPlacement placeGrid(const ScalpMesh& scalp, const GridSettings& settings);

// --- Preview and limits -----------------------------------------------------------------------

// How much of a scatter the preview keeps.
struct PreviewPlan {
    double preview = 1.0;  // p: the preview density in force (after the point budget)
    double coarse = 1.0;   // q: the share every preview keeps at least
    double kept = 1.0;     // s: the share of candidates that can be kept at all
    bool keepAll = false;  // previewAll, or 250 strands or fewer
    bool budgetThinned = false;
    bool fullRun() const { return preview >= 1.0; }
};

struct PreviewRequest {
    double expectedCount = 0.0;  // N
    std::size_t pointsPerStrand = 9;
    double previewDensity = 1.0;
    double pointBudget = 0.0;  // 0 or less: none
    bool previewAll = false;
};

PreviewPlan planPreview(const PreviewRequest& request);

// Checks the counts before any placement; throws GraphError with the artist's message. Returns the
// "heavy" warning text, or empty. `grid` picks the uvGrid wording.
std::string checkScatterCounts(double workingDensity, double expectedCount, bool grid);
// Throws GraphError when the kept points pass the preview's or the memory's limit.
void checkScatterPoints(const PreviewPlan& plan, const PreviewRequest& request);

// Per placed strand: 0 dropped, else its preview mark (1 kept by both tests, 0 only by the preview
// density, 2 only by the coarse share). Returns the kept count; `anyPartial` says whether a mark
// other than 1 was given.
std::size_t selectStrands(std::span<const std::uint64_t> ids, const PreviewPlan& plan,
                          std::vector<std::uint8_t>& marks, bool& anyPartial);

struct GrowSettings {
    int segments = 8;
    float length = 1.0f;
    std::int32_t faceOffset = 0;  // first face of a scalp piece within the groom's scalp
    bool writeMarks = false;      // write `_preview`
};

// The strands of the kept candidates (marks from selectStrands; null keeps all, marked 1), grown
// straight along the normal with segments + 1 points. Roots are the given ones, offset into the
// groom's scalp.
StrandSet growStrands(const ScalpMesh& scalp, std::span<const std::uint64_t> ids,
                      std::span<const StrandRoot> roots, const std::vector<std::uint8_t>* marks,
                      std::size_t keptCount, const GrowSettings& settings);

// Hashing helpers of placement: the float that hashCombine(h, v) yields before its last mix, and
// the second and third draws of a SplitMix64 stream started at h.
float combinedUnit(std::uint64_t h, std::uint64_t v);
float streamDraw(std::uint64_t h, int draw);

}  // namespace velmorin
