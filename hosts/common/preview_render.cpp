// The preview renderer: strands and scalp are projected once, binned into square tiles, and each
// tile is drawn on its own (scalp, then strands in depth order, then the resolve), so tiles run in
// parallel and a picture does not depend on how they were shared among threads.

#include "common/preview_render.h"

#ifdef __linux__
#include <sys/mman.h>
#endif

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <type_traits>

#include "base/hash.h"
#include "base/parallel.h"
#include "mesh/scalp_mesh.h"
#include "strands/channel_names.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

constexpr int kTile = 32;
constexpr int kTilePixels = kTile * kTile;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kPi = 3.14159265358979f;

// A mid brown, for strands with no colour channels.
constexpr Vec3f kDefaultHairColor{0.16f, 0.085f, 0.045f};
constexpr Vec3f kSkinColor{0.52f, 0.33f, 0.25f};
constexpr float kDefaultRoughness = 0.35f;
constexpr float kDefaultSpecular = 1.0f;

// ---------------------------------------------------------------------------------------------
// Camera and lights

struct CameraFrame {
    Vec3f eye;
    Vec3f right;
    Vec3f up;
    Vec3f forward;
    float focal = 1.0f;  // pixels per unit at depth 1
    float centerX = 0.0f;
    float centerY = 0.0f;
    float nearLimit = 0.0f;
};

CameraFrame makeFrame(const PreviewCamera& camera, int width, int height) {
    CameraFrame f;
    f.eye = camera.eye;
    f.forward = normalized(camera.target - camera.eye, {0.0f, 0.0f, -1.0f});
    f.right = normalized(cross(f.forward, camera.up));
    if (lengthSquared(f.right) == 0.0f) f.right = normalized(cross(f.forward, {0.0f, 0.0f, 1.0f}));
    if (lengthSquared(f.right) == 0.0f) f.right = {1.0f, 0.0f, 0.0f};
    f.up = cross(f.right, f.forward);
    const PreviewProjection projection{camera, width, height};
    f.focal = projection.pixelsPerUnit(1.0f);
    f.centerX = 0.5f * static_cast<float>(width);
    f.centerY = 0.5f * static_cast<float>(height);
    f.nearLimit = 1e-4f * std::max(length(camera.target - camera.eye), 1e-3f);
    return f;
}

struct Light {
    Vec3f direction;  // towards the light
    Vec3f color;
};

// Lights ride with the camera, so that every view is lit the same way: a warm key from the upper
// left, a cool fill from the right and a rim from behind that makes the silhouette of the hair
// glow the way a back light does on set.
struct Lighting {
    std::array<Light, 3> lights;
    Vec3f ambient{0.06f, 0.065f, 0.075f};
};

Lighting makeLighting(const CameraFrame& f) {
    const Vec3f toward = -f.forward;
    Lighting l;
    l.lights[0] = {normalized(f.right * -0.55f + f.up * 0.65f + toward * 0.75f),
                   {1.7f, 1.6f, 1.45f}};
    l.lights[1] = {normalized(f.right * 0.8f + f.up * 0.05f + toward * 0.6f), {0.3f, 0.34f, 0.42f}};
    l.lights[2] = {normalized(f.right * 0.25f + f.up * 0.6f - toward * 0.75f), {0.9f, 0.9f, 0.95f}};
    return l;
}

// An unnormalised Gaussian lobe; beyond four widths it is under a thousandth and left out, which
// spares most of the exponentials of a shading pass.
float gaussian(float x, float width) {
    const float t = x / width;
    if (std::abs(t) > 4.0f) return 0.0f;
    return std::exp(-0.5f * t * t);
}

// Arcsine to within 7e-5 radians (Abramowitz and Stegun 4.4.45): the angles only place lobes
// that are degrees wide.
float safeAsin(float s) {
    const float x = std::min(std::abs(s), 1.0f);
    const float angle =
        0.5f * kPi -
        std::sqrt(1.0f - x) * (1.5707288f + x * (-0.2121144f + x * (0.0742610f - 0.0187293f * x)));
    return s < 0.0f ? -angle : angle;
}

