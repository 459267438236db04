#include <mutex>

#include "fields/field_scene.h"
#include "graph/errors.h"
#include "graph/registry.h"
#include "ops/clump.h"
#include "strands/channel_names.h"

namespace velmorin {
namespace {

// Wet hair: a chain of Clump levels, smallest first, each half the size of the one after it.
class WetOp final : public Operator {
  public:
    std::string type() const override { return "Wet"; }
    std::string category() const override { return "look"; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    // What its Clump levels read: the scalp's area and normals.
    std::vector<std::string> sceneInputs() const override { return {std::string(kScalpInput)}; }

    std::vector<ParamSpec> params() const override {
        ParamSpec wetness = fractionParam(
            "wetness", 0.7,
            "How wet the hair is, 0-1: small clumps near the root merging into bigger ones toward "
            "the tip, forming closer to the root and tighter the wetter it is. 0: dry, the strands "
            "as they came (animate it from 1 to 0 to dry the hair out)");
        ParamSpec clumpSize = shapeParam(
            "clumpSize", 1.5,
            "The biggest clumps' size (at the tips): about how far apart their centers are, as "
            "Clump's size; each smaller level is half the one above");
        clumpSize.min = 0.0;
        clumpSize.softMax = 6.0;
        clumpSize.unit = "length";
        ParamSpec levels = shapeParam(
            "levels", std::int64_t{3},
            "How many sizes of clump nest inside one another, each half the size of the one "
            "above, the smallest forming nearest the root");
        levels.min = 1.0;
        levels.max = 8.0;
        levels.softMax = 5.0;
        levels.animatable = false;
        ParamSpec randomness = shapeParam(
            "randomness", 0.3,
            "How random the clumps' centers are: 0 evenly spread, 1 at random (some side by "
            "side), up to 2. As Clump's");
        randomness.min = 0.0;
        randomness.max = 2.0;
        ParamSpec channel = shapeParam(
            "clumpChannel", std::string(channels::kClumpId),
            "Per-strand channel receiving the biggest clumps' numbers (what a Cards, Twist or "
            "HairColor's clumpShare after it follows); each smaller level writes it with the "
            "level's halvings after it (clumpId1, clumpId2...). Empty: none");
        channel.channel = ChannelRole::Writes;
        channel.channelOptional = true;
        channel.animatable = false;
        ParamSpec seed = seedParam();
        seed.description = "Random seed for the clumps' centers";
        return {wetness, clumpSize, levels, randomness, channel, seed};
    }

    void copyStateFrom(const Operator& other) override {
        const auto* source = dynamic_cast<const WetOp*>(&other);
        if (!source) return;
        std::scoped_lock lock(mutex_, source->mutex_);
        chain_.clear();
        for (const auto& level : source->chain_) {
            chain_.push_back(makeClumpOperator());
            chain_.back()->copyStateFrom(*level);
        }
    }

    Value evaluate(const EvalContext& ctx, const std::vector<Value>& inputs) const override {
        const auto input = inputs.empty() ? nullptr : inputs[0].get<StrandSet>();
        const float wetness = static_cast<float>(paramSet.getFloat("wetness", 0.7));
        if (!input || input->strandCount() == 0 || !(wetness > 0.0f))
            return inputs.empty() ? Value() : inputs[0];
        const int count = static_cast<int>(std::max<std::int64_t>(1, paramSet.getInt("levels", 3)));
        const std::vector<WetLevel> levels =
            wetLevels(wetness, static_cast<float>(paramSet.getFloat("clumpSize", 1.5)), count,
                      paramSet.getInt("seed", 0));
        const double randomness = paramSet.getFloat("randomness", 0.3);
        const std::string channel =
            paramSet.getString("clumpChannel", std::string(channels::kClumpId));

        // The levels run without the node's delivered params, which are Wet's, not theirs.
        EvalContext levelCtx = ctx;
        levelCtx.delivered = nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (chain_.size() != levels.size()) {
            chain_.clear();
            for (std::size_t l = 0; l < levels.size(); ++l)
                chain_.push_back(makeClumpOperator());
        }
        Value current = inputs[0];
        for (std::size_t l = 0; l < levels.size(); ++l) {
            Operator& level = *chain_[l];
            level.paramSet.set("clumpBy", std::string("size"));
            level.paramSet.set("size", static_cast<double>(levels[l].size));
            level.paramSet.set("randomness", randomness);
            level.paramSet.set("pastTip", std::string("extend"));
            level.paramSet.set("regionChannel", std::string(channels::kRegion));
            level.paramSet.set("seed", levels[l].seed);
            level.paramSet.set("strength", static_cast<double>(levels[l].strength));
            level.paramSet.set("profile", levels[l].profile);
            level.paramSet.set("clumpChannel",
                               wetLevelChannel(channel, static_cast<int>(levels.size() - 1 - l)));
            current = level.evaluate(levelCtx, {current});
            if (!current.get<StrandSet>()) throw GraphError("Wet: a level made no strands");
        }
        return current;
    }

  private:
    mutable std::mutex mutex_;
    // The Clump levels, smallest first; remade when the number of levels changes.
    mutable std::vector<std::unique_ptr<Operator>> chain_;
};

}  // namespace

void registerWetOperator(OperatorRegistry& registry) {
    OperatorInfo info;
    info.category = "look";
    info.description =
        "Wet hair: small clumps near the root merging into bigger ones toward the tip, from one "
        "wetness slider.";
    info.keywords = "water damp clumps";
    registry.registerType(
        "Wet", [] { return std::make_unique<WetOp>(); }, info);
}

}  // namespace velmorin
