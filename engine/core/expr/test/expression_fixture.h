#pragma once
// A small groom for the expression tests, the fuzz target and the benchmarks: two strands with
// known shapes, channels, roots and a map, so that every variable has a value one can work out by
// hand.

#include <array>
#include <memory>
#include <span>
#include <string_view>

#include "expr/binding.h"
#include "expr/environment.h"
#include "expr/expression.h"
#include "strands/strand_set.h"

namespace velmorin::test {

// A map of one color everywhere.
class FlatMap : public ExpressionMapSource {
  public:
    explicit FlatMap(std::array<float, 4> rgba) : rgba_(rgba) {}
    void sampleRoots(const StrandSet& strands, std::span<float> rgba) const override {
        for (std::size_t s = 0; s < strands.strandCount(); ++s)
            for (std::size_t c = 0; c < 4; ++c)
                rgba[4 * s + c] = rgba_[c];
    }

  private:
    std::array<float, 4> rgba_;
};

// Strand 0: id 42 on face 3, straight up from the origin, points at y = 0, 1, 2 (length 2).
// Strand 1: id 7, unbound, from (1, 0, 0) to (1, 0, 3) (length 3). Channels: "mass" per strand
// (0.5, 2) and "curl" per point (0.1, 0.25, 0.4, 0.6, 0.8).
inline StrandSet fixtureStrands() {
    StrandSet set;
    const Vec3f first[] = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}};
    const Vec3f second[] = {{1, 0, 0}, {1, 0, 3}};
    set.addStrand(42, {3, 0.2f, 0.3f}, first);
    set.addStrand(7, {-1, 0.0f, 0.0f}, second);
    std::vector<float>& mass = set.addStrandChannel("mass", 0.0f);
    mass = {0.5f, 2.0f};
    std::vector<float>& curl = set.addPointChannel("curl", 0.0f);
    curl = {0.1f, 0.25f, 0.4f, 0.6f, 0.8f};
    return set;
}

// Root data of the fixture: uvs (0.25, 0.75) and (0.5, 0.5), normals +Y, rest roots one unit
// below the roots.
struct FixtureRoots {
    std::array<float, 4> uvs{0.25f, 0.75f, 0.5f, 0.5f};
    std::array<Vec3f, 2> normals{Vec3f{0, 1, 0}, Vec3f{0, 1, 0}};
    std::array<Vec3f, 2> rest{Vec3f{0, -1, 0}, Vec3f{1, -1, 0}};
    ExpressionRoots roots() const { return {uvs, normals, rest}; }
};

// Frame 12, time 0.5, the variables amount 0.5 and center [0, 1, 0], and the maps "density"
// (rgba 0.5, 0.25, 1, 0.75) and "broken" (whose resolving fails).
inline ExpressionEnvironment fixtureEnvironment() {
    ExpressionEnvironment env;
    env.frame = 12.0;
    env.time = 0.5;
    env.variables = readExpressionVariables(R"({"amount": 0.5, "center": [0, 1, 0]})");
    env.resolveMap = [](std::string_view name) -> std::shared_ptr<const ExpressionMapSource> {
        if (name == "density")
            return std::make_shared<FlatMap>(std::array<float, 4>{0.5f, 0.25f, 1.0f, 0.75f});
        if (name == "broken")
            throw ExpressionError("map(\"broken\"): the texture map has no image file yet");
        return nullptr;
    };
    return env;
}

}  // namespace velmorin::test
