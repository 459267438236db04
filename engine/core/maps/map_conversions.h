#pragma once
// Turning one form of scalp map into another: vertex values into a texture and back, gray into
// colour and back, vertex values into a colour set, and carrying a map from an old scalp to a new
// one (each texel or vertex of the new scalp reads the map at the closest point of the old one).

#include <span>
#include <string>
#include <vector>

#include "maps/scalp_maps.h"
#include "maps/texture.h"
#include "maps/texture_paint.h"
#include "mesh/scalp_mesh.h"

namespace velmorin {

// The vertex values rasterised over the scalp's UV triangles into a `resolution` square image,
// each texel blending the values of its triangle's corners; texels next to the UV islands take
// their neighbours' values a few texels out, so that filtering at island borders does not read
// black. Throws std::invalid_argument "textureFromVertexMap: one value per scalp vertex and
// channel" and the channels message, TextureError "the scalp has no UVs to paint a texture map on",
// and TexturePaint's size errors.
TexturePaint textureFromVertexMap(std::span<const float> values, int channels,
                                  const ScalpMesh& scalp, int resolution);

// The texture read at each vertex's UV (the UV of its first corner, in triangle order; 0 for a
// vertex of no triangle): `channels` values per vertex, gray by luminance. Throws TextureError "the
// scalp has no UVs to read a texture map at" and the channels message.
std::vector<float> vertexMapFromTexture(const Texture& texture, const ScalpMesh& scalp,
                                        int channels);

// A vertex map of the old scalp carried to the new one: each new vertex blends the values of the
// old triangle closest to it. Throws TextureError "the old scalp has no faces", "the map has n
// vertices' values and the old scalp m vertices".
std::vector<float> projectVertexMap(std::span<const float> values, int channels,
                                    const ScalpMesh& oldScalp, const ScalpMesh& newScalp);

// A texture of the old scalp carried to a `resolution` square image over the new scalp's UVs.
// Throws TextureError "the new scalp has no UVs to paint a texture map on", "the old scalp has no
// UVs to read the texture map at", "the old scalp has no faces".
TexturePaint projectTexture(const Texture& texture, const ScalpMesh& oldScalp,
                            const ScalpMesh& newScalp, int resolution);

// A scalp map carried to a new scalp: a vertex map by projectVertexMap; a texture map by
// projectTexture at its image's size, written as a PNG to `imagePath`, which the new map names.
// Throws TextureError "map 'n' can't move to the new scalp: no file" for a texture map without
// one, "...: its image is missing (<path>)", "...: nowhere to write its projected image" for an
// empty `imagePath`, and the errors of the projections.
ScalpMap projectScalpMap(const std::string& name, const ScalpMap& map, const ScalpMesh& oldScalp,
                         const ScalpMesh& newScalp, const std::string& imagePath);

// Gray values made colour (g, g, g, 1), or colour made gray by luminance; the same channels copy.
// Throws std::invalid_argument "convertMapChannels: a map has 1 channel (gray) or 4 (color)", or
// "convertMapChannels: the values are not whole vertices".
std::vector<float> convertMapChannels(std::span<const float> values, int fromChannels,
                                      int toChannels);

// One colour per triangle corner from a vertex map, to store as a colour set: gray gives
// (g, g, g, 1). Throws std::invalid_argument "cornerColorsFromVertexMap: one value per scalp vertex
// and channel" and the channels message.
std::vector<Rgba> cornerColorsFromVertexMap(std::span<const float> values, int channels,
                                            const ScalpMesh& scalp);

}  // namespace velmorin
