#include <algorithm>
#include <mutex>

#include "base/hash.h"
#include "fields/field_map.h"
#include "fields/field_scene.h"
#include "graph/delivered_params.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "maps/texture.h"
#include "ops/color_ops.h"
#include "strands/channel_names.h"

namespace velmorin {

namespace {

// A colour param's colour for a strand or point: a colour field's colour, a number field as a
// grey, or the plain colour.
Vec3f colorAt(const FieldSampler& sampler, std::size_t strand) {
    const FieldValue* field = sampler.field();
    if (!field) return sampler.vectorValue();
    if (field->isColor()) return field->colorAtStrand(strand);
    const float v = field->atStrand(strand);
    return {v, v, v};
}

Vec3f colorAtPoint(const FieldSampler& sampler, std::size_t strand, std::size_t point) {
    const FieldValue* field = sampler.field();
    if (!field) return sampler.vectorValue();
    if (field->isColor()) return field->colorAtPoint(strand, point);
    const float v = field->atPoint(strand, point);
    return {v, v, v};
}

// What a grey or white strand shows in colour mode: a light neutral.
constexpr Vec3f kGreyColor{0.8f, 0.8f, 0.8f};

// What a strand added later (by a Merge, say) shows: white, as a set without colour does.
constexpr float kColorDefault = 1.0f;

std::span<float> freshStrandChannel(StrandSet& out, std::string_view name, float value,
                                    bool keepValues) {
    out.removePointChannel(name);
    if (!keepValues) out.removeStrandChannel(name);
    return out.addStrandChannel(std::string(name), value);
}

std::span<float> freshPointChannel(StrandSet& out, std::string_view name, float value,
                                   bool keepValues) {
    out.removeStrandChannel(name);
    if (!keepValues) out.removePointChannel(name);
    return out.addPointChannel(std::string(name), value);
}

}  // namespace

namespace {

constexpr std::string_view kHighlightChannels[] = {channels::kSpecular, channels::kRoughness,
                                                   channels::kTilt};
constexpr std::string_view kDyeChannels[] = {channels::kDye[0], channels::kDye[1],
                                             channels::kDye[2]};
constexpr std::string_view kRednessChannels[] = {channels::kRedness};

std::uint64_t floatKey(std::uint64_t h, float value) {
    return hashCombine(h, floatBits(value));
}

}  // namespace

std::span<const std::string_view> hairColorGroupChannels(HairColorGroup group) {
    switch (group) {
        case HairColorGroup::Highlight:
            return kHighlightChannels;
        case HairColorGroup::Dye:
            return kDyeChannels;
        case HairColorGroup::Redness:
            return kRednessChannels;
    }
    return {};
}

bool hairColorGroupReadsIds(const HairColorSettings& settings, HairColorGroup group) {
    return group == HairColorGroup::Highlight &&
           (settings.specularRandom != 0.0f || settings.roughnessRandom != 0.0f);
}

std::array<std::uint64_t, kHairColorGroups> hairColorGroupKeys(const HairColorSettings& settings,
                                                               bool hasMap) {
    std::array<std::uint64_t, kHairColorGroups> keys{};
    if (!settings.specular.isMapped() && !settings.roughness.isMapped()) {
        std::uint64_t h = 0x686967686cull;
        for (const float value :
             {settings.specular.value(), settings.specularRandom, settings.roughness.value(),
              settings.roughnessRandom, settings.tilt, settings.clumpShare})
            h = floatKey(h, value);
        keys[0] = hashCombine(h, settings.seed) | 1;
    }
    if (settings.mode != HairColorMode::Melanin) return keys;
    if (!settings.dye.isMapped() && !hasMap) {
        const Vec3f dye = settings.dye.vectorValue();
        keys[1] = floatKey(floatKey(floatKey(0x647965ull, dye.x), dye.y), dye.z) | 1;
    }
    if (!settings.redness.isMapped()) keys[2] = floatKey(0x726564ull, settings.redness.value()) | 1;
    return keys;
}

namespace {

// The channels for `settings`, those of the groups in `kept` shared from `earlier`.
HairColorChannels makeChannels(StrandSet& out, const HairColorSettings& settings, bool keepValues,
                               const StrandSet* earlier, std::array<bool, kHairColorGroups> kept) {
    HairColorChannels channels;
    const auto perStrand = [&](std::string_view name, float value, bool shared) {
        if (!shared) return freshStrandChannel(out, name, value, keepValues);
        out.removePointChannel(name);
        out.shareStrandChannelFrom(std::string(name), *earlier);
        return std::span<float>();
    };
    for (std::size_t c = 0; c < 3; ++c) {
        channels.color[c] =
            settings.tipped()
                ? freshPointChannel(out, channels::kColor[c], kColorDefault, keepValues)
                : freshStrandChannel(out, channels::kColor[c], kColorDefault, keepValues);
    }
    if (settings.mode == HairColorMode::Melanin) {
        channels.melanin = freshStrandChannel(out, channels::kMelanin, 0.0f, keepValues);
        channels.redness = perStrand(channels::kRedness, 0.0f, kept[2]);
        for (std::size_t c = 0; c < 3; ++c)
            channels.dye[c] = perStrand(channels::kDye[c], 1.0f, kept[1]);
    } else {
        // The pigment an earlier HairColor left would tell a pigment shader another colour than
        // the one this node picks.
        for (const std::string_view name :
             {channels::kMelanin, channels::kRedness, channels::kDye[0], channels::kDye[1],
              channels::kDye[2]}) {
            out.removeStrandChannel(name);
            out.removePointChannel(name);
        }
    }
    channels.specular = perStrand(channels::kSpecular, 0.3f, kept[0]);
    channels.roughness = perStrand(channels::kRoughness, 0.2f, kept[0]);
    channels.tilt = perStrand(channels::kTilt, 3.0f, kept[0]);
    return channels;
}

}  // namespace

HairColorChannels makeHairColorChannels(StrandSet& out, const HairColorSettings& settings,
                                        bool keepValues) {
    return makeChannels(out, settings, keepValues, nullptr, {});
}

HairColorChannels makeHairColorChannels(StrandSet& out, const HairColorSettings& settings,
                                        const StrandSet& earlier,
                                        std::array<bool, kHairColorGroups> kept) {
    return makeChannels(out, settings, false, &earlier, kept);
}

void colorHair(const StrandSet& input, const HairColorSettings& settings,
               const StrandSelection& selection, const HairColorChannels& channels) {
    const std::span<const std::uint64_t> ids = input.ids();
    const bool melaninMode = settings.mode == HairColorMode::Melanin;
    const bool shareClumps = settings.clumps && settings.clumpShare > 0.0f;
    const bool tipped = settings.tipped();
    const float k = std::clamp(settings.clumpShare, 0.0f, 1.0f);
    const std::size_t used = colorDrawsUsed(settings);
    forSelectedChunks(input.strandCount(), selection, [&](std::size_t first, std::size_t last) {
        // Draws a run does not use stay at one half, the middle of their range.
        std::array<float, kColorDraws> draws;
        std::array<float, kColorDraws> clumpDraws;
        draws.fill(0.5f);
        clumpDraws.fill(0.5f);
        std::vector<float> t;
        for (std::size_t i = first; i < last; ++i) {
            const std::size_t s = selection.strand(i);
            colorDraws(ids[s], settings.seed, draws, used);
            if (shareClumps) {
                colorDraws(floatBits((*settings.clumps)[s]), settings.seed, clumpDraws, used);
                for (std::size_t d = 0; d < used; ++d)
                    draws[d] = (1.0f - k) * draws[d] + k * clumpDraws[d];
            }
            const auto signedDraw = [&](std::size_t d) { return 2.0f * draws[d] - 1.0f; };
            const bool grey = draws[0] < settings.greys.atStrand(s);
            const Vec3f map =
                settings.map.isMapped() ? settings.map.vectorAtStrand(s) : Vec3f{1, 1, 1};

            Vec3f base;
            if (melaninMode) {
                float melanin = std::clamp(
                    settings.melanin.atStrand(s) + settings.melaninRandom * signedDraw(1), 0.0f,
                    1.0f);
                if (grey) melanin *= kGreyMelaninShare;
                const float redness = std::clamp(settings.redness.atStrand(s), 0.0f, 1.0f);
                const Vec3f dye = tinted(colorAt(settings.dye, s), map);
                base = tinted(pigmentColor(melanin, redness), dye);
                channels.melanin[s] = melanin;
                if (!channels.redness.empty()) channels.redness[s] = redness;
                if (!channels.dye[0].empty()) {
                    channels.dye[0][s] = dye.x;
                    channels.dye[1][s] = dye.y;
                    channels.dye[2][s] = dye.z;
                }
            } else {
                base = grey ? kGreyColor : tinted(colorAt(settings.color, s), map);
                base = varyColor(base, settings.valueRandom * signedDraw(2),
                                 0.5f * settings.hueRandom * signedDraw(3),
                                 settings.saturationRandom * signedDraw(4));
            }
            base = {std::max(base.x, 0.0f), std::max(base.y, 0.0f), std::max(base.z, 0.0f)};

            if (!tipped) {
                channels.color[0][s] = base.x;
                channels.color[1][s] = base.y;
                channels.color[2][s] = base.z;
            } else {
                const std::span<const Vec3f> points = input.strandPoints(s);
                const std::size_t begin = input.pointRange(s).begin;
                t.resize(points.size());
                arcShares(points, t);
                const float shift = settings.tipOffsetRandom * signedDraw(5);
                for (std::size_t p = 0; p < points.size(); ++p) {
                    const float along = std::clamp(t[p] + shift, 0.0f, 1.0f);
                    const float share = std::clamp(
                        settings.tipStrength.atPoint(s, p) * settings.tipProfile.at(along), 0.0f,
                        1.0f);
                    const Vec3f shown = lerp(base, colorAtPoint(settings.tipColor, s, p), share);
                    channels.color[0][begin + p] = shown.x;
                    channels.color[1][begin + p] = shown.y;
                    channels.color[2][begin + p] = shown.z;
                }
            }

            if (channels.specular.empty()) continue;
            channels.specular[s] =
                std::max(0.0f, settings.specular.atStrand(s) *
                                   (1.0f + settings.specularRandom * signedDraw(6)));
            channels.roughness[s] = std::clamp(
                settings.roughness.atStrand(s) * (1.0f + settings.roughnessRandom * signedDraw(7)),
                0.0f, 1.0f);
            channels.tilt[s] = settings.tilt;
        }
    });
}

std::shared_ptr<StrandSet> colorHair(const StrandSet& input, const HairColorSettings& settings) {
    auto out = std::make_shared<StrandSet>(input);
    const HairColorChannels channels = makeHairColorChannels(*out, settings, false);
    colorHair(input, settings, StrandSelection::every(), channels);
    return out;
}

namespace {

ParamSpec lookParam(std::string name, ParamValue value, std::string description,
                    std::string group = {}) {
    ParamSpec spec = shapeParam(std::move(name), std::move(value), std::move(description));
    spec.group = std::move(group);
    return spec;
}

ParamSpec shareParam(std::string name, double value, std::string description,
                     std::string group = {}) {
    ParamSpec spec = fractionParam(std::move(name), value, std::move(description));
    spec.group = std::move(group);
    return spec;
}

ParamSpec colorParam(std::string name, Vec3f value, std::string description,
                     std::string group = {}) {
    ParamSpec spec = lookParam(std::move(name), value, std::move(description), std::move(group));
    spec.unit = "color";
    spec.colorField = true;
    return spec;
}

ParamSpec shownForMode(ParamSpec spec, const char* mode) {
    spec.showWhen = ShowWhen{"mode", {ParamValue(std::string(mode))}};
    return spec;
}

// Every channel HairColor may write.
constexpr std::string_view kWrittenChannels[] = {
    channels::kColor[0], channels::kColor[1],  channels::kColor[2], channels::kMelanin,
    channels::kRedness,  channels::kDye[0],    channels::kDye[1],   channels::kDye[2],
    channels::kSpecular, channels::kRoughness, channels::kTilt};

// The hair's look: pigment and dye, a map, greys, randomness, a tip color and the highlight.
class HairColorOp final : public ShapeOperator {
  public:
    std::string type() const override { return "HairColor"; }
    std::string category() const override { return "color"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec mode = lookParam(
            "mode", std::string("melanin"),
            "What colors the hair: melanin (natural hair: melanin and redness, and a dye) or "
            "color (the color you pick, as it shows and renders); PxrHairColor's Physical and "
            "Artistic modes");
        mode.choices = {"melanin", "color"};
        mode.animatable = false;
        ParamSpec melanin =
            shareParam("melanin", 0.5, "Pigment, 0 (white, blond) to 1 (black) (mappable)");
        ParamSpec redness = shareParam(
            "redness", 0.2,
            "Share of red pigment (pheomelanin), 0 (brown, black) to 1 (red) (mappable)");
        ParamSpec dye = colorParam(
            "dye", {1, 1, 1},
            "A color dyeing the pigment (white: none): its absorption adds to the pigment's, as "
            "aiStandardHair combines its melanin and base color (a Map's rgb output can drive "
            "it)");
        ParamSpec color = colorParam(
            "color", {1, 1, 1},
            "The hair's color, as it shows and renders (white hair: 1, 1, 1); a Map's rgb output "
            "plugged in colors each strand by its root (times this color)");
        ParamSpec map = lookParam(
            "map", std::string(),
            "A color read at each root (empty: none): a map painted in Groom Tools > Paint, by "
            "name, a color set of that name on the scalp, or an image file at the scalp's UVs. "
            "Mode color: it is the color; mode melanin: it dyes the pigment");
        map.unit = "mask";
        map.animatable = false;
        ParamSpec greys =
            shareParam("greys", 0.0,
                       "Share of strands with almost no pigment: grey and white hairs (mappable)");

        const std::string random = "Random";
        ParamSpec melaninRandom = shownForMode(
            shareParam("melaninRandom", 0.05,
                       "Each strand's melanin up to this much more or less, at random", random),
            "melanin");
        ParamSpec valueRandom = shownForMode(
            shareParam("valueRandom", 0.05,
                       "Each strand's color up to this share lighter or darker, at random", random),
            "color");
        ParamSpec hueRandom = shownForMode(
            shareParam("hueRandom", 0.0,
                       "Each strand's hue turned at random, up to half a turn either way at 1",
                       random),
            "color");
        ParamSpec saturationRandom = shownForMode(
            shareParam("saturationRandom", 0.0,
                       "Each strand's saturation up to this share more or less, at random (grey "
                       "and white stay neutral)",
                       random),
            "color");
        ParamSpec clumpShare = shareParam(
            "clumpShare", 0.0,
            "How much of the randomness the strands of one clump share: 0 each strand its own, 1 "
            "the whole clump alike (needs a Clump before HairColor: its clumpChannel)",
            random);
        ParamSpec clumpChannel = lookParam(
            "clumpChannel", std::string(channels::kClumpId),
            "The channel naming each strand's clump, for clumpShare: a Clump's clumpChannel "
            "(clumpId by default; with chained Clumps, the one whose clumps should share a color)",
            "Advanced");
        clumpChannel.advanced = true;
        clumpChannel.animatable = false;
        clumpChannel.channel = ChannelRole::Reads;
        clumpChannel.channelOptional = true;
        ParamSpec seed = seedParam();
        seed.group = random;

        const std::string tip = "Tip";
        ParamSpec tipColor = colorParam(
            "tipColor", {0.9f, 0.8f, 0.6f},
            "The color the strands blend toward at the tip (with tipStrength above 0; a Map's rgb "
            "output can drive it)",
            tip);
        ParamSpec tipStrength = shareParam(
            "tipStrength", 0.0,
            "How far toward tipColor the tips go, 0-1 (mappable, per point: a painted per-point "
            "layer or an expression of t paints color along the strands)",
            tip);
        ParamSpec tipProfile = lookParam(
            "tipProfile", defaultTipProfile(),
            "Where along the strand the tip color shows, root to tip, times tipStrength", tip);
        ParamSpec tipOffsetRandom = shareParam(
            "tipOffsetRandom", 0.0,
            "Each strand's tip color starts up to this share of its length earlier or later, at "
            "random",
            tip);

        const std::string highlight = "Highlight";
        ParamSpec specular = shareParam(
            "specular", 0.3,
            "Highlight strength, 0 none to 1 bright (mappable; 0.3 is aiStandardHair's full "
            "specular tint)",
            highlight);
        ParamSpec specularRandom = shareParam(
            "specularRandom", 0.0,
            "Each strand's specular up to this share more or less, at random", highlight);
        ParamSpec roughness = shareParam(
            "roughness", 0.2, "Highlight spread, 0 sharp to 1 broad (mappable)", highlight);
        ParamSpec roughnessRandom = shareParam(
            "roughnessRandom", 0.0,
            "Each strand's roughness up to this share more or less, at random", highlight);
        ParamSpec tilt = lookParam(
            "tilt", 3.0,
            "Cuticle tilt, degrees: how far the highlight and its colored second highlight move "
            "apart along the strand (real hair: 2-4)",
            highlight);
        tilt.unit = "angle";
        tilt.min = -45.0;
        tilt.max = 45.0;
        tilt.softMin = 0.0;
        tilt.softMax = 10.0;

        return {mode,
                melanin,
                redness,
                dye,
                color,
                map,
                greys,
                melaninRandom,
                valueRandom,
                hueRandom,
                saturationRandom,
                clumpShare,
                clumpChannel,
                seed,
                tipColor,
                tipStrength,
                tipProfile,
                tipOffsetRandom,
                specular,
                specularRandom,
                roughness,
                roughnessRandom,
                tilt};
    }
    std::vector<ChannelUse> fixedChannels() const override {
        std::vector<ChannelUse> uses;
        addChannelUses(uses, channels::kColor, ChannelRole::Writes, false);
        if (documentText(paramSet, "mode") != "color") {
            const std::string_view pigment[] = {channels::kMelanin, channels::kRedness,
                                                channels::kDye[0], channels::kDye[1],
                                                channels::kDye[2]};
            addChannelUses(uses, pigment, ChannelRole::Writes, false);
        }
        addChannelUses(uses, kHighlightChannels, ChannelRole::Writes, false);
        const std::string clumps = documentText(paramSet, "clumpChannel");
        if (documentNumber(paramSet, "clumpShare") > 0.0 && !clumps.empty())
            uses.push_back({clumps, ChannelRole::Reads, true});
        return uses;
    }
    // A clone of the graph keeps what the last full run wrote.
    void copyStateFrom(const Operator& other) override {
        const auto* from = dynamic_cast<const HairColorOp*>(&other);
        if (!from) return;
        std::shared_ptr<const KeptLook> kept;
        {
            std::lock_guard lock(from->keptMutex_);
            kept = from->kept_;
        }
        std::lock_guard lock(keptMutex_);
        kept_ = std::move(kept);
    }
    std::vector<std::string> sceneInputs() const override {
        // Only a map read by name reaches the scalp and the painted maps.
        if (paramSet.getString("map", "").empty()) return {};
        return {std::string(kScalpInput), std::string(kMapsInput)};
    }

