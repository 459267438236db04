#include "ops/interpolate_binding.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>

#include "base/hash.h"
#include "base/parallel.h"
#include "ops/binding_weights.h"
#include "ops/guide_root_grid.h"
#include "ops/interpolate_follow.h"
#include "ops/interpolate_tubes.h"

namespace velmorin {
namespace {

using binding_weights::kPaddedCandidates;
using binding_weights::kTotalWeight;

bool isFinite(const Vec3f& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
}

bool sameBits(const Vec3f& a, const Vec3f& b) {
    return std::memcmp(&a, &b, sizeof(Vec3f)) == 0;
}

template <class T>
bool sameBits(std::span<const T> a, std::span<const T> b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size_bytes()) == 0);
}

// One list of guides a strand can draw from, with its grid and the reach of its guides.
struct GuideList {
    GuideRootGrid grid;
    const ReachTable* reach = nullptr;
};

ReachTable measureReach(const GuideRootGrid& grid, std::span<const Vec3f> roots,
                        std::span<const std::uint32_t> members, std::size_t guideCount,
                        const InterpolateSettings& settings) {
    ReachTable table;
    table.reach.assign(guideCount, kInfiniteDistance);
    if (settings.followSurface) table.walkReach.assign(guideCount, kInfiniteDistance);
    const int want = static_cast<int>(settings.kept) + 1;
    if (members.size() < static_cast<std::size_t>(want)) return table;
    const auto body = [&](std::size_t begin, std::size_t end) {
        std::uint32_t found[GuideRootGrid::kMaxNearest];
        float d2[GuideRootGrid::kMaxNearest];
        for (std::size_t m = begin; m < end; ++m) {
            const std::uint32_t g = members[m];
            // The guide itself comes first (or beside a twin at the same spot), so the kept-th
            // entry is its kept-th nearest other guide.
            if (grid.nearest(roots[g], want, found, d2) < want) continue;
            const float reach = settings.reachScale * std::sqrt(d2[settings.kept]);
            table.reach[g] = reach;
            if (settings.followSurface)
                table.walkReach[g] = reach > 0.0f ? std::exp2(std::ceil(std::log2(reach))) : 0.0f;
        }
    };
    // Few guides measure faster on one thread than the pool can start.
    if (members.size() <= 256)
        body(0, members.size());
    else
        parallelRange(0, members.size(), 256, body);
    return table;
}

// What every strand of one build reads.
struct BindContext {
    const InterpolateSettings* settings = nullptr;
    const BindingInputs* inputs = nullptr;
    const std::vector<GuideList>* lists = nullptr;
    std::span<const std::int32_t> strandLists;
    binding_weights::Lanes lanes = binding_weights::bestLanes();
};

// Room for one strand's records: every candidate a nearest query or the weights may write.
constexpr std::size_t kSlotRecords = 80;
static_assert(kSlotRecords >= GuideRootGrid::kMaxNearest && kSlotRecords >= kPaddedCandidates);

// What binding finds for a strand besides its records.
struct StrandResult {
    std::uint32_t count = 0;  // records
    float nearest2 = kInfiniteDistance;
    float next2 = kInfiniteDistance;
    // Between finding the candidates and weighing them: how many there are (0 where the strand
    // needs no weighing), and whether their distances rose strictly.
    std::int32_t candidates = 0;
    bool clean = true;
};

