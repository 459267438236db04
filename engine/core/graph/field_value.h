#pragma once
// FieldValue: a value per strand or per point that a param input can receive. The concrete forms
// (noise, remap, maps...) arrive with the field operators; the graph itself makes only constants.

#include <cstdint>
#include <memory>
#include <string>

#include "base/vec3.h"

namespace velmorin {

class StrandSet;
class ScalpMesh;

class FieldValue {
  public:
    virtual ~FieldValue() = default;
    virtual float atStrand(std::size_t strand) const = 0;
    virtual float atPoint(std::size_t strand, std::size_t point) const = 0;
    virtual Vec3f vectorAt(std::size_t strand) const { return {atStrand(strand), 0, 0}; }
    virtual bool varies() const = 0;
    // Binds to the strands (and scalp) it will be sampled on; called once before a strand loop.
    virtual void prepare(const StrandSet& /*strands*/, const ScalpMesh* /*scalp*/) {}
    // A hash of the content, for keys and caches.
    virtual std::uint64_t key() const = 0;
    // True when the value changes with time (an expression of the frame, a keyed value).
    virtual bool dependsOnTime() const { return false; }
    virtual std::string describe() const = 0;
    virtual bool isColor() const { return false; }
};

// One number everywhere.
class ConstantFieldValue final : public FieldValue {
  public:
    explicit ConstantFieldValue(float value) : value_(value) {}
    float atStrand(std::size_t) const override { return value_; }
    float atPoint(std::size_t, std::size_t) const override { return value_; }
    bool varies() const override { return false; }
    std::uint64_t key() const override;
    std::string describe() const override;
    float value() const { return value_; }

  private:
    float value_;
};

// One colour everywhere; its number is the luminance.
class ConstantColorField final : public FieldValue {
  public:
    explicit ConstantColorField(Vec3f color) : color_(color) {}
    float atStrand(std::size_t) const override;
    float atPoint(std::size_t, std::size_t) const override { return atStrand(0); }
    Vec3f vectorAt(std::size_t) const override { return color_; }
    bool varies() const override { return false; }
    std::uint64_t key() const override;
    std::string describe() const override;
    bool isColor() const override { return true; }

  private:
    Vec3f color_;
};

}  // namespace velmorin
