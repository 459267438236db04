#pragma once
// fillTubes of Interpolate: strands rooted inside a tube guide's section ride that tube instead of
// blending guides. A rider keeps its place in the section (tubeU, tubeV, in section units) from
// root to tip, so it flattens, twists and tapers with the tube; strands just outside a tube lean
// toward riding it, so that no seam shows round its outline.
//
// The tube test lays each tube's root section onto the skin (turned from the guide's first
// direction onto the scalp normal under its root) and asks where a strand's root falls in it. The
// binding stage reads which guide each strand rides (one record of weight 1); the shape stage
// reads the rest here, after the guides' blend.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "base/vec3.h"
#include "editing/point_tree.h"
#include "ops/interpolate_binding.h"
#include "ops/interpolate_shape.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;

// The tube guides among the usable guides of one run: their footprints on the skin and their
// sections along their length. Immutable once shared.
struct TubeGuides {
    std::vector<std::int32_t> tubeOf;    // per guide its tube, -1 for a guide without one
    std::vector<std::uint32_t> guideOf;  // per tube its guide
    // Per tube, the root section laid on the skin: origin, the section's x and y axes (unit, in
    // world) and the skin's normal; the width, aspect and twist at the root.
    std::vector<Vec3f> origin, footSide, footUp, footNormal;
    std::vector<float> width, aspect, cosTwist, sinTwist;
    std::vector<float> reach;  // farthest a root can lie from the origin and be tested
    std::vector<TubeFields> sections;
    PointTree tree;  // over the origins
    float greatestReach = 0.0f;
    float tubeBlend = 0.0f;
    // Per tube S samples at equal arc steps: the section's centre, and the world step of one
    // section unit across (u) and up (v), width, aspect and twist applied.
    std::size_t sampleCount = 0;
    std::vector<Vec3f> centres, across, upward;
    std::vector<float> lengths;  // per tube, its guide's arc length
    // Per guide, a hash of its points and tube: which guides a shape update changes.
    std::vector<std::uint64_t> hashes;

    std::size_t tubeCount() const { return guideOf.size(); }
};

// A guide has a tube when its tube fields say more than the default (editing/tube_shapes.h
// isEmptyTube). `guides` are the usable guides in binding order; `sampleCount` as the shape rows.
// `tubeBlend` is clamped to 0..1.
std::shared_ptr<const TubeGuides> makeTubeGuides(std::span<const Guide* const> guides,
                                                 const ScalpMesh* scalp, std::size_t sampleCount,
                                                 float tubeBlend);

// Per strand where it stands against the tubes. Immutable once shared.
struct TubeBinding {
    std::shared_ptr<const TubeGuides> tubes;
    // Per strand: the guide it rides or leans toward (-1: none), whether it rides, its place in
    // that tube's section, and how far it leans (1 for a rider, 0 to 1 just outside).
    std::vector<std::int32_t> guide;
    std::vector<std::uint8_t> riding;
    std::vector<float> u, v, share;
    std::uint64_t ridersHash = 0;  // of who rides what: the binding changes with it
    std::uint64_t hash = 0;        // of all of it: the shapes change with it

    std::size_t strandCount() const { return guide.size(); }
};

// The tube test for every strand root (NaN roots test nothing). A strand inside one or more
// sections rides the one it lies most centrally in (deepest inside its outline, in section units;
// ties to the lower guide); outside all but within tubeBlend of outlines (as a share of each
// tube's half-width at its root) it leans toward the nearest by 1 - gap / edge. With region
// labels a strand tests only the tubes of its own region, and with parts none across a part.
// Parallel by 256 strands; the same at any thread count.
struct TubeTestInputs {
    std::span<const Vec3f> strandRoots;
    std::span<const Vec3f> strandNormals;        // empty, or one per strand (for parts)
    std::span<const std::int32_t> strandLabels;  // empty, or a region label per strand
    std::span<const std::int32_t> guideLabels;   // empty, or a region label per guide
    const PartsSnapshot* parts = nullptr;
    std::span<const Vec3f> guideRoots;
};
std::shared_ptr<const TubeBinding> bindTubes(std::shared_ptr<const TubeGuides> tubes,
                                             const TubeTestInputs& inputs);

// Reshapes the listed strands (all when `only` is empty) that ride or lean: a rider follows its
// tube's section at its place from root to tip, at its guide's length or less where its place
// runs shorter (inside a bend, round a twist), so it never leaves the tube; the root's gap from
// the section eases off over the first quarter; a leaner mixes its blend toward that by its share.
// limitDistance's influence mixes the incoming strand back in as in the shape stage. Points that
// no tube touches are left alone. Parallel by 256 strands; the same bits at any thread count.
void rideTubes(const InterpolateState& state, const TubeBinding& tubes,
               const ShapeSettings& settings, const StrandSet& in, std::span<Vec3f> outPoints,
               std::span<const std::uint64_t> only = {});

// Writes tubeId (the ridden guide's index, -1 for none), tubeU and tubeV (0 for none) of the
// listed strands (all when `only` is empty) into `out`.
void writeTubeChannels(const TubeBinding& tubes, StrandSet& out,
                       std::span<const std::uint64_t> only = {});

// `strands` (ascending) joined by the strands that ride or lean toward a guide whose `changed`
// entry is not 0, ascending and without repeats.
std::vector<std::uint64_t> addTubeStrands(const TubeBinding& tubes,
                                          std::span<const std::uint8_t> changed,
                                          std::vector<std::uint64_t> strands);

}  // namespace velmorin