// Finds strand `s`'s candidate guides into `guides` and their squared distances into `d2` (both
// kSlotRecords long) for weigh, or binds the strand outright where it needs no weights: its records
// then go to `guides` and `weightsOut`. `shortlist`, gathered for the strand's list round its root,
// answers the nearest-guide query as the list's grid would.
//
// A group's strands are all found before any is weighed: each step is a long chain of dependent
// operations, and two loops of shorter bodies let the processor run several strands' chains at
// once.
void findCandidates(const BindContext& context, std::size_t s, GuideShortlist& shortlist,
                    std::uint32_t* guides, float* d2, std::uint16_t* weightsOut,
                    StrandResult& result) {
    const InterpolateSettings& settings = *context.settings;
    const BindingInputs& inputs = *context.inputs;
    float nearest2 = kInfiniteDistance;
    float next2 = kInfiniteDistance;
    const Vec3f root = inputs.strandRoots[s];
    const GuideList& list = (*context.lists)[static_cast<std::size_t>(context.strandLists[s])];
    // Written field by field where the caller keeps it: a result built on the stack and
    // returned is read back across the stores that built it, which the processor cannot forward.
    const auto finish = [&](int records) {
        result.count = static_cast<std::uint32_t>(records);
        result.nearest2 = nearest2;
        result.next2 = next2;
        result.candidates = 0;
    };
    if (!isFinite(root) || list.grid.size() == 0) return finish(0);
    if (inputs.tubes && inputs.tubes->riding[s]) {
        // 3. A strand inside a tube rides it alone; nothing but the tubes can change that.
        nearest2 = 0.0f;
        next2 = 0.0f;
        weightsOut[0] = static_cast<std::uint16_t>(kTotalWeight - 1);
        guides[0] = static_cast<std::uint32_t>(inputs.tubes->guide[s]);
        return finish(1);
    }

    // 1. The nearest guides, and the distance of the first one past them.
    const int wanted =
        static_cast<int>(std::min<std::size_t>(settings.candidates, list.grid.size()));
    bool clean = true;
    int count = shortlist.nearest(root, wanted + 1, guides, d2, &clean);
    if (inputs.surface) {
        const std::int32_t listIndex = context.strandLists[s];
        count = nearestOnSurface(*inputs.surface, inputs, s,
                                 listIndex > 0 ? inputs.strandLabels[s] : -1, wanted + 1, guides,
                                 d2, count);
        clean = true;
        for (int i = 1; i < count; ++i)
            if (!(d2[i] > d2[i - 1])) clean = false;
    }
    if (clean && count > wanted) next2 = d2[wanted];
    count = std::min(count, wanted);

    // 2. Guides across a part are dropped, unless that would drop them all.
    if (settings.respectParts && inputs.parts && !inputs.strandNormals.empty()) {
        const Vec3f normal = inputs.strandNormals[s];
        bool keep[GuideRootGrid::kMaxNearest];
        int kept = 0;
        for (int i = 0; i < count; ++i) {
            keep[i] = !inputs.parts->divides(root, inputs.guideRoots[guides[i]], normal);
            kept += keep[i] ? 1 : 0;
        }
        if (kept > 0 && kept < count) {
            int at = 0;
            for (int i = 0; i < count; ++i) {
                if (!keep[i]) continue;
                guides[at] = guides[i];
                d2[at] = d2[i];
                ++at;
            }
            count = at;
        }
    }
    if (count == 0) return finish(0);
    nearest2 = d2[0];

    if (settings.nearestOnly) {
        // 3. The nearest guide alone.
        weightsOut[0] = static_cast<std::uint16_t>(kTotalWeight - 1);
        return finish(1);
    }
    finish(0);
    result.candidates = count;
    result.clean = clean;
}

// Weighs the candidates findCandidates left for strand `s` (none: nothing to do) and writes its
// records to `guides` and `weightsOut`.
void weigh(const BindContext& context, std::size_t s, std::uint32_t* guides, const float* d2,
           std::uint16_t* weightsOut, StrandResult& result) {
    int count = result.candidates;
    if (count == 0) return;
    const InterpolateSettings& settings = *context.settings;
    const BindingInputs& inputs = *context.inputs;
    const GuideList& list = (*context.lists)[static_cast<std::size_t>(context.strandLists[s])];
    const float next2 = result.next2;
    const bool clean = result.clean;

    // 4. First weights, by each guide's reach.
    double weights[kPaddedCandidates];
    double edge = 0.0;
    const float* reach = list.reach->reach.data();
    const double sumA = binding_weights::shepard(context.lanes, count, d2, guides, reach, 0.0f,
                                                 settings.power, weights, &edge);

    // 5. Edge fill: where the strand barely lies within any reach, the kept nearest blend by one
    // radius, so that no guide takes it over just because its reach happens to be largest.
    const double fill = std::min(1.0, 4.0 * edge);
    bool reweighed = false;
    if (fill < 1.0) {
        reweighed = true;
        const int kept = std::min(count, static_cast<int>(settings.kept));
        const float radius =
            count > kept
                ? std::sqrt(d2[kept])
                : (next2 < kInfiniteDistance && clean ? std::sqrt(next2) : kInfiniteDistance);
        double second[kPaddedCandidates];
        const double sumB = binding_weights::shepard(context.lanes, kept, d2, guides, nullptr,
                                                     radius, settings.power, second, nullptr);
        if (sumA > 0.0) {
            for (int i = 0; i < count; ++i) {
                weights[i] = weights[i] * fill / sumA;
                if (i < kept && sumB > 0.0) weights[i] += second[i] * (1.0 - fill) / sumB;
            }
        } else {
            for (int i = 0; i < kept; ++i)
                weights[i] = second[i];
            count = kept;
        }
    }

    // 6. Painted guide weights scale the blend, unless they would leave the strand to nothing.
    if (!inputs.guideWeights.empty()) {
        double scaled[kPaddedCandidates];
        double sum = 0.0;
        for (int i = 0; i < count; ++i) {
            scaled[i] = weights[i] * static_cast<double>(inputs.guideWeights[guides[i]]);
            sum += scaled[i];
        }
        if (sum > 0.0) {
            std::copy(scaled, scaled + count, weights);
            reweighed = true;
        }
    }

    // 7. Quantised to sixteen bits.
    // Shepard's sum is the one quantising takes where neither step changed the weights: it adds
    // the same weights, none below 0, in the same order.
    const int stored = binding_weights::quantiseRecords(
        context.lanes, count, weights,
        reweighed ? binding_weights::positiveSum(count, weights) : sumA, guides, weightsOut);
    result.count = static_cast<std::uint32_t>(stored);
}

