#include "maps/map_paint.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "base/parallel.h"
#include "maps/stamp_rule.h"
#include "maps/texture.h"
#include "maps/texture_paint.h"
#include "maps/uv_raster.h"

namespace velmorin {
namespace {

constexpr std::size_t kVertexGrain = 1024;
constexpr std::size_t kTriangleGrain = 32;

void checkChannels(int channels, const char* operation) {
    if (channels != 1 && channels != 4) {
        throw std::invalid_argument(std::string(operation) +
                                    ": a map has 1 channel (gray) or 4 (color)");
    }
}

void checkHits(std::span<const MapHit> hits, std::size_t vertexCount, const char* operation) {
    for (const MapHit& hit : hits) {
        if (hit.vertex >= vertexCount) {
            throw std::invalid_argument(std::string(operation) +
                                        ": a hit names no vertex of the scalp");
        }
    }
}

std::size_t paintVertices(std::span<float> values, int channels, std::span<const float> start,
                          const ScalpMesh& scalp, const MapDab& dab, const Vec3f& center,
                          float radius, const std::function<float(const Vec3f&)>& weight) {
    std::vector<std::uint32_t> triangles;
    scalp.trianglesNear(center, radius, triangles);
    // Each vertex once, in the order the triangles name them: a bit per scalp vertex is cheaper
    // than sorting the corners.
    std::vector<std::uint64_t> seen((scalp.pointCount() + 63) / 64, 0);
    std::vector<std::uint32_t> vertices;
    vertices.reserve(triangles.size() * 3);
    for (const std::uint32_t t : triangles) {
        for (const std::uint32_t v : scalp.triangles()[t]) {
            std::uint64_t& word = seen[v >> 6];
            const std::uint64_t bit = std::uint64_t{1} << (v & 63);
            if ((word & bit) == 0) {
                word |= bit;
                vertices.push_back(v);
            }
        }
    }

    std::vector<MapHit> hits(vertices.size());
    const std::vector<Vec3f>& points = scalp.points();
    parallelRange(0, vertices.size(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            hits[i] = {vertices[i], weight(points[vertices[i]])};
    });
    return stampVertexMap(values, channels, dab, scalp, hits, start);
}

// Texels on an edge that two triangles share (or under overlapping UVs) are found twice: keeps
// the first of each, so that every texel is stamped once. A bit per texel of the hits' bounding
// rectangle finds them when that rectangle is small, as it is for one dab; a sort otherwise.
void keepFirstOfEachTexel(std::vector<TexelHit>& hits, std::uint32_t width) {
    if (hits.empty()) return;
    std::uint32_t x0 = width, x1 = 0, y0 = ~0u, y1 = 0;
    for (const TexelHit& hit : hits) {
        const std::uint32_t x = hit.texel % width;
        const std::uint32_t y = hit.texel / width;
        x0 = std::min(x0, x);
        x1 = std::max(x1, x);
        y0 = std::min(y0, y);
        y1 = std::max(y1, y);
    }
    const std::uint64_t across = x1 - x0 + 1;
    const std::uint64_t area = across * (y1 - y0 + 1);
    if (area <= std::max<std::uint64_t>(hits.size() * 16, 1 << 16)) {
        std::vector<std::uint64_t> seen((area + 63) / 64, 0);
        std::size_t kept = 0;
        for (const TexelHit& hit : hits) {
            const std::uint64_t at = (hit.texel / width - y0) * across + (hit.texel % width - x0);
            std::uint64_t& word = seen[at >> 6];
            const std::uint64_t bit = std::uint64_t{1} << (at & 63);
            if ((word & bit) != 0) continue;
            word |= bit;
            hits[kept++] = hit;
        }
        hits.resize(kept);
        return;
    }
    std::stable_sort(hits.begin(), hits.end(),
                     [](const TexelHit& a, const TexelHit& b) { return a.texel < b.texel; });
    hits.erase(std::unique(hits.begin(), hits.end(),
                           [](const TexelHit& a, const TexelHit& b) { return a.texel == b.texel; }),
               hits.end());
}

std::size_t paintTexture(TexturePaint& paint, const ScalpMesh& scalp, const MapDab& dab,
                         const Vec3f& center, float radius,
                         const std::function<float(const Vec3f&)>& weight) {
    if (!scalp.hasUvs()) throw TextureError("the scalp has no UVs to paint a texture map on");
    std::vector<std::uint32_t> triangles;
    scalp.trianglesNear(center, radius, triangles);
    const int width = paint.width();
    const int height = paint.height();
    const std::vector<Vec3f>& points = scalp.points();
    const std::vector<Uv>& uvs = scalp.uvs();

    // Each batch of triangles gathers its covered texels on its own; texels on shared edges are
    // found twice and kept once below.
    const std::size_t batchCount = (triangles.size() + kTriangleGrain - 1) / kTriangleGrain;
    std::vector<std::vector<TexelHit>> batches(batchCount);
    parallelRange(0, batchCount, 1, [&](std::size_t first, std::size_t last) {
        for (std::size_t batch = first; batch < last; ++batch) {
            std::vector<TexelHit>& out = batches[batch];
            const std::size_t end = std::min(triangles.size(), (batch + 1) * kTriangleGrain);
            for (std::size_t k = batch * kTriangleGrain; k < end; ++k) {
                const std::uint32_t t = triangles[k];
                const Triangle& corners = scalp.triangles()[t];
                const Vec3f& p0 = points[corners[0]];
                const Vec3f& p1 = points[corners[1]];
                const Vec3f& p2 = points[corners[2]];
                const Uv* uv = &uvs[static_cast<std::size_t>(t) * 3];
                detail::rasterizeUvTriangle(
                    uv[0], uv[1], uv[2], width, height, 0, height,
                    [&](int x, int y, float l0, float l1, float l2) {
                        const float w = weight(p0 * l0 + p1 * l1 + p2 * l2);
                        if (w > 0.0f) {
                            out.push_back(
                                {static_cast<std::uint32_t>(y) * static_cast<std::uint32_t>(width) +
                                     static_cast<std::uint32_t>(x),
                                 w});
                        }
                    });
            }
        }
    });
    std::vector<TexelHit> hits;
    std::size_t total = 0;
    for (const auto& batch : batches)
        total += batch.size();
    hits.reserve(total);
    for (const auto& batch : batches)
        hits.insert(hits.end(), batch.begin(), batch.end());
    keepFirstOfEachTexel(hits, static_cast<std::uint32_t>(width));
    return paint.stampTexels(hits, dab);
}

}  // namespace

ChannelMask parseChannelMask(std::string_view text) {
    if (text.empty()) throw TextureError("name at least one channel of rgba");
    ChannelMask mask = 0;
    for (const char c : text) {
        const std::size_t at = std::string_view("rgba").find(c);
        if (at == std::string_view::npos) {
            throw TextureError("channels are letters of rgba, not '" + std::string(text) + "'");
        }
        mask |= static_cast<ChannelMask>(1u << at);
    }
    return mask;
}

std::string channelMaskText(ChannelMask mask) {
    std::string text;
    for (int c = 0; c < 4; ++c) {
        if ((mask >> c) & 1) text += "rgba"[c];
    }
    return text;
}

std::size_t stampVertexMap(std::span<float> values, int channels, const MapDab& dab,
                           const ScalpMesh& scalp, std::span<const MapHit> hits,
                           std::span<const float> strokeStart) {
    checkChannels(channels, "stampVertexMap");
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != scalp.pointCount() * stride) {
        throw std::invalid_argument("stampVertexMap: one value per scalp vertex and channel");
    }
    if (!strokeStart.empty() && strokeStart.size() != values.size()) {
        throw std::invalid_argument(
            "stampVertexMap: the stroke's starting values have another size");
    }
    checkHits(hits, scalp.pointCount(), "stampVertexMap");

