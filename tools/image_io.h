// Picture files for vxtool, through the library's image file calls and the loader and saver
// modules (PNG.p, JPEG.p ...) that the plug-in host loads.
#pragma once

#include <vxtools3/imagefile.h>

#include <string>

namespace vxtool {

// While alive, the plug-in host runs with every image module registered: on a database in a
// temporary directory of its own, which the destructor removes. When the host is already
// running, it is used as it is.
class ImageModules {
public:
    ImageModules();
    ~ImageModules();
    ImageModules(const ImageModules &) = delete;
    ImageModules &operator=(const ImageModules &) = delete;
    // "" when the modules are ready, else what is wrong.
    const std::string &Problem() const { return problem_; }

private:
    std::string dir_;
    std::string problem_;
    bool started_ = false;
};

// The folder of the image modules: beside the build tree's vxtool or the installed one.
std::string ImageModuleDir();

// Reads `path` into a new image (null, with the reason in `error`, when it cannot); `info`
// may be null.
VxImage *ReadImage(const std::string &path, ImageFileInfo *info, std::string &error);
// Writes `image` through `saver` (empty: chosen by the extension of `path`). False, with the
// reason in `error`, when it cannot.
bool WriteImage(const std::string &path, VxImage *image, const std::string &saver, int quality, std::string &error);

}  // namespace vxtool
