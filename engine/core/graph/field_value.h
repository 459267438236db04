#pragma once
// FieldValue: a value per strand or per point that a param input can receive. The concrete forms
// (noise, remap, maps...) arrive with the field operators; the graph itself makes only constants.

#include <cstdint>
#include <memory>
#include <string>

#include "base/vec3.h"
#include "strands/strand_root.h"

namespace velmorin {

class StrandSet;
class ScalpMesh;
struct FieldScene;

// Where a value is asked for before strands exist: a root on the scalp and its position there.
struct FieldLocation {
    StrandRoot root;
    Vec3f position;
};

// Fields are immutable once shared. Sampling (atStrand, atPoint, the colour forms, atLocation,
// atPosition) never throws and never allocates, and may run on any number of threads; what a
// field needs to be sampled quickly is made once by prepare.
class FieldValue {
  public:
    virtual ~FieldValue() = default;
    virtual float atStrand(std::size_t strand) const = 0;
    virtual float atPoint(std::size_t strand, std::size_t point) const = 0;
    virtual Vec3f vectorAt(std::size_t strand) const { return {atStrand(strand), 0, 0}; }
    virtual bool varies() const = 0;
    // A copy bound to the strands it will be sampled on (null: before strands exist) and to the
    // groom's scalp and maps, or null when this field samples as it is. The strands must outlive
    // the copy. Throws GraphError, naming the param or node, when what it reads is missing.
    virtual std::shared_ptr<const FieldValue> prepare(const StrandSet* /*strands*/,
                                                      const FieldScene& /*scene*/) const {
        return nullptr;
    }
    // A hash of the content, for keys and caches.
    virtual std::uint64_t key() const = 0;
    // What it reads, in words ("texture 'a.png'"), or empty when it reads nothing of the groom.
    virtual std::string reads() const { return {}; }
    // The value at a root on the scalp, for operators that have no strands yet.
    virtual float atLocation(const FieldLocation& /*location*/) const { return atStrand(0); }
    // The value at a position in space.
    virtual float atPosition(const Vec3f& /*position*/) const { return atStrand(0); }
    virtual std::string describe() const = 0;
    virtual bool isColor() const { return false; }
    virtual Vec3f colorAtStrand(std::size_t strand) const { return vectorAt(strand); }
    virtual Vec3f colorAtPoint(std::size_t strand, std::size_t /*point*/) const {
        return colorAtStrand(strand);
    }
    // True when the value changes with time (an expression of the frame, a keyed value).
    virtual bool dependsOnTime() const { return false; }
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
