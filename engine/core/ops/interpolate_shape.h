#pragma once
// The shape stage of Interpolate, as plain functions on values: each strand evaluated from its
// binding (interpolate_binding.h) and the current guide shapes. It runs on every evaluation and
// searches nothing; what it reads of a guide is resampled once into InterpolateGuideRows.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/vec3.h"
#include "graph/ramp.h"
#include "ops/interpolate_binding.h"
#include "strands/guide.h"
#include "strands/strand_set.h"

namespace velmorin {

class ScalpMesh;

// The guides resampled for the shape stage. Immutable once shared.
struct InterpolateGuideRows {
    std::size_t sampleCount = 0;  // S, the same for every guide
    std::vector<Vec3f> offsets;   // guide g's sample j at g * S + j, from its root
    // The same offsets laid out for the shape stage's loops over samples: per guide three runs of
    // `planarStride` floats (x, then y, then z; zero past S), guide g's at g * 3 * planarStride.
    // Empty in rows made by hand: the shape stage then lays them out itself.
    std::size_t planarStride = 0;
    std::vector<float> planar;
    std::vector<float> lengths;         // arc length per guide
    std::vector<Vec3f> normals;         // scalp normal at each guide's root (unit), or zero
    std::vector<std::uint8_t> turns;    // whether the guide turns with the surface
    std::vector<std::uint64_t> hashes;  // per guide, of its id and points: which guides changed
    // Per layer painted on the guides (a value per guide, or a point layer's root value), its
    // name and values; guides without it read 0.
    std::vector<std::string> layerNames;
    std::vector<std::vector<float>> layers;

    std::size_t guideCount() const { return lengths.size(); }
};

// Whether a guide can shape strands: at least 2 points, all of them numbers.
bool isUsableGuide(const Guide& guide);

// The rows of `guides` (each usable) at S samples: the most points any guide has, 2 to 64. A
// guide of S points is taken as it stands, others are resampled at equal arc steps. With a scalp,
// a guide rooted on it turns with the surface.
InterpolateGuideRows makeGuideRows(std::span<const Guide* const> guides, const ScalpMesh* scalp);

struct ShapeSettings {
    bool blendDirections = false;  // blend `directions`, else `offsets`
    bool preserveLength = true;
    bool takeLength = false;  // take `length`, else `shape`
    float limitDistance = 0.0f;
    Ramp falloff;
};

// How the shape stage runs its strands: side by side, strands of one point count one per lane,
// sixteen at a time where the processor has AVX-512 (widest), eight where it has AVX (widest
// without AVX-512, and eight) or four (four; SSE, every x86-64), the rest one by one; or all one
// by one. Each strand's blend runs over sixteen samples at a time where the processor has AVX-512
// (widest), eight with AVX (widest, eight), else four (four, and one by one). All give the same
// bits; tests compare them.
enum class ShapeLanes { widest, eight, four, oneByOne };

// Shapes the listed strands (all when `only` is empty) of `in` into `outPoints` (the points of a
// set of the same layout). `state` is the binding of `in`'s strands: where it lists a root per
// strand, those are taken as the strands' first points. With a list, strands it leaves alone keep
// what `outPoints` holds; with none, every point is written (a strand nothing shapes gets its
// incoming points), so `outPoints` may be fresh memory. `influence` is empty or one value per
// strand, written for the shaped strands. Parallel by 256 strands; the same bits at any thread
// count.
void shapeStrands(const InterpolateState& state, const InterpolateGuideRows& rows,
                  const ShapeSettings& settings, const StrandSet& in, std::span<Vec3f> outPoints,
                  std::span<float> influence, std::span<const std::uint64_t> only = {},
                  ShapeLanes lanes = ShapeLanes::widest);

// Blends each guide layer into a per-strand channel of `out` for the listed strands (all when
// `only` is empty); a strand with no guide keeps its channel's value, or 0.
void writeGuideLayers(const InterpolateState& state, const InterpolateGuideRows& rows,
                      StrandSet& out, std::span<const std::uint64_t> only = {});

// The strands with a record of a guide whose `changed` entry is not 0, ascending.
std::vector<std::uint64_t> strandsBoundTo(const Binding& binding,
                                          std::span<const std::uint8_t> changed);

}  // namespace velmorin
