// The choice of clump centers and the assignment of every strand to one.
//
// A pick ranks the strands every preview holds by a hash of id and seed: the first of them are
// the random picks, and a short relaxation of those spots gives the even ones. Each center's
// wanted spot lies between the two, by randomness, and the candidate strand nearest it becomes the
// center. Nothing depends on strand order or thread count, and a preview, which keeps the
// candidates, keeps the clumps.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <unordered_set>

#include "base/hash.h"
#include "base/parallel.h"
#include "editing/point_tree.h"
#include "mesh/scalp_mesh.h"
#include "ops/clump.h"
#include "ops/interpolate_binding.h"
#include "ops/scatter_placement.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

constexpr std::size_t kGrain = 256;
constexpr int kRelaxSteps = 48;
constexpr float kRadiusScale = 1.0746f;  // the spacing of a hexagonal packing at unit density
constexpr std::uint32_t kNoValue = 0xffffffffu;
constexpr std::size_t kCandidatesPerPick = 64;
constexpr std::size_t kFewestCandidates = 4096;

// Runs body over [0, count) in chunks; small counts in one piece on this thread.
void forEach(std::size_t count, const RangeBody& body) {
    if (count <= kGrain) {
        if (count > 0) body(0, count);
        return;
    }
    parallelRange(0, count, kGrain, body);
}

Vec3f rootOf(const StrandSet& strands, std::size_t s) {
    const std::span<const Vec3f> points = strands.strandPoints(s);
    return points.empty() ? Vec3f{} : points[0];
}

// The scalp's normal at a strand's root, else the way the strand leaves it, else up.
Vec3f growthNormal(const StrandSet& strands, const ScalpMesh* scalp, std::size_t s) {
    const StrandRoot& root = strands.roots()[s];
    if (scalp && scalp->isOnSurface(root)) return scalp->normalAt(root);
    const std::span<const Vec3f> points = strands.strandPoints(s);
    if (points.size() >= 2) return normalized(points[1] - points[0], {0.0f, 1.0f, 0.0f});
    return {0.0f, 1.0f, 0.0f};
}

// The channels the choice reads of the strands.
struct ReadChannels {
    const std::vector<float>* preview = nullptr;
    const std::vector<float>* region = nullptr;
    const std::vector<float>* tube = nullptr;
};

ReadChannels readChannels(const StrandSet& strands, const CenterPickSettings& settings) {
    ReadChannels read;
    read.preview = strands.strandChannel(channels::kPreview);
    if (!settings.regionChannel.empty())
        read.region = strands.strandChannel(settings.regionChannel);
    if (settings.followTubes && settings.source == CenterSource::Pick)
        read.tube = strands.strandChannel(channels::kTubeId);
    return read;
}

// A strand's group: its region and, following tubes, its tube (none below 0). Centers and strands
// meet only within one group.
std::uint64_t groupKey(const ReadChannels& read, std::size_t s) {
    const std::uint64_t region = read.region ? floatBits((*read.region)[s]) : kNoValue;
    std::uint64_t tube = kNoValue;
    if (read.tube && (*read.tube)[s] >= 0.0f) tube = floatBits((*read.tube)[s]);
    return (region << 32) | tube;
}

// Strands sorted into groups: the distinct keys in order and each strand's place among them.
struct Groups {
    std::vector<std::uint64_t> keys;
    std::vector<std::uint32_t> of;

    std::uint32_t find(std::uint64_t key) const {
        const auto at = std::lower_bound(keys.begin(), keys.end(), key);
        return at != keys.end() && *at == key ? static_cast<std::uint32_t>(at - keys.begin())
                                              : kNoValue;
    }
};

Groups groupStrands(const StrandSet& strands, const ReadChannels& read) {
    const std::size_t count = strands.strandCount();
    Groups groups;
    groups.of.assign(count, 0);
    if (!read.region && !read.tube) {
        groups.keys = {(std::uint64_t{kNoValue} << 32) | kNoValue};
        return groups;
    }
    std::vector<std::uint64_t> keys(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s)
            keys[s] = groupKey(read, s);
    });
    groups.keys = keys;
    std::sort(groups.keys.begin(), groups.keys.end());
    groups.keys.erase(std::unique(groups.keys.begin(), groups.keys.end()), groups.keys.end());
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s)
            groups.of[s] = groups.find(keys[s]);
    });
    return groups;
}

// Points of one group with a tree over them, for nearest questions within the group.
struct GroupTree {
    std::vector<std::uint32_t> items;  // what each tree point stands for
    PointTree tree;
};

