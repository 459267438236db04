#pragma once
// The process-wide cache of images read from disk. An entry is keyed by the file's path and its
// time stamp (modification time and size), so an image saved again is read again. Entries leave,
// least recently used first, when their sizes add up to more than the limit; an image that is
// still in use stays alive through its shared pointer.

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/memory_report.h"
#include "maps/texture.h"

namespace velmorin {

class TextureCache {
  public:
    explicit TextureCache(std::size_t limitBytes) : limit_(limitBytes) {}

    // The image at `path`, read on a miss (outside the lock, so that other readers go on).
    // Throws TextureError when the file is missing or can't be read.
    std::shared_ptr<const Texture> get(const std::string& path);

    std::size_t limitBytes() const { return limit_; }
    MemoryUse use() const;
    void clear();

  private:
    struct Entry {
        std::string path;
        std::uint64_t stamp = 0;
        std::shared_ptr<const Texture> image;
    };
    void evict();

    std::size_t limit_;
    mutable std::mutex mutex_;
    std::list<Entry> entries_;  // most recently used first
    std::unordered_map<std::string, std::list<Entry>::iterator> byPath_;
    std::size_t bytes_ = 0;
};

// The cache's limit in bytes from the text of VELMORIN_TEXTURE_CACHE_MB: a decimal whole number of
// MB (shifted by 20), or 1024 MB for anything else and for no text.
std::size_t textureCacheLimit(std::optional<std::string_view> text);

// The process's cache, made on first use with the limit of VELMORIN_TEXTURE_CACHE_MB (read once),
// and reported in the memory report as "textures".
TextureCache& textureCache();

}  // namespace velmorin
