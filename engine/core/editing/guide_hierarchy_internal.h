#pragma once
// What the files of GuideHierarchy share and nothing else includes: the failure that every edit
// throws before it changes anything, and a parent guide's curve as its children follow it.

#include <stdexcept>
#include <string>
#include <vector>

#include "editing/guide_curves.h"
#include "strands/guide.h"

namespace velmorin::guide_hierarchy_internal {

[[noreturn]] inline void fail(const std::string& message) {
    throw std::invalid_argument(message);
}

inline std::string inQuotes(const std::string& name) {
    return "'" + name + "'";
}

// The parent's polyline at `count` samples, and its transport frames there.
struct ParentCurve {
    std::vector<Vec3f> points;
    std::vector<CurveFrame> frames;

    void build(const Guide& parent, std::size_t count) {
        if (count == parent.points.size()) {
            points = parent.points;
        } else {
            resampleByArcLength(parent.points, count, points);
        }
        transportFrames(points, parent.frameUp, frames);
    }
};

}  // namespace velmorin::guide_hierarchy_internal
