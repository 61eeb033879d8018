// Image files through the ImageLoader and ImageSaver servers of the plug-in host: the table of
// library functions handed to modules, and the load, header and save calls.
#include <vxtools3/ckpt.h>
#include <vxtools3/host.h>
#include <vxtools3/imagefile.h>
#include <vxtools3/memory.h>

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kLoaderClass = "ImageLoader";
constexpr const char *kSaverClass = "ImageSaver";

uint64_t g_pixelLimit = IMAGEFILE_DEFAULT_PIXEL_LIMIT;
const ImageFileMonitor *g_monitor = nullptr;

// Refuses images above the pixel limit too, so that a module that forgot its own check still
// cannot allocate a lying file's size.
VxImage *CreateImage(int32_t type, int32_t width, int32_t height)
{
    if (width < 1 || height < 1 || static_cast<uint64_t>(width) * static_cast<uint64_t>(height) > g_pixelLimit)
        return nullptr;
    if (CkptBegin())
        return nullptr;
    VxImage *image = ImageCreate(type, width, height);
    CkptEnd();
    return image;
}

void *TryAlloc(size_t size) { return StdTryAlloc(size); }

VxReadStrm *ReadOpen(const char *path, const VxStrmMonitor *monitor)
{
    if (CkptBegin())
        return nullptr;
    VxReadStrm *strm = FileStrmReadOpen(path, monitor);
    CkptEnd();
    return strm;
}

VxWriteStrm *WriteOpen(const char *path)
{
    if (CkptBegin())
        return nullptr;
    VxWriteStrm *strm = FileStrmWriteOpen(path);
    CkptEnd();
    return strm;
}

VxIFFReader *ReaderCreate(VxReadStrm *strm)
{
    if (CkptBegin())
        return nullptr;
    VxIFFReader *reader = IFFRCreate(strm);
    CkptEnd();
    return reader;
}

VxIFFWriter *WriterCreate(VxWriteStrm *strm)
{
    if (CkptBegin())
        return nullptr;
    VxIFFWriter *writer = IFFWCreate(strm);
    CkptEnd();
    return writer;
}

const ImageFileServices kServices = {
    .version = IMAGEFILE_PROTOCOL,
    .create = CreateImage,
    .destroy = ImageDestroy,
    .alloc = TryAlloc,
    .free = FreeHeap,
    .ckptBeginBuf = CkptBeginBuf,
    .ckptEnd = CkptEnd,
    .readOpen = ReadOpen,
    .readClose = StrmReadDestroy,
    .writeOpen = WriteOpen,
    .writeClose = StrmWriteDestroy,
    .iffrCreate = ReaderCreate,
    .iffrFormType = IFFRFormType,
    .iffrParse = IFFRParse,
    .iffrChunkLength = IFFRChunkLength,
    .iffReadBytes = IFFReadBytes,
    .iffrDestroy = IFFRDestroy,
    .iffwCreate = WriterCreate,
    .iffwChunkOpen = IFFWChunkOpen,
    .iffwChunkClose = IFFWChunkClose,
    .iffWriteBytes = IFFWriteBytes,
    .iffWriteShorts = IFFWriteShorts,
    .iffwDestroy = IFFWDestroy,
};

// Copies `text` into the caller's buffer as one line: control characters become spaces.
void SetMessage(char *out, size_t size, const char *text)
{
    if (!out || size == 0)
        return;
    size_t n = 0;
    for (; text[n] && n + 1 < size; ++n)
        out[n] = std::iscntrl(static_cast<unsigned char>(text[n])) ? ' ' : text[n];
    out[n] = '\0';
}

// A module's message, which may lack its terminator or hold line breaks.
void TakeModuleMessage(char *out, size_t size, char (&message)[IMAGEFILE_MESSAGE_SIZE], const char *fallback)
{
    message[IMAGEFILE_MESSAGE_SIZE - 1] = '\0';
    SetMessage(out, size, message[0] ? message : fallback);
}

