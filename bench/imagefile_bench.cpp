// Loading and saving a 4K picture through the library's image file calls (host, module,
// protocol, image rows) against calling libpng and libjpeg directly into a plain buffer, with
// the same settings: PNG RGBA 8-bit at libpng's default compression, JPEG RGB at quality 90.
#include <vxtools3/host.h>
#include <vxtools3/imagefile.h>

#include "bench/ratio_reporter.h"

#include <jpeglib.h>
#include <png.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int32_t kWidth = 3840, kHeight = 2160;

struct Setup {
    std::string dir, png, jpeg;
    VxImage *rgba = nullptr, *rgb = nullptr;
    std::vector<uint8_t> rgbaBytes, rgbBytes;
};

// A smooth picture with noise, so that the codecs meet realistic data.
std::vector<uint8_t> PictureBytes(int channels)
{
    std::vector<uint8_t> bytes(static_cast<size_t>(kWidth) * kHeight * channels);
    std::mt19937 rng(7);
    size_t i = 0;
    for (int32_t y = 0; y < kHeight; ++y)
        for (int32_t x = 0; x < kWidth; ++x)
            for (int c = 0; c < channels; ++c)
                bytes[i++] = static_cast<uint8_t>(120 + 100 * std::sin(0.004 * (x * (c + 1) + y * (4 - c))) + static_cast<double>(rng() % 8));
    return bytes;
}

VxImage *ImageOf(const std::vector<uint8_t> &bytes, int32_t type, int channels)
{
    VxImage *image = ImageCreate(type, kWidth, kHeight);
    for (int32_t y = 0; y < kHeight; ++y)
        image->setLine(image, type, y, bytes.data() + static_cast<size_t>(y) * kWidth * channels);
    return image;
}

const Setup &Files()
{
    static Setup s = [] {
        Setup setup;
        char dir[] = "/tmp/vx-bench-images-XXXXXX";
        if (!mkdtemp(dir) || !HostSetDatabase(dir) || !HostStartup())
            std::abort();
        setup.dir = dir;
        for (const char *module : {"PNG.p", "JPEG.p"})
            HostAddModule((std::string(VX_IMAGE_MODULE_DIR) + "/" + module).c_str(), nullptr);
        for (const char *server : {"VX_PNGLoader", "VX_JPEGLoader"})
            HostLockServer("ImageLoader", server);
        setup.rgbaBytes = PictureBytes(4);
        setup.rgbBytes = PictureBytes(3);
        setup.rgba = ImageOf(setup.rgbaBytes, VX_PIXEL_RGBA, 4);
        setup.rgb = ImageOf(setup.rgbBytes, VX_PIXEL_RGB, 3);
        setup.png = setup.dir + "/in.png";
        setup.jpeg = setup.dir + "/in.jpg";
        if (ImageFileSave(setup.png.c_str(), "VX_PNG32(.png)", setup.rgba, 0, nullptr, 0) != IMAGEFILE_OK ||
            ImageFileSave(setup.jpeg.c_str(), "VX_JPEG(.jpg)", setup.rgb, 90, nullptr, 0) != IMAGEFILE_OK)
            std::abort();
        return setup;
    }();
    return s;
}

void Bytes(benchmark::State &state) { state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight); }

void LoadOurs(benchmark::State &state, bool png)
{
    const Setup &s = Files();
    for (auto _ : state) {
        VxImage *image = nullptr;
        if (ImageFileLoad((png ? s.png : s.jpeg).c_str(), &image, nullptr, nullptr, 0) != IMAGEFILE_OK)
            std::abort();
        benchmark::DoNotOptimize(image);
        ImageDestroy(image);
    }
    Bytes(state);
}

void SaveOurs(benchmark::State &state, bool png)
{
    const Setup &s = Files();
    const std::string out = s.dir + (png ? "/ours.png" : "/ours.jpg");
    for (auto _ : state)
        if (ImageFileSave(out.c_str(), png ? "VX_PNG32(.png)" : "VX_JPEG(.jpg)", png ? s.rgba : s.rgb, 90, nullptr, 0) !=
            IMAGEFILE_OK)
            std::abort();
    Bytes(state);
}