  private:
    HairColorSettings settingsFor(const EvalContext& ctx, const StrandSet& input) const {
        HairColorSettings settings;
        settings.mode = paramSet.getString("mode", "melanin") == "color" ? HairColorMode::Color
                                                                         : HairColorMode::Melanin;
        settings.melanin = fieldSampler(paramSet, ctx, "melanin", input);
        settings.redness = fieldSampler(paramSet, ctx, "redness", input);
        settings.dye = fieldSampler(paramSet, ctx, "dye", input);
        settings.color = fieldSampler(paramSet, ctx, "color", input);
        settings.map = rootColorMap("HairColor", "map", paramSet.getString("map", ""), ctx, input);
        settings.greys = fieldSampler(paramSet, ctx, "greys", input);
        settings.melaninRandom = static_cast<float>(paramSet.getFloat("melaninRandom", 0.0));
        settings.valueRandom = static_cast<float>(paramSet.getFloat("valueRandom", 0.0));
        settings.hueRandom = static_cast<float>(paramSet.getFloat("hueRandom", 0.0));
        settings.saturationRandom = static_cast<float>(paramSet.getFloat("saturationRandom", 0.0));
        settings.clumpShare = static_cast<float>(paramSet.getFloat("clumpShare", 0.0));
        // Without the channel every strand is a clump of its own: a share of nothing.
        settings.clumps = settings.clumpShare > 0.0f
                              ? input.strandChannel(paramSet.getString(
                                    "clumpChannel", std::string(channels::kClumpId)))
                              : nullptr;
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        settings.tipColor = fieldSampler(paramSet, ctx, "tipColor", input);
        settings.tipStrength = fieldSampler(paramSet, ctx, "tipStrength", input);
        settings.tipProfile = paramRamp(paramSet, ctx, "tipProfile", defaultTipProfile());
        settings.tipOffsetRandom = static_cast<float>(paramSet.getFloat("tipOffsetRandom", 0.0));
        settings.specular = fieldSampler(paramSet, ctx, "specular", input);
        settings.specularRandom = static_cast<float>(paramSet.getFloat("specularRandom", 0.0));
        settings.roughness = fieldSampler(paramSet, ctx, "roughness", input);
        settings.roughnessRandom = static_cast<float>(paramSet.getFloat("roughnessRandom", 0.0));
        settings.tilt = static_cast<float>(paramSet.getFloat("tilt", 3.0));
        return settings;
    }

