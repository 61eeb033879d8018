/* PNG.p: the PNG loader and savers on libpng.
 *
 *   ImageLoader:VX_PNGLoader    every colour type and bit depth, interlaced or not: palette
 *                               files as palette indices (with tRNS as RGBA bytes), 8-bit
 *                               files as byte types, 16-bit files as float types; alpha and
 *                               tRNS kept as alpha; no gamma change
 *   ImageSaver:VX_PNG24(.png)   grey, palette, RGB; 16-bit for float images
 *   ImageSaver:VX_PNG32(.png)   RGBA; 16-bit for float images */
#include "module_util.h"

#include <png.h>
#include <stdlib.h>

typedef struct PngState {
    FILE *file;
    png_structp png;
    png_infop info;
    int32_t *result;
    char *message;
    const ImageFileServices *services;
    unsigned char *buffer; /* one row, or the whole picture when interlaced */
    size_t bufferSize;
    png_bytep *rowPointers;
    size_t rowPointersSize;
    float *floats;
    size_t floatsSize;
    int writing;
} PngState;

static void PngError(png_structp png, png_const_charp text)
{
    PngState *st = (PngState *)png_get_error_ptr(png);
    *st->result = IMAGEFILE_BAD_FILE;
    ImfMessage(st->message, "PNG: %s", text);
    png_longjmp(png, 1);
}

static void PngWarning(png_structp png, png_const_charp text)
{
    (void)png;
    (void)text;
}

static void ReleaseBuffers(PngState *st)
{
    const ImageFileServices *svc = st->services;
    if (st->buffer)
        svc->free(st->buffer, st->bufferSize);
    if (st->rowPointers)
        svc->free(st->rowPointers, st->rowPointersSize);
    if (st->floats)
        svc->free(st->floats, st->floatsSize);
    st->buffer = NULL;
    st->rowPointers = NULL;
    st->floats = NULL;
}

/* Allocates the state's buffers; 0 (result set) when memory runs out. */
static int AllocBuffers(PngState *st, size_t bufferSize, size_t pointers, size_t floats)
{
    const ImageFileServices *svc = st->services;
    st->bufferSize = bufferSize;
    st->buffer = svc->alloc(bufferSize);
    st->rowPointersSize = pointers * sizeof(png_bytep);
    st->rowPointers = pointers ? svc->alloc(st->rowPointersSize) : NULL;
    st->floatsSize = floats * sizeof(float);
    st->floats = floats ? svc->alloc(st->floatsSize) : NULL;
    if (st->buffer && (!pointers || st->rowPointers) && (!floats || st->floats))
        return 1;
    *st->result = IMAGEFILE_NO_MEMORY;
    ImfMessage(st->message, "PNG: not enough memory for the rows");
    return 0;
}

/* Sets the transformations that give the pixel type the file is held in; returns the type. */
static int32_t ChooseType(png_structp png, png_infop info, const char **colour)
{
    const int depth = png_get_bit_depth(png, info);
    const int wide = depth == 16;
    const int trns = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
    switch (png_get_color_type(png, info)) {
    case PNG_COLOR_TYPE_PALETTE:
        *colour = trns ? "palette+tRNS" : "palette";
        if (trns) {
            png_set_palette_to_rgb(png);
            png_set_tRNS_to_alpha(png);
            return VX_PIXEL_RGBA;
        }
        if (depth < 8)
            png_set_packing(png);
        return VX_PIXEL_INDEX;
    case PNG_COLOR_TYPE_GRAY:
        *colour = trns ? "grey+tRNS" : "grey";
        if (depth < 8)
            png_set_expand_gray_1_2_4_to_8(png);
        if (!trns)
            return wide ? VX_PIXEL_GREY_FLOAT : VX_PIXEL_GREY;
        png_set_tRNS_to_alpha(png);
        png_set_gray_to_rgb(png);
        return wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
        *colour = "grey+alpha";
        png_set_gray_to_rgb(png);
        return wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
    case PNG_COLOR_TYPE_RGB:
        *colour = trns ? "RGB+tRNS" : "RGB";
        if (!trns)
            return wide ? VX_PIXEL_RGB_FLOAT : VX_PIXEL_RGB;
        png_set_tRNS_to_alpha(png);
        return wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
    default:
        *colour = "RGBA";
        return wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
    }
}

