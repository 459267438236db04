#pragma once
// What an operator samples a mappable param through: `fieldSampler(paramSet, ctx, name, strands)`
// at the start of a run, then, outside the strand loop, `isMapped()` once. A plain param gives its
// number by value(); a mapped one its values by strand, point or root location. Sampling never
// throws and never allocates, and any number of threads may sample one sampler.
//
//     const FieldSampler length = fieldSampler(paramSet, ctx, "length", strands);
//     if (!length.isMapped()) { const float l = length.value(); ... }
//     else { ... length.atPoint(s, k) ... }

#include <memory>
#include <string_view>

#include "graph/field_value.h"

namespace velmorin {

class ParamSet;
struct EvalContext;

class FieldSampler {
  public:
    explicit FieldSampler(float plain = 0.0f) : plain_(plain) {}
    // A field that varies; a constant one samples as its plain number.
    explicit FieldSampler(std::shared_ptr<const FieldValue> field);

    bool isMapped() const { return field_ != nullptr; }
    float value() const { return plain_; }
    float at(const FieldLocation& location) const {
        return field_ ? field_->atLocation(location) : plain_;
    }
    float atStrand(std::size_t strand) const { return field_ ? field_->atStrand(strand) : plain_; }
    float atPoint(std::size_t strand, std::size_t point) const {
        return field_ ? field_->atPoint(strand, point) : plain_;
    }
    // A vector param's value: its mapped vector, or the plain vector.
    Vec3f vectorAtStrand(std::size_t strand) const {
        return field_ ? field_->colorAtStrand(strand) : plainVector_;
    }
    Vec3f vectorAtPoint(std::size_t strand, std::size_t point) const {
        return field_ ? field_->colorAtPoint(strand, point) : plainVector_;
    }
    Vec3f vectorValue() const { return plainVector_; }
    void setPlainVector(Vec3f vector) { plainVector_ = vector; }

    // The prepared field, or null for a plain number.
    const FieldValue* field() const { return field_.get(); }

  private:
    float plain_ = 0.0f;
    Vec3f plainVector_;
    std::shared_ptr<const FieldValue> field_;
};

// The sampler of a mappable param for a run on `strands`: the field its input delivered in this
// run (ctx.delivered), else the map the param holds, resolved against the run's scene (ctx.scene)
// and the strands, else its plain number. Throws GraphError naming the param when a map can't be
// read.
FieldSampler fieldSampler(const ParamSet& params, const EvalContext& ctx, std::string_view name,
                          const StrandSet& strands);
// The same before strands exist, sampled with at(location).
FieldSampler fieldSamplerAtRoots(const ParamSet& params, const EvalContext& ctx,
                                 std::string_view name);

// A colour read at each root of `strands` from a map named `name` (empty: none, an unmapped
// sampler): a map painted in Groom Tools > Paint by name, a colour set of that name on the scalp,
// or an image file at the scalp's UVs, in that order. Throws GraphError in the words of `op` and
// its `param` when none of them can be read.
FieldSampler rootColorMap(std::string_view op, std::string_view param, const std::string& name,
                          const EvalContext& ctx, const StrandSet& strands);

}  // namespace velmorin
