#pragma once
// The colour and render-data operators: HairColor, Bands, FeatherColor and RenderData, which write
// the look's channels (strands/channel_names.h) and never move a point, and Output, which closes
// the graph. Each node is a thin class over the plain functions declared here, which tests and
// benchmarks call without a graph. A function reads `input` and writes the look channels of
// `out`, a set of the input's layout (usually a shallow copy of it).
//
// The shown colour. Every colour operator leaves the colour a strand shows and renders in the three
// channels of channels::kColor, in linear RGB, so that the display and the exporters can draw it
// without a pigment model. In melanin mode that colour comes from the pigment by the absorption
// model of pigmentColor below; the pigment itself (melanin, redness, dye) is written beside it for
// shaders that model pigment themselves.
//
// Scope. A channel is written per strand while nothing in it varies along the strand, and per
// point where a tip colour, a band or a per-point map makes it vary.

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "fields/field_sampler.h"
#include "graph/ramp.h"
#include "ops/shape_support.h"

namespace velmorin {

class OperatorRegistry;
class Texture;

void registerHairColorOperator(OperatorRegistry& registry);
void registerBandsOperator(OperatorRegistry& registry);
void registerFeatherColorOperator(OperatorRegistry& registry);
void registerRenderDataOperator(OperatorRegistry& registry);
void registerOutputOperator(OperatorRegistry& registry);

// ---- The pigment model ----
//
// A hair's colour from its pigment by Beer-Lambert absorption: light that crosses a fibre and
// leaves it on the far side travels about twice its diameter, so the shown colour is
// exp(-2 * sigma) with sigma the absorption per diameter. Eumelanin and pheomelanin absorb with the
// published coefficients of d'Eon, Francois, Hill, Letteri and Aubry, "An Energy-Conserving Hair
// Reflectance Model" (EGSR 2011), also used by Chiang, Bitterli, Tappan and Burley, "A Practical
// and Controllable Hair and Fur Model for Production Path Tracing" (EGSR 2016): eumelanin
// (0.419, 0.697, 1.37), pheomelanin (0.187, 0.4, 1.05) per unit of concentration. The artist's
// melanin m (0 to 1) is a concentration of 8 * m * m, which spreads the blondes over the lower
// half of the slider and reaches black at 1; redness is the share of it that is pheomelanin. A dye
// adds its own absorption, -ln(dye) / 2 per channel, so that it multiplies the colour.
inline constexpr float kMaxMelaninConcentration = 8.0f;
inline constexpr float kFibrePath = 2.0f;
// A grey strand keeps this share of its melanin.
inline constexpr float kGreyMelaninShare = 0.08f;

// The colour of undyed hair of this melanin and redness (each clamped to 0-1).
Vec3f pigmentColor(float melanin, float redness);
// The absorption per fibre diameter of that pigment.
Vec3f pigmentAbsorption(float melanin, float redness);

// ---- Colour in HSL terms ----
//
// Hue, chroma (max - min) and lightness ((max + min) / 2) of a linear RGB colour, which need not
// lie in 0-1: hue in turns, 0 red, 1/3 green, 2/3 blue; a neutral colour has chroma 0 and hue 0.
struct HueChromaLightness {
    float hue = 0.0f;
    float chroma = 0.0f;
    float lightness = 0.0f;
};
HueChromaLightness toHueChromaLightness(const Vec3f& color);
Vec3f fromHueChromaLightness(const HueChromaLightness& hcl);

// A colour `value` of a share lighter or darker (1 + value), its hue turned by `turns` and its
// saturation `saturation` more or less (1 + saturation), in HSL: the lightness scales, the hue
// turns, the chroma scales with both (held to what the lightness allows, so nothing goes below 0).
// A neutral colour stays neutral.
Vec3f varyColor(const Vec3f& color, float value, float turns, float saturation);

// The component-wise product of two colours: a colour tinted by another.
inline Vec3f tinted(const Vec3f& a, const Vec3f& b) {
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}

// A look channel as a later operator reads it, whichever scope it was written at: a point
// channel, else a strand channel, else `fallback`.
struct LookChannel {
    const std::vector<float>* perPoint = nullptr;
    const std::vector<float>* perStrand = nullptr;
    float fallback = 0.0f;