/* Stores one decoded row (16-bit rows through the float buffer). */
static int StoreRow(PngState *st, VxImage *image, int32_t y, const unsigned char *row, int wide)
{
    if (!wide)
        return image->setLine(image, image->type, y, row);
    const size_t n = (size_t)image->width * (image->bytesPerPixel / sizeof(float));
    for (size_t i = 0; i < n; ++i)
        st->floats[i] = (float)((row[2 * i] << 8) | row[2 * i + 1]) / 65535.0f;
    return image->setLine(image, image->type, y, st->floats);
}

static void CopyPalette(png_structp png, png_infop info, VxImage *image)
{
    png_colorp entries = NULL;
    int count = 0;
    if (!png_get_PLTE(png, info, &entries, &count) || count <= 0)
        return;
    uint8_t rgb[768];
    for (int i = 0; i < count && i < 256; ++i) {
        rgb[3 * i] = entries[i].red;
        rgb[3 * i + 1] = entries[i].green;
        rgb[3 * i + 2] = entries[i].blue;
    }
    image->setPalette(image, 0, 0, count < 256 ? count : 256, rgb);
}

/* Decodes the rows into the image; 0 (result set) on failure. libpng errors leave by longjmp. */
static int ReadRows(PngState *st, ImageLoaderLocal *local, VxImage *image, int passes, int wide)
{
    const size_t rowBytes = png_get_rowbytes(st->png, st->info);
    const int32_t h = image->height;
    const size_t floats = wide ? (size_t)image->width * 4 : 0;
    if (passes == 1) {
        if (!AllocBuffers(st, rowBytes, 0, floats))
            return 0;
        for (int32_t y = 0; y < h; ++y) {
            png_read_row(st->png, st->buffer, NULL);
            StoreRow(st, image, y, st->buffer, wide);
            if (!ImfStep(local->monitor, &local->result, local->message, y, h))
                return 0;
        }
        return 1;
    }
    if (rowBytes > SIZE_MAX / (size_t)h) {
        *st->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(st->message, "PNG: the interlaced rows do not fit in memory");
        return 0;
    }
    if (!AllocBuffers(st, rowBytes * (size_t)h, (size_t)h, floats))
        return 0;
    for (int32_t y = 0; y < h; ++y)
        st->rowPointers[y] = st->buffer + rowBytes * (size_t)y;
    png_read_image(st->png, st->rowPointers);
    for (int32_t y = 0; y < h; ++y) {
        StoreRow(st, image, y, st->rowPointers[y], wide);
        if (!ImfStep(local->monitor, &local->result, local->message, y, h))
            return 0;
    }
    return 1;
}

static void FinishState(PngState *st)
{
    ReleaseBuffers(st);
    if (st->png && st->writing)
        png_destroy_write_struct(&st->png, &st->info);
    else if (st->png)
        png_destroy_read_struct(&st->png, &st->info, NULL);
    if (st->file)
        fclose(st->file);
    st->file = NULL;
}

