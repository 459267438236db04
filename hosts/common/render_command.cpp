#include "common/render_command.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

#include "base/hash.h"
#include "common/progress.h"
#include "strands/strand_set.h"

namespace velmorin {
namespace {

CommandSpec makeRenderSpec() {
    using T = FlagType;
    return {
        "velmorinRender",
        "render",
        "Draws a preview picture of a groom file to a PNG. The scalp and the strands are "
        "shaded and seen from a named view or a given camera.",
        {
            {"o", "output", T::String, "The PNG file to write (required)"},
            {"v", "view", T::String,
             "front, side, back, top or three-quarter; default three-quarter"},
            {"s", "size", T::String, "WIDTHxHEIGHT in pixels, each up to 8192; default 1024x1024"},
            {"f", "frame", T::Double, "The frame to draw; default the groom's current frame"},
            {"d", "density", T::Double, "Share of strands drawn, above 0 and at most 1; default 1"},
            {"e", "exposure", T::Double, "Brighter or darker, in stops; default 0"},
            {"t", "transparent", T::None, "Leave the background out: alpha is the coverage"},
            {"ey", "eye", T::String, "Camera position X,Y,Z, with -target, instead of a view"},
            {"tg", "target", T::String, "The point the camera looks at, X,Y,Z"},
            {"up", "up", T::String, "The camera's up direction X,Y,Z; default 0,1,0"},
            {"fov", "fieldOfView", T::Double,
             "Vertical field of view in degrees, above 0 and below 180; default 30"},
        },
        GroomArgument::Required};
}

// "1920x1080": two whole numbers of 1 to kMaxPreviewSize with an x between.
std::optional<std::pair<int, int>> parseSize(std::string_view text) {
    const auto cross = text.find_first_of("xX");
    if (cross == std::string_view::npos) return std::nullopt;
    const auto number = [](std::string_view digits) -> std::optional<int> {
        if (digits.empty() || digits.size() > 5) return std::nullopt;
        for (const char c : digits)
            if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
        int value = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (value < 1 || value > kMaxPreviewSize) return std::nullopt;
        return value;
    };
    const auto width = number(text.substr(0, cross));
    const auto height = number(text.substr(cross + 1));
    if (!width || !height) return std::nullopt;
    return std::pair{*width, *height};
}

// How many strands a density draws: the same choice by id as the renderer makes.
std::size_t drawnStrands(const StrandSet& strands, double density) {
    if (density >= 1.0) return strands.strandCount();
    std::size_t kept = 0;
    for (const std::uint64_t id : strands.ids())
        kept += density > unitFloat(id) ? 1 : 0;
    return kept;
}

// "1,2.5,-3": three numbers with commas between.
Vec3f parseVector(const ParsedFlags& flags, std::string_view name) {
    const std::string text = *flags.string(name);
    float values[3];
    const char* at = text.c_str();
    for (int i = 0; i < 3; ++i) {
        char* end = nullptr;
        values[i] = std::strtof(at, &end);
        const bool last = i == 2;
        if (end == at || !std::isfinite(values[i]) || (last ? *end != '\0' : *end != ','))
            throwUsage("-" + std::string(name) + " takes X,Y,Z, not '" + text + "'");
        at = end + 1;
    }
    return {values[0], values[1], values[2]};
}

// An explicit camera from -eye and -target, with -up and -fieldOfView.
std::optional<PreviewCamera> cameraOf(const ParsedFlags& flags) {
    const bool eye = flags.has("eye");
    if (eye != flags.has("target")) throwUsage("-eye and -target go together");
    if (!eye) {
        for (const char* name : {"up", "fieldOfView"})
            if (flags.has(name))
                throwUsage("-" + std::string(name) + " goes with -eye and -target");
        return std::nullopt;
    }
    if (flags.has("view")) throwUsage("use -view or -eye and -target, not both");
    PreviewCamera camera;
    camera.eye = parseVector(flags, "eye");
    camera.target = parseVector(flags, "target");
    if (flags.has("up")) camera.up = parseVector(flags, "up");
    const Vec3f forward = camera.target - camera.eye;
    if (lengthSquared(forward) == 0.0f) throwUsage("-eye and -target must differ");
    if (lengthSquared(cross(forward, camera.up)) == 0.0f)
        throwUsage("-up must not point along the view");
    if (const auto fov = flags.number("fieldOfView")) {
        if (!(*fov > 0.0 && *fov < 180.0))
            throwUsage("-fieldOfView must be above 0 and below 180 degrees");
        camera.fovDegrees = static_cast<float>(*fov);
    }
    return camera;
}

bool endsWithPng(const std::string& path) {
    if (path.size() < 5) return false;
    std::string tail = path.substr(path.size() - 4);
    for (char& c : tail)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return tail == ".png";
}

}  // namespace

const CommandSpec& renderCommandSpec() {
    static const CommandSpec spec = makeRenderSpec();
    return spec;
}

RenderRequest parseRenderRequest(std::span<const std::string> args) {
    const ParsedFlags flags = parseFlags(renderCommandSpec(), args);
    const auto& positional = flags.positional();
    if (positional.size() > 1) throwUsage("unexpected argument '" + positional[1] + "'");
    RenderRequest request;
    const auto output = flags.string("output");
    if (!output) throwUsage("-output is required");
    if (!endsWithPng(*output)) throwUsage("-output must name a .png file");
    request.output = *output;
    if (const auto size = flags.string("size")) {
        const auto parsed = parseSize(*size);
        if (!parsed)
            throwUsage("-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not '" + *size + "'");
        request.options.width = parsed->first;
        request.options.height = parsed->second;
    }
    if (const auto view = flags.string("view")) {
        const auto named = previewViewByName(*view);
        if (!named)
            throwUsage("-view must be " + std::string(previewViewList()) + ", not '" + *view + "'");
        request.options.view = *named;
    }
    if (const auto density = flags.number("density")) {
        if (!(*density > 0.0 && *density <= 1.0))
            throwUsage("-density must be above 0 and at most 1");
        request.options.density = *density;
    }
    request.frame = flags.number("frame");
    if (const auto exposure = flags.number("exposure")) {
        if (!(*exposure >= -20.0 && *exposure <= 20.0))
            throwUsage("-exposure must be -20 to 20 stops");
        request.options.exposure = static_cast<float>(*exposure);
    }
    request.options.transparentBackground = flags.has("transparent");
    request.options.camera = cameraOf(flags);
    if (positional.empty()) throwUsage("name a groom");
    request.groom = positional.front();
    return request;
}

std::string writePreviewPicture(const StrandSet& strands, const ScalpMesh* scalp,
                                const RenderRequest& request) {
    const PreviewImage image = renderPreview(strands, scalp, request.options);
    try {
        writePng(request.output, image.view());
    } catch (const std::exception& error) {
        throwFailure(error.what());
    }
    const std::string view = request.options.camera
                                 ? std::string("a given camera")
                                 : std::string(previewViewName(request.options.view)) + " view";
    return "wrote " + request.output + ": " + std::to_string(image.width) + "x" +
           std::to_string(image.height) + ", " + view + ", " +
           std::to_string(drawnStrands(strands, request.options.density)) + " strands";
}

std::string runRenderCommand(std::span<const std::string> args, ProgressReporter& progress) {
    return renderGroomFile(parseRenderRequest(args), progress);
}

}  // namespace velmorin
