// Image buffers: creation, the access operations, palettes, attributes, pixel conversion and
// duplication.
#include "image/convert.h"
#include "image/image_internal.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>


namespace vx::image {
namespace {

constexpr size_t kMaxBufferBytes = size_t{1} << 40;

bool Inside(const VxImage *image, int32_t x, int32_t y)
{
    return x >= 0 && y >= 0 && x < image->width && y < image->height;
}

uint8_t *PixelAt(const VxImage *image, int32_t x, int32_t y)
{
    return Row(image, y) + static_cast<size_t>(x) * image->bytesPerPixel;
}

// Builds (or rebuilds after a palette change) the inverse table of palette `which`.
const uint8_t *InverseOf(VxImage *image, int which)
{
    Palette &p = image->priv->palette[which];
    if (!p.rgb)
        return nullptr;
    if (!p.inverse)
        p.inverse = static_cast<uint8_t *>(StdAlloc(kInverseBytes));  // raises on failure
    if (!p.inverse)
        return nullptr;
    if (!p.inverseValid) {
        ImageBuildInverseTable(p.rgb, p.inverse);
        p.inverseValid = 1;
    }
    return p.inverse;
}

// Converts `count` pixels of the image's type at `stored` into `out` of `type`.
int ReadConverted(VxImage *image, int32_t type, const uint8_t *stored, void *out, size_t count)
{
    if (type == image->type && (type != VX_PIXEL_INDEX || image->priv->palettesAgree)) {
        std::memcpy(out, stored, count * image->bytesPerPixel);
        return 1;
    }
    const uint8_t *inverse = nullptr;
    if (type == VX_PIXEL_INDEX) {
        CKPT_BEGIN_OR_RETURN(0);
        inverse = CallerInverse(image);
        CkptEnd();
    }
    return ConvertRun(out, type, inverse, stored, image->type, StoredPalette(image), count) ? 1 : 0;
}

int WriteConverted(VxImage *image, int32_t type, uint8_t *stored, const void *in, size_t count)
{
    if (type == image->type && (type != VX_PIXEL_INDEX || image->priv->palettesAgree)) {
        std::memcpy(stored, in, count * image->bytesPerPixel);
        return 1;
    }
    const uint8_t *inverse = nullptr;
    if (image->type == VX_PIXEL_INDEX) {
        CKPT_BEGIN_OR_RETURN(0);
        inverse = StoredInverse(image);
        CkptEnd();
    }
    return ConvertRun(stored, image->type, inverse, in, type, CallerPalette(image), count) ? 1 : 0;
}

int OpGetPixel(VxImage *image, int32_t type, int32_t x, int32_t y, void *out)
{
    if (!image || !out || !Inside(image, x, y))
        return 0;
    return ReadConverted(image, type, PixelAt(image, x, y), out, 1);
}

int OpSetPixel(VxImage *image, int32_t type, int32_t x, int32_t y, const void *in)
{
    if (!image || !in || !Inside(image, x, y))
        return 0;
    return WriteConverted(image, type, PixelAt(image, x, y), in, 1);
}

int OpGetLine(VxImage *image, int32_t type, int32_t y, void *out)
{
    if (!image || !out || !Inside(image, 0, y))
        return 0;
    return ReadConverted(image, type, Row(image, y), out, static_cast<size_t>(image->width));
}

int OpSetLine(VxImage *image, int32_t type, int32_t y, const void *in)
{
    if (!image || !in || !Inside(image, 0, y))
        return 0;
    return WriteConverted(image, type, Row(image, y), in, static_cast<size_t>(image->width));
}

bool PaletteArgsOk(const VxImage *image, int32_t which, int32_t first, int32_t count)
{
    return image && (which == 0 || which == 1) && first >= 0 && first <= 255 && count >= 0;
}

int OpGetPalette(VxImage *image, int32_t which, int32_t first, int32_t count, uint8_t *out)
{
    if (!PaletteArgsOk(image, which, first, count) || (count > 0 && !out))
        return 0;
    const Palette &p = image->priv->palette[which];
    if (!p.rgb)
        return 0;
    const int32_t n = std::min(count, 256 - first);
    if (n > 0)
        std::memcpy(out, p.rgb + 3 * first, 3 * static_cast<size_t>(n));
    return p.end;
}

int32_t ComputeAgree(const VxImagePrivate *priv)
{
    const Palette &a = priv->palette[0], &b = priv->palette[1];
    if (!a.rgb || !b.rgb)
        return 1;
    if (a.first != b.first || a.end != b.end)
        return 0;
    const size_t offset = 3 * static_cast<size_t>(a.first), bytes = 3 * static_cast<size_t>(a.end - a.first);
    return std::memcmp(a.rgb + offset, b.rgb + offset, bytes) == 0 ? 1 : 0;
}

int OpSetPalette(VxImage *image, int32_t which, int32_t first, int32_t count, const uint8_t *in)
{
    if (!PaletteArgsOk(image, which, first, count) || count < 1 || !in)
        return 0;
    Palette &p = image->priv->palette[which];
    const int32_t n = std::min(count, 256 - first);
    if (!p.rgb) {
        CKPT_BEGIN_OR_RETURN(0);
        p.rgb = static_cast<uint8_t *>(StdAlloc(kPaletteBytes));
        CkptEnd();
        for (int i = 0; i < 256; ++i)
            std::memset(p.rgb + 3 * i, i, 3);
        p.first = first;
        p.end = first + n;
    }
    std::memcpy(p.rgb + 3 * first, in, 3 * static_cast<size_t>(n));
    p.first = std::min(p.first, first);
    p.end = std::max(p.end, first + n);
    image->priv->palette[0].inverseValid = 0;
    image->priv->palette[1].inverseValid = 0;
    image->priv->palettesAgree = ComputeAgree(image->priv);
    return 1;
}

int OpGetAttribute(VxImage *image, int32_t code, void *out)
{
    if (!image || !out || static_cast<uint32_t>(code) >= kAttributeCount)
        return 0;
    std::memcpy(out, &image->priv->attributes[code], 4);
    return 1;
}

int OpSetAttribute(VxImage *image, int32_t code, const void *in)
{
    if (!image || !in || static_cast<uint32_t>(code) >= kAttributeCount)
        return 0;
    std::memcpy(&image->priv->attributes[code], in, 4);
    return 1;
}

void FreePalette(Palette &p)
{
    FreeHeap(p.rgb, kPaletteBytes);
    FreeHeap(p.inverse, kInverseBytes);
    p = Palette{};
}

void OpDestroy(VxImage *image)
{
    VxImagePrivate *priv = image->priv;
    FreeHeap(priv->pixels, BufferBytes(image));
    FreePalette(priv->palette[0]);
    FreePalette(priv->palette[1]);
    FreeHeap(priv, sizeof *priv);
    FreeHeap(image, sizeof *image);
}

void InitRecord(VxImage *image, int32_t type, int32_t width, int32_t height)
{
    image->width = width;
    image->height = height;
    image->type = type;
    image->bytesPerPixel = ImageBytesPerPixel(type);
    image->destroy = OpDestroy;
    image->getPixel = OpGetPixel;
    image->setPixel = OpSetPixel;
    image->getLine = OpGetLine;
    image->setLine = OpSetLine;
    image->getPalette = OpGetPalette;
    image->setPalette = OpSetPalette;
    image->getAttribute = OpGetAttribute;
    image->setAttribute = OpSetAttribute;
}

void InitPrivate(VxImagePrivate *priv)
{
    priv->palettesAgree = 1;
    for (int i = 0; i < 6; ++i)
        priv->attributes[i] = std::bit_cast<uint32_t>(1.0f);
    priv->attributes[6] = 0;
    priv->attributes[7] = 2540;
    priv->attributes[8] = 0;
    priv->attributes[9] = 1;
}

// Copies one palette, creating it in `to` when `from` has it.
void CopyPalette(VxImage *to, const VxImage *from, int which)
{
    const Palette &src = from->priv->palette[which];
    Palette &dst = to->priv->palette[which];
    if (!src.rgb)
        return;
    if (!dst.rgb)
        dst.rgb = static_cast<uint8_t *>(StdAlloc(kPaletteBytes));
    std::memcpy(dst.rgb, src.rgb, kPaletteBytes);
    dst.first = src.first;
    dst.end = src.end;
    dst.inverseValid = 0;
}

}  // namespace

const uint8_t *StoredPalette(const VxImage *image)
{
    const VxImagePrivate *priv = image->priv;
    return priv->palette[0].rgb ? priv->palette[0].rgb : priv->palette[1].rgb;
}

const uint8_t *CallerPalette(const VxImage *image)
{
    const VxImagePrivate *priv = image->priv;
    return priv->palette[1].rgb ? priv->palette[1].rgb : priv->palette[0].rgb;
}

const uint8_t *StoredInverse(VxImage *image) { return InverseOf(image, image->priv->palette[0].rgb ? 0 : 1); }

const uint8_t *CallerInverse(VxImage *image) { return InverseOf(image, image->priv->palette[1].rgb ? 1 : 0); }

void CopyPalettes(VxImage *to, const VxImage *from)
{
    CopyPalette(to, from, 0);
    CopyPalette(to, from, 1);
    to->priv->palettesAgree = ComputeAgree(to->priv);
}

void DestroyImageArm(uintptr_t image, uintptr_t) { ImageDestroy(reinterpret_cast<VxImage *>(image)); }

bool ReadRgbaFloat(VxImage *image, float *out)
{
    const size_t rowFloats = 4 * static_cast<size_t>(image->width);
    for (int32_t y = 0; y < image->height; ++y)
        if (!ReadConverted(image, VX_PIXEL_RGBA_FLOAT, Row(image, y), out + rowFloats * y,
                           static_cast<size_t>(image->width)))
            return false;
    return true;
}

}  // namespace vx::image

