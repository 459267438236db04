#pragma once
// Lattice noise: improved gradient noise on a hashed integer lattice, its fractal sums, cell noise
// and Voronoi cells. Expressions call it, and so do the operators that shape strands with noise.
// Every value is a pure function of the position and a seed, so that results never depend on
// thread count or order. Values are stable: tests pin a few exact numbers.

#include <cstddef>
#include <cstdint>
#include <span>

#include "base/vec3.h"

namespace velmorin {

// Family seeds: each family of functions has its own, so that the families are independent.
inline constexpr std::uint64_t kNoiseSeed = 0x6E01;         // noise, snoise, fbm, turbulence
inline constexpr std::uint64_t kVectorNoiseSeed = 0x6E02;   // vnoise, cnoise and their fractals
inline constexpr std::uint64_t kCellNoiseSeed = 0x6E03;     // cellnoise, ccellnoise
inline constexpr std::uint64_t kNoise4Seed = 0x6E04;        // noise(x, y, z, w), snoise4, fbm4
inline constexpr std::uint64_t kVectorNoise4Seed = 0x6E05;  // vnoise4, cnoise4, vfbm4, cfbm4
inline constexpr std::uint64_t kVoronoiSeed = 0xC0C1;       // voronoi, cvoronoi, pvoronoi

// The hash of one lattice corner. The coordinates are sign-extended to 64 bits.
constexpr std::uint64_t latticeHash(std::uint64_t seed, std::int64_t ix, std::int64_t iy,
                                    std::int64_t iz) {
    std::uint64_t h = seed ^ (static_cast<std::uint64_t>(ix) * 0x9E3779B185EBCA87ull) ^
                      (static_cast<std::uint64_t>(iy) * 0xC2B2AE3D27D4EB4Full) ^
                      (static_cast<std::uint64_t>(iz) * 0x165667B19E3779F9ull);
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    return h;
}

// The quintic blend 6t^5 - 15t^4 + 10t^3.
constexpr float noiseFade(float t) {
    return t * t * t * (t * (t * 6.0f - 15.0f) + 10.0f);
}

// floor(x) as a lattice coordinate; NaN gives 0 and huge values are held in range, so that no
// input is undefined.
std::int64_t latticeFloor(float x);

// One octave of gradient noise, about -1 to 1. `vector` fills all three components from the
// three gradient channels of each corner; the scalar form is channel 0.
float gradientNoise(const Vec3f& p, std::uint64_t seed);
Vec3f gradientNoiseVector(const Vec3f& p, std::uint64_t seed);
// The same with every lattice axis repeating after `period` cells (axes with a period below 1
// do not repeat).
float periodicNoise(const Vec3f& p, const Vec3f& period, std::uint64_t seed);
// Four dimensions: two 3D samples on the slices either side of w, blended by fade.
float gradientNoise4(const Vec3f& p, float w, std::uint64_t seed);
Vec3f gradientNoiseVector4(const Vec3f& p, float w, std::uint64_t seed);

// A fractal sum: octave o is sampled at p * lacunarity^o with amplitude gain^o and the seed
// hashCombine(seed, o); the sum is divided by the sum of amplitudes. Octaves are held to 1..16.
// With `spacing` above 0 (the distance between samples, in units of p), an octave whose cells
// are finer than the sampling fades out by 1 - smoothstep(0.5, 1, spacing * frequency); its
// amplitude still counts in the norm. `absolute` sums |noise| (turbulence).
struct Fractal {
    float octaves = 6.0f;
    float lacunarity = 2.0f;
    float gain = 0.5f;
    float spacing = 0.0f;
    bool absolute = false;
};
float fractalNoise(const Vec3f& p, const Fractal& fractal, std::uint64_t seed);
Vec3f fractalNoiseVector(const Vec3f& p, const Fractal& fractal, std::uint64_t seed);
float fractalNoise4(const Vec3f& p, float w, const Fractal& fractal, std::uint64_t seed);
Vec3f fractalNoiseVector4(const Vec3f& p, float w, const Fractal& fractal, std::uint64_t seed);

// fractalNoiseVector({x, y, z}, fractal, seed) for many z and one x and y (a line along z, as noise
// in a strand's own space walks), to within rounding. Each octave hashes a lattice cell's corners
// and blends them across x and y once, when z first enters the cell, so that a sample costs a few
// multiply-adds per octave; z rising step by step makes that once or twice a cell. Made once (on
// the stack, no allocation) for many lines, each begun by startLine. `fractal.absolute` is not
// supported.
class FractalNoiseAlongZ {
  public:
    FractalNoiseAlongZ(const Fractal& fractal, std::uint64_t seed);
    // Begins the line through x and y, sampled `spacing` apart (fractal.spacing for this line).
    void startLine(float x, float y, float spacing);
    Vec3f at(float z);
    // at(z[i]) into out[i] for every i (out.size() == z.size()), to the same bits: the samples of
    // a strand at once. Each octave blends the faces of every cell the samples reach in one pass,
    // then each sample reads the two around it, so that no sample waits on a cell change.
    void along(std::span<const float> z, std::span<Vec3f> out);