void startChunk(BindingChunk& chunk, std::size_t first) {
    chunk.firstStrand = static_cast<std::uint32_t>(first);
}

// One strand's binding to lay out, wherever it was made.
struct StrandView {
    const std::uint32_t* guides;
    const std::uint16_t* weights;
    std::uint32_t count;
    // Whether a whole block of records can be read from `guides` and `weights`.
    bool block;
    float nearest2;
    float next2;
    std::uint8_t found;
    std::uint8_t twisted;
};

// Most strands have fewer records than this: theirs are copied as one fixed block.
constexpr std::size_t kRecordBlock = 16;

// Strand `k` of `chunk` as a view.
StrandView viewOf(const BindingChunk& chunk, std::size_t k) {
    const std::uint32_t begin = chunk.recordStart[k], end = chunk.recordStart[k + 1];
    return StrandView{chunk.guides.data() + begin,
                      chunk.weights.data() + begin,
                      end - begin,
                      begin + kRecordBlock <= chunk.guides.size(),
                      chunk.nearest2[k],
                      chunk.next2[k],
                      chunk.found[k],
                      chunk.twisted[k]};
}

// Lays out `chunk` (of `count` strands) in strand order, strand k from the view at(k), records and
// all. Its arrays are made once, at their length.
template <class Source>
void layOutChunk(BindingChunk& chunk, std::size_t count, const Source& at) {
    std::size_t records = 0;
    for (std::size_t k = 0; k < count; ++k)
        records += at(k).count;
    chunk.recordStart.resize(count + 1);
    chunk.nearest2.resize(count);
    chunk.next2.resize(count);
    chunk.found.resize(count);
    chunk.twisted.resize(count);
    // A block's room past the last record: a strand's block runs over into the next strand's
    // place, which that strand then writes.
    chunk.weights.resize(records + kRecordBlock);
    chunk.guides.resize(records + kRecordBlock);
    std::uint32_t record = 0;
    chunk.recordStart[0] = 0;
    for (std::size_t k = 0; k < count; ++k) {
        const StrandView from = at(k);
        std::uint32_t* guides = chunk.guides.data() + record;
        std::uint16_t* weights = chunk.weights.data() + record;
        // Fixed-size copies are a few moves, where a call to copy a handful of records is not.
        if (from.count <= kRecordBlock && from.block) {
            std::memcpy(guides, from.guides, kRecordBlock * sizeof(std::uint32_t));
            std::memcpy(weights, from.weights, kRecordBlock * sizeof(std::uint16_t));
        } else if (from.count > 0) {
            std::memcpy(guides, from.guides, from.count * sizeof(std::uint32_t));
            std::memcpy(weights, from.weights, from.count * sizeof(std::uint16_t));
        }
        record += from.count;
        chunk.recordStart[k + 1] = record;
        chunk.nearest2[k] = from.nearest2;
        chunk.next2[k] = from.next2;
        chunk.found[k] = from.found;
        chunk.twisted[k] = from.twisted;
    }
    chunk.weights.resize(records);
    chunk.guides.resize(records);
}

// Strands rooted side by side share one shortlist of guides: groups of at most this many...
constexpr std::size_t kShortlistStrands = 64;
// ... and spread over no more than this many guide spacings. On a dense groom the spread bounds
// most groups before the count does: a shortlist then serves as many strands as lie that close.
constexpr float kGroupSpacings = 3.0f;

// One thread's scratch for binding chunks, kept from chunk to chunk.
struct ChunkScratch {
    GuideShortlist shortlist;
    std::vector<std::uint32_t> order;  // chunk-local strands, grouped by list and place
    std::vector<std::uint64_t> keys;   // splitByPlace's
    // Per chunk-local strand bound, its result and its slots of kSlotRecords records and
    // candidates' distances.
    std::vector<StrandResult> results;
    std::vector<std::uint32_t> guides;
    std::vector<std::uint16_t> weights;
    std::vector<float> distances;
};

// A float's bits turned so that they order as the numbers do (-0 counted as +0).
inline std::uint32_t orderedBits(float f) {
    std::uint32_t bits;
    const float x = f + 0.0f;
    std::memcpy(&bits, &x, sizeof bits);
    return bits & 0x80000000u ? ~bits : bits | 0x80000000u;
}

