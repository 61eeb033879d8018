/* TIFF.p: the TIFF loader and savers on libtiff.
 *
 *   ImageLoader:VX_TIFFLoader   grey, grey+alpha, RGB and RGBA strips of 8 bits as byte types,
 *                               of 16 bits or 32-bit floats as float types; 8-bit palette files
 *                               as palette indices; every other kind (tiles, planes, CMYK,
 *                               YCbCr, 1..4 bits ...) through libtiff's RGBA reader as RGBA bytes
 *   ImageSaver:VX_TIFF24(.tif)  grey images as grey, others as RGB
 *   ImageSaver:VX_TIFF32(.tif)  RGBA (unassociated alpha)
 * Float images are saved with 16 bits per channel; strips are deflate-compressed. */
#include "module_util.h"

#include <tiffio.h>

/* Where libtiff's complaints go: the first error becomes the message. */
typedef struct TiffSink {
    char *message;
    int failed;
} TiffSink;

static int OnError(TIFF *tif, void *data, const char *module, const char *format, va_list args)
{
    (void)tif;
    (void)module;
    TiffSink *sink = (TiffSink *)data;
    if (!sink->failed) {
        char text[IMAGEFILE_MESSAGE_SIZE];
        vsnprintf(text, sizeof text, format, args);
        ImfMessage(sink->message, "TIFF: %s", text);
    }
    sink->failed = 1;
    return 1;
}

static int OnWarning(TIFF *tif, void *data, const char *module, const char *format, va_list args)
{
    (void)tif;
    (void)data;
    (void)module;
    (void)format;
    (void)args;
    return 1;
}

static TIFF *Open(const char *path, const char *mode, TiffSink *sink)
{
    TIFFOpenOptions *options = TIFFOpenOptionsAlloc();
    if (!options)
        return NULL;
    TIFFOpenOptionsSetErrorHandlerExtR(options, OnError, sink);
    TIFFOpenOptionsSetWarningHandlerExtR(options, OnWarning, NULL);
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, (tmsize_t)1 << 30);
    TIFF *tif = TIFFOpenExt(path, mode, options);
    TIFFOpenOptionsFree(options);
    return tif;
}

typedef struct TiffLayout {
    uint32_t width, height;
    uint16_t spp, bps, photometric, planar, format;
    int direct; /* 1 when the strips are read as they are stored */
    int32_t type;
    const char *colour;
} TiffLayout;

static TiffLayout ReadLayout(TIFF *tif)
{
    TiffLayout l;
    memset(&l, 0, sizeof l);
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &l.width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &l.height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &l.spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &l.bps);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &l.planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &l.format);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &l.photometric))
        l.photometric = l.spp >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    const int grey = l.photometric == PHOTOMETRIC_MINISBLACK, rgb = l.photometric == PHOTOMETRIC_RGB;
    const int alpha = (grey && l.spp == 2) || (rgb && l.spp == 4);
    const int wide = l.bps == 16 || (l.bps == 32 && l.format == SAMPLEFORMAT_IEEEFP);
    const int plain = !TIFFIsTiled(tif) && l.planar == PLANARCONFIG_CONTIG;
    const int samples = (grey && (l.spp == 1 || l.spp == 2)) || (rgb && (l.spp == 3 || l.spp == 4));
    const int sampleKind = (l.bps == 8 || l.bps == 16) ? l.format == SAMPLEFORMAT_UINT : wide;
    l.colour = grey ? (alpha ? "grey+alpha" : "grey")
               : rgb ? (alpha ? "RGBA" : "RGB")
               : l.photometric == PHOTOMETRIC_PALETTE ? "palette"
               : l.photometric == PHOTOMETRIC_SEPARATED ? "CMYK"
               : l.photometric == PHOTOMETRIC_YCBCR ? "YCbCr"
               : l.photometric == PHOTOMETRIC_MINISWHITE ? "grey (white 0)" : "other";
    if (plain && samples && sampleKind) {
        l.direct = 1;
        l.type = alpha ? (wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA)
                 : grey ? (wide ? VX_PIXEL_GREY_FLOAT : VX_PIXEL_GREY) : (wide ? VX_PIXEL_RGB_FLOAT : VX_PIXEL_RGB);
    } else if (plain && l.photometric == PHOTOMETRIC_PALETTE && l.bps == 8 && l.spp == 1) {
        l.direct = 1;
        l.type = VX_PIXEL_INDEX;
    } else {
        l.type = VX_PIXEL_RGBA;
    }
    return l;
}

