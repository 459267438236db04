// The session's answers about what it holds and what its last evaluation made: statistics, the
// look of the colour nodes, and which kinds of node reach the output.

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "graph/param_json.h"
#include "session/groom_session.h"
#include "strands/strand_set.h"

namespace velmorin {

nlohmann::ordered_json GroomStats::toJson() const {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["view"] = view;
    json["strands"] = strands;
    json["points"] = points;
    json["guides"] = guides;
    json["cards"] = cards;
    json["cardStrands"] = cardStrands;
    json["cardTriangles"] = cardTriangles;
    json["cardTextures"] = cardTextures;
    json["cardFeathers"] = cardFeathers;
    json["cardsBaked"] = cardsBaked;
    json["cardsStale"] = cardsStale;
    json["triangles"] = triangles;
    json["textures"] = textures;
    json["feathers"] = feathers;
    json["stale"] = stale;
    json["cardNodes"] = cardNodes;
    json["hairColor"] = hairColor;
    json["renderData"] = renderData;
    json["colorNodes"] = colorNodes;
    json["colorBlends"] = colorBlends;
    json["times"] = nlohmann::ordered_json::object();
    for (const auto& [name, ms] : times)
        json["times"][name] = ms;
    json["runs"] = nlohmann::ordered_json::object();
    for (const auto& [name, run] : runs)
        json["runs"][name] = run;
    json["channels"] = channels;
    json["notes"] = nlohmann::ordered_json::object();
    for (const auto& [name, note] : notes)
        json["notes"][name] = note;
    json["frames"] = frames;
    json["reads"] = reads;
    json["scalpHistory"] = scalpHistory;
    json["instances"] = instances;
    json["restEvaluations"] = restEvaluations;
    json["distanceFieldsMade"] = distanceFieldsMade;
    json["cacheBytes"] = cacheBytes;
    json["cacheEvictions"] = cacheEvictions;
    json["strokeDocument"] = strokeDocument;
    json["live"] = live;
    json["baked"] = baked;
    json["bakeStale"] = bakeStale;
    json["bakedFirst"] = bakedFirst;
    json["bakedLast"] = bakedLast;
    json["bakedFile"] = bakedFile;
    json["stepMs"] = stepMs;
    json["simulations"] = simulations;
    return json;
}

// ---- Queries ---------------------------------------------------------------------------------

namespace {

// A number from a node's params as JSON; a mapped or missing param gives the fallback.
float paramNumber(const nlohmann::ordered_json& params, const char* name, float fallback) {
    const auto found = params.find(name);
    return found != params.end() && found->is_number() ? found->get<float>() : fallback;
}

nlohmann::ordered_json paramsJson(const Operator& op) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (const auto& [param, spec] : op.paramSet.specs())
        json[param] = paramValueJson(op.paramSet.checked(param));
    return json;
}

}  // namespace

GroomStats GroomSession::stats() const {
    GroomStats stats;
    stats.frames = frames_;
    stats.reads = lastReads_;
    stats.scalpHistory = scalpHistory_ ? scalpHistory_->frames.size() : 0;
    stats.restEvaluations = restEvaluations_;
    if (frame_) {
        stats.view = frame_->node;
        if (frame_->strands) {
            stats.strands = frame_->strands->strandCount();
            stats.points = frame_->strands->pointCount();
            stats.channels = frame_->strands->strandChannelNames();
            for (std::string& name : frame_->strands->pointChannelNames())
                stats.channels.push_back(std::move(name));
        }
        if (frame_->guides) stats.guides = frame_->guides->guides.size();
        // The frame shown is stale when an input changed after it was made.
        stats.stale = frameEdits_ != edits_;
    }
    const Graph* g = graph();
    if (!g) return stats;
    auto nameOf = [&](std::uint32_t id) {
        return g->hasNode(id) ? g->node(id).name : std::to_string(id);
    };
    for (const auto& [id, ms] : g->times)
        stats.times[nameOf(id)] = ms;
    for (const auto& [id, run] : g->runs)
        stats.runs[nameOf(id)] = run;
    for (const auto& [id, note] : g->notes)
        stats.notes[nameOf(id)] = note;
    stats.cacheEvictions = g->cacheEvictions + detachedCounters_.cacheEvictions;
    std::unordered_set<const void*> seen;
    for (const auto& [id, node] : g->nodes()) {
        if (!node.runtime.valid) continue;
        for (const Value& value : node.runtime.results)
            if (const auto strands = value.get<StrandSet>())
                strands->forEachColumn([&](const void* pointer, std::size_t bytes) {
                    if (seen.insert(pointer).second) stats.cacheBytes += bytes;
                });
    }
    const std::uint32_t output = g->outputNode();
    if (output != 0)
        g->forEachActiveUpstream(output, [&](const std::string&, const Operator& op) {
            const std::string type = op.type();
            if (type == "Cards") ++stats.cardNodes;
            if (type == "HairColor" || type == "Bands" || type == "FeatherColor")
                ++stats.colorNodes;
            if (type == "Bands" || type == "FeatherColor") ++stats.colorBlends;
            if (type == "Simulate") ++stats.simulations;
            // The look's params as the viewport shader reads them, from the first such node.
            nlohmann::ordered_json* look = type == "HairColor"    ? &stats.hairColor
                                           : type == "RenderData" ? &stats.renderData
                                                                  : nullptr;
            if (look && look->is_null()) *look = paramsJson(op);
            return true;
        });
    return stats;
}