static void LoadPng(ImageLoaderLocal *local)
{
    unsigned char magic[8];
    if (ImfReadMagic(local->fileName, magic, 8) != 8 || png_sig_cmp(magic, 0, 8) != 0)
        return;
    PngState st;
    memset(&st, 0, sizeof st);
    st.result = &local->result;
    st.message = local->message;
    st.services = local->services;
    VxImage *volatile image = NULL;
    local->result = IMAGEFILE_BAD_FILE;
    st.file = fopen(local->fileName, "rb");
    st.png = st.file ? png_create_read_struct(PNG_LIBPNG_VER_STRING, &st, PngError, PngWarning) : NULL;
    st.info = st.png ? png_create_info_struct(st.png) : NULL;
    if (!st.info) {
        local->result = st.file ? IMAGEFILE_NO_MEMORY : IMAGEFILE_IO_ERROR;
        ImfMessage(local->message, st.file ? "PNG: not enough memory" : "PNG: cannot open the file");
        FinishState(&st);
        return;
    }
    if (setjmp(png_jmpbuf(st.png))) {
        local->services->destroy(image);
        FinishState(&st);
        return;
    }
    png_init_io(st.png, st.file);
    png_read_info(st.png, st.info);
    const png_uint_32 width = png_get_image_width(st.png, st.info), height = png_get_image_height(st.png, st.info);
    const int depth = png_get_bit_depth(st.png, st.info);
    const char *colour = "";
    const int32_t type = ChooseType(st.png, st.info, &colour);
    ImfSetInfo(local, "PNG", width, height, type, depth, png_get_channels(st.png, st.info), colour);
    if (local->headerOnly || !ImfWithinLimit(local, "PNG", width, height)) {
        if (local->headerOnly)
            local->result = IMAGEFILE_OK;
        FinishState(&st);
        return;
    }
    const int passes = png_set_interlace_handling(st.png);
    png_read_update_info(st.png, st.info);
    image = local->services->create(type, (int32_t)width, (int32_t)height);
    if (!image) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "PNG: not enough memory for %u x %u pixels", (unsigned)width, (unsigned)height);
        FinishState(&st);
        return;
    }
    if (type == VX_PIXEL_INDEX)
        CopyPalette(st.png, st.info, image);
    if (!ReadRows(&st, local, image, passes, depth == 16)) {
        local->services->destroy(image);
        FinishState(&st);
        return;
    }
    FinishState(&st);
    local->image = image;
    local->result = IMAGEFILE_OK;
}

IMF_LOADER(ActivateLoader, LoadPng)

/* ---- Saving ----------------------------------------------------------------------------- */

typedef struct PngLayout {
    int colourType;
    int depth;
    int channels;
    int32_t fetchType; /* the type rows are fetched as from the image */
} PngLayout;

static PngLayout LayoutFor(const VxImage *image, int alpha)
{
    const int wide = ImfIsFloat(image->type);
    PngLayout l = {PNG_COLOR_TYPE_RGB, wide ? 16 : 8, 3, wide ? VX_PIXEL_RGB_FLOAT : VX_PIXEL_RGB};
    if (alpha) {
        l.colourType = PNG_COLOR_TYPE_RGB_ALPHA;
        l.channels = 4;
        l.fetchType = wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
    } else if (ImfIsGrey(image->type)) {
        l.colourType = PNG_COLOR_TYPE_GRAY;
        l.channels = 1;
        l.fetchType = image->type;
    } else if (image->type == VX_PIXEL_INDEX) {
        l.colourType = PNG_COLOR_TYPE_PALETTE;
        l.channels = 1;
        l.fetchType = VX_PIXEL_INDEX;
    }
    return l;
}

/* Writes the palette callers see (palette 1 when present, else palette 0, else a grey ramp). */
static void WritePalette(PngState *st, VxImage *image)
{
    uint8_t rgb[768];
    int count = image->getPalette(image, 1, 0, 256, rgb);
    if (count <= 0)
        count = image->getPalette(image, 0, 0, 256, rgb);
    if (count <= 0) {
        for (int i = 0; i < 256; ++i)
            rgb[3 * i] = rgb[3 * i + 1] = rgb[3 * i + 2] = (uint8_t)i;
        count = 256;
    }
    png_color entries[256];
    for (int i = 0; i < count; ++i) {
        entries[i].red = rgb[3 * i];
        entries[i].green = rgb[3 * i + 1];
        entries[i].blue = rgb[3 * i + 2];
    }
    png_set_PLTE(st->png, st->info, entries, count);
}

