#pragma once
// The backend that the command-line host binds: each command reads its groom file into a
// GroomSession of its own, evaluates it at the frames asked for and hands the strands to the
// Alembic and USD writers, the groom file or the preview renderer. The tool's own commands (new,
// param, demo) live here too, since they are made of the same pieces.

#include <array>
#include <span>
#include <string>
#include <vector>

#include "common/command_flags.h"
#include "common/commands.h"

namespace velmorin {

class GroomSession;
class ScalpMesh;
class StrandSet;

class SessionBackend : public CommandBackend {
  public:
    std::string exportAlembic(const CommandRequest& request) override;
    std::string exportUsd(const CommandRequest& request) override;
    std::string exportGroom(const CommandRequest& request) override;
    std::string importGroom(const CommandRequest& request) override;
    std::string groomGraphStats(const CommandRequest& request) override;
};

// The root UV of every strand: the scalp's UVs at its root's face and barycentrics, (0, 0) for a
// strand that isn't bound to a face of `scalp` or where the scalp has no UVs.
std::vector<std::array<float, 2>> rootUvsOf(const StrandSet& strands, const ScalpMesh* scalp);

// The flag tables of the tool's own commands.
const CommandSpec& newCommandSpec();
const CommandSpec& paramCommandSpec();
const CommandSpec& demoCommandSpec();

// `velmorin new -scalp head.obj [-guides N] -output my.groom`: the default graph on the mesh with
// N starter guides, saved as a groom file. Throws CommandError: "-scalp is required", "-output is
// required", "-guides must be 1 to 10000", and the mesh reader's and starter guides' words.
std::string runNewCommand(std::span<const std::string> args);

// `velmorin param GROOM NODE.PARAM [VALUE]`: prints the param's value as JSON, or sets it (VALUE
// read as JSON, else as a string) through the param's own checks and saves the groom file in
// place. Throws CommandError: "name a groom and NODE.PARAM", "'x' is not NODE.PARAM", "the graph
// has no node named 'n'", and the param's words ("unknown parameter 'p'", range messages).
std::string runParamCommand(std::span<const std::string> args);

// `velmorin demo [-output DIR] [-density D]`: the head-like sample scalp with starter guides and
// the default graph, written as DIR/demo.groom, DIR/demo.abc (Unreal's layout), DIR/demo.usda and
// DIR/demo.png and DIR/demo_side.png (the front and side views). Answers statistics JSON.
std::string runDemoCommand(std::span<const std::string> args, ProgressReporter& progress);

}  // namespace velmorin