// The hair's look under one set of lights: Kajiya-Kay diffuse (lit by the sine of the angle to the
// tangent) and the longitudinal lobes of Marschner's model, where highlights sit at the half angle
// between light and eye measured along the strand. The primary (R, white, reflected at the
// cuticle) is shifted towards the root by the cuticle's tilt; the secondary (TRT, through the
// fibre and back, so tinted by the pigment) is shifted the other way by one and a half tilts and is
// twice as wide; the transmitted lobe (TT) lights strands with the light behind them.
// `along` is the position on the strand (0 at the root): the inner hair near the scalp gets less
// light, which stands in for the shadowing of the hair above it.
Vec3f shadeHair(const Vec3f& tangent, const Vec3f& toEye, const Vec3f& color, float roughness,
                float specular, float along, const Lighting& lighting) {
    constexpr float kTilt = -5.0f * kPi / 180.0f;
    const float widthR = (2.5f + 7.5f * std::clamp(roughness, 0.0f, 1.0f)) * kPi / 180.0f;
    const float sinEye = dot(tangent, toEye);
    const float thetaEye = safeAsin(sinEye);
    const Vec3f eyeAcross = normalized(toEye - tangent * sinEye, toEye);
    const float occlusion = 0.3f + 0.7f * std::sqrt(std::clamp(along, 0.0f, 1.0f));
    // The secondary takes the pigment's hue twice over; darker hair gives a dimmer one.
    const float brightest = std::max({color.x, color.y, color.z, 1e-4f});
    const Vec3f tint = color * (std::sqrt(brightest) / brightest);

    Vec3f out = Vec3f{lighting.ambient.x * color.x, lighting.ambient.y * color.y,
                      lighting.ambient.z * color.z} *
                occlusion;
    for (const Light& light : lighting.lights) {
        const float sinLight = dot(tangent, light.direction);
        const float cosLight = std::sqrt(std::max(0.0f, 1.0f - sinLight * sinLight));
        const Vec3f lightAcross = normalized(light.direction - tangent * sinLight, toEye);
        const float cosPhi = dot(lightAcross, eyeAcross);
        // Strands lit from the side the eye sees are brighter than those lit from behind.
        const float facing = 0.35f + 0.65f * 0.5f * (1.0f + cosPhi);
        const float thetaHalf = 0.5f * (safeAsin(sinLight) + thetaEye);
        const float r = 0.1f * gaussian(thetaHalf - kTilt, widthR) *
                        std::sqrt(std::max(0.0f, 0.5f * (1.0f + cosPhi)));
        const float trt = 0.3f * gaussian(thetaHalf + 1.5f * kTilt, 2.0f * widthR);
        const float behind = std::max(0.0f, -cosPhi);
        const float tt =
            0.5f * gaussian(thetaHalf + 0.5f * kTilt, 0.5f * widthR) * behind * behind * behind;
        const float diffuse = cosLight * facing * occlusion;
        const float shine = specular * (0.4f + 0.6f * occlusion);
        out +=
            Vec3f{light.color.x * (color.x * diffuse + shine * (r + tint.x * trt) + color.x * tt),
                  light.color.y * (color.y * diffuse + shine * (r + tint.y * trt) + color.y * tt),
                  light.color.z * (color.z * diffuse + shine * (r + tint.z * trt) + color.z * tt)};
    }
    return out;
}

Vec3f shadeSkin(Vec3f normal, const Vec3f& toEye, const Lighting& lighting) {
    if (dot(normal, toEye) < 0.0f) normal = -normal;  // an open scalp shows its inside too
    Vec3f light = lighting.ambient * 1.5f;
    for (const Light& l : lighting.lights)
        light += l.color * (0.8f * std::max(0.0f, dot(normal, l.direction)));
    return {kSkinColor.x * light.x, kSkinColor.y * light.y, kSkinColor.z * light.z};
}

// ---------------------------------------------------------------------------------------------
// Binning

struct FreeMemory {
    void operator()(void* pointer) const { std::free(pointer); }
};

// An uninitialised array, so that the largest arrays of a render cost no serial clearing. With
// `hugePages`, on huge pages where the system lends them: the tile pass reads strand points in
// depth order, from all over the array, and on 4 KiB pages nearly every such read also misses the
// address cache. (The bins, written and read in order, do better without: the system may stop to
// compact memory for huge pages.)
template <class T>
std::unique_ptr<T[], FreeMemory> makeLargeArray(std::size_t count, bool hugePages) {
    static_assert(std::is_trivially_default_constructible_v<T>);
    constexpr std::size_t kHugePage = std::size_t{2} << 20;
    const std::size_t bytes = std::max<std::size_t>(count * sizeof(T), 1);
    void* memory = nullptr;
    if (hugePages && bytes >= kHugePage) {
        const std::size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        memory = std::aligned_alloc(kHugePage, rounded);
#ifdef __linux__
        if (memory) madvise(memory, rounded, MADV_HUGEPAGE);
#endif
    } else {
        memory = std::malloc(bytes);
    }
    if (!memory) throw std::bad_alloc();
    return std::unique_ptr<T[], FreeMemory>(static_cast<T*>(memory));
}

// Tile rectangle of an item, inclusive; x1 < x0 for an item that reaches no tile.
struct TileRect {
    int x0 = 0;
    int y0 = 0;
    int x1 = -1;
    int y1 = -1;
};

struct TileBins {
    std::vector<std::uint64_t> offsets;  // tileCount + 1
    // Per tile, in item order: what valueOf gave.
    std::unique_ptr<std::uint64_t[], FreeMemory> items;
};

struct TileGrid {
    int tilesX = 0;
    int tilesY = 0;
    int width = 0;
    int height = 0;

    int count() const { return tilesX * tilesY; }

    // The tiles a screen box reaches; none when it misses the picture.
    TileRect rect(float minX, float minY, float maxX, float maxY) const {
        if (!(maxX >= 0.0f && maxY >= 0.0f && minX < static_cast<float>(width) &&
              minY < static_cast<float>(height)))
            return {};
        const auto tile = [](float v, int last) {
            return std::clamp(static_cast<int>(std::floor(v)) / kTile, 0, last);
        };
        return {tile(std::max(minX, 0.0f), tilesX - 1), tile(std::max(minY, 0.0f), tilesY - 1),
                tile(std::min(maxX, static_cast<float>(width - 1)), tilesX - 1),
                tile(std::min(maxY, static_cast<float>(height - 1)), tilesY - 1)};
    }
};

