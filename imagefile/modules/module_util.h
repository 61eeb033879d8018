/* Helpers shared by the image loader and saver modules. Each module is one C file built as a
 * plug-in module that links against nothing of the library: it works on the records of
 * vxtools3/imagefile.h and calls the library only through the services table. */
#ifndef VX_IMAGEFILE_MODULE_UTIL_H
#define VX_IMAGEFILE_MODULE_UTIL_H

#include <vxtools3/host.h>
#include <vxtools3/imagefile.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

/* Rows between two monitor steps. */
#define IMF_STEP_ROWS 64

static inline void ImfMessage(char *message, const char *format, ...) VX_PRINTF(2, 3);
static inline void ImfMessage(char *message, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(message, IMAGEFILE_MESSAGE_SIZE, format, args);
    va_end(args);
}

/* Reads the first `n` bytes of `path` into `out`; the number read, or -1 when the file cannot
 * be opened. */
static inline int ImfReadMagic(const char *path, unsigned char *out, int n)
{
    FILE *file = fopen(path, "rb");
    if (!file)
        return -1;
    const int got = (int)fread(out, 1, (size_t)n, file);
    fclose(file);
    return got;
}

/* Fills the header part of the loader's answer. */
static inline void ImfSetInfo(ImageLoaderLocal *local, const char *format, uint32_t width, uint32_t height, int32_t type,
                       int32_t bitDepth, int32_t channels, const char *colour)
{
    ImageFileInfo *info = &local->info;
    info->width = width > 0x7FFFFFFFu ? 0x7FFFFFFF : (int32_t)width;
    info->height = height > 0x7FFFFFFFu ? 0x7FFFFFFF : (int32_t)height;
    info->pixelType = type;
    info->bitDepth = bitDepth;
    info->channels = channels;
    snprintf(info->format, sizeof info->format, "%s", format);
    snprintf(info->colour, sizeof info->colour, "%s", colour);
}

/* 1 when width x height is non-empty and within the pixel limit; else sets the result and
 * message and returns 0. Called before anything of the picture's size is allocated. */
static inline int ImfWithinLimit(ImageLoaderLocal *local, const char *format, uint64_t width, uint64_t height)
{
    if (width == 0 || height == 0) {
        local->result = IMAGEFILE_BAD_FILE;
        ImfMessage(local->message, "%s: the file claims %llu x %llu pixels", format, (unsigned long long)width,
                   (unsigned long long)height);
        return 0;
    }
    if (width > 0x7FFFFFFF || height > 0x7FFFFFFF || width * height > local->pixelLimit) {
        local->result = IMAGEFILE_TOO_LARGE;
        ImfMessage(local->message, "%s: %llu x %llu pixels is more than the limit of %llu pixels", format,
                   (unsigned long long)width, (unsigned long long)height, (unsigned long long)local->pixelLimit);
        return 0;
    }
    return 1;
}

/* Steps the monitor after row y; 0 (with result and message set) when it asks to stop. */
static inline int ImfStep(const ImageFileMonitor *monitor, int32_t *result, char *message, int32_t y, int32_t rows)
{
    if (!monitor || !monitor->step || ((y + 1) % IMF_STEP_ROWS != 0 && y + 1 != rows))
        return 1;
    if (!monitor->step(monitor->context, y + 1, rows))
        return 1;
    *result = IMAGEFILE_ABORTED;
    ImfMessage(message, "stopped at row %d of %d", (int)(y + 1), (int)rows);
    return 0;
}

/* 16-bit samples to floats v / 65535 and back (rounded, clamped), so that every 16-bit value
 * survives the round trip. */
static inline void ImfWordsToFloats(const uint16_t *in, float *out, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = (float)in[i] / 65535.0f;
}

static inline uint16_t ImfFloatToWord(float v)
{
    if (!(v > 0.0f))
        return 0;
    if (v >= 1.0f)
        return 65535;
    return (uint16_t)(v * 65535.0f + 0.5f);
}

/* The image's type class: 1 when it holds alpha, `floats` 1 when it holds float channels,
 * `grey` 1 for the grey types. */
static inline int ImfHasAlpha(int32_t type) { return type == VX_PIXEL_RGBA || type == VX_PIXEL_RGBA_FLOAT; }
static inline int ImfIsFloat(int32_t type)
{
    return type == VX_PIXEL_GREY_FLOAT || type == VX_PIXEL_RGB_FLOAT || type == VX_PIXEL_RGBA_FLOAT;
}
static inline int ImfIsGrey(int32_t type) { return type == VX_PIXEL_GREY || type == VX_PIXEL_GREY_FLOAT; }

/* Checks a saver's local data; 0 (with a message when possible) when it cannot be used. */
static inline int ImfSaverReady(ImageSaverLocal *local)
{
    if (!local->image || !local->fileName || !local->services) {
        local->result = IMAGEFILE_BAD_IMAGE;
        ImfMessage(local->message, "no image or file name to save");
        return 0;
    }
    return 1;
}

#define IMF_CHECK_VERSION(version, local) \
    if ((version) != IMAGEFILE_PROTOCOL || !(local)) \
        return 1

/* The body of every loader's activation: the file is not the module's until its loader says
 * otherwise, and `load` runs only on local data it can use. */
static inline int32_t ImfRunLoader(int32_t version, void *local, void (*load)(ImageLoaderLocal *))
{
    IMF_CHECK_VERSION(version, local);
    ImageLoaderLocal *l = (ImageLoaderLocal *)local;
    l->result = IMAGEFILE_NOT_MINE;
    l->image = NULL;
    if (l->fileName && l->services)
        load(l);
    return 0;
}

/* The body of every saver's activation; `variant` tells the module's savers apart (alpha kept,
 * compression). */
static inline int32_t ImfRunSaver(int32_t version, void *local, void (*save)(ImageSaverLocal *, int), int variant)
{
    IMF_CHECK_VERSION(version, local);
    ImageSaverLocal *l = (ImageSaverLocal *)local;
    if (ImfSaverReady(l))
        save(l, variant);
    return 0;
}

/* Activation functions with the host's signature over the two bodies above. */
#define IMF_LOADER(name, load) \
    static int32_t name(int32_t version, HostGlobalFunc *global, void *local, void *serverData) \
    { \
        (void)global; \
        (void)serverData; \
        return ImfRunLoader(version, local, load); \
    }
#define IMF_SAVER(name, save, variant) \
    static int32_t name(int32_t version, HostGlobalFunc *global, void *local, void *serverData) \
    { \
        (void)global; \
        (void)serverData; \
        return ImfRunSaver(version, local, save, variant); \
    }

#define IMF_MODULE(servers) \
    static void *ImfStartup(void) { return (void *)1; } \
    static void ImfShutdown(void *data) { (void)data; } \
    VX_API const ModuleDescriptor _mod_descrip = {MODULE_SYNC, 3, MODULE_CPU_TYPE, ImfStartup, ImfShutdown, servers}

#endif