void LoadLibpng(benchmark::State &state)
{
    const Setup &s = Files();
    for (auto _ : state) {
        FILE *file = std::fopen(s.png.c_str(), "rb");
        png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        png_init_io(png, file);
        png_read_info(png, info);
        const size_t rowBytes = png_get_rowbytes(png, info);
        std::vector<uint8_t> pixels(rowBytes * png_get_image_height(png, info));
        for (png_uint_32 y = 0; y < png_get_image_height(png, info); ++y)
            png_read_row(png, pixels.data() + rowBytes * y, nullptr);
        benchmark::DoNotOptimize(pixels.data());
        png_destroy_read_struct(&png, &info, nullptr);
        std::fclose(file);
    }
    Bytes(state);
}

void SaveLibpng(benchmark::State &state)
{
    const Setup &s = Files();
    const std::string out = s.dir + "/peer.png";
    for (auto _ : state) {
        FILE *file = std::fopen(out.c_str(), "wb");
        png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        png_init_io(png, file);
        png_set_IHDR(png, info, kWidth, kHeight, 8, PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        for (int32_t y = 0; y < kHeight; ++y)
            png_write_row(png, s.rgbaBytes.data() + static_cast<size_t>(y) * kWidth * 4);
        png_write_end(png, info);
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
    }
    Bytes(state);
}

void LoadLibjpeg(benchmark::State &state)
{
    const Setup &s = Files();
    for (auto _ : state) {
        FILE *file = std::fopen(s.jpeg.c_str(), "rb");
        jpeg_decompress_struct cinfo;
        jpeg_error_mgr error;
        cinfo.err = jpeg_std_error(&error);
        jpeg_create_decompress(&cinfo);
        jpeg_stdio_src(&cinfo, file);
        jpeg_read_header(&cinfo, TRUE);
        cinfo.out_color_space = JCS_RGB;
        jpeg_start_decompress(&cinfo);
        std::vector<uint8_t> pixels(static_cast<size_t>(cinfo.output_width) * cinfo.output_height * 3);
        while (cinfo.output_scanline < cinfo.output_height) {
            JSAMPROW row = pixels.data() + static_cast<size_t>(cinfo.output_scanline) * cinfo.output_width * 3;
            jpeg_read_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_decompress(&cinfo);
        jpeg_destroy_decompress(&cinfo);
        std::fclose(file);
        benchmark::DoNotOptimize(pixels.data());
    }
    Bytes(state);
}

void SaveLibjpeg(benchmark::State &state)
{
    const Setup &s = Files();
    const std::string out = s.dir + "/peer.jpg";
    for (auto _ : state) {
        FILE *file = std::fopen(out.c_str(), "wb");
        jpeg_compress_struct cinfo;
        jpeg_error_mgr error;
        cinfo.err = jpeg_std_error(&error);
        jpeg_create_compress(&cinfo);
        jpeg_stdio_dest(&cinfo, file);
        cinfo.image_width = kWidth;
        cinfo.image_height = kHeight;
        cinfo.input_components = 3;
        cinfo.in_color_space = JCS_RGB;
        jpeg_set_defaults(&cinfo);
        jpeg_set_quality(&cinfo, 90, TRUE);
        jpeg_start_compress(&cinfo, TRUE);
        for (int32_t y = 0; y < kHeight; ++y) {
            JSAMPROW row = const_cast<uint8_t *>(s.rgbBytes.data()) + static_cast<size_t>(y) * kWidth * 3;
            jpeg_write_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_compress(&cinfo);
        jpeg_destroy_compress(&cinfo);
        std::fclose(file);
    }
    Bytes(state);
}

}  // namespace

BENCHMARK_CAPTURE(LoadOurs, png, true)->Name("load_png_rgba_3840x2160:ImageFileLoad")->Unit(benchmark::kMillisecond);
BENCHMARK(LoadLibpng)->Name("load_png_rgba_3840x2160:libpng")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SaveOurs, png, true)->Name("save_png_rgba_3840x2160:ImageFileSave")->Unit(benchmark::kMillisecond);
BENCHMARK(SaveLibpng)->Name("save_png_rgba_3840x2160:libpng")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(LoadOurs, jpeg, false)->Name("load_jpeg_rgb_3840x2160:ImageFileLoad")->Unit(benchmark::kMillisecond);
BENCHMARK(LoadLibjpeg)->Name("load_jpeg_rgb_3840x2160:libjpeg")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(SaveOurs, jpeg, false)->Name("save_jpeg_rgb_3840x2160:ImageFileSave")->Unit(benchmark::kMillisecond);
BENCHMARK(SaveLibjpeg)->Name("save_jpeg_rgb_3840x2160:libjpeg")->Unit(benchmark::kMillisecond);
