#pragma once
// Recycling of large column arrays. An animated groom makes arrays of the same large size on every
// frame; keeping the last two released ones of each element type saves the allocator's page faults
// and the zeroing of fresh memory on every frame.

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

template <class T>
concept PooledElement = std::same_as<T, float> || std::same_as<T, std::uint64_t> ||
    std::same_as<T, std::uint32_t> || std::same_as<T, Vec3f> || std::same_as<T, StrandRoot>;

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
    // every element. A large request reuses a pooled array of exactly that length.
    ArrayPtr<T> makeForOverwrite(std::size_t length);
    // A new shared array holding `length` copies of `value`.
    ArrayPtr<T> makeFilled(std::size_t length, const T& value);
    // A new shared array holding a copy of `values`.
    ArrayPtr<T> makeCopy(std::span<const T> values);
    // Shares `values` as an array that comes back to this pool when its last holder lets go.
    ArrayPtr<T> adopt(std::vector<T>&& values);
    // A plain array of `length` value-initialised elements, never pooled, for a cache an operator
    // keeps to itself. From a megabyte up its memory is brought in on every thread first, as for
    // the pool's own fresh arrays.
    static std::vector<T> makeVector(std::size_t length);

    // Removes and returns a pooled array of exactly `length` elements (the most recently released
    // one), or nothing. Arrays under the pooled size are never pooled, so asking for one returns
    // nothing without taking the lock.
    std::optional<std::vector<T>> take(std::size_t length);
    // Keeps `array` if it is large, freeing the oldest pooled array when it would be the third;
    // otherwise frees it.
    void release(std::vector<T>&& array);

    // The lengths of the pooled arrays, oldest first.
    std::vector<std::size_t> pooledLengths() const;
    // Frees every pooled array.
    void trim();

  private:
    ArrayPool();
    ~ArrayPool();

    mutable std::mutex lock_;
    std::vector<std::vector<T>> released_;  // oldest first, at most two
};

extern template class ArrayPool<float>;
extern template class ArrayPool<std::uint64_t>;
extern template class ArrayPool<std::uint32_t>;
extern template class ArrayPool<Vec3f>;
extern template class ArrayPool<StrandRoot>;

// A working array of an algorithm, from the pool where the pool holds one of its length, else
// fresh with its pages brought in on every thread, and back to the pool when replaced or
// destroyed. Its contents are unspecified: the algorithm writes every element before reading it.
// A second run of the same size then brings in no fresh pages at all.
template <PooledElement T>
class WorkArray {
  public:
    WorkArray() = default;
    explicit WorkArray(std::size_t length) { hold(length); }
    WorkArray(const WorkArray&) = delete;
    WorkArray& operator=(const WorkArray&) = delete;
    ~WorkArray() { ArrayPool<T>::instance().release(std::move(values_)); }

    // `length` elements, kept from before where the length is the same.
    T* hold(std::size_t length) {
        if (values_.size() != length) {
            ArrayPool<T>::instance().release(std::move(values_));
            std::optional<std::vector<T>> pooled = ArrayPool<T>::instance().take(length);
            values_ = pooled ? std::move(*pooled) : ArrayPool<T>::makeVector(length);
        }
        return values_.data();
    }

    T* data() { return values_.data(); }
    const T* data() const { return values_.data(); }
    T& operator[](std::size_t i) { return values_[i]; }
    const T& operator[](std::size_t i) const { return values_[i]; }
    std::span<T> first(std::size_t n) { return std::span(values_).first(n); }
    void swap(WorkArray& other) noexcept { values_.swap(other.values_); }

  private:
    std::vector<T> values_;
};

}  // namespace velmorin