std::vector<GroupTree> groupTrees(std::size_t groupCount, std::span<const std::uint32_t> items,
                                  std::span<const std::uint32_t> groupOfItem,
                                  std::span<const Vec3f> positionOfItem) {
    std::vector<GroupTree> trees(groupCount);
    for (std::size_t i = 0; i < items.size(); ++i)
        if (groupOfItem[i] < groupCount) trees[groupOfItem[i]].items.push_back(items[i]);
    parallelRange(0, groupCount, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            std::vector<Vec3f> points;
            points.reserve(trees[g].items.size());
            for (const std::uint32_t item : trees[g].items)
                points.push_back(positionOfItem[item]);
            trees[g].tree = PointTree(points);
        }
    });
    return trees;
}

// Points in a dense grid of cells about one spacing wide, for the million nearest-center questions
// of an assignment: a search looks at the rings of cells around a strand's cell and stops once
// the next ring lies farther than the nearest point found. Its answers equal the tree's, the
// lower index winning equal distances. Too sparse a spread for a dense grid leaves it empty.
class CenterGrid {
  public:
    CenterGrid() = default;
    explicit CenterGrid(std::span<const Vec3f> points) {
        if (points.size() < 8) return;
        Vec3f low = points[0], high = points[0];
        for (const Vec3f& p : points) {
            low = minPerAxis(low, p);
            high = maxPerAxis(high, p);
        }
        const Vec3f size = high - low;
        // Cells about two spacings wide over the box's two longest sides (points on a surface), so
        // that the nearest point mostly lies in the first ring of cells around a strand.
        float sides[3] = {size.x, size.y, size.z};
        std::sort(sides, sides + 3);
        const float area = sides[1] * sides[2];
        if (!(area > 0.0f)) return;
        cell_ = 2.0f * std::sqrt(area / static_cast<float>(points.size()));
        inverse_ = 1.0f / cell_;
        for (int a = 0; a < 3; ++a) {
            const float extent = a == 0 ? size.x : a == 1 ? size.y : size.z;
            cells_[a] = static_cast<int>(std::floor(extent * inverse_)) + 1;
        }
        const std::size_t total = static_cast<std::size_t>(cells_[0]) * cells_[1] * cells_[2];
        if (total > 64 * points.size() + 4096) return;
        low_ = low;
        points_.assign(points.begin(), points.end());
        start_.assign(total + 1, 0);
        std::vector<std::uint32_t> cellOf(points.size());
        for (std::uint32_t i = 0; i < points.size(); ++i) {
            cellOf[i] = static_cast<std::uint32_t>(flat(coords(points[i])));
            ++start_[cellOf[i] + 1];
        }
        for (std::size_t c = 0; c < total; ++c)
            start_[c + 1] += start_[c];
        items_.resize(points.size());
        std::vector<std::uint32_t> at(start_.begin(), start_.end() - 1);
        for (std::uint32_t i = 0; i < points.size(); ++i)
            items_[at[cellOf[i]]++] = i;
    }

    bool empty() const { return points_.empty(); }

