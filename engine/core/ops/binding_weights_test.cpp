#include "ops/binding_weights.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "base/hash.h"
#include "base/parallel.h"

namespace velmorin {
namespace {

using binding_weights::kMaxCandidates;
using binding_weights::kPaddedCandidates;
using binding_weights::Lanes;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

std::uint64_t bitsOf(double x) {
    std::uint64_t b;
    std::memcpy(&b, &x, sizeof b);
    return b;
}

// One strand's candidates: squared distances ascending (ties allowed) and a reach per guide.
struct Candidates {
    std::string name;
    std::vector<float> d2;
    std::vector<float> reach;  // by guide; guides are 0..n-1 in candidate order, or empty
    float single = 0.0f;       // the one radius where `reach` is empty
    float power = 2.0f;
};

// The awkward cases: guides on the strand and on one another, reaches ending exactly at the
// strand, endless and not-a-number reaches, nothing in reach, odd and full candidate counts,
// powers other than 2, and the edge fill's single radius.
std::vector<Candidates> awkwardCases() {
    std::vector<Candidates> cases = {
        {"on a guide", {0.0f, 1.0f, 4.0f}, {2.0f, 3.0f, 3.0f}},
        {"twins on the strand", {0.0f, 0.0f, 0.0f, 1e-14f, 2.0f}, {1.0f, 1.0f, 0.0f, 5.0f, 5.0f}},
        {"reach ends at the strand", {4.0f, 9.0f, 16.0f, 25.0f}, {2.0f, 3.0f, 4.0f, 5.0f}},
        {"endless reaches", {1.0f, 2.0f, 3.0f, 5.0f, 7.0f}, {kInf, kInf, 2.0f, kInf, 1.0f}},
        {"reach not a number", {1.0f, 2.0f, 3.0f}, {kNaN, 3.0f, 0.5f}},
        {"nothing in reach", {4.0f, 9.0f, 16.0f, 25.0f, 36.0f, 49.0f}, {1, 1, 1, 1, 1, 1}},
        {"barely in reach",
         {1.0f, 1.0f, 1.21f, 1.44f, 1.69f, 1.96f, 2.25f},
         {1.05f, 1.05f, 1.2f, 1.3f, 1.4f, 1.5f, 1.6f}},
        {"one candidate", {2.0f}, {3.0f}},
        {"power 6", {0.5f, 0.6f, 0.7f, 0.8f, 0.9f}, {2.0f, 2.0f, 2.0f, 2.0f, 2.0f}, 0.0f, 6.0f},
        {"power 1", {0.5f, 0.6f, 0.7f}, {2.0f, 1.0f, 2.0f}, 0.0f, 1.0f},
        {"single radius", {1.0f, 2.0f, 3.0f}, {}, 2.0f},
        {"single radius endless", {1.0f, 2.0f, 3.0f, 4.0f, 5.0f}, {}, kInf},
        {"single radius at the strand", {1.0f, 4.0f}, {}, 2.0f},
    };
    // Many candidates at random, up to the most a strand weighs, some with ties.
    for (int c = 0; c < 64; ++c) {
        Candidates random;
        random.name = "random " + std::to_string(c);
        const int n = 1 + static_cast<int>(mix64(c) % kMaxCandidates);
        float d2 = 0.0f;
        for (int i = 0; i < n; ++i) {
            if (unitFloat(hashCombine(c, 3 * i)) > 0.2f) d2 += unitFloat(hashCombine(c, 3 * i + 1));
            random.d2.push_back(d2);
            const float r = 4.0f * unitFloat(hashCombine(c, 3 * i + 2));
            random.reach.push_back(r > 3.9f ? kInf : r);
        }
        random.power = c % 3 == 0 ? 2.0f : 1.0f + unitFloat(mix64(c + 1000)) * 5.0f;
        if (c % 5 == 0) {
            random.reach.clear();
            random.single = c % 10 == 0 ? kInf : std::sqrt(d2) * 0.7f;
        }
        cases.push_back(std::move(random));
    }
    return cases;
}

// Compares each lane width against the plain path on every case; returns the first difference.
std::string firstDifference(const Candidates& c, Lanes lanes) {
    const int n = static_cast<int>(c.d2.size());
    std::vector<std::uint32_t> guides(n);
    std::iota(guides.begin(), guides.end(), 0u);
    const float* reach = c.reach.empty() ? nullptr : c.reach.data();
    double plain[kPaddedCandidates], wide[kPaddedCandidates];
    double plainEdge = -1.0, wideEdge = -1.0;
    const double plainSum = binding_weights::shepard(Lanes::plain, n, c.d2.data(), guides.data(),
                                                     reach, c.single, c.power, plain, &plainEdge);
    // Stale weights past the candidates must not count.
    std::fill(std::begin(wide), std::end(wide), 12345.0);
    const double wideSum = binding_weights::shepard(lanes, n, c.d2.data(), guides.data(), reach,
                                                    c.single, c.power, wide, &wideEdge);
    for (int i = 0; i < n; ++i)
        if (bitsOf(plain[i]) != bitsOf(wide[i])) return c.name + ": weight " + std::to_string(i);
    if (bitsOf(plainSum) != bitsOf(wideSum)) return c.name + ": sum";
    // The edge fill reads the edge only through min(1, 4 * edge).
    if (bitsOf(std::min(1.0, 4.0 * plainEdge)) != bitsOf(std::min(1.0, 4.0 * wideEdge)))
        return c.name + ": edge";

    std::uint32_t plainUnits[kPaddedCandidates], wideUnits[kPaddedCandidates];
    std::vector<std::uint32_t> plainGuides = guides, wideGuides = guides;
    const double sum = binding_weights::positiveSum(n, plain);
    const int plainKept =
        binding_weights::quantise(Lanes::plain, n, plain, sum, plainGuides.data(), plainUnits);
    std::copy(plain, plain + n, wide);
    const int wideKept =
        binding_weights::quantise(lanes, n, wide, sum, wideGuides.data(), wideUnits);
    if (plainKept != wideKept) return c.name + ": kept";
    std::uint32_t total = 0;
    for (int i = 0; i < plainKept; ++i) {
        if (plainUnits[i] != wideUnits[i] || plainGuides[i] != wideGuides[i])
            return c.name + ": record " + std::to_string(i);
        total += plainUnits[i];
    }
    if (plainKept > 0 && total != binding_weights::kTotalWeight) return c.name + ": total";

    // The records as the binding stores them: the plain units less one, whatever the width.
    std::vector<std::uint32_t> recordGuides = guides;
    recordGuides.resize(kPaddedCandidates, 77u);
    std::uint16_t records[kPaddedCandidates];
    std::copy(plain, plain + n, wide);
    const int recordsKept =
        binding_weights::quantiseRecords(lanes, n, wide, sum, recordGuides.data(), records);
    if (recordsKept != plainKept) return c.name + ": records kept";
    for (int i = 0; i < plainKept; ++i)
        if (records[i] != plainUnits[i] - 1 || recordGuides[i] != plainGuides[i])
            return c.name + ": stored record " + std::to_string(i);
    return {};
}

TEST(BindingWeights, EveryLaneWidthGivesThePlainPathsBitsAtOneAndTwoThreads) {
    const std::vector<Candidates> cases = awkwardCases();
    for (const Lanes lanes : {Lanes::two, Lanes::four, Lanes::eight}) {
        // Only the widths this processor runs.
        if (static_cast<int>(lanes) > static_cast<int>(binding_weights::bestLanes())) continue;
        for (const int threads : {1, 2}) {
            std::vector<std::string> found(cases.size());
            runWithThreads(threads, [&] {
                parallelRange(0, cases.size(), 1, [&](std::size_t begin, std::size_t end) {
                    for (std::size_t c = begin; c < end; ++c)
                        found[c] = firstDifference(cases[c], lanes);
                });
            });
            for (const std::string& difference : found)
                EXPECT_EQ(difference, "")
                    << "lanes " << static_cast<int>(lanes) << ", threads " << threads;
        }
    }
}

TEST(BindingWeights, QuantisingMovesUnitsByTheLargestRemainderTiesToTheEarliest) {
    struct Row {
        std::vector<double> weights;
        std::vector<std::uint32_t> units;  // stored records' units, in order
        std::vector<std::uint32_t> guides;
    };
    const Row rows[] = {
        // A third each: 21845.33 rounds down three times; the one unit left goes to the first.
        {{1.0, 1.0, 1.0}, {21846, 21845, 21845}, {0, 1, 2}},
        // 43690.67 and 21845.33 round to a whole total already: nothing moves.
        {{2.0, 1.0}, {43691, 21845}, {0, 1}},
        // Weights not above 0 are dropped, as are weights too small for one unit.
        {{0.0, 1.0, -0.0, 1e-9}, {65536}, {1}},
        // Six sixths, 10922.67 each: all round up, two units too many, taken from the earliest
        // (the first one taken from then has the greatest remainder).
        {{1, 1, 1, 1, 1, 1}, {10922, 10922, 10923, 10923, 10923, 10923}, {0, 1, 2, 3, 4, 5}},
    };
    for (const Row& row : rows) {
        for (const Lanes lanes : {Lanes::plain, Lanes::two, binding_weights::bestLanes()}) {
            const int n = static_cast<int>(row.weights.size());
            double weights[kPaddedCandidates] = {};
            std::copy(row.weights.begin(), row.weights.end(), weights);
            std::uint32_t guides[kPaddedCandidates], units[kPaddedCandidates];
            std::iota(guides, guides + n, 0u);
            const double sum = binding_weights::positiveSum(n, weights);
            const int kept = binding_weights::quantise(lanes, n, weights, sum, guides, units);
            EXPECT_EQ(std::vector<std::uint32_t>(units, units + kept), row.units);
            EXPECT_EQ(std::vector<std::uint32_t>(guides, guides + kept), row.guides);
            // Stored as units less one, by the same moves.
            std::uint16_t records[kPaddedCandidates];
            std::iota(guides, guides + n, 0u);
            const int stored =
                binding_weights::quantiseRecords(lanes, n, weights, sum, guides, records);
            std::vector<std::uint32_t> storedUnits(records, records + stored);
            for (std::uint32_t& unit : storedUnits)
                ++unit;
            EXPECT_EQ(storedUnits, row.units);
            EXPECT_EQ(std::vector<std::uint32_t>(guides, guides + stored), row.guides);
        }
    }
    // A sum of nothing, or not a number, binds nothing.
    double weights[kPaddedCandidates] = {0.0, 0.0};
    std::uint32_t guides[kPaddedCandidates] = {0, 1}, units[kPaddedCandidates];
    EXPECT_EQ(binding_weights::quantise(Lanes::plain, 2, weights, 0.0, guides, units), 0);
    EXPECT_EQ(binding_weights::quantise(binding_weights::bestLanes(), 2, weights,
                                        std::numeric_limits<double>::infinity(), guides, units),
              0);
    std::uint16_t records[kPaddedCandidates];
    for (const double sum : {0.0, std::numeric_limits<double>::infinity()})
        EXPECT_EQ(binding_weights::quantiseRecords(binding_weights::bestLanes(), 2, weights, sum,
                                                   guides, records),
                  0);
}

}  // namespace
}  // namespace velmorin
