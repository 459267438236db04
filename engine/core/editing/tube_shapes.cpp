#include "editing/tube_shapes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

#include "base/hash.h"

namespace velmorin {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::array<std::string_view, 4> kBuiltInNames = {"round", "ribbon", "teardrop", "blade"};
constexpr std::size_t kMaxNameBytes = 64;
constexpr std::size_t kMaxOutlinePoints = 64;
constexpr float kMergeDistance = 0.0001f;
constexpr int kSmoothSteps = 8;  // curve points per drawn edge of a smooth outline
constexpr int kSampleTries = 64;
constexpr float kSmoothFactor = 0.5f;

float cross2(TubePoint o, TubePoint a, TubePoint b) {
    return (a.x - o.x) * (b.y - o.y) - (a.y - o.y) * (b.x - o.x);
}

float signedArea(std::span<const TubePoint> outline) {
    double sum = 0.0;
    for (std::size_t i = 0; i < outline.size(); ++i) {
        const TubePoint a = outline[i];
        const TubePoint b = outline[(i + 1) % outline.size()];
        sum += double(a.x) * b.y - double(b.x) * a.y;
    }
    return static_cast<float>(sum * 0.5);
}

// Even-odd test: whether a ray from `p` along +x crosses the outline an odd number of times.
bool insideOutline(std::span<const TubePoint> outline, TubePoint p) {
    bool inside = false;
    for (std::size_t i = 0, j = outline.size() - 1; i < outline.size(); j = i++) {
        const TubePoint a = outline[i];
        const TubePoint b = outline[j];
        if ((a.y > p.y) != (b.y > p.y) && p.x < (b.x - a.x) * (p.y - a.y) / (b.y - a.y) + a.x) {
            inside = !inside;
        }
    }
    return inside;
}

float distanceToOutline(std::span<const TubePoint> outline, TubePoint p) {
    float best = std::numeric_limits<float>::max();
    for (std::size_t i = 0; i < outline.size(); ++i) {
        const TubePoint a = outline[i];
        const TubePoint b = outline[(i + 1) % outline.size()];
        const float ex = b.x - a.x, ey = b.y - a.y;
        const float lengthSq = ex * ex + ey * ey;
        float s = lengthSq > 0.0f ? ((p.x - a.x) * ex + (p.y - a.y) * ey) / lengthSq : 0.0f;
        s = std::clamp(s, 0.0f, 1.0f);
        const float dx = a.x + ex * s - p.x, dy = a.y + ey * s - p.y;
        best = std::min(best, dx * dx + dy * dy);
    }
    return std::sqrt(best);
}

float signedDistance(std::span<const TubePoint> outline, TubePoint p) {
    const float d = distanceToOutline(outline, p);
    return insideOutline(outline, p) ? -d : d;
}

bool segmentsTouch(TubePoint a, TubePoint b, TubePoint c, TubePoint d) {
    if (std::max(a.x, b.x) < std::min(c.x, d.x) || std::max(c.x, d.x) < std::min(a.x, b.x) ||
        std::max(a.y, b.y) < std::min(c.y, d.y) || std::max(c.y, d.y) < std::min(a.y, b.y)) {
        return false;
    }
    const float d1 = cross2(a, b, c), d2 = cross2(a, b, d);
    const float d3 = cross2(c, d, a), d4 = cross2(c, d, b);
    if (((d1 > 0 && d2 < 0) || (d1 < 0 && d2 > 0)) && ((d3 > 0 && d4 < 0) || (d3 < 0 && d4 > 0)))
        return true;
    // Touching or overlapping on a line also counts: the outline would not be simple.
    auto onSegment = [](TubePoint p, TubePoint q, TubePoint r) {
        return std::min(p.x, q.x) <= r.x && r.x <= std::max(p.x, q.x) &&
               std::min(p.y, q.y) <= r.y && r.y <= std::max(p.y, q.y);
    };
    return (d1 == 0 && onSegment(a, b, c)) || (d2 == 0 && onSegment(a, b, d)) ||
           (d3 == 0 && onSegment(c, d, a)) || (d4 == 0 && onSegment(c, d, b));
}

// Whether two edges that share no corner meet anywhere.
bool crossesItself(std::span<const TubePoint> outline) {
    const std::size_t n = outline.size();
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = i + 2; j < n; ++j) {
            if (i == 0 && j == n - 1) continue;  // they share the first point
            if (segmentsTouch(outline[i], outline[(i + 1) % n], outline[j], outline[(j + 1) % n]))
                return true;
        }
    }
    return false;
}