    // Lists, for each small cell (a quarter of a grid cell) that holds one of `queries`, the
    // points that can be nearest to anything in it, so that a strand compares against a handful
    // of centers instead of searching rings of cells.
    void prepare(std::span<const Vec3f> queries) {
        if (points_.empty()) return;
        fineInverse_ = 4.0f * inverse_;
        const float fine = 1.0f / fineInverse_;
        std::size_t total = 1;
        for (int a = 0; a < 3; ++a) {
            fineCells_[a] = 4 * cells_[a];
            total *= static_cast<std::size_t>(fineCells_[a]);
        }
        if (total > (std::size_t{1} << 22)) return;
        std::vector<std::uint32_t> slots(total, kNoValue);
        std::vector<std::size_t> occupied;
        for (const Vec3f& q : queries) {
            const std::size_t f = fineIndex(q);
            if (f == kOutside || slots[f] != kNoValue) continue;
            slots[f] = static_cast<std::uint32_t>(occupied.size());
            occupied.push_back(f);
        }
        std::vector<std::vector<std::uint32_t>> lists(occupied.size());
        parallelRange(0, occupied.size(), 64, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const std::size_t f = occupied[i];
                const std::size_t fx = f % static_cast<std::size_t>(fineCells_[0]);
                const std::size_t fy = (f / static_cast<std::size_t>(fineCells_[0])) %
                                       static_cast<std::size_t>(fineCells_[1]);
                const std::size_t fz = f / (static_cast<std::size_t>(fineCells_[0]) *
                                            static_cast<std::size_t>(fineCells_[1]));
                const Vec3f middle =
                    low_ + Vec3f{static_cast<float>(fx) + 0.5f, static_cast<float>(fy) + 0.5f,
                                 static_cast<float>(fz) + 0.5f} *
                               fine;
                // Whatever is nearest to a point of the cell lies within the middle's nearest
                // distance and the cell's diagonal of the middle (with a margin for rounding).
                const float reach =
                    length(points_[ringNearest(middle)] - middle) + fine * (1.7321f + 1e-3f);
                within(middle, reach, lists[i]);
                std::sort(lists[i].begin(), lists[i].end());
            }
        });
        listStart_.assign(occupied.size() + 1, 0);
        for (std::size_t i = 0; i < lists.size(); ++i)
            listStart_[i + 1] = listStart_[i] + static_cast<std::uint32_t>(lists[i].size());
        listItems_.clear();
        for (const auto& list : lists)
            listItems_.insert(listItems_.end(), list.begin(), list.end());
        fineSlots_ = std::move(slots);
    }

    std::uint32_t nearest(const Vec3f& p) const {
        if (!fineSlots_.empty()) {
            const std::size_t f = fineIndex(p);
            if (f != kOutside && fineSlots_[f] != kNoValue) {
                std::uint32_t best = kNoValue;
                float best2 = INFINITY;
                // Ascending indices: the first of equal distances stays.
                for (std::uint32_t e = listStart_[fineSlots_[f]]; e < listStart_[fineSlots_[f] + 1];
                     ++e) {
                    const float d2 = lengthSquared(points_[listItems_[e]] - p);
                    if (d2 < best2) {
                        best2 = d2;
                        best = listItems_[e];
                    }
                }
                return best;
            }
        }
        return ringNearest(p);
    }

    // The nearest point by rings of cells around p's.
    std::uint32_t ringNearest(const Vec3f& p) const {
        const std::array<int, 3> c = coords(p);
        // Rings nearer than the grid's box hold nothing.
        int first = 0, last = 0;
        for (int a = 0; a < 3; ++a) {
            first = std::max({first, -c[a], c[a] - (cells_[a] - 1)});
            last = std::max({last, c[a], cells_[a] - 1 - c[a]});
        }
        std::uint32_t best = kNoValue;
        float best2 = INFINITY;
        for (int ring = first; ring <= last; ++ring) {
            forRing(c, ring, [&](std::uint32_t i) {
                const float d2 = lengthSquared(points_[i] - p);
                if (d2 < best2 || (d2 == best2 && i < best)) {
                    best2 = d2;
                    best = i;
                }
            });
            // Anything in the rings beyond lies at least `ring` cells away.
            const float reach = static_cast<float>(ring) * cell_;
            if (best != kNoValue && best2 < reach * reach * 0.999f) break;
        }
        return best;
    }

    // Appends the points within `reach` of p.
    void within(const Vec3f& p, float reach, std::vector<std::uint32_t>& out) const {
        const std::array<int, 3> c = coords(p);
        const int rings = static_cast<int>(std::ceil(reach * inverse_)) + 1;
        for (int ring = 0; ring <= rings; ++ring)
            forRing(c, ring, [&](std::uint32_t i) {
                if (lengthSquared(points_[i] - p) <= reach * reach) out.push_back(i);
            });
    }

  private:
    static constexpr std::size_t kOutside = ~std::size_t{0};

    // Calls visit(i) for every point in the cells `ring` cells around cell c (a shell).
    template <class Visit>
    void forRing(const std::array<int, 3>& c, int ring, const Visit& visit) const {
        for (int z = c[2] - ring; z <= c[2] + ring; ++z) {
            if (z < 0 || z >= cells_[2]) continue;
            for (int y = c[1] - ring; y <= c[1] + ring; ++y) {
                if (y < 0 || y >= cells_[1]) continue;
                const bool rim = std::abs(z - c[2]) == ring || std::abs(y - c[1]) == ring;
                for (int x = c[0] - ring; x <= c[0] + ring; x += rim || ring == 0 ? 1 : 2 * ring) {
                    if (x < 0 || x >= cells_[0]) continue;
                    const std::size_t cell = flat({x, y, z});
                    for (std::uint32_t e = start_[cell]; e < start_[cell + 1]; ++e)
                        visit(items_[e]);
                }
            }
        }
    }

    std::size_t fineIndex(const Vec3f& p) const {
        const Vec3f d = (p - low_) * fineInverse_;
        const float at[3] = {d.x, d.y, d.z};
        std::size_t index = 0;
        for (int a = 2; a >= 0; --a) {
            if (!(at[a] >= 0.0f) || !(at[a] < static_cast<float>(fineCells_[a]))) return kOutside;
            index =
                index * static_cast<std::size_t>(fineCells_[a]) + static_cast<std::size_t>(at[a]);
        }
        return index;
    }

    std::array<int, 3> coords(const Vec3f& p) const {
        const Vec3f d = (p - low_) * inverse_;
        const auto clampCoord = [](float v) {
            return static_cast<int>(std::floor(std::clamp(v, -1e6f, 1e6f)));
        };
        return {clampCoord(d.x), clampCoord(d.y), clampCoord(d.z)};
    }
    std::size_t flat(const std::array<int, 3>& c) const {
        return (static_cast<std::size_t>(c[2]) * cells_[1] + c[1]) * cells_[0] + c[0];
    }

    float cell_ = 0.0f, inverse_ = 0.0f;
    int cells_[3] = {0, 0, 0};
    Vec3f low_;
    std::vector<Vec3f> points_;
    std::vector<std::uint32_t> start_, items_;
    float fineInverse_ = 0.0f;
    int fineCells_[3] = {0, 0, 0};
    std::vector<std::uint32_t> fineSlots_, listStart_, listItems_;
};