// The calling thread's scratch, its arrays kept from one run of chunks to the next, so that they
// are not grown again from nothing each time; the shortlist starts afresh as a new one would.
ChunkScratch& chunkScratch() {
    thread_local ChunkScratch scratch;
    scratch.shortlist.restart();
    return scratch;
}

// Splits `group` (chunk-local strands) at the median of their roots' widest axis until each part
// has at most kShortlistStrands and spans at most `widest` along every axis (or is one strand), and
// calls visit(part) on each part, in order. `roots` are the chunk's roots by chunk-local index;
// `keys` is scratch of twice the group's size.
//
// The width matters as much as the count: a chunk's strands may lie along a strip that crosses
// the scalp, and a group spread over it would gather a shortlist of most guides, which each of its
// strands then measures.
template <class Visit>
void splitByPlace(std::span<const Vec3f> roots, std::span<std::uint32_t> group, float widest,
                  std::span<std::uint64_t> keys, const Visit& visit) {
    Vec3f lo = roots[group[0]], hi = lo;
    for (const std::uint32_t k : group) {
        lo = minPerAxis(lo, roots[k]);
        hi = maxPerAxis(hi, roots[k]);
    }
    const Vec3f extent = hi - lo;
    const float span = std::max({extent.x, extent.y, extent.z});
    if (group.size() == 1 || (group.size() <= kShortlistStrands && !(span > widest)))
        return visit(group, lo, hi);
    const int axis = extent.x >= extent.y && extent.x >= extent.z ? 0
                     : extent.y >= extent.z                       ? 1
                                                                  : 2;
    // Each strand as its coordinate and index in one key: ties go by index, so that the groups
    // (which only decide how fast a query runs, never its answer) are the same on every run, and
    // the median is found among plain integers.
    for (std::size_t i = 0; i < group.size(); ++i)
        keys[i] = std::uint64_t{orderedBits(roots[group[i]][axis])} << 32 | group[i];
    const std::size_t half = group.size() / 2;
    selectNth(keys.data(), group.size(), half, keys.data() + group.size());
    for (std::size_t i = 0; i < group.size(); ++i)
        group[i] = static_cast<std::uint32_t>(keys[i]);
    splitByPlace(roots, group.first(half), widest, keys, visit);
    splitByPlace(roots, group.subspan(half), widest, keys, visit);
}

// Binds the strands [first, last) of `chunk` in order: all of them, or with `marks` only the
// marked ones, the others copied from `old`. Strands are bound in groups rooted close together
// that share one shortlist of guides, then laid out in their own order.
void bindRange(const BindContext& context, std::size_t first, std::size_t last,
               const std::uint8_t* marks, const BindingChunk* old, BindingChunk& chunk,
               ChunkScratch& scratch) {
    const std::span<const Vec3f> roots = context.inputs->strandRoots;
    const std::size_t count = last - first;
    const std::span<const Vec3f> local = roots.subspan(first, count);
    scratch.order.clear();
    for (std::size_t k = 0; k < count; ++k)
        if (marks == nullptr || marks[first + k] != 0)
            scratch.order.push_back(static_cast<std::uint32_t>(k));
    // Roots that are not numbers bind to nothing without asking: they go first, on their own.
    // Both steps keep the order they find, and both leave it as it is (without taking a buffer,
    // as the stable algorithms do) where it already is: roots are numbers and a chunk's strands
    // draw on one list, save on a scalp painted in regions.
    const auto notPlaced = [&](std::uint32_t k) { return !isFinite(roots[first + k]); };
    const auto unplaced =
        std::none_of(scratch.order.begin(), scratch.order.end(), notPlaced)
            ? scratch.order.begin()
            : std::stable_partition(scratch.order.begin(), scratch.order.end(), notPlaced);
    const auto byList = [&](std::uint32_t a, std::uint32_t b) {
        return context.strandLists[first + a] < context.strandLists[first + b];
    };
    if (!std::is_sorted(unplaced, scratch.order.end(), byList))
        std::stable_sort(unplaced, scratch.order.end(), byList);

    // Sized once per thread: a chunk's strands are at most kBindingChunkStrands.
    scratch.results.resize(kBindingChunkStrands);
    scratch.guides.resize(kBindingChunkStrands * kSlotRecords);
    scratch.weights.resize(kBindingChunkStrands * kSlotRecords);
    scratch.distances.resize(kBindingChunkStrands * kSlotRecords);
    const auto bindGroup = [&](std::span<const std::uint32_t> group) {
        for (const std::uint32_t k : group)
            findCandidates(context, first + k, scratch.shortlist,
                           scratch.guides.data() + k * kSlotRecords,
                           scratch.distances.data() + k * kSlotRecords,
                           scratch.weights.data() + k * kSlotRecords, scratch.results[k]);
        for (const std::uint32_t k : group)
            weigh(context, first + k, scratch.guides.data() + k * kSlotRecords,
                  scratch.distances.data() + k * kSlotRecords,
                  scratch.weights.data() + k * kSlotRecords, scratch.results[k]);
    };
    bindGroup(std::span<const std::uint32_t>(scratch.order.begin(), unplaced));
    for (auto run = unplaced; run != scratch.order.end();) {
        const std::int32_t listIndex = context.strandLists[first + *run];
        const auto runEnd = std::find_if(run, scratch.order.end(), [&](std::uint32_t k) {
            return context.strandLists[first + k] != listIndex;
        });
        const GuideList& list = (*context.lists)[static_cast<std::size_t>(listIndex)];
        const int k = static_cast<int>(
                          std::min<std::size_t>(context.settings->candidates, list.grid.size())) +
                      1;
        scratch.keys.resize(2 * count);
        // A few guide spacings: wider groups are rare, and cost more in their queries than two
        // shortlists do.
        const float widest =
            list.grid.spacing() > 0.0f ? list.grid.spacing() * kGroupSpacings : kInfiniteDistance;
        splitByPlace(local, std::span<std::uint32_t>(run, runEnd), widest, scratch.keys,
                     [&](std::span<std::uint32_t> group, const Vec3f& lo, const Vec3f& hi) {
                         if (list.grid.size() > 0) {
                             const Vec3f center = (lo + hi) * 0.5f;
                             float spread2 = 0.0f;
                             for (const std::uint32_t g : group)
                                 spread2 = std::max(spread2, lengthSquared(local[g] - center));
                             scratch.shortlist.gather(list.grid, center, std::sqrt(spread2), k);
                         }
                         bindGroup(group);
                     });
        run = runEnd;
    }

    layOutChunk(chunk, count, [&](std::size_t k) {
        if (marks != nullptr && marks[first + k] == 0) return viewOf(*old, k);
        const StrandResult& result = scratch.results[k];
        return StrandView{scratch.guides.data() + k * kSlotRecords,
                          scratch.weights.data() + k * kSlotRecords,
                          result.count,
                          true,
                          result.nearest2,
                          result.next2,
                          static_cast<std::uint8_t>(result.count > 0 ? 1 : 0),
                          0};
    });
}

