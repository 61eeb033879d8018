// Helpers of the image file tests: a host that knows the image modules, outside tools, and
// pictures as 16-bit RGBA samples for comparison.
#pragma once

#include <vxtools3/host.h>
#include <vxtools3/imagefile.h>

#include "testkit/capture.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace imftest {

const std::string kModules = VX_IMAGE_MODULE_DIR;

// Every module file of the image module folder.
std::vector<std::string> ModuleFiles();

// Starts the host on a database in `dir` and scans every image module into it.
void StartHostWithModules(const std::string &dir);

// True when `tool` can be run (found on PATH).
bool HasTool(const std::string &tool);
// Runs a shell command; true when it exited with status 0.
bool Run(const std::string &command);

// The picture's pixels as 16-bit RGBA, row by row (floats rounded from v x 65535).
std::vector<uint16_t> Rgba16(VxImage *image);
// A raw file of 16-bit RGBA samples (big-endian, as ImageMagick's "rgba:" writes them).
std::vector<uint16_t> ReadRgba16(const std::string &path);
// A netpbm file (P5, P6 or P7 of 1 to 4 channels) as 16-bit RGBA; empty when unreadable.
std::vector<uint16_t> ReadPam16(const std::string &path);
// ImageMagick's reading of `file` as 16-bit RGBA; empty when it failed.
std::vector<uint16_t> MagickPixels(const std::string &file, const std::string &scratch);

// A test picture of w x h pixels as 16-bit PAM (RGB_ALPHA): ramps, a checker and varied alpha.
void WriteSourcePam(const std::string &path, int w, int h);

// Loads `path`; the image (null on failure) and the result and message.
struct Loaded {
    VxImage *image = nullptr;
    ImageFileInfo info{};
    int32_t result = -1;
    std::string message;
    ~Loaded() { ImageDestroy(image); }
};
void Load(const std::string &path, Loaded &out);

}  // namespace imftest
