/* BMP.p, TGA.p and PSD.p: the formats read through stb_image and written through
 * stb_image_write (PSD by the small writer below). Built once per module, with IMF_BMP,
 * IMF_TGA or IMF_PSD defined.
 *
 *   BMP.p  ImageLoader:VX_BMPLoader; ImageSaver:VX_BMP24(.bmp), VX_BMP32(.bmp)
 *   TGA.p  ImageLoader:VX_TGALoader; ImageSaver:VX_TGA24(.tga), VX_TGA32(.tga) (run-length)
 *   PSD.p  ImageLoader:VX_PShopLoader (8 and 16 bits, the merged picture);
 *          ImageSaver:VX_PShop24(.psd), VX_PShop32(.psd) (uncompressed; 16-bit for float images)
 *
 * stb expands palettes and grey+alpha, so palette BMP and TGA files arrive as RGB bytes and
 * grey+alpha as RGBA. */
#include "module_util.h"

#include <stdlib.h>

#define STBI_FAILURE_USERMSG
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_NO_LINEAR
#define STBI_NO_HDR
#if defined(IMF_BMP)
#define STBI_ONLY_BMP
#define IMF_FORMAT "BMP"
#elif defined(IMF_TGA)
#define STBI_ONLY_TGA
#define IMF_FORMAT "TGA"
#else
#define STBI_ONLY_PSD
#define IMF_FORMAT "PSD"
#endif
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#if defined(IMF_PSD)
static uint32_t Be16(const unsigned char *p) { return (uint32_t)p[0] << 8 | (uint32_t)p[1]; }
#else
static uint32_t Le16(const unsigned char *p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }
#endif

/* What the header says beyond stb's size: bits per channel, colour model and, where stb's
 * own answer is not the file's (PSD), the channels to ask for. Returns 0 when the file is not
 * of the module's format. */
static int ReadHeader(const unsigned char *h, int n, int32_t *depth, const char **colour, int *comp)
{
    *comp = 0;
#if defined(IMF_BMP)
    if (n < 30 || h[0] != 'B' || h[1] != 'M')
        return 0;
    const uint32_t bits = Le16(h + 28);
    *depth = bits >= 24 ? 8 : (int32_t)bits;
    *colour = bits <= 8 ? "palette" : bits == 32 ? "RGBA" : "RGB";
    return 1;
#elif defined(IMF_TGA)
    /* TGA has no signature: the header's fields must all be ones the format allows. */
    if (n < 18)
        return 0;
    const unsigned mapType = h[1], type = h[2], mapBits = h[7], bits = h[16];
    const int mapped = type == 1 || type == 9, grey = type == 3 || type == 11;
    const int known = mapped || grey || type == 2 || type == 10;
    if (!known || mapType > 1 || (mapped != (mapType == 1)) || (h[17] & 0xC0) || Le16(h + 12) == 0 || Le16(h + 14) == 0)
        return 0;
    if (mapped && (bits != 8 || (mapBits != 15 && mapBits != 16 && mapBits != 24 && mapBits != 32)))
        return 0;
    if (grey ? bits != 8 && bits != 16 : !mapped && bits != 15 && bits != 16 && bits != 24 && bits != 32)
        return 0;
    *depth = 8;
    *colour = mapped ? "palette" : grey ? (bits == 16 ? "grey+alpha" : "grey") : bits == 32 ? "RGBA" : "RGB";
    return 1;
#else
    if (n < 26 || memcmp(h, "8BPS", 4) != 0)
        return 0;
    static const char *const kModes[] = {"bitmap", "grey", "palette", "RGB", "CMYK", "", "", "multichannel", "duotone", "Lab"};
    const uint32_t mode = Be16(h + 24), channels = Be16(h + 12);
    *depth = (int32_t)Be16(h + 22);
    *colour = mode < 10 ? kModes[mode] : "unknown";
    if (mode == 1)
        *comp = channels >= 2 ? 2 : 1;
    else
        *comp = mode == 3 && channels == 3 ? 3 : 4;
    return 1;
#endif
}

static int32_t TypeFor(int comp, int wide)
{
    if (comp == 1)
        return wide ? VX_PIXEL_GREY_FLOAT : VX_PIXEL_GREY;
    if (comp == 3)
        return wide ? VX_PIXEL_RGB_FLOAT : VX_PIXEL_RGB;
    return wide ? VX_PIXEL_RGBA_FLOAT : VX_PIXEL_RGBA;
}

