#pragma once
// A groom session to and from a groom file: what the session holds goes out as a GroomFile, and a
// file's groom goes into a session, all of it or none.

#include <string>

#include "files/groom_file.h"
#include "session/groom_session.h"

namespace velmorin {

// What a session holds, as a groom file: its graph as it stands now (edits included), guide data,
// scalp, colliders, maps, parts, flow, correctives, sculpt layers (the default layer in "sculpts",
// the others in "sculptLayers"), the follow switch, the scale mode with its reference, and the
// posed guides of its last frame when it has one. Time, preview settings, the rest scalp and the
// scalp history belong to the host's scene and are not in the file.
GroomFile groomFileOf(const GroomSession& session);

// Puts a groom into a session: its graph, scalp, guide data and every other input the session
// holds; inputs the file does not hold are cleared, but for the graph: a groom without one keeps
// the session's. All or nothing: the groom is first put into a
// session of its own, and only when every input took is the session changed. A refusal throws
// GroomFileError "groom file: " and the session's words ("groom file: graph: unknown operator
// type 'x'", "groom file: guideData: ...") and leaves the session as it was.
void applyGroomFile(GroomSession& session, const GroomFile& file);

// saveGroomFile of groomFileOf, and readGroomFile then applyGroomFile.
void saveGroom(const GroomSession& session, const std::string& path);
void loadGroom(GroomSession& session, const std::string& path);

}  // namespace velmorin
