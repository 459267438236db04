// Image files with any bytes, read the way a map's image is: through Texture::load from disk.
// Every file gives a texture or a TextureError, never a crash, a leak or a hang; a texture that
// loads must sample anywhere and become a paint canvas. The size limit is lowered so that no image
// a few bytes can declare keeps one run near libFuzzer's timeout, even where the decoder has only
// zeros to read.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include <unistd.h>

#include "maps/texture.h"
#include "maps/texture_cache.h"
#include "maps/texture_paint.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorin;
    static const std::string path = (std::filesystem::temp_directory_path() /
                                     ("velmorin-fuzz-image-" + std::to_string(::getpid()) + ".img"))
                                        .string();
    static const bool limited = [] {
        setTextureSizeLimit(512);
        return true;
    }();
    (void)limited;
    // Each input is a new state of the file; the cache must not answer with the last one.
    textureCache().clear();
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);
    try {
        const auto texture = Texture::load(path);
        for (float u : {-1.0f, 0.0f, 0.37f, 1.0f, 5.0f})
            texture->sample(u, 1.0f - u);
        const TexturePaint paint = TexturePaint::fromTexture(*texture);
        if (paint.width() != texture->width() || paint.height() != texture->height())
            __builtin_trap();
    } catch (const TextureError&) {
    }
    std::remove(path.c_str());
    return 0;
}
