#pragma once
// The scalp at earlier frames, for nodes that look back (a simulation, a jiggle): what the graph
// sees under the scene input "scalpHistory".

#include <cstdint>
#include <map>
#include <memory>

namespace velmorin {

class ScalpMesh;

struct ScalpHistory {
    std::map<double, std::shared_ptr<const ScalpMesh>> frames;  // frame -> the scalp then

    // The scalp at a frame, or null where none was handed in.
    std::shared_ptr<const ScalpMesh> at(double frame) const {
        const auto found = frames.find(frame);
        return found == frames.end() ? nullptr : found->second;
    }
};

}  // namespace velmorin
