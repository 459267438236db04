#pragma once
// A check of an Ogawa archive's index before the Alembic library reads it. The library trusts the
// places its index names; this walk makes sure that the header is whole and that every group and
// every block of data the index names lies inside the file, so that a cut-short or hostile file is
// refused with a reason instead of being read out of bounds.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace velmorin {

// Reads `count` bytes at `offset` into `out`; false when they are not all there.
using OgawaRead = std::function<bool(std::uint64_t offset, std::size_t count, void* out)>;

// The reason the archive of `size` bytes cannot be read, or empty when its index is sound.
std::string checkOgawaIndex(std::uint64_t size, const OgawaRead& read);

}  // namespace velmorin
