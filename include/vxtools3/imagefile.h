/* vxtools3 — image files: the ImageLoader and ImageSaver protocol and the library calls that
 * load, save and inspect pictures through those plug-in servers.
 *
 * Loaders and savers are plug-in servers of the classes "ImageLoader" and "ImageSaver"
 * (modules PNG.p, JPEG.p, TIFF.p, BMP.p, TGA.p, PSD.p, IFF.p, PICT.p, QTTools.p). The host
 * activates them with version IMAGEFILE_PROTOCOL and an ImageLoaderLocal or ImageSaverLocal as
 * local data. An activation returns 0 when it followed the protocol (the outcome is then in
 * `result` and `message`) and non-zero when it could not (an unknown version).
 *
 * Files are outside data: a loader checks the size the file claims against `pixelLimit`
 * before it allocates anything, and reports every problem as a result code and one line of
 * text, never by crashing or printing.
 *
 * Pixels are kept: 8-bit data lands in the byte types, 16-bit and float data in the float
 * types (grey float, RGB float, RGBA float; 16-bit values v as v / 65535), palettes in the
 * palette type where the format has one (palette 0), alpha in the RGBA types. No gamma or
 * colour-space change is made. Savers that can store 16 bits write float images that way. */
#ifndef VXTOOLS3_IMAGEFILE_H
#define VXTOOLS3_IMAGEFILE_H

#include <setjmp.h>
#include <stddef.h>

#include "common.h"
#include "iff.h"
#include "image.h"
#include "streams.h"

VX_BEGIN_DECLS

/* The activation version of both classes. */
#define IMAGEFILE_PROTOCOL 1
/* Pixels an image may have unless ImageFileSetPixelLimit says otherwise (2^28). */
#define IMAGEFILE_DEFAULT_PIXEL_LIMIT 268435456ull
enum { IMAGEFILE_MESSAGE_SIZE = 200 };

/* Result codes of activations and library calls. */
enum {
    IMAGEFILE_OK = 0,
    IMAGEFILE_NOT_MINE = 1,    /* loader: not a file of its format (nothing done) */
    IMAGEFILE_BAD_FILE = 2,    /* damaged, truncated or an unsupported variant of the format */
    IMAGEFILE_TOO_LARGE = 3,   /* more pixels than the pixel limit (nothing allocated) */
    IMAGEFILE_NO_MEMORY = 4,
    IMAGEFILE_IO_ERROR = 5,    /* the file cannot be opened, read or written */
    IMAGEFILE_UNAVAILABLE = 6, /* the format is not available on this platform */
    IMAGEFILE_ABORTED = 7,     /* the monitor asked to stop */
    IMAGEFILE_NO_SERVER = 8,   /* no such loader or saver, or its module cannot be loaded */
    IMAGEFILE_BAD_IMAGE = 9    /* saver: the image cannot be written in this format */
};

/* What a file holds, as a loader reads it from the header. */
typedef struct ImageFileInfo {
    int32_t width;
    int32_t height;
    int32_t pixelType; /* the VX_PIXEL_ type the loader creates */
    int32_t bitDepth;  /* bits per channel in the file (per index for palettes) */
    int32_t channels;  /* channels stored in the file (1 for palette indices) */
    char format[16];   /* "PNG", "JPEG", "TIFF", "BMP", "TGA", "PSD", "ILBM" ... */
    char colour[24];   /* "grey", "grey+alpha", "RGB", "RGBA", "palette", "CMYK", "HAM" ... */
} ImageFileInfo;

/* Progress of a load or save: step(context, rowsDone, rows) returns non-zero to stop. */
typedef struct ImageFileMonitor {
    void *context;
    int (*step)(void *context, int32_t rowsDone, int32_t rows);
} ImageFileMonitor;

/* The library functions a module may call; modules link against nothing and reach the
 * library only through this table. No entry raises through a checkpoint block: `create`
 * returns NULL when memory runs out or the image would exceed the pixel limit, `alloc`
 * returns NULL (memory is zero-filled; free it with its size). The IFF functions behave as
 * in iff.h: reader failures raise through the innermost checkpoint block, so a module that
 * reads IFF opens its own block with `ckptBeginBuf` (setjmp on the returned context) and
 * closes it with `ckptEnd`. */
