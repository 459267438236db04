#include "strands/array_pool.h"

#include <algorithm>
#include <utility>

namespace velmorin {
namespace {

// The most arrays the pool can hold under the largest budget it is given in practice: every
// pooled array is at least kPooledArrayBytes. The list is reserved for them (and the one passing
// through), so that release never allocates.
constexpr std::size_t kMostKept = 1024;

template <class T>
std::size_t allocatedBytes(const std::vector<T>& array) {
    return array.capacity() * sizeof(T);
}

// Set while the pool of element type T exists. Arrays can outlive the pool (a set held in a static
// that is destroyed later at exit); they then go straight back to the allocator. A trivially
// destructible flag stays readable through the whole shutdown.
template <class T>
std::atomic<bool> poolAlive{false};

// The deleter of every array the pool hands out: a large array goes back to the pool.
template <PooledElement T>
struct ReturnToPool {
    void operator()(std::vector<T>* array) const noexcept {
        if (isPooledArraySize(array->size() * sizeof(T)) && poolAlive<T>.load())
            ArrayPool<T>::instance().release(std::move(*array));
        delete array;
    }
};

}  // namespace

template <PooledElement T>
ArrayPool<T>& ArrayPool<T>::instance() {
    static ArrayPool pool;
    return pool;
}

template <PooledElement T>
ArrayPool<T>::ArrayPool() {
    // Room for the one array that passes through while the oldest leaves, so that release never
    // allocates (it runs inside a deleter).
    released_.reserve(kMostKept + 1);
    poolAlive<T>.store(true);
}

template <PooledElement T>
ArrayPool<T>::~ArrayPool() {
    poolAlive<T>.store(false);
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::adopt(std::vector<T>&& values) {
    return ArrayPtr<T>(new std::vector<T>(std::move(values)), ReturnToPool<T>{});
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::makeForOverwrite(std::size_t length) {
    if (std::optional<std::vector<T>> pooled = take(length)) return adopt(std::move(*pooled));
    return adopt(std::vector<T>(length));
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::makeFilled(std::size_t length, const T& value) {
    ArrayPtr<T> array = makeForOverwrite(length);
    std::fill(array->begin(), array->end(), value);
    return array;
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::makeCopy(std::span<const T> values) {
    ArrayPtr<T> array = makeForOverwrite(values.size());
    std::copy(values.begin(), values.end(), array->begin());
    return array;
}

template <PooledElement T>
std::optional<std::vector<T>> ArrayPool<T>::take(std::size_t length) {
    if (!isPooledArraySize(length * sizeof(T))) return std::nullopt;
    std::optional<std::vector<T>> taken;
    {
        std::lock_guard guard(lock_);
        // The newest of exactly this length first, then the least wasteful one that fits.
        auto chosen = released_.end();
        for (auto it = released_.begin(); it != released_.end(); ++it) {
            if (it->size() == length) {
                chosen = it;
            } else if (chosen == released_.end() || chosen->size() != length) {
                if (fitsPooledArray(it->capacity(), length) &&
                    (chosen == released_.end() || it->capacity() < chosen->capacity()))
                    chosen = it;
            }
        }
        if (chosen == released_.end()) return std::nullopt;
        bytes_ -= allocatedBytes(*chosen);
        taken = std::move(*chosen);
        released_.erase(chosen);
    }
    // Shorter, or longer within its allocation (only the added tail is written): no allocation.
    taken->resize(length);
    return taken;
}

template <PooledElement T>
void ArrayPool<T>::fitBudget(std::vector<std::vector<T>>& freed) {
    while (!released_.empty() && (bytes_ > budget_ || released_.size() > kMostKept)) {
        bytes_ -= allocatedBytes(released_.front());
        freed.push_back(std::move(released_.front()));
        released_.erase(released_.begin());
    }
}

template <PooledElement T>
void ArrayPool<T>::release(std::vector<T>&& array) {
    if (!isPooledArraySize(array.size() * sizeof(T))) {
        std::vector<T>().swap(array);
        return;
    }
    // The arrays that leave for the budget are freed under the lock: there may be several, and
    // holding them until it is let go would take an allocation.
    std::lock_guard guard(lock_);
    bytes_ += allocatedBytes(array);
    released_.push_back(std::move(array));
    while (!released_.empty() && (bytes_ > budget_ || released_.size() > kMostKept)) {
        bytes_ -= allocatedBytes(released_.front());
        std::vector<T>().swap(released_.front());
        released_.erase(released_.begin());
    }
}

template <PooledElement T>
std::vector<std::size_t> ArrayPool<T>::pooledLengths() const {
    std::lock_guard guard(lock_);
    std::vector<std::size_t> lengths;
    for (const std::vector<T>& array : released_)
        lengths.push_back(array.size());
    return lengths;
}

template <PooledElement T>
std::size_t ArrayPool<T>::pooledBytes() const {
    std::lock_guard guard(lock_);
    return bytes_;
}

template <PooledElement T>
std::size_t ArrayPool<T>::budget() const {
    std::lock_guard guard(lock_);
    return budget_;
}

template <PooledElement T>
void ArrayPool<T>::setBudget(std::size_t bytes) {
    std::vector<std::vector<T>> freed;
    freed.reserve(kMostKept + 1);
    std::lock_guard guard(lock_);
    budget_ = bytes;
    fitBudget(freed);
}

template <PooledElement T>
void ArrayPool<T>::trim() {
    std::vector<std::vector<T>> freed;
    freed.reserve(kMostKept + 1);
    std::lock_guard guard(lock_);
    for (std::vector<T>& array : released_)
        freed.push_back(std::move(array));
    released_.clear();
    bytes_ = 0;
}

template class ArrayPool<float>;
template class ArrayPool<std::uint64_t>;
template class ArrayPool<Vec3f>;
template class ArrayPool<StrandRoot>;

}  // namespace velmorin