    // What the last full run wrote of the groups that a later one may keep: a param change then
    // rewrites only the channels the param reaches.
    struct KeptLook {
        std::size_t strandCount = 0;
        std::shared_ptr<const std::vector<std::uint64_t>> ids;  // for groups that read them
        std::shared_ptr<const std::vector<float>> clumps;       // where the draws read them
        std::array<std::uint64_t, kHairColorGroups> keys{};
        StrandSet channels;  // the groups' channels, shared with the result that holds them
    };

    std::shared_ptr<StrandSet> fullRun(const StrandSet& input,
                                       const HairColorSettings& settings) const {
        const auto keys = hairColorGroupKeys(settings, !paramSet.getString("map", "").empty());
        std::shared_ptr<const KeptLook> last;
        {
            std::lock_guard lock(keptMutex_);
            last = kept_;
        }
        std::array<bool, kHairColorGroups> keep{};
        bool anyKept = false;
        bool drawsKept = false;  // the ids and clumps are the last run's
        if (last && last->strandCount == input.strandCount()) {
            const std::span<const std::uint64_t> ids = input.ids();
            drawsKept = last->ids &&
                        std::equal(ids.begin(), ids.end(), last->ids->begin(), last->ids->end());
            if (settings.clumps)
                drawsKept = drawsKept && last->clumps && *last->clumps == *settings.clumps;
            else
                drawsKept = drawsKept && !last->clumps;
            for (std::size_t g = 0; g < kHairColorGroups; ++g) {
                const auto group = static_cast<HairColorGroup>(g);
                keep[g] = keys[g] != 0 && keys[g] == last->keys[g] &&
                          last->channels.strandChannel(hairColorGroupChannels(group).front()) &&
                          (drawsKept || !hairColorGroupReadsIds(settings, group));
                anyKept = anyKept || keep[g];
            }
        }
        auto made = std::make_shared<StrandSet>(input);
        const HairColorChannels channels =
            anyKept ? makeHairColorChannels(*made, settings, last->channels, keep)
                    : makeHairColorChannels(*made, settings, false);
        colorHair(input, settings, StrandSelection::every(), channels);

        auto next = std::make_shared<KeptLook>();
        next->strandCount = input.strandCount();
        next->keys = keys;
        next->ids = drawsKept ? last->ids
                              : std::make_shared<const std::vector<std::uint64_t>>(
                                    input.ids().begin(), input.ids().end());
        if (settings.clumps)
            next->clumps = drawsKept ? last->clumps
                                     : std::make_shared<const std::vector<float>>(*settings.clumps);
        for (std::size_t g = 0; g < kHairColorGroups; ++g) {
            if (keys[g] == 0) continue;
            for (const std::string_view name :
                 hairColorGroupChannels(static_cast<HairColorGroup>(g)))
                next->channels.shareStrandChannelFrom(std::string(name), *made);
        }
        std::lock_guard lock(keptMutex_);
        kept_ = std::move(next);
        return made;
    }