/* Fetches row y in the layout's form into st->buffer; 0 when the image refuses. */
static int FetchRow(PngState *st, VxImage *image, const PngLayout *l, int32_t y)
{
    if (l->depth == 8)
        return image->getLine(image, l->fetchType, y, st->buffer);
    if (!image->getLine(image, l->fetchType, y, st->floats))
        return 0;
    const size_t n = (size_t)image->width * (size_t)l->channels;
    for (size_t i = 0; i < n; ++i) {
        const uint16_t v = ImfFloatToWord(st->floats[i]);
        st->buffer[2 * i] = (unsigned char)(v >> 8);
        st->buffer[2 * i + 1] = (unsigned char)v;
    }
    return 1;
}

static void SavePng(ImageSaverLocal *local, PngLayout layout)
{
    VxImage *image = local->image;
    PngState st;
    memset(&st, 0, sizeof st);
    st.result = &local->result;
    st.message = local->message;
    st.services = local->services;
    st.writing = 1;
    const size_t samples = (size_t)image->width * (size_t)layout.channels;
    if (!AllocBuffers(&st, samples * (size_t)(layout.depth / 8), 0, layout.depth == 16 ? samples : 0)) {
        FinishState(&st);
        return;
    }
    st.file = fopen(local->fileName, "wb");
    st.png = st.file ? png_create_write_struct(PNG_LIBPNG_VER_STRING, &st, PngError, PngWarning) : NULL;
    st.info = st.png ? png_create_info_struct(st.png) : NULL;
    if (!st.info) {
        local->result = IMAGEFILE_IO_ERROR;
        ImfMessage(local->message, "PNG: cannot create the file");
        FinishState(&st);
        return;
    }
    if (setjmp(png_jmpbuf(st.png))) {
        local->result = IMAGEFILE_IO_ERROR;
        FinishState(&st);
        remove(local->fileName);
        return;
    }
    png_init_io(st.png, st.file);
    png_set_IHDR(st.png, st.info, (png_uint_32)image->width, (png_uint_32)image->height, layout.depth,
                 layout.colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (layout.colourType == PNG_COLOR_TYPE_PALETTE)
        WritePalette(&st, image);
    png_write_info(st.png, st.info);
    for (int32_t y = 0; y < image->height; ++y) {
        if (!FetchRow(&st, image, &layout, y)) {
            local->result = IMAGEFILE_BAD_IMAGE;
            ImfMessage(local->message, "PNG: row %d of the image cannot be converted", (int)y);
            FinishState(&st);
            remove(local->fileName);
            return;
        }
        png_write_row(st.png, st.buffer);
        if (!ImfStep(local->monitor, &local->result, local->message, y, image->height)) {
            FinishState(&st);
            remove(local->fileName);
            return;
        }
    }
    png_write_end(st.png, st.info);
    FILE *file = st.file;
    st.file = NULL;
    FinishState(&st);
    local->result = fclose(file) == 0 ? IMAGEFILE_OK : IMAGEFILE_IO_ERROR;
    if (local->result != IMAGEFILE_OK)
        ImfMessage(local->message, "PNG: the file could not be written completely");
}

/* VX_PNG24 drops alpha, VX_PNG32 keeps it. */
static void SaveVariant(ImageSaverLocal *local, int alpha) { SavePng(local, LayoutFor(local->image, alpha)); }

IMF_SAVER(ActivatePng24, SaveVariant, 0)
IMF_SAVER(ActivatePng32, SaveVariant, 1)

static const ServerTagDef kLoaderTags[] = {{"PNG Loader", 0}, {NULL, 0}};
static const ServerTagDef kPng24Tags[] = {{"PNG 24 bit (.png)", 0}, {NULL, 0}};
static const ServerTagDef kPng32Tags[] = {{"PNG 32 bit (.png)", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_PNGLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_PNG24(.png)", ActivatePng24, kPng24Tags},
    {"ImageSaver", "VX_PNG32(.png)", ActivatePng32, kPng32Tags},
    {NULL, NULL, NULL, NULL},
};

IMF_MODULE(kServers);