// The nearest item of a group tree to p, or kNoValue.
std::uint32_t nearestIn(const GroupTree& group, const Vec3f& p) {
    std::uint32_t index = 0;
    float d2 = 0.0f;
    if (group.tree.nearest(p, 1, &index, &d2) == 0) return kNoValue;
    return group.items[index];
}

// The strands a pick may make centers of, in rank order: those every preview holds, each admitted
// by a draw below its centerWeight, ranked by a second draw; the first `wanted` are the random
// picks.
std::vector<std::uint32_t> rankedCandidates(const StrandSet& strands,
                                            const CenterPickSettings& settings,
                                            const ReadChannels& read, std::size_t wanted) {
    const std::size_t count = strands.strandCount();
    const std::span<const std::uint64_t> ids = strands.ids();
    const bool weightMapped = settings.centerWeight.isMapped();
    const float weight = settings.centerWeight.value();
    std::vector<std::uint64_t> rank(count, ~std::uint64_t{0});
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) {
            if (strands.pointRange(s).count == 0) continue;
            if (read.preview && (*read.preview)[s] != 1.0f) continue;
            StrandDraws draws(ids[s], settings.seed);
            const float w = weightMapped ? settings.centerWeight.atStrand(s) : weight;
            if (!(draws.next() < w)) continue;
            // The rank's high bits are a draw, its low bits the index, which settles equal draws.
            rank[s] = (hashCombine(hashCombine(ids[s], settings.seed), 1) & 0xffffffff00000000ull) |
                      static_cast<std::uint64_t>(s);
        }
    });
    std::vector<std::uint64_t> kept;
    for (const std::uint64_t r : rank)
        if (r != ~std::uint64_t{0}) kept.push_back(r);
    // The picks are the first `wanted`; the first kCandidatesPerPick times as many are where a
    // center may settle, finely enough spread to stand for the hair (a million strands need not
    // all be searched for the one nearest a spot).
    const std::size_t place = std::min(
        kept.size(), std::max<std::size_t>(wanted * kCandidatesPerPick, kFewestCandidates));
    std::nth_element(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(place), kept.end());
    kept.resize(place);
    std::sort(kept.begin(), kept.end());
    std::vector<std::uint32_t> ordered(kept.size());
    for (std::size_t i = 0; i < kept.size(); ++i)
        ordered[i] = static_cast<std::uint32_t>(kept[i] & 0xffffffffu);
    return ordered;
}

// Even spots for the random picks: a few steps of repulsion between them, each spot held to the
// tangent plane of the hair it stands on and brought back onto a candidate's root every fourth
// step (so that spots stay where there is hair). The same bits at any thread count.
void relaxSpots(std::span<Vec3f> spots, std::span<Vec3f> normals,
                std::span<const std::uint32_t> spotGroup, float r0,
                const std::vector<GroupTree>& candidateTrees, const StrandSet& strands,
                const ScalpMesh* scalp) {
    const std::size_t count = spots.size();
    if (count < 2 || !(r0 > 0.0f)) return;
    std::vector<std::uint32_t> neighbors(count * kRelaxNeighbors);
    std::vector<Vec3f> next(count);
    for (int step = 0; step < kRelaxSteps; ++step) {
        if (step % 4 == 0) nearestNeighbors(spots, 0.5f * r0, 3.0f * r0, neighbors);
        forEach(count, [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) {
                const Vec3f p = spots[i];
                Vec3f force;
                const std::uint32_t* list = neighbors.data() + i * kRelaxNeighbors;
                for (int k = 0; k < kRelaxNeighbors; ++k) {
                    const std::uint32_t j = list[k];
                    if (j == i) continue;
                    const float reach = r0;
                    const Vec3f d = p - spots[j];
                    const float dist = std::sqrt(lengthSquared(d));
                    if (!(dist < reach)) continue;
                    // Spots on one place part in a way given by their indices alone.
                    const Vec3f way = dist > reach * 1e-6f ? d / dist
                                                           : Vec3f{unitFloat(i) - 0.5f, 0.0f,
                                                                   unitFloat(i + kGolden) - 0.5f};
                    const float w = 1.0f - dist / reach;
                    force += way * (w * w);
                }
                force = alongSurface(force, normals[i]) * (0.6f * r0);
                const float h = 0.5f * r0;
                next[i] = p + force * (h / std::sqrt(lengthSquared(force) + h * h));
            }
        });
        std::copy(next.begin(), next.end(), spots.begin());
        if (step % 4 == 3) {
            forEach(count, [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i) {
                    const std::uint32_t s = nearestIn(candidateTrees[spotGroup[i]], spots[i]);
                    if (s == kNoValue) continue;
                    spots[i] = rootOf(strands, s);
                    normals[i] = growthNormal(strands, scalp, s);
                }
            });
        }
    }
}