// A closed uniform Catmull-Rom curve through the points.
std::vector<TubePoint> smoothOutline(std::span<const TubePoint> points) {
    const std::size_t n = points.size();
    std::vector<TubePoint> curve;
    curve.reserve(n * kSmoothSteps);
    for (std::size_t i = 0; i < n; ++i) {
        const TubePoint p0 = points[(i + n - 1) % n], p1 = points[i];
        const TubePoint p2 = points[(i + 1) % n], p3 = points[(i + 2) % n];
        for (int s = 0; s < kSmoothSteps; ++s) {
            const float t = float(s) / kSmoothSteps, t2 = t * t, t3 = t2 * t;
            auto blend = [&](float a, float b, float c, float d) {
                return 0.5f * (2 * b + (c - a) * t + (2 * a - 5 * b + 4 * c - d) * t2 +
                               (3 * b - a - 3 * c + d) * t3);
            };
            curve.push_back({blend(p0.x, p1.x, p2.x, p3.x), blend(p0.y, p1.y, p2.y, p3.y)});
        }
    }
    return curve;
}

void finishShape(CustomTubeShape& shape) {
    shape.area = std::fabs(signedArea(shape.outline));
    shape.inner = {0.0f, 0.0f};
    shape.margin = std::min(0.01f, 0.25f * distanceToOutline(shape.outline, shape.inner));
}

void addArc(std::vector<TubePoint>& out, TubePoint center, float radius, float fromDegrees,
            float toDegrees, int steps) {
    for (int s = 0; s <= steps; ++s) {
        const float a = (fromDegrees + (toDegrees - fromDegrees) * s / steps) *
                        std::numbers::pi_v<float> / 180.0f;
        out.push_back({center.x + radius * std::cos(a), center.y + radius * std::sin(a)});
    }
}

// A round end of radius r at `center` with straight sides to a sharp point at `tip`.
void addTangentArc(std::vector<TubePoint>& out, TubePoint center, float radius, TubePoint tip,
                   int steps) {
    const float dx = tip.x - center.x, dy = tip.y - center.y;
    const float toTip = std::atan2(dy, dx) * 180.0f / std::numbers::pi_v<float>;
    const float half =
        std::acos(radius / std::sqrt(dx * dx + dy * dy)) * 180.0f / std::numbers::pi_v<float>;
    out.push_back(tip);
    addArc(out, center, radius, toTip + half, toTip + 360.0f - half, steps);
}

// The built-in outlines, made once: a circle; a flat ribbon with round edges; a drop with its point
// up; a blade, thick at the back and sharp at the front.
const CustomTubeShape& builtInShape(TubeShape shape) {
    static const std::array<CustomTubeShape, 4> shapes = [] {
        std::array<CustomTubeShape, 4> made;
        addArc(made[0].outline, {0, 0}, 1.0f, 0.0f, 360.0f - 7.5f, 47);
        addArc(made[1].outline, {0.75f, 0}, 0.25f, -90.0f, 90.0f, 12);
        addArc(made[1].outline, {-0.75f, 0}, 0.25f, 90.0f, 270.0f, 12);
        addTangentArc(made[2].outline, {0, -0.4f}, 0.6f, {0, 1.0f}, 32);
        addTangentArc(made[3].outline, {-0.7f, 0}, 0.3f, {1.0f, 0}, 16);
        for (std::size_t i = 0; i < made.size(); ++i) {
            made[i].name = std::string(kBuiltInNames[i]);
            finishShape(made[i]);
        }
        return made;
    }();
    return shapes[static_cast<std::size_t>(shape) % shapes.size()];
}

const CustomTubeShape& sectionOf(const TubeFields& tube) {
    return tube.custom ? *tube.custom : builtInShape(tube.shape);
}

[[noreturn]] void tubeError(std::string_view key, std::string_view what) {
    throw std::invalid_argument("tube " + std::string(key) + ": " + std::string(what));
}

// A JSON number as a finite float, or nothing.
bool asFloat(const Json& value, float& out) {
    if (!value.is_number()) return false;
    const double d = value.get<double>();
    if (!std::isfinite(d) || std::fabs(d) > std::numeric_limits<float>::max()) return false;
    out = static_cast<float>(d);
    return true;
}

