#pragma once
// A groom file read once and shared: every file node on the same file holds the same image, until
// the file on disk changes.

#include <filesystem>
#include <memory>
#include <string>

#include "files/groom_file.h"

namespace velmorin {

struct LoadedGroom {
    GroomFile file;
    std::string path;
    std::filesystem::file_time_type stamp;  // the file's time stamp when it was read

    // The groom at `path`: the image another caller holds when the file's time stamp is the one
    // it was read at, else the file read anew (readGroomFile, with its errors). The cache holds no
    // image alive by itself: an image nobody holds is read again next time. Thread safe.
    static std::shared_ptr<const LoadedGroom> load(const std::string& path);
};

}  // namespace velmorin
