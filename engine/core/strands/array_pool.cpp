#include "strands/array_pool.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/parallel.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace velmorin {
namespace {

constexpr std::size_t kKept = 2;

// Pages are brought in, and values filled or copied, this many bytes at a time per task: large
// enough that a task is worth handing out, small enough that both threads share a column of a
// few megabytes. Arrays from this size up are made on every thread (a strand channel of a
// million strands, just under the pooled size, among them).
constexpr std::size_t kTouchBytes = 0x100000;  // 1 MiB
constexpr std::size_t kPageBytes = 4096;

constexpr bool isSharedOutArraySize(std::size_t bytes) {
    return bytes >= kTouchBytes;
}

// Runs body(first, last) over [0, length) elements of T in parallel pieces of about kTouchBytes.
template <class T, class Body>
void inPieces(std::size_t length, const Body& body) {
    constexpr std::size_t kPiece = std::max<std::size_t>(kTouchBytes / sizeof(T), 1);
    parallelRange(0, length, kPiece, body);
}

// Brings in the whole pages of [data, data + bytes), fresh memory from the allocator, on every
// thread. The kernel zeroes each page on its first write; done by one thread inside a vector's
// constructor, that is most of the cost of a fresh column (a 200 MB one takes about 60 ms on one
// thread, half that on two). The part pages at the ends come in when they are first written.
void bringInPages(void* data, std::size_t bytes) {
    const auto start = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (start + kPageBytes - 1) & ~(kPageBytes - 1);
    const std::uintptr_t end = (start + bytes) & ~(kPageBytes - 1);
    if (end <= first) return;
    parallelRange(
        0, (end - first + kTouchBytes - 1) / kTouchBytes, 1,
        [&](std::size_t begin, std::size_t stop) {
            const std::uintptr_t from = first + begin * kTouchBytes;
            const std::uintptr_t to = std::min(first + stop * kTouchBytes, end);
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
            // The kernel fills the page tables in one call, without a fault per page.
            if (madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE) == 0) return;
#endif
            // Elsewhere, or on an older kernel: one write per page faults it in.
            for (std::uintptr_t at = from; at < to; at += kPageBytes)
                *reinterpret_cast<volatile unsigned char*>(at) = 0;
        });
}

// A new array of `length` elements. One of a megabyte or more is reserved first and its pages
// brought in on every thread, so that making its elements only writes memory that is there.
template <class T>
std::vector<T> freshArray(std::size_t length) {
    std::vector<T> array;
    if (isSharedOutArraySize(length * sizeof(T))) {
        array.reserve(length);
        bringInPages(array.data(), length * sizeof(T));
    }
    array.resize(length);
    return array;
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
    released_.reserve(kKept + 1);
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
    return adopt(freshArray<T>(length));
}

template <PooledElement T>
std::vector<T> ArrayPool<T>::makeVector(std::size_t length) {
    return freshArray<T>(length);
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::makeFilled(std::size_t length, const T& value) {
    ArrayPtr<T> array = makeForOverwrite(length);
    T* to = array->data();
    inPieces<T>(length, [&](std::size_t first, std::size_t last) {
        std::fill(to + first, to + last, value);
    });
    return array;
}

template <PooledElement T>
ArrayPtr<T> ArrayPool<T>::makeCopy(std::span<const T> values) {
    ArrayPtr<T> array = makeForOverwrite(values.size());
    T* to = array->data();
    inPieces<T>(values.size(), [&](std::size_t first, std::size_t last) {
        std::copy(values.begin() + static_cast<std::ptrdiff_t>(first),
                  values.begin() + static_cast<std::ptrdiff_t>(last), to + first);
    });
    return array;
}

template <PooledElement T>
std::optional<std::vector<T>> ArrayPool<T>::take(std::size_t length) {
    if (!isPooledArraySize(length * sizeof(T))) return std::nullopt;
    std::lock_guard guard(lock_);
    for (auto it = released_.rbegin(); it != released_.rend(); ++it) {
        if (it->size() != length) continue;
        std::vector<T> array = std::move(*it);
        released_.erase(std::next(it).base());
        return array;
    }
    return std::nullopt;
}

template <PooledElement T>
void ArrayPool<T>::release(std::vector<T>&& array) {
    if (!isPooledArraySize(array.size() * sizeof(T))) {
        std::vector<T>().swap(array);
        return;
    }
    std::vector<T> oldest;  // freed after the lock is let go
    {
        std::lock_guard guard(lock_);
        released_.push_back(std::move(array));
        if (released_.size() > kKept) {
            oldest = std::move(released_.front());
            released_.erase(released_.begin());
        }
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
void ArrayPool<T>::trim() {
    std::vector<std::vector<T>> freed;
    freed.reserve(kKept + 1);
    std::lock_guard guard(lock_);
    for (std::vector<T>& array : released_)
        freed.push_back(std::move(array));
    released_.clear();
}

template class ArrayPool<float>;
template class ArrayPool<std::uint64_t>;
template class ArrayPool<std::uint32_t>;
template class ArrayPool<Vec3f>;
template class ArrayPool<StrandRoot>;

}  // namespace velmorin
