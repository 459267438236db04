#include <algorithm>
#include <cmath>
#include <numeric>

#include "graph/delivered_params.h"
#include "graph/registry.h"
#include "ops/color_ops.h"
#include "strands/channel_names.h"

namespace velmorin {

namespace {

// Bands' own draws follow HairColor's, so that the melanin draw is shared and the others are new.
constexpr std::size_t kGuardDraw = kColorDraws;
constexpr std::size_t kOffsetDraw = kColorDraws + 1;
constexpr std::size_t kWidthDraw = kColorDraws + 2;
constexpr std::size_t kBandDraws = kColorDraws + 3;

std::array<float, kBandDraws> bandDraws(std::uint64_t id, std::uint64_t seed) {
    std::array<float, kBandDraws> draws;
    StrandDraws sequence(id, seed);
    for (float& draw : draws)
        draw = sequence.next();
    return draws;
}

}  // namespace

std::vector<std::uint8_t> guardHairs(const StrandSet& input, const BandsSettings& settings) {
    const std::size_t count = input.strandCount();
    std::vector<std::uint8_t> guard(count, 0);
    const std::span<const std::uint64_t> ids = input.ids();
    if (settings.guardsBy == GuardsBy::Random) {
        parallelRange(0, count, 256, [&](std::size_t first, std::size_t last) {
            for (std::size_t s = first; s < last; ++s)
                guard[s] = bandDraws(ids[s], settings.seed)[kGuardDraw] < settings.guards;
        });
        return guard;
    }
    std::vector<float> lengths(count);
    parallelRange(0, count, 256, [&](std::size_t first, std::size_t last) {
        for (std::size_t s = first; s < last; ++s)
            lengths[s] = strandLength(input.strandPoints(s));
    });
    std::vector<std::uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        if (lengths[a] != lengths[b]) return lengths[a] > lengths[b];
        return ids[a] < ids[b];
    });
    const auto guards = static_cast<std::size_t>(
        std::lround(std::clamp(settings.guards, 0.0f, 1.0f) * static_cast<double>(count)));
    for (std::size_t i = 0; i < guards; ++i)
        guard[order[i]] = 1;
    return guard;
}