// Activates one server: the host's result (-1 no server, -2 module not loaded) or the
// activation's.
int32_t Activate(const char *className, const char *name, void *local)
{
    return HostActivateVer(className, name, local, IMAGEFILE_PROTOCOL);
}

const char *HostFailure(int32_t status)
{
    return status == -1 ? "no such server" : status == -2 ? "its module could not be loaded" : "refused the protocol";
}

// A loaded image must be what the loader said it made.
bool Consistent(const ImageLoaderLocal &local)
{
    const VxImage *image = local.image;
    return image && image->width == local.info.width && image->height == local.info.height &&
           image->type == local.info.pixelType;
}

void Append(char *buffer, size_t size, const char *text)
{
    const size_t used = std::strlen(buffer);
    if (used + 1 < size)
        std::snprintf(buffer + used, size - used, "%s", text);
}

int32_t Load(const char *path, bool headerOnly, VxImage **image, ImageFileInfo *info, char *message, size_t size)
{
    if (image)
        *image = nullptr;
    if (!path || (!headerOnly && !image)) {
        SetMessage(message, size, "no file or no place for the image");
        return IMAGEFILE_NO_SERVER;
    }
    struct stat st {};
    errno = 0;
    if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
        SetMessage(message, size, S_ISDIR(st.st_mode) || errno == 0 ? "not a regular file" : std::strerror(errno));
        return IMAGEFILE_IO_ERROR;
    }
    char tried[IMAGEFILE_MESSAGE_SIZE] = "";
    char missing[IMAGEFILE_MESSAGE_SIZE] = "";
    const int32_t count = HostNumServers(kLoaderClass);
    for (int32_t i = 0; i < count; ++i) {
        const char *name = ServerGetName(kLoaderClass, i);
        if (!name)
            continue;
        ImageLoaderLocal local;
        std::memset(&local, 0, sizeof local);
        local.fileName = path;
        local.services = &kServices;
        local.monitor = g_monitor;
        local.pixelLimit = g_pixelLimit;
        local.headerOnly = headerOnly ? 1 : 0;
        local.result = IMAGEFILE_NOT_MINE;
        const int32_t status = Activate(kLoaderClass, name, &local);
        if (status != 0) {
            ImageDestroy(local.image);
            char line[IMAGEFILE_MESSAGE_SIZE];
            std::snprintf(line, sizeof line, "%s%s: %s", missing[0] ? "; " : "", name, HostFailure(status));
            Append(missing, sizeof missing, line);
            continue;
        }
        Append(tried, sizeof tried, tried[0] ? ", " : "");
        Append(tried, sizeof tried, name);
        if (local.result == IMAGEFILE_NOT_MINE) {
            ImageDestroy(local.image);
            continue;
        }
        if (local.result == IMAGEFILE_OK && !headerOnly && !Consistent(local)) {
            local.result = IMAGEFILE_BAD_FILE;
            std::snprintf(local.message, sizeof local.message, "%s returned an image that does not match its header",
                          name);
        }
        if (local.result != IMAGEFILE_OK) {
            ImageDestroy(local.image);
            TakeModuleMessage(message, size, local.message, "the loader failed without a message");
            return local.result;
        }
        if (info)
            *info = local.info;
        if (image)
            *image = local.image;
        else
            ImageDestroy(local.image);
        return IMAGEFILE_OK;
    }
    char line[2 * IMAGEFILE_MESSAGE_SIZE + 64];
    std::snprintf(line, sizeof line, "not a known image format (tried %s)%s%s", tried[0] ? tried : "no loader",
                  missing[0] ? "; " : "", missing);
    SetMessage(message, size, line);
    return IMAGEFILE_BAD_FILE;
}

bool HasAlpha(const VxImage *image)
{
    return image && (image->type == VX_PIXEL_RGBA || image->type == VX_PIXEL_RGBA_FLOAT);
}