/* Copies stb's pixels (comp channels of 8 or 16 bits) into the image, grey+alpha widened. */
static int StorePixels(ImageLoaderLocal *local, VxImage *image, const void *pixels, int comp, int wide)
{
    const size_t w = (size_t)image->width, out = image->bytesPerPixel / (wide ? sizeof(float) : 1);
    const size_t rowSize = w * out * (wide ? sizeof(float) : 1);
    unsigned char *row = local->services->alloc(rowSize);
    if (!row)
        return 0;
    for (int32_t y = 0; y < image->height; ++y) {
        for (size_t x = 0; x < w; ++x)
            for (size_t c = 0; c < out; ++c) {
                const size_t from = comp == 2 ? (c == 3 ? 1 : 0) : c;
                const size_t at = ((size_t)y * w + x) * (size_t)comp + from;
                if (wide)
                    ((float *)row)[x * out + c] = (float)((const uint16_t *)pixels)[at] / 65535.0f;
                else
                    row[x * out + c] = ((const unsigned char *)pixels)[at];
            }
        image->setLine(image, image->type, y, row);
    }
    local->services->free(row, rowSize);
    return 1;
}

static void LoadStb(ImageLoaderLocal *local)
{
    unsigned char header[32];
    const char *colour = "";
    int32_t depth = 8;
    int wanted = 0;
    const int n = ImfReadMagic(local->fileName, header, (int)sizeof header);
    if (!ReadHeader(header, n, &depth, &colour, &wanted))
        return;
    FILE *file = fopen(local->fileName, "rb");
    int w = 0, h = 0, comp = 0;
    if (!file || !stbi_info_from_file(file, &w, &h, &comp)) {
        local->result = file ? IMAGEFILE_BAD_FILE : IMAGEFILE_IO_ERROR;
        ImfMessage(local->message, IMF_FORMAT ": %s", file ? stbi_failure_reason() : "cannot open the file");
        if (file)
            fclose(file);
        return;
    }
    comp = wanted ? wanted : comp;
    const int wide = wanted ? depth == 16 : stbi_is_16_bit_from_file(file);
    const int32_t type = TypeFor(comp, wide);
    ImfSetInfo(local, IMF_FORMAT, (uint32_t)w, (uint32_t)h, type, wide ? 16 : depth, comp, colour);
    if (local->headerOnly || !ImfWithinLimit(local, IMF_FORMAT, (uint64_t)w, (uint64_t)h)) {
        if (local->headerOnly)
            local->result = IMAGEFILE_OK;
        fclose(file);
        return;
    }
    int got = 0;
    void *pixels = wide ? (void *)stbi_load_from_file_16(file, &w, &h, &got, wanted)
                        : (void *)stbi_load_from_file(file, &w, &h, &got, wanted);
    got = wanted ? wanted : got;
    fclose(file);
    VxImage *image = pixels && got == comp ? local->services->create(type, w, h) : NULL;
    if (!image || !StorePixels(local, image, pixels, comp, wide)) {
        local->result = pixels ? IMAGEFILE_NO_MEMORY : IMAGEFILE_BAD_FILE;
        ImfMessage(local->message, IMF_FORMAT ": %s", pixels ? "not enough memory for the pixels" : stbi_failure_reason());
        local->services->destroy(image);
        stbi_image_free(pixels);
        return;
    }
    stbi_image_free(pixels);
    local->image = image;
    local->result = IMAGEFILE_OK;
}

IMF_LOADER(ActivateLoader, LoadStb)

/* ---- Saving ----------------------------------------------------------------------------- */

#if !defined(IMF_PSD)
/* The whole picture as 8-bit samples of `type` (RGB or RGBA), or NULL. */
static unsigned char *FetchPixels(ImageSaverLocal *local, int32_t type, size_t *size)
{
    VxImage *image = local->image;
    const size_t row = (size_t)image->width * (type == VX_PIXEL_RGBA ? 4 : type == VX_PIXEL_GREY ? 1 : 3);
    *size = row * (size_t)image->height;
    unsigned char *pixels = local->services->alloc(*size);
    for (int32_t y = 0; pixels && y < image->height; ++y)
        if (!image->getLine(image, type, y, pixels + row * (size_t)y)) {
            local->services->free(pixels, *size);
            return NULL;
        }
    return pixels;
}
#endif

#if defined(IMF_PSD)
static int PutBe(FILE *file, uint32_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i)
        if (fputc((int)((value >> (8 * i)) & 0xFF), file) == EOF)
            return 0;
    return 1;
}

/* An uncompressed PSD: header, empty colour mode, resources and layers, then each channel's
 * plane. Float images are written with 16 bits per channel. */