    LookChannel(const StrandSet& set, std::string_view name, float fallbackValue)
        : perPoint(set.pointChannel(name)),
          perStrand(perPoint ? nullptr : set.strandChannel(name)),
          fallback(fallbackValue) {}
    bool present() const { return perPoint || perStrand; }
    // The value at point `point` (an index into the set's point columns) of strand `strand`.
    float at(std::size_t strand, std::size_t point) const {
        return perPoint ? (*perPoint)[point] : perStrand ? (*perStrand)[strand] : fallback;
    }
};

// ---- HairColor ----

enum class HairColorMode { Melanin, Color };

// The look of HairColor, each mappable value as a sampler (colour params through their vector
// forms: a colour field, or the plain colour).
struct HairColorSettings {
    HairColorMode mode = HairColorMode::Melanin;
    FieldSampler melanin{0.5f};
    FieldSampler redness{0.2f};
    FieldSampler dye;    // colour; plain (1, 1, 1)
    FieldSampler color;  // colour; plain (1, 1, 1)
    FieldSampler map;    // colour at each root; unmapped: none
    FieldSampler greys{0.0f};
    float melaninRandom = 0.0f;
    float valueRandom = 0.0f;
    float hueRandom = 0.0f;
    float saturationRandom = 0.0f;
    float clumpShare = 0.0f;
    // The clump of each strand (a channel's values), or null: then every strand is its own clump.
    const std::vector<float>* clumps = nullptr;
    std::uint64_t seed = 0;
    FieldSampler tipColor;           // colour; plain (1, 1, 1)
    FieldSampler tipStrength{0.0f};  // per point
    Ramp tipProfile;
    float tipOffsetRandom = 0.0f;
    FieldSampler specular{0.3f};
    float specularRandom = 0.0f;
    FieldSampler roughness{0.2f};
    float roughnessRandom = 0.0f;
    float tilt = 3.0f;  // degrees

    HairColorSettings();
    // Whether the shown colour varies along the strands, so that it is written per point.
    bool tipped() const { return tipStrength.isMapped() || tipStrength.value() > 0.0f; }
};

// The tip profile a new HairColor starts with: nothing below 0.6 of the length, then rising to 1
// at the tip.
Ramp defaultTipProfile();

// The random draws of HairColor for one strand, in this order: greys, melanin, value, hue,
// saturation, tip offset, specular, roughness. Bands draws melanin in the same place, so that with
// HairColor's seed a strand's bands are as much darker as the strand. Each draw hashes the one
// before it, so only the first `count` are made (the rest of `out` is left as it was): a run needs
// those up to the last randomness it uses.
inline constexpr std::size_t kColorDraws = 8;
inline constexpr std::size_t kMelaninDraw = 1;
void colorDraws(std::uint64_t id, std::uint64_t seed, std::span<float, kColorDraws> out,
                std::size_t count = kColorDraws);
// How many of the draws these settings use.
std::size_t colorDrawsUsed(const HairColorSettings& settings);

// Where HairColor writes: the three colour channels (per point when tipped, else per strand), and
// per strand the pigment (melanin mode only: melanin, redness, the three dye channels) and the
// highlight. Spans of the out set's channels; the pigment ones empty in colour mode, and those of
// a group taken as it was from an earlier result (below) empty too.
struct HairColorChannels {
    std::array<std::span<float>, 3> color;
    std::span<float> melanin, redness;
    std::array<std::span<float>, 3> dye;
    std::span<float> specular, roughness, tilt;
};
// Makes the channels of `out` for these settings (removing any of the same name at the other
// scope, and in colour mode the pigment channels an earlier HairColor left) and returns them.
// With `keepValues` a channel `out` already holds at the right scope keeps its values (an
// incremental run rewrites only some strands); otherwise every channel starts anew.
HairColorChannels makeHairColorChannels(StrandSet& out, const HairColorSettings& settings,
                                        bool keepValues);

// The groups of per-strand channels that a change of other params leaves as they were, so that a
// node whose param changed rewrites only what that param reaches (a melanin change: the colour and
// melanin, not the highlight, redness or dye). Each group's key stands for everything it depends
// on but the strands; 0 where a group can't be kept (a mapped param, a map, colour mode).
enum class HairColorGroup : std::size_t { Highlight, Dye, Redness };
inline constexpr std::size_t kHairColorGroups = 3;
std::array<std::uint64_t, kHairColorGroups> hairColorGroupKeys(const HairColorSettings& settings,
                                                               bool hasMap);
// Whether the group's values depend on the strands' ids (their random draws), not only on their
// count.
bool hairColorGroupReadsIds(const HairColorSettings& settings, HairColorGroup group);
// The group's channels, all per strand.
std::span<const std::string_view> hairColorGroupChannels(HairColorGroup group);
// The same as makeHairColorChannels without keeping values, but the channels of the groups in
// `kept` are shared from `earlier` as they stand (their spans stay empty).
HairColorChannels makeHairColorChannels(StrandSet& out, const HairColorSettings& settings,
                                        const StrandSet& earlier,
                                        std::array<bool, kHairColorGroups> kept);
// Writes every channel value of the selected strands (those with a span).
void colorHair(const StrandSet& input, const HairColorSettings& settings,
               const StrandSelection& selection, const HairColorChannels& channels);
// The whole of it on a shallow copy of `input`: what the node gives.
std::shared_ptr<StrandSet> colorHair(const StrandSet& input, const HairColorSettings& settings);

// ---- Bands ----

enum class GuardsBy { Random, Longest };

struct BandsSettings {
    FieldSampler strength{1.0f};  // per point
    float melanin = 0.3f;
    float redness = 0.8f;
    Vec3f dye{1, 1, 1};
    Ramp profile;
    float count = 1.0f;
    float guards = 1.0f;
    GuardsBy guardsBy = GuardsBy::Random;
    Vec3f undercoatDye{1, 1, 1};
    float melaninRandom = 0.0f;
    float offsetRandom = 0.0f;
    float widthRandom = 0.0f;
    std::uint64_t seed = 0;

