#pragma once
// Recycling of large column arrays. An animated groom, or a slider dragged over a graph, makes
// arrays of the same large sizes on every evaluation; keeping the released ones of each element
// type, up to a budget of bytes, saves the allocator's page faults and the kernel's zeroing of
// fresh memory on every run. One evaluation lets go of several large arrays (each node's last
// points, widths, channels) before it asks for new ones, so a pool of only a slot or two would hand
// most of them back to the system.

#include "base/vec3.h"
#include "strands/strand_root.h"

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace velmorin {

// A column's array, shared between the strand sets that hold the column.
template <class T>
using ArrayPtr = std::shared_ptr<std::vector<T>>;

// Arrays of at least this many bytes are kept by the pool when their last holder lets go.
inline constexpr std::size_t kPooledArrayBytes = 0x400000;  // 4 MiB

constexpr bool isPooledArraySize(std::size_t bytes) {
    return bytes >= kPooledArrayBytes;
}

// The bytes each element type's pool keeps at most, counting each kept array's whole allocation:
// room for the points of a million strands of 17 points five times over, which is what one
// evaluation of the default graph lets go of.
inline constexpr std::size_t kDefaultPoolBudgetBytes = std::size_t{1} << 30;  // 1 GiB

// A kept array is handed out for a shorter request when the request uses at least this share of
// it (7/8): the rest stays allocated but unused until the array comes back.
constexpr bool fitsPooledArray(std::size_t keptElements, std::size_t requestedElements) {
    return requestedElements <= keptElements &&
           keptElements - requestedElements <= keptElements / 8;
}

template <class T>
concept PooledElement = std::same_as<T, float> || std::same_as<T, std::uint64_t> ||
    std::same_as<T, Vec3f> || std::same_as<T, StrandRoot>;

// One pool per element type, a process-wide singleton made on first use and freed when the library
// unloads. All members are safe to call from any thread; the pool's own lock is the only lock they
// take, and requests for small arrays take none.
template <PooledElement T>
class ArrayPool {
  public:
    static ArrayPool& instance();

    ArrayPool(const ArrayPool&) = delete;
    ArrayPool& operator=(const ArrayPool&) = delete;

    // A new shared array of `length` elements whose contents are unspecified: the caller writes
    // every element. A large request reuses a pooled array that fits it (fitsPooledArray).
    ArrayPtr<T> makeForOverwrite(std::size_t length);
    // A new shared array holding `length` copies of `value`.
    ArrayPtr<T> makeFilled(std::size_t length, const T& value);
    // A new shared array holding a copy of `values`.
    ArrayPtr<T> makeCopy(std::span<const T> values);
    // Shares `values` as an array that comes back to this pool when its last holder lets go.
    ArrayPtr<T> adopt(std::vector<T>&& values);

    // Removes a pooled array that fits `length` elements and returns it holding `length`
    // elements, or nothing: the most recently released one of exactly that length, else the
    // smallest that fits (fitsPooledArray, by its allocation). Requests under the pooled size
    // are never served from the pool and return nothing without taking the lock.
    std::optional<std::vector<T>> take(std::size_t length);
    // Keeps `array` if it is large, then frees the oldest pooled arrays while the pool holds more
    // than its budget (the new one too, if it alone is over); otherwise frees it. Never
    // allocates: it runs inside the deleter of shared arrays.
    void release(std::vector<T>&& array);

    // The lengths of the pooled arrays, oldest first.
    std::vector<std::size_t> pooledLengths() const;
    // The bytes the pooled arrays hold (their whole allocations).
    std::size_t pooledBytes() const;
    // The most bytes the pool keeps; kDefaultPoolBudgetBytes until set. Lowering it frees the
    // oldest arrays until the pool fits.
    std::size_t budget() const;
    void setBudget(std::size_t bytes);
    // Frees every pooled array.
    void trim();

  private:
    ArrayPool();
    ~ArrayPool();

    // Frees the oldest arrays, moving them into `freed` (emptied by the caller after the lock
    // is let go), while the pool is over its budget. Called under the lock.
    void fitBudget(std::vector<std::vector<T>>& freed);

    mutable std::mutex lock_;
    std::vector<std::vector<T>> released_;  // oldest first
    std::size_t bytes_ = 0;                 // held by released_, by allocation
    std::size_t budget_ = kDefaultPoolBudgetBytes;
};

extern template class ArrayPool<float>;
extern template class ArrayPool<std::uint64_t>;
extern template class ArrayPool<Vec3f>;
extern template class ArrayPool<StrandRoot>;

}  // namespace velmorin
