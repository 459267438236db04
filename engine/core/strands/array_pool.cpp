#include "strands/array_pool.h"

#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>

#include "base/parallel.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace velmorin {
namespace {

constexpr std::size_t kKept = 2;

// Values are filled or copied this many bytes at a time per task: large enough that a task is
// worth handing out, small enough that both threads share a column of a few megabytes. Arrays
// from this size up are made on every thread (a strand channel of a million strands, just under
// the pooled size, among them).
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

// Fresh memory from the allocator is brought in, and the array's elements made, in pieces that
// end at the whole huge pages of the address space.
constexpr std::size_t kHugePageBytes = 0x200000;  // 2 MiB

// Asks the kernel to back the whole huge pages of [start, start + bytes) by huge pages: the page
// faults (or the population below) then set up a five-hundredth of the page tables, and the
// arrays' readers miss the TLB far less. Only a hint: where it is refused, nothing changes.
void preferHugePages([[maybe_unused]] std::uintptr_t start, [[maybe_unused]] std::size_t bytes) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    const std::uintptr_t first = (start + kHugePageBytes - 1) & ~(kHugePageBytes - 1);
    const std::uintptr_t end = (start + bytes) & ~(kHugePageBytes - 1);
    if (end > first) madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
#endif
}

// Brings in the pages of [from, to), fresh memory inside one array, on the calling thread. The
// kernel zeroes each page on its first write; done by one thread inside a vector's constructor,
// that is most of the cost of a fresh column (a 200 MB one takes about 60 ms on one thread).
void bringInPages(std::uintptr_t from, std::uintptr_t to) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
    // The kernel fills the page tables in one call, without a fault per page. It needs whole
    // pages: the part pages at the ends come in when they are first written.
    const std::uintptr_t first = (from + kPageBytes - 1) & ~(kPageBytes - 1);
    const std::uintptr_t end = to & ~(kPageBytes - 1);
    if (end <= first ||
        madvise(reinterpret_cast<void*>(first), end - first, MADV_POPULATE_WRITE) == 0)
        return;
#endif
    // Elsewhere, or on an older kernel: one write per page of the piece faults it in.
    for (std::uintptr_t at = (from + kPageBytes - 1) & ~(kPageBytes - 1); at < to; at += kPageBytes)
        *reinterpret_cast<volatile unsigned char*>(at) = 0;
}

// A new array of `length` elements. One of a megabyte or more is reserved first; its pages are
// brought in on every thread, and its elements made on one thread (a vector makes them in order,
// one call at a time), right behind its pages: that thread takes the pieces from the front, each
// bringing in a piece no one has taken yet or waiting for the one being brought in, then making
// the elements that lie whole in the pieces so far, while it is still in the cache. The other
// threads bring pieces in from the back until they meet it. The element maker writes only pieces
// that are in; the others write only pieces they took, so no byte is written by two threads.
template <class T>
std::vector<T> freshArray(std::size_t length) {
    std::vector<T> array;
    const std::size_t bytes = length * sizeof(T);
    if (!isSharedOutArraySize(bytes)) {
        array.resize(length);
        return array;
    }
    array.reserve(length);
    const auto start = reinterpret_cast<std::uintptr_t>(array.data());
    const std::uintptr_t end = start + bytes;
    preferHugePages(start, bytes);
    // Piece p is [pieceStart(p), pieceStart(p + 1)): the first from `start`, the last to `end`.
    const std::uintptr_t firstBoundary = (start & ~(kHugePageBytes - 1)) + kHugePageBytes;
    const std::size_t pieces =
        firstBoundary >= end ? 1 : 2 + (end - 1 - firstBoundary) / kHugePageBytes;
    const auto pieceStart = [&](std::size_t p) {
        return p == 0 ? start : std::min(firstBoundary + (p - 1) * kHugePageBytes, end);
    };
    enum : unsigned char { kFree, kTaken, kIn };
    const auto state = std::make_unique<std::atomic<unsigned char>[]>(pieces);
    for (std::size_t p = 0; p < pieces; ++p)
        state[p].store(kFree, std::memory_order_relaxed);
    std::atomic<std::size_t> fromBack{pieces};
    const auto makeElements = [&] {
        for (std::size_t p = 0; p < pieces; ++p) {
            unsigned char expected = kFree;
            if (state[p].compare_exchange_strong(expected, kTaken, std::memory_order_acq_rel)) {
                bringInPages(pieceStart(p), pieceStart(p + 1));
            } else {
                // Taken by a running task, which finishes it without waiting for anything.
                while (state[p].load(std::memory_order_acquire) != kIn)
                    std::this_thread::yield();
            }
            array.resize((pieceStart(p + 1) - start) / sizeof(T));
        }
    };
    const auto bringInFromBack = [&] {
        for (;;) {
            const std::size_t p = fromBack.fetch_sub(1, std::memory_order_relaxed);
            if (p == 0 || p > pieces) return;
            unsigned char expected = kFree;
            // The element maker took it: it takes every piece before it too.
            if (!state[p - 1].compare_exchange_strong(expected, kTaken, std::memory_order_acq_rel))
                return;
            bringInPages(pieceStart(p - 1), pieceStart(p));
            state[p - 1].store(kIn, std::memory_order_release);
        }
    };
    const std::size_t roles = std::min<std::size_t>(
        pieces, static_cast<std::size_t>(std::max(tbb::this_task_arena::max_concurrency(), 1)));
    parallelRange(0, roles, 1, [&](std::size_t first, std::size_t last) {
        for (std::size_t role = first; role < last; ++role) {
            if (role == 0)
                makeElements();
            else
                bringInFromBack();
        }
    });
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
template class ArrayPool<Vec3f>;
template class ArrayPool<StrandRoot>;

}  // namespace velmorin
