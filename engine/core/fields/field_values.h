#pragma once
// The fields that field nodes make: smooth noise over the scalp, a field reshaped through a curve,
// and two fields combined.

#include <memory>
#include <vector>

#include "graph/field_value.h"
#include "graph/ramp.h"

namespace velmorin {

// Lattice noise at the roots: the sample point is the root's position times `frequency`, plus
// `offset` on every axis; `octaves` layers, 0 to 1 before the output range.
struct NoiseSettings {
    float frequency = 2.0f;
    int octaves = 1;
    float offset = 0.0f;
    std::int64_t seed = 0;
    float min = 0.0f;
    float max = 1.0f;
};

class NoiseFieldValue final : public FieldValue {
  public:
    explicit NoiseFieldValue(const NoiseSettings& settings) : settings_(settings) {}
    float atStrand(std::size_t strand) const override;
    float atPoint(std::size_t strand, std::size_t) const override { return atStrand(strand); }
    bool varies() const override { return true; }
    std::shared_ptr<const FieldValue> prepare(const StrandSet* strands,
                                              const FieldScene& scene) const override;
    std::uint64_t key() const override;
    std::string reads() const override { return "root positions"; }
    float atLocation(const FieldLocation& location) const override {
        return atPosition(location.position);
    }
    float atPosition(const Vec3f& position) const override;
    std::string describe() const override;

  private:
    NoiseSettings settings_;
    std::vector<float> values_;  // per strand, once bound
};

// The input's value x as t = (x - inMin) / (inMax - inMin) held to 0..1, through the curve, then
// the output range.
struct RemapSettings {
    float inMin = 0.0f;
    float inMax = 1.0f;
    Ramp curve;
    float outMin = 0.0f;
    float outMax = 1.0f;
};

class RemapFieldValue final : public FieldValue {
  public:
    RemapFieldValue(std::shared_ptr<const FieldValue> input, RemapSettings settings)
        : input_(std::move(input)), settings_(std::move(settings)) {}
    float atStrand(std::size_t strand) const override { return remap(input_->atStrand(strand)); }
    float atPoint(std::size_t strand, std::size_t point) const override {
        return remap(input_->atPoint(strand, point));
    }
    bool varies() const override { return input_->varies(); }
    std::shared_ptr<const FieldValue> prepare(const StrandSet* strands,
                                              const FieldScene& scene) const override;
    std::uint64_t key() const override;
    std::string reads() const override { return input_->reads(); }
    float atLocation(const FieldLocation& location) const override {
        return remap(input_->atLocation(location));
    }
    float atPosition(const Vec3f& position) const override {
        return remap(input_->atPosition(position));
    }
    std::string describe() const override { return "remapped " + input_->describe(); }
    bool dependsOnTime() const override { return input_->dependsOnTime(); }
    float remap(float x) const;

  private:
    std::shared_ptr<const FieldValue> input_;
    RemapSettings settings_;
};

enum class CombineMode : std::uint8_t { Multiply, Add, Subtract, Min, Max, Mix };

class CombineFieldValue final : public FieldValue {
  public:
    CombineFieldValue(std::shared_ptr<const FieldValue> a, std::shared_ptr<const FieldValue> b,
                      CombineMode mode, float mix)
        : a_(std::move(a)), b_(std::move(b)), mode_(mode), mix_(mix) {}
    float atStrand(std::size_t strand) const override {
        return combine(a_->atStrand(strand), b_->atStrand(strand));
    }
    float atPoint(std::size_t strand, std::size_t point) const override {
        return combine(a_->atPoint(strand, point), b_->atPoint(strand, point));
    }
    bool varies() const override { return a_->varies() || b_->varies(); }
    std::shared_ptr<const FieldValue> prepare(const StrandSet* strands,
                                              const FieldScene& scene) const override;
    std::uint64_t key() const override;
    std::string reads() const override;
    float atLocation(const FieldLocation& location) const override {
        return combine(a_->atLocation(location), b_->atLocation(location));
    }
    float atPosition(const Vec3f& position) const override {
        return combine(a_->atPosition(position), b_->atPosition(position));
    }
    std::string describe() const override;
    bool dependsOnTime() const override { return a_->dependsOnTime() || b_->dependsOnTime(); }
    float combine(float a, float b) const;

  private:
    std::shared_ptr<const FieldValue> a_, b_;
    CombineMode mode_;
    float mix_;
};

// The field prepared for `strands` (null: before strands), or the field itself where it needs
// no preparing.
std::shared_ptr<const FieldValue> preparedField(const std::shared_ptr<const FieldValue>& field,
                                                const StrandSet* strands, const FieldScene& scene);

}  // namespace velmorin