HairLook GroomSession::hairLook() const {
    HairLook look;
    const Graph* g = graph();
    if (g && g->outputNode() != 0)
        g->forEachActiveUpstream(g->outputNode(), [&](const std::string& name, const Operator& op) {
            const std::string type = op.type();
            if (type != "HairColor" && type != "Bands" && type != "FeatherColor" &&
                type != "RenderData")
                return true;
            if (type != "RenderData") look.colorNodes.push_back(name);
            if (type == "Bands" || type == "FeatherColor") ++look.colorBlends;
            if (type == "HairColor" && look.hairColorParams.is_null())
                look.hairColorParams = paramsJson(op);
            if (type == "RenderData" && look.renderDataParams.is_null())
                look.renderDataParams = paramsJson(op);
            if (type == "FeatherColor" && !look.iridescent) {
                // The first FeatherColor with iridescence sets it for the whole groom.
                const nlohmann::ordered_json params = paramsJson(op);
                const auto amount = params.find("iridescence");
                if (amount != params.end() && (!amount->is_number() || amount->get<float>() > 0)) {
                    look.iridescent = true;
                    const auto color = params.find("iridescenceColor");
                    if (color != params.end() && color->is_array() && color->size() == 3)
                        look.iridescenceColor = {(*color)[0].get<float>(), (*color)[1].get<float>(),
                                                 (*color)[2].get<float>()};
                    look.iridescenceShift =
                        paramNumber(params, "iridescenceShift", look.iridescenceShift);
                }
            }
            return true;
        });
    if (look.hairColorParams.is_object()) {
        const nlohmann::ordered_json& p = look.hairColorParams;
        look.melanin = paramNumber(p, "melanin", look.melanin);
        look.specular = paramNumber(p, "specular", look.specular);
        look.roughness = paramNumber(p, "roughness", look.roughness);
        look.specularRandom = paramNumber(p, "specularRandom", look.specularRandom);
        look.roughnessRandom = paramNumber(p, "roughnessRandom", look.roughnessRandom);
        look.tilt = paramNumber(p, "tilt", look.tilt);
        look.colorsByRgb = p.value("mode", std::string("melanin")) == "color";
    }
    constexpr float kPi = 3.14159265358979f;
    const float tilt = look.tilt * kPi / 180.0f;
    look.azimuthalRoughness = look.roughness;
    // Chiang et al. 2016's fits of the longitudinal variance and the azimuthal logistic scale.
    const float bm = std::clamp(look.roughness, 0.0f, 1.0f);
    const float bn = std::clamp(look.azimuthalRoughness, 0.0f, 1.0f);
    const float width = 0.726f * bm + 0.812f * bm * bm + 3.7f * std::pow(bm, 20.0f);
    const float spread =
        std::sqrt(kPi / 8.0f) * (0.265f * bn + 1.194f * bn * bn + 5.372f * std::pow(bn, 22.0f));
    look.lobes = {width * width, spread, tilt, 1.55f};
    look.specularTint = std::clamp(look.specular / 0.3f, 0.0f, 1.0f);
    // A cuticle scale tilted by a turns the mirror direction by twice that.
    look.shift = 2.0f * tilt;
    return look;
}

nlohmann::ordered_json HairLook::toJson() const {
    nlohmann::ordered_json json;
    json["melanin"] = melanin;
    json["specular"] = specular;
    json["roughness"] = roughness;
    json["specularRandom"] = specularRandom;
    json["roughnessRandom"] = roughnessRandom;
    json["tilt"] = tilt;
    json["colorsByRgb"] = colorsByRgb;
    json["colorBlends"] = colorBlends;
    json["iridescent"] = iridescent;
    json["iridescenceColor"] = {iridescenceColor.x, iridescenceColor.y, iridescenceColor.z};
    json["iridescenceShift"] = iridescenceShift;
    json["lobes"] = lobes;
    json["specularTint"] = specularTint;
    json["azimuthalRoughness"] = azimuthalRoughness;
    json["shift"] = shift;
    json["hairColorParams"] = hairColorParams;
    json["renderDataParams"] = renderDataParams;
    json["colorNodes"] = colorNodes;
    return json;
}

namespace {

bool reachesOutput(const Graph* graph, std::string_view type) {
    if (!graph || graph->outputNode() == 0) return false;
    return !graph->forEachActiveUpstream(
        graph->outputNode(),
        [&](const std::string&, const Operator& op) { return op.type() != type; });
}

}  // namespace

bool GroomSession::hasCardsNode() const {
    return reachesOutput(graph(), "Cards");
}
bool GroomSession::hasStrandMeshNode() const {
    return reachesOutput(graph(), "StrandMesh");
}

bool GroomSession::viewRefinesStrands() const {
    const Graph* g = graph();
    if (!g || g->outputNode() == 0) return false;
    return !g->forEachActiveUpstream(g->outputNode(), [](const std::string&, const Operator& op) {
        return !op.refinesInView();
    });
}

}  // namespace velmorin
