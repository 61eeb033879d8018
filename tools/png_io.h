// PNG files in and out for vxtool, through libpng's simplified interface. The library itself
// knows nothing of file formats.
#pragma once

#include <vxtools3/image.h>

#include <string>

namespace vxtool {

// Reads `path` into a new image: grey files give type 1, colour files type 0 and files with
// transparency type 5 (16-bit files are reduced to bytes). Returns NULL and describes the
// problem in `error` when the file is missing or not a readable PNG.
VxImage *PngRead(const char *path, std::string &error);

// Writes `image` to `path` as an 8-bit PNG: grey types as grey, RGB types as RGB, RGBA types
// as RGBA (float channels clamped, times 255, truncated; indices through their palette).
// Returns false and describes the problem in `error`.
bool PngWrite(const char *path, VxImage *image, std::string &error);

}  // namespace vxtool
