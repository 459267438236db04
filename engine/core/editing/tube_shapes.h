#pragma once
// Tube shapes: the cross-section a guide can sweep along its length, which shapes how its children
// spread (generated children are drawn inside it, and follow its width, flatness and twist). A
// section is one of four built-in outlines or a custom outline from the groom's shape library.
// Section coordinates: x across, y up, both in -1..1 of the unit square centred on the guide; the
// tube's width scales x and y, its aspect scales y again and its twist turns the section.

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "strands/guide.h"

namespace velmorin {

// A point of a section outline.
struct TubePoint {
    float x = 0.0f;
    float y = 0.0f;
    bool operator==(const TubePoint&) const = default;
};

// A drawn outline. Made only by makeCustomTubeShape (or parseCustomTubeShape), which checks it, so
// a shape that exists is a simple closed outline around the section's centre.
struct CustomTubeShape {
    std::string name;
    std::vector<TubePoint> points;   // as drawn, in the section's unit square
    bool smooth = false;             // the outline is a smooth closed curve through the points
    float area = 0.0f;               // of the outline (the smoothed curve when smooth)
    float margin = 0.0f;             // samples keep at least this far inside the outline
    TubePoint inner;                 // a point inside, the sampler's answer when its tries miss
    std::vector<TubePoint> outline;  // the closed outline that tests and sampling use
};

// The groom's shape library: name to shape, in name order.
using TubeShapeLibrary = std::map<std::string, std::shared_ptr<const CustomTubeShape>, std::less<>>;

// "round", "ribbon", "teardrop", "blade".
std::string_view tubeShapeName(TubeShape shape);
// The built-in shape of that name into `out`; false (and `out` untouched) for any other name.
bool tubeShapeFromName(std::string_view name, TubeShape& out);
// The four built-in names in their number order.
std::span<const std::string_view> builtInTubeShapes();

// The name a tube goes by: its custom shape's name, else its built-in shape's.
std::string_view tubeShapeNameOf(const TubeFields& tube);

// Throws std::invalid_argument unless `name` may name a custom shape: not empty ("a tube shape
// needs a name"), 64 bytes at most ("tube shape names: 64 characters at most"), only letters,
// digits, spaces, '_', '-' and '.', no space at either end, and not a built-in name.
void validateTubeShapeName(std::string_view name);

// Checks a drawn outline and makes the shape: the name as validateTubeShapeName wants it, at most
// 64 finite points, at least 3 of them apart (points nearer than 0.0001 merge), a real area, no
// edges that cross, and the section's centre inside. Throws std::invalid_argument with the message
// of the first rule broken ("tube shape 'x': ...").
std::shared_ptr<const CustomTubeShape> makeCustomTubeShape(const std::string& name,
                                                           std::vector<TubePoint> points,
                                                           bool smooth);
// The same from library JSON: {"points": [x, y, ...], "smooth": bool} ("name" is not read).
std::shared_ptr<const CustomTubeShape> parseCustomTubeShape(const std::string& name,
                                                            const nlohmann::ordered_json& json);
// The library JSON of a shape: {"name": ..., "points": [x, y, ...], "smooth": ...}.
nlohmann::ordered_json customTubeShapeJson(const CustomTubeShape& shape);

// Reads a tube from JSON, starting from `base`: "shape" (a built-in or a name in `library`),
// "width", "aspect", "twist" (a number or a list of numbers each), then the edit keys in this
// order: "scaleWidth" multiplies the width, "samples" resamples all three lists to that count,
// "smooth" ("width", "aspect", "twist" or "all") smooths that curve "passes" times (default 1).
// Throws std::invalid_argument with the tube messages ("tube width: 0 or more", ...).
TubeFields parseTubeFields(const nlohmann::ordered_json& json, const TubeShapeLibrary& library,
                           const TubeFields& base = {});

// Reads "width", "aspect" and "twist" of a tube object into `tube`, with the messages of
// parseTubeFields; `tube` is unchanged when it throws.
void readTubeCurves(const nlohmann::ordered_json& json, TubeFields& tube);

// Width, aspect (clamped to 0.01..100) and twist in degrees at position t (0 root, 1 tip).
struct TubeValues {
    float width = 1.0f;
    float aspect = 1.0f;
    float twist = 0.0f;
};
TubeValues tubeValuesAt(const TubeFields& tube, float t);

// No custom shape, round, every aspect exactly 1 and every twist exactly 0 (a NaN is not plain).
bool isPlainTube(const TubeFields& tube);
// A default tube: no custom shape, round, and no list given.
bool isEmptyTube(const TubeFields& tube);

// The outline a tube's section follows, closed, counter-clockwise or as drawn.
std::span<const TubePoint> tubeOutline(const TubeFields& tube);
// Signed distance from (x, y) to the tube's section outline in section units: negative inside.
float tubeSectionDistance(const TubeFields& tube, TubePoint point);

// A point inside the section in section units (before width, aspect and twist), drawn from
// `seed`. Where the tube is round and plain at t, a disc draw: radius sqrt(u), angle 2 pi v.
// Elsewhere up to 64 tries over the square, the first inside the outline by its margin; after
// that the section's inner point.
TubePoint sampleInside(const TubeFields& tube, float t, std::uint64_t seed);

}  // namespace velmorin
