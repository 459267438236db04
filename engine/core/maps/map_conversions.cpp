#include "maps/map_conversions.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "base/parallel.h"
#include "maps/uv_raster.h"

namespace velmorin {
namespace {

constexpr std::size_t kVertexGrain = 1024;
constexpr std::size_t kRowGrain = 16;
// How far past the UV islands' edges texels take their neighbours' values.
constexpr int kPaddingTexels = 4;

void checkChannels(int channels, const char* operation) {
    if (channels != 1 && channels != 4) {
        throw std::invalid_argument(std::string(operation) +
                                    ": a map has 1 channel (gray) or 4 (color)");
    }
}

std::uint8_t toByte(float value) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
}

// Spreads covered texels into uncovered ones next to them, one ring per pass: each such texel
// takes the mean of its covered neighbours (of eight).
void padIslands(std::vector<std::uint8_t>& pixels, std::vector<std::uint8_t>& covered, int width,
                int height, int channels) {
    const std::size_t stride = static_cast<std::size_t>(channels);
    std::vector<std::uint8_t> next = covered;
    for (int pass = 0; pass < kPaddingTexels; ++pass) {
        parallelRange(
            0, static_cast<std::size_t>(height), kRowGrain,
            [&](std::size_t begin, std::size_t end) {
                for (std::size_t y = begin; y < end; ++y) {
                    for (int x = 0; x < width; ++x) {
                        const std::size_t at =
                            y * static_cast<std::size_t>(width) + static_cast<std::size_t>(x);
                        if (covered[at]) continue;
                        std::array<unsigned, 4> sum{};
                        unsigned count = 0;
                        for (int dy = -1; dy <= 1; ++dy) {
                            const long ny = static_cast<long>(y) + dy;
                            if (ny < 0 || ny >= height) continue;
                            for (int dx = -1; dx <= 1; ++dx) {
                                const int nx = x + dx;
                                if (nx < 0 || nx >= width) continue;
                                const std::size_t n =
                                    static_cast<std::size_t>(ny) * static_cast<std::size_t>(width) +
                                    static_cast<std::size_t>(nx);
                                if (!covered[n]) continue;
                                for (std::size_t c = 0; c < stride; ++c)
                                    sum[c] += pixels[n * stride + c];
                                ++count;
                            }
                        }
                        if (count == 0) continue;
                        for (std::size_t c = 0; c < stride; ++c) {
                            pixels[at * stride + c] =
                                static_cast<std::uint8_t>((sum[c] + count / 2) / count);
                        }
                        next[at] = 1;
                    }
                }
            });
        covered = next;
    }
}

// Rasterises the scalp's UV triangles into a square image: value(triangle, l0, l1, l2, out) writes
// a texel's channels (0 to 1); the islands are then padded.
template <class Value>
TexturePaint rasterize(const ScalpMesh& scalp, int resolution, int channels, Value&& value) {
    // The size is checked by the paint before any memory is taken for the image.
    TexturePaint blank(resolution, resolution, channels);
    const std::size_t stride = static_cast<std::size_t>(channels);
    const std::size_t texels =
        static_cast<std::size_t>(resolution) * static_cast<std::size_t>(resolution);
    std::vector<std::uint8_t> pixels(blank.bytePixels().begin(), blank.bytePixels().end());
    std::vector<std::uint8_t> covered(texels, 0);
    detail::rasterizeScalpUvs(scalp, resolution, resolution,
                              [&](std::uint32_t t, int x, int y, float l0, float l1, float l2) {
                                  std::array<float, 4> out{0, 0, 0, 1};
                                  value(t, l0, l1, l2, out);
                                  const std::size_t at = static_cast<std::size_t>(y) *
                                                             static_cast<std::size_t>(resolution) +
                                                         static_cast<std::size_t>(x);
                                  for (std::size_t c = 0; c < stride; ++c)
                                      pixels[at * stride + c] = toByte(out[c]);
                                  covered[at] = 1;
                              });
    padIslands(pixels, covered, resolution, resolution, channels);
    return TexturePaint(resolution, resolution, channels, std::move(pixels));
}

void toChannels(const Rgba& color, int channels, float* out) {
    if (channels == 1) {
        out[0] = luminance(color);
    } else {
        out[0] = color.r;
        out[1] = color.g;
        out[2] = color.b;
        out[3] = color.a;
    }
}

}  // namespace

