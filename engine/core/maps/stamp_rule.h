#pragma once
// The one stamp rule of vertex maps and textures (see map_paint.h), for one channel's value.

#include <algorithm>

#include "maps/map_paint.h"

namespace velmorin::detail {

// The value after a stamp of weight w (already scaled by strength and capped at 1): v the current
// value, b the value the stroke found, d the dab's value.
inline float stampValue(float v, float b, float d, float w, PaintMode mode) {
    float target = 0.0f;
    switch (mode) {
        case PaintMode::Replace:
            target = std::clamp(d, 0.0f, 1.0f);
            break;
        case PaintMode::Add:
            target = std::clamp(b + d, 0.0f, 1.0f);
            break;
        case PaintMode::Subtract:
            target = std::clamp(b - d, 0.0f, 1.0f);
            break;
        case PaintMode::ClampMaximum:
            target = std::min(std::clamp(d, 0.0f, 1.0f), b);
            break;
    }
    return std::clamp(v + (target - v) * w, 0.0f, 1.0f);
}

// Whether channel c of a map of `channels` channels takes paint under `mask`: a gray map's one
// value always does.
inline bool channelPainted(int channels, ChannelMask mask, int c) {
    return channels == 1 || ((mask >> c) & 1) != 0;
}

// The stamp's weight from a dab's strength and a point's weight: capped at 1, or 0 when not
// above 0 (a NaN weight paints nothing).
inline float stampWeight(float strength, float weight) {
    const float w = strength * weight;
    return w > 0.0f ? std::min(w, 1.0f) : 0.0f;
}

}  // namespace velmorin::detail