    // A line of alongLines: through x and y, sampled `spacing` apart (fractal.spacing for it), its
    // samples z into out (out.size() == z.size()). Where `moved` is not empty (its size and from's
    // that of z), the samples move points instead: moved[i] = from[i] + noise * amplitude, out
    // serving as scratch (left as it may be).
    struct Line {
        float x = 0.0f, y = 0.0f, spacing = 0.0f;
        std::span<const float> z;
        std::span<Vec3f> out;
        std::span<const Vec3f> from = {};
        std::span<Vec3f> moved = {};
        float amplitude = 0.0f;
    };
    // The lines that go side by side, and the most samples a line may have to go with them.
    static constexpr std::size_t kLineLanes = 8;
    static constexpr std::size_t kMostLaneSamples = 64;
    // startLine(line.x, line.y, line.spacing) then along(line.z, line.out) for every line (and the
    // move where a line asks for one), to the same bits. Where noiseLanesUsed() is not None,
    // kLineLanes lines at a time hash and blend the faces their samples reach side by side, one
    // line per lane, and each line then reads its own faces (with AVX-512, 16 samples at a time
    // from a table of its faces); a line with more than kMostLaneSamples samples, or whose samples
    // reach too many faces, takes along alone. Afterwards the line the walker holds is none in
    // particular: startLine again before at or along.
    void alongLines(std::span<const Line> lines);

  private:
    struct Octave {
        std::uint64_t seed = 0;
        std::int64_t cellX = 0, cellY = 0;
        std::int64_t cellZ = 0;
        bool cellValid = false;
        float cellBelow = 0.0f;      // the cell's lower z as a float: samples in it skip the floor
        float fx = 0.0f, fy = 0.0f;  // offsets in the x and y cell
        float fadeX = 0.0f, fadeY = 0.0f;  // noiseFade of the offsets
        // Per corner of the x and y cell (x + 2 y), the part of its lattice hash before z:
        // the seed with the corner's x and y products.
        std::uint64_t cornerBase[4] = {};
        // Per corner and gradient, the gradient's x and y part at the corner's offsets: the same
        // on every face of the line, so a face only picks from it.
        float cornerDot[4][12] = {};
        // The z gradients (-1, 0 or 1, by index 0 to 2) of two corners blended across x.
        float slopeAcross[3][3] = {};
        float frequency = 1.0f;
        float weight = 0.0f;
        // Per channel, the noise on the cell's lower and upper z faces as a line in the offset:
        // lower(fz) = low[c] + lowSlope[c] * fz, upper(fz) = high[c] + highSlope[c] * (fz - 1).
        // Four lanes, the three channels and one unused, so that a vector unit blends them at once.
        alignas(16) float low[4] = {};
        alignas(16) float lowSlope[4] = {};
        alignas(16) float high[4] = {};
        alignas(16) float highSlope[4] = {};
    };
    // alongLines with the AVX-512 kernel: each line's samples 16 at a time, every sample of a
    // lane picking its faces from its line's own table.
    void alongLinesWide(std::span<const Line> lines);
    // One line alone, with its points moved where it asks.
    void alongAlone(const Line& line);
    // A line's points moved by its samples in out, where it asks.
    static void moveAlong(const Line& line);
    // Per line (at most 8) and octave, the weight startLine gives for the line's spacing.
    void lineWeights(std::span<const Line> lines, float (*weights)[16]) const;
    void enterCell(Octave& octave, std::int64_t cellZ, float below) const;
    // One octave's noise at q = z * its frequency, times its weight, added to `sum` (four lanes,
    // the channels and one unused), entering the cell of q where it is not the one held.
    void addOctave(Octave& octave, float q, float* sum);
    // Sets one face (the cell's corners at lattice z `faceZ`) of every channel: four lanes of
    // `constant` and `slope`, the last unused.
    void blendFace(const Octave& octave, std::int64_t faceZ, float* constant, float* slope) const;

    Octave octaves_[16];
    Fractal fractal_;
    float spacing_ = -1.0f;  // the spacing the weights are for; none yet
    int octaveCount_ = 0;
    float scale_ = 0.0f;  // 1 / the sum of amplitudes, or 0
};

// The lane kernels FractalNoiseAlongZ::alongLines may put lines side by side with: none (one line
// at a time), AVX2 (each 64-bit multiply made of 32-bit ones) or AVX-512 (with DQ, BW and VL).
// Ordered, narrowest first.
enum class NoiseLanes { None, Avx2, Avx512 };
// The widest this processor runs.
NoiseLanes noiseLanesAvailable();
// The one alongLines uses: the narrower of noiseLanesAvailable() and setNoiseLanes's cap.
NoiseLanes noiseLanesUsed();
// Caps the kernel for all threads (Avx512, no cap, until called): for the tests and benchmarks that
// hold each kernel against the one-line path. The bits are the same whichever runs.
void setNoiseLanes(NoiseLanes most);

// A 0-1 value per unit cell (the hash of floor(p)), and three of them.
float cellNoise(const Vec3f& p);
Vec3f cellNoiseVector(const Vec3f& p);

// Voronoi cells: every unit cell holds one point, at a hashed offset of up to jitter / 2 from
// the cell's centre (jitter held to 0..1). f1 and f2 are the nearest and second-nearest
// distances; `point` and `color` belong to the nearest cell.
struct VoronoiCells {
    float f1 = 0.0f;
    float f2 = 0.0f;
    Vec3f point;
    Vec3f color;  // three 0-1 values of the nearest cell
};
VoronoiCells voronoiCells(const Vec3f& p, float jitter);
// The value of a Voronoi type (1 cell value, 2 f1, 3 f2, 4 f2 - f1, 5 edges) at p; type is
// rounded and held to 1..5. Before the search, p is displaced by fbmScale times fractal vector
// noise when fbmScale is above 0.
float voronoiValue(const VoronoiCells& cells, float type);
Vec3f voronoiDisplaced(const Vec3f& p, float fbmScale, const Fractal& fractal);

}  // namespace velmorin