std::shared_ptr<StrandSet> bandStrands(const StrandSet& input, const BandsSettings& settings) {
    auto out = std::make_shared<StrandSet>(input);
    const std::vector<std::uint8_t> guard = guardHairs(input, settings);
    const std::span<const std::uint64_t> ids = input.ids();

    // What the hair shows and is made of before the bands, at either scope.
    const HairLookChannels look(input);
    // Plain references, not a structured binding: lambdas below capture them.
    const auto& color = look.color;
    const auto& melanin = look.melanin;
    const auto& redness = look.redness;
    const auto& dye = look.dye;
    const bool pigment = look.hasPigment();

    // Everything written varies along the strand now: per point, in place of the input's.
    const auto pointChannel = [&](std::string_view name, float value) {
        return freshPointChannel(*out, name, value);
    };
    std::array<std::span<float>, 3> outColor, outDye;
    std::span<float> outMelanin, outRedness;
    for (std::size_t c = 0; c < 3; ++c)
        outColor[c] = pointChannel(channels::kColor[c], 1.0f);
    if (pigment) {
        outMelanin = pointChannel(channels::kMelanin, 0.0f);
        outRedness = pointChannel(channels::kRedness, 0.0f);
        for (std::size_t c = 0; c < 3; ++c)
            outDye[c] = pointChannel(channels::kDye[c], 1.0f);
    }

    const float count = std::max(settings.count, 0.0f);
    parallelRange(0, input.strandCount(), 256, [&](std::size_t first, std::size_t last) {
        std::vector<float> t;
        for (std::size_t s = first; s < last; ++s) {
            const std::span<const Vec3f> points = input.strandPoints(s);
            const std::size_t begin = input.pointRange(s).begin;
            const std::array<float, kBandDraws> draws = bandDraws(ids[s], settings.seed);
            const auto signedDraw = [&](std::size_t d) { return 2.0f * draws[d] - 1.0f; };
            if (!guard[s]) {
                // Undercoat: the strand's plain colour, as at its root (no bands, no tip colour),
                // under the undercoat's tint.
                const Vec3f plain =
                    tinted({color[0].at(s, begin), color[1].at(s, begin), color[2].at(s, begin)},
                           settings.undercoatDye);
                const Vec3f plainDye =
                    tinted({dye[0].at(s, begin), dye[1].at(s, begin), dye[2].at(s, begin)},
                           settings.undercoatDye);
                for (std::size_t p = begin; p < begin + points.size(); ++p) {
                    outColor[0][p] = plain.x;
                    outColor[1][p] = plain.y;
                    outColor[2][p] = plain.z;
                    if (!pigment) continue;
                    outMelanin[p] = melanin.at(s, begin);
                    outRedness[p] = redness.at(s, begin);
                    outDye[0][p] = plainDye.x;
                    outDye[1][p] = plainDye.y;
                    outDye[2][p] = plainDye.z;
                }
                continue;
            }
            const float offset = settings.melaninRandom * signedDraw(kMelaninDraw);
            const float bandMelanin = std::clamp(settings.melanin + offset, 0.0f, 1.0f);
            const float bandRedness = std::clamp(settings.redness + offset, 0.0f, 1.0f);
            const Vec3f band = tinted(pigmentColor(bandMelanin, bandRedness), settings.dye);
            const float shift = settings.offsetRandom * signedDraw(kOffsetDraw);
            const float stretch =
                std::max(0.05f, 1.0f + settings.widthRandom * signedDraw(kWidthDraw));
            t.resize(points.size());
            arcShares(points, t);
            for (std::size_t k = 0; k < points.size(); ++k) {
                const std::size_t p = begin + k;
                const float repeated = t[k] * count / stretch + shift;
                const float phase = repeated - std::floor(repeated);
                const float share = std::clamp(
                    settings.strength.atPoint(s, k) * settings.profile.at(phase), 0.0f, 1.0f);
                const Vec3f own{color[0].at(s, p), color[1].at(s, p), color[2].at(s, p)};
                const Vec3f shown = lerp(own, band, share);
                outColor[0][p] = shown.x;
                outColor[1][p] = shown.y;
                outColor[2][p] = shown.z;
                if (!pigment) continue;
                outMelanin[p] = melanin.at(s, p) + (bandMelanin - melanin.at(s, p)) * share;
                outRedness[p] = redness.at(s, p) + (bandRedness - redness.at(s, p)) * share;
                const Vec3f dyed =
                    lerp({dye[0].at(s, p), dye[1].at(s, p), dye[2].at(s, p)}, settings.dye, share);
                outDye[0][p] = dyed.x;
                outDye[1][p] = dyed.y;
                outDye[2][p] = dyed.z;
            }
        }
    });
    return out;
}

