#pragma once
// What an image file's size can hold. A decoder that runs out of data mostly reads on as if the
// file went on in zeros: a file cut short becomes a garbage image, and a tiny file that declares a
// huge image keeps the decoder busy for seconds. These checks read only the file's own structure
// (headers, chunk and packet lengths), never its pixels, and find when the data ends before the
// pixels do.

#include <cstdint>
#include <span>

namespace velmorin {

// True when the file (a PNG, JPEG, TGA, BMP, PSD or Radiance HDR, told apart by its first bytes)
// cannot hold the width x height pixels its header declares: a chunk or packet runs past the end,
// a PNG ends before its end chunk, or the data left is less than the least its format and
// compression need for that many pixels (a PNG's deflate gives at most 1032 bytes a byte; a JPEG
// codes every 8 x 8 block of its largest channel in at least one bit; a TGA run packet repeats one
// pixel at most 128 times). False when the file may hold them or its format is not one of these;
// the decoder then has the last word. Reads nothing outside `file`; time linear in its size.
bool imageDataEndsEarly(std::span<const std::uint8_t> file, int width, int height);

}  // namespace velmorin
