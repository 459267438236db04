#pragma once
// What tests and benchmarks that touch the disk share: a folder of their own, removed with
// everything in it, and whole files read or written as bytes.

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <unistd.h>

namespace velmorin::test {

inline std::string readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::filesystem::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

// A fresh folder under the system's temporary folder. The process id and a count keep test
// processes that ctest runs side by side, and folders within one test, apart.
class TempFolder {
  public:
    explicit TempFolder(const std::string& name = "test") {
        static std::atomic<int> made{0};
        path_ =
            std::filesystem::temp_directory_path() /
            ("velmorin-" + name + "-" + std::to_string(::getpid()) + "-" + std::to_string(made++));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }
    // Writes `bytes` to the file `name` in the folder and gives its path.
    std::filesystem::path write(const std::string& name, std::string_view bytes) const {
        writeBytes(path_ / name, bytes);
        return path_ / name;
    }
    std::size_t entries() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path_),
                                                      std::filesystem::directory_iterator()));
    }

  private:
    std::filesystem::path path_;
};

}  // namespace velmorin::test
