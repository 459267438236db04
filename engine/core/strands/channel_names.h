#pragma once
// The channel names that operators, the look, the display and the exporters share. A channel is a
// float column, so a colour is three channels, one per component, in linear RGB. Operators write
// these names; every reader (the preview renderer, the Alembic and USD writers) reads them from
// here rather than spelling them again.

#include <array>
#include <string_view>

namespace velmorin::channels {

// Engine-private: marks a strand set made for preview. Left out when strands become guides.
inline constexpr std::string_view kPreview = "_preview";

// Structure and origin of a strand.
inline constexpr std::string_view kClumpId = "clumpId";
inline constexpr std::string_view kRegion = "region";
inline constexpr std::string_view kGuideInfluence = "guideInfluence";
inline constexpr std::string_view kGroupId = "groupId";
inline constexpr std::string_view kTubeId = "tubeId";
inline constexpr std::string_view kTubeU = "tubeU";
inline constexpr std::string_view kTubeV = "tubeV";
inline constexpr std::string_view kFeatherId = "featherId";
inline constexpr std::string_view kBraidId = "braidId";
inline constexpr std::string_view kFlyaway = "flyaway";
// Where a strand's root lies in the scalp's UV space: the exporters write them as its root UV.
inline constexpr std::string_view kRootU = "rootU";
inline constexpr std::string_view kRootV = "rootV";

// A feather's barbs in the feather's own flat space, written by the feather operators. Per point:
// the position along the shaft, 0 at the feather's root to 1 at its tip, and across the vane, -1
// at the left vane's edge through 0 at the shaft to 1 at the right vane's edge (left and right seen
// from the vane's top with the tip up). Per strand: 1 on the barbs of the down zone, else 0.
inline constexpr std::string_view kFeatherAlong = "featherAlong";
inline constexpr std::string_view kFeatherAcross = "featherAcross";
inline constexpr std::string_view kFeatherDown = "featherDown";

// The look. The shown colour, per point or per strand, as the three channels of kColor; the
// pigment that made it (melanin mode) beside it for shaders that model pigment themselves.
inline constexpr std::array<std::string_view, 3> kColor = {"colorR", "colorG", "colorB"};
inline constexpr std::string_view kMelanin = "melanin";
inline constexpr std::string_view kRedness = "redness";
inline constexpr std::array<std::string_view, 3> kDye = {"dyeR", "dyeG", "dyeB"};
inline constexpr std::string_view kSpecular = "specular";
inline constexpr std::string_view kRoughness = "roughness";
inline constexpr std::string_view kTilt = "tilt";
inline constexpr std::string_view kOpacity = "opacity";
inline constexpr std::string_view kIridescence = "iridescence";
// Iridescence's colour seen face-on and how far its hue turns edge-on, in turns: one value for
// the groom, the same on every strand (the first FeatherColor with iridescence sets them).
inline constexpr std::array<std::string_view, 3> kIridescenceColor = {
    "iridescenceR", "iridescenceG", "iridescenceB"};
inline constexpr std::string_view kIridescenceShift = "iridescenceShift";
inline constexpr std::string_view kAmbientOcclusion = "ao";
inline constexpr std::string_view kWetness = "wetness";

}  // namespace velmorin::channels