// A JSON number without a fraction, in [low, high].
bool asWhole(const Json& value, int low, int high, int& out) {
    if (!value.is_number()) return false;
    const double d = value.get<double>();
    if (!(d >= low && d <= high) || d != std::floor(d)) return false;
    out = static_cast<int>(d);
    return true;
}

std::vector<float> readTubeList(const Json& value, std::string_view key) {
    float number = 0.0f;
    if (value.is_number()) {
        if (!asFloat(value, number)) tubeError(key, "not a number");
        return {number};
    }
    if (value.is_string()) tubeError(key, "not a number");
    if (!value.is_array()) tubeError(key, "a number or a list of numbers");
    if (value.empty()) tubeError(key, "an empty list");
    std::vector<float> list;
    list.reserve(value.size());
    for (const Json& entry : value) {
        if (!asFloat(entry, number)) tubeError(key, "numbers only");
        list.push_back(number);
    }
    return list;
}

float listAt(const std::vector<float>& list, float fallback, float t) {
    if (list.empty()) return fallback;
    if (list.size() == 1) return list[0];
    const float x = std::clamp(t, 0.0f, 1.0f) * float(list.size() - 1);
    const std::size_t i = std::min(static_cast<std::size_t>(x), list.size() - 2);
    const float f = x - float(i);
    return (1.0f - f) * list[i] + f * list[i + 1];
}

std::vector<float> resampledList(const std::vector<float>& list, float fallback, int count) {
    std::vector<float> out(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        out[i] = listAt(list, fallback, float(i) / float(count - 1));
    return out;
}

void smoothList(std::vector<float>& list, int passes) {
    std::vector<float> before;
    for (int pass = 0; pass < passes && list.size() > 2; ++pass) {
        before = list;
        for (std::size_t i = 1; i + 1 < list.size(); ++i) {
            const float value = before[i];
            list[i] = ((before[i - 1] + before[i + 1]) * 0.5f - value) * kSmoothFactor + value;
        }
    }
}

}  // namespace

std::string_view tubeShapeName(TubeShape shape) {
    const auto index = static_cast<std::size_t>(shape);
    return index < kBuiltInNames.size() ? kBuiltInNames[index] : kBuiltInNames[0];
}

bool tubeShapeFromName(std::string_view name, TubeShape& out) {
    for (std::size_t i = 0; i < kBuiltInNames.size(); ++i) {
        if (kBuiltInNames[i] == name) {
            out = static_cast<TubeShape>(i);
            return true;
        }
    }
    return false;
}

std::span<const std::string_view> builtInTubeShapes() {
    return kBuiltInNames;
}

std::string_view tubeShapeNameOf(const TubeFields& tube) {
    return tube.custom ? std::string_view(tube.custom->name) : tubeShapeName(tube.shape);
}

void validateTubeShapeName(std::string_view name) {
    if (name.empty()) throw std::invalid_argument("a tube shape needs a name");
    if (name.size() > kMaxNameBytes)
        throw std::invalid_argument("tube shape names: 64 characters at most");
    const std::string quoted = "tube shape '" + std::string(name) + "': ";
    for (const char c : name) {
        const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == ' ' || c == '_' || c == '-' || c == '.';
        if (!allowed) {
            throw std::invalid_argument(quoted + "letters, digits, spaces, '_', '-' and '.' only");
        }
    }
    if (name.front() == ' ' || name.back() == ' ')
        throw std::invalid_argument(quoted + "no spaces at the ends");
    TubeShape builtIn;
    if (tubeShapeFromName(name, builtIn)) {
        throw std::invalid_argument("'" + std::string(name) +
                                    "' is a built-in tube shape: pick another name");
    }
}

