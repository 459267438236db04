#include <algorithm>
#include <cmath>

#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "maps/texture.h"
#include "maps/texture_cache.h"
#include "ops/color_ops.h"
#include "strands/channel_names.h"

namespace velmorin {

namespace {

float smoothStep(float low, float high, float x) {
    const float f = std::clamp((x - low) / (high - low), 0.0f, 1.0f);
    return f * f * (3.0f - 2.0f * f);
}

float fraction(float x) {
    return x - std::floor(x);
}

}  // namespace

FeatherDraw featherDraw(std::uint64_t feather, const FeatherColorSettings& settings) {
    StrandDraws draws(feather, settings.seed);
    FeatherDraw draw;
    draw.shift = settings.offsetRandom * draws.nextSigned();
    draw.scale = std::max(0.05f, 1.0f + settings.scaleRandom * draws.nextSigned());
    draw.turn = settings.angleRandom * draws.nextSigned();
    return draw;
}

// The flat space of a feather is the unit of each direction: `along` runs over the feather's
// length, `across` over one vane's width. A shape is measured by `local`, 0 at its centre and 1 at
// its edge; it covers fully inside the edge, nothing outside it, and blends over a band around the
// edge that narrows as sharpness rises. Inside, the profile at `local` shapes it (rings, a hollow
// bar).
float featherCoverage(const FeatherColorSettings& settings, const FeatherDraw& draw, float along,
                      float across, Vec3f& color) {
    if (settings.vanes == FeatherVanes::Left && across > 0.0f) return 0.0f;
    if (settings.vanes == FeatherVanes::Right && across < 0.0f) return 0.0f;
    const float soft = std::max(1e-3f, 0.5f * (1.0f - std::clamp(settings.sharpness, 0.0f, 1.0f)));
    const auto shape = [&](float local) {
        const float inside = 1.0f - smoothStep(1.0f - soft, 1.0f + soft, local);
        return inside * settings.profile.at(std::min(local, 1.0f));
    };
    const float angle = std::clamp(settings.angle + draw.turn, -89.0f, 89.0f) * kDegrees;
    const float slope = std::tan(angle);
    const float periods = std::max(settings.count, 0.0f) / draw.scale;
    const float halfWidth = 0.5f * std::max(settings.width, 0.0f);
    switch (settings.pattern) {
        case FeatherPattern::None:
            return 0.0f;
        case FeatherPattern::Bars:
        case FeatherPattern::Chevrons: {
            if (halfWidth <= 0.0f) return 0.0f;
            // Bars run straight across at angle 0 and tilt with it; chevrons mirror the tilt on
            // the two vanes, so that their arms meet at the shaft.
            const float lean =
                settings.pattern == FeatherPattern::Bars ? across : std::fabs(across);
            const float phase =
                fraction((along - settings.offset + lean * slope) * periods + draw.shift);
            return shape(std::fabs(phase - 0.5f) / halfWidth);
        }
        case FeatherPattern::Spots: {
            if (halfWidth <= 0.0f) return 0.0f;
            // Rows of spots along the feather, as many to a vane's width as rows to its length.
            const float row =
                fraction((along - settings.offset + across * slope) * periods + draw.shift) - 0.5f;
            const float column = fraction(std::fabs(across) * periods) - 0.5f;
            return shape(std::sqrt(row * row + column * column) / halfWidth);
        }
        case FeatherPattern::Fringe: {
            // The outer share `width` of each barb, its tip the shape's centre.
            const float share = settings.width * draw.scale;
            if (share <= 0.0f) return 0.0f;
            return shape((1.0f - std::min(std::fabs(across), 1.0f)) / share);
        }
        case FeatherPattern::Eye: {
            // An oval a quarter longer along its axis than across, on the shaft at `offset`,
            // tilted by the angle.
            const float diameter = settings.width * draw.scale;
            if (diameter <= 0.0f) return 0.0f;
            const float centre = settings.offset + draw.shift * diameter;
            const float da = along - centre;
            const float c = std::cos(angle), s = std::sin(angle);
            const float axis = (da * c + across * s) / 1.25f;
            const float side = -da * s + across * c;
            return shape(std::sqrt(axis * axis + side * side) / (0.5f * diameter));
        }
        case FeatherPattern::Texture: {
            if (!settings.texture) return 0.0f;
            // One image: the shaft up its middle. Two: each vane its own, the shaft on the inner
            // edge (the right of the left vane's image, the left of the right vane's).
            const Texture* image = settings.texture.get();
            float u = 0.5f + 0.5f * across;
            if (settings.textureRight) {
                if (across > 0.0f) {
                    image = settings.textureRight.get();
                    u = across;
                } else {
                    u = 1.0f + across;
                }
            }
            const Rgba texel =
                image->sample(std::clamp(u, 0.0f, 1.0f), std::clamp(along, 0.0f, 1.0f));
            color = {texel.r, texel.g, texel.b};
            return std::clamp(texel.a, 0.0f, 1.0f);
        }
    }
    return 0.0f;
}

std::shared_ptr<StrandSet> colorFeathers(const StrandSet& input,
                                         const FeatherColorSettings& settings) {
    auto out = std::make_shared<StrandSet>(input);
    const std::span<const std::uint64_t> ids = input.ids();
    const std::vector<float>* along = input.pointChannel(channels::kFeatherAlong);
    const std::vector<float>* across = input.pointChannel(channels::kFeatherAcross);
    const bool flat = along && across;
    const bool patterned = flat && settings.pattern != FeatherPattern::None &&
                           (settings.pattern != FeatherPattern::Texture || settings.texture);
    const std::vector<float>* down = input.strandChannel(channels::kFeatherDown);
    const std::vector<float>* feathers = input.strandChannel(channels::kFeatherId);
    const bool downed = down && settings.downStrength > 0.0f;

    const HairLookChannels look(input);
    // Plain references, not a structured binding: lambdas below capture them.
    const auto& color = look.color;
    const auto& melanin = look.melanin;
    const auto& redness = look.redness;
    const auto& dye = look.dye;
    const bool pigment = patterned && look.hasPigment();

    const auto pointChannel = [&](std::string_view name, float value) {
        return freshPointChannel(*out, name, value);
    };
    // Only what changes is rewritten: the colour where a pattern or the down colour applies, the
    // pigment where a pattern does.
    std::array<std::span<float>, 3> outColor, outDye;
    std::span<float> outMelanin, outRedness;
    if (patterned || downed) {
        for (std::size_t c = 0; c < 3; ++c)
            outColor[c] = pointChannel(channels::kColor[c], 1.0f);
    }
    if (pigment) {
        outMelanin = pointChannel(channels::kMelanin, 0.0f);
        outRedness = pointChannel(channels::kRedness, 0.0f);
        for (std::size_t c = 0; c < 3; ++c)
            outDye[c] = pointChannel(channels::kDye[c], 1.0f);
    }
    const std::span<float> iridescence = pointChannel(channels::kIridescence, 0.0f);
    // Groom-wide: the first FeatherColor with iridescence sets its colour and shift.
    const bool shows = settings.iridescence.isMapped() || settings.iridescence.value() > 0.0f;
    if (shows && !input.strandChannel(channels::kIridescenceColor[0])) {
        for (std::size_t c = 0; c < 3; ++c) {
            out->removePointChannel(channels::kIridescenceColor[c]);
            std::vector<float>& values =
                out->addStrandChannel(std::string(channels::kIridescenceColor[c]),
                                      settings.iridescenceColor[static_cast<int>(c)]);
            std::fill(values.begin(), values.end(), settings.iridescenceColor[static_cast<int>(c)]);
        }
        out->removePointChannel(channels::kIridescenceShift);
        std::vector<float>& shift = out->addStrandChannel(std::string(channels::kIridescenceShift),
                                                          settings.iridescenceShift);
        std::fill(shift.begin(), shift.end(), settings.iridescenceShift);
    }

    const Vec3f patternColor =
        tinted(pigmentColor(settings.melanin, settings.redness), settings.dye);
    const float strength = std::clamp(settings.strength, 0.0f, 1.0f);
    parallelRange(0, input.strandCount(), 256, [&](std::size_t first, std::size_t last) {
        for (std::size_t s = first; s < last; ++s) {
            const StrandSet::PointRange range = input.pointRange(s);
            const FeatherDraw draw =
                featherDraw(feathers ? floatBits((*feathers)[s]) : ids[s], settings);
            const bool downBarb = downed && (*down)[s] >= 0.5f;
            for (std::size_t k = 0; k < range.count; ++k) {
                const std::size_t p = range.begin + k;
                float covered = 0.0f;
                Vec3f shown = patternColor;
                if (flat)
                    covered = featherCoverage(settings, draw, (*along)[p], (*across)[p], shown);
                if (patterned || downed) {
                    Vec3f own{color[0].at(s, p), color[1].at(s, p), color[2].at(s, p)};
                    own = lerp(own, shown, strength * covered);
                    if (downBarb) own = lerp(own, settings.downColor, settings.downStrength);
                    outColor[0][p] = own.x;
                    outColor[1][p] = own.y;
                    outColor[2][p] = own.z;
                }
                if (pigment) {
                    const float share = strength * covered;
                    outMelanin[p] =
                        melanin.at(s, p) + (settings.melanin - melanin.at(s, p)) * share;
                    outRedness[p] =
                        redness.at(s, p) + (settings.redness - redness.at(s, p)) * share;
                    const Vec3f dyed = lerp({dye[0].at(s, p), dye[1].at(s, p), dye[2].at(s, p)},
                                            settings.dye, share);
                    outDye[0][p] = dyed.x;
                    outDye[1][p] = dyed.y;
                    outDye[2][p] = dyed.z;
                }
                float where = 1.0f;
                switch (settings.iridescenceOn) {
                    case IridescenceOn::All:
                        break;
                    case IridescenceOn::LeftVane:
                        where = flat && (*across)[p] < 0.0f ? 1.0f : 0.0f;
                        break;
                    case IridescenceOn::RightVane:
                        where = flat && (*across)[p] > 0.0f ? 1.0f : 0.0f;
                        break;
                    case IridescenceOn::Pattern:
                        where = patterned ? covered : 0.0f;
                        break;
                    case IridescenceOn::NotPattern:
                        where = patterned ? 1.0f - covered : 1.0f;
                        break;
                }
                iridescence[p] = std::clamp(settings.iridescence.atPoint(s, k), 0.0f, 1.0f) * where;
            }
        }
    });
    return out;
}

namespace {

ParamSpec grouped(ParamSpec spec, const char* group) {
    spec.group = group;
    return spec;
}

ParamSpec choice(std::string name, std::string value, std::vector<std::string> choices,
                 std::string description, const char* group) {
    ParamSpec spec = shapeParam(std::move(name), std::move(value), std::move(description));
    spec.choices = std::move(choices);
    spec.animatable = false;
    spec.group = group;
    return spec;
}

ParamSpec colorValue(std::string name, Vec3f value, std::string description, const char* group) {
    ParamSpec spec = grouped(shapeParam(std::move(name), value, std::move(description)), group);
    spec.unit = "color";
    return spec;
}

ParamSpec imageParam(std::string name, std::string description) {
    ParamSpec spec =
        grouped(shapeParam(std::move(name), std::string(), std::move(description)), "Pattern");
    spec.unit = "file";
    spec.animatable = false;
    return spec;
}

template <class E>
E choiceOf(const std::string& text, std::initializer_list<std::pair<const char*, E>> table) {
    for (const auto& [name, value] : table)
        if (text == name) return value;
    return table.begin()->second;
}

std::shared_ptr<const Texture> readImage(const std::string& path) {
    if (path.empty()) return nullptr;
    try {
        return textureCache().get(path);
    } catch (const TextureError& e) {
        throw GraphError(std::string("FeatherColor: ") + e.what());
    }
}

// Patterns on feathers, a down colour and iridescence.
class FeatherColorOp final : public Operator {
  public:
    std::string type() const override { return "FeatherColor"; }
    std::string category() const override { return "color"; }
    int version() const override { return 2; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        const char* pattern = "Pattern";
        ParamSpec count = grouped(
            shapeParam("count", 6.0, "Bars, chevrons, rows of spots per feather length"), pattern);
        count.min = 0.0;
        count.softMax = 20.0;
        ParamSpec angle = grouped(shapeParam("angle", 0.0,
                                             "Degrees: bars' tilt from straight across; "
                                             "chevrons' arms (try 30); an eye's tilt"),
                                  pattern);
        angle.unit = "angle";
        angle.min = -89.0;
        angle.max = 89.0;
        ParamSpec profile = grouped(
            shapeParam("profile", Ramp{},
                       "Across each shape, its center (0) to its edge (1): rings for an eye spot, "
                       "a hollow bar"),
            "Advanced");
        profile.advanced = true;
        ParamSpec angleRandom = grouped(
            shapeParam("angleRandom", 0.0, "Random turn of each feather's pattern, +/- degrees"),
            "Random");
        angleRandom.unit = "angle";
        angleRandom.min = 0.0;
        angleRandom.softMax = 45.0;
        ParamSpec iridescenceShift =
            grouped(shapeParam("iridescenceShift", 0.25,
                               "How far its hue turns from face-on to edge-on, in turns (+/-). "
                               "Groom-wide, as iridescenceColor"),
                    "Iridescence");
        iridescenceShift.unit = "turns";
        iridescenceShift.softMin = -1.0;
        iridescenceShift.softMax = 1.0;
        ParamSpec iridescenceOn = choice(
            "iridescenceOn", "all", {"all", "leftVane", "rightVane", "pattern", "notPattern"},
            "Where the iridescence shows: everywhere, on one vane of a feather, or where the "
            "pattern is (or is not)",
            "Iridescence");
        iridescenceOn.since = 2;
        ParamSpec seed = grouped(seedParam(), "Random");
        return {
            choice("pattern", "none",
                   {"none", "texture", "bars", "chevrons", "spots", "fringe", "eye"},
                   "A pattern on the feathers in their own flat space: a painted image of the "
                   "feather, bars, chevrons, spots, an edge fringe or an eye spot, in the pattern "
                   "color (none: only the down color and iridescence)",
                   pattern),
            grouped(fractionParam("strength", 1.0, "How strongly the pattern shows, 0-1"), pattern),
            grouped(fractionParam("melanin", 0.8, "The pattern's pigment, 0 (white) to 1 (black)"),
                    pattern),
            grouped(fractionParam("redness", 0.2, "The pattern's redness"), pattern),
            colorValue("dye", {1, 1, 1}, "Dye over the pattern's pigment, linear RGB", pattern),
            choice("vanes", "both", {"both", "left", "right"},
                   "Which vanes the pattern covers (left and right seen from the vane's top, the "
                   "tip up)",
                   pattern),
            count,
            grouped(fractionParam("width", 0.5,
                                  "Bars, chevrons, spots: the share of each period the shape "
                                  "takes; eye: its diameter (a share of the feather's length); "
                                  "fringe: the share of each barb from its tip"),
                    pattern),
            angle,
            grouped(fractionParam("sharpness", 0.5, "Edges, 0 soft to 1 hard"), pattern),
            grouped(fractionParam("offset", 0.5,
                                  "Along the feather, 0 root .. 1 tip: shifts bars and spots; the "
                                  "eye spot's center"),
                    pattern),
            profile,
            imageParam("texture",
                       "With pattern texture: an image of the feather laid flat, the shaft up the "
                       "middle, the left vane on the left, the root at the bottom; its alpha says "
                       "where it covers"),
            imageParam("textureRight",
                       "Optional: the right vane's own image (texture is then the left vane's), "
                       "the shaft along the left edge"),
            grouped(fractionParam("offsetRandom", 0.0,
                                  "Random shift of each feather's pattern, as a share of its "
                                  "spacing (eye: its size)"),
                    "Random"),
            grouped(fractionParam("scaleRandom", 0.0,
                                  "Random size of each feather's pattern, +/- this share"),
                    "Random"),
            angleRandom,
            colorValue("downColor", {0.8f, 0.78f, 0.75f},
                       "The down zone's barbs' color (Propagate's down), linear RGB", "Down"),
            grouped(fractionParam("downStrength", 0.0,
                                  "How far the down zone's barbs go to downColor, 0-1"),
                    "Down"),
            grouped(fractionParam("iridescence", 0.0,
                                  "Structural color, 0 none to 1 full (mappable, per point): an "
                                  "angle-dependent sheen the hair shading mixes in (the "
                                  "iridescence channel)"),
                    "Iridescence"),
            colorValue("iridescenceColor", {0.1f, 0.6f, 0.4f},
                       "The structural color seen face-on (along the strand's normal: a "
                       "feather's vane), linear RGB. Groom-wide: the first FeatherColor with "
                       "iridescence sets it for the whole groom",
                       "Iridescence"),
            iridescenceShift,
            iridescenceOn,
            seed};
    }
    // The look it writes where a pattern, the down colour or iridescence applies, and the
    // feathers' flat coordinates it reads where feather operators wrote them.
    std::vector<ChannelUse> fixedChannels() const override {
        std::vector<ChannelUse> uses;
        addChannelUses(uses, channels::kColor, ChannelRole::Writes, true);
        const std::string_view pigment[] = {channels::kMelanin, channels::kRedness,
                                            channels::kDye[0], channels::kDye[1],
                                            channels::kDye[2]};
        addChannelUses(uses, pigment, ChannelRole::Writes, true);
        uses.push_back({std::string(channels::kIridescence), ChannelRole::Writes, false});
        addChannelUses(uses, channels::kIridescenceColor, ChannelRole::Writes, true);
        uses.push_back({std::string(channels::kIridescenceShift), ChannelRole::Writes, true});
        const std::string_view reads[] = {channels::kFeatherAlong, channels::kFeatherAcross,
                                          channels::kFeatherDown, channels::kFeatherId};
        addChannelUses(uses, reads, ChannelRole::Reads, true);
        return uses;
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return Value();
        FeatherColorSettings settings;
        settings.pattern = choiceOf<FeatherPattern>(paramSet.getString("pattern", "none"),
                                                    {{"none", FeatherPattern::None},
                                                     {"texture", FeatherPattern::Texture},
                                                     {"bars", FeatherPattern::Bars},
                                                     {"chevrons", FeatherPattern::Chevrons},
                                                     {"spots", FeatherPattern::Spots},
                                                     {"fringe", FeatherPattern::Fringe},
                                                     {"eye", FeatherPattern::Eye}});
        settings.strength = static_cast<float>(paramSet.getFloat("strength", 1.0));
        settings.melanin = static_cast<float>(paramSet.getFloat("melanin", 0.8));
        settings.redness = static_cast<float>(paramSet.getFloat("redness", 0.2));
        settings.dye = paramSet.getVec3("dye", {1, 1, 1});
        settings.vanes = choiceOf<FeatherVanes>(paramSet.getString("vanes", "both"),
                                                {{"both", FeatherVanes::Both},
                                                 {"left", FeatherVanes::Left},
                                                 {"right", FeatherVanes::Right}});
        settings.count = static_cast<float>(paramSet.getFloat("count", 6.0));
        settings.width = static_cast<float>(paramSet.getFloat("width", 0.5));
        settings.angle = static_cast<float>(paramSet.getFloat("angle", 0.0));
        settings.sharpness = static_cast<float>(paramSet.getFloat("sharpness", 0.5));
        settings.offset = static_cast<float>(paramSet.getFloat("offset", 0.5));
        settings.profile = paramRamp(paramSet, ctx, "profile", Ramp{});
        if (settings.pattern == FeatherPattern::Texture) {
            settings.texture = readImage(paramSet.getString("texture", ""));
            settings.textureRight = readImage(paramSet.getString("textureRight", ""));
            if (!settings.texture)
                ctx.note(
                    "FeatherColor: the texture pattern needs an image of the feather (set "
                    "texture): only the down color and iridescence apply");
        }
        settings.offsetRandom = static_cast<float>(paramSet.getFloat("offsetRandom", 0.0));
        settings.scaleRandom = static_cast<float>(paramSet.getFloat("scaleRandom", 0.0));
        settings.angleRandom = static_cast<float>(paramSet.getFloat("angleRandom", 0.0));
        settings.downColor = paramSet.getVec3("downColor", {0.8f, 0.78f, 0.75f});
        settings.downStrength = static_cast<float>(paramSet.getFloat("downStrength", 0.0));
        settings.iridescence = fieldSampler(paramSet, ctx, "iridescence", *input);
        settings.iridescenceColor = paramSet.getVec3("iridescenceColor", {0.1f, 0.6f, 0.4f});
        settings.iridescenceShift = static_cast<float>(paramSet.getFloat("iridescenceShift", 0.25));
        settings.iridescenceOn =
            choiceOf<IridescenceOn>(paramSet.getString("iridescenceOn", "all"),
                                    {{"all", IridescenceOn::All},
                                     {"leftVane", IridescenceOn::LeftVane},
                                     {"rightVane", IridescenceOn::RightVane},
                                     {"pattern", IridescenceOn::Pattern},
                                     {"notPattern", IridescenceOn::NotPattern}});
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        return std::shared_ptr<const StrandSet>(colorFeathers(*input, settings));
    }
};

}  // namespace

void registerFeatherColorOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "color";
    info.description =
        "Patterns on feathers (bars, spots, an eye, a painted image), a down color and "
        "iridescence. After HairColor.";
    info.keywords = "pattern bars spots iridescence";
    registry.registerType(
        "FeatherColor", [] { return std::make_unique<FeatherColorOp>(); }, info);
}

}  // namespace velmorin
