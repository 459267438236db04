#include "editing/sculpt_layers.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "base/document.h"
#include "base/hash.h"
#include "base/json_numbers.h"
#include "editing/guide_curves.h"

namespace velmorin {

namespace {

using Json = nlohmann::ordered_json;

constexpr DocumentFormat kSculptData{"sculpt data", kSculptDataVersion,
                                     "invalid sculpt data: ", "not an object"};
constexpr DocumentFormat kCorrectiveData{
    "corrective data", kCorrectiveDataVersion,
    "invalid corrective data: ", "corrective data: not an object"};

[[noreturn]] void failCorrective(const std::string& what) {
    throw SchemaError("corrective data: " + what);
}

// A guide id from its decimal key. The unsigned conversion's own failure is the message, so that
// the words are the same wherever a guide id is read from text.
std::uint64_t guideIdFromKey(const std::string& key) {
    try {
        return std::stoull(key);
    } catch (const std::exception& error) {
        throw SchemaError(error.what());
    }
}

// {"<id>": [x, y, z, ...]} into offsets; `what` names the place in messages.
GuideOffsets offsetsFromJson(const Json& json, const std::string& what,
                             void (*fail)(const std::string&)) {
    GuideOffsets offsets;
    if (!json.is_object()) fail(what + " is not an object of guide ids");
    for (const auto& [key, list] : json.items()) {
        const std::uint64_t id = guideIdFromKey(key);
        if (!list.is_array() || list.size() % 3 != 0)
            fail(what + ": guide " + key + " needs a list of x, y, z numbers");
        std::vector<Vec3f> points(list.size() / 3);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const auto x = floatFromJson(list[3 * i]);
            const auto y = floatFromJson(list[3 * i + 1]);
            const auto z = floatFromJson(list[3 * i + 2]);
            if (!x || !y || !z)
                fail(what + ": guide " + key + " has an offset that is not a number");
            points[i] = {*x, *y, *z};
        }
        offsets[id] = std::move(points);
    }
    return offsets;
}

Json offsetsToJson(const GuideOffsets& offsets) {
    Json json = Json::object();
    for (const auto& [id, points] : offsets) {
        Json list = Json::array();
        for (const Vec3f& p : points) {
            list.push_back(floatForJson(p.x));
            list.push_back(floatForJson(p.y));
            list.push_back(floatForJson(p.z));
        }
        json[std::to_string(id)] = std::move(list);
    }
    return json;
}

std::uint64_t hashOffsets(std::uint64_t h, const GuideOffsets& offsets) {
    h = hashCombine(h, offsets.size());
    for (const auto& [id, points] : offsets) {
        h = hashCombine(hashCombine(h, id), points.size());
        for (const Vec3f& p : points)
            h = hashCombine(hashCombine(hashCombine(h, floatBits(p.x)), floatBits(p.y)),
                            floatBits(p.z));
    }
    return h;
}

[[noreturn]] void failSculpt(const std::string&) {
    throw SchemaError("not an object");
}

double number(const Json& layer, const char* key, double fallback, const std::string& which) {
    const auto found = layer.find(key);
    if (found == layer.end()) return fallback;
    if (!found->is_number() || !std::isfinite(found->get<double>()))
        failCorrective(which + ": \"" + key + "\" is not a number");
    return found->get<double>();
}

}  // namespace

std::string sculptInputName(std::string_view layer) {
    return "sculpt:" + std::string(layer);
}

std::uint64_t SculptEdits::contentHash() const {
    return hashOffsets(0x5C01B7ull, guides);
}

SculptEdits SculptEdits::fromJson(std::string_view text) {
    SculptEdits edits;
    const std::optional<Json> opened = openDocument(text, kSculptData);
    if (!opened) return edits;
    const auto guides = opened->find("guides");
    if (guides == opened->end()) return edits;
    edits.guides = offsetsFromJson(*guides, "guides", failSculpt);
    return edits;
}

std::string SculptEdits::toJson() const {
    Json doc = Json::object();
    doc["guides"] = offsetsToJson(guides);
    doc["version"] = kSculptDataVersion;
    return doc.dump();
}

