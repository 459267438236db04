#pragma once
// FollowCarry: what lets a groom ride a deforming scalp. With Follow Scalp on, the graph grows the
// groom on the rest scalp, where nothing moves from frame to frame and every result is reused,
// and the carry moves what it made onto the scalp of the frame: each strand's and guide's points
// go from its root's surface frame on the rest scalp to the same root's frame on the deformed
// one, so the hair rides the skin rigidly where it grows.

#include <cstdint>
#include <memory>
#include <vector>

#include "base/vec3.h"
#include "graph/value.h"
#include "mesh/scalp_mesh.h"
#include "strands/guide.h"

namespace velmorin {

class StrandSet;

class FollowCarry {
  public:
    // The carry from `rest` to `current`. It carries nothing (active() is false) unless both are
    // there with the same topology and the current one has moved.
    void prepare(std::shared_ptr<const ScalpMesh> rest, std::shared_ptr<const ScalpMesh> current);
    bool active() const { return active_; }
    const std::shared_ptr<const ScalpMesh>& rest() const { return rest_; }
    const std::shared_ptr<const ScalpMesh>& current() const { return current_; }

    // A value carried onto the current scalp: strands and guides move, anything else passes. The
    // last value carried is kept, so asking again for the same value on the same scalp costs
    // nothing. Strands or guides whose root is not on the scalp stay where they are.
    Value carry(const Value& value);
    // Points of guides on the current scalp taken back to the rest scalp: what an edit made on
    // the carried guides means where the graph works.
    void uncarry(std::vector<Guide>& guides) const;

  private:
    std::shared_ptr<const ScalpMesh> rest_;
    std::shared_ptr<const ScalpMesh> current_;
    bool active_ = false;
    std::uint64_t key_ = 0;  // rest and current signatures
    struct Carried {
        Value from;
        Value to;
        std::uint64_t key = 0;
    };
    std::vector<Carried> carried_;  // the last values carried, for reuse
};

}  // namespace velmorin
