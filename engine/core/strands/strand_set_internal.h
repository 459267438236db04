#pragma once
// What the files of StrandSet share and nothing else includes: the shared empty arrays and the
// copy-on-write steps on a column, which the building and deriving operations use as well as the
// column accessors.

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "strands/strand_set.h"

namespace velmorin::strand_set_internal {

// Empty sets share these arrays, so making one allocates nothing. They are never written: a set
// holding one does not own it and the static's own reference keeps the holder count above one, so
// the first write copies.
template <class T>
inline const ArrayPtr<T>& emptyArray() {
    static const ArrayPtr<T> array = std::make_shared<std::vector<T>>();
    return array;
}

inline const ArrayPtr<std::uint64_t>& zeroOffsets() {
    static const ArrayPtr<std::uint64_t> array = std::make_shared<std::vector<std::uint64_t>>(1, 0);
    return array;
}

}  // namespace velmorin::strand_set_internal

namespace velmorin {

// ---- Copy on write

template <class T>
void StrandSet::replaceArray(Column<T>& column, ArrayPtr<T> array, bool owned) {
    {
        std::lock_guard guard(columnLock_);
        column.array.swap(array);
        column.owned = owned;
    }
    // `array` now holds the old one. Letting it go may hand it to the pool, whose lock is never
    // taken inside the column lock.
}

template <class T>
std::vector<T>& StrandSet::promote(Column<T>& column) {
    {
        std::lock_guard guard(columnLock_);
        if (column.owned) return *column.array;
        if (column.array.use_count() == 1) {
            column.owned = true;
            return *column.array;
        }
    }
    replaceArray(column, ArrayPool<T>::instance().makeCopy(*column.array), true);
    return *column.array;
}

template <class T>
std::vector<T>& StrandSet::promoteForOverwrite(Column<T>& column, std::size_t length) {
    {
        std::lock_guard guard(columnLock_);
        if ((column.owned || column.array.use_count() == 1) && column.array->size() == length) {
            column.owned = true;
            return *column.array;
        }
    }
    replaceArray(column, ArrayPool<T>::instance().makeForOverwrite(length), true);
    return *column.array;
}

template <class T>
T* StrandSet::extend(Column<T>& column, std::size_t length) {
    bool shared;
    {
        std::lock_guard guard(columnLock_);
        shared = !column.owned && column.array.use_count() > 1;
        if (!shared) column.owned = true;
    }
    if (shared) {
        // One new array of the final length: promoting and then growing would copy twice.
        ArrayPtr<T> grown = ArrayPool<T>::instance().makeForOverwrite(length);
        const std::vector<T>& old = *column.array;
        std::copy_n(old.begin(), std::min(old.size(), length), grown->begin());
        replaceArray(column, std::move(grown), true);
    } else {
        column.array->resize(length);
    }
    return column.array->data();
}

template <class T>
void StrandSet::appendValues(Column<T>& column, std::span<const T> values) {
    const std::size_t old = column.array->size();
    T* to = extend(column, old + values.size());
    std::copy(values.begin(), values.end(), to + old);
}

}  // namespace velmorin