using namespace vx::image;

extern "C" {

VX_API uint32_t ImageBytesPerPixel(int32_t type)
{
    return type >= 0 && type <= 6 ? kBytesPerPixel[type] : 0;
}

VX_API VxImage *ImageCreate(int32_t type, int32_t width, int32_t height)
{
    CKPT_BEGIN_OR_RETURN(nullptr);
    const uint32_t bpp = ImageBytesPerPixel(type);
    const size_t bytes = static_cast<size_t>(width > 0 ? width : 0) * static_cast<size_t>(height > 0 ? height : 0) * bpp;
    if (bytes == 0 || bytes > kMaxBufferBytes)
        CkptRecover(VX_IMAGE_BAD_TYPE);
    auto *image = static_cast<VxImage *>(AllocArmed(sizeof(VxImage)));
    auto *priv = static_cast<VxImagePrivate *>(AllocArmed(sizeof(VxImagePrivate)));
    auto *pixels = static_cast<uint8_t *>(StdAlloc(bytes));
    CkptEnd();
    InitRecord(image, type, width, height);
    InitPrivate(priv);
    priv->pixels = pixels;
    image->priv = priv;
    return image;
}

VX_API VxImage *ImageColorCreate(int32_t width, int32_t height) { return ImageCreate(VX_PIXEL_RGB, width, height); }

VX_API VxImage *ImageGreyCreate(int32_t width, int32_t height) { return ImageCreate(VX_PIXEL_GREY, width, height); }

VX_API VxImage *ImageIndexCreate(int32_t width, int32_t height, int32_t entries)
{
    if (entries > 256)
        return nullptr;
    CKPT_BEGIN_OR_RETURN(nullptr);
    VxImage *image = ImageCreate(VX_PIXEL_INDEX, width, height);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(image), 0);
    if (entries > 0) {
        uint8_t ramp[kPaletteBytes];
        for (int k = 0; k < entries; ++k)
            std::memset(ramp + 3 * k, (256 * k) / entries, 3);
        image->setPalette(image, 0, 0, entries, ramp);
    }
    CkptEnd();
    return image;
}