// The extension of `path` in lower case ("" when none), at most 15 characters.
void Extension(const char *path, char (&out)[16])
{
    out[0] = '\0';
    const char *dot = std::strrchr(path, '.');
    const char *slash = std::strrchr(path, '/');
    if (!dot || (slash && slash > dot) || std::strlen(dot + 1) >= sizeof out)
        return;
    size_t n = 0;
    for (const char *c = dot + 1; *c; ++c)
        out[n++] = static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
    out[n] = '\0';
}

// 1 when `name` ends in "(.EXT)" for `ext`, case ignored.
bool NamesExtension(const char *name, const char *ext)
{
    const size_t n = std::strlen(name), e = std::strlen(ext);
    if (e == 0 || n < e + 3 || name[n - 1] != ')' || name[n - e - 3] != '(' || name[n - e - 2] != '.')
        return false;
    for (size_t i = 0; i < e; ++i)
        if (std::tolower(static_cast<unsigned char>(name[n - e - 1 + i])) != ext[i])
            return false;
    return true;
}

}  // namespace

VX_API const ImageFileServices *ImageFileGetServices(void) { return &kServices; }

VX_API void ImageFileSetPixelLimit(uint64_t pixels) { g_pixelLimit = pixels ? pixels : IMAGEFILE_DEFAULT_PIXEL_LIMIT; }

VX_API uint64_t ImageFileGetPixelLimit(void) { return g_pixelLimit; }

VX_API void ImageFileSetMonitor(const ImageFileMonitor *monitor) { g_monitor = monitor; }

VX_API int32_t ImageFileLoad(const char *path, VxImage **image, ImageFileInfo *info, char *message, size_t size)
{
    return Load(path, false, image, info, message, size);
}

VX_API int32_t ImageFileReadInfo(const char *path, ImageFileInfo *info, char *message, size_t size)
{
    return Load(path, true, nullptr, info, message, size);
}

VX_API const char *ImageFileSaverFor(const char *path, const VxImage *image)
{
    if (!path)
        return nullptr;
    char ext[16];
    Extension(path, ext);
    const char *plain = nullptr, *withAlpha = nullptr, *other = nullptr;
    const int32_t count = HostNumServers(kSaverClass);
    for (int32_t i = 0; i < count; ++i) {
        const char *name = ServerGetName(kSaverClass, i);
        if (!name || !NamesExtension(name, ext))
            continue;
        if (std::strstr(name, "32("))
            withAlpha = withAlpha ? withAlpha : name;
        else if (std::strstr(name, "24("))
            plain = plain ? plain : name;
        else
            other = other ? other : name;
    }
    if (HasAlpha(image) && withAlpha)
        return withAlpha;
    return plain ? plain : other ? other : withAlpha;
}

VX_API int32_t ImageFileSave(const char *path, const char *saver, VxImage *image, int32_t quality, char *message,
                             size_t size)
{
    if (!path || !image) {
        SetMessage(message, size, "no file or no image to save");
        return IMAGEFILE_BAD_IMAGE;
    }
    const char *name = saver ? saver : ImageFileSaverFor(path, image);
    if (!name) {
        SetMessage(message, size, "no image saver for this file name's extension");
        return IMAGEFILE_NO_SERVER;
    }
    ImageSaverLocal local;
    std::memset(&local, 0, sizeof local);
    local.fileName = path;
    local.services = &kServices;
    local.monitor = g_monitor;
    local.image = image;
    local.quality = quality;
    local.result = IMAGEFILE_BAD_IMAGE;
    const int32_t status = Activate(kSaverClass, name, &local);
    if (status != 0) {
        char line[IMAGEFILE_MESSAGE_SIZE + 64];
        std::snprintf(line, sizeof line, "image saver %s: %s", name, HostFailure(status));
        SetMessage(message, size, line);
        return IMAGEFILE_NO_SERVER;
    }
    if (local.result != IMAGEFILE_OK)
        TakeModuleMessage(message, size, local.message, "the saver failed without a message");
    return local.result;
}
