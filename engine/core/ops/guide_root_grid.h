#pragma once
// A uniform grid over guide roots, for the many nearest-guide questions of Interpolate's binding:
// one per strand, up to 67 guides each, which is more than the k-d tree of the editing tools
// answers. Answers equal those of a scan of the points in index order: among equal distances the
// lower index wins, so a binding never depends on how the grid was cut.

#include <cstdint>
#include <span>
#include <vector>

#include "base/vec3.h"

namespace velmorin {

class GuideRootGrid {
  public:
    static constexpr int kMaxNearest = 72;

    GuideRootGrid() = default;
    // `points` must be finite; `indices` (one per point, ascending) are what queries report.
    // `typicalK` is how many nearest points most queries will ask for: it sizes the cells so
    // that such a query usually ends after the cells next to its own. Answers do not depend on it.
    GuideRootGrid(std::span<const Vec3f> points, std::span<const std::uint32_t> indices,
                  int typicalK = 1);

    std::size_t size() const { return points_.size(); }

    // The usual distance between neighbouring points, from the area of their box's faces (roots
    // lie on a surface): 0 for fewer than two points or none apart.
    float spacing() const { return spacing_; }

    // The up to `k` (at most kMaxNearest) nearest points to `p`, nearest first, with their
    // squared distances; equal distances in index order. Returns how many were found. Reads only.
    // `within2`, when the caller knows k points no farther than that squared distance (the
    // answer of a query nearby), lets the search skip every cell beyond it from the start; the
    // answer is the same.
    int nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                float within2 = 3.4e38f) const;

    // Appends every point whose squared distance to `p` is at most `radius2`, with its index.
    // Reads only.
    void within(const Vec3f& p, float radius2, std::vector<std::uint32_t>& indices,
                std::vector<Vec3f>& points) const;

  private:
    Vec3f min_;
    float cell_ = 1.0f;
    float spacing_ = 0.0f;
    int dims_[3] = {1, 1, 1};
    std::vector<std::uint32_t> cellStart_;  // cells + 1 entries
    std::vector<Vec3f> points_;             // in cell order
    std::vector<std::uint32_t> indices_;    // in cell order, ascending within a cell
};

// Puts the key of rank `nth` (of the n distinct `keys`) at keys[nth], the lesser ones before it and
// the greater after, as std::nth_element does, but without a branch on the side each key falls
// on: the keys of roots lie in no order a branch could guess. `spare` holds n keys.
void selectNth(std::uint64_t* keys, std::size_t n, std::size_t nth, std::uint64_t* spare);

// The points of a grid that can be among the k nearest of any point of a small group (the roots of
// strands that lie side by side in a binding chunk), gathered once so that each root of the group
// scans a short list instead of walking the grid. Answers equal the grid's bit for bit. One
// shortlist is one thread's scratch: it keeps its arrays from group to group.
class GuideShortlist {
  public:
    // Gathers what the nearest `k` (at most GuideRootGrid::kMaxNearest) of any point within
    // `spread` of `center` can be: the grid's points within the k-th nearest distance of `center`
    // plus twice `spread`, with a margin against rounding.
    void gather(const GuideRootGrid& grid, const Vec3f& center, float spread, int k);

    std::size_t size() const { return count_; }

    // Forgets the last gather's distance, which the next one starts its search from: what gather
    // finds never depends on it, only how long it takes.
    void restart() { guess_ = 0.0f; }

    // As GuideRootGrid::nearest for a point within the gathered spread and k up to the gathered k:
    // the same indices, distances and order. `increasing`, when given, receives whether the
    // distances found rise strictly (no two roots at one distance), which the lanes know without
    // reading back what they stored. `indices` and `distances2` hold kMaxNearest.
    int nearest(const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                bool* increasing = nullptr) const;

    // How nearest measures and ranks: root by root (plain), or four, eight or sixteen roots at a
    // time (SSE2; AVX and AVX-512 where the processor has them, else the next narrower; sixteen
    // answers up to 16 nearest and leaves more to eight). Every way gives the same answer.
    enum class Lanes { plain, four, eight, sixteen };
    int nearest(Lanes lanes, const Vec3f& p, int k, std::uint32_t* indices, float* distances2,
                bool* increasing = nullptr) const;

  private:
    int k_ = 0;
    Vec3f center_;
    float margin_ = 0.0f;  // how far the rounding of a distance may take it
    // The last gather's k-th nearest distance, to start the next one's search from; 0 for none.
    float guess_ = 0.0f;
    // Nearest the centre first, with their distances from it: a query stops where the rest lie
    // too far from the centre to come near enough to its point. The coordinates come as columns,
    // padded to a whole number of sixteen lanes with roots that are not numbers (which no query
    // takes), so that lanes read them straight.
    std::size_t count_ = 0;
    std::vector<float> x_, y_, z_;
    std::vector<float> fromCenter_;
    std::vector<std::uint32_t> indices_;
    // What gather collects before ordering.
    std::vector<std::uint32_t> foundIndices_;
    std::vector<Vec3f> foundPoints_;
    std::vector<std::uint64_t> order_;
    // The keys within the radius, then in order; before that, the spare of the k-th selection.
    std::vector<std::uint64_t> kept_;

    // nearest's queries other than sixteen lanes'.
    int nearestOtherwise(Lanes lanes, const Vec3f& p, int k, std::uint32_t* indices,
                         float* distances2) const;

    // Orders the first `count` keys of kept_ ascending.
    void orderKept(std::size_t count);
};

}  // namespace velmorin