/* Converts one stored row (of `l`) into the image's pixels in `out`. */
static void ConvertRow(const TiffLayout *l, const uint8_t *in, void *out, uint32_t width)
{
    const size_t spp = l->spp, wanted = l->spp == 2 ? 4 : spp, n = (size_t)width * wanted;
    for (size_t i = 0; i < n; ++i) {
        const size_t x = i / wanted, c = i % wanted;
        const size_t from = x * spp + (l->spp == 2 ? (c == 3 ? 1 : 0) : c);
        if (l->bps == 8)
            ((uint8_t *)out)[i] = in[from];
        else if (l->bps == 16)
            ((float *)out)[i] = (float)((const uint16_t *)(const void *)in)[from] / 65535.0f;
        else
            ((float *)out)[i] = ((const float *)(const void *)in)[from];
    }
}

static void CopyColormap(TIFF *tif, VxImage *image)
{
    uint16_t *red = NULL, *green = NULL, *blue = NULL;
    if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue))
        return;
    uint8_t rgb[768];
    for (int i = 0; i < 256; ++i) {
        rgb[3 * i] = (uint8_t)(red[i] >> 8);
        rgb[3 * i + 1] = (uint8_t)(green[i] >> 8);
        rgb[3 * i + 2] = (uint8_t)(blue[i] >> 8);
    }
    image->setPalette(image, 0, 0, 256, rgb);
}

static int ReadDirect(ImageLoaderLocal *local, TIFF *tif, const TiffLayout *l, VxImage *image, TiffSink *sink)
{
    const ImageFileServices *svc = local->services;
    const tmsize_t lineSize = TIFFScanlineSize(tif);
    const size_t outSize = (size_t)l->width * 16;
    uint8_t *line = lineSize > 0 ? svc->alloc((size_t)lineSize) : NULL;
    uint8_t *out = svc->alloc(outSize);
    int ok = line && out;
    for (uint32_t y = 0; ok == 1 && y < l->height; ++y) {
        ok = TIFFReadScanline(tif, line, y, 0) >= 0 && !sink->failed;
        if (ok) {
            if (l->type == VX_PIXEL_INDEX)
                memcpy(out, line, l->width);
            else
                ConvertRow(l, line, out, l->width);
            image->setLine(image, image->type, (int32_t)y, out);
        }
        if (ok && !ImfStep(local->monitor, &local->result, local->message, (int32_t)y, (int32_t)l->height))
            ok = -1;
    }
    if (!line || !out) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "TIFF: not enough memory for a row");
    } else if (ok == 0 && !sink->failed) {
        ImfMessage(local->message, "TIFF: a row cannot be read");
    }
    if (line)
        svc->free(line, (size_t)lineSize);
    if (out)
        svc->free(out, outSize);
    return ok == 1;
}

/* Every other kind, through libtiff's RGBA reader (8 bits, associated alpha undone). */
static int ReadRgba(ImageLoaderLocal *local, TIFF *tif, const TiffLayout *l, VxImage *image, TiffSink *sink)
{
    const ImageFileServices *svc = local->services;
    const size_t size = (size_t)l->width * l->height * sizeof(uint32_t);
    uint32_t *raster = svc->alloc(size);
    if (!raster) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "TIFF: not enough memory for %u x %u pixels", (unsigned)l->width, (unsigned)l->height);
        return 0;
    }
    const int ok = TIFFReadRGBAImageOriented(tif, l->width, l->height, raster, ORIENTATION_TOPLEFT, 0) && !sink->failed;
    for (uint32_t y = 0; ok && y < l->height; ++y) {
        uint8_t *row = (uint8_t *)(raster + (size_t)y * l->width);
        for (uint32_t x = 0; x < l->width; ++x) {
            const uint32_t v = raster[(size_t)y * l->width + x];
            const uint8_t rgba[4] = {(uint8_t)TIFFGetR(v), (uint8_t)TIFFGetG(v), (uint8_t)TIFFGetB(v), (uint8_t)TIFFGetA(v)};
            memcpy(row + 4 * x, rgba, 4);
        }
        image->setLine(image, VX_PIXEL_RGBA, (int32_t)y, row);
    }
    if (!ok && !sink->failed)
        ImfMessage(local->message, "TIFF: the pixels cannot be read");
    svc->free(raster, size);
    return ok;
}