    mutable std::mutex keptMutex_;
    mutable std::shared_ptr<const KeptLook> kept_;

    // Whether the channels of the listed strands come out as they were: nothing the colour reads
    // can have changed with their points (no field, no tip), and each kept its clump.
    static bool colorsKept(const HairColorSettings& settings, const StrandSet& before,
                           std::span<const std::uint64_t> strands,
                           const std::string& clumpChannel) {
        for (const FieldSampler* sampler :
             {&settings.melanin, &settings.redness, &settings.dye, &settings.color, &settings.greys,
              &settings.specular, &settings.roughness})
            if (sampler->isMapped()) return false;
        if (settings.tipped()) return false;
        if (!settings.clumps) return true;
        const std::vector<float>* was = before.strandChannel(clumpChannel);
        if (!was || was->size() != settings.clumps->size()) return false;
        for (const std::uint64_t s : strands)
            if (!((*was)[s] == (*settings.clumps)[s])) return false;
        return true;
    }

    bool run(const EvalContext& ctx, const std::vector<Value>& inputs,
             const IncrementalInputs* incremental, Value* out,
             StrandChanges* changes) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!incremental) {
            if (!input) {
                *out = Value();
                return true;
            }
            *out = std::shared_ptr<const StrandSet>(fullRun(*input, settingsFor(ctx, *input)));
            changes->all = true;
            changes->strands.clear();
            changes->sameLayout = true;
            return true;
        }

