// Feeds arbitrary bytes, as a file, to the image loaders: to the ILBM loader alone
// (VX_FUZZ_ONE_LOADER) or to the load call that tries every loader module, then reads the
// header alone. A load either gives an image matching the header it reported or fails with
// one line and no image; nothing leaks.
#include <vxtools3/host.h>
#include <vxtools3/imagefile.h>

#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string g_file;

// Starts a host on a fresh database, scans every image module and keeps the modules loaded.
// Each module is opened here first and never closed, so that the host's unload after the scan
// leaves it mapped: libFuzzer keeps the coverage counters of every module it has seen.
void StartHost()
{
    char dir[] = "/tmp/vx-fuzz-images-XXXXXX";
    if (!mkdtemp(dir) || !HostSetDatabase(dir) || !HostStartup())
        std::abort();
    g_file = std::string(dir) + "/input";
    if (DIR *modules = opendir(VX_IMAGE_MODULE_DIR)) {
        while (dirent *entry = readdir(modules)) {
            const std::string name = entry->d_name;
            const std::string path = std::string(VX_IMAGE_MODULE_DIR) + "/" + name;
            if (name.size() > 2 && name.substr(name.size() - 2) == ".p" && dlopen(path.c_str(), RTLD_NOW))
                HostAddModule(path.c_str(), nullptr);
        }
        closedir(modules);
    }
    for (int32_t i = 0; i < HostNumServers("ImageLoader"); ++i)
        HostLockServer("ImageLoader", ServerGetName("ImageLoader", i));
    ImageFileSetPixelLimit(uint64_t{1} << 22);
}

void CheckOutcome(int32_t result, const VxImage *image, const ImageFileInfo &info, const char *message)
{
    if (result == IMAGEFILE_OK) {
        if (!image || image->width != info.width || image->height != info.height || image->type != info.pixelType)
            std::abort();
    } else if (image || !message[0] || std::strchr(message, '\n')) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = (StartHost(), true);
    (void)started;
    FILE *file = std::fopen(g_file.c_str(), "wb");
    if (!file || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0)
        std::abort();
#ifdef VX_FUZZ_ONE_LOADER
    ImageLoaderLocal local;
    std::memset(&local, 0, sizeof local);
    local.fileName = g_file.c_str();
    local.services = ImageFileGetServices();
    local.pixelLimit = ImageFileGetPixelLimit();
    if (HostActivateVer("ImageLoader", VX_FUZZ_ONE_LOADER, &local, IMAGEFILE_PROTOCOL) != 0)
        std::abort();
    local.message[IMAGEFILE_MESSAGE_SIZE - 1] = '\0';
    if (local.result != IMAGEFILE_NOT_MINE)
        CheckOutcome(local.result, local.image, local.info, local.message);
    ImageDestroy(local.image);
#else
    VxImage *image = nullptr;
    ImageFileInfo info{};
    char message[IMAGEFILE_MESSAGE_SIZE] = "";
    CheckOutcome(ImageFileLoad(g_file.c_str(), &image, &info, message, sizeof message), image, info, message);
    ImageDestroy(image);
    ImageFileInfo header{};
    if (ImageFileReadInfo(g_file.c_str(), &header, message, sizeof message) == IMAGEFILE_OK &&
        (header.width != info.width || header.height != info.height) && image)
        std::abort();
#endif
    return 0;
}
