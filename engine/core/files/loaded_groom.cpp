#include "files/loaded_groom.h"

#include <map>
#include <mutex>

namespace velmorin {

std::shared_ptr<const LoadedGroom> LoadedGroom::load(const std::string& path) {
    static std::mutex mutex;
    static std::map<std::string, std::weak_ptr<const LoadedGroom>> cache;

    const std::filesystem::path file(
        std::u8string(reinterpret_cast<const char8_t*>(path.data()), path.size()));
    std::error_code error;
    const auto stamp = std::filesystem::last_write_time(file, error);
    if (error) throw GroomFileError("cannot read '" + path + "'");
    {
        std::lock_guard lock(mutex);
        if (auto held = cache[path].lock(); held && held->stamp == stamp) return held;
    }
    // Read outside the lock: a large groom takes a while, and other files need not wait for it.
    auto loaded = std::make_shared<LoadedGroom>();
    loaded->file = readGroomFile(path);
    loaded->path = path;
    loaded->stamp = stamp;
    std::lock_guard lock(mutex);
    // Another caller may have read the same file meanwhile: all share the first image stored.
    if (auto held = cache[path].lock(); held && held->stamp == stamp) return held;
    std::erase_if(cache, [](const auto& entry) { return entry.second.expired(); });
    cache[path] = loaded;
    return loaded;
}

}  // namespace velmorin
