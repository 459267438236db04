#include "alembic/ogawa_check.h"

#include <cstring>
#include <unordered_set>
#include <utility>
#include <vector>

namespace velmorin {
namespace {

constexpr std::uint64_t kDataBit = 0x8000000000000000ULL;
constexpr std::size_t kHeaderBytes = 16;
// Alembic nests objects, properties and samples a few levels per object; a file nested deeper
// than this is not one a groom tool writes, and refusing it keeps the library's own walks short.
constexpr std::size_t kMaxDepth = 512;

}  // namespace

std::string checkOgawaIndex(std::uint64_t size, const OgawaRead& read) {
    unsigned char header[kHeaderBytes];
    if (size < kHeaderBytes || !read(0, kHeaderBytes, header) ||
        std::memcmp(header, "Ogawa", 5) != 0)
        return "not an Alembic (Ogawa) file";
    if (header[5] != 0xff) return "the file was not finished (its writer did not close it)";
    if (header[6] != 0 || header[7] != 1) return "an Ogawa version this reader does not know";
    std::uint64_t root = 0;
    std::memcpy(&root, header + 8, 8);
    if ((root & kDataBit) != 0) return "the archive's index is damaged";

    const std::string outside = "the archive's index names a place outside the file";
    // Groups to visit, with their depth; each group once, so that a loop in the index ends.
    std::vector<std::pair<std::uint64_t, std::size_t>> pending{{root, 0}};
    std::unordered_set<std::uint64_t> seen;
    std::vector<std::uint64_t> children;
    while (!pending.empty()) {
        const auto [group, depth] = pending.back();
        pending.pop_back();
        if (group == 0 || !seen.insert(group).second) continue;
        if (depth > kMaxDepth) return "the archive's objects nest too deep";
        std::uint64_t count = 0;
        if (group < kHeaderBytes || group > size - 8 || !read(group, 8, &count)) return outside;
        if (count > (size - group - 8) / 8) return outside;
        children.resize(static_cast<std::size_t>(count));
        if (count > 0 && !read(group + 8, static_cast<std::size_t>(count) * 8, children.data()))
            return outside;
        for (const std::uint64_t child : children) {
            if ((child & kDataBit) == 0) {
                pending.emplace_back(child, depth + 1);
                continue;
            }
            const std::uint64_t data = child & ~kDataBit;
            if (data == 0) continue;  // empty data
            std::uint64_t bytes = 0;
            if (data < kHeaderBytes || data > size - 8 || !read(data, 8, &bytes)) return outside;
            if (bytes > size - data - 8) return outside;
        }
    }
    return {};
}

}  // namespace velmorin
