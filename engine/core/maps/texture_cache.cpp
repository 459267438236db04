#include "maps/texture_cache.h"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "base/hash.h"

namespace velmorin {
namespace {

constexpr std::size_t kDefaultLimitMb = 1024;

// What tells one saved state of a file from another: its modification time and its size.
std::optional<std::uint64_t> fileStamp(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
    const auto time = std::filesystem::last_write_time(path, error);
    if (error) return std::nullopt;
    const auto size = std::filesystem::file_size(path, error);
    if (error) return std::nullopt;
    return hashCombine(static_cast<std::uint64_t>(time.time_since_epoch().count()), size);
}

std::vector<std::uint8_t> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> bytes;
    if (file) bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!file && !file.eof()) {
        throw TextureError("Texture: could not read " + path + ": check that the file is readable");
    }
    return bytes;
}

}  // namespace

std::shared_ptr<const Texture> TextureCache::get(const std::string& path) {
    const std::optional<std::uint64_t> stamp = fileStamp(path);
    if (!stamp) {
        throw TextureError("Texture: no image at " + path +
                           " (check the path, or link the map to its image again)");
    }
    {
        std::lock_guard lock(mutex_);
        const auto found = byPath_.find(path);
        if (found != byPath_.end() && found->second->stamp == *stamp) {
            entries_.splice(entries_.begin(), entries_, found->second);
            return found->second->image;
        }
    }
    std::shared_ptr<const Texture> image = Texture::decode(readFile(path), path);

    std::lock_guard lock(mutex_);
    const auto found = byPath_.find(path);
    if (found != byPath_.end()) {
        // Another thread read the same state meanwhile: share its image. An older state of the
        // file leaves for the new one.
        if (found->second->stamp == *stamp) {
            entries_.splice(entries_.begin(), entries_, found->second);
            return found->second->image;
        }
        bytes_ -= found->second->image->byteSize();
        entries_.erase(found->second);
        byPath_.erase(found);
    }
    entries_.push_front({path, *stamp, image});
    byPath_[path] = entries_.begin();
    bytes_ += image->byteSize();
    evict();
    return image;
}

void TextureCache::evict() {
    while (bytes_ > limit_ && !entries_.empty()) {
        const Entry& last = entries_.back();
        bytes_ -= last.image->byteSize();
        byPath_.erase(last.path);
        entries_.pop_back();
    }
}

MemoryUse TextureCache::use() const {
    std::lock_guard lock(mutex_);
    return {bytes_, entries_.size()};
}

void TextureCache::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
    byPath_.clear();
    bytes_ = 0;
}

std::size_t textureCacheLimit(std::optional<std::string_view> text) {
    std::size_t mb = kDefaultLimitMb;
    if (text && !text->empty() && text->front() >= '0' && text->front() <= '9') {
        std::size_t value = 0;
        const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
        // A value whose bytes would not fit a size keeps the default as well.
        if (error == std::errc() && end == text->data() + text->size() &&
            value < (std::size_t{1} << 43)) {
            mb = value;
        }
    }
    return mb << 20;
}

TextureCache& textureCache() {
    static TextureCache& cache = []() -> TextureCache& {
        const char* text = std::getenv("VELMORIN_TEXTURE_CACHE_MB");
        static TextureCache instance(
            textureCacheLimit(text ? std::optional<std::string_view>(text) : std::nullopt));
        registerMemoryReporter("textures", [] { return instance.use(); });
        return instance;
    }();
    return cache;
}

}  // namespace velmorin