TexturePaint textureFromVertexMap(std::span<const float> values, int channels,
                                  const ScalpMesh& scalp, int resolution) {
    checkChannels(channels, "textureFromVertexMap");
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != scalp.pointCount() * stride) {
        throw std::invalid_argument("textureFromVertexMap: one value per scalp vertex and channel");
    }
    if (!scalp.hasUvs()) throw TextureError("the scalp has no UVs to paint a texture map on");
    const auto& triangles = scalp.triangles();
    return rasterize(scalp, resolution, channels,
                     [&](std::uint32_t t, float l0, float l1, float l2, std::array<float, 4>& out) {
                         const Triangle& corners = triangles[t];
                         for (std::size_t c = 0; c < stride; ++c) {
                             out[c] = values[corners[0] * stride + c] * l0 +
                                      values[corners[1] * stride + c] * l1 +
                                      values[corners[2] * stride + c] * l2;
                         }
                     });
}

std::vector<float> vertexMapFromTexture(const Texture& texture, const ScalpMesh& scalp,
                                        int channels) {
    checkChannels(channels, "vertexMapFromTexture");
    if (!scalp.hasUvs()) throw TextureError("the scalp has no UVs to read a texture map at");
    const std::size_t stride = static_cast<std::size_t>(channels);
    std::vector<float> values(scalp.pointCount() * stride, 0.0f);
    const auto topology = scalp.topology();
    const auto& triangles = scalp.triangles();
    const auto& uvs = scalp.uvs();
    parallelRange(0, scalp.pointCount(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t v = begin; v < end; ++v) {
            const auto around = topology->vertexTriangles(static_cast<std::uint32_t>(v));
            if (around.empty()) continue;
            const std::uint32_t t = around.front();
            int corner = 0;
            while (corner < 2 && triangles[t][corner] != v)
                ++corner;
            const Uv& uv = uvs[static_cast<std::size_t>(t) * 3 + static_cast<std::size_t>(corner)];
            toChannels(texture.sample(uv.u, uv.v), channels, values.data() + v * stride);
        }
    });
    return values;
}

std::vector<float> projectVertexMap(std::span<const float> values, int channels,
                                    const ScalpMesh& oldScalp, const ScalpMesh& newScalp) {
    checkChannels(channels, "projectVertexMap");
    if (oldScalp.triangleCount() == 0) throw TextureError("the old scalp has no faces");
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != oldScalp.pointCount() * stride) {
        throw TextureError("the map has " + std::to_string(values.size() / stride) +
                           " vertices' values and the old scalp " +
                           std::to_string(oldScalp.pointCount()) + " vertices");
    }
    std::vector<float> result(newScalp.pointCount() * stride, 0.0f);
    const auto& points = newScalp.points();
    parallelRange(0, newScalp.pointCount(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t v = begin; v < end; ++v) {
            const ClosestPoint hit = oldScalp.closestPoint(points[v]);
            if (!hit.found()) continue;
            const Triangle& corners = oldScalp.triangles()[hit.root.face];
            const float w0 = 1.0f - hit.root.u - hit.root.v;
            for (std::size_t c = 0; c < stride; ++c) {
                result[v * stride + c] = values[corners[0] * stride + c] * w0 +
                                         values[corners[1] * stride + c] * hit.root.u +
                                         values[corners[2] * stride + c] * hit.root.v;
            }
        }
    });
    return result;
}