// The guide-level part of a state: regions, lists and reach tables. Fills `state` and `lists`.
void prepareGuides(const InterpolateSettings& settings, const BindingInputs& inputs,
                   InterpolateState& state, std::vector<GuideList>& lists) {
    const std::size_t guideCount = inputs.guideRoots.size();
    state.settings = settings;
    state.guideRoots.assign(inputs.guideRoots.begin(), inputs.guideRoots.end());
    state.guideWeights.assign(inputs.guideWeights.begin(), inputs.guideWeights.end());
    state.parts = settings.respectParts ? inputs.parts : nullptr;
    state.tubes = inputs.tubes;

    // Regions: the labels guides are rooted in, ascending.
    state.guideRegions.assign(guideCount, -1);
    if (!inputs.guideLabels.empty()) {
        for (const std::int32_t label : inputs.guideLabels)
            if (label >= 0) state.regionLabels.push_back(label);
        std::sort(state.regionLabels.begin(), state.regionLabels.end());
        state.regionLabels.erase(std::unique(state.regionLabels.begin(), state.regionLabels.end()),
                                 state.regionLabels.end());
        for (std::size_t g = 0; g < guideCount; ++g) {
            const auto found = std::lower_bound(state.regionLabels.begin(),
                                                state.regionLabels.end(), inputs.guideLabels[g]);
            if (inputs.guideLabels[g] >= 0)
                state.guideRegions[g] =
                    static_cast<std::int32_t>(found - state.regionLabels.begin());
        }
    }
    const std::size_t regionCount = state.regionLabels.size();
    std::vector<std::vector<std::uint32_t>> members(regionCount + 1);
    for (std::size_t g = 0; g < guideCount; ++g) {
        members[0].push_back(static_cast<std::uint32_t>(g));
        if (state.guideRegions[g] >= 0)
            members[static_cast<std::size_t>(state.guideRegions[g]) + 1].push_back(
                static_cast<std::uint32_t>(g));
    }
    lists.resize(regionCount + 1);
    state.regionReach.resize(regionCount);
    std::vector<Vec3f> points;
    for (std::size_t l = 0; l <= regionCount; ++l) {
        points.clear();
        for (const std::uint32_t g : members[l])
            points.push_back(inputs.guideRoots[g]);
        lists[l].grid =
            GuideRootGrid(points, members[l], static_cast<int>(settings.candidates) + 1);
        ReachTable table =
            measureReach(lists[l].grid, inputs.guideRoots, members[l], guideCount, settings);
        if (l == 0)
            state.allReach = std::move(table);
        else
            state.regionReach[l - 1] = std::move(table);
    }
    lists[0].reach = &state.allReach;
    for (std::size_t r = 0; r < regionCount; ++r)
        lists[r + 1].reach = &state.regionReach[r];

    // Strands take their root's region where a guide is rooted in it, else all guides.
    const std::size_t strandCount = inputs.strandRoots.size();
    state.strandLists.assign(strandCount, 0);
    if (!inputs.strandLabels.empty() && regionCount > 0) {
        parallelRange(0, strandCount, 4096, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s) {
                const std::int32_t label = inputs.strandLabels[s];
                const auto found =
                    std::lower_bound(state.regionLabels.begin(), state.regionLabels.end(), label);
                if (label >= 0 && found != state.regionLabels.end() && *found == label)
                    state.strandLists[s] =
                        static_cast<std::int32_t>(found - state.regionLabels.begin()) + 1;
            }
        });
    }
    state.strandRoots.assign(inputs.strandRoots.begin(), inputs.strandRoots.end());
    state.strandNormals.assign(inputs.strandNormals.begin(), inputs.strandNormals.end());
}

