// PNG reading and writing with libpng's simplified interface (png_image).
#include "png_io.h"

#include <png.h>

#include <cstdio>
#include <cstring>
#include <vector>

namespace vxtool {
namespace {

// The byte type a PNG of `format` is held in, and back.
int32_t TypeOfFormat(png_uint_32 format)
{
    if (format & PNG_FORMAT_FLAG_ALPHA)
        return VX_PIXEL_RGBA;
    return (format & PNG_FORMAT_FLAG_COLOR) ? VX_PIXEL_RGB : VX_PIXEL_GREY;
}

int32_t ByteTypeFor(int32_t type)
{
    switch (type) {
    case VX_PIXEL_GREY:
    case VX_PIXEL_GREY_FLOAT: return VX_PIXEL_GREY;
    case VX_PIXEL_RGBA:
    case VX_PIXEL_RGBA_FLOAT: return VX_PIXEL_RGBA;
    default: return VX_PIXEL_RGB;
    }
}

png_uint_32 FormatOfType(int32_t byteType)
{
    return byteType == VX_PIXEL_GREY ? PNG_FORMAT_GRAY : byteType == VX_PIXEL_RGBA ? PNG_FORMAT_RGBA : PNG_FORMAT_RGB;
}

}  // namespace

VxImage *PngRead(const char *path, std::string &error)
{
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&png, path)) {
        error = png.message;
        return nullptr;
    }
    const int32_t type = TypeOfFormat(png.format);
    png.format = FormatOfType(type);
    if (png.width > 0x7FFFFFFF || png.height > 0x7FFFFFFF) {
        png_image_free(&png);
        error = "image too large";
        return nullptr;
    }
    VxImage *image = ImageCreate(type, static_cast<int32_t>(png.width), static_cast<int32_t>(png.height));
    if (!image) {
        png_image_free(&png);
        error = "not enough memory for the image";
        return nullptr;
    }
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
    if (!png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr)) {
        error = png.message;
        ImageDestroy(image);
        return nullptr;
    }
    const size_t rowBytes = static_cast<size_t>(image->width) * image->bytesPerPixel;
    for (int32_t y = 0; y < image->height; ++y)
        image->setLine(image, type, y, pixels.data() + rowBytes * y);
    return image;
}

bool PngWrite(const char *path, VxImage *image, std::string &error)
{
    const int32_t type = ByteTypeFor(image->type);
    const size_t rowBytes = static_cast<size_t>(image->width) * ImageBytesPerPixel(type);
    std::vector<uint8_t> pixels(rowBytes * static_cast<size_t>(image->height));
    for (int32_t y = 0; y < image->height; ++y)
        if (!image->getLine(image, type, y, pixels.data() + rowBytes * y)) {
            error = "the image's pixels cannot be converted to bytes";
            return false;
        }
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image->width);
    png.height = static_cast<png_uint_32>(image->height);
    png.format = FormatOfType(type);
    if (!png_image_write_to_file(&png, path, 0, pixels.data(), static_cast<png_int_32>(rowBytes), nullptr)) {
        error = png.message;
        return false;
    }
    return true;
}

}  // namespace vxtool