VX_API void ImageDestroy(VxImage *image)
{
    if (image)
        image->destroy(image);
}

VX_API int ImageConvertPixel(void *out, int32_t outType, const uint8_t *outInverse, const void *in, int32_t inType,
                             const uint8_t *inPalette)
{
    if (!out || !in || !ImageBytesPerPixel(outType) || !ImageBytesPerPixel(inType))
        return 0;
    // One pixel through the general path: the line loops' fast paths are checked against it.
    return ConvertOne(out, outType, outInverse, in, inType, inPalette) ? 1 : 0;
}

VX_API void ImageBuildInverseTable(const uint8_t *palette, uint8_t *table)
{
    // One row of 32 blue cells per red and green key: every entry is measured against the
    // whole row at once (a loop the compiler vectorises); ties keep the lowest index.
    int32_t blueOf[32];
    for (int b5 = 0; b5 < 32; ++b5)
        blueOf[b5] = (b5 << 3) | (b5 >> 2);
    for (int r5 = 0; r5 < 32; ++r5)
        for (int g6 = 0; g6 < 64; ++g6) {
            const int r = (r5 << 3) | (r5 >> 2), g = (g6 << 2) | (g6 >> 4);
            // distance << 8 | entry: the minimum is the nearest entry, the lowest on ties.
            int32_t best[32];
            for (int b5 = 0; b5 < 32; ++b5)
                best[b5] = INT32_MAX;
            for (int32_t entry = 0; entry < 256; ++entry) {
                const int32_t dr = palette[3 * entry] - r, dg = palette[3 * entry + 1] - g;
                const int32_t base = dr * dr + dg * dg, blue = palette[3 * entry + 2];
                for (int b5 = 0; b5 < 32; ++b5) {
                    const int32_t db = blue - blueOf[b5];
                    best[b5] = std::min(best[b5], ((base + db * db) << 8) | entry);
                }
            }
            uint8_t *row = table + ((r5 << 11) | (g6 << 5));
            for (int b5 = 0; b5 < 32; ++b5)
                row[b5] = static_cast<uint8_t>(best[b5] & 0xFF);
        }
}