typedef struct ImageFileServices {
    int32_t version; /* IMAGEFILE_PROTOCOL */
    VxImage *(*create)(int32_t type, int32_t width, int32_t height);
    void (*destroy)(VxImage *image);
    void *(*alloc)(size_t size);
    void (*free)(void *block, size_t size);
    jmp_buf *(*ckptBeginBuf)(void);
    void (*ckptEnd)(void);
    VxReadStrm *(*readOpen)(const char *path, const VxStrmMonitor *monitor);
    void (*readClose)(VxReadStrm *strm);
    VxWriteStrm *(*writeOpen)(const char *path);
    int32_t (*writeClose)(VxWriteStrm *strm);
    VxIFFReader *(*iffrCreate)(VxReadStrm *strm);
    void (*iffrFormType)(VxIFFReader *reader, uint32_t type);
    uint32_t (*iffrParse)(VxIFFReader *reader, const uint32_t *stopIds);
    int32_t (*iffrChunkLength)(VxIFFReader *reader);
    int32_t (*iffReadBytes)(VxIFFReader *reader, void *buf, int32_t count);
    void (*iffrDestroy)(VxIFFReader *reader);
    VxIFFWriter *(*iffwCreate)(VxWriteStrm *strm);
    int32_t (*iffwChunkOpen)(VxIFFWriter *writer, uint32_t id, uint32_t type);
    int32_t (*iffwChunkClose)(VxIFFWriter *writer);
    int32_t (*iffWriteBytes)(VxIFFWriter *writer, const void *buf, int32_t n);
    int32_t (*iffWriteShorts)(VxIFFWriter *writer, const void *buf, int32_t n);
    void (*iffwDestroy)(VxIFFWriter *writer);
} ImageFileServices;

/* Local data of an ImageLoader activation. The loader reads the header of `fileName`; a file
 * not of its format gives IMAGEFILE_NOT_MINE and nothing else. Otherwise it fills `info`,
 * and unless `headerOnly` is set, creates `image` (through services->create) of
 * info.pixelType and fills it. On any failure `image` is left NULL. */
typedef struct ImageLoaderLocal {
    const char *fileName;
    const ImageFileServices *services;
    const ImageFileMonitor *monitor; /* may be NULL */
    uint64_t pixelLimit;             /* width x height above this: IMAGEFILE_TOO_LARGE */
    int32_t headerOnly;
    VxImage *image;                  /* out */
    ImageFileInfo info;              /* out */
    int32_t result;                  /* out: IMAGEFILE_ code */
    char message[IMAGEFILE_MESSAGE_SIZE]; /* out: one line when result is not OK */
} ImageLoaderLocal;

/* Local data of an ImageSaver activation: writes `image` to `fileName`. Savers named ...24
 * write no alpha, ...32 write the alpha channel (opaque when the image has none). */
typedef struct ImageSaverLocal {
    const char *fileName;
    const ImageFileServices *services;
    const ImageFileMonitor *monitor; /* may be NULL */
    VxImage *image;
    int32_t quality;                 /* lossy savers: 1 .. 100, 0 for the saver's default */
    int32_t result;                  /* out: IMAGEFILE_ code */
    char message[IMAGEFILE_MESSAGE_SIZE]; /* out: one line when result is not OK */
} ImageSaverLocal;

/* ---- Library calls for applications (the host must be running) ----------------------- */

/* The services table the library hands to loaders and savers, for applications that activate
 * an ImageLoader or ImageSaver server themselves. */
VX_API const ImageFileServices *ImageFileGetServices(void);
/* Sets the pixel limit of later loads (0 restores IMAGEFILE_DEFAULT_PIXEL_LIMIT). */
VX_API void ImageFileSetPixelLimit(uint64_t pixels);
/* Returns the pixel limit in force. */
VX_API uint64_t ImageFileGetPixelLimit(void);
/* Sets the monitor handed to later loads and saves (NULL for none; the record is kept, not
 * copied). */
VX_API void ImageFileSetMonitor(const ImageFileMonitor *monitor);

/* Loads `path` by trying the ImageLoader servers the host knows, in the host's order (byte
 * order of their names); the first that does not answer IMAGEFILE_NOT_MINE decides. `info`
 * may be NULL. Returns IMAGEFILE_OK with the new image in *image, or a code with *image NULL
 * and one line in `message` (size bytes, may be NULL); a file no loader takes gets
 * IMAGEFILE_BAD_FILE and a message naming the loaders tried. */
VX_API int32_t ImageFileLoad(const char *path, VxImage **image, ImageFileInfo *info, char *message, size_t size);
/* As ImageFileLoad, reading only the header: fills `info`, creates no image. */
VX_API int32_t ImageFileReadInfo(const char *path, ImageFileInfo *info, char *message, size_t size);
/* Saves `image` to `path` through the ImageSaver server `saver` (NULL: ImageFileSaverFor).
 * Returns IMAGEFILE_OK or a code with one line in `message`. */
VX_API int32_t ImageFileSave(const char *path, const char *saver, VxImage *image, int32_t quality, char *message,
                             size_t size);
/* Returns the name of the ImageSaver server whose name ends in "(.EXT)" for the extension of
 * `path` (case ignored): the ...32 one when the image has alpha, else the ...24 one, else
 * the only one. NULL when none fits. The name belongs to the host. */
VX_API const char *ImageFileSaverFor(const char *path, const VxImage *image);

VX_END_DECLS

#endif