// The numbers of the clump channel, one per center, unique: a center's own number from its id,
// where two centers' ids give one number the later id (in id order) takes the next free one.
std::vector<float> uniqueNumbers(std::span<const std::uint64_t> ids) {
    std::vector<std::uint32_t> order(ids.size());
    std::iota(order.begin(), order.end(), 0u);
    std::sort(order.begin(), order.end(),
              [&](std::uint32_t a, std::uint32_t b) { return ids[a] < ids[b]; });
    std::vector<float> numbers(ids.size());
    std::unordered_set<std::uint32_t> used;
    for (const std::uint32_t c : order) {
        auto n = static_cast<std::uint32_t>(clumpNumber(ids[c]));
        while (!used.insert(n).second)
            n = (n + 1) & 0xffffffu;
        numbers[c] = static_cast<float>(n);
    }
    return numbers;
}

}  // namespace

float clumpNumber(std::uint64_t id) {
    return static_cast<float>(mix64(id) >> 40);
}

CenterCurves centerCurvesOf(const GuideSet& guides, const std::string& regionChannel) {
    CenterCurves centers;
    std::uint64_t h = 0x63656e7465727367ull;
    for (const Guide& guide : guides.guides) {
        if (guide.points.empty()) continue;
        centers.ids.push_back(guide.id);
        centers.curves.emplace_back(guide.points);
        const auto own =
            regionChannel.empty() ? guide.attributes.end() : guide.attributes.find(regionChannel);
        centers.regions.push_back(own != guide.attributes.end() ? own->second : NAN);
        h = hashCombine(h, guide.id);
        for (const float v : {guide.points[0].x, guide.points[0].y, guide.points[0].z})
            h = hashCombine(h, floatBits(v));
        h = hashCombine(h, floatBits(centers.regions.back()));
    }
    centers.hash = h;
    return centers;
}

CenterCurves centerCurvesOf(const StrandSet& strands, const std::string& regionChannel) {
    CenterCurves centers;
    const std::vector<float>* region =
        regionChannel.empty() ? nullptr : strands.strandChannel(regionChannel);
    std::uint64_t h = 0x63656e7465727373ull;
    for (std::size_t s = 0; s < strands.strandCount(); ++s) {
        const std::span<const Vec3f> points = strands.strandPoints(s);
        if (points.empty()) continue;
        centers.ids.push_back(strands.ids()[s]);
        centers.curves.push_back(points);
        centers.regions.push_back(region ? (*region)[s] : NAN);
        h = hashCombine(h, strands.ids()[s]);
        for (const float v : {points[0].x, points[0].y, points[0].z})
            h = hashCombine(h, floatBits(v));
        h = hashCombine(h, floatBits(centers.regions.back()));
    }
    centers.hash = h;
    return centers;
}

namespace {

// A multiply-and-turn fold over 64-bit words: each step is a bijection, so a change of any one
// word changes the result, and a fold costs less than a full mix per word.
inline std::uint64_t fold(std::uint64_t h, std::uint64_t word) {
    return std::rotl((h ^ word) * kGolden, 29);
}

// What the choice reads of one strand, as one hash: its id, root, and the channels read.
class StrandKeys {
  public:
    StrandKeys(const StrandSet& strands, const CenterPickSettings& settings)
        : strands_(strands),
          settings_(settings),
          read_(readChannels(strands, settings)),
          weightMapped_(settings.centerWeight.isMapped()) {}

    std::uint64_t operator()(std::size_t s) const {
        const auto pair = [](std::uint32_t high, std::uint32_t low) {
            return (static_cast<std::uint64_t>(high) << 32) | low;
        };
        const std::span<const Vec3f> points = strands_.strandPoints(s);
        const Vec3f root = points.empty() ? Vec3f{NAN, NAN, NAN} : points[0];
        std::uint64_t h = fold(0x636c756d70ull, strands_.ids()[s]);
        h = fold(h, pair(floatBits(root.x), floatBits(root.y)));
        h = fold(h, pair(floatBits(root.z), static_cast<std::uint32_t>(strands_.roots()[s].face)));
        if (read_.preview) h = fold(h, floatBits((*read_.preview)[s]));
        if (read_.region || read_.tube) h = fold(h, groupKey(read_, s));
        if (weightMapped_) h = fold(h, floatBits(settings_.centerWeight.atStrand(s)));
        return mix64(h);
    }