    BandsSettings();
};
// The profile a new Bands starts with: one pale band from 0.55 to 0.75 of the period, with soft
// edges, the hair's own colour at root and tip.
Ramp defaultBandsProfile();

// Which strands are guard hairs (1) and which undercoat (0): a draw below `guards`, or, by length,
// the longest share `guards` of the strands (ties broken by id, so that the choice does not depend
// on strand order).
std::vector<std::uint8_t> guardHairs(const StrandSet& input, const BandsSettings& settings);
// A shallow copy of `input` with the bands painted on: the colour per point, and where the input
// holds pigment channels, melanin and redness per point blended the same way.
std::shared_ptr<StrandSet> bandStrands(const StrandSet& input, const BandsSettings& settings);

// ---- FeatherColor ----

enum class FeatherPattern { None, Texture, Bars, Chevrons, Spots, Fringe, Eye };
enum class FeatherVanes { Both, Left, Right };
enum class IridescenceOn { All, LeftVane, RightVane, Pattern, NotPattern };

struct FeatherColorSettings {
    FeatherPattern pattern = FeatherPattern::None;
    float strength = 1.0f;
    float melanin = 0.8f;
    float redness = 0.2f;
    Vec3f dye{1, 1, 1};
    FeatherVanes vanes = FeatherVanes::Both;
    float count = 6.0f;
    float width = 0.5f;
    float angle = 0.0f;  // degrees
    float sharpness = 0.5f;
    float offset = 0.5f;
    Ramp profile;
    std::shared_ptr<const Texture> texture;       // with pattern texture
    std::shared_ptr<const Texture> textureRight;  // optional
    float offsetRandom = 0.0f;
    float scaleRandom = 0.0f;
    float angleRandom = 0.0f;  // degrees
    Vec3f downColor{0.8f, 0.78f, 0.75f};
    float downStrength = 0.0f;
    FieldSampler iridescence{0.0f};  // per point
    Vec3f iridescenceColor{0.1f, 0.6f, 0.4f};
    float iridescenceShift = 0.25f;  // turns
    IridescenceOn iridescenceOn = IridescenceOn::All;
    std::uint64_t seed = 0;
};

// One feather's pattern, drawn from its id: a shift along it (a share of the spacing, or of the
// eye's size), a size factor and a turn in degrees.
struct FeatherDraw {
    float shift = 0.0f;
    float scale = 1.0f;
    float turn = 0.0f;
};
FeatherDraw featherDraw(std::uint64_t feather, const FeatherColorSettings& settings);

// How much of the pattern covers a point at `along` (0 root to 1 tip) and `across` (-1 the left
// vane's edge, 0 the shaft, 1 the right vane's edge) of a feather, 0 to 1, before strength. A
// texture pattern gives its colour in `color` (the pattern colour otherwise stays).
float featherCoverage(const FeatherColorSettings& settings, const FeatherDraw& draw, float along,
                      float across, Vec3f& color);

// A shallow copy of `input` with the pattern, the down colour and iridescence applied. Points
// without feather coordinates (channels::kFeatherAlong, kFeatherAcross) take no pattern.
std::shared_ptr<StrandSet> colorFeathers(const StrandSet& input,
                                         const FeatherColorSettings& settings);

// ---- RenderData ----

struct RenderDataSettings {
    FieldSampler opacity{1.0f};
    Ramp opacityProfile;
    float opacityRandom = 0.0f;
    std::uint64_t seed = 0;
};
// Writes channels::kOpacity per point for the selected strands: opacity * opacityProfile(t) *
// (1 - opacityRandom * draw), t each point's share of the strand's length.
void renderData(const StrandSet& input, const RenderDataSettings& settings,
                const StrandSelection& selection, std::span<float> opacity);

}  // namespace velmorin