std::uint64_t CorrectiveLayer::contentHash() const {
    std::uint64_t h = hashText(0xC0EEull, name);
    for (const double v : {time, fadeIn, fadeOut, holdBefore, holdAfter})
        h = hashCombine(h, doubleBits(v));
    h = hashCombine(hashCombine(h, floatBits(weight)), enabled ? 1 : 0);
    h = hashCombine(h, static_cast<std::uint64_t>(static_cast<std::int64_t>(slot)));
    for (const WeightKey& key : weightCurve)
        h = hashCombine(hashCombine(h, doubleBits(key.frame)), floatBits(key.value));
    return hashOffsets(h, offsets);
}

double smoothRamp(double x) {
    x = std::clamp(x, 0.0, 1.0);
    return (3.0 - 2.0 * x) * x * x;
}

double correctiveRamp(const CorrectiveLayer& layer, double frame) {
    const double d = frame - layer.time;
    const double holdBefore = std::max(0.0, layer.holdBefore);
    const double holdAfter = std::max(0.0, layer.holdAfter);
    if (d >= -holdBefore && d <= holdAfter) return 1.0;
    if (d < -holdBefore) {
        const double past = -holdBefore - d;  // frames before the hold begins
        if (!(layer.fadeIn > 0.0)) return 0.0;
        return smoothRamp(1.0 - past / layer.fadeIn);
    }
    const double past = d - holdAfter;
    if (!(layer.fadeOut > 0.0)) return 0.0;
    return smoothRamp(1.0 - past / layer.fadeOut);
}

double correctiveGain(const CorrectiveLayer& layer, double frame,
                      std::optional<double> hostWeight) {
    const std::vector<WeightKey>& keys = layer.weightCurve;
    if (!keys.empty()) {
        if (frame <= keys.front().frame) return keys.front().value;
        if (frame >= keys.back().frame) return keys.back().value;
        const auto next =
            std::upper_bound(keys.begin(), keys.end(), frame,
                             [](double f, const WeightKey& key) { return f < key.frame; });
        const WeightKey& b = *next;
        const WeightKey& a = *(next - 1);
        const double span = b.frame - a.frame;
        if (!(span > 0.0)) return b.value;
        const double t = (frame - a.frame) / span;
        return a.value + (b.value - a.value) * t;
    }
    if (hostWeight) return *hostWeight;
    return layer.weight;
}

double correctiveWeight(const CorrectiveLayer& layer, double frame,
                        std::optional<double> hostWeight) {
    if (!layer.enabled) return 0.0;
    const double ramp = correctiveRamp(layer, frame);
    if (ramp == 0.0) return 0.0;
    return ramp * correctiveGain(layer, frame, hostWeight);
}

std::vector<CorrectiveLayer> correctiveLayersFromJson(std::string_view text) {
    std::vector<CorrectiveLayer> layers;
    const std::optional<Json> opened = openDocument(text, kCorrectiveData);
    if (!opened) return layers;
    const auto list = opened->find("layers");
    if (list == opened->end()) return layers;
    if (!list->is_array()) failCorrective("\"layers\" is not a list of layers");
    for (std::size_t k = 0; k < list->size(); ++k) {
        const Json& json = (*list)[k];
        std::string which = "layer " + std::to_string(k + 1);
        if (!json.is_object()) failCorrective(which + " is not an object");
        CorrectiveLayer layer;
        if (const auto name = json.find("name"); name != json.end()) {
            if (!name->is_string()) failCorrective(which + ": \"name\" is not text");
            layer.name = name->get<std::string>();
            if (!layer.name.empty()) which = "layer '" + layer.name + "'";
        }
        layer.time = number(json, "time", 0.0, which);
        layer.fadeIn = number(json, "fadeIn", 0.0, which);
        layer.fadeOut = number(json, "fadeOut", 0.0, which);
        layer.holdBefore = number(json, "holdBefore", 0.0, which);
        layer.holdAfter = number(json, "holdAfter", 0.0, which);
        if (layer.fadeIn < 0.0 || layer.fadeOut < 0.0 || layer.holdBefore < 0.0 ||
            layer.holdAfter < 0.0)
            failCorrective(which + ": fades and holds are frames, 0 or more");
        if (const auto weight = json.find("weight"); weight != json.end()) {
            const auto value = floatFromJson(*weight);
            if (!value) failCorrective(which + ": \"weight\" is not a number");
            layer.weight = *value;
        }
        if (const auto enabled = json.find("enabled"); enabled != json.end()) {
            if (!enabled->is_boolean())
                failCorrective(which + ": \"enabled\" is not true or false");
            layer.enabled = enabled->get<bool>();
        }
        if (const auto slot = json.find("slot"); slot != json.end()) {
            const auto value = intFromJson(*slot);
            if (!value) failCorrective(which + ": \"slot\" is not a whole number");
            layer.slot = *value;
        }
        if (const auto curve = json.find("weightCurve"); curve != json.end() && !curve->is_null()) {
            if (!curve->is_array())
                failCorrective(which + ": \"weightCurve\" is not a list of [frame, weight] keys");
            for (const Json& key : *curve) {
                if (!key.is_array() || key.size() != 2 || !key[0].is_number() ||
                    !std::isfinite(key[0].get<double>()) || !floatFromJson(key[1]))
                    failCorrective(which +
                                   ": \"weightCurve\" is not a list of [frame, weight] keys");
                const double frame = key[0].get<double>();
                if (!layer.weightCurve.empty() && frame <= layer.weightCurve.back().frame)
                    failCorrective(which + ": the keys of \"weightCurve\" are not in frame order");
                layer.weightCurve.push_back({frame, *floatFromJson(key[1])});
            }
        }
        if (const auto offsets = json.find("offsets"); offsets != json.end())
            layer.offsets = offsetsFromJson(*offsets, which + " offsets", failCorrective);
        layers.push_back(std::move(layer));
    }
    return layers;
}