        if (!input || incremental->changes.empty()) return false;
        auto previous = incremental->previous.get<StrandSet>();
        const auto& changed = incremental->changes[0];
        if (!previous || !changed || changed->all || !changed->sameLayout ||
            previous->strandCount() != input->strandCount() ||
            previous->pointCount() != input->pointCount())
            return false;
        if (!mapsReadOnlyTheirStrand(paramSet, ctx,
                                     {"melanin", "redness", "dye", "color", "greys", "tipColor",
                                      "tipStrength", "specular", "roughness"}))
            return false;
        const HairColorSettings settings = settingsFor(ctx, *input);

        auto made = std::make_shared<StrandSet>(*input);
        const std::string clumpChannel =
            paramSet.getString("clumpChannel", std::string(channels::kClumpId));
        StrandSet before(*previous);
        previous.reset();
        incremental->takePrevious();
        // Where nothing the colours read has changed, the previous result's channels are this
        // result's as they stand, shared rather than copied (the nodes after this one hold them
        // too). Otherwise they are taken over, where nothing else holds them, for the changed
        // strands to be redone in them.
        const bool kept = colorsKept(settings, before, changed->strands, clumpChannel);
        for (const std::string_view name : kWrittenChannels) {
            const std::string named(name);
            if (before.strandChannel(name)) {
                made->removePointChannel(name);
                if (kept) {
                    made->shareStrandChannelFrom(named, before);
                } else {
                    made->moveStrandChannelFrom(named, before);
                }
            } else if (before.pointChannel(name)) {
                made->removeStrandChannel(name);
                if (kept) {
                    made->sharePointChannelFrom(named, before);
                } else {
                    made->movePointChannelFrom(named, before);
                }
            } else {
                made->removeStrandChannel(name);
                made->removePointChannel(name);
            }
        }
        if (!kept) {
            const HairColorChannels channels = makeHairColorChannels(*made, settings, true);
            colorHair(*input, settings, StrandSelection::only(changed->strands), channels);
        }
        // The strands differ as the input's do, and where redone, in the channels written here.
        *changes = *changed;
        if (!kept) {
            for (const std::string_view name : kWrittenChannels)
                changes->addChannel(name);
        }
        *out = std::shared_ptr<const StrandSet>(std::move(made));
        return true;
    }
};

}  // namespace

void registerHairColorOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "color";
    info.description =
        "The hair's look: pigment and dye, a map, greys, randomness, a tip color and the "
        "highlight (specular, roughness, tilt).";
    info.keywords = "melanin pigment dye shading specular roughness";
    registry.registerType(
        "HairColor", [] { return std::make_unique<HairColorOp>(); }, info);
}

}  // namespace velmorin