VX_API VxImage *ImageDuplicate(VxImage *image, int32_t type, const uint8_t *palette)
{
    if (!image || !ImageBytesPerPixel(type))
        return nullptr;
    const bool ownPalette = type == VX_PIXEL_INDEX && palette;
    CKPT_BEGIN_OR_RETURN(nullptr);
    VxImage *copy = ImageCreate(type, image->width, image->height);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(copy), 0);
    uint8_t *table = nullptr;
    if (ownPalette) {
        copy->setPalette(copy, 0, 0, 256, palette);
        table = static_cast<uint8_t *>(AllocArmed(kInverseBytes));
        ImageBuildInverseTable(palette, table);
    } else {
        CopyPalettes(copy, image);
    }
    const uint8_t *inverse = table ? table : (type == VX_PIXEL_INDEX ? StoredInverse(copy) : nullptr);
    CkptEnd();
    bool ok = true;
    if (type == image->type && !ownPalette)
        std::memcpy(copy->priv->pixels, image->priv->pixels, BufferBytes(image));
    else
        ok = ConvertRun(copy->priv->pixels, type, inverse, image->priv->pixels, image->type, StoredPalette(image),
                        static_cast<size_t>(image->width) * static_cast<size_t>(image->height));
    FreeHeap(table, table ? kInverseBytes : 0);
    if (!ok) {
        ImageDestroy(copy);
        return nullptr;
    }
    return copy;
}

VX_API VxImage *ImageDuplicateArea(VxImage *image, int32_t x, int32_t y, int32_t width, int32_t height)
{
    if (!image || width < 1 || height < 1 || x < 0 || y < 0 || width > image->width - x ||
        height > image->height - y)
        return nullptr;
    CKPT_BEGIN_OR_RETURN(nullptr);
    VxImage *copy = ImageCreate(image->type, width, height);
    CkptArm(DestroyImageArm, reinterpret_cast<uintptr_t>(copy), 0);
    CopyPalettes(copy, image);
    CkptEnd();
    const size_t rowBytes = static_cast<size_t>(width) * image->bytesPerPixel;
    for (int32_t row = 0; row < height; ++row)
        std::memcpy(Row(copy, row), Row(image, y + row) + static_cast<size_t>(x) * image->bytesPerPixel, rowBytes);
    return copy;
}

}  // extern "C"
