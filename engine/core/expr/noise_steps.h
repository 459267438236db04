#pragma once
// Small float steps the lattice noises share.

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace velmorin::noise_steps {

// std::floor, without the library call that a baseline x86-64 build makes of it. Floats of 2^23
// and more are whole already; the sign of zero is kept, as std::floor keeps it.
inline float floorOf(float x) {
    if (!(std::fabs(x) < 8388608.0f)) return x;
    const float t = static_cast<float>(static_cast<std::int32_t>(x));
    return t > x ? t - 1.0f : std::copysign(t, x);
}

// 0 below e0, 1 above e1, and the smooth cubic step between.
inline float smoothUnit(float e0, float e1, float x) {
    const float t = std::clamp((x - e0) / (e1 - e0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

}  // namespace velmorin::noise_steps
