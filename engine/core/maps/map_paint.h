#pragma once
// Painting scalp maps: dabs stamped on a value per scalp vertex or on a texture's texels, smoothing
// over the scalp's neighbours, and filling. One stamp rule serves both kinds of map:
//
//   w = strength * weight, skipped unless above 0, at most 1
//   target: replace d, add b + d, subtract b - d, clampMaximum min(d, b) (each clamped to 0-1)
//   new value = clamp(v + (target - v) * w, 0, 1), written only when it differs
//
// where v is the current value, d the dab's value and b the value the stroke found (v itself when
// no starting values are given), so that the dabs of one stroke don't pile up.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mesh/scalp_mesh.h"
#include "strands/strand_root.h"

namespace velmorin {

class Texture;
class TexturePaint;

enum class PaintMode { Replace = 0, Add = 1, Subtract = 2, ClampMaximum = 3 };

// Which channels of a colour map a paint reaches: bit 0 red, 1 green, 2 blue, 3 alpha. A gray map
// has one value, which every paint reaches whatever its mask.
using ChannelMask = std::uint8_t;
inline constexpr ChannelMask kAllChannels = 0xF;

// A mask from letters of "rgba" in any order ("rgb", "a"). Throws TextureError "name at least one
// channel of rgba" for empty text and "channels are letters of rgba, not '<text>'" for others.
ChannelMask parseChannelMask(std::string_view text);
// The mask's letters in rgba order.
std::string channelMaskText(ChannelMask mask);

// A dab of paint.
struct MapDab {
    SurfacePoint center;                     // where on the scalp it lands
    float radius = 1.0f;                     // world units
    float strength = 1.0f;                   // scales every weight
    std::array<float, 4> value{1, 1, 1, 1};  // per channel; a gray map takes value[0]
    PaintMode mode = PaintMode::Replace;
    ChannelMask channels = kAllChannels;
    // The falloff and stamp that paintMapDab uses when it is given no weight function: full
    // weight out to `hardness` of the radius, then (1 - u^2)^2 down to 0 at the radius; times the
    // alpha's luminance in the surface's tangent plane at `center`, the radius reaching the
    // alpha's half width and turned by `alphaAngle` degrees.
    float hardness = 0.5f;
    std::shared_ptr<const Texture> alpha;
    float alphaAngle = 0.0f;
    bool alphaInvert = false;
};

// A vertex that a dab reaches, with the dab's weight there.
struct MapHit {
    std::uint32_t vertex;
    float weight;
};

// Stamps the dab on a vertex map (`channels` values per scalp vertex). Each vertex may be hit
// once. `strokeStart`, when given, holds the map's values when the stroke began. Returns how many
// vertices changed. Throws std::invalid_argument "stampVertexMap: a map has 1 channel (gray) or 4
// (color)", "stampVertexMap: one value per scalp vertex and channel", "stampVertexMap: the stroke's
// starting values have another size", "stampVertexMap: a hit names no vertex of the scalp".
std::size_t stampVertexMap(std::span<float> values, int channels, const MapDab& dab,
                           const ScalpMesh& scalp, std::span<const MapHit> hits,
                           std::span<const float> strokeStart = {});

// Blends each hit vertex's values toward the mean of its neighbours on the scalp, by
// min(strength * weight, 1), in the mask's channels; all read before any is written. Returns how
// many vertices changed. Throws std::invalid_argument "smoothVertexMap: a map has 1 channel (gray)
// or 4 (color)", "smoothVertexMap: one value per scalp vertex and channel, with the scalp's
// neighbors", "smoothVertexMap: a hit names no vertex of the scalp".
std::size_t smoothVertexMap(std::span<float> values, int channels, const ScalpMesh& scalp,
                            std::span<const MapHit> hits, float strength,
                            ChannelMask mask = kAllChannels);

// Sets the mask's channels of every vertex to `value` (`channels` numbers). A map of another size
// than vertexCount * channels starts over, black with alpha 1, before the fill. Throws
// std::invalid_argument "fillMapValues: a map has 1 channel (gray) or 4 (color)" and
// "fillMapValues: incomplete map value" when `value` has fewer than `channels` numbers.
void fillMapValues(std::vector<float>& values, std::size_t vertexCount, int channels,
                   std::span<const float> value, ChannelMask mask = kAllChannels);

// What a dab paints on: a vertex map, or a texture map's paint.
class MapCanvas {
  public:
    // `values` holds `channels` values per scalp vertex; `strokeStart`, when not empty, the values
    // when the stroke began. The spans must outlive the canvas.
    static MapCanvas vertices(std::span<float> values, int channels,
                              std::span<const float> strokeStart = {});
    static MapCanvas texture(TexturePaint& paint);

    bool isTexture() const { return paint_ != nullptr; }

  private:
    friend std::size_t paintMapDab(MapCanvas& canvas, const ScalpMesh& scalp, const MapDab& dab,
                                   const Vec3f& center, float radius,
                                   const std::function<float(const Vec3f&)>& weight);
    std::span<float> values_;
    std::span<const float> strokeStart_;
    int channels_ = 1;
    TexturePaint* paint_ = nullptr;
};

// Paints a dab on the canvas. The triangles within `radius` of `center` (by the scalp's surface
// tree) are in reach; `weight` gives the dab's weight at a surface point (it is called from several
// threads at once), and without one the dab's own falloff and alpha apply around `center`. A
// vertex map stamps the vertices of those triangles; a texture map rasterises each triangle in UV
// space, and each covered texel takes the weight at its surface point. Returns how many vertices
// or texels changed. Throws TextureError "the scalp has no UVs to paint a texture map on" for a
// texture on a scalp without UVs, and stampVertexMap's errors.
std::size_t paintMapDab(MapCanvas& canvas, const ScalpMesh& scalp, const MapDab& dab,
                        const Vec3f& center, float radius,
                        const std::function<float(const Vec3f&)>& weight = {});

// The weight of the dab's own falloff and alpha at a point (see MapDab).
float mapDabWeight(const MapDab& dab, const SurfaceFrame& frame, const Vec3f& center, float radius,
                   const Vec3f& point);

}  // namespace velmorin
