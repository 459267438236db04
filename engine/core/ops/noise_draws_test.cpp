#include "ops/noise_draws.h"

#include <gtest/gtest.h>

#include <vector>

#include "base/hash.h"

namespace velmorin {
namespace {

// The draws of many strands at once are each strand's own draws, bit for bit: ids at the ends of
// the range and hashed ones, counts that leave a remainder past the lanes, every strand and a
// listed few, several seeds. StrandDraws pins the order: the pick, then base x, y and z.
TEST(NoiseDraws, ManyAtOnceAreEachStrandsOwn) {
    std::vector<std::uint64_t> ids = {0, 1, ~std::uint64_t{0}, std::uint64_t{1} << 63, 12345};
    for (std::uint64_t k = 0; k < 200; ++k)
        ids.push_back(hashCombine(k, 77));
    const std::vector<std::uint64_t> listed = {204, 3, 3, 0, 150, 2, 17, 99, 100, 101, 1};
    const StrandSelection selections[] = {StrandSelection::every(), StrandSelection::only(listed)};
    for (const std::uint64_t seed : {std::uint64_t{0}, std::uint64_t{9}, ~std::uint64_t{0}})
        for (const StrandSelection& selection : selections)
            for (const std::size_t first : {std::size_t{0}, std::size_t{1}}) {
                const std::size_t count = selection.size(ids.size()) - first;
                std::vector<NoiseDraws> got(count);
                noiseDrawsOf(ids, selection, first, seed, got);
                for (std::size_t i = 0; i < count; ++i) {
                    const std::uint64_t id = ids[selection.strand(first + i)];
                    StrandDraws draws(id, seed);
                    const float want[4] = {draws.next(), draws.next() * kNoiseBaseSpread,
                                           draws.next() * kNoiseBaseSpread,
                                           draws.next() * kNoiseBaseSpread};
                    const float have[4] = {got[i].pick, got[i].base.x, got[i].base.y,
                                           got[i].base.z};
                    for (int d = 0; d < 4; ++d)
                        ASSERT_EQ(floatBits(have[d]), floatBits(want[d]))
                            << "id " << id << ", seed " << seed << ", draw " << d;
                }
            }
}

}  // namespace
}  // namespace velmorin
