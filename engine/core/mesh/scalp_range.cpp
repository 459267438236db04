#include "mesh/scalp_range.h"

namespace velmorin {

const ScalpRange* findScalpRange(const ScalpMesh& scalp, std::string_view name) {
    for (const ScalpRange& range : scalp.scalps())
        if (range.name == name) return &range;
    return nullptr;
}

ScalpMesh cutScalpRange(const ScalpMesh& scalp, const ScalpRange& range) {
    const std::uint32_t first = range.firstTriangle, count = range.triangleCount;
    const std::uint32_t firstPoint = range.firstPoint;
    std::vector<Vec3f> points(scalp.points().begin() + firstPoint,
                              scalp.points().begin() + firstPoint + range.pointCount);
    std::vector<Triangle> triangles(count);
    for (std::uint32_t t = 0; t < count; ++t)
        for (int c = 0; c < 3; ++c)
            triangles[t][c] = scalp.triangles()[first + t][c] - firstPoint;
    ScalpMesh piece(std::move(points), std::move(triangles));

    // The polygons that lie wholly inside the range, when they fill it exactly.
    std::vector<std::int32_t> polygons;
    std::uint64_t at = 0;
    bool aligned = false, closed = false;
    for (const std::int32_t polygon : scalp.polygons()) {
        if (at == first) aligned = true;
        if (at >= first && at + static_cast<std::uint64_t>(polygon) <= first + count)
            polygons.push_back(polygon);
        at += static_cast<std::uint64_t>(polygon);
        if (at == first + count) closed = true;
    }
    if (aligned && closed && count > 0) piece.setPolygons(std::move(polygons));

    const auto corners = [&](const auto& all) {
        using Item = typename std::decay_t<decltype(all)>::value_type;
        return std::vector<Item>(all.begin() + first * 3, all.begin() + (first + count) * 3);
    };
    if (scalp.hasUvs()) piece.setUvs(corners(scalp.uvs()));
    for (const auto& [name, colors] : scalp.colorSets())
        piece.setColorSet(name, corners(colors));
    if (scalp.restPoints().size() == scalp.pointCount()) {
        piece.setRestPoints(
            std::vector<Vec3f>(scalp.restPoints().begin() + firstPoint,
                               scalp.restPoints().begin() + firstPoint + range.pointCount));
    }
    piece.setScalps({{range.name, 0, count, 0, range.pointCount}});
    // A subdivided piece reports its own share of the coarse faces.
    const ScalpSubdivision& subdivision = scalp.subdivision();
    if (subdivision.levels > 0) {
        ScalpSubdivision own;
        own.levels = subdivision.levels;
        own.from = subdivision.from;
        const auto& ranges = scalp.scalps();
        for (std::size_t i = 0; i < ranges.size() && i < subdivision.scalpCageFaceCounts.size();
             ++i) {
            if (ranges[i] == range) own.cageFaceCount = subdivision.scalpCageFaceCounts[i];
        }
        own.scalpCageFaceCounts = {own.cageFaceCount};
        piece.setSubdivision(std::move(own));
    }
    return piece;
}

std::optional<std::uint32_t> pieceFaceOffset(const ScalpMesh& piece, const ScalpMesh* whole) {
    if (!whole || whole == &piece || piece.scalps().size() != 1) return std::nullopt;
    const ScalpRange& own = piece.scalps().front();
    const ScalpRange* range = findScalpRange(*whole, own.name);
    if (!range || range->triangleCount != piece.triangleCount() ||
        range->pointCount != piece.pointCount())
        return std::nullopt;
    return range->firstTriangle;
}

}  // namespace velmorin