// Lists each item (as valueOf(i)) under every tile its rectangle reaches, in item order within a
// tile. Items are counted and placed in fixed chunks, so the lists do not depend on the thread
// count.
template <class RectOf, class ValueOf>
TileBins binByTile(std::size_t count, const TileGrid& grid, const RectOf& rectOf,
                   const ValueOf& valueOf) {
    const std::size_t tiles = static_cast<std::size_t>(grid.count());
    // Chunks small enough to share the work, few enough that the chunk-by-tile table stays small.
    const std::size_t chunkItems =
        std::max<std::size_t>(16384, count * tiles / (std::size_t{1} << 22) + 1);
    const std::size_t chunks = (count + chunkItems - 1) / chunkItems;
    std::vector<std::uint64_t> cursor(chunks * tiles, 0);
    const auto eachTile = [&](const TileRect& r, auto&& visit) {
        for (int ty = r.y0; ty <= r.y1; ++ty)
            for (int tx = r.x0; tx <= r.x1; ++tx)
                visit(static_cast<std::size_t>(ty * grid.tilesX + tx));
    };
    parallelRange(0, chunks, 1, [&](std::size_t first, std::size_t last) {
        for (std::size_t c = first; c < last; ++c) {
            std::uint64_t* counts = cursor.data() + c * tiles;
            const std::size_t end = std::min(count, (c + 1) * chunkItems);
            for (std::size_t i = c * chunkItems; i < end; ++i)
                eachTile(rectOf(i), [&](std::size_t t) { ++counts[t]; });
        }
    });
    TileBins bins;
    bins.offsets.assign(tiles + 1, 0);
    std::uint64_t total = 0;
    for (std::size_t t = 0; t < tiles; ++t) {
        bins.offsets[t] = total;
        for (std::size_t c = 0; c < chunks; ++c) {
            const std::uint64_t n = cursor[c * tiles + t];
            cursor[c * tiles + t] = total;
            total += n;
        }
    }
    bins.offsets[tiles] = total;
    bins.items = makeLargeArray<std::uint64_t>(total, false);
    parallelRange(0, chunks, 1, [&](std::size_t first, std::size_t last) {
        for (std::size_t c = first; c < last; ++c) {
            std::uint64_t* next = cursor.data() + c * tiles;
            const std::size_t end = std::min(count, (c + 1) * chunkItems);
            for (std::size_t i = c * chunkItems; i < end; ++i) {
                const TileRect rect = rectOf(i);
                if (rect.x1 < rect.x0) continue;
                const std::uint64_t value = valueOf(i);
                eachTile(rect, [&](std::size_t t) { bins.items[next[t]++] = value; });
            }
        }
    });
    return bins;
}

// ---------------------------------------------------------------------------------------------
// Projected geometry

// A strand point on screen with its shaded colour. Colour is kept in 16-bit fixed point (linear,
// up to 16 for highlights), which halves the memory the largest array of the render takes.
// Left uninitialised when made: the largest array of a render is written once, not cleared first.
struct HairPoint {
    float x;
    float y;
    float depth;
    float radius;  // half the width, in pixels
    std::array<std::uint16_t, 4> rgba;
};
constexpr float kColorScale = 4096.0f;

std::uint16_t packColor(float v) {
    return static_cast<std::uint16_t>(std::clamp(v * kColorScale + 0.5f, 0.0f, 65535.0f));
}

struct ScalpVertex {
    float x = 0.0f;
    float y = 0.0f;
    float inverseDepth = 0.0f;  // 0 for a vertex at or behind the near limit
};

// A channel read point scope first, then strand scope, else a fallback.
struct ChannelReader {
    const float* point = nullptr;
    const float* strand = nullptr;
    float fallback = 0.0f;

    ChannelReader(const StrandSet& strands, std::string_view name, float fallbackValue)
        : fallback(fallbackValue) {
        if (const auto* values = strands.pointChannel(name)) point = values->data();
        if (const auto* values = strands.strandChannel(name)) strand = values->data();
    }
    float at(std::size_t strandIndex, std::size_t pointIndex) const {
        if (point) return point[pointIndex];
        if (strand) return strand[strandIndex];
        return fallback;
    }
};

// ---------------------------------------------------------------------------------------------
// Per-tile drawing

// Scalp samples per pixel, in a 2 x 2 grid, so that its outline is smooth.
constexpr int kScalpSamples = 4;
constexpr std::array<std::array<float, 2>, kScalpSamples> kSampleOffsets = {
    {{0.25f, 0.25f}, {0.75f, 0.25f}, {0.25f, 0.75f}, {0.75f, 0.75f}}};

// Fragments waiting per pixel for the depth order to settle.
constexpr int kPending = 4;
// How dark hair behind fully opaque hair gets.
constexpr float kSelfShadow = 0.7f;
// A pixel this opaque takes no more strands.
constexpr float kOpaque = 0.995f;

struct Fragment {
    float depth;
    float r, g, b, a;  // premultiplied
};