  private:
    const StrandSet& strands_;
    const CenterPickSettings& settings_;
    ReadChannels read_;
    bool weightMapped_;
};

std::size_t chunkCount(std::size_t strands) {
    return (strands + CenterPlan::kKeyChunk - 1) / CenterPlan::kKeyChunk;
}

// Fills the per-strand hashes where asked for and returns the chunks' hashes folded from them.
std::vector<std::uint64_t> keyChunks(const StrandSet& strands, const CenterPickSettings& settings,
                                     std::vector<std::uint64_t>* perStrand) {
    const StrandKeys keys(strands, settings);
    const std::size_t count = strands.strandCount();
    if (perStrand) perStrand->resize(count);
    std::vector<std::uint64_t> chunks(chunkCount(count));
    parallelRange(0, chunks.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            std::uint64_t h = hashCombine(0x636c756d70ull, c);
            const std::size_t last = std::min(count, (c + 1) * CenterPlan::kKeyChunk);
            for (std::size_t s = c * CenterPlan::kKeyChunk; s < last; ++s) {
                const std::uint64_t k = keys(s);
                if (perStrand) (*perStrand)[s] = k;
                h = fold(h, k);
            }
            chunks[c] = mix64(h);
        }
    });
    return chunks;
}

}  // namespace

std::vector<std::uint64_t> centerChunkHashes(const StrandSet& strands,
                                             const CenterPickSettings& settings) {
    return keyChunks(strands, settings, nullptr);
}

bool centerPlanHolds(const CenterPlan& plan, const StrandSet& strands,
                     const CenterPickSettings& settings, std::span<const std::uint64_t> changed) {
    if (plan.strandCount != strands.strandCount() ||
        plan.settingsKey != centerSettingsKey(settings))
        return false;
    const StrandKeys keys(strands, settings);
    for (const std::uint64_t s : changed)
        if (s >= plan.strandHashes.size() || keys(s) != plan.strandHashes[s]) return false;
    return true;
}

std::uint64_t centerSettingsKey(const CenterPickSettings& settings) {
    std::uint64_t h =
        hashCombine(0x636c756d70706c6eull, static_cast<std::uint64_t>(settings.source));
    h = hashCombine(h, static_cast<std::uint64_t>(settings.by));
    h = hashCombine(h, static_cast<std::uint64_t>(settings.count));
    h = hashCombine(h, floatBits(settings.size));
    h = hashCombine(h, floatBits(settings.randomness));
    h = hashCombine(h, settings.seed);
    h = hashCombine(h, settings.centerWeight.isMapped() ? 1 : 0);
    h = hashCombine(h, floatBits(settings.centerWeight.value()));
    for (const char c : settings.regionChannel)
        h = hashCombine(h, static_cast<unsigned char>(c));
    h = hashCombine(h, settings.followTubes ? 1 : 0);
    h = hashCombine(h, settings.parts ? settings.parts->hash : 0);
    h = hashCombine(h, floatBits(settings.area));
    h = hashCombine(h, settings.scalpKey);
    h = hashCombine(h, settings.centers ? settings.centers->hash : 0);
    return h;
}

std::uint64_t centerPlanKey(std::uint64_t settingsKey, std::span<const std::uint64_t> chunks) {
    std::uint64_t h = hashCombine(settingsKey, chunks.size());
    for (const std::uint64_t c : chunks)
        h = hashCombine(h, c);
    return h;
}

float rootArea(const StrandSet& strands, const ScalpMesh* scalp) {
    if (scalp && scalp->triangleCount() > 0) {
        double sum = 0.0;
        for (const float a : growthAreas(*scalp))
            sum += a;
        return static_cast<float>(sum);
    }
    if (strands.strandCount() == 0) return 0.0f;
    // Only the strands every preview holds, so that a preview measures what its full run does.
    const std::vector<float>* preview = strands.strandChannel(channels::kPreview);
    Vec3f low{INFINITY, INFINITY, INFINITY}, high{-INFINITY, -INFINITY, -INFINITY};
    for (std::size_t s = 0; s < strands.strandCount(); ++s) {
        if (strands.pointRange(s).count == 0 || (preview && (*preview)[s] != 1.0f)) continue;
        const Vec3f p = rootOf(strands, s);
        low = minPerAxis(low, p);
        high = maxPerAxis(high, p);
    }
    if (!(high.x >= low.x)) return 0.0f;
    float sides[3] = {high.x - low.x, high.y - low.y, high.z - low.z};
    std::sort(sides, sides + 3);
    return sides[1] * sides[2];
}