namespace {

ParamSpec bandsColor(std::string name, std::string description) {
    ParamSpec spec = shapeParam(std::move(name), Vec3f{1, 1, 1}, std::move(description));
    spec.unit = "color";
    return spec;
}

// Bands of another pigment along each hair, on the guard hairs.
class BandsOp final : public Operator {
  public:
    std::string type() const override { return "Bands"; }
    std::string category() const override { return "color"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> params() const override {
        ParamSpec count = shapeParam("count", 1.0,
                                     "How many times the profile repeats root to tip (ticked "
                                     "fur: several)");
        count.min = 0.0;
        count.softMin = 1.0;
        count.softMax = 10.0;
        ParamSpec guardsBy = shapeParam("guardsBy", std::string("random"),
                                        "Which strands are the guard hairs: at random, or the "
                                        "longest");
        guardsBy.choices = {"random", "longest"};
        guardsBy.animatable = false;
        return {
            fractionParam("strength", 1.0,
                          "How strongly the bands show, 0 (none) to 1 (mappable, per point)"),
            fractionParam("melanin", 0.3, "The bands' pigment, 0 (pale) to 1 (black)"),
            fractionParam("redness", 0.8,
                          "The bands' redness, 0 (brown) to 1 (red): agouti's band is a pale "
                          "yellow-red"),
            bandsColor("dye", "Dye over the bands' pigment, linear RGB (white: none)"),
            shapeParam("profile", defaultBandsProfile(),
                       "Where the band color is along one period of the pattern, root to tip: 0 "
                       "the hair's own, 1 the band's"),
            count,
            fractionParam("guards", 1.0,
                          "Share of the strands that are guard hairs, which take the bands and "
                          "keep the tip color (1: all); the rest are undercoat in the plain color"),
            guardsBy,
            bandsColor("undercoatDye",
                       "Tint over the undercoat's color, linear RGB (white: the hair's own)"),
            fractionParam("melaninRandom", 0.0,
                          "Random offset of each strand's band pigment (melanin and redness), "
                          "+/-"),
            fractionParam("offsetRandom", 0.0,
                          "Random shift of each strand's bands along it, as a share of a period, "
                          "so bands do not line up across the coat"),
            fractionParam("widthRandom", 0.0,
                          "Random stretch of each strand's bands, +/- this share"),
            [] {
                ParamSpec seed = seedParam();
                seed.description = "Random seed (HairColor's, for the same pigment offsets)";
                return seed;
            }()};
    }
    // The colour always; the pigment where the strands carry it.
    std::vector<ChannelUse> fixedChannels() const override {
        std::vector<ChannelUse> uses;
        addChannelUses(uses, channels::kColor, ChannelRole::Writes, false);
        const std::string_view pigment[] = {channels::kMelanin, channels::kRedness,
                                            channels::kDye[0], channels::kDye[1],
                                            channels::kDye[2]};
        addChannelUses(uses, pigment, ChannelRole::Writes, true);
        return uses;
    }
    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        if (!input) return Value();
        BandsSettings settings;
        settings.strength = fieldSampler(paramSet, ctx, "strength", *input);
        settings.melanin = static_cast<float>(paramSet.getFloat("melanin", 0.3));
        settings.redness = static_cast<float>(paramSet.getFloat("redness", 0.8));
        settings.dye = paramSet.getVec3("dye", {1, 1, 1});
        settings.profile = paramRamp(paramSet, ctx, "profile", defaultBandsProfile());
        settings.count = static_cast<float>(paramSet.getFloat("count", 1.0));
        settings.guards = static_cast<float>(paramSet.getFloat("guards", 1.0));
        settings.guardsBy = paramSet.getString("guardsBy", "random") == "longest"
                                ? GuardsBy::Longest
                                : GuardsBy::Random;
        settings.undercoatDye = paramSet.getVec3("undercoatDye", {1, 1, 1});
        settings.melaninRandom = static_cast<float>(paramSet.getFloat("melaninRandom", 0.0));
        settings.offsetRandom = static_cast<float>(paramSet.getFloat("offsetRandom", 0.0));
        settings.widthRandom = static_cast<float>(paramSet.getFloat("widthRandom", 0.0));
        settings.seed = static_cast<std::uint64_t>(paramSet.getInt("seed", 0));
        return std::shared_ptr<const StrandSet>(bandStrands(*input, settings));
    }
};

}  // namespace

void registerBandsOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "color";
    info.description =
        "Bands of another pigment along each hair, on the guard hairs: agouti, ticked, shaded "
        "fur. After HairColor.";
    info.keywords = "agouti ticked stripes";
    registry.registerType(
        "Bands", [] { return std::make_unique<BandsOp>(); }, info);
}

}  // namespace velmorin
