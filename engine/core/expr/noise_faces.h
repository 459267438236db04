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

}  // namespace velmorin::noise_faces