    std::atomic<std::size_t> changed{0};
    parallelRange(0, hits.size(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        std::size_t count = 0;
        for (std::size_t i = begin; i < end; ++i) {
            const float w = detail::stampWeight(dab.strength, hits[i].weight);
            if (w <= 0.0f) continue;
            float* v = values.data() + hits[i].vertex * stride;
            const float* b = strokeStart.empty() ? v : strokeStart.data() + hits[i].vertex * stride;
            bool vertexChanged = false;
            for (int c = 0; c < channels; ++c) {
                if (!detail::channelPainted(channels, dab.channels, c)) continue;
                const float next = detail::stampValue(v[c], b[c], dab.value[c], w, dab.mode);
                if (next != v[c]) {
                    v[c] = next;
                    vertexChanged = true;
                }
            }
            count += vertexChanged ? 1 : 0;
        }
        changed += count;
    });
    return changed;
}

std::size_t smoothVertexMap(std::span<float> values, int channels, const ScalpMesh& scalp,
                            std::span<const MapHit> hits, float strength, ChannelMask mask) {
    checkChannels(channels, "smoothVertexMap");
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != scalp.pointCount() * stride) {
        throw std::invalid_argument(
            "smoothVertexMap: one value per scalp vertex and channel, with the scalp's neighbors");
    }
    checkHits(hits, scalp.pointCount(), "smoothVertexMap");
    const auto topology = scalp.topology();

    // All means are taken from the values as they were, then written, so the result does not
    // depend on the order of the hits.
    std::vector<float> next(hits.size() * stride);
    parallelRange(0, hits.size(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint32_t vertex = hits[i].vertex;
            const float* v = values.data() + vertex * stride;
            float* out = next.data() + i * stride;
            std::copy_n(v, stride, out);
            const float w = detail::stampWeight(strength, hits[i].weight);
            const auto neighbors = topology->vertexNeighbors(vertex);
            if (w <= 0.0f || neighbors.empty()) continue;
            for (int c = 0; c < channels; ++c) {
                if (!detail::channelPainted(channels, mask, c)) continue;
                float sum = 0.0f;
                for (const std::uint32_t n : neighbors)
                    sum += values[n * stride + c];
                const float mean = sum / static_cast<float>(neighbors.size());
                out[c] = v[c] + (mean - v[c]) * w;
            }
        }
    });
    std::atomic<std::size_t> changed{0};
    parallelRange(0, hits.size(), kVertexGrain, [&](std::size_t begin, std::size_t end) {
        std::size_t count = 0;
        for (std::size_t i = begin; i < end; ++i) {
            float* v = values.data() + hits[i].vertex * stride;
            const float* out = next.data() + i * stride;
            if (!std::equal(v, v + stride, out)) {
                std::copy_n(out, stride, v);
                ++count;
            }
        }
        changed += count;
    });
    return changed;
}

