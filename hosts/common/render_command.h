#pragma once
// `velmorin render GROOM -o picture.png`: a preview picture of a groom file, for a review step or
// a quick look without Maya. The command's flags and rules live here beside the renderer; the
// groom file itself is read through renderGroomFile, which the groom file support binds.

#include <optional>
#include <span>
#include <string>

#include "common/command_flags.h"
#include "common/preview_render.h"

namespace velmorin {

class ProgressReporter;
class ScalpMesh;
class StrandSet;

// What a render was asked for.
struct RenderRequest {
    std::string groom;             // the groom file
    std::string output;            // the PNG file to write
    std::optional<double> frame;   // nothing: the groom's current frame
    PreviewRenderOptions options;  // size, view, density, exposure, background
};

// The flag table of the command (command-line name "render"). It is the tool's own command, not
// one of the host commands that Maya registers.
const CommandSpec& renderCommandSpec();

// Reads the words after "render". Throws CommandError (usage): the flag table's messages, "name a
// groom", "unexpected argument 'x'", "-output is required", "-output must name a .png file",
// "-size must be WIDTHxHEIGHT, each 1 to 8192 pixels, not 'x'", "-view must be front, side, back,
// top or three-quarter, not 'x'", "-density must be above 0 and at most 1", "-exposure must be -20
// to 20 stops", and for an explicit camera "-eye takes X,Y,Z, not 'x'" (the same for -target and
// -up), "-eye and -target go together", "-up goes with -eye and -target", "use -view or -eye and
// -target, not both", "-eye and -target must differ", "-up must not point along the view",
// "-fieldOfView must be above 0 and below 180 degrees".
RenderRequest parseRenderRequest(std::span<const std::string> args);

// Renders the request's groom file and writes the picture, returning the command's answer
// (defined beside the session backend, which reads groom files).
std::string renderGroomFile(const RenderRequest& request, ProgressReporter& progress);

// Renders strands on a scalp as the request asks and writes the PNG. Answers "wrote picture.png:
// 1024x1024, three-quarter view, 1200 strands". Throws CommandError (failure) when the file can't
// be written.
std::string writePreviewPicture(const StrandSet& strands, const ScalpMesh* scalp,
                                const RenderRequest& request);

// parseRenderRequest and then renderGroomFile: the whole command.
std::string runRenderCommand(std::span<const std::string> args, ProgressReporter& progress);

}  // namespace velmorin