struct TileScratch {
    // The tile being drawn: its first pixel and the end of its pixels inside the picture.
    int x0 = 0;
    int y0 = 0;
    int x1 = 0;
    int y1 = 0;
    std::array<float, kTilePixels * kScalpSamples> sampleDepth;
    std::array<Vec3f, kTilePixels * kScalpSamples> sampleNormal;
    std::array<float, kTilePixels> scalpFar;  // farthest scalp sample; infinite where one misses
    std::array<std::array<float, 4>, kTilePixels> scalp;  // premultiplied scalp colour
    std::array<std::array<float, 4>, kTilePixels> hair;   // committed hair, front to back
    std::array<std::array<Fragment, kPending>, kTilePixels> pending;
    std::array<std::uint8_t, kTilePixels> pendingCount;
    std::array<std::uint8_t, kTilePixels> done;
    std::vector<std::uint64_t> order;  // nearest depth's bits << 32 | segment
    std::vector<std::uint64_t> sortSpare;
};

// Composites a fragment under what the pixel already holds. Hair seen through other hair is
// darkened by how much lies in front of it: with the key light near the eye, that is about how
// much hair the light crossed to reach it, which gives the volume its depth.
void commit(std::array<float, 4>& into, const Fragment& f) {
    const float keep = 1.0f - into[3];
    const float light = keep * (1.0f - kSelfShadow * into[3]);
    into[0] += light * f.r;
    into[1] += light * f.g;
    into[2] += light * f.b;
    into[3] += keep * f.a;
}

// Sorts by the upper 32 bits, keeping the order of equal keys (three passes of 11 bits).
void sortByKey(std::vector<std::uint64_t>& values, std::vector<std::uint64_t>& spare) {
    if (values.size() < 128) {
        // The lower bits hold the segment index, ascending within a bin: a full sort keeps the
        // order of equal keys as the radix passes do.
        std::sort(values.begin(), values.end());
        return;
    }
    spare.resize(values.size());
    for (int pass = 0; pass < 3; ++pass) {
        const int shift = 32 + 11 * pass;
        std::array<std::uint32_t, 2048> counts{};
        for (const std::uint64_t v : values)
            ++counts[(v >> shift) & 2047];
        std::uint32_t sum = 0;
        for (std::uint32_t& c : counts) {
            const std::uint32_t n = c;
            c = sum;
            sum += n;
        }
        for (const std::uint64_t v : values)
            spare[counts[(v >> shift) & 2047]++] = v;
        values.swap(spare);
    }
}

class TileRenderer {
  public:
    TileRenderer(const CameraFrame& frame, const Lighting& lighting, const TileGrid& grid,
                 std::span<const ScalpVertex> scalpVertices, std::span<const Vec3f> scalpNormals,
                 std::span<const Triangle> triangles, const TileBins& triangleBins,
                 std::span<const HairPoint> hair, const TileBins& segmentBins)
        : frame_(frame),
          lighting_(lighting),
          grid_(grid),
          scalpVertices_(scalpVertices),
          scalpNormals_(scalpNormals),
          triangles_(triangles),
          triangleBins_(triangleBins),
          hair_(hair),
          segmentBins_(segmentBins) {}

    // Draws tile `tile` into `s`; the resolved pixels are then in s.hair and s.scalp.
    void draw(int tile, TileScratch& s) const {
        s.x0 = (tile % grid_.tilesX) * kTile;
        s.y0 = (tile / grid_.tilesX) * kTile;
        s.x1 = std::min(s.x0 + kTile, grid_.width);
        s.y1 = std::min(s.y0 + kTile, grid_.height);
        drawScalp(tile, s);
        drawHair(tile, s);
    }

  private:
    void drawScalp(int tile, TileScratch& s) const {
        s.sampleDepth.fill(kInfinity);
        const std::uint64_t begin = triangleBins_.offsets[tile];
        const std::uint64_t end = triangleBins_.offsets[tile + 1];
        for (std::uint64_t k = begin; k < end; ++k)
            drawTriangle(static_cast<std::uint32_t>(triangleBins_.items[k]), s);
        for (int p = 0; p < kTilePixels; ++p) {
            const int px = s.x0 + p % kTile;
            const int py = s.y0 + p / kTile;
            float farthest = 0.0f;
            std::array<float, 4> color{0.0f, 0.0f, 0.0f, 0.0f};
            if (px < s.x1 && py < s.y1) {
                for (int q = 0; q < kScalpSamples; ++q) {
                    const float depth = s.sampleDepth[p * kScalpSamples + q];
                    farthest = std::max(farthest, depth);
                    if (depth == kInfinity) continue;
                    const float sx = static_cast<float>(px) + kSampleOffsets[q][0];
                    const float sy = static_cast<float>(py) + kSampleOffsets[q][1];
                    const Vec3f toEye = -normalized(
                        frame_.forward + frame_.right * ((sx - frame_.centerX) / frame_.focal) -
                        frame_.up * ((sy - frame_.centerY) / frame_.focal));
                    const Vec3f c = shadeSkin(normalized(s.sampleNormal[p * kScalpSamples + q]),
                                              toEye, lighting_);
                    color[0] += c.x / kScalpSamples;
                    color[1] += c.y / kScalpSamples;
                    color[2] += c.z / kScalpSamples;
                    color[3] += 1.0f / kScalpSamples;
                }
            }
            s.scalpFar[p] = farthest;
            s.scalp[p] = color;
        }
    }

