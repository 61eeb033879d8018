#include "image_io.h"

#include <vxtools3/host.h>
#include <vxtools3/platform.h>

#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

namespace vxtool {
namespace {

bool IsDirectory(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> ModuleFiles(const std::string &dir)
{
    std::vector<std::string> files;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(dir, error))
        if (entry.path().extension() == ".p")
            files.push_back(entry.path().string());
    return files;
}

}  // namespace

std::string ImageModuleDir()
{
    const std::string home = FileSystemPath(SYSTEM_PATH_HOST);
    const std::string build = home + "/../imagefile/Plugins";
    return IsDirectory(build) ? build : home + "/" VX_INSTALLED_IMAGE_MODULES;
}

ImageModules::ImageModules()
{
    if (HostRunning() > 0)
        return;
    const std::string modules = ImageModuleDir();
    const std::vector<std::string> files = ModuleFiles(modules);
    if (files.empty()) {
        problem_ = "no image modules in " + modules;
        return;
    }
    char pattern[] = "/tmp/vxtool-images-XXXXXX";
    if (!mkdtemp(pattern)) {
        problem_ = "cannot make a temporary directory for the plug-in database";
        return;
    }
    dir_ = pattern;
    if (!HostSetDatabase(dir_.c_str()) || !HostStartup()) {
        problem_ = "the plug-in host did not start";
        return;
    }
    started_ = true;
    // A module that does not load leaves its servers out; loads name what they tried.
    for (const std::string &file : files)
        HostAddModule(file.c_str(), nullptr);
}

ImageModules::~ImageModules()
{
    if (started_)
        HostShutdown();
    if (!dir_.empty()) {
        std::error_code error;
        std::filesystem::remove_all(dir_, error);
    }
}

VxImage *ReadImage(const std::string &path, ImageFileInfo *info, std::string &error)
{
    VxImage *image = nullptr;
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    if (ImageFileLoad(path.c_str(), &image, info, message, sizeof message) != IMAGEFILE_OK)
        error = message;
    return image;
}

bool WriteImage(const std::string &path, VxImage *image, const std::string &saver, int quality, std::string &error)
{
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    const int32_t result = ImageFileSave(path.c_str(), saver.empty() ? nullptr : saver.c_str(), image, quality, message,
                                         sizeof message);
    if (result != IMAGEFILE_OK)
        error = message;
    return result == IMAGEFILE_OK;
}

}  // namespace vxtool