TexturePaint projectTexture(const Texture& texture, const ScalpMesh& oldScalp,
                            const ScalpMesh& newScalp, int resolution) {
    if (!newScalp.hasUvs())
        throw TextureError("the new scalp has no UVs to paint a texture map on");
    if (oldScalp.triangleCount() == 0) throw TextureError("the old scalp has no faces");
    if (!oldScalp.hasUvs())
        throw TextureError("the old scalp has no UVs to read the texture map at");
    const int channels = texture.channels() == 1 ? 1 : 4;
    const auto& triangles = newScalp.triangles();
    const auto& points = newScalp.points();
    return rasterize(newScalp, resolution, channels,
                     [&](std::uint32_t t, float l0, float l1, float l2, std::array<float, 4>& out) {
                         const Triangle& corners = triangles[t];
                         const Vec3f p = points[corners[0]] * l0 + points[corners[1]] * l1 +
                                         points[corners[2]] * l2;
                         const ClosestPoint hit = oldScalp.closestPoint(p);
                         if (!hit.found()) return;
                         const Uv uv = oldScalp.uvAt(hit.root);
                         toChannels(texture.sample(uv.u, uv.v), channels, out.data());
                     });
}

ScalpMap projectScalpMap(const std::string& name, const ScalpMap& map, const ScalpMesh& oldScalp,
                         const ScalpMesh& newScalp, const std::string& imagePath) {
    ScalpMap result = map;
    if (map.kind == MapKind::Vertices) {
        result.values = projectVertexMap(map.values, map.channels, oldScalp, newScalp);
        return result;
    }
    const std::string prefix = "map '" + name + "' can't move to the new scalp: ";
    if (map.texture.empty()) throw TextureError(prefix + "no file");
    std::shared_ptr<const Texture> texture;
    try {
        texture = Texture::load(map.texture);
    } catch (const TextureError&) {
        throw TextureError(prefix + "its image is missing (" + map.texture + ")");
    }
    if (imagePath.empty()) throw TextureError(prefix + "nowhere to write its projected image");
    if (texture->isUdim()) {
        throw TextureError(
            "a scalp map is one image over UVs 0-1: UDIM tile sets can't be used as scalp maps");
    }
    TexturePaint image =
        projectTexture(*texture, oldScalp, newScalp, std::max(texture->width(), texture->height()));
    image.save(imagePath);
    result.texture = imagePath;
    result.channels = image.channels();
    return result;
}

std::vector<float> convertMapChannels(std::span<const float> values, int fromChannels,
                                      int toChannels) {
    checkChannels(fromChannels, "convertMapChannels");
    checkChannels(toChannels, "convertMapChannels");
    if (values.size() % static_cast<std::size_t>(fromChannels) != 0) {
        throw std::invalid_argument("convertMapChannels: the values are not whole vertices");
    }
    if (fromChannels == toChannels) return {values.begin(), values.end()};
    const std::size_t count = values.size() / static_cast<std::size_t>(fromChannels);
    std::vector<float> out(count * static_cast<std::size_t>(toChannels));
    for (std::size_t i = 0; i < count; ++i) {
        if (toChannels == 4) {
            out[i * 4] = out[i * 4 + 1] = out[i * 4 + 2] = values[i];
            out[i * 4 + 3] = 1.0f;
        } else {
            out[i] =
                luminance({values[i * 4], values[i * 4 + 1], values[i * 4 + 2], values[i * 4 + 3]});
        }
    }
    return out;
}

std::vector<Rgba> cornerColorsFromVertexMap(std::span<const float> values, int channels,
                                            const ScalpMesh& scalp) {
    checkChannels(channels, "cornerColorsFromVertexMap");
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != scalp.pointCount() * stride) {
        throw std::invalid_argument(
            "cornerColorsFromVertexMap: one value per scalp vertex and channel");
    }
    std::vector<Rgba> colors;
    colors.reserve(scalp.triangleCount() * 3);
    for (const Triangle& corners : scalp.triangles()) {
        for (const std::uint32_t v : corners) {
            const float* value = values.data() + v * stride;
            colors.push_back(channels == 1 ? Rgba{value[0], value[0], value[0], 1.0f}
                                           : Rgba{value[0], value[1], value[2], value[3]});
        }
    }
    return colors;
}

}  // namespace velmorin