    void drawTriangle(std::uint32_t index, TileScratch& s) const {
        const Triangle& t = triangles_[index];
        const ScalpVertex& a = scalpVertices_[t[0]];
        const ScalpVertex& b = scalpVertices_[t[1]];
        const ScalpVertex& c = scalpVertices_[t[2]];
        const float area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
        if (std::abs(area) < 1e-12f) return;
        const float inverseArea = 1.0f / area;
        const int minX = std::max(s.x0, static_cast<int>(std::floor(std::min({a.x, b.x, c.x}))));
        const int maxX =
            std::min(s.x1 - 1, static_cast<int>(std::floor(std::max({a.x, b.x, c.x}))));
        const int minY = std::max(s.y0, static_cast<int>(std::floor(std::min({a.y, b.y, c.y}))));
        const int maxY =
            std::min(s.y1 - 1, static_cast<int>(std::floor(std::max({a.y, b.y, c.y}))));
        const Vec3f& na = scalpNormals_[t[0]];
        const Vec3f& nb = scalpNormals_[t[1]];
        const Vec3f& nc = scalpNormals_[t[2]];
        for (int py = minY; py <= maxY; ++py) {
            for (int px = minX; px <= maxX; ++px) {
                for (int q = 0; q < kScalpSamples; ++q) {
                    const float sx = static_cast<float>(px) + kSampleOffsets[q][0];
                    const float sy = static_cast<float>(py) + kSampleOffsets[q][1];
                    // Barycentric weights from the edge functions; the sign of the area makes
                    // both windings count, as the scalp is seen from either side.
                    const float wa =
                        ((b.x - sx) * (c.y - sy) - (b.y - sy) * (c.x - sx)) * inverseArea;
                    const float wb =
                        ((c.x - sx) * (a.y - sy) - (c.y - sy) * (a.x - sx)) * inverseArea;
                    const float wc = 1.0f - wa - wb;
                    if (wa < 0.0f || wb < 0.0f || wc < 0.0f) continue;
                    const float inverseDepth =
                        wa * a.inverseDepth + wb * b.inverseDepth + wc * c.inverseDepth;
                    const float depth = 1.0f / inverseDepth;
                    const int slot = ((py - s.y0) * kTile + (px - s.x0)) * kScalpSamples + q;
                    if (!(depth < s.sampleDepth[slot])) continue;
                    s.sampleDepth[slot] = depth;
                    // Perspective-correct blend of the vertex normals.
                    s.sampleNormal[slot] = na * (wa * a.inverseDepth) + nb * (wb * b.inverseDepth) +
                                           nc * (wc * c.inverseDepth);
                }
            }
        }
    }

    void drawHair(int tile, TileScratch& s) const {
        for (auto& h : s.hair)
            h = {0.0f, 0.0f, 0.0f, 0.0f};
        s.pendingCount.fill(0);
        s.done.fill(0);
        // Pixels outside the picture never take a fragment.
        for (int p = 0; p < kTilePixels; ++p)
            if (s.x0 + p % kTile >= s.x1 || s.y0 + p / kTile >= s.y1) s.done[p] = 1;

        const std::uint64_t begin = segmentBins_.offsets[tile];
        const std::uint64_t end = segmentBins_.offsets[tile + 1];
        // Each entry holds its segment's nearest depth as the sort key, so that sorting reads
        // the bin alone; a segment's points are fetched only if it is drawn.
        s.order.assign(segmentBins_.items.get() + begin, segmentBins_.items.get() + end);
        sortByKey(s.order, s.sortSpare);

        // Segments come nearest first. A fragment is never nearer than its segment's key, so a
        // waiting fragment at or before the key of the segment being drawn is final.
        constexpr std::size_t kAhead = 16;
        float limit = kInfinity;
        for (std::size_t k = 0; k < s.order.size(); ++k) {
            if ((k & 255) == 0) {
                // Past the farthest pixel that can still change, nothing more shows.
                limit = -kInfinity;
                for (int p = 0; p < kTilePixels; ++p)
                    if (!s.done[p]) limit = std::max(limit, hidingDepth(s.scalpFar[p]));
            }
            float key;
            const auto bits = static_cast<std::uint32_t>(s.order[k] >> 32);
            std::memcpy(&key, &bits, sizeof key);
            if (!(key < limit)) break;
            if (k + kAhead < s.order.size())
                __builtin_prefetch(&hair_[static_cast<std::uint32_t>(s.order[k + kAhead])]);
            const auto segment = static_cast<std::uint32_t>(s.order[k]);
            drawSegment(hair_[segment], hair_[segment + 1], key, s);
        }
        for (int p = 0; p < kTilePixels; ++p)
            for (int i = 0; i < s.pendingCount[p]; ++i)
                commit(s.hair[p], s.pending[p][i]);
    }

