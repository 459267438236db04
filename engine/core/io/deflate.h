#pragma once
// Deflate compression for the image writers: LZ77 over a 32 KiB window with hash chains and one
// step of lazy matching, then Huffman blocks (dynamic, or fixed when that is smaller; never stored
// blocks). The zlib form adds the two-byte header and the Adler-32 sum that PNG needs.

#include <cstdint>
#include <span>
#include <vector>

namespace velmorin {

// The CRC-32 of PNG chunks and gzip (polynomial 0xEDB88320), continued from `crc` (0 to start).
std::uint32_t crc32(std::uint32_t crc, std::span<const std::uint8_t> data);

// The Adler-32 sum of zlib streams, continued from `adler` (1 to start).
std::uint32_t adler32(std::uint32_t adler, std::span<const std::uint8_t> data);

// Appends a raw deflate stream of `data` (one or more blocks, the last one marked final) to `out`.
void deflateAppend(std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out);

// Appends a zlib stream: header, deflate stream, Adler-32 of `data` (big-endian).
void zlibAppend(std::span<const std::uint8_t> data, std::vector<std::uint8_t>& out);

}  // namespace velmorin