void fillMapValues(std::vector<float>& values, std::size_t vertexCount, int channels,
                   std::span<const float> value, ChannelMask mask) {
    checkChannels(channels, "fillMapValues");
    if (value.size() < static_cast<std::size_t>(channels)) {
        throw std::invalid_argument("fillMapValues: incomplete map value");
    }
    const std::size_t stride = static_cast<std::size_t>(channels);
    if (values.size() != vertexCount * stride) {
        values.assign(vertexCount * stride, 0.0f);
        if (channels == 4) {
            for (std::size_t i = 0; i < vertexCount; ++i)
                values[i * 4 + 3] = 1.0f;
        }
    }
    for (std::size_t i = 0; i < vertexCount; ++i) {
        for (int c = 0; c < channels; ++c) {
            if (detail::channelPainted(channels, mask, c)) values[i * stride + c] = value[c];
        }
    }
}

MapCanvas MapCanvas::vertices(std::span<float> values, int channels,
                              std::span<const float> strokeStart) {
    MapCanvas canvas;
    canvas.values_ = values;
    canvas.channels_ = channels;
    canvas.strokeStart_ = strokeStart;
    return canvas;
}

MapCanvas MapCanvas::texture(TexturePaint& paint) {
    MapCanvas canvas;
    canvas.paint_ = &paint;
    return canvas;
}

float mapDabWeight(const MapDab& dab, const SurfaceFrame& frame, const Vec3f& center, float radius,
                   const Vec3f& point) {
    const Vec3f offset = point - center;
    const float d = length(offset);
    if (!(radius > 0.0f) || !(d < radius)) return 0.0f;
    const float t = d / radius;
    const float hard = std::clamp(dab.hardness, 0.0f, 1.0f);
    float w = 1.0f;
    if (hard < 1.0f && t > hard) {
        const float u = (t - hard) / (1.0f - hard);
        w = (1.0f - u * u) * (1.0f - u * u);
    }
    if (dab.alpha) {
        const float x = dot(offset, frame.tangent) / radius;
        const float y = dot(offset, frame.bitangent) / radius;
        const float angle = dab.alphaAngle * std::numbers::pi_v<float> / 180.0f;
        const float c = std::cos(angle);
        const float s = std::sin(angle);
        const float xr = x * c - y * s;
        const float yr = x * s + y * c;
        if (std::abs(xr) > 1.0f || std::abs(yr) > 1.0f) return 0.0f;
        float a = std::clamp(luminance(dab.alpha->sample(0.5f + 0.5f * xr, 0.5f + 0.5f * yr)), 0.0f,
                             1.0f);
        if (dab.alphaInvert) a = 1.0f - a;
        w *= a;
    }
    return w;
}

std::size_t paintMapDab(MapCanvas& canvas, const ScalpMesh& scalp, const MapDab& dab,
                        const Vec3f& center, float radius,
                        const std::function<float(const Vec3f&)>& weight) {
    std::function<float(const Vec3f&)> own;
    if (!weight) {
        SurfaceFrame frame;
        if (dab.alpha) {
            // The alpha lies in the tangent plane where the dab lands.
            SurfacePoint at = dab.center;
            if (!scalp.isOnSurface(at)) at = scalp.closestPoint(center).root;
            if (scalp.isOnSurface(at)) frame = scalp.frameAt(at);
        }
        own = [&dab, frame, center, radius](const Vec3f& p) {
            return mapDabWeight(dab, frame, center, radius, p);
        };
    }
    const auto& use = weight ? weight : own;
    if (canvas.paint_ != nullptr)
        return paintTexture(*canvas.paint_, scalp, dab, center, radius, use);
    return paintVertices(canvas.values_, canvas.channels_, canvas.strokeStart_, scalp, dab, center,
                         radius, use);
}

}  // namespace velmorin