    void drawSegment(const HairPoint& a, const HairPoint& b, float key, TileScratch& s) const {
        const float dx = b.x - a.x;
        const float dy = b.y - a.y;
        const float length2 = dx * dx + dy * dy;
        if (length2 < 1e-12f) return;
        const float inverseLength2 = 1.0f / length2;
        const float inverseLength = std::sqrt(inverseLength2);
        // A pixel is touched while its centre is within the half width plus half a pixel.
        const float reach = std::max(a.radius, b.radius) + 0.5f;

        const auto pixel = [&](int px, int py) {
            const int p = (py - s.y0) * kTile + (px - s.x0);
            if (s.done[p]) return;
            const float ox = static_cast<float>(px) + 0.5f - a.x;
            const float oy = static_cast<float>(py) + 0.5f - a.y;
            // Half-open along the segment, so that neighbouring segments share no pixel centre.
            const float t = (ox * dx + oy * dy) * inverseLength2;
            if (t < 0.0f || t >= 1.0f) return;
            const float across = (dx * oy - dy * ox) * inverseLength;
            const float radius = a.radius + (b.radius - a.radius) * t;
            // The ribbon's share of a pixel-wide band across it: the width in pixels for a thin
            // strand, 1 inside a wide one, partial at its edges.
            const float coverage =
                std::min(across + radius, 0.5f) - std::max(across - radius, -0.5f);
            if (coverage <= 0.0f) return;
            const float depth = a.depth + (b.depth - a.depth) * t;
            if (!(depth < hidingDepth(s.scalpFar[p]))) return;
            const auto mix = [t](std::uint16_t u, std::uint16_t v) {
                return (static_cast<float>(u) + (static_cast<float>(v) - u) * t) *
                       (1.0f / kColorScale);
            };
            const float alpha =
                std::min(coverage, 1.0f) *
                std::min(mix(a.rgba[3], b.rgba[3]) * (kColorScale / 65535.0f), 1.0f);
            if (alpha < 1.0f / 1024.0f) return;
            insert(p, key,
                   {depth, mix(a.rgba[0], b.rgba[0]) * alpha, mix(a.rgba[1], b.rgba[1]) * alpha,
                    mix(a.rgba[2], b.rgba[2]) * alpha, alpha},
                   s);
        };

        if (std::abs(dx) >= std::abs(dy)) {
            const float slope = dy / dx;
            const float extent = reach * std::sqrt(length2) / std::abs(dx);
            const int first =
                std::max(s.x0, static_cast<int>(std::floor(std::min(a.x, b.x) - 1.0f)));
            const int last = std::min(s.x1 - 1, static_cast<int>(std::floor(std::max(a.x, b.x))));
            for (int px = first; px <= last; ++px) {
                const float centre = a.y + (static_cast<float>(px) + 0.5f - a.x) * slope;
                const int top = std::max(s.y0, static_cast<int>(std::ceil(centre - extent - 0.5f)));
                const int bottom =
                    std::min(s.y1 - 1, static_cast<int>(std::floor(centre + extent - 0.5f)));
                for (int py = top; py <= bottom; ++py)
                    pixel(px, py);
            }
        } else {
            const float slope = dx / dy;
            const float extent = reach * std::sqrt(length2) / std::abs(dy);
            const int first =
                std::max(s.y0, static_cast<int>(std::floor(std::min(a.y, b.y) - 1.0f)));
            const int last = std::min(s.y1 - 1, static_cast<int>(std::floor(std::max(a.y, b.y))));
            for (int py = first; py <= last; ++py) {
                const float centre = a.x + (static_cast<float>(py) + 0.5f - a.y) * slope;
                const int left =
                    std::max(s.x0, static_cast<int>(std::ceil(centre - extent - 0.5f)));
                const int right =
                    std::min(s.x1 - 1, static_cast<int>(std::floor(centre + extent - 0.5f)));
                for (int px = left; px <= right; ++px)
                    pixel(px, py);
            }
        }
    }

    // The scalp's depth that hides a strand fragment: the farthest of the pixel's samples, so
    // that a strand hides only where the scalp covers the whole pixel in front of it. A root sits
    // on the surface, so the surface gives way by a hair's breadth.
    static float hidingDepth(float scalpDepth) { return scalpDepth * (1.0f + 2e-4f); }

    void insert(int p, float key, const Fragment& f, TileScratch& s) const {
        auto& list = s.pending[p];
        int n = s.pendingCount[p];
        // Fragments no later one can come before are final: composite them.
        int settled = 0;
        while (settled < n && list[settled].depth <= key)
            commit(s.hair[p], list[settled++]);
        // When the list is full, the nearest goes now: a rare misorder rather than a lost strand.
        if (settled == 0 && n == kPending) commit(s.hair[p], list[settled++]);
        if (settled > 0) {
            for (int i = settled; i < n; ++i)
                list[i - settled] = list[i];
            n -= settled;
            if (s.hair[p][3] >= kOpaque) {
                s.done[p] = 1;
                s.pendingCount[p] = 0;
                return;
            }
        }
        int at = n;
        while (at > 0 && list[at - 1].depth > f.depth) {
            list[at] = list[at - 1];
            --at;
        }
        list[at] = f;
        s.pendingCount[p] = static_cast<std::uint8_t>(n + 1);
    }

    const CameraFrame& frame_;
    const Lighting& lighting_;
    const TileGrid& grid_;
    std::span<const ScalpVertex> scalpVertices_;
    std::span<const Vec3f> scalpNormals_;
    std::span<const Triangle> triangles_;
    const TileBins& triangleBins_;
    std::span<const HairPoint> hair_;
    const TileBins& segmentBins_;
};

// ---------------------------------------------------------------------------------------------
// Output

