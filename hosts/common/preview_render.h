#pragma once
// A CPU preview renderer for grooms: a picture of the hair on its scalp in about a second, for the
// command-line host, a pipeline's review step and the tests, where there is no viewport.
//
// The scalp is drawn first as a shaded, depth-buffered surface. Strands are camera-facing ribbons
// of their width; a strand thinner than a pixel covers the pixels it crosses by the share of the
// pixel it fills, so a head of real-width hair builds up its density the way it does on film.
// Fragments are composited front to back per pixel in depth order, so strands cross each other
// correctly and a strand behind the scalp is hidden. The picture is the same at any thread count.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "io/png.h"

namespace velmorin {

class StrandSet;
class ScalpMesh;

// The named views. +Y is up and +Z is towards the face, as on the head-like sample scalp.
enum class PreviewView : std::uint8_t { Front, Side, Back, Top, ThreeQuarter };

// "front", "side", "back", "top", "three-quarter"; nothing for another word.
std::optional<PreviewView> previewViewByName(std::string_view name);
std::string_view previewViewName(PreviewView view);
// The names joined for a message: "front, side, back, top or three-quarter".
std::string_view previewViewList();

// A pinhole camera. `fovDegrees` is the vertical field of view.
struct PreviewCamera {
    Vec3f eye{0.0f, 0.0f, 10.0f};
    Vec3f target{0.0f, 0.0f, 0.0f};
    Vec3f up{0.0f, 1.0f, 0.0f};
    float fovDegrees = 30.0f;
};

struct PreviewRenderOptions {
    int width = 1024;  // pixels, 1 to kMaxPreviewSize
    int height = 1024;
    PreviewView view = PreviewView::ThreeQuarter;
    std::optional<PreviewCamera> camera;    // when given, used instead of framing `view`
    Vec3f background{0.16f, 0.17f, 0.19f};  // linear RGB
    // Leaves the background out: the PNG's alpha is then the groom's coverage and its colour the
    // groom's own, for compositing elsewhere.
    bool transparentBackground = false;
    // The share of strands drawn, above 0 and at most 1. The choice hangs on each strand's id (as
    // StrandSet::thinned makes it), so a lower density draws a subset of a higher one.
    double density = 1.0;
    float exposure = 0.0f;  // stops
};

inline constexpr int kMaxPreviewSize = 8192;

// Where a world point lands in a picture: pixel x to the right, y down (pixel (i, j) spans
// [i, i + 1) x [j, j + 1)), and the distance in front of the eye along the view axis.
struct PreviewProjection {
    PreviewCamera camera;
    int width = 0;
    int height = 0;

    struct Point {
        float x = 0.0f;
        float y = 0.0f;
        float depth = 0.0f;
    };
    // Nothing for a point at or behind the eye's near limit.
    std::optional<Point> project(const Vec3f& world) const;
    // Pixels per world unit across the view at `depth`.
    float pixelsPerUnit(float depth) const;
};

struct PreviewImage {
    int width = 0;
    int height = 0;
    // Rows from the top, RGBA8 in sRGB, the background in (unless it was asked to be left out).
    std::vector<std::uint8_t> rgba;
    // Linear, premultiplied RGBA of the groom alone (hair over scalp), before exposure and
    // background: alpha is the coverage. Four floats per pixel, same order as `rgba`.
    std::vector<float> linear;
    PreviewCamera camera;  // the camera the picture was taken with

    ImageView view() const { return {width, height, 4, rgba}; }
    PreviewProjection projection() const { return {camera, width, height}; }
};

// The camera of a named view, aimed at the centre of the bounds of the strands and the scalp and
// backed off until every point of both projects inside a picture of `width` x `height`, the
// groom spanning nine tenths of it across or down.
PreviewCamera framePreviewCamera(const StrandSet& strands, const ScalpMesh* scalp, PreviewView view,
                                 int width, int height);

// Draws the strands on the scalp (either may be empty or null). Colour comes from the colour
// channels, point scope before strand scope, else a mid brown; opacity, roughness and specular
// channels are read the same way. Throws std::invalid_argument "preview: the size must be 1 to
// 8192 pixels each way" and "preview: density must be above 0 and at most 1".
PreviewImage renderPreview(const StrandSet& strands, const ScalpMesh* scalp,
                           const PreviewRenderOptions& options);

}  // namespace velmorin
