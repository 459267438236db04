#include "session/follow_carry.h"

#include "base/hash.h"
#include "base/parallel.h"
#include "strands/strand_set.h"

namespace velmorin {

namespace {

constexpr std::size_t kCarryGrain = 256;
constexpr std::size_t kKeptCarries = 4;  // outputs of one evaluation carried and kept

// Moves points from the frame at `root` on `from` to the frame at the same root on `to`.
void carryPoints(const ScalpMesh& from, const ScalpMesh& to, const StrandRoot& root,
                 std::span<Vec3f> points) {
    if (!from.isOnSurface(root) || !to.isOnSurface(root)) return;
    const SurfaceFrame a = from.frameAt(root);
    const SurfaceFrame b = to.frameAt(root);
    for (Vec3f& p : points)
        p = b.toWorld(a.toLocal(p));
}

}  // namespace

void FollowCarry::prepare(std::shared_ptr<const ScalpMesh> rest,
                          std::shared_ptr<const ScalpMesh> current) {
    rest_ = std::move(rest);
    current_ = std::move(current);
    active_ = rest_ && current_ && rest_ != current_ &&
              rest_->pointCount() == current_->pointCount() &&
              rest_->topologySignature() == current_->topologySignature() &&
              rest_->contentSignature() != current_->contentSignature();
    const std::uint64_t key =
        active_ ? hashCombine(rest_->contentSignature(), current_->contentSignature()) : 0;
    if (key != key_) carried_.clear();
    key_ = key;
}

Value FollowCarry::carry(const Value& value) {
    if (!active_ || value.empty()) return value;
    for (const Carried& kept : carried_)
        if (kept.from == value && kept.key == key_) return kept.to;
    Value out;
    if (const auto strands = value.get<StrandSet>()) {
        auto moved = std::make_shared<StrandSet>(*strands);
        const std::span<const Vec3f> in = strands->points();
        std::vector<Vec3f>& points = moved->overwritePoints();
        const std::span<const StrandRoot> roots = strands->roots();
        const ScalpMesh& rest = *rest_;
        const ScalpMesh& current = *current_;
        parallelRange(
            0, strands->strandCount(), kCarryGrain, [&](std::size_t begin, std::size_t end) {
                for (std::size_t s = begin; s < end; ++s) {
                    const StrandSet::PointRange range = strands->pointRange(s);
                    const std::span<Vec3f> strand(points.data() + range.begin, range.count);
                    std::copy_n(in.begin() + range.begin, range.count, strand.begin());
                    carryPoints(rest, current, roots[s], strand);
                }
            });
        out = std::shared_ptr<const StrandSet>(std::move(moved));
    } else if (const auto guides = value.get<GuideSet>()) {
        auto moved = std::make_shared<GuideSet>(*guides);
        parallelRange(0, moved->guides.size(), kCarryGrain,
                      [&](std::size_t begin, std::size_t end) {
                          for (std::size_t g = begin; g < end; ++g) {
                              Guide& guide = moved->guides[g];
                              carryPoints(*rest_, *current_, guide.root, guide.points);
                          }
                      });
        out = std::shared_ptr<const GuideSet>(std::move(moved));
    } else {
        return value;
    }
    if (carried_.size() >= kKeptCarries) carried_.erase(carried_.begin());
    carried_.push_back({value, out, key_});
    return out;
}

void FollowCarry::uncarry(std::vector<Guide>& guides) const {
    if (!active_) return;
    for (Guide& guide : guides)
        carryPoints(*current_, *rest_, guide.root, guide.points);
}

}  // namespace velmorin
