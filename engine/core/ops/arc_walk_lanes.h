#pragma once
// The walk that Length and Resample make along a strand, eight strands of one point count side by
// side, one per lane. Each strand's arc lengths are summed, each arc it is asked for falls on the
// segment the one-strand forward walk would reach (found by counting the arcs below it), and each
// new point is the blend of its segment's ends: exactly the operations of the one-strand walk, in
// the same order, per lane, so that every point has the bits the one-strand walk gives it. There
// is no fused multiply-add (the build targets plain x86-64, and the kernel asks for AVX2 alone).
//
// Callers keep their one-strand walk for strands outside the lanes: where arcWalkLanesUsable() is
// false, for point counts above kArcWalkMostPoints, and for the strands left over when fewer than
// kArcWalkLanes of one count come together.

#include <cstddef>
#include <cstdint>

#include "base/vec3.h"

namespace velmorin {

inline constexpr std::size_t kArcWalkLanes = 8;
// The most points a strand in the lanes has, in and out: its columns sit on the stack.
inline constexpr std::size_t kArcWalkMostPoints = 64;

// Whether this processor and build run the lanes (x86-64 with AVX2, GCC or clang).
bool arcWalkLanesUsable();

// Length's trim of eight strands of `pointCount` points (2 to kArcWalkMostPoints): strand l, from
// points[l], keeps keep[l] of its arc length, its points at equal arc steps written to out[l]
// (another array than the input's). The same bits as trimming each alone.
void trimLanes(const Vec3f* const* points, const float* keep, std::size_t pointCount,
               Vec3f* const* out);

// Resample's even walk of eight strands of `pointCount` points (2 to kArcWalkMostPoints) to
// `segments` + 1 points each (at most kArcWalkMostPoints), written to out[l], with the widths
// widths[l] carried along to widthsOut[l] (1 everywhere where `widths` is null; none written where
// `widthsOut` is null). Returns a bit per lane whose strand has no length above 0: the even walk
// keeps such a strand as it is, and its lane's output is to be overwritten by the caller.
unsigned resampleLanes(const Vec3f* const* points, const float* const* widths,
                       std::size_t pointCount, std::uint32_t segments, Vec3f* const* out,
                       float* const* widthsOut);

}  // namespace velmorin