static void LoadTiff(ImageLoaderLocal *local)
{
    unsigned char magic[4];
    if (ImfReadMagic(local->fileName, magic, 4) != 4 ||
        !((magic[0] == 'I' && magic[1] == 'I' && (magic[2] == 42 || magic[2] == 43) && magic[3] == 0) ||
          (magic[0] == 'M' && magic[1] == 'M' && magic[2] == 0 && (magic[3] == 42 || magic[3] == 43))))
        return;
    TiffSink sink = {local->message, 0};
    local->result = IMAGEFILE_BAD_FILE;
    TIFF *tif = Open(local->fileName, "r", &sink);
    if (!tif) {
        if (!sink.failed)
            ImfMessage(local->message, "TIFF: cannot open the file");
        return;
    }
    const TiffLayout l = ReadLayout(tif);
    ImfSetInfo(local, "TIFF", l.width, l.height, l.type, l.bps, l.spp, l.colour);
    if (local->headerOnly || !ImfWithinLimit(local, "TIFF", l.width, l.height)) {
        if (local->headerOnly)
            local->result = IMAGEFILE_OK;
        TIFFClose(tif);
        return;
    }
    VxImage *image = local->services->create(l.type, (int32_t)l.width, (int32_t)l.height);
    if (!image) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "TIFF: not enough memory for %u x %u pixels", (unsigned)l.width, (unsigned)l.height);
        TIFFClose(tif);
        return;
    }
    if (l.type == VX_PIXEL_INDEX)
        CopyColormap(tif, image);
    const int ok = l.direct ? ReadDirect(local, tif, &l, image, &sink) : ReadRgba(local, tif, &l, image, &sink);
    TIFFClose(tif);
    if (!ok) {
        local->services->destroy(image);
        return;
    }
    local->image = image;
    local->result = IMAGEFILE_OK;
}

IMF_LOADER(ActivateLoader, LoadTiff)

/* ---- Saving ----------------------------------------------------------------------------- */

static int WriteRows(ImageSaverLocal *local, TIFF *tif, int32_t fetch, int channels, int wide, uint8_t *row, float *floats)
{
    VxImage *image = local->image;
    const size_t n = (size_t)image->width * (size_t)channels;
    for (int32_t y = 0; y < image->height; ++y) {
        if (!image->getLine(image, fetch, y, wide ? (void *)floats : (void *)row))
            return 0;
        for (size_t i = 0; wide && i < n; ++i)
            ((uint16_t *)(void *)row)[i] = ImfFloatToWord(floats[i]);
        if (TIFFWriteScanline(tif, row, (uint32_t)y, 0) < 0)
            return 0;
        if (!ImfStep(local->monitor, &local->result, local->message, y, image->height))
            return -1;
    }
    return 1;
}

static void SaveTiff(ImageSaverLocal *local, int alpha)
{
    VxImage *image = local->image;
    const ImageFileServices *svc = local->services;
    const int wide = ImfIsFloat(image->type), grey = !alpha && ImfIsGrey(image->type);
    const int channels = grey ? 1 : alpha ? 4 : 3;
    const int32_t fetch = grey ? (wide ? VX_PIXEL_GREY_FLOAT : VX_PIXEL_GREY)
                          : alpha ? (wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA) : (wide ? VX_PIXEL_RGB_FLOAT : VX_PIXEL_RGB);
    const size_t samples = (size_t)image->width * (size_t)channels;
    const size_t rowSize = samples * (wide ? 2 : 1), floatSize = wide ? samples * sizeof(float) : 0;
    uint8_t *row = svc->alloc(rowSize);
    float *floats = wide ? svc->alloc(floatSize) : NULL;
    TiffSink sink = {local->message, 0};
    TIFF *tif = row && (!wide || floats) ? Open(local->fileName, "w", &sink) : NULL;
    int ok = tif != NULL;
    if (tif) {
        const uint16_t extra[1] = {EXTRASAMPLE_UNASSALPHA};
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, (uint32_t)image->width);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, (uint32_t)image->height);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, (uint16_t)channels);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, (uint16_t)(wide ? 16 : 8));
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, grey ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
        TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
        if (alpha)
            TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, extra);
        ok = WriteRows(local, tif, fetch, channels, wide, row, floats);
        TIFFClose(tif);
    }
    if (row)
        svc->free(row, rowSize);
    if (floats)
        svc->free(floats, floatSize);
    local->result = ok == 1 ? IMAGEFILE_OK : ok < 0 ? IMAGEFILE_ABORTED : IMAGEFILE_IO_ERROR;
    if (ok == 0 && !sink.failed)
        ImfMessage(local->message, "TIFF: %s", tif ? "the file could not be written" : "cannot create the file");
    if (ok != 1 && tif)
        remove(local->fileName);
}

IMF_SAVER(Activate24, SaveTiff, 0)
IMF_SAVER(Activate32, SaveTiff, 1)

static const ServerTagDef kLoaderTags[] = {{"TIFF Loader", 0}, {NULL, 0}};
static const ServerTagDef k24Tags[] = {{"TIFF 24 bit (.tif)", 0}, {NULL, 0}};
static const ServerTagDef k32Tags[] = {{"TIFF 32 bit (.tif)", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_TIFFLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_TIFF24(.tif)", Activate24, k24Tags},
    {"ImageSaver", "VX_TIFF32(.tif)", Activate32, k32Tags},
    {NULL, NULL, NULL, NULL},
};

IMF_MODULE(kServers);