void countRecords(Binding& binding) {
    binding.recordCount = 0;
    for (const auto& chunk : binding.chunks)
        binding.recordCount += chunk->guides.size();
}

}  // namespace

InterpolateSettings makeInterpolateSettings(double smoothness, std::int64_t neighbors,
                                            std::size_t guideCount, bool followSurface,
                                            double limitDistance, bool respectParts,
                                            bool hasGuideWeights) {
    InterpolateSettings settings;
    const double s = std::clamp(std::isfinite(smoothness) ? smoothness : 0.5, 0.0, 1.0);
    if (s == 0.5) {
        settings.reachScale = 1.5f;
        settings.power = 2.0f;
    } else if (s > 0.5) {
        const double e = s - 0.5;
        settings.reachScale = static_cast<float>(std::max(1.0, (2.0 * e + 1.0) * 1.5));
        settings.power = static_cast<float>(2.0 * (1.0 - e));
    } else {
        settings.reachScale = static_cast<float>(std::max(1.0, s + 1.0));
        settings.power = static_cast<float>(2.0 * (3.0 - 4.0 * s));
    }
    settings.neighbors = static_cast<unsigned>(std::clamp<std::int64_t>(neighbors, 1, 16));
    const auto guides = static_cast<unsigned>(std::min<std::size_t>(guideCount, 1u << 30));
    settings.kept = std::min(settings.neighbors, guides);
    settings.nearestOnly = settings.neighbors == 1;
    settings.followSurface = followSurface;
    settings.respectParts = respectParts;
    settings.limitDistance = static_cast<float>(std::max(0.0, limitDistance));
    settings.hasGuideWeights = hasGuideWeights && !settings.nearestOnly;
    if (settings.nearestOnly && !respectParts && !followSurface) {
        settings.candidates = std::min(1u, guides);
    } else {
        settings.candidates = std::min(std::max(4 * settings.kept + 2, 8u), guides);
    }
    return settings;
}

bool PartsSnapshot::divides(const Vec3f& from, const Vec3f& to, const Vec3f& normal) const {
    const Vec3f lo = minPerAxis(from, to), hi = maxPerAxis(from, to);
    // Seen along the normal: the pair and each part segment in the plane across it.
    const Vec3f u =
        normalized(cross(normal, std::fabs(normal.x) < 0.9f ? Vec3f{1, 0, 0} : Vec3f{0, 1, 0}));
    const Vec3f v = cross(normal, u);
    const auto flat = [&](const Vec3f& p) { return std::pair<float, float>{dot(p, u), dot(p, v)}; };
    const auto side = [](std::pair<float, float> a, std::pair<float, float> b,
                         std::pair<float, float> c) {
        return (b.first - a.first) * (c.second - a.second) -
               (b.second - a.second) * (c.first - a.first);
    };
    const auto a = flat(from), b = flat(to);
    for (std::size_t l = 0; l < lines.size(); ++l) {
        if (lineMin[l].x > hi.x || lineMax[l].x < lo.x || lineMin[l].y > hi.y ||
            lineMax[l].y < lo.y || lineMin[l].z > hi.z || lineMax[l].z < lo.z)
            continue;
        const std::vector<Vec3f>& line = lines[l];
        for (std::size_t i = 0; i + 1 < line.size(); ++i) {
            const auto c = flat(line[i]), d = flat(line[i + 1]);
            const float s1 = side(a, b, c), s2 = side(a, b, d);
            const float s3 = side(c, d, a), s4 = side(c, d, b);
            if (((s1 > 0.0f) != (s2 > 0.0f)) && ((s3 > 0.0f) != (s4 > 0.0f))) return true;
        }
    }
    return false;
}

