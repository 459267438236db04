#pragma once
// Parting lines on the scalp, from which the Part operator spreads hair. An artist draws them as
// strokes; autoParts finds them where neighbouring guides lean away from each other.

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "mesh/scalp_mesh.h"
#include "strands/guide.h"

namespace velmorin {

struct PartLines {
    std::string name;
    std::vector<SurfacePoint> points;
    bool isAuto = false;  // found by autoParts, which replaces such parts when it runs again

    bool operator==(const PartLines&) const = default;
};

struct PartOptions {
    // Stroke points farther than this from the scalp find no face and are dropped.
    float maxDistance = ScalpMesh::kUnbounded;
};

struct AutoPartOptions {
    // How far each of two neighbouring guides must lean away from the other, as the cosine of its
    // direction with the line between their roots (0.3: about 17 degrees off parallel to the
    // scalp line, away from the other).
    float lean = 0.3f;
    // Guides compared with each root: its nearest neighbours.
    int neighbors = 8;
    // A part needs at least this many places where guides lean apart.
    int minPoints = 3;
    // Places closer than this join one part; 0 takes 1.5 times the typical spacing of the roots.
    float linkDistance = 0.0f;
};

// An ordered list of parts with unique names.
class PartSet {
  public:
    const std::vector<PartLines>& parts() const { return parts_; }
    const PartLines* find(std::string_view name) const;
    bool empty() const { return parts_.empty(); }

    // "part" followed by the smallest number from 1 that no part uses.
    std::string nextName() const;

    // Projects each stroke point to the closest point of the scalp and stores the part under
    // `name` (an automatic name when empty), replacing a part of that name in its place. Throws
    // std::invalid_argument "a part needs a longer stroke" for fewer than two stroke points and "a
    // part needs at least two points on the scalp" when fewer than two find a face.
    const PartLines& addPart(const std::string& name, std::span<const Vec3f> stroke,
                             const ScalpMesh& scalp, const PartOptions& options = {});
    // Adds or replaces a part as it is (an automatic name when its name is empty).
    const PartLines& add(PartLines part);
    bool remove(std::string_view name);
    void clear() { parts_.clear(); }

    // Replaces the parts that autoParts made before with those it finds now: places between
    // neighbouring guides (roots on the scalp, directions flattened into the tangent plane) that
    // lean away from each other, joined into lines and ordered along each line's main axis.
    // Guides that are off the scalp, of fewer than two points or standing straight up are left
    // out. Returns how many parts it made.
    std::size_t autoParts(const ScalpMesh& scalp, const GuideSet& guides,
                          const AutoPartOptions& options = {});

    // Reads part data; empty text is no parts. Throws SchemaError "invalid part data: ..." for
    // text that is not JSON, "part data version is newer than this Velmorin supports", and "part
    // data: ..." for a document of the wrong shape.
    static PartSet fromJson(std::string_view text);
    // {"parts": [{"name": n, "points": [[face, u, v], ...]}, ...], "version": 1}, with "auto": true
    // on the parts autoParts made.
    std::string toJson() const;

    // The parts moved to a new scalp through `map` (identity when empty), each point bound to the
    // closest point of the new scalp; points off the old scalp are dropped. Throws
    // std::invalid_argument "transfer: the old scalp has no faces", "transfer: the new scalp has no
    // faces".
    PartSet transferred(const ScalpMesh& oldScalp, const ScalpMesh& newScalp,
                        const std::function<Vec3f(const Vec3f&)>& map = {}) const;

    bool operator==(const PartSet&) const = default;

  private:
    std::vector<PartLines> parts_;
};

}  // namespace velmorin
