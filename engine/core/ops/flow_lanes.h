#pragma once
// Flow's run with its lanes chosen: the operator takes the widest the processor has; tests lay the
// same strands every way and compare the bits.

#include <span>

#include "ops/shape_ops.h"

namespace velmorin {

enum class FlowLanes {
    best,    // sixteen lanes where the processor has AVX-512, else as `wide`
    wide,    // eight lanes where the processor has AVX, else four
    narrow,  // four lanes
    none,    // strands one by one, interleaved
};

// flowStrands with its lanes chosen. Runs of fewer strands than the scalp has triangles are laid
// one by one whatever `lanes` asks.
void flowStrandsIn(FlowLanes lanes, const StrandSet& input, const FlowSettings& settings,
                   const StrandSelection& selection, std::span<Vec3f> out);

}  // namespace velmorin
