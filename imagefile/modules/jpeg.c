/* JPEG.p: the JPEG loader and saver on libjpeg(-turbo).
 *
 *   ImageLoader:VX_JPEGLoader   grey files as grey bytes, colour files as RGB bytes (CMYK and
 *                               YCCK files converted to RGB, Adobe's inverted form)
 *   ImageSaver:VX_JPEG(.jpg)    grey images as grey, all others as RGB; quality 90 unless the
 *                               caller gives one */
#include "module_util.h"

#include <jpeglib.h>
#include <setjmp.h>

typedef struct JpegError {
    struct jpeg_error_mgr manager;
    jmp_buf resume;
    char *message;
} JpegError;

static void JpegFail(j_common_ptr cinfo)
{
    JpegError *error = (JpegError *)cinfo->err;
    char text[JMSG_LENGTH_MAX];
    cinfo->err->format_message(cinfo, text);
    ImfMessage(error->message, "JPEG: %s", text);
    longjmp(error->resume, 1);
}

static void JpegQuiet(j_common_ptr cinfo, int level)
{
    (void)cinfo;
    (void)level;
}

static void InitError(JpegError *error, char *message)
{
    jpeg_std_error(&error->manager);
    error->manager.error_exit = JpegFail;
    error->manager.emit_message = JpegQuiet;
    error->message = message;
}

/* Adobe's CMYK is stored inverted: the colour is C x K / 255 per channel. */
static void CmykToRgb(uint8_t *row, int32_t width)
{
    for (int32_t x = 0; x < width; ++x) {
        const unsigned k = row[4 * x + 3];
        for (int c = 0; c < 3; ++c)
            row[3 * x + c] = (uint8_t)((row[4 * x + c] * k + 127) / 255);
    }
}

typedef struct JpegRead {
    FILE *file;
    uint8_t *row;
    size_t rowSize;
    VxImage *image;
} JpegRead;

static void FinishRead(ImageLoaderLocal *local, JpegRead *st, struct jpeg_decompress_struct *cinfo)
{
    jpeg_destroy_decompress(cinfo);
    if (st->row)
        local->services->free(st->row, st->rowSize);
    if (st->file)
        fclose(st->file);
    local->services->destroy(st->image);
}

static const char *ColourName(J_COLOR_SPACE space)
{
    switch (space) {
    case JCS_GRAYSCALE: return "grey";
    case JCS_CMYK: return "CMYK";
    case JCS_YCCK: return "YCCK";
    case JCS_RGB: return "RGB";
    default: return "YCbCr";
    }
}

/* Reads the rows; 0 when the monitor stopped it. Decoder errors leave by longjmp. */
static int ReadRows(ImageLoaderLocal *local, JpegRead *st, struct jpeg_decompress_struct *cinfo, int cmyk)
{
    VxImage *image = st->image;
    while (cinfo->output_scanline < cinfo->output_height) {
        const int32_t y = (int32_t)cinfo->output_scanline;
        JSAMPROW rows[1] = {st->row};
        if (jpeg_read_scanlines(cinfo, rows, 1) != 1) {
            local->result = IMAGEFILE_BAD_FILE;
            ImfMessage(local->message, "JPEG: the file ends at row %d", (int)y);
            return 0;
        }
        if (cmyk)
            CmykToRgb(st->row, image->width);
        image->setLine(image, image->type, y, st->row);
        if (!ImfStep(local->monitor, &local->result, local->message, y, image->height))
            return 0;
    }
    return 1;
}

static void LoadJpeg(ImageLoaderLocal *local)
{
    unsigned char magic[3];
    if (ImfReadMagic(local->fileName, magic, 3) != 3 || magic[0] != 0xFF || magic[1] != 0xD8 || magic[2] != 0xFF)
        return;
    struct jpeg_decompress_struct cinfo;
    JpegError error;
    JpegRead st;
    memset(&st, 0, sizeof st);
    InitError(&error, local->message);
    cinfo.err = &error.manager;
    local->result = IMAGEFILE_BAD_FILE;
    if (setjmp(error.resume)) {
        FinishRead(local, &st, &cinfo);
        return;
    }
    jpeg_create_decompress(&cinfo);
    st.file = fopen(local->fileName, "rb");
    if (!st.file) {
        local->result = IMAGEFILE_IO_ERROR;
        ImfMessage(local->message, "JPEG: cannot open the file");
        FinishRead(local, &st, &cinfo);
        return;
    }
    jpeg_stdio_src(&cinfo, st.file);
    jpeg_read_header(&cinfo, TRUE);
    const int grey = cinfo.jpeg_color_space == JCS_GRAYSCALE;
    const int cmyk = cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK;
    const int32_t type = grey ? VX_PIXEL_GREY : VX_PIXEL_RGB;
    ImfSetInfo(local, "JPEG", cinfo.image_width, cinfo.image_height, type, cinfo.data_precision,
               cinfo.num_components, ColourName(cinfo.jpeg_color_space));
    if (local->headerOnly || !ImfWithinLimit(local, "JPEG", cinfo.image_width, cinfo.image_height)) {
        if (local->headerOnly)
            local->result = IMAGEFILE_OK;
        FinishRead(local, &st, &cinfo);
        return;
    }
    cinfo.out_color_space = grey ? JCS_GRAYSCALE : cmyk ? JCS_CMYK : JCS_RGB;
    jpeg_start_decompress(&cinfo);
    st.rowSize = (size_t)cinfo.output_width * 4;
    st.row = local->services->alloc(st.rowSize);
    st.image = st.row ? local->services->create(type, (int32_t)cinfo.output_width, (int32_t)cinfo.output_height) : NULL;
    if (!st.image) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, "JPEG: not enough memory for %u x %u pixels", (unsigned)cinfo.output_width,
                   (unsigned)cinfo.output_height);
        FinishRead(local, &st, &cinfo);
        return;
    }
    if (!ReadRows(local, &st, &cinfo, cmyk)) {
        FinishRead(local, &st, &cinfo);
        return;
    }
    jpeg_abort_decompress(&cinfo);
    local->image = st.image;
    st.image = NULL;
    local->result = IMAGEFILE_OK;
    FinishRead(local, &st, &cinfo);
}