std::string correctiveLayersToJson(const std::vector<CorrectiveLayer>& layers) {
    Json list = Json::array();
    for (const CorrectiveLayer& layer : layers) {
        Json json = Json::object();
        json["name"] = layer.name;
        json["time"] = layer.time;
        json["fadeIn"] = layer.fadeIn;
        json["fadeOut"] = layer.fadeOut;
        json["holdBefore"] = layer.holdBefore;
        json["holdAfter"] = layer.holdAfter;
        json["weight"] = floatForJson(layer.weight);
        json["enabled"] = layer.enabled;
        json["slot"] = layer.slot;
        Json curve = Json::array();
        for (const WeightKey& key : layer.weightCurve)
            curve.push_back(Json::array({key.frame, floatForJson(key.value)}));
        json["weightCurve"] = std::move(curve);
        json["offsets"] = offsetsToJson(layer.offsets);
        list.push_back(std::move(json));
    }
    Json doc = Json::object();
    doc["layers"] = std::move(list);
    doc["version"] = kCorrectiveDataVersion;
    return doc.dump();
}

void applyGuideOffsets(std::vector<Guide>& guides, const GuideOffsets& offsets, float weight) {
    if (weight == 0.0f || offsets.empty()) return;
    std::vector<CurveFrame> frames;
    for (Guide& guide : guides) {
        const auto found = offsets.find(guide.id);
        if (found == offsets.end() || found->second.size() != guide.points.size()) continue;
        transportFrames(guide.points, guide.frameUp, frames);
        const std::vector<Vec3f>& offset = found->second;
        for (std::size_t i = 0; i < guide.points.size(); ++i) {
            const Vec3f o = offset[i] * weight;
            guide.points[i] = guide.points[i] + frames[i].side * o.x + frames[i].up * o.y +
                              frames[i].tangent * o.z;
        }
    }
}

std::vector<Vec3f> sculptOffsets(const Guide& input, const std::vector<Vec3f>& sculpted,
                                 float strength) {
    if (!(std::fabs(strength) > 0.001f))
        throw std::invalid_argument("the Sculpt node's strength is 0: raise it to sculpt");
    if (sculpted.size() != input.points.size())
        throw std::invalid_argument("a sculpted guide has another point count than its input");
    std::vector<CurveFrame> frames;
    transportFrames(input.points, input.frameUp, frames);
    std::vector<Vec3f> offsets(sculpted.size());
    for (std::size_t i = 0; i < sculpted.size(); ++i) {
        const Vec3f d = (sculpted[i] - input.points[i]) / strength;
        // The frames are orthonormal, so the inverse is the transpose.
        offsets[i] = {dot(d, frames[i].side), dot(d, frames[i].up), dot(d, frames[i].tangent)};
    }
    return offsets;
}

}  // namespace velmorin