static int WritePsd(ImageSaverLocal *local, FILE *file, int alpha)
{
    VxImage *image = local->image;
    const int wide = ImfIsFloat(image->type), grey = !alpha && ImfIsGrey(image->type);
    const int channels = grey ? 1 : alpha ? 4 : 3;
    const int32_t fetch = wide ? (grey ? VX_PIXEL_GREY_FLOAT : VX_PIXEL_RGBA_FLOAT) : (grey ? VX_PIXEL_GREY : VX_PIXEL_RGBA);
    const size_t stride = grey ? 1 : 4, rowSize = (size_t)image->width * stride * (wide ? sizeof(float) : 1);
    unsigned char *row = local->services->alloc(rowSize);
    int ok = row && fwrite("8BPS", 1, 4, file) == 4 && PutBe(file, 1, 2) && PutBe(file, 0, 4) && PutBe(file, 0, 2) &&
             PutBe(file, (uint32_t)channels, 2) && PutBe(file, (uint32_t)image->height, 4) &&
             PutBe(file, (uint32_t)image->width, 4) && PutBe(file, wide ? 16 : 8, 2) && PutBe(file, grey ? 1 : 3, 2) &&
             PutBe(file, 0, 4) && PutBe(file, 0, 4) && PutBe(file, 0, 4) && PutBe(file, 0, 2);
    for (int c = 0; ok && c < channels; ++c)
        for (int32_t y = 0; ok && y < image->height; ++y) {
            ok = image->getLine(image, fetch, y, row);
            for (int32_t x = 0; ok && x < image->width; ++x) {
                const size_t at = (size_t)x * stride + (size_t)c;
                ok = wide ? PutBe(file, ImfFloatToWord(((float *)row)[at]), 2) : fputc(row[at], file) != EOF;
            }
        }
    if (row)
        local->services->free(row, rowSize);
    return ok;
}
#endif

static void SaveStb(ImageSaverLocal *local, int alpha)
{
    int ok = 0;
#if defined(IMF_PSD)
    FILE *file = fopen(local->fileName, "wb");
    ok = file && WritePsd(local, file, alpha);
    ok = file && fclose(file) == 0 && ok;
#else
    size_t size = 0;
    const int32_t type = alpha ? VX_PIXEL_RGBA : VX_PIXEL_RGB;
    unsigned char *pixels = FetchPixels(local, type, &size);
    if (!pixels) {
        local->result = IMAGEFILE_NO_MEMORY;
        ImfMessage(local->message, IMF_FORMAT ": not enough memory for the pixels");
        return;
    }
    const int comp = alpha ? 4 : 3;
#if defined(IMF_BMP)
    ok = stbi_write_bmp(local->fileName, local->image->width, local->image->height, comp, pixels);
#else
    ok = stbi_write_tga(local->fileName, local->image->width, local->image->height, comp, pixels);
#endif
    local->services->free(pixels, size);
#endif
    local->result = ok ? IMAGEFILE_OK : IMAGEFILE_IO_ERROR;
    if (!ok) {
        ImfMessage(local->message, IMF_FORMAT ": the file could not be written");
        remove(local->fileName);
    }
}

IMF_SAVER(Activate24, SaveStb, 0)
IMF_SAVER(Activate32, SaveStb, 1)

#if defined(IMF_BMP)
static const ServerTagDef kLoaderTags[] = {{"BMP Loader", 0}, {NULL, 0}};
static const ServerTagDef k24Tags[] = {{"BMP 24 bit (.bmp)", 0}, {NULL, 0}};
static const ServerTagDef k32Tags[] = {{"BMP 32 bit (.bmp)", 0}, {NULL, 0}};
static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_BMPLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_BMP24(.bmp)", Activate24, k24Tags},
    {"ImageSaver", "VX_BMP32(.bmp)", Activate32, k32Tags},
    {NULL, NULL, NULL, NULL},
};
#elif defined(IMF_TGA)
static const ServerTagDef kLoaderTags[] = {{"Targa Loader", 0}, {NULL, 0}};
static const ServerTagDef k24Tags[] = {{"Targa 24 bit (.tga)", 0}, {NULL, 0}};
static const ServerTagDef k32Tags[] = {{"Targa 32 bit (.tga)", 0}, {NULL, 0}};
static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_TGALoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_TGA24(.tga)", Activate24, k24Tags},
    {"ImageSaver", "VX_TGA32(.tga)", Activate32, k32Tags},
    {NULL, NULL, NULL, NULL},
};
#else
static const ServerTagDef kLoaderTags[] = {{"Photoshop PSD Loader", 0}, {NULL, 0}};
static const ServerTagDef k24Tags[] = {{"Photoshop 24 bit (.psd)", 0}, {NULL, 0}};
static const ServerTagDef k32Tags[] = {{"Photoshop 32 bit (.psd)", 0}, {NULL, 0}};
static const ServerRecord kServers[] = {
    {"ImageLoader", "VX_PShopLoader", ActivateLoader, kLoaderTags},
    {"ImageSaver", "VX_PShop24(.psd)", Activate24, k24Tags},
    {"ImageSaver", "VX_PShop32(.psd)", Activate32, k32Tags},
    {NULL, NULL, NULL, NULL},
};
#endif

IMF_MODULE(kServers);