std::shared_ptr<const PartsSnapshot> makePartsSnapshot(std::vector<std::vector<Vec3f>> lines) {
    auto snapshot = std::make_shared<PartsSnapshot>();
    std::uint64_t h = 0x7061727473ull;
    for (std::vector<Vec3f>& line : lines) {
        if (line.size() < 2) continue;
        Vec3f lo = line[0], hi = line[0];
        for (const Vec3f& p : line) {
            lo = minPerAxis(lo, p);
            hi = maxPerAxis(hi, p);
            for (const float f : {p.x, p.y, p.z})
                h = hashCombine(h, floatBits(f));
        }
        h = hashCombine(h, line.size());
        // A strand and a guide beside a part's end lie within its box only if near it anyway.
        snapshot->lineMin.push_back(lo);
        snapshot->lineMax.push_back(hi);
        snapshot->lines.push_back(std::move(line));
    }
    snapshot->hash = h;
    return snapshot;
}

std::shared_ptr<const InterpolateState> bindStrands(const InterpolateSettings& settings,
                                                    const BindingInputs& inputs) {
    auto state = std::make_shared<InterpolateState>();
    std::vector<GuideList> lists;
    prepareGuides(settings, inputs, *state, lists);
    const std::size_t strandCount = inputs.strandRoots.size();
    const std::size_t chunkCount = (strandCount + kBindingChunkStrands - 1) / kBindingChunkStrands;
    Binding& binding = state->binding;
    binding.strandCount = strandCount;
    binding.guideCount = inputs.guideRoots.size();
    binding.chunks.resize(chunkCount);
    const BindContext context{&settings, &inputs, &lists, state->strandLists};
    parallelRange(0, chunkCount, 1, [&](std::size_t begin, std::size_t end) {
        ChunkScratch& scratch = chunkScratch();
        for (std::size_t c = begin; c < end; ++c) {
            const std::size_t first = c * kBindingChunkStrands;
            const std::size_t last = std::min(first + kBindingChunkStrands, strandCount);
            auto chunk = std::make_shared<BindingChunk>();
            startChunk(*chunk, first);
            bindRange(context, first, last, nullptr, nullptr, *chunk, scratch);
            binding.chunks[c] = std::move(chunk);
        }
    });
    countRecords(binding);
    return state;
}

