#pragma once
// Sculpt edits and corrective layers: hand fixes of guides kept as offsets against what the graph
// hands in, so that the groom underneath can still change. A Sculpt node holds one set of offsets
// at full weight; corrective layers are the timed form, each sculpted at a frame and faded in and
// out around it, stacked in list order.
//
// Offsets live in each guide's transport frames (editing/guide_curves.h) taken from the points the
// edit is applied to, so a fix turns with the guide when the groom underneath moves it.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/vec3.h"
#include "strands/guide.h"

namespace velmorin {

// The versions of sculpt data and corrective data that this Velmorin writes and reads.
inline constexpr int kSculptDataVersion = 1;
inline constexpr int kCorrectiveDataVersion = 1;

// Guide id to one offset per guide point, in the guide's frames. Ordered, so that text and hashes
// come out the same every time.
using GuideOffsets = std::map<std::uint64_t, std::vector<Vec3f>>;

// The scene input under which the session hands a sculpt layer to the Sculpt nodes that name it:
// "sculpt:" + layer.
std::string sculptInputName(std::string_view layer);

// The offsets of a plain Sculpt node.
struct SculptEdits {
    GuideOffsets guides;

    bool empty() const { return guides.empty(); }
    std::uint64_t contentHash() const;

    // {"guides":{"<guide id>":[x,y,z,...]},"version":1}. Empty or blank text gives no edits.
    // Throws SchemaError "not an object" for any other shape, "invalid sculpt data: " and the
    // JSON library's words, the shared version messages, and the unsigned conversion's own word
    // for a guide id that is not a whole number.
    static SculptEdits fromJson(std::string_view text);
    std::string toJson() const;

    bool operator==(const SculptEdits&) const = default;
};

// One key of a layer's animated weight: the weight at a frame. Between keys the weight is linear;
// before the first and after the last it holds.
struct WeightKey {
    double frame = 0.0;
    float value = 0.0f;
    bool operator==(const WeightKey&) const = default;
};

struct CorrectiveLayer {
    std::string name;
    double time = 0.0;        // the frame it was sculpted at
    double fadeIn = 0.0;      // frames over which it ramps up before the hold
    double fadeOut = 0.0;     // frames over which it ramps down after the hold
    double holdBefore = 0.0;  // frames at full weight before `time`
    double holdAfter = 0.0;   // frames at full weight after `time`
    float weight = 1.0f;      // the layer's gain
    bool enabled = true;
    std::int32_t slot = -1;              // the host's keyed weight of this layer; -1 none
    std::vector<WeightKey> weightCurve;  // when not empty, the gain at each frame
    GuideOffsets offsets;

    std::uint64_t contentHash() const;
    bool operator==(const CorrectiveLayer&) const = default;
};

// The smoothstep s(x) = (3 - 2x) x^2 with x clamped to 0..1.
double smoothRamp(double x);

// The ramp of a layer at frame f, 0 to 1: 1 from holdBefore frames before `time` to holdAfter
// frames after it, falling to 0 over fadeIn frames before and fadeOut frames after along the
// smoothstep. A zero fade is a step.
double correctiveRamp(const CorrectiveLayer& layer, double frame);

// The gain of a layer at frame f without its ramp: `weightCurve` at f where it has keys, else the
// host's keyed weight for its slot where the host gave one (`hostWeight`), else `weight`.
double correctiveGain(const CorrectiveLayer& layer, double frame,
                      std::optional<double> hostWeight = std::nullopt);

// What the layer weighs on frame f: ramp times gain, 0 when disabled.
double correctiveWeight(const CorrectiveLayer& layer, double frame,
                        std::optional<double> hostWeight = std::nullopt);

// {"layers":[{"name","time","fadeIn","fadeOut","holdBefore","holdAfter","weight","enabled",
// "slot","weightCurve":[[frame, value], ...],"offsets":{"<guide id>":[x,y,z,...]}}, ...],
// "version":1}. Empty or blank text gives no layers. Absent fields take the defaults above. Throws
// SchemaError "invalid corrective data: " and the JSON library's words, "corrective data: not an
// object", "corrective data: ..." for a layer of the wrong shape, the shared version messages, and
// the unsigned conversion's own word for a guide id that is not a whole number.
std::vector<CorrectiveLayer> correctiveLayersFromJson(std::string_view text);
std::string correctiveLayersToJson(const std::vector<CorrectiveLayer>& layers);

// Moves each guide of `guides` that has offsets of its point count by `input + frame * (offset *
// weight)`, its frames taken from its own points as they come in; guides without offsets, or with
// offsets of another point count, pass unchanged. A weight of 0 changes nothing.
void applyGuideOffsets(std::vector<Guide>& guides, const GuideOffsets& offsets, float weight);

// The offsets that turn `input` into `sculpted` at `strength`: inverseFrame * (sculpted - input) /
// strength, per point, in the input's frames. Throws std::invalid_argument "the Sculpt node's
// strength is 0: raise it to sculpt" for a strength at or under 0.001 in absolute value, and "a
// sculpted guide has another point count than its input".
std::vector<Vec3f> sculptOffsets(const Guide& input, const std::vector<Vec3f>& sculpted,
                                 float strength);

}  // namespace velmorin
