#pragma once
// The faces of lattice noise along z for eight lines at once, one line per lane: the hashes of a
// face's four corners and their gradients blended across x and y, as FractalNoiseAlongZ blends one
// face for one line. A line's face costs four 64-bit hash multiplies and a dozen small table reads;
// in lanes, eight lines' faces cost what one costs alone. Each lane gives the bits of the one-line
// blend: the same integer steps and the same IEEE operations in the same order, with no fused
// multiply-add.

#include <cstddef>
#include <cstdint>

namespace velmorin::noise_faces {

inline constexpr std::size_t kLanes = 8;
// The most faces one line's samples may reach in one octave.
inline constexpr std::size_t kMostFaces = 64;

// One octave's lines, lane by lane.
struct FaceLanes {
    // Per corner of the line's x and y cell (x + 2 y): the lattice hash's seed and x and y parts.
    alignas(64) std::uint64_t cornerBase[4][kLanes];
    // The lattice z of the first face.
    alignas(64) std::int64_t firstFace[kLanes];
    // The line's offsets in its x and y cell, and their fades.
    alignas(32) float fx[kLanes];
    alignas(32) float fy[kLanes];
    alignas(32) float fadeX[kLanes];
    alignas(32) float fadeY[kLanes];
};

// The faces of a group of lines: per face and lane, the three channels (and one unused lane, 0) of
// the noise on the face as a line in the offset along z, constant + slope * fz. Lanes sit in the
// order slotOf gives, two to a 32-byte row, as the blend leaves them.
struct FaceRows {
    alignas(64) float constant[kMostFaces][kLanes][4];
    alignas(64) float slope[kMostFaces][kLanes][4];
};
constexpr std::size_t slotOf(std::size_t lane) {
    return 2 * (lane % 4) + lane / 4;
}

// The kernels, by the instructions they need: AVX2 makes each 64-bit multiply of three 32-bit
// ones; AVX-512 (with DQ, BW and VL) multiplies 64-bit lanes at once.
enum class FaceKernel { None, Avx2, Avx512 };
// The widest kernel this processor runs.
FaceKernel widestFaceKernel();

// Faces firstFace[l] to firstFace[l] + faces - 1 of every lane l into rows, face f of lane l at
// [f][slotOf(l)] (faces <= kMostFaces), by `kernel`, which the processor must run (not None).
void blendFaceLanes(FaceKernel kernel, const FaceLanes& lanes, std::size_t faces, FaceRows& rows);

// The faces a line may reach in one octave for the per-line tables below: a sample picks its two
// faces from 32 floats with one two-register permute per channel and part.
inline constexpr std::size_t kMostTableFaces = 32;
// The faces of a group of lines laid out line by line: for lane l and channel c, face f's constant
// and slope at [l][c][f], so that 16 samples of the line pick their faces side by side. Faces past
// the count blended are left as they were and are never picked.
struct FaceTables {
    alignas(64) float constant[kLanes][3][kMostTableFaces];
    alignas(64) float slope[kLanes][3][kMostTableFaces];
};
// blendFaceLanes's faces, to the same bits, into tables (faces <= kMostTableFaces), by the AVX-512
// kernel: widestFaceKernel() must be Avx512.
void blendFaceTables(const FaceLanes& lanes, std::size_t faces, FaceTables& tables);

// Every lane's x and y cell part (all of FaceLanes but firstFace) for the lines through x[l] and
// y[l] (eight each) at `frequency`, each lane with the steps of the one-line walk, by the AVX-512
// kernel.
void setLineLanes(std::uint64_t seed, float frequency, const float* x, const float* y,
                  FaceLanes& lanes);

// One octave's `count` samples of a line in 16 lanes, by the AVX-512 kernel. For each sample
// z[i] * frequency: its cell as a number, its offset in the cell and the offset's fade, each lane
// with the operations of the one-line walk (floorOf's steps, noiseFade's products in their order),
// into cell, offset and fade, which hold count rounded up to 16 (the lanes past count hold
// something, unused). Gives false, and no cells, where a sample lies outside +-`reach`.
bool placeSampleLanes(const float* z, std::size_t count, float frequency, float reach,
                      std::int32_t* cell, float* offset, float* fade, std::int32_t& lowest,
                      std::int32_t& highest);
// Adds one octave to the sums of a line's samples (count samples, as placeSampleLanes left them;
// sums of channel c at sums[c * stride + i], count rounded up to 16 of them): each sample blends
// the faces below and above its cell, read from line `line` of `tables` (its lowest cell's lower
// face first), times `weight`, with the operations and order of the one-line blend. The `first`
// octave adds to sums of 0 and need not find them there.
void blendSampleLanes(const std::int32_t* cell, const float* offset, const float* fade,
                      std::size_t count, std::int32_t lowest, const FaceTables& tables,
                      std::size_t line, float weight, bool first, float* sums, std::size_t stride);
// Two lines of 1 to kMostPairSamples samples each, side by side in one 16-lane register: the first
// in lanes 0-7, the second in lanes 8-15. Short strands (up to 9 points) fill half the lanes alone.
inline constexpr std::size_t kMostPairSamples = 8;
// Each line's lowest and highest cell, and whether all its samples lie in reach (where not, its
// cells are not to be used).
struct SamplePairEnds {
    std::int32_t lowest[2] = {};
    std::int32_t highest[2] = {};
    bool plain[2] = {};
};
// placeSampleLanes for a pair: cell, offset and fade hold 16 lanes (64-byte aligned), the first
// line's samples from lane 0, the second's from lane 8.
void placeSamplePair(const float* za, std::size_t countA, const float* zb, std::size_t countB,
                     float frequency, float reach, std::int32_t* cell, float* offset, float* fade,
                     SamplePairEnds& ends);
// blendSampleLanes for a pair as placeSamplePair left it, both lines' faces within 16 of their
// lowest: per line (index 0 and 1) its lowest cell, table line and weight. Bit k of `blends` says
// whether line k takes this octave (its sums are left alone where not), of `first` whether its
// sums start from 0. Sums as there, 16 lanes a channel.
void blendSamplePair(const std::int32_t* cell, const float* offset, const float* fade,
                     const std::int32_t* lowest, const FaceTables& tables, std::size_t lineA,
                     std::size_t lineB, const float* weight, unsigned blends, unsigned first,
                     float* sums, std::size_t stride);

// The sums of `count` samples times `scale`, as x, y, z of each sample into out (3 * count floats);
// or, where `moved` is not null, from + that * amplitude float by float into moved, out untouched.
void storeSampleSums(const float* sums, std::size_t stride, std::size_t count, float scale,
                     float* out, const float* from, float amplitude, float* moved);

}  // namespace velmorin::noise_faces