std::shared_ptr<const InterpolateState> rebindStrands(
    const std::shared_ptr<const InterpolateState>& previous, const InterpolateSettings& settings,
    const BindingInputs& inputs, std::size_t* rebuiltStrands) {
    const std::size_t strandCount = inputs.strandRoots.size();
    const std::size_t guideCount = inputs.guideRoots.size();
    const auto full = [&] {
        if (rebuiltStrands) *rebuiltStrands = strandCount;
        return bindStrands(settings, inputs);
    };
    if (!previous || !(previous->settings == settings) ||
        previous->strandRoots.size() != strandCount || previous->guideRoots.size() != guideCount ||
        (previous->parts != nullptr) != (settings.respectParts && inputs.parts != nullptr) ||
        previous->strandNormals.size() != inputs.strandNormals.size() ||
        previous->guideWeights.size() != inputs.guideWeights.size())
        return full();
    if (previous->parts && inputs.parts && previous->parts->hash != inputs.parts->hash)
        return full();

    auto state = std::make_shared<InterpolateState>();
    std::vector<GuideList> lists;
    prepareGuides(settings, inputs, *state, lists);
    if (state->regionLabels != previous->regionLabels ||
        state->guideRegions != previous->guideRegions)
        return full();

    // Dirty points: guides that moved, or whose reach or weight changed, at both their spots.
    std::vector<Vec3f> dirty;
    const auto reachChanged = [&](std::size_t g) {
        if (floatBits(state->allReach.reach[g]) != floatBits(previous->allReach.reach[g]))
            return true;
        for (std::size_t r = 0; r < state->regionReach.size(); ++r)
            if (floatBits(state->regionReach[r].reach[g]) !=
                floatBits(previous->regionReach[r].reach[g]))
                return true;
        return false;
    };
    for (std::size_t g = 0; g < guideCount; ++g) {
        const bool moved = !sameBits(state->guideRoots[g], previous->guideRoots[g]);
        const bool weighed =
            !state->guideWeights.empty() &&
            floatBits(state->guideWeights[g]) != floatBits(previous->guideWeights[g]);
        if (!moved && !weighed && !reachChanged(g)) continue;
        dirty.push_back(previous->guideRoots[g]);
        if (moved) dirty.push_back(state->guideRoots[g]);
    }
    if (dirty.size() > guideCount) return full();

    // Per strand: bound again when its root, normal or list changed, or a dirty point lies within
    // the distance of the first guide past its candidates (1 % more, against rounding).
    const std::size_t chunkCount = previous->binding.chunks.size();
    std::vector<std::uint8_t> marks(strandCount, 0);
    std::atomic<std::size_t> marked{0};
    parallelRange(0, chunkCount, 1, [&](std::size_t begin, std::size_t end) {
        std::vector<Vec3f> near;
        for (std::size_t c = begin; c < end; ++c) {
            const BindingChunk& old = *previous->binding.chunks[c];
            const std::size_t first = old.firstStrand;
            Vec3f lo = state->strandRoots[first], hi = lo;
            float reach2 = 0.0f;
            for (std::size_t k = 0; k < old.strandCount(); ++k) {
                lo = minPerAxis(lo, state->strandRoots[first + k]);
                hi = maxPerAxis(hi, state->strandRoots[first + k]);
                reach2 = std::max(reach2, old.next2[k]);
            }
            const float reach = std::sqrt(reach2) * 1.01f;
            near.clear();
            for (const Vec3f& p : dirty) {
                const Vec3f gap = maxPerAxis(maxPerAxis(lo - p, p - hi), Vec3f{});
                if (!(reach < kInfiniteDistance) || lengthSquared(gap) <= reach * reach)
                    near.push_back(p);
            }
            std::size_t count = 0;
            for (std::size_t k = 0; k < old.strandCount(); ++k) {
                const std::size_t s = first + k;
                bool redo = !sameBits(state->strandRoots[s], previous->strandRoots[s]) ||
                            state->strandLists[s] != previous->strandLists[s] ||
                            (!state->strandNormals.empty() &&
                             !sameBits(state->strandNormals[s], previous->strandNormals[s]));
                const float limit2 = old.next2[k] * 1.0201f;
                for (std::size_t i = 0; i < near.size() && !redo; ++i)
                    redo = !(lengthSquared(near[i] - state->strandRoots[s]) > limit2);
                marks[s] = redo ? 1 : 0;
                count += redo ? 1 : 0;
            }
            marked.fetch_add(count, std::memory_order_relaxed);
        }
    });
    if (marked.load() * 2 > strandCount) return full();

    Binding& binding = state->binding;
    binding.strandCount = strandCount;
    binding.guideCount = guideCount;
    binding.chunks.resize(chunkCount);
    const BindContext context{&settings, &inputs, &lists, state->strandLists};
    parallelRange(0, chunkCount, 1, [&](std::size_t begin, std::size_t end) {
        ChunkScratch& scratch = chunkScratch();
        for (std::size_t c = begin; c < end; ++c) {
            const auto& old = previous->binding.chunks[c];
            const std::size_t first = old->firstStrand;
            const std::size_t count = old->strandCount();
            if (std::none_of(marks.begin() + static_cast<std::ptrdiff_t>(first),
                             marks.begin() + static_cast<std::ptrdiff_t>(first + count),
                             [](std::uint8_t m) { return m != 0; })) {
                binding.chunks[c] = old;
                continue;
            }
            auto chunk = std::make_shared<BindingChunk>();
            startChunk(*chunk, first);
            bindRange(context, first, first + count, marks.data(), old.get(), *chunk, scratch);
            binding.chunks[c] = std::move(chunk);
        }
    });
    countRecords(binding);
    if (rebuiltStrands) *rebuiltStrands = marked.load();
    return state;
}

FlatBinding flattenBinding(const Binding& binding) {
    FlatBinding flat;
    flat.wide = binding.guideCount > kNarrowGuideLimit;
    flat.strandWords.reserve(binding.strandCount * 2);
    flat.records.reserve(binding.recordCount * (flat.wide ? 2 : 1));
    for (const auto& chunk : binding.chunks) {
        for (std::size_t k = 0; k < chunk->strandCount(); ++k) {
            const std::uint32_t begin = chunk->recordStart[k], end = chunk->recordStart[k + 1];
            const std::uint32_t count = end - begin;
            const auto start = static_cast<std::uint32_t>(flat.records.size());
            const std::uint32_t twisted = chunk->twisted[k] ? 1u : 0u;
            flat.strandWords.push_back(start << 6 | twisted << 5 | std::min(count, 31u));
            flat.strandWords.push_back(floatBits(chunk->nearest2[k]));
            if (count >= 31) flat.records.push_back(count);
            for (std::uint32_t r = begin; r < end; ++r) {
                if (flat.wide) {
                    flat.records.push_back(chunk->guides[r]);
                    flat.records.push_back(chunk->weights[r]);
                } else {
                    flat.records.push_back(chunk->guides[r] | std::uint32_t{chunk->weights[r]}
                                                                  << 16);
                }
            }
        }
    }
    // Twist floats follow all records, strand by strand in the records' order.
    flat.twistStart = static_cast<std::uint32_t>(flat.records.size());
    for (const auto& chunk : binding.chunks)
        for (const float twist : chunk->twists)
            flat.records.push_back(floatBits(twist));
    return flat;
}

}  // namespace velmorin