std::shared_ptr<const CenterPlan> buildCenterPlan(const StrandSet& strands,
                                                  const CenterPickSettings& settings) {
    auto plan = std::make_shared<CenterPlan>();
    const std::size_t count = strands.strandCount();
    plan->source = settings.source;
    plan->strandCount = count;
    plan->area = settings.area;
    plan->chunkHashes = keyChunks(strands, settings, &plan->strandHashes);
    plan->settingsKey = centerSettingsKey(settings);
    plan->key = centerPlanKey(plan->settingsKey, plan->chunkHashes);
    plan->centerOf.assign(count, -1);

    const ReadChannels read = readChannels(strands, settings);
    const Groups groups = groupStrands(strands, read);
    std::vector<Vec3f> roots(count);
    forEach(count, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s)
            roots[s] = rootOf(strands, s);
    });

    std::vector<std::uint32_t> centerGroup;
    if (settings.source == CenterSource::Pick) {
        const float area = settings.area > 0.0f ? settings.area : rootArea(strands, settings.scalp);
        std::size_t wanted = 0;
        if (settings.by == ClumpBy::Count) {
            wanted = static_cast<std::size_t>(std::max<std::int64_t>(0, settings.count));
        } else if (settings.size > 0.0f) {
            const double fit = area / (0.866 * settings.size * settings.size);
            wanted = static_cast<std::size_t>(std::max(1.0, std::round(fit)));
        }
        const std::vector<std::uint32_t> candidates =
            wanted > 0 ? rankedCandidates(strands, settings, read, wanted)
                       : std::vector<std::uint32_t>{};
        wanted = std::min(wanted, candidates.size());
        if (wanted > 0) {
            std::vector<std::uint32_t> candidateGroup(candidates.size());
            for (std::size_t i = 0; i < candidates.size(); ++i)
                candidateGroup[i] = groups.of[candidates[i]];
            std::vector<std::uint32_t> itemIndex(candidates.size());
            std::iota(itemIndex.begin(), itemIndex.end(), 0u);
            std::vector<Vec3f> candidateRoots(candidates.size());
            for (std::size_t i = 0; i < candidates.size(); ++i)
                candidateRoots[i] = roots[candidates[i]];
            std::vector<GroupTree> trees =
                groupTrees(groups.keys.size(), itemIndex, candidateGroup, candidateRoots);
            // The trees' items are places in `candidates`; turn them into strands.
            for (GroupTree& tree : trees)
                for (std::uint32_t& item : tree.items)
                    item = candidates[item];

            std::vector<Vec3f> random(wanted), even(wanted), normals(wanted);
            std::vector<std::uint32_t> spotGroup(wanted);
            for (std::size_t i = 0; i < wanted; ++i) {
                random[i] = even[i] = roots[candidates[i]];
                normals[i] = growthNormal(strands, settings.scalp, candidates[i]);
                spotGroup[i] = groups.of[candidates[i]];
            }
            const float t = std::clamp(settings.randomness, 0.0f, 2.0f);
            if (t != 1.0f && area > 0.0f) {
                const float r0 = kRadiusScale * std::sqrt(area / static_cast<float>(wanted));
                relaxSpots(even, normals, spotGroup, r0, trees, strands, settings.scalp);
            }
            std::vector<std::uint32_t> picked(wanted);
            forEach(wanted, [&](std::size_t begin, std::size_t end) {
                for (std::size_t i = begin; i < end; ++i) {
                    if (t == 1.0f) {
                        picked[i] = candidates[i];
                        continue;
                    }
                    const Vec3f spot = even[i] + (random[i] - even[i]) * t;
                    const std::uint32_t s = nearestIn(trees[spotGroup[i]], spot);
                    picked[i] = s == kNoValue ? candidates[i] : s;
                }
            });
            // Two spots that find one strand make one center, the first in rank order.
            std::unordered_set<std::uint32_t> taken;
            for (const std::uint32_t s : picked) {
                if (!taken.insert(s).second) continue;
                plan->chosen.push_back(s);
                plan->axisStrand.push_back(s);
                plan->roots.push_back(roots[s]);
                const StrandRoot& root = strands.roots()[s];
                plan->normals.push_back(settings.scalp && settings.scalp->isOnSurface(root)
                                            ? settings.scalp->normalAt(root)
                                            : Vec3f{});
                plan->ids.push_back(strands.ids()[s]);
                plan->regions.push_back(read.region ? (*read.region)[s] : NAN);
                centerGroup.push_back(groups.of[s]);
            }
        }
    } else if (settings.centers) {
        const CenterCurves& curves = *settings.centers;
        // A center without a region of its own takes the nearest strand's.
        std::unique_ptr<PointTree> strandTree;
        for (std::size_t c = 0; c < curves.size(); ++c) {
            float region = curves.regions[c];
            if (read.region && std::isnan(region) && count > 0) {
                if (!strandTree) strandTree = std::make_unique<PointTree>(roots);
                std::uint32_t nearest = 0;
                float d2 = 0.0f;
                if (strandTree->nearest(curves.curves[c][0], 1, &nearest, &d2) > 0)
                    region = (*read.region)[nearest];
            }
            plan->chosen.push_back(static_cast<std::uint32_t>(c));
            plan->axisStrand.push_back(CenterPlan::kNone);
            plan->roots.push_back(curves.curves[c][0]);
            plan->normals.push_back({});
            plan->ids.push_back(curves.ids[c]);
            plan->regions.push_back(region);
            const std::uint64_t key =
                ((read.region ? std::uint64_t{floatBits(region)} : kNoValue) << 32) | kNoValue;
            centerGroup.push_back(groups.find(key));
        }
    }
    const std::size_t centers = plan->ids.size();
    plan->numbers = uniqueNumbers(plan->ids);

    // Every strand to the nearest center of its group, passing over those across a part.
    std::vector<std::uint32_t> centerIndex(centers);
    std::iota(centerIndex.begin(), centerIndex.end(), 0u);
    const std::vector<GroupTree> centerTrees =
        groupTrees(groups.keys.size(), centerIndex, centerGroup, plan->roots);
    const int ask = settings.parts ? PointTree::kMaxNearest : 1;
    // Without parts a strand asks for its one nearest center, which a grid answers faster.
    std::vector<CenterGrid> grids(centerTrees.size());
    if (!settings.parts)
        parallelRange(0, grids.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t g = begin; g < end; ++g) {
                std::vector<Vec3f> points;
                for (const std::uint32_t c : centerTrees[g].items)
                    points.push_back(plan->roots[c]);
                grids[g] = CenterGrid(points);
            }
        });
    // With one group every strand asks the same grid: list the few centers each place can have.
    if (grids.size() == 1) grids[0].prepare(roots);
    parallelRange(0, count, kGrain, [&](std::size_t begin, std::size_t end) {
        std::uint32_t found[PointTree::kMaxNearest];
        float d2[PointTree::kMaxNearest];
        for (std::size_t s = begin; s < end; ++s) {
            if (strands.pointRange(s).count == 0) continue;
            const GroupTree& group = centerTrees[groups.of[s]];
            const CenterGrid& grid = grids[groups.of[s]];
            int n = 0;
            if (!grid.empty()) {
                found[0] = grid.nearest(roots[s]);
                n = found[0] == kNoValue ? 0 : 1;
            } else {
                n = group.tree.nearest(roots[s], ask, found, d2);
            }
            for (int k = 0; k < n; ++k) {
                const std::uint32_t c = group.items[found[k]];
                if (settings.parts) {
                    const Vec3f normal = growthNormal(strands, settings.scalp, s);
                    if (settings.parts->divides(roots[s], plan->roots[c], normal)) continue;
                }
                plan->centerOf[s] = static_cast<std::int32_t>(c);
                break;
            }
        }
    });

    // Each center's strands, ascending.
    plan->memberStart.assign(centers + 1, 0);
    for (const std::int32_t c : plan->centerOf)
        if (c >= 0) ++plan->memberStart[static_cast<std::size_t>(c) + 1];
    for (std::size_t c = 0; c < centers; ++c)
        plan->memberStart[c + 1] += plan->memberStart[c];
    plan->members.resize(plan->memberStart[centers]);
    {
        std::vector<std::uint32_t> at(plan->memberStart.begin(), plan->memberStart.end() - 1);
        for (std::size_t s = 0; s < count; ++s)
            if (plan->centerOf[s] >= 0)
                plan->members[at[static_cast<std::size_t>(plan->centerOf[s])]++] =
                    static_cast<std::uint32_t>(s);
    }

    // Given center points, the axis is the strand each gathers nearest its root.
    if (settings.source == CenterSource::InputPoints) {
        forEach(centers, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) {
                float best = INFINITY;
                for (const std::uint32_t s : plan->membersOf(c)) {
                    const float d2 = lengthSquared(roots[s] - plan->roots[c]);
                    if (d2 < best) {
                        best = d2;
                        plan->axisStrand[c] = s;
                    }
                }
            }
        });
    }

    // Each center's nearest others, for copyAmount.
    plan->neighbors.assign(centers * CenterPlan::kNeighbors, 0);
    const PointTree centerTree(plan->roots);
    forEach(centers, [&](std::size_t begin, std::size_t end) {
        std::uint32_t found[CenterPlan::kNeighbors + 1];
        float d2[CenterPlan::kNeighbors + 1];
        for (std::size_t c = begin; c < end; ++c) {
            const int n = centerTree.nearest(plan->roots[c], CenterPlan::kNeighbors + 1, found, d2);
            std::uint32_t* list = plan->neighbors.data() + c * CenterPlan::kNeighbors;
            int at = 0;
            for (int k = 0; k < n && at < CenterPlan::kNeighbors; ++k)
                if (found[k] != c) list[at++] = found[k];
            for (; at < CenterPlan::kNeighbors; ++at)
                list[at] = static_cast<std::uint32_t>(c);
        }
    });
    return plan;
}

}  // namespace velmorin