std::shared_ptr<const CustomTubeShape> makeCustomTubeShape(const std::string& name,
                                                           std::vector<TubePoint> points,
                                                           bool smooth) {
    validateTubeShapeName(name);
    const std::string quoted = "tube shape '" + name + "'";
    auto fail = [&](std::string_view what) {
        throw std::invalid_argument(quoted + std::string(what));
    };
    if (points.size() > kMaxOutlinePoints) fail(": 64 points at most");
    for (const TubePoint& p : points) {
        if (!std::isfinite(p.x) || !std::isfinite(p.y)) fail(": points must be numbers");
    }
    std::vector<TubePoint> apart;
    for (const TubePoint& p : points) {
        const bool near = std::any_of(apart.begin(), apart.end(), [&](const TubePoint& q) {
            return std::hypot(p.x - q.x, p.y - q.y) < kMergeDistance;
        });
        if (!near) apart.push_back(p);
    }
    if (apart.size() < 3) fail(": at least 3 points, apart");

    TubePoint low = apart[0], high = apart[0];
    for (const TubePoint& p : apart) {
        low = {std::min(low.x, p.x), std::min(low.y, p.y)};
        high = {std::max(high.x, p.x), std::max(high.y, p.y)};
    }
    const float boxWidth = high.x - low.x, boxHeight = high.y - low.y;
    if (std::min(boxWidth, boxHeight) < 1e-3f ||
        std::fabs(signedArea(apart)) < 1e-3f * boxWidth * boxHeight) {
        fail(": the points lie on a line; give the outline width and height");
    }

    auto shape = std::make_shared<CustomTubeShape>();
    shape->name = name;
    shape->smooth = smooth;
    shape->outline = smooth ? smoothOutline(apart) : apart;
    if (crossesItself(apart) || (smooth && crossesItself(shape->outline)))
        fail(": the outline crosses itself; move the points so its edges don't cross");
    if (!insideOutline(shape->outline, {0, 0}) || distanceToOutline(shape->outline, {0, 0}) <= 0) {
        fail(
            ": the outline must enclose its center (the guide runs through it); keep the middle of "
            "the square inside the shape");
    }
    shape->points = std::move(points);
    finishShape(*shape);
    return shape;
}

std::shared_ptr<const CustomTubeShape> parseCustomTubeShape(const std::string& name,
                                                            const Json& json) {
    const std::string quoted = "tube shape '" + name + "': ";
    if (!json.is_object()) throw std::invalid_argument(quoted + "a JSON object");
    std::vector<TubePoint> points;
    if (auto found = json.find("points"); found != json.end()) {
        if (!found->is_array()) throw std::invalid_argument(quoted + "points must be numbers");
        if (found->size() % 2 != 0)
            throw std::invalid_argument(quoted + "points come as x, y pairs");
        for (std::size_t i = 0; i < found->size(); i += 2) {
            TubePoint p;
            if (!asFloat((*found)[i], p.x) || !asFloat((*found)[i + 1], p.y))
                throw std::invalid_argument(quoted + "points must be numbers");
            points.push_back(p);
        }
    }
    bool smooth = false;
    if (auto found = json.find("smooth"); found != json.end()) {
        if (!found->is_boolean()) throw std::invalid_argument(quoted + "smooth is true or false");
        smooth = found->get<bool>();
    }
    return makeCustomTubeShape(name, std::move(points), smooth);
}

Json customTubeShapeJson(const CustomTubeShape& shape) {
    Json points = Json::array();
    for (const TubePoint& p : shape.points) {
        points.push_back(double(p.x));
        points.push_back(double(p.y));
    }
    return Json{{"name", shape.name}, {"points", std::move(points)}, {"smooth", shape.smooth}};
}

void readTubeCurves(const Json& json, TubeFields& tube) {
    std::vector<float> width = tube.width, aspect = tube.aspect, twist = tube.twist;
    if (auto found = json.find("width"); found != json.end()) {
        width = readTubeList(*found, "width");
        for (const float w : width)
            if (!(w >= 0.0f)) tubeError("width", "0 or more");
    }
    if (auto found = json.find("aspect"); found != json.end()) {
        aspect = readTubeList(*found, "aspect");
        for (const float a : aspect)
            if (!(a > 0.0f)) tubeError("aspect", "above 0");
    }
    if (auto found = json.find("twist"); found != json.end()) twist = readTubeList(*found, "twist");
    tube.width = std::move(width);
    tube.aspect = std::move(aspect);
    tube.twist = std::move(twist);
}

