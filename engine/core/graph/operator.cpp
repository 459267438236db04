#include "graph/operator.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace velmorin {
namespace {

// Types whose result is not a point-wise change of the strands that came in: they add, remove,
// resample or route strands, so mixing their result with their input by `affect` means nothing.
constexpr std::array<std::string_view, 16> kNoAffect = {
    "Output",     "Resample", "Cull",   "Merge", "Switch",      "Blend",    "Mirror", "Cards",
    "StrandMesh", "Instance", "Scales", "Split", "Interpolate", "Compound", "Input",  "Group"};

ParamSpec affectSpec() {
    ParamSpec spec;
    spec.name = "affect";
    spec.defaultValue = 1.0;
    spec.description =
        "Where the node works, 0-1 per strand (mappable, per point): 1 its whole result, 0 the "
        "strands as they came in, between a mix of the two. Map it to a Group node's group (an "
        "attribute map of the group's name), a painted map or an expression. IDs (clumpId...) "
        "switch at 0.5. A node that adds, removes or resamples strands leaves it alone";
    spec.unit = "fraction";
    spec.animatable = true;
    spec.min = 0.0;
    spec.max = 1.0;
    spec.group = "Common";
    return spec;
}

}  // namespace

Operator::~Operator() = default;

PortSpec Operator::output() const {
    return PortSpec{};
}

std::vector<PortSpec> Operator::outputs() const {
    return {output()};
}

std::vector<Value> Operator::evaluateAll(const EvalContext& ctx,
                                         const std::vector<Value>& inputs) const {
    return {evaluate(ctx, inputs)};
}

bool Operator::evaluateIncremental(const EvalContext&, const std::vector<Value>&,
                                   const IncrementalInputs&, Value*, StrandChanges*) const {
    return false;
}

bool Operator::evaluateIncrementalAll(const EvalContext&, const std::vector<Value>&,
                                      const IncrementalInputs&, std::vector<Value>*,
                                      std::vector<StrandChanges>*) const {
    return false;
}

void Operator::copyStateFrom(const Operator&) {}

void Operator::outputReplaced(const Value&, const Value&) const {}

std::vector<ParamSpec> Operator::params() const {
    return {};
}

std::vector<ParamSpec> Operator::instanceParams() const {
    return {};
}

std::vector<std::string> Operator::sceneInputs() const {
    return {};
}

std::uint64_t Operator::sceneInputKey(const std::string&, const SceneInput& input) const {
    return input.key;
}

std::uint64_t Operator::contentKey() const {
    return 0;
}

std::uint64_t Operator::contextKey(const EvalContext&, std::uint32_t, const EvalContext&) const {
    return 0;
}

bool Operator::alwaysFresh() const {
    return false;
}

bool Operator::noteFullRunChanges(StrandChanges&) const {
    return false;
}

std::string Operator::evaluationNote(const EvalContext&) const {
    return {};
}

bool Operator::refinesInView() const {
    return false;
}

bool Operator::inputActive(std::size_t) const {
    return true;
}

bool Operator::activeThrough(std::size_t, const UpstreamVisitor&) const {
    return true;
}

std::vector<ChannelUse> Operator::fixedChannels() const {
    std::vector<ChannelUse> channels;
    for (const ParamSpec& spec : schemaParams(*this)) {
        // Names that begin with an underscore are the system's own marks, not channels to list.
        if (spec.channel != ChannelRole::Writes || spec.name.starts_with('_')) continue;
        // The channel's name is the param's current text. Read without the read log: asking
        // which channels a node writes is not a read of its run.
        const std::string* channel = nullptr;
        if (const auto set = paramSet.values.find(spec.name); set != paramSet.values.end()) {
            channel = std::get_if<std::string>(&set->second);
        } else {
            channel = std::get_if<std::string>(&spec.defaultValue);
        }
        if (!channel || channel->empty()) continue;
        if (std::any_of(channels.begin(), channels.end(),
                        [&](const ChannelUse& use) { return use.name == *channel; })) {
            continue;
        }
        channels.push_back({*channel, ChannelRole::Writes, spec.channelOptional});
    }
    return channels;
}

bool Operator::carriesInput(std::size_t index) const {
    return index == 0;
}

int Operator::version() const {
    return 1;
}

void Operator::declareParams() {
    paramSet.declare(schemaParams(*this));
}

std::vector<ParamSpec> schemaParams(const Operator& op) {
    std::vector<ParamSpec> all = op.params();
    std::vector<ParamSpec> instance = op.instanceParams();
    all.insert(all.end(), std::make_move_iterator(instance.begin()),
               std::make_move_iterator(instance.end()));
    if (affectApplies(op)) all.push_back(affectSpec());

    // Later duplicates are dropped by name; the lists are short, so a scan is enough.
    std::vector<ParamSpec> unique;
    unique.reserve(all.size());
    for (ParamSpec& spec : all) {
        const bool seen = std::any_of(unique.begin(), unique.end(), [&](const ParamSpec& kept) {
            return kept.name == spec.name;
        });
        if (!seen) unique.push_back(std::move(spec));
    }
    return unique;
}

bool affectApplies(const Operator& op) {
    const std::string type = op.type();
    if (std::find(kNoAffect.begin(), kNoAffect.end(), type) != kNoAffect.end()) return false;
    const std::vector<PortSpec> inputs = op.inputs();
    const bool takesCurves = std::any_of(inputs.begin(), inputs.end(), [](const PortSpec& port) {
        return port.type == PortType::Strands || port.type == PortType::Curves;
    });
    // The mix needs the result and the input to be the same kind of thing.
    return takesCurves && op.output().type == inputs.front().type;
}

}  // namespace velmorin