// A soft shoulder above 0.8 so that highlights roll off instead of clipping flat.
float toneMap(float v) {
    if (v <= 0.8f) return std::max(v, 0.0f);
    return 0.8f + 0.2f * (1.0f - std::exp(-(v - 0.8f) / 0.2f));
}

struct SrgbTable {
    static constexpr int kSize = 4096;
    std::array<std::uint8_t, kSize + 1> values;
    SrgbTable() {
        for (int i = 0; i <= kSize; ++i) {
            const float v = static_cast<float>(i) / kSize;
            const float s =
                v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.0f / 2.4f) - 0.055f;
            values[i] = static_cast<std::uint8_t>(std::clamp(s * 255.0f + 0.5f, 0.0f, 255.0f));
        }
    }
    std::uint8_t operator()(float linear) const {
        const float v = std::clamp(toneMap(linear), 0.0f, 1.0f);
        return values[static_cast<int>(v * kSize + 0.5f)];
    }
};

}  // namespace

PreviewImage renderPreview(const StrandSet& strands, const ScalpMesh* scalp,
                           const PreviewRenderOptions& options) {
    if (options.width < 1 || options.height < 1 || options.width > kMaxPreviewSize ||
        options.height > kMaxPreviewSize)
        throw std::invalid_argument("preview: the size must be 1 to 8192 pixels each way");
    if (!(options.density > 0.0 && options.density <= 1.0))
        throw std::invalid_argument("preview: density must be above 0 and at most 1");
    if (strands.pointCount() >= std::numeric_limits<std::uint32_t>::max())
        throw std::invalid_argument("preview: too many strand points");

    PreviewImage image;
    image.width = options.width;
    image.height = options.height;
    image.camera = options.camera ? *options.camera
                                  : framePreviewCamera(strands, scalp, options.view, options.width,
                                                       options.height);
    const CameraFrame frame = makeFrame(image.camera, options.width, options.height);
    const Lighting lighting = makeLighting(frame);
    const TileGrid grid{(options.width + kTile - 1) / kTile, (options.height + kTile - 1) / kTile,
                        options.width, options.height};

    // The scalp's vertices on screen.
    static const ScalpMesh kNoScalp;
    const ScalpMesh& mesh = scalp ? *scalp : kNoScalp;
    std::vector<ScalpVertex> scalpVertices(mesh.pointCount());
    parallelRange(0, mesh.pointCount(), 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vec3f d = mesh.points()[i] - frame.eye;
            const float depth = dot(d, frame.forward);
            if (!(depth > frame.nearLimit)) continue;
            scalpVertices[i] = {frame.centerX + frame.focal * dot(d, frame.right) / depth,
                                frame.centerY - frame.focal * dot(d, frame.up) / depth,
                                1.0f / depth};
        }
    });
    const std::span<const Vec3f> scalpNormals =
        mesh.pointCount() > 0 ? mesh.vertexNormals() : std::span<const Vec3f>();
    const auto& triangles = mesh.triangles();
    const TileBins triangleBins = binByTile(
        triangles.size(), grid,
        [&](std::size_t i) {
            const Triangle& t = triangles[i];
            const ScalpVertex& a = scalpVertices[t[0]];
            const ScalpVertex& b = scalpVertices[t[1]];
            const ScalpVertex& c = scalpVertices[t[2]];
            // A triangle that crosses the eye's near limit is left out.
            if (a.inverseDepth == 0.0f || b.inverseDepth == 0.0f || c.inverseDepth == 0.0f)
                return TileRect{};
            return grid.rect(std::min({a.x, b.x, c.x}), std::min({a.y, b.y, c.y}),
                             std::max({a.x, b.x, c.x}), std::max({a.y, b.y, c.y}));
        },
        [](std::size_t i) { return static_cast<std::uint64_t>(i); });

    // The strands' points on screen, shaded. A segment starts at every point but a strand's last.
    const std::size_t strandCount = strands.strandCount();
    const std::size_t pointCount = strands.pointCount();
    // Only points that start or end a drawn segment are written, and only those are read.
    const auto hairPoints = makeLargeArray<HairPoint>(pointCount, true);
    const std::span<HairPoint> hair(hairPoints.get(), pointCount);
    std::vector<std::uint8_t> segmentStarts(pointCount, 0);
    {
        const std::span<const Vec3f> points = strands.points();
        const std::span<const float> widths = strands.widths();
        const std::span<const std::uint64_t> offsets = strands.offsets();
        const std::span<const std::uint64_t> ids = strands.ids();
        const std::array<ChannelReader, 3> color = {
            ChannelReader(strands, channels::kColor[0], kDefaultHairColor.x),
            ChannelReader(strands, channels::kColor[1], kDefaultHairColor.y),
            ChannelReader(strands, channels::kColor[2], kDefaultHairColor.z)};
        const ChannelReader opacity(strands, channels::kOpacity, 1.0f);
        const ChannelReader roughness(strands, channels::kRoughness, kDefaultRoughness);
        const ChannelReader specular(strands, channels::kSpecular, kDefaultSpecular);
        parallelRange(0, strandCount, 2048, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                if (options.density < 1.0 && !(options.density > unitFloat(ids[s]))) continue;
                const std::size_t first = offsets[s];
                const std::size_t count = offsets[s + 1] - first;
                bool previousOk = false;
                for (std::size_t j = 0; j < count; ++j) {
                    const std::size_t pt = first + j;
                    const Vec3f& p = points[pt];
                    const Vec3f d = p - frame.eye;
                    const float depth = dot(d, frame.forward);
                    const bool ok = depth > frame.nearLimit && std::isfinite(depth);
                    if (j > 0) segmentStarts[pt - 1] = previousOk && ok ? 1 : 0;
                    previousOk = ok;
                    if (!ok) continue;
                    const Vec3f& ahead = points[j + 1 < count ? pt + 1 : pt];
                    const Vec3f& behind = points[j > 0 ? pt - 1 : pt];
                    const Vec3f tangent = normalized(ahead - behind, frame.up);
                    const float along =
                        count > 1 ? static_cast<float>(j) / static_cast<float>(count - 1) : 1.0f;
                    const Vec3f base{color[0].at(s, pt), color[1].at(s, pt), color[2].at(s, pt)};
                    const Vec3f shaded = shadeHair(
                        tangent, normalized(-d), maxPerAxis(base, {}), roughness.at(s, pt),
                        std::max(specular.at(s, pt), 0.0f), along, lighting);
                    HairPoint& h = hair[pt];
                    h.x = frame.centerX + frame.focal * dot(d, frame.right) / depth;
                    h.y = frame.centerY - frame.focal * dot(d, frame.up) / depth;
                    h.depth = depth;
                    h.radius = std::max(0.0f, 0.5f * widths[pt] * frame.focal / depth);
                    h.rgba = {packColor(shaded.x), packColor(shaded.y), packColor(shaded.z),
                              packColor(std::clamp(opacity.at(s, pt), 0.0f, 1.0f) * 65535.0f /
                                        kColorScale)};
                }
            }
        });
    }
    const TileBins segmentBins = binByTile(
        pointCount, grid,
        [&](std::size_t i) {
            if (!segmentStarts[i]) return TileRect{};
            const HairPoint& a = hair[i];
            const HairPoint& b = hair[i + 1];
            if ((a.radius <= 0.0f && b.radius <= 0.0f) || (a.rgba[3] == 0 && b.rgba[3] == 0))
                return TileRect{};
            const float reach = std::max(a.radius, b.radius) + 1.0f;
            return grid.rect(std::min(a.x, b.x) - reach, std::min(a.y, b.y) - reach,
                             std::max(a.x, b.x) + reach, std::max(a.y, b.y) + reach);
        },
        [&](std::size_t i) {
            // Positive floats order as their bits do.
            const float nearest = std::min(hair[i].depth, hair[i + 1].depth);
            std::uint32_t bits;
            std::memcpy(&bits, &nearest, sizeof bits);
            return static_cast<std::uint64_t>(bits) << 32 | i;
        });

    // Each tile drawn and resolved on its own.
    const std::size_t pixels = static_cast<std::size_t>(options.width) * options.height;
    image.linear.assign(pixels * 4, 0.0f);
    image.rgba.assign(pixels * 4, 0);
    static const SrgbTable srgb;
    const float gain = std::exp2(options.exposure);
    const TileRenderer renderer(frame, lighting, grid, scalpVertices, scalpNormals, triangles,
                                triangleBins, hair, segmentBins);
    parallelRange(
        0, static_cast<std::size_t>(grid.count()), 4, [&](std::size_t begin, std::size_t end) {
            auto scratch = std::make_unique_for_overwrite<TileScratch>();
            for (std::size_t tile = begin; tile < end; ++tile) {
                renderer.draw(static_cast<int>(tile), *scratch);
                const int x0 = static_cast<int>(tile) % grid.tilesX * kTile;
                const int y0 = static_cast<int>(tile) / grid.tilesX * kTile;
                for (int p = 0; p < kTilePixels; ++p) {
                    const int px = x0 + p % kTile;
                    const int py = y0 + p / kTile;
                    if (px >= options.width || py >= options.height) continue;
                    // Hair over scalp, both premultiplied.
                    const auto& h = scratch->hair[p];
                    const auto& c = scratch->scalp[p];
                    const float keep = 1.0f - h[3];
                    const std::array<float, 4> groom = {h[0] + keep * c[0], h[1] + keep * c[1],
                                                        h[2] + keep * c[2], h[3] + keep * c[3]};
                    const std::size_t at = (static_cast<std::size_t>(py) * options.width + px) * 4;
                    std::copy(groom.begin(), groom.end(), image.linear.begin() + at);
                    std::array<float, 3> shown;
                    for (int k = 0; k < 3; ++k) {
                        shown[k] = groom[k] * gain;
                        if (options.transparentBackground)
                            shown[k] = groom[3] > 0.0f ? shown[k] / groom[3] : 0.0f;
                        else
                            shown[k] += (1.0f - groom[3]) * options.background[k];
                    }
                    for (int k = 0; k < 3; ++k)
                        image.rgba[at + k] = srgb(shown[k]);
                    image.rgba[at + 3] = options.transparentBackground
                                             ? static_cast<std::uint8_t>(std::clamp(
                                                   groom[3] * 255.0f + 0.5f, 0.0f, 255.0f))
                                             : 255;
                }
            }
        });
    return image;
}

}  // namespace velmorin