TubeFields parseTubeFields(const Json& json, const TubeShapeLibrary& library,
                           const TubeFields& base) {
    if (!json.is_object()) throw std::invalid_argument("tube: a JSON object");
    TubeFields tube = base;
    if (auto found = json.find("shape"); found != json.end()) {
        if (!found->is_string()) throw std::invalid_argument("tube: shape is a name");
        const std::string& name = found->get_ref<const std::string&>();
        if (tubeShapeFromName(name, tube.shape)) {
            tube.custom.reset();
        } else if (auto custom = library.find(name); custom != library.end()) {
            tube.shape = TubeShape::Round;
            tube.custom = custom->second;
        } else {
            std::string known = "round, ribbon, teardrop, blade";
            for (const auto& entry : library)
                known += ", " + entry.first;
            throw std::invalid_argument("tube shape '" + name + "': one of " + known);
        }
    }
    readTubeCurves(json, tube);

    float scaleWidth = 1.0f;
    bool scales = false;
    if (auto found = json.find("scaleWidth"); found != json.end()) {
        if (!asFloat(*found, scaleWidth) || scaleWidth < 0.0f)
            tubeError("scaleWidth", "a number, 0 or more");
        scales = true;
    }
    int samples = 0;
    if (auto found = json.find("samples"); found != json.end()) {
        if (!asWhole(*found, 2, 1024, samples)) tubeError("samples", "2 to 1024");
    }
    std::string smooth;
    if (auto found = json.find("smooth"); found != json.end()) {
        if (found->is_string()) smooth = found->get<std::string>();
        if (smooth != "width" && smooth != "aspect" && smooth != "twist" && smooth != "all")
            tubeError("smooth", "width, aspect, twist or all");
    }
    int passes = 1;
    if (auto found = json.find("passes"); found != json.end()) {
        if (!asWhole(*found, 1, 100, passes)) tubeError("passes", "1 to 100");
    }

    if (scales) {
        if (tube.width.empty()) tube.width = {1.0f};
        for (float& w : tube.width)
            w *= scaleWidth;
    }
    if (samples > 0) {
        tube.width = resampledList(tube.width, 1.0f, samples);
        tube.aspect = resampledList(tube.aspect, 1.0f, samples);
        tube.twist = resampledList(tube.twist, 0.0f, samples);
    }
    if (smooth == "width" || smooth == "all") smoothList(tube.width, passes);
    if (smooth == "aspect" || smooth == "all") smoothList(tube.aspect, passes);
    if (smooth == "twist" || smooth == "all") smoothList(tube.twist, passes);
    return tube;
}

TubeValues tubeValuesAt(const TubeFields& tube, float t) {
    TubeValues values;
    values.width = listAt(tube.width, 1.0f, t);
    values.aspect = std::clamp(listAt(tube.aspect, 1.0f, t), 0.01f, 100.0f);
    values.twist = listAt(tube.twist, 0.0f, t);
    return values;
}

bool isPlainTube(const TubeFields& tube) {
    return !tube.custom && tube.shape == TubeShape::Round &&
           std::all_of(tube.aspect.begin(), tube.aspect.end(), [](float a) { return a == 1.0f; }) &&
           std::all_of(tube.twist.begin(), tube.twist.end(), [](float a) { return a == 0.0f; });
}

bool isEmptyTube(const TubeFields& tube) {
    return !tube.custom && tube.shape == TubeShape::Round && tube.width.empty() &&
           tube.aspect.empty() && tube.twist.empty();
}

std::span<const TubePoint> tubeOutline(const TubeFields& tube) {
    return sectionOf(tube).outline;
}

float tubeSectionDistance(const TubeFields& tube, TubePoint point) {
    // The round section is the unit circle itself, not the polygon that approximates it.
    if (!tube.custom && tube.shape == TubeShape::Round) return std::hypot(point.x, point.y) - 1.0f;
    return signedDistance(sectionOf(tube).outline, point);
}

TubePoint sampleInside(const TubeFields& tube, float t, std::uint64_t seed) {
    // The draws of a SplitMix64 stream started at `seed`: draw k is unitFloat(seed + (k-1)
    // kGolden).
    auto draw = [seed](std::uint64_t k) { return unitFloat(seed + (k - 1) * kGolden); };
    if (!tube.custom && tube.shape == TubeShape::Round) {
        const TubeValues values = tubeValuesAt(tube, t);
        if (values.aspect == 1.0f && values.twist == 0.0f) {
            const float r = std::sqrt(draw(2));
            const float angle = 2.0f * std::numbers::pi_v<float> * draw(3);
            return {r * std::cos(angle), r * std::sin(angle)};
        }
    }
    const CustomTubeShape& section = sectionOf(tube);
    for (int attempt = 0; attempt < kSampleTries; ++attempt) {
        const TubePoint p{2.0f * draw(2 + 2 * attempt) - 1.0f, 2.0f * draw(3 + 2 * attempt) - 1.0f};
        if (tubeSectionDistance(tube, p) < -section.margin) return p;
    }
    return section.inner;
}

}  // namespace velmorin