IMF_LOADER(ActivateLoader, LoadJpeg)

/* ---- Saving ----------------------------------------------------------------------------- */

typedef struct JpegWrite {
    FILE *file;
    uint8_t *row;
    size_t rowSize;
    int started;
} JpegWrite;

static void FinishWrite(ImageSaverLocal *local, JpegWrite *st, struct jpeg_compress_struct *cinfo, int failed)
{
    jpeg_destroy_compress(cinfo);
    if (st->row)
        local->services->free(st->row, st->rowSize);
    if (st->file && fclose(st->file) != 0 && !failed) {
        failed = 1;
        local->result = IMAGEFILE_IO_ERROR;
        ImfMessage(local->message, "JPEG: the file could not be written completely");
    }
    if (failed && st->file)
        remove(local->fileName);
}

/* The module's one saver: JPEG keeps no alpha, so there is no variant to tell apart. */
static void SaveJpeg(ImageSaverLocal *local, int variant)
{
    (void)variant;
    VxImage *image = local->image;
    struct jpeg_compress_struct cinfo;
    JpegError error;
    JpegWrite st;
    memset(&st, 0, sizeof st);
    InitError(&error, local->message);
    cinfo.err = &error.manager;
    local->result = IMAGEFILE_IO_ERROR;
    if (setjmp(error.resume)) {
        FinishWrite(local, &st, &cinfo, 1);
        return;
    }
    jpeg_create_compress(&cinfo);
    const int grey = ImfIsGrey(image->type);
    st.rowSize = (size_t)image->width * 3;
    st.row = local->services->alloc(st.rowSize);
    st.file = st.row ? fopen(local->fileName, "wb") : NULL;
    if (!st.file) {
        ImfMessage(local->message, st.row ? "JPEG: cannot create the file" : "JPEG: not enough memory");
        FinishWrite(local, &st, &cinfo, 0);
        return;
    }
    jpeg_stdio_dest(&cinfo, st.file);
    cinfo.image_width = (JDIMENSION)image->width;
    cinfo.image_height = (JDIMENSION)image->height;
    cinfo.input_components = grey ? 1 : 3;
    cinfo.in_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, local->quality >= 1 && local->quality <= 100 ? local->quality : 90, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    const int32_t fetch = grey ? VX_PIXEL_GREY : VX_PIXEL_RGB;
    for (int32_t y = 0; y < image->height; ++y) {
        JSAMPROW rows[1] = {st.row};
        if (!image->getLine(image, fetch, y, st.row)) {
            local->result = IMAGEFILE_BAD_IMAGE;
            ImfMessage(local->message, "JPEG: row %d of the image cannot be converted", (int)y);
            FinishWrite(local, &st, &cinfo, 1);
            return;
        }
        jpeg_write_scanlines(&cinfo, rows, 1);
        if (!ImfStep(local->monitor, &local->result, local->message, y, image->height)) {
            FinishWrite(local, &st, &cinfo, 1);
            return;
        }
    }
    jpeg_finish_compress(&cinfo);
    local->result = IMAGEFILE_OK;
    FinishWrite(local, &st, &cinfo, 0);
}

IMF_SAVER(ActivateSaver, SaveJpeg, 0)

static const ServerTagDef kLoaderTags[] = {{"JPEG Loader", 0}, {NULL, 0}};
static const ServerTagDef kSaverTags[] = {{"JPEG (.jpg)", 0}, {NULL, 0}};

static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_JPEGLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_JPEG(.jpg)", ActivateSaver, kSaverTags},
    {NULL, NULL, NULL, NULL},
};

IMF_MODULE(kServers);
